// Message codes of rtmd, and the table that tells the main dispatch how to treat each one.
//
// There are two code spaces. The message type (`mtype`, the header word at offset 12) selects
// the handler; inside MT_NM_CMD the NM sub-code (word at offset 72) selects a command of the
// CLI and management front ends. One number may mean different things in the two spaces
// (0x3215 is a client's flush answer as an mtype and the CLI's clear command as a sub-code),
// so each space has its own table and its own lookup.
//
// The mtype table also names the codes rtmd only sends (kind RTM_KIND_OUT), so that a trace of
// an outgoing message prints a name; the dispatch must treat those as unknown when received.
//
// A few codes share one name. Their constants get a suffix (MT_RTM_REG_CLIENT_2, ...), while
// the table keeps the shared name, which is what traces and events print.
//
// For a sequenced client message (kind C) the row says where the client handle and the afIndex
// lie, and how the afIndex is found (a byte, a word, fixed by the code, or folded); the
// dispatch reads both through rtmMsgClientAf, which checks the message length first.
#pragma once

#include <cstddef>
#include <cstdint>

#include "rtm/rtm_types.h"
#include "rtm/rtm_wire.h"

// ---------------------------------------------------------------------------------------------
// Message types accepted by the main dispatch.

constexpr uint32_t MT_RAM_RPM_DATA_SYNC = 0x0008;
constexpr uint32_t MT_SWP_ACK = 0x0192;
constexpr uint32_t MT_RPM_FAILOVER = 0x0648;
constexpr uint32_t MT_UNDEBUG_ALL = 0x07D3;
constexpr uint32_t MT_RTM_IGNORED = 0x07D7;
constexpr uint32_t MT_EVT_NOTIFY = 0x07D9;
constexpr uint32_t MT_CFG_START_BLK_CFG_NOTIF = 0x0AF4;
constexpr uint32_t MT_CFG_END_BLK_CFG_NOTIF = 0x0AF5;
constexpr uint32_t MT_CFG_INIT_CFG_COMPLETE = 0x0AF6;
constexpr uint32_t MT_CHM_REGISTER = 0x0C81;
constexpr uint32_t MT_CHM_ADD_CARD = 0x0C82;
constexpr uint32_t MT_NM_CMD = 0x1771;
constexpr uint32_t MT_IFM_REGISTER = 0x2A32;  // 10802: also the registration rtmd sends to IFM
constexpr uint32_t MT_IFM_NOTIFY = 0x2A9C;    // 10908
constexpr uint32_t MT_RTM_REG_CLIENT = 0x3201;
constexpr uint32_t MT_RTM_REG_NONRT_CLIENT = 0x3202;
constexpr uint32_t MT_RTM_DEREG_CLIENT = 0x3203;
constexpr uint32_t MT_RTM_UPD_ROUTE = 0x3204;
constexpr uint32_t MT_RTM_UPD_V4MUL_ROUTE = 0x3205;
constexpr uint32_t MT_RTM_ROUTE_LOOKUP = 0x320C;
constexpr uint32_t MT_RTM_SYNC_LOOKUP = 0x320D;
constexpr uint32_t MT_RTM_SYNC_LOOKUP_MUL = 0x320E;
constexpr uint32_t MT_RTM_POLL_RECUR_RTE_LOOKUP = 0x320F;
constexpr uint32_t MT_RTM_POLL_MULTI_RECUR_RTE_LKUP = 0x3210;
constexpr uint32_t MT_RTM_POLL_MULTI_RECUR_RTE_LOOKUP_SWP = 0x3211;
constexpr uint32_t MT_RTM_CLR_ROUTE = 0x3215;
constexpr uint32_t MT_RTM_REDIST_TGT_CLIENT = 0x321C;
constexpr uint32_t MT_RTM_REDIST_TGT_CLIENT_2 = 0x321D;
constexpr uint32_t MT_RTM_REG_CLIENT_2 = 0x3220;
constexpr uint32_t MT_RTM6_CLR_ROUTE = 0x3222;
constexpr uint32_t MT_RTM6_SYNC_LOOKUP = 0x3223;
constexpr uint32_t MT_RTM6_POLL_RECUR_RTE_LOOKUP = 0x3224;
constexpr uint32_t MT_RTM6_POLL_MULTI_RECUR_RTE_LKUP = 0x3225;
constexpr uint32_t MT_RTM6_POLL_MULTI_RECUR_RTE_LOOKUP_SWP = 0x3229;
constexpr uint32_t MT_RTM_FLUSH_CLIENT_ROUTES = 0x322D;
constexpr uint32_t MT_RTM_FLUSH_CLIENT_ROUTES_SWP = 0x322E;
constexpr uint32_t MT_RTM6_FLUSH_CLIENT_ROUTES_SWP = 0x322F;
constexpr uint32_t MT_RTM_FLUSH_CLIENT_POLLER_ROUTES_SWP = 0x3230;
constexpr uint32_t MT_RTM_FLUSH_CLIENT_POLLER_ROUTES_SWP_2 = 0x3231;
constexpr uint32_t MT_RTM6_FLUSH_CLIENT_POLLER_ROUTES_SWP = 0x3232;
constexpr uint32_t MT_RTM_FLUSH_CLIENT_ROUTES_MUL_SWP = 0x3233;
constexpr uint32_t UPD_DEF_INFO = 0x3234;
constexpr uint32_t UPD_DEF_INFO_V6 = 0x3235;
constexpr uint32_t MT_RTM_DEREG_AF_CLIENT = 0x3237;
constexpr uint32_t MT_RTM_REDIST_DELETE_RULES = 0x323C;
constexpr uint32_t MT_RTM_REG_CLIENT_VRF = 0x323F;  // reg_vrfId taken as it stands
constexpr uint32_t MT_RTM_CLEAR_FIB = 0x3240;
constexpr uint32_t MT_RTM_ISIS_TAG_MSG = 0x3249;
constexpr uint32_t MT_RTM_OFM_GRP_MSG = 0x324F;      // 12879
constexpr uint32_t MT_RTM_OFM_L3_INTF_MSG = 0x3250;  // 12880
constexpr uint32_t MT_RTM_FLUSH_CLIENT_VRF_ROUTES_SWP = 0x3251;
constexpr uint32_t MT_RTM6_FLUSH_CLIENT_VRF_ROUTES_SWP = 0x3252;
constexpr uint32_t MT_RTM_FLUSH_CLIENT_VRF_ROUTES_MUL_SWP = 0x3253;
constexpr uint32_t MT_RTM_REDIST_RESTART = 0x3254;
constexpr uint32_t MT_RTM_DNLD_CNTRL = 0x3255;  // also sent back to the agent: a fresh download
constexpr uint32_t MT_RTM_VRF_DEL_NOTIFY_CLNT_ACK = 0x3258;
constexpr uint32_t MT_RTM_REG_CLIENT_INSTANCE = 0x325C;
constexpr uint32_t MT_RTM_DEREG_CLIENT_INSTANCE = 0x325D;
constexpr uint32_t MT_RTM_REG_CLIENT_BOTH = 0x3269;
constexpr uint32_t MT_RTM_DEREG_CLIENT_BOTH = 0x326A;
constexpr uint32_t MT_RTM_FIB_ISSU_EVENT = 0x327C;  // 12924, both ways
constexpr uint32_t MT_ACL_RMAP_TRIGGER = 0x388D;
constexpr uint32_t MT_PREFIX_LIST_TRIGGER = 0x3893;
constexpr uint32_t MT_BFD_NOTIF_MSG = 0x68B7;
constexpr uint32_t MT_VRF_VLAN = 0x73A2;        // VLAN block
constexpr uint32_t MT_VRF_VLAN_START = 0x73A3;  // VRF VLAN start; the same handler
constexpr uint32_t MT_IP_VRF_INTERFACE = 0x73A6;
constexpr uint32_t MT_TNL_DESTADDR_INFO = 0x8FD0;
constexpr uint32_t MT_BRM_NOTIFY_MSG = 0xAF04;
constexpr uint32_t MT_ISSUMGR_STATE_UPDATE = 0xC674;

// ---------------------------------------------------------------------------------------------
// Message types rtmd sends and never accepts.

constexpr uint32_t MT_RTM_REDIST_ROUTE = 0x3216;        // redistributed IPv4 routes
constexpr uint32_t MT_RTM_MBGP_REDIST_ROUTE = 0x3219;   // the same, to an MBGP client
constexpr uint32_t MT_RTM_FIB_ROUTE = 0x321E;           // IPv4 route download
constexpr uint32_t MT_RTM6_FIB_ROUTE = 0x3221;          // IPv6 route download
constexpr uint32_t MT_RTM6_POLL_UPDATE = 0x3226;        // 12838: next-hop resolution, IPv6
constexpr uint32_t MT_RTM6_REDIST_ROUTE = 0x3227;       // redistributed IPv6 routes
constexpr uint32_t MT_RTM_FIB_NH = 0x322A;              // next-hop bundle
constexpr uint32_t MT_RTM_ARP_REQ = 0x322B;
constexpr uint32_t MT_RTM_POLL_UPDATE = 0x3236;         // 12854: next-hop resolution, IPv4
constexpr uint32_t MT_RTM_EGR_L3_INDEX = 0x323B;        // 12859
constexpr uint32_t MT_RTM_REDIST_FIRST_RULE = 0x323D;
constexpr uint32_t MT_RTM_REDIST_LAST_RULE = 0x323E;
constexpr uint32_t MT_RTM_FIB_VRF = 0x3242;
constexpr uint32_t MT_RTM_NDP_REQ = 0x3246;
constexpr uint32_t MT_RTM_VRF_NOTIFY_CLNT = 0x3257;
constexpr uint32_t MT_RTM_IFM_VRF_DEL_STATUS = 0x3259;  // 12889
constexpr uint32_t MT_RTM_TNL_DEST_INFO = 0x325A;       // 12890
constexpr uint32_t MT_ACL_RMAP_REGISTER = 0x3882;
constexpr uint32_t MT_ACL_RMAP_DEREGISTER = 0x3883;
// The hash-algorithm (12823) and FIB-audit (12857) messages to a FIB agent carry the code of
// the NM command that caused them: MT_RTM_HASH_ALGORITHM and MT_RTM_FIB_AUDIT below.

// ---------------------------------------------------------------------------------------------
// NM sub-codes, inside MT_NM_CMD.

constexpr uint32_t MT_RTM_UPD_STATIC = 0x3207;
constexpr uint32_t MT_RTM_UPD_MSTATIC = 0x3208;
constexpr uint32_t MT_RTM_FILTER_FLAG = 0x3209;
constexpr uint32_t MT_RTM_REDNLD_BGP_IPM1 = 0x320A;
constexpr uint32_t MT_RTM_STATIC_BFD_CLI = 0x320B;
constexpr uint32_t MT_RTM_SHOW_ROUTES = 0x3212;
constexpr uint32_t MT_RTM_SHOW_RPF_ROUTES = 0x3213;
constexpr uint32_t MT_RTM_SHOW_CFG_ROUTES = 0x3214;
constexpr uint32_t MT_RTM_CLEAR_ROUTES = 0x3215;
constexpr uint32_t MT_RTM_HASH_ALGORITHM = 0x3217;
constexpr uint32_t MT_RTM_IP_REDIRECT = 0x3218;
constexpr uint32_t MT_RTM_REDIST_CLI = 0x321A;
constexpr uint32_t MT_RTM_DEBUG = 0x321B;
constexpr uint32_t MT_RTM_IPV6_ENABLE = 0x321F;
constexpr uint32_t MT_RTM_FIB_AUDIT = 0x3239;
constexpr uint32_t MT_RTM_FIB6_PATHGRP_FALLBACK = 0x3243;
constexpr uint32_t MT_RTM_ECMP_DETERMINISTIC = 0x3244;
constexpr uint32_t MT_RTM6_ECMP_DETERMINISTIC = 0x3245;
constexpr uint32_t MT_RTM_ISIS_WAIT_MSG = 0x3247;
constexpr uint32_t MT_RTM_OSPF_WAIT_MSG = 0x3248;
constexpr uint32_t MT_RTM_FIB6_HASH_CONF = 0x324E;
constexpr uint32_t VRF_CLI_MAX_ROUTE_CLI = 0x325B;
constexpr uint32_t MT_RTM_VRF_RTLEAK = 0x325E;
constexpr uint32_t MT_RTM_CONFD_GET_ROUTE_LIST = 0x3260;
constexpr uint32_t MT_RTM_CONFD_GET_ROUTE_NEXT_HOP = 0x3261;
constexpr uint32_t MT_RTM_CONFD_GET_ROUTE_SUMM = 0x3262;
constexpr uint32_t MT_RTM_CONFD_GET_ROUTE_GWLASTRESORT = 0x3263;
constexpr uint32_t MT_RTM_CONFD_GET_IPV6_ROUTE_LIST = 0x3264;
constexpr uint32_t MT_RTM_CONFD_GET_IPV6_ROUTE_GWLASTRESORT = 0x3265;
constexpr uint32_t MT_RTM_CONFD_GET_IPV6_ROUTE_SUMM = 0x3266;
constexpr uint32_t MT_RTM_UNKNOWN_UCAST_BLOCK = 0x3267;
constexpr uint32_t MT_RTM_IPV4_32_ROUTE_IN_HOST = 0x326F;
constexpr uint32_t MT_RTM6_IPV6_128_ROUTE_IN_HOST = 0x3270;
constexpr uint32_t MT_RTM_WEIGHTED_ECMP = 0x3272;
constexpr uint32_t MT_RTM_GET_ROUTES = 0x327A;
constexpr uint32_t MT_RTM_GET_ROUTE_COUNT = 0x327B;
constexpr uint32_t MT_RTM_GET_DNLD_CLIENTS = 0x327D;  // the download clients' state: rtm/rtm_dnld_clients.h
constexpr uint32_t MT_RTM_BGP_AS_FORMAT = 0x3527;
constexpr uint32_t MT_BGP_CONVERGED_MSG = 0x3528;
constexpr uint32_t MT_BGP_GR_CONVERGED_MSG = 0x352A;
constexpr uint32_t MT_RTM_SNMP_ROUTE_ENTRY_INET = 0x12000000;
constexpr uint32_t MT_RTM_SNMP_ROUTE_ENTRY_MIB2 = 0x12000106;
constexpr uint32_t MT_RTM_SNMP_IP_ADDRESS_ENTRY = 0x120001E5;
constexpr uint32_t MT_RTM_SNMP_DEFAULT_ROUTER = 0x120001E9;
constexpr uint32_t MT_RTM_SNMP_ROUTE_ENTRY = 0x1200023F;
constexpr uint32_t MT_RTM_SNMP_ROUTE_SCALAR_INET = 0x12000241;

// Where an NM command keeps its fields.
constexpr size_t RTM_NM_OFF_STATUS = 64;   // result word of the reply; -1 for an unknown command
constexpr size_t RTM_NM_OFF_SUBCODE = 72;
constexpr size_t RTM_NM_OFF_DATA = 80;

// Values carried by catalogue messages.
constexpr uint32_t RTM_CNTRL_STOP_DNLD = 0;   // MT_RTM_DNLD_CNTRL action word at 132
constexpr uint32_t RTM_CNTRL_START_DNLD = 1;
constexpr uint32_t RTM_CNTRL_DNLD_BEGINS = 2;  // in the copy rtmd sends back to the agent
constexpr uint32_t RPM_START_DATA_SYNC = 42;   // MT_RAM_RPM_DATA_SYNC word at 24
constexpr uint32_t RPM_STOP_DATA_SYNC = 43;

// ---------------------------------------------------------------------------------------------
// The dispatch table.

enum RtmMsgKind : char {
  RTM_KIND_C = 'C',    // sequenced client message: client look-up, then SWP sequence check
  RTM_KIND_M = 'M',    // sequenced message of a manager, checked against a fixed sequence word
  RTM_KIND_P = 'P',    // plain message, handled as it comes
  RTM_KIND_N = 'N',    // NM command inside MT_NM_CMD
  RTM_KIND_OUT = 'O',  // sent by rtmd only; received, it is an unknown type
};

enum RtmReplyMode : uint8_t {
  RTM_REPLY_NO,          // nothing goes back on the exchange
  RTM_REPLY_YES,         // after the work
  RTM_REPLY_FIRST,       // before the work
  RTM_REPLY_IN_HANDLER,  // the handler decides
  RTM_REPLY_ON_ERROR,
  RTM_REPLY_STATUS,      // status word := the handler's result, then reply
  RTM_REPLY_SWP,         // the SWP acknowledgement is the answer
  RTM_REPLY_PER_CMD,     // MT_NM_CMD: see the sub-code's row
};

enum RtmCidSource : uint8_t {
  RTM_CID_NONE,
  RTM_CID_WORD,     // u32 at cidOff
  RTM_CID_SPLIT16,  // u32 at cidOff: upper 16 bits for afIndex 0 and 1, lower 16 otherwise
};

enum RtmAfSource : uint8_t {
  RTM_AF_NONE,
  RTM_AF_BYTE,      // u8 at afOff
  RTM_AF_WORD,      // u32 at afOff
  RTM_AF_FIXED,     // afFixed, whatever the message says
  RTM_AF_BYTE_UNI,  // u8 at afOff: 0 and 1 give 0, anything else 2
  RTM_AF_WORD_TNL,  // u32 at afOff: 2, 4 and 5 give 2, anything else 0
};

// The fixed sequence word a manager's message is checked against (kind M).
enum RtmSeqSource : uint8_t {
  RTM_SEQ_NONE,
  RTM_SEQ_ACL,          // expAclDownloadSeq
  RTM_SEQ_PREFIX_LIST,  // qHandle
  RTM_SEQ_BFD_VRF,      // one word per VRF in rtmBfdVrfCtrlTbl
  RTM_SEQ_BRM,          // rtmBrmSeqNum
  RTM_SEQ_ISSU,         // rtmIssuSeqNum
};

// Row flags.
constexpr uint8_t RTM_MSGF_NO_RECV_TRACE = 0x01;   // left out of the receive trace
constexpr uint8_t RTM_MSGF_NEEDS_QLIST = 0x02;     // only with an expected-sequence list
constexpr uint8_t RTM_MSGF_RUN_ON_SEQ_FAIL = 0x04;  // the handler runs after a failed check too
constexpr uint8_t RTM_MSGF_NO_TIC = 0x08;          // leaves without rtmTicValidatation

struct RtmMsgInfo {
  uint32_t code;
  const char *name;
  RtmMsgKind kind;
  RtmReplyMode reply;
  RtmCidSource cidSrc;
  uint16_t cidOff;
  RtmAfSource afSrc;
  uint16_t afOff;
  uint8_t afFixed;
  RtmSeqSource seq;
  uint8_t flags;
};

namespace rtm::detail {
// Row makers, named by kind (P, C, M, N, O for sent-only) and by where the client handle and
// the afIndex come from (c: a handle word; f: family fixed by the code; b/a: read from the
// message). Short names keep each table row on one line.
constexpr RtmMsgInfo P(uint32_t c, const char *n, RtmReplyMode r, uint8_t f = 0) {
  return {c, n, RTM_KIND_P, r, RTM_CID_NONE, 0, RTM_AF_NONE, 0, 0, RTM_SEQ_NONE, f};
}
constexpr RtmMsgInfo Pcf(uint32_t c, const char *n, RtmReplyMode r, uint16_t cid, uint8_t af) {
  return {c, n, RTM_KIND_P, r, RTM_CID_WORD, cid, RTM_AF_FIXED, 0, af, RTM_SEQ_NONE, 0};
}
constexpr RtmMsgInfo Paf(uint32_t c, const char *n, RtmReplyMode r, uint8_t af) {
  return {c, n, RTM_KIND_P, r, RTM_CID_NONE, 0, RTM_AF_FIXED, 0, af, RTM_SEQ_NONE, 0};
}
constexpr RtmMsgInfo Pcb(uint32_t c, const char *n, RtmReplyMode r, uint16_t cid, uint16_t af) {
  return {c, n, RTM_KIND_P, r, RTM_CID_WORD, cid, RTM_AF_BYTE, af, 0, RTM_SEQ_NONE, 0};
}
constexpr RtmMsgInfo Pb(uint32_t c, const char *n, RtmReplyMode r, uint16_t af) {
  return {c, n, RTM_KIND_P, r, RTM_CID_NONE, 0, RTM_AF_BYTE, af, 0, RTM_SEQ_NONE, 0};
}
// Client message, afIndex fixed by the code.
constexpr RtmMsgInfo Cf(uint32_t c, const char *n, uint16_t cid, uint8_t af) {
  return {c, n, RTM_KIND_C, RTM_REPLY_NO, RTM_CID_WORD, cid, RTM_AF_FIXED, 0, af, RTM_SEQ_NONE, 0};
}
// Client message, afIndex read from the message.
constexpr RtmMsgInfo Ca(uint32_t c, const char *n, uint16_t cid, RtmAfSource s, uint16_t af,
                        uint8_t f = 0, RtmCidSource cs = RTM_CID_WORD,
                        RtmReplyMode r = RTM_REPLY_NO) {
  return {c, n, RTM_KIND_C, r, cs, cid, s, af, 0, RTM_SEQ_NONE, f};
}
constexpr RtmMsgInfo M(uint32_t c, const char *n, RtmSeqSource s, uint8_t f = 0) {
  return {c, n, RTM_KIND_M, RTM_REPLY_NO, RTM_CID_NONE, 0, RTM_AF_NONE, 0, 0, s, f};
}
constexpr RtmMsgInfo O(uint32_t c, const char *n) {
  return {c, n, RTM_KIND_OUT, RTM_REPLY_NO, RTM_CID_NONE, 0, RTM_AF_NONE, 0, 0, RTM_SEQ_NONE, 0};
}
constexpr RtmMsgInfo N(uint32_t c, const char *n, RtmReplyMode r, uint8_t f = 0) {
  return {c, n, RTM_KIND_N, r, RTM_CID_NONE, 0, RTM_AF_NONE, 0, 0, RTM_SEQ_NONE, f};
}

// Sorted by code; rtmMsgInfo searches it by halves.
inline constexpr RtmMsgInfo kMsgTable[] = {
    P(MT_RAM_RPM_DATA_SYNC, "MT_RAM_RPM_DATA_SYNC", RTM_REPLY_IN_HANDLER),
    P(MT_SWP_ACK, "MT_SWP_ACK", RTM_REPLY_NO, RTM_MSGF_NO_RECV_TRACE),
    P(MT_RPM_FAILOVER, "MT_RPM_FAILOVER", RTM_REPLY_NO),
    P(MT_UNDEBUG_ALL, "MT_UNDEBUG_ALL", RTM_REPLY_NO),
    P(MT_RTM_IGNORED, "MT_RTM_IGNORED", RTM_REPLY_NO),
    P(MT_EVT_NOTIFY, "MT_EVT_NOTIFY", RTM_REPLY_FIRST),
    P(MT_CFG_START_BLK_CFG_NOTIF, "MT_CFG_START_BLK_CFG_NOTIF", RTM_REPLY_NO),
    P(MT_CFG_END_BLK_CFG_NOTIF, "MT_CFG_END_BLK_CFG_NOTIF", RTM_REPLY_NO),
    P(MT_CFG_INIT_CFG_COMPLETE, "MT_CFG_INIT_CFG_COMPLETE", RTM_REPLY_NO),
    P(MT_CHM_REGISTER, "MT_CHM_REGISTER", RTM_REPLY_NO),
    P(MT_CHM_ADD_CARD, "MT_CHM_ADD_CARD", RTM_REPLY_YES),
    P(MT_NM_CMD, "MT_NM_CMD", RTM_REPLY_PER_CMD, RTM_MSGF_NO_RECV_TRACE),
    P(MT_IFM_REGISTER, "MT_IFM_REGISTER", RTM_REPLY_NO),
    P(MT_IFM_NOTIFY, "MT_IFM_NOTIFY", RTM_REPLY_NO),
    P(MT_RTM_REG_CLIENT, "MT_RTM_REG_CLIENT", RTM_REPLY_YES),
    P(MT_RTM_REG_NONRT_CLIENT, "MT_RTM_REG_NONRT_CLIENT", RTM_REPLY_IN_HANDLER),
    Pb(MT_RTM_DEREG_CLIENT, "MT_RTM_DEREG_CLIENT", RTM_REPLY_FIRST, 160),
    Ca(MT_RTM_UPD_ROUTE, "MT_RTM_UPD_ROUTE", 140, RTM_AF_BYTE, 149),
    Cf(MT_RTM_UPD_V4MUL_ROUTE, "MT_RTM_UPD_V4MUL_ROUTE", 140, 0),
    P(MT_RTM_ROUTE_LOOKUP, "MT_RTM_ROUTE_LOOKUP", RTM_REPLY_IN_HANDLER),
    P(MT_RTM_SYNC_LOOKUP, "MT_RTM_SYNC_LOOKUP", RTM_REPLY_YES, RTM_MSGF_NO_RECV_TRACE),
    P(MT_RTM_SYNC_LOOKUP_MUL, "MT_RTM_SYNC_LOOKUP_MUL", RTM_REPLY_YES),
    Cf(MT_RTM_POLL_RECUR_RTE_LOOKUP, "MT_RTM_POLL_RECUR_RTE_LOOKUP", 136, 0),
    // A synchronous sender waits for the answer, so it is given first, known client or not.
    Pcf(MT_RTM_POLL_MULTI_RECUR_RTE_LKUP, "MT_RTM_POLL_MULTI_RECUR_RTE_LKUP", RTM_REPLY_FIRST, 136, 0),
    Cf(MT_RTM_POLL_MULTI_RECUR_RTE_LOOKUP_SWP, "MT_RTM_POLL_MULTI_RECUR_RTE_LOOKUP_SWP", 136, 0),
    Cf(MT_RTM_CLR_ROUTE, "MT_RTM_CLR_ROUTE", 136, 0),
    O(MT_RTM_REDIST_ROUTE, "MT_RTM_REDIST_ROUTE"),
    O(MT_RTM_HASH_ALGORITHM, "MT_RTM_HASH_ALGORITHM"),
    O(MT_RTM_MBGP_REDIST_ROUTE, "MT_RTM_MBGP_REDIST_ROUTE"),
    // The pair answers for the two families; the handle is the word at 60.
    Pcf(MT_RTM_REDIST_TGT_CLIENT, "MT_RTM_REDIST_TGT_CLIENT", RTM_REPLY_IN_HANDLER, 60, 0),
    Pcf(MT_RTM_REDIST_TGT_CLIENT_2, "MT_RTM_REDIST_TGT_CLIENT", RTM_REPLY_IN_HANDLER, 60, 2),
    O(MT_RTM_FIB_ROUTE, "MT_RTM_FIB_ROUTE"),
    P(MT_RTM_REG_CLIENT_2, "MT_RTM_REG_CLIENT", RTM_REPLY_YES),
    O(MT_RTM6_FIB_ROUTE, "MT_RTM6_FIB_ROUTE"),
    Cf(MT_RTM6_CLR_ROUTE, "MT_RTM6_CLR_ROUTE", 136, 2),
    P(MT_RTM6_SYNC_LOOKUP, "MT_RTM6_SYNC_LOOKUP", RTM_REPLY_YES),
    Cf(MT_RTM6_POLL_RECUR_RTE_LOOKUP, "MT_RTM6_POLL_RECUR_RTE_LOOKUP", 136, 2),
    Pcf(MT_RTM6_POLL_MULTI_RECUR_RTE_LKUP, "MT_RTM6_POLL_MULTI_RECUR_RTE_LKUP", RTM_REPLY_FIRST, 136, 2),
    O(MT_RTM6_POLL_UPDATE, "MT_RTM6_POLL_UPDATE"),
    O(MT_RTM6_REDIST_ROUTE, "MT_RTM6_REDIST_ROUTE"),
    Cf(MT_RTM6_POLL_MULTI_RECUR_RTE_LOOKUP_SWP, "MT_RTM6_POLL_MULTI_RECUR_RTE_LOOKUP_SWP", 136, 2),
    O(MT_RTM_FIB_NH, "MT_RTM_FIB_NH"),
    O(MT_RTM_ARP_REQ, "MT_RTM_ARP_REQ"),
    Pcf(MT_RTM_FLUSH_CLIENT_ROUTES, "MT_RTM_FLUSH_CLIENT_ROUTES", RTM_REPLY_IN_HANDLER, 60, 0),
    Cf(MT_RTM_FLUSH_CLIENT_ROUTES_SWP, "MT_RTM_FLUSH_CLIENT_ROUTES_SWP", 136, 0),
    Cf(MT_RTM6_FLUSH_CLIENT_ROUTES_SWP, "MT_RTM6_FLUSH_CLIENT_ROUTES_SWP", 136, 2),
    Cf(MT_RTM_FLUSH_CLIENT_POLLER_ROUTES_SWP, "MT_RTM_FLUSH_CLIENT_POLLER_ROUTES_SWP", 136, 0),
    Cf(MT_RTM_FLUSH_CLIENT_POLLER_ROUTES_SWP_2, "MT_RTM_FLUSH_CLIENT_POLLER_ROUTES_SWP", 136, 0),
    Cf(MT_RTM6_FLUSH_CLIENT_POLLER_ROUTES_SWP, "MT_RTM6_FLUSH_CLIENT_POLLER_ROUTES_SWP", 136, 2),
    Cf(MT_RTM_FLUSH_CLIENT_ROUTES_MUL_SWP, "MT_RTM_FLUSH_CLIENT_ROUTES_MUL_SWP", 136, 0),
    Paf(UPD_DEF_INFO, "UPD_DEF_INFO", RTM_REPLY_NO, 0),
    Paf(UPD_DEF_INFO_V6, "UPD_DEF_INFO", RTM_REPLY_NO, 2),
    O(MT_RTM_POLL_UPDATE, "MT_RTM_POLL_UPDATE"),
    Pcb(MT_RTM_DEREG_AF_CLIENT, "MT_RTM_DEREG_AF_CLIENT", RTM_REPLY_FIRST, 60, 64),
    O(MT_RTM_FIB_AUDIT, "MT_RTM_FIB_AUDIT"),
    O(MT_RTM_EGR_L3_INDEX, "MT_RTM_EGR_L3_INDEX"),
    Ca(MT_RTM_REDIST_DELETE_RULES, "MT_RTM_REDIST_DELETE_RULES", 128, RTM_AF_BYTE, 132),
    O(MT_RTM_REDIST_FIRST_RULE, "MT_RTM_REDIST_FIRST_RULE"),
    O(MT_RTM_REDIST_LAST_RULE, "MT_RTM_REDIST_LAST_RULE"),
    P(MT_RTM_REG_CLIENT_VRF, "MT_RTM_REG_CLIENT", RTM_REPLY_YES),
    P(MT_RTM_CLEAR_FIB, "MT_RTM_CLEAR_FIB", RTM_REPLY_YES),
    O(MT_RTM_FIB_VRF, "MT_RTM_FIB_VRF"),
    O(MT_RTM_NDP_REQ, "MT_RTM_NDP_REQ"),
    Cf(MT_RTM_ISIS_TAG_MSG, "MT_RTM_ISIS_TAG_MSG", 136, 0),
    Ca(MT_RTM_OFM_GRP_MSG, "MT_RTM_OFM_GRP_MSG", 128, RTM_AF_BYTE, 132),
    Ca(MT_RTM_OFM_L3_INTF_MSG, "MT_RTM_OFM_L3_INTF_MSG", 128, RTM_AF_BYTE, 132),
    Cf(MT_RTM_FLUSH_CLIENT_VRF_ROUTES_SWP, "MT_RTM_FLUSH_CLIENT_VRF_ROUTES_SWP", 136, 0),
    Cf(MT_RTM6_FLUSH_CLIENT_VRF_ROUTES_SWP, "MT_RTM6_FLUSH_CLIENT_VRF_ROUTES_SWP", 136, 2),
    Cf(MT_RTM_FLUSH_CLIENT_VRF_ROUTES_MUL_SWP, "MT_RTM_FLUSH_CLIENT_VRF_ROUTES_MUL_SWP", 136, 0),
    Ca(MT_RTM_REDIST_RESTART, "MT_RTM_REDIST_RESTART", 136, RTM_AF_BYTE, 140, RTM_MSGF_NEEDS_QLIST),
    Ca(MT_RTM_DNLD_CNTRL, "MT_RTM_DNLD_CNTRL", 128, RTM_AF_BYTE_UNI, 140, 0, RTM_CID_SPLIT16,
       RTM_REPLY_SWP),
    O(MT_RTM_VRF_NOTIFY_CLNT, "MT_RTM_VRF_NOTIFY_CLNT"),
    // The acknowledgement record keeps its family in one byte at 132.
    Ca(MT_RTM_VRF_DEL_NOTIFY_CLNT_ACK, "MT_RTM_VRF_DEL_NOTIFY_CLNT_ACK", 128, RTM_AF_BYTE, 132),
    O(MT_RTM_IFM_VRF_DEL_STATUS, "MT_RTM_IFM_VRF_DEL_STATUS"),
    O(MT_RTM_TNL_DEST_INFO, "MT_RTM_TNL_DEST_INFO"),
    Ca(MT_RTM_REG_CLIENT_INSTANCE, "MT_RTM_REG_CLIENT_INSTANCE", 136, RTM_AF_WORD, 140),
    Ca(MT_RTM_DEREG_CLIENT_INSTANCE, "MT_RTM_DEREG_CLIENT_INSTANCE", 136, RTM_AF_WORD, 140),
    P(MT_RTM_REG_CLIENT_BOTH, "MT_RTM_REG_CLIENT_BOTH", RTM_REPLY_YES),
    P(MT_RTM_DEREG_CLIENT_BOTH, "MT_RTM_DEREG_CLIENT_BOTH", RTM_REPLY_FIRST),
    Cf(MT_RTM_FIB_ISSU_EVENT, "MT_RTM_FIB_ISSU_EVENT", 128, 0),
    O(MT_ACL_RMAP_REGISTER, "MT_ACL_RMAP_REGISTER"),
    O(MT_ACL_RMAP_DEREGISTER, "MT_ACL_RMAP_DEREGISTER"),
    M(MT_ACL_RMAP_TRIGGER, "MT_ACL_RMAP_TRIGGER", RTM_SEQ_ACL),
    M(MT_PREFIX_LIST_TRIGGER, "MT_PREFIX_LIST_TRIGGER", RTM_SEQ_PREFIX_LIST),
    M(MT_BFD_NOTIF_MSG, "MT_BFD_NOTIF_MSG", RTM_SEQ_BFD_VRF),
    P(MT_VRF_VLAN, "MT_VRF_VLAN", RTM_REPLY_NO),
    P(MT_VRF_VLAN_START, "MT_VRF_VLAN", RTM_REPLY_NO),
    P(MT_IP_VRF_INTERFACE, "MT_IP_VRF_INTERFACE", RTM_REPLY_NO),
    Ca(MT_TNL_DESTADDR_INFO, "MT_TNL_DESTADDR_INFO", 128, RTM_AF_WORD_TNL, 140),
    M(MT_BRM_NOTIFY_MSG, "MT_BRM_NOTIFY_MSG", RTM_SEQ_BRM, RTM_MSGF_RUN_ON_SEQ_FAIL),
    M(MT_ISSUMGR_STATE_UPDATE, "MT_ISSUMGR_STATE_UPDATE", RTM_SEQ_ISSU, RTM_MSGF_RUN_ON_SEQ_FAIL),
};

inline constexpr RtmMsgInfo kNmTable[] = {
    N(MT_RTM_UPD_STATIC, "MT_RTM_UPD_STATIC", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_UPD_MSTATIC, "MT_RTM_UPD_MSTATIC", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_FILTER_FLAG, "MT_RTM_FILTER_FLAG", RTM_REPLY_STATUS),
    N(MT_RTM_REDNLD_BGP_IPM1, "MT_RTM_REDNLD_BGP_IPM1", RTM_REPLY_STATUS),
    N(MT_RTM_STATIC_BFD_CLI, "MT_RTM_STATIC_BFD_CLI", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_SHOW_ROUTES, "MT_RTM_SHOW_ROUTES", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_SHOW_RPF_ROUTES, "MT_RTM_SHOW_RPF_ROUTES", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_SHOW_CFG_ROUTES, "MT_RTM_SHOW_CFG_ROUTES", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_CLEAR_ROUTES, "MT_RTM_CLEAR_ROUTES", RTM_REPLY_STATUS),
    N(MT_RTM_HASH_ALGORITHM, "MT_RTM_HASH_ALGORITHM", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_IP_REDIRECT, "MT_RTM_IP_REDIRECT", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_REDIST_CLI, "MT_RTM_REDIST_CLI", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_DEBUG, "MT_RTM_DEBUG", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_IPV6_ENABLE, "MT_RTM_IPV6_ENABLE", RTM_REPLY_FIRST),
    N(MT_RTM_FIB_AUDIT, "MT_RTM_FIB_AUDIT", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_FIB6_PATHGRP_FALLBACK, "MT_RTM_FIB6_PATHGRP_FALLBACK", RTM_REPLY_STATUS),
    N(MT_RTM_ECMP_DETERMINISTIC, "MT_RTM_ECMP_DETERMINISTIC", RTM_REPLY_STATUS),
    N(MT_RTM6_ECMP_DETERMINISTIC, "MT_RTM6_ECMP_DETERMINISTIC", RTM_REPLY_STATUS),
    N(MT_RTM_ISIS_WAIT_MSG, "MT_RTM_ISIS_WAIT_MSG", RTM_REPLY_NO),
    N(MT_RTM_OSPF_WAIT_MSG, "MT_RTM_OSPF_WAIT_MSG", RTM_REPLY_NO),
    N(MT_RTM_FIB6_HASH_CONF, "MT_RTM_FIB6_HASH_CONF", RTM_REPLY_STATUS),
    N(VRF_CLI_MAX_ROUTE_CLI, "VRF_CLI_MAX_ROUTE_CLI", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_VRF_RTLEAK, "MT_RTM_VRF_RTLEAK", RTM_REPLY_STATUS),
    N(MT_RTM_CONFD_GET_ROUTE_LIST, "MT_RTM_CONFD_GET_ROUTE_LIST", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_CONFD_GET_ROUTE_NEXT_HOP, "MT_RTM_CONFD_GET_ROUTE_NEXT_HOP", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_CONFD_GET_ROUTE_SUMM, "MT_RTM_CONFD_GET_ROUTE_SUMM", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_CONFD_GET_ROUTE_GWLASTRESORT, "MT_RTM_CONFD_GET_ROUTE_GWLASTRESORT",
      RTM_REPLY_IN_HANDLER),
    N(MT_RTM_CONFD_GET_IPV6_ROUTE_LIST, "MT_RTM_CONFD_GET_IPV6_ROUTE_LIST", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_CONFD_GET_IPV6_ROUTE_GWLASTRESORT, "MT_RTM_CONFD_GET_IPV6_ROUTE_GWLASTRESORT",
      RTM_REPLY_IN_HANDLER),
    N(MT_RTM_CONFD_GET_IPV6_ROUTE_SUMM, "MT_RTM_CONFD_GET_IPV6_ROUTE_SUMM", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_UNKNOWN_UCAST_BLOCK, "MT_RTM_UNKNOWN_UCAST_BLOCK", RTM_REPLY_STATUS),
    N(MT_RTM_IPV4_32_ROUTE_IN_HOST, "MT_RTM_IPV4_32_ROUTE_IN_HOST", RTM_REPLY_STATUS),
    N(MT_RTM6_IPV6_128_ROUTE_IN_HOST, "MT_RTM6_IPV6_128_ROUTE_IN_HOST", RTM_REPLY_STATUS),
    N(MT_RTM_WEIGHTED_ECMP, "MT_RTM_WEIGHTED_ECMP", RTM_REPLY_STATUS),
    N(MT_RTM_GET_ROUTES, "MT_RTM_GET_ROUTES", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_GET_ROUTE_COUNT, "MT_RTM_GET_ROUTE_COUNT", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_GET_DNLD_CLIENTS, "MT_RTM_GET_DNLD_CLIENTS", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_BGP_AS_FORMAT, "MT_RTM_BGP_AS_FORMAT", RTM_REPLY_FIRST, RTM_MSGF_NO_TIC),
    N(MT_BGP_CONVERGED_MSG, "MT_BGP_CONVERGED_MSG", RTM_REPLY_NO),
    N(MT_BGP_GR_CONVERGED_MSG, "MT_BGP_GR_CONVERGED_MSG", RTM_REPLY_NO),
    N(MT_RTM_SNMP_ROUTE_ENTRY_INET, "MT_RTM_SNMP_ROUTE_ENTRY_INET", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_SNMP_ROUTE_ENTRY_MIB2, "MT_RTM_SNMP_ROUTE_ENTRY_MIB2", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_SNMP_IP_ADDRESS_ENTRY, "MT_RTM_SNMP_IP_ADDRESS_ENTRY", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_SNMP_DEFAULT_ROUTER, "MT_RTM_SNMP_DEFAULT_ROUTER", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_SNMP_ROUTE_ENTRY, "MT_RTM_SNMP_ROUTE_ENTRY", RTM_REPLY_IN_HANDLER),
    N(MT_RTM_SNMP_ROUTE_SCALAR_INET, "MT_RTM_SNMP_ROUTE_SCALAR_INET", RTM_REPLY_IN_HANDLER),
};

template <size_t N_>
constexpr bool strictlySorted(const RtmMsgInfo (&t)[N_]) {
  for (size_t i = 1; i < N_; i++)
    if (t[i - 1].code >= t[i].code) return false;
  return true;
}
static_assert(strictlySorted(kMsgTable), "message table must stay sorted and unique");
static_assert(strictlySorted(kNmTable), "NM table must stay sorted and unique");

// A kind C row must say where its client and family are; the frame has no other source.
template <size_t N_>
constexpr bool clientRowsComplete(const RtmMsgInfo (&t)[N_]) {
  for (const auto &r : t)
    if (r.kind == RTM_KIND_C && (r.cidSrc == RTM_CID_NONE || r.afSrc == RTM_AF_NONE)) return false;
  return true;
}
static_assert(clientRowsComplete(kMsgTable));

template <size_t N_>
constexpr const RtmMsgInfo *find(const RtmMsgInfo (&t)[N_], uint32_t code) {
  size_t lo = 0, hi = N_;
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    if (t[mid].code < code)
      lo = mid + 1;
    else
      hi = mid;
  }
  return (lo < N_ && t[lo].code == code) ? &t[lo] : nullptr;
}
}  // namespace rtm::detail

// The row of a message type, or nullptr for a type nobody defined.
constexpr const RtmMsgInfo *rtmMsgInfo(uint32_t mtype) {
  return rtm::detail::find(rtm::detail::kMsgTable, mtype);
}
// The row of an NM sub-code, or nullptr for an unknown command.
constexpr const RtmMsgInfo *rtmNmCmdInfo(uint32_t sub) {
  return rtm::detail::find(rtm::detail::kNmTable, sub);
}
// Names for traces and events; nullptr for an unknown code.
constexpr const char *rtmMsgName(uint32_t mtype) {
  const RtmMsgInfo *r = rtmMsgInfo(mtype);
  return r ? r->name : nullptr;
}
constexpr const char *rtmNmCmdName(uint32_t sub) {
  const RtmMsgInfo *r = rtmNmCmdInfo(sub);
  return r ? r->name : nullptr;
}

// Reads the client handle and the afIndex of a message as its row describes them.
// RTM_WIRE_ENOFIELD if the row names no client or no family, RTM_WIRE_ESHORT if a field lies
// beyond len. The afIndex is given as found (mapped for the folding rows); judging it is the
// client look-up's business.
inline int rtmMsgClientAf(const RtmMsgInfo &mi, const void *msg, size_t len, uint32_t *cid,
                          uint32_t *afIndex) {
  if (mi.cidSrc == RTM_CID_NONE || mi.afSrc == RTM_AF_NONE) return RTM_WIRE_ENOFIELD;
  uint32_t af = 0;
  switch (mi.afSrc) {
    case RTM_AF_FIXED:
      af = mi.afFixed;
      break;
    case RTM_AF_BYTE:
    case RTM_AF_BYTE_UNI:
      if (len < size_t(mi.afOff) + 1) return RTM_WIRE_ESHORT;
      af = rtm::ld8(msg, mi.afOff);
      if (mi.afSrc == RTM_AF_BYTE_UNI) af = af <= 1 ? 0 : 2;
      break;
    case RTM_AF_WORD:
    case RTM_AF_WORD_TNL:
      if (len < size_t(mi.afOff) + 4) return RTM_WIRE_ESHORT;
      af = rtm::ld32(msg, mi.afOff);
      if (mi.afSrc == RTM_AF_WORD_TNL) af = (af == 2 || af == 4 || af == 5) ? 2 : 0;
      break;
    case RTM_AF_NONE:
      break;
  }
  if (len < size_t(mi.cidOff) + 4) return RTM_WIRE_ESHORT;
  uint32_t c = rtm::ld32(msg, mi.cidOff);
  if (mi.cidSrc == RTM_CID_SPLIT16) c = af <= 1 ? (c >> 16) : (c & 0xFFFF);
  *cid = c;
  *afIndex = af;
  return RTM_WIRE_OK;
}
