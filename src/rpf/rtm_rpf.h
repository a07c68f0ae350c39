// The reverse-path tables of multicast.
#pragma once

#include <cstdint>

void rtmRpfNhInit(uint32_t vrfId);
