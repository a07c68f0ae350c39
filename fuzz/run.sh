#!/usr/bin/env bash
# fuzz/run.sh [SECONDS]: builds the fuzz targets of the message parsers and runs each for a
# bounded time (SECONDS in all, default 60, shared equally), starting from the seeds of
# fuzz/seeds.py plus what earlier runs kept in build/fuzz-corpus.
#
# With clang's libFuzzer (clang++ and libclang-rt installed; scripts/install-deps.sh installs
# them when RTM_FUZZ_DEPS=1) the targets are coverage-guided. Without it they are built with
# the default compiler around a standalone driver that replays the corpus and then mutates it
# from a fixed seed, so the parsers are still exercised under ASan and UBSan.
#
# The mutation seed is fixed (FUZZ_SEED, default 1) so that a CI run can be repeated exactly;
# FUZZ_SEED=0 lets libFuzzer pick a fresh one for exploring.
#
# FUZZ_ENGINE=standalone forces the driver without libFuzzer; FUZZ_BUILD_DIR and FUZZ_CORPUS_DIR
# move the build and the kept corpus.
#
# Exit status: 0 when no target found a failure; otherwise the target's, with the input that
# failed left in build/fuzz-<engine>/ (crash-*). The targets keep the daemon's tables across a
# few hundred inputs, so a finding may need the inputs before it: replay the corpus with
# RTM_FUZZ_RESET_EVERY=1 to give every input a fresh daemon.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
total=${1:-${FUZZ_SECONDS:-60}}
targets=(fuzz_route_update fuzz_registration fuzz_dispatch)
per=$(( total / ${#targets[@]} ))
[ "$per" -ge 1 ] || per=1

RTM_FUZZ_DEPS=1 "$top/scripts/install-deps.sh" || echo "fuzz: could not install the fuzzing tools; trying without"

engine=standalone
if [ -n "${FUZZ_ENGINE:-}" ]; then
  engine=$FUZZ_ENGINE
elif command -v clang++ >/dev/null; then
  probe=$(mktemp -d)
  printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char *, unsigned long) { return 0; }\n' >"$probe/p.cpp"
  if clang++ -fsanitize=fuzzer,address "$probe/p.cpp" -o "$probe/p" >/dev/null 2>&1; then engine=libfuzzer; fi
  rm -rf "$probe"
fi
build=${FUZZ_BUILD_DIR:-$top/build/fuzz-$engine}
echo "fuzz: engine $engine, $per s per target, build in $build"

args=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRTM_FUZZ=ON -DRTM_SANITIZE=ON -DRTM_TESTS=OFF -DRTM_BENCH=OFF
      -DRTM_FUZZ_ENGINE="$engine")
if [ "$engine" = libfuzzer ]; then
  args+=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link)
fi
cmake -S "$top" -B "$build" "${args[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"

seeds="$build/seeds"
rm -rf "$seeds"
python3 "$top/fuzz/seeds.py" "$seeds"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

status=0
for t in "${targets[@]}"; do
  corpus="${FUZZ_CORPUS_DIR:-$top/build/fuzz-corpus}/$t"
  mkdir -p "$corpus"
  echo "== $t"
  if [ "$engine" = libfuzzer ]; then
    (cd "$build" && "./fuzz/$t" -max_total_time="$per" -timeout=10 -max_len=8192 -print_final_stats=1 \
        -seed="${FUZZ_SEED:-1}" \
        "$corpus" "$seeds/$t") || status=$?
  else
    (cd "$build" && "./fuzz/$t" -max_total_time="$per" -seed="${FUZZ_SEED:-1}" -max_len=8192 \
        "$corpus" "$seeds/$t") || status=$?
  fi
  [ "$status" -eq 0 ] || { echo "fuzz: $t failed (status $status)"; break; }
done
exit "$status"
