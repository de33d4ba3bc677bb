// canvas/areacubic.h: the cubic that starts every point of an area late in
// its orbit, made on the area's worker for the area's own extent.
//
// Over an environment that is not periodic the points of a deep area share
// the first part of their orbit: their deviations from the environment's
// orbit grow together, and for a while a cubic in the parameter gives all of
// them at once. The cubic is expanded around the area's centre, where it is
// tightest, with a rigorous bound on what the dropped terms can add anywhere
// in the area; it is handed to the kernels in the parameter's offset from
// the environment's point, the form their start takes.
#pragma once

#include "../environment.h"

// The dropped terms may move a point's deviation by at most this fraction of
// what one grid step moves it. A thousandth of a step would not show in a
// smooth picture, but next to a minibrot counts are dust: a shift of 1e-5 of
// a step changes some by dozens. There a start any less exact than the
// iteration's own rounding shows, and this costs the start only a few
// iterations where it serves (150 instead of 155 next to i at depth 200).
constexpr double AREACUBICTOLERANCE = 1.0 / (1 << 30);

// The cubic t[0] + t[1] dc + t[2] dc^2 + t[3] dc^3 of the deviation from the
// environment's orbit at the iteration returned, for every parameter dc
// (relative to the environment's point) within `radius` of `centre`, to
// within AREACUBICTOLERANCE of the deviation's change over `gridstep`. It goes as
// far as that holds, below `limit` and the orbit's end. Returns 0, with `t`
// untouched, when it does not carry the area past its first two iterations.
ITER areacubic(const ENVIRONMENT* e, HFLOATCOMPLEX centre, HFLOAT radius, HFLOAT gridstep, ITER limit,
               HFLOATCOMPLEX t[NINTERPOLTAYLOR]);
