#!/usr/bin/env bash
# The example agent end to end: the demo, and the agent with a config file
# against tamrel-ddi-server (corrupt artifact, dropped connection, unsafe
# name, configuration errors).
set -uo pipefail
build=$1
agent=$build/tamrel-agent
server=$build/tamrel-ddi-server
work=$(mktemp -d /tmp/tamrel-agent-test-XXXXXX)
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done; [ -n "${KEEP:-}" ] || rm -rf "$work"; }
trap cleanup EXIT
fail=0
check() {  # description, command...
  local what=$1; shift
  if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; fail=1; fi
}

"$agent" --demo > "$work/demo.log" 2>&1
check "demo exits 0" test $? -eq 0
check "demo reports success feedback" grep -q 'summary: deployment feedback closed/success' "$work/demo.log"

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

# Starts the server on a free port with the given options; sets $port and $log.
start_server() {
  port=$(free_port); log=$work/server-$port.log
  "$server" --port "$port" --token t0k "$@" > "$log" 2>&1 &
  pids+=($!)
  for _ in $(seq 50); do grep -q 'DDI server on' "$log" && return 0; sleep 0.1; done
  echo "server did not start"; cat "$log"; return 1
}
config() {  # download dir
  printf 'address = http://127.0.0.1:%s\ntenant-id = DEFAULT\ncontroller-id = dev01\ntoken = t0k\ndownload-dir = %s\ndownload-retries = 2\ndownload-timeout-s = 5\nattribute.serial = 42\n' "$port" "$1"
}

mkdir -p "$work/art" "$work/dl1" "$work/dl2" "$work/dl3"
head -c 200000 /dev/urandom > "$work/art/image.bin"

start_server --artifacts "$work/art" --corrupt image.bin
config "$work/dl1" > "$work/a.conf"
"$agent" --once --config "$work/a.conf" > "$work/a.log" 2>&1
check "corrupt artifact: failure feedback with details" \
  grep -q '"finished":"failure".*image.bin: digest mismatch after 3 attempt' "$log"

start_server --artifacts "$work/art" --drop-after 50000
config "$work/dl2" > "$work/b.conf"
"$agent" --once --config "$work/b.conf" > "$work/b.log" 2>&1
check "dropped connection: success feedback" grep -q '"finished":"success"' "$log"
check "dropped connection: resumed by range" grep -q 'Resuming file from 50000 bytes' "$work/b.log"
check "dropped connection: file complete" cmp -s "$work/art/image.bin" "$work/dl2/firmware/image.bin"

mkdir -p "$work/evil"
head -c 1000 /dev/urandom > "$work/evil/evil..bin"
start_server --artifacts "$work/evil"
config "$work/dl3" > "$work/c.conf"
"$agent" --once --config "$work/c.conf" > "$work/c.log" 2>&1
check "unsafe name: failure feedback" grep -q 'refused: unsafe artifact name' "$log"
check "unsafe name: nothing written" test -z "$(find "$work/dl3" -type f)"

printf 'address = x\nthis line is wrong\n' > "$work/bad.conf"
"$agent" --once --config "$work/bad.conf" > "$work/bad.log" 2>&1
code=$?
check "config error exits 2" test $code -eq 2
check "config error names file and line" grep -q "bad.conf:2: expected 'key = value'" "$work/bad.log"
printf 'token-file = %s/missing\n' "$work" > "$work/bad2.conf"
"$agent" --once --config "$work/bad2.conf" > "$work/bad2.log" 2>&1
check "unreadable token file names file and line" grep -q "bad2.conf:1: cannot read" "$work/bad2.log"

[ $fail -eq 0 ] && echo "agent tests: all passed"
exit $fail
