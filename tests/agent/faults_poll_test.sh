#!/usr/bin/env bash
# The agent against a server whose answers to a poll are hostile or broken:
# the poll's deadline, the memory bound, unreadable documents and intervals,
# an unreachable server, and the polling interval in loop mode.
# usage: faults_poll_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 640000
ok='install-command = true'

# Poll faults: the deadline or the memory bound ends the poll, status 3.
while IFS='|' read -r what fault settings longest pattern; do
  serve $fault
  port=$(sed -n 's|^DDI server on https://[0-9.]*:\([0-9]*\).*|\1|p' "$log")
  once "$ok" ${settings/:0/:$port}
  expect "$what" 3 "$longest" "$pattern"
done <<'EOF'
poll never answered|--fault poll=stall|poll-timeout-s=1|8|no complete answer within 1 s
poll trickled|--fault poll=trickle|poll-timeout-s=1|8|no complete answer within 1 s
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

# Loop mode: an interval the library reads as 0, a capped one and a refused
# token each lead to the next poll soon; SIGTERM then ends the agent, 0.
while IFS='|' read -r what options settings; do
  serve $options
  printf '%s\n' "$ok" $settings >> "$conf"
  "$agent" --config "$conf" > "$(alog)" 2>&1 &
  pid=$!
  check "$what: polled again" wait_for 'controller/v1/dev01$' "$log" 2
  kill -TERM $pid; wait $pid
  check "$what: SIGTERM, exit 0" test $? -eq 0
done <<'EOF'
interval not understood|--bad-sleep PT36H|poll-interval-s=1
interval capped|--sleep 99:00:00|max-poll-interval-s=1
token refused in loop mode|--token other|poll-interval-s=1
EOF

finish
