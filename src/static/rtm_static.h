// Static and multicast static routes.
#pragma once

#include <cstdint>

void rtmStaticThreadEntry(void *arg);
void rtmMstaticThreadEntry(void *arg);
void rtmStaticInit(uint32_t vrfId);
void rtmMstaticInit();
int rtmMstaticRadicalRefAllocate(uint32_t vrfId);
void rtmStaticBfdInit();
