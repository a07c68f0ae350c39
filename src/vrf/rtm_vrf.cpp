#include "vrf/rtm_vrf.h"

#include <cstring>

#include "frame/rtm_mem.h"
#include "frame/rtm_worker.h"

rt_vrf_cache *rtmVrfCache[MAX_VRF];
uint32_t g_rtmVrfCount;

void rtmRouteLeakThread(void *) { rtmWorkerIdleLoop(); }
void rtm_rtleak_cleaversion(uint32_t, uint8_t) {}
void rtm_rtleak_clear_exported_route(rt_head *, uint32_t, qor_radix_tree *, uint8_t) {}
void rtm_rtleak_clear_imported_route(rt_head *, uint32_t, uint8_t, uint32_t) {}

int rtmVrfCacheAllocate(uint32_t vrfId) {
  if (vrfId >= MAX_VRF) return 1;
  if (!rtmVrfCache[vrfId]) {
    rtmVrfCache[vrfId] = static_cast<rt_vrf_cache *>(RTM_NONPOOL_ALLOC(sizeof(rt_vrf_cache), 0));
    if (!rtmVrfCache[vrfId]) return 1;
  }
  memset(rtmVrfCache[vrfId], 0, sizeof(rt_vrf_cache));
  rtmVrfCache[vrfId]->vrfId = vrfId;
  return 0;
}

void rtmVrfCacheDeAllocate(uint32_t vrfId) {
  if (vrfId >= MAX_VRF || !rtmVrfCache[vrfId]) return;
  RTM_NONPOOL_FREE(rtmVrfCache[vrfId]);
  rtmVrfCache[vrfId] = nullptr;
}

void rtmRtleakInit() {}

void rtmVrfReset() {
  for (uint32_t v = 0; v < MAX_VRF; ++v) rtmVrfCacheDeAllocate(v);
  g_rtmVrfCount = 0;
}
