#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <vector>

#include "rtm/rtm_wire.h"
#include "timer/qor_timer.h"

namespace {

using Msg = std::vector<uint8_t>;

void countCb(void *count) { ++*static_cast<int *>(count); }

// Collects what the sink receives, as the timer queue would.
void collect(void *ctx, const uint8_t *msg, uint32_t len) {
  static_cast<std::vector<Msg> *>(ctx)->emplace_back(msg, msg + len);
}

class TimerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qorTimerReset();
    qorClockUseManual(true);
  }
  void TearDown() override {
    qorTimerReset();
    qorClockUseManual(false);
  }
  // A timer of `seconds` whose expiry has reached `queue` (its callback counts in `runs`).
  vx2bsdTimer_t expired(uint32_t seconds = 1) {
    queue.clear();
    runs = 0;
    qorTimerSetExpirySink(collect, &queue);
    vx2bsdTimer_t t = vx2bsdTimerCreate();
    EXPECT_EQ(vx2bsdTimerStart(t, seconds, countCb, &runs, 0), 0);
    qorClockAdvance(seconds * sysClkRateGet());
    return t;
  }
  std::vector<Msg> queue;
  int runs = 0;
};

// Each row drives one timer through starts, cancels and clock steps and says how often the
// callback has run, and whether the timer is armed, after each step (a second is 100 ticks).
TEST_F(TimerTest, StartCancelRearmDelete) {
  enum Op { Start, Cancel, Delete, Advance };
  struct Step {
    Op op;
    uint32_t n;  // seconds for Start, ticks for Advance
    int fired;
    bool armed;
  };
  struct Row {
    const char *name;
    std::vector<Step> steps;
  };
  const Row rows[] = {
      {"a one-shot fires once, at its tick", {{Start, 3, 0, 1}, {Advance, 299, 0, 1}, {Advance, 1, 1, 0}, {Advance, 10000, 1, 0}}},
      {"cancelled before its deadline it never fires",
       {{Start, 2, 0, 1}, {Advance, 150, 0, 1}, {Cancel, 0, 0, 0}, {Advance, 1000, 0, 0}}},
      {"re-armed later it fires at the new deadline only",
       {{Start, 3, 0, 1}, {Advance, 200, 0, 1}, {Start, 3, 0, 1}, {Advance, 299, 0, 1}, {Advance, 1, 1, 0}, {Advance, 1000, 1, 0}}},
      {"re-armed sooner it fires once, at the sooner deadline",
       {{Start, 10, 0, 1}, {Advance, 100, 0, 1}, {Start, 1, 0, 1}, {Advance, 100, 1, 0}, {Advance, 1000, 1, 0}}},
      {"started again after firing it fires again",
       {{Start, 1, 0, 1}, {Advance, 100, 1, 0}, {Start, 1, 1, 1}, {Advance, 100, 2, 0}}},
      {"zero seconds fires at the next step of the clock, not inside the start",
       {{Start, 0, 0, 1}, {Advance, 0, 1, 0}}},
      {"a cancelled timer can be started again",
       {{Start, 1, 0, 1}, {Cancel, 0, 0, 0}, {Start, 1, 0, 1}, {Advance, 100, 1, 0}}},
      {"a deleted timer never fires", {{Start, 1, 0, 1}, {Delete, 0, 0, 0}, {Advance, 1000, 0, 0}}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    runs = 0;
    vx2bsdTimer_t t = vx2bsdTimerCreate();
    for (size_t i = 0; i < row.steps.size(); ++i) {
      const Step &s = row.steps[i];
      switch (s.op) {
        case Start: ASSERT_EQ(vx2bsdTimerStart(t, s.n, countCb, &runs, 0), 0); break;
        case Cancel: ASSERT_EQ(vx2bsdTimerCancel(t), 0); break;
        case Delete: ASSERT_EQ(vx2bsdTimerDelete(t), 0); break;
        case Advance: qorClockAdvance(s.n); break;
      }
      EXPECT_EQ(runs, s.fired) << "after step " << i;
      EXPECT_EQ(qorTimerIsArmed(t), s.armed) << "after step " << i;
    }
    vx2bsdTimerDelete(t);
  }
}

TEST_F(TimerTest, UnknownOrDeletedHandlesAreRefused) {
  vx2bsdTimer_t t = vx2bsdTimerCreate();
  EXPECT_EQ(vx2bsdTimerStart(t, 1, nullptr, &runs, 0), -1);
  ASSERT_EQ(vx2bsdTimerDelete(t), 0);
  EXPECT_EQ(vx2bsdTimerStart(t, 1, countCb, &runs, 0), -1);
  EXPECT_EQ(vx2bsdTimerCancel(t), -1);
  EXPECT_EQ(vx2bsdTimerDelete(t), -1);
  EXPECT_EQ(vx2bsdTimerStart(0, 1, countCb, &runs, 0), -1);
  EXPECT_NE(vx2bsdTimerCreate(), t) << "a handle is not given out twice";
}

// The TIC timer's habit: the callback re-arms its own timer.
vx2bsdTimer_t g_tic;
int g_ticRuns;
void ticCb(void *) {
  ++g_ticRuns;
  vx2bsdTimerStart(g_tic, 30, ticCb, nullptr, 0);
}

// Callbacks run without the timers' lock and may change timers: one re-arms its own, and two
// due at the same step cancel each other, so the one that fires second, although already
// taken as due, must stay silent.
TEST_F(TimerTest, CallbacksMayRearmTheirOwnOrCancelAnotherDueAtTheSameStep) {
  g_ticRuns = 0;
  g_tic = vx2bsdTimerCreate();
  ASSERT_EQ(vx2bsdTimerStart(g_tic, 30, ticCb, nullptr, 0), 0);
  for (int n = 1; n <= 2; ++n) {
    qorClockAdvance(30 * sysClkRateGet());
    EXPECT_EQ(g_ticRuns, n);
    EXPECT_TRUE(qorTimerIsArmed(g_tic));
  }

  static int pairRuns;
  pairRuns = 0;
  vx2bsdTimer_t pair[2] = {vx2bsdTimerCreate(), vx2bsdTimerCreate()};
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(vx2bsdTimerStart(pair[i], 1, [](void *other) {
      ++pairRuns;
      vx2bsdTimerCancel(*static_cast<vx2bsdTimer_t *>(other));
    }, &pair[1 - i], 0), 0);
  }
  qorClockAdvance(sysClkRateGet());
  EXPECT_EQ(pairRuns, 1);
}

TEST_F(TimerTest, ExpiryTravelsAsAMessageThroughTheSink) {
  vx2bsdTimer_t t = expired();
  ASSERT_EQ(queue.size(), 1u);
  EXPECT_EQ(runs, 0) << "with a sink the callback waits for its message";
  EXPECT_TRUE(qorTimerIsArmed(t));

  Msg &m = queue[0];
  ASSERT_EQ(m.size(), QOR_TIMER_EXPIRY_LEN);
  EXPECT_EQ(rtm::ld32(m.data(), IPC_OFF_MLEN), QOR_TIMER_EXPIRY_LEN);
  EXPECT_EQ(rtm::ld32(m.data(), IPC_OFF_MTYPE), 0x07D7u);
  for (size_t off = 0; off < IPC_HDR_LEN; off += 4)
    if (off != IPC_OFF_MLEN && off != IPC_OFF_MTYPE) {
      EXPECT_EQ(rtm::ld32(m.data(), off), 0u) << off;
    }
  EXPECT_EQ(rtm::ld32(m.data(), QOR_TIMER_OFF_HANDLE), t);
  ASSERT_TRUE(qorTimerIsExpiryMsg(m.data(), m.size()));

  // Received into a larger buffer, as the IPC layer does.
  uint8_t buf[RTM_IPC_BUF_SIZE] = {};
  std::memcpy(buf, m.data(), m.size());
  EXPECT_EQ(qorTimerRunExpiry(buf, sizeof buf), 1);
  EXPECT_EQ(runs, 1);
  EXPECT_FALSE(qorTimerIsArmed(t));
  EXPECT_EQ(rtm::ld32(buf, IPC_OFF_MTYPE), 0x07D7u);
  EXPECT_FALSE(qorTimerIsExpiryMsg(buf, sizeof buf)) << "a run expiry is spent";
  EXPECT_EQ(qorTimerRunExpiry(buf, sizeof buf), -1);
  // The same expiry delivered twice (a copy) must not run the callback again.
  EXPECT_EQ(qorTimerRunExpiry(m.data(), m.size()), 0);
  EXPECT_EQ(runs, 1);
}

// An expiry already queued when its timer changes speaks for an arming that no longer exists.
TEST_F(TimerTest, StaleExpiryDoesNothing) {
  // RearmFiredAgain: the new arming has expired too before the first message is read.
  enum Change { Rearm, Cancel, Delete, CancelThenRestart, RearmFiredAgain };
  for (Change c : {Rearm, Cancel, Delete, CancelThenRestart, RearmFiredAgain}) {
    SCOPED_TRACE(c);
    vx2bsdTimer_t t = expired();
    ASSERT_EQ(queue.size(), 1u);
    switch (c) {
      case Rearm: vx2bsdTimerStart(t, 2, countCb, &runs, 0); break;
      case Cancel: vx2bsdTimerCancel(t); break;
      case Delete: vx2bsdTimerDelete(t); break;
      case CancelThenRestart:
        vx2bsdTimerCancel(t);
        vx2bsdTimerStart(t, 2, countCb, &runs, 0);
        break;
      case RearmFiredAgain:
        vx2bsdTimerStart(t, 2, countCb, &runs, 0);
        qorClockAdvance(2 * sysClkRateGet());
        ASSERT_EQ(queue.size(), 2u);
        break;
    }
    EXPECT_EQ(qorTimerRunExpiry(queue[0].data(), queue[0].size()), 0);
    EXPECT_EQ(runs, 0);
    if (c == Rearm || c == CancelThenRestart || c == RearmFiredAgain) {
      EXPECT_TRUE(qorTimerIsArmed(t));
      if (c != RearmFiredAgain) qorClockAdvance(2 * sysClkRateGet());
      ASSERT_EQ(queue.size(), 2u);
      EXPECT_EQ(qorTimerRunExpiry(queue[1].data(), queue[1].size()), 1);
      EXPECT_EQ(runs, 1);
    }
    vx2bsdTimerDelete(t);
  }
}

TEST_F(TimerTest, OnlyWellFormedExpiriesAreAccepted) {
  uint8_t good[QOR_TIMER_EXPIRY_LEN];
  expired(0);
  ASSERT_EQ(queue.size(), 1u);
  std::memcpy(good, queue[0].data(), sizeof good);
  struct Row {
    const char *name;
    size_t len;
    size_t off;  // a field overwritten with `value`, or SIZE_MAX for none
    uint32_t value;
  };
  const Row rows[] = {
      {"shorter than the record", QOR_TIMER_EXPIRY_LEN - 1, SIZE_MAX, 0},
      {"header only", IPC_HDR_LEN, SIZE_MAX, 0},
      {"another message type", QOR_TIMER_EXPIRY_LEN, IPC_OFF_MTYPE, 0x320D},
      {"mlen says otherwise", QOR_TIMER_EXPIRY_LEN, IPC_OFF_MLEN, 60},
      {"a plain MT_RTM_IGNORED without the marker", QOR_TIMER_EXPIRY_LEN, QOR_TIMER_OFF_MAGIC, 0},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.name);
    Msg m(good, good + r.len);
    if (r.off != SIZE_MAX) rtm::st32(m.data(), r.off, r.value);
    Msg before = m;
    EXPECT_FALSE(qorTimerIsExpiryMsg(m.data(), m.size()));
    EXPECT_EQ(qorTimerRunExpiry(m.data(), m.size()), -1);
    EXPECT_EQ(m, before) << "a refused message is left as it was";
  }
  EXPECT_FALSE(qorTimerIsExpiryMsg(nullptr, QOR_TIMER_EXPIRY_LEN));
  EXPECT_TRUE(qorTimerIsExpiryMsg(good, sizeof good));
}

// On the real clock the background thread fires. A zero-second timer is due at once, so the
// test only waits for the message; it does not measure anything.
TEST_F(TimerTest, RealClockDeliversThroughTheBackgroundThread) {
  qorClockUseManual(false);
  std::promise<Msg> got;
  qorTimerSetExpirySink([](void *ctx, const uint8_t *msg, uint32_t len) {
    static_cast<std::promise<Msg> *>(ctx)->set_value(Msg(msg, msg + len));
  }, &got);
  vx2bsdTimer_t t = vx2bsdTimerCreate();
  ASSERT_EQ(vx2bsdTimerStart(t, 0, countCb, &runs, 0), 0);
  Msg m = got.get_future().get();
  qorTimerSetExpirySink(nullptr, nullptr);
  EXPECT_EQ(qorTimerRunExpiry(m.data(), m.size()), 1);
  EXPECT_EQ(runs, 1);
}

}  // namespace
