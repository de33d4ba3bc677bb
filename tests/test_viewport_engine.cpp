// The road of a view change, end to end on a running engine: a Mandelbrot
// view is added and activated, its areas become canvas jobs, their tiles come
// back and are counted, the view completes and a draw list covering the
// screen is published, with counts that a brute-force iteration confirms.
// Then the view pans and zooms: a new list follows, and the areas that left
// the view lose their interest and their jobs.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "test_viewport.h"

using namespace viewporttest;

namespace {

constexpr int RES = 256;

struct VIEW {
  VIEWPORT* v;
  REALM* realm;
  FINISHCOUNT count;
};

void startview(TileEngine& e, VIEW& view, unsigned int channels) {
  view.realm = newrealm(e, MANDELBROT);
  view.v = addviewport(e.context, view.realm, nullptr, RES, RES, countfinish, &view.count);
  ASSERT_NE(view.v, nullptr);
  e.onmain([&](OVCONTEXT*) { view.v->channels = channels; });
  activateviewport(e.context, view.v, 1);
}

void waitcomplete(TileEngine& e, VIEW& view, int finishes) {
  waitfor([&] { return view.count.finish.load() >= finishes; });
  e.onmain([&](OVCONTEXT*) { EXPECT_EQ(view.v->ivainvalid, 0); });
}

// Every rectangle holds own, drawable tiles of both channels; sample points
// of the screen each fall in one; the channel-3 texels under some of them
// agree with a brute-force count at the texel's point.
void checklist(TileEngine& e, VIEW& view, int* checked) {
  e.onmain([&](OVCONTEXT*) {
    std::vector<RECTCOPY> rects = publishedlist(view.v);
    ASSERT_FALSE(rects.empty());
    for (const RECTCOPY& r : rects) {
      ASSERT_EQ(r.ichannels, 2);
      EXPECT_EQ(r.channel[0], 0);
      EXPECT_EQ(r.channel[1], 3);
      for (int i = 0; i < 2; i++) EXPECT_TRUE(r.texture[i]->flags & T_GLVALID);
    }
    int escaped = 0;
    for (int sy = -9; sy <= 9; sy++) {
      for (int sx = -9; sx <= 9; sx++) {
        std::complex<double> s(sx * 0.105, sy * 0.105);
        const RECTCOPY* hit = nullptr;
        double u = 0, w = 0;
        for (const RECTCOPY& r : rects)
          if (inrect(r, s, &u, &w)) {
            hit = &r;
            break;
          }
        ASSERT_NE(hit, nullptr) << "screen point " << s << " not covered";
        AREA* a = hit->area[1];
        ASSERT_NE(a, nullptr);
        // Own tiles only, once the view is complete.
        EXPECT_EQ(hit->x0, 0);
        EXPECT_EQ(hit->x1, TEXTURESIZE);
        int tx = static_cast<int>(u * TEXTURESIZE), ty = static_cast<int>(w * TEXTURESIZE);
        float value = static_cast<const float*>(hit->texture[1]->pixels)[ty * TEXTURESIZE + tx];
        long double step = areaside(a) / TEXTURESIZE;
        std::complex<long double> c = areacorner(a) + std::complex<long double>((tx + 0.5L) * step,
                                                                                 (ty + 0.5L) * step);
        // The rectangle sits where the view shows that point.
        HPVALUE* top = view.realm->top->hpvalue;
        std::complex<long double> fromtop =
            c - std::complex<long double>(mpf_get_d(top->v[0]), mpf_get_d(top->v[1]));
        std::complex<double> shown = cdHF(translatepoint(nullptr, view.v, cHFld(fromtop)));
        std::complex<double> centre = hit->c[0] + (tx + 0.5) / TEXTURESIZE * (hit->c[1] - hit->c[0]) +
                                      (ty + 0.5) / TEXTURESIZE * (hit->c[3] - hit->c[0]);
        EXPECT_LT(std::abs(shown - centre), 1e-4);
        int n = escapecount(c);
        if (value > 0) {
          EXPECT_NEAR(value, n, 1.0) << "at " << c.real() << " " << c.imag();
          escaped++;
        } else if (value < 0) {
          EXPECT_EQ(n, -1) << "interior texel escapes at " << c.real() << " " << c.imag();
        }
      }
    }
    EXPECT_GT(escaped, 20);
    *checked += escaped;
  });
}

}  // namespace

TEST(ViewportEngine, AMandelbrotViewCompletesAndItsListCoversTheScreenWithRightCounts) {
  TileEngine e(96, false);
  VIEW view;
  startview(e, view, 1 | 8);
  waitcomplete(e, view, 1);
  int checked = 0;
  checklist(e, view, &checked);
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(view.v->maxcalcdepth, 2);  // 256 pixels at zoom 1/2: Z = 7
    EXPECT_TRUE(atomicload(&view.v->drawactive));
    EXPECT_EQ(c->iworkerall, 1);  // this call's own message
  });
  detachviewport(e.context, view.v);
  detachrealm(e.context, view.realm);
  e.onmain([](OVCONTEXT*) {});
}

TEST(ViewportEngine, APanAndZoomGivesANewListAndRetiresTheAreasThatLeft) {
  TileEngine e(128, false);
  VIEW view;
  startview(e, view, 1 | 8);
  waitcomplete(e, view, 1);
  std::set<AREA*> before;
  e.onmain([&](OVCONTEXT*) {
    int cur = (view.v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1;
    for (int n = 0; n < view.v->iviewportarea[cur]; n++) before.insert(view.v->viewportarea[cur][n].a);
  });
  ASSERT_FALSE(before.empty());
  // A quarter of the screen to the right and up, four times closer.
  moveviewport(e.context, view.v, cHFd({0.5, 0.5}), cHFd({4, 0}), -1, -1, CZEROH, ZEROH, 0);
  waitcomplete(e, view, 2);
  int checked = 0;
  checklist(e, view, &checked);
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(view.v->maxcalcdepth, 4);
    std::set<AREA*> after;
    int cur = (view.v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1;
    for (int n = 0; n < view.v->iviewportarea[cur]; n++) after.insert(view.v->viewportarea[cur][n].a);
    int left = 0;
    for (AREA* a : before) {
      if (after.count(a)) continue;
      left++;
      EXPECT_TRUE(chainempty(&a->viewportchain));
      EXPECT_EQ(a->priority, 0);
      EXPECT_EQ(a->worker, nullptr);
    }
    EXPECT_GT(left, 0);
    EXPECT_EQ(c->iworkerall, 1);  // this call's own message
  });
  detachviewport(e.context, view.v);
  detachrealm(e.context, view.realm);
  e.onmain([](OVCONTEXT*) {});
}

TEST(ViewportEngine, AMoveWhileJobsRunStopsThoseOfTheAreasThatLeave) {
  TileEngine e(128, false);
  VIEW view;
  startview(e, view, 1 | 8);
  // At once, far away and deep: nothing of the first view stays wanted.
  moveviewport(e.context, view.v, cHFd({0.3, -0.2}), cHFd({64, 0}), -1, -1, CZEROH, ZEROH, 0);
  waitcomplete(e, view, 1);
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(c->iworkerall, 1);  // this call's own message
    // No area outside the present list has a job or an interest.
    int cur = (view.v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1;
    std::set<AREA*> now;
    for (int n = 0; n < view.v->iviewportarea[cur]; n++) now.insert(view.v->viewportarea[cur][n].a);
    for (int i = 0; i < c->na; i++) {
      AREA* a = &c->a[i];
      if (!(a->flags & A_ACTIVE) || a->realm != view.realm || now.count(a)) continue;
      EXPECT_EQ(a->worker, nullptr);
      EXPECT_TRUE(a->priority == 0 || a->priority == -1 || a->priority == PRIO_KEEP);
    }
  });
  int checked = 0;
  checklist(e, view, &checked);
  detachviewport(e.context, view.v);
  detachrealm(e.context, view.realm);
  e.onmain([](OVCONTEXT*) {});
}

TEST(ViewportEngine, ShutdownTurnsViewsOffAndARelaunchBringsThemBack) {
  TileEngine e(96, false);
  VIEW view;
  startview(e, view, 1 | 8);
  waitcomplete(e, view, 1);
  shutdowncontext(e.context, false);
  EXPECT_FALSE(atomicload(&view.v->drawactive));
  EXPECT_EQ(view.v->priority, 0);
  EXPECT_EQ(view.v->oldpriority, 1);
  EXPECT_TRUE(view.v->flags & VP_INACTIVECHAIN);
  ASSERT_TRUE(relaunchcontext(e.context));
  waitcomplete(e, view, 2);
  e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(view.v->priority, 1);
    EXPECT_TRUE(atomicload(&view.v->drawactive));
  });
  int checked = 0;
  checklist(e, view, &checked);
  detachviewport(e.context, view.v);
  detachrealm(e.context, view.realm);
  e.onmain([](OVCONTEXT*) {});
}
