// Behaviour of the tree beyond what the model test draws at random: find-or-insert and its
// refusals, and walks whose callback changes the tree. Order, lookups, node counters and the
// node walk used for renumbering are checked against the model.
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

std::unique_ptr<Rec> rec4(V4 p) {
  auto r = std::make_unique<Rec>();
  r->key = {p.a, p.b, p.c, p.d};
  r->plen = p.len;
  return r;
}

std::string name4(const qor_radix_hdr *h) {
  if (!h) return "none";
  const Rec *r = reinterpret_cast<const Rec *>(h);
  return keyText(r->key, 4, r->plen);
}

class RadixTree : public ::testing::Test {
 protected:
  void SetUp() override { t = qorRadixCreate("inet.0", 32, nullptr, nullptr, 0); }
  void TearDown() override { qorRadixDestroy(t); }
  Rec *add(V4 p) {
    recs.push_back(rec4(p));
    EXPECT_EQ(qorRadixInsert(t, &recs.back()->hdr, p.len), &recs.back()->hdr) << name4(&recs.back()->hdr);
    return recs.back().get();
  }
  qor_radix_tree *t = nullptr;
  std::vector<std::unique_ptr<Rec>> recs;
};

// Duplicates, find-or-insert and second removes are the model's; here the refusals it never makes.
TEST_F(RadixTree, InsertRefusals) {
  Rec *a = add({10, 1, 0, 0, 16});
  EXPECT_EQ(qorRadixInsert(t, &a->hdr, 16), nullptr) << "already in a tree";
  auto longer = rec4({10, 1, 0, 0, 33});
  EXPECT_EQ(qorRadixInsert(t, &longer->hdr, 33), nullptr);
  EXPECT_EQ(qorRadixRemove(t, &longer->hdr), 1) << "not in the tree";
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
TEST_F(RadixTree, WalkSurvivesCallbackThatChangesTheTree) {
  qor_radix_tree *tree = t;
  for (uint8_t i = 1; i <= 20; ++i) {
    Rec *r = new Rec;
    r->key = {10, 0, 0, i};
    r->plen = 32;
    ASSERT_TRUE(qorRadixInsert(tree, &r->hdr, 32));
  }
  struct Ctx {
    qor_radix_tree *t;
    std::vector<std::string> seen;
    std::vector<std::unique_ptr<Rec>> added;
  } ctx{tree, {}, {}};
  auto cb = [](qor_radix_hdr *h, void *a) {
    auto *c = static_cast<Ctx *>(a);
    Rec *r = recOf(h);
    c->seen.push_back(name4(h));
    auto insert = [&](uint8_t d) {
      c->added.push_back(rec4({10, 0, 0, d, 32}));
      qorRadixInsert(c->t, &c->added.back()->hdr, 32);
    };
    if (r->key[3] == 5) {
      uint8_t k6[4] = {10, 0, 0, 6}, k8[4] = {10, 0, 0, 8};
      for (uint8_t *k : {k6, k8}) {
        qor_radix_hdr *gone = qorRadixGetExact(c->t, k, 32);
        qorRadixRemove(c->t, gone);
        delete recOf(gone);
      }
      insert(200);  // ahead: visited
      insert(0);    // behind: not visited
    }
    if (r->key[3] % 2 == 0 && r->key[3] <= 20) {  // free every even one on the spot
      qorRadixRemove(c->t, h);
      delete r;
    }
    return 0;
  };
  EXPECT_EQ(qorRadixWalk(tree, 0, cb, 0, &ctx), 0);
  std::vector<std::string> want;
  for (int i : {1, 2, 3, 4, 5, 7, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 200})
    want.push_back("10.0.0." + std::to_string(i) + "/32");
  EXPECT_EQ(ctx.seen, want);
  // Left: the odd originals and the two added; free the originals.
  std::vector<qor_radix_hdr *> left;
  for (qor_radix_hdr *h = qorRadixGetNext(tree, nullptr); h; h = qorRadixGetNext(tree, h)) left.push_back(h);
  EXPECT_EQ(left.size(), 10u + 2u);
  for (qor_radix_hdr *h : left) {
    qorRadixRemove(tree, h);
    Rec *r = recOf(h);
    bool mine = false;
    for (auto &a : ctx.added) mine |= a.get() == r;
    if (!mine) delete r;
  }
  EXPECT_EQ(tree->rdx_nodes, 0u);
}

TEST_F(RadixTree, WalkStopsOnNonZero) {
  for (uint8_t i = 1; i <= 5; ++i) add({10, i, 0, 0, 16});
  int calls = 0;
  auto cb = [](qor_radix_hdr *, void *a) { return ++*static_cast<int *>(a) == 3 ? -1 : 0; };
  EXPECT_EQ(qorRadixWalk(t, 0, cb, 0, &calls), -1);
  EXPECT_EQ(calls, 3);
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
