// Keys, queues, send and receive over Unix datagram sockets.
//
// A key is a small integer; its queue handles are key * 4 + kind, so a handle names both the
// key and the kind without a second table. Each queue holds its socket, an eventfd and an
// epoll descriptor over both: the epoll descriptor is what the caller selects on, readable
// while the kernel or the user-space reserve holds a message. Receives move what the kernel
// holds into the reserve (bounded by the receive limit) so a burst from many senders waits
// here instead of stalling them on the kernel's short datagram queue.
//
// Sends to a queue's peers go through sockets connected to each peer, made on the first send
// and kept: a datagram with an address makes the kernel walk the peer's path on every send,
// which was a fifth of a send's cost, and a peer that stops reading then fills only its own
// socket's send buffer instead of the one every other peer's datagrams share. A connected
// socket whose peer went away fails once; the send is then made with the address, as it would
// have been, so a peer that came back at the same path is found again.
//
// Locking: one registry mutex maps handles to queues (shared_ptr, so a queue closed by one
// thread stays valid for another thread's call in flight); each queue has its own mutex
// for its reserve and counters. No lock is held while waiting or while a timer callback runs.
#include "ipc/qor_ipc.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "ipc/qor_ipc_internal.h"
#include "log/qor_log.h"
#include "rtm/rtm_wire.h"
#include "timer/qor_timer.h"

namespace {

constexpr int kMaxKeys = 64;
// Datagrams longer than this are kept truncated in the reserve and reported as too long.
constexpr size_t kMaxDatagram = 65536;

struct Datagram {
  std::vector<uint8_t> bytes;
  size_t fullLen;
};

struct PeerSock {
  PeerSock(uint32_t id, int s) : queueId(id), fd(s) {}
  PeerSock(const PeerSock &) = delete;  // the socket has one owner, which closes it
  PeerSock &operator=(const PeerSock &) = delete;
  ~PeerSock() { close(fd); }
  const uint32_t queueId;
  const int fd;
};
using PeerP = std::shared_ptr<PeerSock>;
// Connected sockets a queue keeps; past this the oldest is closed (a sender in flight on it
// holds its own reference).
constexpr size_t kMaxPeers = 64;

struct Queue {
  std::mutex mu;
  int handle = 0;
  uint32_t kind = 0;
  uint32_t queueId = 0;
  std::string path;
  int sock = -1;
  int ev = -1;
  int ep = -1;
  uint32_t sendLimit = QOR_IPC_DEFAULT_SEND_LIMIT;
  uint32_t recvLimit = QOR_IPC_DEFAULT_RECV_LIMIT;
  int recvTimeoutMs = QOR_IPC_DEFAULT_RECV_TIMEOUT_MS;
  int sendWaitMs = QOR_IPC_DEFAULT_SEND_WAIT_MS;
  std::deque<Datagram> reserve;
  size_t reserveBytes = 0;
  std::vector<std::vector<uint8_t>> spare;  // buffers of consumed messages, for reuse
  bool evRaised = false;
  QorIpcStats stats;
  std::vector<PeerP> peers;  // connected to the queues they name; made with sock's send settings

  ~Queue() {
    if (ep >= 0) close(ep);
    if (ev >= 0) close(ev);
    if (sock >= 0) close(sock);
  }
};
using QueueP = std::shared_ptr<Queue>;

struct Key {
  uint32_t svce = 0;
  uint32_t inst = 0;
  std::array<QueueP, 4> q;  // indexed by kind
};

struct Registry {
  std::mutex mu;
  std::array<std::unique_ptr<Key>, kMaxKeys> keys;
  int timerKey = 0;  // the key whose timer queue takes expiries
};

Registry &reg() {
  static Registry *r = new Registry;  // outlives threads that may still send during exit
  return *r;
}

QueueP findQueue(int handle) {
  if (handle <= 0) return nullptr;
  int key = handle / 4, kind = handle % 4;
  if (key <= 0 || key >= kMaxKeys || kind == 0) return nullptr;
  Registry &r = reg();
  std::lock_guard<std::mutex> lk(r.mu);
  return r.keys[key] ? r.keys[key]->q[kind] : nullptr;
}

QueueP findKeyQueue(int key, uint32_t kind) {
  if (key <= 0 || key >= kMaxKeys) return nullptr;
  Registry &r = reg();
  std::lock_guard<std::mutex> lk(r.mu);
  return r.keys[key] ? r.keys[key]->q[kind] : nullptr;
}

bool fillAddr(sockaddr_un &sa, const char *path) {
  sa = sockaddr_un{};
  sa.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof sa.sun_path) return false;
  strcpy(sa.sun_path, path);
  return true;
}

void setSendWait(Queue &q) {
  timeval tv{q.sendWaitMs / 1000, (q.sendWaitMs % 1000) * 1000};
  setsockopt(q.sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

// Binds a queue's socket at its path, replacing a socket file that no process holds.
QueueP makeQueue(int key, uint32_t svce, uint32_t inst, uint32_t kind) {
  auto q = std::make_shared<Queue>();
  q->handle = key * 4 + static_cast<int>(kind);
  q->kind = kind;
  q->queueId = qor_getQueueId(svce, inst, kind);
  char path[sizeof(sockaddr_un{}.sun_path)];
  sockaddr_un sa;
  if (!qorIpcQueuePath(QOR_IPC_LOCAL_CARD, q->queueId, path, sizeof path) || !fillAddr(sa, path)) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  q->sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (q->sock < 0) return nullptr;
  if (bind(q->sock, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
    if (errno != EADDRINUSE) return nullptr;
    if (qoripc::endpointAlive(path)) {
      errno = EADDRINUSE;
      return nullptr;
    }
    unlink(path);
    if (bind(q->sock, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) return nullptr;
  }
  q->path = path;
  // The ipc folder is already private; the socket is made private as well so that a
  // folder opened up by hand does not open the daemon with it.
  chmod(path, 0600);
  setSendWait(*q);
  q->ev = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  q->ep = epoll_create1(EPOLL_CLOEXEC);
  if (q->ev < 0 || q->ep < 0) {
    unlink(path);
    return nullptr;
  }
  epoll_event e{};
  e.events = EPOLLIN;
  e.data.fd = q->sock;
  epoll_ctl(q->ep, EPOLL_CTL_ADD, q->sock, &e);
  e.data.fd = q->ev;
  epoll_ctl(q->ep, EPOLL_CTL_ADD, q->ev, &e);
  return q;
}

void dropQueue(QueueP &q) {
  if (!q) return;
  if (!q->path.empty()) unlink(q->path.c_str());
  q.reset();
}

// Keeps the eventfd in step with the reserve: raised while it is not empty. q.mu held.
void syncEvent(Queue &q) {
  if (!q.reserve.empty() && !q.evRaised) {
    uint64_t one = 1;
    if (write(q.ev, &one, sizeof one) == sizeof one) q.evRaised = true;
  } else if (q.reserve.empty() && q.evRaised) {
    uint64_t v;
    if (read(q.ev, &v, sizeof v) == sizeof v || errno == EAGAIN) q.evRaised = false;
  }
}

// Datagrams one system call takes from the kernel. The kernel queues only a handful per
// socket, so a larger batch would seldom fill.
constexpr unsigned kRecvBatch = 16;
// A receive looks in the kernel again only when the reserve holds fewer messages than this:
// asking on every receive cost a system call per message, most of them finding one datagram
// or none, while a few in hand still leave the kernel's queue room for the senders.
constexpr size_t kRefillBelow = 4;
// Spare buffers a queue keeps for the reserve, so a steady stream does not allocate.
constexpr size_t kSpareBuffers = 32;

struct RecvBatch {
  // Not zero-filled: pages the kernel never writes stay untouched.
  std::unique_ptr<uint8_t[]> bytes{new uint8_t[size_t(kRecvBatch) * kMaxDatagram]};
  mmsghdr mm[kRecvBatch];
  iovec iov[kRecvBatch];
};

// Moves what the kernel holds into the reserve, up to the receive limit. q.mu held.
void drain(Queue &q) {
  static thread_local RecvBatch b;
  while (q.reserveBytes < q.recvLimit) {
    // No more datagrams than the limit leaves room for (counted as whole messages), so a
    // small limit still bounds the reserve as tightly as one receive at a time did.
    const size_t room = 1 + (q.recvLimit - q.reserveBytes) / RTM_IPC_BUF_SIZE;
    const unsigned want = static_cast<unsigned>(std::min<size_t>(kRecvBatch, room));
    for (unsigned i = 0; i < want; ++i) {
      b.iov[i] = {b.bytes.get() + size_t(i) * kMaxDatagram, kMaxDatagram};
      b.mm[i] = mmsghdr{};
      b.mm[i].msg_hdr.msg_iov = &b.iov[i];
      b.mm[i].msg_hdr.msg_iovlen = 1;
    }
    // MSG_TRUNC: msg_len is the datagram's whole length, which tells a truncated one apart.
    const int n = recvmmsg(q.sock, b.mm, want, MSG_DONTWAIT | MSG_TRUNC, nullptr);
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < n; ++i) {
      const size_t full = b.mm[i].msg_len, kept = std::min(full, kMaxDatagram);
      std::vector<uint8_t> bytes;
      if (!q.spare.empty()) {
        bytes = std::move(q.spare.back());
        q.spare.pop_back();
      }
      bytes.assign(b.bytes.get() + size_t(i) * kMaxDatagram, b.bytes.get() + size_t(i) * kMaxDatagram + kept);
      q.reserve.push_back(Datagram{std::move(bytes), full});
      q.reserveBytes += kept;
    }
    if (static_cast<unsigned>(n) < want) break;  // the kernel had no more: no need to ask again
  }
  syncEvent(q);
}

// Takes the oldest message into buf. q.mu held; the reserve is not empty.
int takeFront(Queue &q, void *buf, uint32_t size) {
  Datagram d = std::move(q.reserve.front());
  q.reserve.pop_front();
  q.reserveBytes -= d.bytes.size();
  syncEvent(q);
  if (d.fullLen > size || d.fullLen > d.bytes.size()) {
    memcpy(buf, d.bytes.data(), std::min<size_t>(size, d.bytes.size()));
    q.stats.recvErrors++;
    errno = EMSGSIZE;
    return -1;
  }
  memcpy(buf, d.bytes.data(), d.fullLen);
  q.stats.received++;
  if (q.spare.size() < kSpareBuffers) q.spare.push_back(std::move(d.bytes));
  return static_cast<int>(d.fullLen);
}

PeerP findPeer(Queue &q, uint32_t qid) {
  std::lock_guard<std::mutex> lk(q.mu);
  for (const PeerP &p : q.peers)
    if (p->queueId == qid) return p;
  return nullptr;
}

// A socket connected to queue qid at sa, kept for the next sends. Null when none can be made
// (no peer bound there): the caller sends with the address instead, which gives the error the
// peer's absence deserves.
PeerP connectPeer(Queue &q, uint32_t qid, const sockaddr_un &sa) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return nullptr;
  auto p = std::make_shared<PeerSock>(qid, fd);
  std::lock_guard<std::mutex> lk(q.mu);
  // The queue's own socket's limits: the largest datagram, and how long a send waits.
  int sndbuf = 0;
  socklen_t sl = sizeof sndbuf;
  if (getsockopt(q.sock, SOL_SOCKET, SO_SNDBUF, &sndbuf, &sl) == 0) {
    sndbuf /= 2;  // the kernel reports twice what was asked for
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
  }
  timeval tv{q.sendWaitMs / 1000, (q.sendWaitMs % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  if (connect(fd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) != 0) return nullptr;
  if (q.peers.size() >= kMaxPeers) q.peers.erase(q.peers.begin());
  q.peers.push_back(p);
  return p;
}

void forgetPeer(Queue &q, const PeerP &p) {
  std::lock_guard<std::mutex> lk(q.mu);
  auto it = std::find(q.peers.begin(), q.peers.end(), p);
  if (it != q.peers.end()) q.peers.erase(it);
}

// Errors that say something of the message or of the peer's load, not that the connection is
// stale: a send with the address would meet them too.
bool peerStillGood(int e) { return e == EAGAIN || e == EWOULDBLOCK || e == EMSGSIZE || e == ENOBUFS || e == EINTR; }

// Sends a header and a body as one datagram to the target the header names.
int sendParts(Queue &q, const uint8_t *hdr, const uint8_t *body, size_t bodyLen, bool wait) {
  size_t len = IPC_HDR_LEN + bodyLen;
  auto fail = [&q](int e) {
    std::lock_guard<std::mutex> lk(q.mu);
    q.stats.sendErrors++;
    errno = e;
    return -1;
  };
  if (len > q.sendLimit) return fail(EMSGSIZE);
  uint32_t card = rtm::ld32(hdr, IPC_OFF_TGT_CARD), qid = rtm::ld32(hdr, IPC_OFF_TGT_SVCE);
  if (card != QOR_IPC_LOCAL_CARD) return fail(EHOSTUNREACH);
  iovec iov[2] = {{const_cast<uint8_t *>(hdr), IPC_HDR_LEN},
                  {const_cast<uint8_t *>(body), bodyLen}};
  msghdr m{};
  m.msg_iov = iov;
  m.msg_iovlen = bodyLen ? 2 : 1;
  const int flags = MSG_NOSIGNAL | ((wait && q.sendWaitMs > 0) ? 0 : MSG_DONTWAIT);
  auto sendOn = [&m, flags](int fd) {
    ssize_t n;
    do {
      n = sendmsg(fd, &m, flags);
    } while (n < 0 && errno == EINTR);
    return n;
  };
  // A send on a peer's socket that fails for a stale connection forgets it and says so.
  auto sendToPeer = [&](const PeerP &p, ssize_t *n) {
    *n = sendOn(p->fd);
    if (*n >= 0 || peerStillGood(errno)) return true;
    const int e = errno;
    forgetPeer(q, p);
    errno = e;
    return false;
  };
  ssize_t n = -1;
  PeerP peer = findPeer(q, qid);
  // A kept socket whose peer went away: connected anew below, to whoever holds the path now.
  if (!peer || !sendToPeer(peer, &n)) {
    char path[sizeof(sockaddr_un{}.sun_path)];
    sockaddr_un sa;
    if (!qorIpcQueuePath(card, qid, path, sizeof path)) return fail(EINVAL);
    if (!fillAddr(sa, path)) return fail(ENAMETOOLONG);
    if (PeerP fresh = connectPeer(q, qid, sa)) {
      sendToPeer(fresh, &n);
    } else {
      m.msg_name = &sa;
      m.msg_namelen = sizeof sa;
      n = sendOn(q.sock);
    }
  }
  if (n < 0) {
    int e = errno;
    if (e == EWOULDBLOCK) e = EAGAIN;
    return fail(e);
  }
  std::lock_guard<std::mutex> lk(q.mu);
  q.stats.sent++;
  return 0;
}

// A message without a whole header is never sent; it counts as a send error of the queue.
int refuseShort(Queue &q) {
  std::lock_guard<std::mutex> lk(q.mu);
  q.stats.sendErrors++;
  errno = EINVAL;
  return -1;
}

int sendWhole(int handle, const void *msg, uint32_t len, bool wait) {
  QueueP q = findQueue(handle);
  if (!q) {
    errno = EBADF;
    return -1;
  }
  if (!msg || len < IPC_HDR_LEN) return refuseShort(*q);
  const uint8_t *b = static_cast<const uint8_t *>(msg);
  return sendParts(*q, b, b + IPC_HDR_LEN, len - IPC_HDR_LEN, wait);
}

// Timer expiries arrive from the timer library's thread (or from a test advancing the
// manual clock). They go straight into the timer queue's reserve: an expiry must never be
// lost to a full kernel queue, and the caller may be the thread that would drain it.
void timerSink(void *ctx, const uint8_t *msg, uint32_t len) {
  QueueP q = findKeyQueue(static_cast<int>(reinterpret_cast<intptr_t>(ctx)), QOR_IPC_QUEUE_TMR);
  if (!q || !msg) return;
  std::lock_guard<std::mutex> lk(q->mu);
  q->reserve.push_back(Datagram{std::vector<uint8_t>(msg, msg + len), len});
  q->reserveBytes += len;
  syncEvent(*q);
}

// Returns true when the key took timer expiries, so the caller unhooks the sink once the
// registry lock is released (the timer library calls the sink under its own lock).
bool closeKeyLocked(Registry &r, int key, std::vector<QueueP> &out) {
  if (!r.keys[key]) return false;
  for (auto &q : r.keys[key]->q)
    if (q) out.push_back(std::move(q));
  r.keys[key].reset();
  if (r.timerKey != key) return false;
  r.timerKey = 0;
  return true;
}

void unhookTimerSink() { qorTimerSetExpirySink(nullptr, nullptr); }

}  // namespace

int qorIpcOpen(uint32_t svce, uint32_t inst) {
  if (svce > QOR_IPC_MAX_SVCE || inst > QOR_IPC_MAX_INST) {
    errno = EINVAL;
    return -1;
  }
  if (!qoripc::ensureRunDir()) return -1;
  Registry &r = reg();
  std::lock_guard<std::mutex> lk(r.mu);
  int key = 0;
  for (int k = 1; k < kMaxKeys; ++k) {
    if (r.keys[k] && r.keys[k]->svce == svce && r.keys[k]->inst == inst) {
      errno = EADDRINUSE;  // this process holds it already
      return -1;
    }
    if (!r.keys[k] && key == 0) key = k;
  }
  if (key == 0) {
    errno = EMFILE;
    return -1;
  }
  auto k = std::make_unique<Key>();
  k->svce = svce;
  k->inst = inst;
  k->q[QOR_IPC_QUEUE_REQ] = makeQueue(key, svce, inst, QOR_IPC_QUEUE_REQ);
  if (!k->q[QOR_IPC_QUEUE_REQ]) return -1;
  k->q[QOR_IPC_QUEUE_RSP] = makeQueue(key, svce, inst, QOR_IPC_QUEUE_RSP);
  if (!k->q[QOR_IPC_QUEUE_RSP]) {
    int e = errno;
    dropQueue(k->q[QOR_IPC_QUEUE_REQ]);
    errno = e;
    return -1;
  }
  r.keys[key] = std::move(k);
  return key;
}

int qorIpcTmrOpen(uint32_t svce, uint32_t inst) {
  int found = 0;
  {
    Registry &r = reg();
    std::lock_guard<std::mutex> lk(r.mu);
    for (int k = 1; k < kMaxKeys && !found; ++k) {
      Key *key = r.keys[k].get();
      if (!key || key->svce != svce || key->inst != inst) continue;
      if (!key->q[QOR_IPC_QUEUE_TMR]) {
        key->q[QOR_IPC_QUEUE_TMR] = makeQueue(k, svce, inst, QOR_IPC_QUEUE_TMR);
        if (!key->q[QOR_IPC_QUEUE_TMR]) return -1;
      }
      r.timerKey = found = k;
    }
  }
  if (!found) {
    errno = ENOENT;
    return -1;
  }
  qorTimerSetExpirySink(timerSink, reinterpret_cast<void *>(static_cast<intptr_t>(found)));
  return 0;
}

int qorIpcClose(int key) {
  if (key <= 0 || key >= kMaxKeys) {
    errno = EBADF;
    return -1;
  }
  std::vector<QueueP> gone;
  bool unhook = false;
  {
    Registry &r = reg();
    std::lock_guard<std::mutex> lk(r.mu);
    if (!r.keys[key]) {
      errno = EBADF;
      return -1;
    }
    unhook = closeKeyLocked(r, key, gone);
  }
  if (unhook) unhookTimerSink();
  for (auto &q : gone) dropQueue(q);
  return 0;
}

void qorIpcReset() {
  std::vector<QueueP> gone;
  bool unhook = false;
  {
    Registry &r = reg();
    std::lock_guard<std::mutex> lk(r.mu);
    for (int k = 1; k < kMaxKeys; ++k) unhook |= closeKeyLocked(r, k, gone);
  }
  if (unhook) unhookTimerSink();
  for (auto &q : gone) dropQueue(q);
}

int Key_getReqQueue(int key) {
  QueueP q = findKeyQueue(key, QOR_IPC_QUEUE_REQ);
  return q ? q->handle : 0;
}
int Key_getTmrQueue(int key) {
  QueueP q = findKeyQueue(key, QOR_IPC_QUEUE_TMR);
  return q ? q->handle : 0;
}
int Key_getRspQueue(int key) {
  QueueP q = findKeyQueue(key, QOR_IPC_QUEUE_RSP);
  return q ? q->handle : 0;
}
int Key_getSocketFd(int queue) {
  QueueP q = findQueue(queue);
  return q ? q->ep : -1;
}
int qorIpcKeyOfQueue(int queue) { return findQueue(queue) ? queue / 4 : -1; }

int qorIpcQueueAddr(int queue, uint32_t *card, uint32_t *queueId) {
  QueueP q = findQueue(queue);
  if (!q) return -1;
  if (card) *card = QOR_IPC_LOCAL_CARD;
  if (queueId) *queueId = q->queueId;
  return 0;
}

int qorIpcSetSendBufferLimit(int queue, uint32_t bytes) {
  QueueP q = findQueue(queue);
  if (!q || bytes < IPC_HDR_LEN) return -1;
  std::lock_guard<std::mutex> lk(q->mu);
  q->sendLimit = bytes;
  // The kernel refuses a datagram larger than the socket's own buffer; never shrink it.
  int cur = 0;
  socklen_t sl = sizeof cur;
  getsockopt(q->sock, SOL_SOCKET, SO_SNDBUF, &cur, &sl);
  if (static_cast<uint64_t>(cur) < 2ull * bytes) {
    int want = static_cast<int>(std::min<uint64_t>(2ull * bytes, 1u << 30));
    setsockopt(q->sock, SOL_SOCKET, SO_SNDBUF, &want, sizeof want);
    q->peers.clear();  // made again, with the new buffer, on their next send
  }
  return 0;
}

int qorIpcSetRecvBufferLimit(int queue, uint32_t bytes) {
  QueueP q = findQueue(queue);
  if (!q || bytes == 0) return -1;
  std::lock_guard<std::mutex> lk(q->mu);
  q->recvLimit = bytes;
  return 0;
}

int qorIpcSetRecvTimeout(int queue, int ms) {
  QueueP q = findQueue(queue);
  if (!q || ms < 0) return -1;
  std::lock_guard<std::mutex> lk(q->mu);
  q->recvTimeoutMs = ms;
  return 0;
}

int qorIpcSetSendWait(int queue, int ms) {
  QueueP q = findQueue(queue);
  if (!q || ms < 0) return -1;
  std::lock_guard<std::mutex> lk(q->mu);
  q->sendWaitMs = ms;
  setSendWait(*q);
  q->peers.clear();  // made again, with the new wait, on their next send
  return 0;
}

int qorIpcRecv(int queue, void *buf, uint32_t size, int mode, int timeoutMs, int /*flags*/) {
  QueueP q = findQueue(queue);
  if (!q) {
    errno = EBADF;
    return -1;
  }
  if (!buf || (mode != QOR_IPC_NOWAIT && mode != QOR_IPC_WAIT_TIMEOUT &&
               mode != QOR_IPC_WAIT_FOREVER)) {
    errno = EINVAL;
    return -1;
  }
  using Clock = std::chrono::steady_clock;
  Clock::time_point deadline{};
  if (mode == QOR_IPC_WAIT_TIMEOUT) {
    int ms = timeoutMs > 0 ? timeoutMs : q->recvTimeoutMs;
    deadline = Clock::now() + std::chrono::milliseconds(ms);
  }
  int n;
  for (;;) {
    std::unique_lock<std::mutex> lk(q->mu);
    if (q->reserve.size() < kRefillBelow) drain(*q);
    if (!q->reserve.empty()) {
      n = takeFront(*q, buf, size);
      break;
    }
    if (mode == QOR_IPC_NOWAIT) {
      errno = EAGAIN;
      return -1;
    }
    int waitMs = -1;
    if (mode == QOR_IPC_WAIT_TIMEOUT) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) {
        q->stats.timeouts++;
        errno = QOR_IPC_ETIMEDOUT;
        return -1;
      }
      waitMs = static_cast<int>(left.count()) + 1;
    }
    int ep = q->ep;
    lk.unlock();
    pollfd p{ep, POLLIN, 0};
    if (poll(&p, 1, waitMs) < 0 && errno != EINTR) return -1;
  }
  // An expiry runs its callback here, on the receiving thread, before the dispatcher sees
  // the message (rewritten by the timer library to a type the dispatcher ignores).
  if (n > 0 && q->kind == QOR_IPC_QUEUE_TMR &&
      qorTimerIsExpiryMsg(static_cast<const uint8_t *>(buf), static_cast<size_t>(n)))
    qorTimerRunExpiry(static_cast<uint8_t *>(buf), static_cast<size_t>(n));
  return n;
}

int qorIpcInHand(int queue) {
  QueueP q = findQueue(queue);
  if (!q) return -1;
  std::lock_guard<std::mutex> lk(q->mu);
  return static_cast<int>(q->reserve.size());
}

int qorIpcQueueDepth() {
  FILE *f = fopen("/proc/sys/net/unix/max_dgram_qlen", "r");
  if (!f) return -1;
  int depth = -1;
  if (fscanf(f, "%d", &depth) != 1) depth = -1;
  fclose(f);
  return depth;
}

int qorIpcGetNumMsgs(int queue) {
  QueueP q = findQueue(queue);
  if (!q) return -1;
  std::lock_guard<std::mutex> lk(q->mu);
  drain(*q);
  return static_cast<int>(q->reserve.size());
}

int qorIpcSend(int queue, const void *msg, uint32_t len) { return sendWhole(queue, msg, len, true); }
int qorIpcSendNoWait(int queue, const void *msg, uint32_t len) {
  return sendWhole(queue, msg, len, false);
}

int qorIpcReply(int key, const void *msg, uint32_t len) {
  QueueP q = findKeyQueue(key, QOR_IPC_QUEUE_REQ);
  if (!q) {
    errno = EBADF;
    return -1;
  }
  if (!msg || len < IPC_HDR_LEN) return refuseShort(*q);
  const uint8_t *m = static_cast<const uint8_t *>(msg);
  uint8_t hdr[IPC_HDR_LEN];
  memcpy(hdr, m, IPC_HDR_LEN);
  rtm::st32(hdr, IPC_OFF_TGT_SLOT, rtm::ld32(m, IPC_OFF_SRC_SLOT));
  rtm::st32(hdr, IPC_OFF_TGT_CARD, rtm::ld32(m, IPC_OFF_SRC_CARD));
  rtm::st32(hdr, IPC_OFF_TGT_SVCE, rtm::ld32(m, IPC_OFF_SRC_SVCE));
  rtm::st32(hdr, IPC_OFF_SRC_SLOT, 0);
  rtm::st32(hdr, IPC_OFF_SRC_CARD, QOR_IPC_LOCAL_CARD);
  rtm::st32(hdr, IPC_OFF_SRC_SVCE, q->queueId);
  return sendParts(*q, hdr, m + IPC_HDR_LEN, len - IPC_HDR_LEN, true);
}

int qorIpcSendWaitWithRetry(int key, void *msg, void *reply, uint32_t len, uint32_t replyLen,
                            int retries, uint32_t type, int attemptMs, int /*flags*/) {
  QueueP rsp = findKeyQueue(key, QOR_IPC_QUEUE_RSP);
  if (!rsp) {
    errno = EBADF;
    return -1;
  }
  if (!msg || !reply || len < IPC_HDR_LEN || replyLen < IPC_HDR_LEN) {
    errno = EINVAL;
    return -1;
  }
  uint8_t *m = static_cast<uint8_t *>(msg);
  rtm::st32(m, IPC_OFF_SRC_SLOT, 0);
  rtm::st32(m, IPC_OFF_SRC_CARD, QOR_IPC_LOCAL_CARD);
  rtm::st32(m, IPC_OFF_SRC_SVCE, rsp->queueId);
  const uint32_t trans = rtm::ld32(m, IPC_OFF_TRANSCODE);
  const int perTry = attemptMs > 0 ? attemptMs : QOR_IPC_DEFAULT_REPLY_WAIT_MS;
  std::vector<uint8_t> in(kMaxDatagram);
  for (int attempt = 0; attempt <= std::max(retries, 0); ++attempt) {
    if (sendParts(*rsp, m, m + IPC_HDR_LEN, len - IPC_HDR_LEN, true) != 0 && errno != EAGAIN)
      return -1;  // no such endpoint, or a message that can never be sent: retrying is futile
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(perTry);
    for (;;) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) break;
      int n = qorIpcRecv(rsp->handle, in.data(), static_cast<uint32_t>(in.size()),
                         QOR_IPC_WAIT_TIMEOUT, static_cast<int>(left.count()), 0);
      if (n < 0) {
        if (errno == QOR_IPC_ETIMEDOUT) break;
        continue;
      }
      if (static_cast<size_t>(n) < IPC_HDR_LEN || rtm::ld32(in.data(), IPC_OFF_TRANSCODE) != trans)
        continue;  // an answer to an earlier exchange
      memcpy(reply, in.data(), std::min<size_t>(static_cast<size_t>(n), replyLen));
      if (static_cast<uint32_t>(n) > replyLen) {
        errno = EMSGSIZE;
        return -1;
      }
      return 0;
    }
  }
  qorEventLogDev(0, 15, "qorIpcSendWaitWithRetry: no answer to type %#x after %d attempts\n",
                 type, std::max(retries, 0) + 1);
  errno = QOR_IPC_ETIMEDOUT;
  return -1;
}

int qorIpcGetQueueStats(int queue, QorIpcStats *out) {
  QueueP q = findQueue(queue);
  if (!q || !out) return -1;
  std::lock_guard<std::mutex> lk(q->mu);
  *out = q->stats;
  return 0;
}

int qorIpcGetKeyStats(int key, QorIpcStats *out) {
  if (!out || key <= 0 || key >= kMaxKeys || !findKeyQueue(key, QOR_IPC_QUEUE_REQ)) return -1;
  QorIpcStats sum;
  for (uint32_t kind = QOR_IPC_QUEUE_REQ; kind <= QOR_IPC_QUEUE_RSP; ++kind) {
    QueueP q = findKeyQueue(key, kind);
    if (!q) continue;
    std::lock_guard<std::mutex> lk(q->mu);
    sum.sent += q->stats.sent;
    sum.received += q->stats.received;
    sum.sendErrors += q->stats.sendErrors;
    sum.recvErrors += q->stats.recvErrors;
    sum.timeouts += q->stats.timeouts;
  }
  *out = sum;
  return 0;
}
