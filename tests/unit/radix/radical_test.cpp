// The change list and its walkers: version order, a head seen once at its latest version,
// walkers that stay valid while heads move and go, budgets and ceilings, and the restart when
// the version space is used up.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "radix_test_util.h"

using namespace radix_test;

namespace {

// A tree with lettered heads A, B, C, ... (10.0.<n>.0/24), all in the tree, none on the list.
class ChangeList : public ::testing::Test {
 public:
  void SetUp() override {
    t = qorRadixCreate("inet.0", 32, nullptr, nullptr, 0);
    for (int i = 0; i < 8; ++i) {
      recs.push_back(std::make_unique<Rec>());
      recs.back()->key = {10, 0, uint8_t(i), 0};
      recs.back()->plen = 24;
      ASSERT_TRUE(qorRadixInsert(t, &recs.back()->hdr, 24));
    }
  }
  void TearDown() override { qorRadixDestroy(t); }

  qor_radix_hdr *h(char c) { return &recs[size_t(c - 'A')]->hdr; }
  static char letter(const qor_radix_hdr *x) { return char('A' + recOf(const_cast<qor_radix_hdr *>(x))->key[2]); }
  static int collect(qor_radix_hdr *x, void *seen) { return *static_cast<std::string *>(seen) += letter(x), 0; }
  void append(const std::string &letters) {
    for (char c : letters) ASSERT_EQ(qorRadicalAppendToChangeList(t, h(c)), 1);
  }
  // Walks and returns the letters visited.
  std::string walk(qor_radical_walker &w, uint32_t limit = UINT32_MAX, uint64_t ceiling = UINT64_MAX,
                   int *stopped = nullptr) {
    std::string seen;
    int n = qorRadicalWalkChangeList(t, &w, collect, 0, limit, ceiling, nullptr, stopped, &seen);
    if (n < 0) return "unregistered";
    EXPECT_EQ(n, int(seen.size()));
    return seen;
  }

  qor_radix_tree *t = nullptr;
  std::vector<std::unique_ptr<Rec>> recs;
};

// Budgets and ceilings, each row from a fresh walker over A1 B2 C3 D4; then the walker is gone.
TEST_F(ChangeList, LimitAndCeilingAndAnUnregisteredWalker) {
  append("ABCD");
  struct Row {
    uint32_t limit;
    uint64_t ceiling;
    const char *seen;
    int stopped;
    uint64_t walkerVersion;
    uint64_t next;
  } rows[] = {
      {10, UINT64_MAX, "ABCD", 0, 4, 0},
      {4, UINT64_MAX, "ABCD", 0, 4, 0},  // the budget is exactly the work: ran out of work
      {2, UINT64_MAX, "AB", 1, 2, 3},
      {10, 2, "AB", 0, 2, 3},            // all up to the ceiling seen: walker at the ceiling
      {1, 2, "A", 1, 1, 2},
      {0, UINT64_MAX, "", 1, 0, 1},      // a zero budget visits nothing
      {10, 0, "", 0, 0, 1},
      {10, 99, "ABCD", 0, 4, 0},         // a ceiling above the tree's version is the tree's
  };
  for (const Row &r : rows) {
    qor_radical_walker w{};
    qorRadicalWalkConstructor(t, &w);
    int stopped = -1;
    EXPECT_EQ(walk(w, r.limit, r.ceiling, &stopped), r.seen) << r.limit << " " << r.ceiling;
    EXPECT_EQ(stopped, r.stopped) << r.limit << " " << r.ceiling;
    EXPECT_EQ(w.walker_version, r.walkerVersion) << r.limit << " " << r.ceiling;
    EXPECT_EQ(qorRadicalNextVersion(t, &w), r.next) << r.limit << " " << r.ceiling;
    EXPECT_EQ(qorRadicalWalkDestructor(t, &w), 0);
    EXPECT_EQ(qorRadicalWalkDestructor(t, &w), 1) << "already gone";
    EXPECT_EQ(qorRadicalNextVersion(t, &w), 0u) << "nothing is pending for a walker that is gone";
    EXPECT_EQ(walk(w), "unregistered");
  }
  EXPECT_EQ(t->rdl_walkers, 0u);
}

// The model sees the list start over; here the epoch and the heads left behind.
TEST_F(ChangeList, VersionSpaceWrapRestartsTheList) {
  t->rdx_maxVersion = 3;
  append("ABC");
  qor_radical_walker w{};
  qorRadicalWalkConstructor(t, &w);
  EXPECT_EQ(walk(w, 1), "A");
  const uint64_t epoch = t->rdl_epoch;
  EXPECT_EQ(qorRadicalAppendToChangeList(t, h('D')), 0) << "wrapped";
  EXPECT_EQ(t->rdl_epoch, epoch + 1);
  EXPECT_EQ(t->rdx_version, 1u);
  EXPECT_EQ(h('D')->rtmh_version, 1u);
  for (char c : std::string("ABC")) {
    EXPECT_EQ(h(c)->rtmh_version, 0u);
    EXPECT_EQ(qorRadixListNext(h(c)), nullptr);
  }
  EXPECT_EQ(w.walker_version, 0u);
  EXPECT_EQ(walk(w), "D");
  qorRadicalWalkDestructor(t, &w);
}

TEST_F(ChangeList, VersionWalkFromAVersion) {
  append("ABCDB");  // A1 C3 D4 B5
  const std::pair<uint64_t, const char *> rows[] = {{0, "ACDB"}, {1, "CDB"}, {2, "CDB"}, {4, "B"}, {5, ""}, {9, ""}};
  for (auto [from, want] : rows) {
    std::string seen;
    EXPECT_EQ(qorRadixVersionWalk(t, from, collect, &seen), 0);
    EXPECT_EQ(seen, want) << from;
  }
  EXPECT_EQ(t->rdl_walkers, 0u) << "the walk's own walker is gone";
  EXPECT_EQ(qorRadixVersionWalk(t, 0, [](qor_radix_hdr *, void *) { return 7; }, nullptr), 7);
}

// Random appends, removes, inserts and walks by four walkers, whose callbacks move and remove
// heads, against a model in which the list is a map from version to head and a walker is the
// version of the last head it passed. Run with and without version wraps.
class ChangeListModel : public ::testing::TestWithParam<uint64_t> {};

TEST_P(ChangeListModel, WalkersSeeWhatTheModelPredicts) {
  constexpr int kHeads = 40, kWalkers = 4;
  struct Sim {
    qor_radix_tree *t;
    std::mt19937 rng;
    std::vector<std::unique_ptr<Rec>> recs;
    std::map<uint64_t, qor_radix_hdr *> list;
    uint64_t version = 0;
    uint64_t pos[kWalkers] = {};
    bool wrapped = false;
    // The walk under way: its walker, its effective ceiling, its budget and the heads it saw.
    int w = 0;
    uint64_t ceiling = 0;
    uint32_t limit = 0, seen = 0;

    qor_radix_hdr *any() { return &recs[rng() % recs.size()]->hdr; }
    void drop(qor_radix_hdr *x) { std::erase_if(list, [x](const auto &e) { return e.second == x; }); }
    void append(qor_radix_hdr *x) {
      int want = 1;
      if (version >= t->rdx_maxVersion) {
        list.clear();
        version = 0;
        for (auto &p : pos) p = 0;
        wrapped = true;
        want = 0;
      } else {
        drop(x);
      }
      list[++version] = x;
      ASSERT_EQ(qorRadicalAppendToChangeList(t, x), want);
      ASSERT_EQ(x->rtmh_version, version);
    }
    void remove(qor_radix_hdr *x) {
      drop(x);
      if (qorRadixIsLinked(x)) {
        ASSERT_EQ(qorRadixRemove(t, x), 0);
      } else {
        qorRadicalRemoveFromChangeList(t, x);
      }
    }
    uint64_t next(int walker) const {
      auto it = list.upper_bound(pos[walker]);
      return it == list.end() ? 0 : it->first;
    }
    static int visit(qor_radix_hdr *x, void *a) {
      Sim &m = *static_cast<Sim *>(a);
      auto it = m.list.upper_bound(m.pos[m.w]);
      EXPECT_TRUE(it != m.list.end() && it->second == x && it->first <= m.ceiling && m.seen < m.limit);
      if (it == m.list.end() || it->second != x) return 99;
      m.pos[m.w] = it->first;
      ++m.seen;
      qor_radix_hdr *other = m.any();
      switch (m.rng() % 10) {
        case 0: case 1: case 2: m.append(x); break;
        case 3: case 4: m.remove(x); break;
        case 5: m.append(other); break;
        case 6: m.remove(other); break;
        case 7: return 1;
        default: break;
      }
      return 0;
    }
  } m{qorRadixCreate("m", 32, nullptr, nullptr, 0), std::mt19937(uint32_t(GetParam())), {}, {}};
  qor_radix_tree *t = m.t;
  t->rdx_maxVersion = GetParam();
  for (int i = 0; i < kHeads; ++i) {
    m.recs.push_back(std::make_unique<Rec>());
    m.recs.back()->key = {10, uint8_t(i), 0, 0};
    m.recs.back()->plen = 16;
  }
  qor_radical_walker walkers[kWalkers] = {};
  for (auto &w : walkers) qorRadicalWalkConstructor(t, &w);

  for (int op = 0; op < 4000; ++op) {
    qor_radix_hdr *x = m.any();
    switch (m.rng() % 6) {
      case 0: case 1: ASSERT_NO_FATAL_FAILURE(m.append(x)); break;
      case 2: ASSERT_NO_FATAL_FAILURE(m.remove(x)); break;
      case 3: ASSERT_EQ(qorRadixIsLinked(x) ? x : qorRadixInsert(t, x, 16), x); break;
      default: {
        const int w = int(m.rng() % kWalkers);
        if (m.rng() % 20 == 0) {  // rebuilt: back to the start
          qorRadicalWalkConstructor(t, &walkers[w]);
          m.pos[w] = 0;
        }
        ASSERT_EQ(qorRadicalNextVersion(t, &walkers[w]), m.next(w));
        uint32_t limit = m.rng() % 9;
        uint64_t ceiling = m.rng() % 3 ? UINT64_MAX : m.version - std::min<uint64_t>(m.version, m.rng() % 4);
        uint64_t eff = std::min(ceiling, m.version);
        uint64_t before = walkers[w].walker_version;
        m.wrapped = false;
        m.w = w, m.ceiling = eff, m.limit = limit, m.seen = 0;
        int stopped = -1;
        int n = qorRadicalWalkChangeList(t, &walkers[w], Sim::visit, 0, limit, ceiling, nullptr, &stopped, &m);
        ASSERT_EQ(n, int(m.seen));
        if (m.wrapped) {
          ASSERT_EQ(stopped, 1);
          ASSERT_EQ(walkers[w].walker_version, 0u);
        } else if (stopped == 0) {
          uint64_t nx = m.next(w);
          ASSERT_TRUE(nx == 0 || nx > eff) << "stopped with work left within the ceiling";
          ASSERT_EQ(walkers[w].walker_version, std::max(before, eff));
        } else {
          ASSERT_TRUE(n > 0 || limit == 0);
          if (n) {
            ASSERT_EQ(walkers[w].walker_version, m.pos[w]);
          }
        }
      }
    }
  }
  for (auto &w : walkers) qorRadicalWalkDestructor(t, &w);
  EXPECT_EQ(t->rdl_walkers, 0u);
  qorRadixDestroy(t);
}

INSTANTIATE_TEST_SUITE_P(Versions, ChangeListModel, ::testing::Values(UINT64_MAX, 60, 7));

}  // namespace
