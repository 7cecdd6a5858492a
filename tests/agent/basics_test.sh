#!/usr/bin/env bash
# The example agent end to end: the demo, then the agent with a config file
# against tamrel-ddi-server serving faults (wrong bytes, dropped connection,
# error page, ignored ranges, stalls), unsafe names, an interrupt, and a
# configuration error.
# usage: basics_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
"$build/tamrel-demo" > "$work/demo.log" 2>&1
check "demo exits 0" test $? -eq 0
check "demo: deployment and cancel closed/success, consent confirmed by the command, each module to its command, a UI watching and consenting" eval \
  'grep -q "deployment 1 closed/success, cancel request 2 closed/success" "$work/demo.log" &&
   grep -q "action 3 confirmed by the consent command, then closed/success" "$work/demo.log" &&
   grep -q "action 5 confirmed through the control socket, closed/success; the watcher saw it closed" "$work/demo.log" &&
   grep -q "^.*ui| consent-needed  \[consent-needed\]  action=5" "$work/demo.log" &&
   grep -q "action 4: os installed by install-os, app by install-app; proceeding feedback 0 of 2, 1 of 2; closed/success" "$work/demo.log" &&
   grep -q "metadata \[{\"key\":\"service\",\"value\":\"dashboard.service\"},{\"key\":\"restart\",\"value\":\"yes\"}\]" "$work/demo.log"'
check "demo: download dir removed" \
  test ! -e "$(sed -n 's/.*downloads into \([^ ]*\)$/\1/p' "$work/demo.log")"
check "demo: no escaped line breaks, counts in agreement" \
  eval '! grep -q "\\\\n\|[^0-9]1 attributes" "$work/demo.log"'
# Every configuration key is an item of its own in the manual page.
man_items() {
  local k items
  items=$(grep -A1 '^\.TP' "$build/man/tamrel-agent.1" | sed 's/\\-/-/g')
  for k in $("$agent" --help | sed -n '/^configuration keys/,/^$/s/^  \([a-z][a-zA-Z.-]*\).*/\1/p'); do
    grep -q "^$k\( \|$\)" <<<"$items" || { echo "not an item of the man page: $k"; return 1; }
  done
}
[ ! -f "$build/man/tamrel-agent.1" ] || check "man page: every configuration key an item" man_items

artifact 640000
same() { cmp -s "$work/art/image.bin" "$dl/firmware/image.bin"; }
success_intact() { closed_with success && same; }

# Why a download failed: wrong bytes, a refused or a cut transfer.
failed_with() { closing | grep '"finished":"failure"' | grep -q -- "$1"; }
while IFS='|' read -r what options retries says; do
  serve $options
  run_agent "download-retries = $retries"
  check "$what: failure feedback says '$says'" failed_with "$says"
done <<'EOF'
wrong bytes|--corrupt image.bin|2|image.bin: digest mismatch after 3 attempt(s)
refused transfer|--fault artifact=503|0|image.bin: HTTP 503 after 1 attempt(s)
cut transfer|--drop-after 50000|0|image.bin: cut short at 50000 of 640000 bytes after 1 attempt(s)
EOF

# Slow enough that the SHA-256 has read part of the file when it is cut.
serve --drop-after 400000 --slow 20
run_agent 'download-retries = 1'
check "dropped connection: resumed at the break" grep -q 'Range: bytes=400000-' "$log"
check "dropped connection: success, file intact, SHA-256 of the whole file checked" \
  eval 'success_intact && closing | grep -q "image.bin: downloaded and verified (SHA-256)"'

serve --fail-first 404
run_agent 'download-retries = 1'
check "error page: discarded, not resumed; success" success_intact
check "error page: second attempt starts from zero" test "$(grep -c 'Range:' "$log")" -eq 0
# Polled again: nothing to do but the server's 10 s interval. Under journald
# (JOURNAL_STREAM names the output) each line carries its priority; none is
# an error.
: > "$work/idle.log"
JOURNAL_STREAM=$(stat -c %d:%i "$work/idle.log") "$agent" --once --config "$conf" >> "$work/idle.log" 2>&1
check "idle poll under journald: every line with its priority, none an error" eval \
  'grep -q "^<6>tamrel-agent" "$work/idle.log" && ! grep -qv "^<[4-7]>" "$work/idle.log"'

serve --drop-after 50000 --ignore-range
run_agent 'download-retries = 2'
check "range ignored: partial file dropped, fetched whole; success" success_intact

serve --slow 3000
run_agent 'download-retries = 1' 'download-timeout-s = 1'
check "stall: watchdog cancels, failure after retries" \
  failed_with 'image.bin: stalled after 2 attempt(s)'

serve --name-as 'image.bin=../../escape.bin'
run_agent
check "unsafe artifact name: refused in the feedback" grep -q 'refused: unsafe artifact name' "$log"
nothing_escaped() { ! grep -q 'GET /artifacts' "$log" && [ -z "$(find "$work" -name escape.bin)" ]; }
check "unsafe artifact name: no request for it, nothing written" nothing_escaped
serve --chunk ..
run_agent
chunk_refused() { grep -q 'refused: unsafe chunk name' "$log" && [ -z "$(find "$dl" -type f 2>/dev/null)" ]; }
check "unsafe chunk name: refused, nothing written" chunk_refused

serve --slow 200
printf 'download-retries = 3\ninstall-command = true\n' >> "$conf"
"$agent" --config "$conf" > "$work/agent-int.log" 2>&1 &
agent_pid=$!
# Interrupted once the first bytes are on disk, while the download and its
# SHA-256 run (SIGTERM during a trickled one: faults_stop_test.sh).
wait_until test -s "$dl/firmware/image.bin"
kill -INT $agent_pid
start=$(date +%s)
wait $agent_pid
code=$?
check "interrupt: clean exit 0 within 5 s" test $code -eq 0 -a $(($(date +%s) - start)) -le 5
left_open() { grep -q 'interrupted on the device' "$log" && [ -z "$(closing)" ] && [ -s "$dl/firmware/image.bin" ]; }
check "interrupt: deployment left open, partial file kept" left_open

printf 'address = http://x\n\nthis line is wrong\n' > "$work/bad.conf"
"$agent" --once --config "$work/bad.conf" > "$work/bad.log" 2>&1
check "config error: exit 2" test $? -eq 2
check "config error: names file and line" grep -q "bad.conf:3: expected 'key = value'" "$work/bad.log"

finish
