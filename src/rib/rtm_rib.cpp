// Table sets of the VRFs and the version of a RIB change.
#include "rib/rtm_rib.h"

#include <cstring>

#include "clients/rtm_client.h"
#include "download/rtm_download.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "log/qor_log.h"
#include "poller/rtm_poll.h"
#include "redist/rtm_redist.h"
#include "vrf/rtm_vrf.h"

rt_inet_tbl_t *rt_inet_tbl[MAX_VRF];
uint8_t g_rtmVrfInUse[MAX_VRF];

int rtmRibRtInetAllocate(uint32_t vrfId) {
  if (vrfId >= MAX_VRF) return RTM_FAILURE;
  // 1024 bytes on a 32-bit target; our pointers are wider, so the record takes what it needs.
  constexpr uint32_t size = sizeof(rt_inet_tbl_t) > 1024 ? sizeof(rt_inet_tbl_t) : 1024;
  auto *tbl = static_cast<rt_inet_tbl_t *>(rtmMemAllocNonPool(__FILE__, __LINE__, size, 16));
  if (!tbl) return RTM_NO_MEMORY;
  memset(tbl, 0, size);
  rt_inet_tbl[vrfId] = tbl;
  return RTM_SUCCESS;
}

void rtmRibRtInetDeAllocate(uint32_t vrfId) {
  if (vrfId >= MAX_VRF || !rt_inet_tbl[vrfId]) return;
  rtmMemFreeNonPool(__FILE__, __LINE__, rt_inet_tbl[vrfId]);
  rt_inet_tbl[vrfId] = nullptr;
}

rt_inet_tbl_t *rtmRib(uint8_t afIndex, uint32_t vrfId) {
  if (vrfId >= MAX_VRF) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, "RTM: rtmRib", vrfId);
    return nullptr;
  }
  rt_inet_tbl_t *tbl = rt_inet_tbl[vrfId];
  if (!tbl) return nullptr;
  if (tbl->ribState != 1) {
    qorEventLog(rtmevkey, 14, "RTM: rtmRib: rib (%u) not in use", vrfId);
    return nullptr;
  }
  return tbl;
}

namespace {
qor_radix_tree *treeOf(uint8_t afIndex, uint32_t vrfId, RtmTreeKind kind) {
  if (afIndex >= RTM_MAX_AFINDEX) return nullptr;
  rt_inet_tbl_t *tbl = rtmRib(afIndex, vrfId);
  if (!tbl) return nullptr;
  switch (kind) {
    case RTM_TREE_MAIN: return tbl->mainTree[afIndex];
    case RTM_TREE_CON: return tbl->conTree[afIndex];
    case RTM_TREE_POLL: return tbl->pollTree[afIndex];
    case RTM_TREE_GBC: return tbl->gbcTree[afIndex];
    case RTM_TREE_RPF: return tbl->rpfTree[afIndex];
    case RTM_TREE_MSTATIC: return tbl->mstaticTree[afIndex];
    default: return nullptr;
  }
}

// The name field and tree slot of each kind, in the order the trees are made.
struct TreeSlot {
  char *name;
  size_t nameLen;
  qor_radix_tree **tree;
};
TreeSlot slotOf(rt_inet_tbl_t *t, RtmTreeKind kind, uint8_t af) {
  switch (kind) {
    case RTM_TREE_MAIN: return {t->mainName[af], sizeof t->mainName[af], &t->mainTree[af]};
    case RTM_TREE_CON: return {t->conName[af], sizeof t->conName[af], &t->conTree[af]};
    case RTM_TREE_POLL: return {t->pollName[af], sizeof t->pollName[af], &t->pollTree[af]};
    case RTM_TREE_GBC: return {t->gbcName[af], sizeof t->gbcName[af], &t->gbcTree[af]};
    case RTM_TREE_RPF: return {t->rpfName[af], sizeof t->rpfName[af], &t->rpfTree[af]};
    default: return {t->mstaticName[af], sizeof t->mstaticName[af], &t->mstaticTree[af]};
  }
}

const char *const kCreateFailText[RTM_TREE_KINDS] = {
    "RTM: rtmRibCreate",     "RTM: rtmRibCreate Con", "RTM: rtmRibCreate Poll",
    "RTM: rtmRibCreate Gbc", "RTM: rtmRibCreate rpf", "RTM: rtmRibCreate mstatic"};
}  // namespace

qor_radix_tree *rtmRibGetTree(uint8_t af, uint32_t vrf) { return treeOf(af, vrf, RTM_TREE_MAIN); }
qor_radix_tree *rtmConRibGetTree(uint8_t af, uint32_t vrf) { return treeOf(af, vrf, RTM_TREE_CON); }
qor_radix_tree *rtmPollRibGetTree(uint8_t af, uint32_t vrf) { return treeOf(af, vrf, RTM_TREE_POLL); }
qor_radix_tree *rtmGbcRibGetTree(uint8_t af, uint32_t vrf) {
  if (vrf >= MAX_VRF) _qorAssert("rib < MAX_VRF", __FILE__, __LINE__, vrf);
  return treeOf(af, vrf, RTM_TREE_GBC);
}
qor_radix_tree *rtmRpfRibGetTree(uint8_t af, uint32_t vrf) { return treeOf(af, vrf, RTM_TREE_RPF); }
qor_radix_tree *rtmMstaticRibGetTree(uint8_t af, uint32_t vrf) { return treeOf(af, vrf, RTM_TREE_MSTATIC); }

int rtmRibCreate(uint32_t vrfId, const char *main, const char *con, const char *poll, const char *gbc,
                 const char *rpf, const char *mstatic) {
  if (vrfId >= MAX_VRF) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, "RTM: rtmRibCreate", vrfId);
    return RTM_FAILURE;
  }
  const char *names[RTM_TREE_KINDS] = {main, con, poll, gbc, rpf, mstatic};
  for (const char *n : names)
    if (!n || !*n) {
      qorSysErr(rtmevkey, 0, 0x148044, 0, "RTM: rtmRibCreate", vrfId);
      return RTM_FAILURE;
    }
  rt_inet_tbl_t *tbl = rt_inet_tbl[vrfId];
  if (!tbl) return RTM_FAILURE;
  if (tbl->ribState == 1) {
    qorSysErr(rtmevkey, 0, 0x148043, 0, "RTM: rtmRibCreate", vrfId);
    return RTM_FAILURE;
  }
  for (uint8_t af = 0; af < RTM_MAX_AFINDEX; ++af) {
    for (int k = 0; k < RTM_TREE_KINDS; ++k) {
      TreeSlot s = slotOf(tbl, static_cast<RtmTreeKind>(k), af);
      qor_radix_tree *tree = qorRadixCreate(names[k], rtmAfKeyBits(af), rtmMemRibRdxMalloc, rtmMemRibRdxFree, 0);
      if (!tree) {
        qorSysErr(rtmevkey, 0, 0x148045, 0, kCreateFailText[k], vrfId);
        return RTM_FAILURE;
      }
      tree->rdx_lock = 1;
      tree->rdx_count = 0;
      memset(s.name, 0, s.nameLen);
      strncpy(s.name, names[k], s.nameLen - 1);
      *s.tree = tree;
      if (k == RTM_TREE_MAIN) tbl->ribState = 1;
    }
  }
  return RTM_SUCCESS;
}

int rtmRibDelete(uint32_t vrfId) {
  if (vrfId == 0 || vrfId >= MAX_VRF) {
    qorSysErr(rtmevkey, 0, 0x14803F, 0, "RTM: rtmRibDelete", vrfId);
    return RTM_FAILURE;
  }
  rt_inet_tbl_t *tbl = rt_inet_tbl[vrfId];
  if (tbl && tbl->ribState == 1) {
    rtmClearRib(RTM_IPV6UNI_AFINDEX, vrfId);
    rtmPollRibClear(RTM_IPV6UNI_AFINDEX, vrfId);
  }
  if (!tbl) return RTM_FAILURE;
  if (tbl->ribState != 1) {
    qorSysErr(rtmevkey, 0, 0x148043, 0, "RTM: rtmRibDelete", vrfId);
    return RTM_FAILURE;
  }
  for (uint8_t af = 0; af < RTM_MAX_AFINDEX; ++af) {
    if (af != IPV4MUL_AFINDEX) {
      rtmClearRib(af, vrfId);
      rtmPollRibClear(af, vrfId);
    }
    if (tbl->mainTree[af]) tbl->mainTree[af]->rdx_lock = 0;
    if (tbl->conTree[af]) tbl->conTree[af]->rdx_lock = 0;
    for (int k = 0; k < RTM_TREE_KINDS; ++k) {
      TreeSlot s = slotOf(tbl, static_cast<RtmTreeKind>(k), af);
      if (*s.tree) qorRadixDestroy(*s.tree);
      *s.tree = nullptr;
    }
  }
  tbl->ribState = 0;
  return RTM_SUCCESS;
}

namespace {
// After a wrap every head that holds a route goes on the list again, in tree pre-order, so
// each consumer, now back at version 0, sees the whole table once more.
void renumberTree(qor_radix_tree *tree) {
  for (qor_radix_node *n = qorRadixNodeFirst(tree); n; n = qorRadixNodeNext(n))
    if (qor_radix_hdr *h = qorRadixNodeHead(n)) qorRadicalAppendToChangeList(tree, h);
}
}  // namespace

namespace {
// Wake-ups asked for while a batch is being applied: each costs a lock in the thread layer,
// and nothing can run before the main task next gives up the processor, so one per thread at
// the end of the batch does the same.
enum : uint8_t { WAKE_RTLEAK = 1, WAKE_REDIS = 2, WAKE_RTEDN = 4 };
int g_deferDepth;
uint8_t g_pendingWake;

void wake(uint8_t which) {
  if (g_deferDepth > 0) {
    g_pendingWake |= which;
    return;
  }
  if (which & WAKE_RTLEAK) qorThreadResume(rtmThreads, rtmThreadRtLeak);
  if (which & WAKE_REDIS) qorThreadResume(rtmThreads, rtmThreadRedis);
  if (which & WAKE_RTEDN) qorThreadResume(rtmThreads, rtmThreadRteDn);
}

void flushWake() {
  const uint8_t w = g_pendingWake;
  g_pendingWake = 0;
  const int depth = g_deferDepth;
  g_deferDepth = 0;
  if (w) wake(w);
  g_deferDepth = depth;
}
}  // namespace

void rtmRibDeferWakeups(bool on) {
  if (on) {
    ++g_deferDepth;
    return;
  }
  if (g_deferDepth > 0 && --g_deferDepth == 0) flushWake();
}

int updateRibVer(uint32_t vrfId, uint8_t afIndex, qor_radix_tree *tree, rt_head *rth) {
  if (qorRadicalAppendToChangeList(tree, &rth->rtmh_rdx) == 0) {
    // The renumbering below yields while it waits for the workers: what is owed goes first.
    flushWake();
    for (uint32_t cid = 0; cid < MAX_RTM_CLEINTS; ++cid) {
      rtClientVrfInfo *rvi = rtmClientGetVrfInfo(afIndex, cid, vrfId);
      if (rvi) rvi->rvi_version = 0;
    }
    tree->rdx_version = 0;
    rtmClearRedistThread(vrfId, afIndex);
    rtmClearDownloadThread(vrfId, afIndex);
    rtmClearPollThread(vrfId, afIndex);
    rtmClearTicThread(afIndex, vrfId);
    rtm_rtleak_cleaversion(vrfId, afIndex);
    renumberTree(tree);
  }
  rt_entry *active = rth->rtmh_rte;
  if (rtmhHas(rth, RTMH_DEL_EXPORTED) || (active && !(active->rte_leak & RTE_LEAK_IMPORTED))) {
    if (rtmdebug & 0x1)
      qorDebugPrintf("\r\nupdateRibVer..Resume RtLeak thread for vrfId is:%ld and ipaddr is:%u.%u.%u.%u",
                     static_cast<long>(vrfId), rtmh_prefix(rth)[0], rtmh_prefix(rth)[1],
                     rtmh_prefix(rth)[2], rtmh_prefix(rth)[3]);
    wake(WAKE_RTLEAK);
  }
  wake(WAKE_REDIS | WAKE_RTEDN);
  rtmTicUpdate[afIndex][vrfId] = 1;
  return 1;
}

void rtmRibReset() {
  for (uint32_t v = 0; v < MAX_VRF; ++v) {
    rt_inet_tbl_t *tbl = rt_inet_tbl[v];
    if (!tbl) continue;
    for (uint8_t af = 0; af < RTM_MAX_AFINDEX; ++af)
      for (int k = 0; k < RTM_TREE_KINDS; ++k) {
        TreeSlot s = slotOf(tbl, static_cast<RtmTreeKind>(k), af);
        if (*s.tree) qorRadixDestroy(*s.tree);
        *s.tree = nullptr;
      }
    rtmRibRtInetDeAllocate(v);
  }
  memset(g_rtmVrfInUse, 0, sizeof g_rtmVrfInUse);
  rtmRibRouteReset();
  g_deferDepth = 0;
  g_pendingWake = 0;
  rtmVrfReset();
}
