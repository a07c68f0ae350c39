// The download-clients view: each download client of a family, the list it stands on, its
// queue and its counters, and how far it has been served in one VRF.
//
// It reads the client table and the two lists as the main task sees them between the download
// thread's turns, so the picture is consistent: a client is on exactly one list (or on none
// while the thread has not met it yet). At most 64 clients a family fit in one reply.
#include <cstring>

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "rib/rtm_rib.h"
#include "rtm/rtm_dnld_clients.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_wire.h"
#include "swp/qor_swp.h"
#include "views/rtm_views.h"

using rtm::ld32;
using rtm::st32;
using rtm::st64;
using rtm::st8;

namespace {

bool onList(const QOR_DLL &list, const rt_client *rtc) {
  for (const QOR_DLL_NODE *n = qorDLLGetFirst(&list); n; n = qorDLLGetNext(n))
    if (reinterpret_cast<const rtm_client_node *>(n)->client == rtc) return true;
  return false;
}

}  // namespace

uint32_t rtmDnldClientsBuild(uint8_t *msg, uint32_t len) {
  if (len < RTM_DC_REQ_LEN) {
    if (len >= RTM_NM_OFF_STATUS + 4) {
      st32(msg, RTM_NM_OFF_STATUS, RTM_DC_EBADREQ);
      st32(msg, IPC_OFF_MLEN, len);
    }
    return RTM_DC_EBADREQ;
  }
  const uint32_t af = ld32(msg, RTM_DC_OFF_AFINDEX);
  const uint32_t vrf = ld32(msg, RTM_DC_OFF_VRFID);
  memset(msg + RTM_DC_OFF_NROWS, 0, RTM_DC_OFF_ROWS - RTM_DC_OFF_NROWS);
  st32(msg, IPC_OFF_MLEN, RTM_DC_OFF_ROWS);
  if ((af != RTM_IPV4UNI_AFINDEX && af != RTM_IPV6UNI_AFINDEX) || vrf >= MAX_VRF) {
    st32(msg, RTM_NM_OFF_STATUS, RTM_DC_EBADREQ);
    return RTM_DC_EBADREQ;
  }
  if (const qor_radix_tree *tree = g_rtmVrfInUse[vrf] ? rtmRibGetTree(static_cast<uint8_t>(af), vrf) : nullptr)
    st64(msg, RTM_DC_OFF_TREEVER, tree->rdx_version);
  if (const rt_client *dummy = dummySuperClient[af])
    if (const rtClientVrfInfo *rvi = dummy->rtc_vrf[vrf]) st64(msg, RTM_DC_OFF_GROUPVER, rvi->rvi_version);
  uint32_t rows = 0, supers = 0;
  for (uint32_t cid = 0; cid < MAX_RTM_CLEINTS; ++cid) {
    const rt_client *rtc = rtmClientGetByHandle(static_cast<uint8_t>(af), cid);
    if (!rtc || !rtmProtoIsDownload(rtc->rtc_proto)) continue;
    uint8_t *row = msg + RTM_DC_OFF_ROWS + size_t(rows++) * RTM_DC_ROW_LEN;
    memset(row, 0, RTM_DC_ROW_LEN);
    const bool super = onList(superClients[af], rtc);
    supers += super;
    st32(row, RTM_DC_ROW_CID, rtc->rtc_cid);
    st8(row, RTM_DC_ROW_LIST,
        super ? RTM_DC_LIST_SUPER : onList(regularClients[af], rtc) ? RTM_DC_LIST_REGULAR : RTM_DC_LIST_NONE);
    st32(row, RTM_DC_ROW_PROTO, rtc->rtc_proto);
    st32(row, RTM_DC_ROW_INSTANCE, rtc->rtc_instance);
    st32(row, RTM_DC_ROW_DNLDSTATE, rtc->rtc_dnldState);
    st32(row, RTM_DC_ROW_QSTATE, rtc->rtc_qState);
    st32(row, RTM_DC_ROW_FILTERSTATE, rtc->rtc_filterState);
    st32(row, RTM_DC_ROW_ADDS, rtc->rtc_addCount);
    st32(row, RTM_DC_ROW_DELS, rtc->rtc_delCount);
    st32(row, RTM_DC_ROW_SENDS, rtc->rtc_sendCount);
    st32(row, RTM_DC_ROW_SUPERSENDS, rtc->rtc_superSendCount);
    st32(row, RTM_DC_ROW_FAILURES, rtc->rtc_lastCnt);
    const int qlen = rtc->rtc_dnldQ ? qorSwpQueueGetLen(rtc->rtc_dnldQ) : -1;
    st32(row, RTM_DC_ROW_QLEN, qlen < 0 ? RTM_DC_QLEN_NONE : static_cast<uint32_t>(qlen));
    if (const rtClientVrfInfo *rvi = rtc->rtc_vrf[vrf]) {
      st32(row, RTM_DC_ROW_RULEFLAGS, rvi->rvi_ruleFlags[0]);
      st64(row, RTM_DC_ROW_VERSION, rvi->rvi_version);
    }
  }
  st32(msg, RTM_NM_OFF_STATUS, RTM_DC_OK);
  st32(msg, RTM_DC_OFF_NROWS, rows);
  st32(msg, RTM_DC_OFF_NSUPER, supers);
  st32(msg, IPC_OFF_MLEN, static_cast<uint32_t>(RTM_DC_OFF_ROWS + size_t(rows) * RTM_DC_ROW_LEN));
  return RTM_DC_OK;
}

int rtmGetDnldClients(uint8_t *msg, uint32_t len, rt_client *) {
  const uint32_t status = rtmDnldClientsBuild(msg, len);
  if (len >= RTM_NM_OFF_STATUS + 4) rtmSendReply(msg);
  return static_cast<int>(status);
}
