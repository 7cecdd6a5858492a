#!/usr/bin/env bash
# Stopping and starting: SIGTERM ends the agent within 5 s whatever it
# waits for (a stuck request, a download, the install command, its own
# configuration), SIGHUP does not, and the start-up checks with their exit
# statuses.
# usage: faults_stop_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 640000
ok='install-command = true'

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
SIGTERM during a stuck PUT|--fault config=stall|PUT .*/configData|the action stays open
EOF
check "SIGTERM during a stuck PUT: action not closed" test -z "$(closing)"
# ... and during an install command that would run on: its group is ended.
serve
echo "install-command = echo installing; sleep 60; touch $work/finished" >> "$conf"
"$agent" --config "$conf" > "$(alog)" 2>&1 &
pid=$!
wait_for "Z installing$" "$(alog)"
kill -HUP $pid
check "SIGHUP during the install command: ignored" wait_for 'SIGHUP ignored' "$(alog)" 1 $pid
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
wait_until grep -q partner "/proc/$pid/wchan"
kill -TERM $pid; start=$(date +%s); cat "$conf" > "$work/fifo.conf"; wait $pid
code=$?; took=$(($(date +%s) - start))
expect "SIGTERM while starting" 0 5 "signal 15: stopping"
check "SIGTERM while starting: no feedback" bash -c "! grep -q ^POST '$log'"
# Start-up checks: status 2 with the reason (the configuration file's own
# errors are unit-tested).
touch "$work/plain-file"; mkdir -m 0777 "$work/open"
first=$((n + 1))
while IFS='|' read -r what settings options pattern; do
  serve
  once $settings -- $options
  expect "$what" 2 10 "$pattern"
done <<EOF
no install command|download-retries=1||install-command is not set
install command missing|install-command=/nonexistent/x||no executable program
download dir under a file|install-command=true download-dir=/dev/null/x||/dev/null is no directory
reboot code without its record|install-command=true reboot-exit-code=7||needs state-dir
boot id unreadable with a reboot setup|install-command=true reboot-exit-code=7 state-dir=$work/st reboot-command=true confirm-command=true boot-id-file=$work/none||boot-id-file $work/none cannot be read
world-writable state-dir|install-command=true state-dir=$work/open||agent[0-9]*.conf:[0-9]*: state-dir $work/open is writable by group or others
command line sh cannot read|install-command=true reboot-command="unclosed||reboot-command: sh cannot read it
EOF
nothing_made() { local i; for ((i = first; i <= n; i++)); do [ ! -e "$work/dl$i" ] || return 1; done; }
check "start-up refused: no download-dir made" nothing_made
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

finish
