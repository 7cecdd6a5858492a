#!/usr/bin/env bash
# An artifact above 4 GiB, served from a sparse file: a partial file of
# 4 GiB or more starts over; one below resumes near the end and verifies.
# Nothing writes gigabytes.
# usage: large_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
mkdir -p "$work/art"
big=$work/art/big.img size=$((4 * 1024 ** 3 + 1024 ** 2))
truncate -s $size "$big"
head -c $((2 * 1024 ** 2)) /dev/urandom | dd of="$big" bs=1M seek=4095 conv=notrunc status=none
serve --slow 200
mkdir -p "$dl/firmware"
truncate -s $((4 * 1024 ** 3 + 512 * 1024)) "$dl/firmware/big.img"
echo 'install-command = true' >> "$conf"
"$agent" --config "$conf" > "$work/big1.log" 2>&1 &
pids+=($!)
wait_for 'GET /artifacts' "$log"
kill -TERM $!
wait $!
check "partial file of 4 GiB or more: started over" \
  eval '! grep -q "Range:" "$log" && test $(stat -c %s "$dl/firmware/big.img") -lt $((1 << 32))'
truncate -s $((4 * 1024 ** 3 - 1024 ** 2)) "$dl/firmware/big.img"
run_agent
check "above 4 GiB: resumed near the end, verified, success" \
  eval 'grep -q "Range: bytes=4293918720-" "$log" && closed_with success &&
        test $(stat -c %s "$dl/firmware/big.img") -eq $size'
check "above 4 GiB: disk use stays small" test "$(du -sk "$work" | cut -f1)" -lt 65536

finish
