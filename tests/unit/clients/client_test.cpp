// Registration and deregistration driven through rtmd's request queue in real message bytes,
// card events, route counters and OSPF qualifiers.
#include "tests/unit/clients/rtmd_fixture.h"

#include <array>
#include <string>
#include <tuple>

#include "chassis/qor_chassis.h"
#include "nexthop/rtm_nh.h"
#include "rib/rtm_rib.h"
#include "thread/qor_thread.h"

using rtm::ld32;
using rtm::st32;
using rtmtest::Msg;
using rtmtest::Peer;
using rtmtest::Reg;
using std::tuple;

namespace {

using Clients = rtmtest::RtmdTest;

uint32_t internal(uint8_t af, uint32_t proto, uint32_t instance = 0) {
  uint32_t cid = 0;
  EXPECT_EQ(_rtmRegisterClient(af, proto, "internal", 0, instance, RTM_SVCE, 0, 0, 0, &cid, 0, 0), RTM_REG_NEW);
  return cid;
}

TEST_F(Clients, EachKindOfClientGetsItsRowQueuesAndVrf) {
  rtmRcvdDnldCmpFrmIfm[0] = 1;
  struct Case {
    const char *what;
    Reg reg;
    uint8_t row;
    uint32_t vrfId;
    bool redistQ, dnldQ;
    int32_t type;
    uint32_t filter, filterState;
  } cases[] = {
      {"OSPF: a redistribution queue, VRF 0", {RTM_PROTO_OSPF, 1}, 0, 0, true, false, 2, 0, 1},
      {"BGP on IPv6, a VRF asked for is forced to 0", {RTM_PROTO_BGP, 0, 2, 9}, 2, 0, true, false, 2, 0, 1},
      {"the VRF form keeps the VRF", {RTM_PROTO_RIP, 0, 0, 9, 0, 0, "rip", MT_RTM_REG_CLIENT_VRF}, 0, 9, true, false, 2, 0, 1},
      {"OFM takes no queue", {RTM_PROTO_OFM}, 0, 0, false, false, 2, 0, 1},
      {"FIB: a download queue, every VRF", {RTM_PROTO_FIB}, 0, ALL_VRF_ID, false, true, 1, 0, 1},
      {"IPv4 multicast registers on row 0", {RTM_PROTO_IPM, 0, 1}, 0, ALL_VRF_ID, false, true, 2, 2, 1},
      {"IPM6 always lands on row 2", {RTM_PROTO_IPM6, 0, 0}, 2, ALL_VRF_ID, false, true, 2, 2, 1},
      {"LDP is filtered", {RTM_PROTO_LDP}, 0, ALL_VRF_ID, false, true, 2, 0, 2},
  };
  Peer &p = open(700);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const uint32_t walkers = rtmRibGetTree(c.row, 0)->rdl_walkers;
    rt_client *rtc = rtmClientGetByHandle(c.row, registered(p, c.reg));
    ASSERT_TRUE(rtc && rtc->rtc_vrf[0]);
    EXPECT_EQ(tuple(rtc->rtc_proto, rtc->rtc_vrfId, queueExists(rtc->rtc_redistQ), queueExists(rtc->rtc_dnldQ),
                    rtc->rtc_type, rtc->rtc_filter, rtc->rtc_filterState, rtc->rtc_dnldState, rtc->rtc_slot),
              tuple(c.reg.proto, c.vrfId, c.redistQ, c.dnldQ, c.type, c.filter, c.filterState, RTC_Q_REGISTERED, 0));
    // A download client starts on the regular list, unless the download thread has already found
    // it level with the group. A record only for VRF 0, the one in use, and a walker there unless
    // the client serves only VRF 9.
    EXPECT_EQ(tuple(rtmClientOnList(&regularClients[c.row], rtc) || rtmClientOnList(&superClients[c.row], rtc),
                    rtmRibGetTree(c.row, 0)->rdl_walkers - walkers, int(rtc->rtc_vrf[0]->rvi_ruleFlags[0]),
                    rtc->rtc_vrf[1] == nullptr),
              tuple(c.dnldQ, c.vrfId == 9 ? 0u : 1u, c.dnldQ ? RVI_RULE_FIRST_LOOK | RVI_DNLD_ON : RVI_RULE_FIRST_LOOK,
                    true));
  }
}

TEST_F(Clients, MbgpSendsOnBgpsQueueWhicheverCameFirst) {
  Peer &p = open(700);
  uint32_t mbgp = registered(p, {RTM_PROTO_MBGP, 3});
  EXPECT_EQ(rt_client_tbl[0][mbgp].rtc_redistQ, 0u);
  const uint32_t bgp = registered(p, {RTM_PROTO_BGP, 3}), q = rt_client_tbl[0][bgp].rtc_redistQ;
  EXPECT_EQ(tuple(queueExists(q), rt_client_tbl[0][mbgp].rtc_redistQ), tuple(true, q));
  // MBGP leaving its family does not take BGP's queue with it.
  send(p, deregMsg(MT_RTM_DEREG_AF_CLIENT, bgp, IPV4MUL_AFINDEX));
  EXPECT_EQ(tuple(rtmClientGetByHandle(0, mbgp), rtmClientGetByHandle(0, bgp) != nullptr, queueExists(q)),
            tuple(nullptr, true, true));
  // BGP itself takes it, and an MBGP that came back stops using it.
  mbgp = registered(p, {RTM_PROTO_MBGP, 3});
  send(p, deregMsg(MT_RTM_DEREG_AF_CLIENT, bgp, RTM_IPV4UNI_AFINDEX));
  EXPECT_EQ(tuple(queueExists(q), rtmClientGetByHandle(0, bgp), rt_client_tbl[0][mbgp].rtc_redistQ),
            tuple(false, nullptr, 0u));
}

TEST_F(Clients, RegistrationsRefusedForWantOfMemoryOrOfAHandleLeaveNoTrace) {
  Peer &p = open(700);
  qorMemSysFailNext(1);
  EXPECT_EQ(reg(p, {RTM_PROTO_OSPF}), RTM_REG_FAILED);
  for (const rt_client &rtc : rt_client_tbl[0]) EXPECT_EQ(rtc.rtc_state, RTC_STATE_FREE);
  for (uint32_t i = 0; i < MAX_RTM_CLEINTS; ++i) {
    uint32_t cid = 99;
    ASSERT_EQ(reg(p, {RTM_PROTO_TCLASSMGR, i}, &cid), RTM_REG_OK) << i;
    EXPECT_EQ(cid, i);  // the lowest free handle
  }
  EXPECT_EQ(reg(p, {RTM_PROTO_TCLASSMGR, 64}), RTM_REG_FAILED);
  // The other family's row is not affected, and a freed handle is used again.
  EXPECT_EQ(reg(p, {RTM_PROTO_TCLASSMGR, 64, RTM_IPV6UNI_AFINDEX}), RTM_REG_OK);
  EXPECT_EQ(rtmDeregisterClientCid(0, 17, 0), 0);
  EXPECT_EQ(registered(p, {RTM_PROTO_OSPF}), 17u);
}

TEST_F(Clients, ARepeatedRegistrationKeepsHandleAndQueuesAndRestartsTheSequence) {
  Peer &p = open(700);
  const uint32_t cid = registered(p, {RTM_PROTO_ISIS, 2});
  rt_client *rtc = &rt_client_tbl[0][cid];
  const uint32_t q = rtc->rtc_redistQ;
  rtc->rtc_expSeq[1] = 40;
  qorLogClearRecent();
  const uint32_t again = registered(p, {RTM_PROTO_ISIS, 2});
  EXPECT_EQ(tuple(again, rtc->rtc_redistQ, queueExists(q), rtc->rtc_expSeq[1], qorLogSaw("duplicate registration")),
            tuple(cid, q, true, 0u, true));
  EXPECT_NE(registered(p, {RTM_PROTO_ISIS, 3}), cid);  // another instance is another client
}

TEST_F(Clients, AnAgentsTwoFamiliesShareOneQueueAndOneExpectedSequence) {
  rtmRcvdDnldCmpFrmIfm[0] = 1;
  Peer &p = open(710);
  // A download control message of the agent, in its one sequence.
  auto control = [&](uint32_t cid, uint8_t af, uint32_t seq) {
    Msg m = message(MT_RTM_DNLD_CNTRL, 144);
    st32(m.data(), SWP_OFF_QUEUE, 5), st32(m.data(), SWP_OFF_SEQ, seq), st32(m.data(), 128, cid);
    m[140] = af;
    send(p, m);
  };
  for (bool ipv4First : {true, false}) {
    SCOPED_TRACE(ipv4First ? "the IPv4 record leaves last" : "the IPv4 record leaves first");
    uint32_t c4 = 0, c6 = 0;
    ASSERT_EQ(reg(p, {RTM_PROTO_FIB, 0, RTM_IPV4UNI_AFINDEX}, &c4), RTM_REG_OK);
    ASSERT_EQ(reg(p, {RTM_PROTO_FIB, 0, RTM_IPV6UNI_AFINDEX}, &c6), RTM_REG_OK);
    rt_client *r4 = rtmClientGetByHandle(0, c4), *r6 = rtmClientGetByHandle(2, c6);
    const uint32_t q = r4->rtc_dnldQ;
    EXPECT_EQ(tuple(r4->rtc_paired, r6->rtc_paired, r6->rtc_dnldQ), tuple(0u, 1u, q));
    control(c4, 0, 1);
    control(c6, 2, 2);
    EXPECT_EQ(tuple(r4->rtc_expSeqPtr == r6->rtc_expSeqPtr, r4->rtc_expSeqPtr[1]), tuple(true, 3u));
    received(p);
    send(p, deregMsg(MT_RTM_DEREG_CLIENT, ipv4First ? c6 : c4, ipv4First ? 2 : 0));
    rt_client *stays = ipv4First ? r4 : r6;
    ASSERT_EQ(stays->rtc_state, RTC_STATE_ACTIVE);
    EXPECT_EQ(tuple(queueExists(q), stays->rtc_dnldQ, stays->rtc_paired, stays->rtc_expSeqPtr == stays->rtc_expSeq,
                    stays->rtc_expSeq[1]),
              tuple(true, q, 0u, true, 3u));
    send(p, deregMsg(MT_RTM_DEREG_CLIENT, stays->rtc_cid, static_cast<uint8_t>(stays->rtc_afIndex)));
    EXPECT_FALSE(queueExists(q));
    received(p);
  }
}

TEST_F(Clients, AFibAgentWaitsForItsSlotsInterfaceDownload) {
  Peer &p = open(720);
  EXPECT_EQ(reg(p, {RTM_PROTO_FIB}), RTM_REG_FAILED);
  EXPECT_EQ(tuple(rtmClientGet(0, RTM_PROTO_FIB, 0), g_activeFibSlt), tuple(nullptr, 0u));
  // Other download clients do not wait.
  EXPECT_EQ(reg(p, {RTM_PROTO_FIB6, 0, RTM_IPV6UNI_AFINDEX}), RTM_REG_OK);
  rtmRcvdDnldCmpFrmIfm[0] = 1;
  const uint32_t cid = registered(p, {RTM_PROTO_FIB});
  EXPECT_EQ(g_activeFibSlt, 1u);
  EXPECT_EQ(rtmDeregisterClientCid(0, cid, 0), 0);
  EXPECT_EQ(g_activeFibSlt, 0u);
}

TEST_F(Clients, BothFamiliesAtOnceOrNeither) {
  Peer &p = open(730);
  uint32_t both = 0, again = 0;
  const Reg r{.proto = RTM_PROTO_BGP, .instance = 1, .mtype = MT_RTM_REG_CLIENT_BOTH};
  ASSERT_EQ(reg(p, r, &both), RTM_REG_OK);
  rt_client *r4 = rtmClientGet(0, RTM_PROTO_BGP, 1), *r6 = rtmClientGet(2, RTM_PROTO_BGP, 1);
  ASSERT_TRUE(r4 && r6);
  EXPECT_EQ(both, rtmRegBothCid(r4->rtc_cid, r6->rtc_cid));
  // Again: both are repeats, same answer.
  ASSERT_EQ(reg(p, r, &again), RTM_REG_OK);
  EXPECT_EQ(again, both);
  // IPv4 succeeds, IPv6 has no free handle: neither stays.
  for (uint32_t i = 1; i < MAX_RTM_CLEINTS; ++i) internal(2, RTM_PROTO_STATIC, i);
  EXPECT_EQ(reg(p, {.proto = RTM_PROTO_OSPF, .instance = 4, .mtype = MT_RTM_REG_CLIENT_BOTH}, &again), RTM_REG_FAILED);
  EXPECT_EQ(tuple(again, rtmClientGet(0, RTM_PROTO_OSPF, 4), rtmClientGet(2, RTM_PROTO_OSPF, 4)),
            tuple(0u, nullptr, nullptr));
  send(p, deregMsg(MT_RTM_DEREG_CLIENT_BOTH, both));
  EXPECT_EQ(tuple(rtmClientGet(0, RTM_PROTO_BGP, 1), rtmClientGet(2, RTM_PROTO_BGP, 1)), tuple(nullptr, nullptr));
  EXPECT_EQ(statusOf(p, MT_RTM_DEREG_CLIENT_BOTH), 0u);
}

// ---- Deregistration ----------------------------------------------------------------------

std::vector<std::string> g_trace;
uint64_t g_turns;

void step(const std::string &s) { g_trace.push_back(s); }
void step(const std::string &s, uint32_t vrf) { step(s + std::to_string(vrf)); }
uint64_t turnsOf(int thread) {
  QorThreadStats s{};
  qorThreadGetStats(rtmThreads, thread, &s);
  return s.turns;
}

TEST_F(Clients, DeregistrationRunsItsStepsInOrderAndYieldsWithTheRecordActive) {
  RtmClientHooks &h = rtmClientHooks;
  h.clearClientRedistRuleInRib = [](uint8_t, rt_client *) {
    step("redist rules in RIB");
    // The leak thread has work; the client's routes may not be forgotten under it.
    g_turns = turnsOf(rtmThreadRtLeak);
    qorThreadResume(rtmThreads, rtmThreadRtLeak);
  };
  h.rtmClearVrfProtoRoutes = [](uint8_t, rt_client *rtc, uint32_t v) {
    step("routes of VRF ", v);
    EXPECT_EQ(rtc->rtc_state, RTC_STATE_ACTIVE);  // still there for the workers
  };
  h.rtmRpfClearVrfProtoRoutes = [](uint8_t, rt_client *, uint32_t v) { step("RPF routes of VRF ", v); };
  h.rtmPollRibClearProto = [](uint8_t, uint32_t, uint32_t) { step("poll registrations"); };
  h.rtmDeregClientRmaps = [](uint8_t, rt_client *rtc) {
    step("route maps");
    if (turnsOf(rtmThreadRtLeak) > g_turns) step("leak thread had its turn");
    // A redistribution walk holds the record: deregistration waits for that thread.
    rtc->rtc_walking = 1;
    g_turns = turnsOf(rtmThreadRedis);
    qorThreadResume(rtmThreads, rtmThreadRedis);
  };
  h._rtmDeregFreeDioRuleList = [](uint8_t, rt_client *) { step("default-information rules"); };
  h._rtmDeregFreeRedistRuleList = [](uint8_t, rt_client *, uint32_t v) { step("rules of VRF ", v); };
  h.rtmClearDownloadBit = [](uint8_t, rt_client *) {
    if (turnsOf(rtmThreadRedis) > g_turns) step("redistribution thread had its turn");
    step("download bits");
  };
  h.rtmProtoClientInfoDownload = [](uint32_t, uint32_t, uint32_t, uint32_t, int, int add) {
    if (!add) step("BGP gone to FIB");
  };
  h.rtmDeregisterInternalBgpClients = [](uint8_t, rt_client *) { step("internal BGP clients"); };

  // The steps that differ by protocol; every deregistration ends with the same ones.
  const std::vector<std::string> tail = {"route maps", "leak thread had its turn", "default-information rules",
                                         "rules of VRF 0", "redistribution thread had its turn", "download bits"};
  struct Case {
    Reg reg;
    std::vector<std::string> steps;
  } cases[] = {
      {{RTM_PROTO_OSPF, 1}, {"redist rules in RIB", "routes of VRF 0", "poll registrations"}},
      {{RTM_PROTO_MBGP, 1}, {"redist rules in RIB", "RPF routes of VRF 0"}},
      {{RTM_PROTO_BGP, 1},
       {"BGP gone to FIB", "internal BGP clients", "redist rules in RIB", "routes of VRF 0", "poll registrations"}},
  };
  Peer &p = open(740);
  qor_radix_tree *main = rtmRibGetTree(0, 0);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.reg.proto);
    const uint32_t cid = registered(p, c.reg);
    rt_client *rtc = &rt_client_tbl[0][cid];
    const uint32_t q = rtc->rtc_redistQ, walkers = main->rdl_walkers;
    qorThreadRunUntilIdle(rtmThreads);
    g_trace.clear();
    send(p, deregMsg(MT_RTM_DEREG_CLIENT, cid));
    std::vector<std::string> want = c.steps;
    want.insert(want.end(), tail.begin(), tail.end());
    EXPECT_EQ(g_trace, want);
    // The record is zero, its walker and queue gone (MBGP, with no BGP, had none), the answer sent.
    EXPECT_EQ(tuple(rtmClientGetByHandle(0, cid), rtc->rtc_proto, main->rdl_walkers, queueExists(q)),
              tuple(nullptr, 0u, walkers - 1, false));
    EXPECT_EQ(statusOf(p, MT_RTM_DEREG_CLIENT), 0u);
  }
}

TEST_F(Clients, PermanentClientsCannotLeaveAndKeepTheirQueues) {
  Peer &p = open(750);
  const uint32_t ipm = registered(p, {RTM_PROTO_IPM}), q = rt_client_tbl[0][ipm].rtc_dnldQ,
                 con = internal(0, RTM_PROTO_CONNECTED);
  EXPECT_EQ(tuple(rt_client_tbl[0][con].rtc_slot, rt_client_tbl[0][con].rtc_type), tuple(-1, -1));
  for (uint32_t cid : {ipm, con}) {
    qorLogClearRecent();
    EXPECT_EQ(rtmDeregisterClientCid(0, cid, 1), 1);
    EXPECT_EQ(tuple(qorLogCount(0x14801A), rtmClientGetByHandle(0, cid) != nullptr), tuple(1u, true));
  }
  EXPECT_TRUE(queueExists(q));
}

TEST_F(Clients, MalformedMessagesAreRefusedWithAnEventAndNothingApplied) {
  Peer &p = open(760);
  const uint32_t cid = registered(p, {RTM_PROTO_OSPF, 9});
  auto cut = [](Msg m, uint32_t len) {
    m.resize(len);
    st32(m.data(), IPC_OFF_MLEN, len);
    return m;
  };
  struct Case {
    const char *what;
    Msg msg;
    uint32_t event;
  } cases[] = {
      {"shorter than a registration", cut(regMsg(p, {}), RTM_REG_MSG_LEN - 4), 0x148004},
      {"protocol above 30", regMsg(p, {31}), 0x148016},
      {"afIndex 3", regMsg(p, {RTM_PROTO_OSPF, 0, 3}), 0x148018},
      {"more queues than VRFs", regMsg(p, {.proto = RTM_PROTO_OSPF, .multiQ = 1, .noOfQs = MAX_VRF + 1}), 0x148004},
      {"neither ARP nor NDP", nonRtMsg(p, 3), 0x148004},
      // Deregistrations that name no client, or no family.
      {"short deregistration", cut(deregMsg(MT_RTM_DEREG_CLIENT, cid), RTM_DEREG_MSG_LEN - 1), 0x148018},
      {"deregistration of afIndex 3", deregMsg(MT_RTM_DEREG_CLIENT, cid, 3), 0x148018},
      {"deregistration in the wrong family", deregMsg(MT_RTM_DEREG_CLIENT, cid, 2), 0x148019},
      {"short deregistration of a family", cut(deregMsg(MT_RTM_DEREG_AF_CLIENT, cid), RTM_DEREG_AF_MSG_LEN - 1),
       0x148018},
      {"deregistration of a family of nobody", deregMsg(MT_RTM_DEREG_AF_CLIENT, cid + 1), 0x148019},
      {"short card event", cut(message(MT_EVT_NOTIFY, RTM_EVT_MSG_LEN), RTM_EVT_MSG_LEN - 4), 0x148004},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    qorLogClearRecent();
    send(p, c.msg);
    EXPECT_EQ(qorLogCount(c.event), 1u);
    const uint32_t mtype = ld32(c.msg.data(), IPC_OFF_MTYPE);
    if (mtype == MT_RTM_REG_CLIENT || mtype == MT_RTM_REG_NONRT_CLIENT) {
      EXPECT_EQ(statusOf(p, mtype), RTM_REG_FAILED);
    }
    received(p);
    for (uint8_t af : {0, 2})
      for (const rt_client &rtc : rt_client_tbl[af])
        EXPECT_EQ(rtc.rtc_state == RTC_STATE_ACTIVE, &rtc == &rt_client_tbl[0][cid]);
    EXPECT_EQ(arpClient.queue, 0u);
  }
}

TEST_F(Clients, ACardGoingDownTakesItsAgentsAndTheirQueue) {
  rtmRcvdDnldCmpFrmIfm[0] = 1;
  static int zlk, brm;
  zlk = brm = 0;
  rtmClientHooks.halRtmHandleZlkPeerStatus = [](const uint8_t *, uint32_t) { ++zlk; };
  rtmClientHooks.halrtmBrmUpdSvpLcConfigStatus = [](uint32_t) { ++brm; };
  Peer &fib = open(770), &ospf = open(771);
  const uint32_t c4 = registered(fib, {RTM_PROTO_FIB, 0, 0}), c6 = registered(fib, {RTM_PROTO_FIB, 0, 2});
  const uint32_t o = registered(ospf, {RTM_PROTO_OSPF}), q = rt_client_tbl[0][c4].rtc_dnldQ;
  Msg e = message(MT_EVT_NOTIFY, RTM_EVT_MSG_LEN);
  st32(e.data(), RTM_EVT_OFF_EVENT, RTM_EVT_ZLK_PEER_STATUS);
  send(ospf, e);
  EXPECT_EQ(tuple(zlk, rtmClientGetByHandle(0, c4) != nullptr), tuple(1, true));
  st32(e.data(), RTM_EVT_OFF_EVENT, 0x118013);
  st32(e.data(), RTM_EVT_OFF_SLOT, 0);
  send(ospf, e);
  EXPECT_EQ(tuple(rtmClientGetByHandle(0, c4), rtmClientGetByHandle(2, c6), queueExists(q), g_activeFibSlt,
                  rtmClientGetByHandle(0, o) != nullptr, brm),
            tuple(nullptr, nullptr, false, 0u, true, 1));
  EXPECT_EQ(ofType(received(ospf), MT_EVT_NOTIFY).size(), 2u);
}

// ---- Counters ----------------------------------------------------------------------------

TEST_F(Clients, RouteCountersFollowActiveInactiveAndSubtype) {
  const uint32_t con = internal(0, RTM_PROTO_CONNECTED), mbgp = internal(0, RTM_PROTO_MSTATIC);
  Peer &p = open(775);
  const uint32_t ospf = registered(p, {RTM_PROTO_OSPF, 9}), pos = registered(p, {RTM_PROTO_POS});
  rtClientVrfInfo *o = rt_client_tbl[0][ospf].rtc_vrf[0], *m = rt_client_tbl[0][mbgp].rtc_vrf[0],
                  *c = rt_client_tbl[0][con].rtc_vrf[0];
  struct Step {
    const char *what;
    uint8_t af;
    uint32_t cid, subtype;
    int op, active;
    uint32_t rtClientVrfInfo::*field;
    rtClientVrfInfo *rvi;
    uint32_t expect;
    int subtypeSlot;  // -1: none
  } steps[] = {
      {"active intra-area route", 0, ospf, RT_OSPF_INTRA, 1, 1, &rtClientVrfInfo::rvi_active, o, 1, 0},
      {"inactive external 2", 0, ospf, RT_OSPF_E2, 1, 0, &rtClientVrfInfo::rvi_inactive, o, 1, 3},
      {"it leaves", 0, ospf, RT_OSPF_E2, 2, 0, &rtClientVrfInfo::rvi_inactive, o, 0, 3},
      {"internal routes count by subtype only", 0, ospf, RT_INTERNAL, 1, 1, &rtClientVrfInfo::rvi_active, o, 1, 1},
      {"mstatic counts as BGP too", 0, mbgp, 0, 1, 1, &rtClientVrfInfo::rvi_activeBgp, m, 1, 0},
      {"multicast: no active count", 1, mbgp, 0, 1, 1, &rtClientVrfInfo::rvi_active, m, 1, 0},
      {"multicast inactive: only the BGP count", 1, mbgp, 8, 1, 0, &rtClientVrfInfo::rvi_inactiveBgp, m, 1, -1},
      {"unnumbered routes count on connected", 0, pos, RT_UNNUMBERED, 1, 1, &rtClientVrfInfo::rvi_active, c, 1, -1},
      {"never below zero", 0, ospf, RT_OSPF_IA, 2, 0, &rtClientVrfInfo::rvi_inactive, o, 0, 1},
  };
  for (const Step &s : steps) {
    SCOPED_TRACE(s.what);
    std::array<uint32_t, 6> subtypes = std::to_array(s.rvi->rvi_subtypeCnt);
    if (s.subtypeSlot >= 0 && (s.op == 1 || subtypes[s.subtypeSlot])) subtypes[s.subtypeSlot] += s.op == 1 ? 1 : -1;
    rtmRouteCounters(s.af, 0, s.cid, s.subtype, s.op, s.active);
    EXPECT_EQ(tuple(s.rvi->*s.field, std::to_array(s.rvi->rvi_subtypeCnt)), tuple(s.expect, subtypes));
  }
  EXPECT_EQ(rtmVrfGetActiveRoutesCount(0, 0), 1u);  // OSPF's; mstatic and connected do not count
  EXPECT_EQ(rtmVrfGetActiveRoutesCount(0, 5), 0u);  // not in use
  rtmRouteCounters(0, MAX_VRF, ospf, 4, 1, 1);
  EXPECT_EQ(o->rvi_active, 1u);
}

// ---- Managers, qualifiers ----------------------------------------------------------------

TEST_F(Clients, ArpAndNdpManagersGetAQueueOnceAndAnAnswer) {
  Peer &arp = open(790), &ndp = open(791);
  for (auto [peer, select] : {std::pair{&arp, RTM_NONRT_ARP}, std::pair{&ndp, RTM_NONRT_NDP}, std::pair{&arp, RTM_NONRT_ARP}}) {
    Msg m = nonRtMsg(*peer, select);
    st32(m.data(), RTM_REG_OFF_CID, 77);
    send(*peer, m);
    std::vector<Msg> answers = ofType(received(*peer), MT_RTM_REG_NONRT_CLIENT);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(tuple(ld32(answers[0].data(), IPC_OFF_MSTATUS), ld32(answers[0].data(), RTM_REG_OFF_CID)), tuple(0u, 0u));
  }
  EXPECT_EQ(tuple(arpClientRegCnt, ndpClientRegCnt, arpClient.state, arpClient.qstate, queueExists(arpClient.queue),
                  queueExists(ndpClient.queue), arpClient.queue != ndpClient.queue),
            tuple(2u, 1u, RTM_NONRT_ARP, RTC_Q_REGISTERED, true, true, true));
}

TEST_F(Clients, QualifiersTieOspfInstancesToVrfs) {
  Peer &p = open(800);
  const uint32_t cid = registered(p, {RTM_PROTO_OSPF, 5}), rip = registered(p, {RTM_PROTO_RIP, 5});
  uint32_t seq = 1;
  ASSERT_NE(ospfMap, nullptr);
  EXPECT_EQ(ospfMap6, nullptr);  // no OSPF client of IPv6 yet
  auto qual = [&](uint32_t mtype, uint32_t who, uint32_t instance, uint32_t vrfId) {
    Msg m = message(mtype, RTM_QUAL_MSG_LEN);
    st32(m.data(), SWP_OFF_QUEUE, 9), st32(m.data(), SWP_OFF_SEQ, seq++), st32(m.data(), RTM_QUAL_OFF_CID, who);
    st32(m.data(), RTM_QUAL_OFF_INSTANCE, instance), st32(m.data(), RTM_QUAL_OFF_VRFID, vrfId);
    send(p, m);
  };
  EXPECT_EQ(verifyQualifierVrfId(0, RTM_PROTO_OSPF, 3, 5), 1);
  qual(MT_RTM_REG_CLIENT_INSTANCE, cid, 5, 3);
  qual(MT_RTM_REG_CLIENT_INSTANCE, cid, 6, 3);
  // Only OSPF is qualified, and IPv6 has no map.
  EXPECT_EQ(tuple(verifyQualifierVrfId(0, RTM_PROTO_OSPF, 3, 5), verifyQualifierVrfId(0, RTM_PROTO_OSPF, 4, 5),
                  verifyQualifierVrfId(0, RTM_PROTO_RIP, 4, 5), verifyQualifierVrfId(2, RTM_PROTO_OSPF, 4, 5)),
            tuple(0, 1, 0, 0));
  qual(MT_RTM_DEREG_CLIENT_INSTANCE, cid, 5, 3);
  EXPECT_EQ(tuple(verifyQualifierVrfId(0, RTM_PROTO_OSPF, 3, 5), verifyQualifierVrfId(0, RTM_PROTO_OSPF, 3, 6)),
            tuple(1, 0));
  // A RIP client's qualifier means nothing.
  qual(MT_RTM_REG_CLIENT_INSTANCE, rip, 7, 3);
  EXPECT_EQ(verifyQualifierVrfId(0, RTM_PROTO_OSPF, 3, 7), 1);
  // The OSPF client serving VRF 0 leaves: the map stays (it does not serve every VRF).
  EXPECT_EQ(rtmDeregisterClientCid(0, cid, 0), 0);
  EXPECT_NE(ospfMap, nullptr);
}

}  // namespace
