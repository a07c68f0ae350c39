// Moving download clients between the regular and the super list.
//
// A super member is served by the walk of its family's dummy client and kept in step with it
// (its rvi_version follows the dummy's), so a client may join only when it stands exactly where
// the dummy stands in every VRF in use, takes every route unfiltered and has a working queue.
// A member that stops qualifying goes back to the regular list and walks on its own again.
// Moves are gathered first and done after the list walk, because each move frees the node
// the walk stands on.
#include <cstdint>
#include <vector>

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "log/qor_log.h"
#include "rib/rtm_rib.h"

namespace {
constexpr uint32_t kDebugDownload = 0x2;

bool isIpmOne(const rt_client *rtc) {
  return (rtc->rtc_proto == RTM_PROTO_IPM || rtc->rtc_proto == RTM_PROTO_IPM6) && rtc->rtc_instance == 1;
}

// The second IPM does not take BGP routes while that is configured off: it is filtered, so it
// cannot share a walk that takes no filter decision.
bool ipmOneExcluded(const rt_client *rtc, uint8_t afIndex) {
  return isIpmOne(rtc) && afIndex < 3 && rtmDownloadBgpRoutesToIpm1[afIndex] == 0;
}

int skipHead(qor_radix_hdr *, void *) { return 0; }

// Moves a walker up to `version` without acting on the heads it passes: the client was served
// those by another walk. A client that changes lists thus does not walk again what it has had.
void catchUp(qor_radix_tree *tree, qor_radical_walker *walker, uint64_t version) {
  if (!tree || qorRadicalNextVersion(tree, walker) == 0) return;
  int stopped = 0;
  qorRadicalWalkChangeList(tree, walker, skipHead, 0, UINT32_MAX, version, nullptr, &stopped, nullptr);
}

void catchUpEverywhere(rt_client *rtc, uint8_t afIndex) {
  for (uint32_t v = 0; v < MAX_VRF; ++v)
    if (g_rtmVrfInUse[v] == 1 && rtc->rtc_vrf[v])
      catchUp(rtmRibGetTree(afIndex, v), &rtc->rtc_vrf[v]->rvi_walker, rtc->rtc_vrf[v]->rvi_version);
}

// Every VRF in use finds the client at the dummy's version.
bool inStepWithDummy(const rt_client *rtc, const rt_client *dummy) {
  for (uint32_t v = 0; v < MAX_VRF; ++v) {
    if (g_rtmVrfInUse[v] != 1) continue;
    const rtClientVrfInfo *mine = rtc->rtc_vrf[v];
    const rtClientVrfInfo *group = dummy->rtc_vrf[v];
    if (!mine && !group) continue;
    if (!mine || !group || mine->rvi_version != group->rvi_version) return false;
  }
  return true;
}
}  // namespace

void rtmValidateRegularClients(uint32_t vrfId, uint8_t afIndex) {
  (void)vrfId;  // promotion looks at every VRF in use
  if (afIndex >= 3) return;
  rt_client *dummy = dummySuperClient[afIndex];
  if (!dummy) return;
  const bool groupWasEmpty = qorDLLGetFirst(&superClients[afIndex]) == nullptr;
  std::vector<rt_client *> moving;
  for (QOR_DLL_NODE *n = qorDLLGetFirst(&regularClients[afIndex]); n; n = qorDLLGetNext(n)) {
    rt_client *rtc = rtmClientOfNode(n);
    if (!rtc) {
      _qorAssert("client", __FILE__, __LINE__, 0);
      continue;
    }
    if (ipmOneExcluded(rtc, afIndex) || rtc->rtc_proto == RTM_PROTO_LDP) continue;
    if (rtc->rtc_filterState != 1) continue;
    if (!inStepWithDummy(rtc, dummy)) continue;
    if (rtc->rtc_dnldState != RTC_Q_STOPPED) moving.push_back(rtc);
  }
  // An empty group's walker stood still while its version followed the tree.
  if (groupWasEmpty && !moving.empty()) catchUpEverywhere(dummy, afIndex);
  for (rt_client *rtc : moving) {
    if (!rtc) {
      _qorAssert("clientlist[i]", __FILE__, __LINE__, 0);
      continue;
    }
    // A node that cannot be had leaves the client where it is: it still walks on its own.
    if (rtmAddClientToList(&superClients[afIndex], rtc) != 0) continue;
    rtmRemoveClientFromList(&regularClients[afIndex], rtc);
    if (rtmdebug & kDebugDownload) {
      char name[41];
      qorDebugPrintf("\r\nrtmValidateRegularClients: %s%u moved to SUPER-LIST.", rtmClientName(rtc, name),
                     rtc->rtc_instance);
    }
  }
}

void rtmValidateSuperClients(uint32_t vrfId, uint8_t afIndex) {
  if (afIndex >= 3) return;
  QOR_DLL *list = &superClients[afIndex];
  if (!qorDLLGetFirst(list) && (vrfId >= MAX_VRF || g_rtmVrfInUse[vrfId] != 1)) return;
  const rt_client *dummy = dummySuperClient[afIndex];
  std::vector<rt_client *> moving;
  for (QOR_DLL_NODE *n = qorDLLGetFirst(list); n; n = qorDLLGetNext(n)) {
    rt_client *rtc = rtmClientOfNode(n);
    if (!rtc) {
      _qorAssert("client", __FILE__, __LINE__, 0);
      continue;
    }
    rtClientVrfInfo *rvi = vrfId < MAX_VRF ? rtc->rtc_vrf[vrfId] : nullptr;
    if (rtc->rtc_filterState != 1 || rtc->rtc_dnldState == RTC_Q_STOPPED) {
      moving.push_back(rtc);
      if (rtmdebug & kDebugDownload) {
        char name[41];
        const rtClientVrfInfo *group = dummy && vrfId < MAX_VRF ? dummy->rtc_vrf[vrfId] : nullptr;
        qorDebugPrintf("\r\nrtmValidateSuperClients: %s%u ver %llu [%llu] filter %u moved to REGULAR-LIST.",
                       rtmClientName(rtc, name), rtc->rtc_instance,
                       static_cast<unsigned long long>(rvi ? rvi->rvi_version : 0),
                       static_cast<unsigned long long>(group ? group->rvi_version : 0), rtc->rtc_filterState);
      }
    }
    // A member is served through the dummy's walker: its own is never to be rebuilt meanwhile.
    if (rvi) rvi->rvi_ruleFlags[0] &= static_cast<uint8_t>(~RVI_DNLD_NEW);
  }
  for (rt_client *rtc : moving) {
    catchUpEverywhere(rtc, afIndex);
    rtmValidateOneSuperClient(rtc, afIndex);
  }
}
