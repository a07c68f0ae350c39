// The agent's table against a std::map doing the same: random puts, erases and bulk erases
// over a key space small enough that probe runs collide, wrap around the index and are cut
// by erases in every position.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

#include "client/rtm_fib_table.h"

using namespace rtmclient;

namespace {

FibPrefix prefix(uint32_t i) {
  FibPrefix p;
  p.afIndex = i % 3 == 0 ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX;
  p.vrfId = i % 5;
  p.len = static_cast<uint8_t>(8 + i % 17);
  p.addr[0] = static_cast<uint8_t>(i >> 4);
  p.addr[3] = static_cast<uint8_t>(i);
  if (p.afIndex == RTM_IPV6UNI_AFINDEX) p.addr[15] = static_cast<uint8_t>(i * 7);
  return p;
}

// A route whose shape depends on v: one to four next hops, a TLV on some.
FibRoute route(uint32_t v) {
  FibRoute r;
  r.proto = v % 30;
  r.metric = v;
  r.marker = v % 11 == 0 ? FIB_MARKER_VRRP : 0;
  r.weighted = v % 2;
  for (uint32_t k = 0; k <= v % 4; ++k) {
    FibNextHop nh;
    nh.addr[0] = static_cast<uint8_t>(v + k);
    nh.ifindex = k + 1;
    nh.vrfId = v % 3;
    nh.weight = r.weighted ? k + 2 : 0;
    r.nh.push_back(nh);
  }
  if (v % 3 == 0) r.tlv.assign(1 + v % 9, static_cast<uint8_t>(v));
  return r;
}

TEST(FibTable, MatchesAMapThroughRandomPutsAndErases) {
  // A reserve large enough for the arrays to be allocated apart (huge pages), before the
  // first route or with routes in place, must leave the table as it was.
  struct Case {
    uint32_t seed;
    size_t reserveFirst, reserveMidway;
  } cases[] = {{1, 0, 0}, {2, 0, 0}, {3, 300000, 0}, {4, 0, 300000}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.seed);
    std::mt19937 rng(c.seed);
    FibTable t;
    if (c.reserveFirst) t.reserve(c.reserveFirst);
    std::map<uint32_t, uint32_t> model;  // key index -> route value
    constexpr uint32_t kKeys = 400;
    for (int step = 0; step < 20000; ++step) {
      if (step == 10000 && c.reserveMidway) t.reserve(c.reserveMidway);
      const uint32_t k = rng() % kKeys, op = rng() % 100;
      if (op < 55) {
        const uint32_t v = rng() % 1000;
        const FibRoute r = route(v);
        EXPECT_EQ(t.put(prefix(k), r.proto, r.metric, r.marker, r.weighted, r.nh.data(),
                        static_cast<unsigned>(r.nh.size()), r.tlv.data(), static_cast<unsigned>(r.tlv.size())),
                  model.count(k) == 0);
        model[k] = v;
      } else if (op < 99) {
        EXPECT_EQ(t.erase(prefix(k)), model.erase(k) == 1);
      } else {
        const uint32_t vrf = rng() % 5;
        t.eraseIf([&](const FibPrefix &p) { return p.vrfId == vrf; });
        for (auto it = model.begin(); it != model.end();) it = prefix(it->first).vrfId == vrf ? model.erase(it) : std::next(it);
      }
      if (step % 500 != 0) continue;
      ASSERT_EQ(t.size(), model.size());
      for (uint32_t i = 0; i < kKeys; ++i) {
        FibRoute got;
        auto it = model.find(i);
        ASSERT_EQ(t.get(prefix(i), &got), it != model.end()) << i;
        if (it != model.end()) {
          ASSERT_EQ(formatFibRoute(prefix(i), got), formatFibRoute(prefix(i), route(it->second))) << i;
        }
      }
    }
    size_t seen = 0;
    t.forEach([&](const FibPrefix &, const FibRoute &) { ++seen; });
    EXPECT_EQ(seen, model.size());
  }
}

}  // namespace
