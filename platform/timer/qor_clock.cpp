#include <atomic>
#include <ctime>
#include <unistd.h>

#include "timer/qor_timer.h"

namespace {
std::atomic<bool> g_manual{false};
std::atomic<uint64_t> g_manualTicks{0};

// The coarse clock: a tick is 10 ms and the coarse clock moves every millisecond or so, and it
// is read from memory without a time-stamp read (which a virtual machine may trap), so the
// route path can stamp every route without it showing.
uint64_t monotonicTicks() {
  static const uint64_t start = [] {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
  }();
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  uint64_t ns = static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
  return (ns - start) / (1000000000ull / RTM_CLK_RATE);
}
}  // namespace

// Defined with the timers: their background thread sleeps on whichever clock is in use.
void qorTimerClockChanged();

int sysClkRateGet() { return RTM_CLK_RATE; }
uint64_t qorTickGet() { return g_manual ? g_manualTicks.load() : monotonicTicks(); }
uint64_t qortick_to_sec(uint64_t ticks) { return ticks / RTM_CLK_RATE; }

int taskDelay(int ticks) {
  if (ticks <= 0) return 0;
  if (g_manual) {
    qorClockAdvance(static_cast<uint64_t>(ticks));
    return 0;
  }
  usleep(static_cast<useconds_t>(ticks) * (1000000u / RTM_CLK_RATE));
  return 0;
}

uint32_t taskIdSelf() { return static_cast<uint32_t>(getpid()); }

void qorClockUseManual(bool manual) {
  if (manual && !g_manual) g_manualTicks = monotonicTicks();
  g_manual = manual;
  qorTimerClockChanged();
}
bool qorClockIsManual() { return g_manual; }
void qorClockAdvance(uint64_t ticks) {
  g_manualTicks += ticks;
  qorTimerFireExpired();
}
