// The levels one round of an orbit defines leave no level without data
// between the plain levels and the bypass levels above them, both as the
// rule gives them and as the idle search's messages write them; and the
// number of levels a seed needs counts the levels wider than the seed's
// distance to its Julia set, the same wherever the seed is bound.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdlib>

#include "bypass.h"
#include "idle.h"
#include "juliastack.h"
#include "refiter.h"
#include "test_viewport.h"

using namespace viewporttest;

namespace {

constexpr double JS = 256;
constexpr int NJ = 16384;

// One round's series with |t1| = t1, |t2| = t2, no cubic term, and the
// parameter's linear term 1.
struct ROUND {
  HFLOATCOMPLEX ntj[NTAYLORDEGREE] = {};
  HFLOATCOMPLEX ntm[NTAYLORDEGREE] = {};
  HFLOATCOMPLEX z;
  ROUND(double t1, double t2, double zabs) {
    ntj[0] = cHF(HFd(zabs), ZEROH);
    ntj[1] = cHF(HFd(t1), ZEROH);
    // Split between the parts: the rule reads moduli only.
    ntj[2] = cHF(HFd(t2 * 0.6), HFd(t2 * 0.8));
    ntm[1] = CONEH;
    z = cHF(ZEROH, HFd(zabs));
  }
};

// The level from which the linear form of the series holds by the rule:
// ilogb(|t2|^2 js^2 / |t1|^2) / 4, computed here in doubles.
int linearfrom(double t1, double t2) { return std::ilogb(t2 * t2 * JS * JS / (t1 * t1)) / 4; }

// Which levels a set of ranges gives data: 1 plain, 2 bypass.
std::vector<int> kinds(const JULIASTACKRANGES& g, int n) {
  std::vector<int> k(n, 0);
  for (int s = g.bypasslo; s < g.bypasshi && s < n; s++) k[s] = 2;
  for (int s = g.plainlo; s < g.plainhi && s < n; s++)
    if (!k[s]) k[s] = 1;
  return k;
}

}  // namespace

TEST(LevelGap, ARoundThatHandsLevelsToTheBypassGivesTheLevelsBelowThemToThePlainSide) {
  // |t1| = 1: the bypass starts one level past the linear form's level.
  // |t1| = 2^20: the image of a level is small enough for the bypass only
  // from level 12, well past it.
  struct CASE {
    double t1, t2, z;
    int wantlo, wanthi;
  } cases[] = {{1.0, 6.0, std::ldexp(1.0, -40), 6, 19},
               {std::ldexp(1.0, 20), std::ldexp(1.0, 20) * 5.6, std::ldexp(1.0, -31), 12, 25}};
  for (const CASE& c : cases) {
    ROUND r(c.t1, c.t2, c.z);
    int n1 = linearfrom(c.t1, c.t2);
    ASSERT_EQ(n1, 5);
    int jst = 0, jst1 = 0, jst0 = 0;
    JULIASTACKRANGES g = juliastackranges(JS, NJ, true, 200, r.z, r.ntj, r.ntm, &jst, &jst1, &jst0);
    EXPECT_EQ(g.bypasslo, c.wantlo);
    EXPECT_EQ(g.bypasshi, c.wanthi);
    // The linear form holds from n1, so the bypass levels begin above it;
    // every level below them has data all the same.
    EXPECT_GT(g.bypasslo, n1);
    EXPECT_EQ(g.plainlo, 0);
    EXPECT_EQ(g.plainhi, g.bypasslo);
    std::vector<int> k = kinds(g, c.wanthi + 2);
    for (int s = 0; s < c.wanthi; s++) EXPECT_NE(k[s], 0) << "level " << s << " of t1 " << c.t1;
    EXPECT_EQ(k[c.wanthi], 0);
    EXPECT_EQ(jst1, g.bypasslo);
    EXPECT_EQ(jst0, g.bypasshi);
    // The next round with the same series gives nothing again.
    JULIASTACKRANGES h = juliastackranges(JS, NJ, true, 201, r.z, r.ntj, r.ntm, &jst, &jst1, &jst0);
    EXPECT_GE(h.plainlo, h.plainhi);
    EXPECT_GE(h.bypasslo, h.bypasshi);
  }
}

TEST(LevelGap, WithoutBypassLevelsThePlainLevelsEndWhereTheLinearFormEnds) {
  ROUND r(1.0, 6.0, std::ldexp(1.0, -40));
  int jst = 0, jst1 = 0, jst0 = 0;
  // Before round 100, and in a realm without the bypass.
  JULIASTACKRANGES g = juliastackranges(JS, NJ, true, 99, r.z, r.ntj, r.ntm, &jst, &jst1, &jst0);
  EXPECT_EQ(g.bypasslo, g.bypasshi);
  EXPECT_EQ(g.plainlo, 0);
  EXPECT_EQ(g.plainhi, linearfrom(1.0, 6.0));
  jst = jst1 = jst0 = 0;
  g = juliastackranges(JS, NJ, false, 200, r.z, r.ntj, r.ntm, &jst, &jst1, &jst0);
  EXPECT_EQ(g.bypasslo, g.bypasshi);
  EXPECT_EQ(g.plainhi, linearfrom(1.0, 6.0));
}

namespace {

struct VIEWFIXTURE {
  TileEngine engine{16, false};
  REALM* general = nullptr;
  REALM* julia = nullptr;
  VIEWPORT* v = nullptr;

  VIEWFIXTURE(std::complex<double> centre, std::complex<double> zoom) {
    general = newrealm(engine, GENERAL);
    julia = newrealm(engine, JULIA, R_BYPASS | R_JULIACORRECT | R_PRECDOUBLE);
    engine.onmain([&](OVCONTEXT* c) {
      v = handmadeview(c, general, centre, zoom);
      v->juliarealm = julia;
      attachrealm(julia);
    });
  }
  ~VIEWFIXTURE() {
    waitidle();
    engine.onmain([&](OVCONTEXT* c) {
      stopjuliastackcomputation(c, julia);
      adjustjuliastack(c, julia, -1, true);
    });
    waitidle();
    engine.onmain([&](OVCONTEXT* c) { __detachviewport(c, v); });
    detachrealm(engine.context, julia);
    detachrealm(engine.context, general);
    engine.onmain([](OVCONTEXT*) {});
  }
  void waitidle() {
    waitfor([&] { return atomicload(&engine.context->iworkerall) == 0; });
  }
};

}  // namespace

TEST(LevelGap, TheIdleSearchsMessagesLeaveNoLevelBetweenPlainAndBypassLevels) {
  VIEWFIXTURE f({0.3, 0.0}, {4, 0});
  HPVALUE* seed = nullptr;
  f.engine.onmain([&](OVCONTEXT* c) {
    seed = addhpv(c, 128);
    mpf_set_d(seed->v[0], -0.75);
    mpf_set_d(seed->v[1], 0.1);
    f.v->idle_delta = seed;
    f.v->idle_computergroup.context = c;
    f.v->idle_chain = &f.v->echain;
    f.v->idle_nextenviter = 0x7FFFFFFF;  // no candidates
    f.v->idle_jst = f.v->idle_jst1 = f.v->idle_jst0 = 0;
  });
  // The round before, whose series the plain levels take, and the round.
  ROUND before(0.5, 2.0, 0.25), r(1.0, 6.0, std::ldexp(1.0, -40));
  mpf_t x, y, dx, dy;
  for (mpf_ptr m : {x, y, dx, dy}) mpf_init2(m, 128);
  mpf_set_HFexact(x, crealHF(r.z));
  mpf_set_HFexact(y, cimagHF(r.z));
  idlestep(f.v, 200, TWOH, x, y, dx, dy, before.ntj, r.ntj, before.ntm, r.ntm);
  for (mpf_ptr m : {x, y, dx, dy}) mpf_clear(m);
  f.waitidle();
  f.engine.onmain([&](OVCONTEXT* c) {
    for (int s = 0; s < 19; s++) {
      const JULIASTACKDATA& L = f.julia->juliastack[s];
      EXPECT_EQ(L.m, seed) << "level " << s;
      if (s < 6) {
        EXPECT_FALSE(L.bypass) << "level " << s;
        EXPECT_EQ(L.iter, 199) << "level " << s;
        EXPECT_EQ(L.taylorj[1].mantissax, before.ntj[1].mantissax) << "level " << s;
        EXPECT_EQ(L.taylorj[1].exponent, before.ntj[1].exponent) << "level " << s;
      } else {
        EXPECT_TRUE(L.bypass) << "level " << s;
        EXPECT_EQ(L.iter, 200) << "level " << s;
      }
    }
    EXPECT_EQ(f.julia->juliastack[19].m, nullptr);
    EXPECT_EQ(f.v->idle_jst1, 6);
    for (int s = 0; s < 19; s++) {
      JULIASTACKDATA& L = f.julia->juliastack[s];
      detachhpv(c, L.m);
      L.m = nullptr;
      L.bypass = false;
    }
    f.v->idle_delta = nullptr;
    detachhpv(c, seed);
  });
}

namespace {

constexpr mp_bitcnt_t BITS = 256;

// A standard environment at c: its orbit from 0 up to the escape.
ENVIRONMENT* standardenv(OVCONTEXT* ctx, std::complex<double> c) {
  mpf_t cx, cy;
  mpf_init2(cx, BITS);
  mpf_init2(cy, BITS);
  mpf_set_d(cx, c.real());
  mpf_set_d(cy, c.imag());
  ENVIRONMENT* e = adde(ctx, cx, cy, BITS);
  const int N = 10000;
  e->refdatah = static_cast<REFDATAH*>(calloc(N + 1, sizeof(REFDATAH)));
  e->refdatad = static_cast<REFDATAD*>(calloc(N + 1, sizeof(REFDATAD)));
  std::complex<long double> z = 0, cc(c.real(), c.imag());
  int n = 0;
  for (; n <= N; n++) {
    double a = 4 - static_cast<double>(std::norm(z));
    e->refdatah[n].value = cHF(HFd(static_cast<double>(z.real())), HFd(static_cast<double>(z.imag())));
    e->refdatah[n].a = HFd(a);
    e->refdatad[n].value = {static_cast<double>(z.real()), static_cast<double>(z.imag())};
    e->refdatad[n].a = a;
    if (std::norm(z) > 4) break;
    z = z * z + cc;
  }
  e->n = static_cast<UITER>(n + 1);
  e->nrefdata = N + 1;
  __atomic_add_fetch(&ctx->mem_envrefdata, int64_t(64) * (N + 1), __ATOMIC_SEQ_CST);
  e->mini = 0;
  e->maxi = 20;
  e->cf = cHF(HFd(c.real()), HFd(c.imag()));
  mpf_clear(cx);
  mpf_clear(cy);
  return e;
}

// The distance of c from the Julia set of z^2 + c, by the estimate
// |z| ln|z| / |dz/dz_1| far out along c's orbit.
double juliadistance(std::complex<double> c) {
  std::complex<long double> z(c.real(), c.imag()), cc = z, dz = 1;
  while (std::abs(z) < 1e15L) {
    dz = 2.0L * z * dz;
    z = z * z + cc;
  }
  return static_cast<double>(std::abs(z) * std::log(std::abs(z)) / std::abs(dz));
}

// The levels whose square, of side 2^(2 - s), is wider than d.
int widerthan(double d) {
  int n = 0;
  while (std::ldexp(1.0, 2 - n) > d) n++;
  return n;
}

const std::complex<double> SEED(-0.75, 0.1);

}  // namespace

TEST(LevelGap, AnEscapingSeedNeedsTheLevelsWiderThanItsDistanceWhereverItIsBound) {
  double d = juliadistance(SEED);
  // Far from a power of two, so that the estimate's last digits cannot
  // move the count.
  double frac = std::log2(d) - std::floor(std::log2(d));
  ASSERT_GT(frac, 0.2);
  ASSERT_LT(frac, 0.8);
  int want = widerthan(d);
  ASSERT_EQ(want, 10);
  VIEWFIXTURE f(SEED, {0x1p20, 0});
  f.engine.onmain([&](OVCONTEXT* c) {
    f.v->enonsat = standardenv(c, SEED);
    // Where the view's centre becomes the seed on demand.
    __julia(c, f.v, f.v->delta, f.v->zoom);
    ASSERT_GT(f.julia->info.iter, 0);
    EXPECT_EQ(f.julia->neededjuliastack, want);
    // Where the view binds its own run's result after a move or an idle
    // run: the same run, the same count.
    ITERINFO run = f.julia->info;
    attachhpv(run.c);
    f.v->info = run;
    f.julia->flags &= ~R_LOCKJULIAPOINT;
    f.julia->neededjuliastack = -100;
    idlejulia(c, f.v);
    EXPECT_EQ(f.julia->info.c, run.c);
    EXPECT_EQ(f.julia->neededjuliastack, want);
  });
}

TEST(LevelGap, ASeedOnACycleNeedsTheLevelsWiderThanItsCyclesRadius) {
  VIEWFIXTURE f({-1.0, 0.0}, {0x1p20, 0});
  const double radius = 3e-9;  // ilogb -29
  f.engine.onmain([&](OVCONTEXT* c) {
    f.v->info.c = addhpv(c, 128);
    mpf_set_d(f.v->info.c->v[0], -1.0);
    f.v->info.iter = -2;
    f.v->info.dj = HFd(radius);
    // A squared distance that a count of it would take for the radius.
    f.v->info.distj = HFd(radius * radius);
    f.julia->neededjuliastack = -100;
    idlejulia(c, f.v);
    EXPECT_EQ(f.julia->neededjuliastack, widerthan(radius));
    EXPECT_EQ(f.julia->neededjuliastack, 31);
    // No distance known: two levels.
    f.v->info.dj = ZEROH;
    f.julia->flags &= ~R_ATSAT;
    idlejulia(c, f.v);
    EXPECT_EQ(f.julia->neededjuliastack, 2);
  });
}
