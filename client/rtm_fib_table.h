// The FIB agent's table: prefix -> route, for a million routes per agent and several agents on
// one machine. Not part of the library's interface.
//
// A node-based map costs an allocation per route (two, with the next-hop vector) and a cache
// miss per hop of its chains; at a million routes that was most of an agent's time. Here the
// routes lie in two dense arrays (keys, entries) and an open-addressed index of 8-byte slots
// (hash, position + 1) finds them with linear probing: a look-up touches one or two slots and
// then the key it names. A route of one next hop and no TLV lives entirely in its entry; more
// next hops and the TLV go to one block of its own. Erasing shifts the probe run back (no
// tombstones) and moves the last route into the hole, so the arrays stay dense.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "client/rtm_client_lib.h"

namespace rtmclient {

// The allocator of the table's arrays: one of at least 2 MB is aligned to and asks for huge
// pages. At a million routes the index alone spans thousands of small pages, so nearly every
// look-up missed the TLB as well as the cache, and filling the arrays took a page fault per
// 4 KB; both cost several times more under a hypervisor.
void *fibBigAlloc(size_t bytes);
void fibBigFree(void *p, size_t bytes);

template <class T>
struct FibBigAllocator {
  using value_type = T;
  FibBigAllocator() = default;
  template <class U>
  FibBigAllocator(const FibBigAllocator<U> &) {}
  T *allocate(size_t n) { return static_cast<T *>(fibBigAlloc(n * sizeof(T))); }
  void deallocate(T *p, size_t n) { fibBigFree(p, n * sizeof(T)); }
  template <class U>
  bool operator==(const FibBigAllocator<U> &) const {
    return true;
  }
};

class FibTable {
 public:
  // Puts the route in place whole, replacing what the prefix had. Returns true if it was new.
  bool put(const FibPrefix &p, uint32_t proto, uint32_t metric, uint32_t marker, bool weighted,
           const FibNextHop *nh, unsigned nnh, const uint8_t *tlv, unsigned tlvlen);
  bool erase(const FibPrefix &p);
  // The same with the prefix's hashOf already known. A caller holding a batch of prefixes
  // hashes them first and prefetches a few ahead, so that the index's cache misses, one per
  // route in a table of a million, overlap instead of coming one after the other.
  bool put(const FibPrefix &p, uint32_t h, uint32_t proto, uint32_t metric, uint32_t marker, bool weighted,
           const FibNextHop *nh, unsigned nnh, const uint8_t *tlv, unsigned tlvlen);
  bool erase(const FibPrefix &p, uint32_t h);
  // Asks for the index slot where a look-up of hash h starts.
  void prefetchSlot(uint32_t h) const;
  // Asks for the key and entry that slot names, if it names one of hash h: what a replace or
  // a delete reads next. Meant for a slot prefetched a little earlier.
  void prefetchEntry(uint32_t h) const;
  bool contains(const FibPrefix &p) const { return lookup(p) != kNone; }
  bool get(const FibPrefix &p, FibRoute *out) const;
  size_t size() const { return keys_.size(); }
  // Removes every route the predicate holds for.
  void eraseIf(const std::function<bool(const FibPrefix &)> &pred);
  void forEach(const std::function<void(const FibPrefix &, const FibRoute &)> &fn) const;
  // The same in prefix order.
  void forEachSorted(const std::function<void(const FibPrefix &, const FibRoute &)> &fn) const;
  void reserve(size_t n);

  static uint32_t hashOf(const FibPrefix &p);

 private:
  struct Slot {
    uint32_t hash;
    uint32_t pos;  // position in the dense arrays + 1; 0 for an empty slot
  };
  struct Entry {
    uint32_t proto = 0, metric = 0, marker = 0;
    bool weighted = false;
    uint8_t nnh = 0;
    uint16_t tlvlen = 0;
    FibNextHop nh0;
    uint32_t hash = 0;  // the key's, kept in what was padding: a move re-finds its slot without the key
    std::unique_ptr<uint8_t[]> extra;  // next hops 1.. as FibNextHop records, then the TLV
  };
  static constexpr size_t kNone = SIZE_MAX;

  size_t lookup(const FibPrefix &p) const;  // dense position, or kNone
  size_t slotOf(const FibPrefix &p, uint32_t h) const;
  void grow();
  void insertSlot(uint32_t h, uint32_t pos);
  void removeSlot(size_t s);
  void toRoute(const Entry &e, FibRoute *out) const;

  std::vector<Slot, FibBigAllocator<Slot>> slots_;  // a power of two, at most 3/4 full
  std::vector<FibPrefix, FibBigAllocator<FibPrefix>> keys_;
  std::vector<Entry, FibBigAllocator<Entry>> vals_;
};

}  // namespace rtmclient
