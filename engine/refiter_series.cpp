// refiter_series.cpp: the series of one period of a periodic environment,
// its radii and level range, and the two accuracy tests of a series.
#include <algorithm>

#include "canvas/series.h"
#include "refiter.h"

WORKERPROC newtonfinishhook = nullptr;

namespace {

constexpr int L = NTAYLORDEGREE;  // row stride of the table
constexpr int PROGRESSROUNDS = 512;

// Radii of a period-one environment, which has no second-order term.
constexpr double PERIODONERADIUS = 10;
// Below this binary order the atom is small enough that a series pays even
// for a short period.
constexpr int SHALLOWATOM = -16;
constexpr UITER SHORTPERIOD = 20;
constexpr int LEVELSPAN0 = 5;
constexpr int LEVELSPAN1 = 21;
constexpr int LEVELMAX = 16;

inline HFLOATCOMPLEX twice(HFLOATCOMPLEX z) {
  if (z.mantissax == 0 && z.mantissay == 0) return z;
  return cldexpHF(z, 1);
}

inline HFLOAT rootHF(HFLOAT a) { return a.mantissa == 0 ? ZEROH : sqrtHF(a); }

inline HFLOAT absHF(HFLOATCOMPLEX z) { return rootHF(cabsHFs(z)); }

// One unit on the task, and a message that keeps the main thread's idle
// handling going while a long series is made.
void progress(OVCONTEXT* context, ENVIRONMENT* e) {
  if (e->task) accomplish(e->task, 1, false);
  WORKER* w = addworker(context, THREAD_MAIN, worker_nop);
  if (w) dispatch(context, w);
}

// T <- T^2 + D + R T over the rounds k = 1..n-1.
bool periodseries(OVCONTEXT* context, ENVIRONMENT* e, const volatile bool* stop) {
  HFLOATCOMPLEX* t = e->taylor;
  for (int k = 0; k < NTAYLOR; k++) t[k] = CZEROH;
  t[1] = CONEH;
  t[L] = CONEH;
  HFLOATCOMPLEX D[NTAYLOR] = {};
  D[L] = CONEH;
  HFLOATCOMPLEX rt[NTAYLOR];
  for (UITER k = 1; k < e->n; k++) {
    HFLOATCOMPLEX R = twice(e->refdatah[k].value);
    multaylor2const_hfloat(rt, t, R, L, L);
    sqrtaylor2_hfloat(t, t, L, L);
    addtaylor2_hfloat(t, t, D, L, L);
    addtaylor2_hfloat(t, t, rt, L, L);
    if (k > 1 && (k - 1) % PROGRESSROUNDS == 0) {
      if (stop && *stop) return false;
      progress(context, e);
    }
  }
  return true;
}

// taylor[i + 7j] /= scalec^j t1^(2i - 1).
void normalise(ENVIRONMENT* e, HFLOATCOMPLEX t1) {
  HFLOATCOMPLEX powc = CONEH;
  for (int j = 0; j < L; j++) {
    HFLOATCOMPLEX denom = cdivHF(powc, t1);  // i = 0: t1^-1
    for (int i = 0; i < L; i++) {
      e->taylor[i + L * j] = cdivHF(e->taylor[i + L * j], denom);
      denom = cmulHF(denom, cmulHF(t1, t1));
    }
    powc = cmulHF(powc, e->scalec);
  }
}

void radii(ENVIRONMENT* e, HFLOATCOMPLEX t1) {
  if (e->n == 1) {
    e->r3 = HFd(PERIODONERADIUS);
    e->r1 = HFd(PERIODONERADIUS);
  } else {
    const HFLOATCOMPLEX* t = e->taylor;
    e->r3 = mulHF(TWOH, rootHF(divHF(absHF(t1), absHF(t[2]))));
    // The three second-order terms: dz^2, dz dc, dc^2.
    HFLOAT second = addHF(addHF(cabsHFs(t[2]), cabsHFs(t[1 + L])), cabsHFs(t[2 * L]));
    e->r1 = divHF(mulHF(HFd(0.125), ldexpHF(e->r2, -1)), rootHF(second));
  }
  // A disc that just misses the atom is widened to it.
  if (lessHF(e->r1, e->r2) && lessHF(e->r2, ldexpHF(e->r1, 2))) e->r1 = e->r2;
}

void levels(OVCONTEXT* context, ENVIRONMENT* e) {
  int s0 = -context->juliasizeshift;
  if (e->r4.mantissa != 0) s0 -= ilogbHF(e->r4);
  e->mini = s0 + LEVELSPAN0;
  e->maxi = s0 + LEVELSPAN1;
  if (e->mini < 0) {
    e->mini = 0;
    e->maxi = std::min(std::max(e->maxi, 0), LEVELMAX);
  }
}

}  // namespace

void calctaylorenvironment(OVCONTEXT* context, ENVIRONMENT* e, const volatile bool* stop) {
  if (e->n < 1 || !e->refdatah) return;
  if (!periodseries(context, e, stop)) return;
  const HFLOATCOMPLEX t1 = e->taylor[1];
  const HFLOATCOMPLEX t7 = e->taylor[L];
  e->scalez = t1;
  e->scalec = cmulHF(t1, t7);
  e->r4 = divHF(TWOH, absHF(t1));
  e->r2 = divHF(TWOH, absHF(e->scalec));
  normalise(e, t1);
  radii(e, t1);
  bool shallow = e->r2.mantissa == 0 || ilogbHF(e->r2) > SHALLOWATOM;
  if (!shallow || e->n > SHORTPERIOD) e->flags |= E_SERIES;
  if (!(e->flags & E_SERIES)) return;
  levels(context, e);
}

void worker_calctaylorenvironment(OVCONTEXT* context, WORKER* worker) {
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(worker->pdata[0]);
  if (!worker->stop && e) calctaylorenvironment(context, e, &worker->stop);
  if (newtonfinishhook) {
    worker->recipient = THREAD_MAIN;
    worker->workerproc = newtonfinishhook;
    dispatch(context, worker);
  } else {
    freeworker(context, worker);
  }
}

// ---------------------------------------------------------------- accuracy

namespace {

// |entry_i|^2 * w^i for i < maxprec: the highest i whose term reaches
// `bound`, at least 1, plus 1.
int reach(const HFLOATCOMPLEX* taylor, int maxprec, int lag, HFLOAT w, bool divide,
          HFLOAT bound) {
  int i = maxprec - 1;
  for (; i >= 0; i--) {
    HFLOAT coeff = cabsHFs(taylor[i * lag]);
    for (int k = 0; k < i; k++) coeff = divide ? divHF(coeff, w) : mulHF(coeff, w);
    if (!lessHF(coeff, bound)) break;
  }
  return std::max(i, 1) + 1;
}

}  // namespace

int accurateprec(const HFLOATCOMPLEX* taylor, int maxprec, HFLOATCOMPLEX c, HFLOATCOMPLEX zoom,
                 int lag, double resolution) {
  HFLOAT zz = cabsHFs(zoom);
  HFLOAT rr = HFd(resolution * resolution);
  HFLOAT P = divHF(ONEH, mulHF(zz, rr));
  HFLOAT bound = mulHF(cabsHFs(taylor[lag]), P);
  if (bound.mantissa == 0) return 2;
  int a = reach(taylor, maxprec, lag, cabsHFs(c), false, bound);
  int b = reach(taylor, maxprec, lag, zz, true, bound);
  int m = std::max(a, b);
  return m < maxprec - 1 ? m : -1;
}

bool simpletayloraccurate(const HFLOATCOMPLEX* taylor, int prec, int depth, double resolution) {
  HFLOAT lin = cabsHFs(taylor[1]);
  if (lin.mantissa == 0) return false;
  HFLOAT r2 = HFd(resolution * resolution);
  HFLOAT term = cabsHFs(taylor[prec]);
  for (int k = 0; k < prec; k++) term = mulHF(term, r2);
  term = ldexpHF(term, 2 * (prec - 1) * depth);
  if (term.mantissa == 0) return true;
  return lessHF(term, lin);
}
