// canvas/kernels_julia.cpp: the plain Julia kernel, z <- z^2 + c with c the
// job's Julia parameter. The derivative is with respect to the start point,
// so it has no constant term; a Julia point whose parameter has an
// attracting cycle may end in the attractor trap, an interior outcome.
#include "canvas/kernels_perturb.h"

namespace canvaskernels {

namespace {

// The job's Julia parameter in the format; 0 for a job without one.
template <typename T>
typename T::COMPLEX juliaparameter(const typename T::CANVAS* canvas) {
  const HPVALUE* j = jobjulia(canvas->__worker);
  if (!j) return canvasmodel::NUM<typename T::FLOAT>::czero();
  return cfrommpf<T>(j->v[0], j->v[1]);
}

}  // namespace

template <typename T>
int calciterjuliaabsolute(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
                          typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced,
                          int idepth) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  const KERNELCONST<T> k(canvas, forced, true);
  const COMPLEX c = juliaparameter<T>(canvas);
  const bool testprecision = (canvas->flags & CF_HPCORRECT) && cvalue->ref != self;
  const UITER limit = static_cast<UITER>(maxiter);

  UITER iter = cvalue->iter;
  COMPLEX z = cvalue->value;
  COMPLEX d = cvalue->d;
  FLOAT Z = cvalue->Z;
  FLOAT L;
  COMPLEX zsq = csqrlen<T>(z, &L);
  while (iter < limit) {
    if (k.pastbound(d, L)) {
      cvalue->Z = Z;
      storestate<T>(cvalue, iter, z, d, CV_ABSOLUTE);
      return CALC_BOUND;
    }
    COMPLEX z1 = N::cadd(zsq, c);
    FLOAT L1;
    COMPLEX zsq1 = csqrlen<T>(z1, &L1);
    if (N::less(k.four, L1)) {
      storestate<T>(cvalue, iter, z, d, CV_ABSOLUTE | CV_ESCAPED);
      return CALC_DONE;
    }
    COMPLEX d1 = N::cmul(N::ctwice(z), d);
    if (k.trapped(z1)) {
      storestate<T>(cvalue, iter + 1, z1, d1, CV_INFTY | CV_ESCAPED);
      return CALC_DONE;
    }
    FLOAT Z1 = N::add(N::mul(N::mul(k.four, L), Z), L1);
    if (testprecision && N::less(N::mul(N::abss(d1), k.Zfactor), Z1)) {
      cvalue->Z = Z;
      cvalue->flags = CV_ABSOLUTE;
      int f = precisionfailure<T, true>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                        idepth, nullptr, iter, z, d);
      if (f >= 0) return f;
    }
    z = z1;
    zsq = zsq1;
    d = d1;
    Z = Z1;
    L = L1;
    iter++;
    if ((iter & 255) == 0 && jobstopped<T>(canvas)) return CALC_MORE;
  }
  cvalue->Z = Z;
  storestate<T>(cvalue, iter, z, d, CV_ABSOLUTE);
  return CALC_MORE;
}

#define ORVANTA_INSTANTIATE(T)                                                                  \
  template int calciterjuliaabsolute<T>(OVCONTEXT*, T::CANVAS*, int, int, int, T::CVALUE*, ITER, \
                                        int*, bool, int);
ORVANTA_INSTANTIATE(CANVASTEMPLATE_float)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_double)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_longdouble)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_hfloat)
#undef ORVANTA_INSTANTIATE

}  // namespace canvaskernels
