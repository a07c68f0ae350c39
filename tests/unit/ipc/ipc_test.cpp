#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <tuple>

#include "ipc/qor_ipc.h"
#include "ipc_test_util.h"
#include "log/qor_log.h"
#include "timer/qor_timer.h"

using ipctest::makeMsg;
using ipctest::RunDir;
using rtm::ld32;

namespace {

// A socket bound at path, as another process would hold it; closed, it leaves a stale file.
int bindForeign(const std::string &path) {
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  strncpy(sa.sun_path, path.c_str(), sizeof sa.sun_path - 1);
  return bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0 ? fd : (close(fd), -1);
}

bool readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, 0) == 1;
}

constexpr int32_t kCard = static_cast<int32_t>(QOR_IPC_LOCAL_CARD);

class IpcTest : public ::testing::Test {
 protected:
  void SetUp() override { qorLogSetEcho(false); }
  int recv(int q, void *buf, uint32_t size) { return qorIpcRecv(q, buf, size, QOR_IPC_NOWAIT, 0, 0); }
  RunDir dir;
};

TEST_F(IpcTest, QueueIdsAndPathsFollowTheDocumentedArithmetic) {
  struct Case {
    uint32_t svce, inst, kind, id;
    const char *file;
  } cases[] = {
      {76, 0, QOR_IPC_QUEUE_REQ, 0x004C0001, "76.0"},
      {76, 0, QOR_IPC_QUEUE_TMR, 0x004C0002, "76.0.tmr"},
      {138, 5, QOR_IPC_QUEUE_RSP, 0x008A0053, "138.5.rsp"},
      {0xFFFF, 0xFFF, QOR_IPC_QUEUE_REQ, 0xFFFFFFF1, "65535.4095"},
  };
  char path[128];
  for (const Case &c : cases) {
    SCOPED_TRACE(c.file);
    EXPECT_EQ(qor_getQueueId(c.svce, c.inst, c.kind), c.id);
    uint32_t s, i, k;
    ASSERT_TRUE(qorIpcQueueIdSplit(c.id, &s, &i, &k));
    EXPECT_EQ(std::make_tuple(s, i, k), std::make_tuple(c.svce, c.inst, c.kind));
    ASSERT_TRUE(qorIpcQueuePath(QOR_IPC_LOCAL_CARD, c.id, path, sizeof path));
    EXPECT_EQ(std::string(path), dir.socket(c.file));
  }
  EXPECT_EQ(qor_getQueueId(0x10000, 0, 1), 0u);
  EXPECT_EQ(qor_getQueueId(76, 0x1000, 1), 0u);
  EXPECT_EQ(qor_getQueueId(76, 0, 4), 0u);
  EXPECT_FALSE(qorIpcQueuePath(0x0A000001, 0x004C0001, path, sizeof path));  // foreign card
  EXPECT_FALSE(qorIpcQueuePath(QOR_IPC_LOCAL_CARD, 0x004C0000, path, sizeof path));
  EXPECT_FALSE(qorIpcQueuePath(QOR_IPC_LOCAL_CARD, 0x004C0001, path, 8));
  EXPECT_EQ(qorIpcSetRunDir(("/tmp/" + std::string(100, 'd')).c_str()), -1);
}

TEST_F(IpcTest, OnlyALiveEndpointResolvesAndOnlyAStaleOneIsReplaced) {
  int32_t err = 0;
  EXPECT_EQ(qor_tmeGetPeerIpAddrByName(76, 0, &err), -1);
  EXPECT_EQ(err, -1);
  int key = qorIpcOpen(76, 0);
  ASSERT_GT(key, 0);
  EXPECT_EQ(qor_tmeGetPeerIpAddrByName(76, 0, &err), kCard);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(qor_tmeGetSlotByName(76, 0), 0);
  EXPECT_EQ(qor_tmeGetSlotByName(76, 1), -1);
  EXPECT_EQ(qorIpcOpen(76, 0), -1);  // held by this very process
  ASSERT_EQ(qorIpcClose(key), 0);
  EXPECT_EQ(qor_tmeGetPeerIpAddrByName(76, 0, &err), -1);

  // The socket file of a process that died does not resolve, and a new owner replaces it.
  close(bindForeign(dir.socket("77.0")));
  struct stat st;
  ASSERT_EQ(stat(dir.socket("77.0").c_str(), &st), 0);
  EXPECT_EQ(qor_tmeGetPeerIpAddrByName(77, 0, &err), -1);
  EXPECT_GT(qorIpcOpen(77, 0), 0);
  // One held by a live process is not taken over.
  int live = bindForeign(dir.socket("80.3"));
  ASSERT_GE(live, 0);
  errno = 0;
  EXPECT_EQ(qorIpcOpen(80, 3), -1);
  EXPECT_EQ(errno, EADDRINUSE);
  close(live);
}

TEST_F(IpcTest, RunDirectoryAndSocketsArePrivate) {
  const std::string run = dir.path() + "/nested/run";
  qorIpcSetRunDir(run.c_str());
  int key = qorIpcOpen(76, 0);
  ASSERT_GT(key, 0);
  ASSERT_EQ(qorIpcTmrOpen(76, 0), 0);
  EXPECT_EQ(qorIpcTmrOpen(99, 0), -1);  // no key of that name
  struct stat st;
  for (const std::string &d : {dir.path() + "/nested", run, run + "/ipc"}) {
    ASSERT_EQ(stat(d.c_str(), &st), 0) << d;
    EXPECT_EQ(st.st_mode & 0777, 0700u) << d;
  }
  for (const char *f : {"76.0", "76.0.tmr", "76.0.rsp"}) {
    ASSERT_EQ(stat((run + "/ipc/" + f).c_str(), &st), 0) << f;
    EXPECT_TRUE(S_ISSOCK(st.st_mode)) << f;
    EXPECT_EQ(st.st_mode & 0777, 0600u) << f;
  }
  ASSERT_EQ(qorIpcClose(key), 0);
  EXPECT_NE(stat((run + "/ipc/76.0.tmr").c_str(), &st), 0);
}

TEST_F(IpcTest, ReplyGoesToTheRequestsSourceAndCountersAddUp) {
  int a = qorIpcOpen(76, 0), b = qorIpcOpen(138, 0);
  int aq = Key_getReqQueue(a), bq = Key_getReqQueue(b);
  auto req = makeMsg(80, 0x2A32, 138, 0, 0x1234);
  ipctest::setSource(req, a);
  ASSERT_EQ(qorIpcSend(aq, req.data(), 80), 0);
  EXPECT_EQ(qorIpcGetNumMsgs(bq), 1);

  std::vector<uint8_t> in(8192), ans(8192);
  ASSERT_EQ(recv(bq, in.data(), 8192), 80);
  EXPECT_TRUE(std::equal(req.begin(), req.end(), in.begin()));
  rtm::st32(in.data(), IPC_OFF_MSTATUS, 7);
  std::vector<uint8_t> before(in.begin(), in.begin() + 80);
  ASSERT_EQ(qorIpcReply(b, in.data(), 80), 0);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), in.begin()));  // caller's buffer kept

  ASSERT_EQ(recv(aq, ans.data(), 8192), 80);
  EXPECT_EQ(std::tuple(ld32(ans.data(), IPC_OFF_MSTATUS), ld32(ans.data(), IPC_OFF_TRANSCODE),
                       ld32(ans.data(), IPC_OFF_TGT_SVCE), ld32(ans.data(), IPC_OFF_SRC_SVCE)),
            std::tuple(7u, 0x1234u, qor_getQueueId(76, 0, 1), qor_getQueueId(138, 0, 1)));
  EXPECT_TRUE(std::equal(req.begin() + IPC_HDR_LEN, req.end(), ans.begin() + IPC_HDR_LEN));

  QorIpcStats sa, sb;
  ASSERT_EQ(qorIpcGetKeyStats(a, &sa), 0);
  ASSERT_EQ(qorIpcGetKeyStats(b, &sb), 0);
  EXPECT_EQ(std::make_tuple(sa.sent, sa.received, sb.sent, sb.received), std::make_tuple(1u, 1u, 1u, 1u));
  EXPECT_EQ(sa.sendErrors + sb.sendErrors + sa.recvErrors + sb.recvErrors, 0u);
}

TEST_F(IpcTest, SendRefusalsAreReportedAndCounted) {
  int aq = Key_getReqQueue(qorIpcOpen(76, 0));
  auto good = makeMsg(100, 1, 76, 0);
  struct Case {
    const char *what;
    std::vector<uint8_t> msg;
    uint32_t len;
    int err1, err2;
  } cases[] = {
      {"shorter than a header", good, 59, EINVAL, EINVAL},
      {"no such endpoint", makeMsg(100, 1, 90, 0), 100, ENOENT, ECONNREFUSED},
      {"queue id of no kind", good, 100, EINVAL, EINVAL},
      {"foreign card", good, 100, EHOSTUNREACH, EHOSTUNREACH},
      {"above the send limit", makeMsg(101, 1, 76, 0), 101, EMSGSIZE, EMSGSIZE},
  };
  rtm::st32(cases[2].msg.data(), IPC_OFF_TGT_SVCE, 0x004C0000);
  rtm::st32(cases[3].msg.data(), IPC_OFF_TGT_CARD, 0x0A000001);
  ASSERT_EQ(qorIpcSetSendBufferLimit(aq, 100), 0);
  for (auto &c : cases) {
    errno = 0;
    EXPECT_EQ(qorIpcSend(aq, c.msg.data(), c.len), -1) << c.what;
    EXPECT_TRUE(errno == c.err1 || errno == c.err2) << c.what << ": " << errno;
  }
  EXPECT_EQ(qorIpcSend(aq, good.data(), 100), 0);
  QorIpcStats s;
  ASSERT_EQ(qorIpcGetQueueStats(aq, &s), 0);
  EXPECT_EQ(s.sendErrors, 5u);
  EXPECT_EQ(s.sent, 1u);
}

TEST_F(IpcTest, ABurstOfMixedLengthsComesBackWholeAndInOrderThenTheQueueTimesOut) {
  int aq = Key_getReqQueue(qorIpcOpen(76, 0)), bq = Key_getReqQueue(qorIpcOpen(138, 0));
  ASSERT_EQ(qorIpcSetSendBufferLimit(aq, 100000), 0);
  // Several datagrams reach the reserve in one batch; buffers of messages taken are used
  // again for later ones, so a short message after a long one must not come back with the
  // long one's tail, and one beyond what the reserve keeps whole is reported, not cut short.
  struct Case {
    uint32_t len, bufSize;
    int want;  // the length, or -1 for EMSGSIZE
  } cases[] = {
      {8192, 8192, 8192}, {68, 8192, 68},     {90000, 8192, -1}, {100, 8192, 100},
      {8192, 4000, -1},   {4000, 8192, 4000}, {60, 60, 60},      {8191, 8192, 8191},
  };
  for (const Case &c : cases) ASSERT_EQ(qorIpcSend(aq, makeMsg(c.len, c.len, 138, 0).data(), c.len), 0);
  std::vector<uint8_t> buf(8192);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.len);
    std::fill(buf.begin(), buf.end(), 0xEE);
    errno = 0;
    const int n = qorIpcRecv(bq, buf.data(), c.bufSize, QOR_IPC_NOWAIT, 0, 0);
    EXPECT_EQ(n, c.want);
    const auto sent = makeMsg(c.len, c.len, 138, 0);
    if (c.want < 0) {
      EXPECT_EQ(errno, EMSGSIZE);
      EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + c.bufSize, sent.begin()));
    } else {
      EXPECT_TRUE(std::equal(sent.begin(), sent.end(), buf.begin()));
    }
    const size_t written = c.want < 0 ? c.bufSize : size_t(c.want);
    EXPECT_TRUE(std::all_of(buf.begin() + written, buf.end(), [](uint8_t b) { return b == 0xEE; }))
        << "wrote past the message";
  }
  errno = 0;
  EXPECT_EQ(recv(bq, buf.data(), 8192), -1);
  EXPECT_EQ(errno, EAGAIN);
  errno = 0;
  EXPECT_EQ(qorIpcRecv(bq, buf.data(), 8192, QOR_IPC_WAIT_TIMEOUT, 20, 0), -1);
  EXPECT_EQ(errno, QOR_IPC_ETIMEDOUT);
  QorIpcStats s;
  ASSERT_EQ(qorIpcGetQueueStats(bq, &s), 0);
  EXPECT_EQ(std::make_tuple(s.received, s.recvErrors, s.timeouts), std::make_tuple(6u, 2u, 1u));
}

TEST_F(IpcTest, ReserveHoldsABurstBeyondTheKernelQueueAndStaysSelectable) {
  int aq = Key_getReqQueue(qorIpcOpen(76, 0)), bq = Key_getReqQueue(qorIpcOpen(138, 0));
  int fd = Key_getSocketFd(bq);
  // More messages than the kernel keeps for one socket: each refusal is cured by the
  // receiver moving what the kernel holds into its reserve.
  constexpr int kBurst = 300;
  for (int i = 0; i < kBurst; ++i) {
    auto m = makeMsg(100, static_cast<uint32_t>(i), 138, 0);
    while (qorIpcSendNoWait(aq, m.data(), 100) != 0) {
      ASSERT_EQ(errno, EAGAIN);
      qorIpcGetNumMsgs(bq);
    }
  }
  EXPECT_EQ(qorIpcGetNumMsgs(bq), kBurst);
  uint8_t buf[256];
  for (int i = 0; i < kBurst; ++i) {
    ASSERT_TRUE(readable(fd)) << "message " << i << " waits but the descriptor is quiet";
    ASSERT_EQ(recv(bq, buf, sizeof buf), 100);
    ASSERT_EQ(ld32(buf, IPC_OFF_MTYPE), static_cast<uint32_t>(i));
  }
  EXPECT_FALSE(readable(fd));

  // The receive limit bounds what the reserve takes; the rest waits in the kernel.
  ASSERT_EQ(qorIpcSetRecvBufferLimit(bq, 250), 0);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(qorIpcSend(aq, makeMsg(100, 1, 138, 0).data(), 100), 0);
  EXPECT_EQ(qorIpcGetNumMsgs(bq), 3);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(recv(bq, buf, sizeof buf), 100);
}

// Sends reach a queue through a socket kept connected to it: a peer that goes away and comes
// back at the same address must be found again, and one that stays away must be reported as
// before, never left behind a connection to a socket that is gone.
TEST_F(IpcTest, APeerThatGoesAwayIsReportedAndFoundAgainWhenItComesBack) {
  const int sender = Key_getReqQueue(qorIpcOpen(70, 0));
  const auto msg = makeMsg(200, 7, 71, 0);
  enum Peer { Same, Restarted, Gone };
  // The first send makes the connection and the second uses it; then the peer restarts at the
  // same address, goes away for two sends and comes back.
  const Peer steps[] = {Same, Same, Restarted, Same, Gone, Gone, Restarted};
  int peerKey = qorIpcOpen(71, 0);
  uint64_t errors = 0;
  std::vector<uint8_t> buf(RTM_IPC_BUF_SIZE);
  for (size_t i = 0; i < std::size(steps); ++i) {
    SCOPED_TRACE(i);
    if (steps[i] != Same) {
      if (peerKey > 0) qorIpcClose(peerKey);
      peerKey = steps[i] == Restarted ? qorIpcOpen(71, 0) : 0;
    }
    errno = 0;
    const int rc = qorIpcSendNoWait(sender, msg.data(), 200);
    if (steps[i] == Gone) {
      EXPECT_EQ(rc, -1);
      EXPECT_TRUE(errno == ENOENT || errno == ECONNREFUSED) << errno;
      ++errors;
      continue;
    }
    ASSERT_GT(peerKey, 0);
    ASSERT_EQ(rc, 0) << errno;
    ASSERT_EQ(recv(Key_getReqQueue(peerKey), buf.data(), RTM_IPC_BUF_SIZE), 200);
    EXPECT_EQ(ld32(buf.data(), IPC_OFF_MTYPE), 7u);
  }
  QorIpcStats st;
  ASSERT_EQ(qorIpcGetQueueStats(sender, &st), 0);
  EXPECT_EQ(std::make_tuple(st.sent, st.sendErrors), std::make_tuple(std::size(steps) - errors, errors));
}

TEST_F(IpcTest, SendAndWaitRetriesAndTakesOnlyTheAnswerWithItsTransactionCode) {
  int a = qorIpcOpen(76, 0), b = qorIpcOpen(138, 0);
  int bq = Key_getReqQueue(b);
  std::atomic<int> seen{0};
  std::thread responder([&] {
    std::vector<uint8_t> in(8192);
    int n;
    while ((n = qorIpcRecv(bq, in.data(), 8192, QOR_IPC_WAIT_TIMEOUT, 5000, 0)) > 0) {
      if (++seen == 1) continue;  // the first attempt goes unanswered: the caller must retry
      uint32_t trans = ld32(in.data(), IPC_OFF_TRANSCODE);
      rtm::st32(in.data(), IPC_OFF_TRANSCODE, trans + 1);  // a stale answer first
      qorIpcReply(b, in.data(), static_cast<uint32_t>(n));
      rtm::st32(in.data(), IPC_OFF_TRANSCODE, trans);
      rtm::st32(in.data(), IPC_OFF_MSTATUS, 42);
      qorIpcReply(b, in.data(), static_cast<uint32_t>(n));
      return;
    }
  });
  auto req = makeMsg(96, 0x3201, 138, 0, 0xABCD);
  std::vector<uint8_t> reply(256);
  int rc = qorIpcSendWaitWithRetry(a, req.data(), reply.data(), 96, 256, 50, 0x3201, 50, 0);
  responder.join();
  ASSERT_EQ(rc, 0);
  EXPECT_EQ(seen.load(), 2);
  EXPECT_EQ(ld32(reply.data(), IPC_OFF_MSTATUS), 42u);
  EXPECT_EQ(ld32(req.data(), IPC_OFF_SRC_SVCE), qor_getQueueId(76, 0, QOR_IPC_QUEUE_RSP));

  // A missing target fails at once; a silent one after the first attempt and the retries.
  auto lost = makeMsg(64, 1, 139, 0, 1);
  errno = 0;
  EXPECT_EQ(qorIpcSendWaitWithRetry(a, lost.data(), reply.data(), 64, 256, 50, 1, 10000, 0), -1);
  EXPECT_TRUE(errno == ENOENT || errno == ECONNREFUSED);
  auto silent = makeMsg(64, 1, 138, 0, 2);
  errno = 0;
  EXPECT_EQ(qorIpcSendWaitWithRetry(a, silent.data(), reply.data(), 64, 256, 2, 1, 5, 0), -1);
  EXPECT_EQ(errno, 60);
  EXPECT_EQ(qorIpcGetNumMsgs(bq), 3);
}

TEST_F(IpcTest, TimerExpiriesArriveOnTheTimerQueueAndRunTheirCallbackThere) {
  qorClockUseManual(true);
  int key = qorIpcOpen(76, 0);
  ASSERT_EQ(qorIpcTmrOpen(76, 0), 0);
  int tq = Key_getTmrQueue(key), fd = Key_getSocketFd(tq);
  // More expiries at once than the kernel would queue for one socket; one timer is cancelled
  // after it fired, so its message arrives but must not run the callback.
  static std::atomic<int> runs;
  runs = 0;
  constexpr int kTimers = 30;
  std::vector<vx2bsdTimer_t> timers;
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(vx2bsdTimerCreate());
    ASSERT_EQ(vx2bsdTimerStart(timers.back(), 2, [](void *) { ++runs; }, nullptr, 0), 0);
  }
  qorClockAdvance(2 * sysClkRateGet());
  EXPECT_EQ(runs.load(), 0);  // nothing runs on the firing thread
  vx2bsdTimerCancel(timers[0]);
  ASSERT_TRUE(readable(fd));
  EXPECT_EQ(qorIpcGetNumMsgs(tq), kTimers);
  uint8_t buf[256];
  for (int i = 0; i < kTimers; ++i) {
    ASSERT_EQ(recv(tq, buf, sizeof buf), static_cast<int>(QOR_TIMER_EXPIRY_LEN));
    EXPECT_EQ(ld32(buf, IPC_OFF_MTYPE), 0x07D7u);  // the dispatcher drops it
  }
  EXPECT_EQ(runs.load(), kTimers - 1);
  EXPECT_FALSE(readable(fd));
  qorIpcClose(key);
  qorTimerReset();
  qorClockUseManual(false);
}

}  // namespace
