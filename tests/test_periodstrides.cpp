// The table of linear runs along a period: a run is the product of its
// steps, its validity radius keeps every step in it linear and inside the
// escape radius, and the lookup takes the longest aligned run that fits.
#include <gtest/gtest.h>

#include <complex>
#include <vector>

#include "canvas/periodstrides.h"
#include "test_refiter_env.h"

using namespace refitertest;

namespace {

typedef std::complex<long double> CL;

CL cl(HFLOATCOMPLEX h) {
  return CL(dlHF(crealHF(h)), dlHF(cimagHF(h)));
}

HFLOATCOMPLEX hf(CL z) { return cHFld(z); }

struct TABLE {
  ENV env;
  PERIODSTRIDES s{};
  TABLE(double gx, double gy, unsigned n, double reach) : env(nucleus(gx, gy, n), n) {
    EXPECT_TRUE(makeperiodstrides(&s, env.e, HFd(reach)));
  }
  ~TABLE() { freeperiodstrides(&s); }
  CL X(UITER k) const { return cl(env.e->refdatah[k].value); }
};

}  // namespace

TEST(PeriodStrides, ARunIsTheProductOfItsSteps) {
  TABLE t(P4X, 0, 4, 0);
  // Level 1, index 1: steps 2 and 3. A = 2 X_3 2 X_2, B = 2 X_3 + 1.
  const PERIODSTRIDE& r = t.s.run[t.s.start[1] + 1];
  CL A = 4.0L * t.X(3) * t.X(2);
  CL B = 2.0L * t.X(3) + 1.0L;
  EXPECT_LT(std::abs(cl(r.A) - A), 1e-15L * std::abs(A));
  EXPECT_LT(std::abs(cl(r.B) - B), 1e-15L * std::abs(B));
  EXPECT_EQ(t.s.levels, 3);  // runs of 1, 2 and 4 steps
}

TEST(PeriodStrides, WithinItsRadiusARunEqualsTheStepsToTheLinearTolerance) {
  // Period 32 next to i: |X_k| of every size along the orbit.
  ENV env(nucleus(7e-11, 1.00000000003, 32), 32);
  PERIODSTRIDES s{};
  const long double dcsize = 1e-30L;
  ASSERT_TRUE(makeperiodstrides(&s, env.e, HFd(static_cast<double>(dcsize))));
  int checked = 0;
  for (UITER j = 1; j < 32; j++) {
    UITER steps = 0;
    // Just inside the longest run's radius from j.
    const PERIODSTRIDE* r = longestperiodstride(&s, j, 32 - j, ZEROH, &steps);
    if (!r || r->R2.mantissa == 0) continue;
    long double R = std::sqrt(static_cast<long double>(dHF(r->R2)));
    CL delta(0.9L * R, 0.3L * R), dc(dcsize * 0.6L, -dcsize * 0.7L);
    UITER m = 0;
    const PERIODSTRIDE* q = longestperiodstride(&s, j, 32 - j, cabsHFs(hf(delta)), &m);
    ASSERT_NE(q, nullptr);
    ASSERT_EQ(q, r);
    CL linear = cl(r->A) * delta + cl(r->B) * dc;
    CL exact(0, 0);
    {
      CL d = delta;
      for (UITER k = j; k < j + m; k++) d = 2.0L * cl(env.e->refdatah[k].value) * d + d * d + dc;
      exact = d;
    }
    // Each step leaves out at most 2^-63 of itself; a run, a few times that.
    EXPECT_LT(std::abs(linear - exact), 0x1p-58L * std::abs(exact)) << "j " << j << " steps " << m;
    checked++;
  }
  EXPECT_GT(checked, 10);
  freeperiodstrides(&s);
}

TEST(PeriodStrides, TheLookupTakesTheLongestAlignedRunThatFits) {
  TABLE t(7e-11, 1.00000000003, 32, 0);
  UITER m = 0;
  // Orbit index 0 is the cycle's point 0: no run starts there.
  EXPECT_EQ(longestperiodstride(&t.s, 0, 32, ZEROH, &m), nullptr);
  // From 8 runs are aligned on 8; at most 8 steps, fewer when room is less.
  ASSERT_NE(longestperiodstride(&t.s, 8, 24, ZEROH, &m), nullptr);
  EXPECT_EQ(m, 8u);
  ASSERT_NE(longestperiodstride(&t.s, 8, 5, ZEROH, &m), nullptr);
  EXPECT_EQ(m, 4u);
  ASSERT_NE(longestperiodstride(&t.s, 12, 20, ZEROH, &m), nullptr);
  EXPECT_EQ(m, 4u);
  // A run never crosses the period's end.
  ASSERT_NE(longestperiodstride(&t.s, 31, 100, ZEROH, &m), nullptr);
  EXPECT_EQ(m, 1u);
  // A difference as large as the orbit is no linear step.
  EXPECT_EQ(longestperiodstride(&t.s, 5, 20, ONEH, &m), nullptr);
}

TEST(PeriodStrides, ARunHoldsOnlyWhileEveryStepStaysLinear) {
  TABLE t(7e-11, 1.00000000003, 32, 0);
  // The radius of a run is at most that of its first step, and of its
  // second step brought back through the first.
  for (int l = 1; l < t.s.levels; l++) {
    size_t n = t.s.start[l + 1] - t.s.start[l];
    for (size_t i = 0; i < n; i++) {
      const PERIODSTRIDE& run = t.s.run[t.s.start[l] + i];
      const PERIODSTRIDE& a = t.s.run[t.s.start[l - 1] + 2 * i];
      EXPECT_FALSE(lessHF(a.R2, run.R2)) << "level " << l << " run " << i;
    }
  }
  // A parameter reach as large as the orbit leaves no run of two steps.
  TABLE wide(7e-11, 1.00000000003, 32, 1.0);
  for (size_t i = 0; i < wide.s.start[2] - wide.s.start[1]; i++)
    EXPECT_EQ(wide.s.run[wide.s.start[1] + i].R2.mantissa, 0) << "run " << i;
}

TEST(PeriodStrides, NoTableWithoutAPeriodicOrbit) {
  ENV env(nucleus(P3X, 0, 3), 3);
  PERIODSTRIDES s{};
  env.e->flags &= ~E_PERIODIC;
  EXPECT_FALSE(makeperiodstrides(&s, env.e, ZEROH));
  env.e->flags |= E_PERIODIC;
  EXPECT_TRUE(makeperiodstrides(&s, env.e, ZEROH));
  // Made once for the same environment and reach.
  PERIODSTRIDE* first = s.run;
  EXPECT_TRUE(makeperiodstrides(&s, env.e, ZEROH));
  EXPECT_EQ(s.run, first);
  resetperiodstrides(&s);
  EXPECT_EQ(s.levels, 0);
  freeperiodstrides(&s);
  EXPECT_EQ(s.run, nullptr);
}
