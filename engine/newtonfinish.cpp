// A candidate of the idle search on its way through Newton: its environment
// and run are made on the main thread, and a converged point with its series
// is accepted into the view's `echain`.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "idle.h"
#include "refiter.h"

namespace {

VIEWPORT* ownerof(ENVIRONMENT* e) { return e ? e->owner : nullptr; }

// A view that moved on no longer wants the candidates of its old centre.
bool ownerstops(ENVIRONMENT* e) {
  VIEWPORT* v = ownerof(e);
  return v && ((v->flags & VP_IDLESTOP) || v->priority == 0);
}

// A run given up: its activity ends here (the environment goes after this);
// a converged one ends in `worker_newtonfinish`.
void ownerends(OVCONTEXT* context, ENVIRONMENT* e, bool converged) {
  VIEWPORT* v = ownerof(e);
  if (converged || !v) return;
  e->owner = nullptr;
  idlenewtonended(context, v);
}

// Arrays for the candidate's orbit of `n` + 1 points.
bool allocateorbit(OVCONTEXT* context, ENVIRONMENT* e, ITER n) {
  size_t k = static_cast<size_t>(n) + 1;
  e->refdatah = static_cast<REFDATAH*>(calloc(k, sizeof(REFDATAH)));
  e->refdatad = static_cast<REFDATAD*>(calloc(k, sizeof(REFDATAD)));
  if (!e->refdatah || !e->refdatad) return false;
  e->nrefdata = static_cast<int>(k);
  __atomic_add_fetch(&context->mem_envrefdata, int64_t(64) * int64_t(k), __ATOMIC_SEQ_CST);
  return true;
}

bool addcheckpoints(OVCONTEXT* context, ENVIRONMENT* e, ITER n) {
  int m = static_cast<int>(n >> 16);
  for (int i = 0; i < m && i < NENVHPV; i++) {
    e->hpv[i] = addhpv(context, e->precision);
    if (!e->hpv[i]) return false;
    e->nhpv = i + 1;
  }
  return true;
}

void startnewton(OVCONTEXT* context, VIEWPORT* v, ENVIRONMENT* e, int due) {
  COMPUTERGROUP* g = &e->computergroup;
  initcomputergroup(context, g, NCOMPUTER_ENV, e->precision);
  g->pdata[0] = e;
  g->prec = e->precision / 3;
  computergroupsetrawprecision(g);
  e->task = __addtask(context, TASKTYPE_NEWTON, due + 1);
  mpf_set(g->data[0], e->c->v[0]);
  mpf_set(g->data[1], e->c->v[1]);
  g->idata[2] = NEWTONSTEPS;
  g->hdata[0][0] = CONEH;
  setupnewtoncomputergroup(context, g, (v->realm->flags & R_SPLITMUL) != 0);
}

}  // namespace

void worker_env_investigate(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  IDLECANDIDATE* cand = static_cast<IDLECANDIDATE*>(worker->pdata[1]);
  ITER n = worker->idata[0];
  int due = worker->idata[1];
  freeworker(context, worker);
  newtonstophook = ownerstops;
  newtonendhook = ownerends;
  ENVIRONMENT* e = adde(context, cand->c[0], cand->c[1], 3 * v->precision);
  mpf_clear(cand->c[0]);
  mpf_clear(cand->c[1]);
  free(cand);
  if (!e) {
    idlenewtonended(context, v);
    return;
  }
  e->flags |= E_PERIODIC;
  e->n = static_cast<UITER>(n);
  if (!allocateorbit(context, e, n) || !addcheckpoints(context, e, n)) {
    fputs("idlestep: malloc failed.\n", stderr);
    detache(context, e);
    idlenewtonended(context, v);
    return;
  }
  e->owner = v;
  startnewton(context, v, e, due);
}

void worker_newtonfinish(OVCONTEXT* context, WORKER* worker) {
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(worker->pdata[0]);
  VIEWPORT* v = ownerof(e);
  if (v && (v->flags & VP_MOVING)) {
    parkonmove(v, worker);
    return;
  }
  freeworker(context, worker);
  if (!e) return;
  e->cf = cHF(mpf_get_HF(e->c->v[0]), mpf_get_HF(e->c->v[1]));
  if (e->task) __removetask(context, e->task);
  e->task = nullptr;
  e->owner = nullptr;
  if (!v) {
    detache(context, e);
    return;
  }
  if (!v->delta) {
    detache(context, e);
    idlenewtonended(context, v);
    return;
  }
  mpf_srcptr x = v->idle_delta ? v->idle_delta->v[0] : v->delta->v[0];
  mpf_srcptr y = v->idle_delta ? v->idle_delta->v[1] : v->delta->v[1];
  HFLOATCOMPLEX region = cmulHF2(v->zoom, HFd(1.0 / (v->big > 0 ? v->big : 1.0)));
  bool valid = isenvironmentvalid(v->dummy[0], e, v->delta->v[0], v->delta->v[1], v->zoom);
  // A view inside an atom far from its nucleus, beyond its series' reach
  // (the bulb of period 21 on the cardioid is 3e-4 across, its series
  // reaches 1e-4): the atom still serves it without the series, its
  // canvases iterating each point and finding the period there. Kept with
  // the series, it would be dropped here, and a deep view inside the bulb
  // stayed unknown over the standard environment.
  if (!valid && (e->flags & E_SERIES) && atomholdsview(e, v->delta->v[0], v->delta->v[1], region)) {
    e->flags &= ~E_SERIES;
    valid = true;
  }
  if (!valid) {
    detache(context, e);
  } else {
    // A shallow atom that holds the whole view serves it too (`envloop`
    // takes it): the view is scanned and drawn again when the run is over.
    if (checkenvironment(v->dummy[0], e, x, y, v->zoom, v->resolution) >= 0 ||
        environmentholdsview(e, x, y, region))
      v->idle_newenv = true;
    // A point that serves no view now may serve one later: it stays known.
    insertenvironment(v, e);
  }
  idlenewtonended(context, v);
}
