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
