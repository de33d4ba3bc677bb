// The Julia realm of a general view follows the view's centre on demand:
// its seed becomes the centre, the levels whose radius no longer holds the
// seed are dropped, its point is locked, and the message waits while the
// view is idle or moving. And an area of a Julia realm that needs levels
// before the realm has an environment is computed without them, the levels
// coming once an environment is there.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "bypass.h"
#include "idle.h"
#include "juliastack.h"
#include "refiter.h"
#include "test_viewport.h"

using namespace viewporttest;

namespace {

// Waits for `cond`, but not for ever: what never comes is a failure, not a
// hang. The bound is far beyond what the work takes.
bool within(const std::function<bool()>& cond, int seconds = 120) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

constexpr mp_bitcnt_t BITS = 256;

// A standard environment at (x, y): its orbit from 0 up to the escape, as
// the idle search leaves one.
ENVIRONMENT* standardenv(OVCONTEXT* c, double x, double y) {
  mpf_t cx, cy;
  mpf_init2(cx, BITS);
  mpf_init2(cy, BITS);
  mpf_set_d(cx, x);
  mpf_set_d(cy, y);
  ENVIRONMENT* e = adde(c, cx, cy, BITS);
  const int N = 100000;
  e->refdatah = static_cast<REFDATAH*>(calloc(N + 1, sizeof(REFDATAH)));
  e->refdatad = static_cast<REFDATAD*>(calloc(N + 1, sizeof(REFDATAD)));
  std::complex<long double> z = 0, cc(x, y);
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
  e->n = static_cast<UITER>(n + 1);  // the escaped point with it
  e->nrefdata = N + 1;
  __atomic_add_fetch(&c->mem_envrefdata, int64_t(64) * (N + 1), __ATOMIC_SEQ_CST);
  e->mini = 0;
  e->maxi = 20;
  e->cf = cHF(HFd(x), HFd(y));
  mpf_clear(cx);
  mpf_clear(cy);
  return e;
}

HPVALUE* point(OVCONTEXT* c, double x, double y) {
  HPVALUE* h = addhpv(c, BITS);
  mpf_set_d(h->v[0], x);
  mpf_set_d(h->v[1], y);
  return h;
}

bool same(const HPVALUE* a, const HPVALUE* b) {
  return mpf_cmp(a->v[0], b->v[0]) == 0 && mpf_cmp(a->v[1], b->v[1]) == 0;
}

// The old seed, and the view's centre 2^-20 beside it.
const std::complex<double> OLDSEED(-0.7436, 0.1318);
const std::complex<double> CENTRE(-0.7436 + 0x1p-20, 0.1318);

struct FOLLOWFIXTURE {
  TileEngine engine{16, false};
  REALM* general = nullptr;
  REALM* julia = nullptr;
  VIEWPORT* v = nullptr;
  HPVALUE* old = nullptr;

  FOLLOWFIXTURE() {
    general = newrealm(engine, GENERAL);
    julia = newrealm(engine, JULIA, R_JULIACORRECT | R_PRECDOUBLE);
    engine.onmain([&](OVCONTEXT* c) {
      v = handmadeview(c, general, CENTRE, {0x1p30, 0});
      v->juliarealm = julia;
      attachrealm(julia);
      old = point(c, OLDSEED.real(), OLDSEED.imag());
      julia->info.c = old;
      attachhpv(old);
    });
  }
  ~FOLLOWFIXTURE() {
    waitidle();
    engine.onmain([&](OVCONTEXT* c) {
      stopjuliastackcomputation(c, julia);
      adjustjuliastack(c, julia, -1, true);
      detachhpv(c, old);
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
  // Levels 0..3 anchored to the old seed with radii `r`, counted as started
  // so that nothing is computed.
  void anchor(OVCONTEXT* c, const double (&r)[4]) {
    for (int s = 0; s < 4; s++) {
      JULIASTACKDATA& L = julia->juliastack[s];
      attachhpv(old);
      L.m = old;
      L.r = HFd(r[s]);
      L.iter = 5;
    }
    julia->maxjuliastack = 3;
    julia->validjuliastack = 3;
    julia->calcjuliastack = 3;
    (void)c;
  }
};

}  // namespace

TEST(JuliaFollow, TheSeedBecomesTheCentreAndLevelsThatNoLongerHoldItAreDropped) {
  FOLLOWFIXTURE f;
  f.engine.onmain([&](OVCONTEXT* c) {
    f.v->enonsat = standardenv(c, CENTRE.real(), CENTRE.imag());
    // Levels 0 and 1 reach the centre, level 2 does not: 2 and 3 go.
    f.anchor(c, {1e-3, 1e-5, 1e-7, 1e-3});
    uint32_t cycle = f.julia->computecycle;
    __julia(c, f.v, f.v->delta, f.v->zoom);
    ASSERT_NE(f.julia->info.c, nullptr);
    EXPECT_NE(f.julia->info.c, f.v->delta);  // a copy, not the view's own
    EXPECT_TRUE(same(f.julia->info.c, f.v->delta));
    EXPECT_EQ(f.julia->computecycle, cycle + 1);
    EXPECT_EQ(f.julia->e, f.v->enonsat);
    // The centre's orbit escapes where the plain loop says.
    int plain = escapecount(std::complex<long double>(CENTRE.real(), CENTRE.imag()), 100000);
    ASSERT_GT(plain, 0);
    EXPECT_NEAR(f.julia->info.iter, plain, 1);
    // The levels wider than the centre's distance to its Julia set (the
    // run keeps that distance squared): 2^-15 < 3.6e-5 < 2^-14.
    HFLOAT d = f.julia->info.distj;
    ASSERT_NE(d.mantissa, 0);
    EXPECT_EQ(ilogbHF(sqrtHF(d)), -15);
    EXPECT_EQ(f.julia->neededjuliastack, 17);
    EXPECT_EQ(f.julia->validjuliastack, 1);
    EXPECT_EQ(f.julia->maxjuliastack, 1);
    EXPECT_EQ(f.julia->juliastack[0].m, f.old);
    EXPECT_EQ(f.julia->juliastack[1].m, f.old);
    EXPECT_EQ(f.julia->juliastack[2].m, nullptr);
    EXPECT_EQ(f.julia->juliastack[3].m, nullptr);
    EXPECT_EQ(f.julia->juliastack[2].r.mantissa, 0);
  });
}

TEST(JuliaFollow, ALevelWithARadiusButNoPointEndsTheWalkWithItsLine) {
  FOLLOWFIXTURE f;
  testing::internal::CaptureStderr();
  f.engine.onmain([&](OVCONTEXT* c) {
    f.v->enonsat = standardenv(c, CENTRE.real(), CENTRE.imag());
    f.anchor(c, {1e-3, 1e-3, 1e-3, 1e-3});
    detachhpv(c, f.julia->juliastack[1].m);
    f.julia->juliastack[1].m = nullptr;
    __julia(c, f.v, f.v->delta, f.v->zoom);
    EXPECT_EQ(f.julia->validjuliastack, 0);
    EXPECT_EQ(f.julia->maxjuliastack, 0);
  });
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("MSG_JULIA: jstd->m==NULL"), std::string::npos);
}

TEST(JuliaFollow, WithoutAnEnvironmentNothingMoves) {
  FOLLOWFIXTURE f;
  f.engine.onmain([&](OVCONTEXT* c) {
    f.anchor(c, {1e-3, 1e-5, 1e-7, 1e-3});
    __julia(c, f.v, f.v->delta, f.v->zoom);
    EXPECT_EQ(f.julia->info.c, f.old);
    EXPECT_EQ(f.julia->validjuliastack, 3);
    EXPECT_EQ(f.julia->juliastack[3].m, f.old);
  });
}

TEST(JuliaFollow, TheMessageLocksThePointAndWaitsForTheIdleRunToEnd) {
  FOLLOWFIXTURE f;
  f.engine.onmain([&](OVCONTEXT* c) {
    f.v->enonsat = standardenv(c, CENTRE.real(), CENTRE.imag());
    f.anchor(c, {1e-3, 1e-5, 1e-7, 1e-3});
    // An idle run the view must wait for.
    f.v->flags |= VP_IDLE | VP_MUSTWAITFORIDLE;
  });
  julia(f.engine.context, f.v);
  f.engine.onmain([&](OVCONTEXT*) {
    EXPECT_TRUE(f.julia->flags & R_LOCKJULIAPOINT);
    EXPECT_NE(f.v->movemsg, nullptr);
    EXPECT_FALSE(f.v->flags & VP_IDLESTOP);
    EXPECT_EQ(f.julia->info.c, f.old);  // not yet
  });
  // The run ends and the scan after it finishes: the parked message runs.
  f.engine.onmain([&](OVCONTEXT* c) {
    f.v->flags &= ~(VP_IDLE | VP_MUSTWAITFORIDLE);
    f.v->flags |= VP_MOVING;
    finishmoving(c, f.v);
  });
  f.waitidle();
  f.engine.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(f.v->movemsg, nullptr);
    ASSERT_NE(f.julia->info.c, f.old);
    EXPECT_TRUE(same(f.julia->info.c, f.v->delta));
    EXPECT_EQ(f.julia->validjuliastack, 1);
    EXPECT_EQ(f.julia->juliastack[2].m, nullptr);
  });
}

TEST(JuliaFollow, AnIdleRunTheViewNeedNotWaitForIsStopped) {
  FOLLOWFIXTURE f;
  f.engine.onmain([&](OVCONTEXT* c) {
    f.v->enonsat = standardenv(c, CENTRE.real(), CENTRE.imag());
    f.v->flags |= VP_IDLE;
  });
  julia(f.engine.context, f.v);
  f.engine.onmain([&](OVCONTEXT* c) {
    EXPECT_TRUE(f.v->flags & VP_IDLESTOP);
    EXPECT_NE(f.v->movemsg, nullptr);
    EXPECT_EQ(f.julia->info.c, f.old);
    // A view without environment waits as well, even at rest.
    f.v->flags &= ~(VP_IDLE | VP_IDLESTOP);
    detache(c, f.v->enonsat);
    f.v->enonsat = nullptr;
    finishmoving(c, f.v);
  });
  // It ran once more and parked again (a parked message stays counted, so
  // the engine never comes to rest here).
  waitfor([&] {
    bool parked = false;
    f.engine.onmain([&](OVCONTEXT*) { parked = f.v->movemsg != nullptr; });
    return parked;
  });
  f.engine.onmain([&](OVCONTEXT* c) {
    EXPECT_NE(f.v->movemsg, nullptr);
    EXPECT_EQ(f.julia->info.c, f.old);
    // With one, the next end of a move lets it run.
    f.v->enonsat = standardenv(c, CENTRE.real(), CENTRE.imag());
    finishmoving(c, f.v);
  });
  f.waitidle();
  f.engine.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(f.v->movemsg, nullptr);
    EXPECT_TRUE(same(f.julia->info.c, f.v->delta));
  });
}

// ------------------------------------------------------------ a request without environment

TEST(JuliaStackRequest, WithoutAnEnvironmentTheAreaIsComputedAndTheLevelsComeWithOne) {
  TileEngine engine{16, false};
  REALM* jr = newrealm(engine, JULIA, R_JULIACORRECT | R_PRECDOUBLE);
  HPVALUE* seed = nullptr;
  ENVIRONMENT* e = nullptr;
  AREA* a = nullptr;
  auto request = [&](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_MAIN, worker_requestjuliastack);
    w->pdata[0] = a;
    w->pdata[1] = jr;
    attachrealm(jr);
    dispatch(c, w);
  };
  testing::internal::CaptureStderr();
  engine.onmain([&](OVCONTEXT* c) {
    seed = point(c, 0.2605, 0.0012);
    jr->info.c = seed;
    jr->neededjuliastack = 10;
    ASSERT_EQ(jr->e, nullptr);
    // An area at depth 5 needs level 5 + 6 - 8 = 3, and is shown.
    a = jr->top;
    for (int d = 0; d < 5; d++) {
      subdivide(c, a);
      a = a->child[2];
    }
    a->channels = 1;
    a->priority = 1;
    request(c);
  });
  // It is computed without the stack: nothing waits, nothing is anchored.
  ASSERT_TRUE(within([&] {
    bool done = false;
    engine.onmain([&](OVCONTEXT*) { done = (a->flags & A_PRECALCULATED) != 0; });
    return done;
  }));
  engine.onmain([&](OVCONTEXT*) {
    EXPECT_FALSE(a->flags & A_WAITFORJULIASTACK);
    EXPECT_EQ(jr->juliastack[0].m, nullptr);
    EXPECT_EQ(jr->calcjuliastack, -1);
    EXPECT_EQ(jr->juliajuliastack, -1);
  });
  // An environment comes, the realm is invalidated, and the area asks again.
  engine.onmain([&](OVCONTEXT* c) {
    e = adde(c, seed->v[0], seed->v[1], BITS);
    jr->e = e;
    jr->computecycle++;
    invalidateall(c, jr);
    request(c);
  });
  EXPECT_TRUE(within([&] { return atomicload(&jr->readyjuliastack) >= 3; }));
  waitfor([&] { return atomicload(&engine.context->iworkerall) == 0; });
  engine.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(jr->juliajuliastack, 3);
    for (int s = 0; s <= 3; s++) {
      EXPECT_EQ(jr->juliastack[s].m, seed) << s;
      EXPECT_EQ(jr->juliastack[s].e, e) << s;
    }
    EXPECT_FALSE(a->flags & A_WAITFORJULIASTACK);
  });
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.find("!e"), std::string::npos) << err;
  engine.onmain([&](OVCONTEXT* c) {
    stopjuliastackcomputation(c, jr);
    adjustjuliastack(c, jr, -1, true);
    jr->e = nullptr;
    detache(c, e);
  });
  waitfor([&] { return atomicload(&engine.context->iworkerall) == 0; });
  detachrealm(engine.context, jr);
  engine.onmain([](OVCONTEXT*) {});
}

TEST(JuliaFollow, TheViewsOfTheRealmDropTheirStandardEnvironmentAndAreFiledAgain) {
  FOLLOWFIXTURE f;
  VIEWPORT* w = nullptr;
  f.engine.onmain([&](OVCONTEXT* c) {
    f.v->enonsat = standardenv(c, CENTRE.real(), CENTRE.imag());
    // A view of the Julia realm itself, on the engine's chain of views.
    w = handmadeview(c, f.julia, {0, 0}, {1, 0}, 256, 0);
    w->enonsat = standardenv(c, 0.1, 0.1);
    chaininsbegin(&c->vpactivechain, &w->activechain);
    w->flags |= VP_INACTIVECHAIN;
    w->computecycle = f.julia->computecycle;
    __julia(c, f.v, f.v->delta, f.v->zoom);
    EXPECT_EQ(w->enonsat, nullptr);
    // Filed anew: a Julia view meets the realm's new cycle in its scan.
    EXPECT_EQ(w->computecycle, f.julia->computecycle);
    // The general view shows another realm: its environment stays.
    EXPECT_NE(f.v->enonsat, nullptr);
  });
  f.waitidle();
  f.engine.onmain([&](OVCONTEXT* c) { __detachviewport(c, w); });
}
