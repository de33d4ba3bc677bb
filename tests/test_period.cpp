// The escape and period tests in four number formats: the calci family
// against closed forms, checkperiod's Newton search, angle search, samples and
// least-period reduction, and inftytest on components whose periods are known.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <type_traits>

#include "canvas/period.h"

namespace {

// ---------------------------------------------------------------- formats
//
// The suffixed names, so that the tests call what the canvas will call.

template <typename T>
struct API;

template <>
struct API<CANVASTEMPLATE_float> {
  static constexpr auto& calci = calci_float;
  static constexpr auto& calci2 = calci2_float;
  static constexpr auto& calci3 = calci3_float;
  static constexpr auto& calci4 = calci4_float;
  static constexpr auto& checkperiod = checkperiod_float;
  static constexpr auto& inftytest = inftytest_float;
  static constexpr long double tolerance = 2e-5L;
};

template <>
struct API<CANVASTEMPLATE_double> {
  static constexpr auto& calci = calci_double;
  static constexpr auto& calci2 = calci2_double;
  static constexpr auto& calci3 = calci3_double;
  static constexpr auto& calci4 = calci4_double;
  static constexpr auto& checkperiod = checkperiod_double;
  static constexpr auto& inftytest = inftytest_double;
  static constexpr long double tolerance = 1e-12L;
};

template <>
struct API<CANVASTEMPLATE_longdouble> {
  static constexpr auto& calci = calci_longdouble;
  static constexpr auto& calci2 = calci2_longdouble;
  static constexpr auto& calci3 = calci3_longdouble;
  static constexpr auto& calci4 = calci4_longdouble;
  static constexpr auto& checkperiod = checkperiod_longdouble;
  static constexpr auto& inftytest = inftytest_longdouble;
  static constexpr long double tolerance = 1e-15L;
};

template <>
struct API<CANVASTEMPLATE_hfloat> {
  static constexpr auto& calci = calci_hfloat;
  static constexpr auto& calci2 = calci2_hfloat;
  static constexpr auto& calci3 = calci3_hfloat;
  static constexpr auto& calci4 = calci4_hfloat;
  static constexpr auto& checkperiod = checkperiod_hfloat;
  static constexpr auto& inftytest = inftytest_hfloat;
  // Truncating arithmetic and the 53-bit square root.
  static constexpr long double tolerance = 1e-13L;
};

template <typename T>
typename T::COMPLEX cx(long double x, long double y = 0) {
  return canvasmodel::NUM<typename T::FLOAT>::cfromHF(cHFld(complexld(x, y)));
}

template <typename T>
complexld ld(typename T::COMPLEX z) {
  return cdlHF(canvasmodel::NUM<typename T::FLOAT>::ctoHF(z));
}

template <typename T>
long double ld(typename T::FLOAT f) {
  return dlHF(canvasmodel::NUM<typename T::FLOAT>::toHF(f));
}

template <typename T>
void expectnear(complexld expected, typename T::COMPLEX got, long double scale = 1) {
  long double tol = API<T>::tolerance * scale * std::max(1.0L, std::abs(expected));
  complexld g = ld<T>(got);
  EXPECT_NEAR(static_cast<double>(g.real()), static_cast<double>(expected.real()),
              static_cast<double>(tol));
  EXPECT_NEAR(static_cast<double>(g.imag()), static_cast<double>(expected.imag()),
              static_cast<double>(tol));
}

template <typename T>
void expectwithin(complexld expected, typename T::COMPLEX got, double tol) {
  complexld g = ld<T>(got);
  EXPECT_NEAR(static_cast<double>(g.real()), static_cast<double>(expected.real()), tol);
  EXPECT_NEAR(static_cast<double>(g.imag()), static_cast<double>(expected.imag()), tol);
}

template <typename T>
typename T::INFTYDATA emptydata() {
  typename T::INFTYDATA data{};
  return data;
}

constexpr ITER BIG = 0x7FFFFFFF;
constexpr int DEPTH = -20;  // a grid step of 2^-20

// Centres of components with known periods.
const complexld RABBIT(-0.12256116687665361L, 0.74486176661974424L);
const long double AIRPLANE = -1.7548776662466927L;

template <typename T>
class Period : public ::testing::Test {};

typedef ::testing::Types<CANVASTEMPLATE_float, CANVASTEMPLATE_double, CANVASTEMPLATE_longdouble,
                         CANVASTEMPLATE_hfloat>
    FORMATS;

class FormatNames {
 public:
  template <typename T>
  static std::string GetName(int i) {
    static const char* const names[] = {"float", "double", "longdouble", "hfloat"};
    return names[i];
  }
};

TYPED_TEST_SUITE(Period, FORMATS, FormatNames);

// ---------------------------------------------------------------- calci family

TYPED_TEST(Period, CalciGivesNewtonTermsOfTheCycle) {
  typedef TypeParam T;
  typename T::COMPLEX xx, dxx;
  // 0 -> -1 -> 0: a cycle of period 2 with multiplier 4 * 0 * -1 = 0.
  API<T>::calci(cx<T>(0), cx<T>(-1), 2, &xx, &dxx);
  expectnear<T>(complexld(0, 0), xx);
  expectnear<T>(complexld(-1, 0), dxx);
  // From x = 0.5 + 0.25i under c = -0.3 + 0.1i, two steps.
  complexld x(0.5L, 0.25L), c(-0.3L, 0.1L);
  complexld z1 = x * x + c, z2 = z1 * z1 + c;
  API<T>::calci(cx<T>(x.real(), x.imag()), cx<T>(c.real(), c.imag()), 2, &xx, &dxx);
  expectnear<T>(z2 - x, xx);
  expectnear<T>(4.0L * x * z1 - 1.0L, dxx);
}

TYPED_TEST(Period, CalciWithoutIterationsGivesZeroAndZero) {
  typedef TypeParam T;
  typename T::COMPLEX xx = cx<T>(7), dxx = cx<T>(7);
  API<T>::calci(cx<T>(0.3L, 0.2L), cx<T>(0.1L), 0, &xx, &dxx);
  expectnear<T>(complexld(0, 0), xx);
  expectnear<T>(complexld(0, 0), dxx);
  xx = cx<T>(7);
  API<T>::calci(cx<T>(0.3L, 0.2L), cx<T>(0.1L), -3, &xx, &dxx);
  expectnear<T>(complexld(0, 0), xx);
}

TYPED_TEST(Period, Calci2GivesOrbitOfTheParameterAndItsDerivative) {
  typedef TypeParam T;
  typename T::COMPLEX xx, dxx;
  complexld c(-0.3L, 0.4L);
  // z0 = c, z1 = c^2 + c, z2 = z1^2 + c; d0 = 1, d1 = 2 c + 1, d2 = 2 z1 d1 + 1.
  complexld z1 = c * c + c, z2 = z1 * z1 + c;
  complexld p1 = 2.0L * c + 1.0L, p2 = 2.0L * z1 * p1 + 1.0L;
  API<T>::calci2(cx<T>(c.real(), c.imag()), 2, &xx, &dxx);
  expectnear<T>(z2, xx);
  expectnear<T>(p2, dxx);
}

TYPED_TEST(Period, Calci3GivesOrbitAndStartDerivative) {
  typedef TypeParam T;
  typename T::COMPLEX xx, dxx;
  API<T>::calci3(cx<T>(0.5L), cx<T>(0.1L), 2, &xx, &dxx);
  // 0.5 -> 0.35 -> 0.2225; 2 * 0.5 * 2 * 0.35 = 0.7.
  expectnear<T>(complexld(0.2225L, 0), xx);
  expectnear<T>(complexld(0.7L, 0), dxx);
}

TYPED_TEST(Period, Calci4GivesAllDerivativesOfTwoSteps) {
  typedef TypeParam T;
  typename T::COMPLEX xx, dxx, ddxx, d2xx, dd2xx;
  complexld x(0.5L, 0.25L), c(-0.3L, 0.1L);
  API<T>::calci4(cx<T>(x.real(), x.imag()), cx<T>(c.real(), c.imag()), 2, &xx, &dxx, &ddxx,
                 &d2xx, &dd2xx);
  // F = (x^2 + c)^2 + c.
  complexld u = x * x + c;
  expectnear<T>(u * u + c - x, xx);
  expectnear<T>(4.0L * x * u - 1.0L, dxx);                // F_x - 1
  expectnear<T>(2.0L * u + 1.0L, ddxx);                   // F_c
  expectnear<T>(12.0L * x * x + 4.0L * c, d2xx);          // F_xx
  expectnear<T>(4.0L * x, dd2xx);                         // F_xc
}

// ---------------------------------------------------------------- edge cases

// c = 0: period 1, multiplier 0, interior, and inftytest returns 1 at once.
TYPED_TEST(Period, ZeroIsPeriodOneWithMultiplierZeroAtOnce) {
  typedef TypeParam T;
  typename T::COMPLEX c = cx<T>(0), d1 = cx<T>(5), d2 = cx<T>(5);
  // With maxiter 1 the orbit loop could only give 0: a 1 is the first check.
  EXPECT_EQ(1, API<T>::inftytest(DEPTH, &c, 1, nullptr, nullptr, &d1, &d2, nullptr));
  expectnear<T>(complexld(0, 0), c);
  expectnear<T>(complexld(0, 0), d1);
  expectnear<T>(complexld(1, 0), d2);  // the fixed point moves as c does at c = 0
  typename T::FLOAT d;
  c = cx<T>(0);
  EXPECT_EQ(1, API<T>::checkperiod(DEPTH, &c, 1, BIG, 0, false, nullptr, nullptr, &d, nullptr,
                                   nullptr, nullptr, nullptr));
  // (1 - |m|) * 2 / |dm/dc| with dm/dc = F_zc + F_zz dz/dc = 0 + 2 * 1.
  EXPECT_NEAR(1.0, static_cast<double>(ld<T>(d)), 1e-5);
}

// c = -1: period 1 fails (|m| > 1), the angle pi gives the convergent 1/2.
TYPED_TEST(Period, MinusOneFailsPeriodOneAndAngleFindsTwo) {
  typedef TypeParam T;
  typename T::INFTYDATA data = emptydata<T>();
  unsigned int flags = 0;
  typename T::COMPLEX c = cx<T>(-1);
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, BIG, 0, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  ASSERT_EQ(1, data.ipdata);
  complexld m = ld<T>(data.pdvalue[0]) + 1.0L;
  // The fixed point (1 - sqrt 5) / 2, multiplier 1 - sqrt 5.
  EXPECT_NEAR(1.0 - std::sqrt(5.0), static_cast<double>(m.real()), 1e-5);
  EXPECT_NEAR(0.0, static_cast<double>(m.imag()), 1e-5);
  expectnear<T>(complexld(-1, 0), c);  // not interior: c is left alone

  typename T::COMPLEX d1;
  c = cx<T>(-1);
  EXPECT_EQ(2, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, nullptr, nullptr, nullptr,
                                   nullptr, &d1, nullptr, nullptr));
  expectnear<T>(complexld(0, 0), d1);  // 4 * 0 * -1
  c = cx<T>(-1);
  EXPECT_EQ(2, API<T>::inftytest(DEPTH, &c, 1000, nullptr, nullptr, nullptr, nullptr, nullptr));
  // A point of the cycle {-1, 0}.
  complexld z = ld<T>(c);
  EXPECT_LT(static_cast<double>(std::min(std::abs(z), std::abs(z + 1.0L))), 1e-5);
}

// Just outside the cardioid: |m|^2 slightly above 1, nothing found by angle.
TYPED_TEST(Period, JustOutsideFindsNoCycle) {
  typedef TypeParam T;
  // The cardioid is c = m/2 - m^2/4 for |m| = 1; here |m| = 1.02 at an angle
  // of 2.4 radians, near the golden ratio's, so that no convergent's disc
  // holds m before the denominators outgrow it.
  complexld m0 = std::polar(1.02L, 2.4L);
  complexld c0 = m0 / 2.0L - m0 * m0 / 4.0L;
  typename T::INFTYDATA data = emptydata<T>();
  unsigned int flags = 0;
  typename T::COMPLEX c = cx<T>(c0.real(), c0.imag());
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  ASSERT_EQ(1, data.ipdata);  // nothing else was tried, nor stored
  EXPECT_EQ(1, data.pditer[0]);
  expectwithin<T>(m0 - 1.0L, data.pdvalue[0], 1e-4);
  EXPECT_LE(API<T>::inftytest(DEPTH, &c, 10000, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
  // On the real axis past the cusp the fixed points are a complex pair, and
  // Newton from the real c never reaches them: undecided, nothing measured.
  data = emptydata<T>();
  c = cx<T>(0.26L);
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(0, data.ipdata);
  c = cx<T>(0.26L);
  EXPECT_LE(API<T>::inftytest(DEPTH, &c, 10000, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
  // Just inside, as near the boundary, the cycle is found.
  complexld m1 = std::polar(0.98L, 2.4L);
  complexld c1 = m1 / 2.0L - m1 * m1 / 4.0L;
  c = cx<T>(c1.real(), c1.imag());
  typename T::COMPLEX d1;
  EXPECT_EQ(1, API<T>::inftytest(DEPTH, &c, 10000, nullptr, nullptr, &d1, nullptr, nullptr));
  expectwithin<T>(m1, d1, 1e-4);
}

// maxiter < 1 gives the first checkperiod's result without iterating.
TYPED_TEST(Period, MaxiterBelowOneReturnsFirstCheckOnly) {
  typedef TypeParam T;
  typename T::COMPLEX c = cx<T>(-1);
  EXPECT_EQ(2, API<T>::inftytest(DEPTH, &c, 0, nullptr, nullptr, nullptr, nullptr, nullptr));
  // An escaping point is not iterated: no escape count, and c stays.
  c = cx<T>(1);
  EXPECT_EQ(0, API<T>::inftytest(DEPTH, &c, 0, nullptr, nullptr, nullptr, nullptr, nullptr));
  expectnear<T>(complexld(1, 0), c);
  EXPECT_EQ(0, API<T>::inftytest(DEPTH, &c, -5, nullptr, nullptr, nullptr, nullptr, nullptr));
  // Nor is an interior point that only the orbit's near-return finds.
  c = cx<T>(AIRPLANE);
  EXPECT_EQ(0, API<T>::inftytest(DEPTH, &c, 0, nullptr, nullptr, nullptr, nullptr, nullptr));
}

// iter 0, or iter at or above maxiter: 0 at once, nothing touched.
TYPED_TEST(Period, CheckperiodOutOfRangeReturnsZeroAtOnce) {
  typedef TypeParam T;
  typename T::INFTYDATA data = emptydata<T>();
  unsigned int flags = 0;
  typename T::COMPLEX c = cx<T>(0.25L, 0.125L);
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 0, BIG, 25, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, 1, 25, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 5, 3, 25, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(0, data.ipdata);
  EXPECT_EQ(0u, flags);
  expectnear<T>(complexld(0.25L, 0.125L), c);
  // One below maxiter is tried: c = 0.25 + 0.125i lies in the cardioid.
  EXPECT_EQ(1, API<T>::checkperiod(DEPTH, &c, 1, 2, 25, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(1, data.ipdata);
}

// A period tried a second time at the same vertex: 0 at once by its flag bit.
TYPED_TEST(Period, PeriodTriedAgainAtVertexReturnsZeroByFlag) {
  typedef TypeParam T;
  // A neighbour at c = -1 searched period 1 and kept its multiplier.
  typename T::INFTYDATA data = emptydata<T>();
  unsigned int neighbour = 0;
  typename T::COMPLEX c = cx<T>(-1);
  ASSERT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, BIG, 0, false, &data, &neighbour, nullptr,
                                   nullptr, nullptr, nullptr, nullptr));
  ASSERT_EQ(1, data.ipdata);

  // This vertex takes the sample: the first try expands it by angle alone.
  const typename T::INFTYDATA spread = data;
  typename T::INFTYDATA mine = spread;
  unsigned int flags = 0;
  c = cx<T>(-1);
  EXPECT_EQ(2, API<T>::checkperiod(DEPTH, &c, 1, BIG, 1, false, &mine, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(4096u, flags & 0xF000u);
  EXPECT_EQ(2, mine.ipdata);  // period 2 kept for the neighbours in turn
  EXPECT_EQ(2, mine.pditer[1]);

  // The second try, even on the sample alone: 0, and nothing written.
  mine = spread;
  const unsigned int flagsbefore = flags;
  c = cx<T>(-1);
  typename T::COMPLEX d1 = cx<T>(9);
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, &mine, &flags, nullptr, nullptr,
                                   &d1, nullptr, nullptr));
  EXPECT_EQ(0, std::memcmp(&spread, &mine, sizeof mine));
  EXPECT_EQ(flagsbefore, flags);
  expectnear<T>(complexld(-1, 0), c);
  expectnear<T>(complexld(9, 0), d1);
  // The flag is what stops it: another vertex given the same sample expands.
  typename T::INFTYDATA theirs = spread;
  unsigned int other = 0;
  EXPECT_EQ(2, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, &theirs, &other, nullptr,
                                   nullptr, nullptr, nullptr, nullptr));
}

// ---------------------------------------------------------------- samples

TYPED_TEST(Period, NewPeriodWithAllSlotsUsedIsNotSearched) {
  typedef TypeParam T;
  typename T::INFTYDATA data = emptydata<T>();
  for (int k = 0; k < NPDATA; k++) {
    data.pditer[k] = 100 + k;
    data.pdvalue[k] = cx<T>(1);  // m = 2
  }
  data.ipdata = NPDATA;
  unsigned int flags = 0;
  typename T::COMPLEX c = cx<T>(0);  // period 1 would be found at once
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(4096u, flags);  // the oldest slot
  EXPECT_EQ(NPDATA, data.ipdata);
  // With one slot free the same call searches and stores.
  data.ipdata = NPDATA - 1;
  flags = 0;
  EXPECT_EQ(1, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(1, data.pditer[NPDATA - 1]);
  expectnear<T>(complexld(-1, 0), data.pdvalue[NPDATA - 1]);  // m - 1 with m = 0
}

TYPED_TEST(Period, StoredSampleWithoutRecursionBudgetIsNotExpanded) {
  typedef TypeParam T;
  typename T::INFTYDATA data = emptydata<T>();
  data.ipdata = 1;
  data.pditer[0] = 1;
  data.pdvalue[0] = cx<T>(-2.236L);  // the multiplier at c = -1
  unsigned int flags = 0;
  typename T::COMPLEX c = cx<T>(-1);
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, BIG, 0, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(0u, flags);
  EXPECT_EQ(2, API<T>::checkperiod(DEPTH, &c, 1, BIG, 1, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
}

// ---------------------------------------------------------------- Newton failures

TYPED_TEST(Period, NewtonStepLongerThanItsTargetIsUndecided) {
  typedef TypeParam T;
  // From z = 3 + i the first step is 1.79 + 0.48i, longer than the point it
  // lands on: rejected before any multiplier is kept.
  typename T::INFTYDATA data = emptydata<T>();
  unsigned int flags = 0;
  typename T::COMPLEX c = cx<T>(3, 1);
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(0, data.ipdata);
  expectnear<T>(complexld(3, 1), c);
}

TYPED_TEST(Period, NewtonDivisionByZeroIsUndecided) {
  typedef TypeParam T;
  // At c = 0.5 the start z = c has multiplier exactly 1: the step divides by
  // zero, which the hardware formats see as an infinite or NaN step and
  // HFLOAT as a saturated one; both end the search.
  typename T::INFTYDATA data = emptydata<T>();
  unsigned int flags = 0;
  typename T::COMPLEX c = cx<T>(0.5L);
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, &data, &flags, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_EQ(0, data.ipdata);
}

// ---------------------------------------------------------------- least period

TYPED_TEST(Period, DivisorCheckReducesToLeastPeriod) {
  typedef TypeParam T;
  typename T::COMPLEX c = cx<T>(0);
  EXPECT_EQ(2, API<T>::checkperiod(DEPTH, &c, 2, BIG, 0, false, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr, nullptr));
  c = cx<T>(0);
  EXPECT_EQ(1, API<T>::checkperiod(DEPTH, &c, 2, BIG, 0, true, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  c = cx<T>(-1);
  EXPECT_EQ(2, API<T>::checkperiod(DEPTH, &c, 4, BIG, 0, true, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
  // Period 3 has no proper divisor but 1, whose fixed point is repelling.
  c = cx<T>(AIRPLANE);
  EXPECT_EQ(3, API<T>::checkperiod(DEPTH, &c, 3, BIG, 0, true, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
}

// ---------------------------------------------------------------- interior outputs

TYPED_TEST(Period, InteriorOutputsAreCyclePointMultiplierAndDerivative) {
  typedef TypeParam T;
  long double cv = -0.1L;
  long double root = std::sqrt(1 - 4 * cv);
  typename T::COMPLEX c = cx<T>(cv), d1, d2;
  typename T::FLOAT d;
  EXPECT_EQ(1, API<T>::checkperiod(DEPTH, &c, 1, BIG, 0, false, nullptr, nullptr, &d, nullptr,
                                   &d1, &d2, nullptr));
  // z* = (1 - sqrt(1 - 4c)) / 2, m = 2 z*, dz*/dc = 1 / sqrt(1 - 4c). Newton
  // stops once the multiplier settles, one step short of full precision,
  // whatever the format.
  expectwithin<T>(complexld((1 - root) / 2, 0), c, 1e-6);
  expectwithin<T>(complexld(1 - root, 0), d1, 1e-6);
  expectwithin<T>(complexld(1 / root, 0), d2, 1e-6);
  // dm/dc = 2 dz*/dc: d = (1 - |m|) * 2 / |dm/dc| = (1 - |m|) * root.
  EXPECT_NEAR(static_cast<double>((1 - std::fabs(1 - root)) * root),
              static_cast<double>(ld<T>(d)), 1e-4);
  // Nearer the boundary the estimate is smaller.
  typename T::FLOAT dnear;
  c = cx<T>(0.2L);
  EXPECT_EQ(1, API<T>::checkperiod(DEPTH, &c, 1, BIG, 0, false, nullptr, nullptr, &dnear, nullptr,
                                   nullptr, nullptr, nullptr));
  EXPECT_GT(ld<T>(dnear), 0.0L);
  EXPECT_LT(ld<T>(dnear), ld<T>(d));
}

TYPED_TEST(Period, CycleDerivativeMatchesFiniteDifferenceInRabbit) {
  typedef TypeParam T;
  // The derivative of the cycle point near the centre, against a difference
  // quotient in long double. Float carries the product of 3 steps of second
  // derivatives with some 7 digits, so it is held to 1e-3 only.
  const double rel = std::is_same_v<typename T::FLOAT, float> ? 1e-3 : 1e-6;
  complexld c0 = RABBIT + complexld(0.001L, 0.0005L);
  typename T::COMPLEX c = cx<T>(c0.real(), c0.imag()), d2;
  ASSERT_EQ(3, API<T>::checkperiod(DEPTH, &c, 3, BIG, 0, false, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, &d2, nullptr));
  // The cycle point found from z = c is the one near c; follow it by Newton.
  auto cyclepoint = [](complexld cc) {
    complexld z = cc;
    for (int s = 0; s < 60; s++) {
      complexld w = z, m = 1;
      for (int k = 0; k < 3; k++) {
        m = 2.0L * w * m;
        w = w * w + cc;
      }
      z = z - (w - z) / (m - 1.0L);
    }
    return z;
  };
  long double h = 1e-7L;
  complexld fd = (cyclepoint(c0 + h) - cyclepoint(c0 - h)) / (2 * h);
  complexld got = ld<T>(d2);
  EXPECT_NEAR(static_cast<double>(fd.real()), static_cast<double>(got.real()),
              rel * static_cast<double>(std::abs(fd)));
  EXPECT_NEAR(static_cast<double>(fd.imag()), static_cast<double>(got.imag()),
              rel * static_cast<double>(std::abs(fd)));
}

// ---------------------------------------------------------------- known components

TYPED_TEST(Period, OriginHasPeriodOne) {
  typedef TypeParam T;
  typename T::COMPLEX c = cx<T>(0);
  EXPECT_EQ(1, API<T>::inftytest(DEPTH, &c, 1000, nullptr, nullptr, nullptr, nullptr, nullptr));
}

TYPED_TEST(Period, MinusOneHasPeriodTwo) {
  typedef TypeParam T;
  typename T::COMPLEX c = cx<T>(-1), d1;
  typename T::FLOAT d;
  EXPECT_EQ(2, API<T>::inftytest(DEPTH, &c, 1000, &d, nullptr, &d1, nullptr, nullptr));
  expectnear<T>(complexld(0, 0), d1);
  EXPECT_GT(ld<T>(d), 0.0L);
}

// Found by the angle search from the fixed point: multiplier angle near 1/3.
TYPED_TEST(Period, RabbitCentreHasPeriodThree) {
  typedef TypeParam T;
  typename T::COMPLEX c = cx<T>(RABBIT.real(), RABBIT.imag()), d1;
  EXPECT_EQ(3, API<T>::inftytest(DEPTH, &c, 1000, nullptr, nullptr, &d1, nullptr, nullptr));
  EXPECT_LT(std::abs(ld<T>(d1)), 1e-4L);  // a centre is superattracting
  // The conjugate bulb, by the angle search alone: the sign of the angle is kept.
  c = cx<T>(RABBIT.real(), -RABBIT.imag());
  EXPECT_EQ(3, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr, nullptr));
  c = cx<T>(RABBIT.real(), RABBIT.imag());
  EXPECT_EQ(3, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr, nullptr));
  // Off centre, still inside the bulb.
  c = cx<T>(RABBIT.real() + 0.01L, RABBIT.imag() - 0.01L);
  EXPECT_EQ(3, API<T>::inftytest(DEPTH, &c, 1000, nullptr, nullptr, nullptr, nullptr, nullptr));
}

// Not a satellite of the cardioid: found by the orbit's near-return.
TYPED_TEST(Period, AirplaneCentreHasPeriodThree) {
  typedef TypeParam T;
  typename T::COMPLEX c = cx<T>(AIRPLANE);
  EXPECT_EQ(0, API<T>::checkperiod(DEPTH, &c, 1, BIG, 25, false, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(3, API<T>::inftytest(DEPTH, &c, 1000, nullptr, nullptr, nullptr, nullptr, nullptr));
  c = cx<T>(AIRPLANE + 0.002L);
  EXPECT_EQ(3, API<T>::inftytest(DEPTH, &c, 1000, nullptr, nullptr, nullptr, nullptr, nullptr));
}

TYPED_TEST(Period, PointOutsideCardioidReportsNoCycle) {
  typedef TypeParam T;
  typename T::COMPLEX c = cx<T>(0.26L);
  ITER r = API<T>::inftytest(DEPTH, &c, 100000, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_LT(r, 0);  // it escapes, slowly, through the gap at the cusp
  EXPECT_GT(r, -200);
}

// ---------------------------------------------------------------- escape

TYPED_TEST(Period, EscapeGivesNegativeIteration) {
  typedef TypeParam T;
  // 1, 2, 5, 26, 677: |z|^2 > 4 first at z_2.
  typename T::COMPLEX c = cx<T>(1);
  typename T::FLOAT dj;
  EXPECT_EQ(-2, API<T>::inftytest(DEPTH, &c, 1000, nullptr, &dj, nullptr, nullptr, nullptr));
  expectnear<T>(complexld(5, 0), c);
  // sqrt(|z| log|z|^2 / 2 / |dz/dz0|): dz_2/dz_0 = 2 * 2 * 2 * 1 = 8.
  EXPECT_NEAR(std::sqrt(5 * std::log(25.0) * 0.5 / 8), static_cast<double>(ld<T>(dj)), 1e-4);
}

TYPED_TEST(Period, EscapeWithDistanceFollowsToLargeRadius) {
  typedef TypeParam T;
  typename T::COMPLEX c = cx<T>(1);
  typename T::FLOAT d, dj;
  EXPECT_EQ(-4, API<T>::inftytest(DEPTH, &c, 1000, &d, &dj, nullptr, nullptr, nullptr));
  expectnear<T>(complexld(677, 0), c);
  // p: 1, 3, 13, 131, 6813; v = |z| log|z|^2 / 2.
  double v = 677 * std::log(677.0 * 677.0) * 0.5;
  EXPECT_NEAR(v / 6813, static_cast<double>(ld<T>(d)), 1e-4);
  // m: 1, 2, 8, 80, 4160.
  EXPECT_NEAR(std::sqrt(v / 4160), static_cast<double>(ld<T>(dj)), 1e-4);
  // The true distance from 1 to the set is 0.75; the estimate is within 4.
  EXPECT_GT(ld<T>(d), 0.75L / 4);
  EXPECT_LT(ld<T>(d), 0.75L * 4);
}

TYPED_TEST(Period, MaxiterReachedWithoutDecisionIsZero) {
  typedef TypeParam T;
  // Escapes only after some 30 iterations.
  typename T::COMPLEX c = cx<T>(0.26L);
  EXPECT_EQ(0, API<T>::inftytest(DEPTH, &c, 5, nullptr, nullptr, nullptr, nullptr, nullptr));
}

}  // namespace

namespace {

// A point inside a component of period 80 in seahorse valley, as a canvas
// of depth 4 spreads a neighbour's period 72 to it: 72 is repelling there,
// and the angle search finds the bulb period 720 = 10 x 72, which is also
// 9 x 80.
CANVASTEMPLATE_double::COMPLEX seahorsepoint() {
  return {-0.98996466666666638 + 26.5 / 256, 0.010035333333333618 + 54.5 / 256};
}

}  // namespace

TEST(PeriodSpread, AngleSearchResultComesToTheLeastPeriod) {
  for (bool divisorcheck : {false, true}) {
    CANVASTEMPLATE_double::COMPLEX c = seahorsepoint();
    CANVASTEMPLATE_double::INFTYDATA data{};
    unsigned int flags = 0;
    ITER r = checkperiod_double(-8, &c, 72, 0x7FFFFFFF, 1, divisorcheck, &data, &flags, nullptr,
                                nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(r, divisorcheck ? 80 : 720) << divisorcheck;
  }
}
