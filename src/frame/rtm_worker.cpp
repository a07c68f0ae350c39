#include "frame/rtm_worker.h"

#include "frame/rtm_frame.h"

void rtmWaitWorkerSuspended(int threadId, volatile uint8_t &flag) {
  flag = 1;
  // The worker sees the flag at its next turn, drops its walk and suspends; until then the
  // caller lends it the processor. A bad id reads as non-zero, so this cannot spin forever.
  while (rtmThreads > 0 && qorThreadIsSuspended(rtmThreads, threadId) == 0) qorThreadYield(rtmThreads);
}

void rtmWorkerIdleLoop() {
  for (;;) qorThreadSuspendSelf(rtmThreads);
}
