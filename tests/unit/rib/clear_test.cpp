// Clearing routes: one client's routes out of every tree (with the walkers told), a whole VRF's
// trees torn down (without them), holder bits of a leaving client, and the pre-ARP look-up.
#include "tests/unit/rib/rib_test_util.h"

using namespace ribtest;

namespace {

constexpr uint32_t kOspf = 3, kRip = 5, kPos = 8, kConn = 9, kBgp = 11, kOther = 12, kHolder = 20;
constexpr uint32_t kVrf = 5;

// Addresses of one family, so that each case runs for IPv4 and IPv6 alike.
using Step = std::pair<uint32_t, Route *>;  // a client and one of its routes

struct Fam {
  uint8_t af;
  const char *p[4];   // four /16 (or /48) prefixes
  unsigned plen;
  const char *host;   // a host route that names itself
  const char *nh1, *nh2;
};
const Fam kFams[] = {
    {RTM_IPV4UNI_AFINDEX, {"10.1.0.0", "10.2.0.0", "10.3.0.0", "10.4.0.0"}, 16, "10.9.9.9", "192.168.1.1", "192.168.2.1"},
    {RTM_IPV6UNI_AFINDEX,
     {"2001:db8:1::", "2001:db8:2::", "2001:db8:3::", "2001:db8:4::"},
     48,
     "2001:db8:9::9",
     "fe80::1",
     "fe80::2"},
};

class Clearing : public RibTest {
 protected:
  void clients(uint8_t af) {
    client(kOspf, RTM_PROTO_OSPF, af);
    client(kRip, RTM_PROTO_RIP, af);
    client(kConn, RTM_PROTO_CONNECTED, af);
  }
  static Route ospf(const Fam &f, const char *p, unsigned plen = 0) {
    Route r(f.af);
    r.prefix(p, plen ? plen : f.plen).proto(RTM_PROTO_OSPF).subtype(RT_OSPF_INTRA).pref(110).nh(f.nh1, 5);
    return r;
  }
  static Route rip(const Fam &f, const char *p) {
    Route r(f.af);
    r.prefix(p, f.plen).proto(RTM_PROTO_RIP).pref(120).nh(f.nh2, 6);
    return r;
  }
  static Route hostSelf(const Fam &f, uint32_t proto) {
    Route r(f.af);
    r.prefix(f.host, rtmAfKeyBits(f.af)).proto(proto).pref(110).nh(f.host);
    return r;
  }
  // A VRF with its tables, as the VRF code makes one.
  void makeVrf(uint32_t v) {
    g_rtmVrfInUse[v] = 1;
    ASSERT_EQ(rtmVrfCacheAllocate(v), 0);
    ASSERT_EQ(rtmRibRtInetAllocate(v), 0);
    ASSERT_EQ(rtmRibCreate(v, "inet.5", "inet.5c", "inet.5p", "inet.5g", "inet.5m", "inet.5s"), 0);
    ASSERT_EQ(rtmNhInit(v), 0);
  }
  static uint64_t ver(rt_head *h) { return h ? rtmh_version(h) : 0; }
  static uint64_t poolInUse(uint32_t pool) {
    QorMemPoolStats s;
    return qorMemPoolStatsGet(pool, &s) == 0 ? s.inUse : 0;
  }
  static uint64_t varInUse() {
    QorMemVarStats s;
    return qorMemVarStatsGet(RTM_MEM_VAR_PART, &s) == 0 ? s.inUse : 0;
  }
  static void setBit(rt_head *h, uint32_t cid) { h->rtmh_redlist[cid >> 3] |= uint8_t(1u << (cid & 7)); }
  static bool hasBit(const rt_head *h, uint32_t cid) { return h->rtmh_redlist[cid >> 3] & (1u << (cid & 7)); }
};

TEST_F(Clearing, OneClientLeavesEveryTreeAndTheWalkersSeeIt) {
  for (const Fam &f : kFams) {
    SCOPED_TRACE(int(f.af));
    clients(f.af);
    Route alone = ospf(f, f.p[0]), shared = ospf(f, f.p[1]), other = rip(f, f.p[1]), con = ospf(f, f.p[2]);
    con.flags(RTP_FLAG_CONNECTED);
    Route gbcOspf = hostSelf(f, RTM_PROTO_OSPF), gbcRip = hostSelf(f, RTM_PROTO_RIP);
    for (auto [cid, r] : std::initializer_list<Step>{{kOspf, &alone}, {kOspf, &shared}, {kRip, &other}, {kOspf, &con},
                                                   {kOspf, &gbcOspf}, {kRip, &gbcRip}})
      ASSERT_EQ(add(cid, *r), RTM_SUCCESS);
    qor_radix_tree *conTree = rtmConRibGetTree(f.af, 0), *gbc = rtmGbcRibGetTree(f.af, 0);
    rt_head *hAlone = head(f.p[0], f.plen, f.af), *hShared = head(f.p[1], f.plen, f.af);
    rt_head *hCon = head(f.p[2], f.plen, f.af, conTree);
    uint64_t vAlone = ver(hAlone), vShared = ver(hShared), vCon = ver(hCon);
    uint64_t gbcVersion = gbc->rdx_version;
    ASSERT_EQ(refs(f.nh1, 5, 0, f.af), 3);

    rtmClearVrfProtoRoutes(f.af, &rt_client_tbl[f.af][kOspf], 0);

    // The heads stay: a withdrawn prefix must still reach the consumers.
    EXPECT_EQ(head(f.p[0], f.plen, f.af), hAlone);
    EXPECT_EQ(hAlone->rtmh_rte, nullptr);
    EXPECT_GT(ver(hAlone), vAlone);
    ASSERT_EQ(entries(hShared).size(), 1u);
    EXPECT_EQ(hShared->rtmh_rte->rte_cid, kRip);
    EXPECT_GT(ver(hShared), vShared);
    EXPECT_EQ(entries(hCon).size(), 0u);
    EXPECT_GT(ver(hCon), vCon);
    auto *gh = reinterpret_cast<rt_gbc_head *>(head(f.host, rtmAfKeyBits(f.af), f.af, gbc));
    ASSERT_NE(gh, nullptr);
    EXPECT_EQ(gh->gbc_proto[RTM_PROTO_OSPF], 0);
    EXPECT_EQ(gh->gbc_proto[RTM_PROTO_RIP], 1);
    EXPECT_EQ(gbc->rdx_version, gbcVersion);
    // Counters and references follow.
    EXPECT_EQ(rvi(kOspf, f.af)->rvi_active + rvi(kOspf, f.af)->rvi_inactive, 0u);
    EXPECT_EQ(rvi(kRip, f.af)->rvi_active, 1u);
    EXPECT_EQ(rvi(kRip, f.af)->rvi_inactive, 0u);
    EXPECT_EQ(refs(f.nh1, 5, 0, f.af), 0);
    EXPECT_EQ(refs(f.nh2, 6, 0, f.af), 1);
    // Even with no mark left a GBC head stays until a delete or a clear of the RIB.
    rtmClearVrfProtoRoutes(f.af, &rt_client_tbl[f.af][kRip], 0);
    EXPECT_NE(head(f.host, rtmAfKeyBits(f.af), f.af, gbc), nullptr);
    EXPECT_EQ(refs(f.nh2, 6, 0, f.af), 0);
  }
}

TEST_F(Clearing, ClientsWithoutUnicastRoutesAreLeftAlone) {
  struct Case {
    const char *what;
    uint32_t proto;
  } cases[] = {{"MPLS", RTM_PROTO_MPLS}, {"PIM", RTM_PROTO_PIM}, {"tunnel manager", RTM_PROTO_TNLMGR},
               {"FIB agent", RTM_PROTO_FIB}};
  const Fam &f = kFams[0];
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    client(kOther, c.proto);
    Route r = ospf(f, f.p[3]);
    r.proto(c.proto);
    ASSERT_EQ(add(kOther, r), RTM_SUCCESS);
    rt_head *h = head(f.p[3], f.plen);
    uint64_t v = ver(h);
    rtmClearVrfProtoRoutes(f.af, &rt_client_tbl[f.af][kOther], 0);
    rtmClearAllProtoRoutes(f.af, &rt_client_tbl[f.af][kOther]);
    ASSERT_EQ(entries(h).size(), 1u);
    EXPECT_EQ(ver(h), v);
    ASSERT_EQ(del(kOther, r), RTM_SUCCESS);
  }
  rtmClearVrfProtoRoutes(f.af, nullptr, 0);  // nothing to do, nothing to crash on
  rtmClearAllProtoRoutes(f.af, nullptr);
}

TEST_F(Clearing, LeakedCopiesGoWithTheLocalRoute) {
  const Fam &f = kFams[0];
  clients(f.af);
  Route local = ospf(f, f.p[0]), leaked = ospf(f, f.p[0]);
  leaked.srcVrf(7).flags(RTP_FLAG_LEAKED);
  ASSERT_EQ(add(kOspf, local), RTM_SUCCESS);
  ASSERT_EQ(add(kOspf, leaked), RTM_SUCCESS);
  rt_head *h = head(f.p[0], f.plen);
  ASSERT_EQ(entries(h).size(), 2u);
  rtmClearVrfProtoRoutes(f.af, &rt_client_tbl[f.af][kOspf], 0);
  EXPECT_EQ(entries(h).size(), 0u);
  EXPECT_EQ(refs(f.nh1, 5), 0);
}

TEST_F(Clearing, ConnectedRouteAtTheDefaultIsNotCleared) {
  const Fam &f = kFams[0];
  clients(f.af);
  Route def = ospf(f, "0.0.0.0", 0), net = ospf(f, "10.0.0.0", 8);
  rtpSetPrefixLen(def.p(), 0);
  def.flags(RTP_FLAG_CONNECTED);
  net.flags(RTP_FLAG_CONNECTED);
  ASSERT_EQ(add(kOspf, def), RTM_SUCCESS);
  ASSERT_EQ(add(kOspf, net), RTM_SUCCESS);
  qor_radix_tree *con = rtmConRibGetTree(0, 0);
  rtmClearVrfProtoRoutes(f.af, &rt_client_tbl[f.af][kOspf], 0);
  EXPECT_EQ(entries(head("0.0.0.0", 0, 0, con)).size(), 1u);
  EXPECT_EQ(entries(head("10.0.0.0", 8, 0, con)).size(), 0u);
}

TEST_F(Clearing, EveryVrfOfAClientIsCleared) {
  makeVrf(kVrf);
  const Fam &f = kFams[0];
  rt_client *bgp = client(kBgp, RTM_PROTO_BGP, f.af, ALL_VRF_ID);
  rtmClientVrfInit(bgp, kVrf);
  client(kRip, RTM_PROTO_RIP, f.af);
  for (uint32_t v : {0u, kVrf}) {
    Route r(f.af);
    r.prefix(f.p[0], f.plen).proto(RTM_PROTO_BGP).subtype(RT_BGP_EXTERNAL).pref(20).vrf(v).nh(f.nh1, 5, v);
    ASSERT_EQ(add(kBgp, r), RTM_SUCCESS);
  }
  ASSERT_EQ(entries(head(f.p[0], f.plen, f.af, rtmRibGetTree(f.af, kVrf))).size(), 1u);
  rtmClearAllProtoRoutes(f.af, bgp);
  for (uint32_t v : {0u, kVrf}) {
    SCOPED_TRACE(v);
    EXPECT_EQ(entries(head(f.p[0], f.plen, f.af, rtmRibGetTree(f.af, v))).size(), 0u);
    EXPECT_EQ(refs(f.nh1, 5, v), 0);
  }
}

// A protocol client that deregisters, or whose process is gone, leaves nothing behind.
TEST_F(Clearing, DeregistrationRemovesTheRoutesAndReleasesTheirNextHops) {
  for (const Fam &f : kFams) {
    SCOPED_TRACE(int(f.af));
    clients(f.af);
    Route a = ospf(f, f.p[0]), b = ospf(f, f.p[1]), c = ospf(f, f.p[2]), r = rip(f, f.p[1]);
    b.nh(f.nh2, 7);
    c.flags(RTP_FLAG_CONNECTED);
    Route g = hostSelf(f, RTM_PROTO_OSPF);
    for (Route *x : {&a, &b, &c, &g}) ASSERT_EQ(add(kOspf, *x), RTM_SUCCESS);
    ASSERT_EQ(add(kRip, r), RTM_SUCCESS);
    rt_head *hb = head(f.p[1], f.plen, f.af);
    ASSERT_EQ(hb->rtmh_rte->rte_cid, kOspf);

    ASSERT_EQ(rtmDeregisterClientCid(f.af, kOspf, 0), RTM_SUCCESS);

    EXPECT_EQ(rt_client_tbl[f.af][kOspf].rtc_state, RTC_STATE_FREE);
    EXPECT_EQ(head(f.p[0], f.plen, f.af)->rtmh_rte, nullptr);
    ASSERT_EQ(entries(hb).size(), 1u);
    EXPECT_EQ(hb->rtmh_rte->rte_cid, kRip);  // the other protocol's route takes over
    EXPECT_EQ(rvi(kRip, f.af)->rvi_active, 1u);
    EXPECT_EQ(entries(head(f.p[2], f.plen, f.af, rtmConRibGetTree(f.af, 0))).size(), 0u);
    EXPECT_EQ(refs(f.nh1, 5, 0, f.af), 0);
    EXPECT_EQ(refs(f.nh2, 7, 0, f.af), 0);
    EXPECT_EQ(refs(f.nh2, 6, 0, f.af), 1);
    ASSERT_EQ(rtmDeregisterClientCid(f.af, kRip, 0), RTM_SUCCESS);
    EXPECT_EQ(rtmNhCount(0, f.af), 0u);
  }
}

TEST_F(Clearing, UnnumberedRoutesGiveBackTheHostsOwnNextHop) {
  client(kPos, RTM_PROTO_POS);
  client(kConn, RTM_PROTO_CONNECTED);
  for (uint32_t ifindex : {21u, 22u}) {
    Route r;
    r.prefix("10.8.8.8", 32).proto(RTM_PROTO_POS).pref(0).nh("0.0.0.0", ifindex);
    ASSERT_EQ(add(kPos, r), RTM_SUCCESS);
  }
  ASSERT_EQ(refs("10.8.8.8", 0), 1);
  ASSERT_EQ(rtmDeregisterClientCid(0, kPos, 0), RTM_SUCCESS);
  EXPECT_EQ(head("10.8.8.8", 32)->rtmh_rte, nullptr);
  EXPECT_EQ(rtmNhCount(0, 0), 0u);
}

TEST_F(Clearing, ClearRibEmptiesTheTreesAndGivesEverythingBack) {
  const uint32_t headPool[3] = {RTM_MAIN_RIB_HEAD_POOL, 0, RTM6_MAIN_RIB_HEAD_POOL};
  const uint32_t gbcPool[3] = {RTM_GBC_RIB_HEAD_POOL, 0, RTM6_GBC_RIB_HEAD_POOL};
  for (const Fam &f : kFams) {
    SCOPED_TRACE(int(f.af));
    clients(f.af);
    client(kPos, RTM_PROTO_POS, f.af);
    qor_radix_tree *main = rtmRibGetTree(f.af, 0), *con = rtmConRibGetTree(f.af, 0), *gbc = rtmGbcRibGetTree(f.af, 0);
    auto fill = [&] {
      Route a = ospf(f, f.p[0]), b = ospf(f, f.p[1]), r = rip(f, f.p[1]), c = ospf(f, f.p[2]), t = ospf(f, f.p[3]);
      c.flags(RTP_FLAG_CONNECTED);
      Route g1 = hostSelf(f, RTM_PROTO_OSPF), g2 = hostSelf(f, RTM_PROTO_RIP);
      for (auto [cid, x] : std::initializer_list<Step>{{kOspf, &a}, {kOspf, &b}, {kRip, &r}, {kOspf, &c}, {kOspf, &t},
                                                     {kOspf, &g1}, {kRip, &g2}})
        ASSERT_EQ(add(cid, *x), RTM_SUCCESS);
      ASSERT_EQ(del(kOspf, t), RTM_SUCCESS);  // a tombstone
      if (f.af == RTM_IPV4UNI_AFINDEX) {
        Route u;
        u.prefix("10.8.8.8", 32).proto(RTM_PROTO_POS).pref(0).nh("0.0.0.0", 21);
        ASSERT_EQ(add(kPos, u), RTM_SUCCESS);
      }
    };
    // A first round leaves whatever the route path keeps ready for itself.
    fill();
    rtmClearRib(f.af, 0);
    const uint64_t heads0 = poolInUse(headPool[f.af]), gbc0 = poolInUse(gbcPool[f.af]), var0 = varInUse();
    qorRadicalWalkConstructor(main, &rvi(kOspf, f.af)->rvi_walker);

    fill();
    ASSERT_GE(main->rdx_heads, 3u);
    ASSERT_GT(poolInUse(headPool[f.af]), heads0);
    const uint64_t mainVersion = main->rdx_version, conVersion = con->rdx_version;
    rtmClearRib(f.af, 0);

    for (qor_radix_tree *t : {main, con, gbc}) EXPECT_EQ(t->rdx_heads, 0u) << t->rdx_name;
    EXPECT_EQ(main->rdx_version, mainVersion);
    EXPECT_EQ(con->rdx_version, conVersion);
    EXPECT_EQ(poolInUse(headPool[f.af]), heads0);
    EXPECT_EQ(poolInUse(gbcPool[f.af]), gbc0);
    EXPECT_EQ(varInUse(), var0);
    EXPECT_EQ(rtmNhCount(0, f.af), 0u);
    // A walker made before the clear goes on with what comes after it.
    Route n = ospf(f, f.p[3]);
    ASSERT_EQ(add(kOspf, n), RTM_SUCCESS);
    EXPECT_EQ(qorRadicalNextVersion(main, &rvi(kOspf, f.af)->rvi_walker), ver(head(f.p[3], f.plen, f.af)));
    qorRadicalWalkDestructor(main, &rvi(kOspf, f.af)->rvi_walker);
    rtmClearRib(f.af, 0);
  }
}

TEST_F(Clearing, OneHeadOfTheMainTree) {
  const Fam &f = kFams[0];
  clients(f.af);
  Route a = ospf(f, f.p[0]), b = rip(f, f.p[0]), c = rip(f, f.p[1]);
  for (auto [cid, x] : std::initializer_list<Step>{{kOspf, &a}, {kRip, &b}, {kRip, &c}}) ASSERT_EQ(add(cid, *x), RTM_SUCCESS);
  uint8_t key[4] = {10, 1, 0, 0}, missing[4] = {10, 7, 0, 0};
  rtmClearRibRouteSpecific(f.af, 0, missing, 16);
  rtmClearRibRouteSpecific(f.af, kVrf, key, 16);  // a VRF without tables
  EXPECT_EQ(tree()->rdx_heads, 2u);
  rtmClearRibRouteSpecific(f.af, 0, key, 16);
  EXPECT_EQ(head(f.p[0], f.plen), nullptr);
  EXPECT_NE(head(f.p[1], f.plen), nullptr);
  EXPECT_EQ(refs(f.nh1, 5), 0);
  EXPECT_EQ(refs(f.nh2, 6), 1);
}

TEST_F(Clearing, LeavingClientsHolderBitsInEveryVrf) {
  makeVrf(kVrf);
  const Fam &f = kFams[0];
  clients(f.af);
  rt_client *holder = client(kHolder, RTM_PROTO_FIB, f.af, ALL_VRF_ID);
  struct Case {
    const char *what;
    const char *prefix;
    uint32_t vrf;
    bool withRoute;
    bool otherHolder;
    bool moves;  // the head goes on the change list again
  } cases[] = {
      {"withdrawn, held by the leaving client alone", f.p[0], 0, false, false, true},
      {"withdrawn, held by another client too", f.p[1], 0, false, true, false},
      {"with a route", f.p[2], 0, true, false, false},
      {"withdrawn in another VRF", f.p[3], kVrf, false, false, true},
  };
  rt_head *h[4];
  uint64_t v[4];
  for (int i = 0; i < 4; ++i) {
    const Case &c = cases[i];
    Route r = ospf(f, c.prefix);
    r.vrf(c.vrf);
    rt_client *o = &rt_client_tbl[f.af][kOspf];
    o->rtc_vrfId = c.vrf;  // a client of that VRF
    rtmClientVrfInit(o, c.vrf);
    ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
    if (!c.withRoute) ASSERT_EQ(del(kOspf, r), RTM_SUCCESS);
    h[i] = head(c.prefix, f.plen, f.af, rtmRibGetTree(f.af, c.vrf));
    setBit(h[i], kHolder);
    if (c.otherHolder) setBit(h[i], kRip);
  }
  for (int i = 0; i < 4; ++i) v[i] = ver(h[i]);
  rtmClearDownloadBit(f.af, holder);
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(cases[i].what);
    EXPECT_FALSE(hasBit(h[i], kHolder));
    EXPECT_EQ(hasBit(h[i], kRip), cases[i].otherHolder);
    EXPECT_EQ(ver(h[i]) > v[i], cases[i].moves);
  }
}

TEST_F(Clearing, InterfaceOfTheConnectedRouteForNeighbourRequests) {
  client(kConn, RTM_PROTO_CONNECTED);
  client(kOspf, RTM_PROTO_OSPF);
  auto conn = [](const char *p, unsigned plen, uint32_t ifindex, uint32_t subtype = 0) {
    Route r;
    r.prefix(p, plen).proto(RTM_PROTO_CONNECTED).subtype(subtype).pref(0).nh("0.0.0.0", ifindex);
    return r;
  };
  Route net = conn("10.0.0.0", 8, 7), internal = conn("10.1.0.0", 16, 8, RT_INTERNAL), gone = conn("10.3.0.0", 16, 9);
  Route ospf;
  ospf.prefix("10.2.0.0", 16).proto(RTM_PROTO_OSPF).pref(110).nh("192.168.1.1", 5);
  for (Route *r : {&net, &internal, &gone}) ASSERT_EQ(add(kConn, *r), RTM_SUCCESS);
  ASSERT_EQ(add(kOspf, ospf), RTM_SUCCESS);
  ASSERT_EQ(del(kConn, gone), RTM_SUCCESS);
  struct Case {
    const char *addr;
    uint32_t vrf;
    uint32_t ifindex;
  } cases[] = {
      {"10.9.9.9", 0, 7},    // covered by a connected route
      {"10.1.1.1", 0, 0},    // an internal connected route does not count
      {"10.2.2.2", 0, 0},    // a route of another protocol
      {"10.3.3.3", 0, 7},    // a withdrawn prefix does not hide the one that covers it
      {"11.1.1.1", 0, 0},    // no route
      {"10.9.9.9", kVrf, 0}, // a VRF without tables
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.addr);
    uint8_t a[4];
    ASSERT_EQ(rtmAF_AddrParse(0, c.addr, a), 0);
    EXPECT_EQ(rtmGetConnectedRouteIfindex(0, a, c.vrf), c.ifindex);
    EXPECT_EQ(rtmNhHooks.rtmGetConnectedRouteIfindex(0, a, c.vrf), c.ifindex);
  }
}

}  // namespace
