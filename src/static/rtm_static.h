// Static and multicast static routes.
#pragma once

#include <cstdint>

void rtmStaticThreadEntry(void *arg);
void rtmMstaticThreadEntry(void *arg);
void rtmStaticInit(uint32_t vrfId);
void rtmMstaticInit();
int rtmMstaticRadicalRefAllocate(uint32_t vrfId);
void rtmStaticBfdInit();
// After a clear of a VRF's RIB: the static routes are evaluated afresh and installed again.
void rtmClearStaticRoutes(uint32_t vrfId, uint8_t afIndex);
void rtmClearMstaticRoutes(uint32_t vrfId, uint8_t afIndex);
// After a clear of one prefix: the static route of that prefix is removed and evaluated again.
void rtmClearStaticRouteSpecific(uint32_t vrfId, uint8_t afIndex, const uint8_t *addr, uint8_t plen);
// Static routes of other VRFs that lean on this one register their next hops again. 0 or 1.
int rtmClearLeakedStaticRoutes(uint32_t vrfId, uint8_t afIndex);
// Re-marks the multicast static routes of a VRF whose protocol dependence may have changed.
void mstaticUpdProtDependentRoutes(uint32_t vrfId);
