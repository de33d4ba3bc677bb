// WORKER records and their delivery: the free pool, the three FIFO queues,
// the priority table of the worker threads and the idle lists.
//
// The priority table is one list of NODEs per priority, each with a dummy
// head. The main thread is the only producer: it appends at the tail and
// reclaims consumed nodes. Consumers (the worker threads) only move the head
// on and claim a node's worker with one compare-and-swap on its `w`, which
// alone decides who owns the worker.
#include <cstddef>
#include <cstdio>

#include "Mandelbrot.h"

namespace {

constexpr int ONSTACK = offsetof(WORKER, nextonstack);
constexpr int ONGLWORKER = offsetof(WORKER, nextonglworker);
constexpr int ONMAINWORKER = offsetof(WORKER, nextonmainworker);
constexpr int ONMAINHELPER = offsetof(WORKER, nextonmainhelper);

void enqueueworker(FIFO* queue, WORKER* worker, int offset, THREADGROUP* group) {
  memorybarrier();  // every field of the worker is visible before it is
  atomicfifoenqueue(queue, worker, offset);
  todo(group);
}

NODE* takenode(OVCONTEXT* context) {
  CHAIN* c = context->rnode.prev;  // the oldest: spreads the reuse of nodes
  chainrem(c);
  context->inode++;
  return CHAINRECORD(c, NODE, delchain);
}

void givenode(OVCONTEXT* context, NODE* node) {
  chaininsend(&context->rnode, &node->delchain);
  context->inode--;
}

// The consumed nodes hang behind the head through `prev`. They go back to
// the pool only when none of them still names a worker: a consumer may be in
// the middle of claiming one.
void reclaimnodes(OVCONTEXT* context, int p) {
  NODE* h = atomicload(&context->workerprio[p][0]);
  if (!h->prev) return;
  for (NODE* x = h->prev; x; x = x->prev)
    if (atomicload(&x->w)) return;
  for (NODE* x = h->prev; x;) {
    NODE* older = x->prev;
    givenode(context, x);
    x = older;
  }
  h->prev = nullptr;
}

// No priority below the hint holds work: moving it down is always safe.
void lowerhint(OVCONTEXT* context, int p) {
  int d = atomicload(&context->wworkermindepth);
  while (p < d && !atomiccompareandswapint(d, p, &context->wworkermindepth))
    d = atomicload(&context->wworkermindepth);
}

int tableindex(int prio) {
  if (prio == PRIO_LAST) return NWORKERPRIO - 1;
  if (prio < 0 || prio >= NWORKERPRIO) {
    fputs("__dispatchprioworker: wrong priority\n", stderr);
    return prio < 0 ? 0 : NWORKERPRIO - 1;
  }
  return prio;
}

// Puts a node that lost its worker back where it was, as the list's dummy.
void relinknode(OVCONTEXT* context, NODE* n, int p) {
  atomicstore(&n->prev->next, n);
  NODE* next = atomicload(&n->next);
  if (next)
    next->prev = n;
  else
    context->workerprio[p][1] = n;
}

}  // namespace

bool fileprioworker(OVCONTEXT* context, WORKER* worker);

WORKER* addworker(OVCONTEXT* context, THREADGROUPID recipient, WORKERPROC workerproc) {
  WORKER* worker = static_cast<WORKER*>(atomicfifodequeue(&context->workerchain, ONSTACK));
  atomicincrementint(&context->iworkerall);
  if (!worker) {
    fputs("worker overflow.\n", stderr);
    return nullptr;
  }
  // Payloads keep old contents: every sender fills what its receiver reads.
  worker->node = nullptr;
  worker->prio = -1;
  worker->stop = false;
  worker->nextother = nullptr;
  worker->workerproc = workerproc;
  worker->recipient = recipient;
  worker->prepixels = nullptr;
  return worker;
}

void freeworker(OVCONTEXT* context, WORKER* worker) {
  memorybarrier();
  atomicfifoenqueue(&context->workerchain, worker, ONSTACK);
  atomicdecrementint(&context->iworkerall);
}

void dispatch(OVCONTEXT* context, WORKER* worker) {
  worker->processed = 0;
  switch (worker->recipient) {
    case THREAD_WORKER:
      dispatchprioworker(context, worker);
      break;
    case THREAD_MAINHELPER:
      enqueueworker(&context->wmainhelper, worker, ONMAINHELPER, &context->grmainhelper);
      break;
    case THREAD_MAIN:
      enqueueworker(&context->wmain, worker, ONMAINWORKER, &context->grmain);
      break;
    case THREAD_GLWORKER:
      enqueueworker(&context->wworkergl, worker, ONGLWORKER, &context->grworkergl);
      break;
    default:
      fputs("dispatch: Unknown recipient.\n", stderr);
      break;
  }
}

void dispatchprioworker(OVCONTEXT* context, WORKER* worker) {
  // A worker that found no node has already run: there is nothing to count,
  // and a count without a node would send a thread searching for ever.
  if (fileprioworker(context, worker)) todo(&context->grworker);
}

void __dispatchprioworker(OVCONTEXT* context, WORKER* worker) { fileprioworker(context, worker); }

bool fileprioworker(OVCONTEXT* context, WORKER* worker) {
  int p = tableindex(worker->prio);
  if (context->inode == context->nnode - 2) {
    // No node left: the worker runs at once, stopped, and its own stop path
    // releases what it holds.
    fputs("addnode: node overflow.\n", stderr);
    worker->stop = true;
    worker->workerproc(context, worker);
    return false;
  }
  NODE* node = takenode(context);
  atomicstore(&node->w, worker);
  node->prev = nullptr;
  atomicstore<NODE*>(&node->next, nullptr);
  NODE* t = context->workerprio[p][1];
  if (atomicload(&t->next)) fputs("__dispatchprioworker: next!=NULL\n", stderr);
  node->prev = t;
  context->workerprio[p][1] = node;
  atomicstore(&worker->node, node);
  atomicstore(&t->next, node);  // publishes the node to the consumers
  reclaimnodes(context, p);
  lowerhint(context, p);
  return true;
}

void dispatchidle(OVCONTEXT* context, WORKER* worker) {
  int slot = worker->prio == PRIO_LAST ? NWORKERPRIO - 1 : 0;
  workeronchain(&context->idleworker[slot], worker);
  if (context->idleworkermaxprio == -1 || context->idleworkermaxprio > slot)
    context->idleworkermaxprio = slot;
}

void workeronchain(void* chain, WORKER* worker) {
  WORKER** link = static_cast<WORKER**>(chain);
  while (*link) link = const_cast<WORKER**>(&(*link)->nextother);
  worker->nextother = nullptr;
  *link = worker;
}

void changeprio(OVCONTEXT* context, WORKER* worker, int prio) {
  NODE* n = atomicload(&worker->node);  // a consumer clears it when it claims
  if (worker->prio < 0 || !n) return;
  WORKER* expected = worker;
  if (!__atomic_compare_exchange_n(&n->w, &expected, nullptr, false, __ATOMIC_SEQ_CST,
                                   __ATOMIC_SEQ_CST))
    return;  // a thread has claimed it: it keeps its old priority
  int p = tableindex(worker->prio);
  if (n->prev) {
    NODE* next = atomicload(&n->next);
    atomicstore(&n->prev->next, next);
    if (next)
      next->prev = n->prev;
    else
      context->workerprio[p][1] = n->prev;
    memorybarrier();
    NODE* head = n->prev;
    bool becamehead = __atomic_compare_exchange_n(&context->workerprio[p][0], &head, n, false,
                                                  __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    if (!becamehead && head != n)
      givenode(context, n);  // no consumer can reach it any more
    else
      relinknode(context, n, p);  // it is the head now, and must stay as the dummy
  }
  atomicstore<NODE*>(&worker->node, nullptr);
  worker->prio = prio;
  // Run at once for want of a node, it no longer stands behind its count.
  if (!fileprioworker(context, worker)) atomicdecrementint(&context->grworker.todo);
}

WORKER* getworkermainworker(OVCONTEXT* context) {
  for (;;) {
    int d = atomicload(&context->wworkermindepth);
    NODE* h;
    NODE* n;
    for (;;) {
      if (d >= NWORKERPRIO) {
        // A dispatch may have lowered the hint between two reads: scan again.
        fputs("getworkermainworker failed\n", stderr);
        atomicstore(&context->wworkermindepth, 0);
        d = 0;
      }
      h = atomicload(&context->workerprio[d][0]);
      n = atomicload(&h->next);
      if (n) break;
      // A node filed at d between the look and the advance would be hidden
      // behind the hint: look once more after advancing, and lower it again.
      if (atomiccompareandswapint(d, d + 1, &context->wworkermindepth) && atomicload(&h->next))
        lowerhint(context, d);
      d = atomicload(&context->wworkermindepth);
    }
    // Moving the head on is only progress; the claim below decides.
    __atomic_compare_exchange_n(&context->workerprio[d][0], &h, n, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    WORKER* w = atomicload(&n->w);
    if (!w) continue;
    if (!__atomic_compare_exchange_n(&n->w, &w, nullptr, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST))
      continue;
    atomicstore<NODE*>(&w->node, nullptr);
    return w;
  }
}
