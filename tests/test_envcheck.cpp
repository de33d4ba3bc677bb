// Whether a periodic environment serves a view or a Julia stack level, with
// the series of a real period-3 and period-4 nucleus; and the anchoring of a
// stack level to an environment.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdlib>
#include <string>

#include "Mandelbrot.h"
#include "idle.h"
#include "refiter.h"
#include "test_refiter_env.h"

using namespace refitertest;

namespace {

// A periodic environment at a nucleus with its series made.
struct SERIESENV {
  BARECONTEXT bare;
  MPC c;
  ENV env;
  ENVIRONMENT* e;
  mpf_t scratch;
  SERIESENV(double gx, double gy, unsigned n)
      : c(n == 1 ? MPC(0, 0) : nucleus(gx, gy, n)), env(c, n), e(env.e) {
    calctaylorenvironment(bare.context, e, nullptr);
    mpf_init2(scratch, 64);
  }
  ~SERIESENV() { mpf_clear(scratch); }
  double r1() const { return dHF(e->r1); }
  double r2() const { return dHF(e->r2); }
  // The view at c + (dx, 0) with half-size `radius`.
  int check(double dx, double radius, double resolution = 64) {
    MPC p(dx, 0);
    p = add(c, p);
    return checkenvironment(scratch, e, p.x, p.y, cHF(HFd(1 / radius), ZEROH), resolution);
  }
  int checkj(double dx, int s, double resolution = 256) {
    MPC p(dx, 0);
    p = add(c, p);
    return checkenvironmentjulia(scratch, e, p.x, p.y, s, resolution);
  }
};

HFLOATCOMPLEX huge() { return cHF(ldexpHF(ONEH, 100000), ZEROH); }

}  // namespace

// ---------------------------------------------------------------- checkenvironment

TEST(CheckEnvironment, APeriodThreeAtomServesAViewInsideIt) {
  SERIESENV s(P3X, 0, 3);
  ASSERT_EQ(s.e->flags & E_PERIODIC, E_PERIODIC);
  ASSERT_GT(s.r1(), 0.0);
  for (double d : {0.0, 0.3, 0.9})
    for (double f : {1e-1, 1e-2, 1e-4, 1e-6}) {
      int r = s.check(d * s.r1(), f * s.r1());
      EXPECT_GE(r, 3) << d << " " << f;
      EXPECT_LE(r, 8) << d << " " << f;
    }
  // A deeper view needs at least as many terms, never fewer.
  EXPECT_LE(s.check(0, 1e-1 * s.r1()), s.check(0, 1e-6 * s.r1()));
  // The view's centre may sit anywhere in the disc, also off the axis.
  MPC p(0.2 * s.r1(), -0.3 * s.r1());
  p = add(s.c, p);
  EXPECT_GE(checkenvironment(s.scratch, s.e, p.x, p.y, cHF(HFd(1e4), HFd(1e4)), 64), 3);
}

TEST(CheckEnvironment, RejectsWithTheCodeOfTheFirstFailingTest) {
  for (int n : {3, 4}) {
    SERIESENV s(n == 3 ? P3X : P4X, 0, n);
    double r1 = s.r1(), r2 = s.r2();
    EXPECT_EQ(s.check(2 * r1, 1e-2 * r1), -3);            // centre outside the trusted disc
    EXPECT_EQ(s.check(0, 2 * r1), -4);                     // the view larger than the disc
    EXPECT_EQ(s.check(1e6, 2 * r1), -4);                   // ... which is tested first
    EXPECT_EQ(s.check(0, 1e-10 * r2), -2);                 // the atom 10^10 view radii across
    EXPECT_EQ(s.check(1e6, 1e-10 * r2), -2);               // ... tested before the distance
    EXPECT_EQ(s.check(20 * r2, 1e-8 * r2), -5);            // the atom 2 10^9 view radii away
    EXPECT_GE(s.check(0, 1e-8 * r2), 0);                   // the same depth at the atom
  }
}

TEST(CheckEnvironment, ANonPeriodicEnvironmentIsNotSupported) {
  SERIESENV s(P3X, 0, 3);
  s.e->flags &= ~E_PERIODIC;
  testing::internal::CaptureStderr();
  EXPECT_EQ(s.check(0, 1e-3), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "checkenvironment: Not supported!\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(s.checkj(0, 4), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "checkenvironmentjulia: Not supported!\n");
}

TEST(CheckEnvironment, PeriodOneGivesTwoOnceTheFirstThreeTestsPass) {
  SERIESENV s(0, 0, 1);
  ASSERT_EQ(s.r1(), 10.0);
  EXPECT_EQ(s.check(0, 1e-3), 2);
  EXPECT_EQ(s.check(25, 1e-3), 2);   // far outside r1: test 4 is never reached
  EXPECT_EQ(s.check(0, 20), -4);     // test 1
  EXPECT_EQ(s.check(0, 1e-10), -2);  // test 2: r2 = 2 is 2 10^10 radii
  EXPECT_EQ(s.check(25, 1e-8), -5);  // test 3
}

TEST(CheckEnvironment, ASeriesThatReachesAPixelWithItsLastTermsIsRefused) {
  SERIESENV s(P3X, 0, 3);
  double r1 = s.r1();
  int ok = s.check(0, 1e-2 * r1);
  ASSERT_EQ(ok, 4);
  // The sixth power of z at this c.
  HFLOATCOMPLEX keep = s.e->taylor[6];
  s.e->taylor[6] = huge();
  EXPECT_EQ(s.check(0, 1e-2 * r1), -1);
  s.e->taylor[6] = keep;
  // The fifth.
  keep = s.e->taylor[5];
  s.e->taylor[5] = huge();
  EXPECT_EQ(s.check(0, 1e-2 * r1), -1);
  s.e->taylor[5] = keep;
  // A column of a power the depth reaches that needs its last c-term.
  keep = s.e->taylor[2 + 7 * 6];
  s.e->taylor[2 + 7 * 6] = huge();
  EXPECT_EQ(s.check(0, 1e-2 * r1), -6);
  s.e->taylor[2 + 7 * 6] = keep;
  keep = s.e->taylor[0 + 7 * 6];
  s.e->taylor[0 + 7 * 6] = huge();
  EXPECT_EQ(s.check(0, 1e-2 * r1), -6);
  s.e->taylor[0 + 7 * 6] = keep;
  // A column above the depth reached is never read: column 5 is made one
  // that needs its last term, and the depth is what it was.
  HFLOATCOMPLEX keep1 = s.e->taylor[5 + 7];
  keep = s.e->taylor[5 + 7 * 6];
  s.e->taylor[5 + 7] = CONEH;
  s.e->taylor[5 + 7 * 6] = huge();
  HFLOATCOMPLEX zoom = cHF(HFd(1 / (1e-2 * r1)), ZEROH);
  ASSERT_EQ(accurateprec(&s.e->taylor[5], 7, CZEROH, cdivHF(zoom, s.e->scalec), 7, 64), -1);
  EXPECT_EQ(s.check(0, 1e-2 * r1), ok);
  s.e->taylor[5 + 7] = keep1;
  s.e->taylor[5 + 7 * 6] = keep;
  EXPECT_EQ(s.check(0, 1e-2 * r1), ok);
}

// ---------------------------------------------------------------- checkenvironmentjulia

TEST(CheckEnvironmentJulia, ServesLevelsInsideTheJuliaDiscAndRejectsTheRest) {
  SERIESENV s(P3X, 0, 3);
  double r3 = dHF(s.e->r3), r4 = dHF(s.e->r4);
  ASSERT_GT(r3, 1.0);
  for (int l = 0; l < 30; l += 3) {
    int r = s.checkj(0, l);
    EXPECT_GE(r, 3) << l;
    EXPECT_LE(r, 8) << l;
  }
  int s4 = -static_cast<int>(std::ceil(std::log2(r3))) - 1;  // 2^-s beyond r3
  EXPECT_EQ(s.checkj(0, s4), -4);
  // r4^2 > 10^20 2^-2s
  int s2 = static_cast<int>(std::ceil(std::log2(1e10 / r4))) + 1;
  EXPECT_EQ(s.checkj(0, s2), -2);
  EXPECT_EQ(s.checkj(2 * r3, 9), -3);
  EXPECT_EQ(s.checkj(2 * r3, s4), -4);  // order: the level's size first
}

TEST(CheckEnvironmentJulia, PeriodOneGivesTwoAndAColumnThatNeedsItsLastTermsIsMinusFive) {
  SERIESENV one(0, 0, 1);
  EXPECT_EQ(one.checkj(0, 9), 2);
  EXPECT_EQ(one.checkj(100, 9), 2);
  EXPECT_EQ(one.checkj(0, -5), -4);
  SERIESENV s(P3X, 0, 3);
  ASSERT_GE(s.checkj(0, 9), 5);
  HFLOATCOMPLEX keep = s.e->taylor[2 + 7 * 6];
  s.e->taylor[2 + 7 * 6] = huge();
  EXPECT_EQ(s.checkj(0, 9), -5);
  s.e->taylor[2 + 7 * 6] = keep;
  s.e->taylor[6] = huge();
  EXPECT_EQ(s.checkj(0, 9), -1);
}

// ---------------------------------------------------------------- a view held by its atom

namespace {

// Is c attracted to a cycle of exactly `period` steps? Plain iteration in
// double, long enough for a cycle away from its component's edge to settle.
bool attractedwithperiod(std::complex<double> c, int period) {
  std::complex<double> z = 0;
  for (int k = 0; k < 100000; k++) {
    z = z * z + c;
    if (std::norm(z) > 4) return false;
  }
  std::complex<double> w = z;
  for (int k = 1; k < period; k++) {
    w = w * w + c;
    if (std::abs(w - z) < 1e-6) return false;
  }
  w = w * w + c;
  return std::abs(w - z) < 1e-9;
}

HFLOATCOMPLEX scaleof(double radius) { return cHF(HFd(1 / radius), ZEROH); }

}  // namespace

TEST(EnvironmentHoldsView, ADeepViewInsideTheShallowPeriodThreeAtomIsHeldThoughTooShallowToServe) {
  SERIESENV s(P3X, 0, 3);
  // The atom is wide: no series, its canvases iterate directly.
  EXPECT_EQ(s.e->flags & (E_PERIODIC | E_SERIES), E_PERIODIC);
  // Its trusted disc is set, about as wide as the atom: a view anywhere
  // near the nucleus may keep it.
  EXPECT_GT(s.r1(), s.r2() / 4);
  EXPECT_LT(s.r1(), 4 * s.r2());
  // The view 3e-25 above the nucleus, 1e-25 wide.
  MPC p(0, 3e-25);
  p = add(s.c, p);
  HFLOATCOMPLEX zoom = scaleof(0.5e-25);
  EXPECT_TRUE(isenvironmentvalid(s.scratch, s.e, p.x, p.y, zoom));
  EXPECT_EQ(checkenvironment(s.scratch, s.e, p.x, p.y, zoom, 240), -2);
  EXPECT_TRUE(environmentholdsview(s.e, p.x, p.y, zoom));
  // Any depth from near the atom's own scale down. The component reaches
  // from about -1.7685 to its cusp at -1.75, 0.006 up at the nucleus.
  for (double radius : {1e-5, 1e-9, 1e-40, 1e-200}) {
    MPC q(-0.004, 0.002);
    q = add(s.c, q);
    EXPECT_TRUE(environmentholdsview(s.e, q.x, q.y, scaleof(radius))) << radius;
  }
  // A region wider than the component is not.
  EXPECT_FALSE(environmentholdsview(s.e, s.c.x, s.c.y, scaleof(0.05)));
}

TEST(EnvironmentHoldsView, AViewIsHeldOnlyWhereEveryPointAroundItIsInteriorOfThePeriod) {
  SERIESENV s(P3X, 0, 3);
  int held = 0, refused = 0;
  for (double radius : {1e-4, 1e-5})
    for (int i = -16; i <= 6; i++)
      for (int j = 0; j <= 7; j++) {
        double dx = i * 0.001, dy = j * 0.002;
        MPC p(dx, dy);
        p = add(s.c, p);
        if (!environmentholdsview(s.e, p.x, p.y, scaleof(radius))) {
          refused++;
          continue;
        }
        held++;
        // The view and the areas around it, twice as far as the screen.
        for (int a = -2; a <= 2; a++)
          for (int b = -2; b <= 2; b++) {
            std::complex<double> c = p.d() + std::complex<double>(a * radius, b * radius);
            EXPECT_TRUE(attractedwithperiod(c, 3)) << c.real() << " " << c.imag() << " radius " << radius;
          }
      }
  // The sweep crosses the component's edge: both answers occur.
  EXPECT_GT(held, 20);
  EXPECT_GT(refused, 20);
}

TEST(EnvironmentHoldsView, OnlyAPeriodicEnvironmentWithoutSeriesHoldsAView) {
  SERIESENV one(0, 0, 1);
  MPC inside(-0.1, 0.05), airship(P3X, 3e-25);
  HFLOATCOMPLEX deep = scaleof(1e-25);
  // The main cardioid holds a deep view inside it, not one in another
  // component.
  EXPECT_TRUE(environmentholdsview(one.e, inside.x, inside.y, deep));
  EXPECT_FALSE(environmentholdsview(one.e, airship.x, airship.y, deep));
  // With a series its canvases follow differences, which the period test
  // does not see; without E_PERIODIC it is no component at all.
  one.e->flags |= E_SERIES;
  EXPECT_FALSE(environmentholdsview(one.e, inside.x, inside.y, deep));
  // The component alone still holds it: with the series dropped, the atom
  // could serve the view.
  EXPECT_TRUE(atomholdsview(one.e, inside.x, inside.y, deep));
  EXPECT_FALSE(atomholdsview(one.e, airship.x, airship.y, deep));
  one.e->flags &= ~(E_SERIES | E_PERIODIC);
  EXPECT_FALSE(environmentholdsview(one.e, inside.x, inside.y, deep));
  EXPECT_FALSE(atomholdsview(one.e, inside.x, inside.y, deep));
  // A view just outside the period-3 atom's edge on the real axis (its
  // cusp at -1.75) is not held.
  SERIESENV three(P3X, 0, 3);
  MPC outside(-1.75 + 1e-12, 0);
  EXPECT_FALSE(environmentholdsview(three.e, outside.x, outside.y, deep));
}

// ---------------------------------------------------------------- setenvironment

namespace {

struct STACK {
  BARECONTEXT bare;
  REALM realm = {};
  HPVALUE m = {};
  static constexpr int NLEVEL = 4;
  STACK() {
    realm.juliastack = static_cast<JULIASTACKDATA*>(calloc(NLEVEL, sizeof(JULIASTACKDATA)));
    realm.validjuliastack = -1;
    mpf_init2(m.v[0], PREC);
    mpf_init2(m.v[1], PREC);
    m.count = 1;
    m.flags = HPV_USED | HPV_LIMBS;
  }
  ~STACK() {
    free(realm.juliastack);
    mpf_clear(m.v[0]);
    mpf_clear(m.v[1]);
  }
  JULIASTACKDATA& level(int i) { return realm.juliastack[i]; }
};

bool samec(HFLOATCOMPLEX a, HFLOATCOMPLEX b) {
  return a.mantissax == b.mantissax && a.mantissay == b.mantissay && a.exponent == b.exponent;
}

const HFLOATCOMPLEX SENTINEL = {0x2000000000000000, 0x2000000000000000, 7};

}  // namespace

TEST(SetEnvironment, ALevelWithoutASeedIsRefusedAndKeepsItsEnvironment) {
  STACK st;
  SERIESENV a(P3X, 0, 3), b(P4X, 0, 4);
  a.e->count = 2;
  b.e->count = 1;
  JULIASTACKDATA& j = st.level(1);
  j.e = a.e;
  j.mr = SENTINEL;
  EXPECT_FALSE(setenvironment(st.bare.context, &st.realm, 1, b.e));
  EXPECT_EQ(j.e, a.e);
  EXPECT_EQ(a.e->count, 2);
  EXPECT_EQ(b.e->count, 1);
  EXPECT_EQ(j.mr.mantissax, 0);
  EXPECT_EQ(j.mr.mantissay, 0);
}

TEST(SetEnvironment, TheSameEnvironmentIsKept) {
  STACK st;
  SERIESENV a(P3X, 0, 3);
  a.e->count = 2;
  JULIASTACKDATA& j = st.level(0);
  j.e = a.e;
  j.mr = SENTINEL;
  EXPECT_TRUE(setenvironment(st.bare.context, &st.realm, 0, a.e));
  EXPECT_EQ(a.e->count, 2);
  EXPECT_TRUE(samec(j.mr, SENTINEL));
}

TEST(SetEnvironment, APeriodicEnvironmentInRangeComputesTheLevelsStart) {
  STACK st;
  SERIESENV old(P4X, 0, 4), a(P3X, 0, 3);
  old.e->count = 2;
  a.e->count = 1;
  ASSERT_EQ(a.e->flags & (E_PERIODIC | E_SERIES), E_PERIODIC);
  a.e->mini = 0;
  a.e->maxi = 2;
  JULIASTACKDATA& j = st.level(2);
  j.e = old.e;
  j.bypass = true;
  j.iter = 5;
  j.m = &st.m;
  // A seed 10^-3 off the nucleus.
  mpf_set_d(st.m.v[0], 1e-3);
  mpf_set_d(st.m.v[1], -2e-3);
  mpf_add(st.m.v[0], st.m.v[0], a.c.x);
  mpf_add(st.m.v[1], st.m.v[1], a.c.y);
  EXPECT_TRUE(setenvironment(st.bare.context, &st.realm, 2, a.e));
  EXPECT_EQ(j.e, a.e);
  EXPECT_EQ(a.e->count, 2);
  EXPECT_EQ(old.e->count, 1);
  EXPECT_FALSE(j.bypass);
  EXPECT_NEAR(cdHF(j.mr).real(), 1e-3, 1e-15);
  EXPECT_NEAR(cdHF(j.mr).imag(), -2e-3, 1e-15);
  // A shallow periodic point iterates the seed itself: z_5 of m.
  std::complex<double> c(mpf_get_d(st.m.v[0]), mpf_get_d(st.m.v[1])), z = 0;
  for (int k = 0; k < 5; k++) z = z * z + c;
  EXPECT_LT(std::abs(cdHF(j.taylorj[0]) - z), 1e-12);
}

TEST(SetEnvironment, ABypassLevelOutsideTheRangeTakesTheEnvironmentOverWithoutRecomputing) {
  STACK st;
  SERIESENV old(P4X, 0, 4), a(P3X, 0, 3);
  old.e->count = 2;
  a.e->count = 1;
  a.e->mini = 0;
  a.e->maxi = 1;  // level 3 is outside
  JULIASTACKDATA& j = st.level(3);
  j.e = old.e;
  j.bypass = true;
  j.iter = 5;
  j.m = &st.m;
  j.taylorj[0] = SENTINEL;
  mpf_set(st.m.v[0], a.c.x);
  mpf_set(st.m.v[1], a.c.y);
  mpf_set_d(st.m.v[1], 0.25);
  EXPECT_TRUE(setenvironment(st.bare.context, &st.realm, 3, a.e));
  EXPECT_EQ(j.e, a.e);
  EXPECT_TRUE(j.bypass);
  EXPECT_TRUE(samec(j.taylorj[0], SENTINEL));
  EXPECT_EQ(a.e->count, 2);
  EXPECT_EQ(old.e->count, 1);
  EXPECT_NEAR(cdHF(j.mr).imag(), 0.25, 1e-15);
  // A level the stack already holds as valid is not served either.
  j.e = old.e;
  old.e->count = 2;
  a.e->count = 1;
  a.e->maxi = 3;
  st.realm.validjuliastack = 3;
  EXPECT_TRUE(setenvironment(st.bare.context, &st.realm, 3, a.e));
  EXPECT_TRUE(samec(j.taylorj[0], SENTINEL));
}

TEST(SetEnvironment, AFailedStartChangesNothing) {
  STACK st;
  SERIESENV old(P4X, 0, 4), a(P3X, 0, 3);
  old.e->count = 2;
  a.e->count = 1;
  // A perturbation reference without its orbit cannot start the level.
  a.e->flags |= E_SERIES;
  REFDATAH* keeph = a.e->refdatah;
  a.e->refdatah = nullptr;
  a.e->mini = 0;
  a.e->maxi = 3;
  JULIASTACKDATA& j = st.level(1);
  j.e = old.e;
  j.iter = 5;
  j.m = &st.m;
  j.mr = SENTINEL;
  j.taylorj[0] = SENTINEL;
  mpf_set(st.m.v[0], a.c.x);
  mpf_set(st.m.v[1], a.c.y);
  EXPECT_FALSE(setenvironment(st.bare.context, &st.realm, 1, a.e));
  EXPECT_EQ(j.e, old.e);
  EXPECT_TRUE(samec(j.mr, SENTINEL));
  EXPECT_TRUE(samec(j.taylorj[0], SENTINEL));
  EXPECT_EQ(old.e->count, 2);
  EXPECT_EQ(a.e->count, 1);
  a.e->refdatah = keeph;
}

TEST(SetEnvironment, AStandardEnvironmentServesASeedLeaningToTheRealAxis) {
  STACK st;
  SERIESENV old(P4X, 0, 4), a(P3X, 0, 3);
  old.e->count = 2;
  a.e->count = 1;
  a.e->flags = 0;  // a standard orbit of 3 points
  a.e->mini = 0;
  a.e->maxi = 3;
  JULIASTACKDATA& j = st.level(1);
  j.e = old.e;
  j.iter = 3;
  j.m = &st.m;
  j.taylorj[0] = SENTINEL;
  mpf_set_d(st.m.v[0], 1e-5);
  mpf_set_d(st.m.v[1], 1e-7);
  mpf_add(st.m.v[0], st.m.v[0], a.c.x);
  mpf_add(st.m.v[1], st.m.v[1], a.c.y);
  EXPECT_TRUE(setenvironment(st.bare.context, &st.realm, 1, a.e));
  EXPECT_EQ(j.e, a.e);
  EXPECT_EQ(j.taylorj[0].mantissax, 0);  // the centre's deviation is 0
  // Leaning to the imaginary axis, without a period, it is not served: with
  // no bypass the start is computed all the same.
  j.e = old.e;
  old.e->count = 2;
  a.e->count = 1;
  j.taylorj[0] = SENTINEL;
  j.iter = 4;  // longer than the orbit: the start cannot be had
  mpf_set(st.m.v[0], a.c.x);
  EXPECT_FALSE(setenvironment(st.bare.context, &st.realm, 1, a.e));
  EXPECT_EQ(j.e, old.e);
}
