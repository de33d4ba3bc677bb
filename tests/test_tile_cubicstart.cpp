// The start of a general tile from a cubic of the state over the area: every
// point begins at `interpoliter` with the cubic's value instead of at 0. At
// iteration 2 the state is exactly a quadratic in the parameter's offset dc
// to the reference point c0: z_2 - Z_2 = (2 c0 + 1) dc + dc^2. Started from
// it a tile keeps its counts; a wrong cubic changes them, so the start is
// really taken. Without a cubic of its own from the view, a job makes one
// for its area's extent: it keeps the counts too, and most iterations of a
// deep tile are never run.
#include <gtest/gtest.h>

#include <string>

#include "area.h"
#include "environment.h"
#include "mathext.h"
#include "tilejob.h"

namespace {

// A tile next to i at depth 200, where every pixel's orbit is long and the
// reference's own orbit serves the whole tile.
TILEARGS nexttoi(int depth = 200, const char* re = "0", const char* im = "1") {
  TILEARGS a;
  a.depth = depth;
  a.re = re;
  a.im = im;
  a.general = true;
  a.channels = 8;
  a.out = "unused";
  a.referencelimit = 20000;
  return a;
}

// The quadratic of the state at iteration 2, its linear term scaled by
// `wrong` (1 for the exact one).
void quadraticstart(AREA* area, double wrong) {
  const ENVIRONMENT* e = area->e;
  ASSERT_NE(e, nullptr);
  HFLOATCOMPLEX c0 = cHF(mpf_get_HF(e->c->v[0]), mpf_get_HF(e->c->v[1]));
  HFLOATCOMPLEX t1 = caddHF2(cmulHF2(c0, HFd(2.0)), HFd(1.0));
  area->interpoliter = 2;
  area->interpoltaylor[0] = CZEROH;
  area->interpoltaylor[1] = cmulHF2(t1, HFd(wrong));
  area->interpoltaylor[2] = cHF(HFd(1.0), ZEROH);
  area->interpoltaylor[3] = CZEROH;
}

// Without the cubic start of either kind: every point from z = 0.
void plainflags(TILEARGS* a) {
  a->hasflags = true;
  a->flags = R_DEFAULT & ~R_GLOBALINTERPOL;
}

TILERESULT run(double wrong) {
  TILEARGS a = nexttoi();
  if (wrong == 0) plainflags(&a);
  if (wrong != 0) a.preparearea = [wrong](AREA* area) { quadraticstart(area, wrong); };
  TILERESULT r;
  std::string error;
  EXPECT_TRUE(computetile(a, &r, &error)) << error;
  return r;
}

int differing(const TILERESULT& a, const TILERESULT& b) {
  int n = 0;
  for (size_t k = 0; k < a.channel[3].size(); k++) n += a.channel[3][k] != b.channel[3][k];
  return n;
}

TEST(TileCubicStart, TheExactStateAtIterationTwoKeepsEveryCount) {
  TILERESULT plain = run(0), started = run(1.0);
  ASSERT_EQ(plain.channel[3].size(), 65536u);
  ASSERT_EQ(started.channel[3].size(), 65536u);
  EXPECT_GT(plain.escaped, 60000);
  EXPECT_EQ(differing(plain, started), 0);
}

TEST(TileCubicStart, AStartOffByATenthChangesCounts) {
  TILERESULT plain = run(0), wrong = run(1.1);
  ASSERT_EQ(wrong.channel[3].size(), 65536u);
  int n = differing(plain, wrong);
  printf("  %d of 65536 counts changed\n", n);
  EXPECT_GT(n, 1000);
}

// The view's point may jump periods without a cubic having been made: an
// area then has `interpoliter` set and four zero terms. Taken as a state,
// every point would stand on the reference at that iteration.
TEST(TileCubicStart, AnEmptyCubicIsNotTaken) {
  TILEARGS a = nexttoi();
  a.preparearea = [](AREA* area) { area->interpoliter = 2; };
  TILERESULT plain = run(0), empty;
  std::string error;
  ASSERT_TRUE(computetile(a, &empty, &error)) << error;
  ASSERT_EQ(empty.channel[3].size(), 65536u);
  EXPECT_EQ(differing(plain, empty), 0);
}

struct AREACASE {
  const char* name;
  int depth;
  const char* re;
  const char* im;
  int mismatches;  // at most this many counts per 10,000 differ
  int gain;        // the start saves at least this factor of iterations
};

class TileAreaCubic : public ::testing::TestWithParam<AREACASE> {};

// Interpolation off on both sides: it skips shared iterations in its own
// way, and the cubic's saving would hide behind it.
TEST_P(TileAreaCubic, KeepsTheCountsAndSkipsIterations) {
  const AREACASE& c = GetParam();
  TILEARGS plainargs = nexttoi(c.depth, c.re, c.im), ownargs = plainargs;
  plainargs.hasflags = ownargs.hasflags = true;
  plainargs.flags = R_DEFAULT & ~(R_GLOBALINTERPOL | R_INTERPOL | R_SUPERINTERPOL);
  ownargs.flags = R_DEFAULT & ~(R_INTERPOL | R_SUPERINTERPOL);
  TILERESULT plain, own;
  std::string error;
  ASSERT_TRUE(computetile(plainargs, &plain, &error)) << error;
  ASSERT_TRUE(computetile(ownargs, &own, &error)) << error;
  ASSERT_EQ(own.channel[3].size(), 65536u);
  EXPECT_GT(own.escaped, 60000);
  int n = differing(plain, own);
  printf("  %d counts differ; %lld iterations without the cubic start, %lld with it\n", n,
         static_cast<long long>(plain.iterations), static_cast<long long>(own.iterations));
  EXPECT_LE(n * 10000LL, c.mismatches * 65536LL);
  EXPECT_LT(own.iterations * c.gain, plain.iterations);
}

// Next to i and -2 the counts are smooth, and equal to the last one. Next to
// a minibrot of period 998 at depth 50 they are dust: shifting a point by
// 1e-5 of a step changes some counts by dozens, and the plain run itself
// differs from the interpolated one on a few hundred pixels.
INSTANTIATE_TEST_SUITE_P(
    DeepTiles, TileAreaCubic,
    ::testing::Values(AREACASE{"IAt200", 200, "0", "1", 0, 10},
                      AREACASE{"IAt1000", 1000, "0", "1", 0, 10},
                      AREACASE{"MinusTwoAt499", 499, "-2", "0", 0, 5},
                      AREACASE{"SeahorseDustAt50", 50, "-0.7436438870371588707780645434936425750476",
                               "0.131825904205312292821097354874767265263", 50, 1}),
    [](const ::testing::TestParamInfo<AREACASE>& info) { return std::string(info.param.name); });

}  // namespace
