// juliastackresolve.cpp: the pixels of a level whose end lies in the level
// itself. Each such pixel names a target pixel of the same picture; lists of
// referrers per target are linked once, every finished pixel hands its end
// down its list, and what never meets a finished pixel (a cycle inside the
// level: interior points) is iterated out in the level's number format.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <type_traits>
#include <vector>

#include "canvas/model.h"
#include "juliastack.h"

namespace {

using canvasmodel::NUM;

struct LEVELPIXELS {
  const JULIASTACKDATA* jstd;
  int js;
  int shift;  // log2 of js

  PREPIXEL* at(int k) const {
    int X = k & (js - 1), Y = k >> shift;
    JULIACACHE* jc = jstd->c[Y >> PREPIXELTILESIZESHIFT][X >> PREPIXELTILESIZESHIFT];
    if (!jc || !jc->data) return nullptr;
    return &jc->data[(Y & (PREPIXELTILESIZE - 1)) * PREPIXELTILESIZE + (X & (PREPIXELTILESIZE - 1))];
  }
};

int place(int js, float v) {
  double t = std::floor(static_cast<double>(js) * v * 0.25 + js / 2);
  return static_cast<int>(std::clamp(t, 0.0, static_cast<double>(js - 1)));
}

// How many levels below s a pixel goes on: 0 for this very level, -1 when
// it goes to a shallower one or is finished.
int below(const PREPIXEL* p, int s) {
  if (isjuliafromplace(p->depth)) return -1;
  if (p->depth >= JULIASAMELEVEL && p->depth <= JULIASAMELEVEL + NJULIASTACK)
    return p->depth == JULIASAMELEVEL ? 0 : p->depth - JULIASAMELEVEL - 1;
  return p->depth >= s ? p->depth - s : -1;
}

// A pixel that goes on in its own level, or in a deeper one, which lies
// inside it: its place in this level's units, or false.
bool samelevel(const PREPIXEL* p, int s, float* x, float* y) {
  int k = below(p, s);
  if (k < 0) return false;
  *x = std::ldexp(p->x, -k);
  *y = std::ldexp(p->y, -k);
  return true;
}

// The referrer takes the end of its target: counts add with the target's
// sign, derivatives multiply.
void takeend(PREPIXEL* p, const PREPIXEL& q) {
  p->iter = (q.iter < 0 ? -p->iter : p->iter) + q.iter;
  float dx = p->dx * q.dx - p->dy * q.dy;
  float dy = p->dx * q.dy + p->dy * q.dx;
  p->x = q.x;
  p->y = q.y;
  p->dx = dx;
  p->dy = dy;
  p->depth = -1;
}

// Only a pixel that names this very level takes the end of a pixel of it:
// one that came nearer 0 is far finer than this level's pixels, and goes on
// by iteration from its own place.
bool linked(const PREPIXEL* p, int s) { return below(p, s) == 0; }

// Phase 1: jsref[t] heads the list of pixels that end on t, through jsnext.
void link(OVCONTEXT* context, const LEVELPIXELS& L, int s) {
  int n = L.js * L.js;
  std::fill_n(context->jsref, n, -1);
  for (int k = 0; k < n; k++) {
    const PREPIXEL* p = L.at(k);
    float x, y;
    if (!p || !linked(p, s) || !samelevel(p, s, &x, &y)) continue;
    if (!std::isfinite(x) || !std::isfinite(y)) {
      fputs("rec2: FATAL ERROR!\n", stderr);
      continue;
    }
    int t = place(L.js, y) * L.js + place(L.js, x);
    context->jsnext[k] = context->jsref[t];
    context->jsref[t] = k;
  }
}

// Phase 2 from one finished pixel: its referrers, and theirs, all finish.
// The pixels still to hand on are stacked through their own jsnext, which
// they no longer need once their sibling has been read.
void rec2(OVCONTEXT* context, const LEVELPIXELS& L, int q) {
  int top = -1;
  int r = q;
  for (;;) {
    const PREPIXEL* end = L.at(r);
    for (int p = context->jsref[r]; p != -1;) {
      int next = context->jsnext[p];
      PREPIXEL* referrer = L.at(p);
      // A pixel iterated out already closes its cycle: it keeps its end.
      if (referrer->depth != -1) {
        takeend(referrer, *end);
        context->jsnext[p] = top;
        top = p;
      }
      p = next;
    }
    context->jsref[r] = -1;
    if (top == -1) return;
    r = top;
    top = context->jsnext[r];
  }
}

}  // namespace

bool juliacountedge(const PREPIXEL* tile, int k) {
  const PREPIXEL& q = tile[k];
  int row = k >> PREPIXELTILESIZESHIFT, col = k & (PREPIXELTILESIZE - 1);
  for (int dy = -1; dy <= 1; dy++)
    for (int dx = -1; dx <= 1; dx++) {
      int r = row + dy, c = col + dx;
      if ((dx == 0 && dy == 0) || r < 0 || c < 0 || r >= PREPIXELTILESIZE || c >= PREPIXELTILESIZE) continue;
      const PREPIXEL& n = tile[(r << PREPIXELTILESIZESHIFT) + c];
      if ((n.iter < 0) != (q.iter < 0)) return true;
      ITER diff = n.iter - q.iter;
      if (diff > 1 || diff < -1) return true;
    }
  return false;
}

void markjuliasamelevel(PREPIXEL* pixels, int s) {
  for (int k = 0; k < NPREPIXEL; k++) {
    PREPIXEL* p = &pixels[k];
    if (p->depth < s) continue;
    int deeper = std::min(p->depth - s, NJULIASTACK - 1);
    p->depth = deeper == 0 ? JULIASAMELEVEL : JULIASAMELEVEL + 1 + deeper;
  }
}

namespace {

// The level's reference orbit: the critical orbit of its own point m (the
// level sits on its environment's point), or null. A start point is a
// deviation of its first value, 0.
const REFDATAH* referenceof(const ENVIRONMENT* e, HFLOATCOMPLEX mr, ITER* n) {
  if (!e || !e->refdatah || e->n < 1 || mr.mantissax != 0 || mr.mantissay != 0 ||
      e->nrefdata < static_cast<int>(e->n) + 1)
    return nullptr;
  *n = static_cast<ITER>(e->n);
  return e->refdatah;
}

// What the orbits from places in one level share, in the level's format.
template <typename FLOAT>
struct LEVELMAP {
  typedef NUM<FLOAT> N;
  typename N::COMPLEX m, lim;
  FLOAT r2;
  bool trap;
  std::vector<typename N::COMPLEX> orbit;  // empty: none
};

template <typename FLOAT>
LEVELMAP<FLOAT> levelmap(HFLOATCOMPLEX m, HFLOATCOMPLEX lim, HFLOAT rlim, const REFDATAH* ref,
                         ITER nref) {
  typedef NUM<FLOAT> N;
  LEVELMAP<FLOAT> f;
  f.m = N::cfromHF(m);
  f.lim = N::cfromHF(lim);
  f.r2 = N::fromHF(mulHF(rlim, rlim));
  f.trap = rlim.mantissa != 0;
  if (ref) {
    f.orbit.resize(static_cast<size_t>(nref) + 1);
    for (ITER k = 0; k <= nref; k++) f.orbit[k] = N::cfromHF(ref[k].value);
  }
  return f;
}

// The orbit of a start point of level s under z^2 + m, to escape or into
// the seed's attractor, at most `limit` steps. Where the level has its
// reference orbit the point goes as a deviation of it (z = Z_k + delta),
// taken back to the orbit's start where it comes nearer 0 than its
// deviation or outlives the orbit: iterated plainly in the level's format,
// m itself is rounded, and next to an atom far smaller than that rounding
// the orbit is another one. The result is finished; false, with the pixel
// untouched, when `stop` was raised meanwhile (one such orbit may run 10^8
// steps, and a shutdown must not wait for it).
// Squared relative distance at which two points of an orbit count as one.
template <typename FLOAT>
double cycletolerance() {
  if constexpr (std::is_same_v<FLOAT, HFLOAT>)
    return std::ldexp(1.0, -2 * 56);
  else
    return std::pow(static_cast<double>(std::numeric_limits<FLOAT>::epsilon()) * 16, 2);
}

template <typename FLOAT>
bool extremejulia(PREPIXEL* p, int s, int jss, const LEVELMAP<FLOAT>& f, ITER limit,
                  volatile bool* stop) {
  typedef NUM<FLOAT> N;
  typedef typename N::COMPLEX COMPLEX;
  // The place in the plane, scaled in the wide exponent: a pixel may have
  // come far nearer 0 than a float's range below its own level.
  int scale = isjuliafromplace(p->depth) ? p->depth - JULIAFROMPLACE : s + std::max(below(p, s), 0);
  COMPLEX z = N::cfromHF(cldexpHF(cHF(HFd(p->x), HFd(p->y)), -scale));
  // The derivative by the start pixel: level units per level unit, times
  // the level's pixel in the plane.
  COMPLEX d = N::cfromHF(cldexpHF(cHF(HFd(p->dx), HFd(p->dy)), 2 - s - jss));
  const std::vector<COMPLEX>& orbit = f.orbit;
  const bool ref = !orbit.empty();
  const size_t nref = orbit.size() - 1;
  size_t r = 0;              // the reference's step
  COMPLEX delta = z;         // z - Z_r, Z_0 = 0
  // Counted as the canvas counts: the steps before the one that leaves
  // the radius 2.
  FLOAT four = N::fromd(4.0);
  ITER k = 0;
  ITER sign = 1;
  // Without a known attractor an inner point would run to the limit: its
  // orbit is caught instead where it meets a point it passed before, to
  // the format's last bits. Points are saved at every power of two steps,
  // so that a cycle of any length is met within twice its length past
  // settling, and at the step after: the cycle of a centre passes through
  // 0 itself, where no relative test holds, and its next point does not.
  const FLOAT close = N::fromd(cycletolerance<FLOAT>());
  COMPLEX saved[2] = {z, z};
  ITER next = 2;
  for (; k < limit; k++) {
    if ((k & 0xFFFF) == 0xFFFF && stop && atomicload(stop)) return false;
    if (f.trap && N::less(N::abss(N::csub(z, f.lim)), f.r2)) {
      sign = -1;
      break;
    }
    if (!f.trap && k > 1) {
      const FLOAT tolerance = N::mul(close, N::abss(z));
      if (!N::less(tolerance, N::abss(N::csub(z, saved[0]))) ||
          !N::less(tolerance, N::abss(N::csub(z, saved[1])))) {
        sign = -1;
        break;
      }
      if (k == next) saved[0] = z;
      if (k == next + 1) {
        saved[1] = z;
        next *= 2;
      }
    }
    COMPLEX z1;
    if (ref) {
      delta = N::cadd(N::cmul(N::ctwice(orbit[r]), delta), N::csqr(delta));
      r++;
      z1 = N::cadd(orbit[r], delta);
      if (r >= nref || N::less(N::abss(z1), N::abss(delta))) {
        delta = z1;
        r = 0;
      }
    } else {
      z1 = N::cadd(N::csqr(z), f.m);
    }
    if (N::less(four, N::abss(z1))) break;
    d = N::cmul(N::ctwice(z), d);
    z = z1;
  }
  HFLOATCOMPLEX zh = N::ctoHF(z), dh = N::ctoHF(d);
  ITER own = p->iter < 0 ? -p->iter : p->iter;
  p->iter = k >= limit ? 0 : sign * (own + k);
  p->x = static_cast<float>(dHF(crealHF(zh)));
  p->y = static_cast<float>(dHF(cimagHF(zh)));
  p->dx = static_cast<float>(dHF(crealHF(dh)));
  p->dy = static_cast<float>(dHF(cimagHF(dh)));
  p->depth = -1;
  return true;
}

constexpr ITER EXTREMEJULIALIMIT = 100000000;

HFLOATCOMPLEX levelpoint(const JULIASTACKDATA* jstd) {
  return cHF(mpf_get_HF(jstd->m->v[0]), mpf_get_HF(jstd->m->v[1]));
}

// Phase 3 in the level's format: every pixel still not finished is
// iterated out; the reference orbit goes into the format once for all.
template <typename FLOAT>
int remainder(OVCONTEXT* context, const LEVELPIXELS& L, const JULIASTACKDATA* jstd, int s,
              volatile bool* stop) {
  if (!jstd->m) return 0;
  ITER nref = 0;
  const REFDATAH* ref = referenceof(jstd->e, jstd->mr, &nref);
  LEVELMAP<FLOAT> f = levelmap<FLOAT>(levelpoint(jstd), jstd->lim, jstd->rlim, ref, nref);
  int n = L.js * L.js;
  int iterated = 0;
  for (int k = 0; k < n; k++) {
    if ((k & (NPREPIXEL - 1)) == 0 && stop && atomicload(stop)) return -1;
    PREPIXEL* p = L.at(k);
    float x, y;
    if (!p || (!samelevel(p, s, &x, &y) && !isjuliafromplace(p->depth))) continue;
    if (!extremejulia<FLOAT>(p, s, context->juliasizeshift, f, EXTREMEJULIALIMIT, stop)) return -1;
    iterated++;
    // Whatever ends on it is finished with it.
    if (context->jsref[k] != -1) rec2(context, L, k);
  }
  return iterated;
}

// The pixels of a buffer marked for level `l.level`, from their places.
template <typename FLOAT>
bool fromplaceof(OVCONTEXT* context, PREPIXELS* pp, const FROMPLACELEVEL& l, volatile bool* stop) {
  ITER nref = 0;
  const REFDATAH* ref = referenceof(l.e, CZEROH, &nref);
  LEVELMAP<FLOAT> f = levelmap<FLOAT>(l.m, l.lim, l.rlim, ref, nref);
  for (PREPIXEL& p : pp->pixels) {
    if (p.depth != JULIAFROMPLACE + l.level) continue;
    if (!extremejulia<FLOAT>(&p, l.level, context->juliasizeshift, f, EXTREMEJULIALIMIT, stop))
      return false;
  }
  return true;
}

}  // namespace

bool takefromplacelevels(OVCONTEXT* context, REALM* realm, PREPIXELS* pp) {
  releasefromplacelevels(context, pp);
  bool any = false;
  for (PREPIXEL& p : pp->pixels) {
    if (!isjuliafromplace(p.depth)) continue;
    int d = p.depth - JULIAFROMPLACE;
    bool known = false;
    for (int i = 0; i < pp->nfromplace && !known; i++) known = pp->fromplace[i].level == d;
    if (!known) {
      const JULIASTACKDATA* L = realm && realm->juliastack && d < realm->njuliastack &&
                                        d <= atomicload(&realm->readyjuliastack)
                                    ? &realm->juliastack[d]
                                    : nullptr;
      if (!L || !L->m || pp->nfromplace >= NFROMPLACE) {
        // Nothing to go on with: the pixel shows as unknown, not as a
        // count that may be wrong.
        p = PREPIXEL{0, 0, 0, 0, 0, -1};
        continue;
      }
      ITER nref = 0;
      ENVIRONMENT* e = referenceof(L->e, L->mr, &nref) ? L->e : nullptr;
      if (e) attache(e);
      pp->fromplace[pp->nfromplace++] =
          FROMPLACELEVEL{d, juliastackformat(realm->flags, d), levelpoint(L), L->lim, L->rlim, e};
    }
    any = true;
  }
  return any;
}

bool iteratefromplace(OVCONTEXT* context, PREPIXELS* pp, volatile bool* stop) {
  for (int i = 0; i < pp->nfromplace; i++) {
    const FROMPLACELEVEL& l = pp->fromplace[i];
    bool done;
    switch (l.format) {
      case R_PRECFLOAT: done = fromplaceof<float>(context, pp, l, stop); break;
      case R_PRECDOUBLE: done = fromplaceof<double>(context, pp, l, stop); break;
      case R_PRECLONGDOUBLE: done = fromplaceof<long double>(context, pp, l, stop); break;
      default: done = fromplaceof<HFLOAT>(context, pp, l, stop); break;
    }
    if (!done) return false;
  }
  return true;
}

void releasefromplacelevels(OVCONTEXT* context, PREPIXELS* pp) {
  for (int i = 0; i < pp->nfromplace; i++) detache(context, pp->fromplace[i].e);
  pp->nfromplace = 0;
}

unsigned int juliastackformat(unsigned int realmflags, int s) {
  unsigned int forced = realmflags & R_PRECMASK;
  if (forced) return forced;
  if (s <= 124) return R_PRECDOUBLE;
  if (s < 1600) return R_PRECLONGDOUBLE;
  return R_PRECHFLOAT;
}

int resolvejuliastacklevel(OVCONTEXT* context, const JULIASTACKDATA* jstd, int s, unsigned int format,
                           volatile bool* stop) {
  LEVELPIXELS L{jstd, context->juliasize, context->juliasizeshift};
  int n = L.js * L.js;
  link(context, L, s);
  if (stop && atomicload(stop)) return -1;
  for (int q = 0; q < n; q++) {
    if (context->jsref[q] == -1) continue;
    const PREPIXEL* p = L.at(q);
    if (p && p->depth == -1) rec2(context, L, q);
  }
  if (stop && atomicload(stop)) return -1;
  switch (format) {
    case 16: return remainder<float>(context, L, jstd, s, stop);
    case 32: return remainder<double>(context, L, jstd, s, stop);
    case 48: return remainder<long double>(context, L, jstd, s, stop);
    default: return remainder<HFLOAT>(context, L, jstd, s, stop);
  }
}
