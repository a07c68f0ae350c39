// The route-count view: which rows a request selects, in what order, how pages are cut, and that
// the totals cover the whole selection (the answer over the request queue is the feed test's).
#include "tests/unit/clients/rtmd_fixture.h"

#include "client/rtm_client_lib.h"
#include "rib/rtm_rib.h"
#include "views/rtm_views.h"

using rtm::ld32;

namespace {

constexpr uint32_t kOtherVrf = 5;

class Views : public rtmtest::RtmdTest {
 protected:
  void SetUp() override {
    RtmdTest::SetUp();
    // Every slot of both families holds a client whose counters name it; IPv4 clients 10 to 12
    // also serve a second VRF.
    g_rtmVrfInUse[kOtherVrf] = 1;
    for (uint8_t af : {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX})
      for (uint32_t cid = 0; cid < MAX_RTM_CLEINTS; ++cid) {
        rt_client &rtc = rt_client_tbl[af][cid];
        rtc.rtc_state = 1;
        rtc.rtc_cid = cid;
        rtc.rtc_afIndex = af;
        rtc.rtc_proto = RTM_PROTO_OSPF + cid % 4;
        rtc.rtc_instance = 100 + cid;
        fill(rtc, af, 0);
        if (af == RTM_IPV4UNI_AFINDEX && cid >= 10 && cid <= 12) fill(rtc, af, kOtherVrf);
      }
  }
  static void fill(rt_client &rtc, uint8_t af, uint32_t vrf) {
    ASSERT_EQ(rtmClientVrfInit(&rtc, vrf), 0);
    rtClientVrfInfo *rvi = rtc.rtc_vrf[vrf];
    rvi->rvi_active = active(af, rtc.rtc_cid, vrf);
    rvi->rvi_inactive = rtc.rtc_cid;
    rvi->rvi_activeBgp = af;
    rvi->rvi_inactiveBgp = 1;
    for (unsigned k = 0; k < 6; ++k) rvi->rvi_subtypeCnt[k] = k * 1000 + rtc.rtc_cid;
    rvi->rvi_blocked = rtc.rtc_cid == 7;
  }
  static uint32_t active(uint8_t af, uint32_t cid, uint32_t vrf) { return 100000 * vrf + 1000 * af + cid; }

  // Builds the answer to a request in a fresh buffer and decodes it.
  rtmclient::RouteCountReply ask(uint32_t af, uint32_t vrf, uint32_t cursor, uint32_t len = RTM_RC_REQ_LEN) {
    std::vector<uint8_t> msg(RTM_IPC_BUF_SIZE, 0xEE);
    rtmclient::encodeRouteCountRequest(af, vrf, cursor, msg.data(), msg.size());
    uint32_t status = rtmRouteCountBuild(msg.data(), len);
    rtmclient::RouteCountReply out;
    EXPECT_EQ(rtmclient::decodeRouteCountReply(msg.data(), ld32(msg.data(), IPC_OFF_MLEN), &out), RTM_WIRE_OK);
    EXPECT_EQ(out.status, status);
    return out;
  }
};

TEST_F(Views, RouteCountSelectsPagesAndTotals) {
  // Sums over one family of VRF 0: active 1000*af + cid, inactive cid, inactiveBgp 1 per row.
  const uint64_t cidSum = 63 * 64 / 2;
  const uint64_t v4vrf0 = cidSum, v6vrf0 = 64 * 2000 + cidSum;
  const uint64_t v4vrf5 = 3 * 500000 + 10 + 11 + 12;
  struct Case {
    const char *what;
    uint32_t af, vrf, cursor;
    uint32_t status, rows, next, total;
    uint64_t active;
    uint32_t firstCid;
    uint8_t firstAf;
    uint32_t firstVrf;
  } cases[] = {
      {"first page of everything", RTM_RC_ALL_AF, ALL_VRF_ID, 0, RTM_RC_OK, 125, 125, 131, v4vrf0 + v6vrf0 + v4vrf5, 0, 0, 0},
      {"second page: the rest, in VRF order", RTM_RC_ALL_AF, ALL_VRF_ID, 125, RTM_RC_OK, 6, 0, 131,
       v4vrf0 + v6vrf0 + v4vrf5, 61, 2, 0},
      {"a cursor past the end keeps the totals", RTM_RC_ALL_AF, ALL_VRF_ID, 500, RTM_RC_OK, 0, 0, 131,
       v4vrf0 + v6vrf0 + v4vrf5, 0, 0, 0},
      {"IPv6 of VRF 0 fits one page", RTM_IPV6UNI_AFINDEX, 0, 0, RTM_RC_OK, 64, 0, 64, v6vrf0, 0, 2, 0},
      {"one VRF of IPv4", RTM_IPV4UNI_AFINDEX, kOtherVrf, 0, RTM_RC_OK, 3, 0, 3, v4vrf5, 10, 0, kOtherVrf},
      {"a VRF not in use is empty", RTM_RC_ALL_AF, 9, 0, RTM_RC_OK, 0, 0, 0, 0, 0, 0, 0},
      {"IPv4 multicast has no clients to count", IPV4MUL_AFINDEX, 0, 0, RTM_RC_EBADREQ, 0, 0, 0, 0, 0, 0, 0},
      {"VRF beyond the last", RTM_RC_ALL_AF, MAX_VRF, 0, RTM_RC_EBADREQ, 0, 0, 0, 0, 0, 0, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    rtmclient::RouteCountReply r = ask(c.af, c.vrf, c.cursor);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.rows.size(), c.rows);
    EXPECT_EQ(r.next, c.next);
    EXPECT_EQ(r.total, c.total);
    EXPECT_EQ(r.active, c.active);
    EXPECT_EQ(r.inactiveBgp, c.total);
    if (r.rows.empty()) continue;
    EXPECT_EQ(r.rows[0].cid, c.firstCid);
    EXPECT_EQ(r.rows[0].afIndex, c.firstAf);
    EXPECT_EQ(r.rows[0].vrfId, c.firstVrf);
    // Each row carries its own record, whatever page it is on.
    for (const auto &row : r.rows) {
      const rt_client &rtc = rt_client_tbl[row.afIndex][row.cid];
      EXPECT_EQ(row.proto, rtc.rtc_proto);
      EXPECT_EQ(row.instance, rtc.rtc_instance);
      EXPECT_EQ(row.active, active(row.afIndex, row.cid, row.vrfId));
      EXPECT_EQ(row.inactive, row.cid);
      EXPECT_EQ(row.activeBgp, row.afIndex);
      EXPECT_EQ(row.subtype[5], 5000 + row.cid);
      EXPECT_EQ(row.flags, row.cid == 7 ? RTM_RC_ROW_BLOCKED : 0);
    }
  }
  // A request too short to say what it wants is refused and answered at its own length.
  std::vector<uint8_t> msg(RTM_IPC_BUF_SIZE, 0);
  rtmclient::encodeRouteCountRequest(0, 0, 0, msg.data(), msg.size());
  EXPECT_EQ(rtmRouteCountBuild(msg.data(), RTM_RC_REQ_LEN - 4), RTM_RC_EBADREQ);
  EXPECT_EQ(ld32(msg.data(), RTM_NM_OFF_STATUS), RTM_RC_EBADREQ);
  EXPECT_EQ(ld32(msg.data(), IPC_OFF_MLEN), RTM_RC_REQ_LEN - 4);
}

}  // namespace
