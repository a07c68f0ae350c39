// The frame's rules, driven in-process through the real sockets: the message budget and the
// yield, the order of the two queues, the sequence check of client messages, bulk
// configuration holding the main task, and the renumbering after a version wrap.
#include "tests/unit/rib/rib_test_util.h"

#include <algorithm>
#include <cstdlib>
#include <sys/ioctl.h>
#include <unistd.h>
#include <string>
#include <tuple>

#include "chassis/qor_chassis.h"

using rtm::ld32;
using rtm::st32;

namespace {
constexpr uint32_t kPeerSvce = 901;
std::vector<std::string> g_order;

class Frame : public ribtest::RibTest {
 protected:
  void SetUp() override {
    RibTest::SetUp();
    st.buffer = buffer.data();
    st.budget = rtmQueueReadMax;
    st.last = qorTickGet();
    peer = open(kPeerSvce).key;
    g_order.clear();
  }

  // A plain message of `mtype` from the peer to RTM's request queue.
  void send(uint32_t mtype, uint32_t len = 64, const std::vector<std::pair<size_t, uint32_t>> &words = {}) {
    rtmtest::Msg msg = message(mtype, len);
    for (auto &[off, v] : words) st32(msg.data(), off, v);
    ASSERT_TRUE(rtmtest::addressMessage(msg.data(), Key_getReqQueue(peer), RTM_SVCE, 0));
    ASSERT_EQ(qorIpcSend(Key_getReqQueue(peer), msg.data(), len), 0);
  }
  // The next message the peer received, or an empty vector.
  std::vector<uint8_t> peerRecv() {
    std::vector<uint8_t> b(RTM_IPC_BUF_SIZE);
    int n = qorIpcRecv(Key_getReqQueue(peer), b.data(), b.size(), QOR_IPC_NOWAIT, 0, 0);
    b.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return b;
  }

  // Turns the route download thread has had.
  static uint64_t rteDnTurns() {
    QorThreadStats s{};
    qorThreadGetStats(rtmThreads, rtmThreadRteDn, &s);
    return s.turns;
  }
  // A second of the test's clock, and a pass of the loop at its end.
  void nextSecond() {
    qorClockAdvance(static_cast<uint64_t>(sysClkRateGet()));
    st.wait = 0;  // no real sleep in select: the clock is the test's
    rtmMainLoopPass(st);
  }

  RtmLoopState st;
  int peer = -1;
};

TEST_F(Frame, AHundredAndFiftyMessagesThenOneYieldAndTheBudgetIsReloaded) {
  // Workers woken by the start-up have their turns first, so that the yield below finds none.
  qorThreadRunUntilIdle(rtmThreads);
  // The kernel holds ten datagrams per socket, so the peer feeds them as the loop drains them.
  for (int i = 0; i < 150; ++i) {
    if (i % 8 == 0)
      for (int k = 0; k < 8 && i + k < 150; ++k) send(MT_RTM_IGNORED);
    rtmMainLoopPass(st);
    EXPECT_EQ(rtmLoopStats.yields, i == 149 ? 1u : 0u) << "after message " << i + 1;
  }
  EXPECT_EQ(rtmLoopStats.handled, 150u);
  EXPECT_EQ(st.budget, rtmQueueReadMax);
  // Nobody else was runnable, so the next receive may wait.
  EXPECT_EQ(st.wait, 1);
  send(MT_RTM_IGNORED);
  rtmMainLoopPass(st);
  EXPECT_EQ(st.budget, rtmQueueReadMax - 1);
  EXPECT_EQ(st.wait, 0);
  // An empty receive also reloads the budget and yields.
  rtmMainLoopPass(st);
  EXPECT_EQ(rtmLoopStats.yields, 2u);
  EXPECT_EQ(st.budget, rtmQueueReadMax);
  EXPECT_EQ(qorLogCount(0x148032), 0u);  // 0x07D7 is dropped without a word
}

// The timer queue is looked at first. Requests already taken off the socket are handled
// without a look at the descriptors, but not for long: a timer that expires in the middle of
// a burst waits behind a few of them only.
TEST_F(Frame, TimersGoBeforeRequestsAndWithinAFewRequestsOfABurstAlreadyReceived) {
  rtmFrameSetHandler(MT_CFG_START_BLK_CFG_NOTIF, [](uint8_t *, uint32_t, rt_client *) {
    g_order.push_back("request");
    return 0;
  });
  vx2bsdTimer_t t = vx2bsdTimerCreate();
  auto expire = [t] {
    vx2bsdTimerStart(t, 1, [](void *) { g_order.push_back("timer"); }, nullptr, 0);
    qorClockAdvance(static_cast<uint64_t>(sysClkRateGet()));
  };
  send(MT_CFG_START_BLK_CFG_NOTIF);
  expire();
  EXPECT_EQ(rtmRecvFromAllQ(buffer.data(), 0), 0);
  EXPECT_EQ(g_order, (std::vector<std::string>{"timer", "request"}));
  EXPECT_EQ(std::tuple(rtmtmrqcnt, rtmreqqcnt), std::tuple(1u, 1u));

  g_order.clear();
  constexpr int kBurst = 9;  // fewer than the kernel keeps for one socket
  for (int i = 0; i < kBurst; ++i) send(MT_CFG_START_BLK_CFG_NOTIF);
  ASSERT_EQ(rtmRecvFromAllQ(buffer.data(), 0), 0);  // takes the burst off the socket
  ASSERT_GT(qorIpcInHand(rtmReqQfd), 4);
  expire();
  for (int i = 1; i < kBurst; ++i) ASSERT_EQ(rtmRecvFromAllQ(buffer.data(), 0), 0);
  auto timer = std::find(g_order.begin(), g_order.end(), "timer");
  ASSERT_NE(timer, g_order.end()) << "the timer waited for the whole burst";
  EXPECT_LE(timer - g_order.begin(), 1 + 4);
  EXPECT_EQ(std::count(g_order.begin(), g_order.end(), "request"), kBurst);
  vx2bsdTimerDelete(t);
}

TEST_F(Frame, SequenceCheckOfClientMessages) {
  static int handled;
  rtmFrameSetHandler(MT_RTM_UPD_ROUTE, [](uint8_t *, uint32_t, rt_client *) { return ++handled, 0; });
  struct Case {
    const char *what;
    uint32_t cid, expected, seq;
    bool runs;
    int acked;  // 1 yes, 0 no, -1 either (a gap may be answered with the last good sequence)
    size_t events148033, events148019;
  } cases[] = {
      {"expected sequence", 5, 1, 1, true, 1, 0, 0},
      {"repeat is acknowledged again, silently", 5, 5, 3, false, 1, 0, 0},
      {"gap at expected 8 is silent", 5, 8, 11, false, -1, 0, 0},
      {"gap at expected 9 is logged", 5, 9, 12, false, -1, 1, 0},
      {"unknown client is neither handled nor acknowledged", 6, 1, 1, false, 0, 0, 1},
  };
  rt_client &rtc = *client(5, RTM_PROTO_OSPF);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    handled = 0;
    qorLogClearRecent();
    rtc.rtc_expSeq[1] = c.expected;
    send(MT_RTM_UPD_ROUTE, 152, {{SWP_OFF_QUEUE, 77}, {SWP_OFF_SEQ, c.seq}, {140, c.cid}});
    ASSERT_EQ(rtmRecvFromAllQ(buffer.data(), 0), 0);
    EXPECT_EQ(handled, c.runs ? 1 : 0);
    EXPECT_EQ(rtc.rtc_expSeq[1], c.runs ? c.expected + 1 : c.expected);
    std::vector<uint8_t> ack = peerRecv();
    bool isAck = !ack.empty() && ld32(ack.data(), IPC_OFF_MTYPE) == MT_SWP_ACK;
    if (c.acked >= 0) {
      EXPECT_EQ(isAck, c.acked == 1);
    }
    if (isAck && c.acked == 1) {
      EXPECT_EQ(ld32(ack.data(), SWP_OFF_QUEUE), 77u);
      EXPECT_EQ(ld32(ack.data(), SWP_OFF_ACK_WORD), 0u);  // the family, put in place of the type
    }
    EXPECT_EQ(qorLogCount(0x148033), c.events148033);
    EXPECT_EQ(qorLogCount(0x148019), c.events148019);
  }
}

TEST_F(Frame, WaitingMessagesAreHandledWithoutAWorkerTurnUntilTheBudgetEnds) {
  qorThreadRunUntilIdle(rtmThreads);
  const uint64_t turns = rteDnTurns();
  qorThreadResume(rtmThreads, rtmThreadRteDn);
  st.wait = 0;
  for (int i = 0; i < 3; ++i) send(MT_RTM_IGNORED);
  for (int i = 0; i < 3; ++i) rtmMainLoopPass(st);
  EXPECT_EQ(rteDnTurns(), turns);
  EXPECT_EQ(rtmLoopStats.handled, 3u);
  rtmMainLoopPass(st);  // nothing waits: the stretch of the empty look gives the worker its turn
  EXPECT_GT(rteDnTurns(), turns);
}

TEST_F(Frame, BulkConfigurationHoldsTheMainTaskButWorkersStillRun) {
  qorThreadRunUntilIdle(rtmThreads);  // the download thread is then the only one to run
  send(MT_CFG_START_BLK_CFG_NOTIF);
  rtmMainLoopPass(st);
  ASSERT_EQ(rtmCfgDnldInProg, 1u);
  const uint64_t yields = rtmLoopStats.yields, turns = rteDnTurns();
  qorThreadResume(rtmThreads, rtmThreadRteDn);
  send(MT_RTM_IGNORED);
  rtmMainLoopPass(st);  // handles the message; the worker runs while the main task polls
  rtmMainLoopPass(st);  // nothing more: the budget reloads, but no yield
  EXPECT_EQ(rtmLoopStats.yields, yields);
  EXPECT_EQ(st.wait, 1);
  EXPECT_EQ(st.budget, rtmQueueReadMax);
  EXPECT_GT(rteDnTurns(), turns);
  send(MT_CFG_END_BLK_CFG_NOTIF);
  rtmMainLoopPass(st);
  rtmMainLoopPass(st);
  EXPECT_EQ(rtmCfgDnldInProg, 0u);
  EXPECT_EQ(rtmLoopStats.yields, yields + 1);
}

TEST_F(Frame, UnansweredRegistrationsAreRetriedOnceASecondAndBrmAlways) {
  rtmIfmRegState = 0;
  uint64_t brm = rtmLoopStats.brmCalls;
  st.last = qorTickGet();
  st.wait = 0;
  rtmMainLoopPass(st);
  EXPECT_EQ(rtmLoopStats.regRetries, 0u);  // not a whole second yet
  for (int s = 1; s <= 3; ++s) nextSecond();
  EXPECT_EQ(rtmLoopStats.regRetries, 3u);
  rtmIfmRegState = 1;
  for (int s = 1; s <= 2; ++s) nextSecond();
  EXPECT_EQ(rtmLoopStats.regRetries, 3u);
  // The platform shim's registration is never confirmed, so it is called every second.
  EXPECT_EQ(rtmLoopStats.brmCalls - brm, 5u);
}

TEST_F(Frame, ChassisRegistrationThatFailedIsRetriedUntilItSucceeds) {
  rtmChmRegState = 0;
  qorChassisModel().chmRegisterFailures = 4;  // one attempt a second: the fifth succeeds
  int calls = qorChassisModel().chmRegisterCalls;
  for (int s = 1; s <= 8 && rtmChmRegState == 0; ++s) nextSecond();
  EXPECT_EQ(rtmChmRegState, 1u);
  EXPECT_EQ(qorChassisModel().chmRegisterCalls - calls, 5);
  qorChassisReset();
}

// ---- RIB table sets and versions ---------------------------------------------------------

rt_head *newHead(uint8_t af, uint8_t first, uint8_t plen) {
  auto *h = static_cast<rt_head *>(calloc(1, rtmHeadSize(af)));
  const uint8_t prefix[16] = {first};
  rtmHeadInit(h, af, prefix, plen);
  return h;
}

int countChanges(qor_radix_tree *tree) {
  qor_radical_walker w{};
  qorRadicalWalkConstructor(tree, &w);
  int n = qorRadicalWalkChangeList(tree, &w, [](qor_radix_hdr *, void *) { return 0; }, 1000, nullptr);
  qorRadicalWalkDestructor(tree, &w);
  return n;
}

TEST_F(Frame, VersionWrapRestartsClientsAndTreeAndListsEveryHeadAgain) {
  qor_radix_tree *tree = rtmRibGetTree(RTM_IPV4UNI_AFINDEX, 0);
  ASSERT_NE(tree, nullptr);
  rtClientVrfInfo *info = client(3, RTM_PROTO_OSPF)->rtc_vrf[0];
  tree->rdx_maxVersion = 3;
  std::vector<rt_head *> heads;
  for (uint8_t i = 1; i <= 3; ++i) {
    heads.push_back(newHead(0, static_cast<uint8_t>(10 * i), 8));
    ASSERT_NE(qorRadixInsert(tree, &heads.back()->rtmh_rdx, 8), nullptr);
    EXPECT_EQ(updateRibVer(0, 0, tree, heads.back()), 1);
  }
  info->rvi_version = 3;
  rtmTicUpdate[0][0] = 0;
  EXPECT_EQ(tree->rdx_version, 3u);
  updateRibVer(0, 0, tree, heads[0]);  // the fourth version does not exist
  EXPECT_EQ(info->rvi_version, 0u);
  EXPECT_EQ(countChanges(tree), 3);  // every head, once
  EXPECT_EQ(rtmTicUpdate[0][0], 1u);
  for (rt_head *h : heads) {
    qorRadixRemove(tree, &h->rtmh_rdx);
    free(h);
  }
}

TEST_F(Frame, TableSetLifecycle) {
  struct Case {
    const char *what;
    uint32_t vrf;
    int result;
    uint32_t event;
  };
  ASSERT_EQ(rtmRibRtInetAllocate(7), 0);
  Case cases[] = {
      {"first create", 7, 0, 0},
      {"second create of a VRF in use", 7, 1, 0x148043},
      {"create above the last VRF", 513, 1, 0x14803F},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    qorLogClearRecent();
    EXPECT_EQ(rtmRibCreate(c.vrf, "inet.7", "inet.7c", "inet.7p", "inet.7g", "inet.7m", "inet.7s"), c.result);
    if (c.event) {
      EXPECT_EQ(qorLogCount(c.event), 1u);
    }
  }
  EXPECT_NE(rtmConRibGetTree(2, 7), nullptr);
  EXPECT_EQ(rtmPollRibGetTree(3, 7), nullptr);
  EXPECT_STREQ(rt_inet_tbl[0]->mainName[0], "inet.0");
  EXPECT_STREQ(rt_inet_tbl[0]->gbcName[2], "inet.0g");
  qorLogClearRecent();
  EXPECT_EQ(rtmRibDelete(0), 1);  // the default VRF stays
  EXPECT_EQ(qorLogCount(0x14803F), 1u);
  EXPECT_EQ(rtmRibDelete(7), 0);
  EXPECT_EQ(rtmRibGetTree(0, 7), nullptr);  // a deleted VRF does not exist for callers
  EXPECT_TRUE(qorLogSaw("rib (7) not in use"));
}

// ---- Send paths and the TIC pipe ---------------------------------------------------------

TEST_F(Frame, SendToAnEndpointThatDoesNotExistFailsWithoutALogLine) {
  uint8_t msg[64] = {};
  qorLogClearRecent();
  EXPECT_EQ(rtmSendMessage(0x3216, msg, sizeof msg, qor_getQueueId(4242, 0, 1), 4242, 0), 1);
  EXPECT_TRUE(qorLogRecent().empty());
  EXPECT_EQ(rtmSendIpc(0x3216, 4242, 0), -1);
  // To a live endpoint the header names us as the source, so the answer finds its way back.
  ASSERT_EQ(rtmSendMessage(0x3216, msg, sizeof msg, qor_getQueueId(kPeerSvce, 0, 1), kPeerSvce, 0), 0);
  std::vector<uint8_t> got = peerRecv();
  ASSERT_EQ(got.size(), sizeof msg);
  EXPECT_EQ(ld32(got.data(), IPC_OFF_MTYPE), 0x3216u);
  EXPECT_EQ(ld32(got.data(), IPC_OFF_SRC_SVCE), qor_getQueueId(RTM_SVCE, 0, 1));
  ASSERT_EQ(rtm_notify_bgp_convergence(0x3528, kPeerSvce, 0, 77), 0);
  got = peerRecv();
  ASSERT_EQ(got.size(), 64u);
  EXPECT_EQ(ld32(got.data(), IPC_HDR_LEN), 77u);
}

TEST_F(Frame, TicPipeDropsWakeUpsWhenNearlyFullAndReopensAnExistingPipe) {
  int fd = rtmTicCreatePipe("/qor/pipe/rtmticpipe");
  ASSERT_GE(fd, 0);
  int again = rtmTicCreatePipe("/qor/pipe/rtmticpipe");  // the name exists already
  ASSERT_GE(again, 0);
  for (int i = 0; i < 40; ++i) rtmTicWritePipe(fd, static_cast<uint32_t>(i));
  int waiting = 0;
  ASSERT_EQ(ioctl(fd, FIONREAD, &waiting), 0);
  EXPECT_EQ(waiting, 92);  // 23 words: the 23rd went in at 88 bytes, none after 91
  EXPECT_EQ(rtmTicProcessPipe(fd), 0);
  ASSERT_EQ(ioctl(fd, FIONREAD, &waiting), 0);
  EXPECT_EQ(waiting, 88);
  close(fd);
  close(again);
}
}  // namespace
