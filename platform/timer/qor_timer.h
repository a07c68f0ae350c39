// Ticks, delays and one-shot timers.
//
// All time in the daemon is read through qorTickGet. In service the clock follows
// CLOCK_MONOTONIC; a test switches it to a manual clock and advances it by hand, so a
// 30-second timer is tested in microseconds and no test ever depends on wall time.
#pragma once

#include <cstddef>
#include <cstdint>

// Ticks per second of the clock.
constexpr int RTM_CLK_RATE = 100;
int sysClkRateGet();

// The 64-bit tick count since the clock started.
uint64_t qorTickGet();
uint64_t qortick_to_sec(uint64_t ticks);

// Sleeps for `ticks` (on the manual clock: advances it instead and fires what expired).
int taskDelay(int ticks);
// Identity of the calling task, for mtransCode.
uint32_t taskIdSelf();

// Test control of the clock.
void qorClockUseManual(bool manual);
bool qorClockIsManual();
// Advances the manual clock by `ticks` and fires the timers that expired.
void qorClockAdvance(uint64_t ticks);

// ---- One-shot timers ----
//
// A timer is armed with vx2bsdTimerStart for a number of seconds of the tick clock; when the
// deadline passes it fires once. Firing does not call the callback: it makes an expiry message
// and hands it to the expiry sink, which the daemon's IPC layer points at its timer queue, so
// the callback later runs on the main task from the message loop like any other handler
// (qorTimerRunExpiry). The message names the timer and the generation of the arming, so an
// expiry that was already on its way when the timer was cancelled, re-armed or deleted is
// dropped.
//
// Who fires: on the manual clock, qorClockAdvance (and taskDelay) on the calling thread; on the
// real clock, a background thread that sleeps until the next deadline. The sink is called from
// that context. Without a sink the callback itself runs there, directly: fine for unit tests,
// wrong for the daemon on the real clock, whose callbacks must not run beside the main task.

using vx2bsdTimer_t = uint32_t;  // 0 is no timer
using QorTimerCallback = void (*)(void *arg);

// Creates a disarmed timer. Returns its handle (never reused), or 0.
vx2bsdTimer_t vx2bsdTimerCreate();
// Arms the timer to fire once, `seconds` from now (0: at the next firing opportunity, never
// inside this call). Starting an armed timer re-arms it: only the new deadline counts.
// `flags` is accepted and ignored. Returns 0, or -1 for an unknown timer or a null callback.
int vx2bsdTimerStart(vx2bsdTimer_t timer, uint32_t seconds, QorTimerCallback callback, void *arg,
                     int flags);
// Disarms; an expiry already sent will not run the callback. Returns 0, or -1 if unknown.
int vx2bsdTimerCancel(vx2bsdTimer_t timer);
// Disarms and forgets the timer. Returns 0, or -1 if unknown.
int vx2bsdTimerDelete(vx2bsdTimer_t timer);

// True while the timer is armed: started and its callback not yet run (an expiry may be on
// its way).
bool qorTimerIsArmed(vx2bsdTimer_t timer);

// The expiry message: an IPC header (mlen = QOR_TIMER_EXPIRY_LEN, mtype = MT_RTM_IGNORED's
// code, all else 0) and a payload of a marker word, the timer handle and the 64-bit arming
// generation. Its type makes the dispatcher drop it silently should it ever get past the
// timer-queue reader.
constexpr uint32_t QOR_TIMER_EXPIRY_MTYPE = 0x07D7;
constexpr uint32_t QOR_TIMER_EXPIRY_MAGIC = 0x514D5452;  // "QMTR"
constexpr size_t QOR_TIMER_OFF_MAGIC = 60;
constexpr size_t QOR_TIMER_OFF_HANDLE = 64;
constexpr size_t QOR_TIMER_OFF_GEN = 68;
constexpr uint32_t QOR_TIMER_EXPIRY_LEN = 76;

using QorTimerSink = void (*)(void *ctx, const uint8_t *msg, uint32_t len);
// Where expiry messages go; nullptr runs callbacks directly in the firing context.
void qorTimerSetExpirySink(QorTimerSink sink, void *ctx);
// True for an expiry message that has not been run yet.
bool qorTimerIsExpiryMsg(const uint8_t *msg, size_t len);
// Runs the callback if the timer is still armed with the message's generation, then rewrites
// mtype to QOR_TIMER_EXPIRY_MTYPE and clears the marker, so the message is neither run twice
// nor seen by any handler. Returns 1 when the callback ran, 0 for a stale expiry, -1 when the
// bytes are not an expiry message.
int qorTimerRunExpiry(uint8_t *msg, size_t len);

// Fires every armed timer whose deadline has passed (the clock calls this).
void qorTimerFireExpired();
// Tests: deletes every timer, clears the sink and stops the background thread.
void qorTimerReset();
