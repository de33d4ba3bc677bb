// The display's hand-over: the newest finished draw list of a viewport and
// the transforms that show it now. A list was built in one coordinate step of
// the ring; the steps written since, the navigator's gathered motion and its
// extrapolation to the frame's time carry it to the screen as it is at this
// moment, so the picture follows the user at frame rate however rarely the
// engine finishes a list.
//
// Threads: the GL thread. It takes `spdelta` and then `nav_spdelta`, each for
// copies only and never both at once.
#include <gmp.h>

#include <cmath>

#include "Mandelbrot.h"

namespace {

constexpr uint32_t RINGMASK = NCOORDINATESYSTEM - 1;

// Folds ring steps `from` up to `to` into the map p -> zoom * (p - delta).
void foldring(const VIEWPORT* v, uint32_t from, uint32_t to, HFLOATCOMPLEX* delta,
              HFLOATCOMPLEX* zoom) {
  for (uint32_t k = from; k != to; k++) {
    *delta = caddHF(*delta, cdivHF(v->coordinatesystem[k & RINGMASK], *zoom));
    *zoom = cmulHF(*zoom, v->zoomsystem[k & RINGMASK]);
  }
}

// One point of the plane, exact in `x`, `y`, on the screen of the applied
// step; 64 bits are plenty, since only the difference to the centre counts.
complexd planetoscreen(mpf_srcptr x, mpf_srcptr y, const HPVALUE* centre, HFLOATCOMPLEX zoom) {
  mpf_t t[2];
  mpf_srcptr p[2] = {x, y};
  HFLOAT part[2];
  for (int k = 0; k < 2; k++) {
    mpf_init2(t[k], 64);
    mpf_sub(t[k], p[k], centre->v[k]);
    part[k] = mpf_get_HF(t[k]);
    mpf_clear(t[k]);
  }
  return cdHF(cmulHF(cHF(part[0], part[1]), zoom));
}

struct NAVCOPY {
  uint32_t icoordinatesystem;
  complexd zoom, delta, Ddelta, Dlogzoom;
  double time;
  bool moving;
};

NAVCOPY copynavigator(VIEWPORT* v) {
  NAVCOPY n;
  spinlocklock(&v->nav_spdelta);
  n.icoordinatesystem = atomicload(&v->icoordinatesystem);
  n.zoom = v->nav_zoom;
  n.delta = v->nav_delta;
  n.Ddelta = v->nav_Ddelta;
  n.Dlogzoom = v->nav_Dlogzoom;
  n.time = v->nav_time;
  n.moving = v->nav_moving;
  v->nav_invalid = false;
  spinlockunlock(&v->nav_spdelta);
  return n;
}

// The motion of the navigator between its ticks, as a shift S (in screen
// units of the present picture) and a zoom factor E, `t` seconds after the
// last tick. The shift integrates the velocity under the growing zoom, so a
// steady zoom into a point stays on that point; near E = 1 the closed form
// loses its digits and the plain product serves.
void extrapolate(const NAVCOPY& n, double t, double interval, complexd* S, complexd* E) {
  *E = std::exp(n.Dlogzoom / interval * t);
  if (std::abs(*E - 1.0) < 0.001) {
    *S = n.Ddelta / interval * t;
  } else {
    complexd F = std::exp(n.Dlogzoom);
    *S = n.Ddelta * (*E - 1.0) / (F - 1.0) * F / *E;
  }
}

}  // namespace

int getactivelist(OVCONTEXT* context, VIEWPORT* viewport, double time, complexd* delta,
                  complexd* zoom, complexd* delta2, complexd* zoom2, complexd* deltaabs,
                  complexd* zoomabs, COLORSCHEME** cs, complexd* c, int n, complexd* csat,
                  int* nsat) {
  VIEWPORT* v = viewport;
  lockdrawlists(v);
  if (atomicload(&context->grmain.stop) || !atomicload(&v->drawactive)) {
    unlockdrawlists(v);
    return -1;
  }
  int activelist = takedrawlist(v);
  if (activelist == -1) return -1;

  spinlocklock(&v->spdelta);
  *cs = v->schemes[activelist];
  uint32_t icursystem = atomicload(&v->icursystem);
  complexd centre = 0;
  if (v->delta) centre = complexd(mpf_get_d(v->delta->v[0]), mpf_get_d(v->delta->v[1]));
  HFLOATCOMPLEX vzoom = v->zoom;
  if (c && v->delta) {
    for (int i = 0; i < n && 2 * i + 1 < NVIEWPORTMP; i++)
      c[i] = planetoscreen(v->mp[2 * i], v->mp[2 * i + 1], v->delta, vzoom);
  }
  int satcount = v->sat_infocopy.n < NSATINFO ? v->sat_infocopy.n : NSATINFO;
  if (csat)
    for (int i = 0; i < satcount; i++) csat[i] = cdHF(cmulHF(v->sat_infocopy.sat[i].c, vzoom));
  if (nsat) *nsat = satcount;
  spinlockunlock(&v->spdelta);

  NAVCOPY nav = copynavigator(v);

  HFLOATCOMPLEX d = CZEROH, z = CONEH;
  foldring(v, v->cslist[activelist], nav.icoordinatesystem, &d, &z);
  HFLOATCOMPLEX da = CZEROH, za = vzoom;
  foldring(v, icursystem, nav.icoordinatesystem, &da, &za);
  complexd dd = cdHF(d), zd = cdHF(z);
  complexd dad = centre + cdHF(da), zad = cdHF(za);
  dd += nav.delta / zd;
  zd *= nav.zoom;
  if (zad != 0.0) dad += nav.delta / zad;
  zad *= nav.zoom;
  complexd d2 = nav.delta, z2 = nav.zoom;

  if (time != 0 && nav.moving && nav.time != 0) {
    complexd S, E;
    extrapolate(nav, time - nav.time, v->nav_interval, &S, &E);
    dd += S / zd;
    zd *= E;
    d2 += S / z2;
    z2 *= E;
    if (zad != 0.0) dad += S / zad;
    zad *= E;
  }
  *delta = dd;
  *zoom = zd;
  *delta2 = d2;
  *zoom2 = z2;
  *deltaabs = dad;
  *zoomabs = zad;
  return activelist;
}
