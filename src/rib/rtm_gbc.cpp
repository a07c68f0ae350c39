// The two small trees beside each main tree.
//
// The connected tree holds the routes a client marks as connected (rtp_flags 0x4000). They
// never compete with the main tree's routes: a client has at most one entry per prefix and
// source VRF here, every change moves the head on this tree's change list, and the entries
// count as inactive routes. The redistribution thread reads the tree through a walker of its
// own per client.
//
// The GBC tree remembers host routes that a protocol sent but that have no usable next hop (all
// of them were the host itself). A GBC head holds only one mark per protocol; no version moves
// and nobody is told. It serves the delete path and the display, and its head goes when the
// last protocol's mark is cleared.
#include <algorithm>
#include <cstring>

#include "addr/qor_addr.h"
#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "log/qor_log.h"
#include "rib/rtm_rib.h"
#include "nexthop/rtm_nh.h"
#include "timer/qor_timer.h"

RTM_POOL_RECORD_EXACT(RTM_GBC_RIB_HEAD_POOL, rtmGbcHeadSize(RTM_IPV4UNI_AFINDEX));
RTM_POOL_RECORD_EXACT(RTM6_GBC_RIB_HEAD_POOL, rtmGbcHeadSize(RTM_IPV6UNI_AFINDEX));

namespace {

const char *prefixText(uint8_t af, const uint8_t *rtp, char (&buf)[RTM_INET6_ADDRSTRLEN]) {
  return rtmAF_AddrToStr(af, rtpPrefix(rtp, af), buf, sizeof buf) ? buf : "?";
}

void releaseAll(uint8_t af, rt_entry *rte) {
  rt_nh **slots = rtmRteNh(rte);
  const unsigned n = std::min<unsigned>(rte->rte_nnh, RTP_MAX_NH);
  for (unsigned i = 0; i < n; ++i)
    if (slots[i]) rtmNhDelete(af, slots[i], 0);
}

// The entry is ours to dispose of: its next hops go back with it.
void dropEntry(uint8_t af, rt_entry *rte) {
  releaseAll(af, rte);
  rtmVarMemFreeFromPool(rte);
}

// The GBC checks common to add and delete: the client, its protocol, its block. -1 to go on,
// else the result.
int gbcCheck(uint8_t af, uint32_t cid, const uint8_t *rtp, const char *fn, const char *blockedFmt,
             rt_client **out) {
  rt_client *rtc = rtmClientGetByHandle(af, cid);
  if (!rtc) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, fn, cid);
    return RTM_FAILURE;
  }
  if (rtc->rtc_proto != rtpGetProto(rtp)) {
    qorSysErr(rtmevkey, 0, 0x148017, 0, fn, rtpGetProto(rtp), rtc->rtc_proto, cid);
    return RTM_FAILURE;
  }
  const uint32_t vrf = rtpGetVrfId(rtp);
  const rtClientVrfInfo *rvi = vrf < MAX_VRF ? rtc->rtc_vrf[vrf] : nullptr;
  if (rvi && rvi->rvi_blocked == 1 && !(rtpGetFlags(rtp) & RTP_FLAG_LEAKED)) {
    char name[41];
    qorEventLog(rtmevkey, 14, blockedFmt, rtmClientName(rtc, name));
    return RTM_SUCCESS;
  }
  // The marks are indexed by protocol; a protocol past them cannot hold a host route here.
  if (rtc->rtc_proto >= RTM_GBC_PROTOS) {
    _qorAssert("rtc_proto < RTM_GBC_PROTOS", __FILE__, __LINE__, long(rtc->rtc_proto));
    return RTM_FAILURE;
  }
  *out = rtc;
  return -1;
}

}  // namespace

// ---- Connected tree -------------------------------------------------------------------------

int rtmDeleteConRte(uint32_t vrfId, uint8_t afIndex, qor_radix_tree *tree, rt_head *rth, uint32_t cid,
                    uint32_t subtype, uint8_t matchVrf, uint32_t srcVrf) {
  if (!rth->rtmh_rte) _qorAssert("rth->rtmh_rte", __FILE__, __LINE__, 0);
  int result = RTM_FAILURE;
  while (rt_entry *rte = rte_find(rth, cid, subtype, matchVrf, srcVrf)) {
    rtmRouteCounters(afIndex, vrfId, rte->rte_cid, rte->rte_subtype, 2, 0);
    rte_remove(rth, rte);
    dropEntry(afIndex, rte);
    result = RTM_SUCCESS;
    if (subtype != RT_SUBTYPE_ANY) break;
  }
  if (result == RTM_SUCCESS) {
    rth->rtmh_time = qorTickGet();
    updateRibVer(vrfId, afIndex, tree, rth);
  }
  return result;
}

int rtmAddRouteProtoCon(uint8_t afIndex, uint32_t cid, rt_entry *rte, uint8_t *rtp) {
  static const char kFn[] = "RTM: rtmAddRouteProtoCon";
  const int32_t cvrf = rtmClientGetVrfId(afIndex, cid);
  if (cvrf == -100) {
    _qorAssert("0", __FILE__, __LINE__, long(cid));
    qorEventLog(rtmevkey, 14, "rtmAddRouteProtoCon: Client Id %d is not active\n", int(cid));
    dropEntry(afIndex, rte);
    return RTM_SUCCESS;
  }
  const uint32_t vrfId = uint32_t(cvrf) == ALL_VRF_ID ? rtpGetVrfId(rtp) : uint32_t(cvrf);
  qor_radix_tree *tree = rtmConRibGetTree(afIndex, vrfId);
  if (!tree) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, kFn, vrfId);
    dropEntry(afIndex, rte);
    return RTM_FAILURE;
  }
  const uint8_t plen = rtpGetPrefixLen(rtp);
  const uint32_t srcVrf = rtpGetSrcVrf(rtp, afIndex);
  rt_head *rth = rtmHeadOf(qorRadixGetExact(tree, rtpPrefix(rtp, afIndex), plen));
  if (rth) {
    if (rt_entry *old = rte_find(rth, cid, rtpGetSubtype(rtp), 1, srcVrf)) {
      rtmRouteCounters(afIndex, vrfId, old->rte_cid, old->rte_subtype, 2, 0);
      rte_remove(rth, old);
      dropEntry(afIndex, old);
    }
  } else {
    rth = rtmHeadAlloc(afIndex, rtpPrefix(rtp, afIndex), plen);
    if (!rth || !qorRadixInsert(tree, &rth->rtmh_rdx, plen)) {
      rtmHeadFree(rth);
      dropEntry(afIndex, rte);
      return RTM_NO_MEMORY;
    }
  }
  // Whatever else the client still has here for this source VRF goes (its subtype changed).
  if (rth->rtmh_rte) rtmDeleteConRte(vrfId, afIndex, tree, rth, cid, RT_SUBTYPE_ANY, 1, srcVrf);
  rte_insert(afIndex, rth, rte);
  rtmRouteCounters(afIndex, vrfId, rte->rte_cid, rte->rte_subtype, 1, 0);
  updateRibVer(vrfId, afIndex, tree, rth);
  rth->rtmh_time = qorTickGet();
  return RTM_SUCCESS;
}

int rtmDelRouteProtoCon(uint8_t afIndex, uint32_t cid, uint8_t *rtp) {
  static const char kFn[] = "RTM: rtmDelRouteProtoCon";
  const uint32_t proto = rtpGetProto(rtp);
  if (proto == RTM_PROTO_BGP || afIndex >= RTM_MAX_AFINDEX) return RTM_SUCCESS;
  const uint32_t vrfId = rtpGetVrfId(rtp);
  qor_radix_tree *tree = rtmConRibGetTree(afIndex, vrfId);
  if (!tree) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, kFn, vrfId);
    return RTM_FAILURE;
  }
  char p[RTM_INET6_ADDRSTRLEN];
  rt_head *rth = rtmHeadOf(qorRadixGetExact(tree, rtpPrefix(rtp, afIndex), rtpGetPrefixLen(rtp)));
  if (!rth) {
    qorSysErr(rtmevkey, 0, 0x14803B, 0, "RTM: rtmDelRouteProtoCon:1", prefixText(afIndex, rtp, p),
              rtmGetProtoStr(proto));
    return RTM_FAILURE;
  }
  if (!rth->rtmh_rte) return RTM_SUCCESS;
  // An ISIS client's connected routes go whatever their level.
  const uint32_t subtype = proto == RTM_PROTO_ISIS ? RT_SUBTYPE_ANY : rtpGetSubtype(rtp);
  const int result = rtmDeleteConRte(vrfId, afIndex, tree, rth, cid, subtype, 1, rtpGetSrcVrf(rtp, afIndex));
  if (result != RTM_SUCCESS)
    qorSysErr(rtmevkey, 0, 0x14803B, 0, "RTM: rtmDelRouteProtoCon:2", prefixText(afIndex, rtp, p),
              rtmGetProtoStr(proto));
  return result;
}

// ---- GBC tree -------------------------------------------------------------------------------

int rtmGbcAddRouteIPv4(uint8_t afIndex, uint32_t cid, uint8_t *rtp) {
  static const char kFn[] = "RTM: rtmGbcAddRouteIPv4";
  rt_client *rtc = nullptr;
  int r = gbcCheck(afIndex, cid, rtp, kFn, "rtmGbcAddRouteIPv4: Routes from %s is blocked.\n", &rtc);
  if (r >= 0) return r;
  const uint32_t vrfId = rtpGetVrfId(rtp);
  qor_radix_tree *tree = rtmGbcRibGetTree(afIndex, vrfId);
  if (!tree) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, kFn, vrfId);
    return RTM_FAILURE;
  }
  const uint32_t proto = rtc->rtc_proto;
  if (rtpGetPref(rtp) == 0 && proto != RTM_PROTO_CONNECTED && proto != RTM_PROTO_STATIC && proto != RTM_PROTO_POS &&
      proto != RTM_PROTO_VRRP) {
    qorSysErr(rtmevkey, 0, 0x148046, 0, kFn, rtpGetPref(rtp));
    return RTM_FAILURE;
  }
  const uint8_t plen = rtpGetPrefixLen(rtp);
  if (plen > rtmAfKeyBits(afIndex)) return RTM_FAILURE;
  auto *gh = reinterpret_cast<rt_gbc_head *>(qorRadixGetExact(tree, rtpPrefix(rtp, afIndex), plen));
  if (!gh) {
    gh = static_cast<rt_gbc_head *>(
        RTM_POOL_ALLOC_AF(RTM_MEM_TAG_RIB, uint32_t(rtmGbcHeadSize(afIndex)), RTM_GBC_RIB_HEAD_POOL, afIndex));
    if (!gh) return RTM_NO_MEMORY;
    rtmAF_ApplyPlen(afIndex, rtpPrefix(rtp, afIndex), plen, gh->gbc_prefix);
    gh->gbc_prefixlen = plen;
    qorRadixSetKey(&gh->gbc_rdx, gh->gbc_prefix);
    if (!qorRadixInsert(tree, &gh->gbc_rdx, plen)) {
      RTM_POOL_FREE(gh);
      return RTM_NO_MEMORY;
    }
  }
  gh->gbc_proto[proto] = 1;
  gh->gbc_time = qorTickGet();
  return RTM_SUCCESS;
}

int rtmGbcDelRouteIPv4(uint8_t afIndex, uint32_t cid, uint8_t *rtp) {
  static const char kFn[] = "RTM: rtmGbcDelRouteIPv4";
  rt_client *rtc = nullptr;
  int r = gbcCheck(afIndex, cid, rtp, kFn, "rtmGbcDelRouteIPv4: Routes from %s is blocked.\n", &rtc);
  if (r >= 0) return r;
  const uint32_t vrfId = rtpGetVrfId(rtp);
  qor_radix_tree *tree = rtmGbcRibGetTree(afIndex, vrfId);
  if (!tree) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, kFn, vrfId);
    return RTM_FAILURE;
  }
  auto *gh =
      reinterpret_cast<rt_gbc_head *>(qorRadixGetExact(tree, rtpPrefix(rtp, afIndex), rtpGetPrefixLen(rtp)));
  if (!gh) return RTM_SUCCESS;
  gh->gbc_proto[rtc->rtc_proto] = 0;
  if (std::none_of(std::begin(gh->gbc_proto), std::end(gh->gbc_proto), [](uint8_t m) { return m == 1; })) {
    qorRadixRemove(tree, &gh->gbc_rdx);
    RTM_POOL_FREE(gh);
  }
  return RTM_SUCCESS;
}
