// The connected tree (one entry per client, source VRF and prefix, every change a version) and
// the GBC tree (marks per protocol, no versions), driven through their own entry points.
#include "tests/unit/rib/rib_test_util.h"

using namespace ribtest;

namespace {

constexpr uint32_t kOspf = 3, kIsis = 4, kRip = 5, kStatic = 6, kBgp = 7, kPos = 8, kConn = 9, kVrrp = 10;

struct Fam {
  uint8_t af;
  const char *prefix;
  unsigned plen;
  const char *host;
  const char *nh;
};
const Fam kFams[] = {
    {RTM_IPV4UNI_AFINDEX, "10.11.0.0", 16, "10.5.5.5", "192.168.1.1"},
    {RTM_IPV6UNI_AFINDEX, "2001:db8:11::", 48, "2001:db8::5", "fe80::1"},
};

class ConGbc : public RibTest {
 protected:
  void clients(uint8_t af) {
    client(kOspf, RTM_PROTO_OSPF, af);
    client(kIsis, RTM_PROTO_ISIS, af);
    client(kRip, RTM_PROTO_RIP, af);
    client(kStatic, RTM_PROTO_STATIC, af);
    client(kBgp, RTM_PROTO_BGP, af);
    client(kPos, RTM_PROTO_POS, af);
    client(kConn, RTM_PROTO_CONNECTED, af);
    client(kVrrp, RTM_PROTO_VRRP, af);
  }
  static Route con(const Fam &f, uint32_t proto, uint32_t subtype, uint32_t srcVrf = 0) {
    Route r(f.af);
    r.prefix(f.prefix, f.plen).proto(proto).subtype(subtype).pref(110).srcVrf(srcVrf).flags(RTP_FLAG_CONNECTED);
    r.nh(f.nh, 5);
    return r;
  }
  static Route host(const Fam &f, uint32_t proto) {
    Route r(f.af);
    r.prefix(f.host, rtmAfKeyBits(f.af)).proto(proto).pref(110).nh(f.host);
    return r;
  }
  rt_head *conHead(const Fam &f) { return head(f.prefix, f.plen, f.af, rtmConRibGetTree(f.af, 0)); }
  rt_gbc_head *gbcHead(const Fam &f) {
    return reinterpret_cast<rt_gbc_head *>(head(f.host, rtmAfKeyBits(f.af), f.af, rtmGbcRibGetTree(f.af, 0)));
  }
  // An entry built as the add path builds one, with one next hop taken.
  static rt_entry *entry(const Fam &f, uint32_t cid, uint32_t proto) {
    auto *rte = static_cast<rt_entry *>(RTM_VAR_ALLOC(RTM_MEM_TAG_RTE, uint32_t(rtmRteSize(f.af, 1, 0))));
    rte->rte_cid = uint8_t(cid);
    rte->rte_proto = uint8_t(proto);
    rte->rte_af6 = f.af == RTM_IPV6UNI_AFINDEX;
    rte->rte_nnh = 1;
    uint8_t a[16] = {};
    EXPECT_EQ(rtmAF_AddrParse(f.af, f.nh, a), 0);
    int err = 0;
    rtmRteNh(rte)[0] = rtmNhAdd(0, f.af, 5, a, &err, proto, 0);
    return rte;
  }
  static uint64_t varInUse() {
    QorMemVarStats s;
    return qorMemVarStatsGet(RTM_MEM_VAR_PART, &s) == 0 ? s.inUse : 0;
  }
};

TEST_F(ConGbc, ConnectedTreeKeepsOneEntryPerClientAndSourceVrf) {
  struct Add {
    uint32_t cid, proto, subtype, srcVrf;
  };
  struct Case {
    const char *what;
    std::vector<Add> adds;
    size_t entries;
    uint32_t ospfInactive;
  } cases[] = {
      {"the same route twice", {{kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0}, {kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0}}, 1, 1},
      {"its subtype changes", {{kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0}, {kOspf, RTM_PROTO_OSPF, RT_OSPF_E2, 0}}, 1, 1},
      {"two source VRFs", {{kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0}, {kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 7}}, 2, 2},
      {"two clients", {{kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0}, {kRip, RTM_PROTO_RIP, 0, 0}}, 2, 1},
  };
  for (const Fam &f : kFams) {
    for (const Case &c : cases) {
      SCOPED_TRACE(std::string(c.what) + (f.af ? " (IPv6)" : " (IPv4)"));
      clients(f.af);
      uint64_t last = 0;
      for (const Add &a : c.adds) {
        Route r = con(f, a.proto, a.subtype, a.srcVrf);
        ASSERT_EQ(add(a.cid, r), RTM_SUCCESS);
        ASSERT_NE(conHead(f), nullptr);
        EXPECT_GT(rtmh_version(conHead(f)), last);  // every add is news to the walkers
        last = rtmh_version(conHead(f));
      }
      std::vector<rt_entry *> e = entries(conHead(f));
      EXPECT_EQ(e.size(), c.entries);
      EXPECT_EQ(e.back()->rte_subtype, c.adds.back().subtype);
      EXPECT_EQ(rvi(kOspf, f.af)->rvi_inactive, c.ospfInactive);
      EXPECT_EQ(rvi(kOspf, f.af)->rvi_active, 0u);
      EXPECT_EQ(refs(f.nh, 5, 0, f.af), int(c.entries));
      EXPECT_EQ(head(f.prefix, f.plen, f.af), nullptr);  // never in the main tree
      rtmClearRib(f.af, 0);
      rvi(kOspf, f.af)->rvi_inactive = 0;
    }
  }
}

TEST_F(ConGbc, ConnectedTreeDeletes) {
  const Fam &f = kFams[0];
  struct Case {
    const char *what;
    uint32_t cid, proto, subtype, vrf;
    const char *prefix;
    int result;
    uint32_t event;
    const char *eventText;
    size_t entriesLeft;
  } cases[] = {
      {"ISIS goes whatever its level", kIsis, RTM_PROTO_ISIS, RT_ISIS_L2, 0, f.prefix, RTM_SUCCESS, 0, "", 1},
      {"OSPF of another subtype", kOspf, RTM_PROTO_OSPF, RT_OSPF_E2, 0, f.prefix, RTM_FAILURE, 0x14803B,
       "RTM: rtmDelRouteProtoCon:2", 2},
      {"OSPF of its subtype", kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0, f.prefix, RTM_SUCCESS, 0, "", 1},
      {"BGP is not taken here", kBgp, RTM_PROTO_BGP, RT_BGP_EXTERNAL, 0, f.prefix, RTM_SUCCESS, 0, "", 2},
      {"an unknown prefix", kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 0, "10.99.0.0", RTM_FAILURE, 0x14803B,
       "RTM: rtmDelRouteProtoCon:1", 2},
      {"a VRF without tables", kOspf, RTM_PROTO_OSPF, RT_OSPF_INTRA, 5, f.prefix, RTM_FAILURE, 0x14803F,
       "RTM: rtmDelRouteProtoCon", 2},
  };
  clients(f.af);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Route o = con(f, RTM_PROTO_OSPF, RT_OSPF_INTRA), i = con(f, RTM_PROTO_ISIS, RT_ISIS_L1);
    ASSERT_EQ(add(kOspf, o), RTM_SUCCESS);
    ASSERT_EQ(add(kIsis, i), RTM_SUCCESS);
    qorLogClearRecent();
    Route d = con(f, c.proto, c.subtype);
    d.prefix(c.prefix, f.plen);
    rtpSetVrfId(d.p(), c.vrf);
    EXPECT_EQ(rtmDelRouteProtoCon(f.af, c.cid, d.p()), c.result);
    if (c.event) {
      ASSERT_EQ(qorLogCount(c.event), 1u);
      EXPECT_EQ(qorLogLast(c.event)->text, c.eventText);
    } else {
      EXPECT_EQ(qorLogRecent().size(), 0u);
    }
    EXPECT_EQ(entries(conHead(f)).size(), c.entriesLeft);
  }
  // A head that has lost every entry takes a delete quietly.
  rtmClearVrfProtoRoutes(f.af, &rt_client_tbl[f.af][kOspf], 0);
  rtmClearVrfProtoRoutes(f.af, &rt_client_tbl[f.af][kIsis], 0);
  ASSERT_EQ(entries(conHead(f)).size(), 0u);
  qorLogClearRecent();
  Route d = con(f, RTM_PROTO_OSPF, RT_OSPF_INTRA);
  EXPECT_EQ(rtmDelRouteProtoCon(f.af, kOspf, d.p()), RTM_SUCCESS);
  EXPECT_EQ(qorLogRecent().size(), 0u);
}

// The add takes the entry over: whatever way it ends, the entry and its next hops are not lost.
TEST_F(ConGbc, ConnectedAddThatCannotPlaceTheEntryGivesItBack) {
  const Fam &f = kFams[0];
  clients(f.af);
  const uint64_t var0 = varInUse();
  struct Case {
    const char *what;
    uint32_t cid;
    uint32_t failHeads;  // allocations of the head pool that fail
    int result;
  } cases[] = {
      {"a client that is not active", 40, 0, RTM_SUCCESS},
      {"no memory for the head", kOspf, 1, RTM_NO_MEMORY},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Route r = con(f, RTM_PROTO_OSPF, RT_OSPF_INTRA);
    rt_entry *rte = entry(f, c.cid, RTM_PROTO_OSPF);
    ASSERT_EQ(refs(f.nh, 5), 1);
    qorMemFailNext(RTM_MAIN_RIB_HEAD_POOL, c.failHeads);
    EXPECT_EQ(rtmAddRouteProtoCon(f.af, c.cid, rte, r.p()), c.result);
    qorMemFailNext(RTM_MAIN_RIB_HEAD_POOL, 0);
    EXPECT_EQ(conHead(f), nullptr);
    EXPECT_EQ(refs(f.nh, 5), 0);
    EXPECT_EQ(varInUse(), var0);
  }
}

TEST_F(ConGbc, GbcHeadHoldsOneMarkPerProtocol) {
  for (const Fam &f : kFams) {
    SCOPED_TRACE(int(f.af));
    clients(f.af);
    qor_radix_tree *gbc = rtmGbcRibGetTree(f.af, 0), *main = rtmRibGetTree(f.af, 0);
    const uint64_t gbcVersion = gbc->rdx_version, mainVersion = main->rdx_version;
    Route o = host(f, RTM_PROTO_OSPF), r = host(f, RTM_PROTO_RIP);
    qorClockAdvance(30);
    ASSERT_EQ(rtmGbcAddRouteIPv4(f.af, kOspf, o.p()), RTM_SUCCESS);
    ASSERT_EQ(rtmGbcAddRouteIPv4(f.af, kRip, r.p()), RTM_SUCCESS);
    ASSERT_EQ(rtmGbcAddRouteIPv4(f.af, kRip, r.p()), RTM_SUCCESS);  // a repeat changes nothing
    rt_gbc_head *gh = gbcHead(f);
    ASSERT_NE(gh, nullptr);
    EXPECT_EQ(gh->gbc_time, qorTickGet());
    EXPECT_EQ(gh->gbc_prefixlen, rtmAfKeyBits(f.af));
    for (unsigned p = 0; p < RTM_GBC_PROTOS; ++p)
      EXPECT_EQ(gh->gbc_proto[p], p == RTM_PROTO_OSPF || p == RTM_PROTO_RIP ? 1 : 0) << p;
    ASSERT_EQ(rtmGbcDelRouteIPv4(f.af, kOspf, o.p()), RTM_SUCCESS);
    EXPECT_EQ(gbcHead(f), gh);
    ASSERT_EQ(rtmGbcDelRouteIPv4(f.af, kRip, r.p()), RTM_SUCCESS);
    EXPECT_EQ(gbcHead(f), nullptr);
    EXPECT_EQ(rtmGbcDelRouteIPv4(f.af, kRip, r.p()), RTM_SUCCESS);  // nothing there: fine
    // A memory of what the protocols said: nobody is told.
    EXPECT_EQ(gbc->rdx_version, gbcVersion);
    EXPECT_EQ(main->rdx_version, mainVersion);
  }
}

TEST_F(ConGbc, GbcAddChecks) {
  const Fam &f = kFams[0];
  clients(f.af);
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
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    qorLogClearRecent();
    if (c.cid < MAX_RTM_CLEINTS && rvi(c.cid)) rvi(c.cid)->rvi_blocked = c.blocked;
    Route r = host(f, c.proto);
    r.pref(c.pref).flags(c.flags);
    rtpSetVrfId(r.p(), c.vrf);
    EXPECT_EQ(rtmGbcAddRouteIPv4(f.af, c.cid, r.p()), c.result);
    if (c.event) EXPECT_EQ(qorLogCount(c.event), 1u);
    if (c.blocked && !c.flags) EXPECT_TRUE(qorLogSaw("rtmGbcAddRouteIPv4: Routes from client3 is blocked."));
    rt_gbc_head *gh = gbcHead(f);
    EXPECT_EQ(gh && gh->gbc_proto[c.proto], c.marked);
    // A blocked client's delete is dropped as well: the mark stays.
    if (c.marked && c.blocked) {
      Route d = host(f, c.proto);
      EXPECT_EQ(rtmGbcDelRouteIPv4(f.af, c.cid, d.p()), RTM_SUCCESS);
      EXPECT_TRUE(qorLogSaw("rtmGbcDelRouteIPv4: Routes from client3 is blocked."));
      EXPECT_NE(gbcHead(f), nullptr);
    }
    if (c.cid < MAX_RTM_CLEINTS && rvi(c.cid)) rvi(c.cid)->rvi_blocked = 0;
    rtmClearRib(f.af, 0);
  }
}

}  // namespace
