// Interpolation and super-interpolation (the realm's start flags) against
// the same tiles computed with every interpolation flag off.
#include <gtest/gtest.h>

#include <cstdio>

#include "tiletest.h"

using namespace tiletest;

namespace {

class TileInterpolation : public ::testing::TestWithParam<int> {};

TEST_P(TileInterpolation, CountsMatchTheRunWithoutInterpolation) {
  const TILESPOT& spot = BOUNDARYTILES[GetParam()];
  TILERESULT on, off;
  std::string error;
  ASSERT_TRUE(runtile(spot, R_DEFAULT, CHANNELMASK_COUNT, &on, &error)) << error;
  ASSERT_TRUE(runtile(spot, 0, CHANNELMASK_COUNT, &off, &error)) << error;
  ASSERT_EQ(on.cornerre, off.cornerre);
  ASSERT_EQ(on.cornerim, off.cornerim);
  const std::vector<float>& a = on.channel[CHANNEL_COUNT];
  const std::vector<float>& b = off.channel[CHANNEL_COUNT];
  int equal = 0;
  for (int p = 0; p < TILEPIXELS; p++) equal += a[p] == b[p];
  printf("%-16s depth %2d: %.3f%% equal; iterations %lld with the start flags, %lld without; "
         "vertices %lld, %lld; %.0f ms, %.0f ms\n",
         spot.name, spot.depth, 100.0 * equal / TILEPIXELS, static_cast<long long>(on.iterations),
         static_cast<long long>(off.iterations), static_cast<long long>(on.verticesiterated),
         static_cast<long long>(off.verticesiterated), on.ms, off.ms);
  EXPECT_GE(equal, 0.995 * TILEPIXELS);
  // On these tiles the start flags iterate no fewer vertices than the plain
  // run: down to depth 30 a canvas without derivative channels has no
  // interpolation (CF_FAST), and deeper, where absolute long double is at
  // its rounding limit, a fill early enough to save work would change more
  // counts than the agreement above allows. What they do save shows on the
  // deep tiles, over an environment (test_tile_deep_interpol).
  EXPECT_GE(on.verticesiterated, off.verticesiterated);
  EXPECT_GT(on.iterations, 0);
}

std::string nameof(const ::testing::TestParamInfo<int>& info) {
  return tilename(BOUNDARYTILES[info.param]);
}

INSTANTIATE_TEST_SUITE_P(Boundary, TileInterpolation, ::testing::Range(0, NBOUNDARYTILES),
                         nameof);

}  // namespace
