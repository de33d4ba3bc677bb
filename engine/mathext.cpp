// Bridges between HFLOAT, long double and GMP's mpf, and the text forms of
// HFLOAT. None of this is on a hot path; all of it is pure on the caller's
// values.
#include "mathext.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Array.h"

namespace {

constexpr double LN2 = 0.6931471805599453;
constexpr double LN10 = 2.302585092994046;
constexpr double LOG10E = 0.43429448190325176;
constexpr double LOG10_2 = 0.3010299956639812;
constexpr double LOG2_10 = 3.3219280948873626;
constexpr long double TWO_M64 = 5.42101086242752217003726400434970855712890625e-20L;  // 2^-64
constexpr double TWO_62 = 4611686018427387904.0;

// The limbs read most significant first, as a long double whose top limb is
// an integer: later limbs are added at falling scales until the unit of the
// next one no longer changes the sum. The sign is applied, no exponent.
long double limbsum(mp_srcptr up, mp_size_t size, mp_size_t sign) {
  long double sum = static_cast<long double>(static_cast<mp_limb_t>(up[size - 1]));
  long double scale = TWO_M64;
  for (mp_size_t i = size - 2; i >= 0; i--) {
    sum += static_cast<long double>(static_cast<mp_limb_t>(up[i])) * scale;
    scale *= TWO_M64;
    if (sum + scale == sum) break;
  }
  return sign < 0 ? -sum : sum;
}

// The decimal logarithm of |a| as the display texts take it: of the low 32
// bits of the mantissa read as a signed integer. A rough view, kept as it is.
double displaylog10(HFLOATBASE mantissa, int32_t exponent) {
  long long low = static_cast<int32_t>(static_cast<uint32_t>(mantissa));
  return (std::log(static_cast<double>(llabs(low))) + (exponent - 62) * LN2) * LOG10E;
}

// Truncation of a logarithm that may be infinite (a zero low word) or out of
// int range: such values are clamped rather than converted.
int truncclamped(double t) {
  if (!(t > -2e9)) return -2000000000;
  if (!(t < 2e9)) return 2000000000;
  return static_cast<int>(t);
}

}  // namespace

void mpf_scale2exp(mpf_ptr x, long k) {
  if (k > 0) mpf_mul_2exp(x, x, static_cast<mp_bitcnt_t>(k));
  if (k < 0) mpf_div_2exp(x, x, static_cast<mp_bitcnt_t>(-k));
}

void mpf_set_HFexact(mpf_ptr x, HFLOAT f) {
  mpf_set_si(x, static_cast<long>(f.mantissa));
  mpf_scale2exp(x, static_cast<long>(f.exponent) - 62);
}

long double mpn_get_ld(mp_srcptr up, mp_size_t size, mp_size_t sign, long exp) {
  if (size <= 0) return 0.0L;
  long double sum = limbsum(up, size, sign);
  return std::scalbln(sum, 64 * (exp - 1));
}

long double mpf_get_ld(mpf_srcptr src) {
  mp_size_t size = src->_mp_size;
  if (size == 0) return 0.0L;
  return mpn_get_ld(src->_mp_d, size < 0 ? -size : size, size, src->_mp_exp);
}

void mpf_set_ld(mpf_ptr x, long double f) {
  int e;
  long double fr = std::frexp(f, &e);
  mpf_set_d(x, static_cast<double>(fr));
  mpf_scale2exp(x, e);
}

// The limbs' exponent stays outside the floating value, which is what lets an
// HFLOAT hold numbers far beyond the range of long double.
HFLOAT mpf_get_HF(mpf_srcptr src) {
  mp_size_t size = src->_mp_size;
  if (size == 0) return ZEROH;
  long double v = limbsum(src->_mp_d, size < 0 ? -size : size, size) * TWO_M64;
  int e;
  long double f = std::frexp(v, &e);
  HFLOATBASE m = static_cast<HFLOATBASE>(f * static_cast<long double>(TWO_62));
  return HFLOAT{m, static_cast<int32_t>(e + 64 * src->_mp_exp)};
}

// Only 53 bits of the mantissa make the trip, on purpose: values that went
// through HFLOAT serve as deltas, never as coordinates.
void mpf_set_HF(mpf_ptr x, HFLOAT f) {
  mpf_set_d(x, static_cast<double>(f.mantissa));
  if (f.mantissa != 0) mpf_scale2exp(x, static_cast<long>(f.exponent) - 62);
}

void strHF(char* s, HFLOAT a) {
  if (a.mantissa == 0) {
    snprintf(s, HFLOAT_STRMAX, "%f", 0.0);
    return;
  }
  double t = displaylog10(a.mantissa, a.exponent);
  int n = truncclamped(t);
  double sign = a.mantissa < 0 ? -1.0 : 1.0;
  snprintf(s, HFLOAT_STRMAX, "%fe%i", sign * std::exp((t - n) * LN10), n);
}

void cstrHF(char* s, HFLOATCOMPLEX a) {
  if (a.mantissax == 0 && a.mantissay == 0) {
    snprintf(s, HFLOAT_STRMAX, "%f", 0.0);
    return;
  }
  double t = displaylog10(a.mantissax, a.exponent);
  double u = displaylog10(a.mantissay, a.exponent);
  int n = truncclamped(t);
  int nu = truncclamped(u);
  if (nu > n) n = nu;
  double x = (a.mantissax < 0 ? -1.0 : 1.0) * std::exp((t - n) * LN10);
  double y = (a.mantissay < 0 ? -1.0 : 1.0) * std::exp((u - n) * LN10);
  if (a.mantissay < 0)
    snprintf(s, HFLOAT_STRMAX, "(%f%fi)e%i", x, y, n);
  else
    snprintf(s, HFLOAT_STRMAX, "(%f+%fi)e%i", x, y, n);
}

// Reads "m" or "meE" with a decimal exponent E of any size: the power of ten
// is split into a whole power of two, kept in the exponent, and a fraction
// that goes into the mantissa.
HFLOAT hfloatfromstring(const char* s) {
  char* copy = strdup(s ? s : "");
  HFLOAT result = ZEROH;
  char* e = strchr(copy, 'e');
  if (e == nullptr) {
    double v = atof(copy);
    if (std::isfinite(v)) result = HFd(v);
  } else {
    *e = 0;
    double m = atof(copy);
    // The exponent text is clamped so that outside text cannot push the
    // arithmetic out of range; no HFLOAT exponent comes near these bounds.
    long ex = strtol(e + 1, nullptr, 10);
    if (ex > 100000000L) ex = 100000000L;
    if (ex < -100000000L) ex = -100000000L;
    double q = static_cast<double>(ex) * LOG2_10;
    double qi = std::trunc(q);
    double v = m * std::exp2(q - qi);
    int fe;
    double f = std::frexp(v, &fe);
    if (std::isfinite(f) && f != 0.0)
      result = HFLOAT{static_cast<HFLOATBASE>(f * TWO_62), static_cast<int32_t>(qi) + fe};
  }
  free(copy);
  return result;
}

JSTR* newjstrfromhfloat(HFLOAT h) {
  double fraction = 0.0;
  long total = 0;
  if (h.mantissa != 0) {
    int32_t e;
    HFLOAT m = frexpHF(h, &e);
    double t = e * LOG10_2;
    double n = std::trunc(t);
    double x = std::ldexp(static_cast<double>(m.mantissa), -62) * std::exp((t - n) * LN10);
    x = std::log10(x);
    double k = std::floor(x) + 1;
    fraction = std::exp((x - k) * LN10);
    // Only magnitudes are ever passed; a negative value prints as "nan".
    if (std::isfinite(k)) total = static_cast<long>(k + n);
  }
  char buffer[1024];
  if (total == 0)
    snprintf(buffer, sizeof buffer, "%f", fraction);
  else
    snprintf(buffer, sizeof buffer, "%fe%li", fraction, total);
  return newjstr(buffer);
}

void output(mpf_ptr x, const char* s) {
  long exp;
  double d = mpf_get_d_2exp(&exp, x);
  fprintf(stderr, s, d, exp);
}
