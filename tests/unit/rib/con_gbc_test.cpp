// The connected tree (one entry per client, source VRF and prefix; every change a version) and
// the GBC tree (marks per protocol; no versions), through their own entry points.
#include "tests/unit/rib/rib_test_util.h"

using namespace ribtest;

namespace {

constexpr uint32_t kOspf = 3, kIsis = 4, kRip = 5, kStatic = 6, kBgp = 7, kPos = 8, kConn = 9, kVrrp = 10;

class ConGbc : public RibTest {
 protected:
  void SetUp() override {
    RibTest::SetUp();
    for (uint8_t af : {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX})
      for (auto [cid, proto] : {std::pair{kOspf, RTM_PROTO_OSPF}, {kIsis, RTM_PROTO_ISIS}, {kRip, RTM_PROTO_RIP},
                                {kStatic, RTM_PROTO_STATIC}, {kBgp, RTM_PROTO_BGP}, {kPos, RTM_PROTO_POS},
                                {kConn, RTM_PROTO_CONNECTED}, {kVrrp, RTM_PROTO_VRRP}})
        client(cid, proto, af);
  }
  static Route con(uint8_t af, uint32_t proto, uint32_t subtype, uint32_t srcVrf = 0) {
    return Route(af).prefix(af ? "2001:db8:11::" : "10.11.0.0", af ? 48 : 16).proto(proto).subtype(subtype).pref(110)
        .srcVrf(srcVrf).flags(RTP_FLAG_CONNECTED).nh(af ? "fe80::1" : "192.168.1.1", 5);
  }
  rt_head *conHead(uint8_t af = 0) {
    return head(af ? "2001:db8:11::" : "10.11.0.0", af ? 48 : 16, af, rtmConRibGetTree(af, 0));
  }
  static Route host(uint32_t proto) { return Route().prefix("10.5.5.5", 32).proto(proto).pref(110).nh("10.5.5.5"); }
  rt_gbc_head *gbcHead() { return reinterpret_cast<rt_gbc_head *>(head("10.5.5.5", 32, 0, rtmGbcRibGetTree(0, 0))); }
};

TEST_F(ConGbc, ConnectedTreeKeepsOneEntryPerClientAndSourceVrf) {
  struct Add {
    uint32_t cid, proto, subtype, srcVrf;
  };
  struct Case {
    const char *what;
    std::vector<Add> adds;
    size_t entries;
  } cases[] = {
      {"the same route twice", {{kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0}, {kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0}}, 1},
      {"its subtype changes", {{kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0}, {kOspf, RTM_PROTO_OSPF, RT_OSPF_E2, 0}}, 1},
      {"two source VRFs", {{kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0}, {kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 7}}, 2},
      {"two clients", {{kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0}, {kRip, RTM_PROTO_RIP, 0, 0}}, 2},
  };
  for (uint8_t af : {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX})
    for (const Case &c : cases) {
      SCOPED_TRACE(std::string(c.what) + (af ? " (IPv6)" : " (IPv4)"));
      uint64_t last = 0;
      for (const Add &a : c.adds) {
        Route r = con(af, a.proto, a.subtype, a.srcVrf);
        ASSERT_EQ(add(a.cid, r), RTM_SUCCESS);
        EXPECT_GT(rtmh_version(conHead(af)), last);  // every add is news to the walkers
        last = rtmh_version(conHead(af));
      }
      std::vector<rt_entry *> e = entries(conHead(af));
      EXPECT_EQ(e.size(), c.entries);
      EXPECT_EQ(e.back()->rte_subtype, c.adds.back().subtype);
      EXPECT_EQ(rvi(kOspf, af)->rvi_active, 0u);  // never in the election, counted inactive
      EXPECT_GT(rvi(kOspf, af)->rvi_inactive, 0u);
      EXPECT_EQ(head(af ? "2001:db8:11::" : "10.11.0.0", af ? 48 : 16, af), nullptr) << "never in the main tree";
      EXPECT_EQ(refs(af ? "fe80::1" : "192.168.1.1", 5, 0, af), int(c.entries));
      rtmClearVrfProtoRoutes(af, &rt_client_tbl[af][kOspf], 0);
      rtmClearVrfProtoRoutes(af, &rt_client_tbl[af][kRip], 0);
      EXPECT_EQ(rvi(kOspf, af)->rvi_inactive, 0u);
    }
}

TEST_F(ConGbc, ConnectedTreeDeletes) {
  struct Case {
    const char *what;
    uint32_t cid, proto, subtype, vrf;
    const char *prefix;
    int result;
    const char *event;  // text of the event expected, or null
    size_t entriesLeft;
  } cases[] = {
      {"ISIS goes whatever its level", kIsis, RTM_PROTO_ISIS, RT_ISIS_L2, 0, "10.11.0.0", RTM_SUCCESS, nullptr, 1},
      {"OSPF of another subtype", kOspf, RTM_PROTO_OSPF, RT_OSPF_E2, 0, "10.11.0.0", RTM_FAILURE,
       "RTM: rtmDelRouteProtoCon:2", 2},
      {"OSPF of its subtype", kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0, "10.11.0.0", RTM_SUCCESS, nullptr, 1},
      {"BGP is not taken here", kBgp, RTM_PROTO_BGP, RT_BGP_EXTERNAL, 0, "10.11.0.0", RTM_SUCCESS, nullptr, 2},
      {"an unknown prefix", kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0, "10.99.0.0", RTM_FAILURE,
       "RTM: rtmDelRouteProtoCon:1", 2},
      {"a VRF without tables", kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 5, "10.11.0.0", RTM_FAILURE,
       "RTM: rtmDelRouteProtoCon", 2},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Route o = con(0, RTM_PROTO_OSPF, RT_OSPF_INTRA), i = con(0, RTM_PROTO_ISIS, RT_ISIS_L1);
    ASSERT_EQ(add(kOspf, o), RTM_SUCCESS);
    ASSERT_EQ(add(kIsis, i), RTM_SUCCESS);
    qorLogClearRecent();
    Route d = con(0, c.proto, c.subtype).prefix(c.prefix, 16);
    rtpSetVrfId(d.p(), c.vrf);
    EXPECT_EQ(rtmDelRouteProtoCon(0, c.cid, d.p()), c.result);
    ASSERT_EQ(qorLogRecent().size(), c.event ? 1u : 0u);
    if (c.event) {
      EXPECT_EQ(qorLogRecent().back().text, c.event);
    }
    EXPECT_EQ(entries(conHead()).size(), c.entriesLeft);
  }
  // A head that has lost every entry takes a delete quietly.
  Route d = con(0, RTM_PROTO_OSPF, RT_OSPF_INTRA), i = con(0, RTM_PROTO_ISIS, 255);
  ASSERT_EQ(del(kOspf, d), RTM_SUCCESS);
  ASSERT_EQ(del(kIsis, i), RTM_SUCCESS);
  EXPECT_EQ(entries(conHead()).size(), 0u);
  EXPECT_EQ(rvi(kOspf)->rvi_inactive, 0u);
  EXPECT_EQ(refs("192.168.1.1", 5), 0);
  qorLogClearRecent();
  EXPECT_EQ(rtmDelRouteProtoCon(0, kOspf, d.p()), RTM_SUCCESS);
  EXPECT_EQ(qorLogRecent().size(), 0u);
}

// The add takes the entry over: however it ends, the entry and its next hops are given back.
TEST_F(ConGbc, ConnectedAddThatCannotPlaceTheEntryGivesItBack) {
  for (auto [cid, failHeads, result] :
       std::initializer_list<std::tuple<uint32_t, uint32_t, int>>{{40, 0, RTM_SUCCESS}, {kOspf, 1, RTM_NO_MEMORY}}) {
    SCOPED_TRACE(cid);
    Route r = con(0, RTM_PROTO_OSPF, RT_OSPF_INTRA);
    auto *rte = static_cast<rt_entry *>(RTM_VAR_ALLOC(RTM_MEM_TAG_RTE, uint32_t(rtmRteSize(0, 1, 0))));
    rte->rte_cid = uint8_t(cid);
    rte->rte_nnh = 1;
    int err = 0;
    rtmRteNh(rte)[0] = rtmNhAdd(0, 0, 5, rtpNh(r.p(), 0, 0), &err, RTM_PROTO_OSPF, 0);
    qorMemFailNext(RTM_MAIN_RIB_HEAD_POOL, failHeads);
    EXPECT_EQ(rtmAddRouteProtoCon(0, cid, rte, r.p()), result);
    qorMemFailNext(RTM_MAIN_RIB_HEAD_POOL, 0);
    EXPECT_EQ(conHead(), nullptr);
    EXPECT_EQ(refs("192.168.1.1", 5), 0);  // and ASan sees whether the entry was freed
  }
}

TEST_F(ConGbc, GbcMarks) {
  struct Case {
    const char *what;
    uint32_t cid, proto;
    uint16_t pref;
    uint32_t vrf, flags;
    bool blocked;
    int result;
    uint32_t event;
    bool marked;
  } cases[] = {
      {"a client of another protocol", kRip, RTM_PROTO_OSPF, 110, 0, 0, false, RTM_FAILURE, 0x148017, false},
      {"an unknown client", 40, RTM_PROTO_OSPF, 110, 0, 0, false, RTM_FAILURE, 0x148018, false},
      {"a VRF without tables", kOspf, RTM_PROTO_OSPF, 110, 5, 0, false, RTM_FAILURE, 0x14803F, false},
      {"preference 0 from OSPF", kOspf, RTM_PROTO_OSPF, 0, 0, 0, false, RTM_FAILURE, 0x148046, false},
      {"preference 0 from a static route", kStatic, RTM_PROTO_STATIC, 0, 0, 0, false, RTM_SUCCESS, 0, true},
      {"preference 0 from a connected route", kConn, RTM_PROTO_CONNECTED, 0, 0, 0, false, RTM_SUCCESS, 0, true},
      {"preference 0 from an unnumbered route", kPos, RTM_PROTO_POS, 0, 0, 0, false, RTM_SUCCESS, 0, true},
      {"preference 0 from VRRP", kVrrp, RTM_PROTO_VRRP, 0, 0, 0, false, RTM_SUCCESS, 0, true},
      {"a blocked client", kOspf, RTM_PROTO_OSPF, 110, 0, 0, true, RTM_SUCCESS, 0, false},
      {"a blocked client's leaked route", kOspf, RTM_PROTO_OSPF, 110, 0, RTP_FLAG_LEAKED, true, RTM_SUCCESS, 0, true},
  };
  const uint64_t mainVersion = tree()->rdx_version, gbcVersion = rtmGbcRibGetTree(0, 0)->rdx_version;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    qorLogClearRecent();
    if (rvi(c.cid)) rvi(c.cid)->rvi_blocked = c.blocked;
    Route r = host(c.proto).pref(c.pref).flags(c.flags);
    rtpSetVrfId(r.p(), c.vrf);
    EXPECT_EQ(rtmGbcAddRouteIPv4(0, c.cid, r.p()), c.result);
    EXPECT_EQ(qorLogCount(c.event), c.event ? 1u : 0u);
    EXPECT_EQ(qorLogSaw("rtmGbcAddRouteIPv4: Routes from client3 is blocked."), c.blocked && !c.flags);
    rt_gbc_head *gh = gbcHead();
    ASSERT_EQ(gh && gh->gbc_proto[c.proto], c.marked);
    // A second protocol's mark keeps the head when the first goes; a blocked delete is dropped.
    Route o = host(RTM_PROTO_RIP), d = host(c.proto);
    if (c.marked) {
      ASSERT_EQ(rtmGbcAddRouteIPv4(0, kRip, o.p()), RTM_SUCCESS);
      EXPECT_EQ(rtmGbcDelRouteIPv4(0, c.cid, d.p()), RTM_SUCCESS);
      EXPECT_EQ(gbcHead()->gbc_proto[c.proto], c.blocked ? 1 : 0);
    }
    if (rvi(c.cid)) rvi(c.cid)->rvi_blocked = 0;
    if (c.marked) {
      EXPECT_EQ(rtmGbcDelRouteIPv4(0, kRip, o.p()), RTM_SUCCESS);
    }
    EXPECT_EQ(gbcHead() != nullptr, c.marked && c.blocked);
    rtmClearRib(0, 0);
  }
  // A memory of what the protocols said: nobody is told.
  EXPECT_EQ(tree()->rdx_version, mainVersion);
  EXPECT_EQ(rtmGbcRibGetTree(0, 0)->rdx_version, gbcVersion);
}

}  // namespace
