// One general-realm view of 1024 x 768 run without a display on two worker
// threads: the time from activation to its finishing event at the view every
// new view starts with and at a width of 1e-10, and, once the start view is
// complete, the time from a zoom by 2 to the first draw list built after it.
#include <benchmark/benchmark.h>

#include <gmp.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>
#include <thread>

#include "juliastack.h"
#include "minibrotframe.h"
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

// ---------------------------------------------------------------- next to a minibrot at depth 1,000
//
// A minibrot of period 1330 about 1e-500 from i, of size about 1e-1000:
// near a Misiurewicz point of multiplier m, the atoms at distance eps have
// periods of about 2 log(1/eps) / log|m| and sizes of about eps^2 (i: a
// cycle of period 2, m = 4 (1 + i)). Its nucleus is found by Newton from
// i + 1e-500 (0.7 + 0.3i), where it converges in 15 steps; the view is put
// in the minibrot's own frame, w = lambda z, where one period acts as
// w -> w^2 + c' with c' = lambda D (c - c0) (lambda the product of 2 z_k
// over the period, D = dz_P/dc), so that the view shows the same place next
// to the minibrot as c' shows next to the whole set.
constexpr unsigned MINIPERIOD = 1330;
constexpr mp_bitcnt_t MINIBITS = 4800;
// A cheaper neighbour: the minibrot of period 32 about 7e-11 from i, of
// size about 5e-22, whose views lie at depth about 74.
constexpr unsigned SMALLPERIOD = 32;


// Main thread: the iterations the view's tiles took, as their jobs counted
// them (the list not being built is empty).
int64_t viewiterations(const VIEWPORT* v) {
  int64_t n = 0;
  for (int i = 0; i < 2; i++)
    for (int k = 0; k < v->iviewportarea[i]; k++) n += v->viewportarea[i][k].a->statiterations;
  return n;
}

// Main thread: the count channel of each of the view's tiles.
std::map<const AREA*, std::vector<float>> viewcounts(const VIEWPORT* v) {
  std::map<const AREA*, std::vector<float>> counts;
  for (int i = 0; i < 2; i++)
    for (int k = 0; k < v->iviewportarea[i]; k++) {
      const AREA* a = v->viewportarea[i][k].a;
      const TEXTURE* t = a->texture[3];
      if (!t || !t->pixels) continue;
      const float* p = static_cast<const float*>(t->pixels);
      counts[a].assign(p, p + TEXTURESIZE * TEXTURESIZE);
    }
  return counts;
}

// The share of the pixels of the tiles both hold whose counts agree: the
// same escape count within 1, or both interior, or both unknown.
double countagreement(const std::map<const AREA*, std::vector<float>>& a,
                      const std::map<const AREA*, std::vector<float>>& b) {
  long same = 0, all = 0;
  for (const auto& [area, x] : a) {
    auto it = b.find(area);
    if (it == b.end()) continue;
    const std::vector<float>& y = it->second;
    for (size_t k = 0; k < x.size(); k++) {
      all++;
      bool inner = x[k] < 0 && y[k] < 0;
      bool escape = x[k] > 0 && y[k] > 0 && std::abs(x[k] - y[k]) <= 1;
      if (inner || escape || (x[k] == 0 && y[k] == 0)) same++;
    }
  }
  return all ? static_cast<double>(same) / all : 0;
}

// The view next to the minibrot at c' = (cre, cim) in its own frame, a
// longer side of `span` there: found once, kept for all benchmarks.
VIEWARGS miniargs(double cre, double cim, double span, unsigned P = MINIPERIOD,
                  const char* startre = "0.7e-500", const char* startim = "0.3e-500") {
  VIEWARGS a = benchargs();
  minibrotframe::PLACE p = minibrotframe::place(P, MINIBITS, startre, startim, cre, cim, span, 1100);
  a.positioned = true;
  a.re = p.re;
  a.im = p.im;
  a.span = p.span;
  return a;
}

// Outside the minibrot, where its seahorse valley would be: pixels go round
// the period a few dozen times before they escape.
const VIEWARGS& minibrotview() {
  static const VIEWARGS a = miniargs(-0.75, 0.2, 0.5);
  return a;
}

// Main thread, for the view's Julia realm: the levels it needs, how many of
// them are usable (ready and valid), and how many are bypass levels.
struct STACKSTATE {
  int needed = -1, usable = -1, bypass = 0;
};
STACKSTATE stackstate(VIEWRUN* run) {
  STACKSTATE st;
  viewonmain(run, [&](OVCONTEXT*) {
    REALM* jr = run->juliarealm;
    if (!jr || !jr->juliastack) return;
    st.needed = jr->validjuliastack + 1;
    st.usable = juliastackusable(jr) + 1;
    for (int s = 0; s <= jr->validjuliastack; s++) st.bypass += jr->juliastack[s].bypass;
  });
  return st;
}

// Main thread: every tile the view waits for is made, in the realm's
// present compute cycle.
bool viewcurrent(const REALM* r, const VIEWPORT* v) {
  int i = (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1;
  for (int k = 0; k < v->iviewportarea[i]; k++) {
    const VIEWPORTAREA& va = v->viewportarea[i][k];
    if (va.priority <= 0 || va.priority == PRIO_KEEP) continue;
    const AREA* a = va.a;
    if (a->worker || !(a->flags & A_PRECALCULATED) || a->computecycle != r->computecycle) return false;
  }
  return true;
}

// Main thread: the view's iterations and counts after the finish that
// follows `redraw`, with the ms it took.
struct AGAINRUN {
  double ms = 0;
  int64_t iterations = 0;
  std::map<const AREA*, std::vector<float>> counts;
};

AGAINRUN computeagain(VIEWRUN* run, const std::function<void(OVCONTEXT*)>& before) {
  AGAINRUN out;
  VIEWPORT* v = run->viewport.load();
  int finishes = run->events[VPCALLBACK_FINISH].load();
  double t0 = nowms();
  viewonmain(run, [&](OVCONTEXT* c) {
    if (before) before(c);
    redraw(c, v);
  });
  // A finish of the computation before may still come: the view is done
  // once every tile it waits for is of the realm's present cycle.
  for (int n = finishes + 1;; n++) {
    waitviewfinish(run, n, 0);
    bool current = true;
    viewonmain(run, [&](OVCONTEXT*) { current = viewcurrent(run->realm, v); });
    if (current) break;
  }
  out.ms = nowms() - t0;
  viewonmain(run, [&](OVCONTEXT*) {
    out.iterations = viewiterations(v);
    out.counts = viewcounts(v);
  });
  return out;
}

// The minibrot view, one run: the time from activation until the levels it
// needs (up to `validjuliastack`) are all ready, given up after half an
// hour; then the view computed again with the stack as the engine runs it
// (the benchmark's time), again with its tiles handing their pixels to the
// stack (`juliahandoffperiodic`), and without the stack (`R_JULIACORRECT`
// and `R_BYPASS` cleared on the general realm, so that its tiles iterate
// every pixel against the view's reference), with the iterations the
// view's tiles took each way and the share of pixels whose counts agree
// with those without the stack.
void minibrotagain(benchmark::State& state, const VIEWARGS& args) {
  for (auto _ : state) {
    VIEWRUN run;
    if (!startfinished(state, &run, args)) break;
    state.counters["first_finish_ms"] = nowms() - run.activated;
    double end = nowms() + 1800000;
    STACKSTATE st = stackstate(&run);
    while (!(st.needed > 0 && st.usable >= st.needed) && nowms() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      st = stackstate(&run);
    }
    state.counters["stack_ready_ms"] = nowms() - run.activated;
    state.counters["levels_needed"] = st.needed;
    state.counters["levels_ready"] = st.usable;
    state.counters["bypass_levels"] = st.bypass;
    AGAINRUN with = computeagain(&run, nullptr);
    state.SetIterationTime(with.ms / 1000);
    juliahandofftally().clear();
    AGAINRUN handoff = computeagain(&run, [](OVCONTEXT*) { juliahandoffperiodic = true; });
    juliahandoffperiodic = false;
    long handed = juliahandofftally().tiles.load();
    AGAINRUN without = computeagain(&run, [&](OVCONTEXT* c) {
      switchflag(c, run.realm, 0, R_JULIACORRECT | R_BYPASS);
    });
    state.counters["again_with_ms"] = with.ms;
    state.counters["again_handoff_ms"] = handoff.ms;
    state.counters["again_without_ms"] = without.ms;
    state.counters["iterations_with"] = static_cast<double>(with.iterations);
    state.counters["iterations_handoff"] = static_cast<double>(handoff.iterations);
    state.counters["iterations_without"] = static_cast<double>(without.iterations);
    state.counters["handoff_tiles"] = static_cast<double>(handed);
    state.counters["counts_agree"] = countagreement(with.counts, without.counts);
    state.counters["counts_agree_handoff"] = countagreement(handoff.counts, without.counts);
    stopviewrun(&run);
    endviewrun(&run);
  }
}

void BM_ViewMinibrot1e1000(benchmark::State& state) {
  VIEWARGS args = minibrotview();
  args.width = 512;
  args.height = 384;
  minibrotagain(state, args);
}

// The same at depth about 74, next to the minibrot of period 32, at the
// size of the view of the stack's view test.
void BM_ViewMinibrotPeriod32(benchmark::State& state) {
  VIEWARGS args = miniargs(-0.75, 0.2, 0.5, SMALLPERIOD, "0.7e-10", "0.3e-10");
  args.width = 128;
  args.height = 96;
  minibrotagain(state, args);
}

}  // namespace

BENCHMARK(BM_ViewMinibrot1e1000)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ViewMinibrotPeriod32)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e1000StackReady)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e1000AgainWithStack)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e1000AgainWithoutStack)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ViewStartToFinish)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e10ToFinish)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e100ToFinish)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_View1e1000ToFinish)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZoomByTwoToFirstList)->UseManualTime()->Iterations(8)->Unit(benchmark::kMillisecond);
