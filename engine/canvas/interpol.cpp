// canvas/interpol.cpp: interpolation across the vertex grid, once over the
// number format.
//
// A live cell of the interpolation is named, like a cell of the driver, by
// its top-left vertex; its level is that vertex's `interpoldepth`, since the
// finite pass may split the driver's tree under a cell that the
// interpolation still carries whole. Live cells are linked through `next4`
// from `workerinterpol`; each counts itself in VX_CALCULATED of its corners.
#include "canvas/interpol.h"

#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <type_traits>

#include "canvas/driver.h"
#include "canvas/kernels.h"
#include "canvas/kernelsupport.h"
#include "canvas/runkernel.h"
#include "environment.h"

namespace canvasinterpol {

namespace {

constexpr int R = CANVASSIZE;
constexpr ITER NOLIMIT = 0x7FFFFFFF;
// A vertex granted this limit was proved interior before anything ran.
constexpr UITER TESTEDLIMIT = 0x7FFFFFFFu;
// Set with VX_FORCE_FINAL on a vertex whose state was filled in.
constexpr unsigned int VX_FILLED = 0x20000;
constexpr unsigned int EMPTYOLD = CV_FAILED;
constexpr UITER EMPTYOLDITER = 12345;
// A split cell fills its new vertices only from old states that pass the
// test of a cell this many levels deeper than the split one: an escape
// count is discontinuous, and a fill that is merely good enough to split by
// moves counts by one along every level line.
constexpr int FILLMARGIN = 6;
// Past this, iterations are the finite pass's: 3M + 3000 at the largest M.
constexpr int64_t LASTINTERPOLITER = 3 * int64_t(715825882) + 3000;

template <typename FLOAT>
int mantissabits() {
  if constexpr (std::is_same_v<FLOAT, float>) return FLT_MANT_DIG;
  else if constexpr (std::is_same_v<FLOAT, double>) return DBL_MANT_DIG;
  else if constexpr (std::is_same_v<FLOAT, long double>) return LDBL_MANT_DIG;
  else return 62;
}

using canvaskernels::jobenvironment;

template <typename T>
void cellcorners(int i, int w, int c[4]) {
  c[0] = i;
  c[1] = i + w;
  c[2] = i + w * R + w;
  c[3] = i + w * R;
}

template <typename T>
void emptyold(typename T::CANVAS* canvas, typename T::CVALUE* v) {
  canvasmodel::freevalue<T>(canvas, v);
  v->flags = EMPTYOLD;
  v->iter = EMPTYOLDITER;
}

// The scale from df/ds of a cell of level L to the stored derivative: ds/dc
// is 2^(L + depth - 4), and `d` carries the factor `dfactor`.
template <typename T>
typename T::COMPLEX derivativescale(const typename T::CANVAS* canvas, int L) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  HFLOAT D = canvas->dfactor;
  if (D.mantissa != 0) D.exponent += L + canvas->depth - 4;
  return N::creal(N::fromHF(D));
}

// Is the start state of this canvas a difference to its environment's
// orbit, as the general kernels take it?
template <typename T>
bool startisrelative(const typename T::CANVAS* canvas) {
  const ENVIRONMENT* e = jobenvironment<T>(canvas);
  if (!e || e->n == 0 || ((e->flags & E_PERIODIC) && !(e->flags & E_SERIES))) return false;
  return std::is_same_v<typename T::FLOAT, HFLOAT> ? e->refdatah != nullptr : e->refdatad != nullptr;
}

// Brings four states of one iteration into one frame: absolute values when
// all are absolute, else differences to the orbit of corner `frame`'s
// reference. False when no common frame can be made.
template <typename T>
bool commonframe(typename T::CANVAS* canvas, typename T::CVALUE* const s[4],
                 typename T::COMPLEX d[4], bool* absolute, CHPVALUE** hpv, int* ref) {
  int nrel = 0;
  for (int k = 0; k < 4; k++) {
    if (s[k]->flags & (CV_RELATIVE | CV_REFERENCE)) {
      if (!s[k]->hpvalue || static_cast<UITER>(s[k]->hpvalue->iter) != s[k]->iter) return false;
      nrel++;
    }
  }
  *hpv = nullptr;
  *ref = -1;
  if (nrel == 0) {
    // Over an environment's orbit the start state (flags 0) is a difference
    // to that orbit, which an absolute value cannot share a cubic with.
    int nstart = 0;
    for (int k = 0; k < 4; k++) nstart += s[k]->flags == 0;
    bool overorbit = startisrelative<T>(canvas);
    if (overorbit && nstart != 0 && nstart != 4) return false;
    *absolute = !(overorbit && nstart == 4);
    for (int k = 0; k < 4; k++) d[k] = s[k]->value;
    return true;
  }
  *absolute = false;
  for (int k = 0; k < 4; k++) {
    if (!(s[k]->flags & (CV_RELATIVE | CV_REFERENCE))) continue;
    *hpv = s[k]->hpvalue;
    *ref = s[k]->ref;
    break;
  }
  for (int k = 0; k < 4; k++) {
    const CHPVALUE* from = (s[k]->flags & (CV_RELATIVE | CV_REFERENCE)) ? s[k]->hpvalue : nullptr;
    if (from == *hpv) d[k] = s[k]->value;
    else canvasmodel::__transvalue<T>(&d[k], canvas, s[k]->value, from, *hpv);
  }
  return true;
}

// Is the cubic through four states good for a cell with `below` levels
// under it? The frame found goes back through the last three arguments.
template <typename T>
bool goodcubic(OVCONTEXT* context, typename T::CANVAS* canvas, typename T::CVALUE* const s[4],
               int below, typename T::COMPLEX d[4], bool* absolute, CHPVALUE** hpv, int* ref) {
  if (!commonframe<T>(canvas, s, d, absolute, hpv, ref)) return false;
  if (*absolute) return caccurateinterpolquadraticabs<T>(context, d, below);
  return caccurateinterpolquadratic<T>(context, d, below);
}

// A corner without a live cell: its state passes to `v`, the checkpoints
// the interpolation held on it are given back.
template <typename T>
void releasecorner(typename T::CANVAS* canvas, typename T::CVERTEX* vx) {
  if ((vx->flags & VX_CALCULATEDMASK) != 0) return;
  typename T::CVALUE* iv = &vx->interpolv;
  if (!(vx->flags & VX_FINISHED) && iv->iter > vx->v.iter && (iv->flags & (CV_RELATIVE | CV_REFERENCE)))
    canvasmodel::copyvalue<T>(canvas, &vx->v, iv);
  canvasmodel::freevalue<T>(canvas, iv);
  emptyold<T>(canvas, &vx->oldv);
  emptyold<T>(canvas, &vx->oldv2);
}

template <typename T>
void retirecell(typename T::CANVAS* canvas, typename T::CVERTEX* cv[4]) {
  for (int k = 0; k < 4; k++) {
    if (cv[k]->flags & VX_CALCULATEDMASK) cv[k]->flags -= VX_CALCULATED;
    releasecorner<T>(canvas, cv[k]);
  }
}

template <typename T>
void entercell(typename T::CANVAS* canvas, int i, int L, int* head) {
  canvas->v[i].next4 = *head;
  canvas->v[i].interpoldepth = L;
  *head = i;
  canvas->interpolmindepth = std::min(canvas->interpolmindepth, L);
}

// The next stop of the interpolation.
template <typename T>
void advance(typename T::CANVAS* canvas, ITER P) {
  ITER old = canvas->interpoliter;
  ITER step = canvas->canvasinterpol;
  int64_t next = int64_t(old) + step;
  bool keepsecond;
  if (P > 0) {
    keepsecond = old % P == 0;
    if (!keepsecond) next = std::min<int64_t>(next, (int64_t(old) / P + 1) * P);
  } else {
    keepsecond = old >= step;
  }
  if (keepsecond) {
    // The second checkpoint: the last multiple of the period, or without
    // one the stop before the last.
    canvasmodel::detachhpvalue<T>(canvas, canvas->oldenvironmenthpvalue2, false);
    canvas->oldinterpoliter2 = P > 0 ? old : canvas->oldinterpoliter;
    canvas->oldenvironmenthpvalue2 = P > 0 ? canvas->environmenthpvalue : canvas->oldenvironmenthpvalue;
    if (canvas->oldenvironmenthpvalue2) canvasmodel::attachhpvalue<T>(canvas->oldenvironmenthpvalue2);
  }
  canvas->oldinterpoliter = old;
  canvasmodel::detachhpvalue<T>(canvas, canvas->oldenvironmenthpvalue, false);
  canvas->oldenvironmenthpvalue = canvas->environmenthpvalue;
  canvas->environmenthpvalue = nullptr;
  // No cell had work below newinterpoliter: jump there together, but never
  // over a multiple of the period.
  if (canvas->newinterpoliter != NOLIMIT &&
      int64_t(canvas->newinterpoliter) - step > next) {
    int64_t jump = int64_t(canvas->newinterpoliter) - step;
    if (P > 0) jump = std::min<int64_t>(jump, (next / P + 1) * P);
    next = jump;
  }
  canvas->interpoliter = static_cast<ITER>(std::min<int64_t>(next, LASTINTERPOLITER));
}

// Fills the five new vertices of a split cell from the cubic through `d`
// at `iter`, in the frame (`hpv`, `ref`, `absolute`).
template <typename T>
void fillhalves(typename T::CANVAS* canvas, int i, int L, const typename T::COMPLEX d[4],
                UITER iter, CHPVALUE* hpv, int ref, bool absolute) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::COMPLEX r[3][3], dr[3][3];
  interpol<T>(d, r, dr);
  typename T::COMPLEX D = derivativescale<T>(canvas, L);
  int h = 1 << (canvas->canvassizeshift - L - 1);
  const int at[5][2] = {{1, 0}, {0, 1}, {1, 1}, {2, 1}, {1, 2}};
  for (const auto& p : at) {
    int k = p[0], j = p[1];
    typename T::CVERTEX* vx = &canvas->v[i + j * h * R + k * h];
    initializeinterpol<T>(canvas, vx, r[j][k], hpv, ref, 0, N::cmul(dr[j][k], D), iter, absolute);
  }
}

// Gives the five new vertices of a split cell that no fill reached their own
// start state. `interpolv` of a vertex no cell has carried yet is empty, and
// its zero is a start only where every orbit begins at 0: a Julia orbit
// begins at the vertex's own point, which its `v` holds until a kernel first
// runs on the vertex. Begun from zero, such a vertex followed the orbit of
// the critical point instead, and counted its escape.
template <typename T>
void startfromown(typename T::CANVAS* canvas, int i, int L) {
  int h = 1 << (canvas->canvassizeshift - L - 1);
  const int at[5][2] = {{1, 0}, {0, 1}, {1, 1}, {2, 1}, {1, 2}};
  for (const auto& p : at) {
    typename T::CVERTEX* vx = &canvas->v[i + p[1] * h * R + p[0] * h];
    typename T::CVALUE* iv = &vx->interpolv;
    if (vx->maxiter == TESTEDLIMIT ||
        (vx->flags & (VX_FORCE_FINAL | VX_CALCULATEDMASK | VX_ITERATED)))
      continue;
    if (iv->iter != 0 || iv->flags != 0 || vx->v.flags != 0) continue;
    canvasmodel::freevalue<T>(canvas, iv);
    iv->iter = vx->v.iter;
    iv->ref = -1;
    iv->data = 0;
    iv->value = vx->v.value;
    iv->d = vx->v.d;
    iv->Z = vx->v.Z;
    iv->flags = 0;
  }
}

// The old states of a cell that still make a good cubic: at the last stop,
// else at the stop before. False when neither does.
template <typename T>
bool goodoldstates(OVCONTEXT* context, typename T::CANVAS* canvas, typename T::CVERTEX* cv[4],
                   int below, typename T::COMPLEX d[4], UITER* iter, CHPVALUE** hpv, int* ref,
                   bool* absolute) {
  // The two stops first; then any other iteration all four corners kept a
  // state of (a cell split from a fill holds the states of its fill, which
  // lie behind both stops once the stride has moved on).
  UITER tries[4] = {static_cast<UITER>(canvas->oldinterpoliter),
                    static_cast<UITER>(canvas->oldinterpoliter2), cv[0]->oldv.iter,
                    cv[0]->oldv2.iter};
  if (tries[3] > tries[2]) std::swap(tries[2], tries[3]);
  for (int which = 0; which < 4; which++) {
    UITER at = tries[which];
    bool seen = false;
    for (int w = 0; w < which; w++) seen = seen || tries[w] == at;
    if (seen) continue;
    typename T::CVALUE* s[4];
    bool usable = true;
    for (int k = 0; k < 4; k++) {
      s[k] = nullptr;
      for (typename T::CVALUE* o : {&cv[k]->oldv, &cv[k]->oldv2})
        if (!s[k] && o->flags != EMPTYOLD && o->iter == at) s[k] = o;
      usable = usable && s[k];
    }
    if (!usable) continue;
    if (goodcubic<T>(context, canvas, s, below, d, absolute, hpv, ref)) {
      *iter = at;
      return true;
    }
  }
  return false;
}

}  // namespace

// ---------------------------------------------------------------- the cubic

template <typename T>
typename T::COMPLEX interpol1(const typename T::COMPLEX v[4]) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::COMPLEX s = N::cmul(N::cfromd(-1.5, 1.5), v[0]);
  s = N::cadd(s, N::cmul(N::cfromd(0, -1), v[1]));
  s = N::cadd(s, N::cmul(N::cfromd(0.5, -0.5), v[2]));
  return N::cadd(s, v[3]);
}

template <typename T>
typename T::COMPLEX interpol2(const typename T::COMPLEX v[4]) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::COMPLEX s = N::cmul(N::cfromd(0, -2), v[0]);
  s = N::cadd(s, N::cmul(N::cfromd(1.5, 0.5), v[1]));
  s = N::cadd(s, N::cmul(N::cfromd(0, 1), v[2]));
  return N::cadd(s, N::cmul(N::cfromd(-1.5, 0.5), v[3]));
}

template <typename T>
typename T::COMPLEX interpol3(const typename T::COMPLEX v[4]) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::COMPLEX s = N::cmul(N::cfromd(0.5, 0.5), v[0]);
  s = N::cadd(s, N::cmul(N::cfromd(-0.5, 0.5), v[1]));
  s = N::cadd(s, N::cmul(N::cfromd(-0.5, -0.5), v[2]));
  return N::cadd(s, N::cmul(N::cfromd(0.5, -0.5), v[3]));
}

template <typename T>
void interpol(const typename T::COMPLEX v[4], typename T::COMPLEX r[3][3],
              typename T::COMPLEX dr[3][3]) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::COMPLEX a1 = interpol1<T>(v), a2 = interpol2<T>(v), a3 = interpol3<T>(v);
  typename T::COMPLEX a2t = N::ctwice(a2), a3t = N::cmul(N::cfromd(3, 0), a3);
  for (int j = 0; j < 3; j++) {
    for (int k = 0; k < 3; k++) {
      typename T::COMPLEX s = N::cfromd(0.5 * k, 0.5 * j);
      r[j][k] = N::cadd(N::cmul(N::cadd(N::cmul(N::cadd(N::cmul(a3, s), a2), s), a1), s), v[0]);
      dr[j][k] = N::cadd(N::cmul(N::cadd(N::cmul(a3t, s), a2t), s), a1);
    }
  }
  // The corners are the values themselves, not their reconstruction.
  r[0][0] = v[0];
  r[0][2] = v[1];
  r[2][2] = v[2];
  r[2][0] = v[3];
}

template <typename T>
bool caccurateinterpolquadratic([[maybe_unused]] OVCONTEXT* context,
                                const typename T::COMPLEX d[4], int depth) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::FLOAT l1 = N::abss(interpol1<T>(d));
  typename T::FLOAT l2 = N::abss(interpol2<T>(d));
  typename T::FLOAT l3 = N::abss(interpol3<T>(d));
  return N::less(l3, N::mul(l1, N::pow2(-5 - depth))) && N::less(l2, N::mul(l1, N::pow2(-1 - depth)));
}

template <typename T>
bool caccurateinterpolquadraticabs(OVCONTEXT* context, const typename T::COMPLEX d[4], int depth) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  if (!caccurateinterpolquadratic<T>(context, d, depth)) return false;
  // An absolute value rounds at |z| 2^-bits; the corners' spread must stand
  // 2^16 above that, or the cubic would fit rounding noise.
  typename T::FLOAT l0 = N::abss(d[0]);
  typename T::FLOAT l1 = N::abss(interpol1<T>(d));
  return N::less(N::mul(l0, N::pow2(2 * (16 - mantissabits<typename T::FLOAT>()))), l1);
}

// ---------------------------------------------------------------- states

template <typename T>
void initializeinterpol(typename T::CANVAS* canvas, typename T::CVERTEX* vertex,
                        typename T::COMPLEX value, CHPVALUE* hpv, int ref, unsigned int flags,
                        typename T::COMPLEX d, UITER iter, bool absolute) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  vertex->flags += flags;
  if (vertex->maxiter == TESTEDLIMIT) return;
  // A vertex that left the interpolation with its result keeps it.
  if ((vertex->flags & (VX_FORCE_FINAL | VX_FILLED)) == VX_FORCE_FINAL) return;
  if (vertex->interpolv.iter >= iter && (vertex->flags & VX_CALCULATEDMASK)) return;
  typename T::CVALUE s;
  s.iter = iter;
  s.value = value;
  s.d = d;
  s.Z = N::zero();
  s.hpvalue = hpv;
  s.ref = hpv ? ref : -1;
  s.data = -1;
  s.flags = hpv ? CV_RELATIVE : absolute ? CV_ABSOLUTE : 0;
  if (hpv && ref >= 0) {
    int b = canvas->v[ref].firstdata;
    while (b != -1 && int64_t(iter) > int64_t(canvas->data[b].iter) + CDATAGRAN - 1)
      b = canvas->data[b].next;
    s.data = b;
  }
  canvasmodel::copyvalue<T>(canvas, &vertex->interpolv, &s);
  vertex->flags &= ~(VX_FORCE_FINAL | VX_FILLED);
  bool atstop = false;
  if (static_cast<ITER>(iter) == canvas->oldinterpoliter) {
    canvasmodel::copyvalue<T>(canvas, &vertex->oldv, &s);
    atstop = true;
  }
  if (static_cast<ITER>(iter) == canvas->oldinterpoliter2) {
    canvasmodel::copyvalue<T>(canvas, &vertex->oldv2, &s);
    atstop = true;
  }
  // A fill behind both stops is kept too: should the new cells' corners all
  // leave before the next stop, their split starts from here.
  if (!atstop) canvasmodel::copyvalue<T>(canvas, &vertex->oldv, &s);
}

// Four corners that escaped at one step say nothing of the points between
// them: a Julia tile across the whole set has its corners outside the disc
// of radius 2 from the start, and the cubic through start points is exact.
// The fill stands only where every point it would fill escapes at that step
// too, its z^2 + c outside the radius as the kernels test it. States kept
// as differences to a reference say nothing of the radius by themselves;
// their cubic follows that reference, and they are left as they were.
template <typename T>
bool escapesthroughout(const typename T::CANVAS* canvas, const typename T::CVERTEX* v,
                       const typename T::COMPLEX d[4], int interpolwidth) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::COMPLEX a1 = interpol1<T>(d), a2 = interpol2<T>(d), a3 = interpol3<T>(d);
  const bool julia = (canvas->flags & CF_JULIA) != 0;
  typename T::COMPLEX juliac = N::czero();
  if (const HPVALUE* j = julia ? canvaskernels::jobjulia(canvas->__worker) : nullptr)
    juliac = canvaskernels::cfrommpf<T>(j->v[0], j->v[1]);
  const typename T::FLOAT four = N::fromd(4.0);
  const double inv = 1.0 / interpolwidth;
  for (int j = 0; j <= interpolwidth; j++) {
    for (int k = 0; k <= interpolwidth; k++) {
      const typename T::CVERTEX* vx = &canvas->v[v->index + j * R + k];
      if (vx->interpolv.iter != 0) continue;
      typename T::COMPLEX s = N::cfromd(k * inv, j * inv);
      typename T::COMPLEX z =
          N::cadd(N::cmul(N::cadd(N::cmul(N::cadd(N::cmul(a3, s), a2), s), a1), s), d[0]);
      typename T::COMPLEX c = julia ? juliac : canvaskernels::absolutec<T>(canvas, vx->x, vx->y);
      if (!N::less(four, N::abss(N::cadd(N::csqr(z), c)))) return false;
    }
  }
  return true;
}

template <typename T>
void superinterpol([[maybe_unused]] OVCONTEXT* context, typename T::CANVAS* canvas,
                   typename T::CVERTEX* v, const typename T::COMPLEX d[4], UITER iter,
                   int interpolwidth, unsigned int flags) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::COMPLEX a1 = interpol1<T>(d), a2 = interpol2<T>(d), a3 = interpol3<T>(d);
  typename T::COMPLEX a2t = N::ctwice(a2), a3t = N::cmul(N::cfromd(3, 0), a3);
  typename T::COMPLEX D = derivativescale<T>(canvas, v->interpoldepth);
  const double inv = 1.0 / interpolwidth;
  for (int j = 0; j <= interpolwidth; j++) {
    for (int k = 0; k <= interpolwidth; k++) {
      typename T::CVERTEX* vx = &canvas->v[v->index + j * R + k];
      if (vx->interpolv.iter != 0) continue;
      typename T::COMPLEX s = N::cfromd(k * inv, j * inv);
      vx->flags |= VX_FORCE_FINAL | VX_FILLED;
      canvasmodel::freevalue<T>(canvas, &vx->interpolv);
      vx->interpolv.flags = flags | CV_ABSOLUTE;
      vx->interpolv.ref = -1;
      vx->interpolv.Z = N::zero();
      vx->interpolv.iter = iter;
      vx->interpolv.value =
          N::cadd(N::cmul(N::cadd(N::cmul(N::cadd(N::cmul(a3, s), a2), s), a1), s), d[0]);
      vx->interpolv.d = N::cmul(N::cadd(N::cmul(N::cadd(N::cmul(a3t, s), a2t), s), a1), D);
    }
  }
}

// Every vertex inside a cell, and on its border where no live cell holds
// it, takes its state from the cubic through the corners' states `d` at
// `iter`, in the frame (`hpv`, `ref`, `absolute`): the cubic was found good
// for the finest level, so each vertex may go on from there on its own.
template <typename T>
void fillinside(typename T::CANVAS* canvas, int i, int L, const typename T::COMPLEX d[4], UITER iter,
                CHPVALUE* hpv, int ref, bool absolute) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::COMPLEX a1 = interpol1<T>(d), a2 = interpol2<T>(d), a3 = interpol3<T>(d);
  typename T::COMPLEX a2t = N::ctwice(a2), a3t = N::cmul(N::cfromd(3, 0), a3);
  typename T::COMPLEX D = derivativescale<T>(canvas, L);
  const int w = 1 << (canvas->canvassizeshift - L);
  const double inv = 1.0 / w;
  for (int j = 0; j <= w; j++) {
    for (int k = 0; k <= w; k++) {
      bool border = j == 0 || k == 0 || j == w || k == w;
      bool corner = (j == 0 || j == w) && (k == 0 || k == w);
      typename T::CVERTEX* vx = &canvas->v[i + j * R + k];
      if (corner || (border && (vx->flags & VX_CALCULATEDMASK))) continue;
      typename T::COMPLEX s = N::cfromd(k * inv, j * inv);
      typename T::COMPLEX value =
          N::cadd(N::cmul(N::cadd(N::cmul(N::cadd(N::cmul(a3, s), a2), s), a1), s), d[0]);
      typename T::COMPLEX dv = N::cmul(N::cadd(N::cmul(N::cadd(N::cmul(a3t, s), a2t), s), a1), D);
      initializeinterpol<T>(canvas, vx, value, hpv, ref, 0, dv, iter, absolute);
    }
  }
}

// A cell whose four corners all left within one stride was good at an
// earlier stop: its inside is filled from there, not left to begin at z = 0
// (the finite pass does not close equal cells under interpolation).
template <typename T>
void fillfromearlier(OVCONTEXT* context, typename T::CANVAS* canvas, int i, typename T::CVERTEX* cv[4]) {
  const int S = canvas->canvassizeshift;
  int L = canvas->v[i].interpoldepth;
  if (L >= S) return;
  typename T::COMPLEX d[4];
  UITER at = 0;
  CHPVALUE* hpv = nullptr;
  int ref = -1;
  bool absolute = true;
  if (goodoldstates<T>(context, canvas, cv, S - L - 1 + FILLMARGIN, d, &at, &hpv, &ref, &absolute))
    fillinside<T>(canvas, i, L, d, at, hpv, ref, absolute);
}

// ---------------------------------------------------------------- corners

template <typename T>
void interpolcanvascalc(OVCONTEXT* context, typename T::CANVAS* canvas, typename T::CVERTEX* v[4]) {
  for (int k = 0; k < 4; k++) {
    typename T::CVERTEX* vx = v[k];
    typename T::CVALUE* iv = &vx->interpolv;
    for (;;) {
      if (iv->iter >= static_cast<UITER>(canvas->interpoliter)) {
        if (iv->iter > static_cast<UITER>(canvas->interpoliter) &&
            static_cast<ITER>(iv->iter) < canvas->newinterpoliter)
          canvas->newinterpoliter = static_cast<ITER>(iv->iter);
        break;
      }
      // Settled: a result, a fill, or an interior point.
      if (vx->flags & (VX_FORCE_FINAL | VX_NOINTERPOL)) break;
      if (iv->iter == static_cast<UITER>(canvas->oldinterpoliter)) {
        // The last stop's state becomes the one before, where that is the
        // second stop kept: a vertex brought forward stride by stride never
        // stands at the second stop when it is named.
        if (vx->oldv.iter == static_cast<UITER>(canvas->oldinterpoliter2) && vx->oldv.flags != EMPTYOLD &&
            vx->oldv2.iter != vx->oldv.iter)
          canvasmodel::copyvalue<T>(canvas, &vx->oldv2, &vx->oldv);
        canvasmodel::copyvalue<T>(canvas, &vx->oldv, iv);
      }
      if (iv->iter == static_cast<UITER>(canvas->oldinterpoliter2)) canvasmodel::copyvalue<T>(canvas, &vx->oldv2, iv);
      bool toold = static_cast<UITER>(canvas->oldinterpoliter) > iv->iter;
      ITER target = toold ? canvas->oldinterpoliter : canvas->interpoliter;
      int r = canvasdriver::runkernel<T>(context, canvas, vx, &vx->interpolv, target, vx->index,
                                            vx->interpoldepth);
      if (r != CALC_MORE) {
        if (!(iv->flags & CV_INFTY) && static_cast<ITER>(iv->iter) > canvas->maxiter &&
            iv->iter <= static_cast<UITER>(NOLIMIT))
          canvas->maxiter = static_cast<ITER>(iv->iter);
        canvasmodel::freevalue<T>(canvas, &vx->v);
        vx->v.iter = iv->iter;
        vx->v.value = iv->value;
        vx->v.d = iv->d;
        vx->v.Z = iv->Z;
        vx->v.ref = -1;
        vx->v.flags = (iv->flags & CV_FAILED) ? CV_FAILED : iv->flags & (CV_ABSOLUTE | CV_ESCAPED | CV_INFTY);
        vx->flags |= VX_FORCE_FINAL | VX_FINISHED;
        break;
      }
      if (static_cast<ITER>(iv->iter) < canvas->newinterpoliter)
        canvas->newinterpoliter = static_cast<ITER>(iv->iter);
      if (!(toold && iv->iter == static_cast<UITER>(target))) break;
    }
  }
}

// ---------------------------------------------------------------- cells

template <typename T>
void interpolarea(OVCONTEXT* context, typename T::CANVAS* canvas, int i, typename T::CVERTEX* v[4],
                  int interpolwidth, int* nexti) {
  const int S = canvas->canvassizeshift;
  int L = canvas->v[i].interpoldepth;
  if (L >= S || interpolwidth < 2) {
    retirecell<T>(canvas, v);
    canvasdriver::canvasinworkerfinite<T>(canvas, i);
    return;
  }
  typename T::COMPLEX d[4];
  UITER iter = 0;
  CHPVALUE* hpv = nullptr;
  int ref = -1;
  bool absolute = true;
  bool fill = goodoldstates<T>(context, canvas, v, S - L - 1 + FILLMARGIN, d, &iter, &hpv, &ref, &absolute);
  // The driver's tree may be finer already: the finite pass split it.
  if (canvas->v[i].depth <= L) canvasdriver::subdividecanvas<T>(canvas, i);
  if (fill) fillhalves<T>(canvas, i, L, d, iter, hpv, ref, absolute);
  else startfromown<T>(canvas, i, L);
  int h = interpolwidth / 2;
  const int quarters[4] = {i, i + h, i + h * R + h, i + h * R};
  for (int q : quarters) {
    int c[4];
    cellcorners<T>(q, h, c);
    if (L + 1 < S) {
      for (int k : c) canvas->v[k].flags += VX_CALCULATED;
      entercell<T>(canvas, q, L + 1, nexti);
    } else {
      canvasdriver::canvasinworkerfinite<T>(canvas, q);
    }
  }
  retirecell<T>(canvas, v);
}

// Handles one live cell whose corners have been brought forward.
// The count that bounds interpolation. Without an escape on the canvas,
// an environment that is not periodic still sets one: past the end of its
// orbit every corner would go on as its own reference at full precision,
// and inside a minibrot nothing ever escapes to end the cell otherwise.
template <typename T>
int64_t knownlimit(const typename T::CANVAS* canvas) {
  if (canvas->maxiter != 0) return canvas->maxiter;
  const ENVIRONMENT* e = jobenvironment<T>(canvas);
  if (e && !(e->flags & E_PERIODIC) && e->n > 0) return int64_t(e->n);
  return LASTINTERPOLITER;
}

template <typename T>
void interpolcell(OVCONTEXT* context, typename T::CANVAS* canvas, int i, int* head) {
  const int S = canvas->canvassizeshift;
  int L = canvas->v[i].interpoldepth;
  int w = 1 << (S - L);
  int c[4];
  cellcorners<T>(i, w, c);
  typename T::CVERTEX* cv[4] = {&canvas->v[c[0]], &canvas->v[c[1]], &canvas->v[c[2]], &canvas->v[c[3]]};
  interpolcanvascalc<T>(context, canvas, cv);

  int nfinal = 0, nsettled = 0;
  for (auto* vx : cv) {
    if (vx->flags & VX_FORCE_FINAL) nfinal++;
    if (vx->flags & (VX_FORCE_FINAL | VX_NOINTERPOL)) nsettled++;
  }
  if (nsettled == 4) {
    bool filled = false;
    if (nfinal == 4 && (canvas->flags & CF_SUPERINTERPOL)) {
      typename T::CVALUE* s[4] = {&cv[0]->v, &cv[1]->v, &cv[2]->v, &cv[3]->v};
      bool same = true;
      for (auto* st : s) same = same && st->flags == (CV_ABSOLUTE | CV_ESCAPED) && st->iter == s[0]->iter;
      typename T::COMPLEX d[4];
      bool absolute;
      CHPVALUE* hpv;
      int ref;
      if (same && goodcubic<T>(context, canvas, s, S - L - 1, d, &absolute, &hpv, &ref) &&
          (!absolute || escapesthroughout<T>(canvas, cv[0], d, w))) {
        superinterpol<T>(context, canvas, cv[0], d, s[0]->iter, w, CV_ESCAPED);
        filled = true;
      }
    }
    if (nfinal == 4 && !filled) fillfromearlier<T>(context, canvas, i, cv);
    retirecell<T>(canvas, cv);
    canvasdriver::canvasinworkerfinite<T>(canvas, i);
    return;
  }
  if (nsettled > 0) {
    interpolarea<T>(context, canvas, i, cv, w, head);
    return;
  }
  bool outrun = int64_t(canvas->interpoliter) >= 2 * (int64_t(knownlimit<T>(canvas)) + 5000);
  if (outrun || canvas->interpoliter >= LASTINTERPOLITER) {
    retirecell<T>(canvas, cv);
    canvasdriver::canvasinworkerfinite<T>(canvas, i);
    return;
  }
  bool arrived = true;
  for (auto* vx : cv) arrived = arrived && vx->interpolv.iter == static_cast<UITER>(canvas->interpoliter);
  if (arrived) {
    typename T::CVALUE* s[4] = {&cv[0]->interpolv, &cv[1]->interpolv, &cv[2]->interpolv, &cv[3]->interpolv};
    typename T::COMPLEX d[4];
    bool absolute;
    CHPVALUE* hpv;
    int ref;
    if (!goodcubic<T>(context, canvas, s, S - L - 1, d, &absolute, &hpv, &ref)) {
      interpolarea<T>(context, canvas, i, cv, w, head);
      return;
    }
  }
  // Still good, or not there yet: the cell goes on.
  entercell<T>(canvas, i, L, head);
}

template <typename T>
void interpolcanvas(OVCONTEXT* context, typename T::CANVAS* canvas, int depth, int maxdepth) {
  (void)maxdepth;
  const ENVIRONMENT* e = jobenvironment<T>(canvas);
  ITER P = (e && (e->flags & E_PERIODIC)) ? static_cast<ITER>(e->n) : 0;
  canvas->__n = P;
  canvas->newinterpoliter = NOLIMIT;
  while (canvas->workerinterpol != -1 && canvas->interpolmindepth <= depth) {
    if (canvaskernels::jobstopped<T>(canvas)) return;
    advance<T>(canvas, P);
    int cell = canvas->workerinterpol;
    canvas->workerinterpol = -1;
    canvas->interpolmindepth = canvas->canvassizeshift;
    canvas->newinterpoliter = NOLIMIT;
    while (cell != -1) {
      int next = canvas->v[cell].next4;
      interpolcell<T>(context, canvas, cell, &canvas->workerinterpol);
      cell = next;
    }
  }
}

// ---------------------------------------------------------------- instantiations

#define ORVANTA_INSTANTIATE(T)                                                                   \
  template void interpolcanvas<T>(OVCONTEXT*, T::CANVAS*, int, int);                             \
  template void interpolcanvascalc<T>(OVCONTEXT*, T::CANVAS*, T::CVERTEX*[4]);                    \
  template void interpolarea<T>(OVCONTEXT*, T::CANVAS*, int, T::CVERTEX*[4], int, int*);          \
  template void superinterpol<T>(OVCONTEXT*, T::CANVAS*, T::CVERTEX*, const T::COMPLEX[4], UITER, \
                                 int, unsigned int);                                             \
  template void initializeinterpol<T>(T::CANVAS*, T::CVERTEX*, T::COMPLEX, CHPVALUE*, int,        \
                                      unsigned int, T::COMPLEX, UITER, bool);                     \
  template void interpol<T>(const T::COMPLEX[4], T::COMPLEX[3][3], T::COMPLEX[3][3]);             \
  template T::COMPLEX interpol1<T>(const T::COMPLEX[4]);                                          \
  template T::COMPLEX interpol2<T>(const T::COMPLEX[4]);                                          \
  template T::COMPLEX interpol3<T>(const T::COMPLEX[4]);                                          \
  template bool caccurateinterpolquadratic<T>(OVCONTEXT*, const T::COMPLEX[4], int);              \
  template bool caccurateinterpolquadraticabs<T>(OVCONTEXT*, const T::COMPLEX[4], int);
ORVANTA_INSTANTIATE(CANVASTEMPLATE_float)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_double)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_longdouble)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_hfloat)
#undef ORVANTA_INSTANTIATE

}  // namespace canvasinterpol
