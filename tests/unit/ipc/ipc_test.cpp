#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "ipc/qor_ipc.h"
#include "ipc_test_util.h"
#include "log/qor_log.h"
#include "timer/qor_timer.h"

using ipctest::makeMsg;
using ipctest::RunDir;
using ipctest::setSource;

namespace {

// A socket bound at path by "another process": held open while the object lives.
struct ForeignSocket {
  int fd = -1;
  explicit ForeignSocket(const std::string &path) {
    fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    strncpy(sa.sun_path, path.c_str(), sizeof sa.sun_path - 1);
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
      close(fd);
      fd = -1;
    }
  }
  ~ForeignSocket() {
    if (fd >= 0) close(fd);
  }
};

bool readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, 0) == 1;
}

class IpcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qorLogReset();
    qorLogSetEcho(false);
  }
  RunDir dir;
};

TEST(IpcNames, QueueIdsAndPathsFollowTheDocumentedArithmetic) {
  RunDir dir;
  struct Case {
    uint32_t svce, inst, kind, id;
    const char *file;
  } cases[] = {
      {76, 0, QOR_IPC_QUEUE_REQ, 0x004C0001, "76.0"},
      {76, 0, QOR_IPC_QUEUE_TMR, 0x004C0002, "76.0.tmr"},
      {138, 5, QOR_IPC_QUEUE_RSP, 0x008A0053, "138.5.rsp"},
      {0xFFFF, 0xFFF, QOR_IPC_QUEUE_REQ, 0xFFFFFFF1, "65535.4095"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.file);
    EXPECT_EQ(qor_getQueueId(c.svce, c.inst, c.kind), c.id);
    uint32_t s, i, k;
    ASSERT_TRUE(qorIpcQueueIdSplit(c.id, &s, &i, &k));
    EXPECT_EQ(s, c.svce);
    EXPECT_EQ(i, c.inst);
    EXPECT_EQ(k, c.kind);
    char path[128];
    ASSERT_TRUE(qorIpcQueuePath(QOR_IPC_LOCAL_CARD, c.id, path, sizeof path));
    EXPECT_EQ(std::string(path), dir.socket(c.file));
  }
  // Out of range: no id, and no path for a foreign card or a kind that does not exist.
  EXPECT_EQ(qor_getQueueId(0x10000, 0, 1), 0u);
  EXPECT_EQ(qor_getQueueId(76, 0x1000, 1), 0u);
  EXPECT_EQ(qor_getQueueId(76, 0, 0), 0u);
  EXPECT_EQ(qor_getQueueId(76, 0, 4), 0u);
  char path[128];
  EXPECT_FALSE(qorIpcQueuePath(0x0A000001, 0x004C0001, path, sizeof path));
  EXPECT_FALSE(qorIpcQueuePath(QOR_IPC_LOCAL_CARD, 0x004C0000, path, sizeof path));
  EXPECT_FALSE(qorIpcQueuePath(QOR_IPC_LOCAL_CARD, 0x004C0001, path, 8));
}

TEST(IpcNames, RunDirectoryThatCannotHoldASocketPathIsRefused) {
  std::string longDir(100, 'd');
  errno = 0;
  EXPECT_EQ(qorIpcSetRunDir(("/tmp/" + longDir).c_str()), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(qorIpcSetRunDir(""), -1);
}

TEST_F(IpcTest, OnlyALiveEndpointResolves) {
  int32_t err = 0;
  EXPECT_EQ(qor_tmeGetPeerIpAddrByName(76, 0, &err), -1);
  EXPECT_EQ(err, -1);
  EXPECT_EQ(qor_tmeGetSlotByName(76, 0), -1);

  int key = qorIpcOpen(76, 0);
  ASSERT_GT(key, 0);
  err = 0;
  EXPECT_EQ(qor_tmeGetPeerIpAddrByName(76, 0, &err), static_cast<int32_t>(QOR_IPC_LOCAL_CARD));
  EXPECT_EQ(err, 0);
  EXPECT_EQ(qor_tmeGetTaskIpAddrByName(76, 0, &err), static_cast<int32_t>(QOR_IPC_LOCAL_CARD));
  EXPECT_EQ(qor_tmeGetSlotByName(76, 0), 0);
  EXPECT_EQ(qor_tmeGetPeerIpAddrByName(76, 1, &err), -1);  // another instance

  ASSERT_EQ(qorIpcClose(key), 0);
  EXPECT_EQ(qor_tmeGetPeerIpAddrByName(76, 0, &err), -1);
  EXPECT_EQ(err, -1);

  // A socket file whose process has gone does not count, and a new owner replaces it.
  { ForeignSocket dead(dir.socket("77.0")); }
  struct stat st;
  ASSERT_EQ(stat(dir.socket("77.0").c_str(), &st), 0);
  EXPECT_EQ(qor_tmeGetPeerIpAddrByName(77, 0, &err), -1);
  int k2 = qorIpcOpen(77, 0);
  EXPECT_GT(k2, 0);
  EXPECT_EQ(qor_tmeGetPeerIpAddrByName(77, 0, &err), static_cast<int32_t>(QOR_IPC_LOCAL_CARD));
}

TEST_F(IpcTest, EndpointHeldByALiveProcessCannotBeOpenedTwice) {
  int key = qorIpcOpen(81, 0);
  ASSERT_GT(key, 0);
  EXPECT_EQ(qorIpcOpen(81, 0), -1);  // held by this very process

  ForeignSocket live(dir.socket("80.3"));
  ASSERT_GE(live.fd, 0);
  errno = 0;
  EXPECT_EQ(qorIpcOpen(80, 3), -1);
  EXPECT_EQ(errno, EADDRINUSE);
  EXPECT_EQ(qorIpcOpen(0x10000, 0), -1);
}

TEST_F(IpcTest, RunDirectoryAndSocketsArePrivate) {
  qorIpcSetRunDir((dir.path() + "/nested/run").c_str());
  int key = qorIpcOpen(76, 0);
  ASSERT_GT(key, 0);
  ASSERT_EQ(qorIpcTmrOpen(76, 0), 0);
  const std::string run = dir.path() + "/nested/run";
  struct stat st;
  for (const std::string &d : {dir.path() + "/nested", run, run + "/ipc"}) {
    ASSERT_EQ(stat(d.c_str(), &st), 0) << d;
    EXPECT_EQ(st.st_mode & 0777, 0700u) << d;
  }
  for (const char *f : {"76.0", "76.0.tmr", "76.0.rsp"}) {
    SCOPED_TRACE(f);
    ASSERT_EQ(stat((run + "/ipc/" + f).c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
  }
  EXPECT_NE(Key_getTmrQueue(key), 0);
  EXPECT_EQ(qorIpcTmrOpen(99, 0), -1);  // no key for that name
  ASSERT_EQ(qorIpcClose(key), 0);
  EXPECT_NE(stat((run + "/ipc/76.0.tmr").c_str(), &st), 0);
}

TEST_F(IpcTest, SendAndReplyBetweenTwoKeys) {
  int a = qorIpcOpen(76, 0), b = qorIpcOpen(138, 0);
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);
  int aq = Key_getReqQueue(a), bq = Key_getReqQueue(b);

  auto req = makeMsg(80, 0x2A32, 138, 0, 0x1234);
  setSource(req, a);
  ASSERT_EQ(qorIpcSend(aq, req.data(), 80), 0);
  EXPECT_EQ(qorIpcGetNumMsgs(bq), 1);

  std::vector<uint8_t> in(8192);
  ASSERT_EQ(qorIpcRecv(bq, in.data(), 8192, QOR_IPC_NOWAIT, 0, 0), 80);
  EXPECT_TRUE(std::equal(req.begin(), req.end(), in.begin()));
  EXPECT_EQ(qorIpcGetNumMsgs(bq), 0);

  rtm::st32(in.data(), IPC_OFF_MSTATUS, 7);
  std::vector<uint8_t> before(in.begin(), in.begin() + 80);
  ASSERT_EQ(qorIpcReply(b, in.data(), 80), 0);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), in.begin()));  // caller's buffer kept

  std::vector<uint8_t> ans(8192);
  ASSERT_EQ(qorIpcRecv(aq, ans.data(), 8192, QOR_IPC_NOWAIT, 0, 0), 80);
  EXPECT_EQ(rtm::ld32(ans.data(), IPC_OFF_MSTATUS), 7u);
  EXPECT_EQ(rtm::ld32(ans.data(), IPC_OFF_TGT_SVCE), qor_getQueueId(76, 0, 1));
  EXPECT_EQ(rtm::ld32(ans.data(), IPC_OFF_SRC_SVCE), qor_getQueueId(138, 0, 1));
  EXPECT_EQ(rtm::ld32(ans.data(), IPC_OFF_SRC_CARD), QOR_IPC_LOCAL_CARD);
  EXPECT_TRUE(std::equal(req.begin() + IPC_HDR_LEN, req.end(), ans.begin() + IPC_HDR_LEN));

  QorIpcStats sa, sb;
  ASSERT_EQ(qorIpcGetKeyStats(a, &sa), 0);
  ASSERT_EQ(qorIpcGetKeyStats(b, &sb), 0);
  EXPECT_EQ(sa.sent, 1u);
  EXPECT_EQ(sa.received, 1u);
  EXPECT_EQ(sb.sent, 1u);
  EXPECT_EQ(sb.received, 1u);
  EXPECT_EQ(sa.sendErrors + sb.sendErrors + sa.recvErrors + sb.recvErrors, 0u);
}

TEST_F(IpcTest, SendRefusalsAreReportedAndCounted) {
  int a = qorIpcOpen(76, 0);
  ASSERT_GT(a, 0);
  int aq = Key_getReqQueue(a);
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
  };
  rtm::st32(cases[2].msg.data(), IPC_OFF_TGT_SVCE, 0x004C0000);
  rtm::st32(cases[3].msg.data(), IPC_OFF_TGT_CARD, 0x0A000001);
  for (auto &c : cases) {
    SCOPED_TRACE(c.what);
    errno = 0;
    EXPECT_EQ(qorIpcSend(aq, c.msg.data(), c.len), -1);
    EXPECT_TRUE(errno == c.err1 || errno == c.err2) << errno;
  }
  // Send limit: the largest datagram the queue sends.
  ASSERT_EQ(qorIpcSetSendBufferLimit(aq, 100), 0);
  auto big = makeMsg(101, 1, 76, 0);
  EXPECT_EQ(qorIpcSend(aq, big.data(), 101), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(qorIpcSend(aq, good.data(), 100), 0);

  QorIpcStats s;
  ASSERT_EQ(qorIpcGetQueueStats(aq, &s), 0);
  EXPECT_EQ(s.sendErrors, 5u);
  EXPECT_EQ(s.sent, 1u);
  EXPECT_EQ(qorIpcSend(9999, good.data(), 100), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(IpcTest, ReceiveWithoutWaitingAndWithATimeOut) {
  int a = qorIpcOpen(76, 0);
  ASSERT_GT(a, 0);
  int aq = Key_getReqQueue(a);
  uint8_t buf[128];
  errno = 0;
  EXPECT_EQ(qorIpcRecv(aq, buf, sizeof buf, QOR_IPC_NOWAIT, 0, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
  errno = 0;
  EXPECT_EQ(qorIpcRecv(aq, buf, sizeof buf, QOR_IPC_WAIT_TIMEOUT, 20, 0), -1);
  EXPECT_EQ(errno, 60);
  ASSERT_EQ(qorIpcSetRecvTimeout(aq, 10), 0);
  errno = 0;
  EXPECT_EQ(qorIpcRecv(aq, buf, sizeof buf, QOR_IPC_WAIT_TIMEOUT, 0, 0), -1);
  EXPECT_EQ(errno, 60);
  QorIpcStats s;
  qorIpcGetQueueStats(aq, &s);
  EXPECT_EQ(s.timeouts, 2u);
  EXPECT_EQ(qorIpcRecv(aq, buf, sizeof buf, 3, 0, 0), -1);  // no such mode
  EXPECT_EQ(errno, EINVAL);

  // A waiting receive returns as soon as a message arrives.
  std::thread t([] {
    auto m = makeMsg(64, 5, 76, 0);
    int k = qorIpcOpen(200, 0);
    qorIpcSend(Key_getReqQueue(k), m.data(), 64);
  });
  EXPECT_EQ(qorIpcRecv(aq, buf, sizeof buf, QOR_IPC_WAIT_TIMEOUT, 10000, 0), 64);
  t.join();
}

TEST_F(IpcTest, LongerMessageIsTruncatedToTheBufferAndReportedAsAnError) {
  int a = qorIpcOpen(76, 0);
  ASSERT_GT(a, 0);
  int aq = Key_getReqQueue(a);
  auto big = makeMsg(500, 1, 76, 0);
  auto next = makeMsg(70, 2, 76, 0);
  ASSERT_EQ(qorIpcSend(aq, big.data(), 500), 0);
  ASSERT_EQ(qorIpcSend(aq, next.data(), 70), 0);

  std::vector<uint8_t> buf(200, 0xEE);
  errno = 0;
  EXPECT_EQ(qorIpcRecv(aq, buf.data(), 100, QOR_IPC_NOWAIT, 0, 0), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_TRUE(std::equal(big.begin(), big.begin() + 100, buf.begin()));
  for (size_t i = 100; i < buf.size(); ++i) ASSERT_EQ(buf[i], 0xEE) << "wrote past size at " << i;
  // The long message is gone; the next one comes whole.
  EXPECT_EQ(qorIpcRecv(aq, buf.data(), 200, QOR_IPC_NOWAIT, 0, 0), 70);
  EXPECT_EQ(rtm::ld32(buf.data(), IPC_OFF_MTYPE), 2u);
  QorIpcStats s;
  qorIpcGetQueueStats(aq, &s);
  EXPECT_EQ(s.recvErrors, 1u);
  EXPECT_EQ(s.received, 1u);
}

TEST_F(IpcTest, ReserveHoldsABurstBeyondTheKernelQueueAndStaysSelectable) {
  int a = qorIpcOpen(76, 0), b = qorIpcOpen(138, 0);
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);
  int aq = Key_getReqQueue(a), bq = Key_getReqQueue(b);
  int fd = Key_getSocketFd(bq);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(readable(fd));

  // More messages than the kernel keeps for one socket: each refusal is cured by the
  // receiver moving what the kernel holds into its reserve.
  constexpr int kBurst = 300;
  for (int i = 0; i < kBurst; ++i) {
    auto m = makeMsg(100, static_cast<uint32_t>(i), 138, 0);
    int rc;
    while ((rc = qorIpcSendNoWait(aq, m.data(), 100)) != 0) {
      ASSERT_EQ(errno, EAGAIN);
      qorIpcGetNumMsgs(bq);
    }
  }
  EXPECT_EQ(qorIpcGetNumMsgs(bq), kBurst);
  uint8_t buf[256];
  for (int i = 0; i < kBurst; ++i) {
    ASSERT_TRUE(readable(fd)) << "message " << i << " waits but the descriptor is quiet";
    ASSERT_EQ(qorIpcRecv(bq, buf, sizeof buf, QOR_IPC_NOWAIT, 0, 0), 100);
    ASSERT_EQ(rtm::ld32(buf, IPC_OFF_MTYPE), static_cast<uint32_t>(i));
  }
  EXPECT_FALSE(readable(fd));

  // The receive limit bounds what the reserve takes; the rest waits in the kernel.
  ASSERT_EQ(qorIpcSetRecvBufferLimit(bq, 250), 0);
  for (int i = 0; i < 5; ++i) {
    auto m = makeMsg(100, static_cast<uint32_t>(i), 138, 0);
    ASSERT_EQ(qorIpcSend(aq, m.data(), 100), 0);
  }
  EXPECT_EQ(qorIpcGetNumMsgs(bq), 3);
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(qorIpcRecv(bq, buf, sizeof buf, QOR_IPC_NOWAIT, 0, 0), 100);
    EXPECT_EQ(rtm::ld32(buf, IPC_OFF_MTYPE), static_cast<uint32_t>(i));
  }
}

TEST_F(IpcTest, SendAndWaitMatchesTheAnswerByTransactionCodeAndRetries) {
  int a = qorIpcOpen(76, 0), b = qorIpcOpen(138, 0);
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);
  int bq = Key_getReqQueue(b);
  std::atomic<int> seen{0};
  std::thread responder([&] {
    std::vector<uint8_t> in(8192);
    for (;;) {
      int n = qorIpcRecv(bq, in.data(), 8192, QOR_IPC_WAIT_TIMEOUT, 5000, 0);
      if (n < 0) return;
      int k = ++seen;
      if (k == 1) continue;  // the first attempt goes unanswered: the caller must retry
      // A stale answer first, then the real one with the status filled in.
      uint32_t trans = rtm::ld32(in.data(), IPC_OFF_TRANSCODE);
      rtm::st32(in.data(), IPC_OFF_TRANSCODE, trans + 1);
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
  EXPECT_EQ(rtm::ld32(reply.data(), IPC_OFF_TRANSCODE), 0xABCDu);
  EXPECT_EQ(rtm::ld32(reply.data(), IPC_OFF_MSTATUS), 42u);
  // The request named the key's response queue as its source.
  EXPECT_EQ(rtm::ld32(req.data(), IPC_OFF_SRC_SVCE), qor_getQueueId(76, 0, QOR_IPC_QUEUE_RSP));
}

TEST_F(IpcTest, SendAndWaitFailsAtOnceForAMissingTargetAndAfterRetriesForASilentOne) {
  int a = qorIpcOpen(76, 0), b = qorIpcOpen(138, 0);
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);
  std::vector<uint8_t> reply(256);
  auto lost = makeMsg(64, 1, 139, 0, 1);
  errno = 0;
  EXPECT_EQ(qorIpcSendWaitWithRetry(a, lost.data(), reply.data(), 64, 256, 50, 1, 10000, 0), -1);
  EXPECT_TRUE(errno == ENOENT || errno == ECONNREFUSED);

  auto silent = makeMsg(64, 1, 138, 0, 2);
  errno = 0;
  EXPECT_EQ(qorIpcSendWaitWithRetry(a, silent.data(), reply.data(), 64, 256, 2, 1, 5, 0), -1);
  EXPECT_EQ(errno, 60);
  EXPECT_EQ(qorIpcGetNumMsgs(Key_getReqQueue(b)), 3);  // the first attempt and two retries
}

TEST_F(IpcTest, TimerExpiriesArriveOnTheTimerQueueAndRunTheirCallbackThere) {
  qorClockUseManual(true);
  int key = qorIpcOpen(76, 0);
  ASSERT_GT(key, 0);
  ASSERT_EQ(qorIpcTmrOpen(76, 0), 0);
  int tq = Key_getTmrQueue(key);
  int fd = Key_getSocketFd(tq);

  // More expiries at once than the kernel would queue for one socket; one of them is
  // cancelled after it fired, so its message arrives but must not run the callback.
  static std::atomic<int> runs;
  runs = 0;
  constexpr int kTimers = 30;
  std::vector<vx2bsdTimer_t> timers;
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(vx2bsdTimerCreate());
    ASSERT_EQ(vx2bsdTimerStart(timers.back(), 2, [](void *) { ++runs; }, nullptr, 0), 0);
  }
  EXPECT_FALSE(readable(fd));
  qorClockAdvance(2 * sysClkRateGet());
  EXPECT_EQ(runs.load(), 0);  // nothing runs on the firing thread
  vx2bsdTimerCancel(timers[0]);
  ASSERT_TRUE(readable(fd));
  EXPECT_EQ(qorIpcGetNumMsgs(tq), kTimers);

  uint8_t buf[256];
  for (int i = 0; i < kTimers; ++i) {
    ASSERT_EQ(qorIpcRecv(tq, buf, sizeof buf, QOR_IPC_NOWAIT, 0, 0),
              static_cast<int>(QOR_TIMER_EXPIRY_LEN));
    EXPECT_EQ(rtm::ld32(buf, IPC_OFF_MTYPE), 0x07D7u);  // the dispatcher drops it
    EXPECT_FALSE(qorTimerIsExpiryMsg(buf, QOR_TIMER_EXPIRY_LEN));
  }
  EXPECT_EQ(runs.load(), kTimers - 1);
  EXPECT_FALSE(readable(fd));

  qorIpcClose(key);
  qorTimerReset();
  qorClockUseManual(false);
}

}  // namespace
