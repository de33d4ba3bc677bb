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
// The general forms (`calcigeneral*`, `checkperiodgeneral`,
// `inftytestgeneral`) run the same steps over the map of one period of an
// ENVIRONMENT in place of z^2 + c. Its normalised series (`taylor`, see
// refiter.h) reads, with X = scalec * dc and u = scalez * w for a start w at
// the reference's index 0: one period is u -> sum_i v_i(X) u^(2i), where
// v_i(X) = sum_j taylor[i + 7j] X^j, i < prec. That is u^2 + X and higher
// terms: the Mandelbrot map again, so a component of the environment's
// satellite copy has a period counted in periods of the environment. The
// tests run in (u, X) and hand their outputs back in the plane's units.
#pragma once

#include "../environment.h"
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

// ---------------------------------------------------------------- the general family
//
// A polynomial map P(z) = sum v_k z^k, k < `prec` (here `prec` counts the
// coefficients in z), in place of z^2 + c; `dv` is its derivative in the
// parameter, a polynomial of the same length.

// As calci: *xx = z_n - x, *dxx = dz_n/dx - 1; `iter` < 1 gives 0 and 0.
template <typename T>
void calcigeneral(typename T::COMPLEX x, const typename T::COMPLEX* v, int prec, ITER iter,
                  typename T::COMPLEX* xx, typename T::COMPLEX* dxx);

// As calci2: from the critical value z = P(0) = v[0], whose parameter
// derivative is dv[0], `iter` steps: *xx = z, *dxx = the parameter derivative.
template <typename T>
void calcigeneral2(const typename T::COMPLEX* v, const typename T::COMPLEX* dv, int prec,
                   ITER iter, typename T::COMPLEX* xx, typename T::COMPLEX* dxx);

// As calci4, with P'' and the parameter derivative dv in the recurrences.
template <typename T>
void calcigeneral4(typename T::COMPLEX x, const typename T::COMPLEX* v,
                   const typename T::COMPLEX* dv, int prec, ITER iter, typename T::COMPLEX* xx,
                   typename T::COMPLEX* dxx, typename T::COMPLEX* ddxx, typename T::COMPLEX* d2xx,
                   typename T::COMPLEX* dd2xx);

// checkperiod and inftytest over the period map of `e` (E_SERIES required,
// otherwise 0), with `prec` terms of its series (1..7) in z. *c is the point
// relative to e.c. Periods, `iter`, `maxiter` and escape counts are in
// periods of the environment. Outputs as in checkperiod and inftytest, in the
// plane's units: *c becomes a point of the cycle (or the last z) as a
// deviation at the reference's index 0; *d, *dj and *d2 are scaled back from
// the normalised coordinates; *d1, the multiplier, needs no scale. The
// divisor check compares cycle points within one grid step 2^`depth` in z.
// `stop` (may be null) is polled every 256 periods.
template <typename T>
ITER checkperiodgeneral(int depth, typename T::COMPLEX* c, const ENVIRONMENT* e, int prec,
                        ITER iter, ITER maxiter, int recursive, bool divisorcheck,
                        typename T::INFTYDATA* data, unsigned int* flags, typename T::FLOAT* d,
                        typename T::FLOAT* dj, typename T::COMPLEX* d1, typename T::COMPLEX* d2,
                        int* ii);

template <typename T>
ITER inftytestgeneral(int depth, typename T::COMPLEX* c, const ENVIRONMENT* e, int prec,
                      ITER maxiter, const volatile bool* stop, typename T::FLOAT* d,
                      typename T::FLOAT* dj, typename T::COMPLEX* d1, typename T::COMPLEX* d2,
                      int* ii);

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

inline constexpr auto& calcigeneral_float = canvasperiod::calcigeneral<CANVASTEMPLATE_float>;
inline constexpr auto& calcigeneral_double = canvasperiod::calcigeneral<CANVASTEMPLATE_double>;
inline constexpr auto& calcigeneral_longdouble = canvasperiod::calcigeneral<CANVASTEMPLATE_longdouble>;
inline constexpr auto& calcigeneral_hfloat = canvasperiod::calcigeneral<CANVASTEMPLATE_hfloat>;

inline constexpr auto& calcigeneral2_float = canvasperiod::calcigeneral2<CANVASTEMPLATE_float>;
inline constexpr auto& calcigeneral2_double = canvasperiod::calcigeneral2<CANVASTEMPLATE_double>;
inline constexpr auto& calcigeneral2_longdouble = canvasperiod::calcigeneral2<CANVASTEMPLATE_longdouble>;
inline constexpr auto& calcigeneral2_hfloat = canvasperiod::calcigeneral2<CANVASTEMPLATE_hfloat>;

inline constexpr auto& calcigeneral4_float = canvasperiod::calcigeneral4<CANVASTEMPLATE_float>;
inline constexpr auto& calcigeneral4_double = canvasperiod::calcigeneral4<CANVASTEMPLATE_double>;
inline constexpr auto& calcigeneral4_longdouble = canvasperiod::calcigeneral4<CANVASTEMPLATE_longdouble>;
inline constexpr auto& calcigeneral4_hfloat = canvasperiod::calcigeneral4<CANVASTEMPLATE_hfloat>;

inline constexpr auto& checkperiodgeneral_float = canvasperiod::checkperiodgeneral<CANVASTEMPLATE_float>;
inline constexpr auto& checkperiodgeneral_double = canvasperiod::checkperiodgeneral<CANVASTEMPLATE_double>;
inline constexpr auto& checkperiodgeneral_longdouble = canvasperiod::checkperiodgeneral<CANVASTEMPLATE_longdouble>;
inline constexpr auto& checkperiodgeneral_hfloat = canvasperiod::checkperiodgeneral<CANVASTEMPLATE_hfloat>;

inline constexpr auto& inftytestgeneral_float = canvasperiod::inftytestgeneral<CANVASTEMPLATE_float>;
inline constexpr auto& inftytestgeneral_double = canvasperiod::inftytestgeneral<CANVASTEMPLATE_double>;
inline constexpr auto& inftytestgeneral_longdouble = canvasperiod::inftytestgeneral<CANVASTEMPLATE_longdouble>;
inline constexpr auto& inftytestgeneral_hfloat = canvasperiod::inftytestgeneral<CANVASTEMPLATE_hfloat>;
