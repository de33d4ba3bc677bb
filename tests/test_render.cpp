// The output of a finished canvas: channel tiles and PREPIXEL records from a
// cell tree built by hand, and the continuations behind the smooth count and
// the distance estimates, in every number format.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Mandelbrot.h"
#include "area.h"
#include "canvas/model.h"
#include "canvas/render.h"
#include "canvastest.h"

namespace {

typedef std::complex<double> cd;
typedef std::complex<long double> cld;
constexpr int RS = CANVASSIZE;
constexpr float SENTINEL = -12345.0f;

template <typename T>
class Render : public ::testing::Test {};

class FormatNames {
 public:
  template <typename T>
  static std::string GetName(int i) {
    static const char* const names[] = {"float", "double", "longdouble", "hfloat"};
    return names[i];
  }
};

typedef ::testing::Types<CANVASTEMPLATE_float, CANVASTEMPLATE_double, CANVASTEMPLATE_longdouble,
                         CANVASTEMPLATE_hfloat>
    FORMATS;
TYPED_TEST_SUITE(Render, FORMATS, FormatNames);

// ---------------------------------------------------------------- helpers

template <typename T>
typename T::COMPLEX fc(cd z) {
  return cmake<T>(z.real(), z.imag());
}

template <typename T>
cd tocd(typename T::COMPLEX z) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) return cdHF(z);
  else return cd(static_cast<double>(z.real()), static_cast<double>(z.imag()));
}

template <typename T>
typename T::CANVAS* fresh(JOB& job) {
  typename T::CANVAS* canvas = canvasof<T>();
  canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
  return canvas;
}

// Nine tiles, `xlag` floats a row, filled with a sentinel; the mask says
// which are handed over.
struct TILES {
  std::vector<float> buf[NCHANNELS];
  float* p[NCHANNELS];
  int xlag;
  explicit TILES(unsigned int mask, int xlag_ = 256) : xlag(xlag_) {
    for (int k = 0; k < NCHANNELS; k++) {
      p[k] = nullptr;
      if (mask & (1u << k)) {
        buf[k].assign(static_cast<size_t>(256) * xlag, SENTINEL);
        p[k] = buf[k].data();
      }
    }
  }
  float at(int ch, int x, int y) const { return buf[ch][static_cast<size_t>(y) * xlag + x]; }
};

template <typename T>
void setvertex(typename T::CANVAS* canvas, int x, int y, unsigned int cvflags, UITER iter, cd z,
               cd d) {
  typename T::CVERTEX* v = &canvas->v[y * RS + x];
  v->flags |= VX_FINISHED | VX_INTREE;
  v->v.flags = cvflags;
  v->v.iter = iter;
  v->v.value = fc<T>(z);
  v->v.d = fc<T>(d);
}

// Splits cell (i, level) as the driver does: its own corner and the three
// new top-left corners get the next level.
template <typename T>
void subdivide(typename T::CANVAS* canvas, int i, int level, std::set<std::pair<int, int>>* tree) {
  int h = 256 >> (level + 1);
  for (int q : {i, i + h, i + h * RS, i + h * RS + h}) canvas->v[q].depth = level + 1;
  if (tree) tree->insert({i, level});
}

// The top-left vertex of the leaf holding pixel (x, y), by descent.
int leafcorner(const std::set<std::pair<int, int>>& tree, int x, int y) {
  int i = 0, level = 0;
  while (tree.count({i, level})) {
    int h = 256 >> (level + 1);
    if (x >= i % RS + h) i += h;
    if (y >= i / RS + h) i += h * RS;
    level++;
  }
  return i;
}

// Splits down to a leaf of width 1 at (x, y).
template <typename T>
void makeleaf(typename T::CANVAS* canvas, int x, int y, std::set<std::pair<int, int>>* tree) {
  int i = 0;
  for (int level = 0; level < 8; level++) {
    if (!tree->count({i, level})) subdivide<T>(canvas, i, level, tree);
    int h = 256 >> (level + 1);
    if (x >= i % RS + h) i += h;
    if (y >= i / RS + h) i += h * RS;
  }
}

// The cubic through v at s = 0, 1, 1 + i, i, by Lagrange's formula.
cd lagrange(const cd v[4], cd s) {
  const cd p[4] = {cd(0, 0), cd(1, 0), cd(1, 1), cd(0, 1)};
  cd r = 0;
  for (int n = 0; n < 4; n++) {
    cd t = v[n];
    for (int m = 0; m < 4; m++)
      if (m != n) t *= (s - p[m]) / (p[n] - p[m]);
    r += t;
  }
  return r;
}

// The Green's function of the Mandelbrot set, log|z_n| / 2^n, far outside
// the escape radius.
long double green(cld c) {
  cld z = 0;
  long double scale = 1;
  for (int n = 0; n < 100000; n++) {
    z = z * z + c;
    scale *= 0.5L;
    if (std::norm(z) > 1e40L) return std::log(std::abs(z)) * scale;
  }
  return 0;
}

// G / |grad G| by central differences: what the exterior estimate is
// asymptotically, found without any derivative of the orbit.
double greenestimate(cd c) {
  const long double h = 1e-7L;
  cld cc(c.real(), c.imag());
  long double gx = (green(cc + cld(h, 0)) - green(cc - cld(h, 0))) / (2 * h);
  long double gy = (green(cc + cld(0, h)) - green(cc - cld(0, h))) / (2 * h);
  return static_cast<double>(green(cc) / std::sqrt(gx * gx + gy * gy));
}

bool near(double got, double want, double rel) {
  return std::fabs(got - want) <= rel * std::fabs(want) + 1e-30;
}

// ---------------------------------------------------------------- counts

TYPED_TEST(Render, NoFinishedVertexCountsZeroEverywhere) {
  typedef TypeParam T;
  JOB job(0, 0);
  typename T::CANVAS* canvas = fresh<T>(job);
  TILES t(0x1FF);
  canvasrender::rendercanvas<T>(gcontext, canvas, t.p, t.xlag);
  for (int y = 0; y < 256; y++)
    for (int x = 0; x < 256; x++) {
      ASSERT_EQ(t.at(CHANNEL_ITER, x, y), 0.0f) << x << "," << y;
      ASSERT_EQ(t.at(CHANNEL_COUNT, x, y), 0.0f) << x << "," << y;
      ASSERT_EQ(t.at(CHANNEL_SMOOTHITER, x, y), 0.0f) << x << "," << y;
    }
}

TYPED_TEST(Render, EveryPixelOfALeafTakesItsCornerCount) {
  typedef TypeParam T;
  JOB job(0, 0);
  typename T::CANVAS* canvas = fresh<T>(job);
  for (int i = 0; i < NCVERTEX; i++) {
    typename T::CVERTEX* v = &canvas->v[i];
    v->flags |= VX_FINISHED;
    v->v.flags = CV_ABSOLUTE | CV_ESCAPED;
    v->v.iter = 1 + static_cast<UITER>((i * 7919L) % 100000);
    v->v.value = fc<T>(cd(1.5, 0.5));
    v->v.d = fc<T>(cd(1, 0));
  }
  std::set<std::pair<int, int>> tree;
  // A staircase of leaves of every width from 128 down to 1 in the top-left
  // corner, and a few finer cells in the middle.
  for (int level = 0; level < 8; level++) subdivide<T>(canvas, 0, level, &tree);
  int mid = 128 * RS + 128;
  subdivide<T>(canvas, mid, 1, &tree);
  subdivide<T>(canvas, mid + 64, 2, &tree);
  subdivide<T>(canvas, mid + 64 + 32 * RS, 3, &tree);

  TILES t(CHANNELMASK_ITER | CHANNELMASK_COUNT);
  canvasrender::rendercanvas<T>(gcontext, canvas, t.p, t.xlag);
  for (int y = 0; y < 256; y++)
    for (int x = 0; x < 256; x++) {
      int i = leafcorner(tree, x, y);
      float c = static_cast<float>(canvas->v[i].v.iter);
      ASSERT_EQ(t.at(CHANNEL_COUNT, x, y), c) << x << "," << y;
      ASSERT_FLOAT_EQ(t.at(CHANNEL_ITER, x, y), std::ldexp(c, -30)) << x << "," << y;
    }
  // The widths in the tree: 1, 2, 4 at the staircase's end.
  EXPECT_EQ(t.at(CHANNEL_COUNT, 0, 0), static_cast<float>(canvas->v[0].v.iter));
  EXPECT_EQ(t.at(CHANNEL_COUNT, 1, 1), static_cast<float>(canvas->v[RS + 1].v.iter));
  EXPECT_EQ(t.at(CHANNEL_COUNT, 3, 3), static_cast<float>(canvas->v[2 * RS + 2].v.iter));
  EXPECT_EQ(t.at(CHANNEL_COUNT, 7, 5), static_cast<float>(canvas->v[4 * RS + 4].v.iter));
  EXPECT_NE(canvas->v[RS + 1].v.iter, canvas->v[0].v.iter);
}

TYPED_TEST(Render, AWholeTileLeafTakesCornerZero) {
  typedef TypeParam T;
  JOB job(0, 0);
  typename T::CANVAS* canvas = fresh<T>(job);
  setvertex<T>(canvas, 0, 0, CV_ABSOLUTE | CV_ESCAPED, 77, cd(1, 1), cd(1, 0));
  setvertex<T>(canvas, 256, 0, CV_ABSOLUTE | CV_ESCAPED, 78, cd(1, 1), cd(1, 0));
  TILES t(CHANNELMASK_COUNT);
  canvasrender::rendercanvas<T>(gcontext, canvas, t.p, t.xlag);
  for (int y = 0; y < 256; y++)
    for (int x = 0; x < 256; x++) ASSERT_EQ(t.at(CHANNEL_COUNT, x, y), 77.0f);
}

TYPED_TEST(Render, JuliaAttractorCountsByPhase) {
  typedef TypeParam T;
  JOB job(CF_JULIA, 0);
  job.w.idata[JOB_ATTRACTOR] = -3;
  typename T::CANVAS* canvas = fresh<T>(job);
  for (int i = 0; i < NCVERTEX; i++) canvas->v[i].depth = 8;
  for (int k = 0; k < 6; k++)
    setvertex<T>(canvas, k, 0, CV_INFTY | CV_ESCAPED, 7 + k, cd(0.1, 0), cd(1, 0));
  TILES t(CHANNELMASK_COUNT);
  canvasrender::rendercanvas<T>(gcontext, canvas, t.p, t.xlag);
  const float want[6] = {-1, -2, -3, -1, -2, -3};
  for (int k = 0; k < 6; k++) EXPECT_EQ(t.at(CHANNEL_COUNT, k, 0), want[k]) << k;

  job.w.idata[JOB_ATTRACTOR] = 0;
  canvasrender::rendercanvas<T>(gcontext, canvas, t.p, t.xlag);
  for (int k = 0; k < 6; k++) EXPECT_EQ(t.at(CHANNEL_COUNT, k, 0), -7.0f - k) << k;
}

// ---------------------------------------------------------------- interior blocks

const cd CORNERV[4] = {cd(0.1, 0.2), cd(0.3, -0.1), cd(-0.2, 0.25), cd(0.05, -0.3)};
const cd CORNERD[4] = {cd(1, 0.5), cd(0.8, -0.2), cd(1.2, 0.1), cd(0.9, 0.3)};
const int CORNERXY[4][2] = {{0, 0}, {256, 0}, {256, 256}, {0, 256}};

template <typename T>
void interiortile(typename T::CANVAS* canvas) {
  for (int n = 0; n < 4; n++)
    setvertex<T>(canvas, CORNERXY[n][0], CORNERXY[n][1], CV_INFTY, 3, CORNERV[n], CORNERD[n]);
}

TYPED_TEST(Render, InteriorTileClosedAtLevelZeroFollowsTheCubic) {
  typedef TypeParam T;
  JOB job(0, 0);
  typename T::CANVAS* canvas = fresh<T>(job);
  interiortile<T>(canvas);
  TILES t(0x1FF);
  canvasrender::rendercanvas<T>(gcontext, canvas, t.p, t.xlag);
  for (int y = 0; y < 256; y++)
    for (int x = 0; x < 256; x++) {
      ASSERT_EQ(t.at(CHANNEL_COUNT, x, y), -3.0f);
      ASSERT_FLOAT_EQ(t.at(CHANNEL_ITER, x, y), -3.0f * std::ldexp(1.0f, -30));
      ASSERT_EQ(t.at(CHANNEL_SMOOTHITER, x, y), -3.0f);
    }
  // s = 4 - 0 - 8: the derivative is scaled by 2^(s+1) = 1/8.
  const double dscale = 0.125;
  const int pts[][2] = {{0, 0}, {17, 200}, {255, 255}, {128, 64}, {3, 250}, {200, 9}};
  for (const auto& p : pts) {
    SCOPED_TRACE(std::to_string(p[0]) + "," + std::to_string(p[1]));
    cd s(p[0] / 256.0, p[1] / 256.0);
    cd f = lagrange(CORNERV, s);
    cd g = lagrange(CORNERD, s) * dscale;
    EXPECT_NEAR(t.at(CHANNEL_VALUEX, p[0], p[1]), f.real(), 1e-5);
    EXPECT_NEAR(t.at(CHANNEL_VALUEY, p[0], p[1]), f.imag(), 1e-5);
    EXPECT_NEAR(t.at(CHANNEL_DERIVATIVEX, p[0], p[1]), g.real(), 1e-5);
    EXPECT_NEAR(t.at(CHANNEL_DERIVATIVEY, p[0], p[1]), g.imag(), 1e-5);
    double dist = (1 - std::norm(f)) / std::abs(g);
    EXPECT_TRUE(near(t.at(CHANNEL_DIST, p[0], p[1]), dist, 1e-4)) << t.at(CHANNEL_DIST, p[0], p[1])
                                                                 << " vs " << dist;
  }
  // Not a bilinear blend of the corners: at s = (1 + 2i) / 4 the two differ.
  double u = 0.5, v = 0.25;
  cd bilinear = (1 - u) * (1 - v) * CORNERV[0] + u * (1 - v) * CORNERV[1] + u * v * CORNERV[2] +
                (1 - u) * v * CORNERV[3];
  cd cubic = lagrange(CORNERV, cd(u, v));
  EXPECT_GT(std::abs(cubic - bilinear), 1e-2);
  EXPECT_NEAR(t.at(CHANNEL_VALUEX, 128, 64), cubic.real(), 1e-5);
  EXPECT_NEAR(t.at(CHANNEL_VALUEY, 128, 64), cubic.imag(), 1e-5);
}

TYPED_TEST(Render, InteriorBlockPrepixelsFollowTheCubic) {
  typedef TypeParam T;
  JOB job(CF_JULIA, 0);
  typename T::CANVAS* canvas = fresh<T>(job);
  interiortile<T>(canvas);
  std::vector<PREPIXEL> px(NPREPIXEL);
  EXPECT_EQ(canvasrender::rendercanvasprepixel<T>(gcontext, canvas, px.data(), 256, false), 0);
  const int pts[][2] = {{0, 0}, {40, 99}, {255, 1}};
  for (const auto& p : pts) {
    const PREPIXEL& r = px[p[1] * 256 + p[0]];
    cd s(p[0] / 256.0, p[1] / 256.0);
    cd f = lagrange(CORNERV, s);
    cd g = lagrange(CORNERD, s) * 0.125;
    EXPECT_EQ(r.iter, -3);
    EXPECT_EQ(r.depth, -1);
    EXPECT_NEAR(r.x, f.real(), 1e-5);
    EXPECT_NEAR(r.y, f.imag(), 1e-5);
    EXPECT_TRUE(near(r.dx, (1 - std::norm(f)) / std::abs(g), 1e-4));
  }
}

// ---------------------------------------------------------------- escaped pixels

TYPED_TEST(Render, EscapedAtStartHasTinyDistanceAndNoDist2) {
  typedef TypeParam T;
  for (cd z : {cd(3, 0), cd(0, 0)}) {
    JOB job(0, 0);
    typename T::CANVAS* canvas = fresh<T>(job);
    setvertex<T>(canvas, 0, 0, CV_ABSOLUTE | CV_ESCAPED, 0, z, cd(0, 0));
    TILES t(0x1FF);
    canvasrender::rendercanvas<T>(gcontext, canvas, t.p, t.xlag);
    for (int y = 0; y < 256; y += 51)
      for (int x = 0; x < 256; x += 37) {
        EXPECT_FLOAT_EQ(t.at(CHANNEL_DIST, x, y), 1e-5f);
        EXPECT_EQ(t.at(CHANNEL_DIST2, x, y), 0.0f);
        EXPECT_EQ(t.at(CHANNEL_COUNT, x, y), 0.0f);
        EXPECT_GE(t.at(CHANNEL_SMOOTHITER, x, y), 0.0f);
      }
  }
}

// A vertex as the Mandelbrot kernel leaves it on escape: the last z inside
// the radius, its count, and the derivative scaled by `dfactor`.
struct ESCAPE {
  cd z, d, e;  // e: dz/dc unscaled
  UITER n;
};

ESCAPE escapeof(cd c, double dfactor) {
  ESCAPE r{0, 0, 0, 0};
  while (r.n < 100000) {
    cd z1 = r.z * r.z + c;
    if (std::norm(z1) > 4) return r;
    r.d = 2.0 * r.z * r.d + dfactor;
    r.e = 2.0 * r.z * r.e + 1.0;
    r.z = z1;
    r.n++;
  }
  return r;
}

TYPED_TEST(Render, EscapedVertexChannelsInGridSteps) {
  typedef TypeParam T;
  JOB job(0, 0);
  typename T::CANVAS* canvas = fresh<T>(job);
  const double step = 1.0 / 16;  // 2^s at depth 0
  cd origin(mpf_get_d(canvas->c[0]), mpf_get_d(canvas->c[1]));
  double dfactor = dHF(canvas->dfactor);
  std::set<std::pair<int, int>> tree;
  const int pts[][2] = {{3, 8}, {6, 3}, {2, 9}, {0, 10}, {9, 3}};
  ESCAPE es[5];
  for (int k = 0; k < 5; k++) {
    makeleaf<T>(canvas, pts[k][0], pts[k][1], &tree);
    cd c = origin + cd(pts[k][0], pts[k][1]) * step;
    es[k] = escapeof(c, dfactor);
    ASSERT_GT(es[k].n, 0u);
    ASSERT_LT(es[k].n, 100000u);
    setvertex<T>(canvas, pts[k][0], pts[k][1], CV_ABSOLUTE | CV_ESCAPED, es[k].n, es[k].z,
                 es[k].d);
  }
  TILES t(0x1FF);
  canvasrender::rendercanvas<T>(gcontext, canvas, t.p, t.xlag);
  for (int k = 0; k < 5; k++) {
    int x = pts[k][0], y = pts[k][1];
    SCOPED_TRACE(std::to_string(x) + "," + std::to_string(y));
    cd c = origin + cd(x, y) * step;
    EXPECT_EQ(t.at(CHANNEL_COUNT, x, y), static_cast<float>(es[k].n));
    EXPECT_NEAR(t.at(CHANNEL_VALUEX, x, y), es[k].z.real(), 1e-5);
    cd grid = es[k].e * step;
    EXPECT_TRUE(near(t.at(CHANNEL_DERIVATIVEX, x, y), grid.real(), 1e-4));
    EXPECT_TRUE(near(t.at(CHANNEL_DERIVATIVEY, x, y), grid.imag(), 1e-4));
    double want = greenestimate(c) / step;
    EXPECT_TRUE(near(t.at(CHANNEL_DIST, x, y), want, 0.02))
        << t.at(CHANNEL_DIST, x, y) << " vs " << want;
    double d2 = std::max(0.0, (2 - std::abs(es[k].z)) / std::abs(grid));
    EXPECT_TRUE(near(t.at(CHANNEL_DIST2, x, y), d2, 1e-4));
    float sm = t.at(CHANNEL_SMOOTHITER, x, y);
    EXPECT_GT(sm, es[k].n - 1.0f);
    EXPECT_LE(sm, es[k].n + 1.0f);
  }
}

// ---------------------------------------------------------------- the continuations

TYPED_TEST(Render, SmoothiterNeverNegative) {
  typedef TypeParam T;
  long checked = 0;
  for (double zx = -3; zx <= 3; zx += 0.37)
    for (double zy = -3; zy <= 3; zy += 0.41)
      for (double cx = -2.5; cx <= 2.5; cx += 0.45)
        for (double cy = -2.5; cy <= 2.5; cy += 0.55)
          for (ITER iter : {0, 1, 7, 1000}) {
            float r = canvasrender::smoothiter<T>(fc<T>(cd(zx, zy)), fc<T>(cd(cx, cy)), iter);
            ASSERT_TRUE(std::isfinite(r)) << zx << " " << zy << " " << cx << " " << cy;
            ASSERT_GE(r, 0.0f) << zx << " " << zy << " " << cx << " " << cy << " " << iter;
            checked++;
          }
  EXPECT_GT(checked, 10000);
  // Huge z at count 0 would give a negative log-log correction.
  EXPECT_GE(canvasrender::smoothiter<T>(fc<T>(cd(1e9, 0)), fc<T>(cd(0, 0)), 0), 0.0f);
  EXPECT_EQ(canvasrender::smoothiter<T>(fc<T>(cd(0.1, 0)), fc<T>(cd(0, 0)), -5), -5.0f);
}

TYPED_TEST(Render, SmoothiterIsContinuousWhereTheCountJumps) {
  typedef TypeParam T;
  const double angles[] = {0.0, 1.2, 2.6};
  for (double a : angles) {
    int jumps = 0;
    double prevsm = 0;
    UITER prevn = 0;
    const double dr = 1e-4;
    for (double r = 0.9; r < 2.2; r += dr) {
      cd c = std::polar(r, a);
      ESCAPE e = escapeof(c, 1.0);
      if (e.n > 5000) continue;
      double sm = canvasrender::smoothiter<T>(fc<T>(e.z), fc<T>(c), static_cast<ITER>(e.n));
      if (prevn != 0 && e.n != prevn) {
        jumps++;
        EXPECT_NEAR(sm, prevsm, 0.02) << "angle " << a << " r " << r << " counts " << prevn
                                      << " -> " << e.n;
      }
      prevsm = sm;
      prevn = e.n;
    }
    EXPECT_GE(jumps, 2) << "angle " << a;
  }
}

TYPED_TEST(Render, DistmAgreesWithTheGreensFunction) {
  typedef TypeParam T;
  const cd cs[] = {cd(1, 0), cd(0.3, 0), cd(-0.75, 0.1), cd(0.5, 0.5), cd(-2.1, 0), cd(0, 1.1)};
  for (cd c : cs) {
    double est = canvasrender::distm<T>(fc<T>(0), fc<T>(0), fc<T>(c), freal<T>(1.0));
    double want = greenestimate(c);
    EXPECT_TRUE(near(est, want, 0.02)) << c << ": " << est << " vs " << want;
  }
  // At c = 1 the nearest point of the set is some 0.6 to 0.75 away (0.25 is
  // in it), and the estimate stays within a factor two of the distance.
  double est1 = canvasrender::distm<T>(fc<T>(0), fc<T>(0), fc<T>(cd(1, 0)), freal<T>(1.0));
  EXPECT_GT(est1, 0.3);
  EXPECT_LT(est1, 1.5);
}

TYPED_TEST(Render, DistjOfTheUnitCircle) {
  typedef TypeParam T;
  // J(0) is the unit circle: the estimate is |z| log|z|, which tends to the
  // distance |z| - 1.
  for (double r : {1.5, 1.1, 1.01, 1.001}) {
    cd z = std::polar(r, 0.7);
    double est = canvasrender::distj<T>(fc<T>(z), fc<T>(1), fc<T>(0), 1, fc<T>(0), freal<T>(0));
    EXPECT_TRUE(near(est, r * std::log(r), 2e-3)) << r << ": " << est;
  }
  double est = canvasrender::distj<T>(fc<T>(1.001), fc<T>(1), fc<T>(0), 1, fc<T>(0), freal<T>(0));
  EXPECT_NEAR(est / 0.001, 1.0, 0.01);
  EXPECT_EQ(canvasrender::distj<T>(fc<T>(1.5), fc<T>(1), fc<T>(0), 0, fc<T>(0), freal<T>(0)), 0.0);
}

TYPED_TEST(Render, Dist2) {
  typedef TypeParam T;
  EXPECT_FLOAT_EQ(canvasrender::dist2<T>(fc<T>(1), fc<T>(cd(0, 2))), 0.5f);
  EXPECT_FLOAT_EQ(canvasrender::dist2<T>(fc<T>(cd(0, 0.5)), fc<T>(cd(3, 4))), 0.3f);
  EXPECT_EQ(canvasrender::dist2<T>(fc<T>(3), fc<T>(1)), 0.0f);
}

// ---------------------------------------------------------------- buffers

TYPED_TEST(Render, NullBuffersAreSkippedAndTheStrideKept) {
  typedef TypeParam T;
  JOB job(0, 0);
  typename T::CANVAS* canvas = fresh<T>(job);
  interiortile<T>(canvas);
  TILES none(0);
  canvasrender::rendercanvas<T>(gcontext, canvas, none.p, 256);
  for (int ch = 0; ch < NCHANNELS; ch++) {
    TILES t(1u << ch, 300);
    canvasrender::rendercanvas<T>(gcontext, canvas, t.p, t.xlag);
    for (int y = 0; y < 256; y++)
      for (int x = 0; x < 300; x++) {
        if (x < 256) ASSERT_NE(t.at(ch, x, y), SENTINEL) << ch << ": " << x << "," << y;
        else ASSERT_EQ(t.at(ch, x, y), SENTINEL) << ch << ": " << x << "," << y;
      }
  }
}

// ---------------------------------------------------------------- PREPIXEL records

int gcalls = 0;
int answer(OVCONTEXT*, REALM*, PREPIXEL* p, bool load) {
  EXPECT_FALSE(load);
  gcalls++;
  if (p->depth == 0) return 2;
  if (p->depth == 20) return 1;
  return 0;
}
int answerone(OVCONTEXT*, REALM*, PREPIXEL* p, bool) { return p->depth == 20 ? 1 : 0; }

struct HOOK {
  explicit HOOK(JULIACORRECTP h) { juliacorrectphook = h; }
  ~HOOK() { juliacorrectphook = nullptr; }
};

TYPED_TEST(Render, PrepixelRescaling) {
  typedef TypeParam T;
  JOB job(CF_JULIA | CF_JULIACORRECT, 0);
  REALM* realm = static_cast<REALM*>(calloc(1, sizeof(REALM)));
  realm->njuliastack = 21;  // levels 0..20
  job.w.pdata[JOB_REALM] = realm;
  typename T::CANVAS* canvas = fresh<T>(job);
  for (int i = 0; i < NCVERTEX; i++) canvas->v[i].depth = 8;
  const cd dv(0.25, -0.5);
  const cd zs[] = {cd(0.75 * std::ldexp(1.0, -20), -0.3 * std::ldexp(1.0, -22)),  // depth 21 > 20
                   cd(1.5, 0.25),                                                   // depth 0
                   cd(5.0, 0.0),                                                    // depth -2: none
                   cd(std::ldexp(1.0, -8), std::ldexp(-1.5, -9)),                   // depth 8
                   cd(0.0, -0.375)};                                                // depth 2
  const int nz = 5;
  for (int k = 0; k < nz; k++) setvertex<T>(canvas, 10 + k, 10, CV_ABSOLUTE, 50 + k, zs[k], dv);
  setvertex<T>(canvas, 20, 10, CV_INFTY, 5, cd(0.3, 0.4), cd(2, 0));
  setvertex<T>(canvas, 21, 10, CV_ABSOLUTE | CV_ESCAPED, 60, cd(1.9, 0), cd(1, 0));
  job.w.idata[JOB_PREPIXELDEPTH] = -1;

  std::vector<PREPIXEL> px(NPREPIXEL);
  ASSERT_EQ(canvasrender::rendercanvasprepixel<T>(gcontext, canvas, px.data(), 256, true), 0);
  double F = std::ldexp(1.0, -4) / dHF(canvas->dfactor);
  const int limit = 20;
  for (int k = 0; k < nz; k++) {
    SCOPED_TRACE(k);
    const PREPIXEL& p = px[10 * 256 + 10 + k];
    EXPECT_EQ(p.iter, 50 + k);
    if (k == 2) {
      EXPECT_EQ(p.depth, -1);
      EXPECT_EQ(p.x, 0.0f);
      EXPECT_EQ(p.y, 0.0f);
      EXPECT_EQ(p.dx, 0.0f);
      EXPECT_EQ(p.dy, 0.0f);
      continue;
    }
    ASSERT_GE(p.depth, 0);
    EXPECT_LE(p.depth, limit);
    // z = (x, y) 2^-depth, whatever was cut.
    EXPECT_TRUE(near(std::ldexp(static_cast<double>(p.x), -p.depth), zs[k].real(), 1e-6));
    EXPECT_TRUE(near(std::ldexp(static_cast<double>(p.y), -p.depth), zs[k].imag(), 1e-6));
    double big = std::max(std::fabs(p.x), std::fabs(p.y));
    if (p.depth < limit) {
      EXPECT_GE(big, 1.0);
      EXPECT_LT(big, 2.0);
    } else {
      EXPECT_LT(big, 1.0);
    }
    cd dd = dv * F * std::ldexp(1.0, p.depth + JULIASIZESHIFT - 2);
    EXPECT_TRUE(near(p.dx, dd.real(), 1e-5));
    EXPECT_TRUE(near(p.dy, dd.imag(), 1e-5));
  }
  EXPECT_EQ(px[10 * 256 + 10].depth, 20);
  EXPECT_EQ(px[10 * 256 + 11].depth, 0);
  EXPECT_EQ(px[10 * 256 + 13].depth, 8);
  EXPECT_EQ(px[10 * 256 + 14].depth, 2);
  EXPECT_EQ(job.w.idata[JOB_PREPIXELDEPTH], 20);

  const PREPIXEL& in = px[10 * 256 + 20];
  EXPECT_EQ(in.iter, -5);
  EXPECT_EQ(in.depth, -1);
  EXPECT_FLOAT_EQ(in.x, 0.3f);
  EXPECT_FLOAT_EQ(in.y, 0.4f);
  // 2^(-1-s) (1 - |z|^2) / |d| with s = -4.
  EXPECT_TRUE(near(in.dx, 8 * (1 - 0.25) / 2, 1e-5));
  const PREPIXEL& esc = px[10 * 256 + 21];
  EXPECT_EQ(esc.iter, 60);
  EXPECT_EQ(esc.depth, -1);
  const PREPIXEL& unknown = px[0];
  EXPECT_EQ(unknown.iter, 0);
  EXPECT_EQ(unknown.depth, -1);

  {
    HOOK h(answer);
    gcalls = 0;
    EXPECT_EQ(canvasrender::rendercanvasprepixel<T>(gcontext, canvas, px.data(), 256, true), 2);
    EXPECT_EQ(gcalls, nz);
    gcalls = 0;
    EXPECT_EQ(canvasrender::rendercanvasprepixel<T>(gcontext, canvas, px.data(), 256, false), 0);
    EXPECT_EQ(gcalls, 0);
  }
  {
    HOOK h(answerone);
    EXPECT_EQ(canvasrender::rendercanvasprepixel<T>(gcontext, canvas, px.data(), 256, true), 1);
  }
  // Without a realm the whole stack bounds the level.
  job.w.pdata[JOB_REALM] = nullptr;
  canvasrender::rendercanvasprepixel<T>(gcontext, canvas, px.data(), 256, false);
  EXPECT_EQ(px[10 * 256 + 10].depth, 21);
  EXPECT_EQ(job.w.idata[JOB_PREPIXELDEPTH], 21);
  free(realm);
}

}  // namespace
