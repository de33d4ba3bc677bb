// Several threads sending at once: to the main thread, which files work into
// the priority table and moves some of it with changeprio while worker
// threads take it, and to the helper thread. Every message must come home
// exactly once and no node may be lost. Runs in the thread-sanitizer pass.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "enginefixture.h"

using enginetest::Engine;
using enginetest::waitfor;

namespace {

std::atomic<long> sent{0};
std::atomic<long> home{0};

void worker_home(OVCONTEXT* context, WORKER* worker) {
  home.fetch_add(1);
  freeworker(context, worker);
}

void worker_compute(OVCONTEXT* context, WORKER* worker) {
  worker->recipient = THREAD_MAIN;
  worker->workerproc = worker_home;
  dispatch(context, worker);
}

// On the main thread: the message becomes work for the worker threads, and
// now and then the main thread changes its mind about its priority.
void worker_file(OVCONTEXT* context, WORKER* worker) {
  unsigned r = static_cast<unsigned>(worker->idata[0]);
  worker->recipient = THREAD_WORKER;
  worker->workerproc = worker_compute;
  worker->prio = static_cast<int>(r % NWORKERPRIO);
  dispatch(context, worker);
  if (r % 7 == 0) changeprio(context, worker, static_cast<int>((r / 7) % NWORKERPRIO));
}

double stressseconds() {
  const char* s = getenv("ORVANTA_STRESS_SECONDS");
  return s ? atof(s) : 10.0;
}

}  // namespace

TEST(WorkersStress, ManySendersToMainAndThePriorityTable) {
  Engine e(5);  // two worker threads
  e.sweep();
  int baseline = e.context->inode;
  auto end = std::chrono::steady_clock::now() +
             std::chrono::milliseconds(static_cast<long>(stressseconds() * 1000));
  auto sender = [&](int id) {
    std::mt19937 rng(id);
    while (std::chrono::steady_clock::now() < end) {
      if (atomicload(&e.context->iworkerall) > 20000) {
        std::this_thread::yield();
        continue;
      }
      bool helper = rng() % 4 == 0;
      WORKER* w = addworker(e.context, helper ? THREAD_MAINHELPER : THREAD_MAIN,
                            helper ? worker_compute : worker_file);
      ASSERT_NE(w, nullptr);
      w->idata[0] = static_cast<ITER>(rng() & 0x7fffffff);
      sent.fetch_add(1);
      dispatch(e.context, w);
    }
  };
  std::vector<std::thread> senders;
  for (int i = 0; i < 3; i++) senders.emplace_back(sender, i + 1);
  for (auto& t : senders) t.join();
  waitfor([] { return home.load() == sent.load(); });
  e.waitidle();
  EXPECT_GT(sent.load(), 10000);
  e.sweep();
  EXPECT_EQ(e.context->inode, baseline);
}
