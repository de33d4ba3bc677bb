// juliafollow.cpp: the Julia realm of a general view takes the view's
// centre as its seed on demand, keeping the stack levels that still hold the
// new seed and dropping the others.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "bypass.h"
#include "canvas/series.h"
#include "idle.h"
#include "juliastack.h"
#include "refiter.h"

namespace {

constexpr ITER NOLIMIT = 0x7FFFFFFF;

bool stopping(OVCONTEXT* context) { return atomicload(&context->grmain.stop); }

// The levels from 0 whose radius around their own point holds m.
int levelsholding(REALM* realm, const HPVALUE* m) {
  int last = -1;
  for (int s = 0; s < realm->njuliastack; s++) {
    JULIASTACKDATA* L = &realm->juliastack[s];
    if (L->r.mantissa == 0) break;
    if (!L->m) {
      fputs("MSG_JULIA: jstd->m==NULL\n", stderr);
      break;
    }
    if (!radtest_hfloat(nullptr, L->m->v, m->v, L->r)) break;
    last = s;
  }
  return last;
}

// The point's run against the view's environment, finished through the
// levels that are ready.
void runpoint(OVCONTEXT* context, VIEWPORT* v, REALM* jr, ENVIRONMENT* e, int prec, HPVALUE* c,
              HFLOATCOMPLEX zoom) {
  detachhpv(context, jr->info.c);
  memset(&jr->info, 0, sizeof jr->info);
  jr->info.c = c;
  jr->info.zoom = zoom;
  HFLOAT zabs = cabsHF(zoom);
  double w = (zabs.mantissa ? log2HF(zabs) : 0.0) + std::log2(static_cast<double>(v->resolution));
  int depth = -static_cast<int>(std::floor(w));
  // Only ready levels may be read by a lookup.
  int level = std::min(jr->validjuliastack, static_cast<int>(atomicload(&jr->readyjuliastack)));
  calciterenvironmentex(context, depth, e, prec, NOLIMIT, &jr->info, jr, level, 4.0 * v->resolution,
                        0, nullptr, 0, v->maxcalcdepth + depth + 5);
  if (jr->info.lookup) juliastacklookupex(context, jr, level, &jr->info);
}

// The views showing the realm drop their standard environment, which
// belonged to the old seed, and are filed again.
void refreshviews(OVCONTEXT* context, REALM* jr) {
  for (CHAIN* l = context->vpactivechain.next; l != &context->vpactivechain;) {
    VIEWPORT* w = activeviewport(l);
    l = l->next;
    if (w->realm != jr) continue;
    detache(context, w->enonsat);
    w->enonsat = nullptr;
    invalidate(context, w);
  }
}

void endmessage(OVCONTEXT* context, VIEWPORT* v, WORKER* worker) {
  __detachviewport(context, v);
  freeworker(context, worker);
}

}  // namespace

void julia(OVCONTEXT* context, VIEWPORT* viewport) {
  if (stopping(context)) return;
  WORKER* w = addworker(context, THREAD_MAIN, worker_julia);
  if (!w) return;
  attachviewport(viewport);
  w->pdata[0] = viewport;
  dispatch(context, w);
}

void worker_julia(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  if (atomicload(&worker->stop)) {
    endmessage(context, v, worker);
    return;
  }
  REALM* jr = v->juliarealm;
  if (jr) jr->flags |= R_LOCKJULIAPOINT;
  if ((v->flags & VP_IDLE) && !(v->flags & VP_MUSTWAITFORIDLE)) idlestop(context, v);
  if ((v->flags & (VP_IDLE | VP_MOVING)) || !(v->esat || v->enonsat)) {
    // The end of the idle run or of the move starts a scan, whose end runs
    // the parked messages.
    parkonmove(v, worker);
    return;
  }
  if (jr && v->delta) __julia(context, v, v->delta, v->zoom);
  endmessage(context, v, worker);
}

void __julia(OVCONTEXT* context, VIEWPORT* viewport, const HPVALUE* m, HFLOATCOMPLEX zoom) {
  VIEWPORT* v = viewport;
  REALM* jr = v->juliarealm;
  if (!jr || !m) return;
  ENVIRONMENT* e = v->esat ? v->esat : v->enonsat;
  if (!e) return;
  int prec = v->esat ? v->precsat : -1;
  HPVALUE* c = addhpv(context, mpf_get_prec(m->v[0]));
  if (!c) return;
  mpf_set(c->v[0], m->v[0]);
  mpf_set(c->v[1], m->v[1]);
  // Dropping levels must not meet a correction in progress.
  finishalljuliacorrect(context);
  runpoint(context, v, jr, e, prec, c, zoom);
  jr->neededjuliastack = juliastackneeded(&jr->info);
  jr->computecycle++;
  if (jr->juliastack) {
    int last = levelsholding(jr, c);
    adjustjuliastack(context, jr, last, true);
    jr->maxjuliastack = last;
  }
  setrealmenv(context, jr, e);
  refreshviews(context, jr);
}

void setrealmenv(OVCONTEXT* context, REALM* jr, ENVIRONMENT* e) {
  if (jr->e == e) return;
  if (e) attache(e);
  detache(context, jr->e);
  jr->e = e;
}
