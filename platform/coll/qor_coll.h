// Lists and ordered trees of the platform layer.
//
// - QOR_DLL: an intrusive doubly linked list. The node lives inside the caller's record (from a
//   pool, so it starts zeroed), and linking never allocates, so list operations cannot fail for
//   lack of memory. A removed node has null links again; inserting a node that is linked, or
//   removing one that is not in the list, is refused with -1 (a node that sits in another list,
//   not at its head, is beyond what the links can tell).
// - QOR_RBTREE: an ordered set of caller records under a compare function. Records are not
//   intrusive; the tree holds pointers, so an insert may fail for lack of memory.
// - QOR_AVL_TREE: an intrusive AVL tree: the node sits in the record, the tree compares a key
//   with a node through the caller's function. Never allocates.
#pragma once

#include <cstddef>
#include <cstdint>

// ---- Intrusive doubly linked list ----

struct QOR_DLL_NODE {
  QOR_DLL_NODE *next;
  QOR_DLL_NODE *prev;
};
struct QOR_DLL {
  QOR_DLL_NODE *head;
  QOR_DLL_NODE *tail;
  uint32_t count;
};

inline void qorDLLInit(QOR_DLL *list) { list->head = list->tail = nullptr, list->count = 0; }
inline void qorDLLNodeInit(QOR_DLL_NODE *node) { node->next = node->prev = nullptr; }
inline QOR_DLL_NODE *qorDLLGetFirst(const QOR_DLL *list) { return list->head; }
inline QOR_DLL_NODE *qorDLLGetLast(const QOR_DLL *list) { return list->tail; }
inline QOR_DLL_NODE *qorDLLGetNext(const QOR_DLL_NODE *node) { return node->next; }
inline QOR_DLL_NODE *qorDLLGetPrev(const QOR_DLL_NODE *node) { return node->prev; }
inline uint32_t qorDLLCount(const QOR_DLL *list) { return list->count; }
// True when the node is linked in `list` (exact for the head; for others, linked somewhere).
inline bool qorDLLIsLinked(const QOR_DLL *list, const QOR_DLL_NODE *node) {
  return node->prev || node->next || list->head == node;
}

// Each returns 0, or -1 when the node is already linked (or `at` is not linked in the list).
int qorDLLInsertAtFront(QOR_DLL *list, QOR_DLL_NODE *node);
int qorDLLInsertAtBack(QOR_DLL *list, QOR_DLL_NODE *node);
// After `at`; a null `at` inserts at the front.
int qorDLLInsertAfter(QOR_DLL *list, QOR_DLL_NODE *at, QOR_DLL_NODE *node);
// Before `at`; a null `at` inserts at the back.
int qorDLLInsertBefore(QOR_DLL *list, QOR_DLL_NODE *at, QOR_DLL_NODE *node);
// 0, or -1 when the node is not linked in the list.
int qorDLLRemove(QOR_DLL *list, QOR_DLL_NODE *node);

// The record that holds `node` as its member `M`.
template <class T, QOR_DLL_NODE T::*M>
T *qorDLLEntry(QOR_DLL_NODE *node) {
  if (!node) return nullptr;
  alignas(T) static char storage[sizeof(T)];  // only its member address is taken
  const T *probe = reinterpret_cast<const T *>(storage);
  auto off = reinterpret_cast<const char *>(&(probe->*M)) - reinterpret_cast<const char *>(probe);
  return reinterpret_cast<T *>(reinterpret_cast<char *>(node) - off);
}

// ---- Red-black tree of records ----

// Negative, zero or positive as a sorts before, with or after b (both records, or a probe
// record that carries only the key fields).
using QOR_RBT_COMPARE = int (*)(const void *a, const void *b);
struct QOR_RBTREE;

// Null when out of memory or without a compare function.
QOR_RBTREE *qorRBTreeCreate(const char *name, uint32_t flags, QOR_RBT_COMPARE compare);
// Forgets the records (it does not free them).
void qorRBTreeDestroy(QOR_RBTREE *tree);
// 0; 1 when a record with the same key is present; -1 when out of memory.
int qorRBTreeInsert(QOR_RBTREE *tree, void *rec);
// Removes the record with the key of `key`. 0, or 1 if none.
int qorRBTreeRemove(QOR_RBTREE *tree, const void *key);
void *qorRBTreeGetExact(QOR_RBTREE *tree, const void *key);
void *qorRBTreeGetFirst(QOR_RBTREE *tree);
// The first record after `key` (which need not be in the tree).
void *qorRBTreeGetNext(QOR_RBTREE *tree, const void *key);
// Visits the records in order; a non-zero result of the callback stops the walk and is
// returned. The callback may remove the record it is given, and no other.
int qorRBTreeWalk(QOR_RBTREE *tree, int (*callback)(void *rec, void *arg), void *arg);
uint32_t qorRBTreeCount(const QOR_RBTREE *tree);
const char *qorRBTreeName(const QOR_RBTREE *tree);
// Compares the first 32-bit word of two records as unsigned (the common "ordered on the first
// word" tree, e.g. interfaces by ifIndex).
int qorRBTreeCompareUL(const void *a, const void *b);

// ---- Intrusive AVL tree ----

struct QOR_AVL_NODE {
  QOR_AVL_NODE *left;
  QOR_AVL_NODE *right;
  int32_t height;  // 0 while the node is in no tree
};
// Negative, zero or positive as `key` sorts before, with or after the node's record.
using QOR_AVL_COMPARE = int (*)(const void *key, const QOR_AVL_NODE *node);
struct QOR_AVL_TREE {
  QOR_AVL_NODE *root;
  QOR_AVL_COMPARE compare;
  uint32_t count;
};

void qorAvlInit(QOR_AVL_TREE *tree, QOR_AVL_COMPARE compare);
QOR_AVL_NODE *qorAvlGetExact(const QOR_AVL_TREE *tree, const void *key);
// The first node whose key is after `key`; a null key gives the first node.
QOR_AVL_NODE *qorAvlGetNext(const QOR_AVL_TREE *tree, const void *key);
// Links `node`, whose record has the key `key`. 0; 1 when the key is present or the node is
// already in a tree.
int qorAvlInsertNode(QOR_AVL_TREE *tree, QOR_AVL_NODE *node, const void *key);
// Unlinks `node` (found by its key). 0, or 1 when that node is not in the tree.
int qorAvlRemoveNode(QOR_AVL_TREE *tree, QOR_AVL_NODE *node, const void *key);
