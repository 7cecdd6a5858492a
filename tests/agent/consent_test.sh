#!/usr/bin/env bash
# User consent: the agent against tamrel-ddi-server --confirm-required, where
# an action waits for the device to agree; auto-confirm switched from the
# device; a version installed offline reported with --report-installed.
# usage: consent_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 100000
asked=$work/asked
no_post() { ! grep -q '^POST' "$log"; }
said() { grep -q -- "$1" "$(alog)"; }
server_says() { grep -qx -- "$1" "$log"; }
times_asked() { test "$(wc -l < "$asked")" -eq "$1"; }
command() {  # what the consent command does after noting its arguments
  printf '%s\n' 'consent = command' "consent-command = echo \"\$*\" >> $asked; $1"
}

# description | expectation | server options | agent settings (shell words) | runs
while IFS='|' read -r what expect options settings runs; do
  rm -f "$asked"
  eval "serve --confirm-required $options" || continue
  eval "printf '%s\n' $settings" >> "$conf"
  for _ in $(seq "${runs:-1}"); do run_agent; done
  check "$what" eval "$expect"
done <<'EOF'
consent = auto: confirmed, then installed|server_says 'action 1 confirmed (code 2): confirmed: consent = auto' && closed_with success||
command exits 0: confirmed, its arguments the action and each chunk's name and version|server_says 'action 1 confirmed (code 0): confirmed by consent-command' && closed_with success && grep -qx '1 firmware 1.0' "$asked"||"$(command 'exit 0')"
command exits 1: denied with its last line, nothing fetched|server_says 'action 1 denied (code 1): denied by consent-command: not while driving' && fetched 0 && ! closing||"$(command 'echo first; echo not while driving; exit 1')"
command exits 75: asked at each poll, nothing sent|times_asked 2 && no_post && said 'asks to be asked again (exit 75)'||"$(command 'exit 75')"|2
command hangs: ended at its deadline, asked again, nothing sent|times_asked 2 && no_post && said 'ran past 1 s (consent-timeout-s)'||"$(command 'exec sleep 300')" 'consent-timeout-s = 1'|2
command exits 9: asked again, nothing sent|no_post && said 'exit 9, neither 0, 1 nor 75'||"$(command 'exit 9')"
auto-confirm = on: switched on with the remark, the waiting action confirmed by the server and installed|server_says "auto-confirm activated: initiator 'dev01', remark 'fleet policy'" && closed_with success && said 'auto-confirm: activated'||'auto-confirm = on' 'auto-confirm-remark = fleet policy'
too large a confirmation document: cancelled at the bound, nothing sent|no_post && fetched 0 && said 'more than 8 MiB (max-document-mib)'|--fault confirmation=many|'max-document-mib = 8'
unsafe artifact name: denied by the agent, saying why, nothing fetched|server_says 'action 1 denied (code 3): denied by tamrel-agent: unsafe artifact name "../x"' && fetched 0|--name-as image.bin=../x||
EOF

# Links naming another host (the server names 127.0.0.1, the agent knows it
# as localhost): the confirmation document is not read there.
serve --confirm-required
sed -i 's|^address = http://127.0.0.1|address = http://localhost|' "$conf"
run_agent
check "confirmation link to another host: not read, nothing sent" \
  eval 'no_post && ! grep -q "GET .*/confirmationBase/1" "$log" && said "names another host"'

# auto-confirm round trip on one server: on, then off, each switched once.
serve --confirm-required
run_agent 'auto-confirm = on'
sed -i 's/^auto-confirm = on/auto-confirm = off/' "$conf"
run_agent
run_agent
check "auto-confirm on, then off: each switched once" \
  eval 'test "$(grep -c "/activateAutoConfirm$" "$log")" -eq 1 &&
        test "$(grep -c "/deactivateAutoConfirm$" "$log")" -eq 1 && server_says "auto-confirm deactivated"'

# A version installed offline: accepted for a distribution set the server
# serves (and shown at the next start), refused with its reason otherwise.
serve
"$agent" --config "$conf" --report-installed firmware 1.0 > "$(alog)" 2>&1
code=$?
check "--report-installed, a known version: exit 0, recorded" \
  eval 'test $code -eq 0 && grep -q "^installed base: firmware 1.0" "$log"'
"$agent" --config "$conf" --report-installed firmware 9.9 > "$(alog)" 2>&1
code=$?
check "--report-installed, an unknown version: exit 3, HTTP 404 said" \
  eval 'test $code -eq 3 && said "refused by the server (HTTP 404)"'
run_agent
check "installed base shown at start" said 'installed, as the server sees it: action 2: firmware 1.0'

finish
