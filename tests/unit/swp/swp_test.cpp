#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <poll.h>
#include <vector>

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
constexpr size_t kOffTag = 68;  // our test payload: a tag word after the SWP header

// Released messages by their tag: each must appear exactly once.
std::map<uint32_t, int> g_freed;
std::vector<std::pair<uint32_t, uint32_t>> g_failures;

void recordFree(void *m) {
  g_freed[ld32(m, kOffTag)]++;
  free(m);
}
void recordFailure(uint32_t q, uint32_t err) { g_failures.emplace_back(q, err); }

uint8_t *newMsg(uint32_t tag, uint32_t len = 80, uint32_t mtype = 0x3204) {
  auto *m = static_cast<uint8_t *>(calloc(1, len));
  st32(m, IPC_OFF_MTYPE, mtype);
  if (len >= kOffTag + 4) st32(m, kOffTag, tag);
  return m;
}

struct Received {
  std::vector<uint8_t> bytes;
  uint32_t seq() const { return ld32(bytes.data(), SWP_OFF_SEQ); }
  uint32_t tag() const { return ld32(bytes.data(), kOffTag); }
};

class SwpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qorLogReset();
    qorLogSetEcho(false);
    qorClockUseManual(true);
    g_freed.clear();
    g_failures.clear();
    sender = qorIpcOpen(kSenderSvce, 0);
    peer = qorIpcOpen(kPeerSvce, 0);
    ASSERT_GT(sender, 0);
    ASSERT_GT(peer, 0);
    senderQ = Key_getReqQueue(sender);
    peerQ = Key_getReqQueue(peer);
  }
  void TearDown() override {
    qorSwpReset();
    qorClockUseManual(false);
  }

  uint32_t makeQueue(uint32_t window, uint32_t size, uint32_t rto = 10, uint32_t retries = 3) {
    uint32_t q = 0;
    EXPECT_EQ(qorSwpQueueCreate_p(1, 0, window, size, kSenderSvce, 0, sender, kPeerSvce, 0, rto,
                                  retries, 0, recordFree, recordFailure, &q, -1),
              0);
    return q;
  }

  // Everything waiting at the peer, in arrival order.
  std::vector<Received> peerInbox() {
    std::vector<Received> out;
    std::vector<uint8_t> buf(RTM_IPC_BUF_SIZE);
    int n;
    while ((n = qorIpcRecv(peerQ, buf.data(), RTM_IPC_BUF_SIZE, QOR_IPC_NOWAIT, 0, 0)) > 0)
      out.push_back(Received{std::vector<uint8_t>(buf.begin(), buf.begin() + n)});
    return out;
  }

  // Hands every ack waiting at the sender to the queue layer.
  int pumpAcks() {
    uint8_t buf[256];
    int acks = 0;
    while (qorIpcRecv(senderQ, buf, sizeof buf, QOR_IPC_NOWAIT, 0, 0) > 0) {
      EXPECT_EQ(ld32(buf, IPC_OFF_MTYPE), MT_SWP_ACK);
      void *ret = reinterpret_cast<void *>(1);
      qorSwpDequeue(buf, &ret);
      EXPECT_EQ(ret, nullptr);
      ++acks;
    }
    return acks;
  }

  // The peer applies what arrives in order, as a receiver must, and acknowledges.
  std::vector<uint32_t> peerApply(uint32_t &expected) {
    std::vector<uint32_t> applied;
    for (Received &r : peerInbox())
      if (qorSwpCkSeqAndAck(r.bytes.data(), &expected, peerQ) == QOR_SWP_SEQ_OK)
        applied.push_back(r.tag());
    return applied;
  }

  void advanceAndRun(uint32_t ticks) {
    qorClockAdvance(ticks);
    qorSwpRunTimers();
  }

  RunDir dir;
  int sender = 0, peer = 0, senderQ = 0, peerQ = 0;
};

TEST_F(SwpTest, EnqueueNumbersFromOneAndAddressesThePeer) {
  uint32_t q = makeQueue(10, 20);
  for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(qorSwpEnqueue(q, newMsg(100 + i, 80 + i), 80 + i), 0);
  auto in = peerInbox();
  ASSERT_EQ(in.size(), 3u);
  for (uint32_t i = 0; i < 3; ++i) {
    const uint8_t *m = in[i].bytes.data();
    EXPECT_EQ(in[i].bytes.size(), 80u + i);
    EXPECT_EQ(ld32(m, IPC_OFF_MLEN), 80u + i);
    EXPECT_EQ(qorSwpGetSeqNo(m), i + 1);
    EXPECT_EQ(qorSwpGetQueue(m), q);
    EXPECT_EQ(ld32(m, IPC_OFF_SRC_CARD), QOR_IPC_LOCAL_CARD);
    EXPECT_EQ(ld32(m, IPC_OFF_SRC_SVCE), qor_getQueueId(kSenderSvce, 0, QOR_IPC_QUEUE_REQ));
    EXPECT_EQ(ld32(m, IPC_OFF_TGT_CARD), QOR_IPC_LOCAL_CARD);
    EXPECT_EQ(ld32(m, IPC_OFF_TGT_SVCE), qor_getQueueId(kPeerSvce, 0, QOR_IPC_QUEUE_REQ));
    EXPECT_EQ(in[i].tag(), 100 + i);
  }
  QorSwpCtrlBlock cb;
  ASSERT_EQ(qorSwpGetQueueCtrlBlock(q, &cb), 0);
  EXPECT_EQ(cb.ipcSvce, kPeerSvce);
  EXPECT_EQ(cb.ipcInst, 0u);
  EXPECT_EQ(cb.held, 3u);
  EXPECT_EQ(cb.inFlight, 3u);
  EXPECT_EQ(cb.nextSeq, 4u);
  EXPECT_EQ(qorSwpGetQueueStatus(q), QOR_SWP_STATUS_ACTIVE);
}

TEST_F(SwpTest, WindowHoldsBackAndSizeRefusesAndAcksReleaseEachMessageOnce) {
  uint32_t q = makeQueue(3, 5);
  for (uint32_t i = 1; i <= 5; ++i) ASSERT_EQ(qorSwpEnqueue(q, newMsg(i), 80), 0);
  uint8_t *extra = newMsg(6);
  EXPECT_EQ(qorSwpEnqueue(q, extra, 80), QOR_SWP_EFULL);  // the caller keeps it
  free(extra);
  EXPECT_EQ(qorSwpQueueGetLen(q), 5);

  auto first = peerInbox();
  ASSERT_EQ(first.size(), 3u);  // the window
  uint32_t expected = 1;
  // Ack only the first two: two are released, two more go out.
  ASSERT_EQ(qorSwpCkSeqAndAck(first[0].bytes.data(), &expected, peerQ), 0);
  ASSERT_EQ(qorSwpCkSeqAndAck(first[1].bytes.data(), &expected, peerQ), 0);
  EXPECT_EQ(pumpAcks(), 2);
  EXPECT_EQ(g_freed.size(), 2u);
  EXPECT_EQ(g_freed[1], 1);
  EXPECT_EQ(g_freed[2], 1);
  EXPECT_EQ(qorSwpQueueGetLen(q), 3);
  auto second = peerInbox();
  ASSERT_EQ(second.size(), 2u);
  EXPECT_EQ(second[0].seq(), 4u);
  EXPECT_EQ(second[1].seq(), 5u);

  // One cumulative ack for 5 releases 3, 4 and 5; the same ack again releases nothing.
  expected = 5;
  ASSERT_EQ(qorSwpCkSeqAndAck(second[1].bytes.data(), &expected, peerQ), 0);
  uint8_t ack[256];
  ASSERT_EQ(qorIpcRecv(senderQ, ack, sizeof ack, QOR_IPC_NOWAIT, 0, 0),
            static_cast<int>(QOR_SWP_ACK_LEN));
  void *ret = nullptr;
  EXPECT_EQ(qorSwpDequeue(ack, &ret), 0);
  EXPECT_EQ(qorSwpDequeue(ack, &ret), 0);
  EXPECT_EQ(g_freed.size(), 5u);
  for (auto &[m, n] : g_freed) EXPECT_EQ(n, 1);
  EXPECT_EQ(qorSwpQueueGetLen(q), 0);

  // An ack for a sequence never sent is refused and releases nothing.
  ASSERT_EQ(qorSwpEnqueue(q, newMsg(7), 80), 0);
  st32(ack, SWP_OFF_SEQ, 9);
  EXPECT_EQ(qorSwpDequeue(ack, &ret), -1);
  EXPECT_EQ(qorSwpQueueGetLen(q), 1);
}

TEST_F(SwpTest, FlushStartsOverAndRemoveForgetsFreeingEveryHeldMessage) {
  uint32_t q = makeQueue(2, 10);
  for (uint32_t i = 1; i <= 4; ++i) ASSERT_EQ(qorSwpEnqueue(q, newMsg(i), 80), 0);
  peerInbox();
  ASSERT_EQ(qorSwpQueueFlush(q), 0);
  EXPECT_EQ(g_freed.size(), 4u);
  EXPECT_EQ(qorSwpQueueGetLen(q), 0);
  ASSERT_EQ(qorSwpEnqueue(q, newMsg(10), 80), 0);
  auto in = peerInbox();
  ASSERT_EQ(in.size(), 1u);
  EXPECT_EQ(in[0].seq(), 1u);

  ASSERT_EQ(qorSwpEnqueue(q, newMsg(11), 80), 0);
  ASSERT_EQ(qorSwpQueueRemove(q), 0);
  EXPECT_EQ(g_freed.size(), 6u);
  for (auto &[m, n] : g_freed) EXPECT_EQ(n, 1);
  EXPECT_EQ(qorSwpQueueGetLen(q), -1);
  EXPECT_EQ(qorSwpGetQueueStatus(q), QOR_SWP_STATUS_FAILED);
  uint8_t *orphan = newMsg(12);
  EXPECT_EQ(qorSwpEnqueue(q, orphan, 80), QOR_SWP_ENOQUEUE);
  free(orphan);
  EXPECT_EQ(qorSwpQueueRemove(q), QOR_SWP_ENOQUEUE);
  EXPECT_EQ(qorSwpQueueFlush(q), QOR_SWP_ENOQUEUE);
}

TEST_F(SwpTest, ReceiverCheckAcksInOrderRepeatsAndGaps) {
  // A data message as the peer would see it from some sender queue 0x1234.
  auto msg = ipctest::makeMsg(80, 2 /* afIndex written over mtype */, kPeerSvce, 0, 0x55);
  ipctest::setSource(msg, sender);
  st32(msg.data(), SWP_OFF_QUEUE, 0x1234);

  struct Step {
    uint32_t seq;
    int rc;
    uint32_t ackSeq, kind, expectedAfter;
  } steps[] = {
      {1, QOR_SWP_SEQ_OK, 1, QOR_SWP_ACK_INORDER, 2},
      {1, QOR_SWP_SEQ_REPEAT, 1, QOR_SWP_ACK_REPEAT, 2},
      {3, QOR_SWP_SEQ_GAP, 1, QOR_SWP_ACK_GAP, 2},
      {2, QOR_SWP_SEQ_OK, 2, QOR_SWP_ACK_INORDER, 3},
      {3, QOR_SWP_SEQ_OK, 3, QOR_SWP_ACK_INORDER, 4},
      {2, QOR_SWP_SEQ_REPEAT, 3, QOR_SWP_ACK_REPEAT, 4},
  };
  uint32_t expected = 0;  // a fresh client record: counts as 1
  for (const Step &s : steps) {
    SCOPED_TRACE(testing::Message() << "seq " << s.seq);
    st32(msg.data(), SWP_OFF_SEQ, s.seq);
    EXPECT_EQ(qorSwpCkSeqAndAck(msg.data(), &expected, peerQ), s.rc);
    EXPECT_EQ(expected, s.expectedAfter);
    uint8_t ack[256];
    ASSERT_EQ(qorIpcRecv(senderQ, ack, sizeof ack, QOR_IPC_NOWAIT, 0, 0),
              static_cast<int>(QOR_SWP_ACK_LEN));
    EXPECT_EQ(ld32(ack, IPC_OFF_MLEN), QOR_SWP_ACK_LEN);
    EXPECT_EQ(ld32(ack, IPC_OFF_MTYPE), MT_SWP_ACK);
    EXPECT_EQ(ld32(ack, IPC_OFF_TRANSCODE), 0x55u);
    EXPECT_EQ(ld32(ack, IPC_OFF_SRC_SVCE), qor_getQueueId(kPeerSvce, 0, QOR_IPC_QUEUE_REQ));
    EXPECT_EQ(ld32(ack, SWP_OFF_QUEUE), 0x1234u);
    EXPECT_EQ(ld32(ack, SWP_OFF_SEQ), s.ackSeq);
    EXPECT_EQ(ld32(ack, SWP_OFF_ACK_WORD), 2u);
    EXPECT_EQ(ld32(ack, SWP_OFF_ACK_KIND), s.kind);
  }
}

TEST_F(SwpTest, MessagesShorterThanTheSwpHeaderAreRefused) {
  auto msg = ipctest::makeMsg(80, 0x192, kPeerSvce, 0);
  st32(msg.data(), IPC_OFF_MLEN, 67);
  uint32_t expected = 1, list = 0;
  ASSERT_EQ(qorSwpQListCreateExpSeqList(&list, 2), 0);
  void *ret = nullptr;
  EXPECT_EQ(qorSwpCkSeqAndAck(msg.data(), &expected, peerQ), -1);
  EXPECT_EQ(qorSwpQListCkSeqAndAck(msg.data(), list, peerQ), -1);
  EXPECT_EQ(qorSwpDequeue(msg.data(), &ret), -1);
  EXPECT_EQ(expected, 1u);
  EXPECT_TRUE(qorLogSaw("shorter than its header"));
  EXPECT_EQ(qorIpcGetNumMsgs(senderQ), 0);  // nothing acknowledged

  uint32_t q = makeQueue(2, 2);
  uint8_t *m = newMsg(1, 67);
  EXPECT_EQ(qorSwpEnqueue(q, m, 67), QOR_SWP_EPARAM);
  EXPECT_EQ(qorSwpEnqueue(q, m, RTM_IPC_BUF_SIZE + 1), QOR_SWP_EPARAM);
  free(m);
  uint32_t bad = 0;
  EXPECT_EQ(qorSwpQueueCreate_p(1, 0, 0, 5, 76, 0, sender, kPeerSvce, 0, 0, 0, 0, recordFree,
                                recordFailure, &bad, -1),
            QOR_SWP_EPARAM);
  EXPECT_EQ(qorSwpQueueCreate_p(1, 0, 2, 5, 76, 0, 999, kPeerSvce, 0, 0, 0, 0, recordFree,
                                recordFailure, &bad, -1),
            QOR_SWP_EPARAM);
}

TEST_F(SwpTest, ExpectedSequenceListKeepsOneSequencePerSenderQueue) {
  uint32_t list = 0;
  ASSERT_EQ(qorSwpQListCreateExpSeqList(&list, 2), 0);
  auto msg = ipctest::makeMsg(80, 0, kPeerSvce, 0);
  ipctest::setSource(msg, sender);
  auto check = [&](uint32_t queue, uint32_t seq) {
    st32(msg.data(), SWP_OFF_QUEUE, queue);
    st32(msg.data(), SWP_OFF_SEQ, seq);
    return qorSwpQListCkSeqAndAck(msg.data(), list, peerQ);
  };
  struct Step {
    uint32_t queue, seq;
    int rc;
  } steps[] = {
      {0xA, 1, QOR_SWP_SEQ_OK},     {0xB, 1, QOR_SWP_SEQ_OK},     {0xA, 2, QOR_SWP_SEQ_OK},
      {0xB, 3, QOR_SWP_SEQ_GAP},    {0xB, 2, QOR_SWP_SEQ_OK},     {0xA, 2, QOR_SWP_SEQ_REPEAT},
      // Both slots taken: an unknown queue mid-stream cannot be judged...
      {0xC, 4, QOR_SWP_SEQ_NOSLOT},
      // ...but one starting at 1 displaces 0xB, heard from least recently,
      {0xC, 1, QOR_SWP_SEQ_OK},
      // which has lost its place, while 0xA goes on where it was.
      {0xB, 3, QOR_SWP_SEQ_NOSLOT}, {0xC, 2, QOR_SWP_SEQ_OK},     {0xA, 3, QOR_SWP_SEQ_OK},
  };
  for (const Step &s : steps) {
    SCOPED_TRACE(testing::Message() << std::hex << s.queue << " seq " << std::dec << s.seq);
    EXPECT_EQ(check(s.queue, s.seq), s.rc);
  }
  EXPECT_EQ(qorSwpQListCkSeqAndAck(msg.data(), list + 100, peerQ), QOR_SWP_SEQ_NOLIST);
  EXPECT_EQ(qorSwpQListRemoveExpSeqList(list), 0);
  EXPECT_EQ(qorSwpQListCkSeqAndAck(msg.data(), list, peerQ), QOR_SWP_SEQ_NOLIST);
  uint32_t h;
  EXPECT_EQ(qorSwpQListCreateExpSeqList(&h, 0), QOR_SWP_EPARAM);
}

TEST_F(SwpTest, LostMessageIsSentAgainAfterTheTimeOut) {
  uint32_t q = makeQueue(4, 10, /*rto=*/10);
  for (uint32_t i = 1; i <= 4; ++i) ASSERT_EQ(qorSwpEnqueue(q, newMsg(i), 80), 0);
  // Only the first arrives; the rest are lost on the way.
  auto in = peerInbox();
  ASSERT_EQ(in.size(), 4u);
  uint32_t expected = 1;
  ASSERT_EQ(qorSwpCkSeqAndAck(in[0].bytes.data(), &expected, peerQ), 0);
  pumpAcks();
  EXPECT_EQ(qorSwpQueueGetLen(q), 3);

  advanceAndRun(9);
  EXPECT_TRUE(peerInbox().empty());  // not yet: the time-out counts from the last progress
  advanceAndRun(1);
  auto again = peerApply(expected);
  EXPECT_EQ(again, (std::vector<uint32_t>{2, 3, 4}));
  pumpAcks();
  EXPECT_EQ(qorSwpQueueGetLen(q), 0);
  EXPECT_EQ(g_freed.size(), 4u);
  QorSwpCtrlBlock cb;
  qorSwpGetQueueCtrlBlock(q, &cb);
  EXPECT_EQ(cb.retransmitted, 3u);
  EXPECT_EQ(cb.retries, 0u);
  EXPECT_TRUE(g_failures.empty());
}

TEST_F(SwpTest, GapAckResendsAtOnceWithoutWaitingForTheTimeOut) {
  uint32_t q = makeQueue(4, 10, /*rto=*/1000);
  for (uint32_t i = 1; i <= 4; ++i) ASSERT_EQ(qorSwpEnqueue(q, newMsg(i), 80), 0);
  auto in = peerInbox();
  uint32_t expected = 1;
  std::vector<uint32_t> applied;
  // Message 2 is lost: 3 and 4 reveal the gap.
  for (int i : {0, 2, 3})
    if (qorSwpCkSeqAndAck(in[i].bytes.data(), &expected, peerQ) == 0) applied.push_back(in[i].tag());
  pumpAcks();
  for (uint32_t t : peerApply(expected)) applied.push_back(t);
  pumpAcks();
  EXPECT_EQ(applied, (std::vector<uint32_t>{1, 2, 3, 4}));
  EXPECT_EQ(qorSwpQueueGetLen(q), 0);
  QorSwpCtrlBlock cb;
  qorSwpGetQueueCtrlBlock(q, &cb);
  EXPECT_EQ(cb.retransmitted, 3u);  // one round, not one per GAP ack
}

TEST_F(SwpTest, LostAcksAreRepairedByTheRepeatAck) {
  uint32_t q = makeQueue(4, 10, /*rto=*/10);
  for (uint32_t i = 1; i <= 3; ++i) ASSERT_EQ(qorSwpEnqueue(q, newMsg(i), 80), 0);
  qorSwpSetAckFilter([](const uint8_t *, uint32_t) { return false; });
  uint32_t expected = 1;
  EXPECT_EQ(peerApply(expected).size(), 3u);
  qorSwpSetAckFilter(nullptr);
  EXPECT_EQ(pumpAcks(), 0);
  EXPECT_EQ(qorSwpQueueGetLen(q), 3);

  advanceAndRun(10);
  EXPECT_TRUE(peerApply(expected).empty());  // all repeats: nothing applied twice
  EXPECT_EQ(pumpAcks(), 3);
  EXPECT_EQ(qorSwpQueueGetLen(q), 0);
  EXPECT_EQ(g_freed.size(), 3u);
}

TEST_F(SwpTest, ErrorCallbackRunsOnceWhenRetransmissionsRunOut) {
  uint32_t q = makeQueue(2, 10, /*rto=*/10, /*retries=*/3);
  for (uint32_t i = 1; i <= 3; ++i) ASSERT_EQ(qorSwpEnqueue(q, newMsg(i), 80), 0);
  int rounds = 0;
  // Rounds wait 10, 20, 40, 40 ticks: back-off doubles up to its cap.
  for (uint32_t wait : {10u, 20u, 40u}) {
    advanceAndRun(wait - 1);
    EXPECT_TRUE(peerInbox().size() <= 2u);
    EXPECT_TRUE(g_failures.empty());
    advanceAndRun(1);
    ++rounds;
  }
  EXPECT_EQ(rounds, 3);
  EXPECT_TRUE(g_failures.empty());
  advanceAndRun(40);
  ASSERT_EQ(g_failures.size(), 1u);
  EXPECT_EQ(g_failures[0], std::make_pair(q, QOR_SWP_ERR_PEER));
  EXPECT_EQ(qorSwpGetQueueStatus(q), QOR_SWP_STATUS_FAILED);
  EXPECT_EQ(qorSwpGetErr(q), QOR_SWP_ERR_PEER);
  QorSwpCtrlBlock cb;
  qorSwpGetQueueCtrlBlock(q, &cb);
  EXPECT_EQ(cb.retransmitted, 6u);  // three rounds of the two in flight
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
  for (uint32_t i = 1; i <= 40; ++i) ASSERT_EQ(qorSwpEnqueue(q, newMsg(i), 80), 0);
  uint32_t expected = 1;
  std::vector<size_t> bursts;
  for (int round = 0; round < 4; ++round) {
    auto applied = peerApply(expected);
    bursts.push_back(applied.size());
    pumpAcks();
  }
  // 2 in flight, then 4 after a whole window was acked cleanly, then 6 at most.
  EXPECT_EQ(bursts, (std::vector<size_t>{2, 4, 6, 6}));
  QorSwpCtrlBlock cb;
  qorSwpGetQueueCtrlBlock(q, &cb);
  EXPECT_EQ(cb.mult, 3u);
  peerInbox();  // lost
  advanceAndRun(10);
  qorSwpGetQueueCtrlBlock(q, &cb);
  EXPECT_EQ(cb.mult, 1u);
  EXPECT_EQ(cb.inFlight, 6u);  // already on the wire before the fall-back
}

TEST_F(SwpTest, MessagesAFullPeerTurnsBackGoOutLaterWithoutRetransmission) {
  // More in the window than any kernel keeps for one socket: part of the burst is turned
  // back and must follow as the peer drains, in order, each exactly once.
  constexpr uint32_t kCount = 600;
  uint32_t q = makeQueue(kCount, kCount, /*rto=*/1000);
  qorIpcSetRecvBufferLimit(peerQ, 1);  // the peer's reserve takes one message per drain
  for (uint32_t i = 1; i <= kCount; ++i) ASSERT_EQ(qorSwpEnqueue(q, newMsg(i), 80), 0);
  QorSwpCtrlBlock cb;
  qorSwpGetQueueCtrlBlock(q, &cb);
  EXPECT_LT(cb.inFlight, kCount);
  uint32_t expected = 1;
  std::vector<uint32_t> applied;
  for (int spins = 0; applied.size() < kCount && spins < 100000; ++spins) {
    for (uint32_t t : peerApply(expected)) applied.push_back(t);
    pumpAcks();
    qorSwpRunTimers();  // the clock does not move: only turned-back messages go
  }
  ASSERT_EQ(applied.size(), kCount);
  for (uint32_t i = 0; i < kCount; ++i) ASSERT_EQ(applied[i], i + 1);
  qorSwpGetQueueCtrlBlock(q, &cb);
  EXPECT_EQ(cb.retransmitted, 0u);
}

TEST_F(SwpTest, PipeWakesTheOwnerWhenARetransmissionIsDue) {
  int pipe = qorSwpCreatePipe("/qor/pipe/rtmpipe");
  ASSERT_GE(pipe, 0);
  uint32_t q = 0;
  ASSERT_EQ(qorSwpQueueCreate_p(1, 0, 2, 10, kSenderSvce, 0, sender, kPeerSvce, 0, 10, 3, 0,
                                recordFree, recordFailure, &q, pipe),
            0);
  ASSERT_EQ(qorSwpEnqueue(q, newMsg(1), 80), 0);
  peerInbox();  // lost
  qorClockAdvance(10);
  pollfd p{pipe, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 10000), 1) << "the helper never marked the pipe";
  ASSERT_EQ(qorSwpReadPipe(pipe), 0);
  EXPECT_EQ(peerInbox().size(), 1u);
  EXPECT_EQ(qorSwpReadPipe(pipe + 1000), -1);
  EXPECT_EQ(qorSwpClosePipe(pipe), 0);
}

}  // namespace
