// HFLOAT test helpers shared by the arithmetic and bridge tests: mantissa limits, hex printing, exact GMP values.
#pragma once

#include <gmp.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "mathext.h"

namespace hfloattest {

inline constexpr HFLOATBASE NMIN = 0x2000000000000000;  // 2^61, smallest normal magnitude
inline constexpr HFLOATBASE NMAX = 0x3FFFFFFFFFFFFFFF;  // 2^62 - 1, largest
inline constexpr int32_t BOUND = 0x2000000;

inline uint64_t uabs(HFLOATBASE m) {
  return m < 0 ? 0 - static_cast<uint64_t>(m) : static_cast<uint64_t>(m);
}

inline bool normalmant(HFLOATBASE m) {
  uint64_t a = uabs(m);
  return a >= static_cast<uint64_t>(NMIN) && a <= static_cast<uint64_t>(NMAX);
}

inline bool same(HFLOAT a, HFLOAT b) { return a.mantissa == b.mantissa && a.exponent == b.exponent; }

inline std::string hx(HFLOAT a) {
  char buf[64];
  snprintf(buf, sizeof buf, "{%s0x%llx, %d}", a.mantissa < 0 ? "-" : "",
           static_cast<unsigned long long>(uabs(a.mantissa)), a.exponent);
  return buf;
}

inline ::testing::AssertionResult Same(HFLOAT got, HFLOAT want) {
  if (same(got, want)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "got " << hx(got) << ", want " << hx(want);
}

struct Mpf {
  mpf_t v;
  Mpf() { mpf_init2(v, 256); }
  ~Mpf() { mpf_clear(v); }
  Mpf(const Mpf&) = delete;
  Mpf& operator=(const Mpf&) = delete;
  operator mpf_ptr() { return v; }
  operator mpf_srcptr() const { return v; }
};

inline void scale2(mpf_ptr r, int64_t k) {
  if (k > 0) mpf_mul_2exp(r, r, static_cast<mp_bitcnt_t>(k));
  if (k < 0) mpf_div_2exp(r, r, static_cast<mp_bitcnt_t>(-k));
}

// m * 2^(e - 62), exactly.
inline void exact(mpf_ptr r, HFLOATBASE m, int64_t e) {
  mpf_set_si(r, m);
  scale2(r, e - 62);
}
inline void exact(mpf_ptr r, HFLOAT a) { exact(r, a.mantissa, a.exponent); }

}  // namespace hfloattest
