#!/usr/bin/env bash
# Turns the output of scripts/bench.sh into a PNG bar chart of throughput
# (library vs its peer) next to the single-core limits of the machine class.
# Usage: scripts/bench-chart.sh BENCH_OUTPUT PNG
set -euo pipefail
in=$1; out=$2
data=$(mktemp)
trap 'rm -f "$data"' EXIT
# Rows of the 512 MiB section that carry a throughput pair.
sed -n '/== artifact of 512 MiB/,/^== peak/p' "$in" | grep 'MiB/s)' | while IFS= read -r line; do
  label=$(sed -E 's/ +[0-9.]+ s \[.*//; s/ /_/g' <<<"$line")
  pair=$(sed -E 's/.*\(([0-9]+) vs ([0-9]+) MiB\/s\).*/\1 \2/' <<<"$line")
  case "$label" in
    *MD5*) limit=572 ;;   # MD5 at about 0.6 GB/s on one core
    *) limit=1430 ;;      # SHA-1 at about 1.5 GB/s on one core
  esac
  echo "$label $pair $limit"
done > "$data"
gnuplot <<GNUPLOT
set terminal pngcairo size 1150,540 font "sans,10"
set output "$out"
set title "512 MiB artifact over loopback, tmpfs (MiB/s, higher is better)"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set boxwidth 0.9
set yrange [0:*]
set ylabel "MiB/s"
set xtics rotate by -20 scale 0 noenhanced
set key outside right top vertical
set bmargin 7
set rmargin 2
set grid ytics
plot "$data" using 2:xtic(1) title "libtamrelcore", \
     "" using 3 title "peer (curl+openssl / openssl / sha1sum)", \
     "" using 4 title "single-core digest limit", \
     1717 with lines lw 2 dt 2 title "loopback HTTP (1.8 GB/s)"
GNUPLOT
echo "wrote $out"
