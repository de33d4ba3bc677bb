// Levels that the idle search defined carry no environment until a move
// fits the stack to the view's environments. Started without one, they take
// the realm's environment as their anchor at their true offset and become
// ready; a level that cannot start at all ends the valid stack below it, so
// that the levels a view needs do not stay short of ready for good. Levels
// nobody waits for are built behind the tiles of the views.
#include <gtest/gtest.h>

#include <vector>

#include "juliastack.h"
#include "juliastackrun.h"
#include "test_juliastackatom.h"

using namespace viewporttest;

namespace {

const char* const P998[2] = {"-0.7436438870371588707780645434936425750476",
                             "0.131825904205312292821097354874767265263"};

struct ANCHOR : juliastackrun::STACKRUN {
  HPVALUE* seed = nullptr;

  // The realm's environment is the atom's periodic one; the seed lies 2^-60
  // off its point, and levels 0..S are anchored to the seed alone, as the
  // idle search leaves them: no environment.
  explicit ANCHOR(int S, bool onpoint) {
    engine.onmain([&](OVCONTEXT* c) {
      e = atomtest::periodicenv(c, P998, 998);
      seed = addhpv(c, mpf_get_prec(e->c->v[0]));
      mpf_set(seed->v[0], e->c->v[0]);
      mpf_set(seed->v[1], e->c->v[1]);
      if (!onpoint) {
        mpf_t d;
        mpf_init2(d, 256);
        mpf_set_ui(d, 1);
        mpf_div_2exp(d, d, 60);
        mpf_add(seed->v[0], seed->v[0], d);
        mpf_clear(d);
      }
      julia->info.c = seed;
      attachhpv(seed);
      julia->info.iter = 0;
      julia->neededjuliastack = S;
      setrealmenv(c, julia, e);
      for (int s = 0; s <= S; s++) {
        JULIASTACKDATA& L = julia->juliastack[s];
        attachhpv(seed);
        L.m = seed;
        L.iter = 0;
        L.prec = -1;
        L.r = ONEH;
      }
      julia->maxjuliastack = S;
      v = handmadeview(c, general, {0.3, 0.0}, {4, 0});
    });
  }
  // The realm lets go of its point and environment itself, the base of the
  // levels; the seed's own reference is the test's.
  ~ANCHOR() {
    engine.onmain([&](OVCONTEXT* c) { detachhpv(c, seed); });
  }

  const JULIASTACKDATA& level(int s) { return julia->juliastack[s]; }
};

}  // namespace

TEST(JuliaStackAnchor, LevelsWithoutAnEnvironmentTakeTheRealmsAndBecomeReady) {
  ANCHOR f(3, false);
  ASSERT_TRUE(f.build(3, 40)) << "ready " << atomicload(&f.julia->readyjuliastack);
  f.engine.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(f.julia->validjuliastack, 3);
    for (int s = 0; s <= 3; s++) {
      EXPECT_EQ(f.level(s).e, f.e) << "level " << s;
      // The true offset of the seed from the environment's point, so that
      // the tiles do not take the environment's orbit for the seed's.
      EXPECT_EQ(ilogbHF(crealHF(f.level(s).mr)), -60) << "level " << s;
      EXPECT_EQ(cimagHF(f.level(s).mr).mantissa, 0) << "level " << s;
    }
  });
}

TEST(JuliaStackAnchor, ACanvasLevelOnTheEnvironmentsPointIsNotAnchoredByItAndEndsTheValidStack) {
  // On the point itself a canvas level's tiles would take the environment's
  // orbit as their reference, which only a level the environment anchored
  // itself (with its series depth) may: such a level does not start, and
  // the valid stack ends below the first of them.
  ANCHOR f(3, true);
  f.engine.onmain([&](OVCONTEXT* c) { adjustjuliastack(c, f.julia, 3, false); });
  f.engine.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(f.level(0).e, nullptr);
    EXPECT_EQ(f.julia->validjuliastack, -1);
    EXPECT_EQ(f.julia->calcjuliastack, -1);
  });
}

TEST(JuliaStackAnchor, ALevelThatCannotStartWhenItsTurnComesEndsTheValidStack) {
  // Levels beyond the look-ahead start as the levels below become ready.
  // Level 12 sits on the environment's point and cannot start: the stack
  // the view needs then ends at 11 and is complete once 11 is ready, where
  // it stayed short of ready for good, counted as started.
  const int S = 14, BAD = 12;
  ANCHOR f(S, false);
  ASSERT_LT(f.engine.context->ncomputejuliastack, BAD);
  f.engine.onmain([&](OVCONTEXT* c) {
    HPVALUE* onpoint = addhpv(c, mpf_get_prec(f.e->c->v[0]));
    mpf_set(onpoint->v[0], f.e->c->v[0]);
    mpf_set(onpoint->v[1], f.e->c->v[1]);
    JULIASTACKDATA& L = f.julia->juliastack[BAD];
    detachhpv(c, L.m);
    L.m = onpoint;
    adjustjuliastack(c, f.julia, S, false);
  });
  bool complete = juliastackrun::within(
      [&] {
        bool done = false;
        f.engine.onmain([&](OVCONTEXT*) {
          int ready = atomicload(&f.julia->readyjuliastack);
          done = ready >= 0 && ready >= f.julia->validjuliastack;
        });
        return done;
      },
      40);
  EXPECT_TRUE(complete) << "ready " << atomicload(&f.julia->readyjuliastack) << ", valid "
                        << f.julia->validjuliastack;
  f.engine.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(f.julia->validjuliastack, BAD - 1);
    EXPECT_EQ(f.julia->calcjuliastack, BAD - 1);
    EXPECT_EQ(atomicload(&f.julia->readyjuliastack), BAD - 1);
  });
}

TEST(JuliaStackAnchor, LevelsNobodyWaitsForQueueBehindEveryViewTile) {
  ANCHOR f(3, false);
  std::vector<int> prios;
  f.engine.onmain([&](OVCONTEXT* c) {
    f.julia->priojuliastack = 0;
    adjustjuliastack(c, f.julia, 3, false);
    for (int s = 0; s <= 3; s++) {
      const JULIASTACKDATA& L = f.level(s);
      for (int y = 0; y < (1 << L.sizeshift); y++)
        for (int x = 0; x < (1 << L.sizeshift); x++)
          if (L.w[y][x]) prios.push_back(s * 1000 + L.w[y][x]->prio);
    }
  });
  ASSERT_FALSE(prios.empty());
  for (int p : prios) {
    int s = p / 1000, prio = p % 1000;
    // Level 0 is wanted now; the others wait behind the least urgent tile.
    EXPECT_EQ(prio, s == 0 ? 0 : NWORKERPRIO - 1) << "level " << s;
  }
  EXPECT_TRUE(f.build(3, 40));
}
