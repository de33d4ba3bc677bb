// canvas/periodstrides.cpp: the table of linear runs along one period.
#include "canvas/periodstrides.h"

#include <cstdlib>

namespace {

HFLOAT minHF(HFLOAT a, HFLOAT b) { return lessHF(a, b) ? a : b; }

bool iszero(HFLOATCOMPLEX z) { return z.mantissax == 0 && z.mantissay == 0; }

// One step from orbit index k: linear while |delta| stays below
// STRIDELINEAR |X_k|, and inside the escape radius while it stays below an
// eighth of the margin a = 4 - |X_k|^2 (then |X_k + delta|^2 < |X_k|^2 + a/2).
PERIODSTRIDE onestep(const ENVIRONMENT* e, UITER k) {
  HFLOATCOMPLEX X;
  HFLOAT a;
  if (e->refdatah) {
    X = e->refdatah[k].value;
    a = e->refdatah[k].a;
  } else {
    X = cHFd(e->refdatad[k].value);
    a = HFd(e->refdatad[k].a);
  }
  PERIODSTRIDE s;
  s.A = cldexpHF(X, 1);
  if (iszero(X)) s.A = CZEROH;
  s.B = CONEH;
  HFLOAT r = iszero(X) || a.mantissa <= 0 ? ZEROH
                                           : minHF(mulHF(cabsHF(X), HFd(STRIDELINEAR)), ldexpHF(a, -3));
  s.R2 = mulHF(r, r);
  return s;
}

void setlongdouble(PERIODSTRIDE* s) { s->R2l = dlHF(s->R2); }

// The run `first` then `second`. The second is valid from where the first
// leaves the difference, at most |A1| |delta| + |B1| |dc| away.
PERIODSTRIDE chain(const PERIODSTRIDE& first, const PERIODSTRIDE& second, HFLOAT dcbound) {
  PERIODSTRIDE s;
  s.A = cmulHF(second.A, first.A);
  s.B = caddHF(cmulHF(second.A, first.B), second.B);
  HFLOAT r2 = sqrtHF(second.R2);
  HFLOAT left = subHF(r2, mulHF(cabsHF(first.B), dcbound));
  if (left.mantissa <= 0) {
    s.R2 = ZEROH;
    return s;
  }
  if (iszero(first.A)) {
    s.R2 = first.R2;
    return s;
  }
  HFLOAT r = divHF(left, cabsHF(first.A));
  s.R2 = minHF(first.R2, mulHF(r, r));
  return s;
}

bool reserve(PERIODSTRIDES* s, size_t n) {
  if (n <= s->capacity) return true;
  void* p = std::realloc(s->run, n * sizeof(PERIODSTRIDE));
  if (!p) return false;
  s->run = static_cast<PERIODSTRIDE*>(p);
  s->capacity = n;
  return true;
}

}  // namespace

bool makeperiodstrides(PERIODSTRIDES* s, const ENVIRONMENT* e, HFLOAT dcbound) {
  if (!e || !(e->flags & E_PERIODIC) || e->n < 2 || e->n > STRIDEMAXPERIOD) return false;
  if (!e->refdatah && !e->refdatad) return false;
  if (s->e == e && s->period == e->n && s->dcbound.mantissa == dcbound.mantissa &&
      s->dcbound.exponent == dcbound.exponent)
    return s->levels > 0;
  const UITER period = e->n;
  size_t total = 0;
  int levels = 0;
  for (UITER len = 1; len <= period && levels < STRIDEMAXLEVELS; len <<= 1, levels++) {
    s->start[levels] = total;
    total += period / len;
  }
  s->start[levels] = total;
  s->e = e;
  s->period = period;
  s->dcbound = dcbound;
  s->levels = 0;
  if (!reserve(s, total)) return false;
  for (UITER k = 0; k < period; k++) s->run[k] = onestep(e, k);
  for (int l = 1; l < levels; l++) {
    const PERIODSTRIDE* below = s->run + s->start[l - 1];
    PERIODSTRIDE* here = s->run + s->start[l];
    size_t n = s->start[l + 1] - s->start[l];
    for (size_t i = 0; i < n; i++) here[i] = chain(below[2 * i], below[2 * i + 1], dcbound);
  }
  for (size_t i = 0; i < total; i++) setlongdouble(&s->run[i]);
  s->levels = levels;
  return true;
}

namespace {

template <typename F>
const PERIODSTRIDE* longest(const PERIODSTRIDES* s, UITER j, UITER room, UITER* steps, F holds) {
  if (s->levels <= 0 || j == 0 || j >= s->period) return nullptr;
  int top = __builtin_ctz(j);
  if (top > s->levels - 1) top = s->levels - 1;
  for (int l = top; l >= 0; l--) {
    UITER len = UITER(1) << l;
    if (len > room) continue;
    size_t i = j >> l;
    if (s->start[l] + i >= s->start[l + 1]) continue;
    const PERIODSTRIDE* r = s->run + s->start[l] + i;
    if (holds(*r)) {
      *steps = len;
      return r;
    }
  }
  return nullptr;
}

}  // namespace

const PERIODSTRIDE* longestperiodstride(const PERIODSTRIDES* s, UITER j, UITER room, HFLOAT delta2,
                                        UITER* steps) {
  return longest(s, j, room, steps, [&](const PERIODSTRIDE& r) {
    return r.R2.mantissa > 0 && lessHF(delta2, r.R2);
  });
}

const PERIODSTRIDE* longestperiodstride(const PERIODSTRIDES* s, UITER j, UITER room,
                                        long double delta2, UITER* steps) {
  return longest(s, j, room, steps, [&](const PERIODSTRIDE& r) { return delta2 < r.R2l; });
}

void resetperiodstrides(PERIODSTRIDES* s) {
  s->e = nullptr;
  s->levels = 0;
}

void freeperiodstrides(PERIODSTRIDES* s) {
  std::free(s->run);
  s->run = nullptr;
  s->capacity = 0;
  resetperiodstrides(s);
}
