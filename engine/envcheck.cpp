// Whether a periodic environment can serve a view or a level of the Julia
// stack, and with how many series terms; and the anchoring of a stack level
// to an environment.
//
// Threads. The two checks only read the environment and run on any thread
// that holds a reference to it, each with a scratch number of its own.
// `setenvironment` changes a stack level and its references: main thread.
#include <algorithm>
#include <cstdio>

#include "Mandelbrot.h"
#include "canvas/period.h"
#include "idle.h"
#include "refiter.h"

namespace {

constexpr int D = NTAYLORDEGREE;

HFLOAT sqrHF(HFLOAT a) { return mulHF(a, a); }

// (x, y) - e.c, each part taken in mpf and only then reduced.
HFLOATCOMPLEX offsetfrom(mpf_ptr scratch, const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y) {
  mpf_sub(scratch, x, e->c->v[0]);
  HFLOAT dx = mpf_get_HF(scratch);
  mpf_sub(scratch, y, e->c->v[1]);
  HFLOAT dy = mpf_get_HF(scratch);
  return cHF(dx, dy);
}

// What the series test needs of the region: the view's scale as a complex
// number (its modulus is the inverse half-size), the pixel count across, the
// atom-size radius for the z-powers and the code of a column that needs its
// last terms.
struct REGION {
  HFLOATCOMPLEX zoom;
  double resolution;
  HFLOAT r;
  int columnfail;
};

// v_i = sum_j taylor[i + 7j] X^j by Horner: the z-series of one period at
// this very c.
HFLOATCOMPLEX zcoefficient(const ENVIRONMENT* e, int i, HFLOATCOMPLEX X) {
  HFLOATCOMPLEX v = e->taylor[i + D * (D - 1)];
  for (int j = D - 2; j >= 0; j--) v = caddHF(cmulHF(v, X), e->taylor[i + D * j]);
  return v;
}

// The depth the z-powers need at pixel accuracy; -1 when even the fifth or
// sixth power still reaches a pixel.
int zdepth(const ENVIRONMENT* e, HFLOATCOMPLEX X, const REGION& g) {
  HFLOAT t[D];
  HFLOAT q = mulHF(g.r, cabsHF(e->scalez));
  q = sqrHF(sqrHF(q));
  HFLOAT p = ONEH;
  for (int i = 0; i < D; i++) {
    t[i] = mulHF(cabsHFs(zcoefficient(e, i, X)), p);
    p = ldexpHF(mulHF(p, q), 2);
  }
  HFLOAT res2 = HFd(g.resolution * g.resolution);
  HFLOAT bound = divHF(cabsHFs(zcoefficient(e, 1, X)), mulHF(cabsHFs(g.zoom), res2));
  if (!lessHF(t[6], bound) || !lessHF(t[5], bound)) return -1;
  for (int i = 4; i >= 0; i--)
    if (!lessHF(t[i], bound)) return (i > 1 ? i : 1) + 1;
  return 2;
}

// Columns by rising z-power: each that a series of the depth reached would
// read raises the depth to what its c-terms need.
int seriestest(const ENVIRONMENT* e, HFLOATCOMPLEX delta, const REGION& g) {
  HFLOATCOMPLEX X = cmulHF(delta, e->scalec);
  HFLOATCOMPLEX scale = cdivHF(g.zoom, e->scalec);
  int precs[D];
  for (int i = 0; i < D; i++) precs[i] = accurateprec(&e->taylor[i], D, X, scale, D, g.resolution);
  int m = zdepth(e, X, g);
  if (m < 0) return -1;
  if (precs[0] == -1 || precs[1] == -1) return g.columnfail;
  m = std::max(m, std::max(precs[0], precs[1]));
  for (int k = 2; k < D; k++) {
    if (m == k) return k + 1;
    if (precs[k] == -1) return g.columnfail;
    m = std::max(m, precs[k]);
  }
  return m + 1;
}

}  // namespace

int checkenvironment(mpf_ptr scratch, const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y,
                     HFLOATCOMPLEX zoom, double resolution) {
  if (!(e->flags & E_PERIODIC)) {
    fputs("checkenvironment: Not supported!\n", stderr);
    return -1;
  }
  HFLOATCOMPLEX delta = offsetfrom(scratch, e, x, y);
  HFLOAT view2 = divHF(ONEH, cabsHFs(zoom));
  HFLOAT far2 = mulHF(HFd(1e18), view2);
  HFLOAT d2 = cabsHFs(delta);
  HFLOAT r12 = sqrHF(e->r1);
  if (lessHF(r12, view2)) return -4;
  if (lessHF(far2, sqrHF(e->r2))) return -2;
  if (lessHF(far2, d2)) return -5;
  if (e->n == 1) return 2;
  if (lessHF(r12, d2)) return -3;
  return seriestest(e, delta, REGION{zoom, resolution, e->r2, -6});
}

int checkenvironmentjulia(mpf_ptr scratch, const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y,
                          int s, double resolution) {
  if (!(e->flags & E_PERIODIC)) {
    fputs("checkenvironmentjulia: Not supported!\n", stderr);
    return -1;
  }
  HFLOAT level2 = ldexpHF(ONEH, -2 * s);
  HFLOAT r32 = sqrHF(e->r3);
  if (lessHF(r32, level2)) return -4;
  if (lessHF(mulHF(HFd(1e20), level2), sqrHF(e->r4))) return -2;
  if (e->n == 1) return 2;
  HFLOATCOMPLEX delta = offsetfrom(scratch, e, x, y);
  if (lessHF(r32, cabsHFs(delta))) return -3;
  HFLOAT zoom = ldexpHF(ONEH, s);
  return seriestest(e, delta, REGION{cHF(zoom, ZEROH), resolution, e->r4, -5});
}

namespace {

// The interior distance estimate overstates the distance to the boundary by
// at most four; the areas a view files reach past its screen by about their
// own size. 32 half-sizes leave every area's point inside with room.
constexpr double HOLDMARGIN = 32;
// The canvases' formats keep 52 bits of a point or more: what their rounding
// may move it.
constexpr double HOLDROUNDING = 0x1p-46;
constexpr UITER HOLDMAXPERIOD = 1024;

}  // namespace

bool environmentholdsview(const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y, HFLOATCOMPLEX zoom) {
  return !(e->flags & E_SERIES) && atomholdsview(e, x, y, zoom);
}

bool atomholdsview(const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y, HFLOATCOMPLEX zoom) {
  if (!(e->flags & E_PERIODIC) || e->n < 1) return false;
  // The test costs up to 30 periods of steps on the caller's thread: no
  // longer period is looked at.
  if (e->n > HOLDMAXPERIOD) return false;
  HFLOAT scale = cabsHF(zoom);
  if (scale.mantissa == 0) return false;
  HFLOAT half = divHF(ONEH, scale);
  HFLOATCOMPLEX c0 = cHF(mpf_get_HF(x), mpf_get_HF(y));
  HFLOATCOMPLEX c = c0, m = CZEROH, dc = CZEROH;
  HFLOAT d = ZEROH;
  ITER n = static_cast<ITER>(e->n);
  // The grid step of the divisor test: far below the view, so that only a
  // cycle that truly closes after fewer steps counts as a smaller period.
  int depth = ilogbHF(half) - 16;
  ITER p = checkperiod_hfloat(depth, &c, n, n + 1, 0, true, nullptr, nullptr, &d, nullptr, &m,
                              &dc, nullptr);
  if (p != n) return false;
  HFLOAT need = addHF(mulHF(HFd(HOLDMARGIN), half), mulHF(HFd(HOLDROUNDING), cabsHF(c0)));
  return lessHF(need, d);
}

bool setenvironment(OVCONTEXT* context, REALM* realm, int i, ENVIRONMENT* e) {
  JULIASTACKDATA* jstd = &realm->juliastack[i];
  if (jstd->e == e) return true;
  if (!jstd->m) {
    jstd->mr = CZEROH;
    return false;
  }
  mpf_t scratch;
  mpf_init2(scratch, 64);
  mpf_sub(scratch, jstd->m->v[0], e->c->v[0]);
  HFLOAT re = mpf_get_HF(scratch);
  mpf_sub(scratch, jstd->m->v[1], e->c->v[1]);
  HFLOAT im = mpf_get_HF(scratch);
  mpf_clear(scratch);
  HFLOATCOMPLEX mr = cHF(re, im);
  bool leaning = re.mantissa != 0 && ilogbHF(re) >= ilogbHF(im);
  bool serves = ((e->flags & E_PERIODIC) || leaning) && e->mini <= i && i <= e->maxi &&
                realm->validjuliastack < i;
  if (serves) {
    jstd->bypass = false;
  } else if (jstd->bypass) {
    // A bypass level keeps its own data; only the anchor changes.
    detache(context, jstd->e);
    attache(e);
    jstd->e = e;
    jstd->mr = mr;
    return true;
  }
  HFLOATCOMPLEX value;
  if (!calciterenvironment(context, e, 2 - i - context->juliasizeshift, mr, jstd->iter, &value))
    return false;
  jstd->taylorj[0] = value;
  detache(context, jstd->e);
  attache(e);
  jstd->e = e;
  jstd->mr = mr;
  return true;
}
