#!/usr/bin/env bash
# Runs each fuzz target for SECONDS on a scratch corpus seeded from
# fuzz/corpus/<name>, prints executions per target, fails on any finding.
# Usage: scripts/fuzz-run.sh BUILD_DIR SECONDS [KEEP_CORPUS]
# With KEEP_CORPUS=1 new inputs are merged back into fuzz/corpus/<name>.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1; seconds=$2; keep=${3:-0}
status=0
for name in status deployment cancel; do
  bin=$build/fuzz_$name
  work=$build/fuzz-corpus-$name
  mkdir -p "$work" "$build/fuzz-artifacts"
  rm -f "$build"/fuzz-artifacts/$name-*
  cp -n fuzz/corpus/$name/* "$work"/ 2>/dev/null || true
  log=$build/fuzz-$name.log
  # The library logs every rejected document to stderr; -close_fd_mask=2
  # silences it. A crash is re-run below with stderr open to show the report.
  if ! "$bin" -max_total_time="$seconds" -print_final_stats=1 -close_fd_mask=2 \
      -artifact_prefix="$build/fuzz-artifacts/$name-" -max_len=65536 "$work" >"$log" 2>&1; then
    echo "fuzz_$name: FAILED"
    tail -20 "$log"
    for crash in "$build"/fuzz-artifacts/$name-*; do
      [ -f "$crash" ] && "$bin" "$crash" 2>&1 | tail -30
    done
    status=1
    continue
  fi
  runs=$(grep -m1 'stat::number_of_executed_units' "$log" | awk '{print $2}' || true)
  cov=$(grep -Eo 'cov: [0-9]+' "$log" | tail -1 || true)
  echo "fuzz_$name: ${runs:-?} executions in ${seconds}s, ${cov:-cov: ?}, corpus $(ls "$work" | wc -l) inputs"
  if [ "$keep" = 1 ]; then
    "$bin" -merge=1 -close_fd_mask=2 fuzz/corpus/$name "$work" >/dev/null 2>&1 || true
  fi
done
exit $status
