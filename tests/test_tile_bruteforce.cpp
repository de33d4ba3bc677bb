// Tiles of the boundary computed through the engine's whole road (area job,
// canvas driver with interpolation and period tests, channel output) against
// an iteration of each sampled pixel's exact parameter in GMP.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <mutex>

#include "tiletest.h"

using namespace tiletest;

namespace {

// Pixels held against the exact iteration per tile, and its limits: counts
// are compared up to BRUTELIMIT; an escape the tile shows must come within
// ten times as long; an interior pixel's cycle must come back to within
// PERIODTOLERANCE, or PERIODLOOSE after PERIODCAP steps (or 200 periods), or
// failing that after PERIODLONGCAP.
constexpr int NSAMPLE = 4096;
constexpr int64_t BRUTELIMIT = 100000;
constexpr int64_t PERIODCAP = 200000;
constexpr int64_t PERIODLONGCAP = 10000000;
constexpr long double PERIODTOLERANCE = 1e-10L;
constexpr long double PERIODLOOSE = 1e-4L;

// A count is a property of its pixel only when a move of the parameter by a
// millionth of a pixel (2^-20) leaves it as it is. Next to the boundary many
// orbits of thousands of steps count differently for such a move (half of
// the escaping sample next to the cardioid at the golden angle, 4% in
// seahorse valley at depth 10); no arithmetic that places the pixel to less
// than that can be asked for their exact count, and they are counted apart.
constexpr double NUDGE = 1.0 / (1 << 20);

struct REFERENCE {
  int inlimit = 0;      // the exact iteration escapes within BRUTELIMIT, its count
                        // unmoved by NUDGE
  int equal = 0;        // ... and the tile's count is the same
  int unsettled = 0;    // escapes within BRUTELIMIT, but NUDGE changes the count
  int unsettledequal = 0;
  int unknown = 0;      // count 0 where the exact iteration escapes at n > 0
  int falseescape = 0;  // an escape count for a point bounded ten times as long
  std::vector<std::string> bad;
};

struct TALLY {
  int sampled = 0;
  REFERENCE exact;
  int interior = 0;    // negative counts
  int confirmed = 0;   // ... whose period the plain iteration confirms
  int interiorescapes = 0;
  int smallerperiod = 0;
  int unsettled = 0;
  std::vector<std::string> badperiod;
  TILERESULT tile;
};

void note(std::vector<std::string>* list, const char* fmt, int x, int y, long long a, long long b) {
  char line[160];
  snprintf(line, sizeof line, fmt, x, y, a, b);
  if (list->size() < 6) list->push_back(line);
}

// The tile's count k of pixel (x, y) against the exact iteration.
void compare(REFERENCE* ref, const PLACE& place, int depth, int64_t k, int x, int y,
             std::mutex* lock) {
  EXACTORBIT orbit(exactbits(depth));
  if (k > 0) {
    int64_t limit = 10 * std::max(BRUTELIMIT, k);
    int64_t b = orbit.count(place, x, y, limit);
    bool settled = b > BRUTELIMIT || orbit.count(place, x, y, limit, NUDGE) == b;
    std::lock_guard<std::mutex> g(*lock);
    if (b < 0 && !settled) {
      ref->unsettled++;
    } else if (b < 0) {
      ref->falseescape++;
      // Always shown: the list of differences may be full already.
      printf("      (%d,%d) tile %lld, bounded to %lld\n", x, y, static_cast<long long>(k),
             static_cast<long long>(limit));
    } else if (b <= BRUTELIMIT && !settled) {
      ref->unsettled++;
      ref->unsettledequal += b == k;
    } else if (b <= BRUTELIMIT) {
      ref->inlimit++;
      ref->equal += b == k;
      if (b != k) note(&ref->bad, "(%d,%d) tile %lld, exact %lld", x, y, k, b);
    }
  } else if (k == 0) {
    int64_t b = orbit.count(place, x, y, BRUTELIMIT);
    std::lock_guard<std::mutex> g(*lock);
    if (b == 0) {
      ref->inlimit++;
      ref->equal++;
    } else if (b > 0) {
      ref->unknown++;
      note(&ref->bad, "(%d,%d) tile %lld, exact %lld", x, y, k, b);
    }
  }
}

void checkinterior(TALLY* t, long double cr, long double ci, int period, int x, int y,
                   std::mutex* lock) {
  int divisor = 0;
  PERIOD v = bruteforceperiod(cr, ci, period, std::max<int64_t>(PERIODCAP, 200 * period),
                              PERIODTOLERANCE, PERIODLOOSE, &divisor);
  // Next to a component's boundary the cycle attracts so weakly that the
  // orbit takes millions of steps to come back within PERIODLOOSE.
  if (v == PERIOD::UNSETTLED)
    v = bruteforceperiod(cr, ci, period, PERIODLONGCAP, PERIODTOLERANCE, PERIODLOOSE, &divisor);
  int64_t b = v == PERIOD::ESCAPED ? bruteforcecount<long double>(cr, ci, BRUTELIMIT) : -1;
  std::lock_guard<std::mutex> g(*lock);
  t->interior++;
  t->confirmed += v == PERIOD::CONFIRMED;
  t->unsettled += v == PERIOD::UNSETTLED;
  if (v == PERIOD::ESCAPED) {
    t->interiorescapes++;
    t->exact.inlimit += b >= 0;
    note(&t->badperiod, "(%d,%d) tile period %lld, plain escapes at %lld", x, y, period, b);
  } else if (v == PERIOD::SMALLER) {
    t->smallerperiod++;
    note(&t->badperiod, "(%d,%d) tile period %lld, period %lld returns too", x, y, period, divisor);
  } else if (v == PERIOD::UNSETTLED) {
    note(&t->badperiod, "(%d,%d) tile period %lld: no return (%lld)", x, y, period, 0);
  }
}

// One tile and its sample, once per process.
const TALLY& tally(int index) {
  static std::map<int, TALLY> done;
  auto it = done.find(index);
  if (it != done.end()) return it->second;
  TALLY& t = done[index];
  const TILESPOT& spot = BOUNDARYTILES[index];
  std::string error;
  if (!runtile(spot, R_DEFAULT, CHANNELMASK_COUNT, &t.tile, &error)) {
    ADD_FAILURE() << error;
    return t;
  }
  const std::vector<float>& count = t.tile.channel[CHANNEL_COUNT];
  PLACE place(t.tile.cornerre, t.tile.cornerim, spot.depth);
  std::vector<int> sample = samplepixels(NSAMPLE, 1000u * spot.depth + index);
  std::mutex lock;
  parallelfor(NSAMPLE, [&](int i) {
    int p = sample[i], x = p % TEXTURESIZE, y = p / TEXTURESIZE;
    int64_t k = static_cast<int64_t>(count[p]);
    compare(&t.exact, place, spot.depth, k, x, y, &lock);
    if (k < 0) checkinterior(&t, place.re(x), place.im(y), static_cast<int>(-k), x, y, &lock);
  });
  t.sampled = NSAMPLE;

  const REFERENCE& r = t.exact;
  printf("%-16s depth %2d %s corner (%.20s, %.20s), %.0f ms, %lld iterations, %d sampled\n",
         spot.name, spot.depth, t.tile.format.c_str(), t.tile.cornerre.c_str(),
         t.tile.cornerim.c_str(), t.tile.ms, static_cast<long long>(t.tile.iterations), t.sampled);
  printf("  exact      : %d escape within %lld, %d equal (%.3f%%), %d unknown, %d false escapes;"
         " %d more moved by a 2^-20 pixel, %d of them equal\n",
         r.inlimit, static_cast<long long>(BRUTELIMIT), r.equal,
         r.inlimit ? 100.0 * r.equal / r.inlimit : 100.0, r.unknown, r.falseescape, r.unsettled,
         r.unsettledequal);
  for (const std::string& s : r.bad) printf("      %s\n", s.c_str());
  printf("  interior   : %d, %d confirmed, %d escape, %d smaller period, %d unsettled\n", t.interior,
         t.confirmed, t.interiorescapes, t.smallerperiod, t.unsettled);
  for (const std::string& s : t.badperiod) printf("      %s\n", s.c_str());
  return t;
}

std::string nameof(const ::testing::TestParamInfo<int>& info) {
  return tilename(BOUNDARYTILES[info.param]);
}

// The tile against the exact iteration: the format's arithmetic, the pixel
// placement, the driver's closure and the painting of the counts. An unknown
// pixel (count 0 where the exact orbit escapes later) is allowed up to 1% of
// the sample, and is not counted as a different count.
class TileExact : public ::testing::TestWithParam<int> {};
TEST_P(TileExact, CountsAgreeWithTheExactIteration) {
  const TALLY& t = tally(GetParam());
  const REFERENCE& r = t.exact;
  ASSERT_EQ(t.sampled, NSAMPLE);
  // Most of every sample is settled: the comparison is not made on a handful.
  EXPECT_GE(r.inlimit + t.interior, NSAMPLE / 2);
  EXPECT_GE(r.equal, 0.995 * r.inlimit);
  EXPECT_LE(r.unknown, 0.01 * NSAMPLE);
}
INSTANTIATE_TEST_SUITE_P(Boundary, TileExact, ::testing::Range(0, NBOUNDARYTILES), nameof);

// No pixel shows an escape where the exact orbit stays bounded ten times as
// long (and still does a 2^-20 pixel away).
class TileEscapes : public ::testing::TestWithParam<int> {};
TEST_P(TileEscapes, OnlyWhereTheExactOrbitEscapes) {
  const TALLY& t = tally(GetParam());
  ASSERT_EQ(t.sampled, NSAMPLE);
  EXPECT_EQ(t.exact.falseescape, 0);
}
INSTANTIATE_TEST_SUITE_P(Boundary, TileEscapes, ::testing::Range(0, NBOUNDARYTILES), nameof);

// Interior pixels carry a period whose cycle the plain iteration finds: the
// least period, and no interior shown over the outside at a cusp.
class TileInterior : public ::testing::TestWithParam<int> {};
TEST_P(TileInterior, PeriodsAreConfirmed) {
  const TALLY& t = tally(GetParam());
  ASSERT_EQ(t.sampled, NSAMPLE);
  EXPECT_EQ(t.interiorescapes, 0);
  EXPECT_EQ(t.smallerperiod, 0);
  EXPECT_GE(t.confirmed, 0.995 * t.interior);
}
INSTANTIATE_TEST_SUITE_P(Boundary, TileInterior, ::testing::Range(0, NBOUNDARYTILES), nameof);

}  // namespace
