// OSPF qualifiers: which OSPF instances serve which VRF.
//
// One OSPF client may run instances in many VRFs while registered once for all of them, so
// redistribution asks the map before it sends a VRF's routes to an instance. Per family the
// map is a table of one list head per VRF, made when the first OSPF client of the family
// registers and dropped when an OSPF client that served every VRF leaves.
#include <cstring>

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "log/qor_log.h"
#include "rtm/rtm_wire.h"

rtm_ospf_qual **ospfMap, **ospfMap6;

namespace {
rtm_ospf_qual **&mapOf(uint8_t afIndex) { return afIndex == RTM_IPV6UNI_AFINDEX ? ospfMap6 : ospfMap; }
bool hasMap(uint8_t afIndex) {
  return (afIndex == RTM_IPV4UNI_AFINDEX || afIndex == RTM_IPV6UNI_AFINDEX) && mapOf(afIndex);
}
}  // namespace

// Made on the first OSPF registration of the family. 0, or 1 without memory.
int rtmClientMakeOspfMap(uint8_t afIndex) {
  rtm_ospf_qual **&map = mapOf(afIndex);
  if (map) return 0;
  map = static_cast<rtm_ospf_qual **>(RTM_VAR_ALLOC(RTM_MEM_TAG_OSPF_QUAL, MAX_VRF * sizeof(rtm_ospf_qual *)));
  return map ? 0 : 1;
}

void rtmClientFreeOspfMap(uint8_t afIndex) {
  rtm_ospf_qual **&map = mapOf(afIndex);
  if (!map) return;
  for (uint32_t v = 0; v < MAX_VRF; ++v)
    while (rtm_ospf_qual *q = map[v]) {
      map[v] = q->next;
      rtmVarMemFreeFromPool(q);
    }
  rtmVarMemFreeFromPool(map);
  map = nullptr;
}

void mapQualifier(uint32_t proto, uint32_t vrfId, const uint8_t *qualifier, uint8_t afIndex) {
  if (proto != RTM_PROTO_OSPF || !qualifier || vrfId >= MAX_VRF || !hasMap(afIndex)) return;
  auto *q = static_cast<rtm_ospf_qual *>(RTM_VAR_ALLOC(RTM_MEM_TAG_OSPF_QUAL, sizeof(rtm_ospf_qual)));
  if (!q) {
    qorSysErr(rtmevkey, 0, 0x148002, 0, "RTM: mapQualifier", vrfId);
    return;
  }
  q->instance = rtm::ld32(qualifier);
  rtm_ospf_qual *&head = mapOf(afIndex)[vrfId];
  q->next = head;
  head = q;
  qorThreadResume(rtmThreads, rtmThreadRedis);
}

namespace {
// Removes the instance's nodes from a VRF's list; true if any went.
bool removeInstance(uint8_t afIndex, uint32_t vrfId, uint32_t instance) {
  bool any = false;
  for (rtm_ospf_qual **p = &mapOf(afIndex)[vrfId]; *p;) {
    rtm_ospf_qual *q = *p;
    if (q->instance != instance) {
      p = &q->next;
      continue;
    }
    *p = q->next;
    rtmVarMemFreeFromPool(q);
    any = true;
  }
  return any;
}
}  // namespace

void unmapQualifier(uint32_t proto, uint32_t vrfId, const uint8_t *qualifier, uint8_t afIndex) {
  if (proto != RTM_PROTO_OSPF || !qualifier || vrfId >= MAX_VRF || !hasMap(afIndex)) return;
  uint32_t instance = rtm::ld32(qualifier);
  if (!removeInstance(afIndex, vrfId, instance)) return;
  // The VRF's routes redistributed to the instance go with the tie.
  if (rtmClientHooks.unmapQualifierEffects) rtmClientHooks.unmapQualifierEffects(afIndex, vrfId, instance);
  qorThreadResume(rtmThreads, rtmThreadRedis);
}

void clearAllQualifierForProto(uint32_t proto, uint32_t instance, uint32_t vrfId, uint8_t afIndex) {
  if (proto != RTM_PROTO_OSPF || vrfId >= MAX_VRF || !hasMap(afIndex)) return;
  removeInstance(afIndex, vrfId, instance);
}

int verifyQualifierVrfId(uint8_t afIndex, uint32_t proto, uint32_t vrfId, uint32_t instance) {
  if (proto != RTM_PROTO_OSPF || !hasMap(afIndex)) return 0;
  if (vrfId >= MAX_VRF) return 1;
  for (rtm_ospf_qual *q = mapOf(afIndex)[vrfId]; q; q = q->next)
    if (q->instance == instance) return 0;
  return 1;
}

void rtmClientQualReset() {
  rtmClientFreeOspfMap(RTM_IPV4UNI_AFINDEX);
  rtmClientFreeOspfMap(RTM_IPV6UNI_AFINDEX);
}
