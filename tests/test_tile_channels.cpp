// The nine channels of a tile held against what they mean: the scaled count
// against the count, the distance estimate against the Green's function of a
// plain orbit, the derivative against the plain derivative at the same step,
// dist2 against the pixel's own value and derivative, and the smooth count
// against a plain smooth count and against its neighbours.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>

#include "tiletest.h"

using namespace tiletest;

namespace {

constexpr unsigned int ALLCHANNELS = (1u << NCHANNELS) - 1;
constexpr int NSAMPLE = 3000;

// The shallow areas: every one of them is computed in double, and a plain
// long double orbit is far more exact than the tile there.
const TILESPOT* const SHALLOW[] = {&BOUNDARYTILES[2], &BOUNDARYTILES[3], &BOUNDARYTILES[9],
                                   &BOUNDARYTILES[16]};

// Each area is computed once and kept for every test of it.
const TILERESULT& tileof(const TILESPOT& spot) {
  static std::map<const TILESPOT*, std::unique_ptr<TILERESULT>> tiles;
  static std::mutex lock;
  std::lock_guard<std::mutex> g(lock);
  auto& slot = tiles[&spot];
  if (!slot) {
    slot = std::make_unique<TILERESULT>();
    std::string error;
    bool ok = runtile(spot, R_DEFAULT, ALLCHANNELS, slot.get(), &error);
    EXPECT_TRUE(ok) << error;
  }
  return *slot;
}

float at(const TILERESULT& t, int ch, int x, int y) { return t.channel[ch][y * TEXTURESIZE + x]; }
int countat(const TILERESULT& t, int x, int y) {
  return static_cast<int>(at(t, CHANNEL_COUNT, x, y));
}

class TileChannels : public ::testing::TestWithParam<const TILESPOT*> {
 protected:
  void SetUp() override {
    tile = &tileof(*GetParam());
    ASSERT_EQ(tile->channel[CHANNEL_COUNT].size(), static_cast<size_t>(TILEPIXELS));
    place = std::make_unique<PLACE>(tile->cornerre, tile->cornerim, GetParam()->depth);
  }
  const TILERESULT* tile = nullptr;
  std::unique_ptr<PLACE> place;
};

TEST_P(TileChannels, IterIsCountTimesTwoToMinus30) {
  const TILERESULT& t = *tile;
  int escaped = 0, bad = 0;
  for (int i = 0; i < TILEPIXELS; i++) {
    float c = t.channel[CHANNEL_COUNT][i];
    if (c > 0) escaped++;
    // A power of two scales a float exactly.
    if (t.channel[CHANNEL_ITER][i] != std::ldexp(c, -30) && bad++ < 5)
      ADD_FAILURE() << "pixel " << i << ": " << t.channel[CHANNEL_ITER][i] << " for count " << c;
  }
  EXPECT_EQ(bad, 0);
  EXPECT_GT(escaped, TILEPIXELS / 10);
}


// The plain smooth count of c: z_N, the first of the orbit with |z_N|^2 >
// 1e10, gives N - log2(log2 |z_N|); NaN if that takes beyond `limit`.
long double bruteforcesmooth(long double cr, long double ci, int64_t limit) {
  long double x = 0, y = 0;
  for (int64_t n = 0; n < limit; n++) {
    long double l = x * x + y * y;
    if (l > 1e10L) return n - std::log2(0.5L * std::log2(l));
    long double nx = x * x - y * y + cr;
    y = 2 * x * y + ci;
    x = nx;
  }
  return NAN;
}

// The escaped pixels of a fixed sample whose plain count in long double is
// the tile's: the ones a plain orbit can speak for.
std::vector<int> agreeingsample(const TILERESULT& t, const PLACE& place, uint32_t seed,
                                int* escaped) {
  std::vector<int> sample = samplepixels(NSAMPLE, seed), keep;
  std::vector<char> agree(sample.size(), 0);
  parallelfor(static_cast<int>(sample.size()), [&](int k) {
    int i = sample[k];
    int n = static_cast<int>(t.channel[CHANNEL_COUNT][i]);
    if (n <= 0) return;
    int x = i % TEXTURESIZE, y = i / TEXTURESIZE;
    agree[k] = bruteforcecount<long double>(place.re(x), place.im(y), n + 2) == n ? 2 : 1;
  });
  *escaped = 0;
  for (size_t k = 0; k < sample.size(); k++) {
    if (agree[k]) ++*escaped;
    if (agree[k] == 2) keep.push_back(sample[k]);
  }
  return keep;
}

// Channels 5 and 6 are dz/dc of the stored state, the last z inside the
// escape radius (the count n), times the grid step.
TEST_P(TileChannels, DerivativeIsPlainDerivativeInGridSteps) {
  const TILERESULT& t = *tile;
  int escaped = 0;
  std::vector<int> pixels = agreeingsample(t, *place, 11, &escaped);
  ASSERT_GT(pixels.size(), escaped * 0.9) << "the plain count differs too often";
  ASSERT_GT(pixels.size(), 200u);
  std::vector<double> err(pixels.size()), zerr(pixels.size());
  long double step = place->step();
  parallelfor(static_cast<int>(pixels.size()), [&](int k) {
    int i = pixels[k], x = i % TEXTURESIZE, y = i / TEXTURESIZE;
    long double zr, zi, dr, di;
    bruteforcestate(place->re(x), place->im(y), countat(t, x, y), &zr, &zi, &dr, &di);
    dr *= step, di *= step;
    long double er = at(t, CHANNEL_DERIVATIVEX, x, y) - dr;
    long double ei = at(t, CHANNEL_DERIVATIVEY, x, y) - di;
    err[k] = static_cast<double>(std::hypot(er, ei) / std::hypot(dr, di));
    zerr[k] = static_cast<double>(std::hypot(at(t, CHANNEL_VALUEX, x, y) - zr,
                                             at(t, CHANNEL_VALUEY, x, y) - zi));
  });
  int good = 0, zgood = 0;
  double worst = 0;
  for (size_t k = 0; k < pixels.size(); k++) {
    if (err[k] < 1e-3) good++;
    if (zerr[k] < 1e-5) zgood++;
    worst = std::max(worst, err[k]);
  }
  printf("  %zu pixels: derivative within 1e-3 for %d, value within 1e-5 for %d, worst %.3g\n",
         pixels.size(), good, zgood, worst);
  EXPECT_GE(good, 0.95 * pixels.size());
  EXPECT_GE(zgood, 0.95 * pixels.size());
}

// Channel 4 against G / |grad G| of the plain orbit's Green's function, the
// gradient by central differences an eighth of a grid step wide, on pixels
// inside a patch of equal counts (away from where a cell's corner and its
// pixels could differ in count).
TEST_P(TileChannels, DistanceMatchesGreensFunction) {
  const TILERESULT& t = *tile;
  std::vector<int> pixels;
  for (int i = 0; i < TILEPIXELS; i++) {
    int x = i % TEXTURESIZE, y = i / TEXTURESIZE;
    int n = countat(t, x, y);
    if (n <= 0) continue;
    if (n <= 20 || x < 1 || y < 1 || x > TEXTURESIZE - 2 || y > TEXTURESIZE - 2) continue;
    bool flat = true;
    for (int j = -1; j <= 1; j++)
      for (int k = -1; k <= 1; k++) flat = flat && countat(t, x + k, y + j) == n;
    if (flat) pixels.push_back(i);
  }
  std::mt19937 rng(5);
  std::shuffle(pixels.begin(), pixels.end(), rng);
  pixels.resize(std::min<size_t>(pixels.size(), 1500));
  ASSERT_GT(pixels.size(), 100u);
  std::vector<double> rel(pixels.size());
  parallelfor(static_cast<int>(pixels.size()), [&](int k) {
    int i = pixels[k], x = i % TEXTURESIZE, y = i / TEXTURESIZE;
    int64_t limit = countat(t, x, y) + 1000;
    auto green = [&](double gx, double gy) {
      return bruteforcegreen(place->at(0, gx), place->at(1, gy), limit);
    };
    double h = 1.0 / 16;
    long double g = green(x + 0.5, y + 0.5);
    long double gx = (green(x + 0.5 + h, y + 0.5) - green(x + 0.5 - h, y + 0.5)) / (2 * h);
    long double gy = (green(x + 0.5, y + 0.5 + h) - green(x + 0.5, y + 0.5 - h)) / (2 * h);
    // The differences are per grid step already, and so is the quotient.
    long double expect = g / std::hypot(gx, gy);
    rel[k] = static_cast<double>(std::fabs(at(t, CHANNEL_DIST, x, y) - expect) / expect);
  });
  int good = 0;
  double worst = 0;
  for (size_t k = 0; k < pixels.size(); k++) {
    if (rel[k] < 0.1) good++;
    worst = std::max(worst, rel[k]);
  }
  printf("  %zu of %zu pixels within 10%%, worst %.3g\n", static_cast<size_t>(good), pixels.size(),
         worst);
  EXPECT_EQ(static_cast<size_t>(good), pixels.size());
}

// Every pixel the plain orbit confirms as escaped at its count has a
// positive distance, where its derivative fits in a float (beyond, the
// distance is below the smallest float).
TEST_P(TileChannels, DistancePositiveWhereEscapeConfirmed) {
  const TILERESULT& t = *tile;
  std::vector<char> confirmed(TILEPIXELS, 0);
  parallelfor(TILEPIXELS, [&](int i) {
    int x = i % TEXTURESIZE, y = i / TEXTURESIZE, n = countat(t, x, y);
    if (n > 0 && std::isfinite(at(t, CHANNEL_DERIVATIVEX, x, y)) &&
        std::isfinite(at(t, CHANNEL_DERIVATIVEY, x, y)))
      confirmed[i] = bruteforcecount<long double>(place->re(x), place->im(y), n + 2) == n;
  });
  int checked = 0, bad = 0;
  for (int i = 0; i < TILEPIXELS; i++) {
    if (!confirmed[i]) continue;
    checked++;
    if (!(t.channel[CHANNEL_DIST][i] > 0) && bad++ < 5)
      ADD_FAILURE() << "pixel " << i % TEXTURESIZE << "," << i / TEXTURESIZE << ": distance "
                    << t.channel[CHANNEL_DIST][i];
  }
  EXPECT_EQ(bad, 0);
  EXPECT_GT(checked, TILEPIXELS / 10);
}

// A positive count is an escape: an orbit stopped where its derivative
// outgrew the format (Seahorse10 has such pixels at 256 and 288 iterations)
// must not show one.
TEST_P(TileChannels, DistancePositiveForEveryPositiveCount) {
  const TILERESULT& t = *tile;
  int bad = 0;
  for (int i = 0; i < TILEPIXELS; i++) {
    if (t.channel[CHANNEL_COUNT][i] > 0 && std::isfinite(t.channel[CHANNEL_DERIVATIVEX][i]) &&
        std::isfinite(t.channel[CHANNEL_DERIVATIVEY][i]) && !(t.channel[CHANNEL_DIST][i] > 0) &&
        bad++ < 5)
      ADD_FAILURE() << "pixel " << i % TEXTURESIZE << "," << i / TEXTURESIZE << ": count "
                    << t.channel[CHANNEL_COUNT][i] << ", distance " << t.channel[CHANNEL_DIST][i];
  }
  EXPECT_EQ(bad, 0);
}

// Channel 7 is (2 - |z|) / |d|, at least 0, of the pixel's own channels 1,
// 2, 5, 6; an interior or unknown pixel has 0.
TEST_P(TileChannels, Dist2FromValueAndDerivative) {
  const TILERESULT& t = *tile;
  int bad = 0, positive = 0;
  for (int y = 0; y < TEXTURESIZE; y++) {
    for (int x = 0; x < TEXTURESIZE; x++) {
      double got = at(t, CHANNEL_DIST2, x, y);
      double expect = 0, tolerance = 0;
      bool finite = std::isfinite(at(t, CHANNEL_DERIVATIVEX, x, y)) &&
                    std::isfinite(at(t, CHANNEL_DERIVATIVEY, x, y));
      // A derivative beyond the range of a float leaves nothing to compare.
      if (countat(t, x, y) > 0 && !finite) continue;
      if (countat(t, x, y) > 0) {
        double z = std::hypot<double>(at(t, CHANNEL_VALUEX, x, y), at(t, CHANNEL_VALUEY, x, y));
        double d = std::hypot<double>(at(t, CHANNEL_DERIVATIVEX, x, y),
                                      at(t, CHANNEL_DERIVATIVEY, x, y));
        expect = std::max(0.0, (2 - z) / d);
        // The floats of z and d, and the float of the result.
        tolerance = 4 * 6e-8 * (2 + z) / d + 4 * 6e-8 * expect;
        if (expect > 0) positive++;
      }
      if (!(std::fabs(got - expect) <= tolerance) && bad++ < 5)
        ADD_FAILURE() << "pixel " << x << "," << y << ": " << got << " for " << expect;
    }
  }
  EXPECT_EQ(bad, 0);
  EXPECT_GT(positive, TILEPIXELS / 10);
}

// Channel 8 is the plain smooth count, which lies within one of the count,
// and is continuous: horizontal neighbours at least four grid steps from the
// set (where the smooth count changes by about 1 / (distance ln 2) per
// step) differ by less than half, whatever their counts.
TEST_P(TileChannels, SmoothCountMatchesPlainAndIsContinuous) {
  const TILERESULT& t = *tile;
  int escaped = 0, bad = 0;
  std::vector<int> pixels = agreeingsample(t, *place, 23, &escaped);
  ASSERT_GT(pixels.size(), 200u);
  std::vector<double> err(pixels.size());
  parallelfor(static_cast<int>(pixels.size()), [&](int k) {
    int i = pixels[k], x = i % TEXTURESIZE, y = i / TEXTURESIZE;
    long double s = bruteforcesmooth(place->re(x), place->im(y), countat(t, x, y) + 1000);
    err[k] = static_cast<double>(std::fabs(at(t, CHANNEL_SMOOTHITER, x, y) - s));
  });
  // The smooth count is n + 1 - log2 log2 |z_(n+1)| but for the pull of c on
  // the next steps: |z_(n+1)| lies in (2, 4 + |c|], which with |c| <= 2 keeps
  // it within [n - 1, n + 2].
  float lo = 1e9f, hi = -1e9f;
  for (int i : pixels) {
    int x = i % TEXTURESIZE, y = i / TEXTURESIZE, n = countat(t, x, y);
    float s = at(t, CHANNEL_SMOOTHITER, x, y);
    lo = std::min(lo, s - n), hi = std::max(hi, s - n);
    if (!(s >= 0 && s >= n - 1 && s <= n + 2) && bad++ < 5)
      ADD_FAILURE() << "pixel " << x << "," << y << ": smooth " << s << " for count " << n;
  }
  int good = 0;
  double worst = 0;
  for (size_t k = 0; k < pixels.size(); k++) {
    if (err[k] < 1e-3) good++;
    worst = std::max(worst, err[k]);
  }
  printf("  %zu pixels: smooth count within 1e-3 for %d, worst %.3g, smooth - count in [%g, %g]\n",
         pixels.size(), good, worst, lo, hi);
  EXPECT_GE(good, 0.95 * pixels.size());

  int pairs = 0, jumps = 0;
  for (int y = 0; y < TEXTURESIZE; y++) {
    for (int x = 0; x < TEXTURESIZE; x++) {
      int n = countat(t, x, y);
      if (n <= 0) continue;
      float s = at(t, CHANNEL_SMOOTHITER, x, y);
      if (!(s >= 0) && bad++ < 5) ADD_FAILURE() << "pixel " << x << "," << y << ": smooth " << s;
      if (x + 1 >= TEXTURESIZE) continue;
      int m = countat(t, x + 1, y);
      if (n <= 10 || m <= 10) continue;
      if (at(t, CHANNEL_DIST, x, y) < 4 || at(t, CHANNEL_DIST, x + 1, y) < 4) continue;
      pairs++;
      if (m != n) jumps++;
      float s2 = at(t, CHANNEL_SMOOTHITER, x + 1, y);
      if (!(std::fabs(s - s2) < 0.5f) && bad++ < 5)
        ADD_FAILURE() << "pixels " << x << "," << y << " and the next: " << s << ", " << s2
                      << " for counts " << n << ", " << m;
    }
  }
  printf("  %d neighbour pairs, %d across a count change\n", pairs, jumps);
  EXPECT_EQ(bad, 0);
  EXPECT_GT(jumps, 50);
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Shallow, TileChannels, ::testing::ValuesIn(SHALLOW),
                         [](const auto& info) { return tilename(*info.param); });
