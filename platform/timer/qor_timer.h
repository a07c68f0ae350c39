// Ticks, delays and one-shot timers.
//
// All time in the daemon is read through qorTickGet. In service the clock follows
// CLOCK_MONOTONIC; a test switches it to a manual clock and advances it by hand, so a
// 30-second timer is tested in microseconds and no test ever depends on wall time.
#pragma once

#include <cstdint>

// Ticks per second of the clock.
constexpr int RTM_CLK_RATE = 100;
int sysClkRateGet();

// The 64-bit tick count since the clock started.
uint64_t qorTickGet();
uint64_t qortick_to_sec(uint64_t ticks);

// Sleeps for `ticks` (on the manual clock: advances it instead and fires what expired).
int taskDelay(int ticks);
// Identity of the calling task, for mtransCode.
uint32_t taskIdSelf();

// Test control of the clock.
void qorClockUseManual(bool manual);
bool qorClockIsManual();
// Advances the manual clock by `ticks` and fires the timers that expired.
void qorClockAdvance(uint64_t ticks);
