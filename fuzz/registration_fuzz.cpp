// Fuzz target: a client registration message as received, through the registry's handler.
// The daemon is brought up afresh often, so that the table of 64 handles does not stay full.
#include <algorithm>
#include <cstring>
#include <vector>

#include "clients/rtm_client.h"
#include "rtm/rtm_client_msgs.h"
#include "fuzz/fuzz_daemon.h"
#include "rtm/rtm_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  rtmfuzz::daemonForInput(32);
  // The received bytes, in a block no longer than they are except for the answer's fields
  // (status and handle), which the handler writes into the message whatever its length.
  size = std::min<size_t>(size, RTM_IPC_BUF_SIZE);
  std::vector<uint8_t> msg(std::max<size_t>(size, RTM_REG_OFF_CID + 4), 0);
  memcpy(msg.data(), data, size);
  rtmRegisterClient(msg.data(), uint32_t(size));
  return 0;
}
