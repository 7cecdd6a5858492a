# Shared by bench-deploy.sh and bench-stream.sh (sourced): a tamrel-ddi-server
# for $work/art, timing, the agent run once, and the result rows. The
# sourcing script sets $server, $agent and $work, and spid= before its
# clean-up trap.
umask 077  # the agent's configuration holds the token

# Starts the server; sets $spid and $address (its first line). A server
# that exits before printing it ends the run with its output.
start_server() {  # name of the benchmark, for the error
  "$server" --token t --artifacts "$work/art" > "$work/server.log" 2>&1 &
  spid=$!
  local alive=1
  while :; do
    kill -0 "$spid" 2> /dev/null || alive=0
    address=$(sed -n '1s|^DDI server on \(http://[0-9.:]*\)/.*|\1|p' "$work/server.log")
    [ -z "$address" ] || break
    [ "$alive" -eq 1 ] || { echo "$1: the server printed no address:" >&2; cat "$work/server.log" >&2; exit 1; }
    sleep 0.05
  done
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
deploy_once() {  # the agent once, its peak RSS (KiB) appended to $work/rss; it must succeed
  /usr/bin/time -f %M -a -o "$work/rss" "$agent" --once --config "$work/agent.conf" \
    > "$work/agent.log" 2>&1
  grep -q 'deployment 1: success' "$work/agent.log" || { cat "$work/agent.log" >&2; exit 1; }
}
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
