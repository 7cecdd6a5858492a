#!/usr/bin/env bash
# The agent against tamrel-ddi-server answering like a current hawkBit
# server: link choice, digests, completeness, handling types, maintenance
# download-only actions, install command, links to other hosts, config
# data and attributes (maintenance window, reboot and cancel:
# hawkbit_actions_test.sh; above 4 GiB: large_test.sh).
# usage: hawkbit_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 300000
inst=$work/installed
# A background child keeps the command's standard error open: it is ended
# with the command's group once the command exits (gone when the agent has
# finished).
children=$work/children
trap 'xargs -r kill < "$children" 2>/dev/null; cleanup' EXIT
install='install-command = sleep 300 & echo $! >> '"$children"'; printf "%s\n" "$#" "$@" > '"$inst"'; echo "last words" >&2; exit 0'
details_have() { closing | grep -q -- "$1"; }
no_feedback() { ! grep -q '^POST' "$log"; }
feedbacks() { grep -A1 "^POST .*/deploymentBase/1/feedback\$" "$log" | grep -c "$1"; }
installed_once() { test "$(head -1 "$inst")" = 1 && grep -qx "$dl/firmware/image.bin" "$inst"; }

row() {  # description, expectation, server options, agent settings (shell words)
  rm -f "$inst"
  eval "serve $3" || return
  eval "run_agent ${4:-}"
  check "$1" eval "$2"
}
row 'installs through sh -c with the files as $1..; its background child ended with it' \
  'closed_with success && installed_once && details_have "install command succeeded (exit 0)" &&
   ! kill -0 "$(tail -1 "$children")"' \
  '' '"$install"'
row 'install failure: exit status and stderr tail in the details' \
  'closed_with failure && details_have "(exit 3)" && details_have "install: last words"' \
  '' '"${install/exit 0/exit 3}"'
row 'TLS-only server: the "download" link is used' 'closed_with success' --tls-links
row 'SHA-256 mismatch is a digest failure' \
  'closed_with failure && details_have "image.bin: digest mismatch (SHA-256)"' \
  '--wrong-sha256 image.bin'
# A deployment the plan refuses (each reason: deploymentplan_test.cpp).
row 'artifact element the library cannot read: failure, nothing fetched' \
  'closed_with failure && details_have "could be read" && fetched 0' --empty-artifact
row 'action id not decimal: nothing sent, nothing fetched' 'no_feedback && fetched 0' \
  '--action 1x'
row 'cancel request id not decimal: nothing sent' '! grep -q "^POST .*cancelAction" "$log" &&
  grep -q "cancel request refused" "$work/agent$n.log"' '--cancel 2x --handling skip:forced'
row 'download "skip": nothing fetched yet' 'no_feedback && fetched 0' '--handling skip:forced'
row 'download-only action: closed "downloaded" at the feedback path, not installed' \
  'test "$(feedbacks "\"execution\":\"downloaded\"")" -eq 1 && ! closing && test ! -e "$inst"' \
  --download-only '"$install"'

# Links to another host (the server's own links name 127.0.0.1, the agent
# knows it as localhost): the token goes there only when it is trusted, so
# this server's deploymentBase cannot be read; no config data is sent there.
serve
sed -i 's|^address = http://127.0.0.1|address = http://localhost|' "$conf"
run_agent
check "link to another host: no token there, nothing fetched, no config data" \
  eval 'grep -q "could not be read" "$work/agent$n.log" && fetched 0 &&
        ! grep -q "PUT .*/configData" "$log"'
serve
sed -i 's|^address = http://127.0.0.1|address = http://localhost|' "$conf"
run_agent 'trusted-hosts = example.org, 127.0.0.1:'"$(sed -n 's|^DDI server on http://127.0.0.1:\([0-9]*\).*|\1|p' "$log")"
check "link to a trusted host: fetched, success" 'closed_with' success

# Attributes: the agent's version (always its own), the configured ones
# (they win) and what the attributes-dir scripts print (the shipped
# os-release among them); a failing script is left out. Sent when the
# server asks (first contact), again when a value changed (the script cats
# a file) though the server did not ask, not when none did.
serve --download-only --sleep 00:00:05
scripts=$work/attributes
mkdir "$scripts"
ln -s "$(cd "$(dirname "$0")/../.." && pwd)/packaging/attributes/os-release" "$scripts/10-os"
echo 1 > "$work/value"
printf '#!/bin/sh\necho tamrel-agent.version=mine; echo serial=script; echo value=$(cat %s)\n' \
  "$work/value" > "$scripts/20-value"
printf '#!/bin/sh\necho broken=1; exit 1\n' > "$scripts/30-broken"
chmod 700 "$scripts"/*
printf 'attributes-dir = %s\nlog-level = debug\ninstall-command = true\n' "$scripts" >> "$conf"
"$agent" --config "$conf" > "$(alog)" 2>&1 &
apid=$!
pids+=($apid)
sent() { grep -A1 "PUT .*/configData" "$log" | grep '"data"' | sed -n "${1}p"; }
wait_for "PUT .*/configData" "$log" 1 $apid
echo 2 > "$work/value"
wait_for "config data: not asked for, no value changed" "$(alog)" 1 $apid
kill $apid
check "attributes: the agent's version, the configured serial, the scripts' lines" eval \
  'sent 1 | grep -q "\"tamrel-agent.version\":\"$("$agent" --version | cut -d" " -f2)\"" &&
   sent 1 | grep -q "\"serial\":\"42\"" && sent 1 | grep -q "\"os.name\":\"[^\"]" &&
   sent 1 | grep -q "\"value\":\"1\"" && ! grep -q "mine\|script\|broken" "$log"'
check "attributes: the failing script named in a warning" \
  grep -q "attributes: .*/30-broken: exit 1; its attributes left out" "$(alog)"
check "attributes: a changed value sent unasked, then nothing more" eval \
  'sent 2 | grep -q "\"value\":\"2\"" && test "$(grep -c "PUT .*/configData" "$log")" -eq 2 &&
   grep -q "config data: [0-9]* attributes sent (a value changed)" "$(alog)"'

finish
