#!/usr/bin/env bash
# Actions across polls and restarts against tamrel-ddi-server answering like
# a current hawkBit server: a maintenance window, the reboot and its
# confirmation, cancel requests.
# usage: hawkbit_actions_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 300000; mkdir "$work/state"; echo first-boot > "$work/boot_id"
inst=$work/installed
install='install-command = printf "%s\n" "$#" "$@" > '"$inst"'; exit 0'
details_have() { closing | grep -q -- "$1"; }
feedbacks() { grep -A1 "^POST .*/deploymentBase/1/feedback\$" "$log" | grep -c "$1"; }
installed_once() { test "$(head -1 "$inst")" = 1 && grep -qx "$dl/firmware/image.bin" "$inst"; }

# poll_until PATTERN NAME: the agent polling on (not --once) with the
# install command, until PATTERN shows in $work/NAME.log; polls 1 s apart
# (else at least 5 s, whatever the server offers).
poll_until() {
  printf '%s\n' "$install" 'max-poll-interval-s = 1' >> "$conf"
  "$agent" --config "$conf" > "$work/$2.log" 2>&1 &
  pids+=($!)
  wait_for "$1" "$work/$2.log"
  kill $! 2>/dev/null
}

# Update "skip" while the window is unavailable: downloaded and reported
# waiting; once a later poll shows the window, installed without fetching again.
serve --handling forced:skip:unavailable --window-opens-at 2 --sleep 00:00:01
poll_until 'deployment 1: success' window
window_order() {
  grep -A1 '^POST .*/feedback$' "$log" | grep -o '"execution":"[a-z]*"\|waiting for maintenance window' |
    tr '\n' ' ' | grep -q 'proceeding.*waiting for maintenance window.*"closed"'
}
check "maintenance window: waited, then installed; fetched once" \
  eval 'window_order && closed_with success && installed_once && fetched 1'

# Reboot flow: the install command asks for a reboot, the reboot command
# kills the agent (as a reboot would; its parent is the process between the
# agent and it) and gives the next start another boot
# id; the next start confirms.
reboot_settings() {  # confirm command [reboot command]
  sed -i "s|^state-dir = .*|state-dir = $work/state|" "$conf"
  printf '%s\n' "${install/exit 0/exit 7}" 'reboot-exit-code = 7' \
    "boot-id-file = $work/boot_id" "reboot-command = ${2:-echo \$\$ > $work/boot_id; kill -KILL \$(ps -o ppid= -p \$PPID)}" \
    "confirm-command = $1" >> "$conf"
}
# No action in flight is recorded (none, or the last one closed).
settled() { ! grep -qvE '^(state (idle|closed)|action .*|chunk .*|result .*|detail .*|end)$' "$work/state/action"; }
reboot_flow() {  # confirm command, expected result
  want=$2
  serve
  reboot_settings "$1"
  "$agent" --once --config "$conf" > "$work/reboot$n.log" 2>&1 &
  wait $! 2>/dev/null
  code=$?
  check "reboot: killed after reporting proceeding, pending action recorded" \
    eval 'test $code -eq 137 && feedbacks "rebooting to confirm" >/dev/null && ! closing &&
          grep -qx "action 1" "$work/state/action"'
  "$agent" --once --config "$conf" > "$work/confirm$n.log" 2>&1
  check "after the reboot: closed $2 once, with the confirm output; state cleared" \
    eval 'test "$(feedbacks "\"closed\"")" -eq 1 && closed_with "$want" && details_have "confirm: said" &&
          settled && fetched 1 && installed_once'
}
reboot_flow 'echo said ok >&2' success
reboot_flow 'echo said no >&2; exit 1' failure

# Killed before the reboot ran (the first reboot command only kills): the
# next start, in the same boot, sends nothing twice, confirms nothing and
# asks for the reboot again; the start after that reboot confirms.
rm -f "$work/first"
serve
reboot_settings 'echo said ok >&2' "test -e $work/first && echo \$\$ > $work/boot_id; touch $work/first; kill -KILL \$(ps -o ppid= -p \$PPID)"
for run in 1 2 3; do "$agent" --once --config "$conf" > "$work/boot$run.log" 2>&1; done
check "reboot that never happened: not confirmed, reboot asked again, then confirmed once" \
  eval 'grep -q "still the boot that installed it" "$work/boot2.log" && ! grep -q "confirmed" "$work/boot2.log" &&
        test "$(feedbacks "rebooting to confirm")" -eq 1 && test "$(feedbacks "\"closed\"")" -eq 1 &&
        closed_with success && settled'

# Cancel requests: one for an action waiting for its window drops what was
# downloaded; one for an action installed and not yet confirmed (the server
# did not take the result) is rejected.
rm -f "$inst"
serve --handling forced:skip:unavailable --cancel-after-polls 1 --sleep 00:00:01
poll_until 'cancel request for action 1' cancel
check "cancel while waiting for the window: accepted, download removed, nothing installed" \
  eval 'grep -qx "action 1 canceled" "$log" && test ! -e "$dl/firmware" && test ! -e "$inst"'
serve
reboot_settings true
"$agent" --once --config "$conf" > "$work/reboot$n.log" 2>&1 &
wait $! 2>/dev/null
serve --cancel 1 --fault feedback=503
reboot_settings true
"$agent" --once --config "$conf" > "$work/reject.log" 2>&1
check "cancel for an installed action waiting for confirmation: rejected, record kept" \
  eval 'grep -qx "action 1: cancel rejected" "$log" && grep -qx "action 1" "$work/state/action"'
rm -f "$work/state/action"

finish
