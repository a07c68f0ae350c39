// Records, keys and a failing node allocator shared by the radix tests.
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "radix/qor_radix.h"

namespace radix_test {

using KeyBytes = std::array<uint8_t, 16>;

// A record as the daemon lays one out: the radix header first, its prefix further on.
struct Rec {
  qor_radix_hdr hdr{};
  uint32_t pad = 0;
  KeyBytes key{};  // may carry junk after `plen` bits: the tree must ignore it
  unsigned plen = 0;

  Rec() { qorRadixSetKey(&hdr, key.data()); }
  Rec(const Rec &) = delete;
};

inline Rec *recOf(qor_radix_hdr *h) { return reinterpret_cast<Rec *>(h); }

inline KeyBytes maskBytes(KeyBytes k, unsigned plen) {
  for (unsigned i = 0; i < 16; ++i) {
    unsigned from = i * 8;
    if (plen >= from + 8) continue;
    k[i] = plen <= from ? 0 : uint8_t(k[i] & (0xFF << (8 - (plen - from))));
  }
  return k;
}

inline unsigned bitOf(const KeyBytes &k, unsigned i) { return (k[i / 8] >> (7 - i % 8)) & 1; }

inline std::string keyText(const KeyBytes &k, unsigned bytes, unsigned plen) {
  std::string s;
  char b[8];
  for (unsigned i = 0; i < bytes; ++i) {
    snprintf(b, sizeof b, i ? ".%u" : "%u", k[i]);
    s += b;
  }
  return s + "/" + std::to_string(plen);
}

// Node allocator that counts what it hands out and fails on demand.
struct FailingAlloc {
  static inline long live = 0;
  static inline long fails = 0;
  static inline std::mt19937 *rng = nullptr;
  static inline unsigned failPerMille = 0;  // chance of a failure per allocation
  static inline long failAfter = -1;        // fail every allocation once this many succeeded

  static void *alloc(size_t n) {
    if (failAfter == 0 || (rng && failPerMille && (*rng)() % 1000 < failPerMille)) {
      ++fails;
      return nullptr;
    }
    if (failAfter > 0) --failAfter;
    ++live;
    return std::malloc(n);
  }
  static void release(void *p) {
    if (p) --live;
    std::free(p);
  }
  static void reset() {
    live = 0;
    fails = 0;
    rng = nullptr;
    failPerMille = 0;
    failAfter = -1;
  }
};

}  // namespace radix_test
