// Message endpoints between the daemon's processes, and the name service that finds them.
//
// An endpoint is a Unix datagram socket in the run directory; one datagram is one message,
// a 60-byte big-endian header (rtm/rtm_wire.h) and its payload. A process opens one key per
// (service, instance); a key owns up to three queues: the request queue that peers send to,
// the response queue on which send-and-wait collects its answers, and the timer queue on
// which timer expiries arrive. An endpoint is addressed on the wire by a (card, queue id)
// pair that maps one to one onto a socket path, so any program that knows the run directory
// can compute where to send (docs/ipc.md gives the mapping).
//
// The kernel holds only a handful of datagrams per Unix socket, far fewer than a burst of
// route messages, so each queue keeps a receive reserve in user memory: every receive first
// moves what the kernel holds into the reserve (up to the queue's receive limit in bytes),
// and the descriptor given to select stays readable while either holds a message.
#pragma once

#include <cstddef>
#include <cstdint>

// Queue kinds, the low four bits of a queue id.
constexpr uint32_t QOR_IPC_QUEUE_REQ = 1;  // <svce>.<inst>      requests and SWP traffic
constexpr uint32_t QOR_IPC_QUEUE_TMR = 2;  // <svce>.<inst>.tmr  timer expiries
constexpr uint32_t QOR_IPC_QUEUE_RSP = 3;  // <svce>.<inst>.rsp  answers to send-and-wait

// The card address of every endpoint of this run directory (127.0.0.1).
constexpr uint32_t QOR_IPC_LOCAL_CARD = 0x7F000001u;
constexpr uint32_t QOR_IPC_MAX_SVCE = 0xFFFF;
constexpr uint32_t QOR_IPC_MAX_INST = 0xFFF;

// qorIpcRecv modes.
constexpr int QOR_IPC_NOWAIT = 1;
constexpr int QOR_IPC_WAIT_TIMEOUT = 5;
constexpr int QOR_IPC_WAIT_FOREVER = 0;
// errno of a receive or send-and-wait that timed out (the platform's ETIMEDOUT).
constexpr int QOR_IPC_ETIMEDOUT = 60;

// Defaults of a new queue.
constexpr uint32_t QOR_IPC_DEFAULT_SEND_LIMIT = 9216;     // largest datagram it sends
constexpr uint32_t QOR_IPC_DEFAULT_RECV_LIMIT = 212992;   // bytes its receive reserve holds
constexpr int QOR_IPC_DEFAULT_RECV_TIMEOUT_MS = 5000;     // mode 5 without an explicit time-out
constexpr int QOR_IPC_DEFAULT_SEND_WAIT_MS = 200;         // how long a send waits for a full peer
constexpr int QOR_IPC_DEFAULT_REPLY_WAIT_MS = 200;        // one attempt of send-and-wait

// ---- Run directory ----------------------------------------------------------------------

// Chooses the run directory for endpoints opened and looked up from now on. Without a call,
// $RTM_RUN_DIR, else /tmp/rtmd-<uid>. Returns 0, or -1 if the path is too long for a socket.
int qorIpcSetRunDir(const char *path);
const char *qorIpcGetRunDir();

// ---- Keys and queues --------------------------------------------------------------------

// Opens (svce, inst): binds its request and response queues. -1 with errno on failure;
// EADDRINUSE if a live process holds the endpoint (a stale socket file is replaced).
int qorIpcOpen(uint32_t svce, uint32_t inst);
// Adds the timer queue to the key opened for (svce, inst) and routes timer expiries to it.
// 0, or -1 with errno.
int qorIpcTmrOpen(uint32_t svce, uint32_t inst);
// Closes every queue of the key and removes its socket files. 0 or -1.
int qorIpcClose(int key);

// Queue handles of a key (0 if the key or that queue does not exist).
int Key_getReqQueue(int key);
int Key_getTmrQueue(int key);
int Key_getRspQueue(int key);
// The descriptor to select on for a queue: readable while a message waits. -1 if unknown.
int Key_getSocketFd(int queue);
// The key that owns a queue, or -1.
int qorIpcKeyOfQueue(int queue);
// The (card, queue id) on the wire of one of our queues. 0, or -1 if unknown.
int qorIpcQueueAddr(int queue, uint32_t *card, uint32_t *queueId);

// The largest datagram the queue sends (a Unix socket charges a datagram to its sender until
// it is read, so this bounds one message rather than a backlog). 0 or -1.
int qorIpcSetSendBufferLimit(int queue, uint32_t bytes);
// The bytes the queue's receive reserve may hold before further datagrams are left to wait
// in the kernel (and their senders to wait or retry). 0 or -1.
int qorIpcSetRecvBufferLimit(int queue, uint32_t bytes);
// Time-outs of the queue: mode-5 receives, and how long a send waits for a full peer.
int qorIpcSetRecvTimeout(int queue, int ms);
int qorIpcSetSendWait(int queue, int ms);

// ---- Sending and receiving --------------------------------------------------------------

// Receives one message into buf. mode 1: do not wait; mode 5: wait up to timeoutMs (0: the
// queue's receive time-out); mode 0: wait without limit. Returns the message length, or -1
// with errno: EAGAIN (nothing waiting in mode 1), 60 (time-out), EMSGSIZE (the message was
// longer than size: the first size bytes are in buf and the message is consumed).
// On the timer queue an expiry message runs its callback before it is returned.
int qorIpcRecv(int queue, void *buf, uint32_t size, int mode, int timeoutMs, int flags);
// Messages waiting on the queue. -1 if the queue is unknown.
int qorIpcGetNumMsgs(int queue);
// Messages already taken from the kernel and not yet received: what qorIpcRecv will return
// without a system call. -1 if the queue is unknown.
int qorIpcInHand(int queue);
// Messages a queue's socket holds before a sender is turned back (EAGAIN): the system's
// datagram queue length, net.unix.max_dgram_qlen, read when a socket is made. -1 if unknown.
int qorIpcQueueDepth();

// Sends msg from `queue` to the endpoint named by the header's target card and target svce.
// The header is sent as the caller wrote it. 0, or -1 with errno: EINVAL (shorter than a
// header, or a target queue id that names no queue kind), EMSGSIZE (above the send limit),
// EHOSTUNREACH (a card other than ours), ENOENT/ECONNREFUSED (no such endpoint), EAGAIN
// (the peer stayed full for the queue's send wait).
int qorIpcSend(int queue, const void *msg, uint32_t len);
// As qorIpcSend but never waits for a full peer: EAGAIN at once.
int qorIpcSendNoWait(int queue, const void *msg, uint32_t len);
// Answers a request: sends msg from the key's request queue to the endpoint named in the
// message's source fields. The datagram's target fields name that endpoint and its source
// fields name our request queue; the caller's buffer is not changed. 0 or -1 with errno.
int qorIpcReply(int key, const void *msg, uint32_t len);
// Sends msg with its source fields naming the key's response queue, then waits for the
// answer carrying the same mtransCode; other answers (late ones of earlier attempts) are
// dropped. An attempt lasts attemptMs (0: QOR_IPC_DEFAULT_REPLY_WAIT_MS); up to `retries`
// further attempts follow. The answer is copied into reply (at most replyLen bytes). `type`
// is only reported with failures. 0 on success; -1 with errno (60 after the last attempt,
// ENOENT/ECONNREFUSED at once when the target does not exist, EMSGSIZE for a longer answer).
int qorIpcSendWaitWithRetry(int key, void *msg, void *reply, uint32_t len, uint32_t replyLen,
                            int retries, uint32_t type, int attemptMs, int flags);

// ---- Counters ---------------------------------------------------------------------------

struct QorIpcStats {
  uint64_t sent = 0;        // datagrams handed to the kernel
  uint64_t received = 0;    // messages returned by qorIpcRecv
  uint64_t sendErrors = 0;  // sends refused or failed
  uint64_t recvErrors = 0;  // truncated messages and failed receives
  uint64_t timeouts = 0;    // receives and send-and-waits that timed out
};
// One queue's counters. 0 or -1.
int qorIpcGetQueueStats(int queue, QorIpcStats *out);
// The sum over a key's queues. 0 or -1.
int qorIpcGetKeyStats(int key, QorIpcStats *out);

// ---- Name service -----------------------------------------------------------------------

// The card address of the live endpoint (svce, inst), or -1 with *err = -1 when no process
// holds it (a socket file left by a dead process does not count). err may be null.
int32_t qor_tmeGetPeerIpAddrByName(uint32_t svce, uint32_t inst, int32_t *err);
// The same, for the address under which a task of the service is reached.
int32_t qor_tmeGetTaskIpAddrByName(uint32_t svce, uint32_t inst, int32_t *err);
// Slot of the live endpoint: 0 on this run directory, -1 when it does not exist.
int32_t qor_tmeGetSlotByName(uint32_t svce, uint32_t inst);
// The queue id of (svce, inst, kind): svce << 16 | inst << 4 | kind. It is pure arithmetic
// and needs no live endpoint. 0 when an argument is out of range. The card is accepted for
// the callers that pass the peer's address; every card here maps to the same directory.
uint32_t qor_getQueueId(uint32_t svce, uint32_t inst, uint32_t kind,
                        uint32_t card = QOR_IPC_LOCAL_CARD);
// Decodes a queue id. False for an id that names no queue kind.
bool qorIpcQueueIdSplit(uint32_t queueId, uint32_t *svce, uint32_t *inst, uint32_t *kind);
// The socket path of a (card, queue id) into buf. Returns false when the card is not ours,
// the id is invalid or the path does not fit.
bool qorIpcQueuePath(uint32_t card, uint32_t queueId, char *buf, size_t size);

// Back to a clean start (tests): closes every key.
void qorIpcReset();
