// The download messages a FIB agent receives, from bytes written out by hand: decode gives
// exactly these commands, and every way a message can be cut or bent is refused whole.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "client/rtm_client_lib.h"
#include "tests/support/hex.h"

using namespace rtmclient;
using rtm::st32;
using rtmtest::hex;

namespace {

// An IPv4 download of four commands, as rtmd lays one out.
const char *const kV4 =
    "00*8 | 00 00 01 46 | 00 00 32 1e | 00 00 00 00 | 00 00 00 01"  // mlen 326, type, 1
    "00 00 00 00 00 00 00 00 | 00 00 12 34"                                            // tick
    "00*24 "  // 36..59
    "11 11 00 01 | 00 00 00 05"                                                        // SWP handle, seq
    "00*60 "  // to 127
    "00 00 00 00 | 00 00 00 02 | 00 00 00 02 | 00 00 20 00 | 00 00 00 00"  // 128: 2 adds, 2 dels, 8192, af 0
    // add 10.1.0.0/16 from BGP, metric 100, weighted, two next hops, TLV aa bb
    "00 00 00 01 00 00 00 00 00 00 00 00 0a 01 00 00 00 00 00 07 00 00 00 64 10 02 00 02 01 00 00 00"
    "c0 00 02 01 00 00 00 05 00 00 00 00 00 00 00 01"
    "c0 00 02 02 00 00 00 00 00 00 00 03 00 00 00 03"
    "aa bb"
    // delete of 10.2.0.0/24, whose head has no route left
    "00 00 00 02 00 00 00 00 00 00 00 00 0a 02 00 00 00 00 00 00 00 00 00 00 18 00 00 00 00 00 00 00"
    // delete of 10.3.0.0/24 that still has a route (filtered): the count shows 2, none follow
    "00 00 00 02 00 00 00 00 00 00 00 00 0a 03 00 00 00 00 00 04 00 00 00 14 18 02 00 00 00 00 00 00"
    // add 192.168.1.1/32 in VRF 7, marked by VRRP, shown as connected, loopback next hop
    "00 00 00 01 ff ff ff ff 00 00 00 07 c0 a8 01 01 00 00 00 01 00 00 00 00 20 01 00 00 00 00 00 00"
    "7f 00 00 01 00 00 00 09 00 00 00 00 00 00 00 00";

// An IPv6 download: an add and a delete.
const char *const kV6 =
    "00*8 | 00 00 01 08 | 00 00 32 21 | 00 00 00 00 | 00 00 00 01"  // mlen 264
    "00 00 00 00 00 00 00 00 | 00 00 00 07"
    "00*24 "
    "22 22 00 01 | 00 00 00 01"
    "00*60 "  // to 127
    "00 00 00 00 | 00 00 00 01 | 00 00 00 01 | 00 00 20 00 | 02 00 00 00"
    // add 2001:db8:1::/48 from BGP, metric 50, one next hop 2001:db8::1 on ifindex 6
    "00 00 00 01 | 00 00 00 00 | 20 01 0d b8 00 01 00 00 00 00 00 00 00 00 00 00 | 30 00 00 00"
    "00 00 00 07 | 00 00 00 32 | 00 00 00 00 | 01 00 00 00"
    "20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01 | 00 00 00 06 | 00 00 00 00 | 00 00 00 00"
    // delete of fe80::/10 in VRF 5
    "00 00 00 02 | 00 00 00 05 | fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 00 | 0a 00 00 00"
    "00 00 00 00 | 00 00 00 00 | 00 00 00 00 | 00 00 00 00";

std::string nhText(uint8_t af, const FibCmd &c) {
  std::string s;
  for (unsigned i = 0; i < c.nnh; ++i) {
    FibNextHop nh = fibCmdNextHop(af, c, i);
    s += addrToString(af, nh.addr) + "%" + std::to_string(nh.ifindex) + "@" + std::to_string(nh.vrfId) + "*" +
         std::to_string(nh.weight) + " ";
  }
  return s;
}

TEST(FibMsgs, RouteDownloadsOfBothFamiliesDecodeToTheirCommands) {
  struct Want {
    uint32_t op, vrf;
    std::string prefix;
    uint8_t plen;
    uint32_t proto, metric, marker;
    bool weighted;
    uint8_t nnhField;
    std::string nh, tlv;
  };
  struct Case {
    const char *bytes;
    uint8_t af;
    uint32_t adds, dels, tick;
    std::vector<Want> cmds;
  } cases[] = {
      {kV4, 0, 2, 2, 0x1234,
       {{1, 0, "10.1.0.0", 16, 7, 100, 0, true, 2, "192.0.2.1%5@0*1 192.0.2.2%0@3*3 ", "\xaa\xbb"},
        {2, 0, "10.2.0.0", 24, 0, 0, 0, false, 0, "", ""},
        {2, 0, "10.3.0.0", 24, 4, 20, 0, false, 2, "", ""},
        {1, 7, "192.168.1.1", 32, 1, 0, FIB_MARKER_VRRP, false, 1, "127.0.0.1%9@0*0 ", ""}}},
      {kV6, 2, 1, 1, 7,
       {{1, 0, "2001:db8:1::", 48, 7, 50, 0, false, 1, "2001:db8::1%6@0*0 ", ""},
        {2, 5, "fe80::", 10, 0, 0, 0, false, 0, "", ""}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.af);
    std::vector<uint8_t> m = hex(c.bytes);
    ASSERT_EQ(m.size(), rtm::ld32(m.data(), IPC_OFF_MLEN));
    FibRouteMsg out;
    ASSERT_EQ(decodeFibRoutes(m.data(), m.size(), &out), RTM_WIRE_OK);
    EXPECT_EQ(std::tuple(out.afIndex, out.adds, out.dels, out.capacity, out.tick),
              std::tuple(c.af, c.adds, c.dels, 8192u, c.tick));
    ASSERT_EQ(out.cmds.size(), c.cmds.size());
    for (size_t i = 0; i < c.cmds.size(); ++i) {
      const FibCmd &g = out.cmds[i];
      const Want &w = c.cmds[i];
      SCOPED_TRACE(w.prefix);
      const std::string tlv(reinterpret_cast<const char *>(g.tlv), g.tlvlen);
      EXPECT_EQ(std::tuple(g.op, g.vrfId, addrToString(c.af, g.prefix), g.prefixLen, g.proto, g.metric, g.marker,
                           g.weighted, g.nnhField, nhText(c.af, g), tlv),
                std::tuple(w.op, w.vrf, w.prefix, w.plen, w.proto, w.metric, w.marker, w.weighted, w.nnhField, w.nh, w.tlv));
    }
  }
}

TEST(FibMsgs, BentRouteDownloadsAreRefusedWhole) {
  // Each case changes the IPv4 golden message in one place (offset, new word or byte).
  struct Case {
    const char *what;
    size_t off;
    uint32_t word;
    bool byte;
    int err;
  } cases[] = {
      {"mlen beyond what arrived", 8, 327, false, FIB_WIRE_ELEN},
      {"mlen inside the header", 8, 147, false, FIB_WIRE_ELEN},
      {"IPv6 type with the IPv4 family", 12, MT_RTM6_FIB_ROUTE, false, FIB_WIRE_ETYPE},
      {"a family without a layout", 144, 1, true, FIB_WIRE_ETYPE},
      {"an operation other than add or delete", 148, 13, false, FIB_WIRE_EOP},
      {"a /33", 148 + 24, 33, true, FIB_WIRE_EPLEN},
      {"an add without next hops", 148 + 25, 0, true, FIB_WIRE_ENONH},
      {"more next hops than the message holds", 148 + 25, 200, true, RTM_WIRE_ENH},
      {"a TLV past the end", 148 + 26, 0x0400, false, RTM_WIRE_ETLV},
      {"one add too many counted", 132, 3, false, FIB_WIRE_ECOUNT},
      {"one delete too few counted", 136, 1, false, FIB_WIRE_ECOUNT},
      {"a delete turned into an add", 148 + 66, 1, false, FIB_WIRE_ENONH},
  };
  const std::vector<uint8_t> golden = hex(kV4);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> m = golden;
    if (c.byte) {
      m[c.off] = static_cast<uint8_t>(c.word);
    } else if (c.off == 148 + 26) {
      rtm::st16(m.data(), c.off, static_cast<uint16_t>(c.word));
    } else {
      st32(m.data(), c.off, c.word);
    }
    FibRouteMsg out;
    out.cmds.resize(3);
    EXPECT_EQ(decodeFibRoutes(m.data(), m.size(), &out), c.err);
    EXPECT_TRUE(out.cmds.empty()) << "nothing of a refused message is handed out";
  }
}

TEST(FibMsgs, EveryCutOfARouteDownloadIsRefused) {
  // Cut after every byte into a buffer of exactly that size (a read past it trips the sanitizer),
  // with mlen still claiming the whole message and with mlen brought down to the cut.
  for (const char *golden : {kV4, kV6}) {
    const std::vector<uint8_t> full = hex(golden);
    for (size_t cut = 0; cut < full.size(); ++cut) {
      for (bool fixMlen : {false, true}) {
        std::vector<uint8_t> m(full.begin(), full.begin() + static_cast<long>(cut));
        if (fixMlen && cut >= IPC_OFF_MLEN + 4) st32(m.data(), IPC_OFF_MLEN, static_cast<uint32_t>(cut));
        FibRouteMsg out;
        EXPECT_NE(decodeFibRoutes(m.empty() ? nullptr : m.data(), m.size(), &out), RTM_WIRE_OK)
            << "cut at " << cut << (fixMlen ? " with mlen at the cut" : "");
      }
    }
  }
  // Bytes behind mlen are not the message's: a datagram padded after it decodes as the golden.
  std::vector<uint8_t> m = hex(kV4);
  m.resize(m.size() + 20, 0xEE);
  FibRouteMsg out;
  EXPECT_EQ(decodeFibRoutes(m.data(), m.size(), &out), RTM_WIRE_OK);
  EXPECT_EQ(out.cmds.size(), 4u);
  // But a header whose mlen takes those bytes in has a tail that is no whole command.
  st32(m.data(), IPC_OFF_MLEN, static_cast<uint32_t>(m.size()));
  EXPECT_EQ(decodeFibRoutes(m.data(), m.size(), &out), RTM_WIRE_EFIXED);
}

TEST(FibMsgs, NextHopBundles) {
  const char *const bundle =
      "00*8 | 00 00 00 b4 | 00 00 32 2a | 00 00 00 00 | 00 00 00 01"  // mlen 180
      "00*36 "  // 24..59
      "33 33 00 01 00 00 00 02"
      "00*60 "  // to 127
      "00 00 00 02"                                                         // two records
      "00 00 00 01 | 00 00 00 00 | c0 00 02 01 | 00 00 00 05 | 00 00 00 00 00 00 00 00"
      "00 00 00 02 | 00 00 00 03 | 7f 00 00 01 | 00 00 00 00 | 00 00 00 00 00 00 00 00";
  const std::vector<uint8_t> golden = hex(bundle);
  std::vector<FibNhRecord> out;
  ASSERT_EQ(decodeFibNextHops(golden.data(), golden.size(), false, &out), RTM_WIRE_OK);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(std::tuple(out[0].op, addrToString(0, out[0].addr), out[0].ifindex), std::tuple(RTM_NH_OP_ADD, "192.0.2.1", 5u));
  EXPECT_EQ(std::tuple(out[1].op, addrToString(0, out[1].addr), out[1].vrfId), std::tuple(RTM_NH_OP_DEL, "127.0.0.1", 3u));

  // The replay to an IPv6 agent: the address runs on from byte 8, the ifindex over its 2nd word.
  std::vector<uint8_t> v6 = golden;
  EXPECT_EQ(decodeFibNextHops(v6.data(), v6.size(), true, &out), RTM_WIRE_OK);
  EXPECT_EQ(addrToString(2, out[0].addr), "c000:201:0:5::");

  struct Case {
    const char *what;
    size_t off;
    uint32_t word;
    int err;
  } cases[] = {
      {"a count the length does not hold", 128, 3, FIB_WIRE_ECOUNT},
      {"a count that wraps to the length in 32 bits", 128, 0x20000002, FIB_WIRE_ECOUNT},
      {"mlen beyond what arrived", 8, 204, FIB_WIRE_ELEN},
      {"an operation other than add or delete", 132 + 24, 0, FIB_WIRE_EOP},
      {"another type", 12, MT_RTM_FIB_ROUTE, FIB_WIRE_ETYPE},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> m = golden;
    st32(m.data(), c.off, c.word);
    EXPECT_EQ(decodeFibNextHops(m.data(), m.size(), false, &out), c.err);
    EXPECT_TRUE(out.empty());
  }
  for (size_t cut = 0; cut < golden.size(); ++cut) {
    std::vector<uint8_t> m(golden.begin(), golden.begin() + static_cast<long>(cut));
    EXPECT_NE(decodeFibNextHops(m.empty() ? nullptr : m.data(), m.size(), false, &out), RTM_WIRE_OK) << cut;
  }
}

TEST(FibMsgs, DownloadControlCarriesTheHandleInTheFamilysHalf) {
  const char *const start4 =
      "00*8 | 00 00 00 90 | 00 00 32 55 | 00*112 "  // 16..127 zero
      "00 05 00 00 | 00 00 00 01 | 00 00 00 03 | 00 00 00 00";  // handle 5 above, start, VRF 3, af 0
  uint8_t buf[DNLD_CNTRL_MSG_LEN + 8];
  ASSERT_EQ(encodeDnldCntrl(5, RTM_IPV4UNI_AFINDEX, RTM_CNTRL_START_DNLD, 3, buf, sizeof buf), DNLD_CNTRL_MSG_LEN);
  EXPECT_EQ(std::vector<uint8_t>(buf, buf + DNLD_CNTRL_MSG_LEN), hex(start4));
  ASSERT_EQ(encodeDnldCntrl(5, RTM_IPV6UNI_AFINDEX, RTM_CNTRL_STOP_DNLD, 0, buf, sizeof buf), DNLD_CNTRL_MSG_LEN);
  EXPECT_EQ(rtm::ld32(buf, DNLD_CNTRL_OFF_CID), 5u);
  EXPECT_EQ(buf[DNLD_CNTRL_OFF_AFINDEX], 2);
  EXPECT_EQ(encodeDnldCntrl(5, 0, 1, 0, buf, DNLD_CNTRL_MSG_LEN - 1), 0u);

  // rtmd's answer to a start: the same layout, the action 2.
  std::vector<uint8_t> begins = hex(start4);
  st32(begins.data(), DNLD_CNTRL_OFF_CID, 0);
  st32(begins.data(), DNLD_CNTRL_OFF_ACTION, RTM_CNTRL_DNLD_BEGINS);
  DnldCntrl c;
  ASSERT_EQ(decodeDnldCntrl(begins.data(), begins.size(), &c), RTM_WIRE_OK);
  EXPECT_EQ(c.action, RTM_CNTRL_DNLD_BEGINS);
  EXPECT_EQ(c.vrfId, 3u);
  EXPECT_EQ(c.afIndex, 0);
  EXPECT_EQ(decodeDnldCntrl(begins.data(), 140, &c), FIB_WIRE_ELEN);
  st32(begins.data(), IPC_OFF_MLEN, 200);
  EXPECT_EQ(decodeDnldCntrl(begins.data(), begins.size(), &c), FIB_WIRE_ELEN);
}

}  // namespace
