// A running engine for tests: one context with its threads, no display.
// Work is put on the main thread with `onmain`, as the application does.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include "Mandelbrot.h"

namespace enginetest {

// A budget that keeps several test processes side by side on one machine.
constexpr int64_t TESTMEMORY = int64_t(1) << 30;

inline void uploadnothing(OVCONTEXT*, int, void*, void*) {}

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

// Waits, without a time limit of its own: CTest's timeout ends a hung test.
inline void waitfor(const std::function<bool()>& cond) {
  while (!cond()) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

struct Engine {
  OVCONTEXT* context;
  std::atomic<int> strings{0};

  static void countstrings(OVCONTEXT*, void* pdata) {
    static_cast<Engine*>(pdata)->strings.fetch_add(1);
  }

  // `glqueue`: a GL queue exists and the test drains it, as the frame loop
  // does; otherwise tiles stay in memory and there is no GL queue at all.
  explicit Engine(int nthread = 4, bool glqueue = false, int64_t memory = TESTMEMORY,
                  const char* tmpdirectory = "/tmp/") {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    bool ok = initcontext(context, memory, nthread, 8, 0, nullptr, nullptr, nullptr,
                          glqueue ? uploadnothing : nullptr, countstrings, this, tmpdirectory,
                          glqueue ? OVCONTEXT_NO_GLTHREAD : 0);
    EXPECT_TRUE(ok);
  }

  ~Engine() {
    freecontext(context);
    free(context);
  }

  // Runs fn on thread_main and waits for it.
  void onmain(std::function<void(OVCONTEXT*)> fn) {
    CALL call;
    call.fn = std::move(fn);
    WORKER* w = addworker(context, THREAD_MAIN, worker_call);
    ASSERT_NE(w, nullptr);
    w->pdata[0] = &call;
    dispatch(context, w);
    waitfor([&] { return call.done.load(); });
  }

  void waitidle() {
    waitfor([&] { return atomicload(&context->iworkerall) == 0; });
  }

  // One worker at every priority, run to the end: afterwards each list holds
  // its dummy and one consumed node, whatever it held before, so the node
  // count can be compared across a test.
  void sweep() {
    static std::atomic<int> swept;
    swept.store(0);
    onmain([](OVCONTEXT* c) {
      for (int p = 0; p < NWORKERPRIO; p++) {
        WORKER* w = addworker(c, THREAD_WORKER, [](OVCONTEXT* c2, WORKER* w2) {
          swept.fetch_add(1);
          freeworker(c2, w2);
        });
        w->prio = p;
        dispatch(c, w);
      }
    });
    waitfor([] { return swept.load() == NWORKERPRIO; });
    waitidle();
  }
};

}  // namespace enginetest
