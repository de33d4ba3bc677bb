// canvas/period.h: deciding that a parameter c lies in the interior of the
// Mandelbrot set without iterating to a limit. The attracting cycle itself is
// found by Newton's method and its multiplier measured; a point found so
// needs no more iterations.
//
// Result code (ITER): positive, the period of an attracting cycle; negative,
// minus the iteration at which the orbit escaped; zero, undecided. A failed
// Newton search is an undecided answer, never an error.
//
// Written once over the number format, like model.h: `T` is one of the
// CANVASTEMPLATE_* types, and each routine is reachable by its suffixed name
// (`checkperiod_double`, `calci4_hfloat`), a reference to the instantiation
// compiled in period.cpp. The loops of every format, HFLOAT included, are the
// `calci` family, so the Newton search is the same code in all four.
//
// Threads. Pure functions of their arguments; the only shared state is what
// the caller hands in (`data`, `flags` of one vertex), which belongs to the
// worker thread that owns the canvas.
//
// Not here: `inftytestgeneral`, `checkperiodgeneral` and the `calcigeneral`
// family, which iterate the polynomial of an ENVIRONMENT's `taylor` in place
// of z^2 + c; they come with the environment's series.
#pragma once

#include "model.h"

namespace canvasperiod {

// ---------------------------------------------------------------- the calci family
//
// The plain iteration with derivatives, `iter` steps each.

// z -> z^2 + c from z = x: *xx = z_n - x, *dxx = dz_n/dx - 1, the Newton
// numerator and denominator of a periodic point. `iter` < 1 gives 0 and 0.
template <typename T>
void calci(typename T::COMPLEX x, typename T::COMPLEX c, ITER iter, typename T::COMPLEX* xx,
           typename T::COMPLEX* dxx);

// z -> z^2 + x from z = x: *xx = z_n, *dxx = dz_n/dc (d -> 2 z d + 1, d_0 = 1).
template <typename T>
void calci2(typename T::COMPLEX x, ITER iter, typename T::COMPLEX* xx, typename T::COMPLEX* dxx);

// z -> z^2 + c from z = x: *xx = z_n, *dxx = dz_n/dx (d -> 2 z d, d_0 = 1).
template <typename T>
void calci3(typename T::COMPLEX x, typename T::COMPLEX c, ITER iter, typename T::COMPLEX* xx,
            typename T::COMPLEX* dxx);

// As calci, and with it the parameter derivative *ddxx (from 0), the second
// derivative in z *d2xx (from 0) and the mixed derivative *dd2xx (from 0).
template <typename T>
void calci4(typename T::COMPLEX x, typename T::COMPLEX c, ITER iter, typename T::COMPLEX* xx,
            typename T::COMPLEX* dxx, typename T::COMPLEX* ddxx, typename T::COMPLEX* d2xx,
            typename T::COMPLEX* dd2xx);

// ---------------------------------------------------------------- the tests

// Tries period `iter` at the point *cc by a Newton search for a cycle point,
// from z = c, and, when the cycle found is not attracting, looks by the angle
// of its multiplier for a satellite bulb of period q * `iter` (at most
// `recursive` levels deep).
//
// `maxiter`: periods at or above it are not tried. `divisorcheck`: reduce an
// attracting result to its least period, comparing cycle points to within one
// grid step 2^`depth`. `data` (may be null): the vertex's samples; `flags`,
// the vertex's flag word, whose bits 4096 << slot mark slots already
// expanded, is read and written only with `data`.
//
// On an attracting result: *cc = a point of the cycle, *d1 = its multiplier,
// *d2 = the derivative of that cycle point with respect to c, *d = the
// interior distance estimate. Each output may be null. `dj` and `ii` are not
// written here; they are part of the call so that one set of outputs passes
// through `inftytest` and the driver unchanged.
template <typename T>
ITER checkperiod(int depth, typename T::COMPLEX* cc, ITER iter, ITER maxiter, int recursive,
                 bool divisorcheck, typename T::INFTYDATA* data, unsigned int* flags,
                 typename T::FLOAT* d, typename T::FLOAT* dj, typename T::COMPLEX* d1,
                 typename T::COMPLEX* d2, int* ii);

// The full test of c = *cc within `maxiter` iterations: the main cardioid and
// what its angle search reaches, then the orbit, trying a period wherever it
// comes near a return to the critical point. On escape *cc is the last z and,
// when `d` is wanted, the orbit is followed to |z|^2 > 100,000 so that the
// distance estimates *d (to the set) and *dj (to the Julia set) are accurate;
// without `d` the escape is reported at |z|^2 > 4.
template <typename T>
ITER inftytest(int depth, typename T::COMPLEX* cc, ITER maxiter, typename T::FLOAT* d,
               typename T::FLOAT* dj, typename T::COMPLEX* d1, typename T::COMPLEX* d2, int* ii);

}  // namespace canvasperiod

// ---------------------------------------------------------------- the suffixed names

inline constexpr auto& calci_float = canvasperiod::calci<CANVASTEMPLATE_float>;
inline constexpr auto& calci_double = canvasperiod::calci<CANVASTEMPLATE_double>;
inline constexpr auto& calci_longdouble = canvasperiod::calci<CANVASTEMPLATE_longdouble>;
inline constexpr auto& calci_hfloat = canvasperiod::calci<CANVASTEMPLATE_hfloat>;

inline constexpr auto& calci2_float = canvasperiod::calci2<CANVASTEMPLATE_float>;
inline constexpr auto& calci2_double = canvasperiod::calci2<CANVASTEMPLATE_double>;
inline constexpr auto& calci2_longdouble = canvasperiod::calci2<CANVASTEMPLATE_longdouble>;
inline constexpr auto& calci2_hfloat = canvasperiod::calci2<CANVASTEMPLATE_hfloat>;

inline constexpr auto& calci3_float = canvasperiod::calci3<CANVASTEMPLATE_float>;
inline constexpr auto& calci3_double = canvasperiod::calci3<CANVASTEMPLATE_double>;
inline constexpr auto& calci3_longdouble = canvasperiod::calci3<CANVASTEMPLATE_longdouble>;
inline constexpr auto& calci3_hfloat = canvasperiod::calci3<CANVASTEMPLATE_hfloat>;

inline constexpr auto& calci4_float = canvasperiod::calci4<CANVASTEMPLATE_float>;
inline constexpr auto& calci4_double = canvasperiod::calci4<CANVASTEMPLATE_double>;
inline constexpr auto& calci4_longdouble = canvasperiod::calci4<CANVASTEMPLATE_longdouble>;
inline constexpr auto& calci4_hfloat = canvasperiod::calci4<CANVASTEMPLATE_hfloat>;

inline constexpr auto& checkperiod_float = canvasperiod::checkperiod<CANVASTEMPLATE_float>;
inline constexpr auto& checkperiod_double = canvasperiod::checkperiod<CANVASTEMPLATE_double>;
inline constexpr auto& checkperiod_longdouble = canvasperiod::checkperiod<CANVASTEMPLATE_longdouble>;
inline constexpr auto& checkperiod_hfloat = canvasperiod::checkperiod<CANVASTEMPLATE_hfloat>;

inline constexpr auto& inftytest_float = canvasperiod::inftytest<CANVASTEMPLATE_float>;
inline constexpr auto& inftytest_double = canvasperiod::inftytest<CANVASTEMPLATE_double>;
inline constexpr auto& inftytest_longdouble = canvasperiod::inftytest<CANVASTEMPLATE_longdouble>;
inline constexpr auto& inftytest_hfloat = canvasperiod::inftytest<CANVASTEMPLATE_hfloat>;
