// Sequenced window queues: sender state, acknowledgement handling, the receiver check, and
// the timers that retransmit.
//
// All queue and list state sits behind one mutex. Sends of data go out without waiting (a
// peer whose socket is full turns a message back; it stays "unsent" and goes again on the
// next ack or timer run), so nothing blocks under the lock. Acks are sent after the lock is
// released because they may wait briefly for a full peer. Free functions and error callbacks
// run after the lock is released too, since they may call back into this layer.
//
// Go-back-N: the receiver applies only the expected sequence, so a retransmission round
// resends every unacknowledged message from the oldest. A GAP ack (the receiver saw a later
// sequence than it expected) triggers one such round at once, at most once per oldest
// message, so a single loss costs one round trip rather than a time-out.
#include "swp/qor_swp.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "rtm/rtm_msgs.h"
#include "timer/qor_timer.h"

using rtm::ld32;
using rtm::st32;

namespace {

struct Entry {
  uint8_t *msg;
  uint32_t len;
  uint32_t seq;
};

struct SwpQueue {
  QorSwpCtrlBlock cb{};
  QorSwpFreeFn freeFn = nullptr;
  QorSwpErrFn errCb = nullptr;
  int pipe = -1;
  int reqQ = 0;         // the key's request queue: sends data, receives acks
  uint32_t srcQid = 0;  // its queue id, written as the source of every message
  uint32_t tgtQid = 0;  // the peer's request queue
  std::deque<Entry> held;
  size_t nextUnsent = 0;  // held[0, nextUnsent) have been on the wire
  uint64_t deadline = 0;  // tick of the next retransmission round, while held is not empty
  uint32_t ackedSinceGrowth = 0;
  bool fastDone = false;  // the GAP-triggered round for the current oldest message was run
  // The peer's socket turned a message back: nothing more is tried until the peer acknowledges
  // (it has read) or the timer round comes. Each try at a full socket is a system call that
  // fails, and a sender enqueuing a burst would otherwise make one per message.
  bool peerFull = false;

  bool failed() const { return cb.status == QOR_SWP_STATUS_FAILED; }
  uint32_t window() const { return cb.window * cb.mult; }
};

struct Slot {
  uint32_t queue = 0;
  uint32_t expected = 0;
  uint64_t used = 0;
};
struct QList {
  std::vector<Slot> slots;
  uint32_t firstSeq = 1;
  uint64_t clock = 0;
};

struct Pipe {
  int rd = -1, wr = -1;
  std::string name;
  bool signaled = false;
};

struct State {
  std::mutex mu;
  std::unordered_map<uint32_t, std::unique_ptr<SwpQueue>> queues;
  std::unordered_map<uint32_t, QList> lists;
  uint32_t queueCounter = 0;
  uint32_t listCounter = 0;
  std::vector<Pipe> pipes;
  QorSwpAckFilter ackFilter = nullptr;
  // Held acks: the latest in-order ack of each sender queue while holding is on.
  struct HeldAck {
    int reqQ;
    unsigned count;
    uint8_t ack[QOR_SWP_ACK_LEN];
  };
  bool holdAcks = false;
  bool ackNoWait = false;
  std::vector<HeldAck> held;
  // Acks a full peer turned back, the latest per sender queue: tried again ahead of that
  // queue's next ack, at every flush and at every timer round until the peer has room.
  std::vector<HeldAck> turnedBack;
  // The helper thread that marks pipes readable.
  std::thread ticker;
  bool stop = false;
  std::condition_variable cv;
};

State &st() {
  static State *s = new State;  // the helper thread may still look during exit
  return *s;
}

// Work collected under the lock and run after it is released.
struct Deferred {
  std::vector<std::pair<QorSwpFreeFn, void *>> frees;
  std::vector<std::pair<QorSwpErrFn, uint32_t>> failures;
  void run() {
    for (auto &[fn, msg] : frees)
      if (fn) fn(msg);
    for (auto &[fn, q] : failures)
      if (fn) fn(q, QOR_SWP_ERR_PEER);
  }
};

constexpr size_t kMaxQueues = 4096;

uint32_t newQueueHandle(State &s) {
  // The process id in the high half keeps a restarted sender's queues apart from those of
  // its previous life in a receiver's expected-sequence list.
  const uint32_t hi = (static_cast<uint32_t>(getpid()) & 0x7FFF) << 16;
  for (;;) {
    s.queueCounter = (s.queueCounter + 1) & 0xFFFF;
    uint32_t h = hi | s.queueCounter;
    if (s.queueCounter != 0 && !s.queues.count(h)) return h;
  }
}

uint32_t backoffTicks(const SwpQueue &q) {
  uint32_t mult = 1;
  for (uint32_t i = 0; i < q.cb.retries && mult < QOR_SWP_MAX_BACKOFF; ++i) mult *= 2;
  return q.cb.rtoTicks * std::min(mult, QOR_SWP_MAX_BACKOFF);
}

bool sendEntry(SwpQueue &q, const Entry &e) {
  return qorIpcSendNoWait(q.reqQ, e.msg, e.len) == 0;
}

// Puts on the wire what the window allows, in order, stopping at the first refusal.
void pushNew(SwpQueue &q) {
  if (q.peerFull) return;
  size_t limit = std::min<size_t>(q.held.size(), q.window());
  while (q.nextUnsent < limit) {
    if (!sendEntry(q, q.held[q.nextUnsent])) {
      q.peerFull = true;
      break;
    }
    q.nextUnsent++;
    q.cb.sent++;
  }
}

void retransmit(SwpQueue &q) {
  q.peerFull = false;
  for (size_t i = 0; i < q.nextUnsent; ++i) {
    if (!sendEntry(q, q.held[i])) {
      q.peerFull = true;
      return;
    }
    q.cb.retransmitted++;
  }
  pushNew(q);
}

void releaseAll(SwpQueue &q, Deferred &d) {
  for (Entry &e : q.held) d.frees.emplace_back(q.freeFn, e.msg);
  q.cb.released += q.held.size();
  q.held.clear();
  q.nextUnsent = 0;
  q.peerFull = false;
}

void fail(SwpQueue &q, Deferred &d) {
  q.cb.status = QOR_SWP_STATUS_FAILED;
  q.cb.err = QOR_SWP_ERR_PEER;
  d.failures.emplace_back(q.errCb, q.cb.queue);
  qorEventLog(q.cb.evkey, 3, "SWP: queue %#x to %u.%u failed after %u retransmissions\n",
              q.cb.queue, q.cb.ipcSvce, q.cb.ipcInst, q.cb.maxRetries);
}

// The timer work of one queue. Lock held.
void runQueueTimers(SwpQueue &q, uint64_t now, Deferred &d) {
  if (q.failed() || q.held.empty()) return;
  q.peerFull = false;
  pushNew(q);
  if (now < q.deadline) return;
  if (++q.cb.retries > q.cb.maxRetries) {
    fail(q, d);
    return;
  }
  q.cb.mult = q.cb.minMult;
  q.ackedSinceGrowth = 0;
  retransmit(q);
  q.deadline = now + backoffTicks(q);
}

bool needsWork(const SwpQueue &q, uint64_t now) {
  if (q.failed() || q.held.empty()) return false;
  return q.nextUnsent < std::min<size_t>(q.held.size(), q.window()) || now >= q.deadline;
}

void tickerLoop() {
  State &s = st();
  std::unique_lock<std::mutex> lk(s.mu);
  while (!s.stop) {
    s.cv.wait_for(lk, std::chrono::milliseconds(10));
    if (s.stop) break;
    uint64_t now = qorTickGet();
    bool work = !s.turnedBack.empty();
    for (auto &[h, q] : s.queues)
      if (q->pipe >= 0 && needsWork(*q, now)) {
        work = true;
        break;
      }
    if (!work) continue;
    for (Pipe &p : s.pipes) {
      if (p.signaled) continue;
      char b = 1;
      if (write(p.wr, &b, 1) == 1) p.signaled = true;
    }
  }
}

// Lock held on entry; released while joining.
void stopTicker(std::unique_lock<std::mutex> &lk) {
  State &s = st();
  if (!s.ticker.joinable()) return;
  s.stop = true;
  s.cv.notify_all();
  std::thread t = std::move(s.ticker);
  lk.unlock();
  t.join();
  lk.lock();
  s.stop = false;
}

struct TickerGuard {
  ~TickerGuard() {
    std::unique_lock<std::mutex> lk(st().mu);
    stopTicker(lk);
  }
} g_tickerGuard;

bool shortMessage(const void *msg, const char *who) {
  uint32_t mlen = msg ? ld32(msg, IPC_OFF_MLEN) : 0;
  if (msg && mlen >= IPC_SWP_HDR_LEN) return false;
  qorEventLog(0, 3, "SWP: %s refused a message of %u bytes, shorter than its header\n", who, mlen);
  return true;
}

struct AckPlan {
  int rc;
  uint32_t seq;
  uint32_t kind;
};

// The receiver's decision for one message. Does not touch anything but `expected`.
AckPlan judge(uint32_t seq, uint32_t &expected) {
  if (expected == 0) expected = 1;
  if (seq == expected) {
    expected++;
    return {QOR_SWP_SEQ_OK, seq, QOR_SWP_ACK_INORDER};
  }
  if (seq < expected) return {QOR_SWP_SEQ_REPEAT, expected - 1, QOR_SWP_ACK_REPEAT};
  return {QOR_SWP_SEQ_GAP, expected - 1, QOR_SWP_ACK_GAP};
}

// The same sender queue: its endpoint and its handle.
bool sameSender(const uint8_t *a, const uint8_t *b) {
  return ld32(a, IPC_OFF_TGT_CARD) == ld32(b, IPC_OFF_TGT_CARD) &&
         ld32(a, IPC_OFF_TGT_SVCE) == ld32(b, IPC_OFF_TGT_SVCE) && ld32(a, SWP_OFF_QUEUE) == ld32(b, SWP_OFF_QUEUE);
}

// Keeps an ack the peer's full socket turned back in place of any older one of its queue:
// acks are cumulative, so the latest says all the others did.
void keepTurnedBack(const uint8_t *ack, int reqQ) {
  std::lock_guard<std::mutex> lk(st().mu);
  auto &tb = st().turnedBack;
  auto it = std::find_if(tb.begin(), tb.end(), [&](const State::HeldAck &h) { return sameSender(h.ack, ack); });
  if (it != tb.end()) {
    // A retry racing a newer ack of the same queue must not put the older one back.
    if (int32_t(ld32(ack, SWP_OFF_SEQ) - ld32(it->ack, SWP_OFF_SEQ)) < 0) return;
  } else {
    try {
      it = tb.insert(tb.end(), State::HeldAck{reqQ, 0, {}});
    } catch (...) {
      return;  // no room: lost, and repaired as any lost ack is
    }
  }
  it->reqQ = reqQ;
  std::memcpy(it->ack, ack, QOR_SWP_ACK_LEN);
}

enum class AckWait { kAsSet, kAlways };

void transmitAck(const uint8_t *ack, int reqQ, AckWait how = AckWait::kAsSet) {
  QorSwpAckFilter filter;
  bool noWait;
  {
    std::lock_guard<std::mutex> lk(st().mu);
    filter = st().ackFilter;
    noWait = st().ackNoWait && how == AckWait::kAsSet;
  }
  if (filter && !filter(ack, QOR_SWP_ACK_LEN)) return;
  // A lost ack (the peer is gone, or stayed full for the whole send wait) is repaired by the
  // next one or by the sender's retransmission.
  if (!noWait)
    qorIpcSend(reqQ, ack, QOR_SWP_ACK_LEN);
  else if (qorIpcSendNoWait(reqQ, ack, QOR_SWP_ACK_LEN) != 0 && errno == EAGAIN)
    keepTurnedBack(ack, reqQ);
}

// Moves the acks of `from` for ack's sender queue (all of them for null) to the end of out.
void takeFrom(std::vector<State::HeldAck> &from, const uint8_t *ack, std::vector<State::HeldAck> &out) {
  for (size_t i = 0; i < from.size();) {
    if (!ack || sameSender(from[i].ack, ack)) {
      out.push_back(from[i]);
      from[i] = from.back();
      from.pop_back();
    } else {
      ++i;
    }
  }
}

// Takes what is kept for ack's sender queue (for every queue with null), the turned-back acks
// ahead of the held ones, which are later.
std::vector<State::HeldAck> takeHeld(const uint8_t *ack) {
  std::vector<State::HeldAck> out;
  std::lock_guard<std::mutex> lk(st().mu);
  takeFrom(st().turnedBack, ack, out);
  takeFrom(st().held, ack, out);
  return out;
}

void sendHeld(const uint8_t *ack, AckWait how = AckWait::kAsSet) {
  for (const State::HeldAck &h : takeHeld(ack)) transmitAck(h.ack, h.reqQ, how);
}

// Keeps an in-order ack in place of its queue's last; false when holding is off. An ack whose
// queue has kept enough goes out.
bool holdAck(const uint8_t *ack, int reqQ) {
  std::unique_lock<std::mutex> lk(st().mu);
  State &s = st();
  if (!s.holdAcks) return false;
  auto it = std::find_if(s.held.begin(), s.held.end(), [&](const State::HeldAck &h) { return sameSender(h.ack, ack); });
  if (it == s.held.end()) {
    State::HeldAck h{reqQ, 0, {}};
    try {
      s.held.push_back(h);
    } catch (...) {
      return false;  // no room to keep it: sent at once
    }
    it = s.held.end() - 1;
  }
  it->reqQ = reqQ;
  std::memcpy(it->ack, ack, QOR_SWP_ACK_LEN);
  if (++it->count < QOR_SWP_ACK_HOLD_MAX) return true;
  s.held.erase(it);
  lk.unlock();
  transmitAck(ack, reqQ);
  return true;
}

void sendAck(const uint8_t *msg, const AckPlan &plan, int reqQ) {
  uint8_t ack[QOR_SWP_ACK_LEN] = {};
  uint32_t card = 0, qid = 0;
  if (qorIpcQueueAddr(reqQ, &card, &qid) != 0) return;
  st32(ack, IPC_OFF_MLEN, QOR_SWP_ACK_LEN);
  st32(ack, IPC_OFF_MTYPE, MT_SWP_ACK);
  st32(ack, IPC_OFF_TRANSCODE, ld32(msg, IPC_OFF_TRANSCODE));
  st32(ack, IPC_OFF_SRC_SLOT, 0);
  st32(ack, IPC_OFF_SRC_CARD, card);
  st32(ack, IPC_OFF_SRC_SVCE, qid);
  st32(ack, IPC_OFF_TGT_SLOT, ld32(msg, IPC_OFF_SRC_SLOT));
  st32(ack, IPC_OFF_TGT_CARD, ld32(msg, IPC_OFF_SRC_CARD));
  st32(ack, IPC_OFF_TGT_SVCE, ld32(msg, IPC_OFF_SRC_SVCE));
  st32(ack, SWP_OFF_QUEUE, ld32(msg, SWP_OFF_QUEUE));
  st32(ack, SWP_OFF_SEQ, plan.seq);
  st32(ack, SWP_OFF_ACK_WORD, ld32(msg, IPC_OFF_MTYPE));
  st32(ack, SWP_OFF_ACK_KIND, plan.kind);
  if (plan.kind == QOR_SWP_ACK_INORDER && holdAck(ack, reqQ)) return;
  sendHeld(ack);  // what the queue kept goes first: the sender sees its acks in order
  transmitAck(ack, reqQ);
}

int createQueue(uint32_t evkey, uint32_t flags, uint32_t window, uint32_t size, uint32_t svce,
                uint32_t inst, int key, uint32_t peerSvce, uint32_t peerInst, uint32_t rtoTicks,
                uint32_t maxRetries, QorSwpFreeFn freeFn, QorSwpErrFn errCb, uint32_t *queue,
                uint32_t minMult, uint32_t maxMult, int pipe) {
  if (!queue || window == 0 || size == 0 || minMult == 0 || maxMult < minMult) return QOR_SWP_EPARAM;
  int reqQ = Key_getReqQueue(key);
  uint32_t card = 0, srcQid = 0;
  uint32_t tgtQid = qor_getQueueId(peerSvce, peerInst, QOR_IPC_QUEUE_REQ);
  if (reqQ == 0 || tgtQid == 0 || qorIpcQueueAddr(reqQ, &card, &srcQid) != 0) return QOR_SWP_EPARAM;

  auto q = std::make_unique<SwpQueue>();
  q->freeFn = freeFn;
  q->errCb = errCb;
  q->pipe = pipe;
  q->reqQ = reqQ;
  q->srcQid = srcQid;
  q->tgtQid = tgtQid;
  QorSwpCtrlBlock &cb = q->cb;
  cb.evkey = evkey;
  cb.svce = svce;
  cb.inst = inst;
  cb.ipcSvce = peerSvce;
  cb.ipcInst = peerInst;
  cb.key = key;
  cb.window = window;
  cb.size = size;
  cb.minMult = minMult;
  cb.maxMult = maxMult;
  cb.mult = minMult;
  cb.rtoTicks = rtoTicks ? rtoTicks : QOR_SWP_DEFAULT_RTO_TICKS;
  cb.maxRetries = maxRetries ? maxRetries : QOR_SWP_DEFAULT_MAX_RETRIES;
  cb.status = QOR_SWP_STATUS_ACTIVE;
  cb.nextSeq = 1;
  (void)flags;

  State &s = st();
  std::lock_guard<std::mutex> lk(s.mu);
  if (s.queues.size() >= kMaxQueues) return QOR_SWP_ENORES;
  cb.queue = newQueueHandle(s);
  *queue = cb.queue;
  s.queues.emplace(cb.queue, std::move(q));
  return QOR_SWP_OK;
}

SwpQueue *findQueue(State &s, uint32_t h) {
  auto it = s.queues.find(h);
  return it == s.queues.end() ? nullptr : it->second.get();
}

}  // namespace

int qorSwpQueueCreate_p(uint32_t evkey, uint32_t flags, uint32_t window, uint32_t size,
                        uint32_t svce, uint32_t inst, int key, uint32_t peerSvce,
                        uint32_t peerInst, uint32_t rtoTicks, uint32_t maxRetries,
                        uint32_t /*reserved*/, QorSwpFreeFn freeFn, QorSwpErrFn errCb,
                        uint32_t *queue, int pipe) {
  return createQueue(evkey, flags, window, size, svce, inst, key, peerSvce, peerInst, rtoTicks,
                     maxRetries, freeFn, errCb, queue, 1, 1, pipe);
}

int qorMwpQueueCreate_p(uint32_t evkey, uint32_t flags, uint32_t window, uint32_t size,
                        uint32_t svce, uint32_t inst, int key, uint32_t peerSvce,
                        uint32_t peerInst, uint32_t rtoTicks, uint32_t maxRetries,
                        uint32_t /*reserved*/, QorSwpFreeFn freeFn, QorSwpErrFn errCb,
                        uint32_t *queue, uint32_t minMult, uint32_t maxMult, int pipe) {
  return createQueue(evkey, flags, window, size, svce, inst, key, peerSvce, peerInst, rtoTicks,
                     maxRetries, freeFn, errCb, queue, minMult, maxMult, pipe);
}

int qorSwpEnqueue(uint32_t queue, void *msg, uint32_t len) {
  State &s = st();
  std::lock_guard<std::mutex> lk(s.mu);
  SwpQueue *q = findQueue(s, queue);
  if (!q) return QOR_SWP_ENOQUEUE;
  if (q->failed()) return QOR_SWP_EFAILED;
  if (!msg || len < IPC_SWP_HDR_LEN || len > RTM_IPC_BUF_SIZE) return QOR_SWP_EPARAM;
  if (q->held.size() >= q->cb.size) return QOR_SWP_EFULL;

  uint8_t *m = static_cast<uint8_t *>(msg);
  uint32_t seq = q->cb.nextSeq++;
  st32(m, IPC_OFF_MLEN, len);
  st32(m, IPC_OFF_SRC_SLOT, 0);
  st32(m, IPC_OFF_SRC_CARD, QOR_IPC_LOCAL_CARD);
  st32(m, IPC_OFF_SRC_SVCE, q->srcQid);
  st32(m, IPC_OFF_TGT_SLOT, 0);
  st32(m, IPC_OFF_TGT_CARD, QOR_IPC_LOCAL_CARD);
  st32(m, IPC_OFF_TGT_SVCE, q->tgtQid);
  st32(m, SWP_OFF_QUEUE, queue);
  st32(m, SWP_OFF_SEQ, seq);
  if (q->held.empty()) q->deadline = qorTickGet() + q->cb.rtoTicks;
  q->held.push_back(Entry{m, len, seq});
  pushNew(*q);
  return QOR_SWP_OK;
}

int qorSwpDequeue(const void *ackMsg, void **buffer) {
  if (buffer) *buffer = nullptr;
  if (shortMessage(ackMsg, "qorSwpDequeue")) return -1;
  const uint8_t *a = static_cast<const uint8_t *>(ackMsg);
  if (ld32(a, IPC_OFF_MTYPE) != MT_SWP_ACK) return -1;
  const uint32_t seq = ld32(a, SWP_OFF_SEQ);
  const uint32_t kind =
      ld32(a, IPC_OFF_MLEN) >= QOR_SWP_ACK_LEN ? ld32(a, SWP_OFF_ACK_KIND) : QOR_SWP_ACK_INORDER;
  Deferred d;
  {
    State &s = st();
    std::lock_guard<std::mutex> lk(s.mu);
    SwpQueue *q = findQueue(s, ld32(a, SWP_OFF_QUEUE));
    if (!q) return -1;
    q->cb.acks++;
    q->peerFull = false;  // it has read
    if (q->held.empty() || seq < q->held.front().seq) {
      q->cb.dupAcks++;
      if (kind == QOR_SWP_ACK_GAP && !q->held.empty() && seq + 1 == q->held.front().seq &&
          !q->fastDone && !q->failed()) {
        q->fastDone = true;
        retransmit(*q);
      }
      return 0;
    }
    const uint32_t base = q->held.front().seq;
    if (q->nextUnsent == 0 || seq > base + q->nextUnsent - 1) {
      qorEventLog(q->cb.evkey, 3, "SWP: queue %#x acknowledged %u, never sent\n", q->cb.queue, seq);
      return -1;
    }
    const uint32_t n = seq - base + 1;
    for (uint32_t i = 0; i < n; ++i) {
      d.frees.emplace_back(q->freeFn, q->held.front().msg);
      q->held.pop_front();
    }
    q->nextUnsent -= n;
    q->cb.released += n;
    q->cb.ackedSeq = seq;
    q->cb.retries = 0;
    q->fastDone = false;
    q->deadline = qorTickGet() + q->cb.rtoTicks;
    q->ackedSinceGrowth += n;
    if (q->ackedSinceGrowth >= q->window() && q->cb.mult < q->cb.maxMult) {
      q->cb.mult++;
      q->ackedSinceGrowth = 0;
    }
    if (!q->failed()) pushNew(*q);
  }
  d.run();
  return 0;
}

int qorSwpQueueFlush(uint32_t queue) {
  Deferred d;
  {
    State &s = st();
    std::lock_guard<std::mutex> lk(s.mu);
    SwpQueue *q = findQueue(s, queue);
    if (!q) return QOR_SWP_ENOQUEUE;
    releaseAll(*q, d);
    q->cb.nextSeq = 1;
    q->cb.ackedSeq = 0;
    q->cb.status = QOR_SWP_STATUS_ACTIVE;
    q->cb.err = QOR_SWP_ERR_NONE;
    q->cb.retries = 0;
    q->cb.mult = q->cb.minMult;
    q->ackedSinceGrowth = 0;
    q->fastDone = false;
  }
  d.run();
  return QOR_SWP_OK;
}

int qorSwpQueueRemove(uint32_t queue) {
  Deferred d;
  std::unique_ptr<SwpQueue> gone;
  {
    State &s = st();
    std::lock_guard<std::mutex> lk(s.mu);
    auto it = s.queues.find(queue);
    if (it == s.queues.end()) return QOR_SWP_ENOQUEUE;
    gone = std::move(it->second);
    s.queues.erase(it);
    releaseAll(*gone, d);
  }
  d.run();
  return QOR_SWP_OK;
}

int qorSwpQueueGetLen(uint32_t queue) {
  State &s = st();
  std::lock_guard<std::mutex> lk(s.mu);
  SwpQueue *q = findQueue(s, queue);
  return q ? static_cast<int>(q->held.size()) : -1;
}

uint32_t qorSwpGetQueueStatus(uint32_t queue) {
  State &s = st();
  std::lock_guard<std::mutex> lk(s.mu);
  SwpQueue *q = findQueue(s, queue);
  return q ? q->cb.status : QOR_SWP_STATUS_FAILED;
}

uint32_t qorSwpGetErr(uint32_t queue) {
  State &s = st();
  std::lock_guard<std::mutex> lk(s.mu);
  SwpQueue *q = findQueue(s, queue);
  return q ? q->cb.err : QOR_SWP_ERR_NONE;
}

int qorSwpGetQueueCtrlBlock(uint32_t queue, QorSwpCtrlBlock *out) {
  State &s = st();
  std::lock_guard<std::mutex> lk(s.mu);
  SwpQueue *q = findQueue(s, queue);
  if (!q || !out) return QOR_SWP_ENOQUEUE;
  *out = q->cb;
  out->held = static_cast<uint32_t>(q->held.size());
  out->inFlight = static_cast<uint32_t>(q->nextUnsent);
  return QOR_SWP_OK;
}

uint32_t qorSwpGetQueue(const void *msg) { return ld32(msg, SWP_OFF_QUEUE); }
uint32_t qorSwpGetSeqNo(const void *msg) { return ld32(msg, SWP_OFF_SEQ); }

int qorSwpCkSeqAndAck(const void *msg, uint32_t *expected, int reqQ) {
  if (shortMessage(msg, "qorSwpCkSeqAndAck") || !expected) return -1;
  const uint8_t *m = static_cast<const uint8_t *>(msg);
  AckPlan plan = judge(ld32(m, SWP_OFF_SEQ), *expected);
  sendAck(m, plan, reqQ);
  return plan.rc;
}

int qorSwpQListCreateExpSeqList(uint32_t *handle, uint32_t count, uint32_t firstSeq) {
  if (!handle || count == 0 || count > 1024) return QOR_SWP_EPARAM;
  State &s = st();
  std::lock_guard<std::mutex> lk(s.mu);
  if (s.lists.size() >= kMaxQueues) return QOR_SWP_ENORES;
  uint32_t h;
  do {
    h = ++s.listCounter;
  } while (h == 0 || s.lists.count(h));
  QList &l = s.lists[h];
  l.slots.resize(count);
  l.firstSeq = firstSeq ? firstSeq : 1;
  *handle = h;
  return QOR_SWP_OK;
}

int qorSwpQListRemoveExpSeqList(uint32_t handle) {
  State &s = st();
  std::lock_guard<std::mutex> lk(s.mu);
  return s.lists.erase(handle) ? QOR_SWP_OK : QOR_SWP_SEQ_NOLIST;
}

int qorSwpQListCkSeqAndAck(const void *msg, uint32_t handle, int reqQ) {
  if (shortMessage(msg, "qorSwpQListCkSeqAndAck")) return -1;
  const uint8_t *m = static_cast<const uint8_t *>(msg);
  const uint32_t queue = ld32(m, SWP_OFF_QUEUE), seq = ld32(m, SWP_OFF_SEQ);
  AckPlan plan;
  {
    State &s = st();
    std::lock_guard<std::mutex> lk(s.mu);
    auto it = s.lists.find(handle);
    if (it == s.lists.end()) return QOR_SWP_SEQ_NOLIST;
    QList &l = it->second;
    Slot *slot = nullptr;
    for (Slot &x : l.slots)
      if (x.queue == queue) slot = &x;
    if (!slot) {
      for (Slot &x : l.slots)
        if (x.queue == 0) {
          slot = &x;
          slot->expected = l.firstSeq;
          break;
        }
      // Full: a first message can only come from a sender queue that has started over,
      // so it displaces the queue heard from least recently.
      if (!slot && seq == 1) {
        slot = &*std::min_element(l.slots.begin(), l.slots.end(),
                                  [](const Slot &a, const Slot &b) { return a.used < b.used; });
        slot->expected = 1;
      }
      if (!slot) return QOR_SWP_SEQ_NOSLOT;
      slot->queue = queue;
    }
    slot->used = ++l.clock;
    plan = judge(seq, slot->expected);
  }
  sendAck(m, plan, reqQ);
  return plan.rc;
}

int qorSwpCreatePipe(const char *name, int /*flags*/) {
  int fds[2];
  if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return -1;
  State &s = st();
  std::lock_guard<std::mutex> lk(s.mu);
  Pipe p;
  p.rd = fds[0];
  p.wr = fds[1];
  p.name = name ? name : "";
  s.pipes.push_back(std::move(p));
  if (!s.ticker.joinable()) s.ticker = std::thread(tickerLoop);
  return fds[0];
}

int qorSwpReadPipe(int fd) {
  {
    State &s = st();
    std::lock_guard<std::mutex> lk(s.mu);
    auto it = std::find_if(s.pipes.begin(), s.pipes.end(), [fd](const Pipe &p) { return p.rd == fd; });
    if (it == s.pipes.end()) return -1;
    char buf[64];
    while (read(fd, buf, sizeof buf) > 0) {
    }
    it->signaled = false;
  }
  qorSwpRunTimers();
  return 0;
}

int qorSwpClosePipe(int fd) {
  State &s = st();
  std::unique_lock<std::mutex> lk(s.mu);
  auto it = std::find_if(s.pipes.begin(), s.pipes.end(), [fd](const Pipe &p) { return p.rd == fd; });
  if (it == s.pipes.end()) return -1;
  close(it->rd);
  close(it->wr);
  s.pipes.erase(it);
  if (s.pipes.empty()) stopTicker(lk);
  return 0;
}

void qorSwpRunTimers() {
  Deferred d;
  {
    State &s = st();
    std::lock_guard<std::mutex> lk(s.mu);
    uint64_t now = qorTickGet();
    for (auto &[h, q] : s.queues) runQueueTimers(*q, now, d);
  }
  d.run();
  // Acks a full peer turned back; held ones stay held (they go out with their burst's end).
  for (const State::HeldAck &h : [] {
         std::lock_guard<std::mutex> lk(st().mu);
         return std::exchange(st().turnedBack, {});
       }())
    transmitAck(h.ack, h.reqQ);
}

void qorSwpAckHold(bool on) {
  {
    std::lock_guard<std::mutex> lk(st().mu);
    st().holdAcks = on;
  }
  if (!on) sendHeld(nullptr);
}

void qorSwpAckFlush() { sendHeld(nullptr); }

void qorSwpAckFlushWaiting() { sendHeld(nullptr, AckWait::kAlways); }

size_t qorSwpAcksTurnedBack() {
  std::lock_guard<std::mutex> lk(st().mu);
  return st().turnedBack.size();
}

void qorSwpAckNoWait(bool on) {
  {
    std::lock_guard<std::mutex> lk(st().mu);
    st().ackNoWait = on;
  }
  if (!on) sendHeld(nullptr);  // what is kept goes now, waiting as acks do from here on
}

void qorSwpSetAckFilter(QorSwpAckFilter filter) {
  std::lock_guard<std::mutex> lk(st().mu);
  st().ackFilter = filter;
}

void qorSwpReset() {
  Deferred d;
  {
    State &s = st();
    std::unique_lock<std::mutex> lk(s.mu);
    stopTicker(lk);
    for (auto &[h, q] : s.queues) releaseAll(*q, d);
    s.queues.clear();
    s.lists.clear();
    for (Pipe &p : s.pipes) {
      close(p.rd);
      close(p.wr);
    }
    s.pipes.clear();
    s.ackFilter = nullptr;
    s.holdAcks = false;
    s.ackNoWait = false;
    s.held.clear();
    s.turnedBack.clear();
  }
  d.run();
}
