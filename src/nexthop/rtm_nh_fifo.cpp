// Next-hop bundles, the per-VRF FIFO, and getting them to the FIB agents.
//
// New and withdrawn IPv4 next hops are written into the VRF's open bundle (an MT_RTM_FIB_NH
// message of up to 329 records) instead of being sent one by one; a full bundle is closed and
// waits in the FIFO with the others. The download thread drains the FIFO around its walks:
// every waiting bundle goes to every download client of the family that has not had it,
// the first client taking the bundle itself and the others copies. All copies of a round are
// allocated before anything is sent, so a shortage leaves the bundle in the FIFO whole for the
// next round instead of half delivered. A new agent instead gets the whole database in
// private bundles of its own (rtmNhNewClient).
#include <cstring>
#include <iterator>

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "log/qor_log.h"
#include "nexthop/rtm_nh.h"
#include "rtm/rtm_client_msgs.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_wire.h"
#include "swp/qor_swp.h"
#include "timer/qor_timer.h"

using rtm::ld32;
using rtm::st32;

QOR_DLL nhBundleFifo[MAX_VRF];
uint8_t *pNhBundle[MAX_VRF];
uint32_t rtmNhFifoSeqNoAdd[MAX_VRF], rtmNhFifoSeqNoDel[MAX_VRF];
uint8_t rtmNhClearIpRouteInProgress[MAX_VRF];
uint32_t rtmnhcount, rtmnhcount_s;

namespace {
RTM_POOL_RECORD(RTM_NH_FIFO_NODE_POOL, rtm_nh_fifo_node);

constexpr uint32_t kDebugNh = 0x80;

uint8_t *allocBundle() {
  return static_cast<uint8_t *>(RTM_POOL_ALLOC(RTM_MEM_TAG_RIB, RTM_IPC_BUF_SIZE, RTM_SWP_NH_DNLD_POOL));
}
void freeBundle(uint8_t *buf) {
  if (buf) RTM_POOL_FREE(buf);
}

void startBundle(uint8_t *buf) {
  st32(buf, IPC_OFF_MLEN, RTM_FIBNH_OFF_RECS);
  st32(buf, IPC_OFF_MTYPE, MT_RTM_FIB_NH);
  st32(buf, RTM_OWN_OFF_ONE, 1);
  st32(buf, RTM_OWN_OFF_TICK, static_cast<uint32_t>(qorTickGet()));
  st32(buf, RTM_FIBNH_OFF_COUNT, 0);
}

uint32_t bundleCount(const uint8_t *buf) { return ld32(buf, RTM_FIBNH_OFF_COUNT); }
uint32_t bundleLen(const uint8_t *buf) { return ld32(buf, IPC_OFF_MLEN); }

// Appends one record. An IPv6 address runs on to byte 23 of the record and the ifindex is
// written over its second word afterwards: that is the replay's record as agents know it.
void appendRecord(uint8_t *buf, uint32_t op, uint32_t vrfId, const rt_nh *rtn) {
  uint32_t count = bundleCount(buf);
  uint8_t *rec = buf + RTM_FIBNH_OFF_RECS + RTM_FIBNH_REC_LEN * count;
  memset(rec, 0, RTM_FIBNH_REC_LEN);
  st32(rec, RTM_FIBNH_REC_OFF_OP, op);
  st32(rec, RTM_FIBNH_REC_OFF_VRFID, vrfId);
  if (rtn->rtn_loopback && rtmAfAddrLen(rtn->rtn_afIndex) == 4)
    st32(rec, RTM_FIBNH_REC_OFF_ADDR, RTM_NH_LOOPBACK_ADDR);
  else
    memcpy(rec + RTM_FIBNH_REC_OFF_ADDR, rtn->rtn_addr, rtmAfAddrLen(rtn->rtn_afIndex));
  st32(rec, RTM_FIBNH_REC_OFF_IFINDEX, rtn->rtn_ifindex);
  st32(buf, RTM_FIBNH_OFF_COUNT, count + 1);
  st32(buf, IPC_OFF_MLEN, rtmFibNhMsgLen(count + 1));
}

void closeOpenBundle(uint32_t vrfId) {
  if (!pNhBundle[vrfId]) return;
  rtmnhcount += bundleCount(pNhBundle[vrfId]);
  pNhBundle[vrfId] = nullptr;
}

uint32_t ifTypeOf(uint32_t ifindex) {
  return rtmNhHooks.ifmIfIndexToIfType ? rtmNhHooks.ifmIfIndexToIfType(ifindex) : 0;
}

rtm_nh_fifo_node *nodeOf(QOR_DLL_NODE *n) { return reinterpret_cast<rtm_nh_fifo_node *>(n); }

// A download client that takes next hops in this round.
bool takesNextHops(const rt_client *c) { return rtmProtoIsDownload(c->rtc_proto) && c->rtc_dnldState != RTC_Q_STOPPED; }
uint64_t clientBit(const rt_client *c) { return uint64_t(1) << (c->rtc_cid & 63); }
}  // namespace

// Called with the VRF's tables; a VRF keeps a FIFO it already has.
void rtmNhFifoInit(uint32_t vrfId) {
  if (!nhBundleFifo[vrfId].head) qorDLLInit(&nhBundleFifo[vrfId]);
}

// Forgets the VRF's FIFO with its bundles, and starts its sequence over.
void rtmNhFifoDrop(uint32_t vrfId) {
  rtmNhClearFifo(RTM_IPV4UNI_AFINDEX, vrfId);
  rtmNhFifoSeqNoAdd[vrfId] = rtmNhFifoSeqNoDel[vrfId] = 0;
  rtmNhClearIpRouteInProgress[vrfId] = 0;
}

int rtmNhBundleNH(uint32_t vrfId, uint8_t afIndex, const rt_nh *rtn, uint32_t op) {
  if (!rtn || vrfId >= MAX_VRF) return RTM_SUCCESS;
  // Bundles carry IPv4 next hops only.
  if (rtmAfAddrLen(afIndex) != 4) return RTM_SUCCESS;
  if (op != RTM_NH_OP_ADD && op != RTM_NH_OP_DEL) {
    qorSysErr(rtmevkey, 0, 0x148004, 0, "RTM:rtmNhBundleNH", op);
    return RTM_FAILURE;
  }
  if (rtmNhClearIpRouteInProgress[vrfId]) return RTM_SUCCESS;
  if (!pNhBundle[vrfId]) {
    uint8_t *buf = allocBundle();
    if (!buf) return RTM_NO_MEMORY;
    if (!rtmNhAddToFifo(buf, vrfId)) {
      freeBundle(buf);
      return RTM_NO_MEMORY;
    }
    startBundle(buf);
    pNhBundle[vrfId] = buf;
  }
  uint8_t *buf = pNhBundle[vrfId];
  appendRecord(buf, op, vrfId, rtn);
  if (bundleLen(buf) >= RTM_NH_BUNDLE_CLOSE) closeOpenBundle(vrfId);
  return RTM_SUCCESS;
}

rtm_nh_fifo_node *rtmNhAddToFifo(uint8_t *buf, uint32_t vrfId) {
  if (vrfId >= MAX_VRF) return nullptr;
  auto *node = static_cast<rtm_nh_fifo_node *>(
      RTM_POOL_ALLOC(RTM_MEM_TAG_RIB, sizeof(rtm_nh_fifo_node), RTM_NH_FIFO_NODE_POOL));
  if (!node) return nullptr;
  node->fifo_seq = rtmNhFifoSeqNoAdd[vrfId]++;
  node->fifo_buf = buf;
  node->fifo_clients = 0;
  qorDLLInsertAtBack(&nhBundleFifo[vrfId], &node->link);
  return node;
}

void rtmNhRemoveFromFifo(rtm_nh_fifo_node *node, uint32_t vrfId) {
  if (!node || vrfId >= MAX_VRF) return;
  // Bundles leave in the order they came; anything else means a lost or repeated bundle.
  if (node->fifo_seq != rtmNhFifoSeqNoDel[vrfId]) _qorAssert("0", __FILE__, __LINE__, long(node->fifo_seq));
  qorDLLRemove(&nhBundleFifo[vrfId], &node->link);
  RTM_POOL_FREE(node);
  ++rtmNhFifoSeqNoDel[vrfId];
}

void rtmNhClearFifo(uint8_t, uint32_t vrfId) {
  if (vrfId >= MAX_VRF) return;
  pNhBundle[vrfId] = nullptr;
  while (QOR_DLL_NODE *n = qorDLLGetFirst(&nhBundleFifo[vrfId])) {
    rtm_nh_fifo_node *node = nodeOf(n);
    // No client took these buffers, so they are still ours to free.
    freeBundle(node->fifo_buf);
    rtmNhRemoveFromFifo(node, vrfId);
  }
}

int rtmNhSend(rt_client *client, uint8_t *buf, uint32_t len) {
  if (!client || !buf) return -1;
  if (client->rtc_dnldState == RTC_Q_STOPPED) return 1;
  uint32_t count = bundleCount(buf);
  if (qorSwpEnqueue(client->rtc_dnldQ, buf, len) != QOR_SWP_OK) return -1;
  rtmnhcount_s += count;
  return 0;
}

void rtmNhDownloadFromFifo(uint8_t afIndex, uint32_t vrfId) {
  if (afIndex != RTM_IPV4UNI_AFINDEX && afIndex != RTM_IPV6UNI_AFINDEX) return;
  if (vrfId >= MAX_VRF || !rtmNhGetTree(vrfId, afIndex)) return;
  closeOpenBundle(vrfId);
  if (rtmNhClearIpRouteInProgress[vrfId]) {
    rtmNhClearFifo(afIndex, vrfId);
    return;
  }
  QOR_DLL *lists[2] = {&regularClients[afIndex], &superClients[afIndex]};
  while (QOR_DLL_NODE *n = qorDLLGetFirst(&nhBundleFifo[vrfId])) {
    rtm_nh_fifo_node *node = nodeOf(n);
    if (!node->fifo_buf) {
      qorSysErr(rtmevkey, 0, 0x148008, 0, "RTM:rtmNhDownloadFromFifo", vrfId);
      rtmNhRemoveFromFifo(node, vrfId);
      continue;
    }
    // Counting pass: the clients that still need the bundle, and one buffer for each, all
    // allocated before anything is sent.
    struct Target {
      rt_client *rtc;
      uint8_t *buf;
      bool super;
    } targets[2 * MAX_RTM_CLEINTS];
    uint32_t nt = 0;
    uint64_t counted = 0;  // a client on both lists is served once
    bool shortage = false;
    for (int l = 0; l < 2 && !shortage; ++l) {
      for (QOR_DLL_NODE *c = qorDLLGetFirst(lists[l]); c; c = qorDLLGetNext(c)) {
        rt_client *rtc = rtmClientOfNode(c);
        if (!rtc || !takesNextHops(rtc)) continue;
        if ((node->fifo_clients | counted) & clientBit(rtc)) {
          char name[41];
          if (l == 0)
            qorDebugPrintf("ERROR: bitmap not zero for client %s%d %d buf %#x clientbitmap %#x %#x %#x %#x.\r\n",
                           rtmClientName(rtc, name), rtc->rtc_instance, rtc->rtc_cid,
                           static_cast<unsigned>(reinterpret_cast<uintptr_t>(node->fifo_buf)),
                           static_cast<unsigned>(node->fifo_clients >> 32), static_cast<unsigned>(node->fifo_clients),
                           0u, 0u);
          qorSysErr(rtmevkey, 0, 0x148013, 0, "RTM:rtmNhDownloadFromFifo", rtmClientName(rtc, name), rtc->rtc_cid);
          continue;
        }
        uint8_t *buf = nt < std::size(targets) ? allocBundle() : nullptr;
        if (!buf) {
          qorSysErr(rtmevkey, 0, 0x148008, 0,
                    l == 0 ? "RTM:OUT OF MEM NH SEND FAILURE 1" : "RTM:OUT OF MEM NH SEND FAILURE 2");
          shortage = true;
          break;
        }
        targets[nt++] = {rtc, buf, l == 1};
        counted |= clientBit(rtc);
      }
    }
    if (shortage) {
      for (uint32_t i = 0; i < nt; ++i) freeBundle(targets[i].buf);
      return;  // the node stays whole for the next round
    }
    if (nt == 0) {
      if (rtmdebug & kDebugNh) qorDebugPrintf("%s - No Download clients active \r\n", "rtmNhDownloadFromFifo");
      freeBundle(node->fifo_buf);
      rtmNhRemoveFromFifo(node, vrfId);
      continue;
    }
    uint32_t len = bundleLen(node->fifo_buf);
    if (len > RTM_IPC_BUF_SIZE) {
      _qorAssert("bufLen<=(1024*8)", __FILE__, __LINE__, long(len));
      len = RTM_IPC_BUF_SIZE;
    }
    // The bundle itself goes to the first client, so its spare is not needed; every copy is
    // made before the first send hands the bundle to a queue.
    freeBundle(targets[0].buf);
    targets[0].buf = node->fifo_buf;
    for (uint32_t i = 1; i < nt; ++i) memcpy(targets[i].buf, node->fifo_buf, len);
    for (uint32_t i = 0; i < nt; ++i) {
      Target &t = targets[i];
      if (rtmNhSend(t.rtc, t.buf, len) != 0) {
        qorSysErr(rtmevkey, 0, 0x148008, 0,
                  t.super ? "RTM:rtmNhDownloadFromFifoSuper" : "RTM:rtmNhDownloadFromFifoRegular", t.rtc->rtc_cid);
        freeBundle(t.buf);
      }
      node->fifo_clients |= clientBit(t.rtc);
      if (t.super) ++t.rtc->rtc_superSendCount;
    }
    node->fifo_buf = nullptr;  // every copy now belongs to a queue or has been freed
    rtmNhRemoveFromFifo(node, vrfId);
  }
}

// ---- A new client: the whole database in bundles of its own ------------------------------

namespace {
struct ReplayState {
  uint32_t vrfId;
  rt_client *client;
  uint8_t *buf;
  int err;
};

void replaySend(ReplayState &st) {
  if (!st.buf) return;
  int rc = rtmNhSend(st.client, st.buf, bundleLen(st.buf));
  if (rc != 0) {
    if (rc == -1) qorSysErr(rtmevkey, 0, 0x148008, 0, "RTM:rtmNhNewClient", st.client->rtc_cid);
    freeBundle(st.buf);
  }
  st.buf = nullptr;
}

int rtmNhNewClientWalkCB(rt_nh *rtn, void *arg) {
  auto &st = *static_cast<ReplayState *>(arg);
  uint32_t type = ifTypeOf(rtn->rtn_ifindex);
  bool zero = true;
  for (unsigned i = 0; i < rtmAfAddrLen(rtn->rtn_afIndex); ++i) zero = zero && rtn->rtn_addr[i] == 0;
  if (type == RTM_IFTYPE_NULL && zero) return 0;
  if (rtn->rtn_afIndex == RTM_IPV6UNI_AFINDEX && type == RTM_IFTYPE_ALWAYS_UP) return 0;
  if (!st.buf) {
    st.buf = allocBundle();
    if (!st.buf) return st.err = RTM_NO_MEMORY;
    startBundle(st.buf);
  }
  appendRecord(st.buf, RTM_NH_OP_ADD, st.vrfId, rtn);
  if (bundleLen(st.buf) >= RTM_NH_REPLAY_SEND) replaySend(st);
  return 0;
}
}  // namespace

int rtmNhNewClient(uint8_t afIndex, uint32_t vrfId, rt_client *client) {
  if ((afIndex != RTM_IPV4UNI_AFINDEX && afIndex != RTM_IPV6UNI_AFINDEX) || !client) return RTM_SUCCESS;
  uint32_t first = vrfId == 0xFFFF ? 0 : vrfId, last = vrfId == 0xFFFF ? MAX_VRF - 1 : vrfId;
  if (first >= MAX_VRF) return RTM_FAILURE;
  for (uint32_t v = first; v <= last; ++v) {
    if (!rtmNhGetTree(v, afIndex)) continue;
    ReplayState st{v, client, nullptr, 0};
    rtmNhWalk(v, afIndex, rtmNhNewClientWalkCB, &st);
    replaySend(st);
    if (st.err) return st.err;
  }
  return RTM_SUCCESS;
}
