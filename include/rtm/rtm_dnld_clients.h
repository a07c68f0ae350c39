// MT_RTM_GET_DNLD_CLIENTS: the download clients of one family, as the download thread sees
// them: which list each stands on, its queue, its counters and how far it has been served.
//
// An NM command (MT_NM_CMD, sub-code MT_RTM_GET_DNLD_CLIENTS, in rtm/rtm_msgs.h) sent with send-and-wait; it is
// answered at once and changes nothing. What an operator asks when an agent lags: is it in the
// super group, is its queue backed up, has it failed.
//
// Request (RTM_DC_REQ_LEN bytes, all words big-endian):
//   72  u32  sub-code            MT_RTM_GET_DNLD_CLIENTS
//   80  u32  afIndex             0 IPv4 or 2 IPv6
//   84  u32  vrfId               0..512: whose versions to report
// Reply (the request's header and words 80..87 as sent):
//   8   u32  mlen                RTM_DC_OFF_ROWS + rows * RTM_DC_ROW_LEN
//   64  u32  status              RTM_DC_OK, or RTM_DC_EBADREQ (nothing else is filled)
//   88  u32  rows                one per download client (protocols 25 to 29) of the family
//   92  u32  super members       how many of them stand on the super list
//   96  u64  tree version        of the family's main tree in the VRF (0 if it has none)
//   104 u64  group version       the super group's: what its members have all been given
//   112      rows                RTM_DC_ROW_LEN bytes each, in handle order
// Row:
//   0   u32  cid                 20  u32  rtc_qState          40  u32  rtc_superSendCount
//   4   u8   list (RTM_DC_LIST_*) 24 u32  rtc_filterState     44  u32  rtc_lastCnt
//   5   3    reserved            28  u32  rtc_addCount        48  u32  messages held on its queue
//   8   u32  rtc_proto           32  u32  rtc_delCount        52  u32  rvi_ruleFlags[0] of the VRF
//   12  u32  rtc_instance        36  u32  rtc_sendCount       56  u64  rvi_version of the VRF
//   16  u32  rtc_dnldState (255: the queue failed)
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t RTM_DC_OFF_AFINDEX = 80;
constexpr size_t RTM_DC_OFF_VRFID = 84;
constexpr size_t RTM_DC_REQ_LEN = 88;

constexpr size_t RTM_DC_OFF_NROWS = 88;
constexpr size_t RTM_DC_OFF_NSUPER = 92;
constexpr size_t RTM_DC_OFF_TREEVER = 96;
constexpr size_t RTM_DC_OFF_GROUPVER = 104;
constexpr size_t RTM_DC_OFF_ROWS = 112;
constexpr size_t RTM_DC_ROW_LEN = 64;

constexpr size_t RTM_DC_ROW_CID = 0;
constexpr size_t RTM_DC_ROW_LIST = 4;  // u8
constexpr size_t RTM_DC_ROW_PROTO = 8;
constexpr size_t RTM_DC_ROW_INSTANCE = 12;
constexpr size_t RTM_DC_ROW_DNLDSTATE = 16;
constexpr size_t RTM_DC_ROW_QSTATE = 20;
constexpr size_t RTM_DC_ROW_FILTERSTATE = 24;
constexpr size_t RTM_DC_ROW_ADDS = 28;
constexpr size_t RTM_DC_ROW_DELS = 32;
constexpr size_t RTM_DC_ROW_SENDS = 36;
constexpr size_t RTM_DC_ROW_SUPERSENDS = 40;
constexpr size_t RTM_DC_ROW_FAILURES = 44;
constexpr size_t RTM_DC_ROW_QLEN = 48;
constexpr size_t RTM_DC_ROW_RULEFLAGS = 52;
constexpr size_t RTM_DC_ROW_VERSION = 56;  // u64

constexpr uint8_t RTM_DC_LIST_NONE = 0;  // on neither list
constexpr uint8_t RTM_DC_LIST_REGULAR = 1;
constexpr uint8_t RTM_DC_LIST_SUPER = 2;

constexpr uint32_t RTM_DC_OK = 0;
constexpr uint32_t RTM_DC_EBADREQ = 1;
constexpr uint32_t RTM_DC_QLEN_NONE = 0xFFFFFFFFu;  // no queue
