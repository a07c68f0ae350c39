#include <gtest/gtest.h>

#include <sys/socket.h>

#include <array>
#include <cstring>
#include <string>
#include <tuple>

#include "addr/qor_addr.h"

namespace {

using Addr = std::array<uint8_t, 16>;

// Test addresses are written as text; the parser is checked separately below.
Addr A(const char *text) {
  Addr a{};
  unsigned af, plen;
  EXPECT_EQ(rtmAF_PrefixParse(text, &af, a.data(), &plen), 0) << text;
  return a;
}
unsigned afOf(const char *text) { return strchr(text, ':') ? 2 : 0; }
std::string str(unsigned af, const Addr &a) {
  char buf[RTM_INET6_ADDRSTRLEN];
  return rtmAF_AddrToStr(af, a.data(), buf, sizeof buf);
}

TEST(Addr, PredicatesAndComparisonsAreByteWiseForBothFamilies) {
  struct Case {
    const char *a, *b;
    int zero, allOnes, greater, less, equal;
  } cases[] = {
      {"0.0.0.0", "0.0.0.0", 1, 0, 0, 0, 1},         {"255.255.255.255", "255.255.255.254", 0, 1, 1, 0, 0},
      {"10.0.0.1", "9.255.255.255", 0, 0, 1, 0, 0},  {"10.0.0.1", "10.0.1.0", 0, 0, 0, 1, 0},
      {"128.0.0.0", "127.255.255.255", 0, 0, 1, 0, 0},  // unsigned bytes
      {"::", "::", 1, 0, 0, 0, 1},                   {"::1", "::2", 0, 0, 0, 1, 0},
      {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::", 0, 1, 1, 0, 0},
      {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe", "::", 0, 0, 1, 0, 0},  // every byte counts, the last too
      {"2001:db8::", "2001:db8::", 0, 0, 0, 0, 1},
      {"8000::", "7fff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 0, 0, 1, 0, 0},
      {"::1:0:0:0", "::ffff", 0, 0, 1, 0, 0},
  };
  for (const Case &c : cases) {
    unsigned af = afOf(c.a);
    Addr a = A(c.a), b = A(c.b);
    SCOPED_TRACE(std::string(c.a) + " vs " + c.b);
    // The last: the multicast afIndex of each family has the same width.
    EXPECT_EQ(std::tuple(rtmAF_IsAddrZero(af, a.data()), rtmAF_IsAddrNonZero(af, a.data()),
                         rtmAF_IsAddrAllOnes(af, a.data()), rtmAF_IsAddrGreater(af, a.data(), b.data()),
                         rtmAF_IsAddrLess(af, a.data(), b.data()), rtmAF_IsAddrLessOrEq(af, a.data(), b.data()),
                         rtmAF_IsAddrEqual(af, a.data(), b.data()), rtmAF_IsAddrGreater(af + 1, a.data(), b.data())),
              std::tuple(c.zero, int(!c.zero), c.allOnes, c.greater, c.less, int(c.less || c.equal), c.equal, c.greater));
  }
  // Only the family's bytes count: bytes past an IPv4 address are ignored.
  Addr x = A("1.2.3.4"), y = A("1.2.3.4");
  y[4] = 0xFF;
  EXPECT_EQ(rtmAF_IsAddrEqual(0, x.data(), y.data()), 1);
  EXPECT_EQ(rtmAF_IsAddrEqual(2, x.data(), y.data()), 0);
}

TEST(Addr, PrefixLengthsAndMasksRoundTripInBothFamilies) {
  for (unsigned bits : {32u, 128u}) {
    for (unsigned plen = 0; plen <= bits; ++plen) {
      uint8_t mask[16];
      memset(mask, 0xEE, sizeof mask);  // a byte left unwritten, or one read past the width, shows
      rtm_plen2mask(mask, bits, plen);
      ASSERT_EQ(rtm_mask2plen(mask, bits), plen) << bits << "/" << plen;
      unsigned ones = 0;
      for (unsigned i = 0; i < bits / 8; ++i) ones += __builtin_popcount(mask[i]);
      ASSERT_EQ(ones, plen);
      if (bits == 32) {
        ASSERT_EQ(rtm::ld32(mask), PrefixlenToMask(plen));
        ASSERT_EQ(qorMaskToPrefLen(PrefixlenToMask(plen)), plen);
      }
    }
  }
  const std::pair<const char *, unsigned> masks[] = {
      {"255.255.255.0", 24}, {"255.0.255.0", 8}, {"0.255.255.255", 0}, {"255.255.254.0", 23},
      {"ffff:ffff:ffff:ff80::", 57}, {"ffff::ffff", 16}, {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe", 127},
  };
  for (auto [mask, plen] : masks) EXPECT_EQ(rtm_mask2plen(A(mask).data(), rtmAfKeyBits(afOf(mask))), plen) << mask;
  uint8_t m[4];
  rtm_plen2mask(m, 32, 40);
  EXPECT_EQ(rtm::ld32(m), 0xFFFFFFFFu) << "a length past the width gives all ones";
  EXPECT_EQ(PrefixlenToMask(33), 0u);
  EXPECT_EQ(qorMaskToPrefLen(0xFF00FF00u), 8u);
}

TEST(Addr, ContiguityLooksAtOneByteOnlyAsItAlwaysHas) {
  const std::pair<const char *, int> cases[] = {
      {"255.255.255.0", 1},  {"240.0.0.0", 1}, {"1.0.0.0", 0},
      {"0.0.0.0", 1},        // the zero byte: IsPowerOf2(0) holds
      {"255.0.255.0", 1},    // only byte 0 is read
      {"160.0.0.0", 0},      // 0xA0
      {"15.255.255.255", 0}, // 0x0F
      {"ffff:ffff:ffff:ffff::", 1},                  // byte 12 is 0
      {"ffff:ffff:ffff:ffff:ffff:ffff:f000::", 1},   // byte 12 is 0xF0
      {"ffff:ffff:ffff:ffff:ffff:ffff:a000::", 0},   // byte 12 is 0xA0
      {"0f0f::", 1},                                 // byte 12 is 0: the rest is not read
      {"::ff00:0", 1},                               // byte 12 is 0xFF
  };
  for (auto [mask, contiguous] : cases) EXPECT_EQ(rtmAF_IsContigous(afOf(mask), A(mask).data()), contiguous) << mask;
  const std::pair<uint32_t, int> pows[] = {{0, 1},    {1, 1},    {2, 1},           {3, 0},
                                           {0x10, 1}, {0x60, 0}, {0x80000000u, 1}, {0xFFFFFFFFu, 0}};
  for (auto [v, pow2] : pows) EXPECT_EQ(IsPowerOf2(v), pow2) << v;
}

TEST(Addr, MaskingDefaultRouteAndLoopback) {
  const std::tuple<const char *, unsigned, const char *> cases[] = {
      {"10.1.2.3", 8, "10.0.0.0"},         {"10.1.2.3", 0, "0.0.0.0"},
      {"10.1.2.3", 32, "10.1.2.3"},        {"192.168.255.255", 23, "192.168.254.0"},
      {"2001:db8:1:2::5", 33, "2001:db8::"}, {"2001:db8:1:2::5", 64, "2001:db8:1:2::"},
      {"2001:db8:1:2::5", 128, "2001:db8:1:2::5"}, {"ffff::1", 0, "::"},
  };
  for (auto [addr, plen, masked] : cases) {
    unsigned af = afOf(addr);
    Addr a = A(addr), out{};
    rtmAF_ApplyPlen(af, a.data(), plen, out.data());
    EXPECT_EQ(str(af, out), masked) << addr << "/" << plen;
    rtmAF_ApplyPlen(af, a.data(), plen, a.data());  // in place
    EXPECT_EQ(str(af, a), masked);
  }
  Addr zero{}, one = A("0.0.0.1");
  EXPECT_EQ(std::tuple(rtmAF_IsDefaultRoute(0, zero.data(), 0), rtmAF_IsDefaultRoute(2, zero.data(), 0),
                       rtmAF_IsDefaultRoute(0, zero.data(), 8), rtmAF_IsDefaultRoute(0, one.data(), 0)),
            std::tuple(1, 1, 0, 0));
  Addr lo;
  lo.fill(0xAA);
  rtmAF_SetLoopback(0, lo.data());
  EXPECT_EQ(str(0, lo), "127.0.0.1");
  EXPECT_EQ(lo[4], 0xAA) << "only the family's bytes are written";
  rtmAF_SetLoopback(2, lo.data());
  EXPECT_EQ(str(2, lo), "::1");
}

TEST(Addr, PrintingAcceptsTheSystemsIPv6NumberAndTheHostFamilies) {
  Addr v4 = A("192.0.2.1"), v6 = A("2001:db8::1");
  char buf[RTM_INET6_ADDRSTRLEN];
  EXPECT_STREQ(rtm_inet_ntop(RTM_AF_INET6_SYS, v6.data(), buf, sizeof buf), "2001:db8::1");
  EXPECT_STREQ(rtm_inet_ntop(AF_INET6, v6.data(), buf, sizeof buf), "2001:db8::1");
  EXPECT_STREQ(rtm_inet_ntop(AF_INET, v4.data(), buf, sizeof buf), "192.0.2.1");
  EXPECT_EQ(rtm_inet_ntop(99, v4.data(), buf, sizeof buf), nullptr);
  EXPECT_EQ(rtm_inet_ntop(AF_INET, v4.data(), buf, 5), nullptr) << "buffer too small";
  EXPECT_EQ(rtm_strcasecmp("GigabitEthernet", "gigabitethernet"), 0);
  EXPECT_LT(rtm_strcasecmp("abc", "ABD"), 0);
}

TEST(Addr, ParsingPrefixesFromText) {
  struct Case {
    const char *text;
    unsigned af, plen;
    const char *addr;
  } cases[] = {
      {"10.0.0.0/8", 0, 8, "10.0.0.0"},
      {"10.1.2.3", 0, 32, "10.1.2.3"},
      {"10.1.2.3/24", 0, 24, "10.1.2.3"},  // host bits kept as written
      {"2001:db8::/32", 2, 32, "2001:db8::"},
      {"::/0", 2, 0, "::"},
      {"::1", 2, 128, "::1"},
  };
  Addr a{};
  unsigned af, plen;
  for (const Case &c : cases) {
    af = plen = 77;
    ASSERT_EQ(rtmAF_PrefixParse(c.text, &af, a.data(), &plen), 0) << c.text;
    EXPECT_EQ(std::tuple(af, plen, str(af, a)), std::tuple(c.af, c.plen, std::string(c.addr))) << c.text;
  }
  for (const char *bad : {"10.0.0.0/33", "2001:db8::/129", "10.0.0.0/", "10.0.0.0/8a", "10.0.0.0/-1", "1.2.3.4.5", "",
                          "gateway"})
    EXPECT_EQ(rtmAF_PrefixParse(bad, &af, a.data(), &plen), -1) << bad;
  EXPECT_EQ(rtmAF_AddrParse(0, "::1", a.data()), -1) << "the family is the caller's";
  EXPECT_EQ(rtmAF_AddrParse(2, "10.9.8.7", a.data()), -1);
}

}  // namespace
