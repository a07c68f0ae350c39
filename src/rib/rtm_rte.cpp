// The order of the entries of a prefix, which is the election.
//
// A head's entries stand on one list sorted by rtmCompareRoutes; the first is the active route
// and there is no other election. The order is preference first, then by origin when one
// client holds two entries (local before imported), then by protocol, subtype and handle, with
// BGP placed by its kind: internal BGP loses to any other protocol of equal preference,
// external BGP beats the dynamic protocols and loses to connected and static routes. The
// comparison is not symmetric in every corner (two BGP entries of different clients are
// placed by the first one's kind alone), so rte_insert always passes the new entry first.
#include <cstdio>

#include "addr/qor_addr.h"
#include "frame/rtm_frame.h"
#include "log/qor_log.h"
#include "rib/rtm_rib.h"

namespace {

constexpr int kBefore = -1;
constexpr int kAfter = 1;

// The BGP entry's place against a non-BGP entry of equal preference, seen from the BGP entry:
// kBefore if it wins. `otherProto` is the other entry's protocol.
int bgpPlace(uint32_t bgpSubtype, uint32_t otherProto, bool *known) {
  *known = true;
  if (bgpSubtype == RT_BGP_INTERNAL) return kAfter;
  if (bgpSubtype == RT_BGP_EXTERNAL) return otherProto > RTM_PROTO_STATIC ? kBefore : kAfter;
  *known = false;
  return kBefore;
}

void logBadBgpSubtype(uint8_t afIndex, const rt_entry *rte1, const rt_entry *rte2) {
  char a1[RTM_INET6_ADDRSTRLEN] = "?", a2[RTM_INET6_ADDRSTRLEN] = "?";
  if (rte1->rte_head) rtmAF_AddrToStr(afIndex, rtmh_prefix(rte1->rte_head), a1, sizeof a1);
  if (rte2->rte_head) rtmAF_AddrToStr(afIndex, rtmh_prefix(rte2->rte_head), a2, sizeof a2);
  char text[380];
  snprintf(text, sizeof text,
           "RTM: rtmCompareRoutes: %s rte1:%s proto 0x%x pref 0x%x subpref 0x%x subtyp 0x%x. %s rte2:%s proto "
           "0x%x pref 0x%x subpref 0x%x subtyp 0x%x",
           rtmGetProtoStr(rte1->rte_proto), a1, unsigned(rte1->rte_proto), unsigned(rte1->rte_pref),
           unsigned(rte1->rte_subpref), unsigned(rte1->rte_subtype), rtmGetProtoStr(rte2->rte_proto), a2,
           unsigned(rte2->rte_proto), unsigned(rte2->rte_pref), unsigned(rte2->rte_subpref),
           unsigned(rte2->rte_subtype));
  qorSysErr(rtmevkey, 0, 0x14803A, 0, text);
}

}  // namespace

int rtmCompareRoutes(uint8_t afIndex, const rt_entry *rte1, const rt_entry *rte2) {
  if (rte1->rte_pref != rte2->rte_pref) return rte1->rte_pref < rte2->rte_pref ? kBefore : kAfter;

  if (rte1->rte_cid == rte2->rte_cid) {
    // One client, two origins: an imported entry goes behind, whatever the other is; so the
    // local entry stands first, and a new local entry that ties goes ahead of the old one.
    return rte1->rte_leak == RTE_LEAK_IMPORTED ? kAfter : kBefore;
  }

  const bool bgp1 = rte1->rte_proto == RTM_PROTO_BGP, bgp2 = rte2->rte_proto == RTM_PROTO_BGP;
  if (!bgp1 && !bgp2) {
    const auto p1 = int32_t(rte1->rte_proto), p2 = int32_t(rte2->rte_proto);
    if (p1 != p2) return p1 > p2 ? kAfter : kBefore;
    const auto s1 = int32_t(rte1->rte_subtype), s2 = int32_t(rte2->rte_subtype);
    if (s1 != s2) return s1 > s2 ? kAfter : kBefore;
    return int32_t(rte1->rte_cid) <= int32_t(rte2->rte_cid) ? kBefore : kAfter;
  }

  bool known;
  int place;
  if (bgp1) {
    place = bgpPlace(rte1->rte_subtype, rte2->rte_proto, &known);
  } else {
    // Seen from rte2, then turned round.
    place = -bgpPlace(rte2->rte_subtype, rte1->rte_proto, &known);
  }
  if (known) return place;
  logBadBgpSubtype(afIndex, rte1, rte2);
  return kBefore;
}

rt_entry *rte_insert(uint8_t afIndex, rt_head *rtmh, rt_entry *rte_new) {
  if (!rtmh || !rte_new) {
    _qorAssert(!rtmh ? "rtmh" : "rte_new", __FILE__, __LINE__, 0);
    return rtmh ? rtmh->rtmh_rte : nullptr;
  }
  rte_new->rte_head = rtmh;
  rte_new->rte_next = nullptr;
  rt_entry **link = &rtmh->rtmh_rte;
  while (*link && rtmCompareRoutes(afIndex, rte_new, *link) >= 0) link = &(*link)->rte_next;
  rte_new->rte_next = *link;
  *link = rte_new;
  return rtmh->rtmh_rte;
}

rt_entry *rte_find(rt_head *rtmh, uint32_t cid, uint32_t subtype, uint8_t matchVrf, uint32_t srcVrf) {
  if (!rtmh) {
    _qorAssert("rtmh", __FILE__, __LINE__, 0);
    return nullptr;
  }
  if (matchVrf > 1) return nullptr;
  for (rt_entry *rte = rtmh->rtmh_rte; rte; rte = rte->rte_next) {
    if (rte->rte_cid != cid) continue;
    if (subtype != RT_SUBTYPE_ANY && subtype != rte->rte_subtype) continue;
    if (matchVrf == 1 && rte->rte_srcVrf != srcVrf) continue;
    return rte;
  }
  return nullptr;
}

rt_entry *rte_remove(rt_head *rtmh, rt_entry *rte) {
  if (!rtmh || !rte) {
    _qorAssert(!rtmh ? "rtmh" : "rte", __FILE__, __LINE__, 0);
    return rtmh ? rtmh->rtmh_rte : nullptr;
  }
  rt_entry **link = &rtmh->rtmh_rte;
  while (*link && *link != rte) link = &(*link)->rte_next;
  if (!*link) {
    _qorAssert("*prev_rte", __FILE__, __LINE__, 0);
    return rtmh->rtmh_rte;
  }
  *link = rte->rte_next;
  rte->rte_next = nullptr;
  return rtmh->rtmh_rte;
}
