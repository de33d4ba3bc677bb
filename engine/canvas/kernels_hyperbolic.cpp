// canvas/kernels_hyperbolic.cpp: the hyperbolic realm. No iteration of
// z^2 + c: a point of the unit disc is carried to the upper half plane and
// reduced to the fundamental domain of the modular group by translations
// w - n and inversions -1/w; the count is the number of elementary steps.
#include <cmath>

#include "canvas/kernels.h"
#include "canvas/kernelsupport.h"

namespace canvaskernels {

namespace hyperbolicdetail {

template <typename T>
double todouble(typename T::FLOAT f) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) return dHF(f);
  else return static_cast<double>(f);
}

// floor(v) by truncation with a correction; beyond 2^52 the value is an
// integer already.
inline double floorvalue(double v) {
  if (std::fabs(v) >= 0x1p52) return v;
  double f = static_cast<double>(static_cast<long long>(v));
  if (f > v) f -= 1.0;
  return f;
}

// The integer matrix of the steps so far; entries past this bound stop
// being tracked, the product is then no elementary one anyway.
constexpr long long MATRIXBOUND = 1ll << 40;

struct MATRIX {
  long long m00 = 1, m01 = 0, m10 = 0, m11 = 1;
  bool large = false;
  void translate(long long n) {
    if (large) return;
    m00 -= n * m10;
    m01 -= n * m11;
    check();
  }
  void invert() {
    long long a = m00, b = m01;
    m00 = -m10;
    m01 = -m11;
    m10 = a;
    m11 = b;
  }
  void check() {
    if (std::llabs(m00) > MATRIXBOUND || std::llabs(m01) > MATRIXBOUND) large = true;
  }
  bool elementary() const {
    return !large && std::llabs(m00) <= 1 && std::llabs(m01) <= 1 && std::llabs(m10) <= 1 &&
           std::llabs(m11) <= 1;
  }
};

}  // namespace hyperbolicdetail

template <typename T>
int calcitercanvashyperbolic([[maybe_unused]] int x, [[maybe_unused]] int y,
                             typename T::COMPLEX* z, typename T::COMPLEX* d,
                             typename T::CVALUE* cvalue, ITER maxiter) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  using namespace hyperbolicdetail;
  const FLOAT one = N::fromd(1.0);
  const COMPLEX twoi = cmake<T>(N::zero(), N::fromd(2.0));
  const COMPLEX I = cmake<T>(N::zero(), one);
  FLOAT a = re<T>(*z), b = im<T>(*z);
  FLOAT am = N::sub(a, one), ap = N::add(a, one);
  FLOAT q = N::add(N::mul(am, am), N::mul(b, b));
  FLOAT t = N::div(N::sub(N::mul(N::sub(one, a), ap), N::mul(b, b)), q);
  if (!N::less(N::zero(), t)) {
    *z = N::czero();
    cvalue->iter = 0;
    return 1;
  }
  FLOAT r = N::div(N::sub(N::mul(b, am), N::mul(b, ap)), q);
  // dw/dz = 2i / (1 - z)^2
  COMPLEX omz = N::csub(N::creal(one), *z);
  COMPLEX dd = N::cdiv(N::cmul(*d, twoi), N::csqr(omz));

  const UITER limit = static_cast<UITER>(maxiter);
  UITER iter = cvalue->iter;
  MATRIX m;
  auto reduce = [&](UITER extra) {
    double v = todouble<T>(N::add(r, N::fromd(0.5)));
    if (std::fabs(v) > static_cast<double>(MATRIXBOUND)) {
      iter = limit;
      m.large = true;
      return;
    }
    long long n = static_cast<long long>(floorvalue(v));
    r = N::sub(r, N::fromd(static_cast<double>(n)));
    m.translate(n);
    unsigned long long step = static_cast<unsigned long long>(std::llabs(n)) + extra;
    iter = step >= limit - iter ? limit : iter + static_cast<UITER>(step);
  };
  reduce(0);
  while (iter < limit) {
    FLOAT s = N::add(N::mul(r, r), N::mul(t, t));
    if (!N::less(s, one)) break;
    COMPLEX w = cmake<T>(r, t);
    dd = N::cdiv(dd, N::csqr(w));
    r = N::div(N::sub(N::zero(), r), s);
    t = N::div(t, s);
    m.invert();
    reduce(1);
  }
  // Back to the disc: z = (w - i) / (w + i), dz/dw = 2i / (w + i)^2.
  COMPLEX w = cmake<T>(r, t);
  COMPLEX wpi = N::cadd(w, I);
  *z = N::cdiv(N::csub(w, I), wpi);
  *d = N::cdiv(N::cmul(dd, twoi), N::csqr(wpi));
  if (m.elementary()) {
    cvalue->iter = static_cast<UITER>(-170);
    return 1;
  }
  cvalue->iter = iter;
  if (iter >= limit) return 0;
  iter++;
  cvalue->iter = iter;
  return iter < limit ? 1 : 0;
}

#define ORVANTA_INSTANTIATE(T)                                                                \
  template int calcitercanvashyperbolic<T>(int, int, T::COMPLEX*, T::COMPLEX*, T::CVALUE*, \
                                           ITER);
ORVANTA_INSTANTIATE(CANVASTEMPLATE_float)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_double)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_longdouble)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_hfloat)
#undef ORVANTA_INSTANTIATE

}  // namespace canvaskernels
