// juliastackcompute.cpp: starting, dropping and moving the levels of a
// realm's Julia stack, and the tile jobs of a level: by the bypass where the
// level's cubic holds, by a canvas job otherwise.
#include <algorithm>
#include <cstdio>

#include "bypass.h"
#include "juliastack.h"

namespace {

// The bits of a realm's flags a tile job keeps, and the bits it adds: a
// Julia canvas, a tile of a stack level, corrected against the stack.
constexpr unsigned int TILEJOBREALMBITS = 0x100050f6;
constexpr unsigned int TILEJOBBITS = 0x20900000;

// A level nobody waits for yet is built behind every tile a view asks for:
// a deep stack takes minutes of canvas jobs, and the view in front of the
// user comes first. Levels an area waits on are raised to 0.
constexpr int PRIOLATER = NWORKERPRIO - 1;

int tilesperside(const JULIASTACKDATA* L) { return 1 << L->sizeshift; }

void taskdone(REALM* realm, JULIASTACKDATA* L, int n) {
  accomplish(realm->jsttask, n, false);
  L->task -= n;
}

void removefromcheap(REALM* realm, JULIASTACKDATA* L, int x, int y) {
  (void)realm;
  JCBYPASSCHAIN* b = &L->bypasschain[y][x];
  if (!b->inchain) return;
  chainrem(&b->chain);
  initchain(&b->chain);
  b->inchain = false;
}

void droptile(OVCONTEXT* context, REALM* realm, JULIASTACKDATA* L, int x, int y) {
  removefromcheap(realm, L, x, y);
  if (JULIACACHE* jc = L->c[y][x]) {
    L->c[y][x] = nullptr;
    detachjc(context, jc);
    realm->ijuliacache--;
  }
}

HFLOATCOMPLEX tilecorner(const JULIASTACKDATA* L, int s, int x, int y) {
  int n = tilesperside(L);
  // ((4x / N - 2) 2^-s, ...), exactly: 4x/N - 2 = (4x - 2N) / N.
  HFLOAT fx = ldexpHF(HFd(4.0 * x / n - 2.0), -s);
  HFLOAT fy = ldexpHF(HFd(4.0 * y / n - 2.0), -s);
  return cHF(fx, fy);
}

bool pendingcorrection(OVCONTEXT* context, REALM* realm, int s) {
  for (int b = 0; b < context->ijuliacachepp; b++)
    if (context->juliacacherealm[b] == realm && context->juliacachejsti[b] == s) return true;
  return false;
}

WORKER* bypassjob(OVCONTEXT* context, REALM* realm, JULIASTACKDATA* L, int s, int x, int y,
                  JULIACACHE* jc) {
  WORKER* w = addworker(context, THREAD_WORKER, worker_bypass);
  if (!w) return nullptr;
  w->idata[BYPASS_LEVEL] = s;
  w->idata[BYPASS_DEPTH] = L->sizeshift + s + 2;
  w->idata[BYPASS_ITER] = L->iter;
  w->idata[BYPASS_X] = x;
  w->idata[BYPASS_Y] = y;
  // A pixel whose image comes nearer 0 than the level above names its own
  // level or a deeper one, as a canvas tile's pixel does, and the level's
  // finishing worker takes it on from its place. Looked up at the centre of
  // the level above, as the cubic's clamp would have it, a point inside the
  // basin of an attracting 0 read a place 2^-6 of a level out, outside the
  // basin: a whole level inside an atom's basin showed escape counts.
  w->idata[BYPASS_MAXLEVEL] = realm->njuliastack - 1;
  w->hdata[BYPASS_CF] = tilecorner(L, s, x, y);
  for (int k = 0; k < 4; k++) w->hdata[BYPASS_TAYLOR + k] = L->taylorj[k];
  w->idata[BYPASS_SAMEUNTIL] = juliastacksameuntil(realm, s);
  w->hdata[BYPASS_TRAP] = L->lim;
  w->hdata[BYPASS_TRAPRADIUS] = cHF(juliastacktrapradius(L), ZEROH);
  w->pdata[BYPASS_TILE] = jc;
  w->pdata[BYPASS_REALM] = realm;
  w->prepixels = nullptr;
  attachrealm(realm);
  return w;
}

// A level the idle search defined (its cubic, its radius) carries no
// environment until a move fits the stack to the view's environments, and
// only where one of them can carry its seed. Its tiles need the environment
// as the anchor alone: a bypass level maps through its own cubic, and a
// canvas level away from the environment's point iterates its seed from the
// tiles' corners. So it takes the realm's environment at its true offset,
// rather than leave the levels above it unbuilt for good.
bool anchortorealm(OVCONTEXT* context, REALM* realm, JULIASTACKDATA* L) {
  ENVIRONMENT* e = realm->e;
  if (!e || !e->c || !L->m) return false;
  mpf_t d;
  mpf_init2(d, 64);
  mpf_sub(d, L->m->v[0], e->c->v[0]);
  HFLOAT re = mpf_get_HF(d);
  mpf_sub(d, L->m->v[1], e->c->v[1]);
  HFLOAT im = mpf_get_HF(d);
  mpf_clear(d);
  // On the environment's own point the canvas would take its orbit as the
  // reference, which only a level anchored by the environment itself may.
  if (re.mantissa == 0 && im.mantissa == 0 && !L->bypass) return false;
  attache(e);
  L->e = e;
  L->mr = cHF(re, im);
  L->prec = -1;
  (void)context;
  return true;
}

WORKER* canvastilejob(OVCONTEXT* context, REALM* realm, JULIASTACKDATA* L, int s, int x, int y,
                      JULIACACHE* jc, int prec) {
  WORKER* w = addworker(context, THREAD_WORKER, worker_canvas_calc_inner);
  if (!w) return nullptr;
  clearjob(w);
  unsigned int word = (realm->flags & TILEJOBREALMBITS) | TILEJOBBITS;
  w->idata[JOB_WORD] = static_cast<ITER>(word);
  w->idata[JOB_ORDER] = prec;
  w->idata[JOB_DEPTH] = L->sizeshift + s + 2;
  w->idata[JOB_DBOUND] = -1;
  w->idata[JOB_INTERPOLITER] = 0;
  // The tile's corner is exact in HFLOAT: the canvas starts from it alone.
  w->hdata[JOB_CT] = tilecorner(L, s, x, y);
  attachhpv(L->m);
  w->pdata[JOB_JULIA] = L->m;
  w->hdata[JOB_JULIAPOINT] = cHF(mpf_get_HF(L->m->v[0]), mpf_get_HF(L->m->v[1]));
  w->idata[JOB_ATTRACTOR] = L->miter < 0 ? L->miter : 0;
  w->hdata[JOB_TRAPCENTRE] = L->lim;
  // The kernels trap within half the job's radius; a level's trap is the
  // disc of radius `rlim` itself, as its remainder and the bypass have it,
  // so that a pixel counts the same whichever of them finishes it.
  HFLOAT trap = L->rlim.mantissa == 0 ? ZEROH : ldexpHF(L->rlim, 1);
  w->hdata[JOB_TRAPRADIUS] = HFLOATCOMPLEX{trap.mantissa, 0, trap.exponent};
  w->pdata[JOB_REALM] = realm;
  attachrealm(realm);
  w->pdata[JOB_JULIACACHE] = jc;
  w->idata[JOB_JULIACACHELOCKED] = 1;
  // A level anchored on its environment's own point takes that orbit, the
  // critical orbit of z^2 + m, as the reference of its start points. Without
  // it a deep level's start point d is lost against m in the tile's format
  // (z_1 = m + d^2), and the level shows the orbit of 0 instead.
  // Only where the kernels perturb against it: a series environment, or a
  // plain orbit.
  if (L->e && L->mr.mantissax == 0 && L->mr.mantissay == 0 && L->e->n > 0 &&
      ((L->e->flags & E_SERIES) || !(L->e->flags & E_PERIODIC))) {
    attache(L->e);
    w->pdata[JOB_ENVIRONMENT] = L->e;
  }
  return w;
}

// The level's tile workers that wait in the table go first from now.
void raiseprio(OVCONTEXT* context, JULIASTACKDATA* L) {
  for (auto& row : L->w)
    for (WORKER* w : row)
      if (w) changeprio(context, w, 0);
}

// Starts tile (x, y); false when no tile could be had.
bool starttile(OVCONTEXT* context, REALM* realm, JULIASTACKDATA* L, int s, int x, int y) {
  if (realm->ijuliacache >= static_cast<int>(context->nmemjuliacache)) {
    if (L->bypass) {
      // Not kept: a lookup computes its pixels when it lands there.
      taskdone(realm, L, 1);
      return true;
    }
    muckoutjuliastack(context, realm);
  }
  JULIACACHE* jc = addjc(context);
  if (!jc) return false;
  attachjc(jc);
  realm->ijuliacache++;
  L->c[y][x] = jc;
  if (!lockmemjuliacache(context, jc, JCLOCK_CREATE)) {
    detachjc(context, jc);
    return false;
  }
  int prec = isgeneral(L, s) ? L->prec : -1;
  WORKER* w = L->bypass ? bypassjob(context, realm, L, s, x, y, jc)
                        : canvastilejob(context, realm, L, s, x, y, jc, prec);
  if (!w) {
    unlockmemjuliacache(context, jc, 0);
    detachjc(context, jc);
    return false;
  }
  L->nworker++;
  w->prio = realm->priojuliastack < s ? PRIOLATER : 0;
  L->w[y][x] = w;
  dispatch(context, w);
  return true;
}

// A tile job of level s is back: the level learns of it.
void tiledone(OVCONTEXT* context, REALM* realm, int s, int x, int y, bool cheap) {
  JULIASTACKDATA* L = &realm->juliastack[s];
  L->w[y][x] = nullptr;
  L->nworker--;
  taskdone(realm, L, 1);
  if (cheap && L->c[y][x]) {
    JCBYPASSCHAIN* b = &L->bypasschain[y][x];
    removefromcheap(realm, L, x, y);
    chaininsbegin(&realm->bypassjc, &b->chain);
    b->inchain = true;
  }
  if (L->nworker == 0) prejuliastack(context, realm, s);
}

}  // namespace

bool isgeneral(const JULIASTACKDATA* jstd, int s) {
  const ENVIRONMENT* e = jstd->e;
  if (!e || !(e->flags & E_PERIODIC) || s < e->mini || s > e->maxi) return false;
  HFLOAT mr = cabsHF(jstd->mr);
  if (e->r2.mantissa == 0) return mr.mantissa == 0;
  // |mr| <= 4 r2, with r2's exponent raised by 2.
  return dHF(mr) <= std::sqrt(std::sqrt(dHF(ldexpHF(e->r2, 2))));
}

bool computejuliastack(OVCONTEXT* context, REALM* realm, int s) {
  JULIASTACKDATA* L = &realm->juliastack[s];
  int n = 1 << realm->juliastacksizeshift;
  int needed = n * n;
  if (L->task < needed) {
    if (realm->jsttask) __atomic_add_fetch(&realm->jsttask->due, needed - L->task, __ATOMIC_SEQ_CST);
    L->task = needed;
  }
  if (realm->readyjuliastack + context->ncomputejuliastack < s) {
    L->waittocompute = true;
    return true;
  }
  L->nworker = 0;
  L->waittocompute = false;
  L->sizeshift = realm->juliastacksizeshift;
  // Level 0 has no level above it to map onto: it is always iterated.
  if (s == 0) L->bypass = false;
  if (!L->m) {
    fputs("computejuliastack: !jstd->m\n", stderr);
    return false;
  }
  if (!L->e && !anchortorealm(context, realm, L)) {
    fputs("computejuliastack: !e\n", stderr);
    return false;
  }
  for (int y = 0; y < n; y++)
    for (int x = 0; x < n; x++) {
      if (L->w[y][x]) {
        L->nworker++;
        continue;
      }
      if (L->c[y][x]) {
        taskdone(realm, L, 1);
        continue;
      }
      if (!starttile(context, realm, L, s, x, y)) {
        resetjuliastack(context, realm, s);
        return false;
      }
    }
  if (L->nworker == 0) prejuliastack(context, realm, s);
  return true;
}

void worker_bypass(OVCONTEXT* context, WORKER* worker) {
  JULIACACHE* jc = static_cast<JULIACACHE*>(worker->pdata[BYPASS_TILE]);
  if (!atomicload(&worker->stop) && jc && jc->data) {
    bypass(context, worker->idata[BYPASS_MAXLEVEL], worker->idata[BYPASS_DEPTH],
           worker->hdata[BYPASS_CF], jc->data, &worker->hdata[BYPASS_TAYLOR], worker->idata[BYPASS_ITER]);
    bypassdeeper(context, worker->idata[BYPASS_LEVEL], worker->idata[BYPASS_SAMEUNTIL], jc->data,
                 &worker->hdata[BYPASS_TAYLOR], worker->idata[BYPASS_ITER], worker->hdata[BYPASS_TRAP],
                 crealHF(worker->hdata[BYPASS_TRAPRADIUS]));
  }
  worker->workerproc = worker_bypass_return;
  worker->recipient = THREAD_MAIN;
  dispatch(context, worker);
}

void worker_bypass_return(OVCONTEXT* context, WORKER* worker) {
  JULIACACHE* jc = static_cast<JULIACACHE*>(worker->pdata[BYPASS_TILE]);
  REALM* realm = static_cast<REALM*>(worker->pdata[BYPASS_REALM]);
  bool stopped = atomicload(&worker->stop);
  if (jc) unlockmemjuliacache(context, jc, stopped ? 0 : JCUNLOCK_DIRTY);
  if (!stopped) {
    int s = worker->idata[BYPASS_LEVEL], x = worker->idata[BYPASS_X], y = worker->idata[BYPASS_Y];
    tiledone(context, realm, s, x, y, true);
  }
  detachjc(context, jc);
  __detachrealm(context, realm);
  freeworker(context, worker);
}

namespace {

// The level whose tile `worker` makes, or -1; the job does not name its
// level, so the levels in work are searched.
int levelofjob(REALM* realm, WORKER* worker, int* x, int* y) {
  int top = std::min(realm->calcjuliastack, realm->njuliastack - 1);
  for (int s = std::max(0, static_cast<int>(realm->readyjuliastack) + 1); s <= top; s++) {
    JULIASTACKDATA* L = &realm->juliastack[s];
    if (L->nworker == 0) continue;
    for (*y = 0; *y < MAXJULIASTACKSIZE; ++*y)
      for (*x = 0; *x < MAXJULIASTACKSIZE; ++*x)
        if (L->w[*y][*x] == worker) return s;
  }
  return -1;
}

}  // namespace

void juliastacktilereturn(OVCONTEXT* context, WORKER* worker) {
  REALM* realm = static_cast<REALM*>(worker->pdata[JOB_REALM]);
  if (!realm || !realm->juliastack || atomicload(&worker->stop)) return;
  int x = 0, y = 0;
  int s = levelofjob(realm, worker, &x, &y);
  if (s >= 0) tiledone(context, realm, s, x, y, false);
}

void juliastacktilefailed(OVCONTEXT* context, WORKER* worker) {
  REALM* realm = static_cast<REALM*>(worker->pdata[JOB_REALM]);
  if (!realm || !realm->juliastack || atomicload(&worker->stop)) return;
  int x = 0, y = 0;
  int s = levelofjob(realm, worker, &x, &y);
  if (s < 0) return;
  realm->juliastack[s].w[y][x] = nullptr;
  adjustjuliastack(context, realm, s - 1, true);
}

void muckoutjuliastack(OVCONTEXT* context, REALM* realm) {
  while (context->ijuliacachepp != 0) finishjuliacorrect(context);
  if (chainempty(&realm->bypassjc)) return;
  // The tile made longest ago goes first: new tiles enter at the head.
  JCBYPASSCHAIN* b = CHAINRECORD(realm->bypassjc.prev, JCBYPASSCHAIN, chain);
  JULIASTACKDATA* L = &realm->juliastack[b->i];
  int x = b->x, y = b->y, s = b->i;
  droptile(context, realm, L, x, y);
  if (WORKER* w = L->w[y][x]) {
    L->w[y][x] = nullptr;
    atomicstore(&w->stop, true);
    L->nworker--;
    taskdone(realm, L, 1);
    if (L->nworker == 0) prejuliastack(context, realm, s);
  }
}

void resetjuliastack(OVCONTEXT* context, REALM* realm, int s) {
  JULIASTACKDATA* L = &realm->juliastack[s];
  if (pendingcorrection(context, realm, s)) fputs("resetjuliastack: FATAL ERROR.\n", stderr);
  if (L->task > 0) {
    accomplish(realm->jsttask, L->task, false);
    L->task = 0;
  }
  if (L->worker) {
    atomicstore(&L->worker->stop, true);
    L->worker = nullptr;
  }
  for (int y = 0; y < MAXJULIASTACKSIZE; y++)
    for (int x = 0; x < MAXJULIASTACKSIZE; x++) {
      if (WORKER* w = L->w[y][x]) {
        atomicstore(&w->stop, true);
        L->w[y][x] = nullptr;
      }
      droptile(context, realm, L, x, y);
    }
  detachjc(context, L->mipmap);
  L->mipmap = nullptr;
  while (!chainempty(&L->wait)) {
    AREA* a = CHAINRECORD(L->wait.next, AREA, waitforjuliastack);
    chainrem(&a->waitforjuliastack);
    initchain(&a->waitforjuliastack);
    a->flags &= ~A_WAITFORJULIASTACK;
    resetarea(context, a, false);
    processarea(context, a);
  }
  while (!chainempty(&L->canvasworker)) {
    WORKER* w = CHAINRECORD(L->canvasworker.next, WORKER, chain);
    chainrem(&w->chain);
    initchain(&w->chain);
    atomicstore(&w->stop, true);
    if (AREA* a = static_cast<AREA*>(w->pdata[JOB_AREA])) resetarea(context, a, false);
  }
  L->jswait = false;
  L->corrected = false;
  L->nworker = 0;
  L->waittocompute = false;
}

void stopjuliastackcomputation(OVCONTEXT* context, REALM* realm) {
  if (!realm || !realm->juliastack) return;
  int ready = realm->readyjuliastack;
  int top = std::min(realm->calcjuliastack, realm->njuliastack - 1);
  for (int s = std::max(ready + 1, 0); s <= top; s++) resetjuliastack(context, realm, s);
  if (realm->calcjuliastack > ready) realm->calcjuliastack = ready;
  if (realm->priojuliastack > ready) realm->priojuliastack = ready;
}

namespace {

void dropanchor(OVCONTEXT* context, JULIASTACKDATA* L) {
  detachhpv(context, L->m);
  L->m = nullptr;
  detache(context, L->e);
  L->e = nullptr;
  L->prec = -1;
  L->bypass = false;
  L->iter = 0;
  L->r = ZEROH;
  L->mr = CZEROH;
  for (auto& t : L->taylorj) t = CZEROH;
}

}  // namespace

void adjustjuliastack(OVCONTEXT* context, REALM* realm, int vjst, bool erase) {
  if (!realm || !realm->juliastack) return;
  vjst = std::min(vjst, realm->njuliastack - 1);
  realm->juliajuliastack = -1;
  if (erase) {
    int top = std::max(realm->calcjuliastack, realm->maxjuliastack);
    top = std::min(top, realm->njuliastack - 1);
    for (int s = top; s > vjst && s >= 0; s--) {
      resetjuliastack(context, realm, s);
      dropanchor(context, &realm->juliastack[s]);
    }
    if (realm->calcjuliastack > vjst) realm->calcjuliastack = vjst;
    if (realm->readyjuliastack > vjst) {
      atomicstore(&realm->readyjuliastack2, vjst);
      atomicstore(&realm->readyjuliastack, vjst);
    }
    if (realm->priojuliastack > vjst) realm->priojuliastack = vjst;
    realm->maxjuliastack = vjst;
  }
  realm->validjuliastack = vjst;
  while (realm->calcjuliastack < vjst) {
    int s = realm->calcjuliastack + 1;
    if (!computejuliastack(context, realm, s)) {
      realm->calcjuliastack = s - 1;
      realm->validjuliastack = s - 1;
      return;
    }
    realm->calcjuliastack = s;
  }
}

void waitforjuliastack(OVCONTEXT* context, REALM* realm, AREA* a, int jst) {
  if (jst <= realm->priojuliastack) {
    // Wanted now: the level's queued workers need not wait behind others.
  } else {
    for (int s = std::max(realm->priojuliastack + 1, 0); s <= jst && s < realm->njuliastack; s++)
      raiseprio(context, &realm->juliastack[s]);
    realm->priojuliastack = jst;
  }
  if (a->flags & A_WAITFORJULIASTACK) chainrem(&a->waitforjuliastack);
  a->flags |= A_WAITFORJULIASTACK;
  chaininsbegin(&realm->juliastack[jst].wait, &a->waitforjuliastack);
}

// ---------------------------------------------------------------- an area by the bypass

namespace {

// Main thread: a bypass job of an area found no pixel buffer; it takes one
// now or waits for the next one given back.
void worker_bypass2wait(OVCONTEXT* context, WORKER* worker) {
  worker->workerproc = worker_bypass2;
  worker->recipient = THREAD_WORKER;
  if (!atomicload(&worker->stop) && !worker->prepixels) worker->prepixels = addprepixels(context);
  if (atomicload(&worker->stop) || worker->prepixels)
    dispatch(context, worker);
  else
    waitforprepixels(context, worker);
}

}  // namespace

void worker_bypass2(OVCONTEXT* context, WORKER* worker) {
  if (!atomicload(&worker->stop) && !worker->prepixels) {
    worker->prepixels = addprepixels(context);
    if (!worker->prepixels) {
      worker->workerproc = worker_bypass2wait;
      worker->recipient = THREAD_MAIN;
      dispatch(context, worker);
      return;
    }
  }
  if (!atomicload(&worker->stop))
    bypass(context, worker->idata[BYPASS_MAXLEVEL], worker->idata[BYPASS_DEPTH], worker->hdata[BYPASS_CF],
           worker->prepixels->pixels, &worker->hdata[BYPASS_TAYLOR], worker->idata[BYPASS_ITER]);
  worker->workerproc = worker_bypass2_return;
  worker->recipient = THREAD_MAIN;
  dispatch(context, worker);
}

void worker_bypass2_return(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[BYPASS2_AREA]);
  REALM* realm = static_cast<REALM*>(worker->pdata[BYPASS_REALM]);
  if (atomicload(&worker->stop) || !a) {
    removeprepixels(context, worker->prepixels);
    worker->prepixels = nullptr;
  } else {
    a->worker = nullptr;
    removeprepixels(context, a->prepixels);
    a->prepixels = worker->prepixels;
    worker->prepixels = nullptr;
    // The pixels name levels above this one only.
    a->jst = worker->idata[BYPASS_MAXLEVEL];
    prejuliacorrect(context, a, true);
  }
  __detachrealm(context, realm);
  freeworker(context, worker);
}
