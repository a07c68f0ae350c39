// Route-update messages on the wire: golden bytes, iteration, and refusal of truncated or
// inflated messages without reading past the received bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "client/rtm_client_lib.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_types.h"
#include "tests/support/hex.h"

namespace {

using Bytes = std::vector<uint8_t>;
using rtmtest::hex;

const Bytes kV4Golden = hex(R"(
  00*8 00000152 00003204                 # reserved, mlen 338, mtype
  00*124                                 # rest of IPC header, SWP header, client area
  00000007 00000002 00 00 0000           # cid 7, count 2, afIndex 0
  00000001                               # add
    006e 0000 00000000 00000004 00000000 # pref 110, subpref, vrf 0, OSPF, reserved
    00000006 00000014 00001234 00000000  # E1, metric 20, tag, reserved
    0001 0000 00000000 0000 00 18        # nnh 1, flags, tlvlen 0, af 0, /24
    0a000001 00000000 c0a80100           # gateway, srcVrf, prefix
    0a000001 01000001 00000000 00000000 00000000
  00000001
    0014 0000 00000003 00000007 00000000 # pref 20, vrf 3, BGP
    0000000d ffffffff 00000000 00000000  # external, metric -1
    0002 0000 00800000 0006 00 20        # nnh 2, weighted, tlvlen 6, /32
    00000000 00000003 cb007107
    c6336401 00000000 00000003 00000000 0000000a
    c6336402 00000000 00000003 00000000 0000001e
    0104deadbeef
)");

const Bytes kV6Golden = hex(R"(
  00*8 0000010b 00003204
  00*124
  00000009 00000001 00 02 0000           # cid 9, count 1, afIndex 2
  00000002                               # delete
    0001 0000 00000001 00000003 00000000
    00000000 00000000 00000000 00000000
    0001 0000 01000000 0003 02 40        # nnh 1, leaked, tlvlen 3, af 2, /64
    20010db8 00000000 00000000 00000001  # gateway
    00000005                             # srcVrf
    20010db8 00000001 00000000 00000000  # prefix
    fe800000 00000000 00000000 00000001 02000002 00000000 00000000
    aabbcc
)");

// The shape of each element, (next hops, TLV bytes), is what truncation errors are judged by.
struct Golden {
  const char *name;
  uint32_t cid;
  uint8_t af;
  std::vector<std::pair<unsigned, unsigned>> shapes;
  const Bytes *bytes;
};
const Golden kGolden[] = {
    {"ipv4", 7, RTM_IPV4UNI_AFINDEX, {{1, 0}, {2, 6}}, &kV4Golden},
    {"ipv6", 9, RTM_IPV6UNI_AFINDEX, {{1, 3}}, &kV6Golden},
};

// Copies bytes into an allocation of exactly n bytes, so that reading byte n is an error the
// sanitizer reports.
std::unique_ptr<uint8_t[]> exact(const Bytes &b, size_t n) {
  std::unique_ptr<uint8_t[]> p(new uint8_t[n]);
  if (n) std::memcpy(p.get(), b.data(), n);
  return p;
}

struct Walk {
  int rc;
  std::vector<rtm_route_celem> elems;
};
Walk walk(const uint8_t *msg, size_t len) {
  Walk w{};
  rtm_route_citer it;
  rtm_route_celem el;
  w.rc = rtmRouteIterInit(&it, msg, len);
  while (w.rc == RTM_WIRE_OK && (w.rc = rtmRouteIterNext(&it, &el)) == RTM_WIRE_OK)
    w.elems.push_back(el);
  if (w.rc == RTM_WIRE_END) w.rc = RTM_WIRE_OK;
  return w;
}

// The client codec's own goldens pin each field's offset; here every field of these messages
// must survive the daemon's iterator and the accessors both ways, two elements in one message.
TEST(RouteMsg, IteratesGoldenBytesAndEveryElementEncodesBackToThem) {
  for (const Golden &g : kGolden) {
    SCOPED_TRACE(g.name);
    auto buf = exact(*g.bytes, g.bytes->size());
    rtm_route_citer it;
    ASSERT_EQ(RTM_WIRE_OK, rtmRouteIterInit(&it, buf.get(), g.bytes->size()));
    EXPECT_EQ(g.cid, it.cid);
    EXPECT_EQ(g.af, it.afIndex);
    EXPECT_EQ(g.shapes.size(), it.count);
    Bytes again(RTM_IPC_BUF_SIZE);
    ASSERT_EQ(RTM_WIRE_OK, rtmclient::routeMsgInit(again.data(), again.size(), g.cid, g.af));
    rtm_route_celem el;
    size_t off = RTM_UPD_OFF_ELEMS;
    for (auto [nnh, tlvlen] : g.shapes) {
      ASSERT_EQ(RTM_WIRE_OK, rtmRouteIterNext(&it, &el));
      EXPECT_EQ(off, el.offset);
      EXPECT_EQ(std::make_pair(unsigned(el.nnh), unsigned(el.tlvlen)), std::make_pair(nnh, tlvlen));
      EXPECT_EQ(rtmRouteElemSize(g.af, el.nnh, el.tlvlen), el.size);
      EXPECT_EQ(g.af, rtpGetAfIndex(el.rtp));
      rtmclient::NextHop nhs[RTP_MAX_NH];
      rtmclient::Route r;
      ASSERT_EQ(RTM_WIRE_OK, rtmclient::routeDecode(el, g.af, &r, nhs, RTP_MAX_NH));
      ASSERT_EQ(RTM_WIRE_OK, rtmclient::routeMsgAdd(again.data(), again.size(), el.subCmd, r));
      off += el.size;
    }
    EXPECT_EQ(RTM_WIRE_END, rtmRouteIterNext(&it, &el));
    EXPECT_EQ(g.bytes->size(), off);
    again.resize(rtmclient::routeMsgLen(again.data()));
    EXPECT_EQ(*g.bytes, again);
  }
}

// Which error a message cut at `cut` bytes must give, from the element boundaries.
int expectedCutError(const Golden &g, size_t cut, uint32_t *elemIndex) {
  *elemIndex = 0;
  if (cut < RTM_UPD_OFF_ELEMS) return RTM_WIRE_ESHORT;
  size_t start = RTM_UPD_OFF_ELEMS;
  for (auto [nnh, tlvlen] : g.shapes) {
    const size_t fixed = rtmRouteElemFixedSize(g.af);
    const size_t nhEnd = fixed + rtmRouteElemNhSize(g.af) * nnh;
    const size_t end = nhEnd + tlvlen;
    if (cut < start + end) {
      const size_t rel = cut - start;
      return rel < fixed ? RTM_WIRE_EFIXED : rel < nhEnd ? RTM_WIRE_ENH : RTM_WIRE_ETLV;
    }
    start += end;
    ++*elemIndex;
  }
  return RTM_WIRE_OK;
}

TEST(RouteMsg, EveryTruncationIsRefusedAtTheRightElement) {
  for (const Golden &g : kGolden) {
    for (size_t cut = 0; cut <= g.bytes->size(); cut++) {
      SCOPED_TRACE(std::string(g.name) + " cut at " + std::to_string(cut));
      uint32_t wantIndex;
      const int want = expectedCutError(g, cut, &wantIndex);
      auto buf = exact(*g.bytes, cut);
      Walk w = walk(buf.get(), cut);
      EXPECT_EQ(want, w.rc) << rtmWireErrStr(w.rc);
      if (want != RTM_WIRE_ESHORT) {
        EXPECT_EQ(wantIndex, w.elems.size());
      }
      for (const auto &el : w.elems) EXPECT_LE(el.offset + el.size, cut);

      uint32_t bad = 99;
      EXPECT_EQ(want, rtmRouteMsgCheck(buf.get(), cut, &bad));
      if (want != RTM_WIRE_OK && want != RTM_WIRE_ESHORT) {
        EXPECT_EQ(wantIndex, bad);
      }
    }
  }
}

// Counts and lengths that claim more than was received. Offsets are into the golden messages.
TEST(RouteMsg, InflatedCountsAndLengthsAreRefused) {
  constexpr size_t kE1 = RTM_UPD_OFF_ELEMS, kE2 = RTM_UPD_OFF_ELEMS + 80;
  constexpr size_t kNnh = RTM_RTE_OFF_RTP + RTP_OFF_NNH, kTlv = RTM_RTE_OFF_RTP + RTP_OFF_TLVLEN;
  struct Case {
    const char *what;
    const Bytes *base;
    size_t off;
    int width;  // 1, 2 or 4 bytes
    uint32_t value;
    int want;
    size_t goodElems;
  };
  const Case cases[] = {
      {"count one too many", &kV4Golden, RTM_UPD_OFF_COUNT, 4, 3, RTM_WIRE_EFIXED, 2},
      {"count huge", &kV4Golden, RTM_UPD_OFF_COUNT, 4, 0xFFFFFFFF, RTM_WIRE_EFIXED, 2},
      {"count zero", &kV4Golden, RTM_UPD_OFF_COUNT, 4, 0, RTM_WIRE_OK, 0},
      {"count one, trailing bytes", &kV4Golden, RTM_UPD_OFF_COUNT, 4, 1, RTM_WIRE_OK, 1},
      {"first nnh huge", &kV4Golden, kE1 + kNnh, 2, 0xFFFF, RTM_WIRE_ENH, 0},
      {"last nnh one too many", &kV4Golden, kE2 + kNnh, 2, 3, RTM_WIRE_ENH, 1},
      {"last tlvlen one too many", &kV4Golden, kE2 + kTlv, 2, 7, RTM_WIRE_ETLV, 1},
      {"last tlvlen huge", &kV4Golden, kE2 + kTlv, 2, 0xFFFF, RTM_WIRE_ETLV, 1},
      {"afIndex 4", &kV4Golden, RTM_UPD_OFF_AFINDEX, 1, 4, RTM_WIRE_EAF, 0},
      {"afIndex 255", &kV4Golden, RTM_UPD_OFF_AFINDEX, 1, 255, RTM_WIRE_EAF, 0},
      // IPv4 records read with the IPv6 layout: the wider element leaves too little for the second.
      {"afIndex 2 on IPv4 records", &kV4Golden, RTM_UPD_OFF_AFINDEX, 1, 2, RTM_WIRE_EFIXED, 1},
      {"afIndex 1 reads as IPv4", &kV4Golden, RTM_UPD_OFF_AFINDEX, 1, 1, RTM_WIRE_OK, 2},
      {"IPv6 nnh two", &kV6Golden, kE1 + kNnh, 2, 2, RTM_WIRE_ENH, 0},
      {"IPv6 tlvlen four", &kV6Golden, kE1 + kTlv, 2, 4, RTM_WIRE_ETLV, 0},
      {"IPv6 afIndex 3 reads as IPv6", &kV6Golden, RTM_UPD_OFF_AFINDEX, 1, 3, RTM_WIRE_OK, 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Bytes m = *c.base;
    if (c.width == 1) rtm::st8(m.data(), c.off, uint8_t(c.value));
    if (c.width == 2) rtm::st16(m.data(), c.off, uint16_t(c.value));
    if (c.width == 4) rtm::st32(m.data(), c.off, c.value);
    auto buf = exact(m, m.size());
    Walk w = walk(buf.get(), m.size());
    EXPECT_EQ(c.want, w.rc) << rtmWireErrStr(w.rc);
    EXPECT_EQ(c.goodElems, w.elems.size());
  }
}

// Random damage to the header and element fields must never lead the walk outside the message.
TEST(RouteMsg, RandomDamageStaysInsideTheBuffer) {
  std::mt19937 rng(20240601);
  for (int round = 0; round < 3000; round++) {
    const Bytes &base = (round & 1) ? kV6Golden : kV4Golden;
    Bytes m = base;
    const int hits = 1 + int(rng() % 4);
    for (int h = 0; h < hits; h++) m[RTM_UPD_OFF_COUNT + rng() % (m.size() - RTM_UPD_OFF_COUNT)] = uint8_t(rng());
    const size_t len = m.size() - rng() % 16;
    auto buf = exact(m, len);
    Walk w = walk(buf.get(), len);
    size_t end = RTM_UPD_OFF_ELEMS;
    for (const auto &el : w.elems) {
      ASSERT_EQ(end, el.offset);
      end += el.size;
      ASSERT_LE(end, len);
    }
  }
}

TEST(RouteMsg, ElementSizes) {
  struct Case {
    unsigned af, nnh, tlvlen;
    size_t want;
  };
  const Case cases[] = {
      {1, 2, 5, 105},   {3, 2, 1, 141},   {0, 64, 0, 1340}, {2, 64, 0, 1876}, {0, 0, 0, 60}, {2, 0, 0, 84},
      // Above 3: IPv4 next hops behind a 596-byte fixed part.
      {4, 1, 0, 616},   {255, 2, 3, 639},
  };
  for (const Case &c : cases)
    EXPECT_EQ(c.want, rtmRouteElemSize(c.af, c.nnh, c.tlvlen)) << c.af << "/" << c.nnh << "/" << c.tlvlen;
}

TEST(RouteMsg, BuilderRefusesWhatDoesNotFit) {
  const size_t need = RTM_UPD_OFF_ELEMS + rtmRouteElemSize(0, 1, 0);
  Bytes buf(need);
  ASSERT_EQ(RTM_WIRE_OK, rtmRouteMsgInit(buf.data(), need, MT_RTM_UPD_ROUTE, 1, 0));
  EXPECT_EQ(nullptr, rtmRouteMsgAddElem(buf.data(), need - 1, RTM_UPD_ADD, 1, 0));
  EXPECT_EQ(0u, rtm::ld32(buf.data(), RTM_UPD_OFF_COUNT));
  EXPECT_EQ(RTM_UPD_OFF_ELEMS, rtm::ld32(buf.data(), IPC_OFF_MLEN));
  EXPECT_NE(nullptr, rtmRouteMsgAddElem(buf.data(), need, RTM_UPD_ADD, 1, 0));
  EXPECT_EQ(nullptr, rtmRouteMsgAddElem(buf.data(), need, RTM_UPD_ADD, 0, 0));
  EXPECT_EQ(1u, rtm::ld32(buf.data(), RTM_UPD_OFF_COUNT));
  EXPECT_EQ(need, rtm::ld32(buf.data(), IPC_OFF_MLEN));

  EXPECT_EQ(RTM_WIRE_ENOSPACE, rtmRouteMsgInit(buf.data(), RTM_UPD_OFF_ELEMS - 1, MT_RTM_UPD_ROUTE, 1, 0));
  EXPECT_EQ(RTM_WIRE_EAF, rtmRouteMsgInit(buf.data(), need, MT_RTM_UPD_ROUTE, 1, 4));
}

}  // namespace
