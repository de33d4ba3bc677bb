// The bypass deep down: the stack of the atom of period 998 next to the
// seahorse-valley point, whose orbit comes back to 0 after its period and
// hands every level from 16 on to the bypass, is built to level 1000. The
// seed is the atom's nucleus, so 0 lies in the basin of its superattracting
// cycle: the levels around 24 hold the basin's edge (the Julia set), the
// deeper ones lie inside it. A pixel looked up through the stack is compared
// with its start point iterated directly by perturbation, and a level made
// by the bypass with the same level computed by canvas jobs against the
// atom's periodic environment, at levels 24, 100 and 1000.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bypass.h"
#include "juliastack.h"
#include "test_juliastackatom.h"
#include "juliastackrun.h"
#include "test_viewport.h"

using namespace viewporttest;
using namespace atomtest;

namespace {

typedef std::complex<long double> CL;

const char* const P998[2] = {"-0.7436438870371588707780645434936425750476",
                             "0.131825904205312292821097354874767265263"};
constexpr unsigned PERIOD = 998;

CL cl(HFLOATCOMPLEX h) {
  return CL(static_cast<long double>(dHF(crealHF(h))), static_cast<long double>(dHF(cimagHF(h))));
}

struct ATOMSTACK : juliastackrun::STACKRUN {
  std::vector<CL> orbit;  // z_0 .. z_998 in long double

  // The trap around the cycle's point 0 that the seed's run would give.
  static constexpr int TRAPEXP = -30;

  explicit ATOMSTACK(int S) {
    engine.onmain([&](OVCONTEXT* c) {
      e = periodicenv(c, P998, PERIOD, static_cast<mp_bitcnt_t>(2 * S + 1200));
      for (unsigned k = 0; k <= PERIOD; k++) orbit.push_back(cl(e->refdatah[k].value));
      julia->info.c = e->c;
      attachhpv(e->c);
      julia->info.iter = -static_cast<ITER>(PERIOD);
      julia->info.lim = CZEROH;
      julia->info.dj = ldexpHF(ONEH, TRAPEXP);
      julia->neededjuliastack = S;
      v = handmadeview(c, general, {0.3, 0.0}, {4, 0});
      v->juliarealm = julia;
      attachrealm(julia);
      environmentjuliastack(c, v, e);
    });
  }

  // The direct count of start point w against the atom's orbit.
  int directcount(CL w, int limit) const { return atomtest::directcount(orbit, TRAPEXP, w, limit); }

  // The counts of level s at `n` random pixels, looked up through the stack.
  std::vector<std::pair<int, int>> pixels(int n) const {
    int js = engine.context->juliasize;
    std::mt19937 rng(4711);
    std::uniform_int_distribution<int> pick(0, js - 1);
    std::vector<std::pair<int, int>> px;
    for (int k = 0; k < n; k++) px.push_back({pick(rng), pick(rng)});
    return px;
  }
  static float place(int i, int js) { return static_cast<float>((i + 0.5) * 4.0 / js - 2.0); }
  std::vector<ITER> lookup(int s, const std::vector<std::pair<int, int>>& px) {
    int js = engine.context->juliasize;
    std::vector<ITER> out(px.size());
    engine.onmain([&](OVCONTEXT* c) {
      int ready = atomicload(&julia->readyjuliastack);
      for (size_t k = 0; k < px.size(); k++) {
        PREPIXEL r = juliastacklookup(c, julia, s, place(px[k].first, js), place(px[k].second, js), 0, ready);
        out[k] = r.depth == -1 ? r.iter : 0;
      }
    });
    return out;
  }

  // Share of `n` pixels of level s whose count through the stack is within
  // 1 of the direct one (interior ones by their step into the trap); the
  // share of interior pixels among the direct counts in `interior`.
  double agreement(int s, int n, double* interior) {
    int js = engine.context->juliasize;
    auto px = pixels(n);
    std::vector<ITER> got = lookup(s, px);
    int good = 0, inside = 0, shown = 0;
    for (int k = 0; k < n; k++) {
      CL w(std::ldexp(static_cast<long double>(place(px[k].first, js)), -s),
           std::ldexp(static_cast<long double>(place(px[k].second, js)), -s));
      int direct = directcount(w, 200000);
      if (direct < 0) inside++;
      bool ok = direct != 0 && std::abs(got[k] - direct) <= 1;
      if (ok) good++;
      else if (shown++ < 5)
        fprintf(stderr, "level %d pixel (%d, %d): stack %d, direct %d\n", s, px[k].first,
                px[k].second, got[k], direct);
    }
    *interior = static_cast<double>(inside) / n;
    return static_cast<double>(good) / n;
  }

  // Level s anew as a canvas level: dropped with the levels above it, then
  // anchored on the atom's point as a level its own tiles iterate, and
  // computed. False when it does not become ready in time.
  bool recomputebycanvas(int s, int seconds) {
    engine.onmain([&](OVCONTEXT* c) {
      adjustjuliastack(c, julia, s - 1, true);
      JULIASTACKDATA& L = julia->juliastack[s];
      attachhpv(e->c);
      L.m = e->c;
      attache(e);
      L.e = e;
      L.mr = CZEROH;
      L.iter = 0;
      L.bypass = false;
      for (auto& t : L.taylorj) t = CZEROH;
      L.prec = -1;
      L.miter = julia->info.iter;
      L.lim = julia->info.lim;
      L.rlim = julia->info.dj;
      julia->maxjuliastack = s;
    });
    return build(s, seconds);
  }
  bool isbypass(int s) {
    bool b = false;
    engine.onmain([&](OVCONTEXT*) { b = julia->juliastack[s].bypass; });
    return b;
  }
};

// Share of pixels whose counts in a and b are within 1 of each other.
double same(const std::vector<ITER>& a, const std::vector<ITER>& b, int s) {
  int good = 0, shown = 0;
  for (size_t k = 0; k < a.size(); k++) {
    bool ok = a[k] != 0 && std::abs(a[k] - b[k]) <= 1;
    if (ok) good++;
    else if (shown++ < 5) fprintf(stderr, "level %d sample %zu: bypass %d, canvas %d\n", s, k, a[k], b[k]);
  }
  return static_cast<double>(good) / a.size();
}

}  // namespace

// One stack to level 1000 serves every check: its build is the test's cost.
TEST(BypassDeep, TheAtomsStackAgreesWithDirectOrbitsAndItsBypassLevelsWithCanvasLevels) {
  const int S = 1000;
  ATOMSTACK f(S);
  std::string kinds = f.kinds(S);
  ASSERT_EQ(kinds.find('.'), std::string::npos) << kinds;
  // Canvas levels up to 15, bypass levels from 16 on.
  EXPECT_EQ(kinds.find('b'), 16u) << kinds;
  EXPECT_TRUE(f.isbypass(100));
  EXPECT_TRUE(f.isbypass(1000));
  // The limit only guards against a hang: on a loaded machine the build
  // takes several times its quiet 30 s.
  ASSERT_TRUE(f.build(S, 900)) << "ready " << atomicload(&f.julia->readyjuliastack);

  // Through the stack against the direct orbit: the basin's edge, and the
  // levels inside the basin, whose pixels meet the attractor after one
  // period.
  for (int s : {24, 100, 1000}) {
    double interior = 0;
    double a = f.agreement(s, s == 24 ? 4000 : 2000, &interior);
    fprintf(stderr, "level %d: %.4f agree, %.4f interior\n", s, a, interior);
    // On the basin's edge the escaping pixels linger for periods next to
    // the Julia set, and the cubic holds to about a pixel a period: with
    // the lookups on a change of count iterated instead, 0.9728 agree
    // (0.8448 without). Taken at the centre of the level above, as the
    // cubic's clamp had it, the level showed no interior at all.
    EXPECT_GE(a, s == 24 ? 0.95 : 0.995) << "level " << s;
    if (s == 24) {
      // The edge runs through the level: both outcomes are there.
      EXPECT_GT(interior, 0.2);
      EXPECT_LT(interior, 0.95);
    } else {
      EXPECT_EQ(interior, 1.0);
    }
  }

  // A bypass level against the same level iterated by a canvas job.
  auto px = f.pixels(10000);
  // The canvas level's tiles take the atom's periodic environment itself,
  // series and all, as the stack hands it to them.
  for (int s : {1000, 100, 24}) {
    std::vector<ITER> bypassed = f.lookup(s, px);
    ASSERT_TRUE(f.recomputebycanvas(s, 40)) << "level " << s;
    ASSERT_FALSE(f.isbypass(s));
    std::vector<ITER> iterated = f.lookup(s, px);
    double a = same(bypassed, iterated, s);
    fprintf(stderr, "level %d: bypass and canvas agree on %.4f\n", s, a);
    // On the basin's edge both sides miss the direct counts on a few
    // percent of the pixels (lookups in shallower levels next to the Julia
    // set), not on the same ones: 0.956 agree. Before the Julia kernels
    // caught the trap after a period jump, and went round the orbit again
    // where it ended, 0.31.
    EXPECT_GE(a, s == 24 ? 0.94 : 0.99) << "level " << s;
  }
  // The edge level by canvas jobs against the direct orbit: 0.961, near
  // what the bypass gives (the kernels alone, without the stack's lookups,
  // agree on 0.997 of a tile's points).
  double interior = 0;
  double a = f.agreement(24, 4000, &interior);
  fprintf(stderr, "level 24 by canvas: %.4f agree, %.4f interior\n", a, interior);
  EXPECT_GE(a, 0.95);
  EXPECT_GT(interior, 0.2);
  EXPECT_LT(interior, 0.95);
}
