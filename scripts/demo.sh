#!/usr/bin/env bash
# demo.sh BUILD_DIR: a small system in a fresh run directory: the interface manager stand-in,
# rtmd, and (when built) a protocol client that pushes a generated table. Prints what happened.
set -euo pipefail
bin=${1:?usage: demo.sh BUILD_DIR}
run=$(mktemp -d /tmp/rtmd-demo.XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$run"
}
trap cleanup EXIT

echo "== rtmd demonstration in $run"
"$bin/src/frame/rtmd" --version
"$bin/tools/rtm-ifm/rtm-ifm" --run-dir "$run" --quiet & pids+=($!)
"$bin/src/frame/rtmd" --run-dir "$run" --log-file "$run/rtmd.log" & rtmd=$!; pids+=($rtmd)
for _ in $(seq 100); do grep -q "RTM Task is Ready" "$run/rtmd.log" 2>/dev/null && break; sleep 0.1; done
sleep 0.5
if [ -x "$bin/tools/rtm-feed/rtm-feed" ]; then
  routes=${DEMO_ROUTES:-1000000}
  echo "== rtm-feed: $routes generated IPv4 routes from BGP"
  "$bin/tools/rtm-feed/rtm-feed" --run-dir "$run" --proto bgp --inst 1 --generate "$routes" --nexthops 1 || true
  echo "== rtmd memory: $(grep VmRSS /proc/$rtmd/status)"
  echo "== rtm-feed: withdrawing them"
  "$bin/tools/rtm-feed/rtm-feed" --run-dir "$run" --proto bgp --inst 1 --generate "$routes" --nexthops 1 --withdraw || true
fi
kill -TERM $rtmd; wait $rtmd || true
echo "== rtmd log"
cat "$run/rtmd.log"
