#!/usr/bin/env bash
# Deploy benchmark, run by bench.sh or alone: `tamrel-agent --once` (poll,
# download, SHA-256, install command /bin/true, feedback) against
# tamrel-ddi-server serving one artifact (SHA-1, MD5 and SHA-256 listed),
# next to `curl -o` of the same artifact from the same server followed by
# `openssl sha1` of the file (two passes where the agent makes one), for
# 256 MiB and 1 GiB; the 1 GiB deployment with the complete file already on disk
# next to `openssl sha1` of that file; the agent's peak RSS at both sizes.
# Each run gets a fresh server (the agent closes the action); the contenders
# alternate run by run. Everything lives in tmpfs and is removed at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
RUNS=${RUNS:-5}
BUILD=${BUILD:-build}
agent=${AGENT:-$PWD/$BUILD/tamrel-agent}  # AGENT=path measures another build
server=$PWD/$BUILD/tamrel-ddi-server
work=$(mktemp -d /dev/shm/tamrel-deploy-XXXXXX)
spid=
cleanup() {
  [ -z "$spid" ] || kill "$spid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$work/art"

. scripts/bench-lib.sh
serve() {  # a server for $work/art; the agent's configuration to match
  start_server bench-deploy
  printf '%s\n' "address = $address" 'tenant-id = DEFAULT' 'controller-id = dev01' 'token = t' \
    "download-dir = $work/dl" "state-dir = $work/state" 'install-command = /bin/true' > "$work/agent.conf"
}
deploy() { deploy_once; }
fetch() {
  curl -sf -H 'Authorization: TargetToken t' -o "$work/curl.bin" "$address/artifacts/$1"
  openssl sha1 "$work/curl.bin" > /dev/null
}
# Each contender's file is removed before the other runs, so that neither
# writes while the other's file still holds its memory: with the agent's
# 1 GiB still in tmpfs, a 1 GiB curl -o took 1.0-4.5 s here, without 1.3-1.5 s.
fresh() {
  "$@"
  rm -rf "$work/dl" "$work/curl.bin"
}
hash1() { openssl sha1 "$1" > /dev/null; }

# Other work on the machine shows in every ratio: its load goes with them.
load() { cut -d' ' -f1-3 /proc/loadavg; }
echo "load average at the start: $(load)"
for size in 256 1024; do
  rm -f "$work"/art/* "$work/rss" "$work"/t.*
  head -c $((size << 20)) /dev/urandom > "$work/art/a$size.bin"
  for run in $(seq "$RUNS"); do
    serve
    if [ $((run % 2)) -eq 1 ]; then
      fresh timed "$work/t.agent" deploy; fresh timed "$work/t.curl" fetch "a$size.bin"
    else
      fresh timed "$work/t.curl" fetch "a$size.bin"; fresh timed "$work/t.agent" deploy
    fi
    unserve
  done
  row "deploy $size MiB: agent vs curl -o + sha1" "<= 1.0" "$work/t.agent" "$work/t.curl"
  rss[$size]=$(sort -n "$work/rss" | tail -1)
  if [ "$size" = 1024 ]; then
    rm -f "$work/rss"
    file=$work/dl/firmware/a$size.bin
    mkdir -p "$work/dl/firmware"
    cp "$work/art/a$size.bin" "$file"
    for run in $(seq "$RUNS"); do
      serve
      if [ $((run % 2)) -eq 1 ]; then
        timed "$work/t.disk" deploy; timed "$work/t.sha1" hash1 "$file"
      else
        timed "$work/t.sha1" hash1 "$file"; timed "$work/t.disk" deploy
      fi
      grep -q 'already on disk and verified' "$work/server.log" || { echo "file not kept" >&2; exit 1; }
      unserve
    done
    row "deploy $size MiB, file on disk vs openssl sha1" "<= 1.2" "$work/t.disk" "$work/t.sha1"
  fi
done
printf '%-44s %d KiB vs %d KiB: %+d KiB  goal within 1024 KiB\n' \
  "agent peak RSS, deploy 1 GiB vs 256 MiB" "${rss[1024]}" "${rss[256]}" \
  $((rss[1024] - rss[256]))
echo "load average at the end: $(load)"
