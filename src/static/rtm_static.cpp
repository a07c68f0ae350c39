#include "static/rtm_static.h"

#include "frame/rtm_worker.h"

void rtmStaticThreadEntry(void *) { rtmWorkerIdleLoop(); }
void rtmMstaticThreadEntry(void *) { rtmWorkerIdleLoop(); }
void rtmStaticInit(uint32_t) {}
void rtmMstaticInit() {}
int rtmMstaticRadicalRefAllocate(uint32_t) { return 0; }
void rtmStaticBfdInit() {}
void rtmClearStaticRoutes(uint32_t, uint8_t) {}
void rtmClearMstaticRoutes(uint32_t, uint8_t) {}
void rtmClearStaticRouteSpecific(uint32_t, uint8_t, const uint8_t *, uint8_t) {}
int rtmClearLeakedStaticRoutes(uint32_t, uint8_t) { return 0; }
void mstaticUpdProtDependentRoutes(uint32_t) {}
