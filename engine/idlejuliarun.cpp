// The idle run of a Julia realm's view: the orbit of the view's centre under
// the realm's parameter, in mpf on a worker, with the series of z_k in a
// start deviation. It becomes the view's standard environment when that
// series carries the whole view.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "canvas/series.h"
#include "idle.h"
#include "refiter.h"

namespace {

constexpr int T = NTAYLORDEGREE;
constexpr int FIRSTPOINTS = 65536;
constexpr ITER REPORT = 512;

bool grow(OVCONTEXT* context, ENVIRONMENT* e, int want) {
  REFDATAH* h = static_cast<REFDATAH*>(realloc(e->refdatah, size_t(want) * sizeof(REFDATAH)));
  if (h) e->refdatah = h;
  REFDATAD* d = h ? static_cast<REFDATAD*>(realloc(e->refdatad, size_t(want) * sizeof(REFDATAD)))
                  : nullptr;
  if (d) e->refdatad = d;
  if (!h || !d) return false;
  __atomic_add_fetch(&context->mem_envrefdata,
                     int64_t(want - e->nrefdata) * int64_t(sizeof(REFDATAH) + sizeof(REFDATAD)),
                     __ATOMIC_SEQ_CST);
  e->nrefdata = want;
  return true;
}

struct ORBIT {
  mpf_t x, y, t, u;
  explicit ORBIT(mp_bitcnt_t p) {
    for (mpf_ptr m : {x, y, t, u}) mpf_init2(m, p);
  }
  ~ORBIT() {
    for (mpf_ptr m : {x, y, t, u}) mpf_clear(m);
  }
  // z -> z^2 + c
  void step(mpf_srcptr cx, mpf_srcptr cy) {
    mpf_mul(t, x, x);
    mpf_mul(u, y, y);
    mpf_sub(t, t, u);
    mpf_mul(u, x, y);
    mpf_mul_2exp(u, u, 1);
    mpf_add(x, t, cx);
    mpf_add(y, u, cy);
  }
};

// The series of z_k in the start deviation one round on.
void seriesstep(HFLOATCOMPLEX* vv, HFLOATCOMPLEX z) {
  HFLOATCOMPLEX sq[T], lin[T];
  sqrtaylor_hfloat(sq, vv, T);
  multaylorconst_hfloat(lin, vv, cldexpHF(z, 1), T);
  addtaylor_hfloat(vv, sq, lin, T);
}

}  // namespace

void worker_idlejulia(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  ENVIRONMENT* e = v->idle_standard;
  int depth = worker->idata[0];
  ITER limit = worker->idata[1];
  double resolution = v->resolution;
  ORBIT o(e->precision);
  mpf_set(o.x, v->idle_delta->v[0]);
  mpf_set(o.y, v->idle_delta->v[1]);
  HFLOATCOMPLEX vv[T] = {};
  vv[1] = CONEH;
  ITER k = 0;
  bool series = true;
  // A run stopped before it began iterates nothing and goes home.
  bool stopped = atomicload(&worker->stop);
  bool ok = stopped || grow(context, e, FIRSTPOINTS);
  while (ok && !stopped) {
    HFLOATCOMPLEX z = cHF(mpf_get_HF(o.x), mpf_get_HF(o.y));
    mpf_mul(o.t, o.x, o.x);
    mpf_mul(o.u, o.y, o.y);
    mpf_add(o.t, o.t, o.u);
    mpf_ui_sub(o.t, 4, o.t);
    if (k >= e->nrefdata && !(ok = grow(context, e, 2 * e->nrefdata))) break;
    e->refdatah[k].value = z;
    e->refdatah[k].a = mpf_get_HF(o.t);
    e->refdatad[k].value = complexd(mpf_get_d(o.x), mpf_get_d(o.y));
    e->refdatad[k].a = mpf_get_d(o.t);
    // Escaped, or settled on the attracting cycle, or as far as asked.
    if (mpf_cmp_si(o.t, -1) <= 0) break;
    if (v->idle_miter < 0 && v->idle_r.mantissa &&
        subHF(cabsHFs(csubHF(z, v->idle_lim)), v->idle_r).mantissa < 0)
      break;
    if (k >= limit) break;
    // The series is kept as far as it carries every pixel of the view; the
    // orbit goes on as the reference the pixels' deviations follow. Cut
    // there, a deep view's pixels went on in absolute terms after a dozen
    // steps, where the format no longer tells them apart.
    if (series && !simpletayloraccurate(vv, T - 1, depth, resolution)) series = false;
    if (series) {
      std::memcpy(e->taylor, vv, sizeof vv);
      seriesstep(vv, z);
    }
    o.step(v->idle_m->v[0], v->idle_m->v[1]);
    k++;
    v->idle_iter = k;
    if (k % REPORT == 0) {
      if (v->idle_task) accomplish(v->idle_task, 1, false);
      if (atomicload(&worker->stop)) break;
    }
  }
  if (!ok) fputs("idlestart: malloc failed.\n", stderr);
  e->n = static_cast<UITER>(k);
  worker->recipient = THREAD_MAIN;
  worker->workerproc = worker_idlefinish;
  dispatch(context, worker);
}

void idlestartjulia(OVCONTEXT* context, VIEWPORT* v) {
  REALM* r = v->realm;
  if (!r->info.c || !v->delta) return;
  ENVIRONMENT* s = adde(context, v->delta->v[0], v->delta->v[1], 2 * v->precision);
  WORKER* w = s ? addworker(context, THREAD_WORKER, worker_idlejulia) : nullptr;
  if (!w) {
    fputs("idlestart: malloc failed.\n", stderr);
    if (s) detache(context, s);
    return;
  }
  s->owner = v;
  v->flags |= VP_IDLE;
  attachhpv(v->delta);
  v->idle_delta = v->delta;
  // The budget grows with the depth the run starts at.
  v->idle_zoom = v->zoom;
  attachhpv(r->info.c);
  v->idle_m = r->info.c;
  v->idle_miter = r->info.iter;
  v->idle_lim = r->info.lim;
  v->idle_r = ldexpHF(mulHF(r->info.dj, r->info.dj), -1);
  v->idle_inftye = r->e && r->e->r4.mantissa ? ilogbHF(r->e->r4) + 1 + 2 : 0;
  v->idle_standard = s;
  v->idle_iter = 0;
  v->idle_task = __addtask(context, TASKTYPE_ITER, 1);
  attachviewport(v);
  w->pdata[0] = v;
  double L = v->zoomabs.mantissa ? log2HF(v->zoomabs) : 0;
  w->idata[0] = -static_cast<int>(std::floor(L + std::log2(double(v->resolution))));
  w->idata[1] = idlebudget(v);
  w->prio = 0;
  v->idle_worker = w;
  dispatch(context, w);
}

int juliastandardprec(const VIEWPORT* v, const ENVIRONMENT* e) {
  if (!v->delta || !e->c) return -1;
  HFLOATCOMPLEX off = getrelativepos(v->delta->v[0], v->delta->v[1], e);
  HFLOATCOMPLEX zoom = cmulHF2(v->zoom, HFd(1.0 / (v->big > 0 ? v->big : 1.0)));
  int r = accurateprec(e->taylor, T, off, zoom, 1, v->resolution);
  return r == 6 ? -1 : r;
}

void idlefinishjulia(OVCONTEXT* context, VIEWPORT* v) {
  ENVIRONMENT* s = v->idle_standard;
  v->idle_standard = nullptr;
  v->idle_worker = nullptr;
  if (v->idle_task) __removetask(context, v->idle_task);
  v->idle_task = nullptr;
  bool taken = false;
  bool stopped = (v->flags & VP_IDLESTOP) || v->idle_m != v->realm->info.c;
  if (s && !stopped && s->n > 0 && v->delta) {
    s->cf = cHF(mpf_get_HF(s->c->v[0]), mpf_get_HF(s->c->v[1]));
    int r = juliastandardprec(v, s);
    if (r >= 0) {
      detache(context, v->enonsat);
      v->enonsat = s;
      v->precsat = r + 1;
      taken = true;
    }
  }
  if (!taken) detache(context, s);
  const bool waited = (v->flags & VP_MUSTWAITFORIDLE) != 0;
  v->flags &= ~(VP_IDLE | VP_IDLEPAUSE | VP_IDLESTOP | VP_MUSTWAITFORIDLE);
  detachhpv(context, v->idle_delta);
  v->idle_delta = nullptr;
  detachhpv(context, v->idle_m);
  v->idle_m = nullptr;
  // A run stopped by a move starts again where the view is now.
  if (stopped && v->priority && !(v->flags & VP_MOVING)) {
    movingstart(context, v);
    return;
  }
  // A view that waited for the run is drawn now, with or without what it
  // gave.
  if (waited && v->priority && !(v->flags & VP_MOVING)) {
    finishmoving(context, v);
    return;
  }
  // The areas take the new environment when the view is filed again.
  if (taken && v->priority && !(v->flags & (VP_MOVING | VP_DONOTDRAW)) &&
      v->computecycle == v->realm->computecycle)
    invalidate(context, v);
}
