// Misiurewicz points near the view: parameters whose critical orbit is
// pre-periodic, z_(a+k) = z_a. The centre's orbit is walked with dz/dc; a
// pair of entries whose difference vanishes near the view (by its Newton
// estimate) is refined by Newton's method on z_j - z_i, and the refined
// point's own orbit gives the least pre-period and period.
//
// Pairs (1, 1 + p) are left out: z_(1+p) = z_1 means z_p = 0, a periodic
// centre, whose orbit repeats from every index on and would pass for a
// pre-periodic one.
#include <algorithm>
#include <climits>
#include <vector>

#include "satellite.h"

namespace {

constexpr int NMISTABLE = 1000;
// |z|^2 at which the walk ends: the orbit is gone.
constexpr double MISBOUND = 1e10;
// Entries count as equal at a refined point when their Newton estimate is
// below this fraction of the refinement's accuracy.
constexpr double MISEQUAL = 0.01;
constexpr int MISNEWTON = 64;
constexpr int MISREFINEMENTS = 64;

// z and dz/dc of one entry.
struct ENTRY {
  mpf_t v[4];
};

struct TABLE {
  std::vector<ENTRY> e;
  mpf_t t[4];  // scratch
  mp_bitcnt_t bits;
  explicit TABLE(mp_bitcnt_t precision) : e(NMISTABLE), bits(precision) {
    for (ENTRY& x : e)
      for (mpf_t& m : x.v) {
        mpf_init2(m, bits);
        mpf_set_ui(m, 0);
      }
    for (mpf_t& m : t) mpf_init2(m, bits);
  }
  ~TABLE() {
    for (ENTRY& x : e)
      for (mpf_t& m : x.v) mpf_clear(m);
    for (mpf_t& m : t) mpf_clear(m);
  }
  // Entry j from entry j - 1 at c: z^2 + c and 2 z dz + 1.
  void square(int j, mpf_srcptr cx, mpf_srcptr cy) {
    mpf_t* p = e[j - 1].v;
    mpf_t* q = e[j].v;
    mpf_mul(t[0], p[0], p[0]);
    mpf_mul(t[1], p[1], p[1]);
    mpf_sub(t[0], t[0], t[1]);
    mpf_mul(t[1], p[0], p[1]);
    mpf_mul_2exp(t[1], t[1], 1);
    mpf_mul(t[2], p[0], p[2]);
    mpf_mul(t[3], p[1], p[3]);
    mpf_sub(q[2], t[2], t[3]);
    mpf_mul_2exp(q[2], q[2], 1);
    mpf_add_ui(q[2], q[2], 1);
    mpf_mul(t[2], p[0], p[3]);
    mpf_mul(t[3], p[1], p[2]);
    mpf_add(q[3], t[2], t[3]);
    mpf_mul_2exp(q[3], q[3], 1);
    mpf_add(q[0], t[0], cx);
    mpf_add(q[1], t[1], cy);
  }
  // The walk from z_0 = 0 up to entry `last` (or the first past the bound);
  // returns the last entry made.
  int walk(mpf_srcptr cx, mpf_srcptr cy, int last) {
    for (mpf_t& m : e[0].v) mpf_set_ui(m, 0);
    for (int j = 1; j <= last && j < NMISTABLE; j++) {
      square(j, cx, cy);
      if (dHF(cabsHFs(z(j))) > MISBOUND) return j;
    }
    return std::min(last, NMISTABLE - 1);
  }
  HFLOATCOMPLEX z(int j) const { return cHF(mpf_get_HF(e[j].v[0]), mpf_get_HF(e[j].v[1])); }
  // z_b - z_a and its derivative.
  void difference(int a, int b, HFLOATCOMPLEX* f, HFLOATCOMPLEX* df) {
    HFLOAT part[4];
    for (int k = 0; k < 4; k++) {
      mpf_sub(t[k], e[b].v[k], e[a].v[k]);
      part[k] = mpf_get_HF(t[k]);
    }
    *f = cHF(part[0], part[1]);
    *df = cHF(part[2], part[3]);
  }
  // |z_b - z_a| / |dz_b - dz_a|: how far the root of the difference lies;
  // HFLOAT_MAX when the derivative vanishes.
  HFLOAT estimate(int a, int b) {
    HFLOATCOMPLEX f, df;
    difference(a, b, &f, &df);
    HFLOAT d = cabsHF(df);
    if (!d.mantissa) return HFLOAT_MAX;
    return divHF(cabsHF(f), d);
  }
};

// Newton's method on z_j - z_i from (cx, cy), in place. False when it
// found no root.
bool refine(TABLE& tab, mpf_ptr cx, mpf_ptr cy, int i, int j, int accuracy) {
  mpf_t s[2];
  mpf_init2(s[0], tab.bits);
  mpf_init2(s[1], tab.bits);
  bool ok = false;
  for (int it = 0; it < MISNEWTON; it++) {
    if (tab.walk(cx, cy, j) < j) break;
    HFLOATCOMPLEX f, df;
    tab.difference(i, j, &f, &df);
    if (!df.mantissax && !df.mantissay) break;
    HFLOATCOMPLEX step = cdivHF(f, df);
    mpf_set_HFexact(s[0], crealHF(step));
    mpf_set_HFexact(s[1], cimagHF(step));
    mpf_sub(cx, cx, s[0]);
    mpf_sub(cy, cy, s[1]);
    HFLOAT a = cabsHF(step);
    if (!a.mantissa || ilogbHF(a) < accuracy) {
      ok = true;
      break;
    }
  }
  mpf_clear(s[0]);
  mpf_clear(s[1]);
  return ok && tab.walk(cx, cy, j) >= j;
}

// The least period k and then the least index a >= 1 with z_(a+k) = z_a at
// a refined point whose table reaches entry j. False when none.
bool leastcycle(TABLE& tab, int j, HFLOAT equal, int* a, int* k) {
  for (int p = 1; p < j; p++)
    for (int q = 1; q + p <= j; q++)
      if (lessHF(tab.estimate(q, q + p), equal)) {
        *a = q;
        *k = p;
        return true;
      }
  return false;
}

}  // namespace

HFLOATCOMPLEX findmisiurewiczat(mpf_srcptr x, mpf_srcptr y, HFLOATCOMPLEX zoom,
                                mp_bitcnt_t precision, int* n, int* k) {
  *n = 0;
  *k = 0;
  if (precision < 64) precision = 64;
  TABLE tab(precision);
  const HFLOAT radius = divHF(ONEH, cabsHF(zoom));
  const int accuracy = -static_cast<int>(precision) + 16;
  const HFLOAT equal = mulHF(HFd(MISEQUAL), ldexpHF(ONEH, -static_cast<int>(precision) / 2));
  mpf_t cx, cy, d;
  mpf_init2(cx, precision);
  mpf_init2(cy, precision);
  mpf_init2(d, precision);
  HFLOATCOMPLEX result = CZEROH;
  int refinements = 0;
  // The walk: entry j against every earlier one from 2 on.
  int last = NMISTABLE - 1;
  bool found = false;
  for (int j = 1; j <= last && !found && refinements < MISREFINEMENTS; j++) {
    tab.square(j, x, y);
    if (dHF(cabsHFs(tab.z(j))) > MISBOUND) break;
    int besti = -1;
    HFLOAT best = radius;
    for (int i = 2; i < j; i++) {
      HFLOAT q = tab.estimate(i, j);
      if (lessHF(q, best)) {
        best = q;
        besti = i;
      }
    }
    if (besti < 0) continue;
    // A periodic centre of the same period at least as near: not ours.
    if (!lessHF(best, tab.estimate(1, 1 + j - besti))) continue;
    refinements++;
    mpf_set(cx, x);
    mpf_set(cy, y);
    TABLE work(precision);
    if (!refine(work, cx, cy, besti, j, accuracy)) continue;
    int a, p;
    if (!leastcycle(work, j, equal, &a, &p) || a < 2) continue;
    mpf_sub(d, cx, x);
    HFLOAT rx = mpf_get_HF(d);
    mpf_sub(d, cy, y);
    HFLOAT ry = mpf_get_HF(d);
    HFLOATCOMPLEX off = cHF(rx, ry);
    if (lessHF(radius, cabsHF(off))) continue;  // outside the view
    result = off;
    *n = a - 1;
    *k = p;
    found = true;
  }
  mpf_clear(cx);
  mpf_clear(cy);
  mpf_clear(d);
  return result;
}

HFLOATCOMPLEX findmisiurewicz(OVCONTEXT*, VIEWPORT* viewport, int* n, int* k) {
  *n = 0;
  *k = 0;
  HPVALUE* c = viewport->delta;
  if (!c) return CZEROH;
  spinlocklock(&viewport->spdelta);
  HFLOATCOMPLEX zoom = viewport->zoom;
  spinlockunlock(&viewport->spdelta);
  mp_bitcnt_t bits = std::max<mp_bitcnt_t>(viewport->precision, mpf_get_prec(c->v[0])) + 64;
  return findmisiurewiczat(c->v[0], c->v[1], zoom, bits, n, k);
}
