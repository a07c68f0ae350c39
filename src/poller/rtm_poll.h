// The poller: recursive next-hop resolution for registered clients.
#pragma once

#include <cstdint>

#include "rtm/rtm_types.h"

extern volatile uint8_t rtmPollRestart[3];
// Per VRF and family: begin the next poll walk from the start of the change list. The
// download thread asks for it each time it goes idle.
extern uint32_t rtmPollWalkAllNodes[MAX_VRF][3];

void rtmPollMain(void *arg);
void rtmClearPollThread(uint32_t vrfId, uint8_t afIndex);
int rtmPollRadicalRefAllocate(uint32_t vrfId);
void rtmPollRibClear(uint8_t afIndex, uint32_t vrfId);
// After a clear of one prefix: registrations resolved through it are answered again.
void rtmClearPollResolutionForSpecificRoute(uint8_t afIndex, const uint8_t *addr, uint8_t plen);
// Routes whose recursion failed wait on a list that the TIC timer rechecks.
bool rtmRecurFailPending();
void rtmCheckAndProcCyclicalRoute();
