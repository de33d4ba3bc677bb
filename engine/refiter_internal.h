// refiter_internal.h: what the files of the reference iteration share and no
// one else needs: small HFLOAT helpers and the end of an escaped run.
#pragma once

#include "refiter.h"

namespace refiter {

inline HFLOAT rootHF(HFLOAT a) { return a.mantissa == 0 ? ZEROH : sqrtHF(a); }
inline HFLOATCOMPLEX twiceHF(HFLOATCOMPLEX z) {
  if (z.mantissax == 0 && z.mantissay == 0) return z;
  return cldexpHF(z, 1);
}

// Squared modulus at which an escaped orbit is stopped for its distances.
constexpr double DISTANCERADIUS2 = 100000;

// Clears the results of `info` before a run.
void clearresults(ITERINFO* info);

// The point `c` (absolute, HFLOAT) escaped at iteration `iter` with z, dz/dc
// and dz/dz_1: records the count, follows the orbit to |z|^2 > 10^5 and sets
// the distances.
void finishescape(ITERINFO* info, ITER iter, HFLOATCOMPLEX c, HFLOATCOMPLEX z, HFLOATCOMPLEX dzm,
                  HFLOATCOMPLEX dzj);

}  // namespace refiter
