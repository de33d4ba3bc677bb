// The Julia kernels against mpf, the attractor trap, the Julia reference
// kernel against the plain one; the hyperbolic reduction; period jumps over
// a satellite environment against plain iteration.
#include <gmp.h>
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdlib>
#include <cstring>
#include <random>

#include "Mandelbrot.h"
#include "canvas/kernels.h"
#include "canvas/model.h"
#include "canvastest.h"
#include "environment.h"

namespace {

using canvasmodel::NUM;
typedef CANVASTEMPLATE_double TD;

// A format value in mpf, exactly.
void tompf(mpf_ptr x, double f) { mpf_set_d(x, f); }

// The count of z0 under z^2 + c in mpf, as the kernels store it.
int juliacount(double zx, double zy, mpf_srcptr cx, mpf_srcptr cy, int maxiter) {
  MPF x(256), y(256), xx(256), yy(256), t(256);
  tompf(x, zx);
  tompf(y, zy);
  for (int n = 0; n < maxiter; n++) {
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_mul(t, x, y);
    mpf_mul_2exp(t, t, 1);
    mpf_add(y, t, cy);
    mpf_sub(x, xx, yy);
    mpf_add(x, x, cx);
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_add(t, xx, yy);
    if (mpf_cmp_ui(t, 4) > 0) return n;
  }
  return maxiter;
}

struct JULIATILE {
  JOB job;
  HANDHPV param;
  JULIATILE(int depth, double cx, double cy) : job(CF_JULIA, depth), param(256) {
    mpf_set_d(param.h.v[0], cx);
    mpf_set_d(param.h.v[1], cy);
    job.w.pdata[JOB_JULIA] = &param.h;
  }
  TD::CANVAS* init() {
    TD::CANVAS* canvas = canvasof<TD>();
    initcanvas_double(gcontext, canvas, &job.w, 8, 32);
    return canvas;
  }
};

int runjulia(TD::CANVAS* canvas, int x, int y, TD::CVALUE* cv, int maxiter) {
  for (int guard = 0; guard < 1000; guard++) {
    int r = calcitercanvas0julia_double(gcontext, canvas, x, y, -1, cv, maxiter, nullptr, true, 0);
    if (r == CALC_DONE || cv->iter >= static_cast<UITER>(maxiter)) break;
  }
  int count = (cv->flags & CV_ESCAPED) ? static_cast<int>(cv->iter) : maxiter;
  canvasmodel::freevalue<TD>(canvas, cv);
  return count;
}

}  // namespace

// The canvas's own start points, iterated plainly, count as mpf does.
TEST(JuliaKernels, AbsoluteCountsAgainstMpf) {
  JULIATILE tile(2, -0.8, 0.156);  // a tile of side 4 from -2 - 2i: the whole set
  tile.job.w.hdata[JOB_CT] = cHFd(complexd(-2.0, -2.0));
  TD::CANVAS* canvas = tile.init();
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> coord(0, 256);
  int equal = 0, total = 300, long_ = 0;
  for (int k = 0; k < total; k++) {
    int x = coord(rng), y = coord(rng);
    TD::CVALUE cv = canvas->v[y * CANVASSIZE + x].v;
    complexd z0 = cv.value;
    int got = runjulia(canvas, x, y, &cv, 500);
    int want = juliacount(z0.real(), z0.imag(), tile.param.h.v[0], tile.param.h.v[1], 500);
    if (got == want) equal++;
    if (want > 20) long_++;
  }
  EXPECT_GE(equal, total * 999 / 1000);
  EXPECT_GT(long_, 0);
}

// The rabbit's parameter has an attracting cycle through 0: a point near 0
// is caught by a trap around it, one iteration after the last z outside.
TEST(JuliaKernels, AttractorTrap) {
  // The centre of the period-3 component, by Newton on z_3(c) = 0.
  std::complex<double> c(-0.12, 0.75);
  for (int k = 0; k < 50; k++) {
    std::complex<double> z = 0, dz = 0;
    for (int n = 0; n < 3; n++) {
      dz = 2.0 * z * dz + 1.0;
      z = z * z + c;
    }
    c -= z / dz;
  }
  JULIATILE tile(-2, c.real(), c.imag());
  tile.job.w.idata[JOB_ATTRACTOR] = -3;
  tile.job.w.hdata[JOB_TRAPCENTRE] = CZEROH;
  tile.job.w.hdata[JOB_TRAPRADIUS] = cHFd(complexd(0.02, 0));
  TD::CANVAS* canvas = tile.init();
  TD::CVALUE cv = canvas->v[0].v;
  cv.value = complexd(0.2, 0.1);
  cv.flags = 0;
  int r = calciterjuliaabsolute_double(gcontext, canvas, 0, 0, -1, &cv, 1000, nullptr, true, 0);
  EXPECT_EQ(r, CALC_DONE);
  EXPECT_EQ(cv.flags, CV_INFTY | CV_ESCAPED);
  EXPECT_LT(std::norm(cv.value), 0.01 * 0.01);
  // The plain orbit: the first z inside r/2 of the centre is at cv.iter.
  std::complex<double> z(0.2, 0.1);
  int first = -1;
  for (int n = 1; n < 1000 && first < 0; n++) {
    z = z * z + c;
    if (std::norm(z) < 0.02 * 0.02 * 0.25) first = n;
  }
  EXPECT_EQ(static_cast<int>(cv.iter), first);
  // Without the trap the same point runs to the limit.
  tile.job.w.idata[JOB_ATTRACTOR] = 0;
  cv.value = complexd(0.2, 0.1);
  cv.iter = 0;
  cv.flags = 0;
  r = calciterjuliaabsolute_double(gcontext, canvas, 0, 0, -1, &cv, 1000, nullptr, true, 0);
  EXPECT_EQ(r, CALC_MORE);
  EXPECT_EQ(cv.iter, 1000u);
}

// Differences to a Julia reference orbit count as the plain kernel does.
TEST(JuliaKernels, ReferenceEqualsAbsolute) {
  JULIATILE tile(6, -0.8, 0.156);
  // The tile at a point of the Julia set's edge: start points around 0.3.
  tile.job.w.hdata[JOB_CT] = cHFd(complexd(0.30, 0.05));
  TD::CANVAS* canvas = tile.init();
  int ref = 128 * CANVASSIZE + 128;
  TD::CVALUE* rv = &canvas->v[ref].v;
  rv->flags = CV_ABSOLUTE;
  ASSERT_NE(makeref_double(canvas, ref, rv, nullptr), 0);
  std::mt19937 rng(9);
  std::uniform_int_distribution<int> coord(0, 256);
  int equal = 0, total = 200, varied = 0, firstcount = -1, long_ = 0;
  for (int k = 0; k < total; k++) {
    int x = coord(rng), y = coord(rng);
    TD::CVALUE a = canvas->v[y * CANVASSIZE + x].v;
    TD::CVALUE rel = a;
    complexd start = a.value;
    rel.value = start - canvas->v[ref].v.value;  // both start values are on the grid: exact
    // The reference's start is its checkpoint at 0.
    rel.value = start - complexd(mpf_get_d(canvas->v[ref].v.hpvalue->value[0]),
                                 mpf_get_d(canvas->v[ref].v.hpvalue->value[1]));
    rel.flags = CV_RELATIVE;
    rel.ref = ref;
    rel.iter = 0;
    rel.data = canvas->v[ref].firstdata;
    rel.hpvalue = canvas->v[ref].v.hpvalue;
    canvasmodel::attachhpvalue<TD>(rel.hpvalue);
    int ca = runjulia(canvas, x, y, &a, 2000);
    int cr = runjulia(canvas, x, y, &rel, 2000);
    if (ca == cr) equal++;
    if (ca > 50) long_++;
    if (firstcount < 0) firstcount = ca;
    else if (ca != firstcount) varied = 1;
  }
  EXPECT_GE(equal, total * 99 / 100);
  EXPECT_TRUE(varied);
  EXPECT_GT(long_, 10);
}

// ---------------------------------------------------------------- hyperbolic

namespace {

complexd todisc(complexd w) { return (w - complexd(0, 1)) / (w + complexd(0, 1)); }
complexd tohalfplane(complexd z) { return complexd(0, 1) * (1.0 + z) / (1.0 - z); }

}  // namespace

TEST(HyperbolicKernel, OutsideTheDisc) {
  TD::CVALUE cv;
  memset(static_cast<void*>(&cv), 0, sizeof cv);
  complexd z(1.5, 0.0), d(1.0, 0.0);
  EXPECT_EQ(calcitercanvashyperbolic_double(0, 0, &z, &d, &cv, 1000), 1);
  EXPECT_EQ(cv.iter, 0u);
  EXPECT_EQ(z, complexd(0, 0));
}

TEST(HyperbolicKernel, FundamentalDomainPoint) {
  TD::CVALUE cv;
  memset(static_cast<void*>(&cv), 0, sizeof cv);
  complexd z = todisc(complexd(0.1, 2.0)), d(1.0, 0.0);
  EXPECT_EQ(calcitercanvashyperbolic_double(0, 0, &z, &d, &cv, 1000), 1);
  EXPECT_EQ(static_cast<int>(cv.iter), -170);
}

// w = 0.45 + 0.2i: invert, translate by 2, invert: the matrix has an entry 2,
// four elementary steps, and the result lies in the fundamental domain.
TEST(HyperbolicKernel, ReducesToTheDomain) {
  TD::CVALUE cv;
  memset(static_cast<void*>(&cv), 0, sizeof cv);
  complexd w0(0.45, 0.2);
  complexd z = todisc(w0), d(1.0, 0.0);
  EXPECT_EQ(calcitercanvashyperbolic_double(0, 0, &z, &d, &cv, 1000), 1);
  EXPECT_EQ(cv.iter, 5u);  // 4 steps, and one for the final place
  complexd w = tohalfplane(z);
  EXPECT_LE(std::fabs(w.real()), 0.5 + 1e-12);
  EXPECT_GE(std::abs(w), 1.0 - 1e-12);
  // The plain reduction by hand.
  complexd v = -1.0 / w0;
  v += 2.0;
  v = -1.0 / v;
  EXPECT_NEAR(w.real(), v.real(), 1e-12);
  EXPECT_NEAR(w.imag(), v.imag(), 1e-12);
  // The derivative of the whole map, against a difference quotient.
  complexd h(1e-7, 0);
  complexd z2 = todisc(w0) + h, d2(1.0, 0.0);
  TD::CVALUE cv2;
  memset(static_cast<void*>(&cv2), 0, sizeof cv2);
  calcitercanvashyperbolic_double(0, 0, &z2, &d2, &cv2, 1000);
  complexd q = (z2 - z) / h;
  EXPECT_NEAR(std::abs(q - d), 0.0, 1e-4 * std::abs(d));
  // The limit ends the reduction with 0.
  TD::CVALUE cv3;
  memset(static_cast<void*>(&cv3), 0, sizeof cv3);
  complexd z3 = todisc(w0), d3(1.0, 0.0);
  EXPECT_EQ(calcitercanvashyperbolic_double(0, 0, &z3, &d3, &cv3, 2), 0);
}

// ---------------------------------------------------------------- satellite jumps

namespace {

typedef std::complex<long double> CLD;

// T <- T^2 + D + R T on 7 by 7 tables, index i + 7 j.
void seriesstep(CLD* T, CLD R) {
  CLD S[NTAYLOR] = {};
  for (int a = 0; a < NTAYLOR; a++)
    for (int b = 0; b < NTAYLOR; b++) {
      int i = a % 7 + b % 7, j = a / 7 + b / 7;
      if (i < 7 && j < 7) S[i + 7 * j] += T[a] * T[b];
    }
  for (int a = 0; a < NTAYLOR; a++) S[a] += R * T[a];
  S[7] += 1.0L;
  for (int a = 0; a < NTAYLOR; a++) T[a] = S[a];
}

// A satellite environment at the period-3 centre near -1.7549.
struct SATENV {
  ENVIRONMENT* e;
  HANDHPV c;
  SATENV() : c(128) {
    std::complex<double> cc(-1.75, 0.0);
    for (int k = 0; k < 60; k++) {
      std::complex<double> z = 0, dz = 0;
      for (int n = 0; n < 3; n++) {
        dz = 2.0 * z * dz + 1.0;
        z = z * z + cc;
      }
      cc -= z / dz;
    }
    e = static_cast<ENVIRONMENT*>(calloc(1, sizeof(ENVIRONMENT)));
    mpf_set_d(c.h.v[0], cc.real());
    mpf_set_d(c.h.v[1], 0.0);
    e->c = &c.h;
    e->cf = cHFd(cc);
    e->n = 3;
    e->nrefdata = 4;
    e->flags = E_SERIES | E_PERIODIC;
    e->refdatah = static_cast<REFDATAH*>(calloc(4, sizeof(REFDATAH)));
    e->refdatad = static_cast<REFDATAD*>(calloc(4, sizeof(REFDATAD)));
    CLD z = 0;
    CLD T[NTAYLOR] = {};
    T[1] = 1;
    T[7] = 1;
    for (int k = 0; k <= 3; k++) {
      e->refdatad[k].value = complexd(static_cast<double>(z.real()), static_cast<double>(z.imag()));
      e->refdatad[k].a = static_cast<double>(4 - std::norm(z));
      e->refdatah[k].value = cHFld(complexld(z.real(), z.imag()));
      e->refdatah[k].a = HFld(4 - std::norm(z));
      z = z * z + CLD(cc.real(), 0);
    }
    z = CLD(cc.real(), 0);
    for (int k = 1; k < 3; k++) {
      seriesstep(T, 2.0L * z);
      z = z * z + CLD(cc.real(), 0);
    }
    CLD t1 = T[1], t7 = T[7];
    CLD sc = t1 * t7;
    e->scalez = cHFld(complexld(t1.real(), t1.imag()));
    e->scalec = cHFld(complexld(sc.real(), sc.imag()));
    for (int i = 0; i < 7; i++)
      for (int j = 0; j < 7; j++) {
        CLD v = T[i + 7 * j] / (std::pow(sc, j) * std::pow(t1, 2 * i - 1));
        e->taylor[i + 7 * j] = cHFld(complexld(v.real(), v.imag()));
      }
  }
  ~SATENV() {
    free(e->refdatah);
    free(e->refdatad);
    free(e);
  }
};

}  // namespace

// Period jumps leave the count, z and d as plain iteration does.
TEST(SatelliteKernel, JumpsAsPlainIterations) {
  SATENV env;
  MPF cx(128), cy(128);
  mpf_set(cx, env.c.h.v[0]);
  mpf_set_ui(cy, 0);
  JOB job(0, 10);
  HANDHPV corner(192);
  MPF half(192);
  setpow2(half, 3 - 10);
  mpf_sub(corner.h.v[0], cx, half);
  mpf_sub(corner.h.v[1], cy, half);
  job.w.pdata[JOB_CORNER] = &corner.h;
  job.w.pdata[JOB_ENVIRONMENT] = env.e;
  job.w.idata[JOB_WORD] = static_cast<ITER>(CF_DERIVATIVE);
  TD::CANVAS* canvas = canvasof<TD>();
  initcanvas_double(gcontext, canvas, &job.w, 8, 32);
  std::mt19937 rng(21);
  std::uniform_int_distribution<int> coord(0, 256);
  int equal = 0, inside = 0, total = 200;
  for (int k = 0; k < total; k++) {
    int x = coord(rng), y = coord(rng);
    TD::CVALUE s, a;
    memset(static_cast<void*>(&s), 0, sizeof s);
    s.ref = -1;
    a = s;
    a.flags = CV_ABSOLUTE;
    int rs = calcitergeneralsat_double(canvas, x, y, -1, &s, 301, nullptr, true, 0);
    int ra = calciterabsolute_double(canvas, x, y, -1, &a, 301, nullptr, true, 0);
    if (rs == ra && s.iter == a.iter && (s.flags & CV_ESCAPED) == (a.flags & CV_ESCAPED)) equal++;
    if (rs == CALC_MORE && ra == CALC_MORE) {
      inside++;
      // The state at the limit: delta to X_(301 mod 3) = X_1 = c_env.
      complexd z = s.value + env.e->refdatad[301 % 3].value;
      EXPECT_LT(std::abs(z - a.value), 1e-6);
      EXPECT_LT(std::abs(s.d - a.d), 1e-4 * std::abs(a.d) + 1e-300);
    }
  }
  EXPECT_GE(equal, total * 99 / 100);
  EXPECT_GT(inside, 10);
  EXPECT_LT(inside, total);
}
