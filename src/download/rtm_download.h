// The download: version walks that keep every FIB-side client level with the active routes,
// and the route messages they are given.
//
// Each client remembers per VRF the version of the main tree up to which it has been served;
// the download thread (rtmRteDn) walks the tree's change list from there and bundles every
// changed head into the client's open route message. Clients that stand at the same version
// everywhere form the super group of their family, served by one walk of the family's dummy
// client whose messages are copied to each member. A per-head bitmap (rtmh_redlist, bit by
// cid) says who holds a prefix; a head whose route is gone stays in the tree until the last
// holder has been told, and the walker that finds its bitmap empty frees it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "radix/qor_radix.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_types.h"
#include "rtm/rtm_wire.h"

struct rt_client;
struct rt_head;

// ---- Route messages to FIB clients -------------------------------------------------------
//
// A message is the 148-byte header below, then commands, each followed by its next hops (and,
// in an IPv4 add, the route's TLV block). The two families lay their commands out differently;
// the bundler reads the layout of its family from RTM_FIBCMD_LAYOUT and has one code path.

constexpr size_t RTM_FIBUPD_LEN = 148;
constexpr size_t RTM_FIBUPD_OFF_ONE = 20;   // the word 1
constexpr size_t RTM_FIBUPD_OFF_TICK = 32;  // qorTickGet at creation, low word
constexpr size_t RTM_FIBUPD_OFF_ADDS = 132;
constexpr size_t RTM_FIBUPD_OFF_DELS = 136;
constexpr size_t RTM_FIBUPD_OFF_CAPACITY = 140;
constexpr size_t RTM_FIBUPD_OFF_AFINDEX = 144;  // u8
constexpr uint32_t RTM_FIBUPD_CAPACITY = 8192;

// Operations of a walk. RT_FLUSH adds nothing and sends what the open message holds.
constexpr uint32_t RT_ADD = 1;
constexpr uint32_t RT_DEL = 2;
constexpr uint32_t RT_DO_NOTHING = 12;
constexpr uint32_t RT_FLUSH = 13;

// Bundle modes: start a new message, append, append and send at once.
constexpr int RTM_BUNDLE_NEW = 1;
constexpr int RTM_BUNDLE_APPEND = 2;
constexpr int RTM_BUNDLE_SEND = 3;

// The command marker of a head that a VRRP client has touched.
constexpr uint32_t RTM_FIBCMD_MARKER_VRRP = 0xFFFFFFFFu;
constexpr uint16_t RTM_FIBCMD_NO_FIELD = 0xFFFF;

// Where the fields of one family's command and next-hop records lie.
struct rtm_fibcmd_layout {
  uint32_t mtype;
  uint16_t addrLen;
  uint16_t cmdLen, op, marker, vrfId, prefix, proto, metric, plen, nnh, tlvlen, wecmp;
  uint16_t nhLen, nhAddr, nhIfindex, nhVrfId, nhWeight;
  uint32_t sendMark;  // a message that reaches this length goes out
};

// Typed forms, so that the compiler checks the table against a real layout.
struct rtm_fibupd {
  ipc_hdr ipc;
  swp_hdr swp;
  uint8_t common[60];
  rtm::be32 zero;
  rtm::be32 addCount;
  rtm::be32 delCount;
  rtm::be32 capacity;
  uint8_t afIndex;
  uint8_t pad[3];
};
struct rtm_fibcmd_v4 {
  rtm::be32 op;
  rtm::be32 marker;
  rtm::be32 vrfId;
  uint8_t prefix[4];
  rtm::be32 proto;
  rtm::be32 metric;
  uint8_t plen;
  uint8_t nnh;
  rtm::be16 tlvlen;
  uint8_t wecmp;
  uint8_t pad[3];
};
struct rtm_fibcmd_nh_v4 {
  uint8_t addr[4];
  rtm::be32 ifindex;
  rtm::be32 vrfId;
  rtm::be32 weight;
};
struct rtm_fibcmd_v6 {
  rtm::be32 op;
  rtm::be32 vrfId;
  uint8_t prefix[16];
  uint8_t plen;
  uint8_t pad[3];
  rtm::be32 proto;
  rtm::be32 metric;
  rtm::be32 marker;
  uint8_t nnh;
  uint8_t wecmp;
  uint8_t pad2[2];
};
struct rtm_fibcmd_nh_v6 {
  uint8_t addr[16];
  rtm::be32 ifindex;
  rtm::be32 vrfId;
  rtm::be32 weight;
};

inline constexpr rtm_fibcmd_layout RTM_FIBCMD_LAYOUT[2] = {
    {MT_RTM_FIB_ROUTE, 4, 32, 0, 4, 8, 12, 16, 20, 24, 25, 26, 28, 16, 0, 4, 8, 12, 6080},
    {MT_RTM6_FIB_ROUTE, 16, 44, 0, 36, 4, 8, 28, 32, 24, 40, RTM_FIBCMD_NO_FIELD, 41, 28, 0, 16, 20, 24, 4520},
};
// afIndex 0 and 1 take the IPv4 form, 2 and 3 the IPv6 form.
constexpr const rtm_fibcmd_layout &rtmFibCmdLayout(unsigned afIndex) { return RTM_FIBCMD_LAYOUT[afIndex >= 2 ? 1 : 0]; }

namespace rtm::detail {
template <class C, class N>
constexpr bool fibCmdMatches(const rtm_fibcmd_layout &l, bool tlv) {
  return sizeof(C) == l.cmdLen && offsetof(C, op) == l.op && offsetof(C, marker) == l.marker &&
         offsetof(C, vrfId) == l.vrfId && offsetof(C, prefix) == l.prefix && sizeof(C::prefix) == l.addrLen &&
         offsetof(C, proto) == l.proto && offsetof(C, metric) == l.metric && offsetof(C, plen) == l.plen &&
         offsetof(C, nnh) == l.nnh && offsetof(C, wecmp) == l.wecmp && (tlv || l.tlvlen == RTM_FIBCMD_NO_FIELD) &&
         sizeof(N) == l.nhLen && offsetof(N, addr) == l.nhAddr && sizeof(N::addr) == l.addrLen &&
         offsetof(N, ifindex) == l.nhIfindex && offsetof(N, vrfId) == l.nhVrfId && offsetof(N, weight) == l.nhWeight;
}
}  // namespace rtm::detail
static_assert(sizeof(rtm_fibupd) == RTM_FIBUPD_LEN);
static_assert(offsetof(rtm_fibupd, addCount) == RTM_FIBUPD_OFF_ADDS && offsetof(rtm_fibupd, delCount) == RTM_FIBUPD_OFF_DELS);
static_assert(offsetof(rtm_fibupd, capacity) == RTM_FIBUPD_OFF_CAPACITY && offsetof(rtm_fibupd, afIndex) == RTM_FIBUPD_OFF_AFINDEX);
static_assert(rtm::detail::fibCmdMatches<rtm_fibcmd_v4, rtm_fibcmd_nh_v4>(RTM_FIBCMD_LAYOUT[0], true));
static_assert(offsetof(rtm_fibcmd_v4, tlvlen) == 26);
static_assert(rtm::detail::fibCmdMatches<rtm_fibcmd_v6, rtm_fibcmd_nh_v6>(RTM_FIBCMD_LAYOUT[1], false));

// MT_RTM_DNLD_CNTRL both ways: the client's request (handle, action, VRF, family), and the
// copy rtmd queues ahead of a fresh download (version word 0, action RTM_CNTRL_DNLD_BEGINS).
constexpr size_t RTM_DNLD_CNTRL_OFF_CID = 128;  // the version word in rtmd's copy
constexpr size_t RTM_DNLD_CNTRL_OFF_ACTION = 132;
constexpr size_t RTM_DNLD_CNTRL_OFF_VRFID = 136;
constexpr size_t RTM_DNLD_CNTRL_OFF_AFINDEX = 140;  // u8
constexpr uint32_t RTM_DNLD_CNTRL_LEN = 144;

// ---- Building and sending ----------------------------------------------------------------

// Writes the type, the tick, the length and the word 1 of a message rtmd builds. Always 0.
int rtmDownloadBuildIpcHdr(uint8_t *buf, uint32_t msgType, uint32_t len);
// Bundles `head` with operation `op` into the client's open message *localBuf (null: none
// open), per `mode`. The client is a real client or the family's dummySuperClient. 0, 1 on
// failure, 5 when no buffer could be had. *localBuf is null after a send. Only the IPv6 form
// leaves out connected routes (subtype 1) other than the link-local block.
int rtmDownloadBundleRouteIPv4(rt_client *client, uint32_t op, uint8_t **localBuf, rt_head *head, int mode,
                               uint32_t vrfId);
int rtmDownloadBundleRouteIPv6(rt_client *client, uint32_t op, uint8_t **localBuf, rt_head *head, int mode,
                               uint32_t vrfId);
// Hands a built message to the client's download queue; for the dummy client, a copy to each
// member of the family's super group. 0, 1 or 5. Whatever the result, the buffer is no longer
// the caller's: a queue owns it, or it has been freed.
int rtmDownloadSend(uint8_t afIndex, rt_client *client, uint8_t *buf, uint32_t len, uint32_t vrfId);

// ---- The thread --------------------------------------------------------------------------

// Set by another thread that must reset a walk of (vrfId, afIndex); read at every head.
extern volatile uint32_t rtmDnldRestart[MAX_VRF][3];
// The version ceilings of the walks under way, regular and super.
extern uint64_t curDnldThrMaxTreeVer[MAX_VRF][3], superMaxTreeVer[MAX_VRF][3];
// Hand-overs to the poll thread.
extern uint32_t rtmdnldpollresume;
// Non-zero during the audit of a warm restart: the thread rests meanwhile.
extern uint32_t g_rtmAuditInProgress;

void rtmDownloadMain(void *arg);
// One pass over every VRF in use and both unicast families; 1 when the thread may rest. The
// thread's body calls it; tests may call it from the main task.
int rtmDownloadPass();

// The callbacks of the download walks. A deleted prefix that no client holds any more is freed
// when the walk that called back returns, together with the others of that walk.
int rtmDownloadWalkCB(qor_radix_hdr *head, void *user);
int rtmSuperDownloadWalkCB(qor_radix_hdr *head, void *user);
// 1 if the head's route must not go to this client (the BGP filter of IPM, IPM6 and LDP).
int rtmFilterRouteCheck(uint8_t afIndex, rt_head *head, rt_client *client);
// Leaves in rtc_qState 1 above `high` messages, 0 below `low`, 2 between (the marks included).
void rtmDownloadCkSwpQlen(rt_client *client, int high, int low);
// The download queue of the super member with the longest queue (ties: the earliest).
uint32_t rtmGetLargestSwpQ(uint8_t afIndex);
void rtmUpdateVersionSuperMembers(uint32_t vrfId, uint8_t afIndex);
void rtmSetBitSuperMembers(uint8_t afIndex, rt_head *head);
void rtmClearBitSuperMembers(uint8_t afIndex, rt_head *head);
// Forgets that the client holds anything in VRF 0 of the family.
void rtmDownloadClearClientBit(uint8_t afIndex, rt_client *client);
// Action 10 sets `mask` in the client's first rule byte of the VRF and wakes the thread,
// action 11 clears it; anything else, or a VRF above 512, does nothing.
void rtmDownloadRuleChange(uint8_t afIndex, rt_client *client, uint8_t mask, uint32_t action, uint32_t vrfId);
// MT_RTM_DNLD_CNTRL after the frame's checks: start (1) or stop (0) the download of a VRF.
void rtmDownloadControl(const uint8_t *msg, rt_client *client);
// Failure callback of the download queues.
void rtmDownloadErrCB(uint32_t queue, uint32_t error);
// Makes the thread drop its walk of (vrfId, afIndex): returns once the thread rests. Never on
// the download thread itself.
void rtmClearDownloadThread(uint32_t vrfId, uint8_t afIndex);
// Puts every head of VRF 0 whose active route is BGP on the change list again, so that a
// filter change reaches the clients through their ordinary walks.
void updateBgpRoutesInRib(uint8_t afIndex);

// The message handler and the client hooks (from rtmTaskInit).
void rtmDownloadInit();
// Back to a clean start (tests).
void rtmDownloadReset();
