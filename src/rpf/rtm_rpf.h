// The reverse-path tables of multicast.
#pragma once

#include <cstdint>

void rtmRpfNhInit(uint32_t vrfId);

struct rt_client;
// Frees every next hop of the reverse-path tables of a VRF and family.
void rtmRpfNhDeleteAll(uint8_t afIndex, uint32_t vrfId);
// A client's routes leave the reverse-path tables.
void rtmRpfClearAllProtoRoutes(uint8_t afIndex, rt_client *rtc);
void rtmRpfClearVrfProtoRoutes(uint8_t afIndex, rt_client *rtc, uint32_t vrfId);
