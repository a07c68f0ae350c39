#!/usr/bin/env bash
# Installs what the build needs from Debian's packages, only when something is missing,
# so a fresh machine and a warm one take the same path.
set -euo pipefail
need=()
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
command -v ninja >/dev/null || need+=(ninja-build)
command -v python3 >/dev/null || need+=(python3)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev googletest)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
# The fuzzing tools only when asked for (fuzz/run.sh): clang and its libFuzzer runtime.
if [ "${RTM_FUZZ_DEPS:-0}" = 1 ]; then
  command -v clang++ >/dev/null || need+=(clang)
  ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1 || need+=(libclang-rt-14-dev)
fi
if [ ${#need[@]} -gt 0 ]; then
  echo "install-deps: installing ${need[*]}"
  SUDO=""
  [ "$(id -u)" = 0 ] || SUDO="sudo"
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q "${need[@]}"
fi
