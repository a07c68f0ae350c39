#include "interfaces/rtm_if.h"

#include <cstring>
#include <unordered_map>

#include "frame/rtm_frame.h"
#include "interfaces/rtm_ifm_notif.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_types.h"

using rtm::st32;

namespace {
// The notifications RTM asks IFM for. 46, 52 and 53 are asked for and have no handler.
constexpr uint32_t kIfmTypes[] = {1,  2,  3,  4,  5,  6,  20, 22, 23, 25, 29, 30,
                                  32, 33, 34, 35, 46, 47, 48, 52, 53, 58, 59, 73};
}  // namespace

void ifmSetPerSvcTypeMasks(uint8_t *mask, uint32_t type) {
  if (type / 8 < IFM_REG_MASK_LEN) mask[type / 8] |= static_cast<uint8_t>(1u << (type % 8));
}
bool ifmTestPerSvcTypeMask(const uint8_t *mask, uint32_t type) {
  return type / 8 < IFM_REG_MASK_LEN && (mask[type / 8] & (1u << (type % 8)));
}

void rtmClearConnRoutes(uint32_t, uint8_t) {}

namespace {
std::unordered_map<uint32_t, uint32_t> &ifTypes() {
  static std::unordered_map<uint32_t, uint32_t> table;
  return table;
}
}  // namespace

uint32_t ifmIfIndexToIfType(uint32_t ifindex) {
  const auto &t = ifTypes();
  auto it = t.find(ifindex);
  return it == t.end() ? 0 : it->second;
}
void ifmSetIfIndexType(uint32_t ifindex, uint32_t type) {
  if (type == 0)
    ifTypes().erase(ifindex);
  else
    ifTypes()[ifindex] = type;
}
void ifmClearIfIndexTypes() { ifTypes().clear(); }

void rtmIfInit() { rtmIfmNotifInit(); }
int halRtmInit() { return 0; }

int rtmIfmRegister() {
  int32_t err = 0;
  int32_t own = qor_tmeGetPeerIpAddrByName(RTM_SVCE, 0, &err);
  int32_t ifm = qor_tmeGetPeerIpAddrByName(IFM_TASK_ID, 0, &err);
  if (own == -1 || ifm == -1) return 1;
  static uint8_t msg[IFM_REG_MSG_LEN];
  memset(msg, 0, sizeof msg);
  st32(msg, IPC_OFF_MTYPE, MT_IFM_REGISTER);
  st32(msg, IPC_OFF_MLEN, IFM_REG_MSG_LEN);
  st32(msg, IPC_OFF_TRANSCODE, RTM_SVCE);
  st32(msg, IPC_OFF_SRC_SLOT, 0);
  st32(msg, IPC_OFF_SRC_CARD, static_cast<uint32_t>(own));
  st32(msg, IPC_OFF_SRC_SVCE, qor_getQueueId(RTM_SVCE, 0, QOR_IPC_QUEUE_REQ));
  st32(msg, IPC_OFF_TGT_SLOT, 0);
  st32(msg, IPC_OFF_TGT_CARD, static_cast<uint32_t>(ifm));
  st32(msg, IPC_OFF_TGT_SVCE, qor_getQueueId(IFM_TASK_ID, 0, QOR_IPC_QUEUE_REQ, static_cast<uint32_t>(ifm)));
  st32(msg, IFM_REG_OFF_SVCE, RTM_SVCE);
  st32(msg, IFM_REG_OFF_SLOT, rtmrouteinfo[0]);
  st32(msg, IFM_REG_OFF_CARD, rtmrouteinfo[1]);
  st32(msg, IFM_REG_OFF_QUEUE, rtmrouteinfo[2]);
  for (uint32_t t : kIfmTypes) ifmSetPerSvcTypeMasks(msg + IFM_REG_OFF_MASK, t);
  if (qorIpcSend(rtmReqQfd, msg, IFM_REG_MSG_LEN) < 0) {
    qorSysErr(rtmevkey, 0, 0x148008, 0, "RTM: rtmIfmRegister");
    return 1;
  }
  return 0;
}
