// canvas/kernelsupport.h: small pieces every kernel shares, private to the
// kernel files.
#pragma once

#include "model.h"

namespace canvaskernels {

// The step exponent of the grid: a grid step is 2^s.
template <typename T>
inline int gridshift(const typename T::CANVAS* canvas) {
  return 4 - canvas->depth - canvas->canvassizeshift;
}

// (x, y) * 2^s. Grid coordinates are exact in single precision, and the
// product is exact in every format.
template <typename T>
inline typename T::COMPLEX gridoffset(const typename T::CANVAS* canvas, int x, int y) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  return N::cscaled(static_cast<int>(static_cast<float>(x)),
                    static_cast<int>(static_cast<float>(y)), N::pow2(gridshift<T>(canvas)));
}

// Writes the resumable part of a state; `Z`, `ref`, `data` and `hpvalue` are
// the caller's.
template <typename T>
inline void storestate(typename T::CVALUE* cvalue, UITER iter, typename T::COMPLEX z,
                       typename T::COMPLEX d, unsigned int flags) {
  cvalue->iter = iter;
  cvalue->value = z;
  cvalue->d = d;
  cvalue->flags = flags;
}

}  // namespace canvaskernels
