#include "sdn/rtm_sdn.h"

void rtmOfmInit() {}
