// The client registry: every process that talks to RTM on a lasting basis is a client, known
// by a small handle (cid) per address family.
#pragma once

#include <cstdint>

#include "radix/qor_radix.h"
#include "rtm/rtm_types.h"

// A client in one VRF.
struct rtClientVrfInfo {
  uint64_t rvi_version;        // last version of the main tree the client was given
  uint32_t rvi_subtypeCnt[6];  // see rtmRouteCounters
  uint32_t rvi_blockedVer[2];
  uint32_t rvi_ticVersion[2];
  uint32_t rvi_ruleChange;
  uint32_t rvi_blocked;        // 1 while a clear of the client's routes in this VRF is pending
  qor_radical_walker rvi_walker;
  uint64_t rvi_conVersion;
  qor_radical_walker rvi_conWalker;
  uint32_t rvi_active;
  uint32_t rvi_inactive;
  uint32_t rvi_activeBgp;
  uint32_t rvi_inactiveBgp;
  void *rvi_slaveRules;
  void *rvi_masterRules;
  uint8_t rvi_ruleFlags[3];
};

struct rt_client {
  uint32_t rtc_state;  // 1 active, 0 free
  uint32_t rtc_proto;
  uint32_t rtc_vrfId;
  uint32_t rtc_instance;
  uint32_t rtc_ipcInst;
  int32_t rtc_slot;
  uint32_t rtc_ipAddr;
  uint32_t rtc_ipcSvce;
  int32_t rtc_type;
  uint32_t rtc_afIndex;
  uint32_t rtc_cid;
  uint32_t *rtc_expSeqPtr;
  uint32_t rtc_expSeq[2];  // [1] is the expected sequence, tested against 8 by the frame
  char rtc_name[40];
  uint32_t rtc_flags;
  uint64_t rtc_regTime;
  uint32_t rtc_filter;
  uint32_t rtc_filterState;
  uint32_t rtc_dnldQ;
  uint32_t rtc_dnldState;
  uint32_t rtc_redistQ;
  uint32_t rtc_redistState;
  uint32_t rtc_counters[4];
  uint32_t rtc_lastCnt;
  uint32_t expSeqQListHdl;
  uint32_t rtc_paired;
  rtClientVrfInfo *rtc_vrf[MAX_VRF];
};

extern rt_client rt_client_tbl[3][MAX_RTM_CLEINTS];

void rtmClientInit();
// The active client of handle `cid` in the family, or null (afIndex 1 and 3 have no clients).
rt_client *rtmClientGetByHandle(uint8_t afIndex, uint32_t cid);
// The client's record for a VRF, or null.
rtClientVrfInfo *rtmClientGetVrfInfo(uint8_t afIndex, uint32_t cid, uint32_t vrfId);
// The client name as a terminated string.
const char *rtmClientName(const rt_client *rtc, char (&buf)[41]);

// Back to a clean start (tests).
void rtmClientReset();
