// The independent orbit of the Newton and satellite checks: one step of
// z -> z^2 + c together with dz/dc -> 2 z dz/dc + 1, in plain mpf, written
// apart from the engine's graphs so that the checks do not share its
// arithmetic. a, b and t are scratch numbers of the caller's precision.
#pragma once

#include <gmp.h>

namespace mpforbit {

inline void step(mpf_ptr zx, mpf_ptr zy, mpf_ptr dx, mpf_ptr dy, mpf_srcptr cx, mpf_srcptr cy,
                 mpf_ptr a, mpf_ptr b, mpf_ptr t) {
  mpf_mul(a, zx, dx);
  mpf_mul(b, zy, dy);
  mpf_sub(t, a, b);
  mpf_mul(a, zx, dy);
  mpf_mul(b, zy, dx);
  mpf_add(dy, a, b);
  mpf_mul_2exp(dy, dy, 1);
  mpf_mul_2exp(dx, t, 1);
  mpf_add_ui(dx, dx, 1);
  mpf_mul(a, zx, zx);
  mpf_mul(b, zy, zy);
  mpf_sub(t, a, b);
  mpf_mul(a, zx, zy);
  mpf_mul_2exp(zy, a, 1);
  mpf_add(zy, zy, cy);
  mpf_add(zx, t, cx);
}

}  // namespace mpforbit
