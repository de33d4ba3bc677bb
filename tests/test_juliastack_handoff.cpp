// Which levels of its Julia realm's stack a general view's tile hands its
// pixels to: only levels that are ready and hold the whole view, only where
// they reach deep enough, against the tile's depth, to skip a part of its
// orbits worth the correction, and only over a periodic environment, where
// the hand-off is switched on at all (it is off by default).
#include <gtest/gtest.h>

#include "juliastack.h"
#include "test_viewport.h"

using namespace viewporttest;

namespace {

// Environments that are only read for their kind.
ENVIRONMENT periodic() {
  ENVIRONMENT e{};
  e.flags = E_PERIODIC;
  return e;
}
ENVIRONMENT plain() { return ENVIRONMENT{}; }

struct HANDOFF {
  TileEngine engine{4, false};
  REALM* julia = nullptr;
  ENVIRONMENT e = periodic();

  // The rule is looked at with the hand-off over periodic environments
  // switched on; the engine starts with it off.
  HANDOFF() {
    juliahandoffperiodic = true;
    julia = newrealm(engine, JULIA, R_BYPASS | R_JULIACORRECT);
  }
  ~HANDOFF() {
    juliahandoffperiodic = false;
    // The marks were set by hand, over levels that hold nothing.
    set(-1, -1);
    detachrealm(engine.context, julia);
    engine.onmain([](OVCONTEXT*) {});
  }

  void set(int ready, int valid) {
    engine.onmain([&](OVCONTEXT*) {
      julia->readyjuliastack = ready;
      julia->validjuliastack = valid;
    });
  }
  int handoff(int depth) {
    int level = -2;
    engine.onmain([&](OVCONTEXT*) { level = juliastackhandoff(julia, depth, &e); });
    return level;
  }
  int usable() {
    int level = -2;
    engine.onmain([&](OVCONTEXT*) { level = juliastackusable(julia); });
    return level;
  }
};

}  // namespace

TEST(JuliaStackHandoff, TheUsableLevelIsReadyAndHoldsTheView) {
  HANDOFF f;
  ASSERT_NE(f.julia, nullptr);
  f.set(-1, 40);
  EXPECT_EQ(f.usable(), -1);
  // Levels 0..30 ready, of which the view's radius holds 0..20: a ready
  // level left over from an earlier point does not serve this view.
  f.set(30, 20);
  EXPECT_EQ(f.usable(), 20);
  // The view needs 0..1656 and 0..10 are ready.
  f.set(10, 1656);
  EXPECT_EQ(f.usable(), 10);
}

TEST(JuliaStackHandoff, ATileUsesTheStackOnlyWhereItsLevelsReachAQuarterOfItsDepth) {
  HANDOFF f;
  ASSERT_NE(f.julia, nullptr);
  // The view next to i at width 1e-1000 (tile depth about 3330) with the
  // ten shallow levels that are ready there: the tile iterates its pixels
  // itself.
  f.set(10, 1656);
  EXPECT_EQ(f.handoff(3330), -1);
  // Its levels all ready: they reach half its depth.
  f.set(1656, 1656);
  EXPECT_EQ(f.handoff(3330), 1656);
  // The boundary: 4 x 100 levels against depth 400 and 401.
  f.set(100, 100);
  EXPECT_EQ(f.handoff(400), 100);
  EXPECT_EQ(f.handoff(401), -1);
  // Shallow tiles close their cells instead, however deep the stack.
  f.set(200, 200);
  EXPECT_EQ(f.handoff(63), -1);
  EXPECT_EQ(f.handoff(64), 200);
  // No ready level, no stack.
  f.set(-1, 200);
  EXPECT_EQ(f.handoff(100), -1);
}

TEST(JuliaStackHandoff, OnlyATileOverAPeriodicEnvironmentUsesTheStack) {
  HANDOFF f;
  ASSERT_NE(f.julia, nullptr);
  f.set(1656, 1656);
  EXPECT_EQ(f.handoff(3330), 1656);
  // A plain orbit (the view next to i, whose point is no period's) does
  // not come back near 0: its levels would skip nothing.
  f.e = plain();
  EXPECT_EQ(f.handoff(3330), -1);
  f.engine.onmain([&](OVCONTEXT*) { EXPECT_EQ(juliastackhandoff(f.julia, 3330, nullptr), -1); });
}

TEST(JuliaStackHandoff, ARealmWithoutAStackServesNoTile) {
  EXPECT_EQ(juliastackusable(nullptr), -1);
  ENVIRONMENT e = periodic();
  EXPECT_EQ(juliastackhandoff(nullptr, 1000, &e), -1);
  HANDOFF f;
  ASSERT_NE(f.julia, nullptr);
  REALM* general = newrealm(f.engine, GENERAL);
  f.engine.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(juliastackusable(general), -1);
    EXPECT_EQ(juliastackhandoff(general, 1000, &e), -1);
  });
  detachrealm(f.engine.context, general);
}

TEST(JuliaStackHandoff, OffByDefaultNoTileHandsItsPixelsOn) {
  EXPECT_FALSE(juliahandoffperiodic);
  HANDOFF f;
  ASSERT_NE(f.julia, nullptr);
  f.set(1656, 1656);
  EXPECT_EQ(f.handoff(3330), 1656);
  juliahandoffperiodic = false;
  EXPECT_EQ(f.handoff(3330), -1);
  EXPECT_EQ(f.handoff(64), -1);
}
