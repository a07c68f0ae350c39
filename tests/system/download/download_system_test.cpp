// rtmd's download to FIB agents, with rtmd, the interface manager stand-in and the agents as
// separate parties over the real sockets. The agents and the protocol clients live in this
// process, one endpoint each, and are pumped from one loop; rtmd and rtm-ifm are processes.
//
// The oracle is kept simple on purpose: the two protocol clients differ in preference (BGP 20,
// OSPF 110), so a prefix's active route is BGP's when BGP has one and OSPF's otherwise, and
// what every agent holds must then be exactly that, field for field.
#include "tests/system/download/download_fixture.h"

using namespace rtmtest;
using namespace rtmclient;

namespace {

// ---- Random sequences of two protocols --------------------------------------------------------

class RandomSequences : public DownloadSystem, public ::testing::WithParamInterface<uint8_t> {};

TEST_P(RandomSequences, AgentsHoldExactlyTheActiveRoutes) {
  const uint8_t af = GetParam();
  addAgent(af, 1);
  addAgent(af, 2);
  ProtoClient *clients[2] = {&addProto(af, RTM_PROTO_BGP, 1, 310), &addProto(af, RTM_PROTO_OSPF, 2, 311)};
  const uint16_t prefs[2] = {20, 110};
  const uint32_t protoIds[2] = {RTM_PROTO_BGP, RTM_PROTO_OSPF};
  Model m;
  m.af = af;

  std::mt19937 rng(af * 1000 + 7);
  auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
  constexpr uint32_t kPrefixes = 900;
  // Prefix i: /24s, and /32 hosts under some of them (heads that nest); in IPv6 /48s and /128s.
  auto keyOf = [&](uint32_t i) {
    std::vector<uint8_t> key(rtmAfAddrLen(af), 0);
    if (af == RTM_IPV4UNI_AFINDEX) {
      key[0] = 10, key[1] = static_cast<uint8_t>(i / 256), key[2] = static_cast<uint8_t>(i % 256);
      if (i % 7 == 0) key[3] = 9;
    } else {
      key[0] = 0x20, key[1] = 0x01, key[2] = 0x0d, key[3] = 0xb8, key[4] = static_cast<uint8_t>(i >> 8);
      key[5] = static_cast<uint8_t>(i);
      if (i % 7 == 0) key[15] = 9;
    }
    key.push_back(static_cast<uint8_t>(i % 7 == 0 ? key.size() * 8 : af == RTM_IPV4UNI_AFINDEX ? 24 : 48));
    return key;
  };
  auto routeOf = [&](int c, const std::vector<uint8_t> &key) {
    Route r{.afIndex = af, .prefixLen = key.back(), .pref = prefs[c], .proto = protoIds[c],
            .subtype = defaultSubtype(protoIds[c])};
    memcpy(r.prefix, key.data(), key.size() - 1);
    return r;
  };

  std::vector<NextHop> nhStore(64);
  for (int round = 0; round < 4; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    for (int op = 0; op < 700; ++op) {
      const int c = static_cast<int>(pick(2));
      const std::vector<uint8_t> key = keyOf(pick(kPrefixes));
      Route r = routeOf(c, key);
      auto it = m.routes[c].find(key);
      if (it != m.routes[c].end() && pick(3) == 0) {  // withdraw
        r.nh = nhStore.data();
        r.nnh = 1;
        ASSERT_EQ(clients[c]->del(r), 0) << clients[c]->lastError();
        m.routes[c].erase(it);
        continue;
      }
      // Add, or replace what the client had there.
      ModelRoute mr;
      mr.metric = static_cast<int32_t>(pick(1000));
      mr.weighted = pick(4) == 0;
      const uint32_t n = 1 + pick(3);
      for (uint32_t k = 0; k < n; ++k) {
        NextHop h;
        if (af == RTM_IPV4UNI_AFINDEX) {
          h.addr[0] = 192, h.addr[1] = 0, h.addr[2] = 2, h.addr[3] = static_cast<uint8_t>(1 + pick(20));
        } else {
          h.addr[0] = 0x3f, h.addr[1] = 0xff, h.addr[15] = static_cast<uint8_t>(1 + pick(20));
        }
        h.ifindex = 1 + k;  // distinct per next hop: no two next hops of a route are the same
        // rtmd keeps one record per (ifindex, address) shared by every route through it, and
        // its weight is the last weighted route's: give each next hop always the same one.
        h.weight = 1 + (h.addr[af == RTM_IPV4UNI_AFINDEX ? 3 : 15] + k) % 5;
        mr.nh.push_back(h);
      }
      if (af == RTM_IPV4UNI_AFINDEX && pick(3) == 0)
        for (uint32_t k = 0, t = 1 + pick(6); k < t; ++k) mr.tlv.push_back(static_cast<uint8_t>(pick(256)));
      std::copy(mr.nh.begin(), mr.nh.end(), nhStore.begin());
      r.nh = nhStore.data();
      r.nnh = static_cast<uint16_t>(n);
      r.metric = mr.metric;
      r.flags = mr.weighted ? RTP_FLAG_WECMP : 0;
      r.tlv = mr.tlv.empty() ? nullptr : mr.tlv.data();
      r.tlvlen = static_cast<uint16_t>(mr.tlv.size());
      ASSERT_EQ(clients[c]->add(r), 0) << clients[c]->lastError();
      m.routes[c][key] = mr;
    }
    settleProtos();
    expectAgentsHold(m.expectedDump());
    if (HasFailure()) return;
  }

  // The two agents caught up and were served as one group.
  DnldClientsReply v = view(af);
  EXPECT_EQ(v.superMembers, 2u);
  for (const DnldClientRow &row : v.rows) {
    EXPECT_EQ(row.list, RTM_DC_LIST_SUPER) << "agent " << row.instance;
    EXPECT_GT(row.superSends, 0u) << "agent " << row.instance;
    EXPECT_EQ(row.version, v.treeVersion) << "agent " << row.instance;
  }

  // Everything withdrawn: the agents are empty and no prefix head is left behind in rtmd.
  for (int c = 0; c < 2; ++c) {
    for (const auto &[key, mr] : m.routes[c]) {
      Route r = routeOf(c, key);
      r.nh = mr.nh.data();
      r.nnh = static_cast<uint16_t>(mr.nh.size());
      ASSERT_EQ(clients[c]->del(r), 0) << clients[c]->lastError();
    }
    m.routes[c].clear();
  }
  settleProtos();
  expectAgentsHold("");
  RouteCountReply rc;
  ASSERT_EQ(queryRouteCount(probe, af, 0, &rc, 5000, 2), 0);
  EXPECT_EQ(rc.active, 0u);
  EXPECT_EQ(rc.prefixes, 0u) << "every withdrawn prefix's head was freed once both agents were told";
}

INSTANTIATE_TEST_SUITE_P(Families, RandomSequences, ::testing::Values(RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX),
                         [](const auto &info) { return info.param == RTM_IPV4UNI_AFINDEX ? "IPv4" : "IPv6"; });

// ---- Restart and clear --------------------------------------------------------------------------

TEST_F(DownloadSystem, ASlowAgentPacesItsGroupAndIsNotGivenUp) {
  FibAgent &fast = addAgent(RTM_IPV4UNI_AFINDEX, 1);
  FibAgent &slow = addAgent(RTM_IPV4UNI_AFINDEX, 2);
  ProtoClient &bgp = addProto(RTM_IPV4UNI_AFINDEX, RTM_PROTO_BGP, 1, 310);
  ASSERT_TRUE(pumpUntil([&] { return view(0).superMembers == 2; }, 10000));
  // The slow agent reads nothing for a while, as a process that is busy elsewhere: what rtmd
  // sends it waits in its socket and then in rtmd's queue.
  paused.insert(&slow);
  constexpr uint32_t kRoutes = 40000;  // some 400 messages: its queue passes the high mark
  Model m;
  feed(bgp, m, 0, kRoutes, true);
  settleProtos();
  // The group is served as fast as its slowest member takes: with the slow one's queue past
  // the mark, the fast one has nothing queued and still lacks routes.
  ASSERT_TRUE(pumpUntil([&] { return heldBackBy(2, 1); }, 20000));
  DnldClientsReply v = view(0);
  EXPECT_EQ(v.superMembers, 2u);
  EXPECT_LT(v.groupVersion, v.treeVersion);
  EXPECT_LT(fast.routeCount(), kRoutes);
  // It reads again in time: both end with the whole table, and it was never given up.
  paused.clear();
  expectAgentsHold(m.expectedDump());
  EXPECT_NE(view(0).find(RTM_PROTO_FIB, 2)->dnldState, 255u);
  EXPECT_EQ(slow.stats().gaps, 0u);
}

TEST_F(DownloadSystem, AnAgentThatComesBackIsGivenTheWholeTable) {
  addAgent(RTM_IPV4UNI_AFINDEX, 1);
  ProtoClient &bgp = addProto(RTM_IPV4UNI_AFINDEX, RTM_PROTO_BGP, 1, 310);
  Model m;
  feed(bgp, m, 0, 2000, true);
  settleProtos();
  const std::string dump = dir.path() + "/slot3.txt";
  auto runFib = [&](uint64_t expect) {
    Process p(builtBinary("tools/rtm-fib/rtm-fib"),
              {"--run-dir", dir.path(), "--slot", "3", "--expect", std::to_string(expect), "--timeout", "30",
               "--dump", dump, "--no-deregister", "--quiet"});
    // The agent is in another process: pump ours meanwhile so that rtmd's group keeps moving.
    EXPECT_TRUE(pumpUntil([&] { return !p.running(); }, 40000));
    return p.stop(0, 1000);
  };
  // The agent of slot 3 takes the table and ends without leaving, as a card that failed.
  ASSERT_EQ(runFib(2000), 0);
  EXPECT_EQ(readFile(dump), m.expectedDump());

  // Meanwhile the table changes: it must not be given just the changes when it comes back.
  feed(bgp, m, 0, 500, false);
  feed(bgp, m, 5000, 300, true);
  settleProtos();
  ASSERT_EQ(runFib(1800), 0);
  EXPECT_EQ(readFile(dump), m.expectedDump());
  expectAgentsHold(m.expectedDump());
}

TEST_F(DownloadSystem, AClearedFibIsSentAgainAfterItsMarker) {
  FibAgent &a = addAgent(RTM_IPV6UNI_AFINDEX, 1);
  FibAgent &b = addAgent(RTM_IPV6UNI_AFINDEX, 2);
  ProtoClient &bgp = addProto(RTM_IPV6UNI_AFINDEX, RTM_PROTO_BGP, 1, 310);
  Model m;
  m.af = RTM_IPV6UNI_AFINDEX;
  feed(bgp, m, 0, 1500, true);
  settleProtos();
  expectAgentsHold(m.expectedDump());
  const uint64_t aStarts = a.stats().freshStarts, bStarts = b.stats().freshStarts;
  const uint64_t aAdds = a.stats().adds, bAdds = b.stats().adds;

  uint8_t req[CLEAR_FIB_MSG_LEN], reply[RTM_IPC_BUF_SIZE];
  encodeClearFib(a.cid(), RTM_IPV6UNI_AFINDEX, 0, req, sizeof req);
  ASSERT_TRUE(addressMessage(req, Key_getRspQueue(probe), RTM_SVCE, 0));
  ASSERT_EQ(qorIpcSendWaitWithRetry(probe, req, reply, sizeof req, sizeof reply, 2, MT_RTM_CLEAR_FIB, 2000, 0), 0);
  EXPECT_EQ(rtm::ld32(reply, IPC_OFF_MSTATUS), 0u);
  ASSERT_TRUE(pumpUntil([&] { return a.stats().adds >= aAdds + 1500; }, 20000)) << "the whole table, again";
  expectAgentsHold(m.expectedDump());
  EXPECT_EQ(a.stats().freshStarts, aStarts + 1);
  EXPECT_EQ(b.stats().freshStarts, bStarts) << "the other agent is not touched";
  EXPECT_EQ(b.stats().adds, bAdds);
}

}  // namespace
