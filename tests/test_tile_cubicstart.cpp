// The start of a general tile from a cubic of the state over the area: every
// point begins at `interpoliter` with the cubic's value instead of at 0. At
// iteration 2 the state is exactly a quadratic in the parameter's offset dc
// to the reference point c0: z_2 - Z_2 = (2 c0 + 1) dc + dc^2. Started from
// it a tile keeps its counts; a wrong cubic changes them, so the start is
// really taken. (A job counts a kernel's iterations from the state it was
// handed, the start's two included, so the saving does not show there.)
#include <gtest/gtest.h>

#include <string>

#include "area.h"
#include "environment.h"
#include "mathext.h"
#include "tilejob.h"

namespace {

// A tile next to i at depth 200, where every pixel's orbit is long and the
// reference's own orbit serves the whole tile.
TILEARGS nexttoi() {
  TILEARGS a;
  a.depth = 200;
  a.re = "0";
  a.im = "1";
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

TILERESULT run(double wrong) {
  TILEARGS a = nexttoi();
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

}  // namespace
