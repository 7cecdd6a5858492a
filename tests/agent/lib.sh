# Shared by the agent's end-to-end tests (sourced): a work directory removed
# on exit, check/wait_for, and serve/run_agent around tamrel-ddi-server.
# The sourcing script gets the build directory as its first argument.
build=$1
# A sanitizer build's own memory counts in the agent's resident size.
sanitized=$(sed -n 's/^TAMREL_SANITIZE:STRING=//p' "$build/CMakeCache.txt" 2>/dev/null)
agent=$build/tamrel-agent
server=$build/tamrel-ddi-server
work=$(mktemp -d /tmp/tamrel-agent-test-XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
  [ -n "${KEEP:-}" ] || rm -rf "$work"
}
trap cleanup EXIT
fail=0
check() {  # description, command...
  local what=$1; shift
  if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; fail=1; fi
}
wait_for() {  # pattern, file; the cap (120 s) only bounds a failing run
  for _ in $(seq 1200); do grep -q -- "$1" "$2" 2>/dev/null && return 0; sleep 0.1; done
  return 1
}

# address_of PID LOG: sets $address from the first line of a server started
# on port 0 with its output in LOG. A server that exits before printing it
# fails at once, with its output.
address_of() {
  local alive=1 tries=0
  while :; do
    # Whether it lives is asked first: a line printed before an exit is read.
    kill -0 "$1" 2> /dev/null || alive=0
    address=$(sed -n '1s|^DDI server on \(https\?://[0-9.:]*\)/.*|\1|p' "$2")
    [ -z "$address" ] || return 0
    [ "$alive" -eq 1 ] && [ $((tries += 1)) -le 2400 ] || break
    sleep 0.05
  done
  echo "the server printed no address (it exited, or 120 s passed):"; cat "$2"; return 1
}
# Starts a server on an ephemeral port serving $work/art with the given
# options; sets $log and $address. The agent's settings go to $conf,
# downloads to $dl.
n=0
serve() {
  n=$((n + 1)); log=$work/server$n.log; conf=$work/agent$n.conf; dl=$work/dl$n
  "$server" --token 't0k#1' --artifacts "$work/art" "$@" > "$log" 2>&1 &
  pids+=($!)
  address_of $! "$log" || return 1
  printf 'address = %s\ntenant-id = DEFAULT\ncontroller-id = dev01\n' "$address" > "$conf"
  # A '#' inside a value is kept; after a blank it starts a comment.
  printf 'token = t0k#1   # comment\ndownload-dir = %s\nattribute.serial = 42\n' "$dl" >> "$conf"
}
run_agent() {  # settings lines for the config...
  printf '%s\n' "$@" >> "$conf"
  # The agent refuses to run without an install command: unless the test
  # names one, one that accepts everything.
  grep -q '^install-command' "$conf" || echo 'install-command = true' >> "$conf"
  "$agent" --once --config "$conf" > "$work/agent$n.log" 2>&1
}
closing() { grep -A1 'deploymentBase/1/feedback' "$log" | grep '"execution":"closed"'; }
closed_with() { closing | grep -q "\"finished\":\"$1\""; }

