#!/usr/bin/env bash
# test.sh [release|sanitize|fuzz|all]: builds from nothing if needed and runs every test with ctest.
# "all" (the default) runs the release suite, then the whole suite again under ASan and UBSan,
# then the message-parser fuzz targets for a bounded time (FUZZ_SECONDS, default 120; 0 skips).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
what=${1:-all}
run() {
  local kind=$1
  "$top/scripts/build.sh" "$kind"
  echo "== ctest ($kind)"
  if [ "$kind" = sanitize ]; then
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  fi
  (cd "$top/build/$kind" && ctest --output-on-failure -j "$(nproc)" --timeout 600)
}
case "$what" in
  release|sanitize) run "$what" ;;
  fuzz) "$top/fuzz/run.sh" "${FUZZ_SECONDS:-120}" ;;
  all)
    run release; run sanitize
    if [ "${FUZZ_SECONDS:-120}" -gt 0 ]; then "$top/fuzz/run.sh" "${FUZZ_SECONDS:-120}"; fi ;;
  *) echo "test.sh: unknown suite '$what' (release, sanitize, fuzz, all)" >&2; exit 2 ;;
esac
