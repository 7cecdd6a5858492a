#!/usr/bin/env bash
# Several software modules in one action, each module type (part) with its
# own install command: what each command is told, a part without a command,
# a failing chunk in the middle, and one reboot for all.
# usage: modules_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
for part in os bApp jvm; do mkdir -p "$work/$part" && echo "$part image" > "$work/$part/$part.bin"; done
seq=$work/seq
modules() {
  serve --module "os:Firmware:2.0:$work/os" --module "bApp:app:1.1:$work/bApp" \
    --module "jvm:runtime:8:$work/jvm" --metadata 'bApp:start=$(touch '"$work"'/ran)' \
    --metadata 'bApp:mode=a "quoted" value' "$@"
  rm -f "$seq"
}
# record PART [EXIT]: an install command that notes its run, its environment
# and a copy of its metadata file, then exits with EXIT.
record() {
  echo "install-command.$1 = cat > /dev/null; echo \"$1 \$1\" >> $seq;" \
    "env | grep ^TAMREL_ | sort > $work/$1.env;" \
    "cp \"\$TAMREL_CHUNK_METADATA\" $work/$1.meta; exit ${2:-0}"
}
env_has() { grep -qx -- "$2" "$work/$1.env"; }

# A part with no command and no default: failed before any download.
modules; run_agent "$(record os)" "$(record bApp)"
check "a part without a command: failed before any download, the detail names it" \
  eval 'fetched 0 && ! grep -q "GET /softwaremodules" "$log" && test ! -e "$seq" &&
        closing | grep -q "\"finished\":\"failure\".*no install command for module type .jvm." &&
        test "$(grep -c "no install command for module type" "$(alog)")" -ge 1'

# Three commands: each got its chunk, its environment and its metadata; the
# runtime is streamed to its command.
modules; run_agent "$(record os)" "$(record bApp)" "$(record jvm)" 'install-mode.jvm = stream'
check "three modules: each command ran once, in the server's order, with its file" \
  eval 'test "$(sed "s|$dl/[^ ]*/||" "$seq" | tr "\n" " ")" = "os os.bin bApp bApp.bin jvm jvm.bin " &&
        closed_with success'
check "three modules: each command told its part, name, version, place and the action" \
  eval 'env_has os TAMREL_CHUNK_PART=os && env_has os TAMREL_CHUNK_NAME=Firmware &&
        env_has os TAMREL_CHUNK_VERSION=2.0 && env_has bApp TAMREL_CHUNK_INDEX=2 &&
        env_has jvm TAMREL_CHUNK_COUNT=3 && env_has jvm TAMREL_ACTION_ID=1 &&
        env_has bApp TAMREL_INSTALL_MODE=file && env_has jvm TAMREL_INSTALL_MODE=stream &&
        env_has jvm TAMREL_CHUNK_PART=jvm && test ! -e "$dl/runtime" &&
        env_has os "TAMREL_ARTIFACT_SHA256=$(sha256sum < "$work/os/os.bin" | cut -c1-64)"'
check "metadata: verbatim as JSON, never run, the file gone after the run" \
  eval 'test "$(cat "$work/bApp.meta")" = "[{\"key\":\"start\",\"value\":\"\$(touch $work/ran)\"},{\"key\":\"mode\",\"value\":\"a \\\"quoted\\\" value\"}]" &&
        test "$(cat "$work/os.meta")" = "[]" && test ! -e "$work/ran" &&
        test ! -e "$(sed -n "s/^TAMREL_CHUNK_METADATA=//p" "$work/os.env")"'
check "three modules: progress after each chunk but the last" \
  eval 'grep -q "feedback proceeding 1 of 3" "$log" && grep -q "feedback proceeding 2 of 3" "$log" &&
        ! grep -q "feedback proceeding 3 of 3" "$log"'

# The second chunk fails: the third is not installed, the feedback says which.
modules; run_agent "$(record os)" "$(record bApp 4)" "$(record jvm)"
check "a failing second chunk: the third not run, the feedback says which installed" \
  eval 'test "$(cut -d" " -f1 "$seq" | tr "\n" " ")" = "os bApp " &&
        closing | grep -q "chunk 1 of 3 os 2.0: installed\",.*\"chunk 2 of 3 bApp 1.1: failed (exit 4)\",\"chunk 3 of 3 jvm 8: not installed\"" &&
        closed_with failure'

# consent-command is told every chunk, with its metadata.
modules --confirm-required
run_agent "$(record os)" "$(record bApp)" "$(record jvm)" 'consent = command' \
  "consent-command = env | grep ^TAMREL_ > $work/consent.env; cp \"\$TAMREL_CHUNKS\" $work/chunks"
check "consent-command: the action, the count, and every chunk's part, name, version, metadata" \
  eval 'env_has consent TAMREL_ACTION_ID=1 && env_has consent TAMREL_CHUNK_COUNT=3 &&
        grep -q "^\[{\"part\":\"os\",\"name\":\"Firmware\",\"version\":\"2.0\",\"metadata\":\[\]},{\"part\":\"bApp\".*\"key\":\"start\"" "$work/chunks" &&
        closed_with success'

# The first chunk asks for a reboot (its own code): taken once, after the third.
modules; mkdir -p "$work/st"; echo boot-1 > "$work/boot_id"
sed -i "s|^state-dir = .*|state-dir = $work/st|" "$conf"
run_agent "$(record os 10)" "$(record bApp)" "$(record jvm 10)" 'reboot-exit-code.os = 10' \
  "boot-id-file = $work/boot_id" "reboot-command = echo reboot >> $seq" \
  "confirm-command = env | grep ^TAMREL_ | sort > $work/confirm.env; cat \"\$TAMREL_CHUNKS\" > $work/confirm.json"
check "a reboot asked by the first chunk: taken once, after the third (its exit 10 is jvm's failure)" \
  eval 'test "$(cut -d" " -f1 "$seq" | tr "\n" " ")" = "os bApp jvm reboot " &&
        grep -q "chunk 3 of 3 jvm 8: failed (exit 10)" "$work/st/action"'
echo boot-2 > "$work/boot_id"; run_agent
check "after the reboot: confirm-command told the action, closed once, nothing installed again" \
  eval 'env_has confirm TAMREL_ACTION_ID=1 && env_has confirm TAMREL_CHUNK_COUNT=3 &&
        grep -q "\"part\":\"jvm\",\"name\":\"[^\"]*\",\"version\":\"8\"" "$work/confirm.json" &&
        test "$(wc -l < "$seq")" -eq 4 && test "$(closing | wc -l)" -eq 1 && closed_with failure'

# Killed while the first chunk installs; it ends with its module type's
# reboot code while the agent is down: the restart takes that as the reboot
# asked for (not a failure), installs the others once, reboots after them.
modules; mkdir -p "$work/st2"; mkfifo "$work/go"
sed -i "s|^state-dir = .*|state-dir = $work/st2|" "$conf"
printf '%s\n' "install-command.os = echo os >> $seq; read x < $work/go; exit 10" "$(record bApp)" \
  "$(record jvm)" 'reboot-exit-code.os = 10' "boot-id-file = $work/boot_id" \
  "reboot-command = echo reboot >> $seq" 'confirm-command = true' >> "$conf"
"$agent" --once --config "$conf" > "$work/killed.log" 2>&1 &
first=$!
wait_for '^os$' "$seq"
kill -KILL $first; wait $first 2> /dev/null
"$agent" --once --config "$conf" > "$(alog)" 2>&1 &
second=$!
wait_for 'an install started earlier is still running' "$(alog)"
echo go > "$work/go"; wait $second
check "killed during a chunk that ends with its own reboot code: reboot after the third, each once" \
  eval 'test "$(cut -d" " -f1 "$seq" | tr "\n" " ")" = "os bApp jvm reboot " &&
        grep -qx "state rebooting" "$work/st2/action" && ! grep -q "failed" "$work/st2/action"'
finish
