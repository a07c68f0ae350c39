// Where rtm-feed's routes come from: a text file, or a generator of distinct prefixes.
//
// Route file, one route per line; '#' starts a comment, blank lines are skipped:
//
//     PREFIX/LEN  NEXTHOP[,NEXTHOP...]  [PREFERENCE [METRIC]]
//     10.1.0.0/16      192.0.2.1,192.0.2.2   20  100
//     2001:db8:5::/48  2001:db8::1%7                     # %N: the next hop's ifindex
//
// Both families may be mixed. A prefix with bits set beyond its length is refused, so that a
// typo is not silently turned into another route.
//
// The generator makes IPv4 /24s (first octet 1..223 but 127) or IPv6 /48s under 2001::/16, all
// distinct: sequential from the bottom, or in a pseudo-random order that is a full-period
// linear congruential sequence over the prefix space, so a later run with the same seed
// yields the same prefixes (that is how a withdraw finds them).
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "client/rtm_client_lib.h"

namespace rtmfeed {

struct FileRoute {
  uint8_t afIndex;
  uint8_t prefixLen;
  uint8_t prefix[16];
  uint16_t pref;
  int32_t metric;
  uint32_t nhFirst;  // into RouteFile::nexthops
  uint16_t nnh;
  uint32_t line;
};

struct RouteFile {
  std::vector<FileRoute> routes;
  std::vector<rtmclient::NextHop> nexthops;
  bool hasV4 = false, hasV6 = false;
};

// Parses a route file. defPref and defMetric stand in for missing columns; vrfId goes to
// every next hop. False with *err = "NAME:LINE: what is wrong" at the first bad line.
bool parseRouteFile(std::istream &in, const std::string &name, uint16_t defPref, int32_t defMetric,
                    uint32_t vrfId, RouteFile *out, std::string *err);

// Distinct prefixes of one family, one per next().
class PrefixGen {
 public:
  // False with *err when count exceeds the family's prefix space.
  bool init(bool ipv6, bool sequential, uint64_t count, uint32_t seed, std::string *err);
  // Writes the next prefix (16 bytes, family width used) and its length. False after count.
  bool next(uint8_t *prefix, uint8_t *prefixLen);
  uint8_t afIndex() const { return ipv6_ ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX; }

  // Prefixes each family can give.
  static uint64_t capacity(bool ipv6);

 private:
  bool ipv6_ = false, sequential_ = false;
  uint64_t left_ = 0;
  uint64_t state_ = 0;
};

// The k next hops the generator gives every route: 198.51.100.1.. or 3fff::1.. in vrfId.
std::vector<rtmclient::NextHop> generatedNextHops(bool ipv6, unsigned k, uint32_t vrfId);

}  // namespace rtmfeed
