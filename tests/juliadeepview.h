// A Julia view at depth 1,000 on the Julia set of the atom of period 998
// next to the seahorse-valley point, run on an engine without a display:
// the seed, its periodic environment and the stack levels it defines, the
// view's place, and the view's counts and work read back on the main
// thread. The test and the benchmark of that view share it.
//
// The place. The seed is the atom's nucleus: 0 is a superattracting point
// of period 998, and the levels of the stack from 16 on are made by the
// bypass, cheaply, since the seed's critical orbit comes back exactly to 0.
// Its Julia set never comes near 0 at depth, though: the component of the
// attracting basin around 0 has a radius of about 2^-23 (level 24 holds
// its edge, the deeper levels lie inside it), so a view of width 1e-1000
// around 0 would be interior throughout. What a deep view on the Julia set
// can meet is a preimage of that component: the view is centred on a point
// that lands exactly on 0 after some thousands of steps, found by going
// backwards from 0 with a fixed, random choice of square root each step,
// which draws the point onto the Julia set, until the derivative of the
// forward orbit has grown to the view's depth less that of the component.
// After those steps the view's pixels lie on the square of about 2^-22
// around 0 that holds the component and its edge: a picture of the Julia
// set (interior and escaping pixels both), which the stack's levels hold
// already, so each pixel can hand the rest of its orbit to a level.
#pragma once

#include <gmp.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <functional>
#include <map>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include "idle.h"
#include "juliastack.h"
#include "test_juliastackatom.h"
#include "test_viewport.h"

namespace juliadeep {

using viewporttest::TileEngine;
using viewporttest::TILEKEY;
using viewporttest::keyof;

const char* const P998[2] = {"-0.7436438870371588707780645434936425750476",
                             "0.131825904205312292821097354874767265263"};
constexpr unsigned PERIOD = 998;
// The view's precision and the seed's: the view's width is 2^-3322.
constexpr mp_bitcnt_t BITS = 3700;
// The trap around the cycle's point 0, as the seed's own run gives it.
constexpr int TRAPEXP = -30;
// Where the view's pixels land near 0: a square of side 2^-IMAGEEXP.
constexpr int IMAGEEXP = 22;

inline double nowms() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

inline bool within(const std::function<bool()>& cond, double seconds) {
  double end = nowms() + seconds * 1000;
  while (!cond()) {
    if (nowms() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// A point of the plane in mpf, and how it was found.
struct PLACE {
  mpf_t x, y;
  int steps = 0;          // forward steps from the point to 0
  double log2slope = 0;   // log2 of |d z_steps / d z_0|
  PLACE() {
    mpf_init2(x, BITS);
    mpf_init2(y, BITS);
  }
  ~PLACE() {
    mpf_clear(x);
    mpf_clear(y);
  }
  PLACE(const PLACE&) = delete;
  PLACE& operator=(const PLACE&) = delete;
};

// One backward step z <- sign * sqrt(z - c) in mpf; the square root with a
// non-negative real part.
inline void backstep(mpf_ptr x, mpf_ptr y, mpf_srcptr cx, mpf_srcptr cy, bool negate) {
  mp_bitcnt_t bits = mpf_get_prec(x);
  mpf_t wx, wy, r, t;
  for (mpf_ptr m : {wx, wy, r, t}) mpf_init2(m, bits);
  mpf_sub(wx, x, cx);
  mpf_sub(wy, y, cy);
  mpf_mul(r, wx, wx);
  mpf_mul(t, wy, wy);
  mpf_add(r, r, t);
  mpf_sqrt(r, r);
  // re = sqrt((r + wx) / 2), im = sign(wy) sqrt((r - wx) / 2)
  mpf_add(t, r, wx);
  mpf_div_2exp(t, t, 1);
  mpf_sqrt(x, t);
  mpf_sub(t, r, wx);
  mpf_div_2exp(t, t, 1);
  mpf_sqrt(y, t);
  if (mpf_sgn(wy) < 0) mpf_neg(y, y);
  if (negate) {
    mpf_neg(x, x);
    mpf_neg(y, y);
  }
  for (mpf_ptr m : {wx, wy, r, t}) mpf_clear(m);
}

// Backwards from 0 under z^2 + c until the forward orbit's derivative from
// the point to 0 reaches 2^slope.
inline void preimage(mpf_srcptr cx, mpf_srcptr cy, double slope, PLACE* p) {
  std::mt19937 rng(998);
  mpf_set_ui(p->x, 0);
  mpf_set_ui(p->y, 0);
  p->steps = 0;
  p->log2slope = 0;
  while (p->log2slope < slope) {
    backstep(p->x, p->y, cx, cy, rng() & 1);
    p->steps++;
    double zx = mpf_get_d(p->x), zy = mpf_get_d(p->y);
    p->log2slope += std::log2(2 * std::hypot(zx, zy));
  }
}

// |z_n| of the forward orbit of the point, n = p.steps: how near 0 it lands.
inline double landing(mpf_srcptr cx, mpf_srcptr cy, const PLACE& p) {
  double out = 0;
  mpf_t zx, zy, t, u;
  for (mpf_ptr m : {zx, zy, t, u}) mpf_init2(m, BITS);
  mpf_set(zx, p.x);
  mpf_set(zy, p.y);
  for (int k = 0; k < p.steps; k++) {
    mpf_mul(t, zx, zx);
    mpf_mul(u, zy, zy);
    mpf_sub(t, t, u);
    mpf_mul(u, zx, zy);
    mpf_mul_2exp(zy, u, 1);
    mpf_add(zy, zy, cy);
    mpf_add(zx, t, cx);
  }
  long ex = 0, ey = 0;
  double mx = mpf_get_d_2exp(&ex, zx), my = mpf_get_d_2exp(&ey, zy);
  long e = std::max(ex, ey);
  out = std::hypot(std::ldexp(mx, static_cast<int>(ex - e)), std::ldexp(my, static_cast<int>(ey - e)));
  out = out == 0 ? -1e9 : std::log2(out) + static_cast<double>(e);
  for (mpf_ptr m : {zx, zy, t, u}) mpf_clear(m);
  return out;  // log2 |z_n|
}

inline int currentlist(const VIEWPORT* v) { return (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1; }

// The view's tiles after one computation: their count channel, the
// iterations their jobs took, and how many handed pixels to a level.
struct COUNTS {
  std::map<TILEKEY, std::vector<float>> counts;
  int64_t iterations = 0;
  int tiles = 0;
  int current = 0;        // tiles made in the realm's present cycle
  int handed = 0;         // tiles whose pixels named a level
  int deepestlevel = -1;  // the deepest level named
  long escaped = 0, interior = 0, unknown = 0;
  int fewestvalues = -1;  // the fewest distinct counts in one tile
  long sameasleft = 0;    // texels with the count of their left neighbour
  uint32_t cycle = 0;
};

// Main thread.
inline COUNTS collect(const VIEWPORT* v, const REALM* r) {
  COUNTS out;
  out.cycle = r->computecycle;
  int i = currentlist(v);
  for (int n = 0; n < v->iviewportarea[i]; n++) {
    const VIEWPORTAREA& va = v->viewportarea[i][n];
    if (va.priority <= 0 || va.priority == PRIO_KEEP) continue;
    AREA* a = va.a;
    out.tiles++;
    out.current += a->computecycle == out.cycle;
    out.iterations += a->statiterations;
    if (a->jst >= 0) {
      out.handed++;
      out.deepestlevel = std::max(out.deepestlevel, a->jst);
    }
    const TEXTURE* t = a->texture[3];
    if (!t || !t->pixels) continue;
    const float* p = static_cast<const float*>(t->pixels);
    for (int k = 0; k < TEXTURESIZE * TEXTURESIZE; k++) {
      if (p[k] > 0) out.escaped++;
      else if (p[k] < 0) out.interior++;
      else out.unknown++;
    }
    for (int k = 0; k < TEXTURESIZE * TEXTURESIZE; k++)
      if (k % TEXTURESIZE && p[k] == p[k - 1]) out.sameasleft++;
    std::vector<float> sorted(p, p + TEXTURESIZE * TEXTURESIZE);
    std::sort(sorted.begin(), sorted.end());
    int distinct = static_cast<int>(std::unique(sorted.begin(), sorted.end()) - sorted.begin());
    if (out.fewestvalues < 0 || distinct < out.fewestvalues) out.fewestvalues = distinct;
    out.counts[keyof(a, v)].assign(p, p + TEXTURESIZE * TEXTURESIZE);
  }
  return out;
}

// The count of start point (zx, zy) under z^2 + c in mpf, as the Julia
// kernels count: the step before |z|^2 passes 4, or minus the step that
// enters the seed's trap around 0; 0 when neither happens within `limit`.
inline long directcount(mpf_srcptr zx, mpf_srcptr zy, mpf_srcptr cx, mpf_srcptr cy, long limit) {
  mp_bitcnt_t bits = mpf_get_prec(zx);
  mpf_t x, y, xx, yy, t;
  for (mpf_ptr m : {x, y, xx, yy, t}) mpf_init2(m, bits);
  mpf_set(x, zx);
  mpf_set(y, zy);
  mpf_mul(xx, x, x);
  mpf_mul(yy, y, y);
  long result = 0;
  // |z| below 2^(TRAPEXP - 1): the trap's radius is half the seed's dj.
  mpf_t trap;
  mpf_init2(trap, 64);
  mpf_set_ui(trap, 1);
  mpf_div_2exp(trap, trap, static_cast<mp_bitcnt_t>(2 * (1 - TRAPEXP)));
  for (long n = 0; n < limit; n++) {
    mpf_mul(t, x, y);
    mpf_mul_2exp(t, t, 1);
    mpf_add(y, t, cy);
    mpf_sub(x, xx, yy);
    mpf_add(x, x, cx);
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_add(t, xx, yy);
    if (mpf_cmp_ui(t, 4) > 0) {
      result = n;
      break;
    }
    if (mpf_cmp(t, trap) < 0) {
      result = -(n + 1);
      break;
    }
  }
  mpf_clear(trap);
  for (mpf_ptr m : {x, y, xx, yy, t}) mpf_clear(m);
  return result;
}

// Texel (tx, ty) of area a: its exact start point, into (x, y).
inline void texelpoint(AREA* a, int tx, int ty, mpf_ptr x, mpf_ptr y) {
  HFLOATCOMPLEX off;
  HPVALUE* base = getcoordarel(a, &off);
  mpf_t t;
  mpf_init2(t, mpf_get_prec(x));
  for (int axis = 0; axis < 2; axis++) {
    mpf_ptr p = axis ? y : x;
    mpf_set_HFexact(t, axis ? cimagHF(off) : crealHF(off));
    mpf_add(p, base->v[axis], t);
    mpf_set_ui(t, static_cast<unsigned long>(2 * (axis ? ty : tx) + 1));
    mpf_div_2exp(t, t, static_cast<mp_bitcnt_t>(a->depth + 5));
    mpf_add(p, p, t);
  }
  mpf_clear(t);
}

struct AGREEMENT {
  long same = 0, all = 0, tiles = 0;
  double share() const { return all ? static_cast<double>(same) / all : 0; }
};

// The same escape count within 1, both inside, or both without a count.
inline AGREEMENT agreement(const COUNTS& a, const COUNTS& b, int show = 0) {
  AGREEMENT g;
  int shown = 0;
  for (const auto& [key, x] : a.counts) {
    auto it = b.counts.find(key);
    if (it == b.counts.end()) continue;
    g.tiles++;
    const std::vector<float>& y = it->second;
    for (size_t k = 0; k < x.size(); k++) {
      g.all++;
      bool inner = x[k] < 0 && y[k] < 0;
      bool escape = x[k] > 0 && y[k] > 0 && std::abs(x[k] - y[k]) <= 1;
      if (inner || escape || (x[k] == 0 && y[k] == 0)) {
        g.same++;
      } else if (shown++ < show) {
        printf("  depth %d texel %zu,%zu: %g against %g\n", std::get<0>(key), k % TEXTURESIZE,
               k / TEXTURESIZE, static_cast<double>(x[k]), static_cast<double>(y[k]));
      }
    }
  }
  return g;
}

struct FINISHCOUNT {
  std::atomic<int> finish{0};
};

inline void countfinish(OVCONTEXT*, VIEWPORT*, int event, void* pdata) {
  if (event == VPCALLBACK_FINISH) static_cast<FINISHCOUNT*>(pdata)->finish.fetch_add(1);
}

// The engine, the seed's realm with its stack, and the view.
struct DEEPVIEW {
  TileEngine engine;
  REALM* general = nullptr;  // holds the view that fills the levels from the period
  REALM* julia = nullptr;
  VIEWPORT* filler = nullptr;
  VIEWPORT* v = nullptr;
  ENVIRONMENT* e = nullptr;
  FINISHCOUNT count;
  PLACE place;
  double activated = 0;

  // `ntiles` storage tiles, `nthread` threads (two of them workers at 5).
  int widthexp;  // the view's longer side is 2^-widthexp

  DEEPVIEW(int ntiles, int nthread, int width = 3322) : engine(ntiles, false, nthread), widthexp(width) {
    general = viewporttest::newrealm(engine, GENERAL);
    julia = viewporttest::newrealm(engine, JULIA, R_DEFAULT);
    engine.onmain([&](OVCONTEXT* c) {
      e = atomtest::periodicenv(c, P998, PERIOD, BITS);
      attachhpv(e->c);
      julia->info.c = e->c;
      julia->info.iter = -static_cast<ITER>(PERIOD);
      julia->info.lim = CZEROH;
      julia->info.z = CZEROH;
      julia->info.dj = ldexpHF(ONEH, TRAPEXP);
      julia->neededjuliastack = juliastackneeded(&julia->info);
      attache(e);
      julia->e = e;
      // The period's orbit defines the levels as a Newton run's acceptance
      // does: canvas levels up to 15, bypass levels from 16 on.
      filler = viewporttest::handmadeview(c, general, {0.3, 0.0}, {4, 0});
      filler->juliarealm = julia;
      attachrealm(julia);
      environmentjuliastack(c, filler, e);
    });
    // Exactly on the preimage: the view's pixels land on the square of side
    // 2^-IMAGEEXP around 0 after `place.steps` steps.
    preimage(e->c->v[0], e->c->v[1], widthexp - IMAGEEXP, &place);
  }

  // The view of `w` by `h` pixels, a longer side of 2^-widthexp, shown.
  void show(int w, int h) {
    v = addviewport(engine.context, julia, nullptr, w, h, countfinish, &count);
    engine.onmain([&](OVCONTEXT*) { v->channels = 1 | 8; });
    // The longer side runs from -1 to 1 on the screen: zoom 2 / 2^-3322.
    HFLOATCOMPLEX zoom = cHF(ldexpHF(ONEH, widthexp + 1), ZEROH);
    moveviewportabsolute(engine.context, v, place.x, place.y, zoom, w, h);
    engine.onmain([](OVCONTEXT*) {});
    activated = nowms();
    activateviewport(engine.context, v, 1);
  }

  // Levels the view's areas need, and how many are ready.
  void stack(int* needed, int* ready) {
    engine.onmain([&](OVCONTEXT*) {
      *needed = julia->neededjuliastack;
      *ready = atomicload(&julia->readyjuliastack);
    });
  }

  // Every tile the view waits for is made, in the realm's present cycle.
  bool current() {
    bool ok = true;
    engine.onmain([&](OVCONTEXT*) {
      int i = currentlist(v);
      for (int k = 0; k < v->iviewportarea[i]; k++) {
        const VIEWPORTAREA& va = v->viewportarea[i][k];
        if (va.priority <= 0 || va.priority == PRIO_KEEP) continue;
        const AREA* a = va.a;
        if (a->worker || !(a->flags & A_PRECALCULATED) || a->computecycle != julia->computecycle)
          ok = false;
      }
    });
    return ok;
  }

  // Waits for a finish after `finishes` at which every tile is current.
  bool waitcurrent(int finishes, double seconds) {
    double end = nowms() + seconds * 1000;
    for (int n = finishes + 1;; n++) {
      if (!within([&] { return count.finish.load() >= n; }, (end - nowms()) / 1000)) return false;
      if (current()) return true;
    }
  }

  COUNTS counts() {
    COUNTS out;
    engine.onmain([&](OVCONTEXT*) { out = collect(v, julia); });
    return out;
  }

  // The view computed again with the realm's flags set to `flags`; the ms
  // it took, or -1 when it did not complete in `seconds`.
  double again(unsigned int flags, double seconds) {
    int finishes = count.finish.load();
    double t0 = nowms();
    engine.onmain([&](OVCONTEXT* c) {
      julia->flags = flags;
      redraw(c, v);
    });
    if (!waitcurrent(finishes, seconds)) return -1;
    return nowms() - t0;
  }

  ~DEEPVIEW() {
    if (v) detachviewport(engine.context, v);
    engine.onmain([&](OVCONTEXT* c) {
      stopjuliastackcomputation(c, julia);
      adjustjuliastack(c, julia, -1, true);
    });
    viewporttest::waitfor([&] { return atomicload(&engine.context->iworkerall) == 0; });
    engine.onmain([&](OVCONTEXT* c) {
      stopjuliastackcomputation(c, julia);
      adjustjuliastack(c, julia, -1, true);
      julia->e = nullptr;
      detache(c, e);
      detache(c, e);
    });
    viewporttest::waitfor([&] { return atomicload(&engine.context->iworkerall) == 0; });
    engine.onmain([&](OVCONTEXT* c) { __detachviewport(c, filler); });
    detachrealm(engine.context, julia);
    detachrealm(engine.context, general);
    engine.onmain([](OVCONTEXT*) {});
  }
};

// The share of `per` texels of each tile of the view (read on the main thread)
// that have the count of their exact start point iterated in GMP (within 1,
// or both inside); the first `show` that do not are printed.
inline double exactshare(DEEPVIEW& d, int per, int show = 4) {
  int same = 0, sampled = 0, shown = 0;
  d.engine.onmain([&](OVCONTEXT*) {
    int i = currentlist(d.v);
    mpf_t x, y;
    mpf_init2(x, BITS);
    mpf_init2(y, BITS);
    for (int n = 0; n < d.v->iviewportarea[i]; n++) {
      const VIEWPORTAREA& va = d.v->viewportarea[i][n];
      if (va.priority <= 0 || va.priority == PRIO_KEEP) continue;
      AREA* a = va.a;
      const TEXTURE* t = a->texture[3];
      if (!t || !t->pixels) continue;
      const float* p = static_cast<const float*>(t->pixels);
      for (int k = 0; k < per; k++) {
        int tx = (k * 97 + 13) % TEXTURESIZE, ty = (k * 61 + 29) % TEXTURESIZE;
        texelpoint(a, tx, ty, x, y);
        long g = directcount(x, y, d.e->c->v[0], d.e->c->v[1], 400000);
        float v = p[ty * TEXTURESIZE + tx];
        sampled++;
        if ((v < 0 && g < 0) || (v > 0 && g > 0 && std::abs(v - static_cast<float>(g)) <= 1)) {
          same++;
        } else if (shown++ < show) {
          printf("  depth %d texel %d,%d: tile %g, GMP %ld\n", a->depth, tx, ty, static_cast<double>(v), g);
        }
      }
    }
    mpf_clear(x);
    mpf_clear(y);
  });
  return sampled ? static_cast<double>(same) / sampled : 0;
}

}  // namespace juliadeep
