// Reference orbit iterations per second: the plain iteration graph (z and
// dz) and the idle graph (z, dz and the two HFLOAT series), plain and split,
// on a live engine, against one thread iterating z and dz in mpf with the
// same operations.
//
// The main thread serves a running graph beside the worker threads lent to
// it, and all of them spin. ORVANTA_BENCH_THREADS sets the engine's thread
// count (default 6: main, GL, helper and three workers, of which one is lent
// to the graph, so that two threads serve it, one per core of the build
// machine; 7 lends two, and three spinning threads then share two cores).
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <thread>

#include "Mandelbrot.h"
#include "benchengine.h"

#ifdef ORVANTA_BENCH_MPFR
#include <mpfr.h>
#endif

namespace {

using benchengine::enginethreads;
using benchengine::onmain;


void pointin(mpf_ptr cre, mpf_ptr cim) {
  mpf_set_d(cre, 0.35054);
  mpf_set_d(cim, 0.19454);
}

std::atomic<int> stretchends{0};

// One benchmark iteration is a run of RUNSTRETCHES stretches, each started
// by the end of the one before on the main thread, as the engine's own runs
// go on; the benchmark's thread sleeps on the count meanwhile, rather than
// yield, since it would otherwise take a core from the graph's spinning
// threads. A run is an orbit of 100,352 rounds, as long as the long orbit
// tests', since an orbit of the engine is one run of hundreds of stretches:
// waking the benchmark's thread and the main thread at a run's start and
// end takes milliseconds on a loaded machine, which in a run of a few
// stretches at 256 bits (two milliseconds of work for 16) would be timed as
// the graph's. ORVANTA_BENCH_RUNSTRETCHES sets another length.
constexpr int RUNSTRETCHES = 196;
int runstretches() {
  const char* n = getenv("ORVANTA_BENCH_RUNSTRETCHES");
  int k = n ? atoi(n) : 0;
  return k > 0 ? k : RUNSTRETCHES;
}
int stretchesleft = 0;
bool runsplit = false, runidle = false;

void startstretch(OVCONTEXT* context, COMPUTERGROUP* g) {
  if (runidle)
    setupidlecomputergroup(context, g, runsplit);
  else
    setupitercomputergroup(context, g, runsplit);
}

void countend(COMPUTERGROUP* g) {
  if (--stretchesleft > 0) {
    startstretch(g->context, g);
    return;
  }
  stretchends.fetch_add(1);
  stretchends.notify_all();
}


struct ENGINE {
  OVCONTEXT* context;
  ENGINE() {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    initcontext(context, int64_t(2) << 30, enginethreads(), 8, 0, nullptr, nullptr, nullptr,
                nullptr, nullptr, nullptr, "/tmp/", 0);
    // ORVANTA_BENCH_SERIALBITS moves the precision up to which a stretch
    // runs serially (0: never), to find where lending threads starts to pay.
    if (const char* b = getenv("ORVANTA_BENCH_SERIALBITS")) context->serialcomputerbits = strtoul(b, nullptr, 10);
  }
  ~ENGINE() {
    freecontext(context);
    free(context);
  }
};

void graph(benchmark::State& state, bool split, bool idle) {
  mp_bitcnt_t bits = static_cast<mp_bitcnt_t>(state.range(0));
  ENGINE engine;
  COMPUTERGROUP* g = static_cast<COMPUTERGROUP*>(calloc(1, sizeof(COMPUTERGROUP)));
  initcomputergroup(engine.context, g, NCOMPUTER_ENV, bits);
  pointin(g->data[0], g->data[1]);
  g->endcompute = countend;
  int64_t rounds = 0;
  runsplit = split;
  runidle = idle;
  const int run = runstretches();
  for (auto _ : state) {
    int before = stretchends.load();
    onmain(engine.context, [&](OVCONTEXT* c) {
      stretchesleft = run;
      startstretch(c, g);
    });
    for (int now = stretchends.load(); now == before; now = stretchends.load())
      stretchends.wait(now);
    rounds += int64_t(run) * NCOMPUTERSTRETCH;
  }
  onmain(engine.context, [](OVCONTEXT*) {});
  state.counters["iter/s"] = benchmark::Counter(static_cast<double>(rounds), benchmark::Counter::kIsRate);
  freecomputergroup(g);
  free(g);
}

// A context with the queues a graph's path touches and no threads: `run`
// serves it on the caller's thread.
struct BARECONTEXT {
  OVCONTEXT* context;
  WORKER workers[8] = {};
  BARECONTEXT() {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    for (FIFO* f : {&context->workerchain, &context->wmain, &context->wmainhelper,
                    &context->wworkergl, &context->computer})
      initfifo(f);
    for (THREADGROUP* g : {&context->grmain, &context->grmainhelper, &context->grworker,
                           &context->grworkergl})
      initgroup(g, 1);
    context->idleworkermaxprio = -1;
    for (WORKER& w : workers)
      atomicfifoenqueue(&context->workerchain, &w, offsetof(WORKER, nextonstack));
  }
  ~BARECONTEXT() {
    for (THREADGROUP* g : {&context->grmain, &context->grmainhelper, &context->grworker,
                           &context->grworkergl})
      freegroup(g);
    free(context);
  }
};

// Serial stretches of the plain graph on the benchmark's own thread, in its
// CPU time, to set against BM_SequentialMpfCpu: the serial path alone,
// without the wake-ups of a live engine, and moved far less by other work on
// the machine than the real-time columns.
void BM_IterGraphOneThread(benchmark::State& state) {
  mp_bitcnt_t bits = static_cast<mp_bitcnt_t>(state.range(0));
  BARECONTEXT bare;
  bare.context->serialcomputerbits = bits;
  COMPUTERGROUP* g = static_cast<COMPUTERGROUP*>(calloc(1, sizeof(COMPUTERGROUP)));
  initcomputergroup(bare.context, g, NCOMPUTER_ENV, bits);
  pointin(g->data[0], g->data[1]);
  g->endcompute = countend;
  runsplit = false;
  runidle = false;
  const int run = runstretches();
  int64_t rounds = 0;
  for (auto _ : state) {
    stretchesleft = run;
    startstretch(bare.context, g);
    ::run(bare.context);
    rounds += int64_t(run) * NCOMPUTERSTRETCH;
  }
  state.counters["iter/s"] = benchmark::Counter(static_cast<double>(rounds), benchmark::Counter::kIsRate);
  freecomputergroup(g);
  free(g);
}

void BM_IterGraph(benchmark::State& state) { graph(state, false, false); }
void BM_IterGraphSplit(benchmark::State& state) { graph(state, true, false); }
void BM_IdleGraph(benchmark::State& state) { graph(state, false, true); }
void BM_IdleGraphSplit(benchmark::State& state) { graph(state, true, true); }

void BM_SequentialMpf(benchmark::State& state) {
  mp_bitcnt_t bits = static_cast<mp_bitcnt_t>(state.range(0));
  mpf_t cre, cim, x, y, dx, dy, x2, y2, xn, yn, p1, p2, p3, p4;
  for (mpf_ptr v : {cre, cim, x, y, dx, dy, x2, y2, xn, yn, p1, p2, p3, p4}) mpf_init2(v, bits);
  pointin(cre, cim);
  int64_t rounds = 0;
  for (auto _ : state) {
    for (int k = 0; k < NCOMPUTERSTRETCH; k++) {
      mpf_mul(x2, x, x);
      mpf_mul(y2, y, y);
      mpf_sub(xn, x2, y2);
      mpf_add(xn, xn, cre);
      mpf_mul(yn, x, y);
      mpf_mul_2exp(yn, yn, 1);
      mpf_add(yn, yn, cim);
      mpf_mul(p1, x, dx);
      mpf_mul(p2, y, dy);
      mpf_mul(p3, x, dy);
      mpf_mul(p4, y, dx);
      mpf_sub(p1, p1, p2);
      mpf_mul_2exp(dx, p1, 1);
      mpf_add_ui(dx, dx, 1);
      mpf_add(p3, p3, p4);
      mpf_mul_2exp(dy, p3, 1);
      mpf_swap(x, xn);
      mpf_swap(y, yn);
    }
    rounds += NCOMPUTERSTRETCH;
    benchmark::DoNotOptimize(x->_mp_d);
  }
  state.counters["iter/s"] = benchmark::Counter(static_cast<double>(rounds), benchmark::Counter::kIsRate);
  for (mpf_ptr v : {cre, cim, x, y, dx, dy, x2, y2, xn, yn, p1, p2, p3, p4}) mpf_clear(v);
}

// The loop in the thread's CPU time, beside BM_IterGraphOneThread.
void BM_SequentialMpfCpu(benchmark::State& state) { BM_SequentialMpf(state); }

#ifdef ORVANTA_BENCH_MPFR
// The same loop in MPFR, rounding to nearest: a second measure of what one
// thread does without the graph.
void BM_SequentialMpfr(benchmark::State& state) {
  mpfr_prec_t bits = static_cast<mpfr_prec_t>(state.range(0));
  mpfr_t cre, cim, x, y, dx, dy, x2, y2, xn, yn, p1, p2, p3, p4;
  for (mpfr_ptr v : {cre, cim, x, y, dx, dy, x2, y2, xn, yn, p1, p2, p3, p4}) {
    mpfr_init2(v, bits);
    mpfr_set_zero(v, 1);
  }
  mpfr_set_d(cre, 0.35054, MPFR_RNDN);
  mpfr_set_d(cim, 0.19454, MPFR_RNDN);
  const mpfr_rnd_t n = MPFR_RNDN;
  int64_t rounds = 0;
  for (auto _ : state) {
    for (int k = 0; k < NCOMPUTERSTRETCH; k++) {
      mpfr_sqr(x2, x, n);
      mpfr_sqr(y2, y, n);
      mpfr_sub(xn, x2, y2, n);
      mpfr_add(xn, xn, cre, n);
      mpfr_mul(yn, x, y, n);
      mpfr_mul_2ui(yn, yn, 1, n);
      mpfr_add(yn, yn, cim, n);
      mpfr_mul(p1, x, dx, n);
      mpfr_mul(p2, y, dy, n);
      mpfr_mul(p3, x, dy, n);
      mpfr_mul(p4, y, dx, n);
      mpfr_sub(p1, p1, p2, n);
      mpfr_mul_2ui(dx, p1, 1, n);
      mpfr_add_ui(dx, dx, 1, n);
      mpfr_add(p3, p3, p4, n);
      mpfr_mul_2ui(dy, p3, 1, n);
      mpfr_swap(x, xn);
      mpfr_swap(y, yn);
    }
    rounds += NCOMPUTERSTRETCH;
    benchmark::DoNotOptimize(x->_mpfr_d);
  }
  state.counters["iter/s"] = benchmark::Counter(static_cast<double>(rounds), benchmark::Counter::kIsRate);
  for (mpfr_ptr v : {cre, cim, x, y, dx, dy, x2, y2, xn, yn, p1, p2, p3, p4}) mpfr_clear(v);
}
BENCHMARK(BM_SequentialMpfr)->Arg(256)->Arg(4096)->Arg(32768)->UseRealTime();
#endif

}  // namespace

BENCHMARK(BM_SequentialMpf)->Arg(256)->Arg(1024)->Arg(2048)->Arg(4096)->Arg(32768)->UseRealTime();
BENCHMARK(BM_SequentialMpfCpu)->Arg(256)->Arg(1024)->Arg(2048);
BENCHMARK(BM_IterGraphOneThread)->Arg(256)->Arg(1024)->Arg(2048);
BENCHMARK(BM_IterGraph)->Arg(256)->Arg(1024)->Arg(2048)->Arg(4096)->Arg(32768)->UseRealTime();
BENCHMARK(BM_IterGraphSplit)->Arg(256)->Arg(4096)->Arg(32768)->UseRealTime();
BENCHMARK(BM_IdleGraph)->Arg(256)->Arg(4096)->Arg(32768)->UseRealTime();
BENCHMARK(BM_IdleGraphSplit)->Arg(256)->Arg(4096)->Arg(32768)->UseRealTime();
