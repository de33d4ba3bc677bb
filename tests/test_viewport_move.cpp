// Movement: moves parked while the environments are set up, the one call of
// movingstart for a burst of moves, inactive views, geometry kept, a jump to
// a satellite that has none, the lock, the ring of coordinate steps as the
// navigator and the marks read it, and the status line.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>

#include "idle.h"
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

struct VIEWSCENE {
  TileEngine e{16, false};
  REALM* realm;
  REALM* juliarealm = nullptr;
  VIEWPORT* v;
  explicit VIEWSCENE(REALMTYPE type = MANDELBROT, unsigned int flags = 0, int w = 256, int h = 256,
                     bool julia = false) {
    realm = newrealm(e, type, flags);
    if (julia) juliarealm = newrealm(e, JULIA);
    v = addviewport(e.context, realm, juliarealm, w, h, nullptr, nullptr);
    e.onmain([](OVCONTEXT*) {});  // the first move has been applied
  }
  ~VIEWSCENE() {
    detachviewport(e.context, v);
    detachrealm(e.context, realm);
    if (juliarealm) detachrealm(e.context, juliarealm);
    e.onmain([](OVCONTEXT*) {});
  }
  void move(std::complex<double> d, std::complex<double> z, double speed = 0, int flags = 0) {
    moveviewport(e.context, v, cHFd(d), cHFd(z), -1, -1, CZEROH, HFd(speed), flags);
  }
};

std::complex<double> deltaof(VIEWPORT* v) {
  return {mpf_get_d(v->delta->v[0]), mpf_get_d(v->delta->v[1])};
}

}  // namespace

TEST(ViewportMove, TheFirstMovePlacesTheDefaultView) {
  VIEWSCENE s(MANDELBROT, 0, 300, 200);
  s.e.onmain([&](OVCONTEXT*) {
    ASSERT_NE(s.v->delta, nullptr);
    EXPECT_EQ(deltaof(s.v), std::complex<double>(0, 0));
    EXPECT_EQ(cdHF(s.v->zoom), std::complex<double>(0, -0.5));
    EXPECT_EQ(s.v->resolution, 300u);
    EXPECT_DOUBLE_EQ(s.v->z0.real(), -1.5);
    EXPECT_DOUBLE_EQ(s.v->z1.imag(), 1.0);
    EXPECT_EQ(s.v->icursystem, 1u);
    EXPECT_EQ(s.v->imovemsg, 0);
    EXPECT_TRUE(s.v->flags & VP_DONOTDRAW);  // no view has been invalidated yet
  });
}

TEST(ViewportMove, AMoveDuringMovingIsParkedAndTakesEffectWhenSentAgain) {
  VIEWSCENE s;
  s.e.onmain([&](OVCONTEXT*) { s.v->flags |= VP_MOVING; });
  s.move({0.5, 0}, {2, 0}, 0.1);
  s.e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(s.v->direction, 0);
    EXPECT_EQ(s.v->imovemsg, 1);
    ASSERT_NE(s.v->movemsg, nullptr);
    EXPECT_EQ(cdHF(s.v->zoom), std::complex<double>(0, -0.5));
    finishmoving(c, s.v);
    EXPECT_EQ(s.v->movemsg, nullptr);
  });
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(s.v->direction, 1);
    EXPECT_EQ(s.v->imovemsg, 0);
    EXPECT_EQ(cdHF(s.v->zoom), std::complex<double>(0, -1));
  });
}

TEST(ViewportMove, OnlyTheLastOfSeveralPendingMovesCallsMovingstart) {
  HOOKED hooks;
  VIEWSCENE s;
  activateviewport(s.e.context, s.v, 1);
  s.e.onmain([](OVCONTEXT*) {});
  int afteractivation = movingstarts.load();
  EXPECT_EQ(afteractivation, 1);
  // Queued behind this call, the three arrive together.
  s.e.onmain([&](OVCONTEXT*) {
    for (int k = 0; k < 3; k++) s.move({0.1, 0}, {1, 0});
  });
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(movingstarts.load(), afteractivation + 1);
    EXPECT_EQ(s.v->imovemsg, 0);
    EXPECT_NEAR(deltaof(s.v).real(), 0, 1e-12);
    EXPECT_NEAR(deltaof(s.v).imag(), 0.6, 1e-12);  // three steps of 0.1 / (-0.5i)
  });
}

TEST(ViewportMove, WithPriorityZeroNoMoveStartsWorkButThePositionFollows) {
  HOOKED hooks;
  VIEWSCENE s;
  s.move({0, 0}, {8, 0});
  s.e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(movingstarts.load(), 0);
    EXPECT_EQ(cdHF(s.v->zoom), std::complex<double>(0, -4));
    EXPECT_EQ(s.v->iviewportarea[0] + s.v->iviewportarea[1], 0);
    EXPECT_EQ(c->iworkerall, 1);  // this call's own message
  });
}

TEST(ViewportMove, AWidthOfMinusOneKeepsResolutionAndRectangle) {
  VIEWSCENE s(MANDELBROT, 0, 300, 200);
  moveviewport(s.e.context, s.v, CZEROH, CONEH, 640, 480, CZEROH, ZEROH, 0);
  s.e.onmain([&](OVCONTEXT*) { EXPECT_EQ(s.v->resolution, 640u); });
  s.move({0, 0}, {1, 0});
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(s.v->resolution, 640u);
    EXPECT_NEAR(s.v->z0.real(), -640.0 / 480, 1e-15);
    EXPECT_EQ(s.v->c[1], std::complex<double>(640.0 / 480, -1));
  });
}

TEST(ViewportMove, AJumpToASatelliteWithoutOneLeavesThePositionAndTheRestGoesOn) {
  VIEWSCENE s;
  s.move({0.25, 0}, {4, 0});
  uint32_t cycle = 0;
  std::complex<double> d0;
  s.e.onmain([&](OVCONTEXT*) {
    cycle = s.realm->computecycle;
    d0 = deltaof(s.v);
    s.v->nav_flags = MOVEVIEWPORT_REDRAW;
  });
  moveviewporttosatellite(s.e.context, s.v);
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(deltaof(s.v), d0);
    EXPECT_EQ(cdHF(s.v->zoom), std::complex<double>(0, -2));
    EXPECT_EQ(s.realm->computecycle, cycle + 1);
    EXPECT_EQ(s.realm->redraw, cycle + 1);
    EXPECT_EQ(s.v->icursystem, 3u);
  });
}

TEST(ViewportMove, UnderTheLockTheCentreStaysAndThePrecisionIsKept) {
  VIEWSCENE s;
  std::complex<double> d0;
  mp_bitcnt_t p0 = 0;
  HPVALUE* h0 = nullptr;
  s.e.onmain([&](OVCONTEXT*) {
    d0 = deltaof(s.v);
    p0 = s.v->precision;
    h0 = s.v->delta;
  });
  s.move({0.5, 0.5}, {std::ldexp(1.0, 40), 0}, 0, MOVEVIEWPORT_LOCK);
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_TRUE(s.v->flags & VP_LOCK);
    EXPECT_EQ(s.v->delta, h0);
    EXPECT_EQ(deltaof(s.v), d0);
    EXPECT_EQ(s.v->precision, p0);
    EXPECT_EQ(ilogbHF(s.v->zoomabs), 39);
  });
  // Without the lock the next move shifts and the precision follows.
  s.move({0.5, 0.5}, {1, 0});
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_FALSE(s.v->flags & VP_LOCK);
    EXPECT_NE(deltaof(s.v), d0);
    EXPECT_EQ(s.v->precision, static_cast<mp_bitcnt_t>(39 + 62));
  });
}

TEST(ViewportMove, TheRingGivesTheComposedTransformBeforeTheEngineAppliesIt) {
  VIEWSCENE s;
  const std::complex<double> deltas[] = {{0.1, 0.2}, {-0.3, 0.05}, {0.2, -0.1}, {0, 0.4}};
  const std::complex<double> zooms[] = {{1.5, 0.2}, {0.9, -0.4}, {2, 0}, {1, 1}};
  HFLOATCOMPLEX pendingzoom{}, pendingdelta{}, marked{}, markedbefore{};
  std::complex<double> d0;
  s.e.onmain([&](OVCONTEXT* c) {
    d0 = deltaof(s.v);
    markpt(c, s.v, {0.3, -0.2}, 0);
    markedbefore = getmarkedpoint(c, s.v, 0);
    for (int k = 0; k < 4; k++) s.move(deltas[k], zooms[k]);
    getzoomdelta(c, s.v, &pendingzoom, &pendingdelta);
    marked = getmarkedpoint(c, s.v, 0);
  });
  EXPECT_NEAR(std::abs(cdHF(markedbefore) - std::complex<double>(0.3, -0.2)), 0, 1e-12);
  std::complex<double> s0(0.3, -0.2);
  for (int k = 0; k < 4; k++) s0 = (s0 - deltas[k]) * zooms[k];
  EXPECT_NEAR(std::abs(cdHF(marked) - s0), 0, 1e-9);
  s.e.onmain([&](OVCONTEXT* c) {
    EXPECT_NEAR(std::abs(cdHF(pendingzoom) - cdHF(s.v->zoom)), 0, 1e-12);
    EXPECT_NEAR(std::abs(cdHF(pendingdelta) - (deltaof(s.v) - d0)), 0, 1e-12);
    // Applied, the marked point is where the ring said.
    EXPECT_NEAR(std::abs(cdHF(getmarkedpoint(c, s.v, 0)) - s0), 0, 1e-9);
    EXPECT_EQ(s.v->icursystem, s.v->icoordinatesystem);
  });
}

TEST(ViewportStatus, TheStatusLineOfAKnownView) {
  {
    VIEWSCENE s(MANDELBROT, R_DEFAULT);
    s.e.onmain([&](OVCONTEXT* c) {
      composestrings(c, s.v);
      EXPECT_STREQ(s.v->s2, " S GCIHJ B/A [0] (jst: 0/0) 0 - ");
      s.realm->flags = R_PRECDOUBLE | R_STATUSM | R_SPLITMUL | R_NOINTERIOR;
      s.v->direction = -1;
      composestrings(c, s.v);
      EXPECT_STREQ(s.v->s2, "M L C   F /D [0] (jst: 0/0) -1 - ");
      // Nothing while moving.
      s.v->flags |= VP_MOVING;
      s.realm->flags = 0;
      composestrings(c, s.v);
      EXPECT_STREQ(s.v->s2, "M L C   F /D [0] (jst: 0/0) -1 - ");
      s.v->flags &= ~VP_MOVING;
    });
  }
  {
    VIEWSCENE s(GENERAL, R_PRECHFLOAT);
    s.e.onmain([&](OVCONTEXT* c) {
      s.realm->precoffset = 3;
      s.v->precsat = 5;
      s.v->info.interpoliter = 77;
      s.v->nav_satiter = 12;
      composestrings(c, s.v);
      EXPECT_STREQ(s.v->s2, "    C     /H [0] (jst: 0/0) 0 -  | INVALID (prec:8) IIter: 77 nav-satiter: 12");
    });
  }
  {
    VIEWSCENE s(JULIA, R_PRECLONGDOUBLE);
    s.e.onmain([&](OVCONTEXT* c) {
      composestrings(c, s.v);
      EXPECT_STREQ(s.v->s2, "    C     /L [0] (jst: 0/0) 0 - Prec: -1 N: -1");
    });
  }
}

namespace {

// An environment of period `n` at c, owned by whoever links it.
ENVIRONMENT* environmentof(OVCONTEXT* c, double x, double y, UITER n) {
  mpf_t cx, cy;
  mpf_init_set_d(cx, x);
  mpf_init_set_d(cy, y);
  ENVIRONMENT* e = adde(c, cx, cy, 64);
  mpf_clear(cx);
  mpf_clear(cy);
  EXPECT_NE(e, nullptr);
  if (e) e->n = n;
  return e;
}

}  // namespace

TEST(ViewportStatus, AGeneralViewListsItsEnvironmentsMarksEsatAndGivesEnonsat) {
  VIEWSCENE s(GENERAL, R_PRECHFLOAT);
  s.e.onmain([&](OVCONTEXT* c) {
    s.realm->precoffset = 3;
    s.v->precsat = 5;
    s.v->info.interpoliter = 77;
    s.v->nav_satiter = 12;
    ENVIRONMENT* chain[3] = {environmentof(c, -1, 0, 2), environmentof(c, -0.12, 0.74, 3),
                             environmentof(c, -0.16, 1.04, 40)};
    for (ENVIRONMENT* e : chain) insertenvironment(s.v, e);
    composestrings(c, s.v);
    EXPECT_STREQ(s.v->s2, "    C     /H [0] (jst: 0/0) 0 -  2 3 40 | INVALID (prec:8) IIter: 77 nav-satiter: 12");
    s.v->esat = chain[1];
    s.v->enonsat = environmentof(c, -0.1, 0.8, 5000);
    composestrings(c, s.v);
    EXPECT_STREQ(s.v->s2, "    C     /H [0] (jst: 0/0) 0 -  2 [3] 40 | 5000 (prec:8) IIter: 77 nav-satiter: 12");
    s.v->esat = chain[2];
    composestrings(c, s.v);
    EXPECT_STREQ(s.v->s2, "    C     /H [0] (jst: 0/0) 0 -  2 3 [40] | 5000 (prec:8) IIter: 77 nav-satiter: 12");
    s.v->esat = nullptr;
  });
}

TEST(ViewportStatus, TheIdleCountShowsOnlyWhileTheIdleSearchRuns) {
  VIEWSCENE s(MANDELBROT, R_PRECDOUBLE);
  s.e.onmain([&](OVCONTEXT* c) {
    s.v->idle_iter = 123456;
    composestrings(c, s.v);
    EXPECT_STREQ(s.v->s2, "    C     /D [0] (jst: 0/0) 0 - ");
    s.v->flags |= VP_IDLE;
    composestrings(c, s.v);
    EXPECT_STREQ(s.v->s2, "    C     /D [123456] (jst: 0/0) 0 - ");
    s.v->flags &= ~VP_IDLE;
    s.v->idle_iter = 0;
  });
}

TEST(ViewportStatus, TheJuliaStackCountsAreTheJuliaRealmsReadyAndValidLevels) {
  VIEWSCENE s(GENERAL, R_PRECFLOAT, 256, 256, true);
  s.e.onmain([&](OVCONTEXT* c) {
    REALM* jr = s.juliarealm;
    int ready = jr->readyjuliastack, valid = jr->validjuliastack;
    jr->readyjuliastack = 3;
    jr->validjuliastack = 11;
    s.v->precsat = -1;
    s.v->direction = 1;
    composestrings(c, s.v);
    jr->readyjuliastack = ready;
    jr->validjuliastack = valid;
    EXPECT_STREQ(s.v->s2, "    C     /F [0] (jst: 3/11) 1 -  | INVALID (prec:-1) IIter: 0 nav-satiter: 0");
    s.v->direction = 0;
  });
}

TEST(ViewportStatus, AJuliaViewGivesItsPrecisionAndThePeriodOfItsStandardEnvironment) {
  VIEWSCENE s(JULIA, R_PRECLONGDOUBLE);
  s.e.onmain([&](OVCONTEXT* c) {
    s.v->precsat = 7;
    s.v->enonsat = environmentof(c, 0.25, 0.5, 4321);
    composestrings(c, s.v);
    EXPECT_STREQ(s.v->s2, "    C     /L [0] (jst: 0/0) 0 - Prec: 7 N: 4321");
  });
}
