#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <list>
#include <random>
#include <set>
#include <vector>

#include "coll/qor_coll.h"

namespace {

// ---- List ----

struct Item {
  uint32_t value;
  QOR_DLL_NODE link;
};

// The values front to back; the walk back from the tail must meet the same ones.
std::vector<uint32_t> values(const QOR_DLL &l) {
  auto value = [](QOR_DLL_NODE *n) { return qorDLLEntry<Item, &Item::link>(n)->value; };
  std::vector<uint32_t> out, back;
  for (QOR_DLL_NODE *n = qorDLLGetFirst(&l); n; n = qorDLLGetNext(n)) out.push_back(value(n));
  for (QOR_DLL_NODE *n = qorDLLGetLast(&l); n; n = qorDLLGetPrev(n)) back.insert(back.begin(), value(n));
  EXPECT_EQ(back, out) << "prev links disagree with next links";
  return out;
}

TEST(CollList, RandomOperationsAgreeWithStdListBothWays) {
  std::vector<Item> items(64);
  for (uint32_t i = 0; i < items.size(); ++i) items[i] = {i, {nullptr, nullptr}};
  QOR_DLL list;
  qorDLLInit(&list);
  std::list<uint32_t> model;
  std::mt19937 rng(99);
  for (int step = 0; step < 20000; ++step) {
    Item &it = items[rng() % items.size()];
    bool linked = std::find(model.begin(), model.end(), it.value) != model.end();
    uint32_t op = rng() % 5;
    if (linked && op != 4) {
      ASSERT_EQ(qorDLLInsertAtBack(&list, &it.link), -1) << "a linked node is refused";
      op = 4;
    }
    if (op == 4) {
      ASSERT_EQ(qorDLLRemove(&list, &it.link), linked ? 0 : -1) << "an unlinked node is refused";
      model.remove(it.value);
      ASSERT_EQ(it.link.next, nullptr) << "a removed node has null links again";
      ASSERT_EQ(it.link.prev, nullptr);
    } else {
      auto at = model.empty() ? model.end() : std::next(model.begin(), rng() % model.size());
      QOR_DLL_NODE *atNode = at == model.end() ? nullptr : &items[*at].link;
      int rc = -1;
      auto pos = at;  // where the value goes in the model
      auto after = at == model.end() ? model.begin() : std::next(at);
      switch (op) {
        case 0: rc = qorDLLInsertAtFront(&list, &it.link), pos = model.begin(); break;
        case 1: rc = qorDLLInsertAtBack(&list, &it.link), pos = model.end(); break;
        // After `at`, or at the front when there is none; before `at`, or at the back.
        case 2: rc = qorDLLInsertAfter(&list, atNode, &it.link), pos = after; break;
        case 3: rc = qorDLLInsertBefore(&list, atNode, &it.link); break;
      }
      ASSERT_EQ(rc, 0) << op;
      model.insert(pos, it.value);
    }
    ASSERT_EQ(values(list), std::vector<uint32_t>(model.begin(), model.end())) << step;
    ASSERT_EQ(qorDLLCount(&list), model.size());
  }
}

TEST(CollList, AnchorsOutsideTheListAreRefused) {
  Item a{1, {}}, b{2, {}}, c{3, {}};
  QOR_DLL l1, l2;
  qorDLLInit(&l1);
  qorDLLInit(&l2);
  ASSERT_EQ(qorDLLInsertAtBack(&l1, &a.link), 0);
  ASSERT_EQ(qorDLLInsertAtBack(&l2, &b.link), 0);
  EXPECT_EQ(qorDLLInsertAfter(&l1, &c.link, &b.link), -1) << "anchor in no list";
  EXPECT_EQ(qorDLLInsertAfter(&l1, &b.link, &c.link), -1) << "anchor heads another list";
  EXPECT_EQ(qorDLLRemove(&l1, &b.link), -1) << "head of another list";
  EXPECT_EQ(values(l1), std::vector<uint32_t>{1});
  EXPECT_EQ(values(l2), std::vector<uint32_t>{2});
}

// ---- Trees ----

struct Rec {
  uint32_t key;
  uint32_t payload;
  QOR_AVL_NODE avl;
};

uint32_t avlKey(const QOR_AVL_NODE *n) {
  return reinterpret_cast<const Rec *>(reinterpret_cast<const char *>(n) - offsetof(Rec, avl))->key;
}
int avlCompare(const void *key, const QOR_AVL_NODE *node) {
  uint32_t k = *static_cast<const uint32_t *>(key), n = avlKey(node);
  return k < n ? -1 : k > n;
}
// The key found, or -1 for none.
int64_t keyOf(const void *rec) { return rec ? static_cast<const Rec *>(rec)->key : -1; }
int64_t keyOf(const QOR_AVL_NODE *n) { return n ? avlKey(n) : -1; }

// Height of the subtree, checking order bounds and the AVL balance on the way.
int checkAvl(const QOR_AVL_NODE *n, int64_t lo, int64_t hi) {
  if (!n) return 0;
  int64_t k = avlKey(n);
  EXPECT_TRUE(k > lo && k < hi);
  int l = checkAvl(n->left, lo, k), r = checkAvl(n->right, k, hi);
  EXPECT_LE(std::abs(l - r), 1);
  EXPECT_EQ(n->height, std::max(l, r) + 1);
  return std::max(l, r) + 1;
}

TEST(CollTrees, RandomInsertRemoveAndLookupsAgreeWithStdSet) {
  constexpr uint32_t kKeys = 600;
  std::vector<Rec> recs(kKeys);
  for (uint32_t i = 0; i < kKeys; ++i) recs[i] = {i * 3, i, {}};  // keys with gaps between them
  QOR_RBTREE *rb = qorRBTreeCreate("test", 0, qorRBTreeCompareUL);
  ASSERT_NE(rb, nullptr);
  QOR_AVL_TREE avl;
  qorAvlInit(&avl, avlCompare);
  std::set<uint32_t> model;
  std::mt19937 rng(2024);
  for (int step = 0; step < 30000; ++step) {
    Rec &r = recs[rng() % kKeys];
    bool present = model.count(r.key);
    if (rng() % 2) {
      ASSERT_EQ(qorRBTreeInsert(rb, &r), present ? 1 : 0);
      ASSERT_EQ(qorAvlInsertNode(&avl, &r.avl, &r.key), present ? 1 : 0);
      model.insert(r.key);
    } else {
      ASSERT_EQ(qorRBTreeRemove(rb, &r), present ? 0 : 1);
      ASSERT_EQ(qorAvlRemoveNode(&avl, &r.avl, &r.key), present ? 0 : 1);
      model.erase(r.key);
    }
    // Lookups at, between and beyond the keys.
    uint32_t probe = rng() % (kKeys * 3 + 2);
    Rec key{probe, 0, {}};
    const int64_t exact = model.count(probe) ? probe : -1;
    auto next = model.upper_bound(probe);
    const int64_t after = next == model.end() ? -1 : *next;
    ASSERT_EQ(keyOf(qorRBTreeGetExact(rb, &key)), exact);
    ASSERT_EQ(keyOf(qorAvlGetExact(&avl, &probe)), exact);
    ASSERT_EQ(keyOf(qorRBTreeGetNext(rb, &key)), after);
    ASSERT_EQ(keyOf(qorAvlGetNext(&avl, &probe)), after);
    ASSERT_EQ(qorRBTreeCount(rb), model.size());
    ASSERT_EQ(avl.count, model.size());
  }
  checkAvl(avl.root, -1, int64_t(1) << 40);
  // In-order traversals.
  std::vector<uint32_t> want(model.begin(), model.end()), walked, stepped;
  qorRBTreeWalk(rb, [](void *rec, void *arg) {
    static_cast<std::vector<uint32_t> *>(arg)->push_back(static_cast<Rec *>(rec)->key);
    return 0;
  }, &walked);
  EXPECT_EQ(walked, want);
  for (QOR_AVL_NODE *n = qorAvlGetNext(&avl, nullptr); n; n = qorAvlGetNext(&avl, &recs[avlKey(n) / 3].key))
    stepped.push_back(avlKey(n));
  EXPECT_EQ(stepped, want);
  qorRBTreeDestroy(rb);
}

TEST(CollTrees, WalkMayRemoveTheVisitedRecordAndStopsOnNonZero) {
  std::vector<Rec> recs(10);
  QOR_RBTREE *rb = qorRBTreeCreate("walk", 0, qorRBTreeCompareUL);
  for (uint32_t i = 0; i < 10; ++i) {
    recs[i] = {i, 0, {}};
    ASSERT_EQ(qorRBTreeInsert(rb, &recs[i]), 0);
  }
  struct Ctx {
    QOR_RBTREE *tree;
    int visits;
  } ctx{rb, 0};
  // Remove the odd records while walking; stop at 7.
  int rc = qorRBTreeWalk(rb, [](void *rec, void *arg) {
    auto *c = static_cast<Ctx *>(arg);
    auto *r = static_cast<Rec *>(rec);
    ++c->visits;
    if (r->key == 7) return 42;
    if (r->key % 2) qorRBTreeRemove(c->tree, r);
    return 0;
  }, &ctx);
  EXPECT_EQ(rc, 42);
  EXPECT_EQ(ctx.visits, 8);
  EXPECT_EQ(qorRBTreeCount(rb), 7u);  // 1, 3, 5 gone
  EXPECT_EQ(keyOf(qorRBTreeGetFirst(rb)), 0);
  qorRBTreeDestroy(rb);
  EXPECT_EQ(qorRBTreeCreate("none", 0, nullptr), nullptr);
}

TEST(CollTrees, AvlRefusesASecondNodeWithTheSameKeyAndRemovesOnlyTheLinkedOne) {
  QOR_AVL_TREE avl;
  qorAvlInit(&avl, avlCompare);
  Rec a{5, 1, {}}, twin{5, 2, {}};
  ASSERT_EQ(qorAvlInsertNode(&avl, &a.avl, &a.key), 0);
  EXPECT_EQ(qorAvlInsertNode(&avl, &a.avl, &a.key), 1) << "already linked";
  EXPECT_EQ(qorAvlInsertNode(&avl, &twin.avl, &twin.key), 1) << "same key";
  EXPECT_EQ(twin.avl.height, 0);
  EXPECT_EQ(qorAvlRemoveNode(&avl, &twin.avl, &twin.key), 1) << "not the linked node";
  EXPECT_EQ(qorAvlGetExact(&avl, &a.key), &a.avl);
  EXPECT_EQ(qorAvlRemoveNode(&avl, &a.avl, &a.key), 0);
  EXPECT_EQ(avl.count, 0u);
  EXPECT_EQ(qorAvlInsertNode(&avl, &twin.avl, &twin.key), 0) << "a removed node's key is free again";
}

}  // namespace
