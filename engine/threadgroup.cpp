// Thread groups: counting work, waking and sleeping, the computing role of
// worker threads, and the procedures of the server threads.
//
// A group's mutex and condition serve only sleep and wake-up, and the only
// thing checked under the mutex is `todo`, so a thread cannot miss a wake-up
// between its check and its wait. A sender counts the thread it wakes at
// once (`ithreads`), so a burst of senders wakes one thread per item.
#include <cstddef>
#include <cstdio>

#include "Mandelbrot.h"

namespace {

constexpr int ONGLWORKER = offsetof(WORKER, nextonglworker);
constexpr int ONMAINHELPER = offsetof(WORKER, nextonmainhelper);

void wakeone(THREADGROUP* group) {
  pthread_mutex_lock(&group->mutex);
  atomicincrementint(&group->ithreads);
  pthread_cond_signal(&group->cond);
  pthread_mutex_unlock(&group->mutex);
}

// The role of a worker thread while dataflow computers live: a thread that
// isn't computing always joins, even against a negative difference, and a
// later pass of a computing thread lets it go again. False when the
// compare-and-swap lost and the caller must start over.
bool changerole(THREADGROUP* group, int thread) {
  int d = atomicload(&group->icomputingthreadsdiff);
  if (thread == 0 || d == 0) return true;
  if (!group->computing[thread]) {
    if (!atomiccompareandswapint(d, d - 1, &group->icomputingthreadsdiff)) return false;
    group->computing[thread] = true;
  } else if (d < 0) {
    if (!atomiccompareandswapint(d, d + 1, &group->icomputingthreadsdiff)) return false;
    group->computing[thread] = false;
  }
  return true;
}

// `stop` is tested under the mutex too: the broadcast of a shutdown that
// falls between the test at the top of waitfortodo and this wait would
// otherwise be missed, and the join would never return.
void sleepuntiltodo(THREADGROUP* group) {
  pthread_mutex_lock(&group->mutex);
  atomicstore(&group->ithreads, atomicdecrementint(&group->ithreadscorrect));
  if (atomicload(&group->todo) == 0 && !atomicload(&group->stop))
    pthread_cond_wait(&group->cond, &group->mutex);
  atomicstore(&group->ithreads, atomicincrementint(&group->ithreadscorrect));
  pthread_mutex_unlock(&group->mutex);
}

int wantcomputingthreads(OVCONTEXT* context) {
  // Both as unsigned: a total of 0, or a group of one thread, gives the
  // other bound.
  unsigned int total = static_cast<unsigned int>(atomicload(&context->computertotalwidth) - 1);
  unsigned int threads = static_cast<unsigned int>(context->grworker.nthreads - 2);
  return static_cast<int>(total < threads ? total : threads);
}

void correctcomputingthreads(OVCONTEXT* context, int want) {
  THREADGROUP* g = &context->grworker;
  int now = atomicload(&g->icomputingthreads);
  if (want == now) return;
  memorybarrier();
  atomicaddint(want - now, &g->icomputingthreadsdiff);
  atomicstore(&g->icomputingthreads, want);
}

}  // namespace

void todo(THREADGROUP* group) {
  int t = __atomic_fetch_add(&group->todo, 1, __ATOMIC_SEQ_CST);
  int awake = atomicload(&group->ithreads);
  // With no computer alive the count of computing threads can read -1 (the
  // unsigned bound of a one-thread group): no thread serves computers then.
  int computing = atomicload(&group->icomputingthreads);
  if (computing < 0) computing = 0;
  if (awake - computing > t) return;  // enough are awake
  if (awake >= group->nthreads) return;                           // none is asleep
  wakeone(group);
}

bool waitfortodo(OVCONTEXT* context, THREADGROUP* group, int thread) {
  for (;;) {
    if (atomicload(&group->stop)) return false;
    int t = atomicload(&group->todo);
    if (atomicload(&context->computertotalwidth) != 0 && thread != 1 && thread != 2) {
      if (!changerole(group, thread)) continue;
      // The main thread never sleeps while a computer lives, but takes its
      // messages as they come: the end of a graph is one of them. A
      // computing thread serves the computers only, and takes queued work
      // just while a viewport moves, so that the moving picture gets the
      // processors.
      bool served = false;
      if (t == 0 || (atomicload(&context->imovingviewport) == 0 && group->computing[thread]))
        served = servecomputers(context);
      if (!served) spinpause();
      if (thread == 0 && t == 0) continue;
      if (thread != 0 && group->computing[thread] &&
          (t == 0 || atomicload(&context->imovingviewport) == 0))
        continue;
    }
    if (t == 0) {
      sleepuntiltodo(group);
      t = atomicload(&group->todo);
      if (t == 0) continue;
    }
    memorybarrier();
    if (atomiccompareandswapint(t, t - 1, &group->todo)) return true;
  }
}

void initgroup(THREADGROUP* group, int nthreads) {
  group->todo = 0;
  group->nthreads = nthreads;
  group->ithreadscorrect = nthreads;
  group->ithreads = nthreads;
  group->icomputingthreads = 0;
  group->icomputingthreadsdiff = 0;
  for (bool& c : group->computing) c = false;
  group->stop = true;
  pthread_mutex_init(&group->mutex, nullptr);
  pthread_cond_init(&group->cond, nullptr);
  group->spinlock = 0;
}

void freegroup(THREADGROUP* group) {
  pthread_mutex_destroy(&group->mutex);
  pthread_cond_destroy(&group->cond);
}

void addcomputerwidth(OVCONTEXT* context, int width) {
  atomicaddint(width, &context->computertotalwidth);
  int want = wantcomputingthreads(context);
  correctcomputingthreads(context, want);
  THREADGROUP* g = &context->grworker;
  for (;;) {
    int wanted = want + atomicload(&g->todo) + 1;
    if (wanted > g->nthreads) wanted = g->nthreads;
    if (atomicload(&g->ithreads) >= wanted) break;
    wakeone(g);
  }
}

void removecomputerwidth(OVCONTEXT* context, int width) {
  atomicaddint(-width, &context->computertotalwidth);
  correctcomputingthreads(context, wantcomputingthreads(context));
}

int glworker_eventloop(OVCONTEXT* context, int* count) {
  THREADGROUP* g = &context->grworkergl;
  int t;
  do {
    t = atomicload(&g->todo);
    if (t == 0) return false;
  } while (!atomiccompareandswapint(t, t - 1, &g->todo));
  WORKER* worker = static_cast<WORKER*>(atomicfifodequeue(&context->wworkergl, ONGLWORKER));
  // Read before the call: the worker goes on to another thread, which may
  // free its record before this one looks again.
  bool stopped = atomicload(&worker->stop);
  worker->workerproc(context, worker);
  if (count && !stopped) (*count)++;
  return true;
}

void* thread_worker(void* ctxt) {
  THREADCONTEXT* tc = static_cast<THREADCONTEXT*>(ctxt);
  OVCONTEXT* context = tc->context;
  while (waitfortodo(context, &context->grworker, tc->thread)) {
    WORKER* worker = getworkermainworker(context);
    worker->canvas = tc->canvas;
    worker->workerproc(context, worker);
  }
  pthread_exit(nullptr);
}

void* thread_mainhelper(void* ctxt) {
  THREADCONTEXT* tc = static_cast<THREADCONTEXT*>(ctxt);
  OVCONTEXT* context = tc->context;
  while (waitfortodo(context, &context->grmainhelper, tc->thread)) {
    WORKER* worker = static_cast<WORKER*>(atomicfifodequeue(&context->wmainhelper, ONMAINHELPER));
    worker->workerproc(context, worker);
  }
  pthread_exit(nullptr);
}

void* thread_glworker(void* ctxt) {
  THREADCONTEXT* tc = static_cast<THREADCONTEXT*>(ctxt);
  OVCONTEXT* context = tc->context;
  if (context->initcallback)
    context->initcallback(context, context->nmemtexture, context->glthreadpdata);
  while (waitfortodo(context, &context->grworkergl, tc->thread)) {
    WORKER* worker = static_cast<WORKER*>(atomicfifodequeue(&context->wworkergl, ONGLWORKER));
    worker->workerproc(context, worker);
  }
  if (context->donecallback) context->donecallback(context, context->glthreadpdata);
  pthread_exit(nullptr);
}
