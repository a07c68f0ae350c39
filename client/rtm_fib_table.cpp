#include "client/rtm_fib_table.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace rtmclient {

namespace {
constexpr size_t kHugePage = size_t(2) << 20;
}

void *fibBigAlloc(size_t bytes) {
  if (bytes < kHugePage) return ::operator new(bytes);
  const size_t rounded = (bytes + kHugePage - 1) & ~(kHugePage - 1);
  void *p = std::aligned_alloc(kHugePage, rounded);
  if (!p) throw std::bad_alloc();
  // Advice only: where huge pages are off or short the arrays work on small ones.
  madvise(p, rounded, MADV_HUGEPAGE);
  return p;
}

void fibBigFree(void *p, size_t bytes) {
  if (bytes < kHugePage)
    ::operator delete(p);
  else
    std::free(p);
}

uint32_t FibTable::hashOf(const FibPrefix &p) {
  // Multiply-xorshift over the key's words: /24s that differ in one byte land far apart.
  uint64_t h = (uint64_t(p.vrfId) << 16 | uint64_t(p.afIndex) << 8 | p.len) * 0x9E3779B97F4A7C15ull;
  const unsigned words = rtmAfAddrLen(p.afIndex) / 4;
  for (unsigned i = 0; i < words; ++i) {
    uint32_t w;
    memcpy(&w, p.addr + 4 * i, 4);
    h = (h ^ w) * 0xC2B2AE3D27D4EB4Full;
    h ^= h >> 29;
  }
  return static_cast<uint32_t>(h ^ (h >> 32));
}

size_t FibTable::slotOf(const FibPrefix &p, uint32_t h) const {
  const size_t mask = slots_.size() - 1;
  for (size_t i = h & mask;; i = (i + 1) & mask) {
    const Slot &s = slots_[i];
    if (s.pos == 0 || (s.hash == h && keys_[s.pos - 1] == p)) return i;
  }
}

size_t FibTable::lookup(const FibPrefix &p) const {
  if (slots_.empty()) return kNone;
  const Slot &s = slots_[slotOf(p, hashOf(p))];
  return s.pos ? s.pos - 1 : kNone;
}

void FibTable::insertSlot(uint32_t h, uint32_t pos) {
  const size_t mask = slots_.size() - 1;
  size_t i = h & mask;
  while (slots_[i].pos) i = (i + 1) & mask;
  slots_[i] = {h, pos + 1};
}

void FibTable::reserve(size_t n) {
  size_t cap = slots_.empty() ? 16 : slots_.size();
  while (cap * 3 < (n + 1) * 4) cap *= 2;
  if (n > keys_.capacity()) {
    // Touched now, at start-up, rather than page by page under the first download.
    const size_t have = keys_.size();
    keys_.resize(n);
    vals_.resize(n);
    keys_.resize(have);
    vals_.resize(have);
  }
  if (cap == slots_.size()) return;
  slots_.assign(cap, Slot{0, 0});
  for (size_t i = 0; i < keys_.size(); ++i) insertSlot(vals_[i].hash, static_cast<uint32_t>(i));
}

void FibTable::grow() { reserve(slots_.empty() ? 12 : slots_.size() * 3 / 2 + 1); }

void FibTable::prefetchSlot(uint32_t h) const {
  if (!slots_.empty()) __builtin_prefetch(&slots_[h & (slots_.size() - 1)], 1);
}

void FibTable::prefetchEntry(uint32_t h) const {
  if (slots_.empty()) return;
  const Slot &s = slots_[h & (slots_.size() - 1)];
  if (s.pos == 0 || s.hash != h) return;
  __builtin_prefetch(&keys_[s.pos - 1]);
  __builtin_prefetch(&vals_[s.pos - 1], 1);
}

bool FibTable::put(const FibPrefix &p, uint32_t proto, uint32_t metric, uint32_t marker, bool weighted,
                   const FibNextHop *nh, unsigned nnh, const uint8_t *tlv, unsigned tlvlen) {
  return put(p, hashOf(p), proto, metric, marker, weighted, nh, nnh, tlv, tlvlen);
}

bool FibTable::put(const FibPrefix &p, uint32_t h, uint32_t proto, uint32_t metric, uint32_t marker, bool weighted,
                   const FibNextHop *nh, unsigned nnh, const uint8_t *tlv, unsigned tlvlen) {
  if ((keys_.size() + 1) * 4 > slots_.size() * 3) grow();
  const size_t s = slotOf(p, h);
  const bool fresh = slots_[s].pos == 0;
  if (fresh) {
    keys_.push_back(p);
    vals_.emplace_back();
    slots_[s] = {h, static_cast<uint32_t>(keys_.size())};
  }
  Entry &e = vals_[slots_[s].pos - 1];
  e.hash = h;
  e.proto = proto;
  e.metric = metric;
  e.marker = marker;
  e.weighted = weighted;
  e.nnh = static_cast<uint8_t>(nnh);
  e.tlvlen = static_cast<uint16_t>(tlvlen);
  e.nh0 = nnh ? nh[0] : FibNextHop{};
  const size_t more = (nnh > 1 ? (nnh - 1) * sizeof(FibNextHop) : 0) + tlvlen;
  e.extra.reset(more ? new uint8_t[more] : nullptr);
  if (nnh > 1) memcpy(e.extra.get(), nh + 1, (nnh - 1) * sizeof(FibNextHop));
  if (tlvlen) memcpy(e.extra.get() + (nnh > 1 ? (nnh - 1) * sizeof(FibNextHop) : 0), tlv, tlvlen);
  return fresh;
}

void FibTable::removeSlot(size_t s) {
  // Backward shift: each later member of the probe run whose home is not between the hole and
  // itself moves into the hole, so that no look-up stops short at an empty slot.
  const size_t mask = slots_.size() - 1;
  size_t hole = s;
  for (size_t j = (s + 1) & mask; slots_[j].pos; j = (j + 1) & mask) {
    const size_t home = slots_[j].hash & mask;
    const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
    if (stays) continue;
    slots_[hole] = slots_[j];
    hole = j;
  }
  slots_[hole] = Slot{0, 0};
}

bool FibTable::erase(const FibPrefix &p) { return erase(p, hashOf(p)); }

bool FibTable::erase(const FibPrefix &p, uint32_t h) {
  if (slots_.empty()) return false;
  const size_t s = slotOf(p, h);
  if (!slots_[s].pos) return false;
  const uint32_t pos = slots_[s].pos - 1, last = static_cast<uint32_t>(keys_.size() - 1);
  removeSlot(s);
  if (pos != last) {
    keys_[pos] = keys_[last];
    vals_[pos] = std::move(vals_[last]);
    const size_t mask = slots_.size() - 1;
    size_t i = vals_[pos].hash & mask;
    while (slots_[i].pos != last + 1) i = (i + 1) & mask;
    slots_[i].pos = pos + 1;
  }
  keys_.pop_back();
  vals_.pop_back();
  // The route now last is the one the next erase of another route moves: its slot is a cache
  // miss of its own, asked for now.
  if (!vals_.empty()) prefetchSlot(vals_.back().hash);
  return true;
}

void FibTable::eraseIf(const std::function<bool(const FibPrefix &)> &pred) {
  size_t kept = 0;
  for (size_t i = 0; i < keys_.size(); ++i) {
    if (pred(keys_[i])) continue;
    if (kept != i) {
      keys_[kept] = keys_[i];
      vals_[kept] = std::move(vals_[i]);
    }
    ++kept;
  }
  if (kept == keys_.size()) return;
  keys_.resize(kept);
  vals_.resize(kept);
  std::fill(slots_.begin(), slots_.end(), Slot{0, 0});
  for (size_t i = 0; i < kept; ++i) insertSlot(vals_[i].hash, static_cast<uint32_t>(i));
}

void FibTable::toRoute(const Entry &e, FibRoute *out) const {
  out->proto = e.proto;
  out->metric = e.metric;
  out->marker = e.marker;
  out->weighted = e.weighted;
  out->nh.clear();
  if (e.nnh) out->nh.push_back(e.nh0);
  for (unsigned i = 1; i < e.nnh; ++i) {
    FibNextHop nh;
    memcpy(&nh, e.extra.get() + (i - 1) * sizeof(FibNextHop), sizeof nh);
    out->nh.push_back(nh);
  }
  const uint8_t *tlv = e.tlvlen ? e.extra.get() + (e.nnh > 1 ? (e.nnh - 1) * sizeof(FibNextHop) : 0) : nullptr;
  out->tlv.assign(tlv, tlv + e.tlvlen);
}

bool FibTable::get(const FibPrefix &p, FibRoute *out) const {
  const size_t pos = lookup(p);
  if (pos == kNone) return false;
  toRoute(vals_[pos], out);
  return true;
}

void FibTable::forEach(const std::function<void(const FibPrefix &, const FibRoute &)> &fn) const {
  FibRoute r;
  for (size_t i = 0; i < keys_.size(); ++i) {
    toRoute(vals_[i], &r);
    fn(keys_[i], r);
  }
}

void FibTable::forEachSorted(const std::function<void(const FibPrefix &, const FibRoute &)> &fn) const {
  // Keys are sorted beside their positions, so that each route is then read straight from its
  // entry instead of being looked up again through the index.
  std::vector<std::pair<FibPrefix, uint32_t>> order;
  order.reserve(keys_.size());
  for (size_t i = 0; i < keys_.size(); ++i) order.emplace_back(keys_[i], static_cast<uint32_t>(i));
  std::sort(order.begin(), order.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
  FibRoute r;
  for (size_t i = 0; i < order.size(); ++i) {
    if (i + 8 < order.size()) __builtin_prefetch(&vals_[order[i + 8].second]);
    toRoute(vals_[order[i].second], &r);
    fn(order[i].first, r);
  }
}

}  // namespace rtmclient
