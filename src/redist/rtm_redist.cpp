#include "redist/rtm_redist.h"

#include "frame/rtm_worker.h"

volatile uint8_t rtmRedistRestart[MAX_VRF * 3];

void rtmRedistMain(void *) { rtmWorkerIdleLoop(); }

void rtmClearRedistThread(uint32_t vrfId, uint8_t afIndex) {
  volatile uint8_t &flag = rtmRedistRestart[vrfId * 3 + afIndex];
  rtmWaitWorkerSuspended(78, flag);
  flag = 0;
}

void rtmInitIsisTagInstTbl(int32_t) {}
void rtmRedistIbgpInit() {}

bool rtmRedistMemCkZero(const uint8_t *redlist, unsigned len, uint32_t, uint8_t) {
  // No VRF imports routes yet, so the client bitmap alone decides.
  for (unsigned i = 0; i < len; ++i)
    if (redlist[i]) return false;
  return true;
}
