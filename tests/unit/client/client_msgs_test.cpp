// The client library's encoders against bytes written out by hand from the wire tables, and
// its decoders on the same bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "client/rtm_client_lib.h"
#include "tests/support/hex.h"

using namespace rtmclient;
using rtmtest::cat;
using rtmtest::hex;

namespace {

std::vector<uint8_t> zeros(size_t n) { return std::vector<uint8_t>(n, 0); }

// An IPC header with only mlen and mtype set, as every encoder leaves it for the transport.
std::vector<uint8_t> header(uint32_t mlen, uint32_t mtype) {
  std::vector<uint8_t> h(IPC_HDR_LEN, 0);
  rtm::st32(h.data(), IPC_OFF_MLEN, mlen);
  rtm::st32(h.data(), IPC_OFF_MTYPE, mtype);
  return h;
}

TEST(ClientMsgs, RegistrationFormsEncodeToTheirGoldenBytes) {
  // Every field distinct from zero, so that a field left unwritten or unread shows.
  RegRequest req{.mtype = MT_RTM_REG_CLIENT_VRF, .name = "bgp-1", .proto = RTM_PROTO_BGP, .instance = 1,
                 .vrfId = 3, .flags = 0x10, .svce = 307, .card = 0x7F000001, .ipcInst = 1, .spare = 4,
                 .filter = 1, .afIndex = RTM_IPV6UNI_AFINDEX, .multiQ = 1, .noOfQs = 1};
  const std::vector<uint8_t> golden = cat({header(168, 0x323F), hex(R"(
      00 00 00 00                                         // cid (the answer's)
      62 67 70 2d 31 00 00 00 00 00 00 00 00 00 00 00     // name "bgp-1", 40 bytes
      00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00
      00 00 00 00 00 00 00 00
      00 00 00 00 | 00 00 00 07 | 00 00 00 00 | 00 00 00 01    // spare | proto 7 | spare | instance 1
      00 00 00 00 | 00 00 00 03 | 00 00 00 10                  // spare | vrf 3 | flags
      00 00 01 33 | 7f 00 00 01 | 00 00 00 01                  // svce 307 | card | ipc instance 1
      00 00 00 04 | 00 00 00 01 | 00 00 00 00 00 00 00 00      // spare 4 | filter 1 | 8 unused
      02 00 00 01 | 00 00 00 01                                // afIndex 2, multiQ 1 | one queue
  )")});
  ASSERT_EQ(golden.size(), 168u);
  uint8_t buf[256];
  ASSERT_EQ(encodeRegister(req, buf, sizeof buf), 168u);
  EXPECT_EQ(std::vector<uint8_t>(buf, buf + 168), golden);

  // Decoding gives back a record that encodes to the very same bytes.
  RegRequest back;
  ASSERT_EQ(decodeRegister(golden.data(), golden.size(), &back), RTM_WIRE_OK);
  memset(buf, 0xEE, sizeof buf);
  ASSERT_EQ(encodeRegister(back, buf, sizeof buf), 168u);
  EXPECT_EQ(std::vector<uint8_t>(buf, buf + 168), golden);
  EXPECT_EQ(decodeRegister(golden.data(), 167, &back), RTM_WIRE_ESHORT);

  // A name that fills the field is sent without a terminator and read back whole.
  req.name = std::string(45, 'n');
  ASSERT_EQ(encodeRegister(req, buf, sizeof buf), 168u);
  EXPECT_EQ(buf[REG_OFF_NAME + 39], 'n');
  EXPECT_EQ(buf[REG_OFF_NAME + 40], 0);  // the next field, untouched
  ASSERT_EQ(decodeRegister(buf, 168, &back), RTM_WIRE_OK);
  EXPECT_EQ(back.name, std::string(40, 'n'));

  // Refused: not a registration, more queues than VRFs, a buffer one byte short.
  for (auto [mtype, noOfQs, cap] : {std::tuple(MT_RTM_UPD_ROUTE, 1u, sizeof buf),
                                    std::tuple(MT_RTM_REG_CLIENT_VRF, uint32_t(MAX_VRF + 1), sizeof buf),
                                    std::tuple(MT_RTM_REG_CLIENT_BOTH, 1u, size_t(167))}) {
    req.mtype = mtype;
    req.noOfQs = noOfQs;
    EXPECT_EQ(encodeRegister(req, buf, cap), 0u) << mtype;
  }
}

TEST(ClientMsgs, DeregistrationAndManagerFormsEncodeToTheirGoldenBytes) {
  struct Case {
    const char *what;
    std::vector<uint8_t> golden;
    size_t (*encode)(uint8_t *, size_t);
  } cases[] = {
      {"deregistration: cid at 60, family at 160",
       cat({header(168, 0x3203), hex("00 00 00 05"), zeros(96), hex("02"), zeros(7)}),
       [](uint8_t *b, size_t c) { return encodeDeregister(5, 2, b, c); }},
      {"one family of a client: cid at 60, family at 64",
       cat({header(168, 0x3237), hex("00 00 00 2a | 01"), zeros(103)}),
       [](uint8_t *b, size_t c) { return encodeDeregisterAf(42, 1, b, c); }},
      {"both families: the two handles in one word",
       cat({header(168, 0x326A), hex("00 03 00 07"), zeros(104)}),
       [](uint8_t *b, size_t c) { return encodeDeregisterBoth(3, 7, b, c); }},
      {"ARP manager: selector 112, task 120, word 128, svce 132, inst 140",
       cat({header(168, 0x3202), zeros(52),
            hex("00 00 00 01 | 00 00 00 00 | 00 00 00 63 | 00 00 00 00 | 00 00 00 09 | 00 00 00 e1"
                "| 00 00 00 00 | 00 00 00 04"),
            zeros(24)}),
       [](uint8_t *b, size_t c) { return encodeRegisterNonRt(NONRT_ARP, 99, 225, 4, 9, b, c); }},
  };
  for (const Case &c : cases) {
    ASSERT_EQ(c.golden.size(), 168u) << c.what;
    uint8_t buf[168];
    memset(buf, 0xEE, sizeof buf);
    ASSERT_EQ(c.encode(buf, sizeof buf), 168u) << c.what;
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 168), c.golden) << c.what;
    EXPECT_EQ(c.encode(buf, 100), 0u) << c.what;
  }
  uint8_t buf[168];
  EXPECT_EQ(encodeDeregisterBoth(0x10000, 1, buf, sizeof buf), 0u) << "a handle wider than its half";

  // The answer: status from mstatus, the handle (or the pair) from 60.
  std::vector<uint8_t> reply = cat({header(168, 0x3269), hex("00 02 00 09"), zeros(104)});
  rtm::st32(reply.data(), IPC_OFF_MSTATUS, 3);
  RegReply rr;
  ASSERT_EQ(decodeRegReply(reply.data(), reply.size(), &rr), RTM_WIRE_OK);
  EXPECT_EQ(std::tuple(rr.status, rr.cidV4(), rr.cidV6()), std::tuple(3u, 2u, 9u));
  EXPECT_EQ(decodeRegReply(reply.data(), 63, &rr), RTM_WIRE_ESHORT);
}

// One IPv4 add with two next hops, weights and a TLV; one IPv6 delete with one next hop.
TEST(ClientMsgs, RouteUpdatesEncodeToTheirGoldenBytesAndDecodeBack) {
  NextHop v4nh[2] = {{.ifindex = 5, .weight = 1}, {.vrfId = 3, .weight = 3}};
  ASSERT_TRUE(parseAddr(0, "192.0.2.1", v4nh[0].addr));
  ASSERT_TRUE(parseAddr(0, "192.0.2.2", v4nh[1].addr));
  const uint8_t tlv[2] = {0xAA, 0xBB};
  Route r4{.afIndex = 0, .prefixLen = 16, .pref = 20, .proto = RTM_PROTO_BGP, .subtype = RT_BGP_EXTERNAL,
           .metric = 100, .tag = 0x01020304, .flags = RTP_FLAG_WECMP, .srcVrf = 3, .nh = v4nh, .nnh = 2,
           .tlv = tlv, .tlvlen = 2};
  ASSERT_TRUE(parseAddr(0, "10.1.0.0", r4.prefix));
  ASSERT_TRUE(parseAddr(0, "192.0.2.254", r4.gateway));

  const std::vector<uint8_t> v4 = cat({header(254, 0x3204), zeros(80), hex(R"(
      00 00 00 03 | 00 00 00 01 | 00 00 00 00       // cid 3 | one element | family 0
      00 00 00 01                                   // add
      00 14 00 00 | 00 00 00 00 | 00 00 00 07       // pref 20, subpref | vrf | proto 7
      00 00 00 00 | 00 00 00 0d | 00 00 00 64       // reserved | subtype 13 | metric 100
      01 02 03 04 | 00 00 00 00 | 00 02 00 00       // tag | reserved | 2 next hops
      00 80 00 00 | 00 02 00 10                     // flags | tlvlen 2, family 0, /16
      c0 00 02 fe | 00 00 00 03 | 0a 01 00 00       // gateway | source VRF 3 | prefix
      c0 00 02 01 00 00 00 05 00 00 00 00 00 00 00 00 00 00 00 01     // next hop, ifindex 5, weight 1
      c0 00 02 02 00 00 00 00 00 00 00 03 00 00 00 00 00 00 00 03     // next hop, VRF 3, weight 3
      aa bb                                                           // TLV
  )")});
  ASSERT_EQ(v4.size(), 254u);

  NextHop v6nh{.ifindex = 7, .vrfId = 4};
  ASSERT_TRUE(parseAddr(2, "2001:db8::1", v6nh.addr));
  Route r6{.afIndex = 2, .prefixLen = 32, .pref = 20, .subpref = 1, .vrfId = 4, .proto = RTM_PROTO_BGP,
           .subtype = RT_BGP_EXTERNAL, .srcVrf = 4, .nh = &v6nh, .nnh = 1};
  ASSERT_TRUE(parseAddr(2, "2001:db8::", r6.prefix));
  ASSERT_TRUE(parseAddr(2, "2001:db8::fe", r6.gateway));
  const std::vector<uint8_t> v6 = cat({header(264, 0x3204), zeros(80), hex(R"(
      00 00 00 09 | 00 00 00 01 | 00 02 00 00       // cid 9 | one element | family 2
      00 00 00 02                                   // delete
      00 14 00 01 | 00 00 00 04 | 00 00 00 07       // pref 20, subpref 1 | vrf 4 | proto 7
      00 00 00 00 | 00 00 00 0d | 00 00 00 00 | 00 00 00 00 | 00 00 00 00
      00 01 00 00 | 00 00 00 00 | 00 00 02 20       // 1 next hop | flags | no TLV, family 2, /32
      20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 fe                 // gateway
      00 00 00 04                                                     // source VRF 4
      20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 00                 // prefix
      20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01                 // next hop
      00 00 00 07 | 00 00 00 04 | 00 00 00 00                         // ifindex 7 | vrf 4 | weight
  )")});
  ASSERT_EQ(v6.size(), 264u);

  struct Case {
    const char *what;
    uint32_t cid;
    uint32_t subCmd;
    const Route *route;
    const std::vector<uint8_t> *golden;
  } cases[] = {{"IPv4 add", 3, RTM_UPD_ADD, &r4, &v4}, {"IPv6 delete", 9, RTM_UPD_DEL, &r6, &v6}};
  for (const Case &c : cases) {
    std::vector<uint8_t> buf(RTM_IPC_BUF_SIZE, 0xEE);
    ASSERT_EQ(routeMsgInit(buf.data(), buf.size(), c.cid, c.route->afIndex), RTM_WIRE_OK) << c.what;
    ASSERT_EQ(routeMsgAdd(buf.data(), buf.size(), c.subCmd, *c.route), RTM_WIRE_OK) << c.what;
    ASSERT_EQ(routeMsgLen(buf.data()), c.golden->size()) << c.what;
    EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + c.golden->size()), *c.golden) << c.what;

    // Decoding needs room for every next hop (the wire tests decode such messages field by field).
    rtm_route_citer it;
    rtm_route_celem el;
    ASSERT_EQ(rtmRouteIterInit(&it, c.golden->data(), c.golden->size()), RTM_WIRE_OK) << c.what;
    ASSERT_EQ(rtmRouteIterNext(&it, &el), RTM_WIRE_OK) << c.what;
    NextHop nhs[RTP_MAX_NH];
    Route back;
    EXPECT_EQ(routeDecode(el, it.afIndex, &back, nhs, c.route->nnh - 1), RTM_WIRE_ENOSPACE) << c.what;
    EXPECT_EQ(routeDecode(el, it.afIndex, &back, nhs, c.route->nnh), RTM_WIRE_OK) << c.what;
  }
}

TEST(ClientMsgs, AMessageTakesRoutesUntilTheNextWouldNotFit) {
  NextHop nh;
  Route r{.prefixLen = 24, .proto = RTM_PROTO_OSPF, .nh = &nh, .nnh = 1};
  std::vector<uint8_t> buf(RTM_IPC_BUF_SIZE);
  ASSERT_EQ(routeMsgInit(buf.data(), buf.size(), 1, 0), RTM_WIRE_OK);
  // (8192 - 152) / 80: one-next-hop IPv4 routes per message.
  ASSERT_EQ(routesPerMessage(0, 1), 100u);
  for (unsigned i = 0; i < 100; ++i) {
    r.prefix[2] = static_cast<uint8_t>(i);
    ASSERT_EQ(routeMsgAdd(buf.data(), buf.size(), RTM_UPD_ADD, r), RTM_WIRE_OK) << i;
  }
  const std::vector<uint8_t> full(buf.begin(), buf.begin() + routeMsgLen(buf.data()));
  EXPECT_EQ(routeMsgLen(buf.data()), 152u + 100 * 80);
  EXPECT_EQ(routeMsgAdd(buf.data(), buf.size(), RTM_UPD_ADD, r), RTM_WIRE_ENOSPACE);
  EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + full.size()), full) << "a refused add changes nothing";
  EXPECT_EQ(routeMsgCount(buf.data()), 100u);
  EXPECT_EQ(rtmRouteMsgCheck(buf.data(), routeMsgLen(buf.data())), RTM_WIRE_OK);

  // Family and next-hop count must fit the message's layout.
  ASSERT_EQ(routeMsgInit(buf.data(), buf.size(), 1, 0), RTM_WIRE_OK);
  r.afIndex = 2;
  EXPECT_EQ(routeMsgAdd(buf.data(), buf.size(), RTM_UPD_ADD, r), RTM_WIRE_EAF);
  std::vector<NextHop> many(65);
  r = {.nh = many.data(), .nnh = 65};
  EXPECT_EQ(routeMsgAdd(buf.data(), buf.size(), RTM_UPD_ADD, r), RTM_WIRE_ENOFIELD);
  EXPECT_EQ(routeMsgCount(buf.data()), 0u);
}

TEST(ClientMsgs, RouteCountRequestAndReply) {
  uint8_t req[RTM_RC_REQ_LEN];
  ASSERT_EQ(encodeRouteCountRequest(RTM_RC_ALL_AF, ALL_VRF_ID, 125, req, sizeof req), RTM_RC_REQ_LEN);
  const std::vector<uint8_t> golden = cat({header(92, 0x1771), zeros(12), hex(R"(
      00 00 32 7b | 00 00 00 00                      // sub-code | unused
      ff ff ff ff | 00 00 ff ff | 00 00 00 7d        // both families | every VRF | from row 125
  )")});
  EXPECT_EQ(std::vector<uint8_t>(req, req + sizeof req), golden);
  EXPECT_EQ(encodeRouteCountRequest(0, 0, 0, req, sizeof req - 1), 0u);

  // A reply of two rows, written field by field from the layout.
  std::vector<uint8_t> rep(RTM_RC_OFF_ROWS + 2 * RTM_RC_ROW_LEN, 0);
  uint8_t *m = rep.data();
  rtm::st32(m, RTM_NM_OFF_STATUS, RTM_RC_OK);
  rtm::st32(m, RTM_RC_OFF_NROWS, 2);
  rtm::st32(m, RTM_RC_OFF_NEXT, 7);
  rtm::st32(m, RTM_RC_OFF_TOTAL, 9);
  rtm::st64(m, RTM_RC_OFF_ACTIVE, 0x100000002ull);
  rtm::st64(m, RTM_RC_OFF_INACTIVE, 3);
  rtm::st64(m, RTM_RC_OFF_ACTIVE_BGP, 4);
  rtm::st64(m, RTM_RC_OFF_INACTIVE_BGP, 5);
  rtm::st64(m, RTM_RC_OFF_PREFIXES, 6);
  uint8_t *row = m + RTM_RC_OFF_ROWS + RTM_RC_ROW_LEN;
  rtm::st32(row, RTM_RC_ROW_CID, 12);
  rtm::st8(row, RTM_RC_ROW_AFINDEX, 2);
  rtm::st8(row, RTM_RC_ROW_FLAGS, RTM_RC_ROW_BLOCKED);
  rtm::st32(row, RTM_RC_ROW_PROTO, 4);
  rtm::st32(row, RTM_RC_ROW_INSTANCE, 3);
  rtm::st32(row, RTM_RC_ROW_VRFID, 511);
  rtm::st32(row, RTM_RC_ROW_ACTIVE, 1000);
  rtm::st32(row, RTM_RC_ROW_INACTIVE, 20);
  rtm::st32(row, RTM_RC_ROW_SUBTYPE + 4 * 5, 77);
  RouteCountReply out;
  ASSERT_EQ(decodeRouteCountReply(m, rep.size(), &out), RTM_WIRE_OK);
  EXPECT_EQ(std::tuple(out.status, out.next, out.total), std::tuple(RTM_RC_OK, 7u, 9u));
  EXPECT_EQ(std::tuple(out.active, out.inactive, out.activeBgp, out.inactiveBgp, out.prefixes),
            std::tuple(0x100000002ull, 3ull, 4ull, 5ull, 6ull));
  ASSERT_EQ(out.rows.size(), 2u);
  const RouteCountRow &r = out.rows[1];
  EXPECT_EQ(std::tuple(r.cid, r.afIndex, r.flags, r.proto, r.instance, r.vrfId, r.active, r.inactive, r.subtype[5]),
            std::tuple(12u, uint8_t(2), uint8_t(RTM_RC_ROW_BLOCKED), 4u, 3u, 511u, 1000u, 20u, 77u));

  // A reply that promises more rows than it carries adds none of them.
  RouteCountReply shortOut;
  EXPECT_EQ(decodeRouteCountReply(m, rep.size() - 1, &shortOut), RTM_WIRE_ESHORT);
  EXPECT_TRUE(shortOut.rows.empty());
  rtm::st32(m, RTM_RC_OFF_NROWS, RTM_RC_MAX_ROWS + 1);
  EXPECT_EQ(decodeRouteCountReply(m, RTM_IPC_BUF_SIZE, &shortOut), RTM_WIRE_ESHORT);
  // A refusal carries only its status.
  rtm::st32(m, RTM_NM_OFF_STATUS, RTM_RC_EBADREQ);
  EXPECT_EQ(decodeRouteCountReply(m, 68, &shortOut), RTM_WIRE_OK);
  EXPECT_EQ(shortOut.status, RTM_RC_EBADREQ);
}

TEST(ClientMsgs, ProtocolNamesAndDefaults) {
  struct Case {
    const char *name;
    uint32_t proto;
    uint16_t pref;
  } cases[] = {{"bgp", 7, 20}, {"BGP", 7, 20}, {"ospf", 4, 110}, {"isis", 5, 115}, {"rip", 8, 120},
               {"12", 12, 100}, {"bgpx", 0, 0}, {"31", 0, 0}, {"", 0, 0}, {"7x", 0, 0}};
  for (const Case &c : cases) {
    EXPECT_EQ(protoFromName(c.name), c.proto) << c.name;
    if (c.proto) {
      EXPECT_EQ(defaultPreference(c.proto), c.pref) << c.name;
    }
  }
}

}  // namespace
