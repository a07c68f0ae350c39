#!/usr/bin/env bash
# demo.sh BUILD_DIR: starts rtmd in a fresh run directory, shows it come up, stops it.
set -euo pipefail
bin=${1:?usage: demo.sh BUILD_DIR}
run=$(mktemp -d /tmp/rtmd-demo.XXXXXX)
trap 'kill $pid 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$run"' EXIT
"$bin/src/frame/rtmd" --version
"$bin/src/frame/rtmd" --run-dir "$run" --log-file "$run/rtmd.log" & pid=$!
for _ in $(seq 50); do grep -q "RTM Task is Ready" "$run/rtmd.log" 2>/dev/null && break; sleep 0.1; done
cat "$run/rtmd.log" 2>/dev/null || true
kill -TERM $pid; wait $pid || true
