// Messages through the engine: the priority table on one thread, a trip to
// the main thread and back, and full trips main -> worker thread -> main.
//
// Every pthread_mutex_lock of the process is counted (the function is
// interposed here), and each benchmark reports the locks per message: the
// message path takes one only where a sleeping thread must be woken.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <atomic>
#include <cstdlib>

#include "Mandelbrot.h"

namespace {

std::atomic<long> mutexlocks{0};

}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) {
  typedef int (*LOCK)(pthread_mutex_t*);
  static LOCK real = reinterpret_cast<LOCK>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  mutexlocks.fetch_add(1, std::memory_order_relaxed);
  return real(mutex);
}

namespace {

void uploadnothing(OVCONTEXT*, int, void*, void*) {}

OVCONTEXT* startengine(int workerthreads) {
  OVCONTEXT* c = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
  initcontext(c, int64_t(1) << 30, 3 + workerthreads, 8, 0, nullptr, nullptr, nullptr,
              uploadnothing, nullptr, nullptr, "/tmp/", OVCONTEXT_NO_GLTHREAD);
  while (atomicload(&c->iworkerall) != 0) {
  }
  return c;
}

void stopengine(OVCONTEXT* c) {
  freecontext(c);
  free(c);
}

void worker_nothing(OVCONTEXT*, WORKER*) {}

// The calling thread stands in for the main thread: no worker thread is told
// of the work, so each filing is taken back by the same thread.
void BM_PriorityTableFileAndTake(benchmark::State& state) {
  OVCONTEXT* c = startengine(1);
  WORKER* w = addworker(c, THREAD_WORKER, worker_nothing);
  int p = 0;
  for (auto _ : state) {
    w->prio = p;
    p = (p + 37) & (NWORKERPRIO - 1);
    __dispatchprioworker(c, w);
    benchmark::DoNotOptimize(getworkermainworker(c));
  }
  state.SetItemsProcessed(state.iterations());
  freeworker(c, w);
  stopengine(c);
}

std::atomic<long> completed{0};

void worker_home(OVCONTEXT* context, WORKER* worker) {
  completed.fetch_add(1, std::memory_order_relaxed);
  freeworker(context, worker);
}

// On the GL queue, which this benchmark's thread drains as a frame loop does.
void worker_tobench(OVCONTEXT* context, WORKER* worker) {
  worker->recipient = THREAD_GLWORKER;
  worker->workerproc = worker_home;
  dispatch(context, worker);
}

void worker_workerback(OVCONTEXT* context, WORKER* worker) {
  worker->recipient = THREAD_MAIN;
  worker->workerproc = worker_tobench;
  dispatch(context, worker);
}

// Keeps `window` messages in flight, each sent by `first` and ending on this
// thread's GL queue.
void trips(benchmark::State& state, OVCONTEXT* c, WORKERPROC first, int window) {
  completed.store(0);
  long sent = 0;
  long before = mutexlocks.load();
  for (auto _ : state) {
    while (sent - completed.load(std::memory_order_relaxed) >= window) {
      while (glworker_eventloop(c, nullptr)) {
      }
    }
    WORKER* w = addworker(c, THREAD_MAIN, first);
    dispatch(c, w);
    sent++;
  }
  while (completed.load() < sent) glworker_eventloop(c, nullptr);
  state.SetItemsProcessed(state.iterations());
  state.counters["locks_per_message"] =
      static_cast<double>(mutexlocks.load() - before) / static_cast<double>(sent);
}

void BM_MainAndBack(benchmark::State& state) {
  OVCONTEXT* c = startengine(1);
  trips(state, c, worker_tobench, static_cast<int>(state.range(0)));
  stopengine(c);
}

// main -> worker thread -> main -> back here: the worker's procedure turns
// the message around to the main thread.
void worker_firstleg(OVCONTEXT* context, WORKER* worker) {
  worker->recipient = THREAD_WORKER;
  worker->workerproc = worker_workerback;
  worker->prio = 5;
  dispatch(context, worker);
}

void BM_MainWorkerMain(benchmark::State& state) {
  OVCONTEXT* c = startengine(static_cast<int>(state.range(0)));
  trips(state, c, worker_firstleg, 256);
  stopengine(c);
}

}  // namespace

BENCHMARK(BM_PriorityTableFileAndTake);
BENCHMARK(BM_MainAndBack)->Arg(1)->Arg(64)->UseRealTime();
BENCHMARK(BM_MainWorkerMain)->Arg(1)->Arg(2)->UseRealTime();
