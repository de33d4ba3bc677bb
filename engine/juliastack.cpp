// The Julia stack as the area tree meets it: the block of levels of a realm,
// made, copied and freed with the realm, and the marks that tie areas of a
// Julia realm's tree to tiles of the stack's levels.
//
// Geometry. Level s is the square of half-width 2^(1-s) around 0, cut into
// N x N tiles, N = 1 << `juliastacksizeshift`. A tile of level s has the
// side of an area at depth juliasizeshift - 6 + s, and with N at least 2 the
// tiles line up with the tree, whose top is the square of side 16 at (-8, -8).
// The four tiles of a level that touch 0 sit in the four quadrants of the
// top, and halving a tile of level s gives four tiles of level s + 1.
#include "juliastack.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

// Child order: 0 the same corner, 1 one step in x, 2 in x and y, 3 in y.
constexpr int CHILDX[4] = {0, 1, 1, 0};
constexpr int CHILDY[4] = {0, 0, 1, 1};

// The quadrants of the top in child order, and the tile touching 0 in each,
// as an offset from (N/2, N/2).
constexpr int QUADRANTX[4] = {-1, 0, 0, -1};
constexpr int QUADRANTY[4] = {-1, -1, 0, 0};

int juliabasedepth(const OVCONTEXT* context) { return context->juliasizeshift - 6; }

// A level's arrays hold MAXJULIASTACKSIZE tiles along a side: a larger
// `juliasizeshift` gets no more tiles than they hold.
int stacksizeshift(const OVCONTEXT* context) {
  return std::clamp(context->juliasizeshift - 8, 0, 3);
}

int childindex(const AREA* a) {
  if (!a->parent) return -1;
  for (int i = 0; i < 4; i++)
    if (a->parent->child[i] == a) return i;
  return -1;
}

void clearlevel(JULIASTACKDATA* L, int i, int sizeshift) {
  L->sizeshift = sizeshift;
  for (int y = 0; y < MAXJULIASTACKSIZE; y++)
    for (int x = 0; x < MAXJULIASTACKSIZE; x++) {
      JCBYPASSCHAIN* b = &L->bypasschain[y][x];
      b->i = i;
      b->x = x;
      b->y = y;
      b->inchain = false;
      initchain(&b->chain);
    }
  initchain(&L->wait);
  initchain(&L->canvasworker);
  L->prec = -1;
  L->bypass = false;
}

// A level's anchor and series: what a copy shares whether or not the
// level's tiles come along.
void copyanchor(JULIASTACKDATA* to, const JULIASTACKDATA* from) {
  to->sizeshift = from->sizeshift;
  to->mr = from->mr;
  for (int k = 0; k < NINTERPOLTAYLOR; k++) to->taylorj[k] = from->taylorj[k];
  to->iter = from->iter;
  to->bypass = from->bypass;
  to->miter = from->miter;
  to->lim = from->lim;
  to->rlim = from->rlim;
  to->prec = from->prec;
  to->r = from->r;
  to->m = from->m;
  if (to->m) attachhpv(to->m);
  to->e = from->e;
  if (to->e) attache(to->e);
}

// Finished tiles only: a tile in work belongs to the source's job.
void copytiles(REALM* realm, JULIASTACKDATA* to, const JULIASTACKDATA* from) {
  for (int y = 0; y < MAXJULIASTACKSIZE; y++)
    for (int x = 0; x < MAXJULIASTACKSIZE; x++) {
      JULIACACHE* jc = from->c[y][x];
      if (!jc || from->w[y][x]) continue;
      attachjc(jc);
      to->c[y][x] = jc;
      realm->ijuliacache++;
    }
  if (from->mipmap) {
    attachjc(from->mipmap);
    to->mipmap = from->mipmap;
  }
  to->corrected = from->corrected;
}

// The copy's cheap tiles in the order of the source's list.
void refillbypassjc(REALM* to, const REALM* from) {
  for (const CHAIN* l = from->bypassjc.next; l != &from->bypassjc; l = l->next) {
    const JCBYPASSCHAIN* b = CHAINRECORD(const_cast<CHAIN*>(l), JCBYPASSCHAIN, chain);
    if (b->i < 0 || b->i >= to->njuliastack) continue;
    JULIASTACKDATA* L = &to->juliastack[b->i];
    JCBYPASSCHAIN* mine = &L->bypasschain[b->y][b->x];
    if (!L->c[b->y][b->x] || mine->inchain) continue;
    chaininsbegin(&to->bypassjc, &mine->chain);
    mine->inchain = true;
  }
}

void freelevel(OVCONTEXT* context, REALM* realm, JULIASTACKDATA* L) {
  for (int y = 0; y < MAXJULIASTACKSIZE; y++)
    for (int x = 0; x < MAXJULIASTACKSIZE; x++) {
      if (WORKER* w = L->w[y][x]) {
        fputs("removerealm: FATAL ERROR. Still computing.\n", stderr);
        atomicstore(&w->stop, true);
        L->w[y][x] = nullptr;
      }
      JCBYPASSCHAIN* b = &L->bypasschain[y][x];
      if (b->inchain) {
        chainrem(&b->chain);
        initchain(&b->chain);
        b->inchain = false;
      }
      if (JULIACACHE* jc = L->c[y][x]) {
        L->c[y][x] = nullptr;
        detachjc(context, jc);
        realm->ijuliacache--;
      }
    }
  detachjc(context, L->mipmap);
  L->mipmap = nullptr;
  detachhpv(context, L->m);
  L->m = nullptr;
  detache(context, L->e);
  L->e = nullptr;
}

}  // namespace

void initjuliastack(OVCONTEXT* context, REALM* realm) {
  if (realm->juliastack) {
    fputs("initjuliastack: fatal error juliastack!=NULL.\n", stderr);
    return;
  }
  JULIASTACKDATA* levels = static_cast<JULIASTACKDATA*>(calloc(NJULIASTACK, sizeof(JULIASTACKDATA)));
  if (!levels) {
    fputs("initjuliastack: out of memory.\n", stderr);
    return;
  }
  int sizeshift = stacksizeshift(context);
  realm->juliastack = levels;
  realm->njuliastack = NJULIASTACK;
  realm->juliastacksizeshift = sizeshift;
  realm->validjuliastack = -1;
  realm->calcjuliastack = -1;
  realm->priojuliastack = -1;
  realm->maxjuliastack = -1;
  realm->juliajuliastack = -1;
  atomicstore(&realm->readyjuliastack, -1);
  atomicstore(&realm->readyjuliastack2, -1);
  realm->ijuliacache = 0;
  initchain(&realm->bypassjc);
  clearlevel(&realm->jstdforworker, -1, sizeshift);
  for (int i = 0; i < NJULIASTACK; i++) clearlevel(&levels[i], i, sizeshift);
}

void copyjuliastack(OVCONTEXT* context, REALM* to, const REALM* from) {
  initjuliastack(context, to);
  if (!to->juliastack || !from->juliastack) return;
  to->juliastacksizeshift = from->juliastacksizeshift;
  int ready = std::min(static_cast<int>(from->readyjuliastack), from->njuliastack - 1);
  int n = std::min(to->njuliastack, from->njuliastack);
  for (int s = 0; s < n; s++) {
    const JULIASTACKDATA* f = &from->juliastack[s];
    JULIASTACKDATA* t = &to->juliastack[s];
    copyanchor(t, f);
    if (s <= ready) copytiles(to, t, f);
  }
  refillbypassjc(to, from);
  // The copy has what the source had finished; the levels above are
  // anchored and wait to be started by the copy itself.
  to->neededjuliastack = from->neededjuliastack;
  to->validjuliastack = from->validjuliastack;
  to->maxjuliastack = from->maxjuliastack;
  to->calcjuliastack = ready;
  to->priojuliastack = std::min(from->priojuliastack, ready);
  to->juliajuliastack = std::min(from->juliajuliastack, ready);
  atomicstore(&to->readyjuliastack2, ready);
  // Readers on worker threads see the tiles before the mark.
  atomicstore(&to->readyjuliastack, ready);
}

void freejuliastack(OVCONTEXT* context, REALM* realm) {
  if (!realm->juliastack) return;
  for (int s = 0; s < realm->njuliastack; s++) freelevel(context, realm, &realm->juliastack[s]);
  free(realm->juliastack);
  realm->juliastack = nullptr;
  realm->njuliastack = 0;
}

void __initjuliatop(OVCONTEXT* context, AREA* a, int xinner, int yinner) {
  int n = 1 << a->realm->juliastacksizeshift;
  bool inside = xinner >= 0 && yinner >= 0 && xinner < n && yinner < n;
  a->xinner = inside ? xinner : -1;
  a->yinner = inside ? yinner : -1;
  // A base of the grid must leave `achain`, an unmarked one may join it.
  updatedelchain(context, a);
  if (a->depth < juliabasedepth(context)) return;
  if (inside) {
    placejuliachildren(context, a);
  } else {
    for (AREA* c : a->child)
      if (c && c->xinner != -1) __initjuliatop(context, c, -1, -1);
  }
}

void placejuliachildren(OVCONTEXT* context, AREA* a) {
  if (a->xinner == -1 || a->depth < juliabasedepth(context)) return;
  int h = (1 << a->realm->juliastacksizeshift) / 2;
  int x0 = 2 * a->xinner - h;
  int y0 = 2 * a->yinner - h;
  for (int i = 0; i < 4; i++)
    if (a->child[i]) __initjuliatop(context, a->child[i], x0 + CHILDX[i], y0 + CHILDY[i]);
}

namespace {

// Marks the tiles of level 0 below `a`, whose lower-left tile would be
// (x0, y0) when it lies above level 0, and leaves alone what lies outside
// the grid.
void markgrid(OVCONTEXT* context, AREA* a, int x0, int y0) {
  int n = 1 << a->realm->juliastacksizeshift;
  int k = juliabasedepth(context) - a->depth;
  int span = 1 << k;
  if (x0 + span <= 0 || y0 + span <= 0 || x0 >= n || y0 >= n) return;
  if (k == 0) {
    __initjuliatop(context, a, x0, y0);
    return;
  }
  subdivide(context, a);
  for (int i = 0; i < 4; i++)
    if (a->child[i])
      markgrid(context, a->child[i], x0 + CHILDX[i] * span / 2, y0 + CHILDY[i] * span / 2);
}

}  // namespace

void initjuliatop(OVCONTEXT* context, AREA* a, int xinner, int yinner, int maxdepth) {
  int q = childindex(a);
  int base = juliabasedepth(context);
  if (q < 0 || a->depth > base) return;
  // The corner of the quadrant that touches 0 is the opposite one; the tile
  // there is (xinner, yinner).
  int inward = (q + 2) & 3;
  int span = 1 << (base - a->depth);
  markgrid(context, a, xinner - CHILDX[inward] * (span - 1), yinner - CHILDY[inward] * (span - 1));
  while (a && a->depth < base) a = a->child[inward];
  // Below level 0, subdividing a marked area marks its children.
  while (a && a->xinner != -1 && a->depth < maxdepth) {
    subdivide(context, a);
    a = a->child[inward];
  }
}

void juliaprepare(OVCONTEXT* context, REALM* realm, int d) {
  AREA* top = realm->top;
  if (!top) return;
  subdivide(context, top);
  int n = 1 << realm->juliastacksizeshift;
  // A level of one tile is centred on 0 and lies across the tree's lines:
  // no area matches a tile, and none is marked.
  if (n < 2) return;
  int maxdepth = d + context->juliasizeshift - 6;
  for (int q = 0; q < 4; q++)
    if (top->child[q])
      initjuliatop(context, top->child[q], n / 2 + QUADRANTX[q], n / 2 + QUADRANTY[q], maxdepth);
}
