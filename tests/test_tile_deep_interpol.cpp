// Deep general-realm tiles with interpolation: the counts stay those of the
// plain mpf iteration, and the vertices begin late in their orbits. Next to
// a Misiurewicz point every pixel of a deep tile shares most of its orbit
// with its neighbours; the interpolation exists to skip that shared part.
#include "area.h"
#include "test_tile_deep.h"

namespace {

using deeptile::DEEPCASE;

const DEEPCASE CASES[] = {
    {"i at 200", 200, "0", "1", 20000, 512, "double"},
    {"-2 at 499", 499, "-2", "0", 20000, 512, "double"},
    {"i at 1000", 1000, "0", "1", 20000, 256, "longdouble"},
};

// The iterations all pixels would take from z = 0: the sum of their counts.
double countsum(const TILERESULT& r) {
  double sum = 0;
  for (float c : r.channel[3]) sum += c > 0 ? c : 0;
  return sum;
}

TILERESULT interpolated(const DEEPCASE& c) {
  TILEARGS a = deeptile::deepargs(c);
  a.hasflags = true;
  a.flags = R_INTERPOL;
  TILERESULT r;
  std::string error;
  EXPECT_TRUE(computetile(a, &r, &error)) << error;
  return r;
}

class TileDeepInterpolation : public ::testing::TestWithParam<int> {};

TEST_P(TileDeepInterpolation, CountsStayExactAndMostIterationsAreSkipped) {
  const DEEPCASE& c = CASES[GetParam()];
  TILERESULT r = interpolated(c);
  ASSERT_EQ(r.channel[3].size(), 65536u);
  deeptile::checkdeepresult(c, r);
  // Cells whose corners all escape within one stride used to be closed
  // with an empty inside: every inside vertex then began at z = 0 and the
  // tile cost more than the plain run (about three quarters of the sum at
  // depth 1000). Filled from the stride before, a vertex runs only the
  // last few dozen iterations of its own.
  double sum = countsum(r);
  EXPECT_LT(static_cast<double>(r.iterations), 0.25 * sum)
      << r.iterations << " iterations for a count sum of " << sum;
  // Cells of one count close as they do without interpolation: next to
  // these points most of a tile is such cells.
  EXPECT_LT(r.verticesiterated, 66049 / 4);
}

std::string casename(const ::testing::TestParamInfo<int>& info) {
  static const char* const NAMES[] = {"IAt200", "MinusTwoAt499", "IAt1000"};
  return NAMES[info.param];
}

INSTANTIATE_TEST_SUITE_P(NextToMisiurewiczPoints, TileDeepInterpolation, ::testing::Values(0, 1, 2),
                         casename);

}  // namespace
