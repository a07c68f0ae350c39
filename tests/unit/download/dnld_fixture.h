// rtmd in-process with FIB agents on real sockets that register with real messages, keep the
// table the route messages describe and acknowledge them (or not). Routes come from protocol
// clients put straight into the client table.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "download/rtm_download.h"
#include "interfaces/rtm_if.h"
#include "tests/unit/rib/rib_test_util.h"

namespace dltest {

using ribtest::Route;
using rtm::ld16;
using rtm::ld32;
using rtmtest::Msg;
using rtmtest::Peer;

// A route as an agent holds it; next hops as (address, ifindex, VRF, weight).
struct Held {
  uint32_t proto = 0, metric = 0, marker = 0;
  bool weighted = false;
  std::vector<std::tuple<std::string, uint32_t, uint32_t, uint32_t>> nhs{};
  std::string tlv{};
  bool operator==(const Held &) const = default;
};
inline void PrintTo(const Held &h, std::ostream *os) {
  *os << "{proto " << h.proto << " metric " << h.metric << (h.marker ? " marked" : "");
  for (const auto &[addr, ifindex, vrf, weight] : h.nhs) *os << " via " << addr << "%" << ifindex << "@" << vrf << "w" << weight;
  *os << " tlv " << h.tlv.size() << "}";
}
using Table = std::map<std::string, Held>;  // by "vrf prefix/len"

inline std::string text(uint8_t af, const uint8_t *a) {
  char b[64];
  return rtmAF_AddrToStr(af, a, b, sizeof b) ? b : "?";
}

// One command of a route message.
struct Cmd {
  uint32_t op = 0, vrf = 0;
  std::string prefix;  // "a.b.c.d/len"
  Held held;
};

// Reads a route message whole, with the offsets an agent reads; every length is checked against
// what arrived and the header's counts against the commands.
inline std::vector<Cmd> decode(const Msg &m) {
  struct Off {
    size_t cmd, vrf, prefix, plen, proto, metric, marker, nnh, tlv, w, nh, nhIf, nhVrf, nhW;
  };
  static constexpr Off k4 = {32, 8, 12, 24, 16, 20, 4, 25, 26, 28, 16, 4, 8, 12};
  static constexpr Off k6 = {44, 4, 8, 24, 28, 32, 36, 40, 0, 41, 28, 16, 20, 24};
  const uint8_t af = ld32(m.data(), IPC_OFF_MTYPE) == MT_RTM_FIB_ROUTE ? 0 : 2;
  const Off &o = af == 0 ? k4 : k6;
  const size_t len = ld32(m.data(), IPC_OFF_MLEN);
  EXPECT_EQ(std::tuple(len, ld32(m.data(), 140), m[144]), std::tuple(m.size(), 8192u, af));
  std::vector<Cmd> out;
  uint32_t counts[3] = {};
  for (size_t off = 148; off < len;) {
    const uint8_t *c = m.data() + off;
    Cmd cmd;
    cmd.op = len - off >= o.cmd ? ld32(c, 0) : 0;
    if (cmd.op != RT_ADD && cmd.op != RT_DEL) {
      ADD_FAILURE() << "bad command at " << off;
      break;
    }
    cmd.vrf = ld32(c, o.vrf);
    cmd.prefix = text(af, c + o.prefix) + "/" + std::to_string(c[o.plen]);
    Held &h = cmd.held;
    h.proto = ld32(c, o.proto), h.metric = ld32(c, o.metric), h.marker = ld32(c, o.marker), h.weighted = c[o.w];
    const unsigned nnh = cmd.op == RT_ADD ? c[o.nnh] : 0;
    const size_t tlv = cmd.op == RT_ADD && af == 0 ? ld16(c, o.tlv) : 0;
    const size_t size = o.cmd + nnh * o.nh + tlv;
    if (len - off < size) {
      ADD_FAILURE() << "next hops past the end";
      break;
    }
    for (unsigned i = 0; i < nnh; ++i) {
      const uint8_t *n = c + o.cmd + i * o.nh;
      h.nhs.emplace_back(text(af, n), ld32(n, o.nhIf), ld32(n, o.nhVrf), ld32(n, o.nhW));
    }
    h.tlv.assign(reinterpret_cast<const char *>(c) + o.cmd + nnh * o.nh, tlv);
    ++counts[cmd.op];
    out.push_back(cmd);
    off += size;
  }
  EXPECT_EQ(std::tuple(ld32(m.data(), 132), ld32(m.data(), 136)), std::tuple(counts[RT_ADD], counts[RT_DEL]));
  return out;
}

struct Agent {
  Peer *peer = nullptr;
  uint32_t cid = 0;
  uint8_t af = 0;
  uint32_t expSeq = 1;   // next sequence the agent takes from rtmd
  uint32_t sendSeq = 1;  // next sequence of its own messages
  bool acks = true;
  std::vector<Msg> unacked{};  // kept while the agent does not acknowledge
  Table table{};
  std::vector<Cmd> cmds{};  // every command received, in order
  uint32_t routeMsgs = 0, nhMsgs = 0;
  rt_client *rtc() const { return rtmClientGetByHandle(af, cid); }
};

class DownloadTest : public ribtest::RibTest {
 protected:
  void SetUp() override {
    RibTest::SetUp();
    for (uint8_t &s : rtmRcvdDnldCmpFrmIfm) s = 1;
    ifmClearIfIndexTypes();
  }
  void TearDown() override {
    ifmClearIfIndexTypes();
    RibTest::TearDown();
  }

 public:
  // A protocol client of every VRF, straight into the table at a handle registrations take last.
  void proto(uint32_t cid, uint32_t p, uint8_t af) { client(cid, p, af, ALL_VRF_ID); }

  Agent &agent(uint32_t svce, uint32_t slot, uint8_t af = RTM_IPV4UNI_AFINDEX, uint32_t p = RTM_PROTO_FIB) {
    Peer &peer = open(svce);
    agents.push_back({&peer, registered(peer, {p, slot, af}), af});
    return agents.back();
  }

  // Reads what reached the agent: route messages change its table, a download marker empties
  // it; everything is acknowledged in order unless the agent has stopped acknowledging.
  bool take(Agent &a) {
    bool any = a.acks && !a.unacked.empty();
    for (Msg &m : received(*a.peer)) {
      any = true;
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
      }
      a.nhMsgs += type == MT_RTM_FIB_NH;
      if (type == MT_RTM_DNLD_CNTRL) a.table.clear();
      a.unacked.push_back(std::move(m));
    }
    if (a.acks) {
      for (const Msg &m : a.unacked) qorSwpCkSeqAndAck(m.data(), &a.expSeq, a.peer->queue());
      a.unacked.clear();
    }
    return any;
  }

  // Runs rtmd, its threads and the agents until nobody has anything left to say.
  void settle() {
    for (int i = 0; i < 10000; ++i) {
      qorThreadRunUntilIdle(rtmThreads);
      bool any = false;
      for (Agent &a : agents) any |= take(a);
      pump();
      if (!any && qorThreadIsSuspended(rtmThreads, rtmThreadRteDn) == 1) return;
    }
    ADD_FAILURE() << "the download did not settle";
  }

  // A download control message from the agent, on its own sequence.
  void control(Agent &a, uint32_t action, uint32_t vrfId) {
    Msg m = message(MT_RTM_DNLD_CNTRL, RTM_DNLD_CNTRL_LEN);
    rtm::st32(m.data(), SWP_OFF_QUEUE, 1), rtm::st32(m.data(), SWP_OFF_SEQ, a.sendSeq++);
    rtm::st32(m.data(), RTM_DNLD_CNTRL_OFF_CID, a.af == 0 ? a.cid << 16 : a.cid);
    rtm::st32(m.data(), RTM_DNLD_CNTRL_OFF_ACTION, action), rtm::st32(m.data(), RTM_DNLD_CNTRL_OFF_VRFID, vrfId);
    m[RTM_DNLD_CNTRL_OFF_AFINDEX] = a.af;
    send(*a.peer, m);
  }

  // The active routes of VRF 0 as an agent of the family should hold them.
  static Table ribTable(uint8_t af) {
    Table t;
    qor_radix_tree *tree = rtmRibGetTree(af, 0);
    for (qor_radix_hdr *h = qorRadixGetNext(tree, nullptr); h; h = qorRadixGetNext(tree, h)) {
      const rt_head *rth = rtmHeadOf(h);
      const rt_entry *e = rth->rtmh_rte;
      if (!e) continue;
      Held held{e->rte_proto == RTM_PROTO_VRRP ? RTM_PROTO_CONNECTED : e->rte_proto, uint32_t(e->rte_metric),
                rtmhHas(rth, RTMH_VRRP) ? 0xFFFFFFFFu : 0, bool(e->rte_wecmp)};
      for (unsigned i = 0; i < e->rte_nnh; ++i) {
        const rt_nh *n = rtmRteNh(e)[i];
        held.nhs.emplace_back(text(af, n->rtn_addr), n->rtn_ifindex, n->rtn_vrfId, e->rte_wecmp ? n->rtn_weight : 0);
      }
      if (af == 0) held.tlv.assign(reinterpret_cast<const char *>(rtmRteTlv(e)), e->rte_tlvlen);
      t["0 " + text(af, rtmh_prefix(rth)) + "/" + std::to_string(rtmh_prefixlen(rth))] = held;
    }
    return t;
  }

  static bool onSuper(const Agent &a) { return rtmClientOnList(&superClients[a.af], a.rtc()); }
  // Fills the agent's queue with `n` messages that it has not acknowledged.
  void fill(Agent &a, int n) {
    for (int i = 0; i < n; ++i) {
      auto *m = static_cast<uint8_t *>(RTM_POOL_ALLOC(RTM_MEM_TAG_RIB, 8192, RTM_SWP_DNLD_POOL));
      ASSERT_EQ(qorSwpEnqueue(a.rtc()->rtc_dnldQ, m, IPC_SWP_HDR_LEN), QOR_SWP_OK);
    }
  }

  std::deque<Agent> agents;
};

// A route of a protocol client: OSPF unless told otherwise.
inline Route route(const char *prefix, unsigned plen, const char *nh = nullptr, uint32_t ifindex = 3) {
  const uint8_t af = strchr(prefix, ':') ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX;
  Route r(af);
  r.prefix(prefix, plen).proto(RTM_PROTO_OSPF).pref(110).metric(20);
  r.nh(nh ? nh : af == 0 ? "192.168.1.1" : "fe80::1", ifindex);
  return r;
}

}  // namespace dltest
