// The filter state of the download clients, and the two ways a client's routes are emptied:
// a flush (a protocol takes its own routes back) and a clear (the operator's `clear ip route`).
//
// Filter. Download clients of IPM, IPM6 and LDP may be kept from BGP routes; the state is
// global (rtmCurrentFilterState) and each client holds a copy that the download thread reads.
// A change of state moves filtered clients off the super list (they can no longer share the
// group's walk) and clears VRF 0 so that everyone is served afresh under the new rule.
//
// Clear. Clearing every route of a VRF stops each worker through its restart flag, tears the
// VRF's trees down, and asks each protocol of the VRF to send its routes again, with a flush
// message carrying a key. Until a protocol answers with that key its adds and deletes for the
// VRF are dropped (rvi_blocked): they would belong to the table that was cleared. FIB agents
// are told to forget what they hold for the VRF and are given the new table from the start.
// Clearing one prefix goes through the ordinary delete path instead, so the walkers carry the
// withdrawal to the agents.
#include <cstring>

#include "clients/rtm_client.h"
#include "download/rtm_download.h"
#include "frame/rtm_cfg_sync.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "interfaces/rtm_if.h"
#include "log/qor_log.h"
#include "nexthop/rtm_nh.h"
#include "poller/rtm_poll.h"
#include "redist/rtm_redist.h"
#include "rib/rtm_rib.h"
#include "rpf/rtm_rpf.h"
#include "rtm/rtm_clear_msgs.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_wire.h"
#include "static/rtm_static.h"
#include "swp/qor_swp.h"
#include "timer/qor_timer.h"

using rtm::ld32;
using rtm::ld8;
using rtm::st32;
using rtm::st8;

uint32_t rtmDownloadBgpRoutesToIpm1[3];
uint32_t rtmExpClrRteKey[3][MAX_VRF];

// From rtm_client.cpp.
void rtmClientMakeWalkers(rt_client *rtc, uint32_t vrfId, bool withConnected);

namespace {

constexpr int kSevInfo = 15;
// Configuration lines of this file, one class; the key is the family byte (and 0x80 for the
// line of IPM instance 1), an empty key is the separator ahead of them.
constexpr uint32_t kCfgClassFib = 176;

bool rowOk(uint8_t af) { return af == RTM_IPV4UNI_AFINDEX || af == RTM_IPV6UNI_AFINDEX; }
bool isIpmOne(const rt_client &c) {
  return (c.rtc_proto == RTM_PROTO_IPM || c.rtc_proto == RTM_PROTO_IPM6) && c.rtc_instance == 1;
}
// Protocols told of a clear: the routing protocols with a redistribution queue.
bool toldOfClear(uint32_t proto) { return proto >= RTM_PROTO_OSPF && proto <= 23; }

template <class F>
void forEachActive(uint8_t af, F f) {
  if (!rowOk(af)) return;
  for (rt_client &c : rt_client_tbl[af])
    if (c.rtc_state == RTC_STATE_ACTIVE) f(c);
}

template <class F>
void forEachVrf(uint32_t vrfId, F f) {
  if (vrfId == ALL_VRF_ID) {
    for (uint32_t v = 0; v < MAX_VRF; ++v)
      if (g_rtmVrfInUse[v]) f(v);
  } else if (vrfId < MAX_VRF && g_rtmVrfInUse[vrfId]) {
    f(vrfId);
  }
}

// The clients of a clear of every route of a VRF: those whose routes were in it.
bool qualifiesForClear(const rt_client &c, uint8_t af, uint32_t vrfId) {
  const uint32_t p = c.rtc_proto;
  if (af == RTM_IPV6UNI_AFINDEX && p != RTM_PROTO_OSPF && p != RTM_PROTO_ISIS && p != RTM_PROTO_BGP &&
      p != RTM_PROTO_VRRP && p != RTM_PROTO_OTM && p != 23)
    return false;
  if (p == RTM_PROTO_TNLMGR) return false;
  return c.rtc_vrfId == vrfId || (c.rtc_vrfId == ALL_VRF_ID && p != RTM_PROTO_OFM) || p == RTM_PROTO_VRRP;
}

// Tells an agent to forget what it holds for the VRF of the family: it is the same marker
// that opens a fresh download, so an agent needs nothing new to take the table afresh.
int rtmSendFibClearMarker(uint32_t queue, uint32_t vrfId, uint32_t cid, uint8_t af) {
  auto *m = static_cast<uint8_t *>(RTM_POOL_ALLOC(RTM_MEM_TAG_DNLD_CTRL, RTM_IPC_BUF_SIZE, RTM_SWP_DNLD_POOL));
  if (!m) {
    qorSysErr(rtmevkey, 0, 0x148002, 0, "RTM: rtmSendFibClearMarker", cid);
    return RTM_FAILURE;
  }
  rtmDownloadBuildIpcHdr(m, MT_RTM_DNLD_CNTRL, RTM_DNLD_CNTRL_LEN);
  st32(m, RTM_DNLD_CNTRL_OFF_ACTION, RTM_CNTRL_DNLD_BEGINS);
  st32(m, RTM_DNLD_CNTRL_OFF_VRFID, vrfId);
  st8(m, RTM_DNLD_CNTRL_OFF_AFINDEX, af);
  if (qorSwpEnqueue(queue, m, RTM_DNLD_CNTRL_LEN) != QOR_SWP_OK) {
    qorSysErr(rtmevkey, 0, 0x14800C, 0, "RTM: rtmSendFibClearMarker", cid, queue);
    RTM_POOL_FREE(m);
    return RTM_FAILURE;
  }
  return RTM_SUCCESS;
}

// A download client's table of the VRF is sent again from the start.
void restartDownload(rt_client &c, uint8_t af, uint32_t vrfId) {
  forEachVrf(vrfId, [&](uint32_t v) {
    rtClientVrfInfo *rvi = c.rtc_vrf[v];
    if (!rvi) return;
    rvi->rvi_version = 0;
    rvi->rvi_conVersion = 0;
    rtmClientMakeWalkers(&c, v, true);
    rtmTicUpdate[af][v] = 1;
  });
}

void resetQueueStates(rt_client &c) {
  c.rtc_dnldState = c.rtc_redistState = RTC_Q_REGISTERED;
  c.rtc_dnldSpare = c.rtc_redistSpare = 0;
}

// The configuration line under a key of the class: stored (with the separator ahead of the
// class) or removed, and mirrored to the standby either way; a removal is mirrored as
// `undoText`, or as the "no " form of the line when there is none.
void storeLine(uint8_t keyByte, const char *text, bool present, const char *undoText = nullptr) {
  const uint32_t handle = uint32_t(rtmPkey);
  qorCfgRecord rec;
  qorCfgRecInit(&rec, kCfgClassFib);
  qorCfgRecSetKey(&rec, &keyByte, 1);
  qorCfgRecSetText(&rec, text);
  qorCfgRecord sep;
  qorCfgRecInit(&sep, kCfgClassFib);
  qorCfgRecSetText(&sep, "!");
  if (present) {
    if (qorCfgInsert(handle, &sep) != 0 || qorCfgInsert(handle, &rec) != 0)
      qorSysErr(rtmevkey, 0, 0x148057, 0, "RTM: qorCfgInsert", text);
    rtmCfgSyncData(0, handle, rec, 0, 0, 0);
    return;
  }
  if (qorCfgRemoveExact(handle, &keyByte, 1, kCfgClassFib) != 0) return;  // it was not there
  if (undoText) qorCfgRecSetText(&rec, undoText);
  rtmCfgSyncData(undoText ? 0 : 1, handle, rec, 0, 0, 0);
  // The separator goes with the last line of the class.
  bool others = false;
  for (const QorCfgLine &l : qorCfgLines(handle))
    if (l.recClass == kCfgClassFib && !l.key.empty()) others = true;
  if (!others) qorCfgRemoveNode(handle, &sep);
}

// ---- Message handlers --------------------------------------------------------------------

bool longEnough(uint32_t len, uint32_t need, const char *fn) {
  if (len >= need) return true;
  qorSysErr(rtmevkey, 0, 0x148004, 0, fn, len);
  return false;
}

int onClearAnswer(uint8_t *msg, uint32_t len, rt_client *rtc) {
  if (!rtc || !longEnough(len, RTM_CLR_MSG_LEN, "RTM: rtmClearClientIpRoutes")) return RTM_FAILURE;
  const uint32_t vrfId = ld32(msg, RTM_CLR_OFF_VRFID);
  if (vrfId >= MAX_VRF) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, "RTM: rtmClearClientIpRoutes", vrfId);
    return RTM_FAILURE;
  }
  return rtmClearClientIpRoutes(rtc, msg, vrfId);
}

int onFlush(uint8_t *msg, uint32_t len, rt_client *) {
  if (!longEnough(len, RTM_FLUSH_OFF_CID + 4, "RTM: rtmFlushClientRoutes")) return RTM_FAILURE;
  return rtmFlushClientRoutes(msg);
}

int onFlushSwp(uint8_t *msg, uint32_t, rt_client *rtc) {
  return rtmFlushClientRoutesSwp(rtc ? uint8_t(rtc->rtc_afIndex) : 0, rtc, msg);
}

int onFlushVrfSwp(uint8_t *msg, uint32_t, rt_client *rtc) {
  return rtmFlushClientVrfRoutesSwp(rtc ? uint8_t(rtc->rtc_afIndex) : 0, rtc, msg);
}

// The multicast forms act on the reverse-path tables.
int onFlushMulSwp(uint8_t *msg, uint32_t, rt_client *rtc) {
  if (!rtc) return RTM_FAILURE;
  rtmRpfClearAllProtoRoutes(IPV4MUL_AFINDEX, rtc);
  st32(msg, IPC_OFF_MSTATUS, RTM_SUCCESS);
  return RTM_SUCCESS;
}
int onFlushVrfMulSwp(uint8_t *msg, uint32_t, rt_client *rtc) {
  if (!rtc) return RTM_FAILURE;
  rtmRpfClearVrfProtoRoutes(IPV4MUL_AFINDEX, rtc, ld32(msg, RTM_FLUSH_SWP_OFF_VRFID));
  st32(msg, IPC_OFF_MSTATUS, RTM_SUCCESS);
  return RTM_SUCCESS;
}
// A protocol's registrations with the poller go; the poller's records are its own.
int onFlushPollerSwp(uint8_t *, uint32_t, rt_client *rtc) {
  if (rtc && rtmClientHooks.rtmPollRibClearProto)
    rtmClientHooks.rtmPollRibClearProto(uint8_t(rtc->rtc_afIndex), rtc->rtc_cid, 0xFFFFu);
  return RTM_SUCCESS;
}

int onClearFib(uint8_t *msg, uint32_t len, rt_client *) {
  if (!longEnough(len, RTM_CLEAR_FIB_LEN, "RTM: rtmClearIpFibCmd")) return RTM_FAILURE;
  rtmClearIpFibCmd(msg);
  st32(msg, IPC_OFF_MSTATUS, 0);  // answered whatever came of it, as the command always was
  return RTM_SUCCESS;
}

int onFilterFlag(uint8_t *msg, uint32_t len, rt_client *) {
  if (!longEnough(len, RTM_FILTER_OFF_SMALL + 4, "RTM: rtmClientUpdateFilterFlag")) return RTM_FAILURE;
  const uint8_t af = len >= RTM_FILTER_OFF_AFINDEX + 4 && ld32(msg, RTM_FILTER_OFF_AFINDEX) == RTM_IPV6UNI_AFINDEX
                         ? RTM_IPV6UNI_AFINDEX
                         : RTM_IPV4UNI_AFINDEX;
  return rtmClientUpdateFilterFlag(0, af, msg + RTM_FILTER_OFF_CMD);
}

int onRednldIpm1(uint8_t *msg, uint32_t len, rt_client *) {
  if (!longEnough(len, RTM_REDNLD_OFF_AFINDEX + 4, "RTM: rtmRedownloadBgpRoutesToIpm1")) return RTM_FAILURE;
  const uint8_t af = ld32(msg, RTM_REDNLD_OFF_AFINDEX) == 0 ? RTM_IPV4UNI_AFINDEX : RTM_IPV6UNI_AFINDEX;
  return rtmRedownloadBgpRoutesToIpm1(af, ld32(msg, RTM_REDNLD_OFF_VALUE));
}

int onClearRoutes(uint8_t *msg, uint32_t len, rt_client *) {
  if (!longEnough(len, RTM_NM_OFF_DATA + RTM_CLR_REC_LEN, "RTM: rtmClearIpRoutesCmd")) return RTM_FAILURE;
  return rtmClearIpRoutesCmd(msg + RTM_NM_OFF_DATA);
}

}  // namespace

// ---- Filter state ------------------------------------------------------------------------

void rtmClientSetFilterFlag(uint8_t afIndex) {
  forEachActive(afIndex, [&](rt_client &c) {
    if (!rtmProtoIsDownload(c.rtc_proto)) return;
    if (isIpmOne(c) && rtmDownloadBgpRoutesToIpm1[afIndex] == 0) return;
    c.rtc_filterState = rtmCurrentFilterState;
  });
}

void rtmClientResetFilterFlag(uint8_t afIndex) {
  forEachActive(afIndex, [&](rt_client &c) {
    if (!rtmProtoIsDownload(c.rtc_proto)) return;
    c.rtc_filterState = isIpmOne(c) && rtmDownloadBgpRoutesToIpm1[afIndex] == 0 ? 2 : rtmCurrentFilterState;
  });
}

void rtmClientSetCfgFilterFlag(uint8_t afIndex) {
  const char *fam = afIndex == RTM_IPV6UNI_AFINDEX ? "ipv6" : "ip";
  char text[64];
  snprintf(text, sizeof text, "%s fib download-igp-only%s", fam, rtmCurrentFilterState == 3 ? " small-fib" : "");
  storeLine(afIndex, text, rtmCurrentFilterState == 2 || rtmCurrentFilterState == 3);
}

int rtmClientUpdateFilterFlag(uint32_t, uint8_t afIndex, const uint8_t *data) {
  if (!data || !rowOk(afIndex)) return RTM_FAILURE;
  const uint32_t orig = rtmCurrentFilterState;
  switch (ld32(data, 0)) {
    case RTM_FILTER_ON:
      rtmCurrentFilterState = ld32(data, 4) ? 3 : 2;
      rtmClientSetFilterFlag(afIndex);
      break;
    case RTM_FILTER_OFF:
      rtmCurrentFilterState = 1;
      rtmClientResetFilterFlag(afIndex);
      break;
    default:
      qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: rtmClientUpdateFilterFlag", ld32(data, 0));
      break;
  }
  rtmClientSetCfgFilterFlag(afIndex);
  rtmValidateSuperClients(0, afIndex);
  rtmValidateRegularClients(0, afIndex);
  uint8_t rec[RTM_CLR_REC_LEN] = {};
  st32(rec, RTM_CLR_REC_OFF_ALL, 1);
  st8(rec, RTM_CLR_REC_OFF_AFINDEX, afIndex);
  st32(rec, RTM_CLR_REC_OFF_VRFID, 0);
  rtmClearIpRoutesCmd(rec);
  qorEventLog(rtmevkey, kSevInfo, "rtmClientUpdateFilterFlag: orig state %d new state small flag %d\r\n", int(orig),
              int(rtmCurrentFilterState));
  return RTM_SUCCESS;
}

int rtmRedownloadBgpRoutesToIpm1(uint8_t afIndex, uint32_t value) {
  if (!rowOk(afIndex)) return RTM_FAILURE;
  const uint32_t on = value ? 1 : 0;
  if (rtmDownloadBgpRoutesToIpm1[afIndex] == on) return RTM_SUCCESS;
  rtmDownloadBgpRoutesToIpm1[afIndex] = on;
  // IPM instance 1 follows the filter like any agent while it takes BGP routes, and is kept
  // from them otherwise.
  forEachActive(afIndex, [&](rt_client &c) {
    if (!isIpmOne(c)) return;
    if (on)
      c.rtc_filterState = rtmCurrentFilterState;
    else if (rtmCurrentFilterState == 1)
      c.rtc_filterState = 2;
  });
  rtmValidateSuperClients(0, afIndex);
  rtmValidateRegularClients(0, afIndex);
  // Only the BGP routes change hands: their heads go on the change list again.
  updateBgpRoutesInRib(afIndex);
  // The line is kept where the setting differs from the family's default (IPv4 takes them).
  const bool byDefault = afIndex == RTM_IPV4UNI_AFINDEX;
  char enable[64], disable[68];
  snprintf(enable, sizeof enable, "%s route-download bgp-to-ipm1-enable", afIndex == RTM_IPV6UNI_AFINDEX ? "ipv6" : "ip");
  snprintf(disable, sizeof disable, "no %s", enable);
  if (byDefault)
    storeLine(uint8_t(afIndex | 0x80), disable, !on, enable);
  else
    storeLine(uint8_t(afIndex | 0x80), enable, on);
  return RTM_SUCCESS;
}

// ---- Flush -------------------------------------------------------------------------------

int rtmSendSwpFlushMessage(uint8_t afIndex, uint32_t queue, const uint8_t *record) {
  auto *m = static_cast<uint8_t *>(RTM_POOL_ALLOC(RTM_MEM_TAG_CLR_BUF, RTM_CLR_MSG_LEN, RTM_CLR_RTE_BUF_POOL));
  if (!m) {
    qorSysErr(rtmevkey, 0, 0x148002, 0, "RTM: rtmSendSwpFlushMessage", queue);
    return RTM_FAILURE;
  }
  const uint32_t vrfId = ld32(record, RTM_CLR_REC_OFF_VRFID);
  st32(m, IPC_OFF_MLEN, RTM_CLR_MSG_LEN);
  st32(m, IPC_OFF_MTYPE, afIndex == RTM_IPV6UNI_AFINDEX ? MT_RTM6_CLR_ROUTE : MT_RTM_CLR_ROUTE);
  st32(m, IPC_OFF_MSTATUS, 1);
  st32(m, RTM_CLR_OFF_ALL, ld32(record, RTM_CLR_REC_OFF_ALL));
  st8(m, RTM_CLR_OFF_AFINDEX, afIndex);
  st32(m, RTM_CLR_OFF_KEY, afIndex < 3 && vrfId < MAX_VRF ? rtmExpClrRteKey[afIndex][vrfId] : 0);
  st8(m, RTM_CLR_OFF_PLEN, ld8(record, RTM_CLR_REC_OFF_PLEN));
  memcpy(m + RTM_CLR_OFF_PREFIX, record + RTM_CLR_REC_OFF_PREFIX, rtmAfAddrLen(afIndex));
  st32(m, RTM_CLR_OFF_VRFID, vrfId);
  if (qorSwpEnqueue(queue, m, RTM_CLR_MSG_LEN) != QOR_SWP_OK) {
    qorSysErr(rtmevkey, 0, 0x14800C, 0, "RTM: rtmSendSwpFlushMessage", queue);
    RTM_POOL_FREE(m);
    return RTM_FAILURE;
  }
  return RTM_SUCCESS;
}

int _rtmFlushClientRoutes(uint8_t afIndex, rt_client *rtc) {
  if (!rtc || rtc->rtc_state == RTC_STATE_FREE) {
    qorSysErr(rtmevkey, 0, 0x148019, 0, "RTM:_rtmFlushClientRoutes", rtc ? rtc->rtc_cid : 0);
    return RTM_FAILURE;
  }
  if (rtc->rtc_proto == RTM_PROTO_MBGP || rtc->rtc_proto == RTM_PROTO_MSTATIC)
    rtmRpfClearAllProtoRoutes(afIndex, rtc);
  else
    rtmClearAllProtoRoutes(afIndex, rtc);
  char name[41];
  qorEventLog(rtmevkey, kSevInfo, "_rtmFlushClientRoutes: Client %s (%d) rotes flushed.\n", rtmClientName(rtc, name),
              int(rtc->rtc_cid));
  return RTM_SUCCESS;
}

int _rtmFlushClientVrfRoutes(uint8_t afIndex, rt_client *rtc, uint32_t vrfId) {
  if (vrfId >= MAX_VRF) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, "RTM:_rtmFlushClientVrfRoutes", vrfId);
    return RTM_FAILURE;
  }
  if (afIndex >= RTM_MAX_AFINDEX || !rtc) return RTM_FAILURE;
  if (rtc->rtc_proto == RTM_PROTO_MBGP || rtc->rtc_proto == RTM_PROTO_MSTATIC)
    rtmRpfClearVrfProtoRoutes(afIndex, rtc, 0);
  else
    rtmClearVrfProtoRoutes(afIndex, rtc, vrfId);
  return RTM_SUCCESS;
}

int rtmFlushClientRoutes(uint8_t *msg) {
  const uint32_t cid = ld32(msg, RTM_FLUSH_OFF_CID);
  rt_client *rtc = rtmClientGetByHandle(RTM_IPV4UNI_AFINDEX, cid);
  if (!rtc) {
    qorSysErr(rtmevkey, 0, 0x148019, 0, "RTM: rtmFlushClientRoutes", cid);
    return RTM_FAILURE;
  }
  const int result = _rtmFlushClientRoutes(RTM_IPV4UNI_AFINDEX, rtc);
  st32(msg, IPC_OFF_MSTATUS, uint32_t(result));
  rtmSendReply(msg);
  return result;
}

int rtmFlushClientRoutesSwp(uint8_t afIndex, rt_client *rtc, uint8_t *msg) {
  if (!rtc) {
    _qorAssert("pClient", __FILE__, __LINE__, 0);
    return RTM_FAILURE;
  }
  const int result = _rtmFlushClientRoutes(afIndex, rtc);
  st32(msg, IPC_OFF_MSTATUS, uint32_t(result));
  return result;
}

int rtmFlushClientVrfRoutesSwp(uint8_t afIndex, rt_client *rtc, uint8_t *msg) {
  if (!rtc) {
    _qorAssert("pClient", __FILE__, __LINE__, 0);
    return RTM_FAILURE;
  }
  const uint32_t vrfId = ld32(msg, RTM_FLUSH_SWP_OFF_VRFID);
  if (vrfId >= MAX_VRF) _qorAssert("vrfId < ((512) + 1)", __FILE__, __LINE__, long(vrfId));
  const int result = _rtmFlushClientVrfRoutes(afIndex, rtc, vrfId);
  st32(msg, IPC_OFF_MSTATUS, uint32_t(result));
  return result;
}

void rtmFlushAllVrfRoutes(uint32_t vrfId) {
  for (uint8_t af = 0; af <= RTM_MAX_AFINDEX; ++af)
    for (uint32_t proto = RTM_PROTO_STATIC; proto <= 23; ++proto)
      if (rt_client *rtc = rtmClientGet(af, proto, 0)) _rtmFlushClientVrfRoutes(af, rtc, vrfId);
  rtmNhDeleteAll(vrfId, RTM_IPV4UNI_AFINDEX);
  rtmNhDeleteAll(vrfId, RTM_IPV6UNI_AFINDEX);
}

// ---- Clear -------------------------------------------------------------------------------

int rtmClearIpRoutesCmd(const uint8_t *record) {
  if (!record) return RTM_FAILURE;
  const uint8_t af = ld8(record, RTM_CLR_REC_OFF_AFINDEX);
  const uint32_t vrfId = ld32(record, RTM_CLR_REC_OFF_VRFID);
  if (!rowOk(af) || vrfId >= MAX_VRF || !g_rtmVrfInUse[vrfId]) return RTM_FAILURE;
  qor_radix_tree *tree = rtmRibGetTree(af, vrfId);
  if (!tree) return RTM_FAILURE;
  rtmOutOfMemLogMsg = 1;
  int result = RTM_SUCCESS;

  if (ld32(record, RTM_CLR_REC_OFF_ALL) == 0) {
    const uint8_t *prefix = record + RTM_CLR_REC_OFF_PREFIX;
    const uint8_t plen = ld8(record, RTM_CLR_REC_OFF_PLEN);
    if (plen > rtmAfKeyBits(af)) return RTM_FAILURE;
    rt_head *rth = rtmHeadOf(qorRadixGetExact(tree, prefix, plen));
    if (!rth) return RTM_SUCCESS;
    rth->rtmh_time = qorTickGet();
    rtmClearStaticRouteSpecific(vrfId, af, prefix, plen);
    rtmClearPollResolutionForSpecificRoute(af, prefix, plen);
    // The protocols of the VRF send the prefix again; their entries go by the ordinary
    // delete, so the walkers tell the agents.
    rtmRibDeferWakeups(true);
    forEachActive(af, [&](rt_client &c) {
      if (!toldOfClear(c.rtc_proto) || !c.rtc_redistQ) return;
      const bool holds = rth->rtmh_rte && rte_find(rth, c.rtc_cid, RT_SUBTYPE_ANY, 0, 0);
      if (!holds && c.rtc_vrfId != vrfId && c.rtc_vrfId != ALL_VRF_ID) return;
      if (rtmSendSwpFlushMessage(af, c.rtc_redistQ, record) != RTM_SUCCESS) result = RTM_FAILURE;
      if (holds) rtmDeleteRte(vrfId, af, tree, rth, c.rtc_cid, RT_SUBTYPE_ANY, c.rtc_proto, 0, 0);
    });
    rtmRibDeferWakeups(false);
    return result;
  }

  // Every route of the VRF. A new key: answers to an earlier clear no longer count.
  rtmNhClearIpRouteInProgress[vrfId] = 1;
  ++rtmExpClrRteKey[af][vrfId];
  rtmClearPollThread(vrfId, af);
  rtmClearStaticRoutes(vrfId, af);
  rtmClearMstaticRoutes(vrfId, af);
  rtmClearRedistThread(vrfId, af);
  rtmClearDownloadThread(vrfId, af);
  rtmNhClearFifo(af, vrfId);
  rtmClearTicThread(af, vrfId);
  rtmClearRib(af, vrfId);

  forEachActive(af, [&](rt_client &c) {
    if (!qualifiesForClear(c, af, vrfId)) return;
    rtClientVrfInfo *rvi = c.rtc_vrf[vrfId];
    // A client without a queue of its own (MBGP rides on BGP's) has nobody to tell.
    if (toldOfClear(c.rtc_proto) && c.rtc_proto != RTM_PROTO_MBGP && c.rtc_redistQ) {
      // What waits on its queue is older than the clear and is superseded by the flush
      // message; it stays queued, as the queue cannot take back messages without starting
      // the peer's sequence over.
      if (rtmSendSwpFlushMessage(af, c.rtc_redistQ, record) == RTM_SUCCESS) {
        if (rvi) rvi->rvi_blocked = 1;
      } else {
        result = RTM_FAILURE;
      }
    }
    if (rtmClientHooks._rtmClearClientRedistRule) rtmClientHooks._rtmClearClientRedistRule(af, &c, vrfId);
  });
  forEachActive(af, [&](rt_client &c) {
    if (!qualifiesForClear(c, af, vrfId)) return;
    c.rtc_addCount = c.rtc_delCount = c.rtc_sendCount = c.rtc_superSendCount = 0;
    resetQueueStates(c);
    if (rtClientVrfInfo *rvi = c.rtc_vrf[vrfId]) {
      rvi->rvi_active = rvi->rvi_inactive = rvi->rvi_activeBgp = rvi->rvi_inactiveBgp = 0;
      memset(rvi->rvi_subtypeCnt, 0, sizeof rvi->rvi_subtypeCnt);
      rtmClientMakeWalkers(&c, vrfId, true);
    }
    // An agent still holds the routes that went without a word: it drops them and takes the
    // new table as it comes.
    if (rtmProtoIsDownload(c.rtc_proto) && c.rtc_dnldQ) rtmSendFibClearMarker(c.rtc_dnldQ, vrfId, c.rtc_cid, af);
  });

  // Next hops are bundled again from here on: the routes that come back bring theirs.
  rtmNhClearIpRouteInProgress[vrfId] = 0;
  rtmClearConnRoutes(vrfId, af);
  rtmClearLeakedStaticRoutes(vrfId, af);
  for (int t : {rtmThreadStatic, rtmThreadMstatic, rtmThreadRedis, rtmThreadRteDn}) qorThreadResume(rtmThreads, t);
  rtmTicUpdate[af][vrfId] = 1;
  return result;
}

int rtmClearClientIpRoutes(rt_client *rtc, const uint8_t *msg, uint32_t vrfId) {
  if (!rtc || !msg || rtc->rtc_proto <= RTM_PROTO_STATIC || vrfId >= MAX_VRF) return RTM_SUCCESS;
  const uint8_t af = uint8_t(rtc->rtc_afIndex);
  if (!rowOk(af)) return RTM_SUCCESS;
  rtClientVrfInfo *rvi = rtc->rtc_vrf[vrfId];
  const uint32_t key = ld32(msg, RTM_CLR_OFF_KEY), expected = rtmExpClrRteKey[af][vrfId];
  const bool wasBlocked = rvi && rvi->rvi_blocked == 1;
  if (key == expected) {
    // An answer to a clear of one prefix ends nothing: the client was not blocked for it.
    if (ld32(msg, RTM_CLR_OFF_ALL) && rvi) {
      rvi->rvi_blocked = 0;
      if (rtc->rtc_proto == RTM_PROTO_BGP)
        if (rt_client *mbgp = rtmClientGet(af, RTM_PROTO_MBGP, rtc->rtc_instance))
          if (rtClientVrfInfo *m = mbgp->rtc_vrf[vrfId]) m->rvi_blocked = 0;
    }
    return RTM_SUCCESS;
  }
  char name[41];
  if (!wasBlocked && key > expected) qorSysErr(rtmevkey, 0, 0x14801B, 0, "RTM: rtmClearClientIpRoutes", key, expected);
  qorEventLog(rtmevkey, kSevInfo, "Stale clear response received from %s.\n", rtmClientName(rtc, name));
  return RTM_SUCCESS;
}

int rtmClearIpFibCmd(uint8_t *msg) {
  const uint32_t cid = ld32(msg, RTM_CLEAR_FIB_OFF_CID), vrfId = ld32(msg, RTM_CLEAR_FIB_OFF_VRFID);
  const uint8_t af = ld8(msg, RTM_CLEAR_FIB_OFF_AFINDEX);
  rt_client *rtc = rtmClientGetByHandle(af, cid);
  if (!rtc) {
    qorSysErr(rtmevkey, 0, 0x148019, 0, "RTM: rtmClearIpFibCmd", cid, af);
    return RTM_FAILURE;
  }
  resetQueueStates(*rtc);
  restartDownload(*rtc, af, vrfId);
  // Only an agent has a FIB to forget and next hops to learn again.
  if (rtmProtoIsDownload(rtc->rtc_proto)) {
    rtmSendFibClearMarker(rtc->rtc_dnldQ, vrfId, cid, af);
    rtmValidateOneSuperClient(rtc, af);
    if (int rc = rtmNhNewClient(af, vrfId, rtc)) qorSysErr(rtmevkey, 0, 0x148008, 0, "RTM:rtmNhNewClient", cid, rc);
  }
  qorThreadResume(rtmThreads, rtmThreadRedis);
  qorThreadResume(rtmThreads, rtmThreadRteDn);
  return RTM_SUCCESS;
}

// ---- Start-up ----------------------------------------------------------------------------

void rtmClientFlushInit() {
  memset(rtmExpClrRteKey, 0, sizeof rtmExpClrRteKey);
  rtmDownloadBgpRoutesToIpm1[RTM_IPV4UNI_AFINDEX] = 1;
  rtmDownloadBgpRoutesToIpm1[IPV4MUL_AFINDEX] = 0;
  rtmDownloadBgpRoutesToIpm1[RTM_IPV6UNI_AFINDEX] = 0;
  rtmFrameSetHandler(MT_RTM_CLR_ROUTE, onClearAnswer);
  rtmFrameSetHandler(MT_RTM6_CLR_ROUTE, onClearAnswer);
  rtmFrameSetHandler(MT_RTM_FLUSH_CLIENT_ROUTES, onFlush);
  rtmFrameSetHandler(MT_RTM_FLUSH_CLIENT_ROUTES_SWP, onFlushSwp);
  rtmFrameSetHandler(MT_RTM6_FLUSH_CLIENT_ROUTES_SWP, onFlushSwp);
  rtmFrameSetHandler(MT_RTM_FLUSH_CLIENT_VRF_ROUTES_SWP, onFlushVrfSwp);
  rtmFrameSetHandler(MT_RTM6_FLUSH_CLIENT_VRF_ROUTES_SWP, onFlushVrfSwp);
  rtmFrameSetHandler(MT_RTM_FLUSH_CLIENT_ROUTES_MUL_SWP, onFlushMulSwp);
  rtmFrameSetHandler(MT_RTM_FLUSH_CLIENT_VRF_ROUTES_MUL_SWP, onFlushVrfMulSwp);
  rtmFrameSetHandler(MT_RTM_FLUSH_CLIENT_POLLER_ROUTES_SWP, onFlushPollerSwp);
  rtmFrameSetHandler(MT_RTM_FLUSH_CLIENT_POLLER_ROUTES_SWP_2, onFlushPollerSwp);
  rtmFrameSetHandler(MT_RTM6_FLUSH_CLIENT_POLLER_ROUTES_SWP, onFlushPollerSwp);
  rtmFrameSetHandler(MT_RTM_CLEAR_FIB, onClearFib);
  rtmFrameSetNmHandler(MT_RTM_FILTER_FLAG, onFilterFlag);
  rtmFrameSetNmHandler(MT_RTM_REDNLD_BGP_IPM1, onRednldIpm1);
  rtmFrameSetNmHandler(MT_RTM_CLEAR_ROUTES, onClearRoutes);
}
