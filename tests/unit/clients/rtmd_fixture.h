// rtmd brought up in-process on real sockets, with peers that talk to it in real message
// bytes: the fixture of the client and next-hop tests.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "mem/qor_mem.h"
#include "rtm/rtm_client_msgs.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_wire.h"
#include "swp/qor_swp.h"
#include "tests/support/rtmd_process.h"
#include "timer/qor_timer.h"

namespace rtmtest {

using Msg = std::vector<uint8_t>;

// A process that talks to rtmd: one endpoint (svce, inst).
struct Peer {
  int key = -1;
  uint32_t svce = 0, inst = 0;
  int queue() const { return Key_getReqQueue(key); }
};

// What a registration message says.
struct Reg {
  uint32_t proto = RTM_PROTO_OSPF, instance = 0;
  uint8_t afIndex = RTM_IPV4UNI_AFINDEX;
  uint32_t vrfId = 0;
  uint16_t multiQ = 0;
  uint32_t noOfQs = 0;
  const char *name = "client";
  uint32_t mtype = MT_RTM_REG_CLIENT;
};

class RtmdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qorLogReset();
    qorLogSetEcho(false);
    qorClockUseManual(true);
    ASSERT_EQ(qorIpcSetRunDir(dir.path().c_str()), 0);
    rtmClkRate = sysClkRateGet();
    rtmThreads = qorThreadInit(&rtmThreadMain, 0);
    ASSERT_GT(rtmThreads, 0);
    ASSERT_EQ(rtmTaskInit(1), 0);
    rtmIfmRegState = rtmChmRegState = 1;
    buffer.assign(RTM_IPC_BUF_SIZE, 0);
  }
  void TearDown() override {
    qorMemFailAfter(-1);
    for (Peer &p : peers) qorIpcClose(p.key);
    rtmFrameReset();
    qorClockUseManual(false);
    qorLogSetEcho(true);
  }

  Peer &open(uint32_t svce, uint32_t inst = 0) {
    peers.push_back({qorIpcOpen(svce, inst), svce, inst});
    EXPECT_GE(peers.back().key, 0);
    return peers.back();
  }

  // A zeroed message of len bytes with its header's length and type filled in.
  static Msg message(uint32_t mtype, uint32_t len) {
    Msg m(len, 0);
    rtm::st32(m.data(), IPC_OFF_MLEN, len);
    rtm::st32(m.data(), IPC_OFF_MTYPE, mtype);
    return m;
  }

  static Msg regMsg(const Peer &p, const Reg &r) {
    Msg m = message(r.mtype, RTM_REG_MSG_LEN);
    uint8_t *d = m.data();
    strncpy(reinterpret_cast<char *>(d + RTM_REG_OFF_NAME), r.name, RTM_REG_NAME_LEN);
    rtm::st32(d, RTM_REG_OFF_PROTO, r.proto), rtm::st32(d, RTM_REG_OFF_INSTANCE, r.instance);
    rtm::st32(d, RTM_REG_OFF_VRFID, r.vrfId), d[RTM_REG_OFF_AFINDEX] = r.afIndex;
    rtm::st32(d, RTM_REG_OFF_SVCE, p.svce), rtm::st32(d, RTM_REG_OFF_IPCINST, p.inst);
    rtm::st16(d, RTM_REG_OFF_MULTIQ, r.multiQ), rtm::st32(d, RTM_REG_OFF_NOOFQS, r.noOfQs);
    return m;
  }

  // A deregistration: of a client (family at its own offset), of one family, or of both (cid
  // is then the pair).
  static Msg deregMsg(uint32_t mtype, uint32_t cid, uint8_t af = 0) {
    const bool one = mtype == MT_RTM_DEREG_AF_CLIENT, both = mtype == MT_RTM_DEREG_CLIENT_BOTH;
    const uint32_t len = one ? RTM_DEREG_AF_MSG_LEN : both ? RTM_DEREG_BOTH_MSG_LEN : RTM_DEREG_MSG_LEN;
    Msg m = message(mtype, len);
    rtm::st32(m.data(), RTM_DEREG_OFF_CID, cid);
    if (!both) m[one ? RTM_DEREG_AF_OFF_AFINDEX : RTM_DEREG_OFF_AFINDEX] = af;
    return m;
  }
  // The ARP (select RTM_NONRT_ARP) or NDP manager announcing itself from peer p.
  static Msg nonRtMsg(const Peer &p, uint32_t select) {
    Msg m = message(MT_RTM_REG_NONRT_CLIENT, RTM_NONRT_MSG_LEN);
    rtm::st32(m.data(), RTM_NONRT_OFF_SELECT, select);
    rtm::st32(m.data(), RTM_NONRT_OFF_SVCE, p.svce), rtm::st32(m.data(), RTM_NONRT_OFF_INST, p.inst);
    return m;
  }

  // Sends msg (its mlen as written) from the peer to rtmd and lets rtmd handle all it has.
  void send(const Peer &p, Msg m) {
    ASSERT_TRUE(addressMessage(m.data(), p.queue(), RTM_SVCE, 0));
    ASSERT_EQ(qorIpcSend(p.queue(), m.data(), static_cast<uint32_t>(m.size())), 0);
    pump();
  }
  void pump() {
    while (rtmRecvFromAllQ(buffer.data(), 0) == 0) {
    }
  }

  // Everything that has reached the peer, oldest first (what reg() passed over included).
  std::vector<Msg> received(const Peer &p) {
    std::vector<Msg> out = std::move(backlog[p.key]);
    backlog.erase(p.key);
    for (;;) {
      Msg b(RTM_IPC_BUF_SIZE);
      int n = qorIpcRecv(p.queue(), b.data(), static_cast<uint32_t>(b.size()), QOR_IPC_NOWAIT, 0, 0);
      if (n <= 0) break;
      b.resize(static_cast<size_t>(n));
      out.push_back(std::move(b));
    }
    return out;
  }
  static std::vector<Msg> ofType(const std::vector<Msg> &all, uint32_t mtype) {
    std::vector<Msg> out;
    for (const Msg &m : all)
      if (m.size() >= IPC_HDR_LEN && rtm::ld32(m.data(), IPC_OFF_MTYPE) == mtype) out.push_back(m);
    return out;
  }
  // The status word (at `off`) of the one answer of type mtype that reached the peer; the
  // rest of what it received is dropped.
  uint32_t statusOf(const Peer &p, uint32_t mtype, size_t off = IPC_OFF_MSTATUS) {
    std::vector<Msg> answers = ofType(received(p), mtype);
    EXPECT_EQ(answers.size(), 1u);
    return answers.empty() ? 0xDEAD : rtm::ld32(answers[0].data(), off);
  }

  // Registers and gives the answer: mstatus, and reg_cid in *cid. What else reached the peer
  // (first contents of a new agent) waits for received().
  uint32_t reg(const Peer &p, const Reg &r, uint32_t *cid = nullptr) {
    send(p, regMsg(p, r));
    std::vector<Msg> all = received(p), answers;
    for (Msg &m : all) {
      if (rtm::ld32(m.data(), IPC_OFF_MTYPE) == r.mtype)
        answers.push_back(std::move(m));
      else
        backlog[p.key].push_back(std::move(m));
    }
    EXPECT_EQ(answers.size(), 1u);
    if (answers.empty()) return 0xDEAD;
    if (cid) *cid = rtm::ld32(answers[0].data(), RTM_REG_OFF_CID);
    return rtm::ld32(answers[0].data(), IPC_OFF_MSTATUS);
  }

  // The handle of a registration that must succeed.
  uint32_t registered(const Peer &p, const Reg &r) {
    uint32_t cid = 0;
    EXPECT_EQ(reg(p, r, &cid), RTM_REG_OK);
    return cid;
  }

  static bool queueExists(uint32_t q) { return q != 0 && qorSwpQueueGetLen(q) >= 0; }

  TempDir dir;
  std::vector<uint8_t> buffer;
  std::deque<Peer> peers;  // references to a peer stay valid
  std::map<int, std::vector<Msg>> backlog;
};

}  // namespace rtmtest
