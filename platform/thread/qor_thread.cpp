// The cooperative group: one baton, passed by hand between real threads.
//
// Each member waits on its own token word; handing over the baton is "set the holder under the
// group lock, give the next member its token, wait for our own". The group lock guards only the
// ring and the states and is never held while a member runs, so a switch costs one uncontended
// lock and one futex wake plus wait. A waiter spins briefly on its word before it sleeps, with
// a pause rather than sched_yield: turns are often short, and a yield to the kernel on a busy
// machine costs more than the sleep it would spare. Members never leave the ring (an ended
// worker stays as Exited) so ring indexes and member pointers stay valid for the group's life.
#include "thread/qor_thread.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log/qor_log.h"

namespace {

// A binary token with a futex behind it: give() may come from any thread, take() from the
// owner only.
class Token {
 public:
  void give() {
    word_.store(1, std::memory_order_seq_cst);
    if (sleeping_.load(std::memory_order_seq_cst)) futex(FUTEX_WAKE_PRIVATE, 1);
  }
  void take() {
    for (int i = 0; i < kSpins; ++i) {
      if (tryTake()) return;
      pause();
    }
    for (;;) {
      sleeping_.store(1, std::memory_order_seq_cst);
      if (tryTake()) break;
      futex(FUTEX_WAIT_PRIVATE, 0);
    }
    sleeping_.store(0, std::memory_order_relaxed);
  }

 private:
  static constexpr int kSpins = 500;
  bool tryTake() {
    uint32_t one = 1;
    return word_.load(std::memory_order_relaxed) == 1 &&
           word_.compare_exchange_strong(one, 0, std::memory_order_acquire, std::memory_order_relaxed);
  }
  static void pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
  }
  void futex(int op, uint32_t val) {
    syscall(SYS_futex, reinterpret_cast<uint32_t *>(&word_), op, val, nullptr, nullptr, 0);
  }
  std::atomic<uint32_t> word_{0};
  std::atomic<uint32_t> sleeping_{0};
};
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));

enum class State {
  Ready,      // runnable: holds the baton or waits for its turn
  Suspended,  // waits for qorThreadResume
  Away,       // the main thread inside a concurrent stretch
  Exited,     // a worker whose entry ended
};

struct Group;

struct Member {
  int id = 0;
  size_t index = 0;  // place in the ring
  bool isMain = false;
  std::string name;
  QorThreadEntry entry = nullptr;
  void *arg = nullptr;
  State state = State::Ready;
  Token baton;
  std::thread os;
  std::atomic<uint64_t> turns{0}, yields{0}, suspends{0}, resumes{0};
};

struct Group {
  QorThreadGroup handle = 0;
  uint32_t evkey = 0;
  std::mutex mu;
  std::vector<std::unique_ptr<Member>> ring;  // ring[0] is the main thread
  Member *main = nullptr;
  Member *holder = nullptr;  // nullptr: the baton lies idle during a stretch
  bool mainWants = false;    // main waits in RunConcurrentEnd
  std::atomic<bool> stopping{false};
  std::atomic<uint64_t> switches{0};
  std::atomic<uint64_t> turns{0};

  Member *find(int id) {
    for (auto &m : ring)
      if (m->id == id) return m.get();
    return nullptr;
  }
};

// Never destroyed: a daemon exits with its group alive, and destroying a member whose thread
// still runs would end the process with std::terminate.
std::mutex &g_regMu = *new std::mutex;
std::map<QorThreadGroup, std::shared_ptr<Group>> &g_groups = *new std::map<QorThreadGroup, std::shared_ptr<Group>>;
QorThreadGroup g_nextHandle = 1;

thread_local Member *tl_self = nullptr;
thread_local Group *tl_group = nullptr;

// Any thread may name a group; a member's own group is found without the registry lock.
std::shared_ptr<Group> lookup(QorThreadGroup handle) {
  std::lock_guard<std::mutex> lk(g_regMu);
  auto it = g_groups.find(handle);
  return it == g_groups.end() ? nullptr : it->second;
}

// The running member of `handle` on this thread, or nullptr.
Group *ownGroup(QorThreadGroup handle) {
  return (tl_group && tl_group->handle == handle) ? tl_group : nullptr;
}

// The group from any thread: its own member's without the registry lock, else through the
// registry, with `keep` holding it alive while the caller uses it.
Group *anyGroup(QorThreadGroup handle, std::shared_ptr<Group> &keep) {
  if (Group *g = ownGroup(handle)) return g;
  keep = lookup(handle);
  return keep.get();
}

// Who gets the baton when `from` gives it up. Called with the lock held.
Member *pickNext(Group &g, const Member *from) {
  if (from != g.main && (g.mainWants || g.stopping)) return g.main;
  const size_t n = g.ring.size();
  for (size_t k = 1; k < n; ++k) {
    Member *m = g.ring[(from->index + k) % n].get();
    if (m->state == State::Ready) return m;
  }
  return nullptr;
}

// Makes `to` the holder (nullptr leaves the baton idle). Called with the lock held; the caller
// releases `to`'s semaphore after unlocking so that `to` does not wake into a held lock.
void giveTo(Group &g, Member *to) {
  g.holder = to;
  if (!to) return;
  if (to == g.main && to->state == State::Away) {
    g.mainWants = false;
    to->state = State::Ready;
  }
  g.switches.fetch_add(1, std::memory_order_relaxed);
}

void wake(Member *to) {
  if (to) to->baton.give();
}

// Blocks until the baton is ours. A worker whose group is being destroyed unwinds from here.
void awaitTurn(Group &g, Member &self) {
  self.baton.take();
  self.turns.fetch_add(1, std::memory_order_relaxed);
  g.turns.fetch_add(1, std::memory_order_relaxed);
  if (!self.isMain && g.stopping.load(std::memory_order_acquire)) throw QorThreadStop{};
}

void workerMain(Group *g, Member *m) {
  tl_self = m;
  tl_group = g;
  {
    std::string shortName = m->name.substr(0, 15);  // the kernel keeps 15 characters
    pthread_setname_np(pthread_self(), shortName.c_str());
  }
  try {
    awaitTurn(*g, *m);
    m->entry(m->arg);
  } catch (const QorThreadStop &) {
  } catch (...) {
    qorEventLog(g->evkey, 3, "thread %s (%d) ended by an exception\n", m->name.c_str(), m->id);
  }
  // Here we hold the baton: leave the ring and pass it on.
  Member *next;
  {
    std::lock_guard<std::mutex> lk(g->mu);
    m->state = State::Exited;
    next = pickNext(*g, m);
    giveTo(*g, next);
  }
  wake(next);
  tl_self = nullptr;
  tl_group = nullptr;
}

int endStretch(Group &g, Member &self) {
  {
    std::lock_guard<std::mutex> lk(g.mu);
    if (self.state != State::Away) return -1;
    if (g.holder == nullptr) {
      giveTo(g, &self);
      self.turns.fetch_add(1, std::memory_order_relaxed);
      g.turns.fetch_add(1, std::memory_order_relaxed);
      return 0;
    }
    g.mainWants = true;
  }
  awaitTurn(g, self);
  return 0;
}

}  // namespace

QorThreadGroup qorThreadInit(int *mainId, uint32_t evkey) {
  if (tl_self) return -1;  // a thread belongs to one group at most
  auto g = std::make_shared<Group>();
  g->evkey = evkey;
  auto m = std::make_unique<Member>();
  m->id = QOR_THREAD_MAIN_ID;
  m->isMain = true;
  m->name = "main";
  m->turns = 1;
  g->main = m.get();
  g->holder = m.get();
  g->turns = 1;
  g->ring.push_back(std::move(m));
  {
    std::lock_guard<std::mutex> lk(g_regMu);
    g->handle = g_nextHandle++;
    g_groups[g->handle] = g;
  }
  tl_self = g->main;
  tl_group = g.get();
  if (mainId) *mainId = QOR_THREAD_MAIN_ID;
  return g->handle;
}

int qorThreadTmeCreate(int id, int /*inst*/, QorThreadGroup group, const char *name, QorThreadEntry entry,
                       void *arg, uint32_t /*stackSize*/, int /*options*/) {
  std::shared_ptr<Group> keep = lookup(group);
  if (!keep || !entry || id <= 0) return -1;
  Group &g = *keep;
  Member *startNow = nullptr;
  {
    std::lock_guard<std::mutex> lk(g.mu);
    if (g.stopping || g.find(id)) return -1;
    auto m = std::make_unique<Member>();
    m->id = id;
    m->index = g.ring.size();
    m->name = name ? name : "";
    m->entry = entry;
    m->arg = arg;
    Member *raw = m.get();
    g.ring.push_back(std::move(m));
    try {
      raw->os = std::thread(workerMain, &g, raw);
    } catch (...) {
      g.ring.pop_back();
      return -1;
    }
    // During an idle stretch nobody would pass the baton on, so the newcomer takes it now.
    if (g.holder == nullptr && g.main->state == State::Away) {
      giveTo(g, raw);
      startNow = raw;
    }
  }
  wake(startNow);
  return 0;
}

int qorThreadYield(QorThreadGroup group) {
  Group *g = ownGroup(group);
  if (!g) return -1;
  Member &self = *tl_self;
  Member *next;
  uint64_t before;
  {
    std::lock_guard<std::mutex> lk(g->mu);
    if (g->holder != &self) return -1;
    self.yields.fetch_add(1, std::memory_order_relaxed);
    next = pickNext(*g, &self);
    if (!next) return 0;
    before = g->turns.load(std::memory_order_relaxed);
    giveTo(*g, next);
  }
  wake(next);
  awaitTurn(*g, self);
  uint64_t others = g->turns.load(std::memory_order_relaxed) - before - 1;
  return static_cast<int>(std::min<uint64_t>(others, INT_MAX));
}

int qorThreadSuspendSelf(QorThreadGroup group) {
  Group *g = ownGroup(group);
  if (!g) return -1;
  Member &self = *tl_self;
  Member *next;
  {
    std::lock_guard<std::mutex> lk(g->mu);
    if (g->holder != &self) return -1;
    self.suspends.fetch_add(1, std::memory_order_relaxed);
    self.state = State::Suspended;
    next = pickNext(*g, &self);
    giveTo(*g, next);
  }
  wake(next);
  awaitTurn(*g, self);
  return 0;
}

int qorThreadResume(QorThreadGroup group, int id) {
  std::shared_ptr<Group> keep;
  Group *g = anyGroup(group, keep);
  if (!g) return -1;
  Member *startNow = nullptr;
  {
    std::lock_guard<std::mutex> lk(g->mu);
    Member *m = g->find(id);
    if (!m) return -1;
    if (m->state != State::Suspended) return 0;
    m->state = State::Ready;
    m->resumes.fetch_add(1, std::memory_order_relaxed);
    // Nobody holds the baton (an idle stretch): the resumed member would wait for a switch
    // point that never comes, so it runs now.
    if (g->holder == nullptr && !g->stopping) {
      giveTo(*g, m);
      startNow = m;
    }
  }
  wake(startNow);
  return 0;
}

int qorThreadIsSuspended(QorThreadGroup group, int id) {
  std::shared_ptr<Group> keep;
  Group *g = anyGroup(group, keep);
  if (!g) return -1;
  std::lock_guard<std::mutex> lk(g->mu);
  Member *m = g->find(id);
  if (!m) return -1;
  return (m->state == State::Suspended || m->state == State::Exited) ? 1 : 0;
}

int qorThreadRunConcurrentStart(QorThreadGroup group) {
  Group *g = ownGroup(group);
  if (!g || tl_self != g->main) return -1;
  Member *next;
  {
    std::lock_guard<std::mutex> lk(g->mu);
    if (g->holder != g->main) return -1;
    g->main->state = State::Away;
    next = pickNext(*g, g->main);
    giveTo(*g, next);
  }
  wake(next);
  return 0;
}

int qorThreadRunConcurrentEnd(QorThreadGroup group, int id) {
  Group *g = ownGroup(group);
  if (!g || tl_self != g->main || id != g->main->id) return -1;
  return endStretch(*g, *g->main);
}

int qorThreadSelfId() { return tl_self ? tl_self->id : 0; }

int qorThreadRunningId(QorThreadGroup group) {
  std::shared_ptr<Group> keep;
  Group *g = anyGroup(group, keep);
  if (!g) return -1;
  std::lock_guard<std::mutex> lk(g->mu);
  return g->holder ? g->holder->id : 0;
}

long qorThreadRunUntilIdle(QorThreadGroup group) {
  Group *g = ownGroup(group);
  if (!g || tl_self != g->main) return -1;
  long total = 0;
  for (;;) {
    int r = qorThreadYield(group);
    if (r < 0) return -1;
    if (r == 0) return total;
    total += r;
  }
}

int qorThreadGetStats(QorThreadGroup group, int id, QorThreadStats *stats) {
  std::shared_ptr<Group> keep;
  Group *g = ownGroup(group);
  if (!g) {
    keep = lookup(group);
    g = keep.get();
  }
  if (!g || !stats) return -1;
  std::lock_guard<std::mutex> lk(g->mu);
  Member *m = g->find(id);
  if (!m) return -1;
  stats->turns = m->turns.load();
  stats->yields = m->yields.load();
  stats->suspends = m->suspends.load();
  stats->resumes = m->resumes.load();
  return 0;
}

uint64_t qorThreadGroupSwitches(QorThreadGroup group) {
  std::shared_ptr<Group> g = lookup(group);
  return g ? g->switches.load() : 0;
}

int qorThreadGroupDestroy(QorThreadGroup group) {
  Group *g = ownGroup(group);
  if (!g || tl_self != g->main) return -1;
  Member &self = *g->main;
  if (self.state == State::Away) endStretch(*g, self);
  {
    std::lock_guard<std::mutex> lk(g->mu);
    if (g->holder != &self) return -1;  // main suspended itself: nothing sane to do
    g->stopping.store(true, std::memory_order_release);
  }
  // One worker at a time, with the baton, so that the unwinding stacks never run side by side.
  for (size_t i = 1; i < g->ring.size(); ++i) {
    Member *m = g->ring[i].get();
    for (;;) {
      {
        std::lock_guard<std::mutex> lk(g->mu);
        if (m->state == State::Exited) break;
        m->state = State::Ready;
        giveTo(*g, m);
      }
      wake(m);
      awaitTurn(*g, self);
    }
    if (m->os.joinable()) m->os.join();
  }
  std::shared_ptr<Group> keep;
  {
    std::lock_guard<std::mutex> lk(g_regMu);
    auto it = g_groups.find(group);
    keep = std::move(it->second);
    g_groups.erase(it);
  }
  tl_self = nullptr;
  tl_group = nullptr;
  return 0;  // `keep` frees the group unless a caller elsewhere still holds it
}
