// The area tree: making and freeing areas, subdivision, eviction of bare
// leaves, the validity of old data, and the coordinate of an area relative to
// its nearest exact corner.
//
// Everything here runs on the main thread, which owns the tree. The tree only
// grows on demand and only shrinks by eviction: `achain` holds the bare
// leaves, oldest at `next`, and the pool is sized so that it is full of them
// whenever the pool runs short.
#include <cstdio>

#include "Mandelbrot.h"
#include "juliastack.h"
#include "pool.h"

namespace {

// A child of depth d sits 2^(4 - d) along x for child 1, along y for child 3,
// and along both for child 2.
HFLOAT childstep(int depth) { return HFLOAT{HFLOATBASE(1) << 61, 5 - depth}; }

int childindex(const AREA* a) {
  for (int i = 0; i < 4; i++)
    if (a->parent->child[i] == a) return i;
  return -1;
}

bool hastextures(const AREA* a) {
  for (TEXTURE* t : a->texture)
    if (t) return true;
  return false;
}

bool haschildren(const AREA* a) {
  for (AREA* c : a->child)
    if (c) return true;
  return false;
}

void takeoffchain(OVCONTEXT* context, AREA* a) {
  chainrem(&a->chain);
  a->flags &= ~A_INDELCHAIN;
  context->achainlen--;
}

void putonchain(OVCONTEXT* context, AREA* a) {
  chaininsbegin(&context->achain, &a->chain);
  a->flags |= A_INDELCHAIN;
  context->achainlen++;
}

// Frees the oldest bare leaf. The chain only ever holds childless areas, so
// a victim with children means the chain is corrupt.
bool evict(OVCONTEXT* context) {
  if (chainempty(&context->achain)) {
    fputs("adda: FATAL ERROR: nothing to remove\n", stderr);
    return false;
  }
  AREA* victim = CHAINRECORD(context->achain.next, AREA, chain);
  takeoffchain(context, victim);
  if (haschildren(victim)) {
    fputs("adda: FATAL ERROR: Toremove has children. \n", stderr);
    return false;
  }
  AREA* parent = victim->parent;
  if (parent) {
    int i = childindex(victim);
    if (i >= 0) parent->child[i] = nullptr;
    updatedelchain(context, parent);
  }
  removea(context, victim);
  return true;
}

}  // namespace

AREA* adda(OVCONTEXT* context, AREA* parent, int depth) {
  if (context->ia >= context->na - 1 && !evict(context)) return nullptr;
  AREA* a = pooltake(&context->ra);
  context->ia++;
  a->parent = parent;
  for (AREA*& c : a->child) c = nullptr;
  a->flags = A_ACTIVE;
  a->depth = depth;
  for (TEXTURE*& t : a->texture) t = nullptr;
  a->modeprec = 0;
  a->channels = 0;
  a->prepixels = nullptr;
  a->hpvalue = nullptr;
  a->m = nullptr;
  a->e = nullptr;
  a->juliarealm = nullptr;
  a->nhpvalue = 0;
  a->prec = -1;
  a->xinner = -1;
  a->yinner = -1;
  a->realm = parent ? parent->realm : nullptr;
  a->computecycle = a->realm ? a->realm->computecycle : 0;
  // A realm starts at 0: a fresh area never passes `isvalid` by accident.
  a->precoffset = 1;
  a->worker = nullptr;
  a->priority = -1;
  a->itermax = 0;
  a->statvertices = 0;
  a->statiterations = 0;
  a->jst = 0;
  initchain(&a->viewportchain);
  // Self-linked, so that taking the area off a chain it never joined is
  // harmless.
  initchain(&a->chain);
  initchain(&a->waitforjuliastack);
  initchain(&a->waitingforprepixel);
  return a;
}

void removea(OVCONTEXT* context, AREA* a) {
  if (!a) return;
  detachhpv(context, a->hpvalue);
  a->hpvalue = nullptr;
  detachhpv(context, a->m);
  a->m = nullptr;
  for (AREA*& c : a->child) {
    removea(context, c);
    c = nullptr;
  }
  // Each tile lets go of the area first: a list or a worker may hold it
  // beyond the area's end, and it must not name a freed record then.
  for (int i = 0; i < NCHANNELS; i++) droptexture(context, a, i);
  if (a->flags & A_INPPPROGRAM) juliacorrectforget(context, a);
  removeprepixels(context, a->prepixels);
  a->prepixels = nullptr;
  if (a->flags & A_INDELCHAIN) takeoffchain(context, a);
  detache(context, a->e);
  a->e = nullptr;
  // The area's reference to a Julia realm ends with the record.
  REALM* juliarealm = a->juliarealm;
  a->juliarealm = nullptr;
  a->parent = nullptr;
  poolgive(&context->ra, a);
  context->ia--;
  if (juliarealm) __detachrealm(context, juliarealm);
}

void updatedelchain(OVCONTEXT* context, AREA* a) {
  bool juliabase = a->depth == context->juliasizeshift - 6 && a->xinner != -1;
  bool bare = !hastextures(a) && !haschildren(a) && chainempty(&a->viewportchain) &&
              a->parent && !a->hpvalue && !juliabase;
  bool on = (a->flags & A_INDELCHAIN) != 0;
  if (bare && !on)
    putonchain(context, a);
  else if (!bare && on)
    takeoffchain(context, a);
}

void subdivide(OVCONTEXT* context, AREA* a) {
  AREA* noted[4];
  int nnoted = 0;
  if (a->flags & A_INDELCHAIN) takeoffchain(context, a);
  for (AREA* c : a->child)
    if (c && (c->flags & A_INDELCHAIN)) {
      takeoffchain(context, c);
      noted[nnoted++] = c;
    }
  // With `a` and its children off the chain, `adda` cannot evict any of them.
  for (AREA*& c : a->child)
    if (!c) {
      c = adda(context, a, a->depth + 1);
      if (c) noted[nnoted++] = c;
    }
  // A subdivision is a sign of interest: the children count as the youngest.
  for (int i = 0; i < nnoted; i++) putonchain(context, noted[i]);
  placejuliachildren(context, a);
}

void resetarea(OVCONTEXT* context, AREA* a, bool all) {
  if (a->flags & A_INPPPROGRAM) return;
  WORKER* worker = a->worker;
  if (worker) {
    atomicstore(&worker->stop, true);
    a->worker = nullptr;
  }
  // All tiles, or without `all` those that never became drawable.
  bool dropped = false;
  for (int i = 0; i < NCHANNELS; i++) {
    TEXTURE* t = a->texture[i];
    if (!t || (!all && (t->flags & T_GLVALID))) continue;
    droptexture(context, a, i);
    dropped = true;
  }
  if (dropped) updatedelchain(context, a);
  removeprepixels(context, a->prepixels);
  a->prepixels = nullptr;
  if (a->flags & A_WAITFORJULIASTACK) {
    chainrem(&a->waitforjuliastack);
    initchain(&a->waitforjuliastack);
  }
  a->flags &= ~(A_PRECALCULATED | A_WAITFORJULIASTACK | A_MADEWITH);
}

bool isvalid(OVCONTEXT* context, AREA* a) {
  (void)context;
  REALM* realm = a->realm;
  if (static_cast<int32_t>(a->computecycle - realm->redraw) < 0) return false;
  if (realm->type == HYPERBOLIC) return true;
  if (realm->type == JULIA) return false;
  unsigned int f = realm->flags;
  uint32_t want = (f & R_INTERPOL ? A_INTERPOL : 0) | (f & R_HPCORRECT ? A_HPCORRECT : 0) |
                  (f & R_JULIACORRECT ? A_JULIACORRECT : 0) |
                  (f & R_SUPERINTERPOL ? A_SUPERINTERPOL : 0) |
                  (f & R_GLOBALINTERPOL ? A_GLOBALINTERPOL : 0);
  if ((a->flags & A_MADEWITH) != want) return false;
  if (a->modeprec != (f & R_PRECMASK)) return false;
  if (realm->type == GENERAL && a->precoffset != realm->precoffset) return false;
  return true;
}

// Summed from the ancestor down, largest step first, so that the rounding of
// a path longer than the mantissa falls on the smallest steps.
HPVALUE* getcoordarel(AREA* a, HFLOATCOMPLEX* c) {
  if (a->hpvalue || !a->parent) {
    *c = CZEROH;
    return a->hpvalue;
  }
  HPVALUE* h = getcoordarel(a->parent, c);
  int i = childindex(a);
  HFLOAT step = childstep(a->depth);
  HFLOATBASE sx = i == 1 || i == 2 ? step.mantissa : 0;
  HFLOATBASE sy = i == 2 || i == 3 ? step.mantissa : 0;
  if (sx || sy) *c = caddHF(*c, HFLOATCOMPLEX{sx, sy, step.exponent});
  return h;
}
