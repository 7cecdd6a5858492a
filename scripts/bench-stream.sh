#!/usr/bin/env bash
# Streaming deploy benchmark, run by bench.sh or alone: `tamrel-agent --once`
# with install-mode = stream (poll, the artifact fed to an install command
# that reads it to /dev/null while SHA-1, MD5 and SHA-256 are taken, the end
# held back until they match, feedback) against tamrel-ddi-server, next to
# `curl -s URL | sha256sum` of the same artifact from the same server, for
# 256 MiB and 1 GiB; the bytes the agent wrote to disk (write_bytes of
# /proc/PID/io, read by the install command as it starts and when its input
# ended, with download-dir on a disk, not tmpfs) and its peak RSS at both
# sizes. Each run
# gets a fresh server; the contenders alternate run by run.
set -euo pipefail
cd "$(dirname "$0")/.."
RUNS=${RUNS:-5}
BUILD=${BUILD:-build}
agent=${AGENT:-$PWD/$BUILD/tamrel-agent}
server=$PWD/$BUILD/tamrel-ddi-server
work=$(mktemp -d /dev/shm/tamrel-stream-XXXXXX)
disk=$(mktemp -d /var/tmp/tamrel-stream-XXXXXX)  # download-dir: must stay empty
spid=
cleanup() {
  [ -z "$spid" ] || kill "$spid" 2>/dev/null || true
  rm -rf "$work" "$disk"
}
trap cleanup EXIT
mkdir -p "$work/art"

. scripts/bench-lib.sh
serve() {
  start_server bench-stream
  printf '%s\n' "address = $address" 'tenant-id = DEFAULT' 'controller-id = dev01' 'token = t' \
    "download-dir = $disk" "state-dir = $work/state" 'install-mode = stream' "install-command = $work/install \$PPID" \
    > "$work/agent.conf"
}
deploy() {
  deploy_once
  [ -z "$(ls -A "$disk")" ] || { echo "bench-stream: the agent stored something in $disk" >&2; exit 1; }
}
fetch() { curl -sf -H 'Authorization: TargetToken t' "$address/artifacts/$1" | sha256sum > /dev/null; }

# The install command: its input to /dev/null; appends to $work/written the
# bytes the agent ($1: in sh -c, $PPID is the agent) wrote to disk while it
# streamed, and those it wrote in all.
cat > "$work/install" << EOF
#!/bin/sh
io() { sed -n 's/^write_bytes: //p' /proc/\$1/io; }
s=\$(io \$1) && cat > /dev/null && e=\$(io \$1) && echo \$((e - s)) \$e >> $work/written
EOF
chmod +x "$work/install"
declare -A rss written
for size in 256 1024; do
  rm -f "$work"/art/* "$work/rss" "$work/written" "$work"/t.*
  head -c $((size << 20)) /dev/urandom > "$work/art/a$size.bin"
  for run in $(seq "$RUNS"); do
    serve
    if [ $((run % 2)) -eq 1 ]; then
      timed "$work/t.agent" deploy; timed "$work/t.curl" fetch "a$size.bin"
    else
      timed "$work/t.curl" fetch "a$size.bin"; timed "$work/t.agent" deploy
    fi
    unserve
  done
  row "stream $size MiB: agent vs curl | sha256sum" "<= 1.1" "$work/t.agent" "$work/t.curl"
  rss[$size]=$(sort -n "$work/rss" | tail -1)
  written[$size]=$(sort -n "$work/written" | tail -1)  # the run that wrote most while streaming
done
# shellcheck disable=SC2086 # two words each: while streaming, in all
set -- ${written[256]} ${written[1024]}
printf '%-44s %s bytes at 256 MiB, %s at 1 GiB (in all: %s, %s)  goal 0\n' \
  "agent's bytes written to disk while streaming" "$1" "$3" "$2" "$4"
printf '%-44s %d KiB vs %d KiB: %+d KiB  goal within 1024 KiB\n' \
  "agent peak RSS, stream 1 GiB vs 256 MiB" "${rss[1024]}" "${rss[256]}" \
  $((rss[1024] - rss[256]))
