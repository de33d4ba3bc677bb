// What the engine benchmarks share: a call run on the engine's main thread,
// and the engine's thread count, one worker lent to a graph beside the main
// thread unless ORVANTA_BENCH_THREADS says otherwise.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include "Mandelbrot.h"

namespace benchengine {

struct CALL {
  std::function<void(OVCONTEXT*)> fn;
  std::atomic<bool> done{false};
};

inline void worker_call(OVCONTEXT* context, WORKER* worker) {
  CALL* call = static_cast<CALL*>(worker->pdata[0]);
  call->fn(context);
  freeworker(context, worker);
  call->done.store(true);
}

// Sleeps while it waits: a yielding loop would take a core from the
// engine's spinning threads.
inline void onmain(OVCONTEXT* context, std::function<void(OVCONTEXT*)> fn) {
  CALL call;
  call.fn = std::move(fn);
  WORKER* w = addworker(context, THREAD_MAIN, worker_call);
  w->pdata[0] = &call;
  dispatch(context, w);
  while (!call.done.load()) std::this_thread::sleep_for(std::chrono::microseconds(100));
}

// Six threads by default: main, GL, helper and three workers, of which one
// is lent to a running graph, so that two threads serve it.
inline int enginethreads() {
  const char* s = getenv("ORVANTA_BENCH_THREADS");
  int n = s ? atoi(s) : 6;
  return n >= 4 && n <= 64 ? n : 6;
}

}  // namespace benchengine
