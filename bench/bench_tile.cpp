// Twenty boundary tiles through computetile (one area job on a worker thread,
// channel 3 only, the realm's start flags) against a tight double loop over
// the same 65,536 pixels that finds the same escapes: its limit is the
// tile's highest count plus one, so interior pixels run to that limit.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>

#include "../tests/tiletest.h"

using namespace tiletest;

namespace {

const TILERESULT& enginetile(int index) {
  static TILERESULT results[NBOUNDARYTILES];
  static bool done[NBOUNDARYTILES];
  if (!done[index]) {
    std::string error;
    runtile(BOUNDARYTILES[index], R_DEFAULT, CHANNELMASK_COUNT, &results[index], &error);
    done[index] = true;
  }
  return results[index];
}

void BM_TileEngine(benchmark::State& state) {
  const TILESPOT& spot = BOUNDARYTILES[state.range(0)];
  TILERESULT r;
  for (auto _ : state) {
    std::string error;
    if (!runtile(spot, R_DEFAULT, CHANNELMASK_COUNT, &r, &error)) state.SkipWithError(error.c_str());
  }
  state.SetLabel(spot.name);
  state.counters["tile_ms"] = r.ms;
  state.counters["iterations"] = static_cast<double>(r.iterations);
  state.counters["vertices"] = static_cast<double>(r.verticesiterated);
}

// The loop a plain program would write, counting every step it takes.
void BM_TileBruteForce(benchmark::State& state) {
  const TILESPOT& spot = BOUNDARYTILES[state.range(0)];
  const TILERESULT& tile = enginetile(static_cast<int>(state.range(0)));
  float highest = *std::max_element(tile.channel[CHANNEL_COUNT].begin(), tile.channel[CHANNEL_COUNT].end());
  const int64_t limit = static_cast<int64_t>(std::max(highest, 0.0f)) + 1;
  PLACE place(tile.cornerre, tile.cornerim, spot.depth);
  std::vector<double> re(TEXTURESIZE), im(TEXTURESIZE);
  for (int k = 0; k < TEXTURESIZE; k++) {
    re[k] = static_cast<double>(place.re(k));
    im[k] = static_cast<double>(place.im(k));
  }
  int64_t steps = 0, same = 0;
  for (auto _ : state) {
    steps = same = 0;
    for (int y = 0; y < TEXTURESIZE; y++) {
      for (int x = 0; x < TEXTURESIZE; x++) {
        double cr = re[x], ci = im[y], zr = 0, zi = 0;
        int64_t n = 0;
        for (; n < limit; n++) {
          double nr = zr * zr - zi * zi + cr;
          double ni = 2 * zr * zi + ci;
          if (nr * nr + ni * ni > 4) break;
          zr = nr;
          zi = ni;
        }
        steps += n < limit ? n + 1 : n;
        float k = tile.channel[CHANNEL_COUNT][y * TEXTURESIZE + x];
        same += n < limit ? k == static_cast<float>(n) : k <= 0;
      }
    }
    benchmark::DoNotOptimize(steps);
  }
  state.SetLabel(spot.name);
  state.counters["iterations"] = static_cast<double>(steps);
  state.counters["limit"] = static_cast<double>(limit);
  state.counters["same_pct"] = 100.0 * same / TILEPIXELS;
}

}  // namespace

BENCHMARK(BM_TileEngine)->DenseRange(0, NBOUNDARYTILES - 1)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TileBruteForce)->DenseRange(0, NBOUNDARYTILES - 1)->Iterations(1)->Unit(benchmark::kMillisecond);
