#!/usr/bin/env bash
# The control socket as the agent serves it: tamrel-ctl reaches a running
# agent (its socket found by --socket or through the configuration), the
# socket goes with the agent, and tamrel-ctl says so; a bad control-group
# stops the start.
# usage: control_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
ctl=$build/tamrel-ctl
artifact 1000
sock=$work/run/agent.sock

serve
printf 'install-command = true\ncontrol-socket = %s\n' "$sock" >> "$conf"
"$agent" --config "$conf" > "$(alog)" 2>&1 &
agent_pid=$!
pids+=($agent_pid)
check "the agent serves the socket, mode 0660" eval \
  'wait_for "control socket at $sock" "$(alog)" 1 $agent_pid && test "$(stat -c %a "$sock")" = 660'
check "tamrel-ctl status answers, found through the configuration" eval \
  '"$ctl" --config "$conf" status > "$work/status" && grep -q "^protocol: *1$" "$work/status"'
check "status --json prints the agent's answer line" eval \
  '"$ctl" --socket "$sock" status --json | grep -q "^{\"ok\":true,\"status\":{\"protocol\":1"'
check "a request that changes something is logged with the client's credentials" eval \
  '"$ctl" --socket "$sock" poll && wait_for "control socket: poll from pid [0-9]* uid $(id -u)" "$(alog)"'
kill -TERM $agent_pid
wait $agent_pid
code=$?
check "the agent exits 0 after SIGTERM, its socket removed" eval '[ $code -eq 0 ] && [ ! -e "$sock" ]'
"$ctl" --socket "$sock" status > "$work/ctl.out" 2>&1
code=$?
check "without an agent: exit 3, naming the socket" eval \
  '[ $code -eq 3 ] && grep -q "no agent at $sock (not running?)" "$work/ctl.out"'

# Each exit status once in tamrel-ctl's code: --help and docs/control.md agree.
in_help=$("$ctl" --help | sed -n '/^exit status:/,$s/^  \([0-9]\)  .*/\1/p' | tr '\n' ' ')
in_docs=$(sed -n '/^## .tamrel-ctl./,$s/^| \([0-9]\) | .*/\1/p' "$(dirname "$0")/../../docs/control.md" |
  tr '\n' ' ')
check "tamrel-ctl's exit statuses ($in_help) are the ones docs/control.md lists" \
  test "$in_help" = "$in_docs"

once "control-group = no-such-group-$$"
expect "an unknown control-group" 2 30 "control-group: no group 'no-such-group-$$'"
finish
