// A Julia view at depth 1,000 with its stack ready, computed again with the
// stack and without it. The seed is the nucleus of the atom of period 998
// next to the seahorse-valley point, whose stack from level 16 on is made by
// the bypass; the view, of width 2^-3322 (about 1e-1000), is centred on a
// point that lands on 0 after some 3,300 steps, so that its pixels end on
// the square round 0 that holds the edge of the basin there (see the
// comment at the top of tests/juliadeepview.h). One run gives: the time
// from activation until the levels the view needs are ready and until its
// first finish; the view computed again with the realm's start flags and
// with `R_JULIACORRECT | R_BYPASS` cleared, the iterations its tiles took
// each way, the share of pixels whose counts agree within 1, the fewest
// distinct counts in one tile, and how many sampled texels of each
// computation have the count of their exact start point iterated in GMP.
// The same at width 2^-30, where a tile's format still resolves the view.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "juliadeepview.h"

namespace {

using namespace juliadeep;


void juliaview(benchmark::State& state, int widthexp) {
  for (auto _ : state) {
    DEEPVIEW d(256, 5, widthexp);  // two worker threads
    state.counters["steps_to_0"] = d.place.steps;
    d.show(256, 192);
    int needed = -1, ready = -1;
    double end = nowms() + 1800000;
    bool finished = false;
    double levelsms = -1, finishms = -1;
    while (nowms() < end && (levelsms < 0 || finishms < 0)) {
      d.stack(&needed, &ready);
      if (levelsms < 0 && needed >= 0 && ready >= needed) levelsms = nowms() - d.activated;
      if (finishms < 0 && d.count.finish.load() >= 1) {
        finishms = nowms() - d.activated;
        finished = true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    state.counters["levels_needed"] = needed + 1;
    state.counters["levels_ready_ms"] = levelsms;
    state.counters["first_finish_ms"] = finishms;
    if (!finished) {
      state.SkipWithError("the view did not finish in half an hour");
      break;
    }
    double withms = d.again(R_DEFAULT, 1800);
    COUNTS with = d.counts();
    double exactwith = exactshare(d, 8, 0);
    double withoutms = d.again(R_DEFAULT & ~(R_JULIACORRECT | R_BYPASS), 1800);
    COUNTS without = d.counts();
    double exactwithout = exactshare(d, 8, 0);
    state.SetIterationTime(withms / 1000);
    AGREEMENT g = agreement(with, without);
    state.counters["again_with_ms"] = withms;
    state.counters["again_without_ms"] = withoutms;
    state.counters["iterations_with"] = static_cast<double>(with.iterations);
    state.counters["iterations_without"] = static_cast<double>(without.iterations);
    state.counters["tiles"] = with.tiles;
    state.counters["tiles_through_levels"] = with.handed;
    state.counters["deepest_level_named"] = with.deepestlevel;
    state.counters["counts_agree"] = g.share();
    state.counters["fewest_values_with"] = with.fewestvalues;
    state.counters["fewest_values_without"] = without.fewestvalues;
    state.counters["exact_with"] = exactwith;
    state.counters["exact_without"] = exactwithout;
    state.counters["interior_share"] =
        static_cast<double>(without.interior) / std::max(1L, without.interior + without.escaped + without.unknown);
  }
}

void BM_JuliaView1e1000(benchmark::State& state) { juliaview(state, 3322); }
void BM_JuliaViewWidth2e30(benchmark::State& state) { juliaview(state, 30); }

}  // namespace

BENCHMARK(BM_JuliaView1e1000)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JuliaViewWidth2e30)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
