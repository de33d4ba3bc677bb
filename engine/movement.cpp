// Movement: how a change of view travels. A sender writes the step at once to
// the ring of coordinate systems, so that the display can follow at frame
// rate, and sends `worker_move`; the main thread applies the steps exactly
// and in order. While the environments are being set up for one move
// (VP_MOVING), later moves are parked and sent again when it ends.
//
// The ring: step k carries the move's shift and zoom; a point on the screen
// of step k-1 is at (s - coordinatesystem[k]) * zoomsystem[k] on the screen
// of step k. `icoordinatesystem` counts the steps written, `icursystem` the
// steps the engine has applied.
#include <cmath>
#include <cstdio>

#include "Mandelbrot.h"
#include "satellite.h"
#include "juliastack.h"

namespace {

constexpr uint32_t RINGMASK = NCOORDINATESYSTEM - 1;

bool stopped(OVCONTEXT* context) { return atomicload(&context->grmain.stop); }

int zoomexponent(HFLOAT zoomabs) {
  return zoomabs.mantissa ? static_cast<int>(std::trunc(log2HF(zoomabs))) : 0;
}

// A jump whose target the sender can't know leaves the display where it is
// until the engine has applied it.
bool jumps(int flags) {
  return flags & (MOVEVIEWPORT_ZOOMDELTAABSOLUTE | MOVEVIEWPORT_TOSAT | MOVEVIEWPORT_TOSATHALF);
}

void sendmove(OVCONTEXT* context, VIEWPORT* viewport, HFLOATCOMPLEX delta, HFLOATCOMPLEX zoom,
              int w, int h, HFLOATCOMPLEX center, HFLOAT speed, int flags) {
  if (stopped(context)) return;
  spinlocklock(&viewport->nav_spdelta);
  // This move takes over what the navigator has gathered.
  viewport->nav_delta = 0;
  viewport->nav_zoom = 1;
  uint32_t k = __atomic_fetch_add(&viewport->icoordinatesystem, 1u, __ATOMIC_SEQ_CST);
  viewport->coordinatesystem[k & RINGMASK] = jumps(flags) ? CZEROH : delta;
  viewport->zoomsystem[k & RINGMASK] = jumps(flags) ? CONEH : zoom;
  spinlockunlock(&viewport->nav_spdelta);
  WORKER* worker = addworker(context, THREAD_MAIN, worker_move);
  if (!worker) return;
  atomicincrementint(&viewport->imovemsg);
  worker->idata[MOVE_W] = w;
  worker->idata[MOVE_H] = h;
  worker->idata[MOVE_STEP] = static_cast<ITER>(k + 1);
  worker->idata[MOVE_FLAGS] = flags;
  worker->hdata[MOVE_DELTA] = delta;
  worker->hdata[MOVE_ZOOM] = zoom;
  worker->hdata[MOVE_CENTER] = center;
  worker->hdata[MOVE_SPEED] = HFLOATCOMPLEX{speed.mantissa, 0, speed.exponent};
  worker->pdata[0] = viewport;
  attachviewport(viewport);
  dispatch(context, worker);
}

void neutralmove(OVCONTEXT* context, VIEWPORT* viewport, int flags) {
  sendmove(context, viewport, CZEROH, CONEH, -1, -1, CZEROH, ZEROH, flags);
}

// A new exact centre of `precision` bits.
HPVALUE* newdelta(OVCONTEXT* context, mp_bitcnt_t precision) {
  HPVALUE* d = addhpv(context, precision < 64 ? 64 : precision);
  if (!d) fputs("worker_move: no HPVALUE left.\n", stderr);
  return d;
}

void replacedelta(OVCONTEXT* context, VIEWPORT* v, HPVALUE* d) {
  if (!d) return;
  HPVALUE* old = v->delta;
  v->delta = d;
  detachhpv(context, old);
}

void setprecision(mpf_t* numbers, int n, mp_bitcnt_t precision) {
  for (int k = 0; k < n; k++) mpf_set_prec(numbers[k], precision < 64 ? 64 : precision);
}

void setgeometry(VIEWPORT* v, int w, int h) {
  if (w == -1 || w <= 0 || h <= 0) return;
  if (w < h) {
    v->z0 = complexd(-1, -static_cast<double>(h) / w);
    v->z1 = complexd(1, static_cast<double>(h) / w);
    v->resolution = static_cast<unsigned int>(h);
  } else {
    v->z0 = complexd(-static_cast<double>(w) / h, -1);
    v->z1 = complexd(static_cast<double>(w) / h, 1);
    v->resolution = static_cast<unsigned int>(w);
  }
}

void setmodeflags(OVCONTEXT*, VIEWPORT* v, int flags) {
  v->flags &= ~(VP_LOCK | VP_SATELLITES);
  if (flags & MOVEVIEWPORT_LOCK) {
    v->flags |= VP_LOCK;
    if ((v->flags & VP_IDLE) && !(v->flags & VP_MUSTWAITFORIDLE)) v->flags |= VP_IDLESTOP;
  }
  if (flags & MOVEVIEWPORT_SATELLITES) v->flags |= VP_SATELLITES;
  if (flags & MOVEVIEWPORT_STARTZOOMING) v->flags |= VP_STARTZOOMING;
  if (flags & MOVEVIEWPORT_MUSTDOLOOP) {
    v->idle_maxiter = 0x7fffffff;
    if (v->realm->type == GENERAL) {
      v->flags |= VP_MUSTWAITFORIDLE | VP_MUSTDOLOOP;
      if (v->juliarealm) v->juliarealm->flags |= R_MUSTWAITFORIDLE;
    }
  }
}

void moveabsolute(OVCONTEXT* context, VIEWPORT* v, HFLOATCOMPLEX zoom) {
  v->sat_infocopy.n = 0;
  if (WORKER* sw = v->sat_worker) atomicstore(&sw->stop, true);
  v->zoom = zoom;
  v->zoomabs = cabsHF(zoom);
  if (v->flags & VP_LOCK) return;
  v->precision = static_cast<mp_bitcnt_t>(zoomexponent(v->zoomabs) + 64);
  HPVALUE* d = newdelta(context, v->precision);
  if (d) {
    mpf_set(d->v[0], v->moveparam[0]);
    mpf_set(d->v[1], v->moveparam[1]);
  }
  replacedelta(context, v, d);
  setprecision(v->dummy, 2, v->precision);
}

void movetosatellite(OVCONTEXT* context, VIEWPORT* v, int flags) {
  bool julia = v->realm->type == JULIA;
  HFLOATCOMPLEX target = CZEROH;
  HPVALUE* point = nullptr;
  if (!(julia ? v->realm->e : v->esat) || !satellitetarget(context, v, &target, &point))
    return;
  if (flags & MOVEVIEWPORT_TOSATHALF) {
    double to = log2HF(cabsHF(target)), from = log2HF(v->zoomabs);
    target = cldexpHF(target, -static_cast<int32_t>((to - from) * 0.5));
  }
  v->zoom = target;
  v->zoomabs = cabsHF(target);
  v->precision = static_cast<mp_bitcnt_t>(zoomexponent(v->zoomabs) + 64);
  if (v->flags & VP_LOCK) return;
  HPVALUE* d = newdelta(context, v->precision);
  if (d) {
    for (int k = 0; k < 2; k++) {
      if (julia || !point) mpf_set_ui(d->v[k], 0);
      else mpf_set(d->v[k], point->v[k]);
    }
  }
  replacedelta(context, v, d);
}

void moverelative(OVCONTEXT* context, VIEWPORT* v, HFLOATCOMPLEX delta, HFLOATCOMPLEX zoom) {
  HFLOATCOMPLEX d = cdivHF(delta, v->zoom);
  HPVALUE* nd = newdelta(context, v->precision);
  if (nd) {
    HFLOAT part[2] = {crealHF(d), cimagHF(d)};
    for (int k = 0; k < 2; k++) {
      mpf_set_HFexact(v->dummy[k], part[k]);
      if (v->delta) mpf_add(nd->v[k], v->delta->v[k], v->dummy[k]);
      else mpf_set(nd->v[k], v->dummy[k]);
    }
  }
  replacedelta(context, v, nd);
  for (int i = 0; i < v->sat_infocopy.n && i < NSATINFO; i++)
    v->sat_infocopy.sat[i].c = csubHF(v->sat_infocopy.sat[i].c, d);
  v->zoom = cmulHF(v->zoom, zoom);
  v->zoomabs = cabsHF(v->zoom);
  int L = zoomexponent(v->zoomabs);
  v->precision = static_cast<mp_bitcnt_t>(L + 62);
  // The scratch follows the precision only when it has drifted far, to
  // spare reallocation.
  long have = static_cast<long>(mpf_get_prec(v->dummy[0]));
  if (have < L + 52 || have > L + 100) setprecision(v->dummy, 2, v->precision);
}

void newcycle(REALM* realm) {
  realm->computecycle++;
  realm->redraw = realm->computecycle;
}

void redrawrealms(OVCONTEXT* context, VIEWPORT* v, int flags) {
  if (!(flags & (MOVEVIEWPORT_REDRAW | MOVEVIEWPORT_REDRAWJST))) return;
  newcycle(v->realm);
  if (!(flags & MOVEVIEWPORT_REDRAWJST) || !v->juliarealm) return;
  REALM* jr = v->juliarealm;
  newcycle(jr);
  v->flags |= VP_MUSTWAITFORIDLE | VP_MUSTDOLOOP;
  jr->flags |= R_MUSTWAITFORIDLE;
  // The erase reaches up to `maxjuliastack`, but the idle run anchors
  // bypass levels beyond the count that last set it: the whole stack is to
  // be made again, so the erase must reach the highest anchored level.
  if (jr->juliastack)
    for (int s = jr->njuliastack - 1; s > jr->maxjuliastack; s--)
      if (jr->juliastack[s].m) {
        jr->maxjuliastack = s;
        break;
      }
  adjustjuliastack(context, jr, -1, true);
  jr->maxjuliastack = -1;
}

void setscreen(VIEWPORT* v, int flags, HFLOATCOMPLEX center) {
  v->c[0] = v->z0;
  v->c[1] = complexd(v->z1.real(), v->z0.imag());
  v->c[2] = v->z1;
  v->c[3] = complexd(v->z0.real(), v->z1.imag());
  double z = std::log2(static_cast<double>(v->resolution)) + log2HF(v->zoomabs);
  int Z = v->zoomabs.mantissa ? static_cast<int>(std::trunc(z)) : 0;
  setdepthlimits(v, Z, flags);
  complexd c = cdHF(center);
  v->centerx = c.real();
  v->centery = c.imag();
}

// s -> (s - shift) * zoom for the ring's steps from `from` up to `to`.
HFLOATCOMPLEX walkring(const VIEWPORT* v, HFLOATCOMPLEX s, uint32_t from, uint32_t to) {
  for (uint32_t k = from; k != to; k++)
    s = cmulHF(csubHF(s, v->coordinatesystem[k & RINGMASK]), v->zoomsystem[k & RINGMASK]);
  return s;
}

// A plane point's screen position now: through the applied zoom, then the
// steps not yet applied.
HFLOATCOMPLEX screenofpoint(VIEWPORT* v, mpf_srcptr x, mpf_srcptr y, const HPVALUE* base,
                            HFLOATCOMPLEX offset) {
  mpf_t t[2];
  mpf_init2(t[0], 64);
  mpf_init2(t[1], 64);
  HFLOATCOMPLEX s = CZEROH;
  spinlocklock(&v->spdelta);
  if (v->delta) {
    mpf_srcptr p[2] = {x, y};
    HFLOAT part[2];
    for (int k = 0; k < 2; k++) {
      if (base) {
        mpf_set_HFexact(t[k], k ? cimagHF(offset) : crealHF(offset));
        mpf_add(t[k], t[k], base->v[k]);
      } else {
        mpf_set(t[k], p[k]);
      }
      mpf_sub(t[k], t[k], v->delta->v[k]);
      part[k] = mpf_get_HF(t[k]);
    }
    s = cmulHF(cHF(part[0], part[1]), v->zoom);
  }
  uint32_t from = v->icursystem;
  spinlockunlock(&v->spdelta);
  s = walkring(v, s, from, atomicload(&v->icoordinatesystem));
  mpf_clear(t[0]);
  mpf_clear(t[1]);
  return s;
}

}  // namespace

void moveviewport(OVCONTEXT* context, VIEWPORT* viewport, HFLOATCOMPLEX delta, HFLOATCOMPLEX zoom,
                  int w, int h, HFLOATCOMPLEX center, HFLOAT speed, int flags) {
  sendmove(context, viewport, delta, zoom, w, h, center, speed, flags);
}

void moveviewportabsolute(OVCONTEXT* context, VIEWPORT* viewport, mpf_ptr x, mpf_ptr y,
                          HFLOATCOMPLEX zoom, int w, int h) {
  if (stopped(context)) return;
  mp_bitcnt_t precision = static_cast<mp_bitcnt_t>(zoomexponent(cabsHF(zoom)) + 64);
  setprecision(viewport->moveparam, 2, precision);
  mpf_set(viewport->moveparam[0], x);
  mpf_set(viewport->moveparam[1], y);
  sendmove(context, viewport, CZEROH, zoom, w, h, CZEROH, ZEROH, MOVEVIEWPORT_ZOOMDELTAABSOLUTE);
}

void moveviewporttosatellite(OVCONTEXT* context, VIEWPORT* viewport) {
  neutralmove(context, viewport, static_cast<int>(viewport->nav_flags) | MOVEVIEWPORT_TOSAT);
}

void moveviewporttosatellitehalf(OVCONTEXT* context, VIEWPORT* viewport) {
  neutralmove(context, viewport, static_cast<int>(viewport->nav_flags) | MOVEVIEWPORT_TOSATHALF);
}

void redraw(OVCONTEXT* context, VIEWPORT* viewport) {
  neutralmove(context, viewport, static_cast<int>(viewport->nav_flags) | MOVEVIEWPORT_REDRAW);
}

void redrawjst(OVCONTEXT* context, VIEWPORT* viewport) {
  neutralmove(context, viewport, static_cast<int>(viewport->nav_flags) | MOVEVIEWPORT_REDRAWJST);
}

void worker_move(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  if (atomicload(&worker->stop)) {
    atomicdecrementint(&v->imovemsg);
    __detachviewport(context, v);
    freeworker(context, worker);
    return;
  }
  v->flags |= VP_DONOTDRAW;
  if (v->flags & VP_MOVING) {
    workeronchain(&v->movemsg, worker);
    return;
  }
  bool last = atomicload(&v->imovemsg) < 2 && v->priority != 0;
  atomicdecrementint(&v->imovemsg);
  int flags = worker->idata[MOVE_FLAGS];
  double speed = dHF(crealHF(worker->hdata[MOVE_SPEED]));
  int direction = speed > v->nav_DIRECTIONTHRESHOLD ? 1
                  : speed < -v->nav_DIRECTIONTHRESHOLD ? -1
                                                       : 0;
  if (v->direction == 0 && direction != 0) atomicincrementint(&context->imovingviewport);
  if (v->direction != 0 && direction == 0) atomicdecrementint(&context->imovingviewport);
  v->direction = direction;
  v->speed = speed;
  setgeometry(v, worker->idata[MOVE_W], worker->idata[MOVE_H]);

  spinlocklock(&v->spdelta);
  setmodeflags(context, v, flags);
  if (flags & MOVEVIEWPORT_ZOOMDELTAABSOLUTE)
    moveabsolute(context, v, worker->hdata[MOVE_ZOOM]);
  else if (flags & (MOVEVIEWPORT_TOSAT | MOVEVIEWPORT_TOSATHALF))
    movetosatellite(context, v, flags);
  else if (v->flags & VP_LOCK) {
    v->zoom = cmulHF(v->zoom, worker->hdata[MOVE_ZOOM]);
    v->zoomabs = cabsHF(v->zoom);
  } else
    moverelative(context, v, worker->hdata[MOVE_DELTA], worker->hdata[MOVE_ZOOM]);
  redrawrealms(context, v, flags);
  atomicstore(&v->icursystem, static_cast<uint32_t>(worker->idata[MOVE_STEP]));
  spinlockunlock(&v->spdelta);

  setscreen(v, flags, worker->hdata[MOVE_CENTER]);
  if (last) {
    if (v->realm->type == JULIA) v->flags |= VP_MUSTDOLOOP;
    finishalljuliacorrect(context);
    movingstart(context, v);
  }
  __detachviewport(context, v);
  freeworker(context, worker);
}

void finishalljuliacorrect(OVCONTEXT* context) {
  while (context->ijuliacachepp != 0) finishjuliacorrect(context);
}

void finishmoving(OVCONTEXT* context, VIEWPORT* viewport) {
  finishalljuliacorrect(context);
  viewport->flags &= ~VP_MOVING;
  if (!(viewport->flags & VP_MUSTWAITFORIDLE) && !(viewport->realm->flags & R_MUSTWAITFORIDLE)) {
    viewport->flags &= ~VP_DONOTDRAW;
    composestrings(context, viewport);
    invalidate(context, viewport);
    viewport->flags |= VP_DIRTY;
    // Drawn in this round of the main thread: while the workers run long
    // jobs no other message may come to wake it for the moved view's list.
    setcontextflag(context, OVCONTEXT_DIRTY | OVCONTEXT_DORENDER);
  }
  // The moves parked meanwhile are applied here, in their order: sent on
  // through the queue they would come after the moves that are already in
  // it, and the view would take its steps out of order (the ring, which the
  // display walks, has them in order). Should one of them start a new move,
  // the rest park again behind it.
  WORKER* w = viewport->movemsg;
  viewport->movemsg = nullptr;
  while (w) {
    WORKER* next = w->nextother;
    w->nextother = nullptr;
    if (w->workerproc == worker_move)
      worker_move(context, w);
    else
      dispatch(context, w);
    w = next;
  }
}

HFLOATCOMPLEX markpt(OVCONTEXT*, VIEWPORT* viewport, complexd c, int i) {
  spinlocklock(&viewport->nav_spdelta);
  complexd pd = viewport->nav_delta + c / viewport->nav_zoom;
  spinlockunlock(&viewport->nav_spdelta);
  HFLOATCOMPLEX p = cHFd(pd);
  spinlocklock(&viewport->spdelta);
  HFLOATCOMPLEX rel = cdivHF(p, viewport->zoom);
  if (i >= 0 && 2 * i + 1 < NVIEWPORTMP && viewport->delta) {
    HFLOAT part[2] = {crealHF(rel), cimagHF(rel)};
    for (int k = 0; k < 2; k++) {
      mpf_ptr m = viewport->mp[2 * i + k];
      mpf_set_prec(m, viewport->precision < 64 ? 64 : viewport->precision);
      mpf_set_HFexact(m, part[k]);
      mpf_add(m, m, viewport->delta->v[k]);
    }
  }
  spinlockunlock(&viewport->spdelta);
  return rel;
}

HFLOATCOMPLEX getmarkedpoint(OVCONTEXT*, VIEWPORT* viewport, int i) {
  if (i < 0 || 2 * i + 1 >= NVIEWPORTMP) return CZEROH;
  return screenofpoint(viewport, viewport->mp[2 * i], viewport->mp[2 * i + 1], nullptr, CZEROH);
}

HFLOATCOMPLEX translatepoint(OVCONTEXT*, VIEWPORT* viewport, HFLOATCOMPLEX c) {
  AREA* top = viewport->realm->top;
  if (!top || !top->hpvalue) return CZEROH;
  return screenofpoint(viewport, nullptr, nullptr, top->hpvalue, c);
}

void getzoomdelta(OVCONTEXT*, VIEWPORT* viewport, HFLOATCOMPLEX* zoom, HFLOATCOMPLEX* delta) {
  spinlocklock(&viewport->spdelta);
  HFLOATCOMPLEX z = viewport->zoom;
  uint32_t from = viewport->icursystem;
  spinlockunlock(&viewport->spdelta);
  uint32_t to = atomicload(&viewport->icoordinatesystem);
  HFLOATCOMPLEX d = CZEROH;
  for (uint32_t k = from; k != to; k++) {
    d = caddHF(d, cdivHF(viewport->coordinatesystem[k & RINGMASK], z));
    z = cmulHF(z, viewport->zoomsystem[k & RINGMASK]);
  }
  *zoom = z;
  *delta = d;
}
