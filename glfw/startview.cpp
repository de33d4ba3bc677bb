// The start view and the views' share of a window resize.
//
// This is the small form of the application's reset: one Mandelbrot view of
// the general realm with a new Julia realm (where the idle search keeps its
// seeds and stack), full window, with the first colour scheme. The full
// reset adds the Julia view, hands both views to the
// widgets, sets the navigator's constants (its brake, magnets and touch
// mode) and the colour scheme on the Julia view; they join with the widget
// toolkit and the navigator.
#include "app.h"

namespace {

int navflags() {
  return MOVEVIEWPORT_SATELLITES | (lock ? MOVEVIEWPORT_LOCK : 0) | (highres ? MOVEVIEWPORT_HIGHRES : 0);
}

}  // namespace

void reset() {
  if (vp) {
    deactivateviewport(context, vp);
    detachviewport(context, vp);
  }
  REALM* juliarealm = addrealm(context, JULIA);
  vp = addviewport(context, generalrealm, juliarealm, width, height, standardcallback, nullptr);
  // The view holds the Julia realm from here on.
  if (juliarealm) detachrealm(context, juliarealm);
  if (!vp) return;
  vp->nav_viewportid = 0;
  atomicstore(&vp->nav_flags, static_cast<unsigned int>(navflags()));
  oldlist[0] = oldlist[1] = -1;
  if (currentcs) colorscheme(context, vp, currentcs->cs);
  juliamode = 0;
  displayjuliapoint = false;
  mode = 1;
  resizeviews();
}

void resizeviews() {
  if (!vp) return;
  atomicstore(&vp->nav_flags, static_cast<unsigned int>(navflags()));
  activateviewport(context, vp, 10);
  moveviewport(context, vp, CZEROH, CONEH, width, height, CZEROH, ZEROH,
               static_cast<int>(atomicload(&vp->nav_flags)));
}

void freeviews() {
  for (VIEWPORT** v : {&vp, &vpex}) {
    if (!*v) continue;
    deactivateviewport(context, *v);
    detachviewport(context, *v);
    *v = nullptr;
  }
}
