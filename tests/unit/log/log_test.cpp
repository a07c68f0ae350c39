#include <gtest/gtest.h>

#include "log/qor_log.h"
#include "timer/qor_timer.h"

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qorLogReset();
    qorLogSetEcho(false);
  }
  void TearDown() override { qorLogSetEcho(true); }
};

TEST_F(LogTest, SysErrKeepsCodeTextAndRenderedArguments) {
  const char *name = "bgp";
  qorSysErr(1, 0, 0x148018, 0, "RTM: rtmAddRouteIPv4", 42u, -7, name, static_cast<uint8_t>(2));
  const QorLogRecord *r = qorLogLast(0x148018);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->text, "RTM: rtmAddRouteIPv4");
  EXPECT_EQ(r->args, (std::vector<std::string>{"42", "-7", "bgp", "2"}));
  EXPECT_EQ(qorLogCount(0x148018), 1u);
  EXPECT_EQ(qorLogCount(0x148019), 0u);
}

TEST_F(LogTest, HistoryRingKeepsTheNewestLinesTruncatedToItsWidth) {
  qorInitHistoryTable(5, 10, 1);
  qorHistory("not kept: logging is off");
  EXPECT_TRUE(qorHistoryLines().empty());
  qorEnableHistoryLogging();
  for (int i = 0; i < 8; ++i) qorHistory("line %d of many characters", i);
  auto lines = qorHistoryLines();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines.front(), "line 3 of");  // width 10 keeps 9 characters
  EXPECT_EQ(lines.back(), "line 7 of");
}

TEST_F(LogTest, TraceOnlyWhenBitZeroOfTheModuleIsSet) {
  qorTracePrintf(51, "hidden %d", 1);
  EXPECT_FALSE(qorLogSaw("hidden"));
  wrap_modtraceflags(51) = 1;
  qorTracePrintf(51, "shown %d", 2);
  EXPECT_TRUE(qorLogSaw("shown 2"));
}

TEST_F(LogTest, AssertionsAreCountedAndRtmAssertRaisesItsEvent) {
  _qorAssert("rib < MAX_VRF", "x.cpp", 10, 0);
  EXPECT_EQ(qorAssertCount(), 1u);
  rtm_assert("f.cpp", 3, 1);
  EXPECT_EQ(qorLogCount(0x148009), 0u);
  rtm_assert("f.cpp", 3, 0);
  EXPECT_EQ(qorLogCount(0x148009), 1u);
}

TEST_F(LogTest, OpenLogFailsOnceWhenArmed) {
  EXPECT_GT(qorEvtOpenlog("RTM", 0, 76, 0), 0);
  qorLogFailNextOpen();
  EXPECT_EQ(qorEvtOpenlog("RTM", 0, 76, 0), -1);
  EXPECT_GT(qorEvtOpenlog("RTM", 0, 76, 0), 0);
}

TEST(Clock, ManualClockAdvancesOnlyByHandAndDelayAdvancesIt) {
  qorClockUseManual(true);
  uint64_t t0 = qorTickGet();
  EXPECT_EQ(qorTickGet(), t0);
  qorClockAdvance(30 * sysClkRateGet());
  EXPECT_EQ(qortick_to_sec(qorTickGet() - t0), 30u);
  taskDelay(2 * sysClkRateGet());
  EXPECT_EQ(qorTickGet() - t0, 32u * sysClkRateGet());
  qorClockUseManual(false);
}
