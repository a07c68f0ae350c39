// The radix tree: a path-compressed binary trie of prefixes.
//
// Shape. Every node stands for one prefix, its first rn_bit bits; a child extends its parent's
// prefix and sits on the side of the key bit at position rn_bit. A node holds a head when its
// prefix is in the tree; otherwise it is internal and has two children (it exists only because
// two subtrees diverge there), so a tree of N heads has fewer than 2N nodes.
//
// Lookups go down testing one bit per node without looking at keys, remember the nodes with
// heads they passed, and compare the key once, against the deepest node reached: the first
// differing bit tells at once which of the remembered prefixes match. Each node keeps the first
// 32 bits of its prefix (rn_key32), so for IPv4 the whole search touches nodes only; wider keys
// read a head's key only when those 32 bits do not decide.
//
// Accelerator. At 1M prefixes a lookup from the root passes some 20 nodes, most of them cache
// misses. Once a tree holds rdx_accelMin heads it builds a direct table on the first 16 key
// bits: per block, the topmost node of length >= 16 in the block (every prefix of 16 bits or
// more in the block lies under it) and the longest prefix shorter than 16 bits that covers the
// block. Exact and best lookups and inserts of 16 bits or more start there. The table is kept
// up to date by the few places that change the shape: a new node, a node that leaves, and the
// short prefixes, which fill ranges of blocks.
//
// Node memory comes from the tree's allocator, which may fail: an insert takes its one or two
// nodes before touching the tree, so a failure leaves the tree as it was. Remove never
// allocates.
#include "radix/qor_radix.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "log/qor_log.h"
#include "radix/qor_radix_list.h"
#include "rtm/rtm_wire.h"

using namespace qor_radix_detail;

namespace qor_radix_detail {
qor_radix_node g_walkerMark{};
qor_radix_node g_anchorMark{};
}  // namespace qor_radix_detail

// Direct table on the first kAccelBits bits of the key.
constexpr unsigned kAccelBits = 16;
constexpr size_t kAccelSlots = size_t(1) << kAccelBits;

struct QorRadixAccel {
  struct Slot {
    qor_radix_node *top;        // topmost node of length >= kAccelBits in the block, or null
    qor_radix_hdr *shortBest;   // longest head shorter than kAccelBits covering the block
  };
  Slot slot[kAccelSlots];
};

namespace {

std::atomic<uint64_t> g_treeSerial{0};

// A key as two host words, most significant bit first.
struct Key {
  uint64_t hi, lo;
};

inline Key loadKey(const uint8_t *p, unsigned nbytes) {
  if (nbytes == 4) return {uint64_t(rtm::ld32(p)) << 32, 0};
  if (nbytes == 16) return {rtm::ld64(p), rtm::ld64(p, 8)};
  Key k{0, 0};
  for (unsigned i = 0; i < nbytes; ++i) {
    if (i < 8) k.hi |= uint64_t(p[i]) << (56 - 8 * i);
    else k.lo |= uint64_t(p[i]) << (56 - 8 * (i - 8));
  }
  return k;
}

inline Key maskKey(Key k, unsigned len) {
  if (len < 64) {
    k.hi = len ? k.hi & (~uint64_t(0) << (64 - len)) : 0;
    k.lo = 0;
  } else if (len < 128) {
    k.lo = len > 64 ? k.lo & (~uint64_t(0) << (128 - len)) : 0;
  }
  return k;
}

inline unsigned bitAt(const Key &k, unsigned i) {
  return i < 64 ? unsigned(k.hi >> (63 - i)) & 1 : unsigned(k.lo >> (127 - i)) & 1;
}

inline uint32_t top32(const Key &k) { return uint32_t(k.hi >> 32); }

inline uint32_t mask32(uint32_t v, unsigned len) {
  return len >= 32 ? v : len ? v & (~uint32_t(0) << (32 - len)) : 0;
}

// First bit where a and b differ, 128 when equal.
inline unsigned firstDiff(const Key &a, const Key &b) {
  if (uint64_t x = a.hi ^ b.hi) return unsigned(__builtin_clzll(x));
  if (uint64_t x = a.lo ^ b.lo) return 64 + unsigned(__builtin_clzll(x));
  return 128;
}

inline Key headKey(const qor_radix_tree *t, const qor_radix_hdr *h) {
  return loadKey(h->rtmh_key, t->rdx_keyBytes);
}

// The key of some head under n: all of them share n's prefix.
inline Key refKey(const qor_radix_tree *t, const qor_radix_node *n) {
  while (!n->rn_head) n = n->rn_child[0];
  return headKey(t, n->rn_head);
}

// First bit, below `limit` (<= n->rn_bit), where k differs from n's prefix; limit if none.
inline unsigned diffNode(const qor_radix_tree *t, const Key &k, const qor_radix_node *n,
                         unsigned limit) {
  if (uint32_t x = top32(k) ^ n->rn_key32) {
    unsigned d = unsigned(__builtin_clz(x));
    return d < limit ? d : limit;
  }
  if (limit <= 32) return limit;
  unsigned d = firstDiff(k, refKey(t, n));
  return d < limit ? d : limit;
}

// The bit at `pos` (< n->rn_bit) of n's prefix.
inline unsigned nodeBit(const qor_radix_tree *t, const qor_radix_node *n, unsigned pos) {
  if (pos < 32) return (n->rn_key32 >> (31 - pos)) & 1;
  return bitAt(refKey(t, n), pos);
}

inline unsigned blockOf(uint32_t key32) { return key32 >> (32 - kAccelBits); }

// ---- Node memory ----

qor_radix_node *newNode(qor_radix_tree *t, unsigned bit, uint32_t key32, qor_radix_hdr *head) {
  void *m = t->rdx_alloc(sizeof(qor_radix_node));
  if (!m) {
    ++t->rdx_allocFails;
    return nullptr;
  }
  auto *n = new (m) qor_radix_node{};
  n->rn_bit = uint8_t(bit);
  n->rn_key32 = mask32(key32, bit);
  n->rn_head = head;
  n->rn_flags = head ? 0 : QOR_RADIX_INTERNAL;
  ++t->rdx_nodes;
  t->rdx_nodeBytes += sizeof(qor_radix_node);
  return n;
}

void freeNode(qor_radix_tree *t, qor_radix_node *n) {
  --t->rdx_nodes;
  t->rdx_nodeBytes -= sizeof(qor_radix_node);
  t->rdx_free(n);
}

// y takes x's place under x's parent.
inline void replaceInParent(qor_radix_tree *t, qor_radix_node *x, qor_radix_node *y) {
  qor_radix_node *p = x->rn_parent;
  if (y) y->rn_parent = p;
  if (!p) t->rdx_root = y;
  else p->rn_child[p->rn_child[1] == x] = y;
}

// ---- Order ----

inline qor_radix_node *firstHeadedIn(qor_radix_node *n) {
  while (n && !n->rn_head) n = n->rn_child[0];  // an internal node always has child 0
  return n;
}

// The first node in pre-order after n's whole subtree.
inline qor_radix_node *afterSubtree(const qor_radix_node *n) {
  for (const qor_radix_node *p = n->rn_parent; p; n = p, p = p->rn_parent)
    if (p->rn_child[0] == n && p->rn_child[1]) return p->rn_child[1];
  return nullptr;
}

inline qor_radix_node *nextPre(const qor_radix_node *n) {
  if (n->rn_child[0]) return n->rn_child[0];
  if (n->rn_child[1]) return n->rn_child[1];
  return afterSubtree(n);
}

// The first node holding a head that comes after (k, len) in tree order.
qor_radix_node *nextAfterKey(const qor_radix_tree *t, const Key &k, unsigned len) {
  qor_radix_node *n = t->rdx_root;
  if (!n) return nullptr;
  while (n->rn_bit < len) {
    qor_radix_node *c = n->rn_child[bitAt(k, n->rn_bit)];
    if (!c) break;
    n = c;
  }
  unsigned d = diffNode(t, k, n, std::min<unsigned>(len, n->rn_bit));
  qor_radix_node *x = n;
  while (x->rn_parent && x->rn_parent->rn_bit >= d) x = x->rn_parent;
  if (d == len) {
    // (k, len) is x itself, or a prefix of everything under x.
    return firstHeadedIn(x->rn_bit == len ? nextPre(x) : x);
  }
  if (x->rn_bit == d) {
    // (k, len) would hang in x's empty slot on side bitAt(k, d).
    if (bitAt(k, d) == 0 && x->rn_child[1]) return firstHeadedIn(x->rn_child[1]);
    return firstHeadedIn(afterSubtree(x));
  }
  // (k, len) and x's subtree part at bit d: all of x's subtree is on one side of it.
  return firstHeadedIn(bitAt(k, d) == 0 ? x : afterSubtree(x));
}

// ---- Accelerator ----

inline void accelNewNode(qor_radix_tree *t, qor_radix_node *y) {
  if (t->rdx_accel && y->rn_bit >= kAccelBits && (!y->rn_parent || y->rn_parent->rn_bit < kAccelBits))
    t->rdx_accel->slot[blockOf(y->rn_key32)].top = y;
}

// x leaves its place; c (or nothing) takes it.
inline void accelReplaced(qor_radix_tree *t, const qor_radix_node *x, qor_radix_node *c) {
  if (t->rdx_accel && x->rn_bit >= kAccelBits && (!x->rn_parent || x->rn_parent->rn_bit < kAccelBits))
    t->rdx_accel->slot[blockOf(x->rn_key32)].top = c;
}

inline void accelShortAdd(qor_radix_tree *t, qor_radix_node *n) {
  if (!t->rdx_accel || n->rn_bit >= kAccelBits) return;
  size_t first = blockOf(n->rn_key32), count = size_t(1) << (kAccelBits - n->rn_bit);
  for (size_t i = first; i < first + count; ++i) {
    qor_radix_hdr *&b = t->rdx_accel->slot[i].shortBest;
    if (!b || b->rdx_node->rn_bit < n->rn_bit) b = n->rn_head;
  }
}

inline void accelShortRemove(qor_radix_tree *t, const qor_radix_node *n, qor_radix_hdr *repl) {
  if (!t->rdx_accel || n->rn_bit >= kAccelBits) return;
  size_t first = blockOf(n->rn_key32), count = size_t(1) << (kAccelBits - n->rn_bit);
  for (size_t i = first; i < first + count; ++i)
    if (t->rdx_accel->slot[i].shortBest == n->rn_head) t->rdx_accel->slot[i].shortBest = repl;
}

void accelBuild(qor_radix_tree *t) {
  auto *a = static_cast<QorRadixAccel *>(std::calloc(1, sizeof(QorRadixAccel)));
  if (!a) return;  // lookups just start at the root
  t->rdx_accel = a;
  // Pre-order meets a covering prefix before the ones it covers, so longer ones win.
  for (qor_radix_node *n = t->rdx_root; n; n = nextPre(n)) {
    if (n->rn_head) accelShortAdd(t, n);
    accelNewNode(t, n);
  }
}

void accelDrop(qor_radix_tree *t) {
  std::free(t->rdx_accel);
  t->rdx_accel = nullptr;
}

inline bool accelUsable(const qor_radix_tree *t, unsigned len) {
  return t->rdx_accel && len >= kAccelBits;
}

qor_radix_hdr *insertHead(qor_radix_tree *t, qor_radix_hdr *head, unsigned len, bool attach) {
  if (!t || !head || !head->rtmh_key || len > t->rdx_keyBits) return nullptr;
  if (head->rdx_node) return nullptr;  // in a tree already
  const Key k = maskKey(headKey(t, head), len);
  const uint32_t k32 = top32(k);
  qor_radix_node *n = t->rdx_root;
  if (accelUsable(t, len))
    if (qor_radix_node *top = t->rdx_accel->slot[blockOf(k32)].top) n = top;
  qor_radix_node *fresh = nullptr, *split = nullptr;
  if (!n) {
    if (!(fresh = newNode(t, len, k32, head))) return nullptr;
    t->rdx_root = fresh;
  } else {
    while (n->rn_bit < len) {
      qor_radix_node *c = n->rn_child[bitAt(k, n->rn_bit)];
      if (!c) break;
      n = c;
    }
    const unsigned d = diffNode(t, k, n, std::min<unsigned>(len, n->rn_bit));
    qor_radix_node *x = n;
    while (x->rn_parent && x->rn_parent->rn_bit >= d) x = x->rn_parent;
    if (d == len && x->rn_bit == len) {
      if (x->rn_head) return attach ? x->rn_head : nullptr;
      x->rn_head = head;  // an internal node at exactly this prefix takes the head
      x->rn_flags &= uint8_t(~QOR_RADIX_INTERNAL);
      fresh = x;
    } else if (d == len) {
      // The new prefix covers x: it goes between x and x's parent.
      if (!(fresh = newNode(t, len, k32, head))) return nullptr;
      unsigned b = nodeBit(t, x, len);
      replaceInParent(t, x, fresh);
      fresh->rn_child[b] = x;
      x->rn_parent = fresh;
    } else if (x->rn_bit == d) {
      // x's prefix covers the new one and x's slot on its side is empty.
      if (!(fresh = newNode(t, len, k32, head))) return nullptr;
      x->rn_child[bitAt(k, d)] = fresh;
      fresh->rn_parent = x;
    } else {
      // The keys part at bit d above x: a new internal node joins x and the new prefix.
      if (!(split = newNode(t, d, k32, nullptr))) return nullptr;
      if (!(fresh = newNode(t, len, k32, head))) {
        freeNode(t, split);
        return nullptr;
      }
      unsigned b = bitAt(k, d);
      replaceInParent(t, x, split);
      split->rn_child[b] = fresh;
      split->rn_child[b ^ 1] = x;
      fresh->rn_parent = split;
      x->rn_parent = split;
      accelNewNode(t, split);
    }
  }
  head->rdx_node = fresh;
  accelNewNode(t, fresh);
  accelShortAdd(t, fresh);
  ++t->rdx_heads;
  ++t->rdx_gen;
  if (!t->rdx_accel && t->rdx_accelMin && t->rdx_heads >= t->rdx_accelMin) accelBuild(t);
  return head;
}

}  // namespace

// ---- The tree ----

qor_radix_tree *qorRadixCreate(const char *name, unsigned keyBits, QorRadixAllocFn allocFn,
                               QorRadixFreeFn freeFn, int flags) {
  if (keyBits == 0 || keyBits > 128) return nullptr;
  auto *t = static_cast<qor_radix_tree *>(std::calloc(1, sizeof(qor_radix_tree)));
  if (!t) return nullptr;
  t->rdx_keyBits = keyBits;
  t->rdx_keyBytes = (keyBits + 7) / 8;
  t->rdx_maxVersion = UINT64_MAX;
  t->rdx_alloc = allocFn ? allocFn : std::malloc;
  t->rdx_free = freeFn ? freeFn : std::free;
  t->rdx_accelMin = keyBits >= 24 ? QOR_RADIX_ACCEL_MIN : 0;
  t->rdl_serial = ++g_treeSerial;
  listInit(&t->rdl_anchor);
  if (name) std::strncpy(t->rdx_name, name, sizeof t->rdx_name - 1);
  return t;
}

void qorRadixDestroy(qor_radix_tree *tree) {
  if (!tree) return;
  tree->rdx_lock = 0;
  // Post-order without a stack: cut each child link on the way down, free on the way up.
  qor_radix_node *n = tree->rdx_root;
  while (n) {
    if (qor_radix_node *c = n->rn_child[0]) {
      n->rn_child[0] = nullptr;
      n = c;
    } else if (qor_radix_node *c1 = n->rn_child[1]) {
      n->rn_child[1] = nullptr;
      n = c1;
    } else {
      qor_radix_node *p = n->rn_parent;
      freeNode(tree, n);
      n = p;
    }
  }
  accelDrop(tree);
  std::free(tree);
}

qor_radix_hdr *qorRadixInsert(qor_radix_tree *tree, qor_radix_hdr *head, unsigned prefixlen) {
  return insertHead(tree, head, prefixlen, false);
}

qor_radix_hdr *qorRadixAttach(qor_radix_tree *tree, qor_radix_hdr *head, unsigned prefixlen) {
  return insertHead(tree, head, prefixlen, true);
}

int qorRadixRemove(qor_radix_tree *tree, qor_radix_hdr *head) {
  if (!tree || !head) return 1;
  qor_radix_node *n = head->rdx_node;
  if (!n || n == &g_walkerMark || n == &g_anchorMark || n->rn_head != head) return 1;
#ifndef NDEBUG
  {
    const qor_radix_node *r = n;
    while (r->rn_parent) r = r->rn_parent;
    if (r != tree->rdx_root) {
      QOR_ASSERT(r == tree->rdx_root);  // the head belongs to another tree
      return 1;
    }
  }
#endif
  if (head->rdl_link.rdl_next) listUnlink(head);
  if (tree->rdx_accel && n->rn_bit < kAccelBits) {
    const qor_radix_node *p = n->rn_parent;
    while (p && !p->rn_head) p = p->rn_parent;
    accelShortRemove(tree, n, p ? p->rn_head : nullptr);
  }
  head->rdx_node = nullptr;
  n->rn_head = nullptr;
  --tree->rdx_heads;
  ++tree->rdx_gen;
  if (n->rn_child[0] && n->rn_child[1]) {
    n->rn_flags |= QOR_RADIX_INTERNAL;  // still joins two subtrees
  } else if (qor_radix_node *c = n->rn_child[0] ? n->rn_child[0] : n->rn_child[1]) {
    accelReplaced(tree, n, c);
    replaceInParent(tree, n, c);
    freeNode(tree, n);
  } else {
    qor_radix_node *p = n->rn_parent;
    accelReplaced(tree, n, nullptr);
    replaceInParent(tree, n, nullptr);
    freeNode(tree, n);
    if (p && !p->rn_head) {
      // An internal parent left with one child has no reason to exist.
      qor_radix_node *s = p->rn_child[0] ? p->rn_child[0] : p->rn_child[1];
      accelReplaced(tree, p, s);
      replaceInParent(tree, p, s);
      freeNode(tree, p);
    }
  }
  if (tree->rdx_accel && tree->rdx_heads < tree->rdx_accelMin / 4) accelDrop(tree);
  return 0;
}

qor_radix_hdr *qorRadixGetExact(qor_radix_tree *tree, const void *key, unsigned prefixlen) {
  if (!tree || !key || prefixlen > tree->rdx_keyBits) return nullptr;
  const Key k = maskKey(loadKey(static_cast<const uint8_t *>(key), tree->rdx_keyBytes), prefixlen);
  const qor_radix_node *n = accelUsable(tree, prefixlen)
                                ? tree->rdx_accel->slot[blockOf(top32(k))].top
                                : tree->rdx_root;
  while (n && n->rn_bit < prefixlen) n = n->rn_child[bitAt(k, n->rn_bit)];
  if (!n || n->rn_bit != prefixlen || !n->rn_head) return nullptr;
  return diffNode(tree, k, n, prefixlen) == prefixlen ? n->rn_head : nullptr;
}

qor_radix_hdr *qorRadixGetBest(qor_radix_tree *tree, const void *key, unsigned prefixlen) {
  if (!tree || !key) return nullptr;
  if (prefixlen > tree->rdx_keyBits) prefixlen = tree->rdx_keyBits;
  const Key k = maskKey(loadKey(static_cast<const uint8_t *>(key), tree->rdx_keyBytes), prefixlen);
  const qor_radix_node *n = tree->rdx_root;
  qor_radix_hdr *fallback = nullptr;  // covers k whatever the search below finds
  if (accelUsable(tree, prefixlen)) {
    const QorRadixAccel::Slot &s = tree->rdx_accel->slot[blockOf(top32(k))];
    n = s.top;
    fallback = s.shortBest;
  }
  const qor_radix_node *passed[130];  // nodes with heads on the way down, shortest first
  unsigned np = 0;
  const qor_radix_node *last = nullptr;
  while (n && n->rn_bit <= prefixlen) {
    if (n->rn_head) passed[np++] = n;
    last = n;
    if (n->rn_bit == prefixlen) break;
    n = n->rn_child[bitAt(k, n->rn_bit)];
  }
  if (!np) return fallback;
  // Every passed prefix is a prefix of last's, so those no longer than the match length match.
  const unsigned m = diffNode(tree, k, last, last->rn_bit);
  while (np && passed[np - 1]->rn_bit > m) --np;
  return np ? passed[np - 1]->rn_head : fallback;
}

qor_radix_hdr *qorRadixGetLessSpecific(qor_radix_tree *tree, const qor_radix_hdr *head) {
  if (!tree || !head || !head->rdx_node || head->rdx_node->rn_head != head) return nullptr;
  const qor_radix_node *p = head->rdx_node->rn_parent;
  while (p && !p->rn_head) p = p->rn_parent;
  return p ? p->rn_head : nullptr;
}

qor_radix_hdr *qorRadixGetNext(qor_radix_tree *tree, const qor_radix_hdr *head) {
  if (!tree) return nullptr;
  qor_radix_node *n;
  if (!head) {
    n = firstHeadedIn(tree->rdx_root);
  } else {
    if (!head->rdx_node || head->rdx_node->rn_head != head) return nullptr;
    n = firstHeadedIn(nextPre(head->rdx_node));
  }
  return n ? n->rn_head : nullptr;
}

qor_radix_hdr *qorRadixGetNext(qor_radix_tree *tree, const void *key, unsigned prefixlen) {
  if (!tree || !key || prefixlen > tree->rdx_keyBits) return nullptr;
  const Key k = maskKey(loadKey(static_cast<const uint8_t *>(key), tree->rdx_keyBytes), prefixlen);
  qor_radix_node *n = nextAfterKey(tree, k, prefixlen);
  return n ? n->rn_head : nullptr;
}

int qorRadixWalk(qor_radix_tree *tree, int order, QorRadixWalkCB cb, int flags, void *arg) {
  if (!tree || !cb) return -1;
  qor_radix_node *n = firstHeadedIn(tree->rdx_root);
  while (n) {
    qor_radix_hdr *head = n->rn_head;
    qor_radix_node *next = firstHeadedIn(nextPre(n));
    const uint64_t gen = tree->rdx_gen;
    const unsigned len = n->rn_bit;
    const Key k = maskKey(headKey(tree, head), len);  // the head may be gone after the call
    if (int r = cb(head, arg)) return r;
    if (tree->rdx_gen != gen) next = nextAfterKey(tree, k, len);
    n = next;
  }
  return 0;
}

qor_radix_node *qorRadixNodeFirst(const qor_radix_tree *tree) { return tree ? tree->rdx_root : nullptr; }

qor_radix_node *qorRadixNodeNext(const qor_radix_node *node) { return node ? nextPre(node) : nullptr; }

size_t qorRadixBytes(const qor_radix_tree *tree) {
  if (!tree) return 0;
  return sizeof(qor_radix_tree) + tree->rdx_nodeBytes + (tree->rdx_accel ? sizeof(QorRadixAccel) : 0);
}
