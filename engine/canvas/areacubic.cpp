// canvas/areacubic.cpp: the area's cubic start, grown along the
// environment's orbit with a bound on its remainder.
//
// Around the area's centre c0 the deviation is d(u) = b0 + b1 u + b2 u^2 +
// b3 u^3 + r(u), u = dc - c0, |u| <= rho. One step of z^2 + c takes it to
//   d' = 2 X d + d^2 + c0 + u,
// so b0' = (2 X + b0) b0 + c0, b1' = W b1 + 1, b2' = W b2 + b1^2,
// b3' = W b3 + 2 b1 b2 with W = 2 (X + b0), and the remainder becomes
//   r' = W r + 2 (P - b0) r + r^2 + (the terms of P^2 of degree 4 to 6).
// With the coefficients scaled to the disc's edge (s_k = b_k rho^k), E
// bounds |r| on the whole disc:
//   E' = |W| E + 2 (|s1| + |s2| + |s3|) E + E^2
//        + |2 s1 s3 + s2^2| + 2 |s2| |s3| + |s3|^2.
// The cubic is good while E stays below the tolerance times what one step
// moves the deviation, |b1| step. Near a close approach to 0 |W| is small
// and the products of the s_k take over E: that is where it stops.
#include "areacubic.h"

#include <algorithm>

namespace {

HFLOATCOMPLEX orbitpoint(const ENVIRONMENT* e, UITER k) {
  if (e->refdatad) return cHFd(e->refdatad[k].value);
  return e->refdatah[k].value;
}

HFLOAT absHF(HFLOATCOMPLEX z) { return z.mantissax == 0 && z.mantissay == 0 ? ZEROH : cabsHF(z); }

struct CUBIC {
  HFLOATCOMPLEX b0 = CZEROH;  // the centre's own deviation
  HFLOATCOMPLEX s1 = CZEROH, s2 = CZEROH, s3 = CZEROH;
  HFLOAT E = ZEROH;
};

// One step along the orbit point X.
CUBIC advancecubic(const CUBIC& q, HFLOATCOMPLEX X, HFLOATCOMPLEX c0, HFLOATCOMPLEX rho) {
  CUBIC r;
  HFLOATCOMPLEX W = cldexpHF(caddHF(X, q.b0), 1);
  HFLOAT a1 = absHF(q.s1), a2 = absHF(q.s2), a3 = absHF(q.s3);
  r.s1 = caddHF(cmulHF(W, q.s1), rho);
  r.s2 = caddHF(cmulHF(W, q.s2), csqrHF(q.s1));
  r.s3 = caddHF(cmulHF(W, q.s3), cldexpHF(cmulHF(q.s1, q.s2), 1));
  HFLOAT grow = addHF(absHF(W), ldexpHF(addHF(addHF(a1, a2), a3), 1));
  HFLOAT dropped = addHF(absHF(caddHF(cldexpHF(cmulHF(q.s1, q.s3), 1), csqrHF(q.s2))),
                         addHF(ldexpHF(mulHF(a2, a3), 1), mulHF(a3, a3)));
  r.E = addHF(addHF(mulHF(grow, q.E), mulHF(q.E, q.E)), dropped);
  r.b0 = caddHF(cmulHF(caddHF(cldexpHF(X, 1), q.b0), q.b0), c0);
  return r;
}

}  // namespace

ITER areacubic(const ENVIRONMENT* e, HFLOATCOMPLEX centre, HFLOAT radius, HFLOAT gridstep,
               ITER limit, HFLOATCOMPLEX t[NINTERPOLTAYLOR]) {
  if (!e || (!e->refdatad && !e->refdatah) || e->n < 2 || radius.mantissa <= 0) return 0;
  // Sample n is the last the orbit is known to hold in every environment.
  ITER end = static_cast<ITER>(std::min<UITER>(e->n - 1, 0x7FFFFFFF));
  if (limit < end) end = limit;
  const HFLOATCOMPLEX rho = cHF(radius, ZEROH);
  const HFLOAT q = divHF(mulHF(HFd(AREACUBICTOLERANCE), gridstep), radius);
  const HFLOAT four = HFd(4.0);
  CUBIC good;
  ITER n = 0;
  while (n < end) {
    CUBIC next = advancecubic(good, orbitpoint(e, static_cast<UITER>(n)), centre, rho);
    if (lessHF(mulHF(q, absHF(next.s1)), next.E)) break;
    // The centre itself must still be inside: the cubic is not carried
    // past an escape.
    HFLOATCOMPLEX z = caddHF(orbitpoint(e, static_cast<UITER>(n + 1)), next.b0);
    if (lessHF(four, cabsHFs(z))) break;
    good = next;
    n++;
  }
  if (n <= 2) return 0;
  // Back from the scaled coefficients, then re-expanded around the
  // environment's point: P(dc - c0) in powers of dc.
  HFLOATCOMPLEX b1 = cdivHF(good.s1, rho);
  HFLOATCOMPLEX b2 = cdivHF(cdivHF(good.s2, rho), rho);
  HFLOATCOMPLEX b3 = cdivHF(cdivHF(cdivHF(good.s3, rho), rho), rho);
  HFLOATCOMPLEX c0 = centre, c02 = csqrHF(centre), c03 = cmulHF(c02, centre);
  auto times = [](HFLOATCOMPLEX z, double k) { return cmulHF2(z, HFd(k)); };
  t[3] = b3;
  t[2] = csubHF(b2, times(cmulHF(b3, c0), 3));
  t[1] = caddHF(csubHF(b1, times(cmulHF(b2, c0), 2)), times(cmulHF(b3, c02), 3));
  t[0] = csubHF(caddHF(csubHF(good.b0, cmulHF(b1, c0)), cmulHF(b2, c02)), cmulHF(b3, c03));
  return n;
}
