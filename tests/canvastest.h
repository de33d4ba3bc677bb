// canvastest.h: what the tests of the canvas share: one canvas buffer for
// the process (some 150 MB, as a worker thread has), a context with only the
// fields a canvas reads, a job made by hand as `processarea` would hand it
// over, an HPVALUE outside any pool, and mpf values that clear themselves.
//
// Include it in one test file per executable: it defines the buffer.
#pragma once

#include <gmp.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdlib>
#include <type_traits>
#include <cstring>

#include "Mandelbrot.h"
#include "canvas/model.h"

namespace {

CANVAS0* gcanvas = nullptr;
OVCONTEXT* gcontext = nullptr;
constexpr int JULIASIZESHIFT = 8;

class CanvasEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    gcanvas = static_cast<CANVAS0*>(calloc(1, sizeof(CANVAS0)));
    gcontext = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    ASSERT_NE(gcanvas, nullptr);
    ASSERT_NE(gcontext, nullptr);
    gcontext->juliasizeshift = JULIASIZESHIFT;
    preinitcanvas(gcontext, gcanvas);
  }
  void TearDown() override {
    postfreecanvas(gcontext, gcanvas);
    free(gcanvas);
    free(gcontext);
  }
};

const ::testing::Environment* const genv =
    ::testing::AddGlobalTestEnvironment(new CanvasEnvironment);

// A job as `processarea` would hand it over, built by hand.
struct JOB {
  WORKER w;
  JOB(unsigned int word, int depth) {
    memset(&w, 0, sizeof w);
    w.idata[JOB_WORD] = static_cast<ITER>(word);
    w.idata[JOB_DEPTH] = depth;
    w.idata[JOB_DBOUND] = -1;
    w.canvas = gcanvas;
  }
};

// An HPVALUE made by hand: the pool of the context is not needed here.
struct HANDHPV {
  HPVALUE h;
  explicit HANDHPV(mp_bitcnt_t prec) {
    memset(&h, 0, sizeof h);
    mpf_init2(h.v[0], prec);
    mpf_init2(h.v[1], prec);
    h.count = 1;
  }
  ~HANDHPV() {
    mpf_clear(h.v[0]);
    mpf_clear(h.v[1]);
  }
};

struct MPF {
  mpf_t v;
  explicit MPF(mp_bitcnt_t prec = 20000) { mpf_init2(v, prec); }
  ~MPF() { mpf_clear(v); }
  operator mpf_ptr() { return v; }
};

[[maybe_unused]] void setpow2(mpf_ptr x, long e) {
  mpf_set_ui(x, 1);
  if (e >= 0) mpf_mul_2exp(x, x, e);
  else mpf_div_2exp(x, x, -e);
}


template <typename T>
typename T::CANVAS* canvasof() {
  return reinterpret_cast<typename T::CANVAS*>(gcanvas);
}

template <typename T>
HFLOATCOMPLEX tohf(typename T::COMPLEX z) {
  return canvasmodel::NUM<typename T::FLOAT>::ctoHF(z);
}

[[maybe_unused]] bool samehf(HFLOATCOMPLEX a, HFLOATCOMPLEX b) {
  return a.mantissax == b.mantissax && a.mantissay == b.mantissay &&
         (a.exponent == b.exponent || (a.mantissax == 0 && a.mantissay == 0));
}

template <typename T>
bool samec(typename T::COMPLEX a, typename T::COMPLEX b) {
  return samehf(tohf<T>(a), tohf<T>(b));
}

template <typename T>
typename T::COMPLEX cmake(double x, double y) {
  typedef typename T::FLOAT FLOAT;
  if constexpr (std::is_same_v<FLOAT, HFLOAT>) return cHF(HFd(x), HFd(y));
  else return typename T::COMPLEX(static_cast<FLOAT>(x), static_cast<FLOAT>(y));
}

template <typename T>
typename T::FLOAT freal(double x) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>) return HFd(x);
  else return static_cast<typename T::FLOAT>(x);
}

}  // namespace
