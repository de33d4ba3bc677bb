// canvas/driver.h: the canvas driver, which decides which of the 66,049
// vertices of a canvas are calculated at all, in which order and how far.
//
// It is an adaptive subdivision without nodes: a cell is named by the index
// of its top-left vertex and its level is that vertex's `depth`; a cell of
// level L is 2^(canvassizeshift - L) vertices wide, its corners in cyclic
// order are i, i + w, i + w*R + w, i + w*R (R = 257). A cell is split only
// while its corners disagree. Three stacks of cells per level hold the work:
// "infty" (corners proved interior, worked by the period spreading), "finite"
// (corners that escape or may still, worked by the kernels) and "failure"
// (cells whose finite pass finished no corner, worked by the slow exact
// test).
//
// Written once over the number format like model.h; each operation is
// reachable by its suffixed name (`processcanvas_double`).
//
// Threads. Everything runs on the worker thread that owns the canvas; only
// the job's `stop` flag is read from outside, once per cell here and every
// 256 iterations in the kernels.
#pragma once

#include "../Mandelbrot.h"
#include "model.h"

namespace canvasdriver {

// The whole calculation of a canvas prepared by `initcanvas`. Returns when no
// list holds work down to the finest level, or soon after the job's `stop`.
template <typename T>
void processcanvas(OVCONTEXT* context, typename T::CANVAS* canvas);

// Works the finite lists from the lowest level up to `depth`; cells are split
// no finer than `maxdepth`.
template <typename T>
void processcanvasfinite(OVCONTEXT* context, typename T::CANVAS* canvas, int maxdepth, int depth);

// Works the infty lists: spreads the periods of interior corners to the other
// corners of their cells and closes cells of one period.
template <typename T>
void processcanvasinfty(typename T::CANVAS* canvas);

// Takes one cell off the failure lists and decides its corners by the exact
// test within `maxiter` iterations.
template <typename T>
void checkcanvas(typename T::CANVAS* canvas, ITER maxiter);

// The iteration limit of the exact test on the failure lists:
// 5 * `maxiter` + 10,000, or 0x7FFFFFFF when nothing has escaped on the
// canvas yet or when that sum would not fit an ITER.
ITER failurelimit(ITER maxiter);

// Enter a cell on a list at its present level, unless it is on it already.
template <typename T>
void canvasinworkerfinite(typename T::CANVAS* canvas, int cell);
template <typename T>
void canvasinworkerinfty(typename T::CANVAS* canvas, int cell);
template <typename T>
void canvasinworkerfailure(typename T::CANVAS* canvas, int cell);

// Splits a cell in four, sets the levels of the new corners and their
// wake-up links.
template <typename T>
void subdividecanvas(typename T::CANVAS* canvas, int i);

// The cell beyond side `dir` (0 left, 1 up, 2 right, 3 down) of `cell`, or
// -1 outside the canvas; a coarser neighbour is forced to refine to within
// one level.
template <typename T>
int neighbor(typename T::CANVAS* canvas, int cell, int dir);

// Do two corners agree: the same period, the same count, or both open.
template <typename T>
int equal(const typename T::CVERTEX* a, const typename T::CVERTEX* b);

// Marks cell (i, L) and every cell inside it, at every level, as settled.
template <typename T>
void stopinterpol(typename T::CANVAS* canvas, int i, int L);

}  // namespace canvasdriver

// ---------------------------------------------------------------- the suffixed names

#define ORVANTA_DRIVERNAME(name)                                                                \
  inline constexpr auto& name##_float = canvasdriver::name<CANVASTEMPLATE_float>;           \
  inline constexpr auto& name##_double = canvasdriver::name<CANVASTEMPLATE_double>;         \
  inline constexpr auto& name##_longdouble = canvasdriver::name<CANVASTEMPLATE_longdouble>; \
  inline constexpr auto& name##_hfloat = canvasdriver::name<CANVASTEMPLATE_hfloat>;

ORVANTA_DRIVERNAME(processcanvas)
ORVANTA_DRIVERNAME(processcanvasfinite)
ORVANTA_DRIVERNAME(processcanvasinfty)
ORVANTA_DRIVERNAME(checkcanvas)
ORVANTA_DRIVERNAME(canvasinworkerfinite)
ORVANTA_DRIVERNAME(canvasinworkerinfty)
ORVANTA_DRIVERNAME(canvasinworkerfailure)
ORVANTA_DRIVERNAME(subdividecanvas)
ORVANTA_DRIVERNAME(neighbor)
ORVANTA_DRIVERNAME(equal)
ORVANTA_DRIVERNAME(stopinterpol)

#undef ORVANTA_DRIVERNAME
