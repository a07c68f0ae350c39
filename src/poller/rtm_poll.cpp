#include "poller/rtm_poll.h"

#include "frame/rtm_worker.h"

volatile uint8_t rtmPollRestart[3];
uint32_t rtmPollWalkAllNodes[MAX_VRF][3];

void rtmPollMain(void *) { rtmWorkerIdleLoop(); }

void rtmClearPollThread(uint32_t, uint8_t afIndex) {
  rtmWaitWorkerSuspended(125, rtmPollRestart[afIndex]);
  rtmPollRestart[afIndex] = 0;
}

int rtmPollRadicalRefAllocate(uint32_t) { return 0; }
void rtmPollRibClear(uint8_t, uint32_t) {}
void rtmClearPollResolutionForSpecificRoute(uint8_t, const uint8_t *, uint8_t) {}
bool rtmRecurFailPending() { return false; }
void rtmCheckAndProcCyclicalRoute() {}
