// The route messages byte by byte: each kind of command against bytes written out by hand,
// the send marks, the capacity, flushes, and who a send reaches.
#include <gtest/gtest.h>

#include <functional>

#include "dnld_fixture.h"
#include "frame/rtm_mem.h"
#include "swp/qor_swp.h"
#include "tests/support/hex.h"

using namespace dltest;
using rtmtest::hex;
using std::tuple;

namespace {

constexpr uint32_t kOspf = 60, kVrrp = 61, kPos = 62, kConn = 63;

class Bundles : public DownloadTest {
 protected:
  void SetUp() override {
    DownloadTest::SetUp();
    fib4 = &agent(900, 0);
    fib6 = &agent(901, 1, RTM_IPV6UNI_AFINDEX, RTM_PROTO_FIB6);
    for (uint8_t af : {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX}) {
      proto(kOspf, RTM_PROTO_OSPF, af), proto(kVrrp, RTM_PROTO_VRRP, af);
      proto(kPos, RTM_PROTO_POS, af), proto(kConn, RTM_PROTO_CONNECTED, af);
    }
    received(*fib4->peer), received(*fib6->peer);
    ifmSetIfIndexType(7, RTM_IFTYPE_LOOPBACK);
  }
  int bundle(uint8_t af, uint32_t op, uint8_t **buf, rt_head *h, int mode) {
    rt_client *c = (af == 0 ? fib4 : fib6)->rtc();
    return af == 0 ? rtmDownloadBundleRouteIPv4(c, op, buf, h, mode, 0) : rtmDownloadBundleRouteIPv6(c, op, buf, h, mode, 0);
  }
  Agent *fib4 = nullptr, *fib6 = nullptr;
};

TEST_F(Bundles, EachKindOfCommandHasItsBytes) {
  auto with = [](Route r, std::function<void(Route &)> f) { return f(r), r; };
  struct Case {
    const char *name;
    uint32_t cid;
    Route r;
    bool deleted;  // the route is added and deleted again
    uint32_t op;
    const char *bytes;  // the command with its next hops and TLV; empty: nothing is added
  } cases[] = {
      {"IPv4 add with a TLV block", kOspf, with(route("10.1.0.0", 16), [](Route &r) { r.tlv("abc"); }), false, RT_ADD,
       "00000001 00000000 00000000 0a010000 00000004 00000014 10 01 0003 00 000000 c0a80101 00000003 00000000 00000000"
       "616263"},
      {"IPv4 host route on a loopback: loopback address, ifindex kept", kOspf, route("10.9.9.9", 32, "0.0.0.0", 7), false,
       RT_ADD,
       "00000001 00000000 00000000 0a090909 00000004 00000014 20 01 0000 00 000000 7f000001 00000007 00000000 00000000"},
      {"a shorter prefix on a loopback keeps the zero address", kOspf, route("10.9.8.0", 24, "0.0.0.0", 7), false, RT_ADD,
       "00000001 00000000 00000000 0a090800 00000004 00000014 18 01 0000 00 000000 00000000 00000007 00000000 00000000"},
      {"IPv6 host route on a loopback: ::1 on no interface, whatever the address", kOspf,
       route("2001:db8::5", 128, "fe80::1", 7), false, RT_ADD,
       "00000001 00000000 20010db8000000000000000000000005 80 000000 00000004 00000014 00000000 01 00 0000"
       "00000000000000000000000000000001 00000000 00000000 00000000"},
      {"VRRP shows as connected with the marker", kVrrp,
       with(route("10.5.0.0", 16, "192.168.1.2"), [](Route &r) { r.proto(RTM_PROTO_VRRP).pref(0).metric(0); }), false,
       RT_ADD,
       "00000001 ffffffff 00000000 0a050000 00000001 00000000 10 01 0000 00 000000 c0a80102 00000003 00000000 00000000"},
      {"a deleted prefix: protocol, metric and count 0", kOspf, route("10.6.0.0", 16), true, RT_DEL,
       "00000002 00000000 00000000 0a060000 00000000 00000000 10 00 0000 00 000000"},
      {"an IPv6 deleted prefix", kOspf, route("2001:db8:6::", 48), true, RT_DEL,
       "00000002 00000000 20010db8000600000000000000000000 30 000000 00000000 00000000 00000000 00 00 0000"},
      {"withdrawn while still active: its count shows, no next hop follows", kOspf, route("10.1.0.0", 16), false, RT_DEL,
       "00000002 00000000 00000000 0a010000 00000004 00000014 10 01 0000 00 000000"},
      {"weighted: the flag and a weight per next hop", kOspf,
       with(route("10.7.0.0", 16, "192.168.1.1", 3),
            [](Route &r) {
              r.flags(RTP_FLAG_WECMP).nh("192.168.2.1", 4, 0, 3);
              rtpnhSetWeight(rtpNh(r.p(), 0, 0), 0, 7);
            }),
       false, RT_ADD,
       "00000001 00000000 00000000 0a070000 00000004 00000014 10 02 0000 01 000000"
       "c0a80101 00000003 00000000 00000007 c0a80201 00000004 00000000 00000003"},
      {"unweighted: no weight", kOspf, with(route("10.7.0.0", 16), [](Route &r) { rtpnhSetWeight(rtpNh(r.p(), 0, 0), 0, 7); }),
       false, RT_ADD,
       "00000001 00000000 00000000 0a070000 00000004 00000014 10 01 0000 00 000000 c0a80101 00000003 00000000 00000000"},
      {"unnumbered: POS, and its own prefix as next hop for a FIB agent", kPos,
       with(route("10.8.8.8", 32, "0.0.0.0", 5), [](Route &r) { r.proto(RTM_PROTO_POS).pref(0).metric(0); }), false,
       RT_ADD,
       "00000001 00000000 00000000 0a080808 0000000a 00000000 20 01 0000 00 000000 0a080808 00000005 00000000 00000000"},
      {"an IPv6 connected route is left out", kConn,
       with(route("2001:db8:1::", 64, "2001:db8:1::1", 9), [](Route &r) { r.proto(RTM_PROTO_CONNECTED).subtype(1); }),
       false, RT_ADD, ""},
      {"but the link-local block is sent", kConn,
       with(route("fe80::", 10, "fe80::1", 9), [](Route &r) { r.proto(RTM_PROTO_CONNECTED).subtype(1).metric(0); }),
       false, RT_ADD,
       "00000001 00000000 fe800000000000000000000000000000 0a 000000 00000001 00000000 00000000 01 00 0000"
       "fe800000000000000000000000000001 00000009 00000000 00000000"},
  };
  for (Case &c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(add(c.cid, c.r), RTM_SUCCESS);
    if (c.deleted) {
      ASSERT_EQ(del(c.cid, c.r), RTM_SUCCESS);
    }
    rt_head *h = rtmHeadOf(qorRadixGetExact(rtmRibGetTree(c.r.af, 0), rtpPrefix(c.r.p(), c.r.af), rtpGetPrefixLen(c.r.p())));
    ASSERT_NE(h, nullptr);
    uint8_t *buf = nullptr;
    ASSERT_EQ(bundle(c.r.af, c.op, &buf, h, RTM_BUNDLE_APPEND), RTM_SUCCESS);
    const std::vector<uint8_t> want = hex(c.bytes);
    if (want.empty()) {
      EXPECT_EQ(buf, nullptr);
      continue;
    }
    ASSERT_NE(buf, nullptr);
    const uint32_t len = ld32(buf, IPC_OFF_MLEN);
    ASSERT_EQ(len, 148 + want.size());
    EXPECT_EQ(std::vector<uint8_t>(buf + 148, buf + len), want);
    EXPECT_EQ(tuple(ld32(buf, IPC_OFF_MTYPE), ld32(buf, 20), ld32(buf, 132), ld32(buf, 136)),
              tuple(c.r.af == 0 ? 0x321Eu : 0x3221u, 1u, c.op == RT_ADD ? 1u : 0u, c.op == RT_DEL ? 1u : 0u));
    RTM_POOL_FREE(buf);
  }
  EXPECT_EQ(inUse(RTM_SWP_DNLD_POOL), 0u);
}

// A message goes out when it reaches its family's mark and not a byte before; a route that
// would pass the capacity is refused and leaves the open message as it was.
TEST_F(Bundles, MarksAndCapacity) {
  struct Case {
    const char *name;
    uint8_t af;
    unsigned plain, lastNh, lastTlv;  // one-next-hop routes, then one route of this shape
    int result;
    uint32_t len;  // of the message, sent or still open
    bool sent;
  } cases[] = {
      {"IPv4 one byte below the mark stays open", 0, 122, 1, 27, RTM_SUCCESS, 6079, false},
      {"IPv4 at the mark goes out", 0, 122, 1, 28, RTM_SUCCESS, 6080, true},
      {"IPv6 below the mark stays open", 2, 57, 7, 0, RTM_SUCCESS, 4492, false},
      {"IPv6 at the mark goes out", 2, 57, 8, 0, RTM_SUCCESS, 4520, true},
      {"past 8192 bytes is refused", 0, 123, 1, 2200, RTM_FAILURE, 6052, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    Agent &a = c.af == 0 ? *fib4 : *fib6;
    uint8_t *buf = nullptr;
    char p[64];
    for (unsigned i = 0; i < c.plain; ++i) {
      snprintf(p, sizeof p, c.af == 0 ? "10.100.%u.0" : "2001:db8:100:%x::", i);
      Route r = route(p, c.af == 0 ? 24 : 64);
      ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
      ASSERT_EQ(bundle(c.af, RT_ADD, &buf, head(p, c.af == 0 ? 24 : 64, c.af), RTM_BUNDLE_APPEND), 0);
    }
    const char *lp = c.af == 0 ? "10.200.0.0" : "2001:db8:200::";
    const unsigned ll = c.af == 0 ? 16 : 48;
    Route last = route(lp, ll);
    last.b.resize(last.b.size() + c.lastTlv);
    for (unsigned i = 1; i < c.lastNh; ++i) last.nh(c.af == 0 ? "192.168.9.9" : "fe80::9", 10 + i);
    if (c.lastTlv) last.tlv(std::string(c.lastTlv, 'x'));
    ASSERT_EQ(add(kOspf, last), RTM_SUCCESS);
    const uint32_t adds = ld32(buf, 132);
    EXPECT_EQ(bundle(c.af, RT_ADD, &buf, head(lp, ll, c.af), RTM_BUNDLE_APPEND), c.result);
    std::vector<Msg> got = ofType(received(*a.peer), c.af == 0 ? MT_RTM_FIB_ROUTE : MT_RTM6_FIB_ROUTE);
    ASSERT_EQ(tuple(got.size(), buf == nullptr), tuple(c.sent ? 1u : 0u, c.sent));
    if (c.sent) {
      EXPECT_EQ(tuple(got[0].size(), decode(got[0]).size()), tuple(c.len, c.plain + 1));
    } else {
      EXPECT_EQ(tuple(ld32(buf, IPC_OFF_MLEN), ld32(buf, 132), qorLogCount(0x148006)),
                tuple(c.len, c.result == RTM_SUCCESS ? adds + 1 : adds, c.result == RTM_SUCCESS ? 0u : 1u));
      RTM_POOL_FREE(buf);
    }
  }
}

TEST_F(Bundles, FlushesAndRefusals) {
  // A flush of an empty message sends the header alone.
  uint8_t zero[128] = {};
  for (Agent *a : {fib4, fib6}) {
    uint8_t *buf = nullptr;
    ASSERT_EQ(bundle(a->af, RT_FLUSH, &buf, reinterpret_cast<rt_head *>(zero), RTM_BUNDLE_SEND), RTM_SUCCESS);
    std::vector<Msg> got = ofType(received(*a->peer), a->af == 0 ? MT_RTM_FIB_ROUTE : MT_RTM6_FIB_ROUTE);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(tuple(got[0].size(), decode(got[0]).size()), tuple(148u, 0u));
  }
  Route r = route("10.1.0.0", 16);
  ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
  ASSERT_EQ(del(kOspf, r), RTM_SUCCESS);
  rt_head *gone = head("10.1.0.0", 16);
  struct Case {
    const char *name;
    uint32_t op;
    int mode;
    uint32_t event;
    const char *text;
  } cases[] = {
      {"an unknown operation", RT_DO_NOTHING, RTM_BUNDLE_APPEND, 0x148004, "RTM:rtmDownloadBundleRouteIPv4"},
      {"an add without a route", RT_ADD, RTM_BUNDLE_APPEND, 0x14800d, "RTM: rtmDownloadBundleRouteIPv4"},
      {"an unknown mode frees the open message", RT_DEL, 7, 0, ""},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    uint8_t *buf = nullptr;
    ASSERT_EQ(bundle(0, RT_DEL, &buf, gone, RTM_BUNDLE_APPEND), RTM_SUCCESS);
    qorLogClearRecent();
    EXPECT_EQ(bundle(0, c.op, &buf, gone, c.mode), RTM_FAILURE);
    EXPECT_EQ(qorLogLast(c.event) ? qorLogLast(c.event)->text : "", c.text);
    EXPECT_EQ(buf == nullptr, c.mode != RTM_BUNDLE_APPEND);
    if (buf) {  // the first delete only
      EXPECT_EQ(ld32(buf, IPC_OFF_MLEN), 148u + 32u);
      RTM_POOL_FREE(buf);
    }
  }
  // Only the two flushed headers are held, on the agents' queues.
  EXPECT_EQ(inUse(RTM_SWP_DNLD_POOL), 2u);
}

// The dummy client's message reaches every member that may take it, the first the buffer
// itself and the others copies; for a real client, the VRF and the download flag decide.
TEST_F(Bundles, WhoASendReaches) {
  Agent &b = agent(902, 2), &c = agent(903, 3);
  for (Agent *a : {&c, &b, fib4}) {  // newest first: fib4, b, c
    rtmValidateOneSuperClient(a->rtc(), 0);
    rtmRemoveClientFromList(&regularClients[0], a->rtc());
    ASSERT_EQ(rtmAddClientToList(&superClients[0], a->rtc()), 0);
    received(*a->peer);
  }
  rt_client *dummy = dummySuperClient[0];
  struct Case {
    const char *name;
    std::function<void()> arrange;
    rt_client *to;
    int result;
    std::vector<size_t> got;
  } cases[] = {
      {"every member", [] {}, dummy, RTM_SUCCESS, {1, 1, 1}},
      {"not one whose download is off", [&] { c.rtc()->rtc_vrf[0]->rvi_ruleFlags[0] &= uint8_t(~RVI_DNLD_ON); }, dummy,
       RTM_SUCCESS, {1, 1, 0}},
      {"nor one whose queue failed", [&] { b.rtc()->rtc_dnldState = RTC_Q_STOPPED; }, dummy, RTM_SUCCESS, {1, 0, 0}},
      {"no copy to be had: the rest get nothing",
       [&] {
         b.rtc()->rtc_dnldState = RTC_Q_REGISTERED;
         qorMemFailNext(RTM_SWP_DNLD_POOL, 1);
       },
       dummy, RTM_NO_MEMORY, {1, 0, 0}},
      {"nobody left to take it", [&] { fib4->rtc()->rtc_dnldState = b.rtc()->rtc_dnldState = RTC_Q_STOPPED; }, dummy,
       RTM_SUCCESS, {0, 0, 0}},
      {"a client whose download is off", [] {}, c.rtc(), RTM_FAILURE, {0, 0, 0}},
      {"a VRF not in use takes nothing", [&] { g_rtmVrfInUse[0] = 0; }, fib4->rtc(), RTM_SUCCESS, {0, 0, 0}},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(k.name);
    auto *m = static_cast<uint8_t *>(RTM_POOL_ALLOC(RTM_MEM_TAG_RIB, 8192, RTM_SWP_DNLD_POOL));
    rtmDownloadBuildIpcHdr(m, MT_RTM_FIB_ROUTE, 148);
    const uint64_t held = inUse(RTM_SWP_DNLD_POOL) - 1;
    k.arrange();
    EXPECT_EQ(rtmDownloadSend(0, k.to, m, 148, 0), k.result);
    std::vector<size_t> got;
    for (Agent *a : {fib4, &b, &c}) got.push_back(ofType(received(*a->peer), MT_RTM_FIB_ROUTE).size());
    EXPECT_EQ(got, k.got);
    // What is not on a queue is back in the pool.
    EXPECT_EQ(inUse(RTM_SWP_DNLD_POOL), held + got[0] + got[1] + got[2]);
  }
  g_rtmVrfInUse[0] = 1;
  EXPECT_EQ(fib4->rtc()->rtc_superSendCount, 4u);
  EXPECT_EQ(b.rtc()->rtc_superSendCount, 2u);
}

}  // namespace
