// Registration and deregistration of clients, their queues, and the chassis's card events.
//
// Registration is all or nothing: every step that can fail (a handle, the slot and address of
// the peer, per-VRF records, list node, queues) is taken before the client is announced, and a
// failure gives everything back, so a refused client leaves no trace. A client that registers
// again with the same protocol and instance keeps its handle and queues; only its expected
// sequence starts over, since a peer that registers has started its own queue afresh.
//
// One FIB-side agent serves both families over one download queue: the record of the second
// family to register is "paired" and uses the first one's queue and expected sequence. When
// either record leaves, the other keeps the queue (the first one hands it over), so neither
// family's download is cut by the other's departure. MBGP likewise sends on BGP's
// redistribution queue and never removes it.
//
// Deregistration runs on the main task but yields twice (while the routes go and while a
// redistribution walk finishes with the record); the record stays active during those yields
// so that a worker finishing its walk still finds it.
#include <cstring>

#include "chassis/qor_chassis.h"
#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "nexthop/rtm_nh.h"
#include "rib/rtm_rib.h"
#include "rtm/rtm_client_msgs.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_wire.h"
#include "swp/qor_swp.h"
#include "timer/qor_timer.h"

using rtm::ld16;
using rtm::ld32;
using rtm::ld8;
using rtm::st32;
using rtm::st8;

rtm_nbr_client arpClient, ndpClient;
uint32_t arpClientRegCnt, ndpClientRegCnt;
qor_radix_tree *rtmOfmGroupTree;

// From rtm_client.cpp and rtm_client_qual.cpp.
void rtmClientMakeWalkers(rt_client *rtc, uint32_t vrfId, bool withConnected);
int rtmClientMakeOspfMap(uint8_t afIndex);
void rtmClientFreeOspfMap(uint8_t afIndex);

namespace {
constexpr int kSevInfo = 15;
constexpr uint32_t kDebugEvents = 0x8;

void swpFree(void *block) { rtmNewPoolFree(block); }

bool rowOk(uint8_t afIndex) { return afIndex == RTM_IPV4UNI_AFINDEX || afIndex == RTM_IPV6UNI_AFINDEX; }
uint8_t otherFamily(uint8_t afIndex) { return afIndex == RTM_IPV4UNI_AFINDEX ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX; }

// Calls f(v) for the VRF of a client, or for every VRF when it serves all.
template <class F>
void forEachServedVrf(uint32_t vrfId, F f) {
  if (vrfId == ALL_VRF_ID) {
    for (uint32_t v = 0; v < MAX_VRF; ++v) f(v);
  } else if (vrfId < MAX_VRF) {
    f(vrfId);
  }
}

void markTic(uint8_t afIndex, uint32_t vrfId) {
  if (afIndex >= 4) return;
  forEachServedVrf(vrfId, [&](uint32_t v) { rtmTicUpdate[afIndex][v] = 1; });
}

// A change of clients is news to the walkers of redistribution and download.
void wakeWorkers(uint8_t afIndex, uint32_t vrfId) {
  qorThreadResume(rtmThreads, rtmThreadRedis);
  qorThreadResume(rtmThreads, rtmThreadRteDn);
  markTic(afIndex, vrfId);
}

// Yields until worker `threadId` rests or `done()` holds. A group without that worker (or no
// group at all) does not wait.
template <class Done>
void yieldUntil(int threadId, Done done) {
  while (!done() && qorThreadIsSuspended(rtmThreads, threadId) == 0)
    if (qorThreadYield(rtmThreads) < 0) break;
}

// The record of the same download client in the other family: the two share a queue.
rt_client *familyPartner(const rt_client *rtc) {
  if (!rtmProtoIsDownload(rtc->rtc_proto)) return nullptr;
  rt_client *other = rtmClientGet(otherFamily(static_cast<uint8_t>(rtc->rtc_afIndex)), rtc->rtc_proto, rtc->rtc_instance);
  return other != rtc ? other : nullptr;
}

void clearFibSlot(const rt_client *rtc) {
  if (rtc->rtc_proto == RTM_PROTO_FIB && rtc->rtc_slot >= 0 && rtc->rtc_slot < 32) g_activeFibSlt &= ~(1u << rtc->rtc_slot);
}

// Gives back everything the record holds and zeroes it.
void releaseRecord(rt_client *rtc) {
  for (uint32_t v = 0; v < MAX_VRF; ++v)
    if (rtc->rtc_vrf[v]) rtmClientVrfDestroy(rtc, v);
  memset(rtc, 0, sizeof *rtc);
}

// Undoes a registration that failed after _rtmRegisterClient: no queue of this record exists
// yet, but its expected-sequence list may.
void abandon(rt_client *rtc) {
  rt_client *partner = familyPartner(rtc);
  if (rtc->expSeqQListHdl && !(partner && partner->expSeqQListHdl == rtc->expSeqQListHdl))
    qorSwpQListRemoveExpSeqList(rtc->expSeqQListHdl);
  rtmRemoveClientFromList(&regularClients[rtc->rtc_afIndex], rtc);
  clearFibSlot(rtc);
  releaseRecord(rtc);
}

// The peer starts its queue over: its next message carries sequence 1. A paired record resets
// the word its partner reads too, which is right, as both read the agent's one queue.
void restartSequence(rt_client *rtc, bool multiQ, uint32_t noOfQs) {
  rtc->rtc_expSeqPtr[0] = rtc->rtc_expSeqPtr[1] = 0;
  uint32_t old = rtc->expSeqQListHdl, fresh = 0;
  if (old) qorSwpQListRemoveExpSeqList(old);
  if (multiQ && qorSwpQListCreateExpSeqList(&fresh, noOfQs) != 0) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: Wron SWP exp seq handle", rtc->rtc_cid);
    fresh = 0;
  }
  rtc->expSeqQListHdl = fresh;
  if (rt_client *p = familyPartner(rtc); p && old && p->expSeqQListHdl == old) p->expSeqQListHdl = fresh;
}

// Registration steps that send nothing of their own but belong to other subsystems.
template <class Fn, class... A>
void hook(Fn fn, A... args) {
  if (fn) fn(args...);
}

void sendFirstContents(uint8_t afIndex, rt_client *rtc) {
  const RtmClientHooks &h = rtmClientHooks;
  if (rtc->rtc_proto == RTM_PROTO_IPM) hook(h.rtmSendUftConfigToAgent, afIndex, rtc);
  if (rtc->rtc_proto != RTM_PROTO_FIB) return;
  if (afIndex == RTM_IPV4UNI_AFINDEX) hook(h.rtmIssuStartRestore, rtc->rtc_dnldQ);
  hook(h.rtmSendSwpHashAlgorithmMessage, afIndex, rtc->rtc_dnldQ, rtmHashAlgorithm);
  hook(h.rtmSendEcmpMaxPathConfigToAgent, afIndex, rtc->rtc_cid);
  if (h.rtmSendFibVrfFirstContents)
    for (uint32_t v = 0; v < MAX_VRF; ++v)
      if (rtmRibGetTree(afIndex, v)) h.rtmSendFibVrfFirstContents(afIndex, rtc, v);
  hook(h.rtmSendFibFeatureConfig, afIndex, rtc);
  hook(h.rtmSendFib6HashConfMsgClient, afIndex, rtc);
  hook(h.rtmClientIpRedirDownloadAll, rtc);
  hook(h.rtmProtoClientInfoDownload, rtc->rtc_dnldQ, 0u, RTM_PROTO_BGP, RTM_PROTO_FIB, 0, 1);
}

int createDownloadQueue(rt_client *rtc);
int createRedistQueue(rt_client *rtc);
}  // namespace

// ---- Registration ------------------------------------------------------------------------

int _rtmRegisterClient(uint8_t afIndex, uint32_t proto, const char *name, uint32_t flags, uint32_t instance,
                       uint32_t svce, uint32_t card, uint32_t ipcInst, uint32_t spare, uint32_t *cidOut,
                       uint32_t filter, uint32_t vrfId) {
  if (!cidOut) {
    _qorAssert("cid", __FILE__, __LINE__, 0);
    return RTM_REG_FAIL;
  }
  if (!rowOk(afIndex)) return RTM_REG_FAIL;
  if (proto > 30) {
    qorSysErr(rtmevkey, 0, 0x148016, 0, "RTM _rtmRegisterClient", proto);
    return RTM_REG_FAIL;
  }
  if (vrfId >= MAX_VRF && vrfId != ALL_VRF_ID) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: _rtmRegisterClient", vrfId);
    return RTM_REG_FAIL;
  }
  if (rt_client *old = rtmClientGet(afIndex, proto, instance)) {
    *cidOut = old->rtc_cid;
    return RTM_REG_DUPLICATE;
  }
  rt_client *rtc = nullptr;
  for (rt_client &c : rt_client_tbl[afIndex])
    if (c.rtc_state == RTC_STATE_FREE) {
      rtc = &c;
      break;
    }
  if (!rtc) {
    qorEventLog(rtmevkey, 3, "_rtmRegisterClient: no free handle for protocol %u instance %u af %u\n", proto, instance,
                afIndex);
    return RTM_REG_FAIL;
  }
  int32_t slot = -1;
  uint32_t ipAddr = 0;
  if (!rtmProtoIsInternal(proto)) {
    slot = qor_tmeGetSlotByName(svce, ipcInst);
    if (slot == -1) return RTM_REG_FAIL;
    if (proto == RTM_PROTO_FIB &&
        (slot < 0 || slot >= static_cast<int32_t>(RTM_MAX_SLOTS) || !rtmRcvdDnldCmpFrmIfm[slot])) {
      // A FIB agent before its line card's interfaces are known would program routes over
      // interfaces it has never heard of.
      qorHistory(" FALSE  return RTM_FAILURE for slot - %d \r\n", slot);
      return RTM_REG_FAIL;
    }
    int32_t addr = -1, err = 0;
    for (int attempt = 0; attempt < 5; ++attempt) {
      if (attempt) taskDelay(10);
      addr = qor_tmeGetTaskIpAddrByName(svce, ipcInst, &err);
      if (addr != -1) break;
    }
    if (addr == -1) {
      qorSysErr(rtmevkey, 0, 0x148056, 0, "RTM: _rtmRegisterClient", rtmClientGetProtoName(proto));
      return RTM_REG_FAIL;
    }
    ipAddr = static_cast<uint32_t>(addr);
  }
  if (proto == RTM_PROTO_OSPF && rtmClientMakeOspfMap(afIndex) != 0) return RTM_REG_FAIL;
  if (proto == RTM_PROTO_OFM && !rtmOfmGroupTree) {
    rtmOfmGroupTree = qorRadixCreate("RtmOfmGroupTree", 32, nullptr, nullptr, 0);
    if (!rtmOfmGroupTree) return RTM_REG_FAIL;
  }

  rtc->rtc_proto = proto;
  rtc->rtc_instance = instance;
  rtc->rtc_ipcInst = ipcInst;
  rtc->rtc_ipcSvce = svce;
  rtc->rtc_slot = slot;
  rtc->rtc_ipAddr = ipAddr;
  rtc->rtc_type = rtmProtoIsInternal(proto) ? -1 : (proto == RTM_PROTO_FIB || proto == RTM_PROTO_FIB6) ? 1 : 2;
  rtc->rtc_afIndex = afIndex;
  rtc->rtc_cid = static_cast<uint32_t>(rtc - rt_client_tbl[afIndex]);
  rtc->rtc_expSeqPtr = rtc->rtc_expSeq;
  if (name) memcpy(rtc->rtc_name, name, strnlen(name, sizeof rtc->rtc_name));
  rtc->rtc_flags = flags;
  rtc->rtc_regTime = qorTickGet();
  rtc->rtc_filterState = rtmCurrentFilterState;
  rtc->rtc_filter = filter;
  (void)card;
  (void)spare;
  for (uint32_t v = 0; v < MAX_VRF; ++v) {
    if (!g_rtmVrfInUse[v]) continue;
    if (rtmClientVrfInit(rtc, v) != 0) {
      releaseRecord(rtc);
      return RTM_REG_FAIL;
    }
  }
  rtc->rtc_dnldState = rtc->rtc_redistState = RTC_Q_REGISTERED;
  rtc->rtc_vrfId = vrfId;
  if (proto == RTM_PROTO_IPM || proto == RTM_PROTO_IPM6) rtc->rtc_filter = 2;
  if (proto == RTM_PROTO_LDP) rtc->rtc_filterState = 2;
  if (vrfId != ALL_VRF_ID) {
    if (g_rtmVrfInUse[vrfId]) rtmClientMakeWalkers(rtc, vrfId, true);
  } else {
    for (uint32_t v = 0; v < MAX_VRF; ++v)
      if (g_rtmVrfInUse[v] && rtmRibGetTree(afIndex, v)) rtmClientMakeWalkers(rtc, v, true);
  }
  for (uint32_t v = 0; v < MAX_VRF; ++v) {
    rtClientVrfInfo *rvi = rtc->rtc_vrf[v];
    if (!rvi) continue;
    rvi->rvi_ruleFlags[0] = rvi->rvi_ruleFlags[1] = rvi->rvi_ruleFlags[2] = RVI_RULE_FIRST_LOOK;
    if (rtmProtoIsDownload(proto)) rvi->rvi_ruleFlags[0] |= RVI_DNLD_ON;
  }
  if (rtmAddClientToList(&regularClients[afIndex], rtc) != 0) {
    releaseRecord(rtc);
    return RTM_REG_FAIL;
  }
  if (proto == RTM_PROTO_FIB && slot >= 0 && slot < 32) g_activeFibSlt |= 1u << slot;
  rtc->rtc_state = RTC_STATE_ACTIVE;
  *cidOut = rtc->rtc_cid;
  return RTM_REG_NEW;
}

namespace {
int createDownloadQueue(rt_client *rtc) {
  return qorMwpQueueCreate_p(rtmevkey, 0, 10, 255, RTM_SVCE, 0, rtmIpcKey, rtc->rtc_ipcSvce, rtc->rtc_ipcInst, 0, 0, 0,
                             swpFree, [](uint32_t q, uint32_t e) {
                               if (rtmClientHooks.rtmDownloadErrCB) return rtmClientHooks.rtmDownloadErrCB(q, e);
                               if (!q) return;
                               bool found = false;
                               for (auto &row : rt_client_tbl)
                                 for (rt_client &c : row)
                                   if (c.rtc_state == RTC_STATE_ACTIVE && c.rtc_dnldQ == q) {
                                     found = true;
                                     if (e == QOR_SWP_ERR_PEER) {
                                       c.rtc_dnldState = RTC_Q_STOPPED;
                                       ++c.rtc_lastCnt;
                                     }
                                   }
                               if (!found) qorSysErr(rtmevkey, 0, 0x14800b, 0, "RTM: rtmDownloadErrCB", q, e);
                             },
                             &rtc->rtc_dnldQ, 1, 8, rtm_swp_pipe);
}

int createRedistQueue(rt_client *rtc) {
  return qorSwpQueueCreate_p(rtmevkey, 0, 10, 60, RTM_SVCE, 0, rtmIpcKey, rtc->rtc_ipcSvce, rtc->rtc_ipcInst, 0, 0, 0,
                             swpFree, [](uint32_t q, uint32_t e) {
                               if (rtmClientHooks.rtmRedistErrCB) return rtmClientHooks.rtmRedistErrCB(q, e);
                               qorSysErr(rtmevkey, 0, 0x148037, 0, "RTM: rtmRedistErrCB", q, e);
                               bool found = false;
                               for (auto &row : rt_client_tbl)
                                 for (rt_client &c : row)
                                   if (c.rtc_state == RTC_STATE_ACTIVE && q && c.rtc_redistQ == q) {
                                     found = true;
                                     c.rtc_redistState = RTC_Q_STOPPED;
                                   }
                               if (!found) qorSysErr(rtmevkey, 0, 0x14800B, 0, "RTM: rtmRedistErrCB", q);
                             },
                             &rtc->rtc_redistQ, rtm_swp_pipe);
}

// The queues of a new record: a download queue (or the partner's), a redistribution queue.
// False after an event; the record is abandoned by the caller.
bool attachQueues(rt_client *rtc, uint8_t afIndex, uint32_t vrfId) {
  char name[41];
  if (rtmProtoIsDownload(rtc->rtc_proto)) {
    if (rt_client *other = familyPartner(rtc)) {
      if (other->rtc_paired) {
        qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: rtmRegisterClient", rtmClientName(rtc, name), rtc->rtc_cid);
        return false;
      }
      rtc->rtc_paired = 1;
      rtc->rtc_dnldQ = other->rtc_dnldQ;
      rtc->rtc_expSeqPtr = other->rtc_expSeqPtr;
      if (rtc->expSeqQListHdl && qorSwpQListRemoveExpSeqList(rtc->expSeqQListHdl) != 0)
        qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: Wron SWP exp seq handle", rtc->expSeqQListHdl);
      rtc->expSeqQListHdl = other->expSeqQListHdl;
    } else {
      if (createDownloadQueue(rtc) != QOR_SWP_OK) {
        qorSysErr(rtmevkey, 0, 0x148005, 0, "RTM: rtmRegisterClient", rtmClientName(rtc, name), rtc->rtc_proto);
        return false;
      }
      if (rtc->rtc_proto == RTM_PROTO_FIB) hook(rtmClientHooks.rtmRednldVrfInfoToFibClient, afIndex, rtc);
    }
    if (int rc = rtmNhNewClient(afIndex, vrfId, rtc))
      qorSysErr(rtmevkey, 0, 0x148008, 0, "RTM:rtmNhNewClient", rtc->rtc_cid, rc);
    qorEventLog(rtmevkey, kSevInfo, "rtmRegisterClient: created SWP queue\r\n");
  }
  if (rtmProtoOwnsRedistQ(rtc->rtc_proto)) {
    if (createRedistQueue(rtc) != QOR_SWP_OK) {
      qorSysErr(rtmevkey, 0, 0x148005, 0, "RTM: rtmRegisterClient", rtmClientName(rtc, name), rtc->rtc_proto);
      if (rtc->rtc_dnldQ && !rtc->rtc_paired) qorSwpQueueRemove(rtc->rtc_dnldQ);
      return false;
    }
    // An MBGP client that came first starts sending on BGP's queue now.
    if (rtc->rtc_proto == RTM_PROTO_BGP)
      if (rt_client *mbgp = rtmClientGet(afIndex, RTM_PROTO_MBGP, rtc->rtc_instance)) mbgp->rtc_redistQ = rtc->rtc_redistQ;
  }
  if (rtc->rtc_proto == RTM_PROTO_MBGP) {
    rt_client *bgp = rtmClientGet(afIndex, RTM_PROTO_BGP, rtc->rtc_instance);
    rtc->rtc_redistQ = bgp ? bgp->rtc_redistQ : 0;
  }
  return true;
}
}  // namespace

int rtmRegisterClient(uint8_t *msg, uint32_t len) {
  auto refuse = [&]() {
    st32(msg, IPC_OFF_MSTATUS, RTM_REG_FAILED);
    if (len >= RTM_REG_OFF_CID + 4) st32(msg, RTM_REG_OFF_CID, 0);
    return RTM_REG_FAIL;
  };
  if (len < RTM_REG_MSG_LEN) {
    qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: rtmRegisterClient", len);
    return refuse();
  }
  uint32_t mtype = ld32(msg, IPC_OFF_MTYPE);
  uint32_t proto = ld32(msg, RTM_REG_OFF_PROTO);
  uint32_t instance = ld32(msg, RTM_REG_OFF_INSTANCE);
  uint32_t vrfId = ld32(msg, RTM_REG_OFF_VRFID);
  uint8_t afIndex = ld8(msg, RTM_REG_OFF_AFINDEX);
  bool multiQ = ld16(msg, RTM_REG_OFF_MULTIQ) == 1;
  uint32_t noOfQs = ld32(msg, RTM_REG_OFF_NOOFQS);
  if (mtype != MT_RTM_REG_CLIENT_VRF) vrfId = proto < RTM_PROTO_IPM ? 0 : ALL_VRF_ID;
  if (afIndex == IPV4MUL_AFINDEX) afIndex = RTM_IPV4UNI_AFINDEX;
  if (proto == RTM_PROTO_IPM6) afIndex = RTM_IPV6UNI_AFINDEX;
  if (!rowOk(afIndex)) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: rtmRegisterClient:Bad afIndex", afIndex, proto);
    return refuse();
  }
  if (multiQ && (noOfQs > MAX_VRF || noOfQs == 0)) {
    if (noOfQs > MAX_VRF) _qorAssert("reg->noOfQs <= MAX_VRF", __FILE__, __LINE__, long(noOfQs));
    qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: rtmRegisterClient", noOfQs);
    return refuse();
  }
  char name[RTM_REG_NAME_LEN + 1] = {};
  memcpy(name, msg + RTM_REG_OFF_NAME, RTM_REG_NAME_LEN);
  uint32_t cid = 0;
  int result = _rtmRegisterClient(afIndex, proto, name, ld32(msg, RTM_REG_OFF_FLAGS), instance,
                                  ld32(msg, RTM_REG_OFF_SVCE), ld32(msg, RTM_REG_OFF_CARD),
                                  ld32(msg, RTM_REG_OFF_IPCINST), ld32(msg, RTM_REG_OFF_SPARE), &cid,
                                  ld32(msg, RTM_REG_OFF_FILTER), vrfId);
  rt_client *rtc = result == RTM_REG_FAIL ? nullptr : rtmClientGetByHandle(afIndex, cid);
  if (!rtc) return refuse();
  if (result == RTM_REG_DUPLICATE) {
    char text[41];
    qorEventLog(rtmevkey, kSevInfo, "rtmRegisterClient: Client %s (%d) duplicate registration\n",
                rtmClientName(rtc, text), static_cast<int>(cid));
    restartSequence(rtc, multiQ, noOfQs);
    st32(msg, IPC_OFF_MSTATUS, RTM_REG_OK);
    st32(msg, RTM_REG_OFF_CID, cid);
    return RTM_REG_DUPLICATE;
  }
  if (multiQ && qorSwpQListCreateExpSeqList(&rtc->expSeqQListHdl, noOfQs) != 0) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: Wron SWP exp seq handle", cid);
    abandon(rtc);
    return refuse();
  }
  rtc->rtc_paired = 0;
  rtc->rtc_expSeqPtr = rtc->rtc_expSeq;
  if (!attachQueues(rtc, afIndex, vrfId)) {
    abandon(rtc);
    return refuse();
  }
  sendFirstContents(afIndex, rtc);
  st32(msg, IPC_OFF_MSTATUS, RTM_REG_OK);
  st32(msg, RTM_REG_OFF_CID, cid);
  const RtmClientHooks &h = rtmClientHooks;
  hook(h.rtmRegClientRmaps, afIndex, rtc, vrfId);
  if (proto == RTM_PROTO_BGP) hook(h.rtmProtoClientInfoDownload, 0u, 0u, RTM_PROTO_BGP, RTM_PROTO_FIB, 1, 1);
  if (proto == RTM_PROTO_FIB && afIndex == RTM_IPV4UNI_AFINDEX) hook(h.halRtmFibAgentRegistered, rtc);
  if (proto == RTM_PROTO_FIB && !rtc->rtc_paired) hook(h.rtmBulkDownloadTnlDestAddrInfo, rtc);
  if (proto == RTM_PROTO_FIB) hook(h.rtmOfmDnldAllSdnRoutes);
  wakeWorkers(afIndex, rtc->rtc_vrfId);
  return RTM_REG_NEW;
}

int rtmRegisterClientNonRtProto(uint8_t *msg, uint32_t len) {
  auto answer = [&](uint32_t status) {
    st32(msg, IPC_OFF_MSTATUS, status);
    if (len >= RTM_REG_OFF_CID + 4) st32(msg, RTM_REG_OFF_CID, 0);
    rtmSendReply(msg);
    return static_cast<int>(status);
  };
  uint32_t select = len >= RTM_NONRT_MSG_LEN ? ld32(msg, RTM_NONRT_OFF_SELECT) : 0;
  if (select != RTM_NONRT_ARP && select != RTM_NONRT_NDP) {
    qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: rtmRegisterClientNonRtProto", len, select);
    return answer(RTM_REG_FAILED);
  }
  bool arp = select == RTM_NONRT_ARP;
  rtm_nbr_client &mgr = arp ? arpClient : ndpClient;
  uint32_t svce = ld32(msg, RTM_NONRT_OFF_SVCE), inst = ld32(msg, RTM_NONRT_OFF_INST);
  bool samePeer = mgr.queue && mgr.svce == svce && mgr.inst == inst;
  mgr.state = select;
  mgr.task = ld32(msg, RTM_NONRT_OFF_TASK);
  mgr.svce = svce;
  mgr.card = ld32(msg, RTM_NONRT_OFF_CARD);
  mgr.inst = inst;
  mgr.word = ld32(msg, RTM_NONRT_OFF_WORD);
  ++(arp ? arpClientRegCnt : ndpClientRegCnt);
  if (samePeer) {
    // The manager started over and expects sequence 1: what it had not acknowledged is moot.
    qorSwpQueueFlush(mgr.queue);
  } else {
    if (mgr.queue) qorSwpQueueRemove(mgr.queue);
    mgr.queue = 0;
    if (qorSwpQueueCreate_p(rtmevkey, 0, 5, 136, RTM_SVCE, 0, rtmIpcKey, svce, inst, 0, 0, 0, swpFree,
                            arp ? rtmArpmDownloadErrCB : rtmNdpmDownloadErrCB, &mgr.queue, rtm_swp_pipe) != QOR_SWP_OK) {
      qorSysErr(rtmevkey, 0, 0x148005, 0, "RTM: rtmRegisterClient", arp ? "ARPM" : "NDPM");
      mgr = {};
      return RTM_REG_FAIL;  // no answer: the manager retries its registration
    }
  }
  mgr.qstate = RTC_Q_REGISTERED;
  mgr.count = 0;
  return answer(RTM_REG_OK);
}

// ---- Deregistration ----------------------------------------------------------------------

namespace {
// Takes the client's queues away before its record goes. A download queue still used by the
// other family's record is handed over rather than removed.
void dropQueues(rt_client *rtc) {
  if (rtmProtoIsDownload(rtc->rtc_proto)) {
    rt_client *partner = familyPartner(rtc);
    if (!rtc->rtc_paired) {
      if (partner && partner->rtc_paired && partner->rtc_dnldQ == rtc->rtc_dnldQ)
        partner->rtc_paired = 0;
      else if (rtc->rtc_dnldQ)
        qorSwpQueueRemove(rtc->rtc_dnldQ);
    }
    rtc->rtc_dnldQ = 0;
  }
  if (rtmProtoOwnsRedistQ(rtc->rtc_proto) && rtc->rtc_redistQ) {
    qorSwpQueueRemove(rtc->rtc_redistQ);
    if (rtc->rtc_proto == RTM_PROTO_BGP)
      if (rt_client *mbgp = rtmClientGet(static_cast<uint8_t>(rtc->rtc_afIndex), RTM_PROTO_MBGP, rtc->rtc_instance))
        mbgp->rtc_redistQ = 0;
  }
  rtc->rtc_redistQ = 0;
}
}  // namespace

int rtmDeregisterClientCid(uint8_t afIndex, uint32_t cid, int delOtherAf) {
  rt_client *rtc = rtmClientGetByHandle(afIndex, cid);
  if (!rtc) {
    qorSysErr(rtmevkey, 0, 0x148019, 0, "RTM: rtmDeregisterClient", cid, afIndex);
    return RTM_FAILURE;
  }
  // Refused before anything is touched, so a permanent client keeps its queues too.
  if (rtmProtoIsPermanent(rtc->rtc_proto)) {
    qorSysErr(rtmevkey, 0, 0x14801A, 0, "RTM: _rtmDeregisterClient", rtc->rtc_proto, cid);
    return RTM_FAILURE;
  }
  const RtmClientHooks &h = rtmClientHooks;
  uint32_t proto = rtc->rtc_proto, vrfId = rtc->rtc_vrfId;
  dropQueues(rtc);
  if (proto == RTM_PROTO_ISIS && h.rtmRedistValidateIsisTagInTbl) {
    char name[41];
    rtmClientName(rtc, name);
    forEachServedVrf(vrfId, [&](uint32_t v) {
      if (g_rtmVrfInUse[v]) h.rtmRedistValidateIsisTagInTbl(afIndex, rtc->rtc_instance, name, 0, v);
    });
  }
  if (proto == RTM_PROTO_BGP) {
    hook(h.rtmProtoClientInfoDownload, 0u, 0u, RTM_PROTO_BGP, RTM_PROTO_FIB, 1, 0);
    if (delOtherAf) hook(h.rtmDeregisterInternalBgpClients, afIndex, rtc);
  }
  if (proto == RTM_PROTO_BFD) {
    hook(h.rtmStaticBfdTaskNotif, 0, 0, 0xFFFFu, RTM_IPV4UNI_AFINDEX);
    hook(h.rtmStaticBfdTaskNotif, 0, 0, 0xFFFFu, RTM_IPV6UNI_AFINDEX);
  }
  int status = _rtmDeregisterClient(afIndex, cid, 0);
  wakeWorkers(afIndex, vrfId);
  return status;
}

int rtmDeregisterClient(uint8_t afIndex, uint8_t *msg, int delOtherAf) {
  int status = rtmDeregisterClientCid(afIndex, ld32(msg, RTM_DEREG_OFF_CID), delOtherAf);
  st32(msg, IPC_OFF_MSTATUS, static_cast<uint32_t>(status));
  return status;
}

void rtmRemoveProtoRoutes(uint8_t afIndex, rt_client *rtc, uint32_t vrfId) {
  const RtmClientHooks &h = rtmClientHooks;
  bool rpf = rtc->rtc_proto == RTM_PROTO_MBGP || rtc->rtc_proto == RTM_PROTO_MSTATIC;
  auto clear = rpf ? h.rtmRpfClearVrfProtoRoutes : h.rtmClearVrfProtoRoutes;
  if (clear)
    forEachServedVrf(vrfId, [&](uint32_t v) {
      if (g_rtmVrfInUse[v]) clear(afIndex, rtc, v);
    });
  // The leak thread may still be offering the client's routes to other VRFs.
  yieldUntil(rtmThreadRtLeak, [] { return false; });
  if (rtc->rtc_proto >= 4 && rtc->rtc_proto <= 23 && !rpf)
    hook(h.rtmPollRibClearProto, afIndex, rtc->rtc_cid, 0xFFFFu);
}

int _rtmDeregisterClient(uint8_t afIndex, uint32_t cid, int afDel) {
  if (!rowOk(afIndex)) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: _rtmDeregisterClient:Bad afIndex", afIndex);
    return RTM_FAILURE;
  }
  if (cid >= MAX_RTM_CLEINTS) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: _rtmDeregisterClient", cid);
    return RTM_FAILURE;
  }
  rt_client *rtc = &rt_client_tbl[afIndex][cid];
  if (rtc->rtc_state == RTC_STATE_FREE) {
    qorSysErr(rtmevkey, 0, 0x148019, 0, "RTM: _rtmDeregisterClient:2", cid);
    return RTM_FAILURE;
  }
  if (rtmProtoIsPermanent(rtc->rtc_proto)) {
    qorSysErr(rtmevkey, 0, 0x14801A, 0, "RTM: _rtmDeregisterClient", rtc->rtc_proto, cid);
    return RTM_FAILURE;
  }
  uint32_t vrfId = rtc->rtc_vrfId;
  if (vrfId >= MAX_VRF && vrfId != ALL_VRF_ID) return RTM_FAILURE;
  rt_client *partner = familyPartner(rtc);
  if (rtc->expSeqQListHdl) {
    // A list shared with the other family's record stays with it.
    if (!(partner && partner->expSeqQListHdl == rtc->expSeqQListHdl) &&
        qorSwpQListRemoveExpSeqList(rtc->expSeqQListHdl) != 0) {
      qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: Wron SWP exp seq handle", rtc->expSeqQListHdl);
      return RTM_FAILURE;
    }
    rtc->expSeqQListHdl = 0;
  }
  const RtmClientHooks &h = rtmClientHooks;
  hook(h.clearClientRedistRuleInRib, afIndex, rtc);
  rtmRemoveProtoRoutes(afIndex, rtc, vrfId);
  hook(h.rtmDeregClientRmaps, afIndex, rtc);
  hook(h._rtmDeregFreeDioRuleList, afIndex, rtc);
  forEachServedVrf(vrfId, [&](uint32_t v) {
    clearAllQualifierForProto(rtc->rtc_proto, rtc->rtc_instance, v, afIndex);
    hook(h._rtmDeregFreeRedistRuleList, afIndex, rtc, v);
    if (afDel) hook(h._rtmClearClientRedistRule, afIndex, rtc, v);
  });
  if (rtc->rtc_proto == RTM_PROTO_OSPF && vrfId == ALL_VRF_ID) rtmClientFreeOspfMap(afIndex);
  // A redistribution walk may hold the record; it lets go at its next step.
  yieldUntil(rtmThreadRedis, [rtc] { return rtc->rtc_walking == 0; });
  hook(h.rtmClearDownloadBit, afIndex, rtc);
  for (uint32_t v = 0; v < MAX_VRF; ++v)
    if (rtc->rtc_vrf[v]) rtmClientVrfDestroy(rtc, v);
  clearFibSlot(rtc);
  // The partner read the expected sequence from this record: it keeps the value in its own.
  partner = familyPartner(rtc);
  if (partner && partner->rtc_expSeqPtr == rtc->rtc_expSeq) {
    partner->rtc_expSeq[0] = rtc->rtc_expSeq[0];
    partner->rtc_expSeq[1] = rtc->rtc_expSeq[1];
    partner->rtc_expSeqPtr = partner->rtc_expSeq;
  }
  if (partner && !rtc->rtc_paired) partner->rtc_paired = 0;
  rtmRemoveClientFromList(&regularClients[afIndex], rtc);
  rtmRemoveClientFromList(&superClients[afIndex], rtc);
  memset(rtc, 0, sizeof *rtc);
  return RTM_SUCCESS;
}

int rtmDeregisterAFClient(uint8_t afIndex, uint32_t cid) {
  uint8_t row = afIndex == IPV4MUL_AFINDEX ? RTM_IPV4UNI_AFINDEX : afIndex == RTM_IPV6MUL_AFINDEX ? RTM_IPV6UNI_AFINDEX : afIndex;
  rt_client *rtc = rtmClientGetByHandle(row, cid);
  if (!rtc) {
    qorSysErr(rtmevkey, 0, 0x148019, 0, "RTM: rtmDeregisterAFClient", cid, afIndex);
    return RTM_FAILURE;
  }
  rt_client *partner = nullptr;
  uint32_t inst = rtc->rtc_instance;
  if (rtc->rtc_proto == RTM_PROTO_BGP) {
    switch (afIndex) {
      case 0: partner = rtmClientGet(0, RTM_PROTO_BGP, inst); break;
      case 1: partner = rtmClientGet(0, RTM_PROTO_MBGP, inst); break;
      case 2: partner = rtmClientGet(2, RTM_PROTO_BGP, inst); partner = partner ? partner : rtc; break;
      case 3: partner = rtmClientGet(2, RTM_PROTO_MBGP, inst); break;
      default: _qorAssert("0", __FILE__, __LINE__, afIndex); return RTM_FAILURE;
    }
  } else if (rtc->rtc_proto == RTM_PROTO_MBGP) {
    partner = rtc;
  } else {
    return rtmDeregisterClientCid(row, cid, 0);
  }
  if (!partner) {
    qorSysErr(rtmevkey, 0, 0x148019, 0, "RTM: rtmDeregisterAFClient", cid, afIndex);
    return RTM_FAILURE;
  }
  if (rtc->rtc_proto == RTM_PROTO_BGP && partner->rtc_redistQ) {
    // Only BGP owns the queue; an MBGP record just stops using it.
    if (partner->rtc_proto == RTM_PROTO_BGP) {
      qorSwpQueueFlush(partner->rtc_redistQ);
      qorSwpQueueRemove(partner->rtc_redistQ);
      if (rt_client *mbgp = rtmClientGet(static_cast<uint8_t>(partner->rtc_afIndex), RTM_PROTO_MBGP, inst))
        mbgp->rtc_redistQ = 0;
    }
    partner->rtc_redistQ = 0;
  }
  return _rtmDeregisterClient(static_cast<uint8_t>(partner->rtc_afIndex), partner->rtc_cid, 0);
}

// ---- Card events -------------------------------------------------------------------------

int rtmClientEvtNotification(uint8_t *msg, uint32_t len) {
  if (len < RTM_EVT_MSG_LEN) {
    qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: rtmClientEvtNotification", len);
    return RTM_FAILURE;
  }
  uint32_t event = ld32(msg, RTM_EVT_OFF_EVENT);
  if (event == RTM_EVT_ZLK_PEER_STATUS) {
    hook(rtmClientHooks.halRtmHandleZlkPeerStatus, static_cast<const uint8_t *>(msg), len);
    return RTM_SUCCESS;
  }
  uint32_t slot = ld32(msg, RTM_EVT_OFF_SLOT);
  if (rtmdebug & kDebugEvents) qorDebugPrintf("rtmClientEvtNotification: card in slot %u went down\r\n", slot);
  // The card's agents are gone with it: nothing would acknowledge their queues.
  for (uint8_t af = 0; af < 3; ++af)
    for (uint32_t proto : {RTM_PROTO_FIB, RTM_PROTO_FIB6}) {
      rt_client *rtc = rtmClientGet(af, proto, slot);
      if (!rtc) continue;
      if (uint32_t q = rtc->rtc_dnldQ) {
        qorSwpQueueRemove(q);
        if (rt_client *p = familyPartner(rtc); p && p->rtc_dnldQ == q) p->rtc_dnldQ = 0;
      }
      rtc->rtc_dnldQ = 0;
      _rtmDeregisterClient(af, rtc->rtc_cid, 0);
    }
  hook(rtmClientHooks.halrtmBrmUpdSvpLcConfigStatus, slot);
  return RTM_SUCCESS;
}

// ---- Message handlers --------------------------------------------------------------------

namespace {
int onRegister(uint8_t *msg, uint32_t len, rt_client *) {
  int result = rtmRegisterClient(msg, len);
  // BFD coming up is told of the static routes it should watch.
  if (result != RTM_REG_FAIL && ld32(msg, RTM_REG_OFF_PROTO) == RTM_PROTO_BFD && qorHaIsPrimaryRpm() == 1) {
    hook(rtmClientHooks.rtmStaticBfdTaskNotif, 1, 0, 0xFFFFu, RTM_IPV4UNI_AFINDEX);
    hook(rtmClientHooks.rtmStaticBfdTaskNotif, 1, 0, 0xFFFFu, RTM_IPV6UNI_AFINDEX);
  }
  return result;
}

// Both families at once: both new, or both already there, or neither stays.
int onRegisterBoth(uint8_t *msg, uint32_t len, rt_client *) {
  if (len < RTM_REG_MSG_LEN) return rtmRegisterClient(msg, len);
  st32(msg, RTM_REG_OFF_CID, 0);
  st8(msg, RTM_REG_OFF_AFINDEX, RTM_IPV4UNI_AFINDEX);
  int r4 = rtmRegisterClient(msg, len);
  uint32_t cid4 = ld32(msg, RTM_REG_OFF_CID);
  int r6 = RTM_REG_FAIL;
  uint32_t cid6 = 0;
  if (r4 != RTM_REG_FAIL) {
    st32(msg, RTM_REG_OFF_CID, 0);
    st8(msg, RTM_REG_OFF_AFINDEX, RTM_IPV6UNI_AFINDEX);
    r6 = rtmRegisterClient(msg, len);
    cid6 = ld32(msg, RTM_REG_OFF_CID);
  }
  if (r4 != RTM_REG_FAIL && r4 == r6) {
    st32(msg, RTM_REG_OFF_CID, rtmRegBothCid(cid4, cid6));
    st32(msg, IPC_OFF_MSTATUS, RTM_REG_OK);
    return r4;
  }
  if (r6 != RTM_REG_FAIL) rtmDeregisterClientCid(RTM_IPV6UNI_AFINDEX, cid6, 0);
  if (r4 != RTM_REG_FAIL) rtmDeregisterClientCid(RTM_IPV4UNI_AFINDEX, cid4, 0);
  st32(msg, RTM_REG_OFF_CID, 0);
  st32(msg, IPC_OFF_MSTATUS, RTM_REG_FAILED);
  return RTM_REG_FAIL;
}

int onRegisterNonRt(uint8_t *msg, uint32_t len, rt_client *) { return rtmRegisterClientNonRtProto(msg, len); }

int onDeregister(uint8_t *msg, uint32_t len, rt_client *) {
  uint8_t af = len >= RTM_DEREG_MSG_LEN ? ld8(msg, RTM_DEREG_OFF_AFINDEX) : 0xFF;
  if (af == IPV4MUL_AFINDEX) af = RTM_IPV4UNI_AFINDEX;  // where such a client registered
  if (!rowOk(af)) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: rtmDeregisterClient:Bad afIndex", len, af);
    return RTM_FAILURE;
  }
  return rtmDeregisterClient(af, msg, 1);
}

int onDeregisterAf(uint8_t *msg, uint32_t len, rt_client *) {
  if (len < RTM_DEREG_AF_MSG_LEN || ld8(msg, RTM_DEREG_AF_OFF_AFINDEX) > RTM_MAX_AFINDEX) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: rtmDeregisterAFClient", len);
    return RTM_FAILURE;
  }
  return rtmDeregisterAFClient(ld8(msg, RTM_DEREG_AF_OFF_AFINDEX), ld32(msg, RTM_DEREG_OFF_CID));
}

int onDeregisterBoth(uint8_t *msg, uint32_t len, rt_client *) {
  if (len < RTM_DEREG_BOTH_MSG_LEN) {
    qorSysErr(rtmevkey, 0, 0x148018, 0, "RTM: rtmDeregisterClient", len);
    return RTM_FAILURE;
  }
  uint32_t both = ld32(msg, RTM_DEREG_OFF_CID);
  int r6 = rtmDeregisterClientCid(RTM_IPV6UNI_AFINDEX, rtmRegBothCid6(both), 1);
  int r4 = rtmDeregisterClientCid(RTM_IPV4UNI_AFINDEX, rtmRegBothCid4(both), 1);
  return r6 | r4;
}

int onCardEvent(uint8_t *msg, uint32_t len, rt_client *) { return rtmClientEvtNotification(msg, len); }

int onQualifier(uint8_t *msg, uint32_t len, rt_client *rtc) {
  if (len < RTM_QUAL_MSG_LEN || !rtc) {
    qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: mapQualifier", len);
    return RTM_FAILURE;
  }
  mapQualifier(rtc->rtc_proto, ld32(msg, RTM_QUAL_OFF_VRFID), msg + RTM_QUAL_OFF_INSTANCE,
               static_cast<uint8_t>(rtc->rtc_afIndex));
  return RTM_SUCCESS;
}
int onUnqualifier(uint8_t *msg, uint32_t len, rt_client *rtc) {
  if (len < RTM_QUAL_MSG_LEN || !rtc) {
    qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: unmapQualifier", len);
    return RTM_FAILURE;
  }
  unmapQualifier(rtc->rtc_proto, ld32(msg, RTM_QUAL_OFF_VRFID), msg + RTM_QUAL_OFF_INSTANCE,
                 static_cast<uint8_t>(rtc->rtc_afIndex));
  return RTM_SUCCESS;
}
}  // namespace

void rtmClientSetHandlers() {
  rtmFrameSetHandler(MT_RTM_REG_CLIENT, onRegister);
  rtmFrameSetHandler(MT_RTM_REG_CLIENT_2, onRegister);
  rtmFrameSetHandler(MT_RTM_REG_CLIENT_VRF, onRegister);
  rtmFrameSetHandler(MT_RTM_REG_CLIENT_BOTH, onRegisterBoth);
  rtmFrameSetHandler(MT_RTM_REG_NONRT_CLIENT, onRegisterNonRt);
  rtmFrameSetHandler(MT_RTM_DEREG_CLIENT, onDeregister);
  rtmFrameSetHandler(MT_RTM_DEREG_AF_CLIENT, onDeregisterAf);
  rtmFrameSetHandler(MT_RTM_DEREG_CLIENT_BOTH, onDeregisterBoth);
  rtmFrameSetHandler(MT_EVT_NOTIFY, onCardEvent);
  rtmFrameSetHandler(MT_RTM_REG_CLIENT_INSTANCE, onQualifier);
  rtmFrameSetHandler(MT_RTM_DEREG_CLIENT_INSTANCE, onUnqualifier);
}

void rtmClientRegReset() {
  arpClient = ndpClient = {};
  arpClientRegCnt = ndpClientRegCnt = 0;
  if (rtmOfmGroupTree) qorRadixDestroy(rtmOfmGroupTree);
  rtmOfmGroupTree = nullptr;
}
