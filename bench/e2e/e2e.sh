#!/usr/bin/env bash
# e2e.sh BUILD_DIR [ROUTES] [--agents N] [rtm-feed options...]
#
# End to end: rtmd, rtm-feed and N rtm-fib agents as separate processes over the real sockets,
# in a fresh run directory. rtm-feed pushes ROUTES generated prefixes (default 1,000,000 IPv4
# /24s with one next hop), then withdraws them. Reports, for each direction, the feeder's rate
# (its first message to its last acknowledgement) and, with agents, the time from the feeder's
# start until every agent held every route (then: had seen every route withdrawn), as routes
# per second; the CPU seconds rtmd and the agents spent; and rtmd's resident memory (VmRSS in
# /proc) before, with and after the table, as bytes per route.
#
# --agents N (default 0: the feeder and rtmd alone) starts N agents of the family of the
# feed (--ipv6 among the rtm-feed options makes them IPv6 agents), on line-card slots 0..N-1.
# --dgram-qlen Q sets the system's datagram queue length (net.unix.max_dgram_qlen, the messages
# a socket holds before its sender is turned back; Linux's default is 10) for the run, and puts
# it back afterwards; it needs root. The figures say which length they were taken with.
# The last line is a table row: family, routes, agents, seconds and rates of both directions,
# bytes per route.
#
# Use a release build: scripts/build.sh release, then bench/e2e/e2e.sh build/release.
set -euo pipefail
source "$(dirname "$0")/../../scripts/agent-wait.sh"
bin=${1:?usage: e2e.sh BUILD_DIR [ROUTES] [--agents N] [rtm-feed options...]}
shift
routes=1000000
agents=0
if [[ ${1:-} =~ ^[0-9]+$ ]]; then routes=$1; shift; fi
feedArgs=()
family=ipv4
qlen=
while [ $# -gt 0 ]; do
  case $1 in
    --agents) agents=${2:?--agents needs a number}; shift 2 ;;
    --dgram-qlen) qlen=${2:?--dgram-qlen needs a number}; shift 2 ;;
    --ipv6) family=ipv6; feedArgs+=("$1"); shift ;;
    *) feedArgs+=("$1"); shift ;;
  esac
done
[[ $agents =~ ^[0-9]+$ ]] && (( agents <= 12 )) || { echo "e2e.sh: --agents takes 0 to 12" >&2; exit 2; }
qlenFile=/proc/sys/net/unix/max_dgram_qlen
if [ -n "$qlen" ]; then
  [[ $qlen =~ ^[0-9]+$ ]] && (( qlen >= 1 && qlen <= 65535 )) || { echo "e2e.sh: --dgram-qlen takes 1 to 65535" >&2; exit 2; }
  [ -w "$qlenFile" ] || { echo "e2e.sh: --dgram-qlen needs root (cannot write $qlenFile)" >&2; exit 2; }
fi
rtmd_bin=$bin/src/frame/rtmd
feed_bin=$bin/tools/rtm-feed/rtm-feed
fib_bin=$bin/tools/rtm-fib/rtm-fib
ifm_bin=$bin/tools/rtm-ifm/rtm-ifm
for b in "$rtmd_bin" "$feed_bin" "$fib_bin" "$ifm_bin"; do
  [ -x "$b" ] || { echo "e2e.sh: $b is not built" >&2; exit 2; }
done
if grep -q "CMAKE_BUILD_TYPE:STRING=Debug" "$bin/CMakeCache.txt" 2>/dev/null; then
  echo "e2e.sh: warning: $bin is a Debug build; figures will not be representative" >&2
fi

run=$(mktemp -d /tmp/rtmd-e2e.XXXXXX)
pids=()
qlenWas=
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$run"
  [ -z "$qlenWas" ] || echo "$qlenWas" >"$qlenFile"
}
trap cleanup EXIT
# Before any socket is made: a socket takes the length in force when it is made.
if [ -n "$qlen" ]; then qlenWas=$(cat "$qlenFile"); echo "$qlen" >"$qlenFile"; fi

rss_kb() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status"; }
# CPU seconds (user + system) a live process has used.
cpu_s() { awk -v hz="$(getconf CLK_TCK)" '{ printf "%.2f", ($14 + $15) / hz }' "/proc/$1/stat"; }
now() { date +%s.%N; }
slots=$(seq -s, 0 $(( agents > 0 ? agents - 1 : 0 )))

"$ifm_bin" --run-dir "$run" --slots "$slots" --quiet & pids+=($!)
"$rtmd_bin" --run-dir "$run" --log-file "$run/rtmd.log" & rtmd=$!; pids+=($rtmd)
for _ in $(seq 100); do grep -q "RTM Task is Ready" "$run/rtmd.log" 2>/dev/null && break; sleep 0.1; done
grep -q "RTM Task is Ready" "$run/rtmd.log" || { echo "e2e.sh: rtmd did not come up" >&2; cat "$run/rtmd.log" >&2; exit 1; }

fib=()
for (( i = 0; i < agents; i++ )); do
  "$fib_bin" --run-dir "$run" --family "$family" --slot "$i" --expect "$routes" --expect-empty-after \
    --timeout 1200 --quiet >"$run/fib$i.out" 2>&1 & fib+=($!); pids+=($!)
done
# Each agent is registered and has asked for its download once rtmd has its queue.
for _ in $(seq 200); do
  n=$(grep -c "created SWP queue" "$run/rtmd.log" || true)
  (( n >= agents )) && break
  sleep 0.05
done
sleep 0.2

# Waits until every agent printed a line with $1; prints the latest "(at T)" of those lines.
waitAgents() {
  local latest=0
  for (( i = 0; i < agents; i++ )); do
    waitLine "$run/fib$i.out" "${fib[$i]}" "$1" ||
      { echo "e2e.sh: agent $i ended:" >&2; cat "$run/fib$i.out" >&2; exit 1; }
    local t; t=$(sed -n "/$1/s/.*(at \([0-9.]*\),.*/\1/p" "$run/fib$i.out" | tail -1)
    latest=$(awk -v a="$latest" -v b="$t" 'BEGIN { print (b > a ? b : a) }')
  done
  echo "$latest"
}
# CPU seconds of all agents up to their line with $1, as they printed it.
agentsCpu() {
  cat "$run"/fib*.out | sed -n "/$1/s/.*cpu \([0-9.]*\) s).*/\1/p" | awk '{ s += $1 } END { printf "%.2f", s }'
}
span() { awk -v a="$1" -v b="$2" 'BEGIN { s = b - a; printf "%.3f", (s > 0 ? s : 0.001) }'; }
rate() { awk -v n="$routes" -v s="$1" 'BEGIN { printf "%.0f", n / s }'; }
feedRate() { sed -n 's/.* s: \([0-9,]*\) routes\/s.*/\1/p' <<<"$1" | tr -d ,; }
feedSecs() { sed -n 's/.* in \([0-9.]*\) s:.*/\1/p' <<<"$1"; }

rss0=$(rss_kb "$rtmd")
cpu0=$(cpu_s "$rtmd")
t0=$(now)
add=$("$feed_bin" --run-dir "$run" --proto bgp --inst 1 --generate "$routes" --quiet "${feedArgs[@]}")
addSecs=$(feedSecs "$add")
if (( agents > 0 )); then addAll=$(span "$t0" "$(waitAgents holds)"); else addAll=$addSecs; fi
cpu1=$(cpu_s "$rtmd")
acpu1=$( (( agents > 0 )) && agentsCpu holds || echo 0)
rss1=$(rss_kb "$rtmd")
(( agents > 0 )) && "$fib_bin" --run-dir "$run" --family "$family" --show-clients >"$run/clients.txt" 2>&1 || true

t0=$(now)
del=$("$feed_bin" --run-dir "$run" --proto bgp --inst 1 --generate "$routes" --quiet --withdraw "${feedArgs[@]}")
delSecs=$(feedSecs "$del")
if (( agents > 0 )); then delAll=$(span "$t0" "$(waitAgents withdrawn)"); else delAll=$delSecs; fi
cpu2=$(cpu_s "$rtmd")
acpu2=$( (( agents > 0 )) && agentsCpu withdrawn || echo 0)
rss2=$(rss_kb "$rtmd")
bpr=$(( (rss1 - rss0) * 1024 / routes ))

echo "routes:              $routes $family, ${feedArgs[*]:-}, $agents agent(s)"
echo "datagram queue:      $(cat "$qlenFile" 2>/dev/null || echo unknown) messages (net.unix.max_dgram_qlen)"
echo "add, feeder:         $addSecs s, $(feedRate "$add") routes/s"
echo "add, every agent:    $addAll s, $(rate "$addAll") routes/s"
echo "withdraw, feeder:    $delSecs s, $(feedRate "$del") routes/s"
echo "withdraw, every one: $delAll s, $(rate "$delAll") routes/s"
echo "CPU, add:            rtmd $(span "$cpu0" "$cpu1") s, agents $acpu1 s in all"
echo "CPU, withdraw:       rtmd $(span "$cpu1" "$cpu2") s, agents $(span "$acpu1" "$acpu2") s in all"
echo "rtmd RSS empty:      $rss0 kB"
echo "rtmd RSS with table: $rss1 kB ($bpr bytes per route)"
echo "rtmd RSS withdrawn:  $rss2 kB"
[ -s "$run/clients.txt" ] && cat "$run/clients.txt"
if grep -q " ERR " "$run/rtmd.log"; then
  echo "rtmd logged errors:"; grep " ERR " "$run/rtmd.log" | head -5
fi
for (( i = 0; i < agents; i++ )); do
  grep -q "malformed" "$run/fib$i.out" && { echo "agent $i:"; cat "$run/fib$i.out"; }
done
printf '| %s | %s | %s | %s s, %s/s | %s s, %s/s | %s |\n' "$family" "$routes" "$agents" "$addAll" \
  "$(rate "$addAll")" "$delAll" "$(rate "$delAll")" "$bpr"
