// Viewports: their life by reference count, copies, activation and
// deactivation, the marked point and the status line.
//
// A viewport may be made, copied, attached and detached from any thread;
// those calls touch only the atomic count and send a message. Its record is
// set up by the sender before anything else can see it; from then on the
// main thread owns it, and the last `__detachviewport` frees it there.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Mandelbrot.h"
#include "idle.h"
#include "juliastack.h"

IDLEHOOKS idlehooks = {};
SCHEMEHOOKS schemehooks = {};

namespace {

bool stopped(OVCONTEXT* context) { return atomicload(&context->grmain.stop); }

// Every arbitrary-precision member of the record, with its count.
struct MPFMEMBERS {
  mpf_t* set;
  int n;
};

template <typename F>
void formpf(VIEWPORT* v, F f) {
  const MPFMEMBERS all[] = {{v->moveparam, 2}, {v->dummy, 2}, {v->mp, NVIEWPORTMP},
                            {v->idle_c, 2},    {v->idle_d, 2}};
  for (const MPFMEMBERS& m : all)
    for (int k = 0; k < m.n; k++) f(m.set[k]);
}

// The navigator's resting state until it sets itself up.
void navdefaults(VIEWPORT* v) {
  v->nav_zoom = 1;
  v->nav_delta = 0;
  v->nav_invalid = true;
  v->nav_Dlogzoomauto = 0.02;
  v->nav_interval = 0.01;
  v->nav_frequency = 20;
  v->nav_DIRECTIONTHRESHOLD = 0.005;
  v->nav_Rdelta = 0.5;
  v->nav_Ldelta = 0.1;
  v->nav_Rzoom = 0.5;
  v->nav_Lzoom = 0.05;
  v->nav_Rmagnet = 0.001;
  v->nav_Lmagnet = 0.0015;
  v->nav_Rrotation = 0.001;
  v->nav_Rbrake = 0.05;
  v->nav_touchmode = TOUCHMODE_DEFAULT;
  v->nav_autostop = true;
}

void releasescheme(OVCONTEXT* context, COLORSCHEME* scheme) {
  if (scheme && schemehooks.detachcs) schemehooks.detachcs(context, scheme);
}

void releaselistschemes(OVCONTEXT* context, VIEWPORT* v) {
  for (int i = 0; i < NDISPLAYLISTS; i++) {
    COLORSCHEME* s = v->schemes[i];
    v->schemes[i] = nullptr;
    releasescheme(context, s);
  }
}

WORKER* viewportmessage(OVCONTEXT* context, VIEWPORT* v, WORKERPROC proc) {
  if (stopped(context) || !v) return nullptr;
  WORKER* w = addworker(context, THREAD_MAIN, proc);
  if (!w) return nullptr;
  attachviewport(v);
  w->pdata[0] = v;
  return w;
}

void send(OVCONTEXT* context, VIEWPORT* v, WORKERPROC proc, int idata0) {
  WORKER* w = viewportmessage(context, v, proc);
  if (!w) return;
  w->idata[0] = idata0;
  dispatch(context, w);
}

VIEWPORT* newviewport(OVCONTEXT* context, REALM* realm, REALM* juliarealm, VPCALLBACK callback,
                      void* pdata) {
  if (stopped(context)) return nullptr;
  VIEWPORT* v = static_cast<VIEWPORT*>(calloc(1, sizeof(VIEWPORT)));
  if (!v) return nullptr;
  __initviewport(context, v);
  v->realm = realm;
  attachrealm(realm);
  v->juliarealm = juliarealm;
  if (juliarealm) {
    attachrealm(juliarealm);
    juliarealm->generalviewport = v;
  }
  v->finishcallback = callback;
  v->finishcallbackpdata = pdata;
  return v;
}

// A copy with its own Julia realm: `lock` -1 leaves that realm's lock of the
// Julia point as it is.
VIEWPORT* copyview(OVCONTEXT* context, VIEWPORT* source, REALM* realm, REALM* juliarealm,
                   VPCALLBACK callback, void* pdata, bool precalc, int lock) {
  VIEWPORT* v = newviewport(context, realm, juliarealm, callback, pdata);
  if (!v) return nullptr;
  if (precalc) v->flags |= VP_PRECALCVP;
  WORKER* w = viewportmessage(context, v, worker_copyviewport);
  if (!w) return v;
  attachviewport(source);
  w->pdata[1] = source;
  w->idata[0] = lock;
  dispatch(context, w);
  moveviewport(context, v, CZEROH, CONEH, -1, -1, CZEROH, ZEROH, 0);
  return v;
}

// Environments are linked on one chain at a time, so the copy's chain holds
// copies sharing the orbits.
void copyenvironments(OVCONTEXT* context, VIEWPORT* v, VIEWPORT* s) {
  for (CHAIN* l = s->echain.next; l != &s->echain; l = l->next) {
    ENVIRONMENT* e = CHAINRECORD(l, ENVIRONMENT, chain);
    ENVIRONMENT* c = copye(context, e);
    if (!c) continue;
    chaininsbegin(&v->echain, &c->chain);
    if (e == s->esat) v->esat = c;
  }
  v->enonsat = s->enonsat;
  if (v->enonsat) attache(v->enonsat);
  v->precsat = s->precsat;
  v->info = s->info;
  if (v->info.c) attachhpv(v->info.c);
}

void copystate(OVCONTEXT* context, VIEWPORT* v, VIEWPORT* s) {
  spinlocklock(&v->spdelta);
  v->zoom = s->zoom;
  v->zoomabs = s->zoomabs;
  v->initialzoom = s->initialzoom;
  v->precision = s->precision;
  v->delta = s->delta;
  if (v->delta) attachhpv(v->delta);
  spinlockunlock(&v->spdelta);
  mp_bitcnt_t p = v->precision < 64 ? 64 : v->precision;
  for (int k = 0; k < 2; k++) mpf_set_prec(v->dummy[k], p);
  for (int k = 0; k < NVIEWPORTMP; k++) {
    mpf_set_prec(v->mp[k], mpf_get_prec(s->mp[k]));
    mpf_set(v->mp[k], s->mp[k]);
  }
  v->resolution = s->resolution;
  v->z0 = s->z0;
  v->z1 = s->z1;
  for (int k = 0; k < 4; k++) v->c[k] = s->c[k];
  v->channels = s->channels;
  v->activescheme = s->activescheme;
  if (v->activescheme && schemehooks.attachcs) schemehooks.attachcs(v->activescheme);
  v->special = s->special;
  v->nav_flags = s->nav_flags;
  v->computecycle = s->computecycle;
  copyenvironments(context, v, s);
}

// The effective tops end their service to this view with it.
void releaseeffectivetops(OVCONTEXT* context, VIEWPORT* v) {
  for (int i = 0; i < v->ieffectivetop; i++) {
    AREA* t = v->effectivetop[i];
    if (--t->nhpvalue > 0) continue;
    detachhpv(context, t->hpvalue);
    t->hpvalue = nullptr;
    updatedelchain(context, t);
  }
  v->ieffectivetop = 0;
}

void takedownlist(OVCONTEXT* context, VIEWPORT* v) {
  int i = (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1;  // the current list
  for (int n = 0; n < v->iviewportarea[i]; n++) {
    VIEWPORTAREA* va = &v->viewportarea[i][n];
    AREA* a = va->a;
    chainrem(&va->chain);
    initchain(&va->chain);
    if (chainempty(&a->viewportchain)) {
      detache(context, a->e);
      a->e = nullptr;
      REALM* jr = a->juliarealm;
      a->juliarealm = nullptr;
      if (jr) __detachrealm(context, jr);
    }
    if (va->counted) v->ivainvalid--;
    setpriorityarea(context, a);
  }
  v->iviewportarea[i] = 0;
}

char formatletter(unsigned int flags) {
  switch (flags & R_PRECMASK) {
    case R_PRECFLOAT: return 'F';
    case R_PRECDOUBLE: return 'D';
    case R_PRECLONGDOUBLE: return 'L';
    case R_PRECHFLOAT: return 'H';
    default: return 'A';
  }
}

void append(char* s, size_t* n, const char* format, int value) {
  if (*n >= NVIEWPORTSTRING) return;
  int k = snprintf(s + *n, NVIEWPORTSTRING - *n, format, value);
  if (k > 0) *n += static_cast<size_t>(k);
}

}  // namespace

// ---------------------------------------------------------------- life

void __initviewport(OVCONTEXT*, VIEWPORT* v) {
  initdrawlists(v);
  v->count = 1;
  v->imovemsg = 0;
  v->precsat = -1;
  v->channels = 1;
  v->sat_e_prec = -1;
  v->special = static_cast<unsigned int>(-1);
  v->flags = 0;
  initchain(&v->echain);
  v->resolution = 1024;
  v->z0 = complexd(-1, -1);
  v->z1 = complexd(1, 1);
  // Half, turned a quarter: the Mandelbrot set stands upright and the
  // longer side spans 4 of the plane.
  v->initialzoom = HFLOATCOMPLEX{0, -(HFLOATBASE(1) << 61), 0};
  v->zoom = v->initialzoom;
  v->zoomabs = cabsHF(v->zoom);
  int L = v->zoomabs.mantissa ? static_cast<int>(log2HF(v->zoomabs)) : 0;
  v->precision = static_cast<mp_bitcnt_t>(L + 64);
  v->szoom = 1.0;
  v->siter = 0;
  v->sii = 0;
  mp_bitcnt_t p = v->precision < 64 ? 64 : v->precision;
  formpf(v, [&](mpf_ptr m) { mpf_init2(m, p); });
  navdefaults(v);
  v->mov_emergencyprec = -1;
  v->idle_n0 = -1;
  v->idle_nextenviter = -1;
}

VIEWPORT* addviewport(OVCONTEXT* context, REALM* realm, REALM* juliarealm, int width, int height,
                      VPCALLBACK finishcallback, void* pdata) {
  VIEWPORT* v = newviewport(context, realm, juliarealm, finishcallback, pdata);
  if (!v) return nullptr;
  moveviewport(context, v, CZEROH, v->initialzoom, width, height, CZEROH, ZEROH,
               MOVEVIEWPORT_ZOOMDELTAABSOLUTE | MOVEVIEWPORT_MUSTDOLOOP);
  return v;
}

VIEWPORT* copyviewport(OVCONTEXT* context, VIEWPORT* viewport, VPCALLBACK callback, void* pdata,
                       bool lockjulia) {
  if (stopped(context)) return nullptr;
  REALM* jr = viewport->juliarealm ? copyrealm(context, viewport->juliarealm) : nullptr;
  VIEWPORT* v =
      copyview(context, viewport, viewport->realm, jr, callback, pdata, false, lockjulia ? 1 : 0);
  // The new view holds the copied realm; the reference copyrealm gave goes.
  detachrealm(context, jr);
  return v;
}

VIEWPORT* copyviewportex(OVCONTEXT* context, VIEWPORT* viewport, REALM* realm, REALM* juliarealm,
                         VPCALLBACK callback, void* pdata, bool precalc) {
  return copyview(context, viewport, realm, juliarealm, callback, pdata, precalc, -1);
}

void worker_copyviewport(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  VIEWPORT* source = static_cast<VIEWPORT*>(worker->pdata[1]);
  if (!atomicload(&worker->stop)) {
    copystate(context, v, source);
    if (v->juliarealm && worker->idata[0] != -1) {
      if (worker->idata[0]) v->juliarealm->flags |= R_LOCKJULIAPOINT;
      else v->juliarealm->flags &= ~R_LOCKJULIAPOINT;
    }
  }
  __detachviewport(context, source);
  __detachviewport(context, v);
  freeworker(context, worker);
}

void attachviewport(VIEWPORT* viewport) { atomicincrementint(&viewport->count); }

void activateviewport(OVCONTEXT* context, VIEWPORT* viewport, int priority) {
  send(context, viewport, worker_activate_viewport, priority);
}

void deactivateviewport(OVCONTEXT* context, VIEWPORT* viewport) {
  send(context, viewport, worker_deactivate_viewport, 0);
}

void detachviewport(OVCONTEXT* context, VIEWPORT* viewport) {
  if (stopped(context) || !viewport) return;
  WORKER* w = addworker(context, THREAD_MAIN, worker_detach_viewport);
  if (!w) return;
  w->pdata[0] = viewport;
  dispatch(context, w);
}

void worker_activate_viewport(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  if (!atomicload(&worker->stop)) __activateviewport(context, v, worker->idata[0]);
  __detachviewport(context, v);
  freeworker(context, worker);
}

void worker_deactivate_viewport(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  if (!atomicload(&worker->stop)) __deactivateviewport(context, v, true);
  __detachviewport(context, v);
  freeworker(context, worker);
}

// A stopped detach is still a detach: the reference goes either way.
void worker_detach_viewport(OVCONTEXT* context, WORKER* worker) {
  __detachviewport(context, static_cast<VIEWPORT*>(worker->pdata[0]));
  freeworker(context, worker);
}

void __activateviewport(OVCONTEXT* context, VIEWPORT* v, int priority) {
  if (priority == 0) return;
  if (atomicload(&v->drawactive)) {
    v->priority = priority;
    if (v->realm->type == JULIA && v->computecycle != v->realm->computecycle)
      movingstart(context, v);
    else if (!(v->flags & VP_DONOTDRAW) && v->delta)
      invalidate(context, v);
  } else {
    v->priority = priority;
    v->flags |= VP_DIRTY;
    if (!atomicload(&v->listslocked)) {
      if (!preparedrawlists(context, v)) fputs("activateviewport: out of memory.\n", stderr);
      releaselistschemes(context, v);
    }
    if (!(v->flags & VP_INACTIVECHAIN)) {
      chaininsbegin(&context->vpactivechain, &v->activechain);
      v->flags |= VP_INACTIVECHAIN;
    }
    setcontextflag(context, OVCONTEXT_DORENDER | OVCONTEXT_DIRTY);
    memorybarrier();
    atomicstore(&v->drawactive, true);
    movingstart(context, v);
  }
  if (v->juliarealm && !(v->flags & VP_COUNTEDINJULIAREALM)) {
    v->flags |= VP_COUNTEDINJULIAREALM;
    v->juliarealm->activeviewports++;
  }
}

void __deactivateviewport(OVCONTEXT* context, VIEWPORT* v, bool remove) {
  finishalljuliacorrect(context);
  v->priority = 0;
  takedownlist(context, v);
  if (v->flags & VP_IDLE) {
    idlestop(context, v);
  } else if (v->idle_computergroup.ncomputer) {
    freecomputergroup(&v->idle_computergroup);
  }
  if (v->flags & VP_COUNTEDINJULIAREALM) {
    v->flags &= ~VP_COUNTEDINJULIAREALM;
    if (v->juliarealm && --v->juliarealm->activeviewports == 0)
      stopjuliastackcomputation(context, v->juliarealm);
  }
  if (atomicload(&v->drawactive)) {
    memorybarrier();
    atomicstore(&v->drawactive, false);
  }
  if (freedrawlists(context, v)) releaselistschemes(context, v);
  if (remove && (v->flags & VP_INACTIVECHAIN)) {
    chainrem(&v->activechain);
    initchain(&v->activechain);
    v->flags &= ~VP_INACTIVECHAIN;
  }
}

void __detachviewport(OVCONTEXT* context, VIEWPORT* viewport) {
  if (atomicdecrementint(&viewport->count) != 0) return;
  __deactivateviewport(context, viewport, true);
  __removeviewport(context, viewport);
  free(viewport);
}

void __removeviewport(OVCONTEXT* context, VIEWPORT* v) {
  releaseeffectivetops(context, v);
  // The other list may still hold entries of an interrupted build.
  for (int i = 0; i < 2; i++) {
    for (int n = 0; n < v->iviewportarea[i]; n++) {
      chainrem(&v->viewportarea[i][n].chain);
      setpriorityarea(context, v->viewportarea[i][n].a);
    }
    v->iviewportarea[i] = 0;
  }
  if (v->idle_computergroup.ncomputer) freecomputergroup(&v->idle_computergroup);
  if (v->juliarealm && v->juliarealm->generalviewport == v) v->juliarealm->generalviewport = nullptr;
  releasescheme(context, v->activescheme);
  v->activescheme = nullptr;
  releaselistschemes(context, v);
  detache(context, v->enonsat);
  detache(context, v->sat_e);
  detachhpv(context, v->info.c);
  detachhpv(context, v->delta);
  v->delta = nullptr;
  __detachrealm(context, v->realm);
  if (v->juliarealm) __detachrealm(context, v->juliarealm);
  while (!chainempty(&v->echain)) {
    ENVIRONMENT* e = CHAINRECORD(v->echain.next, ENVIRONMENT, chain);
    chainrem(&e->chain);
    initchain(&e->chain);
    detache(context, e);
  }
  formpf(v, [](mpf_ptr m) { mpf_clear(m); });
}

// ---------------------------------------------------------------- display side

void unlocklist(OVCONTEXT* context, VIEWPORT* viewport) {
  unlockdrawlists(viewport);
  if (!atomicload(&viewport->drawactive)) send(context, viewport, worker_unlocklist, 0);
}

void worker_unlocklist(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  if (!atomicload(&worker->stop) && !atomicload(&v->drawactive) && freedrawlists(context, v))
    releaselistschemes(context, v);
  __detachviewport(context, v);
  freeworker(context, worker);
}

// ---------------------------------------------------------------- environments, marks

void recalcenv(OVCONTEXT* context, VIEWPORT* viewport) {
  send(context, viewport, worker_recalc_env, 0);
}

void worker_recalc_env(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  if (!atomicload(&worker->stop)) {
    if (v->flags & VP_IDLE) {
      idlestop(context, v);
    } else {
      v->flags |= VP_MUSTDOLOOP;
      movingstart(context, v);
    }
  }
  __detachviewport(context, v);
  freeworker(context, worker);
}

void mark(OVCONTEXT* context, VIEWPORT* viewport, const complexd* c) {
  WORKER* w = viewportmessage(context, viewport, worker_mark);
  if (!w) return;
  spinlocklock(&viewport->nav_spdelta);
  complexd p = viewport->nav_delta + *c / viewport->nav_zoom;
  spinlockunlock(&viewport->nav_spdelta);
  w->hdata[0] = cHFd(p);
  dispatch(context, w);
}

void worker_mark(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  if (!atomicload(&worker->stop) && v->delta) {
    HFLOATCOMPLEX p = cdivHF(worker->hdata[0], v->zoom);
    AREA* found = nullptr;
    int x = 0, y = 0;
    for (int k = 0; k < v->ieffectivetop && !found; k++) {
      AREA* t = v->effectivetop[k];
      found = areaatpt(context, v, t, relativecorner(v, t->hpvalue), p, &x, &y);
    }
    AREA* top = v->realm->top;
    if (!v->ieffectivetop && top && top->hpvalue)
      found = areaatpt(context, v, top, relativecorner(v, top->hpvalue), p, &x, &y);
    if (found) {
      v->marked = found;
      v->markedx = x;
      v->markedy = y;
      int i = y * TEXTURESIZE + x;
      i = i < 0 ? 0 : i > 0xffff ? 0xffff : i;
      const TEXTURE* t0 = found->texture[0];
      const TEXTURE* t3 = found->texture[3];
      if (t0 && t0->pixels)
        v->siter = static_cast<ITER>(static_cast<const float*>(t0->pixels)[i] * 1073741824.0);
      else if (t3 && t3->pixels)
        v->siter = static_cast<ITER>(static_cast<const float*>(t3->pixels)[i]);
      v->smod = v->realm->type == JULIA ? v->realm->njuliastack : 0;
    }
    composestrings(context, v);
  }
  __detachviewport(context, v);
  freeworker(context, worker);
}

// ---------------------------------------------------------------- the status line

void composestrings(OVCONTEXT* context, VIEWPORT* viewport) {
  VIEWPORT* v = viewport;
  if (v->flags & VP_MOVING) return;
  v->szoom = dHF(v->zoomabs);
  REALM* r = v->realm;
  unsigned int f = r->flags;
  auto letter = [f](unsigned int bit, char c) { return (f & bit) ? c : ' '; };
  REALM* jr = v->juliarealm;
  char* s = v->s2;
  size_t n = 0;
  int k = snprintf(s, NVIEWPORTSTRING, "%c%c%c%c%c%c%c%c%c%c/%c [%i] (jst: %i/%i) %i - ",
                   letter(R_STATUSM, 'M'), letter(R_SUPERINTERPOL, 'S'), letter(R_SPLITMUL, 'L'),
                   letter(R_GLOBALINTERPOL, 'G'),
                   hascontextflag(context, OVCONTEXT_NO_GLTHREAD) ? 'C' : ' ',
                   letter(R_INTERPOL, 'I'), letter(R_HPCORRECT, 'H'), letter(R_JULIACORRECT, 'J'),
                   letter(R_NOINTERIOR, 'F'), letter(R_BYPASS, 'B'), formatletter(f),
                   (v->flags & VP_IDLE) ? static_cast<int>(v->idle_iter) : 0,
                   jr ? static_cast<int>(jr->readyjuliastack) : 0, jr ? jr->validjuliastack : 0,
                   v->direction);
  n = k > 0 ? static_cast<size_t>(k) : 0;
  if (r->type == GENERAL) {
    for (CHAIN* l = v->echain.next; l != &v->echain; l = l->next) {
      ENVIRONMENT* e = CHAINRECORD(l, ENVIRONMENT, chain);
      append(s, &n, e == v->esat ? " [%i]" : " %i", static_cast<int>(e->n));
    }
    if (v->enonsat) append(s, &n, " | %i", static_cast<int>(v->enonsat->n));
    else append(s, &n, " | INVALID", 0);
    append(s, &n, " (prec:%i)", v->precsat + r->precoffset);
    append(s, &n, " IIter: %i", v->info.interpoliter);
    append(s, &n, " nav-satiter: %i", v->nav_satiter);
  } else if (r->type == JULIA) {
    append(s, &n, "Prec: %i", v->precsat);
    append(s, &n, " N: %i", v->enonsat ? static_cast<int>(v->enonsat->n) : -1);
  }
}
