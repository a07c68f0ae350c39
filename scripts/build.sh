#!/usr/bin/env bash
# build.sh [release|debug|sanitize]  -> build/<kind>
set -euo pipefail
kind=${1:-release}
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/install-deps.sh"
case "$kind" in
  release)  args=(-DCMAKE_BUILD_TYPE=Release) ;;
  debug)    args=(-DCMAKE_BUILD_TYPE=Debug) ;;
  sanitize) args=(-DCMAKE_BUILD_TYPE=Debug -DRTM_SANITIZE=ON) ;;
  *) echo "build.sh: unknown kind '$kind' (release, debug, sanitize)" >&2; exit 2 ;;
esac
cmake -S "$top" -B "$top/build/$kind" -G Ninja "${args[@]}" >/dev/null
cmake --build "$top/build/$kind" -j "$(nproc)"
