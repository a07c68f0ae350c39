// The interface table and the registration with the interface manager (IFM).
#pragma once

#include <cstdint>

// Layout of the registration message (type 10802, 2632 bytes), after the IPC header:
// the registrant's service, RTM's address triple, then a bit mask of the notification types
// wanted: type n is bit (n & 7) of byte (n >> 3) of the mask.
constexpr uint32_t IFM_REG_MSG_LEN = 2632;
constexpr uint32_t IFM_REG_OFF_SVCE = 60;
constexpr uint32_t IFM_REG_OFF_SLOT = 64;
constexpr uint32_t IFM_REG_OFF_CARD = 68;
constexpr uint32_t IFM_REG_OFF_QUEUE = 72;
constexpr uint32_t IFM_REG_OFF_MASK = 80;
constexpr uint32_t IFM_REG_MASK_LEN = IFM_REG_MSG_LEN - IFM_REG_OFF_MASK;

// Sets the bit of notification `type` in a registration mask.
void ifmSetPerSvcTypeMasks(uint8_t *mask, uint32_t type);
bool ifmTestPerSvcTypeMask(const uint8_t *mask, uint32_t type);

// The interface manager's type of an interface: 20 loopback, 19 always up, 21 null; 0 for an
// interface nobody has told us of. Until the interface table lands this is a small stand-in
// table that the interface feeder and tests fill.
uint32_t ifmIfIndexToIfType(uint32_t ifindex);
void ifmSetIfIndexType(uint32_t ifindex, uint32_t type);
void ifmClearIfIndexTypes();

void rtmIfInit();
// After a clear of a VRF's RIB: the routes of its interfaces are added again.
void rtmClearConnRoutes(uint32_t vrfId, uint8_t afIndex);
int rtmIfmRegister();
int halRtmInit();
