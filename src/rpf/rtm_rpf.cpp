#include "rpf/rtm_rpf.h"

void rtmRpfNhInit(uint32_t) {}
