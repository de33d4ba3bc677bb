// bypass.cpp: a level's pixels sent through its cubic onto shallower levels,
// one pixel of such a level on demand, and the lookup of a point through the
// stack.
#include "bypass.h"

#include <algorithm>
#include <cmath>

#include "refiter.h"
#include "refiter_internal.h"

namespace {

struct CUBIC {
  HFLOATCOMPLEX t[4];
  HFLOATCOMPLEX t2x2;  // 2 t2
  HFLOATCOMPLEX t3x3;  // 3 t3
};

CUBIC cubicof(const HFLOATCOMPLEX* taylor) {
  CUBIC c;
  for (int k = 0; k < 4; k++) c.t[k] = taylor[k];
  c.t2x2 = cldexpHF(taylor[2], 1);
  c.t3x3 = cmulHF2(taylor[3], HFd(3.0));
  return c;
}

// The value and the derivative at `delta`, by Horner.
void evaluate(const CUBIC& c, HFLOATCOMPLEX delta, HFLOATCOMPLEX* v, HFLOATCOMPLEX* dd) {
  HFLOATCOMPLEX a = caddHF(cmulHF(c.t[3], delta), c.t[2]);
  a = caddHF(cmulHF(a, delta), c.t[1]);
  *v = caddHF(cmulHF(a, delta), c.t[0]);
  HFLOATCOMPLEX b = caddHF(cmulHF(c.t3x3, delta), c.t2x2);
  *dd = caddHF(cmulHF(b, delta), c.t[1]);
}

float tofloat(HFLOAT a) { return static_cast<float>(dHF(a)); }

// The pixel that the value v with derivative dd (by the start point in plane
// units) becomes: a place in a level up to `maxlevel`, or finished outside
// the stack. `ownscale` is log2 of a unit of the start point's own measure:
// its level's unit for a place, one of its pixels when finished.
PREPIXEL landing(HFLOATCOMPLEX v, HFLOATCOMPLEX dd, int maxlevel, int ownlevel, int pixelshift,
                 ITER iter) {
  PREPIXEL p;
  p.iter = iter;
  double x = 0, y = 0;
  int d = juliastacklevel(v, maxlevel, &x, &y);
  if (d < 0) {
    p.x = tofloat(crealHF(v));
    p.y = tofloat(cimagHF(v));
    HFLOATCOMPLEX s = cldexpHF(dd, pixelshift);
    p.dx = tofloat(crealHF(s));
    p.dy = tofloat(cimagHF(s));
    p.depth = -1;
    return p;
  }
  p.x = static_cast<float>(x);
  p.y = static_cast<float>(y);
  HFLOATCOMPLEX s = cldexpHF(dd, d - ownlevel);
  p.dx = tofloat(crealHF(s));
  p.dy = tofloat(cimagHF(s));
  p.depth = d;
  return p;
}

int place(int js, float v) {
  double t = std::floor(static_cast<double>(js) * v * 0.25 + js / 2);
  return static_cast<int>(std::clamp(t, 0.0, static_cast<double>(js - 1)));
}

PREPIXEL emptypixel() { return PREPIXEL{0, 0, 0, 0, 0, -1}; }

// Counts add with the sign of the part looked up last.
ITER addcount(ITER count, ITER more) { return (more < 0 ? -count : count) + more; }

// A pixel of level s whose value fell into level s or deeper: a value in
// the seed's trap is finished as interior after the steps counted; one in a
// level of s..`sameuntil` is a start point of that level, and the cubic
// they share takes it on. Whatever else it names is left as it is.
PREPIXEL deeper(const CUBIC& c, PREPIXEL p, int s, int sameuntil, ITER iter, HFLOATCOMPLEX lim,
                HFLOAT rlim, int jss) {
  bool trap = rlim.mantissa != 0;
  HFLOAT r2 = mulHF(rlim, rlim);
  // Inside the basin of an attracting 0 each round goes about twice as
  // deep; a bound on the rounds keeps a stray value from looping.
  constexpr int MAXROUNDS = 256;
  for (int round = 0; round < MAXROUNDS && p.depth >= s; round++) {
    int d = p.depth;
    HFLOATCOMPLEX delta = cHF(ldexpHF(HFd(p.x), -d), ldexpHF(HFd(p.y), -d));
    if (trap && subHF(cabsHFs(csubHF(delta, lim)), r2).mantissa < 0) {
      p.iter = -p.iter;
      p.x = tofloat(crealHF(delta));
      p.y = tofloat(cimagHF(delta));
      p.dx = 0;
      p.dy = 0;
      p.depth = -1;
      break;
    }
    if (d > sameuntil) break;
    HFLOATCOMPLEX v, dd;
    evaluate(c, delta, &v, &dd);
    // v's derivative by the start in level-d units, then by the pixel's
    // own start through what it carried.
    PREPIXEL q = landing(v, dd, NJULIASTACK - 1, d, 2 - jss - d, p.iter + iter);
    float dx = q.dx * p.dx - q.dy * p.dy, dy = q.dx * p.dy + q.dy * p.dx;
    q.dx = dx;
    q.dy = dy;
    p = q;
  }
  return p;
}

}  // namespace

bool juliastacksamecubic(const JULIASTACKDATA* a, const JULIASTACKDATA* b) {
  if (!b->m || b->m != a->m || !b->bypass || b->iter != a->iter) return false;
  for (int k = 0; k < 4; k++) {
    const HFLOATCOMPLEX &p = a->taylorj[k], &q = b->taylorj[k];
    if (p.mantissax != q.mantissax || p.mantissay != q.mantissay || p.exponent != q.exponent) return false;
  }
  return true;
}

int juliastacksameuntil(const REALM* realm, int s) {
  const JULIASTACKDATA* L = &realm->juliastack[s];
  int d = s;
  while (d + 1 < realm->njuliastack && d + 1 <= realm->maxjuliastack &&
         juliastacksamecubic(L, &realm->juliastack[d + 1]))
    d++;
  return d;
}

HFLOAT juliastacktrapradius(const JULIASTACKDATA* L) { return L->miter < 0 ? L->rlim : ZEROH; }

int juliastacklevel(HFLOATCOMPLEX v, int maxlevel, double* x, double* y) {
  HFLOAT re = hfloat_detail::normalize(v.mantissax, v.exponent);
  HFLOAT im = hfloat_detail::normalize(v.mantissay, v.exponent);
  if (re.mantissa == 0 && im.mantissa == 0) {
    *x = 0;
    *y = 0;
    return std::min(1, maxlevel);
  }
  // A normal HFLOAT of exponent E lies in [2^(E-1), 2^E).
  int32_t E = re.mantissa == 0 ? im.exponent
              : im.mantissa == 0 ? re.exponent
                                 : std::max(re.exponent, im.exponent);
  int64_t d = 1 - static_cast<int64_t>(E);
  if (d > maxlevel) d = maxlevel;
  if (d < 0) return -1;
  *x = dHF(ldexpHF(re, static_cast<int32_t>(d)));
  *y = dHF(ldexpHF(im, static_cast<int32_t>(d)));
  return static_cast<int>(d);
}

void bypass(OVCONTEXT* context, int maxjuliastack, int depth, HFLOATCOMPLEX cf, PREPIXEL* prepixels,
            const HFLOATCOMPLEX* taylor, ITER iter) {
  CUBIC c = cubicof(taylor);
  int jss = context->juliasizeshift;
  // depth = sizeshift + s + 2: the level and the scale of one of its pixels.
  int s = depth - (jss - PREPIXELTILESIZESHIFT) - 2;
  int pixelshift = 2 - s - jss;
  int32_t p = -4 - depth;
  for (int j = 0; j < PREPIXELTILESIZE; j++) {
    HFLOAT dy = HFLOAT{ONEH.mantissa, ONEH.exponent + p - 1};
    dy = addHF(dy, ldexpHF(HFd(j), p));
    HFLOAT y = addHF(cimagHF(cf), dy);
    PREPIXEL* row = prepixels + j * PREPIXELTILESIZE;
    for (int i = 0; i < PREPIXELTILESIZE; i++) {
      HFLOAT x = addHF(crealHF(cf), addHF(HFLOAT{ONEH.mantissa, ONEH.exponent + p - 1},
                                          ldexpHF(HFd(i), p)));
      HFLOATCOMPLEX v, dd;
      evaluate(c, cHF(x, y), &v, &dd);
      row[i] = landing(v, dd, maxjuliastack, s, pixelshift, iter);
    }
  }
}

void bypassdeeper(OVCONTEXT* context, int s, int sameuntil, PREPIXEL* prepixels,
                  const HFLOATCOMPLEX* taylor, ITER iter, HFLOATCOMPLEX lim, HFLOAT rlim) {
  CUBIC c = cubicof(taylor);
  for (int k = 0; k < NPREPIXEL; k++)
    if (prepixels[k].depth >= s)
      prepixels[k] = deeper(c, prepixels[k], s, sameuntil, iter, lim, rlim, context->juliasizeshift);
}

PREPIXEL bypassp(OVCONTEXT* context, REALM* realm, int i, float x, float y) {
  if (!realm || !realm->juliastack || i < 1 || i >= realm->njuliastack) return emptypixel();
  const JULIASTACKDATA& L = realm->juliastack[i];
  CUBIC c = cubicof(L.taylorj);
  // A 512th of a unit: a pixel's centre at the default size, where a tile
  // gives it, so the pixel agrees with its neighbours in a tile.
  constexpr double offset = 0.001953125;
  HFLOATCOMPLEX delta = cHF(ldexpHF(HFd(x + offset), -i), ldexpHF(HFd(y + offset), -i));
  HFLOATCOMPLEX v, dd;
  evaluate(c, delta, &v, &dd);
  int jss = context->juliasizeshift;
  PREPIXEL p = landing(v, dd, NJULIASTACK - 1, i, 2 - i - jss, L.iter);
  if (p.depth < i) return p;
  // Nearer 0 than the level above: on through the levels that share the
  // cubic, into the trap where the seed has one; failing both, looked up at
  // the centre of the level above.
  // The trap first: the walk over the levels that share the cubic is paid
  // only by a value that goes on.
  HFLOAT rlim = juliastacktrapradius(&L);
  p = deeper(c, p, i, i - 1, L.iter, L.lim, rlim, jss);
  if (p.depth >= i) p = deeper(c, p, i, juliastacksameuntil(realm, i), L.iter, L.lim, rlim, jss);
  if (p.depth < i) return p;
  return landing(v, dd, i - 1, i, 2 - i - jss, L.iter);
}

PREPIXEL juliastacklookup(OVCONTEXT* context, REALM* realm, int level, float x, float y, ITER iter,
                          int ready) {
  if (!realm || !realm->juliastack || level < 0 || level > ready || level >= realm->njuliastack)
    return emptypixel();
  float ax = 1, ay = 0;  // the derivatives met on the way, multiplied
  ITER count = iter;
  int js = context->juliasize;
  for (;;) {
    int col = place(js, x), row = place(js, y);
    const JULIASTACKDATA& L = realm->juliastack[level];
    JULIACACHE* jc = L.c[row >> PREPIXELTILESIZESHIFT][col >> PREPIXELTILESIZESHIFT];
    if (!jc) {
      if (!L.bypass) return emptypixel();
      PREPIXEL r = bypassp(context, realm, level, x, y);
      count = addcount(count, r.iter);
      float bx = ax * r.dx - ay * r.dy, by = ax * r.dy + ay * r.dx;
      ax = bx;
      ay = by;
      if (r.depth < 0 || r.depth > ready || r.depth >= level) {
        r.iter = count;
        r.dx = ax;
        r.dy = ay;
        return r;
      }
      x = r.x;
      y = r.y;
      level = r.depth;
      continue;
    }
    PREPIXEL* data = atomicload(&jc->data);
    if (!data) {
      if (!__readjuliacache(context, jc)) return emptypixel();
      data = jc->data;
    }
    PREPIXEL p = data[(row & (PREPIXELTILESIZE - 1)) * PREPIXELTILESIZE + (col & (PREPIXELTILESIZE - 1))];
    PREPIXEL r = p;
    r.iter = addcount(count, p.iter);
    r.dx = p.dx * ax - p.dy * ay;
    r.dy = p.dx * ay + p.dy * ax;
    return r;
  }
}

void juliastacklookupex(OVCONTEXT* context, REALM* realm, int ready, ITERINFO* info) {
  if (!info->lookup) return;
  double x = 0, y = 0;
  int d = juliastacklevel(info->z, ready, &x, &y);
  if (d < 0) return;
  info->lookup = false;
  PREPIXEL r = juliastacklookup(context, realm, d, static_cast<float>(x), static_cast<float>(y),
                                info->iter, ready);
  info->iter = r.iter;
  info->z = cHF(HFd(r.x), HFd(r.y));
  // The looked-up derivative is in level units by level-d units: the plane
  // scale of the start goes in with it.
  HFLOATCOMPLEX D = cldexpHF(cHF(HFd(r.dx), HFd(r.dy)), context->juliasizeshift + d - 2);
  info->dzm = cmulHF(info->dzm, D);
  info->dzj = cmulHF(info->dzj, D);
  info->distm = distmsquaredHF(info->z, info->dzm);
  info->distj = distjsquaredHF(info->z, info->dzj);
  info->d = refiter::rootHF(info->distm);
  info->dj = refiter::rootHF(info->distj);
}
