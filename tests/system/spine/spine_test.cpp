// rtmd as a process: it comes up, registers with IFM over the real sockets until IFM answers,
// answers what it does not know, drops what is malformed, and stops on SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <vector>

#include "ipc/qor_ipc.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_wire.h"
#include "tests/support/rtmd_process.h"

using namespace rtmtest;
using Clock = std::chrono::steady_clock;

namespace {
constexpr uint32_t kIfm = 138, kRtm = 76, kPeer = 900;

int msSince(Clock::time_point t) {
  return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

class Spine : public ::testing::Test {
 protected:
  void SetUp() override {
    qorIpcReset();
    ASSERT_EQ(qorIpcSetRunDir(dir.path().c_str()), 0);
    // IFM's endpoint exists before rtmd starts, as in a chassis.
    ifm = qorIpcOpen(kIfm, 0);
    ASSERT_GE(ifm, 0);
    log = dir.path() + "/rtmd.log";
    rtmd = std::make_unique<Process>(builtBinary("src/frame/rtmd"),
                                     std::vector<std::string>{"--run-dir", dir.path(), "--log-file", log});
    ASSERT_GT(rtmd->pid(), 0);
    ASSERT_TRUE(waitForText(log, "RTM Task is Ready", 10000)) << readFile(log);
  }
  void TearDown() override {
    rtmd.reset();
    qorIpcReset();
  }
  // Next IFM registration, or -1 on time-out.
  int nextRegistration(uint8_t *buf, int timeoutMs) {
    auto t0 = Clock::now();
    while (msSince(t0) < timeoutMs) {
      int n = qorIpcRecv(Key_getReqQueue(ifm), buf, RTM_IPC_BUF_SIZE, QOR_IPC_WAIT_TIMEOUT, 200, 0);
      if (n >= 0 && rtm::ld32(buf, IPC_OFF_MTYPE) == MT_IFM_REGISTER) return n;
    }
    return -1;
  }

  TempDir dir;
  std::string log;
  int ifm = -1;
  std::unique_ptr<Process> rtmd;
};

TEST_F(Spine, IfmRegistrationIsRetriedUntilAnsweredThenStops) {
  uint8_t buf[RTM_IPC_BUF_SIZE];
  int n = nextRegistration(buf, 5000);
  ASSERT_EQ(n, 2632);
  EXPECT_EQ(rtm::ld32(buf, IPC_OFF_MLEN), 2632u);
  EXPECT_EQ(rtm::ld32(buf, 60), kRtm);  // the registrant
  // Unanswered, it comes again, about once a second.
  int again = 0;
  auto t0 = Clock::now();
  while (again < 2 && msSince(t0) < 6000)
    if (nextRegistration(buf, 6000 - msSince(t0)) > 0) ++again;
  EXPECT_EQ(again, 2);
  EXPECT_GE(msSince(t0), 1000);  // two retries cannot come within one second of each other
  // Answer: the same type back to the sender.
  ASSERT_EQ(qorIpcReply(ifm, buf, 2632), 0);
  // Registrations already in flight may still arrive; after that, silence.
  while (nextRegistration(buf, 1500) > 0) {
  }
  EXPECT_EQ(nextRegistration(buf, 2500), -1);
  EXPECT_EQ(rtmd->stop(SIGTERM, 5000), 0);
  EXPECT_NE(readFile(log).find("RTM is exiting..."), std::string::npos);
}

TEST_F(Spine, UnknownNmCommandIsAnsweredWithMinusOne) {
  int peer = qorIpcOpen(kPeer, 0);
  ASSERT_GE(peer, 0);
  uint8_t msg[96] = {}, reply[RTM_IPC_BUF_SIZE] = {};
  rtm::st32(msg, IPC_OFF_MTYPE, MT_NM_CMD);
  rtm::st32(msg, IPC_OFF_MLEN, sizeof msg);
  rtm::st32(msg, RTM_NM_OFF_SUBCODE, 0x7ABC);
  ASSERT_TRUE(addressMessage(msg, Key_getRspQueue(peer), kRtm, 0));
  ASSERT_EQ(qorIpcSendWaitWithRetry(peer, msg, reply, sizeof msg, sizeof reply, 3, MT_NM_CMD, 1000, 0), 0);
  EXPECT_EQ(rtm::ld32(reply, RTM_NM_OFF_STATUS), 0xFFFFFFFFu);
  EXPECT_EQ(rtm::ld32(reply, RTM_NM_OFF_SUBCODE), 0x7ABCu);
  EXPECT_TRUE(waitForText(log, "Unknown NM message (31420)", 2000));
  qorIpcClose(peer);
}

TEST_F(Spine, MessageLongerThanItsDatagramIsDroppedAndCounted) {
  int peer = qorIpcOpen(kPeer, 0);
  ASSERT_GE(peer, 0);
  uint8_t msg[100] = {};
  rtm::st32(msg, IPC_OFF_MTYPE, MT_CFG_START_BLK_CFG_NOTIF);
  rtm::st32(msg, IPC_OFF_MLEN, 4000);  // claims more than is sent
  ASSERT_TRUE(addressMessage(msg, Key_getReqQueue(peer), kRtm, 0));
  ASSERT_EQ(qorIpcSend(Key_getReqQueue(peer), msg, sizeof msg), 0);
  EXPECT_TRUE(waitForText(log, "Msg received short on request Q. rcvd 100 bytes, expected 4000 bytes", 3000))
      << readFile(log);
  // A datagram shorter than a header is no message at all. Our own library refuses to send
  // one, so it goes out through a bare socket.
  sockaddr_un to{};
  char path[sizeof to.sun_path];
  int32_t err = 0;
  ASSERT_TRUE(qorIpcQueuePath(static_cast<uint32_t>(qor_tmeGetPeerIpAddrByName(kRtm, 0, &err)),
                              qor_getQueueId(kRtm, 0, QOR_IPC_QUEUE_REQ), path, sizeof path));
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  to.sun_family = AF_UNIX;
  memcpy(to.sun_path, path, sizeof path);
  ASSERT_EQ(sendto(fd, msg, 40, 0, reinterpret_cast<sockaddr *>(&to), sizeof to), 40);
  close(fd);
  EXPECT_TRUE(waitForText(log, "rcvd 40 bytes, expected 60 bytes", 3000));
  EXPECT_EQ(rtmd->stop(SIGTERM, 5000), 0);
  qorIpcClose(peer);
}

}  // namespace
