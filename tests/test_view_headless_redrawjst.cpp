// A complete view with a Julia stack redrawn with the stack: the move drops
// every level and holds the view until its idle run has ended; the view is
// then computed again, right, and the stack is made again from a new run.
#include <atomic>
#include <chrono>
#include <thread>

#include "juliastack.h"
#include "test_view_headless.h"

using namespace viewheadless;

namespace {

// The state a message finds right behind the move on the main thread's queue.
struct SNAPSHOT {
  unsigned int flags = 0, juliaflags = 0;
  uint32_t cycle = 0, juliacycle = 0;
  int maxjuliastack = 0, validjuliastack = 0, anchored = 0, finishes = 0;
  std::atomic<bool> done{false};
  RUN* run = nullptr;
};

int anchoredlevels(const REALM* jr) {
  int n = 0;
  for (int s = 0; s < jr->njuliastack; s++) n += jr->juliastack[s].m != nullptr;
  return n;
}

// Main thread.
void take(SNAPSHOT* k) {
  VIEWPORT* v = k->run->run.viewport.load();
  REALM* jr = v->juliarealm;
  k->flags = v->flags;
  k->juliaflags = jr->flags;
  k->cycle = v->realm->computecycle;
  k->juliacycle = jr->computecycle;
  k->maxjuliastack = jr->maxjuliastack;
  k->validjuliastack = jr->validjuliastack;
  k->anchored = anchoredlevels(jr);
  k->finishes = k->run->run.events[VPCALLBACK_FINISH].load();
  k->done.store(true);
}

void worker_snapshot(OVCONTEXT* context, WORKER* worker) {
  take(static_cast<SNAPSHOT*>(worker->pdata[0]));
  freeworker(context, worker);
}

// Polls on the main thread until `ready` holds, for at most `seconds`.
bool within(RUN& r, double seconds, const std::function<bool(VIEWPORT*, REALM*)>& ready) {
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    bool ok = false;
    onmain(r, [&](OVCONTEXT*) {
      VIEWPORT* v = r.run.viewport.load();
      ok = ready(v, v->juliarealm);
    });
    if (ok) return true;
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

bool stackmade(VIEWPORT*, REALM* jr) {
  return jr->maxjuliastack >= 0 && jr->validjuliastack >= 0 && jr->juliastack[0].m != nullptr;
}

}  // namespace

TEST(ViewHeadlessRedrawJst, TheStackIsDroppedTheViewWaitsForIdleAndBothAreMadeAgain) {
  RUN r;
  VIEWARGS a = smallargs();
  a.width = 512;
  a.height = 384;
  // Next to i the orbit is periodic from its second step; its series
  // defines the stack's first levels within one idle run.
  a.positioned = true;
  a.re = "0";
  a.im = "1";
  a.span = "1e-10";
  a.angle = 30;
  ASSERT_TRUE(start(r, a));
  ASSERT_TRUE(waitviewfinish(&r.run, 1, 0));
  // The levels exist before the redraw (the first run may end after the
  // view is complete).
  ASSERT_TRUE(within(r, 120, stackmade)) << "the view's stack never had a level";

  SNAPSHOT before, after;
  before.run = after.run = &r;
  onmain(r, [&](OVCONTEXT*) { take(&before); });
  ASSERT_GT(before.anchored, 0);
  printf("  before: %d levels anchored, maxjuliastack %d, validjuliastack %d\n", before.anchored,
         before.maxjuliastack, before.validjuliastack);
  onmain(r, [&](OVCONTEXT* c) {
    redrawjst(c, r.run.viewport.load());
    WORKER* w = addworker(c, THREAD_MAIN, worker_snapshot);
    ASSERT_NE(w, nullptr);
    w->pdata[0] = &after;
    dispatch(c, w);
  });
  enginetest::waitfor([&] { return after.done.load(); });
  EXPECT_EQ(after.cycle, before.cycle + 1);
  EXPECT_EQ(after.juliacycle, before.juliacycle + 1);
  EXPECT_TRUE(after.flags & VP_MUSTWAITFORIDLE);
  EXPECT_TRUE(after.flags & VP_MUSTDOLOOP);
  EXPECT_TRUE(after.juliaflags & R_MUSTWAITFORIDLE);
  EXPECT_EQ(after.maxjuliastack, -1);
  EXPECT_EQ(after.validjuliastack, -1);
  EXPECT_EQ(after.anchored, 0);
  EXPECT_EQ(after.finishes, before.finishes);

  // The idle run ends, the view is scanned and computed again in the new
  // cycle, and nothing holds it any more.
  ASSERT_TRUE(waitviewfinish(&r.run, before.finishes + 1, 120)) << "the redrawn view never finished";
  onmain(r, [&](OVCONTEXT*) {
    VIEWPORT* v = r.run.viewport.load();
    EXPECT_FALSE(v->flags & VP_MUSTWAITFORIDLE);
    EXPECT_FALSE(v->juliarealm->flags & R_MUSTWAITFORIDLE);
    EXPECT_GT(v->juliarealm->computecycle, after.juliacycle);
  });
  checkfinished(r);
  checkcoverage(r);
  CHANNEL3 c = checkchannel3(r, 16, 20000);
  report(c);
  EXPECT_GE(c.sampled, 16 * 16 * 9 / 10);
  EXPECT_GT(c.escaped, c.sampled / 4);
  EXPECT_EQ(c.misplaced, 0);
  EXPECT_EQ(c.falseescape, 0);
  EXPECT_EQ(c.falseinterior, 0);
  checkexact(c);

  // The stack is made again from the new run: as many levels hold the view
  // as before, anchored anew and started for it.
  EXPECT_TRUE(within(r, 120, [&](VIEWPORT* v, REALM* jr) {
    return stackmade(v, jr) && jr->validjuliastack >= before.validjuliastack;
  })) << "the stack was not made again";
  int anchored = 0, maxjst = 0, validjst = 0;
  onmain(r, [&](OVCONTEXT*) {
    REALM* jr = r.run.viewport.load()->juliarealm;
    anchored = anchoredlevels(jr);
    maxjst = jr->maxjuliastack;
    validjst = jr->validjuliastack;
  });
  printf("  made again: %d levels anchored, maxjuliastack %d, validjuliastack %d\n", anchored, maxjst,
         validjst);
  EXPECT_GT(anchored, 0);
  checkpools(r);
  endviewrun(&r.run);
}
