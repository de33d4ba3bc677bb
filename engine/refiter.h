// refiter.h: the reference iteration. What turns a converged periodic point
// into a usable ENVIRONMENT (the series of one period, its radii and the
// range of Julia stack levels it can serve), and the routines that iterate
// one point against an environment: by perturbation against `refdatah`, by
// jumps of whole periods with the series, and in mpf where HFLOAT no longer
// carries the pixel.
//
// The period series. Before normalisation, T(dz, dc) = sum a_ij dz^i dc^j
// is the deviation after n iterations from the reference's index 1, started
// with deviation dz under a parameter deviation dc (so a_10 = t1, the product
// of 2 z_k over k = 1..n-1, and a_01 = t7 = dz_n/dc). With scalez = t1 and
// scalec = t1 t7 the table is normalised to
//     t1 T(dz, dc) = sum taylor[i + 7j] (t1^2 dz)^i (scalec dc)^j,
// so taylor[1] = taylor[7] = 1. canvas/period.h reads it as the period map
// u -> sum_i v_i(X) u^(2i) in the coordinates u = t1 w (w a deviation at the
// reference's index 0) and X = scalec dc.
//
// Threads. `worker_calctaylorenvironment` runs on a worker that owns the
// environment until it hands the message on; every other routine reads the
// environment and writes only what it is given, on any thread.
#pragma once

#include <gmp.h>

#include "Mandelbrot.h"

struct SATINFO;

// The series step's hand-on to the main thread. The Newton acceptance
// (`worker_newtonfinish`) sets this; while it is null the finished message is
// freed where it stands.
extern WORKERPROC newtonfinishhook;

// Part of the idle search; declared here because the series step ends in it.
void worker_newtonfinish(OVCONTEXT* context, WORKER* worker);

// ---------------------------------------------------------------- the period series

// Steps 1 to 9 on `e` (`n` >= 1, `refdatah` complete): `taylor`, `scalez`,
// `scalec`, `r1`..`r4`, E_SERIES, `mini`, `maxi`. A raised `stop` (may be
// null) ends it early and leaves the series unfinished.
void calctaylorenvironment(OVCONTEXT* context, ENVIRONMENT* e, const volatile bool* stop);

// The message: `pdata[0]` = the environment. Hands the message on to
// `newtonfinishhook`, on the main thread, whether stopped or not.
void worker_calctaylorenvironment(OVCONTEXT* context, WORKER* worker);

// Terms of a series row (entry i at taylor[i * lag]) needed for an error
// below a pixel at position `c` and view scale `zoom`; -1 when the series
// would need its last usable terms. 2 when the first-order term vanishes.
int accurateprec(const HFLOATCOMPLEX* taylor, int maxprec, HFLOATCOMPLEX c, HFLOATCOMPLEX zoom,
                 int lag, double resolution);

// Is the first neglected term of a series cut at `prec` below its linear
// term at the pixel size 2^depth / resolution? Reads taylor[1] and
// taylor[prec].
bool simpletayloraccurate(const HFLOATCOMPLEX* taylor, int prec, int depth, double resolution);

// ---------------------------------------------------------------- one point

// The deviation after `iter` iterations of the point e.c + c. True with
// *value; false when accuracy is lost or the orbit is too short. A periodic
// point without series iterates c + cf directly and gives the absolute z.
bool calciterenvironment(OVCONTEXT* context, ENVIRONMENT* e, int depth, HFLOATCOMPLEX c,
                         ITER iter, HFLOATCOMPLEX* value);

// The whole run of `info->c` against `e` (may be null: then the point is
// iterated directly): `info->iter` (> 0 escape count, -period, 0 undecided),
// `z`, `dzm`, `dzj`, `d`, `dj`, `distm`, `distj`, `lim`, `inorm`,
// `precisionfailure`. `prec` series terms for the period jumps (-1: none).
// Without a Julia stack (`juliadepth` -1 or no `juliarealm`) the lookup stage
// is skipped; `satinfo` is not filled yet.
void calciterenvironmentex(OVCONTEXT* context, int depth, ENVIRONMENT* e, int prec, ITER maxiter,
                           ITERINFO* info, REALM* juliarealm, int juliadepth, double resolution,
                           ITER juliaiter, SATINFO* satinfo, int satsize, int perturbation);

// The light form: absolute z (*value) and dz/dc (*d) at exactly `maxiter`
// for the point e.c + c; false when accuracy was lost, or `e` has E_SERIES
// and no `refdatah` or `prec` < 3.
bool calciterenvironmentex2(OVCONTEXT* context, int depth, ENVIRONMENT* e, int prec, ITER maxiter,
                            HFLOATCOMPLEX c, HFLOATCOMPLEX* value, HFLOATCOMPLEX* d);

// The mpf continuations of the two, from iteration `iter` where the
// deviation from the reference is `delta` and the derivatives are `dzm`,
// `dzj`: the reference point comes from `getenvironmenthpvalueraw`.
// `calciterenvironmentexhp` finishes `info` as calciterenvironmentex does and
// sets `precisionfailure` when the budget ran out or no reference point
// could be had.
void calciterenvironmentexhp(OVCONTEXT* context, int depth, ENVIRONMENT* e, ITER maxiter,
                             ITERINFO* info, ITER iter, HFLOATCOMPLEX delta, HFLOATCOMPLEX dzm,
                             HFLOATCOMPLEX dzj);
bool calciterenvironmentexhp2(OVCONTEXT* context, ENVIRONMENT* e, ITER maxiter, HFLOATCOMPLEX c,
                              ITER iter, HFLOATCOMPLEX delta, HFLOATCOMPLEX d,
                              HFLOATCOMPLEX* value, HFLOATCOMPLEX* dout);

// `info->c` iterated in mpf at `precision` bits from z = 0, for a realm
// without environment; fills `info` as calciterenvironmentex does.
void calciterenvironmentextmp(OVCONTEXT* context, ITER maxiter, ITERINFO* info,
                              mp_bitcnt_t precision);

// Squared distance estimates of an escaped orbit at z: to the Mandelbrot set
// from dz/dc, to the Julia set from dz/dz_1: (|z| ln|z| / |dz|)^2.
HFLOAT distmsquaredHF(HFLOATCOMPLEX z, HFLOATCOMPLEX dzm);
HFLOAT distjsquaredHF(HFLOATCOMPLEX z, HFLOATCOMPLEX dzj);
