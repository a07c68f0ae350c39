// Radix tree and change list at table scale: 1,000,000 IPv4 and 500,000 IPv6 prefixes.
//
// Prefixes are random and distinct, with lengths drawn from a table shaped like an Internet
// routing table (see the distributions below). Nodes come from a 40-byte slab pool, as the
// daemon's do; the records are 128 bytes with the prefix at offset 100, as in a route head, so
// a key compare that has to read a record pays what it would in the daemon. The header of a
// record is its node; only the internal nodes come from the pool.
//
// Each benchmark does one whole pass per iteration (every prefix once, in a shuffled order
// unrelated to insertion order), so items_per_second is operations per second over the table.
// bytes_per_prefix counts the internal nodes and the header each record embeds; accel_bytes is
// the lookup accelerator of the tree, per prefix. Run with --benchmark_repetitions to see the
// spread on a noisy machine (bench/run.sh does).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <unordered_set>
#include <vector>

#include "mem/qor_mem.h"
#include "radix/qor_radix.h"

namespace {

struct BenchHead {
  qor_radix_hdr hdr;
  uint8_t body[51];    // the rest of a route head: times, bitmaps, entry pointer
  uint8_t plen;
  uint8_t prefix[16];  // at offset 100
  uint8_t tail[12];
};
static_assert(sizeof(BenchHead) == 128 && offsetof(BenchHead, prefix) == 100);

// Length distributions, in prefixes per 1000.
struct LenShare {
  unsigned len, perMille;
};
// IPv4: three quarters /24 and a tail of shorter aggregates, with some host routes.
constexpr LenShare kV4Lengths[] = {{8, 1},   {12, 3},  {14, 3},  {15, 3},  {16, 15}, {17, 5},  {18, 8},
                                   {19, 15}, {20, 25}, {21, 30}, {22, 70}, {23, 70}, {24, 700}, {26, 10},
                                   {28, 5},  {30, 5},  {32, 32}};
// IPv6: mostly /48 sites and /64 subnets, some allocations and host routes.
constexpr LenShare kV6Lengths[] = {{32, 50}, {40, 50}, {44, 50}, {48, 500}, {56, 30}, {64, 300}, {128, 20}};

struct Dataset {
  unsigned bits = 0;
  size_t count = 0;
  std::vector<BenchHead> heads;
  std::vector<uint32_t> insertOrder, lookupOrder, removeOrder;
  std::vector<std::array<uint8_t, 17>> exactKey;  // prefix and length, in lookup order
  std::vector<std::array<uint8_t, 16>> hitAddr;   // an address inside each prefix
  std::vector<std::array<uint8_t, 16>> randAddr;  // addresses anywhere in unicast space
};

template <size_t N>
unsigned drawLen(std::mt19937_64 &rng, const LenShare (&table)[N]) {
  unsigned r = unsigned(rng() % 1000);
  for (const LenShare &s : table) {
    if (r < s.perMille) return s.len;
    r -= s.perMille;
  }
  return table[N - 1].len;
}

void maskTo(uint8_t *k, unsigned bytes, unsigned plen) {
  for (unsigned i = 0; i < bytes; ++i) {
    unsigned from = i * 8;
    if (plen >= from + 8) continue;
    k[i] = plen <= from ? 0 : uint8_t(k[i] & (0xFF << (8 - (plen - from))));
  }
}

// Random address of the unicast space: 1.0.0.0-223.255.255.255, or 2000::/3.
void randomAddr(std::mt19937_64 &rng, unsigned bits, uint8_t *k) {
  for (unsigned i = 0; i < bits / 8; ++i) k[i] = uint8_t(rng());
  if (bits == 32) k[0] = uint8_t(1 + rng() % 223);
  else k[0] = uint8_t(0x20 | (k[0] & 0x1F));
}

template <size_t N>
Dataset makeDataset(unsigned bits, size_t count, const LenShare (&lengths)[N], uint64_t seed) {
  Dataset d;
  d.bits = bits;
  d.count = count;
  d.heads.resize(count);
  std::mt19937_64 rng(seed);
  const unsigned bytes = bits / 8;
  std::unordered_set<std::string> seen;
  seen.reserve(count * 2);
  for (size_t i = 0; i < count;) {
    BenchHead &h = d.heads[i];
    std::memset(static_cast<void *>(&h), 0, sizeof h);
    h.plen = uint8_t(drawLen(rng, lengths));
    randomAddr(rng, bits, h.prefix);
    maskTo(h.prefix, bytes, h.plen);
    std::string id(reinterpret_cast<char *>(h.prefix), bytes);
    id.push_back(char(h.plen));
    if (!seen.insert(id).second) continue;
    qorRadixSetKey(&h.hdr, h.prefix);
    ++i;
  }
  auto shuffled = [&](uint64_t s) {
    std::vector<uint32_t> v(count);
    for (size_t i = 0; i < count; ++i) v[i] = uint32_t(i);
    std::shuffle(v.begin(), v.end(), std::mt19937_64(s));
    return v;
  };
  // Heads come from a pool in arrival order, so inserts walk the records in memory order; the
  // keys themselves are random.
  d.insertOrder.resize(count);
  for (size_t i = 0; i < count; ++i) d.insertOrder[i] = uint32_t(i);
  d.lookupOrder = shuffled(seed + 2);
  d.removeOrder = shuffled(seed + 3);
  d.hitAddr.resize(count);
  d.randAddr.resize(count);
  d.exactKey.resize(count);
  for (size_t i = 0; i < count; ++i) {
    const BenchHead &h = d.heads[d.lookupOrder[i]];
    std::memcpy(d.exactKey[i].data(), h.prefix, 16);
    d.exactKey[i][16] = h.plen;
    auto &a = d.hitAddr[i];
    randomAddr(rng, bits, a.data());
    for (unsigned b = 0; b < h.plen; ++b) {  // the prefix's bits, random host bits
      uint8_t m = uint8_t(0x80 >> (b % 8));
      a[b / 8] = uint8_t((a[b / 8] & ~m) | (h.prefix[b / 8] & m));
    }
    randomAddr(rng, bits, d.randAddr[i].data());
  }
  return d;
}

Dataset &v4() {
  static Dataset d = makeDataset(32, 1000000, kV4Lengths, 4);
  return d;
}
Dataset &v6() {
  static Dataset d = makeDataset(128, 500000, kV6Lengths, 6);
  return d;
}

// The node pool, as the daemon makes its radix pools.
QorMemPool *nodePool() {
  static QorMemPool *pool = [] {
    QOR_MEM_PART_ID part = 0;
    qor_memPartFixedInit(0x7f000, 0x7f00f, &part);
    qorMC_M_memPoolCreate("BENCH_RDX_POOL", 0x7f001, part, QOR_RADIX_NODE_SIZE);
    return qorMemPoolGet(0x7f001);
  }();
  return pool;
}
void *nodeAlloc(size_t size) { return qorMC_M_memBlockAlloc(nodePool(), size, 0, nullptr, 0); }
void nodeFree(void *p) { qorMC_M_memBlockFree(p); }

qor_radix_tree *newTree(const Dataset &d, bool accel) {
  qor_radix_tree *t = qorRadixCreate("bench", d.bits, nodeAlloc, nodeFree, 0);
  if (!accel) t->rdx_accelMin = 0;
  return t;
}

void resetHeads(Dataset &d) {
  for (BenchHead &h : d.heads) {
    h.hdr = qor_radix_hdr{};
    qorRadixSetKey(&h.hdr, h.prefix);
  }
}

void fill(Dataset &d, qor_radix_tree *t) {
  for (uint32_t i : d.insertOrder) qorRadixInsert(t, &d.heads[i].hdr, d.heads[i].plen);
}

void setCounters(benchmark::State &st, const Dataset &d, const qor_radix_tree *t) {
  st.SetItemsProcessed(int64_t(st.iterations()) * int64_t(d.count));
  st.counters["bytes_per_prefix"] =
      double(t->rdx_nodeBytes + d.count * sizeof(qor_radix_hdr)) / double(d.count);
  st.counters["nodes_per_prefix"] = double(t->rdx_nodes) / double(d.count);  // heads included
  st.counters["alloc_nodes_per_prefix"] = double(t->rdx_nodeBytes / QOR_RADIX_NODE_SIZE) / double(d.count);
  st.counters["accel_bytes"] =
      double(qorRadixBytes(t) - t->rdx_nodeBytes - sizeof(qor_radix_tree)) / double(d.count);
}

// One tree per dataset and accelerator setting, built on first use, for the lookup passes.
// A head lives in one tree at a time, so building one drops the others of the dataset.
std::map<std::pair<const Dataset *, bool>, qor_radix_tree *> &lookupTrees() {
  static std::map<std::pair<const Dataset *, bool>, qor_radix_tree *> trees;
  return trees;
}

void dropTrees(Dataset &d) {
  for (auto &[key, t] : lookupTrees())
    if (key.first == &d && t) {
      qorRadixDestroy(t);
      t = nullptr;
    }
  resetHeads(d);
}

qor_radix_tree *lookupTree(Dataset &d, bool accel) {
  qor_radix_tree *&t = lookupTrees()[{&d, accel}];
  if (!t) {
    dropTrees(d);
    t = newTree(d, accel);
    fill(d, t);
  }
  return t;
}

// The daemon's pools keep their memory once it has been used; fault it in before measuring,
// or the first pass pays a page fault per hundred nodes.
void warmPool(Dataset &d) {
  static std::map<const Dataset *, bool> warm;
  if (warm[&d]) return;
  warm[&d] = true;
  dropTrees(d);
  qor_radix_tree *t = newTree(d, false);
  fill(d, t);
  qorRadixDestroy(t);
  resetHeads(d);
}

void BM_Insert(benchmark::State &st, Dataset &(*ds)(), bool accel) {
  Dataset &d = ds();
  warmPool(d);
  dropTrees(d);
  qor_radix_tree *probe = nullptr;
  for (auto _ : st) {
    st.PauseTiming();
    resetHeads(d);
    if (probe) qorRadixDestroy(probe);
    qor_radix_tree *t = newTree(d, accel);
    st.ResumeTiming();
    for (uint32_t i : d.insertOrder) benchmark::DoNotOptimize(qorRadixInsert(t, &d.heads[i].hdr, d.heads[i].plen));
    probe = t;
  }
  setCounters(st, d, probe);
  qorRadixDestroy(probe);
  resetHeads(d);
}

void BM_Remove(benchmark::State &st, Dataset &(*ds)(), bool accel) {
  Dataset &d = ds();
  warmPool(d);
  dropTrees(d);
  bool first = true;
  for (auto _ : st) {
    st.PauseTiming();
    resetHeads(d);
    qor_radix_tree *t = newTree(d, accel);
    fill(d, t);
    if (first) setCounters(st, d, t);
    first = false;
    st.ResumeTiming();
    for (uint32_t i : d.removeOrder) benchmark::DoNotOptimize(qorRadixRemove(t, &d.heads[i].hdr));
    st.PauseTiming();
    qorRadixDestroy(t);
    st.ResumeTiming();
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * int64_t(d.count));
  resetHeads(d);
}

void BM_Exact(benchmark::State &st, Dataset &(*ds)(), bool accel) {
  Dataset &d = ds();
  qor_radix_tree *t = lookupTree(d, accel);
  size_t found = 0;
  for (auto _ : st)
    for (const auto &k : d.exactKey) found += qorRadixGetExact(t, k.data(), k[16]) != nullptr;
  if (found != st.iterations() * d.count) st.SkipWithError("exact lookup missed");
  setCounters(st, d, t);
}

// Host lookups of an address inside a prefix of the table: every lookup matches.
void BM_BestHit(benchmark::State &st, Dataset &(*ds)(), bool accel) {
  Dataset &d = ds();
  qor_radix_tree *t = lookupTree(d, accel);
  size_t found = 0;
  for (auto _ : st)
    for (const auto &a : d.hitAddr) found += qorRadixGetBest(t, a.data(), d.bits) != nullptr;
  if (found != st.iterations() * d.count) st.SkipWithError("best lookup missed");
  setCounters(st, d, t);
}

// Host lookups of random addresses: mostly no match, or a short one.
void BM_BestRandom(benchmark::State &st, Dataset &(*ds)(), bool accel) {
  Dataset &d = ds();
  qor_radix_tree *t = lookupTree(d, accel);
  for (auto _ : st)
    for (const auto &a : d.randAddr) benchmark::DoNotOptimize(qorRadixGetBest(t, a.data(), d.bits));
  setCounters(st, d, t);
}

// Every head of the table appended to the change list in a random order (each a move to the
// tail once the list is full), then walked by a walker in budgets of 1024 heads.
void BM_ChangeListAppend(benchmark::State &st) {
  Dataset &d = v4();
  qor_radix_tree *t = lookupTree(d, true);
  for (uint32_t i : d.insertOrder) qorRadicalAppendToChangeList(t, &d.heads[i].hdr);
  for (auto _ : st)
    for (uint32_t i : d.lookupOrder) qorRadicalAppendToChangeList(t, &d.heads[i].hdr);
  st.SetItemsProcessed(int64_t(st.iterations()) * int64_t(d.count));
}

void BM_ChangeListWalk(benchmark::State &st) {
  Dataset &d = v4();
  qor_radix_tree *t = lookupTree(d, true);
  for (uint32_t i : d.insertOrder) qorRadicalAppendToChangeList(t, &d.heads[i].hdr);
  qor_radical_walker w{};
  size_t seen = 0;
  auto cb = [](qor_radix_hdr *h, void *a) {
    *static_cast<size_t *>(a) += h->rtmh_version & 1;
    return 0;
  };
  for (auto _ : st) {
    qorRadicalWalkConstructor(t, &w);
    while (qorRadicalWalkChangeList(t, &w, cb, 1024, &seen) > 0) {
    }
  }
  benchmark::DoNotOptimize(seen);
  qorRadicalWalkDestructor(t, &w);
  st.SetItemsProcessed(int64_t(st.iterations()) * int64_t(d.count));
}

// Min and max over repetitions: the best rate is the least disturbed one.
double minOf(const std::vector<double> &v) { return *std::min_element(v.begin(), v.end()); }
double maxOf(const std::vector<double> &v) { return *std::max_element(v.begin(), v.end()); }

void registerAll() {
  struct Family {
    const char *name;
    Dataset &(*ds)();
  } families[] = {{"v4", v4}, {"v6", v6}};
  struct Op {
    const char *name;
    void (*fn)(benchmark::State &, Dataset &(*)(), bool);
  } ops[] = {{"insert", BM_Insert}, {"exact", BM_Exact}, {"best_hit", BM_BestHit},
             {"best_random", BM_BestRandom}, {"remove", BM_Remove}};
  auto common = [](benchmark::internal::Benchmark *b) {
    b->Unit(benchmark::kMillisecond)->Iterations(1)->ComputeStatistics("min", minOf)->ComputeStatistics("max", maxOf);
  };
  for (const Family &f : families)
    for (bool accel : {true, false})
      for (const Op &o : ops) {
        std::string name = std::string(o.name) + "/" + f.name + (accel ? "/accel" : "/plain");
        auto fn = o.fn;
        auto ds = f.ds;
        common(benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &st) { fn(st, ds, accel); }));
      }
  common(benchmark::RegisterBenchmark("changelist_append/v4", BM_ChangeListAppend));
  common(benchmark::RegisterBenchmark("changelist_walk/v4", BM_ChangeListWalk));
}

}  // namespace

int main(int argc, char **argv) {
  registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
