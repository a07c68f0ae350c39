// Management views.
//
// The route count walks the client table, not the RIB: every add and delete already keeps the
// client's per-VRF counters, so the answer costs one pass over at most 128 clients per VRF
// whatever the size of the tables. Rows come in a fixed order (VRF, then family, then cid) so
// that a reader paging through a large answer with the `next` cursor sees each row once while
// the set of clients stays the same.
#include "views/rtm_views.h"

#include <cstring>

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "log/qor_log.h"
#include "rib/rtm_rib.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_route_count.h"
#include "rtm/rtm_wire.h"

using rtm::ld32;
using rtm::st32;
using rtm::st64;
using rtm::st8;

namespace {

struct Totals {
  uint64_t active = 0, inactive = 0, activeBgp = 0, inactiveBgp = 0, prefixes = 0;
};

void putRow(uint8_t *row, const rt_client &rtc, uint8_t afIndex, uint32_t vrfId, const rtClientVrfInfo &rvi) {
  memset(row, 0, RTM_RC_ROW_LEN);
  st32(row, RTM_RC_ROW_CID, rtc.rtc_cid);
  st8(row, RTM_RC_ROW_AFINDEX, afIndex);
  st8(row, RTM_RC_ROW_FLAGS, rvi.rvi_blocked ? RTM_RC_ROW_BLOCKED : 0);
  st32(row, RTM_RC_ROW_PROTO, rtc.rtc_proto);
  st32(row, RTM_RC_ROW_INSTANCE, rtc.rtc_instance);
  st32(row, RTM_RC_ROW_VRFID, vrfId);
  st32(row, RTM_RC_ROW_ACTIVE, rvi.rvi_active);
  st32(row, RTM_RC_ROW_INACTIVE, rvi.rvi_inactive);
  st32(row, RTM_RC_ROW_ACTIVE_BGP, rvi.rvi_activeBgp);
  st32(row, RTM_RC_ROW_INACTIVE_BGP, rvi.rvi_inactiveBgp);
  for (unsigned i = 0; i < RTM_RC_SUBTYPE_COUNTERS; ++i)
    st32(row, RTM_RC_ROW_SUBTYPE + 4 * i, rvi.rvi_subtypeCnt[i]);
}

}  // namespace

uint32_t rtmRouteCountBuild(uint8_t *msg, uint32_t len) {
  if (len < RTM_RC_REQ_LEN) {
    // Too short to say what it wants: answer with the header alone.
    if (len >= RTM_NM_OFF_STATUS + 4) {
      st32(msg, RTM_NM_OFF_STATUS, RTM_RC_EBADREQ);
      st32(msg, IPC_OFF_MLEN, len);
    }
    return RTM_RC_EBADREQ;
  }
  const uint32_t afSel = ld32(msg, RTM_RC_OFF_AFINDEX);
  const uint32_t vrfSel = ld32(msg, RTM_RC_OFF_VRFID);
  const uint32_t cursor = ld32(msg, RTM_RC_OFF_CURSOR);
  memset(msg + RTM_RC_OFF_NROWS, 0, RTM_RC_OFF_ROWS - RTM_RC_OFF_NROWS);
  st32(msg, IPC_OFF_MLEN, RTM_RC_OFF_ROWS);
  const bool afOk = afSel == RTM_IPV4UNI_AFINDEX || afSel == RTM_IPV6UNI_AFINDEX || afSel == RTM_RC_ALL_AF;
  if (!afOk || (vrfSel >= MAX_VRF && vrfSel != ALL_VRF_ID)) {
    st32(msg, RTM_NM_OFF_STATUS, RTM_RC_EBADREQ);
    return RTM_RC_EBADREQ;
  }

  const uint8_t afs[2] = {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX};
  const uint32_t vrfFirst = vrfSel == ALL_VRF_ID ? 0 : vrfSel;
  const uint32_t vrfLast = vrfSel == ALL_VRF_ID ? MAX_VRF - 1 : vrfSel;
  Totals t;
  uint32_t total = 0, rows = 0;
  for (uint32_t vrf = vrfFirst; vrf <= vrfLast; ++vrf) {
    if (!g_rtmVrfInUse[vrf]) continue;
    for (uint8_t af : afs) {
      if (afSel != RTM_RC_ALL_AF && afSel != af) continue;
      if (qor_radix_tree *tree = rtmRibGetTree(af, vrf)) t.prefixes += tree->rdx_heads;
      for (uint32_t cid = 0; cid < MAX_RTM_CLEINTS; ++cid) {
        const rt_client *rtc = rtmClientGetByHandle(af, cid);
        const rtClientVrfInfo *rvi = rtc ? rtc->rtc_vrf[vrf] : nullptr;
        if (!rvi) continue;
        t.active += rvi->rvi_active;
        t.inactive += rvi->rvi_inactive;
        t.activeBgp += rvi->rvi_activeBgp;
        t.inactiveBgp += rvi->rvi_inactiveBgp;
        if (total++ >= cursor && rows < RTM_RC_MAX_ROWS)
          putRow(msg + RTM_RC_OFF_ROWS + size_t(rows++) * RTM_RC_ROW_LEN, *rtc, af, vrf, *rvi);
      }
    }
  }
  const uint32_t next = (rows > 0 && cursor + rows < total) ? cursor + rows : 0;
  st32(msg, RTM_NM_OFF_STATUS, RTM_RC_OK);
  st32(msg, RTM_RC_OFF_NROWS, rows);
  st32(msg, RTM_RC_OFF_NEXT, next);
  st32(msg, RTM_RC_OFF_TOTAL, total);
  st64(msg, RTM_RC_OFF_ACTIVE, t.active);
  st64(msg, RTM_RC_OFF_INACTIVE, t.inactive);
  st64(msg, RTM_RC_OFF_ACTIVE_BGP, t.activeBgp);
  st64(msg, RTM_RC_OFF_INACTIVE_BGP, t.inactiveBgp);
  st64(msg, RTM_RC_OFF_PREFIXES, t.prefixes);
  st32(msg, IPC_OFF_MLEN, static_cast<uint32_t>(RTM_RC_OFF_ROWS + size_t(rows) * RTM_RC_ROW_LEN));
  return RTM_RC_OK;
}

int rtmGetRouteCount(uint8_t *msg, uint32_t len, rt_client *) {
  uint32_t status = rtmRouteCountBuild(msg, len);
  // A request shorter than an NM header has nowhere to carry a status: it is not answered.
  if (len >= RTM_NM_OFF_STATUS + 4) rtmSendReply(msg);
  return static_cast<int>(status);
}

int rtmViewsInit() {
  const bool ok = rtmFrameSetNmHandler(MT_RTM_GET_ROUTE_COUNT, rtmGetRouteCount) == 0 &&
                  rtmFrameSetNmHandler(MT_RTM_GET_DNLD_CLIENTS, rtmGetDnldClients) == 0;
  return ok ? 0 : 1;
}
