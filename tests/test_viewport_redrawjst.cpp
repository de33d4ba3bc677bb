// A redraw with the Julia stack, as the move applies it: a new cycle on both
// realms, the view held until its idle run has ended, the environments'
// loop asked for, and every level of the stack dropped so that it is made
// again from the new run. The scan that follows is replaced by a counter,
// so that what is seen is the move's own doing.
#include <gtest/gtest.h>

#include <atomic>

#include "juliastack.h"
#include "test_viewport.h"

using namespace viewporttest;

namespace {

std::atomic<int> movingstarts{0};
void countmovingstart(OVCONTEXT*, VIEWPORT*) { movingstarts.fetch_add(1); }

struct HOOKED {
  HOOKED() {
    movingstarts.store(0);
    idlehooks.movingstart = countmovingstart;
  }
  ~HOOKED() { idlehooks = IDLEHOOKS{}; }
};

constexpr int NLEVELS = 4;
// A level that the idle run's bypass anchored beyond the count of levels
// that set `maxjuliastack`.
constexpr int BYPASSLEVEL = 200;

// A general realm's active view with a Julia realm whose first levels are
// anchored: each has a centre and a radius, and the stack's marks say so.
struct STACKSCENE {
  HOOKED hooks;
  TileEngine e{16, false};
  REALM* realm;
  REALM* juliarealm;
  VIEWPORT* v;
  STACKSCENE(bool withjulia = true) {
    realm = newrealm(e, GENERAL);
    juliarealm = withjulia ? newrealm(e, JULIA) : nullptr;
    v = addviewport(e.context, realm, juliarealm, 256, 256, nullptr, nullptr);
    activateviewport(e.context, v, 1);
    e.onmain([&](OVCONTEXT* c) {
      // The first move's loop is over: the view stands at rest.
      v->flags &= ~(VP_MUSTWAITFORIDLE | VP_MUSTDOLOOP | VP_DONOTDRAW);
      if (!juliarealm) return;
      juliarealm->flags &= ~R_MUSTWAITFORIDLE;
      for (int s : {0, 1, 2, 3, BYPASSLEVEL}) {
        JULIASTACKDATA* L = &juliarealm->juliastack[s];
        L->m = addhpv(c, 64);
        mpf_set_d(L->m->v[0], -0.1);
        mpf_set_d(L->m->v[1], 0.8);
        L->r = HFd(std::ldexp(1.0, -2 * s));
        L->iter = 10 + s;
        L->bypass = s == BYPASSLEVEL;
      }
      juliarealm->maxjuliastack = NLEVELS - 1;
      juliarealm->validjuliastack = NLEVELS - 1;
    });
  }
  ~STACKSCENE() {
    deactivateviewport(e.context, v);
    detachviewport(e.context, v);
    detachrealm(e.context, realm);
    if (juliarealm) detachrealm(e.context, juliarealm);
    e.onmain([](OVCONTEXT*) {});
  }
};

struct CYCLES {
  uint32_t realm, julia;
};

CYCLES cyclesof(STACKSCENE& s) {
  CYCLES k{};
  s.e.onmain([&](OVCONTEXT*) {
    k.realm = s.realm->computecycle;
    k.julia = s.juliarealm ? s.juliarealm->computecycle : 0;
  });
  return k;
}

}  // namespace

TEST(ViewportRedrawJst, ANewCycleOnBothRealmsTheViewWaitsForIdleAndTheStackIsDropped) {
  STACKSCENE s;
  CYCLES before = cyclesof(s);
  int starts = movingstarts.load();
  redrawjst(s.e.context, s.v);
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(s.realm->computecycle, before.realm + 1);
    EXPECT_EQ(s.realm->redraw, s.realm->computecycle);
    EXPECT_EQ(s.juliarealm->computecycle, before.julia + 1);
    EXPECT_EQ(s.juliarealm->redraw, s.juliarealm->computecycle);
    EXPECT_TRUE(s.v->flags & VP_MUSTWAITFORIDLE);
    EXPECT_TRUE(s.v->flags & VP_MUSTDOLOOP);
    EXPECT_TRUE(s.juliarealm->flags & R_MUSTWAITFORIDLE);
    EXPECT_EQ(s.juliarealm->maxjuliastack, -1);
    EXPECT_EQ(s.juliarealm->validjuliastack, -1);
    for (int k : {0, 1, 2, 3, BYPASSLEVEL}) {
      const JULIASTACKDATA& L = s.juliarealm->juliastack[k];
      EXPECT_EQ(L.m, nullptr) << "level " << k;
      EXPECT_EQ(L.r.mantissa, 0) << "level " << k;
      EXPECT_EQ(L.iter, 0) << "level " << k;
    }
    // The move goes on into the environments' scan, once.
    EXPECT_EQ(s.v->imovemsg, 0);
  });
  EXPECT_EQ(movingstarts.load(), starts + 1);
}

TEST(ViewportRedrawJst, APlainRedrawLeavesTheJuliaRealmItsStackAndTheViewsFlags) {
  STACKSCENE s;
  CYCLES before = cyclesof(s);
  redraw(s.e.context, s.v);
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(s.realm->computecycle, before.realm + 1);
    EXPECT_EQ(s.realm->redraw, s.realm->computecycle);
    EXPECT_EQ(s.juliarealm->computecycle, before.julia);
    EXPECT_FALSE(s.v->flags & VP_MUSTWAITFORIDLE);
    EXPECT_FALSE(s.v->flags & VP_MUSTDOLOOP);
    EXPECT_FALSE(s.juliarealm->flags & R_MUSTWAITFORIDLE);
    EXPECT_EQ(s.juliarealm->maxjuliastack, NLEVELS - 1);
    EXPECT_EQ(s.juliarealm->validjuliastack, NLEVELS - 1);
    for (int k : {0, 1, 2, 3, BYPASSLEVEL}) EXPECT_NE(s.juliarealm->juliastack[k].m, nullptr) << "level " << k;
  });
}

TEST(ViewportRedrawJst, WithoutAJuliaRealmOnlyTheViewsRealmTakesANewCycle) {
  STACKSCENE s(false);
  CYCLES before = cyclesof(s);
  redrawjst(s.e.context, s.v);
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(s.realm->computecycle, before.realm + 1);
    EXPECT_EQ(s.realm->redraw, s.realm->computecycle);
    EXPECT_FALSE(s.v->flags & VP_MUSTWAITFORIDLE);
    EXPECT_FALSE(s.v->flags & VP_MUSTDOLOOP);
  });
}

// The navigator's flags ride along: a redraw sent while it zooms keeps them.
TEST(ViewportRedrawJst, TheNavigatorsFlagsGoWithTheRedraw) {
  STACKSCENE s;
  s.e.onmain([&](OVCONTEXT*) { s.v->nav_flags = MOVEVIEWPORT_LOCK; });
  redrawjst(s.e.context, s.v);
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_TRUE(s.v->flags & VP_LOCK);
    EXPECT_TRUE(s.v->flags & VP_MUSTWAITFORIDLE);
    EXPECT_EQ(s.juliarealm->maxjuliastack, -1);
    s.v->nav_flags = 0;
  });
}
