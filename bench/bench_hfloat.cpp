// Cost of the HFLOATCOMPLEX operations the kernels lean on, beside the
// hardware complex formats they replace past long double's range.
//
// Two forms of each: a dependent chain (each result feeds the next
// operation: latency) and independent operations over arrays (throughput).
// Operands are precomputed random values of modulus about 1, so chains
// neither overflow nor fall into subnormals. Figures are reported as
// per_op, in seconds; each benchmark iteration runs a batch of N operations.
#include <benchmark/benchmark.h>

#include <cmath>
#include <complex>
#include <cstddef>
#include <random>
#include <vector>

#include "mathext.h"

namespace {

constexpr size_t N = 1024;  // operands per array, a power of two

struct Operands {
  std::vector<complexd> d1, d2;
  std::vector<complexld> l1, l2;
  std::vector<HFLOATCOMPLEX> h1, h2;

  Operands() {
    std::mt19937_64 g(20240611);
    std::uniform_real_distribution<double> angle(0.0, 6.283185307179586);
    std::uniform_real_distribution<double> radius(0.5, 2.0);
    for (size_t i = 0; i < N; i++) {
      // The first set on the unit circle: a chain of products keeps |z| = 1.
      complexd a = std::polar(1.0, angle(g));
      complexd b = std::polar(radius(g), angle(g));
      d1.push_back(a);
      d2.push_back(b);
      l1.push_back(complexld(a.real(), a.imag()));
      l2.push_back(complexld(b.real(), b.imag()));
      h1.push_back(cHFd(a));
      h2.push_back(cHFd(b));
    }
  }
};

const Operands& operands() {
  static const Operands o;
  return o;
}

void report(benchmark::State& state) {
  const double ops = static_cast<double>(state.iterations()) * N;
  // Seconds per operation, printed with its SI prefix ("3.5n" is 3.5 ns).
  state.counters["per_op"] = benchmark::Counter(ops, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.SetItemsProcessed(static_cast<int64_t>(ops));
}

// ---------------------------------------------------------------- HFLOAT

void BM_cmulHF_chain(benchmark::State& state) {
  const auto& w = operands().h1;
  HFLOATCOMPLEX z = operands().h2[0];
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) z = cmulHF(z, w[i]);
    benchmark::DoNotOptimize(z);
  }
  report(state);
}

void BM_cmulHF_throughput(benchmark::State& state) {
  const auto& a = operands().h1;
  const auto& b = operands().h2;
  std::vector<HFLOATCOMPLEX> out(N);
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) out[i] = cmulHF(a[i], b[i]);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  report(state);
}

// The square alone would double the exponent every step; the chain sets it
// back to 1 each time, which costs one store, and folds the modulus into a
// running xor so that it is not dropped as unused.
void BM_csqrlenHF_chain(benchmark::State& state) {
  HFLOATCOMPLEX z = operands().h2[0];
  HFLOATBASE acc = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) {
      HFLOAT len;
      z = csqrlenHF(z, &len);
      z.exponent = 1;
      z.mantissax ^= static_cast<HFLOATBASE>(i & 7);  // keeps the orbit from settling
      acc ^= len.mantissa;
    }
    benchmark::DoNotOptimize(z);
    benchmark::DoNotOptimize(acc);
  }
  report(state);
}

void BM_csqrlenHF_throughput(benchmark::State& state) {
  const auto& a = operands().h2;
  std::vector<HFLOATCOMPLEX> out(N);
  std::vector<HFLOAT> len(N);
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) out[i] = csqrlenHF(a[i], &len[i]);
    benchmark::DoNotOptimize(out.data());
    benchmark::DoNotOptimize(len.data());
    benchmark::ClobberMemory();
  }
  report(state);
}

void BM_caddHF_chain(benchmark::State& state) {
  const auto& w = operands().h1;
  HFLOATCOMPLEX z = operands().h2[0];
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) z = caddHF(z, w[i]);
    benchmark::DoNotOptimize(z);
  }
  report(state);
}

void BM_caddHF_throughput(benchmark::State& state) {
  const auto& a = operands().h1;
  const auto& b = operands().h2;
  std::vector<HFLOATCOMPLEX> out(N);
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) out[i] = caddHF(a[i], b[i]);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  report(state);
}

void BM_cdivHF_chain(benchmark::State& state) {
  const auto& w = operands().h1;
  HFLOATCOMPLEX z = operands().h2[0];
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) z = cdivHF(z, w[i]);
    benchmark::DoNotOptimize(z);
  }
  report(state);
}

void BM_cdivHF_throughput(benchmark::State& state) {
  const auto& a = operands().h1;
  const auto& b = operands().h2;
  std::vector<HFLOATCOMPLEX> out(N);
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) out[i] = cdivHF(a[i], b[i]);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  report(state);
}

// One Mandelbrot step z^2 + c with |z|^2 for the escape test, as a kernel
// does it; c lies in the main cardioid, so the orbit stays bounded.
void BM_mandelstepHF_chain(benchmark::State& state) {
  const HFLOATCOMPLEX c = cHFd(complexd(-0.5, 0.3));
  HFLOATCOMPLEX z = CZEROH;
  HFLOATBASE acc = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) {
      HFLOAT len;
      z = caddHF(csqrlenHF(z, &len), c);
      acc ^= len.mantissa;
    }
    benchmark::DoNotOptimize(z);
    benchmark::DoNotOptimize(acc);
  }
  report(state);
}

// ---------------------------------------------------------------- hardware complex

template <typename T>
const std::vector<std::complex<T>>& hw1();
template <>
const std::vector<complexd>& hw1<double>() { return operands().d1; }
template <>
const std::vector<complexld>& hw1<long double>() { return operands().l1; }
template <typename T>
const std::vector<std::complex<T>>& hw2();
template <>
const std::vector<complexd>& hw2<double>() { return operands().d2; }
template <>
const std::vector<complexld>& hw2<long double>() { return operands().l2; }

template <typename T>
void BM_mul_chain(benchmark::State& state) {
  const auto& w = hw1<T>();
  std::complex<T> z = hw2<T>()[0];
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) z = z * w[i];
    benchmark::DoNotOptimize(z);
  }
  report(state);
}

template <typename T>
void BM_mul_throughput(benchmark::State& state) {
  const auto& a = hw1<T>();
  const auto& b = hw2<T>();
  std::vector<std::complex<T>> out(N);
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) out[i] = a[i] * b[i];
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  report(state);
}

template <typename T>
void BM_sqr_throughput(benchmark::State& state) {
  const auto& a = hw2<T>();
  std::vector<std::complex<T>> out(N);
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) out[i] = a[i] * a[i];
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  report(state);
}

template <typename T>
void BM_mandelstep_chain(benchmark::State& state) {
  const std::complex<T> c(-0.5, 0.3);
  std::complex<T> z(0, 0);
  T acc = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < N; i++) {
      T len;
      z = csqrlenT(z, &len) + c;
      acc += len;
    }
    benchmark::DoNotOptimize(z);
    benchmark::DoNotOptimize(acc);
  }
  report(state);
}

}  // namespace

BENCHMARK(BM_cmulHF_chain);
BENCHMARK(BM_cmulHF_throughput);
BENCHMARK(BM_csqrlenHF_chain);
BENCHMARK(BM_csqrlenHF_throughput);
BENCHMARK(BM_caddHF_chain);
BENCHMARK(BM_caddHF_throughput);
BENCHMARK(BM_cdivHF_chain);
BENCHMARK(BM_cdivHF_throughput);
BENCHMARK(BM_mandelstepHF_chain);
BENCHMARK_TEMPLATE(BM_mul_chain, long double);
BENCHMARK_TEMPLATE(BM_mul_throughput, long double);
BENCHMARK_TEMPLATE(BM_sqr_throughput, long double);
BENCHMARK_TEMPLATE(BM_mandelstep_chain, long double);
BENCHMARK_TEMPLATE(BM_mul_chain, double);
BENCHMARK_TEMPLATE(BM_mul_throughput, double);
BENCHMARK_TEMPLATE(BM_sqr_throughput, double);
BENCHMARK_TEMPLATE(BM_mandelstep_chain, double);
