// SWP: sequenced window queues with cumulative acknowledgements, over the IPC layer.
//
// Sender. A queue carries messages from one key to one peer endpoint (peer svce, inst). It
// numbers them from 1, keeps at most `window` of them on the wire unacknowledged, holds the
// rest (up to `size` in all), and owns every message it accepted: each goes back through the
// queue's free function exactly once, when acknowledged, flushed or removed. An
// acknowledgement (MT_SWP_ACK) for sequence n releases every message up to n. Unacknowledged
// messages are sent again after a time-out measured on qorTickGet, all of them from the
// oldest (the receiver keeps no out-of-order messages); after maxRetries rounds without
// progress the queue fails: the error callback runs once with QOR_SWP_ERR_PEER and the queue
// accepts no more messages until it is flushed or removed.
//
// Receiver. qorSwpCkSeqAndAck compares a message's sequence with the expected one and
// answers with an acknowledgement to the endpoint named in the message's source fields.
//
// Timers run from qorSwpReadPipe (or qorSwpRunTimers): a small helper thread makes the SWP
// pipe readable while some queue has work, so the owner's select loop runs them on its own
// thread. docs/ipc.md gives the wire contract.
#pragma once

#include <cstddef>
#include <cstdint>

#include "rtm/rtm_wire.h"

using QorSwpFreeFn = void (*)(void *msg);
using QorSwpErrFn = void (*)(uint32_t queue, uint32_t error);

// Results of the sender calls (0 is success).
constexpr int QOR_SWP_OK = 0;
constexpr int QOR_SWP_EPARAM = 1;    // bad argument, or a message shorter than 68 bytes
constexpr int QOR_SWP_EFULL = 2;     // the queue already holds `size` messages
constexpr int QOR_SWP_EFAILED = 3;   // the queue has failed: its peer stopped acknowledging
constexpr int QOR_SWP_ENORES = 4;    // no room for another queue
constexpr int QOR_SWP_ENOQUEUE = 5;  // no such queue

// Results of the receiver checks.
constexpr int QOR_SWP_SEQ_OK = 0;       // the expected sequence: apply the message
constexpr int QOR_SWP_SEQ_GAP = 1;      // a later sequence: some message was lost; drop this one
constexpr int QOR_SWP_SEQ_NOLIST = 3;   // no such expected-sequence list
constexpr int QOR_SWP_SEQ_NOSLOT = 4;   // the list has no slot for another sender queue
constexpr int QOR_SWP_SEQ_REPEAT = 6;   // already applied: drop it
// -1: the message is shorter than the SWP header (mlen < 68); nothing was acknowledged.

// Errors of a queue (qorSwpGetErr, and the error callback's second argument).
constexpr uint32_t QOR_SWP_ERR_NONE = 0;
constexpr uint32_t QOR_SWP_ERR_PEER = 16;  // retransmissions ran out: the peer is gone or stuck

// qorSwpGetQueueStatus.
constexpr uint32_t QOR_SWP_STATUS_ACTIVE = 0;
constexpr uint32_t QOR_SWP_STATUS_FAILED = 0xFFFFFFFFu;  // also for a queue that does not exist

// The acknowledgement: an IPC header with mtype MT_SWP_ACK, then these words.
constexpr size_t SWP_OFF_ACK_WORD = 68;  // the acknowledged message's word at offset 12
constexpr size_t SWP_OFF_ACK_KIND = 72;  // why it was sent: QOR_SWP_ACK_*
constexpr uint32_t QOR_SWP_ACK_LEN = 76;
constexpr uint32_t QOR_SWP_ACK_INORDER = 0;
constexpr uint32_t QOR_SWP_ACK_REPEAT = 1;  // a message already applied came again
constexpr uint32_t QOR_SWP_ACK_GAP = 2;     // a message arrived after a missing one

// Timer defaults: the first retransmission after 100 ticks (1 s), each next round waits twice
// as long up to 4 times the first; 6 rounds without progress fail the queue, so a silent peer
// is given up 1 + 2 + 4 + 4 + 4 + 4 + 4 = 23 seconds after its last acknowledgement.
constexpr uint32_t QOR_SWP_DEFAULT_RTO_TICKS = 100;
constexpr uint32_t QOR_SWP_DEFAULT_MAX_RETRIES = 6;
constexpr uint32_t QOR_SWP_MAX_BACKOFF = 4;

// ---- Sender -----------------------------------------------------------------------------

// Makes a queue from `key` (its request queue is the source of the data and the destination
// of the acks) to the peer's request queue. `window` messages may be unacknowledged, `size`
// held in all. rtoTicks and maxRetries: 0 takes the defaults above. `svce`, `inst`, `evkey`
// and the flags are recorded in the control block. `pipe` is the SWP pipe that wakes the
// owner for this queue's timers (-1: the owner calls qorSwpRunTimers itself).
// 0 and *queue set, or QOR_SWP_EPARAM / QOR_SWP_ENORES.
int qorSwpQueueCreate_p(uint32_t evkey, uint32_t flags, uint32_t window, uint32_t size,
                        uint32_t svce, uint32_t inst, int key, uint32_t peerSvce,
                        uint32_t peerInst, uint32_t rtoTicks, uint32_t maxRetries,
                        uint32_t reserved, QorSwpFreeFn freeFn, QorSwpErrFn errCb,
                        uint32_t *queue, int pipe);
// The multi-window form, for download queues that move much more than they hold back: the
// window on the wire is `window` times a multiplier that starts at minMult, grows by one each
// time a whole window is acknowledged without a retransmission, up to maxMult, and falls back
// to minMult on every retransmission round. The daemon's download queue (10, 1, 8) thus runs
// between 10 and 80 messages in flight. minMult >= 1, maxMult >= minMult.
int qorMwpQueueCreate_p(uint32_t evkey, uint32_t flags, uint32_t window, uint32_t size,
                        uint32_t svce, uint32_t inst, int key, uint32_t peerSvce,
                        uint32_t peerInst, uint32_t rtoTicks, uint32_t maxRetries,
                        uint32_t reserved, QorSwpFreeFn freeFn, QorSwpErrFn errCb,
                        uint32_t *queue, uint32_t minMult, uint32_t maxMult, int pipe);

// Takes msg (len bytes, 68 <= len <= 8192). On success the queue owns it: it writes the IPC
// header's mlen, source and target fields, the queue handle at 60 and the sequence at 64, and
// sends it at once if the window allows. On failure the caller keeps the message.
int qorSwpEnqueue(uint32_t queue, void *msg, uint32_t len);
// Handles an MT_SWP_ACK (its mlen must be at least 68): releases every message of the queue
// up to the acknowledged sequence through the free function, and sends what the window now
// allows. *buffer is set to null: released messages have already gone to the free function.
// 0, or -1 for a short or foreign acknowledgement, an unknown queue, or a sequence never sent.
int qorSwpDequeue(const void *ackMsg, void **buffer);
// Frees every held message and starts the queue over: sequence 1, no failure. For a peer
// that has itself started over and expects sequence 1 again. 0 or QOR_SWP_ENOQUEUE.
int qorSwpQueueFlush(uint32_t queue);
// Frees every held message and forgets the queue. 0 or QOR_SWP_ENOQUEUE.
int qorSwpQueueRemove(uint32_t queue);
// Messages held: on the wire unacknowledged plus waiting. -1 for an unknown queue.
int qorSwpQueueGetLen(uint32_t queue);
uint32_t qorSwpGetQueueStatus(uint32_t queue);
uint32_t qorSwpGetErr(uint32_t queue);

struct QorSwpCtrlBlock {
  uint32_t queue;
  uint32_t evkey;
  uint32_t svce, inst;        // owner, as given at creation
  uint32_t ipcSvce, ipcInst;  // the peer
  int key;
  uint32_t window, size;
  uint32_t minMult, maxMult, mult;  // 1, 1, 1 for a single-window queue
  uint32_t rtoTicks, maxRetries;
  uint32_t status, err;
  uint32_t nextSeq;   // the sequence the next accepted message gets
  uint32_t ackedSeq;  // the highest acknowledged
  uint32_t held, inFlight;
  uint32_t retries;   // rounds since the last progress
  uint64_t sent, retransmitted, released, acks, dupAcks;
};
// A copy of the queue's control block. 0, or QOR_SWP_ENOQUEUE.
int qorSwpGetQueueCtrlBlock(uint32_t queue, QorSwpCtrlBlock *out);

// Header fields of a sequenced message (no length check: callers hold a whole header).
uint32_t qorSwpGetQueue(const void *msg);
uint32_t qorSwpGetSeqNo(const void *msg);

// ---- Receiver ---------------------------------------------------------------------------

// Checks msg's sequence against *expected (0 counts as 1) and acknowledges it from reqQ to
// the endpoint in the message's source fields. The expected sequence: *expected advances and
// the ack names it (QOR_SWP_SEQ_OK). Below it: the ack names expected - 1, repairing a lost
// ack (QOR_SWP_SEQ_REPEAT). Above it: the ack names expected - 1 as a duplicate marked GAP,
// which makes the sender retransmit at once instead of after its time-out (QOR_SWP_SEQ_GAP).
// The ack's word at 68 is the message's word at offset 12. -1 for mlen < 68.
// How an ack meets a sender whose socket is full: see qorSwpAckNoWait.
int qorSwpCkSeqAndAck(const void *msg, uint32_t *expected, int reqQ);

// Held acknowledgements. A receiver that reads a burst of messages from one sender need not
// answer each: acks are cumulative, and each one sent costs a datagram and, usually, the
// sender's wake-up. While holding is on, an in-order ack is kept, the latest per sender queue,
// and goes out when that queue has QOR_SWP_ACK_HOLD_MAX kept, at qorSwpAckFlush, or when
// holding is turned off. Any other ack (a repeat or a gap) first sends what its queue kept.
// The receiver flushes before it blocks or waits for anyone, and at the end of each burst, so
// a sender's window never waits on an ack held back for long. Off by default.
constexpr unsigned QOR_SWP_ACK_HOLD_MAX = 8;
void qorSwpAckHold(bool on);
void qorSwpAckFlush();

// Acks that never wait. By default an ack to a sender whose socket is full waits for room as
// any send does (up to the IPC send wait), which suits a client whose only sender is a daemon
// that reads promptly. A daemon serving many senders turns this on so that one sender that
// stops reading cannot stall it: an ack turned back is kept, the latest per sender queue, and
// tried again ahead of that queue's next ack, at qorSwpAckFlush and at every timer round
// (qorSwpRunTimers; the SWP pipe is made readable every 10 ms while one is kept).
void qorSwpAckNoWait(bool on);
// Acks kept because their sender's socket was full.
size_t qorSwpAcksTurnedBack();
// As qorSwpAckFlush, but waiting for room as a plain send does: for a client that has taken
// all that arrived and has nothing better to do than let its sender go on.
void qorSwpAckFlushWaiting();

// An expected-sequence list: one expected sequence per sender queue handle, for a peer that
// sends on several queues. A handle seen for the first time takes a free slot starting at
// firstSeq; when all `count` slots are taken, a message with sequence 1 (a new sender queue)
// takes the slot used least recently. 0 and *handle set, or QOR_SWP_EPARAM / QOR_SWP_ENORES.
int qorSwpQListCreateExpSeqList(uint32_t *handle, uint32_t count, uint32_t firstSeq = 1);
int qorSwpQListRemoveExpSeqList(uint32_t handle);
// As qorSwpCkSeqAndAck with the expected sequence of the message's queue handle.
int qorSwpQListCkSeqAndAck(const void *msg, uint32_t handle, int reqQ);

// ---- Timers and the pipe ----------------------------------------------------------------

// A pipe that becomes readable while some queue has timer work (a retransmission due, or a
// message the peer's full socket turned back). `name` is recorded only. Descriptor or -1.
int qorSwpCreatePipe(const char *name, int flags = 0);
// Drains the pipe and runs the timers. 0, or -1 for a descriptor that is not an SWP pipe.
int qorSwpReadPipe(int fd);
int qorSwpClosePipe(int fd);
// Runs every queue's timers now: sends what a full peer turned back, and retransmits where
// the time-out has passed (calls error callbacks of queues that fail).
void qorSwpRunTimers();

// ---- Tests ------------------------------------------------------------------------------

// Every ack about to be sent is offered to the filter; false drops it (a lost ack).
using QorSwpAckFilter = bool (*)(const uint8_t *ack, uint32_t len);
void qorSwpSetAckFilter(QorSwpAckFilter filter);
// Removes every queue (freeing held messages) and list, closes the pipes, stops the helper.
void qorSwpReset();
