// Drawing a viewport: the walk of the area tree that writes the rectangles of
// all visible, drawable tiles into the one draw list that is neither on
// screen nor the newest, and the hand-over of that list to the display.
//
// An area passes its own tiles down as the fall-back of its children, so a
// region whose deeper tiles are still being computed shows the magnified
// tiles of an ancestor, down to one texel per area and no further.
#include "Mandelbrot.h"

namespace {

constexpr float TEXELEPSILON = 1.0f / TEXTURESIZE;

HFLOAT sideof(int depth) { return HFLOAT{HFLOATBASE(1) << 61, 5 - depth}; }

DRAWVIEW drawview(const VIEWPORT* v) {
  return DRAWVIEW{v->channels, v->resolution, v->zoom, v->zoomabs};
}

bool isleaf(const AREA* a) {
  for (AREA* c : a->child)
    if (c) return false;
  return true;
}

HFLOATCOMPLEX childcoord(HFLOATCOMPLEX coord, int depth, int k) {
  HFLOAT h = sideof(depth + 1);
  HFLOATBASE m = h.mantissa;
  static const int dx[4] = {0, 1, 1, 0};
  static const int dy[4] = {0, 0, 1, 1};
  return caddHF(coord, HFLOATCOMPLEX{dx[k] ? m : 0, dy[k] ? m : 0, h.exponent});
}

// The ancestor's sub-square where `a` can't draw.
bool drawfallback(OVCONTEXT* context, VIEWPORT* v, int depth, HFLOATCOMPLEX coord,
                  const DRAWFALLBACK& fb, int list) {
  if (!fb.texture) return true;
  DRAWVIEW view = drawview(v);
  appenddrawrect(context, v, list, &view, fb.texture, coord, depth, fb.x0, fb.y0, fb.width,
                 fb.epsilon, false);
  return true;
}

void drawchildren(OVCONTEXT* context, VIEWPORT* v, AREA* a, HFLOATCOMPLEX coord,
                  const DRAWFALLBACK* fb, int list, int vis) {
  for (int k = 0; k < 4; k++) {
    DRAWFALLBACK c = fb ? childfallback(a, fb, v->channels, k) : DRAWFALLBACK{nullptr, 0, 0, 0, 0};
    drawarea(context, v, a->child[k], a->depth + 1, childcoord(coord, a->depth, k), c.texture,
             c.epsilon, c.x0, c.y0, c.width, list, vis);
  }
}

void drawtop(OVCONTEXT* context, VIEWPORT* v, AREA* a, int list) {
  if (!a || !a->hpvalue) return;
  drawarea(context, v, a, a->depth, relativecorner(v, a->hpvalue), nullptr, 0, 0, 0, 0, list, 0);
}

void setlistscheme(OVCONTEXT* context, VIEWPORT* v, int list) {
  COLORSCHEME* old = v->schemes[list];
  COLORSCHEME* now = v->activescheme;
  if (now && schemehooks.attachcs) schemehooks.attachcs(now);
  v->schemes[list] = now;
  if (old && schemehooks.detachcs) schemehooks.detachcs(context, old);
}

}  // namespace

bool isdrawable(const VIEWPORT* viewport, const AREA* a) {
  return hasdrawabletiles(a, viewport->channels);
}

bool drawarea(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, int depth, HFLOATCOMPLEX coord,
              TEXTURE* const* texture, float epsilon, int x0, int y0, int width, int list,
              int parentvis) {
  VIEWPORT* v = viewport;
  DRAWFALLBACK fb{texture, epsilon, x0, y0, width};
  if (!a) return drawfallback(context, v, depth, coord, fb, list);
  int vis = areavisibleex(v, a, coord, parentvis);
  if (!vis) return true;
  bool inner = vis & (VIS_INNERPART | VIS_INNERALL);
  int d = a->depth;
  if (!isleaf(a)) {
    // Tiles shallower than the view asks for are never used.
    if (d < v->mindrawdepth) {
      drawchildren(context, v, a, coord, nullptr, list, vis);
      return true;
    }
    bool deeper = inner ? (d < v->maxdrawdepth || d < v->outermaxdrawdepth)
                        : d < v->outermaxdrawdepth;
    if (deeper) {
      drawchildren(context, v, a, coord, &fb, list, vis);
      return true;
    }
  }
  if (!texture) {
    if (!isdrawable(v, a)) return true;
  } else if (!isnewer(a->texture, texture, v->channels)) {
    return drawfallback(context, v, depth, coord, fb, list);
  }
  DRAWVIEW view = drawview(v);
  if (appendareatiles(context, v, list, &view, a, coord, false) != DRAWRECT_MISSING) return true;
  return drawfallback(context, v, depth, coord, fb, list);
}

void drawareaspecial(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, HFLOATCOMPLEX coord,
                     int list) {
  if (!a) return;
  int base = context->juliasizeshift - 6;
  int target = base + static_cast<int>(viewport->special);
  bool ingrid = a->xinner != -1 && a->yinner != -1;
  if (a->depth >= base && !ingrid) return;
  if (a->depth == target) {
    DRAWVIEW view = drawview(viewport);
    appenddrawrect(context, viewport, list, &view, a->texture, coord, a->depth, 0, 0, TEXTURESIZE,
                   TEXELEPSILON, true);
    return;
  }
  if (a->depth > target) return;
  for (int k = 0; k < 4; k++)
    drawareaspecial(context, viewport, a->child[k], childcoord(coord, a->depth, k), list);
}

void draw(OVCONTEXT* context, VIEWPORT* viewport) {
  VIEWPORT* v = viewport;
  if (!v->delta || !atomicload(&v->drawactive)) return;
  int list = begindrawlist(context, v);
  REALM* realm = v->realm;
  if (realm->type != JULIA || v->special == static_cast<unsigned int>(-1)) {
    if (v->ieffectivetop == 0) drawtop(context, v, realm->top, list);
    for (int k = 0; k < v->ieffectivetop; k++) drawtop(context, v, v->effectivetop[k], list);
  } else if (realm->top && realm->top->hpvalue) {
    drawareaspecial(context, v, realm->top, relativecorner(v, realm->top->hpvalue), list);
  }
  setlistscheme(context, v, list);
  publishdrawlist(v, list, atomicload(&v->icursystem));
  v->flags &= ~VP_DIRTY;
}

void drawdirty(OVCONTEXT* context) {
  for (CHAIN* l = context->vpactivechain.next; l != &context->vpactivechain; l = l->next) {
    VIEWPORT* v = activeviewport(l);
    if (v->flags & VP_DIRTY) draw(context, v);
  }
}

void composeallstrings(OVCONTEXT* context) {
  for (CHAIN* l = context->vpactivechain.next; l != &context->vpactivechain; l = l->next)
    composestrings(context, activeviewport(l));
}
