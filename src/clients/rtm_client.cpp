// The client table, its look-ups, the per-VRF client records, the regular and super lists,
// and the per-VRF route counters.
//
// The table is static and indexed by handle; a free entry is all zero, so every look-up is an
// index and a state test. Per VRF a client has an rtClientVrfInfo (from the counted heap) that
// carries its change-list walkers on the VRF's main and connected trees; a walker sits on its
// tree's list, so a record is never freed without taking its walkers off first.
// Registration and deregistration are in rtm_client_reg.cpp, qualifiers in rtm_client_qual.cpp.
#include "clients/rtm_client.h"

#include <cstring>

#include "chassis/qor_chassis.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "log/qor_log.h"
#include "rib/rtm_rib.h"

rt_client rt_client_tbl[3][MAX_RTM_CLEINTS];
QOR_DLL regularClients[3], superClients[3];
rt_client *dummySuperClient[3];
uint32_t rtmCurrentFilterState = 1;
uint8_t rtmRcvdDnldCmpFrmIfm[RTM_MAX_SLOTS];
uint32_t g_activeFibSlt;
RtmClientHooks rtmClientHooks;

namespace {
constexpr uint32_t kVrfInfoMemType = 17;
constexpr uint32_t kClientMemType = 19;

bool rowOk(uint8_t afIndex) { return afIndex == RTM_IPV4UNI_AFINDEX || afIndex == RTM_IPV6UNI_AFINDEX; }
}  // namespace

// ---- Look-ups ----------------------------------------------------------------------------

rt_client *rtmClientGetByHandle(uint8_t afIndex, uint32_t cid) {
  if (!rowOk(afIndex)) return nullptr;
  if (cid >= MAX_RTM_CLEINTS) {
    if (cid > MAX_RTM_CLEINTS) _qorAssert("rtmHandle <= MAX_RTM_CLEINTS", __FILE__, __LINE__, long(cid));
    return nullptr;
  }
  rt_client *rtc = &rt_client_tbl[afIndex][cid];
  if (rtc->rtc_state != RTC_STATE_ACTIVE) return nullptr;
  if (rtc->rtc_afIndex != afIndex) {
    _qorAssert("pClient->rtc_afIndex == afIndex", __FILE__, __LINE__, long(rtc->rtc_afIndex));
    return nullptr;
  }
  return rtc;
}

namespace {
// The first active record of the row that `match` accepts; a second one is an error worth an
// event, but the first stays the answer.
template <class Match>
rt_client *findInRow(uint8_t afIndex, Match match, bool stopAtFirst) {
  if (!rowOk(afIndex)) return nullptr;
  rt_client *found = nullptr;
  for (rt_client &rtc : rt_client_tbl[afIndex]) {
    if (!match(rtc)) continue;
    if (rtc.rtc_state != RTC_STATE_ACTIVE) {
      qorSysErr(rtmevkey, 0, 0x148014, 0, "RTM: rtmClientGet", rtc.rtc_proto, rtc.rtc_instance);
      continue;
    }
    if (rtc.rtc_afIndex != afIndex) {
      _qorAssert("rtc->rtc_afIndex == afIndex", __FILE__, __LINE__, long(rtc.rtc_afIndex));
      continue;
    }
    if (found) {
      qorSysErr(rtmevkey, 0, 0x148015, 0, "RTM: rtmClientGet", rtc.rtc_proto, rtc.rtc_instance, rtc.rtc_cid);
      continue;
    }
    found = &rtc;
    if (stopAtFirst) break;
  }
  return found;
}
}  // namespace

rt_client *rtmClientGet(uint8_t afIndex, uint32_t proto, uint32_t instance) {
  return findInRow(
      afIndex, [&](const rt_client &c) { return c.rtc_proto == proto && c.rtc_instance == instance; }, false);
}

rt_client *rtmClientGetByProto(uint8_t afIndex, uint32_t proto) {
  // OSPF runs many instances: any of them answers.
  return findInRow(afIndex, [&](const rt_client &c) { return c.rtc_proto == proto; }, proto == RTM_PROTO_OSPF);
}

rt_client *rtmClientGetByIpcInfo(uint8_t afIndex, uint32_t svce, uint32_t inst) {
  if (!rowOk(afIndex)) return nullptr;
  for (rt_client &rtc : rt_client_tbl[afIndex])
    if (rtc.rtc_state == RTC_STATE_ACTIVE && rtc.rtc_ipcSvce == svce && rtc.rtc_ipcInst == inst) return &rtc;
  return nullptr;
}

int32_t rtmClientGetVrfId(uint8_t afIndex, uint32_t cid) {
  rt_client *rtc = rtmClientGetByHandle(afIndex, cid);
  return rtc ? static_cast<int32_t>(rtc->rtc_vrfId) : RTM_CLIENT_NOT_ACTIVE;
}

rtClientVrfInfo *rtmClientGetVrfInfo(uint8_t afIndex, uint32_t cid, uint32_t vrfId) {
  rt_client *rtc = rtmClientGetByHandle(afIndex, cid);
  if (!rtc || vrfId >= MAX_VRF) return nullptr;
  return rtc->rtc_vrf[vrfId];
}

const char *rtmClientName(const rt_client *rtc, char (&buf)[41]) {
  memcpy(buf, rtc->rtc_name, 40);
  buf[40] = 0;
  return buf;
}

const char *rtmClientGetProtoNameByIpc(uint8_t afIndex, uint32_t svce, uint32_t inst) {
  rt_client *rtc = rtmClientGetByIpcInfo(afIndex, svce, inst);
  return rtmClientGetProtoName(rtc ? rtc->rtc_proto : 0);
}

// ---- Per-VRF records ---------------------------------------------------------------------

int rtmClientVrfInit(rt_client *rtc, uint32_t vrfId) {
  if (!rtc || vrfId >= MAX_VRF) return 1;
  if (rtc->rtc_vrf[vrfId]) return 0;
  auto *rvi = static_cast<rtClientVrfInfo *>(
      rtmMemAllocNonPool(__FILE__, __LINE__, sizeof(rtClientVrfInfo), kVrfInfoMemType));
  if (!rvi) return 1;
  rtc->rtc_vrf[vrfId] = rvi;  // the allocator cleared it: versions, walkers, rvi_blocked are 0
  return 0;
}

int rtmClientVrfDestroy(rt_client *rtc, uint32_t vrfId) {
  if (!rtc || vrfId >= MAX_VRF || !rtc->rtc_vrf[vrfId]) return 1;
  rtClientVrfInfo *rvi = rtc->rtc_vrf[vrfId];
  uint8_t af = static_cast<uint8_t>(rtc->rtc_afIndex);
  if (qor_radix_tree *t = rtmRibGetTree(af, vrfId)) qorRadicalWalkDestructor(t, &rvi->rvi_walker);
  if (qor_radix_tree *t = rtmConRibGetTree(af, vrfId)) qorRadicalWalkDestructor(t, &rvi->rvi_conWalker);
  rtc->rtc_vrf[vrfId] = nullptr;
  rtmMemFreeNonPool(__FILE__, __LINE__, rvi);
  return 0;
}

// Places the client's walkers at the start of the VRF's change lists: a new client is served
// the whole table.
void rtmClientMakeWalkers(rt_client *rtc, uint32_t vrfId, bool withConnected) {
  rtClientVrfInfo *rvi = vrfId < MAX_VRF ? rtc->rtc_vrf[vrfId] : nullptr;
  if (!rvi) return;
  uint8_t af = static_cast<uint8_t>(rtc->rtc_afIndex);
  if (qor_radix_tree *t = rtmRibGetTree(af, vrfId)) qorRadicalWalkConstructor(t, &rvi->rvi_walker);
  if (!withConnected) return;
  if (qor_radix_tree *t = rtmConRibGetTree(af, vrfId)) qorRadicalWalkConstructor(t, &rvi->rvi_conWalker);
}

namespace {
// The pseudo client of the super list gets a record in every VRF, with download on.
int dummyVrfInit(rt_client *dummy, uint32_t vrfId) {
  if (rtmClientVrfInit(dummy, vrfId) != 0) return 1;
  rtmClientMakeWalkers(dummy, vrfId, false);
  dummy->rtc_vrf[vrfId]->rvi_ruleFlags[0] |= RVI_DNLD_ON;
  dummy->rtc_vrf[vrfId]->rvi_blocked = 0;
  return 0;
}
}  // namespace

int rtmClientUpdateVrfCreate(uint32_t vrfId) {
  if (vrfId >= MAX_VRF) return 1;
  int rc = 0;
  for (uint8_t af = 0; af < 3; ++af) {
    if (dummySuperClient[af] && dummyVrfInit(dummySuperClient[af], vrfId) != 0) rc = 1;
    for (rt_client &rtc : rt_client_tbl[af]) {
      if (rtc.rtc_state != RTC_STATE_ACTIVE) continue;
      if (rtmClientVrfInit(&rtc, vrfId) != 0) {
        rc = 1;
        continue;
      }
      rtmClientMakeWalkers(&rtc, vrfId, true);
      rtc.rtc_vrf[vrfId]->rvi_ruleFlags[0] = rtc.rtc_vrf[vrfId]->rvi_ruleFlags[1] =
          rtc.rtc_vrf[vrfId]->rvi_ruleFlags[2] = RVI_RULE_FIRST_LOOK;
      if (rtmProtoIsDownload(rtc.rtc_proto)) rtc.rtc_vrf[vrfId]->rvi_ruleFlags[0] |= RVI_DNLD_ON;
    }
  }
  return rc;
}

void rtmClientUpdateVrfDelete(uint32_t vrfId) {
  if (vrfId >= MAX_VRF) return;
  for (uint8_t af = 0; af < 3; ++af) {
    if (dummySuperClient[af]) rtmClientVrfDestroy(dummySuperClient[af], vrfId);
    for (rt_client &rtc : rt_client_tbl[af])
      if (rtc.rtc_vrf[vrfId]) rtmClientVrfDestroy(&rtc, vrfId);
  }
}

// ---- Regular and super lists -------------------------------------------------------------

int rtmAddClientToList(QOR_DLL *list, rt_client *rtc) {
  if (!list) return _qorAssert("head", __FILE__, __LINE__, 0), 1;
  if (!rtc) return _qorAssert("client", __FILE__, __LINE__, 0), 1;
  if (!rtmProtoIsDownload(rtc->rtc_proto)) return 0;
  auto *node = static_cast<rtm_client_node *>(
      rtmMemAllocNonPool(__FILE__, __LINE__, sizeof(rtm_client_node), kClientMemType));
  if (!node) return RTM_NO_MEMORY;
  node->client = rtc;
  qorDLLInsertAtFront(list, &node->link);
  return 0;
}

int rtmRemoveClientFromList(QOR_DLL *list, rt_client *rtc) {
  if (!list) return _qorAssert("mylist", __FILE__, __LINE__, 0), 1;
  if (!rtc) return _qorAssert("pClient", __FILE__, __LINE__, 0), 1;
  for (QOR_DLL_NODE *n = qorDLLGetFirst(list); n; n = qorDLLGetNext(n)) {
    rt_client *c = rtmClientOfNode(n);
    if (!c) {
      _qorAssert("client", __FILE__, __LINE__, 0);
      continue;
    }
    if (c->rtc_cid != rtc->rtc_cid || c->rtc_afIndex != rtc->rtc_afIndex) continue;
    qorDLLRemove(list, n);
    rtmMemFreeNonPool(__FILE__, __LINE__, n);
    return 0;
  }
  return 1;
}

bool rtmClientOnList(const QOR_DLL *list, const rt_client *rtc) {
  for (QOR_DLL_NODE *n = qorDLLGetFirst(list); n; n = qorDLLGetNext(n))
    if (rtmClientOfNode(n) == rtc) return true;
  return false;
}

void rtmValidateOneSuperClient(rt_client *rtc, uint8_t afIndex) {
  if (!rtc) {
    _qorAssert("pClient", __FILE__, __LINE__, 0);
    return;
  }
  if (afIndex >= 3 || !rtmClientOnList(&superClients[afIndex], rtc)) return;
  if (rtmAddClientToList(&regularClients[afIndex], rtc) == 0) rtmRemoveClientFromList(&superClients[afIndex], rtc);
}

// ---- Counters ----------------------------------------------------------------------------

namespace {
inline void bump(uint32_t &counter, int op) {
  if (op == 1)
    ++counter;
  else if (counter)  // a count never goes below zero, whatever order the callers took
    --counter;
}

// The subtype counter a route of this subtype lands on, and whether it is kept on VRF 0's
// record whatever the route's VRF; -1 for subtypes that are not counted.
int subtypeSlot(uint32_t subtype, bool *onVrf0) {
  *onVrf0 = false;
  switch (subtype) {
    case 0: return *onVrf0 = true, 0;
    case 2: return *onVrf0 = true, 1;
    case 4: case 10: case 15: return 0;
    case 5: case 11: case 14: return 1;
    case 6: case 12: case 13: return 2;
    case 7: return 3;
    case 8: return 4;
    case 9: return 5;
    default: return -1;
  }
}
}  // namespace

void rtmRouteCounters(uint8_t afIndex, uint32_t vrfId, uint32_t cid, uint32_t subtype, int op, int active) {
  if (vrfId >= MAX_VRF) {
    _qorAssert("vrfId < MAX_VRF", __FILE__, __LINE__, long(vrfId));
    return;
  }
  if (!g_rtmVrfInUse[vrfId] || (op != 1 && op != 2)) return;
  uint8_t row = afIndex == IPV4MUL_AFINDEX ? RTM_IPV4UNI_AFINDEX : afIndex;
  rt_client *rtc = rtmClientGetByHandle(row, cid);
  if (!rtc) return;
  // Unnumbered host routes are connected routes as far as counting goes.
  if (rtc->rtc_proto == RTM_PROTO_POS) {
    rtc = rtmClientGet(row, RTM_PROTO_CONNECTED, 0);
    if (!rtc) return;
  }
  rtClientVrfInfo *rvi = rtc->rtc_vrf[vrfId];
  bool bgp = rtc->rtc_proto == RTM_PROTO_MBGP || rtc->rtc_proto == RTM_PROTO_MSTATIC;
  bool unicast = rowOk(afIndex);
  if (subtype != RT_INTERNAL && rvi) {
    if (unicast) bump(active ? rvi->rvi_active : rvi->rvi_inactive, op);
    if (bgp) bump(active ? rvi->rvi_activeBgp : rvi->rvi_inactiveBgp, op);
  }
  if (!active && !unicast) return;
  bool onVrf0 = false;
  int slot = subtypeSlot(subtype, &onVrf0);
  if (slot < 0) return;
  rtClientVrfInfo *target = onVrf0 ? rtc->rtc_vrf[0] : rvi;
  if (target) bump(target->rvi_subtypeCnt[slot], op);
}

uint32_t rtmVrfGetActiveRoutesCount(uint8_t afIndex, uint32_t vrfId) {
  if (vrfId >= MAX_VRF || !g_rtmVrfInUse[vrfId] || !rowOk(afIndex)) return 0;
  uint32_t sum = 0;
  for (const rt_client &rtc : rt_client_tbl[afIndex]) {
    if (rtc.rtc_state != RTC_STATE_ACTIVE || !rtc.rtc_vrf[vrfId]) continue;
    switch (rtc.rtc_proto) {
      case RTM_PROTO_OSPF:
      case RTM_PROTO_BGP:
        if (rtc.rtc_vrfId != vrfId && rtc.rtc_vrfId != ALL_VRF_ID) continue;
        break;
      case RTM_PROTO_ISIS:
        break;
      case RTM_PROTO_RIP:
        if (vrfId != 0) continue;
        break;
      default:
        continue;
    }
    sum += rtc.rtc_vrf[vrfId]->rvi_active;
  }
  return sum;
}

// ---- Init and reset ----------------------------------------------------------------------

// Handlers of the registration messages (rtm_client_reg.cpp).
void rtmClientSetHandlers();

int rtmClientInit() {
  int rc = 0;
  for (uint8_t af = 0; af < 3; ++af) {
    memset(rt_client_tbl[af], 0, sizeof rt_client_tbl[af]);
    qorDLLInit(&regularClients[af]);
    qorDLLInit(&superClients[af]);
    if (!dummySuperClient[af]) {
      dummySuperClient[af] =
          static_cast<rt_client *>(rtmMemAllocNonPool(__FILE__, __LINE__, sizeof(rt_client), kClientMemType));
      if (!dummySuperClient[af]) return 1;
    }
    rt_client *dummy = dummySuperClient[af];
    dummy->rtc_proto = RTM_PROTO_SUPER;
    dummy->rtc_state = RTC_STATE_ACTIVE;
    dummy->rtc_afIndex = af;
    for (uint32_t v = 0; v < MAX_VRF; ++v)
      if (g_rtmVrfInUse[v]) rc |= dummyVrfInit(dummy, v);
    dummy->rtc_dnldQ = static_cast<uint32_t>(-1);  // the walk gives it a member's queue each time
  }
  rtmCurrentFilterState = 1;
  rtmClientSetHandlers();
  rtmClientFlushInit();
  // Card events come from the event manager; without them a dead card's agent stays listed.
  if ((qorEvhSubscribeEvt(static_cast<int32_t>(rtmevkey), 0x118012) != 0 ||
       qorEvhSubscribeEvt(static_cast<int32_t>(rtmevkey), 0x118013) != 0) &&
      (rtmdebug & 0x8))
    qorDebugPrintf("rtmClientInit: event subscription failed\r\n");
  return rc;
}

// Frees what a record holds, whatever state it is in (tests, and the dummies).
void rtmClientFreeRecord(rt_client *rtc) {
  for (auto *&rvi : rtc->rtc_vrf)
    if (rvi) {
      rtmMemFreeNonPool(__FILE__, __LINE__, rvi);
      rvi = nullptr;
    }
}

// Qualifier maps and the manager records (rtm_client_qual.cpp, rtm_client_reg.cpp).
void rtmClientQualReset();
void rtmClientRegReset();

void rtmClientReset() {
  // The trees may be gone already, so walkers are not taken off them: the records just go.
  for (auto &row : rt_client_tbl)
    for (auto &rtc : row) {
      rtmClientFreeRecord(&rtc);
      memset(&rtc, 0, sizeof rtc);
    }
  for (uint8_t af = 0; af < 3; ++af) {
    for (QOR_DLL *list : {&regularClients[af], &superClients[af]}) {
      while (QOR_DLL_NODE *n = qorDLLGetFirst(list)) {
        qorDLLRemove(list, n);
        rtmMemFreeNonPool(__FILE__, __LINE__, n);
      }
    }
    if (dummySuperClient[af]) {
      rtmClientFreeRecord(dummySuperClient[af]);
      rtmMemFreeNonPool(__FILE__, __LINE__, dummySuperClient[af]);
      dummySuperClient[af] = nullptr;
    }
  }
  memset(rtmRcvdDnldCmpFrmIfm, 0, sizeof rtmRcvdDnldCmpFrmIfm);
  g_activeFibSlt = 0;
  rtmCurrentFilterState = 1;
  rtmClientQualReset();
  rtmClientRegReset();
  rtmClientHooks = {};
}
