#!/usr/bin/env bash
# run.sh BUILD_DIR RESULTS_DIR: the end-to-end matrix: rtm-feed -> rtmd -> rtm-fib with 1 and 4
# agents, 1,000,000 IPv4 and 250,000 IPv6 routes (E2E_V4_ROUTES, E2E_V6_ROUTES to change), and
# the feeder alone for comparison. Each run's report goes to RESULTS_DIR/e2e-<case>.txt, the
# table rows to RESULTS_DIR/e2e.txt.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: run.sh BUILD_DIR RESULTS_DIR}
results=${2:?usage: run.sh BUILD_DIR RESULTS_DIR}
v4=${E2E_V4_ROUTES:-1000000}
v6=${E2E_V6_ROUTES:-250000}
mkdir -p "$results"
table=$results/e2e.txt
{
  echo "| family | routes | agents | add: until every agent holds all | withdraw: until every agent saw all | rtmd bytes/route |"
  echo "|---|---|---|---|---|---|"
} >"$table"
status=0
for case_ in "v4 0" "v4 1" "v4 4" "v6 0" "v6 1" "v6 4"; do
  read -r fam agents <<<"$case_"
  if [ "$fam" = v4 ]; then args=("$v4"); else args=("$v6" --ipv6); fi
  out=$results/e2e-$fam-$agents.txt
  echo "== $fam, $agents agent(s)"
  if "$here/e2e.sh" "$build" "${args[@]}" --agents "$agents" >"$out" 2>&1; then
    cat "$out"
    tail -1 "$out" >>"$table"
  else
    cat "$out" >&2
    status=1
  fi
done
cat "$table"
exit $status
