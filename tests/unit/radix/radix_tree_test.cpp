// Behaviour of the tree beyond what the model test draws at random: refusals, a key kept in the
// node, walks whose callback changes the tree, and batch hints.
#include <cstring>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "radix_test_util.h"

using namespace radix_test;

namespace {

struct V4 {
  uint8_t a, b, c, d;
  unsigned len;
};

class RadixTree : public ::testing::Test {
 public:
  void SetUp() override { t = qorRadixCreate("inet.0", 32, nullptr, nullptr, 0); }
  void TearDown() override { qorRadixDestroy(t); }
  Rec *add(V4 p) {
    Rec *r = recs.emplace_back(std::make_unique<Rec>()).get();
    r->key = {p.a, p.b, p.c, p.d};
    r->plen = p.len;
    EXPECT_EQ(qorRadixInsert(t, &r->hdr, p.len), &r->hdr) << keyText(r->key, 4, p.len);
    return r;
  }
  // Removes the head and frees its record at once: whatever reads it later reads freed memory.
  void drop(qor_radix_hdr *h) {
    EXPECT_EQ(qorRadixRemove(t, h), 0);
    for (auto &r : recs)
      if (r.get() == recOf(h)) r.reset();
  }
  qor_radix_tree *t = nullptr;
  std::vector<std::unique_ptr<Rec>> recs;
};

// Duplicates, find-or-insert and second removes are the model's; here the refusals it never makes.
TEST_F(RadixTree, InsertRefusals) {
  Rec *a = add({10, 1, 0, 0, 16});
  EXPECT_EQ(qorRadixInsert(t, &a->hdr, 24), nullptr) << "already in a tree, whatever the length";
  Rec longer;
  EXPECT_EQ(qorRadixInsert(t, &longer.hdr, 33), nullptr) << "longer than the key";
  EXPECT_EQ(t->rdx_heads, 1u);
}

// A record whose key is the node's own four key bytes, with marks of its own among the flags:
// splits, heads taking an internal node's place and removals rewrite the node's words around
// them, and must leave both alone.
TEST_F(RadixTree, KeyInTheNodeAndTheRecordsMarksSurviveChangesOfShape) {
  struct Cases {
    uint8_t a, b, c;
    unsigned len;
  } const cases[] = {{10, 0, 0, 8}, {10, 1, 0, 16}, {10, 1, 2, 24}, {10, 0, 0, 16}, {10, 128, 0, 9}, {11, 0, 0, 8}};
  std::vector<qor_radix_hdr> hs(std::size(cases));
  for (size_t i = 0; i < hs.size(); ++i) {
    const uint8_t key[4] = {cases[i].a, cases[i].b, cases[i].c, 99};  // host bits: masked on insert
    qorRadixSetKey(&hs[i], qorRadixKeyBytes(&hs[i]));
    std::memcpy(qorRadixKeyBytes(&hs[i]), key, 4);
    qorRadixSetUserBit(&hs[i], uint8_t(0x08 << (i % 5)), true);
    ASSERT_EQ(qorRadixInsert(t, &hs[i], cases[i].len), &hs[i]);
  }
  auto check = [&](size_t i, bool linked) {
    const uint8_t want[4] = {cases[i].a, cases[i].b, cases[i].c, 0};
    EXPECT_EQ(std::memcmp(qorRadixKey(&hs[i]), want, 4), 0) << i;
    EXPECT_EQ(qorRadixFlags(&hs[i]) & QOR_RADIX_USER_BITS, 0x08 << (i % 5)) << i;
    EXPECT_EQ(qorRadixIsLinked(&hs[i]), linked) << i;
    if (linked) {
      EXPECT_EQ(qorRadixGetExact(t, want, cases[i].len), &hs[i]) << i;
    }
  };
  for (size_t i = 0; i < hs.size(); ++i) check(i, true);
  for (size_t i : {1, 0, 4}) ASSERT_EQ(qorRadixRemove(t, &hs[i]), 0);
  for (size_t i = 0; i < hs.size(); ++i) check(i, i != 1 && i != 0 && i != 4);
  qorRadixSetUserBit(&hs[2], 0x08 << 2, false);
  EXPECT_EQ(qorRadixFlags(&hs[2]), QOR_RADIX_LINKED) << "only the record's mark goes";
  for (size_t i : {2, 3, 5}) EXPECT_EQ(qorRadixRemove(t, &hs[i]), 0);  // the records go before the tree
}

// The callback frees the head it is given, and changes the tree ahead of and behind the walk.
TEST_F(RadixTree, WalkSurvivesCallbackThatChangesTheTreeAndStopsOnNonZero) {
  for (uint8_t i = 1; i <= 20; ++i) add({10, 0, 0, i, 32});
  struct Ctx {
    RadixTree *f;
    std::vector<int> seen;  // last bytes
  } ctx{this, {}};
  auto cb = [](qor_radix_hdr *h, void *a) {
    auto *c = static_cast<Ctx *>(a);
    const uint8_t d = recOf(h)->key[3];
    c->seen.push_back(d);
    if (d == 5) {
      for (int gone : {6, 8}) c->f->drop(&c->f->recs[gone - 1]->hdr);  // recs[i - 1] is 10.0.0.i
      c->f->add({10, 0, 0, 200, 32});  // ahead: visited
      c->f->add({10, 0, 0, 0, 32});    // behind: not visited
    }
    if (d % 2 == 0 && d <= 20) c->f->drop(h);  // every even one on the spot
    return 0;
  };
  EXPECT_EQ(qorRadixWalk(t, 0, cb, 0, &ctx), 0);
  EXPECT_EQ(ctx.seen, (std::vector<int>{1, 2, 3, 4, 5, 7, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 200}));
  int calls = 0;
  auto third = [](qor_radix_hdr *, void *a) { return ++*static_cast<int *>(a) == 3 ? -1 : 0; };
  EXPECT_EQ(qorRadixWalk(t, 0, third, 0, &calls), -1);
  EXPECT_EQ(calls, 3) << "a non-zero result stops the walk";
  // Left: the ten odd originals and the two added, and every node goes with them.
  size_t left = 0;
  for (qor_radix_hdr *h; (h = qorRadixGetNext(t, nullptr)); ++left) ASSERT_EQ(qorRadixRemove(t, h), 0);
  EXPECT_EQ(left, 12u);
  EXPECT_EQ(t->rdx_nodes, 0u);
}

// Batch hints read the caller's key and the accelerator only: on every width, for prefixes
// shorter and longer than the stride, with the key in a buffer of exactly the key's bytes
// (the sanitizer build catches a read past it), they change no answer of the tree.
TEST(RadixPrefetch, ReadsOnlyTheKeyAndChangesNothing) {
  for (unsigned bits : {24u, 32u, 128u}) {
    SCOPED_TRACE(bits);
    qor_radix_tree *tree = qorRadixCreate("p", bits, nullptr, nullptr, 0);
    tree->rdx_accelMin = 1;  // the table from the first head on
    std::vector<std::unique_ptr<Rec>> recs;
    std::mt19937 rng(bits);
    for (int i = 0; i < 200; ++i) {
      auto r = std::make_unique<Rec>();
      for (unsigned b = 0; b < bits / 8; ++b) r->key[b] = uint8_t(rng());
      r->plen = 8 + unsigned(rng() % (bits - 7));
      r->key = maskBytes(r->key, r->plen);
      if (qorRadixInsert(tree, &r->hdr, r->plen)) recs.push_back(std::move(r));
    }
    ASSERT_NE(tree->rdx_accel, nullptr);
    qorRadixPrefetch(nullptr, recs[0]->key.data(), 8, 0);  // no tree: nothing to do
    qorRadixPrefetch(tree, nullptr, 8, 1);
    for (auto &r : recs) {
      std::vector<uint8_t> key(r->key.begin(), r->key.begin() + bits / 8);
      for (unsigned len : {0u, 8u, 15u, 16u, 20u, bits, bits + 1}) {
        const unsigned l = std::min(len, bits);
        qor_radix_hdr *exact = qorRadixGetExact(tree, key.data(), l), *best = qorRadixGetBest(tree, key.data(), l);
        for (int stage : {0, 1, 2, 3, 4}) qorRadixPrefetch(tree, key.data(), len, stage);
        EXPECT_EQ(qorRadixGetExact(tree, key.data(), l), exact);
        EXPECT_EQ(qorRadixGetBest(tree, key.data(), l), best);
      }
      EXPECT_EQ(qorRadixGetExact(tree, key.data(), r->plen), &r->hdr);
    }
    qorRadixDestroy(tree);
  }
}

}  // namespace
