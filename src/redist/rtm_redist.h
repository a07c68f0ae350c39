// Redistribution to protocols, and default information (the TIC thread and its timer).
#pragma once

#include <cstdint>

#include "rtm/rtm_types.h"

extern volatile uint8_t rtmRedistRestart[MAX_VRF * 3];
extern volatile uint8_t rtmTicRestart[4 * MAX_VRF];

void rtmRedistMain(void *arg);
void rtmClearRedistThread(uint32_t vrfId, uint8_t afIndex);
void rtmInitIsisTagInstTbl(int32_t pkey);
void rtmRedistIbgpInit();

// The TIC timer: one timer serves all VRFs.
extern uint32_t rtmTicTimer;
extern uint32_t rtmTicTimerArg;
void rtmTicMain(void *arg);
void rtmClearTicThread(uint8_t afIndex, uint32_t vrfId);
void rtmTicInit();
void rtmTicResetTimer();
void rtmTicTimeoutCB(void *arg);
void rtmTicValidatation();
int rtmTicRadicalRefAllocate(uint32_t vrfId);
// Whether a head without an active route may be freed: no client holds it (every byte of
// its client bitmap `redlist`, `len` bytes, is zero) and no importing VRF holds it.
bool rtmRedistMemCkZero(const uint8_t *redlist, unsigned len, uint32_t vrfId, uint8_t afIndex);
