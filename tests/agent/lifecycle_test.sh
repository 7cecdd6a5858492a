#!/usr/bin/env bash
# The install lifecycle across crashes and restarts: one action in flight
# while another waits for its reboot, a result recorded before it is
# reported, the install lock after a kill -9, an unreadable record, a stop
# during the confirmation, a command line with '#', assignment and exec (the
# start-up refusals: faults_stop_test.sh).
# usage: lifecycle_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 100000
state=$work/state; seq=$work/seq
# Every install adds "start" and "end" to $seq.
counting='install-command = echo start >> '"$seq"'; echo installing; echo end >> '"$seq"
reboot_setup() {  # reboot command
  mkdir -p "$state"; echo boot-1 > "$work/boot_id"
  printf '%s\n' "${counting}; exit 7" 'reboot-exit-code = 7' "state-dir = $state" \
    "boot-id-file = $work/boot_id" "reboot-command = $1" 'confirm-command = true' >> "$conf"
}
posts() { grep -A1 "^POST .*/deploymentBase/$1/feedback\$" "$log"; }

# A second action while the first waits for its reboot (the reboot command
# failed): reported "proceeding" naming the first, never installed; the
# record of the first stays.
rm -f "$seq"; serve
reboot_setup 'echo no reboot >&2; exit 1'
run_agent
serve --action 2
reboot_setup 'echo no reboot >&2; exit 1'
run_agent
check "second action while the first waits for its reboot: proceeding, naming the first" \
  eval 'posts 2 | grep -q "action 1 is installed and waits for its reboot" && ! posts 2 | grep -q "\"closed\""'
check "second action while the first waits for its reboot: installed once, record kept" \
  eval 'test "$(grep -c start "$seq")" -eq 1 && grep -qx "action 1" "$state/pending"'

# The closing feedback refused (503): the result is recorded and sent again
# at the next offer, the install never runs twice; a server that takes it
# clears the record.
rm -rf "$seq" "$state"; mkdir -p "$state"
serve --fault feedback=503
printf '%s\n' "$counting" "state-dir = $state" >> "$conf"
run_agent; run_agent
check "closing feedback refused: installed once, the result recorded" \
  eval 'test "$(grep -c start "$seq")" -eq 1 && grep -q "recorded result: success" "$(alog)" &&
        grep -qx "result success" "$state/pending"'
serve
printf '%s\n' "$counting" "state-dir = $state" >> "$conf"
run_agent
check "closing feedback taken later: closed success, record gone, still installed once" \
  eval 'closed_with success && test ! -e "$state/pending" && test "$(grep -c start "$seq")" -eq 1'
# A record that cannot be read stops installs, and polling goes on.
serve
printf 'action 1\naction 2\nchunk firmware\nend\n' > "$state/pending"
printf '%s\n' "$counting" "state-dir = $state" >> "$conf"
run_agent
code=$?
check "unreadable record: refuses to install, sends nothing, exit 1" \
  eval 'test $code -eq 1 && grep -q "state record unreadable, refusing to install: $state/pending" "$(alog)" &&
        test "$(grep -c start "$seq")" -eq 1 && ! grep -q "^POST" "$log"'
rm -f "$state/pending"

# A result the server will never take (410: the action is gone there): the
# record goes, nothing is installed again.
serve --fault feedback=503
printf '%s\n' "$counting" "state-dir = $state" >> "$conf"
run_agent
serve --fault feedback=410
printf '%s\n' "$counting" "state-dir = $state" >> "$conf"
run_agent
check "recorded result answered 410: record dropped, installed once more only" \
  eval 'test ! -e "$state/pending" && test "$(grep -c start "$seq")" -eq 2 &&
        grep -q "gone from the server" "$(alog)"'

# kill -9 during an install: the restarted agent waits for it to end before
# anything else, and only then installs (the action was never reported).
rm -f "$seq"; serve
echo "install-command = echo start >> $seq; echo installing; while [ ! -e $work/go ]; do sleep 0.1; done; echo end >> $seq" >> "$conf"
"$agent" --once --config "$conf" > "$work/first.log" 2>&1 &
first=$!
wait_for installing "$work/first.log"
kill -KILL $first; wait $first 2>/dev/null
"$agent" --once --config "$conf" > "$(alog)" 2>&1 &
second=$!
wait_for 'an install started earlier is still running (pid [0-9]*); waiting' "$(alog)"
check "kill -9 during an install: the restart waits, no second install beside it" \
  test "$(cat "$seq")" = start
touch "$work/go"; wait $second
check "kill -9 during an install: installed again only after the first ended" \
  eval 'test "$(tr "\n" " " < "$seq")" = "start end start end " && closed_with success'

# SIGTERM during a long confirm command: the agent ends within 5 s, the
# command's group with it; nothing is recorded or sent.
rm -rf "$state"; serve
reboot_setup true
printf 'action 1\nchunk firmware\nboot boot-0\nannounced\nend\n' > "$state/pending"
# The command blocks on a FIFO nobody writes: only the stop can end it.
mkfifo "$work/hold"
sed -i "s|^confirm-command = .*|confirm-command = echo confirming; cat $work/hold; touch $work/confirmed|" "$conf"
"$agent" --config "$conf" > "$(alog)" 2>&1 &
pid=$!
wait_for confirming "$(alog)"
start=$(date +%s); kill -TERM $pid; wait $pid
code=$?; took=$(($(date +%s) - start))
check "SIGTERM during the confirm command: exit 0 within 5 s" test $code -eq 0 -a $took -le 5
check "SIGTERM during the confirm command: nothing recorded or sent, command ended" \
  eval '! grep -q result "$state/pending" && ! grep -q "^POST" "$log" &&
        ! pgrep -f "cat $work/hold" > /dev/null && test ! -e "$work/confirmed"'

# Command lines: a '#' inside quotes is kept, leading assignments and exec
# are looked past, the command's output reaches the log as stamped lines.
rm -rf "$state"; serve
run_agent 'install-command = FOO=1 exec /bin/echo "build #42 ok" "$#"   # comment'
check "install command with '#' in quotes, assignment and exec: runs, its output stamped" \
  eval 'closed_with success && grep -q "^[0-9-]*T[0-9:]*Z build #42 ok 1$" "$(alog)"'

finish
