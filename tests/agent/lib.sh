# Shared by the agent's end-to-end tests (sourced): a work directory removed
# on exit, check and wait_for/wait_until, serve/run_agent around
# tamrel-ddi-server, once/expect for runs timed and checked by exit status.
# The sourcing script gets the build directory as its first argument.
build=$1
# The agent refuses secrets (the configuration's inline token) that others
# may read.
umask 077
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
finish() { [ $fail -eq 0 ] && echo "all passed"; exit $fail; }
check() {  # description, command...
  local what=$1; shift
  if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; fail=1; fi
}
# wait_for PATTERN FILE [TIMES [PID]]: returns as the line matching PATTERN
# (the TIMESth one) is written to FILE, followed as it grows; fails when PID
# ends first. The cap (120 s) only bounds a failing run.
wait_for() {
  local seen
  seen=$(exec 3< <(exec tail -n +1 -F -s 0.1 ${4:+--pid="$4"} -- "$2" 2> /dev/null)
    timeout 120 grep -c -m "${3:-1}" -- "$1" <&3; kill $! 2> /dev/null)
  [ "${seen:-0}" -ge "${3:-1}" ]
}
wait_until() {  # command...: a state no log line tells, asked every 20 ms; the same cap
  local end=$((SECONDS + 120)); until "$@"; do [ $SECONDS -lt $end ] || return 1; sleep 0.02; done; }

# address_of PID LOG: sets $address from the first line of a server started
# on port 0 with its output in LOG. A server that exits before printing it
# fails at once, with its output.
address_of() {
  wait_for '^DDI server on' "$2" 1 "$1"
  address=$(sed -n '1s|^DDI server on \(https\?://[0-9.:]*\)/.*|\1|p' "$2")
  [ -z "$address" ] || return 0
  echo "the server printed no address (it exited, or 120 s passed):"; cat "$2"; return 1
}
# Starts a server on an ephemeral port serving $work/art with the given
# options; sets $log and $address. The agent's settings go to $conf,
# downloads to $dl.
n=0
artifact() { mkdir -p "$work/art" && head -c "$1" /dev/urandom > "$work/art/image.bin"; }  # SIZE
serve() {
  n=$((n + 1)); log=$work/server$n.log; conf=$work/agent$n.conf; dl=$work/dl$n
  # The files of $work/art are the deployment, unless modules are given.
  local files=(--artifacts "$work/art"); [[ " $* " != *" --module "* ]] || files=()
  "$server" --token 't0k#1' "${files[@]}" "$@" > "$log" 2>&1 &
  pids+=($!)
  address_of $! "$log" || return 1
  printf 'address = %s\ntenant-id = DEFAULT\ncontroller-id = dev01\n' "$address" > "$conf"
  # A '#' inside a value is kept; after a blank it starts a comment.
  printf 'token = t0k#1   # comment\ndownload-dir = %s\nattribute.serial = 42\n' "$dl" >> "$conf"
  # Each run its own state (the default is the system's).
  printf 'state-dir = %s\n' "$work/state$n" >> "$conf"
}
run_agent() {  # settings lines for the config...
  printf '%s\n' "$@" >> "$conf"
  # The agent refuses to run without an install command: unless the test
  # names one, one that accepts everything.
  grep -q '^install-command' "$conf" || echo 'install-command = true' >> "$conf"
  "$agent" --once --config "$conf" > "$work/agent$n.log" 2>&1
}
alog() { echo "$work/agent$n.log"; }
# once [key=value...] [-- options...]: runs the agent once with extra
# settings (one that serve wrote is replaced), then options; sets $code and
# $took (seconds).
once() {
  local opts=() given; given=$(sed 's/ *=.*//' "$conf")
  while [ $# -gt 0 ] && [ "$1" != -- ]; do
    if grep -qx -- "${1%%[ =]*}" <<<"$given"; then sed -i "s|^${1%%[ =]*} *=.*|$1|" "$conf"
    else printf '%s\n' "$1" >> "$conf"; fi
    shift
  done
  [ $# -gt 0 ] && shift && opts=("$@")
  local start; start=$(date +%s)
  "$agent" --once "${opts[@]}" --config "$conf" > "$(alog)" 2>&1
  code=$?; took=$(($(date +%s) - start))
}
expect() {  # what, exit status, longest run in s, pattern in the agent's log
  check "$1: exit $2" test "$code" -eq "$2"
  check "$1: within $3 s" test "$took" -le "$3"
  [ -z "$4" ] || check "$1: says '$4'" grep -q -- "$4" "$(alog)"
}
closing() { grep -A1 'deploymentBase/1/feedback' "$log" | grep '"execution":"closed"'; }
fetched() { test "$(grep -c 'GET /artifacts' "$log")" -eq "$1"; }
closed_with() { closing | grep -q "\"finished\":\"$1\""; }

