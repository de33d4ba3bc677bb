// A Julia realm's view of one level of its stack's grid: the walk files
// exactly the grid's areas of that level, waits for those not finished, and
// the draw shows exactly them; once they are all there, a new walk waits for
// nothing and completes within the invalidation.
#include <gtest/gtest.h>

#include <set>

#include "test_viewport.h"

using namespace viewporttest;

namespace {

// Levels of four tiles along a side: level 0 at depth 4, side 1.
constexpr int JSHIFT = 10;
constexpr int NMEM = 96;

struct JULIAENGINE {
  OVCONTEXT* context;
  void* memory;
  JULIAENGINE() {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    memory = calloc(NMEM, TEXTUREBYTES);
    EXPECT_TRUE(initcontext(context, enginetest::TESTMEMORY, 4, JSHIFT, NMEM, memory, nullptr, nullptr,
                            nullptr, nullptr, nullptr, "/tmp/", 0));
  }
  ~JULIAENGINE() {
    freecontext(context);
    free(context);
    free(memory);
  }
  void onmain(std::function<void(OVCONTEXT*)> fn) {
    enginetest::CALL call;
    call.fn = std::move(fn);
    WORKER* w = addworker(context, THREAD_MAIN, enginetest::worker_call);
    ASSERT_NE(w, nullptr);
    w->pdata[0] = &call;
    dispatch(context, w);
    waitfor([&] { return call.done.load(); });
  }
};

}  // namespace

// A parameter outside the Mandelbrot set: its Julia set is dust, and every
// point leaves soon.
TEST(ViewportJuliaGrid, ALevelOfTheGridIsFiledWaitedForAndDrawnExactly) {
  JULIAENGINE e;
  REALM* realm = addrealm(e.context, JULIA);
  ASSERT_NE(realm, nullptr);
  e.onmain([&](OVCONTEXT* c) {
    realm->flags = 0;
    realm->info.c = addhpv(c, 64);
    mpf_set_d(realm->info.c->v[0], 0.5);
    mpf_set_d(realm->info.c->v[1], 0.3);
  });
  FINISHCOUNT count;
  VIEWPORT* v = addviewport(e.context, realm, nullptr, 256, 256, countfinish, &count);
  const int level = 1;
  int n = 0, target = 0;
  e.onmain([&](OVCONTEXT* c) {
    v->special = level;
    v->channels = 1 | 8;
    n = 1 << realm->juliastacksizeshift;
    target = c->juliasizeshift - 6 + level;
  });
  ASSERT_EQ(n, 4);
  activateviewport(e.context, v, 1);
  std::set<AREA*> filed;
  e.onmain([&](OVCONTEXT*) {
    if (count.finish.load() > 0) return;
    int i = (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1;
    // Every entry: an area of the level, in the grid, priority 1, waited for.
    std::set<std::pair<int, int>> places;
    for (int k = 0; k < v->iviewportarea[i]; k++) {
      const VIEWPORTAREA& va = v->viewportarea[i][k];
      EXPECT_EQ(va.a->depth, target);
      EXPECT_EQ(va.priority, 1);
      EXPECT_TRUE(va.a->xinner >= 0 && va.a->xinner < n && va.a->yinner >= 0 && va.a->yinner < n);
      EXPECT_TRUE(va.counted || isdrawable(v, va.a));
      places.insert({va.a->xinner, va.a->yinner});
      filed.insert(va.a);
    }
    EXPECT_EQ(v->iviewportarea[i], n * n);
    EXPECT_EQ(static_cast<int>(places.size()), n * n);
  });
  waitfor([&] { return count.finish.load() >= 1; });
  e.onmain([&](OVCONTEXT*) {
    int i = (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1;
    ASSERT_EQ(v->iviewportarea[i], n * n);
    std::set<AREA*> now;
    for (int k = 0; k < v->iviewportarea[i]; k++) now.insert(v->viewportarea[i][k].a);
    if (!filed.empty()) {
      EXPECT_EQ(now, filed);
    }
    // The level's square is [-1, 1]^2: each area where the grid says.
    for (AREA* a : now) {
      std::complex<long double> corner = areacorner(a);
      EXPECT_NEAR(static_cast<double>(corner.real()), -1 + a->xinner * 0.5, 1e-12);
      EXPECT_NEAR(static_cast<double>(corner.imag()), -1 + a->yinner * 0.5, 1e-12);
      EXPECT_TRUE(isdrawable(v, a));
    }
    // The draw shows exactly those areas' own tiles.
    std::vector<RECTCOPY> rects = publishedlist(v);
    std::set<AREA*> drawn;
    for (const RECTCOPY& r : rects) {
      EXPECT_EQ(r.x0, 0);
      EXPECT_EQ(r.x1, TEXTURESIZE);
      EXPECT_EQ(r.ichannels, 2);
      drawn.insert(r.area[0]);
      EXPECT_EQ(r.area[0], r.area[1]);
      // Its corners are the area's square under the view's zoom.
      HPVALUE* d = v->delta;
      std::complex<double> rel = std::complex<double>(areacorner(r.area[0])) -
                                 std::complex<double>(mpf_get_d(d->v[0]), mpf_get_d(d->v[1]));
      std::complex<double> s0 = rel * cdHF(v->zoom);
      EXPECT_NEAR(std::abs(r.c[0] - s0), 0, 1e-5);
    }
    EXPECT_EQ(rects.size(), static_cast<size_t>(n * n));
    EXPECT_EQ(drawn, now);
  });
  // All there: a new walk waits for nothing, and completes at once.
  e.onmain([&](OVCONTEXT* c) {
    invalidate(c, v);
    EXPECT_EQ(count.finish.load(), 2);
    EXPECT_EQ(v->ivainvalid, 0);
    int i = (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1;
    for (int k = 0; k < v->iviewportarea[i]; k++) EXPECT_FALSE(v->viewportarea[i][k].counted);
  });
  detachviewport(e.context, v);
  detachrealm(e.context, realm);
  e.onmain([](OVCONTEXT*) {});
}
