// The next-hop database inside a running rtmd: references, the ARP and NDP managers' requests,
// bundles and their FIFO as FIB agents receive them, replay to a new agent, allocation failures.
#include "tests/unit/rib/rib_test_util.h"

#include <map>
#include <random>
#include <set>
#include <tuple>

using rtm::ld32;
using rtm::st32;
using rtmtest::Msg;
using rtmtest::Peer;
using rtmtest::Reg;

namespace {

std::map<uint32_t, uint32_t> g_ifTypes;
uint32_t g_connectedIfindex;

struct Addr {
  uint8_t b[16] = {};
};
Addr v4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) { return Addr{{a, b, c, d}}; }
Addr v6(uint8_t last) { return Addr{{0x20, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, last}}; }

class NextHops : public ribtest::RibTest {
 protected:
  void SetUp() override {
    RibTest::SetUp();
    g_ifTypes.clear();
    g_connectedIfindex = 0;
    rtmNhHooks.ifmIfIndexToIfType = [](uint32_t ifindex) { return g_ifTypes.count(ifindex) ? g_ifTypes[ifindex] : 0u; };
    rtmNhHooks.rtmGetConnectedRouteIfindex = [](uint8_t, const uint8_t *, uint32_t) { return g_connectedIfindex; };
    rtmRcvdDnldCmpFrmIfm[0] = 1;
  }

  // The ARP (select 1) or NDP (2) manager announces itself from peer p.
  void manager(const Peer &p, uint32_t select) {
    send(p, nonRtMsg(p, select));
    received(p);
  }

  // An OSPF reference on a next hop that must be had.
  static rt_nh *take(uint32_t vrf, uint8_t af, uint32_t ifindex, const Addr &a, uint32_t flags = 0) {
    int err = -1;
    rt_nh *n = rtmNhAdd(vrf, af, ifindex, a.b, &err, RTM_PROTO_OSPF, flags);
    EXPECT_NE(n, nullptr);
    EXPECT_EQ(err, 0);
    return n;
  }

  // The records of next-hop bundles as (op, vrf, address word, ifindex).
  using Rec = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;
  static std::vector<Rec> records(const std::vector<Msg> &msgs) {
    std::vector<Rec> out;
    for (const Msg &m : ofType(msgs, MT_RTM_FIB_NH)) {
      uint32_t n = ld32(m.data(), RTM_FIBNH_OFF_COUNT);
      EXPECT_EQ(m.size(), rtmFibNhMsgLen(n));
      EXPECT_EQ(ld32(m.data(), IPC_OFF_MLEN), rtmFibNhMsgLen(n));
      for (uint32_t i = 0; i < n && rtmFibNhMsgLen(i + 1) <= m.size(); ++i) {
        const uint8_t *r = m.data() + RTM_FIBNH_OFF_RECS + RTM_FIBNH_REC_LEN * i;
        out.emplace_back(ld32(r, 0), ld32(r, 4), ld32(r, 8), ld32(r, 12));
      }
    }
    return out;
  }
  static uint32_t openCount(uint32_t vrfId) { return pNhBundle[vrfId] ? ld32(pNhBundle[vrfId], RTM_FIBNH_OFF_COUNT) : 0; }
};

// Finding records and counting their references are checked against the random model below.
TEST_F(NextHops, OneRequestEachWayForTheFirstAndLastReference) {
  Peer &arp = open(900), &ndp = open(901);
  manager(arp, RTM_NONRT_ARP);
  manager(ndp, RTM_NONRT_NDP);
  struct Case {
    uint8_t af;
    Addr addr;
    const Peer *mgr;
    uint32_t type;
    size_t offOp, offVrf, offAddr, offIf;
  } cases[] = {
      {0, v4(10, 1, 1, 1), &arp, MT_RTM_ARP_REQ, RTM_ARP_OFF_OP, RTM_ARP_OFF_VRFID, RTM_ARP_OFF_ADDR, RTM_ARP_OFF_IFINDEX},
      {2, v6(1), &ndp, MT_RTM_NDP_REQ, RTM_NDP_OFF_OP, RTM_NDP_OFF_VRFID, RTM_NDP_OFF_ADDR, RTM_NDP_OFF_IFINDEX},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(int(c.af));
    rt_nh *a = take(0, c.af, 5, c.addr);
    EXPECT_EQ(rtmNhAdd(0, c.af, 5, c.addr.b, nullptr, RTM_PROTO_BGP, 0), a);
    std::vector<Msg> reqs = ofType(received(*c.mgr), c.type);
    ASSERT_EQ(reqs.size(), 1u);
    const uint8_t *r = reqs[0].data();
    EXPECT_EQ(reqs[0].size(), RTM_NBR_REQ_LEN);
    EXPECT_EQ(ld32(r, c.offOp), RTM_NH_OP_ADD);
    EXPECT_EQ(ld32(r, c.offVrf), 0u);
    EXPECT_EQ(ld32(r, c.offIf), 5u);
    EXPECT_EQ(memcmp(r + c.offAddr, c.addr.b, rtmAfAddrLen(c.af)), 0);
    rtmNhDelete(c.af, a, RTM_PROTO_OSPF);
    EXPECT_TRUE(ofType(received(*c.mgr), c.type).empty());
    rtmNhDelete(c.af, a, RTM_PROTO_BGP);
    reqs = ofType(received(*c.mgr), c.type);
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(ld32(reqs[0].data(), c.offOp), RTM_NH_OP_DEL);
  }
  // Only the IPv4 next hop was bundled, in and out.
  EXPECT_EQ(openCount(0), 2u);
  EXPECT_EQ(rtmarpcount, 2u);
  EXPECT_EQ(rtmndpcount, 2u);
}

TEST_F(NextHops, WhoIsAskedToResolveWhat) {
  Peer &arp = open(900), &ndp = open(901);
  manager(arp, RTM_NONRT_ARP);
  manager(ndp, RTM_NONRT_NDP);
  g_ifTypes = {{19, RTM_IFTYPE_ALWAYS_UP}, {20, RTM_IFTYPE_LOOPBACK}, {21, RTM_IFTYPE_NULL}};
  struct Case {
    const char *what;
    uint8_t af;
    uint32_t ifindex, connected, proto;
    Addr addr;
    int requests;  // -1: none; otherwise the ifindex the request names
    bool bundled;
  } cases[] = {
      {"no interface: the connected route's is named", 0, 0, 42, RTM_PROTO_OSPF, v4(10, 0, 0, 1), 42, true},
      {"no interface and no connected route", 0, 0, 0, RTM_PROTO_OSPF, v4(10, 0, 0, 2), -1, true},
      {"an always-up interface", 0, 19, 0, RTM_PROTO_OSPF, v4(10, 0, 0, 3), -1, true},
      {"the loopback", 0, 20, 0, RTM_PROTO_OSPF, v4(10, 0, 0, 4), -1, true},
      {"an address in net 0", 0, 7, 0, RTM_PROTO_OSPF, v4(0, 9, 9, 9), -1, true},
      {"a null interface", 0, 21, 0, RTM_PROTO_OSPF, v4(10, 0, 0, 5), 21, true},
      {"an OFM next hop is the relay's business", 0, 7, 0, RTM_PROTO_OFM, v4(10, 0, 0, 6), -1, false},
      {"IPv6 without interface", 2, 0, 43, RTM_PROTO_OSPF, v6(7), 43, false},
      {"IPv6 on the loopback", 2, 20, 0, RTM_PROTO_OSPF, v6(8), -1, false},
      {"IPv6 zero address", 2, 7, 0, RTM_PROTO_OSPF, Addr{}, -1, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    g_connectedIfindex = c.connected;
    uint32_t before = openCount(0);
    rt_nh *n = rtmNhAdd(0, c.af, c.ifindex, c.addr.b, nullptr, c.proto, 0);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->rtn_ifindex, c.ifindex);  // the key keeps what the route gave
    const Peer &mgr = c.af == 2 ? ndp : arp;
    std::vector<Msg> reqs = ofType(received(mgr), c.af == 2 ? MT_RTM_NDP_REQ : MT_RTM_ARP_REQ);
    ASSERT_EQ(reqs.size(), c.requests < 0 ? 0u : 1u);
    if (c.requests >= 0) {
      EXPECT_EQ(ld32(reqs[0].data(), c.af == 2 ? RTM_NDP_OFF_IFINDEX : RTM_ARP_OFF_IFINDEX), uint32_t(c.requests));
    }
    EXPECT_EQ(openCount(0) - before, c.bundled ? 1u : 0u);
  }
}

TEST_F(NextHops, BundlesCloseAtTheirSizeAndReachEveryAgentOnceInOrder) {
  Peer &a = open(910), &b = open(911), &c = open(912);
  uint32_t ca = 0, cb = 0, cc = 0;
  ASSERT_EQ(reg(a, {RTM_PROTO_FIB, 0}, &ca), RTM_REG_OK);
  ASSERT_EQ(reg(b, {RTM_PROTO_FIB, 1}, &cb), RTM_REG_OK);
  ASSERT_EQ(reg(c, {RTM_PROTO_IPM, 0}, &cc), RTM_REG_OK);
  // One agent serves as a member of the super group. The download thread has had its turns
  // and sorted the agents by itself; the lists are set here whatever it decided.
  qorThreadRunUntilIdle(rtmThreads);
  for (uint32_t cid : {ca, cc}) rtmValidateOneSuperClient(rtmClientGetByHandle(0, cid), 0);
  rt_client *rb = rtmClientGetByHandle(0, cb);
  if (!rtmClientOnList(&superClients[0], rb)) {
    ASSERT_EQ(rtmRemoveClientFromList(&regularClients[0], rb), 0);
    ASSERT_EQ(rtmAddClientToList(&superClients[0], rb), 0);
  }
  received(a), received(b), received(c);

  const uint32_t perBundle = (RTM_NH_BUNDLE_CLOSE - RTM_FIBNH_OFF_RECS) / RTM_FIBNH_REC_LEN;
  ASSERT_EQ(perBundle, 329u);
  std::vector<rt_nh *> held;
  const uint32_t closed0 = rtmnhcount, sent0 = rtmnhcount_s;  // nothing resets these between tests
  for (uint32_t i = 0; i < perBundle + 3; ++i) {
    held.push_back(take(0, 0, 100 + i, v4(10, 2, uint8_t(i >> 8), uint8_t(i)), i == 0 ? RTP_FLAG_LOOPBACK : 0));
    if (i == perBundle - 2 || i == perBundle - 1) {
      EXPECT_EQ(pNhBundle[0] != nullptr, i == perBundle - 2);  // open at 8004 bytes, closed at 8028
    }
  }
  EXPECT_EQ(rtmnhcount - closed0, perBundle);
  EXPECT_EQ(qorDLLCount(&nhBundleFifo[0]), 2u);
  rtmNhDownloadFromFifo(0, 0);
  EXPECT_EQ(qorDLLCount(&nhBundleFifo[0]), 0u);
  EXPECT_EQ(rtmNhFifoSeqNoAdd[0], 2u);
  EXPECT_EQ(rtmNhFifoSeqNoDel[0], 2u);
  std::vector<Rec> ra = records(received(a));
  EXPECT_EQ(records(received(b)), ra);
  EXPECT_EQ(records(received(c)), ra);
  ASSERT_EQ(ra.size(), perBundle + 3);
  EXPECT_EQ(ra[0], Rec(RTM_NH_OP_ADD, 0, RTM_NH_LOOPBACK_ADDR, 100));
  EXPECT_EQ(ra[perBundle + 2], Rec(RTM_NH_OP_ADD, 0, 0x0A020000u + perBundle + 2, 100 + perBundle + 2));
  EXPECT_EQ(rb->rtc_superSendCount, 2u);
  EXPECT_EQ(rtmnhcount_s - sent0, 3 * (perBundle + 3));
  // Nothing is sent twice; a delete goes the same way.
  rtmNhDelete(0, held[5], RTM_PROTO_OSPF);
  rtmNhDownloadFromFifo(0, 0);
  std::vector<Rec> del = records(received(a));
  ASSERT_EQ(del.size(), 1u);
  EXPECT_EQ(std::get<0>(del[0]), RTM_NH_OP_DEL);
  EXPECT_EQ(inUse(RTM_NH_FIFO_NODE_POOL), 0u);
}

TEST_F(NextHops, FifoWithoutTakersClearsAndNeverForTheMulticastFamily) {
  take(0, 0, 1, v4(10, 3, 0, 1));
  rtmNhDownloadFromFifo(IPV4MUL_AFINDEX, 0);
  EXPECT_EQ(qorDLLCount(&nhBundleFifo[0]), 1u);
  // No download client: the bundle has nobody to go to and is dropped.
  rtmNhDownloadFromFifo(0, 0);
  EXPECT_EQ(qorDLLCount(&nhBundleFifo[0]), 0u);
  EXPECT_EQ(inUse(RTM_SWP_NH_DNLD_POOL), 0u);
  // While the routes of the VRF are being cleared nothing is bundled, and what waits goes.
  take(0, 0, 1, v4(10, 3, 0, 2));
  rtmNhClearIpRouteInProgress[0] = 1;
  take(0, 0, 1, v4(10, 3, 0, 3));
  EXPECT_EQ(openCount(0), 1u);
  Peer &a = open(913);
  ASSERT_EQ(reg(a, {RTM_PROTO_FIB}), RTM_REG_OK);
  received(a);
  rtmNhDownloadFromFifo(0, 0);
  EXPECT_EQ(qorDLLCount(&nhBundleFifo[0]), 0u);
  EXPECT_TRUE(records(received(a)).empty());
  // Only the agent's replay is left, held by its queue until the agent acknowledges it.
  EXPECT_EQ(inUse(RTM_SWP_NH_DNLD_POOL), 1u);
}

TEST_F(NextHops, AShortageInADrainLeavesTheBundleWholeForTheNextRound) {
  Peer &a = open(920), &b = open(921);
  ASSERT_EQ(reg(a, {RTM_PROTO_FIB, 0}), RTM_REG_OK);
  ASSERT_EQ(reg(b, {RTM_PROTO_FIB, 1}), RTM_REG_OK);
  received(a), received(b);
  take(0, 0, 1, v4(10, 4, 0, 1));
  for (uint32_t failAt : {0u, 1u}) {
    SCOPED_TRACE(failAt);
    qorLogClearRecent();
    qorMemFailAfter(failAt);  // the first or the second copy cannot be had
    rtmNhDownloadFromFifo(0, 0);
    qorMemFailAfter(-1);
    EXPECT_EQ(qorLogCount(0x148008), 1u);
    EXPECT_EQ(qorDLLCount(&nhBundleFifo[0]), 1u);
    EXPECT_TRUE(records(received(a)).empty());
    EXPECT_TRUE(records(received(b)).empty());
    EXPECT_EQ(inUse(RTM_SWP_NH_DNLD_POOL), 1u);  // the bundle itself, nothing leaked
  }
  rtmNhDownloadFromFifo(0, 0);
  EXPECT_EQ(records(received(a)).size(), 1u);
  EXPECT_EQ(records(received(b)).size(), 1u);
}

TEST_F(NextHops, AnAddThatCannotBeCompletedLeavesNoRecord) {
  Peer &arp = open(930);
  manager(arp, RTM_NONRT_ARP);
  struct Case {
    const char *what;
    uint32_t pool;
  } cases[] = {
      {"the record", RTM_NH_POOL},
      {"the ARP request", RTM_RTM_ARP_POOL},
      {"a new bundle", RTM_SWP_NH_DNLD_POOL},
      {"the FIFO node", RTM_NH_FIFO_NODE_POOL},
  };
  uint8_t host = 1;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    rtmNhClearFifo(0, 0);  // so that the next add needs a new bundle
    Addr x = v4(10, 5, 0, host++);
    qorMemFailNext(c.pool, 1);
    int err = 0;
    EXPECT_EQ(rtmNhAdd(0, 0, 3, x.b, &err, RTM_PROTO_OSPF, 0), nullptr);
    EXPECT_EQ(err, RTM_NO_MEMORY);
    EXPECT_EQ(rtmNhFind(0, 0, 3, x.b), nullptr);
    EXPECT_EQ(inUse(RTM_NH_POOL), 0u);
    EXPECT_EQ(inUse(RTM_SWP_NH_DNLD_POOL), 0u);
    take(0, 0, 3, x);
    rtmNhDeleteAll(0, 0);
  }
  // A family or VRF without a table is a plain failure.
  for (auto [vrf, af] : {std::pair<uint32_t, uint8_t>{0, IPV4MUL_AFINDEX}, {7, 0}}) {
    int err = 0;
    EXPECT_EQ(rtmNhAdd(vrf, af, 3, v4(10, 5, 0, 99).b, &err, RTM_PROTO_OSPF, 0), nullptr);
    EXPECT_EQ(err, RTM_FAILURE);
  }
}

TEST_F(NextHops, ANewAgentIsGivenTheWholeDatabase) {
  g_ifTypes = {{21, RTM_IFTYPE_NULL}, {19, RTM_IFTYPE_ALWAYS_UP}};
  const uint32_t n4 = 400;
  for (uint32_t i = 0; i < n4; ++i) take(0, 0, 1, v4(10, 6, uint8_t(i >> 8), uint8_t(i)));
  take(0, 0, 21, Addr{});  // a discard route: not replayed
  const Addr a6 = v6(9);
  take(0, 2, 0x01020304, a6);
  take(0, 2, 19, v6(10));  // always-up IPv6: not replayed
  rtmNhDownloadFromFifo(0, 0);  // with nobody to take them the waiting bundles go: only the replay remains
  Peer &agent = open(940);
  ASSERT_EQ(reg(agent, {RTM_PROTO_FIB, 0, 0}), RTM_REG_OK);
  std::vector<Msg> got = ofType(received(agent), MT_RTM_FIB_NH);
  ASSERT_EQ(got.size(), 2u);  // 329 records reach the send mark, the rest follow
  EXPECT_EQ(ld32(got[0].data(), RTM_FIBNH_OFF_COUNT), 329u);
  std::vector<Rec> recs = records(got);
  ASSERT_EQ(recs.size(), n4);
  std::set<uint32_t> addrs;
  for (const Rec &r : recs) addrs.insert(std::get<2>(r));
  EXPECT_EQ(addrs.size(), n4);
  EXPECT_EQ(*addrs.begin(), 0x0A060000u);
  // The IPv6 family of the same agent: the address from byte 8, the ifindex over its second word.
  ASSERT_EQ(reg(agent, {RTM_PROTO_FIB, 0, 2}), RTM_REG_OK);
  got = ofType(received(agent), MT_RTM_FIB_NH);
  ASSERT_EQ(got.size(), 1u);
  ASSERT_EQ(ld32(got[0].data(), RTM_FIBNH_OFF_COUNT), 1u);
  const uint8_t *r = got[0].data() + RTM_FIBNH_OFF_RECS;
  Addr expect = a6;
  st32(expect.b, 4, 0x01020304);
  EXPECT_EQ(memcmp(r + RTM_FIBNH_REC_OFF_ADDR, expect.b, 16), 0);
  EXPECT_EQ(ld32(r, RTM_FIBNH_REC_OFF_OP), RTM_NH_OP_ADD);
}

TEST_F(NextHops, EveryRecordGoesWhenItsLastReferenceGoes) {
  // Random references over a key space wide enough to make the tables grow, in two VRFs and
  // both families, checked against plain counts after every step.
  ASSERT_EQ(rtmNhInit(3), 0);
  std::mt19937 rng(7);
  std::map<std::tuple<uint32_t, uint8_t, uint32_t, uint32_t>, std::pair<int, rt_nh *>> model;  // vrf, af, if, host
  auto total = [] { return rtmNhCount(0, 0) + rtmNhCount(0, 2) + rtmNhCount(3, 0) + rtmNhCount(3, 2); };
  for (int step = 0; step < 20000; ++step) {
    const uint32_t vrf = rng() % 2 ? 3 : 0;
    const uint8_t af = rng() % 2 ? 2 : 0;
    const uint32_t ifindex = rng() % 3, host = rng() % 1500;
    Addr a = af == 2 ? v6(0) : v4(10, 7, uint8_t(host >> 8), uint8_t(host));
    if (af == 2) st32(a.b, 12, host);
    auto &[refs, rec] = model[{vrf, af, ifindex, host}];
    if (refs > 0 && rng() % 3 == 0) {
      rtmNhDelete(af, rec, RTM_PROTO_OSPF);
      if (--refs == 0) rec = nullptr;
    } else {
      rt_nh *n = take(vrf, af, ifindex, a);
      ASSERT_NE(n, nullptr);
      ASSERT_EQ(n, rec ? rec : n);  // one record per key
      rec = n;
      ++refs;
    }
    ASSERT_EQ(rtmNhFind(vrf, af, ifindex, a.b), rec);
    ASSERT_EQ(rec ? rec->rtn_refcnt : 0, refs);
  }
  uint32_t live = 0;
  for (auto &[k, v] : model) live += v.first > 0;
  EXPECT_EQ(total(), live);
  for (auto &[k, v] : model)
    for (; v.first > 0; --v.first) rtmNhDelete(std::get<1>(k), v.second, RTM_PROTO_OSPF);
  EXPECT_EQ(total(), 0u);
  EXPECT_EQ(inUse(RTM_NH_POOL) + inUse(RTM6_NH_POOL), 0u);
  // A VRF goes with its tables; VRF 0 never does.
  rtmNhDestroy(3);
  EXPECT_EQ(rtmNhGetTree(3, 0), nullptr);
  rtmNhDestroy(0);
  EXPECT_NE(rtmNhGetTree(0, 0), nullptr);
}

}  // namespace
