// What every command-line tool of the project does the same way: the signal that ends a tool's
// wait, usage errors (exit 2, pointing at --help) and other failures (exit 1), prefixed with the
// tool's name, and numeric options checked against their range.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace rtmtool {

// Set by each tool's main before anything can fail.
inline const char *g_prog = "rtm-tool";

inline volatile sig_atomic_t g_stop;
inline void onSignal(int) { g_stop = 1; }

[[noreturn]] inline void usageError(const std::string &what) {
  fprintf(stderr, "%s: %s\n(%s --help for the options)\n", g_prog, what.c_str(), g_prog);
  exit(2);
}

[[noreturn]] inline void die(const std::string &what) {
  fprintf(stderr, "%s: %s\n", g_prog, what.c_str());
  exit(1);
}

// `text` as a whole number from min to max, in decimal (base 10) or also hexadecimal/octal with
// their prefixes (base 0); anything else is a usage error naming the option.
inline uint64_t number(const std::string &opt, const char *text, uint64_t min, uint64_t max, int base = 10) {
  char *end = nullptr;
  errno = 0;
  unsigned long long v = strtoull(text, &end, base);
  if (!*text || *end || errno || text[0] == '-' || v < min || v > max)
    usageError(opt + " takes a number from " + std::to_string(min) + " to " + std::to_string(max) + ", not '" +
               text + "'");
  return v;
}

// 1234567 as "1,234,567", for the rates and counts the tools print.
inline std::string withCommas(uint64_t v) {
  const std::string digits = std::to_string(v);
  std::string out;
  out.reserve(digits.size() + digits.size() / 3);
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return out;
}

}  // namespace rtmtool
