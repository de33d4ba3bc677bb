// What the tests of the idle and Newton graphs share: the orbit of z^2 + c
// computed one mpf operation after the other in the order the graphs use,
// with its HFLOAT forms, and a live engine's main thread to start graphs on.
#pragma once

#include <gmp.h>

#include <functional>
#include <vector>

#include "Mandelbrot.h"
#include "canvas/series.h"

namespace computertest {

// One orbit point in the forms the graphs store.
struct POINT {
  HFLOATCOMPLEX z;
  HFLOAT a;        // 4 - x^2 - y^2 from the squares at the working precision
  complexd zd;
  double ad;
};

// z_0 .. z_n of c with dz/dc, every number at `bits`, each operation the one
// the graph's node does. `visit(k, x, y, dx, dy, a)` sees z_k before the
// round that leaves it (a the mpf margin of z_k); returning false stops.
struct SEQUENTIAL {
  mpf_t x, y, dx, dy;
  mpf_t x2, y2, a, xn, yn, p1, p2, p3, p4, dxn, dyn;
  explicit SEQUENTIAL(mp_bitcnt_t bits) {
    for (mpf_ptr v : all()) mpf_init2(v, bits);
  }
  ~SEQUENTIAL() {
    for (mpf_ptr v : all()) mpf_clear(v);
  }
  std::vector<mpf_ptr> all() {
    return {x, y, dx, dy, x2, y2, a, xn, yn, p1, p2, p3, p4, dxn, dyn};
  }
  // Runs rounds k = from .. to-1 from the present state; before each, visit.
  void run(mpf_srcptr cre, mpf_srcptr cim, int from, int to,
           const std::function<bool(int, const SEQUENTIAL&)>& visit) {
    for (int k = from; k < to; k++) {
      mpf_mul(x2, x, x);
      mpf_mul(y2, y, y);
      mpf_ui_sub(a, 4, x2);
      mpf_sub(a, a, y2);
      if (visit && !visit(k, *this)) return;
      mpf_sub(xn, x2, y2);
      mpf_add(xn, xn, cre);
      mpf_mul(yn, x, y);
      mpf_mul_2exp(yn, yn, 1);
      mpf_add(yn, yn, cim);
      mpf_mul(p1, x, dx);
      mpf_mul(p2, y, dy);
      mpf_mul(p3, x, dy);
      mpf_mul(p4, y, dx);
      mpf_sub(dxn, p1, p2);
      mpf_mul_2exp(dxn, dxn, 1);
      mpf_add_ui(dxn, dxn, 1);
      mpf_add(dyn, p3, p4);
      mpf_mul_2exp(dyn, dyn, 1);
      mpf_swap(x, xn);
      mpf_swap(y, yn);
      mpf_swap(dx, dxn);
      mpf_swap(dy, dyn);
    }
  }
  void reset() {
    for (mpf_ptr v : {x, y, dx, dy}) mpf_set_ui(v, 0);
  }
  HFLOATCOMPLEX z() const { return cHF(mpf_get_HF(x), mpf_get_HF(y)); }
  HFLOATCOMPLEX dz() const { return cHF(mpf_get_HF(dx), mpf_get_HF(dy)); }
  POINT point() const {
    return POINT{z(), mpf_get_HF(a), complexd(mpf_get_d(x), mpf_get_d(y)), mpf_get_d(a)};
  }
};

inline bool same(HFLOAT a, HFLOAT b) { return a.mantissa == b.mantissa && a.exponent == b.exponent; }
inline bool same(HFLOATCOMPLEX a, HFLOATCOMPLEX b) {
  return a.mantissax == b.mantissax && a.mantissay == b.mantissay && a.exponent == b.exponent;
}
inline bool samepoint(const REFDATAH& h, const REFDATAD& d, const POINT& p) {
  return same(h.value, p.z) && same(h.a, p.a) && d.value == p.zd && d.a == p.ad;
}

// The idle graph's two series one round on, in the operations its nodes use:
// T^2 + 2 z T (+ the linear term where it comes in).
inline void seriesstep(HFLOATCOMPLEX* t, HFLOATCOMPLEX z, bool addlinear) {
  HFLOATCOMPLEX sq[NTAYLORDEGREE], lin[NTAYLORDEGREE];
  sqrtaylor_hfloat(sq, t, NTAYLORDEGREE);
  multaylorconst_hfloat(lin, t, cldexpHF(z, 1), NTAYLORDEGREE);
  addtaylor_hfloat(t, sq, lin, NTAYLORDEGREE);
  if (addlinear) t[1] = caddHF(t[1], CONEH);
}

// c in double, with random bits from 2^-shift down to the precision added
// to both parts (negated on the imaginary one if `lower`), so that every
// limb of the point is busy.
inline void busypoint(mpf_ptr cre, mpf_ptr cim, mp_bitcnt_t bits, unsigned long seed, double re,
                      double im, int shift, bool lower) {
  gmp_randstate_t r;
  gmp_randinit_default(r);
  gmp_randseed_ui(r, seed);
  mpf_t t;
  mpf_init2(t, bits);
  mpf_set_d(cre, re);
  mpf_set_d(cim, im);
  mpf_urandomb(t, r, bits);
  mpf_div_2exp(t, t, shift);
  mpf_add(cre, cre, t);
  mpf_urandomb(t, r, bits);
  mpf_div_2exp(t, t, shift);
  if (lower)
    mpf_sub(cim, cim, t);
  else
    mpf_add(cim, cim, t);
  mpf_clear(t);
  gmp_randclear(r);
}

// A point inside the main cardioid (multiplier 0.95 e^i) whose low limbs are
// all busy: the orbit creeps to its fixed point and never escapes.
inline void insidepoint(mpf_ptr cre, mpf_ptr cim, mp_bitcnt_t bits, unsigned long seed) {
  busypoint(cre, cim, bits, seed, 0.35054, 0.19454, 70, true);
}

}  // namespace computertest
