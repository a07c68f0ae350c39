#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "log/qor_log.h"
#include "thread/qor_thread.h"

namespace {

// Scheduling scenarios are written as scripts, one per member, so that a row of the table
// reads as "who does what" and the expected trace as "in which order it happened".
//   y      yield               s   suspend self          rX  resume member X
//   ?X     log whether X is suspended                      e   return from the entry
// main only:
//   S      open the concurrent stretch     E   close it     I   run until idle
//   Wn     (inside a stretch) block until workers parked n times in all
//   oX     resume X from a thread outside the group        @   log who holds the baton
// A worker whose script is done parks: it logs "park" and suspends, again at every resume.
struct Play {
  QorThreadGroup g = -1;
  std::map<char, int> ids{{'M', QOR_THREAD_MAIN_ID}};
  std::string trace;
  std::vector<long> mainResults;  // results of main's y and I
  std::atomic<int> parks{0};

  void log(char who, const std::string &what) {
    if (!trace.empty()) trace += ' ';
    (trace += who) += ':';
    trace += what;
  }
  void act(char who, const std::string &t) {
    switch (t[0]) {
      case 'y': {
        log(who, t);
        const long res = qorThreadYield(g);
        if (who == 'M') mainResults.push_back(res);
        break;
      }
      case 's': log(who, t); qorThreadSuspendSelf(g); break;
      case 'r': log(who, t); EXPECT_EQ(qorThreadResume(g, ids.at(t[1])), 0); break;
      case '?': log(who, t + "=" + std::to_string(qorThreadIsSuspended(g, ids.at(t[1])))); break;
      case '@': log(who, "@=" + std::to_string(qorThreadRunningId(g))); break;
      case 'I': log(who, t); mainResults.push_back(qorThreadRunUntilIdle(g)); break;
      case 'S': log(who, t); ASSERT_EQ(qorThreadRunConcurrentStart(g), 0); break;
      case 'E':
        ASSERT_EQ(qorThreadRunConcurrentEnd(g, QOR_THREAD_MAIN_ID), 0);
        log(who, t);  // only now may main touch what the workers touch
        break;
      case 'W':
        for (int seen = parks.load(); seen < std::stoi(t.substr(1)); seen = parks.load()) parks.wait(seen);
        break;
      case 'o':
        log(who, t);
        std::thread([&] { EXPECT_EQ(qorThreadResume(g, ids.at(t[1])), 0); }).join();
        break;
      default: FAIL() << "unknown token " << t;
    }
  }
};

struct Script {
  Play *play;
  char who;
  std::vector<std::string> tokens;
};

std::vector<std::string> split(const std::string &s) {
  std::istringstream in(s);
  std::vector<std::string> out;
  for (std::string t; in >> t;) out.push_back(t);
  return out;
}

void scriptEntry(void *arg) {
  auto &[play, who, tokens] = *static_cast<Script *>(arg);
  for (const auto &t : tokens) {
    if (t == "e") return play->log(who, t);
    play->act(who, t);
  }
  for (;;) {
    play->log(who, "park");
    play->parks.fetch_add(1);
    play->parks.notify_all();
    qorThreadSuspendSelf(play->g);
  }
}

class ThreadGroupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qorLogReset();
    qorLogSetEcho(false);
    int mainId = 0;
    g = qorThreadInit(&mainId, 1);
    ASSERT_GT(g, 0);
    ASSERT_EQ(mainId, QOR_THREAD_MAIN_ID);
  }
  void TearDown() override {
    if (g > 0) {
      EXPECT_EQ(qorThreadGroupDestroy(g), 0);
    }
    qorLogSetEcho(true);
  }
  int spawn(int id, QorThreadEntry entry, void *arg, const char *name = "w") {
    return qorThreadTmeCreate(id, 0, g, name, entry, arg, 16000, 0);
  }
  // A new group in place of the destroyed one.
  void renew() {
    g = qorThreadInit(nullptr, 1);
    ASSERT_GT(g, 0);
  }
  QorThreadGroup g = -1;
};

// Entries that take the group handle as their argument.
void parkForever(void *g) {
  for (;;) qorThreadSuspendSelf(*static_cast<QorThreadGroup *>(g));
}
void yieldForever(void *g) {
  for (;;) qorThreadYield(*static_cast<QorThreadGroup *>(g));
}

struct Scenario {
  const char *name;
  std::vector<std::pair<char, const char *>> workers;  // created in this order
  const char *mainScript;
  std::vector<long> mainResults;
  const char *trace;
};

TEST_F(ThreadGroupTest, SchedulingScenarios) {
  const Scenario table[] = {
      {"round robin in creation order, each yield comes back to its caller",
       {{'A', "y y"}, {'B', "y y"}}, "y y y y", {2, 2, 2, 0},
       "M:y A:y B:y M:y A:y B:y M:y A:park B:park M:y"},
      {"alone in the group a yield returns 0 at once", {}, "y y", {0, 0}, "M:y M:y"},
      {"suspended members are skipped until resumed",
       {{'A', "s y"}, {'B', "y"}}, "y ?A rA ?A y y y", {2, 2, 1, 0},
       "M:y A:s B:y M:?A=1 M:rA M:?A=0 M:y A:y B:park M:y A:park M:y"},
      {"a member resumed behind the resumer waits for the next round",
       {{'A', "s y"}, {'B', "rA y"}}, "y y y", {2, 2, 1},
       "M:y A:s B:rA B:y M:y A:y B:park M:y A:park"},
      {"a member resumed ahead of the resumer joins the same round",
       {{'A', "y rB y"}, {'B', "s y"}}, "y y y y", {2, 2, 2, 0},
       "M:y A:y B:s M:y A:rB A:y B:y M:y A:park B:park M:y"},
      {"resuming a runnable member changes nothing",
       {{'A', "y"}}, "rA y rA y y", {1, 1, 0},
       "M:rA M:y A:y M:rA M:y A:park M:y"},
      {"an entry that returns leaves the group",
       {{'A', "e"}, {'B', "y"}}, "y ?A y y", {2, 1, 0},
       "M:y A:e B:y M:?A=1 M:y B:park M:y"},
      {"run until idle gives turns until every worker rests",
       {{'A', "y y s y"}, {'B', "y"}}, "I ?A ?B", {5},
       "M:I A:y B:y A:y B:park A:s M:?A=1 M:?B=1"},
      {"in a stretch the baton passes among the workers while main blocks",
       {{'A', "y y"}, {'B', "y"}}, "S W2 E y", {0},
       "M:S A:y B:y A:y B:park A:park M:E M:y"},
      {"a worker resumed by another during a stretch runs in it",
       {{'A', "s rB s"}, {'B', "s y"}}, "y rA S W1 E ?A ?B", {2},
       "M:y A:s B:s M:rA M:S A:rB A:s B:y B:park M:E M:?A=1 M:?B=1"},
      // The baton lies idle in the stretch: a worker resumed from outside takes it at once, so
      // the end of the stretch waits for its turn.
      {"a worker resumed from outside during an idle stretch runs before the stretch ends",
       {{'A', "s"}}, "y S @ oA E ?A", {1},
       "M:y A:s M:S M:@=0 M:oA A:park M:E M:?A=1"},
  };
  for (const Scenario &sc : table) {
    SCOPED_TRACE(sc.name);
    Play play;
    play.g = g;
    std::deque<Script> scripts;
    int id = 77;
    for (auto &[who, text] : sc.workers) {
      play.ids[who] = id;
      scripts.push_back({&play, who, split(text)});
      ASSERT_EQ(spawn(id++, scriptEntry, &scripts.back()), 0);
    }
    EXPECT_TRUE(play.trace.empty()) << "a new thread ran inside its creation";
    for (const auto &t : split(sc.mainScript)) {
      play.act('M', t);
      if (HasFatalFailure()) break;
    }
    EXPECT_EQ(play.trace, sc.trace);
    EXPECT_EQ(play.mainResults, sc.mainResults);
    EXPECT_EQ(qorThreadRunningId(g), QOR_THREAD_MAIN_ID);
    // A fresh group per row: the destroy must unwind workers in every state the row left.
    ASSERT_EQ(qorThreadGroupDestroy(g), 0);
    renew();
  }
}

TEST_F(ThreadGroupTest, FirstRunnableWorkerHasATurnEvenWhenSelectReturnsAtOnce) {
  static std::atomic<int> turns;
  turns = 0;
  QorThreadEntry countTurns = [](void *g) {
    for (;;) {
      ++turns;
      qorThreadYield(*static_cast<QorThreadGroup *>(g));
    }
  };
  ASSERT_EQ(spawn(77, countTurns, &g), 0);
  for (int i = 1; i <= 50; ++i) {
    ASSERT_EQ(qorThreadRunConcurrentStart(g), 0);
    ASSERT_EQ(qorThreadRunConcurrentEnd(g, QOR_THREAD_MAIN_ID), 0);
    ASSERT_GE(turns.load(), i);
    ASSERT_EQ(qorThreadRunningId(g), QOR_THREAD_MAIN_ID);
  }
}

// Four workers and main hammer the group through yields, suspends and stretches; nobody may
// ever find another member inside its turn, and no increment may be lost.
TEST_F(ThreadGroupTest, NeverTwoMembersAtOnce) {
  constexpr int kWorkers = 4, kTurns = 400;
  static struct {
    QorThreadGroup g;
    std::atomic<int> inside, violations, done;
    std::atomic<long> counter;  // load/store, not fetch_add: overlapping turns lose updates
    void turn() {
      if (inside.fetch_add(1) != 0) violations.fetch_add(1);
      for (int k = 0; k < 50; ++k) counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      inside.fetch_sub(1);
    }
  } sh;
  sh.g = g;
  sh.violations = sh.done = 0;
  sh.counter = 0;
  auto entry = [](void *) {
    for (int i = 1; i <= kTurns; ++i) {
      sh.turn();
      if (i % 7 == 0)
        qorThreadSuspendSelf(sh.g);
      else
        qorThreadYield(sh.g);
    }
    sh.done.fetch_add(1);
    parkForever(&sh.g);
  };
  const int ids[kWorkers] = {77, 78, 80, 79};
  for (int id : ids) ASSERT_EQ(spawn(id, entry, nullptr), 0);
  long mainTurns = 0;
  while (sh.done.load() < kWorkers) {
    sh.turn();
    ++mainTurns;
    for (int id : ids) qorThreadResume(g, id);
    if (mainTurns % 2) {
      ASSERT_EQ(qorThreadRunConcurrentStart(g), 0);
      ASSERT_EQ(qorThreadRunConcurrentEnd(g, QOR_THREAD_MAIN_ID), 0);
    } else {
      ASSERT_GE(qorThreadYield(g), 0);
    }
  }
  EXPECT_EQ(sh.violations.load(), 0);
  EXPECT_EQ(sh.counter.load(), (long(kWorkers) * kTurns + mainTurns) * 50);
}

TEST_F(ThreadGroupTest, CallsOutOfPlaceAreRefused) {
  ASSERT_EQ(spawn(77, parkForever, &g), 0);
  for (int id : {77, QOR_THREAD_MAIN_ID, 0}) EXPECT_EQ(spawn(id, parkForever, &g), -1) << id;
  EXPECT_EQ(qorThreadResume(g, 999), -1);
  EXPECT_EQ(qorThreadIsSuspended(g, 999), -1);
  EXPECT_EQ(qorThreadInit(nullptr, 1), -1) << "main of one group cannot found another";
  EXPECT_EQ(qorThreadRunConcurrentEnd(g, QOR_THREAD_MAIN_ID), -1) << "no stretch is open";
  EXPECT_EQ(qorThreadSelfId(), QOR_THREAD_MAIN_ID);
  std::thread([&] {
    EXPECT_EQ(qorThreadSelfId(), 0);
    EXPECT_EQ(qorThreadYield(g), -1);
    EXPECT_EQ(qorThreadGroupDestroy(g), -1);
  }).join();

  ASSERT_EQ(qorThreadRunConcurrentStart(g), 0);
  EXPECT_EQ(qorThreadYield(g), -1) << "main without the baton";
  EXPECT_EQ(qorThreadRunConcurrentStart(g), -1);
  EXPECT_EQ(qorThreadRunConcurrentEnd(g, 77), -1);
  ASSERT_EQ(qorThreadRunConcurrentEnd(g, QOR_THREAD_MAIN_ID), 0);
}

TEST_F(ThreadGroupTest, AnEntryThatThrowsLeavesTheGroupAndIsLogged) {
  ASSERT_EQ(spawn(163, [](void *) { throw std::runtime_error("boom"); }, nullptr, "rtmMstatic"), 0);
  EXPECT_EQ(qorThreadYield(g), 1);
  EXPECT_EQ(qorThreadIsSuspended(g, 163), 1);
  EXPECT_TRUE(qorLogSaw("rtmMstatic (163) ended by an exception"));
  EXPECT_EQ(qorThreadYield(g), 0);
}

// Destroy must unwind workers wherever they stand: suspended, waiting in a yield, busy in a
// stretch, never started, or already ended, and run the destructors on their stacks.
TEST_F(ThreadGroupTest, DestroyUnwindsEveryWorker) {
  static std::atomic<int> unwound;
  static std::atomic<bool> lateRan;
  struct Guard {
    ~Guard() { ++unwound; }
  };
  for (bool inStretch : {false, true}) {
    SCOPED_TRACE(inStretch ? "destroyed inside a stretch" : "destroyed holding the baton");
    unwound = 0;
    lateRan = false;
    ASSERT_EQ(spawn(77, [](void *g) { Guard guard; parkForever(g); }, &g), 0);
    ASSERT_EQ(spawn(78, [](void *g) { Guard guard; yieldForever(g); }, &g), 0);
    ASSERT_EQ(spawn(80, [](void *) {}, nullptr), 0);
    ASSERT_EQ(qorThreadYield(g), 3);
    if (inStretch) {
      ASSERT_EQ(qorThreadRunConcurrentStart(g), 0);
    } else {
      ASSERT_EQ(spawn(79, [](void *) { lateRan = true; }, nullptr), 0);
    }
    ASSERT_EQ(qorThreadGroupDestroy(g), 0);
    EXPECT_EQ(unwound.load(), 2);
    EXPECT_FALSE(lateRan.load());
    EXPECT_EQ(qorThreadYield(g), -1);
    EXPECT_EQ(qorThreadResume(g, 77), -1);
    EXPECT_EQ(qorThreadSelfId(), 0);
    renew();
  }
}

}  // namespace
