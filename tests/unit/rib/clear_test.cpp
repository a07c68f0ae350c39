// Clearing a client's routes (walkers told), a VRF's trees (nobody told, all given back), a
// leaving client's holder bits, and the connected route naming a neighbour request's interface.
#include "tests/unit/rib/rib_test_util.h"

using namespace ribtest;

namespace {

constexpr uint32_t kOspf = 3, kRip = 5, kPos = 8, kConn = 9, kOther = 12, kHolder = 20;
constexpr uint32_t kVrf = 5;
using Step = std::pair<uint32_t, Route *>;  // a client and one of its routes

struct Fam {
  uint8_t af;
  const char *p[4];  // four /16 (or /48) prefixes
  unsigned plen;
  const char *host, *nh1, *nh2;
};
const Fam kFams[] = {
    {RTM_IPV4UNI_AFINDEX, {"10.1.0.0", "10.2.0.0", "10.3.0.0", "10.4.0.0"}, 16, "10.9.9.9", "192.168.1.1", "192.168.2.1"},
    {RTM_IPV6UNI_AFINDEX, {"2001:db8:1::", "2001:db8:2::", "2001:db8:3::", "2001:db8:4::"}, 48, "2001:db8:9::9",
     "fe80::1", "fe80::2"},
};

class Clearing : public RibTest {
 protected:
  void clients(uint8_t af) {
    for (auto [cid, proto] : {std::pair{kOspf, RTM_PROTO_OSPF}, {kRip, RTM_PROTO_RIP}, {kConn, RTM_PROTO_CONNECTED},
                              {kPos, RTM_PROTO_POS}})
      client(cid, proto, af);
  }
  static Route ospf(const Fam &f, const char *p, uint32_t flags = 0) {
    return Route(f.af).prefix(p, f.plen).proto(RTM_PROTO_OSPF).subtype(RT_OSPF_INTRA).pref(110).flags(flags)
        .nh(f.nh1, 5);
  }
  static Route rip(const Fam &f, const char *p) {
    return Route(f.af).prefix(p, f.plen).proto(RTM_PROTO_RIP).pref(120).nh(f.nh2, 6);
  }
  static Route hostSelf(const Fam &f, uint32_t proto) {
    return Route(f.af).prefix(f.host, rtmAfKeyBits(f.af)).proto(proto).pref(110).nh(f.host);
  }
  // The client's routes of every kind: alone, shared with RIP, leaked in, connected, GBC, and
  // for IPv4 an unnumbered route of the POS client.
  void fill(const Fam &f) {
    Route a = ospf(f, f.p[0]), b = ospf(f, f.p[1]), r = rip(f, f.p[1]), leak = ospf(f, f.p[1], RTP_FLAG_LEAKED);
    Route c = ospf(f, f.p[2], RTP_FLAG_CONNECTED), g1 = hostSelf(f, RTM_PROTO_OSPF), g2 = hostSelf(f, RTM_PROTO_RIP);
    leak.srcVrf(7);
    for (auto [cid, x] : std::initializer_list<Step>{{kOspf, &a}, {kOspf, &b}, {kRip, &r}, {kOspf, &leak},
                                                     {kOspf, &c}, {kOspf, &g1}, {kRip, &g2}})
      ASSERT_EQ(add(cid, *x), RTM_SUCCESS);
    if (f.af == RTM_IPV4UNI_AFINDEX) {
      ASSERT_EQ(add(kPos, Route().prefix("10.8.8.8", 32).proto(RTM_PROTO_POS).pref(0).nh("0.0.0.0", 21)), RTM_SUCCESS);
    }
  }
  static uint64_t ver(rt_head *h) { return h ? rtmh_version(h) : 0; }
  static uint64_t varInUse() {
    QorMemVarStats s;
    return qorMemVarStatsGet(RTM_MEM_VAR_PART, &s) == 0 ? s.inUse : 0;
  }
};

TEST_F(Clearing, ClientsLeaveEveryTreeAndTheWalkersSeeIt) {
  for (const Fam &f : kFams) {
    SCOPED_TRACE(int(f.af));
    clients(f.af);
    fill(f);
    qor_radix_tree *con = rtmConRibGetTree(f.af, 0), *gbc = rtmGbcRibGetTree(f.af, 0);
    rt_head *alone = head(f.p[0], f.plen, f.af), *shared = head(f.p[1], f.plen, f.af);
    rt_head *conHead = head(f.p[2], f.plen, f.af, con);
    const uint64_t v[3] = {ver(alone), ver(shared), ver(conHead)}, gbcVersion = gbc->rdx_version;
    rtmClearVrfProtoRoutes(f.af, &rt_client_tbl[f.af][kOspf], 0);
    // The heads stay: a withdrawn prefix must still reach the consumers.
    EXPECT_EQ(head(f.p[0], f.plen, f.af), alone);
    EXPECT_EQ(alone->rtmh_rte, nullptr);
    ASSERT_EQ(entries(shared).size(), 1u);  // the leaked copy went too
    EXPECT_EQ(shared->rtmh_rte->rte_cid, kRip);
    EXPECT_EQ(entries(conHead).size(), 0u);
    EXPECT_GT(ver(alone), v[0]);
    EXPECT_GT(ver(shared), v[1]);
    EXPECT_GT(ver(conHead), v[2]);
    auto *gh = reinterpret_cast<rt_gbc_head *>(head(f.host, rtmAfKeyBits(f.af), f.af, gbc));
    ASSERT_NE(gh, nullptr);
    EXPECT_EQ(gh->gbc_proto[RTM_PROTO_OSPF], 0);
    EXPECT_EQ(gh->gbc_proto[RTM_PROTO_RIP], 1);
    EXPECT_EQ(gbc->rdx_version, gbcVersion);
    EXPECT_EQ(rvi(kOspf, f.af)->rvi_active + rvi(kOspf, f.af)->rvi_inactive, 0u);
    EXPECT_EQ(rvi(kRip, f.af)->rvi_active, 1u);
    EXPECT_EQ(refs(f.nh1, 5, 0, f.af), 0);
    EXPECT_EQ(refs(f.nh2, 6, 0, f.af), 1);
    // Deregistration clears the same way, the unnumbered routes of the POS client included. A
    // GBC head without marks stays until a delete or a clear of the RIB.
    for (uint32_t cid : {kPos, kRip}) ASSERT_EQ(rtmDeregisterClientCid(f.af, cid, 0), RTM_SUCCESS);
    EXPECT_EQ(rt_client_tbl[f.af][kRip].rtc_state, RTC_STATE_FREE);
    EXPECT_NE(head(f.host, rtmAfKeyBits(f.af), f.af, gbc), nullptr);
    EXPECT_EQ(rtmNhCount(0, f.af), 0u);  // the unnumbered host's own next hop included
  }
  // A connected route at the default is not the client's to lose in a clear.
  const Fam &f = kFams[0];
  ASSERT_EQ(add(kOspf, ospf(f, "0.0.0.0", RTP_FLAG_CONNECTED).prefix("0.0.0.0", 0)), RTM_SUCCESS);
  rtmClearVrfProtoRoutes(f.af, &rt_client_tbl[f.af][kOspf], 0);
  EXPECT_EQ(entries(head("0.0.0.0", 0, 0, rtmConRibGetTree(0, 0))).size(), 1u);
}

TEST_F(Clearing, ClientsWithoutUnicastRoutesAreLeftAlone) {
  const Fam &f = kFams[0];
  for (uint32_t proto : {RTM_PROTO_MPLS, RTM_PROTO_PIM, RTM_PROTO_TNLMGR, RTM_PROTO_FIB}) {
    SCOPED_TRACE(proto);
    client(kOther, proto);
    Route r = ospf(f, f.p[3]).proto(proto);
    ASSERT_EQ(add(kOther, r), RTM_SUCCESS);
    const uint64_t v = ver(head(f.p[3], f.plen));
    rtmClearVrfProtoRoutes(f.af, &rt_client_tbl[f.af][kOther], 0);
    rtmClearAllProtoRoutes(f.af, &rt_client_tbl[f.af][kOther]);
    EXPECT_EQ(entries(head(f.p[3], f.plen)).size(), 1u);
    EXPECT_EQ(ver(head(f.p[3], f.plen)), v);
    ASSERT_EQ(del(kOther, r), RTM_SUCCESS);
  }
  rtmClearVrfProtoRoutes(f.af, nullptr, 0);
  rtmClearAllProtoRoutes(f.af, nullptr);
}

TEST_F(Clearing, ClearRibEmptiesTheTreesAndGivesEverythingBack) {
  const uint32_t headPool[3] = {RTM_MAIN_RIB_HEAD_POOL, 0, RTM6_MAIN_RIB_HEAD_POOL};
  const uint32_t gbcPool[3] = {RTM_GBC_RIB_HEAD_POOL, 0, RTM6_GBC_RIB_HEAD_POOL};
  for (const Fam &f : kFams) {
    SCOPED_TRACE(int(f.af));
    clients(f.af);
    qor_radix_tree *main = rtmRibGetTree(f.af, 0), *con = rtmConRibGetTree(f.af, 0), *gbc = rtmGbcRibGetTree(f.af, 0);
    const uint64_t gbc0 = inUse(gbcPool[f.af]), var0 = varInUse();
    qor_radical_walker *w = &rvi(kOspf, f.af)->rvi_walker;
    qorRadicalWalkConstructor(main, w);
    fill(f);
    Route gone = rip(f, f.p[3]);
    ASSERT_EQ(add(kRip, gone), RTM_SUCCESS);
    ASSERT_EQ(del(kRip, gone), RTM_SUCCESS);  // a tombstone
    EXPECT_EQ(refs(f.nh2, 6, 0, f.af), 1) << "the delete gave its reference back";
    // One head of the main tree, with its entries and their references.
    rtmClearRibRouteSpecific(f.af, 0, rtmh_prefix(head(f.p[0], f.plen, f.af)), uint8_t(f.plen));
    EXPECT_EQ(head(f.p[0], f.plen, f.af), nullptr);
    EXPECT_EQ(refs(f.nh1, 5, 0, f.af), 3);
    const uint64_t mainVersion = main->rdx_version, conVersion = con->rdx_version;
    // The route path may keep a head ready for itself: count the heads of the trees instead.
    const uint64_t heads = inUse(headPool[f.af]) - main->rdx_heads - con->rdx_heads;
    rtmClearRib(f.af, 0);

    for (qor_radix_tree *t : {main, con, gbc}) EXPECT_EQ(t->rdx_heads, 0u) << t->rdx_name;
    EXPECT_EQ(main->rdx_version, mainVersion);
    EXPECT_EQ(con->rdx_version, conVersion);
    EXPECT_EQ(inUse(headPool[f.af]), heads);
    EXPECT_EQ(inUse(gbcPool[f.af]), gbc0);
    EXPECT_EQ(varInUse(), var0);
    EXPECT_EQ(rtmNhCount(0, f.af), 0u);
    // A walker made before the clear goes on with what comes after it.
    ASSERT_EQ(add(kOspf, ospf(f, f.p[3])), RTM_SUCCESS);
    EXPECT_EQ(qorRadicalNextVersion(main, w), ver(head(f.p[3], f.plen, f.af)));
    qorRadicalWalkDestructor(main, w);
    rtmClearRib(f.af, 0);
  }
}

TEST_F(Clearing, ALeavingClientsHolderBitsInEveryVrf) {
  g_rtmVrfInUse[kVrf] = 1;
  ASSERT_EQ(rtmVrfCacheAllocate(kVrf), 0);
  ASSERT_EQ(rtmRibRtInetAllocate(kVrf), 0);
  ASSERT_EQ(rtmRibCreate(kVrf, "inet.5", "inet.5c", "inet.5p", "inet.5g", "inet.5m", "inet.5s"), 0);
  ASSERT_EQ(rtmNhInit(kVrf), 0);
  const Fam &f = kFams[0];
  rt_client *o = client(kOspf, RTM_PROTO_OSPF, f.af, kVrf);
  rt_client *holder = client(kHolder, RTM_PROTO_FIB, f.af, ALL_VRF_ID);
  struct Case {
    const char *what;
    uint32_t vrf;
    bool withRoute, otherHolder;
    bool moves;  // the head goes on the change list again, for a walker to free it
    bool offList = false;  // linked in the tree without a version: only the tree's order finds it
  } cases[] = {
      {"withdrawn, held by the leaving client alone", 0, false, false, true},
      {"withdrawn, held by another client too", 0, false, true, false},
      {"with a route", 0, true, false, false},
      {"withdrawn in another VRF", kVrf, false, false, true},
      {"a head the change list does not hold", 0, false, false, true, true},
  };
  std::vector<rt_head *> h;
  std::vector<uint64_t> v;  // versions before the clear
  for (size_t i = 0; i < std::size(cases); ++i) {
    o->rtc_vrfId = cases[i].vrf;
    const char *prefix = cases[i].offList ? "10.5.0.0" : f.p[i];
    Route r = ospf(f, prefix).vrf(cases[i].vrf);
    qor_radix_tree *tree = rtmRibGetTree(f.af, cases[i].vrf);
    if (cases[i].offList) {
      rt_head *naked = rtmHeadAlloc(f.af, rtpPrefix(r.p(), f.af), f.plen);
      ASSERT_NE(naked, nullptr);
      ASSERT_NE(qorRadixInsert(tree, &naked->rtmh_rdx, f.plen), nullptr);
    } else {
      ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
      if (!cases[i].withRoute) {
        ASSERT_EQ(del(kOspf, r), RTM_SUCCESS);
      }
    }
    h.push_back(head(prefix, f.plen, f.af, tree));
    v.push_back(ver(h[i]));
    h[i]->rtmh_redlist[kHolder >> 3] |= 1u << (kHolder & 7);
    if (cases[i].otherHolder) h[i]->rtmh_redlist[kRip >> 3] |= 1u << (kRip & 7);
  }
  rtmClearDownloadBit(f.af, holder);
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].what);
    EXPECT_EQ(h[i]->rtmh_redlist[kHolder >> 3] & (1u << (kHolder & 7)), 0u);
    EXPECT_EQ((h[i]->rtmh_redlist[kRip >> 3] & (1u << (kRip & 7))) != 0, cases[i].otherHolder);
    EXPECT_EQ(ver(h[i]) > v[i], cases[i].moves);
  }
}

TEST_F(Clearing, InterfaceOfTheConnectedRouteForNeighbourRequests) {
  client(kConn, RTM_PROTO_CONNECTED);
  client(kOspf, RTM_PROTO_OSPF);
  auto conn = [](const char *p, unsigned plen, uint32_t ifindex, uint32_t subtype = 0) {
    return Route().prefix(p, plen).proto(RTM_PROTO_CONNECTED).subtype(subtype).pref(0).nh("0.0.0.0", ifindex);
  };
  Route net = conn("10.0.0.0", 8, 7), internal = conn("10.1.0.0", 16, 8, RT_INTERNAL), gone = conn("10.3.0.0", 16, 9);
  for (Route *r : {&net, &internal, &gone}) ASSERT_EQ(add(kConn, *r), RTM_SUCCESS);
  ASSERT_EQ(add(kOspf, ospf(kFams[0], "10.2.0.0")), RTM_SUCCESS);
  ASSERT_EQ(del(kConn, gone), RTM_SUCCESS);
  struct Case {
    const char *addr;
    uint32_t vrf, ifindex;
  } cases[] = {
      {"10.9.9.9", 0, 7},     // covered by a connected route
      {"10.1.1.1", 0, 0},     // an internal connected route does not count
      {"10.2.2.2", 0, 0},     // a route of another protocol
      {"10.3.3.3", 0, 7},     // a withdrawn prefix does not hide the one that covers it
      {"11.1.1.1", 0, 0},     // no route
      {"10.9.9.9", kVrf, 0},  // a VRF without tables
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.addr);
    uint8_t a[4];
    ASSERT_EQ(rtmAF_AddrParse(0, c.addr, a), 0);
    EXPECT_EQ(rtmNhHooks.rtmGetConnectedRouteIfindex(0, a, c.vrf), c.ifindex);
  }
}

}  // namespace
