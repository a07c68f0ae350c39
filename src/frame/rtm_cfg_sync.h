// Mirroring a configuration change to the standby route processor.
#pragma once

#include <cstdint>

#include "cfg/qor_cfg.h"

// Mirrors the line of `rec` (its "no " form when noCmd is set) to the peer's configuration
// store. A record marked not to be synced is left alone. 0, or 1 when the store refused it
// (event 0x148057).
int rtmCfgSyncData(int noCmd, uint32_t handle, qorCfgRecord rec, uint8_t curMode, uint16_t subSysType,
                   uint32_t subSysUnit);
