// What every worker thread shares: the wait for a worker to rest before its walk is reset.
#pragma once

#include <cstdint>

// Raises `flag`, then yields until worker `threadId` has suspended itself, so its walk state
// can be reset without a walk in progress; the caller clears the flag once it has reset it.
// A worker that is not in the group (tests without threads) counts as suspended.
void rtmWaitWorkerSuspended(int threadId, volatile uint8_t &flag);

// The body of a worker that has nothing of its own to do yet: it rests until resumed.
[[noreturn]] void rtmWorkerIdleLoop();
