// canvas/kernels_hp.cpp: orbits in mpf. The reference orbit of a vertex is
// run here and stored as samples in the canvas format; the environment's
// orbit is only advanced, to make a checkpoint.
//
// The orbit is followed to |z|^2 >= 5 rather than 4: a neighbour whose own
// orbit is still inside may need samples past the reference's escape.
#include "canvas/kernels.h"

#include "canvas/kernelsupport.h"

namespace canvaskernels {

namespace {

// x1s, y1s = the squares of z, and a = 4 - x1s - y1s in `dummysmall`.
template <typename T>
void squares(typename T::CANVAS* canvas, mpf_srcptr zx, mpf_srcptr zy) {
  mpf_mul(canvas->x1s, zx, zx);
  mpf_mul(canvas->y1s, zy, zy);
  mpf_set_ui(canvas->dummysmall, 4);
  mpf_sub(canvas->dummysmall, canvas->dummysmall, canvas->x1s);
  mpf_sub(canvas->dummysmall, canvas->dummysmall, canvas->y1s);
}

// One step of z^2 + c on z, from the squares made by `squares`.
template <typename T>
void hpstep(typename T::CANVAS* canvas, mpf_ptr zx, mpf_ptr zy, mpf_srcptr cx, mpf_srcptr cy) {
  mpf_mul(canvas->dummyvalue, zx, zy);
  mpf_mul_2exp(canvas->dummyvalue, canvas->dummyvalue, 1);
  mpf_add(zy, canvas->dummyvalue, cy);
  mpf_sub(zx, canvas->x1s, canvas->y1s);
  mpf_add(zx, zx, cx);
}

// Inside |z|^2 < 5: a > -1.
template <typename T>
bool followed(typename T::CANVAS* canvas) {
  return mpf_cmp_si(canvas->dummysmall, -1) > 0;
}

template <typename T>
int writesample(typename T::CANVAS* canvas, CHPVALUE* hp, ITER iter, int* cursor, int ref) {
  typedef canvasmodel::NUM<typename T::FLOAT> N;
  return canvasmodel::writecdata<T>(canvas, cursor, iter,
                                    cfrommpf<T>(hp->value[0], hp->value[1]),
                                    N::frommpf(canvas->dummysmall), ref);
}

}  // namespace

template <typename T>
int calcitercanvashp(typename T::CANVAS* canvas, CHPVALUE* hp, int x, int y, ITER* iter,
                     ITER maxiter, int* cursor, int ref) {
  // The parameter goes to the scratch members `x` and `y`.
  if (canvas->flags & CF_JULIA) {
    const HPVALUE* j = jobjulia(canvas->__worker);
    if (j) {
      mpf_set(canvas->x, j->v[0]);
      mpf_set(canvas->y, j->v[1]);
    } else {
      mpf_set_ui(canvas->x, 0);
      mpf_set_ui(canvas->y, 0);
    }
  } else {
    int s = gridshift<T>(canvas);
    mpf_set_si(canvas->x, x);
    mpf_set_si(canvas->y, y);
    if (s >= 0) {
      mpf_mul_2exp(canvas->x, canvas->x, s);
      mpf_mul_2exp(canvas->y, canvas->y, s);
    } else {
      mpf_div_2exp(canvas->x, canvas->x, -s);
      mpf_div_2exp(canvas->y, canvas->y, -s);
    }
    mpf_add(canvas->x, canvas->x, canvas->c[0]);
    mpf_add(canvas->y, canvas->y, canvas->c[1]);
  }
  mpf_ptr zx = hp->value[0];
  mpf_ptr zy = hp->value[1];
  squares<T>(canvas, zx, zy);
  ITER n = *iter;
  while (n < maxiter && followed<T>(canvas)) {
    if (!writesample<T>(canvas, hp, n, cursor, ref)) {
      *iter = n - 1;
      return 0;
    }
    hpstep<T>(canvas, zx, zy, canvas->x, canvas->y);
    squares<T>(canvas, zx, zy);
    n++;
    if ((n & 255) == 0 && jobstopped<T>(canvas)) {
      *iter = n;
      return 0;
    }
  }
  if (!writesample<T>(canvas, hp, n, cursor, ref)) {
    *iter = n - 1;
    return 0;
  }
  *iter = n;
  return n >= maxiter;
}

template <typename T>
int calcitercanvashpex(typename T::CANVAS* canvas, CHPVALUE* hp, mpf_srcptr c, ITER* iter,
                       ITER maxiter) {
  mpf_ptr zx = hp->value[0];
  mpf_ptr zy = hp->value[1];
  squares<T>(canvas, zx, zy);
  ITER n = *iter;
  while (n < maxiter && followed<T>(canvas)) {
    hpstep<T>(canvas, zx, zy, c, c + 1);
    squares<T>(canvas, zx, zy);
    n++;
    if ((n & 255) == 0 && jobstopped<T>(canvas)) break;
  }
  *iter = n;
  return n >= maxiter;
}

#define ORVANTA_INSTANTIATE(T)                                                                \
  template int calcitercanvashp<T>(T::CANVAS*, CHPVALUE*, int, int, ITER*, ITER, int*, int); \
  template int calcitercanvashpex<T>(T::CANVAS*, CHPVALUE*, mpf_srcptr, ITER*, ITER);
ORVANTA_INSTANTIATE(CANVASTEMPLATE_float)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_double)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_longdouble)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_hfloat)
#undef ORVANTA_INSTANTIATE

}  // namespace canvaskernels
