// Lists and trees: the intrusive list and AVL tree, and the record tree over std::set.
#include "coll/qor_coll.h"

#include <new>
#include <set>
#include <string>

// ---- Intrusive doubly linked list ----

namespace {

bool linkedIn(const QOR_DLL *list, const QOR_DLL_NODE *node) {
  return node->prev ? node->prev->next == node : list->head == node;
}

void linkBetween(QOR_DLL *list, QOR_DLL_NODE *prev, QOR_DLL_NODE *next, QOR_DLL_NODE *node) {
  node->prev = prev;
  node->next = next;
  (prev ? prev->next : list->head) = node;
  (next ? next->prev : list->tail) = node;
  ++list->count;
}

}  // namespace

int qorDLLInsertAtFront(QOR_DLL *list, QOR_DLL_NODE *node) {
  if (qorDLLIsLinked(list, node)) return -1;
  linkBetween(list, nullptr, list->head, node);
  return 0;
}

int qorDLLInsertAtBack(QOR_DLL *list, QOR_DLL_NODE *node) {
  if (qorDLLIsLinked(list, node)) return -1;
  linkBetween(list, list->tail, nullptr, node);
  return 0;
}

int qorDLLInsertAfter(QOR_DLL *list, QOR_DLL_NODE *at, QOR_DLL_NODE *node) {
  if (!at) return qorDLLInsertAtFront(list, node);
  if (qorDLLIsLinked(list, node) || !linkedIn(list, at)) return -1;
  linkBetween(list, at, at->next, node);
  return 0;
}

int qorDLLInsertBefore(QOR_DLL *list, QOR_DLL_NODE *at, QOR_DLL_NODE *node) {
  if (!at) return qorDLLInsertAtBack(list, node);
  if (qorDLLIsLinked(list, node) || !linkedIn(list, at)) return -1;
  linkBetween(list, at->prev, at, node);
  return 0;
}

int qorDLLRemove(QOR_DLL *list, QOR_DLL_NODE *node) {
  if (!linkedIn(list, node) || (!node->next && list->tail != node)) return -1;
  (node->prev ? node->prev->next : list->head) = node->next;
  (node->next ? node->next->prev : list->tail) = node->prev;
  node->next = node->prev = nullptr;
  --list->count;
  return 0;
}

// ---- Red-black tree of records ----

namespace {
struct RecLess {
  QOR_RBT_COMPARE compare;
  bool operator()(const void *a, const void *b) const { return compare(a, b) < 0; }
};
}  // namespace

struct QOR_RBTREE {
  std::string name;
  std::set<void *, RecLess> set;
  QOR_RBTREE(const char *n, QOR_RBT_COMPARE c) : name(n ? n : ""), set(RecLess{c}) {}
};

QOR_RBTREE *qorRBTreeCreate(const char *name, uint32_t, QOR_RBT_COMPARE compare) {
  if (!compare) return nullptr;
  try {
    return new QOR_RBTREE(name, compare);
  } catch (...) {
    return nullptr;
  }
}

void qorRBTreeDestroy(QOR_RBTREE *tree) { delete tree; }

int qorRBTreeInsert(QOR_RBTREE *tree, void *rec) {
  try {
    return tree->set.insert(rec).second ? 0 : 1;
  } catch (const std::bad_alloc &) {
    return -1;
  }
}

int qorRBTreeRemove(QOR_RBTREE *tree, const void *key) {
  return tree->set.erase(const_cast<void *>(key)) ? 0 : 1;
}

void *qorRBTreeGetExact(QOR_RBTREE *tree, const void *key) {
  auto it = tree->set.find(const_cast<void *>(key));
  return it == tree->set.end() ? nullptr : *it;
}

void *qorRBTreeGetFirst(QOR_RBTREE *tree) { return tree->set.empty() ? nullptr : *tree->set.begin(); }

void *qorRBTreeGetNext(QOR_RBTREE *tree, const void *key) {
  auto it = tree->set.upper_bound(const_cast<void *>(key));
  return it == tree->set.end() ? nullptr : *it;
}

int qorRBTreeWalk(QOR_RBTREE *tree, int (*callback)(void *rec, void *arg), void *arg) {
  for (auto it = tree->set.begin(); it != tree->set.end();) {
    void *rec = *it++;  // step first: the callback may remove `rec`
    if (int rc = callback(rec, arg)) return rc;
  }
  return 0;
}

uint32_t qorRBTreeCount(const QOR_RBTREE *tree) { return uint32_t(tree->set.size()); }
const char *qorRBTreeName(const QOR_RBTREE *tree) { return tree->name.c_str(); }

int qorRBTreeCompareUL(const void *a, const void *b) {
  uint32_t x = *static_cast<const uint32_t *>(a), y = *static_cast<const uint32_t *>(b);
  return x < y ? -1 : x > y;
}

// ---- Intrusive AVL tree ----

namespace {

int32_t height(const QOR_AVL_NODE *n) { return n ? n->height : 0; }
void fix(QOR_AVL_NODE *n) {
  int32_t l = height(n->left), r = height(n->right);
  n->height = (l > r ? l : r) + 1;
}
QOR_AVL_NODE *rotateRight(QOR_AVL_NODE *n) {
  QOR_AVL_NODE *l = n->left;
  n->left = l->right;
  l->right = n;
  fix(n);
  fix(l);
  return l;
}
QOR_AVL_NODE *rotateLeft(QOR_AVL_NODE *n) {
  QOR_AVL_NODE *r = n->right;
  n->right = r->left;
  r->left = n;
  fix(n);
  fix(r);
  return r;
}
QOR_AVL_NODE *balance(QOR_AVL_NODE *n) {
  fix(n);
  int32_t b = height(n->left) - height(n->right);
  if (b > 1) {
    if (height(n->left->left) < height(n->left->right)) n->left = rotateLeft(n->left);
    return rotateRight(n);
  }
  if (b < -1) {
    if (height(n->right->right) < height(n->right->left)) n->right = rotateRight(n->right);
    return rotateLeft(n);
  }
  return n;
}

QOR_AVL_NODE *insert(QOR_AVL_NODE *t, QOR_AVL_NODE *node, const void *key, QOR_AVL_COMPARE cmp, bool &dup) {
  if (!t) {
    node->left = node->right = nullptr;
    node->height = 1;
    return node;
  }
  int c = cmp(key, t);
  if (c == 0) {
    dup = true;
    return t;
  }
  if (c < 0)
    t->left = insert(t->left, node, key, cmp, dup);
  else
    t->right = insert(t->right, node, key, cmp, dup);
  return dup ? t : balance(t);
}

QOR_AVL_NODE *removeMin(QOR_AVL_NODE *t, QOR_AVL_NODE *&min) {
  if (!t->left) {
    min = t;
    return t->right;
  }
  t->left = removeMin(t->left, min);
  return balance(t);
}

QOR_AVL_NODE *remove(QOR_AVL_NODE *t, QOR_AVL_NODE *node, const void *key, QOR_AVL_COMPARE cmp, bool &found) {
  if (!t) return nullptr;
  int c = cmp(key, t);
  if (c < 0) {
    t->left = remove(t->left, node, key, cmp, found);
  } else if (c > 0) {
    t->right = remove(t->right, node, key, cmp, found);
  } else {
    if (t != node) return t;  // another record with this key: not ours to remove
    found = true;
    if (!t->left || !t->right) return t->left ? t->left : t->right;
    QOR_AVL_NODE *min = nullptr;
    QOR_AVL_NODE *right = removeMin(t->right, min);
    min->left = t->left;
    min->right = right;
    return balance(min);
  }
  return found ? balance(t) : t;
}

}  // namespace

void qorAvlInit(QOR_AVL_TREE *tree, QOR_AVL_COMPARE compare) {
  tree->root = nullptr;
  tree->compare = compare;
  tree->count = 0;
}

QOR_AVL_NODE *qorAvlGetExact(const QOR_AVL_TREE *tree, const void *key) {
  QOR_AVL_NODE *t = tree->root;
  while (t) {
    int c = tree->compare(key, t);
    if (c == 0) return t;
    t = c < 0 ? t->left : t->right;
  }
  return nullptr;
}

QOR_AVL_NODE *qorAvlGetNext(const QOR_AVL_TREE *tree, const void *key) {
  QOR_AVL_NODE *t = tree->root, *best = nullptr;
  while (t) {
    if (!key || tree->compare(key, t) < 0) {
      best = t;
      t = t->left;
    } else {
      t = t->right;
    }
  }
  return best;
}

int qorAvlInsertNode(QOR_AVL_TREE *tree, QOR_AVL_NODE *node, const void *key) {
  if (node->height != 0) return 1;
  bool dup = false;
  tree->root = insert(tree->root, node, key, tree->compare, dup);
  if (dup) {
    node->height = 0;
    return 1;
  }
  ++tree->count;
  return 0;
}

int qorAvlRemoveNode(QOR_AVL_TREE *tree, QOR_AVL_NODE *node, const void *key) {
  bool found = false;
  tree->root = remove(tree->root, node, key, tree->compare, found);
  if (!found) return 1;
  node->left = node->right = nullptr;
  node->height = 0;
  --tree->count;
  return 0;
}
