#include "vrf/rtm_vrf.h"

#include "frame/rtm_worker.h"

void rtmRouteLeakThread(void *) { rtmWorkerIdleLoop(); }
void rtm_rtleak_cleaversion(uint32_t, uint8_t) {}
int rtmVrfCacheAllocate(uint32_t) { return 0; }
void rtmRtleakInit() {}
