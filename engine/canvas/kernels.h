// canvas/kernels.h: the iteration kernels, which advance one orbit state
// (CVALUE) from its `iter` towards a limit, and the dispatchers that pick the
// kernel for a state. There are several because an orbit is followed in four
// ways (absolutely; as a difference to a reference orbit on this canvas; as a
// difference to the environment's orbit; by whole periods of a satellite
// environment), for two recurrences (Mandelbrot, Julia), in four formats.
//
// Every kernel is resumable: it reads the whole state from its CVALUE, runs,
// writes the state back and says why it stopped, so that the driver can grant
// more iterations later. Written once over the format like model.h; each
// kernel is reachable by its suffixed name (`calciterref_double`).
//
// Threads. A canvas has one thread. Only the job's `stop` flag is read from
// outside, each 256 iterations, so a stopped job notices within 256 of them.
#pragma once

#include <gmp.h>

#include "../Mandelbrot.h"
#include "model.h"

// Results of a kernel.
constexpr int CALC_MORE = 0;   // `maxiter` reached or the job stopped: resumable
constexpr int CALC_BOUND = 1;  // the derivative bound: absolute now, a finer grid may go on
constexpr int CALC_DONE = 2;   // escaped (flags 6), trapped (36) or CV_FAILED

namespace canvaskernels {

// The shape of every orbit kernel: the point's grid coordinates (x, y), which
// need not be a vertex's own; `self`, the vertex owning the state, or -1 for
// a point that may not become a reference; `ii`, handed on to `makeref`;
// `forced`, no stop for the derivative bound; `idepth`, the refinement level
// of the call (8 the finest).
#define ORVANTA_KERNELARGS                                                                 \
  typename T::CANVAS *canvas, int x, int y, int self, typename T::CVALUE *cvalue, ITER maxiter, \
      int *ii, bool forced, int idepth

template <typename T> int calciterabsolute(ORVANTA_KERNELARGS);
template <typename T> int calciterabsolutefast(ORVANTA_KERNELARGS);
template <typename T> int calciterref(ORVANTA_KERNELARGS);
template <typename T> int calcitergeneralnonsat(ORVANTA_KERNELARGS);
template <typename T> int calcitergeneralsat(ORVANTA_KERNELARGS);
template <typename T> int calciterjuliaabsolute(OVCONTEXT* context, ORVANTA_KERNELARGS);
template <typename T> int calciterjuliaref(OVCONTEXT* context, ORVANTA_KERNELARGS);
template <typename T> int calciterjulianonsat(OVCONTEXT* context, ORVANTA_KERNELARGS);
template <typename T> int calciterjuliasat(OVCONTEXT* context, ORVANTA_KERNELARGS);

// The hyperbolic realm: reduces the disc point *z (derivative *d) to the
// fundamental domain of the modular group; `iter` counts the steps.
template <typename T>
int calcitercanvashyperbolic(int x, int y, typename T::COMPLEX* z, typename T::COMPLEX* d,
                             typename T::CVALUE* cvalue, ITER maxiter);

// The reference orbit of grid point (x, y) in mpf, from the checkpoint `hp`
// at *iter up to `maxiter`: each sample goes to the orbit blocks through
// `cursor` (owner `ref`). The orbit is followed to |z|^2 >= 5, past the
// escape radius, so that neighbours still inside find samples. On return
// *iter is the last sample written and `hp` holds z there; returns 1 when
// `maxiter` was reached, 0 when the orbit ended, the block pool ran out
// (then *iter is one below the sample that found no block, and `hp` is
// past it) or the job stopped.
template <typename T>
int calcitercanvashp(typename T::CANVAS* canvas, CHPVALUE* hp, int x, int y, ITER* iter,
                     ITER maxiter, int* cursor, int ref);
// The same loop for the environment's orbit at parameter `c` (an mpf pair):
// no samples. Returns 1 when `maxiter` was reached.
template <typename T>
int calcitercanvashpex(typename T::CANVAS* canvas, CHPVALUE* hp, mpf_srcptr c, ITER* iter,
                       ITER maxiter);

// Mandelbrot and general realms: a state after its start goes on absolutely
// or against its reference; a start state over an environment goes to the
// environment's kernel; otherwise the plain kernel (the fast one under
// CF_FAST).
template <typename T> int calcitercanvas0general(ORVANTA_KERNELARGS);
// The Julia realm, the same without a fast branch.
template <typename T> int calcitercanvas0julia(OVCONTEXT* context, ORVANTA_KERNELARGS);

#undef ORVANTA_KERNELARGS

// Is the job of `canvas` stopped? A canvas without a job (a test's) never is.
template <typename T>
inline bool jobstopped(const typename T::CANVAS* canvas) {
  return canvas->__worker && atomicload(&canvas->__worker->stop);
}

}  // namespace canvaskernels

// ---------------------------------------------------------------- the suffixed names

#define ORVANTA_KERNELNAME(name)                                                                \
  inline constexpr auto& name##_float = canvaskernels::name<CANVASTEMPLATE_float>;           \
  inline constexpr auto& name##_double = canvaskernels::name<CANVASTEMPLATE_double>;         \
  inline constexpr auto& name##_longdouble = canvaskernels::name<CANVASTEMPLATE_longdouble>; \
  inline constexpr auto& name##_hfloat = canvaskernels::name<CANVASTEMPLATE_hfloat>;

ORVANTA_KERNELNAME(calciterabsolute)
ORVANTA_KERNELNAME(calciterabsolutefast)
ORVANTA_KERNELNAME(calciterref)
ORVANTA_KERNELNAME(calcitergeneralnonsat)
ORVANTA_KERNELNAME(calcitergeneralsat)
ORVANTA_KERNELNAME(calciterjuliaabsolute)
ORVANTA_KERNELNAME(calciterjuliaref)
ORVANTA_KERNELNAME(calciterjulianonsat)
ORVANTA_KERNELNAME(calciterjuliasat)
ORVANTA_KERNELNAME(calcitercanvashyperbolic)
ORVANTA_KERNELNAME(calcitercanvashp)
ORVANTA_KERNELNAME(calcitercanvashpex)
ORVANTA_KERNELNAME(calcitercanvas0general)
ORVANTA_KERNELNAME(calcitercanvas0julia)

#undef ORVANTA_KERNELNAME
