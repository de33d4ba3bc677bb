// A Newton run to the nucleus of a period-n component at 4,096 bits: the
// time from its start to its end (converged), and to the series of the
// environment it makes, for n = 1,000 and 100,000.
//
// The component is the 1/n bulb of the main cardioid: its nucleus lies just
// outside the cardioid's point of internal angle 1/n, about pi / n^3 from
// it, and the run starts from that estimate in double, well inside the
// component's atom domain. The engine is sized as bench_refiter's (one
// worker lent to a graph beside the main thread); ORVANTA_BENCH_THREADS
// changes it.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <functional>
#include <thread>

#include "Mandelbrot.h"
#include "benchengine.h"
#include "newtonstart.h"
#include "refiter.h"

namespace {

using benchengine::enginethreads;
using benchengine::onmain;


// What the run's owner hears: its end, and the series message.
std::atomic<int> ended{0};
std::atomic<int> seriesmade{0};
std::atomic<bool> converged{false};
ENVIRONMENT* finished = nullptr;

bool neverstop(ENVIRONMENT*) { return false; }

void runends(OVCONTEXT*, ENVIRONMENT*, bool ok) {
  converged.store(ok);
  ended.fetch_add(1);
}

void seriesdone(OVCONTEXT* context, WORKER* worker) {
  finished = static_cast<ENVIRONMENT*>(worker->pdata[0]);
  freeworker(context, worker);
  seriesmade.fetch_add(1);
}


// The estimate of the 1/n bulb's nucleus.
std::complex<double> bulbnucleus(unsigned n) {
  const double t = 2 * M_PI / n;
  std::complex<double> w = std::polar(1.0, t);
  std::complex<double> root = w / 2.0 - w * w / 4.0;
  // Outward normal of the cardioid at the root: the cardioid is the image
  // of the circle |w| = 1 under w/2 - w^2/4, whose derivative there is
  // (1 - w)/2 times the circle's tangent i w.
  std::complex<double> tangent = std::complex<double>(0, 1) * w * (1.0 - w) / 2.0;
  std::complex<double> normal = -std::complex<double>(0, 1) * tangent / std::abs(tangent);
  return root + normal * (M_PI / (static_cast<double>(n) * n * n));
}

void BM_Newton(benchmark::State& state) {
  const unsigned n = static_cast<unsigned>(state.range(0));
  const mp_bitcnt_t bits = 4096;
  OVCONTEXT* context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
  initcontext(context, int64_t(2) << 30, enginethreads(), 8, 0, nullptr, nullptr, nullptr, nullptr,
              nullptr, nullptr, "/tmp/", 0);
  newtonstophook = neverstop;
  newtonendhook = runends;
  newtonfinishhook = seriesdone;
  std::complex<double> c = bulbnucleus(n);
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  mpf_set_d(cre, c.real());
  mpf_set_d(cim, c.imag());
  int runs = 0, ok = 0;
  double newtonseconds = 0, steps = 0;
  for (auto _ : state) {
    int before = ended.load(), seriesbefore = seriesmade.load();
    finished = nullptr;
    ENVIRONMENT* e = nullptr;
    auto t0 = std::chrono::steady_clock::now();
    onmain(context, [&](OVCONTEXT* ctx) {
      e = newtonstart::startnewtonrun(ctx, cre, cim, n, bits, NEWTONSTEPS, false);
    });
    while (ended.load() == before) std::this_thread::sleep_for(std::chrono::microseconds(200));
    auto t1 = std::chrono::steady_clock::now();
    if (converged.load())
      while (seriesmade.load() == seriesbefore) std::this_thread::sleep_for(std::chrono::microseconds(200));
    newtonseconds += std::chrono::duration<double>(t1 - t0).count();
    runs++;
    ok += converged.load();
    steps += e->timesrun;
    onmain(context, [&](OVCONTEXT* ctx) {
      if (finished) detache(ctx, finished);
      __removetask(ctx, e->task);
      e->task = nullptr;
      detache(ctx, e);
    });
  }
  state.counters["newton_s"] = newtonseconds / runs;
  state.counters["passes"] = steps / runs;
  state.counters["converged"] = static_cast<double>(ok) / runs;
  mpf_clear(cre);
  mpf_clear(cim);
  newtonstophook = nullptr;
  newtonendhook = nullptr;
  newtonfinishhook = nullptr;
  freecontext(context);
  free(context);
}

}  // namespace

BENCHMARK(BM_Newton)->Arg(1000)->Arg(100000)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(2);
