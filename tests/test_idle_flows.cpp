// The idle run of a Julia view in the engine's own flow: started by a move
// to a deep place, stopped by the next move while it runs; its orbit is not
// taken for the place it was made for, the scan follows its end, and the
// moved view completes.
#include "flowstest.h"

using namespace flowstest;

namespace {

// The seed's Julia set is a disc-like basin round an attracting fixed point:
// an orbit from inside neither escapes nor ends by itself before its budget.
const std::complex<double> SEED(0.1, 0);

HFLOATCOMPLEX zoomof(int exponent) { return cHF(ldexpHF(HFd(1.0), exponent), ZEROH); }

}  // namespace

TEST(IdleFlowsJulia, AMoveStopsTheRunningOrbitWhichIsNotTakenAndTheMovedViewCompletes) {
  // The view is placed before it is turned on: the whole basin at the
  // first view's scale would take the one worker thread a long while.
  JULIAVIEW j(SEED, false);
  MOVINGSTARTS starts;
  // Deep inside the basin: the view's own orbit is worth a reference, and
  // at 4000 bits it runs for a long while.
  const int DEEP = 2000;
  moveto(j.e, j.v, "0.3", "0", zoomof(DEEP), DEEP + 100);
  POOLCOUNTS before{};
  j.e.onmain([&](OVCONTEXT* c) {
    EXPECT_GE(ilogbHF(j.v->zoomabs), DEEP - 2);
    EXPECT_FALSE(j.v->flags & VP_IDLE);  // not while it is off
    before = poolcounts(c);
  });
  activateviewport(j.e.context, j.v, 1);
  ITER budget = 0, stoppedat = 0;
  size_t movedat = 0;
  int finishes = 0;
  bool inflight = false;
  waitfor([&] {
    bool go = false;
    j.e.onmain([&](OVCONTEXT* c) {
      inflight = (j.v->flags & VP_IDLE) && j.v->idle_worker;
      if (inflight && j.v->idle_iter < 2 * 512) return;
      go = true;
      if (!inflight) return;
      budget = idlebudget(j.v);
      stoppedat = j.v->idle_iter;
      movedat = starts.size();
      finishes = j.count.finish.load();
      // Out of the basin, at a scale where the view's orbit is still worth
      // a run of its own: the move reaches the main thread before the run's
      // end can, so the run is in flight when the move stops it.
      moveto(j.e, j.v, "1.5", "0", zoomof(10), 128);
      (void)c;
    });
    return go;
  });
  ASSERT_TRUE(inflight) << "the deep move started no idle run";
  EXPECT_GT(budget, 4 * 512);
  // The moved view completes, with nothing left under way.
  waitfor([&] {
    bool done = false;
    j.e.onmain([&](OVCONTEXT*) {
      done = j.count.finish.load() > finishes && !(j.v->flags & (VP_IDLE | VP_MOVING | VP_IDLESTOP)) &&
             j.v->ivainvalid == 0 && pointof(j.v->delta) == std::complex<double>(1.5, 0);
    });
    return done;
  });
  std::vector<MOVINGSTART> after = starts.since(movedat);
  ASSERT_GE(after.size(), 2u);
  // The move met the run in flight and asked it to stop ...
  EXPECT_TRUE(after[0].idle);
  EXPECT_EQ(after[0].delta, std::complex<double>(1.5, 0));
  // ... and once its end was back, the scan ran again at the new place with
  // the run's flags gone. The orbit ended on the stop, well short of its
  // budget (which would take the worker seconds).
  EXPECT_FALSE(after[1].idle);
  EXPECT_FALSE(after[1].idlestop);
  EXPECT_EQ(after[1].delta, std::complex<double>(1.5, 0));
  EXPECT_GE(after[1].iter, stoppedat);
  EXPECT_LT(after[1].iter, budget);
  j.e.onmain([&](OVCONTEXT* c) {
    EXPECT_FALSE(j.v->flags & (VP_IDLE | VP_IDLESTOP | VP_IDLEPAUSE | VP_DONOTDRAW));
    EXPECT_EQ(j.v->idle_standard, nullptr);
    EXPECT_EQ(j.v->idle_worker, nullptr);
    EXPECT_EQ(j.v->idle_delta, nullptr);
    EXPECT_EQ(j.v->idle_m, nullptr);
    EXPECT_EQ(j.v->idle_task, nullptr);
    // Whatever standard environment the view has is the new place's; the
    // stopped orbit's was let go, not kept anywhere.
    if (j.v->enonsat) {
      EXPECT_EQ(pointof(j.v->enonsat->c), std::complex<double>(1.5, 0));
    }
    POOLCOUNTS now = poolcounts(c);
    EXPECT_EQ(now.ienvironment, before.ienvironment + (j.v->enonsat ? 1 : 0));
    EXPECT_EQ(now.itask, before.itask);
  });
}
