// Cost of one series product at the orders the engine uses: the canvas's
// cubic (4 terms), the environment's flat table (49) and its 7 by 7 square,
// both as a general product and as the square of the period iteration; and
// the mpf product at two precisions. Figures are per product (per_op).
//
// Operands are random coefficients of modulus about 1 falling with the power;
// the product goes to a separate buffer, so each call does the same work.
#include <benchmark/benchmark.h>

#include <cmath>
#include <complex>
#include <random>
#include <type_traits>
#include <vector>

#include "canvas/series.h"

namespace {

template <typename T>
typename T::COMPLEX randomcomplex(std::mt19937_64& g, int k) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  long double scale = std::ldexp(1.0L, -k);
  long double x = u(g) * scale, y = u(g) * scale;
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) return cHFld(complexld(x, y));
  else return typename T::COMPLEX(static_cast<typename T::FLOAT>(x), static_cast<typename T::FLOAT>(y));
}

template <typename T>
std::vector<typename T::COMPLEX> operand(int n, unsigned seed) {
  std::mt19937_64 g(seed);
  std::vector<typename T::COMPLEX> v(n);
  for (int k = 0; k < n; k++) v[k] = randomcomplex<T>(g, k);
  return v;
}

template <typename T>
void BM_multaylor(benchmark::State& state) {
  int prec = static_cast<int>(state.range(0));
  auto a = operand<T>(prec, 1), b = operand<T>(prec, 2), c = operand<T>(prec, 3);
  for (auto _ : state) {
    canvasseries::multaylor<T>(c.data(), a.data(), b.data(), prec);
    benchmark::DoNotOptimize(c.data());
    benchmark::ClobberMemory();
  }
  state.counters["per_op"] =
      benchmark::Counter(static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

template <typename T>
void BM_multaylor2(benchmark::State& state) {
  int prec = static_cast<int>(state.range(0)), lag = prec;
  auto a = operand<T>(lag * lag, 1), b = operand<T>(lag * lag, 2), c = operand<T>(lag * lag, 3);
  for (auto _ : state) {
    canvasseries::multaylor2<T>(c.data(), a.data(), b.data(), prec, lag);
    benchmark::DoNotOptimize(c.data());
    benchmark::ClobberMemory();
  }
  state.counters["per_op"] =
      benchmark::Counter(static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

template <typename T>
void BM_sqrtaylor2(benchmark::State& state) {
  int prec = static_cast<int>(state.range(0)), lag = prec;
  auto a = operand<T>(lag * lag, 1), c = operand<T>(lag * lag, 3);
  for (auto _ : state) {
    canvasseries::sqrtaylor2<T>(c.data(), a.data(), prec, lag);
    benchmark::DoNotOptimize(c.data());
    benchmark::ClobberMemory();
  }
  state.counters["per_op"] =
      benchmark::Counter(static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_multaylorhp(benchmark::State& state) {
  int prec = static_cast<int>(state.range(0));
  mp_bitcnt_t bits = static_cast<mp_bitcnt_t>(state.range(1));
  mpf_t(*a)[2] = new mpf_t[prec][2];
  mpf_t(*b)[2] = new mpf_t[prec][2];
  mpf_t(*c)[2] = new mpf_t[prec][2];
  mpf_t d[4];
  inittaylorhp(a, prec, bits);
  inittaylorhp(b, prec, bits);
  inittaylorhp(c, prec, bits);
  for (auto& x : d) mpf_init2(x, bits);
  gmp_randstate_t r;
  gmp_randinit_mt(r);
  gmp_randseed_ui(r, 5);
  for (int k = 0; k < prec; k++)
    for (int p = 0; p < 2; p++) {
      mpf_urandomb(a[k][p], r, bits);
      mpf_urandomb(b[k][p], r, bits);
    }
  for (auto _ : state) {
    multaylorhp(c, a, b, d, prec);
    benchmark::ClobberMemory();
  }
  state.counters["per_op"] =
      benchmark::Counter(static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  gmp_randclear(r);
  for (auto& x : d) mpf_clear(x);
  cleartaylorhp(a, prec);
  cleartaylorhp(b, prec);
  cleartaylorhp(c, prec);
  delete[] a;
  delete[] b;
  delete[] c;
}

BENCHMARK_TEMPLATE(BM_multaylor, CANVASTEMPLATE_float)->Arg(4)->Arg(49);
BENCHMARK_TEMPLATE(BM_multaylor, CANVASTEMPLATE_double)->Arg(4)->Arg(49);
BENCHMARK_TEMPLATE(BM_multaylor, CANVASTEMPLATE_longdouble)->Arg(4)->Arg(49);
BENCHMARK_TEMPLATE(BM_multaylor, CANVASTEMPLATE_hfloat)->Arg(4)->Arg(49);
BENCHMARK_TEMPLATE(BM_multaylor2, CANVASTEMPLATE_float)->Arg(7);
BENCHMARK_TEMPLATE(BM_multaylor2, CANVASTEMPLATE_double)->Arg(7);
BENCHMARK_TEMPLATE(BM_multaylor2, CANVASTEMPLATE_longdouble)->Arg(7);
BENCHMARK_TEMPLATE(BM_multaylor2, CANVASTEMPLATE_hfloat)->Arg(7);
BENCHMARK_TEMPLATE(BM_sqrtaylor2, CANVASTEMPLATE_float)->Arg(7);
BENCHMARK_TEMPLATE(BM_sqrtaylor2, CANVASTEMPLATE_double)->Arg(7);
BENCHMARK_TEMPLATE(BM_sqrtaylor2, CANVASTEMPLATE_longdouble)->Arg(7);
BENCHMARK_TEMPLATE(BM_sqrtaylor2, CANVASTEMPLATE_hfloat)->Arg(7);
BENCHMARK(BM_multaylorhp)->Args({4, 128})->Args({49, 128})->Args({4, 1024})->Args({49, 1024});

}  // namespace
