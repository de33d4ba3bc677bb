// mathext.h: HFLOAT, the engine's wide-exponent number, its complex form, the
// bridges to GMP's mpf and long double, and their text forms.
//
// An HFLOAT is a signed 64-bit mantissa and a signed 32-bit exponent, worth
// mantissa * 2^(exponent - 62). A non-zero value is normal when
// 2^61 <= |mantissa| <= 2^62 - 1. An HFLOATCOMPLEX shares one exponent between
// its parts; only the larger part is normal, the other is whatever alignment
// left of it. Zero is decided by the mantissa alone: the exponent of a zero
// means nothing.
//
// Every arithmetic operation is a pure inline on values, integer-only (64 by
// 64 to 128-bit products), truncating toward minus infinity and so
// deterministic to the last bit. There is no NaN and no infinity: results
// saturate at HFLOAT_MAX or underflow to zero. Only the conversions and the
// logarithms go through hardware floating point. All of it is safe from any
// thread; nothing allocates but the text forms that return a JSTR.
#pragma once

#include <gmp.h>

#include <climits>
#include <cmath>
#include <complex>
#include <cstdint>

struct JSTR;

typedef int64_t HFLOATBASE;

struct HFLOAT {
  HFLOATBASE mantissa;
  int32_t exponent;
};

struct HFLOATCOMPLEX {
  HFLOATBASE mantissax;
  HFLOATBASE mantissay;
  int32_t exponent;
};

typedef std::complex<float> complexf;
typedef std::complex<double> complexd;
typedef std::complex<long double> complexld;

// Orbit samples of a reference point, in the wide and in the hardware format.
struct REFDATAH {
  HFLOATCOMPLEX value;
  HFLOAT a;
};

struct REFDATAD {
  complexd value;
  double a;
};

// Exponents past this bound are not produced by the multiplicative operations.
constexpr int32_t HFLOAT_EXPMAX = 0x2000000;
constexpr HFLOATBASE HFLOAT_MANTMAX = 0x3FFFFFFFFFFFFFFF;

constexpr HFLOAT ZEROH = {0, 0};
constexpr HFLOAT ONEH = {0x2000000000000000, 1};
constexpr HFLOAT TWOH = {0x2000000000000000, 2};
constexpr HFLOAT FOURH = {0x2000000000000000, 3};
constexpr HFLOAT HFLOAT_MAX = {HFLOAT_MANTMAX, HFLOAT_EXPMAX};
constexpr HFLOATCOMPLEX CZEROH = {0, 0, 0};
constexpr HFLOATCOMPLEX CONEH = {0x2000000000000000, 0, 1};
constexpr HFLOATCOMPLEX CTWOH = {0x2000000000000000, 0, 2};
constexpr HFLOATCOMPLEX CFOURH = {0x2000000000000000, 0, 3};
constexpr HFLOATCOMPLEX CHFLOAT_MAX = {HFLOAT_MANTMAX, HFLOAT_MANTMAX, HFLOAT_EXPMAX};

// ---------------------------------------------------------------- normal form
//
// The two range tests, each one unsigned comparison.

namespace hfloat_detail {

typedef __int128 WIDE;

// |m| >= 2^62, or m == -2^62 (which would fit but counts as too large).
inline bool toolarge(HFLOATBASE m) {
  return static_cast<uint64_t>(m) + 0x3FFFFFFFFFFFFFFFull > 0x7FFFFFFFFFFFFFFEull;
}

// |m| < 2^61, zero included.
inline bool toosmall(HFLOATBASE m) {
  return static_cast<uint64_t>(m) + 0x1FFFFFFFFFFFFFFFull <= 0x3FFFFFFFFFFFFFFEull;
}

// How many doublings bring a too-small non-zero mantissa to normal: its top
// significant bit must reach bit 61. Doubling one step at a time gives the
// same bits; counting the steps at once keeps the code straight-line.
inline int doublings(HFLOATBASE m) {
  uint64_t a = m < 0 ? 0 - static_cast<uint64_t>(m) : static_cast<uint64_t>(m);
  return __builtin_clzll(a) - 2;
}

inline HFLOATBASE shl(HFLOATBASE m, int k) {
  return static_cast<HFLOATBASE>(static_cast<uint64_t>(m) << k);
}

inline HFLOAT normalize(HFLOATBASE m, int32_t e) {
  if (m != 0) {
    if (toolarge(m)) {
      m >>= 1;
      e += 1;
    } else if (toosmall(m)) {
      int k = doublings(m);
      m = shl(m, k);
      e -= k;
    }
  }
  return HFLOAT{m, e};
}

// Doubles both parts while both are too small, as one shift.
inline HFLOATCOMPLEX growcomplex(HFLOATBASE x, HFLOATBASE y, int32_t e) {
  if (toosmall(x) && toosmall(y) && (x != 0 || y != 0)) {
    int kx = x != 0 ? doublings(x) : 64;
    int ky = y != 0 ? doublings(y) : 64;
    int k = kx < ky ? kx : ky;
    x = shl(x, k);
    y = shl(y, k);
    e -= k;
  }
  return HFLOATCOMPLEX{x, y, e};
}

inline HFLOATCOMPLEX normalizecomplex(HFLOATBASE x, HFLOATBASE y, int32_t e) {
  if (x == 0 && y == 0) return HFLOATCOMPLEX{x, y, e};
  if (toolarge(x) || toolarge(y)) return HFLOATCOMPLEX{x >> 1, y >> 1, e + 1};
  return growcomplex(x, y, e);
}

// Arithmetic right shift of a wide product, kept in 64 bits.
inline HFLOATBASE narrow(WIDE w, int shift) { return static_cast<HFLOATBASE>(w >> shift); }

inline HFLOATBASE shr(HFLOATBASE m, int d) { return m >> d; }

}  // namespace hfloat_detail

// ---------------------------------------------------------------- real

inline HFLOAT addHF(HFLOAT a, HFLOAT b) {
  using namespace hfloat_detail;
  if (a.mantissa == 0) return b;
  if (b.mantissa == 0) return a;
  int64_t d = static_cast<int64_t>(a.exponent) - b.exponent;
  if (d < 0) {
    if (-d > 63) return b;
    return normalize(shr(a.mantissa, static_cast<int>(-d)) + b.mantissa, b.exponent);
  }
  if (d > 63) return a;
  return normalize(a.mantissa + shr(b.mantissa, static_cast<int>(d)), a.exponent);
}

inline HFLOAT subHF(HFLOAT a, HFLOAT b) {
  using namespace hfloat_detail;
  if (a.mantissa == 0) return HFLOAT{-b.mantissa, b.exponent};
  if (b.mantissa == 0) return a;
  int64_t d = static_cast<int64_t>(a.exponent) - b.exponent;
  if (d > 63) return a;
  if (d < 0) {
    if (-d >= 64) return normalize(-b.mantissa, b.exponent);
    return normalize(shr(a.mantissa, static_cast<int>(-d)) - b.mantissa, b.exponent);
  }
  return normalize(a.mantissa - shr(b.mantissa, static_cast<int>(d)), a.exponent);
}

inline HFLOAT mulHF(HFLOAT a, HFLOAT b) {
  using namespace hfloat_detail;
  int64_t e = static_cast<int64_t>(a.exponent) + b.exponent;
  if (e < -HFLOAT_EXPMAX) return ZEROH;
  if (e > HFLOAT_EXPMAX) return HFLOAT_MAX;  // the sign is lost at the bound, on purpose
  HFLOATBASE m = narrow(static_cast<WIDE>(a.mantissa) * b.mantissa, 62);
  int32_t ei = static_cast<int32_t>(e);
  if (m != 0 && toosmall(m)) {
    int k = doublings(m);
    m = shl(m, k);
    ei -= k;
  }
  return HFLOAT{m, ei};
}

inline HFLOAT divHF(HFLOAT a, HFLOAT b) {
  using namespace hfloat_detail;
  if (b.mantissa == 0) return HFLOAT_MAX;
  int64_t e = static_cast<int64_t>(a.exponent) - b.exponent;
  if (e < -HFLOAT_EXPMAX) return ZEROH;
  if (e > HFLOAT_EXPMAX) return HFLOAT_MAX;
  WIDE q = (static_cast<WIDE>(a.mantissa) << 62) / b.mantissa;
  return normalize(static_cast<HFLOATBASE>(q), static_cast<int32_t>(e));
}

inline HFLOAT ldexpHF(HFLOAT a, int32_t e) { return HFLOAT{a.mantissa, a.exponent + e}; }

// a < b, from the sign of the difference.
inline bool lessHF(HFLOAT a, HFLOAT b) { return subHF(a, b).mantissa < 0; }

inline HFLOAT frexpHF(HFLOAT m, int32_t* e) {
  HFLOAT n = hfloat_detail::normalize(m.mantissa, m.exponent);
  *e = n.exponent;
  return HFLOAT{n.mantissa, 0};
}

inline double dHF(HFLOAT a) {
  if (a.mantissa == 0) return 0.0;
  return std::ldexp(static_cast<double>(a.mantissa), a.exponent - 62);
}

inline long double dlHF(HFLOAT a) {
  if (a.mantissa == 0) return 0.0L;
  return std::scalbn(static_cast<long double>(a.mantissa), a.exponent - 62);
}

inline HFLOAT HFd(double d) {
  int e;
  double f = std::frexp(d, &e);
  if (f == 0.0) return ZEROH;
  return HFLOAT{static_cast<HFLOATBASE>(f * 4611686018427387904.0), e};
}

inline HFLOAT HFld(long double d) {
  int e;
  long double f = std::frexp(d, &e);
  if (f == 0.0L) return ZEROH;
  return HFLOAT{static_cast<HFLOATBASE>(f * 4611686018427387904.0L), e};
}

// Square root through double: the result carries 53 significant bits. The low
// bit of the exponent stays under the root and the rest is halved.
inline HFLOAT sqrtHF(HFLOAT a) {
  double v = std::sqrt(std::ldexp(static_cast<double>(a.mantissa), (a.exponent & 1) - 62));
  int fe;
  double f = std::frexp(v, &fe);
  return HFLOAT{static_cast<HFLOATBASE>(f * 4611686018427387904.0), (a.exponent >> 1) + fe};
}

inline HFLOAT logHF(HFLOAT a) {
  if (a.mantissa == 0) return HFLOAT_MAX;
  return HFd((a.exponent - 62) * 0.6931471805599453 + std::log(static_cast<double>(a.mantissa)));
}

inline double log2HF(HFLOAT a) {
  return (a.exponent - 62) + std::log2(static_cast<double>(a.mantissa));
}

inline int ilogbHF(HFLOAT a) {
  if (a.mantissa == 0) return FP_ILOGB0;
  return std::ilogb(static_cast<double>(a.mantissa)) + a.exponent - 62;
}

// ---------------------------------------------------------------- complex

inline HFLOAT crealHF(HFLOATCOMPLEX p) { return HFLOAT{p.mantissax, p.exponent}; }
inline HFLOAT cimagHF(HFLOATCOMPLEX p) { return HFLOAT{p.mantissay, p.exponent}; }

// Aligns two parts on the larger exponent; the result is normal when the
// larger part was.
inline HFLOATCOMPLEX cHF(HFLOAT x, HFLOAT y) {
  if (x.mantissa == 0) return HFLOATCOMPLEX{0, y.mantissa, y.exponent};
  if (y.mantissa == 0) return HFLOATCOMPLEX{x.mantissa, 0, x.exponent};
  int64_t d = static_cast<int64_t>(x.exponent) - y.exponent;
  if (d >= 0) {
    HFLOATBASE my = d >= 64 ? 0 : (y.mantissa >> d);
    return HFLOATCOMPLEX{x.mantissa, my, x.exponent};
  }
  HFLOATBASE mx = -d >= 64 ? 0 : (x.mantissa >> -d);
  return HFLOATCOMPLEX{mx, y.mantissa, y.exponent};
}

inline HFLOATCOMPLEX caddHF(HFLOATCOMPLEX p, HFLOATCOMPLEX q) {
  using namespace hfloat_detail;
  if (p.mantissax == 0 && p.mantissay == 0) return q;
  if (q.mantissax == 0 && q.mantissay == 0) return p;
  int64_t d = static_cast<int64_t>(p.exponent) - q.exponent;
  if (d > 63) return p;
  if (d < -63) return q;
  if (d >= 0) {
    int s = static_cast<int>(d);
    return normalizecomplex(p.mantissax + shr(q.mantissax, s), p.mantissay + shr(q.mantissay, s),
                            p.exponent);
  }
  int s = static_cast<int>(-d);
  return normalizecomplex(shr(p.mantissax, s) + q.mantissax, shr(p.mantissay, s) + q.mantissay,
                          q.exponent);
}

inline HFLOATCOMPLEX caddHF2(HFLOATCOMPLEX p, HFLOAT b) {
  return caddHF(p, HFLOATCOMPLEX{b.mantissa, 0, b.exponent});
}

inline HFLOATCOMPLEX csubHF(HFLOATCOMPLEX p, HFLOATCOMPLEX q) {
  using namespace hfloat_detail;
  if (p.mantissax == 0 && p.mantissay == 0)
    return HFLOATCOMPLEX{-q.mantissax, -q.mantissay, q.exponent};
  if (q.mantissax == 0 && q.mantissay == 0) return p;
  int64_t d = static_cast<int64_t>(p.exponent) - q.exponent;
  if (d > 63) return p;
  if (d < -63) return HFLOATCOMPLEX{-q.mantissax, -q.mantissay, q.exponent};
  if (d >= 0) {
    int s = static_cast<int>(d);
    return normalizecomplex(p.mantissax - shr(q.mantissax, s), p.mantissay - shr(q.mantissay, s),
                            p.exponent);
  }
  int s = static_cast<int>(-d);
  return normalizecomplex(shr(p.mantissax, s) - q.mantissax, shr(p.mantissay, s) - q.mantissay,
                          q.exponent);
}

inline HFLOATCOMPLEX cmulHF(HFLOATCOMPLEX p, HFLOATCOMPLEX q) {
  using namespace hfloat_detail;
  int64_t e = static_cast<int64_t>(p.exponent) + q.exponent;
  if (e < -HFLOAT_EXPMAX) return CZEROH;
  if (e > HFLOAT_EXPMAX) return CHFLOAT_MAX;
  WIDE px = p.mantissax, py = p.mantissay, qx = q.mantissax, qy = q.mantissay;
  return normalizecomplex(narrow(px * qx - py * qy, 62), narrow(py * qx + px * qy, 62),
                          static_cast<int32_t>(e));
}

inline HFLOATCOMPLEX cmulHF2(HFLOATCOMPLEX p, HFLOAT b) {
  using namespace hfloat_detail;
  int64_t e = static_cast<int64_t>(p.exponent) + b.exponent;
  if (e < -HFLOAT_EXPMAX) return CZEROH;
  if (e > HFLOAT_EXPMAX) return CHFLOAT_MAX;
  WIDE m = b.mantissa;
  return growcomplex(narrow(p.mantissax * m, 62), narrow(p.mantissay * m, 62),
                     static_cast<int32_t>(e));
}

inline HFLOATCOMPLEX csqrHF(HFLOATCOMPLEX p) {
  using namespace hfloat_detail;
  int64_t e = 2 * static_cast<int64_t>(p.exponent);
  if (e < -HFLOAT_EXPMAX) return CZEROH;
  if (e > HFLOAT_EXPMAX) return CHFLOAT_MAX;
  WIDE px = p.mantissax, py = p.mantissay;
  // The product shifted by 61, not 62, supplies the factor two of 2xy.
  return normalizecomplex(narrow(px * px - py * py, 62), narrow(px * py, 61),
                          static_cast<int32_t>(e));
}

// The square of p, and |p|^2 into len, sharing the products.
inline HFLOATCOMPLEX csqrlenHF(HFLOATCOMPLEX p, HFLOAT* len) {
  using namespace hfloat_detail;
  int64_t e = 2 * static_cast<int64_t>(p.exponent);
  if (e < -HFLOAT_EXPMAX) {
    *len = ZEROH;
    return CZEROH;
  }
  if (e > HFLOAT_EXPMAX) {
    *len = HFLOAT_MAX;
    return CHFLOAT_MAX;
  }
  WIDE px = p.mantissax, py = p.mantissay;
  WIDE xx = px * px, yy = py * py;
  int32_t ei = static_cast<int32_t>(e);
  *len = normalize(narrow(xx + yy, 62), ei);
  return normalizecomplex(narrow(xx - yy, 62), narrow(px * py, 61), ei);
}

// |p|^2. Unlike csqrlenHF it has no saturation branches.
inline HFLOAT cabsHFs(HFLOATCOMPLEX p) {
  using namespace hfloat_detail;
  WIDE px = p.mantissax, py = p.mantissay;
  return normalize(narrow(px * px + py * py, 62), 2 * p.exponent);
}

inline HFLOAT cabsHF(HFLOATCOMPLEX p) { return sqrtHF(cabsHFs(p)); }

inline HFLOATCOMPLEX cdivHF(HFLOATCOMPLEX p, HFLOATCOMPLEX q) {
  using namespace hfloat_detail;
  int64_t e = static_cast<int64_t>(p.exponent) - q.exponent;
  WIDE px = p.mantissax, py = p.mantissay, qx = q.mantissax, qy = q.mantissay;
  WIDE D = (qx * qx + qy * qy) >> 62;
  if (e > HFLOAT_EXPMAX || D == 0) return CHFLOAT_MAX;
  if (e < -HFLOAT_EXPMAX) return CZEROH;
  while (D < (static_cast<WIDE>(1) << 61)) {  // for a normal q at most once
    D <<= 1;
    e += 1;
  }
  return normalizecomplex(static_cast<HFLOATBASE>((qx * px + qy * py) / D),
                          static_cast<HFLOATBASE>((qx * py - qy * px) / D),
                          static_cast<int32_t>(e));
}

inline HFLOATCOMPLEX cldexpHF(HFLOATCOMPLEX p, int32_t e) {
  return HFLOATCOMPLEX{p.mantissax, p.mantissay, p.exponent + e};
}

// Integer mantissas cannot be NaN; the guard says whether a value is one the
// operations could have made: a non-zero value with its exponent beyond the
// bound that even the additive operations respect is not.
inline bool cisnanHF(HFLOATCOMPLEX p) {
  if (p.mantissax == 0 && p.mantissay == 0) return false;
  return p.exponent > HFLOAT_EXPMAX + 1 || p.exponent < -HFLOAT_EXPMAX - 1;
}

inline complexd cdHF(HFLOATCOMPLEX p) {
  return complexd(dHF(crealHF(p)), dHF(cimagHF(p)));
}

inline complexld cdlHF(HFLOATCOMPLEX p) {
  return complexld(dlHF(crealHF(p)), dlHF(cimagHF(p)));
}

inline HFLOATCOMPLEX cHFd(complexd z) { return cHF(HFd(z.real()), HFd(z.imag())); }
inline HFLOATCOMPLEX cHFld(complexld z) { return cHF(HFld(z.real()), HFld(z.imag())); }

// ---------------------------------------------------------------- hardware formats
//
// Complex square and squared modulus for the canvas in float, double and long
// double; the `len` forms share x*x and y*y between the two results.

template <typename T>
inline std::complex<T> csqrT(std::complex<T> z) {
  T x = z.real(), y = z.imag();
  return std::complex<T>(x * x - y * y, 2 * x * y);
}

template <typename T>
inline std::complex<T> csqrlenT(std::complex<T> z, T* len) {
  T x = z.real(), y = z.imag();
  T xx = x * x, yy = y * y;
  *len = xx + yy;
  return std::complex<T>(xx - yy, 2 * x * y);
}

inline complexf csqrf(complexf z) { return csqrT(z); }
inline complexd csqr(complexd z) { return csqrT(z); }
inline complexld csqrl(complexld z) { return csqrT(z); }
inline complexf csqrlenf(complexf z, float* len) { return csqrlenT(z, len); }
inline complexd csqrlen(complexd z, double* len) { return csqrlenT(z, len); }
inline complexld csqrlenl(complexld z, long double* len) { return csqrlenT(z, len); }
inline float cabsfs(complexf z) { return z.real() * z.real() + z.imag() * z.imag(); }
inline double cabss(complexd z) { return z.real() * z.real() + z.imag() * z.imag(); }
inline long double cabsls(complexld z) { return z.real() * z.real() + z.imag() * z.imag(); }

// ---------------------------------------------------------------- bridges and text

long double mpn_get_ld(mp_srcptr up, mp_size_t size, mp_size_t sign, long exp);
long double mpf_get_ld(mpf_srcptr src);
void mpf_set_ld(mpf_ptr x, long double f);
HFLOAT mpf_get_HF(mpf_srcptr src);
void mpf_set_HF(mpf_ptr x, HFLOAT f);
// Every bit of the mantissa, for values that must stay exact (the canvas's
// origin and checkpoints); mpf_set_HF keeps 53 on purpose.
void mpf_set_HFexact(mpf_ptr x, HFLOAT f);
// x * 2^k for a k of either sign.
void mpf_scale2exp(mpf_ptr x, long k);

// Rough display texts; the caller's buffer must hold at least HFLOAT_STRMAX bytes.
constexpr int HFLOAT_STRMAX = 128;
void strHF(char* s, HFLOAT a);
void cstrHF(char* s, HFLOATCOMPLEX a);

HFLOAT hfloatfromstring(const char* s);
JSTR* newjstrfromhfloat(HFLOAT h);
void output(mpf_ptr x, const char* s);
