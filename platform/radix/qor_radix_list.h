// Private to the radix library: the change list's link operations, shared by the tree (a head
// leaves the list when it leaves the tree) and by the change list itself.
//
// The list is circular through the tree's anchor, so a head is on a list exactly when its
// next link is not null and unlinking needs no special cases. Walkers sit on the list as
// place-holders; what tells one from a head is the node flag QOR_RADIX_MARK, which a head
// never has.
#pragma once

#include "radix/qor_radix.h"

namespace qor_radix_detail {

inline bool isWalker(const qor_radix_hdr *e) { return qorRadixFlags(e) & QOR_RADIX_MARK; }

inline qor_radix_hdr *listNext(const qor_radix_hdr *e) { return qorRadixListNext(e); }
inline bool onList(const qor_radix_hdr *e) { return qorRadixListNext(e) != nullptr; }

inline void listUnlink(qor_radix_hdr *e) {
  listNext(e)->rdl_prev = e->rdl_prev;
  qorRadixSetListNext(e->rdl_prev, listNext(e));
  qorRadixSetListNext(e, nullptr);
  e->rdl_prev = nullptr;
}

inline void listInsertAfter(qor_radix_hdr *pos, qor_radix_hdr *e) {
  qor_radix_hdr *nx = listNext(pos);
  e->rdl_prev = pos;
  qorRadixSetListNext(e, nx);
  nx->rdl_prev = e;
  qorRadixSetListNext(pos, e);
}

// A list end or a walker's place-holder: a header with no key, no flags, no node.
inline void listInit(qor_radix_hdr *anchor) {
  *anchor = qor_radix_hdr{};
  qorRadixSetListNext(anchor, anchor);
  anchor->rdl_prev = anchor;
}

}  // namespace qor_radix_detail
