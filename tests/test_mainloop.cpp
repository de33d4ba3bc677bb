// The main thread's loop (when it publishes and draws), tasks, and the pool
// form they share with every record kind.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <vector>

#include "enginefixture.h"

using enginetest::Engine;
using enginetest::waitfor;

namespace {

typedef std::chrono::steady_clock CLOCK;

// Times of the status callbacks, as thread_main makes them.
struct STRINGLOG {
  std::mutex lock;
  std::vector<CLOCK::time_point> at;
};

void logstrings(OVCONTEXT*, void* pdata) {
  STRINGLOG* log = static_cast<STRINGLOG*>(pdata);
  std::lock_guard<std::mutex> g(log->lock);
  log->at.push_back(CLOCK::now());
}

struct LOGGEDENGINE {
  STRINGLOG log;
  OVCONTEXT* context;
  LOGGEDENGINE() {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    EXPECT_TRUE(initcontext(context, enginetest::TESTMEMORY, 4, 8, 0, nullptr, nullptr, nullptr,
                            nullptr, logstrings, &log, "/tmp/", 0));
  }
  ~LOGGEDENGINE() {
    freecontext(context);
    free(context);
  }
  size_t count() {
    std::lock_guard<std::mutex> g(log.lock);
    return log.at.size();
  }
  std::vector<double> gapsms() {
    std::lock_guard<std::mutex> g(log.lock);
    std::vector<double> gaps;
    for (size_t i = 1; i < log.at.size(); i++)
      gaps.push_back(std::chrono::duration<double, std::milli>(log.at[i] - log.at[i - 1]).count());
    return gaps;
  }
};

std::atomic<bool> flooding{false};
std::atomic<int> handled{0};

// Keeps the main queue from ever running dry while flooding.
void worker_flood(OVCONTEXT* context, WORKER* worker) {
  handled.fetch_add(1);
  if (flooding.load())
    dispatch(context, worker);
  else
    freeworker(context, worker);
}

void worker_once(OVCONTEXT* context, WORKER* worker) {
  handled.fetch_add(1);
  freeworker(context, worker);
}

void sendonce(OVCONTEXT* context) {
  int before = handled.load();
  dispatch(context, addworker(context, THREAD_MAIN, worker_once));
  waitfor([&] { return handled.load() > before; });
}

}  // namespace

// With the main queue never empty, only the 300 ms rule can break through to
// publish, and it must.
TEST(MainLoop, BurstOfMessagesDoesNotStarveThePublishing) {
  LOGGEDENGINE e;
  enginetest::waitfor([&] { return atomicload(&e.context->iworkerall) == 0; });
  size_t before = e.count();
  flooding.store(true);
  for (int i = 0; i < 2; i++) dispatch(e.context, addworker(e.context, THREAD_MAIN, worker_flood));
  std::this_thread::sleep_for(std::chrono::milliseconds(1300));
  size_t during = e.count() - before;
  flooding.store(false);
  enginetest::waitfor([&] { return atomicload(&e.context->iworkerall) == 0; });
  EXPECT_GE(during, 2u);
  EXPECT_GT(handled.load(), 1000);
}

// When everything is quiet after a message, the state is published at once,
// not at the next 300 ms mark: some consecutive publications come much
// closer together than 300 ms.
TEST(MainLoop, QuietSystemPublishesAtOnce) {
  LOGGEDENGINE e;
  enginetest::waitfor([&] { return atomicload(&e.context->iworkerall) == 0; });
  for (int i = 0; i < 6; i++) {
    // Quiet means every worker thread asleep: a thread that has only just
    // started counts as awake, and then no publication follows.
    waitfor([&] { return atomicload(&e.context->grworker.ithreadscorrect) == 0; });
    size_t before = e.count();
    sendonce(e.context);
    waitfor([&] { return e.count() > before; });
  }
  std::vector<double> gaps = e.gapsms();
  ASSERT_FALSE(gaps.empty());
  EXPECT_LT(*std::min_element(gaps.begin(), gaps.end()), 250.0);
}

// While a dataflow computer lives the system is never quiet: publications
// keep the 300 ms rhythm however many messages pass.
TEST(MainLoop, LiveComputersKeepTheThreeHundredMillisecondRhythm) {
  LOGGEDENGINE e;
  enginetest::waitfor([&] { return atomicload(&e.context->iworkerall) == 0; });
  addcomputerwidth(e.context, 1);
  size_t first = e.count();
  auto start = CLOCK::now();
  while (CLOCK::now() - start < std::chrono::milliseconds(1000)) sendonce(e.context);
  size_t last = e.count();
  removecomputerwidth(e.context, 1);
  // Publications made while the computer lived, and the gaps between them.
  std::vector<double> gaps = e.gapsms();
  for (size_t i = first + 1; i < last; i++) EXPECT_GE(gaps[i - 1], 295.0) << "publication " << i;
  EXPECT_LE(last - first, 5u);
  EXPECT_GE(last - first, 1u);
}

TEST(ComputerWidth, OneWorkerThreadCapsWantAtUnsignedMinusOne) {
  Engine e(4);  // one worker thread: nthreads - 2 is -1, the largest unsigned
  addcomputerwidth(e.context, 3);
  EXPECT_EQ(atomicload(&e.context->grworker.icomputingthreads), 2);
  EXPECT_EQ(atomicload(&e.context->grworker.icomputingthreadsdiff) +
                (e.context->grworker.computing[3] ? 1 : 0),
            2);
  removecomputerwidth(e.context, 3);
  // A total of 0 gives the other bound: -1 once more.
  EXPECT_EQ(atomicload(&e.context->grworker.icomputingthreads), -1);
}

TEST(ComputerWidth, ManyWorkerThreadsAreCappedAtNthreadsMinusTwo) {
  Engine e(8, false, int64_t(2) << 30);  // five worker threads, budget for them
  addcomputerwidth(e.context, 10);
  EXPECT_EQ(atomicload(&e.context->grworker.icomputingthreads), 3);
  removecomputerwidth(e.context, 10);
  // Work still gets done after the computers are gone.
  int before = handled.load();
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_once);
    w->prio = 0;
    dispatch(c, w);
  });
  waitfor([&] { return handled.load() > before; });
}

// ---------------------------------------------------------------- tasks

TEST(Tasks, AccomplishBeyondDueKeepsCountingWithoutReset) {
  TASK t = {};
  t.due = 10;
  accomplish(&t, 7, false);
  accomplish(&t, 7, false);
  EXPECT_EQ(t.accomplished, 14);
  EXPECT_EQ(t.due, 10);
}

TEST(Tasks, AccomplishWithResetStartsTheBarAnew) {
  TASK t = {};
  t.due = 10;
  accomplish(&t, 4, true);
  EXPECT_EQ(t.accomplished, 4);
  accomplish(&t, 6, true);
  EXPECT_EQ(t.accomplished, 0);
  EXPECT_EQ(t.due, 0);
}

TEST(Tasks, NullIsAcceptedEverywhere) {
  Engine e;
  accomplish(nullptr, 5, true);
  e.onmain([](OVCONTEXT* c) { __removetask(c, nullptr); });
  removetask(e.context, nullptr);
}

TEST(Tasks, PoolIsFullOneShortOfCapacityAndReusesLastFreedFirst) {
  Engine e;
  e.onmain([](OVCONTEXT* c) {
    std::vector<TASK*> t;
    for (int i = 0; i < c->ntask - 1; i++) {
      TASK* k = __addtask(c, TASKTYPE_ITER, 100);
      ASSERT_NE(k, nullptr);
      EXPECT_EQ(k, &c->task[i]);  // block order the first time
      EXPECT_EQ(k->flags, TASK_LIVE);
      t.push_back(k);
    }
    EXPECT_EQ(__addtask(c, TASKTYPE_ITER, 100), nullptr);
    EXPECT_EQ(c->taskchain.prev, &t.back()->chain);  // added on the prev side
    __removetask(c, t[5]);
    __removetask(c, t[9]);
    EXPECT_EQ(t[9]->flags, POOL_FREE);
    EXPECT_EQ(__addtask(c, TASKTYPE_JST, 1), t[9]);
    EXPECT_EQ(__addtask(c, TASKTYPE_JST, 1), t[5]);
    for (TASK* k : t) __removetask(c, k);
    EXPECT_EQ(c->itask, 0);
    EXPECT_TRUE(chainempty(&c->taskchain));
  });
}

TEST(Tasks, AddTaskFromAnyThreadIsLinkedByTheMainThread) {
  Engine e;
  TASK* t = addtask(e.context, TASKTYPE_IO, 50);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->due, 50);
  EXPECT_EQ(t->type, TASKTYPE_IO);
  bool linked = false;
  e.onmain([&](OVCONTEXT* c) { linked = c->taskchain.next == &t->chain; });
  EXPECT_TRUE(linked);
  removetask(e.context, t);
  bool empty = false;
  e.onmain([&](OVCONTEXT* c) { empty = chainempty(&c->taskchain); });
  EXPECT_TRUE(empty);
  EXPECT_EQ(e.context->itask, 0);  // not from the pool
}
