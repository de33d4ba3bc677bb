// canvas/kernels_ref.cpp: the kernels that follow a vertex's own reference
// orbit, stored on this canvas in blocks of samples: `calciterref` for the
// Mandelbrot recurrence and `calciterjuliaref` for the Julia one. A state is
// either a difference to the orbit of vertex `ref` (CV_RELATIVE) or that
// orbit itself (CV_REFERENCE).
#include "canvas/kernels_perturb.h"

namespace canvaskernels {

namespace {

template <typename T, bool JULIA>
int absolutekernel(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
                   typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced, int idepth) {
  if constexpr (JULIA)
    return calciterjuliaabsolute<T>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                    idepth);
  else
    return calciterabsolute<T>(canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
}

template <typename T>
void dropcheckpoint(typename T::CANVAS* canvas, CHPVALUE* h) {
  canvasmodel::detachhpvalue<T>(canvas, h, true);
}

// The finished states: escaped (or accepted at the finest level) and failed.
template <typename T>
int storeescape(typename T::CANVAS* canvas, typename T::CVALUE* cvalue, CHPVALUE* h, UITER n,
                typename T::COMPLEX z, typename T::COMPLEX d, unsigned int flags) {
  dropcheckpoint<T>(canvas, h);
  dropcheckpoint<T>(canvas, cvalue->hpvalue);
  cvalue->hpvalue = nullptr;
  storestate<T>(cvalue, n, z, d, flags);
  return CALC_DONE;
}

// The bound stopped the orbit: absolute from here, only a finer grid goes on.
template <typename T>
int storebound(typename T::CANVAS* canvas, typename T::CVALUE* cvalue, CHPVALUE* h, UITER n,
               typename T::COMPLEX z, typename T::COMPLEX d, typename T::FLOAT Z) {
  dropcheckpoint<T>(canvas, h);
  dropcheckpoint<T>(canvas, cvalue->hpvalue);
  cvalue->hpvalue = nullptr;
  cvalue->Z = Z;
  storestate<T>(cvalue, n, z, d, CV_ABSOLUTE);
  return CALC_BOUND;
}

}  // namespace

// The answer to a failed precision test at iteration n: accepted as an
// escape at the finest level, CV_FAILED for a point that is no vertex, else
// a new reference made of the entry state, from which the vertex starts
// again. Returns -1 when the making failed: the caller carries on with its
// old reference, the state as it was.
template <typename T, bool JULIA>
int precisionfailure(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
                     typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced, int idepth,
                     CHPVALUE* h, UITER n, typename T::COMPLEX z, typename T::COMPLEX d) {
  if (idepth == NCANVASLEVEL - 1)
    return storeescape<T>(canvas, cvalue, h, n, z, d, CV_ABSOLUTE | CV_ESCAPED);
  if (self == -1) return storeescape<T>(canvas, cvalue, h, n, z, d, CV_FAILED);
  typename T::CVALUE saved = *cvalue;
  if (saved.hpvalue) canvasmodel::attachhpvalue<T>(saved.hpvalue);
  // A start state away from the environment's checkpoints has nothing to
  // make an orbit of: it begins again from z = 0, which is exact.
  bool made = canvasmodel::makeref<T>(canvas, self, cvalue, ii);
  if (!made && !JULIA && cvalue->flags == saved.flags && cvalue->hpvalue == saved.hpvalue)
    made = canvasmodel::restartref<T>(canvas, self, cvalue);
  if (made) {
    dropcheckpoint<T>(canvas, saved.hpvalue);
    dropcheckpoint<T>(canvas, h);
    if constexpr (JULIA)
      return calciterjuliaref<T>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                 idepth);
    else
      return calciterref<T>(canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
  }
  // A making that failed half-way has turned the state already; the old
  // one goes on.
  if (cvalue->flags != saved.flags || cvalue->hpvalue != saved.hpvalue) {
    canvasmodel::freevalue<T>(canvas, cvalue);
    *cvalue = saved;
  } else {
    dropcheckpoint<T>(canvas, saved.hpvalue);
  }
  return -1;
}

namespace {

// The orbit of vertex `ref` at its end `n`, run again at full precision from
// the checkpoint `from` that a state holds: the vertex's chain keeps no
// checkpoint where its orbit ended. The samples rewritten on the way are
// the ones already stored. Null when the run does not reach `n`.
template <typename T>
CHPVALUE* orbitend(typename T::CANVAS* canvas, int ref, const CHPVALUE* from, int block,
                   UITER n) {
  if (!from || static_cast<UITER>(from->iter) > n) return nullptr;
  CHPVALUE* h = canvasmodel::addhpvalue<T>(canvas, false);
  if (!h) return nullptr;
  mpf_set(h->value[0], from->value[0]);
  mpf_set(h->value[1], from->value[1]);
  const typename T::CVERTEX* vr = &canvas->v[ref];
  ITER reached = from->iter;
  int cursor = block;
  calcitercanvashp<T>(canvas, h, vr->x, vr->y, &reached, static_cast<ITER>(n), &cursor, ref);
  orbittally().hpiterations += static_cast<long>(reached) - static_cast<long>(from->iter);
  if (reached != static_cast<ITER>(n)) {
    canvasmodel::detachhpvalue<T>(canvas, h, false);
    return nullptr;
  }
  h->iter = static_cast<ITER>(n);
  return h;
}

template <typename T, bool JULIA>
int referencebranch(typename T::CANVAS* canvas, typename T::CVALUE* cvalue, ITER limit,
                    CHPVALUE* h, ORBITCURSOR<T> cur, const KERNELCONST<T>& k) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  UITER n = cvalue->iter;
  const UITER end = static_cast<UITER>(limit);
  COMPLEX X = cur.X();
  COMPLEX d = cvalue->d;
  FLOAT L = N::abss(X);
  while (n < end) {
    if (k.pastbound(d, L)) return storebound<T>(canvas, cvalue, h, n, X, d, N::zero());
    cur.advance();
    COMPLEX X1 = cur.X();
    if (!N::less(N::zero(), cur.a()))
      return storeescape<T>(canvas, cvalue, h, n, X, d, CV_ABSOLUTE | CV_ESCAPED);
    d = N::cmul(N::ctwice(X), d);
    if constexpr (!JULIA) d = N::cadd(d, k.DC);
    if constexpr (JULIA) {
      if (k.trapped(X1))
        return storeescape<T>(canvas, cvalue, h, n + 1, X1, d, CV_INFTY | CV_ESCAPED);
    }
    X = X1;
    L = N::abss(X);
    n++;
    if ((n & 255) == 0 && jobstopped<T>(canvas)) {
      dropcheckpoint<T>(canvas, h);
      return CALC_MORE;
    }
  }
  if (h) {
    dropcheckpoint<T>(canvas, cvalue->hpvalue);
    cvalue->hpvalue = h;
    cvalue->iter = n;
    cvalue->d = d;
    cvalue->data = cur.block;
    return CALC_MORE;
  }
  // The orbit ended here: the next call goes on absolutely.
  dropcheckpoint<T>(canvas, cvalue->hpvalue);
  cvalue->hpvalue = nullptr;
  cvalue->Z = N::zero();
  cvalue->ref = -1;
  storestate<T>(cvalue, n, X, d, CV_ABSOLUTE);
  return CALC_MORE;
}

}  // namespace

template <typename T, bool JULIA>
int refkernel(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
              typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced, int idepth) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typedef typename T::COMPLEX COMPLEX;
  if (!(cvalue->flags & (CV_RELATIVE | CV_REFERENCE)) || cvalue->ref < 0) return CALC_MORE;
  const KERNELCONST<T> k(canvas, forced, JULIA);
  const int ref = cvalue->ref;
  ITER limit = maxiter;
  CHPVALUE* h = canvasmodel::refgethpvalue<T>(canvas, ref, &limit, 1);
  if (!h && jobstopped<T>(canvas)) return CALC_MORE;
  if (limit < static_cast<ITER>(cvalue->iter)) limit = static_cast<ITER>(cvalue->iter);
  ORBITCURSOR<T> cur;
  if (!cur.seek(canvas, cvalue->data, cvalue->iter)) {
    // No sample for this state: nothing can follow it.
    return storeescape<T>(canvas, cvalue, h, cvalue->iter, cvalue->value, cvalue->d, CV_FAILED);
  }
  if (cvalue->flags & CV_REFERENCE)
    return referencebranch<T, JULIA>(canvas, cvalue, limit, h, cur, k);

  const typename T::CVERTEX* vr = &canvas->v[ref];
  const COMPLEX dc = JULIA ? N::czero() : gridoffset<T>(canvas, x - vr->x, y - vr->y);
  UITER n = cvalue->iter;
  const UITER end = static_cast<UITER>(limit);
  PERTURB<T> p, q;
  COMPLEX X = cur.X();
  p.start(X, cvalue->value, cvalue->d, cvalue->Z);
  while (n < end) {
    if (k.pastbound(p.d, p.L)) return storebound<T>(canvas, cvalue, h, n, p.z, p.d, p.Z);
    cur.advance();
    COMPLEX X1 = cur.X();
    int r = p.template step<JULIA>(k, X, X1, cur.a(), dc, true, &q);
    if (r == STEP_ESCAPED)
      return storeescape<T>(canvas, cvalue, h, n, p.z, p.d, CV_ABSOLUTE | CV_ESCAPED);
    if (r == STEP_TRAPPED)
      return storeescape<T>(canvas, cvalue, h, n + 1, q.z, q.d, CV_INFTY | CV_ESCAPED);
    if (r == STEP_PRECISION) {
      int f = precisionfailure<T, JULIA>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                         idepth, h, n, p.z, p.d);
      if (f >= 0) return f;
    }
    p = q;
    X = X1;
    n++;
    if ((n & 255) == 0 && jobstopped<T>(canvas)) {
      dropcheckpoint<T>(canvas, h);
      return CALC_MORE;
    }
  }
  if (h) {
    dropcheckpoint<T>(canvas, cvalue->hpvalue);
    cvalue->hpvalue = h;
    cvalue->iter = n;
    cvalue->value = p.delta;
    cvalue->d = p.d;
    cvalue->Z = p.Z;
    cvalue->data = cur.block;
    return CALC_MORE;
  }
  // The reference orbit ended at this sample. Under the precision test the
  // vertex becomes a reference from here, as where the environment's orbit
  // ends: deep down the format cannot carry the point on its own.
  if (!JULIA && (canvas->flags & CF_HPCORRECT) && self != -1 && self != ref &&
      idepth < NCANVASLEVEL - 1) {
    if (CHPVALUE* end = orbitend<T>(canvas, ref, cvalue->hpvalue, cvalue->data, n)) {
      dropcheckpoint<T>(canvas, cvalue->hpvalue);
      cvalue->hpvalue = end;
      cvalue->iter = n;
      cvalue->value = p.delta;
      cvalue->d = p.d;
      cvalue->Z = p.Z;
      cvalue->data = cur.block;
      int f = precisionfailure<T, JULIA>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                         idepth, nullptr, n, p.z, p.d);
      if (f >= 0) {
        orbittally().madeatorbitend++;
        return f;
      }
    }
  }
  orbittally().endedabsolute++;
  dropcheckpoint<T>(canvas, cvalue->hpvalue);
  cvalue->hpvalue = nullptr;
  cvalue->Z = p.Z;
  cvalue->ref = -1;
  storestate<T>(cvalue, n, p.z, p.d, CV_ABSOLUTE);
  return absolutekernel<T, JULIA>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                  idepth);
}

template <typename T>
int calciterref(typename T::CANVAS* canvas, int x, int y, int self, typename T::CVALUE* cvalue,
                ITER maxiter, int* ii, bool forced, int idepth) {
  return refkernel<T, false>(nullptr, canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
}

template <typename T>
int calciterjuliaref(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
                     typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced,
                     int idepth) {
  return refkernel<T, true>(context, canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
}

#define ORVANTA_INSTANTIATE(T)                                                                 \
  template int calciterref<T>(T::CANVAS*, int, int, int, T::CVALUE*, ITER, int*, bool, int);  \
  template int calciterjuliaref<T>(OVCONTEXT*, T::CANVAS*, int, int, int, T::CVALUE*, ITER,    \
                                   int*, bool, int);                                           \
  template int precisionfailure<T, false>(OVCONTEXT*, T::CANVAS*, int, int, int, T::CVALUE*,   \
                                          ITER, int*, bool, int, CHPVALUE*, UITER, T::COMPLEX, \
                                          T::COMPLEX);                                         \
  template int precisionfailure<T, true>(OVCONTEXT*, T::CANVAS*, int, int, int, T::CVALUE*,    \
                                         ITER, int*, bool, int, CHPVALUE*, UITER, T::COMPLEX,  \
                                         T::COMPLEX);
ORVANTA_INSTANTIATE(CANVASTEMPLATE_float)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_double)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_longdouble)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_hfloat)
#undef ORVANTA_INSTANTIATE

}  // namespace canvaskernels
