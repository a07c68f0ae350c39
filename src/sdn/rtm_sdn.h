// Group and layer-3 interface records relayed to the FIB.
#pragma once

void rtmOfmInit();
