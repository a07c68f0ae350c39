// Route add and delete against the running daemon's tables: the checks that refuse a route, and
// the special routes (unnumbered, host routes that name themselves, connected and GBC).
#include "tests/unit/rib/rib_test_util.h"

using namespace ribtest;

namespace {

constexpr uint32_t kOspf = 3, kRip = 5, kStatic = 6, kBgp = 7, kPos = 8, kConn = 9;

class Routes : public RibTest {
 protected:
  void SetUp() override {
    RibTest::SetUp();
    for (auto [cid, proto] : {std::pair{kOspf, RTM_PROTO_OSPF}, {kRip, RTM_PROTO_RIP}, {kStatic, RTM_PROTO_STATIC},
                              {kBgp, RTM_PROTO_BGP}, {kPos, RTM_PROTO_POS}, {kConn, RTM_PROTO_CONNECTED}})
      client(cid, proto);
  }
  static Route ospf(const char *p = "10.1.0.0", unsigned plen = 16, int32_t metric = 10) {
    return Route().prefix(p, plen).proto(RTM_PROTO_OSPF).subtype(RT_OSPF_INTRA).pref(110).metric(metric)
        .nh("192.168.1.1", 5);
  }
  // An unnumbered host route of the POS client.
  static Route pos(const char *p, uint32_t ifindex, uint32_t flags = 0) {
    return Route().prefix(p, 32).proto(RTM_PROTO_POS).pref(0).nh("0.0.0.0", ifindex).flags(flags);
  }
  static Route rip(const char *p = "10.1.0.0", unsigned plen = 16) {
    return Route().prefix(p, plen).proto(RTM_PROTO_RIP).pref(110).nh("192.168.2.1", 6);
  }
};

// Order, head versions, counters, references and the head that outlives its last entry are
// checked against the model test; here the head's time and the tree's version.
TEST_F(Routes, HeadTimeAndTreeVersionMoveOnlyWithTheActiveRoute) {
  Route o = ospf(), r = rip();
  ASSERT_EQ(add(kOspf, o), RTM_SUCCESS);
  rt_head *h = head("10.1.0.0", 16);
  ASSERT_NE(h, nullptr);
  qorClockAdvance(50);
  ASSERT_EQ(add(kOspf, ospf("10.1.0.0", 16, 20)), RTM_SUCCESS);  // the active route replaced
  EXPECT_EQ(h->rtmh_time, qorTickGet());
  ASSERT_EQ(add(kRip, r), RTM_SUCCESS);  // equal preference: OSPF stays first
  const uint64_t t = h->rtmh_time, treeVer = tree()->rdx_version;
  qorClockAdvance(50);
  ASSERT_EQ(add(kRip, r.metric(99)), RTM_SUCCESS);  // an inactive route replaced: nobody is told
  EXPECT_EQ(tree()->rdx_version, treeVer);
  EXPECT_EQ(h->rtmh_time, t);
  qorClockAdvance(70);
  ASSERT_EQ(del(kOspf, o), RTM_SUCCESS);
  EXPECT_EQ(h->rtmh_time, qorTickGet());
}

// A route whose next hops lie inside it and name no interface: releasing each next hop looks
// up the next one's interface through the covering route, the leaving route itself, which must
// not offer those already released (a read of a freed next hop, found by the fuzz run).
TEST_F(Routes, ALeavingRouteNeverOffersItsReleasedNextHops) {
  for (bool replace : {false, true}) {
    SCOPED_TRACE(replace ? "replaced" : "deleted");
    Route c = Route().prefix("10.9.0.0", 16).proto(RTM_PROTO_CONNECTED).pref(0);
    Route d = c;
    c.nh("10.9.0.1").nh("10.9.0.2").nh("10.9.0.3");
    d.nh("10.9.1.1", 4);
    ASSERT_EQ(add(kConn, c), RTM_SUCCESS);
    if (replace) {
      ASSERT_EQ(add(kConn, d), RTM_SUCCESS);
    }
    ASSERT_EQ(del(kConn, replace ? d : c), RTM_SUCCESS);
    EXPECT_EQ(head("10.9.0.0", 16)->rtmh_rte, nullptr);
  }
}

TEST_F(Routes, RefusedAdds) {
  struct Case {
    const char *what;
    uint32_t cid;
    Route route;
    uint32_t event;
  };
  auto base = [] { return ospf("10.9.0.0", 16); };
  std::vector<Case> cases = {
      {"unknown client", 40, base(), 0x148018},
      {"protocol differs from the client's", kRip, base(), 0x148017},
      {"preference 0 from OSPF", kOspf, base().pref(0), 0x148046},
      {"no next hop", kOspf, base().nnh(0), 0x14803C},
      {"65 next hops", kOspf, base().nnh(65), 0x14803C},
      {"a zero next hop without interface", kOspf, base().nh("0.0.0.0", 0), 0x14800E},
      {"VRF without tables (route's VRF taken for BGP)", kBgp, base().vrf(600).proto(RTM_PROTO_BGP).subtype(13),
       0x14803F},
      {"a subtype no entry can hold", kOspf, base().subtype(0x10004), 0x148004},
      {"prefix longer than the family's", kOspf, base().prefix("10.9.0.0", 33), 0x148004},
  };
  for (Case &c : cases) {
    SCOPED_TRACE(c.what);
    qorLogClearRecent();
    EXPECT_EQ(add(c.cid, c.route), RTM_FAILURE);
    EXPECT_GE(qorLogCount(c.event), 1u);
    rt_head *h = head("10.9.0.0", 16);
    EXPECT_TRUE(!h || !h->rtmh_rte);
    EXPECT_EQ(refs("192.168.1.1", 5), 0);  // nothing taken stays taken
  }
  // Preference 0 is fine for static routes.
  EXPECT_EQ(add(kStatic, base().proto(RTM_PROTO_STATIC).subtype(0).pref(0)), RTM_SUCCESS);
  EXPECT_EQ(head("10.9.0.0", 16)->rtmh_rte->rte_cid, kStatic);
}

TEST_F(Routes, DeleteResults) {
  Route o = ospf();
  EXPECT_EQ(del(kOspf, o), RTM_FAILURE);  // unknown prefix: no word
  EXPECT_EQ(qorLogRecent().size(), 0u);
  Route r = rip();
  ASSERT_EQ(add(kRip, r), RTM_SUCCESS);
  EXPECT_EQ(del(kOspf, o), RTM_FAILURE);  // a head, but nothing of this client
  Route other = ospf().subtype(RT_OSPF_E2);
  ASSERT_EQ(add(kOspf, o), RTM_SUCCESS);
  EXPECT_EQ(del(kOspf, other), RTM_FAILURE);  // another subtype
  other.subtype(RT_SUBTYPE_ANY);
  EXPECT_EQ(del(kOspf, other), RTM_SUCCESS);  // any subtype
  EXPECT_EQ(entries(head("10.1.0.0", 16)).size(), 1u);
}

TEST_F(Routes, HostRoutesThatNameThemselves) {
  auto ospfHost = [](const char *p) { return Route().prefix(p, 32).proto(RTM_PROTO_OSPF).pref(110); };
  // One next hop, itself: the route goes to the GBC RIB only.
  Route self = ospfHost("10.2.2.2").nh("10.2.2.2");
  ASSERT_EQ(add(kOspf, self), RTM_SUCCESS);
  EXPECT_EQ(head("10.2.2.2", 32), nullptr);
  qor_radix_tree *gbc = rtmGbcRibGetTree(0, 0);
  ASSERT_NE(head("10.2.2.2", 32, 0, gbc), nullptr);
  // Two next hops, one of them itself: it stays with the other.
  ASSERT_EQ(add(kOspf, ospfHost("10.3.3.3").nh("10.3.3.3").nh("192.168.1.1", 5)), RTM_SUCCESS);
  rt_head *h = head("10.3.3.3", 32);
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(h->rtmh_rte->rte_nnh, 1u);
  EXPECT_EQ(rtmRteNh(h->rtmh_rte)[0]->rtn_ifindex, 5u);
  EXPECT_EQ(refs("10.3.3.3"), 0);
  // All of them itself: GBC, nothing in the main tree, no reference kept.
  ASSERT_EQ(add(kOspf, ospfHost("10.4.4.4").nh("10.4.4.4").nh("10.4.4.4")), RTM_SUCCESS);
  EXPECT_EQ(head("10.4.4.4", 32), nullptr);
  EXPECT_NE(head("10.4.4.4", 32, 0, gbc), nullptr);
  // A delete that misses on a head with entries, for a route the GBC RIB knows: success, and
  // the GBC mark stays.
  Route g2 = Route().prefix("10.3.3.3", 32).proto(RTM_PROTO_RIP).pref(120);
  ASSERT_EQ(add(kRip, Route(g2).nh("10.3.3.3")), RTM_SUCCESS);  // one next hop, itself: GBC
  EXPECT_EQ(del(kRip, g2.nh("192.168.9.9", 1)), RTM_SUCCESS);   // not a self route: to the main tree
  EXPECT_NE(head("10.3.3.3", 32, 0, gbc), nullptr);
  // The delete of the self route itself clears the mark and the GBC head.
  EXPECT_EQ(del(kOspf, self), RTM_SUCCESS);
  EXPECT_EQ(head("10.2.2.2", 32, 0, gbc), nullptr);
}

TEST_F(Routes, RouteLimitAndWarningThreshold) {
  rt_vrf_cache *vc = rtmVrfCache[0];
  ASSERT_NE(vc, nullptr);
  vc->max_route_set[0] = 1;
  vc->max_routes[0] = 4;
  vc->warn_threshold[0] = 50;  // warn at 2
  auto addOspf = [&](int i) { return add(kOspf, ospf(("10." + std::to_string(i) + ".0.0").c_str())); };
  for (int i = 0; i < 2; ++i) EXPECT_EQ(addOspf(i), RTM_SUCCESS);
  EXPECT_EQ(qorLogCount(0x148065), 0u);
  EXPECT_EQ(addOspf(2), RTM_SUCCESS);  // 2 active routes: exactly the threshold, warned, taken
  EXPECT_EQ(qorLogCount(0x148065), 1u);
  EXPECT_EQ(addOspf(3), RTM_SUCCESS);
  EXPECT_EQ(qorLogCount(0x148065), 1u);
  EXPECT_EQ(addOspf(4), RTM_ROUTE_LIMIT);  // 4 active: at the limit
  EXPECT_EQ(qorLogCount(0x14805F), 1u);
  EXPECT_EQ(head("10.4.0.0", 16), nullptr);
  // An existing prefix takes a new protocol's entry; a connected route is never counted.
  EXPECT_EQ(add(kRip, rip("10.3.0.0", 16)), RTM_SUCCESS);
  EXPECT_EQ(add(kConn, Route().prefix("10.200.0.0", 16).proto(RTM_PROTO_CONNECTED).pref(0).nh("0.0.0.0", 9)),
            RTM_SUCCESS);
  // Warning-only mode takes the route and says so.
  vc->warning_only[0] = 1;
  EXPECT_EQ(addOspf(5), RTM_SUCCESS);
  EXPECT_EQ(qorLogCount(0x148066), 1u);
  // Threshold equal to the limit refuses at the limit, without the warning.
  vc->warning_only[0] = 0;
  vc->warn_threshold[0] = 100;
  vc->max_routes[0] = 5;
  qorLogClearRecent();
  EXPECT_EQ(addOspf(6), RTM_ROUTE_LIMIT);
  EXPECT_EQ(qorLogCount(0x148065), 0u);
  EXPECT_EQ(qorLogCount(0x14805F), 1u);
}

TEST_F(Routes, BlockedClientIsDroppedButLeakedRoutesPass) {
  Route o = ospf();
  ASSERT_EQ(add(kOspf, o), RTM_SUCCESS);
  rvi(kOspf)->rvi_blocked = 1;
  Route n = ospf("10.7.0.0", 16);
  EXPECT_EQ(add(kOspf, n), RTM_SUCCESS);
  EXPECT_EQ(head("10.7.0.0", 16), nullptr);
  EXPECT_TRUE(qorLogSaw("Routes from client3 is blocked"));
  EXPECT_EQ(del(kOspf, o), RTM_SUCCESS);
  EXPECT_NE(head("10.1.0.0", 16)->rtmh_rte, nullptr);  // the delete was dropped too
  n.flags(RTP_FLAG_LEAKED);
  EXPECT_EQ(add(kOspf, n), RTM_SUCCESS);
  ASSERT_NE(head("10.7.0.0", 16), nullptr);
  EXPECT_EQ(head("10.7.0.0", 16)->rtmh_rte->rte_leak, RTE_LEAK_IMPORTED);
}

TEST_F(Routes, UnnumberedRoutesGatherNextHopsOneByOne) {
  Route a = pos("10.8.8.8", 11), b = pos("10.8.8.8", 12);
  ASSERT_EQ(add(kPos, a), RTM_SUCCESS);
  ASSERT_EQ(add(kPos, b), RTM_SUCCESS);
  EXPECT_EQ(add(kPos, b), RTM_SUCCESS);  // already on the route
  rt_head *h = head("10.8.8.8", 32);
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(entries(h).size(), 1u);
  rt_entry *e = h->rtmh_rte;
  EXPECT_EQ(e->rte_proto, RTM_PROTO_CONNECTED);
  EXPECT_EQ(e->rte_subtype, RT_UNNUMBERED);
  EXPECT_EQ(e->rte_nnh, 2u);
  EXPECT_EQ(refs("0.0.0.0", 11), 1);
  EXPECT_EQ(refs("0.0.0.0", 12), 1);
  EXPECT_EQ(refs("10.8.8.8", 0), 1);  // the host's own next hop
  EXPECT_EQ(rvi(kConn)->rvi_active, 1u);  // counted on the connected client
  // Taking off the one in the first slot: the other moves down.
  const uint64_t v = rtmh_version(h);
  EXPECT_EQ(del(kPos, a), RTM_SUCCESS);
  ASSERT_EQ(entries(h).size(), 1u);
  EXPECT_EQ(h->rtmh_rte->rte_nnh, 1u);
  EXPECT_EQ(rtmRteNh(h->rtmh_rte)[0]->rtn_ifindex, 12u);
  EXPECT_GT(rtmh_version(h), v);
  EXPECT_EQ(refs("0.0.0.0", 11), 0);
  // The last one: the entry goes with the host's own next hop.
  EXPECT_EQ(del(kPos, b), RTM_SUCCESS);
  EXPECT_EQ(h->rtmh_rte, nullptr);
  EXPECT_EQ(refs("0.0.0.0", 12), 0);
  EXPECT_EQ(refs("10.8.8.8", 0), 0);
  EXPECT_EQ(rvi(kConn)->rvi_active, 0u);
}

// Deleting the last of three next hops takes the whole entry; a withdrawal that names no next
// hop takes nothing off (it once read a next hop past its element, found by the route-update
// fuzz target).
TEST_F(Routes, UnnumberedDeleteOfTheLastSlotOrOfNoNextHop) {
  struct Case {
    const char *what, *host;
    bool bare;
    int result;
    uint16_t nnhLeft;
  } cases[] = {
      {"the last slot", "10.8.8.9", false, RTM_SUCCESS, 0},
      {"no next hop", "10.8.8.11", true, RTM_FAILURE, 3},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Route r;
    for (uint32_t i : {21u, 22u, 23u}) {
      r = pos(c.host, i);
      ASSERT_EQ(add(kPos, r), RTM_SUCCESS);
    }
    if (c.bare) r.nnh(0);
    EXPECT_EQ(del(kPos, r), c.result);
    rt_entry *e = head(c.host, 32)->rtmh_rte;
    EXPECT_EQ(e ? e->rte_nnh : 0u, c.nnhLeft);
    const int held = c.nnhLeft ? 1 : 0;
    for (uint32_t i : {21u, 22u, 23u}) EXPECT_EQ(refs("0.0.0.0", i), held) << i;
    EXPECT_EQ(refs(c.host, 0), held);
  }
  EXPECT_EQ(qorLogCount(0x14800E), 1u);
}

TEST_F(Routes, UnnumberedRouteForTheConnectedRibSharesNothingWithTheMainEntry) {
  Route main = pos("10.8.8.10", 31), con = pos("10.8.8.10", 32, RTP_FLAG_CONNECTED);
  ASSERT_EQ(add(kPos, main), RTM_SUCCESS);
  ASSERT_EQ(add(kPos, con), RTM_SUCCESS);
  ASSERT_EQ(add(kPos, con), RTM_SUCCESS);  // replaced in the connected tree
  rt_head *h = head("10.8.8.10", 32);
  ASSERT_EQ(entries(h).size(), 1u);
  EXPECT_EQ(h->rtmh_rte->rte_nnh, 1u);
  EXPECT_EQ(refs("0.0.0.0", 31), 1);
  EXPECT_EQ(refs("0.0.0.0", 32), 1);
  ASSERT_EQ(del(kPos, con), RTM_SUCCESS);
  EXPECT_EQ(refs("0.0.0.0", 32), 0);
  EXPECT_EQ(refs("0.0.0.0", 31), 1);
  EXPECT_EQ(rtmRteNh(h->rtmh_rte)[0]->rtn_ifindex, 31u);
  ASSERT_EQ(del(kPos, main), RTM_SUCCESS);
  EXPECT_EQ(refs("0.0.0.0", 31), 0);
  EXPECT_EQ(refs("10.8.8.10", 0), 0);
}

// An exported active route that is displaced must be withdrawn from the importers.
TEST_F(Routes, ADisplacedExportedRouteIsMarkedForWithdrawal) {
  ASSERT_EQ(add(kOspf, ospf("10.12.0.0", 16)), RTM_SUCCESS);
  rt_head *h = head("10.12.0.0", 16);
  rtmhSet(h, RTMH_EXPORTED);
  ASSERT_EQ(add(kStatic, Route().prefix("10.12.0.0", 16).proto(RTM_PROTO_STATIC).pref(1).nh("192.168.3.1", 4)),
            RTM_SUCCESS);
  EXPECT_TRUE(rtmhHas(h, RTMH_DEL_EXPORTED));
  rt_head_ext *ext = rtmHeadExt(h);
  ASSERT_NE(ext, nullptr);
  EXPECT_EQ(ext->rtmh_delProto, RTM_PROTO_OSPF);
  EXPECT_EQ(ext->rtmh_delCid, kOspf);
  EXPECT_EQ(ext->rtmh_delSubtype, RT_OSPF_INTRA);
}

TEST_F(Routes, ActiveRouteChangesWakeTheWorkersOncePerBatch) {
  qorThreadRunUntilIdle(rtmThreads);  // every worker rests
  ASSERT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRteDn), 1);
  Route a = ospf("10.70.0.0", 16), b = ospf("10.71.0.0", 16), r = rip("10.70.0.0", 16);
  rtmRibDeferWakeups(true);
  ASSERT_EQ(add(kOspf, a), RTM_SUCCESS);
  ASSERT_EQ(add(kOspf, b), RTM_SUCCESS);
  EXPECT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRteDn), 1);
  rtmRibDeferWakeups(false);
  EXPECT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRteDn), 0);
  EXPECT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRedis), 0);
  EXPECT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRtLeak), 0);
  // Without a batch the wake-up is immediate; a change below the active route wakes nobody.
  qorThreadRunUntilIdle(rtmThreads);
  ASSERT_EQ(add(kRip, r), RTM_SUCCESS);
  EXPECT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRteDn), 1);
  ASSERT_EQ(del(kOspf, a), RTM_SUCCESS);
  EXPECT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRteDn), 0);
  // An imported active route does not wake the route-leak thread.
  qorThreadRunUntilIdle(rtmThreads);
  ASSERT_EQ(add(kOspf, ospf("10.72.0.0", 16).flags(RTP_FLAG_LEAKED)), RTM_SUCCESS);
  EXPECT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRtLeak), 1);
  EXPECT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRteDn), 0);
}

TEST_F(Routes, OutOfMemoryAnywhereLeavesNothingBehind) {
  // A tree with a route already, so a new prefix needs nodes too.
  ASSERT_EQ(add(kOspf, ospf("10.50.0.0", 16)), RTM_SUCCESS);
  // Each allocation of an add in turn fails: the entry, the head and radix node when not in
  // hand already, the next hops (one shared with the first route, one new).
  int failures = 0;
  for (int k = 0; k < 16; ++k) {
    SCOPED_TRACE("allocations before the failure: " + std::to_string(k));
    Route r = ospf("10.60.0.0", 16).nh("192.168.7.7", 2);
    qorMemFailAfter(k);
    int result = add(kOspf, r);
    qorMemFailAfter(-1);
    if (result == RTM_SUCCESS) {
      EXPECT_EQ(entries(head("10.60.0.0", 16)).size(), 1u);
      ASSERT_EQ(del(kOspf, r), RTM_SUCCESS);
      rt_head *h = head("10.60.0.0", 16);
      qorRadixRemove(tree(), &h->rtmh_rdx);  // as a clear would: the next round starts afresh
      rtmHeadFree(h);
      continue;
    }
    ++failures;
    EXPECT_EQ(result, RTM_NO_MEMORY);
    EXPECT_EQ(head("10.60.0.0", 16), nullptr);
    EXPECT_EQ(refs("192.168.7.7", 2), 0);
    EXPECT_EQ(refs("192.168.1.1", 5), 1);
    EXPECT_EQ(tree()->rdx_heads, 1u);
  }
  EXPECT_GE(failures, 2);
  EXPECT_EQ(rvi(kOspf)->rvi_active, 1u);
}

}  // namespace
