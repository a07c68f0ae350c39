// The RIB: route records and the per-VRF table sets.
//
// Each VRF has a table set (`rt_inet_tbl[vrfId]`) with six trees per address family: main,
// connected, poll, GBC, RPF and multicast static. A prefix of a tree is one `rt_head`; each
// client's opinion on that prefix is one `rt_entry` on the head's ordered list, and the first
// entry is the active route. Every change of an active route goes through updateRibVer, which
// moves the head to the tail of the tree's change list with a new version and wakes the worker
// threads that serve themselves from that list.
#pragma once

#include <cstddef>
#include <cstdint>

#include "radix/qor_radix.h"
#include "rtm/rtm_types.h"

struct rt_nh;  // a next-hop record of the next-hop database

// One route of one client on a prefix, in one block: the fixed part, the gateway (4 or 16
// bytes), the next-hop pointers, then the TLV block.
//
// A million routes make the RIB, so the block is packed to fit a 64-byte size class with one
// IPv4 next hop (56 fixed, 8 per next hop). Fields are as narrow as their values allow: a
// handle is below 64, a protocol id below 256 (registration refuses others), a VRF id below
// 65536, a next-hop count at most 65. The add path refuses a route whose subtype or source VRF
// would not fit, so nothing is ever stored truncated. The gateway sits in the tail of the fixed
// part for IPv4, which moves the next-hop array by family: reach it through rtmRteNh().
struct rt_entry {
  struct rt_head *rte_head;  // set by rte_insert
  rt_entry *rte_next;
  uint64_t rte_time;         // tick at which the entry was made
  int32_t rte_metric;
  uint32_t rte_tag;
  uint32_t rte_inst;         // the client's instance
  uint16_t rte_pref;
  uint16_t rte_srcVrf;
  uint16_t rte_vrfId;        // VRF of the tree that holds it
  uint16_t rte_flags;        // low 16 bits of rtp_flags
  uint16_t rte_tlvlen;
  uint16_t rte_subtype;
  uint8_t rte_cid;
  uint8_t rte_proto;
  uint8_t rte_nnh;
  uint8_t rte_leak : 2;      // RTE_LEAK_IMPORTED; the value 2 alone marks an imported route
  uint8_t rte_wecmp : 1;     // eligible for weighted ECMP
  uint8_t rte_af6 : 1;       // the IPv6 form (16-byte gateway)
  uint8_t rte_wide : 1;      // room for RTE_WIDE_NH next hops (unnumbered entries)
  uint8_t rte_gateway[];     // 4 or 16 bytes

  // Nothing in the daemon sets a sub-preference on an entry: it reads as 0 everywhere.
  static constexpr uint16_t rte_subpref = 0;
};
static_assert(offsetof(rt_entry, rte_gateway) == 52 && sizeof(rt_entry) == 56);

// Bit of rte_leak: the entry was imported from another VRF.
constexpr uint32_t RTE_LEAK_IMPORTED = 0x2;
// Next hops an unnumbered entry has room for: they are added one by one.
constexpr unsigned RTE_WIDE_NH = RTP_MAX_NH + 1;

// Offset of the next-hop array: behind the gateway, pointer-aligned.
constexpr size_t rtmRteNhOffset(unsigned afIndex) {
  return (offsetof(rt_entry, rte_gateway) + rtmAfAddrLen(afIndex) + 7) & ~size_t(7);
}
// Bytes of an entry with room for nnh next hops and a TLV block of tlvlen bytes.
constexpr size_t rtmRteSize(unsigned afIndex, unsigned nnh, unsigned tlvlen) {
  return rtmRteNhOffset(afIndex) + nnh * sizeof(rt_nh *) + tlvlen;
}
static_assert(rtmRteSize(0, 1, 0) == 64 && rtmRteSize(2, 1, 0) == 80);

inline unsigned rtmRteAf(const rt_entry *rte) { return rte->rte_af6 ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX; }
inline rt_nh **rtmRteNh(rt_entry *rte) {
  return reinterpret_cast<rt_nh **>(reinterpret_cast<uint8_t *>(rte) + rtmRteNhOffset(rtmRteAf(rte)));
}
inline rt_nh *const *rtmRteNh(const rt_entry *rte) {
  return reinterpret_cast<rt_nh *const *>(reinterpret_cast<const uint8_t *>(rte) + rtmRteNhOffset(rtmRteAf(rte)));
}
// Slots of the next-hop array: rte_nnh, or RTE_WIDE_NH for an unnumbered entry.
inline unsigned rtmRteNhRoom(const rt_entry *rte) { return rte->rte_wide ? RTE_WIDE_NH : rte->rte_nnh; }
// The TLV block, behind the next-hop array.
inline uint8_t *rtmRteTlv(rt_entry *rte) { return reinterpret_cast<uint8_t *>(rtmRteNh(rte) + rtmRteNhRoom(rte)); }
inline const uint8_t *rtmRteTlv(const rt_entry *rte) {
  return reinterpret_cast<const uint8_t *>(rtmRteNh(rte) + rtmRteNhRoom(rte));
}

// One prefix of a tree. The radix header comes first: it is the head's node in the tree, so a
// prefix costs the tree nothing more but the internal nodes where prefixes part, and it keeps
// the prefix length, the head's one-bit marks and, for IPv4, the prefix itself (the node's key
// bytes). An IPv4 head is 72 bytes; an IPv6 head adds its 16-byte prefix behind. Reach the
// prefix, its length and the marks through the functions below. What only route leaking needs
// (the leak maps and the record of a withdrawn export) lives in a side record made on first
// need: see rtmHeadExtGet.
struct rt_head {
  qor_radix_hdr rtmh_rdx;     // the node, the key, rtmh_version, change-list links
  struct rt_entry *rtmh_rte;  // the active route first; null on a naked head
  uint64_t rtmh_time;         // tick of the last change of the active route
  uint8_t rtmh_redlist[8];    // by cid: bit (cid & 7) of byte (cid >> 3)
  uint8_t rtmh_prefix6[];     // the masked prefix of an IPv6 head
};
static_assert(sizeof(rt_head) == 72);

// The head's one-bit marks, kept among the node's flags.
constexpr uint8_t RTMH_EXPORTED = 0x08;      // the active route is exported to other VRFs
constexpr uint8_t RTMH_DEL_EXPORTED = 0x10;  // an exported route went away: importers must withdraw it
constexpr uint8_t RTMH_VRRP = 0x20;          // a VRRP client has added a route here
constexpr uint8_t RTMH_EXT = 0x40;           // the head has a side record
static_assert((RTMH_EXPORTED | RTMH_DEL_EXPORTED | RTMH_VRRP | RTMH_EXT) ==
              ((RTMH_EXPORTED | RTMH_DEL_EXPORTED | RTMH_VRRP | RTMH_EXT) & QOR_RADIX_USER_BITS));

inline bool rtmhHas(const rt_head *rth, uint8_t mark) { return qorRadixUserBit(&rth->rtmh_rdx, mark); }
inline void rtmhSet(rt_head *rth, uint8_t mark, bool on = true) { qorRadixSetUserBit(&rth->rtmh_rdx, mark, on); }

// What a head carries for route leaking only.
struct rt_head_ext {
  uint8_t *rtmh_expmap;  // to which importers the prefix is leaked
  uint8_t *rtmh_impmap;  // from which exporters
  uint32_t rtmh_delProto;    // the exported route that went away
  uint32_t rtmh_delSubtype;
  uint32_t rtmh_delCid;
};

// Bytes of a head of the family.
constexpr size_t rtmHeadSize(unsigned afIndex) {
  return sizeof(rt_head) + (rtmAfAddrLen(afIndex) > 4 ? rtmAfAddrLen(afIndex) : 0);
}
static_assert(rtmHeadSize(0) == 72 && rtmHeadSize(2) == 88);

inline rt_head *rtmHeadOf(qor_radix_hdr *h) { return reinterpret_cast<rt_head *>(h); }
inline uint64_t &rtmh_version(rt_head *rth) { return rth->rtmh_rdx.rtmh_version; }
// The masked prefix (4 or 16 bytes) and its length.
inline uint8_t *rtmh_prefix(rt_head *rth) { return qorRadixKey(&rth->rtmh_rdx); }
inline const uint8_t *rtmh_prefix(const rt_head *rth) { return qorRadixKey(&rth->rtmh_rdx); }
inline uint8_t rtmh_prefixlen(const rt_head *rth) { return uint8_t(qorRadixBit(&rth->rtmh_rdx)); }
// 11 if a VRRP client has added a route here, else 0.
inline uint32_t rtmh_vrrp(const rt_head *rth) { return rtmhHas(rth, RTMH_VRRP) ? RTM_PROTO_VRRP : 0; }

// Clears a head of the family and sets its prefix (masked to prefixlen) and length; the head
// is then ready for qorRadixInsert or for a message that names a prefix.
void rtmHeadInit(rt_head *rth, unsigned afIndex, const uint8_t *prefix, uint8_t prefixlen);

// The side record of a head, or null if it has none.
rt_head_ext *rtmHeadExt(const rt_head *rth);
// The side record, made (zeroed) if it does not exist; null when there is no memory.
rt_head_ext *rtmHeadExtGet(rt_head *rth);
// A new head of the main or connected tree for the family, cleared, with its key set to the
// masked prefix; null when the pool is empty.
rt_head *rtmHeadAlloc(uint8_t afIndex, const uint8_t *prefix, uint8_t prefixlen);
// Frees a head that is out of its tree, with its side record.
void rtmHeadFree(rt_head *rth);

// Trees of a table set, in the order rtmRibCreate makes them.
enum RtmTreeKind : uint8_t { RTM_TREE_MAIN, RTM_TREE_CON, RTM_TREE_POLL, RTM_TREE_GBC, RTM_TREE_RPF, RTM_TREE_MSTATIC, RTM_TREE_KINDS };

// The table set of a VRF.
struct rt_inet_tbl_t {
  uint32_t ribState;  // 1 in use
  char mainName[3][49];
  qor_radix_tree *mainTree[3];
  char conName[3][53];
  qor_radix_tree *conTree[3];
  char pollName[3][53];
  qor_radix_tree *pollTree[3];
  char gbcName[3][53];
  qor_radix_tree *gbcTree[3];
  char rpfName[3][53];
  qor_radix_tree *rpfTree[3];
  char mstaticName[3][53];
  qor_radix_tree *mstaticTree[3];
};

extern rt_inet_tbl_t *rt_inet_tbl[MAX_VRF];
extern uint8_t g_rtmVrfInUse[MAX_VRF];

int rtmRibRtInetAllocate(uint32_t vrfId);
void rtmRibRtInetDeAllocate(uint32_t vrfId);
rt_inet_tbl_t *rtmRib(uint8_t afIndex, uint32_t vrfId);
qor_radix_tree *rtmRibGetTree(uint8_t afIndex, uint32_t vrfId);
qor_radix_tree *rtmConRibGetTree(uint8_t afIndex, uint32_t vrfId);
qor_radix_tree *rtmPollRibGetTree(uint8_t afIndex, uint32_t vrfId);
qor_radix_tree *rtmGbcRibGetTree(uint8_t afIndex, uint32_t vrfId);
qor_radix_tree *rtmRpfRibGetTree(uint8_t afIndex, uint32_t vrfId);
qor_radix_tree *rtmMstaticRibGetTree(uint8_t afIndex, uint32_t vrfId);
int rtmRibCreate(uint32_t vrfId, const char *main, const char *con, const char *poll, const char *gbc,
                 const char *rpf, const char *mstatic);
int rtmRibDelete(uint32_t vrfId);
int updateRibVer(uint32_t vrfId, uint8_t afIndex, qor_radix_tree *tree, rt_head *rth);
// Between rtmRibDeferWakeups(true) and (false) the worker wake-ups of updateRibVer are
// gathered and given once at the end (pairs nest). Only for stretches that do not yield.
void rtmRibDeferWakeups(bool on);

// ---- Order of the entries of a head (the election) ----------------------------------------

// -1 if rte1 stands ahead of rte2, 1 if behind; never 0. afIndex serves to print addresses.
int rtmCompareRoutes(uint8_t afIndex, const rt_entry *rte1, const rt_entry *rte2);
// Links rte_new in its place (always passed as the first argument of the comparison) and
// returns the first entry.
rt_entry *rte_insert(uint8_t afIndex, rt_head *rtmh, rt_entry *rte_new);
// First entry of client `cid` with that subtype (255: any) and, if matchVrf is 1, that source
// VRF (matchVrf 0: any; other values match nothing); or null.
rt_entry *rte_find(rt_head *rtmh, uint32_t cid, uint32_t subtype, uint8_t matchVrf, uint32_t srcVrf);
// Unlinks rte (not freed) and returns the first entry.
rt_entry *rte_remove(rt_head *rtmh, rt_entry *rte);

// ---- Route add and delete ------------------------------------------------------------------

// The handler of MT_RTM_UPD_ROUTE: checks that the whole batch lies inside the received bytes,
// then adds and deletes its routes in order. A failed route does not end the batch.
int rtmUpdateRouteIPv4(uint8_t *msg, uint32_t len, struct rt_client *rtc);
// Addresses of a received rt_parms are already byte strings in network order here, so the
// conversion of the original big-endian host has nothing to do.
inline void rtmConvertRtpParams(uint8_t, uint8_t *) {}

// A route of client `cid` in family 0 or 2, as an rt_parms (rtp points at its first byte and
// the record holds rtp_nnh next hops and rtp_tlvlen TLV bytes behind them). Results:
// RTM_SUCCESS (also for a route dropped on purpose), RTM_FAILURE, RTM_NO_MEMORY,
// RTM_ROUTE_LIMIT. rtmDelRouteIPv4 may rewrite rtp_subtype.
int rtmAddRouteIPv4(uint8_t afIndex, uint32_t cid, uint8_t *rtp);
int rtmDelRouteIPv4(uint8_t afIndex, uint32_t cid, uint8_t *rtp);
// Removes the entries of `cid` (subtype 255: all of them) from a main-tree head, with counters,
// next hops, leak marks and the version. 0 if at least one went, 1 if none matched.
int rtmDeleteRte(uint32_t vrfId, uint8_t afIndex, qor_radix_tree *tree, rt_head *rth, uint32_t cid,
                 uint32_t subtype, uint32_t proto, uint8_t matchVrf, uint32_t srcVrf);
// The same on a connected-tree head.
int rtmDeleteConRte(uint32_t vrfId, uint8_t afIndex, qor_radix_tree *tree, rt_head *rth, uint32_t cid,
                    uint32_t subtype, uint8_t matchVrf, uint32_t srcVrf);
// Takes one next hop off an unnumbered entry: 0 (the entry is to go as a whole), 1 (error) or
// RTM_NH_REMOVED.
int rtmUpdateUnNumberedRte(uint32_t vrfId, uint8_t afIndex, qor_radix_tree *tree, rt_head *rth, uint32_t cid,
                           uint8_t *rtp);
// False when the route is not for the main RIB: a host route whose only next hop is itself goes
// to the GBC RIB instead (added or deleted here, by addFlag).
bool rtmIsRouteValid(uint8_t afIndex, uint32_t cid, uint8_t *rtp, int addFlag);

// A hint for batches: starts fetching what adding or deleting this route will read first in
// the main tree (stage 0, then the later stages for the same route some routes later: see
// qorRadixPrefetch). No effect on the RIB; cheap enough to call for every route of a batch.
//
// How far ahead a batch issues each stage: stage s for the route rtmPrefetchAhead[s] places
// on, so that what each stage reads was fetched by the stage before long enough ago to have
// arrived.
constexpr unsigned RTM_PREFETCH_STAGES = 4;
constexpr unsigned rtmPrefetchAhead[RTM_PREFETCH_STAGES] = {16, 12, 8, 4};
// Runs apply(i) for i from 0 to n - 1, each stage of prefetch(j, stage) issued for route j
// rtmPrefetchAhead[stage] routes before its apply: the one order both the route-update
// handler and the route benchmark use.
template <class Prefetch, class Apply>
void rtmPrefetchPipeline(size_t n, Prefetch &&prefetch, Apply &&apply) {
  for (unsigned st = 0; st < RTM_PREFETCH_STAGES; ++st)
    for (size_t k = 0; k < rtmPrefetchAhead[st] && k < n; ++k) prefetch(k, st);
  for (size_t i = 0; i < n; ++i) {
    for (unsigned st = 0; st < RTM_PREFETCH_STAGES; ++st)
      if (i + rtmPrefetchAhead[st] < n) prefetch(i + rtmPrefetchAhead[st], st);
    apply(i);
  }
}
void rtmRoutePrefetch(uint8_t afIndex, uint32_t cid, const uint8_t *rtp, int stage);
// The same for a batch whose tree is known: rtmRouteBatchTree gives the main tree all of a
// client's routes go to, or null when its routes name their VRF one by one (then use the form
// above).
qor_radix_tree *rtmRouteBatchTree(uint8_t afIndex, uint32_t cid);
void rtmRoutePrefetchIn(qor_radix_tree *tree, uint8_t afIndex, const uint8_t *rtp, int stage);

// ---- Connected and GBC RIBs ----------------------------------------------------------------

// Takes over `rte` (inserts or frees it) into the connected tree: 0, 1 or 5.
int rtmAddRouteProtoCon(uint8_t afIndex, uint32_t cid, rt_entry *rte, uint8_t *rtp);
int rtmDelRouteProtoCon(uint8_t afIndex, uint32_t cid, uint8_t *rtp);
int rtmGbcAddRouteIPv4(uint8_t afIndex, uint32_t cid, uint8_t *rtp);
int rtmGbcDelRouteIPv4(uint8_t afIndex, uint32_t cid, uint8_t *rtp);

// A head of the GBC tree: which protocols hold a host route that has no usable next hop.
constexpr unsigned RTM_GBC_PROTOS = 21;
struct rt_gbc_head {
  qor_radix_hdr gbc_rdx;
  uint64_t gbc_time;  // tick of the last add
  uint8_t gbc_proto[RTM_GBC_PROTOS];
  uint8_t gbc_prefixlen;
  uint8_t gbc_prefix[];
};
constexpr size_t rtmGbcHeadSize(unsigned afIndex) {
  return (offsetof(rt_gbc_head, gbc_prefix) + rtmAfAddrLen(afIndex) + 7) & ~size_t(7);
}

// Registers the route handlers (from rtmTaskInit).
void rtmRibInit();

// ---- Clearing ----------------------------------------------------------------------------

struct rt_client;
// Removes every route of one client in one VRF (all VRFs the client serves), with versions, so
// the walkers see the withdrawals. Only for protocols whose routes live in these trees.
void rtmClearVrfProtoRoutes(uint8_t afIndex, rt_client *rtc, uint32_t vrfId);
void rtmClearAllProtoRoutes(uint8_t afIndex, rt_client *rtc);
// Empties every tree of the VRF and family, heads and entries back to their pools, next hops
// released, without versions: the caller has stopped the workers and remakes the walkers.
void rtmClearRib(uint8_t afIndex, uint32_t vrfId);
// Frees one head of the main tree with its entries (no version).
void rtmClearRibRouteSpecific(uint8_t afIndex, uint32_t vrfId, const uint8_t *prefix, uint8_t prefixlen);
// Clears the client's holder bit in every head of every main tree.
void rtmClearDownloadBit(uint8_t afIndex, rt_client *rtc);
// The interface of the connected route that covers a host address, or 0.
uint32_t rtmGetConnectedRouteIfindex(uint8_t afIndex, const uint8_t *addr, uint32_t vrfId);
// Plugs the clearing paths into the client and next-hop hooks (from rtmRibInit).
void rtmClearInit();

// Back to a clean start (tests): destroys every table set, forgets the side records of heads
// and the VRF cache records, and arms the out-of-memory warning again.
void rtmRibReset();
void rtmRibRouteReset();
