// Random adds, replaces and deletes of several clients checked step by step against a model:
// entry order (from the rules, not the RIB's comparison), versions, counts and references.
#include <algorithm>
#include <map>
#include <random>
#include <tuple>

#include "tests/unit/rib/rib_test_util.h"

using namespace ribtest;

namespace {

struct ClientDef {
  uint32_t cid, proto;
  uint16_t pref;  // preference; a route has it or 5 more, so that most kinds meet in ties
  uint32_t subtypes[2];
};

// One BGP client only: two BGP entries of different clients are placed by insertion order,
// which no model of the order can state.
const ClientDef kClients[] = {
    {2, RTM_PROTO_STATIC, 110, {0, 0}},
    {3, RTM_PROTO_OSPF, 110, {RT_OSPF_INTRA, RT_OSPF_E2}},
    {4, RTM_PROTO_OSPF, 110, {RT_OSPF_INTRA, RT_OSPF_IA}},
    {5, RTM_PROTO_ISIS, 115, {RT_ISIS_L1, RT_ISIS_L2}},
    {6, RTM_PROTO_RIP, 120, {0, 0}},
    {7, RTM_PROTO_BGP, 110, {RT_BGP_EXTERNAL, RT_BGP_INTERNAL}},
};
constexpr int kPrefixes = 300;
constexpr int kNextHops = 8;
constexpr int kSteps = 6000;

struct ModelRoute {
  uint32_t cid, proto, subtype;
  uint16_t pref;
  int32_t metric;
  std::vector<int> nhs;  // indexes of kNextHops addresses
};

// The place of a route among those of other clients at equal preference: connected and static
// first, then external BGP, then the dynamic protocols, then internal BGP.
std::tuple<uint16_t, int, uint32_t, uint32_t, uint32_t> rank(const ModelRoute &r) {
  const int group = r.proto == RTM_PROTO_BGP ? (r.subtype == RT_BGP_EXTERNAL ? 1 : 3)
                                             : (r.proto <= RTM_PROTO_STATIC ? 0 : 2);
  return {r.pref, group, r.proto, r.subtype, r.cid};
}

std::vector<ModelRoute> sorted(std::vector<ModelRoute> v) {
  std::sort(v.begin(), v.end(), [](auto &a, auto &b) { return rank(a) < rank(b); });
  return v;
}

std::string nhText(int i) { return "172.16.0." + std::to_string(i + 1); }
std::string prefixText(int p) { return "10." + std::to_string(p / 200) + "." + std::to_string(p % 200) + ".0"; }

class Model : public RibTest {
 protected:
  void SetUp() override {
    RibTest::SetUp();
    for (const ClientDef &c : kClients) client(c.cid, c.proto);
  }

  Route build(int p, const ModelRoute &m) {
    Route r;
    r.prefix(prefixText(p).c_str(), 24).proto(m.proto).subtype(m.subtype).pref(m.pref).metric(m.metric);
    for (int i : m.nhs) r.nh(nhText(i).c_str(), uint32_t(10 + i));
    return r;
  }

  // activeBefore: the client of the active route before the step, 0 for none.
  void check(int p, uint64_t versionBefore, uint32_t activeBefore, bool activeReplaced) {
    SCOPED_TRACE("prefix " + prefixText(p));
    const std::vector<ModelRoute> want = sorted(model[p]);
    rt_head *h = head(prefixText(p).c_str(), 24);
    std::vector<rt_entry *> got = entries(h);
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
      EXPECT_EQ(got[i]->rte_cid, want[i].cid) << "place " << i;
      EXPECT_EQ(got[i]->rte_metric, want[i].metric) << "place " << i;
      ASSERT_EQ(got[i]->rte_nnh, want[i].nhs.size());
      for (size_t k = 0; k < want[i].nhs.size(); ++k)
        EXPECT_EQ(rtmRteNh(got[i])[k]->rtn_ifindex, uint32_t(10 + want[i].nhs[k]));
    }
    // The version moves exactly when the active route changed, a replaced active route included.
    const bool changed = activeReplaced || activeBefore != (want.empty() ? 0u : want[0].cid);
    EXPECT_EQ(h && rtmh_version(h) != versionBefore, changed);
  }

  void checkCountsAndRefs() {
    std::map<uint32_t, std::pair<uint32_t, uint32_t>> counts;  // cid -> active, inactive
    std::vector<int> nhRefs(kNextHops, 0);
    for (auto &[p, routes] : model) {
      const std::vector<ModelRoute> order = sorted(routes);
      for (size_t i = 0; i < order.size(); ++i) {
        (i == 0 ? counts[order[i].cid].first : counts[order[i].cid].second)++;
        for (int n : order[i].nhs) nhRefs[n]++;
      }
    }
    for (const ClientDef &c : kClients) {
      EXPECT_EQ(rvi(c.cid)->rvi_active, counts[c.cid].first) << "client " << c.cid;
      EXPECT_EQ(rvi(c.cid)->rvi_inactive, counts[c.cid].second) << "client " << c.cid;
    }
    for (int n = 0; n < kNextHops; ++n) EXPECT_EQ(refs(nhText(n).c_str(), uint32_t(10 + n)), nhRefs[n]) << nhText(n);
  }

  std::map<int, std::vector<ModelRoute>> model;
};

TEST_F(Model, RandomAddsReplacesAndDeletesMatchTheModel) {
  for (uint32_t seed : {1u, 7u, 2024u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    auto pick = [&](int n) { return int(rng() % unsigned(n)); };
    for (int step = 0; step < kSteps; ++step) {
      const int p = pick(kPrefixes);
      const ClientDef &c = kClients[pick(int(std::size(kClients)))];
      std::vector<ModelRoute> &routes = model[p];
      auto mine = std::find_if(routes.begin(), routes.end(), [&](auto &r) { return r.cid == c.cid; });
      rt_head *h = head(prefixText(p).c_str(), 24);
      const uint64_t before = h ? rtmh_version(h) : 0;
      const uint32_t activeBefore = routes.empty() ? 0 : sorted(routes)[0].cid;
      bool activeReplaced = false;

      if (mine != routes.end() && pick(3) == 0) {
        Route r = build(p, *mine);
        ASSERT_EQ(del(c.cid, r), RTM_SUCCESS);
        routes.erase(mine);
      } else {
        ModelRoute m{c.cid, c.proto, c.subtypes[pick(2)], uint16_t(c.pref + (pick(4) == 0 ? 5 : 0)), pick(1000), {}};
        const int n = 1 + pick(3);
        for (int k = 0; k < n; ++k) m.nhs.push_back((pick(kNextHops) + k) % kNextHops);
        std::sort(m.nhs.begin(), m.nhs.end());
        m.nhs.erase(std::unique(m.nhs.begin(), m.nhs.end()), m.nhs.end());
        Route r = build(p, m);
        ASSERT_EQ(add(c.cid, r), RTM_SUCCESS);
        if (mine != routes.end()) {
          activeReplaced = activeBefore == c.cid;
          *mine = m;
        } else {
          routes.push_back(m);
        }
      }
      check(p, before, activeBefore, activeReplaced);
      if (step % 50 == 0) checkCountsAndRefs();
      if (HasFailure()) return;
    }
    checkCountsAndRefs();
    // Everything goes: with the model empty, every count and reference must be 0.
    for (auto &[p, routes] : model)
      for (const ModelRoute &m : routes) {
        Route r = build(p, m);
        ASSERT_EQ(del(m.cid, r), RTM_SUCCESS);
      }
    model.clear();
    checkCountsAndRefs();
  }
}

}  // namespace
