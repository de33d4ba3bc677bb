// canvas/runkernel.h: one run of the kernel that goes on with a vertex's
// state, for the driver and the interpolation alike: the realm's dispatcher,
// and the job's work counted on the canvas (vertices that ran a kernel at
// least once, iterations advanced and not jumped), which is how a tile's cost is measured.
#pragma once

#include "kernels.h"

namespace canvasdriver {

template <typename T>
int runkernel(OVCONTEXT* context, typename T::CANVAS* canvas, typename T::CVERTEX* vx,
              typename T::CVALUE* value, ITER limit, int self, int idepth) {
  UITER before = value->iter;
  int64_t skipped = canvas->statskipped;
  int r;
  if (canvas->flags & CF_JULIA)
    r = canvaskernels::calcitercanvas0julia<T>(context, canvas, vx->x, vx->y, self, value, limit,
                                               nullptr, false, idepth);
  else if (canvas->flags & CF_HYPERBOLIC)
    r = canvaskernels::calcitercanvashyperbolic<T>(vx->x, vx->y, &value->value, &value->d, value,
                                                   limit);
  else
    r = canvaskernels::calcitercanvas0general<T>(canvas, vx->x, vx->y, self, value, limit,
                                                 nullptr, false, idepth);
  // A hyperbolic point ending in the domain itself carries a negative count.
  if (value->iter > before && value->iter < 0x80000000u)
    canvas->statiterations += value->iter - before - (canvas->statskipped - skipped);
  if (!(vx->flags & VX_ITERATED)) {
    vx->flags |= VX_ITERATED;
    canvas->statvertices++;
  }
  return r;
}

}  // namespace canvasdriver
