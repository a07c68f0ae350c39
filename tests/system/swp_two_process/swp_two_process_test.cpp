// A sender and a receiver in two processes over real sockets. The receiver loses data and
// acks on purpose (a seeded pattern); every message must still be applied exactly once and
// in order, and each released once at the sender. Then the receiver goes away and the
// sender's queue must give up through its error callback.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "../../unit/ipc/ipc_test_util.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "rtm/rtm_msgs.h"
#include "swp/qor_swp.h"

using rtm::ld32;
using rtm::st32;

namespace {

constexpr uint32_t kSenderSvce = 76, kReceiverSvce = 301;
constexpr uint32_t kCount = 1000;
constexpr uint32_t kTail = 5;  // sent after the receiver has gone
constexpr uint32_t kStop = 0x7777;
constexpr size_t kOffTag = 68;

std::vector<int> g_freed;
std::vector<uint32_t> g_failures;

void onFree(void *m) {
  uint32_t tag = ld32(m, kOffTag);
  if (tag < g_freed.size()) g_freed[tag]++;
  free(m);
}
void onFailure(uint32_t q, uint32_t err) { g_failures.push_back(err); }

std::mt19937 g_rng(20240611);
uint32_t g_acksDropped = 0;

bool dropSomeAcks(const uint8_t *, uint32_t) {
  if (g_rng() % 8 == 0) {
    ++g_acksDropped;
    return false;
  }
  return true;
}

// The receiving process. Exits 0 when it saw 1..kCount applied in order before the stop
// message, and writes its loss figures to `report`.
[[noreturn]] void receiver(int report) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  qorLogSetEcho(false);
  int key = qorIpcOpen(kReceiverSvce, 0);
  if (key < 0) _exit(2);
  int q = Key_getReqQueue(key);
  qorSwpSetAckFilter(dropSomeAcks);
  uint32_t expected = 1, nextTag = 1, dataDropped = 0, repeats = 0, gaps = 0;
  std::vector<uint8_t> buf(RTM_IPC_BUF_SIZE);
  auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(40);
  for (;;) {
    if (std::chrono::steady_clock::now() > giveUp) _exit(3);
    int n = qorIpcRecv(q, buf.data(), RTM_IPC_BUF_SIZE, QOR_IPC_WAIT_TIMEOUT, 200, 0);
    if (n < 0) continue;
    if (ld32(buf.data(), IPC_OFF_MTYPE) == kStop) break;
    if (g_rng() % 12 == 0) {
      ++dataDropped;  // lost on the way: never checked, never acknowledged
      continue;
    }
    switch (qorSwpCkSeqAndAck(buf.data(), &expected, q)) {
      case QOR_SWP_SEQ_OK:
        if (ld32(buf.data(), kOffTag) != nextTag) _exit(4);  // out of order or applied twice
        ++nextTag;
        break;
      case QOR_SWP_SEQ_REPEAT:
        ++repeats;
        break;
      case QOR_SWP_SEQ_GAP:
        ++gaps;
        break;
      default:
        _exit(5);
    }
  }
  char line[128];
  int len = snprintf(line, sizeof line, "%u %u %u %u %u\n", nextTag - 1, dataDropped,
                     g_acksDropped, repeats, gaps);
  if (write(report, line, static_cast<size_t>(len)) != len) _exit(6);
  _exit(nextTag - 1 == kCount ? 0 : 7);
}

// One pass of the sender's loop: waits for an ack or the SWP pipe, and serves them.
void serve(int reqQ, int pipe, int waitMs) {
  int rfd = Key_getSocketFd(reqQ);
  fd_set rs;
  FD_ZERO(&rs);
  FD_SET(rfd, &rs);
  FD_SET(pipe, &rs);
  timeval tv{0, waitMs * 1000};
  if (select(std::max(rfd, pipe) + 1, &rs, nullptr, nullptr, &tv) <= 0) return;
  if (FD_ISSET(rfd, &rs)) {
    uint8_t ack[256];
    while (qorIpcRecv(reqQ, ack, sizeof ack, QOR_IPC_NOWAIT, 0, 0) > 0) {
      void *ret = nullptr;
      qorSwpDequeue(ack, &ret);
    }
  }
  if (FD_ISSET(pipe, &rs)) qorSwpReadPipe(pipe);
}

uint8_t *newMsg(uint32_t tag) {
  auto *m = static_cast<uint8_t *>(calloc(1, 120));
  st32(m, IPC_OFF_MTYPE, 0x3204);
  st32(m, kOffTag, tag);
  return m;
}

TEST(SwpTwoProcess, LossyPeerGetsEverythingOnceInOrderThenItsDeathFailsTheQueue) {
  ipctest::RunDir dir;
  qorLogSetEcho(false);
  int report[2];
  ASSERT_EQ(pipe(report), 0);
  fflush(nullptr);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(report[0]);
    receiver(report[1]);
  }
  close(report[1]);

  int key = qorIpcOpen(kSenderSvce, 0);
  ASSERT_GT(key, 0);
  int reqQ = Key_getReqQueue(key);
  int swpPipe = qorSwpCreatePipe("/qor/pipe/rtmpipe");
  ASSERT_GE(swpPipe, 0);
  // Wait until the receiver's endpoint is up.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  int32_t err = 0;
  while (qor_tmeGetPeerIpAddrByName(kReceiverSvce, 0, &err) == -1) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "receiver never came up";
    usleep(1000);
  }

  g_freed.assign(kCount + kTail + 1, 0);
  uint32_t q = 0;
  ASSERT_EQ(qorSwpQueueCreate_p(1, 0, 10, 50, kSenderSvce, 0, key, kReceiverSvce, 0,
                                /*rto=*/5, /*retries=*/8, 0, onFree, onFailure, &q, swpPipe),
            0);
  uint32_t next = 1;
  while (next <= kCount || qorSwpQueueGetLen(q) > 0) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "stalled at " << next;
    ASSERT_TRUE(g_failures.empty());
    while (next <= kCount) {
      uint8_t *m = newMsg(next);
      if (qorSwpEnqueue(q, m, 120) != QOR_SWP_OK) {
        free(m);
        break;
      }
      ++next;
    }
    serve(reqQ, swpPipe, 20);
  }

  // Stop the receiver and collect its account.
  auto stop = ipctest::makeMsg(IPC_HDR_LEN, kStop, kReceiverSvce, 0);
  ASSERT_EQ(qorIpcSend(reqQ, stop.data(), IPC_HDR_LEN), 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  char line[128] = {};
  ASSERT_GT(read(report[0], line, sizeof line - 1), 0);
  close(report[0]);
  unsigned applied = 0, dataDropped = 0, acksDropped = 0, repeats = 0, gaps = 0;
  ASSERT_EQ(sscanf(line, "%u %u %u %u %u", &applied, &dataDropped, &acksDropped, &repeats, &gaps), 5);
  EXPECT_EQ(applied, kCount);
  EXPECT_GT(dataDropped, 0u);  // the losses really happened
  EXPECT_GT(acksDropped, 0u);
  EXPECT_GT(gaps, 0u);
  for (uint32_t t = 1; t <= kCount; ++t) ASSERT_EQ(g_freed[t], 1) << "message " << t;
  QorSwpCtrlBlock cb;
  ASSERT_EQ(qorSwpGetQueueCtrlBlock(q, &cb), 0);
  EXPECT_GT(cb.retransmitted, 0u);
  EXPECT_EQ(cb.ackedSeq, kCount);

  // The receiver is gone: nothing more is acknowledged and the queue gives up, once.
  for (uint32_t t = kCount + 1; t <= kCount + kTail; ++t) ASSERT_EQ(qorSwpEnqueue(q, newMsg(t), 120), 0);
  deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (g_failures.empty()) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the error callback never ran";
    serve(reqQ, swpPipe, 50);
  }
  ASSERT_EQ(g_failures.size(), 1u);
  EXPECT_EQ(g_failures[0], QOR_SWP_ERR_PEER);
  EXPECT_EQ(qorSwpGetQueueStatus(q), QOR_SWP_STATUS_FAILED);
  EXPECT_EQ(qorSwpQueueGetLen(q), static_cast<int>(kTail));
  for (int i = 0; i < 5; ++i) serve(reqQ, swpPipe, 10);
  EXPECT_EQ(g_failures.size(), 1u);
  ASSERT_EQ(qorSwpQueueRemove(q), 0);
  for (uint32_t t = 1; t <= kCount + kTail; ++t) ASSERT_EQ(g_freed[t], 1) << "message " << t;
  qorSwpReset();
}

}  // namespace
