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
