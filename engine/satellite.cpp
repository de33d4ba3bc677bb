// The satellite search: the periods at which the view centre's orbit comes
// nearer 0 than ever before are the periods of the components whose atom
// domains the centre lies in; a few Newton steps from the centre at each of
// them find the components' centres.
#include <algorithm>
#include <climits>

#include "refiter.h"
#include "satellite.h"

namespace {

constexpr unsigned int E_REFERENCEMASK = E_SERIES | E_PERIODIC;

bool isreference(const ENVIRONMENT* e) {
  return e && (e->flags & E_REFERENCEMASK) != E_PERIODIC && e->refdatah;
}

// Binary exponent of a size, far below everything for 0.
int exponentof(HFLOAT v) { return v.mantissa ? ilogbHF(v) : INT_MIN / 2; }
int exponentof(HFLOATCOMPLEX v) { return exponentof(cabsHF(v)); }

bool zero(HFLOATCOMPLEX v) { return v.mantissax == 0 && v.mantissay == 0; }

// One orbit point of the centre: against the environment's orbit, or from
// z = 0 when there is no reference.
struct ORBIT {
  const ENVIRONMENT* e;
  bool reference;
  bool periodic;
  UITER length;
  HFLOATCOMPLEX dc;
  HFLOATCOMPLEX delta = CZEROH;  // deviation from the reference, or z itself
  HFLOATCOMPLEX dz = CZEROH;
  UITER k = 0;  // index in the reference's orbit

  ORBIT(const ENVIRONMENT* env, HFLOATCOMPLEX c) : e(env), dc(c) {
    reference = isreference(e);
    periodic = reference && (e->flags & E_SERIES);
    length = reference ? std::min<UITER>(e->n ? e->n : 1, static_cast<UITER>(e->nrefdata)) : 0;
    if (periodic) length = e->n;
  }
  HFLOATCOMPLEX z() const { return reference ? caddHF(e->refdatah[k].value, delta) : delta; }
  // False when the reference's orbit has ended or no longer carries the
  // point.
  bool step() {
    HFLOATCOMPLEX zk = z();
    dz = caddHF(cmulHF(cldexpHF(zk, 1), dz), CONEH);
    if (!reference) {
      delta = caddHF(csqrHF(zk), dc);
      return true;
    }
    HFLOATCOMPLEX zr = e->refdatah[k].value;
    delta = caddHF(caddHF(cmulHF(cldexpHF(zr, 1), delta), csqrHF(delta)), dc);
    if (++k >= length) {
      if (!periodic) return false;
      k = 0;
    }
    // A value far below its own deviation has lost its digits.
    return !lessHF(ldexpHF(cabsHFs(z()), 100), cabsHFs(delta));
  }
};

// A centre already kept: a candidate at a multiple of a component's period
// comes back to that component, whose period is the smaller one.
bool known(const SATINFO* satinfo, const SATRECORD& s, int depth) {
  HFLOAT close = ldexpHF(ONEH, depth + 4);
  for (int i = 0; i < satinfo->n; i++)
    if (lessHF(cabsHF(csubHF(satinfo->sat[i].c, s.c)), close)) return true;
  return false;
}

}  // namespace

ITER satcandidates(OVCONTEXT*, ENVIRONMENT* e, ITER maxiter, HFLOATCOMPLEX delta,
                   HFLOATCOMPLEX zoom, int satsize, SATINFO* satinfo, HFLOATCOMPLEX* zlast) {
  satinfo->n = 0;
  const int capacity = std::clamp(satsize, 0, NSATINFO);
  const HFLOAT reach = divHF(HFd(2), cabsHF(zoom));  // two screen radii
  ORBIT o(e, delta);
  HFLOAT best = HFLOAT_MAX;
  ITER escaped = 0;
  for (ITER k = 1; k <= maxiter; k++) {
    if (!o.step()) break;
    HFLOATCOMPLEX z = o.z();
    HFLOAT r2 = cabsHFs(z);
    if (lessHF(FOURH, r2)) {
      escaped = k;
      break;
    }
    if (!lessHF(r2, best)) continue;
    best = r2;
    if (satinfo->n >= capacity || zero(o.dz)) continue;
    HFLOATCOMPLEX step = cdivHF(z, o.dz);
    if (lessHF(reach, cabsHF(step))) continue;
    SATRECORD& s = satinfo->sat[satinfo->n++];
    s.iter = k;
    s.c = csubHF(delta, step);
    s.precision = exponentof(step);
    s.v = z;
    s.d = o.dz;
  }
  if (zlast) *zlast = o.z();
  return escaped;
}

void calcsat(OVCONTEXT* context, ENVIRONMENT* e, int prec, ITER maxiter, ITERINFO* info,
             SATINFO* satinfo, int depth, HFLOATCOMPLEX delta, HFLOATCOMPLEX zoom, WORKER* worker,
             int satsize) {
  SATINFO cand;
  HFLOATCOMPLEX zlast = CZEROH;
  ITER escaped = satcandidates(context, e, maxiter, delta, zoom, satsize, &cand, &zlast);
  if (info) {
    info->iter = escaped;
    info->z = zlast;
  }
  satinfo->n = 0;
  if (cand.n < 1) return;
  const int ze = exponentof(zoom);
  const bool periodic = e && (e->flags & E_PERIODIC);
  for (int i = 0; i < cand.n; i++) {
    SATRECORD s = cand.sat[i];
    for (int steps = 0;; steps++) {
      int o = exponentof(csubHF(s.c, delta));
      if (periodic && o <= -3 - ze) break;  // the view's own centre
      if (worker && atomicload(&worker->stop)) return;
      if (steps >= NSATNEWTON) break;
      if (!zero(s.c) && o > -ze - 1) break;  // it has left the view
      if (depth >= s.precision) {
        if (!known(satinfo, s, depth)) satinfo->sat[satinfo->n++] = s;
        break;
      }
      HFLOATCOMPLEX v, d;
      if (!calciterenvironmentex2(context, depth, e, prec, s.iter, s.c, &v, &d)) break;
      s.v = v;
      s.d = d;
      if (zero(d)) {
        s.precision = INT_MAX;
        continue;
      }
      HFLOATCOMPLEX step = cdivHF(v, d);
      s.c = csubHF(s.c, step);
      s.precision = exponentof(step);
    }
  }
}
