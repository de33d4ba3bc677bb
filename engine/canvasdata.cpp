// canvasdata.cpp: the two pools inside a canvas, orbit sample blocks and
// high-precision checkpoints, and the operations on orbit states that hold
// counts on checkpoints.
//
// Both pools are arrays addressed from a free-list head whose tail is
// implicit: an entry at the head with no successor stands for itself and
// every entry after it in the array, so that `initcanvas` resets a pool by
// touching one entry. Exhaustion is a normal event and prints nothing.
#include <gmp.h>

#include <climits>
#include <cstdio>

#include "Mandelbrot.h"
#include "canvas/kernels.h"
#include "canvas/kernelsupport.h"
#include "canvas/model.h"
#include "envhp.h"

namespace canvaskernels {

ORBITTALLY& orbittally() {
  static ORBITTALLY tally;
  return tally;
}

}  // namespace canvaskernels

namespace canvasmodel {

namespace {

template <typename T>
bool chainhaslowest(typename T::CVERTEX* v, CHPVALUE** lowest) {
  if (chainempty(&v->hpvchain)) return false;
  *lowest = CHAINRECORD(v->hpvchain.next, CHPVALUE, chain);
  return true;
}

}  // namespace

// ---------------------------------------------------------------- orbit blocks

template <typename T>
int addcdata(typename T::CANVAS* canvas, ITER iter, int ref) {
  if (canvas->idata > NCDATA - 1) return -1;
  int b = canvas->rdata;
  if (canvas->data[b].next == -1) {
    canvas->rdata = b + 1;
    // Past the last block the head is never read: the count above stops
    // the pool first, and a block given back becomes the head again.
    if (b + 1 < NCDATA) canvas->data[b + 1].next = -1;
  } else {
    canvas->rdata = canvas->data[b].next;
  }
  canvas->idata++;
  canvas->data[b].next = -1;
  canvas->data[b].ref = ref;
  canvas->data[b].iter = iter;
  return b;
}

template <typename T>
void removecdata(typename T::CANVAS* canvas, int block) {
  canvas->data[block].next = canvas->rdata;
  canvas->rdata = block;
  canvas->idata--;
}

template <typename T>
void freetoitercdata(typename T::CANVAS* canvas, int* head, ITER iter) {
  while (*head != -1) {
    int b = *head;
    // Only blocks whose last sample lies below iter: the one holding iter
    // is still read.
    if (static_cast<long>(canvas->data[b].iter) + CDATAGRAN > iter) break;
    *head = canvas->data[b].next;
    removecdata<T>(canvas, b);
  }
}

template <typename T>
int writecdata(typename T::CANVAS* canvas, int* cursor, ITER iter, typename T::COMPLEX value,
               typename T::FLOAT a, int ref) {
  int b = *cursor;
  if (b == -1) return 0;
  if (iter < canvas->data[b].iter) return 1;
  while (static_cast<long>(iter) > static_cast<long>(canvas->data[b].iter) + CDATAGRAN - 1) {
    int n = canvas->data[b].next;
    if (n == -1) {
      n = addcdata<T>(canvas, canvas->data[b].iter + CDATAGRAN, ref);
      if (n == -1) {
        *cursor = b;
        return 0;
      }
      canvas->data[b].next = n;
    }
    b = n;
  }
  *cursor = b;
  int k = iter - canvas->data[b].iter;
  canvas->data[b].value[k] = value;
  canvas->data[b].a[k] = a;
  return 1;
}

template <typename T>
void readcdata(typename T::CANVAS* canvas, int* cursor, ITER iter, typename T::COMPLEX* value,
               typename T::FLOAT* a) {
  int b = *cursor;
  if (b == -1) return;
  if (iter < canvas->data[b].iter) return;
  while (static_cast<long>(iter) > static_cast<long>(canvas->data[b].iter) + CDATAGRAN - 1) {
    b = canvas->data[b].next;
    if (b == -1) return;
  }
  *cursor = b;
  int k = iter - canvas->data[b].iter;
  *value = canvas->data[b].value[k];
  *a = canvas->data[b].a[k];
}

// ---------------------------------------------------------------- checkpoints

template <typename T>
CHPVALUE* addhpvalue(typename T::CANVAS* canvas, bool clear) {
  if (canvas->ihpvalue > NCHPVALUE - 1) return nullptr;
  CHPVALUE* h = canvas->rhpvalue;
  if (h->next == nullptr) {
    CHPVALUE* following = h + 1;
    // One past the array is a head that is never read, as with the blocks.
    if (following < canvas->hpvalue + NCHPVALUE) following->next = nullptr;
    canvas->rhpvalue = following;
  } else {
    canvas->rhpvalue = h->next;
  }
  canvas->ihpvalue++;
  int index = static_cast<int>(h - canvas->hpvalue);
  if (index >= canvas->mhpvalue) {
    mpf_init2(h->value[0], canvas->precision);
    mpf_init2(h->value[1], canvas->precision);
    canvas->mhpvalue = index + 1;
  } else {
    mpf_set_prec(h->value[0], canvas->precision);
    mpf_set_prec(h->value[1], canvas->precision);
    if (clear) {
      mpf_set_ui(h->value[0], 0);
      mpf_set_ui(h->value[1], 0);
    }
  }
  h->iter = 0;
  // Self-linked, so that taking a checkpoint off a chain it never joined
  // is harmless.
  initchain(&h->chain);
  h->next = nullptr;
  h->count = 1;
  return h;
}

template <typename T>
void attachhpvalue(CHPVALUE* value) {
  value->count++;
}

namespace {

template <typename T>
void givehpvalue(typename T::CANVAS* canvas, CHPVALUE* value) {
  value->next = canvas->rhpvalue;
  canvas->rhpvalue = value;
  canvas->ihpvalue--;
}

}  // namespace

template <typename T>
void detachhpvalue(typename T::CANVAS* canvas, CHPVALUE* value, bool chained) {
  if (!value) return;
  if (value->count < 1) {
    fputs("detachhpvalue: error.\n", stderr);
    return;
  }
  if (--value->count != 0) return;
  if (chained) chainrem(&value->chain);
  givehpvalue<T>(canvas, value);
}

template <typename T>
void refdetachhpvalue(typename T::CANVAS* canvas, int vertex, CHPVALUE* value) {
  if (value->count < 1) {
    fputs("detachhpvalue: error.\n", stderr);
    return;
  }
  typename T::CVERTEX* v = &canvas->v[vertex];
  if (--value->count == 0) {
    chainrem(&value->chain);
    givehpvalue<T>(canvas, value);
  }
  // Samples below the lowest checkpoint can never be recomputed from it,
  // nor are they needed to: orbits are only followed forward from one.
  CHPVALUE* lowest;
  if (chainhaslowest<T>(v, &lowest)) freetoitercdata<T>(canvas, &v->firstdata, lowest->iter);
  else freetoitercdata<T>(canvas, &v->firstdata, INT_MAX);
  if (v->firstdata == -1) v->lastdata = -1;
}

namespace {

// Whether a state still follows the vertex's present orbit. Such a state
// names its reference by the vertex alone, so a new orbit of the vertex
// would slide under it: another iteration, another start, another result.
// The chain's own count on its first checkpoint is not a follower.
template <typename T>
bool orbitfollowed(typename T::CVERTEX* v) {
  bool first = true;
  for (CHAIN* l = v->hpvchain.next; l != &v->hpvchain; l = l->next) {
    if (CHAINRECORD(l, CHPVALUE, chain)->count > (first ? 1 : 0)) return true;
    first = false;
  }
  return false;
}

// The vertex's orbit, followed by no state, back to the pools: its chain
// (which holds a count on its first checkpoint only) and its blocks.
template <typename T>
void releaseorbit(typename T::CANVAS* canvas, typename T::CVERTEX* v) {
  bool first = true;
  while (!chainempty(&v->hpvchain)) {
    CHPVALUE* old = CHAINRECORD(v->hpvchain.next, CHPVALUE, chain);
    chainrem(&old->chain);
    initchain(&old->chain);
    if (first) detachhpvalue<T>(canvas, old, false);
    first = false;
  }
  while (v->firstdata != -1) {
    int b = v->firstdata;
    v->firstdata = canvas->data[b].next;
    removecdata<T>(canvas, b);
  }
  v->lastdata = -1;
  v->refiter = 0;
}

// Every orbit on the canvas that no state follows any more, back to the
// pools: near a minibrot many vertices become references, and the orbits of
// the finished ones would otherwise fill the pools for the later ones.
template <typename T>
void reclaimorbits(typename T::CANVAS* canvas) {
  const int size = 1 << canvas->canvassizeshift;
  for (int y = 0; y <= size; y++) {
    for (int x = 0; x <= size; x++) {
      typename T::CVERTEX* v = &canvas->v[y * CANVASSIZE + x];
      if (!chainempty(&v->hpvchain) && !orbitfollowed<T>(v)) releaseorbit<T>(canvas, v);
    }
  }
}

}  // namespace

template <typename T>
CHPVALUE* refgethpvalue(typename T::CANVAS* canvas, int vertex, ITER* iter, int flag) {
  typename T::CVERTEX* v = &canvas->v[vertex];
  if (chainempty(&v->hpvchain)) {
    fputs("refgethpvalue: Chain empty!\n", stderr);
    return nullptr;
  }
  CHPVALUE* lower = nullptr;
  for (CHAIN* l = v->hpvchain.next; l != &v->hpvchain; l = l->next) {
    CHPVALUE* h = CHAINRECORD(l, CHPVALUE, chain);
    if (h->iter > *iter) break;
    if (h->iter == *iter) {
      attachhpvalue<T>(h);
      return h;
    }
    lower = h;
  }
  if (v->refiter && *iter >= v->refiter) {
    *iter = v->refiter;
    return nullptr;
  }
  if (!flag) return nullptr;
  // Orbits are only followed forward: a request below the lowest
  // checkpoint cannot be served.
  if (!lower) return nullptr;
  // An orbit cut short by a full pool would read as one that escaped, and
  // its followers would go on absolutely, where the format cannot carry
  // them: the orbits no state follows any more make room first.
  const long need = (static_cast<long>(*iter) - lower->iter) / CDATAGRAN + 2;
  if (canvas->idata + need > NCDATA) reclaimorbits<T>(canvas);
  CHPVALUE* h = addhpvalue<T>(canvas, false);
  if (!h) {
    *iter = lower->iter;
    return nullptr;
  }
  mpf_set(h->value[0], lower->value[0]);
  mpf_set(h->value[1], lower->value[1]);
  ITER reached = lower->iter;
  int complete = canvaskernels::calcitercanvashp<T>(canvas, h, v->x, v->y, &reached, *iter,
                                                    &v->lastdata, vertex);
  canvaskernels::orbittally().hpiterations +=
      static_cast<long>(complete ? *iter : reached) - static_cast<long>(lower->iter);
  if (!complete) {
    detachhpvalue<T>(canvas, h, false);
    if (canvaskernels::jobstopped<T>(canvas)) return nullptr;
    if (reached < lower->iter) reached = lower->iter;
    v->refiter = reached;
    *iter = reached;
    return nullptr;
  }
  h->iter = *iter;
  // Right after the lower one. The count is the caller's alone: the chain
  // keeps only its first checkpoint alive, and a later one leaves the chain
  // with its last holder.
  chaininsend(&lower->chain, &h->chain);
  return h;
}

namespace {

// The environment's checkpoint slot `k` (0 the oldest, at `oldinterpoliter2`;
// 2 the newest, at `interpoliter`), made from the one before it or from the
// environment's own checkpoints.
template <typename T>
CHPVALUE* environmentslot(typename T::CANVAS* canvas, const ENVIRONMENT* e, int k) {
  CHPVALUE** slots[3] = {&canvas->oldenvironmenthpvalue2, &canvas->oldenvironmenthpvalue,
                         &canvas->environmenthpvalue};
  const ITER iters[3] = {canvas->oldinterpoliter2, canvas->oldinterpoliter,
                         canvas->interpoliter};
  if (*slots[k]) return *slots[k];
  CHPVALUE* before = nullptr;
  if (k > 0 && iters[k - 1] <= iters[k]) before = environmentslot<T>(canvas, e, k - 1);
  CHPVALUE* h = addhpvalue<T>(canvas, false);
  if (!h) return nullptr;
  h->iter = iters[k];
  bool made;
  if (before) {
    mpf_set(h->value[0], before->value[0]);
    mpf_set(h->value[1], before->value[1]);
    ITER reached = before->iter;
    canvaskernels::calcitercanvashpex<T>(canvas, h, e->c->v[0], &reached, iters[k]);
    canvaskernels::orbittally().hpiterations +=
        static_cast<long>(reached) - static_cast<long>(before->iter);
    made = reached == iters[k];
  } else {
    made = getenvironmenthpvalueraw(e, iters[k], h->value[0]);
  }
  if (!made) {
    detachhpvalue<T>(canvas, h, false);
    return nullptr;
  }
  *slots[k] = h;
  return h;
}

// The environment's orbit at its end `n`, where it left the disc: every
// vertex that outlives it becomes a reference there, and one checkpoint per
// canvas serves them all, where each of them used to run its own orbit from
// z = 0 (thousands of iterations at the full precision of a deep tile).
template <typename T>
CHPVALUE* endslot(typename T::CANVAS* canvas, const ENVIRONMENT* e) {
  if (canvas->endenvironmenthpvalue) return canvas->endenvironmenthpvalue;
  if (e->n == 0 || (e->flags & E_PERIODIC) || (canvas->flags & CF_JULIA)) return nullptr;
  CHPVALUE* h = addhpvalue<T>(canvas, false);
  if (!h) return nullptr;
  // The stored checkpoints stop below `n`: the last step is made here.
  const ITER last = static_cast<ITER>(e->n - 1);
  bool made = getenvironmenthpvalueraw(e, last, h->value[0]);
  if (made) {
    ITER reached = last;
    canvaskernels::calcitercanvashpex<T>(canvas, h, e->c->v[0], &reached, last + 1);
    made = reached == last + 1;
    // At most: the run starts from the environment's nearest checkpoint.
    canvaskernels::orbittally().hpiterations += static_cast<long>(e->n);
  }
  if (!made) {
    detachhpvalue<T>(canvas, h, false);
    return nullptr;
  }
  h->iter = last + 1;
  canvas->endenvironmenthpvalue = h;
  return h;
}

}  // namespace

template <typename T>
CHPVALUE* getenvironmenthpvalue(typename T::CANVAS* canvas, ITER iter, int flag) {
  const ENVIRONMENT* e = canvaskernels::jobenvironment<T>(canvas);
  if (!e || !e->c) return nullptr;
  int k;
  if (iter == canvas->interpoliter) k = 2;
  else if (iter == canvas->oldinterpoliter) k = 1;
  else if (iter == canvas->oldinterpoliter2) k = 0;
  else if (iter > 0 && static_cast<UITER>(iter) == e->n) k = 3;
  else return nullptr;
  if (k == 3) {
    CHPVALUE* end = endslot<T>(canvas, e);
    if (end && flag) attachhpvalue<T>(end);
    return end;
  }
  CHPVALUE* h = environmentslot<T>(canvas, e, k);
  if (h && flag) attachhpvalue<T>(h);
  return h;
}

// ---------------------------------------------------------------- orbit states

template <typename T>
void copyvalue(typename T::CANVAS* canvas, typename T::CVALUE* dst,
               const typename T::CVALUE* src) {
  // Counting the new holder first makes a copy onto itself harmless.
  if (src->hpvalue) attachhpvalue<T>(src->hpvalue);
  // A checkpoint off every chain is linked to itself, so leaving the chain
  // is harmless for one that never joined.
  detachhpvalue<T>(canvas, dst->hpvalue, true);
  *dst = *src;
}

template <typename T>
void freevalue(typename T::CANVAS* canvas, typename T::CVALUE* value) {
  detachhpvalue<T>(canvas, value->hpvalue, true);
  value->hpvalue = nullptr;
}

template <typename T>
void __transvalue(typename T::COMPLEX* result, typename T::CANVAS* canvas,
                  typename T::COMPLEX delta, const CHPVALUE* from, const CHPVALUE* to) {
  typedef NUM<typename T::FLOAT> N;
  HFLOAT part[2];
  for (int k = 0; k < 2; k++) {
    if (from && to) mpf_sub(canvas->dummyvalue, from->value[k], to->value[k]);
    else if (from) mpf_set(canvas->dummyvalue, from->value[k]);
    else if (to) mpf_neg(canvas->dummyvalue, to->value[k]);
    else mpf_set_ui(canvas->dummyvalue, 0);
    part[k] = mpf_get_HF(canvas->dummyvalue);
  }
  *result = N::cfromHF(caddHF(N::ctoHF(delta), cHF(part[0], part[1])));
}

namespace {

// The checkpoint parts of an orbit value in the format.
template <typename T>
void setcheckpoint(CHPVALUE* h, typename T::COMPLEX value) {
  HFLOATCOMPLEX v = NUM<typename T::FLOAT>::ctoHF(value);
  mpf_set_HFexact(h->value[0], crealHF(v));
  mpf_set_HFexact(h->value[1], cimagHF(v));
}

// How far, in grid points, a restarted vertex looks for an orbit to share.
constexpr int ROOTRADIUS = 16;

// The nearest other vertex whose orbit is stored from z = 0 and still goes
// on; -1 for none. Its orbit carries a difference from the very start, where
// the difference is exactly zero.
template <typename T>
int rootedneighbour(typename T::CANVAS* canvas, int vertex) {
  const typename T::CVERTEX* vs = &canvas->v[vertex];
  const int size = 1 << canvas->canvassizeshift;
  int best = -1;
  int bestdistance = INT_MAX;
  for (int dy = -ROOTRADIUS; dy <= ROOTRADIUS; dy++) {
    int y = vs->y + dy;
    if (y < 0 || y > size) continue;
    for (int dx = -ROOTRADIUS; dx <= ROOTRADIUS; dx++) {
      int x = vs->x + dx;
      if (x < 0 || x > size) continue;
      int i = y * CANVASSIZE + x;
      typename T::CVERTEX* c = &canvas->v[i];
      CHPVALUE* lowest;
      if (i == vertex || !chainhaslowest<T>(c, &lowest) || lowest->iter != 0) continue;
      if (c->refiter || c->firstdata == -1 || canvas->data[c->firstdata].iter != 0) continue;
      int distance = dx * dx + dy * dy;
      if (distance < bestdistance) {
        bestdistance = distance;
        best = i;
      }
    }
  }
  return best;
}

// The state restarted at z = 0 as a difference to the orbit of `ref`.
template <typename T>
void sharerootedorbit(typename T::CANVAS* canvas, typename T::CVALUE* value, int ref) {
  typedef NUM<typename T::FLOAT> N;
  typename T::CVERTEX* r = &canvas->v[ref];
  CHPVALUE* root = nullptr;
  chainhaslowest<T>(r, &root);
  attachhpvalue<T>(root);
  freevalue<T>(canvas, value);
  value->iter = 0;
  value->value = N::czero();
  value->d = N::czero();
  value->Z = N::zero();
  value->hpvalue = root;
  value->ref = ref;
  value->data = r->firstdata;
  value->flags = CV_RELATIVE;
}

// The vertex's new orbit, made of the state, or with `restart` of z = 0 at
// the state's parameter, the state going back to that start.
template <typename T>
int makeorbit(typename T::CANVAS* canvas, int vertex, typename T::CVALUE* value, bool restart) {
  typedef NUM<typename T::FLOAT> N;
  CHPVALUE* h = addhpvalue<T>(canvas, false);
  if (!h) {
    reclaimorbits<T>(canvas);
    h = addhpvalue<T>(canvas, false);
  }
  if (!h) return 0;
  h->iter = static_cast<ITER>(value->iter);
  setcheckpoint<T>(h, value->value);
  if (restart) {
    h->iter = 0;
    mpf_set_ui(h->value[0], 0);
    mpf_set_ui(h->value[1], 0);
    value->iter = 0;
    value->d = N::czero();
  } else if (value->flags & CV_RELATIVE) {
    if (!value->hpvalue) {
      detachhpvalue<T>(canvas, h, false);
      return 0;
    }
    mpf_add(h->value[0], h->value[0], value->hpvalue->value[0]);
    mpf_add(h->value[1], h->value[1], value->hpvalue->value[1]);
  } else if (!(value->flags & CV_ABSOLUTE)) {
    // The start state is a difference to the environment's orbit.
    CHPVALUE* e = getenvironmenthpvalue<T>(canvas, static_cast<ITER>(value->iter), 1);
    if (!e) {
      canvaskernels::orbittally().nocheckpoint++;
      detachhpvalue<T>(canvas, h, false);
      return 0;
    }
    mpf_add(h->value[0], h->value[0], e->value[0]);
    mpf_add(h->value[1], h->value[1], e->value[1]);
    detachhpvalue<T>(canvas, e, false);
  }

  freevalue<T>(canvas, value);
  value->value = N::czero();
  value->Z = N::zero();
  value->hpvalue = h;
  value->ref = vertex;
  value->flags = CV_REFERENCE;

  typename T::CVERTEX* v = &canvas->v[vertex];
  releaseorbit<T>(canvas, v);
  chaininsend(&v->hpvchain, &h->chain);
  attachhpvalue<T>(h);

  int b = addcdata<T>(canvas, static_cast<ITER>(value->iter), vertex);
  if (b == -1) {
    reclaimorbits<T>(canvas);
    b = addcdata<T>(canvas, static_cast<ITER>(value->iter), vertex);
  }
  v->firstdata = b;
  v->lastdata = b;
  value->data = b;
  // Without a first block no neighbour could read the new orbit.
  if (b == -1) return 0;

  newref<T>(canvas, vertex);
  if (restart) canvaskernels::orbittally().restarted++;
  else canvaskernels::orbittally().made++;
  return 1;
}

}  // namespace

template <typename T>
int makeref(typename T::CANVAS* canvas, int vertex, typename T::CVALUE* value,
            [[maybe_unused]] int* limit) {
  if ((value->flags & CV_RELATIVE) && value->ref == vertex) {
    canvaskernels::orbittally().selfrelative++;
    return 0;
  }
  if (orbitfollowed<T>(&canvas->v[vertex])) {
    canvaskernels::orbittally().followed++;
    return 0;
  }
  return makeorbit<T>(canvas, vertex, value, false);
}

template <typename T>
int restartref(typename T::CANVAS* canvas, int vertex, typename T::CVALUE* value) {
  if ((value->flags & (CV_RELATIVE | CV_ABSOLUTE | CV_REFERENCE)) || (canvas->flags & CF_JULIA))
    return 0;
  if (orbitfollowed<T>(&canvas->v[vertex])) return 0;
  int r = rootedneighbour<T>(canvas, vertex);
  if (r != -1) {
    sharerootedorbit<T>(canvas, value, r);
    canvaskernels::orbittally().shared++;
    return 1;
  }
  return makeorbit<T>(canvas, vertex, value, true);
}

template <typename T>
void newref(typename T::CANVAS* canvas, int self) {
  typedef NUM<typename T::FLOAT> N;
  typename T::CVERTEX* vs = &canvas->v[self];
  CHPVALUE* to;
  if (!chainhaslowest<T>(vs, &to)) return;
  const int R = CANVASSIZE;
  const int shift = canvas->canvassizeshift;

  // The walk's stack is threaded through `next5`, the level in `dummy`; a
  // vertex is on it once at most, since pending cells never share a corner
  // that is their top-left one.
  int stack = 0;
  canvas->v[0].next5 = -1;
  canvas->v[0].dummy = 0;
  while (stack != -1) {
    int i = stack;
    typename T::CVERTEX* ci = &canvas->v[i];
    stack = ci->next5;
    int level = ci->dummy;
    int w = 1 << (shift - level);
    int corners[4] = {i, i + w, i + w * R + w, i + w * R};
    bool success = false;
    for (int c : corners) {
      if (c == self) continue;
      typename T::CVERTEX* vc = &canvas->v[c];
      if (!(vc->flags & VX_CALCULATEDMASK) || (vc->flags & VX_FORCE_FINAL)) continue;
      typename T::CVALUE* st = &vc->v;
      if (st->flags == 0) continue;
      if (!(st->flags & CV_RELATIVE) || !st->hpvalue || st->ref == self) continue;
      // A difference only moves between orbits at one iteration.
      if (st->hpvalue->iter != to->iter || static_cast<ITER>(st->iter) != to->iter) continue;
      typename T::COMPLEX nd;
      __transvalue<T>(&nd, canvas, st->value, st->hpvalue, to);
      if (!N::notgreater(nd, st->value)) continue;
      int b = vs->firstdata;
      while (b != -1 && static_cast<long>(st->iter) >
                            static_cast<long>(canvas->data[b].iter) + CDATAGRAN - 1)
        b = canvas->data[b].next;
      attachhpvalue<T>(to);
      detachhpvalue<T>(canvas, st->hpvalue, true);
      st->hpvalue = to;
      st->data = b;
      st->ref = self;
      st->Z = N::zero();
      st->value = nd;
      success = true;
    }
    int x0 = ci->x, y0 = ci->y;
    bool contains = vs->x >= x0 && vs->x <= x0 + w && vs->y >= y0 && vs->y <= y0 + w;
    if ((contains || success) && ci->depth > level && level < shift) {
      int h = w / 2;
      int quarters[4] = {i, i + h, i + h * R + h, i + h * R};
      for (int q : quarters) {
        canvas->v[q].dummy = level + 1;
        canvas->v[q].next5 = stack;
        stack = q;
      }
    }
  }
}

// ---------------------------------------------------------------- instantiations

template int addcdata<CANVASTEMPLATE_float>(CANVAS_float*, ITER, int);
template void removecdata<CANVASTEMPLATE_float>(CANVAS_float*, int);
template void freetoitercdata<CANVASTEMPLATE_float>(CANVAS_float*, int*, ITER);
template int writecdata<CANVASTEMPLATE_float>(CANVAS_float*, int*, ITER, CANVASTEMPLATE_float::COMPLEX, CANVASTEMPLATE_float::FLOAT, int);
template void readcdata<CANVASTEMPLATE_float>(CANVAS_float*, int*, ITER, CANVASTEMPLATE_float::COMPLEX*, CANVASTEMPLATE_float::FLOAT*);
template CHPVALUE* addhpvalue<CANVASTEMPLATE_float>(CANVAS_float*, bool);
template void attachhpvalue<CANVASTEMPLATE_float>(CHPVALUE*);
template void detachhpvalue<CANVASTEMPLATE_float>(CANVAS_float*, CHPVALUE*, bool);
template void refdetachhpvalue<CANVASTEMPLATE_float>(CANVAS_float*, int, CHPVALUE*);
template void copyvalue<CANVASTEMPLATE_float>(CANVAS_float*, CVALUE_float*, const CVALUE_float*);
template void freevalue<CANVASTEMPLATE_float>(CANVAS_float*, CVALUE_float*);
template void __transvalue<CANVASTEMPLATE_float>(CANVASTEMPLATE_float::COMPLEX*, CANVAS_float*, CANVASTEMPLATE_float::COMPLEX, const CHPVALUE*,
                                const CHPVALUE*);
template int makeref<CANVASTEMPLATE_float>(CANVAS_float*, int, CVALUE_float*, int*);
template int restartref<CANVASTEMPLATE_float>(CANVAS_float*, int, CVALUE_float*);
template void newref<CANVASTEMPLATE_float>(CANVAS_float*, int);
template CHPVALUE* refgethpvalue<CANVASTEMPLATE_float>(CANVAS_float*, int, ITER*, int);
template CHPVALUE* getenvironmenthpvalue<CANVASTEMPLATE_float>(CANVAS_float*, ITER, int);

template int addcdata<CANVASTEMPLATE_double>(CANVAS_double*, ITER, int);
template void removecdata<CANVASTEMPLATE_double>(CANVAS_double*, int);
template void freetoitercdata<CANVASTEMPLATE_double>(CANVAS_double*, int*, ITER);
template int writecdata<CANVASTEMPLATE_double>(CANVAS_double*, int*, ITER, CANVASTEMPLATE_double::COMPLEX, CANVASTEMPLATE_double::FLOAT, int);
template void readcdata<CANVASTEMPLATE_double>(CANVAS_double*, int*, ITER, CANVASTEMPLATE_double::COMPLEX*, CANVASTEMPLATE_double::FLOAT*);
template CHPVALUE* addhpvalue<CANVASTEMPLATE_double>(CANVAS_double*, bool);
template void attachhpvalue<CANVASTEMPLATE_double>(CHPVALUE*);
template void detachhpvalue<CANVASTEMPLATE_double>(CANVAS_double*, CHPVALUE*, bool);
template void refdetachhpvalue<CANVASTEMPLATE_double>(CANVAS_double*, int, CHPVALUE*);
template void copyvalue<CANVASTEMPLATE_double>(CANVAS_double*, CVALUE_double*, const CVALUE_double*);
template void freevalue<CANVASTEMPLATE_double>(CANVAS_double*, CVALUE_double*);
template void __transvalue<CANVASTEMPLATE_double>(CANVASTEMPLATE_double::COMPLEX*, CANVAS_double*, CANVASTEMPLATE_double::COMPLEX, const CHPVALUE*,
                                const CHPVALUE*);
template int makeref<CANVASTEMPLATE_double>(CANVAS_double*, int, CVALUE_double*, int*);
template int restartref<CANVASTEMPLATE_double>(CANVAS_double*, int, CVALUE_double*);
template void newref<CANVASTEMPLATE_double>(CANVAS_double*, int);
template CHPVALUE* refgethpvalue<CANVASTEMPLATE_double>(CANVAS_double*, int, ITER*, int);
template CHPVALUE* getenvironmenthpvalue<CANVASTEMPLATE_double>(CANVAS_double*, ITER, int);

template int addcdata<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, ITER, int);
template void removecdata<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, int);
template void freetoitercdata<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, int*, ITER);
template int writecdata<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, int*, ITER, CANVASTEMPLATE_longdouble::COMPLEX, CANVASTEMPLATE_longdouble::FLOAT, int);
template void readcdata<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, int*, ITER, CANVASTEMPLATE_longdouble::COMPLEX*, CANVASTEMPLATE_longdouble::FLOAT*);
template CHPVALUE* addhpvalue<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, bool);
template void attachhpvalue<CANVASTEMPLATE_longdouble>(CHPVALUE*);
template void detachhpvalue<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, CHPVALUE*, bool);
template void refdetachhpvalue<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, int, CHPVALUE*);
template void copyvalue<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, CVALUE_longdouble*, const CVALUE_longdouble*);
template void freevalue<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, CVALUE_longdouble*);
template void __transvalue<CANVASTEMPLATE_longdouble>(CANVASTEMPLATE_longdouble::COMPLEX*, CANVAS_longdouble*, CANVASTEMPLATE_longdouble::COMPLEX, const CHPVALUE*,
                                const CHPVALUE*);
template int makeref<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, int, CVALUE_longdouble*, int*);
template int restartref<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, int, CVALUE_longdouble*);
template void newref<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, int);
template CHPVALUE* refgethpvalue<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, int, ITER*, int);
template CHPVALUE* getenvironmenthpvalue<CANVASTEMPLATE_longdouble>(CANVAS_longdouble*, ITER, int);

template int addcdata<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, ITER, int);
template void removecdata<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, int);
template void freetoitercdata<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, int*, ITER);
template int writecdata<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, int*, ITER, CANVASTEMPLATE_hfloat::COMPLEX, CANVASTEMPLATE_hfloat::FLOAT, int);
template void readcdata<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, int*, ITER, CANVASTEMPLATE_hfloat::COMPLEX*, CANVASTEMPLATE_hfloat::FLOAT*);
template CHPVALUE* addhpvalue<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, bool);
template void attachhpvalue<CANVASTEMPLATE_hfloat>(CHPVALUE*);
template void detachhpvalue<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, CHPVALUE*, bool);
template void refdetachhpvalue<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, int, CHPVALUE*);
template void copyvalue<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, CVALUE_hfloat*, const CVALUE_hfloat*);
template void freevalue<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, CVALUE_hfloat*);
template void __transvalue<CANVASTEMPLATE_hfloat>(CANVASTEMPLATE_hfloat::COMPLEX*, CANVAS_hfloat*, CANVASTEMPLATE_hfloat::COMPLEX, const CHPVALUE*,
                                const CHPVALUE*);
template int makeref<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, int, CVALUE_hfloat*, int*);
template int restartref<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, int, CVALUE_hfloat*);
template void newref<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, int);
template CHPVALUE* refgethpvalue<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, int, ITER*, int);
template CHPVALUE* getenvironmenthpvalue<CANVASTEMPLATE_hfloat>(CANVAS_hfloat*, ITER, int);

}  // namespace canvasmodel
