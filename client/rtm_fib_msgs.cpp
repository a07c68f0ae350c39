// Decoders of what rtmd sends a FIB agent, and the encoder of the agent's download control.
//
// The IPv4 and IPv6 route commands carry the same fields at different offsets (and only IPv4
// adds carry a TLV block), so one walker reads both through a table of offsets per family.
// Every message is checked whole before anything of it is handed out: a command, its next
// hops or its TLV that would reach past mlen, counts that disagree, or bytes left over make
// the message malformed, and the caller gets an error and no commands, never a part.
#include <cerrno>
#include <cstring>

#include "client/rtm_client_internal.h"
#include "client/rtm_client_lib.h"
#include "ipc/qor_ipc.h"

using rtm::ld16;
using rtm::ld32;
using rtm::ld64;
using rtm::ld8;
using rtm::st32;
using rtm::st8;

namespace rtmclient {

namespace {

constexpr size_t kNone = SIZE_MAX;

// Where the fields of one family's command and next-hop records lie.
struct CmdLayout {
  uint32_t mtype;
  unsigned addrLen;
  size_t cmdLen, op, marker, vrf, prefix, proto, metric, plen, nnh, tlvlen, wecmp;
  size_t nhLen, nhAddr, nhIfindex, nhVrf, nhWeight;
};

constexpr CmdLayout kV4 = {MT_RTM_FIB_ROUTE, 4, FIBCMD4_LEN, 0, 4, 8, 12, 16, 20, 24, 25, 26, 28,
                           FIBNH4_LEN, 0, 4, 8, 12};
constexpr CmdLayout kV6 = {MT_RTM6_FIB_ROUTE, 16, FIBCMD6_LEN, 0, 36, 4, 8, 28, 32, 24, 40, kNone, 41,
                           FIBNH6_LEN, 0, 16, 20, 24};

const CmdLayout *layoutOf(uint8_t afIndex) {
  return afIndex == RTM_IPV4UNI_AFINDEX ? &kV4 : afIndex == RTM_IPV6UNI_AFINDEX ? &kV6 : nullptr;
}

int failRoutes(FibRouteMsg *out, int err) {
  out->cmds.clear();
  return err;
}

}  // namespace

const char *fibWireErrStr(int err) {
  switch (err) {
    case FIB_WIRE_ELEN: return "mlen outside the header and the received length";
    case FIB_WIRE_ETYPE: return "unexpected message type or family";
    case FIB_WIRE_EOP: return "command neither add nor delete";
    case FIB_WIRE_EPLEN: return "prefix length beyond the family";
    case FIB_WIRE_ECOUNT: return "header counts disagree with the commands";
    case FIB_WIRE_ENONH: return "add without next hops";
    default: return rtmWireErrStr(err);
  }
}

int decodeFibRoutes(const uint8_t *msg, size_t len, FibRouteMsg *out) {
  out->cmds.clear();
  if (!msg || len < FIBUPD_HDR_LEN) return RTM_WIRE_ESHORT;
  const uint32_t mtype = ld32(msg, IPC_OFF_MTYPE);
  const uint8_t afIndex = ld8(msg, FIBUPD_OFF_AFINDEX);
  const CmdLayout *L = layoutOf(afIndex);
  if (!L || L->mtype != mtype) return FIB_WIRE_ETYPE;
  const size_t mlen = ld32(msg, IPC_OFF_MLEN);
  if (mlen < FIBUPD_HDR_LEN || mlen > len) return FIB_WIRE_ELEN;
  out->afIndex = afIndex;
  out->adds = ld32(msg, FIBUPD_OFF_ADDS);
  out->dels = ld32(msg, FIBUPD_OFF_DELS);
  out->capacity = ld32(msg, FIBUPD_OFF_CAPACITY);
  out->tick = ld32(msg, FIBUPD_OFF_TICK);

  uint32_t adds = 0, dels = 0;
  size_t off = FIBUPD_HDR_LEN;
  while (off < mlen) {
    if (mlen - off < L->cmdLen) return failRoutes(out, RTM_WIRE_EFIXED);
    const uint8_t *c = msg + off;
    FibCmd cmd;
    cmd.op = ld32(c, L->op);
    if (cmd.op != FIB_OP_ADD && cmd.op != FIB_OP_DEL) return failRoutes(out, FIB_WIRE_EOP);
    cmd.vrfId = ld32(c, L->vrf);
    cmd.prefixLen = ld8(c, L->plen);
    if (cmd.prefixLen > L->addrLen * 8) return failRoutes(out, FIB_WIRE_EPLEN);
    memcpy(cmd.prefix, c + L->prefix, L->addrLen);
    cmd.proto = ld32(c, L->proto);
    cmd.metric = ld32(c, L->metric);
    cmd.marker = ld32(c, L->marker);
    cmd.weighted = ld8(c, L->wecmp) == 1;
    cmd.nnhField = ld8(c, L->nnh);
    off += L->cmdLen;
    // A delete is the command alone, whatever its count field shows.
    if (cmd.op == FIB_OP_DEL) {
      ++dels;
      out->cmds.push_back(cmd);
      continue;
    }
    ++adds;
    if (cmd.nnhField == 0) return failRoutes(out, FIB_WIRE_ENONH);
    cmd.nnh = cmd.nnhField;
    if ((mlen - off) / L->nhLen < cmd.nnh) return failRoutes(out, RTM_WIRE_ENH);
    cmd.nh = msg + off;
    off += L->nhLen * cmd.nnh;
    if (L->tlvlen != kNone) {
      cmd.tlvlen = ld16(c, L->tlvlen);
      if (mlen - off < cmd.tlvlen) return failRoutes(out, RTM_WIRE_ETLV);
      cmd.tlv = cmd.tlvlen ? msg + off : nullptr;
      off += cmd.tlvlen;
    }
    out->cmds.push_back(cmd);
  }
  if (adds != out->adds || dels != out->dels) return failRoutes(out, FIB_WIRE_ECOUNT);
  return RTM_WIRE_OK;
}

FibNextHop fibCmdNextHop(uint8_t afIndex, const FibCmd &cmd, unsigned i) {
  FibNextHop nh;
  const CmdLayout *L = layoutOf(afIndex);
  if (!L || i >= cmd.nnh || !cmd.nh) return nh;
  const uint8_t *r = cmd.nh + L->nhLen * i;
  memcpy(nh.addr, r + L->nhAddr, L->addrLen);
  nh.ifindex = ld32(r, L->nhIfindex);
  nh.vrfId = ld32(r, L->nhVrf);
  nh.weight = ld32(r, L->nhWeight);
  return nh;
}

int decodeFibNextHops(const uint8_t *msg, size_t len, bool ipv6, std::vector<FibNhRecord> *out) {
  out->clear();
  if (!msg || len < RTM_FIBNH_OFF_RECS) return RTM_WIRE_ESHORT;
  if (ld32(msg, IPC_OFF_MTYPE) != MT_RTM_FIB_NH) return FIB_WIRE_ETYPE;
  const size_t mlen = ld32(msg, IPC_OFF_MLEN);
  if (mlen < RTM_FIBNH_OFF_RECS || mlen > len) return FIB_WIRE_ELEN;
  const uint32_t count = ld32(msg, RTM_FIBNH_OFF_COUNT);
  // Compared in 64 bits: a count near 2^32 must not wrap into a plausible length.
  if (uint64_t(RTM_FIBNH_OFF_RECS) + uint64_t(RTM_FIBNH_REC_LEN) * count != mlen) return FIB_WIRE_ECOUNT;
  out->reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t *r = msg + RTM_FIBNH_OFF_RECS + RTM_FIBNH_REC_LEN * i;
    FibNhRecord rec;
    rec.op = ld32(r, RTM_FIBNH_REC_OFF_OP);
    if (rec.op != RTM_NH_OP_ADD && rec.op != RTM_NH_OP_DEL) {
      out->clear();
      return FIB_WIRE_EOP;
    }
    rec.vrfId = ld32(r, RTM_FIBNH_REC_OFF_VRFID);
    memcpy(rec.addr, r + RTM_FIBNH_REC_OFF_ADDR, ipv6 ? 16 : 4);
    rec.ifindex = ld32(r, RTM_FIBNH_REC_OFF_IFINDEX);
    out->push_back(rec);
  }
  return RTM_WIRE_OK;
}

size_t encodeDnldCntrl(uint32_t cid, uint8_t afIndex, uint32_t action, uint32_t vrfId, uint8_t *buf, size_t cap) {
  if (!buf || cap < DNLD_CNTRL_MSG_LEN) return 0;
  memset(buf, 0, DNLD_CNTRL_MSG_LEN);
  st32(buf, IPC_OFF_MLEN, DNLD_CNTRL_MSG_LEN);
  st32(buf, IPC_OFF_MTYPE, MT_RTM_DNLD_CNTRL);
  // rtmd reads the handle from the upper half for IPv4 and the lower half for IPv6.
  st32(buf, DNLD_CNTRL_OFF_CID, afIndex <= IPV4MUL_AFINDEX ? (cid & 0xFFFF) << 16 : (cid & 0xFFFF));
  st32(buf, DNLD_CNTRL_OFF_ACTION, action);
  st32(buf, DNLD_CNTRL_OFF_VRFID, vrfId);
  st8(buf, DNLD_CNTRL_OFF_AFINDEX, afIndex);
  return DNLD_CNTRL_MSG_LEN;
}

int decodeDnldCntrl(const uint8_t *msg, size_t len, DnldCntrl *out) {
  if (!msg || len < DNLD_CNTRL_OFF_AFINDEX + 1) return FIB_WIRE_ELEN;
  if (ld32(msg, IPC_OFF_MTYPE) != MT_RTM_DNLD_CNTRL) return FIB_WIRE_ETYPE;
  const size_t mlen = ld32(msg, IPC_OFF_MLEN);
  if (mlen < DNLD_CNTRL_OFF_AFINDEX + 1 || mlen > len) return FIB_WIRE_ELEN;
  out->cid = ld32(msg, DNLD_CNTRL_OFF_CID);
  out->action = ld32(msg, DNLD_CNTRL_OFF_ACTION);
  out->vrfId = ld32(msg, DNLD_CNTRL_OFF_VRFID);
  out->afIndex = ld8(msg, DNLD_CNTRL_OFF_AFINDEX);
  return RTM_WIRE_OK;
}

size_t encodeClearFib(uint32_t cid, uint8_t afIndex, uint32_t vrfId, uint8_t *buf, size_t cap) {
  if (!buf || cap < CLEAR_FIB_MSG_LEN) return 0;
  memset(buf, 0, CLEAR_FIB_MSG_LEN);
  st32(buf, IPC_OFF_MLEN, CLEAR_FIB_MSG_LEN);
  st32(buf, IPC_OFF_MTYPE, MT_RTM_CLEAR_FIB);
  st32(buf, CLEAR_FIB_OFF_CID, cid);
  st32(buf, CLEAR_FIB_OFF_VRFID, vrfId);
  st8(buf, CLEAR_FIB_OFF_AFINDEX, afIndex);
  return CLEAR_FIB_MSG_LEN;
}

const DnldClientRow *DnldClientsReply::find(uint32_t proto, uint32_t instance) const {
  for (const DnldClientRow &r : rows)
    if (r.proto == proto && r.instance == instance) return &r;
  return nullptr;
}

size_t encodeDnldClientsRequest(uint8_t afIndex, uint32_t vrfId, uint8_t *buf, size_t cap) {
  if (!buf || cap < RTM_DC_REQ_LEN) return 0;
  memset(buf, 0, RTM_DC_REQ_LEN);
  st32(buf, IPC_OFF_MLEN, RTM_DC_REQ_LEN);
  st32(buf, IPC_OFF_MTYPE, MT_NM_CMD);
  st32(buf, RTM_NM_OFF_SUBCODE, MT_RTM_GET_DNLD_CLIENTS);
  st32(buf, RTM_DC_OFF_AFINDEX, afIndex);
  st32(buf, RTM_DC_OFF_VRFID, vrfId);
  return RTM_DC_REQ_LEN;
}

int decodeDnldClientsReply(const uint8_t *buf, size_t len, DnldClientsReply *out) {
  *out = DnldClientsReply{};
  if (!buf || len < RTM_NM_OFF_STATUS + 4) return RTM_WIRE_ESHORT;
  out->status = ld32(buf, RTM_NM_OFF_STATUS);
  if (out->status != RTM_DC_OK) return RTM_WIRE_OK;
  if (len < RTM_DC_OFF_ROWS) return RTM_WIRE_ESHORT;
  const uint32_t rows = ld32(buf, RTM_DC_OFF_NROWS);
  if (rows > MAX_RTM_CLEINTS || len < RTM_DC_OFF_ROWS + size_t(rows) * RTM_DC_ROW_LEN) return RTM_WIRE_ESHORT;
  out->superMembers = ld32(buf, RTM_DC_OFF_NSUPER);
  out->treeVersion = ld64(buf, RTM_DC_OFF_TREEVER);
  out->groupVersion = ld64(buf, RTM_DC_OFF_GROUPVER);
  for (uint32_t i = 0; i < rows; ++i) {
    const uint8_t *p = buf + RTM_DC_OFF_ROWS + size_t(i) * RTM_DC_ROW_LEN;
    DnldClientRow r;
    r.cid = ld32(p, RTM_DC_ROW_CID);
    r.list = ld8(p, RTM_DC_ROW_LIST);
    r.proto = ld32(p, RTM_DC_ROW_PROTO);
    r.instance = ld32(p, RTM_DC_ROW_INSTANCE);
    r.dnldState = ld32(p, RTM_DC_ROW_DNLDSTATE);
    r.qState = ld32(p, RTM_DC_ROW_QSTATE);
    r.filterState = ld32(p, RTM_DC_ROW_FILTERSTATE);
    r.adds = ld32(p, RTM_DC_ROW_ADDS);
    r.dels = ld32(p, RTM_DC_ROW_DELS);
    r.sends = ld32(p, RTM_DC_ROW_SENDS);
    r.superSends = ld32(p, RTM_DC_ROW_SUPERSENDS);
    r.failures = ld32(p, RTM_DC_ROW_FAILURES);
    r.queueLen = ld32(p, RTM_DC_ROW_QLEN);
    r.ruleFlags = ld32(p, RTM_DC_ROW_RULEFLAGS);
    r.version = ld64(p, RTM_DC_ROW_VERSION);
    out->rows.push_back(r);
  }
  return RTM_WIRE_OK;
}

int queryDnldClients(int key, uint8_t afIndex, uint32_t vrfId, DnldClientsReply *out, int attemptMs, int retries) {
  std::vector<uint8_t> req(RTM_IPC_BUF_SIZE), reply(RTM_IPC_BUF_SIZE);
  const size_t n = encodeDnldClientsRequest(afIndex, vrfId, req.data(), req.size());
  size_t len = 0;
  if (nmExchange(key, req.data(), n, reply.data(), attemptMs, retries, &len) != 0) return -1;
  if (decodeDnldClientsReply(reply.data(), len, out) != RTM_WIRE_OK ||
      out->status != RTM_DC_OK) {
    errno = EPROTO;
    return -1;
  }
  return 0;
}

}  // namespace rtmclient
