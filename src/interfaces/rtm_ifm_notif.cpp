// MT_IFM_NOTIFY: the interface manager's sequenced notifications.
//
// The sequence is checked (and acknowledged) before any record is looked at, so a repeat or a
// message after a gap applies nothing. Records are walked by their own lengths, each checked
// to lie inside the message; a record that does not stops the walk, since nothing behind it
// can be found. Only the slot's download-complete record is acted on here: the interface,
// address and VRF records wait for the interface table and are passed over.
#include "interfaces/rtm_ifm_notif.h"

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "log/qor_log.h"
#include "rtm/rtm_ifm_msgs.h"
#include "rtm/rtm_msgs.h"
#include "swp/qor_swp.h"

using rtm::ld16;
using rtm::ld32;

uint32_t rtmIfmSeqNum;

int rtmIfmNotification(uint8_t *msg, uint32_t len, rt_client *) {
  if (qorSwpCkSeqAndAck(msg, &rtmIfmSeqNum, rtmReqQfd) != QOR_SWP_SEQ_OK) {
    qorEventLog(rtmevkey, 12, "rtmIfmNotification: Warning! Could not ack to IFM notif message\n");
    return 1;
  }
  const uint32_t mlen = len < IFM_NOTIF_OFF_RECS ? 0 : ld32(msg, IPC_OFF_MLEN);
  if (mlen < IFM_NOTIF_OFF_RECS || mlen > len) {
    qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: rtmIfmNotification", len);
    return 1;
  }
  const uint32_t count = ld32(msg, IFM_NOTIF_OFF_COUNT);
  size_t off = IFM_NOTIF_OFF_RECS;
  for (uint32_t i = 0; i < count; ++i) {
    if (mlen - off < IFM_REC_HDR_LEN) break;
    const uint16_t type = ld16(msg, off + IFM_REC_OFF_TYPE);
    const uint16_t rlen = ld16(msg, off + IFM_REC_OFF_LEN);
    if (rlen < IFM_REC_HDR_LEN || rlen > mlen - off) {
      qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: rtmIfmNotification", i, type, rlen);
      return 1;
    }
    if (type == IFM_TYP_SLOT_DNLD_COMPLETE && rlen >= IFM_SLOT_DNLD_REC_LEN) {
      const int32_t slot = static_cast<int32_t>(ld32(msg, off + IFM_REC_OFF_PAYLOAD));
      if (slot >= 0 && slot < static_cast<int32_t>(RTM_MAX_SLOTS)) {
        rtmRcvdDnldCmpFrmIfm[slot] = 1;
        qorHistory(" Setting TRUE for slot - %d \r\n", slot);
      }
    }
    off += rlen;
  }
  return 0;
}

void rtmIfmNotifInit() {
  rtmIfmSeqNum = 0;
  rtmFrameSetHandler(MT_IFM_NOTIFY, rtmIfmNotification);
}
