#!/usr/bin/env bash
# One deployment end to end with installed programs: tamrel-ddi-server offers
# one artifact, `tamrel-agent --once` downloads it and runs an install command
# that compares it with the original. Passes when the agent exits 0, the
# command saw the right file and the server got closed/success feedback.
# With BASE_CONFIG set (the shipped agent.conf), the agent reads that file
# with its server, identity, directories, control socket and installer
# (install, reboot and confirm commands) replaced.
# usage: [BASE_CONFIG=FILE] agent_once.sh BINDIR [AGENT_OPTION...]
set -euo pipefail
bindir=$1; shift
umask 077  # the configuration holds the token
work=$(mktemp -d /tmp/tamrel-once-XXXXXX)
server=
cleanup() {
  if [ -n "$server" ]; then kill "$server" 2>/dev/null || true; wait "$server" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAILED: $*"; for f in server.log agent.log; do [ -f "$work/$f" ] && sed "s/^/  $f: /" "$work/$f"; done; exit 1; }

mkdir -m 700 "$work/artifacts" "$work/downloads" "$work/state"
head -c 300000 /dev/urandom > "$work/artifacts/image.bin"
cat > "$work/install.sh" <<SCRIPT
#!/bin/sh
cmp -s "$work/downloads/firmware/image.bin" "$work/artifacts/image.bin" && touch "$work/installed"
SCRIPT
chmod +x "$work/install.sh"

# The server prints its address first; reading it from a pipe waits for it.
mkfifo "$work/server.out"
"$bindir/tamrel-ddi-server" --port 0 --token secret --artifacts "$work/artifacts" \
  > "$work/server.out" 2>&1 &
server=$!
exec 3< "$work/server.out"
IFS= read -r -t 30 first <&3 || fail "tamrel-ddi-server printed no address"
cat <&3 > "$work/server.log" &
reader=$!
exec 3<&-
url=${first#DDI server on }
address=${url%%/DEFAULT/*}
[ "$address" != "$first" ] || fail "unexpected server line: $first"

if [ -n "${BASE_CONFIG:-}" ]; then
  grep -Ev '^[[:space:]]*(address|tenant-id|controller-id|token|token-file|download-dir|state-dir|install-command|reboot-exit-code|reboot-command|confirm-command|control-socket)[[:space:]]*=' \
    "$BASE_CONFIG" > "$work/agent.conf" || fail "cannot read $BASE_CONFIG"
fi
cat >> "$work/agent.conf" <<CONF
address = $address
tenant-id = DEFAULT
controller-id = dev01
token = secret
download-dir = $work/downloads
state-dir = $work/state
install-command = $work/install.sh
control-socket = $work/agent.sock
CONF
status=0
timeout 120 "$bindir/tamrel-agent" --config "$work/agent.conf" --once "$@" \
  > "$work/agent.log" 2>&1 || status=$?
kill "$server"; wait "$server" 2>/dev/null || true; server=
wait "$reader"
[ "$status" = 0 ] || fail "tamrel-agent --once exited $status"
[ -e "$work/installed" ] || fail "the install command did not see the artifact"
grep '"execution":"closed"' "$work/server.log" | grep -q '"finished":"success"' \
  || fail "no closed/success feedback reached the server"
echo "ok: tamrel-agent --once completed a deployment from tamrel-ddi-server"
