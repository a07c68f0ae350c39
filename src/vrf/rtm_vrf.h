// VRFs and route leaking between them.
#pragma once

#include <cstdint>

void rtmRouteLeakThread(void *arg);
void rtm_rtleak_cleaversion(uint32_t vrfId, uint8_t afIndex);
int rtmVrfCacheAllocate(uint32_t vrfId);
void rtmRtleakInit();
