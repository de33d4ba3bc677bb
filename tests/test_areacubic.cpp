// The area's cubic start against the orbits themselves: at the iteration it
// reaches, the cubic gives the deviation of every point of the area from the
// reference's orbit to within its tolerance of a grid step, checked against
// the deviation iterated in mpf for each point on its own.
#include <gmp.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "canvas/areacubic.h"
#include "environment.h"
#include "mathext.h"
#include "minibrotframe.h"

namespace {

constexpr mp_bitcnt_t BITS = 1024;

// A complex mpf pair at the test's precision.
struct MPC : minibrotframe::MPC {
  MPC() : minibrotframe::MPC(BITS) {}
};

// z <- z^2 + c
void step(MPC& z, const MPC& c) {
  MPC t;
  mpf_mul(t.x, z.x, z.x);
  mpf_mul(t.y, z.y, z.y);
  mpf_sub(t.x, t.x, t.y);
  mpf_mul(t.y, z.x, z.y);
  mpf_mul_2exp(t.y, t.y, 1);
  mpf_add(z.x, t.x, c.x);
  mpf_add(z.y, t.y, c.y);
}

HFLOATCOMPLEX tohf(const MPC& z) { return cHF(mpf_get_HF(z.x), mpf_get_HF(z.y)); }

// A reference that is not periodic as far as the engine knows: its orbit
// in double, as the environment keeps it, up to `n` or its escape.
struct REFERENCE {
  MPC c;
  std::vector<REFDATAD> orbit;
  ENVIRONMENT e{};
  REFERENCE(const char* re, const char* im, int n) {
    mpf_set_str(c.x, re, 10);
    mpf_set_str(c.y, im, 10);
    MPC z;
    for (int k = 0; k <= n; k++) {
      double x = mpf_get_d(z.x), y = mpf_get_d(z.y);
      orbit.push_back(REFDATAD{complexd(x, y), 4 - (x * x + y * y)});
      if (x * x + y * y > 4) break;
      step(z, c);
    }
    e.refdatad = orbit.data();
    e.nrefdata = static_cast<int>(orbit.size());
    e.n = static_cast<UITER>(orbit.size() - 1);
  }
};

// The deviation from the stored orbit after n steps, d' = 2 X d + d^2 + dc,
// in mpf from d = 0. The orbit is the environment's own, rounded to double
// as every kernel reads it: the cubic's bound is on what its dropped terms
// add, not on the orbit's rounding, which iterating each point shares.
HFLOATCOMPLEX deviation(const REFERENCE& r, const MPC& dc, int n) {
  MPC d, X, t;
  for (int k = 0; k < n; k++) {
    mpf_set_d(X.x, r.orbit[k].value.real());
    mpf_set_d(X.y, r.orbit[k].value.imag());
    // t = (2 X + d) d + dc
    mpf_mul_2exp(X.x, X.x, 1);
    mpf_mul_2exp(X.y, X.y, 1);
    mpf_add(X.x, X.x, d.x);
    mpf_add(X.y, X.y, d.y);
    mpf_mul(t.x, X.x, d.x);
    mpf_mul(t.y, X.y, d.y);
    mpf_sub(t.x, t.x, t.y);
    mpf_mul(t.y, X.x, d.y);
    mpf_mul(X.x, X.y, d.x);
    mpf_add(t.y, t.y, X.x);
    mpf_add(d.x, t.x, dc.x);
    mpf_add(d.y, t.y, dc.y);
  }
  return tohf(d);
}

HFLOATCOMPLEX evaluate(const HFLOATCOMPLEX t[4], HFLOATCOMPLEX x) {
  return caddHF(cmulHF(caddHF(cmulHF(caddHF(cmulHF(t[3], x), t[2]), x), t[1]), x), t[0]);
}

HFLOATCOMPLEX slope(const HFLOATCOMPLEX t[4], HFLOATCOMPLEX x) {
  return caddHF(cmulHF(caddHF(cmulHF(cmulHF2(t[3], HFd(3.0)), x), cmulHF2(t[2], HFd(2.0))), x),
                t[1]);
}

// An area of depth `depth` (side 2^(4 - depth), 256 steps) whose centre
// lies (ox, oy) sides from the reference.
struct AREAFRAME {
  int depth;
  double ox, oy;
  HFLOAT side() const { return HFLOAT{HFLOATBASE(1) << 61, 4 - depth + 1}; }
  HFLOAT step() const { return ldexpHF(side(), -8); }
  HFLOAT radius() const { return mulHF(ldexpHF(side(), -1), HFd(1.4143)); }
  HFLOATCOMPLEX centre() const { return cmulHF2(cHFd(complexd(ox, oy)), side()); }
};

struct OUTCOME {
  ITER iter = 0;
  double worst = 0;  // the largest error, in tolerances of a step
};

// The cubic's error at the corners and midpoints of the area's square and
// at a fixed scatter of points inside it.
OUTCOME check(const REFERENCE& r, const AREAFRAME& f) {
  OUTCOME o;
  HFLOATCOMPLEX t[4];
  o.iter = areacubic(&r.e, f.centre(), f.radius(), f.step(), 0x7FFFFFFF, t);
  if (o.iter <= 0) return o;
  HFLOAT unit = mulHF(mulHF(cabsHF(slope(t, f.centre())), f.step()), HFd(AREACUBICTOLERANCE));
  std::vector<complexd> at;
  for (int i = -1; i <= 1; i++)
    for (int j = -1; j <= 1; j++) at.push_back(complexd(0.5 * i, 0.5 * j));
  unsigned long state = 12345;
  for (int k = 0; k < 24; k++) {
    state = state * 6364136223846793005ul + 1442695040888963407ul;
    double u = ((state >> 11) & 0xFFFFF) / double(0x100000) - 0.5;
    double v = ((state >> 31) & 0xFFFFF) / double(0x100000) - 0.5;
    at.push_back(complexd(u, v));
  }
  for (complexd a : at) {
    HFLOATCOMPLEX dc = caddHF(f.centre(), cmulHF2(cHFd(a), f.side()));
    MPC m;
    mpf_set_HFexact(m.x, crealHF(dc));
    mpf_set_HFexact(m.y, cimagHF(dc));
    HFLOATCOMPLEX exact = deviation(r, m, o.iter);
    HFLOAT error = cabsHF(csubHF(evaluate(t, dc), exact));
    o.worst = std::max(o.worst, dHF(divHF(error, unit)));
  }
  return o;
}

TEST(AreaCubic, NextToIAtDepth200ItCarriesTheAreaMostOfTheWayWithinItsTolerance) {
  REFERENCE r("0", "1", 2000);
  OUTCOME o = check(r, AREAFRAME{200, 0.5, 0.5});
  printf("  iteration %d, worst error %.3g of the tolerance\n", o.iter, o.worst);
  // The points of this area escape after about 160 iterations.
  EXPECT_GT(o.iter, 120);
  EXPECT_LE(o.worst, 1.0);
}

TEST(AreaCubic, AnAreaFarFromTheReferenceIsServedInPowersOfItsOffset) {
  // Forty sides away: the cubic made around the area's centre comes back
  // in powers of the offset from the reference, through large cancelling
  // terms.
  REFERENCE r("0", "1", 2000);
  OUTCOME o = check(r, AREAFRAME{200, 40.5, -23.5});
  printf("  iteration %d, worst error %.3g of the tolerance\n", o.iter, o.worst);
  EXPECT_GT(o.iter, 100);
  EXPECT_LE(o.worst, 1.0);
}

TEST(AreaCubic, DeepAt1000TheWideExponentHoldsTheTerms) {
  REFERENCE r("0", "1", 4000);
  OUTCOME o = check(r, AREAFRAME{1000, -2.5, 1.5});
  printf("  iteration %d, worst error %.3g of the tolerance\n", o.iter, o.worst);
  EXPECT_GT(o.iter, 700);
  EXPECT_LE(o.worst, 1.0);
}

// A period-998 nucleus in the seahorse valley, taken as a plain reference:
// its orbit comes back to 0 once a period. At the return the deviation is
// the whole of z and the step after it is all nonlinear: the cubic of an
// area that holds the nucleus cannot pass it.
TEST(AreaCubic, NextToAMinibrotItStopsBeforeTheCloseReturn) {
  REFERENCE r("-0.7436438870371588707780645434936425750476",
              "0.131825904205312292821097354874767265263", 3000);
  ASSERT_EQ(r.e.n, 3000u);
  OUTCOME o = check(r, AREAFRAME{40, 0.25, 0.25});
  printf("  iteration %d, worst error %.3g of the tolerance\n", o.iter, o.worst);
  EXPECT_GT(o.iter, 2);
  EXPECT_LE(o.iter, 998);
  EXPECT_LE(o.worst, 1.0);
}

TEST(AreaCubic, NothingToCarryGivesNoCubic) {
  HFLOATCOMPLEX t[4] = {CONEH, CONEH, CONEH, CONEH};
  AREAFRAME f{200, 0.5, 0.5};
  EXPECT_EQ(areacubic(nullptr, f.centre(), f.radius(), f.step(), 0x7FFFFFFF, t), 0);
  // An orbit that leaves at once: c = 1 escapes at its third step.
  REFERENCE gone("1", "0", 100);
  EXPECT_LT(gone.e.n, 5u);
  EXPECT_EQ(areacubic(&gone.e, f.centre(), f.radius(), f.step(), 0x7FFFFFFF, t), 0);
  // A limit of two iterations carries nothing worth a start.
  REFERENCE r("0", "1", 2000);
  EXPECT_EQ(areacubic(&r.e, f.centre(), f.radius(), f.step(), 2, t), 0);
  // A wide area next to the set: the cubic fails at its first steps.
  AREAFRAME wide{2, 0.0, 0.0};
  EXPECT_EQ(areacubic(&r.e, wide.centre(), wide.radius(), wide.step(), 0x7FFFFFFF, t), 0);
  for (const HFLOATCOMPLEX& k : t) EXPECT_EQ(k.mantissax, CONEH.mantissax);
}

TEST(AreaCubic, TheLimitBoundsTheIteration) {
  REFERENCE r("0", "1", 2000);
  AREAFRAME f{200, 0.5, 0.5};
  HFLOATCOMPLEX t[4];
  EXPECT_EQ(areacubic(&r.e, f.centre(), f.radius(), f.step(), 50, t), 50);
}

}  // namespace
