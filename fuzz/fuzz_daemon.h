// What every fuzz target shares: the daemon brought up in-process in a private run directory,
// and brought up afresh every so many inputs so that the tables stay small and each stretch of
// inputs starts from a known state.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rtmfuzz {

// Brings the daemon up (or back up after `every` inputs, or after RTM_FUZZ_RESET_EVERY when
// that is set); call first in each input. `beforeReset` runs before the daemon is torn down, so
// that a target can close what it opened against the old one. True when the daemon is fresh.
bool daemonForInput(unsigned every, void (*beforeReset)() = nullptr);
// Makes client `cid` of the family active with that protocol, served in VRF 0 (and vrfId).
void activeClient(uint8_t af, uint32_t cid, uint32_t proto, uint32_t vrfId = 0);

}  // namespace rtmfuzz

// The engine's entry points (libFuzzer, or the standalone driver).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
