// canvas/series.h: truncated power series with complex coefficients, written
// once over the number format and reachable by suffixed names
// (`multaylor_double`, `sqrtaylor2_hfloat`) like the rest of the canvas; and
// the same arithmetic on mpf coefficients, with the complex mpf helpers it
// rests on, for the environment's high-precision work.
//
// A series of order `prec` has `prec` coefficients, c[k] for x^k, and every
// operation truncates at that order: nothing is carried beyond it. A series
// in two variables is a square with row stride `lag` >= `prec`: x^i y^j sits
// at c[i * lag + j] for i, j < prec. Only those prec * prec coefficients are
// read or written; the tail of each row (j >= prec) and any row past prec
// belong to the caller and are never touched.
//
// Aliasing. The sums (`addtaylor`, `addtaylor2`, `addtaylorhp`) work
// coefficient by coefficient, so c may be c1, c2 or both. The products
// (`multaylor`, `multaylor2`, `sqrtaylor`, `sqrtaylor2`, `multaylorhp`) may
// write c over either input or both: a coefficient of a product depends only
// on coefficients at or below it (in both indices), so the products run from
// the top coefficient down and write each one once it is complete; whatever
// they still have to read lies below and is the inputs' own. That needs no
// scratch at all, and no bound on the order. The scalar products work in
// place when c is c1. The compositions (`inserttaylor`, `inserttaylor2`)
// overwrite c first: c must be neither f nor v.
//
// Nothing here allocates.
//
// Threads. Pure functions of their arguments; `radtest` without a scratch of
// its own uses one per thread.
#pragma once

#include <gmp.h>

#include "model.h"

namespace canvasseries {

// The model's number helpers, with the product and the doubling the series
// need besides.
template <typename FLOAT>
struct ARITH : canvasmodel::NUM<FLOAT> {
  typedef typename canvasmodel::NUM<FLOAT>::COMPLEX COMPLEX;
  static COMPLEX cmul(COMPLEX a, COMPLEX b) { return a * b; }
  static COMPLEX ctwice(COMPLEX a) { return a + a; }
  // a^2 + b^2 - r^2 < 0
  static bool inside(FLOAT a, FLOAT b, FLOAT r) { return a * a + b * b - r * r < 0; }
};

template <>
struct ARITH<HFLOAT> : canvasmodel::NUM<HFLOAT> {
  static COMPLEX cmul(COMPLEX a, COMPLEX b) { return cmulHF(a, b); }
  // Exact: only the shared exponent moves. A zero's exponent means nothing.
  static COMPLEX ctwice(COMPLEX a) { return cldexpHF(a, 1); }
  static bool inside(HFLOAT a, HFLOAT b, HFLOAT r) {
    return subHF(addHF(mulHF(a, a), mulHF(b, b)), mulHF(r, r)).mantissa < 0;
  }
};

// The 64-bit mpf scratch of `radtest` when the caller has none; made on a
// thread's first use and kept for the thread's life (series.cpp).
mpf_ptr radtestscratch();

// ---------------------------------------------------------------- one variable

template <typename T>
void addtaylor(typename T::COMPLEX* c, const typename T::COMPLEX* c1,
               const typename T::COMPLEX* c2, int prec) {
  typedef ARITH<typename T::FLOAT> A;
  for (int k = 0; k < prec; k++) c[k] = A::cadd(c1[k], c2[k]);
}

template <typename T>
void multaylor(typename T::COMPLEX* c, const typename T::COMPLEX* c1,
               const typename T::COMPLEX* c2, int prec) {
  typedef ARITH<typename T::FLOAT> A;
  typedef typename T::COMPLEX COMPLEX;
  for (int k = prec - 1; k >= 0; k--) {
    COMPLEX sum = A::cmul(c1[0], c2[k]);
    for (int i = 1; i <= k; i++) sum = A::cadd(sum, A::cmul(c1[i], c2[k - i]));
    c[k] = sum;
  }
}

// The plain product with itself, in every format: one loop to trust, and the
// alias c = c1 is multaylor's.
template <typename T>
void sqrtaylor(typename T::COMPLEX* c, const typename T::COMPLEX* c1, int prec) {
  multaylor<T>(c, c1, c1, prec);
}

template <typename T>
void multaylorconst(typename T::COMPLEX* c, const typename T::COMPLEX* c1,
                    typename T::COMPLEX c2, int prec) {
  typedef ARITH<typename T::FLOAT> A;
  for (int k = 0; k < prec; k++) c[k] = A::cmul(c1[k], c2);
}

// c = f(v) by Horner. With v(0) = 0 this is the truncated composition.
// Otherwise it is the polynomial of prec terms taken at v, to which the terms
// of f past prec would have added: near the composition only while v(0) is
// small. c must be neither f nor v.
template <typename T>
void inserttaylor(typename T::COMPLEX* c, const typename T::COMPLEX* f,
                  const typename T::COMPLEX* v, int prec) {
  typedef ARITH<typename T::FLOAT> A;
  if (prec <= 0) return;
  c[0] = f[prec - 1];
  for (int k = 1; k < prec; k++) c[k] = A::czero();
  for (int k = prec - 2; k >= 0; k--) {
    multaylor<T>(c, c, v, prec);
    c[0] = A::cadd(c[0], f[k]);
  }
}

// ---------------------------------------------------------------- two variables

template <typename T>
void addtaylor2(typename T::COMPLEX* c, const typename T::COMPLEX* c1,
                const typename T::COMPLEX* c2, int prec, int lag) {
  typedef ARITH<typename T::FLOAT> A;
  for (int i = 0; i < prec; i++)
    for (int j = 0; j < prec; j++) c[i * lag + j] = A::cadd(c1[i * lag + j], c2[i * lag + j]);
}

// Rows from the top down, each from its last column: (i, j) is written when
// everything left to compute lies in earlier rows, or in row i left of j, and
// reads nothing at (i, j).
template <typename T>
void multaylor2(typename T::COMPLEX* c, const typename T::COMPLEX* c1,
                const typename T::COMPLEX* c2, int prec, int lag) {
  typedef ARITH<typename T::FLOAT> A;
  typedef typename T::COMPLEX COMPLEX;
  for (int i = prec - 1; i >= 0; i--)
    for (int j = prec - 1; j >= 0; j--) {
      COMPLEX sum = A::czero();
      for (int p = 0; p <= i; p++)
        for (int q = 0; q <= j; q++)
          sum = A::cadd(sum, A::cmul(c1[p * lag + q], c2[(i - p) * lag + (j - q)]));
      c[i * lag + j] = sum;
    }
}

// The square of a series without constant term, as the environment's period
// series is: (0,0) of the result is set to 0 and not computed. Every other
// coefficient is the full square, constant term included. Within the
// rectangle [0..i] x [0..j], the factor at position n (row-major) pairs with
// the one at N - 1 - n, so the first half of the rectangle is taken twice
// and, when N is odd, its centre once. The order of writing is multaylor2's.
template <typename T>
void sqrtaylor2(typename T::COMPLEX* c, const typename T::COMPLEX* c1, int prec, int lag) {
  typedef ARITH<typename T::FLOAT> A;
  typedef typename T::COMPLEX COMPLEX;
  if (prec <= 0) return;
  for (int i = prec - 1; i >= 0; i--)
    for (int j = prec - 1; j >= (i == 0 ? 1 : 0); j--) {
      int w = j + 1;
      int n = (i + 1) * w;
      COMPLEX sum = A::czero();
      for (int m = 0; m < n / 2; m++) {
        int p = m / w, q = m % w;
        sum = A::cadd(sum, A::cmul(c1[p * lag + q], c1[(i - p) * lag + (j - q)]));
      }
      sum = A::ctwice(sum);
      if (n & 1) {
        const COMPLEX& mid = c1[(i / 2) * lag + j / 2];
        sum = A::cadd(sum, A::cmul(mid, mid));
      }
      c[i * lag + j] = sum;
    }
  c[0] = A::czero();
}

template <typename T>
void multaylor2const(typename T::COMPLEX* c, const typename T::COMPLEX* c1,
                     typename T::COMPLEX c2, int prec, int lag) {
  typedef ARITH<typename T::FLOAT> A;
  for (int i = 0; i < prec; i++)
    for (int j = 0; j < prec; j++) c[i * lag + j] = A::cmul(c1[i * lag + j], c2);
}

// c = f(v) with f a series in one variable of `prec` terms and v, c in two.
// c must be neither f nor v.
template <typename T>
void inserttaylor2(typename T::COMPLEX* c, const typename T::COMPLEX* f,
                   const typename T::COMPLEX* v, int prec, int lag) {
  typedef ARITH<typename T::FLOAT> A;
  if (prec <= 0) return;
  for (int i = 0; i < prec; i++)
    for (int j = 0; j < prec; j++) c[i * lag + j] = A::czero();
  c[0] = f[prec - 1];
  for (int k = prec - 2; k >= 0; k--) {
    multaylor2<T>(c, c, v, prec, lag);
    c[0] = A::cadd(c[0], f[k]);
  }
}

// ---------------------------------------------------------------- distance

// Is |m1 - m2| < r, for two mpf complex points? The difference is formed in
// mpf, at the precision of `dummysmall` (64 bits when it is null), and only
// then taken to the format, so that points far below the format's resolution
// but close to each other compare right.
template <typename T>
bool radtest(mpf_ptr dummysmall, const mpf_t* m1, const mpf_t* m2, typename T::FLOAT r) {
  typedef ARITH<typename T::FLOAT> A;
  mpf_ptr s = dummysmall != nullptr ? dummysmall : radtestscratch();
  mpf_sub(s, m1[0], m2[0]);
  typename T::FLOAT dx = A::frommpf(s);
  mpf_sub(s, m1[1], m2[1]);
  typename T::FLOAT dy = A::frommpf(s);
  return A::inside(dx, dy, r);
}

}  // namespace canvasseries

// ---------------------------------------------------------------- mpf series
//
// A pair mpf_t[2] is one complex number, real part first, as in CHPVALUE and
// HPVALUE; a series is an array of such pairs, `mpf_t (*)[2]`, owned by the
// caller. Results are rounded to the precision of their destination, and
// scratch `d` to its own: give every value one precision.

// Every pair c[0..prec-1] initialised to 0 with `precision` bits.
void inittaylorhp(mpf_t (*c)[2], int prec, mp_bitcnt_t precision);
void cleartaylorhp(mpf_t (*c)[2], int prec);
// c = c1 + c2; c may be either or both.
void addtaylorhp(mpf_t (*c)[2], const mpf_t (*c1)[2], const mpf_t (*c2)[2], int prec);
// c = c1 * c2 truncated; `d` four scratch values. c may be either or both:
// each coefficient is summed in d[0..1] and written once it is complete, from
// the top down, so the lower coefficients it reads are still the inputs'.
void multaylorhp(mpf_t (*c)[2], const mpf_t (*c1)[2], const mpf_t (*c2)[2], mpf_t* d, int prec);

// Complex helpers on pairs. Unless said otherwise, r may be an input.
void set(mpf_t* r, HFLOATCOMPLEX h);  // exact
void add(mpf_t* r, const mpf_t* a, const mpf_t* b);
void sub(mpf_t* r, const mpf_t* a, const mpf_t* b);
// r = a * b; d three scratch values.
void mul(mpf_t* r, const mpf_t* a, const mpf_t* b, mpf_t* d);
// r += a * b; d one scratch value. r must be neither a nor b.
void muladd(mpf_t* r, const mpf_t* a, const mpf_t* b, mpf_t* d);
// r = a / b; d four scratch values. False, and r unchanged, when b is 0.
bool divide(mpf_t* r, const mpf_t* a, const mpf_t* b, mpf_t* d);
// r = a / b with the divisor in HFLOAT, as a derivative of the series is;
// d four scratch values. False, and r unchanged, when b is 0.
bool divide2(mpf_t* r, const mpf_t* a, HFLOATCOMPLEX b, mpf_t* d);
// r = |a|^2; d one scratch value.
void norm(mpf_ptr r, const mpf_t* a, mpf_t* d);
// r = |a - b|^2; d two scratch values.
void norm2(mpf_ptr r, const mpf_t* a, const mpf_t* b, mpf_t* d);

// ---------------------------------------------------------------- the suffixed names

inline constexpr auto& addtaylor_float = canvasseries::addtaylor<CANVASTEMPLATE_float>;
inline constexpr auto& addtaylor_double = canvasseries::addtaylor<CANVASTEMPLATE_double>;
inline constexpr auto& addtaylor_longdouble = canvasseries::addtaylor<CANVASTEMPLATE_longdouble>;
inline constexpr auto& addtaylor_hfloat = canvasseries::addtaylor<CANVASTEMPLATE_hfloat>;

inline constexpr auto& addtaylor2_float = canvasseries::addtaylor2<CANVASTEMPLATE_float>;
inline constexpr auto& addtaylor2_double = canvasseries::addtaylor2<CANVASTEMPLATE_double>;
inline constexpr auto& addtaylor2_longdouble = canvasseries::addtaylor2<CANVASTEMPLATE_longdouble>;
inline constexpr auto& addtaylor2_hfloat = canvasseries::addtaylor2<CANVASTEMPLATE_hfloat>;

inline constexpr auto& multaylor_float = canvasseries::multaylor<CANVASTEMPLATE_float>;
inline constexpr auto& multaylor_double = canvasseries::multaylor<CANVASTEMPLATE_double>;
inline constexpr auto& multaylor_longdouble = canvasseries::multaylor<CANVASTEMPLATE_longdouble>;
inline constexpr auto& multaylor_hfloat = canvasseries::multaylor<CANVASTEMPLATE_hfloat>;

inline constexpr auto& multaylor2_float = canvasseries::multaylor2<CANVASTEMPLATE_float>;
inline constexpr auto& multaylor2_double = canvasseries::multaylor2<CANVASTEMPLATE_double>;
inline constexpr auto& multaylor2_longdouble = canvasseries::multaylor2<CANVASTEMPLATE_longdouble>;
inline constexpr auto& multaylor2_hfloat = canvasseries::multaylor2<CANVASTEMPLATE_hfloat>;

inline constexpr auto& sqrtaylor_float = canvasseries::sqrtaylor<CANVASTEMPLATE_float>;
inline constexpr auto& sqrtaylor_double = canvasseries::sqrtaylor<CANVASTEMPLATE_double>;
inline constexpr auto& sqrtaylor_longdouble = canvasseries::sqrtaylor<CANVASTEMPLATE_longdouble>;
inline constexpr auto& sqrtaylor_hfloat = canvasseries::sqrtaylor<CANVASTEMPLATE_hfloat>;

inline constexpr auto& sqrtaylor2_float = canvasseries::sqrtaylor2<CANVASTEMPLATE_float>;
inline constexpr auto& sqrtaylor2_double = canvasseries::sqrtaylor2<CANVASTEMPLATE_double>;
inline constexpr auto& sqrtaylor2_longdouble = canvasseries::sqrtaylor2<CANVASTEMPLATE_longdouble>;
inline constexpr auto& sqrtaylor2_hfloat = canvasseries::sqrtaylor2<CANVASTEMPLATE_hfloat>;

inline constexpr auto& multaylorconst_float = canvasseries::multaylorconst<CANVASTEMPLATE_float>;
inline constexpr auto& multaylorconst_double = canvasseries::multaylorconst<CANVASTEMPLATE_double>;
inline constexpr auto& multaylorconst_longdouble = canvasseries::multaylorconst<CANVASTEMPLATE_longdouble>;
inline constexpr auto& multaylorconst_hfloat = canvasseries::multaylorconst<CANVASTEMPLATE_hfloat>;

inline constexpr auto& multaylor2const_float = canvasseries::multaylor2const<CANVASTEMPLATE_float>;
inline constexpr auto& multaylor2const_double = canvasseries::multaylor2const<CANVASTEMPLATE_double>;
inline constexpr auto& multaylor2const_longdouble = canvasseries::multaylor2const<CANVASTEMPLATE_longdouble>;
inline constexpr auto& multaylor2const_hfloat = canvasseries::multaylor2const<CANVASTEMPLATE_hfloat>;

inline constexpr auto& inserttaylor_float = canvasseries::inserttaylor<CANVASTEMPLATE_float>;
inline constexpr auto& inserttaylor_double = canvasseries::inserttaylor<CANVASTEMPLATE_double>;
inline constexpr auto& inserttaylor_longdouble = canvasseries::inserttaylor<CANVASTEMPLATE_longdouble>;
inline constexpr auto& inserttaylor_hfloat = canvasseries::inserttaylor<CANVASTEMPLATE_hfloat>;

inline constexpr auto& inserttaylor2_float = canvasseries::inserttaylor2<CANVASTEMPLATE_float>;
inline constexpr auto& inserttaylor2_double = canvasseries::inserttaylor2<CANVASTEMPLATE_double>;
inline constexpr auto& inserttaylor2_longdouble = canvasseries::inserttaylor2<CANVASTEMPLATE_longdouble>;
inline constexpr auto& inserttaylor2_hfloat = canvasseries::inserttaylor2<CANVASTEMPLATE_hfloat>;

inline constexpr auto& radtest_float = canvasseries::radtest<CANVASTEMPLATE_float>;
inline constexpr auto& radtest_double = canvasseries::radtest<CANVASTEMPLATE_double>;
inline constexpr auto& radtest_longdouble = canvasseries::radtest<CANVASTEMPLATE_longdouble>;
inline constexpr auto& radtest_hfloat = canvasseries::radtest<CANVASTEMPLATE_hfloat>;
