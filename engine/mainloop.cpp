// The engine's main thread, the idle hand-out, and `run`, the same loop
// unrolled for shutdown, when no other thread remains.
//
// `thread_main` has no timer: it sleeps in waitfortodo, and between messages
// publishes the status text and draws when 300 ms have passed or when the
// whole system has fallen quiet, so a burst of messages cannot starve the
// display and a finished calculation is shown at once.
#include <sys/time.h>

#include <cstddef>
#include <cstdio>

#include "Mandelbrot.h"

namespace {

constexpr int ONMAINWORKER = offsetof(WORKER, nextonmainworker);
constexpr int ONMAINHELPER = offsetof(WORKER, nextonmainhelper);
constexpr int ONGLWORKER = offsetof(WORKER, nextonglworker);
constexpr long RENDERPERIOD = 300;  // ms between status texts and draws while busy

long nowms() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

// Every worker thread asleep, nothing queued for the main or GL side, and no
// dataflow computer alive.
bool quiet(OVCONTEXT* context) {
  return atomicload(&context->grworker.ithreadscorrect) == 0 &&
         atomicload(&context->grmain.todo) == 0 && atomicload(&context->grworkergl.todo) == 0 &&
         atomicload(&context->computertotalwidth) == 0;
}

// The status text of every active viewport, then the application's callback.
void publishstrings(OVCONTEXT* context) {
  composeallstrings(context);
  if (context->stringscallback) context->stringscallback(context, context->glthreadpdata);
}

WORKER* takefrom(FIFO* queue, int offset) {
  return static_cast<WORKER*>(atomicfifodequeue(queue, offset));
}

// Counts one claimed item of a group down; false when there is none.
bool claim(THREADGROUP* group) {
  for (;;) {
    int t = atomicload(&group->todo);
    if (t == 0) return false;
    if (atomiccompareandswapint(t, t - 1, &group->todo)) return true;
  }
}

bool drainfifo(OVCONTEXT* context, THREADGROUP* group, FIFO* queue, int offset) {
  bool done = false;
  while (claim(group)) {
    WORKER* worker = takefrom(queue, offset);
    worker->workerproc(context, worker);
    done = true;
  }
  return done;
}

bool drainpriotable(OVCONTEXT* context) {
  bool done = false;
  while (claim(&context->grworker)) {
    WORKER* worker = getworkermainworker(context);
    worker->canvas = context->threadcontext[3].canvas;
    worker->workerproc(context, worker);
    done = true;
  }
  return done;
}

}  // namespace

bool idleonce(OVCONTEXT* context);
void idlejuliacorrect(OVCONTEXT* context);

void worker_nop(OVCONTEXT* context, WORKER* worker) { freeworker(context, worker); }

// Hands out one idle worker; true if there was one.
bool idleonce(OVCONTEXT* context) {
  if (context->idleworkermaxprio == -1) return false;
  int slot = context->idleworkermaxprio;
  while (slot < NWORKERPRIO && !context->idleworker[slot]) slot++;
  if (slot == NWORKERPRIO) {
    context->idleworkermaxprio = -1;
    return false;
  }
  WORKER* worker = context->idleworker[slot];
  context->idleworker[slot] = worker->nextother;
  dispatch(context, worker);
  return true;
}

// Corrections wait for a quiet moment; a program that is still not empty
// asks for another turn.
void idlejuliacorrect(OVCONTEXT* context) {
  if (context->ijuliacachepp == 0) return;
  finishjuliacorrect(context);
  if (context->ijuliacachepp == 0) return;
  if (WORKER* nop = addworker(context, THREAD_MAIN, worker_nop)) dispatch(context, nop);
}

void idle(OVCONTEXT* context) {
  idleonce(context);
  idlejuliacorrect(context);
}

void* thread_main(void* ctxt) {
  THREADCONTEXT* tc = static_cast<THREADCONTEXT*>(ctxt);
  OVCONTEXT* context = tc->context;
  long t0 = nowms();
  while (waitfortodo(context, &context->grmain, 0)) {
    WORKER* worker = takefrom(&context->wmain, ONMAINWORKER);
    worker->workerproc(context, worker);
    long t = nowms();
    if (t - t0 > RENDERPERIOD) setcontextflag(context, OVCONTEXT_DORENDER);
    bool pending = atomicload(&context->grmain.todo) != 0;
    if (pending && !hascontextflag(context, OVCONTEXT_DORENDER)) continue;  // messages first
    if (!pending) idle(context);
    t = nowms();
    if (quiet(context)) setcontextflag(context, OVCONTEXT_DORENDER);
    if (!(t - t0 > RENDERPERIOD) && !hascontextflag(context, OVCONTEXT_DORENDER)) continue;
    clearcontextflag(context, OVCONTEXT_DORENDER);
    publishstrings(context);
    t0 = t;
    if (hascontextflag(context, OVCONTEXT_DIRTY)) {
      clearcontextflag(context, OVCONTEXT_DIRTY);
      drawdirty(context);
    }
  }
  pthread_exit(nullptr);
}

void run(OVCONTEXT* context) {
  for (;;) {
    bool done = servecomputers(context);
    done |= drainfifo(context, &context->grmain, &context->wmain, ONMAINWORKER);
    done |= drainfifo(context, &context->grmainhelper, &context->wmainhelper, ONMAINHELPER);
    done |= drainfifo(context, &context->grworkergl, &context->wworkergl, ONGLWORKER);
    done |= drainpriotable(context);
    // An idle worker handed out here is work too: a worker is never left
    // unrun at the end.
    done |= idleonce(context);
    idlejuliacorrect(context);
    if (hascontextflag(context, OVCONTEXT_DORENDER)) {
      clearcontextflag(context, OVCONTEXT_DORENDER);
      publishstrings(context);
      // The flag stays: nothing after this late stage depends on it.
      if (hascontextflag(context, OVCONTEXT_DIRTY)) drawdirty(context);
    }
    if (!done) return;
  }
}
