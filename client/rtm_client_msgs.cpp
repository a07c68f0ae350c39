// Encoders and decoders of the client messages, and the small text helpers of the library.
//
// Every field goes through the big-endian helpers at its offset; the route elements go through
// the builder and iterator of rtm/rtm_types.h, so the daemon and its clients share one
// definition of the element layout.
#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "client/rtm_client_lib.h"
#include "client/rtm_client_internal.h"
#include "ipc/qor_ipc.h"

using rtm::ld16;
using rtm::ld32;
using rtm::ld64;
using rtm::ld8;
using rtm::st16;
using rtm::st32;
using rtm::st8;

namespace rtmclient {

namespace {

bool isRegType(uint32_t mtype) {
  return mtype == MT_RTM_REG_CLIENT || mtype == MT_RTM_REG_CLIENT_2 || mtype == MT_RTM_REG_CLIENT_VRF ||
         mtype == MT_RTM_REG_CLIENT_BOTH;
}

// A zeroed registration-sized message of the type.
uint8_t *startMsg(uint32_t mtype, uint8_t *buf, size_t cap) {
  if (!buf || cap < REG_MSG_LEN) return nullptr;
  memset(buf, 0, REG_MSG_LEN);
  st32(buf, IPC_OFF_MLEN, REG_MSG_LEN);
  st32(buf, IPC_OFF_MTYPE, mtype);
  return buf;
}

}  // namespace

// ---- Registration -------------------------------------------------------------------------

size_t encodeRegister(const RegRequest &req, uint8_t *buf, size_t cap) {
  if (!isRegType(req.mtype) || req.noOfQs > MAX_VRF || !startMsg(req.mtype, buf, cap)) return 0;
  memcpy(buf + REG_OFF_NAME, req.name.data(), std::min(req.name.size(), REG_NAME_LEN));
  st32(buf, REG_OFF_PROTO, req.proto);
  st32(buf, REG_OFF_INSTANCE, req.instance);
  st32(buf, REG_OFF_VRFID, req.vrfId);
  st32(buf, REG_OFF_FLAGS, req.flags);
  st32(buf, REG_OFF_SVCE, req.svce);
  st32(buf, REG_OFF_CARD, req.card);
  st32(buf, REG_OFF_IPCINST, req.ipcInst);
  st32(buf, REG_OFF_SPARE, req.spare);
  st32(buf, REG_OFF_FILTER, req.filter);
  st8(buf, REG_OFF_AFINDEX, req.afIndex);
  st16(buf, REG_OFF_MULTIQ, req.multiQ);
  st32(buf, REG_OFF_NOOFQS, req.noOfQs);
  return REG_MSG_LEN;
}

int decodeRegister(const uint8_t *buf, size_t len, RegRequest *out) {
  if (!buf || len < REG_MSG_LEN) return RTM_WIRE_ESHORT;
  RegRequest r;
  r.mtype = ld32(buf, IPC_OFF_MTYPE);
  const char *name = reinterpret_cast<const char *>(buf + REG_OFF_NAME);
  r.name.assign(name, strnlen(name, REG_NAME_LEN));
  r.proto = ld32(buf, REG_OFF_PROTO);
  r.instance = ld32(buf, REG_OFF_INSTANCE);
  r.vrfId = ld32(buf, REG_OFF_VRFID);
  r.flags = ld32(buf, REG_OFF_FLAGS);
  r.svce = ld32(buf, REG_OFF_SVCE);
  r.card = ld32(buf, REG_OFF_CARD);
  r.ipcInst = ld32(buf, REG_OFF_IPCINST);
  r.spare = ld32(buf, REG_OFF_SPARE);
  r.filter = ld32(buf, REG_OFF_FILTER);
  r.afIndex = ld8(buf, REG_OFF_AFINDEX);
  r.multiQ = ld16(buf, REG_OFF_MULTIQ);
  r.noOfQs = ld32(buf, REG_OFF_NOOFQS);
  *out = std::move(r);
  return RTM_WIRE_OK;
}

int decodeRegReply(const uint8_t *buf, size_t len, RegReply *out) {
  if (!buf || len < REG_OFF_CID + 4) return RTM_WIRE_ESHORT;
  out->status = ld32(buf, IPC_OFF_MSTATUS);
  out->cid = ld32(buf, REG_OFF_CID);
  return RTM_WIRE_OK;
}

size_t encodeDeregister(uint32_t cid, uint8_t afIndex, uint8_t *buf, size_t cap) {
  if (!startMsg(MT_RTM_DEREG_CLIENT, buf, cap)) return 0;
  st32(buf, REG_OFF_CID, cid);
  st8(buf, REG_OFF_AFINDEX, afIndex);
  return REG_MSG_LEN;
}

size_t encodeDeregisterAf(uint32_t cid, uint8_t afIndex, uint8_t *buf, size_t cap) {
  if (!startMsg(MT_RTM_DEREG_AF_CLIENT, buf, cap)) return 0;
  st32(buf, REG_OFF_CID, cid);
  st8(buf, DEREG_AF_OFF_AFINDEX, afIndex);
  return REG_MSG_LEN;
}

size_t encodeDeregisterBoth(uint32_t cidV4, uint32_t cidV6, uint8_t *buf, size_t cap) {
  if (cidV4 > 0xFFFF || cidV6 > 0xFFFF || !startMsg(MT_RTM_DEREG_CLIENT_BOTH, buf, cap)) return 0;
  st32(buf, REG_OFF_CID, cidV4 << 16 | cidV6);
  return REG_MSG_LEN;
}

size_t encodeRegisterNonRt(uint32_t which, uint32_t task, uint32_t svce, uint32_t inst, uint32_t word,
                           uint8_t *buf, size_t cap) {
  if (!startMsg(MT_RTM_REG_NONRT_CLIENT, buf, cap)) return 0;
  st32(buf, NONRT_OFF_WHICH, which);
  st32(buf, NONRT_OFF_TASK, task);
  st32(buf, NONRT_OFF_WORD, word);
  st32(buf, NONRT_OFF_SVCE, svce);
  st32(buf, NONRT_OFF_INST, inst);
  return REG_MSG_LEN;
}

// ---- Route updates ------------------------------------------------------------------------

int routeMsgInit(uint8_t *buf, size_t cap, uint32_t cid, uint8_t afIndex) {
  return rtmRouteMsgInit(buf, cap, MT_RTM_UPD_ROUTE, cid, afIndex);
}

int routeMsgAdd(uint8_t *buf, size_t cap, uint32_t subCmd, const Route &r) {
  if (r.nnh > RTP_MAX_NH) return RTM_WIRE_ENOFIELD;
  const uint8_t af = ld8(buf, RTM_UPD_OFF_AFINDEX);
  // The element's layout follows the message's family, so a route of the other family
  // would be cut at the wrong places.
  if ((r.afIndex >= 2) != (af >= 2)) return RTM_WIRE_EAF;
  uint8_t *rtp = rtmRouteMsgAddElem(buf, cap, subCmd, r.nnh, r.tlvlen);
  if (!rtp) return RTM_WIRE_ENOSPACE;
  const unsigned alen = rtmAfAddrLen(af);
  rtpSetPref(rtp, r.pref);
  rtpSetSubPref(rtp, r.subpref);
  rtpSetVrfId(rtp, r.vrfId);
  rtpSetProto(rtp, r.proto);
  rtpSetSubtype(rtp, r.subtype);
  rtpSetMetric(rtp, r.metric);
  rtpSetTag(rtp, r.tag);
  rtpSetFlags(rtp, r.flags);
  rtpSetAfIndex(rtp, r.afIndex);
  rtpSetPrefixLen(rtp, r.prefixLen);
  memcpy(rtpGateway(rtp, af), r.gateway, alen);
  rtpSetSrcVrf(rtp, af, r.srcVrf);
  memcpy(rtpPrefix(rtp, af), r.prefix, alen);
  for (unsigned i = 0; i < r.nnh; ++i) {
    uint8_t *nh = rtpNh(rtp, af, i);
    memcpy(nh, r.nh[i].addr, alen);
    rtpnhSetIfindex(nh, af, r.nh[i].ifindex);
    rtpnhSetVrfId(nh, af, r.nh[i].vrfId);
    rtpnhSetWeight(nh, af, r.nh[i].weight);
  }
  if (r.tlvlen) memcpy(rtpTlv(rtp, af, r.nnh), r.tlv, r.tlvlen);
  return RTM_WIRE_OK;
}

uint32_t routeMsgCount(const uint8_t *buf) { return ld32(buf, RTM_UPD_OFF_COUNT); }
uint32_t routeMsgLen(const uint8_t *buf) { return ld32(buf, IPC_OFF_MLEN); }

int routeDecode(const rtm_route_celem &el, uint8_t afIndex, Route *r, NextHop *nhOut, size_t nhCap) {
  if (el.nnh > nhCap) return RTM_WIRE_ENOSPACE;
  const uint8_t *rtp = el.rtp;
  const unsigned alen = rtmAfAddrLen(afIndex);
  Route o;
  o.afIndex = rtpGetAfIndex(rtp);
  o.prefixLen = rtpGetPrefixLen(rtp);
  memcpy(o.prefix, rtpPrefix(rtp, afIndex), alen);
  memcpy(o.gateway, rtpGateway(rtp, afIndex), alen);
  o.pref = rtpGetPref(rtp);
  o.subpref = rtpGetSubPref(rtp);
  o.vrfId = rtpGetVrfId(rtp);
  o.proto = rtpGetProto(rtp);
  o.subtype = rtpGetSubtype(rtp);
  o.metric = rtpGetMetric(rtp);
  o.tag = rtpGetTag(rtp);
  o.flags = rtpGetFlags(rtp);
  o.srcVrf = rtpGetSrcVrf(rtp, afIndex);
  for (unsigned i = 0; i < el.nnh; ++i) {
    const uint8_t *nh = rtpNh(rtp, afIndex, i);
    nhOut[i] = NextHop{};
    memcpy(nhOut[i].addr, nh, alen);
    nhOut[i].ifindex = rtpnhGetIfindex(nh, afIndex);
    nhOut[i].vrfId = rtpnhGetVrfId(nh, afIndex);
    nhOut[i].weight = rtpnhGetWeight(nh, afIndex);
  }
  o.nh = nhOut;
  o.nnh = el.nnh;
  o.tlv = el.tlv;
  o.tlvlen = el.tlvlen;
  *r = o;
  return RTM_WIRE_OK;
}

// ---- Route count --------------------------------------------------------------------------

size_t encodeRouteCountRequest(uint32_t afIndex, uint32_t vrfId, uint32_t cursor, uint8_t *buf, size_t cap) {
  if (!buf || cap < RTM_RC_REQ_LEN) return 0;
  memset(buf, 0, RTM_RC_REQ_LEN);
  st32(buf, IPC_OFF_MLEN, RTM_RC_REQ_LEN);
  st32(buf, IPC_OFF_MTYPE, MT_NM_CMD);
  st32(buf, RTM_NM_OFF_SUBCODE, MT_RTM_GET_ROUTE_COUNT);
  st32(buf, RTM_RC_OFF_AFINDEX, afIndex);
  st32(buf, RTM_RC_OFF_VRFID, vrfId);
  st32(buf, RTM_RC_OFF_CURSOR, cursor);
  return RTM_RC_REQ_LEN;
}

int decodeRouteCountReply(const uint8_t *buf, size_t len, RouteCountReply *out) {
  if (!buf || len < RTM_NM_OFF_STATUS + 4) return RTM_WIRE_ESHORT;
  out->status = ld32(buf, RTM_NM_OFF_STATUS);
  if (out->status != RTM_RC_OK) return RTM_WIRE_OK;
  if (len < RTM_RC_OFF_ROWS) return RTM_WIRE_ESHORT;
  const uint32_t rows = ld32(buf, RTM_RC_OFF_NROWS);
  if (rows > RTM_RC_MAX_ROWS || len < RTM_RC_OFF_ROWS + size_t(rows) * RTM_RC_ROW_LEN) return RTM_WIRE_ESHORT;
  out->next = ld32(buf, RTM_RC_OFF_NEXT);
  out->total = ld32(buf, RTM_RC_OFF_TOTAL);
  out->active = ld64(buf, RTM_RC_OFF_ACTIVE);
  out->inactive = ld64(buf, RTM_RC_OFF_INACTIVE);
  out->activeBgp = ld64(buf, RTM_RC_OFF_ACTIVE_BGP);
  out->inactiveBgp = ld64(buf, RTM_RC_OFF_INACTIVE_BGP);
  out->prefixes = ld64(buf, RTM_RC_OFF_PREFIXES);
  for (uint32_t i = 0; i < rows; ++i) {
    const uint8_t *p = buf + RTM_RC_OFF_ROWS + size_t(i) * RTM_RC_ROW_LEN;
    RouteCountRow row;
    row.cid = ld32(p, RTM_RC_ROW_CID);
    row.afIndex = ld8(p, RTM_RC_ROW_AFINDEX);
    row.flags = ld8(p, RTM_RC_ROW_FLAGS);
    row.proto = ld32(p, RTM_RC_ROW_PROTO);
    row.instance = ld32(p, RTM_RC_ROW_INSTANCE);
    row.vrfId = ld32(p, RTM_RC_ROW_VRFID);
    row.active = ld32(p, RTM_RC_ROW_ACTIVE);
    row.inactive = ld32(p, RTM_RC_ROW_INACTIVE);
    row.activeBgp = ld32(p, RTM_RC_ROW_ACTIVE_BGP);
    row.inactiveBgp = ld32(p, RTM_RC_ROW_INACTIVE_BGP);
    for (unsigned k = 0; k < RTM_RC_SUBTYPE_COUNTERS; ++k) row.subtype[k] = ld32(p, RTM_RC_ROW_SUBTYPE + 4 * k);
    out->rows.push_back(row);
  }
  return RTM_WIRE_OK;
}

uint32_t nextTransCode() {
  // Distinct per exchange and per process, so a late answer to an earlier query (of this run
  // or of a previous process on the same endpoint) is never taken for the current one.
  static uint32_t counter = 0;
  return (static_cast<uint32_t>(getpid()) << 16) ^ ++counter;
}

bool addressToRtmd(uint8_t *msg) {
  int32_t err = 0;
  int32_t card = qor_tmeGetPeerIpAddrByName(RTM_SVCE, 0, &err);
  if (card == -1 && err == -1) return false;
  st32(msg, IPC_OFF_TGT_SLOT, 0);
  st32(msg, IPC_OFF_TGT_CARD, static_cast<uint32_t>(card));
  st32(msg, IPC_OFF_TGT_SVCE, qor_getQueueId(RTM_SVCE, 0, QOR_IPC_QUEUE_REQ));
  st32(msg, IPC_OFF_TRANSCODE, nextTransCode());
  return true;
}

std::string exchangeRegistration(int key, const RegRequest &req, uint32_t replyType, int retries, int waitMs,
                                 RegReply *rr) {
  uint8_t msg[REG_MSG_LEN], reply[RTM_IPC_BUF_SIZE];
  const size_t len = encodeRegister(req, msg, sizeof msg);
  if (!len) return "registration does not encode";
  if (!addressToRtmd(msg)) return std::string("rtmd is not running in ") + qorIpcGetRunDir();
  if (qorIpcSendWaitWithRetry(key, msg, reply, static_cast<uint32_t>(len), sizeof reply, retries, replyType, waitMs,
                              0) != 0) {
    const int e = errno;
    if (e == QOR_IPC_ETIMEDOUT) return "rtmd did not answer the registration";
    return std::string("registration could not be sent: ") + strerror(e);
  }
  if (decodeRegReply(reply, sizeof reply, rr) != RTM_WIRE_OK) return "malformed registration reply";
  if (rr->status == 0 && rr->cid >= MAX_RTM_CLEINTS)
    return "rtmd answered an impossible client handle " + std::to_string(rr->cid);
  return {};
}

int nmExchange(int key, uint8_t *req, size_t n, uint8_t *reply, int attemptMs, int retries, size_t *replyLen) {
  if (!addressToRtmd(req)) {
    errno = ECONNREFUSED;
    return -1;
  }
  if (qorIpcSendWaitWithRetry(key, req, reply, static_cast<uint32_t>(n), RTM_IPC_BUF_SIZE, retries, MT_NM_CMD,
                              attemptMs, 0) != 0)
    return -1;
  *replyLen = std::min<size_t>(ld32(reply, IPC_OFF_MLEN), RTM_IPC_BUF_SIZE);
  return 0;
}

int queryRouteCount(int key, uint32_t afIndex, uint32_t vrfId, RouteCountReply *out, int attemptMs, int retries) {
  *out = RouteCountReply{};
  std::vector<uint8_t> req(RTM_IPC_BUF_SIZE), reply(RTM_IPC_BUF_SIZE);
  uint32_t cursor = 0;
  // Each page answers with totals of its own moment; the last page's are the ones kept.
  for (int page = 0;; ++page) {
    const size_t n = encodeRouteCountRequest(afIndex, vrfId, cursor, req.data(), req.size());
    size_t len = 0;
    if (nmExchange(key, req.data(), n, reply.data(), attemptMs, retries, &len) != 0) return -1;
    std::vector<RouteCountRow> rows = std::move(out->rows);
    if (decodeRouteCountReply(reply.data(), len, out) != RTM_WIRE_OK ||
        out->status != RTM_RC_OK) {
      errno = EPROTO;
      return -1;
    }
    rows.insert(rows.end(), out->rows.begin(), out->rows.end());
    out->rows = std::move(rows);
    if (out->next == 0 || out->next <= cursor) break;
    cursor = out->next;
  }
  return 0;
}

// ---- Text helpers -------------------------------------------------------------------------

namespace {
struct ProtoName {
  const char *name;
  uint32_t proto;
  uint16_t pref;
  uint32_t subtype;
};
// Protocol clients only: the internal sources (connected, static) and the download agents
// register differently and never send route updates.
constexpr ProtoName kProtos[] = {
    {"ospf", RTM_PROTO_OSPF, 110, RT_OSPF_INTRA}, {"isis", RTM_PROTO_ISIS, 115, RT_ISIS_L2},
    {"mbgp", RTM_PROTO_MBGP, 20, RT_BGP_EXTERNAL}, {"bgp", RTM_PROTO_BGP, 20, RT_BGP_EXTERNAL},
    {"rip", RTM_PROTO_RIP, 120, 0},                {"mpls", RTM_PROTO_MPLS, 100, 0},
    {"vrrp", RTM_PROTO_VRRP, 1, 0},                {"pim", RTM_PROTO_PIM, 100, 0},
    {"msdp", RTM_PROTO_MSDP, 100, 0},              {"bfd", RTM_PROTO_BFD, 100, 0},
    {"rsvp", RTM_PROTO_RSVP, 100, 0},              {"tnlmgr", RTM_PROTO_TNLMGR, 100, 0},
};
const ProtoName *findProto(uint32_t proto) {
  for (const auto &p : kProtos)
    if (p.proto == proto) return &p;
  return nullptr;
}
}  // namespace

uint32_t protoFromName(const std::string &name) {
  for (const auto &p : kProtos)
    if (strcasecmp(p.name, name.c_str()) == 0) return p.proto;
  char *end = nullptr;
  unsigned long v = name.empty() ? 0 : strtoul(name.c_str(), &end, 10);
  return (end && *end == 0 && v <= 30) ? static_cast<uint32_t>(v) : 0;
}

uint16_t defaultPreference(uint32_t proto) {
  const ProtoName *p = findProto(proto);
  return p ? p->pref : 100;
}

uint32_t defaultSubtype(uint32_t proto) {
  const ProtoName *p = findProto(proto);
  return p ? p->subtype : 0;
}

bool parseAddr(uint8_t afIndex, const std::string &text, uint8_t *addr) {
  return inet_pton(afIndex >= 2 ? AF_INET6 : AF_INET, text.c_str(), addr) == 1;
}

std::string addrToString(uint8_t afIndex, const uint8_t *addr) {
  char b[INET6_ADDRSTRLEN];
  return inet_ntop(afIndex >= 2 ? AF_INET6 : AF_INET, addr, b, sizeof b) ? b : "?";
}

}  // namespace rtmclient
