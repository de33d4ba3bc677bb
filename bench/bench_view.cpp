// One general-realm view of 1024 x 768 run without a display on two worker
// threads: the time from activation to its finishing event at the view every
// new view starts with and at a width of 1e-10, and, once the start view is
// complete, the time from a zoom by 2 to the first draw list built after it.
#include <benchmark/benchmark.h>

#include <chrono>
#include <thread>

#include "viewrun.h"

namespace {

VIEWARGS benchargs() {
  VIEWARGS a;
  a.width = 1024;
  a.height = 768;
  a.nthread = 5;  // two worker threads
  return a;
}

// Width 1e-10 next to i, whose orbit is periodic from its second step: every
// pixel leaves within a few dozen steps.
VIEWARGS deepargs() {
  VIEWARGS a = benchargs();
  a.positioned = true;
  a.re = "0";
  a.im = "1";
  a.span = "1e-10";
  return a;
}

// Widths 1e-100 and 1e-1000 next to i, turned by -60 degrees as the
// headless proof has them.
VIEWARGS deeperargs(const char* span) {
  VIEWARGS a = deepargs();
  a.span = span;
  a.angle = -60;
  return a;
}

double nowms() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Starts the view and waits for its first finish; a view that cannot start
// ends the benchmark with its error.
bool startfinished(benchmark::State& state, VIEWRUN* run, const VIEWARGS& args) {
  std::string error;
  if (!startviewrun(run, args, nullptr, &error)) {
    state.SkipWithError(error.c_str());
    endviewrun(run);
    return false;
  }
  waitviewfinish(run, 1, 0);
  return true;
}

// Activation to the first finish; the counters split it at the moment the
// view first has an environment (the scan's reference orbit, found by
// looking every 5 ms): "reference_ms" before, "after_reference_ms" after.
void finishtime(benchmark::State& state, VIEWARGS args) {
  args.watchreference = true;
  double reference = 0, after = 0;
  int n = 0;
  for (auto _ : state) {
    VIEWRUN run;
    if (!startfinished(state, &run, args)) break;
    double finish = nowms();
    state.SetIterationTime((finish - run.activated) / 1000);
    if (run.referenced > 0) {
      reference += run.referenced - run.activated;
      after += finish - run.referenced;
      n++;
    }
    stopviewrun(&run);
    endviewrun(&run);
  }
  if (n > 0) {
    state.counters["reference_ms"] = reference / n;
    state.counters["after_reference_ms"] = after / n;
  }
}

void BM_ViewStartToFinish(benchmark::State& state) { finishtime(state, benchargs()); }

void BM_View1e10ToFinish(benchmark::State& state) { finishtime(state, deepargs()); }
void BM_View1e100ToFinish(benchmark::State& state) { finishtime(state, deeperargs("1e-100")); }
void BM_View1e1000ToFinish(benchmark::State& state) { finishtime(state, deeperargs("1e-1000")); }

// At rest at width 1e-10, a zoom by 2 about the centre: the time until a
// list built at the new position is published. (At the start view the jobs
// of the main cardioid's interior run long, and the main thread draws a
// moved view only when its next message comes.)
void BM_ZoomByTwoToFirstList(benchmark::State& state) {
  VIEWRUN run;
  if (!startfinished(state, &run, deepargs())) return;
  VIEWPORT* v = run.viewport.load();
  int finishes = 1;
  for (auto _ : state) {
    uint32_t step = atomicload(&v->icoordinatesystem) + 1;
    double t0 = nowms();
    moveviewport(run.context, v, CZEROH, cHFd({2, 0}), -1, -1, CZEROH, ZEROH, 0);
    for (;;) {
      int list = atomicload(&v->toactivatelist);
      if (list >= 0 && static_cast<int32_t>(atomicload(&v->cslist[list]) - step) >= 0) break;
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    state.SetIterationTime((nowms() - t0) / 1000);
    // The view rests again before the next zoom.
    waitviewfinish(&run, ++finishes, 0);
  }
  stopviewrun(&run);
  endviewrun(&run);
}

// The 1e-1000 view computed again once it is complete (`redraw`: a new cycle
// of the general realm, the Julia realm and its stack kept), with the
// realm's start flags, which correct by the Julia stack and build levels by
// the bypass, and without those two: what the existing stack saves.
void againtime(benchmark::State& state, bool stack) {
  VIEWARGS args = deeperargs("1e-1000");
  args.hasflags = true;
  args.flags = stack ? R_DEFAULT : R_DEFAULT & ~(R_JULIACORRECT | R_BYPASS);
  VIEWRUN run;
  if (!startfinished(state, &run, args)) return;
  VIEWPORT* v = run.viewport.load();
  int finishes = 1;
  for (auto _ : state) {
    double t0 = nowms();
    redraw(run.context, v);
    waitviewfinish(&run, ++finishes, 0);
    state.SetIterationTime((nowms() - t0) / 1000);
  }
  stopviewrun(&run);
  endviewrun(&run);
}

// The Julia stack of the 1e-1000 view: the time from activation until the
// levels the view needs (up to `validjuliastack`) are all ready, once the
// view has finished, and how many there are; given up after two minutes,
// with the levels ready by then.
void BM_View1e1000StackReady(benchmark::State& state) {
  int valid = -1, ready = -1;
  bool complete = false;
  for (auto _ : state) {
    VIEWRUN run;
    if (!startfinished(state, &run, deeperargs("1e-1000"))) break;
    double end = nowms() + 120000;
    while (!complete && nowms() < end) {
      viewonmain(&run, [&](OVCONTEXT*) {
        REALM* jr = run.juliarealm;
        valid = jr ? jr->validjuliastack : -1;
        ready = jr ? atomicload(&jr->readyjuliastack) : -1;
        complete = valid >= 0 && ready >= valid;
      });
      if (!complete) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    state.SetIterationTime((nowms() - run.activated) / 1000);
    stopviewrun(&run);
    endviewrun(&run);
  }
  state.counters["levels_needed"] = valid + 1;
  state.counters["levels_ready"] = ready + 1;
  state.counters["complete"] = complete;
}

void BM_View1e1000AgainWithStack(benchmark::State& state) { againtime(state, true); }
void BM_View1e1000AgainWithoutStack(benchmark::State& state) { againtime(state, false); }

}  // namespace

BENCHMARK(BM_View1e1000StackReady)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e1000AgainWithStack)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e1000AgainWithoutStack)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ViewStartToFinish)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e10ToFinish)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e100ToFinish)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e1000ToFinish)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZoomByTwoToFirstList)->UseManualTime()->Iterations(8)->Unit(benchmark::kMillisecond);
