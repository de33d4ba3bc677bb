// envhp.h: orbit points at full precision, recomputed from the nearest
// checkpoint of an environment.
#pragma once

#include <gmp.h>

#include "Mandelbrot.h"

// z_iter of `e` at full precision into the pair `value` (mpf_t[2]); true when
// the run arrived at `iter` exactly.
bool getenvironmenthpvalueraw(ENVIRONMENT* e, ITER iter, mpf_t* value);

// The plain mpf iteration of one point from `value` under `c`, from *iter
// while below `maxiter` and inside the escape circle; *iter is written back.
void calciterhpex(mpf_t* value, mpf_t* c, ITER* iter, ITER maxiter, mp_bitcnt_t precision);
