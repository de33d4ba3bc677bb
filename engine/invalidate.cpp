// Invalidation: the pivot between movement and calculation. `invalidate`
// builds the list of wanted areas for the position a move has reached, in
// the list that isn't current, and only then takes the current one down: an
// area on both keeps its job and its data, an area that dropped out loses
// them. The operations after it are how the rest of the system asks for a
// new draw or a new calculation.
//
// Deep views don't walk from the realm's top: HFLOAT can't hold the
// difference between the top's corner and the view's centre. They walk from
// up to four effective tops, areas near the view about 2^10 times larger
// than it, which carry exact corners of their own.
#include <cstdio>

#include "Mandelbrot.h"

namespace {

HFLOAT sideof(int depth) { return HFLOAT{HFLOATBASE(1) << 61, 5 - depth}; }

bool stopped(OVCONTEXT* context) { return atomicload(&context->grmain.stop); }

int childindex(const AREA* a) {
  for (int i = 0; i < 4; i++)
    if (a->parent->child[i] == a) return i;
  return -1;
}

// Each top gives up this view's use of its exact corner.
void releasetops(OVCONTEXT* context, VIEWPORT* v) {
  for (int i = 0; i < v->ieffectivetop; i++) {
    AREA* t = v->effectivetop[i];
    if (--t->nhpvalue > 0) continue;
    if (!t->hpvalue) {
      fputs("invalidate: !viewport->effectivetop[i]->hpvalue.", stderr);
    } else {
      detachhpv(context, t->hpvalue);
      t->hpvalue = nullptr;
    }
    updatedelchain(context, t);
  }
  v->ieffectivetop = 0;
}

// Does the square of `depth` at the walk's position (in `dummy`) miss
// [-r, r]^2?
bool missesview(VIEWPORT* v, int depth, HFLOAT r) {
  HFLOAT s = sideof(depth);
  HFLOAT x = mpf_get_HF(v->dummy[0]), y = mpf_get_HF(v->dummy[1]);
  HFLOAT minusr = HFLOAT{-r.mantissa, r.exponent};
  return !lessHF(minusr, addHF(x, s)) || !lessHF(x, r) || !lessHF(minusr, addHF(y, s)) ||
         !lessHF(y, r);
}

void addtop(OVCONTEXT* context, VIEWPORT* v, AREA* a) {
  if (a->nhpvalue == 0) {
    detachhpv(context, a->hpvalue);
    a->hpvalue = addhpv(context, v->precision < 64 ? 64 : v->precision);
    if (a->hpvalue)
      for (int k = 0; k < 2; k++) mpf_add(a->hpvalue->v[k], v->delta->v[k], v->dummy[k]);
    updatedelchain(context, a);
  }
  a->nhpvalue++;
  v->effectivetop[v->ieffectivetop++] = a;
}

void shift(VIEWPORT* v, mpf_ptr step, int k, HFLOAT s, bool back) {
  mpf_set_HFexact(step, s);
  if (back) mpf_sub(v->dummy[k], v->dummy[k], step);
  else mpf_add(v->dummy[k], v->dummy[k], step);
}

// The old list comes down; what both lists hold passes through no moment
// without interest.
void takedown(OVCONTEXT* context, VIEWPORT* v, int old, int built) {
  for (int n = 0; n < v->iviewportarea[old]; n++) {
    VIEWPORTAREA* va = &v->viewportarea[old][n];
    AREA* a = va->a;
    chainrem(&va->chain);
    initchain(&va->chain);
    if ((v->flags & VP_PRECALCVP) &&
        ((a->flags & (A_WAITFORJULIASTACK | A_INPPPROGRAM)) || a->worker) &&
        v->iviewportarea[built] < NVIEWPORTAREA) {
      // A photograph's work in flight isn't thrown away.
      VIEWPORTAREA* keep = &v->viewportarea[built][v->iviewportarea[built]++];
      keep->viewport = v;
      keep->a = a;
      keep->priority = PRIO_KEEP;
      keep->counted = va->counted;
      chaininsbegin(&a->viewportchain, &keep->chain);
      setpriorityarea(context, a);
      areacheckvacount(context, a);
      continue;
    }
    if (chainempty(&a->viewportchain)) {
      detache(context, a->e);
      a->e = nullptr;
      REALM* jr = a->juliarealm;
      a->juliarealm = nullptr;
      if (jr) __detachrealm(context, jr);
    }
    if (va->counted) v->ivainvalid--;
    setpriorityarea(context, a);
    areacheckvacount(context, a);
  }
}

void walk(OVCONTEXT* context, VIEWPORT* v, REALM* realm, int i) {
  int L = v->zoomabs.mantissa ? ilogbHF(v->zoomabs) : 0;
  int newdepth = L - 10;
  if (!effectivetopsstand(v, L)) {
    releasetops(context, v);
    if (newdepth >= 1 && realm->top && realm->top->hpvalue) {
      for (int k = 0; k < 2; k++)
        mpf_sub(v->dummy[k], realm->top->hpvalue->v[k], v->delta->v[k]);
      initeffectivetop(context, v, realm, newdepth);
    }
  }
  if (v->ieffectivetop) {
    for (int k = 0; k < v->ieffectivetop; k++) {
      AREA* t = v->effectivetop[k];
      invalidatearea(context, v, t, relativecorner(v, t->hpvalue), i, 0);
    }
  } else if (realm->top && realm->top->hpvalue) {
    invalidatearea(context, v, realm->top, relativecorner(v, realm->top->hpvalue), i, 0);
  }
}

void markalldirty(OVCONTEXT* context) {
  for (CHAIN* l = context->vpactivechain.next; l != &context->vpactivechain; l = l->next)
    activeviewport(l)->flags |= VP_DIRTY;
}

void forrealms(OVCONTEXT* context, REALM* realm, unsigned int value, unsigned int mask) {
  auto apply = [&](REALM* r) {
    r->flags = (r->flags & ~mask) ^ value;
    // Locking the Julia point alone changes nothing computed.
    if (value != R_LOCKJULIAPOINT) r->computecycle++;
  };
  if (realm) {
    apply(realm);
    return;
  }
  for (CHAIN* l = context->realmchain.next; l != &context->realmchain; l = l->next)
    apply(CHAINRECORD(l, REALM, chain));
}

}  // namespace

HFLOATCOMPLEX relativecorner(VIEWPORT* v, const HPVALUE* corner) {
  HFLOAT part[2];
  for (int k = 0; k < 2; k++) {
    mpf_sub(v->dummy[k], corner->v[k], v->delta->v[k]);
    part[k] = mpf_get_HF(v->dummy[k]);
  }
  return cHF(part[0], part[1]);
}

bool effectivetopsstand(VIEWPORT* v, int L) {
  if (v->ieffectivetop == 0) return false;
  HFLOAT minx = HFd(100), miny = HFd(100), maxx = HFd(-100), maxy = HFd(-100);
  for (int k = 0; k < v->ieffectivetop; k++) {
    AREA* t = v->effectivetop[k];
    if (!t->hpvalue) return false;
    HFLOATCOMPLEX c = relativecorner(v, t->hpvalue);
    HFLOAT s = sideof(t->depth);
    HFLOAT x = crealHF(c), y = cimagHF(c);
    if (lessHF(x, minx)) minx = x;
    if (lessHF(y, miny)) miny = y;
    if (lessHF(maxx, addHF(x, s))) maxx = addHF(x, s);
    if (lessHF(maxy, addHF(y, s))) maxy = addHF(y, s);
  }
  HFLOAT r = divHF(HFd(20), v->zoomabs);
  HFLOAT minusr = HFLOAT{-r.mantissa, r.exponent};
  int depth = v->effectivetop[v->ieffectivetop - 1]->depth;
  return lessHF(minx, minusr) && lessHF(miny, minusr) && lessHF(r, maxx) && lessHF(r, maxy) &&
         depth >= L - 13 && depth <= L - 6;
}

// Depth first from the top, with the present area's corner relative to the
// view's centre kept exactly in `dummy`.
void initeffectivetop(OVCONTEXT* context, VIEWPORT* viewport, REALM* realm, int newdepth) {
  VIEWPORT* v = viewport;
  HFLOAT r = divHF(HFd(20), v->zoomabs);
  mpf_t step;
  mpf_init2(step, 64);
  AREA* a = realm->top;
  for (;;) {
    bool descend = false;
    if (!missesview(v, a->depth, r)) {
      if (a->depth != newdepth) {
        subdivide(context, a);
        descend = a->child[0] != nullptr;
      } else {
        if (v->ieffectivetop == NEFFECTIVETOP) {
          fputs("Effectivetop overflow.\n", stderr);
          break;
        }
        addtop(context, v, a);
      }
    }
    if (descend) {
      a = a->child[0];
      continue;
    }
    // Sideways: 0 to 1 by +x, 1 to 2 by +y, 2 to 3 by -x, from 3 up by -y.
    bool more = false;
    while (a != realm->top && a->parent) {
      AREA* p = a->parent;
      HFLOAT s = sideof(a->depth);
      int k = childindex(a);
      if (k == 3 || k < 0) {
        shift(v, step, 1, s, true);
        a = p;
        continue;
      }
      subdivide(context, p);
      if (k == 0) shift(v, step, 0, s, false);
      if (k == 1) shift(v, step, 1, s, false);
      if (k == 2) shift(v, step, 0, s, true);
      a = p->child[k + 1];
      more = a != nullptr;
      break;
    }
    if (!more) break;
  }
  mpf_clear(step);
}

void invalidate(OVCONTEXT* context, VIEWPORT* viewport) {
  VIEWPORT* v = viewport;
  REALM* realm = v->realm;
  if (realm->type == JULIA && realm->computecycle != v->computecycle) {
    movingstart(context, v);
    return;
  }
  if ((v->flags & VP_DONOTDRAW) || !atomicload(&v->drawactive) || !v->delta) return;
  if (v->flags & VP_MOVING) fputs("invalidate while moving.\n", stderr);
  finishalljuliacorrect(context);
  int i = (v->flags & VP_SWAPVIEWPORTAREA) ? 1 : 0;
  if (v->iviewportarea[i] != 0) fprintf(stderr, "draw: fatal error %i.\n", v->iviewportarea[i]);
  if (realm->type == JULIA && v->special != static_cast<unsigned int>(-1))
    invalidateareaspecial(context, v, realm->top, i);
  else
    walk(context, v, realm, i);
  takedown(context, v, 1 - i, i);
  v->iviewportarea[1 - i] = 0;
  v->flags ^= VP_SWAPVIEWPORTAREA;
  // Everything was there already: the view is complete now, not later.
  if (v->ivainvalid == 0) viewportcomplete(context, v);
}

void invalidateall(OVCONTEXT* context, REALM* realm) {
  for (CHAIN* l = context->vpactivechain.next; l != &context->vpactivechain;) {
    VIEWPORT* v = activeviewport(l);
    l = l->next;
    if (!realm || v->realm == realm) invalidate(context, v);
  }
}

void invalidateareaspecial(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, int i) {
  if (!a) return;
  VIEWPORT* v = viewport;
  int base = context->juliasizeshift - 6;
  int target = base + static_cast<int>(v->special);
  bool ingrid = a->xinner != -1 && a->yinner != -1;
  if (a->depth >= base && !ingrid) return;
  if (a->depth < target) {
    if (a->xinner != -1) subdivide(context, a);
    for (AREA* c : a->child) invalidateareaspecial(context, v, c, i);
    return;
  }
  if (a->depth > target) return;
  if (v->iviewportarea[i] >= NVIEWPORTAREA) {
    fputs("invalidateareaspecial: viewportarea overflow.", stderr);
    return;
  }
  VIEWPORTAREA* va = &v->viewportarea[i][v->iviewportarea[i]++];
  va->viewport = v;
  va->a = a;
  va->priority = 1;
  chaininsbegin(&a->viewportchain, &va->chain);
  bool finished = isdrawable(v, a) && (a->flags & A_PRECALCULATED) &&
                  !(a->flags & (A_WAITFORJULIASTACK | A_INPPPROGRAM)) && !a->worker;
  va->counted = !finished;
  if (va->counted) v->ivainvalid++;
  setpriorityarea(context, a);
}

bool isdirty(const VIEWPORT* viewport) {
  if (!viewport || !atomicload(&viewport->drawactive)) return false;
  return atomicload(&viewport->activelist) != atomicload(&viewport->toactivatelist) ||
         atomicload(&viewport->nav_moving) || atomicload(&viewport->nav_itouch) != 0 ||
         atomicload(&viewport->nav_invalid);
}

void dirty(OVCONTEXT* context, VIEWPORT* viewport, bool dorender) {
  setcontextflag(context, OVCONTEXT_DIRTY);
  if (viewport) viewport->flags |= VP_DIRTY;
  else markalldirty(context);
  if (dorender) setcontextflag(context, OVCONTEXT_DIRTY | OVCONTEXT_DORENDER);
}

void switchflag(OVCONTEXT* context, REALM* realm, unsigned int value, unsigned int mask) {
  if (stopped(context)) return;
  WORKER* w = addworker(context, THREAD_MAIN, worker_switch_flag);
  if (!w) return;
  if (realm) attachrealm(realm);
  w->pdata[0] = realm;
  w->idata[0] = static_cast<ITER>(value);
  w->idata[1] = static_cast<ITER>(mask);
  dispatch(context, w);
}

void worker_switch_flag(OVCONTEXT* context, WORKER* worker) {
  REALM* realm = static_cast<REALM*>(worker->pdata[0]);
  if (!atomicload(&worker->stop)) {
    forrealms(context, realm, static_cast<unsigned int>(worker->idata[0]),
              static_cast<unsigned int>(worker->idata[1]));
    invalidateall(context, realm);
  }
  if (realm) __detachrealm(context, realm);
  if (!atomicload(&worker->stop)) {
    setcontextflag(context, OVCONTEXT_DIRTY | OVCONTEXT_DORENDER);
    markalldirty(context);
  }
  freeworker(context, worker);
}

void changeprec(OVCONTEXT* context, REALM* realm, int d) {
  if (stopped(context) || !realm) return;
  WORKER* w = addworker(context, THREAD_MAIN, worker_change_prec);
  if (!w) return;
  attachrealm(realm);
  w->pdata[0] = realm;
  w->idata[0] = d;
  dispatch(context, w);
}

// No invalidation follows: the next move or redraw finds the change.
void worker_change_prec(OVCONTEXT* context, WORKER* worker) {
  REALM* realm = static_cast<REALM*>(worker->pdata[0]);
  if (!atomicload(&worker->stop)) {
    realm->precoffset += worker->idata[0];
    fprintf(stderr, "precoffset: %i\n", realm->precoffset);
    realm->computecycle++;
  }
  __detachrealm(context, realm);
  freeworker(context, worker);
}

void colorscheme(OVCONTEXT* context, VIEWPORT* viewport, COLORSCHEME* scheme) {
  if (stopped(context)) return;
  WORKER* w = addworker(context, THREAD_MAIN, worker_set_colorscheme);
  if (!w) return;
  attachviewport(viewport);
  if (scheme && schemehooks.attachcs) schemehooks.attachcs(scheme);
  w->pdata[0] = viewport;
  w->pdata[1] = scheme;
  dispatch(context, w);
}

void worker_set_colorscheme(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  COLORSCHEME* scheme = static_cast<COLORSCHEME*>(worker->pdata[1]);
  if (atomicload(&worker->stop)) {
    if (scheme && schemehooks.detachcs) schemehooks.detachcs(context, scheme);
  } else {
    if (scheme && schemehooks.channels) v->channels = schemehooks.channels(scheme);
    COLORSCHEME* old = v->activescheme;
    v->activescheme = scheme;
    if (old && schemehooks.detachcs) schemehooks.detachcs(context, old);
    if (v->realm->type == JULIA && v->computecycle != v->realm->computecycle)
      movingstart(context, v);
    else if (!(v->flags & VP_DONOTDRAW) && atomicload(&v->drawactive) && v->delta)
      invalidate(context, v);
    dirty(context, v, true);
  }
  __detachviewport(context, v);
  freeworker(context, worker);
}
