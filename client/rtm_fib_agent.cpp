// The FIB agent: one endpoint, one registration, rtmd's download queue in, our small queue out.
//
// rtmd's download queue is sequenced (SWP). The agent keeps one expected sequence per rtmd
// queue handle, and the first message of a handle it has not seen sets where that queue
// stands: an agent that restarted and registered again is served on the queue rtmd kept for
// it, which goes on from its last sequence, not from 1. Each message is checked, acknowledged
// (repeats again, so a lost ack is repaired) and only then applied; one the decoders refuse is
// counted and dropped whole, and is acknowledged like any other, or rtmd would send it for ever.
//
// The table is what the commands say, nothing more: an add puts the prefix's route in place
// whole (there is no separate replace), a delete takes it out. The download-begins marker that
// rtmd queues ahead of a fresh walk (asked for, or after a clear of the FIB) empties the VRF's
// table of this family, every VRF's for 65535, since that walk sends every active route again
// and says nothing of prefixes the agent should no longer hold.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "client/rtm_client_internal.h"
#include "client/rtm_client_lib.h"
#include "client/rtm_fib_table.h"
#include "ipc/qor_ipc.h"
#include "swp/qor_swp.h"

using rtm::ld32;

namespace rtmclient {

namespace {

using Clock = std::chrono::steady_clock;

void freeMessage(void *msg) { std::free(msg); }
void queueFailed(uint32_t, uint32_t) {}  // seen through the queue's status in waitIdle

constexpr uint32_t kRtmdReqQueue = (RTM_SVCE << 16) | QOR_IPC_QUEUE_REQ;

}  // namespace

bool FibPrefix::operator<(const FibPrefix &o) const {
  if (vrfId != o.vrfId) return vrfId < o.vrfId;
  if (afIndex != o.afIndex) return afIndex < o.afIndex;
  if (int c = memcmp(addr, o.addr, sizeof addr)) return c < 0;
  return len < o.len;
}

std::string formatFibRoute(const FibPrefix &p, const FibRoute &r) {
  std::string s = std::to_string(p.vrfId) + " " + addrToString(p.afIndex, p.addr) + "/" + std::to_string(p.len) +
                  " proto " + std::to_string(r.proto) + " metric " + std::to_string(r.metric);
  if (r.marker == FIB_MARKER_VRRP) s += " vrrp";
  if (r.weighted) s += " weighted";
  s += " nh";
  for (const FibNextHop &nh : r.nh) {
    // Appended piece by piece: "literal" + std::string&& trips a false -Wrestrict of g++ 12.
    s.append(" ").append(addrToString(p.afIndex, nh.addr)).append("%").append(std::to_string(nh.ifindex));
    s.append("@").append(std::to_string(nh.vrfId));
    if (r.weighted) s.append("*").append(std::to_string(nh.weight));
  }
  if (!r.tlv.empty()) {
    s += " tlv ";
    char b[3];
    for (uint8_t c : r.tlv) {
      snprintf(b, sizeof b, "%02x", c);
      s += b;
    }
  }
  return s;
}

FibAgent::FibAgent(Options opts) : opts_(std::move(opts)), table_(std::make_unique<FibTable>()), rx_(RTM_IPC_BUF_SIZE) {}

FibAgent::~FibAgent() {
  if (queue_) qorSwpQueueRemove(queue_);
  if (key_ >= 0) qorIpcClose(key_);
}

int FibAgent::fail(const std::string &what) {
  err_ = what;
  return -1;
}

int FibAgent::open() {
  if (key_ >= 0) return 0;
  if (opts_.afIndex != RTM_IPV4UNI_AFINDEX && opts_.afIndex != RTM_IPV6UNI_AFINDEX)
    return fail("a FIB agent serves IPv4 (afIndex 0) or IPv6 (2), not " + std::to_string(opts_.afIndex));
  key_ = qorIpcOpen(opts_.svce, opts_.inst);
  if (key_ < 0) {
    const int e = errno;
    key_ = -1;
    return fail("cannot open endpoint " + std::to_string(opts_.svce) + "." + std::to_string(opts_.inst) + " in " +
                qorIpcGetRunDir() + ": " + (e == EADDRINUSE ? "another process holds it" : strerror(e)));
  }
  // rtmd's socket is often full while a protocol floods it; an agent that waited there for
  // room for each ack would stop taking routes meanwhile, and rtmd's downloads to it would be
  // turned back in turn. Its acks are kept instead and go out with the next one, or once
  // everything that arrived has been taken (poll).
  qorSwpAckNoWait(true);
  return 0;
}

int FibAgent::registerAgent() {
  if (registered_) return 0;
  if (key_ < 0) return fail("open the endpoint before registering");
  const bool v6 = opts_.afIndex == RTM_IPV6UNI_AFINDEX;
  RegRequest req;
  req.mtype = MT_RTM_REG_CLIENT;
  req.name = opts_.name;
  req.proto = v6 ? RTM_PROTO_FIB6 : RTM_PROTO_FIB;
  req.instance = opts_.instance;
  req.svce = opts_.svce;
  req.card = QOR_IPC_LOCAL_CARD;
  req.ipcInst = opts_.inst;
  req.filter = opts_.filter;
  req.afIndex = opts_.afIndex;
  RegReply rr;
  if (std::string err = exchangeRegistration(key_, req, MT_RTM_REG_CLIENT, opts_.replyRetries, opts_.replyWaitMs, &rr);
      !err.empty())
    return fail(err);
  if (rr.status != 0)
    return fail(std::string("rtmd refused the ") + (v6 ? "FIB6" : "FIB") + " registration" +
                (v6 ? "" : " (has the interface manager reported the slot's interfaces complete?)"));
  if (!queue_ && qorSwpQueueCreate_p(0, 0, opts_.window, opts_.size, opts_.svce, opts_.inst, key_, RTM_SVCE, 0, 0, 0,
                                     0, freeMessage, queueFailed, &queue_, -1) != QOR_SWP_OK) {
    queue_ = 0;
    return fail("cannot create the SWP queue to rtmd");
  }
  cid_ = rr.cid;
  registered_ = true;
  return 0;
}

int FibAgent::sendCntrl(uint32_t action, uint32_t vrfId) {
  if (!registered_) return fail("register before asking for a download");
  if (vrfId >= MAX_VRF) return fail("VRF " + std::to_string(vrfId) + " is out of range");
  uint8_t *m = static_cast<uint8_t *>(std::malloc(DNLD_CNTRL_MSG_LEN));
  if (!m) return fail("out of memory");
  encodeDnldCntrl(cid_, opts_.afIndex, action, vrfId, m, DNLD_CNTRL_MSG_LEN);
  for (;;) {
    const int rc = qorSwpEnqueue(queue_, m, DNLD_CNTRL_MSG_LEN);
    if (rc == QOR_SWP_OK) return 0;
    if (rc == QOR_SWP_EFULL && poll(50) >= 0) continue;
    std::free(m);
    return fail(rc == QOR_SWP_EFAILED ? "rtmd stopped acknowledging our messages"
                                      : "control message refused (" + std::to_string(rc) + ")");
  }
}

int FibAgent::startDownload(uint32_t vrfId) {
  for (SeqSlot &s : seq_) s.mayRestart = true;
  return sendCntrl(RTM_CNTRL_START_DNLD, vrfId);
}
int FibAgent::stopDownload(uint32_t vrfId) { return sendCntrl(RTM_CNTRL_STOP_DNLD, vrfId); }

int FibAgent::waitIdle(int timeoutMs) {
  if (!queue_) return 0;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (qorSwpQueueGetLen(queue_) > 0) {
    if (qorSwpGetQueueStatus(queue_) == QOR_SWP_STATUS_FAILED) return fail("rtmd stopped acknowledging our messages");
    if (Clock::now() >= deadline) return fail("rtmd has not acknowledged our control messages in time");
    if (poll(20) < 0) return -1;
  }
  return 0;
}

int FibAgent::deregister() {
  if (!registered_) return fail("not registered");
  if (waitIdle(10000) != 0) return -1;
  uint8_t msg[REG_MSG_LEN], reply[RTM_IPC_BUF_SIZE];
  const size_t len = encodeDeregister(cid_, opts_.afIndex, msg, sizeof msg);
  if (!addressToRtmd(msg)) return fail(std::string("rtmd is not running in ") + qorIpcGetRunDir());
  if (qorIpcSendWaitWithRetry(key_, msg, reply, static_cast<uint32_t>(len), sizeof reply, opts_.replyRetries,
                              MT_RTM_DEREG_CLIENT, opts_.replyWaitMs, 0) != 0)
    return fail("rtmd did not answer the deregistration");
  RegReply rr;
  if (decodeRegReply(reply, sizeof reply, &rr) != RTM_WIRE_OK) return fail("malformed deregistration reply");
  qorSwpQueueRemove(queue_);
  queue_ = 0;
  registered_ = false;
  if (rr.status != 0) return fail("rtmd refused the deregistration (status " + std::to_string(rr.status) + ")");
  return 0;
}

int FibAgent::poll(int timeoutMs) {
  if (key_ < 0) return fail("endpoint not open");
  const int q = Key_getReqQueue(key_);
  qorSwpRunTimers();
  int handled = 0;
  int mode = timeoutMs > 0 ? QOR_IPC_WAIT_TIMEOUT : QOR_IPC_NOWAIT;
  for (;;) {
    const int n = qorIpcRecv(q, rx_.data(), static_cast<uint32_t>(rx_.size()), mode, timeoutMs, 0);
    if (n < 0) {
      if (errno == EAGAIN || errno == QOR_IPC_ETIMEDOUT) break;
      if (errno == EMSGSIZE) {  // longer than any message of rtmd's: consumed and dropped
        ++stats_.malformed;
        malformedWhy_ = "a datagram longer than 8192 bytes";
        continue;
      }
      return fail(std::string("receive failed: ") + strerror(errno));
    }
    handle(rx_.data(), static_cast<size_t>(n));
    ++handled;
    mode = QOR_IPC_NOWAIT;
  }
  flushAcks();
  qorSwpRunTimers();
  // Nothing more to take: now an ack may wait for room, or rtmd could wait on it.
  if (qorSwpAcksTurnedBack()) qorSwpAckFlushWaiting();
  return handled;
}

void FibAgent::handle(const uint8_t *msg, size_t len) {
  if (len < IPC_HDR_LEN) {
    malformed(0, RTM_WIRE_ESHORT);
    return;
  }
  const uint32_t mtype = ld32(msg, IPC_OFF_MTYPE);
  if (mtype == MT_SWP_ACK) {
    void *released = nullptr;
    // An ack of a queue of an earlier run releases nothing; ignore it.
    if (qorSwpDequeue(msg, &released) == 0) ++stats_.acks;
    return;
  }
  if (len < IPC_SWP_HDR_LEN || ld32(msg, IPC_OFF_SRC_SVCE) != kRtmdReqQueue || ld32(msg, SWP_OFF_QUEUE) == 0) {
    ++stats_.otherMsgs;  // a plain message: nothing of ours to acknowledge
    return;
  }
  if (withholding()) {
    flushAcks();  // what was taken before is acknowledged; from here on nothing is
    ++stats_.withheld;
    return;
  }
  if (opts_.ackDelayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(opts_.ackDelayMs));
  const uint32_t handle = ld32(msg, SWP_OFF_QUEUE);
  auto slot = std::find_if(seq_.begin(), seq_.end(), [handle](const SeqSlot &s) { return s.queue == handle; });
  const uint32_t seq = ld32(msg, SWP_OFF_SEQ);
  if (slot == seq_.end()) {
    seq_.push_back({handle, seq, false});
    slot = seq_.end() - 1;
  } else if (slot->mayRestart && seq == 1) {
    slot->expected = 1;
  }
  if (seq != (slot->expected ? slot->expected : 1)) {
    // Out of order: what was taken is acknowledged first, then the library answers this one
    // as a repeat (the ack again) or a gap (at once, so rtmd sends again without waiting).
    flushAck(*slot);
    const int rc = qorSwpCkSeqAndAck(msg, &slot->expected, Key_getReqQueue(key_));
    ++(rc == QOR_SWP_SEQ_REPEAT ? stats_.repeats : stats_.gaps);
    return;
  }
  slot->expected = seq + 1;
  slot->mayRestart = false;
  memcpy(slot->last, msg, IPC_SWP_HDR_LEN);
  if (++slot->pending >= opts_.ackEvery) flushAck(*slot);
  ++stats_.messages;
  take(msg, len);
  if (hook_) hook_(mtype, msg, len);
}

void FibAgent::flushAck(SeqSlot &slot) {
  if (!slot.pending) return;
  // The saved header checked against its own sequence is "in order": the library sends the
  // cumulative ack for it, built as every other ack is.
  uint32_t seq = ld32(slot.last, SWP_OFF_SEQ);
  qorSwpCkSeqAndAck(slot.last, &seq, Key_getReqQueue(key_));
  slot.pending = 0;
}

void FibAgent::flushAcks() {
  for (SeqSlot &s : seq_) flushAck(s);
}

void FibAgent::take(const uint8_t *msg, size_t len) {
  const uint32_t mtype = ld32(msg, IPC_OFF_MTYPE);
  switch (mtype) {
    case MT_RTM_FIB_ROUTE:
    case MT_RTM6_FIB_ROUTE:
      applyRoutes(msg, len);
      return;
    case MT_RTM_FIB_NH:
      applyNextHops(msg, len);
      return;
    case MT_RTM_DNLD_CNTRL: {
      DnldCntrl c;
      if (int rc = decodeDnldCntrl(msg, len, &c)) return malformed(mtype, rc);
      ++stats_.cntrlMsgs;
      if (c.action == RTM_CNTRL_DNLD_BEGINS && (c.vrfId < MAX_VRF || c.vrfId == ALL_VRF_ID))
        freshStart(c.afIndex <= IPV4MUL_AFINDEX ? RTM_IPV4UNI_AFINDEX : RTM_IPV6UNI_AFINDEX, c.vrfId);
      return;
    }
    default:
      ++stats_.otherMsgs;
  }
}

void FibAgent::malformed(uint32_t mtype, int err) {
  ++stats_.malformed;
  char type[16];
  snprintf(type, sizeof type, "0x%x", mtype);
  malformedWhy_ = std::string(type) + ": " + fibWireErrStr(err);
}

void FibAgent::applyRoutes(const uint8_t *msg, size_t len) {
  ++stats_.routeMsgs;
  if (int rc = decodeFibRoutes(msg, len, &scratch_)) return malformed(ld32(msg, IPC_OFF_MTYPE), rc);
  const uint8_t afIndex = scratch_.afIndex;
  const unsigned alen = rtmAfAddrLen(afIndex);
  const size_t n = scratch_.cmds.size();
  keyed_.resize(n);
  for (size_t i = 0; i < n; ++i) {
    const FibCmd &c = scratch_.cmds[i];
    FibPrefix &key = keyed_[i].first;
    key = FibPrefix{};
    key.afIndex = afIndex;
    key.vrfId = c.vrfId;
    key.len = c.prefixLen;
    memcpy(key.addr, c.prefix, alen);
    keyed_[i].second = FibTable::hashOf(key);
  }
  // Slots are asked for kAhead routes before they are needed, and the key and entry a slot
  // names half as far ahead, once the slot itself has had time to arrive.
  constexpr size_t kAhead = 8;
  for (size_t i = 0; i < std::min(n, kAhead); ++i) table_->prefetchSlot(keyed_[i].second);
  for (size_t i = 0; i < n; ++i) {
    if (i + kAhead < n) table_->prefetchSlot(keyed_[i + kAhead].second);
    if (i + kAhead / 2 < n) table_->prefetchEntry(keyed_[i + kAhead / 2].second);
    const FibCmd &c = scratch_.cmds[i];
    const auto &[key, h] = keyed_[i];
    if (c.op == FIB_OP_DEL) {
      ++stats_.dels;
      if (!table_->erase(key, h)) ++stats_.delsUnknown;
      continue;
    }
    ++stats_.adds;
    nhRoute_.resize(c.nnh);
    for (unsigned j = 0; j < c.nnh; ++j) nhRoute_[j] = fibCmdNextHop(afIndex, c, j);
    table_->put(key, h, c.proto, c.metric, c.marker, c.weighted, nhRoute_.data(), c.nnh, c.tlv, c.tlvlen);
  }
}

void FibAgent::applyNextHops(const uint8_t *msg, size_t len) {
  ++stats_.nhMsgs;
  if (int rc = decodeFibNextHops(msg, len, opts_.afIndex == RTM_IPV6UNI_AFINDEX, &nhScratch_))
    return malformed(MT_RTM_FIB_NH, rc);
  for (const FibNhRecord &r : nhScratch_) {
    std::tuple<uint32_t, uint32_t, std::array<uint8_t, 16>> k{r.vrfId, r.ifindex, {}};
    memcpy(std::get<2>(k).data(), r.addr, sizeof r.addr);
    // An add of a next hop we hold, or a delete of one we do not, is harmless: rtmd tells
    // each change once, but replays the whole database to a client that asks afresh.
    if (r.op == RTM_NH_OP_ADD) {
      ++stats_.nhAdds;
      nexthops_.insert(k);
    } else {
      ++stats_.nhDels;
      nexthops_.erase(k);
    }
  }
}

void FibAgent::freshStart(uint8_t afIndex, uint32_t vrfId) {
  ++stats_.freshStarts;
  table_->eraseIf([&](const FibPrefix &p) { return (p.vrfId == vrfId || vrfId == ALL_VRF_ID) && p.afIndex == afIndex; });
}

size_t FibAgent::routeCount() const { return table_->size(); }
bool FibAgent::find(const FibPrefix &p, FibRoute *out) const { return table_->get(p, out); }
void FibAgent::reserve(size_t routes) { table_->reserve(routes); }
void FibAgent::forEachRoute(const std::function<void(const FibPrefix &, const FibRoute &)> &fn) const {
  table_->forEach(fn);
}

void FibAgent::forEachRouteSorted(const std::function<void(const FibPrefix &, const FibRoute &)> &fn) const {
  table_->forEachSorted(fn);
}

std::string FibAgent::dump() const {
  std::string out;
  table_->forEachSorted([&](const FibPrefix &p, const FibRoute &r) { out.append(formatFibRoute(p, r)).append("\n"); });
  return out;
}

}  // namespace rtmclient
