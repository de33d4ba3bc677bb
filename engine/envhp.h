// envhp.h: the orbit of an environment at full precision, recovered from its
// checkpoints, and the plain mpf iteration that walks between them.
//
// Threads. Both only read the environment; any thread holding a reference to
// it may call them.
#pragma once

#include <gmp.h>

#include "environment.h"

// Iterates z <- z^2 + c on the mpf pair `value` (real, imaginary) from
// iteration *iter while *iter < maxiter and |z| < 2; *iter is the count
// reached. Scratch is taken at `precision` bits for the call.
void calciterhpex(mpf_ptr value, mpf_srcptr c, ITER* iter, ITER maxiter, mp_bitcnt_t precision);

// z at iteration `iter` of e's orbit into the mpf pair `value`, run from the
// nearest stored checkpoint at or below it (one each 65536 iterations; a
// periodic environment's numbers wrap at its period `n`). False when the run
// did not arrive at `iter`: beyond a standard environment's orbit, or
// escaped on the way.
bool getenvironmenthpvalueraw(const ENVIRONMENT* e, ITER iter, mpf_ptr value);
