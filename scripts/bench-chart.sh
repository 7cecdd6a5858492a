#!/usr/bin/env bash
# Turns the output of scripts/bench.sh into a PNG bar chart of throughput
# (library vs its peer) next to the single-core limits of the machine class.
# Usage: scripts/bench-chart.sh BENCH_OUTPUT PNG
set -euo pipefail
in=$1; out=$2
data=$(mktemp)
trap 'rm -f "$data"' EXIT
# Rows of the 512 MiB section that carry a throughput pair.
awk '
  /== artifact of 512 MiB/ { on = 1; next }
  /^==/ { on = 0 }
  on && /MiB\/s\)/ {
    label = $0; sub(/ +[0-9.]+ s \[.*/, "", label)
    match($0, /\(([0-9]+) vs ([0-9]+) MiB\/s\)/, m)
    limit = (label ~ /MD5/) ? 572 : 1430          # MD5 0.6 GB/s, SHA-1 1.5 GB/s
    if (label ~ /^download/) limit = (label ~ /MD5/) ? 572 : 1430
    gsub(/ /, "_", label)
    print label, m[1], m[2], limit
  }' "$in" > "$data"
gnuplot <<GNUPLOT
set terminal pngcairo size 1000,520 font "sans,10"
set output "$out"
set title "512 MiB artifact over loopback, tmpfs (MiB/s, higher is better)"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set boxwidth 0.9
set yrange [0:*]
set ylabel "MiB/s"
set xtics rotate by -20 scale 0 noenhanced
set key top right
set grid ytics
plot "$data" using 2:xtic(1) title "libtamrelcore", \
     "" using 3 title "peer (curl+openssl / openssl / sha1sum)", \
     "" using 4 title "single-core digest limit", \
     1717 with lines lw 2 dt 2 title "loopback HTTP (1.8 GB/s)"
GNUPLOT
echo "wrote $out"
