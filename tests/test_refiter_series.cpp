// The series of one period: normalisation, scales and radii against mpf
// computed independently, the E_SERIES rule, the level range, and the two
// accuracy tests of a series.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>

#include "enginefixture.h"
#include "refiter.h"
#include "test_refiter_env.h"

using namespace refitertest;

namespace {

complexd cd(HFLOATCOMPLEX h) { return cdHF(h); }

TEST(PeriodSeries, PeriodOne) {
  BARECONTEXT bc;
  ENV env(MPC(0, 0), 1);
  env.e->mini = 99;
  env.e->maxi = 99;
  calctaylorenvironment(bc.context, env.e, nullptr);
  EXPECT_EQ(dHF(env.e->r1), 10.0);
  EXPECT_EQ(dHF(env.e->r3), 10.0);
  EXPECT_EQ(cd(env.e->taylor[1]), complexd(1, 0));
  EXPECT_EQ(cd(env.e->taylor[7]), complexd(1, 0));
  for (int k = 0; k < NTAYLOR; k++)
    if (k != 1 && k != 7) {
      EXPECT_EQ(cd(env.e->taylor[k]), complexd(0, 0)) << k;
    }
  EXPECT_EQ(cd(env.e->scalez), complexd(1, 0));
  EXPECT_EQ(cd(env.e->scalec), complexd(1, 0));
  EXPECT_NEAR(dHF(env.e->r4), 2.0, 1e-15);
  EXPECT_NEAR(dHF(env.e->r2), 2.0, 1e-15);
  // A period-one atom of size 2 is shallow: no series, no level range.
  EXPECT_FALSE(env.e->flags & E_SERIES);
  EXPECT_EQ(env.e->mini, 99);
  EXPECT_EQ(env.e->maxi, 99);

  // Already a series reference: the range follows from r4 = 2,
  // s0 = -8 - 1, mini = -4 clamped to 0, maxi = 12.
  env.e->flags |= E_SERIES;
  calctaylorenvironment(bc.context, env.e, nullptr);
  EXPECT_TRUE(env.e->flags & E_SERIES);
  EXPECT_EQ(env.e->mini, 0);
  EXPECT_EQ(env.e->maxi, 12);
}

// Scales and radii of the period-3 nucleus against an independent mpf
// computation: t1 = prod_{k=1}^{n-1} 2 z_k, t7 = dz_n/dc.
void checkscales(double gx, double gy, unsigned n) {
  BARECONTEXT bc;
  MPC c = nucleus(gx, gy, n);
  ENV env(c, n);
  calctaylorenvironment(bc.context, env.e, nullptr);
  MPC t1(1, 0), dz(0, 0), z(0, 0), one(1, 0), two(2, 0);
  for (unsigned k = 0; k < n; k++) {
    if (k >= 1) t1 = mul(t1, mul(two, z));
    dz = add(mul(mul(two, z), dz), one);
    z = add(mul(z, z), c);
  }
  complexd t1d = t1.d(), scalec = (t1.d() * dz.d());
  EXPECT_LT(relerr(cd(env.e->scalez), t1d), 1e-14);
  EXPECT_LT(relerr(cd(env.e->scalec), scalec), 1e-14);
  EXPECT_LT(std::abs(cd(env.e->taylor[1]) - 1.0), 1e-15);
  EXPECT_LT(std::abs(cd(env.e->taylor[7]) - 1.0), 1e-15);
  EXPECT_NEAR(dHF(env.e->r4), 2 / std::abs(t1d), 1e-14 * 2 / std::abs(t1d));
  EXPECT_NEAR(dHF(env.e->r2), 2 / std::abs(scalec), 1e-14 * 2 / std::abs(scalec));
  double t2 = std::abs(cd(env.e->taylor[2]));
  double r3 = 2 * std::sqrt(std::abs(t1d) / t2);
  EXPECT_NEAR(dHF(env.e->r3), r3, 1e-12 * r3);
  double sec = std::sqrt(std::norm(cd(env.e->taylor[2])) + std::norm(cd(env.e->taylor[8])) +
                         std::norm(cd(env.e->taylor[14])));
  double r2 = 2 / std::abs(scalec);
  double r1 = 0.125 * (r2 / 2) / sec;
  if (r1 < r2 && 4 * r1 > r2) r1 = r2;
  EXPECT_NEAR(dHF(env.e->r1), r1, 1e-12 * r1);
}

TEST(PeriodSeries, PeriodThreeScales) { checkscales(P3X, 0, 3); }
TEST(PeriodSeries, PeriodFourScales) { checkscales(P4X, 0, 4); }
TEST(PeriodSeries, RabbitScales) { checkscales(RABBITX, RABBITY, 3); }

TEST(PeriodSeries, SeriesFlagRule) {
  BARECONTEXT bc;
  // Period 3: the atom is far larger than 2^-16, and 3 <= 20: no series.
  ENV p3(nucleus(P3X, 0, 3), 3);
  calctaylorenvironment(bc.context, p3.e, nullptr);
  EXPECT_GT(ilogbHF(p3.e->r2), -16);
  EXPECT_FALSE(p3.e->flags & E_SERIES);
  // A preset flag stays.
  p3.e->flags |= E_SERIES;
  calctaylorenvironment(bc.context, p3.e, nullptr);
  EXPECT_TRUE(p3.e->flags & E_SERIES);
  // A period-22 nucleus on the antenna: long period, series.
  ENV p22(nucleus(-1.9999999999, 0, 22), 22);
  calctaylorenvironment(bc.context, p22.e, nullptr);
  EXPECT_TRUE(p22.e->flags & E_SERIES);
  EXPECT_GE(p22.e->mini, 0);
  EXPECT_GE(p22.e->maxi, p22.e->mini);
  // Small atom with a short period: series by size. Period 12 near the tip.
  ENV p12(nucleus(-1.99996, 0, 12), 12);
  calctaylorenvironment(bc.context, p12.e, nullptr);
  ASSERT_LE(ilogbHF(p12.e->r2), -16);
  EXPECT_TRUE(p12.e->flags & E_SERIES);
  int s0 = -8 - ilogbHF(p12.e->r4);
  int mini = s0 + 5, maxi = s0 + 21;
  if (mini < 0) {
    mini = 0;
    maxi = std::min(std::max(maxi, 0), 16);
  }
  EXPECT_EQ(p12.e->mini, mini);
  EXPECT_EQ(p12.e->maxi, maxi);
}

// The normalised series at small (dz, dc) against n - 1 direct iterations in
// mpf from the reference's index 1 with deviation dz + dc.
void checkseriesvalue(double gx, double gy, unsigned n, double size) {
  BARECONTEXT bc;
  MPC c = nucleus(gx, gy, n);
  ENV env(c, n);
  calctaylorenvironment(bc.context, env.e, nullptr);
  const complexd dzs[] = {{size, 0}, {0, size}, {-size * 0.7, size * 0.3}, {0, 0}};
  const complexd dcs[] = {{0, 0}, {size * 0.5, -size * 0.2}, {-size * 0.3, size * 0.6}, {size, size}};
  complexd t1 = cd(env.e->scalez), sc = cd(env.e->scalec);
  for (int s = 0; s < 4; s++) {
    complexd dz = dzs[s] / std::abs(sc), dc = dcs[s] / std::abs(sc);
    MPC c1 = add(c, fromHF(cHFd(dc)));
    MPC z1 = add(c1, fromHF(cHFd(dz)));
    MPC zn = z1;
    for (unsigned k = 1; k < n; k++) zn = add(mul(zn, zn), c1);
    complexd exact = sub(zn, orbit(c, n)).d();
    // t1 T = sum taylor (t1^2 dz)^i (scalec dc)^j
    complexd Z = t1 * t1 * dz, X = sc * dc, sum = 0;
    for (int i = 0; i < 7; i++)
      for (int j = 0; j < 7; j++)
        sum += cd(env.e->taylor[i + 7 * j]) * std::pow(Z, i) * std::pow(X, j);
    complexd series = sum / t1;
    EXPECT_LT(std::abs(series - exact), 1e-11 * std::abs(exact) + 1e-300) << s;
  }
}

TEST(PeriodSeries, ValueMatchesIterationPeriodThree) { checkseriesvalue(P3X, 0, 3, 1e-3); }
TEST(PeriodSeries, ValueMatchesIterationRabbit) { checkseriesvalue(RABBITX, RABBITY, 3, 1e-3); }
TEST(PeriodSeries, ValueMatchesIterationPeriodFour) { checkseriesvalue(P4X, 0, 4, 1e-3); }

std::atomic<ENVIRONMENT*> handedon{nullptr};
std::atomic<int> handedonrecipient{-1};

void recordnewtonfinish(OVCONTEXT* context, WORKER* worker) {
  handedonrecipient.store(worker->recipient);
  freeworker(context, worker);
  handedon.store(static_cast<ENVIRONMENT*>(worker->pdata[0]));
}

TEST(PeriodSeries, WorkerHandsOnToTheMainThread) {
  enginetest::Engine engine(4);
  ENV env(nucleus(-1.9999999999, 0, 22), 22);
  newtonfinishhook = recordnewtonfinish;
  WORKER* w = addworker(engine.context, THREAD_WORKER, worker_calctaylorenvironment);
  ASSERT_NE(w, nullptr);
  w->pdata[0] = env.e;
  w->prio = 0;
  dispatch(engine.context, w);
  enginetest::waitfor([] { return handedon.load() != nullptr; });
  newtonfinishhook = nullptr;
  EXPECT_EQ(handedon.load(), env.e);
  EXPECT_EQ(handedonrecipient.load(), THREAD_MAIN);
  EXPECT_TRUE(env.e->flags & E_SERIES);
  EXPECT_LT(std::abs(cd(env.e->taylor[1]) - 1.0), 1e-15);
  // Without a hook the message is given back to the pool.
  engine.waitidle();
  WORKER* w2 = addworker(engine.context, THREAD_WORKER, worker_calctaylorenvironment);
  ASSERT_NE(w2, nullptr);
  w2->pdata[0] = env.e;
  w2->prio = 0;
  dispatch(engine.context, w2);
  engine.waitidle();
  EXPECT_EQ(atomicload(&engine.context->iworkerall), 0);
}

// ---------------------------------------------------------------- accurateprec

TEST(AccuratePrec, ZeroFirstOrderTermGivesTwo) {
  HFLOATCOMPLEX t[7] = {CONEH, CZEROH, CONEH, CONEH, CONEH, CONEH, CONEH};
  EXPECT_EQ(accurateprec(t, 7, cHFd(complexd(0.5, 0)), cHFd(complexd(4, 0)), 1, 1.0), 2);
}

TEST(AccuratePrec, ViewReach) {
  // entry_i = 2^-4i; zoom 1/4, resolution 16: P = 2^-4, bound = 2^-12; the
  // view pass gives 2^-4i >= 2^-12 up to i = 3, so 4 terms.
  HFLOATCOMPLEX t[7];
  for (int i = 0; i < 7; i++) t[i] = cHFd(complexd(std::ldexp(1.0, -4 * i), 0));
  EXPECT_EQ(accurateprec(t, 7, CZEROH, cHFd(complexd(0.25, 0)), 1, 16.0), 4);
  // The same row read with stride 7 from a table.
  HFLOATCOMPLEX table[49] = {};
  for (int i = 0; i < 7; i++) table[i * 7] = t[i];
  EXPECT_EQ(accurateprec(table, 7, CZEROH, cHFd(complexd(0.25, 0)), 7, 16.0), 4);
  // A larger view needs every term: not trusted.
  EXPECT_EQ(accurateprec(t, 7, CZEROH, cHFd(complexd(1.0 / 64, 0)), 1, 16.0), -1);
  // Position reach: at |c| = 8 the first pass gives 2^-8i 2^6i >= 2^-12 up to
  // i = 6: -1.
  EXPECT_EQ(accurateprec(t, 7, cHFd(complexd(8, 0)), cHFd(complexd(1e6, 0)), 1, 16.0), -1);
  // A tiny view at the centre: only the linear term: 2.
  EXPECT_EQ(accurateprec(t, 7, CZEROH, cHFd(complexd(1e6, 0)), 1, 16.0), 2);
}

TEST(SimpleTaylorAccurate, Threshold) {
  HFLOATCOMPLEX t[8] = {};
  EXPECT_FALSE(simpletayloraccurate(t, 6, -10, 1.0));  // no linear term
  t[1] = CONEH;
  t[6] = CONEH;
  // |t6|^2 res^12 2^(2*5*depth) < 1: with res 1, true for depth < 0.
  EXPECT_TRUE(simpletayloraccurate(t, 6, -1, 1.0));
  EXPECT_FALSE(simpletayloraccurate(t, 6, 0, 1.0));
  // resolution 2 at depth -1: 2^12 2^-10 = 4 > 1.
  EXPECT_FALSE(simpletayloraccurate(t, 6, -1, 2.0));
  EXPECT_TRUE(simpletayloraccurate(t, 6, -2, 2.0));
}

}  // namespace
