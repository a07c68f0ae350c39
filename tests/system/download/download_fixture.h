// What the download system tests share: rtmd and rtm-ifm as processes in a fresh run
// directory, agents and protocol clients in the test process pumped from one loop, and the
// oracle of two protocols of different preference.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "client/rtm_client_lib.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "swp/qor_swp.h"
#include "tests/support/rtmd_process.h"

namespace rtmtest {

using namespace rtmclient;

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
inline std::string firstDifferences(const std::string &want, const std::string &got) {
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
    if (rtmd) {
      EXPECT_EQ(rtmd->stop(SIGTERM, 10000), 0) << "rtmd must still be running and stop cleanly";
    }
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
    protos.push_back(std::make_unique<ProtoClient>(
        ProtoClient::Options{.svce = svce, .proto = proto, .instance = inst, .name = "proto " + n(proto)}));
    ProtoClient &c = *protos.back();
    EXPECT_EQ(c.open(), 0) << c.lastError();
    EXPECT_EQ(c.registerFamily(af), 0) << c.lastError();
    return c;
  }

  // Pumps every agent and client until done() holds; false after timeoutMs.
  bool pumpUntil(const std::function<bool()> &done, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
      for (auto &a : agents) {
        if (paused.count(a.get())) continue;
        EXPECT_GE(a->poll(0), 0) << a->lastError();
      }
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
            if (!a->withholding() && !paused.count(a.get()) && a->dump() != want) return false;
          return true;
        },
        timeoutMs);
    if (!ok) {
      for (auto &a : agents)
        if (!a->withholding())
          ADD_FAILURE() << "agent holds " << a->routeCount() << " routes, " << agentStats(*a) << "\n"
                        << firstDifferences(want, a->dump());
      ADD_FAILURE() << "rtmd's download clients:\n" << clientsText() << "rtmd's log, last lines:\n" << logTail(40);
    }
  }
  // What a stalled download needs looked at: how far each side got.
  static std::string agentStats(FibAgent &a) {
    const auto &st = a.stats();
    return "taken " + n(st.messages) + ", repeats " + n(st.repeats) + ", gaps " + n(st.gaps) + ", withheld " +
           n(st.withheld) + ", fresh starts " + n(st.freshStarts);
  }
  std::string clientsText() {
    std::string out;
    for (uint8_t af : {uint8_t(RTM_IPV4UNI_AFINDEX), uint8_t(RTM_IPV6UNI_AFINDEX)}) {
      DnldClientsReply v;
      if (queryDnldClients(probe, af, 0, &v, 2000, 1) != 0) continue;
      for (const auto &r : v.rows)
        out += "  af " + n(af) + " proto " + n(r.proto) + "/" + n(r.instance) + " list " + n(r.list) + " state " +
               n(r.dnldState) + " qState " + n(r.qState) + " queue " + n(r.queueLen) + " sends " + n(r.sends) + "/" +
               n(r.superSends) + " failures " + n(r.failures) + " version " + n(r.version) + " of " +
               n(v.treeVersion) + "\n";
    }
    return out;
  }
  static std::string n(uint64_t v) { return std::to_string(v); }
  std::string logTail(size_t lines) {
    const std::string all = readFile(log);
    size_t from = all.size();
    for (size_t n = 0; n <= lines; ++n) {
      const size_t nl = from ? all.rfind('\n', from - 1) : std::string::npos;
      if (nl == std::string::npos) return all;
      from = nl;
    }
    return all.substr(from + 1);
  }
  // Adds (or withdraws) BGP routes of the model's family for indices [first, first + count):
  // 11.i.j.0/24 or 2001:db8:0:i::/64, one next hop each, and keeps the model in step.
  void feed(ProtoClient &c, Model &m, uint32_t first, uint32_t count, bool add) {
    const bool v4 = m.af == RTM_IPV4UNI_AFINDEX;
    NextHop nh;
    ASSERT_TRUE(parseAddr(m.af, v4 ? "192.0.2.1" : "2001:db8::1", nh.addr));
    nh.ifindex = 4;
    Route r;
    r.afIndex = m.af, r.proto = RTM_PROTO_BGP, r.pref = 20, r.subtype = defaultSubtype(RTM_PROTO_BGP), r.metric = 5;
    r.prefixLen = v4 ? 24 : 64;
    r.nh = &nh, r.nnh = 1;
    const uint8_t at = v4 ? 1 : 6;  // where the index goes
    if (v4) r.prefix[0] = 11;
    else r.prefix[0] = 0x20, r.prefix[1] = 0x01, r.prefix[2] = 0x0d, r.prefix[3] = 0xb8;
    for (uint32_t i = first; i < first + count; ++i) {
      r.prefix[at] = static_cast<uint8_t>(i >> 8), r.prefix[at + 1] = static_cast<uint8_t>(i);
      std::vector<uint8_t> key(r.prefix, r.prefix + rtmAfAddrLen(m.af));
      key.push_back(r.prefixLen);
      if (add) {
        ASSERT_EQ(c.add(r), 0) << c.lastError();
        m.routes[0][key] = ModelRoute{5, false, {nh}, {}};
      } else {
        ASSERT_EQ(c.del(r), 0) << c.lastError();
        m.routes[0].erase(key);
      }
    }
  }
  // rtmd holds more than the high mark for the agent of slot `behind` and nothing for `ahead`.
  bool heldBackBy(uint32_t behind, uint32_t ahead) {
    DnldClientsReply v = view(0);
    const DnldClientRow *s = v.find(RTM_PROTO_FIB, behind), *f = v.find(RTM_PROTO_FIB, ahead);
    return s && f && s->queueLen > 200 && f->queueLen == 0;
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
  std::set<const FibAgent *> paused;  // agents the loop leaves alone, as a process too busy to read
  std::vector<std::unique_ptr<ProtoClient>> protos;
};

}  // namespace rtmtest
