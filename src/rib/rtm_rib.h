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

// One route of one client on a prefix. The next-hop pointers and then the TLV block follow
// the fixed part, so one block holds the whole entry.
struct rt_entry {
  struct rt_head *rte_head;
  rt_entry *rte_next;
  uint32_t rte_cid;
  uint32_t rte_proto;
  uint32_t rte_inst;
  uint32_t rte_subtype;
  uint16_t rte_pref;
  uint16_t rte_subpref;
  uint16_t rte_wecmp;
  uint16_t rte_nnh;
  int32_t rte_metric;
  uint32_t rte_tag;
  uint64_t rte_time;
  uint8_t rte_gateway[16];
  uint32_t rte_srcVrf;
  uint16_t rte_flags;
  uint16_t rte_tlvlen;
  uint32_t rte_leak;
  uint32_t rte_vrfId;
  rt_nh *rte_nh[];  // rte_nnh of them, then rte_tlvlen bytes of TLV
};

// Bit of rte_leak: the entry was imported from another VRF.
constexpr uint32_t RTE_LEAK_IMPORTED = 0x2;

// Bytes of an entry with nnh next hops and a TLV block of tlvlen bytes.
constexpr size_t rtmRteSize(unsigned nnh, unsigned tlvlen) {
  return sizeof(rt_entry) + nnh * sizeof(rt_nh *) + tlvlen;
}
inline uint8_t *rtmRteTlv(rt_entry *rte) { return reinterpret_cast<uint8_t *>(rte->rte_nh + rte->rte_nnh); }

// One prefix of a tree. The radix header comes first; the prefix bytes (4 or 16) last, so an
// IPv4 head does not carry the 12 bytes an IPv6 prefix needs.
struct rt_head {
  qor_radix_hdr rtmh_rdx;  // radix link, rtmh_key, rtmh_version, change-list links
  uint64_t rtmh_time;
  uint8_t rtmh_redlist[8];
  uint8_t *rtmh_expmap;
  uint8_t *rtmh_impmap;
  rt_entry *rtmh_rte;
  uint32_t rtmh_exported;
  uint32_t rtmh_delProto;
  uint32_t rtmh_delSubtype;
  uint32_t rtmh_delCid;
  uint32_t rtmh_vrrp;
  uint8_t rtmh_delExported;
  uint8_t rtmh_prefixlen;
  uint8_t rtmh_prefix[];
};

// Bytes of a head of the family.
constexpr size_t rtmHeadSize(unsigned afIndex) { return sizeof(rt_head) + rtmAfAddrLen(afIndex); }

inline rt_head *rtmHeadOf(qor_radix_hdr *h) { return reinterpret_cast<rt_head *>(h); }
inline uint64_t &rtmh_version(rt_head *rth) { return rth->rtmh_rdx.rtmh_version; }

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

// Clearing a RIB's routes; the full clearing paths come with route clearing.
void rtmClearRib(uint8_t afIndex, uint32_t vrfId);

// Back to a clean start (tests): destroys every table set.
void rtmRibReset();
