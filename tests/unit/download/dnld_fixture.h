// rtmd in-process with FIB agents on real sockets: the agents register with real messages,
// read what reaches their socket, acknowledge it (or not) and keep the table the route messages
// describe. Routes come from protocol clients put straight into the client table.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "download/rtm_download.h"
#include "interfaces/rtm_if.h"
#include "tests/unit/clients/rtmd_fixture.h"
#include "tests/unit/rib/rib_test_util.h"

namespace dltest {

using ribtest::Route;
using rtm::ld16;
using rtm::ld32;
using rtm::ld8;
using rtmtest::Msg;
using rtmtest::Peer;
using rtmtest::Reg;

// A route as an agent holds it; next hops as (address, ifindex, VRF, weight).
struct Held {
  uint32_t proto = 0, metric = 0, marker = 0;
  bool weighted = false;
  std::vector<std::tuple<std::string, uint32_t, uint32_t, uint32_t>> nhs;
  std::string tlv;
  bool operator==(const Held &) const = default;
};
inline void PrintTo(const Held &h, std::ostream *os) {
  *os << "{proto " << h.proto << " metric " << h.metric << (h.marker ? " marked" : "") << (h.weighted ? " weighted" : "");
  for (const auto &[addr, ifindex, vrf, weight] : h.nhs) *os << " via " << addr << "%" << ifindex << "@" << vrf << "w" << weight;
  if (!h.tlv.empty()) *os << " tlv " << h.tlv.size();
  *os << "}";
}
// By "vrf prefix/len".
using Table = std::map<std::string, Held>;

inline std::string addrText(uint8_t af, const uint8_t *a) {
  char b[64];
  return rtmAF_AddrToStr(af, a, b, sizeof b) ? b : "?";
}
inline std::string key(uint8_t af, uint32_t vrf, const uint8_t *prefix, unsigned plen) {
  return std::to_string(vrf) + " " + addrText(af, prefix) + "/" + std::to_string(plen);
}

// The record layouts as agents read them, written out apart from the daemon's own table.
struct Wire {
  size_t cmd, op, marker, vrf, prefix, proto, metric, plen, nnh, tlv, w;
  size_t nh, nhIf, nhVrf, nhW;
  unsigned addr;
};
inline constexpr Wire kWire4 = {32, 0, 4, 8, 12, 16, 20, 24, 25, 26, 28, 16, 4, 8, 12, 4};
inline constexpr Wire kWire6 = {44, 0, 36, 4, 8, 28, 32, 24, 40, 0, 41, 28, 16, 20, 24, 16};

// One command of a route message.
struct Cmd {
  uint32_t op = 0, vrf = 0;
  std::string prefix;  // "a.b.c.d/len"
  unsigned nnhField = 0;
  Held held;
};

// Reads a route message whole; every length is checked against what arrived.
inline std::vector<Cmd> decode(const Msg &m) {
  std::vector<Cmd> out;
  const uint32_t type = ld32(m.data(), IPC_OFF_MTYPE);
  EXPECT_TRUE(type == MT_RTM_FIB_ROUTE || type == MT_RTM6_FIB_ROUTE);
  const uint8_t af = type == MT_RTM_FIB_ROUTE ? 0 : 2;
  const Wire &w = af == 0 ? kWire4 : kWire6;
  const size_t len = ld32(m.data(), IPC_OFF_MLEN);
  EXPECT_EQ(len, m.size());
  EXPECT_EQ(ld32(m.data(), 140), 8192u);
  EXPECT_EQ(ld8(m.data(), 144), af);
  uint32_t adds = 0, dels = 0;
  size_t off = 148;
  while (off < len) {
    if (len - off < w.cmd) {
      ADD_FAILURE() << "command past the end";
      break;
    }
    const uint8_t *c = m.data() + off;
    Cmd cmd;
    cmd.op = ld32(c, w.op);
    cmd.vrf = ld32(c, w.vrf);
    cmd.prefix = addrText(af, c + w.prefix) + "/" + std::to_string(c[w.plen]);
    cmd.nnhField = c[w.nnh];
    cmd.held.proto = ld32(c, w.proto);
    cmd.held.metric = ld32(c, w.metric);
    cmd.held.marker = ld32(c, w.marker);
    cmd.held.weighted = c[w.w] == 1;
    size_t size = w.cmd;
    if (cmd.op == RT_ADD) {
      const size_t tlv = af == 0 ? ld16(c, w.tlv) : 0;
      size += cmd.nnhField * w.nh + tlv;
      if (len - off < size) {
        ADD_FAILURE() << "next hops past the end";
        break;
      }
      for (unsigned i = 0; i < cmd.nnhField; ++i) {
        const uint8_t *n = c + w.cmd + i * w.nh;
        cmd.held.nhs.emplace_back(addrText(af, n), ld32(n, w.nhIf), ld32(n, w.nhVrf), ld32(n, w.nhW));
      }
      cmd.held.tlv.assign(reinterpret_cast<const char *>(c) + w.cmd + cmd.nnhField * w.nh, tlv);
      ++adds;
    } else {
      EXPECT_EQ(cmd.op, RT_DEL);
      ++dels;
    }
    out.push_back(cmd);
    off += size;
  }
  EXPECT_EQ(ld32(m.data(), 132), adds);
  EXPECT_EQ(ld32(m.data(), 136), dels);
  return out;
}

struct Agent {
  Peer *peer = nullptr;
  uint32_t cid = 0;
  uint8_t af = 0;
  uint32_t expSeq = 1;  // next sequence the agent takes from rtmd
  uint32_t sendSeq = 1;  // next sequence of the agent's own messages
  bool acks = true;
  std::vector<Msg> unacked;  // kept while the agent does not acknowledge
  Table table;
  std::vector<Cmd> cmds;  // every command received, in order
  uint32_t routeMsgs = 0, nhMsgs = 0, begins = 0;
  rt_client *rtc() const { return rtmClientGetByHandle(af, cid); }
};

class DownloadTest : public rtmtest::RtmdTest {
 protected:
  void SetUp() override {
    RtmdTest::SetUp();
    for (uint8_t &s : rtmRcvdDnldCmpFrmIfm) s = 1;
    ifmClearIfIndexTypes();
  }
  void TearDown() override {
    ifmClearIfIndexTypes();
    RtmdTest::TearDown();
  }

 public:

  // A protocol client of the family, straight into the client table at a handle no
  // registration takes first.
  rt_client *proto(uint32_t cid, uint32_t p, uint8_t af = RTM_IPV4UNI_AFINDEX) {
    rt_client &rtc = rt_client_tbl[af][cid];
    rtc.rtc_state = RTC_STATE_ACTIVE;
    rtc.rtc_cid = cid;
    rtc.rtc_proto = p;
    rtc.rtc_afIndex = af;
    rtc.rtc_vrfId = ALL_VRF_ID;
    for (uint32_t v = 0; v < MAX_VRF; ++v)
      if (g_rtmVrfInUse[v]) EXPECT_EQ(rtmClientVrfInit(&rtc, v), 0);
    return &rtc;
  }
  int add(uint32_t cid, Route &r) { return rtmAddRouteIPv4(r.af, cid, r.p()); }
  int del(uint32_t cid, Route &r) { return rtmDelRouteIPv4(r.af, cid, r.p()); }

  Agent &agent(uint32_t svce, uint32_t slot, uint8_t af = RTM_IPV4UNI_AFINDEX, uint32_t p = RTM_PROTO_FIB) {
    Peer &peer = open(svce);
    Agent a;
    a.peer = &peer;
    a.af = af;
    EXPECT_EQ(reg(peer, {p, slot, af}, &a.cid), RTM_REG_OK);
    agents.push_back(a);
    return agents.back();
  }

  // Reads what reached the agent: route messages change its table; every message is
  // acknowledged in order unless the agent has stopped acknowledging.
  bool take(Agent &a) {
    bool any = false;
    if (a.acks && !a.unacked.empty()) {
      for (const Msg &m : a.unacked) qorSwpCkSeqAndAck(m.data(), &a.expSeq, a.peer->queue());
      a.unacked.clear();
      any = true;
    }
    std::vector<Msg> msgs = received(*a.peer);
    for (Msg &m : msgs) {
      const uint32_t type = ld32(m.data(), IPC_OFF_MTYPE);
      if (type == MT_RTM_FIB_ROUTE || type == MT_RTM6_FIB_ROUTE) {
        ++a.routeMsgs;
        for (Cmd &c : decode(m)) {
          const std::string k = std::to_string(c.vrf) + " " + c.prefix;
          if (c.op == RT_ADD)
            a.table[k] = c.held;
          else
            a.table.erase(k);
          a.cmds.push_back(std::move(c));
        }
      } else if (type == MT_RTM_FIB_NH) {
        ++a.nhMsgs;
      } else if (type == MT_RTM_DNLD_CNTRL) {
        ++a.begins;
        a.table.clear();
      }
      if (m.size() < IPC_SWP_HDR_LEN) continue;
      if (a.acks)
        qorSwpCkSeqAndAck(m.data(), &a.expSeq, a.peer->queue());
      else
        a.unacked.push_back(std::move(m));
    }
    return any || !msgs.empty();
  }

  // Runs rtmd, its threads and the agents until nobody has anything left to say.
  void settle(int rounds = 10000) {
    for (int i = 0; i < rounds; ++i) {
      qorThreadRunUntilIdle(rtmThreads);
      bool any = false;
      for (Agent &a : agents) any |= take(a);
      pump();
      if (!any && qorThreadIsSuspended(rtmThreads, rtmThreadRteDn) == 1) return;
    }
    ADD_FAILURE() << "the download did not settle";
  }

  // A download control message from the agent on its own sequence.
  void control(Agent &a, uint32_t action, uint32_t vrfId) {
    Msg m(RTM_DNLD_CNTRL_LEN, 0);
    rtm::st32(m.data(), IPC_OFF_MLEN, RTM_DNLD_CNTRL_LEN);
    rtm::st32(m.data(), IPC_OFF_MTYPE, MT_RTM_DNLD_CNTRL);
    rtm::st32(m.data(), SWP_OFF_QUEUE, 1);
    rtm::st32(m.data(), SWP_OFF_SEQ, a.sendSeq++);
    rtm::st32(m.data(), RTM_DNLD_CNTRL_OFF_CID, a.af == 0 ? a.cid << 16 : a.cid);
    rtm::st32(m.data(), RTM_DNLD_CNTRL_OFF_ACTION, action);
    rtm::st32(m.data(), RTM_DNLD_CNTRL_OFF_VRFID, vrfId);
    m[RTM_DNLD_CNTRL_OFF_AFINDEX] = a.af;
    send(*a.peer, m);
  }

  // The active routes of a VRF as an agent of the family should hold them.
  static Table ribTable(uint8_t af, uint32_t vrfId = 0) {
    Table t;
    qor_radix_tree *tree = rtmRibGetTree(af, vrfId);
    for (qor_radix_hdr *h = qorRadixGetNext(tree, nullptr); h; h = qorRadixGetNext(tree, h)) {
      const rt_head *rth = rtmHeadOf(h);
      const rt_entry *e = rth->rtmh_rte;
      if (!e) continue;
      Held held;
      held.proto = e->rte_proto == RTM_PROTO_VRRP ? RTM_PROTO_CONNECTED : e->rte_proto;
      held.metric = static_cast<uint32_t>(e->rte_metric);
      held.marker = (rth->rtmh_bits & RTMH_VRRP) ? 0xFFFFFFFFu : 0;
      held.weighted = e->rte_wecmp;
      for (unsigned i = 0; i < e->rte_nnh; ++i) {
        const rt_nh *n = rtmRteNh(e)[i];
        held.nhs.emplace_back(addrText(af, n->rtn_addr), n->rtn_ifindex, n->rtn_vrfId, e->rte_wecmp ? n->rtn_weight : 0);
      }
      if (af == 0) held.tlv.assign(reinterpret_cast<const char *>(rtmRteTlv(e)), e->rte_tlvlen);
      t[key(af, vrfId, rth->rtmh_prefix, rth->rtmh_prefixlen)] = held;
    }
    return t;
  }

  static bool onSuper(const Agent &a) { return rtmClientOnList(&superClients[a.af], a.rtc()); }
  static uint64_t inUse(uint32_t pool) {
    QorMemPoolStats s;
    qorMemPoolStatsGet(pool, &s);
    return s.inUse;
  }

  std::deque<Agent> agents;
};

// Quick routes of a protocol client.
inline Route ospf(const char *prefix, unsigned plen, const char *nh = "192.168.1.1", uint32_t ifindex = 3) {
  Route r;
  r.prefix(prefix, plen).proto(RTM_PROTO_OSPF).pref(110).metric(20).nh(nh, ifindex);
  return r;
}
inline Route ospf6(const char *prefix, unsigned plen, const char *nh = "fe80::1", uint32_t ifindex = 3) {
  Route r(RTM_IPV6UNI_AFINDEX);
  r.prefix(prefix, plen).proto(RTM_PROTO_OSPF).pref(110).metric(20).nh(nh, ifindex);
  return r;
}

}  // namespace dltest
