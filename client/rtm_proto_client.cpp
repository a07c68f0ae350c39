// The protocol client: one endpoint, one registration and one SWP queue per family.
//
// Routes are packed into the message being filled of their family until the next one would
// not fit, and only then enqueued, so a batch costs one datagram per ~100 IPv4 routes. The
// queue owns each enqueued message and hands it back to free() when rtmd acknowledges it.
// When the queue holds `size` messages, add() waits in poll() for acknowledgements: that is
// the back-pressure, and rtmd's window of unacknowledged messages bounds what waits in its
// socket.
//
// A process that restarts registers again and gets its old handle back; rtmd then expects its
// new queue to start at sequence 1, which it does, so routes left by the previous run can be
// withdrawn by the next.
//
// rtmd also sends to us (redistribution, next-hop updates) on its own SWP queues; each such
// message is acknowledged here before the user's handler sees it, or rtmd would retransmit
// and finally give up on us as a client that has gone.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "client/rtm_client_internal.h"
#include "client/rtm_client_lib.h"
#include "ipc/qor_ipc.h"
#include "swp/qor_swp.h"

using rtm::ld32;

namespace rtmclient {

namespace {

using Clock = std::chrono::steady_clock;

void freeMessage(void *msg) { std::free(msg); }
void queueFailed(uint32_t, uint32_t) {}  // seen through the queue's status where it matters

const char *familyName(uint8_t afIndex) { return afIndex >= 2 ? "IPv6" : "IPv4"; }

int msLeft(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

constexpr uint32_t kRtmdReqQueue = (RTM_SVCE << 16) | QOR_IPC_QUEUE_REQ;
constexpr uint32_t kSeqListSlots = 16;

int famIndex(uint8_t afIndex) {
  return afIndex == RTM_IPV4UNI_AFINDEX ? 0 : afIndex == RTM_IPV6UNI_AFINDEX ? 1 : -1;
}

}  // namespace

ProtoClient::ProtoClient(Options opts) : opts_(std::move(opts)), rx_(RTM_IPC_BUF_SIZE) {}

ProtoClient::~ProtoClient() {
  for (Family &f : fam_) {
    if (f.queue) qorSwpQueueRemove(f.queue);
    std::free(f.pending);
  }
  if (seqList_) qorSwpQListRemoveExpSeqList(seqList_);
  if (key_ >= 0) qorIpcClose(key_);
}

int ProtoClient::fail(const std::string &what) {
  err_ = what;
  return -1;
}

ProtoClient::Family *ProtoClient::family(uint8_t afIndex) {
  const int i = famIndex(afIndex);
  return i < 0 ? nullptr : &fam_[i];
}

bool ProtoClient::registered(uint8_t afIndex) const {
  const int i = famIndex(afIndex);
  return i >= 0 && fam_[i].registered;
}

uint32_t ProtoClient::cid(uint8_t afIndex) const {
  const int i = famIndex(afIndex);
  return i < 0 ? 0 : fam_[i].cid;
}

int ProtoClient::open() {
  if (key_ >= 0) return 0;
  key_ = qorIpcOpen(opts_.svce, opts_.inst);
  if (key_ < 0) {
    const int e = errno;
    return fail("cannot open endpoint " + std::to_string(opts_.svce) + "." + std::to_string(opts_.inst) +
                " in " + qorIpcGetRunDir() + ": " +
                (e == EADDRINUSE ? "another process holds it" : strerror(e)));
  }
  if (qorSwpQListCreateExpSeqList(&seqList_, kSeqListSlots) != 0) return fail("no room for an expected-sequence list");
  return 0;
}

int ProtoClient::registerFamily(uint8_t afIndex) {
  Family *f = family(afIndex);
  if (!f) return fail("a protocol client registers in IPv4 (0) or IPv6 (2), not afIndex " + std::to_string(afIndex));
  if (f->registered) return 0;
  if (key_ < 0) return fail("open the endpoint before registering");
  if (opts_.regType != MT_RTM_REG_CLIENT && opts_.regType != MT_RTM_REG_CLIENT_2 &&
      opts_.regType != MT_RTM_REG_CLIENT_VRF)
    return fail("registerFamily takes a one-family registration type");

  RegRequest req;
  req.mtype = opts_.regType;
  req.name = opts_.name;
  req.proto = opts_.proto;
  req.instance = opts_.instance;
  req.vrfId = opts_.vrfId;
  req.flags = opts_.regFlags;
  req.svce = opts_.svce;
  req.card = QOR_IPC_LOCAL_CARD;
  req.ipcInst = opts_.inst;
  req.afIndex = afIndex;
  RegReply rr;
  if (std::string err = exchangeRegistration(key_, req, opts_.regType, opts_.replyRetries, opts_.replyWaitMs, &rr);
      !err.empty())
    return fail(err);
  if (rr.status != 0)
    return fail(std::string("rtmd refused the ") + familyName(afIndex) + " registration (status " +
                std::to_string(rr.status) + ")");

  int rc = qorSwpQueueCreate_p(0, 0, opts_.window, opts_.size, opts_.svce, opts_.inst, key_, RTM_SVCE, 0, 0, 0, 0,
                               freeMessage, queueFailed, &f->queue, -1);
  if (rc != QOR_SWP_OK) return fail("cannot create the SWP queue (" + std::to_string(rc) + ")");
  f->cid = rr.cid;
  f->registered = true;
  return 0;
}

int ProtoClient::add(const Route &r) { return append(RTM_UPD_ADD, r); }
int ProtoClient::del(const Route &r) { return append(RTM_UPD_DEL, r); }

int ProtoClient::append(uint32_t subCmd, const Route &r) {
  Family *f = family(r.afIndex);
  if (!f || !f->registered)
    return fail(std::string("not registered in ") + (f ? familyName(r.afIndex) : "that family"));
  const uint8_t af = r.afIndex;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!f->pending) {
      f->pending = static_cast<uint8_t *>(std::malloc(RTM_IPC_BUF_SIZE));
      if (!f->pending) return fail("out of memory");
      routeMsgInit(f->pending, RTM_IPC_BUF_SIZE, f->cid, af);
    }
    int rc = routeMsgAdd(f->pending, RTM_IPC_BUF_SIZE, subCmd, r);
    if (rc == RTM_WIRE_OK) {
      ++stats_.routes;
      return 0;
    }
    if (rc != RTM_WIRE_ENOSPACE) return fail(std::string("route does not encode: ") + rtmWireErrStr(rc));
    if (routeMsgCount(f->pending) == 0) return fail("route is larger than a whole message");
    uint8_t *full = f->pending;
    f->pending = nullptr;
    if (enqueue(*f, full, routeMsgLen(full)) != 0) return -1;
  }
  return fail("route does not fit in an empty message");
}

int ProtoClient::enqueue(Family &f, uint8_t *msg, size_t len) {
  for (;;) {
    int rc = qorSwpEnqueue(f.queue, msg, static_cast<uint32_t>(len));
    if (rc == QOR_SWP_OK) {
      ++stats_.messages;
      return 0;
    }
    if (rc == QOR_SWP_EFULL) {
      ++stats_.fullWaits;
      if (poll(50) >= 0) continue;
    } else if (rc == QOR_SWP_EFAILED) {
      fail("rtmd stopped acknowledging our messages");
    } else {
      fail("enqueue refused (" + std::to_string(rc) + ")");
    }
    std::free(msg);
    return -1;
  }
}

int ProtoClient::flush() {
  for (Family &f : fam_) {
    if (!f.pending) continue;
    uint8_t *msg = f.pending;
    f.pending = nullptr;
    if (routeMsgCount(msg) == 0) {
      std::free(msg);
      continue;
    }
    if (enqueue(f, msg, routeMsgLen(msg)) != 0) return -1;
  }
  return 0;
}

int ProtoClient::sendRaw(uint8_t afIndex, const uint8_t *msg, size_t len) {
  Family *f = family(afIndex);
  if (!f || !f->registered) return fail("not registered in that family");
  if (len < IPC_SWP_HDR_LEN || len > RTM_IPC_BUF_SIZE) return fail("a queued message is 68 to 8192 bytes");
  uint8_t *copy = static_cast<uint8_t *>(std::malloc(len));
  if (!copy) return fail("out of memory");
  memcpy(copy, msg, len);
  return enqueue(*f, copy, len);
}

int ProtoClient::waitIdle(int timeoutMs) {
  if (flush() != 0) return -1;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    bool idle = true;
    for (Family &f : fam_) {
      if (!f.queue) continue;
      if (qorSwpGetQueueStatus(f.queue) == QOR_SWP_STATUS_FAILED) return fail("rtmd stopped acknowledging our messages");
      if (qorSwpQueueGetLen(f.queue) > 0) idle = false;
    }
    if (idle) return 0;
    const int left = msLeft(deadline);
    if (left == 0) return fail("rtmd has not acknowledged everything in time");
    if (poll(left < 50 ? left : 50) < 0) return -1;
  }
}

int ProtoClient::poll(int timeoutMs) {
  if (key_ < 0) return fail("endpoint not open");
  const int q = Key_getReqQueue(key_);
  qorSwpRunTimers();
  int handled = 0;
  int mode = timeoutMs > 0 ? QOR_IPC_WAIT_TIMEOUT : QOR_IPC_NOWAIT;
  for (;;) {
    int n = qorIpcRecv(q, rx_.data(), static_cast<uint32_t>(rx_.size()), mode, timeoutMs, 0);
    if (n < 0) {
      if (errno == EAGAIN || errno == QOR_IPC_ETIMEDOUT) break;
      if (errno == EMSGSIZE) continue;  // longer than any message of ours: consumed, skipped
      return fail(std::string("receive failed: ") + strerror(errno));
    }
    handle(rx_.data(), static_cast<size_t>(n));
    ++handled;
    mode = QOR_IPC_NOWAIT;
  }
  qorSwpRunTimers();
  return handled;
}

int ProtoClient::handle(const uint8_t *msg, size_t len) {
  if (len < IPC_HDR_LEN) return 0;
  const uint32_t mtype = ld32(msg, IPC_OFF_MTYPE);
  if (mtype == MT_SWP_ACK) {
    void *released = nullptr;
    // A foreign or stale ack (for a queue of an earlier run) releases nothing; ignore it.
    if (qorSwpDequeue(msg, &released) == 0) ++stats_.acks;
    return 0;
  }
  // Sequenced data from rtmd: the sender's fields name rtmd's request queue, and the SWP
  // header carries a queue handle. Plain notifications are shorter or carry none.
  if (len >= IPC_SWP_HDR_LEN && ld32(msg, IPC_OFF_SRC_SVCE) == kRtmdReqQueue && ld32(msg, SWP_OFF_QUEUE) != 0) {
    int rc = qorSwpQListCkSeqAndAck(msg, seqList_, Key_getReqQueue(key_));
    if (rc != QOR_SWP_SEQ_OK) return 0;  // a repeat or a gap: acknowledged as such, not ours to use
  }
  ++stats_.received;
  if (handler_) handler_(msg, len);
  return 0;
}

int ProtoClient::deregister(uint8_t afIndex) {
  Family *f = family(afIndex);
  if (!f || !f->registered) return fail(std::string("not registered in ") + familyName(afIndex));
  // Updates still on their way would reach rtmd after the deregistration and be dropped.
  if (waitIdle(30000) != 0) return -1;
  uint8_t msg[REG_MSG_LEN], reply[RTM_IPC_BUF_SIZE];
  size_t len = encodeDeregister(f->cid, afIndex, msg, sizeof msg);
  if (!addressToRtmd(msg)) return fail(std::string("rtmd is not running in ") + qorIpcGetRunDir());
  if (qorIpcSendWaitWithRetry(key_, msg, reply, static_cast<uint32_t>(len), sizeof reply, opts_.replyRetries,
                              MT_RTM_DEREG_CLIENT, opts_.replyWaitMs, 0) != 0)
    return fail("rtmd did not answer the deregistration");
  RegReply rr;
  if (decodeRegReply(reply, sizeof reply, &rr) != RTM_WIRE_OK) return fail("malformed deregistration reply");
  qorSwpQueueRemove(f->queue);
  *f = Family{};
  if (rr.status != 0) return fail("rtmd refused the deregistration (status " + std::to_string(rr.status) + ")");
  return 0;
}

ProtoClient::Stats ProtoClient::stats() const {
  Stats s = stats_;
  for (const Family &f : fam_) {
    QorSwpCtrlBlock cb;
    if (f.queue && qorSwpGetQueueCtrlBlock(f.queue, &cb) == 0) s.retransmitted += cb.retransmitted;
  }
  return s;
}

}  // namespace rtmclient
