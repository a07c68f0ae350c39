// RTM's own IPC: opening its queues, the send paths, replies and the TIC wake-up pipe.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_wire.h"
#include "swp/qor_swp.h"
#include "timer/qor_timer.h"

using rtm::ld32;
using rtm::st32;

int rtmIpcKey = -1, rtmReqQfd, rtmTmrQfd, rtm_swp_pipe = -1;
uint32_t rtmrouteinfo[4];
uint32_t rtmreqqcnt, rtmtmrqcnt, rtmrspqcnt;
uint32_t rtmreqqcnterr, rtmtmrqcnterr, rtmrspqcnterr, rtmseltoerr;

namespace {
constexpr uint32_t kReqSendLimit = 9216;
constexpr uint32_t kTmrRecvLimit = 0x14000;
constexpr uint32_t kReqRecvLimit = 0x2D000;

// Fills the common header fields of a message RTM sends: type, length, status 0, our address
// as the source and the (svce, inst) endpoint as the target card. Returns false when the
// target cannot be resolved.
bool fillHeader(uint8_t *msg, uint32_t mtype, uint32_t len, uint32_t transCode, uint32_t svce, uint32_t inst,
                uint32_t tgtSvce) {
  int32_t err = 0;
  int32_t card = qor_tmeGetPeerIpAddrByName(svce, inst, &err);
  if (card == -1 && err == -1) return false;
  st32(msg, IPC_OFF_MTYPE, mtype);
  st32(msg, IPC_OFF_MLEN, len);
  st32(msg, IPC_OFF_MSTATUS, 0);
  st32(msg, IPC_OFF_TRANSCODE, transCode);
  st32(msg, IPC_OFF_SRC_SLOT, rtmrouteinfo[0]);
  st32(msg, IPC_OFF_SRC_CARD, rtmrouteinfo[1]);
  st32(msg, IPC_OFF_SRC_SVCE, rtmrouteinfo[2]);
  st32(msg, IPC_OFF_TGT_SLOT, 0);
  st32(msg, IPC_OFF_TGT_CARD, static_cast<uint32_t>(card));
  st32(msg, IPC_OFF_TGT_SVCE, tgtSvce);
  return true;
}

// The small notifications: a header (and at most one word) on the stack.
int sendSmall(uint32_t mtype, uint32_t svce, uint32_t inst, uint32_t len, const uint32_t *value, bool withInst) {
  uint8_t msg[RTM_IPC_BUF_SIZE];
  memset(msg, 0, sizeof msg);
  if (!fillHeader(msg, mtype, len, static_cast<uint32_t>(qorTickGet()), svce, inst,
                  qor_getQueueId(svce, inst, QOR_IPC_QUEUE_REQ)))
    return -1;
  if (withInst) st32(msg, IPC_OFF_INST, inst);
  if (value) st32(msg, IPC_HDR_LEN, *value);
  if (qorIpcSend(rtmReqQfd, msg, len) < 0) return errno ? errno : -1;
  return 0;
}

// Below this, a table load keeps finding its peers' sockets full: every message turned back is
// a system call wasted and a resend after the next ack, and each peer is woken for a handful
// of messages at a time.
constexpr int kAdvisedQueueDepth = 64;

void warnOfShallowQueues() {
  const int depth = qorIpcQueueDepth();
  if (depth >= 0 && depth < kAdvisedQueueDepth)
    qorEventLog(rtmevkey, 4,
                "rtmIpcInit: a message queue holds %d messages (net.unix.max_dgram_qlen); "
                "256 or more is advised for large tables: sysctl -w net.unix.max_dgram_qlen=256\n",
                depth);
}
}  // namespace

int rtmIpcInit(int32_t) {
  rtmIpcKey = qorIpcOpen(RTM_SVCE, 0);
  if (rtmIpcKey == -1) {
    qorEventLog(rtmevkey, 3, "rtmIpcInit: qorIpcOpen failed.\n");
    return 1;
  }
  if (qorIpcTmrOpen(RTM_SVCE, 0) == -1) {
    qorSysErr(rtmevkey, 0, 0x14802E, 0, "RTM: rtmIpcInit");
    return 1;
  }
  rtmReqQfd = Key_getReqQueue(rtmIpcKey);
  rtmTmrQfd = Key_getTmrQueue(rtmIpcKey);
  qorIpcSetSendBufferLimit(rtmReqQfd, kReqSendLimit);
  qorIpcSetRecvBufferLimit(rtmTmrQfd, kTmrRecvLimit);
  qorIpcSetRecvBufferLimit(rtmReqQfd, kReqRecvLimit);
  warnOfShallowQueues();
  rtm_swp_pipe = qorSwpCreatePipe("/qor/pipe/rtmpipe");
  // One client that stops reading must not stall the main task on its acks.
  qorSwpAckNoWait(true);
  int32_t err = 0;
  rtmrouteinfo[0] = 0;
  rtmrouteinfo[1] = static_cast<uint32_t>(qor_tmeGetPeerIpAddrByName(RTM_SVCE, 0, &err));
  rtmrouteinfo[2] = qor_getQueueId(RTM_SVCE, 0, QOR_IPC_QUEUE_REQ);
  rtmrouteinfo[3] = 0;
  return err == -1 ? 1 : 0;
}

uint8_t *rtmGetIpcBuffer() {
  auto *b = static_cast<uint8_t *>(rtmMemAllocNonPool(__FILE__, __LINE__, RTM_IPC_BUF_SIZE, 0));
  if (b) qorEventLog(rtmevkey, 19, "Allocated buffer 0x%lx.\n", reinterpret_cast<unsigned long>(b));
  return b;
}
void rtmFreeIpcBuffer(uint8_t *buffer) {
  qorEventLog(rtmevkey, 19, "Freed buffer 0x%lx.\n", reinterpret_cast<unsigned long>(buffer));
  rtmMemFreeNonPool(__FILE__, __LINE__, buffer);
}
void rtmClearIpcBuffer(uint8_t *buffer) { memset(buffer, 0, RTM_IPC_BUF_SIZE); }

int rtmSendMessage(uint32_t mtype, uint8_t *msg, uint32_t len, uint32_t transCode, uint32_t svce, uint32_t inst) {
  if (!fillHeader(msg, mtype, len, taskIdSelf(), svce, inst, transCode)) return 1;
  if (rtmdebug & 0x1) {
    if (mtype == 12821)
      qorDebugPrintf("\r\nRTM Sending message %s to ipc-svce 0x%x, inst %d", "MT_RTM_CLR_ROUTE", svce, inst);
    else
      qorDebugPrintf("\r\nRTM Sending message %u to ipc-svce 0x%x, inst %d", mtype, svce, inst);
  }
  if (qorIpcSend(rtmReqQfd, msg, len) < 0) {
    qorSysErr(rtmevkey, 0, 0x148008, 0, "RTM: rtmSendMessage", mtype, svce, inst);
    return 1;
  }
  return 0;
}

int rtmSendReply(uint8_t *msg) {
  if (qorIpcReply(rtmIpcKey, msg, ld32(msg, IPC_OFF_MLEN)) < 0) {
    qorSysErr(rtmevkey, 0, 0x148031, 0, "RTM: rtmSendReply", ld32(msg, IPC_OFF_MTYPE));
    return 1;
  }
  return 0;
}

int rtmIpcSendAndWait(uint32_t mtype, uint8_t *msg, uint32_t len, uint32_t svce, uint8_t *replyBuf, uint32_t replyLen) {
  if (!fillHeader(msg, mtype, len, static_cast<uint32_t>(qorTickGet()), svce, 0,
                  qor_getQueueId(svce, 0, QOR_IPC_QUEUE_REQ)))
    return 1;
  if (qorIpcSendWaitWithRetry(rtmIpcKey, msg, replyBuf, len, replyLen, 50, mtype, 0, 0) != 0) {
    qorSysErr(rtmevkey, 0, 0x148008, 0, "RTM: rtmIpcSendAndWait", mtype, svce);
    return 1;
  }
  return 0;
}

int rtmSendIpc(uint32_t mtype, uint32_t svce, uint32_t inst) {
  return sendSmall(mtype, svce, inst, IPC_HDR_LEN, nullptr, false);
}
int rtmOspfSendIpc(uint32_t mtype, uint32_t svce, uint32_t inst) {
  return sendSmall(mtype, svce, inst, IPC_HDR_LEN, nullptr, true);
}
int rtm_notify_bgp_convergence(uint32_t mtype, uint32_t svce, uint32_t inst, uint32_t value) {
  return sendSmall(mtype, svce, inst, IPC_HDR_LEN + 4, &value, false);
}

// The TIC pipe: a FIFO of the run directory stands in for the pipe device. A wake-up is
// dropped rather than blocked when the pipe is nearly full, which is why the writer checks
// the fill level first.
namespace {
constexpr int kTicPipeFullMark = 91;
}

int rtmTicCreatePipe(const char *name) {
  char path[512];
  const char *base = strrchr(name, '/');
  snprintf(path, sizeof path, "%s/%s", qorIpcGetRunDir(), base ? base + 1 : name);
  if (mkfifo(path, 0600) != 0 && errno != EEXIST) return -1;  // an existing pipe is opened
  int fd = open(path, O_RDWR | O_NONBLOCK);
  return fd;
}

void rtmTicWritePipe(int fd, uint32_t value) {
  int waiting = 0;
  if (ioctl(fd, FIONREAD, &waiting) == 0 && waiting >= kTicPipeFullMark) return;
  if (write(fd, &value, sizeof value) != static_cast<ssize_t>(sizeof value))
    qorSysErr(rtmevkey, 0, 0x148048, 0, "rtmTicWritePipe, failed to write to pipe ", fd);
}

int rtmTicProcessPipe(int fd) {
  uint32_t value;
  ssize_t n = read(fd, &value, sizeof value);
  (void)n;
  return 0;
}

void rtmipcstats() {
  qorDebugPrintf("\r\nRequest Q messages %u errors %u\r\nTimer Q messages %u errors %u\r\n"
                 "Response Q messages %u errors %u\r\nSelect errors %u\r\n",
                 rtmreqqcnt, rtmreqqcnterr, rtmtmrqcnt, rtmtmrqcnterr, rtmrspqcnt, rtmrspqcnterr, rtmseltoerr);
}
