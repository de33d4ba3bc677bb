// Setting up a canvas for a job in each number format, the choice of format,
// and the canvas's two pools: orbit sample blocks and high-precision
// checkpoints, with the operations on orbit states that hold counts on them.
//
// One canvas buffer (some 150 MB) serves the whole process, as a worker
// thread's does: every test runs `initcanvas` on it first.
#include <gmp.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Mandelbrot.h"
#include "canvas/model.h"
#include "canvastest.h"

namespace {

template <typename T>
int mantbits() {
  typedef typename T::FLOAT FLOAT;
  if constexpr (std::is_same_v<FLOAT, float>) return FLT_MANT_DIG;
  else if constexpr (std::is_same_v<FLOAT, double>) return DBL_MANT_DIG;
  else if constexpr (std::is_same_v<FLOAT, long double>) return LDBL_MANT_DIG;
  else return 62;
}

template <typename T>
int minexp() {
  typedef typename T::FLOAT FLOAT;
  if constexpr (std::is_same_v<FLOAT, float>) return FLT_MIN_EXP - 1;
  else if constexpr (std::is_same_v<FLOAT, double>) return DBL_MIN_EXP - 1;
  else if constexpr (std::is_same_v<FLOAT, long double>) return LDBL_MIN_EXP - 1;
  else return -HFLOAT_EXPMAX;
}

// A format value in mpf, exactly.
template <typename T>
void tompf(mpf_ptr x, typename T::FLOAT f) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) mpf_set_HFexact(x, f);
  else mpf_set_ld(x, static_cast<long double>(f));
}

template <typename T>
typename T::FLOAT re(typename T::COMPLEX z) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) return crealHF(z);
  else return z.real();
}
template <typename T>
typename T::FLOAT im(typename T::COMPLEX z) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) return cimagHF(z);
  else return z.imag();
}

// |got - want| <= |want| * 2^-bits, in mpf.
bool closempf(mpf_ptr got, mpf_ptr want, int bits) {
  MPF d, bound;
  mpf_sub(d, got, want);
  mpf_abs(d, d);
  mpf_abs(bound, want);
  mpf_div_2exp(bound, bound, bits);
  return mpf_cmp(d, bound) <= 0;
}

// ---------------------------------------------------------------- typed over the formats

template <typename T>
class CanvasInit : public ::testing::Test {};

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
TYPED_TEST_SUITE(CanvasInit, FORMATS, FormatNames);

// corner + ct + (x + 1/2, y + 1/2) * 2^(4 - depth - 8), against the canvas.
template <typename T>
void checkplacement(unsigned int word, int depth) {
  typedef typename T::FLOAT FLOAT;
  typename T::CANVAS* canvas = canvasof<T>();
  SCOPED_TRACE("depth " + std::to_string(depth) + " word " + std::to_string(word));
  int s = 4 - depth - 8;
  HANDHPV corner(20000);
  // A corner of the quadtree at this depth, and an offset of a few tiles.
  MPF tile;
  setpow2(tile, 4 - depth);
  mpf_set_d(corner.h.v[0], -1.5);
  mpf_set_d(corner.h.v[1], 0.25);
  MPF t;
  mpf_mul_ui(t, tile, 3);
  mpf_add(corner.h.v[0], corner.h.v[0], t);
  mpf_mul_ui(t, tile, 11);
  mpf_sub(corner.h.v[1], corner.h.v[1], t);
  HFLOATCOMPLEX ct = cHF(ldexpHF(HFd(5), 4 - depth), ldexpHF(HFd(-7), 4 - depth));
  JOB job(word, depth);
  job.w.pdata[JOB_CORNER] = &corner.h;
  job.w.hdata[JOB_CT] = ct;
  canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);

  MPF want[2];
  for (int k = 0; k < 2; k++) {
    mpf_set_HFexact(want[k], k == 0 ? crealHF(ct) : cimagHF(ct));
    mpf_add(want[k], want[k], corner.h.v[k]);
    setpow2(t, s - 1);
    mpf_add(want[k], want[k], t);
    EXPECT_EQ(mpf_cmp(canvas->c[k], want[k]), 0) << "part " << k;
  }
  FLOAT fx = canvasmodel::NUM<FLOAT>::frommpf(want[0]);
  FLOAT fy = canvasmodel::NUM<FLOAT>::frommpf(want[1]);
  typename T::COMPLEX fc;
  if constexpr (std::is_same_v<FLOAT, HFLOAT>) fc = cHF(fx, fy);
  else fc = typename T::COMPLEX(fx, fy);
  EXPECT_TRUE(samec<T>(canvas->cf, fc));
  MPF got;
  tompf<T>(got, re<T>(canvas->cf));
  EXPECT_TRUE(closempf(got, want[0], mantbits<T>() - 1));
  tompf<T>(got, im<T>(canvas->cf));
  EXPECT_TRUE(closempf(got, want[1], mantbits<T>() - 1));
  EXPECT_TRUE(samehf(canvas->ct, ct));

  // Julia vertices start at their own point: check a few against GMP where
  // the format can hold a grid step at all.
  if ((word & CF_JULIA) && s - 1 >= minexp<T>()) {
    const int pts[][2] = {{0, 0}, {256, 256}, {17, 200}, {256, 0}};
    for (const auto& p : pts) {
      typename T::COMPLEX z = canvas->v[p[1] * CANVASSIZE + p[0]].v.value;
      for (int k = 0; k < 2; k++) {
        MPF exact;
        setpow2(t, s);
        mpf_mul_ui(exact, t, p[k]);
        mpf_add(exact, exact, want[k]);
        tompf<T>(got, k == 0 ? re<T>(z) : im<T>(z));
        EXPECT_TRUE(closempf(got, exact, mantbits<T>() - 3))
            << "vertex " << p[0] << "," << p[1] << " part " << k;
      }
    }
  }
}

TYPED_TEST(CanvasInit, VerticesAtCellCentresMandelbrot) {
  for (int depth : {0, 40, 499, 500, 7999, 8000})
    checkplacement<TypeParam>(CF_GENERAL & 0, depth);
}

TYPED_TEST(CanvasInit, VerticesAtCellCentresJulia) {
  for (int depth : {0, 40, 124, 125, 499, 500, 1599, 1600, 7999, 8000})
    checkplacement<TypeParam>(CF_JULIA, depth);
}

TYPED_TEST(CanvasInit, GridStartState) {
  typedef TypeParam T;
  typename T::CANVAS* canvas = canvasof<T>();
  // Leave traces of an earlier job everywhere initcanvas must clear.
  memset(static_cast<void*>(canvas->v), 0x5A, sizeof canvas->v);
  canvas->interpoliter = 7;
  canvas->oldinterpoliter = 8;
  canvas->oldinterpoliter2 = 9;
  canvas->environmenthpvalue = &canvas->hpvalue[3];
  canvas->idata = 99;
  canvas->rdata = 42;
  canvas->ihpvalue = 5;
  JOB job(CF_INTERPOL | CF_DERIVATIVE, 12);
  canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
  EXPECT_EQ(canvas->canvassizeshift, 8);
  EXPECT_EQ(canvas->canvasinterpol, 32);
  EXPECT_EQ(canvas->interpoliter, 0);
  EXPECT_EQ(canvas->oldinterpoliter, 0);
  EXPECT_EQ(canvas->oldinterpoliter2, 0);
  EXPECT_EQ(canvas->environmenthpvalue, nullptr);
  EXPECT_EQ(canvas->oldenvironmenthpvalue, nullptr);
  EXPECT_EQ(canvas->oldenvironmenthpvalue2, nullptr);
  EXPECT_EQ(canvas->next, nullptr);
  EXPECT_EQ(canvas->__worker, &job.w);
  EXPECT_EQ(canvas->depth, 12);
  EXPECT_TRUE(canvas->flags & CF_ACTIVE);
  EXPECT_EQ(canvas->idata, 0);
  EXPECT_EQ(canvas->rdata, 0);
  EXPECT_EQ(canvas->data[0].next, -1);
  EXPECT_EQ(canvas->ihpvalue, 0);
  EXPECT_EQ(canvas->rhpvalue, &canvas->hpvalue[0]);
  EXPECT_EQ(canvas->hpvalue[0].next, nullptr);
  int bad = 0;
  for (int y = 0; y < CANVASSIZE; y++) {
    for (int x = 0; x < CANVASSIZE; x++) {
      int i = y * CANVASSIZE + x;
      const typename T::CVERTEX& v = canvas->v[i];
      bool corner = (x == 0 || x == 256) && (y == 0 || y == 256);
      bool ok = v.x == x && v.y == y && v.flags == 0 && v.depth == 0 && v.forced == 0 &&
                v.maxiter == 0 && v.refiter == 0 && v.n[0] == -1 && v.n[1] == -1 &&
                v.n[2] == -1 && v.next == -1 && v.next2 == -1 && v.next3 == -1 &&
                v.firstdata == -1 && v.lastdata == -1 && chainempty(&v.hpvchain) &&
                v.inftydata.ipdata == 0 && v.v.iter == (corner ? 0xFFFFFFFFu : 0u) &&
                v.v.ref == -1 && v.v.data == 0 && v.v.hpvalue == nullptr && v.v.flags == 0 &&
                v.interpolv.iter == 0 && v.interpolv.ref == -1 && v.interpolv.flags == 0 &&
                v.interpolv.hpvalue == nullptr && v.oldv.flags == CV_FAILED &&
                v.oldv2.flags == CV_FAILED && v.oldv.ref == -1 && v.oldv2.ref == -1 &&
                v.oldv.hpvalue == nullptr && v.oldv2.hpvalue == nullptr &&
                samec<T>(v.v.value, cmake<T>(0, 0)) && samec<T>(v.v.d, cmake<T>(0, 0));
      if (!ok && bad++ < 5) ADD_FAILURE() << "vertex " << x << "," << y;
    }
  }
  EXPECT_EQ(bad, 0);
}

TYPED_TEST(CanvasInit, StepNumbers) {
  typedef TypeParam T;
  typedef typename T::FLOAT FLOAT;
  typename T::CANVAS* canvas = canvasof<T>();
  for (int depth : {0, 40, 700}) {
    JOB job(0, depth);
    canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
    EXPECT_EQ(canvas->dfactor.mantissa, 0x2492492492492400);
    EXPECT_EQ(canvas->dfactor.exponent, JULIASIZESHIFT - 5 - depth);
    // The mantissa is 4/7 of 2^62: the record's value is (4/7) 2^(juliasizeshift - 5 - depth).
    EXPECT_NEAR(dHF(ldexpHF(canvas->dfactor, depth)), std::ldexp(4.0 / 7, JULIASIZESHIFT - 5),
                1e-15);
    EXPECT_EQ(canvas->precision, static_cast<mp_bitcnt_t>(64 + depth));
    EXPECT_EQ(canvas->maxiter, 0);
    // (P 2^s / dfactor)^2 = (7/4 P 2^(1 - juliasizeshift))^2 whatever the depth.
    double P = std::is_same_v<FLOAT, float>         ? 1e6
               : std::is_same_v<FLOAT, double>      ? 1e14
               : std::is_same_v<FLOAT, long double> ? 1e18
                                                    : 1e15;
    double want = std::pow(7 * P / 4 * std::ldexp(1.0, 1 - JULIASIZESHIFT), 2);
    double got;
    if constexpr (std::is_same_v<FLOAT, HFLOAT>) got = dHF(canvas->Zfactor);
    else got = static_cast<double>(canvas->Zfactor);
    EXPECT_NEAR(got / want, 1.0, 1e-6) << depth;
    // Without CF_JULIACORRECT the derivative bound is the format's largest value.
    EXPECT_TRUE(samehf(tohf<T>(canvasmodel::NUM<FLOAT>::creal(canvas->dbound)),
                       tohf<T>(canvasmodel::NUM<FLOAT>::creal(canvasmodel::NUM<FLOAT>::max()))));
  }
}

TYPED_TEST(CanvasInit, JuliaRealm) {
  typedef TypeParam T;
  typedef typename T::FLOAT FLOAT;
  typename T::CANVAS* canvas = canvasof<T>();
  JOB job(CF_JULIA, 20);
  canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
  EXPECT_EQ(canvas->precision, static_cast<mp_bitcnt_t>(64 + 40));
  EXPECT_EQ(canvas->maxiter, 200000000);
  EXPECT_EQ(canvas->flags & 0x4001u, 0x4001u);
  // Julia corners are not pending, and every vertex's derivative starts at dfactor.
  EXPECT_EQ(canvas->v[0].v.iter, 0u);
  EXPECT_EQ(canvas->v[NCVERTEX - 1].v.iter, 0u);
  typename T::COMPLEX d0 =
      canvasmodel::NUM<FLOAT>::creal(canvasmodel::NUM<FLOAT>::fromHF(canvas->dfactor));
  EXPECT_TRUE(samec<T>(canvas->v[1234].v.d, d0));
  EXPECT_FALSE(samec<T>(canvas->v[1234].v.d, cmake<T>(0, 0)));
}

TYPED_TEST(CanvasInit, HyperbolicRealm) {
  typedef TypeParam T;
  typedef typename T::FLOAT FLOAT;
  typename T::CANVAS* canvas = canvasof<T>();
  JOB job(CF_HYPERBOLIC, 3);
  canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
  EXPECT_EQ(canvas->maxiter, 10000000);
  EXPECT_TRUE(canvas->flags & CF_NOINFTY);
  EXPECT_EQ(canvas->precision, static_cast<mp_bitcnt_t>(67));
  // s = 4 - 3 - 8 = -7: the vertex (2, 5) starts at cf + (2, 5) / 128, d = 1/128.
  typename T::COMPLEX want = canvasmodel::NUM<FLOAT>::cadd(canvas->cf, cmake<T>(2.0 / 128, 5.0 / 128));
  EXPECT_TRUE(samec<T>(canvas->v[5 * CANVASSIZE + 2].v.value, want));
  EXPECT_TRUE(samec<T>(canvas->v[5 * CANVASSIZE + 2].v.d, cmake<T>(1.0 / 128, 0)));
  EXPECT_EQ(canvas->v[0].v.iter, 0xFFFFFFFFu);
}

TYPED_TEST(CanvasInit, DerivativeBound) {
  typedef TypeParam T;
  typedef typename T::FLOAT FLOAT;
  typename T::CANVAS* canvas = canvasof<T>();
  typedef canvasmodel::NUM<FLOAT> N;
  auto bound = [&](unsigned int word, int depth, int idata8) {
    JOB job(word, depth);
    job.w.idata[JOB_DBOUND] = idata8;
    canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
    return tohf<T>(N::creal(canvas->dbound));
  };
  auto expect = [&](FLOAT f) { return tohf<T>(N::creal(f)); };
  // Julia: k = juliasizeshift - 6 - depth = -8, (2 * 2^-8)^2 = 2^-14.
  EXPECT_TRUE(samehf(bound(CF_JULIA | CF_JULIACORRECT, 10, -1), expect(N::pow2(-14))));
  // Elsewhere k = -idata[8] = -5: 2^-8.
  EXPECT_TRUE(samehf(bound(CF_JULIACORRECT, 10, 5), expect(N::pow2(-8))));
  EXPECT_TRUE(samehf(bound(CF_JULIACORRECT, 10, -1), expect(N::max())));
  EXPECT_TRUE(samehf(bound(0, 10, 5), expect(N::max())));
}

TYPED_TEST(CanvasInit, FlagRulesWithoutReference) {
  typedef TypeParam T;
  typename T::CANVAS* canvas = canvasof<T>();
  const unsigned int all = CF_INTERPOL | CF_HPCORRECT;
  auto flags = [&](unsigned int word, int depth, ENVIRONMENT* e) {
    JOB job(word, depth);
    job.w.pdata[JOB_ENVIRONMENT] = e;
    canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
    return canvas->flags;
  };
  // No environment, no derivative: shallow loses interpolation, all go fast.
  unsigned int f = flags(all, 30, nullptr);
  EXPECT_EQ(f & (CF_INTERPOL | CF_HPCORRECT | CF_FAST), CF_FAST);
  f = flags(all, 31, nullptr);
  EXPECT_EQ(f & (CF_INTERPOL | CF_HPCORRECT | CF_FAST), CF_INTERPOL | CF_FAST);
  f = flags(all | CF_JULIA, 30, nullptr);
  EXPECT_EQ(f & (CF_INTERPOL | CF_FAST), CF_INTERPOL | CF_FAST);
  f = flags(all | CF_DERIVATIVE, 30, nullptr);
  EXPECT_EQ(f & (CF_INTERPOL | CF_HPCORRECT | CF_FAST), CF_INTERPOL);
  // A reference with a series keeps high-precision correction below depth 31.
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(calloc(1, sizeof(ENVIRONMENT)));
  e->flags = E_SERIES | E_PERIODIC;
  e->scalec = CONEH;
  e->scalez = CONEH;
  f = flags(all, 32, e);
  EXPECT_EQ(f & (CF_INTERPOL | CF_HPCORRECT | CF_FAST), CF_INTERPOL | CF_HPCORRECT);
  f = flags(all, 31, e);
  EXPECT_EQ(f & (CF_INTERPOL | CF_HPCORRECT | CF_FAST), CF_INTERPOL);
  // A periodic point without series is no reference.
  e->flags = E_PERIODIC;
  f = flags(all, 40, e);
  EXPECT_EQ(f & (CF_INTERPOL | CF_HPCORRECT | CF_FAST), CF_INTERPOL | CF_FAST);
  free(e);
}

TYPED_TEST(CanvasInit, SatelliteScales) {
  typedef TypeParam T;
  typename T::CANVAS* canvas = canvasof<T>();
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(calloc(1, sizeof(ENVIRONMENT)));
  e->flags = E_SERIES;
  e->scalec = cHF(HFd(3), HFd(0));
  e->scalez = cHF(HFd(0), HFd(2));
  JOB job(0, 10);
  job.w.pdata[JOB_ENVIRONMENT] = e;
  canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
  // dfactor * 3 / 2i = -1.5i dfactor.
  double df = dHF(canvas->dfactor);
  EXPECT_NEAR(dHF(crealHF(canvas->dfactor2)) / df, 0.0, 1e-15);
  EXPECT_NEAR(dHF(cimagHF(canvas->dfactor2)) / df, -1.5, 1e-15);
  // 0.002 * 4 * 2^(2s) / dfactor^2, s = 4 - 10 - 8.
  double want = 0.002 * 4 * std::ldexp(1.0, 2 * (4 - 10 - 8)) / (df * df);
  EXPECT_NEAR(dHF(canvas->sbound) / want, 1.0, 1e-12);
  free(e);
}

TYPED_TEST(CanvasInit, GeneralRealmRelativeOrigin) {
  typedef TypeParam T;
  typedef typename T::FLOAT FLOAT;
  typename T::CANVAS* canvas = canvasof<T>();
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(calloc(1, sizeof(ENVIRONMENT)));
  HANDHPV ec(256);
  mpf_set_d(ec.h.v[0], -0.75);
  mpf_set_d(ec.h.v[1], 0.125);
  e->c = &ec.h;
  e->flags = E_SERIES;
  e->scalec = CONEH;
  e->scalez = CONEH;
  HANDHPV corner(256);
  mpf_set_d(corner.h.v[0], -0.75);
  mpf_set_d(corner.h.v[1], 0.0);
  JOB job(CF_GENERAL, 4);
  job.w.pdata[JOB_ENVIRONMENT] = e;
  job.w.pdata[JOB_CORNER] = &corner.h;
  canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
  // c = corner + 2^(s-1), s = -8: the origin is 2^-9 - 0.125 i away from e.
  EXPECT_TRUE(samec<T>(canvas->cf, cmake<T>(std::ldexp(1.0, -9), std::ldexp(1.0, -9) - 0.125)));
  EXPECT_TRUE(samec<T>(canvas->cr, canvas->cf));
  // Mandelbrot-like start: z = d = 0.
  EXPECT_TRUE(samec<T>(canvas->v[300].v.value, cmake<T>(0, 0)));
  (void)sizeof(FLOAT);
  free(e);
}

TYPED_TEST(CanvasInit, RemoveCanvasFreesTheClaim) {
  typedef TypeParam T;
  typename T::CANVAS* canvas = canvasof<T>();
  JOB job(CF_INTERPOL, 5);
  canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
  EXPECT_TRUE(canvas->flags & CF_ACTIVE);
  canvasmodel::removecanvas<T>(gcontext, canvas);
  EXPECT_EQ(canvas->flags, 2u);
}

// ---------------------------------------------------------------- block pool

template <typename T>
typename T::CANVAS* freshcanvas(int depth = 10) {
  typename T::CANVAS* canvas = canvasof<T>();
  JOB job(0, depth);
  canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
  return canvas;
}

TYPED_TEST(CanvasInit, BlocksHandOutInOrderAndRecycleLastFreedFirst) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  for (int k = 0; k < 5; k++) {
    int b = canvasmodel::addcdata<T>(canvas, 64 * k, 7);
    EXPECT_EQ(b, k);
    EXPECT_EQ(canvas->data[b].iter, 64 * k);
    EXPECT_EQ(canvas->data[b].ref, 7);
    EXPECT_EQ(canvas->data[b].next, -1);
  }
  EXPECT_EQ(canvas->idata, 5);
  canvasmodel::removecdata<T>(canvas, 1);
  canvasmodel::removecdata<T>(canvas, 3);
  EXPECT_EQ(canvas->idata, 3);
  EXPECT_EQ(canvasmodel::addcdata<T>(canvas, 0, 1), 3);
  EXPECT_EQ(canvasmodel::addcdata<T>(canvas, 0, 1), 1);
  EXPECT_EQ(canvasmodel::addcdata<T>(canvas, 0, 1), 5);
  EXPECT_EQ(canvas->idata, 6);
}

TYPED_TEST(CanvasInit, BlocksExhaustAtPoolSize) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  for (int k = 0; k < NCDATA; k++) ASSERT_EQ(canvasmodel::addcdata<T>(canvas, k, 0), k);
  EXPECT_EQ(canvas->idata, NCDATA);
  EXPECT_EQ(canvasmodel::addcdata<T>(canvas, 0, 0), -1);
  EXPECT_EQ(canvas->idata, NCDATA);
  canvasmodel::removecdata<T>(canvas, 12345);
  EXPECT_EQ(canvasmodel::addcdata<T>(canvas, 0, 0), 12345);
  EXPECT_EQ(canvasmodel::addcdata<T>(canvas, 0, 0), -1);
}

TYPED_TEST(CanvasInit, WriteAndReadSamplesAlongTheChain) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  int head = canvasmodel::addcdata<T>(canvas, 100, 9);
  int cursor = head;
  for (int it = 100; it < 300; it++)
    ASSERT_EQ(canvasmodel::writecdata<T>(canvas, &cursor, it, cmake<T>(it, -it), freal<T>(0.5), 9), 1);
  // 100..163, 164..227, 228..291, 292..355.
  EXPECT_EQ(canvas->idata, 4);
  EXPECT_EQ(canvas->data[cursor].iter, 292);
  EXPECT_EQ(canvas->data[cursor].ref, 9);
  // Below the block: covered, nothing written.
  typename T::COMPLEX old = canvas->data[head].value[0];
  EXPECT_EQ(canvasmodel::writecdata<T>(canvas, &head, 50, cmake<T>(1, 1), freal<T>(0.5), 9), 1);
  EXPECT_TRUE(samec<T>(canvas->data[head].value[0], old));
  int none = -1;
  EXPECT_EQ(canvasmodel::writecdata<T>(canvas, &none, 100, cmake<T>(1, 1), freal<T>(0.5), 9), 0);

  int rc = head;
  typename T::COMPLEX v = cmake<T>(-1, -1);
  typename T::FLOAT a = canvasmodel::NUM<typename T::FLOAT>::zero();
  canvasmodel::readcdata<T>(canvas, &rc, 250, &v, &a);
  EXPECT_TRUE(samec<T>(v, cmake<T>(250, -250)));
  EXPECT_TRUE(samec<T>(canvasmodel::NUM<typename T::FLOAT>::creal(a), cmake<T>(0.5, 0)));
  EXPECT_EQ(canvas->data[rc].iter, 228);
  // Past the chain's end, below its start, or with no cursor: nothing read.
  v = cmake<T>(-1, -1);
  rc = head;
  canvasmodel::readcdata<T>(canvas, &rc, 356, &v, &a);
  canvasmodel::readcdata<T>(canvas, &rc, 99, &v, &a);
  canvasmodel::readcdata<T>(canvas, &none, 150, &v, &a);
  EXPECT_TRUE(samec<T>(v, cmake<T>(-1, -1)));
}

TYPED_TEST(CanvasInit, WriteStopsWhenThePoolIsExhausted) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  int head = canvasmodel::addcdata<T>(canvas, 0, 3);
  for (int k = 1; k < NCDATA; k++) ASSERT_NE(canvasmodel::addcdata<T>(canvas, 0, 0), -1);
  int cursor = head;
  EXPECT_EQ(canvasmodel::writecdata<T>(canvas, &cursor, 63, cmake<T>(1, 2), freal<T>(0.5), 3), 1);
  EXPECT_EQ(canvasmodel::writecdata<T>(canvas, &cursor, 64, cmake<T>(1, 2), freal<T>(0.5), 3), 0);
  EXPECT_EQ(canvas->data[head].next, -1);
  EXPECT_EQ(canvas->idata, NCDATA);
}

TYPED_TEST(CanvasInit, FreeToIterFreesOnlyWholeBlocksBelow) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  int head = canvasmodel::addcdata<T>(canvas, 0, 1);
  int cursor = head;
  canvasmodel::writecdata<T>(canvas, &cursor, 200, cmake<T>(0, 0), freal<T>(0), 1);  // blocks 0, 64, 128, 192
  ASSERT_EQ(canvas->idata, 4);
  int h = head;
  canvasmodel::freetoitercdata<T>(canvas, &h, 63);
  EXPECT_EQ(h, head);
  EXPECT_EQ(canvas->idata, 4);
  canvasmodel::freetoitercdata<T>(canvas, &h, 64);
  EXPECT_EQ(canvas->data[h].iter, 64);
  EXPECT_EQ(canvas->idata, 3);
  canvasmodel::freetoitercdata<T>(canvas, &h, 191);
  EXPECT_EQ(canvas->data[h].iter, 128);
  EXPECT_EQ(canvas->idata, 2);
  canvasmodel::freetoitercdata<T>(canvas, &h, INT_MAX);
  EXPECT_EQ(h, -1);
  EXPECT_EQ(canvas->idata, 0);
  // The freed blocks come back last-freed first: 128, 64, 0 came before 192.
  EXPECT_EQ(canvasmodel::addcdata<T>(canvas, 0, 0), 3);
}

// ---------------------------------------------------------------- checkpoint pool

TYPED_TEST(CanvasInit, CheckpointsHandOutRecycleAndKeepTheirStorage) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>(100);
  int m0 = canvas->mhpvalue;
  CHPVALUE* h[4];
  for (int k = 0; k < 4; k++) {
    h[k] = canvasmodel::addhpvalue<T>(canvas, true);
    ASSERT_EQ(h[k], &canvas->hpvalue[k]);
    EXPECT_EQ(h[k]->count, 1);
    EXPECT_GE(mpf_get_prec(h[k]->value[0]), 164u);
    EXPECT_EQ(mpf_sgn(h[k]->value[1]), 0);
  }
  EXPECT_EQ(canvas->ihpvalue, 4);
  EXPECT_EQ(canvas->mhpvalue, std::max(m0, 4));
  mpf_set_ui(h[2]->value[0], 5);
  canvasmodel::attachhpvalue<T>(h[2]);
  canvasmodel::detachhpvalue<T>(canvas, h[2], false);
  EXPECT_EQ(canvas->ihpvalue, 4);
  canvasmodel::detachhpvalue<T>(canvas, h[2], false);
  EXPECT_EQ(canvas->ihpvalue, 3);
  canvasmodel::detachhpvalue<T>(canvas, h[0], false);
  EXPECT_EQ(canvas->ihpvalue, 2);
  // Last freed first; without clear the old value stays, with clear it is 0.
  CHPVALUE* a = canvasmodel::addhpvalue<T>(canvas, false);
  EXPECT_EQ(a, h[0]);
  CHPVALUE* b = canvasmodel::addhpvalue<T>(canvas, false);
  EXPECT_EQ(b, h[2]);
  EXPECT_EQ(mpf_cmp_ui(b->value[0], 5), 0);
  canvasmodel::detachhpvalue<T>(canvas, b, false);
  b = canvasmodel::addhpvalue<T>(canvas, true);
  EXPECT_EQ(mpf_sgn(b->value[0]), 0);
  EXPECT_EQ(canvasmodel::addhpvalue<T>(canvas, true), &canvas->hpvalue[4]);
  // A new job reuses the storage: the high-water mark does not move.
  int m1 = canvas->mhpvalue;
  canvas = freshcanvas<T>(300);
  CHPVALUE* c = canvasmodel::addhpvalue<T>(canvas, true);
  EXPECT_EQ(c, &canvas->hpvalue[0]);
  EXPECT_EQ(canvas->mhpvalue, m1);
  EXPECT_GE(mpf_get_prec(c->value[0]), 364u);
}

TYPED_TEST(CanvasInit, CheckpointsExhaustAtPoolSize) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  for (int k = 0; k < NCHPVALUE; k++)
    ASSERT_EQ(canvasmodel::addhpvalue<T>(canvas, false), &canvas->hpvalue[k]);
  EXPECT_EQ(canvas->mhpvalue, NCHPVALUE);
  EXPECT_EQ(canvasmodel::addhpvalue<T>(canvas, false), nullptr);
  canvasmodel::detachhpvalue<T>(canvas, &canvas->hpvalue[77], false);
  EXPECT_EQ(canvasmodel::addhpvalue<T>(canvas, false), &canvas->hpvalue[77]);
  EXPECT_EQ(canvasmodel::addhpvalue<T>(canvas, false), nullptr);
}

TYPED_TEST(CanvasInit, DetachBelowOneIsAnError) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  CHPVALUE* h = canvasmodel::addhpvalue<T>(canvas, true);
  canvasmodel::detachhpvalue<T>(canvas, h, false);
  EXPECT_EQ(canvas->ihpvalue, 0);
  ::testing::internal::CaptureStderr();
  canvasmodel::detachhpvalue<T>(canvas, h, false);
  canvasmodel::refdetachhpvalue<T>(canvas, 0, h);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "detachhpvalue: error.\ndetachhpvalue: error.\n");
  EXPECT_EQ(canvas->ihpvalue, 0);
  EXPECT_EQ(canvas->rhpvalue, h);
  EXPECT_NE(h->next, h);
}

TYPED_TEST(CanvasInit, RefDetachFreesBlocksBelowTheLowestCheckpoint) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  const int vx = 5;
  auto* v = &canvas->v[vx];
  // An orbit from 0 to 255 in four blocks, with checkpoints at 0 and 130.
  v->firstdata = canvasmodel::addcdata<T>(canvas, 0, vx);
  int cursor = v->firstdata;
  canvasmodel::writecdata<T>(canvas, &cursor, 255, cmake<T>(0, 0), freal<T>(0), vx);
  v->lastdata = cursor;
  ASSERT_EQ(canvas->idata, 4);
  CHPVALUE* h0 = canvasmodel::addhpvalue<T>(canvas, true);
  CHPVALUE* h1 = canvasmodel::addhpvalue<T>(canvas, true);
  h0->iter = 0;
  h1->iter = 130;
  chaininsbegin(&v->hpvchain, &h0->chain);
  chaininsbegin(&v->hpvchain, &h1->chain);
  canvasmodel::attachhpvalue<T>(h0);  // a state holds it too
  canvasmodel::refdetachhpvalue<T>(canvas, vx, h0);
  EXPECT_EQ(h0->count, 1);
  EXPECT_EQ(canvas->idata, 4);
  canvasmodel::refdetachhpvalue<T>(canvas, vx, h0);
  EXPECT_EQ(canvas->ihpvalue, 1);
  // 130 lies in block 128..191: the two below it go.
  EXPECT_EQ(canvas->idata, 2);
  EXPECT_EQ(canvas->data[v->firstdata].iter, 128);
  EXPECT_EQ(v->lastdata, cursor);
  canvasmodel::refdetachhpvalue<T>(canvas, vx, h1);
  EXPECT_TRUE(chainempty(&v->hpvchain));
  EXPECT_EQ(canvas->ihpvalue, 0);
  EXPECT_EQ(canvas->idata, 0);
  EXPECT_EQ(v->firstdata, -1);
  EXPECT_EQ(v->lastdata, -1);
}

// ---------------------------------------------------------------- orbit states

TYPED_TEST(CanvasInit, CopyAndFreeValueKeepCounts) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  CHPVALUE* h1 = canvasmodel::addhpvalue<T>(canvas, true);
  CHPVALUE* h2 = canvasmodel::addhpvalue<T>(canvas, true);
  typename T::CVALUE a = canvas->v[0].v, b = canvas->v[0].v;
  a.hpvalue = h1;
  a.iter = 77;
  a.flags = CV_RELATIVE;
  b.hpvalue = h2;
  canvasmodel::copyvalue<T>(canvas, &b, &a);
  EXPECT_EQ(b.hpvalue, h1);
  EXPECT_EQ(b.iter, 77u);
  EXPECT_EQ(h1->count, 2);
  EXPECT_EQ(canvas->ihpvalue, 1);  // h2 lost its only holder
  canvasmodel::copyvalue<T>(canvas, &b, &b);
  EXPECT_EQ(h1->count, 2);
  canvasmodel::freevalue<T>(canvas, &b);
  EXPECT_EQ(b.hpvalue, nullptr);
  EXPECT_EQ(h1->count, 1);
  canvasmodel::freevalue<T>(canvas, &a);
  EXPECT_EQ(canvas->ihpvalue, 0);
}

TYPED_TEST(CanvasInit, TransvalueAddsTheReferenceDifference) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>(200);
  CHPVALUE* from = canvasmodel::addhpvalue<T>(canvas, true);
  CHPVALUE* to = canvasmodel::addhpvalue<T>(canvas, true);
  // Two orbit points 2^-180 apart on a value near 1: only mpf sees it.
  mpf_set_d(from->value[0], 1.0);
  mpf_set_d(to->value[0], 1.0);
  MPF t;
  setpow2(t, -180);
  mpf_add(from->value[0], from->value[0], t);
  mpf_mul_ui(t, t, 3);
  mpf_sub(to->value[1], to->value[1], t);
  typename T::COMPLEX r;
  typename T::COMPLEX delta = cmake<T>(0, 0);
  canvasmodel::__transvalue<T>(&r, canvas, delta, from, to);
  if constexpr (std::is_same_v<typename T::FLOAT, float>) {
    // 2^-180 is below float's range.
    EXPECT_TRUE(samec<T>(r, cmake<T>(0, 0)));
  } else {
    HFLOATCOMPLEX h = tohf<T>(r);
    EXPECT_EQ(log2HF(crealHF(h)), -180.0);
    EXPECT_DOUBLE_EQ(dHF(cimagHF(h)) / dHF(crealHF(h)), 3.0);
  }
  // A null checkpoint counts as zero.
  mpf_set_d(from->value[0], 0.25);
  mpf_set_d(from->value[1], -0.5);
  canvasmodel::__transvalue<T>(&r, canvas, cmake<T>(1, 1), from, nullptr);
  EXPECT_TRUE(samec<T>(r, cmake<T>(1.25, 0.5)));
  canvasmodel::__transvalue<T>(&r, canvas, cmake<T>(1, 1), nullptr, from);
  EXPECT_TRUE(samec<T>(r, cmake<T>(0.75, 1.5)));
  canvasmodel::__transvalue<T>(&r, canvas, cmake<T>(1, 1), nullptr, nullptr);
  EXPECT_TRUE(samec<T>(r, cmake<T>(1, 1)));
}

TYPED_TEST(CanvasInit, MakerefTurnsAStateIntoAReference) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  const int vx = 128 * CANVASSIZE + 128;
  typename T::CVALUE* st = &canvas->v[vx].v;
  st->iter = 1000;
  st->flags = CV_ABSOLUTE;
  st->value = cmake<T>(0.375, -0.25);
  int limit = 0;
  EXPECT_NE(canvasmodel::makeref<T>(canvas, vx, st, &limit), 0);
  EXPECT_EQ(st->flags, CV_REFERENCE);
  EXPECT_EQ(st->ref, vx);
  EXPECT_TRUE(samec<T>(st->value, cmake<T>(0, 0)));
  ASSERT_NE(st->hpvalue, nullptr);
  EXPECT_EQ(st->hpvalue->iter, 1000);
  EXPECT_EQ(mpf_cmp_d(st->hpvalue->value[0], 0.375), 0);
  EXPECT_EQ(mpf_cmp_d(st->hpvalue->value[1], -0.25), 0);
  EXPECT_EQ(st->hpvalue->count, 2);  // the state and the chain
  EXPECT_EQ(CHAINRECORD(canvas->v[vx].hpvchain.next, CHPVALUE, chain), st->hpvalue);
  EXPECT_EQ(st->data, 0);
  EXPECT_EQ(canvas->v[vx].firstdata, 0);
  EXPECT_EQ(canvas->v[vx].lastdata, 0);
  EXPECT_EQ(canvas->data[0].iter, 1000);
  EXPECT_EQ(canvas->data[0].ref, vx);

  // A relative state adds its own reference's checkpoint.
  const int vy = 3;
  typename T::CVALUE* s2 = &canvas->v[vy].v;
  s2->iter = 1000;
  s2->flags = CV_RELATIVE;
  s2->ref = vx;
  s2->value = cmake<T>(0.125, 0.5);
  s2->hpvalue = st->hpvalue;
  canvasmodel::attachhpvalue<T>(st->hpvalue);
  CHPVALUE* old = st->hpvalue;
  EXPECT_NE(canvasmodel::makeref<T>(canvas, vy, s2, &limit), 0);
  EXPECT_EQ(mpf_cmp_d(s2->hpvalue->value[0], 0.5), 0);
  EXPECT_EQ(mpf_cmp_d(s2->hpvalue->value[1], 0.25), 0);
  EXPECT_EQ(old->count, 2);  // the state gave its count back
}

TYPED_TEST(CanvasInit, MakerefRefusesWhatCannotBecomeAReference) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  int limit = 0;
  typename T::CVALUE* st = &canvas->v[10].v;
  st->flags = CV_RELATIVE;
  st->ref = 10;
  typename T::CVALUE before = *st;
  EXPECT_EQ(canvasmodel::makeref<T>(canvas, 10, st, &limit), 0);
  EXPECT_EQ(memcmp(&before, st, sizeof before), 0);
  st->ref = 11;
  st->hpvalue = nullptr;
  EXPECT_EQ(canvasmodel::makeref<T>(canvas, 10, st, &limit), 0);
  EXPECT_EQ(st->flags, CV_RELATIVE);
  EXPECT_EQ(canvas->ihpvalue, 0);
  EXPECT_EQ(canvas->idata, 0);
}

TYPED_TEST(CanvasInit, EdgeMakerefOnAFullBlockPoolReturnsZeroAsReference) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  for (int k = 0; k < NCDATA; k++) ASSERT_NE(canvasmodel::addcdata<T>(canvas, 0, 0), -1);
  EXPECT_EQ(canvasmodel::addcdata<T>(canvas, 0, 0), -1);
  typename T::CVALUE* st = &canvas->v[20].v;
  st->iter = 64;
  st->flags = CV_ABSOLUTE;
  st->value = cmake<T>(0.5, 0.5);
  int limit = 0;
  EXPECT_EQ(canvasmodel::makeref<T>(canvas, 20, st, &limit), 0);
  EXPECT_EQ(st->flags, CV_REFERENCE);
  EXPECT_EQ(st->data, -1);
  EXPECT_NE(st->hpvalue, nullptr);
  EXPECT_EQ(canvas->v[20].firstdata, -1);
  EXPECT_EQ(canvas->v[20].lastdata, -1);
}

TYPED_TEST(CanvasInit, NewrefMovesNeighboursThatGainAndNoOther) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>(2);
  // An old reference far away at vertex 0 ... a fictive orbit point 0.
  CHPVALUE* oldh = canvasmodel::addhpvalue<T>(canvas, true);
  oldh->iter = 500;
  const int R = CANVASSIZE;
  int corners[] = {256, 256 * R, 256 * R + 256};
  // Corner 256: delta 0.5 off the old orbit; corner 256R: tiny delta; corner
  // 256R+256: start state.
  for (int c : corners) {
    canvas->v[c].flags = VX_CALCULATED;
    typename T::CVALUE* s = &canvas->v[c].v;
    s->iter = 500;
    s->ref = 0;
    s->flags = CV_RELATIVE;
    s->hpvalue = oldh;
    canvasmodel::attachhpvalue<T>(oldh);
  }
  canvas->v[256].v.value = cmake<T>(0.5, 0);
  canvas->v[256 * R].v.value = cmake<T>(1.0 / 1024, 0);
  canvas->v[256 * R + 256].v.flags = 0;
  // The new reference at the centre: its orbit point is 0.5 + 0i.
  const int self = 128 * R + 128;
  typename T::CVALUE* st = &canvas->v[self].v;
  st->iter = 500;
  st->flags = CV_ABSOLUTE;
  st->value = cmake<T>(0.5, 0);
  int limit = 0;
  ASSERT_NE(canvasmodel::makeref<T>(canvas, self, st, &limit), 0);
  // 0.5 - 0.5 = 0: moved; 1/1024 - 0.5: worse, stays; start state untouched.
  EXPECT_EQ(canvas->v[256].v.ref, self);
  EXPECT_EQ(canvas->v[256].v.hpvalue, st->hpvalue);
  EXPECT_EQ(canvas->v[256].v.data, st->data);
  EXPECT_TRUE(samec<T>(canvas->v[256].v.value, cmake<T>(0, 0)));
  EXPECT_EQ(canvas->v[256 * R].v.ref, 0);
  EXPECT_TRUE(samec<T>(canvas->v[256 * R].v.value, cmake<T>(1.0 / 1024, 0)));
  EXPECT_EQ(canvas->v[256 * R + 256].v.ref, 0);
  EXPECT_EQ(oldh->count, 3);
  EXPECT_EQ(st->hpvalue->count, 3);
  // A vertex without a direct calculation bit, or forced final, is left alone.
  canvas->v[256].v.ref = 0;
  canvas->v[256].v.hpvalue = oldh;
  canvas->v[256].v.value = cmake<T>(0.5, 0);
  canvas->v[256].flags = VX_CALCULATED | VX_FORCE_FINAL;
  canvasmodel::newref<T>(canvas, self);
  EXPECT_EQ(canvas->v[256].v.ref, 0);
}

TYPED_TEST(CanvasInit, NewrefWalksIntoCellsHoldingTheReference) {
  typedef TypeParam T;
  auto* canvas = freshcanvas<T>();
  const int R = CANVASSIZE;
  CHPVALUE* oldh = canvasmodel::addhpvalue<T>(canvas, true);
  oldh->iter = 10;
  // Root split once; quarter 0 (top-left) split once more.
  canvas->v[0].depth = 2;
  auto setcalc = [&](int c, double dx) {
    canvas->v[c].flags = VX_CALCULATED;
    typename T::CVALUE* s = &canvas->v[c].v;
    s->iter = 10;
    s->ref = 0;
    s->flags = CV_RELATIVE;
    s->hpvalue = oldh;
    s->value = cmake<T>(dx, 0);
    canvasmodel::attachhpvalue<T>(oldh);
  };
  int inner = 64 * R + 64;        // corner of a level-2 cell inside quarter 0
  int outer = 192 * R + 192;      // inside quarter 2, never a corner of the walk
  setcalc(inner, 0.25);
  setcalc(outer, 0.25);
  const int self = 32 * R + 32;
  typename T::CVALUE* st = &canvas->v[self].v;
  st->iter = 10;
  st->flags = CV_ABSOLUTE;
  st->value = cmake<T>(0.25, 0);
  int limit = 0;
  ASSERT_NE(canvasmodel::makeref<T>(canvas, self, st, &limit), 0);
  EXPECT_EQ(canvas->v[inner].v.ref, self);
  EXPECT_EQ(canvas->v[outer].v.ref, 0);
}

// ---------------------------------------------------------------- format choice

TEST(CanvasFormat, AutomaticChoiceAtEveryBound) {
  const struct {
    bool julia;
    int depth;
    unsigned int mode;
  } cases[] = {{false, 0, 32},     {false, 40, 32},   {false, 499, 32},   {false, 500, 48},
               {false, 7999, 48},  {false, 8000, 64}, {true, 0, 32},      {true, 124, 32},
               {true, 125, 48},    {true, 1599, 48},  {true, 1600, 64},   {true, 8000, 64}};
  for (const auto& c : cases)
    EXPECT_EQ(canvasformat(c.julia ? CF_JULIA : CF_GENERAL, c.depth), c.mode)
        << c.julia << " " << c.depth;
}

TEST(CanvasFormat, ForcedFormatsAndUnsupportedValues) {
  for (unsigned int m : {16u, 32u, 48u, 64u}) {
    EXPECT_EQ(canvasformat(m, 0), m);
    EXPECT_EQ(canvasformat(m | CF_JULIA, 9000), m);
  }
  for (unsigned int m : {80u, 96u, 112u, 128u, 240u}) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(canvasformat(m, 10), 0u);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "MSG_CANVAS_CALC: Not supported.\n");
  }
}

TEST(CanvasFormat, UnsupportedLeavesTheCanvasUnused) {
  canvasmodel::removecanvas<CANVASTEMPLATE_longdouble>(gcontext, gcanvas);
  JOB job(0x50, 10);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(canvas_calc_initcanvas(gcontext, &job.w), 0u);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "MSG_CANVAS_CALC: Not supported.\n");
  EXPECT_EQ(gcanvas->flags, 2u);
}

// Which layout a buffer was set up in: Zfactor sits at a different offset in
// each, and holds (7 P / 512)^2 with the format's own P.
bool zfactorlooks(unsigned int mode) {
  double P, got;
  switch (mode) {
    case 32:
      P = 1e14;
      got = reinterpret_cast<CANVAS_double*>(gcanvas)->Zfactor;
      break;
    case 48:
      P = 1e18;
      got = static_cast<double>(reinterpret_cast<CANVAS_longdouble*>(gcanvas)->Zfactor);
      break;
    default:
      P = 1e15;
      got = dHF(reinterpret_cast<CANVAS_hfloat*>(gcanvas)->Zfactor);
      break;
  }
  double want = std::pow(7 * P / 512, 2);
  return std::fabs(got / want - 1) < 1e-6;
}

void expectjobformat(unsigned int word, int depth, unsigned int mode,
                     ENVIRONMENT* e = nullptr) {
  memset(static_cast<void*>(gcanvas), 0, offsetof(CANVAS0, idata));
  JOB job(word, depth);
  job.w.pdata[JOB_ENVIRONMENT] = e;
  EXPECT_EQ(canvas_calc_initcanvas(gcontext, &job.w), mode);
  EXPECT_TRUE(zfactorlooks(mode)) << depth;
  EXPECT_EQ(gcanvas->__worker, &job.w);
  EXPECT_TRUE(gcanvas->flags & CF_ACTIVE);
}

TEST(CanvasFormat, EdgeDepth500IsLongDoubleAnd8000IsHfloat) {
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(calloc(1, sizeof(ENVIRONMENT)));
  e->flags = E_PERIODIC;
  expectjobformat(0, 499, 32, e);
  expectjobformat(0, 500, 48, e);
  expectjobformat(0, 7999, 48, e);
  expectjobformat(0, 8000, 64, e);
  free(e);
}

// Without an environment the orbit is z itself, which double carries only
// to the depth of ABSOLUTEDOUBLEDEPTH.
TEST(CanvasFormat, EdgeWithoutEnvironmentDepth25IsLongDouble) {
  expectjobformat(0, ABSOLUTEDOUBLEDEPTH, 32);
  expectjobformat(0, ABSOLUTEDOUBLEDEPTH + 1, 48);
  expectjobformat(0, 7999, 48);
  expectjobformat(0, 8000, 64);
  expectjobformat(CF_JULIA, 124, 32);
  EXPECT_EQ(canvasformat(0, ABSOLUTEDOUBLEDEPTH + 1, true), 48u);
  EXPECT_EQ(canvasformat(0, ABSOLUTEDOUBLEDEPTH + 1, false), 32u);
  EXPECT_EQ(canvasformat(CF_JULIA, 124, true), 32u);
  EXPECT_EQ(canvasformat(32, 400, true), 32u);
}

TEST(CanvasFormat, EdgeJuliaDepth125IsLongDoubleAnd1600IsHfloat) {
  expectjobformat(CF_JULIA, 124, 32);
  expectjobformat(CF_JULIA, 125, 48);
  expectjobformat(CF_JULIA, 1599, 48);
  expectjobformat(CF_JULIA, 1600, 64);
}

TEST(CanvasPrecision, EdgeChangeWithinTenBitsKeepsTheScratchPrecision) {
  typedef CANVASTEMPLATE_double T;
  auto* canvas = canvasof<T>();
  auto init = [&](int depth) {
    JOB job(0, depth);
    canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
  };
  init(64);  // 128 bits wanted: GMP holds exactly 128
  ASSERT_EQ(mpf_get_prec(canvas->c[0]), 128u);
  init(74);  // 138: within 10 of 128
  EXPECT_EQ(canvas->precision, 138u);
  for (mpf_ptr m : {canvas->c[0], canvas->c[1], canvas->dummyvalue, canvas->dummysmall,
                    canvas->x1s, canvas->y1s, canvas->x, canvas->y})
    EXPECT_EQ(mpf_get_prec(m), 128u);
  init(54);  // 118: within 10 below
  EXPECT_EQ(mpf_get_prec(canvas->c[0]), 128u);
  init(75);  // 139: 11 bits more, the storage grows
  for (mpf_ptr m : {canvas->c[0], canvas->c[1], canvas->dummyvalue, canvas->dummysmall,
                    canvas->x1s, canvas->y1s, canvas->x, canvas->y})
    EXPECT_EQ(mpf_get_prec(m), 192u);
  init(1000);
  EXPECT_GE(mpf_get_prec(canvas->c[0]), 1064u);
}

}  // namespace
