// Registration and deregistration driven through rtmd's request queue in real message bytes:
// queues by kind of client, the full table, repeats, the shared queue of an agent's two
// families, FIB agents held back until their slot is ready, both families at once, the order
// of deregistration, malformed messages, card events, counters, qualifiers.
#include "tests/unit/clients/rtmd_fixture.h"

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

namespace {

class Clients : public rtmtest::RtmdTest {
 protected:
  uint32_t walkersOn(qor_radix_tree *t) { return t ? t->rdl_walkers : 0; }
};

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
    qor_radix_tree *main = rtmRibGetTree(c.row, 0);
    uint32_t walkers = walkersOn(main);
    uint32_t cid = 99;
    ASSERT_EQ(reg(p, c.reg, &cid), RTM_REG_OK);
    rt_client *rtc = rtmClientGetByHandle(c.row, cid);
    ASSERT_NE(rtc, nullptr);
    EXPECT_EQ(std::tuple(rtc->rtc_proto, rtc->rtc_vrfId, queueExists(rtc->rtc_redistQ), queueExists(rtc->rtc_dnldQ),
                         rtc->rtc_type, rtc->rtc_filter, rtc->rtc_filterState, rtc->rtc_dnldState, rtc->rtc_slot),
              std::tuple(c.reg.proto, c.vrfId, c.redistQ, c.dnldQ, c.type, c.filter, c.filterState, RTC_Q_REGISTERED, 0));
    // A download client starts on the regular list; the download thread may already have found it
    // level with the group and promoted it.
    EXPECT_EQ(rtmClientOnList(&regularClients[c.row], rtc) || rtmClientOnList(&superClients[c.row], rtc), c.dnldQ);
    // A record per VRF in use; walkers where the client is served (VRF 9 does not exist).
    ASSERT_NE(rtc->rtc_vrf[0], nullptr);
    EXPECT_EQ(walkersOn(main) - walkers, c.vrfId == 9 ? 0u : 1u);
    EXPECT_EQ(rtc->rtc_vrf[0]->rvi_ruleFlags[0], c.dnldQ ? (RVI_RULE_FIRST_LOOK | RVI_DNLD_ON) : RVI_RULE_FIRST_LOOK);
    EXPECT_EQ(rtc->rtc_vrf[1], nullptr);
  }
}

TEST_F(Clients, MbgpSendsOnBgpsQueueWhicheverCameFirst) {
  Peer &p = open(700);
  uint32_t mbgp = 0, bgp = 0;
  ASSERT_EQ(reg(p, {RTM_PROTO_MBGP, 3}, &mbgp), RTM_REG_OK);
  EXPECT_EQ(rt_client_tbl[0][mbgp].rtc_redistQ, 0u);
  ASSERT_EQ(reg(p, {RTM_PROTO_BGP, 3}, &bgp), RTM_REG_OK);
  uint32_t q = rt_client_tbl[0][bgp].rtc_redistQ;
  EXPECT_TRUE(queueExists(q));
  EXPECT_EQ(rt_client_tbl[0][mbgp].rtc_redistQ, q);
  // MBGP leaving its family does not take BGP's queue with it.
  send(p, deregMsg(MT_RTM_DEREG_AF_CLIENT, bgp, IPV4MUL_AFINDEX));
  EXPECT_EQ(rtmClientGetByHandle(0, mbgp), nullptr);
  ASSERT_NE(rtmClientGetByHandle(0, bgp), nullptr);
  EXPECT_TRUE(queueExists(q));
  // BGP itself takes it, and an MBGP that came back stops using it.
  ASSERT_EQ(reg(p, {RTM_PROTO_MBGP, 3}, &mbgp), RTM_REG_OK);
  send(p, deregMsg(MT_RTM_DEREG_AF_CLIENT, bgp, RTM_IPV4UNI_AFINDEX));
  EXPECT_FALSE(queueExists(q));
  EXPECT_EQ(rtmClientGetByHandle(0, bgp), nullptr);
  EXPECT_EQ(rt_client_tbl[0][mbgp].rtc_redistQ, 0u);
}

TEST_F(Clients, TheSixtyFifthClientOfARowIsRefused) {
  Peer &p = open(700);
  for (uint32_t i = 0; i < MAX_RTM_CLEINTS; ++i) {
    uint32_t cid = 99;
    ASSERT_EQ(reg(p, {RTM_PROTO_TCLASSMGR, i}, &cid), RTM_REG_OK) << i;
    EXPECT_EQ(cid, i);  // the lowest free handle
  }
  EXPECT_EQ(reg(p, {RTM_PROTO_TCLASSMGR, 64}), RTM_REG_FAILED);
  // The other family's row is not affected, and a freed handle is used again.
  EXPECT_EQ(reg(p, {RTM_PROTO_TCLASSMGR, 64, RTM_IPV6UNI_AFINDEX}), RTM_REG_OK);
  EXPECT_EQ(rtmDeregisterClientCid(0, 17, 0), 0);
  uint32_t cid = 0;
  EXPECT_EQ(reg(p, {RTM_PROTO_TCLASSMGR, 64}, &cid), RTM_REG_OK);
  EXPECT_EQ(cid, 17u);
}

TEST_F(Clients, ARepeatedRegistrationKeepsHandleAndQueuesAndRestartsTheSequence) {
  Peer &p = open(700);
  uint32_t cid = 0, again = 0;
  ASSERT_EQ(reg(p, {RTM_PROTO_ISIS, 2}, &cid), RTM_REG_OK);
  rt_client *rtc = rtmClientGetByHandle(0, cid);
  uint32_t q = rtc->rtc_redistQ;
  rtc->rtc_expSeq[1] = 40;
  qorLogClearRecent();
  ASSERT_EQ(reg(p, {RTM_PROTO_ISIS, 2}, &again), RTM_REG_OK);
  EXPECT_EQ(again, cid);
  EXPECT_EQ(rtc->rtc_redistQ, q);
  EXPECT_TRUE(queueExists(q));
  EXPECT_EQ(rtc->rtc_expSeq[1], 0u);
  EXPECT_TRUE(qorLogSaw("duplicate registration"));
  // Another instance is another client.
  ASSERT_EQ(reg(p, {RTM_PROTO_ISIS, 3}, &again), RTM_REG_OK);
  EXPECT_NE(again, cid);
}

TEST_F(Clients, AnAgentsTwoFamiliesShareOneQueueAndOneExpectedSequence) {
  rtmRcvdDnldCmpFrmIfm[0] = 1;
  Peer &p = open(710);
  for (bool ipv4First : {true, false}) {
    SCOPED_TRACE(ipv4First ? "the IPv4 record leaves last" : "the IPv4 record leaves first");
    uint32_t c4 = 0, c6 = 0;
    ASSERT_EQ(reg(p, {RTM_PROTO_FIB, 0, RTM_IPV4UNI_AFINDEX}, &c4), RTM_REG_OK);
    ASSERT_EQ(reg(p, {RTM_PROTO_FIB, 0, RTM_IPV6UNI_AFINDEX}, &c6), RTM_REG_OK);
    rt_client *r4 = rtmClientGetByHandle(0, c4), *r6 = rtmClientGetByHandle(2, c6);
    uint32_t q = r4->rtc_dnldQ;
    EXPECT_EQ(r4->rtc_paired, 0u);
    EXPECT_EQ(r6->rtc_paired, 1u);
    EXPECT_EQ(r6->rtc_dnldQ, q);
    // The agent's messages of both families run in one sequence.
    auto control = [&](uint32_t cid, uint8_t af, uint32_t seq) {
      Msg m = message(MT_RTM_DNLD_CNTRL, 144);
      st32(m.data(), SWP_OFF_QUEUE, 5);
      st32(m.data(), SWP_OFF_SEQ, seq);
      st32(m.data(), 128, cid);
      m[140] = af;
      send(p, m);
    };
    control(c4, 0, 1);
    control(c6, 2, 2);
    EXPECT_EQ(r4->rtc_expSeqPtr, r6->rtc_expSeqPtr);
    EXPECT_EQ(r4->rtc_expSeqPtr[1], 3u);
    received(p);
    send(p, deregMsg(MT_RTM_DEREG_CLIENT, ipv4First ? c6 : c4, ipv4First ? 2 : 0));
    rt_client *stays = ipv4First ? r4 : r6;
    ASSERT_EQ(stays->rtc_state, RTC_STATE_ACTIVE);
    EXPECT_TRUE(queueExists(q));
    EXPECT_EQ(stays->rtc_dnldQ, q);
    EXPECT_EQ(stays->rtc_paired, 0u);
    EXPECT_EQ(stays->rtc_expSeqPtr, stays->rtc_expSeq);
    EXPECT_EQ(stays->rtc_expSeq[1], 3u);
    send(p, deregMsg(MT_RTM_DEREG_CLIENT, stays->rtc_cid, static_cast<uint8_t>(stays->rtc_afIndex)));
    EXPECT_FALSE(queueExists(q));
    received(p);
  }
}

TEST_F(Clients, AFibAgentWaitsForItsSlotsInterfaceDownload) {
  Peer &p = open(720);
  qorLogClearRecent();
  EXPECT_EQ(reg(p, {RTM_PROTO_FIB}), RTM_REG_FAILED);
  EXPECT_EQ(rtmClientGet(0, RTM_PROTO_FIB, 0), nullptr);
  EXPECT_EQ(g_activeFibSlt, 0u);
  // Other download clients do not wait.
  EXPECT_EQ(reg(p, {RTM_PROTO_FIB6, 0, RTM_IPV6UNI_AFINDEX}), RTM_REG_OK);
  rtmRcvdDnldCmpFrmIfm[0] = 1;
  uint32_t cid = 0;
  EXPECT_EQ(reg(p, {RTM_PROTO_FIB}, &cid), RTM_REG_OK);
  EXPECT_EQ(g_activeFibSlt, 1u);
  EXPECT_EQ(rtmDeregisterClientCid(0, cid, 0), 0);
  EXPECT_EQ(g_activeFibSlt, 0u);
}

TEST_F(Clients, BothFamiliesAtOnceOrNeither) {
  Peer &p = open(730);
  uint32_t both = 0;
  Reg r{.proto = RTM_PROTO_BGP, .instance = 1, .mtype = MT_RTM_REG_CLIENT_BOTH};
  ASSERT_EQ(reg(p, r, &both), RTM_REG_OK);
  rt_client *r4 = rtmClientGet(0, RTM_PROTO_BGP, 1), *r6 = rtmClientGet(2, RTM_PROTO_BGP, 1);
  ASSERT_TRUE(r4 && r6);
  EXPECT_EQ(both, rtmRegBothCid(r4->rtc_cid, r6->rtc_cid));
  // Again: both are repeats, same answer.
  uint32_t again = 0;
  ASSERT_EQ(reg(p, r, &again), RTM_REG_OK);
  EXPECT_EQ(again, both);

  // IPv4 succeeds, IPv6 has no free handle: neither stays.
  for (uint32_t i = 0; i < MAX_RTM_CLEINTS - 1; ++i) {
    uint32_t cid;
    ASSERT_EQ(_rtmRegisterClient(2, RTM_PROTO_STATIC, "static", 0, i + 1, 0, 0, 0, 0, &cid, 0, 0), RTM_REG_NEW);
  }
  Reg r2{.proto = RTM_PROTO_OSPF, .instance = 4, .mtype = MT_RTM_REG_CLIENT_BOTH};
  EXPECT_EQ(reg(p, r2, &again), RTM_REG_FAILED);
  EXPECT_EQ(again, 0u);
  EXPECT_EQ(rtmClientGet(0, RTM_PROTO_OSPF, 4), nullptr);
  EXPECT_EQ(rtmClientGet(2, RTM_PROTO_OSPF, 4), nullptr);

  // Undoing both: IPv6 first, then IPv4.
  send(p, deregMsg(MT_RTM_DEREG_CLIENT_BOTH, both));
  EXPECT_EQ(rtmClientGet(0, RTM_PROTO_BGP, 1), nullptr);
  EXPECT_EQ(rtmClientGet(2, RTM_PROTO_BGP, 1), nullptr);
  std::vector<Msg> answers = ofType(received(p), MT_RTM_DEREG_CLIENT_BOTH);
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(ld32(answers[0].data(), IPC_OFF_MSTATUS), 0u);
}

// ---- Deregistration ----------------------------------------------------------------------

std::vector<std::string> g_trace;
uint64_t g_turns;

uint64_t turnsOf(int thread) {
  QorThreadStats s{};
  qorThreadGetStats(rtmThreads, thread, &s);
  return s.turns;
}

TEST_F(Clients, DeregistrationRunsItsStepsInOrderAndYieldsWithTheRecordActive) {
  RtmClientHooks &h = rtmClientHooks;
  h.clearClientRedistRuleInRib = [](uint8_t, rt_client *) {
    g_trace.push_back("redist rules in RIB");
    // The leak thread has work; the client's routes may not be forgotten under it.
    g_turns = turnsOf(rtmThreadRtLeak);
    qorThreadResume(rtmThreads, rtmThreadRtLeak);
  };
  h.rtmClearVrfProtoRoutes = [](uint8_t, rt_client *rtc, uint32_t v) {
    g_trace.push_back("routes of VRF " + std::to_string(v));
    EXPECT_EQ(rtc->rtc_state, RTC_STATE_ACTIVE);  // still there for the workers
  };
  h.rtmRpfClearVrfProtoRoutes = [](uint8_t, rt_client *, uint32_t v) {
    g_trace.push_back("RPF routes of VRF " + std::to_string(v));
  };
  h.rtmPollRibClearProto = [](uint8_t, uint32_t, uint32_t) { g_trace.push_back("poll registrations"); };
  h.rtmDeregClientRmaps = [](uint8_t, rt_client *rtc) {
    g_trace.push_back("route maps");
    if (turnsOf(rtmThreadRtLeak) > g_turns) g_trace.push_back("leak thread had its turn");
    // A redistribution walk holds the record: deregistration waits for that thread.
    rtc->rtc_walking = 1;
    g_turns = turnsOf(rtmThreadRedis);
    qorThreadResume(rtmThreads, rtmThreadRedis);
  };
  h._rtmDeregFreeDioRuleList = [](uint8_t, rt_client *) { g_trace.push_back("default-information rules"); };
  h._rtmDeregFreeRedistRuleList = [](uint8_t, rt_client *, uint32_t v) {
    g_trace.push_back("rules of VRF " + std::to_string(v));
  };
  h.rtmClearDownloadBit = [](uint8_t, rt_client *) {
    if (turnsOf(rtmThreadRedis) > g_turns) g_trace.push_back("redistribution thread had its turn");
    g_trace.push_back("download bits");
  };
  h.rtmProtoClientInfoDownload = [](uint32_t, uint32_t, uint32_t, uint32_t, int, int add) {
    if (!add) g_trace.push_back("BGP gone to FIB");
  };
  h.rtmDeregisterInternalBgpClients = [](uint8_t, rt_client *) { g_trace.push_back("internal BGP clients"); };

  const std::vector<std::string> tail = {"route maps", "leak thread had its turn", "default-information rules",
                                         "rules of VRF 0", "redistribution thread had its turn", "download bits"};
  auto with = [&](std::vector<std::string> head) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
  };
  struct Case {
    Reg reg;
    std::vector<std::string> steps;
  } cases[] = {
      {{RTM_PROTO_OSPF, 1}, with({"redist rules in RIB", "routes of VRF 0", "poll registrations"})},
      {{RTM_PROTO_MBGP, 1}, with({"redist rules in RIB", "RPF routes of VRF 0"})},
      {{RTM_PROTO_BGP, 1},
       with({"BGP gone to FIB", "internal BGP clients", "redist rules in RIB", "routes of VRF 0", "poll registrations"})},
  };
  Peer &p = open(740);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.reg.proto);
    uint32_t cid = 0;
    ASSERT_EQ(reg(p, c.reg, &cid), RTM_REG_OK);
    rt_client *rtc = rtmClientGetByHandle(0, cid);
    uint32_t q = rtc->rtc_redistQ;
    qor_radix_tree *main = rtmRibGetTree(0, 0);
    uint32_t walkers = main->rdl_walkers;
    qorThreadRunUntilIdle(rtmThreads);
    g_trace.clear();
    send(p, deregMsg(MT_RTM_DEREG_CLIENT, cid));
    EXPECT_EQ(g_trace, c.steps);
    EXPECT_EQ(rtmClientGetByHandle(0, cid), nullptr);
    EXPECT_EQ(rtc->rtc_proto, 0u);  // the record is zero
    EXPECT_EQ(main->rdl_walkers, walkers - 1);
    if (c.reg.proto != RTM_PROTO_MBGP) {
      EXPECT_FALSE(queueExists(q));
    }
    // The answer went out before the work.
    std::vector<Msg> answers = ofType(received(p), MT_RTM_DEREG_CLIENT);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(ld32(answers[0].data(), IPC_OFF_MSTATUS), 0u);
  }
}

TEST_F(Clients, PermanentClientsCannotLeaveAndKeepTheirQueues) {
  Peer &p = open(750);
  uint32_t ipm = 0;
  ASSERT_EQ(reg(p, {RTM_PROTO_IPM}, &ipm), RTM_REG_OK);
  uint32_t q = rt_client_tbl[0][ipm].rtc_dnldQ;
  uint32_t con = 0;
  ASSERT_EQ(_rtmRegisterClient(0, RTM_PROTO_CONNECTED, "connected", 0, 0, RTM_SVCE, 0, 0, 0, &con, 0, 0), RTM_REG_NEW);
  EXPECT_EQ(rt_client_tbl[0][con].rtc_slot, -1);
  EXPECT_EQ(rt_client_tbl[0][con].rtc_type, -1);
  for (uint32_t cid : {ipm, con}) {
    qorLogClearRecent();
    EXPECT_EQ(rtmDeregisterClientCid(0, cid, 1), 1);
    EXPECT_EQ(qorLogCount(0x14801A), 1u);
    EXPECT_NE(rtmClientGetByHandle(0, cid), nullptr);
  }
  EXPECT_TRUE(queueExists(q));
}

TEST_F(Clients, MalformedMessagesAreRefusedWithAnEventAndNothingApplied) {
  Peer &p = open(760);
  auto regWith = [&](const Reg &r, uint32_t len) {
    Msg m = regMsg(p, r);
    m.resize(len);
    st32(m.data(), IPC_OFF_MLEN, len);
    return m;
  };
  Reg bigQueues{.proto = RTM_PROTO_OSPF, .multiQ = 1, .noOfQs = MAX_VRF + 1};
  Msg nonRt = regWith({}, RTM_NONRT_MSG_LEN);
  st32(nonRt.data(), IPC_OFF_MTYPE, MT_RTM_REG_NONRT_CLIENT);
  st32(nonRt.data(), RTM_NONRT_OFF_SELECT, 3);
  struct Case {
    const char *what;
    Msg msg;
    uint32_t event;
  } cases[] = {
      {"shorter than a registration", regWith({}, RTM_REG_MSG_LEN - 4), 0x148004},
      {"protocol above 30", regWith({31}, RTM_REG_MSG_LEN), 0x148016},
      {"afIndex 3", regWith({RTM_PROTO_OSPF, 0, 3}, RTM_REG_MSG_LEN), 0x148018},
      {"more queues than VRFs", regWith(bigQueues, RTM_REG_MSG_LEN), 0x148004},
      {"neither ARP nor NDP", nonRt, 0x148004},
  };
  for (Case &c : cases) {
    SCOPED_TRACE(c.what);
    qorLogClearRecent();
    uint32_t mtype = ld32(c.msg.data(), IPC_OFF_MTYPE);
    send(p, c.msg);
    std::vector<Msg> answers = ofType(received(p), mtype);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(ld32(answers[0].data(), IPC_OFF_MSTATUS), RTM_REG_FAILED);
    EXPECT_EQ(qorLogCount(c.event), 1u);
    for (uint8_t af : {0, 2})
      for (const rt_client &rtc : rt_client_tbl[af]) EXPECT_EQ(rtc.rtc_state, RTC_STATE_FREE);
    EXPECT_EQ(arpClient.queue, 0u);
  }
  // Deregistrations that name no client, or no family, change nothing either.
  uint32_t cid = 0;
  ASSERT_EQ(reg(p, {RTM_PROTO_OSPF}, &cid), RTM_REG_OK);
  struct Dereg {
    uint32_t mtype, len;
    uint8_t af;
    uint32_t cid, event;
  } deregs[] = {
      {MT_RTM_DEREG_CLIENT, RTM_DEREG_MSG_LEN - 1, 0, cid, 0x148018},
      {MT_RTM_DEREG_CLIENT, RTM_DEREG_MSG_LEN, 3, cid, 0x148018},
      {MT_RTM_DEREG_CLIENT, RTM_DEREG_MSG_LEN, 2, cid, 0x148019},
      {MT_RTM_DEREG_AF_CLIENT, RTM_DEREG_AF_MSG_LEN - 1, 0, cid, 0x148018},
      {MT_RTM_DEREG_AF_CLIENT, RTM_DEREG_AF_MSG_LEN, 0, cid + 1, 0x148019},
      {MT_EVT_NOTIFY, RTM_EVT_MSG_LEN - 4, 0, 0, 0x148004},
  };
  for (const Dereg &d : deregs) {
    SCOPED_TRACE(d.mtype);
    qorLogClearRecent();
    Msg m = deregMsg(d.mtype == MT_RTM_DEREG_AF_CLIENT ? d.mtype : MT_RTM_DEREG_CLIENT, d.cid, d.af);
    st32(m.data(), IPC_OFF_MTYPE, d.mtype);
    st32(m.data(), IPC_OFF_MLEN, d.len);
    m.resize(d.len);
    send(p, m);
    EXPECT_EQ(qorLogCount(d.event), 1u);
    EXPECT_NE(rtmClientGetByHandle(0, cid), nullptr);
    received(p);
  }
}

TEST_F(Clients, ACardGoingDownTakesItsAgentsAndTheirQueue) {
  rtmRcvdDnldCmpFrmIfm[0] = 1;
  static int zlk, brm;
  zlk = brm = 0;
  rtmClientHooks.halRtmHandleZlkPeerStatus = [](const uint8_t *, uint32_t) { ++zlk; };
  rtmClientHooks.halrtmBrmUpdSvpLcConfigStatus = [](uint32_t) { ++brm; };
  Peer &fib = open(770), &ospf = open(771);
  uint32_t c4 = 0, c6 = 0, o = 0;
  ASSERT_EQ(reg(fib, {RTM_PROTO_FIB, 0, 0}, &c4), RTM_REG_OK);
  ASSERT_EQ(reg(fib, {RTM_PROTO_FIB, 0, 2}, &c6), RTM_REG_OK);
  ASSERT_EQ(reg(ospf, {RTM_PROTO_OSPF}, &o), RTM_REG_OK);
  uint32_t q = rt_client_tbl[0][c4].rtc_dnldQ;
  Msg e = message(MT_EVT_NOTIFY, RTM_EVT_MSG_LEN);
  st32(e.data(), RTM_EVT_OFF_EVENT, RTM_EVT_ZLK_PEER_STATUS);
  send(ospf, e);
  EXPECT_EQ(zlk, 1);
  EXPECT_NE(rtmClientGetByHandle(0, c4), nullptr);
  st32(e.data(), RTM_EVT_OFF_EVENT, 0x118013);
  st32(e.data(), RTM_EVT_OFF_SLOT, 0);
  send(ospf, e);
  EXPECT_EQ(rtmClientGetByHandle(0, c4), nullptr);
  EXPECT_EQ(rtmClientGetByHandle(2, c6), nullptr);
  EXPECT_FALSE(queueExists(q));
  EXPECT_EQ(g_activeFibSlt, 0u);
  EXPECT_NE(rtmClientGetByHandle(0, o), nullptr);
  EXPECT_EQ(brm, 1);
  EXPECT_EQ(ofType(received(ospf), MT_EVT_NOTIFY).size(), 2u);
}

// ---- Counters ----------------------------------------------------------------------------

TEST_F(Clients, RouteCountersFollowActiveInactiveAndSubtype) {
  uint32_t ospf = 0, mbgp = 0, pos = 0, con = 0;
  Peer &p = open(775);
  ASSERT_EQ(_rtmRegisterClient(0, RTM_PROTO_CONNECTED, "connected", 0, 0, RTM_SVCE, 0, 0, 0, &con, 0, 0), 0);
  ASSERT_EQ(_rtmRegisterClient(0, RTM_PROTO_MSTATIC, "mstatic", 0, 0, RTM_SVCE, 0, 0, 0, &mbgp, 0, 0), 0);
  ASSERT_EQ(reg(p, {RTM_PROTO_OSPF, 9}, &ospf), RTM_REG_OK);
  ASSERT_EQ(reg(p, {RTM_PROTO_POS}, &pos), RTM_REG_OK);
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
    uint32_t before[6];
    memcpy(before, s.rvi->rvi_subtypeCnt, sizeof before);
    rtmRouteCounters(s.af, 0, s.cid, s.subtype, s.op, s.active);
    EXPECT_EQ(s.rvi->*s.field, s.expect);
    for (int i = 0; i < 6; ++i) {
      uint32_t want = before[i];
      if (i == s.subtypeSlot && (s.op == 1 || want)) want += s.op == 1 ? 1 : -1;
      EXPECT_EQ(s.rvi->rvi_subtypeCnt[i], want) << i;
    }
  }
  EXPECT_EQ(rtmVrfGetActiveRoutesCount(0, 0), 1u);  // OSPF's; mstatic and connected do not count
  EXPECT_EQ(rtmVrfGetActiveRoutesCount(0, 5), 0u);  // not in use
  rtmRouteCounters(0, MAX_VRF, ospf, 4, 1, 1);
  EXPECT_EQ(o->rvi_active, 1u);
}

// ---- Memory, managers, qualifiers --------------------------------------------------------

TEST_F(Clients, RegistrationWithoutMemoryLeavesNoTrace) {
  Peer &p = open(780);
  qorMemSysFailNext(1);
  EXPECT_EQ(reg(p, {RTM_PROTO_OSPF}), RTM_REG_FAILED);
  for (const rt_client &rtc : rt_client_tbl[0]) EXPECT_EQ(rtc.rtc_state, RTC_STATE_FREE);
  EXPECT_EQ(reg(p, {RTM_PROTO_OSPF}), RTM_REG_OK);
}

TEST_F(Clients, ArpAndNdpManagersGetAQueueOnceAndAnAnswer) {
  Peer &arp = open(790), &ndp = open(791);
  for (auto [peer, select] : {std::pair{&arp, RTM_NONRT_ARP}, std::pair{&ndp, RTM_NONRT_NDP}, std::pair{&arp, RTM_NONRT_ARP}}) {
    Msg m = nonRtMsg(*peer, select);
    st32(m.data(), RTM_REG_OFF_CID, 77);
    st32(m.data(), RTM_NONRT_OFF_TASK, 5);
    send(*peer, m);
    std::vector<Msg> answers = ofType(received(*peer), MT_RTM_REG_NONRT_CLIENT);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(ld32(answers[0].data(), IPC_OFF_MSTATUS), 0u);
    EXPECT_EQ(ld32(answers[0].data(), RTM_REG_OFF_CID), 0u);
  }
  EXPECT_EQ(arpClientRegCnt, 2u);
  EXPECT_EQ(ndpClientRegCnt, 1u);
  EXPECT_EQ(arpClient.state, RTM_NONRT_ARP);
  EXPECT_EQ(arpClient.qstate, RTC_Q_REGISTERED);
  EXPECT_TRUE(queueExists(arpClient.queue));
  EXPECT_TRUE(queueExists(ndpClient.queue));
  EXPECT_NE(arpClient.queue, ndpClient.queue);
}

TEST_F(Clients, QualifiersTieOspfInstancesToVrfs) {
  Peer &p = open(800);
  uint32_t cid = 0, rip = 0;
  ASSERT_EQ(reg(p, {RTM_PROTO_OSPF, 5}, &cid), RTM_REG_OK);
  ASSERT_EQ(reg(p, {RTM_PROTO_RIP, 5}, &rip), RTM_REG_OK);
  ASSERT_NE(ospfMap, nullptr);
  EXPECT_EQ(ospfMap6, nullptr);  // no OSPF client of IPv6 yet
  uint32_t seq = 1;
  auto qual = [&](uint32_t mtype, uint32_t who, uint32_t instance, uint32_t vrfId) {
    Msg m = message(mtype, RTM_QUAL_MSG_LEN);
    st32(m.data(), SWP_OFF_QUEUE, 9);
    st32(m.data(), SWP_OFF_SEQ, seq++);
    st32(m.data(), RTM_QUAL_OFF_CID, who);
    st32(m.data(), RTM_QUAL_OFF_AFINDEX, 0);
    st32(m.data(), RTM_QUAL_OFF_INSTANCE, instance);
    st32(m.data(), RTM_QUAL_OFF_VRFID, vrfId);
    send(p, m);
  };
  EXPECT_EQ(verifyQualifierVrfId(0, RTM_PROTO_OSPF, 3, 5), 1);
  qual(MT_RTM_REG_CLIENT_INSTANCE, cid, 5, 3);
  qual(MT_RTM_REG_CLIENT_INSTANCE, cid, 6, 3);
  EXPECT_EQ(verifyQualifierVrfId(0, RTM_PROTO_OSPF, 3, 5), 0);
  EXPECT_EQ(verifyQualifierVrfId(0, RTM_PROTO_OSPF, 4, 5), 1);
  EXPECT_EQ(verifyQualifierVrfId(0, RTM_PROTO_RIP, 4, 5), 0);   // only OSPF is qualified
  EXPECT_EQ(verifyQualifierVrfId(2, RTM_PROTO_OSPF, 4, 5), 0);  // no map for IPv6
  qual(MT_RTM_DEREG_CLIENT_INSTANCE, cid, 5, 3);
  EXPECT_EQ(verifyQualifierVrfId(0, RTM_PROTO_OSPF, 3, 5), 1);
  EXPECT_EQ(verifyQualifierVrfId(0, RTM_PROTO_OSPF, 3, 6), 0);
  // A RIP client's qualifier means nothing; a short message is refused.
  qual(MT_RTM_REG_CLIENT_INSTANCE, rip, 7, 3);
  EXPECT_EQ(verifyQualifierVrfId(0, RTM_PROTO_OSPF, 3, 7), 1);
  // The OSPF client serving VRF 0 leaves: the map stays (it does not serve every VRF).
  EXPECT_EQ(rtmDeregisterClientCid(0, cid, 0), 0);
  EXPECT_NE(ospfMap, nullptr);
}

}  // namespace
