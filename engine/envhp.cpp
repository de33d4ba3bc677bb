// envhp.cpp: the environment's orbit at full precision between checkpoints.
#include "envhp.h"

namespace {

constexpr int HPVSHIFT = 16;  // checkpoints 65536 iterations apart
constexpr UITER HPVSTEP = 1u << HPVSHIFT;

}  // namespace

void calciterhpex(mpf_ptr value, mpf_srcptr c, ITER* iter, ITER maxiter, mp_bitcnt_t precision) {
  mpf_ptr x = value;
  mpf_ptr y = value + 1;
  mpf_t xx, yy, a, t;
  mpf_init2(xx, precision);
  mpf_init2(yy, precision);
  mpf_init2(a, precision);
  mpf_init2(t, precision);
  mpf_mul(xx, x, x);
  mpf_mul(yy, y, y);
  mpf_set_d(a, 4.0);
  mpf_sub(a, a, xx);
  mpf_sub(a, a, yy);
  ITER n = *iter;
  while (n < maxiter && mpf_sgn(a) > 0) {
    mpf_mul(t, x, y);
    mpf_mul_2exp(t, t, 1);
    mpf_add(y, t, c + 1);
    mpf_add(x, xx, c);
    mpf_sub(x, x, yy);
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_set_d(a, 4.0);
    mpf_sub(a, a, xx);
    mpf_sub(a, a, yy);
    n++;
  }
  *iter = n;
  mpf_clear(xx);
  mpf_clear(yy);
  mpf_clear(a);
  mpf_clear(t);
}

bool getenvironmenthpvalueraw(const ENVIRONMENT* e, ITER iter, mpf_ptr value) {
  if (!e || !e->c || iter < 0) return false;
  UITER goal = static_cast<UITER>(iter);
  UITER m = goal;  // the position in the stored orbit
  UITER base = 0;  // iterations before the stored orbit's position 0
  if (e->flags & E_PERIODIC) {
    if (e->n == 0) return false;
    m = goal % e->n;
    base = goal - m;
  } else if (goal >= e->n) {
    return false;
  }
  // The nearest checkpoint below; one that was never stored leaves the run
  // to start from the highest that was.
  int k = static_cast<int>(m >> HPVSHIFT) - 1;
  if (k >= e->nhpv) k = e->nhpv - 1;
  UITER start = 0;
  if (k >= 0 && e->hpv[k]) {
    mpf_set(value, e->hpv[k]->v[0]);
    mpf_set(value + 1, e->hpv[k]->v[1]);
    start = static_cast<UITER>(k + 1) * HPVSTEP;
  } else {
    mpf_set_ui(value, 0);
    mpf_set_ui(value + 1, 0);
  }
  ITER n = static_cast<ITER>(base + start);
  calciterhpex(value, e->c->v[0], &n, iter, mpf_get_prec(value));
  return n == iter;
}
