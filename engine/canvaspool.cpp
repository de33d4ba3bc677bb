// canvaspool.cpp: a canvas buffer's life outside jobs. The mpf storage made
// here and by the checkpoint pool lives as long as the buffer, so that a job
// pays no allocation for it.
#include "canvas.h"

#include <gmp.h>

#include <cstdlib>

#include "Mandelbrot.h"
#include "canvas/periodstrides.h"

namespace {

// The mpf members of a canvas besides its checkpoints, as one list, so that
// the two ends of the buffer's life cannot disagree about them.
template <typename F>
void forscratch(CANVAS0* canvas, F f) {
  f(canvas->c[0]);
  f(canvas->c[1]);
  f(canvas->dummyvalue);
  f(canvas->dummysmall);
  f(canvas->x1s);
  f(canvas->y1s);
  f(canvas->x);
  f(canvas->y);
}

}  // namespace

void preinitcanvas([[maybe_unused]] OVCONTEXT* context, CANVAS0* canvas) {
  forscratch(canvas, [](mpf_ptr v) { mpf_init2(v, 64); });
  canvas->flags = POOL_FREE;
  canvas->mhpvalue = 0;
  canvas->strides = nullptr;
}

void postfreecanvas([[maybe_unused]] OVCONTEXT* context, CANVAS0* canvas) {
  for (int i = 0; i < canvas->mhpvalue; i++) {
    mpf_clear(canvas->hpvalue[i].value[0]);
    mpf_clear(canvas->hpvalue[i].value[1]);
  }
  canvas->mhpvalue = 0;
  forscratch(canvas, [](mpf_ptr v) { mpf_clear(v); });
  if (canvas->strides) {
    freeperiodstrides(canvas->strides);
    std::free(canvas->strides);
    canvas->strides = nullptr;
  }
}
