// A private run directory per test, and message builders, shared by the ipc and swp tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ipc/qor_ipc.h"
#include "rtm/rtm_wire.h"
#include "tests/support/rtmd_process.h"

namespace ipctest {

// The process's endpoints live in a fresh directory for the test's lifetime.
struct RunDir : rtmtest::TempDir {
  RunDir() { qorIpcSetRunDir(path().c_str()); }
  ~RunDir() { qorIpcReset(); }
  std::string socket(const std::string &name) const { return path() + "/ipc/" + name; }
};

// A message of `len` bytes addressed to (svce, inst)'s queue of `kind`; payload bytes count up.
inline std::vector<uint8_t> makeMsg(uint32_t len, uint32_t mtype, uint32_t svce, uint32_t inst,
                                    uint32_t trans = 0, uint32_t kind = QOR_IPC_QUEUE_REQ) {
  std::vector<uint8_t> m(len, 0);
  rtm::st32(m.data(), IPC_OFF_MLEN, len);
  rtm::st32(m.data(), IPC_OFF_MTYPE, mtype);
  rtm::st32(m.data(), IPC_OFF_TRANSCODE, trans);
  rtm::st32(m.data(), IPC_OFF_TGT_CARD, QOR_IPC_LOCAL_CARD);
  rtm::st32(m.data(), IPC_OFF_TGT_SVCE, qor_getQueueId(svce, inst, kind));
  for (uint32_t i = IPC_HDR_LEN; i < len; ++i) m[i] = static_cast<uint8_t>(i * 7);
  return m;
}

// Names the key's request queue as the sender, as a daemon-side send would.
inline void setSource(std::vector<uint8_t> &m, int key) {
  uint32_t card = 0, qid = 0;
  qorIpcQueueAddr(Key_getReqQueue(key), &card, &qid);
  rtm::st32(m.data(), IPC_OFF_SRC_CARD, card);
  rtm::st32(m.data(), IPC_OFF_SRC_SVCE, qid);
}

}  // namespace ipctest
