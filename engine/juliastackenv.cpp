// juliastackenv.cpp: a periodic environment fills the Julia stack of its
// view's Julia realm in one pass over its stored orbit, with the same level
// rules the idle search applies along a view's orbit, so that a view that
// comes to rest on an atom has a whole stack at once instead of waiting for
// the idle graph to iterate the same period again.
#include <algorithm>
#include <cstdio>

#include "canvas/series.h"
#include "idle.h"
#include "juliastack.h"

namespace {

constexpr int T = NINTERPOLTAYLOR;

// T <- T^2 + 2 z T: one round of a series of the deviation of z_k.
void seriesround(HFLOATCOMPLEX* t, HFLOATCOMPLEX z) {
  HFLOATCOMPLEX sq[T], lin[T];
  sqrtaylor_hfloat(sq, t, T);
  multaylorconst_hfloat(lin, t, cldexpHF(z, 1), T);
  addtaylor_hfloat(t, sq, lin, T);
}

void setseed(OVCONTEXT* context, JULIASTACKDATA* L, HPVALUE* m) {
  if (L->m == m) return;
  attachhpv(m);
  detachhpv(context, L->m);
  L->m = m;
}

// The ranges of one round go into the levels in the order the idle search's
// messages would arrive: bypass, radius, plain levels.
void applyranges(OVCONTEXT* context, REALM* realm, const ENVIRONMENT* e, const JULIASTACKRANGES& g,
                 ITER k, HFLOATCOMPLEX z, const HFLOATCOMPLEX* tj, const HFLOATCOMPLEX* ntj) {
  double js = context->juliasize > 0 ? context->juliasize : 1;
  for (int s = g.bypasslo; s < g.bypasshi; s++) {
    JULIASTACKDATA* L = &realm->juliastack[s];
    L->iter = k;
    juliabypasscubic(z, ntj, L->taylorj);
    setseed(context, L, e->c);
    L->bypass = true;
  }
  for (int s = g.radiuslo; s < g.radiushi; s++)
    realm->juliastack[s].r = juliastackradius(js, g.radius, s);
  for (int s = g.plainlo; s < g.plainhi; s++) {
    JULIASTACKDATA* L = &realm->juliastack[s];
    if (L->bypass) continue;
    L->iter = k - 1;
    for (int i = 0; i < T; i++) L->taylorj[i] = tj[i];
    setseed(context, L, e->c);
  }
}

// Levels from `first` that took e's point are anchored to e itself: their
// point is e's, so `mr` is 0, and a canvas level within e's range of levels
// takes e's series depth.
int anchorlevels(OVCONTEXT* context, REALM* realm, ENVIRONMENT* e, int first) {
  int top = first - 1;
  mpf_t scratch;
  mpf_init2(scratch, 64);
  for (int s = first; s < realm->njuliastack; s++) {
    JULIASTACKDATA* L = &realm->juliastack[s];
    if (L->m != e->c) break;
    if (L->e != e) {
      attache(e);
      detache(context, L->e);
      L->e = e;
    }
    L->mr = CZEROH;
    L->prec = -1;
    if (!L->bypass && isgeneral(L, s)) {
      int prec = checkenvironmentjulia(scratch, e, L->m->v[0], L->m->v[1], s,
                                       static_cast<double>(context->juliasize));
      L->prec = prec < 0 ? -1 : std::max(4, prec);
    }
    L->miter = realm->info.iter;
    L->lim = realm->info.lim;
    L->rlim = realm->info.dj;
    top = s;
  }
  mpf_clear(scratch);
  return top;
}

}  // namespace

void environmentjuliastack(OVCONTEXT* context, VIEWPORT* viewport, ENVIRONMENT* e) {
  REALM* realm = viewport->juliarealm;
  if (!e || !realm || !realm->juliastack || (e->flags & E_STACKED)) return;
  e->flags |= E_STACKED;
  adjustjuliastack(context, realm, realm->validjuliastack, true);
  if (!(e->flags & E_PERIODIC) || !e->c || e->n < 1 || !e->refdatah ||
      e->nrefdata < static_cast<int>(e->n) + 1)
    return;
  // Levels up to the valid one hold the view already and keep their tiles;
  // the orbit defines the levels beyond.
  int first = realm->validjuliastack + 1;
  int jst = first, jst1 = first, jst0 = first;
  double js = context->juliasize > 0 ? context->juliasize : 1;
  bool bypass = (realm->flags & R_BYPASS) != 0;
  HFLOATCOMPLEX tj[T] = {}, tm[T] = {};
  for (ITER k = 1; k <= static_cast<ITER>(e->n); k++) {
    HFLOATCOMPLEX zprev = e->refdatah[k - 1].value;
    HFLOATCOMPLEX ntj[T], ntm[T];
    std::copy(tj, tj + T, ntj);
    std::copy(tm, tm + T, ntm);
    seriesround(ntj, zprev);
    seriesround(ntm, zprev);
    // The start deviation enters with the first round (a deviation of
    // z_1); the parameter's at every round.
    if (k == 1) ntj[1] = caddHF(ntj[1], CONEH);
    ntm[1] = caddHF(ntm[1], CONEH);
    HFLOATCOMPLEX z = e->refdatah[k].value;
    JULIASTACKRANGES g =
        juliastackranges(js, realm->njuliastack, bypass, k, z, ntj, ntm, &jst, &jst1, &jst0);
    applyranges(context, realm, e, g, k, z, tj, ntj);
    std::copy(ntj, ntj + T, tj);
    std::copy(ntm, ntm + T, tm);
  }
  int top = anchorlevels(context, realm, e, first);
  if (top > realm->maxjuliastack) realm->maxjuliastack = top;
  // The levels whose radius holds the view are started at once.
  int count = juliastacklevelsholding(viewport, realm, false);
  if (count - 1 > realm->validjuliastack) adjustjuliastack(context, realm, count - 1, false);
}

int juliastacklevelsholding(VIEWPORT* viewport, REALM* realm, bool report) {
  VIEWPORT* v = viewport;
  if (!realm || !realm->juliastack || !v->delta) return 0;
  HFLOAT reach = divHF(HFd(v->big > 0 ? v->big : 1.0), v->zoomabs);
  int count = 0;
  for (; count < realm->njuliastack; count++) {
    JULIASTACKDATA* L = &realm->juliastack[count];
    if (L->r.mantissa == 0 || subHF(L->r, reach).mantissa < 0) break;
    if (!L->m) {
      if (report) fputs("moved: jstd->m==NULL\n", stderr);
      break;
    }
    if (!radtest_hfloat(nullptr, L->m->v, v->delta->v, L->r)) break;
  }
  return count;
}
