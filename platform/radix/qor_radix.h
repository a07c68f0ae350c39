// Radix trees of prefixes and their change lists.
//
// A tree holds records ("heads") keyed by a prefix of 0..keyBits bits (32 for IPv4, 128 for
// IPv6; the width is a property of the tree and one code path serves all widths). Every
// record begins with a qor_radix_hdr: the header is the record's node in the tree, it finds
// the key through qorRadixKey, and it keeps the record on the tree's change list through
// rtmh_version and the list links. The tree allocates only its internal nodes, through the
// functions given at creation; it never allocates or frees records.
//
// The tree is a path-compressed binary trie. A node stands for one prefix (its first qorRadixBit
// bits); a head is the node of its own prefix, and an internal node (flag QOR_RADIX_INTERNAL)
// exists only where the keys below it diverge, so an internal node always has two children
// and a tree of N heads has fewer than N internal nodes. Prefixes nest: a node's descendants
// are exactly the more specific prefixes of its prefix. Lookups test one bit per node going
// down and compare keys once at the bottom.
//
// A head with two children cannot leave without an internal node taking its place, and a
// removal must not fail for want of memory: the tree keeps a spare internal node for every
// such head, taken when the head gets its second child (an insert, which may fail cleanly).
//
// Tree order, used by qorRadixGetNext and qorRadixWalk, is by key, then by length, shorter
// first: 10.0.0.0/8, 10.0.0.0/16, 10.0.1.0/24, 10.128.0.0/9, 11.0.0.0/8. Only the first
// `prefixlen` bits of a key count; the bits after them are ignored everywhere.
//
// The change list of a tree is a list of heads in version order. Appending a head gives it
// the tree's next version and moves it to the tail, so a head is on the list once, at its
// latest change. Walkers are records in the caller's memory that sit on the same list as
// place-holders: a walker's place is a list position, so moving or removing heads never
// invalidates a walker and no walker needs fixing up; a step of a walk is O(1).
//
// None of this is thread-safe: the daemon's threads are cooperative and the tree relies on
// that, as do its callers.
#pragma once

#include <cstddef>
#include <cstdint>

#include <bit>

struct qor_radix_hdr;
struct qor_radix_tree;
// A node of the tree is a record's header: the head of a prefix is its own node, and the
// nodes that only join two subtrees (internal nodes) are the first bytes of a header, taken
// from the tree's allocator.
using qor_radix_node = qor_radix_hdr;

// Node flags. The low three are the tree's; the others (QOR_RADIX_USER_BITS) belong to the
// record, which may keep small marks there (the tree never reads or changes them).
constexpr uint8_t QOR_RADIX_LINKED = 0x1;    // a head in a tree
constexpr uint8_t QOR_RADIX_INTERNAL = 0x2;  // an internal node: holds no head, joins two subtrees
constexpr uint8_t QOR_RADIX_MARK = 0x4;      // a walker's place-holder on a change list
constexpr uint8_t QOR_RADIX_USER_BITS = 0xF8;

// The first bytes of every record that lives in a tree: 48 bytes, of which the first 24 are
// the node, all a search reads. A million prefixes make a table, so the node is packed: user
// space addresses take 48 bits on the hosts the daemon runs on, and the upper 16 bits of each
// link word carry the node's prefix length and flags and the first 32 bits of its prefix. The
// prefix bytes sit big-endian at offset QOR_RADIX_KEY_OFFSET (bytes 14 to 17, across the
// second and third words), so that a record with a key of 32 bits or fewer keeps its key
// there and pays nothing for it. Read and change the words only through the functions below.
//
//   rn_w[0]: child 0 | prefix length << 48 | flags << 56
//   rn_w[1]: child 1 | key bytes 0 and 1 in its upper 16 bits
//   rn_w[2]: key bytes 2 and 3 in its lower 16 bits | parent << 16
//   rdl_next: next on the change list | offset of the record's whole key << 48
//
// A leak checker does not read these links: the tree tells it that its internal nodes are
// held (they are counted in rdx_nodeBytes instead), and a head stays visible to it through
// whatever else holds the record.
struct qor_radix_hdr {
  uint64_t rn_w[3];
  uint64_t rtmh_version;   // version of the last append to the change list
  uint64_t rdl_next;       // null link when the head is not on a change list
  qor_radix_hdr *rdl_prev;
};
// Bytes of an internal node: the node part of a header.
constexpr size_t QOR_RADIX_NODE_SIZE = 3 * sizeof(uint64_t);
// Where a node keeps the first four bytes of its prefix, big-endian.
constexpr size_t QOR_RADIX_KEY_OFFSET = 14;
static_assert(sizeof(void *) == 8 && sizeof(qor_radix_hdr) == 48,
              "the packed node needs 64-bit words with 48-bit addresses");
static_assert(std::endian::native == std::endian::little,
              "the key bytes straddle two words as laid out for a little-endian host");

namespace qor_radix_detail {
constexpr uint64_t kPtrMask = (uint64_t(1) << 48) - 1;
inline qor_radix_hdr *ptrOf(uint64_t w) { return reinterpret_cast<qor_radix_hdr *>(w & kPtrMask); }
inline uint64_t bitsOf(const void *p) { return reinterpret_cast<uint64_t>(p); }
}  // namespace qor_radix_detail

// ---- Reading and changing a node ----

inline qor_radix_node *qorRadixChild(const qor_radix_node *n, unsigned side) {
  return qor_radix_detail::ptrOf(n->rn_w[side]);
}
inline qor_radix_node *qorRadixParent(const qor_radix_node *n) {
  return reinterpret_cast<qor_radix_node *>(n->rn_w[2] >> 16);
}
// The node's prefix length.
inline unsigned qorRadixBit(const qor_radix_node *n) { return unsigned(n->rn_w[0] >> 48) & 0xFF; }
inline uint8_t qorRadixFlags(const qor_radix_node *n) { return uint8_t(n->rn_w[0] >> 56); }
// The first 32 bits of the node's prefix, in host order, masked to its length.
inline uint32_t qorRadixKey32(const qor_radix_node *n) {
  uint32_t v;
  __builtin_memcpy(&v, reinterpret_cast<const uint8_t *>(n) + QOR_RADIX_KEY_OFFSET, 4);
  return __builtin_bswap32(v);
}
// The four key bytes of the node, in place: the whole key of a record whose key is 32 bits or
// fewer.
inline uint8_t *qorRadixKeyBytes(qor_radix_hdr *h) { return reinterpret_cast<uint8_t *>(h) + QOR_RADIX_KEY_OFFSET; }
inline const uint8_t *qorRadixKeyBytes(const qor_radix_hdr *h) {
  return reinterpret_cast<const uint8_t *>(h) + QOR_RADIX_KEY_OFFSET;
}

inline void qorRadixSetChild(qor_radix_node *n, unsigned side, const qor_radix_node *c) {
  n->rn_w[side] = (n->rn_w[side] & ~qor_radix_detail::kPtrMask) | qor_radix_detail::bitsOf(c);
}
inline void qorRadixSetParent(qor_radix_node *n, const qor_radix_node *p) {
  n->rn_w[2] = (n->rn_w[2] & 0xFFFF) | (qor_radix_detail::bitsOf(p) << 16);
}
inline void qorRadixSetFlags(qor_radix_node *n, uint8_t flags) {
  n->rn_w[0] = (n->rn_w[0] & ~(uint64_t(0xFF) << 56)) | (uint64_t(flags) << 56);
}
inline void qorRadixSetKey32(qor_radix_node *n, uint32_t key32) {
  const uint32_t v = __builtin_bswap32(key32);
  __builtin_memcpy(reinterpret_cast<uint8_t *>(n) + QOR_RADIX_KEY_OFFSET, &v, 4);
}
// Sets the prefix length of a head that is not in a tree (an insert sets it from its
// argument): a record outside any tree still answers qorRadixBit.
inline void qorRadixSetBit(qor_radix_node *n, unsigned bit) {
  n->rn_w[0] = (n->rn_w[0] & ~(uint64_t(0xFF) << 48)) | (uint64_t(bit & 0xFF) << 48);
}

// The record's own marks among the flags (QOR_RADIX_USER_BITS).
inline bool qorRadixUserBit(const qor_radix_hdr *h, uint8_t bit) { return qorRadixFlags(h) & bit; }
inline void qorRadixSetUserBit(qor_radix_hdr *h, uint8_t bit, bool on) {
  const uint8_t f = qorRadixFlags(h);
  qorRadixSetFlags(h, on ? uint8_t(f | (bit & QOR_RADIX_USER_BITS)) : uint8_t(f & ~(bit & QOR_RADIX_USER_BITS)));
}

// Where the record keeps its key: set before qorRadixInsert, to a place in the record's first
// 64 KiB (the node's own key bytes for keys of 32 bits or fewer, or behind the header). The
// tree copies the first four bytes into the node when it links the head.
inline void qorRadixSetKey(qor_radix_hdr *h, const uint8_t *key) {
  const ptrdiff_t off = key ? key - reinterpret_cast<const uint8_t *>(h) : 0;
  const uint64_t k = off >= ptrdiff_t(QOR_RADIX_KEY_OFFSET) && off < 65536 ? uint64_t(off) : 0;
  h->rdl_next = (h->rdl_next & qor_radix_detail::kPtrMask) | (k << 48);
}
// The key the record set, or null.
inline const uint8_t *qorRadixKey(const qor_radix_hdr *h) {
  const uint64_t off = h->rdl_next >> 48;
  return off ? reinterpret_cast<const uint8_t *>(h) + off : nullptr;
}
inline uint8_t *qorRadixKey(qor_radix_hdr *h) {
  const uint64_t off = h->rdl_next >> 48;
  return off ? reinterpret_cast<uint8_t *>(h) + off : nullptr;
}
// The change list's links.
inline qor_radix_hdr *qorRadixListNext(const qor_radix_hdr *h) { return qor_radix_detail::ptrOf(h->rdl_next); }
inline void qorRadixSetListNext(qor_radix_hdr *h, const qor_radix_hdr *next) {
  h->rdl_next = (h->rdl_next & ~qor_radix_detail::kPtrMask) | qor_radix_detail::bitsOf(next);
}

// The head a node holds (the node itself), or null for an internal node.
inline qor_radix_hdr *qorRadixNodeHead(qor_radix_node *n) {
  return n && !(qorRadixFlags(n) & QOR_RADIX_INTERNAL) ? n : nullptr;
}
// True while the head is linked in a tree.
inline bool qorRadixIsLinked(const qor_radix_hdr *h) { return qorRadixFlags(h) & QOR_RADIX_LINKED; }

using QorRadixAllocFn = void *(*)(size_t);
using QorRadixFreeFn = void (*)(void *);
// Walk callbacks return 0 to go on and non-zero to stop.
using QorRadixWalkCB = int (*)(qor_radix_hdr *head, void *arg);

struct QorRadixAccel;

// A tree. The words marked "caller's" are never interpreted by the tree.
struct qor_radix_tree {
  qor_radix_node *rdx_root;
  uint64_t rdx_version;          // the last version given; the next append gives +1
  uint64_t rdx_maxVersion;       // the last version before the change list wraps
  uint32_t rdx_lock;             // caller's lock word (set to 0 by qorRadixDestroy)
  uint32_t rdx_count;            // caller's counter word
  uint32_t rdx_keyBits;
  uint32_t rdx_keyBytes;
  uint64_t rdx_heads;            // heads in the tree
  uint64_t rdx_nodes;            // nodes in the tree: the heads and the internal ones
  uint64_t rdx_nodeBytes;        // bytes of internal nodes taken from the allocator, spares too
  qor_radix_node *rdx_spare;     // spare internal nodes, linked through rn_child[0]
  uint64_t rdx_spares;
  uint64_t rdx_fullHeads;        // heads with two children: each needs a spare to leave
  uint64_t rdx_allocFails;       // node allocations that failed
  uint64_t rdx_gen;              // changes of the tree's shape, so that walks can resync
  uint64_t rdl_epoch;            // restarts of the change list (version wraps)
  uint64_t rdl_serial;           // identity of this tree for the walkers registered on it
  uint32_t rdl_walkers;          // walkers registered
  uint32_t rdx_accelMin;         // heads at which the lookup accelerator is built (0: never)
  QorRadixAllocFn rdx_alloc;
  QorRadixFreeFn rdx_free;
  QorRadixAccel *rdx_accel;      // direct table on the first 12 to 20 key bits, when built
  qor_radix_hdr rdl_anchor;      // ends of the change list (a circular list through it)
  char rdx_name[64];
};

// A walker of the change list: a record in the caller's memory, zeroed or constructed.
// Its place is wk_place, a place-holder on the list; walker_version is the version up to which
// it has walked. The caller may overwrite walker_version (the daemon sets it to the tree's
// version when nothing is pending); that changes nothing of the walker's place.
struct qor_radical_walker {
  qor_radix_hdr wk_place;
  uint64_t walker_version;
};

// Default heads at which a tree builds its lookup accelerator: a table of 4,096 blocks (64 KB),
// which grows with the tree to 2^20 blocks (16 MB) at about 370,000 heads.
constexpr uint32_t QOR_RADIX_ACCEL_MIN = 4096;

// ---- The tree ----

// Makes a tree of `keyBits` (1..128) bits. Nodes come from allocFn/freeFn (malloc/free when
// null). The tree record itself comes from the heap. Null on a bad width or no memory.
qor_radix_tree *qorRadixCreate(const char *name, unsigned keyBits, QorRadixAllocFn allocFn,
                               QorRadixFreeFn freeFn, int flags);
// Frees the internal nodes and the tree. The heads still in it must be valid memory: they are
// unlinked (and may go into a tree again); the walkers must not be used with the tree again.
// The lock word is cleared first.
void qorRadixDestroy(qor_radix_tree *tree);

// Links `head` under its key and `prefixlen`. Returns head, or null when the prefix is already
// in the tree, the head is already in a tree, the length is too long, or no node could be had;
// on null the tree is as it was.
qor_radix_hdr *qorRadixInsert(qor_radix_tree *tree, qor_radix_hdr *head, unsigned prefixlen);
// Find-or-insert: attaches the caller's record to the node of its prefix. If a head of that
// key and length is already in the tree it is returned and `head` is not linked (the caller
// keeps its data on the returned record and frees its own); otherwise `head` is inserted and
// returned. Null only when nothing could be inserted. One descent instead of GetExact+Insert.
qor_radix_hdr *qorRadixAttach(qor_radix_tree *tree, qor_radix_hdr *head, unsigned prefixlen);
// Unlinks the head from the tree and from the change list. 0 on success, 1 if the head is not
// in a tree. Never allocates.
int qorRadixRemove(qor_radix_tree *tree, qor_radix_hdr *head);

// The head with exactly that key and length, or null.
qor_radix_hdr *qorRadixGetExact(qor_radix_tree *tree, const void *key, unsigned prefixlen);
// Longest match: the head of greatest length <= prefixlen whose prefix covers key, or null.
qor_radix_hdr *qorRadixGetBest(qor_radix_tree *tree, const void *key, unsigned prefixlen);
// The next shorter head that covers this head's prefix, or null.
qor_radix_hdr *qorRadixGetLessSpecific(qor_radix_tree *tree, const qor_radix_hdr *head);
// The head after `head` in tree order; with head null, the first head.
qor_radix_hdr *qorRadixGetNext(qor_radix_tree *tree, const qor_radix_hdr *head);
// The first head after (key, prefixlen) in tree order, whether or not that prefix is in the
// tree: for walks that free the head in hand and keep a copy of its key.
qor_radix_hdr *qorRadixGetNext(qor_radix_tree *tree, const void *key, unsigned prefixlen);

// Calls cb for every head in tree order. `order` and `flags` are 0. The callback may remove
// (and free) the head it is given, or change the tree otherwise: the walk then goes on from
// the visited key. Returns 0, or the callback's non-zero result that stopped the walk.
int qorRadixWalk(qor_radix_tree *tree, int order, QorRadixWalkCB cb, int flags, void *arg);
// Calls cb for the heads on the change list whose version is above `fromVersion`, in version
// order, up to the version the tree had at the call. Same callback rules as a change-list walk.
// Returns 0, the callback's non-zero result, or -1 on bad arguments.
int qorRadixVersionWalk(qor_radix_tree *tree, uint64_t fromVersion, QorRadixWalkCB cb, void *arg);

// Every node, internal ones too, in pre-order (node, child 0 subtree, child 1 subtree);
// qorRadixNodeHead tells the heads. The shape of the tree must not change between the calls.
qor_radix_node *qorRadixNodeFirst(const qor_radix_tree *tree);
qor_radix_node *qorRadixNodeNext(const qor_radix_node *node);

// Batch hints: start fetching what an operation on (key, prefixlen) will read first, so that
// a caller working through many prefixes overlaps the cache misses of the next ones with the
// work on this one. Stage 0 fetches the accelerator's slot of the key; stage 1 reads that slot
// (fetched by an earlier stage 0) and fetches the node it names; stage 2 reads that node and
// fetches the node above it and the next node on the key's way down; each stage after that
// reads one node more on that way (fetched by the stage before) and fetches the next. No
// effect on the tree; a no-op when the tree has no accelerator or the prefix is shorter than
// its stride.
void qorRadixPrefetch(const qor_radix_tree *tree, const void *key, unsigned prefixlen, int stage);

// The same for removals, for a caller that has several heads to remove: stage 0 fetches the
// nodes next to the head (its parent and children) and its accelerator slot; stage 1 reads the
// parent (fetched by stage 0) and fetches the nodes a removal may relink around it (the
// parent's parent and the head's sibling). Call stage 0 for all, then stage 1 for all, then
// remove them. No effect on the tree.
void qorRadixPrefetchRemove(const qor_radix_tree *tree, const qor_radix_hdr *head, int stage);

// Bytes the tree takes: internal nodes (spares too), the tree record and the accelerator.
size_t qorRadixBytes(const qor_radix_tree *tree);

// ---- The change list ----

// Gives the head version rdx_version + 1 and moves it to the tail (onto the list if it was not
// on it). When rdx_version has reached rdx_maxVersion the list is restarted first: every head
// is taken off it (version 0), every walker goes back to the start (walker_version 0), the
// tree's version goes to 0; then the head is appended as version 1 and the result is 0. The
// caller is expected to append its heads again (a renumbering). Otherwise the result is 1.
int qorRadicalAppendToChangeList(qor_radix_tree *tree, qor_radix_hdr *head);
// Takes the head off the change list (qorRadixRemove does this too). 0, or 1 if it was not on.
int qorRadicalRemoveFromChangeList(qor_radix_tree *tree, qor_radix_hdr *head);

// Registers the walker at the start of the list (version 0): it will see every head on the
// list and every head appended later. A walker already registered on this tree is moved back
// to the start; anything else in the record is overwritten. 0, or 1 on bad arguments.
int qorRadicalWalkConstructor(qor_radix_tree *tree, qor_radical_walker *walker);
// Takes the walker off the list. Harmless on a walker that is not registered on this tree.
int qorRadicalWalkDestructor(qor_radix_tree *tree, qor_radical_walker *walker);

// The version of the next head the walker would visit, or 0 when nothing is pending.
uint64_t qorRadicalNextVersion(qor_radix_tree *tree, const qor_radical_walker *walker);

// Visits the heads after the walker, in version order, and moves the walker past each before
// calling cb on it. Stops after `limit` heads, when cb returns non-zero, or at the first head
// whose version is above `maxVersion` or above the tree's version at the call (heads appended
// during the walk are left for the next one, so a callback that re-appends cannot loop).
// The callback may append the visited head or any other, or remove heads from the tree; if it
// makes the list restart (a version wrap) the walk ends as stopped.
// `*stopped` (when not null) is 0 when the walk ran out of work within the ceiling, and then
// walker_version is the ceiling: every change up to it has been seen. It is 1 otherwise, and
// walker_version is the version of the last head visited. `reserved` is 0; `threadSet` is not
// used (the budget bounds a walk; the caller yields between walks).
// Returns the number of heads visited, or -1 on bad arguments.
int qorRadicalWalkChangeList(qor_radix_tree *tree, qor_radical_walker *walker, QorRadixWalkCB cb,
                             int reserved, uint32_t limit, uint64_t maxVersion, void *threadSet,
                             int *stopped, void *arg);
// The same with no ceiling but the tree's version at the call.
int qorRadicalWalkChangeList(qor_radix_tree *tree, qor_radical_walker *walker, QorRadixWalkCB cb,
                             uint32_t limit, void *arg);
