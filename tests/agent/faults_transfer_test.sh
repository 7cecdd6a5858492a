#!/usr/bin/env bash
# Downloads and feedback against a hostile or broken server: slow and
# overlong downloads (on a full disk too), the bar of a resumed download,
# feedback refused or never answered, a complete file kept across a restart.
# usage: faults_transfer_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 640000
ok='install-command = true'

# Downloads: a trickle falls below the minimum rate; an endless body stops
# at the artifact's size and leaves nothing behind, even on a full disk.
serve --fault artifact=trickle
once "$ok" 'download-timeout-s = 1' 'download-retries = 0'
expect "artifact trickled" 1 10 "fewer than 1024 bytes in 1 s"
check "artifact trickled: failure reported" closed_with failure
serve --fault artifact=overlong
once "$ok" 'download-retries = 1'
expect "overlong artifact" 1 20 "more bytes than the announced 640000"
check "overlong artifact: nothing left" test -z "$(find "$dl" -mindepth 1)"
serve --fault artifact=endless
printf '%s\n' "$ok" >> "$conf"; mkdir -p "$dl"
if unshare -m true 2>/dev/null; then
  start=$(date +%s)
  unshare -m sh -c 'mount -t tmpfs -o size=2m,mode=0755 tmpfs "$1" && "$2" --once --config "$3" > "$4" 2>&1
    code=$?; find "$1" -mindepth 1 > "$5"; exit $code' _ "$dl" "$agent" "$conf" "$(alog)" "$work/left"
  code=$?; took=$(($(date +%s) - start))
  expect "endless artifact on a 2 MiB disk" 1 20 "more bytes than the announced"
  check "endless artifact on a 2 MiB disk: nothing left" test ! -s "$work/left"
else
  echo "skipped: endless artifact on a small disk (no private mount namespace here)"
fi

# On a terminal the bar of a resumed download counts the bytes on disk once.
serve --drop-after 50000
printf '%s\n' "$ok" >> "$conf"
script -qec "'$agent' --once --config '$conf'" /dev/null > "$(alog)" 2>&1
check "resumed download: the bar ends at the artifact's size" \
  bash -c "tr '\r' '\n' < '$(alog)' | grep -a 'image.bin ' | tail -1 | grep -q '100 %  *625 KiB'"

# A feedback answered 410: the action is gone from the server, nothing is
# fetched for it; one never answered fails at its deadline, the deployment
# goes on and the agent polls on.
serve --fault feedback=410
once "$ok"
expect "feedback answered 410" 0 10 "action 1 no longer exists on the server"
check "feedback answered 410: nothing fetched" bash -c "! grep -q 'GET /artifacts' '$log'"
serve --fault feedback=stall --sleep 00:00:01
printf '%s\n' "$ok" 'feedback-timeout-s = 1' 'max-poll-interval-s = 1' >> "$conf"
"$agent" --config "$conf" > "$(alog)" 2>&1 &
pid=$!
wait_for 'no answer within 1 s (feedback-timeout-s)' "$(alog)"
check "feedback never answered: fails at its deadline, the agent polls on" \
  wait_for 'controller/v1/dev01$' "$log" 2
check "feedback never answered: the deployment went on" grep -q 'deployment 1: success' "$(alog)"
kill -TERM $pid; wait $pid
serve --fault config=410
once "$ok"
expect "PUT refused" 0 10 "refused by the server (HTTP 410.*: Injected status 410"
check "PUT refused: server text not printed" bash -c "! grep -q exceptionClass '$(alog)'"

# A complete file left by an earlier run is verified and kept; a damaged
# one of the same size is fetched again; a listed SHA-256 it does not match
# fails it, and every download after it.
while read -r damaged result fetches options; do
  serve $options
  mkdir -p "$dl/firmware"; cp "$work/art/image.bin" "$dl/firmware/"
  [ $damaged = yes ] && printf 'X' | dd of="$dl/firmware/image.bin" conv=notrunc 2>/dev/null
  once "$ok" download-retries=1
  check "complete file on disk (damaged: $damaged $options): $result, fetched $fetches time(s)" \
    eval 'closed_with $result && test "$(grep -c "GET /artifacts" "$log")" -eq $fetches'
done <<'EOF'
no success 0
yes success 1
no failure 2 --wrong-sha256 image.bin
EOF

finish
