#include "maincall.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace {

struct MAINCALL {
  const std::function<void(OVCONTEXT*)>* fn;
  std::atomic<bool> done{false};
};

void worker_maincall(OVCONTEXT* context, WORKER* worker) {
  MAINCALL* call = static_cast<MAINCALL*>(worker->pdata[0]);
  (*call->fn)(context);
  freeworker(context, worker);
  call->done.store(true);
}

}  // namespace

bool runonmain(OVCONTEXT* context, const std::function<void(OVCONTEXT*)>& fn) {
  MAINCALL call;
  call.fn = &fn;
  WORKER* w = addworker(context, THREAD_MAIN, worker_maincall);
  if (!w) return false;
  w->pdata[0] = &call;
  dispatch(context, w);
  while (!call.done.load()) std::this_thread::sleep_for(std::chrono::microseconds(200));
  return true;
}
