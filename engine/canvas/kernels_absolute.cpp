// canvas/kernels_absolute.cpp: the plain Mandelbrot kernels, which hold z
// itself: one with the derivative, for derivative channels and the bound, and
// one with the count only, for shallow tiles without derivative channels.
#include "canvas/kernels.h"

#include <complex>
#include <type_traits>

#include "canvas/kernelsupport.h"

namespace canvaskernels {

namespace {

// ---------------------------------------------------------------- rounding of z
//
// Where no environment stands behind the canvas, z itself is the orbit, and
// its rounding, carried along the long orbits next to the boundary, can
// decide an escape: in double an orbit that stays bounded for millions of
// steps "escapes" after 70,000, or one leaves a step early. The noise of z
// is estimated as the precision test of the difference kernels does,
// Z' = 4 |z|^2 Z + |z'|^2 + |c|^2 (the last term for the rounding of each
// addition of c), which puts it near u sqrt(Z) for the unit roundoff u of
// the format (a third of that on the orbits measured next to the boundary).
// An escape test whose margin | |z'|^2 - 4 | lies within ROUNDINGMARGIN
// u sqrt(Z) could go the other way. A double canvas then follows the point
// again from z = 0 in long double, whose result stands. Over an
// environment Z holds the difference's noise, and that orbit's tests decide.
constexpr double ROUNDINGMARGIN = 4;

template <typename FLOAT>
constexpr double unitroundoff() {
  if constexpr (std::is_same_v<FLOAT, float>) return 0x1p-24;
  else if constexpr (std::is_same_v<FLOAT, double>) return 0x1p-53;
  else if constexpr (std::is_same_v<FLOAT, long double>) return 0x1p-64;
  else return 0x1p-62;
}

template <typename FLOAT>
struct ROUNDINGWATCH {
  typedef canvasmodel::NUM<FLOAT> N;
  FLOAT C;     // |c|^2
  FLOAT P2;    // 1 / (ROUNDINGMARGIN u)^2
  FLOAT four;

  explicit ROUNDINGWATCH(FLOAT clen) {
    C = clen;
    const double p = 1 / (ROUNDINGMARGIN * unitroundoff<FLOAT>());
    P2 = N::fromd(p * p);
    four = N::fromd(4.0);
  }
  FLOAT next(FLOAT Z, FLOAT L, FLOAT L1) const {
    return N::add(N::add(N::mul(N::mul(four, L), Z), L1), C);
  }
  // The escape test on |z'|^2 = L1 may go either way under the noise Z1.
  bool ambiguous(FLOAT L1, FLOAT Z1) const {
    FLOAT m = N::sub(L1, four);
    return N::less(N::mul(P2, N::mul(m, m)), Z1);
  }
};

// Does a canvas of this format follow an uncertain orbit again in a wider
// one? Only double has a wider hardware format; float is only ever forced.
template <typename T>
constexpr bool WIDENS = std::is_same_v<typename T::FLOAT, double>;

// A state that goes on in long double. Without the derivative (the fast
// kernel, count only) its z is kept whole in the format's pair `value`, `d`
// (the nearest double and what is left), and Z, a noise estimate and never
// negative otherwise, says so: a vertex whose bounded orbit was followed in
// long double once goes on there, instead of again from z = 0 at each grant
// of the finite pass.
constexpr double WIDESTATE = -1;

template <typename T>
bool widestate(const typename T::CVALUE* cvalue) {
  return cvalue->Z < 0;
}

// The orbit of grid point (x, y) followed in long double up to `maxiter`,
// the parameter taken from the canvas's full-precision origin: from z = 0,
// or from a state kept in long double. With DERIVATIVE the derivative is
// followed too, and a state that stays bounded is written rounded to the
// format, its Z carrying the long double noise over plus the rounding of
// the stored z, so that a later call that goes on from it in the format is
// watched as before. On the job's stop the state stays as it came.
template <typename T, bool DERIVATIVE>
int widerrun(typename T::CANVAS* canvas, int x, int y, typename T::CVALUE* cvalue, ITER maxiter,
             bool forced) {
  typedef long double W;
  typedef std::complex<W> WC;
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  const W step = std::ldexp(static_cast<W>(1), gridshift<T>(canvas));
  const WC c(mpf_get_ld(canvas->c[0]) + static_cast<W>(x) * step,
             mpf_get_ld(canvas->c[1]) + static_cast<W>(y) * step);
  const W B = forced ? static_cast<W>(canvasmodel::NUM<FLOAT>::max())
                     : static_cast<W>(canvas->dbound);
  const WC DC(static_cast<W>(dlHF(canvas->dfactor)), 0);
  const ROUNDINGWATCH<W> watch(std::norm(c));
  const UITER limit = static_cast<UITER>(maxiter);

  // The state in the format: z, and d or what is left of z.
  auto store = [&](UITER iter, WC z, WC d, W Z, unsigned int flags) {
    COMPLEX zf(static_cast<FLOAT>(z.real()), static_cast<FLOAT>(z.imag()));
    if constexpr (DERIVATIVE) {
      const W r = unitroundoff<W>() / unitroundoff<FLOAT>();
      cvalue->Z = static_cast<FLOAT>(Z * r * r + std::norm(z));
      storestate<T>(cvalue, iter, zf, COMPLEX(static_cast<FLOAT>(d.real()), static_cast<FLOAT>(d.imag())),
                    flags);
    } else if (flags & CV_ESCAPED) {
      cvalue->Z = 0;
      storestate<T>(cvalue, iter, zf, cvalue->d, flags);
    } else {
      cvalue->Z = static_cast<FLOAT>(WIDESTATE);
      COMPLEX rest(static_cast<FLOAT>(z.real() - static_cast<W>(zf.real())),
                   static_cast<FLOAT>(z.imag() - static_cast<W>(zf.imag())));
      storestate<T>(cvalue, iter, zf, rest, flags);
    }
  };

  UITER iter = 0;
  WC z = 0, d = 0;
  W L = 0, Z = 0;
  if (!DERIVATIVE && widestate<T>(cvalue)) {
    iter = cvalue->iter;
    z = WC(static_cast<W>(cvalue->value.real()) + static_cast<W>(cvalue->d.real()),
           static_cast<W>(cvalue->value.imag()) + static_cast<W>(cvalue->d.imag()));
    L = std::norm(z);
  } else {
    orbittally().widened++;
  }
  while (iter < limit) {
    if constexpr (DERIVATIVE) {
      if (std::norm(d) > (L < B ? B : L)) {
        store(iter, z, d, Z, CV_ABSOLUTE);
        return CALC_BOUND;
      }
    }
    WC z1 = csqrT(z) + c;
    W L1 = std::norm(z1);
    if constexpr (DERIVATIVE) Z = watch.next(Z, L, L1);
    if (L1 > 4) {
      store(iter, z, d, Z, CV_ABSOLUTE | CV_ESCAPED);
      return CALC_DONE;
    }
    if constexpr (DERIVATIVE) {
      WC tz = z + z;
      d = WC(tz.real() * d.real() - tz.imag() * d.imag(), tz.real() * d.imag() + tz.imag() * d.real()) + DC;
    }
    z = z1;
    L = L1;
    iter++;
    if ((iter & 255) == 0 && jobstopped<T>(canvas)) return CALC_MORE;
  }
  store(iter, z, d, Z, CV_ABSOLUTE);
  return CALC_MORE;
}

// Where the canvas wants no derivative (CF_FAST: the dispatcher hands every
// state after the start to the full kernel all the same) the state is kept
// in long double; otherwise the derivative is followed and the orbit begins
// again from z = 0 whenever a grant ends bounded.
template <typename T>
int widen(typename T::CANVAS* canvas, int x, int y, typename T::CVALUE* cvalue, ITER maxiter,
          bool forced) {
  if (canvas->flags & CF_FAST) return widerrun<T, false>(canvas, x, y, cvalue, maxiter, forced);
  return widerrun<T, true>(canvas, x, y, cvalue, maxiter, forced);
}

}  // namespace

template <typename T>
int calciterabsolute(typename T::CANVAS* canvas, int x, int y, [[maybe_unused]] int self,
                     typename T::CVALUE* cvalue, ITER maxiter, [[maybe_unused]] int* ii,
                     bool forced, [[maybe_unused]] int idepth) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  const COMPLEX c = absolutec<T>(canvas, x, y);
  const FLOAT B = forced ? N::max() : canvas->dbound;
  const FLOAT D = N::fromHF(canvas->dfactor);
  const COMPLEX DC = N::creal(D);
  const UITER limit = static_cast<UITER>(maxiter);
  [[maybe_unused]] const bool watched = jobenvironment<T>(canvas) == nullptr;
  [[maybe_unused]] const ROUNDINGWATCH<FLOAT> watch(N::abss(c));

  if constexpr (WIDENS<T>) {
    if (watched && widestate<T>(cvalue)) return widen<T>(canvas, x, y, cvalue, maxiter, forced);
  }

  UITER iter = cvalue->iter;
  COMPLEX z = cvalue->value;
  COMPLEX d = cvalue->d;
  FLOAT L = N::abss(z);
  FLOAT Z = cvalue->Z;
  while (iter < limit) {
    FLOAT bound = N::less(L, B) ? B : L;
    if (N::less(bound, N::abss(d))) {
      cvalue->Z = Z;
      storestate<T>(cvalue, iter, z, d, CV_ABSOLUTE);
      return CALC_BOUND;
    }
    COMPLEX z1 = N::cadd(N::csqr(z), c);
    FLOAT L1 = N::abss(z1);
    if constexpr (WIDENS<T>) {
      if (watched) {
        Z = watch.next(Z, L, L1);
        if (watch.ambiguous(L1, Z)) return widen<T>(canvas, x, y, cvalue, maxiter, forced);
      }
    }
    if (N::less(N::fromd(4.0), L1)) {
      cvalue->Z = Z;
      storestate<T>(cvalue, iter, z, d, CV_ABSOLUTE | CV_ESCAPED);
      return CALC_DONE;
    }
    d = N::cadd(N::cmul(N::ctwice(z), d), DC);
    z = z1;
    L = L1;
    iter++;
    if ((iter & 255) == 0 && jobstopped<T>(canvas)) return CALC_MORE;
  }
  cvalue->Z = Z;
  storestate<T>(cvalue, iter, z, d, CV_ABSOLUTE);
  return CALC_MORE;
}

template <typename T>
int calciterabsolutefast(typename T::CANVAS* canvas, int x, int y, [[maybe_unused]] int self,
                         typename T::CVALUE* cvalue, ITER maxiter, [[maybe_unused]] int* ii,
                         [[maybe_unused]] bool forced, [[maybe_unused]] int idepth) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  const COMPLEX c = absolutec<T>(canvas, x, y);
  const UITER limit = static_cast<UITER>(maxiter);
  [[maybe_unused]] const bool watched = jobenvironment<T>(canvas) == nullptr;
  [[maybe_unused]] const ROUNDINGWATCH<FLOAT> watch(N::abss(c));

  if constexpr (WIDENS<T>) {
    if (watched && widestate<T>(cvalue))
      return widerrun<T, false>(canvas, x, y, cvalue, maxiter, forced);
  }

  UITER iter = cvalue->iter;
  COMPLEX z = cvalue->value;
  [[maybe_unused]] FLOAT L = N::abss(z);
  FLOAT Z = cvalue->Z;
  while (iter < limit) {
    COMPLEX z1 = N::cadd(N::csqr(z), c);
    FLOAT L1 = N::abss(z1);
    if constexpr (WIDENS<T>) {
      if (watched) {
        Z = watch.next(Z, L, L1);
        if (watch.ambiguous(L1, Z))
          return widerrun<T, false>(canvas, x, y, cvalue, maxiter, forced);
      }
      L = L1;
    }
    if (N::less(N::fromd(4.0), L1)) {
      cvalue->Z = Z;
      storestate<T>(cvalue, iter, z, cvalue->d, CV_ABSOLUTE | CV_ESCAPED);
      return CALC_DONE;
    }
    z = z1;
    iter++;
    if ((iter & 255) == 0 && jobstopped<T>(canvas)) return CALC_MORE;
  }
  cvalue->Z = Z;
  storestate<T>(cvalue, iter, z, cvalue->d, CV_ABSOLUTE);
  return CALC_MORE;
}

#define ORVANTA_INSTANTIATE(T)                                                               \
  template int calciterabsolute<T>(T::CANVAS*, int, int, int, T::CVALUE*, ITER, int*, bool, \
                                   int);                                                     \
  template int calciterabsolutefast<T>(T::CANVAS*, int, int, int, T::CVALUE*, ITER, int*,   \
                                       bool, int);
ORVANTA_INSTANTIATE(CANVASTEMPLATE_float)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_double)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_longdouble)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_hfloat)
#undef ORVANTA_INSTANTIATE

}  // namespace canvaskernels
