// canvas/kernels_absolute.cpp: the plain Mandelbrot kernels, which hold z
// itself: one with the derivative, for derivative channels and the bound, and
// one with the count only, for shallow tiles without derivative channels.
#include "canvas/kernels.h"

#include "canvas/kernelsupport.h"

namespace canvaskernels {

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

  UITER iter = cvalue->iter;
  COMPLEX z = cvalue->value;
  COMPLEX d = cvalue->d;
  FLOAT L = N::abss(z);
  while (iter < limit) {
    FLOAT bound = N::less(L, B) ? B : L;
    if (N::less(bound, N::abss(d))) {
      storestate<T>(cvalue, iter, z, d, CV_ABSOLUTE);
      return CALC_BOUND;
    }
    COMPLEX z1 = N::cadd(N::csqr(z), c);
    FLOAT L1 = N::abss(z1);
    if (N::less(N::fromd(4.0), L1)) {
      storestate<T>(cvalue, iter, z, d, CV_ABSOLUTE | CV_ESCAPED);
      return CALC_DONE;
    }
    d = N::cadd(N::cmul(N::ctwice(z), d), DC);
    z = z1;
    L = L1;
    iter++;
    if ((iter & 255) == 0 && jobstopped<T>(canvas)) return CALC_MORE;
  }
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

  UITER iter = cvalue->iter;
  COMPLEX z = cvalue->value;
  while (iter < limit) {
    COMPLEX z1 = N::cadd(N::csqr(z), c);
    FLOAT L1 = N::abss(z1);
    if (N::less(N::fromd(4.0), L1)) {
      storestate<T>(cvalue, iter, z, cvalue->d, CV_ABSOLUTE | CV_ESCAPED);
      return CALC_DONE;
    }
    z = z1;
    iter++;
    if ((iter & 255) == 0 && jobstopped<T>(canvas)) return CALC_MORE;
  }
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
