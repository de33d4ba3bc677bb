// Julia tiles with the realm's start flags (interpolation, super-interpolation
// and the global start on) against the same tiles with every flag off, and
// both against a plain z -> z^2 + c iteration from each pixel.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "tiletest.h"

using namespace tiletest;

namespace {

struct JULIASPOT {
  const char* name;
  const char* cre;  // the Julia parameter
  const char* cim;
  int depth;
  // The point whose area is computed; empty for the repelling fixed point
  // (1 + sqrt(1 - 4c)) / 2, which lies on the Julia set of every c.
  const char* re;
  const char* im;
};

// The rabbit (c inside the Mandelbrot set, an attracting 3-cycle), the
// dendrite of c = i (on its boundary), and two Cantor dusts (c just outside:
// beside the period-2 disc and beyond the cusp at 1/4). Tiles by the critical
// point 0, where the orbits of a cell stay a polynomial of the start for a
// long time and the interpolation carries them far, and tiles by the
// repelling fixed point, where it cannot.
const JULIASPOT SPOTS[] = {
    {"Rabbit8", "-0.123", "0.745", 8, "", ""},
    {"Rabbit20", "-0.123", "0.745", 20, "", ""},
    {"DendriteCritical12", "0", "1", 12, "0.0001", "0.0001"},
    {"DendriteCritical30", "0", "1", 30, "0.0001", "0.0001"},
    {"Dendrite16", "0", "1", 16, "", ""},
    {"DustWhole", "-0.8", "0.156", 2, "-0.5", "-0.5"},
    {"DustQuarter", "-0.8", "0.156", 3, "0.3", "0.3"},
    {"DustCritical8", "-0.8", "0.156", 8, "0.0001", "0.0001"},
    {"DustCritical16", "-0.8", "0.156", 16, "0.0001", "0.0001"},
    {"DustCritical30", "-0.8", "0.156", 30, "0.0001", "0.0001"},
    {"Dust24", "-0.8", "0.156", 24, "", ""},
    {"CuspDustCritical10", "0.285", "0.01", 10, "0.0001", "0.0001"},
    {"CuspDustCritical24", "0.285", "0.01", 24, "0.0001", "0.0001"},
    {"CuspDust12", "0.285", "0.01", 12, "", ""},
};

std::string decimal(long double v) {
  char text[64];
  snprintf(text, sizeof text, "%.21Lf", v);
  return text;
}

TILEARGS juliaargs(const JULIASPOT& s, unsigned int flags) {
  TILEARGS args;
  args.depth = s.depth;
  args.julia = true;
  args.juliare = s.cre;
  args.juliaim = s.cim;
  if (*s.re) {
    args.re = s.re;
    args.im = s.im;
  } else {
    std::complex<long double> c(std::stold(s.cre), std::stold(s.cim));
    std::complex<long double> beta = (1.0L + std::sqrt(1.0L - 4.0L * c)) / 2.0L;
    args.re = decimal(beta.real());
    args.im = decimal(beta.imag());
  }
  args.channels = CHANNELMASK_COUNT;
  args.hasflags = true;
  args.flags = flags;
  args.out = "unused";
  return args;
}

// The count of start point z under z -> z^2 + c in the arithmetic of F: n
// of the last z_n with |z_n| <= 2 when |z_(n+1)| > 2, or -1 if that does not
// happen before n reaches `limit`. The start point itself is not tested: a
// point that starts outside the disc counts its first step as any other.
template <typename F>
int64_t juliacount(F zr, F zi, F cr, F ci, int64_t limit) {
  F x = zr, y = zi;
  for (int64_t n = 0; n < limit; n++) {
    F nx = x * x - y * y + cr;
    F ny = 2 * x * y + ci;
    if (nx * nx + ny * ny > 4) return n;
    x = nx;
    y = ny;
  }
  return -1;
}

constexpr int NSAMPLE = 3000;
constexpr int64_t LIMIT = 200000;
constexpr unsigned int INTERPOLFLAGS = R_INTERPOL | R_SUPERINTERPOL | R_GLOBALINTERPOL;

// The counts of a tile's sample by plain iteration, in double and in long
// double. Beside the dusts' slow escapes a count of some hundreds can hang
// on the last bit of c itself (-0.8 in double and in long double are not the
// same number): only pixels where both agree judge a tile.
struct PLAIN {
  int64_t d, ld;
};

std::vector<PLAIN> plaincounts(const JULIASPOT& spot, const TILERESULT& tile,
                               const std::vector<int>& sample) {
  PLACE place(tile.cornerre, tile.cornerim, spot.depth);
  const long double cr = std::stold(spot.cre), ci = std::stold(spot.cim);
  const double crd = std::stod(spot.cre), cid = std::stod(spot.cim);
  std::vector<PLAIN> plain(sample.size());
  parallelfor(static_cast<int>(sample.size()), [&](int i) {
    int p = sample[i];
    long double zr = place.re(p % TEXTURESIZE), zi = place.im(p / TEXTURESIZE);
    plain[i].ld = juliacount<long double>(zr, zi, cr, ci, LIMIT);
    plain[i].d = juliacount<double>(static_cast<double>(zr), static_cast<double>(zi), crd, cid, LIMIT);
  });
  return plain;
}

// How the counted pixels (count > 0) of a sample stand against plain
// iteration.
struct AGREEMENT {
  int counted = 0;   // pixels of the sample the tile counts, where the
                     // plain counts in double and long double agree
  int equal = 0;     // ... whose count is the plain one
  int faroff = 0;    // ... whose count is more than one off
  std::string first;  // the first of those, for the message
};

AGREEMENT agreement(const std::vector<float>& count, const std::vector<int>& sample,
                    const std::vector<PLAIN>& plain) {
  AGREEMENT a;
  for (size_t i = 0; i < sample.size(); i++) {
    int p = sample[i];
    // A pixel whose count differs between the two is decided by the last
    // bits of the arithmetic, and judges nothing.
    if (!(count[p] > 0) || plain[i].d != plain[i].ld) continue;
    a.counted++;
    float d = static_cast<float>(plain[i].d);
    if (count[p] == d) {
      a.equal++;
    } else if (plain[i].d < 0 || std::fabs(count[p] - d) > 1) {
      a.faroff++;
      if (a.first.empty()) {
        char text[160];
        snprintf(text, sizeof text, "(%d,%d): %g, plain %lld", p % TEXTURESIZE, p / TEXTURESIZE,
                 count[p], static_cast<long long>(plain[i].d));
        a.first = text;
      }
    }
  }
  return a;
}

// One spot with `flags` and with the same flags less the interpolation: the
// two tiles agree, and what they count agrees with plain iteration. With
// `mustcount` the tile must count a fair part of its sample: without the
// Julia correction's derivative bound every escaping pixel is counted.
void checkspot(const JULIASPOT& spot, unsigned int flags, bool mustcount, uint32_t seed) {
  TILERESULT on, off;
  std::string error;
  ASSERT_TRUE(computetile(juliaargs(spot, flags), &on, &error)) << error;
  ASSERT_TRUE(computetile(juliaargs(spot, flags & ~INTERPOLFLAGS), &off, &error)) << error;
  ASSERT_EQ(on.cornerre, off.cornerre);
  ASSERT_EQ(on.cornerim, off.cornerim);
  const std::vector<float>& a = on.channel[CHANNEL_COUNT];
  const std::vector<float>& b = off.channel[CHANNEL_COUNT];
  ASSERT_EQ(a.size(), static_cast<size_t>(TILEPIXELS));
  ASSERT_EQ(b.size(), static_cast<size_t>(TILEPIXELS));

  int equal = 0, firstdiff = -1;
  for (int p = 0; p < TILEPIXELS; p++) {
    if (a[p] == b[p]) equal++;
    else if (firstdiff < 0) firstdiff = p;
  }
  std::vector<int> sample = samplepixels(NSAMPLE, seed);
  std::vector<PLAIN> plain = plaincounts(spot, on, sample);
  int escaping = 0;
  for (const PLAIN& n : plain) escaping += n.ld >= 1 && n.d == n.ld;
  AGREEMENT x = agreement(a, sample, plain), y = agreement(b, sample, plain);
  printf("%-18s c (%s, %s) depth %2d flags %08x: %.3f%% equal, escaped %d and %d; sample: %d "
         "escaping, counted %d/%d, equal %d/%d, far off %d/%d; %lld/%lld iterations\n",
         spot.name, spot.cre, spot.cim, spot.depth, flags, 100.0 * equal / TILEPIXELS, on.escaped,
         off.escaped, escaping, x.counted, y.counted, x.equal, y.equal, x.faroff, y.faroff,
         static_cast<long long>(on.iterations), static_cast<long long>(off.iterations));

  EXPECT_GE(equal, 0.995 * TILEPIXELS)
      << "first difference at (" << firstdiff % TEXTURESIZE << "," << firstdiff / TEXTURESIZE
      << "): " << (firstdiff >= 0 ? a[firstdiff] : 0) << " with interpolation, "
      << (firstdiff >= 0 ? b[firstdiff] : 0) << " without";
  if (mustcount) {
    ASSERT_GT(escaping, NSAMPLE / 20) << "too few escaping pixels to judge";
    EXPECT_GE(x.counted, 0.99 * escaping);
  }
  EXPECT_GE(x.equal, 0.99 * x.counted);
  EXPECT_GE(y.equal, 0.99 * y.counted);
  // A count may sit one off where a level line crosses a pixel and the
  // formats round differently; farther off it is wrong. Without
  // interpolation no pixel of these tiles is. A vertex filled from a cubic
  // carries the cubic's own small error, and beside a dust, where an orbit
  // lingers near the set for hundreds of steps, that moves a few counts by
  // much: the same share the tiles may differ by.
  EXPECT_LE(x.faroff, x.counted / 200) << x.first;
  EXPECT_LE(y.faroff, y.counted / 500) << y.first;
}

class JuliaTileInterpolation : public ::testing::TestWithParam<int> {};

// The interpolation alone, every escaping pixel counted.
TEST_P(JuliaTileInterpolation, InterpolationKeepsThePlainCounts) {
  const JULIASPOT& spot = SPOTS[GetParam()];
  checkspot(spot, INTERPOLFLAGS, true, 7919u * spot.depth + GetParam());
}

// The realm's start flags, the Julia correction's bound included.
TEST_P(JuliaTileInterpolation, StartFlagsKeepThePlainCounts) {
  const JULIASPOT& spot = SPOTS[GetParam()];
  checkspot(spot, R_DEFAULT, false, 104729u * spot.depth + GetParam());
}

std::string nameof(const ::testing::TestParamInfo<int>& info) { return SPOTS[info.param].name; }

INSTANTIATE_TEST_SUITE_P(Julia, JuliaTileInterpolation,
                         ::testing::Range(0, static_cast<int>(sizeof SPOTS / sizeof SPOTS[0])),
                         nameof);

}  // namespace
