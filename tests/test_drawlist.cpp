// Draw lists: preparation and release with the references they hold, the
// choice of the list to build, publication and the display's take, the
// rectangles of an area's own tiles and of an ancestor's, the overflow lines,
// and the fall-back a child of the tree walk inherits.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <string>

#include "test_textures.h"

using texturetest::checkpool;
using texturetest::drawabletile;
using texturetest::newscene;
using texturetest::SCENE;
using texturetest::TileEngine;
using texturetest::TILECOUNTS;
using texturetest::tilecounts;

namespace {

DRAWVIEW view(unsigned int channels, std::complex<double> zoom, unsigned int resolution) {
  DRAWVIEW v;
  v.channels = channels;
  v.resolution = resolution;
  v.zoom = cHFd(zoom);
  v.zoomabs = HFd(std::abs(zoom));
  return v;
}

}  // namespace

TEST(DrawLists, PrepareMakesThreeListsOfFourRectanglesPerStorageTileAndHandsNoneOut) {
  TileEngine e(5);
  e.onmain([&](OVCONTEXT* c) {
    DRAWLISTS lists;
    initdrawlists(&lists);
    EXPECT_EQ(lists.activelist, -1);
    EXPECT_EQ(lists.toactivatelist, -1);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    for (int l = 0; l < NDISPLAYLISTS; l++) {
      EXPECT_NE(lists.drawrect[l], nullptr);
      EXPECT_EQ(lists.ndrawrect[l], 20u);
      EXPECT_EQ(lists.idrawrect[l], 0u);
    }
    lists.activelist = 2;
    lists.toactivatelist = 1;
    DRAWRECT* kept = lists.drawrect[1];
    ASSERT_TRUE(preparedrawlists(c, &lists));
    EXPECT_EQ(lists.drawrect[1], kept);  // made once, emptied afterwards
    EXPECT_EQ(lists.activelist, -1);
    EXPECT_EQ(lists.toactivatelist, -1);
    EXPECT_TRUE(freedrawlists(c, &lists));
    for (DRAWRECT* d : lists.drawrect) EXPECT_EQ(d, nullptr);
  });
}

TEST(DrawLists, WhileTheDisplayHoldsAListNothingIsPreparedOrFreed) {
  TileEngine e(4);
  SCENE s = newscene(e);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* t = drawabletile(c, s.a, 0);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    DRAWVIEW v = view(1, 1.0, 100);
    ASSERT_EQ(appendareatiles(c, &lists, 0, &v, s.a, CZEROH, false), DRAWRECT_DONE);
    publishdrawlist(&lists, 0, 1);
    lockdrawlists(&lists);
    ASSERT_EQ(takedrawlist(&lists), 0);
    EXPECT_TRUE(preparedrawlists(c, &lists));
    EXPECT_EQ(lists.idrawrect[0], 1u);
    EXPECT_EQ(lists.activelist, 0);
    EXPECT_FALSE(freedrawlists(c, &lists));
    EXPECT_NE(lists.drawrect[0], nullptr);
    EXPECT_EQ(t->count, 2);
    unlockdrawlists(&lists);
    EXPECT_TRUE(freedrawlists(c, &lists));
    EXPECT_EQ(t->count, 1);
    EXPECT_EQ(t->memcount, 0);
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  texturetest::endscene(e, s);
}

TEST(DrawLists, TheListBuiltNextIsNeitherTheNewestNorTheOneOnScreen) {
  DRAWLISTS lists;
  initdrawlists(&lists);
  // (toactivatelist, activelist) -> the list to build.
  struct CASE {
    int newest, active, next;
  };
  const CASE cases[] = {{-1, -1, 0}, {-1, 0, 1}, {0, -1, 1}, {0, 1, 2}, {0, 0, 1},
                        {1, 2, 0},   {1, 0, 2},  {2, 0, 1}, {2, 1, 0}, {2, 2, 0}};
  for (const CASE& k : cases) {
    lists.toactivatelist = k.newest;
    lists.activelist = k.active;
    int next = nextdrawlist(&lists);
    EXPECT_EQ(next, k.next) << "newest " << k.newest << " active " << k.active;
    EXPECT_NE(next, k.newest);
    EXPECT_NE(next, k.active);
  }
}

TEST(DrawLists, BeginDropsWhatTheListHeldTwoFramesAgoAndAnEmptyListIsStillPublished) {
  TileEngine e(4);
  SCENE s = newscene(e);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* t = drawabletile(c, s.a, 0);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    DRAWVIEW v = view(1, 1.0, 100);
    int built[4];
    for (int frame = 0; frame < 4; frame++) {
      int l = begindrawlist(c, &lists);
      built[frame] = l;
      EXPECT_EQ(lists.idrawrect[l], 0u);
      // Nothing visible in the last frame: zero rectangles, still published.
      if (frame < 3) {
        ASSERT_EQ(appendareatiles(c, &lists, l, &v, s.a, CZEROH, false), DRAWRECT_DONE);
      }
      publishdrawlist(&lists, l, 40 + frame);
      EXPECT_EQ(lists.toactivatelist, l);
      EXPECT_EQ(lists.cslist[l], 40u + frame);
    }
    EXPECT_EQ(built[0], 0);
    EXPECT_EQ(built[1], 1);
    EXPECT_EQ(built[2], 2);
    EXPECT_EQ(built[3], 0);  // list 0 of frame 0 was emptied for it
    EXPECT_EQ(lists.idrawrect[0], 0u);
    EXPECT_EQ(t->count, 3);  // the area's and lists 1 and 2
    EXPECT_EQ(t->memcount, 2);
    freedrawlists(c, &lists);
    EXPECT_EQ(t->count, 1);
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  texturetest::endscene(e, s);
}

TEST(DrawLists, TheDisplayTakesTheNewestListAndKeepsItLocked) {
  DRAWLISTS lists;
  initdrawlists(&lists);
  lockdrawlists(&lists);
  EXPECT_TRUE(lists.listslocked);
  EXPECT_EQ(takedrawlist(&lists), -1);
  EXPECT_FALSE(lists.listslocked);  // no list: the frame ends at once
  lists.toactivatelist = 2;
  lockdrawlists(&lists);
  EXPECT_EQ(takedrawlist(&lists), 2);
  EXPECT_EQ(lists.activelist, 2);
  EXPECT_TRUE(lists.listslocked);
  unlockdrawlists(&lists);
  EXPECT_FALSE(lists.listslocked);
}

TEST(DrawLists, AnAreasOwnTilesMakeOneRectangleWithItsCornersUnderTheZoom) {
  TileEngine e(4);
  SCENE s = newscene(e);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* t0 = drawabletile(c, s.a, 0);
    drawabletile(c, s.a, 1);  // not asked for
    TEXTURE* t5 = drawabletile(c, s.a, 5);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    std::complex<double> zoom(0.5, 0.25), coord(0.25, -0.5);
    DRAWVIEW v = view(0x21, zoom, 1000);
    ASSERT_EQ(s.a->depth, 1);  // side 8
    ASSERT_EQ(appendareatiles(c, &lists, 1, &v, s.a, cHFd(coord), false), DRAWRECT_DONE);
    ASSERT_EQ(lists.idrawrect[1], 1u);
    const DRAWRECT& dr = lists.drawrect[1][0];
    EXPECT_EQ(dr.ichannels, 2);
    EXPECT_EQ(dr.texture[0], t0);
    EXPECT_EQ(dr.channel[0], 0);
    EXPECT_EQ(dr.texture[1], t5);
    EXPECT_EQ(dr.channel[1], 5);
    EXPECT_EQ(t0->count, 2);
    EXPECT_EQ(t0->memcount, 1);
    EXPECT_EQ(t5->memcount, 1);
    EXPECT_EQ(dr.x0, 0);
    EXPECT_EQ(dr.y0, 0);
    EXPECT_EQ(dr.x1, 256);
    EXPECT_EQ(dr.y1, 256);
    EXPECT_EQ(dr.epsilon, 1.0f / 256);
    const std::complex<double> offset[4] = {{0, 0}, {8, 0}, {8, 8}, {0, 8}};
    for (int k = 0; k < 4; k++) {
      std::complex<double> want = (coord + offset[k]) * zoom;
      EXPECT_NEAR(dr.c[k][0], want.real(), 1e-6) << "corner " << k;
      EXPECT_NEAR(dr.c[k][1], want.imag(), 1e-6) << "corner " << k;
    }
    // resolution / 2 * |zoom| * side / width
    EXPECT_NEAR(dr.correction, 1000 * 0.5 * std::abs(zoom) * 8 / 256, 1e-4);
    freedrawlists(c, &lists);
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  texturetest::endscene(e, s);
}

TEST(DrawLists, AnAncestorsTilesDrawTheirSubSquareAndAZeroZoomGivesNoCorrection) {
  TileEngine e(4);
  SCENE s = newscene(e);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* t = drawabletile(c, s.a, 3);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    DRAWVIEW v = view(0x8, std::complex<double>(2, 0), 512);
    // A child of depth 4 (side 1), drawn from texels 64..96, 128..160.
    ASSERT_EQ(appenddrawrect(c, &lists, 0, &v, s.a->texture, CZEROH, 4, 64, 128, 32, 0.5f, false),
              DRAWRECT_DONE);
    const DRAWRECT& dr = lists.drawrect[0][0];
    EXPECT_EQ(dr.texture[0], t);
    EXPECT_EQ(dr.channel[0], 3);
    EXPECT_EQ(dr.x0, 64);
    EXPECT_EQ(dr.y0, 128);
    EXPECT_EQ(dr.x1, 96);
    EXPECT_EQ(dr.y1, 160);
    EXPECT_EQ(dr.epsilon, 0.5f);
    EXPECT_NEAR(dr.c[2][0], 2.0, 1e-6);
    EXPECT_NEAR(dr.c[2][1], 2.0, 1e-6);
    EXPECT_NEAR(dr.correction, 512 * 0.5 * 2 * 1.0 / 32, 1e-4);
    DRAWVIEW still = v;
    still.zoomabs = ZEROH;
    ASSERT_EQ(appendareatiles(c, &lists, 0, &still, s.a, CZEROH, false), DRAWRECT_DONE);
    EXPECT_EQ(lists.drawrect[0][1].correction, 0.0f);
    freedrawlists(c, &lists);
    resetarea(c, s.a, true);
  });
  texturetest::endscene(e, s);
}

TEST(DrawLists, AMissingChannelAddsNothingAndTakesNoReference) {
  TileEngine e(4);
  SCENE s = newscene(e);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* good = drawabletile(c, s.a, 0);
    TEXTURE* unfinished = addt(c, s.a);
    s.a->texture[2] = unfinished;
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    TILECOUNTS before = tilecounts(c);
    for (unsigned int channels : {0x5u, 0x3u}) {
      DRAWVIEW v = view(channels, 1.0, 100);
      EXPECT_EQ(appendareatiles(c, &lists, 0, &v, s.a, CZEROH, false), DRAWRECT_MISSING);
    }
    EXPECT_EQ(lists.idrawrect[0], 0u);
    EXPECT_EQ(good->count, 1);
    EXPECT_EQ(good->memcount, 0);
    EXPECT_EQ(unfinished->memcount, 0);
    EXPECT_EQ(tilecounts(c), before);
    freedrawlists(c, &lists);
    resetarea(c, s.a, true);
    EXPECT_EQ(checkpool(c), "");
  });
  texturetest::endscene(e, s);
}

TEST(DrawLists, AFullListPrintsTheWalksOverflowLineAndDropsTheRectangle) {
  TileEngine e(4);
  SCENE s = newscene(e);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* t = drawabletile(c, s.a, 0);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    lists.ndrawrect[2] = 1;
    DRAWVIEW v = view(1, 1.0, 100);
    testing::internal::CaptureStderr();
    EXPECT_EQ(appendareatiles(c, &lists, 2, &v, s.a, CZEROH, false), DRAWRECT_DONE);
    EXPECT_EQ(appendareatiles(c, &lists, 2, &v, s.a, CZEROH, false), DRAWRECT_FULL);
    EXPECT_EQ(appendareatiles(c, &lists, 2, &v, s.a, CZEROH, true), DRAWRECT_FULL);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "drawarea: drawrect overflow.\ndrawareaspecial: drawrect overflow.\n");
    EXPECT_EQ(lists.idrawrect[2], 1u);
    EXPECT_EQ(t->count, 2);
    freedrawlists(c, &lists);
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  texturetest::endscene(e, s);
}

TEST(DrawLists, AChildInheritsOwnNewerTilesOrTheAncestorsQuarterDownToOneTexel) {
  TEXTURE own[NCHANNELS] = {}, old[NCHANNELS] = {};
  AREA a{};
  TEXTURE* ancestor[NCHANNELS] = {};
  for (int i = 0; i < NCHANNELS; i++) {
    own[i].flags = old[i].flags = T_USED | T_GLVALID;
    own[i].computecycle = old[i].computecycle = 4;
    ancestor[i] = &old[i];
  }
  // No tiles of its own: the ancestor's quarter of the inherited square.
  DRAWFALLBACK parent{ancestor, 1.0f / 256, 64, 32, 8};
  const int qx[4] = {0, 4, 4, 0}, qy[4] = {0, 0, 4, 4};
  for (int k = 0; k < 4; k++) {
    DRAWFALLBACK f = childfallback(&a, &parent, 0x1, k);
    EXPECT_EQ(f.texture, ancestor);
    EXPECT_EQ(f.epsilon, 1.0f / 256);
    EXPECT_EQ(f.x0, 64 + qx[k]);
    EXPECT_EQ(f.y0, 32 + qy[k]);
    EXPECT_EQ(f.width, 4);
  }
  // A width of 1 is not split: the children get nothing.
  parent.width = 1;
  DRAWFALLBACK none = childfallback(&a, &parent, 0x1, 2);
  EXPECT_EQ(none.texture, nullptr);
  EXPECT_EQ(none.width, 0);
  EXPECT_EQ(none.epsilon, 0.0f);
  // Own tiles of the same cycle count as newer: the children get their
  // quarters of them.
  for (int i = 0; i < NCHANNELS; i++) a.texture[i] = &own[i];
  for (int k = 0; k < 4; k++) {
    DRAWFALLBACK f = childfallback(&a, &parent, 0x1, k);
    EXPECT_EQ(f.texture, a.texture);
    EXPECT_EQ(f.x0, 128 * qx[k] / 4);
    EXPECT_EQ(f.y0, 128 * qy[k] / 4);
    EXPECT_EQ(f.width, 128);
  }
  // Own tiles older than the ancestor's: the ancestor's go on, or nothing.
  own[0].computecycle = 3;
  EXPECT_EQ(childfallback(&a, &parent, 0x1, 0).texture, nullptr);
  parent.width = 2;
  EXPECT_EQ(childfallback(&a, &parent, 0x1, 0).texture, ancestor);
  // At the top there is no ancestor: own drawable tiles are passed down.
  DRAWFALLBACK top{nullptr, 0, 0, 0, 0};
  EXPECT_EQ(childfallback(&a, &top, 0x1, 3).texture, a.texture);
}
