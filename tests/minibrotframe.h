// A place next to a minibrot, given in the minibrot's own frame: its nucleus
// found by Newton in plain mpf, and the view put where c' = (cre, cim) would
// be next to the whole set. In the frame w = lambda z one period acts as
// w -> w^2 + c' with c' = lambda D (c - c0), lambda the product of 2 z_k over
// the period and D = dz_P/dc. Shared by the stack's view test and the view
// benchmark, so both look at the same place.
#pragma once

#include <gmp.h>

#include <cstdlib>
#include <string>

namespace minibrotframe {

struct MPC {
  mpf_t x, y;
  explicit MPC(mp_bitcnt_t bits) {
    mpf_init2(x, bits);
    mpf_init2(y, bits);
  }
  ~MPC() {
    mpf_clear(x);
    mpf_clear(y);
  }
  MPC(const MPC&) = delete;
  MPC& operator=(const MPC&) = delete;
};

// a = a b
inline void mul(MPC& a, const MPC& b) {
  mp_bitcnt_t bits = mpf_get_prec(a.x);
  MPC t(bits);
  mpf_t u;
  mpf_init2(u, bits);
  mpf_mul(t.x, a.x, b.x);
  mpf_mul(u, a.y, b.y);
  mpf_sub(t.x, t.x, u);
  mpf_mul(t.y, a.x, b.y);
  mpf_mul(u, a.y, b.x);
  mpf_add(t.y, t.y, u);
  mpf_set(a.x, t.x);
  mpf_set(a.y, t.y);
  mpf_clear(u);
}

// n = |b|
inline void abs(mpf_t n, const MPC& b) {
  mpf_t u;
  mpf_init2(u, mpf_get_prec(n));
  mpf_mul(n, b.x, b.x);
  mpf_mul(u, b.y, b.y);
  mpf_add(n, n, u);
  mpf_sqrt(n, n);
  mpf_clear(u);
}

// a = a / b
inline void div(MPC& a, const MPC& b) {
  mp_bitcnt_t bits = mpf_get_prec(a.x);
  MPC conj(bits);
  mpf_set(conj.x, b.x);
  mpf_neg(conj.y, b.y);
  mpf_t n;
  mpf_init2(n, bits);
  abs(n, b);
  mpf_mul(n, n, n);
  mul(a, conj);
  mpf_div(a.x, a.x, n);
  mpf_div(a.y, a.y, n);
  mpf_clear(n);
}

// One period P from z = 0 at c: z_P, dz_P/dc, and the product of 2 z_k over
// k = 1 .. P - 1.
inline void period(const MPC& c, unsigned P, MPC& z, MPC& d, MPC& lambda) {
  mp_bitcnt_t bits = mpf_get_prec(z.x);
  MPC two(bits), sq(bits);
  for (mpf_ptr m : {z.x, z.y, d.x, d.y, lambda.y}) mpf_set_ui(m, 0);
  mpf_set_ui(lambda.x, 1);
  for (unsigned k = 0; k < P; k++) {
    mpf_mul_2exp(two.x, z.x, 1);
    mpf_mul_2exp(two.y, z.y, 1);
    if (k > 0) mul(lambda, two);
    mul(d, two);
    mpf_add_ui(d.x, d.x, 1);
    mpf_set(sq.x, z.x);
    mpf_set(sq.y, z.y);
    mul(sq, z);
    mpf_add(z.x, sq.x, c.x);
    mpf_add(z.y, sq.y, c.y);
  }
}

// `digits` significant decimal digits, as "0.ddd...eE".
inline std::string decimal(mpf_srcptr v, size_t digits) {
  mp_exp_t e;
  char* s = mpf_get_str(nullptr, &e, 10, digits, v);
  std::string text(s);
  free(s);
  bool negative = !text.empty() && text[0] == '-';
  if (negative) text.erase(0, 1);
  if (text.empty()) return "0";
  return (negative ? "-0." : "0.") + text + "e" + std::to_string(static_cast<long>(e));
}

struct PLACE {
  std::string re, im, span;
};

// The place c' = (cre, cim) with a longer side `span`, in the frame of the
// minibrot of period P whose nucleus Newton finds from i + (startre +
// startim i), at `bits`; the centre written with `digits` digits.
inline PLACE place(unsigned P, mp_bitcnt_t bits, const char* startre, const char* startim,
                   double cre, double cim, double span, size_t digits) {
  MPC c(bits), z(bits), d(bits), lambda(bits), off(bits);
  mpf_set_str(c.x, startre, 10);
  mpf_set_str(c.y, startim, 10);
  mpf_add_ui(c.y, c.y, 1);
  // Newton until its step vanishes at the working precision.
  const long tiny = 64 - static_cast<long>(bits);
  for (int step = 0; step < 100; step++) {
    period(c, P, z, d, lambda);
    div(z, d);
    mpf_sub(c.x, c.x, z.x);
    mpf_sub(c.y, c.y, z.y);
    long ex = 0, ey = 0;
    double sx = mpf_get_d_2exp(&ex, z.x), sy = mpf_get_d_2exp(&ey, z.y);
    if ((sx == 0 || ex < tiny) && (sy == 0 || ey < tiny)) break;
  }
  period(c, P, z, d, lambda);
  // c = c0 + c' / (lambda D)
  mul(lambda, d);
  mpf_set_d(off.x, cre);
  mpf_set_d(off.y, cim);
  div(off, lambda);
  mpf_add(c.x, c.x, off.x);
  mpf_add(c.y, c.y, off.y);
  mpf_t n, s;
  mpf_init2(n, bits);
  mpf_init2(s, bits);
  abs(n, lambda);
  mpf_set_d(s, span);
  mpf_div(s, s, n);
  PLACE p{decimal(c.x, digits), decimal(c.y, digits), decimal(s, 20)};
  mpf_clear(n);
  mpf_clear(s);
  return p;
}

}  // namespace minibrotframe
