// The TIC timer decides when the default-information thread runs: at most once per change
// when the timer has lapsed (rtmTicValidatation at the end of each message), and otherwise at
// the next expiry.
#include "frame/rtm_frame.h"
#include "frame/rtm_worker.h"
#include "log/qor_log.h"
#include "poller/rtm_poll.h"
#include "redist/rtm_redist.h"
#include "timer/qor_timer.h"

volatile uint8_t rtmTicRestart[4 * MAX_VRF];
uint32_t rtmTicTimer;
uint32_t rtmTicTimerArg;

namespace {
constexpr uint32_t kTicSeconds = 30;
constexpr uint8_t kTicRows[] = {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX};
}  // namespace

void rtmTicMain(void *) { rtmWorkerIdleLoop(); }

void rtmClearTicThread(uint8_t afIndex, uint32_t vrfId) {
  volatile uint8_t &flag = rtmTicRestart[afIndex * MAX_VRF + vrfId];
  rtmWaitWorkerSuspended(rtmThreadTic, flag);
  flag = 0;
}

int rtmTicRadicalRefAllocate(uint32_t) { return 0; }

void rtmTicInit() {
  for (uint8_t af : kTicRows)
    for (uint32_t v = 0; v < MAX_VRF; ++v) {
      rtmTicUpdate[af][v] = 1;
      rtmTicWake[af][v] = 0;
    }
  rtmTicTimerArg = 0;
  rtmTicTimer = vx2bsdTimerCreate();
}

void rtmTicResetTimer() {
  vx2bsdTimerCancel(rtmTicTimer);
  vx2bsdTimerStart(rtmTicTimer, kTicSeconds, rtmTicTimeoutCB, &rtmTicTimerArg, 0);
}

void rtmTicTimeoutCB(void *arg) {
  if (arg) ++*static_cast<uint32_t *>(arg);
  bool work = false;
  for (uint8_t af : kTicRows)
    for (uint32_t v = 0; v < MAX_VRF; ++v) {
      if (rtmTicUpdate[af][v]) {
        rtmTicUpdate[af][v] = 0;
        rtmTicWake[af][v] = 0;
        work = true;
      } else {
        rtmTicWake[af][v] = 1;
      }
    }
  if (rtmRecurFailPending()) {
    rtmCheckAndProcCyclicalRoute();
    work = true;
  }
  if (work) {
    rtmTicResetTimer();
    qorThreadResume(rtmThreads, rtmThreadTic);
  }
}

void rtmTicValidatation() {
  for (uint8_t af : kTicRows)
    for (uint32_t v = 0; v < MAX_VRF; ++v)
      if (rtmTicUpdate[af][v] && rtmTicWake[af][v]) {
        rtmTicUpdate[af][v] = 0;
        rtmTicWake[af][v] = 0;
        rtmTicResetTimer();
        qorThreadResume(rtmThreads, rtmThreadTic);
        return;
      }
}
