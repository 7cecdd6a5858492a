#!/usr/bin/env bash
# The install lifecycle across crashes, restarts and servers that lose or
# refuse what they were sent: one action in flight while another waits for
# its reboot, a result recorded before it is reported and sent again rather
# than installed again, an install that ended while the agent was dead,
# several chunks and one reboot, a full state-dir, an unreadable record, a
# stop during the confirmation. The crash sweep: lifecycle_crash_test.sh.
# usage: lifecycle_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 100000
state=$work/state; seq=$work/seq
# Every install adds "start" and "end" to $seq.
counting='install-command = echo start >> '"$seq"'; echo installing; echo end >> '"$seq"
use_state() { sed -i "s|^state-dir = .*|state-dir = $state|" "$conf"; }
reboot_setup() {  # reboot command
  mkdir -p "$state"; echo boot-1 > "$work/boot_id"; use_state
  printf '%s\n' "${counting}; exit 7" 'reboot-exit-code = 7' \
    "boot-id-file = $work/boot_id" "reboot-command = $1" 'confirm-command = true' >> "$conf"
}
posts() { grep -A1 "^POST .*/deploymentBase/$1/feedback\$" "$log"; }
installs() { test "$(grep -c start "$seq")" -eq "$1"; }
at() { grep -qx "state $1" "$state/action"; }  # the recorded stage
rerun() { serve "$@"; use_state; printf '%s\n' "$counting" >> "$conf"; run_agent; }

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
  eval 'installs 1 && grep -qx "action 1" "$state/action" && at rebooting'

# The closing feedback refused (503): the result is recorded and sent again
# at the next offer, the install never runs twice. A 404 (a proxy in front
# of the server) while the server still offers the action changes nothing;
# a server that takes the result closes it, and a poll that no longer
# offers the action lets the record go.
rm -rf "$seq" "$state"; mkdir -p "$state"
rerun --fault feedback=503; run_agent
check "closing feedback refused: installed once, the result recorded" \
  eval 'installs 1 && at reporting && grep -qx "result success" "$state/action"'
rerun --fault feedback=404
check "closing feedback answered 404, the action still offered: the result stays recorded" \
  eval 'installs 1 && at reporting && grep -q "no longer has it open (.*404" "$(alog)"'
rerun
check "closing feedback taken later: closed success, then let go, still installed once" \
  eval 'closed_with success && at idle && installs 1'

# A result the server took and then lost (it offers the action again): the
# recorded result goes again, nothing installs again.
rm -rf "$seq" "$state"; mkdir -p "$state"
rerun
check "closed: the result kept until a poll no longer offers the action" at closed
rerun
check "result lost by the server: sent again from the record, not installed again" \
  eval 'closed_with success && installs 1 && ! grep -q "GET /artifacts" "$log"'

# A record that cannot be read stops installs, and polling goes on.
serve; use_state
printf 'state installing\naction 1\naction 2\nchunk firmware\nend\n' > "$state/action"
printf '%s\n' "$counting" >> "$conf"
run_agent
code=$?
check "unreadable record: refuses to install, sends nothing, exit 1" \
  eval 'test $code -eq 1 && grep -q "state record unreadable, refusing to install: $state/action" "$(alog)" &&
        installs 1 && ! grep -q "^POST" "$log"'
rm -f "$state/action"

# kill -9 during an install: "installing" is on disk before the command
# runs; the restarted agent waits for the command to end and takes its
# outcome (written as the lock's holder writes it) instead of installing
# again.
rm -f "$seq"; serve; use_state
echo "install-command = echo start >> $seq; echo installing; while [ ! -e $work/go ]; do sleep 0.1; done; echo end >> $seq; printf '1:0\nexit 0\n' > $state/outcome" >> "$conf"
"$agent" --once --config "$conf" > "$work/first.log" 2>&1 &
first=$!
wait_for "Z installing$" "$work/first.log"
check "install running: recorded as installing chunk 1 of 1 before it ran" \
  eval 'at installing && grep -qx "at 0" "$state/action"'
kill -KILL $first; wait $first 2>/dev/null
"$agent" --once --config "$conf" > "$(alog)" 2>&1 &
second=$!
wait_for 'an install started earlier is still running (pid [0-9]*); waiting' "$(alog)"
touch "$work/go"; wait $second
check "kill -9 during an install: the restart waits, takes its outcome, installs nothing again" \
  eval 'test "$(tr "\n" " " < "$seq")" = "start end " && closed_with success &&
        grep -q "ended while the agent was down" "$(alog)"'

# Two chunks, the first asks for the reboot and the second is refused (the
# slot is switched already): the record points at the reboot, which runs
# once after the last chunk; the next boot closes with failure.
mkdir -p "$work/two"; cp "$work/art/image.bin" "$work/two/a.bin"; cp "$work/art/image.bin" "$work/two/b.bin"
rm -rf "$seq" "$state"; serve --chunk-per-file --artifacts "$work/two"
reboot_setup "echo reboot >> $seq"
sed -i "s|^install-command = .*|install-command = echo \"start \$1\" >> $seq; case \$1 in */a.bin) exit 7;; *) exit 1;; esac|" "$conf"
run_agent
check "two chunks, the second refused after the first asked for a reboot: the reboot after both" \
  eval 'test "$(grep -o "start .*/\|reboot" "$seq" | tr "\n" " ")" = "start $dl/a.bin/ start $dl/b.bin/ reboot " &&
        at rebooting && grep -qx "result failure" "$state/action"'
echo boot-2 > "$work/boot_id"; run_agent
check "two chunks: after the reboot, closed failure once, nothing installed again" \
  eval 'test "$(grep -c start "$seq")" -eq 2 && closing | grep -q "\"finished\":\"failure\"" &&
        test "$(closing | wc -l)" -eq 1'

# A full state-dir: the result cannot be recorded, so it is not reported;
# the action stops where it is and says so; a restart with room takes the
# install's outcome and installs nothing again.
rm -rf "$seq" "$state"; mkdir -p "$state"
if mount -t tmpfs -o size=64k,mode=0755 tmpfs "$state" 2> /dev/null; then
  serve; use_state
  echo "install-command = echo start >> $seq; printf '1:0\nexit 0\n' > $state/outcome; cat /dev/zero > $state/fill 2>/dev/null; true" >> "$conf"
  run_agent
  check "full state-dir: the action stops at installing, says so, reports nothing closed" \
    eval 'grep -q "cannot be recorded.*the action stops at installing chunk 1 of 1" "$(alog)" &&
          at installing && ! closing'
  rm -f "$state/fill"; run_agent
  check "full state-dir, then room: closed success from the recorded outcome, installed once" \
    eval 'closed_with success && installs 1'
  umount "$state"
else
  echo "skipped: full state-dir (no tmpfs mount here)"
fi

# state-dir is required: the shipped configuration names it, an empty one
# is refused.
serve
once 'state-dir ='
expect "empty state-dir" 2 5 "state-dir must name a directory"
check "shipped configuration keeps its record in /var/lib/tamrel/state" \
  grep -qx 'state-dir = /var/lib/tamrel/state' "$(dirname "$0")/../../packaging/agent.conf"

# SIGTERM during a long confirm command: the agent ends within 5 s, the
# command's group with it; nothing is recorded or sent.
rm -rf "$state"; serve
reboot_setup true
printf 'state rebooting\naction 1\nchunk firmware\nboot boot-0\nend\n' > "$state/action"
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
  eval 'at confirming && ! grep -q result "$state/action" && ! grep -q "^POST" "$log" &&
        ! pgrep -f "cat $work/hold" > /dev/null && test ! -e "$work/confirmed"'

# Command lines: a '#' inside quotes is kept, leading assignments and exec
# are looked past, the command's output reaches the log as stamped lines.
serve
run_agent 'install-command = FOO=1 exec /bin/echo "build #42 ok" "$#"   # comment'
check "install command with '#' in quotes, assignment and exec: runs, its output stamped" \
  eval 'closed_with success && grep -q "^[0-9-]*T[0-9:]*Z build #42 ok 1$" "$(alog)"'

finish
