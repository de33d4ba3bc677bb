// Truncated power series: every operation in each number format against a
// schoolbook reference in mpf at 1024 bits, on random series with fixed
// seeds; aliased arguments where they are allowed; the tails of two-variable
// rows left as they were; orders 1, the canvas's cubic (4) and the
// environment's largest (49 flat, 7 by 7 square). Then the mpf series and
// their complex helpers, and `radtest`.
//
// Error bounds. Each result is compared with the exact value over a bound
// computed by the same reference on the moduli of the inputs (|re| + |im|),
// so cancellation never makes a tolerance meaningless: for n terms summed the
// error may be 8 (n + 2) units of the format's last place times that bound.
#include <gmp.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "canvas/series.h"

namespace {

constexpr mp_bitcnt_t REFBITS = 1024;

// ---------------------------------------------------------------- reference numbers

struct BIG {
  mpf_t re, im;
  BIG() {
    mpf_init2(re, REFBITS);
    mpf_init2(im, REFBITS);
  }
  BIG(const BIG& o) : BIG() { *this = o; }
  BIG& operator=(const BIG& o) {
    mpf_set(re, o.re);
    mpf_set(im, o.im);
    return *this;
  }
  ~BIG() {
    mpf_clear(re);
    mpf_clear(im);
  }
};

typedef std::vector<BIG> BIGS;

// Exact: a long double has 64 mantissa bits.
void ld2mpf(mpf_ptr r, long double x) {
  if (x == 0) {
    mpf_set_ui(r, 0);
    return;
  }
  int e;
  long double f = std::frexp(x, &e);
  mpf_set_si(r, static_cast<long>(std::ldexp(f, 63)));
  long s = static_cast<long>(e) - 63;
  if (s >= 0) mpf_mul_2exp(r, r, static_cast<mp_bitcnt_t>(s));
  else mpf_div_2exp(r, r, static_cast<mp_bitcnt_t>(-s));
}

void bigmul(BIG& r, const BIG& a, const BIG& b) {
  mpf_t t;
  mpf_init2(t, REFBITS);
  BIG s;
  mpf_mul(s.re, a.re, b.re);
  mpf_mul(t, a.im, b.im);
  mpf_sub(s.re, s.re, t);
  mpf_mul(s.im, a.re, b.im);
  mpf_mul(t, a.im, b.re);
  mpf_add(s.im, s.im, t);
  r = s;
  mpf_clear(t);
}

void bigadd(BIG& r, const BIG& a, const BIG& b) {
  mpf_add(r.re, a.re, b.re);
  mpf_add(r.im, a.im, b.im);
}

// |re| + |im| as a real BIG: products and sums of these bound the moduli.
BIG mag(const BIG& a) {
  BIG m;
  mpf_abs(m.re, a.re);
  mpf_t t;
  mpf_init2(t, REFBITS);
  mpf_abs(t, a.im);
  mpf_add(m.re, m.re, t);
  mpf_clear(t);
  mpf_set_ui(m.im, 0);
  return m;
}

BIGS mags(const BIGS& a) {
  BIGS m;
  for (const BIG& x : a) m.push_back(mag(x));
  return m;
}

BIGS refmul(const BIGS& a, const BIGS& b, int prec) {
  BIGS r(prec);
  BIG t;
  for (int k = 0; k < prec; k++)
    for (int i = 0; i <= k; i++) {
      bigmul(t, a[i], b[k - i]);
      bigadd(r[k], r[k], t);
    }
  return r;
}

// Packed squares, stride prec.
BIGS refmul2(const BIGS& a, const BIGS& b, int prec) {
  BIGS r(prec * prec);
  BIG t;
  for (int i = 0; i < prec; i++)
    for (int j = 0; j < prec; j++)
      for (int p = 0; p <= i; p++)
        for (int q = 0; q <= j; q++) {
          bigmul(t, a[p * prec + q], b[(i - p) * prec + (j - q)]);
          bigadd(r[i * prec + j], r[i * prec + j], t);
        }
  return r;
}

// f(v) as the sum of f_k v^k with the powers by repeated products: not the
// Horner order of the operation.
template <typename MUL>
BIGS refcompose(const BIGS& f, const BIGS& v, int prec, int n, MUL mul) {
  BIGS r(n), power(n);
  mpf_set_ui(power[0].re, 1);
  BIG t;
  for (int k = 0; k < prec; k++) {
    for (int m = 0; m < n; m++) {
      bigmul(t, power[m], f[k]);
      bigadd(r[m], r[m], t);
    }
    power = mul(power, v);
  }
  return r;
}

// |got - want| (as |re| + |im|) <= tol * bound.
::testing::AssertionResult within(const BIG& got, const BIG& want, const BIG& bound, double tol) {
  BIG d;
  mpf_sub(d.re, got.re, want.re);
  mpf_sub(d.im, got.im, want.im);
  BIG e = mag(d);
  mpf_t limit;
  mpf_init2(limit, REFBITS);
  mpf_set_d(limit, tol);
  mpf_mul(limit, limit, bound.re);
  bool ok = mpf_cmp(e.re, limit) <= 0;
  mpf_clear(limit);
  if (ok) return ::testing::AssertionSuccess();
  long ee, eb;
  double me = mpf_get_d_2exp(&ee, e.re);
  double mb = mpf_get_d_2exp(&eb, bound.re);
  return ::testing::AssertionFailure() << "error " << me << "*2^" << ee << " over bound " << mb
                                       << "*2^" << eb << " with tolerance " << tol;
}

// ---------------------------------------------------------------- formats

template <typename T>
struct FMT {
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  static constexpr bool H = std::is_same_v<FLOAT, HFLOAT>;

  // One unit in the last place, relative.
  static double ulp() {
    if constexpr (H) return std::ldexp(1.0, -61);
    else return static_cast<double>(std::numeric_limits<FLOAT>::epsilon());
  }

  static HFLOAT randhf(std::mt19937_64& g, int32_t e, int shift) {
    HFLOATBASE m = static_cast<HFLOATBASE>((g() >> 3) | (1ull << 61)) >> shift;
    return HFLOAT{(g() & 1) ? -m : m, e};
  }

  // Hardware: parts in (-1, 1) over a few binades. HFLOAT: exponents spread
  // around `base` far outside long double's range, falling with k as a
  // convergent series does, the smaller part anywhere below the larger.
  static COMPLEX random(std::mt19937_64& g, int k, int32_t base) {
    if constexpr (H) {
      int32_t e = base - 3000 * k + static_cast<int32_t>(g() % 41) - 20;
      int shift = static_cast<int>(g() % 12);
      HFLOAT a = randhf(g, e, 0), b = randhf(g, e, shift);
      return (g() & 1) ? cHF(a, b) : cHF(b, a);
    } else {
      int s = static_cast<int>(g() % 6);
      long double x = std::ldexp(static_cast<long double>(static_cast<int64_t>(g())), -63 - s);
      long double y = std::ldexp(static_cast<long double>(static_cast<int64_t>(g())), -63 - s);
      return COMPLEX(static_cast<FLOAT>(x), static_cast<FLOAT>(y));
    }
  }

  // A value no product of the inputs comes near: reading it shows.
  static COMPLEX huge() {
    if constexpr (H) return HFLOATCOMPLEX{HFLOATBASE(1) << 61, -(HFLOATBASE(1) << 60), 1000000};
    else return COMPLEX(static_cast<FLOAT>(1e30), static_cast<FLOAT>(-1e30));
  }

  static COMPLEX fromld(long double x, long double y) {
    if constexpr (H) return cHFld(complexld(x, y));
    else return COMPLEX(static_cast<FLOAT>(x), static_cast<FLOAT>(y));
  }

  static bool same(const COMPLEX& a, const COMPLEX& b) {
    if constexpr (H)
      return a.mantissax == b.mantissax && a.mantissay == b.mantissay && a.exponent == b.exponent;
    else return a.real() == b.real() && a.imag() == b.imag();
  }

  static BIG big(const COMPLEX& z) {
    BIG r;
    if constexpr (H) {
      mpf_set_HFexact(r.re, crealHF(z));
      mpf_set_HFexact(r.im, cimagHF(z));
    } else {
      ld2mpf(r.re, z.real());
      ld2mpf(r.im, z.imag());
    }
    return r;
  }
};

template <typename T>
using COMPLEXOF = typename T::COMPLEX;

constexpr unsigned char UNTOUCHED = 0xA5;

template <typename C>
void poison(std::vector<C>& v) {
  std::memset(static_cast<void*>(v.data()), UNTOUCHED, v.size() * sizeof(C));
}

template <typename C>
bool poisoned(const C& x) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(&x);
  for (size_t i = 0; i < sizeof(C); i++)
    if (p[i] != UNTOUCHED) return false;
  return true;
}

// ---------------------------------------------------------------- series makers

template <typename T>
struct SERIES {
  typedef FMT<T> F;
  typedef COMPLEXOF<T> COMPLEX;

  // One variable, prec terms.
  static std::vector<COMPLEX> one(std::mt19937_64& g, int prec, int32_t base) {
    std::vector<COMPLEX> s(prec);
    for (int k = 0; k < prec; k++) s[k] = F::random(g, k, base);
    return s;
  }

  // Two variables in a lag x lag buffer; the tails hold `huge`.
  static std::vector<COMPLEX> two(std::mt19937_64& g, int prec, int lag, int32_t base) {
    std::vector<COMPLEX> s(lag * lag, F::huge());
    for (int i = 0; i < prec; i++)
      for (int j = 0; j < prec; j++) s[i * lag + j] = F::random(g, i + j, base);
    return s;
  }

  static BIGS big(const std::vector<COMPLEX>& s, int n) {
    BIGS b;
    for (int k = 0; k < n; k++) b.push_back(F::big(s[k]));
    return b;
  }

  static BIGS big2(const std::vector<COMPLEX>& s, int prec, int lag) {
    BIGS b;
    for (int i = 0; i < prec; i++)
      for (int j = 0; j < prec; j++) b.push_back(F::big(s[i * lag + j]));
    return b;
  }

  static void expectone(const std::vector<COMPLEX>& got, const BIGS& want, const BIGS& bound,
                        int prec, double tol, const char* what) {
    for (int k = 0; k < prec; k++)
      EXPECT_TRUE(within(F::big(got[k]), want[k], bound[k], tol))
          << what << " prec " << prec << " coefficient " << k;
  }

  static void expecttwo(const std::vector<COMPLEX>& got, const BIGS& want, const BIGS& bound,
                        int prec, int lag, double tol, const char* what) {
    for (int i = 0; i < prec; i++)
      for (int j = 0; j < prec; j++)
        EXPECT_TRUE(within(F::big(got[i * lag + j]), want[i * prec + j], bound[i * prec + j], tol))
            << what << " prec " << prec << " lag " << lag << " at (" << i << "," << j << ")";
  }

  // Outside the prec x prec square: still poisoned (a fresh output) ...
  static void expectpoisontails(const std::vector<COMPLEX>& c, int prec, int lag, const char* what) {
    for (int i = 0; i < lag; i++)
      for (int j = 0; j < lag; j++)
        if (i >= prec || j >= prec) {
          EXPECT_TRUE(poisoned(c[i * lag + j]))
              << what << " wrote (" << i << "," << j << ") at prec " << prec << " lag " << lag;
        }
  }

  // ... or still `huge` (an output that was an input).
  static void expecthugetails(const std::vector<COMPLEX>& c, int prec, int lag, const char* what) {
    for (int i = 0; i < lag; i++)
      for (int j = 0; j < lag; j++)
        if (i >= prec || j >= prec) {
          EXPECT_TRUE(F::same(c[i * lag + j], F::huge()))
              << what << " wrote (" << i << "," << j << ") at prec " << prec << " lag " << lag;
        }
  }
};

double tolerance(double ulp, int terms) { return 8.0 * (terms + 2) * ulp; }

constexpr int ORDERS1[] = {1, 2, 4, 49};
struct SHAPE {
  int prec, lag;
};
constexpr SHAPE SHAPES2[] = {{1, 1}, {1, 3}, {4, 4}, {4, 7}, {7, 7}, {7, 9}};

// ---------------------------------------------------------------- typed suites

typedef ::testing::Types<CANVASTEMPLATE_float, CANVASTEMPLATE_double, CANVASTEMPLATE_longdouble,
                         CANVASTEMPLATE_hfloat>
    FORMATS;

class FORMATNAMES {
 public:
  template <typename T>
  static std::string GetName(int) {
    if constexpr (std::is_same_v<T, CANVASTEMPLATE_float>) return "float";
    else if constexpr (std::is_same_v<T, CANVASTEMPLATE_double>) return "double";
    else if constexpr (std::is_same_v<T, CANVASTEMPLATE_longdouble>) return "longdouble";
    else return "hfloat";
  }
};

template <typename T>
class Series : public ::testing::Test {};
TYPED_TEST_SUITE(Series, FORMATS, FORMATNAMES);

template <typename T>
class SeriesEdge : public ::testing::Test {};
TYPED_TEST_SUITE(SeriesEdge, FORMATS, FORMATNAMES);

// ---------------------------------------------------------------- edge cases

// Every operation at order 0 with null series: nothing may be read or
// written. Then multaylorconst on a real buffer, which must keep every byte.
TYPED_TEST(SeriesEdge, PrecZeroDoesNothing) {
  typedef TypeParam T;
  typedef COMPLEXOF<T> COMPLEX;
  typedef FMT<T> F;
  COMPLEX* n = nullptr;
  COMPLEX one = F::fromld(1, 0);
  canvasseries::addtaylor<T>(n, n, n, 0);
  canvasseries::addtaylor2<T>(n, n, n, 0, 7);
  canvasseries::multaylor<T>(n, n, n, 0);
  canvasseries::multaylor2<T>(n, n, n, 0, 7);
  canvasseries::sqrtaylor<T>(n, n, 0);
  canvasseries::sqrtaylor2<T>(n, n, 0, 7);
  canvasseries::multaylorconst<T>(n, n, one, 0);
  canvasseries::multaylor2const<T>(n, n, one, 0, 7);
  canvasseries::inserttaylor<T>(n, n, n, 0);
  canvasseries::inserttaylor2<T>(n, n, n, 0, 7);

  std::mt19937_64 g(11);
  std::vector<COMPLEX> c(8), c1 = SERIES<T>::one(g, 8, 40);
  poison(c);
  canvasseries::multaylorconst<T>(c.data(), c1.data(), one, 0);
  for (int k = 0; k < 8; k++) EXPECT_TRUE(poisoned(c[k])) << k;
  // In place, too: c1 keeps its values.
  std::vector<COMPLEX> keep = c1;
  canvasseries::multaylorconst<T>(c1.data(), c1.data(), F::fromld(3, -2), 0);
  for (int k = 0; k < 8; k++) EXPECT_TRUE(F::same(c1[k], keep[k])) << k;
}

TYPED_TEST(SeriesEdge, MultaylorFullAliasGivesSquare) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  std::mt19937_64 g(12);
  for (int prec : ORDERS1) {
    auto c = S::one(g, prec, 300);
    BIGS a = S::big(c, prec);
    canvasseries::multaylor<T>(c.data(), c.data(), c.data(), prec);
    S::expectone(c, refmul(a, a, prec), refmul(mags(a), mags(a), prec), prec,
                 tolerance(FMT<T>::ulp(), prec), "c = c * c");
  }
}

TYPED_TEST(SeriesEdge, Addtaylor2TouchesOnlyPrecColumns) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  std::mt19937_64 g(13);
  for (SHAPE sh : SHAPES2) {
    auto c1 = S::two(g, sh.prec, sh.lag, 0), c2 = S::two(g, sh.prec, sh.lag, 0);
    std::vector<COMPLEXOF<T>> c(sh.lag * sh.lag);
    poison(c);
    canvasseries::addtaylor2<T>(c.data(), c1.data(), c2.data(), sh.prec, sh.lag);
    S::expectpoisontails(c, sh.prec, sh.lag, "addtaylor2");
    // And the square itself was written.
    for (int i = 0; i < sh.prec; i++)
      for (int j = 0; j < sh.prec; j++) EXPECT_FALSE(poisoned(c[i * sh.lag + j]));
  }
}

// ---------------------------------------------------------------- one variable

TYPED_TEST(Series, Addtaylor) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  std::mt19937_64 g(21);
  for (int prec : ORDERS1) {
    auto c1 = S::one(g, prec, 100), c2 = S::one(g, prec, 100);
    BIGS a = S::big(c1, prec), b = S::big(c2, prec), want(prec), bound(prec);
    BIGS ma = mags(a), mb = mags(b);
    for (int k = 0; k < prec; k++) {
      bigadd(want[k], a[k], b[k]);
      bigadd(bound[k], ma[k], mb[k]);
    }
    double tol = tolerance(FMT<T>::ulp(), 1);
    std::vector<COMPLEXOF<T>> c(prec);
    canvasseries::addtaylor<T>(c.data(), c1.data(), c2.data(), prec);
    S::expectone(c, want, bound, prec, tol, "c = c1 + c2");
    auto x = c1;
    canvasseries::addtaylor<T>(x.data(), x.data(), c2.data(), prec);
    S::expectone(x, want, bound, prec, tol, "c1 = c1 + c2");
    auto y = c2;
    canvasseries::addtaylor<T>(y.data(), c1.data(), y.data(), prec);
    S::expectone(y, want, bound, prec, tol, "c2 = c1 + c2");
  }
}

TYPED_TEST(Series, Multaylor) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  std::mt19937_64 g(22);
  for (int prec : ORDERS1) {
    auto c1 = S::one(g, prec, -5000), c2 = S::one(g, prec, 7000);
    BIGS a = S::big(c1, prec), b = S::big(c2, prec);
    BIGS want = refmul(a, b, prec), bound = refmul(mags(a), mags(b), prec);
    double tol = tolerance(FMT<T>::ulp(), prec);
    std::vector<COMPLEXOF<T>> c(prec);
    canvasseries::multaylor<T>(c.data(), c1.data(), c2.data(), prec);
    S::expectone(c, want, bound, prec, tol, "c = c1 * c2");
    auto x = c1;
    canvasseries::multaylor<T>(x.data(), x.data(), c2.data(), prec);
    S::expectone(x, want, bound, prec, tol, "c1 = c1 * c2");
    auto y = c2;
    canvasseries::multaylor<T>(y.data(), c1.data(), y.data(), prec);
    S::expectone(y, want, bound, prec, tol, "c2 = c1 * c2");
  }
}

// Truncation: a longer buffer keeps everything past prec, and coefficients
// past prec of the inputs are not read.
TYPED_TEST(Series, MultaylorTruncatesAtPrec) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  typedef FMT<T> F;
  std::mt19937_64 g(23);
  const int prec = 4, n = 8;
  auto c1 = S::one(g, n, 0), c2 = S::one(g, n, 0);
  for (int k = prec; k < n; k++) c1[k] = c2[k] = F::huge();
  std::vector<COMPLEXOF<T>> c(n);
  poison(c);
  canvasseries::multaylor<T>(c.data(), c1.data(), c2.data(), prec);
  BIGS a = S::big(c1, prec), b = S::big(c2, prec);
  S::expectone(c, refmul(a, b, prec), refmul(mags(a), mags(b), prec), prec,
               tolerance(F::ulp(), prec), "truncated");
  for (int k = prec; k < n; k++) EXPECT_TRUE(poisoned(c[k])) << k;
}

TYPED_TEST(Series, Sqrtaylor) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  std::mt19937_64 g(24);
  for (int prec : ORDERS1) {
    auto c1 = S::one(g, prec, -20000);
    BIGS a = S::big(c1, prec);
    BIGS want = refmul(a, a, prec), bound = refmul(mags(a), mags(a), prec);
    double tol = tolerance(FMT<T>::ulp(), prec);
    std::vector<COMPLEXOF<T>> c(prec);
    canvasseries::sqrtaylor<T>(c.data(), c1.data(), prec);
    S::expectone(c, want, bound, prec, tol, "c = c1^2");
    canvasseries::sqrtaylor<T>(c1.data(), c1.data(), prec);
    S::expectone(c1, want, bound, prec, tol, "c1 = c1^2");
  }
}

TYPED_TEST(Series, Multaylorconst) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  typedef FMT<T> F;
  std::mt19937_64 g(25);
  for (int prec : ORDERS1) {
    auto c1 = S::one(g, prec, 900);
    COMPLEXOF<T> s = F::random(g, 0, -900);
    BIGS a = S::big(c1, prec), want(prec), bound(prec);
    BIG bs = F::big(s), ms = mag(bs);
    for (int k = 0; k < prec; k++) {
      bigmul(want[k], a[k], bs);
      bigmul(bound[k], mag(a[k]), ms);
    }
    double tol = tolerance(F::ulp(), 1);
    std::vector<COMPLEXOF<T>> c(prec);
    canvasseries::multaylorconst<T>(c.data(), c1.data(), s, prec);
    S::expectone(c, want, bound, prec, tol, "c = c1 * s");
    canvasseries::multaylorconst<T>(c1.data(), c1.data(), s, prec);
    S::expectone(c1, want, bound, prec, tol, "c1 = c1 * s");
  }
}

// v without a constant term, and with a small one (then the truncated
// composition is what is meant: the same sum of truncated powers).
TYPED_TEST(Series, Inserttaylor) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  typedef FMT<T> F;
  std::mt19937_64 g(26);
  for (int prec : ORDERS1) {
    for (int withconstant = 0; withconstant < 2; withconstant++) {
      auto f = S::one(g, prec, 0), v = S::one(g, prec, -40);
      if (withconstant) v[0] = F::fromld(0.001L, -0.002L);
      else v[0] = F::fromld(0, 0);
      BIGS bf = S::big(f, prec), bv = S::big(v, prec);
      auto mul = [prec](const BIGS& x, const BIGS& y) { return refmul(x, y, prec); };
      BIGS want = refcompose(bf, bv, prec, prec, mul);
      BIGS bound = refcompose(mags(bf), mags(bv), prec, prec, mul);
      std::vector<COMPLEXOF<T>> c(prec + 3);
      poison(c);
      canvasseries::inserttaylor<T>(c.data(), f.data(), v.data(), prec);
      S::expectone(c, want, bound, prec, tolerance(F::ulp(), prec) * prec,
                   withconstant ? "f(v), v(0) small" : "f(v)");
      for (int k = prec; k < prec + 3; k++) EXPECT_TRUE(poisoned(c[k])) << k;
    }
  }
}

// Order 2 by hand: f = 1 + 2x, v = 3x gives 1 + 6x; order 3 with
// f = x^2, v = x + x^2 gives x^2 (x^3 is cut).
TYPED_TEST(Series, InserttaylorSmallExact) {
  typedef TypeParam T;
  typedef FMT<T> F;
  COMPLEXOF<T> f[2] = {F::fromld(1, 0), F::fromld(2, 0)}, v[2] = {F::fromld(0, 0), F::fromld(3, 0)};
  COMPLEXOF<T> c[2];
  canvasseries::inserttaylor<T>(c, f, v, 2);
  EXPECT_TRUE(within(F::big(c[0]), F::big(F::fromld(1, 0)), F::big(F::fromld(1, 0)), 0));
  EXPECT_TRUE(within(F::big(c[1]), F::big(F::fromld(6, 0)), F::big(F::fromld(1, 0)), 0));
  COMPLEXOF<T> f3[3] = {F::fromld(0, 0), F::fromld(0, 0), F::fromld(1, 0)};
  COMPLEXOF<T> v3[3] = {F::fromld(0, 0), F::fromld(1, 0), F::fromld(1, 0)};
  COMPLEXOF<T> c3[3];
  canvasseries::inserttaylor<T>(c3, f3, v3, 3);
  EXPECT_TRUE(within(F::big(c3[0]), F::big(F::fromld(0, 0)), F::big(F::fromld(1, 0)), 0));
  EXPECT_TRUE(within(F::big(c3[1]), F::big(F::fromld(0, 0)), F::big(F::fromld(1, 0)), 0));
  EXPECT_TRUE(within(F::big(c3[2]), F::big(F::fromld(1, 0)), F::big(F::fromld(1, 0)), 0));
}

// ---------------------------------------------------------------- two variables

TYPED_TEST(Series, Addtaylor2) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  std::mt19937_64 g(31);
  for (SHAPE sh : SHAPES2) {
    int prec = sh.prec, lag = sh.lag;
    auto c1 = S::two(g, prec, lag, 0), c2 = S::two(g, prec, lag, 0);
    BIGS a = S::big2(c1, prec, lag), b = S::big2(c2, prec, lag);
    BIGS ma = mags(a), mb = mags(b), want(prec * prec), bound(prec * prec);
    for (int k = 0; k < prec * prec; k++) {
      bigadd(want[k], a[k], b[k]);
      bigadd(bound[k], ma[k], mb[k]);
    }
    double tol = tolerance(FMT<T>::ulp(), 1);
    std::vector<COMPLEXOF<T>> c(lag * lag);
    poison(c);
    canvasseries::addtaylor2<T>(c.data(), c1.data(), c2.data(), prec, lag);
    S::expecttwo(c, want, bound, prec, lag, tol, "c = c1 + c2");
    auto x = c1;
    canvasseries::addtaylor2<T>(x.data(), x.data(), c2.data(), prec, lag);
    S::expecttwo(x, want, bound, prec, lag, tol, "c1 = c1 + c2");
    S::expecthugetails(x, prec, lag, "c1 = c1 + c2");
    auto y = c2;
    canvasseries::addtaylor2<T>(y.data(), c1.data(), y.data(), prec, lag);
    S::expecttwo(y, want, bound, prec, lag, tol, "c2 = c1 + c2");
    S::expecthugetails(y, prec, lag, "c2 = c1 + c2");
  }
}

TYPED_TEST(Series, Multaylor2) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  std::mt19937_64 g(32);
  for (SHAPE sh : SHAPES2) {
    int prec = sh.prec, lag = sh.lag;
    auto c1 = S::two(g, prec, lag, 11000), c2 = S::two(g, prec, lag, -3000);
    BIGS a = S::big2(c1, prec, lag), b = S::big2(c2, prec, lag);
    BIGS want = refmul2(a, b, prec), bound = refmul2(mags(a), mags(b), prec);
    double tol = tolerance(FMT<T>::ulp(), prec * prec);
    std::vector<COMPLEXOF<T>> c(lag * lag);
    poison(c);
    canvasseries::multaylor2<T>(c.data(), c1.data(), c2.data(), prec, lag);
    S::expecttwo(c, want, bound, prec, lag, tol, "c = c1 * c2");
    S::expectpoisontails(c, prec, lag, "c = c1 * c2");
    auto x = c1;
    canvasseries::multaylor2<T>(x.data(), x.data(), c2.data(), prec, lag);
    S::expecttwo(x, want, bound, prec, lag, tol, "c1 = c1 * c2");
    S::expecthugetails(x, prec, lag, "c1 = c1 * c2");
    auto y = c2;
    canvasseries::multaylor2<T>(y.data(), c1.data(), y.data(), prec, lag);
    S::expecttwo(y, want, bound, prec, lag, tol, "c2 = c1 * c2");
    S::expecthugetails(y, prec, lag, "c2 = c1 * c2");
    auto z = c1;
    BIGS want2 = refmul2(a, a, prec), bound2 = refmul2(mags(a), mags(a), prec);
    canvasseries::multaylor2<T>(z.data(), z.data(), z.data(), prec, lag);
    S::expecttwo(z, want2, bound2, prec, lag, tol, "c1 = c1 * c1");
    S::expecthugetails(z, prec, lag, "c1 = c1 * c1");
  }
}

// Without a constant term the result is the full square, (0,0) being 0
// anyway. With one, (0,0) is still 0 and everything else the full square.
TYPED_TEST(Series, Sqrtaylor2) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  typedef FMT<T> F;
  std::mt19937_64 g(33);
  for (SHAPE sh : SHAPES2) {
    int prec = sh.prec, lag = sh.lag;
    for (int withconstant = 0; withconstant < 2; withconstant++) {
      auto c1 = S::two(g, prec, lag, -777);
      if (!withconstant) c1[0] = F::fromld(0, 0);
      BIGS a = S::big2(c1, prec, lag);
      BIGS want = refmul2(a, a, prec), bound = refmul2(mags(a), mags(a), prec);
      mpf_set_ui(want[0].re, 0);
      mpf_set_ui(want[0].im, 0);
      double tol = tolerance(F::ulp(), prec * prec);
      std::vector<COMPLEXOF<T>> c(lag * lag);
      poison(c);
      canvasseries::sqrtaylor2<T>(c.data(), c1.data(), prec, lag);
      S::expecttwo(c, want, bound, prec, lag, tol, withconstant ? "c1^2, c1(0,0) != 0" : "c1^2");
      S::expectpoisontails(c, prec, lag, "c = c1^2");
      BIG zero;
      EXPECT_TRUE(within(F::big(c[0]), zero, zero, 0)) << "(0,0) is 0";
      canvasseries::sqrtaylor2<T>(c1.data(), c1.data(), prec, lag);
      S::expecttwo(c1, want, bound, prec, lag, tol, "c1 = c1^2");
      S::expecthugetails(c1, prec, lag, "c1 = c1^2");
    }
  }
}

TYPED_TEST(Series, Multaylor2const) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  typedef FMT<T> F;
  std::mt19937_64 g(34);
  for (SHAPE sh : SHAPES2) {
    int prec = sh.prec, lag = sh.lag;
    auto c1 = S::two(g, prec, lag, 50);
    COMPLEXOF<T> s = F::random(g, 0, 60);
    BIGS a = S::big2(c1, prec, lag), want(prec * prec), bound(prec * prec);
    BIG bs = F::big(s), ms = mag(bs);
    for (int k = 0; k < prec * prec; k++) {
      bigmul(want[k], a[k], bs);
      bigmul(bound[k], mag(a[k]), ms);
    }
    double tol = tolerance(F::ulp(), 1);
    std::vector<COMPLEXOF<T>> c(lag * lag);
    poison(c);
    canvasseries::multaylor2const<T>(c.data(), c1.data(), s, prec, lag);
    S::expecttwo(c, want, bound, prec, lag, tol, "c = c1 * s");
    S::expectpoisontails(c, prec, lag, "c = c1 * s");
    canvasseries::multaylor2const<T>(c1.data(), c1.data(), s, prec, lag);
    S::expecttwo(c1, want, bound, prec, lag, tol, "c1 = c1 * s");
    S::expecthugetails(c1, prec, lag, "c1 = c1 * s");
  }
}

TYPED_TEST(Series, Inserttaylor2) {
  typedef TypeParam T;
  typedef SERIES<T> S;
  typedef FMT<T> F;
  std::mt19937_64 g(35);
  for (SHAPE sh : SHAPES2) {
    int prec = sh.prec, lag = sh.lag;
    auto f = S::one(g, prec, 0);
    auto v = S::two(g, prec, lag, -30);
    v[0] = F::fromld(0, 0);
    BIGS bf = S::big(f, prec), bv = S::big2(v, prec, lag);
    auto mul = [prec](const BIGS& x, const BIGS& y) { return refmul2(x, y, prec); };
    BIGS want = refcompose(bf, bv, prec, prec * prec, mul);
    BIGS bound = refcompose(mags(bf), mags(bv), prec, prec * prec, mul);
    std::vector<COMPLEXOF<T>> c(lag * lag);
    poison(c);
    canvasseries::inserttaylor2<T>(c.data(), f.data(), v.data(), prec, lag);
    S::expecttwo(c, want, bound, prec, lag, tolerance(F::ulp(), prec * prec) * prec, "f(v)");
    S::expectpoisontails(c, prec, lag, "f(v)");
  }
}

// ---------------------------------------------------------------- radtest

// m2 = m1 + (3, 4) 2^s: at distance 5 2^s. On the circle is outside.
TYPED_TEST(Series, Radtest) {
  typedef TypeParam T;
  typedef typename T::FLOAT FLOAT;
  typedef FMT<T> F;
  // Down to what the format's squares still hold.
  std::vector<int> scales = {0, -20, -60};
  if constexpr (std::is_same_v<FLOAT, double>) scales.push_back(-500);
  if constexpr (std::is_same_v<FLOAT, long double>) scales.push_back(-8000);
  if constexpr (F::H) scales.push_back(-100000);
  for (int s : scales) {
    mp_bitcnt_t bits = static_cast<mp_bitcnt_t>(-s) + 256;
    mpf_t m1[2], m2[2], small;
    for (int i = 0; i < 2; i++) {
      mpf_init2(m1[i], bits);
      mpf_init2(m2[i], bits);
    }
    mpf_init2(small, 64);
    mpf_set_d(m1[0], -0.7431);
    mpf_set_d(m1[1], 0.1313);
    for (int i = 0; i < 2; i++) {
      mpf_set_ui(m2[i], i == 0 ? 3 : 4);
      if (s < 0) mpf_div_2exp(m2[i], m2[i], static_cast<mp_bitcnt_t>(-s));
      mpf_add(m2[i], m2[i], m1[i]);
    }
    auto radius = [&](long double f) -> FLOAT {
      if constexpr (F::H) return ldexpHF(HFld(f), s);
      else return static_cast<FLOAT>(std::ldexp(f, s));
    };
    for (mpf_ptr scratch : {static_cast<mpf_ptr>(small), static_cast<mpf_ptr>(nullptr)}) {
      EXPECT_TRUE(canvasseries::radtest<T>(scratch, m1, m2, radius(5.01L))) << s;
      EXPECT_TRUE(canvasseries::radtest<T>(scratch, m2, m1, radius(5.01L))) << s;
      EXPECT_FALSE(canvasseries::radtest<T>(scratch, m1, m2, radius(4.99L))) << s;
      EXPECT_FALSE(canvasseries::radtest<T>(scratch, m1, m2, radius(5))) << s;
      EXPECT_TRUE(canvasseries::radtest<T>(scratch, m1, m1, radius(1e-3L))) << s;
      EXPECT_FALSE(canvasseries::radtest<T>(scratch, m1, m1, radius(0))) << s;
    }
    for (int i = 0; i < 2; i++) {
      mpf_clear(m1[i]);
      mpf_clear(m2[i]);
    }
    mpf_clear(small);
  }
}

// ---------------------------------------------------------------- orders and names

// Products run in place without scratch, so no order is too long: well past
// anything the engine uses, squares in place against the reference.
TEST(SeriesOrder, LongSeriesHaveNoOrderBound) {
  typedef CANVASTEMPLATE_double T;
  typedef SERIES<T> S;
  std::mt19937_64 g(51);
  const int prec = 150;
  auto c = S::one(g, prec, 0);
  BIGS a = S::big(c, prec);
  canvasseries::multaylor<T>(c.data(), c.data(), c.data(), prec);
  S::expectone(c, refmul(a, a, prec), refmul(mags(a), mags(a), prec), prec,
               tolerance(FMT<T>::ulp(), prec), "order 150");
  const int prec2 = 20, lag = 23;
  auto c2 = S::two(g, prec2, lag, 0);
  BIGS a2 = S::big2(c2, prec2, lag);
  BIGS want = refmul2(a2, a2, prec2), bound = refmul2(mags(a2), mags(a2), prec2);
  auto d2 = c2;
  canvasseries::multaylor2<T>(c2.data(), c2.data(), c2.data(), prec2, lag);
  S::expecttwo(c2, want, bound, prec2, lag, tolerance(FMT<T>::ulp(), prec2 * prec2), "20 x 20");
  S::expecthugetails(c2, prec2, lag, "20 x 20");
  mpf_set_ui(want[0].re, 0);
  mpf_set_ui(want[0].im, 0);
  canvasseries::sqrtaylor2<T>(d2.data(), d2.data(), prec2, lag);
  S::expecttwo(d2, want, bound, prec2, lag, tolerance(FMT<T>::ulp(), prec2 * prec2), "20 x 20 sqr");
  S::expecthugetails(d2, prec2, lag, "20 x 20 sqr");
}

TEST(SeriesNames, SuffixedNamesAreTheInstantiations) {
  EXPECT_EQ(&multaylor_float, &canvasseries::multaylor<CANVASTEMPLATE_float>);
  EXPECT_EQ(&multaylor_double, &canvasseries::multaylor<CANVASTEMPLATE_double>);
  EXPECT_EQ(&multaylor_longdouble, &canvasseries::multaylor<CANVASTEMPLATE_longdouble>);
  EXPECT_EQ(&multaylor_hfloat, &canvasseries::multaylor<CANVASTEMPLATE_hfloat>);
  EXPECT_EQ(&addtaylor_hfloat, &canvasseries::addtaylor<CANVASTEMPLATE_hfloat>);
  EXPECT_EQ(&addtaylor2_double, &canvasseries::addtaylor2<CANVASTEMPLATE_double>);
  EXPECT_EQ(&multaylor2_longdouble, &canvasseries::multaylor2<CANVASTEMPLATE_longdouble>);
  EXPECT_EQ(&sqrtaylor_float, &canvasseries::sqrtaylor<CANVASTEMPLATE_float>);
  EXPECT_EQ(&sqrtaylor2_hfloat, &canvasseries::sqrtaylor2<CANVASTEMPLATE_hfloat>);
  EXPECT_EQ(&multaylorconst_double, &canvasseries::multaylorconst<CANVASTEMPLATE_double>);
  EXPECT_EQ(&multaylor2const_hfloat, &canvasseries::multaylor2const<CANVASTEMPLATE_hfloat>);
  EXPECT_EQ(&inserttaylor_longdouble, &canvasseries::inserttaylor<CANVASTEMPLATE_longdouble>);
  EXPECT_EQ(&inserttaylor2_float, &canvasseries::inserttaylor2<CANVASTEMPLATE_float>);
  EXPECT_EQ(&radtest_hfloat, &canvasseries::radtest<CANVASTEMPLATE_hfloat>);
  // Through a name, the format's own types.
  HFLOATCOMPLEX a[2] = {CZEROH, CONEH}, c[2];
  multaylor_hfloat(c, a, a, 2);
  EXPECT_EQ(c[0].mantissax, 0);
  EXPECT_EQ(c[1].mantissax, 0);
}

// ---------------------------------------------------------------- mpf series

constexpr mp_bitcnt_t HPBITS = 256;

struct HPSERIES {
  int prec;
  mpf_t (*c)[2];
  HPSERIES(int n, mp_bitcnt_t bits) : prec(n), c(new mpf_t[n][2]) { inittaylorhp(c, prec, bits); }
  ~HPSERIES() {
    cleartaylorhp(c, prec);
    delete[] c;
  }
  HPSERIES(const HPSERIES&) = delete;
  HPSERIES& operator=(const HPSERIES&) = delete;
  // Parts in [-1/2, 1/2) falling by 2^-decay per power.
  void random(gmp_randstate_t r, int decay) {
    mpf_t half;
    mpf_init2(half, 64);
    mpf_set_d(half, 0.5);
    for (int k = 0; k < prec; k++)
      for (int p = 0; p < 2; p++) {
        mpf_urandomb(c[k][p], r, HPBITS);
        mpf_sub(c[k][p], c[k][p], half);
        mpf_div_2exp(c[k][p], c[k][p], static_cast<mp_bitcnt_t>(decay * k));
      }
    mpf_clear(half);
  }
  BIGS big() const {
    BIGS b(prec);
    for (int k = 0; k < prec; k++) {
      mpf_set(b[k].re, c[k][0]);
      mpf_set(b[k].im, c[k][1]);
    }
    return b;
  }
};

struct SCRATCH {
  mpf_t d[4];
  explicit SCRATCH(mp_bitcnt_t bits) {
    for (auto& x : d) mpf_init2(x, bits);
  }
  ~SCRATCH() {
    for (auto& x : d) mpf_clear(x);
  }
};

BIG bigof(const mpf_t* p) {
  BIG b;
  mpf_set(b.re, p[0]);
  mpf_set(b.im, p[1]);
  return b;
}

double hptol(int terms) { return 8.0 * (terms + 2) * std::ldexp(1.0, -static_cast<int>(HPBITS)); }

TEST(SeriesHp, InitGivesZerosOfThePrecision) {
  HPSERIES s(5, 1000);
  for (int k = 0; k < 5; k++)
    for (int p = 0; p < 2; p++) {
      EXPECT_GE(mpf_get_prec(s.c[k][p]), 1000u);
      EXPECT_EQ(mpf_sgn(s.c[k][p]), 0);
    }
  inittaylorhp(nullptr, 0, 64);
  cleartaylorhp(nullptr, 0);
}

TEST(SeriesHp, Addtaylorhp) {
  gmp_randstate_t r;
  gmp_randinit_mt(r);
  gmp_randseed_ui(r, 41);
  for (int prec : ORDERS1) {
    HPSERIES a(prec, HPBITS), b(prec, HPBITS), c(prec, HPBITS);
    a.random(r, 10);
    b.random(r, 10);
    BIGS ba = a.big(), bb = b.big(), want(prec), bound(prec);
    BIGS ma = mags(ba), mb = mags(bb);
    for (int k = 0; k < prec; k++) {
      bigadd(want[k], ba[k], bb[k]);
      bigadd(bound[k], ma[k], mb[k]);
    }
    addtaylorhp(c.c, a.c, b.c, prec);
    for (int k = 0; k < prec; k++) EXPECT_TRUE(within(bigof(c.c[k]), want[k], bound[k], hptol(1)));
    addtaylorhp(a.c, a.c, b.c, prec);
    for (int k = 0; k < prec; k++) EXPECT_TRUE(within(bigof(a.c[k]), want[k], bound[k], hptol(1)));
  }
  gmp_randclear(r);
}

TEST(SeriesHp, Multaylorhp) {
  gmp_randstate_t r;
  gmp_randinit_mt(r);
  gmp_randseed_ui(r, 42);
  SCRATCH d(HPBITS);
  for (int prec : ORDERS1) {
    for (int alias = 0; alias < 4; alias++) {
      HPSERIES a(prec, HPBITS), b(prec, HPBITS), c(prec, HPBITS);
      a.random(r, 7);
      b.random(r, 3);
      BIGS ba = a.big(), bb = alias == 3 ? a.big() : b.big();
      BIGS want = refmul(ba, bb, prec), bound = refmul(mags(ba), mags(bb), prec);
      HPSERIES* out = &c;
      if (alias == 0) multaylorhp(c.c, a.c, b.c, d.d, prec);
      if (alias == 1) multaylorhp((out = &a)->c, a.c, b.c, d.d, prec);
      if (alias == 2) multaylorhp((out = &b)->c, a.c, b.c, d.d, prec);
      if (alias == 3) multaylorhp((out = &a)->c, a.c, a.c, d.d, prec);
      for (int k = 0; k < prec; k++)
        EXPECT_TRUE(within(bigof(out->c[k]), want[k], bound[k], hptol(prec)))
            << "alias " << alias << " prec " << prec << " k " << k;
    }
  }
  // Order 0 leaves c and the scratch alone.
  HPSERIES c(1, HPBITS);
  mpf_set_ui(c.c[0][0], 7);
  mpf_set_ui(d.d[0], 9);
  multaylorhp(c.c, c.c, c.c, d.d, 0);
  EXPECT_EQ(mpf_cmp_ui(c.c[0][0], 7), 0);
  EXPECT_EQ(mpf_cmp_ui(d.d[0], 9), 0);
  gmp_randclear(r);
}

// ---------------------------------------------------------------- complex mpf helpers

struct PAIR {
  mpf_t v[2];
  explicit PAIR(double re = 0, double im = 0, mp_bitcnt_t bits = HPBITS) {
    mpf_init2(v[0], bits);
    mpf_init2(v[1], bits);
    mpf_set_d(v[0], re);
    mpf_set_d(v[1], im);
  }
  ~PAIR() {
    mpf_clear(v[0]);
    mpf_clear(v[1]);
  }
};

bool equals(const PAIR& p, double re, double im) {
  return mpf_cmp_d(p.v[0], re) == 0 && mpf_cmp_d(p.v[1], im) == 0;
}

TEST(SeriesHp, AddSubMulMuladdOnSmallIntegers) {
  SCRATCH d(HPBITS);
  PAIR a(3, -2), b(5, 7), r;
  add(r.v, a.v, b.v);
  EXPECT_TRUE(equals(r, 8, 5));
  sub(r.v, a.v, b.v);
  EXPECT_TRUE(equals(r, -2, -9));
  mul(r.v, a.v, b.v, d.d);  // (3 - 2i)(5 + 7i) = 29 + 11i
  EXPECT_TRUE(equals(r, 29, 11));
  mul(a.v, a.v, a.v, d.d);  // (3 - 2i)^2 = 5 - 12i, in place
  EXPECT_TRUE(equals(a, 5, -12));
  PAIR acc(1, 1), x(0, 1);
  muladd(acc.v, x.v, x.v, d.d);  // 1 + i + i^2
  EXPECT_TRUE(equals(acc, 0, 1));
  muladd(acc.v, b.v, x.v, d.d);  // + (5 + 7i) i = -7 + 5i
  EXPECT_TRUE(equals(acc, -7, 6));
}

TEST(SeriesHp, NormAndNorm2) {
  SCRATCH d(HPBITS);
  PAIR a(3, -4), b(6, 0);
  mpf_t r;
  mpf_init2(r, HPBITS);
  norm(r, a.v, d.d);
  EXPECT_EQ(mpf_cmp_ui(r, 25), 0);
  norm2(r, a.v, b.v, d.d);  // |(-3, -4)|^2
  EXPECT_EQ(mpf_cmp_ui(r, 25), 0);
  norm(a.v[0], a.v, d.d);  // into a part of its own input
  EXPECT_EQ(mpf_cmp_ui(a.v[0], 25), 0);
  mpf_clear(r);
}

TEST(SeriesHp, DivideAndItsZeroDivisor) {
  SCRATCH d(HPBITS);
  PAIR a(29, 11), b(5, 7), r(123, 456), zero;
  EXPECT_TRUE(divide(r.v, a.v, b.v, d.d));
  EXPECT_TRUE(equals(r, 3, -2));
  EXPECT_FALSE(divide(r.v, a.v, zero.v, d.d));
  EXPECT_TRUE(equals(r, 3, -2));
  EXPECT_TRUE(divide(a.v, a.v, b.v, d.d));  // in place
  EXPECT_TRUE(equals(a, 3, -2));
  // A quotient that does not terminate: (1 + 0i) / (0 + 3i) = -i/3 to the
  // precision, checked by multiplying back.
  PAIR one(1, 0), three(0, 3), q, back;
  ASSERT_TRUE(divide(q.v, one.v, three.v, d.d));
  mul(back.v, q.v, three.v, d.d);
  BIG want, bound;
  mpf_set_ui(want.re, 1);
  mpf_set_ui(bound.re, 1);
  EXPECT_TRUE(within(bigof(back.v), want, bound, hptol(4)));
}

TEST(SeriesHp, Divide2ByAnHfloatDivisor) {
  SCRATCH d(HPBITS);
  PAIR a(29, 11), r(1, 1);
  HFLOATCOMPLEX b = cHFld(complexld(5, 7));
  EXPECT_TRUE(divide2(r.v, a.v, b, d.d));
  BIG want, bound;
  mpf_set_si(want.re, 3);
  mpf_set_si(want.im, -2);
  mpf_set_ui(bound.re, 5);
  EXPECT_TRUE(within(bigof(r.v), want, bound, hptol(6)));
  EXPECT_FALSE(divide2(r.v, a.v, CZEROH, d.d));
  EXPECT_TRUE(within(bigof(r.v), want, bound, hptol(6)));  // unchanged
  EXPECT_TRUE(divide2(a.v, a.v, b, d.d));                   // in place
  EXPECT_TRUE(within(bigof(a.v), want, bound, hptol(6)));
  // A divisor far below double's range: 1 / 2^-5000 = 2^5000.
  PAIR one(1, 0, 6000);
  SCRATCH dd(6000);
  PAIR big(0, 0, 6000);
  HFLOATCOMPLEX tiny = {HFLOATBASE(1) << 61, 0, -4999};
  ASSERT_TRUE(divide2(big.v, one.v, tiny, dd.d));
  mpf_t p;
  mpf_init2(p, 64);
  mpf_set_ui(p, 1);
  mpf_mul_2exp(p, p, 5000);
  EXPECT_EQ(mpf_cmp(big.v[0], p), 0);
  EXPECT_EQ(mpf_sgn(big.v[1]), 0);
  mpf_clear(p);
}

// Every one of the 62 mantissa bits, and exponents past long double's.
TEST(SeriesHp, SetFromHfloatIsExact) {
  PAIR r(0, 0, 128);
  HFLOATCOMPLEX h = {0x3123456789ABCDEF, -0x0FEDCBA987654321, 40};
  set(r.v, h);
  mpf_t x;
  mpf_init2(x, 128);
  ld2mpf(x, std::ldexp(static_cast<long double>(h.mantissax), 40 - 62));
  EXPECT_EQ(mpf_cmp(r.v[0], x), 0);
  ld2mpf(x, std::ldexp(static_cast<long double>(h.mantissay), 40 - 62));
  EXPECT_EQ(mpf_cmp(r.v[1], x), 0);
  HFLOATCOMPLEX far = {0x3123456789ABCDEF, 0, -200000};
  set(r.v, far);
  mpf_mul_2exp(r.v[0], r.v[0], 200000 + 62);
  mpf_set_si(x, far.mantissax);
  EXPECT_EQ(mpf_cmp(r.v[0], x), 0);
  EXPECT_EQ(mpf_sgn(r.v[1]), 0);
  mpf_clear(x);
}

}  // namespace
