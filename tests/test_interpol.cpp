// Interpolation across the vertex grid: the cubic of a cell, its test, the
// stops of the interpolation iteration, and whole tiles with and without it.
#include <gmp.h>
#include <gtest/gtest.h>

#include <complex>
#include <cstdlib>
#include <vector>

#include "Mandelbrot.h"
#include "canvas/driver.h"
#include "canvas/interpol.h"
#include "canvas/model.h"
#include "canvastest.h"
#include "environment.h"

namespace {

constexpr int S = 8;
constexpr int SIZE = 1 << S;
constexpr int R = CANVASSIZE;
typedef CANVASTEMPLATE_double TD;
typedef std::complex<double> C;

CANVAS_double* preparetile(JOB* job, C corner) {
  job->w.hdata[JOB_CT] = cHF(HFd(corner.real()), HFd(corner.imag()));
  CANVAS_double* canvas = canvasof<TD>();
  initcanvas_double(gcontext, canvas, &job->w, S, 32);
  return canvas;
}

long vertexcount(const CVERTEX_double* v) {
  if (!(v->flags & VX_FINISHED)) return 0;
  if (v->v.flags & CV_INFTY) return -static_cast<long>(v->v.iter);
  return static_cast<long>(v->v.iter);
}

// A tile at depth 20 in the spirals near -0.7436439 + 0.1318259i: orbits
// stay together for hundreds of iterations before they part.
const C DEEPTILE(-0.743643887037151 - 0.0000076, 0.131825904205330 - 0.0000076);
constexpr int DEEPDEPTH = 20;

struct TILE {
  std::vector<long> count;
  std::vector<unsigned> started;  // where interpolation left each vertex
  long filled = 0;
};

TILE runtile(unsigned word) {
  JOB job(word, DEEPDEPTH);
  CANVAS_double* canvas = preparetile(&job, DEEPTILE);
  processcanvas_double(gcontext, canvas);
  TILE t;
  for (int k = 0; k < NCVERTEX; k++) {
    t.count.push_back(vertexcount(&canvas->v[k]));
    t.started.push_back(canvas->v[k].interpolv.iter);
    if ((canvas->v[k].flags & 0x30000) == 0x30000) t.filled++;
  }
  return t;
}

}  // namespace

TEST(Interpol, CubicThroughTheCorners) {
  const TD::COMPLEX v[4] = {{1, 2}, {-0.5, 3}, {0.25, -1}, {4, 0.5}};
  TD::COMPLEX r[3][3], dr[3][3];
  interpol_double(v, r, dr);
  TD::COMPLEX a1 = interpol1_double(v), a2 = interpol2_double(v), a3 = interpol3_double(v);
  const TD::COMPLEX at[4] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
  for (int k = 0; k < 4; k++) {
    TD::COMPLEX s = at[k];
    TD::COMPLEX f = v[0] + a1 * s + a2 * s * s + a3 * s * s * s;
    EXPECT_NEAR(std::abs(f - v[k]), 0, 1e-12) << k;
  }
  // The top middle by its fixed weights.
  TD::COMPLEX tm = TD::COMPLEX(0.3125, 0.3125) * v[0] + TD::COMPLEX(0.3125, -0.3125) * v[1] +
                   TD::COMPLEX(0.1875, -0.0625) * v[2] + TD::COMPLEX(0.1875, 0.0625) * v[3];
  EXPECT_NEAR(std::abs(r[0][1] - tm), 0, 1e-12);
  // The derivative table is df/ds of the same cubic.
  TD::COMPLEX s(0.5, 0.5);
  EXPECT_NEAR(std::abs(dr[1][1] - (a1 + 2.0 * a2 * s + 3.0 * a3 * s * s)), 0, 1e-12);
}

TEST(Interpol, EqualCornersFailTheTest) {
  const TD::COMPLEX same[4] = {{0.3, 0.1}, {0.3, 0.1}, {0.3, 0.1}, {0.3, 0.1}};
  for (int L = 0; L < 8; L++) {
    EXPECT_FALSE(caccurateinterpolquadratic_double(gcontext, same, L));
    EXPECT_FALSE(caccurateinterpolquadraticabs_double(gcontext, same, L));
  }
  // A plane passes, and a strongly bent surface fails the wider cell.
  const TD::COMPLEX plane[4] = {{0, 0}, {1e-3, 0}, {1e-3, 1e-3}, {0, 1e-3}};
  EXPECT_TRUE(caccurateinterpolquadratic_double(gcontext, plane, 7));
  const TD::COMPLEX bent[4] = {{0, 0}, {1, 0}, {0, 1}, {0, 3}};
  EXPECT_FALSE(caccurateinterpolquadratic_double(gcontext, bent, 7));
}

namespace {

// A canvas inside the cardioid whose vertices are all settled but the top
// left one: each call of interpolcanvas then advances exactly one step, the
// one live cell splitting into one live cell a level further.
CANVAS_double* steppingcanvas(JOB* job) {
  CANVAS_double* canvas = preparetile(job, {-0.2, -0.03});
  for (int k = 1; k < NCVERTEX; k++) canvas->v[k].flags |= VX_NOINTERPOL;
  canvas->v[0].flags |= VX_INTREE | VX_CALCULATED;
  for (int c : {SIZE, SIZE * R + SIZE, SIZE * R}) canvas->v[c].flags |= VX_CALCULATED;
  canvas->workerinterpol = 0;
  canvas->v[0].next4 = -1;
  canvas->interpolmindepth = 0;
  canvas->interpoliter = 0;
  return canvas;
}

}  // namespace

TEST(Interpol, StopsAtEveryMultipleOfThePeriod) {
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(calloc(1, sizeof(ENVIRONMENT)));
  e->flags = E_PERIODIC;
  e->n = 50;
  JOB job(0, 8);
  job.w.pdata[JOB_ENVIRONMENT] = e;
  CANVAS_double* canvas = steppingcanvas(&job);
  const ITER want[] = {32, 50, 82, 100, 132, 150, 182};
  for (int l = 0; l < 7; l++) {
    interpolcanvas_double(gcontext, canvas, l, S);
    EXPECT_EQ(canvas->interpoliter, want[l]) << "step " << l;
  }
  EXPECT_EQ(canvas->__n, 50);
  free(e);

  JOB plain(0, 8);
  canvas = steppingcanvas(&plain);
  for (int l = 0; l < 4; l++) {
    interpolcanvas_double(gcontext, canvas, l, S);
    EXPECT_EQ(canvas->interpoliter, 32 * (l + 1));
  }
  EXPECT_EQ(canvas->oldinterpoliter, 96);
  EXPECT_EQ(canvas->oldinterpoliter2, 64);
}

TEST(Interpol, CornerAheadPullsTheNextStop) {
  JOB job(0, 8);
  CANVAS_double* canvas = steppingcanvas(&job);
  canvas->interpoliter = 64;
  canvas->oldinterpoliter = 32;
  canvas->newinterpoliter = 0x7FFFFFFF;
  CVERTEX_double* v[4] = {&canvas->v[0], &canvas->v[SIZE], &canvas->v[SIZE * R + SIZE], &canvas->v[SIZE * R]};
  for (auto* vx : v) vx->flags &= ~VX_NOINTERPOL;
  v[2]->interpolv.iter = 500;
  v[2]->interpolv.flags = CV_ABSOLUTE;
  for (auto* vx : {v[1], v[3]}) vx->interpolv.iter = 32, vx->interpolv.flags = CV_ABSOLUTE;
  interpolcanvascalc_double(gcontext, canvas, v);
  // Corner 0 passed through the old stop on its way, the lowest point
  // any corner stopped at.
  EXPECT_EQ(canvas->newinterpoliter, 32);
  EXPECT_EQ(v[0]->interpolv.iter, 64u);
  EXPECT_EQ(v[0]->oldv.iter, 32u);
  EXPECT_EQ(v[1]->oldv.iter, 32u);

  canvas->newinterpoliter = 0x7FFFFFFF;
  for (auto* vx : {v[0], v[1], v[3]}) vx->interpolv.iter = 600, vx->interpolv.flags = CV_ABSOLUTE;
  interpolcanvascalc_double(gcontext, canvas, v);
  EXPECT_EQ(canvas->newinterpoliter, 500);
}

TEST(Interpol, OutrunningEveryEscapeEndsTheCell) {
  JOB job(0, 8);
  CANVAS_double* canvas = steppingcanvas(&job);
  for (int k = 1; k < NCVERTEX; k++) canvas->v[k].flags &= ~VX_NOINTERPOL;
  for (int l = 0; l <= S; l++) canvas->worker[l] = -1;
  canvas->minworker = S + 1;
  canvas->maxiter = 10;  // 2 * (10 + 5000) = 10,020
  canvas->interpoliter = 10020 - 32;
  interpolcanvas_double(gcontext, canvas, S, S);
  EXPECT_EQ(canvas->interpoliter, 10020);
  EXPECT_EQ(canvas->workerinterpol, -1);
  EXPECT_TRUE(canvas->v[0].flags & VX_INWORKER);
  EXPECT_EQ(canvas->v[0].flags & VX_CALCULATEDMASK, 0u);
  EXPECT_EQ(canvas->v[0].interpolv.iter, 10020u);
}

TEST(Interpol, SameCountsWithFarFewerIterations) {
  TILE plain = runtile(CF_DERIVATIVE);
  TILE interp = runtile(CF_DERIVATIVE | CF_INTERPOL);
  long escaped = 0, same = 0;
  double work = 0, skipped = 0;
  for (int y = 0; y < SIZE; y++) {
    for (int x = 0; x < SIZE; x++) {
      int k = y * R + x;
      if (plain.count[k] <= 0) continue;
      escaped++;
      same += plain.count[k] == interp.count[k];
      work += plain.count[k];
      skipped += std::min<double>(interp.started[k], interp.count[k]);
      EXPECT_EQ(plain.started[k], 0u);
    }
  }
  ASSERT_GT(escaped, 30000);
  EXPECT_GE(static_cast<double>(same) / escaped, 0.995);
  // A share of the iterations of the tile was taken over from the cubic.
  // (Absolute orbits at this depth part after a few hundred iterations;
  // the large savings are those of relative orbits at deep zooms.)
  EXPECT_GT(skipped / work, 0.1) << "skipped " << skipped << " of " << work;

  TILE super = runtile(CF_DERIVATIVE | CF_INTERPOL | CF_SUPERINTERPOL);
  long ssame = 0;
  for (int y = 0; y < SIZE; y++)
    for (int x = 0; x < SIZE; x++) {
      int k = y * R + x;
      if (plain.count[k] > 0) ssame += plain.count[k] == super.count[k];
    }
  EXPECT_GE(static_cast<double>(ssame) / escaped, 0.995);
  EXPECT_EQ(interp.filled, 0);
}
