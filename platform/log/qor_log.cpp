// The sink is a FILE*, written under a mutex: the daemon runs its cooperative threads on real
// OS threads, and the platform's own helper threads (timers, SWP ticker) may log too.
#include "log/qor_log.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

namespace {
constexpr size_t kKeep = 4096;

struct LogState {
  std::mutex mu;
  FILE *out = nullptr;  // nullptr: stderr
  bool ownsFile = false;
  bool echo = true;
  bool failNextOpen = false;
  std::string program = "rtmd";
  std::deque<QorLogRecord> recent;
  uint32_t nextKey = 1;
  size_t asserts = 0;
  // History ring.
  std::vector<std::string> hist;
  uint32_t histWidth = 150;
  size_t histNext = 0;
  bool histFull = false;
  bool histOn = false;
  uint32_t traceFlags[256] = {};
};

LogState &st() {
  static LogState *s = new LogState;  // never destroyed: threads may log during exit
  return *s;
}

void emit(LogState &s, const char *tag, const std::string &line) {
  if (!s.echo) return;
  FILE *f = s.out ? s.out : stderr;
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  tm tmv;
  gmtime_r(&ts.tv_sec, &tmv);
  char stamp[40];
  strftime(stamp, sizeof stamp, "%H:%M:%S", &tmv);
  std::string_view body(line);
  while (!body.empty() && (body.front() == '\r' || body.front() == '\n')) body.remove_prefix(1);
  while (!body.empty() && (body.back() == '\r' || body.back() == '\n')) body.remove_suffix(1);
  fprintf(f, "%s.%03ld %s %s: %.*s\n", stamp, ts.tv_nsec / 1000000, s.program.c_str(), tag,
          static_cast<int>(body.size()), body.data());
  fflush(f);
}

void keep(LogState &s, QorLogRecord r) {
  if (s.recent.size() >= kKeep) s.recent.pop_front();
  s.recent.push_back(std::move(r));
}

std::string vformat(const char *fmt, va_list ap) {
  char small[512];
  va_list ap2;
  va_copy(ap2, ap);
  int n = vsnprintf(small, sizeof small, fmt, ap);
  if (n < 0) {
    va_end(ap2);
    return std::string();
  }
  if (static_cast<size_t>(n) < sizeof small) {
    va_end(ap2);
    return std::string(small, static_cast<size_t>(n));
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(big.data(), big.size(), fmt, ap2);
  va_end(ap2);
  big.resize(static_cast<size_t>(n));
  return big;
}

void eventLine(QorLogRecord::Kind kind, uint32_t code, const char *tag, const char *fmt, va_list ap) {
  std::string line = vformat(fmt, ap);
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  emit(s, tag, line);
  keep(s, {kind, code, std::move(line), {}});
}
}  // namespace

int32_t qorEvtOpenlog(const char *, int, uint32_t, uint32_t) {
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  if (s.failNextOpen) {
    s.failNextOpen = false;
    return -1;
  }
  return static_cast<int32_t>(s.nextKey++);
}
void qorEvtSetSeverityLevel(uint32_t, uint32_t) {}
int qorEvtRegisterSvce(uint32_t, int) { return 0; }
void qorEvtSetSyslog(uint32_t, int) {}

bool qorLogSetFile(const char *path) {
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  FILE *f = nullptr;
  if (path && *path) {
    f = fopen(path, "a");
    if (!f) return false;
  }
  if (s.ownsFile && s.out) fclose(s.out);
  s.out = f;
  s.ownsFile = f != nullptr;
  return true;
}
void qorLogSetProgram(const char *name) {
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  s.program = name ? name : "";
}
void qorLogSetEcho(bool on) { st().echo = on; }
void qorLogFailNextOpen() { st().failNextOpen = true; }

const std::deque<QorLogRecord> &qorLogRecent() { return st().recent; }
size_t qorLogKeep() { return kKeep; }
void qorLogClearRecent() {
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  s.recent.clear();
  s.asserts = 0;
}
size_t qorLogCount(uint32_t code) {
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  size_t n = 0;
  for (auto &r : s.recent) n += (r.kind == QorLogRecord::SysErr && r.code == code);
  return n;
}
const QorLogRecord *qorLogLast(uint32_t code) {
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  for (auto it = s.recent.rbegin(); it != s.recent.rend(); ++it)
    if (it->kind == QorLogRecord::SysErr && it->code == code) return &*it;
  return nullptr;
}
bool qorLogSaw(std::string_view needle) {
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  for (auto &r : s.recent)
    if (r.kind != QorLogRecord::SysErr && r.text.find(needle) != std::string::npos) return true;
  return false;
}

void qorlog_detail::sysErr(uint32_t, uint32_t code, const char *text, std::vector<std::string> args) {
  auto &s = st();
  std::string line = "event 0x" + [&] {
    char b[16];
    snprintf(b, sizeof b, "%X", code);
    return std::string(b);
  }() + " " + (text ? text : "");
  for (auto &a : args) line += " | " + a;
  std::lock_guard<std::mutex> g(s.mu);
  emit(s, "ERR", line);
  keep(s, {QorLogRecord::SysErr, code, text ? text : "", std::move(args)});
}

void qorEventLog(uint32_t, int severity, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  eventLine(QorLogRecord::Event, static_cast<uint32_t>(severity), "EVT", fmt, ap);
  va_end(ap);
}
void qorEventLogDev(uint32_t, int severity, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  eventLine(QorLogRecord::Event, static_cast<uint32_t>(severity), "EVT", fmt, ap);
  va_end(ap);
}
void qorEventPrint(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  eventLine(QorLogRecord::Event, 0, "EVT", fmt, ap);
  va_end(ap);
}
void qorDebugPrintf(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  eventLine(QorLogRecord::Trace, 0, "DBG", fmt, ap);
  va_end(ap);
}

void qorInitHistoryTable(uint32_t entries, uint32_t width, int) {
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  s.hist.assign(entries, std::string());
  s.histWidth = width ? width : 1;
  s.histNext = 0;
  s.histFull = false;
}
void qorEnableHistoryLogging() { st().histOn = true; }
void qorHistory(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string line = vformat(fmt, ap);
  va_end(ap);
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  if (!s.histOn || s.hist.empty()) return;
  if (line.size() > s.histWidth - 1) line.resize(s.histWidth - 1);
  s.hist[s.histNext] = std::move(line);
  s.histNext = (s.histNext + 1) % s.hist.size();
  if (s.histNext == 0) s.histFull = true;
}
std::vector<std::string> qorHistoryLines() {
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  std::vector<std::string> out;
  if (s.hist.empty()) return out;
  size_t n = s.histFull ? s.hist.size() : s.histNext;
  size_t start = s.histFull ? s.histNext : 0;
  for (size_t i = 0; i < n; ++i) out.push_back(s.hist[(start + i) % s.hist.size()]);
  return out;
}

uint32_t &wrap_modtraceflags(uint32_t module) { return st().traceFlags[module & 0xFF]; }
void qorTracePrintf(uint32_t module, const char *fmt, ...) {
  if (!(wrap_modtraceflags(module) & 1)) return;
  va_list ap;
  va_start(ap, fmt);
  eventLine(QorLogRecord::Trace, module, "TRC", fmt, ap);
  va_end(ap);
}

void _qorAssert(const char *expression, const char *file, int line, long value) {
  auto &s = st();
  char b[512];
  snprintf(b, sizeof b, "assertion \"%s\" failed at %s:%d (value %ld)", expression ? expression : "?",
           file ? file : "?", line, value);
  std::lock_guard<std::mutex> g(s.mu);
  ++s.asserts;
  emit(s, "ASSERT", b);
  keep(s, {QorLogRecord::Assert, 0, b, {}});
}
size_t qorAssertCount() { return st().asserts; }

void rtm_assert(const char *file, int line, int condition) {
  if (condition) return;
  qorSysErr(0, 0, 0x148009, 0, "RTM: assertion failure in file %s line %d", file ? file : "?", line);
}

void qorLogReset() {
  auto &s = st();
  std::lock_guard<std::mutex> g(s.mu);
  s.recent.clear();
  s.asserts = 0;
  s.failNextOpen = false;
  s.hist.clear();
  s.histNext = 0;
  s.histFull = false;
  s.histOn = false;
  for (auto &f : s.traceFlags) f = 0;
}
