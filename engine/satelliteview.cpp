// The view's side of the satellite search: starting it, publishing its
// result for drawing and the navigator, re-basing it onto a new environment,
// reading it in the display's coordinates, and the target of a jump.
#include <algorithm>
#include <climits>
#include <cmath>

#include "satellite.h"

namespace {

constexpr unsigned int E_REFERENCEMASK = E_SERIES | E_PERIODIC;
constexpr uint32_t RINGMASK = NCOORDINATESYSTEM - 1;
// The scan's budget: iterations of the centre looked at for candidates.
constexpr ITER SATMAXITER = 1 << 20;
// A centre is final when its last step is below this fraction of a pixel.
constexpr int SATFINALBITS = 3;

bool hasreference(const ENVIRONMENT* e) {
  return e && (e->flags & E_REFERENCEMASK) != E_PERIODIC;
}

bool zero(HFLOATCOMPLEX v) { return v.mantissax == 0 && v.mantissay == 0; }

int pixelexponent(const VIEWPORT* v) {
  int ze = v->zoomabs.mantissa ? ilogbHF(v->zoomabs) : 0;
  int r = v->resolution > 1 ? std::ilogb(static_cast<double>(v->resolution)) : 0;
  return -ze - r - SATFINALBITS;
}

// old.c - new.c, with a missing reference counting as 0.
HFLOATCOMPLEX basedifference(const ENVIRONMENT* from, const ENVIRONMENT* to) {
  bool f = hasreference(from), t = hasreference(to);
  if (!f && !t) return CZEROH;
  mp_bitcnt_t bits = 64;
  if (f) bits = std::max<mp_bitcnt_t>(bits, mpf_get_prec(from->c->v[0]));
  if (t) bits = std::max<mp_bitcnt_t>(bits, mpf_get_prec(to->c->v[0]));
  mpf_t d;
  mpf_init2(d, bits + 64);
  HFLOAT part[2];
  for (int k = 0; k < 2; k++) {
    if (f) mpf_set(d, from->c->v[k]);
    else mpf_set_ui(d, 0);
    if (t) mpf_sub(d, d, to->c->v[k]);
    part[k] = mpf_get_HF(d);
  }
  mpf_clear(d);
  return cHF(part[0], part[1]);
}

void releasecalcsat(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  if (worker->pdata[1]) detache(context, static_cast<ENVIRONMENT*>(worker->pdata[1]));
  if (worker->pdata[2]) detachhpv(context, static_cast<HPVALUE*>(worker->pdata[2]));
  freeworker(context, worker);
  detachviewport(context, v);
}

}  // namespace

// ---------------------------------------------------------------- the search's messages

bool postcalcsat(OVCONTEXT* context, VIEWPORT* v) {
  if (v->sat_worker || !v->delta || atomicload(&context->grmain.stop)) return false;
  WORKER* w = addworker(context, THREAD_WORKER, worker_calcsat);
  if (!w) return false;
  ENVIRONMENT* e = v->sat_e;
  w->pdata[0] = v;
  attachviewport(v);
  w->pdata[1] = e;
  if (e) attache(e);
  w->pdata[2] = v->delta;
  attachhpv(v->delta);
  w->hdata[0] = getrelativepos(v->delta->v[0], v->delta->v[1], e);
  w->hdata[1] = v->zoom;
  w->idata[0] = v->sat_e_prec;
  w->idata[1] = SATMAXITER;
  w->idata[2] = pixelexponent(v);
  w->idata[3] = static_cast<ITER>(v->resolution >> 3);
  w->prio = 0;
  v->sat_worker = w;
  dispatch(context, w);
  return true;
}

void startsatellites(OVCONTEXT* context, VIEWPORT* v) {
  if (!(v->flags & VP_SATELLITES) || v->sat_worker) return;
  // Against the view's periodic environment when it has one, else against
  // its standard orbit, as deep as the scan found it good.
  if (v->esat)
    changesate(context, v, v->esat, v->precsat);
  else
    changesate(context, v, v->enonsat, -1);
  postcalcsat(context, v);
}

void worker_calcsat(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  if (!atomicload(&worker->stop))
    calcsat(context, static_cast<ENVIRONMENT*>(worker->pdata[1]), worker->idata[0],
            worker->idata[1], &v->sat_info_info, &v->sat_info, worker->idata[2],
            worker->hdata[0], worker->hdata[1], worker, worker->idata[3]);
  worker->workerproc = worker_calcsat_return;
  worker->recipient = THREAD_MAIN;
  dispatch(context, worker);
}

void worker_calcsat_return(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(worker->pdata[1]);
  HPVALUE* searched = static_cast<HPVALUE*>(worker->pdata[2]);
  bool stopped = atomicload(&worker->stop);
  if (!stopped) {
    // Offsets from the present centre, so that drawing needs no environment.
    spinlocklock(&v->spdelta);
    HFLOATCOMPLEX base = v->delta ? getrelativepos(v->delta->v[0], v->delta->v[1], e) : CZEROH;
    int n = std::min(v->sat_info.n, NSATINFO);
    for (int i = 0; i < n; i++) {
      v->sat_infocopy.sat[i] = v->sat_info.sat[i];
      v->sat_infocopy.sat[i].c = csubHF(v->sat_info.sat[i].c, base);
    }
    v->sat_infocopy.n = n;
    spinlockunlock(&v->spdelta);
  }
  if (v->sat_worker == worker) v->sat_worker = nullptr;
  // A search overtaken by a move that has already ended is made again: the
  // move's own end found it still running and started none.
  bool again = (v->flags & VP_SATELLITES) && !(v->flags & VP_MOVING) && v->priority != 0 &&
               (stopped || searched != v->delta);
  releasecalcsat(context, worker);
  if (again) postcalcsat(context, v);
}

// ---------------------------------------------------------------- the view's side

void changesate(OVCONTEXT* context, VIEWPORT* v, ENVIRONMENT* e, int prec) {
  v->sat_e_prec = prec;
  ENVIRONMENT* old = v->sat_e;
  if (e == old) return;
  if (e) attache(e);
  v->sat_e = e;
  // A search in flight writes `sat_info` in the old base: it is dropped.
  if (WORKER* w = v->sat_worker) atomicstore(&w->stop, true);
  else {
    HFLOATCOMPLEX b = basedifference(old, e);
    for (int i = 0; i < v->sat_info.n && i < NSATINFO; i++) {
      SATRECORD& s = v->sat_info.sat[i];
      if (zero(s.c)) {
        s.c = b;
      } else {
        s.c = caddHF(s.c, b);
        s.iter = 0;
      }
    }
  }
  if (old) detache(context, old);
}

void getsat(OVCONTEXT*, VIEWPORT* v, std::complex<double>* csat, ITER* iter, int* nsat) {
  HFLOATCOMPLEX s[NSATINFO];
  spinlocklock(&v->spdelta);
  int n = std::min(v->sat_infocopy.n, NSATINFO);
  for (int i = 0; i < n; i++) {
    s[i] = cmulHF(v->sat_infocopy.sat[i].c, v->zoom);
    iter[i] = v->sat_infocopy.sat[i].iter;
  }
  uint32_t from = v->icursystem;
  spinlockunlock(&v->spdelta);
  uint32_t to = atomicload(&v->icoordinatesystem);
  for (uint32_t k = from; k != to; k++)
    for (int i = 0; i < n; i++)
      s[i] = cmulHF(csubHF(s[i], v->coordinatesystem[k & RINGMASK]), v->zoomsystem[k & RINGMASK]);
  for (int i = 0; i < n; i++) csat[i] = cdHF(s[i]);
  *nsat = n;
}

// Called by the move under `spdelta`.
bool satellitetarget(OVCONTEXT*, VIEWPORT* v, HFLOATCOMPLEX* zoom, HPVALUE** point) {
  bool julia = v->realm->type == JULIA;
  ENVIRONMENT* e = julia ? v->realm->e : v->esat;
  if (!e) return false;
  // The atom's radius; in the Julia plane, the radius of the disc its series
  // carries.
  HFLOAT r = julia ? e->r4 : e->r2;
  if (!r.mantissa && !julia) r = ldexpHF(e->tmpr2, -1);
  if (!r.mantissa) return false;
  // A view four atom radii wide stands on the atom; the rotation stays.
  HFLOAT scale = divHF(ONEH, ldexpHF(r, 2));
  HFLOATCOMPLEX turn = v->zoomabs.mantissa ? cdivHF(v->zoom, cHF(v->zoomabs, ZEROH)) : CONEH;
  *zoom = cmulHF2(turn, scale);
  *point = julia ? nullptr : e->c;
  // The offsets of the old centre mean nothing at the new one.
  v->sat_infocopy.n = 0;
  if (WORKER* w = v->sat_worker) atomicstore(&w->stop, true);
  return true;
}

