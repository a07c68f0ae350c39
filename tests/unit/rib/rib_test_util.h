// In-process RIB tests: the daemon brought up in-process, clients put straight into the client
// table, and routes built as the bytes a protocol sends.
#pragma once

#include "addr/qor_addr.h"
#include "frame/rtm_mem.h"
#include "nexthop/rtm_nh.h"
#include "rib/rtm_rib.h"
#include "tests/unit/clients/rtmd_fixture.h"
#include "vrf/rtm_vrf.h"

namespace ribtest {

// An rt_parms record of the family, with a full next-hop array and room for a TLV block.
struct Route {
  uint8_t af = RTM_IPV4UNI_AFINDEX;
  std::vector<uint8_t> b;

  explicit Route(uint8_t afIndex = RTM_IPV4UNI_AFINDEX) : af(afIndex), b(rtpLayout(afIndex).size + 256, 0) {
    rtpSetAfIndex(p(), afIndex);
  }
  uint8_t *p() { return b.data(); }

  Route &prefix(const char *text, unsigned plen) {
    uint8_t a[16] = {};
    EXPECT_EQ(rtmAF_AddrParse(af, text, a), 0) << text;
    memcpy(rtpPrefix(p(), af), a, rtmAfAddrLen(af));
    rtpSetPrefixLen(p(), uint8_t(plen));
    return *this;
  }
  Route &proto(uint32_t v) { return rtpSetProto(p(), v), *this; }
  Route &subtype(uint32_t v) { return rtpSetSubtype(p(), v), *this; }
  Route &pref(uint16_t v) { return rtpSetPref(p(), v), *this; }
  Route &metric(int32_t v) { return rtpSetMetric(p(), v), *this; }
  Route &vrf(uint32_t v) { return rtpSetVrfId(p(), v), rtpSetSrcVrf(p(), af, v), *this; }
  Route &srcVrf(uint32_t v) { return rtpSetSrcVrf(p(), af, v), *this; }
  Route &flags(uint32_t v) { return rtpSetFlags(p(), v), *this; }
  // Appends a next hop (address text, interface, VRF, weight).
  Route &nh(const char *text, uint32_t ifindex = 0, uint32_t vrfId = 0, uint32_t weight = 0) {
    unsigned i = rtpGetNnh(p());
    uint8_t *e = rtpNh(p(), af, i);
    EXPECT_EQ(rtmAF_AddrParse(af, text, e), 0) << text;
    rtpnhSetIfindex(e, af, ifindex);
    rtpnhSetVrfId(e, af, vrfId);
    rtpnhSetWeight(e, af, weight);
    rtpSetNnh(p(), uint16_t(i + 1));
    return *this;
  }
  Route &nnh(uint16_t n) { return rtpSetNnh(p(), n), *this; }
  Route &tlv(const std::string &bytes) {
    rtpSetTlvLen(p(), uint16_t(bytes.size()));
    memcpy(rtpTlv(p(), af, rtpGetNnh(p())), bytes.data(), bytes.size());
    return *this;
  }
};

class RibTest : public rtmtest::RtmdTest {
 protected:
  void SetUp() override {
    RtmdTest::SetUp();
    qorLogClearRecent();
  }

  // An active client of the family, served in VRF 0 (and `vrfId` if another).
  rt_client *client(uint32_t cid, uint32_t proto, uint8_t af = RTM_IPV4UNI_AFINDEX, uint32_t vrfId = 0,
                    uint32_t instance = 0) {
    rt_client &rtc = rt_client_tbl[af][cid];
    rtc.rtc_state = 1;
    rtc.rtc_cid = cid;
    rtc.rtc_proto = proto;
    rtc.rtc_afIndex = af;
    rtc.rtc_vrfId = vrfId;
    rtc.rtc_instance = instance;
    snprintf(rtc.rtc_name, sizeof rtc.rtc_name, "client%u", cid);
    for (uint32_t v : {0u, vrfId == ALL_VRF_ID ? 0u : vrfId})
      if (!rtc.rtc_vrf[v])
        rtc.rtc_vrf[v] = static_cast<rtClientVrfInfo *>(
            rtmMemAllocNonPool(__FILE__, __LINE__, sizeof(rtClientVrfInfo), 17));
    return &rtc;
  }
  rtClientVrfInfo *rvi(uint32_t cid, uint8_t af = RTM_IPV4UNI_AFINDEX, uint32_t vrfId = 0) {
    return rt_client_tbl[af][cid].rtc_vrf[vrfId];
  }

  qor_radix_tree *tree(uint8_t af = RTM_IPV4UNI_AFINDEX, uint32_t vrfId = 0) { return rtmRibGetTree(af, vrfId); }
  rt_head *head(const char *text, unsigned plen, uint8_t af = RTM_IPV4UNI_AFINDEX, qor_radix_tree *t = nullptr) {
    uint8_t a[16] = {};
    EXPECT_EQ(rtmAF_AddrParse(af, text, a), 0);
    return rtmHeadOf(qorRadixGetExact(t ? t : tree(af), a, plen));
  }
  static std::vector<rt_entry *> entries(const rt_head *rth) {
    std::vector<rt_entry *> v;
    for (rt_entry *e = rth ? rth->rtmh_rte : nullptr; e; e = e->rte_next) v.push_back(e);
    return v;
  }
  // References held on a next hop, 0 when it is not in the database.
  static int refs(const char *text, uint32_t ifindex = 0, uint32_t vrfId = 0, uint8_t af = RTM_IPV4UNI_AFINDEX) {
    uint8_t a[16] = {};
    EXPECT_EQ(rtmAF_AddrParse(af, text, a), 0);
    rt_nh *n = rtmNhFind(vrfId, af, ifindex, a);
    return n ? n->rtn_refcnt : 0;
  }

  // Blocks of the pool in use.
  static uint64_t inUse(uint32_t pool) {
    QorMemPoolStats s;
    return qorMemPoolStatsGet(pool, &s) == 0 ? s.inUse : 0;
  }

  int add(uint32_t cid, Route &r) { return rtmAddRouteIPv4(r.af, cid, r.p()); }
  int add(uint32_t cid, Route &&r) { return add(cid, r); }
  int del(uint32_t cid, Route &r) { return rtmDelRouteIPv4(r.af, cid, r.p()); }
};

}  // namespace ribtest
