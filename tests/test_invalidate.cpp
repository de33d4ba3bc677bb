// Invalidation: effective tops made, kept and replaced with the zoom; the
// callback of a view whose areas are all there; flag switches with and
// without a new cycle; a change of precision that waits for the next move;
// the dirty words; and the draw of a view that has no position or sees
// nothing.
#include <gtest/gtest.h>

#include <set>

#include "test_viewport.h"

using namespace viewporttest;

namespace {

struct SCENE {
  TileEngine e{64, false};
  REALM* realm;
  VIEWPORT* v;
  FINISHCOUNT count;
  explicit SCENE(REALMTYPE type, unsigned int channels = 1) {
    realm = newrealm(e, type);
    v = addviewport(e.context, realm, nullptr, 256, 256, countfinish, &count);
    e.onmain([&](OVCONTEXT*) { v->channels = channels; });
    activateviewport(e.context, v, 1);
    e.onmain([](OVCONTEXT*) {});
    settle();
  }
  // A general view is drawn once its environments' scan and, the first
  // time, its idle run are through.
  void settle() {
    if (realm->type != GENERAL) return;
    waitfor([&] {
      bool done = false;
      e.onmain([&](OVCONTEXT*) {
        done = !(v->flags & (VP_MOVING | VP_MUSTWAITFORIDLE | VP_DONOTDRAW));
      });
      return done;
    });
  }
  ~SCENE() {
    detachviewport(e.context, v);
    detachrealm(e.context, realm);
    e.onmain([](OVCONTEXT*) {});
  }
  void move(std::complex<double> d, std::complex<double> z) {
    moveviewport(e.context, v, cHFd(d), cHFd(z), -1, -1, CZEROH, ZEROH, 0);
    e.onmain([](OVCONTEXT*) {});
    settle();
  }
  int current() { return (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1; }
};

}  // namespace

// A general realm's view files its areas from the top or from effective tops.
TEST(Invalidate, ShallowViewsWalkFromTheTopAndDeepOnesFromEffectiveTops) {
  SCENE s(GENERAL);
  std::vector<AREA*> first;
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(s.v->ieffectivetop, 0);  // zoomabs 1/2 < 2^11
    EXPECT_GT(s.v->iviewportarea[s.current()], 0);
    // Deep enough: L = 11, tops at depth 1.
  });
  s.move({0.01, 0.02}, {4096, 0});
  s.e.onmain([&](OVCONTEXT* c) {
    int L = ilogbHF(s.v->zoomabs);
    ASSERT_EQ(L, 11);
    ASSERT_GE(s.v->ieffectivetop, 1);
    ASSERT_LE(s.v->ieffectivetop, 4);
    for (int k = 0; k < s.v->ieffectivetop; k++) {
      AREA* t = s.v->effectivetop[k];
      first.push_back(t);
      EXPECT_EQ(t->depth, L - 10);
      ASSERT_NE(t->hpvalue, nullptr);
      EXPECT_EQ(t->nhpvalue, 1);
      EXPECT_FALSE(t->flags & A_INDELCHAIN);
      // Its corner is the tree's: the top's plus the steps down to it.
      long double x = mpf_get_d(s.realm->top->hpvalue->v[0]);
      long double y = mpf_get_d(s.realm->top->hpvalue->v[1]);
      for (AREA* a = t; a->parent; a = a->parent) {
        int k = 0;
        while (a->parent->child[k] != a) k++;
        long double side = std::ldexp(1.0L, 4 - a->depth);
        if (k == 1 || k == 2) x += side;
        if (k == 2 || k == 3) y += side;
      }
      EXPECT_NEAR(static_cast<double>(x), mpf_get_d(t->hpvalue->v[0]), 1e-12);
      EXPECT_NEAR(static_cast<double>(y), mpf_get_d(t->hpvalue->v[1]), 1e-12);
    }
    EXPECT_TRUE(effectivetopsstand(s.v, L));
    (void)c;
  });
  // A small further move keeps them.
  s.move({0.001, 0}, {2, 0});
  s.e.onmain([&](OVCONTEXT*) {
    ASSERT_EQ(static_cast<size_t>(s.v->ieffectivetop), first.size());
    for (size_t k = 0; k < first.size(); k++) EXPECT_EQ(s.v->effectivetop[k], first[k]);
  });
  // More than 2^3 at once: new tops, the old ones give their corners up.
  s.move({0, 0}, {32, 0});
  s.e.onmain([&](OVCONTEXT*) {
    int L = ilogbHF(s.v->zoomabs);
    ASSERT_EQ(L, 17);
    ASSERT_GE(s.v->ieffectivetop, 1);
    for (int k = 0; k < s.v->ieffectivetop; k++) EXPECT_EQ(s.v->effectivetop[k]->depth, L - 10);
    for (AREA* t : first) {
      EXPECT_EQ(t->nhpvalue, 0);
      EXPECT_EQ(t->hpvalue, nullptr);
    }
    EXPECT_TRUE(effectivetopsstand(s.v, L));
    EXPECT_FALSE(effectivetopsstand(s.v, L + 8));
  });
}

TEST(Invalidate, WhenEveryAreaIsThereTheCallbackFiresWithinInvalidate) {
  SCENE s(MANDELBROT);
  waitfor([&] { return s.count.finish.load() >= 1; });
  s.e.waitidle();
  s.e.onmain([&](OVCONTEXT* c) {
    int before = s.count.finish.load();
    int list = s.v->toactivatelist;
    invalidate(c, s.v);
    EXPECT_EQ(s.count.finish.load(), before + 1);
    EXPECT_EQ(s.v->ivainvalid, 0);
    EXPECT_NE(s.v->toactivatelist, list);  // drawn at once too
    EXPECT_EQ(c->iworkerall, 1);           // and no job started
  });
}

TEST(Invalidate, SwitchingTheJuliaLockAloneInvalidatesWithoutANewCycle) {
  SCENE s(GENERAL);
  unsigned int swap = 0;
  uint32_t cycle = 0;
  s.e.onmain([&](OVCONTEXT*) {
    swap = s.v->flags & VP_SWAPVIEWPORTAREA;
    cycle = s.realm->computecycle;
  });
  switchflag(s.e.context, s.realm, R_LOCKJULIAPOINT, R_LOCKJULIAPOINT);
  s.e.onmain([&](OVCONTEXT* c) {
    EXPECT_TRUE(s.realm->flags & R_LOCKJULIAPOINT);
    EXPECT_EQ(s.realm->computecycle, cycle);
    EXPECT_NE(s.v->flags & VP_SWAPVIEWPORTAREA, swap);
    EXPECT_TRUE(hascontextflag(c, OVCONTEXT_DIRTY) || !(s.v->flags & VP_DIRTY));
    swap = s.v->flags & VP_SWAPVIEWPORTAREA;
  });
  // Another bit starts a new cycle, for every realm with a NULL realm.
  switchflag(s.e.context, nullptr, R_INTERPOL, R_INTERPOL);
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_TRUE(s.realm->flags & R_INTERPOL);
    EXPECT_EQ(s.realm->computecycle, cycle + 1);
    EXPECT_NE(s.v->flags & VP_SWAPVIEWPORTAREA, swap);
  });
}

TEST(Invalidate, AChangeOfPrecisionShowsNothingUntilTheViewMoves) {
  SCENE s(MANDELBROT);
  waitfor([&] { return s.count.finish.load() >= 1; });
  s.e.waitidle();
  unsigned int swap = 0;
  int list = 0;
  uint32_t cycle = 0;
  s.e.onmain([&](OVCONTEXT*) {
    swap = s.v->flags & VP_SWAPVIEWPORTAREA;
    list = s.v->toactivatelist;
    cycle = s.realm->computecycle;
  });
  changeprec(s.e.context, s.realm, 2);
  s.e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(s.realm->precoffset, 2);
    EXPECT_EQ(s.realm->computecycle, cycle + 1);
    EXPECT_EQ(s.v->flags & VP_SWAPVIEWPORTAREA, swap);
    EXPECT_EQ(s.v->toactivatelist, list);
    AREA* a = s.v->viewportarea[s.current()][0].a;
    EXPECT_EQ(a->computecycle, cycle);
    EXPECT_EQ(c->iworkerall, 1);
  });
  s.move({0, 0}, {1, 0});
  waitfor([&] { return s.count.finish.load() >= 2; });
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_NE(s.v->flags & VP_SWAPVIEWPORTAREA, swap);
    // A Mandelbrot area's data don't depend on the offset: they move up to
    // the new cycle without work.
    for (int n = 0; n < s.v->iviewportarea[s.current()]; n++) {
      AREA* a = s.v->viewportarea[s.current()][n].a;
      if (a->priority > 0 && a->priority < PRIO_KEEP) {
        EXPECT_EQ(a->computecycle, cycle + 1);
      }
    }
  });
}

TEST(Invalidate, DirtyMarksAndIsdirtyReads) {
  SCENE s(GENERAL);
  s.e.onmain([&](OVCONTEXT* c) {
    clearcontextflag(c, OVCONTEXT_DIRTY | OVCONTEXT_DORENDER);
    s.v->flags &= ~VP_DIRTY;
    dirty(c, s.v, false);
    EXPECT_TRUE(s.v->flags & VP_DIRTY);
    EXPECT_TRUE(hascontextflag(c, OVCONTEXT_DIRTY));
    EXPECT_FALSE(hascontextflag(c, OVCONTEXT_DORENDER));
    s.v->flags &= ~VP_DIRTY;
    dirty(c, nullptr, true);
    EXPECT_TRUE(s.v->flags & VP_DIRTY);
    EXPECT_TRUE(hascontextflag(c, OVCONTEXT_DORENDER));
    EXPECT_FALSE(isdirty(nullptr));
    s.v->nav_invalid = false;
    s.v->activelist = s.v->toactivatelist;
    EXPECT_FALSE(isdirty(s.v));
    s.v->nav_itouch = 1;
    EXPECT_TRUE(isdirty(s.v));
    s.v->nav_itouch = 0;
    s.v->activelist = -1;
    s.v->toactivatelist = 0;
    EXPECT_TRUE(isdirty(s.v));
    s.v->activelist = 0;
    s.v->drawactive = false;
    s.v->nav_moving = true;
    EXPECT_FALSE(isdirty(s.v));
    s.v->drawactive = true;
    EXPECT_TRUE(isdirty(s.v));
    s.v->nav_moving = false;
  });
}

TEST(Draw, WithoutAPositionOrInactiveNothingChangesAndTheViewStaysDirty) {
  TileEngine e(8, false);
  REALM* realm = newrealm(e, MANDELBROT);
  e.onmain([&](OVCONTEXT* c) {
    VIEWPORT* v = handmadeview(c, realm, {0, 0}, {0.5, 0});
    v->flags |= VP_DIRTY;
    draw(c, v);  // not active
    EXPECT_EQ(v->toactivatelist, -1);
    EXPECT_TRUE(v->flags & VP_DIRTY);
    ASSERT_TRUE(preparedrawlists(c, v));
    v->drawactive = true;
    HPVALUE* d = v->delta;
    v->delta = nullptr;
    draw(c, v);  // no position
    EXPECT_EQ(v->toactivatelist, -1);
    EXPECT_TRUE(v->flags & VP_DIRTY);
    v->delta = d;
    v->drawactive = false;
    __detachviewport(c, v);
  });
  detachrealm(e.context, realm);
  e.onmain([](OVCONTEXT*) {});
}

TEST(Draw, SeeingNothingStillPublishesAnEmptyList) {
  TileEngine e(8, false);
  REALM* realm = newrealm(e, MANDELBROT);
  e.onmain([&](OVCONTEXT* c) {
    // Far outside the realm's square.
    VIEWPORT* v = handmadeview(c, realm, {1000, 1000}, {0.5, 0});
    ASSERT_TRUE(preparedrawlists(c, v));
    v->drawactive = true;
    v->flags |= VP_DIRTY;
    draw(c, v);
    EXPECT_EQ(v->toactivatelist, 0);
    EXPECT_EQ(v->idrawrect[0], 0u);
    EXPECT_FALSE(v->flags & VP_DIRTY);
    draw(c, v);
    EXPECT_EQ(v->toactivatelist, 1);
    v->drawactive = false;
    __detachviewport(c, v);
  });
  detachrealm(e.context, realm);
  e.onmain([](OVCONTEXT*) {});
}

TEST(Draw, AnAreaWithoutTilesShowsItsAncestorsQuarter) {
  TileEngine e(8, false);
  REALM* realm = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    VIEWPORT* v = handmadeview(c, realm, {0, 0}, {1.0 / 16, 0});
    v->mindrawdepth = 0;
    v->maxdrawdepth = 3;
    v->outermaxdrawdepth = 3;
    ASSERT_TRUE(preparedrawlists(c, v));
    v->drawactive = true;
    AREA* top = realm->top;
    subdivide(c, top);
    ASSERT_NE(texturetest::drawabletile(c, top, 0), nullptr);
    ASSERT_NE(texturetest::drawabletile(c, top->child[1], 0), nullptr);
    draw(c, v);
    std::vector<RECTCOPY> rects = publishedlist(v);
    // Child 1 draws its own tile; the other three show a quarter of the
    // top's, and the top itself isn't drawn under them.
    int own = 0, borrowed = 0;
    for (const RECTCOPY& r : rects) {
      if (r.x1 - r.x0 == TEXTURESIZE) {
        own++;
        EXPECT_EQ(r.texture[0], top->child[1]->texture[0]);
      } else {
        borrowed++;
        EXPECT_EQ(r.texture[0], top->texture[0]);
        EXPECT_EQ(r.x1 - r.x0, TEXTURESIZE / 2);
      }
    }
    EXPECT_EQ(own, 1);
    EXPECT_EQ(borrowed, 3);
    v->drawactive = false;
    freedrawlists(c, v);
    droptexture(c, top, 0);
    droptexture(c, top->child[1], 0);
    __detachviewport(c, v);
  });
  detachrealm(e.context, realm);
  e.onmain([](OVCONTEXT*) {});
}
