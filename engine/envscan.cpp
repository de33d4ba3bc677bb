// The environments' scan after a move: the deepest known periodic point that
// serves the new position becomes `esat`, checked by a run of the view's
// centre against it on a worker; without one the standard environment
// `enonsat` serves. The scan ends in `movingfinish`, which starts the next
// idle run and draws the view.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "idle.h"
#include "juliastack.h"
#include "satellite.h"
#include "refiter.h"

namespace {

constexpr ITER UNBOUNDED = 0x3FFFFFFF;
// A Julia view's pixels in bits below its centre's size beyond which their
// places, rounded to a double, no longer tell them apart.
constexpr double JULIAABSOLUTEBITS = 48;
constexpr unsigned int R_NOLOOP = 0x2000;
// The series depth given a periodic environment that holds the view: its
// canvases iterate directly and read no series; the least depth callers use.
constexpr int HELDSERIES = 4;

int viewdepth(const VIEWPORT* v) {
  double L = v->zoomabs.mantissa ? log2HF(v->zoomabs) : 0;
  return -static_cast<int>(std::floor(L + std::log2(static_cast<double>(v->resolution))));
}

double bigof(const VIEWPORT* v) { return v->big > 0 ? v->big : 1.0; }

void clearinfo(OVCONTEXT* context, ITERINFO* info) {
  detachhpv(context, info->c);
  memset(info, 0, sizeof *info);
}

// The run of the view's centre against e, on a worker at priority 3.
void postrun(OVCONTEXT* context, VIEWPORT* v, ENVIRONMENT* e, int prec) {
  WORKER* w = addworker(context, THREAD_WORKER, worker_calciterenvironmentex);
  ITERINFO* info = static_cast<ITERINFO*>(calloc(1, sizeof(ITERINFO)));
  if (!w || !info) {
    if (w) freeworker(context, w);
    free(info);
    movingfinish(context, v);
    return;
  }
  attachviewport(v);
  attache(e);
  attachhpv(v->delta);
  info->c = v->delta;
  info->zoom = v->zoom;
  REALM* jr = v->juliarealm;
  int depth = viewdepth(v);
  w->pdata[0] = v;
  w->pdata[1] = e;
  w->pdata[2] = info;
  w->pdata[3] = jr;
  if (jr) attachrealm(jr);
  w->idata[0] = depth;
  w->idata[1] = prec;
  w->idata[2] = jr ? std::min(jr->validjuliastack, static_cast<int>(jr->readyjuliastack)) : -1;
  w->idata[3] = v->idle_maxiter > 0 ? v->idle_maxiter : UNBOUNDED;
  w->idata[4] = v->maxcalcdepth + depth + 5;
  w->hdata[0] = cHF(HFd(2.0 * bigof(v) * v->resolution), ZEROH);
  w->prio = 3;
  dispatch(context, w);
}

void worker_iterinfo(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(worker->pdata[1]);
  ITERINFO* info = static_cast<ITERINFO*>(worker->pdata[2]);
  REALM* jr = static_cast<REALM*>(worker->pdata[3]);
  int prec = worker->idata[1];
  bool stopped = atomicload(&worker->stop);
  freeworker(context, worker);
  if (!stopped && (v->flags & VP_MOVING))
    investigateenvironment(context, v, e, info, prec);
  else if (v->flags & VP_MOVING)
    movingfinish(context, v);
  clearinfo(context, info);
  free(info);
  detache(context, e);
  if (jr) __detachrealm(context, jr);
  __detachviewport(context, v);
}

void accept(OVCONTEXT* context, VIEWPORT* v, ENVIRONMENT* e, const ITERINFO* info) {
  clearinfo(context, &v->info);
  v->info = *info;
  if (v->info.c) attachhpv(v->info.c);
  // The run is kept with the environment, so that a scan at the same place
  // and scale takes it without running again.
  clearinfo(context, &e->provisional);
  e->provisional = *info;
  if (e->provisional.c) attachhpv(e->provisional.c);
}

bool sameplace(const VIEWPORT* v, const ITERINFO* p) {
  if (!p->c || p->c != v->delta) return false;
  return ilogbHF(cabsHF(p->zoom)) == ilogbHF(v->zoomabs);
}

// The budgets of the next idle runs from a run's outcome.
void budgets(VIEWPORT* v, const ITERINFO* info) {
  if (v->flags & VP_IDLE) return;
  if (info->iter < 0) {
    v->idle_expectediter = -info->iter;
    v->idle_maxiter = -2 * info->iter;
  } else if (info->iter > 0) {
    v->idle_expectediter = info->iter;
    v->idle_maxiter = 2 * info->iter;
  } else if (v->idle_maxiter < UNBOUNDED) {
    v->idle_maxiter = 2 * v->idle_maxiter;
  }
}

// Without `esat`: the fallback, or the standard environment if it still holds.
void usestandard(OVCONTEXT* context, VIEWPORT* v) {
  if (v->mov_emergency) {
    v->esat = v->mov_emergency;
    v->precsat = v->mov_emergencyprec;
    clearinfo(context, &v->info);
    v->info = v->mov_emergencyinfo;
    if (v->info.c) attachhpv(v->info.c);
    movingfinish(context, v);
    return;
  }
  ENVIRONMENT* s = v->enonsat;
  if (s && ((v->flags & VP_LOCK) ||
            isenvironmentvalid(v->dummy[0], s, v->delta->v[0], v->delta->v[1],
                               cmulHF2(v->zoom, HFd(1.0 / bigof(v)))))) {
    postrun(context, v, s, -1);
    return;
  }
  if (s) {
    detache(context, s);
    v->enonsat = nullptr;
  }
  movingfinish(context, v);
}

}  // namespace

void worker_calciterenvironmentex(OVCONTEXT* context, WORKER* worker) {
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(worker->pdata[1]);
  ITERINFO* info = static_cast<ITERINFO*>(worker->pdata[2]);
  REALM* jr = static_cast<REALM*>(worker->pdata[3]);
  if (!atomicload(&worker->stop))
    calciterenvironmentex(context, worker->idata[0], e, worker->idata[1], worker->idata[3], info,
                          jr, worker->idata[2], dHF(crealHF(worker->hdata[0])), 0, nullptr, 0,
                          worker->idata[4]);
  worker->recipient = THREAD_MAIN;
  worker->workerproc = worker_iterinfo;
  dispatch(context, worker);
}

// An observer installed in `idlehooks.movingstart` takes the place of the
// scan (the flows' own tests count moves with it).
void movingstart(OVCONTEXT* context, VIEWPORT* viewport) {
  VIEWPORT* v = viewport;
  if (idlehooks.movingstart) {
    idlehooks.movingstart(context, v);
    return;
  }
  v->flags |= VP_DONOTDRAW;
  if (v->flags & VP_MOVING) return;
  // The run's centre is no longer the view's: it ends at its next stretch,
  // unless the view waits for it.
  // A Julia view waits for the run of its own centre only: moved, it
  // starts another.
  if (v->realm->type == JULIA) v->flags &= ~VP_MUSTWAITFORIDLE;
  if ((v->flags & VP_IDLE) && !(v->flags & VP_MUSTWAITFORIDLE)) idlestop(context, v);
  if (v->realm->type != GENERAL || v->priority == 0 || !v->delta) {
    movingfinish(context, v);
    return;
  }
  v->flags |= VP_MOVING;
  clearinfo(context, &v->info);
  v->mov_emergency = nullptr;
  clearinfo(context, &v->mov_emergencyinfo);
  v->mov_emergencyprec = -1;
  v->mov_chain = &v->echain;
  if (!(v->flags & VP_IDLE)) {
    if (v->idle_maxiter == 0)
      v->idle_maxiter = 0x7FFFFFFF;
    else if (v->idle_maxiter < UNBOUNDED)
      v->idle_maxiter = 2 * v->idle_maxiter;
  }
  envloop(context, v);
}

void envloop(OVCONTEXT* context, VIEWPORT* viewport) {
  VIEWPORT* v = viewport;
  double big = bigof(v);
  while (v->mov_chain->prev != &v->echain) {
    CHAIN* l = v->mov_chain->prev;
    ENVIRONMENT* e = CHAINRECORD(l, ENVIRONMENT, chain);
    int r = checkenvironment(v->dummy[0], e, v->delta->v[0], v->delta->v[1],
                             cmulHF2(v->zoom, HFd(4.0 / big)), big * 0.25 * v->resolution);
    // An atom too wide for its series to help, or whose series does not
    // reach, still serves a view that lies wholly inside its component: its
    // canvases iterate directly and prove every corner interior, where over
    // the standard environment the pixels stay unknown.
    if (r < 0 && environmentholdsview(e, v->delta->v[0], v->delta->v[1],
                                      cmulHF2(v->zoom, HFd(1.0 / big))))
      r = HELDSERIES;
    if (r >= 0) {
      v->esat = e;
      v->precsat = std::max(r, 4);
      v->mov_chain = l;
      if (sameplace(v, &e->provisional)) {
        ITERINFO copy = e->provisional;
        if (copy.c) attachhpv(copy.c);
        investigateenvironment(context, v, e, &copy, v->precsat);
        detachhpv(context, copy.c);
      } else {
        postrun(context, v, e, v->precsat);
      }
      return;
    }
    if (v->esat == e) v->esat = nullptr;
    // An idle run still in flight may stand on the element: it goes at the
    // next scan, when the run is over.
    if (!(v->flags & (VP_LOCK | VP_IDLE)) &&
        !isenvironmentvalid(v->dummy[0], e, v->delta->v[0], v->delta->v[1],
                            cmulHF2(v->zoom, HFd(1.0 / big)))) {
      chainrem(l);
      detache(context, e);
      continue;
    }
    v->mov_chain = l;
  }
  if (!v->esat) {
    usestandard(context, v);
    return;
  }
  startsatellites(context, v);
  movingfinish(context, v);
}

void investigateenvironment(OVCONTEXT* context, VIEWPORT* viewport, ENVIRONMENT* e,
                            ITERINFO* info, int prec) {
  VIEWPORT* v = viewport;
  if (!(e->flags & E_PERIODIC)) {
    // The standard environment's run: it serves as it is.
    budgets(v, info);
    v->precsat = prec;
    accept(context, v, e, info);
    movingfinish(context, v);
    return;
  }
  if (!v->priority) {
    movingfinish(context, v);
    return;
  }
  budgets(v, info);
  if (info->iter < 0 || !info->precisionfailure) {
    HFLOAT reach = divHF(HFd(bigof(v)), v->zoomabs);
    bool outside = info->iter >= 0 && lessHF(reach, info->d) && lessHF(reach, e->r2);
    if (outside) {
      // The view lies outside the atom: e only serves when nothing deeper
      // in the chain does.
      v->esat = nullptr;
      v->mov_emergency = e;
      v->mov_emergencyprec = prec;
      clearinfo(context, &v->mov_emergencyinfo);
      v->mov_emergencyinfo = *info;
      if (info->c) attachhpv(info->c);
      envloop(context, v);
      return;
    }
    accept(context, v, e, info);
    movingfinish(context, v);
    return;
  }
  v->esat = nullptr;
  usestandard(context, v);
}

void movingfinish(OVCONTEXT* context, VIEWPORT* viewport) {
  VIEWPORT* v = viewport;
  finishalljuliacorrect(context);
  REALM* jr = v->juliarealm;
  if (v->realm->type == GENERAL) {
    bool brake;
    if (v->info.iter != 0 && ilogbHF(v->info.distm) + 1 > 1 - (ilogbHF(v->zoomabs) + 1)) {
      brake = true;
      if (!(v->flags & VP_IDLE) && !v->esat && !(jr && (jr->flags & R_NOLOOP)))
        v->flags |= VP_MUSTDOLOOP;
    } else {
      brake = !(v->enonsat || v->esat);
    }
    v->nav_brake = brake;
    if (jr) idlejulia(context, v);
    v->idle_newenv = false;
    if (v->esat && v->esat->c) {
      for (int k = 0; k < 2; k++) {
        mpf_set_prec(v->mp[k], mpf_get_prec(v->esat->c->v[k]));
        mpf_set(v->mp[k], v->esat->c->v[k]);
      }
      v->r[0] = static_cast<float>(dHF(v->esat->r1));
    }
    if ((v->flags & VP_MUSTDOLOOP) && !(v->flags & VP_IDLE)) {
      v->flags &= ~VP_MUSTDOLOOP;
      if (jr) adjustjuliastack(context, jr, v->idle_jst0 - 1, true);
    }
    // Without any environment the view's areas have nothing to compute
    // against: it waits for the idle run rather than complete empty.
    if (!v->esat && !v->enonsat && v->priority) v->flags |= VP_MUSTWAITFORIDLE;
    idlestart(context, v);
  } else {
    v->flags &= ~VP_MUSTDOLOOP;  // no idle run of its own to wait for
  }
  if (v->realm->type == JULIA) {
    if (v->computecycle != v->realm->computecycle) {
      // A new cycle of the realm: what was known of the old one goes.
      detache(context, v->enonsat);
      v->enonsat = nullptr;
      v->idle_maxiter = 0;
    } else if (v->enonsat) {
      int r = juliastandardprec(v, v->enonsat);
      if (r >= 0) {
        v->precsat = r + 1;
        if (r > 5) v->flags |= VP_MUSTDOLOOP;
      } else {
        detache(context, v->enonsat);
        v->enonsat = nullptr;
      }
    }
    v->computecycle = v->realm->computecycle;
    // A centre far out from 0 at this scale: the view's own orbit is worth
    // a reference.
    if (v->delta && v->zoomabs.mantissa) {
      HFLOAT far = mulHF(cabsHF(cHF(mpf_get_HF(v->delta->v[0]), mpf_get_HF(v->delta->v[1]))),
                         v->zoomabs);
      if (far.mantissa && ilogbHF(far) + 1 > 7) idlestart(context, v);
      // Finer than a double resolves at the centre, the tiles' start points
      // are deviations of that orbit: without it they would all start at
      // one rounded place, and the view waits for the run instead.
      double bits = far.mantissa ? ilogbHF(far) + 1 + std::log2(double(v->resolution)) : 0;
      if ((v->flags & VP_IDLE) && !v->enonsat && bits > JULIAABSOLUTEBITS)
        v->flags |= VP_MUSTWAITFORIDLE;
    }
  }
  v->computecycle = v->realm->computecycle;
  finishmoving(context, v);
}
