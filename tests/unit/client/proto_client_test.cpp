// The protocol client against a stand-in for rtmd that holds rtmd's endpoint in a thread of
// the test.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
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

constexpr uint32_t kClientSvce = 307, kClientInst = 2;

// Holds rtmd's endpoint. Answers registrations with `cid` (or refuses them), takes update
// messages in sequence and acknowledges them only when `ackEvery` are outstanding, or when
// nothing more has come for a moment (so a last partial window is not held for ever).
class FakeRtmd {
 public:
  struct Update {
    uint32_t cid;
    uint8_t afIndex;
    std::vector<std::pair<uint32_t, uint32_t>> elems;  // sub-command, first word of the prefix
  };

  FakeRtmd(uint32_t cid, uint32_t ackEvery, uint32_t status = 0) : cid_(cid), ackEvery_(ackEvery), status_(status) {
    key_ = qorIpcOpen(RTM_SVCE, 0);
    thread_ = std::thread([this] { run(); });
  }
  ~FakeRtmd() {
    stop_ = true;
    thread_.join();
    qorIpcClose(key_);
  }
  int key() const { return key_; }

  std::mutex mu;
  std::vector<RegRequest> regs;
  std::vector<Update> updates;
  std::vector<std::string> events;  // "update <seq>" and "dereg <cid> <af>", in arrival order
  std::vector<std::pair<uint32_t, uint32_t>> acksSeen;  // (sequence, kind) of acks to us
  uint32_t maxOutstanding = 0;

 private:
  void ack(const uint8_t *data, uint32_t seq) {
    uint8_t a[QOR_SWP_ACK_LEN] = {};
    memcpy(a, data, IPC_HDR_LEN);
    st32(a, IPC_OFF_MLEN, QOR_SWP_ACK_LEN);
    st32(a, IPC_OFF_MTYPE, MT_SWP_ACK);
    st32(a, SWP_OFF_QUEUE, ld32(data, SWP_OFF_QUEUE));
    st32(a, SWP_OFF_SEQ, seq);
    qorIpcReply(key_, a, sizeof a);
  }
  void run() {
    std::vector<uint8_t> buf(RTM_IPC_BUF_SIZE), last(IPC_SWP_HDR_LEN);
    uint32_t expected = 1, outstanding = 0;
    while (!stop_) {
      int n = qorIpcRecv(Key_getReqQueue(key_), buf.data(), buf.size(), QOR_IPC_WAIT_TIMEOUT, 20, 0);
      if (n < 0) {
        if (outstanding) ack(last.data(), expected - 1), outstanding = 0;
        continue;
      }
      uint8_t *m = buf.data();
      const uint32_t mtype = ld32(m, IPC_OFF_MTYPE);
      std::lock_guard<std::mutex> lk(mu);
      if (mtype == MT_RTM_REG_CLIENT || mtype == MT_RTM_REG_CLIENT_VRF) {
        RegRequest r;
        if (decodeRegister(m, static_cast<size_t>(n), &r) == RTM_WIRE_OK) regs.push_back(r);
        st32(m, IPC_OFF_MSTATUS, status_);
        st32(m, REG_OFF_CID, cid_);
        qorIpcReply(key_, m, static_cast<uint32_t>(n));
      } else if (mtype == MT_RTM_DEREG_CLIENT) {
        events.push_back("dereg " + std::to_string(ld32(m, REG_OFF_CID)) + " " + std::to_string(m[REG_OFF_AFINDEX]));
        st32(m, IPC_OFF_MSTATUS, 0);
        qorIpcReply(key_, m, static_cast<uint32_t>(n));
      } else if (mtype == MT_SWP_ACK) {
        acksSeen.emplace_back(ld32(m, SWP_OFF_SEQ), ld32(m, SWP_OFF_ACK_KIND));
      } else if (mtype == MT_RTM_UPD_ROUTE) {
        const uint32_t seq = ld32(m, SWP_OFF_SEQ);
        if (seq != expected) {  // a retransmission already taken, or one after a loss
          ack(m, expected - 1);
          continue;
        }
        Update u{ld32(m, RTM_UPD_OFF_CID), m[RTM_UPD_OFF_AFINDEX], {}};
        rtm_route_citer it;
        rtm_route_celem el;
        int rc = rtmRouteIterInit(&it, m, static_cast<size_t>(n));
        while (rc == RTM_WIRE_OK && (rc = rtmRouteIterNext(&it, &el)) == RTM_WIRE_OK)
          u.elems.emplace_back(el.subCmd, ld32(rtpPrefix(el.rtp, it.afIndex), 0));
        updates.push_back(u);
        events.push_back("update " + std::to_string(seq));
        ++expected;
        maxOutstanding = std::max(maxOutstanding, ++outstanding);
        memcpy(last.data(), m, IPC_SWP_HDR_LEN);
        if (outstanding >= ackEvery_) ack(m, seq), outstanding = 0;
      }
    }
  }

  uint32_t cid_, ackEvery_, status_;
  int key_ = -1;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class ProtoClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qorIpcReset();
    qorSwpReset();
    qorLogSetEcho(false);
    ASSERT_EQ(qorIpcSetRunDir(dir.path().c_str()), 0);
  }
  void TearDown() override {
    qorSwpReset();
    qorIpcReset();
    qorLogSetEcho(true);
  }
  static ProtoClient::Options options(uint32_t window = 24, uint32_t size = 48) {
    return {.svce = kClientSvce, .inst = kClientInst, .proto = RTM_PROTO_OSPF, .instance = 5, .name = "ospf-5",
            .window = window, .size = size, .replyWaitMs = 500, .replyRetries = 0};
  }
  static Route route(uint32_t i, const NextHop *nh) {
    Route r{.prefixLen = 32, .pref = 110, .proto = RTM_PROTO_OSPF, .nh = nh, .nnh = 1};
    rtm::st32(r.prefix, 0, 0x0A000000 + i);
    return r;
  }
  rtmtest::TempDir dir;
};

// 1250 routes make 12 full messages of 100 and a partial one; the last 250 are withdrawals.
TEST_F(ProtoClientTest, WindowBoundsWhatIsInFlightRoutesArriveOnceInOrderAndDeregistrationComesLast) {
  FakeRtmd rtmd(9, 3);
  ProtoClient c(options(3, 6));
  ASSERT_EQ(c.open(), 0) << c.lastError();
  ASSERT_EQ(c.registerFamily(RTM_IPV4UNI_AFINDEX), 0) << c.lastError();
  EXPECT_EQ(c.cid(RTM_IPV4UNI_AFINDEX), 9u);
  NextHop nh;
  constexpr uint32_t kRoutes = 1250, kAdds = 1000;
  for (uint32_t i = 0; i < kRoutes; ++i)
    ASSERT_EQ(i < kAdds ? c.add(route(i, &nh)) : c.del(route(i, &nh)), 0) << c.lastError();
  // Without waiting for the last acknowledgement, updates still queued would reach rtmd after
  // the deregistration and be dropped.
  ASSERT_EQ(c.deregister(RTM_IPV4UNI_AFINDEX), 0) << c.lastError();
  EXPECT_FALSE(c.registered(RTM_IPV4UNI_AFINDEX));
  const auto st = c.stats();
  EXPECT_EQ(std::tuple(st.routes, st.messages), std::tuple(uint64_t(kRoutes), uint64_t(13)));
  EXPECT_GE(st.fullWaits, 1u) << "the seventh message found six held and waited";

  std::lock_guard<std::mutex> lk(rtmd.mu);
  ASSERT_EQ(rtmd.regs.size(), 1u);
  const RegRequest &r = rtmd.regs[0];
  // rtmd sends its streams to the endpoint named here; one queue per family, one expected sequence.
  EXPECT_EQ(std::tuple(r.mtype, r.proto, r.instance, r.name, r.svce, r.ipcInst, r.afIndex, r.multiQ),
            std::tuple(MT_RTM_REG_CLIENT, RTM_PROTO_OSPF, 5u, std::string("ospf-5"), kClientSvce, kClientInst,
                       uint8_t(RTM_IPV4UNI_AFINDEX), uint16_t(0)));
  std::vector<std::string> events;
  for (int s = 1; s <= 13; ++s) events.push_back("update " + std::to_string(s));
  events.push_back("dereg 9 0");
  EXPECT_EQ(rtmd.events, events);
  EXPECT_LE(rtmd.maxOutstanding, 3u) << "never more than the window unacknowledged";
  std::vector<std::pair<uint32_t, uint32_t>> elems;
  for (const auto &u : rtmd.updates) {
    EXPECT_EQ(std::tuple(u.cid, u.afIndex), std::tuple(9u, uint8_t(RTM_IPV4UNI_AFINDEX)));
    elems.insert(elems.end(), u.elems.begin(), u.elems.end());
  }
  ASSERT_EQ(elems.size(), kRoutes);
  for (uint32_t i = 0; i < kRoutes; ++i)
    ASSERT_EQ(elems[i], std::pair(i < kAdds ? RTM_UPD_ADD : RTM_UPD_DEL, 0x0A000000 + i)) << i;
}

TEST_F(ProtoClientTest, RtmdsOwnStreamIsAcknowledgedAndDeliveredOnce) {
  FakeRtmd rtmd(4, 1);
  ProtoClient c(options());
  ASSERT_EQ(c.open(), 0) << c.lastError();
  ASSERT_EQ(c.registerFamily(RTM_IPV4UNI_AFINDEX), 0) << c.lastError();
  std::vector<uint32_t> delivered;
  c.setMessageHandler([&](const uint8_t *m, size_t) { delivered.push_back(ld32(m, SWP_OFF_SEQ)); });

  // A redistribution stream from rtmd's request queue: 1, 1 again, 3 (2 was lost), then 2.
  for (uint32_t seq : {1u, 1u, 3u, 2u}) {
    uint8_t m[80] = {};
    st32(m, IPC_OFF_MLEN, sizeof m);
    st32(m, IPC_OFF_MTYPE, MT_RTM_REDIST_ROUTE);
    st32(m, SWP_OFF_QUEUE, 0x4C0007);
    st32(m, SWP_OFF_SEQ, seq);
    ASSERT_TRUE(rtmtest::addressMessage(m, Key_getReqQueue(rtmd.key()), kClientSvce, kClientInst));
    ASSERT_EQ(qorIpcSend(Key_getReqQueue(rtmd.key()), m, sizeof m), 0);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (;;) {
    ASSERT_GE(c.poll(20), 0) << c.lastError();
    std::lock_guard<std::mutex> lk(rtmd.mu);
    if (rtmd.acksSeen.size() >= 4 || std::chrono::steady_clock::now() > deadline) break;
  }
  EXPECT_EQ(delivered, (std::vector<uint32_t>{1, 2}));
  std::lock_guard<std::mutex> lk(rtmd.mu);
  EXPECT_EQ(rtmd.acksSeen, (std::vector<std::pair<uint32_t, uint32_t>>{
                               {1, QOR_SWP_ACK_INORDER}, {1, QOR_SWP_ACK_REPEAT}, {1, QOR_SWP_ACK_GAP}, {2, QOR_SWP_ACK_INORDER}}));
}

TEST_F(ProtoClientTest, FailuresAreToldInWords) {
  NextHop nh;
  {
    ProtoClient c(options());
    ASSERT_EQ(c.open(), 0);
    EXPECT_EQ(c.registerFamily(RTM_IPV4UNI_AFINDEX), -1);
    EXPECT_EQ(c.lastError(), "rtmd is not running in " + dir.path());
    EXPECT_EQ(c.add(route(1, &nh)), -1);
    EXPECT_EQ(c.lastError(), "not registered in IPv4");
    EXPECT_EQ(c.registerFamily(IPV4MUL_AFINDEX), -1);
    EXPECT_EQ(c.lastError(), "a protocol client registers in IPv4 (0) or IPv6 (2), not afIndex 1");

    ProtoClient twin(options());
    EXPECT_EQ(twin.open(), -1);
    EXPECT_EQ(twin.lastError(), "cannot open endpoint 307.2 in " + dir.path() + ": another process holds it");
  }
  FakeRtmd refusing(0, 1, 1);
  ProtoClient c(options());
  ASSERT_EQ(c.open(), 0);
  EXPECT_EQ(c.registerFamily(RTM_IPV6UNI_AFINDEX), -1);
  EXPECT_EQ(c.lastError(), "rtmd refused the IPv6 registration (status 1)");
  EXPECT_FALSE(c.registered(RTM_IPV6UNI_AFINDEX));
}

}  // namespace
