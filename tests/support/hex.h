// Golden bytes written out by hand: "00 0a ff" with free spacing and separators such as '|',
// "00*124" repeating a byte, and "//" or "#" starting a comment that runs to the end of the line.
#pragma once

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace rtmtest {

inline std::vector<uint8_t> hex(std::string_view text) {
  std::vector<uint8_t> out;
  auto nib = [](char c) { return std::isdigit(uint8_t(c)) ? c - '0' : std::tolower(uint8_t(c)) - 'a' + 10; };
  int hi = -1;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '#' || text.substr(i, 2) == "//") {
      while (i + 1 < text.size() && text[i + 1] != '\n') ++i;
    } else if (c == '*' && hi < 0 && !out.empty()) {
      size_t n = 0;
      while (i + 1 < text.size() && std::isdigit(uint8_t(text[i + 1]))) n = n * 10 + size_t(text[++i] - '0');
      if (n > 0) out.insert(out.end(), n - 1, out.back());
    } else if (std::isxdigit(uint8_t(c))) {
      if (hi < 0) {
        hi = nib(c);
      } else {
        out.push_back(uint8_t(hi << 4 | nib(c)));
        hi = -1;
      }
    }
  }
  return out;
}

// Concatenation of byte runs, for messages built from a header and golden parts.
inline std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> out;
  for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

}  // namespace rtmtest
