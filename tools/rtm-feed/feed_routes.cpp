#include "tools/rtm-feed/feed_routes.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace rtmfeed {

namespace {

// Full-period linear congruential steps (Hull-Dobell: c odd, a - 1 divisible by 4), so every
// value of the space comes exactly once per period.
constexpr uint64_t kLcgA = 1664525, kLcgC = 1013904223;
constexpr uint64_t kV4Space = uint64_t(1) << 24;  // /24s
constexpr uint64_t kV6Space = uint64_t(1) << 32;  // /48s under 2001::/16

bool v4Usable(uint64_t v) {
  const uint64_t octet = v >> 16;
  return octet != 0 && octet != 127 && octet < 224;
}

std::string trim(const std::string &s) {
  size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

bool parseUnsigned(const std::string &s, uint64_t max, uint64_t *out) {
  if (s.empty() || s.find_first_not_of("0123456789") != std::string::npos || s.size() > 10) return false;
  uint64_t v = std::strtoull(s.c_str(), nullptr, 10);
  if (v > max) return false;
  *out = v;
  return true;
}

bool parseSigned(const std::string &s, int32_t *out) {
  if (s.empty()) return false;
  const bool neg = s[0] == '-';
  uint64_t v;
  if (!parseUnsigned(neg ? s.substr(1) : s, neg ? 0x80000000ull : 0x7FFFFFFFull, &v)) return false;
  *out = neg ? static_cast<int32_t>(-static_cast<int64_t>(v)) : static_cast<int32_t>(v);
  return true;
}

uint8_t familyOf(const std::string &addr) { return addr.find(':') != std::string::npos ? 2 : 0; }

// True when no bit at or beyond plen is set.
bool hostBitsClear(const uint8_t *a, unsigned bytes, unsigned plen) {
  for (unsigned bit = plen; bit < bytes * 8; ++bit)
    if (a[bit / 8] & (0x80 >> (bit % 8))) return false;
  return true;
}

void maskTo(uint8_t *a, unsigned bytes, unsigned plen) {
  for (unsigned bit = plen; bit < bytes * 8; ++bit) a[bit / 8] &= static_cast<uint8_t>(~(0x80 >> (bit % 8)));
}

}  // namespace

bool parseRouteFile(std::istream &in, const std::string &name, uint16_t defPref, int32_t defMetric,
                    uint32_t vrfId, RouteFile *out, std::string *err) {
  std::string text;
  uint32_t lineNo = 0;
  auto bad = [&](const std::string &what) {
    *err = name + ":" + std::to_string(lineNo) + ": " + what;
    return false;
  };
  while (std::getline(in, text)) {
    ++lineNo;
    if (size_t hash = text.find('#'); hash != std::string::npos) text.resize(hash);
    std::istringstream cols(trim(text));
    std::vector<std::string> w;
    for (std::string c; cols >> c;) w.push_back(c);
    if (w.empty()) continue;
    if (w.size() < 2) return bad("expected PREFIX/LEN NEXTHOP[,NEXTHOP...] [PREFERENCE [METRIC]]");
    if (w.size() > 4) return bad("unexpected '" + w[4] + "' after the metric");

    FileRoute r{};
    r.line = lineNo;
    const size_t slash = w[0].find('/');
    if (slash == std::string::npos) return bad("prefix '" + w[0] + "' has no /LEN");
    const std::string addr = w[0].substr(0, slash);
    r.afIndex = familyOf(addr);
    const unsigned bits = rtmAfKeyBits(r.afIndex), bytes = rtmAfAddrLen(r.afIndex);
    uint64_t plen;
    if (!parseUnsigned(w[0].substr(slash + 1), bits, &plen))
      return bad("bad prefix length in '" + w[0] + "' (0 to " + std::to_string(bits) + ")");
    if (!rtmclient::parseAddr(r.afIndex, addr, r.prefix))
      return bad("bad " + std::string(r.afIndex ? "IPv6" : "IPv4") + " address '" + addr + "'");
    r.prefixLen = static_cast<uint8_t>(plen);
    if (!hostBitsClear(r.prefix, bytes, r.prefixLen)) {
      uint8_t masked[16];
      memcpy(masked, r.prefix, sizeof masked);
      maskTo(masked, bytes, r.prefixLen);
      return bad("'" + w[0] + "' has bits set beyond its length (did you mean " +
                 rtmclient::addrToString(r.afIndex, masked) + "/" + std::to_string(plen) + "?)");
    }

    r.nhFirst = static_cast<uint32_t>(out->nexthops.size());
    // Split by hand: getline drops an empty last item, and "a," is a typo worth naming.
    for (size_t from = 0, comma;; from = comma + 1) {
      comma = w[1].find(',', from);
      const std::string nh = w[1].substr(from, comma == std::string::npos ? std::string::npos : comma - from);
      rtmclient::NextHop h;
      h.vrfId = vrfId;
      std::string a = nh;
      if (size_t pct = nh.find('%'); pct != std::string::npos) {
        uint64_t ifx;
        if (!parseUnsigned(nh.substr(pct + 1), 0xFFFFFFFFull, &ifx))
          return bad("bad interface index in next hop '" + nh + "'");
        h.ifindex = static_cast<uint32_t>(ifx);
        a = nh.substr(0, pct);
      }
      if (!rtmclient::parseAddr(r.afIndex, a, h.addr))
        return bad("bad next hop '" + nh + "' (expected an " + (r.afIndex ? "IPv6" : "IPv4") +
                   " address like the prefix's)");
      if (++r.nnh > RTP_MAX_NH) return bad("more than 64 next hops");
      out->nexthops.push_back(h);
      if (comma == std::string::npos) break;
    }
    if (r.nnh == 0) return bad("no next hop");

    r.pref = defPref;
    r.metric = defMetric;
    uint64_t pref;
    if (w.size() > 2) {
      if (!parseUnsigned(w[2], 0xFFFF, &pref)) return bad("bad preference '" + w[2] + "' (0 to 65535)");
      r.pref = static_cast<uint16_t>(pref);
    }
    if (w.size() > 3 && !parseSigned(w[3], &r.metric)) return bad("bad metric '" + w[3] + "'");
    (r.afIndex ? out->hasV6 : out->hasV4) = true;
    out->routes.push_back(r);
  }
  if (in.bad()) {
    *err = name + ": read error";
    return false;
  }
  return true;
}

uint64_t PrefixGen::capacity(bool ipv6) { return ipv6 ? kV6Space : 222 * (uint64_t(1) << 16); }

bool PrefixGen::init(bool ipv6, bool sequential, uint64_t count, uint32_t seed, std::string *err) {
  if (count > capacity(ipv6)) {
    *err = "at most " + std::to_string(capacity(ipv6)) + " distinct " + (ipv6 ? "IPv6 /48" : "IPv4 /24") +
           " prefixes can be generated";
    return false;
  }
  ipv6_ = ipv6;
  sequential_ = sequential;
  left_ = count;
  const uint64_t space = ipv6 ? kV6Space : kV4Space;
  state_ = sequential ? (ipv6 ? 0 : 0x010000) : seed % space;
  return true;
}

bool PrefixGen::next(uint8_t *prefix, uint8_t *prefixLen) {
  if (left_ == 0) return false;
  const uint64_t space = ipv6_ ? kV6Space : kV4Space;
  uint64_t v;
  do {
    if (sequential_) {
      v = state_++;
    } else {
      state_ = (kLcgA * state_ + kLcgC) & (space - 1);
      v = state_;
    }
  } while (!ipv6_ && !v4Usable(v));
  --left_;
  memset(prefix, 0, 16);
  if (ipv6_) {
    prefix[0] = 0x20;
    prefix[1] = 0x01;
    for (int i = 0; i < 4; ++i) prefix[2 + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
    *prefixLen = 48;
  } else {
    for (int i = 0; i < 3; ++i) prefix[i] = static_cast<uint8_t>(v >> (16 - 8 * i));
    *prefixLen = 24;
  }
  return true;
}

std::vector<rtmclient::NextHop> generatedNextHops(bool ipv6, unsigned k, uint32_t vrfId) {
  std::vector<rtmclient::NextHop> out(k);
  for (unsigned i = 0; i < k; ++i) {
    rtmclient::NextHop &h = out[i];
    h.vrfId = vrfId;
    if (ipv6) {
      h.addr[0] = 0x3f;
      h.addr[1] = 0xff;
      h.addr[15] = static_cast<uint8_t>(i + 1);
    } else {
      h.addr[0] = 198;
      h.addr[1] = 51;
      h.addr[2] = 100;
      h.addr[3] = static_cast<uint8_t>(i + 1);
    }
  }
  return out;
}

}  // namespace rtmfeed
