// Bulk clearing of the RIB.
#include "clients/rtm_client.h"
#include "rib/rtm_rib.h"

void rtmClearVrfProtoRoutes(uint8_t, rt_client *, uint32_t) {}
void rtmClearAllProtoRoutes(uint8_t, rt_client *) {}
void rtmClearRib(uint8_t, uint32_t) {}
void rtmClearRibRouteSpecific(uint8_t, uint32_t, const uint8_t *, uint8_t) {}
void rtmClearDownloadBit(uint8_t, rt_client *) {}
uint32_t rtmGetConnectedRouteIfindex(uint8_t, const uint8_t *, uint32_t) { return 0; }
void rtmClearInit() {}
