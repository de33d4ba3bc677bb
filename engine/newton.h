// newton.h: the decisions of a Newton run that stand apart from its graph.
#pragma once

#include "mathext.h"

// The largest `tmpr2` (4 / |multiplier times dz_n/dc|, about twice the
// atom's radius) at which a Newton run goes on: a bigger atom is no
// component worth having as a reference.
constexpr double NEWTONMAXTMPR2 = 10;

// Does a run whose pass found `tmpr2` go on? Exactly the bound goes on.
bool newtonatomworthhaving(HFLOAT tmpr2);
