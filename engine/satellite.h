// satellite.h: the components around a view and the exact points the
// navigator can be drawn to. The satellite search lists the centres of up to
// `NSATINFO` hyperbolic components near the view, found by Newton steps from
// the periods at which the view centre's orbit comes near 0; a jump to a
// satellite takes the view to the atom of its periodic environment;
// `findmisiurewicz` looks for a pre-periodic point instead.
//
// Threads. `calcsat` runs on a worker and writes only the `SATINFO` it is
// given (the view's `sat_info`, which no one else touches while `sat_worker`
// is set). Its return, `changesate`, `postcalcsat` and the jump's target are
// the main thread's. `getsat` may be called from any thread: it reads
// `sat_infocopy` under `spdelta` and the ring of coordinate steps.
#pragma once

#include <complex>

#include "Mandelbrot.h"

// Newton steps a candidate gets before it is dropped.
constexpr int NSATNEWTON = 11;

// ---------------------------------------------------------------- the search

// Fills `satinfo` with the components near the view: `e` the environment the
// offsets are relative to (null: absolute), `prec` its series depth, the view
// centre at `delta` and scale `zoom` (a plane offset times `zoom` is a screen
// offset), `depth` the binary exponent of the accuracy at which a centre is
// final. `info` gets the centre's own run (`iter`, `z`). `worker`'s `stop`
// ends it early (may be null). `satsize` bounds, in pixels of a screen
// `8 satsize` wide, how far a candidate's first Newton estimate may lie.
void calcsat(OVCONTEXT* context, ENVIRONMENT* e, int prec, ITER maxiter, ITERINFO* info,
             SATINFO* satinfo, int depth, HFLOATCOMPLEX delta, HFLOATCOMPLEX zoom, WORKER* worker,
             int satsize);

// The candidates alone (step 1 of the search): each iteration k at which the
// orbit of e.c + delta comes nearer 0 than ever before, with its first Newton
// estimate within reach. Up to `NSATINFO`, in order of k. Returns the escape
// count, or 0.
ITER satcandidates(OVCONTEXT* context, ENVIRONMENT* e, ITER maxiter, HFLOATCOMPLEX delta,
                   HFLOATCOMPLEX zoom, int satsize, SATINFO* satinfo, HFLOATCOMPLEX* zlast);

// The message. pdata[0] the view (attached), pdata[1] the environment
// (attached, may be null), pdata[2] the view's `delta` the search was made
// for (attached); hdata[0] the centre relative to the environment, hdata[1]
// the zoom; idata[0] `prec`, idata[1] `maxiter`, idata[2] `depth`,
// idata[3] `satsize`.
void worker_calcsat(OVCONTEXT* context, WORKER* worker);
void worker_calcsat_return(OVCONTEXT* context, WORKER* worker);

// Starts a search for the view against its `sat_e` unless one runs. Main
// thread. False when none was started.
bool postcalcsat(OVCONTEXT* context, VIEWPORT* viewport);

// The end of a scan or of an idle run: with `VP_SATELLITES` and no search
// running, `changesate` to the view's environment and a new search.
void startsatellites(OVCONTEXT* context, VIEWPORT* viewport);

// ---------------------------------------------------------------- the view's side

// `sat_e_prec` = prec; a new `e` becomes `sat_e` and the records of
// `sat_info` are re-based onto it. Main thread.
void changesate(OVCONTEXT* context, VIEWPORT* viewport, ENVIRONMENT* e, int prec);

// The satellites as the display shows them at this frame: up to `NSATINFO`
// screen positions and periods, their count in *nsat.
void getsat(OVCONTEXT* context, VIEWPORT* viewport, std::complex<double>* csat, ITER* iter,
            int* nsat);

// The target of a jump to a satellite: the atom of `esat` (in a Julia realm,
// of the realm's environment, at 0), framed so that the view stands on it.
bool satellitetarget(OVCONTEXT* context, VIEWPORT* viewport, HFLOATCOMPLEX* zoom,
                     HPVALUE** point);

// ---------------------------------------------------------------- Misiurewicz points

// Walks the orbit of the view's centre (`delta`) for a pre-periodic point
// within the view: *n the pre-period (the orbit's entries from z_1 = c that
// come before the cycle), *k the period. Returns the point relative to
// `delta`; *n = *k = 0 when none was found. Main thread (reads `delta`).
HFLOATCOMPLEX findmisiurewicz(OVCONTEXT* context, VIEWPORT* viewport, int* n, int* k);
// The same from an explicit centre and view scale, at `precision` bits; the
// result relative to (x, y).
HFLOATCOMPLEX findmisiurewiczat(mpf_srcptr x, mpf_srcptr y, HFLOATCOMPLEX zoom,
                                mp_bitcnt_t precision, int* n, int* k);
