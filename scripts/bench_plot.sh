#!/usr/bin/env bash
# Plots the post-to-start latency distributions that bench_threading wrote
# under RUN_DIR/samples into RUN_DIR/dispatch_latency.png (gnuplot).
#   scripts/bench_plot.sh RUN_DIR
set -euo pipefail
run=$1
# Ours solid, peers dashed; one colour each.
names=(AppRunloop ThreadPool DispatchQueueSerial DispatchQueueConcurrent ContextMessage
       AsioStrand AsioThreadPool PocoThreadPool PocoNotificationQueue)
colours=('#1f77b4' '#d62728' '#2ca02c' '#9467bd' '#ff7f0e'
         '#17becf' '#8c564b' '#7f7f7f' '#e377c2')
plot="plot"
sep=""
for i in "${!names[@]}"; do
  name=${names[$i]}
  [ -s "$run/samples/$name.cdf" ] || continue
  dash=1
  [ "$i" -ge 5 ] && dash=2
  plot+="$sep '$run/samples/$name.cdf' using 1:2 with lines lw 2 dt $dash lc rgb '${colours[$i]}' title '$name'"
  sep=","
done
[ -n "$sep" ] || exit 0
gnuplot <<GNUPLOT
set terminal pngcairo size 1000,600 noenhanced
set output '$run/dispatch_latency.png'
set title 'Post-to-start latency, one task at a time (CDF of 20000 samples; ours solid, peers dashed)'
set xlabel 'latency (microseconds, log scale)'
set ylabel 'fraction of tasks started'
set logscale x
set key bottom right
set grid
$plot
GNUPLOT
