// Pieces the library's two halves share; not part of the interface.
#pragma once

#include <cstdint>

namespace rtmclient {
// A transaction code no earlier exchange of this endpoint used.
uint32_t nextTransCode();
// Points the message's target fields at rtmd's request queue and gives it a fresh transaction
// code. False when no rtmd holds its endpoint in the run directory.
bool addressToRtmd(uint8_t *msg);
}  // namespace rtmclient
