// canvas/period.cpp: the escape and period tests, once over the number format,
// and their instantiations for float, double, long double and HFLOAT.
#include "canvas/period.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

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

// Coefficients of the environment's map as a polynomial in z: the even
// powers up to twice the largest order of the series.
constexpr int NGENERALPOLY = 2 * NTAYLORDEGREE - 1;

// ---------------------------------------------------------------- maps
//
// The tests are written once over the map they iterate. QUADMAP is z^2 + c;
// GENMAP is the polynomial of an environment's period series at one c. A map
// supplies the Newton start (the critical value), P iterations with their
// derivatives (the calci family), one step with the multiplier, and one
// orbit step with the parameter derivatives that `inftytest` watches.

template <typename T>
struct QUADMAP {
  typedef PNUM<typename T::FLOAT> N;
  typedef typename T::COMPLEX COMPLEX;
  COMPLEX c;

  COMPLEX start() const { return c; }
  void cycle(COMPLEX z, ITER period, COMPLEX* f, COMPLEX* gm1) const {
    calci<T>(z, c, period, f, gm1);
  }
  void cycle4(COMPLEX z, ITER period, COMPLEX* f, COMPLEX* gm1, COMPLEX* p, COMPLEX* e,
              COMPLEX* g) const {
    calci4<T>(z, c, period, f, gm1, p, e, g);
  }
  void step(COMPLEX* z, COMPLEX* m) const {
    *m = N::ctwice(N::cmul(*z, *m));
    *z = N::cadd(N::csqr(*z), c);
  }
  void orbitstart(COMPLEX* z, COMPLEX* p, COMPLEX* q) const {
    *z = c;
    *p = N::creal(N::fromd(1));
    *q = N::czero();
  }
  void orbitstep(COMPLEX* z, COMPLEX* p, COMPLEX* q, COMPLEX* m) const {
    COMPLEX q1 = N::ctwice(N::cadd(N::csqr(*p), N::cmul(*z, *q)));
    COMPLEX p1 = N::cadd(N::ctwice(N::cmul(*z, *p)), N::creal(N::fromd(1)));
    *m = N::ctwice(N::cmul(*z, *m));
    *z = N::cadd(N::csqr(*z), c);
    *p = p1;
    *q = q1;
  }
  bool bad(COMPLEX z) const { return N::bad(z); }
  typename T::FLOAT gridstep2(int depth) const { return N::pow2(2 * depth); }
};

// A value of the wide format in a narrower one, held below the format's
// largest value instead of running into infinity.
template <typename T>
typename T::FLOAT clampfromHF(HFLOAT h) {
  typedef typename T::FLOAT FLOAT;
  if constexpr (!std::is_same_v<FLOAT, HFLOAT>) {
    if (h.mantissa != 0 && ilogbHF(h) >= std::numeric_limits<FLOAT>::max_exponent - 2)
      return PNUM<FLOAT>::max();
  }
  return PNUM<FLOAT>::fromHF(h);
}

// Value, first and second derivative of sum v_k z^k, k < np, by Horner.
template <typename T>
void horner(const typename T::COMPLEX* v, int np, typename T::COMPLEX z, typename T::COMPLEX* f,
            typename T::COMPLEX* f1, typename T::COMPLEX* f2) {
  typedef PNUM<typename T::FLOAT> N;
  typename T::COMPLEX b = N::czero(), db = N::czero(), ddb = N::czero();
  for (int k = np - 1; k >= 0; k--) {
    if (f2) ddb = N::cadd(N::cmul(ddb, z), N::ctwice(db));
    db = N::cadd(N::cmul(db, z), b);
    b = N::cadd(N::cmul(b, z), v[k]);
  }
  *f = b;
  if (f1) *f1 = db;
  if (f2) *f2 = ddb;
}

template <typename T>
struct GENMAP {
  typedef PNUM<typename T::FLOAT> N;
  typedef typename T::COMPLEX COMPLEX;
  // The map and its first and second derivatives in the parameter, each a
  // polynomial in z of np coefficients.
  COMPLEX v[NGENERALPOLY], dv[NGENERALPOLY], ddv[NGENERALPOLY];
  int np;
  typename T::FLOAT grid2;

  COMPLEX start() const { return v[0]; }
  void cycle(COMPLEX z, ITER period, COMPLEX* f, COMPLEX* gm1) const {
    calcigeneral<T>(z, v, np, period, f, gm1);
  }
  void cycle4(COMPLEX z, ITER period, COMPLEX* f, COMPLEX* gm1, COMPLEX* p, COMPLEX* e,
              COMPLEX* g) const {
    calcigeneral4<T>(z, v, dv, np, period, f, gm1, p, e, g);
  }
  void step(COMPLEX* z, COMPLEX* m) const {
    COMPLEX f, f1;
    horner<T>(v, np, *z, &f, &f1, nullptr);
    *m = N::cmul(f1, *m);
    *z = f;
  }
  void orbitstart(COMPLEX* z, COMPLEX* p, COMPLEX* q) const {
    *z = v[0];
    *p = dv[0];
    *q = ddv[0];
  }
  void orbitstep(COMPLEX* z, COMPLEX* p, COMPLEX* q, COMPLEX* m) const {
    COMPLEX f, fz, fzz, fc, fcz, fcc;
    horner<T>(v, np, *z, &f, &fz, &fzz);
    horner<T>(dv, np, *z, &fc, &fcz, nullptr);
    horner<T>(ddv, np, *z, &fcc, nullptr, nullptr);
    // Second parameter derivative of P(z(c), c).
    COMPLEX q1 = N::cadd(N::cadd(N::cmul(fzz, N::csqr(*p)), N::ctwice(N::cmul(fcz, *p))),
                         N::cadd(N::cmul(fz, *q), fcc));
    COMPLEX p1 = N::cadd(N::cmul(fz, *p), fc);
    *m = N::cmul(fz, *m);
    *z = f;
    *p = p1;
    *q = q1;
  }
  bool bad(COMPLEX z) const {
    if constexpr (std::is_same_v<COMPLEX, HFLOATCOMPLEX>) return cisnanHF(z);
    else return N::bad(z);
  }
  typename T::FLOAT gridstep2(int) const { return grid2; }
};

// Forward: the angle search recurses into the period test of its own map.
template <typename T, typename MAP>
ITER periodcore(const MAP& map, int depth, typename T::COMPLEX* cc, ITER iter, ITER maxiter,
                int recursive, bool divisorcheck, typename T::INFTYDATA* data, unsigned int* flags,
                typename T::FLOAT* d, typename T::COMPLEX* d1, typename T::COMPLEX* d2);

template <typename T, typename MAP>
ITER anglesearch(const MAP& map, int depth, typename T::COMPLEX* cc, ITER period, ITER maxiter,
                 int recursive, bool divisorcheck, typename T::INFTYDATA* data,
                 unsigned int* flags, typename T::COMPLEX m, typename T::FLOAT* d,
                 typename T::COMPLEX* d1, typename T::COMPLEX* d2) {
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
      // A bulb's period q P may also be a multiple of the point's own least
      // period (the search started from a multiplier that was not its
      // cycle's): the caller's reduction goes with it.
      ITER res = periodcore<T>(map, depth, cc, static_cast<ITER>(q[k] * period), maxiter,
                               recursive - 1, divisorcheck, data, flags, d, d1, d2);
      if (res != 0) return res;
    }
  }
  return 0;
}

// ---------------------------------------------------------------- the period test

template <typename T, typename MAP>
ITER periodcore(const MAP& map, int depth, typename T::COMPLEX* cc, ITER iter, ITER maxiter,
                int recursive, bool divisorcheck, typename T::INFTYDATA* data, unsigned int* flags,
                typename T::FLOAT* d, typename T::COMPLEX* d1, typename T::COMPLEX* d2) {
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
      return anglesearch<T>(map, depth, cc, period, maxiter, recursive, divisorcheck, data,
                            flags, m, d, d1, d2);
    }
    // No room to keep what a search would find: the vertex has spent its
    // budget of periods, and the angle search of a neutral m finds nothing.
    if (data->ipdata >= NPDATA) {
      if (recursive == 0) return 0;
      *flags |= EXPANDEDBIT;
      return anglesearch<T>(map, depth, cc, period, maxiter, recursive, divisorcheck, data,
                            flags, N::creal(N::fromd(1)), d, d1, d2);
    }
  }

  const COMPLEX one = N::creal(N::fromd(1));
  const bool second = d != nullptr || d2 != nullptr;
  COMPLEX z = map.start();
  COMPLEX m = one, mold = one;
  COMPLEX p = N::czero(), e = N::czero(), g = N::czero();
  COMPLEX h = N::czero();  // the last Newton step
  bool converged = false;
  for (int step = 0; step < NEWTONSTEPS; step++) {
    COMPLEX f, gm1;
    if (second) map.cycle4(z, period, &f, &gm1, &p, &e, &g);
    else map.cycle(z, period, &f, &gm1);
    m = N::cadd(gm1, one);
    COMPLEX delta = N::cdiv(f, gm1);
    COMPLEX znew = N::csub(z, delta);
    if (map.bad(delta) || map.bad(znew)) return 0;
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
    return anglesearch<T>(map, depth, cc, period, maxiter, recursive, divisorcheck, data, flags,
                          m, d, d1, d2);
  }

  if (!divisorcheck) return period;
  // The same cycle traversed a whole number of times is also a cycle of
  // period P; its least period is a divisor at which the walk comes back to
  // within one grid step with an attracting multiplier of its own.
  const auto step2 = map.gridstep2(depth);
  COMPLEX zk = z, mk = one;
  for (ITER k = 1; k < period; k++) {
    map.step(&zk, &mk);
    if (period % k != 0) continue;
    if (N::less(N::abss(N::csub(zk, z)), step2) && !N::less(N::fromd(1), N::abss(mk))) return k;
  }
  return period;
}

// ---------------------------------------------------------------- the orbit test

template <typename T, typename MAP>
ITER inftycore(const MAP& map, int depth, typename T::COMPLEX* cc, ITER maxiter,
               const volatile bool* stop, typename T::FLOAT* d, typename T::FLOAT* dj,
               typename T::COMPLEX* d1, typename T::COMPLEX* d2) {
  typedef PNUM<typename T::FLOAT> N;
  typedef typename T::COMPLEX COMPLEX;

  ITER r = periodcore<T>(map, depth, cc, 1, MAXPERIOD, RECURSIVESTART, false, nullptr, nullptr,
                         d, d1, d2);
  if (r != 0 || maxiter < 1) return r;

  const COMPLEX one = N::creal(N::fromd(1));
  const auto escape = N::fromd(ESCAPERADIUS2);
  const auto far = N::fromd(DISTANCERADIUS2);
  const auto factor = N::fromd(RETURNFACTOR);
  const auto bound = N::fromd(RETURNBOUND);
  const auto half = N::fromd(0.5);
  COMPLEX z, p, q, m = one;
  map.orbitstart(&z, &p, &q);
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
    if (stop && (i & 255) == 255 && *stop) return 0;
    map.orbitstep(&z, &p, &q, &m);
    L = N::abss(z);
    if (i >= 1) {
      // Near a return to the critical point the orbit's parameter
      // derivative is large against its curvature and the orbit is small
      // against its own derivative: the next iteration closes a cycle.
      auto pp = N::abss(p);
      auto crit = N::sub(N::mul(N::abss(q), L), N::mul(factor, N::mul(pp, pp)));
      if (N::negative(crit) && N::less(N::mul(N::abss(m), L), bound)) {
        // The candidate may be a multiple of the cycle's period: Newton on
        // the multiple converges where the cycle's own multiplier lies too
        // near the unit circle, so the result is brought to the least period.
        COMPLEX cl = *cc;
        r = periodcore<T>(map, depth, &cl, i + 2, MAXPERIOD, RECURSIVESTART, true, nullptr,
                          nullptr, d, d1, d2);
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

// ---------------------------------------------------------------- the environment's map
//
// The normalised period series says t1 T(dz, dc) = sum taylor[i + 7j]
// (t1^2 dz)^i X^j with X = scalec dc. A start w at the reference's index 0,
// where z_0 = 0, is the start dz = w^2 one iteration on, so with u = t1 w one
// period is u -> sum_i v_i(X) u^(2i), v_i(X) = sum_j taylor[i + 7j] X^j:
// u^2 + X and higher terms, the Mandelbrot map again in normalised
// coordinates. GENMAP works in (u, X); lengths go back by 1/t1 in z and by
// 1/scalec in c.

struct GENSCALE {
  HFLOATCOMPLEX t1;      // scalez
  HFLOATCOMPLEX scalec;
};

template <typename T>
bool makegenmap(GENMAP<T>* map, GENSCALE* scale, const ENVIRONMENT* e, typename T::COMPLEX c,
                int prec, int depth) {
  typedef PNUM<typename T::FLOAT> N;
  if (!e || !(e->flags & E_SERIES) || prec < 1) return false;
  if (prec > NTAYLORDEGREE) prec = NTAYLORDEGREE;
  HFLOATCOMPLEX X = cmulHF(N::ctoHF(c), e->scalec);
  map->np = 2 * prec - 1;
  for (int k = 0; k < map->np; k++) {
    map->v[k] = N::czero();
    map->dv[k] = N::czero();
    map->ddv[k] = N::czero();
  }
  for (int i = 0; i < prec; i++) {
    HFLOATCOMPLEX b = CZEROH, db = CZEROH, ddb = CZEROH;
    for (int j = NTAYLORDEGREE - 1; j >= 0; j--) {
      ddb = caddHF(cmulHF(ddb, X), caddHF(db, db));
      db = caddHF(cmulHF(db, X), b);
      b = caddHF(cmulHF(b, X), e->taylor[i + NTAYLORDEGREE * j]);
    }
    map->v[2 * i] = N::cfromHF(b);
    map->dv[2 * i] = N::cfromHF(db);
    map->ddv[2 * i] = N::cfromHF(ddb);
  }
  scale->t1 = e->scalez;
  scale->scalec = e->scalec;
  // One grid step 2^depth in z, in units of u.
  HFLOAT grid = mulHF(cabsHFs(e->scalez), HFLOAT{HFLOATBASE(1) << 61, 2 * depth + 1});
  map->grid2 = clampfromHF<T>(grid);
  return true;
}

// The outputs of the normalised test in the plane's own units.
template <typename T>
void genoutputs(const GENSCALE& s, typename T::COMPLEX* cc, typename T::FLOAT* d,
                typename T::FLOAT* dj, typename T::COMPLEX* d2, bool interior) {
  typedef PNUM<typename T::FLOAT> N;
  if (cc) *cc = N::cfromHF(cdivHF(N::ctoHF(*cc), s.t1));
  if (d) *d = clampfromHF<T>(divHF(N::toHF(*d), cabsHF(s.scalec)));
  if (dj && !interior) *dj = clampfromHF<T>(divHF(N::toHF(*dj), sqrtHF(cabsHF(s.t1))));
  if (d2 && interior)
    *d2 = N::cfromHF(cmulHF(N::ctoHF(*d2), cdivHF(s.scalec, s.t1)));
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

// ---------------------------------------------------------------- the general family

template <typename T>
void calcigeneral(typename T::COMPLEX x, const typename T::COMPLEX* v, int prec, ITER iter,
                  typename T::COMPLEX* xx, typename T::COMPLEX* dxx) {
  typedef PNUM<typename T::FLOAT> N;
  typedef typename T::COMPLEX COMPLEX;
  const COMPLEX one = N::creal(N::fromd(1));
  if (iter < 1) {
    *xx = N::czero();
    *dxx = N::czero();
    return;
  }
  COMPLEX z = x, m = one;
  for (ITER i = 0; i < iter; i++) {
    COMPLEX f, f1;
    horner<T>(v, prec, z, &f, &f1, nullptr);
    m = N::cmul(f1, m);
    z = f;
  }
  *xx = N::csub(z, x);
  *dxx = N::csub(m, one);
}

template <typename T>
void calcigeneral2(const typename T::COMPLEX* v, const typename T::COMPLEX* dv, int prec,
                   ITER iter, typename T::COMPLEX* xx, typename T::COMPLEX* dxx) {
  typedef PNUM<typename T::FLOAT> N;
  typedef typename T::COMPLEX COMPLEX;
  COMPLEX z = prec > 0 ? v[0] : N::czero();
  COMPLEX p = prec > 0 ? dv[0] : N::czero();
  for (ITER i = 0; i < iter; i++) {
    COMPLEX f, f1, fc;
    horner<T>(v, prec, z, &f, &f1, nullptr);
    horner<T>(dv, prec, z, &fc, nullptr, nullptr);
    p = N::cadd(N::cmul(f1, p), fc);
    z = f;
  }
  *xx = z;
  *dxx = p;
}

template <typename T>
void calcigeneral4(typename T::COMPLEX x, const typename T::COMPLEX* v,
                   const typename T::COMPLEX* dv, int prec, ITER iter, typename T::COMPLEX* xx,
                   typename T::COMPLEX* dxx, typename T::COMPLEX* ddxx, typename T::COMPLEX* d2xx,
                   typename T::COMPLEX* dd2xx) {
  typedef PNUM<typename T::FLOAT> N;
  typedef typename T::COMPLEX COMPLEX;
  const COMPLEX one = N::creal(N::fromd(1));
  COMPLEX z = x;
  COMPLEX m = one;         // dz/dx
  COMPLEX p = N::czero();  // dz/dc
  COMPLEX e = N::czero();  // d2z/dx2
  COMPLEX g = N::czero();  // d2z/dx dc
  for (ITER i = 0; i < iter; i++) {
    COMPLEX f, fz, fzz, fc, fcz;
    horner<T>(v, prec, z, &f, &fz, &fzz);
    horner<T>(dv, prec, z, &fc, &fcz, nullptr);
    // All from the values before this step.
    COMPLEX g1 = N::cadd(N::cadd(N::cmul(N::cmul(fzz, m), p), N::cmul(fcz, m)), N::cmul(fz, g));
    COMPLEX e1 = N::cadd(N::cmul(fzz, N::csqr(m)), N::cmul(fz, e));
    COMPLEX p1 = N::cadd(N::cmul(fz, p), fc);
    m = N::cmul(fz, m);
    z = f;
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

// ---------------------------------------------------------------- the tests

template <typename T>
ITER checkperiod(int depth, typename T::COMPLEX* cc, ITER iter, ITER maxiter, int recursive,
                 bool divisorcheck, typename T::INFTYDATA* data, unsigned int* flags,
                 typename T::FLOAT* d, typename T::FLOAT*, typename T::COMPLEX* d1,
                 typename T::COMPLEX* d2, int*) {
  QUADMAP<T> map{*cc};
  return periodcore<T>(map, depth, cc, iter, maxiter, recursive, divisorcheck, data, flags, d, d1,
                       d2);
}

template <typename T>
ITER inftytest(int depth, typename T::COMPLEX* cc, ITER maxiter, typename T::FLOAT* d,
               typename T::FLOAT* dj, typename T::COMPLEX* d1, typename T::COMPLEX* d2, int*) {
  QUADMAP<T> map{*cc};
  return inftycore<T>(map, depth, cc, maxiter, nullptr, d, dj, d1, d2);
}

template <typename T>
ITER checkperiodgeneral(int depth, typename T::COMPLEX* c, const ENVIRONMENT* e, int prec,
                        ITER iter, ITER maxiter, int recursive, bool divisorcheck,
                        typename T::INFTYDATA* data, unsigned int* flags, typename T::FLOAT* d,
                        typename T::FLOAT*, typename T::COMPLEX* d1, typename T::COMPLEX* d2,
                        int*) {
  GENMAP<T> map;
  GENSCALE scale;
  if (!makegenmap<T>(&map, &scale, e, *c, prec, depth)) return 0;
  typename T::COMPLEX cu = *c;
  ITER r = periodcore<T>(map, depth, &cu, iter, maxiter, recursive, divisorcheck, data, flags, d,
                         d1, d2);
  if (r > 0) {
    genoutputs<T>(scale, &cu, d, nullptr, d2, true);
    *c = cu;
  }
  return r;
}

template <typename T>
ITER inftytestgeneral(int depth, typename T::COMPLEX* c, const ENVIRONMENT* e, int prec,
                      ITER maxiter, const volatile bool* stop, typename T::FLOAT* d,
                      typename T::FLOAT* dj, typename T::COMPLEX* d1, typename T::COMPLEX* d2,
                      int*) {
  GENMAP<T> map;
  GENSCALE scale;
  if (!makegenmap<T>(&map, &scale, e, *c, prec, depth)) return 0;
  typename T::COMPLEX cu = *c;
  ITER r = inftycore<T>(map, depth, &cu, maxiter, stop, d, dj, d1, d2);
  if (r != 0) {
    genoutputs<T>(scale, &cu, d, dj, d2, r > 0);
    *c = cu;
  }
  return r;
}

// ---------------------------------------------------------------- instantiations

#define PERIOD_INSTANTIATE(TT)                                                                    \
  template void calci<TT>(TT::COMPLEX, TT::COMPLEX, ITER, TT::COMPLEX*, TT::COMPLEX*);            \
  template void calci2<TT>(TT::COMPLEX, ITER, TT::COMPLEX*, TT::COMPLEX*);                        \
  template void calci3<TT>(TT::COMPLEX, TT::COMPLEX, ITER, TT::COMPLEX*, TT::COMPLEX*);           \
  template void calci4<TT>(TT::COMPLEX, TT::COMPLEX, ITER, TT::COMPLEX*, TT::COMPLEX*,            \
                           TT::COMPLEX*, TT::COMPLEX*, TT::COMPLEX*);                             \
  template void calcigeneral<TT>(TT::COMPLEX, const TT::COMPLEX*, int, ITER, TT::COMPLEX*,        \
                                 TT::COMPLEX*);                                                   \
  template void calcigeneral2<TT>(const TT::COMPLEX*, const TT::COMPLEX*, int, ITER,              \
                                  TT::COMPLEX*, TT::COMPLEX*);                                    \
  template void calcigeneral4<TT>(TT::COMPLEX, const TT::COMPLEX*, const TT::COMPLEX*, int, ITER, \
                                  TT::COMPLEX*, TT::COMPLEX*, TT::COMPLEX*, TT::COMPLEX*,         \
                                  TT::COMPLEX*);                                                  \
  template ITER checkperiod<TT>(int, TT::COMPLEX*, ITER, ITER, int, bool, TT::INFTYDATA*,         \
                                unsigned int*, TT::FLOAT*, TT::FLOAT*, TT::COMPLEX*,              \
                                TT::COMPLEX*, int*);                                              \
  template ITER inftytest<TT>(int, TT::COMPLEX*, ITER, TT::FLOAT*, TT::FLOAT*, TT::COMPLEX*,      \
                              TT::COMPLEX*, int*);                                                \
  template ITER checkperiodgeneral<TT>(int, TT::COMPLEX*, const ENVIRONMENT*, int, ITER, ITER,    \
                                       int, bool, TT::INFTYDATA*, unsigned int*, TT::FLOAT*,      \
                                       TT::FLOAT*, TT::COMPLEX*, TT::COMPLEX*, int*);             \
  template ITER inftytestgeneral<TT>(int, TT::COMPLEX*, const ENVIRONMENT*, int, ITER,            \
                                     const volatile bool*, TT::FLOAT*, TT::FLOAT*, TT::COMPLEX*,  \
                                     TT::COMPLEX*, int*);

PERIOD_INSTANTIATE(CANVASTEMPLATE_float)
PERIOD_INSTANTIATE(CANVASTEMPLATE_double)
PERIOD_INSTANTIATE(CANVASTEMPLATE_longdouble)
PERIOD_INSTANTIATE(CANVASTEMPLATE_hfloat)

#undef PERIOD_INSTANTIATE

}  // namespace canvasperiod
