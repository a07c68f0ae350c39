#include "rpf/rtm_rpf.h"

void rtmRpfNhInit(uint32_t) {}
void rtmRpfNhDeleteAll(uint8_t, uint32_t) {}
void rtmRpfClearAllProtoRoutes(uint8_t, rt_client *) {}
void rtmRpfClearVrfProtoRoutes(uint8_t, rt_client *, uint32_t) {}
