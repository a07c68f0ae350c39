// Route add and delete in-process, at table scale: 1,000,000 IPv4 routes of one client, one
// next hop each, 8 distinct next hops in all.
//
// The daemon is brought up as in service (rtmTaskInit, with its worker threads, which stay
// parked because the main task never yields here) and torn down between iterations, outside
// the timing. Routes are prebuilt as MT_RTM_UPD_ROUTE messages of 8 KB, as a protocol would
// send them. Each message is copied into one receive buffer before its routes are applied, as
// the daemon receives a datagram (a table's messages, tens of megabytes, would otherwise be
// read cold from memory, which no daemon does). The Add and Delete benchmarks hand each
// element's rt_parms in that buffer to rtmAddRouteIPv4 / rtmDelRouteIPv4, Replace sends every
// route again onto the full table, and UpdateMsg runs the whole messages through the handler.
//
// Two prefix sets: "internet", 1M random distinct prefixes with an Internet-like spread of
// lengths (three quarters /24; the same table as the radix benchmark), and "sequential",
// consecutive /24s from 1.0.0.0. Counters, per route, after the adds: bytes of the pools'
// blocks in use for heads, entries, radix nodes and next hops ("pool_bytes"), the radix
// accelerator ("accel_bytes"), and the growth of resident memory over the adds ("rss_bytes").
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "mem/qor_mem.h"
#include "rib/rtm_rib.h"
#include "rtm/rtm_msgs.h"
#include "timer/qor_timer.h"

namespace {

constexpr size_t kRoutes = 1000000;
constexpr uint32_t kCid = 3;
constexpr int kNextHops = 8;

struct LenShare {
  unsigned len, perMille;
};
constexpr LenShare kV4Lengths[] = {{8, 1},   {12, 3},  {14, 3},  {15, 3},  {16, 15}, {17, 5},  {18, 8},
                                   {19, 15}, {20, 25}, {21, 30}, {22, 70}, {23, 70}, {24, 700}, {26, 10},
                                   {28, 5},  {30, 5},  {32, 32}};

unsigned drawLen(std::mt19937_64 &rng) {
  unsigned r = unsigned(rng() % 1000);
  for (const LenShare &s : kV4Lengths) {
    if (r < s.perMille) return s.len;
    r -= s.perMille;
  }
  return 24;
}

// The routes as messages, and where each element's rt_parms lies.
struct RouteSet {
  std::vector<std::vector<uint8_t>> msgs;
  std::vector<std::vector<uint32_t>> rtpOffsets;  // of each message's elements' rt_parms
  size_t routes = 0;
};

void addRoute(RouteSet &s, const uint8_t prefix[4], unsigned plen, size_t i) {
  if (s.msgs.empty() || !rtmRouteMsgAddElem(s.msgs.back().data(), RTM_IPC_BUF_SIZE, RTM_UPD_ADD, 1, 0)) {
    s.msgs.emplace_back(RTM_IPC_BUF_SIZE);
    s.rtpOffsets.emplace_back();
    rtmRouteMsgInit(s.msgs.back().data(), RTM_IPC_BUF_SIZE, MT_RTM_UPD_ROUTE, kCid, RTM_IPV4UNI_AFINDEX);
    rtmRouteMsgAddElem(s.msgs.back().data(), RTM_IPC_BUF_SIZE, RTM_UPD_ADD, 1, 0);
  }
  std::vector<uint8_t> &m = s.msgs.back();
  uint8_t *rtp = m.data() + rtm::ld32(m.data(), IPC_OFF_MLEN) - rtmRouteElemSize(0, 1, 0) + RTM_RTE_OFF_RTP;
  memcpy(rtpPrefix(rtp, 0), prefix, 4);
  rtpSetPrefixLen(rtp, uint8_t(plen));
  rtpSetProto(rtp, RTM_PROTO_OSPF);
  rtpSetSubtype(rtp, RT_OSPF_INTRA);
  rtpSetPref(rtp, 110);
  rtpSetMetric(rtp, int32_t(i % 1000));
  uint8_t *nh = rtpNh(rtp, 0, 0);
  const uint8_t gw[4] = {192, 168, 0, uint8_t(1 + i % kNextHops)};
  memcpy(nh, gw, 4);
  memcpy(rtpGateway(rtp, 0), gw, 4);
  rtpnhSetIfindex(nh, 0, uint32_t(1 + i % kNextHops));
  s.rtpOffsets.back().push_back(uint32_t(rtp - m.data()));
  ++s.routes;
}

RouteSet makeInternet() {
  RouteSet s;
  std::mt19937_64 rng(4);
  std::unordered_set<uint64_t> seen;
  seen.reserve(kRoutes * 2);
  while (s.routes < kRoutes) {
    unsigned plen = drawLen(rng);
    uint32_t a = uint32_t(rng());
    a = (a & 0x00FFFFFF) | (uint32_t(1 + rng() % 223) << 24);
    if ((a >> 24) == 127) continue;
    a &= plen ? ~uint32_t(0) << (32 - plen) : 0;
    if (!seen.insert((uint64_t(a) << 8) | plen).second) continue;
    const uint8_t p[4] = {uint8_t(a >> 24), uint8_t(a >> 16), uint8_t(a >> 8), uint8_t(a)};
    addRoute(s, p, plen, s.routes);
  }
  return s;
}

RouteSet makeSequential() {
  RouteSet s;
  for (size_t i = 0; i < kRoutes; ++i) {
    uint32_t a = (uint32_t(1) << 24) + (uint32_t(i) << 8);
    const uint8_t p[4] = {uint8_t(a >> 24), uint8_t(a >> 16), uint8_t(a >> 8), 0};
    addRoute(s, p, 24, i);
  }
  return s;
}

RouteSet &routeSet(int which) {
  if (which == 0) {
    static RouteSet internet = makeInternet();
    return internet;
  }
  static RouteSet sequential = makeSequential();
  return sequential;
}
const char *setName(int which) { return which == 0 ? "internet" : "sequential"; }

// ---- The daemon ----

std::string g_runDir;

void daemonUp() {
  if (g_runDir.empty()) {
    char tmpl[] = "/tmp/rtm-route-bench.XXXXXX";
    g_runDir = mkdtemp(tmpl);
    qorLogSetEcho(false);
  }
  qorIpcSetRunDir(g_runDir.c_str());
  rtmClkRate = sysClkRateGet();
  rtmThreads = qorThreadInit(&rtmThreadMain, 0);
  if (rtmTaskInit(1) != 0) {
    fprintf(stderr, "rtmTaskInit failed\n");
    exit(1);
  }
  rt_client &rtc = rt_client_tbl[RTM_IPV4UNI_AFINDEX][kCid];
  rtc.rtc_state = 1;
  rtc.rtc_cid = kCid;
  rtc.rtc_proto = RTM_PROTO_OSPF;
  rtc.rtc_afIndex = RTM_IPV4UNI_AFINDEX;
  snprintf(rtc.rtc_name, sizeof rtc.rtc_name, "ospf");
  rtc.rtc_vrf[0] = static_cast<rtClientVrfInfo *>(RTM_NONPOOL_ALLOC(sizeof(rtClientVrfInfo), 17));
}

void daemonDown() {
  rtmFrameReset();
  qorLogClearRecent();
}

size_t residentBytes() {
  FILE *f = fopen("/proc/self/statm", "r");
  unsigned long size = 0, resident = 0;
  if (f) {
    if (fscanf(f, "%lu %lu", &size, &resident) != 2) resident = 0;
    fclose(f);
  }
  return resident * size_t(sysconf(_SC_PAGESIZE));
}

uint64_t poolBytes(uint32_t pool) {
  QorMemPoolStats s;
  if (qorMemPoolStatsGet(pool, &s) != 0) return 0;
  return s.inUse * s.blockSize;
}

struct Memory {
  double heads, entries, nodes, nexthops, accel, pool, rss;
};

Memory measure(size_t rssBefore) {
  Memory m{};
  const double n = double(kRoutes);
  m.heads = double(poolBytes(RTM_MAIN_RIB_HEAD_POOL)) / n;
  QorMemVarStats v;
  if (qorMemVarStatsGet(RTM_MEM_VAR_PART, &v) == 0) {
    uint64_t b = 0;
    for (auto &c : v.classes) b += uint64_t(c.size) * c.inUse;
    m.entries = double(b) / n;
  }
  m.nodes = double(poolBytes(RTM_RIB_RDX_POOL)) / n;
  m.nexthops = double(poolBytes(RTM_NH_POOL)) / n;
  qor_radix_tree *t = rtmRibGetTree(RTM_IPV4UNI_AFINDEX, 0);
  m.accel = double(qorRadixBytes(t) - t->rdx_nodeBytes - sizeof(qor_radix_tree)) / n;
  m.pool = m.heads + m.entries + m.nodes + m.nexthops;
  m.rss = double(residentBytes() - rssBefore) / n;
  return m;
}

void setMemoryCounters(benchmark::State &st, const Memory &m) {
  st.counters["head_bytes"] = m.heads;
  st.counters["entry_bytes"] = m.entries;
  st.counters["node_bytes"] = m.nodes;
  st.counters["nh_bytes"] = m.nexthops;
  st.counters["pool_bytes"] = m.pool;
  st.counters["accel_bytes"] = m.accel;
  st.counters["rss_bytes"] = m.rss;
}

// Every route of the set through `op`, as the route-update handler applies a batch: each message
// first lands in the receive buffer (as a datagram does in the daemon: the copy is timed, the
// message is then warm), wake-ups of the worker threads are gathered, and each route's first
// cache misses are fetched a few routes ahead within its message. Returns the routes that did
// not give RTM_SUCCESS.
template <class Op>
size_t applyAll(RouteSet &s, Op op) {
  alignas(64) static uint8_t rx[RTM_IPC_BUF_SIZE];
  size_t bad = 0;
  qor_radix_tree *tree = rtmRouteBatchTree(RTM_IPV4UNI_AFINDEX, kCid);
  auto prefetch = [&](uint32_t off, unsigned stage) {
    rtmRoutePrefetchIn(tree, RTM_IPV4UNI_AFINDEX, rx + off, int(stage));
  };
  rtmRibDeferWakeups(true);
  for (size_t m = 0; m < s.msgs.size(); ++m) {
    std::memcpy(rx, s.msgs[m].data(), rtm::ld32(s.msgs[m].data(), IPC_OFF_MLEN));
    const std::vector<uint32_t> &off = s.rtpOffsets[m];
    rtmPrefetchPipeline(off.size(), [&](size_t j, unsigned stage) { prefetch(off[j], stage); },
                        [&](size_t i) { bad += op(RTM_IPV4UNI_AFINDEX, kCid, rx + off[i]) != RTM_SUCCESS; });
  }
  rtmRibDeferWakeups(false);
  return bad;
}

bool addAll(RouteSet &s) { return applyAll(s, rtmAddRouteIPv4) == 0; }

void BM_Add(benchmark::State &st) {
  RouteSet &s = routeSet(int(st.range(0)));
  st.SetLabel(setName(int(st.range(0))));
  Memory mem{};
  for (auto _ : st) {
    st.PauseTiming();
    daemonUp();
    const size_t rss = residentBytes();
    st.ResumeTiming();
    const bool ok = addAll(s);
    st.PauseTiming();
    if (!ok) st.SkipWithError("an add failed");
    mem = measure(rss);
    daemonDown();
    st.ResumeTiming();
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * int64_t(kRoutes));
  setMemoryCounters(st, mem);
}

void BM_Delete(benchmark::State &st) {
  RouteSet &s = routeSet(int(st.range(0)));
  st.SetLabel(setName(int(st.range(0))));
  for (auto _ : st) {
    st.PauseTiming();
    daemonUp();
    if (!addAll(s)) st.SkipWithError("an add failed");
    st.ResumeTiming();
    const size_t bad = applyAll(s, rtmDelRouteIPv4);
    st.PauseTiming();
    if (bad) st.SkipWithError("a delete failed");
    daemonDown();
    st.ResumeTiming();
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * int64_t(kRoutes));
}

// Every route sent again by its client onto a full table: the common update in service. The
// entry is replaced and, being active, moves the version; no head or node is made.
void BM_Replace(benchmark::State &st) {
  RouteSet &s = routeSet(int(st.range(0)));
  st.SetLabel(setName(int(st.range(0))));
  for (auto _ : st) {
    st.PauseTiming();
    daemonUp();
    if (!addAll(s)) st.SkipWithError("an add failed");
    st.ResumeTiming();
    if (!addAll(s)) st.SkipWithError("a replace failed");
    st.PauseTiming();
    daemonDown();
    st.ResumeTiming();
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * int64_t(kRoutes));
}

// The same adds, as whole messages through the handler: the batch check and the walk included.
void BM_UpdateMsg(benchmark::State &st) {
  RouteSet &s = routeSet(int(st.range(0)));
  st.SetLabel(setName(int(st.range(0))));
  for (auto _ : st) {
    st.PauseTiming();
    daemonUp();
    st.ResumeTiming();
    alignas(64) static uint8_t rx[RTM_IPC_BUF_SIZE];
    for (auto &m : s.msgs) {
      const uint32_t len = rtm::ld32(m.data(), IPC_OFF_MLEN);
      std::memcpy(rx, m.data(), len);
      rtmUpdateRouteIPv4(rx, len, nullptr);
    }
    st.PauseTiming();
    if (rtmRibGetTree(0, 0)->rdx_heads != kRoutes) st.SkipWithError("routes missing");
    daemonDown();
    st.ResumeTiming();
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * int64_t(kRoutes));
}

BENCHMARK(BM_Add)->Arg(0)->Arg(1)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Delete)->Arg(0)->Arg(1)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Replace)->Arg(0)->Arg(1)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_UpdateMsg)->Arg(0)->Arg(1)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
