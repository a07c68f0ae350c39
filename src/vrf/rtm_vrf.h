// VRFs and route leaking between them.
#pragma once

#include <cstdint>

#include "rtm/rtm_types.h"

// Per-VRF configuration kept across the VRF's life: the route limits among it.
struct rt_vrf_cache {
  uint32_t vrfId;             // own id; a record whose id differs from its index does not exist yet
  uint32_t max_routes[2];     // limit per family: 0 IPv4, 1 IPv6
  uint16_t vlanStart;         // VRF VLAN start value
  char name[33];
  uint8_t warn_threshold[2];  // percent of the limit at which a warning is given
  uint8_t max_route_set[2];   // 1 if the limit is configured
  uint8_t warning_only[2];    // 1 if passing the limit only warns
  uint32_t delete_in_progress;
  uint32_t ifm_ack_pending;
};

extern rt_vrf_cache *rtmVrfCache[MAX_VRF];
// VRFs made by notification (VRF 0 is not counted).
extern uint32_t g_rtmVrfCount;

void rtmRouteLeakThread(void *arg);
void rtm_rtleak_cleaversion(uint32_t vrfId, uint8_t afIndex);
struct rt_head;
struct qor_radix_tree;
// A head of an exporting VRF is being freed by a clear: importers withdraw their copies.
void rtm_rtleak_clear_exported_route(rt_head *head, uint32_t vrfId, qor_radix_tree *tree, uint8_t afIndex);
// An imported entry is being freed by a clear (`flags` is its rte_leak).
void rtm_rtleak_clear_imported_route(rt_head *head, uint32_t vrfId, uint8_t afIndex, uint32_t flags);
// Makes the VRF's cache record (cleared, its id set); 0, or 1 when there is no memory.
int rtmVrfCacheAllocate(uint32_t vrfId);
void rtmVrfCacheDeAllocate(uint32_t vrfId);
void rtmRtleakInit();
// Back to a clean start (tests): frees every cache record.
void rtmVrfReset();
