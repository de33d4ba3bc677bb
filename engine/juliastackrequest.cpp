// juliastackrequest.cpp: an area of a Julia realm that has come deep enough
// to need levels of the stack asks for them here.
#include <algorithm>
#include <cstdio>

#include "juliastack.h"

namespace {

constexpr int REQUEST_AREA = 0;   // pdata
constexpr int REQUEST_REALM = 1;  // pdata, attached

// Level s takes the realm's point as its anchor.
void anchorlevel(OVCONTEXT* context, REALM* realm, int s) {
  JULIASTACKDATA* L = &realm->juliastack[s];
  L->iter = 0;
  if (L->m != realm->info.c) {
    detachhpv(context, L->m);
    attachhpv(realm->info.c);
    L->m = realm->info.c;
  }
  L->bypass = false;
  L->r = ZEROH;
  if (realm->e && !setenvironment(context, realm, s, realm->e) && !L->e) {
    // The environment cannot carry the seed: the level's tiles iterate the
    // seed itself, and the environment only anchors it.
    attache(realm->e);
    L->e = realm->e;
    L->mr = CZEROH;
  }
  L->prec = -1;
  if (isgeneral(L, s)) {
    mpf_t scratch;
    mpf_init2(scratch, 64);
    int prec = checkenvironmentjulia(scratch, L->e, L->m->v[0], L->m->v[1], s,
                                     static_cast<double>(context->juliasize));
    mpf_clear(scratch);
    L->prec = prec < 0 ? -1 : std::max(4, prec);
  }
  L->miter = realm->info.iter;
  L->lim = realm->info.lim;
  L->rlim = realm->info.dj;
}

}  // namespace

void worker_requestjuliastack(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[REQUEST_AREA]);
  REALM* realm = static_cast<REALM*>(worker->pdata[REQUEST_REALM]);
  bool go = !atomicload(&worker->stop) && realm && realm->juliastack && realm->info.c &&
            !(realm->flags & R_IDLE);
  if (go) {
    int top = std::min(realm->neededjuliastack, realm->njuliastack - 1);
    int v = std::clamp(a->depth + 6 - context->juliasizeshift, 0, std::max(top, 0));
    if (realm->juliajuliastack >= v) {
      processarea(context, a);
    } else if (!realm->e) {
      // No environment yet (the idle search has not bound one): levels
      // anchored now could not be computed. The area is computed without
      // the stack, and asks again once an environment has come and the
      // realm has been invalidated.
      processarea(context, a);
    } else {
      while (context->ijuliacachepp != 0) finishjuliacorrect(context);
      for (int s = realm->maxjuliastack + 1; s <= v; s++) anchorlevel(context, realm, s);
      realm->maxjuliastack = std::max(realm->maxjuliastack, v);
      int valid = std::max(realm->validjuliastack, v);
      adjustjuliastack(context, realm, valid, false);
      realm->juliajuliastack = v;
      int jst = std::min(v, realm->validjuliastack);
      if (jst < 0 || jst <= atomicload(&realm->readyjuliastack))
        processarea(context, a);
      else
        waitforjuliastack(context, realm, a, jst);
    }
  }
  if (realm) __detachrealm(context, realm);
  freeworker(context, worker);
}
