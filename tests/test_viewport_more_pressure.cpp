// Two views sharing a tile pool too small for both: while the display holds
// a list of the first, the second takes storage from it, first from the
// lists not on screen; what the first lost is computed again when it is
// next invalidated, and it completes with every tile drawable and right.
#include <gtest/gtest.h>

#include <set>

#include "test_viewport.h"

using namespace viewporttest;

namespace {

struct VIEW {
  TileEngine& e;
  REALM* realm;
  VIEWPORT* v;
  FINISHCOUNT count;
  VIEW(TileEngine& engine, std::complex<double> d, std::complex<double> z) : e(engine) {
    realm = newrealm(e, MANDELBROT);
    v = addviewport(e.context, realm, nullptr, 256, 256, countfinish, &count);
    e.onmain([&](OVCONTEXT*) { v->channels = 8; });
    moveviewport(e.context, v, cHFd(d), cHFd(z), -1, -1, CZEROH, ZEROH, 0);
    activateviewport(e.context, v, 1);
  }
  ~VIEW() {
    detachviewport(e.context, v);
    detachrealm(e.context, realm);
    e.onmain([](OVCONTEXT*) {});
  }
  void waitfinish(int n) {
    waitfor([&] { return count.finish.load() >= n; });
  }
  std::vector<AREA*> wanted() const {
    std::vector<AREA*> out;
    int i = (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1;
    for (int k = 0; k < v->iviewportarea[i]; k++) {
      const VIEWPORTAREA& va = v->viewportarea[i][k];
      if (va.priority > 0 && va.priority != PRIO_KEEP) out.push_back(va.a);
    }
    return out;
  }
};

bool hasstorage(const AREA* a) {
  return a->texture[3] && a->texture[3]->pixels && (a->texture[3]->flags & T_GLVALID);
}

// Channel 3 of every wanted area against a brute-force count at a few texels.
void checkcounts(const std::vector<AREA*>& areas) {
  int escaped = 0;
  for (AREA* a : areas) {
    ASSERT_TRUE(hasstorage(a));
    const float* p = static_cast<const float*>(a->texture[3]->pixels);
    long double step = areaside(a) / TEXTURESIZE;
    for (int k = 0; k < 16; k++) {
      int tx = 8 + 16 * k, ty = 255 - 16 * k;
      float value = p[ty * TEXTURESIZE + tx];
      std::complex<long double> c =
          areacorner(a) + std::complex<long double>((tx + 0.5L) * step, (ty + 0.5L) * step);
      int n = escapecount(c);
      if (value > 0) {
        EXPECT_NEAR(value, n, 1.0);
        escaped++;
      } else if (value < 0) {
        EXPECT_EQ(n, -1);
      }
    }
  }
  EXPECT_GT(escaped, 0);
}

}  // namespace

TEST(ViewportStress, StorageTakenUnderStressIsComputedAgainAndAListOnScreenGoesLast) {
  // Room for either view's tiles, not for both.
  TileEngine e(12, false);
  VIEW first(e, {0, 0}, {1, 0});
  first.waitfinish(1);
  size_t nfirst = 0;
  int screen = -1;
  e.onmain([&](OVCONTEXT*) {
    nfirst = first.wanted().size();
    for (AREA* a : first.wanted()) EXPECT_TRUE(hasstorage(a));
    // The display takes the newest list and holds it.
    lockdrawlists(first.v);
    screen = takedrawlist(first.v);
  });
  ASSERT_GE(screen, 0);
  ASSERT_GT(nfirst, 4u);

  // Far away and four times closer: none of the first view's areas.
  VIEW second(e, {1.5, 1.0}, {4, 0});
  second.waitfinish(1);
  int lost = 0;
  size_t nsecond = 0;
  e.onmain([&](OVCONTEXT*) {
    nsecond = second.wanted().size();
    for (AREA* a : first.wanted()) lost += !hasstorage(a);
    for (AREA* a : second.wanted()) lost += !hasstorage(a);
    // A list on screen that still holds rectangles holds its tiles' storage;
    // one given up went after the first view's other lists.
    DRAWRECT* rects = first.v->drawrect[screen];
    for (unsigned int r = 0; r < first.v->idrawrect[screen]; r++)
      for (int k = 0; k < rects[r].ichannels; k++) EXPECT_NE(rects[r].texture[k]->pixels, nullptr);
    if (first.v->idrawrect[screen] == 0)
      for (int l = 0; l < NDISPLAYLISTS; l++)
        if (l != screen && l != first.v->toactivatelist) {
          EXPECT_EQ(first.v->idrawrect[l], 0u) << l;
        }
  });
  // Both views' areas didn't fit: storage was taken from tiles still wanted.
  EXPECT_GT(nfirst + nsecond, 12u);
  EXPECT_GT(lost, 0);

  // The display lets go and the first view ends; the second, invalidated,
  // computes again what it lost and completes with every tile there.
  unlocklist(e.context, first.v);
  deactivateviewport(e.context, first.v);
  moveviewport(e.context, second.v, CZEROH, CONEH, -1, -1, CZEROH, ZEROH, 0);
  second.waitfinish(2);
  e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(second.v->ivainvalid, 0);
    std::vector<AREA*> areas = second.wanted();
    EXPECT_EQ(areas.size(), nsecond);
    checkcounts(areas);
  });
}
