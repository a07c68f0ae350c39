// Memory partitions: slab pools, size classes and the counted system heap. See qor_mem.h for the
// layout of a chunk and why a block carries no prefix.
#include "mem/qor_mem.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "log/qor_log.h"

namespace {

[[maybe_unused]] constexpr uintptr_t kChunkMask = ~(uintptr_t(QOR_MEM_CHUNK_SIZE) - 1);
[[maybe_unused]] constexpr uint64_t kChunkMagic = 0x514f524d454d4348ull;

struct VarPart;

// Header at the start of every chunk; the block bitmap follows it.
struct Chunk {
  uint64_t magic;
  QorMemPool *pool;
  uint32_t used;  // blocks handed out by the bump index so far
  uint32_t pad;
  uint64_t *bits() { return reinterpret_cast<uint64_t *>(this + 1); }
};
static_assert(sizeof(Chunk) % 8 == 0);

}  // namespace

struct QorMemPool {
  std::string name;
  uint32_t number = 0;  // 0 for a size class of a partition
  uint32_t blockSize = 0;
  uint32_t stride = 0;    // block size rounded for alignment
  uint32_t perChunk = 0;  // blocks per chunk
  uint32_t firstOff = 0;  // offset of block 0 in its chunk
  VarPart *var = nullptr;
  uint32_t failNext = 0;
  void *freeList = nullptr;
  Chunk *bump = nullptr;  // the chunk being filled
  std::vector<Chunk *> chunks;
  uint64_t inUse = 0, peak = 0, allocs = 0, frees = 0, failures = 0, badFrees = 0;
};

namespace {

struct VarPart {
  QOR_MEM_PART_ID id = 0;
  std::vector<std::unique_ptr<QorMemPool>> classes;  // ascending block sizes
  uint64_t inUse = 0, peak = 0, allocs = 0, frees = 0, failures = 0;
  uint64_t fallbacks = 0, fallbackInUse = 0, fallbackBytes = 0;
};

struct FixedPart {
  uint32_t first = 0, last = 0;
  std::vector<std::unique_ptr<QorMemPool>> pools;  // indexed by number - first
};

struct Fallback {
  VarPart *part;
  size_t size;
};

struct State {
  std::vector<std::unique_ptr<FixedPart>> fixed;
  std::unordered_map<QOR_MEM_PART_ID, std::unique_ptr<VarPart>> var;
  std::unordered_set<uintptr_t> chunkSet;
  std::unordered_map<void *, Fallback> fallbacks;
  std::unordered_map<void *, size_t> sysBlocks;
#ifdef RTM_SANITIZED
  std::unordered_map<void *, QorMemPool *> live;  // every pool block, individually allocated
  std::unordered_map<void *, QorMemPool *> freed;  // to tell a double free from a stranger
#endif
  QorMemSysStats sys;
  uint32_t varFailNext = 0, sysFailNext = 0;
  int64_t failAfter = -1;
  uint64_t generation = 1;
};

State &st() {
  static State s;
  return s;
}

// Decides whether this allocation is to fail by injection; `failNext` is the allocator's own count.
bool injected(uint32_t &failNext) {
  State &s = st();
  if (s.failAfter == 0) return true;
  if (failNext) {
    --failNext;
    return true;
  }
  return false;
}
void succeeded() {
  State &s = st();
  if (s.failAfter > 0) --s.failAfter;
}

bool geometry(QorMemPool &p, uint32_t blockSize) {
  uint32_t stride = std::max<uint32_t>(16, (blockSize + 7u) & ~7u);
  if (blockSize == 0 || stride < blockSize) return false;
  size_t base = sizeof(Chunk);
  size_t n = (QOR_MEM_CHUNK_SIZE - base) / stride;
  size_t first = 0;
  // The bitmap grows with n and takes room from the blocks: settle on the largest n that fits.
  for (; n > 0; --n) {
    first = (base + (n + 63) / 64 * 8 + 63) & ~size_t(63);
    if (first + n * stride <= QOR_MEM_CHUNK_SIZE) break;
  }
  if (n == 0) return false;
  p.blockSize = blockSize;
  p.stride = stride;
  p.perChunk = uint32_t(n);
  p.firstOff = uint32_t(first);
  return true;
}

#ifndef RTM_SANITIZED
// Chunks are carved, one after the other and for any pool, from regions of 2 MB aligned on
// their size, which the kernel may back with huge pages: loading a table then takes a page
// fault per 2 MB rather than per 4 KB, and walking the records misses the TLB far less. A
// region is only address space until its chunks are used.
constexpr size_t kRegionSize = size_t(2) << 20;
static_assert(kRegionSize % QOR_MEM_CHUNK_SIZE == 0);
uintptr_t g_regionNext, g_regionEnd;

// A fresh region, aligned on its size (mapped twice as large and trimmed), asked for huge
// pages; 0 when there is no address space.
uintptr_t mapRegion() {
  const size_t len = 2 * kRegionSize;
  void *m = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (m == MAP_FAILED) return 0;
  const uintptr_t a = reinterpret_cast<uintptr_t>(m);
  const uintptr_t r = (a + kRegionSize - 1) & ~(uintptr_t(kRegionSize) - 1);
  if (r > a) munmap(m, r - a);
  const uintptr_t end = a + len, rend = r + kRegionSize;
  if (end > rend) munmap(reinterpret_cast<void *>(rend), end - rend);
#ifdef MADV_HUGEPAGE
  madvise(reinterpret_cast<void *>(r), kRegionSize, MADV_HUGEPAGE);
#endif
  return r;
}

// The kernel clears every page it gives a process, and a table load is mostly fresh memory:
// at a million routes that clearing is a fifth of the daemon's time. A background thread keeps
// the next region mapped and faulted in, so that the clearing runs beside the route path
// rather than inside it. Taking never waits: with no region ready (or no thread, as in a child
// after fork) the caller maps its own, as it would without the thread. The thread is started
// by the first region taken, so that nothing runs before the daemon needs memory.
class RegionWarmer {
 public:
  uintptr_t take() {
    uintptr_t r = 0;
    for (auto &slot : ready_)
      if (slot.load(std::memory_order_relaxed) && (r = slot.exchange(0, std::memory_order_acq_rel))) break;
    if (!started_.exchange(true, std::memory_order_acq_rel)) start();
    taken_.fetch_add(1, std::memory_order_release);
    taken_.notify_one();
    return r;
  }

 private:
  // Regions kept ready: a table load takes one every few milliseconds, and a few in hand let
  // the thread catch up after a burst.
  static constexpr unsigned kAhead = 4;

  void start() {
    try {
      std::thread([this] { run(); }).detach();
    } catch (...) {
      // No thread: every region is mapped by its taker.
    }
  }
  [[noreturn]] void run() {
    for (;;) {
      const uint32_t seen = taken_.load(std::memory_order_acquire);
      bool filled = false;
      // Only this thread makes a slot non-zero, and takers only empty them.
      for (auto &slot : ready_) {
        if (slot.load(std::memory_order_acquire)) continue;
        const uintptr_t r = mapRegion();
        if (!r) break;  // no address space now: the takers map their own meanwhile
#ifdef MADV_POPULATE_WRITE
        madvise(reinterpret_cast<void *>(r), kRegionSize, MADV_POPULATE_WRITE);
#endif
        slot.store(r, std::memory_order_release);
        filled = true;
      }
      if (filled) continue;  // look again: takers may have emptied a slot meanwhile
      if (std::all_of(ready_.begin(), ready_.end(), [](auto &x) { return x.load() != 0; }))
        taken_.wait(seen);  // until the next take
      else
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  std::array<std::atomic<uintptr_t>, kAhead> ready_{};
  std::atomic<uint32_t> taken_{0};
  std::atomic<bool> started_{false};
};

RegionWarmer &warmer() {
  static RegionWarmer *w = new RegionWarmer;  // never destroyed: its thread outlives exit
  return *w;
}

uintptr_t takeChunkSpace() {
  if (g_regionNext == g_regionEnd) {
    uintptr_t r = warmer().take();
    if (!r) r = mapRegion();
    if (!r) return 0;
    g_regionNext = r;
    g_regionEnd = r + kRegionSize;
  }
  const uintptr_t c = g_regionNext;
  g_regionNext += QOR_MEM_CHUNK_SIZE;
  return c;
}

Chunk *newChunk(QorMemPool &p) {
  const uintptr_t c = takeChunkSpace();
  if (!c) return nullptr;
  try {
    st().chunkSet.insert(c);
    p.chunks.push_back(reinterpret_cast<Chunk *>(c));
  } catch (...) {
    st().chunkSet.erase(c);
    munmap(reinterpret_cast<void *>(c), QOR_MEM_CHUNK_SIZE);
    return nullptr;
  }
#ifdef MADV_POPULATE_WRITE
  // A pool fills its chunk front to back: fault the whole chunk in at once rather than a page
  // at a time on first touch, which costs several times more (a table load is mostly that).
  madvise(reinterpret_cast<void *>(c), QOR_MEM_CHUNK_SIZE, MADV_POPULATE_WRITE);
#endif
  Chunk *ch = reinterpret_cast<Chunk *>(c);  // fresh mappings are zero: bitmap clear
  ch->magic = kChunkMagic;
  ch->pool = &p;
  ch->used = 0;
  p.bump = ch;
  return ch;
}

void releaseChunks(QorMemPool &p) {
  ++st().generation;
  for (Chunk *c : p.chunks) {
    st().chunkSet.erase(reinterpret_cast<uintptr_t>(c));
    munmap(c, QOR_MEM_CHUNK_SIZE);
  }
  p.chunks.clear();
  p.bump = nullptr;
  p.freeList = nullptr;
}

void *rawAlloc(QorMemPool &p, size_t) {
  void *b = p.freeList;
  Chunk *c;
  size_t idx;
  // The block the next allocation will hand out is fetched now, for writing: its caller
  // clears or fills it at once, and a table load allocates blocks back to back.
  if (b) {
    p.freeList = *static_cast<void **>(b);
    if (p.freeList) __builtin_prefetch(p.freeList, 1);
    c = reinterpret_cast<Chunk *>(reinterpret_cast<uintptr_t>(b) & kChunkMask);
    idx = (static_cast<char *>(b) - reinterpret_cast<char *>(c) - p.firstOff) / p.stride;
  } else {
    c = p.bump;
    if (!c || c->used == p.perChunk) {
      c = newChunk(p);
      if (!c) return nullptr;
    }
    idx = c->used++;
    b = reinterpret_cast<char *>(c) + p.firstOff + idx * p.stride;
    if (c->used < p.perChunk) {
      __builtin_prefetch(static_cast<char *>(b) + p.stride, 1);
      __builtin_prefetch(static_cast<char *>(b) + p.stride + p.stride - 1, 1);
    }
  }
  c->bits()[idx >> 6] |= uint64_t(1) << (idx & 63);
  return b;
}

// Finds the pool of a block and releases it, or says why not. `wantVar` says which kind of
// allocator the caller is: a block of the other kind is refused as not ours, untouched.
int rawFree(void *b, QorMemPool **owner, bool wantVar) {
  *owner = nullptr;
  uintptr_t a = reinterpret_cast<uintptr_t>(b);
  uintptr_t base = a & kChunkMask;
  if (!b || !st().chunkSet.count(base)) return QOR_MEM_ENOTBLOCK;
  Chunk *c = reinterpret_cast<Chunk *>(base);
  QorMemPool &p = *c->pool;
  size_t off = a - base;
  if (off < p.firstOff || (off - p.firstOff) % p.stride) return QOR_MEM_ENOTBLOCK;
  size_t idx = (off - p.firstOff) / p.stride;
  if (idx >= c->used) return QOR_MEM_ENOTBLOCK;
  if ((p.var != nullptr) != wantVar) return QOR_MEM_ENOTBLOCK;
  *owner = &p;
  uint64_t bit = uint64_t(1) << (idx & 63);
  if (!(c->bits()[idx >> 6] & bit)) return QOR_MEM_EDOUBLEFREE;
  c->bits()[idx >> 6] &= ~bit;
  *static_cast<void **>(b) = p.freeList;
  p.freeList = b;
  return QOR_MEM_OK;
}

QorMemPool *ownerOf(const void *b) {
  uintptr_t a = reinterpret_cast<uintptr_t>(b);
  uintptr_t base = a & kChunkMask;
  if (!b || !st().chunkSet.count(base)) return nullptr;
  Chunk *c = reinterpret_cast<Chunk *>(base);
  QorMemPool &p = *c->pool;
  size_t off = a - base;
  if (off < p.firstOff || (off - p.firstOff) % p.stride) return nullptr;
  size_t idx = (off - p.firstOff) / p.stride;
  if (idx >= c->used || !(c->bits()[idx >> 6] & (uint64_t(1) << (idx & 63)))) return nullptr;
  return &p;
}

uint64_t reserved(const QorMemPool &p) { return uint64_t(p.chunks.size()) * QOR_MEM_CHUNK_SIZE; }

#else  // RTM_SANITIZED: one heap allocation per block

void releaseChunks(QorMemPool &p) {
  State &s = st();
  ++s.generation;
  for (auto it = s.live.begin(); it != s.live.end();) {
    if (it->second == &p) {
      free(it->first);
      it = s.live.erase(it);
    } else {
      ++it;
    }
  }
  std::erase_if(s.freed, [&](const auto &e) { return e.second == &p; });
  p.freeList = nullptr;
}

void *rawAlloc(QorMemPool &p, size_t size) {
  State &s = st();
  // A size class hands out exactly what was asked, so an overrun of the request is caught.
  size_t n = p.var ? std::max<size_t>(size, 1) : p.blockSize;
  void *b = malloc(n);
  if (!b) return nullptr;
  try {
    s.live.emplace(b, &p);
  } catch (...) {
    free(b);
    return nullptr;
  }
  s.freed.erase(b);
  return b;
}

int rawFree(void *b, QorMemPool **owner, bool wantVar) {
  State &s = st();
  *owner = nullptr;
  auto it = s.live.find(b);
  if (it == s.live.end()) {
    auto f = s.freed.find(b);
    if (f == s.freed.end() || (f->second->var != nullptr) != wantVar) return QOR_MEM_ENOTBLOCK;
    *owner = f->second;
    return QOR_MEM_EDOUBLEFREE;
  }
  if ((it->second->var != nullptr) != wantVar) return QOR_MEM_ENOTBLOCK;
  *owner = it->second;
  s.live.erase(it);
  free(b);
  if (s.freed.size() > (1u << 20)) s.freed.clear();  // bounded: old addresses become strangers
  try {
    s.freed.emplace(b, *owner);
  } catch (...) {
  }
  return QOR_MEM_OK;
}

QorMemPool *ownerOf(const void *b) {
  auto it = st().live.find(const_cast<void *>(b));
  return it == st().live.end() ? nullptr : it->second;
}

uint64_t reserved(const QorMemPool &p) { return p.inUse * p.blockSize; }
#endif

void *poolAlloc(QorMemPool &p, size_t size) {
  if (size > p.blockSize || injected(p.failNext)) {
    ++p.failures;
    return nullptr;
  }
  void *b = rawAlloc(p, size);
  if (!b) {
    ++p.failures;
    return nullptr;
  }
  succeeded();
  ++p.allocs;
  if (++p.inUse > p.peak) p.peak = p.inUse;
  return b;
}

FixedPart *partOfNumber(uint32_t number) {
  for (auto &f : st().fixed)
    if (number >= f->first && number <= f->last) return f.get();
  return nullptr;
}

QorMemPool *poolOf(uint32_t number) {
  FixedPart *f = partOfNumber(number);
  return f ? f->pools[number - f->first].get() : nullptr;
}

VarPart *varOf(QOR_MEM_PART_ID id) {
  auto it = st().var.find(id);
  return it == st().var.end() ? nullptr : it->second.get();
}

QorMemPool *classFor(VarPart &v, size_t size) {
  auto it = std::lower_bound(v.classes.begin(), v.classes.end(), size,
                             [](const std::unique_ptr<QorMemPool> &c, size_t n) { return c->blockSize < n; });
  return it == v.classes.end() ? nullptr : it->get();
}

void deleteVar(VarPart &v) {
  for (auto &c : v.classes) releaseChunks(*c);
  State &s = st();
  for (auto it = s.fallbacks.begin(); it != s.fallbacks.end();) {
    if (it->second.part == &v) {
      free(it->first);
      it = s.fallbacks.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace

// ---- Fixed-block pools ----

int qor_memPartFixedInit(uint32_t first, uint32_t last, QOR_MEM_PART_ID *part) {
  if (!part || last < first || last - first >= (1u << 20)) return QOR_MEM_ERR;
  for (auto &f : st().fixed)
    if (first <= f->last && f->first <= last) return QOR_MEM_ERR;
  try {
    auto f = std::make_unique<FixedPart>();
    f->first = first;
    f->last = last;
    f->pools.resize(size_t(last - first) + 1);
    st().fixed.push_back(std::move(f));
  } catch (...) {
    return QOR_MEM_ERR;
  }
  *part = first;
  return QOR_MEM_OK;
}

int qor_memPartFixedDelete(QOR_MEM_PART_ID part) {
  auto &fx = st().fixed;
  for (auto it = fx.begin(); it != fx.end(); ++it) {
    if ((*it)->first != part) continue;
    for (auto &p : (*it)->pools)
      if (p) releaseChunks(*p);
    fx.erase(it);
    return QOR_MEM_OK;
  }
  return QOR_MEM_ERR;
}

int qorMC_M_memPoolCreate(const char *name, uint32_t number, QOR_MEM_PART_ID part, uint32_t blockSize) {
  FixedPart *f = partOfNumber(number);
  if (!f || f->first != part || f->pools[number - f->first]) return QOR_MEM_ERR;
  try {
    auto p = std::make_unique<QorMemPool>();
    if (!geometry(*p, blockSize)) return QOR_MEM_ERR;
    p->name = name ? name : "";
    p->number = number;
    f->pools[number - f->first] = std::move(p);
  } catch (...) {
    return QOR_MEM_ERR;
  }
  return QOR_MEM_OK;
}

int qorMC_M_memPoolDelete(uint32_t number) {
  FixedPart *f = partOfNumber(number);
  if (!f || !f->pools[number - f->first]) return QOR_MEM_ERR;
  releaseChunks(*f->pools[number - f->first]);
  f->pools[number - f->first].reset();
  return QOR_MEM_OK;
}

bool qorMemPoolExists(uint32_t number) { return poolOf(number) != nullptr; }
QorMemPool *qorMemPoolGet(uint32_t number) { return poolOf(number); }
uint64_t qorMemGeneration() { return st().generation; }

void *qorMC_M_memBlockAlloc(QorMemPool *pool, size_t size, uint32_t, const char *, int) {
  return pool ? poolAlloc(*pool, size) : nullptr;
}

void *qorMC_M_memBlockAlloc(uint32_t number, size_t size, uint32_t tag, const char *file, int line) {
  return qorMC_M_memBlockAlloc(poolOf(number), size, tag, file, line);
}

int qorMC_M_memBlockFree(void *block) {
  QorMemPool *p;
  // A size-class block goes back through its own free: refused here, untouched.
  int rc = rawFree(block, &p, false);
  if (rc != QOR_MEM_OK) {
    if (rc == QOR_MEM_EDOUBLEFREE && p) ++p->badFrees;
    return rc;
  }
  --p->inUse;
  ++p->frees;
  return QOR_MEM_OK;
}

uint32_t qorMemBlockPool(const void *block) {
  QorMemPool *p = ownerOf(block);
  return p ? p->number : 0;
}

// ---- Size-class partition ----

int qorMC_qor_memPartVarInit(QOR_MEM_PART_ID part, uint32_t, const uint32_t *sizes, uint32_t count) {
  if (!sizes || count == 0 || varOf(part)) return QOR_MEM_ERR;
  std::vector<uint32_t> v(sizes, sizes + count);
  if (std::find(v.begin(), v.end(), 0u) != v.end()) return QOR_MEM_ERR;
  // The table comes as it stands, unsorted and with repeats; one class per distinct size.
  std::sort(v.begin(), v.end());
  v.erase(std::unique(v.begin(), v.end()), v.end());
  try {
    auto vp = std::make_unique<VarPart>();
    vp->id = part;
    for (uint32_t sz : v) {
      auto c = std::make_unique<QorMemPool>();
      if (!geometry(*c, sz)) return QOR_MEM_ERR;
      c->name = "var class " + std::to_string(sz);
      c->var = vp.get();
      vp->classes.push_back(std::move(c));
    }
    st().var.emplace(part, std::move(vp));
  } catch (...) {
    return QOR_MEM_ERR;
  }
  return QOR_MEM_OK;
}

int qorMC_qor_memPartVarDelete(QOR_MEM_PART_ID part) {
  VarPart *v = varOf(part);
  if (!v) return QOR_MEM_ERR;
  deleteVar(*v);
  st().var.erase(part);
  return QOR_MEM_OK;
}

size_t qorMemVarClassFor(QOR_MEM_PART_ID part, size_t size) {
  VarPart *v = varOf(part);
  QorMemPool *c = v ? classFor(*v, size) : nullptr;
  return c ? c->blockSize : 0;
}

void *qorMC_M_memBlockVarAlloc(QOR_MEM_PART_ID part, size_t size, uint32_t, const char *, int) {
  VarPart *v = varOf(part);
  if (!v) return nullptr;
  State &s = st();
  if (injected(s.varFailNext)) {
    ++v->failures;
    return nullptr;
  }
  void *b = nullptr;
  if (QorMemPool *c = classFor(*v, size)) {
    b = rawAlloc(*c, size);
    if (b) {
      ++c->allocs;
      if (++c->inUse > c->peak) c->peak = c->inUse;
    }
  } else {
    b = malloc(size);
    if (b) {
      try {
        s.fallbacks.emplace(b, Fallback{v, size});
      } catch (...) {
        free(b);
        b = nullptr;
      }
    }
    if (b) {
      ++v->fallbacks;
      ++v->fallbackInUse;
      v->fallbackBytes += size;
    }
  }
  if (!b) {
    ++v->failures;
    return nullptr;
  }
  succeeded();
  ++v->allocs;
  if (++v->inUse > v->peak) v->peak = v->inUse;
  return b;
}

int qorMC_M_memBlockVarFree(void *block) {
  State &s = st();
  VarPart *v = nullptr;
  QorMemPool *p;
  // Class blocks first: they are nearly every free, and the chunk test is the cheaper one.
  int rc = rawFree(block, &p, true);
  if (rc == QOR_MEM_OK) {
    --p->inUse;
    v = p->var;
  } else {
    // Perhaps a block from beyond the largest class (under sanitizers its address may also be
    // one a freed class block had, which is why this comes before the verdict on rc).
    auto fb = s.fallbacks.find(block);
    if (fb == s.fallbacks.end()) return rc;
    v = fb->second.part;
    --v->fallbackInUse;
    v->fallbackBytes -= fb->second.size;
    free(block);
    s.fallbacks.erase(fb);
  }
  --v->inUse;
  ++v->frees;
  return QOR_MEM_OK;
}

// ---- System heap ----

void *qorMC_M_sysMalloc(size_t size, const char *, int, uint32_t) {
  State &s = st();
  if (injected(s.sysFailNext)) {
    ++s.sys.failures;
    return nullptr;
  }
  void *b = malloc(size ? size : 1);
  if (b) {
    try {
      s.sysBlocks.emplace(b, size);
    } catch (...) {
      free(b);
      b = nullptr;
    }
  }
  if (!b) {
    ++s.sys.failures;
    return nullptr;
  }
  succeeded();
  ++s.sys.allocs;
  s.sys.bytesInUse += size;
  if (++s.sys.inUse > s.sys.peak) s.sys.peak = s.sys.inUse;
  return b;
}

int qorMC_M_sysMemfree(void *block) {
  State &s = st();
  auto it = s.sysBlocks.find(block);
  if (it == s.sysBlocks.end()) {
    ++s.sys.badFrees;
    return QOR_MEM_ENOTBLOCK;
  }
  s.sys.bytesInUse -= it->second;
  free(block);
  s.sysBlocks.erase(it);
  --s.sys.inUse;
  ++s.sys.frees;
  return QOR_MEM_OK;
}

// ---- Accounting ----

int qorMemPoolStatsGet(uint32_t number, QorMemPoolStats *out) {
  QorMemPool *p = poolOf(number);
  if (!p || !out) return QOR_MEM_ERR;
  out->name = p->name;
  out->number = p->number;
  out->blockSize = p->blockSize;
  out->inUse = p->inUse;
  out->peak = p->peak;
  out->allocs = p->allocs;
  out->frees = p->frees;
  out->failures = p->failures;
  out->badFrees = p->badFrees;
  out->bytesReserved = reserved(*p);
  return QOR_MEM_OK;
}

int qorMemVarStatsGet(QOR_MEM_PART_ID part, QorMemVarStats *out) {
  VarPart *v = varOf(part);
  if (!v || !out) return QOR_MEM_ERR;
  *out = QorMemVarStats{};
  for (auto &c : v->classes) {
    out->classes.push_back({c->blockSize, c->inUse, c->peak, c->allocs});
    out->bytesReserved += reserved(*c);
  }
  out->inUse = v->inUse;
  out->peak = v->peak;
  out->allocs = v->allocs;
  out->frees = v->frees;
  out->failures = v->failures;
  out->fallbacks = v->fallbacks;
  out->fallbackInUse = v->fallbackInUse;
  out->bytesReserved += v->fallbackBytes;
  return QOR_MEM_OK;
}

QorMemSysStats qorMemSysStats() { return st().sys; }

std::string qorMemShow() {
  std::string out;
  char line[256];
  snprintf(line, sizeof line, "%-34s %-8s %6s %10s %10s %12s %10s %12s\r\n", "Pool", "Number", "Block", "InUse",
           "Peak", "Allocs", "Failures", "Reserved");
  out += line;
  for (auto &f : st().fixed)
    for (auto &p : f->pools) {
      if (!p) continue;
      snprintf(line, sizeof line, "%-34s 0x%-6x %6u %10" PRIu64 " %10" PRIu64 " %12" PRIu64 " %10" PRIu64 " %12" PRIu64 "\r\n",
               p->name.c_str(), p->number, p->blockSize, p->inUse, p->peak, p->allocs, p->failures, reserved(*p));
      out += line;
    }
  for (auto &[id, v] : st().var) {
    QorMemVarStats vs;
    qorMemVarStatsGet(id, &vs);
    snprintf(line, sizeof line, "%-34s 0x%-6x %6s %10" PRIu64 " %10" PRIu64 " %12" PRIu64 " %10" PRIu64 " %12" PRIu64 "\r\n",
             "variable partition", id, "-", vs.inUse, vs.peak, vs.allocs, vs.failures, vs.bytesReserved);
    out += line;
    snprintf(line, sizeof line, "  beyond the largest class: %" PRIu64 " allocations, %" PRIu64 " in use\r\n",
             vs.fallbacks, vs.fallbackInUse);
    out += line;
  }
  const QorMemSysStats &s = st().sys;
  snprintf(line, sizeof line, "%-34s %-8s %6s %10" PRIu64 " %10" PRIu64 " %12" PRIu64 " %10" PRIu64 " %12" PRIu64 "\r\n",
           "system heap", "-", "-", s.inUse, s.peak, s.allocs, s.failures, s.bytesInUse);
  out += line;
  return out;
}

void qorMemDump() { qorEventPrint("%s", qorMemShow().c_str()); }

// ---- Fault injection ----

void qorMemFailNext(uint32_t number, uint32_t n) {
  if (QorMemPool *p = poolOf(number)) p->failNext = n;
}
void qorMemVarFailNext(uint32_t n) { st().varFailNext = n; }
void qorMemSysFailNext(uint32_t n) { st().sysFailNext = n; }
void qorMemFailAfter(int64_t k) { st().failAfter = k < 0 ? -1 : k; }

void qorMemReset() {
  State &s = st();
  while (!s.fixed.empty()) qor_memPartFixedDelete(s.fixed.back()->first);
  for (auto &[id, v] : s.var) deleteVar(*v);
  s.var.clear();
  for (auto &[b, n] : s.sysBlocks) free(b);
  s.sysBlocks.clear();
#ifdef RTM_SANITIZED
  s.freed.clear();
#endif
  s.sys = QorMemSysStats{};
  s.varFailNext = s.sysFailNext = 0;
  s.failAfter = -1;
}
