// What a baton hand-off costs: the main task and the download thread switch at every batch.
#include <benchmark/benchmark.h>

#include "thread/qor_thread.h"

namespace {

void yielder(void *p) {
  QorThreadGroup g = *static_cast<QorThreadGroup *>(p);
  for (;;) qorThreadYield(g);
}

// Main -> worker -> main: two hand-offs per iteration.
void BM_YieldRoundTrip(benchmark::State &state) {
  QorThreadGroup g = qorThreadInit(nullptr, 0);
  qorThreadTmeCreate(80, 0, g, "rtmRteDn", yielder, &g, 16000, 0);
  for (auto _ : state) benchmark::DoNotOptimize(qorThreadYield(g));
  qorThreadGroupDestroy(g);
}
BENCHMARK(BM_YieldRoundTrip)->UseRealTime();

// A round through all seven workers of the daemon: eight hand-offs per iteration.
void BM_YieldRoundSevenWorkers(benchmark::State &state) {
  QorThreadGroup g = qorThreadInit(nullptr, 0);
  for (int id : {77, 78, 80, 79, 125, 163, 338}) qorThreadTmeCreate(id, 0, g, "w", yielder, &g, 16000, 0);
  for (auto _ : state) benchmark::DoNotOptimize(qorThreadYield(g));
  qorThreadGroupDestroy(g);
}
BENCHMARK(BM_YieldRoundSevenWorkers)->UseRealTime();

// The main loop's select bracket with a worker that rests: no hand-off at all.
void BM_ConcurrentStretchIdle(benchmark::State &state) {
  QorThreadGroup g = qorThreadInit(nullptr, 0);
  for (auto _ : state) {
    qorThreadRunConcurrentStart(g);
    qorThreadRunConcurrentEnd(g, QOR_THREAD_MAIN_ID);
  }
  qorThreadGroupDestroy(g);
}
BENCHMARK(BM_ConcurrentStretchIdle)->UseRealTime();

// Resume a worker that suspends again at once, then yield to it: the download thread's pattern.
void parker(void *p) {
  QorThreadGroup g = *static_cast<QorThreadGroup *>(p);
  for (;;) qorThreadSuspendSelf(g);
}
void BM_ResumeAndYield(benchmark::State &state) {
  QorThreadGroup g = qorThreadInit(nullptr, 0);
  qorThreadTmeCreate(80, 0, g, "rtmRteDn", parker, &g, 16000, 0);
  for (auto _ : state) {
    qorThreadResume(g, 80);
    benchmark::DoNotOptimize(qorThreadYield(g));
  }
  qorThreadGroupDestroy(g);
}
BENCHMARK(BM_ResumeAndYield)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
