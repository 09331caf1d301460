#!/usr/bin/env bash
# Builds the libFuzzer drivers (preset "fuzz": clang, ASan + UBSan) and runs
# each for a bounded time, starting from its committed seeds.
#   scripts/fuzz.sh            20 s per driver (three drivers)
#   scripts/fuzz.sh 600        10 minutes per driver
#   ORV_FUZZ_TARGETS="fuzz_text fuzz_data" scripts/fuzz.sh 120
# The corpus grows in build/fuzz/corpus/<target> (a copy of fuzz/corpus/,
# so the committed seeds stay small); crashes land in build/fuzz/crashes/.
# Exits non-zero on the first target that finds a fault.
set -euo pipefail

seconds=${1:-20}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/install-deps.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

build=build/fuzz
targets=${ORV_FUZZ_TARGETS:-$(ls fuzz/corpus)}
mkdir -p "$build/crashes"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

summary=()
for t in $targets; do
  corpus="$build/corpus/$t"
  mkdir -p "$corpus"
  cp -n fuzz/corpus/"$t"/* "$corpus"/ 2>/dev/null || true
  log="$build/$t.log"
  echo "=== $t (${seconds} s)"
  if ! "$build/fuzz/$t" -max_total_time="$seconds" -rss_limit_mb=2048 -max_len=4096 \
      -timeout=10 -print_final_stats=1 -artifact_prefix="$build/crashes/$t-" \
      "$corpus" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "FAILED: $t (input saved under $build/crashes/)"
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 || true)
  summary+=("$(printf '%-22s %12s execs  %s  corpus %s' "$t" "${runs:-?}" "${cov:-}" \
    "$(ls "$corpus" | wc -l)")")
done
echo "=== fuzz summary (${seconds} s per driver)"
printf '%s\n' "${summary[@]}"
