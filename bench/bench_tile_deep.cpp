// Deep tiles of the general realm through orvanta-tile's engine road: the
// tile next to c = -2 at depths 30, 500, 3000 and 8000, channel 3 only. The
// timed figure is the area's job from processarea to its tiles; the
// reference (choice and orbit) is reported beside it as a counter.
//
//   build/bench/bench_tile_deep
#include <benchmark/benchmark.h>

#include <string>

#include "tilejob.h"

namespace {

void BM_TileDeep(benchmark::State& state) {
  TILEARGS a;
  a.depth = static_cast<int>(state.range(0));
  a.re = "-2";
  a.im = "0";
  a.general = true;
  a.channels = 8;
  a.out = "unused";
  a.referencelimit = 100000;
  double reference = 0, iterations = 0, vertices = 0;
  for (auto _ : state) {
    TILERESULT r;
    std::string error;
    if (!computetile(a, &r, &error)) {
      state.SkipWithError(error.c_str());
      return;
    }
    state.SetIterationTime(r.ms / 1000.0);
    reference += r.referencems;
    iterations += static_cast<double>(r.iterations);
    vertices += static_cast<double>(r.verticesiterated);
  }
  double n = static_cast<double>(state.iterations());
  state.counters["reference_ms"] = reference / n;
  state.counters["iterations"] = iterations / n;
  state.counters["vertices"] = vertices / n;
}

BENCHMARK(BM_TileDeep)
    ->Arg(30)
    ->Arg(500)
    ->Arg(3000)
    ->Arg(8000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

}  // namespace
