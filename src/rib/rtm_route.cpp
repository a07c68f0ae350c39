// Route add and delete: the road of a route from a protocol's message to the head of its
// prefix.
//
// rtmUpdateRouteIPv4 first walks the whole batch with the bounds-checked iterator and refuses
// it if any element reaches past the received bytes, so a malformed message applies nothing.
// Then each element is read in place (no copy of the rt_parms) and goes to rtmAddRouteIPv4 or
// rtmDelRouteIPv4.
//
// An add checks the client, its VRF and its state, the VRF's route limit, and the record; it
// makes one entry block sized for exactly its next hops and TLV, takes a reference on each next
// hop, replaces the client's previous entry on the head, and links the entry in its place in
// the head's ordered list (rte_insert). Only a change of the first entry (the active route)
// moves the head on the change list and wakes the consumers (updateRibVer); an update that
// leaves the active route alone costs no version, no wake-up and no download. The client's
// active and inactive counters follow every move of the first entry.
//
// Everything a failed add took is given back before it returns: the entry block and the
// next-hop references taken for it. A head stays in its tree when it loses its last entry;
// the clearing paths remove naked heads.
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "addr/qor_addr.h"
#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "log/qor_log.h"
#include "mem/qor_mem.h"
#include "rib/rtm_rib.h"
#include "nexthop/rtm_nh.h"
#include "rtm/rtm_msgs.h"
#include "timer/qor_timer.h"
#include "vrf/rtm_vrf.h"

RTM_POOL_RECORD_EXACT(RTM_MAIN_RIB_HEAD_POOL, rtmHeadSize(RTM_IPV4UNI_AFINDEX));
RTM_POOL_RECORD_EXACT(RTM6_MAIN_RIB_HEAD_POOL, rtmHeadSize(RTM_IPV6UNI_AFINDEX));
// The trees' internal nodes are the node part of a header, smaller than the table's block.
RTM_POOL_RECORD_EXACT(RTM_RIB_RDX_POOL, QOR_RADIX_NODE_SIZE);

namespace {

// Side records of heads, by head. Only heads that take part in route leaking have one.
std::unordered_map<const rt_head *, rt_head_ext> &extTable() {
  static std::unordered_map<const rt_head *, rt_head_ext> table;
  return table;
}

struct Names {
  char prefix[RTM_INET6_ADDRSTRLEN];
  char client[41];
};

const char *prefixText(uint8_t af, const uint8_t *rtp, char (&buf)[RTM_INET6_ADDRSTRLEN]) {
  return rtmAF_AddrToStr(af, rtpPrefix(rtp, af), buf, sizeof buf) ? buf : "?";
}

bool isHostLen(uint8_t af, unsigned plen) { return plen == rtmAfKeyBits(af); }

bool nhIsPrefix(uint8_t af, const uint8_t *rtp, const uint8_t *nh) {
  return memcmp(nh, rtpPrefix(rtp, af), rtmAfAddrLen(af)) == 0;
}

// Each slot is emptied before its next hop goes: releasing a next hop may look up the route
// that covers the next one's address, which can be this very entry, still in its head.
void releaseNhs(uint8_t af, rt_nh **slots, unsigned n, uint32_t proto) {
  for (unsigned i = 0; i < n; ++i)
    if (rt_nh *nh = slots[i]) {
      slots[i] = nullptr;
      rtmNhDelete(af, nh, proto);
    }
}

void freeEntry(rt_entry *rte) { rtmVarMemFreeFromPool(rte); }

// The VRF a client's route goes to: the route's own for clients of every VRF and for BGP and
// VRRP, otherwise the client's. -100 for a client that is not active.
int64_t routeVrf(uint8_t af, const rt_client *rtc, const uint8_t *rtp) {
  const int32_t cvrf = rtmClientGetVrfId(af, rtc->rtc_cid);
  if (cvrf == -100) return -100;
  const uint32_t proto = rtpGetProto(rtp);
  if (uint32_t(cvrf) == ALL_VRF_ID || proto == RTM_PROTO_VRRP || proto == RTM_PROTO_BGP) return rtpGetVrfId(rtp);
  if (uint32_t(cvrf) != rtc->rtc_vrfId) _qorAssert("clientVrfId == rtc->vrfId", __FILE__, __LINE__, cvrf);
  return uint32_t(cvrf);
}

bool blocked(const rt_client *rtc, uint32_t vrfId, uint32_t flags) {
  const rtClientVrfInfo *rvi = vrfId < MAX_VRF ? rtc->rtc_vrf[vrfId] : nullptr;
  return rvi && rvi->rvi_blocked == 1 && !(flags & RTP_FLAG_LEAKED);
}

// The VRF's route limit for a new prefix: false when the route is refused.
bool withinRouteLimit(uint8_t af, uint32_t vrfId) {
  const rt_vrf_cache *vc = vrfId < MAX_VRF ? rtmVrfCache[vrfId] : nullptr;
  const unsigned fam = af == RTM_IPV4UNI_AFINDEX ? 0 : 1;
  if (!vc || vc->vrfId != vrfId || vc->max_route_set[fam] != 1) return true;
  const uint32_t count = rtmVrfGetActiveRoutesCount(af, vrfId);
  const uint32_t limit = vc->max_routes[fam];
  const uint32_t percent = vc->warn_threshold[fam];
  const char *famText = fam == 0 ? "IPV4" : "IPV6";
  if (vc->warning_only[fam]) {
    if (count >= limit) qorSysErr(rtmevkey, 0, 0x148066, 0, "RTM", famText, limit, vrfId, vc->name);
    return true;
  }
  const uint32_t threshold = uint32_t(uint64_t(limit) * percent / 100);
  // Compared as the configuration compares them, in single precision: near 2^24 two counts
  // that differ may compare equal, and then the warning is given instead of the refusal.
  if (static_cast<float>(count) == static_cast<float>(threshold) && count != limit) {
    qorSysErr(rtmevkey, 0, 0x148065, 0, "RTM", percent, threshold, limit);
    return true;
  }
  if (static_cast<float>(count) != static_cast<float>(threshold) && count < limit) return true;
  qorSysErr(rtmevkey, 0, 0x14805F, 0, "RTM", famText, limit, vrfId, vc->name);
  return false;
}

// The next-hop record `n` is next hop `nh` of a route (address, interface and VRF).
bool sameNh(uint8_t af, const rt_nh *n, const uint8_t *nh) {
  return memcmp(n->rtn_addr, nh, rtmAfAddrLen(af)) == 0 && n->rtn_ifindex == rtpnhGetIfindex(nh, af) &&
         n->rtn_vrfId == rtpnhGetVrfId(nh, af);
}

void counters(uint8_t af, uint32_t vrfId, const rt_entry *rte, int op, int active) {
  rtmRouteCounters(af, vrfId, rte->rte_cid, rte->rte_subtype, op, active);
}

// A head whose exported active route went away: importers must withdraw it.
void markDelExported(rt_head *rth, const rt_entry *gone) {
  rtmhSet(rth, RTMH_DEL_EXPORTED);
  if (rt_head_ext *ext = rtmHeadExtGet(rth)) {
    ext->rtmh_delProto = gone->rte_proto;
    ext->rtmh_delSubtype = gone->rte_subtype;
    ext->rtmh_delCid = gone->rte_cid;
  }
}

// One cleared head per family kept ready, so that an add finds or links its head in one
// descent of the tree (qorRadixAttach) and an add to an existing prefix makes no head at all.
// The cache belongs to one generation of the pools.
struct SpareHead {
  rt_head *rth = nullptr;
  uint64_t generation = 0;
};
SpareHead g_spare[2];

rt_head *spareHead(uint8_t af) {
  SpareHead &s = g_spare[af == RTM_IPV6UNI_AFINDEX];
  if (s.rth && s.generation == qorMemGeneration()) return s.rth;
  s.rth = static_cast<rt_head *>(
      RTM_POOL_ALLOC_AF(RTM_MEM_TAG_RIB, uint32_t(rtmHeadSize(af)), RTM_MAIN_RIB_HEAD_POOL, af));
  s.generation = qorMemGeneration();
  return s.rth;
}

void spareTaken(uint8_t af) { g_spare[af == RTM_IPV6UNI_AFINDEX].rth = nullptr; }

// A head made by this add, out of its tree again: back to the cache, cleared.
void spareBack(uint8_t af, rt_head *rth) {
  SpareHead &s = g_spare[af == RTM_IPV6UNI_AFINDEX];
  if (s.rth && s.generation == qorMemGeneration()) {
    rtmHeadFree(rth);
    return;
  }
  if (rtmhHas(rth, RTMH_EXT)) extTable().erase(rth);
  s.rth = rth;  // rtmHeadInit clears it when it is next used
  s.generation = qorMemGeneration();
}

}  // namespace

// ---- Heads ----------------------------------------------------------------------------------

rt_head_ext *rtmHeadExt(const rt_head *rth) {
  if (!rtmhHas(rth, RTMH_EXT)) return nullptr;
  auto it = extTable().find(rth);
  return it == extTable().end() ? nullptr : &it->second;
}

rt_head_ext *rtmHeadExtGet(rt_head *rth) {
  if (rt_head_ext *ext = rtmHeadExt(rth)) return ext;
  try {
    rt_head_ext *ext = &extTable()[rth];
    *ext = {};
    rtmhSet(rth, RTMH_EXT);
    return ext;
  } catch (...) {
    return nullptr;
  }
}

rt_head *rtmHeadAlloc(uint8_t afIndex, const uint8_t *prefix, uint8_t prefixlen) {
  auto *rth = static_cast<rt_head *>(
      RTM_POOL_ALLOC_AF(RTM_MEM_TAG_RIB, uint32_t(rtmHeadSize(afIndex)), RTM_MAIN_RIB_HEAD_POOL, afIndex));
  if (!rth) return nullptr;
  rtmHeadInit(rth, afIndex, prefix, prefixlen);
  return rth;
}

void rtmHeadInit(rt_head *rth, unsigned afIndex, const uint8_t *prefix, uint8_t prefixlen) {
  memset(static_cast<void *>(rth), 0, rtmHeadSize(afIndex));
  uint8_t *key = rtmAfAddrLen(afIndex) > 4 ? rth->rtmh_prefix6 : qorRadixKeyBytes(&rth->rtmh_rdx);
  qorRadixSetKey(&rth->rtmh_rdx, key);
  qorRadixSetBit(&rth->rtmh_rdx, prefixlen);
  if (prefix) rtmAF_ApplyPlen(afIndex, prefix, prefixlen, key);
}

void rtmHeadFree(rt_head *rth) {
  if (!rth) return;
  if (rtmhHas(rth, RTMH_EXT)) extTable().erase(rth);
  RTM_POOL_FREE(rth);
}

// ---- Validity -------------------------------------------------------------------------------

bool rtmIsRouteValid(uint8_t afIndex, uint32_t cid, uint8_t *rtp, int addFlag) {
  const uint32_t proto = rtpGetProto(rtp);
  if (proto == RTM_PROTO_OFM) return true;
  if (proto == RTM_PROTO_MSTATIC || proto == RTM_PROTO_MBGP) {
    // Multicast routes have their own message and RIB.
    _qorAssert("0", __FILE__, __LINE__, long(proto));
    return false;
  }
  const uint8_t *prefix = rtpPrefix(rtp, afIndex);
  // Loopback, multicast and reserved space never reach the GBC decision.
  if (afIndex == RTM_IPV4UNI_AFINDEX && (prefix[0] == 127 || prefix[0] > 223)) return true;
  if (rtpGetNnh(rtp) != 1 || proto == RTM_PROTO_CONNECTED || !isHostLen(afIndex, rtpGetPrefixLen(rtp))) return true;
  const uint8_t *nh = rtpNh(rtp, afIndex, 0);
  if (!nhIsPrefix(afIndex, rtp, nh) || rtpnhGetVrfId(nh, afIndex) != rtpGetVrfId(rtp)) return true;
  // A host route whose only next hop is itself has nowhere to go: remember it in the GBC RIB.
  if (addFlag)
    rtmGbcAddRouteIPv4(afIndex, cid, rtp);
  else
    rtmGbcDelRouteIPv4(afIndex, cid, rtp);
  return false;
}

// The checks an add and a delete share, in their order: the family, the client, the route's
// validity (a route left to the GBC RIB or passed over ends here with success) and the protocol.
// Null when the route goes no further, with the caller's result in *result; *cid becomes the
// client's own number.
static rt_client *checkedClient(const char *fn, uint8_t afIndex, uint32_t *cid, uint8_t *rtp, int addFlag, Names &nm,
                                int *result) {
  *result = RTM_FAILURE;
  if (afIndex != RTM_IPV4UNI_AFINDEX && afIndex != RTM_IPV6UNI_AFINDEX) {
    _qorAssert("0", __FILE__, __LINE__, afIndex);
    return nullptr;
  }
  rt_client *rtc = rtmClientGetByHandle(afIndex, *cid);
  if (!rtc) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, fn, *cid);
    return nullptr;
  }
  *cid = rtc->rtc_cid;
  if (!rtmIsRouteValid(afIndex, *cid, rtp, addFlag)) {
    *result = RTM_SUCCESS;
    return nullptr;
  }
  const uint32_t proto = rtpGetProto(rtp);
  if (rtc->rtc_proto != proto) {
    qorSysErr(rtmevkey, 0, 0x148017, 0, fn, proto, rtc->rtc_proto, rtmClientName(rtc, nm.client), *cid, afIndex,
              prefixText(afIndex, rtp, nm.prefix));
    return nullptr;
  }
  return rtc;
}

// ---- Add ------------------------------------------------------------------------------------

int rtmAddRouteIPv4(uint8_t afIndex, uint32_t cid, uint8_t *rtp) {
  static const char kFn[] = "RTM: rtmAddRouteIPv4";
  Names nm;
  int result = RTM_SUCCESS;
  rt_client *const rtc = checkedClient(kFn, afIndex, &cid, rtp, 1, nm, &result);
  if (!rtc) return result;
  const uint32_t proto = rtpGetProto(rtp);
  const int64_t vrf = routeVrf(afIndex, rtc, rtp);
  if (vrf == -100) {
    qorEventLog(rtmevkey, 14, "rtmAddRouteIPv4: Client %s Id %d is not active\n", rtmClientName(rtc, nm.client),
                int(cid));
    return RTM_SUCCESS;
  }
  const uint32_t vrfId = uint32_t(vrf);
  const uint32_t flags = rtpGetFlags(rtp);
  if (blocked(rtc, vrfId, flags)) {
    qorEventLog(rtmevkey, 14, "rtmAddRouteIPv4: %s Routes from %s is blocked.\n", "", rtmClientName(rtc, nm.client));
    return RTM_SUCCESS;
  }
  qor_radix_tree *tree = rtmRibGetTree(afIndex, vrfId);
  if (!tree) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, kFn, vrfId);
    return RTM_FAILURE;
  }
  const uint8_t plen = rtpGetPrefixLen(rtp);
  const uint8_t *prefix = rtpPrefix(rtp, afIndex);
  const uint32_t subtype = rtpGetSubtype(rtp);
  const uint32_t srcVrf = rtpGetSrcVrf(rtp, afIndex);
  // Values the entry cannot hold are not routes of any client we serve.
  if (plen > rtmAfKeyBits(afIndex) || subtype > 0xFFFF || srcVrf > 0xFFFF || proto > 0xFF) {
    qorSysErr(rtmevkey, 0, 0x148004, 0, kFn, prefixText(afIndex, rtp, nm.prefix), plen, subtype, srcVrf, proto);
    return RTM_FAILURE;
  }

  // The head. A route for the main tree finds or links it in one descent; a head linked here
  // (newHead) is taken out again by every failure below, so a refused route leaves the tree
  // as it was.
  rt_head *rth = nullptr;
  bool newHead = false;
  bool noHeadMemory = false;  // the head could not be had: the add fails once its checks pass
  if (!(flags & RTP_FLAG_CONNECTED)) {
    if (rt_head *spare = spareHead(afIndex)) {
      rtmHeadInit(spare, afIndex, prefix, plen);
      qor_radix_hdr *got = qorRadixAttach(tree, &spare->rtmh_rdx, plen);
      if (got == &spare->rtmh_rdx) {
        spareTaken(afIndex);
        newHead = true;
      } else if (!got) {
        got = qorRadixGetExact(tree, prefix, plen);
        noHeadMemory = !got;
      }
      rth = rtmHeadOf(got);
    } else {
      rth = rtmHeadOf(qorRadixGetExact(tree, prefix, plen));
      noHeadMemory = !rth;
    }
  } else {
    rth = rtmHeadOf(qorRadixGetExact(tree, prefix, plen));
  }
  const bool existed = rth && !newHead;
  auto dropNewHead = [&] {
    if (!newHead) return;
    qorRadixRemove(tree, &rth->rtmh_rdx);
    spareBack(afIndex, rth);
    rth = nullptr;
    newHead = false;
  };

  if (!existed && rtc->rtc_proto != RTM_PROTO_CONNECTED && rtc->rtc_proto != RTM_PROTO_STATIC &&
      !withinRouteLimit(afIndex, vrfId)) {
    dropNewHead();
    return RTM_ROUTE_LIMIT;
  }

  if (rtpGetPref(rtp) == 0 && proto != RTM_PROTO_CONNECTED && proto != RTM_PROTO_STATIC && proto != RTM_PROTO_POS &&
      proto != RTM_PROTO_VRRP) {
    qorSysErr(rtmevkey, 0, 0x148046, 0, kFn, rtpGetPref(rtp));
    dropNewHead();
    return RTM_FAILURE;
  }
  const unsigned rtpNnh = rtpGetNnh(rtp);
  if (rtpNnh < 1 || rtpNnh > RTP_MAX_NH) {
    qorSysErr(rtmevkey, 0, 0x14803C, 0, kFn, prefixText(afIndex, rtp, nm.prefix), plen, rtmGetProtoStr(proto));
    dropNewHead();
    return RTM_FAILURE;
  }

  // The entry, sized for exactly its next hops and TLV (an unnumbered one for all it may get).
  const bool unnumbered = proto == RTM_PROTO_POS;
  const unsigned tlvlen = rtpGetTlvLen(rtp);
  const unsigned room = unnumbered ? RTE_WIDE_NH : rtpNnh;
  auto *rte = static_cast<rt_entry *>(RTM_VAR_ALLOC(RTM_MEM_TAG_RTE, uint32_t(rtmRteSize(afIndex, room, tlvlen))));
  if (!rte) {
    dropNewHead();
    return RTM_NO_MEMORY;
  }
  const uint64_t now = qorTickGet();
  rte->rte_cid = uint8_t(cid);
  rte->rte_proto = uint8_t(proto);
  rte->rte_inst = rtc->rtc_instance;
  rte->rte_subtype = uint16_t(subtype);
  rte->rte_pref = rtpGetPref(rtp);
  rte->rte_metric = rtpGetMetric(rtp);
  rte->rte_tag = rtpGetTag(rtp);
  rte->rte_af6 = afIndex == RTM_IPV6UNI_AFINDEX;
  rte->rte_wide = unnumbered;
  memcpy(rte->rte_gateway, rtpGateway(rtp, afIndex), rtmAfAddrLen(afIndex));
  rte->rte_srcVrf = uint16_t(srcVrf);
  rte->rte_time = now;
  rte->rte_flags = uint16_t(flags & RTP_FLAG_RTE_MASK);
  rte->rte_tlvlen = uint16_t(tlvlen);
  if (flags & RTP_FLAG_LEAKED) rte->rte_leak = RTE_LEAK_IMPORTED;
  rte->rte_vrfId = uint16_t(vrfId);
  rt_nh **slots = rtmRteNh(rte);
  unsigned filled = 0;        // slots in use
  unsigned firstTaken = 0;    // slots before this are references of another entry
  rt_nh *selfNh = nullptr;    // the unnumbered host's own next hop, when taken here

  auto fail = [&](int result) {
    releaseNhs(afIndex, slots + firstTaken, filled - firstTaken, proto);
    if (selfNh) rtmNhDelete(afIndex, selfNh, proto);
    freeEntry(rte);
    dropNewHead();
    return result;
  };

  if (unnumbered) {
    // The POS client adds an unnumbered host route one next hop at a time; it is kept as a
    // connected entry that gathers them.
    rte->rte_proto = RTM_PROTO_CONNECTED;
    rte->rte_subtype = RT_UNNUMBERED;
    // The gathering happens on the main tree's entry, which also holds the host's own next hop.
    // A route for the connected RIB starts afresh with references of its own: it must not share
    // next hops with an entry that stays in the main tree.
    const bool toConnected = flags & RTP_FLAG_CONNECTED;
    rt_entry *existing = existed && !toConnected ? rte_find(rth, cid, RT_UNNUMBERED, 1, srcVrf) : nullptr;
    if (!existing && !toConnected) {
      int err = 0;
      selfNh = rtmNhAdd(srcVrf, afIndex, 0, prefix, &err, proto, flags);
      if (!selfNh) {
        if (err == RTM_NO_MEMORY) return fail(RTM_NO_MEMORY);
        qorSysErr(rtmevkey, 0, 0x14800F, 0, kFn, "0.0.0.0", 0, prefixText(afIndex, rtp, nm.prefix), plen,
                  rtmClientGetProtoName(proto));
        return fail(RTM_FAILURE);
      }
    } else if (existing) {
      rt_nh *const *old = rtmRteNh(existing);
      const uint8_t *nh0 = rtpNh(rtp, afIndex, 0);
      for (unsigned i = 0; i < RTP_MAX_NH && i < rtmRteNhRoom(existing) && old[i]; ++i) {
        if (sameNh(afIndex, old[i], nh0)) {
          freeEntry(rte);  // already on the route
          return RTM_SUCCESS;
        }
        slots[filled++] = old[i];
      }
      firstTaken = filled;
    }
  }

  for (unsigned i = 0; i < rtpNnh; ++i) {
    const uint8_t *nh = rtpNh(rtp, afIndex, i);
    const uint32_t ifindex = rtpnhGetIfindex(nh, afIndex);
    const uint32_t nhVrf = rtpnhGetVrfId(nh, afIndex);
    // A host route that names itself among several next hops keeps the others.
    if (rtpNnh > 1 && isHostLen(afIndex, plen) && proto != RTM_PROTO_CONNECTED && nhIsPrefix(afIndex, rtp, nh) &&
        nhVrf == vrfId)
      continue;
    if (ifindex == 0 && rtmAF_IsAddrZero(afIndex, nh)) {
      qorSysErr(rtmevkey, 0, 0x14800E, 0, kFn, i, rtpNnh, prefixText(afIndex, rtp, nm.prefix),
                rtmClientName(rtc, nm.client));
      return fail(RTM_FAILURE);
    }
    int err = 0;
    rt_nh *n = rtmNhAdd(nhVrf, afIndex, ifindex, nh, &err, proto, flags);
    if (!n) {
      if (err == RTM_NO_MEMORY) return fail(RTM_NO_MEMORY);
      char nhText[RTM_INET6_ADDRSTRLEN];
      qorSysErr(rtmevkey, 0, 0x14800F, 0, kFn, prefixText(afIndex, rtp, nm.prefix),
                rtmAF_AddrToStr(afIndex, nh, nhText, sizeof nhText), ifindex);
      return fail(RTM_FAILURE);
    }
    if (filled < room)
      slots[filled++] = n;
    else
      rtmNhDelete(afIndex, n, proto);  // an unnumbered entry is full
  }
  rte->rte_nnh = uint8_t(filled);
  if (filled == 0) {
    // Every next hop was the host itself: the route has nowhere to go.
    fail(RTM_SUCCESS);
    rtmGbcAddRouteIPv4(afIndex, cid, rtp);
    return RTM_SUCCESS;
  }
  if (tlvlen) memcpy(rtmRteTlv(rte), rtpTlv(rtp, afIndex, rtpNnh), tlvlen);

  // Replace what the client had on this prefix from the same source VRF. A route for the
  // connected RIB replaces only there: taking the client's main entry away here would change
  // the active route without a version.
  rt_entry *oldActive = rth ? rth->rtmh_rte : nullptr;
  if (oldActive && !(flags & RTP_FLAG_CONNECTED)) {
    if (rt_entry *old = rte_find(rth, rtc->rtc_cid, RT_SUBTYPE_ANY, 1, srcVrf)) {
      counters(afIndex, vrfId, old, 2, old == rth->rtmh_rte);
      // An unnumbered entry's next hops moved to the new entry with their references.
      if (!unnumbered) releaseNhs(afIndex, rtmRteNh(old), std::min<unsigned>(old->rte_nnh, RTP_MAX_NH), old->rte_proto);
      rt_entry *first = rte_remove(rth, old);
      freeEntry(old);
      if (first && first != oldActive) {
        counters(afIndex, vrfId, first, 1, 1);
        counters(afIndex, vrfId, first, 2, 0);
      }
    }
  }

  if (noHeadMemory) return fail(RTM_NO_MEMORY);
  if (flags & RTP_FLAG_CONNECTED) {
    rtmAddRouteProtoCon(afIndex, cid, rte, rtp);
    return RTM_SUCCESS;
  }

  if (proto == RTM_PROTO_VRRP) rtmhSet(rth, RTMH_VRRP);
  rt_entry *prevFirst = rth->rtmh_rte;
  rte_insert(afIndex, rth, rte);

  if (flags & RTP_FLAG_WECMP) {
    rte->rte_wecmp = 1;
    for (unsigned i = 0; i < rte->rte_nnh && i < rtpNnh; ++i)
      slots[i]->rtn_weight = rtpnhGetWeight(rtpNh(rtp, afIndex, i), afIndex);
  }

  const bool activeChanged = rth->rtmh_rte != oldActive;
  if (activeChanged) {
    rth->rtmh_time = now;
    updateRibVer(vrfId, afIndex, tree, rth);
  }

  if (rth->rtmh_rte == rte) {
    counters(afIndex, vrfId, rte, 1, 1);
    if (rte->rte_next && prevFirst) {
      counters(afIndex, vrfId, prevFirst, 2, 1);
      counters(afIndex, vrfId, prevFirst, 1, 0);
    }
  } else {
    counters(afIndex, vrfId, rte, 1, 0);
  }

  if (activeChanged && rtmhHas(rth, RTMH_EXPORTED) && rte->rte_next) {
    markDelExported(rth, rte->rte_next);
    updateRibVer(vrfId, afIndex, tree, rth);
  }
  return RTM_SUCCESS;
}

// ---- Delete ---------------------------------------------------------------------------------

int rtmDeleteRte(uint32_t vrfId, uint8_t afIndex, qor_radix_tree *tree, rt_head *rth, uint32_t cid, uint32_t subtype,
                 uint32_t proto, uint8_t matchVrf, uint32_t srcVrf) {
  rt_entry *const first = rth->rtmh_rte;
  if (!first) _qorAssert("first_rte", __FILE__, __LINE__, 0);
  if (afIndex == IPV4MUL_AFINDEX) vrfId = 0;
  int result = RTM_FAILURE;
  bool importedWent = false;
  while (rt_entry *rte = rte_find(rth, cid, subtype, matchVrf, srcVrf)) {
    counters(afIndex, vrfId, rte, 2, rte == first);
    result = RTM_SUCCESS;
    rt_nh **slots = rtmRteNh(rte);
    const unsigned n = std::min<unsigned>(rte->rte_nnh, RTP_MAX_NH);
    if (rte->rte_proto == RTM_PROTO_CONNECTED && rte->rte_subtype == RT_INTERNAL) {
      // An interface route holds only next hops of its own VRF; anything else is left alone.
      for (unsigned i = 0; i < n; ++i) {
        if (slots[i] && slots[i]->rtn_vrfId == vrfId) {
          rtmNhDelete(afIndex, slots[i], proto);
          slots[i] = nullptr;
        } else {
          qorHistory("%s[%d] INVALID_VRF rte %08lx,vrf %ld,nh %08lx,nhVrf %ld \n\r", __func__, __LINE__,
                     static_cast<unsigned long>(reinterpret_cast<uintptr_t>(rte)), static_cast<long>(vrfId),
                     static_cast<unsigned long>(reinterpret_cast<uintptr_t>(slots[i])),
                     slots[i] ? static_cast<long>(slots[i]->rtn_vrfId) : -1L);
        }
      }
    } else {
      releaseNhs(afIndex, slots, n, proto);
    }
    if (rte->rte_leak == RTE_LEAK_IMPORTED)
      importedWent = true;
    else if (rtmhHas(rth, RTMH_EXPORTED))
      markDelExported(rth, rte);
    rte_remove(rth, rte);
    freeEntry(rte);
    if (subtype != RT_SUBTYPE_ANY) break;
  }
  rt_entry *now = rth->rtmh_rte;
  if (now == first) {
    if (result == RTM_SUCCESS &&
        ((now && (now->rte_flags & RTP_FLAG_CONNECTED)) || (rtmhHas(rth, RTMH_DEL_EXPORTED) && !importedWent)))
      updateRibVer(vrfId, afIndex, tree, rth);
  } else {
    if (now) {
      counters(afIndex, vrfId, now, 2, 0);
      counters(afIndex, vrfId, now, 1, 1);
    }
    updateRibVer(vrfId, afIndex, tree, rth);
    rth->rtmh_time = qorTickGet();
  }
  return result;
}

int rtmUpdateUnNumberedRte(uint32_t vrfId, uint8_t afIndex, qor_radix_tree *tree, rt_head *rth, uint32_t cid,
                           uint8_t *rtp) {
  rt_entry *rte = rte_find(rth, cid, rtpGetSubtype(rtp), 1, rtpGetSrcVrf(rtp, afIndex));
  if (rte && rte->rte_nnh == 1) return RTM_SUCCESS;
  if (!rte) return RTM_NH_REMOVED;
  if (rtpGetNnh(rtp) == 0) {
    // A withdrawal that names no next hop has none to take off (and none to read).
    char p[RTM_INET6_ADDRSTRLEN];
    qorSysErr(rtmevkey, 0, 0x14800E, 0, "RTM: rtmUpdateUnNumberedRte", prefixText(afIndex, rtp, p), 0u);
    return RTM_FAILURE;
  }
  const uint8_t *nh = rtpNh(rtp, afIndex, 0);
  const uint32_t ifindex = rtpnhGetIfindex(nh, afIndex);
  rt_nh *n = nullptr;
  if (ifindex != 0 || !rtmAF_IsAddrZero(afIndex, nh)) n = rtmNhFind(rtpGetVrfId(rtp), afIndex, ifindex, nh);
  rt_nh **slots = rtmRteNh(rte);
  const unsigned room = std::min(rtmRteNhRoom(rte), RTP_MAX_NH);
  unsigned at = room;
  if (n)
    for (at = 0; at < room && slots[at] != n; ++at) {
    }
  if (at == room) {
    // Not a next hop of this route: nothing to take off.
    char p[RTM_INET6_ADDRSTRLEN];
    qorSysErr(rtmevkey, 0, 0x14800E, 0, "RTM: rtmUpdateUnNumberedRte", prefixText(afIndex, rtp, p), ifindex);
    return RTM_FAILURE;
  }
  rtmNhDelete(afIndex, n, RTM_PROTO_CONNECTED);
  slots[at] = nullptr;
  rte->rte_nnh--;
  bool moved = false;
  for (unsigned i = 0; i < rte->rte_nnh && i + 1 < RTE_WIDE_NH; ++i)
    if (!slots[i] && slots[i + 1]) {
      slots[i] = slots[i + 1];
      slots[i + 1] = nullptr;
      moved = true;
    }
  if (!moved) return RTM_SUCCESS;  // the last one went: the caller removes the entry
  updateRibVer(vrfId, afIndex, tree, rth);
  rth->rtmh_time = qorTickGet();
  return RTM_NH_REMOVED;
}

int rtmDelRouteIPv4(uint8_t afIndex, uint32_t cid, uint8_t *rtp) {
  static const char kFn[] = "RTM: rtmDelRouteIPv4";
  Names nm;
  int result = RTM_SUCCESS;
  rt_client *const rtc = checkedClient(kFn, afIndex, &cid, rtp, 0, nm, &result);
  if (!rtc) return result;
  const uint32_t proto = rtpGetProto(rtp);
  const int64_t vrf = routeVrf(afIndex, rtc, rtp);
  if (vrf == -100) {
    qorEventLog(rtmevkey, 14, "rtmDelRouteIPv4: Client Id %d is not active\n", int(cid));
    return RTM_SUCCESS;
  }
  const uint32_t vrfId = uint32_t(vrf);
  if (vrfId >= MAX_VRF) {
    qorEventLog(rtmevkey, 14, "rtmAddRouteProtoCon: Client Id %d is does not havr correct vrf %d\n", int(cid),
                int(vrfId));
    return RTM_SUCCESS;
  }
  const uint32_t flags = rtpGetFlags(rtp);
  if (blocked(rtc, vrfId, flags)) {
    qorEventLog(rtmevkey, 14, "rtmDelRouteIPv4: Routes from %s is blocked.\n", rtmClientName(rtc, nm.client));
    return RTM_SUCCESS;
  }
  qor_radix_tree *tree = rtmRibGetTree(afIndex, vrfId);
  if (!tree) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, kFn, vrfId);
    return RTM_FAILURE;
  }
  if (flags & RTP_FLAG_CONNECTED) {
    // An unnumbered route was stored with its own subtype, in the connected tree as well.
    if (rtc->rtc_proto == RTM_PROTO_POS && rtpGetSubtype(rtp) != RT_SUBTYPE_ANY) rtpSetSubtype(rtp, RT_UNNUMBERED);
    return rtmDelRouteProtoCon(afIndex, cid, rtp);
  }

  const uint8_t plen = rtpGetPrefixLen(rtp);
  rt_head *rth = rtmHeadOf(qorRadixGetExact(tree, rtpPrefix(rtp, afIndex), plen));
  if (!rth) return RTM_FAILURE;

  if (rtc->rtc_proto == RTM_PROTO_POS && rtpGetSubtype(rtp) != RT_SUBTYPE_ANY && rth->rtmh_rte) {
    rtpSetSubtype(rtp, RT_UNNUMBERED);
    switch (rtmUpdateUnNumberedRte(vrfId, afIndex, tree, rth, cid, rtp)) {
      case RTM_NH_REMOVED:
        return RTM_SUCCESS;
      case RTM_SUCCESS:
        // The entry goes as a whole, and with it the host's own next hop.
        if (rt_nh *self = rtmNhFind(vrfId, afIndex, 0, rtmh_prefix(rth))) rtmNhDelete(afIndex, self, proto);
        break;
      default:
        qorSysErr(rtmevkey, 0, 0x14803B, 0, "RTM: rtmDelRouteIPv4:3", cid, prefixText(afIndex, rtp, nm.prefix), plen,
                  rtmGetProtoStr(proto));
        return RTM_FAILURE;
    }
  }

  const bool host = isHostLen(afIndex, plen);
  if (rth->rtmh_rte) {
    if (rtmDeleteRte(vrfId, afIndex, tree, rth, rtc->rtc_cid, rtpGetSubtype(rtp), proto, 1,
                     rtpGetSrcVrf(rtp, afIndex)) != RTM_SUCCESS) {
      // Perhaps the protocol's host route is only remembered in the GBC RIB: that one stays.
      qor_radix_tree *gbc = host ? rtmGbcRibGetTree(afIndex, vrfId) : nullptr;
      if (gbc && qorRadixGetExact(gbc, rtpPrefix(rtp, afIndex), plen)) return RTM_SUCCESS;
      return RTM_FAILURE;
    }
  }
  if (host) rtmGbcDelRouteIPv4(afIndex, cid, rtp);
  return RTM_SUCCESS;
}

// ---- Batches --------------------------------------------------------------------------------

qor_radix_tree *rtmRouteBatchTree(uint8_t afIndex, uint32_t cid) {
  if (afIndex != RTM_IPV4UNI_AFINDEX && afIndex != RTM_IPV6UNI_AFINDEX) return nullptr;
  const rt_client *rtc = rtmClientGetByHandle(afIndex, cid);
  const int32_t cvrf = rtmClientGetVrfId(afIndex, cid);
  // A client of every VRF, BGP and VRRP name the VRF route by route.
  if (!rtc || cvrf < 0 || uint32_t(cvrf) >= MAX_VRF || rtc->rtc_proto == RTM_PROTO_BGP ||
      rtc->rtc_proto == RTM_PROTO_VRRP)
    return nullptr;
  const rt_inet_tbl_t *tbl = rt_inet_tbl[cvrf];
  return tbl && tbl->ribState == 1 ? tbl->mainTree[afIndex] : nullptr;
}

void rtmRoutePrefetchIn(qor_radix_tree *tree, uint8_t afIndex, const uint8_t *rtp, int stage) {
  const uint8_t plen = rtpGetPrefixLen(rtp);
  if (tree && plen <= rtmAfKeyBits(afIndex)) qorRadixPrefetch(tree, rtpPrefix(rtp, afIndex), plen, stage);
}

void rtmRoutePrefetch(uint8_t afIndex, uint32_t cid, const uint8_t *rtp, int stage) {
  if (afIndex != RTM_IPV4UNI_AFINDEX && afIndex != RTM_IPV6UNI_AFINDEX) return;
  // Only a hint: the tree is the one the client's routes normally go to, and any check the
  // add or delete makes comes later.
  qor_radix_tree *tree = rtmRouteBatchTree(afIndex, cid);
  if (!tree) {
    const uint32_t vrfId = rtpGetVrfId(rtp);
    if (vrfId < MAX_VRF && rt_inet_tbl[vrfId] && rt_inet_tbl[vrfId]->ribState == 1)
      tree = rt_inet_tbl[vrfId]->mainTree[afIndex];
  }
  rtmRoutePrefetchIn(tree, afIndex, rtp, stage);
}

// ---- The message ----------------------------------------------------------------------------

int rtmUpdateRouteIPv4(uint8_t *msg, uint32_t len, rt_client *) {
  uint32_t bad = 0;
  int rc = rtmRouteMsgCheck(msg, len, &bad);
  const uint8_t af = len > RTM_UPD_OFF_AFINDEX ? msg[RTM_UPD_OFF_AFINDEX] : 0;
  if (rc == RTM_WIRE_OK && af != RTM_IPV4UNI_AFINDEX && af != RTM_IPV6UNI_AFINDEX) rc = RTM_WIRE_EAF;
  if (rc != RTM_WIRE_OK) {
    // Nothing of a batch that does not lie inside what was received is applied.
    const uint32_t cid = len >= RTM_UPD_OFF_CID + 4 ? rtm::ld32(msg, RTM_UPD_OFF_CID) : 0;
    qorSysErr(rtmevkey, 0, 0x148034, 0, "RTM: rtmUpdateRouteIPv4", cid, bad, rtmWireErrStr(rc), len);
    return RTM_FAILURE;
  }
  rtm_route_iter it;
  rtmRouteIterInit(&it, msg, len);
  // The elements are taken a chunk at a time, so that each route's first cache misses can be
  // fetched a few routes ahead, stage by stage (the slot of the tree's lookup table, the node it
  // names, the nodes around that), overlapping with the work on the routes before it.
  constexpr unsigned kChunk = 128;
  rtm_route_elem els[kChunk];
  qor_radix_tree *const batchTree = rtmRouteBatchTree(it.afIndex, it.cid);
  auto prefetch = [&](const uint8_t *rtp, unsigned stage) {
    if (batchTree)
      rtmRoutePrefetchIn(batchTree, it.afIndex, rtp, int(stage));
    else
      rtmRoutePrefetch(it.afIndex, it.cid, rtp, int(stage));
  };
  rtmRibDeferWakeups(true);
  for (;;) {
    unsigned n = 0;
    while (n < kChunk && rtmRouteIterNext(&it, &els[n]) == RTM_WIRE_OK) ++n;
    if (n == 0) break;
    rtmPrefetchPipeline(n, [&](size_t j, unsigned st) { prefetch(els[j].rtp, st); }, [&](size_t i) {
      const rtm_route_elem &el = els[i];
      rtmConvertRtpParams(it.afIndex, el.rtp);
      switch (el.subCmd) {
        case RTM_UPD_ADD:
          if (rtmAddRouteIPv4(it.afIndex, it.cid, el.rtp) == RTM_NO_MEMORY && rtmOutOfMemLogMsg) {
            qorSysErr(rtmevkey, 0, 0x148059, 0,
                      "does not have enough memory, dropping routes. User action may be required");
            rtmOutOfMemLogMsg = 0;
          }
          break;
        case RTM_UPD_DEL:
          rtmDelRouteIPv4(it.afIndex, it.cid, el.rtp);
          break;
        default:
          qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: rtmUpdateRoute", el.subCmd, el.index);
          break;
      }
    });
  }
  rtmRibDeferWakeups(false);
  return RTM_SUCCESS;
}

void rtmRibInit() {
  rtmFrameSetHandler(MT_RTM_UPD_ROUTE, rtmUpdateRouteIPv4);
  rtmClearInit();
}

void rtmRibRouteReset() {
  extTable().clear();
  g_spare[0] = g_spare[1] = {};
  rtmOutOfMemLogMsg = 1;
}
