// A periodic environment fills a Julia realm's stack in one pass: the levels
// it fills are those the idle search fills along the same orbit, a plain
// environment only drops the levels above the valid one, and an environment
// fills the stack once.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <complex>
#include <string>
#include <vector>

#include "idle.h"
#include "juliastack.h"
#include "refiter.h"
#include "test_viewport.h"
#include "bypass.h"
#include "canvas/series.h"
#include "test_juliastackatom.h"

using namespace viewporttest;
using namespace atomtest;

namespace {


// Nuclei near the seahorse valley point -0.743643887037158704752... +
// 0.131825904205311970493...i, of the periods at which its orbit comes
// nearest 0, found by Newton at 600 bits.
const char* const P39[2] = {"-0.7436423016578859461185973194337778358742",
                            "0.1318265198125947234991930123055191513102"};
// The point itself: Newton from it at period 936 finds the atom whose last
// round hands levels to the bypass just past its plain levels' end.
const char* const SEAHORSE[2] = {"-0.743643887037158704752191506114774",
                                 "0.131825904205311970493132056385139"};
const char* const P998[2] = {"-0.7436438870371588707780645434936425750476",
                             "0.131825904205312292821097354874767265263"};

// One level's data as the comparison needs them.
struct LEVEL {
  bool anchored;
  ITER iter;
  bool bypass;
  double r;
  HFLOATCOMPLEX t[NINTERPOLTAYLOR];
};

std::vector<LEVEL> levelsof(REALM* jr, int n) {
  std::vector<LEVEL> out;
  for (int s = 0; s < n; s++) {
    const JULIASTACKDATA& L = jr->juliastack[s];
    LEVEL l{L.m != nullptr, L.iter, L.bypass, dHF(L.r), {}};
    for (int k = 0; k < NINTERPOLTAYLOR; k++) l.t[k] = L.taylorj[k];
    out.push_back(l);
  }
  return out;
}

// The idle search's messages leave `maxjuliastack` alone, so an erase does
// not reach what they wrote: the levels are cleared by hand.
void clearlevels(OVCONTEXT* c, REALM* jr, int n) {
  for (int s = 0; s < n; s++) {
    JULIASTACKDATA& L = jr->juliastack[s];
    detachhpv(c, L.m);
    L.m = nullptr;
    detache(c, L.e);
    L.e = nullptr;
    L.iter = 0;
    L.bypass = false;
    L.r = ZEROH;
    for (auto& t : L.taylorj) t = CZEROH;
  }
}

bool near(HFLOATCOMPLEX a, HFLOATCOMPLEX b) {
  HFLOAT d = cabsHF(csubHF(a, b));
  HFLOAT m = cabsHF(b);
  if (m.mantissa == 0) return d.mantissa == 0;
  return dHF(divHF(d, m)) < 1e-12;
}

// The series of the idle graph's rounds: T <- T^2 + 2 z T, the start
// deviation entering at the first round, the parameter's at every round.
void idleround(HFLOATCOMPLEX* t, HFLOATCOMPLEX z, bool addone) {
  HFLOATCOMPLEX sq[NTAYLORDEGREE], lin[NTAYLORDEGREE];
  sqrtaylor_hfloat(sq, t, NTAYLORDEGREE);
  multaylorconst_hfloat(lin, t, cldexpHF(z, 1), NTAYLORDEGREE);
  addtaylor_hfloat(t, sq, lin, NTAYLORDEGREE);
  if (addone) t[1] = caddHF(t[1], CONEH);
}

struct STACKFIXTURE {
  TileEngine engine{16, false};
  REALM* general = nullptr;
  REALM* julia = nullptr;
  VIEWPORT* v = nullptr;
  std::vector<ENVIRONMENT*> envs;

  explicit STACKFIXTURE(unsigned int juliaflags) {
    general = newrealm(engine, GENERAL);
    julia = newrealm(engine, JULIA, juliaflags);
    engine.onmain([&](OVCONTEXT* c) {
      // Far from every point of the tests: no level holds the view.
      v = handmadeview(c, general, {0.3, 0.0}, {4, 0});
      v->juliarealm = julia;
      attachrealm(julia);
    });
  }
  ~STACKFIXTURE() {
    waitidle();
    engine.onmain([&](OVCONTEXT* c) {
      stopjuliastackcomputation(c, julia);
      adjustjuliastack(c, julia, -1, true);
      for (ENVIRONMENT* e : envs) detache(c, e);
    });
    waitidle();
    engine.onmain([&](OVCONTEXT* c) { __detachviewport(c, v); });
    detachrealm(engine.context, julia);
    detachrealm(engine.context, general);
    engine.onmain([](OVCONTEXT*) {});
  }
  // A periodic environment made on the main thread; the fixture lets go of
  // it once the stack has dropped its levels.
  ENVIRONMENT* periodic(const char* const guess[2], unsigned n) {
    engine.onmain([&](OVCONTEXT* c) { envs.push_back(periodicenv(c, guess, n)); });
    return envs.back();
  }
  void waitidle() {
    waitfor([&] { return atomicload(&engine.context->iworkerall) == 0; });
  }

  // What the idle search writes into the stack along e's orbit, its counts
  // of levels starting at `first` (the levels that held the view).
  std::vector<LEVEL> byidle(ENVIRONMENT* e, int nlevels, int first = 0) {
    engine.onmain([&](OVCONTEXT* c) {
      attachhpv(e->c);
      v->idle_delta = e->c;
      v->idle_computergroup.context = c;
      v->idle_chain = &v->echain;
      v->idle_nextenviter = 0x7FFFFFFF;  // no candidates
      v->idle_jst = v->idle_jst1 = v->idle_jst0 = first;
    });
    mpf_t x, y, dx, dy;
    for (mpf_ptr m : {x, y, dx, dy}) mpf_init2(m, 128);
    HFLOATCOMPLEX tj[NTAYLORDEGREE] = {}, tm[NTAYLORDEGREE] = {};
    for (ITER k = 1; k <= static_cast<ITER>(e->n); k++) {
      HFLOATCOMPLEX ntj[NTAYLORDEGREE], ntm[NTAYLORDEGREE];
      std::copy(tj, tj + NTAYLORDEGREE, ntj);
      std::copy(tm, tm + NTAYLORDEGREE, ntm);
      idleround(ntj, e->refdatah[k - 1].value, k == 1);
      idleround(ntm, e->refdatah[k - 1].value, true);
      HFLOATCOMPLEX z = e->refdatah[k].value;
      mpf_set_HFexact(x, crealHF(z));
      mpf_set_HFexact(y, cimagHF(z));
      idlestep(v, k, TWOH, x, y, dx, dy, tj, ntj, tm, ntm);
      std::copy(ntj, ntj + NTAYLORDEGREE, tj);
      std::copy(ntm, ntm + NTAYLORDEGREE, tm);
    }
    for (mpf_ptr m : {x, y, dx, dy}) mpf_clear(m);
    waitidle();
    std::vector<LEVEL> out;
    engine.onmain([&](OVCONTEXT* c) {
      out = levelsof(julia, nlevels);
      for (int s = 0; s < nlevels; s++)
        if (julia->juliastack[s].m) {
          EXPECT_EQ(julia->juliastack[s].m, e->c) << s;
        }
      detachhpv(c, v->idle_delta);
      v->idle_delta = nullptr;
      clearlevels(c, julia, nlevels);
    });
    return out;
  }
};

void compare(const std::vector<LEVEL>& idle, const std::vector<LEVEL>& env, int* filled,
             int* bypassed) {
  *filled = *bypassed = 0;
  for (size_t s = 0; s < idle.size(); s++) {
    const LEVEL& a = idle[s];
    const LEVEL& b = env[s];
    ASSERT_EQ(a.anchored, b.anchored) << "level " << s;
    if (a.r == 0)
      EXPECT_EQ(b.r, 0) << "level " << s;
    else
      EXPECT_NEAR(b.r / a.r, 1.0, 1e-12) << "level " << s;
    if (!a.anchored) continue;
    ++*filled;
    if (a.bypass) ++*bypassed;
    EXPECT_EQ(a.iter, b.iter) << "level " << s;
    EXPECT_EQ(a.bypass, b.bypass) << "level " << s;
    for (int k = 0; k < NINTERPOLTAYLOR; k++) EXPECT_TRUE(near(b.t[k], a.t[k])) << "level " << s << " t" << k;
  }
}

}  // namespace

TEST(EnvironmentJuliaStack, APeriod39AtomFillsTheLevelsTheIdleSearchFillsAlongItsOrbit) {
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT);
  ENVIRONMENT* e = nullptr;
  f.engine.onmain([&](OVCONTEXT* c) { e = periodicenv(c, P39, 39); });
  ASSERT_TRUE(e->flags & E_SERIES);
  const int NL = 400;
  std::vector<LEVEL> idle = f.byidle(e, NL);
  std::vector<LEVEL> env;
  f.engine.onmain([&](OVCONTEXT* c) {
    environmentjuliastack(c, f.v, e);
    EXPECT_TRUE(e->flags & E_STACKED);
    env = levelsof(f.julia, NL);
    // Every level filled is anchored to the environment itself.
    for (int s = 0; s < NL; s++) {
      const JULIASTACKDATA& L = f.julia->juliastack[s];
      if (!L.m) continue;
      EXPECT_EQ(L.m, e->c);
      EXPECT_EQ(L.e, e);
      EXPECT_EQ(L.mr.mantissax, 0);
      EXPECT_EQ(L.mr.mantissay, 0);
    }
  });
  int filled = 0, bypassed = 0;
  compare(idle, env, &filled, &bypassed);
  // A period below 100 defines no bypass level, but plain levels it does.
  EXPECT_GT(filled, 3);
  EXPECT_EQ(bypassed, 0);
  f.engine.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(f.julia->maxjuliastack, filled - 1);
    adjustjuliastack(c, f.julia, -1, true);
    detache(c, e);
  });
}

TEST(EnvironmentJuliaStack, APeriod998AtomFillsBypassLevelsAsTheIdleSearchDoes) {
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT);
  ENVIRONMENT* e = f.periodic(P998, 998);
  ASSERT_TRUE(e->flags & E_SERIES);
  const int NL = 2000;
  std::vector<LEVEL> idle = f.byidle(e, NL);
  std::vector<LEVEL> env;
  f.engine.onmain([&](OVCONTEXT* c) {
    environmentjuliastack(c, f.v, e);
    env = levelsof(f.julia, NL);
  });
  int filled = 0, bypassed = 0;
  compare(idle, env, &filled, &bypassed);
  EXPECT_GT(bypassed, 0);
  EXPECT_GT(filled, bypassed);
}

TEST(EnvironmentJuliaStack, WithoutAPeriodOnlyTheLevelsAboveTheValidOneAreDropped) {
  STACKFIXTURE f(R_JULIACORRECT);
  f.engine.onmain([&](OVCONTEXT* c) {
    mpf_t x, y;
    mpf_init2(x, 128);
    mpf_init2(y, 128);
    mpf_set_d(x, 0.3);
    ENVIRONMENT* plain = adde(c, x, y, 128);
    mpf_clear(x);
    mpf_clear(y);
    // Levels 0..3 anchored by hand, level 0 valid.
    HPVALUE* m = plain->c;
    for (int s = 0; s <= 3; s++) {
      JULIASTACKDATA& L = f.julia->juliastack[s];
      attachhpv(m);
      L.m = m;
      L.iter = 7;
      L.r = HFd(1.0);
    }
    f.julia->maxjuliastack = 3;
    f.julia->validjuliastack = 0;
    f.julia->calcjuliastack = 0;  // not started: nothing to wait for
    environmentjuliastack(c, f.v, plain);
    EXPECT_TRUE(plain->flags & E_STACKED);
    EXPECT_EQ(f.julia->juliastack[0].m, m);
    EXPECT_EQ(f.julia->juliastack[0].iter, 7);
    for (int s = 1; s <= 3; s++) {
      EXPECT_EQ(f.julia->juliastack[s].m, nullptr) << s;
      EXPECT_EQ(f.julia->juliastack[s].iter, 0) << s;
    }
    EXPECT_EQ(f.julia->maxjuliastack, 0);
    EXPECT_EQ(f.julia->validjuliastack, 0);
    f.julia->calcjuliastack = -1;
    adjustjuliastack(c, f.julia, -1, true);
    detache(c, plain);
  });
}

TEST(EnvironmentJuliaStack, ASecondCallOnTheSameEnvironmentDoesNothing) {
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT);
  ENVIRONMENT* e = nullptr;
  f.engine.onmain([&](OVCONTEXT* c) { e = periodicenv(c, P39, 39); });
  f.engine.onmain([&](OVCONTEXT* c) {
    environmentjuliastack(c, f.v, e);
    int top = f.julia->maxjuliastack;
    ASSERT_GT(top, 0);
    // Marks of our own on the filled levels: a second pass would rewrite
    // them, an erase would drop them.
    for (int s = 0; s <= top; s++) f.julia->juliastack[s].iter = 123456;
    environmentjuliastack(c, f.v, e);
    EXPECT_EQ(f.julia->maxjuliastack, top);
    for (int s = 0; s <= top; s++) EXPECT_EQ(f.julia->juliastack[s].iter, 123456) << s;
    // Once the mark is cleared (a new idle run), the orbit fills them again.
    e->flags &= ~E_STACKED;
    environmentjuliastack(c, f.v, e);
    EXPECT_NE(f.julia->juliastack[top].iter, 123456);
    adjustjuliastack(c, f.julia, -1, true);
    detache(c, e);
  });
}

TEST(EnvironmentJuliaStack, TheLevelsWhoseRadiusHoldsTheViewAreStarted) {
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT | R_PRECDOUBLE);
  ENVIRONMENT* e = nullptr;
  f.engine.onmain([&](OVCONTEXT* c) {
    e = periodicenv(c, P998, 998);
    // The view on the atom's centre, small enough for the shallow levels.
    mpf_set(f.v->delta->v[0], e->c->v[0]);
    mpf_set(f.v->delta->v[1], e->c->v[1]);
    f.v->big = 1;
    f.v->zoomabs = HFd(std::ldexp(1.0, 60));
    f.v->zoom = cHF(f.v->zoomabs, ZEROH);
    environmentjuliastack(c, f.v, e);
    int holding = juliastacklevelsholding(f.v, f.julia, false);
    EXPECT_GT(holding, 0);
    EXPECT_EQ(f.julia->validjuliastack, holding - 1);
    EXPECT_GE(f.julia->calcjuliastack, 0);
  });
  f.waitidle();
  f.engine.onmain([&](OVCONTEXT* c) {
    EXPECT_GE(atomicload(&f.julia->readyjuliastack), 0);
    stopjuliastackcomputation(c, f.julia);
    adjustjuliastack(c, f.julia, -1, true);
    detache(c, e);
  });
}

namespace {

// z_n from the start point (dx, dy) under z^2 + c, in mpf.
std::complex<double> iterated(mpf_srcptr cx, mpf_srcptr cy, double dx, double dy, int s, ITER n,
                              mp_bitcnt_t bits, int* exponent) {
  mpf_t x, y, t, u;
  for (mpf_ptr m : {x, y, t, u}) mpf_init2(m, bits);
  mpf_set_d(x, dx);
  mpf_div_2exp(x, x, static_cast<mp_bitcnt_t>(s));
  mpf_set_d(y, dy);
  mpf_div_2exp(y, y, static_cast<mp_bitcnt_t>(s));
  for (ITER k = 0; k < n; k++) {
    mpf_mul(t, x, x);
    mpf_mul(u, y, y);
    mpf_sub(t, t, u);
    mpf_mul(u, x, y);
    mpf_mul_2exp(u, u, 1);
    mpf_add(x, t, cx);
    mpf_add(y, u, cy);
  }
  // As a mantissa pair with one exponent: the values are far below double.
  long ex = 0, ey = 0;
  double mx = mpf_get_d_2exp(&ex, x), my = mpf_get_d_2exp(&ey, y);
  long e = std::max(mx != 0 ? ex : LONG_MIN, my != 0 ? ey : LONG_MIN);
  *exponent = static_cast<int>(e);
  std::complex<double> r(std::ldexp(mx, static_cast<int>(ex - e)), std::ldexp(my, static_cast<int>(ey - e)));
  for (mpf_ptr m : {x, y, t, u}) mpf_clear(m);
  return r;
}

}  // namespace

TEST(EnvironmentJuliaStack, ABypassCubicTakesAStartPointWhereItsOrbitIsIterStepsOn) {
  // The cubic a whole period of the atom of period 998 defines, given to
  // deep levels: a start point d there is z_0, so z_1 = c + d^2, and
  // z_998(d) = z_998 + t1 d^2 while t1 d^2 stays small.
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT);
  ENVIRONMENT* e = nullptr;
  f.engine.onmain([&](OVCONTEXT* c) { e = periodicenv(c, P998, 998); });
  const ITER n = 998;
  HFLOATCOMPLEX tj[NTAYLORDEGREE] = {};
  for (ITER k = 1; k <= n; k++) idleround(tj, e->refdatah[k - 1].value, k == 1);
  HFLOATCOMPLEX t[NINTERPOLTAYLOR];
  juliabypasscubic(e->refdatah[n].value, tj, t);
  const float places[][2] = {{0.7f, 0.3f}, {-1.5f, 0.9f}, {0.05f, -1.9f}, {-0.4f, -0.6f}};
  int checked = 0;
  for (int s : {150, 200, 300}) {
    f.engine.onmain([&](OVCONTEXT*) {
      JULIASTACKDATA& L = f.julia->juliastack[s];
      attachhpv(e->c);
      L.m = e->c;
      L.iter = n;
      L.bypass = true;
      for (int k = 0; k < NINTERPOLTAYLOR; k++) L.taylorj[k] = t[k];
    });
    for (auto& p : places) {
      // The level's cubic at the start point, as the bypass takes it; the
      // lookup then clamps a point this near 0 to the level above.
      HFLOATCOMPLEX d = cHF(ldexpHF(HFd(p[0]), -s), ldexpHF(HFd(p[1]), -s));
      HFLOATCOMPLEX v = CZEROH;
      f.engine.onmain([&](OVCONTEXT*) {
        const HFLOATCOMPLEX* tl = f.julia->juliastack[s].taylorj;
        for (int k = NINTERPOLTAYLOR - 1; k >= 0; k--) v = caddHF(cmulHF(v, d), tl[k]);
      });
      int wantexp = 0;
      std::complex<double> want = iterated(e->c->v[0], e->c->v[1], p[0], p[1], s, n,
                                           static_cast<mp_bitcnt_t>(2 * s + 256), &wantexp);
      HFLOATCOMPLEX g = cldexpHF(v, -wantexp);
      std::complex<double> got(dHF(crealHF(g)), dHF(cimagHF(g)));
      EXPECT_LT(std::abs(got - want), 1e-6 * std::abs(want))
          << "level " << s << " place " << p[0] << ", " << p[1] << ": " << got << " vs " << want;
      checked++;
    }
  }
  EXPECT_EQ(checked, 12);
  f.engine.onmain([&](OVCONTEXT* c) {
    for (int s : {150, 200, 300}) {
      JULIASTACKDATA& L = f.julia->juliastack[s];
      detachhpv(c, L.m);
      L.m = nullptr;
      L.bypass = false;
    }
    detache(c, e);
  });
}

TEST(EnvironmentJuliaStack, AViewOnItsAtomGetsTheStackOfTheAtomsPeriodAtOnce) {
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT);
  ENVIRONMENT* e = nullptr;
  f.engine.onmain([&](OVCONTEXT* c) {
    e = periodicenv(c, P998, 998);
    // The view on the atom's centre, at rest, with the atom as its
    // satellite environment.
    mpf_set_prec(f.v->delta->v[0], BITS);
    mpf_set_prec(f.v->delta->v[1], BITS);
    mpf_set(f.v->delta->v[0], e->c->v[0]);
    mpf_set(f.v->delta->v[1], e->c->v[1]);
    f.v->zoomabs = HFd(std::ldexp(1.0, 40));
    f.v->zoom = cHF(f.v->zoomabs, ZEROH);
    attache(e);
    f.v->esat = e;
    ASSERT_TRUE(isenvironmentclose(f.v->dummy[0], e, f.v->delta->v[0], f.v->delta->v[1], f.v->zoom));
    idlejulia(c, f.v);
    EXPECT_TRUE(f.julia->flags & R_ATSAT);
    EXPECT_EQ(f.julia->e, e);
    EXPECT_EQ(f.julia->info.c, e->c);
    EXPECT_TRUE(e->flags & E_STACKED);
    EXPECT_GT(f.julia->maxjuliastack, 0);
    int bypassed = 0;
    for (int s = 0; s <= f.julia->maxjuliastack; s++) {
      EXPECT_EQ(f.julia->juliastack[s].m, e->c) << s;
      EXPECT_EQ(f.julia->juliastack[s].e, e) << s;
      if (f.julia->juliastack[s].bypass) bypassed++;
    }
    EXPECT_GT(bypassed, 0);
  });
  f.waitidle();
  f.engine.onmain([&](OVCONTEXT* c) {
    stopjuliastackcomputation(c, f.julia);
    adjustjuliastack(c, f.julia, -1, true);
    detache(c, f.v->esat);
    f.v->esat = nullptr;
    detache(c, e);
  });
}

TEST(EnvironmentJuliaStack, EveryBypassLevelOfAnAtomsPeriodHoldsItsCubic) {
  // The levels the rules hand to the bypass are those where the cubic, in
  // the level's start point, is the orbit that many steps on.
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT);
  ENVIRONMENT* e = nullptr;
  f.engine.onmain([&](OVCONTEXT* c) {
    // Bits enough that the orbit's own rounding stays far below the
    // deepest level's values.
    e = periodicenv(c, P998, 998, 1400);
    environmentjuliastack(c, f.v, e);
  });
  std::vector<int> levels;
  f.engine.onmain([&](OVCONTEXT*) {
    for (int s = 1; s < f.julia->njuliastack && f.julia->juliastack[s].m; s++)
      if (f.julia->juliastack[s].bypass) levels.push_back(s);
  });
  ASSERT_FALSE(levels.empty());
  const float places[][2] = {{0.7f, 0.3f}, {-1.5f, 0.9f}, {0.05f, -1.9f}, {-0.4f, -0.6f}};
  // The shallowest ones, where the series is closest to its limit, and a
  // few deeper.
  std::vector<int> pick;
  for (size_t k = 0; k < levels.size() && k < 4; k++) pick.push_back(levels[k]);
  pick.push_back(levels[levels.size() / 2]);
  // The orbit's own rounding (1400 bits, grown by t1 over the period) is
  // what the deepest levels see: beyond level 600 or so their values are
  // below it, whatever the cubic.
  int deep = levels.front();
  for (int s : levels)
    if (s <= 600) deep = s;
  pick.push_back(deep);
  for (int s : pick) {
    for (auto& p : places) {
      HFLOATCOMPLEX d = cHF(ldexpHF(HFd(p[0]), -s), ldexpHF(HFd(p[1]), -s));
      HFLOATCOMPLEX v = CZEROH;
      ITER iter = 0;
      f.engine.onmain([&](OVCONTEXT*) {
        const JULIASTACKDATA& L = f.julia->juliastack[s];
        iter = L.iter;
        for (int k = NINTERPOLTAYLOR - 1; k >= 0; k--) v = caddHF(cmulHF(v, d), L.taylorj[k]);
      });
      int wantexp = 0;
      std::complex<double> want = iterated(e->c->v[0], e->c->v[1], p[0], p[1], s, iter,
                                           static_cast<mp_bitcnt_t>(2 * s + 256), &wantexp);
      HFLOATCOMPLEX g = cldexpHF(v, -wantexp);
      std::complex<double> got(dHF(crealHF(g)), dHF(cimagHF(g)));
      // The rule lets the quadratic term reach about a pixel of the level
      // the value falls in (1/js of its size) at the level's unit radius;
      // the places reach out to a radius of 2, where it is four times that.
      EXPECT_LT(std::abs(got - want), 4 * std::abs(want) / 256)
          << "level " << s << " (iter " << iter << ") place " << p[0] << ", " << p[1] << ": " << got
          << " vs " << want;
    }
  }
  f.engine.onmain([&](OVCONTEXT* c) {
    adjustjuliastack(c, f.julia, -1, true);
    detache(c, e);
  });
}

namespace {

// The deepest level with a point, and the levels from `from` below it
// without one.
int deepest(const std::vector<LEVEL>& levels) {
  int top = -1;
  for (size_t s = 0; s < levels.size(); s++)
    if (levels[s].anchored) top = static_cast<int>(s);
  return top;
}
std::string holes(const std::vector<LEVEL>& levels, int from = 0) {
  std::string out;
  for (int s = from; s < deepest(levels); s++)
    if (!levels[s].anchored) out += std::to_string(s) + " ";
  return out;
}

// Both ways of defining the levels along e's orbit: the idle search's rounds
// and the environment's one pass.
void bothways(STACKFIXTURE& f, ENVIRONMENT* e, int nl, std::vector<LEVEL>* idle,
              std::vector<LEVEL>* env) {
  *idle = f.byidle(e, nl);
  f.engine.onmain([&](OVCONTEXT* c) {
    environmentjuliastack(c, f.v, e);
    *env = levelsof(f.julia, nl);
    // The levels counted as there are those up to the deepest.
    EXPECT_EQ(f.julia->maxjuliastack, deepest(*env));
  });
}

}  // namespace

TEST(EnvironmentJuliaStack, ThePeriod39LevelsHaveNoHoleBelowTheDeepest) {
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT);
  ENVIRONMENT* e = f.periodic(P39, 39);
  std::vector<LEVEL> idle, env;
  bothways(f, e, 400, &idle, &env);
  EXPECT_GT(deepest(idle), 3);
  EXPECT_EQ(deepest(env), deepest(idle));
  EXPECT_EQ(holes(idle), "") << "idle search";
  EXPECT_EQ(holes(env), "") << "environment";
}

TEST(EnvironmentJuliaStack, ThePeriod998LevelsHaveNoHoleBetweenPlainAndBypassLevels) {
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT);
  ENVIRONMENT* e = f.periodic(P998, 998);
  std::vector<LEVEL> idle, env;
  bothways(f, e, 2000, &idle, &env);
  // Plain levels below, bypass levels above them up to the deepest: a
  // lookup must be able to pass from one kind to the other.
  int firstbypass = -1;
  for (size_t s = 0; s < env.size() && firstbypass < 0; s++)
    if (env[s].anchored && env[s].bypass) firstbypass = static_cast<int>(s);
  ASSERT_GT(firstbypass, 0);
  EXPECT_FALSE(env[firstbypass - 1].bypass);
  EXPECT_TRUE(env[deepest(env)].bypass);
  EXPECT_EQ(deepest(env), deepest(idle));
  EXPECT_EQ(holes(idle), "") << "idle search";
  EXPECT_EQ(holes(env), "") << "environment";
}

TEST(EnvironmentJuliaStack, ThePeriod998LevelsHaveNoHoleAboveAnyNumberOfKeptLevels) {
  // A view whose stack holds levels 0 .. first - 1 already: the orbit defines
  // the levels from `first`, and its plain levels may then end where its
  // last round's bypass levels begin, or short of them.
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT);
  ENVIRONMENT* e = f.periodic(P998, 998);
  const int NL = 400;
  int checked = 0;
  for (int first = 1; first <= 24; first++) {
    std::vector<LEVEL> idle = f.byidle(e, NL, first), env;
    f.engine.onmain([&](OVCONTEXT* c) {
      // The kept levels, valid and counted as started: nothing is computed.
      for (int s = 0; s < first; s++) {
        JULIASTACKDATA& L = f.julia->juliastack[s];
        attachhpv(e->c);
        L.m = e->c;
      }
      f.julia->maxjuliastack = f.julia->validjuliastack = f.julia->calcjuliastack = first - 1;
      e->flags &= ~E_STACKED;
      environmentjuliastack(c, f.v, e);
      env = levelsof(f.julia, NL);
      EXPECT_EQ(f.julia->maxjuliastack, deepest(env)) << "from " << first;
      f.julia->calcjuliastack = -1;
      clearlevels(c, f.julia, NL);
      f.julia->maxjuliastack = f.julia->validjuliastack = -1;
    });
    ASSERT_GT(deepest(env), first) << "from " << first;
    EXPECT_EQ(deepest(env), deepest(idle)) << "from " << first;
    EXPECT_EQ(holes(idle, first), "") << "idle search from " << first;
    EXPECT_EQ(holes(env, first), "") << "environment from " << first;
    checked++;
  }
  EXPECT_EQ(checked, 24);
}

TEST(EnvironmentJuliaStack, ThePeriod936LevelsHaveNoHoleWhereThePlainLevelsMeetTheBypass) {
  // Its last round is the one whose linear form reaches deepest: the plain
  // levels of the rounds before end one level short of the bypass levels.
  STACKFIXTURE f(R_BYPASS | R_JULIACORRECT);
  ENVIRONMENT* e = f.periodic(SEAHORSE, 936);
  // A nucleus: the orbit is back at 0 after the period.
  ASSERT_LT(ilogbHF(cabsHF(e->refdatah[936].value)), -200);
  std::vector<LEVEL> idle, env;
  bothways(f, e, 1000, &idle, &env);
  int firstbypass = -1;
  for (size_t s = 0; s < env.size() && firstbypass < 0; s++)
    if (env[s].anchored && env[s].bypass) firstbypass = static_cast<int>(s);
  ASSERT_GT(firstbypass, 1);
  EXPECT_EQ(deepest(env), deepest(idle));
  EXPECT_GT(deepest(env), firstbypass);
  EXPECT_EQ(holes(idle), "") << "idle search";
  EXPECT_EQ(holes(env), "") << "environment";
  // The level below the bypass levels is a plain level of the last round
  // but one, in both.
  for (const std::vector<LEVEL>* l : {&idle, &env}) {
    const LEVEL& below = (*l)[firstbypass - 1];
    EXPECT_TRUE(below.anchored);
    EXPECT_FALSE(below.bypass);
    EXPECT_EQ(below.iter, 935);
  }
}
