// The next-hop database.
#pragma once

#include <cstdint>

void rtmNhInit(uint32_t vrfId);
