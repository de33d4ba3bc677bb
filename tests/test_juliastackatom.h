// Atoms of the Mandelbrot set for the stack's tests: the nucleus of a
// period near a guess by Newton in mpf, its orbit, and the periodic
// environment (with its series) that a Newton run of the idle search leaves.
#pragma once

#include <gmp.h>

#include <cmath>
#include <complex>
#include <cstdlib>
#include <vector>

#include "Mandelbrot.h"
#include "mpforbit.h"
#include "refiter.h"

namespace atomtest {

constexpr mp_bitcnt_t BITS = 640;

// One Newton step sequence in mpf: the nucleus of period n near the guess.
inline void nucleus(mpf_t cx, mpf_t cy, unsigned n) {
  mpf_t zx, zy, dx, dy, t, u, q;
  for (mpf_ptr m : {zx, zy, dx, dy, t, u, q}) mpf_init2(m, mpf_get_prec(cx));
  for (int step = 0; step < 12; step++) {
    mpf_set_ui(zx, 0);
    mpf_set_ui(zy, 0);
    mpf_set_ui(dx, 0);
    mpf_set_ui(dy, 0);
    for (unsigned k = 0; k < n; k++) mpforbit::step(zx, zy, dx, dy, cx, cy, t, u, q);
    // c -= z / dz
    mpf_mul(t, dx, dx);
    mpf_mul(u, dy, dy);
    mpf_add(q, t, u);
    mpf_mul(t, zx, dx);
    mpf_mul(u, zy, dy);
    mpf_add(t, t, u);
    mpf_div(t, t, q);
    mpf_mul(u, zy, dx);
    mpf_mul(dx, zx, dy);
    mpf_sub(u, u, dx);
    mpf_div(u, u, q);
    mpf_sub(cx, cx, t);
    mpf_sub(cy, cy, u);
  }
  for (mpf_ptr m : {zx, zy, dx, dy, t, u, q}) mpf_clear(m);
}

// The orbit z_0 .. z_n of (cx, cy) in mpf, each point handed to `each`.
template <typename F>
inline void orbit(mpf_srcptr cx, mpf_srcptr cy, unsigned n, mp_bitcnt_t bits, F each) {
  mpf_t zx, zy, t, u;
  for (mpf_ptr m : {zx, zy, t, u}) mpf_init2(m, bits);
  mpf_set_ui(zx, 0);
  mpf_set_ui(zy, 0);
  for (unsigned k = 0; k <= n; k++) {
    each(k, zx, zy);
    mpf_mul(t, zx, zx);
    mpf_mul(u, zy, zy);
    mpf_sub(t, t, u);
    mpf_mul(u, zx, zy);
    mpf_mul_2exp(zy, u, 1);
    mpf_add(zy, zy, cy);
    mpf_add(zx, t, cx);
  }
  for (mpf_ptr m : {zx, zy, t, u}) mpf_clear(m);
}

// A periodic environment as the Newton run leaves it, with its series.
inline ENVIRONMENT* periodicenv(OVCONTEXT* c, const char* const guess[2], unsigned n, mp_bitcnt_t bits = BITS) {
  mpf_t x, y;
  mpf_init2(x, bits);
  mpf_init2(y, bits);
  mpf_set_str(x, guess[0], 10);
  mpf_set_str(y, guess[1], 10);
  nucleus(x, y, n);
  ENVIRONMENT* e = adde(c, x, y, bits);
  e->flags = E_PERIODIC;
  e->n = n;
  e->nrefdata = static_cast<int>(n) + 1;
  e->refdatah = static_cast<REFDATAH*>(calloc(n + 1, sizeof(REFDATAH)));
  e->refdatad = static_cast<REFDATAD*>(calloc(n + 1, sizeof(REFDATAD)));
  __atomic_add_fetch(&c->mem_envrefdata, int64_t(64) * (n + 1), __ATOMIC_SEQ_CST);
  mpf_t a;
  mpf_init2(a, bits);
  orbit(x, y, n, bits, [&](unsigned k, mpf_srcptr zx, mpf_srcptr zy) {
    mpf_mul(a, zx, zx);
    mpf_ui_sub(a, 4, a);
    mpf_t b;
    mpf_init2(b, bits);
    mpf_mul(b, zy, zy);
    mpf_sub(a, a, b);
    mpf_clear(b);
    e->refdatah[k].value = cHF(mpf_get_HF(zx), mpf_get_HF(zy));
    e->refdatah[k].a = mpf_get_HF(a);
    e->refdatad[k].value = {mpf_get_d(zx), mpf_get_d(zy)};
    e->refdatad[k].a = mpf_get_d(a);
  });
  mpf_clear(a);
  e->task = __addtask(c, TASKTYPE_NEWTON, 1);
  calctaylorenvironment(c, e, nullptr);
  mpf_clear(x);
  mpf_clear(y);
  return e;
}

// The count of start point w (plane units) by perturbation against an
// atom's orbit z_0 .. z_n (z_0 = 0), taken back to its start where z comes
// nearer 0 than its deviation or the orbit ends: the last step before
// |z|^2 passes 4, as the canvas counts, or minus the step that enters the
// trap of radius 2^trapexp, as the stack counts an interior pixel; 0 when
// neither happens in `limit` steps.
inline int directcount(const std::vector<std::complex<long double>>& orbit, int trapexp,
                       std::complex<long double> w, int limit) {
  typedef std::complex<long double> CL;
  long double r2 = std::ldexp(1.0L, 2 * trapexp);
  size_t last = orbit.size() - 1;
  size_t r = 0;
  CL delta = w;
  for (int n = 0; n < limit; n++) {
    delta = 2.0L * orbit[r] * delta + delta * delta;
    r++;
    CL z = orbit[r] + delta;
    if (std::norm(z) > 4) return n;
    if (std::norm(z) < r2) return -(n + 1);
    if (r >= last || std::norm(z) < std::norm(delta)) {
      delta = z;
      r = 0;
    }
  }
  return 0;
}

}  // namespace atomtest
