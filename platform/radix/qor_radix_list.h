// Private to the radix library: the change list's link operations, shared by the tree (a head
// leaves the list when it leaves the tree) and by the change list itself.
//
// The list is circular through the tree's anchor, so a head is on a list exactly when its
// rdl_next is not null and unlinking needs no special cases. Walkers sit on the list as
// place-holders; what tells one from a head is the node flag QOR_RADIX_MARK, which a head
// never has.
#pragma once

#include "radix/qor_radix.h"

namespace qor_radix_detail {

inline bool isWalker(const qor_radix_hdr *e) { return e->rn_flags & QOR_RADIX_MARK; }

inline void listUnlink(qor_radix_hdr *e) {
  e->rdl_link.rdl_next->rdl_link.rdl_prev = e->rdl_link.rdl_prev;
  e->rdl_link.rdl_prev->rdl_link.rdl_next = e->rdl_link.rdl_next;
  e->rdl_link.rdl_next = nullptr;
  e->rdl_link.rdl_prev = nullptr;
}

inline void listInsertAfter(qor_radix_hdr *pos, qor_radix_hdr *e) {
  qor_radix_hdr *nx = pos->rdl_link.rdl_next;
  e->rdl_link.rdl_prev = pos;
  e->rdl_link.rdl_next = nx;
  nx->rdl_link.rdl_prev = e;
  pos->rdl_link.rdl_next = e;
}

inline void listInit(qor_radix_hdr *anchor) {
  anchor->rn_flags = 0;
  anchor->rtmh_key = nullptr;
  anchor->rtmh_version = 0;
  anchor->rdl_link.rdl_next = anchor;
  anchor->rdl_link.rdl_prev = anchor;
}

}  // namespace qor_radix_detail
