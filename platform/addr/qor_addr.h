// Address helpers: one code path for both families, keyed by afIndex.
//
// An address is a byte string in network order: 4 bytes for afIndex 0 and 1, 16 for 2 and 3
// (rtmAfAddrLen). Masks are addresses too. Comparisons are byte-wise, which is numeric order
// for network-order bytes. Predicates return 1 or 0.
#pragma once

#include <cstddef>
#include <cstdint>

#include "rtm/rtm_types.h"

// The family numbers rtm_inet_ntop and the parsers take besides AF_INET and AF_INET6.
constexpr int RTM_AF_INET = 2;
constexpr int RTM_AF_INET6_SYS = 26;  // IPv6 in the numbering of the original system

// Text sizes, terminator included.
constexpr size_t RTM_INET_ADDRSTRLEN = 16;
constexpr size_t RTM_INET6_ADDRSTRLEN = 46;

int rtmAF_IsAddrZero(unsigned afIndex, const void *a);
int rtmAF_IsAddrNonZero(unsigned afIndex, const void *a);
int rtmAF_IsAddrAllOnes(unsigned afIndex, const void *a);
int rtmAF_IsAddrEqual(unsigned afIndex, const void *a, const void *b);
int rtmAF_IsAddrGreater(unsigned afIndex, const void *a, const void *b);  // a > b
int rtmAF_IsAddrLess(unsigned afIndex, const void *a, const void *b);     // a < b
int rtmAF_IsAddrLessOrEq(unsigned afIndex, const void *a, const void *b); // a <= b
// Negative, zero or positive, byte-wise.
int rtmAF_AddrCmp(unsigned afIndex, const void *a, const void *b);
// The default prefix of the family: the zero address with length 0.
int rtmAF_IsDefaultRoute(unsigned afIndex, const void *prefix, unsigned plen);
// 127.0.0.1 or ::1.
void rtmAF_SetLoopback(unsigned afIndex, void *addr);
void rtmAF_AddrCopy(unsigned afIndex, void *dst, const void *src);
// result = a AND b, byte-wise; result may alias a or b.
void RTM_AF_ADDR_AND(unsigned afIndex, const void *a, const void *b, void *result);

// Writes a mask of `bits` bits (32 or 128; bytes bits/8) with `plen` leading ones; a plen
// above `bits` gives all ones.
void rtm_plen2mask(void *mask, unsigned bits, unsigned plen);
// Leading one bits of a mask of `bits` bits; counting stops at the first zero bit.
unsigned rtm_mask2plen(const void *mask, unsigned bits);
// Prefix length of a host-order IPv4 mask (leading ones).
unsigned qorMaskToPrefLen(uint32_t mask);
// Host-order IPv4 mask of a length; 0 for a length above 32.
uint32_t PrefixlenToMask(unsigned plen);
// Classic bit test: (value & (value - 1)) == 0, which counts 0 as a power of two.
int IsPowerOf2(uint32_t value);
// Contiguity test of a mask: reads one byte only (byte 0 for afIndex 0 and 1, byte 12 for 2
// and 3) and passes its negative, as a byte, to IsPowerOf2.
int rtmAF_IsContigous(unsigned afIndex, const void *mask);
// out = addr with the bits beyond plen cleared (out may alias addr).
void rtmAF_ApplyPlen(unsigned afIndex, const void *addr, unsigned plen, void *out);

// Prints an address of `family` (AF_INET, AF_INET6 or 26) into buf; buf, or null when the
// family is unknown or the buffer too small.
const char *rtm_inet_ntop(int family, const void *addr, char *buf, size_t size);
// The same keyed by afIndex.
const char *rtmAF_AddrToStr(unsigned afIndex, const void *addr, char *buf, size_t size);
// Case-insensitive comparison of names, as strcasecmp.
int rtm_strcasecmp(const char *a, const char *b);

// Parses an address of the family ("10.1.2.3", "2001:db8::1") into addr. 0 or -1.
int rtmAF_AddrParse(unsigned afIndex, const char *text, void *addr);
// Parses "address/length" or a bare address (a host prefix) of either family; sets the afIndex
// (0 or 2), the address (16 bytes of room) and the length. Host bits are kept as written. 0 or -1.
int rtmAF_PrefixParse(const char *text, unsigned *afIndex, void *addr, unsigned *plen);
