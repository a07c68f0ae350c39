// The radix tree: a path-compressed binary trie of prefixes.
//
// Shape. Every node stands for one prefix, its first prefix-length bits; a child extends its parent's
// prefix and sits on the side of the key bit at position of its length. A head is the node of its own
// prefix (its header is the node); any other node is internal and has two children (it exists
// only because two subtrees diverge there), so a tree of N heads has fewer than N internal
// nodes, and the internal ones are all the tree allocates.
//
// Lookups go down testing one bit per node without looking at keys, remember the nodes with
// heads they passed, and compare the key once, against the deepest node reached: the first
// differing bit tells at once which of the remembered prefixes match. Each node keeps the first
// 32 bits of its prefix (the key bytes of the node), so for IPv4 the whole search touches nodes only; wider keys
// read a head's key only when those 32 bits do not decide.
//
// Accelerator. At 1M prefixes a lookup from the root passes some 20 nodes, most of them cache
// misses. Once a tree holds rdx_accelMin heads it builds a direct table on the first S key bits
// (S from 12 to 20, growing with the tree so that a block holds about one prefix). Per block it
// keeps the topmost node of length >= S in the block (every prefix of S bits or more in the
// block lies under it) or, for an empty block, a node above it from which an insert can start;
// and the longest prefix shorter than S that covers the block. Exact and best lookups of S bits
// or more, and inserts, start there: a lookup costs the table and a node or two. The table is
// kept up to date by the few places that change the shape (a new node, a node that leaves) and
// by the short prefixes, which fill ranges of blocks.
//
// Node memory comes from the tree's allocator, which may fail: an insert takes the one node it
// may need before touching the tree, so a failure leaves the tree as it was. Remove never
// allocates: a head with two children leaves an internal node in its place, and the tree keeps
// a spare for each such head (rdx_fullHeads), taken by the insert that gave it the second.
#include "radix/qor_radix.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <utility>

#include <sys/mman.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#define QOR_RADIX_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QOR_RADIX_LSAN 1
#endif
#endif
#ifdef QOR_RADIX_LSAN
#include <sanitizer/lsan_interface.h>
#endif

#include "log/qor_log.h"
#include "radix/qor_radix_list.h"
#include "rtm/rtm_wire.h"

using namespace qor_radix_detail;


// Direct table on the first `bits` bits of the key. A slot holds the block's topmost node, or,
// with bit 0 set, a node above the block whose prefix covers it (where an insert into the empty
// block starts), or 0 (start at the root). The short prefixes are in an array of their own, so
// the array every operation reads stays as small as it can be.
struct QorRadixTablePrep;
struct QorRadixAccel {
  unsigned bits = 0;
  uint64_t growAt = 0, shrinkAt = 0;  // head counts at which the stride is reconsidered
  uint64_t prepAt = UINT64_MAX;       // head count at which the next table is made ready (growAt
                                      // once it is under way)
  size_t bytes = 0;                   // of both arrays, for the accounting
  uintptr_t *slot = nullptr;
  qor_radix_hdr **shortBest = nullptr;  // longest head shorter than `bits` covering the block
  std::shared_ptr<QorRadixTablePrep> prep;  // the next table's memory, being made ready
};

// Memory for a tree's next, larger table, allocated and faulted in on a thread of its own while
// the tree grows towards it. Memory the process has not used before is the dearest thing a
// table load meets here (under a hypervisor a fresh page costs the host's fault as well as the
// guest's): taken on the route path, the four tables a tree passes through on its way to a
// million prefixes (21 MB in all) cost a fifth of the load. The pools' chunks are made ready
// the same way (platform/mem). Shared by the tree and the thread, so that either may go first.
//
// The price is memory held ahead of need: a tree that stops growing between halfway and the
// growth keeps the next table, four times its own, ready and unused (4 MB at 46,000 to 92,000
// heads, 16 MB at 185,000 to 370,000, against 7 to 60 MB of the tree's own records there).
struct QorRadixTablePrep {
  size_t bytes = 0;
  pid_t pid = 0;  // of the process whose thread makes it ready: a child after fork has none
  void *mem = nullptr;
  std::atomic<bool> ready{false};
  ~QorRadixTablePrep() { std::free(mem); }
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
  return loadKey(qorRadixKey(h), t->rdx_keyBytes);
}

inline qor_radix_node *child(const qor_radix_node *n, unsigned side) { return qorRadixChild(n, side); }
inline qor_radix_node *parent(const qor_radix_node *n) { return qorRadixParent(n); }
inline unsigned blen(const qor_radix_node *n) { return qorRadixBit(n); }
inline uint32_t key32(const qor_radix_node *n) { return qorRadixKey32(n); }
inline uint8_t flags(const qor_radix_node *n) { return qorRadixFlags(n); }

// A node with no links: its three words written whole, not field by field.
inline void initNode(qor_radix_node *n, unsigned bit, uint8_t fl, uint32_t k32) {
  n->rn_w[0] = uint64_t(bit & 0xFF) << 48 | uint64_t(fl) << 56;
  n->rn_w[1] = uint64_t(k32 >> 24) << 48 | uint64_t((k32 >> 16) & 0xFF) << 56;
  n->rn_w[2] = uint64_t((k32 >> 8) & 0xFF) | uint64_t(k32 & 0xFF) << 8;
}

inline bool isHead(const qor_radix_node *n) { return !(flags(n) & QOR_RADIX_INTERNAL); }

// The key of some head under n: all of them share n's prefix.
inline Key refKey(const qor_radix_tree *t, const qor_radix_node *n) {
  while (flags(n) & QOR_RADIX_INTERNAL) n = child(n, 0);
  return headKey(t, n);
}

// First bit, below `limit` (<= blen(n)), where k differs from n's prefix; limit if none.
inline unsigned diffNode(const qor_radix_tree *t, const Key &k, const qor_radix_node *n,
                         unsigned limit) {
  if (uint32_t x = top32(k) ^ key32(n)) {
    unsigned d = unsigned(__builtin_clz(x));
    return d < limit ? d : limit;
  }
  if (limit <= 32) return limit;
  unsigned d = firstDiff(k, refKey(t, n));
  return d < limit ? d : limit;
}

// The bit at `pos` (< blen(n)) of n's prefix.
inline unsigned nodeBit(const qor_radix_tree *t, const qor_radix_node *n, unsigned pos) {
  if (pos < 32) return (key32(n) >> (31 - pos)) & 1;
  return bitAt(refKey(t, n), pos);
}

inline size_t blockOf(const QorRadixAccel *a, uint32_t key32) { return key32 >> (32 - a->bits); }

constexpr uintptr_t kHint = 1;

// The block's topmost node, or null when the block is empty.
inline qor_radix_node *slotTop(uintptr_t v) {
  return v & kHint ? nullptr : reinterpret_cast<qor_radix_node *>(v);
}
// Where an insert into the block starts: its topmost node or the node above it; null: the root.
inline qor_radix_node *slotStart(uintptr_t v) { return reinterpret_cast<qor_radix_node *>(v & ~kHint); }
inline uintptr_t hintOf(const qor_radix_node *n) { return n ? reinterpret_cast<uintptr_t>(n) | kHint : 0; }

// Asks for the lines of a node: its 24 bytes cross a line boundary for a quarter of the nodes
// (records of 72 bytes, internal nodes of 24, packed end to end), and a descent reads all of
// them (links, length, key, parent); fetching only the first line left that quarter to miss.
template <int RW = 0>
inline void prefetchNode(const qor_radix_node *n) {
  __builtin_prefetch(n, RW);
  __builtin_prefetch(reinterpret_cast<const char *>(n) + QOR_RADIX_NODE_SIZE - 1, RW);
}

// ---- Node memory ----

// The internal node an insert may need (a split, or the spare of a head that gets its second
// child), had before the search so that the allocator's own cache misses overlap with the
// search's: a surplus spare of the tree if there is one, else a fresh node. One not used goes
// to the tree's spares, where the next insert finds it. A failed allocation fails the insert
// only if the node turns out to be needed.
void pushSpare(qor_radix_tree *t, qor_radix_node *n) {
  // The link is written whole: a spare's other bits mean nothing, and a fresh node must not be
  // read (a read of memory nobody touched yet is a cache miss the insert would wait for).
  n->rn_w[0] = reinterpret_cast<uint64_t>(t->rdx_spare);
  t->rdx_spare = n;
  ++t->rdx_spares;
}

class NodeReserve {
 public:
  explicit NodeReserve(qor_radix_tree *t) : t_(t) {
    if (t->rdx_spares > t->rdx_fullHeads) {
      mem_ = t->rdx_spare;
      t->rdx_spare = child(mem_, 0);
      --t->rdx_spares;
    } else if ((mem_ = static_cast<qor_radix_node *>(t->rdx_alloc(QOR_RADIX_NODE_SIZE)))) {
      t->rdx_nodeBytes += QOR_RADIX_NODE_SIZE;
#ifdef QOR_RADIX_LSAN
      // A leak checker cannot read the packed links, so an internal node would look lost while
      // its tree holds it; the tree's own counts (rdx_nodeBytes, checked by the tests against
      // the allocator) account for its nodes instead.
      __lsan_ignore_object(mem_);
#endif
    } else {
      ++t->rdx_allocFails;
    }
  }
  ~NodeReserve() {
    if (mem_) pushSpare(t_, mem_);
  }
  bool has() const { return mem_ != nullptr; }
  // The node, made internal at (bit, key32).
  qor_radix_node *take(unsigned bit, uint32_t key32) {
    qor_radix_node *n = mem_;
    mem_ = nullptr;
    initInternal(n, bit, key32);
    ++t_->rdx_nodes;
    return n;
  }

  static void initInternal(qor_radix_node *n, unsigned bit, uint32_t key32) {
    initNode(n, bit, QOR_RADIX_INTERNAL, mask32(key32, bit));
  }

 private:
  qor_radix_tree *t_;
  qor_radix_node *mem_ = nullptr;
};

// Spares beyond what is owed (one for each head with two children, and one in hand while the
// tree is not empty) go back to the allocator.
void trimSpares(qor_radix_tree *t) {
  while (t->rdx_spares > t->rdx_fullHeads + (t->rdx_heads ? 1 : 0)) {
    qor_radix_node *n = t->rdx_spare;
    t->rdx_spare = child(n, 0);
    --t->rdx_spares;
    t->rdx_nodeBytes -= QOR_RADIX_NODE_SIZE;
    t->rdx_free(n);
  }
}

// An internal node leaves the tree: to the spares.
void freeNode(qor_radix_tree *t, qor_radix_node *n) {
  --t->rdx_nodes;
  pushSpare(t, n);
}

// A spare taken for a head that has lost one of its two children's places to a node.
qor_radix_node *popSpare(qor_radix_tree *t) {
  qor_radix_node *n = t->rdx_spare;
  t->rdx_spare = child(n, 0);
  --t->rdx_spares;
  return n;
}

// y takes x's place under x's parent.
inline void replaceInParent(qor_radix_tree *t, qor_radix_node *x, qor_radix_node *y) {
  qor_radix_node *p = parent(x);
  if (y) qorRadixSetParent(y, p);
  if (!p) t->rdx_root = y;
  else qorRadixSetChild(p, qorRadixChild(p, 1) == x, y);
}

// ---- Order ----

inline qor_radix_node *firstHeadedIn(qor_radix_node *n) {
  while (n && !isHead(n)) n = child(n, 0);  // an internal node always has child 0
  return n;
}

// The first node in pre-order after n's whole subtree.
inline qor_radix_node *afterSubtree(const qor_radix_node *n) {
  for (const qor_radix_node *p = parent(n); p; n = p, p = parent(p))
    if (child(p, 0) == n && child(p, 1)) return child(p, 1);
  return nullptr;
}

inline qor_radix_node *nextPre(const qor_radix_node *n) {
  if (child(n, 0)) return child(n, 0);
  if (child(n, 1)) return child(n, 1);
  return afterSubtree(n);
}

// The first node holding a head that comes after (k, len) in tree order.
qor_radix_node *nextAfterKey(const qor_radix_tree *t, const Key &k, unsigned len) {
  qor_radix_node *n = t->rdx_root;
  if (!n) return nullptr;
  while (blen(n) < len) {
    qor_radix_node *c = child(n, bitAt(k, blen(n)));
    if (!c) break;
    n = c;
  }
  unsigned d = diffNode(t, k, n, std::min<unsigned>(len, blen(n)));
  qor_radix_node *x = n;
  while (parent(x) && blen(parent(x)) >= d) x = parent(x);
  if (d == len) {
    // (k, len) is x itself, or a prefix of everything under x.
    return firstHeadedIn(blen(x) == len ? nextPre(x) : x);
  }
  if (blen(x) == d) {
    // (k, len) would hang in x's empty slot on side bitAt(k, d).
    if (bitAt(k, d) == 0 && child(x, 1)) return firstHeadedIn(child(x, 1));
    return firstHeadedIn(afterSubtree(x));
  }
  // (k, len) and x's subtree part at bit d: all of x's subtree is on one side of it.
  return firstHeadedIn(bitAt(k, d) == 0 ? x : afterSubtree(x));
}

// ---- Accelerator ----
//
// The stride follows the size of the tree, so that a block holds about one prefix: 12 bits at
// rdx_accelMin heads, one more bit each time the tree doubles, at most 20. It is remade only
// when the tree has grown or shrunk by a factor of about two past the point where it was made;
// a growing tree skips a stride each time. Growing derives the new table from the old one and
// visits only the nodes between the two strides (accelGrow); building or shrinking walks the
// top of the tree.
//
// The table starts small because a tree without one costs a descent from the root per insert,
// twenty dependent misses at tens of thousands of prefixes, which no batch hint can fetch
// ahead (the hints start at the table's slot): a table loading a million routes spent a tenth
// of its time on its first 65,536 before the table came at that size.

constexpr unsigned kAccelMinBits = 12;
constexpr unsigned kAccelMaxBits = 20;

unsigned accelBitsFor(const qor_radix_tree *t, uint64_t heads) {
  if (!heads) return kAccelMinBits;
  long extra = std::lround(std::log2(double(heads) / double(t->rdx_accelMin)));
  return kAccelMinBits + unsigned(std::clamp(extra, 0L, long(kAccelMaxBits - kAccelMinBits)));
}

// Sizes at which a table of `bits` is rebuilt: the stride for them differs by more than one.
void accelThresholds(const qor_radix_tree *t, QorRadixAccel *a) {
  const double min = double(t->rdx_accelMin);
  const double above = double(a->bits) - double(kAccelMinBits);
  a->growAt = a->bits >= kAccelMaxBits ? UINT64_MAX : uint64_t(std::ceil(min * std::exp2(above + 0.5)));
  a->shrinkAt = a->bits < kAccelMinBits + 2 ? t->rdx_accelMin / 4 : uint64_t(min * std::exp2(above - 1.5));
  // Halfway there: at three million routes a second the largest table's growth is 60 ms away,
  // more than the thread takes to make 16 MB ready.
  a->prepAt = a->growAt == UINT64_MAX ? UINT64_MAX : a->growAt / 2;
}

// A node above the stride covers 2^(bits - length) blocks from its prefix on.
inline size_t rangeFirst(const QorRadixAccel *a, const qor_radix_node *n) { return blockOf(a, key32(n)); }
inline size_t rangeCount(const QorRadixAccel *a, const qor_radix_node *n) {
  return size_t(1) << (a->bits - blen(n));
}

// Hints are only a place to start from, so refreshing them is optional: done where it is cheap.
constexpr size_t kHintRefreshMax = 64;

inline void accelNewNode(qor_radix_tree *t, qor_radix_node *y) {
  QorRadixAccel *a = t->rdx_accel;
  if (!a) return;
  if (blen(y) >= a->bits) {
    if (!parent(y) || blen(parent(y)) < a->bits) a->slot[blockOf(a, key32(y))] = reinterpret_cast<uintptr_t>(y);
    return;
  }
  // Empty blocks under a new node above the stride start their inserts from it.
  const size_t count = rangeCount(a, y);
  if (count > kHintRefreshMax) return;
  for (size_t i = rangeFirst(a, y), end = i + count; i < end; ++i)
    if (!slotTop(a->slot[i])) a->slot[i] = hintOf(y);
}

// x leaves its place and c (or nothing) takes it; x's parent is still linked.
inline void accelReplaced(qor_radix_tree *t, const qor_radix_node *x, qor_radix_node *c) {
  QorRadixAccel *a = t->rdx_accel;
  if (!a) return;
  if (blen(x) >= a->bits) {
    if (!parent(x) || blen(parent(x)) < a->bits)
      a->slot[blockOf(a, key32(x))] = c ? reinterpret_cast<uintptr_t>(c) : hintOf(parent(x));
    return;
  }
  // No block may start from a node that goes: its parent covers all it covered.
  const uintptr_t from = hintOf(x), to = hintOf(parent(x));
  for (size_t i = rangeFirst(a, x), end = i + rangeCount(a, x); i < end; ++i)
    if (a->slot[i] == from) a->slot[i] = to;
}

inline void accelShortAdd(qor_radix_tree *t, qor_radix_node *n) {
  QorRadixAccel *a = t->rdx_accel;
  if (!a || blen(n) >= a->bits) return;
  size_t first = blockOf(a, key32(n)), count = size_t(1) << (a->bits - blen(n));
  // Runs of blocks share their best head: read each head's length once, not once per block
  // (a /12 spans 256 blocks of a 20-bit table, and each read of the head may miss).
  const qor_radix_hdr *seen = nullptr;
  bool replace = true;
  for (size_t i = first; i < first + count; ++i) {
    qor_radix_hdr *&b = a->shortBest[i];
    if (b != seen) {
      seen = b;
      replace = !b || blen(b) < blen(n);
    }
    if (replace) b = n;
  }
}

inline void accelShortRemove(qor_radix_tree *t, const qor_radix_node *n, qor_radix_hdr *repl) {
  QorRadixAccel *a = t->rdx_accel;
  if (!a || blen(n) >= a->bits) return;
  size_t first = blockOf(a, key32(n)), count = size_t(1) << (a->bits - blen(n));
  for (size_t i = first; i < first + count; ++i)
    if (a->shortBest[i] == n) a->shortBest[i] = repl;
}

void accelFree(QorRadixAccel *a) {
  if (!a) return;
  std::free(a->slot);
  delete a;
}

void accelDrop(qor_radix_tree *t) {
  accelFree(t->rdx_accel);
  t->rdx_accel = nullptr;
}

// Large tables ask for huge pages: a lookup then costs no page walk for the table. Cleared
// unless the caller writes every entry itself.
void *tableAlloc(size_t bytes, bool clear) {
  constexpr size_t kHuge = size_t(2) << 20;
  if (bytes < kHuge) return clear ? std::calloc(1, bytes) : std::malloc(bytes);
  void *p = std::aligned_alloc(kHuge, (bytes + kHuge - 1) / kHuge * kHuge);
  if (!p) return nullptr;
#ifdef MADV_HUGEPAGE
  madvise(p, bytes, MADV_HUGEPAGE);
#endif
  if (clear) std::memset(p, 0, bytes);
  return p;
}

constexpr size_t tableBytes(unsigned bits) { return 2 * (size_t(1) << bits) * sizeof(void *); }

// Starts making the next table's memory ready. No thread, no memory: the growth allocates its
// own, as it would have without this.
void accelPrepare(QorRadixAccel *a) {
  a->prepAt = a->growAt;  // the next look is for the growth itself
  try {
    auto prep = std::make_shared<QorRadixTablePrep>();
    prep->bytes = tableBytes(std::min(a->bits + 2, kAccelMaxBits));
    prep->pid = getpid();
    std::thread([prep] {
      void *m = tableAlloc(prep->bytes, false);
      if (m) {
#ifdef MADV_POPULATE_WRITE
        if (madvise(m, prep->bytes, MADV_POPULATE_WRITE) != 0)
#endif
          for (size_t i = 0; i < prep->bytes; i += 4096) static_cast<volatile char *>(m)[i] = 0;
      }
      prep->mem = m;
      prep->ready.store(true, std::memory_order_release);
      prep->ready.notify_all();
    }).detach();
    a->prep = std::move(prep);
  } catch (...) {
  }
}

// Memory held for the next table, counted as the tree's from the moment it is asked for until
// the thread is found to have had none.
size_t accelPrepBytes(const QorRadixAccel *a) {
  const QorRadixTablePrep *p = a->prep.get();
  return p && (!p->ready.load(std::memory_order_acquire) || p->mem) ? p->bytes : 0;
}

// The prepared memory for a table of `bytes`, once it is ready; null when none was prepared.
void *accelTakePrepared(QorRadixAccel *a, size_t bytes) {
  std::shared_ptr<QorRadixTablePrep> p = std::move(a->prep);
  // In a child forked meanwhile the thread does not exist, and its memory is the parent's copy
  // as it was at the fork: not to be waited for.
  if (!p || p->bytes != bytes || p->pid != getpid()) return nullptr;
  p->ready.wait(false, std::memory_order_acquire);
  return std::exchange(p->mem, nullptr);
}

inline void fillSlots(QorRadixAccel *a, size_t from, size_t to, uintptr_t v) {
  for (size_t i = from; i < to; ++i) a->slot[i] = v;
}

// Fills the blocks under nodes above the stride: each edge below such a node y covers a range
// of blocks; those of its range that no deeper node above the stride covers start from y, a
// child at or below the stride is the topmost node of its block, and a head above the stride
// is among the short ones. The fill is a chase of pointers through the top of the tree (half
// a million nodes in a full table), so it keeps fetches in flight: a node's children are
// fetched when it goes on the stack, and the node taken next is one pushed `lag` steps ago,
// whose fetches are done. Any order serves, so long as a node comes after its parent: each block's slot is
// written by the one node that covers it deepest, and accelShortAdd keeps the longest head
// whatever the order. Near a full stack it goes depth first, which the tree's depth (under 32
// levels above any stride) bounds.
class FillWalk {
 public:
  FillWalk(qor_radix_tree *t, QorRadixAccel *a, unsigned lag) : t_(t), a_(a), lag_(lag) {}
  // A node above the stride whose children are yet to be fetched.
  void push(qor_radix_node *y) {
    if (qor_radix_node *c = child(y, 0)) prefetchNode(c);
    if (qor_radix_node *c = child(y, 1)) prefetchNode(c);
    stack_[sp_++] = y;
  }
  // Takes nodes while more than `keep` wait (0: until the walk is done).
  void run(unsigned keep) {
    while (sp_ > keep) step();
  }

 private:
  static constexpr unsigned kStack = 256;
  void step() {
    const unsigned at = sp_ > lag_ && sp_ < kStack - 64 ? sp_ - lag_ : sp_ - 1;
    qor_radix_node *y = stack_[at];
    stack_[at] = stack_[--sp_];
    if (isHead(y)) accelShortAdd(t_, y);
    const size_t half = rangeCount(a_, y) / 2;
    for (unsigned side = 0; side < 2; ++side) {
      const size_t r0 = rangeFirst(a_, y) + side * half, r1 = r0 + half;
      qor_radix_node *c = child(y, side);
      if (c && blen(c) < a_->bits) {
        const size_t c0 = rangeFirst(a_, c), c1 = c0 + rangeCount(a_, c);
        fillSlots(a_, r0, c0, hintOf(y));
        fillSlots(a_, c1, r1, hintOf(y));
      } else {
        fillSlots(a_, r0, r1, hintOf(y));
        if (c) a_->slot[blockOf(a_, key32(c))] = reinterpret_cast<uintptr_t>(c);
      }
    }
    for (int side = 1; side >= 0; --side)
      if (qor_radix_node *c = child(y, side); c && blen(c) < a_->bits) push(c);
  }
  qor_radix_tree *t_;
  QorRadixAccel *a_;
  unsigned lag_;
  qor_radix_node *stack_[kStack];
  unsigned sp_ = 0;
};

void accelFill(qor_radix_tree *t, QorRadixAccel *a) {
  qor_radix_node *root = t->rdx_root;
  if (!root) return;
  if (blen(root) >= a->bits) {
    a->slot[blockOf(a, key32(root))] = reinterpret_cast<uintptr_t>(root);
    return;
  }
  FillWalk walk(t, a, 8);
  walk.push(root);
  walk.run(0);
}

// A table of `bits` in `mem` (tableBytes(bits), null: allocated here, and cleared if `clear`),
// or null when there is no memory for it.
QorRadixAccel *accelNew(const qor_radix_tree *t, unsigned bits, bool clear, void *mem = nullptr) {
  if (!mem && !(mem = tableAlloc(tableBytes(bits), clear))) return nullptr;
  auto *a = new (std::nothrow) QorRadixAccel;
  if (!a) {
    std::free(mem);
    return nullptr;
  }
  const size_t slots = size_t(1) << bits;
  a->bits = bits;
  a->bytes = tableBytes(bits);
  a->slot = static_cast<uintptr_t *>(mem);
  a->shortBest = reinterpret_cast<qor_radix_hdr **>(a->slot + slots);
  accelThresholds(t, a);
  return a;
}

void accelBuild(qor_radix_tree *t, unsigned bits) {
  accelDrop(t);
  QorRadixAccel *a = accelNew(t, bits, true);
  if (!a) return;  // lookups just start at the root
  t->rdx_accel = a;
  accelFill(t, a);
}

// The table at a longer stride, made from the one the tree has. Each old block becomes
// 2^(bits - old) blocks. An empty old block leaves its start to all of them, and so do the
// short prefixes that covered it (the best of them to each). An old block's topmost node at or
// below the new stride is the topmost node of one new block, and the others are empty and start
// above it; a topmost node between the two strides has its range filled from it (after the
// block's other blocks, which it may overwrite), which meets only the nodes between the
// strides. The old blocks' nodes are read one after the other without depending on each other,
// so the reads overlap, instead of a chase down the whole top of the tree.
void accelGrow(qor_radix_tree *t, unsigned bits) {
  QorRadixAccel *old = t->rdx_accel;
  // Every entry is written below: the memory need not be cleared.
  QorRadixAccel *a = accelNew(t, bits, false, accelTakePrepared(old, tableBytes(bits)));
  if (!a) {  // no memory for the larger table: keep the one there is, and try again later
    old->growAt = t->rdx_heads * 2;
    old->prepAt = old->growAt;  // the stride then wanted is not the one a preparation makes
    return;
  }
  t->rdx_accel = a;  // the walk puts the short heads it meets into the new table
  const unsigned shift = bits - old->bits;
  const size_t per = size_t(1) << shift, oldSlots = size_t(1) << old->bits;
  // The walk below the blocks' nodes runs across blocks with a longer lag than a whole fill's:
  // a step here is a few stores, and the fetches it waits for take as long.
  constexpr size_t kAhead = 16;
  constexpr unsigned kLag = 24;
  FillWalk walk(t, a, kLag);
  for (size_t b = 0; b < oldSlots; ++b) {
    if (b + kAhead < oldSlots)
      if (const qor_radix_node *n = slotTop(old->slot[b + kAhead])) prefetchNode(n);
    const size_t first = b << shift;
    for (size_t j = 0; j < per; ++j) a->shortBest[first + j] = old->shortBest[b];
    const uintptr_t v = old->slot[b];
    qor_radix_node *y = slotTop(v);
    if (!y) {
      fillSlots(a, first, first + per, v);
      continue;
    }
    fillSlots(a, first, first + per, hintOf(parent(y)));
    if (blen(y) >= bits) {
      a->slot[blockOf(a, key32(y))] = reinterpret_cast<uintptr_t>(y);
    } else {
      walk.push(y);
      walk.run(kLag);
    }
  }
  walk.run(0);
  accelFree(old);
}

// After a change of size: build, resize or drop the table.
void accelResize(qor_radix_tree *t) {
  const uint64_t h = t->rdx_heads;
  QorRadixAccel *a = t->rdx_accel;
  if (!t->rdx_accelMin || h < t->rdx_accelMin / 4) {
    accelDrop(t);
    return;
  }
  const unsigned want = accelBitsFor(t, h);
  if (!a) {
    if (h >= t->rdx_accelMin) accelBuild(t, want);
  } else if (want > a->bits) {
    // Two bits at a time while growing: each growth is a fresh table and a pass over the old
    // one, and a table filling up grows through every stride otherwise.
    accelGrow(t, std::min(want + 1, kAccelMaxBits));
  } else if (want + 1 < a->bits) {
    accelBuild(t, want + 1);
  }
}

inline bool accelUsable(const qor_radix_tree *t, unsigned len) {
  return t->rdx_accel && len >= t->rdx_accel->bits;
}

// Where a descent for a prefix shorter than the stride may start: its first block's node lies
// under the prefix's place (or is the deepest node above the stride covering the block), so the
// last node on the way up from it whose length is still len or more is where a descent from
// the root would arrive. A few steps up from a node the batch hints fetched, rather than twenty
// down from the root.
inline qor_radix_node *climbTo(qor_radix_node *n, unsigned len) {
  while (qor_radix_node *p = parent(n)) {
    if (blen(p) < len) break;
    n = p;
  }
  return n;
}

inline qor_radix_node *shortStart(const qor_radix_tree *t, uint32_t k32, unsigned len) {
  const QorRadixAccel *a = t->rdx_accel;
  qor_radix_node *s = a ? slotStart(a->slot[blockOf(a, k32)]) : nullptr;
  return s ? climbTo(s, len) : t->rdx_root;
}

qor_radix_hdr *insertHead(qor_radix_tree *t, qor_radix_hdr *head, unsigned len, bool attach) {
  if (!t || !head || !qorRadixKey(head) || len > t->rdx_keyBits) return nullptr;
  if (flags(head) & (QOR_RADIX_LINKED | QOR_RADIX_MARK)) return nullptr;  // in a tree already
  const Key k = maskKey(headKey(t, head), len);
  const uint32_t k32 = top32(k);
  qor_radix_node *n = t->rdx_root;
  // Going down from a block's node; for an empty block, no node at or below the stride can
  // share the block, so the keys part above the first such node met and the search stops there.
  unsigned stop = len;
  if (accelUsable(t, len)) {
    const uintptr_t v = t->rdx_accel->slot[blockOf(t->rdx_accel, k32)];
    if (qor_radix_node *start = slotStart(v)) n = start;
    if (!slotTop(v)) stop = t->rdx_accel->bits;
  } else if (t->rdx_accel) {
    n = shortStart(t, k32, len);
  }
  NodeReserve nodes(t);
  // The head becomes the node of its own prefix.
  auto link = [&] {
    initNode(head, len, uint8_t((flags(head) & QOR_RADIX_USER_BITS) | QOR_RADIX_LINKED), k32);
  };
  qor_radix_node *split = nullptr;
  if (!n) {
    link();
    t->rdx_root = head;
  } else {
    while (blen(n) < stop) {
      qor_radix_node *c = child(n, bitAt(k, blen(n)));
      if (!c) break;
      n = c;
    }
    const unsigned d = diffNode(t, k, n, std::min<unsigned>(len, blen(n)));
    qor_radix_node *x = n;
    while (parent(x) && blen(parent(x)) >= d) x = parent(x);
    if (d == len && blen(x) == len) {
      if (isHead(x)) return attach ? x : nullptr;
      // An internal node at exactly this prefix: the head takes its place, and the node becomes
      // the spare the head now owes, since it joins two subtrees.
      link();
      for (unsigned side = 0; side < 2; ++side) {
        qorRadixSetParent(child(x, side), head);
        qorRadixSetChild(head, side, child(x, side));
      }
      accelReplaced(t, x, head);
      replaceInParent(t, x, head);
      freeNode(t, x);
      ++t->rdx_fullHeads;
    } else if (d == len) {
      // The new prefix covers x: it goes between x and x's parent.
      link();
      unsigned b = nodeBit(t, x, len);
      replaceInParent(t, x, head);
      qorRadixSetChild(head, b, x);
      qorRadixSetParent(x, head);
    } else if (blen(x) == d) {
      // x's prefix covers the new one and x's slot on its side is empty, so x is a head; if
      // its other side is taken, it now has two children and owes a spare (the reserve's node,
      // which goes to the spares when `nodes` ends).
      const bool full = child(x, 0) || child(x, 1);
      if (full && !nodes.has()) return nullptr;
      link();
      qorRadixSetChild(x, bitAt(k, d), head);
      qorRadixSetParent(head, x);
      if (full) ++t->rdx_fullHeads;
    } else {
      // The keys part at bit d above x: a new internal node joins x and the new prefix.
      if (!nodes.has()) return nullptr;
      split = nodes.take(d, k32);
      link();
      unsigned b = bitAt(k, d);
      replaceInParent(t, x, split);
      qorRadixSetChild(split, b, head);
      qorRadixSetChild(split, b ^ 1, x);
      qorRadixSetParent(head, split);
      qorRadixSetParent(x, split);
      accelNewNode(t, split);
    }
  }
  ++t->rdx_nodes;
  accelNewNode(t, head);
  accelShortAdd(t, head);
  ++t->rdx_heads;
  ++t->rdx_gen;
  if (QorRadixAccel *a = t->rdx_accel) {
    if (t->rdx_heads >= a->prepAt) {
      if (t->rdx_heads >= a->growAt) accelResize(t);
      else accelPrepare(a);
    }
  } else if (t->rdx_accelMin && t->rdx_heads >= t->rdx_accelMin) {
    accelResize(t);
  }
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
  // Post-order without a stack: cut each child link on the way down; on the way up free an
  // internal node, or unlink a head.
  qor_radix_node *n = tree->rdx_root;
  while (n) {
    if (qor_radix_node *c = child(n, 0)) {
      qorRadixSetChild(n, 0, nullptr);
      n = c;
    } else if (qor_radix_node *c1 = child(n, 1)) {
      qorRadixSetChild(n, 1, nullptr);
      n = c1;
    } else {
      qor_radix_node *p = parent(n);
      if (isHead(n)) {
        qorRadixSetParent(n, nullptr);
        qorRadixSetFlags(n, uint8_t(flags(n) & ~QOR_RADIX_LINKED));
      } else {
        tree->rdx_free(n);
      }
      n = p;
    }
  }
  while (tree->rdx_spare) tree->rdx_free(popSpare(tree));
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
  if (!tree || !head || !qorRadixIsLinked(head)) return 1;
#ifndef NDEBUG
  {
    const qor_radix_node *r = head;
    while (parent(r)) r = parent(r);
    if (r != tree->rdx_root) {
      QOR_ASSERT(r == tree->rdx_root);  // the head belongs to another tree
      return 1;
    }
  }
#endif
  qor_radix_node *const n = head;
  if (onList(head)) listUnlink(head);
  if (tree->rdx_accel && blen(n) < tree->rdx_accel->bits) {
    qor_radix_node *p = parent(n);
    while (p && !isHead(p)) p = parent(p);
    accelShortRemove(tree, n, p);
  }
  --tree->rdx_heads;
  ++tree->rdx_gen;
  if (child(n, 0) && child(n, 1)) {
    // The place still joins two subtrees: the spare this head owed takes it.
    qor_radix_node *y = popSpare(tree);
    --tree->rdx_fullHeads;
    NodeReserve::initInternal(y, blen(n), key32(n));
    for (int side = 0; side < 2; ++side) {
      qorRadixSetChild(y, side, child(n, side));
      qorRadixSetParent(child(y, side), y);
    }
    accelReplaced(tree, n, y);
    replaceInParent(tree, n, y);
  } else if (qor_radix_node *c = child(n, 0) ? child(n, 0) : child(n, 1)) {
    accelReplaced(tree, n, c);
    replaceInParent(tree, n, c);
    --tree->rdx_nodes;
  } else {
    qor_radix_node *p = parent(n);
    accelReplaced(tree, n, nullptr);
    replaceInParent(tree, n, nullptr);
    --tree->rdx_nodes;
    if (p && !isHead(p)) {
      // An internal parent left with one child has no reason to exist.
      qor_radix_node *s = child(p, 0) ? child(p, 0) : child(p, 1);
      accelReplaced(tree, p, s);
      replaceInParent(tree, p, s);
      freeNode(tree, p);
    } else if (p && (child(p, 0) || child(p, 1))) {
      --tree->rdx_fullHeads;  // a head parent had two children: it owes its spare no more
    }
  }
  qorRadixSetChild(head, 0, nullptr);
  qorRadixSetChild(head, 1, nullptr);
  qorRadixSetParent(head, nullptr);
  qorRadixSetFlags(head, uint8_t(flags(head) & ~QOR_RADIX_LINKED));
  trimSpares(tree);
  if (tree->rdx_accel && tree->rdx_heads < tree->rdx_accel->shrinkAt) accelResize(tree);
  return 0;
}

qor_radix_hdr *qorRadixGetExact(qor_radix_tree *tree, const void *key, unsigned prefixlen) {
  if (!tree || !key || prefixlen > tree->rdx_keyBits) return nullptr;
  const Key k = maskKey(loadKey(static_cast<const uint8_t *>(key), tree->rdx_keyBytes), prefixlen);
  const qor_radix_node *n = tree->rdx_root;
  if (accelUsable(tree, prefixlen)) n = slotTop(tree->rdx_accel->slot[blockOf(tree->rdx_accel, top32(k))]);
  else if (n) n = shortStart(tree, top32(k), prefixlen);
  while (n && blen(n) < prefixlen) n = child(n, bitAt(k, blen(n)));
  if (!n || blen(n) != prefixlen || !isHead(n)) return nullptr;
  return diffNode(tree, k, n, prefixlen) == prefixlen ? const_cast<qor_radix_hdr *>(n) : nullptr;
}

qor_radix_hdr *qorRadixGetBest(qor_radix_tree *tree, const void *key, unsigned prefixlen) {
  if (!tree || !key) return nullptr;
  if (prefixlen > tree->rdx_keyBits) prefixlen = tree->rdx_keyBits;
  const Key k = maskKey(loadKey(static_cast<const uint8_t *>(key), tree->rdx_keyBytes), prefixlen);
  const qor_radix_node *n = tree->rdx_root;
  qor_radix_hdr *fallback = nullptr;  // covers k whatever the search below finds
  if (accelUsable(tree, prefixlen)) {
    const QorRadixAccel *a = tree->rdx_accel;
    const size_t b = blockOf(a, top32(k));
    n = slotTop(a->slot[b]);
    fallback = a->shortBest[b];
  }
  const qor_radix_node *passed[130];  // nodes with heads on the way down, shortest first
  unsigned np = 0;
  const qor_radix_node *last = nullptr;
  while (n && blen(n) <= prefixlen) {
    if (!(flags(n) & QOR_RADIX_INTERNAL)) passed[np++] = n;
    last = n;
    if (blen(n) == prefixlen) break;
    n = child(n, bitAt(k, blen(n)));
  }
  if (!np) return fallback;
  // Every passed prefix is a prefix of last's, so those no longer than the match length match.
  const unsigned m = diffNode(tree, k, last, blen(last));
  while (np && blen(passed[np - 1]) > m) --np;
  return np ? const_cast<qor_radix_hdr *>(passed[np - 1]) : fallback;
}

qor_radix_hdr *qorRadixGetLessSpecific(qor_radix_tree *tree, const qor_radix_hdr *head) {
  if (!tree || !head || !qorRadixIsLinked(head)) return nullptr;
  qor_radix_node *p = parent(head);
  while (p && !isHead(p)) p = parent(p);
  return p;
}

qor_radix_hdr *qorRadixGetNext(qor_radix_tree *tree, const qor_radix_hdr *head) {
  if (!tree) return nullptr;
  qor_radix_node *n;
  if (!head) {
    n = firstHeadedIn(tree->rdx_root);
  } else {
    if (!qorRadixIsLinked(head)) return nullptr;
    n = firstHeadedIn(nextPre(head));
  }
  return n;
}

qor_radix_hdr *qorRadixGetNext(qor_radix_tree *tree, const void *key, unsigned prefixlen) {
  if (!tree || !key || prefixlen > tree->rdx_keyBits) return nullptr;
  const Key k = maskKey(loadKey(static_cast<const uint8_t *>(key), tree->rdx_keyBytes), prefixlen);
  return nextAfterKey(tree, k, prefixlen);
}

int qorRadixWalk(qor_radix_tree *tree, int order, QorRadixWalkCB cb, int flags, void *arg) {
  if (!tree || !cb) return -1;
  qor_radix_node *n = firstHeadedIn(tree->rdx_root);
  while (n) {
    qor_radix_hdr *head = n;
    qor_radix_node *next = firstHeadedIn(nextPre(n));
    const uint64_t gen = tree->rdx_gen;
    const unsigned len = blen(n);
    const Key k = maskKey(headKey(tree, head), len);  // the head may be gone after the call
    if (int r = cb(head, arg)) return r;
    if (tree->rdx_gen != gen) next = nextAfterKey(tree, k, len);
    n = next;
  }
  return 0;
}

qor_radix_node *qorRadixNodeFirst(const qor_radix_tree *tree) { return tree ? tree->rdx_root : nullptr; }

qor_radix_node *qorRadixNodeNext(const qor_radix_node *node) { return node ? nextPre(node) : nullptr; }

void qorRadixPrefetch(const qor_radix_tree *tree, const void *key, unsigned prefixlen, int stage) {
  if (!tree || !key || !tree->rdx_accel || prefixlen > tree->rdx_keyBits) return;
  const QorRadixAccel *a = tree->rdx_accel;
  const Key k = maskKey(loadKey(static_cast<const uint8_t *>(key), tree->rdx_keyBytes), prefixlen);
  const size_t block = blockOf(a, top32(k));
  const uintptr_t *slot = &a->slot[block];
  // A prefix shorter than the stride also updates the best short head of its blocks, which
  // reads the entry of its first block and the head that entry names.
  const bool isShort = prefixlen < a->bits;
  if (stage == 0) {
    __builtin_prefetch(slot);
    if (isShort) __builtin_prefetch(&a->shortBest[block]);
    return;
  }
  if (stage == 1 && isShort)
    if (const qor_radix_hdr *b = a->shortBest[block]) prefetchNode(b);
  const qor_radix_node *n = slotStart(*slot);
  if (!n) return;
  if (stage == 1) {
    prefetchNode(n);
    return;
  }
  // What the descent reads after the block's node: the node above it, which an insert that
  // lands on the block's node links to (stage 2), and the nodes on the key's way down, one
  // level deeper at each later stage, each read here having been fetched by the stage before.
  if (stage == 2)
    if (const qor_radix_node *p = parent(n)) prefetchNode(p);
  if (isShort) {
    // A shorter prefix's place is up from the block's node: one more level up at each stage
    // after the second, which fetched the node above.
    for (int level = 3; n; ++level) {
      const qor_radix_node *p = parent(n);
      if (!p || blen(p) < prefixlen) return;
      if (level == stage) {
        if (const qor_radix_node *g = parent(p)) prefetchNode(g);
        return;
      }
      n = p;
    }
    return;
  }
  for (int level = 2; n && blen(n) < prefixlen; ++level) {
    const qor_radix_node *c = child(n, bitAt(k, blen(n)));
    if (level == stage) {
      if (c) prefetchNode(c);
      return;
    }
    n = c;
  }
}

void qorRadixPrefetchRemove(const qor_radix_tree *tree, const qor_radix_hdr *head, int stage) {
  if (!tree || !head || !qorRadixIsLinked(head)) return;
  const qor_radix_node *p = parent(head);
  if (stage == 0) {
    if (p) prefetchNode<1>(p);
    for (unsigned side = 0; side < 2; ++side)
      if (const qor_radix_node *c = child(head, side)) prefetchNode<1>(c);
    if (const QorRadixAccel *a = tree->rdx_accel; a && blen(head) >= a->bits)
      __builtin_prefetch(&a->slot[blockOf(a, key32(head))], 1);
    return;
  }
  if (!p) return;
  if (const qor_radix_node *g = parent(p)) prefetchNode<1>(g);
  if (const qor_radix_node *s = child(p, child(p, 0) == head)) prefetchNode<1>(s);
}

size_t qorRadixBytes(const qor_radix_tree *tree) {
  if (!tree) return 0;
  return sizeof(qor_radix_tree) + tree->rdx_nodeBytes +
         (tree->rdx_accel ? sizeof(QorRadixAccel) + tree->rdx_accel->bytes + accelPrepBytes(tree->rdx_accel) : 0);
}
