// The change list of a tree: heads in version order, and the walkers that follow it.
//
// Every change of a head appends it: it takes the tree's next version and moves to the tail.
// The list is therefore ordered by version, holds each head once at its newest version, and a
// consumer that lags behind sees each changed head once, in its latest state.
//
// A walker is a place-holder on the same list. Walking moves the place-holder past the next
// head before the callback runs, so whatever the callback does to heads (re-append, remove,
// free) the walker's place stays valid, and moving or removing a head never has to look for
// walkers that point at it. Heads appended during a walk get versions above the walk's
// ceiling (at most the tree's version at the start), so a walk always ends.
//
// When the version reaches the tree's maximum the list restarts: heads leave it, walkers go
// back to the start, versions begin again at 1, and the caller renumbers by appending its heads
// again. Each restart bumps rdl_epoch, which ends any walk under way.
#include <cstdint>

#include "log/qor_log.h"
#include "radix/qor_radix.h"
#include "radix/qor_radix_list.h"

using namespace qor_radix_detail;

namespace {

bool registeredOn(const qor_radix_tree *t, const qor_radical_walker *w) {
  return isWalker(&w->wk_place) && w->wk_place.rtmh_version == t->rdl_serial &&
         listNext(&w->wk_place) != nullptr;
}

// The first head after e, passing over walkers; the anchor when there is none.
inline qor_radix_hdr *nextHead(qor_radix_hdr *e) {
  e = listNext(e);
  while (isWalker(e)) e = listNext(e);
  return e;
}

void restartList(qor_radix_tree *t) {
  qor_radix_hdr *anchor = &t->rdl_anchor;
  qor_radix_hdr *e = listNext(anchor);
  listInit(anchor);
  while (e != anchor) {
    qor_radix_hdr *nx = listNext(e);
    if (isWalker(e)) {
      // wk_place is the first member: the place-holder is the walker.
      reinterpret_cast<qor_radical_walker *>(e)->walker_version = 0;
      listInsertAfter(anchor->rdl_prev, e);
    } else {
      qorRadixSetListNext(e, nullptr);
      e->rdl_prev = nullptr;
      e->rtmh_version = 0;
    }
    e = nx;
  }
  t->rdx_version = 0;
  ++t->rdl_epoch;
}

struct WalkOutcome {
  int visited = 0;
  int cbResult = 0;
  int stopped = 0;
};

WalkOutcome walkList(qor_radix_tree *t, qor_radical_walker *w, QorRadixWalkCB cb, uint32_t limit,
                     uint64_t maxVersion, void *arg) {
  WalkOutcome out;
  const uint64_t ceiling = maxVersion < t->rdx_version ? maxVersion : t->rdx_version;
  const uint64_t epoch = t->rdl_epoch;
  qor_radix_hdr *anchor = &t->rdl_anchor;
  qor_radix_hdr *place = &w->wk_place;
  for (;;) {
    qor_radix_hdr *e = nextHead(place);
    if (e == anchor || e->rtmh_version > ceiling) {
      if (w->walker_version < ceiling) w->walker_version = ceiling;
      break;
    }
    if (uint32_t(out.visited) >= limit) {
      out.stopped = 1;
      break;
    }
    listUnlink(place);
    listInsertAfter(e, place);
    w->walker_version = e->rtmh_version;
    ++out.visited;
    if (int r = cb(e, arg)) {
      out.cbResult = r;
      out.stopped = 1;
      break;
    }
    // A restart of the list, or the walker taken off it by the callback, ends the walk.
    if (t->rdl_epoch != epoch || !listNext(place)) {
      out.stopped = 1;
      break;
    }
  }
  return out;
}

}  // namespace

int qorRadicalAppendToChangeList(qor_radix_tree *tree, qor_radix_hdr *head) {
  if (!tree || !head || isWalker(head) || head == &tree->rdl_anchor) {
    QOR_ASSERT(tree && head && !isWalker(head));
    return 1;
  }
  int result = 1;
  if (tree->rdx_version >= tree->rdx_maxVersion) {
    restartList(tree);
    result = 0;
  }
  qor_radix_hdr *anchor = &tree->rdl_anchor;
  head->rtmh_version = ++tree->rdx_version;
  if (anchor->rdl_prev != head) {  // already last: only the version moves
    if (listNext(head)) listUnlink(head);
    listInsertAfter(anchor->rdl_prev, head);
  }
  return result;
}

int qorRadicalRemoveFromChangeList(qor_radix_tree *tree, qor_radix_hdr *head) {
  if (!tree || !head || isWalker(head) || !listNext(head)) return 1;
  listUnlink(head);
  return 0;
}

int qorRadicalWalkConstructor(qor_radix_tree *tree, qor_radical_walker *walker) {
  if (!tree || !walker) return 1;
  if (registeredOn(tree, walker)) {
    listUnlink(&walker->wk_place);
  } else {
    ++tree->rdl_walkers;
  }
  qorRadixSetFlags(&walker->wk_place, QOR_RADIX_MARK);
  qorRadixSetKey(&walker->wk_place, nullptr);
  walker->wk_place.rtmh_version = tree->rdl_serial;  // which tree the place-holder is on
  walker->walker_version = 0;
  listInsertAfter(&tree->rdl_anchor, &walker->wk_place);
  return 0;
}

int qorRadicalWalkDestructor(qor_radix_tree *tree, qor_radical_walker *walker) {
  if (!tree || !walker) return 1;
  if (!registeredOn(tree, walker)) return 1;
  listUnlink(&walker->wk_place);
  qorRadixSetFlags(&walker->wk_place, 0);
  walker->wk_place.rtmh_version = 0;
  --tree->rdl_walkers;
  return 0;
}

uint64_t qorRadicalNextVersion(qor_radix_tree *tree, const qor_radical_walker *walker) {
  if (!tree || !walker || !registeredOn(tree, walker)) return 0;
  qor_radix_hdr *e = nextHead(const_cast<qor_radix_hdr *>(&walker->wk_place));
  return e == &tree->rdl_anchor ? 0 : e->rtmh_version;
}

int qorRadicalWalkChangeList(qor_radix_tree *tree, qor_radical_walker *walker, QorRadixWalkCB cb,
                             int reserved, uint32_t limit, uint64_t maxVersion, void *threadSet,
                             int *stopped, void *arg) {
  if (!tree || !walker || !cb || !registeredOn(tree, walker)) return -1;
  WalkOutcome out = walkList(tree, walker, cb, limit, maxVersion, arg);
  if (stopped) *stopped = out.stopped;
  return out.visited;
}

int qorRadicalWalkChangeList(qor_radix_tree *tree, qor_radical_walker *walker, QorRadixWalkCB cb,
                             uint32_t limit, void *arg) {
  return qorRadicalWalkChangeList(tree, walker, cb, 0, limit, UINT64_MAX, nullptr, nullptr, arg);
}

int qorRadixVersionWalk(qor_radix_tree *tree, uint64_t fromVersion, QorRadixWalkCB cb, void *arg) {
  if (!tree || !cb) return -1;
  // A private walker placed behind the last head at or below fromVersion; the newest heads are
  // at the tail, so the search costs what the walk will visit.
  qor_radical_walker w{};
  qorRadicalWalkConstructor(tree, &w);
  listUnlink(&w.wk_place);
  qor_radix_hdr *anchor = &tree->rdl_anchor;
  qor_radix_hdr *pos = anchor->rdl_prev;
  while (pos != anchor && (isWalker(pos) || pos->rtmh_version > fromVersion)) pos = pos->rdl_prev;
  listInsertAfter(pos, &w.wk_place);
  w.walker_version = fromVersion;
  WalkOutcome out = walkList(tree, &w, cb, UINT32_MAX, UINT64_MAX, arg);
  // The callback may have restarted the list, which keeps our place-holder on it.
  qorRadicalWalkDestructor(tree, &w);
  return out.cbResult;
}
