#include "static/rtm_static.h"

#include "frame/rtm_worker.h"

void rtmStaticThreadEntry(void *) { rtmWorkerIdleLoop(); }
void rtmMstaticThreadEntry(void *) { rtmWorkerIdleLoop(); }
void rtmStaticInit(uint32_t) {}
void rtmMstaticInit() {}
int rtmMstaticRadicalRefAllocate(uint32_t) { return 0; }
void rtmStaticBfdInit() {}
