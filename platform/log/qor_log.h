// Event log, history ring, module trace and hard checks of the platform.
//
// The daemon raises numbered events (qorSysErr) whose texts live in a catalogue outside the
// process, so what we keep of an event is its code, the "RTM: function" text and its
// arguments, each rendered as text. Everything goes to one sink (stderr or a log file) and the
// last events stay in memory so that tests can assert on codes and arguments.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

// One logged record, as kept for tests and the debug shell.
struct QorLogRecord {
  enum Kind { SysErr, Event, Trace, Assert } kind;
  uint32_t code;      // event code for SysErr, severity for Event, module for Trace
  std::string text;   // the text argument (SysErr) or the formatted line
  std::vector<std::string> args;  // SysErr arguments, rendered
};

// Opens the log: returns an event key (>= 1), or -1 when qorLogFailNextOpen() was armed.
int32_t qorEvtOpenlog(const char *name, int flags, uint32_t svce, uint32_t inst);
void qorEvtSetSeverityLevel(uint32_t key, uint32_t mask);
int qorEvtRegisterSvce(uint32_t key, int flag);
void qorEvtSetSyslog(uint32_t key, int on);

// Where lines go: nullptr or "" is stderr. Returns false if the file cannot be opened.
bool qorLogSetFile(const char *path);
// A short prefix on each line ("rtmd", "rtm-feed").
void qorLogSetProgram(const char *name);
// Mirror lines to the sink (default on). Tests that provoke thousands of events turn it off.
void qorLogSetEcho(bool on);
void qorLogFailNextOpen();

// Records kept in memory: the most recent ones, at most qorLogKeep().
const std::deque<QorLogRecord> &qorLogRecent();
size_t qorLogKeep();
void qorLogClearRecent();
// Count of SysErr events with this code since the last clear.
size_t qorLogCount(uint32_t code);
// The last SysErr with this code, or nullptr.
const QorLogRecord *qorLogLast(uint32_t code);
// True if a line of kind Event/Trace containing `needle` was recorded since the last clear.
bool qorLogSaw(std::string_view needle);

namespace qorlog_detail {
inline std::string render(const char *s) { return s ? std::string(s) : std::string("(null)"); }
inline std::string render(char *s) { return render(static_cast<const char *>(s)); }
inline std::string render(const std::string &s) { return s; }
inline std::string render(std::string_view s) { return std::string(s); }
template <class T>
std::string render(T *p) { char b[32]; snprintf(b, sizeof b, "%p", static_cast<const void *>(p)); return b; }
template <class T, std::enable_if_t<std::is_integral_v<T> || std::is_enum_v<T>, int> = 0>
std::string render(T v) {
  if constexpr (std::is_enum_v<T>) return std::to_string(static_cast<long long>(v));
  else if constexpr (std::is_signed_v<T>) return std::to_string(static_cast<long long>(v));
  else return std::to_string(static_cast<unsigned long long>(v));
}
inline std::string render(double v) { return std::to_string(v); }
void sysErr(uint32_t key, uint32_t code, const char *text, std::vector<std::string> args);
}  // namespace qorlog_detail

// Raises event `code` (0x148000 + n for RTM) with its text and arguments.
template <class... A>
void qorSysErr(uint32_t key, int /*unused*/, uint32_t code, int /*unused*/, const char *text, const A &...args) {
  qorlog_detail::sysErr(key, code, text, {qorlog_detail::render(args)...});
}

// printf-style log lines at a severity.
void qorEventLog(uint32_t key, int severity, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
void qorEventLogDev(uint32_t key, int severity, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
void qorEventPrint(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// The history ring: `entries` lines of at most `width` - 1 characters.
void qorInitHistoryTable(uint32_t entries, uint32_t width, int flag);
void qorEnableHistoryLogging();
void qorHistory(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Oldest first.
std::vector<std::string> qorHistoryLines();

// Module trace: printed only when bit 0 of the module's flags is set.
void qorTracePrintf(uint32_t module, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
uint32_t &wrap_modtraceflags(uint32_t module);

// A hard check that failed. It is logged and counted; the caller goes on.
void _qorAssert(const char *expression, const char *file, int line, long value);
size_t qorAssertCount();
// A soft check of RTM: logs event 0x148009 when `condition` is 0.
void rtm_assert(const char *file, int line, int condition);

#define QOR_ASSERT(expr) ((expr) ? (void)0 : _qorAssert(#expr, __FILE__, __LINE__, 0))

// Debug printf of the daemon (the text of `rtmdebug` lines). Goes to the same sink.
void qorDebugPrintf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Back to a clean start (tests).
void qorLogReset();
