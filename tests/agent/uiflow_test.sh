#!/usr/bin/env bash
# A local UI follows and steers the running agent through its control socket
# (tamrel-ctl): watching a download, holding and releasing polling across a
# restart, consent and permits answered through the socket, and a watcher
# that never reads during a large download.
# usage: uiflow_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
ctl=$build/tamrel-ctl
polls() { grep -c 'GET /DEFAULT/controller/v1/dev01$' "$log"; }
server_says() { grep -qx -- "$1" "$log"; }
status() { "$ctl" --socket "$sock" status --json; }
state_is() { status | grep -q "\"state\":\"$1\""; }
# start SETTINGS...: the agent (not --once) with the control socket; again
# on the same configuration without them.
start() {
  sock=$work/ctl$n.sock
  grep -q '^control-socket' "$conf" || printf '%s\n' "control-socket = $sock" "$@" >> "$conf"
  grep -q '^install-command' "$conf" || echo 'install-command = true' >> "$conf"
  "$agent" --config "$conf" >> "$(alog)" 2>&1 &
  apid=$!
  pids+=($apid)
  wait_until test -S "$sock" || { cat "$(alog)"; return 1; }
}
stop() { kill "$apid" && wait "$apid"; }
# Events of the same second (the time's first 20 characters).
throttled() { grep '  progress  ' "$1" | cut -c1-20 | uniq -c | awk '$1 > 5 {bad = 1} END {exit bad}'; }
# watch FILE: tamrel-ctl watch into FILE, back once it sees events (a hold
# is answered with one, also when polling is held already).
watch() {
  watched=$1
  "$ctl" --socket "$sock" watch > "$watched" 2>&1 &
  pids+=($!)
  wait_until eval '"$ctl" --socket "$sock" hold > /dev/null && grep -q "  held  " "$watched"'
}

# Held from the start (as a record an earlier run left): no poll until the
# UI releases it; the watcher then sees the whole deployment.
artifact 3000000
serve --sleep 01:00:00 --slow 5
mkdir -p "$work/state$n" && printf 'state idle\npolling held\nend\n' > "$work/state$n/action"
start 'install-command = echo "installing $1" >&2'
watch "$work/w1"
check "held at start: the agent answers, no poll" eval 'test "$(polls)" -eq 0 && status | grep -q "\"polling\":false"'
"$ctl" --socket "$sock" release > /dev/null
check "released: polled at once, closed with success" wait_for '  closed  ' "$work/w1"
percents=$(sed -n 's/.*  progress  .*percent=\([0-9]*\).*/\1/p' "$work/w1")
check "watch: progress rising to 100 %" eval \
  'test "$(tail -n1 <<<"$percents")" = 100 && sort -n -C <<<"$percents" && test "$(wc -l <<<"$percents")" -ge 2'
check "watch: at most 4 progress events a second and one at the end" throttled "$work/w1"
check "watch: offered, verified, the install's output and end, in order" eval \
  'grep -o "  \(offered\|verified\|install-started\|install-output\|install-ended\|closed\)  \|line=installing .*bin" \
     "$work/w1" | tr -d " " | paste -sd, |
     grep -qx "offered,verified,install-started,install-output,line=installing.*bin,install-ended,closed"'

# Held again: kept across a restart; poll polls once, release resumes at
# once, and so does SIGUSR1 in an hour's wait.
watch "$work/w2"
stop
before=$(polls)
start
watch "$work/w3"
check "hold survives a restart: no poll after it" eval 'test "$(polls)" -eq "$before"'
"$ctl" --socket "$sock" poll > /dev/null
check "poll while held: polled at once" wait_for 'controller/v1/dev01$' "$log" $((before + 1))
"$ctl" --socket "$sock" release > /dev/null
check "release: polled at once" wait_for 'controller/v1/dev01$' "$log" $((before + 2))
kill -USR1 "$apid"
check "SIGUSR1: polled at once" wait_for 'controller/v1/dev01$' "$log" $((before + 3))
stop

# consent = socket: the action waits as "consent-needed" until the UI answers.
# row: what | answer (tamrel-ctl words) | what the server then says | then
while IFS='|' read -r what answer expect after; do
  serve --confirm-required --sleep 01:00:00
  start 'consent = socket'
  check "$what: consent needed, listed" wait_until eval 'status | grep -q "\"waiting\":{\"action\":\"1\",\"for\":\"consent\"}"'
  "$ctl" --socket "$sock" consent 9 confirm > /dev/null 2>&1
  check "$what: another action's consent refused (exit 1)" test $? -eq 1
  eval "\"\$ctl\" --socket \"\$sock\" consent 1 $answer" > /dev/null
  check "$what" wait_until server_says "$expect"
  check "$what: then $after" eval "wait_until $after"
  stop
done <<'EOF'
confirmed|confirm|action 1 confirmed (code 4): confirmed through the control socket|closed_with success
denied with a reason|deny 'not while driving'|action 1 denied (code 5): denied through the control socket: not while driving|fetched 0
EOF

# permit = socket: neither the download nor the install before a permit.
serve --sleep 01:00:00
start 'permit = socket' "install-command = touch $work/installed"
check "permit: waits for the download permit, nothing fetched" eval \
  'wait_until state_is awaiting-download-permit && fetched 0'
"$ctl" --socket "$sock" permit 1 download > /dev/null
check "permit: downloaded, waits for the install permit, nothing installed" eval \
  'wait_until state_is awaiting-install-permit && fetched 1 && test ! -e "$work/installed"'
"$ctl" --socket "$sock" permit 1 install > /dev/null
check "permit: installed and closed" wait_until closed_with success
stop

# A watcher that never reads while 256 MiB download: the download completes,
# the agent's memory stays bounded; reading at last, it is told what it missed.
artifact $((256 << 20))
serve --sleep 01:00:00
mkdir -p "$work/state$n" && printf 'state idle\npolling held\nend\n' > "$work/state$n/action"
start
coproc stalled { python3 -c '
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
s.connect(sys.argv[1])
s.sendall(b"{\"request\":\"watch\"}\n")
while not s.recv(1).endswith(b"\n"): pass  # the answer: watching from here on
print("watching", flush=True)
sys.stdin.readline()  # never reads the socket until told to
s.settimeout(60)
data = b""
while b"\"dropped\"" not in data:
    got = s.recv(65536)
    if not got: break
    data += got
print([l for l in data.decode().splitlines() if "dropped" in l][:1], flush=True)
' "$sock"; }
read -r _ <&"${stalled[0]}"
"$ctl" --socket "$sock" release > /dev/null
check "stalled watcher: the 256 MiB download completes" wait_until closed_with success
hwm=$(sed -n 's/^VmHWM:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$apid/status")
check "stalled watcher: the agent's peak memory under 64 MiB (${hwm} kB)" test "${hwm:-999999}" -lt 65536
# More events than its queues hold: each hold is answered with one.
python3 -c '
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
s.connect(sys.argv[1])
f = s.makefile("rb")
for _ in range(10000):
    s.sendall(b"{\"request\":\"hold\"}\n")
    f.readline()
' "$sock"
echo go >&"${stalled[1]}"
read -r told <&"${stalled[0]}"
check "stalled watcher: told what it missed ($told)" grep -q '"event":"dropped","count":[1-9]' <<<"$told"
stop

finish
