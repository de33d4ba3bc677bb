// canvas/model.h: the operations of the canvas model, written once over the
// number format and stamped out for float, double, long double and HFLOAT.
// The template `T` is one of the CANVASTEMPLATE_* types; each operation is
// reachable by its suffixed name (`initcanvas_double`, `addcdata_hfloat`),
// which refers to the instantiation compiled in canvasinit.cpp or
// canvasdata.cpp.
//
// Threads. Everything here runs on the worker thread that owns the canvas;
// nothing is shared but the job's `stop` flag, which none of these read.
//
// Not here yet: the Julia start from a bypass frame evaluates the Julia
// stack's series; it comes with that part.
#pragma once

#include <gmp.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "../canvas.h"

namespace canvasmodel {

// ---------------------------------------------------------------- number traits
//
// The arithmetic of a format, so that every operation of the canvas (the
// model, the kernels, the tests, the driver, the output) is written once:
// conversions to and from HFLOAT, double and mpf, powers of two, the largest
// value, the real and complex operations and comparisons. The hardware
// formats share one definition; HFLOAT has its own, in the operations of
// mathext. Thresholds come in as double and are compared in the format.

template <typename FLOAT>
struct NUM {
  typedef std::complex<FLOAT> COMPLEX;
  static FLOAT fromHF(HFLOAT h) { return static_cast<FLOAT>(dlHF(h)); }
  static COMPLEX cfromHF(HFLOATCOMPLEX h) {
    return COMPLEX(fromHF(crealHF(h)), fromHF(cimagHF(h)));
  }
  static HFLOATCOMPLEX ctoHF(COMPLEX z) { return cHFld(complexld(z.real(), z.imag())); }
  static FLOAT frommpf(mpf_srcptr v) { return static_cast<FLOAT>(mpf_get_ld(v)); }
  static HFLOAT toHF(FLOAT f) { return HFld(f); }
  static FLOAT pow2(int e) { return std::ldexp(static_cast<FLOAT>(1), e); }
  static FLOAT max() {
    if constexpr (sizeof(FLOAT) == sizeof(float)) return FLT_MAX;
    else if constexpr (sizeof(FLOAT) == sizeof(double)) return DBL_MAX;
    else return LDBL_MAX;
  }
  static FLOAT zero() { return 0; }
  static COMPLEX czero() { return COMPLEX(0, 0); }
  static COMPLEX cadd(COMPLEX a, COMPLEX b) { return a + b; }
  // (x, y) * f
  static COMPLEX cscaled(int x, int y, FLOAT f) {
    return COMPLEX(static_cast<FLOAT>(x) * f, static_cast<FLOAT>(y) * f);
  }
  static COMPLEX creal(FLOAT f) { return COMPLEX(f, 0); }
  // |a|^2 <= |b|^2
  static bool notgreater(COMPLEX a, COMPLEX b) {
    return a.real() * a.real() + a.imag() * a.imag() <= b.real() * b.real() + b.imag() * b.imag();
  }
  static FLOAT fromd(double v) { return static_cast<FLOAT>(v); }
  static COMPLEX cfromd(double x, double y) { return COMPLEX(fromd(x), fromd(y)); }
  static FLOAT add(FLOAT a, FLOAT b) { return a + b; }
  static FLOAT sub(FLOAT a, FLOAT b) { return a - b; }
  static FLOAT mul(FLOAT a, FLOAT b) { return a * b; }
  static FLOAT div(FLOAT a, FLOAT b) { return a / b; }
  static FLOAT root(FLOAT a) { return std::sqrt(a); }
  static FLOAT ln(FLOAT a) { return std::log(a); }
  static bool less(FLOAT a, FLOAT b) { return a < b; }
  static bool negative(FLOAT a) { return a < 0; }
  static FLOAT abss(COMPLEX z) { return z.real() * z.real() + z.imag() * z.imag(); }
  static FLOAT absc(COMPLEX z) { return std::hypot(z.real(), z.imag()); }
  static COMPLEX csub(COMPLEX a, COMPLEX b) { return a - b; }
  static COMPLEX cmul(COMPLEX a, COMPLEX b) { return a * b; }
  static COMPLEX cdiv(COMPLEX a, COMPLEX b) { return a / b; }
  static COMPLEX csqr(COMPLEX a) { return csqrT(a); }
  static COMPLEX ctwice(COMPLEX a) { return a + a; }
  static double arg(COMPLEX z) {
    return std::atan2(static_cast<double>(z.imag()), static_cast<double>(z.real()));
  }
  // NaN and infinity by the exponent bits: the test has to hold in a build
  // with fast floating point, where isnan may be folded to false.
  static bool notfinite(FLOAT f) {
    if constexpr (sizeof(FLOAT) == sizeof(float)) {
      return (std::bit_cast<uint32_t>(f) & 0x7F800000u) == 0x7F800000u;
    } else if constexpr (sizeof(FLOAT) == sizeof(double)) {
      return (std::bit_cast<uint64_t>(f) & 0x7FF0000000000000ull) == 0x7FF0000000000000ull;
    } else {
      static_assert(std::numeric_limits<long double>::digits == 64,
                    "the x87 extended format is assumed");
      // Sign and 15 exponent bits follow the 64-bit significand.
      uint16_t top;
      std::memcpy(&top, reinterpret_cast<const unsigned char*>(&f) + 8, sizeof top);
      return (top & 0x7FFF) == 0x7FFF;
    }
  }
  static bool bad(COMPLEX z) { return notfinite(z.real()) || notfinite(z.imag()); }
};

template <>
struct NUM<HFLOAT> {
  typedef HFLOATCOMPLEX COMPLEX;
  static HFLOAT fromHF(HFLOAT h) { return h; }
  static COMPLEX cfromHF(HFLOATCOMPLEX h) { return h; }
  static HFLOATCOMPLEX ctoHF(COMPLEX z) { return z; }
  static HFLOAT frommpf(mpf_srcptr v) { return mpf_get_HF(v); }
  static HFLOAT toHF(HFLOAT f) { return f; }
  static HFLOAT pow2(int e) { return HFLOAT{HFLOATBASE(1) << 61, e + 1}; }
  static HFLOAT max() { return HFLOAT_MAX; }
  static HFLOAT zero() { return ZEROH; }
  static COMPLEX czero() { return CZEROH; }
  static COMPLEX cadd(COMPLEX a, COMPLEX b) { return caddHF(a, b); }
  static COMPLEX cscaled(int x, int y, HFLOAT f) {
    return cmulHF2(cHF(HFd(x), HFd(y)), f);
  }
  static COMPLEX creal(HFLOAT f) { return HFLOATCOMPLEX{f.mantissa, 0, f.exponent}; }
  static bool notgreater(COMPLEX a, COMPLEX b) {
    return subHF(cabsHFs(a), cabsHFs(b)).mantissa <= 0;
  }
  static HFLOAT fromd(double v) { return HFd(v); }
  static COMPLEX cfromd(double x, double y) { return cHFd(complexd(x, y)); }
  static HFLOAT add(HFLOAT a, HFLOAT b) { return addHF(a, b); }
  static HFLOAT sub(HFLOAT a, HFLOAT b) { return subHF(a, b); }
  static HFLOAT mul(HFLOAT a, HFLOAT b) { return mulHF(a, b); }
  static HFLOAT div(HFLOAT a, HFLOAT b) { return divHF(a, b); }
  static HFLOAT root(HFLOAT a) { return a.mantissa == 0 ? ZEROH : sqrtHF(a); }
  static HFLOAT ln(HFLOAT a) { return logHF(a); }
  static bool negative(HFLOAT a) { return a.mantissa < 0; }
  static bool less(HFLOAT a, HFLOAT b) { return subHF(a, b).mantissa < 0; }
  static HFLOAT abss(COMPLEX z) { return cabsHFs(z); }
  static HFLOAT absc(COMPLEX z) { return root(cabsHFs(z)); }
  static COMPLEX csub(COMPLEX a, COMPLEX b) { return csubHF(a, b); }
  static COMPLEX cmul(COMPLEX a, COMPLEX b) { return cmulHF(a, b); }
  static COMPLEX cdiv(COMPLEX a, COMPLEX b) { return cdivHF(a, b); }
  static COMPLEX csqr(COMPLEX a) { return csqrHF(a); }
  static COMPLEX ctwice(COMPLEX a) {
    if (a.mantissax == 0 && a.mantissay == 0) return a;
    return cldexpHF(a, 1);
  }
  // The parts share one exponent, so the mantissas alone give the angle.
  static double arg(COMPLEX z) {
    return std::atan2(static_cast<double>(z.mantissay), static_cast<double>(z.mantissax));
  }
  // HFLOAT has no NaN or infinity: its operations saturate, and a saturated
  // step fails the |z|^2 > 4 test of the Newton search instead.
  static bool bad(COMPLEX) { return false; }
};


// ---------------------------------------------------------------- operations

template <typename T>
void initcanvas(OVCONTEXT* context, typename T::CANVAS* canvas, WORKER* worker, int sizeshift,
                int interpol);
template <typename T>
void removecanvas(OVCONTEXT* context, typename T::CANVAS* canvas);

template <typename T>
int addcdata(typename T::CANVAS* canvas, ITER iter, int ref);
template <typename T>
void removecdata(typename T::CANVAS* canvas, int block);
template <typename T>
void freetoitercdata(typename T::CANVAS* canvas, int* head, ITER iter);
template <typename T>
int writecdata(typename T::CANVAS* canvas, int* cursor, ITER iter, typename T::COMPLEX value,
               typename T::FLOAT a, int ref);
template <typename T>
void readcdata(typename T::CANVAS* canvas, int* cursor, ITER iter, typename T::COMPLEX* value,
               typename T::FLOAT* a);

template <typename T>
CHPVALUE* addhpvalue(typename T::CANVAS* canvas, bool clear);
template <typename T>
void attachhpvalue(CHPVALUE* value);
template <typename T>
void detachhpvalue(typename T::CANVAS* canvas, CHPVALUE* value, bool chained);
template <typename T>
void refdetachhpvalue(typename T::CANVAS* canvas, int vertex, CHPVALUE* value);

// The checkpoint of reference vertex `vertex`'s orbit at *iter, counted for
// the caller. With `flag` set a missing one is made, the orbit being run
// forward in mpf from the nearest lower checkpoint; without it only an
// existing one is returned. Null when the orbit ends before *iter (then
// *iter is where it ends, also kept in the vertex's `refiter`), when a pool
// is exhausted (then *iter is the highest checkpoint below) or when the job
// was stopped meanwhile.
template <typename T>
CHPVALUE* refgethpvalue(typename T::CANVAS* canvas, int vertex, ITER* iter, int flag);
// The environment's orbit at `iter`, which must be one of `interpoliter`,
// `oldinterpoliter`, `oldinterpoliter2`; the three are made lazily, each from
// the one before. With `flag` set the caller receives a count of its own.
// Null when `iter` is none of them or the orbit cannot be had there.
template <typename T>
CHPVALUE* getenvironmenthpvalue(typename T::CANVAS* canvas, ITER iter, int flag);

template <typename T>
void copyvalue(typename T::CANVAS* canvas, typename T::CVALUE* dst, const typename T::CVALUE* src);
template <typename T>
void freevalue(typename T::CANVAS* canvas, typename T::CVALUE* value);
template <typename T>
void __transvalue(typename T::COMPLEX* result, typename T::CANVAS* canvas,
                  typename T::COMPLEX delta, const CHPVALUE* from, const CHPVALUE* to);
template <typename T>
int makeref(typename T::CANVAS* canvas, int vertex, typename T::CVALUE* value, int* limit);
// A start state over the environment, at an iteration where the canvas keeps
// no checkpoint of the environment's orbit, begun again from z = 0: as a
// difference to a nearby orbit stored from there, else as the vertex's own
// new orbit. 0 when neither can be had (a Julia canvas, another state, an
// orbit of the vertex still followed, the pools full).
template <typename T>
int restartref(typename T::CANVAS* canvas, int vertex, typename T::CVALUE* value);
template <typename T>
void newref(typename T::CANVAS* canvas, int self);

}  // namespace canvasmodel

// ---------------------------------------------------------------- the suffixed names

// References to the instantiations, not wrappers: a call through
// `addcdata_double` is the call of the instantiation itself.
inline constexpr auto& initcanvas_float = canvasmodel::initcanvas<CANVASTEMPLATE_float>;
inline constexpr auto& initcanvas_double = canvasmodel::initcanvas<CANVASTEMPLATE_double>;
inline constexpr auto& initcanvas_longdouble = canvasmodel::initcanvas<CANVASTEMPLATE_longdouble>;
inline constexpr auto& initcanvas_hfloat = canvasmodel::initcanvas<CANVASTEMPLATE_hfloat>;

inline constexpr auto& removecanvas_float = canvasmodel::removecanvas<CANVASTEMPLATE_float>;
inline constexpr auto& removecanvas_double = canvasmodel::removecanvas<CANVASTEMPLATE_double>;
inline constexpr auto& removecanvas_longdouble = canvasmodel::removecanvas<CANVASTEMPLATE_longdouble>;
inline constexpr auto& removecanvas_hfloat = canvasmodel::removecanvas<CANVASTEMPLATE_hfloat>;

inline constexpr auto& addcdata_float = canvasmodel::addcdata<CANVASTEMPLATE_float>;
inline constexpr auto& addcdata_double = canvasmodel::addcdata<CANVASTEMPLATE_double>;
inline constexpr auto& addcdata_longdouble = canvasmodel::addcdata<CANVASTEMPLATE_longdouble>;
inline constexpr auto& addcdata_hfloat = canvasmodel::addcdata<CANVASTEMPLATE_hfloat>;

inline constexpr auto& removecdata_float = canvasmodel::removecdata<CANVASTEMPLATE_float>;
inline constexpr auto& removecdata_double = canvasmodel::removecdata<CANVASTEMPLATE_double>;
inline constexpr auto& removecdata_longdouble = canvasmodel::removecdata<CANVASTEMPLATE_longdouble>;
inline constexpr auto& removecdata_hfloat = canvasmodel::removecdata<CANVASTEMPLATE_hfloat>;

inline constexpr auto& freetoitercdata_float = canvasmodel::freetoitercdata<CANVASTEMPLATE_float>;
inline constexpr auto& freetoitercdata_double = canvasmodel::freetoitercdata<CANVASTEMPLATE_double>;
inline constexpr auto& freetoitercdata_longdouble = canvasmodel::freetoitercdata<CANVASTEMPLATE_longdouble>;
inline constexpr auto& freetoitercdata_hfloat = canvasmodel::freetoitercdata<CANVASTEMPLATE_hfloat>;

inline constexpr auto& writecdata_float = canvasmodel::writecdata<CANVASTEMPLATE_float>;
inline constexpr auto& writecdata_double = canvasmodel::writecdata<CANVASTEMPLATE_double>;
inline constexpr auto& writecdata_longdouble = canvasmodel::writecdata<CANVASTEMPLATE_longdouble>;
inline constexpr auto& writecdata_hfloat = canvasmodel::writecdata<CANVASTEMPLATE_hfloat>;

inline constexpr auto& readcdata_float = canvasmodel::readcdata<CANVASTEMPLATE_float>;
inline constexpr auto& readcdata_double = canvasmodel::readcdata<CANVASTEMPLATE_double>;
inline constexpr auto& readcdata_longdouble = canvasmodel::readcdata<CANVASTEMPLATE_longdouble>;
inline constexpr auto& readcdata_hfloat = canvasmodel::readcdata<CANVASTEMPLATE_hfloat>;

inline constexpr auto& addhpvalue_float = canvasmodel::addhpvalue<CANVASTEMPLATE_float>;
inline constexpr auto& addhpvalue_double = canvasmodel::addhpvalue<CANVASTEMPLATE_double>;
inline constexpr auto& addhpvalue_longdouble = canvasmodel::addhpvalue<CANVASTEMPLATE_longdouble>;
inline constexpr auto& addhpvalue_hfloat = canvasmodel::addhpvalue<CANVASTEMPLATE_hfloat>;

inline constexpr auto& attachhpvalue_float = canvasmodel::attachhpvalue<CANVASTEMPLATE_float>;
inline constexpr auto& attachhpvalue_double = canvasmodel::attachhpvalue<CANVASTEMPLATE_double>;
inline constexpr auto& attachhpvalue_longdouble = canvasmodel::attachhpvalue<CANVASTEMPLATE_longdouble>;
inline constexpr auto& attachhpvalue_hfloat = canvasmodel::attachhpvalue<CANVASTEMPLATE_hfloat>;

inline constexpr auto& detachhpvalue_float = canvasmodel::detachhpvalue<CANVASTEMPLATE_float>;
inline constexpr auto& detachhpvalue_double = canvasmodel::detachhpvalue<CANVASTEMPLATE_double>;
inline constexpr auto& detachhpvalue_longdouble = canvasmodel::detachhpvalue<CANVASTEMPLATE_longdouble>;
inline constexpr auto& detachhpvalue_hfloat = canvasmodel::detachhpvalue<CANVASTEMPLATE_hfloat>;

inline constexpr auto& refdetachhpvalue_float = canvasmodel::refdetachhpvalue<CANVASTEMPLATE_float>;
inline constexpr auto& refdetachhpvalue_double = canvasmodel::refdetachhpvalue<CANVASTEMPLATE_double>;
inline constexpr auto& refdetachhpvalue_longdouble = canvasmodel::refdetachhpvalue<CANVASTEMPLATE_longdouble>;
inline constexpr auto& refdetachhpvalue_hfloat = canvasmodel::refdetachhpvalue<CANVASTEMPLATE_hfloat>;

inline constexpr auto& refgethpvalue_float = canvasmodel::refgethpvalue<CANVASTEMPLATE_float>;
inline constexpr auto& refgethpvalue_double = canvasmodel::refgethpvalue<CANVASTEMPLATE_double>;
inline constexpr auto& refgethpvalue_longdouble = canvasmodel::refgethpvalue<CANVASTEMPLATE_longdouble>;
inline constexpr auto& refgethpvalue_hfloat = canvasmodel::refgethpvalue<CANVASTEMPLATE_hfloat>;

inline constexpr auto& getenvironmenthpvalue_float = canvasmodel::getenvironmenthpvalue<CANVASTEMPLATE_float>;
inline constexpr auto& getenvironmenthpvalue_double = canvasmodel::getenvironmenthpvalue<CANVASTEMPLATE_double>;
inline constexpr auto& getenvironmenthpvalue_longdouble = canvasmodel::getenvironmenthpvalue<CANVASTEMPLATE_longdouble>;
inline constexpr auto& getenvironmenthpvalue_hfloat = canvasmodel::getenvironmenthpvalue<CANVASTEMPLATE_hfloat>;

inline constexpr auto& copyvalue_float = canvasmodel::copyvalue<CANVASTEMPLATE_float>;
inline constexpr auto& copyvalue_double = canvasmodel::copyvalue<CANVASTEMPLATE_double>;
inline constexpr auto& copyvalue_longdouble = canvasmodel::copyvalue<CANVASTEMPLATE_longdouble>;
inline constexpr auto& copyvalue_hfloat = canvasmodel::copyvalue<CANVASTEMPLATE_hfloat>;

inline constexpr auto& freevalue_float = canvasmodel::freevalue<CANVASTEMPLATE_float>;
inline constexpr auto& freevalue_double = canvasmodel::freevalue<CANVASTEMPLATE_double>;
inline constexpr auto& freevalue_longdouble = canvasmodel::freevalue<CANVASTEMPLATE_longdouble>;
inline constexpr auto& freevalue_hfloat = canvasmodel::freevalue<CANVASTEMPLATE_hfloat>;

inline constexpr auto& __transvalue_float = canvasmodel::__transvalue<CANVASTEMPLATE_float>;
inline constexpr auto& __transvalue_double = canvasmodel::__transvalue<CANVASTEMPLATE_double>;
inline constexpr auto& __transvalue_longdouble = canvasmodel::__transvalue<CANVASTEMPLATE_longdouble>;
inline constexpr auto& __transvalue_hfloat = canvasmodel::__transvalue<CANVASTEMPLATE_hfloat>;

inline constexpr auto& makeref_float = canvasmodel::makeref<CANVASTEMPLATE_float>;
inline constexpr auto& makeref_double = canvasmodel::makeref<CANVASTEMPLATE_double>;
inline constexpr auto& makeref_longdouble = canvasmodel::makeref<CANVASTEMPLATE_longdouble>;
inline constexpr auto& makeref_hfloat = canvasmodel::makeref<CANVASTEMPLATE_hfloat>;

inline constexpr auto& newref_float = canvasmodel::newref<CANVASTEMPLATE_float>;
inline constexpr auto& newref_double = canvasmodel::newref<CANVASTEMPLATE_double>;
inline constexpr auto& newref_longdouble = canvasmodel::newref<CANVASTEMPLATE_longdouble>;
inline constexpr auto& newref_hfloat = canvasmodel::newref<CANVASTEMPLATE_hfloat>;
