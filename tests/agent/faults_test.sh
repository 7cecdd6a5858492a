#!/usr/bin/env bash
# The agent against a hostile or broken server and a wrong configuration:
# poll and feedback deadlines, slow and overlong downloads, memory bound,
# a complete file kept across a restart, exit statuses, start-up checks and
# the polling interval in loop mode.
# usage: faults_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
mkdir -p "$work/art"
head -c 640000 /dev/urandom > "$work/art/image.bin"
alog() { echo "$work/agent$n.log"; }
# Runs the agent once with extra settings ("key=value"; one that serve wrote
# is replaced), then options after "--"; sets $code and $took (seconds).
once() {
  local opts=() given; given=$(sed 's/ *=.*//' "$conf")
  while [ $# -gt 0 ] && [ "$1" != -- ]; do
    if grep -qx -- "${1%%[ =]*}" <<<"$given"; then sed -i "s|^${1%%[ =]*} *=.*|$1|" "$conf"
    else printf '%s\n' "$1" >> "$conf"; fi
    shift
  done
  [ $# -gt 0 ] && shift && opts=("$@")
  local start; start=$(date +%s)
  "$agent" --once "${opts[@]}" --config "$conf" > "$(alog)" 2>&1
  code=$?; took=$(($(date +%s) - start))
}
expect() {  # what, exit status, longest run in s, pattern in the agent's log
  check "$1: exit $2" test "$code" -eq "$2"
  check "$1: within $3 s" test "$took" -le "$3"
  [ -z "$4" ] || check "$1: says '$4'" grep -q -- "$4" "$(alog)"
}
ok='install-command = true'

# Poll faults: the deadline or the memory bound ends the poll, status 3.
while IFS='|' read -r what fault settings longest pattern; do
  serve $fault
  port=$(sed -n 's|^DDI server on https://[0-9.]*:\([0-9]*\).*|\1|p' "$log")
  once "$ok" ${settings/:0/:$port}
  expect "$what" 3 "$longest" "$pattern"
done <<'EOF'
poll never answered|--fault poll=stall|poll-timeout-s=2|8|no complete answer within 2 s
poll trickled|--fault poll=trickle|poll-timeout-s=2|8|no complete answer within 2 s
endless poll answer|--fault poll=endless|max-document-mib=8|20|more than 8 MiB
token refused|--token other|poll-timeout-s=5|8|refused the credentials (HTTP 401)
TLS certificate not trusted|--https|address=https://127.0.0.1:0|8|server certificate not trusted: 
EOF
# Memory under hostile answers with the default bound: each is cancelled or
# its parse refused, and the peak resident size (of the agent, read by
# python3 from its rusage) stays under 128 MiB.
peak_kib() {
  python3 -c 'import resource, subprocess, sys
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)' "$agent" --once --config "$conf"
}
# A sanitizer's own memory would count too: those builds skip it.
[ -n "$sanitized" ] && echo "skipped: peak memory under a $sanitized sanitizer build"
for fault in $([ -z "$sanitized" ] && echo poll=endless deployment={endless,flood,deep,many}); do
  serve --fault $fault
  printf '%s\n' "$ok" >> "$conf"
  check "$fault answer, default bound: peak under 128 MiB" test "$(peak_kib)" -lt 131072
done

# A deploymentBase that cannot be read: said, nothing sent, status 3.
serve --fault deployment=overlong
once "$ok"
expect "unreadable deployment" 3 10 "the deployment the server linked could not be read"
check "unreadable deployment: no feedback" bash -c "! grep -q '^POST' '$log'"

# An interval the library cannot read, once the action has closed and the
# attributes were sent: the reason is the interval, not the network.
serve --bad-sleep 1:2:3:4
for _ in 1 2 3; do once "$ok"; done
expect "four-piece interval, nothing linked" 3 10 "no polling interval the library can read"
serve
sed -i 's|^address = .*|address = http://127.0.0.1:1|' "$conf"
once "$ok"
expect "server unreachable" 3 8 "could not be reached"

# Downloads: a trickle falls below the minimum rate; an endless body stops
# at the artifact's size and leaves nothing behind, even on a full disk.
serve --fault artifact=trickle
once "$ok" 'download-timeout-s = 1' 'download-retries = 0'
expect "artifact trickled" 1 10 "fewer than 1024 bytes in 1 s"
check "artifact trickled: failure reported" closed_with failure
serve --fault artifact=overlong
once "$ok" 'download-retries = 1'
expect "overlong artifact" 1 20 "more bytes than the announced 640000"
check "overlong artifact: nothing left" test -z "$(find "$dl" -mindepth 1)"
serve --fault artifact=endless
printf '%s\n' "$ok" >> "$conf"; mkdir -p "$dl"
if unshare -m true 2>/dev/null; then
  start=$(date +%s)
  unshare -m sh -c 'mount -t tmpfs -o size=2m,mode=0755 tmpfs "$1" && "$2" --once --config "$3" > "$4" 2>&1
    code=$?; find "$1" -mindepth 1 > "$5"; exit $code' _ "$dl" "$agent" "$conf" "$(alog)" "$work/left"
  code=$?; took=$(($(date +%s) - start))
  expect "endless artifact on a 2 MiB disk" 1 20 "more bytes than the announced"
  check "endless artifact on a 2 MiB disk: nothing left" test ! -s "$work/left"
else
  echo "skipped: endless artifact on a small disk (no private mount namespace here)"
fi

# On a terminal the bar of a resumed download counts the bytes on disk once.
serve --drop-after 50000
printf '%s\n' "$ok" >> "$conf"
script -qec "'$agent' --once --config '$conf'" /dev/null > "$(alog)" 2>&1
check "resumed download: the bar ends at the artifact's size" \
  bash -c "tr '\r' '\n' < '$(alog)' | grep -a 'image.bin ' | tail -1 | grep -q '100 %  *625 KiB'"

# POST/PUT (here the config data): SIGTERM ends a stuck one within 5 s and
# leaves the action open; an error document is reported, the server's text
# kept out of the output.
# SIGTERM ends the agent within 5 s whatever it waits for, status 0.
while IFS='|' read -r what options event says; do
  serve $options
  printf '%s\n' "$ok" >> "$conf"
  "$agent" --config "$conf" > "$(alog)" 2>&1 &
  pid=$!
  wait_for "$event" "$log"
  start=$(date +%s); kill -TERM $pid; wait $pid
  code=$?; took=$(($(date +%s) - start))
  expect "$what" 0 5 "$says"
done <<'EOF'
SIGTERM during a stalled poll|--fault poll=stall|GET /DEFAULT/controller/v1/dev01|
SIGTERM during a trickled download|--fault artifact=trickle|GET /artifacts|
SIGTERM while the download and its SHA-256 run|--slow 100|GET /artifacts|interrupted
SIGTERM during a stuck PUT|--fault config=stall|PUT .*/configData|the action stays open
EOF
check "SIGTERM during a stuck PUT: action not closed" test -z "$(closing)"
# ... and during an install command that would run on: its group is ended.
serve
echo "install-command = echo installing; sleep 60; touch $work/finished" >> "$conf"
"$agent" --config "$conf" > "$(alog)" 2>&1 &
pid=$!
wait_for installing "$(alog)"
start=$(date +%s); kill -TERM $pid; wait $pid
code=$?; took=$(($(date +%s) - start))
expect "SIGTERM during the install command" 0 5 "installation interrupted, left open"
check "SIGTERM during the install command: action open, command ended" \
  eval 'test -z "$(closing)" && ! pgrep -f "sleep 60; touch $work" >/dev/null'
# ... and before it is set up (still waiting to read its configuration from
# a pipe): the signal waits for the agent to stop cleanly, nothing is sent.
serve
mkfifo "$work/fifo.conf"; echo "$ok" >> "$conf"
"$agent" --once --config "$work/fifo.conf" > "$(alog)" 2>&1 &
pid=$!
for _ in $(seq 100); do grep -q partner "/proc/$pid/wchan" 2>/dev/null && break; sleep 0.1; done
kill -TERM $pid; start=$(date +%s); cat "$conf" > "$work/fifo.conf"; wait $pid
code=$?; took=$(($(date +%s) - start))
expect "SIGTERM while starting" 0 5 "signal 15: stopping"
check "SIGTERM while starting: no feedback" bash -c "! grep -q ^POST '$log'"
second_poll() {
  for _ in $(seq 150); do
    [ "$(grep -c 'controller/v1/dev01$' "$log")" -ge 2 ] && return 0; sleep 0.1
  done; return 1
}
# A feedback answered 410: the action is gone from the server, nothing is
# fetched for it; one never answered fails at its deadline, the deployment
# goes on and the agent polls on.
serve --fault feedback=410
once "$ok"
expect "feedback answered 410" 0 10 "action 1 no longer exists on the server"
check "feedback answered 410: nothing fetched" bash -c "! grep -q 'GET /artifacts' '$log'"
serve --fault feedback=stall --sleep 00:00:01
printf '%s\n' "$ok" 'feedback-timeout-s = 1' >> "$conf"
"$agent" --config "$conf" > "$(alog)" 2>&1 &
pid=$!
wait_for 'no answer within 1 s (feedback-timeout-s)' "$(alog)"
check "feedback never answered: fails at its deadline, the agent polls on" second_poll
check "feedback never answered: the deployment went on" grep -q 'deployment 1: success' "$(alog)"
kill -TERM $pid; wait $pid
serve --fault config=410
once "$ok"
expect "PUT refused" 0 10 "refused by the server (HTTP 410.*: Injected status 410"
check "PUT refused: server text not printed" bash -c "! grep -q exceptionClass '$(alog)'"

# A complete file left by an earlier run is verified and kept; a damaged
# one of the same size is fetched again; a listed SHA-256 it does not match
# fails it, and every download after it.
while read -r damaged result fetches options; do
  serve $options
  mkdir -p "$dl/firmware"; cp "$work/art/image.bin" "$dl/firmware/"
  [ $damaged = yes ] && printf 'X' | dd of="$dl/firmware/image.bin" conv=notrunc 2>/dev/null
  once "$ok" download-retries=1
  check "complete file on disk (damaged: $damaged $options): $result, fetched $fetches time(s)" \
    eval 'closed_with $result && test "$(grep -c "GET /artifacts" "$log")" -eq $fetches'
done <<'EOF'
no success 0
yes success 1
no failure 2 --wrong-sha256 image.bin
EOF

# Start-up checks: status 2 with the reason (the configuration file's own
# errors are unit-tested).
touch "$work/plain-file"; mkdir -m 0777 "$work/open"
while IFS='|' read -r what settings options pattern; do
  serve
  once $settings -- $options
  expect "$what" 2 10 "$pattern"
done <<EOF
no install command|download-retries=1||install-command is not set
install command missing|install-command=/nonexistent/x||no executable program
download dir under a file|install-command=true download-dir=/dev/null/x||cannot create /dev/null
reboot code without its record|install-command=true reboot-exit-code=7||needs state-dir
boot id unreadable with a reboot setup|install-command=true reboot-exit-code=7 state-dir=$work/st reboot-command=true confirm-command=true boot-id-file=$work/none||boot-id-file $work/none cannot be read
world-writable state-dir|install-command=true state-dir=$work/open||state-dir $work/open is writable by group or others
command line sh cannot read|install-command=true reboot-command="unclosed||reboot-command: sh cannot read it
EOF
serve
sed -i 's|^\(address = .*\)$|\1//|' "$conf"
once -- --download-only
expect "download only, address with trailing slashes" 0 10 ""
check "address with trailing slashes: no '//' in paths" bash -c "! grep -q '^[A-Z]* //' '$log'"
check "download only: closed as downloaded, never installed" bash -c \
  "grep -A1 'deploymentBase/1/feedback' '$log' | grep -q '\"execution\":\"downloaded\"' && test -z \"$(closing)\""
"$agent" --help > "$work/help" 2>&1
check "--help: exit 0, every key and status" bash -c "grep -q max-poll-interval-s '$work/help' &&
  grep -q 'feedback-timeout-s' '$work/help' && grep -q '^  3 ' '$work/help'"

# Loop mode: an interval the library reads as 0, a capped one and a refused
# token each lead to the next poll soon; SIGTERM then ends the agent, 0.
while IFS='|' read -r what options settings; do
  serve $options
  printf '%s\n' "$ok" $settings >> "$conf"
  "$agent" --config "$conf" > "$(alog)" 2>&1 &
  pid=$!
  check "$what: polled again" second_poll
  kill -TERM $pid; wait $pid
  check "$what: SIGTERM, exit 0" test $? -eq 0
done <<'EOF'
interval not understood|--bad-sleep PT36H|poll-interval-s=1
interval capped|--sleep 99:00:00|max-poll-interval-s=1
token refused in loop mode|--token other|poll-interval-s=1
EOF

[ $fail -eq 0 ] && echo "agent fault tests: all passed"
exit $fail
