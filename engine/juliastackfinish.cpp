// juliastackfinish.cpp: a level whose tiles are all in goes on to ready, in
// order: its pixels that end in shallower levels are corrected, those that
// end in the level itself are resolved by the one finishing worker, its
// mipmap is made, and `readyjuliastack` moves up to it.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "bypass.h"
#include "juliastack.h"

namespace {

constexpr int JST_LEVEL = 0;     // idata: the level
constexpr int JST_SNAPSHOT = 1;  // idata: 1 while the worker holds the snapshot
constexpr int JST_ITERATED = 2;  // idata: pixels iterated out by the worker
constexpr int JST_REALM = 0;     // pdata: REALM*, attached

int tilesperside(const JULIASTACKDATA* L) { return 1 << L->sizeshift; }

// Locks every present tile of the level for reading; false, with the locks
// taken given back, when one cannot be had.
bool locktiles(OVCONTEXT* context, const JULIASTACKDATA* L) {
  int n = tilesperside(L);
  for (int y = 0; y < n; y++)
    for (int x = 0; x < n; x++) {
      JULIACACHE* jc = L->c[y][x];
      if (!jc || lockmemjuliacache(context, jc, JCLOCK_READ)) continue;
      // Undo in the same order up to here.
      for (int k = 0; k < y * n + x; k++)
        if (JULIACACHE* t = L->c[k / n][k % n]) unlockmemjuliacache(context, t, 0);
      return false;
    }
  return true;
}

void unlocktiles(OVCONTEXT* context, const JULIASTACKDATA* L, int flags) {
  int n = tilesperside(L);
  for (int y = 0; y < n; y++)
    for (int x = 0; x < n; x++)
      if (JULIACACHE* jc = L->c[y][x]) unlockmemjuliacache(context, jc, flags);
}

void pushjuliastackworker(OVCONTEXT* context, WORKER* w) {
  w->nextother = nullptr;
  if (!context->juliastackworker) {
    context->juliastackworker = w;
    dispatch_juliastack_worker(context);
    return;
  }
  WORKER* t = context->juliastackworker;
  while (t->nextother) t = t->nextother;
  t->nextother = w;
}

// Takes w out of the queue; when it was the head, the next one runs. A
// head is dispatched once, when it becomes the head.
void popjuliastackworker(OVCONTEXT* context, WORKER* w) {
  if (context->juliastackworker == w) {
    context->juliastackworker = w->nextother;
    w->nextother = nullptr;
    dispatch_juliastack_worker(context);
    return;
  } else {
    for (WORKER* t = context->juliastackworker; t; t = t->nextother)
      if (t->nextother == w) {
        t->nextother = w->nextother;
        break;
      }
  }
  w->nextother = nullptr;
}

void freesnapshot(OVCONTEXT* context, REALM* realm) {
  JULIASTACKDATA* S = &realm->jstdforworker;
  detachhpv(context, S->m);
  detache(context, S->e);
  for (auto& row : S->c)
    for (JULIACACHE* jc : row) detachjc(context, jc);
  memset(S->c, 0, sizeof S->c);
  S->m = nullptr;
  S->e = nullptr;
}

// Copies level s for the worker: pointers only, no references but `m`, `e`.
void takesnapshot(REALM* realm, int s) {
  JULIASTACKDATA* S = &realm->jstdforworker;
  const JULIASTACKDATA* L = &realm->juliastack[s];
  S->sizeshift = L->sizeshift;
  memcpy(S->c, L->c, sizeof S->c);
  S->mr = L->mr;
  memcpy(S->taylorj, L->taylorj, sizeof S->taylorj);
  S->iter = L->iter;
  S->bypass = L->bypass;
  S->m = L->m;
  S->miter = L->miter;
  S->lim = L->lim;
  S->rlim = L->rlim;
  S->e = L->e;
  S->prec = L->prec;
  S->r = L->r;
  if (S->m) attachhpv(S->m);
  if (S->e) attache(S->e);
  // A reset of the level while the worker runs must not free its tiles.
  for (auto& row : S->c)
    for (JULIACACHE* jc : row)
      if (jc) attachjc(jc);
}

// The areas that waited for the level go on.
void releasewaiting(OVCONTEXT* context, JULIASTACKDATA* L) {
  while (!chainempty(&L->wait)) {
    AREA* a = CHAINRECORD(L->wait.next, AREA, waitforjuliastack);
    chainrem(&a->waitforjuliastack);
    initchain(&a->waitforjuliastack);
    a->flags &= ~A_WAITFORJULIASTACK;
    if (a->prepixels)
      prejuliacorrect(context, a, true);
    else
      processarea(context, a);
  }
}

void levelready(OVCONTEXT* context, REALM* realm, int s) {
  // Readers on other threads see the tiles before the mark.
  memorybarrier();
  atomicstore(&realm->readyjuliastack2, s);
  atomicstore(&realm->readyjuliastack, s);
  if (s >= realm->validjuliastack && realm->generalviewport) {
    VIEWPORT* v = realm->generalviewport;
    if (v->finishcallback) v->finishcallback(context, v, VPCALLBACK_JSTFINISH, v->finishcallbackpdata);
  }
  int next = s + context->ncomputejuliastack;
  if (next <= realm->calcjuliastack && next < realm->njuliastack &&
      realm->juliastack[next].waittocompute && !computejuliastack(context, realm, next)) {
    // A level that cannot start ends the stack below it, as in
    // `adjustjuliastack`: left counted as started, it held the levels the
    // view needs short of ready for good.
    realm->calcjuliastack = next - 1;
    if (realm->validjuliastack > next - 1) realm->validjuliastack = next - 1;
  }
}

// Corrects the level's tiles against the levels below, now; false when the
// tiles cannot be locked.
bool correctlevel(OVCONTEXT* context, REALM* realm, int s) {
  JULIASTACKDATA* L = &realm->juliastack[s];
  while (context->ijuliacachepp != 0) finishjuliacorrect(context);
  if (!locktiles(context, L)) return false;
  int n = tilesperside(L);
  for (int y = 0; y < n; y++)
    for (int x = 0; x < n; x++)
      if (JULIACACHE* jc = L->c[y][x]) markjuliasamelevel(jc->data, s);
  if (s > 0)
    for (int y = 0; y < n; y++)
      for (int x = 0; x < n; x++)
        if (JULIACACHE* jc = L->c[y][x]) addjuliacorrecttarget(context, realm, s, jc->data);
  while (context->ijuliacachepp != 0) finishjuliacorrect(context);
  unlocktiles(context, L, JCUNLOCK_DIRTY);
  return true;
}

}  // namespace

void prejuliastack(OVCONTEXT* context, REALM* realm, int s) {
  JULIASTACKDATA* L = &realm->juliastack[s];
  // Tiles still in work: the last one to come home calls again.
  if (L->nworker > 0) {
    L->jswait = false;
    return;
  }
  L->jswait = true;
  if (realm->readyjuliastack != s - 1) return;
  // The program's word that the level is corrected is not awaited: the
  // level is finished below, once its tiles have all been through it.
  if (!L->corrected && !correctlevel(context, realm, s)) {
    L->jswait = false;
    adjustjuliastack(context, realm, s - 1, true);
    return;
  }
  L->jswait = false;
  juliastack(context, realm, s);
}

void juliastack(OVCONTEXT* context, REALM* realm, int s) {
  JULIASTACKDATA* L = &realm->juliastack[s];
  // A level still in the correction, or finishing already.
  if (L->jswait || L->worker) return;
  // A bypass level goes through the worker too: its pixels that came
  // nearer 0 than the level above are resolved there.
  bool onmain = L->corrected;
  WORKER* w = addworker(context, onmain ? THREAD_MAIN : THREAD_WORKER,
                        onmain ? worker_juliastack_return : worker_juliastack);
  if (!w) return;
  w->idata[JST_LEVEL] = s;
  w->idata[JST_SNAPSHOT] = 0;
  w->idata[JST_ITERATED] = 0;
  w->pdata[JST_REALM] = realm;
  attachrealm(realm);
  w->prio = 0;
  L->worker = w;
  pushjuliastackworker(context, w);
}

void dispatch_juliastack_worker(OVCONTEXT* context) {
  while (WORKER* w = context->juliastackworker) {
    if (atomicload(&w->stop) || w->workerproc != worker_juliastack) {
      dispatch(context, w);
      return;
    }
    REALM* realm = static_cast<REALM*>(w->pdata[JST_REALM]);
    int s = w->idata[JST_LEVEL];
    if (locktiles(context, &realm->juliastack[s])) {
      takesnapshot(realm, s);
      w->idata[JST_SNAPSHOT] = 1;
      dispatch(context, w);
      return;
    }
    context->juliastackworker = w->nextother;
    w->nextother = nullptr;
    realm->juliastack[s].worker = nullptr;
    __detachrealm(context, realm);
    freeworker(context, w);
    adjustjuliastack(context, realm, s - 1, true);
  }
}

void worker_juliastack(OVCONTEXT* context, WORKER* worker) {
  if (!atomicload(&worker->stop) && worker->idata[JST_SNAPSHOT]) {
    REALM* realm = static_cast<REALM*>(worker->pdata[JST_REALM]);
    const JULIASTACKDATA* S = &realm->jstdforworker;
    int s = worker->idata[JST_LEVEL];
    int n = tilesperside(S);
    bool whole = true;
    for (int y = 0; y < n; y++)
      for (int x = 0; x < n; x++)
        if (!S->c[y][x]) whole = false;
    if (!whole && !S->bypass) fputs("juliastack: FATAL ERROR: !jc\n", stderr);
    unsigned int format = juliastackformat(realm->flags, s);
    worker->idata[JST_ITERATED] = resolvejuliastacklevel(context, S, s, format, &worker->stop);
  }
  worker->workerproc = worker_juliastack_return;
  worker->recipient = THREAD_MAIN;
  dispatch(context, worker);
}

void worker_juliastack_return(OVCONTEXT* context, WORKER* worker) {
  REALM* realm = static_cast<REALM*>(worker->pdata[JST_REALM]);
  int s = worker->idata[JST_LEVEL];
  bool stopped = atomicload(&worker->stop);
  JULIASTACKDATA* L = &realm->juliastack[s];
  if (worker->idata[JST_SNAPSHOT]) {
    unlocktiles(context, &realm->jstdforworker, stopped ? 0 : JCUNLOCK_DIRTY);
    freesnapshot(context, realm);
  }
  // A stopped worker that still stands for its level leaves no pointer to a
  // record that goes back to the pool here.
  bool own = L->worker == worker;
  if (own) L->worker = nullptr;
  if (!stopped && own) {
    if (juliamipmap(context, realm, s))
      levelready(context, realm, s);
    else
      adjustjuliastack(context, realm, s - 1, true);
    releasewaiting(context, L);
    L->corrected = true;
    if (s + 1 < realm->njuliastack && realm->juliastack[s + 1].jswait)
      prejuliastack(context, realm, s + 1);
  }
  __detachrealm(context, realm);
  popjuliastackworker(context, worker);
  freeworker(context, worker);
}

void stopjuliastackworkers(OVCONTEXT* context) {
  for (WORKER* w = context->juliastackworker; w; w = w->nextother) {
    atomicstore(&w->stop, true);
    REALM* realm = static_cast<REALM*>(w->pdata[JST_REALM]);
    // The level is not finished: it is dropped with everything above the
    // ready ones, so that it is started afresh when it is asked for again.
    stopjuliastackcomputation(context, realm);
  }
}

bool juliamipmap(OVCONTEXT* context, REALM* realm, int s) {
  JULIASTACKDATA* L = &realm->juliastack[s];
  if (!locktiles(context, L)) return false;
  JULIACACHE* mip = addjc(context);
  if (!mip || !lockmemjuliacache(context, mip, JCLOCK_CREATE)) {
    detachjc(context, mip);
    unlocktiles(context, L, 0);
    return false;
  }
  int shift = context->juliasizeshift - PREPIXELTILESIZESHIFT;
  int js = context->juliasize;
  for (int j = 0; j < PREPIXELTILESIZE; j++)
    for (int i = 0; i < PREPIXELTILESIZE; i++) {
      int X = i << shift, Y = j << shift;
      JULIACACHE* jc = L->c[Y >> PREPIXELTILESIZESHIFT][X >> PREPIXELTILESIZESHIFT];
      PREPIXEL& out = mip->data[j * PREPIXELTILESIZE + i];
      if (jc) {
        out = jc->data[(Y & (PREPIXELTILESIZE - 1)) * PREPIXELTILESIZE + (X & (PREPIXELTILESIZE - 1))];
      } else if (L->bypass) {
        // A cheap tile not kept: its pixel made on the spot.
        out = bypassp(context, realm, s, static_cast<float>(4.0 * X / js - 2.0),
                      static_cast<float>(4.0 * Y / js - 2.0));
      } else {
        out = PREPIXEL{0, 0, 0, 0, 0, -1};
      }
    }
  mip->flags |= JCF_MIPMAP;
  unlockmemjuliacache(context, mip, JCUNLOCK_DIRTY);
  unlocktiles(context, L, 0);
  detachjc(context, L->mipmap);
  L->mipmap = mip;
  return true;
}
