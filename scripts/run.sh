#!/usr/bin/env bash
# The main job: builds rtmd and its tools in release mode and runs the demonstration.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/build.sh" release
exec "$top/scripts/demo.sh" "$top/build/release"
