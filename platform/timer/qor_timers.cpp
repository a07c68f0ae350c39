// One-shot timers whose expiries travel as messages.
//
// Armed timers sit in a set ordered by deadline. Firing takes the due ones out of the set and,
// outside the lock, hands one expiry message per timer to the sink (or runs it at once when
// there is no sink). A timer stays "armed" until its expiry is run, and each arming gets a new
// generation, so the message that finally reaches qorTimerRunExpiry knows whether it still
// speaks for the timer: a cancel, a re-arm or a delete in between makes it stale. Callbacks
// and the sink are always called without the lock, since a callback usually re-arms its timer.
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "rtm/rtm_wire.h"
#include "timer/qor_timer.h"

namespace {

struct Timer {
  QorTimerCallback callback = nullptr;
  void *arg = nullptr;
  uint64_t gen = 0;
  uint64_t deadline = 0;
  bool armed = false;  // started and its callback not yet run
  bool due = false;    // waiting in the deadline set (not yet fired)
};

struct Timers {
  std::mutex mu;
  std::condition_variable wakeup;  // the background thread's sleep
  std::unordered_map<vx2bsdTimer_t, Timer> all;
  std::set<std::pair<uint64_t, vx2bsdTimer_t>> byDeadline;
  vx2bsdTimer_t nextHandle = 1;
  uint64_t nextGen = 1;
  QorTimerSink sink = nullptr;
  void *sinkCtx = nullptr;
  std::thread bg;
  bool bgRunning = false;
  uint64_t bgEpoch = 0;  // a background thread runs while the epoch it was started in lasts
};

// Never destroyed: the background thread may still sleep on it when the process exits.
Timers &timers() {
  static Timers *t = new Timers;
  return *t;
}

void unqueue(Timers &t, vx2bsdTimer_t h, Timer &tm) {
  if (tm.due) t.byDeadline.erase({tm.deadline, h});
  tm.due = false;
}

// The real clock's firing context. It sleeps while the manual clock is in use: then only
// qorClockAdvance fires, on the test's own thread.
void backgroundMain(uint64_t epoch) {
  Timers &t = timers();
  std::unique_lock<std::mutex> lk(t.mu);
  while (t.bgEpoch == epoch) {
    if (qorClockIsManual() || t.byDeadline.empty()) {
      t.wakeup.wait(lk);
      continue;
    }
    uint64_t now = qorTickGet();
    uint64_t first = t.byDeadline.begin()->first;
    if (first > now) {
      t.wakeup.wait_for(lk, std::chrono::milliseconds((first - now) * 1000 / sysClkRateGet()));
      continue;
    }
    lk.unlock();
    qorTimerFireExpired();
    lk.lock();
  }
}

// Called with the lock held: the thread exists only once something is armed on the real clock.
void ensureBackground(Timers &t) {
  if (t.bgRunning || qorClockIsManual() || t.byDeadline.empty()) return;
  t.bg = std::thread(backgroundMain, t.bgEpoch);
  t.bgRunning = true;
}

void buildExpiry(uint8_t *msg, vx2bsdTimer_t h, uint64_t gen) {
  std::memset(msg, 0, QOR_TIMER_EXPIRY_LEN);
  rtm::st32(msg, IPC_OFF_MLEN, QOR_TIMER_EXPIRY_LEN);
  rtm::st32(msg, IPC_OFF_MTYPE, QOR_TIMER_EXPIRY_MTYPE);
  rtm::st32(msg, QOR_TIMER_OFF_MAGIC, QOR_TIMER_EXPIRY_MAGIC);
  rtm::st32(msg, QOR_TIMER_OFF_HANDLE, h);
  rtm::st64(msg, QOR_TIMER_OFF_GEN, gen);
}

}  // namespace

// The clock tells us when it switches between manual and real time.
void qorTimerClockChanged() {
  Timers &t = timers();
  std::lock_guard<std::mutex> lk(t.mu);
  ensureBackground(t);
  t.wakeup.notify_all();
}

vx2bsdTimer_t vx2bsdTimerCreate() {
  Timers &t = timers();
  std::lock_guard<std::mutex> lk(t.mu);
  vx2bsdTimer_t h = t.nextHandle;
  // Handles are not reused while the counter lasts, and never while a timer holds one.
  while (h == 0 || t.all.count(h)) ++h;
  t.nextHandle = h + 1;
  t.all.emplace(h, Timer{});
  return h;
}

int vx2bsdTimerStart(vx2bsdTimer_t timer, uint32_t seconds, QorTimerCallback callback, void *arg,
                     int /*flags*/) {
  if (!callback) return -1;
  Timers &t = timers();
  std::lock_guard<std::mutex> lk(t.mu);
  auto it = t.all.find(timer);
  if (it == t.all.end()) return -1;
  Timer &tm = it->second;
  unqueue(t, timer, tm);
  tm.callback = callback;
  tm.arg = arg;
  tm.gen = t.nextGen++;
  tm.deadline = qorTickGet() + uint64_t(seconds) * uint64_t(sysClkRateGet());
  tm.armed = true;
  tm.due = true;
  bool earliest = t.byDeadline.empty() || tm.deadline < t.byDeadline.begin()->first;
  t.byDeadline.insert({tm.deadline, timer});
  ensureBackground(t);
  if (earliest) t.wakeup.notify_all();
  return 0;
}

int vx2bsdTimerCancel(vx2bsdTimer_t timer) {
  Timers &t = timers();
  std::lock_guard<std::mutex> lk(t.mu);
  auto it = t.all.find(timer);
  if (it == t.all.end()) return -1;
  unqueue(t, timer, it->second);
  it->second.armed = false;
  return 0;
}

int vx2bsdTimerDelete(vx2bsdTimer_t timer) {
  Timers &t = timers();
  std::lock_guard<std::mutex> lk(t.mu);
  auto it = t.all.find(timer);
  if (it == t.all.end()) return -1;
  unqueue(t, timer, it->second);
  t.all.erase(it);
  return 0;
}

bool qorTimerIsArmed(vx2bsdTimer_t timer) {
  Timers &t = timers();
  std::lock_guard<std::mutex> lk(t.mu);
  auto it = t.all.find(timer);
  return it != t.all.end() && it->second.armed;
}

void qorTimerSetExpirySink(QorTimerSink sink, void *ctx) {
  Timers &t = timers();
  std::lock_guard<std::mutex> lk(t.mu);
  t.sink = sink;
  t.sinkCtx = ctx;
}

bool qorTimerIsExpiryMsg(const uint8_t *msg, size_t len) {
  return msg && len >= QOR_TIMER_EXPIRY_LEN && rtm::ld32(msg, IPC_OFF_MLEN) == QOR_TIMER_EXPIRY_LEN &&
         rtm::ld32(msg, IPC_OFF_MTYPE) == QOR_TIMER_EXPIRY_MTYPE &&
         rtm::ld32(msg, QOR_TIMER_OFF_MAGIC) == QOR_TIMER_EXPIRY_MAGIC;
}

int qorTimerRunExpiry(uint8_t *msg, size_t len) {
  if (!qorTimerIsExpiryMsg(msg, len)) return -1;
  vx2bsdTimer_t h = rtm::ld32(msg, QOR_TIMER_OFF_HANDLE);
  uint64_t gen = rtm::ld64(msg, QOR_TIMER_OFF_GEN);
  // Spent before anything runs: a callback that sees this buffer again finds no expiry in it.
  rtm::st32(msg, IPC_OFF_MTYPE, QOR_TIMER_EXPIRY_MTYPE);
  rtm::st32(msg, QOR_TIMER_OFF_MAGIC, 0);

  QorTimerCallback cb;
  void *arg;
  {
    Timers &t = timers();
    std::lock_guard<std::mutex> lk(t.mu);
    auto it = t.all.find(h);
    if (it == t.all.end()) return 0;
    Timer &tm = it->second;
    if (!tm.armed || tm.due || tm.gen != gen) return 0;
    tm.armed = false;
    cb = tm.callback;
    arg = tm.arg;
  }
  cb(arg);
  return 1;
}

void qorTimerFireExpired() {
  Timers &t = timers();
  std::vector<std::pair<vx2bsdTimer_t, uint64_t>> fired;
  QorTimerSink sink;
  void *ctx;
  {
    std::lock_guard<std::mutex> lk(t.mu);
    uint64_t now = qorTickGet();
    while (!t.byDeadline.empty() && t.byDeadline.begin()->first <= now) {
      vx2bsdTimer_t h = t.byDeadline.begin()->second;
      t.byDeadline.erase(t.byDeadline.begin());
      Timer &tm = t.all.at(h);
      tm.due = false;
      fired.emplace_back(h, tm.gen);
    }
    sink = t.sink;
    ctx = t.sinkCtx;
  }
  for (auto &[h, gen] : fired) {
    uint8_t msg[QOR_TIMER_EXPIRY_LEN];
    buildExpiry(msg, h, gen);
    // Direct mode still goes through the message, so an earlier callback of this batch that
    // cancels or re-arms a later timer is honoured exactly as on the queue.
    if (sink)
      sink(ctx, msg, QOR_TIMER_EXPIRY_LEN);
    else
      qorTimerRunExpiry(msg, QOR_TIMER_EXPIRY_LEN);
  }
}

void qorTimerReset() {
  Timers &t = timers();
  std::thread bg;
  {
    std::lock_guard<std::mutex> lk(t.mu);
    t.all.clear();
    t.byDeadline.clear();
    t.sink = nullptr;
    t.sinkCtx = nullptr;
    ++t.bgEpoch;
    t.wakeup.notify_all();
    bg = std::move(t.bg);
    t.bgRunning = false;
  }
  if (bg.joinable()) bg.join();
}
