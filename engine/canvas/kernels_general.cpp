// canvas/kernels_general.cpp: the kernels of a start state, which follow a
// difference to the environment's stored orbit: `calcitergeneralnonsat` and
// `calcitergeneralsat` for the Mandelbrot recurrence, `calciterjulianonsat`
// and `calciterjuliasat` for the Julia one. Over a satellite environment the
// orbit is periodic and whole periods are passed at once by its series.
#include "canvas/kernels_perturb.h"

#include <algorithm>
#include <cstdlib>

#include "canvas/periodstrides.h"

namespace canvaskernels {

namespace {

template <typename T, bool JULIA>
int absolutekernel(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
                   typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced, int idepth) {
  if constexpr (JULIA)
    return calciterjuliaabsolute<T>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                    idepth);
  else
    return calciterabsolute<T>(canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
}

// ---------------------------------------------------------------- the period jump
//
// The normalised series of one period says t1 T(dz, dc) = sum taylor[i + 7j]
// u^i v^j with u = t1^2 dz and v = scalec dc (t1 = scalez), where T is the
// difference after n iterations of a start difference dz of z_1 (without the
// parameter part) under a parameter difference dc. At a multiple of the
// period the reference stands at 0, the state's delta is z itself, and
// dz = delta^2. In these coordinates one period is w -> w^2 + c' to first
// order (w = t1 delta, c' = v): next to a minibrot the points of interest
// have |w| and |c'| up to 2 and beyond, so the table is trusted wherever its
// own terms say so, not within a fixed disc. The jump is taken only when the
// last two rows and the last two columns of the table, at this u and v, are
// each below `JUMPTOLERANCE` of the result: terms that have fallen that far
// by the table's end leave out less still. `JUMPGATE2` only keeps the powers
// finite far outside, where the test refuses anyway.

constexpr double JUMPTOLERANCE2 = 0x1p-100;  // squared: 2^-50 relative
constexpr double JUMPGATE2 = 0x1p40;         // |u|, |v| below 2^20

struct JUMP {
  HFLOATCOMPLEX delta;
  HFLOATCOMPLEX d;
  HFLOAT Z;
};

// Sum of the coefficients row i (or column j, by the strides) in powers of w.
inline HFLOATCOMPLEX horner(const HFLOATCOMPLEX* t, int stride, HFLOATCOMPLEX w) {
  HFLOATCOMPLEX s = t[6 * stride];
  for (int k = 5; k >= 0; k--) s = caddHF(cmulHF(s, w), t[k * stride]);
  return s;
}

// Its derivative in w.
inline HFLOATCOMPLEX hornerprime(const HFLOATCOMPLEX* t, int stride, HFLOATCOMPLEX w) {
  HFLOATCOMPLEX s = cmulHF2(t[6 * stride], HFd(6.0));
  for (int k = 5; k >= 1; k--) s = caddHF(cmulHF(s, w), cmulHF2(t[k * stride], HFd(k)));
  return s;
}

// One whole period from a multiple of it; false when the series is not
// trusted here. `v` is scalec * dc (0 for Julia); `D2` is `dfactor2`.
// Is the term below `limit` (both squared), or nothing at all?
inline bool negligible(HFLOATCOMPLEX t, HFLOAT limit) {
  HFLOAT t2 = cabsHFs(t);
  return t2.mantissa == 0 || lessHF(t2, limit);
}

// One whole period from a multiple of it; false when the series is not
// trusted here. `v` is scalec * dc (0 for Julia); `D2` is `dfactor2`.
template <bool JULIA>
bool periodjump(const ENVIRONMENT* e, HFLOATCOMPLEX delta, HFLOATCOMPLEX v, HFLOATCOMPLEX d,
                HFLOAT Z, HFLOATCOMPLEX D2, JUMP* out) {
  constexpr int L = NTAYLORDEGREE;
  const HFLOATCOMPLEX t1 = e->scalez;
  const HFLOATCOMPLEX u = cmulHF(cmulHF(t1, t1), csqrHF(delta));
  const HFLOAT gate = HFd(JUMPGATE2);
  if (!lessHF(cabsHFs(u), gate) || !lessHF(cabsHFs(v), gate)) return false;
  HFLOATCOMPLEX row[L], rowv[L];
  for (int i = 0; i < L; i++) {
    row[i] = horner(e->taylor + i, L, v);
    rowv[i] = hornerprime(e->taylor + i, L, v);
  }
  HFLOATCOMPLEX P = horner(row, 1, u);
  // The rows of u^5, u^6 and the columns of v^5, v^6 at this point.
  HFLOATCOMPLEX u5 = cmulHF(csqrHF(csqrHF(u)), u), u6 = cmulHF(u5, u);
  HFLOATCOMPLEX v5 = cmulHF(csqrHF(csqrHF(v)), v), v6 = cmulHF(v5, v);
  HFLOAT limit = mulHF(cabsHFs(P), HFd(JUMPTOLERANCE2));
  if (!negligible(cmulHF(row[L - 2], u5), limit) || !negligible(cmulHF(row[L - 1], u6), limit))
    return false;
  if (!negligible(cmulHF(horner(e->taylor + (L - 2) * L, 1, u), v5), limit) ||
      !negligible(cmulHF(horner(e->taylor + (L - 1) * L, 1, u), v6), limit))
    return false;
  HFLOATCOMPLEX Pu = hornerprime(row, 1, u);
  HFLOATCOMPLEX Pv = horner(rowv, 1, u);
  out->delta = cdivHF(P, t1);
  // At the period's end the orbit is back at 0 and z is delta itself. A
  // point that left the radius on the way stays outside it, so an end
  // outside it means an escape inside the period, which only steps can
  // count; where the table is the whole polynomial (short periods) its
  // terms say nothing of that.
  if (!lessHF(cabsHFs(out->delta), HFd(4.0))) return false;
  // d(delta')/d(delta) = t1 Pu 2 delta; d(delta')/dc = Pv scalec / t1.
  HFLOATCOMPLEX ddelta = cmulHF(cmulHF(t1, Pu), cldexpHF(delta, 1));
  if (delta.mantissax == 0 && delta.mantissay == 0) ddelta = CZEROH;
  out->d = cmulHF(ddelta, d);
  if constexpr (!JULIA) out->d = caddHF(out->d, cmulHF(Pv, D2));
  out->Z = addHF(mulHF(cabsHFs(ddelta), Z), cabsHFs(out->delta));
  return true;
}

// ---------------------------------------------------------------- the cubic start

// The job's cubic at dc: the state at `interpoliter`, unless its start
// point is already outside.
template <typename T>
void cubicstart(typename T::CANVAS* canvas, const ENVIRONMENT* e, typename T::COMPLEX dc,
                typename T::CVALUE* cvalue, ITER* maxiter, const KERNELCONST<T>& k) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  ITER ip = cubiciter<T>(canvas, e);
  if (ip <= 0 || static_cast<UITER>(ip) <= cvalue->iter) return;
  const HFLOATCOMPLEX* t = &canvas->__worker->hdata[JOB_INTERPOLTAYLOR];
  HFLOATCOMPLEX x = N::ctoHF(dc);
  HFLOATCOMPLEX value = caddHF(cmulHF(caddHF(cmulHF(caddHF(cmulHF(t[3], x), t[2]), x), t[1]), x), t[0]);
  HFLOATCOMPLEX slope = caddHF(
      cmulHF(caddHF(cmulHF(cmulHF2(t[3], HFd(3.0)), x), cmulHF2(t[2], HFd(2.0))), x), t[1]);
  typename T::COMPLEX delta = N::cfromHF(value);
  typename T::COMPLEX X;
  typename T::FLOAT a;
  envsample<T>(e, static_cast<UITER>(ip), &X, &a);
  typename T::FLOAT dl = N::abss(delta);
  bool escaped = N::less(k.near4, N::abss(N::cadd(X, delta))) && exactescape<T>(X, a, delta, dl);
  if (!escaped) {
    if (ip > *maxiter) return;
    canvas->statskipped += ip - static_cast<ITER>(cvalue->iter);
    cvalue->iter = static_cast<UITER>(ip);
    cvalue->value = delta;
    cvalue->d = N::cfromHF(cmulHF2(slope, canvas->dfactor));
    cvalue->Z = N::zero();
  } else if (ip > *maxiter) {
    // Followed to its true escape, past the series' reach.
    *maxiter = ip;
  }
}

// Does the Julia orbit of a start point go on from the orbit's start where
// the environment's orbit ends? Where that orbit is the critical one (z_0 =
// 0, the job's parameter being the environment's), any z is a deviation of
// z_0 = 0, and the point goes round the same orbit again. The orbit of a
// Julia view's centre starts elsewhere and ends in the plain kernel.
template <typename T>
bool juliawraps(const ENVIRONMENT* e) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::COMPLEX X0;
  typename T::FLOAT a0;
  envsample<T>(e, 0, &X0, &a0);
  return !N::less(N::zero(), N::abss(X0));
}

// May a period jump pass the trap unseen? The trap is looked at after each
// jump only, so a jump is taken where the trap's centre is the orbit's
// start (an attracting cycle through 0: the nucleus's own), and otherwise
// the orbit goes step by step, each step tested.
template <typename T>
bool jumppassestrap(const KERNELCONST<T>& k, typename T::COMPLEX X0) {
  return k.trap && !k.trapped(X0);
}

// ---------------------------------------------------------------- runs along the period

// The canvas's table of linear runs for `e`, made on first use: parameters
// lie within the canvas's reach of the environment's point (the Julia
// kernels have none). A trap is looked at after every step, so a Julia
// orbit with one goes step by step.
template <typename T, bool JULIA>
const PERIODSTRIDES* stridesfor(typename T::CANVAS* canvas, const ENVIRONMENT* e,
                                const KERNELCONST<T>& k) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  if (JULIA && k.trap) return nullptr;
  if (!canvas->strides) {
    canvas->strides = static_cast<PERIODSTRIDES*>(std::calloc(1, sizeof(PERIODSTRIDES)));
    if (!canvas->strides) return nullptr;
  }
  // Made for this job already: its reach is the canvas's, which the job does
  // not change, so the kernel of every later vertex only looks.
  if (canvas->strides->e == e) return canvas->strides->levels > 0 ? canvas->strides : nullptr;
  HFLOAT reach = ZEROH;
  if constexpr (!JULIA) {
    // The canvas is 2^(4 - depth) on a side: its far corner is less than
    // twice that from its origin.
    reach = addHF(cabsHF(N::ctoHF(envorigin<T>(canvas, e))),
                  canvasmodel::NUM<HFLOAT>::pow2(5 - canvas->depth));
  }
  return makeperiodstrides(canvas->strides, e, reach) ? canvas->strides : nullptr;
}

// Passes the longest linear run from orbit index j at once; false, with
// nothing changed, when there is none, or when its end would cross the
// derivative bound or fail the rounding test, which the steps then find
// where they happen.
template <typename T, bool JULIA>
bool takestride(typename T::CANVAS* canvas, const ENVIRONMENT* e, const PERIODSTRIDES* s,
                const KERNELCONST<T>& k, typename T::COMPLEX dc, UITER period, UITER end,
                bool testprecision, PERTURB<T>* p, typename T::COMPLEX* X, UITER* n, UITER* j) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  UITER steps = 0;
  const UITER room = std::min(period - *j, end - *n);
  const PERIODSTRIDE* r;
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>)
    r = longestperiodstride(s, *j, room, N::abss(p->delta), &steps);
  else
    r = longestperiodstride(s, *j, room, static_cast<long double>(N::abss(p->delta)), &steps);
  if (!r) return false;
  const HFLOATCOMPLEX delta = N::ctoHF(p->delta);
  HFLOATCOMPLEX delta1 = cmulHF(r->A, delta);
  HFLOATCOMPLEX d1 = cmulHF(r->A, N::ctoHF(p->d));
  if constexpr (!JULIA) {
    delta1 = caddHF(delta1, cmulHF(r->B, N::ctoHF(dc)));
    d1 = caddHF(d1, cmulHF(r->B, N::ctoHF(k.DC)));
  }
  // The noise carried grows with the derivative; the run adds its own
  // rounding and what it leaves out, each about one step's rounding.
  HFLOAT Z1 = addHF(mulHF(cabsHFs(r->A), N::toHF(p->Z)), ldexpHF(cabsHFs(delta1), 1));
  UITER j1 = *j + steps;
  if (j1 == period) j1 = 0;
  typename T::COMPLEX X1;
  typename T::FLOAT a1;
  envsample<T>(e, j1, &X1, &a1);
  PERTURB<T> q;
  q.start(X1, N::cfromHF(delta1), N::cfromHF(d1), N::fromHF(Z1));
  if (k.pastbound(q.d, q.L)) return false;
  if (testprecision && N::less(N::mul(N::abss(q.d), k.Zfactor), q.Z)) return false;
  *p = q;
  *X = X1;
  *n += steps;
  *j = j1;
  canvas->statskipped += steps;
  return true;
}

}  // namespace

// The seed's critical orbit a Julia job carries beside its view's own.
template <typename T>
const ENVIRONMENT* seedorbitof(const typename T::CANVAS* canvas) {
  if (!canvas->__worker) return nullptr;
  return static_cast<const ENVIRONMENT*>(canvas->__worker->pdata[JOB_SEEDORBIT]);
}

// The kernel over the orbit `e`. A Julia point going round the seed's
// critical orbit `e` from step `base` on (where its view's orbit ended)
// stands at sample (n - base) mod the orbit's length.
template <typename T, bool JULIA, bool SAT>
int envkernel(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
              typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced, int idepth,
              const ENVIRONMENT* e, UITER base) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typedef typename T::COMPLEX COMPLEX;
  typedef typename T::FLOAT FLOAT;
  const bool haveorbit = e && e->n > 0 &&
                         (std::is_same_v<FLOAT, HFLOAT> ? e->refdatah != nullptr
                                                        : e->refdatad != nullptr);
  const KERNELCONST<T> k(canvas, forced, JULIA);
  if (!haveorbit) {
    // Without an orbit the difference to it is z itself.
    cvalue->flags = CV_ABSOLUTE;
    return absolutekernel<T, JULIA>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                    idepth);
  }
  const UITER period = e->n;
  const COMPLEX dc = JULIA ? N::czero() : N::cadd(envorigin<T>(canvas, e), gridoffset<T>(canvas, x, y));
  if constexpr (!JULIA) cubicstart<T>(canvas, e, dc, cvalue, &maxiter, k);

  UITER n = cvalue->iter;
  COMPLEX X;
  FLOAT a;
  // A Julia orbit that goes round the critical orbit again keeps its place
  // in it as n mod the orbit's length.
  const bool wrap = JULIA && !SAT && juliawraps<T>(e);
  const ENVIRONMENT* seed = JULIA && !SAT && !wrap ? seedorbitof<T>(canvas) : nullptr;
  if (!SAT && !wrap && n >= period) {
    // A state at the orbit's end is a deviation of its last sample; one
    // past it, of the seed's orbit, which it has gone on along.
    if (seed && n == period && static_cast<UITER>(maxiter) <= n) return CALC_MORE;
    if (n == period) {
      envsample<T>(e, n, &X, &a);
      cvalue->value = N::cadd(X, cvalue->value);
    }
    if (seed)
      return envkernel<T, JULIA, false>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                        idepth, seed, period);
    cvalue->flags = CV_ABSOLUTE;
    return absolutekernel<T, JULIA>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                    idepth);
  }
  const bool testprecision = (canvas->flags & CF_HPCORRECT) != 0;
  const UITER end = static_cast<UITER>(maxiter);
  UITER j = SAT ? n % period : wrap ? (n - base) % period : n;  // the sample's index
  envsample<T>(e, j, &X, &a);
  PERTURB<T> p, q;
  p.start(X, cvalue->value, cvalue->d, cvalue->Z);
  HFLOATCOMPLEX v = CZEROH;
  if constexpr (SAT && !JULIA) v = cmulHF(e->scalec, N::ctoHF(dc));
  bool mayjump = true;
  if constexpr (SAT && JULIA) {
    COMPLEX X0;
    FLOAT a0;
    envsample<T>(e, 0, &X0, &a0);
    mayjump = !jumppassestrap<T>(k, X0);
  }
  const PERIODSTRIDES* strides = nullptr;
  if constexpr (SAT) strides = stridesfor<T, JULIA>(canvas, e, k);
  // Where the difference is too large for a run, another try waits a few
  // steps, more each time, so that points far from linear pay little.
  UITER nexttry = n, backoff = 1;
  while (n < end) {
    if (k.pastbound(p.d, p.L)) {
      cvalue->Z = p.Z;
      storestate<T>(cvalue, n, p.z, p.d, CV_ABSOLUTE);
      return CALC_BOUND;
    }
    if constexpr (SAT) {
      if (strides && j != 0 && n >= nexttry) {
        UITER n0 = n;
        if (takestride<T, JULIA>(canvas, e, strides, k, dc, period, end, testprecision, &p, &X, &n,
                                 &j)) {
          backoff = 1;
          if ((n >> 8) != (n0 >> 8) && jobstopped<T>(canvas)) return CALC_MORE;
          continue;
        }
        nexttry = n + backoff;
        if (backoff < 64) backoff <<= 1;
      }
    }
    if constexpr (SAT) {
      JUMP jp;
      if (j == 0 && mayjump && end - n >= period &&
          periodjump<JULIA>(e, N::ctoHF(p.delta), v, N::ctoHF(p.d), N::toHF(p.Z),
                            canvas->dfactor2, &jp)) {
        UITER n1 = n + period;
        canvas->statskipped += period;
        p.start(X, N::cfromHF(jp.delta), N::cfromHF(jp.d), N::fromHF(jp.Z));
        // Back at the cycle's point 0 after the period: where the seed's
        // attractor is caught, it is caught here, the steps passed counted.
        // Untested, a nucleus's start points jumped on to the limit.
        if (JULIA && k.trapped(p.z)) {
          storestate<T>(cvalue, n1, p.z, p.d, CV_INFTY | CV_ESCAPED);
          return CALC_DONE;
        }
        // The stop flag is polled as for the iterations passed.
        bool crossed = (n1 >> 8) != (n >> 8);
        n = n1;
        if (crossed && jobstopped<T>(canvas)) return CALC_MORE;
        continue;
      }
    }
    UITER j1 = j + 1;
    if (SAT && j1 == period) j1 = 0;
    COMPLEX X1;
    FLOAT a1;
    envsample<T>(e, j1, &X1, &a1);
    int r = p.template step<JULIA>(k, X, X1, a1, dc, testprecision, &q);
    if (r == STEP_ESCAPED) {
      storestate<T>(cvalue, n, p.z, p.d, CV_ABSOLUTE | CV_ESCAPED);
      return CALC_DONE;
    }
    if (r == STEP_TRAPPED) {
      storestate<T>(cvalue, n + 1, q.z, q.d, CV_INFTY | CV_ESCAPED);
      return CALC_DONE;
    }
    if (r == STEP_PRECISION) {
      int f = precisionfailure<T, JULIA>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                         idepth, nullptr, n, p.z, p.d);
      if (f >= 0) return f;
    }
    p = q;
    X = X1;
    j = j1;
    n++;
    if ((n & 255) == 0 && jobstopped<T>(canvas)) return CALC_MORE;
    if (wrap && j == period) {
      // Round the critical orbit again: z itself is the deviation of z_0.
      j = 0;
      envsample<T>(e, 0, &X, &a);
      p.start(X, p.z, p.d, p.Z);
      continue;
    }
    if (!SAT && n == period) {
      // The environment's orbit ends here. Deep down the format cannot
      // carry the point's own orbit once it comes back near 0, so a vertex
      // that may become a reference does; otherwise absolute from now on.
      // A Julia view's orbit ends where it meets the seed's attractor or
      // escapes; a tile that corrects through the stack hands its points on
      // to the stack there, whose levels follow the seed's critical orbit.
      // Absolute, the seed is rounded, and next to an atom smaller than
      // that rounding every point went on to the same count.
      if (JULIA && !forced && (canvas->flags & CF_JULIACORRECT)) {
        cvalue->Z = p.Z;
        storestate<T>(cvalue, n, p.z, p.d, CV_ABSOLUTE);
        return CALC_BOUND;
      }
      // Without the stack the point goes on along the seed's critical
      // orbit, where the job carries it.
      if (seed) {
        cvalue->iter = n;
        cvalue->value = p.delta;
        cvalue->d = p.d;
        cvalue->Z = p.Z;
        cvalue->flags = 0;
        return envkernel<T, JULIA, SAT>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                        idepth, e, base);
      }
      if (testprecision && self != -1 && idepth < NCANVASLEVEL - 1) {
        // The state here, not the one the call began with: the canvas
        // keeps a checkpoint of the environment at its end, so the vertex
        // becomes a reference from this iteration on instead of running
        // its whole orbit again from z = 0.
        if constexpr (!JULIA) {
          cvalue->iter = n;
          cvalue->value = p.delta;
          cvalue->d = p.d;
          cvalue->Z = p.Z;
        }
        int f = precisionfailure<T, JULIA>(context, canvas, x, y, self, cvalue, maxiter, ii,
                                           forced, idepth, nullptr, n, p.z, p.d);
        if (f >= 0) return f;
      }
      cvalue->Z = p.Z;
      storestate<T>(cvalue, n, p.z, p.d, CV_ABSOLUTE);
      return absolutekernel<T, JULIA>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                      idepth);
    }
  }
  cvalue->iter = n;
  cvalue->value = p.delta;
  cvalue->d = p.d;
  cvalue->Z = p.Z;
  return CALC_MORE;
}

template <typename T>
int calcitergeneralnonsat(typename T::CANVAS* canvas, int x, int y, int self,
                          typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced,
                          int idepth) {
  return envkernel<T, false, false>(nullptr, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                    idepth, jobenvironment<T>(canvas), 0);
}

template <typename T>
int calcitergeneralsat(typename T::CANVAS* canvas, int x, int y, int self,
                       typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced,
                       int idepth) {
  return envkernel<T, false, true>(nullptr, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                   idepth, jobenvironment<T>(canvas), 0);
}

template <typename T>
int calciterjulianonsat(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
                        typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced,
                        int idepth) {
  return envkernel<T, true, false>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                   idepth, jobenvironment<T>(canvas), 0);
}

template <typename T>
int calciterjuliasat(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
                     typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced, int idepth) {
  return envkernel<T, true, true>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                  idepth, jobenvironment<T>(canvas), 0);
}

#define ORVANTA_INSTANTIATE(T)                                                                 \
  template int calcitergeneralnonsat<T>(T::CANVAS*, int, int, int, T::CVALUE*, ITER, int*,    \
                                        bool, int);                                            \
  template int calcitergeneralsat<T>(T::CANVAS*, int, int, int, T::CVALUE*, ITER, int*, bool, \
                                     int);                                                     \
  template int calciterjulianonsat<T>(OVCONTEXT*, T::CANVAS*, int, int, int, T::CVALUE*, ITER, \
                                      int*, bool, int);                                        \
  template int calciterjuliasat<T>(OVCONTEXT*, T::CANVAS*, int, int, int, T::CVALUE*, ITER,    \
                                   int*, bool, int);
ORVANTA_INSTANTIATE(CANVASTEMPLATE_float)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_double)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_longdouble)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_hfloat)
#undef ORVANTA_INSTANTIATE

}  // namespace canvaskernels
