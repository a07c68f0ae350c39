#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>

#include "frame/rtm_mem.h"
#include "mem/qor_mem.h"

namespace {

constexpr uint32_t kFirst = 0x70000, kLast = 0x7000F;

class QorMemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qorMemReset();
    ASSERT_EQ(qor_memPartFixedInit(kFirst, kLast, &part), 0);
  }
  void TearDown() override { qorMemReset(); }
  static void *alloc(uint32_t number, size_t size) { return qorMC_M_memBlockAlloc(number, size, 0, nullptr, 0); }
  QorMemPoolStats stats(uint32_t number) {
    QorMemPoolStats s;
    EXPECT_EQ(qorMemPoolStatsGet(number, &s), 0);
    return s;
  }
  QOR_MEM_PART_ID part = 0;
};

TEST_F(QorMemTest, PoolCreationIsRefusedOutsideItsPartitionOrTwice) {
  struct Case {
    const char *what;
    uint32_t number, part, size;
    int rc;
  } cases[] = {
      {"first number", kFirst, kFirst, 100, 0},
      {"same number again", kFirst, kFirst, 100, QOR_MEM_ERR},
      {"last number", kLast, kFirst, 8192, 0},
      {"beyond the partition", kLast + 1, kFirst, 100, QOR_MEM_ERR},
      {"unknown partition id", kFirst + 1, kFirst + 1, 100, QOR_MEM_ERR},
      {"zero block size", kFirst + 2, kFirst, 0, QOR_MEM_ERR},
      {"block larger than a chunk", kFirst + 3, kFirst, uint32_t(QOR_MEM_CHUNK_SIZE), QOR_MEM_ERR},
  };
  for (const Case &c : cases) EXPECT_EQ(qorMC_M_memPoolCreate("p", c.number, c.part, c.size), c.rc) << c.what;
  QOR_MEM_PART_ID other;
  EXPECT_EQ(qor_memPartFixedInit(kLast, kLast + 4, &other), QOR_MEM_ERR) << "overlapping partition";
  EXPECT_EQ(qor_memPartFixedInit(kLast + 1, kLast + 4, &other), 0);
  EXPECT_EQ(other, kLast + 1);
}

TEST_F(QorMemTest, BlocksAreDistinctAlignedAndCountedAcrossChunks) {
  ASSERT_EQ(qorMC_M_memPoolCreate("heads", kFirst, part, 100), 0);
  // Enough blocks to need several chunks; that none overlaps another is the model test's.
  const size_t n = 3 * QOR_MEM_CHUNK_SIZE / 100;
  std::vector<uint8_t *> blocks;
  for (size_t i = 0; i < n; ++i) {
    blocks.push_back(static_cast<uint8_t *>(alloc(kFirst, 100)));
    ASSERT_NE(blocks.back(), nullptr);
    ASSERT_EQ(reinterpret_cast<uintptr_t>(blocks.back()) % 8, 0u);
  }
  for (size_t i = 0; i < n; i += 2) ASSERT_EQ(qorMC_M_memBlockFree(blocks[i]), 0);
  QorMemPoolStats s = stats(kFirst);
  EXPECT_EQ(std::tuple(s.name, s.blockSize, s.allocs, s.frees, s.inUse, s.peak, s.failures),
            std::tuple("heads", 100u, n, (n + 1) / 2, n / 2, n, 0u));
  EXPECT_EQ(qorMemBlockPool(blocks[1]), kFirst);
  EXPECT_EQ(qorMemBlockPool(blocks[0]), 0u) << "a freed block belongs to no pool";
#ifndef RTM_SANITIZED
  EXPECT_EQ(s.bytesReserved % QOR_MEM_CHUNK_SIZE, 0u);
  EXPECT_GE(s.bytesReserved, 3 * QOR_MEM_CHUNK_SIZE);
  // A freed block is the next one handed out.
  void *again = alloc(kFirst, 100);
  EXPECT_EQ(again, blocks[n % 2 ? n - 1 : n - 2]);
#endif
}

#ifndef RTM_SANITIZED
TEST_F(QorMemTest, AMillionSmallBlocksCostLittleMoreThanTheirSize) {
  ASSERT_EQ(qorMC_M_memPoolCreate("heads", kFirst, part, 104), 0);
  const size_t n = 1000000;
  QorMemPool *p = qorMemPoolGet(kFirst);
  for (size_t i = 0; i < n; ++i) ASSERT_NE(qorMC_M_memBlockAlloc(p, 104, 0, nullptr, 0), nullptr);
  QorMemPoolStats s = stats(kFirst);
  EXPECT_LT(double(s.bytesReserved) / n, 104 * 1.02);
}
#endif

TEST_F(QorMemTest, FreeRefusesWhatIsNotALiveBlockOfAFixedPool) {
  ASSERT_EQ(qorMC_M_memPoolCreate("a", kFirst, part, 64), 0);
  ASSERT_EQ(qorMC_M_memPoolCreate("b", kFirst + 1, part, 64), 0);
  const uint32_t classes[] = {32, 128};
  ASSERT_EQ(qorMC_qor_memPartVarInit(0x42, 0, classes, 2), 0);
  auto *live = static_cast<char *>(alloc(kFirst, 64));
  void *freed = alloc(kFirst, 64);
  void *never = alloc(kFirst + 1, 64);  // keeps pool b's chunk
  ASSERT_EQ(qorMC_M_memBlockFree(freed), 0);
  void *varBlock = qorMC_M_memBlockVarAlloc(0x42, 20, 0, nullptr, 0);
  void *sysBlock = qorMC_M_sysMalloc(64, nullptr, 0, 0);
  void *heap = malloc(64);
  int onStack = 0;
  const std::tuple<const char *, void *, int> cases[] = {
      {"null", nullptr, QOR_MEM_ENOTBLOCK},
      {"stack", &onStack, QOR_MEM_ENOTBLOCK},
      {"plain heap", heap, QOR_MEM_ENOTBLOCK},
      {"inside a block", live + 8, QOR_MEM_ENOTBLOCK},
      {"freed twice", freed, QOR_MEM_EDOUBLEFREE},
      {"size-class block", varBlock, QOR_MEM_ENOTBLOCK},
      {"system block", sysBlock, QOR_MEM_ENOTBLOCK},
  };
  for (auto [what, p, rc] : cases) EXPECT_EQ(qorMC_M_memBlockFree(p), rc) << what;
  QorMemPoolStats s = stats(kFirst);
  EXPECT_EQ(std::tuple(s.inUse, s.frees, s.badFrees), std::tuple(1u, 1u, 1u)) << "only the double free is the pool's";
  // The refused blocks are intact and go back through their own functions.
  EXPECT_EQ(qorMC_M_memBlockVarFree(live), QOR_MEM_ENOTBLOCK) << "fixed block through the var free";
  EXPECT_EQ(qorMC_M_sysMemfree(live), QOR_MEM_ENOTBLOCK);
  EXPECT_EQ(qorMC_M_memBlockFree(live), 0);
  EXPECT_EQ(qorMC_M_memBlockFree(never), 0);
  EXPECT_EQ(qorMC_M_memBlockVarFree(varBlock), 0);
  EXPECT_EQ(qorMC_M_memBlockVarFree(varBlock), QOR_MEM_EDOUBLEFREE);
  EXPECT_EQ(qorMC_M_sysMemfree(sysBlock), 0);
  EXPECT_EQ(qorMC_M_sysMemfree(sysBlock), QOR_MEM_ENOTBLOCK);
  EXPECT_EQ(qorMemSysStats().badFrees, 2u);
  free(heap);
}

TEST_F(QorMemTest, AllocationRefusalsAndTheBlocksOfADeletedPool) {
  ASSERT_EQ(qorMC_M_memPoolCreate("a", kFirst, part, 40), 0);
  EXPECT_EQ(alloc(kFirst, 41), nullptr) << "larger than the block";
  void *b = alloc(kFirst, 40);
  EXPECT_NE(b, nullptr);
  EXPECT_EQ(stats(kFirst).failures, 1u);
  EXPECT_EQ(alloc(kFirst + 5, 8), nullptr) << "no such pool";
  ASSERT_EQ(qorMC_M_memPoolDelete(kFirst), 0);
  EXPECT_FALSE(qorMemPoolExists(kFirst));
  EXPECT_EQ(qorMC_M_memBlockFree(b), QOR_MEM_ENOTBLOCK) << "a stranger now";
  EXPECT_EQ(alloc(kFirst, 40), nullptr);
  EXPECT_EQ(qorMC_M_memPoolCreate("a", kFirst, part, 40), 0) << "the number can be used again";
}

TEST_F(QorMemTest, SizeClassesServeTheSmallestThatFitsAndFallBackAboveTheLargest) {
  // The daemon's table: unsorted, with repeats.
  ASSERT_EQ(qorMC_qor_memPartVarInit(0x60000, 0, rtmVarPartSizes, RTM_MEM_VAR_SIZES_COUNT), 0);
  EXPECT_EQ(qorMC_qor_memPartVarInit(0x60000, 0, rtmVarPartSizes, RTM_MEM_VAR_SIZES_COUNT), QOR_MEM_ERR) << "exists";
  const std::pair<size_t, size_t> cases[] = {{1, 20},   {20, 20},   {21, 40},    {41, 64},     {65, 88},
                                             {89, 92},  {93, 96},   {101, 104},  {157, 164},   {185, 188},
                                             {861, 2180}, {2180, 2180}, {2181, 0}, {100000, 0}};
  std::vector<void *> blocks;
  for (auto [request, served] : cases) {
    EXPECT_EQ(qorMemVarClassFor(0x60000, request), served) << request;
    auto *b = static_cast<uint8_t *>(qorMC_M_memBlockVarAlloc(0x60000, request, 0, nullptr, 0));
    ASSERT_NE(b, nullptr);
    memset(b, 0xAB, request);  // the whole request is ours
    blocks.push_back(b);
  }
  QorMemVarStats vs;
  ASSERT_EQ(qorMemVarStatsGet(0x60000, &vs), 0);
  // One class per distinct size, ascending; two requests above the largest went to the heap.
  EXPECT_EQ(std::tuple(vs.classes.size(), vs.inUse, vs.fallbacks, vs.fallbackInUse),
            std::tuple(40u, std::size(cases), 2u, 2u));
  const QorMemVarClassStats &lo = vs.classes.front(), &hi = vs.classes.back();
  EXPECT_EQ(std::tuple(lo.size, lo.inUse, hi.size, hi.inUse), std::tuple(20u, 2u, 2180u, 2u));
  for (void *b : blocks) EXPECT_EQ(qorMC_M_memBlockVarFree(b), 0);
  ASSERT_EQ(qorMemVarStatsGet(0x60000, &vs), 0);
  EXPECT_EQ(std::tuple(vs.inUse, vs.fallbackInUse, vs.peak), std::tuple(0u, 0u, std::size(cases)));
}

TEST_F(QorMemTest, FailNextHitsOnlyItsPoolAndFailAfterHitsEveryAllocator) {
  ASSERT_EQ(qorMC_M_memPoolCreate("a", kFirst, part, 32), 0);
  ASSERT_EQ(qorMC_M_memPoolCreate("b", kFirst + 1, part, 32), 0);
  const uint32_t classes[] = {64};
  ASSERT_EQ(qorMC_qor_memPartVarInit(7, 0, classes, 1), 0);

  auto pool = [](uint32_t n) { return alloc(n, 32) != nullptr; };
  auto var = [] { return qorMC_M_memBlockVarAlloc(7, 10, 0, nullptr, 0) != nullptr; };
  auto sys = [] { return qorMC_M_sysMalloc(10, nullptr, 0, 0) != nullptr; };
  using Got = std::vector<bool>;  // braces: the calls run left to right

  qorMemFailNext(kFirst, 2);
  EXPECT_EQ((Got{pool(kFirst), pool(kFirst + 1), var(), pool(kFirst), pool(kFirst)}), (Got{0, 1, 1, 0, 1}));
  EXPECT_EQ(stats(kFirst).failures, 2u);
  EXPECT_EQ(stats(kFirst + 1).failures, 0u);

  qorMemVarFailNext(1);
  qorMemSysFailNext(1);
  EXPECT_EQ((Got{var(), sys(), pool(kFirst), var(), sys()}), (Got{0, 0, 1, 1, 1}));
  EXPECT_EQ(qorMemSysStats().failures, 1u);

  void *sysBlock = qorMC_M_sysMalloc(10, nullptr, 0, 0);
  qorMemFailAfter(3);
  EXPECT_EQ((Got{pool(kFirst), var(), sys()}), (Got{1, 1, 1}));
  for (int i = 0; i < 3; ++i) EXPECT_EQ((Got{pool(kFirst + 1), var(), sys()}), (Got{0, 0, 0}));
  EXPECT_EQ(qorMC_M_sysMemfree(sysBlock), 0) << "frees still work";
  qorMemFailAfter(-1);
  EXPECT_TRUE(pool(kFirst + 1));
}

TEST_F(QorMemTest, RandomAllocAndFreeAgreeWithAModel) {
  const uint32_t sizes[] = {16, 40, 100, 1500};
  for (uint32_t i = 0; i < 4; ++i) ASSERT_EQ(qorMC_M_memPoolCreate("p", kFirst + i, part, sizes[i]), 0);
  std::mt19937 rng(12345);
  std::map<uint8_t *, uint32_t> live;  // block -> pool index
  for (int step = 0; step < 40000; ++step) {
    uint32_t i = rng() % 4;
    if (live.empty() || rng() % 100 < 55) {
      auto *b = static_cast<uint8_t *>(alloc(kFirst + i, sizes[i]));
      ASSERT_NE(b, nullptr);
      ASSERT_EQ(live.count(b), 0u) << "handed out twice";
      memset(b, int(i + 1), sizes[i]);
      live[b] = i;
    } else {
      auto it = std::next(live.begin(), rng() % live.size());
      uint32_t pi = it->second;
      ASSERT_EQ(it->first[sizes[pi] - 1], uint8_t(pi + 1)) << "block overwritten";
      ASSERT_EQ(qorMemBlockPool(it->first), kFirst + pi);
      ASSERT_EQ(qorMC_M_memBlockFree(it->first), 0);
      live.erase(it);
    }
  }
  for (uint32_t i = 0; i < 4; ++i)
    EXPECT_EQ(stats(kFirst + i).inUse, size_t(std::count_if(live.begin(), live.end(),
                                                              [&](auto &e) { return e.second == i; })));
}

}  // namespace
