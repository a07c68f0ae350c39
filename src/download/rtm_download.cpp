// The download thread, rtmRteDn: version walks of the change lists that keep the FIB clients
// level with the RIB.
//
// A pass visits every VRF in use, IPv4 then IPv6: first each regular client walks on its own
// walker from its version up to a snapshot of the tree's version (1024 heads a pass, shared out
// over the VRFs), then the super group walks once on its dummy's walker (1024 heads) and every
// message is copied to the members. Next hops go ahead of routes: the VRF's next-hop FIFO is
// drained before and after each IPv4 walk.
//
// Per head, the client's bit in rtmh_redlist says whether it holds the prefix; that and whether
// the route is gone decide add, delete or nothing, so a client never hears of a prefix it was
// never told of, and an update is simply an add again. A head without a route whose bitmap is
// empty is freed by the walker that finds it so.
//
// The thread rests (hands over to the poll thread and suspends) when the super group is done or
// congested in both families of the last VRF in use; a queue above 200 messages is not walked
// and the acknowledgements that bring it to one message or none wake the thread again. What
// the regular clients leave is not waited for: a regular client goes on when something wakes
// the thread, and is promoted into the group once it stands at the group's version.
#include "download/rtm_download.h"

#include <cstring>

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "log/qor_log.h"
#include "nexthop/rtm_nh.h"
#include "poller/rtm_poll.h"
#include "redist/rtm_redist.h"
#include "rib/rtm_rib.h"
#include "static/rtm_static.h"
#include "swp/qor_swp.h"
#include "vrf/rtm_vrf.h"

using rtm::ld32;
using rtm::ld8;
using rtm::st32;
using rtm::st8;

volatile uint32_t rtmDnldRestart[MAX_VRF][3];
uint64_t curDnldThrMaxTreeVer[MAX_VRF][3], superMaxTreeVer[MAX_VRF][3];
uint32_t rtmdnldpollresume;
uint32_t g_rtmAuditInProgress;

namespace {
constexpr uint32_t kDebugDownload = 0x2;
constexpr int kHighMark = 200;
constexpr int kLowMark = 100;
constexpr uint32_t kWalkBudget = 1024;
constexpr uint8_t kFamilies[2] = {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX};

// What lasts across one pass of the thread.
struct PassState {
  qor_radix_tree *pRibTree[MAX_VRF][3];
  uint8_t *pLocalBuf[3];
  uint32_t dnldDone[3];
  uint32_t allCongested[3];
  uint32_t suspendOk;
  // A regular client was cut short by its budget with nothing in flight: no acknowledgement
  // will wake the thread for it, so the thread must not rest.
  bool regularStranded;
};
PassState g_pass;
// A zeroed head per family, for flushes.
alignas(rt_head) uint8_t g_flushHead[3][rtmHeadSize(RTM_IPV6UNI_AFINDEX)];

// The user words of a walk.
struct WalkCtx {
  rt_client *client;  // the regular client, or the super group's first member
  uint8_t **buf;
  qor_radix_tree *tree;
  const uint8_t *afIndex;
  const uint32_t *vrfId;
};

bool bitHeld(const rt_head *h, uint32_t cid) { return (h->rtmh_redlist[cid >> 3] >> (cid & 7)) & 1; }
void bitSet(rt_head *h, uint32_t cid) { h->rtmh_redlist[cid >> 3] |= uint8_t(1u << (cid & 7)); }
void bitClear(rt_head *h, uint32_t cid) { h->rtmh_redlist[cid >> 3] &= uint8_t(~(1u << (cid & 7))); }

int bundle(uint8_t afIndex, rt_client *client, uint32_t op, uint8_t **buf, rt_head *head, int mode, uint32_t vrfId) {
  return afIndex == RTM_IPV6UNI_AFINDEX ? rtmDownloadBundleRouteIPv6(client, op, buf, head, mode, vrfId)
                                        : rtmDownloadBundleRouteIPv4(client, op, buf, head, mode, vrfId);
}

// A head that could not be bundled for want of a buffer is put behind the walkers again, so
// that it is met once more when buffers are back; a renumbering is left to the RIB's own path.
void retryLater(qor_radix_tree *tree, rt_head *head) {
  if (tree->rdx_version < tree->rdx_maxVersion) qorRadicalAppendToChangeList(tree, &head->rtmh_rdx);
}

void freeTombstone(qor_radix_tree *tree, rt_head *head) {
  qorRadixRemove(tree, &head->rtmh_rdx);
  rtmHeadFree(head);
}

// The heads a change-list walk frees are gathered and freed when the walk returns (or when the
// batch is full): a removal misses the cache on the nodes around its head, and in a batch those
// nodes are fetched for all the heads before the first is removed. Nothing else runs while a
// walk is under way and the walk has passed them, so no one meets a gathered head before it
// goes; every walk that gathers is followed by freeGathered before anything else can run.
struct Gathered {
  qor_radix_tree *tree = nullptr;
  unsigned n = 0;
  rt_head *heads[32];
};
Gathered g_gathered;

void freeGathered() {
  Gathered &g = g_gathered;
  for (int stage = 0; stage < 2; ++stage)
    for (unsigned i = 0; i < g.n; ++i) qorRadixPrefetchRemove(g.tree, &g.heads[i]->rtmh_rdx, stage);
  for (unsigned i = 0; i < g.n; ++i) freeTombstone(g.tree, g.heads[i]);
  g.n = 0;
}

void freeAfterWalk(qor_radix_tree *tree, rt_head *head) {
  Gathered &g = g_gathered;
  if (g.n == std::size(g.heads) || (g.n && g.tree != tree)) freeGathered();
  g.tree = tree;
  g.heads[g.n++] = head;
}

// A walk of the change list whose callback may gather heads, and their freeing.
int walkChanges(qor_radix_tree *tree, qor_radical_walker *walker, QorRadixWalkCB cb, uint32_t budget,
                uint64_t snapshot, int *stopped, void *ctx) {
  const int visited = qorRadicalWalkChangeList(tree, walker, cb, 0, budget, snapshot, &rtmThreads, stopped, ctx);
  freeGathered();
  return visited;
}

bool restartAsked(uint32_t vrfId, uint8_t afIndex) { return rtmDnldRestart[vrfId][afIndex] == 1; }

uint32_t walkBudget() { return g_rtmVrfCount == 0 ? kWalkBudget : kWalkBudget / g_rtmVrfCount; }

void flushOpen(uint8_t afIndex, rt_client *client, uint32_t vrfId) {
  uint8_t *&buf = g_pass.pLocalBuf[afIndex];
  if (!buf) return;
  auto *head = reinterpret_cast<rt_head *>(g_flushHead[afIndex]);
  rtmHeadInit(head, afIndex, nullptr, 0);
  bundle(afIndex, client, RT_FLUSH, &buf, head, RTM_BUNDLE_SEND, vrfId);
  buf = nullptr;
}

void logAhead(uint32_t vrfId, uint64_t treeVer, uint64_t clientVer) {
  qorSysErr(rtmevkey, 0, 0x14800a, 0, "RTM: rtmDownloadMain", vrfId, treeVer, clientVer);
}

// ---- Regular clients of one family of one VRF ----------------------------------------------

void runRegular(uint32_t vrfId, uint8_t afIndex, qor_radix_tree *tree) {
  if (afIndex == RTM_IPV4UNI_AFINDEX) rtmNhDownloadFromFifo(RTM_IPV4UNI_AFINDEX, vrfId);
  g_pass.dnldDone[afIndex] = 1;
  g_pass.allCongested[afIndex] = 1;
  QOR_DLL_NODE *node = qorDLLGetFirst(&regularClients[afIndex]);
  while (node) {
    rt_client *rtc = rtmClientOfNode(node);
    if (!rtc) {
      _qorAssert("pTgtClient", __FILE__, __LINE__, 0);
      node = qorDLLGetNext(node);
      continue;
    }
    // A client being deregistered has lost its queue already: it is passed over.
    if (!rtmProtoIsDownload(rtc->rtc_proto) || rtc->rtc_dnldState == RTC_Q_STOPPED || !rtc->rtc_dnldQ) {
      node = qorDLLGetNext(node);
      continue;
    }
    rtClientVrfInfo *rvi = rtc->rtc_vrf[vrfId];
    if (restartAsked(vrfId, afIndex)) {
      g_pass.dnldDone[afIndex] = 1;
      curDnldThrMaxTreeVer[vrfId][afIndex] = 0;
      if (rvi) rvi->rvi_version = 0;
      break;
    }
    if (!rvi) {
      _qorAssert("pTgtClient->rtClientVrfInfo[vrfId]", __FILE__, __LINE__, long(vrfId));
      node = qorDLLGetNext(node);
      continue;
    }
    if (!(rvi->rvi_ruleFlags[0] & RVI_DNLD_ON)) {
      node = qorDLLGetNext(node);
      continue;
    }
    const uint64_t snapshot = tree->rdx_version;
    curDnldThrMaxTreeVer[vrfId][afIndex] = snapshot;
    if (rvi->rvi_ruleFlags[0] & RVI_DNLD_NEW) {
      qorRadicalWalkConstructor(tree, &rvi->rvi_walker);
    } else {
      if (snapshot == rvi->rvi_version) {
        node = qorDLLGetNext(node);
        continue;
      }
      if (snapshot < rvi->rvi_version) logAhead(vrfId, snapshot, rvi->rvi_version);
      if (qorRadicalNextVersion(tree, &rvi->rvi_walker) == 0) {
        rvi->rvi_version = rvi->rvi_walker.walker_version = snapshot;
        node = qorDLLGetNext(node);
        continue;
      }
      g_pass.dnldDone[afIndex] = 0;
      rtmDownloadCkSwpQlen(rtc, kHighMark, kLowMark);
      if (rtc->rtc_qState == 1) {
        node = qorDLLGetNext(node);
        continue;
      }
    }
    g_pass.pLocalBuf[afIndex] = nullptr;
    WalkCtx ctx{rtc, &g_pass.pLocalBuf[afIndex], tree, &afIndex, &vrfId};
    int stopped = 0;
    const int visited = walkChanges(tree, &rvi->rvi_walker, rtmDownloadWalkCB, walkBudget(), snapshot, &stopped, &ctx);
    if (afIndex == RTM_IPV4UNI_AFINDEX) rtmNhDownloadFromFifo(RTM_IPV4UNI_AFINDEX, vrfId);
    if (!stopped) rvi->rvi_version = rvi->rvi_walker.walker_version;
    rvi->rvi_ruleFlags[0] &= uint8_t(~RVI_DNLD_NEW);
    rtmDownloadCkSwpQlen(rtc, kHighMark, kLowMark);
    if (rtc->rtc_qState != 1) g_pass.allCongested[afIndex] = 0;
    const bool restart = restartAsked(vrfId, afIndex);
    flushOpen(afIndex, rtc, vrfId);
    if (stopped && visited > 0 && !restart && rtc->rtc_dnldState != RTC_Q_STOPPED &&
        qorSwpQueueGetLen(rtc->rtc_dnldQ) <= 0)
      g_pass.regularStranded = true;
    // On a restart the same client comes round again and meets the flag first.
    if (!restart) node = qorDLLGetNext(node);
  }
  rtmValidateRegularClients(vrfId, afIndex);
  g_pass.dnldDone[afIndex] = 1;
  g_pass.allCongested[afIndex] = 1;
}

// ---- The super group of one family of one VRF ----------------------------------------------

void runSuper(uint32_t vrfId, uint8_t afIndex, qor_radix_tree *tree) {
  rt_client *dummy = dummySuperClient[afIndex];
  rtClientVrfInfo *drvi = dummy ? dummy->rtc_vrf[vrfId] : nullptr;
  if (drvi && (drvi->rvi_ruleFlags[0] & RVI_DNLD_ON)) {
    QOR_DLL_NODE *first = qorDLLGetFirst(&superClients[afIndex]);
    if (!first) {
      drvi->rvi_version = tree->rdx_version;
    } else {
      if (restartAsked(vrfId, afIndex)) {
        g_pass.dnldDone[afIndex] = 1;
        superMaxTreeVer[vrfId][afIndex] = 0;
        drvi->rvi_version = 0;
        return;
      }
      const uint64_t snapshot = tree->rdx_version;
      superMaxTreeVer[vrfId][afIndex] = snapshot;
      if (snapshot == drvi->rvi_version) {
        g_pass.dnldDone[afIndex] = 1;
        return;
      }
      if (snapshot < drvi->rvi_version) logAhead(vrfId, snapshot, drvi->rvi_version);
      if (qorRadicalNextVersion(tree, &drvi->rvi_walker) == 0) {
        g_pass.dnldDone[afIndex] = 1;
        drvi->rvi_version = drvi->rvi_walker.walker_version = snapshot;
        return;
      }
      g_pass.dnldDone[afIndex] = 0;
      // The slowest member paces the group.
      dummy->rtc_dnldQ = rtmGetLargestSwpQ(afIndex);
      rtmDownloadCkSwpQlen(dummy, kHighMark, kLowMark);
      if (dummy->rtc_qState == 1) return;
      g_pass.pLocalBuf[afIndex] = nullptr;
      WalkCtx ctx{rtmClientOfNode(first), &g_pass.pLocalBuf[afIndex], tree, &afIndex, &vrfId};
      int stopped = 0;
      walkChanges(tree, &drvi->rvi_walker, rtmSuperDownloadWalkCB, kWalkBudget, snapshot, &stopped, &ctx);
      if (afIndex == RTM_IPV4UNI_AFINDEX) rtmNhDownloadFromFifo(RTM_IPV4UNI_AFINDEX, vrfId);
      if (!stopped) drvi->rvi_version = drvi->rvi_walker.walker_version;
      rtmDownloadCkSwpQlen(dummy, kHighMark, kLowMark);
      if (dummy->rtc_qState != 1) g_pass.allCongested[afIndex] = 0;
      if (restartAsked(vrfId, afIndex)) {
        // Every version is about to start over: what the open message holds goes again anyway.
        if (g_pass.pLocalBuf[afIndex]) RTM_POOL_FREE(g_pass.pLocalBuf[afIndex]);
        g_pass.pLocalBuf[afIndex] = nullptr;
        g_pass.dnldDone[afIndex] = 1;
        return;
      }
      flushOpen(afIndex, dummy, vrfId);
      rtmUpdateVersionSuperMembers(vrfId, afIndex);
    }
  }
  rtmValidateSuperClients(vrfId, afIndex);
}

void handOverToPoller() {
  ++rtmdnldpollresume;
  for (uint32_t v = 0; v < MAX_VRF; ++v) {
    mstaticUpdProtDependentRoutes(v);
    rtmPollWalkAllNodes[v][RTM_IPV4UNI_AFINDEX] = 1;
    rtmPollWalkAllNodes[v][RTM_IPV6UNI_AFINDEX] = 1;
  }
  qorThreadResume(rtmThreads, rtmThreadPoll);
}

// ---- MT_RTM_DNLD_CNTRL --------------------------------------------------------------------

// A client that asks for a fresh download is alive again: if its queue had failed, the queue
// starts over at sequence 1 and the client is served again.
void reviveQueue(rt_client *rtc) {
  if (!rtc->rtc_dnldQ || qorSwpGetQueueStatus(rtc->rtc_dnldQ) != QOR_SWP_STATUS_FAILED) return;
  qorSwpQueueFlush(rtc->rtc_dnldQ);
  for (auto &row : rt_client_tbl)
    for (rt_client &c : row)
      if (c.rtc_state == RTC_STATE_ACTIVE && c.rtc_dnldQ == rtc->rtc_dnldQ && c.rtc_dnldState == RTC_Q_STOPPED)
        c.rtc_dnldState = RTC_Q_REGISTERED;
}

int onDnldCntrl(uint8_t *msg, uint32_t len, rt_client *rtc) {
  if (!rtc || len < RTM_DNLD_CNTRL_OFF_AFINDEX + 1) {
    qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM: MT_RTM_DNLD_CNTRL", len);
    return RTM_FAILURE;
  }
  if (ld32(msg, RTM_DNLD_CNTRL_OFF_ACTION) == RTM_CNTRL_START_DNLD) {
    reviveQueue(rtc);
    auto *begin = static_cast<uint8_t *>(RTM_POOL_ALLOC(RTM_MEM_TAG_DNLD_CTRL, RTM_IPC_BUF_SIZE, RTM_SWP_DNLD_POOL));
    if (!begin) {
      qorSysErr(rtmevkey, 0, 0x14800C, 0, "RTM: MT_RTM_DNLD_CNTRL", rtc->rtc_cid);
    } else {
      rtmDownloadBuildIpcHdr(begin, MT_RTM_DNLD_CNTRL, RTM_DNLD_CNTRL_LEN);
      st32(begin, RTM_DNLD_CNTRL_OFF_ACTION, RTM_CNTRL_DNLD_BEGINS);
      st32(begin, RTM_DNLD_CNTRL_OFF_VRFID, ld32(msg, RTM_DNLD_CNTRL_OFF_VRFID));
      st8(begin, RTM_DNLD_CNTRL_OFF_AFINDEX, ld8(msg, RTM_DNLD_CNTRL_OFF_AFINDEX));
      if (qorSwpEnqueue(rtc->rtc_dnldQ, begin, RTM_DNLD_CNTRL_LEN) != QOR_SWP_OK) {
        qorSysErr(rtmevkey, 0, 0x14800C, 0, "RTM: MT_RTM_DNLD_CNTRL", rtc->rtc_cid);
        RTM_POOL_FREE(begin);
      }
    }
  }
  rtmDownloadControl(msg, rtc);
  return RTM_SUCCESS;
}

// ---- Clearing a client's bits ---------------------------------------------------------------

struct ClearBitCtx {
  qor_radix_tree *tree;
  uint32_t cid;
  uint8_t afIndex;
};
int clearClientBitWalkCB(qor_radix_hdr *h, void *arg) {
  auto *c = static_cast<ClearBitCtx *>(arg);
  rt_head *head = rtmHeadOf(h);
  bitClear(head, c->cid);
  // The client was the last holder of a deleted prefix: nobody will come to free the head.
  if (!head->rtmh_rte && rtmRedistMemCkZero(head->rtmh_redlist, sizeof head->rtmh_redlist, 0, c->afIndex))
    freeTombstone(c->tree, head);
  return 0;
}

struct BgpCtx {
  qor_radix_tree *tree;
  uint8_t afIndex;
};
int rtmBgpRuleChInRibWalkCB(qor_radix_hdr *h, void *arg) {
  auto *c = static_cast<BgpCtx *>(arg);
  rt_head *head = rtmHeadOf(h);
  if (head->rtmh_rte && head->rtmh_rte->rte_proto == RTM_PROTO_BGP) updateRibVer(0, c->afIndex, c->tree, head);
  return 0;
}
}  // namespace

// ---- Per-head decisions ---------------------------------------------------------------------

int rtmDownloadWalkCB(qor_radix_hdr *h, void *user) {
  auto *ctx = static_cast<WalkCtx *>(user);
  if (!h) {
    qorSysErr(rtmevkey, 0, 0x148009, 0, "RTM: rtmDownloadWalkCB");
    return 1;
  }
  rt_client *rtc = ctx->client;
  const uint8_t afIndex = *ctx->afIndex;
  const uint32_t vrfId = *ctx->vrfId;
  if (restartAsked(vrfId, afIndex) || rtc->rtc_dnldState == RTC_Q_STOPPED) return 1;
  rt_head *head = rtmHeadOf(h);
  const bool held = bitHeld(head, rtc->rtc_cid);
  const bool gone = head->rtmh_rte == nullptr;
  uint32_t op = RT_DO_NOTHING;
  if (gone) {
    bitClear(head, rtc->rtc_cid);
    op = held ? RT_DEL : RT_DO_NOTHING;
  } else if (rtmFilterRouteCheck(afIndex, head, rtc) == 0) {
    bitSet(head, rtc->rtc_cid);
    op = RT_ADD;
  } else {
    bitClear(head, rtc->rtc_cid);
    op = held ? RT_DEL : RT_DO_NOTHING;
  }
  if (op != RT_DO_NOTHING) {
    const int r = bundle(afIndex, rtc, op, ctx->buf, head, RTM_BUNDLE_APPEND, vrfId);
    if (r != RTM_SUCCESS) {
      if (r == RTM_NO_MEMORY) retryLater(ctx->tree, head);
      return 1;
    }
  }
  if (rtClientVrfInfo *rvi = rtc->rtc_vrf[vrfId]) rvi->rvi_version = rtmh_version(head);
  if (gone && rtmRedistMemCkZero(head->rtmh_redlist, sizeof head->rtmh_redlist, vrfId, afIndex))
    freeAfterWalk(ctx->tree, head);
  return 0;
}

int rtmSuperDownloadWalkCB(qor_radix_hdr *h, void *user) {
  auto *ctx = static_cast<WalkCtx *>(user);
  if (!h) {
    qorSysErr(rtmevkey, 0, 0x148009, 0, "RTM: rtmSuperDownloadWalkCB");
    return 1;
  }
  const uint8_t afIndex = *ctx->afIndex;
  const uint32_t vrfId = *ctx->vrfId;
  if (restartAsked(vrfId, afIndex)) return 1;
  rt_head *head = rtmHeadOf(h);
  // Members are in step: the first one's bit stands for all.
  const bool held = bitHeld(head, ctx->client->rtc_cid);
  const bool gone = head->rtmh_rte == nullptr;
  uint32_t op = RT_ADD;
  if (held && gone) {
    rtmClearBitSuperMembers(afIndex, head);
    op = RT_DEL;
  } else if (!held && !gone) {
    rtmSetBitSuperMembers(afIndex, head);
  } else if (!held && gone) {
    op = RT_DO_NOTHING;
  }
  const bool freeIt = gone && rtmRedistMemCkZero(head->rtmh_redlist, sizeof head->rtmh_redlist, vrfId, afIndex);
  rt_client *dummy = dummySuperClient[afIndex];
  if (op != RT_DO_NOTHING) {
    const int r = bundle(afIndex, dummy, op, ctx->buf, head, RTM_BUNDLE_APPEND, vrfId);
    if (r != RTM_SUCCESS) {
      if (r == RTM_NO_MEMORY) retryLater(ctx->tree, head);
      return 1;
    }
  }
  if (rtClientVrfInfo *drvi = dummy->rtc_vrf[vrfId]) drvi->rvi_version = rtmh_version(head);
  rtmUpdateVersionSuperMembers(vrfId, afIndex);
  if (freeIt) freeAfterWalk(ctx->tree, head);
  return 0;
}

int rtmFilterRouteCheck(uint8_t afIndex, rt_head *head, rt_client *client) {
  const rt_entry *rte = head->rtmh_rte;
  const uint32_t proto = client->rtc_proto;
  const bool ipm = proto == RTM_PROTO_IPM || proto == RTM_PROTO_IPM6;
  if (!rte || rte->rte_proto != RTM_PROTO_BGP || !(ipm || proto == RTM_PROTO_LDP)) return 0;
  int result = 0;
  switch (client->rtc_filterState) {
    case 2: result = 1; break;
    case 3: result = client->rtc_filter == 1; break;
    default: break;  // 1 and 4 take everything, and so does any state nobody defined
  }
  if (result == 1 && afIndex < 3 && rtmDownloadBgpRoutesToIpm1[afIndex] == 0 && ipm && client->rtc_instance == 1 &&
      bitHeld(head, client->rtc_cid)) {
    // The second IPM keeps what it holds: it is told again rather than withdrawn.
    bitClear(head, client->rtc_cid);
    result = 0;
  }
  return result;
}

// ---- Queues and the group -------------------------------------------------------------------

void rtmDownloadCkSwpQlen(rt_client *client, int high, int low) {
  const int len = qorSwpQueueGetLen(client->rtc_dnldQ);
  client->rtc_qState = len > high ? 1 : len < low ? 0 : 2;
}

uint32_t rtmGetLargestSwpQ(uint8_t afIndex) {
  QOR_DLL_NODE *n = afIndex < 3 ? qorDLLGetFirst(&superClients[afIndex]) : nullptr;
  if (!n) return 0;
  uint32_t best = rtmClientOfNode(n)->rtc_dnldQ;
  int bestLen = 0;
  for (; n; n = qorDLLGetNext(n)) {
    const rt_client *m = rtmClientOfNode(n);
    if (!m || m->rtc_dnldState == RTC_Q_STOPPED || !m->rtc_dnldQ) continue;
    const int len = qorSwpQueueGetLen(m->rtc_dnldQ);
    if (len > bestLen) {
      best = m->rtc_dnldQ;
      bestLen = len;
    }
  }
  return best;
}

void rtmUpdateVersionSuperMembers(uint32_t vrfId, uint8_t afIndex) {
  if (afIndex >= 3 || vrfId >= MAX_VRF || !dummySuperClient[afIndex]) return;
  const rtClientVrfInfo *drvi = dummySuperClient[afIndex]->rtc_vrf[vrfId];
  if (!drvi) return;
  for (QOR_DLL_NODE *n = qorDLLGetFirst(&superClients[afIndex]); n; n = qorDLLGetNext(n))
    if (rt_client *m = rtmClientOfNode(n); m && m->rtc_vrf[vrfId]) m->rtc_vrf[vrfId]->rvi_version = drvi->rvi_version;
}

void rtmSetBitSuperMembers(uint8_t afIndex, rt_head *head) {
  for (QOR_DLL_NODE *n = qorDLLGetFirst(&superClients[afIndex]); n; n = qorDLLGetNext(n))
    if (const rt_client *m = rtmClientOfNode(n)) bitSet(head, m->rtc_cid);
}

void rtmClearBitSuperMembers(uint8_t afIndex, rt_head *head) {
  for (QOR_DLL_NODE *n = qorDLLGetFirst(&superClients[afIndex]); n; n = qorDLLGetNext(n))
    if (const rt_client *m = rtmClientOfNode(n)) bitClear(head, m->rtc_cid);
}

void rtmDownloadClearClientBit(uint8_t afIndex, rt_client *client) {
  qor_radix_tree *tree = client ? rtmRibGetTree(afIndex, 0) : nullptr;
  if (!tree) return;
  ClearBitCtx ctx{tree, client->rtc_cid, afIndex};
  qorRadixWalk(tree, 0, clearClientBitWalkCB, 0, &ctx);
}

void rtmDownloadRuleChange(uint8_t afIndex, rt_client *client, uint8_t mask, uint32_t action, uint32_t vrfId) {
  (void)afIndex;
  if (!client || vrfId >= MAX_VRF) return;
  rtClientVrfInfo *rvi = client->rtc_vrf[vrfId];
  if (!rvi) return;
  if (action == 11) {
    rvi->rvi_ruleFlags[0] &= uint8_t(~mask);
  } else if (action == 10) {
    rvi->rvi_ruleFlags[0] |= mask;
    qorThreadResume(rtmThreads, rtmThreadRteDn);
  }
}

void rtmDownloadControl(const uint8_t *msg, rt_client *client) {
  const uint32_t action = ld32(msg, RTM_DNLD_CNTRL_OFF_ACTION);
  const uint32_t vrfId = ld32(msg, RTM_DNLD_CNTRL_OFF_VRFID);
  const uint8_t afIndex = static_cast<uint8_t>(client->rtc_afIndex);
  if (vrfId >= MAX_VRF) {
    if (rtmdebug & kDebugDownload) qorDebugPrintf("\r\n%s:%d does not expect ALL_VRF_ID\r\n", __FILE__, __LINE__);
    return;
  }
  if (g_rtmVrfInUse[vrfId] != 1) return;
  if (action != RTM_CNTRL_STOP_DNLD && action != RTM_CNTRL_START_DNLD) {
    if (rtmdebug & kDebugDownload) qorDebugPrintf("\r\n%s:%d Action undefined\r\n", __FILE__, __LINE__);
    return;
  }
  rtmValidateOneSuperClient(client, afIndex);
  if (action == RTM_CNTRL_STOP_DNLD) {
    rtmDownloadRuleChange(afIndex, client, RVI_DNLD_ON | RVI_DNLD_NEW, 11, vrfId);
    return;
  }
  if (rtClientVrfInfo *rvi = client->rtc_vrf[vrfId]) rvi->rvi_version = 0;
  rtmDownloadRuleChange(afIndex, client, RVI_DNLD_ON | RVI_DNLD_NEW, 10, vrfId);
}

void rtmDownloadErrCB(uint32_t queue, uint32_t error) {
  if (!queue) return;
  unsigned families = 1u << RTM_IPV4UNI_AFINDEX;  // the families whose lists are to be checked
  if (error == QOR_SWP_ERR_PEER) {
    families = 0;
    QorSwpCtrlBlock cb{};
    if (qorSwpGetQueueCtrlBlock(queue, &cb) == 0) {
      // Both family records of one agent share its queue: both stop.
      for (uint8_t af = 0; af < 3; ++af) {
        if (!rtmClientGetByIpcInfo(af, cb.ipcSvce, cb.ipcInst)) continue;
        for (rt_client &c : rt_client_tbl[af]) {
          if (c.rtc_state != RTC_STATE_ACTIVE || c.rtc_ipcSvce != cb.ipcSvce || c.rtc_ipcInst != cb.ipcInst ||
              !rtmProtoIsDownload(c.rtc_proto) || c.rtc_dnldQ != queue)
            continue;
          families |= 1u << af;
          c.rtc_dnldState = RTC_Q_STOPPED;
          rtmDownloadClearClientBit(af, &c);
          ++c.rtc_lastCnt;
        }
      }
    }
    if (!families) {
      qorSysErr(rtmevkey, 0, 0x14800b, 0, "RTM: rtmDownloadErrCB", queue, error);
      return;
    }
  }
  for (uint8_t af = 0; af < 3; ++af) {
    if (!(families & (1u << af))) continue;
    // The first IPM's queue stands in for the group's until the next walk picks the longest.
    for (QOR_DLL_NODE *n = qorDLLGetFirst(&superClients[af]); n; n = qorDLLGetNext(n)) {
      const rt_client *m = rtmClientOfNode(n);
      if (m && m->rtc_proto == RTM_PROTO_IPM && m->rtc_instance == 0 && dummySuperClient[af]) {
        dummySuperClient[af]->rtc_dnldQ = m->rtc_dnldQ;
        break;
      }
    }
    rtmValidateSuperClients(0, af);
    rtmValidateRegularClients(0, af);
  }
  // The others may have drained their queues long ago: nothing else would wake the thread.
  qorThreadResume(rtmThreads, rtmThreadRteDn);
}

void rtmClearDownloadThread(uint32_t vrfId, uint8_t afIndex) {
  if (vrfId >= MAX_VRF || afIndex >= 3) return;
  rtmDnldRestart[vrfId][afIndex] = 1;
  // Waiting here on the download thread itself would never end.
  if (qorThreadSelfId() == rtmThreadRteDn) {
    _qorAssert("taskIdSelf() != rtmThreadRteDn", __FILE__, __LINE__, long(vrfId));
  } else {
    while (rtmThreads > 0 && qorThreadIsSuspended(rtmThreads, rtmThreadRteDn) == 0)
      if (qorThreadYield(rtmThreads) < 0) break;
  }
  // A thread that was resting never saw the flag: what its walks would have reset is reset here.
  curDnldThrMaxTreeVer[vrfId][afIndex] = superMaxTreeVer[vrfId][afIndex] = 0;
  if (rt_client *dummy = dummySuperClient[afIndex]; dummy && dummy->rtc_vrf[vrfId]) dummy->rtc_vrf[vrfId]->rvi_version = 0;
  rtmDnldRestart[vrfId][afIndex] = 0;
}

void updateBgpRoutesInRib(uint8_t afIndex) {
  qor_radix_tree *tree = rtmRibGetTree(afIndex, 0);
  if (!tree) return;
  BgpCtx ctx{tree, afIndex};
  qorRadixWalk(tree, 0, rtmBgpRuleChInRibWalkCB, 0, &ctx);
}

// ---- The thread ---------------------------------------------------------------------------

int rtmDownloadPass() {
  g_pass.suspendOk = 1;
  g_pass.regularStranded = false;
  for (uint32_t vrfId = 0; vrfId < MAX_VRF; ++vrfId) {
    if (g_rtmVrfInUse[vrfId] != 1) continue;
    qor_radix_tree *t4 = rtmRibGetTree(RTM_IPV4UNI_AFINDEX, vrfId);
    qor_radix_tree *t6 = rtmRibGetTree(RTM_IPV6UNI_AFINDEX, vrfId);
    if (!t4 || !t6) continue;
    g_pass.pRibTree[vrfId][RTM_IPV4UNI_AFINDEX] = t4;
    g_pass.pRibTree[vrfId][RTM_IPV6UNI_AFINDEX] = t6;
    for (uint8_t afIndex : kFamilies) {
      qor_radix_tree *tree = g_pass.pRibTree[vrfId][afIndex];
      runRegular(vrfId, afIndex, tree);
      runSuper(vrfId, afIndex, tree);
    }
    // The last VRF in use decides, not all of them.
    g_pass.suspendOk = (g_pass.dnldDone[0] && g_pass.dnldDone[2]) || (g_pass.allCongested[0] && g_pass.allCongested[2]);
  }
  if (rtmClientHooks.rtmIssuStartRestore) rtmClientHooks.rtmIssuStartRestore(0);
  if (g_pass.regularStranded) g_pass.suspendOk = 0;
  return static_cast<int>(g_pass.suspendOk);
}

void rtmDownloadMain(void *) {
  for (uint8_t afIndex : kFamilies) g_pass.pRibTree[0][afIndex] = rtmRibGetTree(afIndex, 0);
  for (;;) {
    if (g_rtmAuditInProgress) {
      qorHistory("rtmDownloadMain SUSPEND SELF - ISSU AuditInProgress\r\n");
      qorThreadResume(rtmThreads, rtmThreadPoll);
      qorThreadSuspendSelf(rtmThreads);
    }
    if (rtmDownloadPass()) {
      handOverToPoller();
      qorThreadSuspendSelf(rtmThreads);
    } else {
      qorThreadYield(rtmThreads);
    }
  }
}

void rtmDownloadInit() {
  rtmFrameSetHandler(MT_RTM_DNLD_CNTRL, onDnldCntrl);
  rtmClientHooks.rtmDownloadErrCB = rtmDownloadErrCB;
}

void rtmDownloadReset() {
  for (auto &row : rtmDnldRestart)
    for (auto &f : row) f = 0;
  memset(curDnldThrMaxTreeVer, 0, sizeof curDnldThrMaxTreeVer);
  memset(superMaxTreeVer, 0, sizeof superMaxTreeVer);
  rtmdnldpollresume = 0;
  g_rtmAuditInProgress = 0;
  // An open message of a walk cut off by the reset belongs to pools that are gone.
  g_pass = PassState{};
}
