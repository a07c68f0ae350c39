// Wire layouts of the messages that make and unmake a client, and of the next-hop messages
// rtmd sends to FIB agents and to the ARP and NDP managers.
//
// Every multi-byte field is big-endian at the offset given here. The structs are made of the
// big-endian field types, so their offsetof values are the wire offsets and are checked below;
// code reads and writes through rtm::ld32/st32 at the RTM_*_OFF_* constants or through these
// structs, never through a host-endian record. docs/clients.md describes the exchanges.
#pragma once

#include <cstddef>
#include <cstdint>

#include "rtm/rtm_wire.h"

// ---------------------------------------------------------------------------------------------
// MT_RTM_REG_CLIENT (0x3201, 0x3220, 0x323F) and MT_RTM_REG_CLIENT_BOTH (0x3269): a client asks
// for a handle. The answer is the same message with mstatus (0 or 1) and reg_cid filled in.

constexpr size_t RTM_REG_OFF_CID = 60;
constexpr size_t RTM_REG_OFF_NAME = 64;
constexpr size_t RTM_REG_NAME_LEN = 40;
constexpr size_t RTM_REG_OFF_PROTO = 108;
constexpr size_t RTM_REG_OFF_INSTANCE = 116;
constexpr size_t RTM_REG_OFF_VRFID = 124;
constexpr size_t RTM_REG_OFF_FLAGS = 128;
constexpr size_t RTM_REG_OFF_SVCE = 132;
constexpr size_t RTM_REG_OFF_CARD = 136;
constexpr size_t RTM_REG_OFF_IPCINST = 140;
constexpr size_t RTM_REG_OFF_SPARE = 144;
constexpr size_t RTM_REG_OFF_FILTER = 148;
constexpr size_t RTM_REG_OFF_AFINDEX = 160;  // u8
constexpr size_t RTM_REG_OFF_MULTIQ = 162;   // u16
constexpr size_t RTM_REG_OFF_NOOFQS = 164;
constexpr uint32_t RTM_REG_MSG_LEN = 168;    // shortest registration accepted

struct rtm_reg_msg {
  ipc_hdr ipc;
  rtm::be32 reg_cid;
  char reg_name[RTM_REG_NAME_LEN];  // not terminated when it fills the field
  uint8_t spare1[4];
  rtm::be32 reg_proto;
  uint8_t spare2[4];
  rtm::be32 reg_instance;
  uint8_t spare3[4];
  rtm::be32 reg_vrfId;
  rtm::be32 reg_flags;
  rtm::be32 reg_svce;
  rtm::be32 reg_card;
  rtm::be32 reg_ipcInst;
  rtm::be32 reg_spare;
  rtm::be32 reg_filter;
  uint8_t spare4[8];
  uint8_t reg_afIndex;
  uint8_t spare5;
  rtm::be16 reg_multiQ;
  rtm::be32 noOfQs;
};
static_assert(offsetof(rtm_reg_msg, reg_cid) == RTM_REG_OFF_CID);
static_assert(offsetof(rtm_reg_msg, reg_name) == RTM_REG_OFF_NAME);
static_assert(offsetof(rtm_reg_msg, reg_proto) == RTM_REG_OFF_PROTO);
static_assert(offsetof(rtm_reg_msg, reg_instance) == RTM_REG_OFF_INSTANCE);
static_assert(offsetof(rtm_reg_msg, reg_vrfId) == RTM_REG_OFF_VRFID);
static_assert(offsetof(rtm_reg_msg, reg_flags) == RTM_REG_OFF_FLAGS);
static_assert(offsetof(rtm_reg_msg, reg_svce) == RTM_REG_OFF_SVCE);
static_assert(offsetof(rtm_reg_msg, reg_card) == RTM_REG_OFF_CARD);
static_assert(offsetof(rtm_reg_msg, reg_ipcInst) == RTM_REG_OFF_IPCINST);
static_assert(offsetof(rtm_reg_msg, reg_spare) == RTM_REG_OFF_SPARE);
static_assert(offsetof(rtm_reg_msg, reg_filter) == RTM_REG_OFF_FILTER);
static_assert(offsetof(rtm_reg_msg, reg_afIndex) == RTM_REG_OFF_AFINDEX);
static_assert(offsetof(rtm_reg_msg, reg_multiQ) == RTM_REG_OFF_MULTIQ);
static_assert(offsetof(rtm_reg_msg, noOfQs) == RTM_REG_OFF_NOOFQS);
static_assert(sizeof(rtm_reg_msg) == RTM_REG_MSG_LEN);

// Results of a registration in mstatus.
constexpr uint32_t RTM_REG_OK = 0;
constexpr uint32_t RTM_REG_FAILED = 1;

// The answer to MT_RTM_REG_CLIENT_BOTH carries both handles in reg_cid.
constexpr uint32_t rtmRegBothCid(uint32_t cid4, uint32_t cid6) { return (cid4 << 16) | (cid6 & 0xFFFF); }
constexpr uint32_t rtmRegBothCid4(uint32_t both) { return both >> 16; }
constexpr uint32_t rtmRegBothCid6(uint32_t both) { return both & 0xFFFF; }

// ---------------------------------------------------------------------------------------------
// MT_RTM_REG_NONRT_CLIENT (0x3202): the ARP or NDP manager announces itself. Same frame as a
// registration; the answer has mstatus 0 and cid 0 (these managers have no handle).

constexpr size_t RTM_NONRT_OFF_CARD = IPC_OFF_SRC_CARD;  // 40: kept in the manager's record
constexpr size_t RTM_NONRT_OFF_SELECT = 112;             // 1 ARP, 2 NDP
constexpr size_t RTM_NONRT_OFF_TASK = 120;
constexpr size_t RTM_NONRT_OFF_WORD = 128;
constexpr size_t RTM_NONRT_OFF_SVCE = 132;
constexpr size_t RTM_NONRT_OFF_INST = 140;
constexpr uint32_t RTM_NONRT_MSG_LEN = 144;
constexpr uint32_t RTM_NONRT_ARP = 1;
constexpr uint32_t RTM_NONRT_NDP = 2;

// ---------------------------------------------------------------------------------------------
// Deregistration. MT_RTM_DEREG_CLIENT (0x3203): cid at 60, afIndex byte at 160 (the
// registration's place). MT_RTM_DEREG_AF_CLIENT (0x3237): cid at 60, afIndex byte at 64.
// MT_RTM_DEREG_CLIENT_BOTH (0x326A): the word at 60 holds both handles as in the answer to
// MT_RTM_REG_CLIENT_BOTH. All three are answered with mstatus 0 before the work is done.

constexpr size_t RTM_DEREG_OFF_CID = 60;
constexpr size_t RTM_DEREG_OFF_AFINDEX = 160;
constexpr uint32_t RTM_DEREG_MSG_LEN = 161;
constexpr size_t RTM_DEREG_AF_OFF_AFINDEX = 64;
constexpr uint32_t RTM_DEREG_AF_MSG_LEN = 65;
constexpr uint32_t RTM_DEREG_BOTH_MSG_LEN = 64;

// ---------------------------------------------------------------------------------------------
// MT_EVT_NOTIFY (0x07D9): an event of the chassis. Answered with mstatus 0 first.

constexpr size_t RTM_EVT_OFF_EVENT = 64;
constexpr size_t RTM_EVT_OFF_SLOT = 68;
constexpr uint32_t RTM_EVT_MSG_LEN = 72;
constexpr uint32_t RTM_EVT_ZLK_PEER_STATUS = 0x44800E;  // any other event: the card in the slot went down

// ---------------------------------------------------------------------------------------------
// MT_RTM_REG_CLIENT_INSTANCE (0x325C), MT_RTM_DEREG_CLIENT_INSTANCE (0x325D): sequenced client
// messages tying an OSPF instance to a VRF. cid at 136, afIndex word at 140.

constexpr size_t RTM_QUAL_OFF_CID = 136;
constexpr size_t RTM_QUAL_OFF_AFINDEX = 140;
constexpr size_t RTM_QUAL_OFF_INSTANCE = 144;
constexpr size_t RTM_QUAL_OFF_VRFID = 168;
constexpr uint32_t RTM_QUAL_MSG_LEN = 172;

// ---------------------------------------------------------------------------------------------
// The common header of the messages rtmd builds itself (next hops, ARP and NDP requests): the
// IPC header with the SWP words, then rtmd's own words up to 128.

constexpr size_t RTM_OWN_OFF_ONE = 20;   // the word 1
constexpr size_t RTM_OWN_OFF_TICK = 32;  // qorTickGet at build time (low word)
constexpr size_t RTM_OWN_HDR_LEN = 128;

// MT_RTM_FIB_NH (0x322A): a bundle of next hops for a FIB agent.
constexpr size_t RTM_FIBNH_OFF_COUNT = 128;
constexpr size_t RTM_FIBNH_OFF_RECS = 132;
constexpr size_t RTM_FIBNH_REC_LEN = 24;
constexpr size_t RTM_FIBNH_REC_OFF_OP = 0;
constexpr size_t RTM_FIBNH_REC_OFF_VRFID = 4;
constexpr size_t RTM_FIBNH_REC_OFF_ADDR = 8;
constexpr size_t RTM_FIBNH_REC_OFF_IFINDEX = 12;
constexpr uint32_t RTM_NH_OP_ADD = 1;
constexpr uint32_t RTM_NH_OP_DEL = 2;
constexpr uint32_t rtmFibNhMsgLen(uint32_t count) {
  return uint32_t(RTM_FIBNH_OFF_RECS + RTM_FIBNH_REC_LEN * count);
}

struct rtm_fibnh_rec {
  rtm::be32 op;
  rtm::be32 vrfId;
  uint8_t addr[4];  // an IPv6 next hop of a replay runs on to byte 23, under the ifindex
  rtm::be32 ifindex;
  uint8_t zero[8];
};
static_assert(sizeof(rtm_fibnh_rec) == RTM_FIBNH_REC_LEN);
static_assert(offsetof(rtm_fibnh_rec, ifindex) == RTM_FIBNH_REC_OFF_IFINDEX);

// MT_RTM_ARP_REQ (0x322B) and MT_RTM_NDP_REQ (0x3246): resolve (op 1) or forget (op 2) a
// neighbour. 156 bytes, the same header, two layouts of the body.
constexpr uint32_t RTM_NBR_REQ_LEN = 156;
constexpr size_t RTM_NBR_OFF_ROUTEINFO = 36;  // three words: rtmd's slot, card and spare
constexpr size_t RTM_NBR_OFF_TARGET = 52;     // two words of the manager's record: task, svce
constexpr size_t RTM_ARP_OFF_OP = 132;
constexpr size_t RTM_ARP_OFF_VRFID = 136;
constexpr size_t RTM_ARP_OFF_ADDR = 140;
constexpr size_t RTM_ARP_OFF_IFINDEX = 144;
constexpr size_t RTM_NDP_OFF_OP = 128;
constexpr size_t RTM_NDP_OFF_IFINDEX = 132;
constexpr size_t RTM_NDP_OFF_ADDR = 136;
constexpr size_t RTM_NDP_OFF_VRFID = 152;
