// A stuck FIB agent against rtmd over the real sockets: it holds back the super group it is in
// until rtmd gives its queue up, after which the other member is served alone; asked again, it
// is served from the start. Apart from the other download tests because rtmd takes some 23
// seconds to give a silent peer up.
#include "tests/system/download/download_fixture.h"

using namespace rtmtest;
using namespace rtmclient;

namespace {

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
  constexpr uint32_t kMore = 40000;  // some 320 messages or more: more than a queue takes
  feed(bgp, m, 1000, kMore, true);
  settleProtos();
  ASSERT_TRUE(pumpUntil([&] { return heldBackBy(2, 1); }, 30000));
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

}  // namespace
