// Environments made by hand for the reference iteration's tests: a nucleus
// found by Newton in mpf, its orbit in `refdatah`/`refdatad`, and mpf orbits
// of nearby points to compare against.
#pragma once

#include <gmp.h>

#include <cstdlib>
#include <cstring>

#include "Mandelbrot.h"

namespace refitertest {

constexpr mp_bitcnt_t PREC = 320;

// A complex mpf number with the few operations the tests need.
struct MPC {
  mpf_t x, y;
  MPC() {
    mpf_init2(x, PREC);
    mpf_init2(y, PREC);
  }
  MPC(double a, double b) : MPC() {
    mpf_set_d(x, a);
    mpf_set_d(y, b);
  }
  MPC(const MPC& o) : MPC() { set(o); }
  MPC& operator=(const MPC& o) {
    set(o);
    return *this;
  }
  ~MPC() {
    mpf_clear(x);
    mpf_clear(y);
  }
  void set(const MPC& o) {
    mpf_set(x, o.x);
    mpf_set(y, o.y);
  }
  HFLOATCOMPLEX hf() const { return cHF(mpf_get_HF(x), mpf_get_HF(y)); }
  complexd d() const { return complexd(mpf_get_d(x), mpf_get_d(y)); }
};

inline MPC add(const MPC& a, const MPC& b) {
  MPC r;
  mpf_add(r.x, a.x, b.x);
  mpf_add(r.y, a.y, b.y);
  return r;
}
inline MPC sub(const MPC& a, const MPC& b) {
  MPC r;
  mpf_sub(r.x, a.x, b.x);
  mpf_sub(r.y, a.y, b.y);
  return r;
}
inline MPC mul(const MPC& a, const MPC& b) {
  MPC r;
  mpf_t t;
  mpf_init2(t, PREC);
  mpf_mul(r.x, a.x, b.x);
  mpf_mul(t, a.y, b.y);
  mpf_sub(r.x, r.x, t);
  mpf_mul(r.y, a.x, b.y);
  mpf_mul(t, a.y, b.x);
  mpf_add(r.y, r.y, t);
  mpf_clear(t);
  return r;
}
inline MPC div(const MPC& a, const MPC& b) {
  MPC r, conj(0, 0);
  mpf_set(conj.x, b.x);
  mpf_neg(conj.y, b.y);
  MPC num = mul(a, conj);
  mpf_t n;
  mpf_init2(n, PREC);
  mpf_t t;
  mpf_init2(t, PREC);
  mpf_mul(n, b.x, b.x);
  mpf_mul(t, b.y, b.y);
  mpf_add(n, n, t);
  mpf_div(r.x, num.x, n);
  mpf_div(r.y, num.y, n);
  mpf_clear(n);
  mpf_clear(t);
  return r;
}
inline double abs2(const MPC& a) {
  complexd z = a.d();
  return std::norm(z);
}
inline MPC fromHF(HFLOATCOMPLEX h) {
  MPC r;
  mpf_set_HFexact(r.x, crealHF(h));
  mpf_set_HFexact(r.y, cimagHF(h));
  return r;
}

// The nucleus of period n near the guess, by Newton in mpf.
inline MPC nucleus(double gx, double gy, unsigned n) {
  MPC c(gx, gy);
  for (int step = 0; step < 80; step++) {
    MPC z(0, 0), dz(0, 0), one(1, 0), two(2, 0);
    for (unsigned k = 0; k < n; k++) {
      dz = add(mul(mul(two, z), dz), one);
      z = add(mul(z, z), c);
    }
    c = sub(c, div(z, dz));
  }
  return c;
}

// z_k of the orbit of c from 0.
inline MPC orbit(const MPC& c, unsigned k) {
  MPC z(0, 0);
  for (unsigned i = 0; i < k; i++) z = add(mul(z, z), c);
  return z;
}

// A periodic environment at the nucleus c of period n, made as the Newton
// run leaves it: orbit z_0 .. z_n, E_PERIODIC, no series yet.
struct ENV {
  ENVIRONMENT* e;
  HPVALUE hc;
  MPC c;

  ENV(const MPC& nucleus, unsigned n) : c(nucleus) {
    e = static_cast<ENVIRONMENT*>(calloc(1, sizeof(ENVIRONMENT)));
    mpf_init2(hc.v[0], PREC);
    mpf_init2(hc.v[1], PREC);
    mpf_set(hc.v[0], c.x);
    mpf_set(hc.v[1], c.y);
    hc.count = 1;
    hc.flags = HPV_USED | HPV_LIMBS;
    e->c = &hc;
    e->n = n;
    e->nrefdata = static_cast<int>(n) + 1;
    e->refdatah = static_cast<REFDATAH*>(calloc(n + 1, sizeof(REFDATAH)));
    e->refdatad = static_cast<REFDATAD*>(calloc(n + 1, sizeof(REFDATAD)));
    e->flags = E_PERIODIC;
    e->precision = PREC;
    e->cf = c.hf();
    e->istore = -1;
    MPC z(0, 0);
    mpf_t a, t;
    mpf_init2(a, PREC);
    mpf_init2(t, PREC);
    for (unsigned k = 0; k <= n; k++) {
      mpf_mul(a, z.x, z.x);
      mpf_mul(t, z.y, z.y);
      mpf_add(a, a, t);
      mpf_ui_sub(a, 4, a);
      e->refdatah[k].value = z.hf();
      e->refdatah[k].a = mpf_get_HF(a);
      e->refdatad[k].value = z.d();
      e->refdatad[k].a = mpf_get_d(a);
      // An escaped orbit is held where it is: squaring on would run out of
      // exponent, and nothing reads past the escape.
      if (abs2(z) < 1e10) z = add(mul(z, z), c);
    }
    mpf_clear(a);
    mpf_clear(t);
  }
  ~ENV() {
    free(e->refdatah);
    free(e->refdatad);
    free(e);
    mpf_clear(hc.v[0]);
    mpf_clear(hc.v[1]);
  }
  ENV(const ENV&) = delete;
  ENV& operator=(const ENV&) = delete;
};

// A bare context: only what the series step reads.
struct BARECONTEXT {
  OVCONTEXT* context;
  BARECONTEXT() {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    context->juliasizeshift = 8;
    context->juliasize = 256;
  }
  ~BARECONTEXT() { free(context); }
};

inline double relerr(complexd a, complexd b) { return std::abs(a - b) / std::abs(b); }

constexpr double P3X = -1.7548776662466927;
constexpr double P4X = -1.9407998065294847;
constexpr double RABBITX = -0.12256116687665362, RABBITY = 0.74486176661974423;

}  // namespace refitertest
