// Bulk clearing of the RIB: every route of one client, or whole trees at once.
//
// Clearing a client's routes goes through the ordinary delete paths, head by head, so each
// withdrawal moves its head on the change list and the walkers (download, redistribution)
// tell the consumers; heads stay in the tree, as tombstones where nothing is left. Tearing the
// trees of a VRF down is for a restart from zero: heads and entries go back to their pools
// and their next-hop references are dropped, but no version moves and no walker is told; the
// caller has stopped the workers first and remakes the walkers afterwards.
//
// A walk that may free the head in hand, or yield (a version wrap makes updateRibVer wait for
// the workers), holds no node: it keeps a copy of the last key and length and asks for the
// first head after them.
#include <algorithm>
#include <cstring>

#include "addr/qor_addr.h"
#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "log/qor_log.h"
#include "nexthop/rtm_nh.h"
#include "poller/rtm_poll.h"
#include "rib/rtm_rib.h"
#include "rpf/rtm_rpf.h"
#include "vrf/rtm_vrf.h"

namespace {

constexpr uint32_t kDebugDownload = 0x2;
constexpr uint32_t kDebugRib = 0x4;

// Protocols whose routes live in the main, connected and GBC trees; the rest have none there
// (the multicast ones live in the reverse-path tables).
bool clearsUnicast(uint32_t proto) {
  switch (proto) {
    case RTM_PROTO_CONNECTED:
    case RTM_PROTO_STATIC:
    case RTM_PROTO_OSPF:
    case RTM_PROTO_ISIS:
    case RTM_PROTO_BGP:
    case RTM_PROTO_RIP:
    case RTM_PROTO_POS:
    case RTM_PROTO_VRRP:
      return true;
    default:
      return false;
  }
}

// Key and length of a head of each record kind; the radix header is the tree's business.
struct RibKey {
  static const uint8_t *key(const rt_head *h) { return rtmh_prefix(h); }
  static unsigned len(const rt_head *h) { return rtmh_prefixlen(h); }
};
struct GbcKey {
  static const uint8_t *key(const rt_gbc_head *h) { return h->gbc_prefix; }
  static unsigned len(const rt_gbc_head *h) { return h->gbc_prefixlen; }
};

// Calls fn on every head of the tree in tree order, from the head at 0/0 unless skipDefault.
// fn may free the head it is given, and may yield.
template <class Head, class Key, class Fn>
void forEachHead(qor_radix_tree *tree, uint8_t af, bool skipDefault, Fn fn) {
  uint8_t key[16] = {};
  unsigned len = 0;
  qor_radix_hdr *h = skipDefault ? nullptr : qorRadixGetExact(tree, key, 0);
  if (!h) h = qorRadixGetNext(tree, key, 0);
  while (h) {
    auto *head = reinterpret_cast<Head *>(h);
    memcpy(key, Key::key(head), rtmAfAddrLen(af));
    len = Key::len(head);
    fn(head);
    h = qorRadixGetNext(tree, key, len);
  }
}

// An unnumbered entry of the main tree holds, beside its slots, a reference on the host's own
// next hop, taken when the entry was first made: it goes with the entry.
void releaseUnnumberedSelf(uint8_t af, const rt_head *rth, const rt_entry *rte) {
  if (!rte->rte_wide || rte->rte_subtype != RT_UNNUMBERED) return;
  if (rt_nh *self = rtmNhFind(rte->rte_srcVrf, af, 0, rtmh_prefix(rth))) rtmNhDelete(af, self, 0);
}

void releaseSlots(uint8_t af, rt_entry *rte) {
  rt_nh **slots = rtmRteNh(rte);
  const unsigned n = std::min<unsigned>(rtmRteNhRoom(rte), RTP_MAX_NH);
  for (unsigned i = 0; i < n; ++i)
    if (slots[i]) {
      rtmNhDelete(af, slots[i], 0);
      slots[i] = nullptr;
    }
}

// How a torn-down tree's entries give back what they hold.
enum class EntryRefs { None, NextHops, NextHopsAndLeak };

// Frees every entry of a head and then the head itself, out of its tree.
void freeHead(uint8_t af, uint32_t vrfId, qor_radix_tree *tree, rt_head *rth, EntryRefs refs) {
  while (rt_entry *rte = rth->rtmh_rte) {
    rte_remove(rth, rte);
    if (refs != EntryRefs::None) {
      if (refs == EntryRefs::NextHopsAndLeak) releaseUnnumberedSelf(af, rth, rte);
      releaseSlots(af, rte);
    }
    if (refs == EntryRefs::NextHopsAndLeak) rtm_rtleak_clear_imported_route(rth, vrfId, af, rte->rte_leak);
    rtmVarMemFreeFromPool(rte);
  }
  qorRadixRemove(tree, &rth->rtmh_rdx);
  rtmHeadFree(rth);
}

void tearDown(uint8_t af, uint32_t vrfId, qor_radix_tree *tree, EntryRefs refs, bool main) {
  if (!tree) return;
  forEachHead<rt_head, RibKey>(tree, af, false, [&](rt_head *rth) {
    if (main) rtm_rtleak_clear_exported_route(rth, vrfId, tree, af);
    freeHead(af, vrfId, tree, rth, refs);
  });
}

}  // namespace

// ---- One client ---------------------------------------------------------------------------

void rtmClearVrfProtoRoutes(uint8_t afIndex, rt_client *rtc, uint32_t vrfId) {
  if (!rtc || !clearsUnicast(rtc->rtc_proto)) return;
  const uint32_t cid = rtc->rtc_cid, proto = rtc->rtc_proto;
  qor_radix_tree *tree = rtmRibGetTree(afIndex, vrfId);
  if (!tree) {
    if (rtmdebug & kDebugRib) qorDebugPrintf("\r\n[af:%x] rtmRibGetTree failed", afIndex);
    return;
  }
  rtmRibDeferWakeups(true);
  // Every source VRF: a copy leaked in from another VRF is the client's route too.
  forEachHead<rt_head, RibKey>(tree, afIndex, false, [&](rt_head *rth) {
    if (!rth->rtmh_rte) return;
    if (proto == RTM_PROTO_POS)
      for (const rt_entry *rte = rth->rtmh_rte; rte; rte = rte->rte_next)
        if (rte->rte_cid == cid) releaseUnnumberedSelf(afIndex, rth, rte);
    rtmDeleteRte(vrfId, afIndex, tree, rth, cid, RT_SUBTYPE_ANY, proto, 0, 0);
  });
  qor_radix_tree *con = rtmConRibGetTree(afIndex, vrfId);
  if (!con) {
    rtmRibDeferWakeups(false);
    return;
  }
  // A connected route at 0/0 is not the client's to lose here.
  forEachHead<rt_head, RibKey>(con, afIndex, true, [&](rt_head *rth) {
    if (rth->rtmh_rte) rtmDeleteConRte(vrfId, afIndex, con, rth, cid, RT_SUBTYPE_ANY, 0, 0);
  });
  rtmRibDeferWakeups(false);
  qor_radix_tree *gbc = rtmGbcRibGetTree(afIndex, vrfId);
  if (!gbc) {
    if (rtmdebug & kDebugRib) qorDebugPrintf("\r\n[af:%x] rtmGbcRibGetTree failed", afIndex);
    return;
  }
  // Only the mark goes: a GBC head without marks stays until a delete or a clear of the RIB.
  if (proto < RTM_GBC_PROTOS)
    forEachHead<rt_gbc_head, GbcKey>(gbc, afIndex, false, [&](rt_gbc_head *gh) { gh->gbc_proto[proto] = 0; });
}

void rtmClearAllProtoRoutes(uint8_t afIndex, rt_client *rtc) {
  if (!rtc || !clearsUnicast(rtc->rtc_proto)) return;
  // Every VRF the client has a record in: BGP and VRRP may put routes in VRFs other than
  // their own.
  for (uint32_t v = 0; v < MAX_VRF; ++v)
    if (g_rtmVrfInUse[v] && rtc->rtc_vrf[v]) rtmClearVrfProtoRoutes(afIndex, rtc, v);
}

// ---- Whole trees --------------------------------------------------------------------------

void rtmClearRib(uint8_t afIndex, uint32_t vrfId) {
  if (afIndex >= RTM_MAX_AFINDEX) return;
  qor_radix_tree *main = rtmRibGetTree(afIndex, vrfId);
  if (main) rtmRpfNhDeleteAll(afIndex, vrfId);
  tearDown(afIndex, vrfId, main, EntryRefs::NextHopsAndLeak, true);
  // The reverse-path tables keep their next hops in a database of their own, emptied above.
  tearDown(afIndex, vrfId, rtmRpfRibGetTree(afIndex, vrfId), EntryRefs::None, false);
  tearDown(afIndex, vrfId, rtmMstaticRibGetTree(afIndex, vrfId), EntryRefs::None, false);
  // Connected entries hold references in the main next-hop database like main entries do.
  tearDown(afIndex, vrfId, rtmConRibGetTree(afIndex, vrfId), EntryRefs::NextHops, false);
  if (qor_radix_tree *gbc = rtmGbcRibGetTree(afIndex, vrfId))
    forEachHead<rt_gbc_head, GbcKey>(gbc, afIndex, false, [&](rt_gbc_head *gh) {
      qorRadixRemove(gbc, &gh->gbc_rdx);
      RTM_POOL_FREE(gh);
    });
  // The poll tree's records are the poller's.
  if (rtmPollRibGetTree(afIndex, vrfId)) rtmPollRibClear(afIndex, vrfId);
}

void rtmClearRibRouteSpecific(uint8_t afIndex, uint32_t vrfId, const uint8_t *prefix, uint8_t prefixlen) {
  qor_radix_tree *tree = rtmRibGetTree(afIndex, vrfId);
  if (!tree || !prefix) return;
  if (rt_head *rth = rtmHeadOf(qorRadixGetExact(tree, prefix, prefixlen)))
    freeHead(afIndex, vrfId, tree, rth, EntryRefs::NextHopsAndLeak);
}

// ---- Holder bits --------------------------------------------------------------------------

namespace {
struct HolderBit {
  uint32_t vrfId;
  uint8_t afIndex;
  qor_radix_tree *tree;
  uint8_t byte, bit;
  uint64_t heads;  // heads met
};

int clearHolderBit(qor_radix_hdr *h, void *arg) {
  HolderBit &w = *static_cast<HolderBit *>(arg);
  ++w.heads;
  rt_head *rth = rtmHeadOf(h);
  if (!(rth->rtmh_redlist[w.byte] & w.bit)) return 0;
  rth->rtmh_redlist[w.byte] &= uint8_t(~w.bit);
  // A withdrawn prefix that only this client still held: no walker will meet it again unless
  // it moves, and the walker that meets it with no holder left frees it.
  if (!rth->rtmh_rte &&
      std::all_of(std::begin(rth->rtmh_redlist), std::end(rth->rtmh_redlist), [](uint8_t b) { return b == 0; }))
    updateRibVer(w.vrfId, w.afIndex, w.tree, rth);
  return 0;
}
}  // namespace

void rtmClearDownloadBit(uint8_t afIndex, rt_client *rtc) {
  if (!rtc || rtc->rtc_cid >= MAX_RTM_CLEINTS) return;
  if (rtmdebug & kDebugDownload) {
    char name[41];
    qorDebugPrintf("\r\nClearing dnld bit for %s", rtmClientName(rtc, name));
  }
  for (uint32_t v = 0; v < MAX_VRF; ++v) {
    qor_radix_tree *tree = rtmRibGetTree(afIndex, v);
    if (!tree) continue;
    HolderBit w{v, afIndex, tree, uint8_t(rtc->rtc_cid >> 3), uint8_t(1u << (rtc->rtc_cid & 7)), 0};
    const uint64_t heads = tree->rdx_heads;
    rtmRibDeferWakeups(true);
    // Every head of a main tree is on its change list, which runs mostly in the order the heads
    // were made, that is through memory: at a million heads that is several times faster than
    // the tree's order, each step of which is a miss. A head moved to the tail here has a
    // version the walk does not reach, and nothing here removes one. Should the walk not meet
    // every head (a version wrap restarting the list cuts it short), the tree's order does
    // the rest; clearing a bit twice is harmless.
    qorRadixVersionWalk(tree, 0, clearHolderBit, &w);
    if (w.heads != heads)
      for (qor_radix_hdr *h = qorRadixGetNext(tree, nullptr); h; h = qorRadixGetNext(tree, h)) clearHolderBit(h, &w);
    rtmRibDeferWakeups(false);
  }
}

// ---- Look-up ------------------------------------------------------------------------------

uint32_t rtmGetConnectedRouteIfindex(uint8_t afIndex, const uint8_t *addr, uint32_t vrfId) {
  qor_radix_tree *tree = addr ? rtmRibGetTree(afIndex, vrfId) : nullptr;
  if (!tree) return 0;
  // The best route is the longest prefix that still has an active route: a withdrawn prefix
  // keeps its head for a while and must not hide the one that covers it.
  qor_radix_hdr *h = qorRadixGetBest(tree, addr, rtmAfKeyBits(afIndex));
  while (h && !rtmHeadOf(h)->rtmh_rte) h = qorRadixGetLessSpecific(tree, h);
  if (!h) return 0;
  const rt_entry *rte = rtmHeadOf(h)->rtmh_rte;
  if (rte->rte_proto != RTM_PROTO_CONNECTED || rte->rte_subtype == RT_INTERNAL || rte->rte_nnh == 0) return 0;
  const rt_nh *nh = rtmRteNh(rte)[0];
  if (!nh) return 0;
  if (rtmdebug & 0x80)
    qorDebugPrintf("\r\nRTM [%x] using indirect value for ifindex 0x%x for pre-arp", unsigned(vrfId),
                   unsigned(nh->rtn_ifindex));
  return nh->rtn_ifindex;
}

// ---- Start-up -----------------------------------------------------------------------------

void rtmClearInit() {
  rtmClientHooks.rtmClearVrfProtoRoutes = rtmClearVrfProtoRoutes;
  rtmClientHooks.rtmClearDownloadBit = rtmClearDownloadBit;
  rtmNhHooks.rtmGetConnectedRouteIfindex = rtmGetConnectedRouteIfindex;
}
