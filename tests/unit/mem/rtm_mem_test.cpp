#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "frame/rtm_mem.h"
#include "log/qor_log.h"
#include "mem/qor_mem.h"
#include "rtm/rtm_types.h"

namespace {

// A subsystem's record that outgrew the table's measure, declared the way subsystems do.
struct BigDio {
  uint8_t bytes[400];
};
RTM_POOL_RECORD(RTM_DIO_POOL, BigDio);

class RtmMemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rtmMemTestReset();
    qorLogReset();
    qorLogSetEcho(false);
  }
  void TearDown() override {
    rtmMemTestReset();
    qorLogSetEcho(true);
  }
  static int poolFree(void *b) { return RTM_POOL_FREE(b); }
  template <void (*F)(void *)> static int done(void *b) { return F(b), 0; }
  static bool allZero(const void *p, size_t n) {
    const auto *b = static_cast<const uint8_t *>(p);
    return std::all_of(b, b + n, [](uint8_t x) { return x == 0; });
  }
};

// The table's numbers and sizes are its own business; init must make every pool of it, and
// nothing in its holes.
TEST_F(RtmMemTest, EveryPoolOfTheTableExistsWithItsNumberAndBlockSize) {
  ASSERT_EQ(rtmMemInit(), 0);
  for (const rtmMemPoolDef &r : rtmMemPoolTable) {
    QorMemPoolStats s;
    ASSERT_EQ(qorMemPoolStatsGet(r.number, &s), 0) << r.name;
    EXPECT_EQ(s.name, r.name);
    // The one pool raised by a declaration in this file keeps the larger size.
    EXPECT_EQ(s.blockSize, r.number == RTM_DIO_POOL ? sizeof(BigDio) : r.blockSize) << r.name;
  }
  // The declared size outlives the reset in SetUp, and all of it is the record's.
  void *dio = RTM_POOL_ALLOC(0, sizeof(BigDio), RTM_DIO_POOL);
  EXPECT_TRUE(dio && allZero(dio, sizeof(BigDio)));
  RTM_POOL_FREE(dio);
  for (uint32_t hole : {0x60002u, 0x60035u, 0x60039u, 0x6003fu}) EXPECT_FALSE(qorMemPoolExists(hole)) << hole;
  EXPECT_EQ(qorMemVarClassFor(RTM_MEM_VAR_PART, 2180), 2180u) << "the variable partition exists too";
  EXPECT_EQ(rtmMemPoolAlloc(), -1) << "the pools exist already";
  rtmMemExit();
  EXPECT_FALSE(qorMemPoolExists(RTM_MAIN_RIB_HEAD_POOL));
  EXPECT_EQ(rtmMemInit(), 0) << "and can be made again";
}

TEST_F(RtmMemTest, FixMemBlockSizeGivesTheBlockOfKnownPoolsOnly) {
  const std::tuple<uint32_t, uint32_t, uint32_t> cases[] = {
      {RTM_MAIN_RIB_HEAD_POOL, 96, 100},   {RTM_MAIN_RIB_HEAD_POOL, 100, 100}, {RTM_SWP_DNLD_POOL, 60, 8192},
      {RTM_PREFIX_UPDATE_POOL, 1, 1072},   {RTM_LPM_IPV6_128_POOL, 500, 500},  {RTM_IPVX_HOST_PREFIX_POOL, 7, 7},
      {RTM_RTLEAK_WALKER_POOL, 300, 300},  {RTM_RTLEAK_PERVRFIRT_POOL, 9, 9},  {0x60002, 77, 77}, {0x12345, 5, 5},
  };
  for (auto [pool, size, want] : cases) EXPECT_EQ(fixMemBlockSize(pool, size), want) << std::hex << pool;
}

TEST_F(RtmMemTest, ARaisedBlockSizeIsWhatThePoolHandsOut) {
  ASSERT_EQ(rtmMemSetBlockSize(RTM_MAIN_RIB_HEAD_POOL, 160), 0);
  ASSERT_EQ(rtmMemSetBlockSize(RTM_MAIN_RIB_HEAD_POOL, 120), 0) << "a smaller raise keeps the larger";
  EXPECT_EQ(rtmMemSetBlockSize(0x60002, 160), -1) << "no such pool";
  EXPECT_EQ(fixMemBlockSize(RTM_MAIN_RIB_HEAD_POOL, 96), 160u);
  ASSERT_EQ(rtmMemInit(), 0);
  EXPECT_EQ(rtmMemSetBlockSize(RTM_MAIN_RIB_HEAD_POOL, 200), -1) << "too late";
  EXPECT_EQ(rtmMemSetBlockSize(RTM_MAIN_RIB_HEAD_POOL, 150), 0) << "already large enough";

  auto *b = static_cast<uint8_t *>(rtmMemAllocFromPool(__FILE__, __LINE__, RTM_MEM_TAG_RIB, 150, RTM_MAIN_RIB_HEAD_POOL));
  ASSERT_NE(b, nullptr);
  memset(b, 0x5A, 160);
  EXPECT_EQ(RTM_POOL_FREE(b), 0);
  b = static_cast<uint8_t *>(RTM_POOL_ALLOC(RTM_MEM_TAG_RIB, 150, RTM_MAIN_RIB_HEAD_POOL));
  EXPECT_TRUE(allZero(b, 160)) << "the whole effective block is cleared";

  // A record that outgrew a pool nobody raised is refused, not allowed to overrun.
  size_t asserts = qorAssertCount();
  EXPECT_EQ(RTM_POOL_ALLOC(0, 101, RTM_MAIN_RIB_ENTRY_POOL), nullptr);
  EXPECT_EQ(qorAssertCount(), asserts + 1);
  EXPECT_EQ(rtmMemRibRdxMalloc(41), nullptr);
  EXPECT_EQ(qorAssertCount(), asserts + 2);
}

TEST_F(RtmMemTest, AfIndexTwoMovesToTheIPv6TwinAndAnyOtherNumberIsAnAssertion) {
  ASSERT_EQ(rtmMemInit(), 0);
  const std::pair<uint32_t, uint32_t> twins[] = {
      {0x60000, 0x60001}, {0x60005, 0x60006}, {0x60007, 0x60008}, {0x6000A, 0x6000B}, {0x6000D, 0x60011},
      {0x6000E, 0x60012}, {0x60010, 0x60013}, {0x60018, 0x60019}, {0x60025, 0x60026}, {0x60027, 0x60028},
      {0x6002D, 0x6002E}};
  for (auto [v4, v6] : twins) {
    EXPECT_EQ(std::tuple(qorMemBlockPool(RTM_POOL_ALLOC_AF(0, 8, v4, RTM_IPV6UNI_AFINDEX)),
                         qorMemBlockPool(RTM_POOL_ALLOC_AF(0, 8, v4, RTM_IPV4UNI_AFINDEX)),
                         qorMemBlockPool(RTM_POOL_ALLOC_AF(0, 8, v4, IPV4MUL_AFINDEX))),
              std::tuple(v6, v4, v4))
        << std::hex << v4;
  }
  size_t asserts = qorAssertCount();
  for (uint32_t lone : {RTM_MAIN_RIB_ENTRY_POOL, RTM6_MAIN_RIB_HEAD_POOL, RTM_FIB_NH_POOL}) {
    EXPECT_EQ(RTM_POOL_ALLOC_AF(0, 8, lone, RTM_IPV6UNI_AFINDEX), nullptr);
    EXPECT_NE(RTM_POOL_ALLOC_AF(0, 8, lone, RTM_IPV4UNI_AFINDEX), nullptr);
  }
  EXPECT_EQ(qorAssertCount(), asserts + 3);
}

TEST_F(RtmMemTest, EveryAllocatorClearsItsBlocksButTheRadixNodeAllocators) {
  ASSERT_EQ(rtmMemInit(), 0);
  struct Alloc {
    const char *what;
    void *(*get)();
    int (*put)(void *);
    size_t size;
    bool cleared;
  } allocs[] = {
      {"pool", [] { return RTM_POOL_ALLOC(0, 88, RTM_MAIN_RIB_ENTRY_POOL); }, poolFree, 88, true},
      {"pool by afIndex", [] { return RTM_POOL_ALLOC_AF(0, 112, RTM_MAIN_RIB_HEAD_POOL, 2); }, poolFree, 112, true},
      {"variable", [] { return RTM_VAR_ALLOC(0, 150); }, rtmVarMemFreeFromPool, 150, true},
      {"non-pool", [] { return RTM_NONPOOL_ALLOC(8192, 0); }, [](void *b) { return RTM_NONPOOL_FREE(b); }, 8192, true},
      {"prefix update", [] { return rtmMemPrefixUpdateMalloc(1072); }, done<rtmMemPrefixUpdateFree>, 1072, true},
      {"rib radix", [] { return rtmMemRibRdxMalloc(40); }, done<rtmMemRibRdxFree>, 40, false},
      {"nh radix", [] { return rtmMemNhRdxMalloc(40); }, done<rtmMemNhRdxFree>, 40, false},
      {"static radix", [] { return rtmMemStRibRdxMalloc(40); }, done<rtmMemStRibRdxFree>, 40, false},
      {"static nh radix", [] { return rtmMemStNhRdxMalloc(40); }, done<rtmMemStNhRdxFree>, 40, false},
  };
  // Each block is dirtied and freed, and the next one checked: a slab hands the same block back.
  for (const Alloc &a : allocs) {
    SCOPED_TRACE(a.what);
    void *b = a.get();
    ASSERT_NE(b, nullptr);
    memset(b, 0xC3, a.size);
    ASSERT_EQ(a.put(b), 0);
    auto *again = static_cast<uint8_t *>(a.get());
    ASSERT_NE(again, nullptr);
    if (a.cleared) {
      EXPECT_TRUE(allZero(again, a.size));
    } else {
#ifndef RTM_SANITIZED
      // Past its free-list link the block is as it was left.
      ASSERT_EQ(again, b);
      EXPECT_EQ(again[a.size - 1], 0xC3);
#endif
    }
    a.put(again);
  }
}

TEST_F(RtmMemTest, RefusedFreesAreLoggedWithTheirEventAndGiveMinusOne) {
  ASSERT_EQ(rtmMemInit(), 0);
  void *entry = RTM_POOL_ALLOC(0, 88, RTM_MAIN_RIB_ENTRY_POOL);
  ASSERT_EQ(RTM_POOL_FREE(entry), 0);
  int local = 0;
  void *heap = malloc(16);

  EXPECT_EQ(rtmMemFreeFromPool("rib.cpp", 77, entry), -1) << "double free";
  const QorLogRecord *r = qorLogLast(0x148054);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->text, "RTM: rtmMemFreeFromPool");
  ASSERT_EQ(r->args.size(), 3u);
  EXPECT_EQ(r->args[1], "rib.cpp");
  EXPECT_EQ(r->args[2], "77");
  EXPECT_EQ(rtmMemFreeFromPool("rib.cpp", 78, &local), -1) << "foreign pointer";

  void *msg = RTM_POOL_ALLOC(RTM_MEM_TAG_DNLD_CTRL, 8192, RTM_SWP_DNLD_POOL);
  EXPECT_EQ(rtmNewPoolFree(msg), 0);
  EXPECT_EQ(rtmNewPoolFree(msg), -1);
  EXPECT_EQ(rtmNewPoolFree(heap), -1);
  EXPECT_EQ(qorLogCount(0x148002), 2u);
  EXPECT_EQ(qorLogLast(0x148002)->text, "RTM: rtmNewPoolFree");

  EXPECT_EQ(rtmMemFreeNonPool(__FILE__, __LINE__, heap), -1);
  EXPECT_EQ(qorLogLast(0x148054)->text, "RTM: rtmMemFreeNonPool");
  EXPECT_EQ(rtmVarMemFreeFromPool(heap), -1);
  EXPECT_EQ(qorLogLast(0x148054)->text, "RTM: rtmVarMemFreeFromPool");
  EXPECT_EQ(qorLogCount(0x148054), 4u);
  free(heap);
}

TEST_F(RtmMemTest, ExhaustionOfOnePoolLeavesTheOthersAndIsSilent) {
  ASSERT_EQ(rtmMemInit(), 0);
  auto head = [](uint32_t size, uint32_t af) {
    return RTM_POOL_ALLOC_AF(0, size, RTM_MAIN_RIB_HEAD_POOL, af) != nullptr;
  };
  qorMemFailNext(RTM_MAIN_RIB_HEAD_POOL, 2);
  // Two failures, one per allocation (no retry); another pool and the IPv6 twin (a pool of its own)
  // go on. Counting the failures is the slab layer's.
  EXPECT_EQ((std::vector<bool>{head(100, 0), RTM_POOL_ALLOC(0, 88, RTM_MAIN_RIB_ENTRY_POOL) != nullptr, head(112, 2),
                               head(100, 0), head(100, 0)}),
            (std::vector<bool>{0, 1, 1, 0, 1}));
  // Allocators stay silent: exhaustion is the caller's to report.
  EXPECT_EQ(qorLogRecent().size(), 0u);
  EXPECT_EQ(rtmOutOfMemLogMsg, 1u);
}

}  // namespace
