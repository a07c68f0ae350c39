// Filter state, flushes and clears of clients.
#include "clients/rtm_client.h"

uint32_t rtmDownloadBgpRoutesToIpm1[3];
uint32_t rtmExpClrRteKey[3][MAX_VRF];

void rtmClientFlushInit() {}
