#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <vector>
#include <tuple>

#include "../ipc/ipc_test_util.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "rtm/rtm_msgs.h"
#include "swp/qor_swp.h"
#include "timer/qor_timer.h"

using ipctest::RunDir;
using rtm::ld32;
using rtm::st32;

namespace {

constexpr uint32_t kSenderSvce = 76, kPeerSvce = 300;
constexpr size_t kOffTag = 68;  // the test payload: a tag word after the SWP header

std::map<uint32_t, int> g_freed;  // released messages by tag: each must appear once
std::vector<std::pair<uint32_t, uint32_t>> g_failures;

void recordFree(void *m) {
  g_freed[ld32(m, kOffTag)]++;
  free(m);
}
void recordFailure(uint32_t q, uint32_t err) { g_failures.emplace_back(q, err); }

// An 80-byte message for a queue to own, tagged in its payload.
uint8_t *newMsg(uint32_t tag) {
  auto *m = static_cast<uint8_t *>(calloc(1, 80));
  st32(m, IPC_OFF_MTYPE, 0x3204);
  st32(m, kOffTag, tag);
  return m;
}

class SwpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qorLogReset();
    qorLogSetEcho(false);
    qorClockUseManual(true);
    g_freed.clear();
    g_failures.clear();
    sender = qorIpcOpen(kSenderSvce, 0);
    ASSERT_GT(sender, 0);
    senderQ = Key_getReqQueue(sender);
    peerQ = Key_getReqQueue(qorIpcOpen(kPeerSvce, 0));
  }
  void TearDown() override {
    qorSwpReset();
    qorClockUseManual(false);
  }

  uint32_t makeQueue(uint32_t window, uint32_t size, uint32_t rto = 10, uint32_t retries = 3) {
    uint32_t q = 0;
    EXPECT_EQ(qorSwpQueueCreate_p(1, 0, window, size, kSenderSvce, 0, sender, kPeerSvce, 0, rto, retries, 0,
                                  recordFree, recordFailure, &q, -1),
              0);
    return q;
  }
  void enqueue(uint32_t q, uint32_t from, uint32_t to) {
    for (uint32_t t = from; t <= to; ++t) ASSERT_EQ(qorSwpEnqueue(q, newMsg(t), 80), 0);
  }

  // Everything waiting on queue `q`, in arrival order.
  static std::vector<std::vector<uint8_t>> inbox(int q) {
    std::vector<std::vector<uint8_t>> out;
    std::vector<uint8_t> buf(RTM_IPC_BUF_SIZE);
    for (int n; (n = qorIpcRecv(q, buf.data(), RTM_IPC_BUF_SIZE, QOR_IPC_NOWAIT, 0, 0)) > 0;)
      out.emplace_back(buf.begin(), buf.begin() + n);
    return out;
  }
  std::vector<std::vector<uint8_t>> peerInbox() { return inbox(peerQ); }
  // The peer applies what arrives in order, as a receiver must, and acknowledges.
  std::vector<uint32_t> peerApply(uint32_t &expected) {
    std::vector<uint32_t> applied;
    for (auto &m : peerInbox())
      if (qorSwpCkSeqAndAck(m.data(), &expected, peerQ) == QOR_SWP_SEQ_OK)
        applied.push_back(ld32(m.data(), kOffTag));
    return applied;
  }
  // Hands every ack waiting at the sender to the queue layer.
  int pumpAcks() {
    const auto acks = inbox(senderQ);
    for (auto &a : acks) {
      void *ret = reinterpret_cast<void *>(1);
      qorSwpDequeue(a.data(), &ret);
      EXPECT_EQ(ret, nullptr);
    }
    return static_cast<int>(acks.size());
  }
  void advanceAndRun(uint32_t ticks) {
    qorClockAdvance(ticks);
    qorSwpRunTimers();
  }
  QorSwpCtrlBlock ctrl(uint32_t q) {
    QorSwpCtrlBlock cb{};
    EXPECT_EQ(qorSwpGetQueueCtrlBlock(q, &cb), 0);
    return cb;
  }

  RunDir dir;
  int sender = 0, senderQ = 0, peerQ = 0;
};

TEST_F(SwpTest, WindowAndSizeLimitAndEachAckedMessageIsReleasedOnce) {
  uint32_t q = makeQueue(3, 5);
  enqueue(q, 1, 5);
  uint8_t *extra = newMsg(6);
  EXPECT_EQ(qorSwpEnqueue(q, extra, 80), QOR_SWP_EFULL);  // the caller keeps it
  free(extra);
  EXPECT_EQ(qorSwpQueueGetLen(q), 5);

  auto first = peerInbox();
  ASSERT_EQ(first.size(), 3u);  // the window
  for (uint32_t i = 0; i < 3; ++i) {
    const uint8_t *m = first[i].data();
    EXPECT_EQ(std::tuple(qorSwpGetSeqNo(m), qorSwpGetQueue(m), ld32(m, IPC_OFF_MLEN), ld32(m, IPC_OFF_SRC_SVCE),
                         ld32(m, IPC_OFF_TGT_SVCE)),
              std::tuple(i + 1, q, 80u, qor_getQueueId(kSenderSvce, 0, QOR_IPC_QUEUE_REQ),
                         qor_getQueueId(kPeerSvce, 0, QOR_IPC_QUEUE_REQ)));
  }
  uint32_t expected = 1;
  ASSERT_EQ(qorSwpCkSeqAndAck(first[0].data(), &expected, peerQ), 0);
  ASSERT_EQ(qorSwpCkSeqAndAck(first[1].data(), &expected, peerQ), 0);
  EXPECT_EQ(pumpAcks(), 2);
  EXPECT_EQ(g_freed, (std::map<uint32_t, int>{{1, 1}, {2, 1}}));
  auto second = peerInbox();  // two more fit the window now
  ASSERT_EQ(second.size(), 2u);
  EXPECT_EQ(qorSwpGetSeqNo(second[1].data()), 5u);

  // One cumulative ack for 5 releases 3, 4 and 5; the same ack again releases nothing.
  expected = 5;
  ASSERT_EQ(qorSwpCkSeqAndAck(second[1].data(), &expected, peerQ), 0);
  uint8_t ack[256];
  ASSERT_EQ(qorIpcRecv(senderQ, ack, sizeof ack, QOR_IPC_NOWAIT, 0, 0), int(QOR_SWP_ACK_LEN));
  void *ret;
  EXPECT_EQ(qorSwpDequeue(ack, &ret), 0);
  EXPECT_EQ(qorSwpDequeue(ack, &ret), 0);
  EXPECT_EQ(g_freed.size(), 5u);
  for (auto &[tag, n] : g_freed) EXPECT_EQ(n, 1) << tag;
  EXPECT_EQ(ctrl(q).ackedSeq, 5u);

  // An ack for a sequence never sent is refused and releases nothing.
  enqueue(q, 7, 7);
  st32(ack, SWP_OFF_SEQ, 9);
  EXPECT_EQ(qorSwpDequeue(ack, &ret), -1);
  EXPECT_EQ(qorSwpQueueGetLen(q), 1);
}

TEST_F(SwpTest, FlushStartsOverAndRemoveForgetsFreeingEveryHeldMessage) {
  uint32_t q = makeQueue(2, 10);
  enqueue(q, 1, 4);
  ASSERT_EQ(qorSwpQueueFlush(q), 0);
  EXPECT_EQ(g_freed.size(), 4u);
  EXPECT_EQ(qorSwpQueueGetLen(q), 0);
  peerInbox();
  enqueue(q, 10, 11);
  auto in = peerInbox();
  ASSERT_EQ(in.size(), 2u);
  EXPECT_EQ(qorSwpGetSeqNo(in[0].data()), 1u);

  ASSERT_EQ(qorSwpQueueRemove(q), 0);
  EXPECT_EQ(g_freed.size(), 6u);
  for (auto &[tag, n] : g_freed) EXPECT_EQ(n, 1) << tag;
  EXPECT_EQ(qorSwpQueueGetLen(q), -1);
  EXPECT_EQ(qorSwpGetQueueStatus(q), QOR_SWP_STATUS_FAILED);
  EXPECT_EQ(qorSwpEnqueue(q, in[0].data(), 80), QOR_SWP_ENOQUEUE);
  EXPECT_EQ(qorSwpQueueRemove(q), QOR_SWP_ENOQUEUE);
}

TEST_F(SwpTest, ReceiverCheckAcksInOrderRepeatsAndGaps) {
  auto msg = ipctest::makeMsg(80, 2 /* the afIndex a daemon writes over mtype */, kPeerSvce, 0, 0x55);
  ipctest::setSource(msg, sender);
  st32(msg.data(), SWP_OFF_QUEUE, 0x1234);
  struct Step {
    uint32_t seq;
    int rc;
    uint32_t ackSeq, kind, expectedAfter;
  } steps[] = {
      {1, QOR_SWP_SEQ_OK, 1, QOR_SWP_ACK_INORDER, 2},   {1, QOR_SWP_SEQ_REPEAT, 1, QOR_SWP_ACK_REPEAT, 2},
      {3, QOR_SWP_SEQ_GAP, 1, QOR_SWP_ACK_GAP, 2},      {2, QOR_SWP_SEQ_OK, 2, QOR_SWP_ACK_INORDER, 3},
      {3, QOR_SWP_SEQ_OK, 3, QOR_SWP_ACK_INORDER, 4},   {2, QOR_SWP_SEQ_REPEAT, 3, QOR_SWP_ACK_REPEAT, 4},
  };
  uint32_t expected = 0;  // a fresh client record counts as 1
  for (const Step &s : steps) {
    SCOPED_TRACE(testing::Message() << "seq " << s.seq);
    st32(msg.data(), SWP_OFF_SEQ, s.seq);
    EXPECT_EQ(qorSwpCkSeqAndAck(msg.data(), &expected, peerQ), s.rc);
    EXPECT_EQ(expected, s.expectedAfter);
    uint8_t ack[256];
    ASSERT_EQ(qorIpcRecv(senderQ, ack, sizeof ack, QOR_IPC_NOWAIT, 0, 0), int(QOR_SWP_ACK_LEN));
    EXPECT_EQ(std::tuple(ld32(ack, IPC_OFF_MLEN), ld32(ack, IPC_OFF_MTYPE), ld32(ack, IPC_OFF_TRANSCODE),
                         ld32(ack, IPC_OFF_SRC_SVCE), ld32(ack, SWP_OFF_QUEUE), ld32(ack, SWP_OFF_SEQ),
                         ld32(ack, SWP_OFF_ACK_WORD), ld32(ack, SWP_OFF_ACK_KIND)),
              std::tuple(QOR_SWP_ACK_LEN, MT_SWP_ACK, 0x55u, qor_getQueueId(kPeerSvce, 0, QOR_IPC_QUEUE_REQ), 0x1234u,
                         s.ackSeq, 2u, s.kind));
  }
}

// Held acks: what reaches the sender after each step, as (queue, sequence, kind) in order.
TEST_F(SwpTest, HeldAcksGoOutLatestPerQueueAndAheadOfAnyOtherAck) {
  auto msg = ipctest::makeMsg(80, 0, kPeerSvce, 0, 0);
  ipctest::setSource(msg, sender);
  using Ack = std::tuple<uint32_t, uint32_t, uint32_t>;
  enum Op { kMsg, kFlush, kHoldOff };
  struct Step {
    Op op;
    uint32_t queue, seq;
    std::vector<Ack> out;
  };
  const uint32_t in = QOR_SWP_ACK_INORDER, rep = QOR_SWP_ACK_REPEAT, gap = QOR_SWP_ACK_GAP;
  const std::vector<Step> steps = {
      {kMsg, 1, 1, {}},  // kept
      {kMsg, 1, 2, {}},  // replaces the first
      {kMsg, 2, 1, {}},  // another sender queue, kept beside it
      {kFlush, 0, 0, {{1, 2, in}, {2, 1, in}}},
      {kFlush, 0, 0, {}},
      {kMsg, 1, 3, {}},
      {kMsg, 1, 3, {{1, 3, in}, {1, 3, rep}}},  // a repeat: the kept ack goes first
      {kMsg, 2, 5, {{2, 1, gap}}},              // a gap: nothing kept for queue 2, sent at once
      {kMsg, 1, 4, {}}, {kMsg, 1, 5, {}}, {kMsg, 1, 6, {}}, {kMsg, 1, 7, {}}, {kMsg, 1, 8, {}},
      {kMsg, 1, 9, {}}, {kMsg, 1, 10, {}},
      {kMsg, 1, 11, {{1, 11, in}}},  // the eighth kept for the queue: out without a flush
      {kMsg, 1, 12, {}},
      {kHoldOff, 0, 0, {{1, 12, in}}},
      {kMsg, 1, 13, {{1, 13, in}}},  // holding off: each ack at once
  };
  uint32_t expected[3] = {0, 0, 0};
  qorSwpAckHold(true);
  for (size_t i = 0; i < steps.size(); ++i) {
    const Step &s = steps[i];
    SCOPED_TRACE(testing::Message() << "step " << i);
    if (s.op == kMsg) {
      st32(msg.data(), SWP_OFF_QUEUE, s.queue);
      st32(msg.data(), SWP_OFF_SEQ, s.seq);
      qorSwpCkSeqAndAck(msg.data(), &expected[s.queue], peerQ);
    } else if (s.op == kFlush) {
      qorSwpAckFlush();
    } else {
      qorSwpAckHold(false);
    }
    std::vector<Ack> got;
    for (auto &a : inbox(senderQ))
      got.emplace_back(ld32(a.data(), SWP_OFF_QUEUE), ld32(a.data(), SWP_OFF_SEQ), ld32(a.data(), SWP_OFF_ACK_KIND));
    EXPECT_EQ(got, s.out);
  }
}

// A daemon acking a sender whose socket is full (it is not reading) must neither stall nor
// lose the acks: the latest ack per queue is kept and goes out at the first chance once there
// is room, as the sender would otherwise wait for its time-out. Here the receiver acks four
// messages of two queues into a full socket, the sender reads, and one of the ways out is taken.
TEST_F(SwpTest, AcksAFullSenderTurnsBackAreKeptLatestPerQueueAndSentOnceThereIsRoom) {
  using Ack = std::pair<uint32_t, uint32_t>;  // queue, sequence
  enum Way { kTimerRound, kFlush, kNextAck, kNoRoomYet };
  const struct {
    Way way;
    std::vector<Ack> out;  // sorted; one queue's acks leave in order
  } cases[] = {
      {kTimerRound, {{1, 3}, {2, 1}}},
      {kFlush, {{1, 3}, {2, 1}}},
      {kNextAck, {{1, 3}, {1, 4}}},  // only its own queue's: queue 2's waits for its chance
      {kNoRoomYet, {}},              // turned back again, and still kept
  };
  auto acksAtSender = [this] {
    std::vector<Ack> got;
    for (auto &a : inbox(senderQ))
      if (ld32(a.data(), IPC_OFF_MTYPE) == MT_SWP_ACK) got.emplace_back(ld32(a.data(), SWP_OFF_QUEUE), ld32(a.data(), SWP_OFF_SEQ));
    std::stable_sort(got.begin(), got.end(), [](const Ack &a, const Ack &b) { return a.first < b.first; });
    return got;
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "way " << c.way);
    qorSwpAckNoWait(true);
    const int filler = Key_getReqQueue(qorIpcOpen(kPeerSvce + 1 + c.way, 0));
    auto junk = ipctest::makeMsg(IPC_HDR_LEN, 0x3204, kSenderSvce, 0);
    int stuffed = 0;
    while (qorIpcSendNoWait(filler, junk.data(), IPC_HDR_LEN) == 0) ++stuffed;
    ASSERT_GT(stuffed, 0);
    auto msg = ipctest::makeMsg(80, 0, kPeerSvce, 0, 0);
    ipctest::setSource(msg, sender);
    uint32_t expected[3] = {0, 0, 0};
    auto receive = [&](uint32_t queue, uint32_t seq) {
      st32(msg.data(), SWP_OFF_QUEUE, queue);
      st32(msg.data(), SWP_OFF_SEQ, seq);
      ASSERT_EQ(qorSwpCkSeqAndAck(msg.data(), &expected[queue], peerQ), QOR_SWP_SEQ_OK);
    };
    for (auto [queue, seq] : {Ack{1, 1}, {1, 2}, {2, 1}, {1, 3}}) receive(queue, seq);
    if (c.way != kNoRoomYet) {
      ASSERT_EQ(inbox(senderQ).size(), size_t(stuffed));  // no ack among them
    }
    if (c.way == kTimerRound) qorSwpRunTimers();
    if (c.way == kFlush || c.way == kNoRoomYet) qorSwpAckFlush();
    if (c.way == kNextAck) receive(1, 4);
    EXPECT_EQ(acksAtSender(), c.out);
    if (c.way == kNoRoomYet) {
      qorSwpRunTimers();
      EXPECT_EQ(acksAtSender(), (std::vector<Ack>{{1, 3}, {2, 1}}));
    }
    qorSwpReset();
    inbox(senderQ);
  }
}

TEST_F(SwpTest, MessagesShorterThanTheSwpHeaderAreRefused) {
  auto msg = ipctest::makeMsg(80, MT_SWP_ACK, kPeerSvce, 0);
  st32(msg.data(), IPC_OFF_MLEN, 67);
  uint32_t expected = 1, list = 0;
  ASSERT_EQ(qorSwpQListCreateExpSeqList(&list, 2), 0);
  void *ret;
  EXPECT_EQ(qorSwpCkSeqAndAck(msg.data(), &expected, peerQ), -1);
  EXPECT_EQ(qorSwpQListCkSeqAndAck(msg.data(), list, peerQ), -1);
  EXPECT_EQ(qorSwpDequeue(msg.data(), &ret), -1);
  EXPECT_EQ(expected, 1u);
  EXPECT_TRUE(qorLogSaw("shorter than its header"));
  EXPECT_EQ(qorIpcGetNumMsgs(senderQ), 0);  // nothing acknowledged

  uint32_t q = makeQueue(2, 2);
  EXPECT_EQ(qorSwpEnqueue(q, msg.data(), 67), QOR_SWP_EPARAM);
  EXPECT_EQ(qorSwpEnqueue(q, msg.data(), RTM_IPC_BUF_SIZE + 1), QOR_SWP_EPARAM);
  EXPECT_EQ(qorSwpQueueCreate_p(1, 0, 2, 5, 76, 0, 999, kPeerSvce, 0, 0, 0, 0, recordFree,
                                recordFailure, &q, -1),
            QOR_SWP_EPARAM);  // no such key
}

TEST_F(SwpTest, ExpectedSequenceListKeepsOneSequencePerSenderQueue) {
  uint32_t list = 0;
  ASSERT_EQ(qorSwpQListCreateExpSeqList(&list, 2), 0);
  auto msg = ipctest::makeMsg(80, 0, kPeerSvce, 0);
  ipctest::setSource(msg, sender);
  struct Step {
    uint32_t queue, seq;
    int rc;
  } steps[] = {
      {0xA, 1, QOR_SWP_SEQ_OK},     {0xB, 1, QOR_SWP_SEQ_OK},  {0xA, 2, QOR_SWP_SEQ_OK},
      {0xB, 3, QOR_SWP_SEQ_GAP},    {0xB, 2, QOR_SWP_SEQ_OK},  {0xA, 2, QOR_SWP_SEQ_REPEAT},
      // Both slots taken: an unknown queue mid-stream cannot be judged...
      {0xC, 4, QOR_SWP_SEQ_NOSLOT},
      // ...but one starting at 1 displaces 0xB, heard from least recently,
      {0xC, 1, QOR_SWP_SEQ_OK},
      // which has lost its place, while 0xA goes on where it was.
      {0xB, 3, QOR_SWP_SEQ_NOSLOT}, {0xC, 2, QOR_SWP_SEQ_OK},  {0xA, 3, QOR_SWP_SEQ_OK},
  };
  for (const Step &s : steps) {
    st32(msg.data(), SWP_OFF_QUEUE, s.queue);
    st32(msg.data(), SWP_OFF_SEQ, s.seq);
    EXPECT_EQ(qorSwpQListCkSeqAndAck(msg.data(), list, peerQ), s.rc)
        << std::hex << s.queue << " seq " << std::dec << s.seq;
  }
  EXPECT_EQ(qorSwpQListRemoveExpSeqList(list), 0);
  EXPECT_EQ(qorSwpQListCkSeqAndAck(msg.data(), list, peerQ), QOR_SWP_SEQ_NOLIST);
}

TEST_F(SwpTest, GapAckResendsAtOnceWithoutWaitingForTheTimeOut) {
  uint32_t q = makeQueue(4, 10, /*rto=*/1000);
  enqueue(q, 1, 4);
  auto in = peerInbox();
  uint32_t expected = 1;
  std::vector<uint32_t> applied;
  for (int i : {0, 2, 3})  // message 2 is lost: 3 and 4 reveal the gap
    if (qorSwpCkSeqAndAck(in[i].data(), &expected, peerQ) == 0) applied.push_back(ld32(in[i].data(), kOffTag));
  pumpAcks();
  for (uint32_t t : peerApply(expected)) applied.push_back(t);
  pumpAcks();
  EXPECT_EQ(applied, (std::vector<uint32_t>{1, 2, 3, 4}));
  EXPECT_EQ(qorSwpQueueGetLen(q), 0);
  EXPECT_EQ(ctrl(q).retransmitted, 3u);  // one round, not one per gap ack
}

TEST_F(SwpTest, ErrorCallbackRunsOnceWhenRetransmissionsRunOut) {
  uint32_t q = makeQueue(2, 10, /*rto=*/10, /*retries=*/3);
  enqueue(q, 1, 3);
  // Rounds come after 10, 20 and 40 ticks (the back-off doubles up to four times the first);
  // the fourth would be the fourth retry: the queue fails instead.
  for (uint32_t wait : {10u, 20u, 40u}) {
    advanceAndRun(wait - 1);
    uint64_t before = ctrl(q).retransmitted;
    advanceAndRun(1);
    EXPECT_EQ(ctrl(q).retransmitted, before + 2) << "round after " << wait;
  }
  EXPECT_TRUE(g_failures.empty());
  advanceAndRun(40);
  ASSERT_EQ(g_failures.size(), 1u);
  EXPECT_EQ(g_failures[0], std::make_pair(q, QOR_SWP_ERR_PEER));
  EXPECT_EQ(qorSwpGetQueueStatus(q), QOR_SWP_STATUS_FAILED);
  EXPECT_EQ(qorSwpGetErr(q), QOR_SWP_ERR_PEER);
  uint8_t *late = newMsg(9);
  EXPECT_EQ(qorSwpEnqueue(q, late, 80), QOR_SWP_EFAILED);
  free(late);
  advanceAndRun(1000);
  EXPECT_EQ(g_failures.size(), 1u);  // once only
  EXPECT_TRUE(g_freed.empty());      // the queue still owns its messages
  ASSERT_EQ(qorSwpQueueFlush(q), 0);
  EXPECT_EQ(g_freed.size(), 3u);
  EXPECT_EQ(qorSwpGetQueueStatus(q), QOR_SWP_STATUS_ACTIVE);
}

TEST_F(SwpTest, MultiWindowGrowsWithCleanAcksAndFallsBackOnARetransmission) {
  uint32_t q = 0;
  ASSERT_EQ(qorMwpQueueCreate_p(1, 0, 2, 100, kSenderSvce, 0, sender, kPeerSvce, 0, 10, 3, 0,
                                recordFree, recordFailure, &q, 1, 3, -1),
            0);
  enqueue(q, 1, 40);
  uint32_t expected = 1;
  std::vector<size_t> bursts;
  for (int round = 0; round < 4; ++round) {
    bursts.push_back(peerApply(expected).size());
    pumpAcks();
  }
  // 2 in flight, then 4 once a whole window was acked cleanly, then 6 at most.
  EXPECT_EQ(bursts, (std::vector<size_t>{2, 4, 6, 6}));
  EXPECT_EQ(ctrl(q).mult, 3u);
  peerInbox();  // lost
  advanceAndRun(10);
  EXPECT_EQ(ctrl(q).mult, 1u);
}

// More in the window than a kernel keeps for one socket: part of the burst is turned back and
// must follow in order, each exactly once, without a retransmission. Once the peer's socket has
// turned a message back, a new message does not try it again, even when the peer has made room
// meanwhile: what tells the sender is the peer's ack, or the timer round should none come.
TEST_F(SwpTest, MessagesAFullPeerTurnsBackWaitForTheAckOrTheTimerRoundAndGoOutInOrder) {
  constexpr uint32_t kBurst = 600;
  for (bool byAck : {true, false}) {
    SCOPED_TRACE(byAck ? "released by the ack" : "released by the timer round");
    uint32_t q = makeQueue(kBurst + 1, kBurst + 1, /*rto=*/1000);
    enqueue(q, 1, kBurst);
    const uint32_t onWire = ctrl(q).inFlight;
    ASSERT_LT(onWire, kBurst) << "the peer's socket holds the whole burst";
    const auto got = peerInbox();  // room again, no ack yet
    ASSERT_EQ(got.size(), onWire);
    enqueue(q, kBurst + 1, kBurst + 1);
    EXPECT_EQ(ctrl(q).inFlight, onWire);
    EXPECT_TRUE(peerInbox().empty());

    uint32_t expected = 1;
    std::vector<uint32_t> applied;
    for (auto &m : got) {
      ASSERT_EQ(qorSwpCkSeqAndAck(m.data(), &expected, peerQ), QOR_SWP_SEQ_OK);
      applied.push_back(ld32(m.data(), kOffTag));
    }
    if (byAck) {
      ASSERT_GT(pumpAcks(), 0);
    } else {
      qorSwpRunTimers();  // the clock has not moved: a round of sends, no retransmission
    }
    EXPECT_GT(ctrl(q).inFlight + ctrl(q).released, onWire);
    pumpAcks();  // in the timer round's case, acks read only now
    for (int spins = 0; applied.size() <= kBurst && spins < 100000; ++spins) {
      for (uint32_t t : peerApply(expected)) applied.push_back(t);
      pumpAcks();
      qorSwpRunTimers();
    }
    ASSERT_EQ(applied.size(), kBurst + 1);
    for (uint32_t i = 0; i <= kBurst; ++i) ASSERT_EQ(applied[i], i + 1);
    EXPECT_EQ(ctrl(q).retransmitted, 0u);
    qorSwpQueueRemove(q);
  }
}

}  // namespace
