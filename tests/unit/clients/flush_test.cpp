// Flushes, clears and the download filter, driven by their messages over real sockets: what
// leaves the RIB, what the protocols and agents are sent, and the blocked state of a clear.
#include <tuple>

#include "cfg/qor_cfg.h"
#include "rtm/rtm_clear_msgs.h"
#include "tests/unit/clients/rtmd_fixture.h"
#include "tests/unit/rib/rib_test_util.h"

using namespace rtmtest;
using ribtest::Route;
using rtm::ld32;
using rtm::st32;
using std::tuple;

namespace {

constexpr uint32_t kVrf = 5;

class Flush : public RtmdTest {
 protected:
  void SetUp() override {
    RtmdTest::SetUp();
    rtmRcvdDnldCmpFrmIfm[0] = 1;
  }
  void makeVrf(uint32_t v) {
    g_rtmVrfInUse[v] = 1;
    ASSERT_EQ(rtmVrfCacheAllocate(v), 0);
    ASSERT_EQ(rtmRibRtInetAllocate(v), 0);
    ASSERT_EQ(rtmRibCreate(v, "inet.5", "inet.5c", "inet.5p", "inet.5g", "inet.5m", "inet.5s"), 0);
    ASSERT_EQ(rtmNhInit(v), 0);
    ASSERT_EQ(rtmClientUpdateVrfCreate(v), 0);
  }
  uint32_t client(Peer &p, Reg r) {
    uint32_t cid = 0;
    EXPECT_EQ(reg(p, r, &cid), RTM_REG_OK);
    received(p);
    return cid;
  }
  // A protocol of every VRF: only the VRF form of the registration keeps the VRF it names.
  static Reg everyVrf(uint32_t proto, uint8_t af) {
    return {.proto = proto, .afIndex = af, .vrfId = ALL_VRF_ID, .mtype = MT_RTM_REG_CLIENT_VRF};
  }
  static Route route(uint8_t af, uint32_t proto, const char *prefix, uint32_t vrf = 0, uint16_t pref = 110) {
    Route r(af);
    r.prefix(prefix, af ? 48 : 16).proto(proto).pref(pref).vrf(vrf).nh(af ? "fe80::1" : "192.168.1.1", 5, vrf);
    if (proto == RTM_PROTO_BGP) r.subtype(RT_BGP_EXTERNAL);
    return r;
  }
  static int add(uint32_t cid, Route r) { return rtmAddRouteIPv4(r.af, cid, r.p()); }
  static rt_head *head(uint8_t af, const char *prefix, uint32_t vrf = 0) {
    uint8_t a[16] = {};
    EXPECT_EQ(rtmAF_AddrParse(af, prefix, a), 0);
    return rtmHeadOf(qorRadixGetExact(rtmRibGetTree(af, vrf), a, af ? 48 : 16));
  }
  static bool routed(uint8_t af, const char *prefix, uint32_t vrf = 0) {
    rt_head *h = head(af, prefix, vrf);
    return h && h->rtmh_rte;
  }
  // A message of client `cid` of the family on its SWP queue, in its sequence.
  void sendSeq(Peer &p, uint8_t af, uint32_t cid, Msg m) {
    st32(m.data(), SWP_OFF_QUEUE, 7), st32(m.data(), SWP_OFF_SEQ, ++seq[af << 8 | cid]);
    send(p, std::move(m));
  }
  static Msg nm(uint32_t sub, uint32_t len) {
    Msg m = message(MT_NM_CMD, len);
    st32(m.data(), RTM_NM_OFF_SUBCODE, sub);
    return m;
  }
  // The CLI's clear of VRF 0 of IPv4: every route, or one /16.
  static Msg clearRecord(uint32_t all, const uint8_t (&prefix)[4] = {}) {
    Msg m = nm(MT_RTM_CLEAR_ROUTES, RTM_NM_OFF_DATA + RTM_CLR_REC_LEN);
    uint8_t *rec = m.data() + RTM_NM_OFF_DATA;
    st32(rec, RTM_CLR_REC_OFF_ALL, all);
    memcpy(rec + RTM_CLR_REC_OFF_PREFIX, prefix, 4);
    rec[RTM_CLR_REC_OFF_PLEN] = 16;
    return m;
  }
  // An IPv4 protocol's answer to a clear.
  static Msg clearAnswer(uint32_t cid, uint32_t key, uint32_t all) {
    Msg m = message(MT_RTM_CLR_ROUTE, RTM_CLR_MSG_LEN);
    st32(m.data(), RTM_CLR_OFF_CID, cid), st32(m.data(), RTM_CLR_OFF_ALL, all), st32(m.data(), RTM_CLR_OFF_KEY, key);
    return m;
  }
  static std::string cfgText(uint8_t key) {
    const char *t = qorCfgFind(uint32_t(rtmPkey), &key, 1, 176);
    return t ? t : "";
  }
  static std::string lastSynced() {
    const auto &log = qorCfgSyncLog();
    return log.empty() ? "" : reinterpret_cast<const char *>(log.back().bytes.data() + 272);
  }
  std::map<uint32_t, uint32_t> seq;
};

TEST_F(Flush, AFlushTakesTheClientsOwnRoutesOfItsFamilyAndVrf) {
  makeVrf(kVrf);
  Peer &p = open(800), &q = open(801);
  const uint32_t o4 = client(p, everyVrf(RTM_PROTO_OSPF, 0)), o6 = client(p, everyVrf(RTM_PROTO_OSPF, 2));
  const uint32_t rip = client(q, {RTM_PROTO_RIP});
  struct Case {
    const char *what;
    uint32_t mtype, cid, vrf;
    bool v4vrf0, v4vrf5, v6vrf0;  // the client's routes still there afterwards
    bool reply;
  } cases[] = {
      {"every VRF, plain", MT_RTM_FLUSH_CLIENT_ROUTES, o4, 0, false, false, true, true},
      {"every VRF, sequenced", MT_RTM_FLUSH_CLIENT_ROUTES_SWP, o4, 0, false, false, true, false},
      {"every VRF, IPv6", MT_RTM6_FLUSH_CLIENT_ROUTES_SWP, o6, 0, true, true, false, false},
      {"one VRF", MT_RTM_FLUSH_CLIENT_VRF_ROUTES_SWP, o4, kVrf, true, false, true, false},
      {"one VRF, IPv6", MT_RTM6_FLUSH_CLIENT_VRF_ROUTES_SWP, o6, 0, true, true, false, false},
      {"an unknown client", MT_RTM_FLUSH_CLIENT_ROUTES, 40, 0, true, true, true, false},
      {"the VRF goes away: every protocol's routes of the VRF", 0, 0, kVrf, true, false, true, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(add(o4, route(0, RTM_PROTO_OSPF, "10.1.0.0")), RTM_SUCCESS);
    ASSERT_EQ(add(o4, route(0, RTM_PROTO_OSPF, "10.1.0.0", kVrf)), RTM_SUCCESS);
    ASSERT_EQ(add(o6, route(2, RTM_PROTO_OSPF, "2001:db8:1::")), RTM_SUCCESS);
    ASSERT_EQ(add(rip, route(0, RTM_PROTO_RIP, "10.2.0.0", 0, 120)), RTM_SUCCESS);
    qorLogClearRecent();
    Msg m = message(c.mtype, RTM_FLUSH_SWP_LEN);
    if (!c.mtype) {
      rtmFlushAllVrfRoutes(c.vrf);
      EXPECT_EQ(tuple(rtmNhCount(kVrf, 0), rtmNhCount(0, 0)), tuple(0u, 1u));  // with their next hops
    } else if (c.mtype == MT_RTM_FLUSH_CLIENT_ROUTES) {
      st32(m.data(), RTM_FLUSH_OFF_CID, c.cid);
      send(p, m);
    } else {
      st32(m.data(), RTM_CLR_OFF_CID, c.cid);
      st32(m.data(), RTM_FLUSH_SWP_OFF_VRFID, c.vrf);
      sendSeq(p, c.mtype == MT_RTM6_FLUSH_CLIENT_ROUTES_SWP || c.mtype == MT_RTM6_FLUSH_CLIENT_VRF_ROUTES_SWP ? 2 : 0,
              c.cid, m);
    }
    // RIP's route is another client's.
    EXPECT_EQ(tuple(routed(0, "10.1.0.0"), routed(0, "10.1.0.0", kVrf), routed(2, "2001:db8:1::"),
                    routed(0, "10.2.0.0")),
              tuple(c.v4vrf0, c.v4vrf5, c.v6vrf0, true));
    EXPECT_EQ(qorLogCount(0x148019), c.cid == 40 ? 1u : 0u);
    if (c.reply) {
      EXPECT_EQ(statusOf(p, c.mtype), 0u);
    } else {
      EXPECT_TRUE(ofType(received(p), c.mtype).empty());
    }
  }
}

// A clear of one prefix goes through the ordinary delete; a clear of every route blocks each
// protocol until it answers with the key.
TEST_F(Flush, ClearsOfOnePrefixAndOfEveryRoute) {
  Peer &p = open(810), &q = open(811), &cli = open(812);
  const uint32_t ospf = client(p, {RTM_PROTO_OSPF}), rip = client(q, {RTM_PROTO_RIP});
  uint32_t st = 0;
  ASSERT_EQ(_rtmRegisterClient(0, RTM_PROTO_STATIC, "static", 0, 0, RTM_SVCE, 0, 0, 0, &st, 0, 0), RTM_REG_NEW);
  ASSERT_EQ(add(ospf, route(0, RTM_PROTO_OSPF, "10.1.0.0", 0, 1)), RTM_SUCCESS);
  ASSERT_EQ(add(st, route(0, RTM_PROTO_STATIC, "10.1.0.0", 0, 5)), RTM_SUCCESS);
  ASSERT_EQ(add(rip, route(0, RTM_PROTO_RIP, "10.2.0.0", 0, 120)), RTM_SUCCESS);
  rt_head *h = head(0, "10.1.0.0");
  const uint64_t v = rtmh_version(h);
  send(cli, clearRecord(0, {10, 1, 0, 0}));
  EXPECT_EQ(statusOf(cli, MT_NM_CMD, RTM_NM_OFF_STATUS), 0u);
  ASSERT_EQ(h->rtmh_rte->rte_cid, st);  // the static route stays, and wins now
  EXPECT_GT(rtmh_version(h), v);  // the agents hear of it
  EXPECT_EQ(tuple(h->rtmh_rte->rte_next, routed(0, "10.2.0.0")), tuple(nullptr, true));
  for (Peer *x : {&p, &q}) {
    std::vector<Msg> flush = ofType(received(*x), MT_RTM_CLR_ROUTE);
    ASSERT_EQ(flush.size(), 1u);
    const uint8_t *f = flush[0].data();
    EXPECT_EQ(tuple(ld32(f, RTM_CLR_OFF_ALL), ld32(f, RTM_CLR_OFF_KEY), f[RTM_CLR_OFF_PLEN],
                    Msg(f + RTM_CLR_OFF_PREFIX, f + RTM_CLR_OFF_PREFIX + 4)),
              tuple(0u, 0u, uint8_t(16), Msg{10, 1, 0, 0}));
  }
  rtClientVrfInfo *rvi = rt_client_tbl[0][ospf].rtc_vrf[0], *ripRvi = rt_client_tbl[0][rip].rtc_vrf[0];
  EXPECT_EQ(tuple(rvi->rvi_blocked, ripRvi->rvi_blocked), tuple(0u, 0u));

  // Every route: the tree and the next hops are emptied, and each protocol is sent a new key.
  send(cli, clearRecord(1));
  EXPECT_EQ(statusOf(cli, MT_NM_CMD, RTM_NM_OFF_STATUS), 0u);
  EXPECT_EQ(tuple(rtmRibGetTree(0, 0)->rdx_heads, rtmNhCount(0, 0)), tuple(0u, 0u));
  std::vector<Msg> flush = ofType(received(p), MT_RTM_CLR_ROUTE);
  ASSERT_EQ(flush.size(), 1u);
  const uint8_t *f = flush[0].data();
  ASSERT_EQ(flush[0].size(), RTM_CLR_MSG_LEN);
  EXPECT_EQ(tuple(ld32(f, IPC_OFF_MLEN), ld32(f, IPC_OFF_MSTATUS), ld32(f, RTM_CLR_OFF_ALL), f[RTM_CLR_OFF_AFINDEX],
                  ld32(f, RTM_CLR_OFF_KEY), ld32(f, RTM_CLR_OFF_VRFID)),
            tuple(RTM_CLR_MSG_LEN, 1u, 1u, uint8_t(0), 1u, 0u));
  for (size_t i = RTM_CLR_OFF_CID; i < RTM_CLR_OFF_ALL; ++i) EXPECT_EQ(f[i], 0) << i;
  EXPECT_EQ(ofType(received(q), MT_RTM_CLR_ROUTE).size(), 1u);
  struct Step {
    const char *what;
    uint32_t key, all;
    uint32_t blockedAfter;
    bool stale, unexpected;
  } steps[] = {
      {"an older key", 0, 1, 1, true, false},
      {"a key not yet given", 4, 1, 1, true, false},
      {"the answer to a clear of one prefix", 1, 0, 1, false, false},
      {"the key", 1, 1, 0, false, false},
      {"a key not yet given, when not blocked", 4, 1, 0, true, true},
  };
  for (const Step &s : steps) {
    SCOPED_TRACE(s.what);
    ASSERT_EQ(add(ospf, route(0, RTM_PROTO_OSPF, "10.3.0.0")), RTM_SUCCESS);
    EXPECT_EQ(routed(0, "10.3.0.0"), rvi->rvi_blocked == 0);  // a blocked client's add is dropped
    qorLogClearRecent();
    sendSeq(p, 0, ospf, clearAnswer(ospf, s.key, s.all));
    EXPECT_EQ(tuple(rvi->rvi_blocked, qorLogSaw("Stale clear response received from client"), qorLogCount(0x14801B)),
              tuple(s.blockedAfter, s.stale, s.unexpected ? 1u : 0u));
  }
  EXPECT_EQ(ripRvi->rvi_blocked, 1u);  // RIP has not answered yet
}

TEST_F(Flush, ClearFibStartsTheAgentAfreshOnTheRegularList) {
  Peer &agent = open(830), &cli = open(831);
  const uint32_t fib = client(agent, {RTM_PROTO_FIB});
  rt_client *rtc = rtmClientGetByHandle(0, fib);
  // Into the super group, wherever registration and the download thread have put it so far.
  if (!rtmClientOnList(&superClients[0], rtc)) {
    ASSERT_EQ(rtmAddClientToList(&superClients[0], rtc), 0);
  }
  rtmRemoveClientFromList(&regularClients[0], rtc);
  rtc->rtc_vrf[0]->rvi_version = 7;
  rtc->rtc_dnldState = RTC_Q_STOPPED;
  Msg m = message(MT_RTM_CLEAR_FIB, RTM_CLEAR_FIB_LEN);
  st32(m.data(), RTM_CLEAR_FIB_OFF_CID, fib);
  // Before the download thread has had a turn (which may promote it again at once).
  ASSERT_EQ(rtmClearIpFibCmd(m.data()), RTM_SUCCESS);
  EXPECT_EQ(tuple(rtmClientOnList(&regularClients[0], rtc), rtmClientOnList(&superClients[0], rtc),
                  rtc->rtc_vrf[0]->rvi_version, rtc->rtc_dnldState),
            tuple(true, false, 0u, RTC_Q_REGISTERED));
  // The agent is told to forget the VRF's table, with the marker of a fresh download.
  pump();
  std::vector<Msg> marks = ofType(received(agent), MT_RTM_DNLD_CNTRL);
  ASSERT_EQ(marks.size(), 1u);
  ASSERT_EQ(marks[0].size(), 144u);
  // The version word, the action, the VRF and the family.
  EXPECT_EQ(tuple(ld32(marks[0].data(), 128), ld32(marks[0].data(), 132), ld32(marks[0].data(), 136), marks[0][140]),
            tuple(0u, RTM_CNTRL_DNLD_BEGINS, 0u, uint8_t(0)));
  // The message is answered with status 0, for a client it does not know too.
  for (uint32_t cid : {fib, 40u}) {
    SCOPED_TRACE(cid);
    qorLogClearRecent();
    st32(m.data(), RTM_CLEAR_FIB_OFF_CID, cid);
    send(cli, m);
    EXPECT_EQ(tuple(statusOf(cli, MT_RTM_CLEAR_FIB), qorLogCount(0x148019)), tuple(0u, cid == fib ? 0u : 1u));
  }
}

TEST_F(Flush, TheFilterMovesAgentsOffTheSuperListAndIsKeptInTheConfiguration) {
  Peer &ipm0 = open(840, 0), &ipm1 = open(840, 1), &ospf = open(841), &cli = open(842);
  rt_client *i0 = rtmClientGetByHandle(0, client(ipm0, {RTM_PROTO_IPM, 0}));
  rt_client *i1 = rtmClientGetByHandle(0, client(ipm1, {RTM_PROTO_IPM, 1}));
  client(ospf, {RTM_PROTO_OSPF});
  struct Step {
    const char *what;
    uint32_t cmd, small, ipm1TakesBgp;
    uint32_t state, ipm0, ipm1;
    const char *line, *synced;
  } steps[] = {
      {"filter", 16, 0, 1, 2, 2, 2, "ip fib download-igp-only", "ip fib download-igp-only"},
      {"the small form", 16, 1, 1, 3, 3, 3, "ip fib download-igp-only small-fib", "ip fib download-igp-only small-fib"},
      {"lifted", 17, 0, 1, 1, 1, 1, "", "no ip fib download-igp-only"},
      {"filter, IPM 1 kept from BGP", 16, 0, 0, 2, 2, 1, "ip fib download-igp-only", "ip fib download-igp-only"},
      {"lifted, IPM 1 kept from BGP", 17, 0, 0, 1, 1, 2, "", "no ip fib download-igp-only"},
      {"an unknown command", 99, 0, 0, 1, 1, 2, "", "no ip fib download-igp-only"},
  };
  for (const Step &s : steps) {
    SCOPED_TRACE(s.what);
    rtmDownloadBgpRoutesToIpm1[0] = s.ipm1TakesBgp;
    i0->rtc_filterState = 1;  // caught up and unfiltered: a member of the group
    rtmRemoveClientFromList(&regularClients[0], i0);
    if (!rtmClientOnList(&superClients[0], i0)) rtmAddClientToList(&superClients[0], i0);
    qorLogClearRecent();
    Msg m = nm(MT_RTM_FILTER_FLAG, 92);
    st32(m.data(), RTM_FILTER_OFF_CMD, s.cmd);
    st32(m.data(), RTM_FILTER_OFF_SMALL, s.small);
    send(cli, m);
    EXPECT_EQ(statusOf(cli, MT_NM_CMD, RTM_NM_OFF_STATUS), 0u);
    EXPECT_EQ(tuple(rtmCurrentFilterState, i0->rtc_filterState, i1->rtc_filterState,
                         rtmClientOnList(&superClients[0], i0), cfgText(0), lastSynced(), qorLogCount(0x148004)),
              tuple(s.state, s.ipm0, s.ipm1, s.ipm0 == 1, std::string(s.line), std::string(s.synced),
                         s.cmd == 99 ? 1u : 0u));
    // VRF 0 is served afresh under the new rule: the protocols are asked for their routes.
    EXPECT_EQ(ofType(received(ospf), MT_RTM_CLR_ROUTE).size(), 1u);
  }
}

TEST_F(Flush, BgpRoutesToIpmInstanceOne) {
  Peer &ipm1 = open(850, 1), &bgp = open(851), &ospf = open(852), &cli = open(853);
  rt_client *i1 = rtmClientGetByHandle(0, client(ipm1, {RTM_PROTO_IPM, 1}));
  const uint32_t b = client(bgp, {RTM_PROTO_BGP}), o = client(ospf, {RTM_PROTO_OSPF});
  ASSERT_EQ(add(b, route(0, RTM_PROTO_BGP, "10.1.0.0", 0, 20)), RTM_SUCCESS);
  ASSERT_EQ(add(o, route(0, RTM_PROTO_OSPF, "10.2.0.0")), RTM_SUCCESS);
  struct Step {
    uint32_t af, value;
    uint32_t flag, ipm1State;
    uint8_t key;
    const char *line, *synced;
    bool bgpMoves;
  } steps[] = {
      {0, 0, 0, 2, 0x80, "no ip route-download bgp-to-ipm1-enable", "no ip route-download bgp-to-ipm1-enable", true},
      {0, 0, 0, 2, 0x80, "no ip route-download bgp-to-ipm1-enable", "no ip route-download bgp-to-ipm1-enable", false},
      {0, 1, 1, 1, 0x80, "", "ip route-download bgp-to-ipm1-enable", true},
      {1, 1, 1, 1, 0x82, "ipv6 route-download bgp-to-ipm1-enable", "ipv6 route-download bgp-to-ipm1-enable", false},
  };
  for (const Step &s : steps) {
    SCOPED_TRACE(std::to_string(s.af) + "/" + std::to_string(s.value));
    const uint64_t vb = rtmh_version(head(0, "10.1.0.0")), vo = rtmh_version(head(0, "10.2.0.0"));
    Msg m = nm(MT_RTM_REDNLD_BGP_IPM1, RTM_REDNLD_OFF_AFINDEX + 4);
    st32(m.data(), RTM_REDNLD_OFF_VALUE, s.value);
    st32(m.data(), RTM_REDNLD_OFF_AFINDEX, s.af);
    send(cli, m);
    EXPECT_EQ(statusOf(cli, MT_NM_CMD, RTM_NM_OFF_STATUS), 0u);
    EXPECT_EQ(tuple(rtmDownloadBgpRoutesToIpm1[s.af ? 2 : 0], i1->rtc_filterState, cfgText(s.key), lastSynced(),
                         rtmh_version(head(0, "10.1.0.0")) > vb, rtmh_version(head(0, "10.2.0.0"))),
              tuple(s.flag, s.ipm1State, std::string(s.line), std::string(s.synced), s.bgpMoves, vo));
  }
}

}  // namespace
