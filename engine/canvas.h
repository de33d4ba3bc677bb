// canvas.h: CANVAS0, the type under which code outside the canvas template
// holds a canvas buffer of any format, and the two steps of a buffer's life
// outside jobs: `preinitcanvas` after allocation, `postfreecanvas` before the
// buffer is freed. Both run on the thread that owns the buffer at the time:
// the one that starts or joins the worker threads.
#pragma once

#include <cstddef>

#include "MandelbrotCanvasTemplate.h"

struct OVCONTEXT;

// The long double layout by name, so that code outside the template reaches
// the members that every format shares (`flags`, `mhpvalue`, `hpvalue`, the
// mpf members), which sit at one offset in all four; a buffer of its size
// holds any format, which the assertions keep true. A bare byte buffer would
// hold as much but name nothing.
struct CANVAS0 : CANVAS_longdouble {};

static_assert(sizeof(CANVAS0) >= sizeof(CANVAS_float));
static_assert(sizeof(CANVAS0) >= sizeof(CANVAS_double));
static_assert(sizeof(CANVAS0) >= sizeof(CANVAS_longdouble));
static_assert(sizeof(CANVAS0) >= sizeof(CANVAS_hfloat));
static_assert(alignof(CANVAS0) >= alignof(CANVAS_float));
static_assert(alignof(CANVAS0) >= alignof(CANVAS_double));
static_assert(alignof(CANVAS0) >= alignof(CANVAS_hfloat));
// The shared members start at one offset whatever the format.
static_assert(offsetof(CANVAS_float, idata) == offsetof(CANVAS0, idata));
static_assert(offsetof(CANVAS_double, idata) == offsetof(CANVAS0, idata));
static_assert(offsetof(CANVAS_hfloat, idata) == offsetof(CANVAS0, idata));

// Gives the mpf members `c`, `dummyvalue`, `dummysmall`, `x1s`, `y1s`, `x`
// and `y` 64 bits of storage and marks the canvas free, with no initialised
// checkpoints.
void preinitcanvas(OVCONTEXT* context, CANVAS0* canvas);

// Gives back all mpf storage: of the first `mhpvalue` checkpoints and of the
// members above. The buffer may then be freed.
void postfreecanvas(OVCONTEXT* context, CANVAS0* canvas);

// ---------------------------------------------------------------- the canvas job
//
// Where a canvas job (`worker_canvas_calc`) carries what the canvas reads.
// `idata[JOB_WORD]` is the flag word that becomes `CANVAS.flags`.
constexpr int JOB_WORD = 0;         // idata: CF_* bits, CF_MODEPREC the forced format
constexpr int JOB_ORDER = 1;        // idata: polynomial order, prec + precoffset
constexpr int JOB_DEPTH = 2;        // idata: the area's depth
constexpr int JOB_DBOUND = 8;       // idata: -log2 of the derivative bound, -1 none
constexpr int JOB_INTERPOLITER = 12;  // idata
// Julia realm: minus the period of the Julia point's attracting cycle, 0 when
// it has none. The kernels' trap and the interior counts of the output read
// the same slot.
constexpr int JOB_ATTRACTOR = 4;    // idata
constexpr int JOB_STATITERLOW = 5;   // idata: iterations the job's kernels advanced, low 32 bits
constexpr int JOB_STATITERHIGH = 6;  // idata: the high 32 bits
constexpr int JOB_STATVERTICES = 7;  // idata: vertices on which a kernel ran
constexpr int JOB_PREPIXELDEPTH = 10;  // idata: highest `depth` the job's PREPIXELs name
constexpr int JOB_CT = 0;           // hdata: origin relative to the corner
constexpr int JOB_JULIAPOINT = 1;   // hdata: the Julia parameter, rounded
constexpr int JOB_TRAPCENTRE = 2;   // hdata: centre of the attractor trap
constexpr int JOB_TRAPRADIUS = 3;   // hdata: its radius in the real part
constexpr int JOB_INTERPOLTAYLOR = 4;  // hdata 4..7: the cubic t0..t3 at `interpoliter`
constexpr int JOB_AREA = 0;         // pdata: AREA*
constexpr int JOB_CORNER = 1;       // pdata: HPVALUE*, the high-precision corner, or null
constexpr int JOB_ENVIRONMENT = 2;  // pdata: ENVIRONMENT*, or null
constexpr int JOB_JULIA = 3;        // pdata: HPVALUE*, the Julia parameter (Julia realm)
constexpr int JOB_REALM = 4;        // pdata: REALM* whose Julia stack serves the job, or null
constexpr int JOB_TEXTURE = 5;      // pdata 5..13: the locked tile of each channel, or null
constexpr int JOB_AREAREALM = 14;   // pdata: the area's realm, held by the job
// Julia realm, a job for an area (not for a tile of a stack level, bit
// 0x800000 of the word): the level whose series starts the vertices, or
// null. Read, never held.
constexpr int JOB_JULIAFRAME = 16;  // pdata: const JULIASTACKDATA*
// Julia realm, an area's job over its view's own orbit: the seed's critical
// orbit, held by the job, along which a point goes on where the view's
// orbit ends; or null.
constexpr int JOB_SEEDORBIT = 17;   // pdata: ENVIRONMENT*

// The number format of a job: CF_MODEPREC of its word, or by its depth when
// that is 0. Returns the format's MODE (16, 32, 48, 64), or 0 after printing
// "MSG_CANVAS_CALC: Not supported." for any other forced value.
// `absolute`: the job has no environment, so a Mandelbrot orbit is z itself
// in the format, from depth ABSOLUTEDOUBLEDEPTH + 1 on in long double.
unsigned int canvasformat(unsigned int word, int depth, bool absolute = false);
// The deepest area whose absolute Mandelbrot orbits double carries: below it
// the rounding of z, amplified along the long orbits next to the boundary,
// reaches the pixel and the counts part from the exact ones.
constexpr int ABSOLUTEDOUBLEDEPTH = 24;

// Picks the format of `worker`'s job and prepares the worker's canvas for it
// (`initcanvas` of that format, grid of 2^8 + 1, interpolation step 32).
// Returns the format's MODE, or 0 when the canvas was left unused.
unsigned int canvas_calc_initcanvas(OVCONTEXT* context, WORKER* worker);

// The calculation of a canvas job on the worker's canvas: the format is
// chosen and the canvas prepared as by `canvas_calc_initcanvas`, then the
// driver works it (`processcanvas` of that format) until it is done or the
// job's `stop` is seen. Returns the format's MODE, or 0 when the canvas was
// left unused.
unsigned int canvas_calc_init(OVCONTEXT* context, WORKER* worker);
