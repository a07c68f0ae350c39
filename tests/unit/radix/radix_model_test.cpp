// The radix tree against a reference model, a std::map in the tree's order (key, then length):
// random inserts and removes of nesting prefixes, for both key widths, with and without the
// accelerator and with a failing node allocator; lookups and the tree's shape checked as it goes.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <vector>

#include "radix_test_util.h"

using namespace radix_test;

namespace {

struct MKey {
  KeyBytes key;
  unsigned plen;
  bool operator<(const MKey &o) const { return std::tie(key, plen) < std::tie(o.key, o.plen); }
};

struct Config {
  const char *name;
  unsigned bits;
  uint32_t accelMin;       // 0: no accelerator
  unsigned failPerMille;   // node allocations that fail
  uint32_t seed;
};

class ModelRun {
 public:
  explicit ModelRun(const Config &c) : cfg_(c), rng_(c.seed), bytes_(c.bits / 8) {
    FailingAlloc::reset();
    tree_ = qorRadixCreate(c.name, c.bits, FailingAlloc::alloc, FailingAlloc::release, 0);
    tree_->rdx_accelMin = c.accelMin;
    for (auto &b : bases_) b = randomBytes();
    if (c.bits == 128)  // half the bases share their first 32 bits: compares go past the node key bytes
      for (size_t i = 0; i < bases_.size(); i += 2) std::copy_n(bases_[0].begin(), 4, bases_[i].begin());
  }
  ~ModelRun() {
    FailingAlloc::rng = nullptr;
    qorRadixDestroy(tree_);
    EXPECT_EQ(FailingAlloc::live, 0) << "destroy frees every node";
    FailingAlloc::reset();
  }

  KeyBytes randomBytes() {
    KeyBytes k{};
    for (unsigned i = 0; i < bytes_; ++i) k[i] = uint8_t(rng_());
    return k;
  }

  // Keys cluster around a few bases so that prefixes nest and diverge deep in the key.
  KeyBytes randomKey() {
    KeyBytes k = randomBytes();
    if (rng_() % 10 < 8) {
      const KeyBytes &b = bases_[rng_() % bases_.size()];
      unsigned keep = rng_() % (cfg_.bits + 1);
      for (unsigned i = 0; i < keep; ++i)
        k[i / 8] = uint8_t((k[i / 8] & ~(0x80 >> (i % 8))) | (b[i / 8] & (0x80 >> (i % 8))));
    }
    return k;
  }

  unsigned randomLen() {
    static const unsigned v4[] = {8, 16, 20, 22, 24, 24, 24, 28, 32};
    static const unsigned v6[] = {16, 32, 40, 48, 48, 56, 64, 64, 96, 128};
    if (rng_() % 10 < 3) return rng_() % (cfg_.bits + 1);
    return cfg_.bits == 32 ? v4[rng_() % 9] : v6[rng_() % 10];
  }

  void step(int insertPercent) {
    FailingAlloc::rng = cfg_.failPerMille ? &rng_ : nullptr;
    FailingAlloc::failPerMille = cfg_.failPerMille;
    if (model_.empty() || int(rng_() % 100) < insertPercent) {
      auto r = std::make_unique<Rec>();
      r->plen = randomLen();
      KeyBytes raw = randomKey();
      if (rng_() % 8 == 0) {  // short prefixes anywhere: they cover many blocks of the accelerator
        r->plen = rng_() % 17;
        raw = randomBytes();
      }
      r->key = rng_() % 2 ? maskBytes(raw, r->plen) : raw;
      MKey mk{maskBytes(raw, r->plen), r->plen};
      auto it = model_.find(mk);
      bool attach = rng_() % 4 == 0;
      long failsBefore = FailingAlloc::fails;
      qor_radix_hdr *got = attach ? qorRadixAttach(tree_, &r->hdr, r->plen)
                                  : qorRadixInsert(tree_, &r->hdr, r->plen);
      if (it != model_.end()) {
        ASSERT_EQ(got, attach ? &it->second->hdr : nullptr) << "duplicate " << text(mk);
      } else if (!got) {
        ASSERT_GT(FailingAlloc::fails, failsBefore) << "insert failed without a failed allocation";
      } else {
        ASSERT_EQ(got, &r->hdr);
        model_[mk] = r.get();
        recs_.push_back(std::move(r));
      }
      if (r) {
        ASSERT_FALSE(qorRadixIsLinked(&r->hdr)) << "a record refused is left out of the tree";
      }
    } else {
      auto pick = [&] { return std::next(model_.begin(), rng_() % model_.size()); };
      auto it = pick();
      for (int tries = rng_() % 3 == 0 ? 6 : 0; tries > 0; --tries) {  // favour short prefixes
        auto other = pick();
        if (other->first.plen < it->first.plen) it = other;
      }
      ASSERT_EQ(qorRadixRemove(tree_, &it->second->hdr), 0);
      ASSERT_EQ(qorRadixRemove(tree_, &it->second->hdr), 1) << "second remove is refused";
      model_.erase(it);
    }
    FailingAlloc::rng = nullptr;
    accelSizes_.insert(qorRadixBytes(tree_) - sizeof(qor_radix_tree) - tree_->rdx_nodeBytes);
  }

  std::string text(const MKey &k) const { return keyText(k.key, bytes_, k.plen); }

  Rec *modelExact(const KeyBytes &k, unsigned plen) const {
    auto it = model_.find(MKey{maskBytes(k, plen), plen});
    return it == model_.end() ? nullptr : it->second;
  }
  Rec *modelBest(const KeyBytes &k, unsigned plen) const {
    for (int l = int(plen); l >= 0; --l)
      if (Rec *r = modelExact(k, unsigned(l))) return r;
    return nullptr;
  }

  // Node by node: links, lengths, flags, kept key bits, and that children extend the parent.
  void checkShape() {
    auto prefixOf = [&](const qor_radix_node *n) {
      qor_radix_node *h = const_cast<qor_radix_node *>(n);
      while (!qorRadixNodeHead(h)) h = qorRadixChild(h, 0);
      return maskBytes(recOf(h)->key, qorRadixBit(n));
    };
    uint64_t nodes = 0, heads = 0, fullHeads = 0;
    nodeWalkHeads_.clear();
    for (qor_radix_node *n = qorRadixNodeFirst(tree_); n; n = qorRadixNodeNext(n)) {
      ++nodes;
      if (qor_radix_hdr *h = qorRadixNodeHead(n)) nodeWalkHeads_.push_back(h);
      if (n == tree_->rdx_root) {
        ASSERT_EQ(qorRadixParent(n), nullptr);
      }
      if (qorRadixNodeHead(n)) {
        ++heads;
        fullHeads += qorRadixChild(n, 0) && qorRadixChild(n, 1);
        ASSERT_TRUE(qorRadixIsLinked(n));
        ASSERT_EQ(recOf(n)->plen, qorRadixBit(n));
      } else {
        ASSERT_NE(qorRadixFlags(n) & QOR_RADIX_INTERNAL, 0);
        ASSERT_TRUE(qorRadixChild(n, 0) && qorRadixChild(n, 1)) << "internal node with one child";
      }
      KeyBytes p = prefixOf(n);
      uint32_t k32 = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
      ASSERT_EQ(qorRadixKey32(n), k32);
      for (unsigned side = 0; side < 2; ++side) {
        const qor_radix_node *c = qorRadixChild(n, side);
        if (!c) continue;
        ASSERT_EQ(qorRadixParent(c), n);
        ASSERT_GT(qorRadixBit(c), qorRadixBit(n));
        KeyBytes cp = prefixOf(c);
        ASSERT_EQ(maskBytes(cp, qorRadixBit(n)), p) << "child does not extend its parent";
        ASSERT_EQ(bitOf(cp, qorRadixBit(n)), side);
      }
    }
    ASSERT_EQ(heads, tree_->rdx_heads);
    ASSERT_EQ(nodes, tree_->rdx_nodes);
    // The allocator holds the internal nodes, and a spare for every head with two children
    // (its place when it leaves), with at most one more in hand.
    ASSERT_EQ(tree_->rdx_fullHeads, fullHeads);
    ASSERT_GE(tree_->rdx_spares, fullHeads);
    ASSERT_LE(tree_->rdx_spares, fullHeads + 1);
    ASSERT_EQ(uint64_t(FailingAlloc::live), nodes - heads + tree_->rdx_spares);
    ASSERT_EQ(tree_->rdx_nodeBytes, uint64_t(FailingAlloc::live) * QOR_RADIX_NODE_SIZE);
    if (!tree_->rdx_accel) {
      ASSERT_EQ(qorRadixBytes(tree_), sizeof(qor_radix_tree) + tree_->rdx_nodeBytes);
    }
    ASSERT_EQ(heads, model_.size());
    if (heads) {
      ASSERT_LT(nodes, 2 * heads);
    }
  }

  void checkAgainstModel(int probes) {
    ASSERT_NO_FATAL_FAILURE(checkShape());
    // Tree order, both by GetNext and by the walk.
    std::vector<qor_radix_hdr *> want, byNext, byWalk;
    for (auto &[k, r] : model_) want.push_back(&r->hdr);
    for (qor_radix_hdr *h = qorRadixGetNext(tree_, nullptr); h; h = qorRadixGetNext(tree_, h)) {
      byNext.push_back(h);
      ASSERT_LE(byNext.size(), want.size());
    }
    ASSERT_EQ(byNext, want);
    qorRadixWalk(tree_, 0, [](qor_radix_hdr *h, void *a) {
      static_cast<std::vector<qor_radix_hdr *> *>(a)->push_back(h);
      return 0;
    }, 0, &byWalk);
    ASSERT_EQ(byWalk, want);
    ASSERT_EQ(nodeWalkHeads_, want) << "the node walk (pre-order) meets the heads in tree order";
    // Heads in the tree: exact by their own (unmasked) key, and the next shorter match.
    for (int i = 0; i < probes && !model_.empty(); ++i) {
      auto it = std::next(model_.begin(), rng_() % model_.size());
      Rec *r = it->second;
      ASSERT_EQ(qorRadixGetExact(tree_, r->key.data(), r->plen), &r->hdr) << text(it->first);
      Rec *less = r->plen ? modelBest(r->key, r->plen - 1) : nullptr;
      ASSERT_EQ(qorRadixGetLessSpecific(tree_, &r->hdr), less ? &less->hdr : nullptr) << text(it->first);
      // A key inside the prefix with random host bits finds it or something more specific.
      KeyBytes inside = randomBytes();
      for (unsigned b = 0; b < r->plen; ++b)
        inside[b / 8] = uint8_t((inside[b / 8] & ~(0x80 >> (b % 8))) | (r->key[b / 8] & (0x80 >> (b % 8))));
      unsigned len = r->plen + rng_() % (cfg_.bits - r->plen + 1);
      Rec *best = modelBest(inside, len);
      ASSERT_EQ(qorRadixGetBest(tree_, inside.data(), len), best ? &best->hdr : nullptr)
          << keyText(inside, bytes_, len);
    }
    // Random probes: exact, best and next-by-key.
    for (int i = 0; i < probes; ++i) {
      KeyBytes k = randomKey();
      unsigned len = randomLen();
      if (i % 4 == 0) {  // anywhere at all, mostly where only short prefixes cover
        k = randomBytes();
        len = cfg_.bits;
      }
      Rec *ex = modelExact(k, len), *best = modelBest(k, len);
      ASSERT_EQ(qorRadixGetExact(tree_, k.data(), len), ex ? &ex->hdr : nullptr) << keyText(k, bytes_, len);
      ASSERT_EQ(qorRadixGetBest(tree_, k.data(), len), best ? &best->hdr : nullptr) << keyText(k, bytes_, len);
      auto up = model_.upper_bound(MKey{maskBytes(k, len), len});
      ASSERT_EQ(qorRadixGetNext(tree_, k.data(), len), up == model_.end() ? nullptr : &up->second->hdr)
          << keyText(k, bytes_, len);
    }
  }

  void run(int ops, int checkEvery) {
    // Grow, shrink to almost nothing, grow again: the accelerator is built, dropped and rebuilt.
    const int phases[] = {70, 30, 70};
    for (int phase = 0; phase < 3; ++phase) {
      for (int i = 0; i < ops / 3; ++i) {
        ASSERT_NO_FATAL_FAILURE(step(phases[phase]));
        if (i % checkEvery == checkEvery - 1) {
          ASSERT_NO_FATAL_FAILURE(checkAgainstModel(60));
        }
      }
    }
    ASSERT_NO_FATAL_FAILURE(checkAgainstModel(300));
    // Empty it: every node goes back.
    while (!model_.empty()) {
      ASSERT_EQ(qorRadixRemove(tree_, &model_.begin()->second->hdr), 0);
      model_.erase(model_.begin());
    }
    EXPECT_EQ(std::tuple(tree_->rdx_root, tree_->rdx_nodes, tree_->rdx_nodeBytes, FailingAlloc::live),
              std::tuple(static_cast<qor_radix_node *>(nullptr), 0u, 0u, 0));
  }

  const Config cfg_;
  std::mt19937 rng_;
  unsigned bytes_;
  qor_radix_tree *tree_ = nullptr;
  std::array<KeyBytes, 24> bases_{};
  std::map<MKey, Rec *> model_;
  std::vector<std::unique_ptr<Rec>> recs_;
  std::vector<qor_radix_hdr *> nodeWalkHeads_;
  std::set<size_t> accelSizes_;  // sizes the accelerator took: none, built, grown, shrunk
};

class RadixModel : public ::testing::TestWithParam<Config> {};

TEST_P(RadixModel, MatchesReferenceAfterRandomInsertsAndRemoves) {
  ModelRun run(GetParam());
  run.run(6000, 400);
  if (GetParam().accelMin > 1) {
    EXPECT_GE(run.accelSizes_.size(), 3u) << "the accelerator was built, resized and dropped";
  }
  if (GetParam().failPerMille) {
    EXPECT_GT(FailingAlloc::fails, 100) << "failures were injected";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Widths, RadixModel,
    ::testing::Values(Config{"v4", 32, 0, 0, 1}, Config{"v4accel", 32, 1, 0, 2},
                      Config{"v4accelGrow", 32, 400, 0, 3}, Config{"v6", 128, 0, 0, 4},
                      Config{"v6accelGrow", 128, 400, 0, 5}, Config{"v4fail", 32, 0, 150, 6},
                      Config{"v4accelFail", 32, 1, 150, 7}, Config{"v6fail", 128, 150, 150, 8}),
    [](const ::testing::TestParamInfo<Config> &i) { return std::string(i.param.name); });

// An insert that needs a node the allocator refuses leaves the tree exactly as it was, and
// succeeds once memory is back; one that needs no node succeeds without the allocator. The
// node is a split (the keys part above both), or the spare a head owes once it has two
// children (so that its removal never allocates).
TEST(RadixAlloc, FailedInsertLeavesTheTreeIntact) {
  struct Row {
    const char *what;
    std::vector<std::pair<uint8_t, unsigned>> before;  // first key byte, length
    std::pair<uint8_t, unsigned> add;
    bool needsNode;
  } rows[] = {
      {"split above 10/8", {{10, 8}}, {11, 8}, true},
      {"second child of 10/7", {{10, 7}, {10, 8}}, {11, 8}, true},
      {"first child of 10/7", {{10, 7}}, {11, 8}, false},
      {"covers 10/8", {{10, 8}}, {10, 7}, false},
  };
  for (unsigned bits : {32u, 128u})
    for (const Row &row : rows) {
      SCOPED_TRACE(std::string(row.what) + " /" + std::to_string(bits));
      FailingAlloc::reset();
      FailingAlloc::failAfter = 0;  // no node from here on: the tree holds no spare either
      qor_radix_tree *t = qorRadixCreate("f", bits, FailingAlloc::alloc, FailingAlloc::release, 0);
      std::vector<std::unique_ptr<Rec>> recs;
      for (auto [byte, len] : row.before) {
        recs.push_back(std::make_unique<Rec>());
        recs.back()->key[0] = byte;
        ASSERT_EQ(qorRadixInsert(t, &recs.back()->hdr, len), &recs.back()->hdr);
      }
      ASSERT_EQ(FailingAlloc::live, 0);
      Rec b;
      b.key[0] = row.add.first;
      const uint64_t nodes = t->rdx_nodes;
      qor_radix_hdr *got = qorRadixInsert(t, &b.hdr, row.add.second);
      if (!row.needsNode) {
        EXPECT_EQ(got, &b.hdr);
        EXPECT_EQ(t->rdx_nodes, nodes + 1);
      } else {
        EXPECT_EQ(got, nullptr);
        EXPECT_FALSE(qorRadixIsLinked(&b.hdr));
        EXPECT_EQ(t->rdx_nodes, nodes);
        size_t heads = 0;
        for (qor_radix_hdr *h = qorRadixGetNext(t, nullptr); h; h = qorRadixGetNext(t, h)) ++heads;
        EXPECT_EQ(heads, recs.size());
        EXPECT_GE(t->rdx_allocFails, 1u);
        FailingAlloc::failAfter = -1;
        EXPECT_EQ(qorRadixInsert(t, &b.hdr, row.add.second), &b.hdr);
      }
      // Every head leaves again without the allocator, whatever it owes.
      FailingAlloc::failAfter = 0;
      EXPECT_EQ(qorRadixRemove(t, &recs[0]->hdr), 0);
      EXPECT_EQ(qorRadixRemove(t, &b.hdr), 0);
      for (size_t i = 1; i < recs.size(); ++i) EXPECT_EQ(qorRadixRemove(t, &recs[i]->hdr), 0);
      EXPECT_EQ(t->rdx_root, nullptr);
      EXPECT_EQ(FailingAlloc::live, 0);
      qorRadixDestroy(t);
    }
  FailingAlloc::reset();
}

}  // namespace
