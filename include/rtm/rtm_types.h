// Constants and records shared by every part of the daemon and by its clients.
//
// This header is the one definition of the route records that cross a process boundary:
// `rt_parms` (a route as a client sends it), its next-hop element, and the MT_RTM_UPD_ROUTE
// message that carries a batch of them. Encoders in client/ and decoders in src/ both go
// through the accessors below, so a field's offset is written down exactly once.
//
// IPv4 and IPv6 share one path: every family-dependent offset comes from rtpLayout(afIndex),
// which folds afIndex 0/1 onto the IPv4 form and 2/3 onto the IPv6 form. The typed structs
// rt_parms_v4 / rt_parms_v6 exist so that the compiler checks those offsets against a real
// layout; code that serves both families uses the accessors.
//
// Received bytes are untrusted. rtm_route_iter walks a route-update message and hands out an
// element only after its fixed part, its next-hop array and its TLV block are known to lie
// inside the received length; the accessors may then read any field of that element freely.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <type_traits>

#include "rtm/rtm_wire.h"

// Result words.
constexpr int RTM_SUCCESS = 0;
constexpr int RTM_FAILURE = 1;
constexpr int RTM_NO_MEMORY = 5;
constexpr int RTM_NH_REMOVED = 7;
constexpr int RTM_ROUTE_LIMIT = 12;

// Address families.
constexpr uint8_t RTM_IPV4UNI_AFINDEX = 0;
constexpr uint8_t IPV4MUL_AFINDEX = 1;
constexpr uint8_t RTM_IPV6UNI_AFINDEX = 2;
constexpr uint8_t RTM_IPV6MUL_AFINDEX = 3;
constexpr uint8_t RTM_MAX_AFINDEX = 3;

// Bytes of an address of the family.
constexpr unsigned rtmAfAddrLen(unsigned afIndex) { return afIndex >= 2 ? 16 : 4; }
constexpr unsigned rtmAfKeyBits(unsigned afIndex) { return afIndex >= 2 ? 128 : 32; }

// VRFs and clients.
constexpr uint32_t MAX_VRF = 513;
constexpr uint32_t ALL_VRF_ID = 65535;
constexpr uint32_t MAX_RTM_CLEINTS = 64;

// Service numbers.
constexpr uint32_t RTM_SVCE = 76;
constexpr uint32_t IFM_TASK_ID = 138;

// ---------------------------------------------------------------------------------------------
// Protocol ids: the same numbers serve as rtp_proto, rte_proto and rtc_proto.

constexpr uint32_t RTM_PROTO_CONNECTED = 1;
constexpr uint32_t RTM_PROTO_MSTATIC = 2;
constexpr uint32_t RTM_PROTO_STATIC = 3;
constexpr uint32_t RTM_PROTO_OSPF = 4;
constexpr uint32_t RTM_PROTO_ISIS = 5;
constexpr uint32_t RTM_PROTO_MBGP = 6;
constexpr uint32_t RTM_PROTO_BGP = 7;
constexpr uint32_t RTM_PROTO_RIP = 8;
constexpr uint32_t RTM_PROTO_MPLS = 9;
constexpr uint32_t RTM_PROTO_POS = 10;  // adds unnumbered host routes, stored as connected
constexpr uint32_t RTM_PROTO_VRRP = 11;
constexpr uint32_t RTM_PROTO_PIM = 12;
constexpr uint32_t RTM_PROTO_MSDP = 13;
constexpr uint32_t RTM_PROTO_TCLASSMGR = 14;
constexpr uint32_t RTM_PROTO_BFD = 15;
constexpr uint32_t RTM_PROTO_RSVP = 16;
constexpr uint32_t RTM_PROTO_OTM = 17;
constexpr uint32_t RTM_PROTO_NVMGR = 18;
constexpr uint32_t RTM_PROTO_OFM = 19;
constexpr uint32_t RTM_PROTO_TNLMGR = 22;
constexpr uint32_t RTM_PROTO_IPM = 25;
constexpr uint32_t RTM_PROTO_IPM6 = 26;
constexpr uint32_t RTM_PROTO_FIB = 27;
constexpr uint32_t RTM_PROTO_FIB6 = 28;
constexpr uint32_t RTM_PROTO_LDP = 29;
constexpr uint32_t RTM_PROTO_SUPER = 32;  // the pseudo client that stands for the super list

namespace rtm::detail {
struct ProtoText {
  const char *longName;
  const char *letter;
};
// Indexed by protocol id. Ids the table has no name for read as unknown; 20 and 23 keep the
// static letter the display has always shown for them.
inline constexpr ProtoText kProtoText[33] = {
    /*  0 */ {"Unknown protocol type", "?"}, {"connected", "C"}, {"mstatic", "S"}, {"static", "S"},
    /*  4 */ {"OSPF", "O"}, {"ISIS", "i"}, {"MBGP", "B"}, {"BGP", "B"},
    /*  8 */ {"RIP", "R"}, {"MPLS", "M"}, {"POS", "C"}, {"VRRP", "?"},
    /* 12 */ {"PIM", "?"}, {"MSDP", "?"}, {"TClassMgr", "?"}, {"Unknown protocol type", "?"},
    /* 16 */ {"RSVP", "?"}, {"OTM", "?"}, {"NVMgr", "?"}, {"OFM", "?"},
    /* 20 */ {"Unknown protocol type", "S"}, {"Unknown protocol type", "?"},
    /* 22 */ {"Unknown protocol type", "?"}, {"Unknown protocol type", "S"},
    /* 24 */ {"Unknown protocol type", "?"}, {"IPM", "?"}, {"IPM6", "?"}, {"FIB", "?"},
    /* 28 */ {"FIB6", "?"}, {"LDP", "?"}, {"Unknown protocol type", "?"},
    /* 31 */ {"Unknown protocol type", "?"}, {"SUPER", "?"},
};
inline constexpr ProtoText kProtoUnknown = {"Unknown protocol type", "?"};
constexpr const ProtoText &protoText(uint32_t proto) {
  return proto < std::size(kProtoText) ? kProtoText[proto] : kProtoUnknown;
}
}  // namespace rtm::detail

// Long name of a protocol, as the client list and error texts print it.
constexpr const char *rtmClientGetProtoName(uint32_t proto) {
  return rtm::detail::protoText(proto).longName;
}
// One-letter code of the route display.
constexpr const char *rtmGetProtoStr(uint32_t proto) { return rtm::detail::protoText(proto).letter; }

// ---------------------------------------------------------------------------------------------
// Route subtypes (rtp_subtype, rte_subtype).

constexpr uint32_t RT_INTERNAL = 2;  // never redistributed, never counted
constexpr uint32_t RT_CANDIDATE_DEFAULT = 3;
constexpr uint32_t RT_OSPF_INTRA = 4;
constexpr uint32_t RT_OSPF_IA = 5;
constexpr uint32_t RT_OSPF_E1 = 6;
constexpr uint32_t RT_OSPF_E2 = 7;
constexpr uint32_t RT_OSPF_N1 = 8;
constexpr uint32_t RT_OSPF_N2 = 9;
constexpr uint32_t RT_ISIS_L1 = 10;
constexpr uint32_t RT_ISIS_L2 = 11;
constexpr uint32_t RT_BGP_EXTERNAL = 13;
constexpr uint32_t RT_BGP_INTERNAL = 14;
constexpr uint32_t RT_LOCAL = 15;
constexpr uint32_t RT_UNNUMBERED = 16;  // entries of the POS client, stored as connected
constexpr uint32_t RT_SUBTYPE_ANY = 255;  // wildcard of the delete paths

namespace rtm::detail {
inline constexpr ProtoText kSubTypeText[17] = {
    {" ", " "},           {" ", " "},          {" ", " "},           {"candidate-default", "*"},
    {"intra area", " "},  {"inter area", "IA"}, {"external 1", "E1"}, {"external 2", "E2"},
    {"nssa 1", "N1"},     {"nssa 2", "N2"},     {"level 1", "L1"},    {"level 2", "L2"},
    {"inter area", "IA"}, {"external", "EX"},   {"internal", "IN"},   {"local", "LO"},
    {"local", "  "},
};
}  // namespace rtm::detail

// Display text of a subtype: the long form when longForm is non-zero, else the short code.
constexpr const char *rtmGetSubTypeStr(uint32_t subtype, int longForm) {
  if (subtype >= std::size(rtm::detail::kSubTypeText)) return longForm ? "unknown" : "UN";
  const auto &t = rtm::detail::kSubTypeText[subtype];
  return longForm ? t.longName : t.letter;
}

// ---------------------------------------------------------------------------------------------
// rt_parms: a route as a client sends it. The offsets up to rtp_gateway are the same for both
// families; from the gateway on they depend on the address width.

constexpr size_t RTP_OFF_PREF = 0;
constexpr size_t RTP_OFF_SUBPREF = 2;
constexpr size_t RTP_OFF_VRFID = 4;
constexpr size_t RTP_OFF_PROTO = 8;
constexpr size_t RTP_OFF_SUBTYPE = 16;
constexpr size_t RTP_OFF_METRIC = 20;
constexpr size_t RTP_OFF_TAG = 24;
constexpr size_t RTP_OFF_NNH = 32;
constexpr size_t RTP_OFF_FLAGS = 36;
constexpr size_t RTP_OFF_TLVLEN = 40;
constexpr size_t RTP_OFF_AFINDEX = 42;
constexpr size_t RTP_OFF_PREFIXLEN = 43;
constexpr size_t RTP_OFF_GATEWAY = 44;

constexpr size_t RTP4_OFF_SRCVRF = 48;
constexpr size_t RTP4_OFF_PREFIX = 52;
constexpr size_t RTP4_OFF_NH = 56;
constexpr size_t RTP6_OFF_SRCVRF = 60;
constexpr size_t RTP6_OFF_PREFIX = 64;
constexpr size_t RTP6_OFF_NH = 80;

// Next-hop element of rt_parms.
constexpr size_t RTPNH4_SIZE = 20;
constexpr size_t RTPNH4_OFF_IFINDEX = 4;
constexpr size_t RTPNH4_OFF_VRFID = 8;
constexpr size_t RTPNH4_OFF_WEIGHT = 16;
constexpr size_t RTPNH6_SIZE = 28;
constexpr size_t RTPNH6_OFF_IFINDEX = 16;
constexpr size_t RTPNH6_OFF_VRFID = 20;
constexpr size_t RTPNH6_OFF_WEIGHT = 24;

constexpr unsigned RTP_MAX_NH = 64;
constexpr size_t RTP4_SIZE = RTP4_OFF_NH + RTP_MAX_NH * RTPNH4_SIZE;  // 1336
constexpr size_t RTP6_SIZE = RTP6_OFF_NH + RTP_MAX_NH * RTPNH6_SIZE;  // 1872
static_assert(RTP4_SIZE == 1336 && RTP6_SIZE == 1872);

// rtp_flags bits.
constexpr uint32_t RTP_FLAG_POLL = 0x1;            // read by the poller
constexpr uint32_t RTP_FLAG_CONNECTED = 0x4000;    // the route belongs in the connected RIB
constexpr uint32_t RTP_FLAG_WECMP = 0x800000;      // eligible for weighted ECMP
constexpr uint32_t RTP_FLAG_LEAKED = 0x1000000;    // leaked from another VRF
constexpr uint32_t RTP_FLAG_RTE_MASK = 0xFFFF;     // the part kept in rte_flags

// The family-dependent half of the layout, one row per address width.
struct rtp_layout {
  uint16_t addrLen;
  uint16_t srcVrf;
  uint16_t prefix;
  uint16_t nh;
  uint16_t nhSize;
  uint16_t nhIfindex;
  uint16_t nhVrfId;
  uint16_t nhWeight;
  uint16_t size;  // with a full next-hop array
};
inline constexpr rtp_layout RTP_LAYOUT[2] = {
    {4, RTP4_OFF_SRCVRF, RTP4_OFF_PREFIX, RTP4_OFF_NH, RTPNH4_SIZE, RTPNH4_OFF_IFINDEX,
     RTPNH4_OFF_VRFID, RTPNH4_OFF_WEIGHT, RTP4_SIZE},
    {16, RTP6_OFF_SRCVRF, RTP6_OFF_PREFIX, RTP6_OFF_NH, RTPNH6_SIZE, RTPNH6_OFF_IFINDEX,
     RTPNH6_OFF_VRFID, RTPNH6_OFF_WEIGHT, RTP6_SIZE},
};
// afIndex 0 and 1 take the IPv4 form, everything else the IPv6 form.
constexpr const rtp_layout &rtpLayout(unsigned afIndex) { return RTP_LAYOUT[afIndex >= 2 ? 1 : 0]; }

// Typed forms, for code that works on one family and for the compile-time offset check.
struct rtpnh_v4 {
  uint8_t rtpnh_addr[4];
  rtm::be32 rtpnh_ifindex;
  rtm::be32 rtpnh_vrfId;
  rtm::be32 reserved;
  rtm::be32 rtpnh_weight;
};
struct rtpnh_v6 {
  uint8_t rtpnh_addr[16];
  rtm::be32 rtpnh_ifindex;
  rtm::be32 rtpnh_vrfId;
  rtm::be32 rtpnh_weight;
};

template <size_t AddrLen, class Nh>
struct rt_parms_af {
  rtm::be16 rtp_pref;
  rtm::be16 rtp_subpref;
  rtm::be32 rtp_vrfId;
  rtm::be32 rtp_proto;
  rtm::be32 reserved1;
  rtm::be32 rtp_subtype;
  rtm::be32 rtp_metric;  // signed on the wire; read through rtpGetMetric
  rtm::be32 rtp_tag;
  rtm::be32 reserved2;
  rtm::be16 rtp_nnh;
  rtm::be16 reserved3;
  rtm::be32 rtp_flags;
  rtm::be16 rtp_tlvlen;
  uint8_t rtp_afIndex;
  uint8_t rtp_prefixlen;
  uint8_t rtp_gateway[AddrLen];
  rtm::be32 rtp_srcVrf;
  uint8_t rtp_prefix[AddrLen];
  Nh rtp_nh[RTP_MAX_NH];
};
using rt_parms_v4 = rt_parms_af<4, rtpnh_v4>;
using rt_parms_v6 = rt_parms_af<16, rtpnh_v6>;

namespace rtm::detail {
template <class R, class Nh>
constexpr bool rtpMatches(const rtp_layout &l) {
  return offsetof(R, rtp_srcVrf) == l.srcVrf && offsetof(R, rtp_prefix) == l.prefix &&
         offsetof(R, rtp_nh) == l.nh && sizeof(Nh) == l.nhSize &&
         offsetof(Nh, rtpnh_ifindex) == l.nhIfindex && offsetof(Nh, rtpnh_vrfId) == l.nhVrfId &&
         offsetof(Nh, rtpnh_weight) == l.nhWeight && sizeof(R) == l.size &&
         sizeof(Nh::rtpnh_addr) == l.addrLen;
}
template <class R>
constexpr bool rtpCommonMatches() {
  return offsetof(R, rtp_pref) == RTP_OFF_PREF && offsetof(R, rtp_subpref) == RTP_OFF_SUBPREF &&
         offsetof(R, rtp_vrfId) == RTP_OFF_VRFID && offsetof(R, rtp_proto) == RTP_OFF_PROTO &&
         offsetof(R, rtp_subtype) == RTP_OFF_SUBTYPE && offsetof(R, rtp_metric) == RTP_OFF_METRIC &&
         offsetof(R, rtp_tag) == RTP_OFF_TAG && offsetof(R, rtp_nnh) == RTP_OFF_NNH &&
         offsetof(R, rtp_flags) == RTP_OFF_FLAGS && offsetof(R, rtp_tlvlen) == RTP_OFF_TLVLEN &&
         offsetof(R, rtp_afIndex) == RTP_OFF_AFINDEX &&
         offsetof(R, rtp_prefixlen) == RTP_OFF_PREFIXLEN &&
         offsetof(R, rtp_gateway) == RTP_OFF_GATEWAY;
}
}  // namespace rtm::detail
static_assert(rtm::detail::rtpCommonMatches<rt_parms_v4>());
static_assert(rtm::detail::rtpCommonMatches<rt_parms_v6>());
static_assert(rtm::detail::rtpMatches<rt_parms_v4, rtpnh_v4>(RTP_LAYOUT[0]));
static_assert(rtm::detail::rtpMatches<rt_parms_v6, rtpnh_v6>(RTP_LAYOUT[1]));

// Accessors of rt_parms. `rtp` points at the first byte of the record (in a route element,
// four bytes behind the sub-command). Callers index next hops below the record's rtp_nnh.
inline uint16_t rtpGetPref(const void *rtp) { return rtm::ld16(rtp, RTP_OFF_PREF); }
inline void rtpSetPref(void *rtp, uint16_t v) { rtm::st16(rtp, RTP_OFF_PREF, v); }
inline uint16_t rtpGetSubPref(const void *rtp) { return rtm::ld16(rtp, RTP_OFF_SUBPREF); }
inline void rtpSetSubPref(void *rtp, uint16_t v) { rtm::st16(rtp, RTP_OFF_SUBPREF, v); }
inline uint32_t rtpGetVrfId(const void *rtp) { return rtm::ld32(rtp, RTP_OFF_VRFID); }
inline void rtpSetVrfId(void *rtp, uint32_t v) { rtm::st32(rtp, RTP_OFF_VRFID, v); }
inline uint32_t rtpGetProto(const void *rtp) { return rtm::ld32(rtp, RTP_OFF_PROTO); }
inline void rtpSetProto(void *rtp, uint32_t v) { rtm::st32(rtp, RTP_OFF_PROTO, v); }
inline uint32_t rtpGetSubtype(const void *rtp) { return rtm::ld32(rtp, RTP_OFF_SUBTYPE); }
inline void rtpSetSubtype(void *rtp, uint32_t v) { rtm::st32(rtp, RTP_OFF_SUBTYPE, v); }
inline int32_t rtpGetMetric(const void *rtp) {
  return static_cast<int32_t>(rtm::ld32(rtp, RTP_OFF_METRIC));
}
inline void rtpSetMetric(void *rtp, int32_t v) {
  rtm::st32(rtp, RTP_OFF_METRIC, static_cast<uint32_t>(v));
}
inline uint32_t rtpGetTag(const void *rtp) { return rtm::ld32(rtp, RTP_OFF_TAG); }
inline void rtpSetTag(void *rtp, uint32_t v) { rtm::st32(rtp, RTP_OFF_TAG, v); }
inline uint16_t rtpGetNnh(const void *rtp) { return rtm::ld16(rtp, RTP_OFF_NNH); }
inline void rtpSetNnh(void *rtp, uint16_t v) { rtm::st16(rtp, RTP_OFF_NNH, v); }
inline uint32_t rtpGetFlags(const void *rtp) { return rtm::ld32(rtp, RTP_OFF_FLAGS); }
inline void rtpSetFlags(void *rtp, uint32_t v) { rtm::st32(rtp, RTP_OFF_FLAGS, v); }
inline uint16_t rtpGetTlvLen(const void *rtp) { return rtm::ld16(rtp, RTP_OFF_TLVLEN); }
inline void rtpSetTlvLen(void *rtp, uint16_t v) { rtm::st16(rtp, RTP_OFF_TLVLEN, v); }
inline uint8_t rtpGetAfIndex(const void *rtp) { return rtm::ld8(rtp, RTP_OFF_AFINDEX); }
inline void rtpSetAfIndex(void *rtp, uint8_t v) { rtm::st8(rtp, RTP_OFF_AFINDEX, v); }
inline uint8_t rtpGetPrefixLen(const void *rtp) { return rtm::ld8(rtp, RTP_OFF_PREFIXLEN); }
inline void rtpSetPrefixLen(void *rtp, uint8_t v) { rtm::st8(rtp, RTP_OFF_PREFIXLEN, v); }

// Addresses are byte strings of rtmAfAddrLen(afIndex) bytes: these give where they lie.
inline const uint8_t *rtpGateway(const void *rtp, unsigned) {
  return static_cast<const uint8_t *>(rtp) + RTP_OFF_GATEWAY;
}
inline uint8_t *rtpGateway(void *rtp, unsigned) { return static_cast<uint8_t *>(rtp) + RTP_OFF_GATEWAY; }
inline const uint8_t *rtpPrefix(const void *rtp, unsigned afIndex) {
  return static_cast<const uint8_t *>(rtp) + rtpLayout(afIndex).prefix;
}
inline uint8_t *rtpPrefix(void *rtp, unsigned afIndex) {
  return static_cast<uint8_t *>(rtp) + rtpLayout(afIndex).prefix;
}
inline uint32_t rtpGetSrcVrf(const void *rtp, unsigned afIndex) {
  return rtm::ld32(rtp, rtpLayout(afIndex).srcVrf);
}
inline void rtpSetSrcVrf(void *rtp, unsigned afIndex, uint32_t v) {
  rtm::st32(rtp, rtpLayout(afIndex).srcVrf, v);
}

// Next hop i of the record; its address is the element's first rtmAfAddrLen bytes.
inline const uint8_t *rtpNh(const void *rtp, unsigned afIndex, unsigned i) {
  const rtp_layout &l = rtpLayout(afIndex);
  return static_cast<const uint8_t *>(rtp) + l.nh + size_t(i) * l.nhSize;
}
inline uint8_t *rtpNh(void *rtp, unsigned afIndex, unsigned i) {
  const rtp_layout &l = rtpLayout(afIndex);
  return static_cast<uint8_t *>(rtp) + l.nh + size_t(i) * l.nhSize;
}
inline uint32_t rtpnhGetIfindex(const void *nh, unsigned afIndex) {
  return rtm::ld32(nh, rtpLayout(afIndex).nhIfindex);
}
inline void rtpnhSetIfindex(void *nh, unsigned afIndex, uint32_t v) {
  rtm::st32(nh, rtpLayout(afIndex).nhIfindex, v);
}
inline uint32_t rtpnhGetVrfId(const void *nh, unsigned afIndex) {
  return rtm::ld32(nh, rtpLayout(afIndex).nhVrfId);
}
inline void rtpnhSetVrfId(void *nh, unsigned afIndex, uint32_t v) {
  rtm::st32(nh, rtpLayout(afIndex).nhVrfId, v);
}
inline uint32_t rtpnhGetWeight(const void *nh, unsigned afIndex) {
  return rtm::ld32(nh, rtpLayout(afIndex).nhWeight);
}
inline void rtpnhSetWeight(void *nh, unsigned afIndex, uint32_t v) {
  rtm::st32(nh, rtpLayout(afIndex).nhWeight, v);
}

// The TLV block sits right behind the cut next-hop array of nnh elements.
inline const uint8_t *rtpTlv(const void *rtp, unsigned afIndex, unsigned nnh) {
  return rtpNh(rtp, afIndex, nnh);
}
inline uint8_t *rtpTlv(void *rtp, unsigned afIndex, unsigned nnh) { return rtpNh(rtp, afIndex, nnh); }

// ---------------------------------------------------------------------------------------------
// MT_RTM_UPD_ROUTE (and MT_RTM_UPD_V4MUL_ROUTE, which has the same form).

constexpr size_t RTM_UPD_OFF_CID = 140;
constexpr size_t RTM_UPD_OFF_COUNT = 144;
constexpr size_t RTM_UPD_OFF_AFINDEX = 149;
constexpr size_t RTM_UPD_OFF_ELEMS = 152;

struct rtm_upd_route_hdr {
  ipc_hdr ipc;
  swp_hdr swp;
  uint8_t clientArea[72];  // the client library's own
  rtm::be32 cid;
  rtm::be32 count;
  uint8_t unused1;
  uint8_t afIndex;
  uint8_t unused2[2];
};
static_assert(offsetof(rtm_upd_route_hdr, cid) == RTM_UPD_OFF_CID);
static_assert(offsetof(rtm_upd_route_hdr, count) == RTM_UPD_OFF_COUNT);
static_assert(offsetof(rtm_upd_route_hdr, afIndex) == RTM_UPD_OFF_AFINDEX);
static_assert(sizeof(rtm_upd_route_hdr) == RTM_UPD_OFF_ELEMS);

// A route element: the sub-command word, then rt_parms cut after rtp_nnh next hops, then TLV.
constexpr size_t RTM_RTE_OFF_SUBCMD = 0;
constexpr size_t RTM_RTE_OFF_RTP = 4;
constexpr uint32_t RTM_UPD_ADD = 1;
constexpr uint32_t RTM_UPD_DEL = 2;

// The constants the element sizes are made from: a whole element with a full array, and the
// array alone.
constexpr size_t RTM_RTE_FULL_V4 = RTM_RTE_OFF_RTP + RTP4_SIZE;  // 1340
constexpr size_t RTM_RTE_FULL_V6 = RTM_RTE_OFF_RTP + RTP6_SIZE;  // 1876
constexpr size_t RTM_NH_ARRAY_V4 = RTP_MAX_NH * RTPNH4_SIZE;     // 1280
constexpr size_t RTM_NH_ARRAY_V6 = RTP_MAX_NH * RTPNH6_SIZE;     // 1792
static_assert(RTM_RTE_FULL_V4 == 1340 && RTM_RTE_FULL_V6 == 1876);

// An afIndex above 3 takes the IPv4 array with the IPv6 whole: a fixed part of 596. No such
// message occurs in service; the rule is kept so that sizes agree with every peer.
constexpr size_t rtmRouteElemFullSize(unsigned afIndex) {
  return afIndex <= 1 ? RTM_RTE_FULL_V4 : RTM_RTE_FULL_V6;
}
constexpr size_t rtmRouteElemArraySize(unsigned afIndex) {
  return (afIndex == 2 || afIndex == 3) ? RTM_NH_ARRAY_V6 : RTM_NH_ARRAY_V4;
}
constexpr size_t rtmRouteElemNhSize(unsigned afIndex) { return rtmRouteElemArraySize(afIndex) / RTP_MAX_NH; }
constexpr size_t rtmRouteElemFixedSize(unsigned afIndex) {
  return rtmRouteElemFullSize(afIndex) - rtmRouteElemArraySize(afIndex);
}
// Bytes of one element with nnh next hops and tlvlen TLV bytes.
constexpr size_t rtmRouteElemSize(unsigned afIndex, unsigned nnh, unsigned tlvlen) {
  return rtmRouteElemFixedSize(afIndex) + rtmRouteElemNhSize(afIndex) * nnh + tlvlen;
}
static_assert(rtmRouteElemSize(0, 1, 0) == 80 && rtmRouteElemSize(2, 1, 0) == 112);
static_assert(rtmRouteElemFixedSize(4) == 596);

// ---------------------------------------------------------------------------------------------
// Results of the wire parsers and builders. Errors are negative; RTM_WIRE_END is the normal end
// of a walk.

constexpr int RTM_WIRE_OK = 0;
constexpr int RTM_WIRE_END = 1;
constexpr int RTM_WIRE_ESHORT = -1;    // shorter than the fixed header
constexpr int RTM_WIRE_EAF = -2;       // afIndex with no record layout
constexpr int RTM_WIRE_EFIXED = -3;    // an element's fixed part reaches past the end
constexpr int RTM_WIRE_ENH = -4;       // its next-hop array reaches past the end
constexpr int RTM_WIRE_ETLV = -5;      // its TLV block reaches past the end
constexpr int RTM_WIRE_ENOFIELD = -6;  // the message kind has no such field
constexpr int RTM_WIRE_ENOSPACE = -7;  // a builder ran out of buffer

constexpr const char *rtmWireErrStr(int err) {
  switch (err) {
    case RTM_WIRE_OK: return "ok";
    case RTM_WIRE_END: return "end";
    case RTM_WIRE_ESHORT: return "message shorter than its header";
    case RTM_WIRE_EAF: return "bad afIndex";
    case RTM_WIRE_EFIXED: return "element header past end";
    case RTM_WIRE_ENH: return "next hops past end";
    case RTM_WIRE_ETLV: return "TLV past end";
    case RTM_WIRE_ENOFIELD: return "no such field";
    case RTM_WIRE_ENOSPACE: return "no space";
  }
  return "unknown";
}

// One element of a received route-update message, checked to lie inside the received bytes.
template <class Byte>
struct rtm_route_elem_t {
  Byte *elem;       // first byte of the element (the sub-command)
  Byte *rtp;        // the cut rt_parms
  Byte *tlv;        // rtp_tlvlen bytes
  uint32_t subCmd;  // RTM_UPD_ADD, RTM_UPD_DEL, or anything a peer sent
  uint32_t index;   // 0-based position in the message
  uint16_t nnh;
  uint16_t tlvlen;
  size_t offset;  // of elem from the start of the message
  size_t size;    // of the whole element
};

// Cursor over the elements of a received route-update message. Byte is uint8_t for handlers
// that convert a record in place, const uint8_t for read-only walks.
template <class Byte>
struct rtm_route_iter_t {
  Byte *msg = nullptr;
  size_t len = 0;  // bytes received: nothing at or beyond is read
  size_t off = 0;
  uint32_t cid = 0;
  uint32_t count = 0;
  uint32_t index = 0;
  uint8_t afIndex = 0;
  int err = RTM_WIRE_OK;  // sticky: once an element is refused the walk stays refused
};
using rtm_route_elem = rtm_route_elem_t<uint8_t>;
using rtm_route_celem = rtm_route_elem_t<const uint8_t>;
using rtm_route_iter = rtm_route_iter_t<uint8_t>;
using rtm_route_citer = rtm_route_iter_t<const uint8_t>;

// Opens a walk over msg[0, len). Reads cid, count and afIndex; refuses a message shorter than
// its header or of an afIndex that has no record layout (above 3).
template <class Byte>
int rtmRouteIterInit(rtm_route_iter_t<Byte> *it, std::type_identity_t<Byte> *msg, size_t len) {
  static_assert(std::is_same_v<std::remove_const_t<Byte>, uint8_t>);
  *it = rtm_route_iter_t<Byte>{};
  it->msg = msg;
  it->len = len;
  it->off = RTM_UPD_OFF_ELEMS;
  if (msg == nullptr || len < RTM_UPD_OFF_ELEMS) return it->err = RTM_WIRE_ESHORT;
  it->cid = rtm::ld32(msg, RTM_UPD_OFF_CID);
  it->count = rtm::ld32(msg, RTM_UPD_OFF_COUNT);
  it->afIndex = rtm::ld8(msg, RTM_UPD_OFF_AFINDEX);
  if (it->afIndex > RTM_MAX_AFINDEX) return it->err = RTM_WIRE_EAF;
  return RTM_WIRE_OK;
}

// Gives the next element: RTM_WIRE_OK with *el filled, RTM_WIRE_END after `count` elements,
// or a negative error for an element that would reach past the received bytes. Each length
// is checked before anything behind it is read, and the sums cannot overflow (u16 fields).
template <class Byte>
int rtmRouteIterNext(rtm_route_iter_t<Byte> *it, rtm_route_elem_t<Byte> *el) {
  if (it->err != RTM_WIRE_OK) return it->err;
  if (it->index >= it->count) return RTM_WIRE_END;
  const size_t room = it->len - it->off;  // off never passes len
  const size_t fixed = rtmRouteElemFixedSize(it->afIndex);
  if (room < fixed) return it->err = RTM_WIRE_EFIXED;
  Byte *elem = it->msg + it->off;
  Byte *rtp = elem + RTM_RTE_OFF_RTP;
  const uint16_t nnh = rtpGetNnh(rtp);
  const uint16_t tlvlen = rtpGetTlvLen(rtp);
  const size_t withNh = fixed + rtmRouteElemNhSize(it->afIndex) * nnh;
  if (room < withNh) return it->err = RTM_WIRE_ENH;
  const size_t size = withNh + tlvlen;
  if (room < size) return it->err = RTM_WIRE_ETLV;

  el->elem = elem;
  el->rtp = rtp;
  el->tlv = elem + withNh;
  el->subCmd = rtm::ld32(elem, RTM_RTE_OFF_SUBCMD);
  el->index = it->index;
  el->nnh = nnh;
  el->tlvlen = tlvlen;
  el->offset = it->off;
  el->size = size;
  it->off += size;
  it->index++;
  return RTM_WIRE_OK;
}

// Walks the whole message without acting on it, so that a handler can refuse a bad batch
// before it applies any route of it. On failure *badIndex (if given) is the refused element.
inline int rtmRouteMsgCheck(const void *msg, size_t len, uint32_t *badIndex = nullptr) {
  rtm_route_citer it;
  rtm_route_celem el;
  int rc = rtmRouteIterInit(&it, static_cast<const uint8_t *>(msg), len);
  while (rc == RTM_WIRE_OK) rc = rtmRouteIterNext(&it, &el);
  if (badIndex) *badIndex = it.index;
  return rc == RTM_WIRE_END ? RTM_WIRE_OK : rc;
}

// Builders for the sending side. rtmRouteMsgInit zeroes the header, sets mtype, mlen, cid,
// afIndex and a zero count; it refuses an afIndex above 3.
inline int rtmRouteMsgInit(void *msg, size_t cap, uint32_t mtype, uint32_t cid, uint8_t afIndex) {
  if (msg == nullptr || cap < RTM_UPD_OFF_ELEMS) return RTM_WIRE_ENOSPACE;
  if (afIndex > RTM_MAX_AFINDEX) return RTM_WIRE_EAF;
  std::memset(msg, 0, RTM_UPD_OFF_ELEMS);
  rtm::st32(msg, IPC_OFF_MLEN, RTM_UPD_OFF_ELEMS);
  rtm::st32(msg, IPC_OFF_MTYPE, mtype);
  rtm::st32(msg, RTM_UPD_OFF_CID, cid);
  rtm::st8(msg, RTM_UPD_OFF_AFINDEX, afIndex);
  return RTM_WIRE_OK;
}

// Appends one zeroed element of nnh next hops and tlvlen TLV bytes behind the last, writes its
// sub-command, rtp_nnh, rtp_tlvlen and rtp_afIndex, and counts it in the header and in mlen.
// Gives the rt_parms to fill in, or nullptr when the element does not fit in cap bytes.
inline uint8_t *rtmRouteMsgAddElem(void *msg, size_t cap, uint32_t subCmd, uint16_t nnh,
                                   uint16_t tlvlen) {
  uint8_t *m = static_cast<uint8_t *>(msg);
  const uint8_t af = rtm::ld8(m, RTM_UPD_OFF_AFINDEX);
  const size_t used = rtm::ld32(m, IPC_OFF_MLEN);
  const size_t size = rtmRouteElemSize(af, nnh, tlvlen);
  if (af > RTM_MAX_AFINDEX || used < RTM_UPD_OFF_ELEMS || used > cap || cap - used < size)
    return nullptr;
  uint8_t *elem = m + used;
  std::memset(elem, 0, size);
  rtm::st32(elem, RTM_RTE_OFF_SUBCMD, subCmd);
  uint8_t *rtp = elem + RTM_RTE_OFF_RTP;
  rtpSetNnh(rtp, nnh);
  rtpSetTlvLen(rtp, tlvlen);
  rtpSetAfIndex(rtp, af);
  rtm::st32(m, RTM_UPD_OFF_COUNT, rtm::ld32(m, RTM_UPD_OFF_COUNT) + 1);
  rtm::st32(m, IPC_OFF_MLEN, static_cast<uint32_t>(used + size));
  return rtp;
}
