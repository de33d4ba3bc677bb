// canvas/driver.cpp: the adaptive subdivision of a canvas into cells and the
// three work lists, once over the number format.
#include "canvas/driver.h"

#include <algorithm>
#include <cstdint>

#include "canvas/interpol.h"
#include "canvas/kernels.h"
#include "canvas/kernelsupport.h"
#include "canvas/period.h"
#include "canvas/runkernel.h"
#include "environment.h"

namespace canvasdriver {

namespace {

constexpr int R = CANVASSIZE;
constexpr ITER NOLIMIT = 0x7FFFFFFF;
constexpr UITER PENDING = 0xFFFFFFFFu;
// The largest corner-derived M for which 3M + 3000 still fits an ITER.
constexpr int64_t MAXM = 715825882;
// Above this canvas maximum 5 * maxiter + 10,000 would overflow an ITER.
constexpr ITER FAILURELIMITCAP = 429496728;
// Closure of a finite cell is refused under any of these: with derivative
// channels, or pixels to be handed to the Julia stack, every cell goes down
// to full depth. Interpolation is not among them: a cell of one count is
// that count whether its corners began at z = 0 or at a filled state, and a
// live interpolation cell inside a closed one still ends on the finite
// lists when it retires or splits.
constexpr unsigned int NOCLOSURE = CF_JULIACORRECT | CF_JULIA | CF_DERIVATIVE;

using canvaskernels::gridshift;
using canvaskernels::jobenvironment;

// The parameter of a vertex for the period tests, which iterate z^2 + c from
// the point itself: absolute. Over a periodic environment without series
// the general realm keeps the origin relative to the environment's point,
// and the tests ran at the difference (the nucleus of period 1 at every
// vertex inside the period-3 atom).
template <typename T>
typename T::COMPLEX vertexc(const typename T::CANVAS* canvas, int x, int y) {
  return canvaskernels::absolutec<T>(canvas, x, y);
}

template <typename T>
bool isinterior(const typename T::CVERTEX* v) {
  return (v->v.flags & CV_INFTY) != 0;
}

template <typename T>
void corners(const typename T::CANVAS* canvas, int i, int c[4]) {
  int w = 1 << (canvas->canvassizeshift - canvas->v[i].depth);
  c[0] = i;
  c[1] = i + w;
  c[2] = i + w * R + w;
  c[3] = i + w * R;
}

// Is the canvas's job over the period test that the general realm's
// satellite environments need? Until that test exists the corner stays
// undecided, which only costs the finite path its iterations.
template <typename T>
bool satelliteframe(const typename T::CANVAS* canvas) {
  const ENVIRONMENT* e = jobenvironment<T>(canvas);
  return (canvas->flags & CF_GENERAL) && e && (e->flags & E_SERIES);
}

// Whether the period machinery may test a vertex of this canvas at all: not
// over an environment of the general realm that is neither periodic nor a
// satellite.
template <typename T>
bool periodtestable(const typename T::CANVAS* canvas) {
  const ENVIRONMENT* e = jobenvironment<T>(canvas);
  if (!(canvas->flags & CF_GENERAL) || !e) return true;
  if (e->flags & E_SERIES) return true;
  return (e->flags & E_PERIODIC) != 0;
}

// Over a satellite environment the period tests iterate the environment's
// period map (its series in z) from the vertex's offset to the
// environment's point: z^2 + c at the rounded absolute point would carry
// nothing of a difference that deep. Their periods and limits count
// periods of the map; the vertex's count is in iterations.
template <typename T>
int seriesorder(const typename T::CANVAS* canvas) {
  if (!canvas->__worker) return 0;
  return std::clamp(static_cast<int>(canvas->__worker->idata[JOB_ORDER]), 0, NTAYLORDEGREE);
}

template <typename T>
typename T::COMPLEX vertexoffset(const typename T::CANVAS* canvas, int x, int y) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  return N::cadd(canvas->cf, canvaskernels::gridoffset<T>(canvas, x, y));
}

inline ITER inperiods(const ENVIRONMENT* e, ITER iter) {
  return iter >= NOLIMIT ? NOLIMIT : iter / static_cast<ITER>(e->n) + 1;
}

// Whole periods of the map only: a period that is not one is no cycle of it.
inline ITER fromperiods(const ENVIRONMENT* e, ITER r) {
  if (r <= 0) return 0;
  int64_t p = int64_t(r) * int64_t(e->n);
  return p < NOLIMIT ? static_cast<ITER>(p) : 0;
}

template <typename T>
ITER seriesinftytest(const typename T::CANVAS* canvas, typename T::CVERTEX* vx, ITER maxiter,
                     typename T::COMPLEX* d1, typename T::COMPLEX* d2) {
  const ENVIRONMENT* e = jobenvironment<T>(canvas);
  int order = seriesorder<T>(canvas);
  if (!e || e->n < 1 || order < 1) return 0;
  typename T::COMPLEX c = vertexoffset<T>(canvas, vx->x, vx->y);
  ITER r = canvasperiod::inftytestgeneral<T>(gridshift<T>(canvas), &c, e, order,
                                             inperiods(e, maxiter), nullptr, nullptr, nullptr,
                                             d1, d2, nullptr);
  return fromperiods(e, r);
}

template <typename T>
ITER seriescheckperiod(const typename T::CANVAS* canvas, typename T::CVERTEX* vx, ITER period,
                       ITER limit) {
  const ENVIRONMENT* e = jobenvironment<T>(canvas);
  int order = seriesorder<T>(canvas);
  if (!e || e->n < 1 || order < 1 || period % static_cast<ITER>(e->n) != 0) return 0;
  typename T::COMPLEX c = vertexoffset<T>(canvas, vx->x, vx->y);
  ITER r = canvasperiod::checkperiodgeneral<T>(
      gridshift<T>(canvas), &c, e, order, period / static_cast<ITER>(e->n),
      inperiods(e, limit), 1, true, &vx->inftydata, &vx->flags, nullptr, nullptr, nullptr,
      nullptr, nullptr);
  return fromperiods(e, r);
}

template <typename T>
void raisemaxiter(typename T::CANVAS* canvas, UITER iter) {
  if (static_cast<int64_t>(iter) > canvas->maxiter && iter <= static_cast<UITER>(NOLIMIT))
    canvas->maxiter = static_cast<ITER>(iter);
}

template <typename T>
void makeinterior(typename T::CVERTEX* v, ITER period) {
  v->flags |= VX_FINISHED | VX_NOINTERPOL;
  v->v.flags |= CV_INFTY;
  v->v.iter = static_cast<UITER>(period);
}

template <typename T>
void wakefinite(typename T::CANVAS* canvas, const typename T::CVERTEX* v) {
  for (int k = 0; k < NVXWAKE; k++)
    if (v->n[k] != -1) canvasinworkerfinite<T>(canvas, v->n[k]);
}

template <typename T>
void wakeinfty(typename T::CANVAS* canvas, const typename T::CVERTEX* v) {
  for (int k = 0; k < NVXWAKE; k++)
    if (v->n[k] != -1) canvasinworkerinfty<T>(canvas, v->n[k]);
}

// The four quarters of a cell just split, on a list.
template <typename T>
void enterquarters(typename T::CANVAS* canvas, int i, void (*enter)(typename T::CANVAS*, int)) {
  int h = 1 << (canvas->canvassizeshift - canvas->v[i].depth);
  enter(canvas, i);
  enter(canvas, i + h);
  enter(canvas, i + h * R + h);
  enter(canvas, i + h * R);
}

// The limit M from the corners of a finite cell (see processcanvasfinite),
// or -1 when all four are interior.
template <typename T>
int64_t cornerlimit(const typename T::CANVAS* canvas, typename T::CVERTEX* const cv[4],
                    int level) {
  bool julia = (canvas->flags & CF_JULIA) != 0;
  int interior = 0;
  int64_t M = 0;
  for (int k = 0; k < 4; k++) {
    if (!julia && isinterior<T>(cv[k])) {
      interior++;
      continue;
    }
    if (cv[k]->flags & VX_FINISHED) M = std::max<int64_t>(M, cv[k]->v.iter);
  }
  if (interior == 4) return -1;
  if (level == 0) M = canvas->maxiter ? 5 * static_cast<int64_t>(canvas->maxiter) : MAXM;
  return std::min(M, MAXM);
}

// Brings the interpolation's state of a vertex into `v` when it is ahead.
template <typename T>
void takeinterpolation(typename T::CANVAS* canvas, typename T::CVERTEX* vx) {
  typename T::CVALUE* iv = &vx->interpolv;
  if (iv->iter <= vx->v.iter || iv->iter == PENDING) return;
  bool plain = (vx->v.flags & CV_FAILED) || !(iv->flags & (CV_RELATIVE | CV_REFERENCE));
  if (plain) {
    canvasmodel::freevalue<T>(canvas, &vx->v);
    vx->v.iter = iv->iter;
    vx->v.value = iv->value;
    vx->v.d = iv->d;
    vx->v.Z = iv->Z;
    vx->v.ref = -1;
    vx->v.flags = iv->flags & (CV_ABSOLUTE | CV_ESCAPED | CV_INFTY);
    return;
  }
  if (vx->flags & VX_FINISHED) return;
  // A state relative to a reference of this canvas goes on against that
  // reference: the full copy keeps its checkpoint and orbit block.
  canvasmodel::copyvalue<T>(canvas, &vx->v, iv);
}

// The vertices on the sides of cell (i, L), corners excluded, each given to
// `agrees` until one answers false. The escape count's level sets and the
// interior of the set are full (no holes): a cell whose whole boundary shows
// one result holds no other inside, whereas four equal corners say nothing
// of a filament or a cusp that crosses a side between them.
template <typename T, typename AGREES>
bool sidesagree(typename T::CANVAS* canvas, int i, AGREES agrees) {
  int w = 1 << (canvas->canvassizeshift - canvas->v[i].depth);
  for (int k = 1; k < w; k++) {
    for (int vi : {i + k, i + w * R + k, i + k * R, i + k * R + w})
      if (!agrees(&canvas->v[vi])) return false;
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------------- lists

ITER failurelimit(ITER maxiter) {
  if (maxiter <= 0 || maxiter > FAILURELIMITCAP) return NOLIMIT;
  return static_cast<ITER>(std::min<int64_t>(5 * int64_t(maxiter) + 10000, NOLIMIT));
}

template <typename T>
void canvasinworkerfinite(typename T::CANVAS* canvas, int cell) {
  typename T::CVERTEX* v = &canvas->v[cell];
  if (v->flags & VX_INWORKER) return;
  int L = v->depth;
  v->next2 = canvas->worker[L];
  canvas->worker[L] = cell;
  v->flags |= VX_INWORKER;
  if (canvas->minworker > L) canvas->minworker = L;
}

template <typename T>
void canvasinworkerinfty(typename T::CANVAS* canvas, int cell) {
  typename T::CVERTEX* v = &canvas->v[cell];
  if (v->flags & VX_ININFTY) return;
  int L = v->depth;
  v->next = canvas->workerinfty[L];
  canvas->workerinfty[L] = cell;
  v->flags |= VX_ININFTY;
  if (canvas->minworkerinfty > L) canvas->minworkerinfty = L;
}

template <typename T>
void canvasinworkerfailure(typename T::CANVAS* canvas, int cell) {
  typename T::CVERTEX* v = &canvas->v[cell];
  if (v->flags & VX_INFAILURE) return;
  int L = v->depth;
  v->next3 = canvas->workerfailure[L];
  canvas->workerfailure[L] = cell;
  v->flags |= VX_INFAILURE;
  if (canvas->minworkerfailure > L) canvas->minworkerfailure = L;
}

// ---------------------------------------------------------------- the tree

template <typename T>
void subdividecanvas(typename T::CANVAS* canvas, int i) {
  typename T::CVERTEX* v = canvas->v;
  int L = ++v[i].depth;
  int w = 1 << (canvas->canvassizeshift - L);
  int tc = i + w, ml = i + w * R, ce = i + w * R + w;
  int rm = i + 2 * w + w * R, bc = i + 2 * w * R + w, br = i + 2 * w * R + 2 * w;
  int bl = i + 2 * w * R, tr = i + 2 * w;
  for (int k : {tc, ml, ce}) {
    v[k].flags |= VX_INTREE;
    v[k].depth = L;
  }
  v[i].flags |= VX_INTREE;
  v[tc].n[2] = i;
  v[ml].n[1] = i;
  v[ce].n[0] = i;
  v[ce].n[1] = tc;
  v[ce].n[2] = ml;
  v[rm].n[0] = tc;
  v[rm].n[2] = ce;
  v[bc].n[0] = ml;
  v[bc].n[1] = ce;
  v[br].n[0] = ce;
  v[bl].n[1] = ml;
  v[tr].n[2] = tc;
}

template <typename T>
int neighbor(typename T::CANVAS* canvas, int cell, int dir) {
  typename T::CVERTEX* v = canvas->v;
  int L = v[cell].depth;
  int S = 1 << canvas->canvassizeshift;
  int w = 1 << (canvas->canvassizeshift - L);
  int x = v[cell].x, y = v[cell].y;
  switch (dir) {
    case 0: x -= w; break;
    case 1: y -= w; break;
    case 2: x += w; break;
    default: y += w; break;
  }
  if (x < 0 || y < 0 || x >= S || y >= S) return -1;
  int t = y * R + x;
  if (v[t].flags & VX_INTREE) {
    if (v[t].forced < L) v[t].forced = L;
    return t;
  }
  // The target lies inside a coarser cell: climb until a cell of the tree
  // holds it, telling each level on the way to refine to this one.
  for (int level = L - 1; level >= 0; level--) {
    int bit = 1 << (canvas->canvassizeshift - level - 1);
    x &= ~bit;
    y &= ~bit;
    t = y * R + x;
    if (v[t].forced < level) v[t].forced = level;
    if (v[t].flags & VX_INTREE) return t;
  }
  return -1;
}

template <typename T>
int equal(const typename T::CVERTEX* a, const typename T::CVERTEX* b) {
  bool fa = (a->flags & VX_FINISHED) != 0, fb = (b->flags & VX_FINISHED) != 0;
  if (!fa && !fb) return 1;
  if (fa != fb) return 0;
  if (isinterior<T>(a) != isinterior<T>(b)) return 0;
  return a->v.iter == b->v.iter;
}

template <typename T>
void stopinterpol(typename T::CANVAS* canvas, int i, int L) {
  // The fourth quarter is walked in the loop rather than by recursion, so
  // the depth of the recursion is the number of levels at most.
  for (;;) {
    int w = 1 << (canvas->canvassizeshift - L);
    int c[4] = {i, i + w, i + w * R + w, i + w * R};
    for (int k : c) canvas->v[k].flags |= VX_NOINTERPOL;
    if (L >= canvas->canvassizeshift) return;
    int h = w / 2;
    stopinterpol<T>(canvas, i, L + 1);
    stopinterpol<T>(canvas, i + h, L + 1);
    stopinterpol<T>(canvas, i + h * R, L + 1);
    i += h * R + h;
    L++;
  }
}

// ---------------------------------------------------------------- the finite pass

namespace {

// One run of a vertex of the finite pass up to G, unless it had its run at
// this limit already (its `maxiter` at T or more). True when it finished.
template <typename T>
bool advancefinite(OVCONTEXT* context, typename T::CANVAS* canvas, typename T::CVERTEX* vx,
                   int64_t Tlimit, ITER G) {
  if (static_cast<int64_t>(vx->maxiter) >= Tlimit) return false;
  vx->maxiter = static_cast<UITER>(G);
  // A general-realm vertex may become a reference here too: its
  // difference to the environment's orbit can stop carrying the point
  // long after the main pass left it, next to a minibrot.
  const int self = (canvas->flags & (CF_JULIA | CF_HYPERBOLIC)) ? -1 : vx->index;
  int r = runkernel<T>(context, canvas, vx, &vx->v, G, self, 0);
  if (r == CALC_MORE) return false;
  vx->flags |= VX_FINISHED;
  if (!(vx->v.flags & CV_INFTY)) raisemaxiter<T>(canvas, vx->v.iter);
  return true;
}

}  // namespace

template <typename T>
void processcanvasfinite(OVCONTEXT* context, typename T::CANVAS* canvas, int maxdepth, int depth) {
  typename T::CVERTEX* v = canvas->v;
  while (canvas->minworker <= depth) {
    int L0 = canvas->minworker;
    int i = canvas->worker[L0];
    if (i == -1) {
      canvas->minworker++;
      continue;
    }
    canvas->worker[L0] = v[i].next2;
    v[i].flags = (v[i].flags & ~VX_INWORKER) | VX_INTREE;
    int L = v[i].depth;
    int c[4];
    corners<T>(canvas, i, c);
    typename T::CVERTEX* cv[4] = {&v[c[0]], &v[c[1]], &v[c[2]], &v[c[3]]};

    int64_t M = cornerlimit<T>(canvas, cv, L);
    if (M < 0) continue;  // the interior machinery has it
    const int64_t Tlimit = 3 * M + 1000;
    const ITER G = static_cast<ITER>(3 * M + 3000);

    int finished = 1;
    bool ran = false;
    for (int k = 0; k < 4; k++) {
      typename T::CVERTEX* vx = cv[k];
      takeinterpolation<T>(canvas, vx);
      if (vx->flags & VX_FINISHED) {
        finished = 0;
        continue;
      }
      if (vx->flags & VX_FORCE_FINAL) {
        vx->flags |= VX_FINISHED;
        raisemaxiter<T>(canvas, vx->v.iter);
        finished = 0;
        continue;
      }
      if (!advancefinite<T>(context, canvas, vx, Tlimit, G)) continue;
      wakefinite<T>(canvas, vx);
      ran = true;
      finished = 0;
    }

    if (finished && L > 0) {
      canvasinworkerfailure<T>(canvas, i);
      continue;
    }
    if (ran) {
      for (int s = 0; s < 4; s++) {
        if (equal<T>(cv[s], cv[(s + 1) & 3])) continue;
        int n = neighbor<T>(canvas, i, (s + 1) & 3);
        if (n != -1) canvasinworkerfinite<T>(canvas, n);
      }
    }
    if (L >= maxdepth) continue;

    UITER mn = NOLIMIT, mx = 0;
    for (int k = 0; k < 4; k++) {
      if (cv[k]->flags & VX_FINISHED) {
        mn = std::min(mn, cv[k]->v.iter);
        mx = std::max(mx, cv[k]->v.iter);
      } else {
        mx = NOLIMIT;
      }
    }
    bool closed = (mn == static_cast<UITER>(NOLIMIT) || mn == mx) && L >= v[i].forced &&
                  !(canvas->flags & NOCLOSURE);
    // Four corners with one count close the cell only when its sides show
    // that count throughout (a needle's filament crosses a whole tile
    // between four corners of count 7).
    if (closed && mn == mx) {
      closed = sidesagree<T>(canvas, i, [&](typename T::CVERTEX* vx) {
        // A side vertex the interpolation brought forward goes on from there.
        takeinterpolation<T>(canvas, vx);
        if (!(vx->flags & VX_FINISHED)) advancefinite<T>(context, canvas, vx, Tlimit, G);
        return equal<T>(vx, cv[0]) && (vx->flags & VX_FINISHED);
      });
    }
    if (!closed) {
      subdividecanvas<T>(canvas, i);
      enterquarters<T>(canvas, i, canvasinworkerfinite<T>);
    }
    if (canvaskernels::jobstopped<T>(canvas)) return;
  }
}

// ---------------------------------------------------------------- the infty pass

namespace {

// Tries to spread the period of interior corner P to corner Q. Returns
// true when Q became interior; *edge notes a tested corner on the far edge.
template <typename T>
bool spreadperiod(typename T::CANVAS* canvas, typename T::CVERTEX* P, typename T::CVERTEX* Q,
                  bool* edge) {
  int S = 1 << canvas->canvassizeshift;
  if (Q == P) return false;
  if (Q->flags & VX_TESTED) return false;
  bool qinterior = isinterior<T>(Q);
  if (qinterior && Q->v.iter <= P->v.iter) return false;
  if ((Q->flags & VX_FINISHED) && !qinterior) return false;
  bool faredge = Q->x == S || Q->y == S;
  if (faredge) *edge = true;
  ITER limit = qinterior ? static_cast<ITER>(Q->v.iter) : NOLIMIT;
  typename T::COMPLEX c = vertexc<T>(canvas, Q->x, Q->y);
  ITER r;
  if (satelliteframe<T>(canvas)) {
    r = seriescheckperiod<T>(canvas, Q, static_cast<ITER>(P->v.iter), limit);
  } else {
    // Always to the least period: a period reached by the angle search is a
    // multiple of P, and so is P itself at a corner of a component of a
    // divisor of P; shown as it comes, a component would carry the periods
    // of its neighbours' tests (720 inside a component of period 80).
    r = canvasperiod::checkperiod<T>(gridshift<T>(canvas), &c, static_cast<ITER>(P->v.iter),
                                     limit, 1, true, &Q->inftydata, &Q->flags, nullptr, nullptr,
                                     nullptr, nullptr, nullptr);
  }
  if (r <= 0) return false;
  makeinterior<T>(Q, r);
  wakeinfty<T>(canvas, Q);
  return true;
}

// Is vertex `vx` interior with `period`? A vertex not yet decided is
// tried for that period (reduced to its least), and keeps what it proves.
template <typename T>
bool settleperiod(typename T::CANVAS* canvas, typename T::CVERTEX* vx, ITER period) {
  if (isinterior<T>(vx)) return vx->v.iter == static_cast<UITER>(period);
  if (vx->flags & VX_FINISHED) return false;
  ITER r;
  if (satelliteframe<T>(canvas)) {
    r = seriescheckperiod<T>(canvas, vx, period, NOLIMIT);
  } else {
    typename T::COMPLEX c = vertexc<T>(canvas, vx->x, vx->y);
    r = canvasperiod::checkperiod<T>(gridshift<T>(canvas), &c, period, NOLIMIT, 1, true,
                                     &vx->inftydata, &vx->flags, nullptr, nullptr, nullptr,
                                     nullptr, nullptr);
  }
  if (r <= 0) return false;
  makeinterior<T>(vx, r);
  return r == period;
}

}  // namespace

template <typename T>
void processcanvasinfty(typename T::CANVAS* canvas) {
  if (canvas->flags & CF_NOINFTY) return;
  typename T::CVERTEX* v = canvas->v;
  const int S = canvas->canvassizeshift;
  while (canvas->minworkerinfty <= S) {
    int L0 = canvas->minworkerinfty;
    int i = canvas->workerinfty[L0];
    if (i == -1) {
      canvas->minworkerinfty++;
      continue;
    }
    canvas->workerinfty[L0] = v[i].next;
    v[i].flags = (v[i].flags & ~VX_ININFTY) | VX_INTREE;
    int L = v[i].depth;
    int c[4];
    corners<T>(canvas, i, c);
    typename T::CVERTEX* cv[4] = {&v[c[0]], &v[c[1]], &v[c[2]], &v[c[3]]};

    bool anyinterior = false, changed = false, edge = false;
    for (int p = 0; p < 4; p++) {
      if (!isinterior<T>(cv[p])) continue;
      anyinterior = true;
      for (int q = p + 1; q < 4 + p; q++)
        if (spreadperiod<T>(canvas, cv[p], cv[q & 3], &edge)) changed = true;
      int x = cv[p]->x, y = cv[p]->y, n = 1 << S;
      if (x > 0) v[c[p] - 1].flags |= VX_NEARINTERIOR;
      if (x < n) v[c[p] + 1].flags |= VX_NEARINTERIOR;
      if (y > 0) v[c[p] - R].flags |= VX_NEARINTERIOR;
      if (y < n) v[c[p] + R].flags |= VX_NEARINTERIOR;
    }
    if (!anyinterior) {
      if (v[i].forced <= L && !edge) canvasinworkerfinite<T>(canvas, i);
      continue;
    }
    if (changed) {
      for (int s = 0; s < 4; s++) {
        if (equal<T>(cv[s], cv[(s + 1) & 3])) continue;
        int n = neighbor<T>(canvas, i, (s + 1) & 3);
        if (n != -1) canvasinworkerinfty<T>(canvas, n);
      }
    }
    if (L >= S) continue;
    bool allinterior = true;
    UITER mn = NOLIMIT, mx = 0;
    for (int k = 0; k < 4; k++) {
      if (!isinterior<T>(cv[k])) {
        allinterior = false;
        break;
      }
      mn = std::min(mn, cv[k]->v.iter);
      mx = std::max(mx, cv[k]->v.iter);
    }
    // The sides must be of the one period throughout: four interior
    // corners can stand around the cusp of a component, or around a
    // filament of the outside that reaches in between them.
    bool closed = allinterior && mn == mx && L >= v[i].forced && !edge &&
                  sidesagree<T>(canvas, i, [&](typename T::CVERTEX* vx) {
                    return settleperiod<T>(canvas, vx, static_cast<ITER>(mn));
                  });
    if (closed) {
      stopinterpol<T>(canvas, i, L);
    } else {
      subdividecanvas<T>(canvas, i);
      enterquarters<T>(canvas, i, canvasinworkerinfty<T>);
    }
    if (canvaskernels::jobstopped<T>(canvas)) return;
  }
}

// ---------------------------------------------------------------- the failure pass

template <typename T>
void checkcanvas(typename T::CANVAS* canvas, ITER maxiter) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::CVERTEX* v = canvas->v;
  const int S = canvas->canvassizeshift;
  while (canvas->minworkerfailure <= S) {
    int L0 = canvas->minworkerfailure;
    int i = canvas->workerfailure[L0];
    if (i == -1) {
      canvas->minworkerfailure++;
      continue;
    }
    canvas->workerfailure[L0] = v[i].next3;
    v[i].flags &= ~VX_INFAILURE;
    int c[4];
    corners<T>(canvas, i, c);
    bool stale = false;
    for (int k = 0; k < 4; k++) stale = stale || (v[c[k]].flags & VX_FINISHED);
    if (stale) continue;

    for (int k = 0; k < 4; k++) {
      typename T::CVERTEX* vx = &v[c[k]];
      if (vx->flags & (VX_TESTED | VX_NEARINTERIOR)) continue;
      vx->flags |= VX_TESTED;
      if (!periodtestable<T>(canvas)) continue;
      vx->maxiter = static_cast<UITER>(maxiter);
      typename T::COMPLEX cc = vertexc<T>(canvas, vx->x, vx->y);
      typename T::COMPLEX d1 = N::czero(), d2 = N::czero();
      ITER r = 0;
      if (satelliteframe<T>(canvas)) {
        r = seriesinftytest<T>(canvas, vx, maxiter, &d1, &d2);
        // The series test counts an escape in periods of the map, which is
        // no count: a point it does not find inside gets the failure limit
        // from the kernel, as the finite path would give it.
        if (r < 1 && !(vx->v.flags & CV_INFTY)) {
          vx->maxiter = 0;
          if (advancefinite<T>(nullptr, canvas, vx, maxiter, maxiter) &&
              !(vx->flags & VX_NEARINTERIOR)) {
            wakefinite<T>(canvas, vx);
            if (vx->flags & VX_INTREE) canvasinworkerfinite<T>(canvas, c[k]);
          }
          continue;
        }
      } else {
        r = canvasperiod::inftytest<T>(gridshift<T>(canvas), &cc, maxiter, nullptr, nullptr, &d1,
                                       &d2, nullptr);
      }
      if (r < 1 && !(vx->v.flags & CV_INFTY)) {
        // The escape count follows the kernels' radius: no distance is
        // asked for, so the test stops at |z|^2 > 4 as they do.
        if (r == 0) continue;
        canvasmodel::freevalue<T>(canvas, &vx->v);
        vx->v.iter = static_cast<UITER>(-r);
        vx->v.value = cc;
        vx->v.ref = -1;
        vx->v.flags = CV_ABSOLUTE | CV_ESCAPED;
        vx->flags |= VX_FINISHED;
        raisemaxiter<T>(canvas, vx->v.iter);
        if (!(vx->flags & VX_NEARINTERIOR)) {
          wakefinite<T>(canvas, vx);
          if (vx->flags & VX_INTREE) canvasinworkerfinite<T>(canvas, c[k]);
        }
        continue;
      }
      if (r >= 1) {
        makeinterior<T>(vx, r);
        vx->v.value = cc;
        vx->v.d = d2;
      }
      wakeinfty<T>(canvas, vx);
      if (vx->flags & VX_INTREE) canvasinworkerinfty<T>(canvas, c[k]);
    }
    return;
  }
}

// ---------------------------------------------------------------- the whole

namespace {

// The period test of a canvas corner before anything else runs.
template <typename T>
void testcorner(typename T::CANVAS* canvas, typename T::CVERTEX* vx) {
  vx->flags |= VX_TESTED;
  vx->maxiter = static_cast<UITER>(NOLIMIT);
  ITER r = 0;
  if (satelliteframe<T>(canvas)) {
    r = seriesinftytest<T>(canvas, vx, NOLIMIT, nullptr, nullptr);
  } else if (periodtestable<T>(canvas)) {
    typename T::COMPLEX cc = vertexc<T>(canvas, vx->x, vx->y);
    r = canvasperiod::inftytest<T>(gridshift<T>(canvas), &cc, NOLIMIT, nullptr, nullptr,
                                   nullptr, nullptr, nullptr);
  }
  if (r > 0) {
    makeinterior<T>(vx, r);
  } else {
    vx->maxiter = 0;
    vx->v.iter = 0;
  }
}

template <typename T>
void startinterpolation(typename T::CANVAS* canvas, const int c[4]) {
  canvas->workerinterpol = 0;
  canvas->interpoliter = 0;
  canvas->interpolmindepth = 0;
  for (int k = 0; k < 4; k++) {
    typename T::CVERTEX* vx = &canvas->v[c[k]];
    canvasmodel::freevalue<T>(canvas, &vx->interpolv);
    vx->interpolv.iter = 0;
    vx->interpolv.ref = -1;
    vx->interpolv.data = 0;
    vx->interpolv.value = vx->v.value;
    vx->interpolv.d = vx->v.d;
    vx->interpolv.flags = 0;
    vx->interpoldepth = 0;
    vx->flags += VX_CALCULATED;
  }
  canvas->v[0].next4 = -1;
}

}  // namespace

template <typename T>
void processcanvas(OVCONTEXT* context, typename T::CANVAS* canvas) {
  const int S = canvas->canvassizeshift;
  const int size = 1 << S;
  for (int l = 0; l <= S; l++) {
    canvas->worker[l] = -1;
    canvas->workerinfty[l] = -1;
    canvas->workerfailure[l] = -1;
  }
  canvas->minworker = 0;
  canvas->minworkerinfty = 0;
  canvas->minworkerfailure = S + 1;
  canvas->workerinterpol = -1;

  const int c[4] = {0, size, size * R + size, size * R};
  for (int k = 0; k < 4; k++) {
    typename T::CVERTEX* vx = &canvas->v[c[k]];
    if (vx->v.iter != PENDING) continue;
    vx->v.iter = 0;
    if (!(canvas->flags & CF_NOINFTY)) testcorner<T>(canvas, vx);
  }

  typename T::CVERTEX* v = canvas->v;
  v[0].flags |= VX_INTREE;
  bool anyinterior = false;
  for (int k = 0; k < 4; k++) anyinterior = anyinterior || isinterior<T>(&v[c[k]]);
  if (anyinterior) canvasinworkerinfty<T>(canvas, 0);
  if (!isinterior<T>(&v[c[0]])) canvasinworkerfinite<T>(canvas, 0);
  if (!isinterior<T>(&v[c[1]]) && v[c[1]].n[2] != -1) canvasinworkerfinite<T>(canvas, v[c[1]].n[2]);
  if (!isinterior<T>(&v[c[2]]) && v[c[2]].n[0] != -1) canvasinworkerfinite<T>(canvas, v[c[2]].n[0]);
  if (!isinterior<T>(&v[c[3]]) && v[c[3]].n[1] != -1) canvasinworkerfinite<T>(canvas, v[c[3]].n[1]);

  if (canvas->flags & CF_INTERPOL) startinterpolation<T>(canvas, c);

  if (canvas->flags & (CF_NOINFTY | CF_JULIA | CF_HYPERBOLIC)) {
    if (!(canvas->flags & CF_HYPERBOLIC))
      canvasinterpol::interpolcanvas<T>(context, canvas, S, S);
    processcanvasfinite<T>(context, canvas, S, S);
    return;
  }

  int l = 1;
  for (;;) {
    bool inftyran = false;
    if (canvas->minworkerinfty <= S) {
      processcanvasinfty<T>(canvas);
      inftyran = true;
    }
    if (canvas->flags & CF_INTERPOL) canvasinterpol::interpolcanvas<T>(context, canvas, l, S);
    int m = l < S ? l + 1 : l;
    if (canvas->minworker <= m) {
      processcanvasfinite<T>(context, canvas, S, m);
    } else if (!inftyran) {
      if (canvas->minworkerfailure > S) {
        if (canvaskernels::jobstopped<T>(canvas)) return;
        if (++l > S) return;
        continue;
      }
      if (canvas->flags & CF_NOINFTY) {
        canvas->minworkerfailure = S + 1;
      } else {
        checkcanvas<T>(canvas, failurelimit(canvas->maxiter));
      }
    }
    if (canvaskernels::jobstopped<T>(canvas)) return;
  }
}

// ---------------------------------------------------------------- instantiations

#define ORVANTA_INSTANTIATE(T)                                                            \
  template void processcanvas<T>(OVCONTEXT*, T::CANVAS*);                                 \
  template void processcanvasfinite<T>(OVCONTEXT*, T::CANVAS*, int, int);                 \
  template void processcanvasinfty<T>(T::CANVAS*);                                        \
  template void checkcanvas<T>(T::CANVAS*, ITER);                                         \
  template void canvasinworkerfinite<T>(T::CANVAS*, int);                                 \
  template void canvasinworkerinfty<T>(T::CANVAS*, int);                                  \
  template void canvasinworkerfailure<T>(T::CANVAS*, int);                                \
  template void subdividecanvas<T>(T::CANVAS*, int);                                      \
  template int neighbor<T>(T::CANVAS*, int, int);                                         \
  template int equal<T>(const T::CVERTEX*, const T::CVERTEX*);                            \
  template void stopinterpol<T>(T::CANVAS*, int, int);
ORVANTA_INSTANTIATE(CANVASTEMPLATE_float)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_double)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_longdouble)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_hfloat)
#undef ORVANTA_INSTANTIATE

}  // namespace canvasdriver
