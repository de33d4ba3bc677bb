// canvas/kernels_dispatch.cpp: which kernel goes on with a state.
#include "canvas/kernels.h"

#include "canvas/kernelsupport.h"
#include "environment.h"

namespace canvaskernels {

template <typename T>
int calcitercanvas0general(typename T::CANVAS* canvas, int x, int y, int self,
                           typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced,
                           int idepth) {
  if (cvalue->flags) {
    if (!(cvalue->flags & CV_ABSOLUTE))
      return calciterref<T>(canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
    return calciterabsolute<T>(canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
  }
  if (const ENVIRONMENT* e = jobenvironment<T>(canvas)) {
    if (e->flags & E_SERIES)
      return calcitergeneralsat<T>(canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
    if (!(e->flags & E_PERIODIC))
      return calcitergeneralnonsat<T>(canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
  }
  if (canvas->flags & CF_FAST)
    return calciterabsolutefast<T>(canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
  return calciterabsolute<T>(canvas, x, y, self, cvalue, maxiter, ii, forced, idepth);
}

template <typename T>
int calcitercanvas0julia(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
                         typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced,
                         int idepth) {
  if (cvalue->flags) {
    if (!(cvalue->flags & CV_ABSOLUTE))
      return calciterjuliaref<T>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                 idepth);
    return calciterjuliaabsolute<T>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                    idepth);
  }
  if (const ENVIRONMENT* e = jobenvironment<T>(canvas)) {
    if (e->flags & E_SERIES)
      return calciterjuliasat<T>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                 idepth);
    if (!(e->flags & E_PERIODIC))
      return calciterjulianonsat<T>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                    idepth);
  }
  return calciterjuliaabsolute<T>(context, canvas, x, y, self, cvalue, maxiter, ii, forced,
                                  idepth);
}

#define ORVANTA_INSTANTIATE(T)                                                                 \
  template int calcitercanvas0general<T>(T::CANVAS*, int, int, int, T::CVALUE*, ITER, int*,   \
                                         bool, int);                                           \
  template int calcitercanvas0julia<T>(OVCONTEXT*, T::CANVAS*, int, int, int, T::CVALUE*, ITER, \
                                       int*, bool, int);
ORVANTA_INSTANTIATE(CANVASTEMPLATE_float)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_double)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_longdouble)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_hfloat)
#undef ORVANTA_INSTANTIATE

}  // namespace canvaskernels
