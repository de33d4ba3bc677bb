// Tiles: the record pool and its reclaim, the storage pool and the chain of
// the oldest unlocked storage, the failure lines, the stress step on a
// viewport's lists, the freshness test of the tree walk, the release of an
// area's tiles by removea and resetarea, and the upload through the GL queue
// and back to the main thread.
//
// Pool operations run on the engine's main thread; the test thread plays the
// frame loop that drains the GL queue.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_textures.h"

using texturetest::checkpool;
using texturetest::delchainorder;
using texturetest::drawabletile;
using texturetest::memchainorder;
using texturetest::newscene;
using texturetest::SCENE;
using texturetest::TileEngine;
using texturetest::TILECOUNTS;
using texturetest::tilecounts;

namespace {

// A list of the given index holding one rectangle of `t` alone (channel 0),
// with the reference and the lock that a drawn rectangle holds.
void holdinlist(OVCONTEXT* c, DRAWLISTS* lists, int list, TEXTURE* t) {
  DRAWRECT* dr = &lists->drawrect[list][lists->idrawrect[list]];
  dr->ichannels = 1;
  dr->texture[0] = t;
  dr->channel[0] = 0;
  attacht(t);
  lockmemtexture(c, t);
  lists->idrawrect[list] = lists->idrawrect[list] + 1;
}

}  // namespace

// ------------------------------------------------------------ set-up and records

TEST(Textures, StartHasEveryStorageTileOnTheChainAndNoRecordInUse) {
  TileEngine e(4);
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(c->ntexture, 8);
    EXPECT_EQ(c->nmemtexture, 4);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
    std::vector<TEXTURE*> chain = memchainorder(c);
    ASSERT_EQ(chain.size(), 4u);
    for (TEXTURE* t : chain) EXPECT_LT(t - c->texture, 4);
    EXPECT_EQ(checkpool(c), "");
  });
}

TEST(Textures, AddtHandsOutRecordsInBlockOrderWithTheStorageTheyCarry) {
  TileEngine e(4);
  SCENE s = newscene(e);
  e.onmain([&](OVCONTEXT* c) {
    s.realm->computecycle = 17;
    std::vector<TEXTURE*> t;
    for (int i = 0; i < 5; i++) t.push_back(addt(c, s.a));
    for (int i = 0; i < 5; i++) {
      ASSERT_EQ(t[i], &c->texture[i]);
      EXPECT_EQ(t[i]->count, 1);
      EXPECT_EQ(t[i]->memcount, 0);
      EXPECT_EQ(t[i]->area, s.a);
      EXPECT_EQ(t[i]->computecycle, 17u);
      EXPECT_EQ(t[i]->nextrem, nullptr);
    }
    for (int i = 0; i < 4; i++) {
      EXPECT_NE(t[i]->pixels, nullptr);
      EXPECT_EQ(t[i]->texture, i);
      EXPECT_EQ(t[i]->flags, T_USED | T_INMEMCHAIN);
    }
    EXPECT_EQ(t[4]->pixels, nullptr);
    EXPECT_EQ(t[4]->texture, -1);
    EXPECT_EQ(t[4]->flags, T_USED);
    EXPECT_EQ(c->itexture, 5);
    EXPECT_EQ(checkpool(c), "");
    // Last freed, first handed out again.
    detacht(c, t[1]);
    detacht(c, t[3]);
    EXPECT_EQ(t[3]->flags, T_FREE);
    EXPECT_EQ(addt(c, s.a), t[3]);
    EXPECT_EQ(addt(c, s.a), t[1]);
    for (TEXTURE* x : t) detacht(c, x);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
    EXPECT_EQ(checkpool(c), "");
  });
  texturetest::endscene(e, s);
}

TEST(Textures, DetachtOfNullDoesNothingAndOfAFreedRecordPrintsAlreadyDeleted) {
  TileEngine e(4);
  SCENE s = newscene(e);
  e.onmain([&](OVCONTEXT* c) {
    testing::internal::CaptureStderr();
    detacht(c, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    TEXTURE* t = addt(c, s.a);
    attacht(t);
    EXPECT_EQ(t->count, 2);
    detacht(c, t);
    EXPECT_EQ(c->itexture, 1);
    detacht(c, t);
    EXPECT_EQ(c->itexture, 0);
    TILECOUNTS before = tilecounts(c);
    testing::internal::CaptureStderr();
    detacht(c, t);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "detacht: FATAL ERROR: already deleted.\n");
    EXPECT_EQ(tilecounts(c), before);
    EXPECT_EQ(t->flags, T_FREE);
    EXPECT_EQ(checkpool(c), "");
  });
  texturetest::endscene(e, s);
}

TEST(Textures, AddtReportsAFreeRecordWhoseStorageIsOffTheChainAndRelinksIt) {
  TileEngine e(4);
  SCENE s = newscene(e);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* next = c->rtexture;
    ASSERT_NE(next->pixels, nullptr);
    chainrem(&next->memchain);
    next->memchain.prev = next->memchain.next = nullptr;
    c->itexturememchain--;
    testing::internal::CaptureStderr();
    TEXTURE* t = addt(c, s.a);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "addt: FATAL ERROR\n");
    EXPECT_EQ(t, next);
    EXPECT_EQ(t->flags, T_USED | T_INMEMCHAIN);
    EXPECT_EQ(c->itexturememchain, 4);
    EXPECT_EQ(checkpool(c), "");
    detacht(c, t);
  });
  texturetest::endscene(e, s);
}

// ------------------------------------------------------------ storage and the chains

TEST(Textures, LockKeepsItsOwnStorageAndTheChainsFollowTheAreasInterest) {
  TileEngine e(4);
  SCENE s = newscene(e, 5);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* t = addt(c, s.a);
    s.a->texture[0] = t;
    void* pixels = t->pixels;
    s.a->computecycle = 9;
    lockmemtexture(c, t);
    EXPECT_EQ(t->pixels, pixels);
    EXPECT_EQ(t->memcount, 1);
    EXPECT_EQ(t->computecycle, 9u);
    EXPECT_EQ(t->flags, T_USED);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{1, 3, 0}));
    // The area wants the tile: unlocked, it stays off both chains.
    unlockmemtexture(c, t, true);
    EXPECT_EQ(t->flags, T_USED | T_GLVALID);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{1, 3, 0}));
    // No interest, then "no interest but keep": filed on both, once.
    for (int prio : {0, PRIO_LAST}) {
      s.a->priority = prio;
      checktexturestatus(c, t);
      checktexturestatus(c, t);
      EXPECT_EQ(t->flags, T_USED | T_GLVALID | T_INMEMCHAIN | T_INDELCHAIN);
      EXPECT_EQ(tilecounts(c), (TILECOUNTS{1, 4, 1}));
      EXPECT_EQ(memchainorder(c).back(), t);  // the youngest entry
    }
    s.a->priority = 3;
    checktexturestatus(c, t);
    EXPECT_EQ(t->flags, T_USED | T_GLVALID);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{1, 3, 0}));
    // A lock takes an evictable tile off both chains.
    s.a->priority = 0;
    checktexturestatus(c, t);
    lockmemtexture(c, t);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{1, 3, 0}));
    unlockmemtexture(c, t, false);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{1, 4, 1}));
    EXPECT_EQ(checkpool(c), "");
    droptexture(c, s.a, 0);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  texturetest::endscene(e, s);
}

TEST(Textures, ExhaustedStorageGoesFromTheOldestUnlockedTileNeverFromALockedOne) {
  TileEngine e(4);
  SCENE s = newscene(e, 0);  // an area of no interest: its unlocked tiles are evictable
  e.onmain([&](OVCONTEXT* c) {
    std::vector<TEXTURE*> t;
    for (int i = 0; i < 4; i++) {
      t.push_back(addt(c, s.a));
      s.a->texture[i] = t[i];
      lockmemtexture(c, t[i]);
    }
    std::vector<void*> pixels;
    for (TEXTURE* x : t) pixels.push_back(x->pixels);
    // t2 released before t0; t1 and t3 stay locked.
    unlockmemtexture(c, t[2], true);
    unlockmemtexture(c, t[0], true);
    EXPECT_EQ(memchainorder(c), (std::vector<TEXTURE*>{t[2], t[0]}));
    EXPECT_EQ(delchainorder(c), (std::vector<TEXTURE*>{t[2], t[0]}));

    // The fifth tile has no storage of its own: it takes t2's, the oldest.
    TEXTURE* t4 = addt(c, s.a);
    s.a->texture[4] = t4;
    ASSERT_EQ(t4->pixels, nullptr);
    lockmemtexture(c, t4);
    EXPECT_EQ(t4->pixels, pixels[2]);
    EXPECT_EQ(t4->texture, 2);
    EXPECT_EQ(t4->flags & T_GLVALID, 0u);  // no validity is inherited
    EXPECT_EQ(t[2]->pixels, nullptr);
    EXPECT_EQ(t[2]->texture, -1);
    EXPECT_EQ(t[2]->flags, T_USED | T_INDELCHAIN);  // lost T_GLVALID, kept its record
    EXPECT_EQ(s.a->texture[2], t[2]);
    EXPECT_EQ(t[2]->count, 1);

    // The sixth takes t0's.
    TEXTURE* t5 = addt(c, s.a);
    s.a->texture[5] = t5;
    lockmemtexture(c, t5);
    EXPECT_EQ(t5->pixels, pixels[0]);
    EXPECT_EQ(t[0]->pixels, nullptr);
    EXPECT_EQ(t[0]->flags & T_GLVALID, 0u);
    EXPECT_TRUE(memchainorder(c).empty());

    // Six records in use is full; the oldest on the deletion chain, t2, is
    // reclaimed whole: out of its slot, its record handed out again.
    EXPECT_EQ(c->itexture, 6);
    TEXTURE* t6 = addt(c, s.a);
    ASSERT_EQ(t6, t[2]);
    EXPECT_EQ(s.a->texture[2], nullptr);
    EXPECT_EQ(c->itexture, 6);
    EXPECT_EQ(delchainorder(c), (std::vector<TEXTURE*>{t[0]}));
    s.a->texture[6] = t6;

    // All four storage tiles locked and no viewport to give any up.
    testing::internal::CaptureStderr();
    lockmemtexture(c, t6);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "texture mem overflow.\n");
    EXPECT_EQ(t6->pixels, nullptr);
    EXPECT_EQ(t6->texture, -1);
    EXPECT_EQ(t[1]->pixels, pixels[1]);
    EXPECT_EQ(t[3]->pixels, pixels[3]);
    EXPECT_EQ(t4->pixels, pixels[2]);
    EXPECT_EQ(t5->pixels, pixels[0]);
    EXPECT_EQ(checkpool(c), "");
    // The failed lock is paired with its unlock like any other.
    EXPECT_EQ(t6->memcount, 1);
    unlockmemtexture(c, t6, true);
    EXPECT_EQ(t6->memcount, 0);
    EXPECT_EQ(t6->flags & T_GLVALID, 0u);  // nothing without pixels is drawable
    for (TEXTURE* x : {t[1], t[3], t4, t5}) unlockmemtexture(c, x, false);
    EXPECT_EQ(checkpool(c), "");
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
    EXPECT_EQ(checkpool(c), "");
  });
  texturetest::endscene(e, s);
}

TEST(Textures, AddtWithNothingToReclaimPrintsTextureOverflow) {
  TileEngine e(4);
  SCENE s = newscene(e, 5);  // wanted: nothing is evictable
  e.onmain([&](OVCONTEXT* c) {
    for (int i = 0; i < 6; i++) {
      s.a->texture[i] = addt(c, s.a);
      ASSERT_NE(s.a->texture[i], nullptr);
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(addt(c, s.a), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "texture overflow.\n");
    EXPECT_EQ(c->itexture, 6);
    // One area loses interest: its tile is reclaimed, and the area, bare
    // now, becomes evictable itself.
    AREA* b = s.realm->top->child[1];
    b->priority = 0;
    TEXTURE* moved = s.a->texture[5];
    s.a->texture[5] = nullptr;
    b->texture[0] = moved;
    moved->area = b;
    updatedelchain(c, b);
    EXPECT_FALSE(b->flags & A_INDELCHAIN);
    checktexturestatus(c, moved);
    TEXTURE* t = addt(c, s.a);
    EXPECT_EQ(t, moved);
    EXPECT_EQ(b->texture[0], nullptr);
    EXPECT_TRUE(b->flags & A_INDELCHAIN);
    s.a->texture[5] = t;
    EXPECT_EQ(checkpool(c), "");
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  texturetest::endscene(e, s);
}

// ------------------------------------------------------------ the stress step

TEST(Textures, TexturestressPicksTheListByTheActiveAndTheNewest) {
  TileEngine e(4);
  SCENE s = newscene(e, 5);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* t[3];
    for (int i = 0; i < 3; i++) t[i] = drawabletile(c, s.a, i);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    // (activelist, toactivatelist) -> the list that loses its references,
    // with every list holding one rectangle.
    struct CASE {
      int active, newest, freed;
    };
    const CASE cases[] = {{-1, -1, 0}, {-1, 0, 1}, {-1, 1, 0}, {-1, 2, 0}, {0, -1, 1},
                          {0, 1, 2},   {0, 2, 1},  {1, 0, 1},  {1, 2, 0},  {2, 0, 1},
                          {2, 1, 0},   {0, 0, 1},  {1, 1, 0},  {2, 2, 0}};
    for (const CASE& k : cases) {
      for (int l = 0; l < 3; l++) holdinlist(c, &lists, l, t[l]);
      lists.activelist = k.active;
      lists.toactivatelist = k.newest;
      texturestress(c, &lists);
      for (int l = 0; l < 3; l++) {
        bool freed = l == k.freed;
        EXPECT_EQ(lists.idrawrect[l], freed ? 0u : 1u)
            << "active " << k.active << " newest " << k.newest << " list " << l;
        EXPECT_EQ(t[l]->count, freed ? 1 : 2);
        EXPECT_EQ(t[l]->memcount, freed ? 0 : 1);
      }
      lists.activelist = -1;
    lists.toactivatelist = -1;
      for (int l = 0; l < 3; l++) freetexturesinlist(c, &lists, l);
    }
    // The chosen list is empty: the active list goes instead; with none
    // active, nothing does.
    holdinlist(c, &lists, 2, t[2]);
    lists.activelist = 2;
    lists.toactivatelist = 1;  // chooses list 0, which is empty
    texturestress(c, &lists);
    EXPECT_EQ(lists.idrawrect[2], 0u);
    EXPECT_EQ(t[2]->count, 1);
    holdinlist(c, &lists, 2, t[2]);
    lists.activelist = -1;
    lists.toactivatelist = -1;
    texturestress(c, &lists);
    EXPECT_EQ(lists.idrawrect[2], 1u);
    EXPECT_EQ(t[2]->count, 2);
    lists.activelist = -1;
    lists.toactivatelist = -1;
    EXPECT_TRUE(freedrawlists(c, &lists));
    EXPECT_EQ(checkpool(c), "");
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  texturetest::endscene(e, s);
}

TEST(Textures, WithActiveOneAndNewestZeroTheStressStepFreesTheActiveList) {
  TileEngine e(4);
  SCENE s = newscene(e, 5);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* t = drawabletile(c, s.a, 0);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    for (int l = 0; l < 3; l++) holdinlist(c, &lists, l, t);
    lists.activelist = 1;
    lists.toactivatelist = 0;
    texturestress(c, &lists);
    EXPECT_EQ(lists.idrawrect[0], 1u);
    EXPECT_EQ(lists.idrawrect[1], 0u);
    EXPECT_EQ(lists.idrawrect[2], 1u);
    EXPECT_EQ(t->count, 3);
    lists.activelist = -1;
    lists.toactivatelist = -1;
    freedrawlists(c, &lists);
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  texturetest::endscene(e, s);
}

// The storage of the display's lists is given up under pressure: a lock that
// finds the chain empty asks the active viewports, one list at a time.
TEST(Textures, LockWithAllStorageHeldByAListTakesItFromTheActiveViewport) {
  TileEngine e(4);
  SCENE s = newscene(e, 0);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* t[4];
    for (int i = 0; i < 4; i++) t[i] = drawabletile(c, s.a, i);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    for (int i = 0; i < 4; i++) holdinlist(c, &lists, 0, t[i]);
    lists.toactivatelist = 0;
    EXPECT_TRUE(memchainorder(c).empty());
    chaininsbegin(&c->vpactivechain, &lists.activechain);

    // Newest 0, none active: the stress step chooses list 1, empty, and
    // there is no active list to fall back on.
    TEXTURE* u = addt(c, nullptr);
    void* pixels0 = t[0]->pixels;
    testing::internal::CaptureStderr();
    lockmemtexture(c, u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "texture mem overflow.\n");
    EXPECT_EQ(lists.idrawrect[0], 4u);
    unlockmemtexture(c, u, false);

    // Once the display shows list 0 it is the one to go.
    lists.activelist = 0;
    testing::internal::CaptureStderr();
    lockmemtexture(c, u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(lists.idrawrect[0], 0u);
    EXPECT_EQ(u->pixels, pixels0);
    EXPECT_EQ(t[0]->pixels, nullptr);  // the first released is the oldest
    EXPECT_EQ(t[0]->flags & T_GLVALID, 0u);
    for (int i = 1; i < 4; i++) EXPECT_NE(t[i]->pixels, nullptr);
    EXPECT_EQ(checkpool(c), "");
    unlockmemtexture(c, u, false);
    detacht(c, u);
    chainrem(&lists.activechain);
    lists.activelist = -1;
    lists.toactivatelist = -1;
    freedrawlists(c, &lists);
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
    EXPECT_EQ(checkpool(c), "");
  });
  texturetest::endscene(e, s);
}

TEST(Textures, AddtOnAFullPoolReclaimsWhatTheActiveViewportsListGivesUp) {
  TileEngine e(4);
  SCENE s = newscene(e, 0);
  e.onmain([&](OVCONTEXT* c) {
    AREA* wanted = s.realm->top->child[1];
    wanted->priority = 5;
    TEXTURE* t[4];
    for (int i = 0; i < 4; i++) t[i] = drawabletile(c, s.a, i);
    for (int i = 0; i < 2; i++) wanted->texture[i] = addt(c, wanted);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    for (int i = 0; i < 4; i++) holdinlist(c, &lists, 0, t[i]);
    lists.activelist = 0;
    lists.toactivatelist = 0;
    EXPECT_EQ(c->itexture, 6);
    EXPECT_TRUE(delchainorder(c).empty());

    // No viewport is active yet: nothing can be reclaimed.
    testing::internal::CaptureStderr();
    EXPECT_EQ(addt(c, wanted), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "texture overflow.\n");

    chaininsbegin(&c->vpactivechain, &lists.activechain);
    void* pixels0 = t[0]->pixels;
    TEXTURE* n = addt(c, wanted);
    // The list let go of all four; the oldest, t0, was reclaimed, and its
    // record comes back with the storage it kept.
    ASSERT_EQ(n, t[0]);
    EXPECT_EQ(lists.idrawrect[0], 0u);
    EXPECT_EQ(s.a->texture[0], nullptr);
    EXPECT_EQ(n->pixels, pixels0);
    EXPECT_EQ(n->flags, T_USED | T_INMEMCHAIN);
    EXPECT_EQ(n->area, wanted);
    wanted->texture[2] = n;
    EXPECT_EQ(checkpool(c), "");
    chainrem(&lists.activechain);
    lists.activelist = -1;
    lists.toactivatelist = -1;
    freedrawlists(c, &lists);
    resetarea(c, s.a, true);
    resetarea(c, wanted, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
    EXPECT_EQ(checkpool(c), "");
  });
  texturetest::endscene(e, s);
}

TEST(Textures, FreetexturesinlistOnAnEmptyListOnlySetsTheCountToZero) {
  TileEngine e(4);
  SCENE s = newscene(e, 5);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* t = drawabletile(c, s.a, 0);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    // Left-overs beyond the count belong to nobody and must stay untouched.
    DRAWRECT* rects = lists.drawrect[1];
    rects[0].ichannels = 1;
    rects[0].texture[0] = t;
    TILECOUNTS before = tilecounts(c);
    freetexturesinlist(c, &lists, 1);
    EXPECT_EQ(lists.idrawrect[1], 0u);
    EXPECT_EQ(lists.drawrect[1], rects);
    EXPECT_EQ(t->count, 1);
    EXPECT_EQ(t->memcount, 0);
    EXPECT_EQ(tilecounts(c), before);
    freedrawlists(c, &lists);
    resetarea(c, s.a, true);
  });
  texturetest::endscene(e, s);
}

TEST(Textures, FreetexturesinlistFilesTilesOfNoInterestAndFreesTheUnreferenced) {
  TileEngine e(4);
  SCENE s = newscene(e, 0);
  e.onmain([&](OVCONTEXT* c) {
    TEXTURE* kept = drawabletile(c, s.a, 0);
    TEXTURE* orphan = drawabletile(c, s.a, 1);
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    holdinlist(c, &lists, 2, kept);
    holdinlist(c, &lists, 2, orphan);
    // The area lets go of one while the list still shows it.
    droptexture(c, s.a, 1);
    EXPECT_EQ(orphan->count, 1);
    EXPECT_EQ(orphan->area, nullptr);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{2, 2, 0}));
    freetexturesinlist(c, &lists, 2);
    EXPECT_EQ(lists.idrawrect[2], 0u);
    EXPECT_EQ(orphan->flags, T_FREE);
    EXPECT_NE(orphan->pixels, nullptr);  // free, its storage reusable
    EXPECT_EQ(kept->flags, T_USED | T_GLVALID | T_INMEMCHAIN | T_INDELCHAIN);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{1, 4, 1}));
    EXPECT_EQ(checkpool(c), "");
    freedrawlists(c, &lists);
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  texturetest::endscene(e, s);
}

// ------------------------------------------------------------ freshness

TEST(Textures, IsnewerWantsEveryChannelDrawableAndOneNotOlderThanTheAncestors) {
  TEXTURE own[NCHANNELS] = {};
  TEXTURE old[NCHANNELS] = {};
  TEXTURE* a[NCHANNELS] = {};
  TEXTURE* b[NCHANNELS] = {};
  for (int i = 0; i < NCHANNELS; i++) {
    own[i].flags = T_USED | T_GLVALID;
    own[i].computecycle = 10;
    old[i].flags = T_USED | T_GLVALID;
    old[i].computecycle = 10;
    a[i] = &own[i];
    b[i] = &old[i];
  }
  EXPECT_FALSE(isnewer(a, b, 0));
  EXPECT_FALSE(isnewer(a, nullptr, 0));
  EXPECT_TRUE(isnewer(a, nullptr, 1));
  // Equal cycles count as newer.
  EXPECT_TRUE(isnewer(a, b, 0x5));
  old[0].computecycle = 11;
  old[2].computecycle = 11;
  EXPECT_FALSE(isnewer(a, b, 0x5));
  EXPECT_TRUE(isnewer(a, b, 0x7));  // channel 1 is not older
  b[2] = nullptr;
  EXPECT_TRUE(isnewer(a, b, 0x5));  // the ancestor lacks channel 2
  b[2] = &old[2];
  // Cycles compare as unsigned: 0xffffffff is later than 10.
  old[0].computecycle = 0xffffffffu;
  old[2].computecycle = 0xffffffffu;
  EXPECT_FALSE(isnewer(a, b, 0x5));
  own[0].computecycle = 0xffffffffu;
  EXPECT_TRUE(isnewer(a, b, 0x5));
  // A channel that isn't drawable, or missing, spoils it.
  own[2].flags = T_USED;
  EXPECT_FALSE(isnewer(a, nullptr, 0x5));
  own[2].flags = T_USED | T_GLVALID;
  a[8] = nullptr;
  EXPECT_FALSE(isnewer(a, nullptr, 0x105));
  EXPECT_TRUE(isnewer(a, nullptr, 0x5));
}

TEST(Textures, HasdrawabletilesNeedsAtLeastOneChannelAndAllOfThem) {
  AREA a{};
  TEXTURE t[2] = {};
  t[0].flags = T_USED | T_GLVALID;
  t[1].flags = T_USED;
  a.texture[0] = &t[0];
  a.texture[4] = &t[1];
  EXPECT_FALSE(hasdrawabletiles(&a, 0));
  EXPECT_TRUE(hasdrawabletiles(&a, 1));
  EXPECT_FALSE(hasdrawabletiles(&a, 0x11));
  EXPECT_FALSE(hasdrawabletiles(&a, 0x3));
  t[1].flags |= T_GLVALID;
  EXPECT_TRUE(hasdrawabletiles(&a, 0x11));
}

// ------------------------------------------------------------ areas let go

TEST(Textures, RemoveaGivesBackEveryRecordAndStorageEvenWhileAListShowsThem) {
  TileEngine e(4);
  SCENE s = newscene(e, 5);
  e.onmain([&](OVCONTEXT* c) {
    TILECOUNTS start = tilecounts(c);
    AREA* a = s.a;
    subdivide(c, a);
    AREA* child = a->child[3];
    child->priority = 5;
    TEXTURE* t0 = drawabletile(c, a, 0);
    drawabletile(c, a, 4);
    TEXTURE* t2 = drawabletile(c, child, 8);
    a->texture[6] = addt(c, a);  // never locked
    DRAWLISTS lists;
    initdrawlists(&lists);
    ASSERT_TRUE(preparedrawlists(c, &lists));
    holdinlist(c, &lists, 1, t0);
    holdinlist(c, &lists, 1, t2);
    EXPECT_EQ(c->itexture, 4);
    removea(c, a);
    s.realm->top->child[0] = nullptr;
    // The tiles the list shows survive the area, naming no area.
    EXPECT_EQ(c->itexture, 2);
    EXPECT_EQ(t0->area, nullptr);
    EXPECT_EQ(t2->area, nullptr);
    EXPECT_EQ(t0->count, 1);
    EXPECT_EQ(checkpool(c), "");
    freedrawlists(c, &lists);
    EXPECT_EQ(tilecounts(c), start);
    EXPECT_EQ(checkpool(c), "");
  });
  texturetest::endscene(e, s);
}

TEST(Textures, ResetareaWithoutAllDropsOnlyTilesThatNeverBecameDrawable) {
  TileEngine e(4);
  SCENE s = newscene(e, 0);
  e.onmain([&](OVCONTEXT* c) {
    TILECOUNTS start = tilecounts(c);
    TEXTURE* robbed = drawabletile(c, s.a, 1);  // record 0
    TEXTURE* good = drawabletile(c, s.a, 0);    // record 1
    TEXTURE* unfinished = addt(c, s.a);         // record 2, never locked
    s.a->texture[2] = unfinished;
    // Tiles elsewhere take storage: record 3 its own, then the two oldest
    // unlocked, which are the unfinished tile's and the robbed one's.
    std::vector<TEXTURE*> holders;
    for (int i = 0; i < 3; i++) {
      holders.push_back(addt(c, nullptr));
      lockmemtexture(c, holders.back());
    }
    EXPECT_EQ(unfinished->pixels, nullptr);
    EXPECT_EQ(robbed->pixels, nullptr);
    EXPECT_FALSE(robbed->flags & T_GLVALID);
    EXPECT_NE(good->pixels, nullptr);
    EXPECT_TRUE(good->flags & T_GLVALID);
    // Seen again, the robbed tile can't be drawn: its area is recomputed.
    EXPECT_FALSE(hasdrawabletiles(s.a, 0x3));
    EXPECT_TRUE(hasdrawabletiles(s.a, 0x1));
    resetarea(c, s.a, false);
    EXPECT_EQ(s.a->texture[0], good);
    EXPECT_EQ(s.a->texture[1], nullptr);
    EXPECT_EQ(s.a->texture[2], nullptr);
    EXPECT_EQ(c->itexture, 4);
    EXPECT_FALSE(s.a->flags & A_INDELCHAIN);
    EXPECT_EQ(checkpool(c), "");
    resetarea(c, s.a, true);
    EXPECT_EQ(s.a->texture[0], nullptr);
    EXPECT_TRUE(s.a->flags & A_INDELCHAIN);  // a bare leaf now
    for (TEXTURE* h : holders) {
      unlockmemtexture(c, h, false);
      detacht(c, h);
    }
    EXPECT_EQ(tilecounts(c), start);
    EXPECT_EQ(checkpool(c), "");
  });
  texturetest::endscene(e, s);
}

// ------------------------------------------------------------ upload

namespace {

// New tiles for channels of `a`, as a canvas job holds them: a reference, a
// lock, and pixels whose first texel tells the channel and a generation.
WORKER* calcworker(OVCONTEXT* c, AREA* a, unsigned int channels, float generation) {
  WORKER* w = addworker(c, THREAD_GLWORKER, worker_canvas_gentexture);
  w->pdata[GENTEXTURE_AREA] = a;
  w->pdata[GENTEXTURE_REALM] = a->realm;
  for (int i = 0; i < NCHANNELS; i++) {
    TEXTURE* t = nullptr;
    if (channels & (1u << i)) {
      t = addt(c, a);
      lockmemtexture(c, t);
      float* px = static_cast<float*>(t->pixels);
      for (int k = 0; k < TEXTURESIZE * TEXTURESIZE; k++) px[k] = generation + i;
    }
    w->pdata[GENTEXTURE_TEXTURE + i] = t;
  }
  attachrealm(a->realm);
  a->worker = w;
  return w;
}

}  // namespace

TEST(Upload, RoundTripThroughTheGlQueueInstallsAndUnlocksTheTiles) {
  TileEngine e(4, true);
  SCENE s = newscene(e, 5);
  TILECOUNTS start{};
  std::vector<TEXTURE*> sent;
  e.onmain([&](OVCONTEXT* c) {
    start = tilecounts(c);
    s.a->channels = 0x5;
    s.a->computecycle = 3;
    WORKER* w = calcworker(c, s.a, 0x5, 100);
    sent = {static_cast<TEXTURE*>(w->pdata[GENTEXTURE_TEXTURE]),
            static_cast<TEXTURE*>(w->pdata[GENTEXTURE_TEXTURE + 2])};
    sendgentexture(c, w);
  });
  EXPECT_EQ(atomicload(&s.realm->count), 2);
  texturetest::waitfor([&] { return atomicload(&e.context->grworkergl.todo) > 0; });
  EXPECT_EQ(serveglqueue(e.context, 10), 1);
  std::vector<texturetest::UPLOAD> calls = e.calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].texture, sent[0]->texture);
  EXPECT_EQ(calls[0].pixels, sent[0]->pixels);
  EXPECT_EQ(calls[0].first, 100.0f);
  EXPECT_EQ(calls[1].texture, sent[1]->texture);
  EXPECT_EQ(calls[1].pixels, sent[1]->pixels);
  EXPECT_EQ(calls[1].first, 102.0f);
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(s.a->worker, nullptr);
    EXPECT_EQ(s.a->texture[0], sent[0]);
    EXPECT_EQ(s.a->texture[2], sent[1]);
    for (TEXTURE* t : sent) {
      EXPECT_TRUE(t->flags & T_GLVALID);
      EXPECT_EQ(t->memcount, 0);
      EXPECT_EQ(t->count, 1);
      EXPECT_EQ(t->computecycle, 3u);
      EXPECT_EQ(t->area, s.a);
    }
    EXPECT_EQ(atomicload(&s.realm->count), 1);
    EXPECT_TRUE(hasdrawabletiles(s.a, 0x5));
    EXPECT_EQ(checkpool(c), "");

    // A second job replaces channel 0: the old tile leaves the area.
    WORKER* w = calcworker(c, s.a, 0x1, 200);
    sent.push_back(static_cast<TEXTURE*>(w->pdata[GENTEXTURE_TEXTURE]));
    sendgentexture(c, w);
  });
  texturetest::waitfor([&] { return atomicload(&e.context->grworkergl.todo) > 0; });
  EXPECT_EQ(serveglqueue(e.context, 10), 1);
  ASSERT_EQ(e.calls().size(), 3u);
  EXPECT_EQ(e.calls()[2].first, 200.0f);
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(s.a->texture[0], sent[2]);
    EXPECT_EQ(sent[0]->flags, T_FREE);  // dropped by the area, no other holder
    EXPECT_EQ(checkpool(c), "");

    // Everything drawable and current: nothing to send.
    s.realm->computecycle = 0;
    for (TEXTURE* t : {s.a->texture[0], s.a->texture[2]}) t->computecycle = 0;
    EXPECT_FALSE(uploadtiles(c, s.a));
    // The realm's cycle moves on: the tiles go round again, but drawable
    // pixels aren't uploaded twice.
    s.realm->computecycle = 1;
    s.a->computecycle = 1;
    EXPECT_TRUE(uploadtiles(c, s.a));
    EXPECT_NE(s.a->worker, nullptr);
    EXPECT_EQ(s.a->texture[0]->count, 2);
    EXPECT_EQ(s.a->texture[0]->memcount, 1);
  });
  texturetest::waitfor([&] { return atomicload(&e.context->grworkergl.todo) > 0; });
  EXPECT_EQ(serveglqueue(e.context, 10), 1);
  EXPECT_EQ(e.calls().size(), 3u);
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(s.a->worker, nullptr);
    for (TEXTURE* t : {s.a->texture[0], s.a->texture[2]}) {
      EXPECT_EQ(t->count, 1);
      EXPECT_EQ(t->memcount, 0);
      EXPECT_EQ(t->computecycle, 1u);
    }
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), start);
    EXPECT_EQ(checkpool(c), "");
  });
  EXPECT_EQ(atomicload(&s.realm->count), 1);
  texturetest::endscene(e, s);
}

// The main loop clears the flag when it draws, so the return step is run
// here by hand, on the main thread, to see it set.
TEST(Upload, TheReturnStepMarksTheEngineDirty) {
  TileEngine e(4, true);
  SCENE s = newscene(e, 5);
  e.onmain([&](OVCONTEXT* c) {
    s.a->channels = 0x1;
    WORKER* w = calcworker(c, s.a, 0x1, 7);
    clearcontextflag(c, OVCONTEXT_DIRTY);
    worker_canvas_gentexture_return(c, w);
    EXPECT_TRUE(hascontextflag(c, OVCONTEXT_DIRTY));
    EXPECT_EQ(s.a->worker, nullptr);
    EXPECT_TRUE(s.a->texture[0]->flags & T_GLVALID);
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  EXPECT_TRUE(e.calls().empty());
  texturetest::endscene(e, s);
}

TEST(Upload, AStoppedUploadCallsNothingAndGivesEverythingBack) {
  TileEngine e(4, true);
  SCENE s = newscene(e, 5);
  TILECOUNTS start{};
  e.onmain([&](OVCONTEXT* c) {
    start = tilecounts(c);
    s.a->channels = 0x3;
    WORKER* w = calcworker(c, s.a, 0x3, 1);
    sendgentexture(c, w);
    resetarea(c, s.a, true);  // stops the job
    EXPECT_EQ(s.a->worker, nullptr);
    EXPECT_TRUE(w->stop);
  });
  texturetest::waitfor([&] { return atomicload(&e.context->grworkergl.todo) > 0; });
  EXPECT_EQ(serveglqueue(e.context, 10), 0);  // served, not counted
  EXPECT_EQ(atomicload(&e.context->grworkergl.todo), 0);
  EXPECT_TRUE(e.calls().empty());
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    for (TEXTURE* t : s.a->texture) EXPECT_EQ(t, nullptr);
    EXPECT_EQ(tilecounts(c), start);
    EXPECT_EQ(checkpool(c), "");
  });
  EXPECT_EQ(atomicload(&s.realm->count), 1);
  texturetest::endscene(e, s);
}

TEST(Upload, WithTilesInMemoryTheReturnRunsOnTheMainThreadWithoutAGlQueue) {
  TileEngine e(4, false);
  ASSERT_TRUE(hascontextflag(e.context, OVCONTEXT_TEXTURE_MEM));
  SCENE s = newscene(e, 5);
  e.onmain([&](OVCONTEXT* c) {
    s.a->channels = 0x1;
    TEXTURE* t = addt(c, s.a);
    s.a->texture[0] = t;
    lockmemtexture(c, t);
    unlockmemtexture(c, t, false);
    EXPECT_TRUE(uploadtiles(c, s.a));
  });
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(s.a->worker, nullptr);
    EXPECT_TRUE(s.a->texture[0]->flags & T_GLVALID);
    EXPECT_EQ(s.a->texture[0]->count, 1);
    EXPECT_EQ(s.a->texture[0]->memcount, 0);
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
  });
  EXPECT_TRUE(e.calls().empty());
  texturetest::endscene(e, s);
}

TEST(Upload, ATileThatLostItsStorageIsNotCarriedToTheUpload) {
  TileEngine e(4, true);
  SCENE s = newscene(e, 0);
  std::vector<TEXTURE*> holders;
  e.onmain([&](OVCONTEXT* c) {
    s.a->channels = 0x3;
    TEXTURE* robbed = addt(c, s.a);  // record 0
    TEXTURE* fresh = addt(c, s.a);   // record 1
    s.a->texture[0] = robbed;
    s.a->texture[1] = fresh;
    // Released in this order, they are the two oldest unlocked storage.
    for (TEXTURE* t : {robbed, fresh}) {
      lockmemtexture(c, t);
      unlockmemtexture(c, t, false);
    }
    // Records 2 and 3 lock their own storage, record 4 takes the oldest
    // unlocked, record 0's.
    for (int i = 0; i < 3; i++) {
      holders.push_back(addt(c, nullptr));
      lockmemtexture(c, holders.back());
    }
    ASSERT_EQ(robbed->pixels, nullptr);
    ASSERT_NE(fresh->pixels, nullptr);
    s.a->priority = 5;
    EXPECT_TRUE(uploadtiles(c, s.a));
    EXPECT_EQ(robbed->count, 1);
    EXPECT_EQ(robbed->memcount, 0);
    EXPECT_EQ(robbed->pixels, nullptr);  // no storage was taken for it
    EXPECT_EQ(fresh->count, 2);
    EXPECT_EQ(fresh->memcount, 1);
  });
  texturetest::waitfor([&] { return atomicload(&e.context->grworkergl.todo) > 0; });
  EXPECT_EQ(serveglqueue(e.context, 10), 1);
  ASSERT_EQ(e.calls().size(), 1u);
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(e.calls()[0].pixels, s.a->texture[1]->pixels);
    EXPECT_TRUE(s.a->texture[1]->flags & T_GLVALID);
    EXPECT_FALSE(s.a->texture[0]->flags & T_GLVALID);
    for (TEXTURE* h : holders) {
      unlockmemtexture(c, h, false);
      detacht(c, h);
    }
    resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
    EXPECT_EQ(checkpool(c), "");
  });
  texturetest::endscene(e, s);
}

TEST(Upload, AFrameServesTheQueueUpToItsBudgetAndStoppedWorkDoesNotCount) {
  EXPECT_EQ(uploadperframe(100, 60), 6);
  EXPECT_EQ(uploadperframe(15, 60), 1);
  EXPECT_EQ(uploadperframe(1, 60), 1);
  EXPECT_EQ(uploadperframe(1000, 50), 80);
  TileEngine e(4, true);
  std::vector<SCENE> scenes;
  for (int i = 0; i < 3; i++) scenes.push_back(newscene(e, 5));
  e.onmain([&](OVCONTEXT* c) {
    for (int i = 0; i < 3; i++) {
      WORKER* w = calcworker(c, scenes[i].a, 0x1, 10.0f * i);
      if (i == 1) {
        atomicstore(&w->stop, true);
        scenes[i].a->worker = nullptr;  // as resetarea leaves it
      }
      sendgentexture(c, w);
    }
  });
  texturetest::waitfor([&] { return atomicload(&e.context->grworkergl.todo) == 3; });
  EXPECT_EQ(serveglqueue(e.context, 1), 1);
  EXPECT_EQ(atomicload(&e.context->grworkergl.todo), 2);
  // The stopped one is served on the way and the budget still admits one.
  EXPECT_EQ(serveglqueue(e.context, 1), 1);
  EXPECT_EQ(atomicload(&e.context->grworkergl.todo), 0);
  EXPECT_EQ(serveglqueue(e.context, 1), 0);
  std::vector<texturetest::UPLOAD> calls = e.calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].first, 0.0f);
  EXPECT_EQ(calls[1].first, 20.0f);
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    for (SCENE& s : scenes) resetarea(c, s.a, true);
    EXPECT_EQ(tilecounts(c), (TILECOUNTS{0, 4, 0}));
    EXPECT_EQ(checkpool(c), "");
  });
  for (SCENE& s : scenes) texturetest::endscene(e, s);
}
