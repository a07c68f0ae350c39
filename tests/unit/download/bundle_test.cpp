// The route messages byte by byte: each kind of command against bytes written out by hand,
// the send marks, the capacity, flushes, and the fan-out to a super group.
#include <gtest/gtest.h>

#include <functional>

#include "dnld_fixture.h"
#include "frame/rtm_mem.h"
#include "swp/qor_swp.h"

using namespace dltest;

namespace {

constexpr uint32_t kOspf = 60, kVrrp = 61, kPos = 62, kConn = 63;

std::vector<uint8_t> hex(const std::string &text) {
  std::vector<uint8_t> out;
  std::string digits;
  for (char c : text)
    if (isxdigit(static_cast<unsigned char>(c))) digits += c;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) out.push_back(uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return out;
}

class Bundles : public DownloadTest {
 public:
  void SetUp() override {
    DownloadTest::SetUp();
    fib4 = &agent(900, 0, RTM_IPV4UNI_AFINDEX);
    fib6 = &agent(901, 1, RTM_IPV6UNI_AFINDEX, RTM_PROTO_FIB6);
    for (uint8_t af : {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX}) {
      proto(kOspf, RTM_PROTO_OSPF, af);
      proto(kVrrp, RTM_PROTO_VRRP, af);
      proto(kPos, RTM_PROTO_POS, af);
      proto(kConn, RTM_PROTO_CONNECTED, af);
    }
    received(*fib4->peer), received(*fib6->peer);
  }
  rt_head *head(uint8_t af, const char *prefix, unsigned plen) {
    uint8_t a[16] = {};
    EXPECT_EQ(rtmAF_AddrParse(af, prefix, a), 0);
    return rtmHeadOf(qorRadixGetExact(rtmRibGetTree(af, 0), a, plen));
  }
  static int bundle(uint8_t af, rt_client *c, uint32_t op, uint8_t **buf, rt_head *h, int mode) {
    return af == 0 ? rtmDownloadBundleRouteIPv4(c, op, buf, h, mode, 0) : rtmDownloadBundleRouteIPv6(c, op, buf, h, mode, 0);
  }
  Agent *fib4 = nullptr, *fib6 = nullptr;
};

TEST_F(Bundles, EachKindOfCommandHasItsBytes) {
  struct Case {
    const char *name;
    uint8_t af;
    std::function<void(Bundles &)> setup;
    const char *prefix;
    unsigned plen;
    uint32_t op;
    const char *bytes;  // the command with its next hops and TLV; empty: nothing is added
  } cases[] = {
      {"IPv4 add with a TLV block", 0,
       [](Bundles &t) {
         Route r = ospf("10.1.0.0", 16);
         r.tlv("abc");
         ASSERT_EQ(t.add(kOspf, r), RTM_SUCCESS);
       },
       "10.1.0.0", 16, RT_ADD,
       "00000001 00000000 00000000 0a010000 00000004 00000014 10 01 0003 00 000000"
       "c0a80101 00000003 00000000 00000000 616263"},
      {"IPv4 host route on a loopback: loopback address, ifindex kept", 0,
       [](Bundles &t) {
         ifmSetIfIndexType(7, RTM_IFTYPE_LOOPBACK);
         Route r = ospf("10.9.9.9", 32, "0.0.0.0", 7);
         ASSERT_EQ(t.add(kOspf, r), RTM_SUCCESS);
       },
       "10.9.9.9", 32, RT_ADD,
       "00000001 00000000 00000000 0a090909 00000004 00000014 20 01 0000 00 000000"
       "7f000001 00000007 00000000 00000000"},
      {"IPv4 shorter prefix on a loopback keeps the zero address", 0,
       [](Bundles &t) {
         ifmSetIfIndexType(7, RTM_IFTYPE_LOOPBACK);
         Route r = ospf("10.9.8.0", 24, "0.0.0.0", 7);
         ASSERT_EQ(t.add(kOspf, r), RTM_SUCCESS);
       },
       "10.9.8.0", 24, RT_ADD,
       "00000001 00000000 00000000 0a090800 00000004 00000014 18 01 0000 00 000000"
       "00000000 00000007 00000000 00000000"},
      {"IPv6 host route on a loopback: ::1 on no interface, whatever the address", 2,
       [](Bundles &t) {
         ifmSetIfIndexType(7, RTM_IFTYPE_LOOPBACK);
         Route r = ospf6("2001:db8::5", 128, "fe80::1", 7);
         ASSERT_EQ(t.add(kOspf, r), RTM_SUCCESS);
       },
       "2001:db8::5", 128, RT_ADD,
       "00000001 00000000 20010db8000000000000000000000005 80 000000 00000004 00000014 00000000 01 00 0000"
       "00000000000000000000000000000001 00000000 00000000 00000000"},
      {"VRRP shows as connected with the marker", 0,
       [](Bundles &t) {
         Route r;
         r.prefix("10.5.0.0", 16).proto(RTM_PROTO_VRRP).nh("192.168.1.2", 3);
         ASSERT_EQ(t.add(kVrrp, r), RTM_SUCCESS);
       },
       "10.5.0.0", 16, RT_ADD,
       "00000001 ffffffff 00000000 0a050000 00000001 00000000 10 01 0000 00 000000"
       "c0a80102 00000003 00000000 00000000"},
      {"a deleted prefix: protocol, metric and count 0", 0,
       [](Bundles &t) {
         Route r = ospf("10.6.0.0", 16);
         ASSERT_EQ(t.add(kOspf, r), RTM_SUCCESS);
         ASSERT_EQ(t.del(kOspf, r), RTM_SUCCESS);
       },
       "10.6.0.0", 16, RT_DEL, "00000002 00000000 00000000 0a060000 00000000 00000000 10 00 0000 00 000000"},
      {"IPv6 deleted prefix", 2,
       [](Bundles &t) {
         Route r = ospf6("2001:db8:6::", 48);
         ASSERT_EQ(t.add(kOspf, r), RTM_SUCCESS);
         ASSERT_EQ(t.del(kOspf, r), RTM_SUCCESS);
       },
       "2001:db8:6::", 48, RT_DEL,
       "00000002 00000000 20010db8000600000000000000000000 30 000000 00000000 00000000 00000000 00 00 0000"},
      {"a withdrawn route that is still active shows its count, no next hops follow", 0,
       [](Bundles &t) {
         Route r = ospf("10.1.0.0", 16);
         ASSERT_EQ(t.add(kOspf, r), RTM_SUCCESS);
       },
       "10.1.0.0", 16, RT_DEL, "00000002 00000000 00000000 0a010000 00000004 00000014 10 01 0000 00 000000"},
      {"weighted: flag and a weight per next hop", 0,
       [](Bundles &t) {
         Route r;
         r.prefix("10.7.0.0", 16).proto(RTM_PROTO_OSPF).pref(110).metric(5).flags(RTP_FLAG_WECMP);
         r.nh("192.168.1.1", 3, 0, 7).nh("192.168.2.1", 4, 0, 3);
         ASSERT_EQ(t.add(kOspf, r), RTM_SUCCESS);
       },
       "10.7.0.0", 16, RT_ADD,
       "00000001 00000000 00000000 0a070000 00000004 00000005 10 02 0000 01 000000"
       "c0a80101 00000003 00000000 00000007 c0a80201 00000004 00000000 00000003"},
      {"unweighted routes carry no weight", 0,
       [](Bundles &t) {
         Route r;
         r.prefix("10.7.0.0", 16).proto(RTM_PROTO_OSPF).pref(110).metric(5).nh("192.168.1.1", 3, 0, 7);
         ASSERT_EQ(t.add(kOspf, r), RTM_SUCCESS);
       },
       "10.7.0.0", 16, RT_ADD,
       "00000001 00000000 00000000 0a070000 00000004 00000005 10 01 0000 00 000000"
       "c0a80101 00000003 00000000 00000000"},
      {"an unnumbered host route shows POS and its own prefix to a FIB agent", 0,
       [](Bundles &t) {
         Route r;
         r.prefix("10.8.8.8", 32).proto(RTM_PROTO_POS).nh("0.0.0.0", 5);
         ASSERT_EQ(t.add(kPos, r), RTM_SUCCESS);
       },
       "10.8.8.8", 32, RT_ADD,
       "00000001 00000000 00000000 0a080808 0000000a 00000000 20 01 0000 00 000000"
       "0a080808 00000005 00000000 00000000"},
      {"an IPv6 connected route is left out", 2,
       [](Bundles &t) {
         Route r(RTM_IPV6UNI_AFINDEX);
         r.prefix("2001:db8:1::", 64).proto(RTM_PROTO_CONNECTED).subtype(1).nh("2001:db8:1::1", 9);
         ASSERT_EQ(t.add(kConn, r), RTM_SUCCESS);
       },
       "2001:db8:1::", 64, RT_ADD, ""},
      {"but the link-local block is sent", 2,
       [](Bundles &t) {
         Route r(RTM_IPV6UNI_AFINDEX);
         r.prefix("fe80::", 10).proto(RTM_PROTO_CONNECTED).subtype(1).nh("fe80::1", 9);
         ASSERT_EQ(t.add(kConn, r), RTM_SUCCESS);
       },
       "fe80::", 10, RT_ADD,
       "00000001 00000000 fe800000000000000000000000000000 0a 000000 00000001 00000000 00000000 01 00 0000"
       "fe800000000000000000000000000001 00000009 00000000 00000000"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    c.setup(*this);
    rt_head *h = head(c.af, c.prefix, c.plen);
    ASSERT_NE(h, nullptr);
    rt_client *client = (c.af == 0 ? fib4 : fib6)->rtc();
    uint8_t *buf = nullptr;
    ASSERT_EQ(bundle(c.af, client, c.op, &buf, h, RTM_BUNDLE_APPEND), RTM_SUCCESS);
    const std::vector<uint8_t> want = hex(c.bytes);
    if (want.empty()) {
      EXPECT_EQ(buf, nullptr);
    } else {
      ASSERT_NE(buf, nullptr);
      const uint32_t len = ld32(buf, IPC_OFF_MLEN);
      ASSERT_EQ(len, 148 + want.size());
      EXPECT_EQ(std::vector<uint8_t>(buf + 148, buf + len), want);
      EXPECT_EQ(ld32(buf, IPC_OFF_MTYPE), c.af == 0 ? 0x321Eu : 0x3221u);
      EXPECT_EQ(ld32(buf, 132), c.op == RT_ADD ? 1u : 0u);
      EXPECT_EQ(ld32(buf, 136), c.op == RT_DEL ? 1u : 0u);
      RTM_POOL_FREE(buf);
    }
  }
  EXPECT_EQ(inUse(RTM_SWP_DNLD_POOL), 0u);
}

// A message goes out when it reaches its family's mark and not a byte before; a route that
// would pass the capacity is refused and leaves the open message as it was.
TEST_F(Bundles, MarksAndCapacity) {
  struct Case {
    const char *name;
    uint8_t af;
    unsigned plain;     // one-next-hop routes first
    unsigned lastNh;    // then one route with this many next hops
    unsigned lastTlv;   // and this TLV block (IPv4)
    int result;
    uint32_t len;       // of the message, sent or still open
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
    char text[64];
    for (unsigned i = 0; i < c.plain; ++i) {
      snprintf(text, sizeof text, c.af == 0 ? "10.100.%u.0" : "2001:db8:100:%x::", i);
      Route r = c.af == 0 ? ospf(text, 24) : ospf6(text, 64);
      ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
      ASSERT_EQ(bundle(c.af, a.rtc(), RT_ADD, &buf, head(c.af, text, c.af == 0 ? 24 : 64), RTM_BUNDLE_APPEND), 0);
    }
    Route last = c.af == 0 ? ospf("10.200.0.0", 16) : ospf6("2001:db8:200::", 48);
    last.b.resize(last.b.size() + c.lastTlv);
    for (unsigned i = 1; i < c.lastNh; ++i) last.nh(c.af == 0 ? "192.168.9.9" : "fe80::9", 10 + i);
    if (c.lastTlv) last.tlv(std::string(c.lastTlv, 'x'));
    ASSERT_EQ(add(kOspf, last), RTM_SUCCESS);
    ASSERT_NE(buf, nullptr);
    const uint32_t adds = ld32(buf, 132);
    const uint32_t before = ld32(buf, IPC_OFF_MLEN);
    EXPECT_EQ(bundle(c.af, a.rtc(), RT_ADD, &buf, head(c.af, c.af == 0 ? "10.200.0.0" : "2001:db8:200::", c.af == 0 ? 16 : 48),
                     RTM_BUNDLE_APPEND),
              c.result);
    std::vector<Msg> got = ofType(received(*a.peer), c.af == 0 ? MT_RTM_FIB_ROUTE : MT_RTM6_FIB_ROUTE);
    if (c.sent) {
      EXPECT_EQ(buf, nullptr);
      ASSERT_EQ(got.size(), 1u);
      EXPECT_EQ(got[0].size(), c.len);
      EXPECT_EQ(decode(got[0]).size(), c.plain + 1);
    } else {
      EXPECT_TRUE(got.empty());
      ASSERT_NE(buf, nullptr);
      EXPECT_EQ(ld32(buf, IPC_OFF_MLEN), c.len);
      EXPECT_EQ(ld32(buf, 132), c.result == RTM_SUCCESS ? adds + 1 : adds);
      if (c.result != RTM_SUCCESS) {
        EXPECT_EQ(before, c.len);
        EXPECT_EQ(qorLogCount(0x148006), 1u);
      }
      RTM_POOL_FREE(buf);
    }
  }
}

TEST_F(Bundles, FlushesAndRefusals) {
  // A flush of an empty message sends the header alone.
  for (Agent *a : {fib4, fib6}) {
    uint8_t zero[128] = {};
    uint8_t *buf = nullptr;
    ASSERT_EQ(bundle(a->af, a->rtc(), RT_FLUSH, &buf, reinterpret_cast<rt_head *>(zero), RTM_BUNDLE_SEND), RTM_SUCCESS);
    EXPECT_EQ(buf, nullptr);
    std::vector<Msg> got = ofType(received(*a->peer), a->af == 0 ? MT_RTM_FIB_ROUTE : MT_RTM6_FIB_ROUTE);
    ASSERT_EQ(got.size(), 1u);
    ASSERT_EQ(got[0].size(), 148u);
    EXPECT_EQ(ld32(got[0].data(), 20), 1u);
    EXPECT_EQ(ld32(got[0].data(), 140), 8192u);
    EXPECT_EQ(got[0][144], a->af);
    EXPECT_TRUE(decode(got[0]).empty());
  }
  Route r = ospf("10.1.0.0", 16);
  ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
  ASSERT_EQ(del(kOspf, r), RTM_SUCCESS);
  rt_head *gone = head(0, "10.1.0.0", 16);
  struct Case {
    const char *name;
    uint32_t op;
    int mode;
    int result;
    uint32_t event;
    const char *text;
  } cases[] = {
      {"unknown operation", RT_DO_NOTHING, RTM_BUNDLE_APPEND, RTM_FAILURE, 0x148004, "RTM:rtmDownloadBundleRouteIPv4"},
      {"an add without a route", RT_ADD, RTM_BUNDLE_APPEND, RTM_FAILURE, 0x14800d, "RTM: rtmDownloadBundleRouteIPv4"},
      {"an unknown mode frees the open message", RT_DEL, 7, RTM_FAILURE, 0, ""},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    uint8_t *buf = nullptr;
    ASSERT_EQ(bundle(0, fib4->rtc(), RT_DEL, &buf, gone, RTM_BUNDLE_APPEND), RTM_SUCCESS);
    qorLogClearRecent();
    EXPECT_EQ(bundle(0, fib4->rtc(), c.op, &buf, gone, c.mode), c.result);
    if (c.event) {
      EXPECT_EQ(qorLogCount(c.event), 1u);
      ASSERT_NE(qorLogLast(c.event), nullptr);
      EXPECT_EQ(qorLogLast(c.event)->text, c.text);
    }
    if (c.mode == RTM_BUNDLE_APPEND) {
      ASSERT_NE(buf, nullptr);
      EXPECT_EQ(ld32(buf, IPC_OFF_MLEN), 148u + 32u);  // only the first delete
      RTM_POOL_FREE(buf);
    } else {
      EXPECT_EQ(buf, nullptr);
    }
  }
  // Only the two flushed headers are held, on the agents' queues.
  EXPECT_EQ(inUse(RTM_SWP_DNLD_POOL), 2u);
  EXPECT_EQ(qorSwpQueueGetLen(fib4->rtc()->rtc_dnldQ) + qorSwpQueueGetLen(fib6->rtc()->rtc_dnldQ), 2);
}

// The dummy client's message reaches every member that may take it, the first the buffer
// itself and the others copies; for a real client, the VRF and the download flag decide.
TEST_F(Bundles, WhoASendReaches) {
  Agent &b = agent(902, 2), &c = agent(903, 3);
  // The list is newest first: fib4, b, c.
  for (Agent *a : {&c, &b, fib4}) {
    rtmValidateOneSuperClient(a->rtc(), 0);
    rtmRemoveClientFromList(&regularClients[0], a->rtc());
    ASSERT_EQ(rtmAddClientToList(&superClients[0], a->rtc()), 0);
    received(*a->peer);
  }
  rt_client *dummy = dummySuperClient[0];
  auto message = [] {
    auto *m = static_cast<uint8_t *>(RTM_POOL_ALLOC(RTM_MEM_TAG_RIB, 8192, RTM_SWP_DNLD_POOL));
    rtmDownloadBuildIpcHdr(m, MT_RTM_FIB_ROUTE, 148);
    return m;
  };
  auto counts = [&] {
    std::vector<size_t> n;
    for (Agent *a : {fib4, &b, &c}) n.push_back(ofType(received(*a->peer), MT_RTM_FIB_ROUTE).size());
    return n;
  };
  struct Case {
    const char *name;
    std::function<void()> arrange;
    rt_client *to;
    int result;
    std::vector<size_t> got;
  } cases[] = {
      {"every member", [] {}, dummy, RTM_SUCCESS, {1, 1, 1}},
      {"not a member whose download is off",
       [&] { c.rtc()->rtc_vrf[0]->rvi_ruleFlags[0] &= uint8_t(~RVI_DNLD_ON); }, dummy, RTM_SUCCESS, {1, 1, 0}},
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
    uint8_t *m = message();
    const uint64_t held = inUse(RTM_SWP_DNLD_POOL) - 1;
    k.arrange();
    EXPECT_EQ(rtmDownloadSend(0, k.to, m, 148, 0), k.result);
    EXPECT_EQ(counts(), k.got);
    // Whatever happened, what is not on a queue is back in the pool.
    size_t queued = 0;
    for (size_t n : k.got) queued += n;
    EXPECT_EQ(inUse(RTM_SWP_DNLD_POOL), held + queued);
  }
  g_rtmVrfInUse[0] = 1;
  EXPECT_EQ(fib4->rtc()->rtc_superSendCount, 4u);
  EXPECT_EQ(b.rtc()->rtc_superSendCount, 2u);
}

}  // namespace
