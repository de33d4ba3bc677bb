// The idle run of a general view: its start, its stretches and its end. The
// orbit of the view's centre runs on the view's idle graph; what it finds is
// handed on by `idlestep` (idlestep.cpp) and taken over here when the run is
// over.
#include "idle.h"
#include "juliastack.h"
#include "bypass.h"
#include "satellite.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "refiter.h"

namespace {

// A run without a budget of its own would go on for ever at an interior
// centre; it gets a number of iterations that grows with the view's depth,
// since deeper views need longer orbits.
constexpr ITER IDLEBUDGETBASE = 16384;
constexpr ITER IDLEBUDGETPERBIT = 256;
constexpr ITER UNBOUNDED = 0x3FFFFFFF;

int zoomexp(HFLOAT zoomabs) {
  return zoomabs.mantissa ? static_cast<int>(std::floor(log2HF(zoomabs))) : 0;
}

bool allocatestandard(OVCONTEXT* context, ENVIRONMENT* s) {
  s->refdatah = static_cast<REFDATAH*>(malloc(size_t(NIDLEREFDATA) * sizeof(REFDATAH)));
  s->refdatad = static_cast<REFDATAD*>(malloc(size_t(NIDLEREFDATA) * sizeof(REFDATAD)));
  if (!s->refdatah || !s->refdatad) {
    free(s->refdatah);
    free(s->refdatad);
    s->refdatah = nullptr;
    s->refdatad = nullptr;
    return false;
  }
  s->nrefdata = NIDLEREFDATA;
  __atomic_add_fetch(&context->mem_envrefdata,
                     int64_t(NIDLEREFDATA) * int64_t(sizeof(REFDATAH) + sizeof(REFDATAD)),
                     __ATOMIC_SEQ_CST);
  return true;
}

void postfinish(OVCONTEXT* context, VIEWPORT* v) {
  WORKER* w = addworker(context, THREAD_MAIN, worker_idlefinish);
  if (!w) return;
  attachviewport(v);
  w->pdata[0] = v;
  dispatch(context, w);
}

// The smallest period already known near the view: its multiples are that
// same point again, and no candidate is made for them.
ITER knownperiod(VIEWPORT* v) {
  ITER best = -1;
  HFLOAT reach = divHF(HFd(4.0), v->zoomabs);
  for (CHAIN* l = v->echain.next; l != &v->echain; l = l->next) {
    ENVIRONMENT* e = CHAINRECORD(l, ENVIRONMENT, chain);
    if (!e->c || e->n < 1) continue;
    mpf_sub(v->dummy[0], e->c->v[0], v->delta->v[0]);
    mpf_sub(v->dummy[1], e->c->v[1], v->delta->v[1]);
    HFLOATCOMPLEX d = cHF(mpf_get_HF(v->dummy[0]), mpf_get_HF(v->dummy[1]));
    if (dHF(subHF(cabsHF(d), reach)) >= 0) continue;
    if (best < 0 || static_cast<ITER>(e->n) < best) best = static_cast<ITER>(e->n);
  }
  return best;
}

void startgeneral(OVCONTEXT* context, VIEWPORT* v) {
  REALM* jr = v->juliarealm;
  idleinstallhooks();
  v->flags &= ~VP_IDLEPAUSE;
  v->flags |= VP_IDLE;
  if (jr) jr->flags |= R_IDLE;
  if (ENVIRONMENT* s = v->esat ? v->esat : v->enonsat) s->flags &= ~E_STACKED;
  v->idle_nextenviter = -1;
  v->idle_chain = v->echain.next;
  if (v->echain.next != &v->echain)
    v->idle_nextenviter = static_cast<ITER>(CHAINRECORD(v->echain.next, ENVIRONMENT, chain)->n);
  attachhpv(v->delta);
  v->idle_delta = v->delta;
  v->idle_zoom = v->zoom;
  v->idle_n0 = knownperiod(v);
  v->idle_iter = 0;
  v->idle_oldvalue = CZEROH;
  v->idle_pause = 0;
  v->idle_newenv = false;
  v->idle_ncalculating = 1;
  v->idle_jst = v->idle_jst1 = v->idle_jst0 = 0;

  ENVIRONMENT* s = adde(context, v->delta->v[0], v->delta->v[1], v->precision);
  if (s) s->owner = v;
  if (!s || !allocatestandard(context, s)) {
    fputs("idlestart: malloc failed.\n", stderr);
    if (s) detache(context, s);
    v->idle_standard = nullptr;
    v->flags |= VP_IDLESTOP;
    v->idle_ncalculating = 1;
    attachviewport(v);  // the orbit's reference, which its end gives back
    idleactivityended(context, v);
    return;
  }
  v->idle_standard = s;

  COMPUTERGROUP* g = &v->idle_computergroup;
  mp_bitcnt_t bits = (v->precision & ~mp_bitcnt_t(31)) + 32;
  if (!g->ncomputer)
    initcomputergroup(context, g, NCOMPUTER_ENV, bits);
  else
    resetcomputergroup(context, g, bits);
  g->pdata[0] = v;
  g->pdata[COMPUTER_IDLESTANDARD] = s;
  mpf_set(g->data[0], v->idle_delta->v[0]);
  mpf_set(g->data[1], v->idle_delta->v[1]);
  v->idle_task = __addtask(context, TASKTYPE_ITER, v->idle_expectediter / NCOMPUTERSTRETCH);
  g->pdata[COMPUTER_IDLETASK] = v->idle_task;
  g->endcompute = __idleendcompute;
  attachviewport(v);
  setupidlecomputergroup(context, g, (v->realm->flags & R_SPLITMUL) != 0);
}

// The orbit is over: its task goes, and the run ends once no Newton
// candidate is left in work.
void orbitover(OVCONTEXT* context, VIEWPORT* v) {
  if (v->idle_task) __removetask(context, v->idle_task);
  v->idle_task = nullptr;
  v->idle_computergroup.pdata[COMPUTER_IDLETASK] = nullptr;
  idleactivityended(context, v);
}

}  // namespace

ITER idlebudget(const VIEWPORT* viewport) {
  int L = zoomexp(viewport->idle_delta ? cabsHF(viewport->idle_zoom) : viewport->zoomabs);
  if (L < 0) L = 0;
  int64_t b = int64_t(IDLEBUDGETBASE) + int64_t(IDLEBUDGETPERBIT) * L;
  return static_cast<ITER>(b < UNBOUNDED ? b : UNBOUNDED - 1);
}

void idlestart(OVCONTEXT* context, VIEWPORT* viewport) {
  VIEWPORT* v = viewport;
  if ((v->flags & VP_IDLE) || v->priority == 0 || !v->delta) return;
  if (v->realm->type == GENERAL)
    startgeneral(context, v);
  else if (v->realm->type == JULIA)
    idlestartjulia(context, v);
}

void idlestop(OVCONTEXT* context, VIEWPORT* viewport) {
  VIEWPORT* v = viewport;
  if ((v->flags & VP_IDLE) && v->idle_worker) atomicstore(&v->idle_worker->stop, true);
  if ((v->flags & VP_IDLE) && (v->flags & VP_IDLEPAUSE)) {
    v->flags &= ~VP_IDLEPAUSE;
    v->flags |= VP_IDLESTOP;
    orbitover(context, v);
  }
  v->flags |= VP_IDLESTOP;
}

void __idleendcompute(COMPUTERGROUP* group) {
  OVCONTEXT* context = group->context;
  VIEWPORT* v = static_cast<VIEWPORT*>(group->pdata[0]);
  if (v->flags & VP_IDLESTOP) atomicstore(&group->stop, 1);
  // A run without a budget of its own ends where the view's depth needs
  // no longer orbits: at an interior centre nothing else would end it.
  bool within = v->idle_maxiter >= v->idle_iter &&
                (v->idle_maxiter < UNBOUNDED || v->idle_iter < idlebudget(v));
  if (!atomicload(&group->stop) && within) {
    if (v->idle_pause != 0 && v->idle_iter > v->idle_pause) {
      v->flags |= VP_IDLEPAUSE;  // the end message gave the width back
      return;
    }
    setupidlecomputergroup(context, group, (v->realm->flags & R_SPLITMUL) != 0);
    return;
  }
  orbitover(context, v);
}

void idleresume(OVCONTEXT* context, VIEWPORT* v) {
  if (!(v->flags & VP_IDLE) || !(v->flags & VP_IDLEPAUSE)) return;
  if (v->flags & VP_IDLESTOP) {
    v->flags &= ~VP_IDLEPAUSE;
    orbitover(context, v);
    return;
  }
  if (v->idle_pause != 0 && v->idle_iter > v->idle_pause) return;
  v->flags &= ~VP_IDLEPAUSE;
  setupidlecomputergroup(context, &v->idle_computergroup, (v->realm->flags & R_SPLITMUL) != 0);
}

void idleactivityended(OVCONTEXT* context, VIEWPORT* v) {
  if (__atomic_sub_fetch(&v->idle_ncalculating, 1, __ATOMIC_SEQ_CST) == 0) postfinish(context, v);
  __detachviewport(context, v);
}

void idlenewtonended(OVCONTEXT* context, VIEWPORT* v) {
  int left = __atomic_sub_fetch(&v->idle_ncalculating, 1, __ATOMIC_SEQ_CST);
  // With no candidate left in work the orbit needs no pause any more.
  if (left <= 1) v->idle_pause = 0;
  if (left == 0)
    postfinish(context, v);
  else
    idleresume(context, v);
  __detachviewport(context, v);
}

void parkonmove(VIEWPORT* viewport, WORKER* worker) { workeronchain(&viewport->movemsg, worker); }

void insertenvironment(VIEWPORT* viewport, ENVIRONMENT* e) {
  CHAIN* l = viewport->echain.next;
  while (l != &viewport->echain && CHAINRECORD(l, ENVIRONMENT, chain)->n <= e->n) l = l->next;
  // The idle run's cores walk the chain forwards while this runs: the new
  // element is complete before it is linked in.
  e->chain.next = l;
  e->chain.prev = l->prev;
  __atomic_thread_fence(__ATOMIC_RELEASE);
  l->prev->next = &e->chain;
  l->prev = &e->chain;
}

// ---------------------------------------------------------------- the end of a run

namespace {

// The standard environment takes the orbit's place as `enonsat`, or goes.
void takestandard(OVCONTEXT* context, VIEWPORT* v, bool* gained) {
  ENVIRONMENT* s = v->idle_standard;
  v->idle_standard = nullptr;
  if (!s) return;
  if (v->flags & VP_IDLESTOP) {
    detache(context, s);
    return;
  }
  if (!(v->idle_maxiter > v->idle_iter || !v->enonsat)) {
    detache(context, s);
    return;
  }
  *gained = !v->enonsat && !v->esat;
  s->n = v->idle_iter > 0 ? static_cast<UITER>(v->idle_iter - 1) : 0;
  s->r1 = s->r3 = ZEROH;
  // An escaped orbit keeps the two distances its end measured.
  if (!(s->flags & E_ESCAPED)) s->r2 = s->r4 = ZEROH;
  s->mini = v->idle_jst;
  s->maxi = v->idle_jst + 20;
  s->cf = cHF(mpf_get_HF(s->c->v[0]), mpf_get_HF(s->c->v[1]));
  v->idle_maxiter = static_cast<ITER>(2 * static_cast<int64_t>(s->n) > UNBOUNDED ? UNBOUNDED
                                                                                : 2 * s->n);
  v->idle_expectediter = static_cast<ITER>(s->n);
  detache(context, v->enonsat);
  v->enonsat = s;
}

void clearrun(OVCONTEXT* context, VIEWPORT* v) {
  v->flags &= ~(VP_IDLE | VP_IDLEPAUSE);
  if (v->juliarealm) v->juliarealm->flags &= ~R_IDLE;
  detachhpv(context, v->idle_delta);
  v->idle_delta = nullptr;
}

// The view's own run against its standard environment, at once.
void standardinfo(OVCONTEXT* context, VIEWPORT* v) {
  if (v->idle_newenv || v->esat || !v->enonsat) return;
  if (!isenvironmentvalid(v->dummy[0], v->enonsat, v->delta->v[0], v->delta->v[1], v->zoom)) {
    detache(context, v->enonsat);
    v->enonsat = nullptr;
    return;
  }
  int depth = -static_cast<int>(std::floor(log2HF(v->zoomabs) + std::log2(double(v->resolution))));
  detachhpv(context, v->info.c);
  memset(&v->info, 0, sizeof v->info);
  attachhpv(v->delta);
  v->info.c = v->delta;
  v->info.zoom = v->zoom;
  REALM* jr = v->juliarealm;
  int level = jr ? std::min(jr->validjuliastack, static_cast<int>(jr->readyjuliastack)) : -1;
  calciterenvironmentex(context, depth, v->enonsat, -1, v->idle_maxiter, &v->info, jr, level,
                        4.0 * v->resolution, 0, nullptr, 0, v->maxcalcdepth + depth + 5);
  if (jr && v->info.lookup) juliastacklookupex(context, jr, level, &v->info);
}

}  // namespace

void worker_idlefinish(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  if (v->flags & VP_MOVING) {
    parkonmove(v, worker);
    return;
  }
  finishalljuliacorrect(context);
  if (v->realm->type == GENERAL) {
    bool gained = false;
    // A run that never got its arrays is not tried again at once.
    bool failed = !v->idle_standard;
    takestandard(context, v, &gained);
    clearrun(context, v);
    if (v->delta) standardinfo(context, v);
    startsatellites(context, v);
    REALM* jr = v->juliarealm;
    if (v->flags & VP_IDLESTOP) {
      if (!jr || !(jr->flags & R_LOCKJULIAPOINT)) v->flags |= VP_MUSTDOLOOP;
      v->flags &= ~(VP_IDLESTOP | VP_MUSTWAITFORIDLE);
      if (jr) jr->flags &= ~R_MUSTWAITFORIDLE;
      if (failed)
        finishmoving(context, v);
      else if (v->priority)
        movingstart(context, v);
    } else {
      v->flags |= VP_ADJUSTJULIASTACKAFTERMOVING;
      // A view that had no environment at all waits with its areas for one:
      // it is scanned and drawn again as soon as the run has given it one.
      if ((v->flags & VP_MUSTWAITFORIDLE) || v->idle_newenv || gained) {
        v->flags &= ~VP_MUSTWAITFORIDLE;
        if (jr) jr->flags &= ~R_MUSTWAITFORIDLE;
        v->idle_newenv = false;
        if (v->priority) movingstart(context, v);
      } else if (jr) {
        idlejulia(context, v);
      }
    }
    if (v->priority == 0 && !(v->flags & VP_IDLE) && v->idle_computergroup.ncomputer)
      freecomputergroup(&v->idle_computergroup);
  } else {
    idlefinishjulia(context, v);
  }
  __detachviewport(context, v);
  freeworker(context, worker);
}
