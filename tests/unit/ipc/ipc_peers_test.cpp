// Sends reach a queue through a socket kept connected to it: a peer that goes away and comes
// back at the same address must be found again, and one that stays away must be reported as
// before, never left behind a connection to a socket that is gone.
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "ipc/qor_ipc.h"
#include "ipc_test_util.h"
#include "log/qor_log.h"

using ipctest::makeMsg;
using ipctest::RunDir;

namespace {

int recvNow(int q, std::vector<uint8_t> &buf) {
  return qorIpcRecv(q, buf.data(), static_cast<uint32_t>(buf.size()), QOR_IPC_WAIT_TIMEOUT, 1000, 0);
}

TEST(IpcPeers, APeerThatGoesAwayIsReportedAndFoundAgainWhenItComesBack) {
  qorLogSetEcho(false);
  RunDir dir;
  const int sender = Key_getReqQueue(qorIpcOpen(70, 0));
  std::vector<uint8_t> buf(RTM_IPC_BUF_SIZE);
  auto msg = makeMsg(200, 7, 71, 0);
  struct Step {
    const char *what;
    bool peerOpen;      // the peer's endpoint exists when the message is sent
    bool reopenBefore;  // the peer's endpoint is closed and opened anew before the send
  } steps[] = {
      {"first send: the connection is made", true, false},
      {"second send: on the kept connection", true, false},
      {"the peer restarted at the same address", true, true},
      {"and again on the new connection", true, false},
      {"the peer is gone", false, false},
      {"still gone", false, false},
      {"the peer is back", true, true},
  };
  int peerKey = qorIpcOpen(71, 0);
  uint64_t sent = 0, errors = 0;
  for (const Step &s : steps) {
    SCOPED_TRACE(s.what);
    if (s.reopenBefore || !s.peerOpen) {
      if (peerKey > 0) qorIpcClose(peerKey);
      peerKey = s.peerOpen ? qorIpcOpen(71, 0) : 0;
      if (s.peerOpen) {
        ASSERT_GT(peerKey, 0);
      }
    }
    errno = 0;
    const int rc = qorIpcSendNoWait(sender, msg.data(), static_cast<uint32_t>(msg.size()));
    if (s.peerOpen) {
      ASSERT_EQ(rc, 0) << errno;
      ++sent;
      ASSERT_EQ(recvNow(Key_getReqQueue(peerKey), buf), 200);
      EXPECT_EQ(rtm::ld32(buf.data(), IPC_OFF_MTYPE), 7u);
    } else {
      EXPECT_EQ(rc, -1);
      EXPECT_TRUE(errno == ENOENT || errno == ECONNREFUSED) << errno;
      ++errors;
    }
  }
  QorIpcStats st;
  ASSERT_EQ(qorIpcGetQueueStats(sender, &st), 0);
  EXPECT_EQ(st.sent, sent);
  EXPECT_EQ(st.sendErrors, errors);
}

}  // namespace
