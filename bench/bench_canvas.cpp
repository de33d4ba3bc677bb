// The fixed cost of one area: `initcanvas` of a 257 by 257 grid in each
// number format, on one canvas reused as a worker thread reuses its own; and
// the inner loops: iterations per second of the plain kernels, with and
// without the derivative, on an orbit that never escapes.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include "Mandelbrot.h"
#include "canvas/kernels.h"
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

// A point of the main cardioid, so that every call runs to its limit.
constexpr ITER KERNELITERATIONS = 1 << 20;

template <typename T, bool FAST>
void BM_PlainKernel(benchmark::State& state) {
  static BENCHCANVAS b;
  b.prepare(4);
  mpf_set_d(b.corner.v[0], -0.2);
  mpf_set_d(b.corner.v[1], 0.0);
  auto* canvas = reinterpret_cast<typename T::CANVAS*>(b.canvas);
  canvasmodel::initcanvas<T>(b.context, canvas, &b.job, 8, 32);
  const int x = 32, y = 26;  // c near -0.075 + 0.1i
  for (auto _ : state) {
    typename T::CVALUE v = canvas->v[y * CANVASSIZE + x].v;
    v.flags = CV_ABSOLUTE;
    int r = FAST ? canvaskernels::calciterabsolutefast<T>(canvas, x, y, -1, &v, KERNELITERATIONS,
                                                          nullptr, true, 0)
                 : canvaskernels::calciterabsolute<T>(canvas, x, y, -1, &v, KERNELITERATIONS,
                                                      nullptr, true, 0);
    if (r != CALC_MORE || v.iter != static_cast<UITER>(KERNELITERATIONS))
      state.SkipWithError("the orbit did not run to its limit");
    benchmark::DoNotOptimize(v);
  }
  state.SetItemsProcessed(state.iterations() * KERNELITERATIONS);
}

}  // namespace

BENCHMARK_TEMPLATE(BM_PlainKernel, CANVASTEMPLATE_float, false)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_PlainKernel, CANVASTEMPLATE_double, false)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_PlainKernel, CANVASTEMPLATE_double, true)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_PlainKernel, CANVASTEMPLATE_longdouble, false)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_PlainKernel, CANVASTEMPLATE_hfloat, false)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_PlainKernel, CANVASTEMPLATE_hfloat, true)->Unit(benchmark::kMillisecond);

// Depths inside each format's own range.
BENCHMARK_TEMPLATE(BM_InitCanvas, CANVASTEMPLATE_float)->Arg(10)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_InitCanvas, CANVASTEMPLATE_double)->Arg(100)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_InitCanvas, CANVASTEMPLATE_longdouble)->Arg(600)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_InitCanvas, CANVASTEMPLATE_hfloat)->Arg(9000)->Unit(benchmark::kMillisecond);
