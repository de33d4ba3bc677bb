// The fixed cost of one area: `initcanvas` of a 257 by 257 grid in each
// number format, on one canvas reused as a worker thread reuses its own.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include "Mandelbrot.h"
#include "canvas/model.h"

namespace {

struct BENCHCANVAS {
  OVCONTEXT* context;
  CANVAS0* canvas;
  HPVALUE corner;
  WORKER job;

  BENCHCANVAS() {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    context->juliasizeshift = 8;
    canvas = static_cast<CANVAS0*>(calloc(1, sizeof(CANVAS0)));
    preinitcanvas(context, canvas);
    memset(&corner, 0, sizeof corner);
    mpf_init2(corner.v[0], 256);
    mpf_init2(corner.v[1], 256);
    mpf_set_d(corner.v[0], -0.75);
    mpf_set_d(corner.v[1], 0.125);
    corner.count = 1;
  }
  ~BENCHCANVAS() {
    mpf_clear(corner.v[0]);
    mpf_clear(corner.v[1]);
    postfreecanvas(context, canvas);
    free(canvas);
    free(context);
  }

  void prepare(int depth) {
    memset(&job, 0, sizeof job);
    job.idata[JOB_WORD] = 0;
    job.idata[JOB_DEPTH] = depth;
    job.idata[JOB_DBOUND] = -1;
    job.pdata[JOB_CORNER] = &corner;
    job.canvas = canvas;
  }
};

template <typename T>
void BM_InitCanvas(benchmark::State& state) {
  static BENCHCANVAS b;
  b.prepare(static_cast<int>(state.range(0)));
  auto* canvas = reinterpret_cast<typename T::CANVAS*>(b.canvas);
  for (auto _ : state) {
    canvasmodel::initcanvas<T>(b.context, canvas, &b.job, 8, 32);
    benchmark::ClobberMemory();
  }
}

}  // namespace

// Depths inside each format's own range.
BENCHMARK_TEMPLATE(BM_InitCanvas, CANVASTEMPLATE_float)->Arg(10)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_InitCanvas, CANVASTEMPLATE_double)->Arg(100)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_InitCanvas, CANVASTEMPLATE_longdouble)->Arg(600)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_InitCanvas, CANVASTEMPLATE_hfloat)->Arg(9000)->Unit(benchmark::kMillisecond);
