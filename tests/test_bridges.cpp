// Bridges between HFLOAT, long double and GMP's mpf, and the text forms of
// HFLOAT: printing, reading back, and the debug print.
//
// Exact values are built by hand in 256-bit mpf numbers (a mantissa through
// mpf_set_si, then a power of two); the bridges under test are never used to
// make their own expected values.
#include <gtest/gtest.h>

#include <gmp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "Array.h"
#include "hfloattest.h"
#include "mathext.h"

namespace {

using namespace hfloattest;

// A long double, exactly (64 significant bits).
void ldexact(mpf_ptr r, long double x) {
  int e;
  long double f = std::frexp(x, &e);
  bool neg = f < 0;
  mpf_set_ui(r, static_cast<unsigned long>((neg ? -f : f) * 0x1p64L));
  scale2(r, static_cast<int64_t>(e) - 64);
  if (neg) mpf_neg(r, r);
}

// |got - want| <= tol * |want|
bool relwithin(mpf_srcptr got, mpf_srcptr want, double tol) {
  Mpf d, t;
  mpf_sub(d, got, want);
  mpf_abs(d, d);
  mpf_abs(t, want);
  Mpf k;
  mpf_set_d(k, tol);
  mpf_mul(t, t, k);
  return mpf_cmp(d, t) <= 0;
}

double relerror(mpf_srcptr got, mpf_srcptr want) {
  Mpf d, t;
  mpf_sub(d, got, want);
  mpf_div(d, d, want);
  mpf_abs(d, d);
  return mpf_get_d(d);
}

// Text of an HFLOAT by newjstrfromhfloat, the JSTR released.
std::string canonical(HFLOAT h) {
  JSTR* j = newjstrfromhfloat(h);
  EXPECT_NE(j, nullptr);
  if (j == nullptr) return "";
  std::string s = getjstr(j);
  releasejobject(j);
  return s;
}

std::string strhf(HFLOAT a) {
  char buf[HFLOAT_STRMAX];
  memset(buf, 'Z', sizeof buf);
  strHF(buf, a);
  EXPECT_NE(memchr(buf, 0, sizeof buf), nullptr);
  return buf;
}

std::string cstrhf(HFLOATCOMPLEX a) {
  char buf[HFLOAT_STRMAX];
  memset(buf, 'Z', sizeof buf);
  cstrHF(buf, a);
  EXPECT_NE(memchr(buf, 0, sizeof buf), nullptr);
  return buf;
}

// Splits "<fraction>e<exponent>" as "%fe%i" prints it: a plain decimal
// fraction (no exponent of its own), 'e', a decimal integer, nothing more.
bool splitfe(const std::string& s, double* frac, long* exp10) {
  size_t e = s.find('e');
  if (e == std::string::npos || e == 0 || e + 1 >= s.size()) return false;
  std::string f = s.substr(0, e), x = s.substr(e + 1);
  size_t i = (f[0] == '-') ? 1 : 0, digits = 0, points = 0;
  for (; i < f.size(); i++) {
    if (f[i] == '.') points++;
    else if (f[i] >= '0' && f[i] <= '9') digits++;
    else return false;
  }
  if (digits == 0 || points != 1 || f.size() - f.find('.') != 7) return false;  // "%f": six decimals
  size_t j = (x[0] == '-') ? 1 : 0;
  if (j >= x.size()) return false;
  for (; j < x.size(); j++)
    if (x[j] < '0' || x[j] > '9') return false;
  *frac = strtod(f.c_str(), nullptr);
  *exp10 = strtol(x.c_str(), nullptr, 10);
  return true;
}

// A random mpf: `bits` significant bits (1..256), scaled by 2^shift.
void randommpf(mpf_ptr r, std::mt19937_64& g, int bits, int64_t shift, bool negative) {
  mpf_set_ui(r, 0);
  Mpf t;
  int left = bits;
  while (left > 0) {
    int take = left < 64 ? left : 64;
    uint64_t limb = g();
    if (take < 64) limb &= (1ull << take) - 1;
    if (left == bits) limb |= 1ull << (take - 1);  // the top bit set: exactly `bits` bits
    mpf_mul_2exp(r, r, static_cast<mp_bitcnt_t>(take));
    mpf_set_ui(t, limb);
    mpf_add(r, r, t);
    left -= take;
  }
  scale2(r, shift);
  if (negative) mpf_neg(r, r);
}

}  // namespace

// ================================================================ corner cases

TEST(BridgeEdge, MpfGetHFOfZeroIsZeroH) {
  Mpf x;
  EXPECT_TRUE(Same(mpf_get_HF(x), ZEROH));  // fresh
  mpf_set_d(x, 12.5);
  mpf_sub(x, x, x);
  EXPECT_TRUE(Same(mpf_get_HF(x), ZEROH));  // by cancellation
}

TEST(BridgeEdge, MpfSetHFOfZeroGivesZero) {
  Mpf x;
  for (HFLOAT z : {ZEROH, HFLOAT{0, 12345}, HFLOAT{0, -BOUND}, HFLOAT{0, BOUND}}) {
    mpf_set_d(x, -7.25);
    mpf_set_HF(x, z);
    EXPECT_EQ(mpf_sgn(x.v), 0) << hx(z);
  }
}

TEST(BridgeEdge, NewjstrOfOneIsPointOneE1) {
  EXPECT_EQ(canonical(ONEH), "0.100000e1");
}

TEST(BridgeEdge, HfloatfromstringReadsItsOwnOutputBack) {
  // Six printed digits of a fraction in [0.1, 1): within 5e-6 relative; 1e-5
  // leaves room for the decimal logarithm of an exponent of 10^7.
  std::mt19937_64 g(0xB1D6E001);
  Mpf a, b;
  int failures = 0;
  for (int i = 0; i < 20000; i++) {
    HFLOAT h{static_cast<HFLOATBASE>(NMIN + g() % NMIN), 0};
    switch (i % 4) {
      case 0: h.exponent = static_cast<int32_t>(static_cast<int64_t>(g() % (2 * BOUND + 1)) - BOUND); break;
      case 1: h.exponent = static_cast<int32_t>(static_cast<int64_t>(g() % 4001) - 2000); break;
      case 2: h.exponent = static_cast<int32_t>(static_cast<int64_t>(g() % 200001) - 100000); break;
      default: h.exponent = static_cast<int32_t>((g() & 1 ? 1 : -1) * (BOUND - static_cast<int64_t>(g() % 100))); break;
    }
    std::string text = canonical(h);
    HFLOAT back = hfloatfromstring(text.c_str());
    exact(a, h);
    exact(b, back);
    if (!normalmant(back.mantissa) || !relwithin(b, a, 1e-5)) {
      if (++failures <= 6)
        ADD_FAILURE() << hx(h) << " -> \"" << text << "\" -> " << hx(back) << ", relative error "
                      << relerror(b, a);
    }
  }
  EXPECT_EQ(failures, 0);
}

TEST(BridgeEdge, ReadBackAtDecimalExponentsFarBeyondLongDouble) {
  Mpf a, b, p;
  for (const char* text : {"1e-100000", "1e+50000", "0.5e100000", "0.987654e-9999999", "0.123e10000000",
                           "7e-4951", "3.5e4932"}) {
    HFLOAT h = hfloatfromstring(text);
    ASSERT_TRUE(normalmant(h.mantissa)) << text << " -> " << hx(h);
    std::string printed = canonical(h);
    HFLOAT back = hfloatfromstring(printed.c_str());
    exact(a, h);
    exact(b, back);
    EXPECT_TRUE(relwithin(b, a, 1e-5)) << text << " -> " << hx(h) << " -> \"" << printed << "\" -> " << hx(back);
  }
  // The value itself, against 10^k computed by GMP.
  struct {
    const char* text;
    double mantissa;
    long exp10;
  } cases[] = {{"1e-100000", 1.0, -100000}, {"1e+50000", 1.0, 50000}, {"0.25e-300000", 0.25, -300000},
               {"-0.75e12345", -0.75, 12345}};
  for (auto c : cases) {
    HFLOAT h = hfloatfromstring(c.text);
    mpf_set_ui(p, 10);
    mpf_pow_ui(p, p, static_cast<unsigned long>(c.exp10 < 0 ? -c.exp10 : c.exp10));
    if (c.exp10 < 0) mpf_ui_div(p, 1, p);
    mpf_set_d(a, c.mantissa);
    mpf_mul(a, a, p);
    exact(b, h);
    // The power of ten splits into a power of two and exp2 of a fraction of a
    // double of up to 10^6: a few 1e-11 relative.
    EXPECT_TRUE(relwithin(b, a, 1e-9)) << c.text << " -> " << hx(h) << ", relative error " << relerror(b, a);
  }
}

// ================================================================ text forms

TEST(BridgeText, NewjstrFromHfloatForms) {
  EXPECT_EQ(canonical(ZEROH), "0.000000");
  EXPECT_EQ(canonical(HFLOAT{0, 999}), "0.000000");
  EXPECT_EQ(canonical(HFd(0.5)), "0.500000");  // total exponent 0: no "e"
  EXPECT_EQ(canonical(HFd(123456.0)), "0.123456e6");
  EXPECT_EQ(canonical(HFd(0.00123456)), "0.123456e-2");
  EXPECT_EQ(canonical(HFd(2000.0)), "0.200000e4");
  // Not normalised on entry: frexpHF puts it right first.
  EXPECT_EQ(canonical(HFLOAT{1, 62}), "0.100000e1");
  // Far beyond any hardware format: 2^-3000000 = 10^-903089.987...
  std::string s = canonical(HFLOAT{NMIN, -3000000 + 1});
  double frac;
  long exp10;
  ASSERT_TRUE(splitfe(s, &frac, &exp10)) << s;
  EXPECT_EQ(exp10, -903089) << s;
  EXPECT_NEAR(frac, std::pow(10.0, -3000000 * 0.3010299956639812 + 903089), 2e-6) << s;
}

// "%fe%i" of the fraction and the truncated decimal logarithm, where the
// logarithm is taken of the mantissa's low 32 bits read as a signed integer:
// a value of about 2.3e18 with low word 12345 prints as 1.2345e4.
TEST(BridgeText, StrHFUsesTheLowWordOfTheMantissa) {
  EXPECT_EQ(strhf(ZEROH), "0.000000");
  EXPECT_EQ(strhf(HFLOAT{0, 77}), "0.000000");
  EXPECT_EQ(strhf(HFLOAT{NMIN + 12345, 62}), "1.234500e4");
  EXPECT_EQ(strhf(HFLOAT{-(NMIN + 12345), 62}), "-1.234500e4");
  // Low word 0xFFFFCFC7 reads as -12345: the logarithm takes its magnitude,
  // the sign printed is the value's.
  EXPECT_EQ(strhf(HFLOAT{0x20000000FFFFCFC7, 62}), "1.234500e4");
  // The exponent enters as (exponent - 62) binary places: 1000 * 2^10.
  EXPECT_EQ(strhf(HFLOAT{NMIN + 1000, 72}), "1.024000e6");
  // A negative logarithm is truncated toward zero: 5 * 2^-10 = 0.48828125e-2.
  EXPECT_EQ(strhf(HFLOAT{NMIN + 5, 52}), "0.488281e-2");
}

TEST(BridgeText, StrHFWithZeroLowWordKeepsTheShape) {
  // ONEH has a zero low word: the logarithm is minus infinity and the text
  // means nothing, but it is still a fraction and an exponent.
  std::string s = strhf(ONEH);
  double frac;
  long exp10;
  ASSERT_TRUE(splitfe(s, &frac, &exp10)) << s;
  EXPECT_EQ(frac, 0.0) << s;
}

TEST(BridgeText, CstrHFForms) {
  EXPECT_EQ(cstrhf(CZEROH), "0.000000");
  EXPECT_EQ(cstrhf(HFLOATCOMPLEX{NMIN + 1234, NMIN + 567, 62}), "(1.234000+0.567000i)e3");
  EXPECT_EQ(cstrhf(HFLOATCOMPLEX{NMIN + 1234, -(NMIN + 567), 62}), "(1.234000-0.567000i)e3");
  EXPECT_EQ(cstrhf(HFLOATCOMPLEX{-(NMIN + 1234), NMIN + 567, 62}), "(-1.234000+0.567000i)e3");
  // The imaginary logarithm's truncation is the larger: it sets the exponent.
  EXPECT_EQ(cstrhf(HFLOATCOMPLEX{NMIN + 12, NMIN + 98765, 62}), "(0.001200+9.876500i)e4");
  EXPECT_EQ(cstrhf(HFLOATCOMPLEX{NMIN + 1234, NMIN + 567, 72}), "(1.263616+0.580608i)e6");
  // A zero part prints as 0 beside the other.
  EXPECT_EQ(cstrhf(HFLOATCOMPLEX{NMIN + 1234, 0, 62}), "(1.234000+0.000000i)e3");
}

TEST(BridgeText, HfloatfromstringForms) {
  EXPECT_TRUE(Same(hfloatfromstring("1e0"), ONEH));
  EXPECT_TRUE(Same(hfloatfromstring("0.5"), HFLOAT{NMIN, 0}));
  EXPECT_TRUE(Same(hfloatfromstring("-2.5"), HFd(-2.5)));
  EXPECT_TRUE(Same(hfloatfromstring("4"), FOURH));
  // No digits: zero, by atof.
  EXPECT_EQ(hfloatfromstring("").mantissa, 0);
  EXPECT_EQ(hfloatfromstring("abc").mantissa, 0);
  EXPECT_EQ(hfloatfromstring("e5").mantissa, 0);
  EXPECT_EQ(hfloatfromstring("0e7").mantissa, 0);
  // 0.25e1 = 2.5 through exp2 of a fraction.
  EXPECT_NEAR(dHF(hfloatfromstring("0.25e1")), 2.5, 1e-14);
  EXPECT_NEAR(dHF(hfloatfromstring("0.123456e-2")), 0.00123456, 1e-17);
  EXPECT_NEAR(dHF(hfloatfromstring("-3e-5")), -3e-5, 1e-18);
  // The caller's text is not changed.
  char text[] = "0.75e3";
  hfloatfromstring(text);
  EXPECT_STREQ(text, "0.75e3");
}

TEST(BridgeText, OutputPrintsDoubleAndExponentToStderr) {
  Mpf x;
  mpf_set_ui(x, 3);
  mpf_mul_2exp(x, x, 100);
  ::testing::internal::CaptureStderr();
  output(x, "d=%.6f exp=%ld\n");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "d=0.750000 exp=102\n");
  mpf_set_si(x, -5);
  mpf_div_2exp(x, x, 2000);
  ::testing::internal::CaptureStderr();
  output(x, "%f %ld;");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "-0.625000 -1997;");
}

// ================================================================ mpf and HFLOAT

// Values of at most 62 significant bits come over exactly, wherever the limb
// boundary falls in them.
TEST(BridgeMpf, GetHFIsExactForShortValues) {
  Mpf x, g;
  mpf_set_d(x, 1.5);
  EXPECT_TRUE(Same(mpf_get_HF(x), HFLOAT{0x3000000000000000, 1}));
  mpf_set_d(x, -1.5);
  EXPECT_TRUE(Same(mpf_get_HF(x), HFLOAT{-0x3000000000000000, 1}));
  mpf_set_ui(x, 3);
  EXPECT_TRUE(Same(mpf_get_HF(x), HFLOAT{0x3000000000000000, 2}));
  // 2^40 + 2^-20: the integer limb holds one bit, the fraction limb the other.
  mpf_set_ui(x, 1);
  mpf_mul_2exp(x, x, 60);
  mpf_add_ui(x, x, 1);
  mpf_div_2exp(x, x, 20);
  EXPECT_TRUE(Same(mpf_get_HF(x), HFLOAT{NMIN + 2, 41}));

  std::mt19937_64 r(0xB1D6E002);
  int failures = 0;
  for (int i = 0; i < 20000; i++) {
    int bits = 1 + static_cast<int>(r() % 62);
    int64_t shift = static_cast<int64_t>(r() % 2001) - 1000;
    randommpf(x, r, bits, shift, (r() & 1) != 0);
    HFLOAT h = mpf_get_HF(x);
    exact(g, h);
    if (!normalmant(h.mantissa) || mpf_cmp(g, x) != 0) {
      if (++failures <= 6)
        ADD_FAILURE() << bits << " bits, shift " << shift << ": " << hx(h) << ", relative error " << relerror(g, x);
    }
  }
  EXPECT_EQ(failures, 0);
}

// Any mpf: the long double sum carries 64 bits, rounded once (2^-64), and
// the limbs it leaves out weigh less than that again; the mantissa keeps 62
// of them, cut toward zero (< 2^-61). Within 2 units of 2^-61 relative, at
// exponents far beyond long double.
TEST(BridgeMpf, GetHFOfLongValuesWithin2UnitsAnyExponent) {
  std::mt19937_64 r(0xB1D6E003);
  Mpf x, g;
  int failures = 0;
  for (int i = 0; i < 20000; i++) {
    int bits = 63 + static_cast<int>(r() % 194);
    int64_t shift;
    switch (i % 3) {
      case 0: shift = static_cast<int64_t>(r() % 4001) - 2000; break;
      case 1: shift = (r() & 1 ? 1 : -1) * (1000000 + static_cast<int64_t>(r() % 64)); break;
      default: shift = static_cast<int64_t>(r() % 60000001) - 30000000; break;
    }
    randommpf(x, r, bits, shift - bits, (r() & 1) != 0);
    HFLOAT h = mpf_get_HF(x);
    exact(g, h);
    if (!normalmant(h.mantissa) || !relwithin(g, x, 0x1p-60)) {
      if (++failures <= 6)
        ADD_FAILURE() << bits << " bits at 2^" << shift << ": " << hx(h) << ", relative error " << relerror(g, x);
    }
  }
  EXPECT_EQ(failures, 0);
}

TEST(BridgeMpf, SetHFKeepsOnly53Bits) {
  Mpf x, w;
  mpf_set_HF(x, HFLOAT{NMIN + 1, 1});  // 1 + 2^-61: the last bit cannot survive
  EXPECT_EQ(mpf_cmp_ui(x, 1), 0);
  mpf_set_HF(x, HFLOAT{-(NMIN + 1), 1});
  EXPECT_EQ(mpf_cmp_si(x, -1), 0);
  mpf_set_HF(x, HFLOAT{NMAX, 1});  // rounds up to 2
  EXPECT_EQ(mpf_cmp_ui(x, 2), 0);
  mpf_set_HF(x, HFLOAT{NMIN + (1 << 9), 1});  // 1 + 2^-52 fits
  mpf_set_ui(w, 1);
  mpf_div_2exp(w, w, 52);
  mpf_add_ui(w, w, 1);
  EXPECT_EQ(mpf_cmp(x, w), 0);
  mpf_set_HF(x, ONEH);
  EXPECT_EQ(mpf_cmp_ui(x, 1), 0);
  mpf_set_HF(x, HFLOAT{NMIN, 62 + 1000000});
  mpf_set_ui(w, 1);
  mpf_mul_2exp(w, w, 1000000 + 61);
  EXPECT_EQ(mpf_cmp(x, w), 0);
}

// mpf_set_HF gives the mantissa rounded to a double, scaled exactly;
// mpf_get_HF of that gives the same value, since 53 bits fit in 62.
TEST(BridgeMpf, SetHFThenGetHFRoundTripsTo53Bits) {
  std::mt19937_64 r(0xB1D6E004);
  Mpf x, want, g;
  int failures = 0;
  const int32_t exps[] = {1000000, -1000000, 30000000, -30000000, BOUND, -BOUND, 0, 1, -1, 63, 64, 65, -63, -64};
  for (int i = 0; i < 30000; i++) {
    HFLOATBASE m = static_cast<HFLOATBASE>(NMIN + r() % NMIN);
    if (i % 7 == 0) m = NMAX - static_cast<HFLOATBASE>(r() % 2048);  // rounds up to 2^62
    if (r() & 1) m = -m;
    int32_t e = i < 1400 ? exps[i % 14] + static_cast<int32_t>(r() % 130) - 65
                         : static_cast<int32_t>(static_cast<int64_t>(r() % 60000001) - 30000000);
    HFLOAT h{m, e};
    mpf_set_HF(x, h);
    mpf_set_d(want, static_cast<double>(m));
    scale2(want, static_cast<int64_t>(e) - 62);
    HFLOAT back = mpf_get_HF(x);
    exact(g, back);
    bool ok = mpf_cmp(x, want) == 0 && mpf_cmp(g, want) == 0 && normalmant(back.mantissa);
    if (!ok && ++failures <= 6)
      ADD_FAILURE() << hx(h) << " -> " << hx(back) << (mpf_cmp(x, want) != 0 ? " (mpf_set_HF wrong)" : "")
                    << ", relative error " << relerror(g, want);
  }
  EXPECT_EQ(failures, 0);
}

// ================================================================ long double

TEST(BridgeLd, MpfGetLd) {
  Mpf x;
  EXPECT_EQ(mpf_get_ld(x), 0.0L);
  mpf_set_d(x, 1.5);
  EXPECT_EQ(mpf_get_ld(x), 1.5L);
  mpf_set_d(x, -1.5);
  EXPECT_EQ(mpf_get_ld(x), -1.5L);
  mpf_set_d(x, 0x1p-200);
  EXPECT_EQ(mpf_get_ld(x), 0x1p-200L);
  // 2^40 + 2^-20 over two limbs: 61 bits, exact in long double.
  mpf_set_ui(x, 1);
  mpf_mul_2exp(x, x, 60);
  mpf_add_ui(x, x, 1);
  mpf_div_2exp(x, x, 20);
  EXPECT_EQ(mpf_get_ld(x), 0x1p40L + 0x1p-20L);
  // 1/3 to 256 bits: the long double nearest, or the one below.
  mpf_set_ui(x, 1);
  mpf_div_ui(x, x, 3);
  long double third = mpf_get_ld(x);
  EXPECT_LE(std::fabs(third - 1.0L / 3.0L), 0x1p-65L);
}

// Random mpf values within long double's range: within 2^-62 relative (one
// rounding of the sum, and the limbs left out).
TEST(BridgeLd, MpfGetLdRandom) {
  std::mt19937_64 r(0xB1D6E005);
  Mpf x, g;
  int failures = 0;
  for (int i = 0; i < 20000; i++) {
    int bits = 1 + static_cast<int>(r() % 256);
    int64_t shift = static_cast<int64_t>(r() % 32001) - 16000 - bits;
    randommpf(x, r, bits, shift, (r() & 1) != 0);
    long double v = mpf_get_ld(x);
    ldexact(g, v);
    bool ok = std::isfinite(v) && v != 0.0L && relwithin(g, x, 0x1p-62);
    if (bits <= 64) ok = ok && mpf_cmp(g, x) == 0;  // fits: exact
    if (!ok && ++failures <= 6)
      ADD_FAILURE() << bits << " bits at 2^" << shift + bits << ": " << v << ", relative error "
                    << relerror(g, x);
  }
  EXPECT_EQ(failures, 0);
}

TEST(BridgeLd, MpfSetLdKeepsOnly53Bits) {
  Mpf x, w;
  mpf_set_ld(x, 1.0L + 0x1p-60L);
  EXPECT_EQ(mpf_cmp_ui(x, 1), 0);
  mpf_set_ld(x, -(1.0L + 0x1p-52L));
  mpf_set_ui(w, 1);
  mpf_div_2exp(w, w, 52);
  mpf_add_ui(w, w, 1);
  mpf_neg(w, w);
  EXPECT_EQ(mpf_cmp(x, w), 0);
  mpf_set_ld(x, 0.0L);
  EXPECT_EQ(mpf_sgn(x.v), 0);
  // Exponents beyond double's: the fraction goes through double, the
  // exponent does not.
  mpf_set_ld(x, 0x1p16000L);
  mpf_set_ui(w, 1);
  mpf_mul_2exp(w, w, 16000);
  EXPECT_EQ(mpf_cmp(x, w), 0);
  mpf_set_ld(x, 0x3p-16000L);
  mpf_set_ui(w, 3);
  mpf_div_2exp(w, w, 16000);
  EXPECT_EQ(mpf_cmp(x, w), 0);

  std::mt19937_64 r(0xB1D6E006);
  int failures = 0;
  for (int i = 0; i < 20000; i++) {
    uint64_t u = (r() | (1ull << 63)) & ~0x7FFull;  // 53 significant bits
    long double v = std::ldexp(static_cast<long double>(u), static_cast<int>(r() % 32001) - 16000 - 64);
    if (r() & 1) v = -v;
    mpf_set_ld(x, v);
    ldexact(w, v);
    if (mpf_cmp(x, w) != 0 && ++failures <= 6) ADD_FAILURE() << "mpf_set_ld not exact for 53 bits: " << i;
  }
  EXPECT_EQ(failures, 0);
}

// ================================================================ limbs

TEST(BridgeMpn, GetLdReadsSeveralLimbs) {
  // Limbs least significant first; exp counts limbs above the point.
  const mp_limb_t onehalf[] = {0x8000000000000000ull, 1};  // 1 + 2^-1
  EXPECT_EQ(mpn_get_ld(onehalf, 2, 1, 1), 1.5L);
  EXPECT_EQ(mpn_get_ld(onehalf, 2, -1, 1), -1.5L);
  EXPECT_EQ(mpn_get_ld(onehalf, 2, 1, 3), 0x3p127L);
  EXPECT_EQ(mpn_get_ld(onehalf, 2, 1, -2), 0x3p-193L);
  // A top limb at or above 2^63 is read as unsigned.
  const mp_limb_t top[] = {0, 0xFFFFFFFFFFFFFFFFull};
  EXPECT_EQ(mpn_get_ld(top, 2, 1, 1), 18446744073709551615.0L);
  const mp_limb_t single[] = {0xC000000000000000ull};
  EXPECT_EQ(mpn_get_ld(single, 1, 1, 0), 0.75L);
  // Limbs below the 64 bits of long double change nothing.
  const mp_limb_t three[] = {0x123456789ABCDEF0ull, 0x8000000000000000ull, 1};
  EXPECT_EQ(mpn_get_ld(three, 3, 1, 1), 1.5L);
  // 0x1.0000000000000001 over two limbs: 1 + 2^-63 is the last bit long
  // double holds beside a leading 1.
  const mp_limb_t lastbit[] = {2, 1};  // 2^-63 is 2 * 2^-64
  EXPECT_EQ(mpn_get_ld(lastbit, 2, 1, 1), 1.0L + 0x1p-63L);
}

// The sum stops growing after the limbs that long double can hold; the ones
// below are never read. Here they lie on a page that cannot be read at all.
TEST(BridgeMpn, GetLdStopsBeforeLimbsThatCannotCount) {
  long page = sysconf(_SC_PAGESIZE);
  ASSERT_GT(page, 0);
  void* map = mmap(nullptr, 2 * static_cast<size_t>(page), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(map, MAP_FAILED);
  ASSERT_EQ(mprotect(map, static_cast<size_t>(page), PROT_NONE), 0);
  mp_limb_t* readable = reinterpret_cast<mp_limb_t*>(static_cast<char*>(map) + page);
  // The three most significant of twelve limbs are readable; nine lie below.
  const mp_size_t size = 12;
  readable[0] = 0x5555555555555555ull;
  readable[1] = 0x8000000000000000ull;
  readable[2] = 1;
  const mp_limb_t* up = readable - (size - 3);
  EXPECT_EQ(mpn_get_ld(up, size, 1, 1), 1.5L);
  readable[1] = 0x123456789ABCDEF0ull;
  readable[2] = 0xFEDCBA9876543210ull;
  long double v = mpn_get_ld(up, size, -1, 1);
  EXPECT_LE(std::fabs(v + (0xFEDCBA9876543210p0L + 0x123456789ABCDEF0p-64L)), 1.0L);
  munmap(map, 2 * static_cast<size_t>(page));
}
