// Memory partitions: numbered fixed-block pools, a size-class partition and the system heap.
//
// Fixed-block pools are slabs. Blocks are carved from 256 KiB chunks aligned on their own size,
// so the pool of a block is found by masking its address down to the chunk header: no block
// carries a prefix, and a million route heads cost their block size each and nothing more. A
// chunk header holds one bit per block (in use or not); with a registry of chunk addresses this
// lets a free refuse a pointer that is not a pool block, or a block freed twice, without ever
// touching memory that is not ours. Free blocks are kept on a LIFO list threaded through their
// first word; a chunk is filled by a bump index before the free list is used, so a new chunk is
// never walked. Chunks go back to the system only when their pool is deleted.
//
// The size-class partition serves a request from the smallest class that fits (classes are
// slabs of the same kind, without numbers); larger requests go to the system heap and are
// counted. The system heap functions keep a table of live blocks for the same checks.
//
// Under sanitizer builds (RTM_SANITIZED) every block is its own heap allocation of exactly the
// block size, so ASan sees overruns and use after free; the accounting is the same.
//
// Every allocator can be made to fail on demand (qorMemFailNext and its siblings) so that each
// out-of-memory path of the daemon can be driven by a test. Allocators return null and never
// log; free functions return a non-zero code and never crash.
//
// Not thread-safe: the daemon's threads run one at a time (the cooperative group passes a
// baton), and the baton orders their accesses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using QOR_MEM_PART_ID = uint32_t;

// Results of the free functions and pool operations.
constexpr int QOR_MEM_OK = 0;
constexpr int QOR_MEM_ERR = -1;           // bad argument, unknown pool or partition, overlap
constexpr int QOR_MEM_ENOTBLOCK = -2;     // not a block of this allocator (or null, or misaligned)
constexpr int QOR_MEM_EDOUBLEFREE = -3;   // a block of this allocator that is not in use

// Bytes of one slab chunk; a pool's block may be at most a chunk minus its header.
constexpr size_t QOR_MEM_CHUNK_SIZE = size_t(1) << 18;

// ---- Fixed-block pools ----

// Reserves pool numbers first..last for a partition. The partition id is `first`.
int qor_memPartFixedInit(uint32_t first, uint32_t last, QOR_MEM_PART_ID *part);
// Deletes the partition and every pool in it (their blocks become invalid).
int qor_memPartFixedDelete(QOR_MEM_PART_ID part);

// Creates pool `number` (inside the partition's range, not yet used) of blocks of `blockSize`
// bytes. Blocks are aligned on 8 bytes. The name is copied. 0 or QOR_MEM_ERR.
int qorMC_M_memPoolCreate(const char *name, uint32_t number, QOR_MEM_PART_ID part, uint32_t blockSize);
// Deletes a pool and releases its chunks. 0 or QOR_MEM_ERR.
int qorMC_M_memPoolDelete(uint32_t number);
bool qorMemPoolExists(uint32_t number);

struct QorMemPool;  // opaque; a handle skips the number look-up on hot paths
QorMemPool *qorMemPoolGet(uint32_t number);
// Changes whenever a pool or partition is deleted: a cached handle is valid while it stays.
uint64_t qorMemGeneration();

// A block of the pool, not cleared; null when the pool is unknown, `size` exceeds its block
// size, or the allocation fails (real or injected). `tag`, `file` and `line` name the owner
// for the caller's own diagnostics; they are not stored per block.
void *qorMC_M_memBlockAlloc(uint32_t number, size_t size, uint32_t tag, const char *file, int line);
void *qorMC_M_memBlockAlloc(QorMemPool *pool, size_t size, uint32_t tag, const char *file, int line);
// Returns a fixed-pool block: 0, QOR_MEM_ENOTBLOCK or QOR_MEM_EDOUBLEFREE.
int qorMC_M_memBlockFree(void *block);
// Number of the pool that owns a live block, or 0.
uint32_t qorMemBlockPool(const void *block);

// ---- Size-class partition ----

// Makes partition `part` from a table of class sizes, taken as they stand (any order,
// repeats allowed). 0 or QOR_MEM_ERR (exists, empty table, a zero size).
int qorMC_qor_memPartVarInit(QOR_MEM_PART_ID part, uint32_t flags, const uint32_t *sizes, uint32_t count);
int qorMC_qor_memPartVarDelete(QOR_MEM_PART_ID part);
// A block of at least `size` bytes from the smallest class that fits, or from the system heap
// above the largest class. Not cleared. Null on failure or unknown partition.
void *qorMC_M_memBlockVarAlloc(QOR_MEM_PART_ID part, size_t size, uint32_t tag, const char *file, int line);
int qorMC_M_memBlockVarFree(void *block);
// The class size a request would be served from, or 0 when it would go to the system heap.
size_t qorMemVarClassFor(QOR_MEM_PART_ID part, size_t size);

// ---- System heap ----

void *qorMC_M_sysMalloc(size_t size, const char *file, int line, uint32_t type);
int qorMC_M_sysMemfree(void *block);

// ---- Accounting ----

struct QorMemPoolStats {
  std::string name;
  uint32_t number = 0;
  uint32_t blockSize = 0;    // as created
  uint64_t inUse = 0;        // blocks
  uint64_t peak = 0;         // highest inUse
  uint64_t allocs = 0;       // successful allocations
  uint64_t frees = 0;
  uint64_t failures = 0;     // refused allocations, injected ones included
  uint64_t badFrees = 0;     // refused frees that named this pool's memory (double frees)
  uint64_t bytesReserved = 0;
};
int qorMemPoolStatsGet(uint32_t number, QorMemPoolStats *out);

struct QorMemVarClassStats {
  uint32_t size = 0;
  uint64_t inUse = 0, peak = 0, allocs = 0;
};
struct QorMemVarStats {
  std::vector<QorMemVarClassStats> classes;  // ascending, one per distinct size
  uint64_t inUse = 0, peak = 0, allocs = 0, frees = 0, failures = 0;
  uint64_t fallbacks = 0;       // allocations served by the system heap
  uint64_t fallbackInUse = 0;
  uint64_t bytesReserved = 0;   // class chunks plus live fallback bytes
};
int qorMemVarStatsGet(QOR_MEM_PART_ID part, QorMemVarStats *out);

struct QorMemSysStats {
  uint64_t inUse = 0, peak = 0, allocs = 0, frees = 0, failures = 0, badFrees = 0;
  uint64_t bytesInUse = 0;
};
QorMemSysStats qorMemSysStats();

// Counters of every pool as a table, one line per pool, for the debug shell.
std::string qorMemShow();
void qorMemDump();

// ---- Fault injection (tests) ----

// The next n allocations of pool `number` fail. n = 0 disarms.
void qorMemFailNext(uint32_t number, uint32_t n);
// The same for every size-class partition, and for the system heap.
void qorMemVarFailNext(uint32_t n);
void qorMemSysFailNext(uint32_t n);
// After k more successful allocations of any allocator, every allocation fails until
// called again; a negative k disarms.
void qorMemFailAfter(int64_t k);

// Deletes every pool and partition, frees every system block still live, and clears
// counters and fault injection (tests).
void qorMemReset();
