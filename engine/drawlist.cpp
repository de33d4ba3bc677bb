// A viewport's three draw lists: how the main thread fills one with tile
// rectangles while the display shows another, and how a finished list passes
// to the display without a lock.
//
// The main thread writes only a list that is neither the newest finished one
// (`toactivatelist`) nor the one on screen (`activelist`); with three lists
// one is always left, so neither side ever waits. The display makes the
// newest list its own by copying `toactivatelist` to `activelist`. That copy
// is a load and a store, and a list published between the two could let the
// main thread choose, from the old `activelist`, the very list the display is
// about to store. So the display reads `toactivatelist` once more after its
// store and takes the newer list if it changed: once the second read agrees,
// the main thread sees the stored `activelist` before it chooses again.
#include <cstdio>
#include <cstdlib>

#include "Mandelbrot.h"

namespace {

constexpr float TEXELEPSILON = 1.0f / TEXTURESIZE;

// The side of an area of `depth`: 2^(4 - depth).
HFLOAT areaside(int depth) { return HFLOAT{HFLOATBASE(1) << 61, 5 - depth}; }

void setcorner(float* c, HFLOATCOMPLEX coord, HFLOATCOMPLEX offset, HFLOATCOMPLEX zoom) {
  complexd p = cdHF(cmulHF(caddHF(coord, offset), zoom));
  c[0] = static_cast<float>(p.real());
  c[1] = static_cast<float>(p.imag());
}

// Every channel of the view must be drawable before any reference is taken:
// a rectangle left half-filled would keep references no list accounts for.
bool alldrawable(TEXTURE* const* texture, unsigned int channels) {
  for (int i = 0; i < NCHANNELS; i++)
    if ((channels & (1u << i)) && (!texture[i] || !(texture[i]->flags & T_GLVALID))) return false;
  return true;
}

}  // namespace

void initdrawlists(DRAWLISTS* lists) {
  for (int i = 0; i < NDISPLAYLISTS; i++) {
    lists->drawrect[i] = nullptr;
    lists->idrawrect[i] = 0;
    lists->ndrawrect[i] = 0;
    lists->cslist[i] = 0;
  }
  lists->activelist = -1;
  lists->toactivatelist = -1;
  lists->listslocked = false;
  initchain(&lists->activechain);
}

bool preparedrawlists(OVCONTEXT* context, DRAWLISTS* lists) {
  if (atomicload(&lists->listslocked)) return true;
  unsigned int n = static_cast<unsigned int>(context->nmemtexture) * 4;
  bool ok = true;
  for (int i = 0; i < NDISPLAYLISTS; i++) {
    if (lists->drawrect[i]) {
      freetexturesinlist(context, lists, i);
    } else {
      lists->drawrect[i] = static_cast<DRAWRECT*>(calloc(n ? n : 1, sizeof(DRAWRECT)));
      ok = ok && lists->drawrect[i];
    }
    lists->ndrawrect[i] = lists->drawrect[i] ? n : 0;
    lists->idrawrect[i] = 0;
  }
  atomicstore(&lists->activelist, -1);
  atomicstore(&lists->toactivatelist, -1);
  return ok;
}

bool freedrawlists(OVCONTEXT* context, DRAWLISTS* lists) {
  if (atomicload(&lists->listslocked)) return false;
  for (int i = 0; i < NDISPLAYLISTS; i++) {
    if (lists->drawrect[i]) freetexturesinlist(context, lists, i);
    free(lists->drawrect[i]);
    lists->drawrect[i] = nullptr;
    lists->ndrawrect[i] = 0;
    lists->idrawrect[i] = 0;
  }
  return true;
}

int nextdrawlist(const DRAWLISTS* lists) {
  int newest = atomicload(&lists->toactivatelist);
  int list = (newest + 1) % NDISPLAYLISTS;
  if (list == atomicload(&lists->activelist)) list = (newest + 2) % NDISPLAYLISTS;
  return list;
}

int begindrawlist(OVCONTEXT* context, DRAWLISTS* lists) {
  int list = nextdrawlist(lists);
  freetexturesinlist(context, lists, list);
  return list;
}

void publishdrawlist(DRAWLISTS* lists, int list, uint32_t cs) {
  lists->cslist[list] = cs;
  memorybarrier();
  atomicstore(&lists->toactivatelist, list);
}

int appenddrawrect(OVCONTEXT* context, DRAWLISTS* lists, int list, const DRAWVIEW* view,
                   TEXTURE* const* texture, HFLOATCOMPLEX coord, int depth, int x0, int y0,
                   int width, float epsilon, bool special) {
  if (lists->idrawrect[list] >= lists->ndrawrect[list]) {
    fputs(special ? "drawareaspecial: drawrect overflow.\n" : "drawarea: drawrect overflow.\n",
          stderr);
    return DRAWRECT_FULL;
  }
  if (!alldrawable(texture, view->channels)) return DRAWRECT_MISSING;
  DRAWRECT* dr = &lists->drawrect[list][lists->idrawrect[list]];
  dr->ichannels = 0;
  for (int i = 0; i < NCHANNELS; i++) {
    if (!(view->channels & (1u << i))) continue;
    TEXTURE* t = texture[i];
    dr->texture[dr->ichannels] = t;
    attacht(t);
    lockmemtexture(context, t);
    dr->channel[dr->ichannels] = i;
    dr->ichannels++;
  }
  HFLOAT side = areaside(depth);
  HFLOATBASE m = side.mantissa;
  const HFLOATCOMPLEX corner[4] = {CZEROH, HFLOATCOMPLEX{m, 0, side.exponent},
                                   HFLOATCOMPLEX{m, m, side.exponent},
                                   HFLOATCOMPLEX{0, m, side.exponent}};
  for (int k = 0; k < 4; k++) setcorner(dr->c[k], coord, corner[k], view->zoom);
  double scale = dHF(mulHF(view->zoomabs, side));
  dr->correction = static_cast<float>(view->resolution * 0.5 * scale / width);
  dr->x0 = x0;
  dr->y0 = y0;
  dr->x1 = x0 + width;
  dr->y1 = y0 + width;
  dr->epsilon = epsilon;
  lists->idrawrect[list] = lists->idrawrect[list] + 1;
  return DRAWRECT_DONE;
}

int appendareatiles(OVCONTEXT* context, DRAWLISTS* lists, int list, const DRAWVIEW* view,
                    AREA* a, HFLOATCOMPLEX coord, bool special) {
  return appenddrawrect(context, lists, list, view, a->texture, coord, a->depth, 0, 0,
                        TEXTURESIZE, TEXELEPSILON, special);
}

DRAWFALLBACK childfallback(const AREA* a, const DRAWFALLBACK* parent, unsigned int channels,
                           int k) {
  // Children in the order of `child`: same corner, +x, +x +y, +y.
  static const int dx[4] = {0, 1, 1, 0};
  static const int dy[4] = {0, 0, 1, 1};
  if (isnewer(a->texture, parent->texture, channels)) {
    int half = TEXTURESIZE / 2;
    return DRAWFALLBACK{a->texture, TEXELEPSILON, dx[k] * half, dy[k] * half, half};
  }
  if (parent->texture && parent->width > 1) {
    int half = parent->width / 2;
    return DRAWFALLBACK{parent->texture, parent->epsilon, parent->x0 + dx[k] * half,
                        parent->y0 + dy[k] * half, half};
  }
  // An ancestor's tile is magnified to one texel per area and no further.
  return DRAWFALLBACK{nullptr, 0, 0, 0, 0};
}

void lockdrawlists(DRAWLISTS* lists) {
  (void)__atomic_exchange_n(&lists->listslocked, true, __ATOMIC_SEQ_CST);
}

int takedrawlist(DRAWLISTS* lists) {
  int list = atomicload(&lists->toactivatelist);
  for (;;) {
    atomicstore(&lists->activelist, list);
    int again = atomicload(&lists->toactivatelist);
    if (again == list) break;
    list = again;
  }
  if (list == -1) unlockdrawlists(lists);
  return list;
}

void unlockdrawlists(DRAWLISTS* lists) { atomicstore(&lists->listslocked, false); }
