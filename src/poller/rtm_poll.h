// The poller: recursive next-hop resolution for registered clients.
#pragma once

#include <cstdint>

extern volatile uint8_t rtmPollRestart[3];

void rtmPollMain(void *arg);
void rtmClearPollThread(uint32_t vrfId, uint8_t afIndex);
int rtmPollRadicalRefAllocate(uint32_t vrfId);
void rtmPollRibClear(uint8_t afIndex, uint32_t vrfId);
// Routes whose recursion failed wait on a list that the TIC timer rechecks.
bool rtmRecurFailPending();
void rtmCheckAndProcCyclicalRoute();
