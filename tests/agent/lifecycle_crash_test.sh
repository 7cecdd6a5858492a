#!/usr/bin/env bash
# The crash sweep: the agent killed (-9) as it enters each state of a run
# (seen by its log lines), then started again until the server has the
# result: every chunk installs exactly once and the action closes exactly
# once. File mode with two chunks, three modules each with its own command
# (killed between them too), stream mode, and a state-dir full from the
# start. The stand-in installers write their outcome as the install lock's
# holder does.
# usage: lifecycle_crash_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 1000; mkdir -p "$work/two"
head -c 300000 /dev/urandom > "$work/two/a.bin"; head -c 200000 /dev/urandom > "$work/two/b.bin"
seq=$work/seq
cat > "$work/file-install" <<'EOF'
#!/bin/sh
# $1: the chunk's file; the tag is the action and the chunk's index.
case "$1" in */a.bin) k=0;; *) k=1;; esac
echo "start $k" >> "$SEQ"
cat "$1" > /dev/null
echo "end $k" >> "$SEQ"
printf '1:%s\nexit 0\n' $k > "$STATE/outcome"
EOF
cat > "$work/stream-install" <<'EOF'
#!/bin/sh
# Installs only a whole image; a cut stream ends with nothing installed.
echo "start 0" >> "$SEQ"
[ "$(wc -c)" -eq 300000 ] || exit 1
echo "end 0" >> "$SEQ"
printf '1:0\nexit 0\n' > "$STATE/outcome"
EOF
cat > "$work/modules-install" <<'EOF'
#!/bin/sh
# One command per module type; the tag's index is the chunk's position.
k=$((TAMREL_CHUNK_INDEX - 1))
echo "start $k" >> "$SEQ"
cat "$1" > /dev/null
echo "end $k" >> "$SEQ"
printf '1:%s\nexit 0\n' $k > "$STATE/outcome"
EOF
chmod +x "$work/file-install" "$work/stream-install" "$work/modules-install"
for part in os bApp jvm; do mkdir -p "$work/$part"; head -c 100000 /dev/urandom > "$work/$part/$part.bin"; done

closings() { grep -A1 '^POST .*/deploymentBase/1/feedback$' "$log" | grep -c '"execution":"closed"'; }
# sweep MODE CHUNKS POINT: a run killed at POINT, then runs until closed.
sweep() {
  local mode=$1 chunks=$2 point=$3 run
  rm -f "$seq"; export SEQ=$seq STATE=$work/state$((n + 1))
  if [ "$mode" = file ]; then serve --chunk-per-file --artifacts "$work/two"
  elif [ "$mode" = modules ]; then
    serve --module "os:fw:2:$work/os" --module "bApp:app:1:$work/bApp" --module "jvm:rt:8:$work/jvm"
    local part; for part in os bApp jvm; do
      echo "install-command.$part = $work/modules-install \"\$@\"" >> "$conf"; done
    echo "log-level = debug" >> "$conf"
  else serve --artifacts "$work/one"; fi
  [ "$mode" = modules ] ||
    printf '%s\n' "install-mode = $mode" "install-command = $work/$mode-install \"\$@\"" >> "$conf"
  "$agent" --once --config "$conf" > "$work/killed$n.log" 2>&1 &
  local pid=$!
  wait_for "$point" "$work/killed$n.log" 1 $pid
  kill -KILL $pid 2> /dev/null; wait $pid 2> /dev/null
  for run in 1 2 3 4; do
    [ "$(closings)" -ge 1 ] && break
    "$agent" --once --config "$conf" > "$work/run$n-$run.log" 2>&1
  done
  local ends; ends=$(grep '^end' "$seq" 2> /dev/null | sort | tr '\n' ' ')
  check "$mode, killed at '$point': each chunk installed once, closed once" \
    eval 'test "$ends" = "$(for k in $(seq 0 $((chunks - 1))); do printf "end %s " $k; done)" &&
          test "$(closings)" -eq 1 && closed_with success'
}

for point in '2 chunk(s)' 'a.bin: downloaded' 'installing chunk 1 of 2' 'installing chunk 2 of 2' \
  'deployment 1: success'; do
  sweep file 2 "$point"
done
# Three modules: killed as each chunk starts and between the chunks, once
# the next one is recorded and before or after its progress is sent.
for point in 'installing chunk 1 of 3' 'installing chunk 2 of 3' 'chunk 1 of 3 os 2: installed' \
  '-> installing chunk 2 of 3' 'chunk 2 of 3 bApp 1: installed' 'installing chunk 3 of 3'; do
  sweep modules 3 "$point"
done
mkdir -p "$work/one"; cp "$work/two/a.bin" "$work/one/"
for point in '1 chunk(s)' 'installing chunk 1 of 1' 'deployment 1: success'; do
  sweep stream 1 "$point"
done

# A state-dir full from the start: nothing is started, nothing reported;
# with room again the action runs once.
state=$work/full
mkdir -p "$state"
if mount -t tmpfs -o size=64k,mode=0755 tmpfs "$state" 2> /dev/null; then
  cat /dev/zero > "$state/fill" 2> /dev/null
  rm -f "$seq"; export SEQ=$seq STATE=$state
  serve --chunk-per-file --artifacts "$work/two"
  sed -i "s|^state-dir = .*|state-dir = $state|" "$conf"
  echo "install-command = $work/file-install \"\$@\"" >> "$conf"
  run_agent
  check "state-dir full from the start: the action does not start, nothing sent" \
    eval 'grep -q "cannot be recorded" "$(alog)" && ! grep -q "^POST" "$log" && test ! -e "$seq"'
  rm -f "$state/fill"; run_agent
  check "state-dir with room again: each chunk installed once, closed once" \
    eval 'test "$(grep "^end" "$seq" | sort | tr "\n" " ")" = "end 0 end 1 " && test "$(closings)" -eq 1'
  umount "$state"
else
  echo "skipped: state-dir full from the start (no tmpfs mount here)"
fi

finish
