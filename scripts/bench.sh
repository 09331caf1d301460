#!/usr/bin/env bash
# Installs what the benchmarks need (scripts/install-deps.sh bench), builds the
# Release preset, runs every benchmark program once (Google Benchmark JSON
# under build/release/bench-results) and writes bench/RESULTS.md with the
# figures, the peers' figures and the ratios, plus bench/dispatch_latency.png
# (gnuplot). Takes a few minutes. Not part of CI.
#   scripts/bench.sh              everything
#   ORV_BENCH_MIN_TIME=0.1 ...    shorter runs of the micro-benchmarks
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh bench
cmake --preset release >/dev/null
cmake --build --preset release -j2

bin=build/release/bench
run=build/release/bench-results
rm -rf "$run"
mkdir -p "$run/samples"
min_time=${ORV_BENCH_MIN_TIME:-0.5}

{
  echo "CPU: $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)"
  echo "Cores: $(nproc)"
  echo "Load average at start: $(cut -d' ' -f1-3 /proc/loadavg)"
  echo "Kernel: $(uname -sr)"
  echo "Compiler: $(sed -n 's/^CMAKE_CXX_COMPILER:[^=]*=//p' build/release/CMakeCache.txt) ($("$(sed -n 's/^CMAKE_CXX_COMPILER:[^=]*=//p' build/release/CMakeCache.txt)" --version | head -1)), Release"
  echo "Date: $(date -u '+%Y-%m-%d %H:%M UTC')"
} >"$run/machine.txt"
cat "$run/machine.txt"

# bench_streaming comes from another branch: run it when it is built.
for b in bench_foundation bench_data bench_threading bench_timers bench_http bench_streaming; do
  if [ ! -x "$bin/$b" ]; then
    echo "== $b: not built, skipped"
    continue
  fi
  echo "== $b"
  # Short loops are noisy on a shared machine: their median of three counts.
  repeat=()
  case $b in
    bench_foundation|bench_data)
      repeat=(--benchmark_repetitions=3 --benchmark_report_aggregates_only=true) ;;
  esac
  ORV_BENCH_SAMPLES_DIR="$PWD/$run/samples" "$bin/$b" "${repeat[@]}" \
    --benchmark_min_time="$min_time" \
    --benchmark_out="$run/$b.json" --benchmark_out_format=json
done

# Post-to-start latency distributions (written by bench_threading).
scripts/bench_plot.sh "$run"
[ -s "$run/dispatch_latency.png" ] && cp "$run/dispatch_latency.png" bench/dispatch_latency.png

python3 scripts/bench_report.py "$run" bench/RESULTS.md
echo "wrote bench/RESULTS.md"
