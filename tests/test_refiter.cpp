// One point against an environment: the deviation by perturbation against a
// periodic reference with its wrap, the shallow and standard cases, and the
// whole run (escape counts and periods) against mpf brute force.
#include <gtest/gtest.h>

#include <cmath>

#include "canvas/period.h"
#include "refiter.h"
#include "test_refiter_env.h"

using namespace refitertest;

namespace {

complexd cd(HFLOATCOMPLEX h) { return cdHF(h); }

// A period-3 environment made a series reference.
struct SERIESENV {
  BARECONTEXT bc;
  ENV env;
  explicit SERIESENV(double gx, double gy, unsigned n) : env(nucleus(gx, gy, n), n) {
    env.e->flags |= E_SERIES;
    calctaylorenvironment(bc.context, env.e, nullptr);
  }
};

// ---------------------------------------------------------------- calciterenvironment

TEST(CalcIterEnvironment, ZeroIterationsIsZeroAndTrueInEveryCase) {
  BARECONTEXT bc;
  ENV env(nucleus(P3X, 0, 3), 3);
  HFLOATCOMPLEX v = CONEH, c = cHFd(complexd(1e-3, 2e-3));
  unsigned int cases[] = {0, E_PERIODIC, E_PERIODIC | E_SERIES, E_SERIES};
  for (unsigned int f : cases) {
    env.e->flags = f;
    for (bool withref : {true, false}) {
      REFDATAH* saved = env.e->refdatah;
      if (!withref) env.e->refdatah = nullptr;
      v = CONEH;
      EXPECT_TRUE(calciterenvironment(bc.context, env.e, -30, c, 0, &v)) << f;
      EXPECT_EQ(v.mantissax, 0);
      EXPECT_EQ(v.mantissay, 0);
      env.e->refdatah = saved;
    }
  }
  env.e->n = 0;
  env.e->flags = 0;
  EXPECT_TRUE(calciterenvironment(bc.context, env.e, -30, c, 0, &v));
}

TEST(CalcIterEnvironment, StandardEnvironmentOnlyChecksLength) {
  BARECONTEXT bc;
  ENV env(MPC(0.3, 0.01), 10);
  env.e->flags = 0;
  HFLOATCOMPLEX v = CONEH;
  EXPECT_TRUE(calciterenvironment(bc.context, env.e, -30, CONEH, 10, &v));
  EXPECT_EQ(v.mantissax, 0);
  EXPECT_FALSE(calciterenvironment(bc.context, env.e, -30, CONEH, 11, &v));
}

TEST(CalcIterEnvironment, ShallowPeriodicIgnoresTheOrbit) {
  BARECONTEXT bc;
  ENV env(nucleus(P3X, 0, 3), 3);
  env.e->flags = E_PERIODIC;
  complexd dc(1e-3, -2e-3);
  HFLOATCOMPLEX a, b;
  ASSERT_TRUE(calciterenvironment(bc.context, env.e, -30, cHFd(dc), 7, &a));
  REFDATAH* saved = env.e->refdatah;
  env.e->refdatah = nullptr;
  ASSERT_TRUE(calciterenvironment(bc.context, env.e, -30, cHFd(dc), 7, &b));
  env.e->refdatah = saved;
  EXPECT_EQ(a.mantissax, b.mantissax);
  EXPECT_EQ(a.mantissay, b.mantissay);
  EXPECT_EQ(a.exponent, b.exponent);
  // The absolute z_7 of cf + c.
  complexd exact = orbit(add(env.c, fromHF(cHFd(dc))), 7).d();
  EXPECT_LT(relerr(cd(a), exact), 1e-12);
}

// The deviation after k iterations against the mpf difference of the two
// orbits, for k up to three periods and a bit.
void checkperturbation(double gx, double gy, unsigned n, complexd dc) {
  SERIESENV s(gx, gy, n);
  MPC c1 = add(s.env.c, fromHF(cHFd(dc)));
  for (unsigned k = 1; k <= 3 * n + 2; k++) {
    HFLOATCOMPLEX v;
    ASSERT_TRUE(calciterenvironment(s.bc.context, s.env.e, -30, cHFd(dc), k, &v)) << k;
    complexd exact = sub(orbit(c1, k), orbit(s.env.c, k)).d();
    EXPECT_LT(relerr(cd(v), exact), 1e-10) << k;
  }
}

TEST(CalcIterEnvironment, PerturbationMatchesMpfPeriodThree) {
  checkperturbation(P3X, 0, 3, complexd(1e-7, 3e-8));
}
TEST(CalcIterEnvironment, PerturbationMatchesMpfRabbit) {
  checkperturbation(RABBITX, RABBITY, 3, complexd(-2e-8, 1e-8));
}
TEST(CalcIterEnvironment, PerturbationMatchesMpfPeriodFour) {
  checkperturbation(P4X, 0, 4, complexd(3e-9, -1e-9));
}

TEST(CalcIterEnvironment, WrapUsesZeroNotTheLastSlot) {
  SERIESENV s(P3X, 0, 3);
  // Slot n is never read: the wrap goes to z_0 = 0.
  s.env.e->refdatah[3].value = cHFd(complexd(1.5, -0.5));
  HFLOATCOMPLEX c = cHFd(complexd(1e-7, 3e-8)), vn, vn1;
  ASSERT_TRUE(calciterenvironment(s.bc.context, s.env.e, -30, c, 3, &vn));
  ASSERT_TRUE(calciterenvironment(s.bc.context, s.env.e, -30, c, 4, &vn1));
  // The round after the wrap is delta^2 + c, to the bit.
  HFLOATCOMPLEX expect = caddHF(csqrHF(vn), c);
  EXPECT_EQ(vn1.mantissax, expect.mantissax);
  EXPECT_EQ(vn1.mantissay, expect.mantissay);
  EXPECT_EQ(vn1.exponent, expect.exponent);
  MPC c1 = add(s.env.c, fromHF(c));
  EXPECT_LT(relerr(cd(vn1), sub(orbit(c1, 4), orbit(s.env.c, 4)).d()), 1e-10);
}

TEST(CalcIterEnvironment, LostAccuracyAtAFinePixel) {
  SERIESENV s(P3X, 0, 3);
  HFLOATCOMPLEX c = cHFd(complexd(2e-3, 1e-3)), v;
  // At pixels of 2^-60 a deviation of 10^-3 swamps the point near 0.
  EXPECT_FALSE(calciterenvironment(s.bc.context, s.env.e, -60, c, 6, &v));
  EXPECT_TRUE(calciterenvironment(s.bc.context, s.env.e, 0, c, 6, &v));
  REFDATAH* saved = s.env.e->refdatah;
  s.env.e->refdatah = nullptr;
  EXPECT_FALSE(calciterenvironment(s.bc.context, s.env.e, 0, c, 6, &v));
  s.env.e->refdatah = saved;
}

// ---------------------------------------------------------------- calciterenvironmentex

ITER bruteforce(const MPC& c, ITER maxiter) {
  MPC z(0, 0);
  for (ITER i = 0; i < maxiter; i++) {
    if (abs2(z) >= 4) return i;
    z = add(mul(z, z), c);
  }
  return 0;
}

struct INFO {
  ITERINFO info{};
  HPVALUE hc;
  explicit INFO(const MPC& c) {
    mpf_init2(hc.v[0], PREC);
    mpf_init2(hc.v[1], PREC);
    mpf_set(hc.v[0], c.x);
    mpf_set(hc.v[1], c.y);
    info.c = &hc;
  }
  ~INFO() {
    mpf_clear(hc.v[0]);
    mpf_clear(hc.v[1]);
  }
};

TEST(CalcIterEnvironmentEx, EscapeCountMatchesBruteForce) {
  SERIESENV s(P3X, 0, 3);
  const complexd offsets[] = {{0.01, 0.003}, {0, 0.02}, {-0.03, 0.01}, {0.02, 0.02}};
  for (complexd off : offsets) {
    MPC c = add(s.env.c, fromHF(cHFd(off)));
    ITER expect = bruteforce(c, 100000);
    ASSERT_GT(expect, 0) << off;
    for (int prec : {-1, 4, 7}) {
      INFO in(c);
      calciterenvironmentex(s.bc.context, -30, s.env.e, prec, 100000, &in.info, nullptr, -1, 1.0,
                            0, nullptr, 0, 0);
      EXPECT_EQ(in.info.iter, expect) << off << " prec " << prec;
      EXPECT_FALSE(in.info.precisionfailure);
      EXPECT_GT(dHF(in.info.distm), 0);
      EXPECT_GT(cabsHFs(in.info.z).exponent, 3);  // followed beyond |z|^2 = 4
      // Period 3 is a polynomial of degree 4 in the series: 7 terms jump.
      if (prec == 7) {
        EXPECT_GT(in.info.interpoliter, 0) << off;
      }
    }
  }
}

TEST(CalcIterEnvironmentEx, EscapeWithoutEnvironmentAndWithStandardOne) {
  BARECONTEXT bc;
  MPC c(-0.7435, 0.1314);
  ITER expect = bruteforce(c, 100000);
  ASSERT_GT(expect, 0);
  INFO in(c);
  calciterenvironmentex(bc.context, -30, nullptr, -1, 100000, &in.info, nullptr, -1, 1.0, 0,
                        nullptr, 0, 0);
  EXPECT_EQ(in.info.iter, expect);
  // A standard environment at a nearby escaping point, orbit long enough.
  MPC ref(-0.74349, 0.13141);
  ENV env(ref, 2000);
  env.e->flags = 0;
  env.e->n = static_cast<UITER>(bruteforce(ref, 100000)) + 1;
  ASSERT_LE(env.e->n, 2001u);
  INFO in2(c);
  calciterenvironmentex(bc.context, -30, env.e, -1, 100000, &in2.info, nullptr, -1, 1.0, 0,
                        nullptr, 0, 0);
  EXPECT_EQ(in2.info.iter, expect);
  // mpf without environment.
  INFO in3(c);
  calciterenvironmentextmp(bc.context, 100000, &in3.info, 256);
  EXPECT_EQ(in3.info.iter, expect);
  EXPECT_LT(std::abs(dHF(in3.info.distm) - dHF(in.info.distm)), 1e-6 * dHF(in.info.distm));
}

TEST(CalcIterEnvironmentEx, InteriorGivesMinusPeriod) {
  SERIESENV s(P3X, 0, 3);
  struct CASE {
    complexd off;
    ITER period;
  } cases[] = {{{1e-4, 0}, 3}, {{-2e-3, 1e-4}, 3}, {{P3X - 0.015 - P3X, 0}, 6}};
  for (const CASE& k : cases) {
    MPC c = add(s.env.c, fromHF(cHFd(k.off)));
    // What the plain test says about the absolute point.
    complexd cc = c.d();
    ASSERT_EQ(inftytest_double(-30, &cc, 100000, nullptr, nullptr, nullptr, nullptr, nullptr),
              k.period);
    for (int prec : {-1, 7}) {
      INFO in(c);
      calciterenvironmentex(s.bc.context, -30, s.env.e, prec, 100000, &in.info, nullptr, -1, 1.0,
                            0, nullptr, 0, 0);
      EXPECT_EQ(in.info.iter, -k.period) << k.off << " prec " << prec;
      EXPECT_GT(dHF(in.info.d), 0);
      EXPECT_GT(dHF(in.info.dj), 0);
      // The cycle point closes the cycle.
      MPC z = fromHF(in.info.lim);
      for (ITER i = 0; i < k.period; i++) z = add(mul(z, z), c);
      EXPECT_LT(std::abs(z.d() - cd(in.info.lim)), 1e-6);
    }
  }
}

TEST(CalcIterEnvironmentEx2, ValueAndDerivativeAgainstMpf) {
  SERIESENV s(P3X, 0, 3);
  complexd dc(1e-6, 2e-6);
  MPC c1 = add(s.env.c, fromHF(cHFd(dc)));
  for (ITER maxiter : {1, 5, 9, 20}) {
    HFLOATCOMPLEX v, d;
    ASSERT_TRUE(calciterenvironmentex2(s.bc.context, -30, s.env.e, 7, maxiter, cHFd(dc), &v, &d));
    EXPECT_LT(relerr(cd(v), orbit(c1, maxiter).d()), 1e-9) << maxiter;
    MPC z(0, 0), dz(0, 0), one(1, 0), two(2, 0);
    for (ITER i = 0; i < maxiter; i++) {
      dz = add(mul(mul(two, z), dz), one);
      z = add(mul(z, z), c1);
    }
    EXPECT_LT(relerr(cd(d), dz.d()), 1e-6) << maxiter;
  }
  HFLOATCOMPLEX v, d;
  EXPECT_FALSE(calciterenvironmentex2(s.bc.context, -30, s.env.e, 2, 5, cHFd(dc), &v, &d));
  REFDATAH* saved = s.env.e->refdatah;
  s.env.e->refdatah = nullptr;
  EXPECT_FALSE(calciterenvironmentex2(s.bc.context, -30, s.env.e, 7, 5, cHFd(dc), &v, &d));
  s.env.e->refdatah = saved;
}

}  // namespace
