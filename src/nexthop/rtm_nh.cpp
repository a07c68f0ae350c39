// The next-hop records: tables, references and the neighbour requests.
//
// One hash table per VRF and family (the IPv4 multicast slot stays empty). Buckets are singly
// linked chains through rtn_next; the table doubles when it holds more records than buckets,
// and if the larger bucket array cannot be had it simply keeps its chains a little longer, so
// growing never fails a route. Records come from RTM_NH_POOL or RTM6_NH_POOL and carry their
// key, so a reference costs one probe and nothing else once the next hop exists.
//
// Only a record's first and last reference talk to anybody: the ARP (IPv4) or NDP (IPv6)
// manager is asked to resolve or forget the neighbour, and IPv4 next hops go into the VRF's
// open bundle for the FIB agents (rtm_nh_fifo.cpp).
#include "nexthop/rtm_nh.h"

#include <cstdio>
#include <cstring>

#include "addr/qor_addr.h"
#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "log/qor_log.h"
#include "rtm/rtm_client_msgs.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_wire.h"
#include "swp/qor_swp.h"
#include "timer/qor_timer.h"

using rtm::st32;

struct rtm_nh_table {
  rt_nh **buckets;
  uint32_t mask;  // buckets - 1, a power of two minus one
  uint32_t count;
  uint32_t vrfId;
  uint8_t afIndex;
  uint8_t addrLen;
  char name[24];
};

rtm_nh_table *rtmNhRdx[MAX_VRF][3];
RtmNhHooks rtmNhHooks;
uint32_t rtmarpcount, rtmndpcount;

// Bundles and the FIFO live in rtm_nh_fifo.cpp; the FIFO of a VRF is made with its tables.
void rtmNhFifoInit(uint32_t vrfId);
void rtmNhFifoDrop(uint32_t vrfId);

namespace {
constexpr uint32_t kInitialBuckets = 64;
constexpr uint32_t kMaxBuckets = 1u << 24;
constexpr uint32_t kNhMemType = 18;  // heap blocks of the next-hop tables
constexpr uint32_t kDebugNh = 0x80;
constexpr uint32_t kDebugArp = 0x100;

// The record's pool block must hold an IPv6 record of ours.
RTM_POOL_RECORD(RTM_NH_POOL, uint8_t[rtmNhSize(RTM_IPV4UNI_AFINDEX)]);
RTM_POOL_RECORD(RTM6_NH_POOL, uint8_t[rtmNhSize(RTM_IPV6UNI_AFINDEX)]);

inline uint32_t load32(const uint8_t *p) {
  uint32_t w;
  memcpy(&w, p, 4);
  return w;
}

// One hash of the whole key, a word at a time: the same loop serves 4 and 16 bytes.
inline uint64_t nhHash(uint32_t ifindex, const uint8_t *addr, unsigned len) {
  uint64_t h = (uint64_t(ifindex) + 1) * 0x9E3779B97F4A7C15ull;
  for (unsigned i = 0; i < len; i += 4) h = (h ^ load32(addr + i)) * 0xFF51AFD7ED558CCDull;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ull;
  return h ^ (h >> 29);
}

inline bool nhMatches(const rt_nh *n, uint32_t ifindex, const uint8_t *addr, unsigned len) {
  if (n->rtn_ifindex != ifindex) return false;
  if (len == 4) return load32(n->rtn_addr) == load32(addr);
  return memcmp(n->rtn_addr, addr, len) == 0;
}

inline rt_nh **bucketOf(rtm_nh_table *t, uint32_t ifindex, const uint8_t *addr) {
  return &t->buckets[nhHash(ifindex, addr, t->addrLen) & t->mask];
}

rt_nh **allocBuckets(uint32_t n) {
  return static_cast<rt_nh **>(rtmMemAllocNonPool(__FILE__, __LINE__, n * sizeof(rt_nh *), kNhMemType));
}

void grow(rtm_nh_table *t) {
  uint32_t n = (t->mask + 1) * 2;
  if (n > kMaxBuckets) return;
  rt_nh **b = allocBuckets(n);
  if (!b) return;  // longer chains until the next chance
  for (uint32_t i = 0; i <= t->mask; ++i) {
    for (rt_nh *r = t->buckets[i], *next; r; r = next) {
      next = r->rtn_next;
      rt_nh **slot = &b[nhHash(r->rtn_ifindex, r->rtn_addr, t->addrLen) & (n - 1)];
      r->rtn_next = *slot;
      *slot = r;
    }
  }
  RTM_NONPOOL_FREE(t->buckets);
  t->buckets = b;
  t->mask = n - 1;
}

rtm_nh_table *tableOf(uint32_t vrfId, uint8_t afIndex) {
  return vrfId < MAX_VRF && afIndex < 3 ? rtmNhRdx[vrfId][afIndex] : nullptr;
}

rtm_nh_table *makeTable(uint32_t vrfId, uint8_t afIndex) {
  auto *t = static_cast<rtm_nh_table *>(rtmMemAllocNonPool(__FILE__, __LINE__, sizeof(rtm_nh_table), kNhMemType));
  if (!t) return nullptr;
  t->buckets = allocBuckets(kInitialBuckets);
  if (!t->buckets) {
    RTM_NONPOOL_FREE(t);
    return nullptr;
  }
  t->mask = kInitialBuckets - 1;
  t->vrfId = vrfId;
  t->afIndex = afIndex;
  t->addrLen = static_cast<uint8_t>(rtmAfAddrLen(afIndex));
  snprintf(t->name, sizeof t->name, afIndex == RTM_IPV6UNI_AFINDEX ? "RTMNH6.%lu" : "RTMNH.%lu",
           static_cast<unsigned long>(vrfId));
  return t;
}

void unlink(rtm_nh_table *t, rt_nh *rtn) {
  for (rt_nh **p = bucketOf(t, rtn->rtn_ifindex, rtn->rtn_addr); *p; p = &(*p)->rtn_next)
    if (*p == rtn) {
      *p = rtn->rtn_next;
      --t->count;
      return;
    }
}

void freeRecord(rt_nh *rtn) { RTM_POOL_FREE(rtn); }

void destroyTable(rtm_nh_table *&t) {
  if (!t) return;
  for (uint32_t i = 0; i <= t->mask; ++i)
    for (rt_nh *r = t->buckets[i], *next; r; r = next) {
      next = r->rtn_next;
      freeRecord(r);
    }
  RTM_NONPOOL_FREE(t->buckets);
  RTM_NONPOOL_FREE(t);
  t = nullptr;
}

uint32_t ifTypeOf(uint32_t ifindex) {
  return rtmNhHooks.ifmIfIndexToIfType ? rtmNhHooks.ifmIfIndexToIfType(ifindex) : 0;
}

// The interface a neighbour request names: the route's, or the one of the connected route
// that covers the address (the record keeps the route's ifindex either way).
uint32_t requestIfindex(const rt_nh *rtn) {
  if (rtn->rtn_ifindex) return rtn->rtn_ifindex;
  return rtmNhHooks.rtmGetConnectedRouteIfindex
             ? rtmNhHooks.rtmGetConnectedRouteIfindex(rtn->rtn_afIndex, rtn->rtn_addr, rtn->rtn_vrfId)
             : 0;
}

// Whether a neighbour behind this next hop has to be resolved at all; *ifindex is the
// interface to name. The IPv4 test looks only at the first address byte.
bool wantsResolution(const rt_nh *rtn, uint32_t *ifindex) {
  *ifindex = requestIfindex(rtn);
  if (!*ifindex) return false;
  bool nonZero = rtn->rtn_afIndex == RTM_IPV6UNI_AFINDEX ? rtmAF_IsAddrNonZero(rtn->rtn_afIndex, rtn->rtn_addr)
                                                         : rtn->rtn_addr[0] != 0;
  if (!nonZero) return false;
  uint32_t type = ifTypeOf(*ifindex);
  return type != RTM_IFTYPE_ALWAYS_UP && type != RTM_IFTYPE_LOOPBACK;
}

// Tells the neighbour manager and the FIB side about a next hop's first (op 1) or last (op 2)
// reference. Only a failure that leaves a record unannounced is returned.
int announce(const rt_nh *rtn, uint32_t op, uint32_t proto) {
  uint32_t ifindex = 0;
  if (rtn->rtn_afIndex == RTM_IPV6UNI_AFINDEX) {
    return wantsResolution(rtn, &ifindex)
               ? rtmNhNdpReq(rtn->rtn_afIndex, rtn->rtn_vrfId, ifindex, rtn->rtn_addr, op)
               : 0;
  }
  if (rtn->rtn_afIndex != RTM_IPV4UNI_AFINDEX) return 0;
  // OFM next hops belong to the SDN relay, which programs them itself.
  if (op == RTM_NH_OP_ADD && proto == RTM_PROTO_OFM) return 0;
  int err = wantsResolution(rtn, &ifindex) ? rtmNhArpReq(rtn->rtn_afIndex, rtn->rtn_vrfId, ifindex, rtn->rtn_addr, op)
                                           : 0;
  if (err) return err;
  return rtmNhBundleNH(rtn->rtn_vrfId, RTM_IPV4UNI_AFINDEX, rtn, op);
}

const char *addrText(const rt_nh *rtn, char *buf, size_t size) {
  return rtmAF_AddrToStr(rtn->rtn_afIndex, rtn->rtn_addr, buf, size);
}
}  // namespace

// ---- The database ------------------------------------------------------------------------

int rtmNhInit(uint32_t vrfId) {
  if (vrfId >= MAX_VRF) {
    qorSysErr(rtmevkey, 0, 0x14802c, 0, "RTM: rtmNhInit", vrfId);
    return 1;
  }
  rtmNhFifoInit(vrfId);
  for (uint8_t af : {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX}) {
    if (rtmNhRdx[vrfId][af]) continue;
    rtmNhRdx[vrfId][af] = makeTable(vrfId, af);
    if (!rtmNhRdx[vrfId][af]) {
      qorSysErr(rtmevkey, 0, 0x14802c, 0, "RTM: rtmNhInit", vrfId, af);
      return 1;
    }
  }
  return 0;
}

void rtmNhDestroy(uint32_t vrfId) {
  if (vrfId == 0 || vrfId >= MAX_VRF) return;
  rtmNhFifoDrop(vrfId);
  for (auto &t : rtmNhRdx[vrfId]) destroyTable(t);
}

rt_nh *rtmNhAdd(uint32_t vrfId, uint8_t afIndex, uint32_t ifindex, const uint8_t *addr, int *result, uint32_t proto,
                uint32_t flags) {
  int local;
  if (!result) result = &local;
  *result = RTM_SUCCESS;
  rtm_nh_table *t = tableOf(vrfId, afIndex);
  if (!t || !addr) {
    *result = RTM_FAILURE;
    return nullptr;
  }
  rt_nh **slot = bucketOf(t, ifindex, addr);
  for (rt_nh *n = *slot; n; n = n->rtn_next) {
    if (!nhMatches(n, ifindex, addr, t->addrLen)) continue;
    ++n->rtn_refcnt;
    if (rtmdebug & kDebugNh) {
      char text[48];
      qorDebugPrintf("rtmNhAdd: next hop %s, if:%#x already exists refcnt %d af:%#x\r\n", addrText(n, text, sizeof text),
                     ifindex, n->rtn_refcnt, afIndex);
    }
    return n;
  }
  auto *n = static_cast<rt_nh *>(RTM_POOL_ALLOC_AF(RTM_MEM_TAG_RIB, rtmNhSize(afIndex), RTM_NH_POOL, afIndex));
  if (!n) {
    *result = RTM_NO_MEMORY;
    return nullptr;
  }
  n->rtn_refcnt = 1;
  n->rtn_vrfId = vrfId;
  n->rtn_ifindex = ifindex;
  n->rtn_afIndex = afIndex;
  n->rtn_loopback = (flags & RTP_FLAG_LOOPBACK) ? 1 : 0;
  memcpy(n->rtn_addr, addr, t->addrLen);
  n->rtn_next = *slot;
  *slot = n;
  ++t->count;
  if (int err = announce(n, RTM_NH_OP_ADD, proto)) {
    // Nobody may hold a next hop that its neighbour manager or the FIB never heard of.
    unlink(t, n);
    freeRecord(n);
    *result = err;
    return nullptr;
  }
  if (t->count > t->mask + 1) grow(t);
  return n;
}

void rtmNhDelete(uint8_t afIndex, rt_nh *rtn, uint32_t proto) {
  if (!rtn) {
    _qorAssert("rtn", __FILE__, __LINE__, afIndex);
    return;
  }
  if (--rtn->rtn_refcnt > 0) return;
  if (rtn->rtn_refcnt < 0) {
    _qorAssert("rtn->rtn_refcnt >= 0", __FILE__, __LINE__, rtn->rtn_refcnt);
    return;
  }
  if (rtn->rtn_vrfId >= MAX_VRF) return;
  announce(rtn, RTM_NH_OP_DEL, proto);
  if (rtm_nh_table *t = tableOf(rtn->rtn_vrfId, rtn->rtn_afIndex)) unlink(t, rtn);
  freeRecord(rtn);
}

void rtmNhDeleteAll(uint32_t vrfId, uint8_t afIndex) {
  rtm_nh_table *t = tableOf(vrfId, afIndex);
  if (!t) return;
  for (uint32_t i = 0; i <= t->mask; ++i) {
    for (rt_nh *r = t->buckets[i], *next; r; r = next) {
      next = r->rtn_next;
      freeRecord(r);
    }
    t->buckets[i] = nullptr;
  }
  t->count = 0;
}

rt_nh *rtmNhFind(uint32_t vrfId, uint8_t afIndex, uint32_t ifindex, const uint8_t *addr) {
  rtm_nh_table *t = tableOf(vrfId, afIndex);
  if (!t || !addr) return nullptr;
  for (rt_nh *n = *bucketOf(t, ifindex, addr); n; n = n->rtn_next)
    if (nhMatches(n, ifindex, addr, t->addrLen)) return n;
  return nullptr;
}

rtm_nh_table *rtmNhGetTree(uint32_t vrfId, uint8_t afIndex) { return tableOf(vrfId, afIndex); }

uint32_t rtmNhCount(uint32_t vrfId, uint8_t afIndex) {
  rtm_nh_table *t = tableOf(vrfId, afIndex);
  return t ? t->count : 0;
}

int rtmNhWalk(uint32_t vrfId, uint8_t afIndex, RtmNhWalkCB cb, void *arg) {
  rtm_nh_table *t = tableOf(vrfId, afIndex);
  if (!t || !cb) return 0;
  for (uint32_t i = 0; i <= t->mask; ++i)
    for (rt_nh *r = t->buckets[i], *next; r; r = next) {
      next = r->rtn_next;
      if (int rc = cb(r, arg)) return rc;
    }
  return 0;
}

// ---- Neighbour requests ------------------------------------------------------------------

namespace {
// ARP and NDP requests share their size and header; the body differs.
int nbrReq(bool v6, uint32_t vrfId, uint32_t ifindex, const uint8_t *addr, uint32_t op) {
  const rtm_nbr_client &mgr = v6 ? ndpClient : arpClient;
  if (!mgr.queue) return RTM_SUCCESS;  // no manager has registered: nobody to tell
  auto *buf = static_cast<uint8_t *>(
      RTM_POOL_ALLOC(RTM_MEM_TAG_RIB, RTM_NBR_REQ_LEN, v6 ? RTM_RTM_NDP_POOL : RTM_RTM_ARP_POOL));
  if (!buf) return RTM_NO_MEMORY;
  st32(buf, IPC_OFF_MLEN, RTM_NBR_REQ_LEN);
  st32(buf, IPC_OFF_MTYPE, v6 ? MT_RTM_NDP_REQ : MT_RTM_ARP_REQ);
  st32(buf, RTM_OWN_OFF_ONE, 1);
  st32(buf, RTM_OWN_OFF_TICK, static_cast<uint32_t>(qorTickGet()));
  st32(buf, RTM_NBR_OFF_ROUTEINFO, rtmrouteinfo[0]);
  st32(buf, RTM_NBR_OFF_ROUTEINFO + 4, rtmrouteinfo[1]);
  st32(buf, RTM_NBR_OFF_ROUTEINFO + 8, rtmrouteinfo[3]);
  st32(buf, RTM_NBR_OFF_TARGET, mgr.task);
  st32(buf, RTM_NBR_OFF_TARGET + 4, mgr.svce);
  if (v6) {
    st32(buf, RTM_NDP_OFF_OP, op);
    st32(buf, RTM_NDP_OFF_IFINDEX, ifindex);
    memcpy(buf + RTM_NDP_OFF_ADDR, addr, 16);
    st32(buf, RTM_NDP_OFF_VRFID, vrfId);
  } else {
    st32(buf, RTM_ARP_OFF_OP, op);
    st32(buf, RTM_ARP_OFF_VRFID, vrfId);
    memcpy(buf + RTM_ARP_OFF_ADDR, addr, 4);
    st32(buf, RTM_ARP_OFF_IFINDEX, ifindex);
  }
  if (rtmdebug & kDebugArp) {
    char text[48];
    qorDebugPrintf("rtmNh%sReq: op %u vrf %u if %#x %s\r\n", v6 ? "Ndp" : "Arp", op, vrfId, ifindex,
                   rtmAF_AddrToStr(v6 ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX, addr, text, sizeof text));
  }
  if ((v6 ? rtmNhNdpSend(buf) : rtmNhArpSend(buf)) == 1 && RTM_POOL_FREE(buf) != 0)
    qorSysErr(rtmevkey, 0, 0x148001, 0, v6 ? "RTM: rtmNhNdpReq" : "RTM: rtmNhArpReq");
  // A manager that cannot take the request (its queue failed) must not cost the route; the
  // event says so, and the manager's re-registration replays nothing it missed.
  return RTM_SUCCESS;
}

int nbrSend(bool v6, uint8_t *buf) {
  rtm_nbr_client &mgr = v6 ? ndpClient : arpClient;
  if (!buf || !mgr.queue) return 1;
  int rc = qorSwpEnqueue(mgr.queue, buf, RTM_NBR_REQ_LEN);
  if (rc != QOR_SWP_OK) {
    qorSysErr(rtmevkey, 0, 0x148035, 0, v6 ? "RTM: rtmNhNdpSend" : "RTM: rtmNhArpSend", mgr.queue, rc);
    return 1;
  }
  ++(v6 ? rtmndpcount : rtmarpcount);
  ++mgr.count;
  return 0;
}

void nbrErr(const char *text, uint32_t queue, uint32_t error) {
  if (!queue) return;
  qorSysErr(rtmevkey, 0, 0x148037, 0, text, queue, error);
  if (error == 9) {
    // The queue's own state says more than the event can; nothing further to do here.
    QorSwpCtrlBlock cb;
    qorSwpGetQueueCtrlBlock(queue, &cb);
  }
}
}  // namespace

int rtmNhArpReq(uint8_t, uint32_t vrfId, uint32_t ifindex, const uint8_t *addr, uint32_t op) {
  return nbrReq(false, vrfId, ifindex, addr, op);
}
int rtmNhNdpReq(uint8_t, uint32_t vrfId, uint32_t ifindex, const uint8_t *addr, uint32_t op) {
  return nbrReq(true, vrfId, ifindex, addr, op);
}
int rtmNhArpSend(uint8_t *buf) { return nbrSend(false, buf); }
int rtmNhNdpSend(uint8_t *buf) { return nbrSend(true, buf); }

void rtmNhErrCB(uint32_t queue, uint32_t error) { qorSysErr(rtmevkey, 0, 0x148037, 0, "RTM: rtmNhErrCB", queue, error); }
void rtmArpmDownloadErrCB(uint32_t queue, uint32_t error) { nbrErr("RTM: rtmArpmDownloadErrCB", queue, error); }
void rtmNdpmDownloadErrCB(uint32_t queue, uint32_t error) { nbrErr("RTM: rtmNdpmDownloadErrCB", queue, error); }

void rtmNhReset() {
  for (uint32_t v = 0; v < MAX_VRF; ++v) {
    rtmNhFifoDrop(v);
    for (auto &t : rtmNhRdx[v]) destroyTable(t);
  }
  rtmarpcount = rtmndpcount = rtmnhcount = rtmnhcount_s = 0;
  rtmNhHooks = {};
}
