// The general view's Julia realm follows the view: its point, its
// environment, and how many of its stack levels the view's centre still
// lies within.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "canvas/series.h"
#include "idle.h"
#include "juliastack.h"

namespace {

constexpr unsigned int R_NOLOOP = 0x2000;

void bindpoint(OVCONTEXT* context, VIEWPORT* v, REALM* jr) {
  detachhpv(context, jr->info.c);
  jr->info = v->info;
  if (jr->info.c) attachhpv(jr->info.c);
  jr->neededjuliastack = juliastackneeded(&jr->info);
  setrealmenv(context, jr, v->esat ? v->esat : v->enonsat);
  jr->computecycle++;
}

void adjust(OVCONTEXT* context, REALM* jr, int level, bool erase) {
  adjustjuliastack(context, jr, level, erase);
}

}  // namespace

int juliastackneeded(const ITERINFO* info) {
  // Level s is a square of side 2^(2 - s): the levels counted are those
  // wider than the distance, so the deepest level a request may reach is
  // the first no wider than it, which spans the distance with a level's
  // width in pixels. `distj` is kept squared, `dj` is a distance: the
  // count is of the distance itself in both cases.
  HFLOAT d = info->iter >= 1 ? (info->distj.mantissa ? sqrtHF(info->distj) : ZEROH) : info->dj;
  if (d.mantissa == 0) return 2;
  return std::max(0, 2 - ilogbHF(d));
}

void idlejulia(OVCONTEXT* context, VIEWPORT* viewport) {
  VIEWPORT* v = viewport;
  REALM* jr = v->juliarealm;
  finishalljuliacorrect(context);
  if (!jr) return;
  bool bound = false;
  if (!(v->flags & VP_LOCK) && !(jr->flags & (R_ATSAT | R_LOCKJULIAPOINT))) {
    bindpoint(context, v, jr);
    bound = true;
  }
  if (v->flags & VP_ADJUSTJULIASTACKAFTERMOVING) {
    extendjuliastack(context, v);
    v->flags &= ~VP_ADJUSTJULIASTACKAFTERMOVING;
  }
  // While the idle run goes on, its own counts of levels stand.
  int count = v->idle_jst;
  if (!(v->flags & VP_IDLE)) {
    count = juliastacklevelsholding(v, jr, true);
    v->idle_jst = v->idle_jst1 = v->idle_jst0 = count;
  }
  if (jr->validjuliastack > count) adjust(context, jr, count - 1, false);
  if (v->esat && v->delta &&
      isenvironmentclose(v->dummy[0], v->esat, v->delta->v[0], v->delta->v[1], v->zoom)) {
    if (jr->e == v->esat && (jr->flags & R_ATSAT)) {
      adjust(context, jr, count - 1, false);
      if (!(v->flags & VP_MUSTWAITFORIDLE)) v->flags &= ~VP_MUSTDOLOOP;
    } else {
      // The view stands on its atom: the realm's point becomes the atom's
      // centre.
      setrealmenv(context, jr, v->esat);
      jr->flags |= R_ATSAT;
      detachhpv(context, jr->info.c);
      attachhpv(v->esat->c);
      jr->info.c = v->esat->c;
      jr->info.iter = -static_cast<ITER>(v->esat->n);
      jr->info.dj = mulHF(v->esat->r4, HFd(0.1));
      jr->info.cf = v->esat->cf;
      jr->neededjuliastack = juliastackneeded(&jr->info);
      jr->computecycle++;
      bound = true;
      environmentjuliastack(context, v, v->esat);
    }
  } else {
    if (!(jr->flags & R_NOLOOP) && !v->idle_newenv) v->flags |= VP_MUSTDOLOOP;
    jr->flags &= ~R_ATSAT;
    adjust(context, jr, count - 1, false);
  }
  if (bound) invalidateall(context, jr);
}
