// canvas/interpol.h: interpolation across the vertex grid. At deep zooms the
// orbits of a cell's points stay a nearly polynomial function of the position
// for a long time; so only the corners of a few cells are iterated, in steps
// of `canvasinterpol` iterations, and a cubic through the four corners stands
// for the interior. A cell whose cubic stops being good is split in four, and
// its new vertices start from the cubic of the last iteration at which it was
// good; a cell that must stop (a corner left, the iteration limit) hands its
// corners to the finite lists of the driver.
//
// The cubic over a cell: with the local coordinate s = 0, 1, 1+i, i at the
// corners v0..v3 (cyclic order), f(s) = a0 + a1 s + a2 s^2 + a3 s^3 with
// a0 = v0 and a1, a2, a3 from `interpol1`, `interpol2`, `interpol3`.
//
// Written once over the number format like model.h; each operation is
// reachable by its suffixed name (`interpolcanvas_double`).
//
// Threads. The worker thread that owns the canvas; the job's `stop` is polled
// once per step.
#pragma once

#include "../Mandelbrot.h"
#include "model.h"

namespace canvasinterpol {

// Advances the interpolation while a live cell of level <= `depth` remains;
// `maxdepth` is the finest level (canvassizeshift in every call).
template <typename T>
void interpolcanvas(OVCONTEXT* context, typename T::CANVAS* canvas, int depth, int maxdepth);

// Brings the four corners of a cell to `interpoliter`, through the old
// interpolation iteration when a corner lags behind it.
template <typename T>
void interpolcanvascalc(OVCONTEXT* context, typename T::CANVAS* canvas,
                        typename T::CVERTEX* v[4]);

// Splits cell `i` whose cubic failed; the new vertices start from the cubic
// of the last good states, the new cells go on the list headed by *nexti.
template <typename T>
void interpolarea(OVCONTEXT* context, typename T::CANVAS* canvas, int i, typename T::CVERTEX* v[4],
                  int interpolwidth, int* nexti);

// Fills every vertex of the cell with top-left vertex `v` and width
// `interpolwidth` that has no state yet from the cubic through `d`, at
// iteration `iter`, with the state word `flags` | CV_ABSOLUTE.
template <typename T>
void superinterpol(OVCONTEXT* context, typename T::CANVAS* canvas, typename T::CVERTEX* v,
                   const typename T::COMPLEX d[4], UITER iter, int interpolwidth,
                   unsigned int flags);

// Gives a new corner the interpolated state (value, derivative d) at `iter`:
// relative to `ref`'s orbit through checkpoint `hpv` when there is one, else
// absolute when `absolute`, else a start state. `flags` is added to the
// vertex's flags.
template <typename T>
void initializeinterpol(typename T::CANVAS* canvas, typename T::CVERTEX* vertex,
                        typename T::COMPLEX value, CHPVALUE* hpv, int ref, unsigned int flags,
                        typename T::COMPLEX d, UITER iter, bool absolute);

// The cubic through v at s = (k + j i) / 2, in r[j][k], and its derivative
// df/ds in dr[j][k].
template <typename T>
void interpol(const typename T::COMPLEX v[4], typename T::COMPLEX r[3][3],
              typename T::COMPLEX dr[3][3]);

template <typename T>
typename T::COMPLEX interpol1(const typename T::COMPLEX v[4]);
template <typename T>
typename T::COMPLEX interpol2(const typename T::COMPLEX v[4]);
template <typename T>
typename T::COMPLEX interpol3(const typename T::COMPLEX v[4]);

// Is the cubic through d good for a cell with `depth` levels below it:
// |a3|^2 < |a1|^2 2^(-5-depth) and |a2|^2 < |a1|^2 2^(-1-depth), strictly.
template <typename T>
bool caccurateinterpolquadratic(OVCONTEXT* context, const typename T::COMPLEX d[4], int depth);

// The same for absolute values z, which carry the rounding of their size:
// the spread a1 must also stand clear of it.
template <typename T>
bool caccurateinterpolquadraticabs(OVCONTEXT* context, const typename T::COMPLEX d[4], int depth);

}  // namespace canvasinterpol

// ---------------------------------------------------------------- the suffixed names

#define ORVANTA_INTERPOLNAME(name)                                                                \
  inline constexpr auto& name##_float = canvasinterpol::name<CANVASTEMPLATE_float>;           \
  inline constexpr auto& name##_double = canvasinterpol::name<CANVASTEMPLATE_double>;         \
  inline constexpr auto& name##_longdouble = canvasinterpol::name<CANVASTEMPLATE_longdouble>; \
  inline constexpr auto& name##_hfloat = canvasinterpol::name<CANVASTEMPLATE_hfloat>;

ORVANTA_INTERPOLNAME(interpolcanvas)
ORVANTA_INTERPOLNAME(interpolcanvascalc)
ORVANTA_INTERPOLNAME(interpolarea)
ORVANTA_INTERPOLNAME(superinterpol)
ORVANTA_INTERPOLNAME(initializeinterpol)
ORVANTA_INTERPOLNAME(interpol)
ORVANTA_INTERPOLNAME(interpol1)
ORVANTA_INTERPOLNAME(interpol2)
ORVANTA_INTERPOLNAME(interpol3)
ORVANTA_INTERPOLNAME(caccurateinterpolquadratic)
ORVANTA_INTERPOLNAME(caccurateinterpolquadraticabs)

#undef ORVANTA_INTERPOLNAME
