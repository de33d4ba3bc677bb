// The active list: the visibility test against exact clipping on random
// turned squares, its edge cases, the table of depth limits, and the walk
// that files areas: its priorities, its bounds and its overflow.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "test_viewport.h"

using namespace viewporttest;

namespace {

typedef std::complex<double> cd;

// A bare view for the visibility test: screen [-1,1]^2 unless told.
VIEWPORT* bareview(cd zoom, double small, double big, cd z0 = {-1, -1}, cd z1 = {1, 1}) {
  VIEWPORT* v = static_cast<VIEWPORT*>(calloc(1, sizeof(VIEWPORT)));
  v->zoom = cHFd(zoom);
  v->zoomabs = cabsHF(v->zoom);
  v->z0 = z0;
  v->z1 = z1;
  v->c[0] = z0;
  v->c[1] = {z1.real(), z0.imag()};
  v->c[2] = z1;
  v->c[3] = {z0.real(), z1.imag()};
  v->small = small;
  v->big = big;
  return v;
}

// Area of a convex polygon clipped to an axis-aligned rectangle.
double clippedarea(std::vector<cd> poly, double x0, double y0, double x1, double y1) {
  auto clip = [&](auto inside, auto cross) {
    std::vector<cd> out;
    for (size_t i = 0; i < poly.size(); i++) {
      cd a = poly[i], b = poly[(i + 1) % poly.size()];
      bool ia = inside(a), ib = inside(b);
      if (ia) out.push_back(a);
      if (ia != ib) out.push_back(cross(a, b));
    }
    poly = out;
  };
  auto atx = [](double x) {
    return [x](cd a, cd b) { double t = (x - a.real()) / (b.real() - a.real()); return a + t * (b - a); };
  };
  auto aty = [](double y) {
    return [y](cd a, cd b) { double t = (y - a.imag()) / (b.imag() - a.imag()); return a + t * (b - a); };
  };
  clip([&](cd p) { return p.real() >= x0; }, atx(x0));
  clip([&](cd p) { return p.real() <= x1; }, atx(x1));
  clip([&](cd p) { return p.imag() >= y0; }, aty(y0));
  clip([&](cd p) { return p.imag() <= y1; }, aty(y1));
  double s = 0;
  for (size_t i = 0; i < poly.size(); i++) {
    cd a = poly[i], b = poly[(i + 1) % poly.size()];
    s += a.real() * b.imag() - a.imag() * b.real();
  }
  return std::fabs(s) / 2;
}

std::vector<cd> screensquare(cd coord, double side, cd zoom) {
  return {coord * zoom, (coord + side) * zoom, (coord + cd(side, side)) * zoom,
          (coord + cd(0, side)) * zoom};
}

}  // namespace

TEST(Visibility, AgreesWithExactClippingOnRandomTurnedSquares) {
  std::mt19937_64 rng(12345);
  std::uniform_real_distribution<double> U(0, 1);
  const double bigs[] = {3.0, 1.25, 0.5};
  const double smalls[] = {1.0, 4.0};
  int overlaps = 0, aparts = 0, inners = 0;
  for (int n = 0; n < 20000; n++) {
    double big = bigs[n % 3], small = smalls[(n / 3) % 2];
    int depth = static_cast<int>(U(rng) * 6);
    double side = std::ldexp(1.0, 4 - depth);
    // The square spans 0.05 to 8 screen units, turned at random.
    double scale = std::exp(std::log(0.05) + U(rng) * std::log(160.0)) / side;
    cd zoom = std::polar(scale, U(rng) * 2 * M_PI);
    cd screenpos(U(rng) * 16 - 8, U(rng) * 16 - 8);
    cd coord = screenpos / zoom;
    VIEWPORT* v = bareview(zoom, small, big);
    // The test's own frame: coord in HFLOAT, as the walk holds it.
    HFLOATCOMPLEX hc = cHFd(coord);
    cd exactcoord = cdHF(hc);
    int vis = squarevisibleex(v, depth, hc, 0);
    std::vector<cd> q = screensquare(exactcoord, side, zoom);
    double qa = side * side * scale * scale;
    double outer = clippedarea(q, -big, -big, big, big);
    double outerwide = clippedarea(q, -big - 1e-6, -big - 1e-6, big + 1e-6, big + 1e-6);
    // Inner bits describe only what is seen at all: an inner rectangle
    // larger than the outer counts as far as the outer reaches.
    double seen = std::fmin(small, big);
    double inner = clippedarea(q, -seen, -seen, seen, seen);
    double innerwide = clippedarea(q, -small - 1e-6, -small - 1e-6, small + 1e-6, small + 1e-6);
    if (outer > 1e-9 * qa) {
      EXPECT_NE(vis, 0) << n;
      overlaps++;
    }
    if (outerwide == 0) {
      EXPECT_EQ(vis, 0) << n;
      aparts++;
    }
    if (inner > 1e-9 * qa) {
      EXPECT_NE(vis & (VIS_INNERPART | VIS_INNERALL), 0) << n;
      inners++;
    }
    if (vis & VIS_OUTERALL) {
      EXPECT_GT(outerwide, qa * (1 - 1e-9)) << n;
    }
    if (vis & VIS_INNERALL) {
      EXPECT_GT(innerwide, qa * (1 - 1e-9)) << n;
    }
    // The inner test after a partial overlap is one-way (the rectangle's
    // corners in the square's frame): it may report an overlap that isn't,
    // never miss one.
    free(v);
  }
  EXPECT_GT(overlaps, 1000);
  EXPECT_GT(aparts, 1000);
  EXPECT_GT(inners, 500);
}

TEST(Visibility, ASquareTurnedFortyFiveDegreesPastACornerIsApartThoughNoEdgeSeparatesItsCorners) {
  // Side sqrt(2) on screen, turned 45 degrees: a diamond of half-diagonal 1
  // centred at (1.6, 1.6) beyond the corner (1, 1) of the screen.
  cd zoom = std::polar(std::sqrt(2.0), M_PI / 4);
  cd centre(1.6, 1.6);
  cd coord = (centre - cd(0, 1)) / zoom;  // the square's corner (0,0) maps to (1.6, 0.6)
  VIEWPORT* v = bareview(zoom, 1.0, 1.0);
  std::vector<cd> q = screensquare(coord, 1.0, zoom);
  // No screen edge has all four corners beyond it.
  bool left = true, right = true, below = true, above = true;
  for (cd p : q) {
    left &= p.real() <= -1;
    right &= p.real() >= 1;
    below &= p.imag() <= -1;
    above &= p.imag() >= 1;
  }
  ASSERT_FALSE(left || right || below || above);
  EXPECT_EQ(squarevisibleex(v, 4, cHFd(coord), 0), 0);
  // Moved in until it overlaps the corner, it is seen.
  EXPECT_NE(squarevisibleex(v, 4, cHFd((cd(1.2, 1.2) - cd(0, 1)) / zoom), 0), 0);
  free(v);
}

TEST(Visibility, AnInnerRectangleLargerThanTheOuterIsNoProblem) {
  // Zooming out slowly: big = -1600 * speed can fall below small.
  VIEWPORT* v = bareview({1, 0}, 4.0, 0.5);
  // A square inside the small outer rectangle.
  EXPECT_EQ(squarevisibleex(v, 6, cHFd({-0.1, -0.1}), 0), VIS_OUTERALL | VIS_INNERALL);
  // One outside the outer but inside the inner is not seen at all.
  EXPECT_EQ(squarevisibleex(v, 6, cHFd({2, 2}), 0), 0);
  free(v);
}

TEST(Visibility, AParentWhollyInsideSkipsTheOuterTest) {
  VIEWPORT* v = bareview({1, 0}, 1.0, 3.0);
  // Even far away: the parent's word says wholly inside.
  EXPECT_EQ(squarevisibleex(v, 6, cHFd({50, 50}), VIS_OUTERALL | VIS_INNERALL),
            VIS_OUTERALL | VIS_INNERALL);
  EXPECT_EQ(squarevisibleex(v, 6, cHFd({2, 2}), VIS_OUTERALL), VIS_OUTERALL);
  free(v);
}

TEST(DepthLimits, FollowTheTableByDirection) {
  VIEWPORT* v = static_cast<VIEWPORT*>(calloc(1, sizeof(VIEWPORT)));
  v->direction = 0;
  v->maxf = 77;
  setdepthlimits(v, 20, 0);
  EXPECT_EQ(v->mindrawdepth, 8);
  EXPECT_EQ(v->maxdrawdepth, 15);
  EXPECT_EQ(v->outermaxdrawdepth, 12);
  EXPECT_EQ(v->mincalcdepth, 13);
  EXPECT_EQ(v->maxcalcdepth, 15);
  EXPECT_EQ(v->mintolerancedepth, 11);
  EXPECT_EQ(v->maxtolerancedepth, 16);
  EXPECT_EQ(v->maxf, 77);
  EXPECT_EQ(v->small, 1.0);
  EXPECT_EQ(v->big, 3.0);
  setdepthlimits(v, 20, MOVEVIEWPORT_HIGHRES | MOVEVIEWPORT_ONLYMAXCALCDEPTH);
  EXPECT_EQ(v->maxcalcdepth, 16);
  EXPECT_EQ(v->maxdrawdepth, 16);
  EXPECT_EQ(v->mincalcdepth, 16);
  v->direction = 1;
  setdepthlimits(v, 20, 0);
  EXPECT_EQ(v->mindrawdepth, 8);
  EXPECT_EQ(v->maxdrawdepth, 16);
  EXPECT_EQ(v->outermaxdrawdepth, 16);
  EXPECT_EQ(v->mincalcdepth, 13);
  EXPECT_EQ(v->maxcalcdepth, 22);
  EXPECT_EQ(v->mintolerancedepth, 12);
  EXPECT_EQ(v->maxtolerancedepth, 22);
  EXPECT_EQ(v->maxf, 0);
  EXPECT_EQ(v->big, 1.25);
  v->direction = -1;
  v->speed = -0.01;
  v->maxf = 5;
  setdepthlimits(v, 20, 0);
  EXPECT_EQ(v->mindrawdepth, 6);
  EXPECT_EQ(v->maxdrawdepth, 14);
  EXPECT_EQ(v->outermaxdrawdepth, 10);
  EXPECT_EQ(v->mincalcdepth, 5);
  EXPECT_EQ(v->maxcalcdepth, 7);
  EXPECT_EQ(v->mintolerancedepth, 5);
  EXPECT_EQ(v->maxtolerancedepth, 14);
  EXPECT_EQ(v->maxf, 5);
  EXPECT_EQ(v->small, 4.0);
  EXPECT_DOUBLE_EQ(v->big, 16.0);
  free(v);
}

// ------------------------------------------------------------ the walk
//
// A general realm without an environment files areas but starts no jobs.

namespace {

struct WALK {
  TileEngine e{8, false};
  REALM* realm = nullptr;
  VIEWPORT* v = nullptr;
  WALK() { realm = newrealm(e, GENERAL); }
  ~WALK() {
    if (v) e.onmain([&](OVCONTEXT* c) { __detachviewport(c, v); });
    detachrealm(e.context, realm);
    e.onmain([](OVCONTEXT*) {});
  }
  int filed(int i = 0) { return v->iviewportarea[i]; }
  void run(OVCONTEXT* c) {
    invalidatearea(c, v, realm->top, relativecorner(v, realm->top->hpvalue), 0, 0);
  }
};

}  // namespace

TEST(ActiveListWalk, PrioritiesFollowDepthAndClampToOneNeverZero) {
  WALK w;
  w.e.onmain([&](OVCONTEXT* c) {
    // The whole top in view: zoom 1/16 shows 32 units.
    w.v = handmadeview(c, w.realm, {0, 0}, {1.0 / 16, 0}, 256, 1);
    w.v->mincalcdepth = 0;
    w.v->maxcalcdepth = 3;
    w.v->mintolerancedepth = 0;
    w.v->maxtolerancedepth = 3;
    w.run(c);
    ASSERT_EQ(w.filed(), 1 + 4 + 16 + 64);
    for (int n = 0; n < w.filed(); n++) {
      VIEWPORTAREA* va = &w.v->viewportarea[0][n];
      int want = 1 + va->a->depth - 3 + 10;
      EXPECT_EQ(va->priority, want);
      EXPECT_EQ(va->a->priority, want);
      EXPECT_FALSE(va->counted);  // no job without an environment
    }
  });
  // A negative base priority clamps to 1.
  w.e.onmain([&](OVCONTEXT* c) {
    VIEWPORT* v2 = handmadeview(c, w.realm, {0, 0}, {1.0 / 16, 0}, 256, -100);
    v2->mincalcdepth = 0;
    v2->maxcalcdepth = 1;
    v2->mintolerancedepth = 0;
    v2->maxtolerancedepth = 1;
    invalidatearea(c, v2, w.realm->top, relativecorner(v2, w.realm->top->hpvalue), 0, 0);
    ASSERT_EQ(v2->iviewportarea[0], 5);
    for (int n = 0; n < 5; n++) EXPECT_EQ(v2->viewportarea[0][n].priority, 1);
    // The area's priority is the least of both views'.
    EXPECT_EQ(w.realm->top->priority, 1);
    for (int n = 0; n < 5; n++) chainrem(&v2->viewportarea[0][n].chain);
    v2->iviewportarea[0] = 0;
    __detachviewport(c, v2);
    setpriorityarea(c, w.realm->top);
    EXPECT_EQ(w.realm->top->priority, 1 + 0 - 3 + 10);
  });
}

TEST(ActiveListWalk, AnAreaAtMaxtolerancedepthIsFiledButNotDescendedThrough) {
  WALK w;
  w.e.onmain([&](OVCONTEXT* c) {
    w.v = handmadeview(c, w.realm, {0, 0}, {1.0 / 16, 0}, 256, 1);
    w.v->mincalcdepth = 0;
    w.v->maxcalcdepth = 3;
    w.v->mintolerancedepth = 0;
    w.v->maxtolerancedepth = 2;
    w.run(c);
    EXPECT_EQ(w.filed(), 1 + 4 + 16);
    // Depth 2 was subdivided (below maxcalcdepth) but its children weren't filed.
    AREA* d2 = w.realm->top->child[0]->child[0];
    ASSERT_NE(d2->child[0], nullptr);
    EXPECT_TRUE(chainempty(&d2->child[0]->viewportchain));
  });
}

TEST(ActiveListWalk, BelowMintolerancedepthAnEntryHasNoInterestAndOutsideTheCalcDepthsItKeeps) {
  WALK w;
  w.e.onmain([&](OVCONTEXT* c) {
    w.v = handmadeview(c, w.realm, {0, 0}, {1.0 / 16, 0}, 256, 1);
    w.v->mincalcdepth = 2;
    w.v->maxcalcdepth = 2;
    w.v->mintolerancedepth = 1;
    w.v->maxtolerancedepth = 2;
    w.run(c);
    ASSERT_EQ(w.filed(), 21);
    for (int n = 0; n < w.filed(); n++) {
      VIEWPORTAREA* va = &w.v->viewportarea[0][n];
      int d = va->a->depth;
      int want = d == 0 ? 0 : d == 1 ? PRIO_KEEP : 1 + 2 - 2 + 10;
      EXPECT_EQ(va->priority, want) << d;
    }
    // A kept area has interest enough to stay off the eviction chain's
    // computing, and no work.
    EXPECT_EQ(w.realm->top->child[0]->priority, PRIO_KEEP);
    EXPECT_EQ(w.realm->top->priority, 0);
  });
}

TEST(ActiveListWalk, ZoomingInAnAreaWhoseDistanceReachesMaxfIsNotFiled) {
  WALK w;
  w.e.onmain([&](OVCONTEXT* c) {
    w.v = handmadeview(c, w.realm, {0, 0}, {1.0 / 16, 0}, 256, 1);
    w.v->direction = 1;
    setdepthlimits(w.v, 4, 0);  // maxf 0
    w.v->mincalcdepth = 0;
    w.v->maxcalcdepth = 2;
    w.v->mintolerancedepth = 0;
    w.v->maxtolerancedepth = 2;
    w.run(c);
    // f = depth + E + 4 - 8, E about log2 of the distance: with maxf 0 only
    // areas with f < 0 are filed, and each with priority f + 11.
    ASSERT_GT(w.filed(), 0);
    for (int n = 0; n < w.filed(); n++) EXPECT_LT(w.v->viewportarea[0][n].priority, 11);
    int total = 0;
    for (int d = 0; d <= 2; d++) total += 1 << (2 * d);
    EXPECT_LT(w.filed(), total);
    // With maxf raised everything is filed.
    for (int n = 0; n < w.filed(); n++) chainrem(&w.v->viewportarea[0][n].chain);
    w.v->iviewportarea[0] = 0;
    w.v->maxf = 100;
    w.run(c);
    EXPECT_EQ(w.filed(), total);
  });
}

TEST(ActiveListWalk, The65537thFilingIsDroppedButSubdivisionGoesOn) {
  WALK w;
  w.e.onmain([&](OVCONTEXT* c) {
    w.v = handmadeview(c, w.realm, {0, 0}, {1.0 / 16, 0}, 256, 1);
    w.v->mincalcdepth = 0;
    w.v->maxcalcdepth = 8;
    w.v->mintolerancedepth = 0;
    w.v->maxtolerancedepth = 8;
    w.run(c);
    // 87381 areas down to depth 8 ask to be filed; the list holds 65536.
    EXPECT_EQ(w.filed(), NVIEWPORTAREA);
    // The areas of depth 7 filed too late were subdivided all the same.
    int atdepth8 = 0;
    for (int i = 0; i < c->na; i++)
      if ((c->a[i].flags & A_ACTIVE) && c->a[i].realm == w.realm && c->a[i].depth == 8) atdepth8++;
    EXPECT_EQ(atdepth8, 1 << 16);
  });
}

TEST(ActiveListWalk, PointsFindTheDeepestDrawableAreaAndItsTexel) {
  WALK w;
  w.e.onmain([&](OVCONTEXT* c) {
    w.v = handmadeview(c, w.realm, {0, 0}, {1.0 / 16, 0}, 256, 1);
    w.v->maxdrawdepth = 2;
    AREA* top = w.realm->top;
    subdivide(c, top);
    AREA* a1 = top->child[2];
    subdivide(c, a1);
    AREA* a2 = a1->child[1];
    ASSERT_NE(texturetest::drawabletile(c, top, 0), nullptr);
    ASSERT_NE(texturetest::drawabletile(c, a2, 0), nullptr);
    HFLOATCOMPLEX tc = relativecorner(w.v, top->hpvalue);
    cd corner = cdHF(tc);
    int x = -1, y = -1;
    // A point in a2 (corner + (8 + 4, 8) + (1, 3)): texel (64, 192).
    cd p = corner + cd(13, 11);
    EXPECT_EQ(areaatpt(c, w.v, top, tc, cHFd(p), &x, &y), a2);
    EXPECT_EQ(x, 64);
    EXPECT_EQ(y, 192);
    // In a1 but not a2: a1 has no tiles, so the top answers.
    p = corner + cd(9, 9);
    EXPECT_EQ(areaatpt(c, w.v, top, tc, cHFd(p), &x, &y), top);
    EXPECT_EQ(x, 144);
    EXPECT_EQ(y, 144);
    // Outside the top.
    EXPECT_EQ(areaatpt(c, w.v, top, tc, cHFd(corner - cd(1, 0)), &x, &y), nullptr);
    EXPECT_TRUE(ptinrect(c, w.v, top, tc, cHFd(corner), &x, &y));
    EXPECT_FALSE(ptinrect(c, w.v, top, tc, cHFd(corner + cd(16, 0)), &x, &y));
    // With maxdrawdepth at the top's depth, children aren't asked.
    w.v->maxdrawdepth = 0;
    EXPECT_EQ(areaatpt(c, w.v, top, tc, cHFd(corner + cd(13, 11)), &x, &y), top);
    for (AREA* a : {top, a2}) droptexture(c, a, 0);
  });
}

TEST(ActiveListWalk, AKeptAreaKeepsItsDataAndStartsNoWork) {
  TileEngine e(16, false);
  REALM* realm = newrealm(e, MANDELBROT);
  e.onmain([&](OVCONTEXT* c) {
    VIEWPORT* v = handmadeview(c, realm, {0, 0}, {1.0 / 16, 0}, 256, 1);
    v->channels = 1;
    AREA* top = realm->top;
    ASSERT_NE(texturetest::drawabletile(c, top, 0), nullptr);
    VIEWPORTAREA* va = &v->viewportarea[0][0];
    va->viewport = v;
    va->a = top;
    va->priority = PRIO_KEEP;
    va->counted = false;
    v->iviewportarea[0] = 1;
    chaininsbegin(&top->viewportchain, &va->chain);
    setpriorityarea(c, top);
    EXPECT_EQ(top->priority, PRIO_KEEP);
    EXPECT_EQ(top->worker, nullptr);
    ASSERT_NE(top->texture[0], nullptr);
    // Its tile is evictable, but still there.
    EXPECT_TRUE(top->texture[0]->flags & T_INDELCHAIN);
    chainrem(&va->chain);
    v->iviewportarea[0] = 0;
    __detachviewport(c, v);
    droptexture(c, top, 0);
  });
  detachrealm(e.context, realm);
  e.onmain([](OVCONTEXT*) {});
}
