#include "clients/rtm_client.h"

#include <cstring>

#include "frame/rtm_mem.h"

rt_client rt_client_tbl[3][MAX_RTM_CLEINTS];

void rtmClientInit() {}

rt_client *rtmClientGetByHandle(uint8_t afIndex, uint32_t cid) {
  if (afIndex != RTM_IPV4UNI_AFINDEX && afIndex != RTM_IPV6UNI_AFINDEX) return nullptr;
  if (cid >= MAX_RTM_CLEINTS) return nullptr;
  rt_client *rtc = &rt_client_tbl[afIndex][cid];
  return rtc->rtc_state == 1 ? rtc : nullptr;
}

rtClientVrfInfo *rtmClientGetVrfInfo(uint8_t afIndex, uint32_t cid, uint32_t vrfId) {
  rt_client *rtc = rtmClientGetByHandle(afIndex, cid);
  if (!rtc || vrfId >= MAX_VRF) return nullptr;
  return rtc->rtc_vrf[vrfId];
}

const char *rtmClientName(const rt_client *rtc, char (&buf)[41]) {
  memcpy(buf, rtc->rtc_name, 40);
  buf[40] = 0;
  return buf;
}

void rtmClientReset() {
  for (auto &row : rt_client_tbl)
    for (auto &rtc : row) {
      for (auto *&rvi : rtc.rtc_vrf)
        if (rvi) {
          rtmMemFreeNonPool(__FILE__, __LINE__, rvi);
          rvi = nullptr;
        }
      memset(&rtc, 0, sizeof rtc);
    }
}
