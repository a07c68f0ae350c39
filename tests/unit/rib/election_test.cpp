// The order of the entries of a head: which route is active, and where a new one goes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "log/qor_log.h"
#include "rib/rtm_rib.h"

namespace {

struct E {
  uint16_t pref;
  uint8_t cid, proto;
  uint16_t subtype;
  bool imported = false;
};

class Election : public ::testing::Test {
 protected:
  void SetUp() override {
    qorLogReset();
    qorLogSetEcho(false);
    head = static_cast<rt_head *>(calloc(1, rtmHeadSize(0)));
    const uint8_t prefix[4] = {10};
    rtmHeadInit(head, 0, prefix, 8);
  }
  void TearDown() override {
    for (rt_entry *e : made) free(e);
    free(head);
    qorLogSetEcho(true);
  }
  rt_entry *make(const E &e) {
    auto *rte = static_cast<rt_entry *>(calloc(1, rtmRteSize(0, 1, 0)));
    rte->rte_pref = e.pref;
    rte->rte_cid = e.cid;
    rte->rte_proto = e.proto;
    rte->rte_subtype = e.subtype;
    rte->rte_leak = e.imported ? RTE_LEAK_IMPORTED : 0;
    made.push_back(rte);
    return rte;
  }
  std::vector<rt_entry *> order() {
    std::vector<rt_entry *> v;
    for (rt_entry *e = head->rtmh_rte; e; e = e->rte_next) v.push_back(e);
    return v;
  }
  void reset() { head->rtmh_rte = nullptr; }

  rt_head *head = nullptr;
  std::vector<rt_entry *> made;
};

constexpr uint8_t C = RTM_PROTO_CONNECTED, S = RTM_PROTO_STATIC, MS = RTM_PROTO_MSTATIC, O = RTM_PROTO_OSPF,
                  I = RTM_PROTO_ISIS, B = RTM_PROTO_BGP, R = RTM_PROTO_RIP;
constexpr uint16_t EXT = RT_BGP_EXTERNAL, INT = RT_BGP_INTERNAL;

TEST_F(Election, TwoEntriesInEitherOrder) {
  struct Case {
    const char *what;
    E a, b;
    // Which one is active after a then b were inserted, and after b then a.
    char firstAfterAB, firstAfterBA;
  } cases[] = {
      {"lower preference wins", {110, 1, O, 4}, {120, 2, R, 0}, 'a', 'a'},
      {"preference is unsigned", {0x8000, 1, C, 0}, {1, 2, R, 0}, 'b', 'b'},
      {"connected at 0 beats all", {0, 1, C, 0}, {1, 2, S, 0}, 'a', 'a'},
      {"OSPF before ISIS at equal preference", {115, 1, I, 10}, {115, 2, O, 4}, 'b', 'b'},
      {"external BGP before OSPF", {110, 1, O, 4}, {110, 2, B, EXT}, 'b', 'b'},
      {"static before external BGP", {20, 1, B, EXT}, {20, 2, S, 0}, 'b', 'b'},
      {"connected before external BGP", {20, 1, C, 0}, {20, 2, B, EXT}, 'a', 'a'},
      {"mstatic before external BGP", {20, 1, B, EXT}, {20, 2, MS, 0}, 'b', 'b'},
      {"RIP before internal BGP", {120, 1, B, INT}, {120, 2, R, 0}, 'b', 'b'},
      {"OSPF intra area before external 1", {110, 1, O, RT_OSPF_E1}, {110, 2, O, RT_OSPF_INTRA}, 'b', 'b'},
      {"same kind: lower handle first", {110, 7, O, 4}, {110, 3, O, 4}, 'b', 'b'},
      {"one client: local before imported", {110, 3, O, 4, true}, {110, 3, O, 4}, 'b', 'b'},
      // Ties of one client: a new local entry goes ahead, a new imported one behind.
      {"one client, both local: the newer first", {110, 3, O, 4}, {110, 3, O, 4}, 'b', 'a'},
      {"one client, both imported: the older first", {110, 3, O, 4, true}, {110, 3, O, 4, true}, 'a', 'b'},
      // Two BGP clients: the new entry is placed by its own kind alone.
      {"new external BGP goes ahead of internal", {200, 1, B, INT}, {200, 2, B, EXT}, 'b', 'b'},
      {"new external BGP goes ahead of external", {20, 1, B, EXT}, {20, 2, B, EXT}, 'b', 'a'},
      {"new internal BGP goes behind", {200, 1, B, INT}, {200, 2, B, INT}, 'a', 'b'},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    for (bool abOrder : {true, false}) {
      reset();
      rt_entry *a = make(c.a), *b = make(c.b);
      rte_insert(0, head, abOrder ? a : b);
      rt_entry *first = rte_insert(0, head, abOrder ? b : a);
      EXPECT_EQ(first, head->rtmh_rte);
      char want = abOrder ? c.firstAfterAB : c.firstAfterBA;
      EXPECT_EQ(first, want == 'a' ? a : b) << (abOrder ? "a then b" : "b then a");
      for (rt_entry *e : order()) EXPECT_EQ(e->rte_head, head);
    }
  }
  EXPECT_EQ(qorLogCount(0x14803A), 0u);
}

TEST_F(Election, BgpOfAnotherSubtypeIsLoggedAndPlacedAhead) {
  rt_entry *ospf = make({110, 1, O, 4});
  rte_insert(0, head, ospf);
  rt_entry *bgp = make({110, 2, B, 5});
  EXPECT_EQ(rte_insert(0, head, bgp), bgp);
  ASSERT_EQ(qorLogCount(0x14803A), 1u);
  const QorLogRecord *r = qorLogLast(0x14803A);
  EXPECT_NE(r->text.find("rte1:10.0.0.0 proto 0x7 pref 0x6e subpref 0x0 subtyp 0x5"), std::string::npos) << r->text;
  // Also when the odd entry is the one already there.
  reset();
  rte_insert(0, head, bgp);
  EXPECT_EQ(rte_insert(0, head, ospf), ospf);
  EXPECT_EQ(qorLogCount(0x14803A), 2u);
}

// The order of many entries, and removals anywhere in it, are checked against the model test.
TEST_F(Election, RemovingAnEntryNotOnTheListIsReportedAndChangesNothing) {
  rt_entry *st = make({1, 1, S, 0}), *ebgp = make({20, 2, B, EXT}), *rip = make({120, 5, R, 0});
  for (rt_entry *e : {rip, ebgp}) rte_insert(0, head, e);
  size_t asserts = qorAssertCount();
  EXPECT_EQ(rte_remove(head, st), ebgp);
  EXPECT_EQ(qorAssertCount(), asserts + 1);
  EXPECT_EQ(order(), (std::vector<rt_entry *>{ebgp, rip}));
}

TEST_F(Election, FindMatchesClientSubtypeAndSourceVrf) {
  rt_entry *a = make({110, 3, O, 4}), *b = make({110, 3, O, 6}), *c = make({120, 5, R, 0});
  a->rte_srcVrf = 0;
  b->rte_srcVrf = 7;
  for (rt_entry *e : {a, b, c}) rte_insert(0, head, e);
  struct Case {
    const char *what;
    uint32_t cid, subtype;
    uint8_t matchVrf;
    uint32_t srcVrf;
    rt_entry *want;
  } cases[] = {
      {"client and subtype", 3, 6, 0, 0, b},
      {"any subtype gives the first on the list", 3, RT_SUBTYPE_ANY, 0, 0, b},
      {"any subtype with a source VRF", 3, RT_SUBTYPE_ANY, 1, 0, a},
      {"source VRF must match when asked", 3, RT_SUBTYPE_ANY, 1, 7, b},
      {"source VRF mismatch", 3, 4, 1, 7, nullptr},
      {"a source VRF the entry cannot hold", 3, RT_SUBTYPE_ANY, 1, 0x10007, nullptr},
      {"a subtype the entry cannot hold", 3, 0x10004, 0, 0, nullptr},
      {"matchVrf other than 0 or 1 matches nothing", 3, RT_SUBTYPE_ANY, 2, 0, nullptr},
      {"other client", 4, RT_SUBTYPE_ANY, 0, 0, nullptr},
  };
  for (const Case &k : cases)
    EXPECT_EQ(rte_find(head, k.cid, k.subtype, k.matchVrf, k.srcVrf), k.want) << k.what;
}

}  // namespace
