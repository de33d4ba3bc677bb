// juliastackrequest.cpp: an area of a Julia realm that has come deep enough
// to need levels of the stack asks for them here.
#include <algorithm>
#include <cstdio>

#include "juliastack.h"

namespace {

constexpr int REQUEST_AREA = 0;   // pdata
constexpr int REQUEST_REALM = 1;  // pdata, attached
// A general tile uses the stack when its levels reach at least this share
// of the tile's depth (one level per area depth): the derivative of a deep
// orbit grows about evenly along it, and the part the stack can skip is
// the part after the pixel's image has grown to a pixel of the level.
constexpr long JULIAHANDOFFSHARE = 4;
// Above this depth a tile's orbits are short, and its closed cells save
// more than any lookup could.
constexpr int JULIAHANDOFFMINDEPTH = 64;

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

// Can the realm's stack serve its areas now? The realm corrects through a
// stack, its point is set and an environment anchors the levels, and the
// idle system is not rebuilding the stack.
bool stackserves(const REALM* realm) {
  return realm && realm->type == JULIA && realm->juliastack && (realm->flags & R_JULIACORRECT) &&
         realm->info.c && realm->e && !(realm->flags & R_IDLE);
}

// The request posted for `a` by `processarea` holds the area until it
// runs: let go of it. True when it did hold it.
bool releasearea(AREA* a, WORKER* worker) {
  if (!a || a->worker != worker) return false;
  a->worker = nullptr;
  return true;
}

}  // namespace

int juliaarealevel(const OVCONTEXT* context, const REALM* realm, const AREA* a) {
  int top = std::max(std::min(realm->neededjuliastack, realm->njuliastack - 1), 0);
  return std::clamp(a->depth + 6 - context->juliasizeshift, 0, top);
}

bool juliastackdefer(OVCONTEXT* context, AREA* a) {
  REALM* realm = a->realm;
  if (!stackserves(realm)) return false;
  int v = juliaarealevel(context, realm, a);
  int ready = atomicload(&realm->readyjuliastack);
  if (v <= ready) return false;
  if (realm->juliajuliastack >= v) {
    // Asked for already: wait for the deepest level that can come. A level
    // that could not be started leaves the area to what is ready.
    int jst = std::min(v, realm->validjuliastack);
    if (jst <= ready) return false;
    waitforjuliastack(context, realm, a, jst);
    return true;
  }
  WORKER* w = addworker(context, THREAD_MAIN, worker_requestjuliastack);
  if (!w) return false;
  w->pdata[REQUEST_AREA] = a;
  w->pdata[REQUEST_REALM] = realm;
  attachrealm(realm);
  // The area counts as in work until the request has run, so that it is
  // neither processed twice nor taken for finished; a reset stops it.
  a->worker = w;
  dispatch(context, w);
  return true;
}

void worker_requestjuliastack(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[REQUEST_AREA]);
  REALM* realm = static_cast<REALM*>(worker->pdata[REQUEST_REALM]);
  bool stopped = atomicload(&worker->stop);
  bool held = !stopped && releasearea(a, worker);
  bool go = !stopped && realm && realm->juliastack && realm->info.c && !(realm->flags & R_IDLE);
  if (go) {
    int v = juliaarealevel(context, realm, a);
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
  } else if (held && realm) {
    // The message is dropped, but the area it held is not left without
    // data: `processarea` computes it without the stack now.
    processarea(context, a);
  }
  if (realm) __detachrealm(context, realm);
  freeworker(context, worker);
}

int juliastackusable(const REALM* realm) {
  if (!realm || realm->type != JULIA || !realm->juliastack) return -1;
  int ready = atomicload(&realm->readyjuliastack);
  return std::min(ready, realm->validjuliastack);
}

bool juliahandoffperiodic = false;

int juliastackhandoff(const REALM* realm, int depth, const ENVIRONMENT* e) {
  if (!juliahandoffperiodic || !e || !(e->flags & E_PERIODIC)) return -1;
  int level = juliastackusable(realm);
  if (level < 0 || depth < JULIAHANDOFFMINDEPTH) return -1;
  if (static_cast<long>(level) * JULIAHANDOFFSHARE < depth) return -1;
  return level;
}

JULIAHANDOFFTALLY& juliahandofftally() {
  static JULIAHANDOFFTALLY t;
  return t;
}
