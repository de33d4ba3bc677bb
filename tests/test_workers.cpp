// WORKER messages: delivery to every recipient, the priority table with its
// dummy nodes and reclaiming, changeprio, stops and shutdown.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <vector>

#include "enginefixture.h"

#include <cstddef>

using enginetest::Engine;
using enginetest::waitfor;

namespace {

// ---------------------------------------------------------------- helpers run by workers

std::atomic<bool> held{false};
std::atomic<bool> release{false};

// Keeps the one worker thread busy until released.
void worker_hold(OVCONTEXT* context, WORKER* worker) {
  held.store(true);
  waitfor([] { return release.load(); });
  freeworker(context, worker);
}

void holdworkerthread(Engine& e) {
  held.store(false);
  release.store(false);
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_hold);
    w->prio = 0;
    dispatch(c, w);
  });
  waitfor([] { return held.load(); });
}

std::vector<int> ran;  // sequence numbers, written by the one worker thread
std::atomic<int> nran{0};

void worker_record(OVCONTEXT* context, WORKER* worker) {
  ran[nran.load()] = worker->idata[0];
  nran.fetch_add(1);
  freeworker(context, worker);
}

std::atomic<int> arrivals{0};
std::atomic<int> arrivedoffmain{0};

void worker_arrive(OVCONTEXT* context, WORKER* worker) {
  if (!pthread_equal(pthread_self(), context->thread[0]) && !atomicload(&context->grmain.stop))
    arrivedoffmain.fetch_add(1);
  arrivals.fetch_add(1);
  freeworker(context, worker);
}

// Every procedure turns its worker around to carry a result home.
void worker_turnaround(OVCONTEXT* context, WORKER* worker) {
  worker->recipient = THREAD_MAIN;
  worker->workerproc = worker_arrive;
  dispatch(context, worker);
}

std::atomic<int> stopped{0};
std::atomic<int> canvasseen{0};
std::atomic<CANVAS0*> expectedcanvas{nullptr};

void worker_fail(OVCONTEXT* context, WORKER* worker) {
  stopped.fetch_add(1);
  freeworker(context, worker);
}

// A long procedure's shape: stop is tested first, and a stopped worker takes
// its way home to release what it holds.
void worker_job(OVCONTEXT* context, WORKER* worker) {
  if (worker->canvas == expectedcanvas.load()) canvasseen.fetch_add(1);
  worker->recipient = THREAD_MAIN;
  worker->workerproc = atomicload(&worker->stop) ? worker_fail : worker_arrive;
  dispatch(context, worker);
}

// One worker at every priority, run to the end: afterwards each list holds
// its dummy and at most one consumed node, whatever it held before.
void sweep(Engine& e) {
  nran.store(0);
  ran.assign(NWORKERPRIO, 0);
  e.onmain([](OVCONTEXT* c) {
    for (int p = 0; p < NWORKERPRIO; p++) {
      WORKER* w = addworker(c, THREAD_WORKER, worker_record);
      w->prio = p;
      w->idata[0] = p;
      dispatch(c, w);
    }
  });
  waitfor([] { return nran.load() == NWORKERPRIO; });
  e.waitidle();
}

struct FILED {
  WORKER* worker;
  int seq;
  int prio;
};

}  // namespace

// ---------------------------------------------------------------- delivery

TEST(Workers, RoundTripFromEveryRecipientEndsOnMain) {
  Engine e(4, true);
  arrivals.store(0);
  arrivedoffmain.store(0);
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_turnaround);
    w->prio = 10;
    dispatch(c, w);
  });
  WORKER* helper = addworker(e.context, THREAD_MAINHELPER, worker_turnaround);
  dispatch(e.context, helper);
  WORKER* gl = addworker(e.context, THREAD_GLWORKER, worker_turnaround);
  dispatch(e.context, gl);
  int count = 0;
  waitfor([&] {
    while (glworker_eventloop(e.context, &count)) {
    }
    return arrivals.load() == 3;
  });
  EXPECT_EQ(count, 1);
  EXPECT_EQ(arrivedoffmain.load(), 0);
  e.waitidle();
  EXPECT_EQ(atomicload(&e.context->iworkerall), 0);
}

TEST(Workers, GlEventLoopReturnsFalseOnEmptyQueue) {
  Engine e(4, true);
  int count = 0;
  EXPECT_FALSE(glworker_eventloop(e.context, &count));
  EXPECT_EQ(count, 0);
}

TEST(Workers, UnknownRecipientIsReportedAndLost) {
  Engine e;
  e.waitidle();  // the start-up message has come home
  WORKER* w = addworker(e.context, static_cast<THREADGROUPID>(7), worker_arrive);
  testing::internal::CaptureStderr();
  dispatch(e.context, w);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "dispatch: Unknown recipient.\n");
  EXPECT_EQ(atomicload(&e.context->iworkerall), 1);  // lost: never given back
  freeworker(e.context, w);
}

TEST(Workers, AddWorkerOnEmptyChainReportsOverflow) {
  Engine e;
  std::vector<WORKER*> all;
  int n = e.context->nworkerall;
  e.waitidle();
  for (int i = 0; i < n; i++) all.push_back(addworker(e.context, THREAD_MAIN, worker_arrive));
  testing::internal::CaptureStderr();
  EXPECT_EQ(addworker(e.context, THREAD_MAIN, worker_arrive), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "worker overflow.\n");
  EXPECT_EQ(atomicload(&e.context->iworkerall), n + 1);  // counted up all the same
  for (WORKER* w : all) freeworker(e.context, w);
  atomicdecrementint(&e.context->iworkerall);
}

TEST(Workers, AddWorkerResetsHeaderButKeepsPayload) {
  Engine e;
  WORKER* w = addworker(e.context, THREAD_MAIN, worker_arrive);
  w->idata[3] = 1234;
  w->stop = true;
  w->prio = 7;
  freeworker(e.context, w);
  // The free chain is first in, first out: take records until this one returns.
  std::vector<WORKER*> taken;
  WORKER* again;
  do {
    again = addworker(e.context, THREAD_WORKER, worker_record);
    taken.push_back(again);
  } while (again != w);
  EXPECT_EQ(again->idata[3], 1234);
  EXPECT_FALSE(again->stop);
  EXPECT_EQ(again->prio, -1);
  EXPECT_EQ(again->node, nullptr);
  EXPECT_EQ(again->recipient, THREAD_WORKER);
  for (WORKER* t : taken) freeworker(e.context, t);
}

// ---------------------------------------------------------------- priority table

TEST(PriorityTable, TenThousandWorkersRunInPriorityOrder) {
  Engine e(4);  // one worker thread
  sweep(e);
  int baseline = e.context->inode;
  holdworkerthread(e);
  constexpr int N = 10000;
  ran.assign(N, -1);
  nran.store(0);
  std::vector<FILED> filed;
  e.onmain([&](OVCONTEXT* c) {
    std::mt19937 rng(42);
    for (int i = 0; i < N; i++) {
      WORKER* w = addworker(c, THREAD_WORKER, worker_record);
      int p = static_cast<int>(rng() % (NWORKERPRIO + 1));
      w->prio = p == NWORKERPRIO ? PRIO_LAST : p;
      w->idata[0] = i;
      dispatch(c, w);
      filed.push_back({w, i, p == NWORKERPRIO ? NWORKERPRIO - 1 : p});  // both share the last list
    }
  });
  release.store(true);
  waitfor([&] { return nran.load() == N; });
  std::stable_sort(filed.begin(), filed.end(),
                   [](const FILED& a, const FILED& b) { return a.prio < b.prio; });
  for (int i = 0; i < N; i++) ASSERT_EQ(ran[i], filed[i].seq) << "at position " << i;
  e.waitidle();
  sweep(e);
  EXPECT_EQ(e.context->inode, baseline);
}

TEST(PriorityTable, ChangePrioMovesQueuedWorkersAndLosesNoNode) {
  Engine e(4);
  sweep(e);
  int baseline = e.context->inode;
  holdworkerthread(e);
  constexpr int N = 10000;
  ran.assign(N, -1);
  nran.store(0);
  // Per priority: the workers that stayed, in filing order, then those moved
  // there, in the order of their changeprio calls.
  std::map<int, std::vector<int>> stayed, moved;
  e.onmain([&](OVCONTEXT* c) {
    std::mt19937 rng(7);
    std::vector<WORKER*> filed;
    for (int i = 0; i < N; i++) {
      WORKER* w = addworker(c, THREAD_WORKER, worker_record);
      w->prio = static_cast<int>(rng() % NWORKERPRIO);
      w->idata[0] = i;
      dispatch(c, w);
      filed.push_back(w);
    }
    for (int i = 0; i < N; i++) {
      if (i % 3 == 0) {
        int p = static_cast<int>(rng() % NWORKERPRIO);
        changeprio(c, filed[i], p);
        EXPECT_EQ(filed[i]->prio, p);
        moved[p].push_back(i);
      }
    }
    for (int i = 0; i < N; i++)
      if (i % 3 != 0) stayed[filed[i]->prio].push_back(i);
  });
  release.store(true);
  waitfor([&] { return nran.load() == N; });
  std::vector<int> want;
  for (int p = 0; p < NWORKERPRIO; p++) {
    want.insert(want.end(), stayed[p].begin(), stayed[p].end());
    want.insert(want.end(), moved[p].begin(), moved[p].end());
  }
  ASSERT_EQ(static_cast<int>(want.size()), N);
  for (int i = 0; i < N; i++) ASSERT_EQ(ran[i], want[i]) << "at position " << i;
  e.waitidle();
  sweep(e);
  EXPECT_EQ(e.context->inode, baseline);
}

TEST(PriorityTable, PrioLastLandsAtTheVeryEnd) {
  Engine e;
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_record);
    w->prio = PRIO_LAST;
    __dispatchprioworker(c, w);  // no todo: no thread is told
    EXPECT_EQ(c->workerprio[NWORKERPRIO - 1][1], w->node);
    EXPECT_EQ(c->workerprio[NWORKERPRIO - 1][0]->next, w->node);
    WORKER* got = getworkermainworker(c);
    EXPECT_EQ(got, w);
    freeworker(c, got);
  });
}

TEST(PriorityTable, IdleWorkerWithPrioLastGoesToLastSlot) {
  Engine e;
  arrivals.store(0);
  e.onmain([](OVCONTEXT* c) {
    WORKER* last = addworker(c, THREAD_MAIN, worker_arrive);
    last->prio = PRIO_LAST;
    dispatchidle(c, last);
    EXPECT_EQ(c->idleworker[NWORKERPRIO - 1], last);
    EXPECT_EQ(c->idleworkermaxprio, NWORKERPRIO - 1);
    WORKER* first = addworker(c, THREAD_MAIN, worker_arrive);
    first->prio = 3;
    dispatchidle(c, first);
    EXPECT_EQ(c->idleworker[0], first);
    EXPECT_EQ(c->idleworkermaxprio, 0);
    // One per call, from the lowest slot up.
    idle(c);
    EXPECT_EQ(c->idleworker[0], nullptr);
    EXPECT_EQ(c->idleworker[NWORKERPRIO - 1], last);
  });
  // thread_main hands out the rest when it falls idle.
  waitfor([] { return arrivals.load() == 2; });
  e.waitidle();
}

TEST(PriorityTable, WorkerOnChainAppendsThroughNextOther) {
  Engine e;
  WORKER* head = nullptr;
  WORKER* a = addworker(e.context, THREAD_MAIN, worker_arrive);
  WORKER* b = addworker(e.context, THREAD_MAIN, worker_arrive);
  workeronchain(&head, a);
  workeronchain(&head, b);
  EXPECT_EQ(head, a);
  EXPECT_EQ(a->nextother, b);
  EXPECT_EQ(b->nextother, nullptr);
  freeworker(e.context, a);
  freeworker(e.context, b);
}

// The only node behind the dummy becomes the new dummy; the old one hangs
// behind it and is reclaimed by the next filing at that priority.
TEST(PriorityTable, ChangePrioOfOnlyNodeMakesItTheDummy) {
  Engine e;
  e.onmain([](OVCONTEXT* c) {
    int inode = c->inode;
    NODE* dummy = c->workerprio[100][0];
    WORKER* w = addworker(c, THREAD_WORKER, worker_record);
    w->prio = 100;
    __dispatchprioworker(c, w);
    NODE* n = w->node;
    changeprio(c, w, 200);
    EXPECT_EQ(c->workerprio[100][0], n);
    EXPECT_EQ(c->workerprio[100][1], n);
    EXPECT_EQ(n->prev, dummy);
    EXPECT_EQ(n->w, nullptr);
    EXPECT_EQ(c->inode, inode + 2);
    EXPECT_EQ(c->workerprio[200][1], w->node);
    // Filing at 100 again gives the old dummy back.
    WORKER* x = addworker(c, THREAD_WORKER, worker_record);
    x->prio = 100;
    __dispatchprioworker(c, x);
    EXPECT_EQ(n->prev, nullptr);
    EXPECT_EQ(c->inode, inode + 2);
    // Clean up without telling any thread: claim both here.
    WORKER* g1 = getworkermainworker(c);
    WORKER* g2 = getworkermainworker(c);
    EXPECT_EQ(g1, x);
    EXPECT_EQ(g2, w);
    freeworker(c, g1);
    freeworker(c, g2);
  });
}

TEST(PriorityTable, ChangePrioOfClaimedWorkerDoesNothing) {
  Engine e;
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_record);
    w->prio = 50;
    __dispatchprioworker(c, w);
    NODE* n = w->node;
    // A consumer's claim is the compare-and-swap of the node's worker.
    WORKER* expected = w;
    ASSERT_TRUE(__atomic_compare_exchange_n(&n->w, &expected, nullptr, false, __ATOMIC_SEQ_CST,
                                            __ATOMIC_SEQ_CST));
    int inode = c->inode;
    changeprio(c, w, 60);
    EXPECT_EQ(w->prio, 50);
    EXPECT_EQ(c->inode, inode);
    EXPECT_EQ(c->workerprio[60][0]->next, nullptr);
    freeworker(c, w);
  });
}

TEST(PriorityTable, WrongPriorityIsReportedAndFiled) {
  Engine e;
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_record);
    w->prio = 600;
    testing::internal::CaptureStderr();
    __dispatchprioworker(c, w);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "__dispatchprioworker: wrong priority\n");
    EXPECT_EQ(getworkermainworker(c), w);
    freeworker(c, w);
  });
}

TEST(PriorityTable, NodeOverflowRunsWorkerStoppedAtOnce) {
  Engine e;
  stopped.store(0);
  e.onmain([](OVCONTEXT* c) {
    int nnode = c->nnode;
    c->nnode = c->inode + 2;  // no node left
    WORKER* w = addworker(c, THREAD_WORKER, worker_job);
    w->prio = 5;
    testing::internal::CaptureStderr();
    __dispatchprioworker(c, w);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "addnode: node overflow.\n");
    c->nnode = nnode;
  });
  waitfor([] { return stopped.load() == 1; });
  e.waitidle();
}

// ---------------------------------------------------------------- stop and shutdown

TEST(Stop, StoppedWorkersStillRunAndGoHome) {
  Engine e;
  stopped.store(0);
  e.onmain([](OVCONTEXT* c) {
    for (int i = 0; i < 1000; i++) {
      WORKER* w = addworker(c, THREAD_WORKER, worker_job);
      w->prio = i % NWORKERPRIO;
      w->stop = true;
      dispatch(c, w);
    }
  });
  waitfor([] { return stopped.load() == 1000; });
  e.waitidle();
  EXPECT_EQ(atomicload(&e.context->iworkerall), 0);
}

TEST(Stop, QueuedWorkersGetTheThreadsCanvasAndDuringRunIndexThree) {
  Engine e;
  expectedcanvas.store(e.context->threadcontext[3].canvas);
  ASSERT_NE(expectedcanvas.load(), nullptr);
  canvasseen.store(0);
  arrivals.store(0);
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_job);
    w->prio = 1;
    dispatch(c, w);
  });
  waitfor([] { return arrivals.load() == 1; });
  EXPECT_EQ(canvasseen.load(), 1);
  holdworkerthread(e);
  e.onmain([](OVCONTEXT* c) {
    for (int i = 0; i < 10; i++) {
      WORKER* w = addworker(c, THREAD_WORKER, worker_job);
      w->prio = 2;
      dispatch(c, w);
    }
  });
  std::thread releaser([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    release.store(true);
  });
  shutdowncontext(e.context, false);
  releaser.join();
  // Whatever the worker thread did not take ran in shutdown's run.
  EXPECT_EQ(canvasseen.load(), 11);
  EXPECT_EQ(arrivals.load(), 11);
}

namespace {

std::atomic<bool> mainheld{false};

void worker_holdmain(OVCONTEXT* context, WORKER* worker) {
  mainheld.store(true);
  waitfor([] { return release.load(); });
  freeworker(context, worker);
}

}  // namespace

TEST(Stop, ShutdownWithThousandsQueuedEmptiesEveryQueue) {
  Engine e(4, true);
  arrivals.store(0);
  holdworkerthread(e);
  mainheld.store(false);
  WORKER* hm = addworker(e.context, THREAD_MAIN, worker_holdmain);
  dispatch(e.context, hm);
  WORKER* hh = addworker(e.context, THREAD_MAINHELPER, worker_holdmain);
  dispatch(e.context, hh);
  waitfor([] { return mainheld.load(); });
  constexpr int EACH = 3000;
  // Filing into the priority table is the main thread's; it is held, so the
  // test stands in for it.
  for (int i = 0; i < EACH; i++) {
    WORKER* w = addworker(e.context, THREAD_WORKER, worker_job);
    w->prio = i % NWORKERPRIO;
    dispatch(e.context, w);
    for (THREADGROUPID r : {THREAD_MAIN, THREAD_MAINHELPER, THREAD_GLWORKER}) {
      WORKER* x = addworker(e.context, r, worker_turnaround);
      dispatch(e.context, x);
    }
  }
  std::thread releaser([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    release.store(true);
  });
  shutdowncontext(e.context, false);
  releaser.join();
  EXPECT_EQ(arrivals.load(), 4 * EACH);
  EXPECT_EQ(atomicload(&e.context->iworkerall), 0);
  for (THREADGROUP* g : {&e.context->grmain, &e.context->grmainhelper, &e.context->grworker,
                         &e.context->grworkergl})
    EXPECT_EQ(atomicload(&g->todo), 0);
  EXPECT_EQ(atomicfifodequeue(&e.context->wmain, offsetof(WORKER, nextonmainworker)), nullptr);
  EXPECT_EQ(atomicfifodequeue(&e.context->wmainhelper, offsetof(WORKER, nextonmainhelper)),
            nullptr);
  EXPECT_EQ(atomicfifodequeue(&e.context->wworkergl, offsetof(WORKER, nextonglworker)), nullptr);
  // A second shutdown does nothing; relaunch brings the engine back.
  shutdowncontext(e.context, false);
  EXPECT_TRUE(relaunchcontext(e.context));
  EXPECT_FALSE(relaunchcontext(e.context));
  arrivals.store(0);
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_turnaround);
    w->prio = 0;
    dispatch(c, w);
  });
  waitfor([] { return arrivals.load() == 1; });
  e.waitidle();
}

// A budget under two canvases leaves no worker thread: area work waits for
// the run of shutdown, which has no canvas to give it either.
TEST(Stop, TooSmallBudgetLeavesNoWorkerThread) {
  Engine e(5, false, 2 * int64_t(sizeof(CANVAS0)) - 1);
  EXPECT_EQ(e.context->nthread, 3);
  EXPECT_EQ(e.context->grworker.nthreads, 0);
  arrivals.store(0);
  canvasseen.store(0);
  expectedcanvas.store(nullptr);
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_job);
    w->prio = 0;
    dispatch(c, w);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(arrivals.load(), 0);
  shutdowncontext(e.context, false);
  EXPECT_EQ(arrivals.load(), 1);
  EXPECT_EQ(canvasseen.load(), 1);  // no canvas at all
}

// A worker that found no node has run already: it must not leave a count
// behind, or a worker thread would search the table for ever.
TEST(PriorityTable, NodeOverflowThroughDispatchLeavesNoCount) {
  Engine e;
  stopped.store(0);
  e.onmain([](OVCONTEXT* c) {
    int nnode = c->nnode;
    c->nnode = c->inode + 2;
    WORKER* w = addworker(c, THREAD_WORKER, worker_job);
    w->prio = 5;
    testing::internal::CaptureStderr();
    dispatch(c, w);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "addnode: node overflow.\n");
    EXPECT_EQ(atomicload(&c->grworker.todo), 0);
    c->nnode = nnode;
  });
  waitfor([] { return stopped.load() == 1; });
  e.waitidle();
}
