// rtm-feed's route sources: the route file's grammar and its error messages, and the prefix
// generator's promise of distinct, usable, repeatable prefixes.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <tuple>

#include "tools/rtm-feed/feed_routes.h"

using namespace rtmfeed;

namespace {

bool parse(const std::string &text, RouteFile *out, std::string *err, uint32_t vrf = 0) {
  std::istringstream in(text);
  return parseRouteFile(in, "routes.txt", 20, 0, vrf, out, err);
}

TEST(FeedRoutes, FileOfBothFamiliesWithCommentsAndDefaults) {
  RouteFile f;
  std::string err;
  ASSERT_TRUE(parse("# a table\n"
                    "\n"
                    "10.1.0.0/16   192.0.2.1,192.0.2.2  30 -5   # two next hops\n"
                    "   0.0.0.0/0 192.0.2.9%12\n"
                    "2001:db8:5::/48 2001:db8::1 115\n",
                    &f, &err, 7))
      << err;
  ASSERT_EQ(f.routes.size(), 3u);
  EXPECT_TRUE(f.hasV4);
  EXPECT_TRUE(f.hasV6);

  const FileRoute &a = f.routes[0];
  EXPECT_EQ(std::tuple(a.line, a.afIndex, a.prefixLen, rtmclient::addrToString(0, a.prefix), a.pref, a.metric),
            std::tuple(3u, uint8_t(0), uint8_t(16), std::string("10.1.0.0"), uint16_t(30), -5));
  ASSERT_EQ(a.nnh, 2);
  EXPECT_EQ(rtmclient::addrToString(0, f.nexthops[a.nhFirst + 1].addr), "192.0.2.2");
  EXPECT_EQ(f.nexthops[a.nhFirst].vrfId, 7u) << "next hops live in the feed's VRF";

  const FileRoute &b = f.routes[1];
  EXPECT_EQ(b.prefixLen, 0);
  EXPECT_EQ(b.pref, 20) << "missing preference takes the default";
  ASSERT_EQ(b.nnh, 1);
  EXPECT_EQ(f.nexthops[b.nhFirst].ifindex, 12u);

  const FileRoute &c = f.routes[2];
  EXPECT_EQ(std::tuple(c.afIndex, c.prefixLen, rtmclient::addrToString(2, c.prefix), c.pref),
            std::tuple(uint8_t(2), uint8_t(48), std::string("2001:db8:5::"), uint16_t(115)));
}

TEST(FeedRoutes, EachBadLineIsNamedWithItsNumberAndWhatIsWrong) {
  const std::string sixtyFive = [] {
    std::string s;
    for (int i = 1; i <= 65; ++i) s.append(i > 1 ? ",192.0.2." : "192.0.2.").append(std::to_string(i));
    return s;
  }();
  struct Case {
    std::string line;
    std::string expected;  // the whole message after "routes.txt:2: "
  } cases[] = {
      {"10.0.0.0/8", "expected PREFIX/LEN NEXTHOP[,NEXTHOP...] [PREFERENCE [METRIC]]"},
      {"10.0.0.0 192.0.2.1", "prefix '10.0.0.0' has no /LEN"},
      {"10.0.0.0/33 192.0.2.1", "bad prefix length in '10.0.0.0/33' (0 to 32)"},
      {"10.0.0.0/x 192.0.2.1", "bad prefix length in '10.0.0.0/x' (0 to 32)"},
      {"2001:db8::/129 ::1", "bad prefix length in '2001:db8::/129' (0 to 128)"},
      {"10.0.0.256/32 192.0.2.1", "bad IPv4 address '10.0.0.256'"},
      {"10.1.2.3/8 192.0.2.1", "'10.1.2.3/8' has bits set beyond its length (did you mean 10.0.0.0/8?)"},
      {"2001:db8::1/64 ::1", "'2001:db8::1/64' has bits set beyond its length (did you mean 2001:db8::/64?)"},
      {"10.0.0.0/8 2001:db8::1", "bad next hop '2001:db8::1' (expected an IPv4 address like the prefix's)"},
      {"10.0.0.0/8 192.0.2.1,", "bad next hop '' (expected an IPv4 address like the prefix's)"},
      {"10.0.0.0/8 192.0.2.1%eth0", "bad interface index in next hop '192.0.2.1%eth0'"},
      {"10.0.0.0/8 " + sixtyFive, "more than 64 next hops"},
      {"10.0.0.0/8 192.0.2.1 70000", "bad preference '70000' (0 to 65535)"},
      {"10.0.0.0/8 192.0.2.1 20 1x", "bad metric '1x'"},
      {"10.0.0.0/8 192.0.2.1 20 1 extra", "unexpected 'extra' after the metric"},
  };
  for (const Case &c : cases) {
    RouteFile f;
    std::string err;
    EXPECT_FALSE(parse("10.9.0.0/16 192.0.2.1\n" + c.line + "\n10.8.0.0/16 192.0.2.1\n", &f, &err)) << c.line;
    EXPECT_EQ(err, "routes.txt:2: " + c.expected) << c.line;
  }
}

TEST(FeedRoutes, GeneratedPrefixesAreDistinctUsableAndRepeatable) {
  struct Case {
    const char *what;
    bool ipv6, sequential;
    uint64_t count;
    uint32_t seed;
  } cases[] = {
      {"scattered IPv4", false, false, 200000, 1},
      {"sequential IPv4 across 127/8", false, true, 126 * 65536 + 10, 0},
      {"scattered IPv6", true, false, 50000, 99},
  };
  for (const Case &c : cases) {
    PrefixGen g;
    std::string err;
    ASSERT_TRUE(g.init(c.ipv6, c.sequential, c.count, c.seed, &err)) << err;
    std::set<std::vector<uint8_t>> seen;
    uint8_t p[16], plen;
    uint64_t n = 0;
    std::vector<uint8_t> first, last;
    while (g.next(p, &plen)) {
      ++n;
      std::vector<uint8_t> key(p, p + (c.ipv6 ? 6 : 3));
      if (first.empty()) first = key;
      // In address order, rising is distinct; a scattered order is checked against a set.
      if (c.sequential) {
        ASSERT_LT(last, key) << c.what << ": prefix " << n;
      } else {
        ASSERT_TRUE(seen.insert(key).second) << c.what << ": prefix " << n << " repeats";
      }
      last = key;
      if (c.ipv6) {
        ASSERT_EQ(plen, 48);
        ASSERT_TRUE(p[0] == 0x20 && p[1] == 0x01) << c.what;
      } else {
        ASSERT_EQ(plen, 24);
        ASSERT_TRUE(p[0] != 0 && p[0] != 127 && p[0] < 224) << c.what << ": " << int(p[0]);
        ASSERT_EQ(p[3], 0);
      }
    }
    EXPECT_EQ(n, c.count) << c.what;
    if (c.sequential) {
      EXPECT_EQ(last, (std::vector<uint8_t>{128, 0, 9})) << "127/8 is skipped";
    }
    // The same arguments give the same prefixes: a withdraw run finds what an add run made.
    PrefixGen again;
    ASSERT_TRUE(again.init(c.ipv6, c.sequential, 1, c.seed, &err));
    ASSERT_TRUE(again.next(p, &plen));
    EXPECT_EQ(std::vector<uint8_t>(p, p + first.size()), first) << c.what;
  }

  PrefixGen g;
  std::string err;
  EXPECT_TRUE(g.init(false, false, PrefixGen::capacity(false), 3, &err));
  EXPECT_FALSE(g.init(false, false, PrefixGen::capacity(false) + 1, 3, &err));
  EXPECT_EQ(err, "at most 14548992 distinct IPv4 /24 prefixes can be generated");
}

}  // namespace
