// The daemon's pools: the table, the variable partition and the allocators of every subsystem.
//
// Records come from numbered fixed-block pools so that running out of one kind of record is an
// event its caller survives: every allocator gives null and the caller drops the route or the
// message. Allocators do not log; frees log and return -1. Every block handed out is cleared,
// except radix nodes, which their tree fills in whole.
#include "frame/rtm_mem.h"

#include <algorithm>
#include <cstring>

#include "log/qor_log.h"
#include "mem/qor_mem.h"

__attribute__((weak)) uint32_t rtmevkey = 0;
uint32_t rtmOutOfMemLogMsg = 1;

const uint32_t rtmVarPartSizes[RTM_MEM_VAR_SIZES_COUNT] = {
    184, 156, 20,  88,  92,  96,  100, 104, 112, 116, 120, 124, 128, 132, 136, 140,
    144, 148, 152, 184, 216, 280, 344, 104, 116, 128, 140, 152, 164, 176, 188, 200,
    212, 224, 236, 248, 260, 272, 284, 380, 476, 668, 860, 40,  64,  2180};

namespace {

constexpr uint32_t kSlots = RTM_MEM_POOL_LAST - RTM_MEM_POOL_FIRST + 1;

// Raises of the table's sizes. Zero-initialised before any static initializer runs, so
// RTM_POOL_RECORD in another file may write here during static initialisation.
uint32_t declaredSize[kSlots];
uint32_t exactSize[kSlots];  // replaces the table's size when set
uint32_t raisedSize[kSlots];
// Pool handles, so the hot path skips the number look-up; valid for one generation of the
// partition layer (a deleted pool changes it).
QorMemPool *handle[kSlots];
uint64_t handleGeneration;

bool inRange(uint32_t number) { return number >= RTM_MEM_POOL_FIRST && number <= RTM_MEM_POOL_LAST; }

QorMemPool *poolHandle(uint32_t number) {
  if (!inRange(number)) return nullptr;
  if (handleGeneration != qorMemGeneration()) {
    std::fill(std::begin(handle), std::end(handle), nullptr);
    handleGeneration = qorMemGeneration();
  }
  QorMemPool *&h = handle[number - RTM_MEM_POOL_FIRST];
  if (!h) h = qorMemPoolGet(number);
  return h;
}

// Pools whose callers' sizes stand: their records vary with the platform's table sizes
// (LPM and host prefix tables) or are sized by the route-leak code itself.
bool callerSizeStands(uint32_t pool) {
  switch (pool) {
    case RTM_LPM_IPV6_128_POOL:
    case RTM_IPVX_HOST_PREFIX_POOL:
    case RTM_RTLEAK_WALKER_POOL:
    case RTM_RTLEAK_ERT_POOL:
    case RTM_RTLEAK_IRT_POOL:
    case RTM_RTLEAK_EXPVRF_POOL:
    case RTM_RTLEAK_IMPVRF_POOL:
    case RTM_RTLEAK_PERVRFIRT_POOL:
      return true;
    default:
      return false;
  }
}

int raise(uint32_t *slots, uint32_t number, uint32_t size) {
  if (!inRange(number) || rtmMemTableBlockSize(number) == 0) return -1;
  if (qorMemPoolExists(number)) {
    QorMemPoolStats s;
    qorMemPoolStatsGet(number, &s);
    return size <= s.blockSize ? 0 : -1;  // too late to grow a pool that exists
  }
  uint32_t &slot = slots[number - RTM_MEM_POOL_FIRST];
  slot = std::max(slot, size);
  return 0;
}

void *rdxAlloc(uint32_t pool, size_t size, bool clear) {
  if (size > rtmMemBlockSize(pool)) {
    _qorAssert("size <= rtmMemBlockSize(pool)", __FILE__, __LINE__, long(size));
    return nullptr;
  }
  void *b = qorMC_M_memBlockAlloc(poolHandle(pool), size, RTM_MEM_TAG_RIB, __FILE__, __LINE__);
  if (b && clear) memset(b, 0, size);
  return b;
}

void rdxFree(void *block) { rtmMemFreeFromPool(__FILE__, __LINE__, block); }

}  // namespace

int rtmMemSetBlockSize(uint32_t number, uint32_t size) { return raise(raisedSize, number, size); }
int rtmMemDeclareBlockSize(uint32_t number, uint32_t size) { return raise(declaredSize, number, size); }
int rtmMemDeclareExactBlockSize(uint32_t number, uint32_t size) { return raise(exactSize, number, size); }

uint32_t rtmMemBlockSize(uint32_t number) {
  uint32_t t = rtmMemTableBlockSize(number);
  if (!t) return 0;
  uint32_t i = number - RTM_MEM_POOL_FIRST;
  if (exactSize[i]) t = exactSize[i];
  return std::max({t, declaredSize[i], raisedSize[i]});
}

void rtmMemResetBlockSizes() { std::fill(std::begin(raisedSize), std::end(raisedSize), 0u); }

int rtmMemPoolAlloc() {
  QOR_MEM_PART_ID part;
  if (qor_memPartFixedInit(RTM_MEM_POOL_FIRST, RTM_MEM_POOL_LAST, &part) != 0) return -1;
  for (const rtmMemPoolDef &d : rtmMemPoolTable)
    if (qorMC_M_memPoolCreate(d.name, d.number, part, rtmMemBlockSize(d.number)) != 0) return -1;
  if (qorMC_qor_memPartVarInit(RTM_MEM_VAR_PART, 0, rtmVarPartSizes, RTM_MEM_VAR_SIZES_COUNT) != 0) return -1;
  return 0;
}

int rtmMemPoolFree() {
  int a = qorMC_qor_memPartVarDelete(RTM_MEM_VAR_PART);
  int b = qor_memPartFixedDelete(RTM_MEM_POOL_FIRST);
  return a == 0 && b == 0 ? 0 : -1;
}

int rtmMemInit() { return rtmMemPoolAlloc() != 0; }
void rtmMemExit() { rtmMemPoolFree(); }

uint32_t fixMemBlockSize(uint32_t pool, uint32_t size) {
  if (callerSizeStands(pool)) return size;
  uint32_t b = rtmMemBlockSize(pool);
  return b ? b : size;
}

void *rtmMemAllocFromPool(const char *file, int line, uint32_t tag, uint32_t size, uint32_t pool) {
  uint32_t n = fixMemBlockSize(pool, size);
  if (size > n) {
    // The record outgrew its pool: a declaration (RTM_POOL_RECORD) is missing.
    _qorAssert("size <= fixMemBlockSize(pool, size)", file, line, long(size));
    return nullptr;
  }
  void *b = qorMC_M_memBlockAlloc(poolHandle(pool), n, tag, file, line);
  if (b) memset(b, 0, n);
  return b;
}

void *rtmMemAllocFromPoolAfIndex(const char *file, int line, uint32_t tag, uint32_t size, uint32_t pool,
                                 uint32_t afIndex) {
  if (afIndex == 2) {
    uint32_t twin = rtmMemPoolTwin(pool);
    if (!twin) {
      _qorAssert("rtmMemPoolTwin(pool) != 0", file, line, long(pool));
      return nullptr;
    }
    pool = twin;
  }
  return rtmMemAllocFromPool(file, line, tag, size, pool);
}

int rtmMemFreeFromPool(const char *file, int line, void *block) {
  if (qorMC_M_memBlockFree(block) == 0) return 0;
  qorSysErr(rtmevkey, 0, 0x148054, 0, "RTM: rtmMemFreeFromPool", block, file, line);
  return -1;
}

int rtmNewPoolFree(void *block) {
  if (qorMC_M_memBlockFree(block) == 0) return 0;
  qorSysErr(rtmevkey, 0, 0x148002, 0, "RTM: rtmNewPoolFree", block);
  return -1;
}

void *rtmVarMemMallocFromPool(const char *file, int line, uint32_t tag, uint32_t size) {
  void *b = qorMC_M_memBlockVarAlloc(RTM_MEM_VAR_PART, size, tag, file, line);
  if (b) memset(b, 0, size);
  return b;
}

int rtmVarMemFreeFromPool(void *block) {
  if (qorMC_M_memBlockVarFree(block) == 0) return 0;
  qorSysErr(rtmevkey, 0, 0x148054, 0, "RTM: rtmVarMemFreeFromPool", block);
  return -1;
}

void *rtmMemAllocNonPool(const char *file, int line, uint32_t size, uint32_t type) {
  void *b = qorMC_M_sysMalloc(size, file, line, type);
  if (b) memset(b, 0, size);
  return b;
}

int rtmMemFreeNonPool(const char *file, int line, void *block) {
  if (qorMC_M_sysMemfree(block) == 0) return 0;
  qorSysErr(rtmevkey, 0, 0x148054, 0, "RTM: rtmMemFreeNonPool", block, file, line);
  return -1;
}

void *rtmMemRibRdxMalloc(size_t size) { return rdxAlloc(RTM_RIB_RDX_POOL, size, false); }
void rtmMemRibRdxFree(void *block) { rdxFree(block); }
void *rtmMemNhRdxMalloc(size_t size) { return rdxAlloc(RTM_NH_RDX_POOL, size, false); }
void rtmMemNhRdxFree(void *block) { rdxFree(block); }
void *rtmMemStRibRdxMalloc(size_t size) { return rdxAlloc(RTM_ST_RIB_RDX_POOL, size, false); }
void rtmMemStRibRdxFree(void *block) { rdxFree(block); }
void *rtmMemStNhRdxMalloc(size_t size) { return rdxAlloc(RTM_ST_NH_RDX_POOL, size, false); }
void rtmMemStNhRdxFree(void *block) { rdxFree(block); }
void *rtmMemPrefixUpdateMalloc(size_t size) { return rdxAlloc(RTM_PREFIX_UPDATE_POOL, size, true); }
void rtmMemPrefixUpdateFree(void *block) { rdxFree(block); }

void rtmMemTestReset() {
  rtmMemPoolFree();
  qorMemReset();
  rtmMemResetBlockSizes();
  rtmOutOfMemLogMsg = 1;
}
