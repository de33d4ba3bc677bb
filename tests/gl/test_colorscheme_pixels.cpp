// The built-in schemes "Smooth" and "Distance and iteration levels" drawn on
// a real GL from tiles of known channel values: each pixel has the colour
// the scheme's code gives those values.
#include <gtest/gtest.h>

#include "schemedraw.h"

#include <cmath>
#include <string>

namespace {

using namespace schemedraw;

class SchemePixels : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ready = gltest::open(); }
  static void TearDownTestSuite() { gltest::close(); }
  void SetUp() override {
    ASSERT_TRUE(ready) << "no GL context (run under xvfb-run)";
    schemes = builtincolorschemes(NULL, NULL);
  }
  void TearDown() override {
    if (schemes) releasejobject(schemes);
  }
  Colorscheme* scheme(const char* name) {
    auto* cs = static_cast<Colorscheme*>(getjdict(schemes, name));
    EXPECT_NE(cs, nullptr) << name;
    if (cs) {
      EXPECT_NE(cs->prog, 0u) << name;
    }
    return cs;
  }
  static inline bool ready = false;
  JDICT* schemes = nullptr;
};

void expectnear(std::array<int, 3> got, std::array<int, 3> want, int tolerance, const std::string& what) {
  for (int k = 0; k < 3; k++) EXPECT_NEAR(got[k], want[k], tolerance) << what << ", component " << k;
}

COLOUR scaled(COLOUR c, double f) {
  for (double& v : c) v *= f;
  return c;
}

COLOUR plus(COLOUR c, double white) {
  for (double& v : c) v += white;
  return c;
}

// ---------------------------------------------------------------- Smooth

// Per block of 16 texels along x (so that the two-by-two samples of a
// block's inner pixels read one value): bounded on the left half, escaped
// with fractional counts on the right.
float smoothvalue(int x) {
  int k = x / 16;
  return x < SIZE / 2 ? -(1.3f + 0.71f * k) : 0.45f + 0.83f * (k - 8);
}

TEST_F(SchemePixels, SmoothGivesThePaletteOfTheFractionalCount) {
  Colorscheme* cs = scheme("Smooth");
  ASSERT_NE(cs, nullptr);
  EXPECT_EQ(cs->channels, CHANNELMASK_SITER);
  TILE siter = filled([](int x, int) { return smoothvalue(x); });
  Params p;
  initParams(&p);
  p.frequency = 0.7f;  // waves fast enough that a fraction of a count shows
  p.brightnessfinite = 0.9f;
  p.brightnessinfinite = 0.5f;
  Uniforms u = {};
  PIXELS px = draw(cs, {siter}, p, u);
  ASSERT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  float bf = brightnessfactor(p);
  for (int k = 0; k < SIZE / 16; k++) {
    double v = smoothvalue(16 * k);
    COLOUR want = v >= 0 ? pal(p, v + 0.5, p.brightnessfinite / bf) : pal(p, -v + 0.5, p.brightnessinfinite / bf);
    expectnear(px.at(16 * k + 8, 100), bytes(want), 2, "block " + std::to_string(k));
  }
  // The fraction counts: the escaped blocks are not the colours of their
  // whole counts.
  int differ = 0;
  for (int k = 8; k < 16; k++) {
    std::array<int, 3> whole = bytes(pal(p, std::floor(smoothvalue(16 * k)) + 0.5, p.brightnessfinite / bf));
    std::array<int, 3> got = px.at(16 * k + 8, 100);
    differ += std::abs(got[0] - whole[0]) + std::abs(got[1] - whole[1]) + std::abs(got[2] - whole[2]) > 12;
  }
  EXPECT_GE(differ, 6);
}

TEST_F(SchemePixels, SmoothZeroIsEscapedAndInversionComesLast) {
  Colorscheme* cs = scheme("Smooth");
  ASSERT_NE(cs, nullptr);
  TILE siter = filled([](int x, int) { return x < SIZE / 2 ? 0.0f : -2.25f; });
  Params p;
  initParams(&p);
  p.brightnessfinite = 1.0f;
  p.brightnessinfinite = 0.3f;
  Uniforms u = {};
  PIXELS px = draw(cs, {siter}, p, u);
  float bf = brightnessfactor(p);
  expectnear(px.at(60, 60), bytes(pal(p, 0.5, p.brightnessfinite / bf)), 2, "zero");
  expectnear(px.at(200, 60), bytes(pal(p, 2.75, p.brightnessinfinite / bf)), 2, "bounded");
  p.inverse = true;
  PIXELS inv = draw(cs, {siter}, p, u);
  for (int k = 0; k < 3; k++) {
    EXPECT_NEAR(inv.at(60, 60)[k], 255 - px.at(60, 60)[k], 1);
    EXPECT_NEAR(inv.at(200, 60)[k], 255 - px.at(200, 60)[k], 1);
  }
}

// ---------------------------------------------------------------- Distance and iteration levels

// Three bands of rows, blocks of 32 texels along x. With a correction of
// 256 a distance texel of 1/256 is one pixel, so block k's distances are
// k/4 pixel.
constexpr int BAND1 = 96, BAND2 = 176;
constexpr int OUTSIDE = 7, INSIDE = -20;

float blockdistance(int x) { return (x / 32) * 0.25f / 256; }

struct LEVELTILES {
  TILE iter = filled([](int, int y) { return itertexel(y < BAND2 ? OUTSIDE : INSIDE); });
  // The outline's distance: none in the first band, by block below.
  TILE dist = filled([](int x, int y) { return y < BAND1 ? 0.0f : blockdistance(x); });
  // The levels' distance: by block in the first band, half a pixel below.
  TILE dist2 = filled([](int x, int y) { return y < BAND1 ? blockdistance(x) : 0.5f / 256; });
};

// What the scheme's code gives for the values of the tiles above, with
// reach factors e^(5 param[0]) for the outline and e^(5 param[1] - 1.5)
// for the levels.
COLOUR levelsexpected(const Params& p, int iter, double dist, double dist2) {
  float bf = brightnessfactor(p);
  COLOUR c = {0, 0, 0};
  if (iter < 0) {
    c = pal(p, -iter + 0.5, p.brightnessinfinite / bf);
  } else {
    double rr2 = dist2 * std::exp(5.0 * p.param[1] - 1.5);
    if (rr2 < 1 && rr2 != 0) c = scaled(pal(p, iter + 0.5, p.brightnessfinite / bf), 1 - rr2);
  }
  double rr = dist * std::exp(5.0 * p.param[0]);
  if (rr < 1 && rr != 0) c = plus(c, (1 - rr) * p.brightnessfinite);
  return c;
}

void expectlevels(const PIXELS& px, const Params& p, const std::string& what) {
  for (int k = 0; k < SIZE / 32; k++) {
    double d = k * 0.25;
    int x = 32 * k + 16;
    expectnear(px.at(x, 48), bytes(levelsexpected(p, OUTSIDE, 0, d)), 2, what + ": levels, block " + std::to_string(k));
    expectnear(px.at(x, 136), bytes(levelsexpected(p, OUTSIDE, d, 0.5)), 2,
               what + ": outline over levels, block " + std::to_string(k));
    expectnear(px.at(x, 216), bytes(levelsexpected(p, INSIDE, d, 0.5)), 2,
               what + ": outline inside, block " + std::to_string(k));
  }
}

TEST_F(SchemePixels, DistanceLevelsFadeThePaletteOutsideAndDrawTheOutline) {
  Colorscheme* cs = scheme("Distance and iteration levels");
  ASSERT_NE(cs, nullptr);
  EXPECT_EQ(cs->channels, CHANNELMASK_ITER | CHANNELMASK_DIST | CHANNELMASK_DIST2);
  EXPECT_EQ(cs->nparam, 2);
  LEVELTILES t;
  Params p;
  initParams(&p);
  p.brightnessfinite = 0.4f;
  p.brightnessinfinite = 0.6f;
  p.param[0] = 0;
  p.param[1] = 0.3f;  // the levels' reach factor is 1
  Uniforms u = {};
  u.globalcorrection = 1;
  PIXELS px = draw(cs, {t.iter, t.dist, t.dist2}, p, u, 256);
  ASSERT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  expectlevels(px, p, "reach 1");
  // Some of it is neither black nor the plain palette: the fade is seen.
  std::array<int, 3> half = px.at(32 * 2 + 16, 48), full = bytes(pal(p, OUTSIDE + 0.5, 0.4 / brightnessfactor(p)));
  EXPECT_NE(half, full);
  EXPECT_NE(half, (std::array<int, 3>{0, 0, 0}));
}

TEST_F(SchemePixels, DistanceLevelsFollowTheirTwoParameters) {
  Colorscheme* cs = scheme("Distance and iteration levels");
  ASSERT_NE(cs, nullptr);
  LEVELTILES t;
  Params p;
  initParams(&p);
  p.brightnessfinite = 0.5f;
  p.brightnessinfinite = 0.5f;
  // The levels reach e times less far, the outline e^-1 as far (wider).
  p.param[0] = -0.2f;
  p.param[1] = 0.5f;
  Uniforms u = {};
  u.globalcorrection = 1;
  PIXELS px = draw(cs, {t.iter, t.dist, t.dist2}, p, u, 256);
  expectlevels(px, p, "wider outline, shorter levels");
  // A second global correction scales every distance alike.
  u.globalcorrection = 0.5f;
  px = draw(cs, {t.iter, t.dist, t.dist2}, p, u, 512);
  expectlevels(px, p, "correction split");
}

}  // namespace
