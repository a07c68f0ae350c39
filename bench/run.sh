#!/usr/bin/env bash
# bench/run.sh [name...]: builds in release mode and runs every benchmark (or the named ones),
# writing the results.
#
# Each folder bench/<name>/ with a CMakeLists.txt is one benchmark. If the folder has a driver
# script bench/<name>/run.sh (benchmarks that start processes), it is run as
#     bench/<name>/run.sh <build-dir> <results-dir>
# and writes its own results there. Otherwise every executable the folder builds is a Google
# Benchmark binary: it is run with repetitions, the console shows the aggregates (mean, median,
# spread, min and max), and all runs go to <results-dir>/<binary>.json and <binary>.txt.
#
# Settings (environment):
#   BUILD_DIR     build directory (default: build/release, made by scripts/build.sh release)
#   RESULTS_DIR   where results go (default: build/bench-results)
#   REPETITIONS   runs of each benchmark (default: 5); the machine is noisy, compare the best
#   BENCH_FILTER  Google Benchmark filter (regular expression) for the binaries
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$top/build/release}
results=${RESULTS_DIR:-$top/build/bench-results}
reps=${REPETITIONS:-5}
filter=${BENCH_FILTER:-}

if [ -z "${BUILD_DIR:-}" ]; then
  "$top/scripts/build.sh" release
else
  cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DRTM_BENCH=ON >/dev/null
  cmake --build "$build" -j "$(nproc)"
fi
mkdir -p "$results"

names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for d in "$top"/bench/*/; do
    [ -f "$d/CMakeLists.txt" ] && names+=("$(basename "$d")")
  done
fi

status=0
for name in "${names[@]}"; do
  src="$top/bench/$name"
  if [ ! -f "$src/CMakeLists.txt" ]; then
    echo "run.sh: no benchmark '$name'" >&2
    status=1
    continue
  fi
  echo "== $name"
  if [ -x "$src/run.sh" ]; then
    "$src/run.sh" "$build" "$results" || status=1
    continue
  fi
  found=0
  for exe in "$build/bench/$name"/*; do
    [ -f "$exe" ] && [ -x "$exe" ] || continue
    found=1
    bin=$(basename "$exe")
    args=(--benchmark_repetitions="$reps" --benchmark_display_aggregates_only=true
          --benchmark_out="$results/$bin.json" --benchmark_out_format=json)
    [ -n "$filter" ] && args+=(--benchmark_filter="$filter")
    "$exe" "${args[@]}" 2>&1 | tee "$results/$bin.txt" || status=1
  done
  [ $found -eq 1 ] || { echo "run.sh: nothing built for '$name' in $build/bench/$name" >&2; status=1; }
done
echo "Results in $results"
exit $status
