// canvas/period.cpp: the escape and period tests, once over the number format,
// and their instantiations for float, double, long double and HFLOAT.
#include "canvas/period.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace canvasperiod {

namespace {

// ---------------------------------------------------------------- arithmetic
//
// Thresholds come in as double and are compared in the format itself: a
// multiplier of a long cycle, or the parameter derivative of a long orbit,
// overflows a double long before it overflows HFLOAT.

template <typename FLOAT>
using PNUM = canvasmodel::NUM<FLOAT>;

constexpr double TWOPI = 6.283185307179586476925286766559;

// Periods a call tries; the angle search's products are kept below this too.
constexpr ITER MAXPERIOD = 0x7FFFFFFF;

// Convergence of Newton, relative to the squared distance of |m|^2 from 1:
// a multiplier on the unit circle converges slowly and is left undecided.
constexpr double NEWTONTOLERANCE = 1e-6;
constexpr int NEWTONSTEPS = 30;
constexpr int NCONVERGENTS = 100;
constexpr int RECURSIVESTART = 25;

// The near-return criterion of `inftytest` and its call budget.
constexpr double RETURNFACTOR = 0.1;
constexpr double RETURNBOUND = 4;
constexpr int MAXCANDIDATES = 128;
constexpr double ESCAPERADIUS2 = 4;
constexpr double DISTANCERADIUS2 = 100000;

constexpr unsigned int EXPANDEDBIT = 4096;

template <typename T>
ITER anglesearch(int depth, typename T::COMPLEX* cc, ITER period, ITER maxiter, int recursive,
                 typename T::INFTYDATA* data, unsigned int* flags, typename T::COMPLEX m,
                 typename T::FLOAT* d, typename T::FLOAT* dj, typename T::COMPLEX* d1,
                 typename T::COMPLEX* d2, int* ii) {
  typedef PNUM<typename T::FLOAT> N;
  double angle = N::arg(m);
  double sign = angle < 0 ? -1.0 : 1.0;
  double t = std::fabs(angle) / TWOPI;
  auto mm = N::abss(m);

  // Convergents of t = 1/(a_0 + 1/(a_1 + ...)), seeded so that the first is
  // 1/a_0; a ring of four keeps the two predecessors the recurrence needs.
  // Slot 2 holds index -2 and slot 3 index -1.
  int64_t p[4] = {0, 0, 1, 0};
  int64_t q[4] = {0, 0, 0, 1};
  for (int j = 0; j < NCONVERGENTS; j++) {
    // t_j = 0 has no further convergent: the angle is rational and done.
    if (!(t > 0) || 1 / t >= 0x1p62) return 0;
    double inv = 1 / t;
    double a = std::floor(inv);
    t = inv - a;
    int64_t ai = static_cast<int64_t>(a);
    int k = j & 3, k1 = (j + 3) & 3, k2 = (j + 2) & 3;
    p[k] = ai * p[k1] + p[k2];
    q[k] = ai * q[k1] + q[k2];
    // Denominators only grow: once q * P is out of reach, every later one is.
    if (q[k] <= 0 || q[k] > (static_cast<int64_t>(maxiter) - 1) / period) return 0;
    double qd = static_cast<double>(q[k]);
    double r = 1.5 / (qd * qd);
    if (N::less(N::fromd((1 + 2 * r) * (1 + 2 * r)), mm)) return 0;
    double theta = sign * TWOPI * static_cast<double>(p[k] % q[k]) / qd;
    auto centre = N::cfromd((1 + r) * std::cos(theta), (1 + r) * std::sin(theta));
    if (N::less(N::abss(N::csub(m, centre)), N::fromd(r * r))) {
      ITER res = checkperiod<T>(depth, cc, static_cast<ITER>(q[k] * period), maxiter,
                                recursive - 1, false, data, flags, d, dj, d1, d2, ii);
      if (res != 0) return res;
    }
  }
  return 0;
}

}  // namespace

// ---------------------------------------------------------------- the calci family

template <typename T>
void calci(typename T::COMPLEX x, typename T::COMPLEX c, ITER iter, typename T::COMPLEX* xx,
           typename T::COMPLEX* dxx) {
  typedef PNUM<typename T::FLOAT> N;
  if (iter < 1) {
    *xx = N::czero();
    *dxx = N::czero();
    return;
  }
  // The cycle equation: the orbit and its multiplier less the start.
  calci3<T>(x, c, iter, xx, dxx);
  *xx = N::csub(*xx, x);
  *dxx = N::csub(*dxx, N::creal(N::fromd(1)));
}

template <typename T>
void calci2(typename T::COMPLEX x, ITER iter, typename T::COMPLEX* xx, typename T::COMPLEX* dxx) {
  typedef PNUM<typename T::FLOAT> N;
  auto one = N::creal(N::fromd(1));
  auto z = x;
  auto p = one;
  for (ITER i = 0; i < iter; i++) {
    p = N::cadd(N::ctwice(N::cmul(z, p)), one);
    z = N::cadd(N::csqr(z), x);
  }
  *xx = z;
  *dxx = p;
}

template <typename T>
void calci3(typename T::COMPLEX x, typename T::COMPLEX c, ITER iter, typename T::COMPLEX* xx,
            typename T::COMPLEX* dxx) {
  typedef PNUM<typename T::FLOAT> N;
  auto z = x;
  auto m = N::creal(N::fromd(1));
  for (ITER i = 0; i < iter; i++) {
    m = N::ctwice(N::cmul(z, m));
    z = N::cadd(N::csqr(z), c);
  }
  *xx = z;
  *dxx = m;
}

template <typename T>
void calci4(typename T::COMPLEX x, typename T::COMPLEX c, ITER iter, typename T::COMPLEX* xx,
            typename T::COMPLEX* dxx, typename T::COMPLEX* ddxx, typename T::COMPLEX* d2xx,
            typename T::COMPLEX* dd2xx) {
  typedef PNUM<typename T::FLOAT> N;
  auto one = N::creal(N::fromd(1));
  auto z = x;
  auto m = one;          // dz/dx
  auto p = N::czero();   // dz/dc
  auto e = N::czero();   // d2z/dx2
  auto g = N::czero();   // d2z/dx dc
  for (ITER i = 0; i < iter; i++) {
    // All from the values before this step.
    auto g1 = N::ctwice(N::cadd(N::cmul(m, p), N::cmul(z, g)));
    auto e1 = N::ctwice(N::cadd(N::csqr(m), N::cmul(z, e)));
    auto p1 = N::cadd(N::ctwice(N::cmul(z, p)), one);
    auto m1 = N::ctwice(N::cmul(z, m));
    z = N::cadd(N::csqr(z), c);
    m = m1;
    p = p1;
    e = e1;
    g = g1;
  }
  if (iter < 1) {
    *xx = N::czero();
    *dxx = N::czero();
  } else {
    *xx = N::csub(z, x);
    *dxx = N::csub(m, one);
  }
  *ddxx = p;
  *d2xx = e;
  *dd2xx = g;
}

// ---------------------------------------------------------------- checkperiod

template <typename T>
ITER checkperiod(int depth, typename T::COMPLEX* cc, ITER iter, ITER maxiter, int recursive,
                 bool divisorcheck, typename T::INFTYDATA* data, unsigned int* flags,
                 typename T::FLOAT* d, typename T::FLOAT* dj, typename T::COMPLEX* d1,
                 typename T::COMPLEX* d2, int* ii) {
  typedef PNUM<typename T::FLOAT> N;
  typedef typename T::COMPLEX COMPLEX;
  const ITER period = iter;
  if (period <= 0 || period >= maxiter) return 0;

  unsigned int localflags = 0;
  if (data && !flags) flags = &localflags;

  // A period already searched at this vertex or a neighbour is not searched
  // again: its stored multiplier goes straight to the angle search, once.
  if (data) {
    int found = -1;
    for (int k = data->ipdata - 1; k >= 0; k--)
      if (data->pditer[k] == period) {
        found = k;
        break;
      }
    if (found >= 0) {
      unsigned int bit = EXPANDEDBIT << found;
      if (*flags & bit) return 0;
      if (recursive == 0) return 0;
      *flags |= bit;
      COMPLEX m = N::cadd(N::creal(N::fromd(1)), data->pdvalue[found]);
      return anglesearch<T>(depth, cc, period, maxiter, recursive, data, flags, m, d, dj, d1, d2,
                            ii);
    }
    // No room to keep what a search would find: the vertex has spent its
    // budget of periods, and the angle search of a neutral m finds nothing.
    if (data->ipdata >= NPDATA) {
      if (recursive == 0) return 0;
      *flags |= EXPANDEDBIT;
      return anglesearch<T>(depth, cc, period, maxiter, recursive, data, flags,
                            N::creal(N::fromd(1)), d, dj, d1, d2, ii);
    }
  }

  const COMPLEX c = *cc;
  const COMPLEX one = N::creal(N::fromd(1));
  const bool second = d != nullptr || d2 != nullptr;
  COMPLEX z = c;
  COMPLEX m = one, mold = one;
  COMPLEX p = N::czero(), e = N::czero(), g = N::czero();
  COMPLEX h = N::czero();  // the last Newton step
  bool converged = false;
  for (int step = 0; step < NEWTONSTEPS; step++) {
    COMPLEX f, gm1;
    if (second) calci4<T>(z, c, period, &f, &gm1, &p, &e, &g);
    else calci<T>(z, c, period, &f, &gm1);
    m = N::cadd(gm1, one);
    COMPLEX delta = N::cdiv(f, gm1);
    COMPLEX znew = N::csub(z, delta);
    if (N::bad(delta) || N::bad(znew)) return 0;
    auto zz = N::abss(znew);
    if (N::less(N::fromd(4), zz) || N::less(zz, N::abss(delta))) return 0;
    h = N::csub(znew, z);
    z = znew;
    if (step > 0) {
      auto s = N::sub(N::abss(m), N::fromd(1));
      auto tolerance = N::mul(N::mul(s, s), N::fromd(NEWTONTOLERANCE));
      if (N::less(N::abss(N::csub(m, mold)), tolerance)) {
        converged = true;
        break;
      }
    }
    mold = m;
  }
  if (!converged) return 0;

  const auto mm = N::abss(m);
  const bool attracting = !N::less(N::fromd(1), mm);
  if (attracting) {
    *cc = z;
    if (d1) *d1 = m;
    if (second) {
      // The derivatives were taken at the point before the last Newton step;
      // one step of their own Taylor series carries them to the cycle point.
      COMPLEX ms = N::cadd(m, N::cmul(e, h));
      COMPLEX ps = N::cadd(p, N::cmul(g, h));
      // F(z*(c), c) = z*(c) gives dz*/dc = F_c / (1 - F_z).
      COMPLEX dz = N::cdiv(ps, N::csub(one, ms));
      if (d2) *d2 = dz;
      if (d) {
        // The multiplier's change along the cycle point's motion.
        COMPLEX dm = N::cadd(g, N::cmul(e, dz));
        *d = N::div(N::mul(N::sub(N::fromd(1), N::root(mm)), N::fromd(2)), N::absc(dm));
      }
    }
  }

  if (data && data->ipdata < NPDATA) {
    int k = data->ipdata;
    data->pditer[k] = period;
    data->pdvalue[k] = N::csub(m, one);
    *flags &= ~(EXPANDEDBIT << k);
    data->ipdata = k + 1;
  }

  if (!attracting) {
    if (recursive == 0) return 0;
    return anglesearch<T>(depth, cc, period, maxiter, recursive, data, flags, m, d, dj, d1, d2,
                          ii);
  }

  if (!divisorcheck) return period;
  // The same cycle traversed a whole number of times is also a cycle of
  // period P; its least period is a divisor at which the walk comes back to
  // within one grid step with an attracting multiplier of its own.
  const auto step2 = N::pow2(2 * depth);
  COMPLEX zk = z, mk = one;
  for (ITER k = 1; k < period; k++) {
    mk = N::ctwice(N::cmul(zk, mk));
    zk = N::cadd(N::csqr(zk), c);
    if (period % k != 0) continue;
    if (N::less(N::abss(N::csub(zk, z)), step2) && !N::less(N::fromd(1), N::abss(mk))) return k;
  }
  return period;
}

// ---------------------------------------------------------------- inftytest

template <typename T>
ITER inftytest(int depth, typename T::COMPLEX* cc, ITER maxiter, typename T::FLOAT* d,
               typename T::FLOAT* dj, typename T::COMPLEX* d1, typename T::COMPLEX* d2, int* ii) {
  typedef PNUM<typename T::FLOAT> N;
  typedef typename T::COMPLEX COMPLEX;

  ITER r = checkperiod<T>(depth, cc, 1, MAXPERIOD, RECURSIVESTART, false, nullptr, nullptr, d, dj,
                          d1, d2, ii);
  if (r != 0 || maxiter < 1) return r;

  const COMPLEX c = *cc;
  const COMPLEX one = N::creal(N::fromd(1));
  const auto escape = N::fromd(ESCAPERADIUS2);
  const auto far = N::fromd(DISTANCERADIUS2);
  const auto factor = N::fromd(RETURNFACTOR);
  const auto bound = N::fromd(RETURNBOUND);
  const auto half = N::fromd(0.5);
  COMPLEX z = c, p = one, q = N::czero(), m = one;
  auto L = N::abss(z);
  int candidates = 0;
  ITER i = 0;
  for (;; i++) {
    if (N::less(escape, L) && !d) {
      *cc = z;
      if (dj) {
        auto v = N::mul(N::mul(N::root(L), N::ln(L)), half);
        *dj = N::root(N::div(v, N::absc(m)));
      }
      return -i;
    }
    if (N::less(far, L)) break;
    if (i + 1 == maxiter) return 0;
    COMPLEX q1 = N::ctwice(N::cadd(N::csqr(p), N::cmul(z, q)));
    COMPLEX p1 = N::cadd(N::ctwice(N::cmul(z, p)), one);
    COMPLEX m1 = N::ctwice(N::cmul(z, m));
    z = N::cadd(N::csqr(z), c);
    p = p1;
    q = q1;
    m = m1;
    L = N::abss(z);
    if (i >= 1) {
      // Near a return to the critical point the orbit's parameter
      // derivative is large against its curvature and the orbit is small
      // against its own derivative: the next iteration closes a cycle.
      auto pp = N::abss(p);
      auto crit = N::sub(N::mul(N::abss(q), L), N::mul(factor, N::mul(pp, pp)));
      if (N::negative(crit) && N::less(N::mul(N::abss(m), L), bound)) {
        COMPLEX cl = c;
        r = checkperiod<T>(depth, &cl, i + 2, MAXPERIOD, RECURSIVESTART, false, nullptr, nullptr,
                           d, dj, d1, d2, ii);
        if (r != 0) {
          *cc = cl;
          return r;
        }
        if (++candidates > MAXCANDIDATES) return 0;
      }
    }
  }

  *cc = z;
  auto v = N::mul(N::mul(N::root(L), N::ln(L)), half);
  if (d) *d = N::div(v, N::absc(p));
  if (dj) *dj = N::root(N::div(v, N::absc(m)));
  return -i;
}

// ---------------------------------------------------------------- instantiations

using Tf = CANVASTEMPLATE_float;
using Td = CANVASTEMPLATE_double;
using Tl = CANVASTEMPLATE_longdouble;
using Th = CANVASTEMPLATE_hfloat;

template void calci<Tf>(Tf::COMPLEX, Tf::COMPLEX, ITER, Tf::COMPLEX*, Tf::COMPLEX*);
template void calci<Td>(Td::COMPLEX, Td::COMPLEX, ITER, Td::COMPLEX*, Td::COMPLEX*);
template void calci<Tl>(Tl::COMPLEX, Tl::COMPLEX, ITER, Tl::COMPLEX*, Tl::COMPLEX*);
template void calci<Th>(Th::COMPLEX, Th::COMPLEX, ITER, Th::COMPLEX*, Th::COMPLEX*);

template void calci2<Tf>(Tf::COMPLEX, ITER, Tf::COMPLEX*, Tf::COMPLEX*);
template void calci2<Td>(Td::COMPLEX, ITER, Td::COMPLEX*, Td::COMPLEX*);
template void calci2<Tl>(Tl::COMPLEX, ITER, Tl::COMPLEX*, Tl::COMPLEX*);
template void calci2<Th>(Th::COMPLEX, ITER, Th::COMPLEX*, Th::COMPLEX*);

template void calci3<Tf>(Tf::COMPLEX, Tf::COMPLEX, ITER, Tf::COMPLEX*, Tf::COMPLEX*);
template void calci3<Td>(Td::COMPLEX, Td::COMPLEX, ITER, Td::COMPLEX*, Td::COMPLEX*);
template void calci3<Tl>(Tl::COMPLEX, Tl::COMPLEX, ITER, Tl::COMPLEX*, Tl::COMPLEX*);
template void calci3<Th>(Th::COMPLEX, Th::COMPLEX, ITER, Th::COMPLEX*, Th::COMPLEX*);

template void calci4<Tf>(Tf::COMPLEX, Tf::COMPLEX, ITER, Tf::COMPLEX*, Tf::COMPLEX*, Tf::COMPLEX*,
                         Tf::COMPLEX*, Tf::COMPLEX*);
template void calci4<Td>(Td::COMPLEX, Td::COMPLEX, ITER, Td::COMPLEX*, Td::COMPLEX*, Td::COMPLEX*,
                         Td::COMPLEX*, Td::COMPLEX*);
template void calci4<Tl>(Tl::COMPLEX, Tl::COMPLEX, ITER, Tl::COMPLEX*, Tl::COMPLEX*, Tl::COMPLEX*,
                         Tl::COMPLEX*, Tl::COMPLEX*);
template void calci4<Th>(Th::COMPLEX, Th::COMPLEX, ITER, Th::COMPLEX*, Th::COMPLEX*, Th::COMPLEX*,
                         Th::COMPLEX*, Th::COMPLEX*);

template ITER checkperiod<Tf>(int, Tf::COMPLEX*, ITER, ITER, int, bool, Tf::INFTYDATA*,
                              unsigned int*, Tf::FLOAT*, Tf::FLOAT*, Tf::COMPLEX*, Tf::COMPLEX*,
                              int*);
template ITER checkperiod<Td>(int, Td::COMPLEX*, ITER, ITER, int, bool, Td::INFTYDATA*,
                              unsigned int*, Td::FLOAT*, Td::FLOAT*, Td::COMPLEX*, Td::COMPLEX*,
                              int*);
template ITER checkperiod<Tl>(int, Tl::COMPLEX*, ITER, ITER, int, bool, Tl::INFTYDATA*,
                              unsigned int*, Tl::FLOAT*, Tl::FLOAT*, Tl::COMPLEX*, Tl::COMPLEX*,
                              int*);
template ITER checkperiod<Th>(int, Th::COMPLEX*, ITER, ITER, int, bool, Th::INFTYDATA*,
                              unsigned int*, Th::FLOAT*, Th::FLOAT*, Th::COMPLEX*, Th::COMPLEX*,
                              int*);

template ITER inftytest<Tf>(int, Tf::COMPLEX*, ITER, Tf::FLOAT*, Tf::FLOAT*, Tf::COMPLEX*,
                            Tf::COMPLEX*, int*);
template ITER inftytest<Td>(int, Td::COMPLEX*, ITER, Td::FLOAT*, Td::FLOAT*, Td::COMPLEX*,
                            Td::COMPLEX*, int*);
template ITER inftytest<Tl>(int, Tl::COMPLEX*, ITER, Tl::FLOAT*, Tl::FLOAT*, Tl::COMPLEX*,
                            Tl::COMPLEX*, int*);
template ITER inftytest<Th>(int, Th::COMPLEX*, ITER, Th::FLOAT*, Th::FLOAT*, Th::COMPLEX*,
                            Th::COMPLEX*, int*);

}  // namespace canvasperiod
