// The active list: which areas a view asks for, at which depths and in what
// order. The visibility test sorts a square of the tree against the view's
// inner and outer rectangles; the walk files the wanted areas in the list
// being built, with a priority; `setpriorityarea` turns the priorities of
// all views that see an area into the area's own, and from that into work or
// into release. `areacheckvacount` counts an area's job as done for the views
// that wait for it.
//
// All of it runs on the main thread. The walk's arithmetic is HFLOAT,
// relative to the view's centre: exact numbers end at the effective tops.
#include <cmath>
#include <cstdio>

#include "Mandelbrot.h"

namespace {

HFLOAT sideof(int depth) { return HFLOAT{HFLOATBASE(1) << 61, 5 - depth}; }

// Corners of a square of side s in the order (0,0), (s,0), (s,s), (0,s).
void squarecorners(HFLOAT s, HFLOATCOMPLEX out[4]) {
  out[0] = CZEROH;
  out[1] = HFLOATCOMPLEX{s.mantissa, 0, s.exponent};
  out[2] = HFLOATCOMPLEX{s.mantissa, s.mantissa, s.exponent};
  out[3] = HFLOATCOMPLEX{0, s.mantissa, s.exponent};
}

int sgnHF(HFLOAT a) { return a.mantissa > 0 ? 1 : a.mantissa < 0 ? -1 : 0; }

struct RECT {
  double x0, y0, x1, y1;
};

// The screen rectangle scaled by f; a negative f turns it over.
RECT scaledrect(const VIEWPORT* viewport, double f) {
  double ax = viewport->z0.real() * f, bx = viewport->z1.real() * f;
  double ay = viewport->z0.imag() * f, by = viewport->z1.imag() * f;
  return RECT{std::fmin(ax, bx), std::fmin(ay, by), std::fmax(ax, bx), std::fmax(ay, by)};
}

constexpr int SCREEN_APART = 0;
constexpr int SCREEN_PART = 1;
constexpr int SCREEN_INSIDE = 2;

// The square's screen corners against a rectangle: all beyond one edge,
// all strictly inside, or neither.
int screentest(const complexd p[4], const RECT& r) {
  bool left = true, right = true, below = true, above = true, inside = true;
  for (int k = 0; k < 4; k++) {
    double x = p[k].real(), y = p[k].imag();
    left = left && x <= r.x0;
    right = right && x >= r.x1;
    below = below && y <= r.y0;
    above = above && y >= r.y1;
    inside = inside && x > r.x0 && x < r.x1 && y > r.y0 && y < r.y1;
  }
  if (left || right || below || above) return SCREEN_APART;
  return inside ? SCREEN_INSIDE : SCREEN_PART;
}

// The rectangle scaled by f, taken to the square's frame: is it beyond one
// of the square's edges?
bool rectapart(const VIEWPORT* viewport, HFLOATCOMPLEX coord, HFLOAT s, double f) {
  bool left = true, right = true, below = true, above = true;
  for (int k = 0; k < 4; k++) {
    HFLOATCOMPLEX corner = cHFd(viewport->c[k] * f);
    HFLOATCOMPLEX q = csubHF(cdivHF(corner, viewport->zoom), coord);
    HFLOAT qx = crealHF(q), qy = cimagHF(q);
    left = left && sgnHF(qx) <= 0;
    below = below && sgnHF(qy) <= 0;
    right = right && sgnHF(subHF(qx, s)) >= 0;
    above = above && sgnHF(subHF(qy, s)) >= 0;
  }
  return left || right || below || above;
}

void screencorners(const VIEWPORT* viewport, HFLOATCOMPLEX coord, HFLOAT s, complexd p[4]) {
  HFLOATCOMPLEX off[4];
  squarecorners(s, off);
  for (int k = 0; k < 4; k++) p[k] = cdHF(cmulHF(caddHF(coord, off[k]), viewport->zoom));
}

int clampprio(int p) { return p < 1 ? 1 : p > NWORKERPRIO - 1 ? NWORKERPRIO - 1 : p; }

// The distance of the square's centre from the zoom's centre, as the number
// f of the walk: how many halvings of the view away from the centre it is.
int centredistance(const VIEWPORT* viewport, int depth, HFLOATCOMPLEX coord) {
  HFLOAT h = sideof(depth + 1);
  HFLOATCOMPLEX centre = caddHF(coord, HFLOATCOMPLEX{h.mantissa, h.mantissa, h.exponent});
  HFLOATCOMPLEX zc = cdivHF(cHFd(complexd(viewport->centerx, viewport->centery)), viewport->zoom);
  HFLOATCOMPLEX d = csubHF(centre, zc);
  int E = d.mantissax == 0 && d.mantissay == 0 ? -HFLOAT_EXPMAX : d.exponent;
  double f = depth + static_cast<double>(E) + 4 - std::log2(static_cast<double>(viewport->resolution));
  return static_cast<int>(std::trunc(f));
}

// The view's environment and Julia realm go to an area it files, so that a
// job made for it computes against them.
void takeviewdata(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, HFLOATCOMPLEX coord) {
  REALMTYPE type = viewport->realm->type;
  if (type != JULIA && type != GENERAL) return;
  ENVIRONMENT* e = viewport->esat ? viewport->esat : viewport->enonsat;
  if (e) attache(e);
  detache(context, a->e);
  a->e = e;
  a->prec = viewport->precsat;
  if (!e) return;
  a->ct = coord;
  a->interpoliter = viewport->info.interpoliter;
  for (int k = 0; k < NINTERPOLTAYLOR; k++) a->interpoltaylor[k] = viewport->info.interpoltaylor[k];
  REALM* old = a->juliarealm;
  a->juliarealm = viewport->juliarealm;
  if (a->juliarealm) attachrealm(a->juliarealm);
  if (old) __detachrealm(context, old);
}

// The view is complete: its list is drawn and its owner told.
void viewcomplete(OVCONTEXT* context, VIEWPORT* viewport) {
  draw(context, viewport);
  if (viewport->finishcallback)
    viewport->finishcallback(context, viewport, VPCALLBACK_FINISH, viewport->finishcallbackpdata);
  if (viewport->flags & VP_STARTZOOMING) {
    viewport->flags &= ~VP_STARTZOOMING;
    spinlocklock(&viewport->nav_spdelta);
    viewport->nav_Dlogzoom = viewport->nav_Dlogzoomauto;
    spinlockunlock(&viewport->nav_spdelta);
  }
}

}  // namespace

void setdepthlimits(VIEWPORT* viewport, int Z, int flags) {
  VIEWPORT* v = viewport;
  switch (v->direction) {
    case 1:
      v->mindrawdepth = Z - 12;
      v->maxcalcdepth = Z + 2;
      v->maxdrawdepth = Z - 4;
      v->outermaxdrawdepth = Z - 4;
      v->mincalcdepth = Z - 7;
      v->mintolerancedepth = Z - 8;
      v->maxtolerancedepth = Z + 2;
      v->maxf = 0;
      v->small = 1.0;
      v->big = 1.25;
      break;
    case -1:
      v->mindrawdepth = Z - 14;
      v->maxcalcdepth = Z - 13;
      v->maxdrawdepth = Z - 6;
      v->outermaxdrawdepth = Z - 10;
      v->mincalcdepth = Z - 15;
      v->mintolerancedepth = Z - 15;
      v->maxtolerancedepth = Z - 6;
      v->small = 4.0;
      v->big = -1600 * v->speed;
      break;
    default:
      v->mindrawdepth = Z - 12;
      v->maxcalcdepth = flags & MOVEVIEWPORT_HIGHRES ? Z - 4 : Z - 5;
      v->maxdrawdepth = v->maxcalcdepth;
      v->outermaxdrawdepth = Z - 8;
      v->mincalcdepth = flags & MOVEVIEWPORT_ONLYMAXCALCDEPTH ? v->maxcalcdepth : Z - 7;
      v->mintolerancedepth = Z - 9;
      v->maxtolerancedepth = Z - 4;
      v->small = 1.0;
      v->big = 3.0;
      break;
  }
}

int areavisibleex(const VIEWPORT* viewport, const AREA* a, HFLOATCOMPLEX coord, int parentvisible) {
  return squarevisibleex(viewport, a->depth, coord, parentvisible);
}

// Two ways round: the square's corners against the rectangle on the screen,
// then the rectangle's corners against the square in its own frame. Between
// them they test every axis of both shapes, which makes the test exact for a
// turned square against a rectangle.
int squarevisibleex(const VIEWPORT* viewport, int depth, HFLOATCOMPLEX coord, int parentvisible) {
  HFLOAT s = sideof(depth);
  complexd p[4];
  screencorners(viewport, coord, s, p);
  int result = VIS_OUTERALL;
  if (!(parentvisible & VIS_OUTERALL)) {
    int t = screentest(p, scaledrect(viewport, viewport->big));
    if (t == SCREEN_APART) return 0;
    if (t == SCREEN_PART) {
      if (rectapart(viewport, coord, s, viewport->big)) return 0;
      result = VIS_OUTERPART;
    }
  }
  if (result == VIS_OUTERALL) {
    if (parentvisible & VIS_INNERALL) return VIS_OUTERALL | VIS_INNERALL;
    int t = screentest(p, scaledrect(viewport, viewport->small));
    if (t == SCREEN_INSIDE) return VIS_OUTERALL | VIS_INNERALL;
    if (t == SCREEN_APART) return VIS_OUTERALL;
  }
  if (!rectapart(viewport, coord, s, viewport->small)) result |= VIS_INNERPART;
  return result;
}

bool invalidatearea(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, HFLOATCOMPLEX coord, int i,
                    int parentvisible) {
  VIEWPORT* v = viewport;
  int vis = areavisibleex(v, a, coord, parentvisible);
  if (!vis) return true;
  // The margin between the two rectangles is computed only on the way out,
  // where it is about to come into view.
  bool calc = (vis & (VIS_INNERPART | VIS_INNERALL)) ? v->direction <= 1
                                                      : v->direction == -1;
  int depth = a->depth;
  int f = centredistance(v, depth, coord);
  bool filing = false;
  if (v->direction == 1 && v->maxf <= f) {
    // Zooming in, the areas far from the centre are left alone.
  } else if (depth > v->maxtolerancedepth) {
    if (depth >= v->maxcalcdepth || !calc) return true;
    subdivide(context, a);
  } else if (calc) {
    filing = true;
    if (v->iviewportarea[i] < NVIEWPORTAREA) {
      VIEWPORTAREA* va = &v->viewportarea[i][v->iviewportarea[i]++];
      va->viewport = v;
      va->a = a;
      va->counted = false;
      va->priority = depth < v->mintolerancedepth ? 0 : PRIO_KEEP;
      chaininsbegin(&a->viewportchain, &va->chain);
      if (depth >= v->mincalcdepth && depth <= v->maxcalcdepth) {
        int p = v->direction == 1 ? f + v->priority + 10 : v->priority + depth - v->maxcalcdepth + 10;
        va->priority = clampprio(p);
      }
      takeviewdata(context, v, a, coord);
      setpriorityarea(context, a);
      if ((a->flags & (A_WAITFORJULIASTACK | A_INPPPROGRAM)) || a->worker) {
        va->counted = true;
        v->ivainvalid++;
      }
    }
  }
  if (filing && depth < v->maxcalcdepth) subdivide(context, a);
  if (depth >= v->maxtolerancedepth) return true;
  HFLOAT h = sideof(depth + 1);
  HFLOATCOMPLEX off[4];
  squarecorners(h, off);
  for (int k = 0; k < 4; k++)
    if (a->child[k]) invalidatearea(context, v, a->child[k], caddHF(coord, off[k]), i, vis);
  return true;
}

void setpriorityarea(OVCONTEXT* context, AREA* a) {
  unsigned int channels = 0;
  int p = PRIO_KEEP;
  bool nonzero = false;
  for (CHAIN* l = a->viewportchain.next; l != &a->viewportchain; l = l->next) {
    VIEWPORTAREA* va = CHAINRECORD(l, VIEWPORTAREA, chain);
    channels |= va->viewport->channels;
    if (va->priority != 0) {
      nonzero = true;
      if (va->priority < p) p = va->priority;
    }
  }
  a->channels = channels;
  if (!nonzero) p = 0;
  bool wanted = nonzero && p != PRIO_KEEP;
  updatedelchain(context, a);
  if (a->computecycle != a->realm->computecycle && !isvalid(context, a) &&
      !(a->flags & A_INPPPROGRAM))
    resetarea(context, a, false);
  if (a->priority == p) {
    if (wanted) processarea(context, a);
    return;
  }
  a->priority = p;
  for (TEXTURE* t : a->texture)
    if (t) checktexturestatus(context, t);
  if (WORKER* w = a->worker) changeprio(context, w, p == PRIO_KEEP ? NWORKERPRIO - 1 : p);
  if (wanted) {
    processarea(context, a);
  } else if (p == 0) {
    if (!a->worker) {
      // The PREPIXELS block goes back here with the Julia cache.
      if (a->flags & A_WAITFORJULIASTACK) {
        chainrem(&a->waitforjuliastack);
        initchain(&a->waitforjuliastack);
        a->flags &= ~A_WAITFORJULIASTACK;
      }
    } else {
      resetarea(context, a, false);
    }
  }
}

bool ptinrect(OVCONTEXT*, VIEWPORT*, AREA* a, HFLOATCOMPLEX coord, HFLOATCOMPLEX c, int* x,
              int* y) {
  HFLOAT s = sideof(a->depth);
  HFLOATCOMPLEX q = csubHF(c, coord);
  HFLOAT qx = crealHF(q), qy = cimagHF(q);
  if (sgnHF(qx) < 0 || sgnHF(qy) < 0) return false;
  if (sgnHF(subHF(qx, s)) >= 0 || sgnHF(subHF(qy, s)) >= 0) return false;
  HFLOAT texel = HFLOAT{s.mantissa, s.exponent - TEXTURESIZESHIFT};
  if (x) *x = static_cast<int>(dHF(divHF(qx, texel)));
  if (y) *y = static_cast<int>(dHF(divHF(qy, texel)));
  return true;
}

AREA* areaatpt(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, HFLOATCOMPLEX coord,
               HFLOATCOMPLEX c, int* x, int* y) {
  if (!a || !ptinrect(context, viewport, a, coord, c, x, y)) return nullptr;
  if (a->depth < viewport->maxdrawdepth) {
    HFLOATCOMPLEX off[4];
    squarecorners(sideof(a->depth + 1), off);
    for (int k = 0; k < 4; k++) {
      AREA* found = areaatpt(context, viewport, a->child[k], caddHF(coord, off[k]), c, x, y);
      if (found) return found;
    }
    // A child's miss may have written the texel; it is `a`'s again.
    ptinrect(context, viewport, a, coord, c, x, y);
  }
  return isdrawable(viewport, a) ? a : nullptr;
}

void areacheckvacount(OVCONTEXT* context, AREA* a) {
  bool done = !(a->flags & (A_WAITFORJULIASTACK | A_INPPPROGRAM)) && !a->worker;
  VIEWPORT* complete[64];
  int ncomplete = 0;
  for (CHAIN* l = a->viewportchain.next; l != &a->viewportchain; l = l->next) {
    VIEWPORTAREA* va = CHAINRECORD(l, VIEWPORTAREA, chain);
    VIEWPORT* v = va->viewport;
    v->flags |= VP_DIRTY;
    if (!va->counted || !done) continue;
    va->counted = false;
    if (--v->ivainvalid == 0 && ncomplete < 64) complete[ncomplete++] = v;
  }
  // The owners are told after the walk: what they do can't disturb it.
  for (int k = 0; k < ncomplete; k++) viewcomplete(context, complete[k]);
  if (chainempty(&a->viewportchain)) {
    detache(context, a->e);
    a->e = nullptr;
    REALM* jr = a->juliarealm;
    a->juliarealm = nullptr;
    if (jr) __detachrealm(context, jr);
  }
}

void viewportcomplete(OVCONTEXT* context, VIEWPORT* viewport) { viewcomplete(context, viewport); }
