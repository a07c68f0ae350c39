#include <gtest/gtest.h>

#include <atomic>
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
  std::vector<std::string> trace;
  std::vector<long> mainResults;  // results of main's y and I
  std::atomic<int> parks{0};
};

struct Script {
  Play *run;
  char who;
  std::vector<std::string> tokens;
};

std::vector<std::string> split(const std::string &s) {
  std::istringstream in(s);
  std::vector<std::string> out;
  for (std::string t; in >> t;) out.push_back(t);
  return out;
}

std::string join(const std::vector<std::string> &v) {
  std::string s;
  for (auto &t : v) s += (s.empty() ? "" : " ") + t;
  return s;
}

// Actions both kinds of member share; returns false for a token it does not know.
bool common(Play &r, char who, const std::string &t) {
  if (t == "y") {
    r.trace.push_back(std::string(1, who) + ":y");
    int res = qorThreadYield(r.g);
    if (who == 'M') r.mainResults.push_back(res);
  } else if (t[0] == 'r') {
    r.trace.push_back(std::string(1, who) + ":" + t);
    EXPECT_EQ(qorThreadResume(r.g, r.ids.at(t[1])), 0);
  } else if (t[0] == '?') {
    r.trace.push_back(std::string(1, who) + ":" + t + "=" + std::to_string(qorThreadIsSuspended(r.g, r.ids.at(t[1]))));
  } else {
    return false;
  }
  return true;
}

void scriptEntry(void *arg) {
  Script &s = *static_cast<Script *>(arg);
  Play &r = *s.run;
  for (const auto &t : s.tokens) {
    if (common(r, s.who, t)) continue;
    r.trace.push_back(std::string(1, s.who) + ":" + t);
    if (t == "s") qorThreadSuspendSelf(r.g);
    if (t == "e") return;
  }
  for (;;) {
    r.trace.push_back(std::string(1, s.who) + ":park");
    r.parks.fetch_add(1);
    r.parks.notify_all();
    qorThreadSuspendSelf(r.g);
  }
}

void runMain(Play &r, const std::string &script) {
  for (const auto &t : split(script)) {
    if (common(r, 'M', t)) continue;
    if (t == "S") {
      r.trace.push_back("M:S");
      ASSERT_EQ(qorThreadRunConcurrentStart(r.g), 0);
    } else if (t == "E") {
      ASSERT_EQ(qorThreadRunConcurrentEnd(r.g, QOR_THREAD_MAIN_ID), 0);
      r.trace.push_back("M:E");  // only now may main touch what the workers touch
    } else if (t[0] == 'W') {
      int want = std::stoi(t.substr(1));
      for (int seen = r.parks.load(); seen < want; seen = r.parks.load()) r.parks.wait(seen);
    } else if (t[0] == 'o') {
      r.trace.push_back("M:" + t);
      std::thread([&] { EXPECT_EQ(qorThreadResume(r.g, r.ids.at(t[1])), 0); }).join();
    } else if (t == "@") {
      r.trace.push_back("M:@=" + std::to_string(qorThreadRunningId(r.g)));
    } else if (t == "I") {
      r.trace.push_back("M:I");
      r.mainResults.push_back(qorThreadRunUntilIdle(r.g));
    } else {
      FAIL() << "unknown token " << t;
    }
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
  QorThreadGroup g = -1;
};

struct Scenario {
  const char *name;
  std::vector<std::pair<char, const char *>> workers;  // created in this order
  const char *mainScript;
  const char *trace;
  std::vector<long> mainResults;
};

TEST_F(ThreadGroupTest, SchedulingScenarios) {
  const Scenario table[] = {
      {"round robin in creation order, each yield comes back to its caller",
       {{'A', "y y"}, {'B', "y y"}},
       "y y y y",
       "M:y A:y B:y M:y A:y B:y M:y A:park B:park M:y",
       {2, 2, 2, 0}},
      {"alone in the group a yield returns 0 at once", {}, "y y", "M:y M:y", {0, 0}},
      {"suspended members are skipped until resumed",
       {{'A', "s y"}, {'B', "y"}},
       "y ?A rA ?A y y y",
       "M:y A:s B:y M:?A=1 M:rA M:?A=0 M:y A:y B:park M:y A:park M:y",
       {2, 2, 1, 0}},
      {"a member resumed behind the resumer waits for the next round",
       {{'A', "s y"}, {'B', "rA y"}},
       "y y y",
       "M:y A:s B:rA B:y M:y A:y B:park M:y A:park",
       {2, 2, 1}},
      {"a member resumed ahead of the resumer joins the same round",
       {{'A', "y rB y"}, {'B', "s y"}},
       "y y y y",
       "M:y A:y B:s M:y A:rB A:y B:y M:y A:park B:park M:y",
       {2, 2, 2, 0}},
      {"resuming a runnable member changes nothing",
       {{'A', "y"}},
       "rA y rA y y",
       "M:rA M:y A:y M:rA M:y A:park M:y",
       {1, 1, 0}},
      {"an entry that returns leaves the group",
       {{'A', "e"}, {'B', "y"}},
       "y ?A y y",
       "M:y A:e B:y M:?A=1 M:y B:park M:y",
       {2, 1, 0}},
      {"run until idle gives turns until every worker rests",
       {{'A', "y y s y"}, {'B', "y"}},
       "I ?A ?B",
       "M:I A:y B:y A:y B:park A:s M:?A=1 M:?B=1",
       {5}},
      {"in a stretch the baton passes among the workers while main blocks",
       {{'A', "y y"}, {'B', "y"}},
       "S W2 E y",
       "M:S A:y B:y A:y B:park A:park M:E M:y",
       {0}},
      {"a worker resumed by another during a stretch runs in it",
       {{'A', "s rB s"}, {'B', "s y"}},
       "y rA S W1 E ?A ?B",
       "M:y A:s B:s M:rA M:S A:rB A:s B:y B:park M:E M:?A=1 M:?B=1",
       {2}},
      // The baton lies idle in the stretch: a worker resumed from outside takes it at once, so
      // the end of the stretch waits for its turn.
      {"a worker resumed from outside during an idle stretch runs before the stretch ends",
       {{'A', "s"}},
       "y S @ oA E ?A",
       "M:y A:s M:S M:@=0 M:oA A:park M:E M:?A=1",
       {1}},
  };
  for (const Scenario &sc : table) {
    SCOPED_TRACE(sc.name);
    Play r;
    r.g = g;
    std::vector<std::unique_ptr<Script>> scripts;
    int nextId = 77;
    for (auto &[who, text] : sc.workers) {
      r.ids[who] = nextId;
      scripts.push_back(std::make_unique<Script>(Script{&r, who, split(text)}));
      ASSERT_EQ(qorThreadTmeCreate(nextId, 0, g, std::string(1, who).c_str(), scriptEntry, scripts.back().get(),
                                   16000, 0),
                0);
      ++nextId;
    }
    EXPECT_TRUE(r.trace.empty()) << "a new thread ran inside its creation";
    runMain(r, sc.mainScript);
    EXPECT_EQ(join(r.trace), sc.trace);
    EXPECT_EQ(r.mainResults, sc.mainResults);
    EXPECT_EQ(qorThreadRunningId(g), QOR_THREAD_MAIN_ID);
    // A fresh group per row: the destroy must unwind workers in every state the row left.
    ASSERT_EQ(qorThreadGroupDestroy(g), 0);
    g = qorThreadInit(nullptr, 1);
    ASSERT_GT(g, 0);
  }
}

TEST_F(ThreadGroupTest, FirstRunnableWorkerHasATurnEvenWhenSelectReturnsAtOnce) {
  std::atomic<int> turnsInStretch{0};
  struct Ctx {
    QorThreadGroup g;
    std::atomic<int> *turns;
  } ctx{g, &turnsInStretch};
  auto entry = [](void *p) {
    auto *c = static_cast<Ctx *>(p);
    for (;;) {
      c->turns->fetch_add(1);
      qorThreadYield(c->g);
    }
  };
  ASSERT_EQ(qorThreadTmeCreate(77, 0, g, "rtmStatic", entry, &ctx, 16000, 0), 0);
  for (int i = 1; i <= 50; ++i) {
    ASSERT_EQ(qorThreadRunConcurrentStart(g), 0);
    ASSERT_EQ(qorThreadRunConcurrentEnd(g, QOR_THREAD_MAIN_ID), 0);
    ASSERT_GE(turnsInStretch.load(), i);
    ASSERT_EQ(qorThreadRunningId(g), QOR_THREAD_MAIN_ID);
  }
}

// Four workers and main hammer the group through yields, suspends and stretches; nobody may
// ever find another member inside its turn, and no increment may be lost.
TEST_F(ThreadGroupTest, NeverTwoMembersAtOnce) {
  struct Shared {
    QorThreadGroup g;
    std::atomic<int> inside{0};
    std::atomic<int> violations{0};
    std::atomic<long> counter{0};  // load/store, not fetch_add: overlapping turns lose updates
    std::atomic<int> done{0};
    void turn() {
      if (inside.fetch_add(1) != 0) violations.fetch_add(1);
      for (int k = 0; k < 50; ++k) counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      inside.fetch_sub(1);
    }
  } sh;
  sh.g = g;
  constexpr int kWorkers = 4, kTurns = 400;
  auto entry = [](void *p) {
    auto *s = static_cast<Shared *>(p);
    for (int i = 1; i <= kTurns; ++i) {
      s->turn();
      if (i % 7 == 0)
        qorThreadSuspendSelf(s->g);
      else
        qorThreadYield(s->g);
    }
    s->done.fetch_add(1);
    for (;;) qorThreadSuspendSelf(s->g);
  };
  const int ids[kWorkers] = {77, 78, 80, 79};
  for (int id : ids) ASSERT_EQ(qorThreadTmeCreate(id, 0, g, "w", entry, &sh, 16000, 0), 0);
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

// The handshake of the daemon's clear functions: main raises a worker's restart flag, yields
// until the worker has suspended itself, resets what the worker keeps, and lets it go again.
TEST_F(ThreadGroupTest, RestartFlagHandshakeResetsAWalkAtRest) {
  struct Walker {
    QorThreadGroup g;
    int pos = 0;
    int visited = 0;
    bool restart = false;
  } w;
  w.g = g;
  auto entry = [](void *p) {
    auto *w = static_cast<Walker *>(p);
    for (;;) {
      while (w->pos < 100 && !w->restart) {
        ++w->pos;
        ++w->visited;
        if (w->pos % 10 == 0) qorThreadYield(w->g);
      }
      qorThreadSuspendSelf(w->g);
    }
  };
  ASSERT_EQ(qorThreadTmeCreate(80, 0, g, "rtmRteDn", entry, &w, 16000, 0), 0);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(qorThreadYield(g), 1);
  ASSERT_EQ(w.pos, 30);  // mid-walk, waiting in its yield

  w.restart = true;
  int spins = 0;
  while (!qorThreadIsSuspended(g, 80)) {
    ASSERT_EQ(qorThreadYield(g), 1);
    ++spins;
  }
  EXPECT_EQ(spins, 1);
  EXPECT_EQ(w.pos, 30) << "the walk went on past the restart flag";
  w.pos = 0;
  w.restart = false;
  ASSERT_EQ(qorThreadResume(g, 80), 0);
  qorThreadRunUntilIdle(g);
  EXPECT_EQ(w.pos, 100);
  EXPECT_EQ(w.visited, 130);
}

TEST_F(ThreadGroupTest, CallsOutOfPlaceAreRefused) {
  auto park = [](void *p) {
    for (;;) qorThreadSuspendSelf(*static_cast<QorThreadGroup *>(p));
  };
  ASSERT_EQ(qorThreadTmeCreate(77, 0, g, "rtmStatic", park, &g, 16000, 0), 0);
  EXPECT_EQ(qorThreadTmeCreate(77, 0, g, "again", park, &g, 16000, 0), -1);
  EXPECT_EQ(qorThreadTmeCreate(QOR_THREAD_MAIN_ID, 0, g, "main", park, &g, 16000, 0), -1);
  EXPECT_EQ(qorThreadTmeCreate(0, 0, g, "zero", park, &g, 16000, 0), -1);
  EXPECT_EQ(qorThreadResume(g, 999), -1);
  EXPECT_EQ(qorThreadIsSuspended(g, 999), -1);
  EXPECT_EQ(qorThreadInit(nullptr, 1), -1) << "main of one group cannot found another";
  EXPECT_EQ(qorThreadRunConcurrentEnd(g, QOR_THREAD_MAIN_ID), -1) << "no stretch is open";
  EXPECT_EQ(qorThreadSelfId(), QOR_THREAD_MAIN_ID);

  std::thread outsider([&] {
    EXPECT_EQ(qorThreadSelfId(), 0);
    EXPECT_EQ(qorThreadYield(g), -1);
      EXPECT_EQ(qorThreadGroupDestroy(g), -1);
  });
  outsider.join();

  ASSERT_EQ(qorThreadRunConcurrentStart(g), 0);
  EXPECT_EQ(qorThreadYield(g), -1) << "main without the baton";
  EXPECT_EQ(qorThreadRunConcurrentStart(g), -1);
  EXPECT_EQ(qorThreadRunConcurrentEnd(g, 77), -1);
  ASSERT_EQ(qorThreadRunConcurrentEnd(g, QOR_THREAD_MAIN_ID), 0);
}

TEST_F(ThreadGroupTest, AnEntryThatThrowsLeavesTheGroupAndIsLogged) {
  auto thrower = [](void *) { throw std::runtime_error("boom"); };
  ASSERT_EQ(qorThreadTmeCreate(163, 0, g, "rtmMstatic", thrower, nullptr, 16000, 0), 0);
  EXPECT_EQ(qorThreadYield(g), 1);
  EXPECT_EQ(qorThreadIsSuspended(g, 163), 1);
  EXPECT_TRUE(qorLogSaw("rtmMstatic (163) ended by an exception"));
  EXPECT_EQ(qorThreadYield(g), 0);
}

// Destroy must unwind workers wherever they stand: suspended, waiting in a yield, busy in a
// stretch, never started, or already ended, and run the destructors on their stacks.
TEST_F(ThreadGroupTest, DestroyUnwindsEveryWorker) {
  for (bool inStretch : {false, true}) {
    SCOPED_TRACE(inStretch ? "destroyed inside a stretch" : "destroyed holding the baton");
    struct Ctx {
      QorThreadGroup g;
      std::atomic<int> unwound{0};
      std::atomic<bool> lateRan{false};
    } ctx;
    ctx.g = g;
    struct Guard {
      std::atomic<int> *n;
      ~Guard() { n->fetch_add(1); }
    };
    auto parked = [](void *p) {
      auto *c = static_cast<Ctx *>(p);
      Guard guard{&c->unwound};
      for (;;) qorThreadSuspendSelf(c->g);
    };
    auto busy = [](void *p) {
      auto *c = static_cast<Ctx *>(p);
      Guard guard{&c->unwound};
      for (;;) qorThreadYield(c->g);
    };
    auto ended = [](void *) {};
    auto late = [](void *p) { static_cast<Ctx *>(p)->lateRan = true; };
    ASSERT_EQ(qorThreadTmeCreate(77, 0, g, "parked", parked, &ctx, 16000, 0), 0);
    ASSERT_EQ(qorThreadTmeCreate(78, 0, g, "busy", busy, &ctx, 16000, 0), 0);
    ASSERT_EQ(qorThreadTmeCreate(80, 0, g, "ended", ended, &ctx, 16000, 0), 0);
    ASSERT_EQ(qorThreadYield(g), 3);
    if (inStretch) {
      ASSERT_EQ(qorThreadRunConcurrentStart(g), 0);
    } else {
      ASSERT_EQ(qorThreadTmeCreate(79, 0, g, "late", late, &ctx, 16000, 0), 0);
    }

    ASSERT_EQ(qorThreadGroupDestroy(g), 0);
    EXPECT_EQ(ctx.unwound.load(), 2);
    EXPECT_FALSE(ctx.lateRan.load());
    EXPECT_EQ(qorThreadYield(g), -1);
    EXPECT_EQ(qorThreadResume(g, 77), -1);
    EXPECT_EQ(qorThreadSelfId(), 0);
    g = qorThreadInit(nullptr, 1);
    ASSERT_GT(g, 0);
  }
}

}  // namespace
