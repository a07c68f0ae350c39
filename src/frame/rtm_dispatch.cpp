// rtmMessageSwitch: how a message reaches its handler.
//
// The kind of each message type (plain, NM command, sequenced client message, sequenced
// manager message), where its client handle and family lie, and how it is answered come from
// the catalogue in rtm/rtm_msgs.h. Handlers plug in by code through rtmFrameSetHandler; the
// frame does the client look-up, the sequence check and the replies the catalogue asks for,
// so no handler repeats them.
#include <cstring>
#include <iterator>

#include "chassis/qor_chassis.h"
#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "redist/rtm_redist.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_wire.h"
#include "swp/qor_swp.h"

using rtm::ld32;
using rtm::st32;

uint32_t rtmCurMsgLen;
uint32_t expAclDownloadSeq = 1, rtmBrmSeqNum = 1, rtmIssuSeqNum = 1, qHandle = 1;

namespace {
constexpr size_t kMsgRows = std::size(rtm::detail::kMsgTable);
constexpr size_t kNmRows = std::size(rtm::detail::kNmTable);
RtmMsgHandler g_msgHandlers[kMsgRows];
RtmMsgHandler g_nmHandlers[kNmRows];
uint32_t g_bfdSeq[MAX_VRF];

size_t rowIndex(const RtmMsgInfo *row, const RtmMsgInfo *table) { return static_cast<size_t>(row - table); }

void replyStatus(uint8_t *msg, size_t off, int32_t status) {
  st32(msg, off, static_cast<uint32_t>(status));
  rtmSendReply(msg);
}

void logUnknown(const uint8_t *msg) {
  char text[256];  // the whole line with ten words at their widest
  snprintf(text, sizeof text,
           "rtmMessaeSwitch: mtype:%#x mlen:%#x mstatus:%#x mtransCode:%#x Source slot:%#x card:%#x svce:%#x "
           "Target slot:%#x card:%#x svce:%#x\r\n",
           ld32(msg, IPC_OFF_MTYPE), ld32(msg, IPC_OFF_MLEN), ld32(msg, IPC_OFF_MSTATUS),
           ld32(msg, IPC_OFF_TRANSCODE), ld32(msg, IPC_OFF_SRC_SLOT), ld32(msg, IPC_OFF_SRC_CARD),
           ld32(msg, IPC_OFF_SRC_SVCE), ld32(msg, IPC_OFF_TGT_SLOT), ld32(msg, IPC_OFF_TGT_CARD),
           ld32(msg, IPC_OFF_TGT_SVCE));
  qorSysErr(rtmevkey, 0, 0x148032, 0, text);
}

// Runs a handler with the replies its row asks for around it.
void runPlain(const RtmMsgInfo &row, RtmMsgHandler fn, uint8_t *msg, uint32_t len, rt_client *rtc) {
  if (row.reply == RTM_REPLY_FIRST) replyStatus(msg, IPC_OFF_MSTATUS, 0);
  int result = fn(msg, len, rtc);
  if (row.reply == RTM_REPLY_YES) rtmSendReply(msg);
  if (row.reply == RTM_REPLY_STATUS) replyStatus(msg, RTM_NM_OFF_STATUS, result);
}

// A message over a client's SWP queue: the client must exist and the sequence must be the
// one expected, or nothing happens and nothing is acknowledged.
void runClient(const RtmMsgInfo &row, RtmMsgHandler fn, uint8_t *msg, uint32_t len) {
  uint32_t cid = 0, af = 0;
  if (rtmMsgClientAf(row, msg, len, &cid, &af) != RTM_WIRE_OK || len < IPC_SWP_HDR_LEN) {
    qorSysErr(rtmevkey, 0, 0x148019, 0, row.name, cid, af);
    return;
  }
  rt_client *rtc = rtmClientGetByHandle(static_cast<uint8_t>(af), cid);
  if (!rtc) {
    qorSysErr(rtmevkey, 0, 0x148019, 0, row.name, cid, af);
    return;
  }
  // The acknowledgement carries the family in place of the type.
  st32(msg, IPC_OFF_MTYPE, af);
  if ((row.flags & RTM_MSGF_NEEDS_QLIST) && !rtc->expSeqQListHdl) {
    if (rtmdebug) qorDebugPrintf("\nMsg expected with SWPQList while expSeqQListHdl is NULL");
    return;
  }
  // A paired client shares the expected sequence of its other family's record.
  uint32_t *exp = rtc->rtc_expSeqPtr ? rtc->rtc_expSeqPtr : rtc->rtc_expSeq;
  int result = rtc->expSeqQListHdl ? qorSwpQListCkSeqAndAck(msg, rtc->expSeqQListHdl, rtmReqQfd)
                                   : qorSwpCkSeqAndAck(msg, &exp[1], rtmReqQfd);
  if (result == 6) return;  // a repeat: acknowledged again by the check, nothing to do
  if (result != 0) {
    // A client that has just started may be out of step; only a settled one is worth a word.
    if (exp[1] > 8) {
      char name[41];
      qorSysErr(rtmevkey, 0, 0x148033, 0, rtmClientName(rtc, name), cid, exp[1], result, static_cast<const void *>(msg));
    }
    return;
  }
  if (fn) fn(msg, len, rtc);
}

uint32_t *managerSeqWord(const RtmMsgInfo &row, const uint8_t *msg, uint32_t len) {
  switch (row.seq) {
    case RTM_SEQ_ACL: return &expAclDownloadSeq;
    case RTM_SEQ_PREFIX_LIST: return &qHandle;
    case RTM_SEQ_BRM: return &rtmBrmSeqNum;
    case RTM_SEQ_ISSU: return &rtmIssuSeqNum;
    case RTM_SEQ_BFD_VRF: {
      // BFD notifications carry their VRF in the first payload word after the SWP header.
      uint32_t vrf = len >= IPC_SWP_HDR_LEN + 4 ? ld32(msg, IPC_SWP_HDR_LEN) : 0;
      return vrf < MAX_VRF ? &g_bfdSeq[vrf] : nullptr;
    }
    default: return nullptr;
  }
}

void runManager(const RtmMsgInfo &row, RtmMsgHandler fn, uint8_t *msg, uint32_t len) {
  uint32_t *seq = len >= IPC_SWP_HDR_LEN ? managerSeqWord(row, msg, len) : nullptr;
  if (!seq) {
    logUnknown(msg);
    return;
  }
  int result = qorSwpCkSeqAndAck(msg, seq, rtmReqQfd);
  if (result != 0) {
    if (row.seq == RTM_SEQ_BRM) qorEventLog(rtmevkey, 4, "rtmBrmNotification: Warning! Could not ack to BRM notif message\n");
    if (row.seq == RTM_SEQ_ISSU) qorEventLog(rtmevkey, 4, "rtmISSU : Warning! Could not ack to ISSU notif message\n");
    if (!(row.flags & RTM_MSGF_RUN_ON_SEQ_FAIL)) return;
  }
  if (fn) fn(msg, len, nullptr);
}

// Returns false when the command leaves without the TIC check.
bool runNmCommand(uint8_t *msg, uint32_t len) {
  const RtmMsgInfo *row = len >= RTM_NM_OFF_SUBCODE + 4 ? rtmNmCmdInfo(ld32(msg, RTM_NM_OFF_SUBCODE)) : nullptr;
  RtmMsgHandler fn = row ? g_nmHandlers[rowIndex(row, rtm::detail::kNmTable)] : nullptr;
  if (!fn) {
    uint32_t sub = len >= RTM_NM_OFF_SUBCODE + 4 ? ld32(msg, RTM_NM_OFF_SUBCODE) : 0;
    qorEventLog(rtmevkey, 3, "Unknown NM message (%d).\n", static_cast<int>(sub));
    if (len >= RTM_NM_OFF_STATUS + 4) {
      st32(msg, RTM_NM_OFF_STATUS, static_cast<uint32_t>(-1));
      qorIpcReply(rtmIpcKey, msg, ld32(msg, IPC_OFF_MLEN));
    }
    return true;
  }
  runPlain(*row, fn, msg, len, nullptr);
  return !(row->flags & RTM_MSGF_NO_TIC);
}

// ---- The frame's own messages ------------------------------------------------------------

int onSwpAck(uint8_t *msg, uint32_t len, rt_client *) {
  if (len < IPC_SWP_HDR_LEN) {
    qorSysErr(rtmevkey, 0, 0x148034, 0, "RTM: rtmMessageSwitch MT_SWP_ACK", len);
    return 1;
  }
  void *buffer = nullptr;
  if (qorSwpDequeue(msg, &buffer) != 0) qorSysErr(rtmevkey, 0, 0x148034, 0, "RTM: rtmMessageSwitch MT_SWP_ACK");
  if (buffer) rtmNewPoolFree(buffer);
  uint32_t queue = ld32(msg, SWP_OFF_QUEUE);
  // A writer that stopped on a full queue goes on once the peer has caught up.
  if (qorSwpQueueGetLen(queue) <= 1) {
    qorThreadResume(rtmThreads, rtmThreadRteDn);
    qorThreadResume(rtmThreads, rtmThreadRedis);
  }
  return 0;
}
int onIgnored(uint8_t *, uint32_t, rt_client *) { return 0; }
int onCfgStart(uint8_t *, uint32_t, rt_client *) { return rtmCfgDnldInProg = 1, 0; }
int onCfgEnd(uint8_t *, uint32_t, rt_client *) { return rtmCfgDnldInProg = 0, 0; }
int onCfgInitDone(uint8_t *, uint32_t, rt_client *) { return g_rtmisInitialCfgDone = 1, 0; }
int onChmRegister(uint8_t *, uint32_t, rt_client *) { return rtmChmRegState = 1, 0; }
int onChmAddCard(uint8_t *msg, uint32_t, rt_client *) {
  qorTracePrintf(51, "Received MT_CHM_ADD_CARD");
  replyStatus(msg, IPC_OFF_MSTATUS, 0);
  return 0;
}
int onIfmRegister(uint8_t *, uint32_t, rt_client *) {
  rtmIfmRegState = 1;
  qorTracePrintf(51, "RTM registration with IFM successful");
  return 0;
}
int onUndebugAll(uint8_t *, uint32_t, rt_client *) { return rtmdebug = 0, 0; }
int onDataSync(uint8_t *msg, uint32_t len, rt_client *) {
  qorSendSyncMsgAckToRam(service, instance);
  if (len < IPC_OFF_SYNCWORD + 4) return 1;
  uint32_t cmd = ld32(msg, IPC_OFF_SYNCWORD);
  if (cmd == RPM_START_DATA_SYNC) qorSendDataSyncResultToRam(service, instance, 0);
  return 0;
}
}  // namespace

int rtmFrameSetHandler(uint32_t mtype, RtmMsgHandler fn) {
  const RtmMsgInfo *row = rtmMsgInfo(mtype);
  if (!row || row->kind == RTM_KIND_OUT) return -1;
  g_msgHandlers[rowIndex(row, rtm::detail::kMsgTable)] = fn;
  return 0;
}
int rtmFrameSetNmHandler(uint32_t sub, RtmMsgHandler fn) {
  const RtmMsgInfo *row = rtmNmCmdInfo(sub);
  if (!row) return -1;
  g_nmHandlers[rowIndex(row, rtm::detail::kNmTable)] = fn;
  return 0;
}

void rtmFrameInitHandlers() {
  memset(g_msgHandlers, 0, sizeof g_msgHandlers);
  memset(g_nmHandlers, 0, sizeof g_nmHandlers);
  memset(g_bfdSeq, 0, sizeof g_bfdSeq);
  for (auto &w : g_bfdSeq) w = 1;
  expAclDownloadSeq = rtmBrmSeqNum = rtmIssuSeqNum = qHandle = 1;
  rtmFrameSetHandler(MT_SWP_ACK, onSwpAck);
  rtmFrameSetHandler(MT_RTM_IGNORED, onIgnored);
  rtmFrameSetHandler(MT_CFG_START_BLK_CFG_NOTIF, onCfgStart);
  rtmFrameSetHandler(MT_CFG_END_BLK_CFG_NOTIF, onCfgEnd);
  rtmFrameSetHandler(MT_CFG_INIT_CFG_COMPLETE, onCfgInitDone);
  rtmFrameSetHandler(MT_CHM_REGISTER, onChmRegister);
  rtmFrameSetHandler(MT_CHM_ADD_CARD, onChmAddCard);
  rtmFrameSetHandler(MT_IFM_REGISTER, onIfmRegister);
  rtmFrameSetHandler(MT_UNDEBUG_ALL, onUndebugAll);
  rtmFrameSetHandler(MT_RAM_RPM_DATA_SYNC, onDataSync);
}

void rtmMessageSwitch(uint8_t *msg) {
  uint32_t len = rtmCurMsgLen;
  uint32_t mtype = ld32(msg, IPC_OFF_MTYPE);
  if ((rtmdebug & 0x8000) && mtype != MT_RTM_SYNC_LOOKUP && mtype != MT_SWP_ACK && mtype != MT_NM_CMD)
    qorDebugPrintf("\r\nRTM receved an IPC command code %#x\r\n", mtype);
  bool tic = true;
  const RtmMsgInfo *row = rtmMsgInfo(mtype);
  RtmMsgHandler fn = row ? g_msgHandlers[rowIndex(row, rtm::detail::kMsgTable)] : nullptr;
  switch (row ? row->kind : RTM_KIND_OUT) {
    case RTM_KIND_C:
      runClient(*row, fn, msg, len);
      break;
    case RTM_KIND_M:
      runManager(*row, fn, msg, len);
      break;
    case RTM_KIND_N:
      tic = runNmCommand(msg, len);
      break;
    case RTM_KIND_P:
      if (mtype == MT_NM_CMD) {
        tic = runNmCommand(msg, len);
        break;
      }
      if (fn) {
        runPlain(*row, fn, msg, len, nullptr);
        break;
      }
      [[fallthrough]];
    default:
      logUnknown(msg);
      break;
  }
  if (tic) rtmTicValidatation();
}
