// Tasks: progress counters that the engine and the file renderer publish for
// the display. The chain of live tasks is the main thread's; other threads
// make and end theirs through messages.
#include <cstdlib>

#include "Mandelbrot.h"
#include "pool.h"

namespace {

void setuptask(TASK* task, TASKTYPE type, int due) {
  task->flags = TASK_LIVE;
  task->due = due;
  task->accomplished = 0;
  task->iter = 0;
  task->type = type;
}

void worker_addtask(OVCONTEXT* context, WORKER* worker) {
  TASK* task = static_cast<TASK*>(worker->pdata[0]);
  chaininsbegin(&context->taskchain, &task->chain);
  freeworker(context, worker);
}

void worker_removetask(OVCONTEXT* context, WORKER* worker) {
  TASK* task = static_cast<TASK*>(worker->pdata[0]);
  chainrem(&task->chain);
  free(task);
  freeworker(context, worker);
}

// Sends one of the two task messages; without a worker record the task is
// never linked (or never unlinked), which the overflow line has reported.
bool sendtask(OVCONTEXT* context, WORKERPROC proc, TASK* task) {
  WORKER* worker = addworker(context, THREAD_MAIN, proc);
  if (!worker) return false;
  worker->pdata[0] = task;
  dispatch(context, worker);
  return true;
}

}  // namespace

TASK* __addtask(OVCONTEXT* context, TASKTYPE type, int due) {
  if (context->itask >= context->ntask - 1) return nullptr;
  TASK* task = pooltake(&context->rtask);
  context->itask++;
  setuptask(task, type, due);
  chaininsbegin(&context->taskchain, &task->chain);
  return task;
}

void __removetask(OVCONTEXT* context, TASK* task) {
  if (!task) return;
  chainrem(&task->chain);
  poolgive(&context->rtask, task);
  context->itask--;
}

// NULL when no message could carry it: a task that is never linked could
// not be removed either. Every task operation accepts NULL.
TASK* addtask(OVCONTEXT* context, TASKTYPE type, int due) {
  TASK* task = static_cast<TASK*>(malloc(sizeof(TASK)));
  setuptask(task, type, due);
  if (sendtask(context, worker_addtask, task)) return task;
  free(task);
  return nullptr;
}

void removetask(OVCONTEXT* context, TASK* task) {
  if (!task) return;
  sendtask(context, worker_removetask, task);
}

void accomplish(TASK* task, int n, bool reset) {
  if (!task) return;
  int done = __atomic_add_fetch(&task->accomplished, n, __ATOMIC_SEQ_CST);
  if (reset && done >= atomicload(&task->due)) {
    atomicstore(&task->accomplished, 0);
    atomicstore(&task->due, 0);
  }
}
