// Wire layouts of clearing: the clear record the CLI sends, and the flush message rtmd sends a
// protocol (and the protocol's answer, in the same layout).
//
// `clear ip route` empties a VRF's table (or one prefix of it). rtmd then tells every protocol
// that served the VRF with a flush message carrying a key; until the protocol answers with the
// same key, rtmd drops its adds and deletes for that VRF (they would belong to the table that
// was cleared). The protocol sends its routes again after its answer.
#pragma once

#include <cstddef>
#include <cstdint>

// The clear record (NM sub-code MT_RTM_CLEAR_ROUTES, at offset 80 of the NM message).
constexpr size_t RTM_CLR_REC_LEN = 48;
constexpr size_t RTM_CLR_REC_OFF_ALL = 12;      // u32: 1 every route of the VRF, 0 one prefix
constexpr size_t RTM_CLR_REC_OFF_AFINDEX = 16;  // u8: 0 IPv4, 2 IPv6
constexpr size_t RTM_CLR_REC_OFF_PREFIX = 17;   // 4 or 16 bytes
constexpr size_t RTM_CLR_REC_OFF_PLEN = 40;     // u8
constexpr size_t RTM_CLR_REC_OFF_VRFID = 44;    // u32

// The flush message, MT_RTM_CLR_ROUTE (IPv4) or MT_RTM6_CLR_ROUTE (IPv6), on the protocol's
// redistribution queue, mstatus 1. The answer has the same type and layout, with the
// protocol's handle at offset 136.
constexpr uint32_t RTM_CLR_MSG_LEN = 184;
constexpr size_t RTM_CLR_OFF_CID = 136;      // u32, the answer only (zero in rtmd's message)
constexpr size_t RTM_CLR_OFF_ALL = 148;      // u32
constexpr size_t RTM_CLR_OFF_AFINDEX = 152;  // u8
constexpr size_t RTM_CLR_OFF_KEY = 156;      // u32: the answer must carry it back
constexpr size_t RTM_CLR_OFF_PLEN = 160;     // u8
constexpr size_t RTM_CLR_OFF_PREFIX = 161;   // 4 or 16 bytes
constexpr size_t RTM_CLR_OFF_VRFID = 180;    // u32

// MT_RTM_FLUSH_CLIENT_ROUTES (plain, answered): the handle at 60, the result in mstatus.
// The sequenced flushes carry the handle at 136, and the VRF forms the VRF at 132.
constexpr size_t RTM_FLUSH_OFF_CID = 60;
constexpr size_t RTM_FLUSH_SWP_OFF_VRFID = 132;
constexpr uint32_t RTM_FLUSH_SWP_LEN = 140;

// MT_RTM_CLEAR_FIB (plain, answered with mstatus 0): the handle at 60, the VRF at 124 (65535:
// every VRF), the family byte at 160.
constexpr size_t RTM_CLEAR_FIB_OFF_CID = 60;
constexpr size_t RTM_CLEAR_FIB_OFF_VRFID = 124;
constexpr size_t RTM_CLEAR_FIB_OFF_AFINDEX = 160;
constexpr uint32_t RTM_CLEAR_FIB_LEN = 161;

// NM commands of the filter: data word 16 filters BGP routes from IPM, IPM6 and LDP (the
// second word non-zero: only from those registered for the small FIB), 17 lifts the filter;
// the family word follows (2 IPv6, anything else IPv4). MT_RTM_REDNLD_BGP_IPM1: the value at
// 80 (non-zero: IPM instance 1 takes BGP routes), the family word at 84 (0 IPv4, else IPv6).
constexpr size_t RTM_FILTER_OFF_CMD = 80;
constexpr size_t RTM_FILTER_OFF_SMALL = 84;
constexpr size_t RTM_FILTER_OFF_AFINDEX = 88;
constexpr uint32_t RTM_FILTER_ON = 16;
constexpr uint32_t RTM_FILTER_OFF = 17;
constexpr size_t RTM_REDNLD_OFF_VALUE = 80;
constexpr size_t RTM_REDNLD_OFF_AFINDEX = 84;
