// The daemon's memory: its table of named pools, the variable partition and the allocator
// functions every subsystem calls.
//
// Block sizes. The table's sizes were measured for a 32-bit target; our records hold 64-bit
// pointers and are often larger. A subsystem therefore raises the block size of its pool to
// the size of its record before the pools are made (RTM_POOL_RECORD does it from a static
// initializer; rtmMemSetBlockSize does it at run time), and fixMemBlockSize reports the
// effective block size, so the rule "a known pool hands out its whole block" still holds. A
// request larger than the block of its pool is refused with an assertion rather than
// overrunning the block.
#pragma once

#include <cstddef>
#include <cstdint>

// Pool numbers.
constexpr uint32_t RTM_MAIN_RIB_HEAD_POOL = 0x60000;
constexpr uint32_t RTM6_MAIN_RIB_HEAD_POOL = 0x60001;
constexpr uint32_t RTM_CLR_RTE_BUF_POOL = 0x60003;
constexpr uint32_t RTM_MAIN_RIB_ENTRY_POOL = 0x60004;
constexpr uint32_t RTM_ST_RIB_HEAD_POOL = 0x60005;
constexpr uint32_t RTM6_ST_RIB_HEAD_POOL = 0x60006;
constexpr uint32_t RTM_ST_RIB_ROUTE_POOL = 0x60007;
constexpr uint32_t RTM6_ST_RIB_ROUTE_POOL = 0x60008;
constexpr uint32_t RTM_ST_RIB_ENTRY_POOL = 0x60009;
constexpr uint32_t RTM_ST_RIB_NH_POOL = 0x6000a;
constexpr uint32_t RTM6_ST_RIB_NH_POOL = 0x6000b;
constexpr uint32_t RTM_ST_NH_RDX_POOL = 0x6000c;
constexpr uint32_t RTM_ST_RIB_MHEAD_POOL = 0x6000d;
constexpr uint32_t RTM_ST_RIB_MROUTE_POOL = 0x6000e;
constexpr uint32_t RTM_ST_RIB_MENTRY_POOL = 0x6000f;
constexpr uint32_t RTM_ST_RIB_MNH_POOL = 0x60010;
constexpr uint32_t RTM6_ST_RIB_MHEAD_POOL = 0x60011;
constexpr uint32_t RTM6_ST_RIB_MROUTE_POOL = 0x60012;
constexpr uint32_t RTM6_ST_RIB_MNH_POOL = 0x60013;
constexpr uint32_t RTM_FIB_NH_POOL = 0x60014;
constexpr uint32_t RTM_NH_FIFO_NODE_POOL = 0x60015;
constexpr uint32_t RTM_POLL_FIFO_NODE_POOL = 0x60016;
constexpr uint32_t RTM_RTM_ARP_POOL = 0x60017;
constexpr uint32_t RTM_NH_POOL = 0x60018;
constexpr uint32_t RTM6_NH_POOL = 0x60019;
constexpr uint32_t RTM_ADDRLST_POOL = 0x6001a;
constexpr uint32_t RTM6_ADDRLST_POOL = 0x6001b;
constexpr uint32_t RTM_IFNET_POOL = 0x6001c;
constexpr uint32_t RTM_REDIST_POOL = 0x6001d;
constexpr uint32_t RTM_SWP_DNLD_POOL = 0x6001e;
constexpr uint32_t RTM_SWP_NH_DNLD_POOL = 0x6001f;
constexpr uint32_t RTM_SWP_REDIST_POOL = 0x60020;
constexpr uint32_t RTM_SWP_POOL = 0x60021;
constexpr uint32_t RTM_NH_RDX_POOL = 0x60022;
constexpr uint32_t RTM_RIB_RDX_POOL = 0x60023;
constexpr uint32_t RTM_ST_RIB_RDX_POOL = 0x60024;
constexpr uint32_t RTM_POLL_RIB_HEAD_POOL = 0x60025;
constexpr uint32_t RTM6_POLL_RIB_HEAD_POOL = 0x60026;
constexpr uint32_t RTM_POLL_CLIENT_POOL = 0x60027;
constexpr uint32_t RTM6_POLL_CLIENT_POOL = 0x60028;
constexpr uint32_t RTM_DIO_POOL = 0x60029;
constexpr uint32_t RTM_RPARAMS_POOL = 0x6002a;
constexpr uint32_t RTM_IPREDIR_POOL = 0x6002b;
constexpr uint32_t RTM_MAIN_LARGE_RIB_ENTRY_POOL = 0x6002c;
constexpr uint32_t RTM_GBC_RIB_HEAD_POOL = 0x6002d;
constexpr uint32_t RTM6_GBC_RIB_HEAD_POOL = 0x6002e;
constexpr uint32_t RTM_RTM_NDP_POOL = 0x6002f;
constexpr uint32_t RTM_ECMP_MAX_PATHS_DNLD_POOL = 0x60030;
constexpr uint32_t RTM_OFM_GRP_POOL = 0x60031;
constexpr uint32_t RTM_OFM_L3_INTF_POOL = 0x60032;
constexpr uint32_t RTM_LPM_IPV6_128_POOL = 0x60033;
constexpr uint32_t RTM_IPVX_HOST_PREFIX_POOL = 0x60034;
constexpr uint32_t RTM_PREFIX_UPDATE_POOL = 0x60036;
constexpr uint32_t RTM_PREFIX_SLL_POOL = 0x60037;
constexpr uint32_t RTM_RTLEAK_WALKER_POOL = 0x60038;
constexpr uint32_t RTM_RTLEAK_ERT_POOL = 0x6003a;
constexpr uint32_t RTM_RTLEAK_IRT_POOL = 0x6003b;
constexpr uint32_t RTM_RTLEAK_EXPVRF_POOL = 0x6003c;
constexpr uint32_t RTM_RTLEAK_IMPVRF_POOL = 0x6003d;
constexpr uint32_t RTM_RTLEAK_PERVRFIRT_POOL = 0x6003e;

// The fixed partition and the variable partition.
constexpr uint32_t RTM_MEM_POOL_FIRST = 0x60000;
constexpr uint32_t RTM_MEM_POOL_LAST = 0x6003F;
constexpr uint32_t RTM_MEM_VAR_PART = 0x60000;
constexpr uint32_t RTM_MEM_VAR_SIZES_COUNT = 46;
extern const uint32_t rtmVarPartSizes[RTM_MEM_VAR_SIZES_COUNT];

// Owner marks passed as `tag`.
constexpr uint32_t RTM_MEM_TAG_RIB = 0x22222222;
constexpr uint32_t RTM_MEM_TAG_CLR_BUF = 0x11111111;
constexpr uint32_t RTM_MEM_TAG_RTE = 0x3333FFFF;
constexpr uint32_t RTM_MEM_TAG_OSPF_QUAL = 0xFFFF3333;
constexpr uint32_t RTM_MEM_TAG_DNLD_CTRL = 0xEEEEEEEE;

struct rtmMemPoolDef {
  const char *name;
  uint32_t number;
  uint32_t blockSize;  // as measured on the original target
};
constexpr uint32_t RTM_MEM_POOL_COUNT = 60;
inline constexpr rtmMemPoolDef rtmMemPoolTable[RTM_MEM_POOL_COUNT] = {
    {"RTM_MAIN_RIB_HEAD_POOL", RTM_MAIN_RIB_HEAD_POOL, 100},
    {"RTM6_MAIN_RIB_HEAD_POOL", RTM6_MAIN_RIB_HEAD_POOL, 112},
    {"RTM_CLR_RTE_BUF_POOL", RTM_CLR_RTE_BUF_POOL, 184},
    {"RTM_MAIN_RIB_ENTRY_POOL", RTM_MAIN_RIB_ENTRY_POOL, 88},
    {"RTM_ST_RIB_HEAD_POOL", RTM_ST_RIB_HEAD_POOL, 1340},
    {"RTM6_ST_RIB_HEAD_POOL", RTM6_ST_RIB_HEAD_POOL, 1864},
    {"RTM_ST_RIB_ROUTE_POOL", RTM_ST_RIB_ROUTE_POOL, 100},
    {"RTM6_ST_RIB_ROUTE_POOL", RTM6_ST_RIB_ROUTE_POOL, 108},
    {"RTM_ST_RIB_ENTRY_POOL", RTM_ST_RIB_ENTRY_POOL, 16},
    {"RTM_ST_RIB_NH_POOL", RTM_ST_RIB_NH_POOL, 92},
    {"RTM6_ST_RIB_NH_POOL", RTM6_ST_RIB_NH_POOL, 104},
    {"RTM_ST_NH_RDX_POOL", RTM_ST_NH_RDX_POOL, 40},
    {"RTM_ST_RIB_MHEAD_POOL", RTM_ST_RIB_MHEAD_POOL, 1332},
    {"RTM_ST_RIB_MROUTE_POOL", RTM_ST_RIB_MROUTE_POOL, 228},
    {"RTM_ST_RIB_MENTRY_POOL", RTM_ST_RIB_MENTRY_POOL, 16},
    {"RTM_ST_RIB_MNH_POOL", RTM_ST_RIB_MNH_POOL, 68},
    {"RTM6_ST_RIB_MHEAD_POOL", RTM6_ST_RIB_MHEAD_POOL, 1856},
    {"RTM6_ST_RIB_MROUTE_POOL", RTM6_ST_RIB_MROUTE_POOL, 236},
    {"RTM6_ST_RIB_MNH_POOL", RTM6_ST_RIB_MNH_POOL, 80},
    {"RTM_FIB_NH_POOL", RTM_FIB_NH_POOL, 204},
    {"RTM_NH_FIFO_NODE_POOL", RTM_NH_FIFO_NODE_POOL, 24},
    {"RTM_POLL_FIFO_NODE_POOL", RTM_POLL_FIFO_NODE_POOL, 12},
    {"RTM_RTM_ARP_POOL", RTM_RTM_ARP_POOL, 156},
    {"RTM_NH_POOL", RTM_NH_POOL, 44},
    {"RTM6_NH_POOL", RTM6_NH_POOL, 56},
    {"RTM_ADDRLST_POOL", RTM_ADDRLST_POOL, 12},
    {"RTM6_ADDRLST_POOL", RTM6_ADDRLST_POOL, 36},
    {"RTM_IFNET_POOL", RTM_IFNET_POOL, 160},
    {"RTM_REDIST_POOL", RTM_REDIST_POOL, 424},
    {"RTM_SWP_DNLD_POOL", RTM_SWP_DNLD_POOL, 8192},
    {"RTM_SWP_NH_DNLD_POOL", RTM_SWP_NH_DNLD_POOL, 8192},
    {"RTM_SWP_REDIST_POOL", RTM_SWP_REDIST_POOL, 8192},
    {"RTM_SWP_POOL", RTM_SWP_POOL, 8192},
    {"RTM_NH_RDX_POOL", RTM_NH_RDX_POOL, 40},
    {"RTM_RIB_RDX_POOL", RTM_RIB_RDX_POOL, 40},
    {"RTM_ST_RIB_RDX_POOL", RTM_ST_RIB_RDX_POOL, 40},
    {"RTM_POLL_RIB_HEAD_POOL", RTM_POLL_RIB_HEAD_POOL, 68},
    {"RTM6_POLL_RIB_HEAD_POOL", RTM6_POLL_RIB_HEAD_POOL, 80},
    {"RTM_POLL_CLIENT_POOL", RTM_POLL_CLIENT_POOL, 1904},
    {"RTM6_POLL_CLIENT_POOL", RTM6_POLL_CLIENT_POOL, 2452},
    {"RTM_DIO_POOL", RTM_DIO_POOL, 328},
    {"RTM_RPARAMS_POOL", RTM_RPARAMS_POOL, 656},
    {"RTM_IPREDIR_POOL", RTM_IPREDIR_POOL, 140},
    {"RTM_MAIN_LARGE_RIB_ENTRY_POOL", RTM_MAIN_LARGE_RIB_ENTRY_POOL, 344},
    {"RTM_GBC_RIB_HEAD_POOL", RTM_GBC_RIB_HEAD_POOL, 68},
    {"RTM6_GBC_RIB_HEAD_POOL", RTM6_GBC_RIB_HEAD_POOL, 80},
    {"RTM_RTM_NDP_POOL", RTM_RTM_NDP_POOL, 156},
    {"RTM_ECMP_MAX_PATHS_DNLD_POOL", RTM_ECMP_MAX_PATHS_DNLD_POOL, 132},
    {"RTM_OFM_GRP_POOL", RTM_OFM_GRP_POOL, 304},
    {"RTM_OFM_L3_INTF_POOL", RTM_OFM_L3_INTF_POOL, 72},
    {"RTM_LPM_IPV6_128_POOL", RTM_LPM_IPV6_128_POOL, 132},
    {"RTM_IPVX_HOST_PREFIX_POOL", RTM_IPVX_HOST_PREFIX_POOL, 132},
    {"RTM_PREFIX_UPDATE_POOL", RTM_PREFIX_UPDATE_POOL, 1072},
    {"RTM_PREFIX_SLL_POOL", RTM_PREFIX_SLL_POOL, 32},
    {"RTM_RTLEAK_WALKER_POOL", RTM_RTLEAK_WALKER_POOL, 264},
    {"RTM_RTLEAK_ERT_POOL", RTM_RTLEAK_ERT_POOL, 52},
    {"RTM_RTLEAK_IRT_POOL", RTM_RTLEAK_IRT_POOL, 52},
    {"RTM_RTLEAK_EXPVRF_POOL", RTM_RTLEAK_EXPVRF_POOL, 216},
    {"RTM_RTLEAK_IMPVRF_POOL", RTM_RTLEAK_IMPVRF_POOL, 60},
    {"RTM_RTLEAK_PERVRFIRT_POOL", RTM_RTLEAK_PERVRFIRT_POOL, 172},
};

// Table block size of a pool (0 if the number has no pool); usable in static_assert.
constexpr uint32_t rtmMemTableBlockSize(uint32_t number);
// IPv6 twin of a pool number, or 0 when it has none.
constexpr uint32_t rtmMemPoolTwin(uint32_t number);

// Raises the block size of a pool to at least `size`. Before rtmMemPoolAlloc only (or for a
// size that does not exceed the pool as created). 0, or -1 for an unknown pool or a late raise.
int rtmMemSetBlockSize(uint32_t number, uint32_t size);
// The block size the pool has (or will have): the table's, raised by rtmMemSetBlockSize.
uint32_t rtmMemBlockSize(uint32_t number);
// Drops the raises of rtmMemSetBlockSize; declarations of RTM_POOL_RECORD stay (tests).
void rtmMemResetBlockSizes();

// Declares that records of `type` live in `pool`: raises the pool's block to sizeof(type)
// before the pools are made, for the life of the process. Use at namespace scope in the
// subsystem's own .cpp (static initialisation runs before main, hence before the pools).
int rtmMemDeclareBlockSize(uint32_t number, uint32_t size);
// Declares that `pool` holds records of exactly `size` bytes: the block becomes that size even
// below the table's (measured on a 32-bit target with other layouts), for records kept by the
// million where the difference is memory. Other declarations and raises still only grow it.
int rtmMemDeclareExactBlockSize(uint32_t number, uint32_t size);
#define RTM_POOL_RECORD_EXACT(pool, size) RTM_POOL_RECORD_EXACT_(pool, size, __LINE__)
#define RTM_POOL_RECORD_EXACT_(pool, size, n) RTM_POOL_RECORD_EXACT__(pool, size, n)
#define RTM_POOL_RECORD_EXACT__(pool, size, n) \
  [[maybe_unused]] static const int rtmPoolRecordExact_##n = rtmMemDeclareExactBlockSize((pool), (size))
#define RTM_POOL_RECORD(pool, type) RTM_POOL_RECORD_(pool, type, __LINE__)
#define RTM_POOL_RECORD_(pool, type, n) RTM_POOL_RECORD__(pool, type, n)
#define RTM_POOL_RECORD__(pool, type, n) \
  [[maybe_unused]] static const int rtmPoolRecord_##n = rtmMemDeclareBlockSize((pool), sizeof(type))

int rtmMemPoolAlloc();
int rtmMemPoolFree();
int rtmMemInit();  // 0 on success
void rtmMemExit();

uint32_t fixMemBlockSize(uint32_t pool, uint32_t size);

void *rtmMemAllocFromPool(const char *file, int line, uint32_t tag, uint32_t size, uint32_t pool);
void *rtmMemAllocFromPoolAfIndex(const char *file, int line, uint32_t tag, uint32_t size, uint32_t pool,
                                 uint32_t afIndex);
int rtmMemFreeFromPool(const char *file, int line, void *block);
// The free function handed to the SWP queues.
int rtmNewPoolFree(void *block);

void *rtmVarMemMallocFromPool(const char *file, int line, uint32_t tag, uint32_t size);
int rtmVarMemFreeFromPool(void *block);

void *rtmMemAllocNonPool(const char *file, int line, uint32_t size, uint32_t type);
int rtmMemFreeNonPool(const char *file, int line, void *block);

// Radix node allocators, in the form the radix tree takes. Radix nodes are not cleared: the
// tree initialises every field it uses, and these are the most frequent allocations.
void *rtmMemRibRdxMalloc(size_t size);
void rtmMemRibRdxFree(void *block);
void *rtmMemNhRdxMalloc(size_t size);
void rtmMemNhRdxFree(void *block);
void *rtmMemStRibRdxMalloc(size_t size);
void rtmMemStRibRdxFree(void *block);
void *rtmMemStNhRdxMalloc(size_t size);
void rtmMemStNhRdxFree(void *block);
// Prefix update records: same form, but cleared like every record that is not a radix node.
void *rtmMemPrefixUpdateMalloc(size_t size);
void rtmMemPrefixUpdateFree(void *block);

// 1 until an exhausted route add has been logged; set again by clearing routes.
extern uint32_t rtmOutOfMemLogMsg;

// The event key of the daemon's log. Defined weakly here so that this library links alone;
// the start-up code's own definition takes precedence.
extern uint32_t rtmevkey;

// Pools and partitions gone, sizes back to the table, rtmOutOfMemLogMsg 1 (tests).
void rtmMemTestReset();

#define RTM_POOL_ALLOC(tag, size, pool) rtmMemAllocFromPool(__FILE__, __LINE__, (tag), (size), (pool))
#define RTM_POOL_ALLOC_AF(tag, size, pool, afIndex) \
  rtmMemAllocFromPoolAfIndex(__FILE__, __LINE__, (tag), (size), (pool), (afIndex))
#define RTM_POOL_FREE(block) rtmMemFreeFromPool(__FILE__, __LINE__, (block))
#define RTM_VAR_ALLOC(tag, size) rtmVarMemMallocFromPool(__FILE__, __LINE__, (tag), (size))
#define RTM_NONPOOL_ALLOC(size, type) rtmMemAllocNonPool(__FILE__, __LINE__, (size), (type))
#define RTM_NONPOOL_FREE(block) rtmMemFreeNonPool(__FILE__, __LINE__, (block))

// ---- constexpr definitions ----

constexpr uint32_t rtmMemTableBlockSize(uint32_t number) {
  for (const rtmMemPoolDef &d : rtmMemPoolTable)
    if (d.number == number) return d.blockSize;
  return 0;
}

constexpr uint32_t rtmMemPoolTwin(uint32_t number) {
  switch (number) {
    case RTM_MAIN_RIB_HEAD_POOL: return RTM6_MAIN_RIB_HEAD_POOL;
    case RTM_ST_RIB_HEAD_POOL: return RTM6_ST_RIB_HEAD_POOL;
    case RTM_ST_RIB_ROUTE_POOL: return RTM6_ST_RIB_ROUTE_POOL;
    case RTM_ST_RIB_NH_POOL: return RTM6_ST_RIB_NH_POOL;
    case RTM_ST_RIB_MHEAD_POOL: return RTM6_ST_RIB_MHEAD_POOL;
    case RTM_ST_RIB_MROUTE_POOL: return RTM6_ST_RIB_MROUTE_POOL;
    case RTM_ST_RIB_MNH_POOL: return RTM6_ST_RIB_MNH_POOL;
    case RTM_NH_POOL: return RTM6_NH_POOL;
    case RTM_POLL_RIB_HEAD_POOL: return RTM6_POLL_RIB_HEAD_POOL;
    case RTM_POLL_CLIENT_POOL: return RTM6_POLL_CLIENT_POOL;
    case RTM_GBC_RIB_HEAD_POOL: return RTM6_GBC_RIB_HEAD_POOL;
    default: return 0;
  }
}
