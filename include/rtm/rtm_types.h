// Constants and records shared by every part of the daemon and by its clients.
#pragma once

#include <cstdint>

#include "rtm/rtm_wire.h"

// Result words.
constexpr int RTM_SUCCESS = 0;
constexpr int RTM_FAILURE = 1;
constexpr int RTM_NO_MEMORY = 5;
constexpr int RTM_NH_REMOVED = 7;
constexpr int RTM_ROUTE_LIMIT = 12;

// Address families.
constexpr uint8_t RTM_IPV4UNI_AFINDEX = 0;
constexpr uint8_t IPV4MUL_AFINDEX = 1;
constexpr uint8_t RTM_IPV6UNI_AFINDEX = 2;
constexpr uint8_t RTM_IPV6MUL_AFINDEX = 3;
constexpr uint8_t RTM_MAX_AFINDEX = 3;

// Bytes of an address of the family.
constexpr unsigned rtmAfAddrLen(unsigned afIndex) { return afIndex >= 2 ? 16 : 4; }
constexpr unsigned rtmAfKeyBits(unsigned afIndex) { return afIndex >= 2 ? 128 : 32; }

// VRFs and clients.
constexpr uint32_t MAX_VRF = 513;
constexpr uint32_t ALL_VRF_ID = 65535;
constexpr uint32_t MAX_RTM_CLEINTS = 64;

// Service numbers.
constexpr uint32_t RTM_SVCE = 76;
constexpr uint32_t IFM_TASK_ID = 138;
