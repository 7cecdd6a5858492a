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

serve() {  # a server for $work/art; the agent's configuration to match
  "$server" --token t --artifacts "$work/art" > "$work/server.log" 2>&1 &
  spid=$!
  # Its address is its first line; a server that exits before printing it
  # ends the run with its output.
  local alive=1
  while :; do
    kill -0 "$spid" 2> /dev/null || alive=0
    address=$(sed -n '1s|^DDI server on \(http://[0-9.:]*\)/.*|\1|p' "$work/server.log")
    [ -z "$address" ] || break
    [ "$alive" -eq 1 ] || { echo "bench-deploy: the server printed no address:" >&2; cat "$work/server.log" >&2; exit 1; }
    sleep 0.05
  done
  printf '%s\n' "address = $address" 'tenant-id = DEFAULT' 'controller-id = dev01' 'token = t' \
    "download-dir = $work/dl" 'install-command = /bin/true' > "$work/agent.conf"
}
unserve() {
  kill "$spid" && wait "$spid" 2>/dev/null || true
  spid=
}
now() { date +%s%N; }
timed() {  # file, command...: appends the command's wall time (ns)
  local out=$1 start; shift
  start=$(now)
  "$@"
  echo $(($(now) - start)) >> "$out"
}
deploy() {  # the agent once, its peak RSS (KiB) appended to $work/rss; it must succeed
  /usr/bin/time -f %M -a -o "$work/rss" "$agent" --once --config "$work/agent.conf" \
    > "$work/agent.log" 2>&1
  grep -q 'deployment 1: success' "$work/agent.log" || { cat "$work/agent.log" >&2; exit 1; }
}
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
row() {  # label, goal, ours file, peer file: median [min..max] of each and their ratio
  awk -v what="$1" -v goal="$2" '
    FNR == 1 { f++ }
    { v[f, FNR] = $1 / 1e9; n[f] = FNR }
    function stat(f,   i, j, t, a) {
      for (i = 1; i <= n[f]; i++) a[i] = v[f, i]
      for (i = 2; i <= n[f]; i++) for (j = i; j > 1 && a[j - 1] > a[j]; j--) {
        t = a[j]; a[j] = a[j - 1]; a[j - 1] = t
      }
      med[f] = a[int((n[f] + 1) / 2)]
      return sprintf("%8.3f s [%6.3f..%6.3f]", med[f], a[1], a[n[f]])
    }
    END {
      s1 = stat(1); s2 = stat(2)
      printf "%-44s %s  peer %s  ratio %5.3f  goal %s\n", what, s1, s2, med[1] / med[2], goal
    }' "$3" "$4"
}

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
