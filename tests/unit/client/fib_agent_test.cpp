// The FIB agent against rtmd's endpoint held by the test itself: the test sends sequenced
// download messages as rtmd would, and reads the agent's acknowledgements back.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>
#include <tuple>

#include "client/rtm_client_lib.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "swp/qor_swp.h"
#include "tests/support/rtmd_process.h"

using namespace rtmclient;
using rtm::ld32;
using rtm::st32;

namespace {

constexpr uint32_t kAgentSvce = 410, kAgentInst = 3;
constexpr uint32_t kQueue = 0x4C0011;  // rtmd's name for its download queue to the agent

// One command of a test download: "10.1.0.0/16" with next hops "192.0.2.1%5" (a delete has none).
struct Cmd {
  uint32_t op;
  uint32_t vrf;
  const char *prefix;
  uint8_t plen;
  uint32_t proto = 0, metric = 0;
  std::vector<std::pair<const char *, uint32_t>> nh = {};
};

// Lays out an IPv4 download as rtmd does (its bytes are pinned by the decoder's golden tests).
std::vector<uint8_t> download4(const std::vector<Cmd> &cmds) {
  std::vector<uint8_t> m(FIBUPD_HDR_LEN, 0);
  uint32_t adds = 0, dels = 0;
  for (const Cmd &c : cmds) {
    size_t at = m.size();
    m.resize(at + FIBCMD4_LEN + FIBNH4_LEN * c.nh.size(), 0);
    st32(m.data(), at, c.op);
    st32(m.data(), at + 8, c.vrf);
    EXPECT_TRUE(parseAddr(0, c.prefix, m.data() + at + 12));
    st32(m.data(), at + 16, c.proto);
    st32(m.data(), at + 20, c.metric);
    m[at + 24] = c.plen;
    m[at + 25] = static_cast<uint8_t>(c.nh.size());
    (c.op == FIB_OP_ADD ? adds : dels)++;
    for (size_t i = 0; i < c.nh.size(); ++i) {
      uint8_t *r = m.data() + at + FIBCMD4_LEN + FIBNH4_LEN * i;
      EXPECT_TRUE(parseAddr(0, c.nh[i].first, r));
      st32(r, 4, c.nh[i].second);
    }
  }
  st32(m.data(), IPC_OFF_MLEN, static_cast<uint32_t>(m.size()));
  st32(m.data(), IPC_OFF_MTYPE, MT_RTM_FIB_ROUTE);
  st32(m.data(), FIBUPD_OFF_ADDS, adds);
  st32(m.data(), FIBUPD_OFF_DELS, dels);
  st32(m.data(), FIBUPD_OFF_CAPACITY, 8192);
  return m;
}

// A download of one add of the /24 through 192.0.2.1%1.
std::vector<uint8_t> add24(const std::string &prefix) {
  return download4({{FIB_OP_ADD, 0, prefix.c_str(), 24, 7, 0, {{"192.0.2.1", 1}}}});
}

std::vector<uint8_t> begins(uint32_t vrf, uint8_t af) {
  std::vector<uint8_t> m(DNLD_CNTRL_MSG_LEN, 0);
  encodeDnldCntrl(0, af, RTM_CNTRL_DNLD_BEGINS, vrf, m.data(), m.size());
  return m;
}

class FibAgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qorIpcReset();
    qorSwpReset();
    qorLogSetEcho(false);
    ASSERT_EQ(qorIpcSetRunDir(dir.path().c_str()), 0);
    rtmd = qorIpcOpen(RTM_SVCE, 0);
    ASSERT_GE(rtmd, 0);
  }
  void TearDown() override {
    qorSwpReset();
    qorIpcReset();
    qorLogSetEcho(true);
  }
  static FibAgent::Options options() { return {.svce = kAgentSvce, .inst = kAgentInst, .name = "fib-test"}; }
  // Sends msg as rtmd's sequenced message `seq` on its download queue.
  void post(std::vector<uint8_t> msg, uint32_t seq, uint32_t queue = kQueue) {
    st32(msg.data(), SWP_OFF_QUEUE, queue);
    st32(msg.data(), SWP_OFF_SEQ, seq);
    ASSERT_TRUE(rtmtest::addressMessage(msg.data(), Key_getReqQueue(rtmd), kAgentSvce, kAgentInst));
    ASSERT_EQ(qorIpcSend(Key_getReqQueue(rtmd), msg.data(), static_cast<uint32_t>(msg.size())), 0);
  }
  // The same, and the agent takes it.
  void send(FibAgent &a, std::vector<uint8_t> msg, uint32_t seq, uint32_t queue = kQueue) {
    post(std::move(msg), seq, queue);
    ASSERT_EQ(a.poll(0), 1) << a.lastError();
  }
  // The acknowledgements that reached rtmd's endpoint since the last call: "seq/kind", with
  // "other " ahead for a queue other than kQueue.
  std::vector<std::string> acks() {
    std::vector<std::string> out;
    uint8_t b[RTM_IPC_BUF_SIZE];
    int n;
    while ((n = qorIpcRecv(Key_getReqQueue(rtmd), b, sizeof b, QOR_IPC_NOWAIT, 0, 0)) > 0) {
      EXPECT_EQ(ld32(b, IPC_OFF_MTYPE), MT_SWP_ACK);
      std::string q = ld32(b, SWP_OFF_QUEUE) == kQueue ? "" : "other ";
      out.push_back(q + std::to_string(ld32(b, SWP_OFF_SEQ)) + "/" + std::to_string(ld32(b, SWP_OFF_ACK_KIND)));
    }
    return out;
  }
  rtmtest::TempDir dir;
  int rtmd = -1;
};

TEST_F(FibAgentTest, CommandsBuildTheTableAndAFreshDownloadEmptiesOnlyItsVrf) {
  FibAgent a(options());
  ASSERT_EQ(a.open(), 0) << a.lastError();
  // An agent that restarted finds rtmd's queue where it stood: 41 is taken as the first.
  send(a, download4({{FIB_OP_ADD, 0, "10.1.0.0", 16, 7, 100, {{"192.0.2.1", 5}, {"192.0.2.2", 6}}},
                     {FIB_OP_ADD, 0, "10.2.0.0", 24, 4, 20, {{"192.0.2.9", 1}}},
                     {FIB_OP_ADD, 3, "10.1.0.0", 16, 7, 1, {{"192.0.2.3", 2}}}}),
       41);
  // The same prefix again replaces it whole; a delete of a prefix never held is counted.
  send(a, download4({{FIB_OP_ADD, 0, "10.1.0.0", 16, 5, 7, {{"198.51.100.1", 8}}},
                     {FIB_OP_DEL, 0, "10.2.0.0", 24},
                     {FIB_OP_DEL, 0, "10.9.0.0", 24}}),
       42);
  EXPECT_EQ(a.dump(),
            "0 10.1.0.0/16 proto 5 metric 7 nh 198.51.100.1%8@0\n"
            "3 10.1.0.0/16 proto 7 metric 1 nh 192.0.2.3%2@0\n");
  EXPECT_EQ(std::tuple(a.stats().adds, a.stats().dels, a.stats().delsUnknown), std::tuple(4u, 2u, 1u));

  send(a, begins(3, RTM_IPV4UNI_AFINDEX), 43);
  EXPECT_EQ(a.dump(), "0 10.1.0.0/16 proto 5 metric 7 nh 198.51.100.1%8@0\n");
  EXPECT_EQ(a.stats().freshStarts, 1u);
  send(a, begins(0, RTM_IPV6UNI_AFINDEX), 44);  // another family's VRF 0: ours stays
  EXPECT_EQ(a.routeCount(), 1u);
  EXPECT_EQ(acks(), (std::vector<std::string>{"41/0", "42/0", "43/0", "44/0"}));
  EXPECT_EQ(std::tuple(a.stats().messages, a.stats().cntrlMsgs), std::tuple(4u, 2u));
}

TEST_F(FibAgentTest, RepeatsAndGapsAreAcknowledgedButNotApplied) {
  FibAgent a(options());
  ASSERT_EQ(a.open(), 0);
  std::vector<uint32_t> taken;
  a.setMessageHook([&](uint32_t, const uint8_t *m, size_t) { taken.push_back(ld32(m, SWP_OFF_SEQ)); });
  send(a, add24("10.0.1.0"), 1);
  send(a, add24("10.0.1.0"), 1);  // our ack was lost: again, and nothing twice
  send(a, add24("10.0.3.0"), 3);  // 2 was lost
  send(a, add24("10.0.2.0"), 2);
  send(a, add24("10.0.3.0"), 3);
  send(a, download4({{FIB_OP_DEL, 0, "10.0.1.0", 24}}), 1, 0x4C0012);  // a second queue of rtmd's
  EXPECT_EQ(taken, (std::vector<uint32_t>{1, 2, 3, 1}));
  EXPECT_EQ(std::tuple(a.stats().repeats, a.stats().gaps, a.stats().adds), std::tuple(1u, 1u, 3u));
  EXPECT_EQ(a.routeCount(), 2u);
  EXPECT_EQ(acks(), (std::vector<std::string>{"1/0", "1/1", "1/2", "2/0", "3/0", "other 1/0"}));
}

TEST_F(FibAgentTest, WhatArrivesTogetherIsAcknowledgedTogether) {
  FibAgent a(options());
  ASSERT_EQ(a.open(), 0);
  // As many as the kernel holds for a socket nobody reads (often 10).
  for (uint32_t seq = 1; seq <= 9; ++seq) post(add24("10.1." + std::to_string(seq) + ".0"), seq);
  post(download4({}), 7);  // a repeat behind them is answered at once
  ASSERT_EQ(a.poll(0), 10) << a.lastError();
  EXPECT_EQ(a.routeCount(), 9u);
  EXPECT_EQ(acks(), (std::vector<std::string>{"8/0", "9/0", "9/1"}));
}

TEST_F(FibAgentTest, AMalformedMessageIsAcknowledgedCountedAndLeavesTheTableAlone) {
  FibAgent a(options());
  ASSERT_EQ(a.open(), 0);
  send(a, add24("10.0.1.0"), 1);
  std::vector<uint8_t> bad = download4({{FIB_OP_DEL, 0, "10.0.1.0", 24}, {FIB_OP_ADD, 0, "10.0.2.0", 24, 7, 0, {{"192.0.2.1", 1}}}});
  st32(bad.data(), FIBUPD_OFF_ADDS, 2);  // counts one add that is not there
  send(a, bad, 2);
  std::vector<uint8_t> nh(RTM_FIBNH_OFF_RECS, 0);
  st32(nh.data(), IPC_OFF_MLEN, RTM_FIBNH_OFF_RECS);
  st32(nh.data(), IPC_OFF_MTYPE, MT_RTM_FIB_NH);
  st32(nh.data(), RTM_FIBNH_OFF_COUNT, 1);  // one record promised, none there
  send(a, nh, 3);
  send(a, add24("10.0.3.0"), 4);
  EXPECT_EQ(a.stats().malformed, 2u);
  EXPECT_EQ(a.lastMalformed(), "0x322a: header counts disagree with the commands");
  EXPECT_EQ(a.dump(),
            "0 10.0.1.0/24 proto 7 metric 0 nh 192.0.2.1%1@0\n"
            "0 10.0.3.0/24 proto 7 metric 0 nh 192.0.2.1%1@0\n");
  EXPECT_EQ(acks(), (std::vector<std::string>{"1/0", "2/0", "3/0", "4/0"}));
}

TEST_F(FibAgentTest, AnAgentToldToStopAcknowledgingTakesNothingMore) {
  FibAgent::Options o = options();
  o.noAckAfter = 2;
  FibAgent a(o);
  ASSERT_EQ(a.open(), 0);
  for (uint32_t seq = 1; seq <= 4; ++seq) send(a, add24("10.0." + std::to_string(seq) + ".0"), seq);
  EXPECT_TRUE(a.withholding());
  EXPECT_EQ(a.routeCount(), 2u);
  EXPECT_EQ(a.stats().withheld, 2u);
  EXPECT_EQ(acks(), (std::vector<std::string>{"1/0", "2/0"}));
}

TEST(FibRouteText, OneLinePerRouteWithEverythingTheFibProgrammes) {
  FibPrefix p{.afIndex = RTM_IPV6UNI_AFINDEX, .len = 48, .vrfId = 2};
  ASSERT_TRUE(parseAddr(2, "2001:db8:1::", p.addr));
  FibRoute r{.proto = 1, .metric = 3, .marker = FIB_MARKER_VRRP, .weighted = true,
             .nh = {{.ifindex = 7, .weight = 2}, {.vrfId = 4, .weight = 1}}, .tlv = {0x0a, 0xff}};
  ASSERT_TRUE(parseAddr(2, "2001:db8::1", r.nh[0].addr));
  EXPECT_EQ(formatFibRoute(p, r), "2 2001:db8:1::/48 proto 1 metric 3 vrrp weighted nh 2001:db8::1%7@0*2 ::%0@4*1 tlv 0aff");
}

}  // namespace
