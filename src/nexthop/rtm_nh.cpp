#include "nexthop/rtm_nh.h"

void rtmNhInit(uint32_t) {}
