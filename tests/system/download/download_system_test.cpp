// rtmd's download to FIB agents, with rtmd, the interface manager stand-in and the agents as
// separate parties over the real sockets. The agents and the protocol clients live in this
// process, one endpoint each, and are pumped from one loop; rtmd and rtm-ifm are processes.
//
// The oracle is kept simple on purpose: the two protocol clients differ in preference (BGP 20,
// OSPF 110), so a prefix's active route is BGP's when BGP has one and OSPF's otherwise, and
// what every agent holds must then be exactly that, field for field.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "client/rtm_client_lib.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "swp/qor_swp.h"
#include "tests/support/rtmd_process.h"

using namespace rtmtest;
using namespace rtmclient;

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kProbeSvce = 960;

// What a protocol client has on one prefix.
struct ModelRoute {
  int32_t metric = 0;
  bool weighted = false;
  std::vector<NextHop> nh;
  std::vector<uint8_t> tlv;
};

// Routes of the two protocol clients per prefix (index 0 BGP, 1 OSPF), and the FIB they imply.
struct Model {
  uint8_t af = 0;
  std::map<std::vector<uint8_t>, ModelRoute> routes[2];  // key: prefix bytes, then the length

  std::string expectedDump() const {
    std::map<FibPrefix, FibRoute> fib;
    for (int c = 1; c >= 0; --c)  // BGP's route is written last and wins
      for (const auto &[key, mr] : routes[c]) {
        FibPrefix p;
        p.afIndex = af;
        p.len = key.back();
        memcpy(p.addr, key.data(), key.size() - 1);
        FibRoute r;
        r.proto = c == 0 ? RTM_PROTO_BGP : RTM_PROTO_OSPF;
        r.metric = static_cast<uint32_t>(mr.metric);
        r.weighted = mr.weighted;
        for (const NextHop &n : mr.nh) {
          FibNextHop f;
          memcpy(f.addr, n.addr, sizeof f.addr);
          f.ifindex = n.ifindex;
          f.vrfId = n.vrfId;
          f.weight = mr.weighted ? n.weight : 0;
          r.nh.push_back(f);
        }
        if (af == RTM_IPV4UNI_AFINDEX) r.tlv = mr.tlv;  // IPv6 commands carry no TLV
        fib[p] = r;
      }
    std::string out;
    for (const auto &[p, r] : fib) out += formatFibRoute(p, r) + "\n";
    return out;
  }
};

// The first lines where two dumps differ, for a readable failure.
std::string firstDifferences(const std::string &want, const std::string &got) {
  std::istringstream a(want), b(got);
  std::string la, lb, out;
  int shown = 0;
  size_t line = 0;
  while (shown < 5 && (std::getline(a, la) ? 1 : 0) + (std::getline(b, lb) ? 1 : 0)) {
    ++line;
    if (la != lb) out += "line " + std::to_string(line) + ": want [" + la + "] got [" + lb + "]\n", ++shown;
    la.clear(), lb.clear();
  }
  return out;
}

class DownloadSystem : public ::testing::Test {
 protected:
  void SetUp() override {
    qorIpcReset();
    qorSwpReset();
    qorLogSetEcho(false);
    ASSERT_EQ(qorIpcSetRunDir(dir.path().c_str()), 0);
    log = dir.path() + "/rtmd.log";
    ifm = std::make_unique<Process>(builtBinary("tools/rtm-ifm/rtm-ifm"),
                                    std::vector<std::string>{"--run-dir", dir.path(), "--slots", "0,1,2", "--quiet"});
    rtmd = std::make_unique<Process>(builtBinary("src/frame/rtmd"),
                                     std::vector<std::string>{"--run-dir", dir.path(), "--log-file", log});
    ASSERT_TRUE(waitForText(log, "RTM Task is Ready", 10000)) << readFile(log);
    probe = qorIpcOpen(kProbeSvce, 0);
    ASSERT_GE(probe, 0);
  }
  void TearDown() override {
    agents.clear();
    protos.clear();
    if (rtmd) EXPECT_EQ(rtmd->stop(SIGTERM, 10000), 0) << "rtmd must still be running and stop cleanly";
    if (ifm) ifm->stop(SIGTERM, 5000);
    qorSwpReset();
    qorIpcReset();
    qorLogSetEcho(true);
  }

  // An agent of the family for a slot, registered and downloading VRF 0.
  FibAgent &addAgent(uint8_t af, uint32_t slot, FibAgent::Options o = {}) {
    o.svce = af == RTM_IPV6UNI_AFINDEX ? 402 : 400;
    o.inst = slot;
    o.afIndex = af;
    o.instance = slot;
    o.name = "agent " + std::to_string(slot);
    agents.push_back(std::make_unique<FibAgent>(o));
    FibAgent &a = *agents.back();
    EXPECT_EQ(a.open(), 0) << a.lastError();
    // The interface manager's word on the slot may still be on its way.
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (a.registerAgent() != 0 && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(a.registered()) << a.lastError();
    EXPECT_EQ(a.startDownload(0), 0) << a.lastError();
    return a;
  }
  ProtoClient &addProto(uint8_t af, uint32_t proto, uint32_t inst, uint32_t svce) {
    ProtoClient::Options o;
    o.svce = svce;
    o.proto = proto;
    o.instance = inst;
    o.name = "proto " + std::to_string(proto);
    protos.push_back(std::make_unique<ProtoClient>(o));
    ProtoClient &c = *protos.back();
    EXPECT_EQ(c.open(), 0) << c.lastError();
    EXPECT_EQ(c.registerFamily(af), 0) << c.lastError();
    return c;
  }

  // Pumps every agent and client until done() holds; false after timeoutMs.
  bool pumpUntil(const std::function<bool()> &done, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
      for (auto &a : agents) EXPECT_GE(a->poll(0), 0) << a->lastError();
      for (auto &c : protos) EXPECT_GE(c->poll(0), 0) << c->lastError();
      if (done()) return true;
      if (Clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  // Sends what the clients hold and waits for rtmd's acknowledgements, pumping the agents so
  // that rtmd never waits on them meanwhile.
  void settleProtos() {
    for (auto &c : protos) ASSERT_EQ(c->flush(), 0) << c->lastError();
    ASSERT_TRUE(pumpUntil(
        [&] {
          for (auto &c : protos)
            if (c->waitIdle(0) != 0) return false;
          return true;
        },
        30000));
  }
  // Every agent's table equals want.
  void expectAgentsHold(const std::string &want, int timeoutMs = 30000) {
    bool ok = pumpUntil(
        [&] {
          for (auto &a : agents)
            if (!a->withholding() && a->dump() != want) return false;
          return true;
        },
        timeoutMs);
    if (!ok)
      for (auto &a : agents)
        if (!a->withholding())
          ADD_FAILURE() << "agent holds " << a->routeCount() << " routes\n" << firstDifferences(want, a->dump());
  }
  // Adds (or withdraws) BGP routes 11.i.j.0/24 for indices [first, first + count) through c,
  // one next hop each, and keeps the model in step.
  void feed(ProtoClient &c, Model &m, uint32_t first, uint32_t count, bool add) {
    NextHop nh;
    ASSERT_TRUE(parseAddr(0, "192.0.2.1", nh.addr));
    nh.ifindex = 4;
    Route r;
    r.proto = RTM_PROTO_BGP;
    r.pref = 20;
    r.subtype = defaultSubtype(RTM_PROTO_BGP);
    r.metric = 5;
    r.prefixLen = 24;
    r.nh = &nh;
    r.nnh = 1;
    for (uint32_t i = first; i < first + count; ++i) {
      r.prefix[0] = 11, r.prefix[1] = static_cast<uint8_t>(i >> 8), r.prefix[2] = static_cast<uint8_t>(i);
      std::vector<uint8_t> key(r.prefix, r.prefix + 4);
      key.push_back(24);
      if (add) {
        ASSERT_EQ(c.add(r), 0) << c.lastError();
        m.routes[0][key] = ModelRoute{5, false, {nh}, {}};
      } else {
        ASSERT_EQ(c.del(r), 0) << c.lastError();
        m.routes[0].erase(key);
      }
    }
  }
  DnldClientsReply view(uint8_t af) {
    DnldClientsReply r;
    EXPECT_EQ(queryDnldClients(probe, af, 0, &r, 5000, 2), 0) << strerror(errno);
    return r;
  }

  TempDir dir;
  std::string log;
  std::unique_ptr<Process> ifm, rtmd;
  int probe = -1;
  std::vector<std::unique_ptr<FibAgent>> agents;
  std::vector<std::unique_ptr<ProtoClient>> protos;
};

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
  auto prefixOf = [&](uint32_t i, std::vector<uint8_t> *key, Route *r) {
    uint8_t addr[16] = {};
    uint8_t len;
    if (af == RTM_IPV4UNI_AFINDEX) {
      // /24s, and /32 hosts under some of them: heads that nest.
      addr[0] = 10, addr[1] = static_cast<uint8_t>(i / 256), addr[2] = static_cast<uint8_t>(i % 256);
      len = 24;
      if (i % 7 == 0) addr[3] = 9, len = 32;
    } else {
      addr[0] = 0x20, addr[1] = 0x01, addr[2] = 0x0d, addr[3] = 0xb8, addr[4] = static_cast<uint8_t>(i >> 8),
      addr[5] = static_cast<uint8_t>(i);
      len = 48;
      if (i % 7 == 0) addr[15] = 9, len = 128;
    }
    memcpy(r->prefix, addr, 16);
    r->prefixLen = len;
    key->assign(addr, addr + rtmAfAddrLen(af));
    key->push_back(len);
  };

  std::vector<NextHop> nhStore(64);
  for (int round = 0; round < 4; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    for (int op = 0; op < 700; ++op) {
      const int c = static_cast<int>(pick(2));
      Route r;
      r.afIndex = af;
      std::vector<uint8_t> key;
      prefixOf(pick(kPrefixes), &key, &r);
      r.proto = protoIds[c];
      r.pref = prefs[c];
      r.subtype = defaultSubtype(protoIds[c]);
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
      Route r;
      r.afIndex = af;
      memcpy(r.prefix, key.data(), key.size() - 1);
      r.prefixLen = key.back();
      r.proto = protoIds[c];
      r.pref = prefs[c];
      r.subtype = defaultSubtype(protoIds[c]);
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

// ---- Pacing, failure, restart and clear ---------------------------------------------------------

TEST_F(DownloadSystem, AStuckAgentHoldsBackItsGroupUntilItIsFailedThenTheOtherGoesOn) {
  FibAgent &fast = addAgent(RTM_IPV4UNI_AFINDEX, 1);
  FibAgent &stuck = addAgent(RTM_IPV4UNI_AFINDEX, 2);
  ProtoClient &bgp = addProto(RTM_IPV4UNI_AFINDEX, RTM_PROTO_BGP, 1, 310);
  Model m;
  feed(bgp, m, 0, 1000, true);
  settleProtos();
  expectAgentsHold(m.expectedDump());
  ASSERT_TRUE(pumpUntil([&] { return view(0).superMembers == 2; }, 10000)) << "both caught up: one group";

  // The stuck agent takes nothing more. The group's walk waits on its queue, the largest, so
  // once that is past the high mark the fast agent gets nothing either.
  stuck.setNoAckAfter(stuck.stats().messages);
  constexpr uint32_t kMore = 60000;  // some 480 messages: far more than a queue takes
  feed(bgp, m, 1000, kMore, true);
  settleProtos();
  ASSERT_TRUE(pumpUntil(
      [&] {
        DnldClientsReply v = view(0);
        const DnldClientRow *s = v.find(RTM_PROTO_FIB, 2), *f = v.find(RTM_PROTO_FIB, 1);
        return s && f && s->queueLen > 200 && f->queueLen == 0;
      },
      30000));
  const size_t held = fast.routeCount();
  EXPECT_LT(held, 1000 + kMore) << "the fast agent is paced by its group";
  EXPECT_GT(held, 1000u);

  // rtmd gives the stuck agent up (its queue fails after some 23 s without progress), takes it
  // out of the group, and the fast one gets the rest.
  ASSERT_TRUE(pumpUntil([&] { return view(0).find(RTM_PROTO_FIB, 2)->dnldState == 255; }, 45000))
      << "the stuck agent's queue must fail";
  expectAgentsHold(m.expectedDump());
  DnldClientsReply v = view(0);
  EXPECT_EQ(v.find(RTM_PROTO_FIB, 2)->list, RTM_DC_LIST_REGULAR);
  EXPECT_EQ(v.find(RTM_PROTO_FIB, 2)->failures, 1u);
  EXPECT_EQ(v.find(RTM_PROTO_FIB, 1)->dnldState, 0xFFFFFF00u);
  EXPECT_EQ(fast.stats().malformed, 0u);

  // The stuck agent recovers and asks again: rtmd starts its queue over and sends it all.
  stuck.setNoAckAfter(UINT64_MAX);
  ASSERT_EQ(stuck.startDownload(0), 0) << stuck.lastError();
  expectAgentsHold(m.expectedDump());
  EXPECT_EQ(view(0).find(RTM_PROTO_FIB, 2)->dnldState, 0xFFFFFF00u);
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
  NextHop nh;
  ASSERT_TRUE(parseAddr(2, "2001:db8::1", nh.addr));
  nh.ifindex = 2;
  for (uint32_t i = 0; i < 1500; ++i) {
    Route r;
    r.afIndex = RTM_IPV6UNI_AFINDEX;
    r.proto = RTM_PROTO_BGP;
    r.pref = 20;
    r.subtype = defaultSubtype(RTM_PROTO_BGP);
    r.prefixLen = 64;
    r.prefix[0] = 0x20, r.prefix[1] = 0x01, r.prefix[2] = 0x0d, r.prefix[3] = 0xb8;
    r.prefix[6] = static_cast<uint8_t>(i >> 8), r.prefix[7] = static_cast<uint8_t>(i);
    r.nh = &nh;
    r.nnh = 1;
    ASSERT_EQ(bgp.add(r), 0) << bgp.lastError();
    std::vector<uint8_t> key(r.prefix, r.prefix + 16);
    key.push_back(64);
    m.routes[0][key] = ModelRoute{0, false, {nh}, {}};
  }
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
