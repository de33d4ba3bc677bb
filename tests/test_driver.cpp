// The canvas driver: whole tiles against brute-force iteration, the tree and
// its lists cell by cell, the interior machinery and the stop of a job.
//
// One canvas buffer (some 150 MB) serves the whole process; every test runs
// `initcanvas` on it first.
#include <gmp.h>
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <vector>

#include "Mandelbrot.h"
#include "canvas/driver.h"
#include "canvas/model.h"
#include "canvastest.h"

namespace {

constexpr int S = 8;
constexpr int SIZE = 1 << S;
constexpr int R = CANVASSIZE;

// The count a render reads from a vertex: the escape count, minus the period
// of an interior point, 0 while open.
template <typename T>
long vertexcount(const typename T::CVERTEX* v) {
  if (!(v->flags & VX_FINISHED)) return 0;
  if (v->v.flags & CV_INFTY) return -static_cast<long>(v->v.iter);
  return static_cast<long>(v->v.iter);
}

// Prepares the shared canvas in format T for a Mandelbrot tile whose corner
// is `corner` (before the half-step offset) at `depth`.
template <typename T>
typename T::CANVAS* preparetile(JOB* job, std::complex<double> corner) {
  job->w.hdata[JOB_CT] = cHF(HFd(corner.real()), HFd(corner.imag()));
  typename T::CANVAS* canvas = canvasof<T>();
  canvasmodel::initcanvas<T>(gcontext, canvas, &job->w, S, 32);
  return canvas;
}

// The plain count of c: index of the last z inside radius 2, or -1 when the
// orbit stays inside for `cap` iterations.
long brutecount(std::complex<double> c, long cap) {
  double x = 0, y = 0;
  for (long n = 0; n < cap; n++) {
    double nx = x * x - y * y + c.real();
    double ny = 2 * x * y + c.imag();
    if (nx * nx + ny * ny > 4.0) return n;
    x = nx;
    y = ny;
  }
  return -1;
}

// The parameter of vertex (x, y) of the prepared canvas, in double.
template <typename T>
std::complex<double> vertexparam(const typename T::CANVAS* canvas, int x, int y) {
  HFLOATCOMPLEX cf = canvasmodel::NUM<typename T::FLOAT>::ctoHF(canvas->cf);
  double step = std::ldexp(1.0, 4 - canvas->depth - S);
  return {dHF(crealHF(cf)) + x * step, dHF(cimagHF(cf)) + y * step};
}

// Paints the tile by the leaves of the cell tree, each from its corner 0, as
// the render step does: 256 x 256 counts, row-major.
template <typename T>
std::vector<long> leafpaint(const typename T::CANVAS* canvas) {
  std::vector<long> out(SIZE * SIZE, 0);
  struct CELL {
    int i, level;
  };
  std::vector<CELL> stack{{0, 0}};
  while (!stack.empty()) {
    CELL c = stack.back();
    stack.pop_back();
    int w = SIZE >> c.level;
    if (canvas->v[c.i].depth > c.level && c.level < S) {
      int h = w / 2;
      for (int q : {c.i, c.i + h, c.i + h * R + h, c.i + h * R}) stack.push_back({q, c.level + 1});
      continue;
    }
    long value = vertexcount<T>(&canvas->v[c.i]);
    int x0 = canvas->v[c.i].x, y0 = canvas->v[c.i].y;
    for (int y = y0; y < y0 + w && y < SIZE; y++)
      for (int x = x0; x < x0 + w && x < SIZE; x++) out[y * SIZE + x] = value;
  }
  return out;
}

// A point on the boundary of the main cardioid and the period-3 bulb: the
// tile at depth 5 spans 0.5 x 0.5.
const std::complex<double> BOUNDARYTILE(-0.5, 0.25);
constexpr int BOUNDARYDEPTH = 5;

// Fraction of pixels where the painted count agrees with brute force: equal
// escape counts, or interior where the orbit stays bounded for `cap`.
double agreement(const std::vector<long>& paint, const std::vector<long>& brute) {
  long good = 0;
  for (size_t k = 0; k < paint.size(); k++) {
    if (paint[k] > 0 && paint[k] == brute[k]) {
      good++;
    } else if (paint[k] < 0 && brute[k] < 0) {
      good++;
    }
  }
  return static_cast<double>(good) / paint.size();
}

template <typename T>
std::vector<long> brutetile(const typename T::CANVAS* canvas, long cap) {
  std::vector<long> out(SIZE * SIZE);
  for (int y = 0; y < SIZE; y++)
    for (int x = 0; x < SIZE; x++) out[y * SIZE + x] = brutecount(vertexparam<T>(canvas, x, y), cap);
  return out;
}

}  // namespace

// ---------------------------------------------------------------- whole tiles

TEST(Driver, ShallowTileMatchesBruteForce) {
  JOB job(0, BOUNDARYDEPTH);
  auto* canvas = preparetile<CANVASTEMPLATE_double>(&job, BOUNDARYTILE);
  processcanvas_double(gcontext, canvas);

  // Every finished, escaped vertex against its own brute-force count.
  long escaped = 0, same = 0, interior = 0;
  for (int y = 0; y <= SIZE; y++) {
    for (int x = 0; x <= SIZE; x++) {
      const CVERTEX_double* v = &canvas->v[y * R + x];
      if (!(v->flags & VX_FINISHED)) continue;
      if (v->v.flags & CV_INFTY) {
        // Interior verdicts, sampled: the orbit must stay bounded long.
        if ((interior++ % 23) == 0) {
          EXPECT_EQ(brutecount(vertexparam<CANVASTEMPLATE_double>(canvas, x, y), 100000), -1)
              << "vertex " << x << "," << y << " marked interior with period " << v->v.iter;
        }
        continue;
      }
      escaped++;
      if (static_cast<long>(v->v.iter) == brutecount(vertexparam<CANVASTEMPLATE_double>(canvas, x, y), 1 << 30))
        same++;
    }
  }
  ASSERT_GT(escaped, 1000);
  ASSERT_GT(interior, 100);
  EXPECT_GE(static_cast<double>(same) / escaped, 0.995);

  // The picture by cell leaves, each painted from its corner 0.
  std::vector<long> paint = leafpaint<CANVASTEMPLATE_double>(canvas);
  std::vector<long> brute = brutetile<CANVASTEMPLATE_double>(canvas, 20000);
  EXPECT_GE(agreement(paint, brute), 0.995);
}

TEST(Driver, TileInsideCardioidClosesAtOnce) {
  JOB job(0, 8);
  auto* canvas = preparetile<CANVASTEMPLATE_double>(&job, {-0.2, -0.03});
  processcanvas_double(gcontext, canvas);
  for (int c : {0, SIZE, SIZE * R + SIZE, SIZE * R}) {
    EXPECT_TRUE(canvas->v[c].v.flags & CV_INFTY);
    EXPECT_EQ(canvas->v[c].v.iter, 1u);
  }
  // One cell, never split, and its whole interior settled.
  EXPECT_EQ(canvas->v[0].depth, 0);
  long unsettled = 0, computed = 0;
  for (int k = 0; k < NCVERTEX; k++) {
    if (!(canvas->v[k].flags & VX_NOINTERPOL)) unsettled++;
    if (canvas->v[k].v.iter != 0 && !(canvas->v[k].v.flags & CV_INFTY)) computed++;
  }
  EXPECT_EQ(unsettled, 0);
  EXPECT_EQ(computed, 0);
  for (long p : leafpaint<CANVASTEMPLATE_double>(canvas)) ASSERT_EQ(p, -1);
}

TEST(Driver, StoppedJobReturnsWithoutWork) {
  JOB job(0, BOUNDARYDEPTH);
  auto* canvas = preparetile<CANVASTEMPLATE_double>(&job, BOUNDARYTILE);
  job.w.stop = true;
  processcanvas_double(gcontext, canvas);
  long finished = 0;
  for (int k = 0; k < NCVERTEX; k++)
    if (canvas->v[k].flags & VX_FINISHED) finished++;
  // At most the first cell's corners and what one cell of each list reached.
  EXPECT_LT(finished, 64);
}

template <typename T>
std::vector<long> formattile() {
  JOB job(T::MODE, BOUNDARYDEPTH);
  auto* canvas = preparetile<T>(&job, BOUNDARYTILE);
  canvasdriver::processcanvas<T>(gcontext, canvas);
  return leafpaint<T>(canvas);
}

TEST(Driver, FormatsAgree) {
  std::vector<long> d = formattile<CANVASTEMPLATE_double>();
  long escaped = 0;
  for (long p : d) escaped += p > 0;
  ASSERT_GT(escaped, 5000);
  auto compare = [&](const std::vector<long>& o) {
    long same = 0;
    for (size_t k = 0; k < d.size(); k++) same += d[k] == o[k];
    return static_cast<double>(same) / d.size();
  };
  EXPECT_GE(compare(formattile<CANVASTEMPLATE_float>()), 0.99);
  EXPECT_GE(compare(formattile<CANVASTEMPLATE_longdouble>()), 0.99);
  EXPECT_GE(compare(formattile<CANVASTEMPLATE_hfloat>()), 0.99);
}

TEST(Driver, CanvasCalcInitRunsTheJob) {
  JOB job(0, BOUNDARYDEPTH);
  job.w.hdata[JOB_CT] = cHF(HFd(BOUNDARYTILE.real()), HFd(BOUNDARYTILE.imag()));
  EXPECT_EQ(canvas_calc_init(gcontext, &job.w), 32u);
  auto* canvas = canvasof<CANVASTEMPLATE_double>();
  long finished = 0;
  for (int k = 0; k < NCVERTEX; k++) finished += (canvas->v[k].flags & VX_FINISHED) != 0;
  EXPECT_GT(finished, 1000);
  JOB bad(0x80, 5);
  testing::internal::CaptureStderr();
  EXPECT_EQ(canvas_calc_init(gcontext, &bad.w), 0u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "MSG_CANVAS_CALC: Not supported.\n");
}

// ---------------------------------------------------------------- cells and lists

namespace {

// A fresh canvas far outside the set, with empty lists.
CANVAS_double* outsidecanvas(JOB* job) {
  auto* canvas = preparetile<CANVASTEMPLATE_double>(job, {3.0, 3.0});
  for (int l = 0; l <= S; l++) canvas->worker[l] = canvas->workerinfty[l] = canvas->workerfailure[l] = -1;
  canvas->minworker = canvas->minworkerinfty = 0;
  canvas->minworkerfailure = S + 1;
  for (int c : {0, SIZE, SIZE * R + SIZE, SIZE * R}) canvas->v[c].v.iter = 0;
  canvas->v[0].flags |= VX_INTREE;
  return canvas;
}

void finishat(CVERTEX_double* v, UITER count) {
  v->flags |= VX_FINISHED;
  v->v.iter = count;
  v->v.flags = CV_ABSOLUTE | CV_ESCAPED;
}

// Every vertex on the corners and sides of the w-wide cell at i escaped at
// `count`.
void finishsides(CANVAS_double* canvas, int i, int w, UITER count) {
  for (int k = 0; k <= w; k++)
    for (int vi : {i + k, i + w * R + k, i + k * R, i + k * R + w}) finishat(&canvas->v[vi], count);
}

// The vertex at i is interior with `period`.
void interiorat(CVERTEX_double* v, UITER period) {
  v->flags |= VX_FINISHED | VX_NOINTERPOL | VX_TESTED;
  v->v.iter = period;
  v->v.flags |= CV_INFTY;
}

}  // namespace

TEST(Driver, ListsAreIdempotentStacks) {
  JOB job(0, 10);
  auto* canvas = outsidecanvas(&job);
  subdividecanvas_double(canvas, 0);
  canvasinworkerfinite_double(canvas, 0);
  canvasinworkerfinite_double(canvas, 128);
  canvasinworkerfinite_double(canvas, 0);
  EXPECT_EQ(canvas->worker[1], 128);
  EXPECT_EQ(canvas->v[128].next2, 0);
  EXPECT_EQ(canvas->v[0].next2, -1);
  EXPECT_EQ(canvas->minworker, 0);
  canvas->minworkerfailure = S + 1;
  canvasinworkerfailure_double(canvas, 128);
  EXPECT_EQ(canvas->minworkerfailure, 1);
  EXPECT_TRUE(canvas->v[128].flags & VX_INFAILURE);
}

TEST(Driver, SubdivisionLinksWakeTheCellsAround) {
  JOB job(0, 10);
  auto* canvas = outsidecanvas(&job);
  subdividecanvas_double(canvas, 0);
  const int w = 128;
  EXPECT_EQ(canvas->v[0].depth, 1);
  for (int k : {w, w * R, w * R + w}) {
    EXPECT_EQ(canvas->v[k].depth, 1);
    EXPECT_TRUE(canvas->v[k].flags & VX_INTREE);
  }
  EXPECT_EQ(canvas->v[w * R + w].n[0], 0);
  EXPECT_EQ(canvas->v[w * R + w].n[1], w);
  EXPECT_EQ(canvas->v[w * R + w].n[2], w * R);
  EXPECT_EQ(canvas->v[2 * w * R + 2 * w].n[0], w * R + w);
  EXPECT_EQ(canvas->v[2 * w].n[2], w);
  EXPECT_EQ(canvas->v[2 * w * R].n[1], w * R);
  EXPECT_EQ(canvas->v[2 * w + w * R].n[0], w);
  EXPECT_EQ(canvas->v[2 * w + w * R].n[2], w * R + w);
}

TEST(Driver, NeighborForcesACoarserCellToRefine) {
  JOB job(0, 10);
  auto* canvas = outsidecanvas(&job);
  subdividecanvas_double(canvas, 0);
  subdividecanvas_double(canvas, 0);  // cell 0 at level 2, 64 wide
  EXPECT_EQ(neighbor_double(canvas, 0, 0), -1);
  EXPECT_EQ(neighbor_double(canvas, 0, 1), -1);
  // Right of cell 0 is (64, 0), a cell of level 2 in the tree.
  EXPECT_EQ(neighbor_double(canvas, 0, 2), 64);
  EXPECT_EQ(canvas->v[64].forced, 2);
  // Right of (64, 0) is (128, 0), a coarser cell of level 1: told to refine.
  EXPECT_EQ(neighbor_double(canvas, 64, 2), 128);
  EXPECT_EQ(canvas->v[128].forced, 2);
  // Below (0, 64) lies in the level-1 cell (0, 128).
  EXPECT_EQ(neighbor_double(canvas, 64 * R, 3), 128 * R);
}

TEST(Driver, EqualCorners) {
  CVERTEX_double a{}, b{};
  EXPECT_EQ(equal_double(&a, &b), 1);  // both open
  finishat(&a, 40);
  EXPECT_EQ(equal_double(&a, &b), 0);
  finishat(&b, 40);
  EXPECT_EQ(equal_double(&a, &b), 1);
  b.v.iter = 41;
  EXPECT_EQ(equal_double(&a, &b), 0);
  b.v.iter = 40;
  b.v.flags = CV_INFTY;  // a period of 40 is not a count of 40
  EXPECT_EQ(equal_double(&a, &b), 0);
  a.v.flags = CV_INFTY;
  EXPECT_EQ(equal_double(&a, &b), 1);
}

TEST(Driver, EqualCornersCloseOnlyAtTheForcedLevel) {
  for (int forced : {0, 2}) {
    JOB job(0, 10);
    auto* canvas = outsidecanvas(&job);
    subdividecanvas_double(canvas, 0);
    finishsides(canvas, 0, 128, 50);
    canvas->v[0].forced = forced;
    canvasinworkerfinite_double(canvas, 0);
    processcanvasfinite_double(gcontext, canvas, S, 1);
    EXPECT_EQ(canvas->v[0].depth, forced == 0 ? 1 : 2) << "forced " << forced;
  }
}

TEST(Driver, EqualCornersWithAnotherCountOnASideSplit) {
  for (int other : {0, 1}) {
    JOB job(0, 10);
    auto* canvas = outsidecanvas(&job);
    subdividecanvas_double(canvas, 0);
    finishsides(canvas, 0, 128, 50);
    // One vertex half-way down the left side counts differently: a
    // filament crosses the cell between its corners.
    if (other) finishat(&canvas->v[64 * R], 51);
    canvasinworkerfinite_double(canvas, 0);
    processcanvasfinite_double(gcontext, canvas, S, 1);
    EXPECT_EQ(canvas->v[0].depth, other ? 2 : 1) << "other " << other;
  }
}

TEST(Driver, SidesOfAnUnfinishedCellAreIteratedBeforeItCloses) {
  // Far outside the set every vertex escapes at once: the corners' count
  // is the sides' too, and the cell closes after its sides have run.
  JOB job(0, 10);
  auto* canvas = outsidecanvas(&job);
  canvasinworkerfinite_double(canvas, 0);
  processcanvasfinite_double(gcontext, canvas, S, 0);
  EXPECT_EQ(canvas->v[0].depth, 0);
  for (int k = 1; k < SIZE; k++) {
    for (int vi : {k, SIZE * R + k, k * R, k * R + SIZE})
      ASSERT_TRUE(canvas->v[vi].flags & VX_FINISHED) << vi;
  }
  EXPECT_FALSE(canvas->v[SIZE / 2 * R + SIZE / 2].flags & VX_FINISHED);
}

TEST(Driver, NeedleCrossingATileOfEqualCornersIsDrawn) {
  // The real axis at -1.99 crosses this tile of depth 12 between its
  // corners, which all escape at 7; without interpolation the tile may
  // close cells, but not over the needle.
  JOB job(0, 12);
  auto* canvas = preparetile<CANVASTEMPLATE_double>(&job, {-1.993870916666666, -0.001683416666666});
  processcanvas_double(gcontext, canvas);
  std::vector<long> paint = leafpaint<CANVASTEMPLATE_double>(canvas);
  std::vector<long> brute = brutetile<CANVASTEMPLATE_double>(canvas, 20000);
  long seven = 0;
  for (long b : brute) seven += b == 7;
  ASSERT_LT(seven, SIZE * SIZE * 0.9);
  EXPECT_GE(agreement(paint, brute), 0.995);
}

TEST(Driver, InteriorCellClosesOnlyWithItsSidesOfOnePeriod) {
  for (int other : {0, 1}) {
    JOB job(0, 8);
    auto* canvas = preparetile<CANVASTEMPLATE_double>(&job, {-0.2, -0.03});
    for (int l = 0; l <= S; l++)
      canvas->worker[l] = canvas->workerinfty[l] = canvas->workerfailure[l] = -1;
    canvas->minworker = canvas->minworkerinfty = 0;
    canvas->minworkerfailure = S + 1;
    canvas->v[0].flags |= VX_INTREE;
    for (int c : {0, SIZE, SIZE * R + SIZE, SIZE * R}) interiorat(&canvas->v[c], 1);
    // Inside the cardioid every side vertex proves period 1; one shown with
    // another period stands for the outside reaching in at a cusp.
    if (other) interiorat(&canvas->v[100], 2);
    canvasinworkerinfty_double(canvas, 0);
    processcanvasinfty_double(canvas);
    EXPECT_EQ(canvas->v[0].depth > 0, other == 1) << "other " << other;
    if (!other) {
      EXPECT_TRUE(canvas->v[SIZE / 2 * R + SIZE / 2].flags & VX_NOINTERPOL);
      EXPECT_EQ(canvas->v[SIZE * R + 77].v.iter, 1u);
      EXPECT_TRUE(canvas->v[SIZE * R + 77].v.flags & CV_INFTY);
    }
  }
}

TEST(Driver, LevelZeroLimitFromCanvasMaximum) {
  JOB job(0, 10);
  auto* canvas = outsidecanvas(&job);
  canvasinworkerfinite_double(canvas, 0);
  processcanvasfinite_double(gcontext, canvas, 0, 0);
  // Nothing had escaped: M = 715,825,882, and the corners were granted
  // 3M + 3000 (they escape at once out here).
  EXPECT_EQ(canvas->v[0].maxiter, 3u * 715825882u + 3000u);
  EXPECT_TRUE(canvas->v[0].flags & VX_FINISHED);

  JOB job2(0, 10);
  canvas = outsidecanvas(&job2);
  canvas->maxiter = 100;
  canvasinworkerfinite_double(canvas, 0);
  processcanvasfinite_double(gcontext, canvas, 0, 0);
  EXPECT_EQ(canvas->v[SIZE].maxiter, 3u * 500u + 3000u);
}

TEST(Driver, FailureLimitNeverOverflows) {
  EXPECT_EQ(canvasdriver::failurelimit(0), 0x7FFFFFFF);
  EXPECT_EQ(canvasdriver::failurelimit(1000), 15000);
  EXPECT_EQ(canvasdriver::failurelimit(429496729), 0x7FFFFFFF);
  EXPECT_EQ(canvasdriver::failurelimit(429496728), 0x7FFFFFFF);
  EXPECT_EQ(canvasdriver::failurelimit(400000000), 2000010000);
}

TEST(Driver, CellWithoutResultGoesToTheExactTest) {
  // A cell inside the cardioid whose corners have used up their limit: the
  // finite pass finishes none, and the exact test proves them interior.
  JOB job(0, 8);
  auto* canvas = preparetile<CANVASTEMPLATE_double>(&job, {-0.2, -0.03});
  for (int l = 0; l <= S; l++) canvas->worker[l] = canvas->workerinfty[l] = canvas->workerfailure[l] = -1;
  canvas->minworker = canvas->minworkerinfty = 0;
  canvas->minworkerfailure = S + 1;
  for (int c : {0, SIZE, SIZE * R + SIZE, SIZE * R}) canvas->v[c].v.iter = 0;
  canvas->v[0].flags |= VX_INTREE;
  subdividecanvas_double(canvas, 0);
  const int c[4] = {0, 128, 128 * R + 128, 128 * R};
  for (int k : c) canvas->v[k].maxiter = 0xFFFFFFF0u;
  canvasinworkerfinite_double(canvas, 0);
  processcanvasfinite_double(gcontext, canvas, S, S);
  EXPECT_EQ(canvas->workerfailure[1], 0);
  EXPECT_TRUE(canvas->v[0].flags & VX_INFAILURE);
  for (int k : c) EXPECT_FALSE(canvas->v[k].flags & VX_FINISHED);

  checkcanvas_double(canvas, 100000);
  for (int k : c) {
    EXPECT_TRUE(canvas->v[k].flags & VX_FINISHED);
    EXPECT_TRUE(canvas->v[k].v.flags & CV_INFTY);
    EXPECT_EQ(canvas->v[k].v.iter, 1u);
  }
  EXPECT_FALSE(canvas->v[0].flags & VX_INFAILURE);
  EXPECT_TRUE(canvas->v[0].flags & VX_ININFTY);
}

TEST(Driver, StopinterpolSettlesEveryLevel) {
  JOB job(0, 10);
  auto* canvas = outsidecanvas(&job);
  stopinterpol_double(canvas, 64 * R + 64, 2);  // a 64-wide cell
  long settled = 0;
  for (int y = 0; y <= SIZE; y++)
    for (int x = 0; x <= SIZE; x++) {
      bool inside = x >= 64 && x <= 128 && y >= 64 && y <= 128;
      bool s = canvas->v[y * R + x].flags & VX_NOINTERPOL;
      EXPECT_EQ(s, inside) << x << "," << y;
      settled += s;
    }
  EXPECT_EQ(settled, 65 * 65);
}
