// The period tests over an environment's period map: one application of the
// polynomial equals n plain iterations in normalised coordinates, the
// general calci family against the plain one on z^2 + c, and periods of
// points in the environment's satellite copy counted in its periods.
#include <gtest/gtest.h>

#include <cmath>

#include "canvas/period.h"
#include "refiter.h"
#include "test_refiter_env.h"

using namespace refitertest;

namespace {

complexd cd(HFLOATCOMPLEX h) { return cdHF(h); }

struct SERIESENV {
  BARECONTEXT bc;
  ENV env;
  SERIESENV(double gx, double gy, unsigned n) : env(nucleus(gx, gy, n), n) {
    env.e->flags |= E_SERIES;
    calctaylorenvironment(bc.context, env.e, nullptr);
  }
};

// v (in z, 13 coefficients) of the period map at X, read straight from the
// table: u -> sum_i v_i(X) u^(2i).
void polynomial(const ENVIRONMENT* e, complexd X, complexd* v) {
  for (int k = 0; k < 13; k++) v[k] = 0;
  for (int i = 0; i < 7; i++)
    for (int j = 0; j < 7; j++) v[2 * i] += cd(e->taylor[i + 7 * j]) * std::pow(X, j);
}

void checkonestep(double gx, double gy, unsigned n) {
  SERIESENV s(gx, gy, n);
  complexd t1 = cd(s.env.e->scalez), sc = cd(s.env.e->scalec);
  const complexd ws[] = {{1e-3, 0}, {0, 2e-3}, {-1e-3, 1e-3}};
  const complexd dcs[] = {{0, 0}, {1e-3, -5e-4}, {-2e-3, 1e-3}};
  for (int k = 0; k < 3; k++) {
    // In normalised units, then to the plane.
    complexd w = ws[k] / std::abs(t1), dc = dcs[k] / std::abs(sc);
    MPC c1 = add(s.env.c, fromHF(cHFd(dc)));
    MPC z = fromHF(cHFd(w));
    for (unsigned i = 0; i < n; i++) z = add(mul(z, z), c1);
    complexd uexact = t1 * (z.d() - orbit(s.env.c, n).d());
    complexd v[13];
    polynomial(s.env.e, sc * dc, v);
    complexd u = t1 * w, xx, dxx;
    calcigeneral_double(u, v, 13, 1, &xx, &dxx);
    complexd upoly = xx + u;
    EXPECT_LT(std::abs(upoly - uexact), 1e-9 * std::abs(uexact)) << k;
    // The derivative in u is the derivative in w: n plain multipliers.
    MPC zz = fromHF(cHFd(w)), m(1, 0), two(2, 0);
    for (unsigned i = 0; i < n; i++) {
      m = mul(mul(two, zz), m);
      zz = add(mul(zz, zz), c1);
    }
    EXPECT_LT(std::abs(dxx + 1.0 - m.d()), 1e-8 * std::abs(m.d()) + 1e-12) << k;
  }
}

TEST(PeriodMap, OneStepIsOnePeriodPeriodThree) { checkonestep(P3X, 0, 3); }
TEST(PeriodMap, OneStepIsOnePeriodRabbit) { checkonestep(RABBITX, RABBITY, 3); }
TEST(PeriodMap, OneStepIsOnePeriodPeriodFour) { checkonestep(P4X, 0, 4); }

// On z^2 + c written as a polynomial the general family is the plain one.
template <typename T>
void generalisplain() {
  typedef typename T::COMPLEX COMPLEX;
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  COMPLEX c = N::cfromd(-0.12, 0.74), x = N::cfromd(0.1, -0.2);
  COMPLEX v[3] = {c, N::czero(), N::creal(N::fromd(1))};
  COMPLEX dv[3] = {N::creal(N::fromd(1)), N::czero(), N::czero()};
  COMPLEX a[5], b[5];
  canvasperiod::calci4<T>(x, c, 7, &a[0], &a[1], &a[2], &a[3], &a[4]);
  canvasperiod::calcigeneral4<T>(x, v, dv, 3, 7, &b[0], &b[1], &b[2], &b[3], &b[4]);
  for (int k = 0; k < 5; k++) {
    complexd p = N::ctoHF(a[k]).mantissax == 0 && N::ctoHF(a[k]).mantissay == 0
                     ? complexd(0, 0)
                     : cdHF(N::ctoHF(a[k]));
    complexd q = cdHF(N::ctoHF(b[k]));
    EXPECT_LT(std::abs(p - q), 1e-4 * std::abs(p) + 1e-6) << k;
  }
  COMPLEX f, g, f2, g2;
  canvasperiod::calci2<T>(c, 7, &f, &g);
  canvasperiod::calcigeneral2<T>(v, dv, 3, 7, &f2, &g2);
  EXPECT_LT(std::abs(cdHF(N::ctoHF(f)) - cdHF(N::ctoHF(f2))), 1e-4);
  EXPECT_LT(std::abs(cdHF(N::ctoHF(g)) - cdHF(N::ctoHF(g2))), 1e-4 * std::abs(cdHF(N::ctoHF(g))));
  canvasperiod::calci<T>(x, c, 5, &f, &g);
  canvasperiod::calcigeneral<T>(x, v, 3, 5, &f2, &g2);
  EXPECT_LT(std::abs(cdHF(N::ctoHF(f)) - cdHF(N::ctoHF(f2))), 1e-4);
}

TEST(PeriodMap, GeneralFamilyOnQuadraticFloat) { generalisplain<CANVASTEMPLATE_float>(); }
TEST(PeriodMap, GeneralFamilyOnQuadraticDouble) { generalisplain<CANVASTEMPLATE_double>(); }
TEST(PeriodMap, GeneralFamilyOnQuadraticLongDouble) { generalisplain<CANVASTEMPLATE_longdouble>(); }
TEST(PeriodMap, GeneralFamilyOnQuadraticHfloat) { generalisplain<CANVASTEMPLATE_hfloat>(); }

// Points of the satellite copy, placed by the normalised parameter X: the
// copy's main cardioid (1 period), its 1/2 bulb (2), its 1/3 bulb (3). The
// true period, by the plain test on the absolute point, must be n times it.
template <typename T>
void satelliteperiods(double gx, double gy, unsigned n) {
  typedef typename T::COMPLEX COMPLEX;
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  SERIESENV s(gx, gy, n);
  complexd sc = cd(s.env.e->scalec);
  struct CASE {
    complexd X;
    ITER period;
  } cases[] = {{{0.1, 0.05}, 1}, {{-1.0, 0.02}, 2}, {{-0.1225, 0.745}, 3}};
  for (const CASE& k : cases) {
    complexd dc = k.X / sc;
    complexd cabs = s.env.c.d() + dc;
    ITER plain = inftytest_double(-40, &cabs, 100000, nullptr, nullptr, nullptr, nullptr, nullptr);
    ASSERT_EQ(plain, k.period * static_cast<ITER>(n)) << k.X;
    COMPLEX c = N::cfromd(dc.real(), dc.imag());
    typename T::FLOAT d = N::zero();
    COMPLEX m = N::czero(), dz = N::czero();
    ITER r = canvasperiod::inftytestgeneral<T>(-40, &c, s.env.e, 7, 10000, nullptr, &d, nullptr,
                                               &m, &dz, nullptr);
    EXPECT_EQ(r, k.period) << k.X;
    EXPECT_LE(std::norm(cdHF(N::ctoHF(m))), 1.0);
    EXPECT_GT(cdHF(N::ctoHF(N::creal(d))).real(), 0.0);
    // checkperiodgeneral with the period given, and with a multiple reduced
    // by the divisor check.
    COMPLEX c2 = N::cfromd(dc.real(), dc.imag());
    EXPECT_EQ(canvasperiod::checkperiodgeneral<T>(-40, &c2, s.env.e, 7, k.period, 1000, 0, false,
                                                  nullptr, nullptr, nullptr, nullptr, nullptr,
                                                  nullptr, nullptr),
              k.period);
    // The cycle point is one of the true cycle: n * period plain steps close it.
    complexd z = cdHF(N::ctoHF(c2)), z0 = z;
    complexd ca = s.env.c.d() + dc;
    for (ITER i = 0; i < k.period * static_cast<ITER>(n); i++) z = z * z + ca;
    EXPECT_LT(std::abs(z - z0), 1e-3 * std::abs(z0) + 1e-9);
    COMPLEX c3 = N::cfromd(dc.real(), dc.imag());
    EXPECT_EQ(canvasperiod::checkperiodgeneral<T>(-40, &c3, s.env.e, 7, 2 * k.period, 1000, 0,
                                                  true, nullptr, nullptr, nullptr, nullptr,
                                                  nullptr, nullptr, nullptr),
              k.period);
  }
  // Outside the copy: escape, a negative count in periods.
  COMPLEX c = N::cfromd((complexd(0.5, 0.5) / sc).real(), (complexd(0.5, 0.5) / sc).imag());
  EXPECT_LT(canvasperiod::inftytestgeneral<T>(-40, &c, s.env.e, 7, 10000, nullptr, nullptr,
                                              nullptr, nullptr, nullptr, nullptr),
            0);
}

TEST(PeriodGeneral, SatelliteCopyPeriodFourDouble) {
  satelliteperiods<CANVASTEMPLATE_double>(P4X, 0, 4);
}
TEST(PeriodGeneral, SatelliteCopyPeriodFourLongDouble) {
  satelliteperiods<CANVASTEMPLATE_longdouble>(P4X, 0, 4);
}
TEST(PeriodGeneral, SatelliteCopyPeriodFourHfloat) {
  satelliteperiods<CANVASTEMPLATE_hfloat>(P4X, 0, 4);
}
TEST(PeriodGeneral, SatelliteCopyPeriodThreeHfloat) {
  satelliteperiods<CANVASTEMPLATE_hfloat>(P3X, 0, 3);
}

TEST(PeriodGeneral, NoSeriesNoAnswer) {
  SERIESENV s(P3X, 0, 3);
  s.env.e->flags &= ~E_SERIES;
  HFLOATCOMPLEX c = cHFd(complexd(1e-4, 0));
  EXPECT_EQ(checkperiodgeneral_hfloat(-30, &c, s.env.e, 7, 1, 100, 0, false, nullptr, nullptr,
                                      nullptr, nullptr, nullptr, nullptr, nullptr),
            0);
  s.env.e->flags |= E_SERIES;
  EXPECT_EQ(checkperiodgeneral_hfloat(-30, &c, s.env.e, 7, 1, 100, 0, false, nullptr, nullptr,
                                      nullptr, nullptr, nullptr, nullptr, nullptr),
            1);
}

}  // namespace
