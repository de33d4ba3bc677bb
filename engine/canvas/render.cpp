// canvas/render.cpp: channel tiles and PREPIXEL records from a finished
// canvas, and the continuations of an escaped orbit behind the smooth count
// and the distance estimates.
//
// The cell tree is walked as `newref` walks it, threaded through `next5` with
// the level in `dummy`: a vertex whose `depth` is below the walk's level is a
// closed cell, a leaf, and is painted as one block.
#include "canvas/render.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <type_traits>

#include "area.h"

JULIACORRECTP juliacorrectphook = nullptr;

namespace canvasrender {

using canvasmodel::NUM;

// Named rather than anonymous: the walk's callbacks carry these types.
namespace detail {

constexpr double SMOOTHBAILOUT = 1e10;
constexpr int SMOOTHSTEPS = 200;
constexpr int DISTMSTEPS = 200;
constexpr int DISTJSTEPS = 20;
// The distance of an orbit that escaped at its start, and of a point with no
// count, in grid steps: small, so that such pixels read as "at the set".
constexpr float DISTESCAPEDATSTART = 1e-5f;
constexpr float DISTUNKNOWN = 1e-6f;

template <typename FLOAT>
constexpr bool ISHF = std::is_same_v<FLOAT, HFLOAT>;

template <typename FLOAT>
double todouble(FLOAT f) {
  if constexpr (ISHF<FLOAT>) return dHF(f);
  else return static_cast<double>(f);
}

template <typename T>
typename T::FLOAT re(typename T::COMPLEX z) {
  if constexpr (ISHF<typename T::FLOAT>) return crealHF(z);
  else return z.real();
}

template <typename T>
typename T::FLOAT im(typename T::COMPLEX z) {
  if constexpr (ISHF<typename T::FLOAT>) return cimagHF(z);
  else return z.imag();
}

template <typename T>
typename T::COMPLEX cmake(typename T::FLOAT x, typename T::FLOAT y) {
  if constexpr (ISHF<typename T::FLOAT>) return cHF(x, y);
  else return typename T::COMPLEX(x, y);
}

template <typename T>
typename T::COMPLEX cscale(typename T::COMPLEX z, typename T::FLOAT f) {
  typedef NUM<typename T::FLOAT> N;
  return N::cmul(z, N::creal(f));
}

// z * (a + b i), a constant of the cubic.
template <typename T>
typename T::COMPLEX cweight(typename T::COMPLEX z, double a, double b) {
  typedef NUM<typename T::FLOAT> N;
  return N::cmul(z, N::cfromd(a, b));
}

// ---------------------------------------------------------------- the cubic of a cell
//
// f(s) = a0 + a1 s + a2 s^2 + a3 s^3 through the corner values at s = 0, 1,
// 1 + i, i (corners in cyclic order from the top left).

template <typename T>
struct CUBIC {
  typename T::COMPLEX a[4];
};

template <typename T>
CUBIC<T> cubicof(const typename T::COMPLEX v[4]) {
  typedef NUM<typename T::FLOAT> N;
  CUBIC<T> f;
  f.a[0] = v[0];
  f.a[1] = N::cadd(N::cadd(cweight<T>(v[0], -1.5, 1.5), cweight<T>(v[1], 0, -1)),
                   N::cadd(cweight<T>(v[2], 0.5, -0.5), v[3]));
  f.a[2] = N::cadd(N::cadd(cweight<T>(v[0], 0, -2), cweight<T>(v[1], 1.5, 0.5)),
                   N::cadd(cweight<T>(v[2], 0, 1), cweight<T>(v[3], -1.5, 0.5)));
  f.a[3] = N::cadd(N::cadd(cweight<T>(v[0], 0.5, 0.5), cweight<T>(v[1], -0.5, 0.5)),
                   N::cadd(cweight<T>(v[2], -0.5, -0.5), cweight<T>(v[3], 0.5, -0.5)));
  return f;
}

template <typename T>
typename T::COMPLEX cubicat(const CUBIC<T>& f, typename T::COMPLEX s) {
  typedef NUM<typename T::FLOAT> N;
  typename T::COMPLEX r = f.a[3];
  for (int k = 2; k >= 0; k--) r = N::cadd(N::cmul(r, s), f.a[k]);
  return r;
}

// ---------------------------------------------------------------- one render

// What every pixel of one canvas shares.
template <typename T>
struct RENDER {
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  OVCONTEXT* context;
  typename T::CANVAS* canvas;
  WORKER* job;
  int s;              // a grid step is 2^s
  FLOAT F;            // d * F is the derivative in grid steps
  FLOAT df;           // 2^s: the parameter's own step, d's constant term in grid steps
  FLOAT dscale;       // 2^(s+1), the interior derivative's scale
  FLOAT interiorscale;  // 2^(-1-s)
  COMPLEX origin;     // the parameter of vertex 0, absolute
  COMPLEX juliac;     // the Julia parameter
  COMPLEX lim;        // the attractor's trap
  FLOAT r;
  bool julia;
  bool hyperbolic;
  ITER period;        // of the Julia point's attracting cycle, 0 none
};

template <typename T>
RENDER<T> renderof(OVCONTEXT* context, typename T::CANVAS* canvas) {
  typedef NUM<typename T::FLOAT> N;
  RENDER<T> R;
  R.context = context;
  R.canvas = canvas;
  R.job = canvas->__worker;
  R.s = 4 - canvas->depth - canvas->canvassizeshift;
  // A zero `dfactor` divides to the largest HFLOAT, and a quotient beyond the
  // format's range becomes its infinity on conversion.
  R.F = N::fromHF(divHF(NUM<HFLOAT>::pow2(R.s), canvas->dfactor));
  R.df = N::pow2(R.s);
  R.dscale = N::pow2(R.s + 1);
  R.interiorscale = N::pow2(-1 - R.s);
  R.origin = cmake<T>(N::frommpf(canvas->c[0]), N::frommpf(canvas->c[1]));
  R.julia = (canvas->flags & CF_JULIA) != 0;
  R.hyperbolic = (canvas->flags & CF_HYPERBOLIC) != 0;
  R.juliac = N::czero();
  R.lim = N::czero();
  R.r = N::zero();
  R.period = 0;
  if (R.job) {
    R.juliac = N::cfromHF(R.job->hdata[JOB_JULIAPOINT]);
    R.lim = N::cfromHF(R.job->hdata[JOB_TRAPCENTRE]);
    R.r = N::fromHF(crealHF(R.job->hdata[JOB_TRAPRADIUS]));
    if (R.julia && R.job->idata[JOB_ATTRACTOR] < 0) R.period = -R.job->idata[JOB_ATTRACTOR];
  }
  return R;
}

// The count of a vertex: positive escaped, negative interior, 0 unknown. A
// Julia point with an attracting cycle counts its trapped orbits by the phase
// of the cycle at which they were caught, where a channel shows it (`phase`).
// A PREPIXEL keeps minus the step that entered the trap instead: the Julia
// stack adds the counts of a pixel's way to it, and its bypass and its
// finishing worker count the same way; the channels made from a PREPIXEL
// take the phase of the sum.
//
// An orbit given up by the precision test (CV_FAILED) neither escaped nor
// was proved interior: its iteration is where the arithmetic failed, not an
// escape, so it shows as unknown rather than as a wrong count.
template <typename T>
ITER countof(const RENDER<T>& R, const typename T::CVERTEX* vx, bool phase = true) {
  if (!(vx->flags & VX_FINISHED) || (vx->v.flags & CV_FAILED)) return 0;
  ITER iter = static_cast<ITER>(vx->v.iter);
  if (!(vx->v.flags & CV_INFTY)) return iter;
  if (phase && R.period > 0) {
    long k = (static_cast<long>(iter) - 1) % R.period;
    if (k < 0) k += R.period;
    return static_cast<ITER>(-1 - k);
  }
  return -iter;
}

// An orbit that escaped, including one that escaped at its start and so has
// the count 0.
template <typename T>
bool escapedvertex(const typename T::CVERTEX* vx, ITER c) {
  if (c > 0) return true;
  return (vx->flags & VX_FINISHED) && (vx->v.flags & CV_ESCAPED) && !(vx->v.flags & CV_INFTY);
}

// The parameter of grid point (x, y): for the distance and the smooth count
// of an escaped orbit, where its low bits no longer matter.
template <typename T>
typename T::COMPLEX parameterof(const RENDER<T>& R, int x, int y) {
  typedef NUM<typename T::FLOAT> N;
  if (R.julia) return R.juliac;
  return N::cadd(R.origin, N::cscaled(x, y, R.df));
}

// (1 - |z|^2) 2^(-1-s) / |d|: the interior distance in grid steps.
template <typename T>
float interiordist(const RENDER<T>& R, typename T::COMPLEX z, typename T::COMPLEX d) {
  typedef NUM<typename T::FLOAT> N;
  typename T::FLOAT num = N::mul(N::sub(N::fromd(1.0), N::abss(z)), R.interiorscale);
  return static_cast<float>(todouble(N::div(num, N::absc(d))));
}

// ---------------------------------------------------------------- channel stores

struct TILE {
  float** pixels;
  int xlag;
  unsigned int mask;  // of the non-null buffers
};

void fill(const TILE& t, int channel, int x0, int y0, int w, float v) {
  float* b = t.pixels[channel];
  if (!b) return;
  for (int j = 0; j < w; j++) std::fill_n(b + static_cast<long>(y0 + j) * t.xlag + x0, w, v);
}

void put(const TILE& t, int channel, int x, int y, float v) {
  float* b = t.pixels[channel];
  if (b) b[static_cast<long>(y) * t.xlag + x] = v;
}

// An escaped leaf: every channel from corner 0's state.
template <typename T>
void paintescaped(const RENDER<T>& R, const TILE& t, const typename T::CVERTEX* vx, ITER c,
                  int x0, int y0, int w) {
  typename T::COMPLEX z = vx->v.value;
  typename T::COMPLEX dF = cscale<T>(vx->v.d, R.F);
  fill(t, CHANNEL_VALUEX, x0, y0, w, static_cast<float>(todouble(re<T>(z))));
  fill(t, CHANNEL_VALUEY, x0, y0, w, static_cast<float>(todouble(im<T>(z))));
  typename T::COMPLEX cp = parameterof<T>(R, x0, y0);
  bool atstart = vx->v.iter == 0;
  if (t.mask & CHANNELMASK_DIST) {
    float dist = DISTESCAPEDATSTART;
    if (!atstart) {
      dist = static_cast<float>(R.julia ? distj<T>(z, dF, cp, c, R.lim, R.r)
                                        : distm<T>(z, dF, cp, R.df));
    }
    fill(t, CHANNEL_DIST, x0, y0, w, dist);
  }
  if (t.mask & CHANNELMASK_DIST2) fill(t, CHANNEL_DIST2, x0, y0, w, atstart ? 0.0f : dist2<T>(z, dF));
  fill(t, CHANNEL_DERIVATIVEX, x0, y0, w, static_cast<float>(todouble(re<T>(dF))));
  fill(t, CHANNEL_DERIVATIVEY, x0, y0, w, static_cast<float>(todouble(im<T>(dF))));
  if (t.mask & CHANNELMASK_SMOOTHITER) fill(t, CHANNEL_SMOOTHITER, x0, y0, w, smoothiter<T>(z, cp, c));
}

// An interior or unknown pixel from its own z and d.
template <typename T>
void putinterior(const RENDER<T>& R, const TILE& t, ITER c, int x, int y, typename T::COMPLEX z,
                 typename T::COMPLEX d) {
  put(t, CHANNEL_VALUEX, x, y, static_cast<float>(todouble(re<T>(z))));
  put(t, CHANNEL_VALUEY, x, y, static_cast<float>(todouble(im<T>(z))));
  if (t.mask & CHANNELMASK_DIST) put(t, CHANNEL_DIST, x, y, c == 0 ? DISTUNKNOWN : interiordist<T>(R, z, d));
  if (t.mask & (CHANNELMASK_DERIVATIVEX | CHANNELMASK_DERIVATIVEY)) {
    typename T::COMPLEX dd = cscale<T>(d, R.dscale);
    put(t, CHANNEL_DERIVATIVEX, x, y, static_cast<float>(todouble(re<T>(dd))));
    put(t, CHANNEL_DERIVATIVEY, x, y, static_cast<float>(todouble(im<T>(dd))));
  }
}

// The corners of cell (i, w) in cyclic order from the top left.
void cornersof(int i, int w, int corners[4]) {
  const int RS = CANVASSIZE;
  corners[0] = i;
  corners[1] = i + w;
  corners[2] = i + w * RS + w;
  corners[3] = i + w * RS;
}

template <typename T>
void cubicsof(const typename T::CANVAS* canvas, int i, int w, CUBIC<T>* f, CUBIC<T>* g) {
  int k[4];
  cornersof(i, w, k);
  typename T::COMPLEX v[4], d[4];
  for (int n = 0; n < 4; n++) {
    v[n] = canvas->v[k[n]].v.value;
    d[n] = canvas->v[k[n]].v.d;
  }
  *f = cubicof<T>(v);
  *g = cubicof<T>(d);
}

// s = (k + j i) / w, exact: w is a power of two.
template <typename T>
typename T::COMPLEX localof(int k, int j, int w) {
  typedef NUM<typename T::FLOAT> N;
  return N::cfromd(static_cast<double>(k) / w, static_cast<double>(j) / w);
}

// An interior or unknown leaf: its count, and where the value, derivative or
// distance are asked, the vertex itself or the cubics through the corners.
template <typename T>
void paintinterior(const RENDER<T>& R, const TILE& t, int i, ITER c, int x0, int y0, int w) {
  const typename T::CANVAS* canvas = R.canvas;
  fill(t, CHANNEL_DIST2, x0, y0, w, 0.0f);
  fill(t, CHANNEL_SMOOTHITER, x0, y0, w, static_cast<float>(c));
  if (w == 1) {
    putinterior<T>(R, t, c, x0, y0, canvas->v[i].v.value, canvas->v[i].v.d);
    return;
  }
  if (!(t.mask & CHANNELMASK_BLOCK)) return;
  CUBIC<T> f, g;
  cubicsof<T>(canvas, i, w, &f, &g);
  for (int j = 0; j < w; j++) {
    for (int k = 0; k < w; k++) {
      typename T::COMPLEX s = localof<T>(k, j, w);
      putinterior<T>(R, t, c, x0 + k, y0 + j, cubicat<T>(f, s), cubicat<T>(g, s));
    }
  }
}

// The count a tile shows. An orbit stopped by the derivative bound is
// finished for the canvas (only a finer grid, the Julia stack, can go on with
// it) but neither escaped nor proved interior; its iteration is where its
// derivative outgrew the format, so a tile shows it as unknown. The PREPIXEL
// road keeps the count: that is how such a pixel reaches the stack.
template <typename T>
ITER tilecount(const RENDER<T>& R, const typename T::CVERTEX* vx) {
  ITER c = countof<T>(R, vx);
  if (c > 0 && !R.hyperbolic && !(vx->v.flags & (CV_ESCAPED | CV_INFTY))) return 0;
  return c;
}

template <typename T>
void paintleaf(const RENDER<T>& R, const TILE& t, int i, int level) {
  const typename T::CVERTEX* vx = &R.canvas->v[i];
  int w = 1 << (R.canvas->canvassizeshift - level);
  int x0 = i % CANVASSIZE, y0 = i / CANVASSIZE;
  ITER c = tilecount<T>(R, vx);
  fill(t, CHANNEL_ITER, x0, y0, w, static_cast<float>(c) * CHANNELITERSCALE);
  fill(t, CHANNEL_COUNT, x0, y0, w, static_cast<float>(c));
  if (R.hyperbolic) {
    // The tiling has no orbit to continue: its count and the reduced point.
    if (c > 0) {
      fill(t, CHANNEL_VALUEX, x0, y0, w, static_cast<float>(todouble(re<T>(vx->v.value))));
      fill(t, CHANNEL_VALUEY, x0, y0, w, static_cast<float>(todouble(im<T>(vx->v.value))));
    }
    return;
  }
  if (escapedvertex<T>(vx, c)) paintescaped<T>(R, t, vx, c, x0, y0, w);
  else paintinterior<T>(R, t, i, c, x0, y0, w);
}

// Calls leaf(i, level) for every closed cell of the tree.
template <typename T, typename LEAF>
void walkleaves(typename T::CANVAS* canvas, LEAF leaf) {
  const int RS = CANVASSIZE;
  const int shift = canvas->canvassizeshift;
  int stack = 0;
  canvas->v[0].next5 = -1;
  canvas->v[0].dummy = 0;
  while (stack != -1) {
    int i = stack;
    typename T::CVERTEX* ci = &canvas->v[i];
    stack = ci->next5;
    int level = ci->dummy;
    if (ci->depth <= level || level >= shift) {
      leaf(i, level);
      continue;
    }
    int h = 1 << (shift - level - 1);
    // Pushed last to first, so the quarters come off in row order.
    const int quarters[4] = {i + h * RS + h, i + h * RS, i + h, i};
    for (int q : quarters) {
      canvas->v[q].dummy = level + 1;
      canvas->v[q].next5 = stack;
      stack = q;
    }
  }
}

// ---------------------------------------------------------------- PREPIXEL records

// v = m 2^e with 1 <= |m| < 2; false for 0.
template <typename FLOAT>
bool mantissa2(FLOAT v, double* m, long* e) {
  if constexpr (ISHF<FLOAT>) {
    if (v.mantissa == 0) return false;
    int lb = ilogbHF(v);
    *e = lb;
    *m = dHF(ldexpHF(v, -lb));
  } else {
    if (v == 0) return false;
    int k;
    FLOAT f = std::frexp(v, &k);
    *m = 2.0 * static_cast<double>(f);
    *e = static_cast<long>(k) - 1;
  }
  return true;
}

double ldexpclamped(double m, long e) {
  return std::ldexp(m, static_cast<int>(std::clamp(e, -4000L, 4000L)));
}

// A pixel that goes on in the Julia stack: z in the units of its level,
// z 2^depth, the level being the one whose square (half-width 2^(1-depth))
// holds z in its outer ring, depth cut to the deepest level, d in grid steps rescaled alike.
template <typename T>
PREPIXEL stackpixel(const RENDER<T>& R, ITER c, typename T::COMPLEX z, typename T::COMPLEX dF,
                    int limit) {
  typedef NUM<typename T::FLOAT> N;
  PREPIXEL p = {c, 0, 0, 0, 0, -1};
  double mx = 0, my = 0;
  long ex = 0, ey = 0;
  bool hx = mantissa2(re<T>(z), &mx, &ex);
  bool hy = mantissa2(im<T>(z), &my, &ey);
  long depth = limit;
  double x = 0, y = 0;
  if (hx || hy) {
    long e = hx && hy ? std::max(ex, ey) : (hx ? ex : ey);
    if (hx) x = ldexpclamped(mx, ex - e);
    if (hy) y = ldexpclamped(my, ey - e);
    depth = -e;
    if (depth > limit) {
      x = ldexpclamped(x, limit - depth);
      y = ldexpclamped(y, limit - depth);
      depth = limit;
    }
  }
  if (depth < 0) return p;
  p.depth = static_cast<int>(depth);
  p.x = static_cast<float>(x);
  p.y = static_cast<float>(y);
  if (!N::bad(dF)) {
    int shift = static_cast<int>(depth) + R.context->juliasizeshift - 2;
    HFLOATCOMPLEX h = cldexpHF(N::ctoHF(dF), shift);
    p.dx = static_cast<float>(dHF(crealHF(h)));
    p.dy = static_cast<float>(dHF(cimagHF(h)));
  }
  return p;
}

// A pixel that is finished here: interior (distance in dx), escaped or
// unknown.
template <typename T>
PREPIXEL finalpixel(const RENDER<T>& R, ITER c, typename T::COMPLEX z, typename T::COMPLEX d) {
  PREPIXEL p = {c, 0, 0, 0, 0, -1};
  if (c == 0) return p;
  p.x = static_cast<float>(todouble(re<T>(z)));
  p.y = static_cast<float>(todouble(im<T>(z)));
  if (c < 0) {
    p.dx = interiordist<T>(R, z, d);
  } else {
    typename T::COMPLEX dF = cscale<T>(d, R.F);
    p.dx = static_cast<float>(todouble(re<T>(dF)));
    p.dy = static_cast<float>(todouble(im<T>(dF)));
  }
  return p;
}

// 2 wins over 1, and the first 1 over later ones.
int combine(int result, int answer) {
  if (answer == 2) return 2;
  return result != 0 ? result : answer;
}

struct PREPIXELTILE {
  PREPIXEL* pixels;
  int xlag;
  bool juliacorrect;
  REALM* realm;
  int limit;
  int result;
  int highest;  // deepest level named, -1 none
};

template <typename T>
void prepixelleaf(const RENDER<T>& R, PREPIXELTILE* t, int i, int level) {
  const typename T::CANVAS* canvas = R.canvas;
  const typename T::CVERTEX* vx = &canvas->v[i];
  int w = 1 << (canvas->canvassizeshift - level);
  int x0 = i % CANVASSIZE, y0 = i / CANVASSIZE;
  ITER c = countof<T>(R, vx, false);
  if (c >= 1 && !(vx->v.flags & CV_ESCAPED)) {
    PREPIXEL p = stackpixel<T>(R, c, vx->v.value, cscale<T>(vx->v.d, R.F), t->limit);
    t->highest = std::max(t->highest, p.depth);
    for (int j = 0; j < w; j++) {
      PREPIXEL* row = t->pixels + static_cast<long>(y0 + j) * t->xlag + x0;
      for (int k = 0; k < w; k++) {
        row[k] = p;
        if (t->juliacorrect && juliacorrectphook)
          t->result = combine(t->result, juliacorrectphook(R.context, t->realm, &row[k], false));
      }
    }
    return;
  }
  if (c < 0 && w > 1) {
    CUBIC<T> f, g;
    cubicsof<T>(canvas, i, w, &f, &g);
    for (int j = 0; j < w; j++) {
      PREPIXEL* row = t->pixels + static_cast<long>(y0 + j) * t->xlag + x0;
      for (int k = 0; k < w; k++) {
        typename T::COMPLEX s = localof<T>(k, j, w);
        row[k] = finalpixel<T>(R, c, cubicat<T>(f, s), cubicat<T>(g, s));
      }
    }
    return;
  }
  PREPIXEL p = finalpixel<T>(R, c, vx->v.value, vx->v.d);
  for (int j = 0; j < w; j++)
    std::fill_n(t->pixels + static_cast<long>(y0 + j) * t->xlag + x0, w, p);
}

}  // namespace detail

using namespace detail;

// ---------------------------------------------------------------- public operations

template <typename T>
void rendercanvas(OVCONTEXT* context, typename T::CANVAS* canvas, float** pixels, int xlag) {
  RENDER<T> R = renderof<T>(context, canvas);
  TILE t = {pixels, xlag, 0};
  for (int k = 0; k < NCHANNELS; k++)
    if (pixels[k]) t.mask |= 1u << k;
  walkleaves<T>(canvas, [&](int i, int level) { paintleaf<T>(R, t, i, level); });
}

template <typename T>
int rendercanvasprepixel(OVCONTEXT* context, typename T::CANVAS* canvas, PREPIXEL* pixels,
                         int xlag, bool juliacorrect) {
  RENDER<T> R = renderof<T>(context, canvas);
  REALM* realm = R.job ? static_cast<REALM*>(R.job->pdata[JOB_REALM]) : nullptr;
  // The deepest level of the stack bounds the level a pixel may name.
  int limit = (realm ? realm->njuliastack : NJULIASTACK) - 1;
  // An area of a Julia realm is computed once the levels it asked for are
  // ready, and no one makes deeper ones for it: a pixel that comes nearer 0
  // than the deepest ready level is looked up there, near its centre.
  const REALM* arearealm = R.job ? static_cast<const REALM*>(R.job->pdata[JOB_AREAREALM]) : nullptr;
  if (realm && arearealm && arearealm->type == JULIA) {
    int ready = atomicload(&realm->readyjuliastack2);
    if (ready >= 0) limit = std::min(limit, ready);
  } else if (realm && R.job->idata[JOB_DBOUND] >= 0) {
    // A general tile hands its pixels to the levels its job was given.
    limit = std::min(limit, static_cast<int>(R.job->idata[JOB_DBOUND]));
  }
  PREPIXELTILE t = {pixels, xlag, juliacorrect, realm, limit, 0, -1};
  walkleaves<T>(canvas, [&](int i, int level) { prepixelleaf<T>(R, &t, i, level); });
  if (R.job && t.highest > R.job->idata[JOB_PREPIXELDEPTH])
    R.job->idata[JOB_PREPIXELDEPTH] = t.highest;
  return t.result;
}

template <typename T>
float smoothiter(typename T::COMPLEX z, typename T::COMPLEX c, ITER iter) {
  typedef NUM<typename T::FLOAT> N;
  if (iter < 0) return static_cast<float>(iter);
  long n = iter;
  double L = todouble(N::abss(z));
  for (int k = 0; k < SMOOTHSTEPS && !(L > SMOOTHBAILOUT); k++) {
    z = N::cadd(N::csqr(z), c);
    L = todouble(N::abss(z));
    n++;
  }
  // log2 |z| below 1 means the orbit never left the escape radius of 2 in
  // the steps allowed: there is nothing to smooth.
  double lz = std::log2(L) * 0.5;
  if (!(lz >= 1.0)) return static_cast<float>(n);
  double r = static_cast<double>(n) - std::log2(lz);
  return static_cast<float>(std::max(r, 0.0));
}

template <typename T>
double distm(typename T::COMPLEX z, typename T::COMPLEX d, typename T::COMPLEX c,
             typename T::FLOAT df) {
  typedef NUM<typename T::FLOAT> N;
  typename T::COMPLEX dc = N::creal(df);
  for (int k = 0; k < DISTMSTEPS && !(todouble(N::abss(z)) > SMOOTHBAILOUT); k++) {
    d = N::cadd(N::ctwice(N::cmul(z, d)), dc);
    z = N::cadd(N::csqr(z), c);
  }
  double L = todouble(N::abss(z));
  return std::sqrt(L) * std::log(L) * 0.5 / todouble(N::absc(d));
}

template <typename T>
double distj(typename T::COMPLEX z, typename T::COMPLEX d, typename T::COMPLEX c, ITER iter,
             typename T::COMPLEX, typename T::FLOAT) {
  typedef NUM<typename T::FLOAT> N;
  if (iter < 1) return 0.0;
  for (int k = 0; k < DISTJSTEPS && !(todouble(N::abss(z)) > SMOOTHBAILOUT); k++) {
    d = N::ctwice(N::cmul(z, d));
    z = N::cadd(N::csqr(z), c);
  }
  double L = todouble(N::abss(z));
  return std::sqrt(L) * std::log(L) * 0.5 / todouble(N::absc(d));
}

template <typename T>
float dist2(typename T::COMPLEX z, typename T::COMPLEX d) {
  typedef NUM<typename T::FLOAT> N;
  double r = (2.0 - todouble(N::absc(z))) / todouble(N::absc(d));
  return static_cast<float>(r > 0.0 ? r : 0.0);
}

#define ORVANTA_INSTANTIATE(T)                                                                   \
  template void rendercanvas<T>(OVCONTEXT*, T::CANVAS*, float**, int);                          \
  template int rendercanvasprepixel<T>(OVCONTEXT*, T::CANVAS*, PREPIXEL*, int, bool);           \
  template float smoothiter<T>(T::COMPLEX, T::COMPLEX, ITER);                                   \
  template double distm<T>(T::COMPLEX, T::COMPLEX, T::COMPLEX, T::FLOAT);                       \
  template double distj<T>(T::COMPLEX, T::COMPLEX, T::COMPLEX, ITER, T::COMPLEX, T::FLOAT);     \
  template float dist2<T>(T::COMPLEX, T::COMPLEX);
ORVANTA_INSTANTIATE(CANVASTEMPLATE_float)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_double)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_longdouble)
ORVANTA_INSTANTIATE(CANVASTEMPLATE_hfloat)
#undef ORVANTA_INSTANTIATE

}  // namespace canvasrender
