// juliastackextend.cpp: after a move, the Julia stack of a view's Julia
// realm is fitted to the environments the view has found and to where the
// view now is.
#include <algorithm>

#include "canvas/series.h"
#include "viewport.h"
#include "juliastack.h"

namespace {

int juliaprec(OVCONTEXT* context, mpf_ptr scratch, const ENVIRONMENT* e, const JULIASTACKDATA* L, int s) {
  return checkenvironmentjulia(scratch, e, L->m->v[0], L->m->v[1], s,
                               static_cast<double>(context->juliasize));
}

// Step 2: a level anchored to a periodic environment takes a longer one
// from the chain where that one serves it.
void betterperiods(OVCONTEXT* context, VIEWPORT* v, REALM* realm, int jst, mpf_ptr scratch) {
  for (CHAIN* l = v->echain.next; l != &v->echain; l = l->next) {
    ENVIRONMENT* e = CHAINRECORD(l, ENVIRONMENT, chain);
    if (e->worker) continue;
    for (int s = std::max(e->mini, 0); s <= e->maxi && s < jst; s++) {
      JULIASTACKDATA* L = &realm->juliastack[s];
      if (!L->m || !isgeneral(L, s) || L->e->n >= e->n) continue;
      int prec = juliaprec(context, scratch, e, L, s);
      if (prec >= 1 && setenvironment(context, realm, s, e)) {
        L->lim = realm->info.lim;
        L->miter = realm->info.iter;
        L->rlim = realm->info.dj;
        L->prec = std::max(4, prec);
      }
    }
  }
}

// Step 3: the other levels try the satellite environment, and without a
// periodic one fall back to the plain one.
void otherlevels(OVCONTEXT* context, VIEWPORT* v, REALM* realm, int jst, mpf_ptr scratch) {
  for (int s = 0; s < jst; s++) {
    JULIASTACKDATA* L = &realm->juliastack[s];
    if (!L->m || isgeneral(L, s)) continue;
    if (v->esat && setenvironment(context, realm, s, v->esat)) {
      int prec = juliaprec(context, scratch, v->esat, L, s);
      L->prec = prec < 0 ? -1 : prec;
    }
    bool periodic = L->e && (L->e->flags & E_PERIODIC);
    if (!periodic && v->enonsat && L->e != v->enonsat) {
      detache(context, L->e);
      attache(v->enonsat);
      L->e = v->enonsat;
      L->mr = CZEROH;
      for (auto& t : L->taylorj) t = CZEROH;
      L->prec = -1;
    }
  }
}

}  // namespace

void extendjuliastack(OVCONTEXT* context, VIEWPORT* viewport) {
  REALM* realm = viewport->juliarealm;
  if (!realm || !realm->juliastack) return;
  int jst = std::min(viewport->idle_jst, realm->njuliastack);
  viewport->idle_jst = jst;
  mpf_t scratch;
  mpf_init2(scratch, 64);
  betterperiods(context, viewport, realm, jst, scratch);
  otherlevels(context, viewport, realm, jst, scratch);
  mpf_clear(scratch);
  realm->maxjuliastack = jst - 1;
  // The view's radius in the plane: the longer half-side over |zoom|.
  HFLOAT view = divHF(HFd(viewport->big), viewport->zoomabs);
  int last = -1;
  for (int s = 0; s < jst; s++) {
    JULIASTACKDATA* L = &realm->juliastack[s];
    if (!L->m || L->r.mantissa == 0 || !viewport->delta) break;
    if (!radtest_hfloat(nullptr, L->m->v, viewport->delta->v, L->r)) break;
    if (subHF(L->r, view).mantissa < 0) break;
    if (s > realm->calcjuliastack) {
      if (!computejuliastack(context, realm, s)) break;
      realm->calcjuliastack = s;
    }
    last = s;
  }
  realm->validjuliastack = last;
  if (last >= 0 && atomicload(&realm->readyjuliastack) >= last && viewport->finishcallback)
    viewport->finishcallback(context, viewport, VPCALLBACK_JSTFINISH, viewport->finishcallbackpdata);
  if (realm->priojuliastack > realm->calcjuliastack) realm->priojuliastack = realm->calcjuliastack;
}
