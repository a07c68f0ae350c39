// The download thread driven through the cooperative group: what each agent is told, the super
// group, back-pressure, failed queues, control messages, restarts and the BGP filter.
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "dnld_fixture.h"
#include "frame/rtm_mem.h"
#include "poller/rtm_poll.h"
#include "swp/qor_swp.h"
#include "vrf/rtm_vrf.h"

using namespace dltest;
using std::tuple;

namespace {

constexpr uint32_t kOspf = 60, kRip = 61, kBgp = 62;

class Walks : public DownloadTest {
 protected:
  void SetUp() override {
    DownloadTest::SetUp();
    for (uint8_t af : {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX})
      proto(kOspf, RTM_PROTO_OSPF, af), proto(kRip, RTM_PROTO_RIP, af), proto(kBgp, RTM_PROTO_BGP, af);
  }
  static unsigned tombstones(uint8_t af) {
    unsigned n = 0;
    qor_radix_tree *t = rtmRibGetTree(af, 0);
    for (qor_radix_hdr *h = qorRadixGetNext(t, nullptr); h; h = qorRadixGetNext(t, h)) n += !rtmHeadOf(h)->rtmh_rte;
    return n;
  }
  static bool holds(const rt_head *h, const Agent &a) { return (h->rtmh_redlist[a.cid >> 3] >> (a.cid & 7)) & 1; }
  static std::vector<uint32_t> ops(const Agent &a, const std::string &prefix) {
    std::vector<uint32_t> v;
    for (const Cmd &c : a.cmds)
      if (c.prefix == prefix) v.push_back(c.op);
    return v;
  }
  void addMany(const char *format, unsigned n, int32_t metric = 20) {
    char p[32];
    for (unsigned i = 0; i < n; ++i) {
      snprintf(p, sizeof p, format, i / 250, i % 250);
      Route r = route(p, 32);
      r.metric(metric);
      ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
    }
  }
};

// Random adds, replaces and deletes of two protocols in both families: afterwards each agent
// holds exactly the active routes, and no deleted prefix is left behind in the tree.
TEST_F(Walks, AgentsHoldTheActiveRoutesAfterRandomChanges) {
  Agent &a = agent(900, 0), &b = agent(901, 1), &c = agent(902, 2, RTM_IPV6UNI_AFINDEX, RTM_PROTO_FIB6);
  std::mt19937 rng(7);
  char p[64];
  for (int step = 0; step < 3000; ++step) {
    const uint8_t af = rng() % 3 == 0 ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX;
    const unsigned n = rng() % 150;
    snprintf(p, sizeof p, af == 0 ? "10.%u.%u.0" : "2001:db8:%x:%x::", n / 10, n % 10);
    const uint32_t cid = rng() % 2 ? kOspf : kRip;
    Route r = route(p, af == 0 ? 24 : 64, nullptr, 1 + rng() % 4);
    r.proto(cid == kOspf ? RTM_PROTO_OSPF : RTM_PROTO_RIP).pref(cid == kOspf ? 110 : 120).metric(int32_t(rng() % 50));
    if (rng() % 4 == 0) r.nh(af == 0 ? "192.168.2.1" : "fe80::2", 5);
    if (rng() % 3 == 0)
      del(cid, r);
    else
      ASSERT_EQ(add(cid, r), RTM_SUCCESS);
    if (rng() % 40 == 0) settle();
  }
  settle();
  EXPECT_FALSE(ribTable(0).empty());
  EXPECT_EQ(a.table, ribTable(0));
  EXPECT_EQ(b.table, ribTable(0));
  EXPECT_EQ(c.table, ribTable(2));
  EXPECT_EQ(tuple(tombstones(0) + tombstones(2), onSuper(a) && onSuper(b) && onSuper(c), inUse(RTM_SWP_DNLD_POOL)),
            tuple(0u, true, 0u));
}

// What an agent hears of one prefix, and when the head of a deleted prefix is freed. The FIB
// agent takes everything; the LDP agent never takes BGP routes.
TEST_F(Walks, WhatAnAgentIsToldOfAPrefix) {
  Agent &fib = agent(900, 0), &ldp = agent(901, 0, RTM_IPV4UNI_AFINDEX, RTM_PROTO_LDP);
  Route o = route("10.1.0.0", 16), g = route("10.1.0.0", 16);
  g.proto(RTM_PROTO_BGP).pref(20);
  using Step = std::function<void()>;
  const Step addO = [&] { ASSERT_EQ(add(kOspf, o), RTM_SUCCESS); }, delO = [&] { del(kOspf, o); };
  const Step addG = [&] { ASSERT_EQ(add(kBgp, g), RTM_SUCCESS); }, delG = [&] { del(kBgp, g); };
  const Step run = [&] { settle(); };
  const Step unfilterLdp = [&] { ldp.rtc()->rtc_filterState = 4; }, filterLdp = [&] { ldp.rtc()->rtc_filterState = 2; };
  // The FIB agent's queue is full: its walks wait until it has acknowledged.
  const Step congestFib = [&] { fib.acks = false, fill(fib, 201); }, ackFib = [&] { fib.acks = true; };
  struct Case {
    const char *name;
    std::vector<Step> steps;
    std::vector<uint32_t> fibOps, ldpOps;
    bool headLeft;
  } cases[] = {
      {"added and deleted between two walks: nothing, and the head goes", {addO, delO, run}, {}, {}, false},
      {"added, then deleted: the head goes", {addO, run, delO, run}, {RT_ADD, RT_DEL}, {RT_ADD, RT_DEL}, false},
      {"an update is an add again", {addO, run, addO, run}, {RT_ADD, RT_ADD}, {RT_ADD, RT_ADD}, true},
      {"a better route replaces", {addO, run, addG, run}, {RT_ADD, RT_ADD}, {RT_ADD, RT_DEL}, true},
      {"a filtered route never reaches the agent", {addG, run, delG, run}, {RT_ADD, RT_DEL}, {}, false},
      {"a held route that becomes filtered is withdrawn", {unfilterLdp, addG, run, filterLdp, addG, run},
       {RT_ADD, RT_ADD}, {RT_ADD, RT_DEL}, true},
      {"a deleted prefix waits for its last holder", {addO, run, congestFib, delO, run}, {RT_ADD}, {RT_ADD, RT_DEL}, true},
      {"who frees it once told", {addO, run, congestFib, delO, run, ackFib, run}, {RT_ADD, RT_DEL}, {RT_ADD, RT_DEL},
       false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    for (const Step &s : c.steps) s();
    EXPECT_EQ(ops(fib, "10.1.0.0/16"), c.fibOps);
    EXPECT_EQ(ops(ldp, "10.1.0.0/16"), c.ldpOps);
    EXPECT_EQ(head("10.1.0.0", 16) != nullptr, c.headLeft);
    fib.acks = true, filterLdp(), delO(), delG(), settle();
    ASSERT_EQ(head("10.1.0.0", 16), nullptr);
    fib.cmds.clear(), ldp.cmds.clear();
  }
}

// Caught-up agents are served by one walk whose messages are copied to each; an agent leaves
// the group while it is filtered, and comes back once it stands where the group stands. The
// group's pace and the marks of a queue.
TEST_F(Walks, TheSuperGroup) {
  Agent &a = agent(900, 0), &b = agent(901, 1);
  settle();
  ASSERT_TRUE(onSuper(a) && onSuper(b));
  addMany("10.2.%u.%u", 300);
  settle();
  EXPECT_EQ(a.table, ribTable(0));
  EXPECT_EQ(b.table, a.table);
  // One walk: the dummy bundled each route once, the members nothing themselves.
  EXPECT_EQ(tuple(dummySuperClient[0]->rtc_addCount, a.rtc()->rtc_addCount + b.rtc()->rtc_addCount, a.routeMsgs,
                  a.rtc()->rtc_superSendCount, b.rtc()->rtc_superSendCount),
            tuple(300u, 0u, 3u, a.routeMsgs + a.nhMsgs, b.routeMsgs + b.nhMsgs));
  struct Case {
    const char *name;
    std::function<void()> leave, back;
    bool member, receives;  // while left
  } cases[] = {
      // A stopped member stays in step with the group; its messages are simply not sent.
      {"stopped", [&] { control(a, RTM_CNTRL_STOP_DNLD, 0); }, [&] { control(a, RTM_CNTRL_START_DNLD, 0); }, true, false},
      // The filter command checks the lists at once.
      {"filtered", [&] { a.rtc()->rtc_filterState = 2; },
       [&] {
         a.rtc()->rtc_filterState = 1;
         rtmValidateSuperClients(0, 0), rtmValidateRegularClients(0, 0);
       },
       false, true},
      {"started afresh, caught up again", [&] { control(a, RTM_CNTRL_START_DNLD, 0); }, [] {}, true, true},
  };
  unsigned n = 0;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    c.leave();
    char p[32];
    snprintf(p, sizeof p, "10.3.%u.0", n++);
    Route r = route(p, 24);
    ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
    settle();
    EXPECT_EQ(tuple(onSuper(a), a.table == ribTable(0), onSuper(b)), tuple(c.member, c.receives, true));
    EXPECT_EQ(b.table, ribTable(0));
    c.back();
    settle();
    EXPECT_TRUE(onSuper(a));
    EXPECT_EQ(a.table, ribTable(0));
  }
  // The group is paced by its longest queue; a tie goes to the first member, a failed one
  // does not count unless all have failed.
  Agent *first = rtmClientOfNode(qorDLLGetFirst(&superClients[0])) == a.rtc() ? &a : &b;
  Agent *second = first == &a ? &b : &a;
  first->acks = second->acks = false;
  struct Pick {
    int more1, more2;
    uint32_t failed1, failed2;
    Agent *pick;
  } picks[] = {{0, 0, 0, 0, first}, {1, 2, 0, 0, second}, {1, 0, 0, 0, first}, {5, 0, 255, 0, second}, {0, 0, 255, 255, first}};
  for (const Pick &k : picks) {
    fill(*first, k.more1), fill(*second, k.more2);
    first->rtc()->rtc_dnldState = k.failed1 ? RTC_Q_STOPPED : RTC_Q_REGISTERED;
    second->rtc()->rtc_dnldState = k.failed2 ? RTC_Q_STOPPED : RTC_Q_REGISTERED;
    EXPECT_EQ(rtmGetLargestSwpQ(0), k.pick->rtc()->rtc_dnldQ) << k.more1 << " " << k.more2;
  }
  // A queue's state against its marks, 100 and 200: below, between (marks included), above. That
  // a queue above the mark holds its agent back until it acknowledges is the system test's.
  for (auto [len, state] : {std::pair{99, 0u}, {100, 2u}, {200, 2u}, {201, 1u}}) {
    fill(*first, len - qorSwpQueueGetLen(first->rtc()->rtc_dnldQ));
    rtmDownloadCkSwpQlen(first->rtc(), 200, 100);
    EXPECT_EQ(first->rtc()->rtc_qState, state) << len;
  }
}

// A stalled agent's queue fails: it is marked, leaves the group and forgets what it held, while
// the other goes on. Its return is the system test's (over real time) and the start rows below.
TEST_F(Walks, AStalledAgentFailsAndTheOtherGoesOn) {
  Agent &a = agent(900, 0), &b = agent(901, 1);
  Route r1 = route("10.5.0.0", 16);
  ASSERT_EQ(add(kOspf, r1), RTM_SUCCESS);
  settle();
  ASSERT_TRUE(onSuper(a) && onSuper(b) && holds(head("10.5.0.0", 16), a));
  a.acks = false;
  addMany("10.6.%u.%u", 2000);
  for (int i = 0; i < 20 && a.rtc()->rtc_dnldState != RTC_Q_STOPPED; ++i) {
    qorClockAdvance(1000);
    qorSwpRunTimers();
    settle();
  }
  ASSERT_EQ(a.rtc()->rtc_dnldState, RTC_Q_STOPPED);
  EXPECT_EQ(tuple(a.rtc()->rtc_lastCnt, onSuper(a), holds(head("10.5.0.0", 16), a)), tuple(1u, false, false));
  Route r2 = route("10.7.0.0", 16);
  ASSERT_EQ(add(kOspf, r2), RTM_SUCCESS);
  settle();
  EXPECT_EQ(b.table, ribTable(0));
  EXPECT_EQ(a.table.count("0 10.7.0.0/16"), 0u);
}

TEST_F(Walks, ControlMessages) {
  Agent &a = agent(900, 0), &v6 = agent(901, 1, RTM_IPV6UNI_AFINDEX, RTM_PROTO_FIB6);
  Route r = route("10.8.0.0", 16), r6 = route("2001:db8:8::", 48);
  ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
  ASSERT_EQ(add(kOspf, r6), RTM_SUCCESS);
  settle();
  struct Case {
    const char *name;
    Agent *agent;
    uint32_t action, vrf;
    size_t begins, routes;  // markers the agent gets, route commands that follow
    uint8_t flags;          // download flags of VRF 0 afterwards
  } cases[] = {
      {"start: a fresh download", &a, RTM_CNTRL_START_DNLD, 0, 1, 1, RVI_DNLD_ON},
      {"start in IPv6", &v6, RTM_CNTRL_START_DNLD, 0, 1, 1, RVI_DNLD_ON},
      {"start for a VRF not in use: the marker only", &a, RTM_CNTRL_START_DNLD, 7, 1, 0, RVI_DNLD_ON},
      {"an undefined action", &a, 5, 0, 0, 0, RVI_DNLD_ON},
      {"a VRF beyond the table", &a, RTM_CNTRL_STOP_DNLD, ALL_VRF_ID, 0, 0, RVI_DNLD_ON},
      {"stop", &a, RTM_CNTRL_STOP_DNLD, 0, 0, 0, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    Agent &ag = *c.agent;
    ag.cmds.clear();
    control(ag, c.action, c.vrf);
    std::vector<Msg> got = received(*ag.peer);
    std::vector<Msg> marks = ofType(got, MT_RTM_DNLD_CNTRL);
    ASSERT_EQ(marks.size(), c.begins);
    for (const Msg &m : marks) {
      ASSERT_EQ(m.size(), 144u);
      EXPECT_EQ(tuple(ld32(m.data(), 128), ld32(m.data(), 132), ld32(m.data(), 136), m[140]),
                tuple(0u, RTM_CNTRL_DNLD_BEGINS, c.vrf, ag.af));
    }
    for (Msg &m : got) backlog[ag.peer->key].push_back(std::move(m));
    settle();
    EXPECT_EQ(ag.cmds.size(), c.routes);
    EXPECT_EQ(ag.rtc()->rtc_vrf[0]->rvi_ruleFlags[0] & (RVI_DNLD_ON | RVI_DNLD_NEW), c.flags);
  }
  Route more = route("10.9.0.0", 16);
  ASSERT_EQ(add(kOspf, more), RTM_SUCCESS);
  a.cmds.clear();
  settle();
  EXPECT_TRUE(a.cmds.empty());
}

TEST_F(Walks, RestartsAndRest) {
  Agent &a = agent(900, 0), &b = agent(901, 1);
  addMany("10.10.%u.%u", 50);
  settle();
  EXPECT_EQ(tuple(rtmdnldpollresume > 0, rtmPollWalkAllNodes[0][0] & rtmPollWalkAllNodes[0][2]), tuple(true, 1u));
  // Nothing to do, or no VRF in use: the pass may rest.
  EXPECT_EQ(rtmDownloadPass(), 1);
  g_rtmVrfInUse[0] = 0;
  EXPECT_EQ(rtmDownloadPass(), 1);
  g_rtmVrfInUse[0] = 1;
  // A reset while an agent walks on its own: the thread has rested when the call returns.
  control(b, RTM_CNTRL_START_DNLD, 0);
  rtmClearDownloadThread(0, RTM_IPV4UNI_AFINDEX);
  EXPECT_EQ(tuple(rtmDnldRestart[0][0], qorThreadIsSuspended(rtmThreads, rtmThreadRteDn)), tuple(0u, 1));
  qorThreadResume(rtmThreads, rtmThreadRteDn);
  settle();
  EXPECT_EQ(b.table, ribTable(0));
  // The version counter runs out in the middle of a batch of changes.
  qor_radix_tree *t = rtmRibGetTree(0, 0);
  const uint64_t epoch = t->rdl_epoch;
  t->rdx_maxVersion = t->rdx_version + 30;
  addMany("10.10.%u.%u", 40, 100);
  EXPECT_EQ(t->rdl_epoch, epoch + 1);
  settle();
  EXPECT_EQ(a.table, ribTable(0));
  EXPECT_EQ(b.table, ribTable(0));
  // A client ahead of its tree is logged and otherwise served.
  rtmValidateOneSuperClient(a.rtc(), 0);
  Route r = route("10.11.0.0", 16);
  ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
  a.rtc()->rtc_vrf[0]->rvi_version = t->rdx_version + 10;
  qorLogClearRecent();
  settle();
  EXPECT_EQ(qorLogCount(0x14800a), 1u);
  EXPECT_EQ(a.table, ribTable(0));
  // With more VRFs than the budget has heads, a client on its own makes no progress.
  g_rtmVrfCount = 2000;
  control(a, RTM_CNTRL_START_DNLD, 0);
  settle();
  EXPECT_TRUE(a.table.empty());
  g_rtmVrfCount = 0;
  qorThreadResume(rtmThreads, rtmThreadRteDn);
  settle();
  EXPECT_EQ(a.table, ribTable(0));
}

// Which routes the BGP filter keeps from which client, and how a change of filter reaches an
// agent: the BGP heads are put on the change list again and only they are sent.
TEST_F(Walks, TheBgpFilter) {
  Route g = route("10.12.0.0", 16), o = route("10.13.0.0", 16);
  g.proto(RTM_PROTO_BGP).pref(20);
  ASSERT_EQ(add(kBgp, g), RTM_SUCCESS);
  ASSERT_EQ(add(kOspf, o), RTM_SUCCESS);
  struct Case {
    const char *name;
    uint32_t proto, instance, state, filter, toIpm1;
    bool held, onBgp;
    int result;
    bool heldAfter;
  } cases[] = {
      {"a FIB agent takes everything", RTM_PROTO_FIB, 0, 2, 1, 1, false, true, 0, false},
      {"LDP filtered", RTM_PROTO_LDP, 0, 2, 1, 1, false, true, 1, false},
      {"IPM unfiltered", RTM_PROTO_IPM, 0, 1, 2, 1, false, true, 0, false},
      {"IPM state 4 is unfiltered", RTM_PROTO_IPM, 0, 4, 2, 1, false, true, 0, false},
      {"IPM filtered", RTM_PROTO_IPM, 0, 2, 2, 1, false, true, 1, false},
      {"small form, filter 2: taken", RTM_PROTO_IPM6, 0, 3, 2, 1, false, true, 0, false},
      {"small form, filter 1: filtered", RTM_PROTO_IPM, 0, 3, 1, 1, false, true, 1, false},
      {"a state nobody defined", RTM_PROTO_IPM, 0, 7, 1, 1, false, true, 0, false},
      {"only BGP routes are filtered", RTM_PROTO_IPM, 0, 2, 2, 1, false, false, 0, false},
      {"second IPM keeps what it holds", RTM_PROTO_IPM, 1, 2, 2, 0, true, true, 0, false},
      {"second IPM takes nothing new", RTM_PROTO_IPM, 1, 2, 2, 0, false, true, 1, false},
      {"second IPM with BGP routes on", RTM_PROTO_IPM, 1, 2, 2, 1, true, true, 1, true},
  };
  static rt_client c;
  for (const Case &k : cases) {
    SCOPED_TRACE(k.name);
    c = rt_client{};
    c.rtc_proto = k.proto, c.rtc_instance = k.instance, c.rtc_filterState = k.state, c.rtc_filter = k.filter;
    c.rtc_cid = 40;
    rtmDownloadBgpRoutesToIpm1[0] = k.toIpm1;
    rt_head *h = k.onBgp ? head("10.12.0.0", 16) : head("10.13.0.0", 16);
    h->rtmh_redlist[5] = k.held;
    EXPECT_EQ(rtmFilterRouteCheck(0, h, &c), k.result);
    EXPECT_EQ(h->rtmh_redlist[5] == 1, k.heldAfter);
    h->rtmh_redlist[5] = 0;
  }
  rtmDownloadBgpRoutesToIpm1[0] = 1;
  rtmCurrentFilterState = 2;  // the agent is filtered from its registration on
  Agent &ipm = agent(900, 0, RTM_IPV4UNI_AFINDEX, RTM_PROTO_IPM);
  rtmCurrentFilterState = 1;
  settle();
  EXPECT_EQ(ipm.table.count("0 10.12.0.0/16"), 0u);
  ipm.rtc()->rtc_filterState = 1;
  ipm.cmds.clear();
  updateBgpRoutesInRib(0);
  settle();
  ASSERT_EQ(ipm.cmds.size(), 1u);
  EXPECT_EQ(ipm.cmds[0].prefix, "10.12.0.0/16");
  EXPECT_EQ(ipm.table, ribTable(0));
}

}  // namespace
