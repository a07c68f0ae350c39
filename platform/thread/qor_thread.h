// The cooperative thread group: the daemon's main task and its workers.
//
// Every member is a real OS thread, but only the holder of the group's baton runs. The baton
// changes hands only at qorThreadYield, qorThreadSuspendSelf and around the main task's select
// (qorThreadRunConcurrentStart/End), so the tables need no locks: between two of those calls a
// member sees the world exactly as it left it.
//
// Scheduling, precisely:
//  - Members form a ring in creation order, the main thread first. A yield hands the baton to
//    the next runnable member after the caller; every member passes it on the same way, so the
//    caller gets it back after each other runnable member had one turn (a member resumed during
//    the round joins it if its place in the ring is still ahead).
//  - qorThreadRunConcurrentStart takes the main thread out of the ring and hands the baton to the
//    next runnable worker before it returns (or leaves it idle when none is runnable). Workers
//    then pass it among themselves; a worker resumed while the baton is idle gets it at once.
//  - qorThreadRunConcurrentEnd puts the main thread back with priority: the running worker's next
//    yield or suspend hands the baton straight to main, and the call returns once main holds it.
//    So the first runnable worker after main always has a whole turn during a stretch; whether
//    the others get one depends on how long the select took.
//  - qorThreadResume never switches; the resumed member runs at its next turn.
//
// Teardown (tests): qorThreadGroupDestroy hands the baton to each worker in turn with the stop
// flag raised; its pending switch point throws QorThreadStop, which unwinds the worker's stack
// to the top of the thread. Entries that catch everything must rethrow QorThreadStop, and no
// switch point may be called from a noexcept frame. This is the only exception the group
// raises; every other call reports through its result.
#pragma once

#include <cstdint>

// Handle of a group: > 0, or -1 when qorThreadInit fails.
using QorThreadGroup = int;
using QorThreadEntry = void (*)(void *arg);

// The id qorThreadInit gives the main thread. Worker ids are chosen by the caller and must be
// positive and different from it.
constexpr int QOR_THREAD_MAIN_ID = 1;

// Thrown at a worker's switch point when its group is being destroyed. Do not swallow it.
struct QorThreadStop {};

// Makes a group whose main thread is the caller (which must not belong to another group).
// `*mainId` receives QOR_THREAD_MAIN_ID. Returns the handle, or -1.
QorThreadGroup qorThreadInit(int *mainId, uint32_t evkey);

// Adds worker `id` named `name` that will run entry(arg) at its first turn. `inst`, `stackSize`
// and `options` are accepted for the callers' sake: stacks are the OS default, which is larger
// than anything the daemon asks for. Returns 0, or -1 (bad group, id taken or not positive,
// null entry, group being destroyed, thread could not be started).
int qorThreadTmeCreate(int id, int inst, QorThreadGroup group, const char *name, QorThreadEntry entry,
                       void *arg, uint32_t stackSize, int options);

// Lets every other runnable member take one turn, then returns. Returns how many turns others
// took meanwhile (0: nobody else was runnable and the caller went on at once), or -1 when the
// caller is not the running member of `group`.
int qorThreadYield(QorThreadGroup group);

// The caller stops being runnable and passes the baton on; returns 0 when it has been resumed and
// its turn came, -1 when the caller is not the running member of `group`.
int qorThreadSuspendSelf(QorThreadGroup group);

// Marks a suspended member runnable. No switch happens in the call; any thread may call it.
// Returns 0 (also when the member was already runnable), -1 for an unknown group or id.
int qorThreadResume(QorThreadGroup group, int id);

// 1 when the member is suspended or has left the group (it will not run until resumed),
// 0 when it is runnable or running, -1 for an unknown group or id (also non-zero, so a loop
// waiting for a member to rest cannot spin forever on a bad id).
int qorThreadIsSuspended(QorThreadGroup group, int id);

// The main thread lets go of the baton before a blocking call. Returns 0, or -1 when the caller
// is not the group's main thread holding the baton.
int qorThreadRunConcurrentStart(QorThreadGroup group);
// The main thread takes the baton back, waiting for the running worker's next switch point.
// `id` is the main thread's id. Returns 0, or -1 on a bad group, id or caller.
int qorThreadRunConcurrentEnd(QorThreadGroup group, int id);

// Id of the member on the calling thread (0 when the caller belongs to no group).
int qorThreadSelfId();
// Id of the member holding the baton of `group`, 0 when nobody does (an idle concurrent
// stretch), -1 for an unknown group.
int qorThreadRunningId(QorThreadGroup group);

// Test support.

// The main thread yields until no other member is runnable. Returns the number of turns the
// others took, or -1 when the caller is not the running main thread. A worker that never
// suspends keeps this from returning.
long qorThreadRunUntilIdle(QorThreadGroup group);

struct QorThreadStats {
  uint64_t turns;     // times the member received the baton (its first start included)
  uint64_t yields;    // qorThreadYield calls
  uint64_t suspends;  // qorThreadSuspendSelf calls
  uint64_t resumes;   // qorThreadResume calls that woke it from suspension
};
// Counters of one member; returns 0, or -1 for an unknown group or id.
int qorThreadGetStats(QorThreadGroup group, int id, QorThreadStats *stats);
// Baton hand-offs in the group since it was made.
uint64_t qorThreadGroupSwitches(QorThreadGroup group);

// Stops and joins every worker (see the top of this file), then frees the group. Must be called
// by the group's main thread; when it is inside a concurrent stretch the stretch is ended first.
// Returns 0, or -1 on a bad group or caller.
int qorThreadGroupDestroy(QorThreadGroup group);
