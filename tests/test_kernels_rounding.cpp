// The plain Mandelbrot kernels where the rounding of z itself could decide an
// escape: a double canvas without an environment follows such an orbit again
// in long double, and leaves orbits whose escape is clear alone.
#include <gmp.h>
#include <gtest/gtest.h>

#include <complex>
#include <cstdio>
#include <cstring>

#include "Mandelbrot.h"
#include "canvas/kernels.h"
#include "canvas/kernelsupport.h"
#include "canvas/model.h"
#include "canvastest.h"

namespace {

using canvasmodel::NUM;
typedef CANVASTEMPLATE_double D;

// The tile at depth 14 next to the cardioid at the golden-mean angle, by the
// exact corner the engine gives the area holding -0.3905408702184 -
// 0.5867879073469i. Its vertex (255, 194) stays bounded in an exact
// iteration past 3,000,000 steps (and in long double past 1,000,000), while
// a plain double orbit leaves the disc at step 70,115.
const char* const GOLDENRE = "-0.39133185416666638190008598030544817447662353515625";
const char* const GOLDENIM = "-0.58762091666666638190008598030544817447662353515625";
constexpr int GOLDENDEPTH = 14;
constexpr int GOLDENX = 255, GOLDENY = 194;
constexpr ITER DOUBLEESCAPE = 70115;

// A Mandelbrot job without an environment whose area has the given corner.
struct CORNERJOB {
  JOB job;
  HANDHPV corner;
  CORNERJOB(unsigned int word, int depth, const char* re, const char* im)
      : job(word, depth), corner(static_cast<mp_bitcnt_t>(depth + 192)) {
    mpf_set_str(corner.h.v[0], re, 10);
    mpf_set_str(corner.h.v[1], im, 10);
    job.w.pdata[JOB_CORNER] = &corner.h;
  }
  D::CANVAS* init() {
    D::CANVAS* canvas = canvasof<D>();
    canvasmodel::initcanvas<D>(gcontext, canvas, &job.w, 8, 32);
    return canvas;
  }
};

// Runs vertex (x, y) from its start state through the dispatcher, as the
// driver's finite pass does, in grants of `grant` iterations up to `maxiter`.
int runvertex(D::CANVAS* canvas, int x, int y, ITER grant, ITER maxiter) {
  int self = y * CANVASSIZE + x;
  D::CVALUE* cv = &canvas->v[self].v;
  int r = CALC_MORE;
  for (ITER limit = grant; r == CALC_MORE; limit += grant) {
    if (limit > maxiter) limit = maxiter;
    r = canvaskernels::calcitercanvas0general<D>(canvas, x, y, self, cv, limit, nullptr, false, 0);
    if (r == CALC_MORE && cv->iter >= static_cast<UITER>(maxiter)) break;
  }
  return r;
}

// The count of c = corner + (x + 1/2, y + 1/2) 2^(4 - depth - 8) in mpf of
// `bits` bits: the index of the last z with |z|^2 <= 4, or -1 when the orbit
// stays inside for `limit` steps. `nudge` moves c along both axes by that
// part of a step.
long exactcount(const char* re, const char* im, int depth, int x, int y, long limit,
                mp_bitcnt_t bits, double nudge = 0) {
  MPF cx(bits), cy(bits), step(bits), zx(bits), zy(bits), xx(bits), yy(bits), t(bits);
  setpow2(step, 4 - depth - 8);
  mpf_set_str(cx, re, 10);
  mpf_set_str(cy, im, 10);
  mpf_set_d(t, x + 0.5 + nudge);
  mpf_mul(t, t, step);
  mpf_add(cx, cx, t);
  mpf_set_d(t, y + 0.5 + nudge);
  mpf_mul(t, t, step);
  mpf_add(cy, cy, t);
  mpf_set_ui(zx, 0);
  mpf_set_ui(zy, 0);
  for (long n = 0; n < limit; n++) {
    mpf_mul(xx, zx, zx);
    mpf_mul(yy, zy, zy);
    mpf_mul(t, zx, zy);
    mpf_mul_2exp(t, t, 1);
    mpf_add(zy, t, cy);
    mpf_sub(zx, xx, yy);
    mpf_add(zx, zx, cx);
    mpf_mul(xx, zx, zx);
    mpf_mul(yy, zy, zy);
    mpf_add(t, xx, yy);
    if (mpf_cmp_ui(t, 4) > 0) return n;
  }
  return -1;
}

// The same orbit in plain double from the double parameter the canvas uses:
// where it escapes without the kernels' watch.
long plaindoublecount(D::CANVAS* canvas, int x, int y, long limit) {
  double s = std::ldexp(1.0, 4 - canvas->depth - canvas->canvassizeshift);
  std::complex<double> c = canvas->cf + std::complex<double>(x * s, y * s);
  std::complex<double> z = 0;
  for (long n = 0; n < limit; n++) {
    std::complex<double> z1 = z * z + c;
    if (std::norm(z1) > 4) return n;
    z = z1;
  }
  return -1;
}

class KernelRounding : public ::testing::TestWithParam<unsigned int> {
 protected:
  void SetUp() override { canvaskernels::orbittally().clear(); }
};

// The premise: the plain double orbit of the vertex does leave the disc,
// long before the exact one would.
TEST(KernelRoundingPremise, PlainDoubleEscapesTheGoldenAngleVertex) {
  CORNERJOB j(0, GOLDENDEPTH, GOLDENRE, GOLDENIM);
  D::CANVAS* canvas = j.init();
  EXPECT_EQ(plaindoublecount(canvas, GOLDENX, GOLDENY, 200000), DOUBLEESCAPE);
  EXPECT_EQ(exactcount(GOLDENRE, GOLDENIM, GOLDENDEPTH, GOLDENX, GOLDENY, 200000,
                       2 * GOLDENDEPTH + 256),
            -1);
}

// z_n of the vertex's parameter in plain long double, the parameter the
// exact corner plus the grid offset, each rounded once.
std::complex<long double> longdoublestate(D::CANVAS* canvas, int x, int y, long n) {
  long double s = std::ldexp(1.0L, 4 - canvas->depth - canvas->canvassizeshift);
  std::complex<long double> c(mpf_get_ld(canvas->c[0]) + x * s, mpf_get_ld(canvas->c[1]) + y * s);
  std::complex<long double> z = 0;
  for (long k = 0; k < n; k++) z = csqrT(z) + c;
  return z;
}

// With and without derivative channels: the vertex is followed again in
// long double and stays bounded across the grants of the finite pass.
// Without them the long double state is kept whole between grants (the
// nearest double in `value`, the rest in `d`), so the orbit starts over
// once; with them the state holds the derivative, and the orbit starts over
// at every grant after the first widening.
TEST_P(KernelRounding, GoldenAngleVertexDoesNotEscapeByRounding) {
  CORNERJOB j(GetParam(), GOLDENDEPTH, GOLDENRE, GOLDENIM);
  D::CANVAS* canvas = j.init();
  const bool fast = GetParam() == 0;
  ASSERT_EQ((canvas->flags & CF_FAST) != 0, fast);
  int r = runvertex(canvas, GOLDENX, GOLDENY, 30000, 200000);
  const D::CVALUE& cv = canvas->v[GOLDENY * CANVASSIZE + GOLDENX].v;
  EXPECT_EQ(r, CALC_MORE);
  EXPECT_EQ(cv.iter, 200000u);
  EXPECT_FALSE(cv.flags & CV_ESCAPED);
  long widened = canvaskernels::orbittally().widened.load();
  if (fast) {
    EXPECT_EQ(widened, 1);
    std::complex<long double> want = longdoublestate(canvas, GOLDENX, GOLDENY, 200000);
    EXPECT_EQ(static_cast<long double>(cv.value.real()) + cv.d.real(), want.real());
    EXPECT_EQ(static_cast<long double>(cv.value.imag()) + cv.d.imag(), want.imag());
  } else {
    EXPECT_GE(widened, 2);
  }
}

// An orbit that leaves the disc at once, far from the boundary, keeps its
// double count and is never followed again.
TEST_P(KernelRounding, ClearEscapeStaysInDouble) {
  // The tile at depth 4 whose corner is 0.25 + 0.5i: every point of it
  // escapes within a few steps.
  CORNERJOB j(GetParam(), 4, "0.25", "0.5");
  D::CANVAS* canvas = j.init();
  for (int x : {0, 128, 256}) {
    int r = runvertex(canvas, x, 200, 1000, 1000);
    const D::CVALUE& cv = canvas->v[200 * CANVASSIZE + x].v;
    EXPECT_EQ(r, CALC_DONE);
    EXPECT_EQ(static_cast<long>(cv.iter), exactcount("0.25", "0.5", 4, x, 200, 1000, 512));
  }
  EXPECT_EQ(canvaskernels::orbittally().widened.load(), 0);
}

// Seahorse valley at depth 22, the deepest double serves without an
// environment: the counts of vertices whose double orbits were followed
// again are those of a plain long double orbit of the exact parameter
// rounded once. Such escapes are the ones that a move of the parameter by
// 2^-20 of a step changes (the rounding of double is of that order here):
// every one sampled is.
const char* const SEAHORSERE = "-0.74364584952799450690008598030544817447662353515625";
const char* const SEAHORSEIM = "0.13182335823567736809991401969455182552337646484375";
constexpr int SEAHORSEDEPTH = 22;

long plainlongdoublecount(int x, int y, long limit) {
  MPF cx(512), cy(512), step(512), t(512);
  setpow2(step, 4 - SEAHORSEDEPTH - 8);
  mpf_set_str(cx, SEAHORSERE, 10);
  mpf_set_str(cy, SEAHORSEIM, 10);
  mpf_set_d(t, x + 0.5);
  mpf_mul(t, t, step);
  mpf_add(cx, cx, t);
  mpf_set_d(t, y + 0.5);
  mpf_mul(t, t, step);
  mpf_add(cy, cy, t);
  std::complex<long double> c(mpf_get_ld(cx), mpf_get_ld(cy));
  std::complex<long double> z = 0;
  for (long n = 0; n < limit; n++) {
    std::complex<long double> z1 = csqrT(z) + c;
    if (std::norm(z1) > 4) return n;
    z = z1;
  }
  return -1;
}

TEST_P(KernelRounding, WidenedCountsAreThoseOfLongDouble) {
  CORNERJOB j(GetParam(), SEAHORSEDEPTH, SEAHORSERE, SEAHORSEIM);
  D::CANVAS* canvas = j.init();
  const mp_bitcnt_t bits = 2 * SEAHORSEDEPTH + 256;
  const long limit = 100000;
  int widened = 0, settled = 0;
  for (int y = 0; y <= 256 && widened < 40; y += 3) {
    for (int x = 0; x <= 256 && widened < 40; x += 7) {
      long before = canvaskernels::orbittally().widened.load();
      int r = runvertex(canvas, x, y, limit, limit);
      if (canvaskernels::orbittally().widened.load() == before || r != CALC_DONE) continue;
      widened++;
      long k = canvas->v[y * CANVASSIZE + x].v.iter;
      EXPECT_EQ(k, plainlongdoublecount(x, y, limit)) << "(" << x << "," << y << ")";
      long exact = exactcount(SEAHORSERE, SEAHORSEIM, SEAHORSEDEPTH, x, y, 10 * limit, bits);
      long moved =
          exactcount(SEAHORSERE, SEAHORSEIM, SEAHORSEDEPTH, x, y, 10 * limit, bits, 0x1p-20);
      settled += exact >= 0 && exact == moved;
    }
  }
  printf("%d widened escapes, %d of them settled\n", widened, settled);
  EXPECT_EQ(widened, 40);
  EXPECT_EQ(settled, 0);
}

INSTANTIATE_TEST_SUITE_P(Kernels, KernelRounding, ::testing::Values(0u, CF_DERIVATIVE),
                         [](const ::testing::TestParamInfo<unsigned int>& info) {
                           return std::string(info.param ? "Derivative" : "Fast");
                         });

}  // namespace
