// One round of the idle orbit, seen from the view: the Julia stack levels the
// orbit's series can define so far, the move along the periods already known,
// and the test that makes a Newton candidate. Runs on the cores' threads in
// iteration order; results go to the main thread as messages.
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "canvas/series.h"
#include "idle.h"
#include "refiter.h"

namespace {

constexpr int NOEXP = INT_MIN / 2;

int lg(HFLOAT v) { return v.mantissa == 0 ? NOEXP : ilogbHF(v); }
// The frexp-style exponent: v = m 2^e with |m| in [0.5, 1).
int expof(HFLOAT v) { return v.mantissa == 0 ? NOEXP : ilogbHF(v) + 1; }
long expof(mpf_srcptr x) {
  if (mpf_sgn(x) == 0) return LONG_MIN / 2;
  long e;
  mpf_get_d_2exp(&e, x);
  return e;
}
// ilogb(q) / k, and 0 when ilogb(q) is below `floor`.
int levels(HFLOAT q, int floor, int k) {
  int l = lg(q);
  return l < floor ? 0 : l / k;
}
HFLOAT pow4(double js) { return HFd(js * js * js * js); }

void post(OVCONTEXT* context, VIEWPORT* v, WORKERPROC proc, int lo, int hi, ITER iter,
          const HFLOATCOMPLEX* h, int nh) {
  WORKER* w = addworker(context, THREAD_MAIN, proc);
  if (!w) return;
  attachviewport(v);
  w->pdata[0] = v;
  w->idata[0] = lo;
  w->idata[1] = hi;
  w->idata[2] = iter;
  for (int k = 0; k < nh; k++) w->hdata[k] = h[k];
  dispatch(context, w);
}

void stacklevels(OVCONTEXT* context, VIEWPORT* v, ITER iter, HFLOATCOMPLEX z,
                 const HFLOATCOMPLEX* tj, const HFLOATCOMPLEX* ntj, const HFLOATCOMPLEX* ntm) {
  REALM* jr = v->juliarealm;
  if (!jr || !jr->juliastack || jr->njuliastack <= 0) return;
  double js = context->juliasize > 0 ? context->juliasize : 1;
  JULIASTACKRANGES g = juliastackranges(js, jr->njuliastack, (jr->flags & R_BYPASS) != 0, iter, z,
                                        ntj, ntm, &v->idle_jst, &v->idle_jst1, &v->idle_jst0);
  if (g.bypasslo < g.bypasshi) {
    HFLOATCOMPLEX h[NINTERPOLTAYLOR];
    juliabypasscubic(z, ntj, h);
    post(context, v, worker_env_julia_bypass, g.bypasslo, g.bypasshi, iter, h, NINTERPOLTAYLOR);
  }
  if (g.radiuslo < g.radiushi) {
    HFLOATCOMPLEX value = cHF(g.radius, ZEROH);
    post(context, v, worker_env_julia, g.radiuslo, g.radiushi, iter, &value, 1);
  }
  if (g.plainlo < g.plainhi) post(context, v, worker_env_julia2, g.plainlo, g.plainhi, iter - 1, tj, 4);
}

// Does the series in c, at this iteration, let a Newton step from the centre
// land in the right place?
bool iscandidate(VIEWPORT* v, ITER iter, HFLOATCOMPLEX z, const HFLOATCOMPLEX* ntm) {
  if (v->idle_n0 > 0 && iter % v->idle_n0 == 0) return false;
  if (atomicload(&v->idle_ncalculating) > 19) return false;
  HFLOAT Z = cabsHFs(z);
  HFLOAT m1 = cabsHFs(ntm[1]), m2 = cabsHFs(ntm[2]), m3 = cabsHFs(ntm[3]);
  HFLOAT m1sq = mulHF(m1, m1);
  HFLOAT k = HFd(1.0 / 75);
  if (!lessHF(mulHF(mulHF(Z, Z), m3), mulHF(mulHF(m1sq, m1), k))) return false;
  if (!lessHF(mulHF(Z, m2), mulHF(m1sq, k))) return false;
  double w = log2HF(v->idle_zoom.mantissax == 0 && v->idle_zoom.mantissay == 0
                        ? ONEH
                        : cabsHF(v->idle_zoom)) +
             std::log2(static_cast<double>(v->resolution));
  return simpletayloraccurate(ntm, 6, -static_cast<int>(std::floor(w)), v->resolution);
}

// The Newton task's expected units for a candidate of period iter.
int candidatedue(ITER iter, mpf_srcptr x, mpf_srcptr y, const HFLOATCOMPLEX* ntj,
                 const HFLOATCOMPLEX* ntm) {
  HFLOAT prod = cabsHF(cmulHF(ntm[1], ntj[1]));
  HFLOAT tmpr2 = prod.mantissa == 0 ? ZEROH : divHF(HFd(4.0), prod);
  long b = 52L - expof(tmpr2) - expof(cabsHF(ntm[1]));
  long E = std::max(expof(x), expof(y));
  long q = std::max(b, 1L) * 2 / (E < -1 ? -E : 2);
  int l = q > 0 ? std::ilogb(static_cast<double>(q)) : 0;
  return static_cast<int>((iter >> 9) * (l + 1));
}

// Is the candidate's nucleus the one the view stands at, so that the orbit
// comes back near 0 at every multiple of its period (the same nucleus
// again)? True when the Newton step z/dz from the centre stays within a few
// view sizes, or well inside the candidate's atom (2/|tm1 tj1|, half of
// `tmpr2`). Period 1 is a candidate at any centre (z_1 = c is exactly
// linear in c) and lands on 0: far from a deep view, its multiples, every
// round, say nothing, and holding them back hid every nucleus behind it.
bool landsnear(const VIEWPORT* v, mpf_t q[2], const HFLOATCOMPLEX* ntj, const HFLOATCOMPLEX* ntm) {
  HFLOAT step = cabsHF(cHF(mpf_get_HF(q[0]), mpf_get_HF(q[1])));
  if (step.mantissa == 0) return true;
  HFLOAT zoom = cabsHF(v->idle_zoom);
  if (zoom.mantissa != 0 && lessHF(step, divHF(HFd(4.0), zoom))) return true;
  HFLOAT prod = cabsHF(cmulHF(ntm[1], ntj[1]));
  if (prod.mantissa == 0) return false;
  // 2^-4 of the atom: the component holds a disc of about a quarter of it.
  return lessHF(step, divHF(HFd(2.0 / 16), prod));
}

void makecandidate(OVCONTEXT* context, VIEWPORT* v, ITER iter, mpf_srcptr x, mpf_srcptr y,
                   mpf_srcptr dx, mpf_srcptr dy, const HFLOATCOMPLEX* ntj,
                   const HFLOATCOMPLEX* ntm) {
  mp_bitcnt_t p = mpf_get_prec(x);
  mpf_t a[2], q[2], d[4];
  for (auto& m : a) mpf_init2(m, p);
  for (auto& m : q) mpf_init2(m, p);
  for (auto& m : d) mpf_init2(m, p);
  mpf_set(a[0], x);
  mpf_set(a[1], y);
  HFLOATCOMPLEX dz = cHF(mpf_get_HF(dx), mpf_get_HF(dy));
  bool ok = divide2(q, a, dz, d);
  IDLECANDIDATE* cand = nullptr;
  if (ok) cand = static_cast<IDLECANDIDATE*>(malloc(sizeof(IDLECANDIDATE)));
  if (cand) {
    // The run's own precision: a move may change the view's meanwhile.
    mp_bitcnt_t cp = 3 * mpf_get_prec(v->idle_delta->v[0]);
    for (int k = 0; k < 2; k++) {
      mpf_init2(cand->c[k], cp);
      mpf_sub(cand->c[k], v->idle_delta->v[k], q[k]);
    }
    WORKER* w = addworker(context, THREAD_MAIN, worker_env_investigate);
    if (w) {
      if (v->idle_n0 < 0 && landsnear(v, q, ntj, ntm)) v->idle_n0 = iter;
      ITER pause = 2 * iter;
      if (v->idle_pause < pause) v->idle_pause = pause;
      __atomic_add_fetch(&v->idle_ncalculating, 1, __ATOMIC_SEQ_CST);
      attachviewport(v);
      w->pdata[0] = v;
      w->pdata[1] = cand;
      w->idata[0] = iter;
      w->idata[1] = candidatedue(iter, x, y, ntj, ntm);
      dispatch(context, w);
    } else {
      mpf_clear(cand->c[0]);
      mpf_clear(cand->c[1]);
      free(cand);
    }
  }
  for (auto& m : a) mpf_clear(m);
  for (auto& m : q) mpf_clear(m);
  for (auto& m : d) mpf_clear(m);
}

void idlestepcore(COMPUTERGROUP* group, ITER iter, HFLOAT a, mpf_srcptr x, mpf_srcptr y,
                  mpf_srcptr dx, mpf_srcptr dy, const HFLOATCOMPLEX* tj, const HFLOATCOMPLEX* ntj,
                  const HFLOATCOMPLEX* tm, const HFLOATCOMPLEX* ntm) {
  VIEWPORT* v = static_cast<VIEWPORT*>(group->pdata[0]);
  if (v) idlestep(v, iter, a, x, y, dx, dy, tj, ntj, tm, ntm);
}

}  // namespace

JULIASTACKRANGES juliastackranges(double js, int njuliastack, bool bypass, ITER iter, HFLOATCOMPLEX z,
                                  const HFLOATCOMPLEX* ntj, const HFLOATCOMPLEX* ntm, int* jst,
                                  int* jst1, int* jst0) {
  JULIASTACKRANGES g = {0, 0, 0, 0, ZEROH, 0, 0};
  HFLOAT t1 = cabsHFs(ntj[1]);
  if (t1.mantissa == 0) return g;
  int N = levels(divHF(cabsHFs(ntj[3]), mulHF(t1, pow4(js))), -7, 8);
  // A level's start point d enters the series as d^2 (2^-2s at level s),
  // so the quadratic term falls below a pixel at half the exponent.
  int N1 = levels(divHF(mulHF(cabsHFs(ntj[2]), HFd(js * js)), t1), -7, 4);
  HFLOAT Z = cabsHFs(z);
  int N2 = Z.mantissa == 0 ? 0 : levels(divHF(t1, mulHF(HFd(4.0), Z)), -3, 4);
  int nj = njuliastack;
  if (iter >= 100 && N1 <= N2 && bypass) {
    int lo = std::max({*jst0, N1 + 1, lg(t1) / 4 + 2});
    int hi = std::min(nj, N2);
    // Each range is handed on once: the next round starts where it ended.
    if (lo < hi) {
      g.bypasslo = lo;
      g.bypasshi = hi;
      *jst0 = hi;
    }
  }
  if (*jst < N) {
    int hi = std::min(nj, N);
    g.radius = sqrtHF(divHF(cabsHFs(ntm[1]), t1));
    if (hi > *jst) {
      g.radiuslo = *jst;
      g.radiushi = hi;
    }
    *jst = std::max(*jst, hi);
  }
  // The plain levels of this round reach to N1 - 1 with the last round's
  // series, whose linear form holds from N1 of that round, at most this
  // round's N1 or the plain levels' end. The bypass keeps a level's margin
  // and starts at N1 + 1 at the least. The levels between (N1 itself, or up
  // to where the image of a level is small enough for the bypass) would be
  // plain levels of the next round; where the orbit ends here (a period's
  // last round) there is none, and a level without data cuts every lookup
  // off from the bypass levels above it. So they are plain levels of this
  // round: the last round's linear form holds there too.
  int plainend = std::min(nj, N1);
  if (g.bypasslo < g.bypasshi) plainend = std::max(plainend, g.bypasslo);
  if (*jst1 < plainend) {
    g.plainlo = *jst1;
    g.plainhi = plainend;
    *jst1 = plainend;
  }
  return g;
}

void juliabypasscubic(HFLOATCOMPLEX z, const HFLOATCOMPLEX* ntj, HFLOATCOMPLEX* t) {
  // A start point d of the level is z_0; z_1 = c + d^2 deviates by d^2.
  t[0] = z;
  t[1] = CZEROH;
  t[2] = ntj[1];
  t[3] = CZEROH;
}

HFLOAT juliastackradius(double js, HFLOAT ratio, int s) {
  return mulHF(HFd(0.5 / js), ldexpHF(ratio, -2 * s));
}

void idlestep(VIEWPORT* viewport, ITER iter, HFLOAT, mpf_srcptr x, mpf_srcptr y, mpf_srcptr dx,
              mpf_srcptr dy, const HFLOATCOMPLEX* tj, const HFLOATCOMPLEX* ntj,
              const HFLOATCOMPLEX*, const HFLOATCOMPLEX* ntm) {
  VIEWPORT* v = viewport;
  OVCONTEXT* context = v->idle_computergroup.context;
  // The orbit itself is stored by the cores; here the count is published.
  v->idle_iter = iter;
  HFLOATCOMPLEX z = cHF(mpf_get_HF(x), mpf_get_HF(y));
  stacklevels(context, v, iter, z, tj, ntj, ntm);
  if (iter == v->idle_nextenviter) {
    CHAIN* l = v->idle_chain;
    while (l != &v->echain && static_cast<ITER>(CHAINRECORD(l, ENVIRONMENT, chain)->n) <= iter)
      l = l->next;
    v->idle_chain = l;
    v->idle_nextenviter =
        l == &v->echain ? -1 : static_cast<ITER>(CHAINRECORD(l, ENVIRONMENT, chain)->n);
  } else if (v->idle_nextenviter == -1 && iscandidate(v, iter, z, ntm)) {
    makecandidate(context, v, iter, x, y, dx, dy, ntj, ntm);
  }
  v->idle_oldvalue = z;
}

void idleinstallhooks() {
  idlestephook = idlestepcore;
  newtonfinishhook = worker_newtonfinish;
}

// ---------------------------------------------------------------- stack data

namespace {

bool inrange(REALM* jr, int lo, int hi, const char* message) {
  if (hi < lo) {
    fputs(message, stderr);
    return false;
  }
  return jr && jr->juliastack && lo >= 0 && hi <= jr->njuliastack;
}

void setseed(OVCONTEXT* context, JULIASTACKDATA* jd, HPVALUE* m) {
  if (jd->m == m) return;
  attachhpv(m);
  detachhpv(context, jd->m);
  jd->m = m;
}

void dropenv(OVCONTEXT* context, JULIASTACKDATA* jd) {
  detache(context, jd->e);
  jd->e = nullptr;
}

void endmessage(OVCONTEXT* context, VIEWPORT* v, WORKER* worker) {
  __detachviewport(context, v);
  freeworker(context, worker);
}

}  // namespace

void worker_env_julia(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  REALM* jr = v->juliarealm;
  int lo = worker->idata[0], hi = worker->idata[1];
  if (inrange(jr, lo, hi, "MSG_ENV_JULIA: Error.\n")) {
    double js = context->juliasize > 0 ? context->juliasize : 1;
    HFLOAT value = crealHF(worker->hdata[0]);
    for (int s = lo; s < hi; s++) {
      JULIASTACKDATA* jd = &jr->juliastack[s];
      jd->r = juliastackradius(js, value, s);
      dropenv(context, jd);
    }
  }
  endmessage(context, v, worker);
}

void worker_env_julia2(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  REALM* jr = v->juliarealm;
  int lo = worker->idata[0], hi = worker->idata[1];
  if (inrange(jr, lo, hi, "MSG_ENV_JULIA2: Error.\n") && v->idle_delta) {
    for (int s = lo; s < hi; s++) {
      JULIASTACKDATA* jd = &jr->juliastack[s];
      if (jd->bypass) continue;
      jd->iter = worker->idata[2];
      for (int k = 0; k < NINTERPOLTAYLOR; k++) jd->taylorj[k] = worker->hdata[k];
      setseed(context, jd, v->idle_delta);
      dropenv(context, jd);
    }
  }
  endmessage(context, v, worker);
}

void worker_env_julia_bypass(OVCONTEXT* context, WORKER* worker) {
  VIEWPORT* v = static_cast<VIEWPORT*>(worker->pdata[0]);
  REALM* jr = v->juliarealm;
  int lo = worker->idata[0], hi = worker->idata[1];
  if (inrange(jr, lo, hi, "MSG_ENV_JULIA_BYPASS: Error.\n") && v->idle_delta) {
    for (int s = lo; s < hi; s++) {
      JULIASTACKDATA* jd = &jr->juliastack[s];
      jd->iter = worker->idata[2];
      for (int k = 0; k < NINTERPOLTAYLOR; k++) jd->taylorj[k] = worker->hdata[k];
      setseed(context, jd, v->idle_delta);
      jd->bypass = true;
    }
  }
  endmessage(context, v, worker);
}
