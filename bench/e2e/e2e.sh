#!/usr/bin/env bash
# e2e.sh BUILD_DIR [ROUTES] [rtm-feed options...]
#
# End-to-end route rate and memory: rtmd and rtm-feed as separate processes over the real
# sockets, in a fresh run directory. rtm-feed pushes ROUTES generated prefixes (default
# 1,000,000 IPv4 /24s with one next hop), then withdraws them. Reports the feeder's routes per
# second for each direction (time from the first message to the last acknowledgement) and
# rtmd's resident memory (VmRSS in /proc) before, with and after the table, as bytes per route.
#
# Use a release build: scripts/build.sh release, then bench/e2e/e2e.sh build/release.
# Extra arguments go to both rtm-feed runs, e.g. --ipv6, --nexthops 4, --sequential.
set -euo pipefail
bin=${1:?usage: e2e.sh BUILD_DIR [ROUTES] [rtm-feed options...]}
shift
routes=1000000
if [[ ${1:-} =~ ^[0-9]+$ ]]; then routes=$1; shift; fi
rtmd_bin=$bin/src/frame/rtmd
feed_bin=$bin/tools/rtm-feed/rtm-feed
for b in "$rtmd_bin" "$feed_bin"; do
  [ -x "$b" ] || { echo "e2e.sh: $b is not built" >&2; exit 2; }
done
if grep -q 'CMAKE_BUILD_TYPE:STRING=Debug' "$bin/CMakeCache.txt" 2>/dev/null; then
  echo "e2e.sh: warning: $bin is a Debug build; figures will not be representative" >&2
fi

run=$(mktemp -d /tmp/rtmd-e2e.XXXXXX)
rtmd=
cleanup() {
  [ -n "$rtmd" ] && kill "$rtmd" 2>/dev/null && wait "$rtmd" 2>/dev/null || true
  rm -rf "$run"
}
trap cleanup EXIT

rss_kb() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status"; }

"$rtmd_bin" --run-dir "$run" --log-file "$run/rtmd.log" & rtmd=$!
for _ in $(seq 100); do grep -q "RTM Task is Ready" "$run/rtmd.log" 2>/dev/null && break; sleep 0.1; done
grep -q "RTM Task is Ready" "$run/rtmd.log" || { echo "e2e.sh: rtmd did not come up" >&2; cat "$run/rtmd.log" >&2; exit 1; }

rss0=$(rss_kb "$rtmd")
add=$("$feed_bin" --run-dir "$run" --proto bgp --inst 1 --generate "$routes" --quiet "$@")
rss1=$(rss_kb "$rtmd")
del=$("$feed_bin" --run-dir "$run" --proto bgp --inst 1 --generate "$routes" --quiet --withdraw "$@")
rss2=$(rss_kb "$rtmd")

rate() { sed -n 's/.* s: \([0-9,]*\) routes\/s.*/\1/p' <<<"$1"; }
secs() { sed -n 's/.* in \([0-9.]*\) s:.*/\1/p' <<<"$1"; }
echo "routes:             $routes ${*:-}"
echo "add:                $(secs "$add") s, $(rate "$add") routes/s"
echo "withdraw:           $(secs "$del") s, $(rate "$del") routes/s"
echo "rtmd RSS empty:     $rss0 kB"
echo "rtmd RSS with table: $rss1 kB ($(( (rss1 - rss0) * 1024 / routes )) bytes per route)"
echo "rtmd RSS withdrawn: $rss2 kB"
if grep -q " ERR " "$run/rtmd.log"; then
  echo "rtmd logged errors:"; grep " ERR " "$run/rtmd.log" | head -5
fi
