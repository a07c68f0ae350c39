// The download thread driven through the cooperative group: what each agent is told, the super
// group, back-pressure, failed queues, restarts and the control messages.
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "dnld_fixture.h"
#include "frame/rtm_mem.h"
#include "poller/rtm_poll.h"
#include "swp/qor_swp.h"
#include "vrf/rtm_vrf.h"

using namespace dltest;

namespace {

constexpr uint32_t kOspf = 60, kRip = 61, kBgp = 62;

class Walks : public DownloadTest {
 public:
  void SetUp() override {
    DownloadTest::SetUp();
    for (uint8_t af : {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX}) {
      proto(kOspf, RTM_PROTO_OSPF, af);
      proto(kRip, RTM_PROTO_RIP, af);
      proto(kBgp, RTM_PROTO_BGP, af);
    }
  }
  rt_head *head(uint8_t af, const char *prefix, unsigned plen) {
    uint8_t a[16] = {};
    EXPECT_EQ(rtmAF_AddrParse(af, prefix, a), 0);
    return rtmHeadOf(qorRadixGetExact(rtmRibGetTree(af, 0), a, plen));
  }
  // Heads left in the tree without a route.
  static unsigned tombstones(uint8_t af) {
    unsigned n = 0;
    qor_radix_tree *t = rtmRibGetTree(af, 0);
    for (qor_radix_hdr *h = qorRadixGetNext(t, nullptr); h; h = qorRadixGetNext(t, h)) n += rtmHeadOf(h)->rtmh_rte == nullptr;
    return n;
  }
  static bool holds(const rt_head *h, const Agent &a) { return (h->rtmh_redlist[a.cid >> 3] >> (a.cid & 7)) & 1; }
  // Commands the agent was sent for one prefix, as operations.
  static std::vector<uint32_t> ops(const Agent &a, const std::string &prefix) {
    std::vector<uint32_t> v;
    for (const Cmd &c : a.cmds)
      if (c.prefix == prefix) v.push_back(c.op);
    return v;
  }
  // Fills the agent's queue with `n` messages that it has not acknowledged.
  void fill(Agent &a, int n) {
    for (int i = 0; i < n; ++i) {
      auto *m = static_cast<uint8_t *>(RTM_POOL_ALLOC(RTM_MEM_TAG_RIB, 8192, RTM_SWP_DNLD_POOL));
      ASSERT_EQ(qorSwpEnqueue(a.rtc()->rtc_dnldQ, m, IPC_SWP_HDR_LEN), QOR_SWP_OK);
    }
  }
  // Lets the agent's queue run out of retransmissions.
  void failQueue(Agent &a) {
    a.acks = false;
    for (int i = 0; i < 20 && a.rtc()->rtc_dnldState != RTC_Q_STOPPED; ++i) {
      qorClockAdvance(1000);
      qorSwpRunTimers();
      settle();
    }
    ASSERT_EQ(a.rtc()->rtc_dnldState, RTC_Q_STOPPED);
  }
};

// Random adds, replaces and deletes of two protocols in both families: afterwards each agent
// holds exactly the active routes, and no deleted prefix is left behind in the tree.
TEST_F(Walks, AgentsHoldTheActiveRoutesAfterRandomChanges) {
  Agent &a = agent(900, 0), &b = agent(901, 1), &c = agent(902, 2, RTM_IPV6UNI_AFINDEX, RTM_PROTO_FIB6);
  std::mt19937 rng(7);
  char text[64];
  for (int step = 0; step < 3000; ++step) {
    const uint8_t af = rng() % 3 == 0 ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX;
    const unsigned n = rng() % 150;
    snprintf(text, sizeof text, af == 0 ? "10.%u.%u.0" : "2001:db8:%x:%x::", n / 10, n % 10);
    const uint32_t cid = rng() % 2 ? kOspf : kRip;
    Route r(af);
    r.prefix(text, af == 0 ? 24 : 64).proto(cid == kOspf ? RTM_PROTO_OSPF : RTM_PROTO_RIP);
    r.pref(cid == kOspf ? 110 : 120).metric(int32_t(rng() % 50));
    r.nh(af == 0 ? "192.168.1.1" : "fe80::1", 1 + rng() % 4);
    if (rng() % 4 == 0) r.nh(af == 0 ? "192.168.2.1" : "fe80::2", 5);
    if (rng() % 3 == 0)
      del(cid, r);
    else
      ASSERT_EQ(add(cid, r), RTM_SUCCESS);
    if (rng() % 40 == 0) settle();
  }
  settle();
  EXPECT_EQ(a.table, ribTable(0));
  EXPECT_EQ(b.table, ribTable(0));
  EXPECT_EQ(c.table, ribTable(2));
  EXPECT_FALSE(ribTable(0).empty());
  EXPECT_EQ(tombstones(0), 0u);
  EXPECT_EQ(tombstones(2), 0u);
  EXPECT_TRUE(onSuper(a) && onSuper(b) && onSuper(c));
  EXPECT_EQ(inUse(RTM_SWP_DNLD_POOL), 0u);
}

// What one agent hears of one prefix, and when the head of a deleted prefix is freed. The FIB
// agent takes everything; the LDP agent never takes BGP routes.
TEST_F(Walks, WhatAnAgentIsToldOfAPrefix) {
  Agent &fib = agent(900, 0), &ldp = agent(901, 0, RTM_IPV4UNI_AFINDEX, RTM_PROTO_LDP);
  Route o = ospf("10.1.0.0", 16), g = ospf("10.1.0.0", 16);
  g.proto(RTM_PROTO_BGP).pref(20);
  using Step = std::function<void(Walks &)>;
  const Step addO = [&](Walks &t) { ASSERT_EQ(t.add(kOspf, o), RTM_SUCCESS); };
  const Step delO = [&](Walks &t) { ASSERT_EQ(t.del(kOspf, o), RTM_SUCCESS); };
  const Step addG = [&](Walks &t) { ASSERT_EQ(t.add(kBgp, g), RTM_SUCCESS); };
  const Step delG = [&](Walks &t) { ASSERT_EQ(t.del(kBgp, g), RTM_SUCCESS); };
  const Step run = [](Walks &t) { t.settle(); };
  // The FIB agent's queue is full: its walks wait until it has acknowledged.
  const Step congestFib = [&](Walks &t) {
    fib.acks = false;
    t.fill(fib, 201);
  };
  const Step ackFib = [&](Walks &) { fib.acks = true; };
  const Step unfilterLdp = [&](Walks &) { ldp.rtc()->rtc_filterState = 4; };
  const Step filterLdp = [&](Walks &) { ldp.rtc()->rtc_filterState = 2; };
  struct Case {
    const char *name;
    std::vector<Step> steps;
    std::vector<uint32_t> fibOps, ldpOps;
    bool headLeft;
  } cases[] = {
      {"added and deleted between two walks: nothing, the head goes", {addO, delO, run}, {}, {}, false},
      {"added, then deleted: add and delete, the head goes", {addO, run, delO, run}, {RT_ADD, RT_DEL}, {RT_ADD, RT_DEL}, false},
      {"an update is an add again", {addO, run, addO, run}, {RT_ADD, RT_ADD}, {RT_ADD, RT_ADD}, true},
      {"a better route replaces", {addO, run, addG, run}, {RT_ADD, RT_ADD}, {RT_ADD, RT_DEL}, true},
      {"a filtered route never reaches the agent", {addG, run, delG, run}, {RT_ADD, RT_DEL}, {}, false},
      {"a held route that becomes filtered is withdrawn",
       {unfilterLdp, addG, run, filterLdp, addG, run},
       {RT_ADD, RT_ADD},
       {RT_ADD, RT_DEL},
       true},
      {"a deleted prefix waits for its last holder",
       {addO, run, congestFib, delO, run},
       {RT_ADD},
       {RT_ADD, RT_DEL},
       true},
      {"which frees it when it is told", {addO, run, congestFib, delO, run, ackFib, run}, {RT_ADD, RT_DEL}, {RT_ADD, RT_DEL}, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    for (const Step &s : c.steps) s(*this);
    EXPECT_EQ(ops(fib, "10.1.0.0/16"), c.fibOps);
    EXPECT_EQ(ops(ldp, "10.1.0.0/16"), c.ldpOps);
    EXPECT_EQ(head(0, "10.1.0.0", 16) != nullptr, c.headLeft);
    // Back to nothing on the prefix and in the agents, LDP filtered.
    fib.acks = true;
    ldp.rtc()->rtc_filterState = 2;
    del(kOspf, o), del(kBgp, g);
    settle();
    EXPECT_EQ(head(0, "10.1.0.0", 16), nullptr);
    fib.cmds.clear(), ldp.cmds.clear();
  }
}

// Caught-up agents are served by one walk whose messages are copied to each; an agent leaves
// the group when it stops, is filtered or fails, and comes back once it has caught up.
TEST_F(Walks, TheSuperGroup) {
  Agent &a = agent(900, 0), &b = agent(901, 1);
  settle();
  ASSERT_TRUE(onSuper(a) && onSuper(b));
  char text[32];
  for (unsigned i = 0; i < 300; ++i) {
    snprintf(text, sizeof text, "10.2.%u.%u", i / 200, i % 200);
    Route r = ospf(text, 32);
    ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
  }
  settle();
  EXPECT_EQ(a.table, ribTable(0));
  EXPECT_EQ(b.table, a.table);
  // One walk: the dummy bundled each route once, the members bundled nothing themselves.
  EXPECT_EQ(dummySuperClient[0]->rtc_addCount, 300u);
  EXPECT_EQ(a.rtc()->rtc_addCount + b.rtc()->rtc_addCount, 0u);
  EXPECT_EQ(a.rtc()->rtc_superSendCount, a.routeMsgs + a.nhMsgs);
  EXPECT_EQ(b.rtc()->rtc_superSendCount, b.routeMsgs + b.nhMsgs);
  EXPECT_EQ(a.routeMsgs, 3u);
  EXPECT_EQ(a.rtc()->rtc_vrf[0]->rvi_version, rtmRibGetTree(0, 0)->rdx_version);

  unsigned n = 0;
  struct Case {
    const char *name;
    std::function<void()> leave, back;
    bool member, receives;  // while left
  } cases[] = {
      // A stopped member stays in step with the group; its messages are simply not sent.
      {"stopped", [&] { control(a, RTM_CNTRL_STOP_DNLD, 0); }, [&] { control(a, RTM_CNTRL_START_DNLD, 0); }, true, false},
      // As the filter command does: the lists are checked at once.
      {"filtered", [&] { a.rtc()->rtc_filterState = 2; },
       [&] {
         a.rtc()->rtc_filterState = 1;
         rtmValidateSuperClients(0, 0);
         rtmValidateRegularClients(0, 0);
       },
       false, true},
      {"started afresh: caught up again", [&] { control(a, RTM_CNTRL_START_DNLD, 0); }, [] {}, true, true},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    c.leave();
    snprintf(text, sizeof text, "10.3.%u.0", n++);
    Route r = ospf(text, 24);
    ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
    settle();
    EXPECT_EQ(onSuper(a), c.member);
    EXPECT_EQ(a.table == ribTable(0), c.receives);
    EXPECT_TRUE(onSuper(b));
    EXPECT_EQ(b.table, ribTable(0));
    c.back();
    settle();
    EXPECT_TRUE(onSuper(a));
    EXPECT_EQ(a.table, ribTable(0));
  }
}

// A queue above 200 messages is not walked and the thread rests; the acknowledgements that
// drain it wake the thread and the routes follow.
TEST_F(Walks, BackPressure) {
  Agent &a = agent(900, 0);
  settle();
  struct Mark {
    int held;
    uint32_t state;
  } marks[] = {{99, 0}, {100, 2}, {200, 2}, {201, 1}};
  int held = 0;
  for (const Mark &m : marks) {
    fill(a, m.held - held);
    held = m.held;
    rtmDownloadCkSwpQlen(a.rtc(), 200, 100);
    EXPECT_EQ(a.rtc()->rtc_qState, m.state) << m.held;
  }
  a.acks = false;
  settle();
  Route r = ospf("10.4.0.0", 16);
  ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
  settle();
  EXPECT_EQ(a.routeMsgs, 0u);
  EXPECT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRteDn), 1);
  // The agent acknowledges what it has had; rtmd sends the rest and, drained, the route.
  a.acks = true;
  settle();
  EXPECT_EQ(a.table, ribTable(0));
  EXPECT_EQ(qorSwpQueueGetLen(a.rtc()->rtc_dnldQ), 0);
}

// A stalled agent's queue fails: it is marked, leaves the group and forgets what it held, while
// the other keeps receiving; once it asks afresh it is given the whole table.
TEST_F(Walks, AStalledAgentFailsAndTheOtherGoesOn) {
  Agent &a = agent(900, 0), &b = agent(901, 1);
  Route r1 = ospf("10.5.0.0", 16);
  ASSERT_EQ(add(kOspf, r1), RTM_SUCCESS);
  settle();
  ASSERT_TRUE(onSuper(a) && onSuper(b));
  ASSERT_TRUE(holds(head(0, "10.5.0.0", 16), a));
  a.acks = false;
  char text[32];
  for (unsigned i = 0; i < 2000; ++i) {
    snprintf(text, sizeof text, "10.6.%u.%u", i / 250, i % 250);
    Route r = ospf(text, 32);
    ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
  }
  failQueue(a);
  EXPECT_EQ(a.rtc()->rtc_lastCnt, 1u);
  EXPECT_FALSE(onSuper(a));
  EXPECT_FALSE(holds(head(0, "10.5.0.0", 16), a));
  EXPECT_EQ(b.table, ribTable(0));
  Route r2 = ospf("10.7.0.0", 16);
  ASSERT_EQ(add(kOspf, r2), RTM_SUCCESS);
  settle();
  EXPECT_EQ(b.table, ribTable(0));
  EXPECT_EQ(a.table.count("0 10.7.0.0/16"), 0u);
  // The agent comes back: its queue starts over and it is told everything.
  a.acks = true;
  a.expSeq = 1;
  a.unacked.clear();
  received(*a.peer);
  control(a, RTM_CNTRL_START_DNLD, 0);
  settle();
  EXPECT_EQ(a.rtc()->rtc_dnldState, RTC_Q_REGISTERED);
  EXPECT_EQ(a.begins, 1u);
  EXPECT_EQ(a.table, ribTable(0));
  EXPECT_TRUE(onSuper(a));
}

TEST_F(Walks, ControlMessages) {
  Agent &a = agent(900, 0), &v6 = agent(901, 1, RTM_IPV6UNI_AFINDEX, RTM_PROTO_FIB6);
  Route r = ospf("10.8.0.0", 16);
  Route r6 = ospf6("2001:db8:8::", 48);
  ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
  ASSERT_EQ(add(kOspf, r6), RTM_SUCCESS);
  settle();
  struct Case {
    const char *name;
    Agent *agent;
    uint32_t action, vrf;
    size_t begins;   // 0x3255 messages the agent gets
    size_t routes;   // route commands that follow
    uint8_t flags;   // download flags of VRF 0 afterwards
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
    ag.begins = 0;
    control(ag, c.action, c.vrf);
    std::vector<Msg> got = received(*ag.peer);
    std::vector<Msg> marks = ofType(got, MT_RTM_DNLD_CNTRL);
    ASSERT_EQ(marks.size(), c.begins);
    if (!marks.empty()) {
      const Msg &m = marks[0];
      ASSERT_EQ(m.size(), 144u);
      EXPECT_EQ(ld32(m.data(), 128), 0u);
      EXPECT_EQ(ld32(m.data(), 132), RTM_CNTRL_DNLD_BEGINS);
      EXPECT_EQ(ld32(m.data(), 136), c.vrf);
      EXPECT_EQ(m[140], ag.af);
    }
    for (Msg &m : got) backlog[ag.peer->key].push_back(std::move(m));
    settle();
    EXPECT_EQ(ag.cmds.size(), c.routes);
    EXPECT_EQ(ag.rtc()->rtc_vrf[0]->rvi_ruleFlags[0] & (RVI_DNLD_ON | RVI_DNLD_NEW), c.flags);
  }
  // Stopped: nothing more comes.
  Route more = ospf("10.9.0.0", 16);
  ASSERT_EQ(add(kOspf, more), RTM_SUCCESS);
  a.cmds.clear();
  settle();
  EXPECT_TRUE(a.cmds.empty());
}

// A renumbering of the change list (its version counter exhausted) and a reset of the thread's
// walk from another thread leave every agent with the active routes.
TEST_F(Walks, RestartsOfTheWalk) {
  Agent &a = agent(900, 0), &b = agent(901, 1);
  char text[32];
  auto addSome = [&](unsigned from, unsigned n) {
    for (unsigned i = from; i < from + n; ++i) {
      snprintf(text, sizeof text, "10.10.%u.0", i);
      Route r = ospf(text, 24);
      ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
    }
  };
  addSome(0, 50);
  settle();
  // A regular agent with work pending (b stopped and started), then the reset.
  control(b, RTM_CNTRL_START_DNLD, 0);
  rtmClearDownloadThread(0, RTM_IPV4UNI_AFINDEX);
  EXPECT_EQ(rtmDnldRestart[0][0], 0u);
  EXPECT_EQ(qorThreadIsSuspended(rtmThreads, rtmThreadRteDn), 1);
  qorThreadResume(rtmThreads, rtmThreadRteDn);
  settle();
  EXPECT_EQ(b.table, ribTable(0));
  // The version counter runs out in the middle of a batch of changes.
  qor_radix_tree *t = rtmRibGetTree(0, 0);
  const uint64_t epoch = t->rdl_epoch;
  t->rdx_maxVersion = t->rdx_version + 30;
  for (unsigned i = 0; i < 40; ++i) {
    snprintf(text, sizeof text, "10.10.%u.0", i);
    Route r = ospf(text, 24);
    r.metric(int32_t(100 + i));
    ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
  }
  EXPECT_EQ(t->rdl_epoch, epoch + 1);
  settle();
  EXPECT_EQ(a.table, ribTable(0));
  EXPECT_EQ(b.table, ribTable(0));
}

// The pass's own decisions: when it may rest, and what it logs.
TEST_F(Walks, WhenThePassMayRest) {
  Agent &a = agent(900, 0);
  settle();
  // Nothing to do: the thread has handed over to the poller and rests.
  const uint32_t handOvers = rtmdnldpollresume;
  EXPECT_GT(handOvers, 0u);
  EXPECT_EQ(rtmPollWalkAllNodes[0][0], 1u);
  EXPECT_EQ(rtmPollWalkAllNodes[0][2], 1u);
  EXPECT_EQ(rtmDownloadPass(), 1);
  qorThreadRunUntilIdle(rtmThreads);
  EXPECT_EQ(rtmdnldpollresume, handOvers);
  // No VRF in use: nothing to walk, so it may rest.
  g_rtmVrfInUse[0] = 0;
  EXPECT_EQ(rtmDownloadPass(), 1);
  g_rtmVrfInUse[0] = 1;
  // A client ahead of its tree is logged and otherwise left alone.
  rtmValidateOneSuperClient(a.rtc(), 0);
  rtClientVrfInfo *rvi = a.rtc()->rtc_vrf[0];
  Route r = ospf("10.11.0.0", 16);
  ASSERT_EQ(add(kOspf, r), RTM_SUCCESS);
  rvi->rvi_version = rtmRibGetTree(0, 0)->rdx_version + 10;
  rtmDownloadPass();
  EXPECT_EQ(qorLogCount(0x14800a), 1u);
  settle();
  EXPECT_EQ(a.table, ribTable(0));
  // With more VRFs than the budget has heads, a regular client makes no progress.
  g_rtmVrfCount = 2000;
  control(a, RTM_CNTRL_START_DNLD, 0);
  settle();
  EXPECT_TRUE(a.table.empty());
  g_rtmVrfCount = 0;
  qorThreadResume(rtmThreads, rtmThreadRteDn);
  settle();
  EXPECT_EQ(a.table, ribTable(0));
}

TEST_F(Walks, TheLongestQueuePacesTheGroup) {
  Agent &a = agent(900, 0), &b = agent(901, 1), &c = agent(902, 2);
  for (Agent *x : {&a, &b, &c}) x->acks = false;
  settle();
  ASSERT_TRUE(onSuper(a) && onSuper(b) && onSuper(c));
  // The list is newest first.
  std::vector<Agent *> order;
  for (QOR_DLL_NODE *n = qorDLLGetFirst(&superClients[0]); n; n = qorDLLGetNext(n))
    for (Agent *x : {&a, &b, &c})
      if (x->rtc() == rtmClientOfNode(n)) order.push_back(x);
  ASSERT_EQ(order.size(), 3u);
  struct Case {
    const char *name;
    std::vector<int> more;  // messages added to each queue, in list order
    std::vector<bool> failed;
    size_t pick;
  } cases[] = {
      {"all empty: the first", {0, 0, 0}, {false, false, false}, 0},
      {"the longest", {1, 3, 2}, {false, false, false}, 1},
      {"a tie goes to the earlier", {2, 0, 1}, {false, false, false}, 0},
      {"a failed one does not count", {0, 5, 1}, {false, true, false}, 2},
      {"all failed: the first", {0, 0, 0}, {true, true, true}, 0},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(k.name);
    for (size_t i = 0; i < 3; ++i) {
      fill(*order[i], k.more[i]);
      order[i]->rtc()->rtc_dnldState = k.failed[i] ? RTC_Q_STOPPED : RTC_Q_REGISTERED;
    }
    EXPECT_EQ(rtmGetLargestSwpQ(0), order[k.pick]->rtc()->rtc_dnldQ);
  }
}

}  // namespace
