// Route messages for FIB clients: the bundler that turns RIB heads into commands, and the send
// that hands a finished message to a client's queue or to every member of a super group.
//
// One path serves both families: the command and next-hop layouts differ, so they are read
// from RTM_FIBCMD_LAYOUT, and the few rules that differ on purpose between the families (the
// IPv6 connected routes left out, the loopback next hop, the TLV block of IPv4 adds) are
// tested on afIndex where they apply. A message stays open while it is shorter than the
// family's send mark, which leaves room for the largest route behind it; the whole size of a
// command is known before anything of it is written, so a route that would not fit changes
// neither the message nor its counts.
#include <cstring>

#include "addr/qor_addr.h"
#include "clients/rtm_client.h"
#include "download/rtm_download.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "interfaces/rtm_if.h"
#include "log/qor_log.h"
#include "nexthop/rtm_nh.h"
#include "rib/rtm_rib.h"
#include "swp/qor_swp.h"
#include "timer/qor_timer.h"

using rtm::ld32;
using rtm::st16;
using rtm::st32;
using rtm::st8;

namespace {
constexpr uint32_t kDebugDownload = 0x2;

struct FamilyText {
  const char *unknownOp;  // the event text of a bad operation keeps its historical spacing
  const char *fn;
};
constexpr FamilyText kText[2] = {{"RTM:rtmDownloadBundleRouteIPv4", "RTM: rtmDownloadBundleRouteIPv4"},
                                 {"RTM:rtmDownloadBundleRouteIPv6", "RTM: rtmDownloadBundleRouteIPv6"}};

uint8_t *allocMsg() {
  return static_cast<uint8_t *>(RTM_POOL_ALLOC(RTM_MEM_TAG_RIB, RTM_FIBUPD_CAPACITY, RTM_SWP_DNLD_POOL));
}
void freeMsg(uint8_t *buf) {
  if (buf) RTM_POOL_FREE(buf);
}

bool dnldOn(const rt_client *rtc, uint32_t vrfId) {
  const rtClientVrfInfo *rvi = vrfId < MAX_VRF ? rtc->rtc_vrf[vrfId] : nullptr;
  return rvi && (rvi->rvi_ruleFlags[0] & RVI_DNLD_ON);
}

// Only the FIB agent programs VRF 512, the VRF of addresses.
bool seesVrf(const rt_client *rtc, uint32_t vrfId) { return vrfId != MAX_VRF - 1 || rtc->rtc_proto == RTM_PROTO_FIB; }

bool isLinkLocalBlock(const rt_head *head) {
  return rtmh_prefixlen(head) == 10 && rtmh_prefix(head)[0] == 0xFE && rtmh_prefix(head)[1] == 0x80;
}

// What a command shows as the route's protocol.
uint32_t wireProto(const rt_entry *rte) {
  if (rte->rte_subtype == RT_UNNUMBERED) return RTM_PROTO_POS;
  if (rte->rte_proto == RTM_PROTO_VRRP) return RTM_PROTO_CONNECTED;
  return rte->rte_proto;
}

int enqueue(rt_client *rtc, uint8_t *buf, uint32_t len) {
  if (qorSwpEnqueue(rtc->rtc_dnldQ, buf, len) == QOR_SWP_OK) return RTM_SUCCESS;
  char name[41];
  qorSysErr(rtmevkey, 0, 0x14800c, 0, "RTM: rtmDownloadSend", rtmClientName(rtc, name), rtc->rtc_dnldQ, len);
  return RTM_FAILURE;
}

// The dummy client's message goes to each member: the first takes the buffer itself, the
// later ones a copy. A shortage or a refused queue ends the round.
int sendToGroup(uint8_t afIndex, uint8_t *buf, uint32_t len, uint32_t vrfId) {
  bool taken = false;
  int result = RTM_SUCCESS;
  for (QOR_DLL_NODE *n = qorDLLGetFirst(&superClients[afIndex]); n; n = qorDLLGetNext(n)) {
    rt_client *m = rtmClientOfNode(n);
    if (!m) continue;
    if (!rtmProtoIsDownload(m->rtc_proto)) {
      qorDebugPrintf("\r\nError!!! client proto is %x", m->rtc_proto);
      continue;
    }
    if (!seesVrf(m, vrfId) || m->rtc_dnldState == RTC_Q_STOPPED || !m->rtc_dnldQ || !dnldOn(m, vrfId)) continue;
    if (rtmDownloadBgpRoutesToIpm1[afIndex] == 0 && (m->rtc_proto == RTM_PROTO_IPM || m->rtc_proto == RTM_PROTO_IPM6) &&
        m->rtc_instance == 1) {
      _qorAssert("0", __FILE__, __LINE__, long(m->rtc_cid));  // such a member may not stand in the group
      continue;
    }
    uint8_t *mine = buf;
    if (taken) {
      mine = allocMsg();
      if (!mine) {
        result = RTM_NO_MEMORY;
        break;
      }
      memcpy(mine, buf, len);
    }
    if (enqueue(m, mine, len) != RTM_SUCCESS) {
      if (taken) freeMsg(mine);
      result = RTM_FAILURE;
      break;
    }
    taken = true;
    ++m->rtc_superSendCount;
  }
  // With nobody to take it (a member failed since the last validation) the message is dropped.
  if (!taken) freeMsg(buf);
  return result;
}

// Bytes a command of this operation takes: the command, its next hops and TLV block.
size_t commandBytes(const rtm_fibcmd_layout &l, uint32_t op, const rt_entry *rte) {
  if (op != RT_ADD) return l.cmdLen;
  size_t n = l.cmdLen + size_t(rte->rte_nnh) * l.nhLen;
  if (l.tlvlen != RTM_FIBCMD_NO_FIELD) n += rte->rte_tlvlen;
  return n;
}

// Writes the next hops of an add behind its command; false after the assertion of a missing
// next hop.
bool writeNextHops(uint8_t afIndex, const rtm_fibcmd_layout &l, const rt_client *client, const rt_head *head,
                   const rt_entry *rte, uint32_t vrfId, uint8_t *at) {
  const bool v6 = afIndex == RTM_IPV6UNI_AFINDEX;
  const unsigned hostLen = rtmAfKeyBits(afIndex);
  rt_nh *const *nhs = rtmRteNh(rte);
  for (unsigned i = 0; i < rte->rte_nnh; ++i, at += l.nhLen) {
    const rt_nh *nh = nhs[i];
    if (!nh) {
      _qorAssert("pRtNh", __FILE__, __LINE__, long(i));
      return false;
    }
    uint32_t ifindex = nh->rtn_ifindex;
    // The agent must know a leaked route's next hop before the route: that VRF's FIFO comes
    // later in this pass, so it is drained now.
    if (!v6 && nh->rtn_vrfId > vrfId) rtmNhDownloadFromFifo(RTM_IPV4UNI_AFINDEX, nh->rtn_vrfId);
    st32(at, l.nhIfindex, ifindex);
    if (rte->rte_wecmp) st32(at, l.nhWeight, nh->rtn_weight);
    uint8_t *addr = at + l.nhAddr;
    if (rtmAF_IsAddrNonZero(afIndex, nh->rtn_addr)) {
      memcpy(addr, nh->rtn_addr, l.addrLen);
    } else if (!v6 && ifmIfIndexToIfType(ifindex) == RTM_IFTYPE_LOOPBACK && rtmh_prefixlen(head) == hostLen) {
      rtmAF_SetLoopback(afIndex, addr);
      if (rtmdebug & kDebugDownload) qorDebugPrintf("%s:%d Setting loopback when sending", __FILE__, __LINE__);
    } else if (rte->rte_subtype == RT_UNNUMBERED && client->rtc_proto == RTM_PROTO_FIB) {
      memcpy(addr, rtmh_prefix(head), l.addrLen);
    }
    st32(at, l.nhVrfId, nh->rtn_vrfId);
    // IPv6 host routes on a loopback go out on no interface, whatever address they had.
    if (v6 && ifmIfIndexToIfType(ifindex) == RTM_IFTYPE_LOOPBACK && rtmh_prefixlen(head) == hostLen) {
      st32(at, l.nhIfindex, 0);
      rtmAF_SetLoopback(afIndex, addr);
    }
  }
  if (l.tlvlen != RTM_FIBCMD_NO_FIELD && rte->rte_tlvlen) memcpy(at, rtmRteTlv(rte), rte->rte_tlvlen);
  return true;
}

int bundleRoute(uint8_t afIndex, rt_client *client, uint32_t op, uint8_t **localBuf, rt_head *head, int mode,
                uint32_t vrfId) {
  const unsigned form = afIndex >= 2 ? 1 : 0;
  const rtm_fibcmd_layout &l = RTM_FIBCMD_LAYOUT[form];
  if (op != RT_ADD && op != RT_DEL && op != RT_FLUSH) {
    qorSysErr(rtmevkey, 0, 0x148004, 0, kText[form].unknownOp, op);
    return RTM_FAILURE;
  }
  if (!client || !localBuf || !head) {
    _qorAssert("pBuf", __FILE__, __LINE__, 0);
    return RTM_FAILURE;
  }
  const rt_entry *rte = op == RT_FLUSH ? nullptr : head->rtmh_rte;
  // IPv6 connected routes are the interfaces' own business, but for the link-local block.
  if (form == 1 && rte && rte->rte_subtype == 1 && !isLinkLocalBlock(head)) return RTM_SUCCESS;

  uint8_t *buf = *localBuf;
  if (mode == RTM_BUNDLE_NEW || !buf) {
    if (buf && mode == RTM_BUNDLE_NEW) {
      _qorAssert("*localBuf == NULL", __FILE__, __LINE__, 0);
      freeMsg(buf);
    }
    *localBuf = nullptr;
    buf = allocMsg();
    if (!buf) return RTM_NO_MEMORY;
    rtmDownloadBuildIpcHdr(buf, l.mtype, RTM_FIBUPD_LEN);
    st32(buf, RTM_FIBUPD_OFF_CAPACITY, RTM_FIBUPD_CAPACITY);
    st8(buf, RTM_FIBUPD_OFF_AFINDEX, form == 1 ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX);
    *localBuf = buf;
  } else if (mode != RTM_BUNDLE_APPEND && mode != RTM_BUNDLE_SEND) {
    *localBuf = nullptr;
    if (RTM_POOL_FREE(buf) != 0) qorSysErr(rtmevkey, 0, 0x148001, 0, kText[form].fn, mode);
    return RTM_FAILURE;
  }

  uint32_t len = ld32(buf, IPC_OFF_MLEN);
  if (op != RT_FLUSH) {
    if (op == RT_ADD && (!rte || rte->rte_nnh == 0)) {
      qorSysErr(rtmevkey, 0, 0x14800d, 0, kText[form].fn, vrfId, rtmh_prefixlen(head));
      return RTM_FAILURE;
    }
    const size_t need = commandBytes(l, op, rte);
    if (len + need > RTM_FIBUPD_CAPACITY) {
      qorSysErr(rtmevkey, 0, 0x148006, 0, kText[form].fn, uint32_t(len + need));
      return RTM_FAILURE;
    }
    uint8_t *cmd = buf + len;
    st32(cmd, l.op, op);
    if (rtmh_vrrp(head) == RTM_PROTO_VRRP) st32(cmd, l.marker, RTM_FIBCMD_MARKER_VRRP);
    st32(cmd, l.vrfId, vrfId);
    memcpy(cmd + l.prefix, rtmh_prefix(head), l.addrLen);
    st8(cmd, l.plen, rtmh_prefixlen(head));
    if (rte) {
      st32(cmd, l.proto, wireProto(rte));
      st32(cmd, l.metric, static_cast<uint32_t>(rte->rte_metric));
      // A delete of a route that is still there (a filtered one) shows its count though no
      // next hop follows: readers step by the operation.
      st8(cmd, l.nnh, rte->rte_nnh);
    }
    if (op == RT_ADD) {
      st32(buf, RTM_FIBUPD_OFF_ADDS, ld32(buf, RTM_FIBUPD_OFF_ADDS) + 1);
      ++client->rtc_addCount;
      if (rte->rte_wecmp) st8(cmd, l.wecmp, 1);
      if (l.tlvlen != RTM_FIBCMD_NO_FIELD) st16(cmd, l.tlvlen, rte->rte_tlvlen);
      if (!writeNextHops(afIndex, l, client, head, rte, vrfId, cmd + l.cmdLen)) {
        // Nothing of the command counts: the next command is written over it.
        memset(cmd, 0, need);
        st32(buf, RTM_FIBUPD_OFF_ADDS, ld32(buf, RTM_FIBUPD_OFF_ADDS) - 1);
        --client->rtc_addCount;
        return RTM_FAILURE;
      }
    } else {
      st32(buf, RTM_FIBUPD_OFF_DELS, ld32(buf, RTM_FIBUPD_OFF_DELS) + 1);
      ++client->rtc_delCount;
    }
    len += uint32_t(need);
    st32(buf, IPC_OFF_MLEN, len);
    if (mode != RTM_BUNDLE_SEND && len < l.sendMark) return RTM_SUCCESS;
  }

  *localBuf = nullptr;
  const int sent = rtmDownloadSend(form == 1 ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX, client, buf, len, vrfId);
  if (sent != RTM_SUCCESS && sent != RTM_NO_MEMORY) qorSysErr(rtmevkey, 0, 0x148008, 0, kText[form].fn, sent);
  return sent;
}
}  // namespace

int rtmDownloadBuildIpcHdr(uint8_t *buf, uint32_t msgType, uint32_t len) {
  st32(buf, IPC_OFF_MTYPE, msgType);
  st32(buf, RTM_FIBUPD_OFF_TICK, static_cast<uint32_t>(qorTickGet()));
  st32(buf, IPC_OFF_MLEN, len);
  st32(buf, RTM_FIBUPD_OFF_ONE, 1);
  return 0;
}

int rtmDownloadBundleRouteIPv4(rt_client *client, uint32_t op, uint8_t **localBuf, rt_head *head, int mode,
                               uint32_t vrfId) {
  return bundleRoute(RTM_IPV4UNI_AFINDEX, client, op, localBuf, head, mode, vrfId);
}

int rtmDownloadBundleRouteIPv6(rt_client *client, uint32_t op, uint8_t **localBuf, rt_head *head, int mode,
                               uint32_t vrfId) {
  return bundleRoute(RTM_IPV6UNI_AFINDEX, client, op, localBuf, head, mode, vrfId);
}

int rtmDownloadSend(uint8_t afIndex, rt_client *client, uint8_t *buf, uint32_t len, uint32_t vrfId) {
  if (!client) return _qorAssert("pClient", __FILE__, __LINE__, 0), RTM_FAILURE;
  if (!buf) return _qorAssert("pBuf", __FILE__, __LINE__, 0), RTM_FAILURE;
  if (len == 0) {
    _qorAssert("bufLen > 0", __FILE__, __LINE__, 0);
    freeMsg(buf);
    return RTM_FAILURE;
  }
  if (vrfId >= MAX_VRF || g_rtmVrfInUse[vrfId] != 1 || afIndex >= 3) {
    freeMsg(buf);
    return RTM_SUCCESS;
  }
  if (client == dummySuperClient[afIndex]) return sendToGroup(afIndex, buf, len, vrfId);
  if (!dnldOn(client, vrfId)) {
    freeMsg(buf);
    return RTM_FAILURE;
  }
  if (!seesVrf(client, vrfId)) {
    freeMsg(buf);
    return RTM_SUCCESS;
  }
  if (enqueue(client, buf, len) != RTM_SUCCESS) {
    freeMsg(buf);
    return RTM_FAILURE;
  }
  ++client->rtc_sendCount;
  return RTM_SUCCESS;
}
