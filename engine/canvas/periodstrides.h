// canvas/periodstrides.h: many steps of a periodic orbit at once, for a
// point whose difference from the orbit is still too small to feel its own
// square.
//
// Next to a deep minibrot a point goes round the period many times, and the
// period jump passes whole periods while the point stays in the minibrot's
// frame. It cannot pass the last one, in which the point leaves: the
// difference grows from the size of the frame to the size of the orbit, and
// each of those steps (as many as the period is long) was iterated one by
// one. While |delta| is far below |X_k| a step is linear,
// delta' = 2 X_k delta + dc, and a run of 2^l steps is one product:
// delta' = A delta + B dc. A table of such runs, aligned on powers of two
// inside one period, lets a point pass the linear part of any stretch in a
// few lookups and iterate only where its difference has grown.
#pragma once

#include <cstddef>

#include "../environment.h"

// A run of steps: delta' = A delta + B dc, d' = A d + B D, valid while the
// run starts with |delta|^2 below `R2`: then every step in it stays linear
// to STRIDELINEAR of X and inside the escape radius.
struct PERIODSTRIDE {
  HFLOATCOMPLEX A;
  HFLOATCOMPLEX B;
  HFLOAT R2;
  long double R2l;  // the same for the hardware formats, 0 where it underflows
};

// |delta| may be at most this fraction of |X_k| for a step to count as
// linear: the square left out is that fraction of the step. While the
// difference grows step by step the omissions of a run add up to about
// twice that of its last step, as much as one step's rounding in long
// double: a run leaves no more error than one step would.
constexpr double STRIDELINEAR = 0x1p-63;

// Periods longer than this get no table: 2^19 runs of 80 bytes per canvas.
constexpr UITER STRIDEMAXPERIOD = UITER(1) << 18;

constexpr int STRIDEMAXLEVELS = 19;

// The table of one environment for parameters within `dcbound` of its
// point. Owned by a canvas, made on the canvas's thread when a kernel first
// asks, and emptied when the canvas starts a job.
struct PERIODSTRIDES {
  const ENVIRONMENT* e;
  HFLOAT dcbound;
  UITER period;
  int levels;
  size_t start[STRIDEMAXLEVELS + 1];  // where each level begins in `run`
  PERIODSTRIDE* run;
  size_t capacity;
};

// Makes `s` the table of `e` for parameters within `dcbound` of its point,
// unless it is already; false when `e` has no periodic orbit to tabulate,
// its period is too long, or memory runs out.
bool makeperiodstrides(PERIODSTRIDES* s, const ENVIRONMENT* e, HFLOAT dcbound);

// The longest run that starts at orbit index j (0 < j < period), takes at
// most `room` steps, and holds for a difference of squared size `delta2`;
// its length in `*steps`. Null when not even one step is linear.
const PERIODSTRIDE* longestperiodstride(const PERIODSTRIDES* s, UITER j, UITER room, HFLOAT delta2,
                                        UITER* steps);
// The same for a difference held in a hardware format: no conversion to
// HFLOAT for a point that finds no run.
const PERIODSTRIDE* longestperiodstride(const PERIODSTRIDES* s, UITER j, UITER room,
                                        long double delta2, UITER* steps);

// Forgets the table, keeping its memory; and frees it.
void resetperiodstrides(PERIODSTRIDES* s);
void freeperiodstrides(PERIODSTRIDES* s);
