// MT_RTM_GET_ROUTE_COUNT: the route counters of every client, per VRF and family, with totals.
//
// An NM command (MT_NM_CMD, sub-code MT_RTM_GET_ROUTE_COUNT) that a monitoring tool, a test or
// a feeder sends with send-and-wait. The answer is the request buffer with the reply fields
// filled in, one row per client record of a selected VRF and family. A reply holds at most
// RTM_RC_MAX_ROWS rows; a larger answer is read in pages, each request naming in `cursor` the
// first row it wants (the `next` word of the previous reply). The totals and the row count
// always cover everything selected, whatever page is asked for, so a caller that only wants
// the totals asks once.
//
// Request (at least RTM_RC_REQ_LEN bytes; all words big-endian):
//   72  u32  sub-code            MT_RTM_GET_ROUTE_COUNT
//   80  u32  afIndex             0 IPv4, 2 IPv6, RTM_RC_ALL_AF both
//   84  u32  vrfId               0..512, or ALL_VRF_ID for every VRF in use
//   88  u32  cursor              first row to report (0 for the first page)
// Reply (the request's header and words 80..91 as sent):
//   8   u32  mlen                RTM_RC_OFF_ROWS + rows * RTM_RC_ROW_LEN
//   64  u32  status              RTM_RC_OK, or RTM_RC_EBADREQ (nothing else is filled)
//   92  u32  rows                rows in this reply
//   96  u32  next                cursor of the next page, 0 when this page holds the last row
//   100 u32  total               rows selected in all
//   104 u64  active              sum of rvi_active over the selected rows
//   112 u64  inactive            sum of rvi_inactive
//   120 u64  activeBgp           sum of rvi_activeBgp
//   128 u64  inactiveBgp         sum of rvi_inactiveBgp
//   136 u64  prefixes            heads in the main trees of the selected VRFs and families
//   144      rows                RTM_RC_ROW_LEN bytes each
// Row:
//   0   u32  cid                 8   u32  rtc_proto           20  u32  rvi_active
//   4   u8   afIndex             12  u32  rtc_instance        24  u32  rvi_inactive
//   5   u8   flags (RTM_RC_ROW_BLOCKED)                       28  u32  rvi_activeBgp
//   6   u16  reserved            16  u32  vrfId               32  u32  rvi_inactiveBgp
//   36  6 x u32 subtype counters, in the record's order       60  u32  reserved
#pragma once

#include <cstddef>
#include <cstdint>

#include "rtm/rtm_wire.h"

constexpr uint32_t RTM_RC_ALL_AF = 0xFFFFFFFFu;

constexpr size_t RTM_RC_OFF_AFINDEX = 80;
constexpr size_t RTM_RC_OFF_VRFID = 84;
constexpr size_t RTM_RC_OFF_CURSOR = 88;
constexpr size_t RTM_RC_REQ_LEN = 92;

constexpr size_t RTM_RC_OFF_NROWS = 92;
constexpr size_t RTM_RC_OFF_NEXT = 96;
constexpr size_t RTM_RC_OFF_TOTAL = 100;
constexpr size_t RTM_RC_OFF_ACTIVE = 104;
constexpr size_t RTM_RC_OFF_INACTIVE = 112;
constexpr size_t RTM_RC_OFF_ACTIVE_BGP = 120;
constexpr size_t RTM_RC_OFF_INACTIVE_BGP = 128;
constexpr size_t RTM_RC_OFF_PREFIXES = 136;
constexpr size_t RTM_RC_OFF_ROWS = 144;

constexpr size_t RTM_RC_ROW_LEN = 64;
constexpr size_t RTM_RC_ROW_CID = 0;
constexpr size_t RTM_RC_ROW_AFINDEX = 4;
constexpr size_t RTM_RC_ROW_FLAGS = 5;
constexpr size_t RTM_RC_ROW_PROTO = 8;
constexpr size_t RTM_RC_ROW_INSTANCE = 12;
constexpr size_t RTM_RC_ROW_VRFID = 16;
constexpr size_t RTM_RC_ROW_ACTIVE = 20;
constexpr size_t RTM_RC_ROW_INACTIVE = 24;
constexpr size_t RTM_RC_ROW_ACTIVE_BGP = 28;
constexpr size_t RTM_RC_ROW_INACTIVE_BGP = 32;
constexpr size_t RTM_RC_ROW_SUBTYPE = 36;  // six words
constexpr unsigned RTM_RC_SUBTYPE_COUNTERS = 6;

constexpr uint8_t RTM_RC_ROW_BLOCKED = 0x1;  // a clear of the client's routes is pending

constexpr uint32_t RTM_RC_OK = 0;
constexpr uint32_t RTM_RC_EBADREQ = 1;  // short request, or an afIndex or VRF out of range

// Rows that fit in one reply of the IPC buffer.
constexpr uint32_t RTM_RC_MAX_ROWS = (RTM_IPC_BUF_SIZE - RTM_RC_OFF_ROWS) / RTM_RC_ROW_LEN;
static_assert(RTM_RC_MAX_ROWS == 125);
static_assert(RTM_RC_ROW_SUBTYPE + 4 * RTM_RC_SUBTYPE_COUNTERS + 4 == RTM_RC_ROW_LEN);
