// MT_RTM_UPD_ROUTE as bytes: batches applied in order, malformed batches refused whole, and
// the out-of-memory warning given once.
#include "tests/unit/rib/rib_test_util.h"

using namespace ribtest;

namespace {

constexpr uint32_t kOspf = 3;

class UpdateMsg : public RibTest {
 public:
  void SetUp() override {
    RibTest::SetUp();
    client(kOspf, RTM_PROTO_OSPF);
    msg.assign(RTM_IPC_BUF_SIZE, 0);
    ASSERT_EQ(rtmRouteMsgInit(msg.data(), msg.size(), MT_RTM_UPD_ROUTE, kOspf, RTM_IPV4UNI_AFINDEX), RTM_WIRE_OK);
  }
  // Appends a route 10.<i>.0.0/16 with `nnh` next hops and a TLV of `tlv` bytes.
  uint8_t *append(uint32_t subCmd, int i, uint16_t nnh = 1, uint16_t tlv = 0) {
    uint8_t *rtp = rtmRouteMsgAddElem(msg.data(), msg.size(), subCmd, nnh, tlv);
    EXPECT_NE(rtp, nullptr);
    uint8_t *pfx = rtpPrefix(rtp, 0);
    pfx[0] = 10;
    pfx[1] = uint8_t(i);
    rtpSetPrefixLen(rtp, 16);
    rtpSetProto(rtp, RTM_PROTO_OSPF);
    rtpSetPref(rtp, 110);
    for (unsigned k = 0; k < nnh; ++k) {
      uint8_t *nh = rtpNh(rtp, 0, k);
      nh[0] = 192, nh[1] = 168, nh[2] = 1, nh[3] = uint8_t(k + 1);
      rtpnhSetIfindex(nh, 0, 5);
    }
    return rtp;
  }
  uint32_t len() const { return rtm::ld32(msg.data(), IPC_OFF_MLEN); }
  int run(uint32_t n) { return rtmUpdateRouteIPv4(msg.data(), n, nullptr); }
  bool has(int i) {
    rt_head *h = head(("10." + std::to_string(i) + ".0.0").c_str(), 16);
    return h && h->rtmh_rte;
  }
  std::vector<uint8_t> msg;
};

TEST_F(UpdateMsg, BatchIsAppliedInOrderAndABadSubCommandIsSkipped) {
  append(RTM_UPD_ADD, 1);
  append(RTM_UPD_ADD, 2, 2, 5);
  append(9, 3);
  append(RTM_UPD_DEL, 1);
  append(RTM_UPD_ADD, 4);
  ASSERT_EQ(run(len()), RTM_SUCCESS);
  EXPECT_FALSE(has(1));
  EXPECT_TRUE(has(2));
  EXPECT_FALSE(has(3));
  EXPECT_TRUE(has(4));
  EXPECT_EQ(qorLogCount(0x148004), 1u);
  EXPECT_EQ(head("10.2.0.0", 16)->rtmh_rte->rte_nnh, 2u);
}

TEST_F(UpdateMsg, MalformedBatchesAreRefusedWhole) {
  struct Case {
    const char *what;
    void (*spoil)(UpdateMsg &t, uint8_t *second);
    int32_t cut;  // bytes taken off the received length
  } cases[] = {
      {"count reaches past the bytes", [](UpdateMsg &t, uint8_t *) { rtm::st32(t.msg.data(), RTM_UPD_OFF_COUNT, 3); }, 0},
      {"rtp_nnh reaches past the bytes", [](UpdateMsg &, uint8_t *rtp) { rtpSetNnh(rtp, 3); }, 0},
      {"rtp_tlvlen reaches past the bytes", [](UpdateMsg &, uint8_t *rtp) { rtpSetTlvLen(rtp, 40); }, 0},
      {"huge rtp_nnh", [](UpdateMsg &, uint8_t *rtp) { rtpSetNnh(rtp, 0xFFFF); }, 0},
      {"received bytes end inside the last element", [](UpdateMsg &, uint8_t *) {}, 7},
      {"shorter than the header", [](UpdateMsg &, uint8_t *) {}, -100},
      {"IPv4 multicast on the unicast message", [](UpdateMsg &t, uint8_t *) { t.msg[RTM_UPD_OFF_AFINDEX] = 1; }, 0},
      {"family without a record layout", [](UpdateMsg &t, uint8_t *) { t.msg[RTM_UPD_OFF_AFINDEX] = 7; }, 0},
      {"count of four billion", [](UpdateMsg &t, uint8_t *) { rtm::st32(t.msg.data(), RTM_UPD_OFF_COUNT, ~0u); }, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    qorLogClearRecent();
    ASSERT_EQ(rtmRouteMsgInit(msg.data(), msg.size(), MT_RTM_UPD_ROUTE, kOspf, 0), RTM_WIRE_OK);
    append(RTM_UPD_ADD, 1);
    uint8_t *second = append(RTM_UPD_ADD, 2);
    c.spoil(*this, second);
    uint32_t n = c.cut < 0 ? uint32_t(RTM_UPD_OFF_ELEMS + c.cut / 10) : len() - uint32_t(c.cut);
    // What lies behind the received bytes must not be read: make it poison.
    std::vector<uint8_t> exact(msg.begin(), msg.begin() + n);
    EXPECT_EQ(rtmUpdateRouteIPv4(exact.data(), n, nullptr), RTM_FAILURE);
    EXPECT_EQ(qorLogCount(0x148034), 1u);
    EXPECT_FALSE(has(1)) << "the good first element was applied";
    EXPECT_FALSE(has(2));
  }
}

TEST_F(UpdateMsg, OutOfMemoryIsToldOncePerArming) {
  for (int i = 0; i < 4; ++i) append(RTM_UPD_ADD, i);
  qorMemVarFailNext(3);
  ASSERT_EQ(run(len()), RTM_SUCCESS);
  EXPECT_EQ(qorLogCount(0x148059), 1u);
  EXPECT_TRUE(has(3));  // the batch went on after the drops
  // Silent until something arms the warning again (a clear of routes does).
  ASSERT_EQ(rtmRouteMsgInit(msg.data(), msg.size(), MT_RTM_UPD_ROUTE, kOspf, 0), RTM_WIRE_OK);
  append(RTM_UPD_ADD, 7);
  qorMemVarFailNext(1);
  run(len());
  EXPECT_EQ(qorLogCount(0x148059), 1u);
  rtmOutOfMemLogMsg = 1;
  qorMemVarFailNext(1);
  run(len());
  EXPECT_EQ(qorLogCount(0x148059), 2u);
  EXPECT_FALSE(has(7));
}

}  // namespace
