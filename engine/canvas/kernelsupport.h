// canvas/kernelsupport.h: small pieces every kernel shares, private to the
// kernel files.
#pragma once

#include <gmp.h>

#include <atomic>
#include <type_traits>

#include "../environment.h"
#include "model.h"

namespace canvaskernels {

// ---------------------------------------------------------------- the tally of new orbits

// What the vertices that took an orbit of their own cost, counted over the
// whole process (every canvas and thread): the counts are exact and decide
// whether a deep tile repeats the same high-precision work many times.
struct ORBITTALLY {
  std::atomic<long> made{0};       // `makeref` made an orbit of the state
  std::atomic<long> nocheckpoint{0};  // refused: no checkpoint of the environment at the state
  std::atomic<long> followed{0};   // refused: a state still follows the vertex's orbit
  std::atomic<long> selfrelative{0};  // refused: the state is relative to its own vertex
  std::atomic<long> shared{0};     // `restartref` took a neighbour's orbit from z = 0
  std::atomic<long> restarted{0};  // `restartref` made an orbit of its own from z = 0
  std::atomic<long> hpiterations{0};  // iterations at full precision that extended orbits
  std::atomic<long> endedabsolute{0};  // states that outlived their vertex's orbit, absolute on
  std::atomic<long> madeatorbitend{0};  // states that outlived it and became references there
  std::atomic<long> widened{0};  // absolute double orbits whose rounding could decide an
                                 // escape, followed again from z = 0 in long double
  void clear() {
    for (std::atomic<long>* c : {&made, &nocheckpoint, &followed, &selfrelative, &shared,
                                 &restarted, &hpiterations, &endedabsolute,
                                 &madeatorbitend, &widened})
      c->store(0);
  }
};

ORBITTALLY& orbittally();

// The step exponent of the grid: a grid step is 2^s.
template <typename T>
inline int gridshift(const typename T::CANVAS* canvas) {
  return 4 - canvas->depth - canvas->canvassizeshift;
}

// (x, y) * 2^s. Grid coordinates are exact in single precision, and the
// product is exact in every format.
template <typename T>
inline typename T::COMPLEX gridoffset(const typename T::CANVAS* canvas, int x, int y) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  return N::cscaled(static_cast<int>(static_cast<float>(x)),
                    static_cast<int>(static_cast<float>(y)), N::pow2(gridshift<T>(canvas)));
}

// Writes the resumable part of a state; `Z`, `ref`, `data` and `hpvalue` are
// the caller's.
template <typename T>
inline void storestate(typename T::CVALUE* cvalue, UITER iter, typename T::COMPLEX z,
                       typename T::COMPLEX d, unsigned int flags) {
  cvalue->iter = iter;
  cvalue->value = z;
  cvalue->d = d;
  cvalue->flags = flags;
}

// ---------------------------------------------------------------- parts and products

template <typename T>
inline typename T::FLOAT re(typename T::COMPLEX z) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) return crealHF(z);
  else return z.real();
}
template <typename T>
inline typename T::FLOAT im(typename T::COMPLEX z) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) return cimagHF(z);
  else return z.imag();
}
template <typename T>
inline typename T::COMPLEX cmake(typename T::FLOAT x, typename T::FLOAT y) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) return cHF(x, y);
  else return typename T::COMPLEX(x, y);
}

// The square and |z|^2 from the same two products.
template <typename T>
inline typename T::COMPLEX csqrlen(typename T::COMPLEX z, typename T::FLOAT* len) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) return csqrlenHF(z, len);
  else return csqrlenT(z, len);
}

// A complex value from an mpf pair, part by part.
template <typename T>
inline typename T::COMPLEX cfrommpf(mpf_srcptr x, mpf_srcptr y) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  return cmake<T>(N::frommpf(x), N::frommpf(y));
}

// |X + delta|^2 - 4 >= 0, from the margin a = 4 - |X|^2 of the sample:
// |delta|^2 - a + 2 Re(conj(X) delta), free of the cancellation in |X + delta|^2.
template <typename T>
inline bool exactescape(typename T::COMPLEX X, typename T::FLOAT a, typename T::COMPLEX delta,
                        typename T::FLOAT deltalen) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::FLOAT cross = N::add(N::mul(re<T>(X), re<T>(delta)), N::mul(im<T>(X), im<T>(delta)));
  typename T::FLOAT s = N::add(N::sub(deltalen, a), N::add(cross, cross));
  return !N::negative(s);
}

// ---------------------------------------------------------------- the job

// The environment the job computes against, or null.
template <typename T>
inline const ENVIRONMENT* jobenvironment(const typename T::CANVAS* canvas) {
  if (!canvas->__worker) return nullptr;
  return static_cast<const ENVIRONMENT*>(canvas->__worker->pdata[JOB_ENVIRONMENT]);
}

// The Julia parameter of the job, as an mpf pair, or null.
inline const HPVALUE* jobjulia(const WORKER* worker) {
  if (!worker) return nullptr;
  return static_cast<const HPVALUE*>(worker->pdata[JOB_JULIA]);
}

// The iteration the job's cubic carries every point to, or 0 when there is
// none to take. The view's point may have jumped periods without a cubic of
// the state over the view having been made: all four terms are then 0, which
// no orbit gives (the state moves with the parameter). Started from it,
// every point stood on the reference after the jump, and a view next to a
// minibrot counted one period too many.
template <typename T>
inline ITER cubiciter(const typename T::CANVAS* canvas, const ENVIRONMENT* e) {
  const WORKER* w = canvas->__worker;
  if (!w || !e || !(canvas->flags & CF_GLOBALINTERPOL)) return 0;
  ITER ip = w->idata[JOB_INTERPOLITER];
  if (ip <= 0 || static_cast<UITER>(ip) > e->n) return 0;
  const HFLOATCOMPLEX* t = &w->hdata[JOB_INTERPOLTAYLOR];
  for (int i = 0; i < NINTERPOLTAYLOR; i++)
    if (t[i].mantissax != 0 || t[i].mantissay != 0) return ip;
  return 0;
}

// The canvas origin relative to the environment's point: kept as `cr` in the
// general realm, taken in mpf elsewhere.
template <typename T>
inline typename T::COMPLEX envorigin(typename T::CANVAS* canvas, const ENVIRONMENT* e) {
  if ((canvas->flags & CF_GENERAL) || !e || !e->c) return canvas->cr;
  mpf_sub(canvas->dummyvalue, canvas->c[0], e->c->v[0]);
  mpf_sub(canvas->dummysmall, canvas->c[1], e->c->v[1]);
  return cfrommpf<T>(canvas->dummyvalue, canvas->dummysmall);
}

// The absolute parameter of grid point (x, y). In the general realm `cf` is
// relative to the environment, whose point is added back.
template <typename T>
inline typename T::COMPLEX absolutec(const typename T::CANVAS* canvas, int x, int y) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typename T::COMPLEX c = N::cadd(canvas->cf, gridoffset<T>(canvas, x, y));
  if (canvas->flags & CF_GENERAL) {
    if (const ENVIRONMENT* e = jobenvironment<T>(canvas)) c = N::cadd(N::cfromHF(e->cf), c);
  }
  return c;
}

// Sample k of the environment's orbit in the format: the hfloat canvas reads
// the wide array, the others the double one.
//
// The margin a = 4 - |X|^2 is another matter for long double. Near the
// boundary of the disc it is as small as the deltas of the depth (an orbit
// next to -2 sits at 2 - 4^n eps), and past a depth of about a thousand it
// underflows in double to 0, which turns the exact escape test into a guess
// on the side of the delta: most points of a deep tile would then "escape"
// at their first step. Long double holds the margins of every depth it
// serves, so it takes them from the wide array. The value itself may round:
// its error is relative, as in any perturbation step.
template <typename T>
inline void envsample(const ENVIRONMENT* e, UITER k, typename T::COMPLEX* X,
                      typename T::FLOAT* a) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) {
    *X = e->refdatah[k].value;
    *a = e->refdatah[k].a;
  } else {
    const REFDATAD& r = e->refdatad[k];
    *X = cmake<T>(static_cast<typename T::FLOAT>(r.value.real()),
                  static_cast<typename T::FLOAT>(r.value.imag()));
    if constexpr (std::is_same_v<typename T::FLOAT, long double>) {
      *a = e->refdatah ? N::fromHF(e->refdatah[k].a) : N::fromd(r.a);
    } else {
      *a = N::fromd(r.a);
    }
  }
}

// The escape radius's cheap gate: the exact test runs only behind it.
template <typename T>
inline typename T::FLOAT nearfour() {
  return canvasmodel::NUM<typename T::FLOAT>::fromd(3.999999);
}

}  // namespace canvaskernels
