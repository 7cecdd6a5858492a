#!/usr/bin/env bash
# The agent as systemd runs it: the notifications it sends on a socket
# standing in for systemd's (READY=1 after the start-up checks, WATCHDOG=1
# while it polls, STOPPING=1 on SIGTERM), and the unit's sandbox as
# `systemd-analyze security` rates it (below 5, where systemd-analyze is
# installed).
# usage: service_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 1000

if command -v systemd-analyze > /dev/null; then
  systemd-analyze security --offline=yes "$build/tamrel-agent.service" > "$work/security.txt" 2>&1
  score=$(sed -n 's/^.*Overall exposure level for tamrel-agent.service: \([0-9.]*\).*/\1/p' \
    "$work/security.txt")
  check "the unit's exposure (${score:-none}) is below 5" \
    awk -v s="${score:-99}" 'BEGIN { exit !(s < 5) }'
else
  echo "skipped: the unit's exposure (no systemd-analyze here)"
fi

# systemd's notification socket: every datagram a line of $work/notify.log.
python3 -u -c '
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(sys.argv[1])
print("listening", flush=True)
while True:
    print(s.recv(256).decode(), flush=True)
' "$work/notify" > "$work/notify.log" 2>&1 &
pids+=($!)
wait_for '^listening' "$work/notify.log"

serve --sleep 00:00:01
printf 'install-command = env > %s/install.env\n' "$work" >> "$conf"
# A watchdog of 2 s: a round every half second.
NOTIFY_SOCKET=$work/notify WATCHDOG_USEC=2000000 "$agent" --config "$conf" > "$(alog)" 2>&1 &
agent_pid=$!
pids+=($agent_pid)
check "READY=1 once the start-up checks passed" wait_for '^READY=1$' "$work/notify.log"
check "WATCHDOG=1 while the loop polls" wait_for '^WATCHDOG=1$' "$work/notify.log" 3
check "the deployment goes on under the watchdog" wait_for '^action 1 closed: success' "$log"
kill -TERM $agent_pid
check "STOPPING=1 on SIGTERM" wait_for '^STOPPING=1$' "$work/notify.log"
wait $agent_pid
check "the agent exits 0 after SIGTERM" test $? -eq 0
check "the install command does not get NOTIFY_SOCKET or WATCHDOG_USEC" \
  eval 'test -s "$work/install.env" && ! grep -q "^NOTIFY_SOCKET=\|^WATCHDOG_" "$work/install.env"'
finish
