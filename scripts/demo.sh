#!/usr/bin/env bash
# demo.sh BUILD_DIR: a small system in a fresh run directory: the interface manager stand-in,
# rtmd, a protocol client that pushes a generated table (DEMO_ROUTES, default 1,000,000 IPv4
# routes) and two FIB agents that take the download. Prints how long it took until both agents
# held every route, the rate, rtmd's memory, then the same for the withdrawal.
set -euo pipefail
source "$(dirname "$0")/agent-wait.sh"
bin=${1:?usage: demo.sh BUILD_DIR}
routes=${DEMO_ROUTES:-1000000}
[[ $routes =~ ^[1-9][0-9]*$ ]] || { echo "demo.sh: DEMO_ROUTES must be a positive number" >&2; exit 2; }
for b in src/frame/rtmd tools/rtm-ifm/rtm-ifm tools/rtm-feed/rtm-feed tools/rtm-fib/rtm-fib; do
  [ -x "$bin/$b" ] || { echo "demo.sh: $bin/$b is not built" >&2; exit 2; }
done
run=$(mktemp -d /tmp/rtmd-demo.XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$run"
}
trap cleanup EXIT

now() { date +%s.%N; }
# The time an agent printed with "(at T)" on its line matching $2 in file $1.
agentAt() { sed -n "/$2/s/.*(at \([0-9.]*\),.*/\1/p" "$1" | tail -1; }
# Waits until every agent's output has a line matching $1 (the agents end by themselves after
# their --timeout, and an agent that ended without the line is an error).
waitAgents() {
  for i in 0 1; do
    waitLine "$run/fib$i.out" "${fib[$i]}" "$1" ||
      { echo "demo.sh: agent $i ended early:" >&2; cat "$run/fib$i.out" >&2; exit 1; }
  done
}
figures() {  # what, t0, later agent time
  awk -v what="$1" -v t0="$2" -v t1="$3" -v n="$routes" 'BEGIN {
    s = t1 - t0; if (s <= 0) s = 0.001;
    printf "== %s: %d routes, %.3f s until both agents had them all, %.0f routes/s\n", what, n, s, n / s }'
}
later() { awk -v a="$1" -v b="$2" 'BEGIN { print (a > b ? a : b) }'; }

echo "== rtmd demonstration in $run"
"$bin/src/frame/rtmd" --version
"$bin/tools/rtm-ifm/rtm-ifm" --run-dir "$run" --slots 0,1 --quiet & pids+=($!)
"$bin/src/frame/rtmd" --run-dir "$run" --log-file "$run/rtmd.log" & rtmd=$!; pids+=($rtmd)
for _ in $(seq 100); do grep -q "RTM Task is Ready" "$run/rtmd.log" 2>/dev/null && break; sleep 0.1; done
grep -q "RTM Task is Ready" "$run/rtmd.log" || { echo "demo.sh: rtmd did not come up" >&2; cat "$run/rtmd.log" >&2; exit 1; }

echo "== two FIB agents (line-card slots 0 and 1) register and ask for VRF 0"
fib=()
for i in 0 1; do
  dump=(); [ $i = 0 ] && dump=(--dump "$run/fib0.table")
  "$bin/tools/rtm-fib/rtm-fib" --run-dir "$run" --slot $i --expect "$routes" --expect-empty-after \
    --timeout 900 "${dump[@]}" >"$run/fib$i.out" 2>&1 & fib+=($!); pids+=($!)
done
waitAgents "registered as"
cat "$run/fib0.out" "$run/fib1.out"
rss0=$(awk '/^VmRSS:/ { print $2 }' "/proc/$rtmd/status")

echo "== rtm-feed: $routes generated IPv4 routes from BGP"
t0=$(now)
"$bin/tools/rtm-feed/rtm-feed" --run-dir "$run" --proto bgp --inst 1 --generate "$routes" --nexthops 1
waitAgents "holds"
grep -h "holds" "$run/fib0.out" "$run/fib1.out"
figures "download" "$t0" "$(later "$(agentAt "$run/fib0.out" holds)" "$(agentAt "$run/fib1.out" holds)")"
rss1=$(awk '/^VmRSS:/ { print $2 }' "/proc/$rtmd/status")
echo "== rtmd memory: $rss1 kB resident ($(( (rss1 - rss0) * 1024 / routes )) bytes per route above the empty daemon's $rss0 kB)"
for _ in $(seq 1200); do [ -f "$run/fib0.table" ] && break; sleep 0.05; done
echo "== the first routes in the agent of slot 0 (VRF, prefix, protocol, metric, next hop%ifindex@VRF)"
head -5 "$run/fib0.table" 2>/dev/null || true

echo "== rtm-feed: withdrawing them"
t0=$(now)
"$bin/tools/rtm-feed/rtm-feed" --run-dir "$run" --proto bgp --inst 1 --generate "$routes" --nexthops 1 --withdraw --quiet
waitAgents "withdrawn"
grep -h "withdrawn" "$run/fib0.out" "$run/fib1.out"
figures "withdrawal" "$t0" "$(later "$(agentAt "$run/fib0.out" withdrawn)" "$(agentAt "$run/fib1.out" withdrawn)")"
echo "== rtmd memory: $(awk '/^VmRSS:/ { print $2 }' "/proc/$rtmd/status") kB resident"
for i in 0 1; do wait "${fib[$i]}" || true; done
grep -h "messages" "$run/fib0.out" "$run/fib1.out" || true

kill -TERM $rtmd; wait $rtmd || true
echo "== rtmd log (events)"
grep -v " DBG " "$run/rtmd.log" | tail -20
