#!/usr/bin/env bash
# Commands that never outlive their deadline or the install lock: an
# installer deaf to SIGTERM past install-timeout-s and at the agent's stop,
# an installer orphaned by kill -9 (mid-stream: never a clean end of input;
# chatty: it finishes), a hanging confirm under confirm-timeout-s, and one
# agent a state directory.
# usage: commands_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 3000000
seq=$work/seq; child=$work/child
# Deaf to SIGTERM, and so is the child it leaves.
cat > "$work/deaf" <<EOF
#!/bin/sh
trap '' TERM; echo start >> $seq; echo installing
(trap '' TERM; exec tail -f /dev/null) & echo \$! > $child; wait; echo end >> $seq
EOF
chmod +x "$work/deaf"
deaf="install-command = $work/deaf"
gone() { ! kill -0 "$(cat "$child")" 2> /dev/null; }
lock_free() { test -e "$1" && flock -n "$1" true; }

serve; once "$deaf" 'install-timeout-s = 1'
expect "deaf installer past install-timeout-s" 1 8 installing
check "deaf installer past install-timeout-s: its group is gone, never ended its work" \
  eval 'gone && ! grep -q end "$seq" && closed_with failure && grep -q "past its deadline" "$log"'

# SIGTERM to the agent: the group is gone (SIGKILL after 3 s) before the agent
# exits; the restart installs again, alone.
rm -f "$seq"; serve
printf '%s\n' "$deaf" 'install-timeout-s = 60' >> "$conf"
"$agent" --once --config "$conf" > "$(alog)" 2>&1 &
apid=$!
wait_for "Z installing$" "$(alog)"
kill -TERM $apid; wait $apid
code=$?
check "SIGTERM during a deaf install: exit 0, its group gone, the lock free" \
  eval 'test $code -eq 0 && gone && lock_free "$work/state$n/install.lock"'
sed -i "s|^install-command = .*|install-command = echo start >> $seq; printf 'last words'; echo end >> $seq|" "$conf"
once
check "SIGTERM during a deaf install: installed again after, alone" \
  eval 'test "$(tr "\n" " " < "$seq")" = "start start end " && closed_with success'
check "a last line without a line break is a line of its own" grep -q 'Z last words$' "$(alog)"

# kill -9 mid-stream: the orphaned installer never sees the end of its input.
rm -f "$seq"; serve --slow 100
cat > "$work/reader" <<EOF
#!/bin/sh
echo start >> $seq; cat > $work/got && echo end >> $seq
cat > "$work/reader" <<EOF
#!/bin/sh
echo start >> $seq; cat > $work/got && echo end >> $seq
EOF
chmod +x "$work/reader"
printf '%s\n' 'install-mode = stream' "install-command = $work/reader" >> "$conf"
"$agent" --once --config "$conf" > "$(alog)" 2>&1 &
apid=$!
wait_until test -s "$work/got"
kill -KILL $apid; wait $apid 2> /dev/null
check "kill -9 mid-stream: the installer is killed, the lock freed, no clean end" \
  eval 'wait_until lock_free "$work/state$n/install.lock" && ! grep -q end "$seq" &&
        test "$(stat -c %s "$work/got")" -lt 3000000'

# kill -9 during a chatty install: it writes on and finishes.
rm -f "$seq"; serve; mkfifo "$work/go"
printf '%s\n' "install-command = echo installing; read x < $work/go && head -c 500000 /dev/zero &&"\
" head -c 500000 /dev/zero >&2 && echo end >> $seq" >> "$conf"
"$agent" --once --config "$conf" > "$(alog)" 2>&1 &
apid=$!
wait_for "Z installing$" "$(alog)"
kill -KILL $apid; wait $apid 2> /dev/null
echo go > "$work/go"
check "kill -9 during a chatty install: it finishes" \
  eval 'wait_until lock_free "$work/state$n/install.lock" && grep -q end "$seq"'

# A confirm command that hangs: ended at confirm-timeout-s, a failure.
serve; state=$work/state; mkdir -p "$state"; echo boot-2 > "$work/boot_id"
printf 'action 1\nchunk firmware\nboot boot-1\nannounced\nend\n' > "$state/pending"
sed -i '/^state-dir = /d' "$conf"
printf '%s\n' "state-dir = $state" "boot-id-file = $work/boot_id" 'reboot-exit-code = 7' \
  'reboot-command = true' "confirm-command = echo confirming; cat $work/go" 'install-command = true' \
  'confirm-timeout-s = 1' >> "$conf"
once
expect "hanging confirm" 0 6 confirming
check "hanging confirm: closed failure, past its deadline" \
  eval 'closed_with failure && grep -q "confirm command: killed by signal 15, past its deadline" "$log"'

# One agent a state directory.
serve
sed -i '/^state-dir = /d' "$conf"
printf '%s\n' "state-dir = $state" 'install-command = true' 'poll-interval-s = 60' >> "$conf"
"$agent" --config "$conf" > "$work/first.log" 2>&1 &
pids+=($!)
wait_for 'tamrel-agent' "$work/first.log"
once
expect "a second agent on the same state-dir" 2 2 'another tamrel-agent runs with .*state; refusing'
finish
