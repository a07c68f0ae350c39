// rtmd and rtm-feed as processes over the real sockets: what the feeder pushes is what rtmd's
// counters say, through the route-count query; and a route update whose count reaches past
// its datagram is dropped whole while the daemon goes on serving.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "client/rtm_client_lib.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "tests/support/rtmd_process.h"

using namespace rtmtest;

namespace {

constexpr uint32_t kProbeSvce = 950, kClientSvce = 951;

class FeedSystem : public ::testing::Test {
 protected:
  void SetUp() override {
    qorIpcReset();
    qorLogSetEcho(false);
    ASSERT_EQ(qorIpcSetRunDir(dir.path().c_str()), 0);
    log = dir.path() + "/rtmd.log";
    rtmd = std::make_unique<Process>(builtBinary("src/frame/rtmd"),
                                     std::vector<std::string>{"--run-dir", dir.path(), "--log-file", log});
    ASSERT_GT(rtmd->pid(), 0);
    ASSERT_TRUE(waitForText(log, "RTM Task is Ready", 10000)) << readFile(log);
    probe = qorIpcOpen(kProbeSvce, 0);
    ASSERT_GE(probe, 0);
  }
  void TearDown() override {
    if (rtmd) {
      EXPECT_EQ(rtmd->stop(SIGTERM, 10000), 0) << "rtmd must still be running and stop cleanly";
    }
    qorIpcReset();
    qorLogSetEcho(true);
  }

  // Runs rtm-feed to its end; its exit status.
  int feed(std::vector<std::string> args) {
    std::vector<std::string> all = {"--run-dir", dir.path(), "--quiet"};
    all.insert(all.end(), args.begin(), args.end());
    Process p(builtBinary("tools/rtm-feed/rtm-feed"), all);
    return p.stop(0, 240000);
  }

  rtmclient::RouteCountReply counts() {
    rtmclient::RouteCountReply r;
    EXPECT_EQ(rtmclient::queryRouteCount(probe, RTM_RC_ALL_AF, ALL_VRF_ID, &r, 5000, 2), 0) << strerror(errno);
    return r;
  }
  // The row of a protocol instance in IPv4 VRF 0 (a default row with cid 0xFFFF if none).
  static rtmclient::RouteCountRow row(const rtmclient::RouteCountReply &r, uint32_t proto, uint32_t inst) {
    for (const auto &row : r.rows)
      if (row.proto == proto && row.instance == inst && row.afIndex == 0 && row.vrfId == 0) return row;
    rtmclient::RouteCountRow none;
    none.cid = 0xFFFF;
    return none;
  }

  TempDir dir;
  std::string log;
  std::unique_ptr<Process> rtmd;
  int probe = -1;
};

TEST_F(FeedSystem, AHundredThousandRoutesAreAddedThenWithdrawn) {
  ASSERT_EQ(feed({"--proto", "bgp", "--inst", "1", "--generate", "100000"}), 0);
  rtmclient::RouteCountReply r = counts();
  rtmclient::RouteCountRow bgp = row(r, RTM_PROTO_BGP, 1);
  ASSERT_NE(bgp.cid, 0xFFFFu) << "the feeder's client is known to rtmd";
  EXPECT_EQ(bgp.active, 100000u);
  EXPECT_EQ(bgp.inactive, 0u);
  EXPECT_EQ(r.active, 100000u);
  EXPECT_GE(r.prefixes, 100000u);

  // A later run of the same protocol instance is the same client and withdraws them all.
  ASSERT_EQ(feed({"--proto", "bgp", "--inst", "1", "--generate", "100000", "--withdraw"}), 0);
  r = counts();
  EXPECT_EQ(row(r, RTM_PROTO_BGP, 1).cid, bgp.cid);
  EXPECT_EQ(row(r, RTM_PROTO_BGP, 1).active, 0u);
  EXPECT_EQ(row(r, RTM_PROTO_BGP, 1).inactive, 0u);
  EXPECT_EQ(r.active, 0u);
  EXPECT_EQ(r.inactive, 0u);
}

TEST_F(FeedSystem, TheLessPreferredProtocolIsCountedInactiveUntilTheOtherGoes) {
  ASSERT_EQ(feed({"--proto", "ospf", "--inst", "2", "--generate", "3000", "--sequential", "--nexthops", "2"}), 0);
  ASSERT_EQ(feed({"--proto", "bgp", "--inst", "1", "--generate", "2000", "--sequential"}), 0);
  rtmclient::RouteCountReply r = counts();
  EXPECT_EQ(row(r, RTM_PROTO_BGP, 1).active, 2000u);
  EXPECT_EQ(row(r, RTM_PROTO_OSPF, 2).active, 1000u);
  EXPECT_EQ(row(r, RTM_PROTO_OSPF, 2).inactive, 2000u);
  // BGP withdraws its routes and leaves; OSPF's come forward.
  ASSERT_EQ(feed({"--proto", "bgp", "--inst", "1", "--generate", "2000", "--sequential", "--withdraw", "--deregister"}), 0);
  r = counts();
  EXPECT_EQ(row(r, RTM_PROTO_BGP, 1).cid, 0xFFFFu);
  EXPECT_EQ(row(r, RTM_PROTO_OSPF, 2).active, 3000u);
  EXPECT_EQ(row(r, RTM_PROTO_OSPF, 2).inactive, 0u);
}

TEST_F(FeedSystem, AnUpdateWhoseCountReachesPastItsDatagramAppliesNothing) {
  rtmclient::ProtoClient c({.svce = kClientSvce, .proto = RTM_PROTO_OSPF, .instance = 3, .name = "ospf-3"});
  ASSERT_EQ(c.open(), 0) << c.lastError();
  ASSERT_EQ(c.registerFamily(RTM_IPV4UNI_AFINDEX), 0) << c.lastError();

  rtmclient::NextHop nh;
  ASSERT_TRUE(rtmclient::parseAddr(0, "192.0.2.1", nh.addr));
  rtmclient::Route route{.prefixLen = 24, .pref = 110, .proto = RTM_PROTO_OSPF, .nh = &nh, .nnh = 1};
  std::vector<uint8_t> msg(RTM_IPC_BUF_SIZE);
  ASSERT_EQ(rtmclient::routeMsgInit(msg.data(), msg.size(), c.cid(0), 0), RTM_WIRE_OK);
  for (uint8_t i = 1; i <= 3; ++i) {
    route.prefix[0] = 10;
    route.prefix[1] = i;
    ASSERT_EQ(rtmclient::routeMsgAdd(msg.data(), msg.size(), RTM_UPD_ADD, route), RTM_WIRE_OK);
  }
  rtm::st32(msg.data(), RTM_UPD_OFF_COUNT, 5);  // two more than the datagram holds
  ASSERT_EQ(c.sendRaw(0, msg.data(), rtmclient::routeMsgLen(msg.data())), 0) << c.lastError();
  // A good update behind it on the same queue is taken: the queue and the daemon go on.
  route.prefix[1] = 200;
  ASSERT_EQ(c.add(route), 0) << c.lastError();
  ASSERT_EQ(c.waitIdle(20000), 0) << c.lastError();

  EXPECT_TRUE(waitForText(log, "RTM: rtmUpdateRouteIPv4", 5000)) << readFile(log);
  rtmclient::RouteCountReply r = counts();
  EXPECT_EQ(row(r, RTM_PROTO_OSPF, 3).active, 1u) << "only the well-formed update was applied";
  EXPECT_EQ(r.active, 1u);
  EXPECT_TRUE(rtmd->running());
}

}  // namespace
