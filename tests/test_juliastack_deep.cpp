// The Julia stack deep down: for a seed just outside the Mandelbrot set at
// the Misiurewicz point i, whose Julia set passes 0 at every scale down to
// the square root of the seed's distance, the stack is built as a view
// resting on the seed would have it (the levels the seed's own orbit defines,
// canvas and bypass), and a pixel of a deep level looked up through it is
// compared with the same start point iterated directly by perturbation.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "bypass.h"
#include "juliastack.h"
#include "juliastackrun.h"
#include "test_viewport.h"

using namespace viewporttest;

namespace {

typedef std::complex<long double> CL;

// The orbit of 0 under z^2 + c in mpf, up to and with the first point
// outside the disc of radius sqrt 5.
struct ORBIT {
  std::vector<CL> z;                  // long double copies
  std::vector<HFLOATCOMPLEX> h;       // HFLOAT copies
  std::vector<HFLOAT> a;              // 4 - |z|^2
};

ORBIT orbitof(mpf_srcptr cx, mpf_srcptr cy, mp_bitcnt_t bits, int limit) {
  ORBIT o;
  mpf_t x, y, t, u, n;
  for (mpf_ptr m : {x, y, t, u, n}) mpf_init2(m, bits);
  for (int k = 0; k < limit; k++) {
    mpf_mul(t, x, x);
    mpf_mul(u, y, y);
    mpf_add(n, t, u);
    mpf_ui_sub(n, 4, n);
    o.z.push_back(CL(mpf_get_d(x), mpf_get_d(y)));
    // long double from mpf: the double part and the remainder.
    {
      double hx = mpf_get_d(x), hy = mpf_get_d(y);
      mpf_t r;
      mpf_init2(r, bits);
      mpf_set_d(r, hx);
      mpf_sub(r, x, r);
      long double lx = static_cast<long double>(hx) + mpf_get_d(r);
      mpf_set_d(r, hy);
      mpf_sub(r, y, r);
      long double ly = static_cast<long double>(hy) + mpf_get_d(r);
      mpf_clear(r);
      o.z.back() = CL(lx, ly);
    }
    o.h.push_back(cHF(mpf_get_HF(x), mpf_get_HF(y)));
    o.a.push_back(mpf_get_HF(n));
    if (mpf_cmp_si(n, -1) <= 0) break;
    mpf_sub(t, t, u);
    mpf_mul(u, x, y);
    mpf_mul_2exp(u, u, 1);
    mpf_add(x, t, cx);
    mpf_add(y, u, cy);
  }
  for (mpf_ptr m : {x, y, t, u, n}) mpf_clear(m);
  return o;
}

// The count of start point d under z^2 + c by perturbation against the
// orbit of 0 (Z_0 = 0, so a start point is a deviation of it), rebased to
// 0 where the pixel comes nearer 0 than its deviation or outlives the
// reference: the last step before |z|^2 passes 4, as the canvas counts; -1
// when it stays within `limit`.
int perturbedcount(const ORBIT& o, CL d, int limit) {
  size_t k = 0;
  CL e = d;
  size_t last = o.z.size() - 1;
  for (int n = 0; n < limit; n++) {
    // z_n = Z_k + e; one step: e <- 2 Z_k e + e^2.
    e = 2.0L * o.z[k] * e + e * e;
    k++;
    CL z = o.z[k] + e;
    if (std::norm(z) > 4) return n;
    if (std::norm(z) < std::norm(e) || k >= last) {
      e = z;
      k = 0;
    }
  }
  return -1;
}

struct DEEPSTACK : juliastackrun::STACKRUN {
  ORBIT orbit;
  mp_bitcnt_t bits;

  // Seed i + 2^-(2 S), the orbit environment at it as the idle search of a
  // view centred there leaves its series, and the levels it defines.
  explicit DEEPSTACK(int S) : bits(static_cast<mp_bitcnt_t>(2 * S + 192)) {
    engine.onmain([&](OVCONTEXT* c) {
      mpf_t x, y;
      mpf_init2(x, bits);
      mpf_init2(y, bits);
      mpf_set_ui(x, 1);
      mpf_div_2exp(x, x, static_cast<mp_bitcnt_t>(2 * S));
      mpf_set_ui(y, 1);
      orbit = orbitof(x, y, bits, 1000000);
      e = adde(c, x, y, bits);
      int n = static_cast<int>(orbit.z.size()) - 1;
      e->n = static_cast<UITER>(n);
      e->nrefdata = n + 1;
      e->refdatah = static_cast<REFDATAH*>(calloc(n + 1, sizeof(REFDATAH)));
      e->refdatad = static_cast<REFDATAD*>(calloc(n + 1, sizeof(REFDATAD)));
      __atomic_add_fetch(&c->mem_envrefdata, int64_t(64) * (n + 1), __ATOMIC_SEQ_CST);
      for (int k = 0; k <= n; k++) {
        e->refdatah[k].value = orbit.h[k];
        e->refdatah[k].a = orbit.a[k];
        e->refdatad[k].value = {static_cast<double>(orbit.z[k].real()),
                                static_cast<double>(orbit.z[k].imag())};
        e->refdatad[k].a = dHF(orbit.a[k]);
      }
      // Marked periodic while its orbit defines the levels, as a period's
      // orbit does.
      e->flags = E_PERIODIC;
      e->mini = 1;
      e->maxi = 0;
      julia->info.c = e->c;
      attachhpv(e->c);
      julia->info.iter = n;
      julia->neededjuliastack = 2 * S;
      v = handmadeview(c, general, {0.3, 0.0}, {4, 0});
      v->juliarealm = julia;
      attachrealm(julia);
      environmentjuliastack(c, v, e);
      // The orbit defines the shallow levels only; the deeper ones a Julia
      // view asks for are anchored as its request anchors them: canvas
      // levels at the seed.
      for (int s = 0; s <= S; s++) {
        JULIASTACKDATA& L = julia->juliastack[s];
        if (L.m) continue;
        attachhpv(e->c);
        L.m = e->c;
        attache(e);
        L.e = e;
        L.iter = 0;
        L.bypass = false;
        L.prec = -1;
        L.miter = n;
      }
      julia->maxjuliastack = S;
      // What a view resting on the seed hands its levels: the plain orbit
      // of its centre (the idle search's levels end on the view's
      // non-periodic environment), a reference every start point of a
      // level perturbs against.
      e->flags &= ~E_PERIODIC;
      mpf_clear(x);
      mpf_clear(y);
    });
  }

  // Share of `n` pixels of level S whose count through the stack is within
  // 1 of the direct perturbed count.
  double agreement(int S, int n, int* compared) {
    int js = engine.context->juliasize;
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> pick(0, js - 1);
    std::vector<std::pair<int, int>> px;
    for (int k = 0; k < n; k++) px.push_back({pick(rng), pick(rng)});
    std::vector<PREPIXEL> r(n);
    engine.onmain([&](OVCONTEXT* c) {
      int ready = atomicload(&julia->readyjuliastack);
      for (int k = 0; k < n; k++) {
        float x = static_cast<float>((px[k].first + 0.5) * 4.0 / js - 2.0);
        float y = static_cast<float>((px[k].second + 0.5) * 4.0 / js - 2.0);
        r[k] = juliastacklookup(c, julia, S, x, y, 0, ready);
      }
    });
    int good = 0, shown = 0;
    for (int k = 0; k < n; k++) {
      CL d(std::ldexp(static_cast<long double>((px[k].first + 0.5) * 4.0 / js - 2.0), -S),
           std::ldexp(static_cast<long double>((px[k].second + 0.5) * 4.0 / js - 2.0), -S));
      int direct = perturbedcount(orbit, d, 200000);
      bool ok = r[k].depth == -1 && std::abs(r[k].iter - direct) <= 1;
      if (ok) good++;
      else if (shown++ < 5)
        fprintf(stderr, "level %d pixel (%d, %d): stack %d (depth %d), direct %d\n", S, px[k].first,
                px[k].second, r[k].iter, r[k].depth, direct);
    }
    *compared = n;
    return static_cast<double>(good) / n;
  }
};

// Builds levels 0..S and checks that at least `floor` of 10,000 pixels of
// level S agree with their direct orbit; where they do not, the agreement
// of the levels on the way down is printed.
void deepcheck(int S, int seconds, double floor) {
  DEEPSTACK f(S);
  std::string kinds = f.kinds(S);
  fprintf(stderr, "levels 0..%d: %s\n", S, kinds.c_str());
  ASSERT_EQ(kinds.find('.'), std::string::npos) << "a level up to " << S << " is not defined";
  ASSERT_TRUE(f.build(S, seconds)) << "ready " << atomicload(&f.julia->readyjuliastack);
  int n = 0;
  double a = f.agreement(S, 10000, &n);
  fprintf(stderr, "level %d: %.4f of %d pixels agree\n", S, a, n);
  EXPECT_GE(a, floor);
  if (a < floor) {
    for (int l = 0; l < S; l += std::max(1, S / 10)) {
      int m = 0;
      fprintf(stderr, "level %d: %.4f\n", l, f.agreement(l, 2000, &m));
    }
  }
}

}  // namespace

// Each pixel's count goes through the levels it comes near 0 in: where its
// orbit hands over to a shallower level it takes the end of the pixel of
// that level that holds its place, computed at that pixel's centre, unless
// that pixel sits on a change of count. The orbits of a deep level all pass
// the critical orbit of the seed, which lies on the Julia set, and meet such
// pixels often: looked up there too, level 100 agreed on 0.9926 of its
// pixels; now 0.9995. Without the reference orbit it agreed on 0.11.
TEST(JuliaStackDeep, ALevel100PixelThroughTheStackCountsAsItsDirectOrbit) {
  deepcheck(100, 600, 0.995);  // the limit only guards against a hang
}

// DISABLED: the seed's orbit defines no bypass level (it never comes back
// near 0), so the 1001 levels are all canvas levels; on two shared cores
// only 363 of them were ready after 600 s, far beyond a test's time. The
// deep stack with bypass levels is checked in test_bypass_deep.
TEST(JuliaStackDeep, DISABLED_ALevel1000PixelThroughTheStackCountsAsItsDirectOrbit) {
  deepcheck(1000, 600, 0.995);
}
