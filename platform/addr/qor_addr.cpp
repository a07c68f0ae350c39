// Address helpers. Every function takes the afIndex and derives the address length from it,
// so the IPv4 and IPv6 paths of the daemon are the same code.
#include "addr/qor_addr.h"

#include <arpa/inet.h>
#include <strings.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {
const uint8_t *bytes(const void *p) { return static_cast<const uint8_t *>(p); }
}  // namespace

int rtmAF_IsAddrZero(unsigned afIndex, const void *a) {
  const uint8_t *b = bytes(a);
  for (unsigned i = 0; i < rtmAfAddrLen(afIndex); ++i)
    if (b[i]) return 0;
  return 1;
}

int rtmAF_IsAddrNonZero(unsigned afIndex, const void *a) { return !rtmAF_IsAddrZero(afIndex, a); }

int rtmAF_IsAddrAllOnes(unsigned afIndex, const void *a) {
  const uint8_t *b = bytes(a);
  for (unsigned i = 0; i < rtmAfAddrLen(afIndex); ++i)
    if (b[i] != 0xFF) return 0;
  return 1;
}

int rtmAF_AddrCmp(unsigned afIndex, const void *a, const void *b) { return memcmp(a, b, rtmAfAddrLen(afIndex)); }
int rtmAF_IsAddrEqual(unsigned afIndex, const void *a, const void *b) { return rtmAF_AddrCmp(afIndex, a, b) == 0; }
int rtmAF_IsAddrGreater(unsigned afIndex, const void *a, const void *b) { return rtmAF_AddrCmp(afIndex, a, b) > 0; }
int rtmAF_IsAddrLess(unsigned afIndex, const void *a, const void *b) { return rtmAF_AddrCmp(afIndex, a, b) < 0; }
int rtmAF_IsAddrLessOrEq(unsigned afIndex, const void *a, const void *b) {
  return rtmAF_AddrCmp(afIndex, a, b) <= 0;
}

int rtmAF_IsDefaultRoute(unsigned afIndex, const void *prefix, unsigned plen) {
  return plen == 0 && rtmAF_IsAddrZero(afIndex, prefix);
}

void rtmAF_SetLoopback(unsigned afIndex, void *addr) {
  uint8_t *b = static_cast<uint8_t *>(addr);
  unsigned n = rtmAfAddrLen(afIndex);
  memset(b, 0, n);
  if (n == 4) b[0] = 127;
  b[n - 1] = 1;
}

void rtmAF_AddrCopy(unsigned afIndex, void *dst, const void *src) { memmove(dst, src, rtmAfAddrLen(afIndex)); }

void RTM_AF_ADDR_AND(unsigned afIndex, const void *a, const void *b, void *result) {
  uint8_t *r = static_cast<uint8_t *>(result);
  for (unsigned i = 0; i < rtmAfAddrLen(afIndex); ++i) r[i] = bytes(a)[i] & bytes(b)[i];
}

void rtm_plen2mask(void *mask, unsigned bits, unsigned plen) {
  uint8_t *m = static_cast<uint8_t *>(mask);
  if (plen > bits) plen = bits;
  for (unsigned i = 0; i < bits / 8; ++i) {
    unsigned ones = plen > i * 8 ? plen - i * 8 : 0;
    m[i] = ones >= 8 ? 0xFF : uint8_t(0xFF00u >> ones);
  }
}

unsigned rtm_mask2plen(const void *mask, unsigned bits) {
  const uint8_t *m = bytes(mask);
  unsigned plen = 0;
  for (unsigned i = 0; i < bits / 8; ++i) {
    if (m[i] == 0xFF) {
      plen += 8;
      continue;
    }
    for (uint8_t bit = 0x80; bit && (m[i] & bit); bit >>= 1) ++plen;
    break;
  }
  return plen;
}

unsigned qorMaskToPrefLen(uint32_t mask) {
  unsigned plen = 0;
  while (plen < 32 && (mask & (0x80000000u >> plen))) ++plen;
  return plen;
}

uint32_t PrefixlenToMask(unsigned plen) {
  if (plen > 32) return 0;
  return plen == 0 ? 0 : 0xFFFFFFFFu << (32 - plen);
}

int IsPowerOf2(uint32_t value) { return (value & (value - 1)) == 0; }

int rtmAF_IsContigous(unsigned afIndex, const void *mask) {
  // Kept on purpose as the system has always done it: one byte of the mask decides, and for
  // IPv6 that byte is the thirteenth. Masks that differ elsewhere pass or fail alike.
  uint8_t b = bytes(mask)[afIndex >= 2 ? 12 : 0];
  return IsPowerOf2(uint8_t(-b));
}

void rtmAF_ApplyPlen(unsigned afIndex, const void *addr, unsigned plen, void *out) {
  uint8_t mask[16];
  rtm_plen2mask(mask, rtmAfKeyBits(afIndex), plen);
  RTM_AF_ADDR_AND(afIndex, addr, mask, out);
}

const char *rtm_inet_ntop(int family, const void *addr, char *buf, size_t size) {
  if (!addr || !buf) return nullptr;
  if (family == RTM_AF_INET6_SYS || family == AF_INET6)
    return inet_ntop(AF_INET6, addr, buf, socklen_t(size));
  if (family == AF_INET || family == RTM_AF_INET) return inet_ntop(AF_INET, addr, buf, socklen_t(size));
  return nullptr;
}

const char *rtmAF_AddrToStr(unsigned afIndex, const void *addr, char *buf, size_t size) {
  return rtm_inet_ntop(afIndex >= 2 ? AF_INET6 : AF_INET, addr, buf, size);
}

int rtm_strcasecmp(const char *a, const char *b) { return strcasecmp(a, b); }

int rtmAF_AddrParse(unsigned afIndex, const char *text, void *addr) {
  if (!text || !addr) return -1;
  return inet_pton(afIndex >= 2 ? AF_INET6 : AF_INET, text, addr) == 1 ? 0 : -1;
}

int rtmAF_PrefixParse(const char *text, unsigned *afIndex, void *addr, unsigned *plen) {
  if (!text) return -1;
  std::string s(text);
  std::string len;
  if (auto slash = s.find('/'); slash != std::string::npos) {
    len = s.substr(slash + 1);
    s.resize(slash);
  }
  unsigned af = s.find(':') != std::string::npos ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX;
  uint8_t a[16] = {};
  if (rtmAF_AddrParse(af, s.c_str(), a) != 0) return -1;
  unsigned bits = rtmAfKeyBits(af), n = bits;
  if (!len.empty()) {
    if (len.size() > 3 || len.find_first_not_of("0123456789") != std::string::npos) return -1;
    n = unsigned(atoi(len.c_str()));
    if (n > bits) return -1;
  } else if (s.size() != strlen(text)) {
    return -1;  // "10.0.0.0/" has a slash and no length
  }
  *afIndex = af;
  memcpy(addr, a, rtmAfAddrLen(af));
  *plen = n;
  return 0;
}
