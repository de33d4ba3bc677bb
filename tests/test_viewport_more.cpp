// Views, further: copies of a view and what they share, a colour scheme that
// changes the channels, a new environment asked for, the marked point as a
// message, the automatic zoom taken up on completion, work kept by a
// photograph's view, and the ring of coordinate steps overrun.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <map>
#include <set>
#include <vector>

#include "test_viewport.h"

using namespace viewporttest;

namespace {

struct VIEW {
  TileEngine& e;
  REALM* realm;
  REALM* juliarealm = nullptr;
  VIEWPORT* v;
  FINISHCOUNT count;
  VIEW(TileEngine& engine, unsigned int channels, bool julia = false, int res = 256) : e(engine) {
    realm = newrealm(e, MANDELBROT);
    if (julia) juliarealm = newrealm(e, JULIA);
    v = addviewport(e.context, realm, juliarealm, res, res, countfinish, &count);
    e.onmain([&](OVCONTEXT*) { v->channels = channels; });
  }
  ~VIEW() {
    detachviewport(e.context, v);
    detachrealm(e.context, realm);
    if (juliarealm) detachrealm(e.context, juliarealm);
    e.onmain([](OVCONTEXT*) {});
  }
  void waitfinish(int n) {
    waitfor([&] { return count.finish.load() >= n; });
  }
  int current() const { return (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1; }
  std::set<AREA*> listed() const {
    std::set<AREA*> s;
    int i = current();
    for (int n = 0; n < v->iviewportarea[i]; n++) s.insert(v->viewportarea[i][n].a);
    return s;
  }
};

std::complex<double> deltaof(VIEWPORT* v) {
  return {mpf_get_d(v->delta->v[0]), mpf_get_d(v->delta->v[1])};
}

// ---------------------------------------------------------------- hooks that count

std::atomic<int> movingstarts{0};
void countmovingstart(OVCONTEXT*, VIEWPORT*) { movingstarts.fetch_add(1); }

// A colour scheme as the engine sees it: a handle with a count and channels.
struct FAKESCHEME {
  unsigned int channels;
  int count;
};
FAKESCHEME* fake(COLORSCHEME* s) { return reinterpret_cast<FAKESCHEME*>(s); }
COLORSCHEME* handle(FAKESCHEME* s) { return reinterpret_cast<COLORSCHEME*>(s); }
void fakeattach(COLORSCHEME* s) { fake(s)->count++; }
void fakedetach(OVCONTEXT*, COLORSCHEME* s) { fake(s)->count--; }
unsigned int fakechannels(const COLORSCHEME* s) {
  return reinterpret_cast<const FAKESCHEME*>(s)->channels;
}

struct SCHEMES {
  SCHEMES() { schemehooks = SCHEMEHOOKS{fakeattach, fakedetach, fakechannels}; }
  ~SCHEMES() { schemehooks = SCHEMEHOOKS{}; }
};

}  // namespace

// ---------------------------------------------------------------- completion

TEST(ViewportMore, TheAutomaticZoomStartsWhenTheLastAreaArrives) {
  TileEngine e(96, false);
  VIEW view(e, 1 | 8);
  moveviewport(e.context, view.v, CZEROH, CONEH, -1, -1, CZEROH, ZEROH, MOVEVIEWPORT_STARTZOOMING);
  e.onmain([&](OVCONTEXT*) {
    EXPECT_TRUE(view.v->flags & VP_STARTZOOMING);
    view.v->nav_Dlogzoomauto = complexd(0.03, 0.01);
    EXPECT_EQ(view.v->nav_Dlogzoom, complexd(0, 0));
  });
  activateviewport(e.context, view.v, 1);
  // Not yet: the activation's invalidation leaves jobs to wait for.
  e.onmain([&](OVCONTEXT*) {
    if (view.count.finish.load() == 0) {
      EXPECT_GT(view.v->ivainvalid, 0);
      EXPECT_EQ(view.v->nav_Dlogzoom, complexd(0, 0));
      EXPECT_TRUE(view.v->flags & VP_STARTZOOMING);
    }
  });
  view.waitfinish(1);
  e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(view.v->nav_Dlogzoom, complexd(0.03, 0.01));
    EXPECT_FALSE(view.v->flags & VP_STARTZOOMING);
  });
}

TEST(ViewportMore, TheAutomaticZoomStartsWithinInvalidateWhenEverythingIsThere) {
  TileEngine e(96, false);
  VIEW view(e, 1 | 8);
  activateviewport(e.context, view.v, 1);
  view.waitfinish(1);
  e.onmain([&](OVCONTEXT*) {
    view.v->nav_Dlogzoom = 0;
    view.v->nav_Dlogzoomauto = complexd(-0.05, 0);
  });
  // Queued behind this call, the move is applied by the next one, and the
  // view completes inside its invalidation.
  e.onmain([&](OVCONTEXT* c) {
    moveviewport(c, view.v, CZEROH, CONEH, -1, -1, CZEROH, ZEROH, MOVEVIEWPORT_STARTZOOMING);
  });
  e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(view.count.finish.load(), 2);
    EXPECT_EQ(view.v->ivainvalid, 0);
    EXPECT_EQ(view.v->nav_Dlogzoom, complexd(-0.05, 0));
    EXPECT_FALSE(view.v->flags & VP_STARTZOOMING);
  });
}

// ---------------------------------------------------------------- environments

TEST(ViewportMore, RecalcenvLoopsThroughTheEnvironmentsOrStopsTheIdleSearch) {
  movingstarts.store(0);
  idlehooks.movingstart = countmovingstart;
  {
    TileEngine e(16, false);
    VIEW view(e, 1);
    e.onmain([&](OVCONTEXT*) { EXPECT_FALSE(view.v->flags & VP_MUSTDOLOOP); });
    recalcenv(e.context, view.v);
    e.onmain([&](OVCONTEXT*) {
      EXPECT_TRUE(view.v->flags & VP_MUSTDOLOOP);
      EXPECT_EQ(movingstarts.load(), 1);
      EXPECT_FALSE(view.v->flags & VP_IDLESTOP);
      view.v->flags &= ~VP_MUSTDOLOOP;
      view.v->flags |= VP_IDLE;
    });
    recalcenv(e.context, view.v);
    e.onmain([&](OVCONTEXT*) {
      // The idle run is asked to stop instead of a new scan.
      EXPECT_TRUE(view.v->flags & VP_IDLESTOP);
      EXPECT_EQ(movingstarts.load(), 1);
      EXPECT_FALSE(view.v->flags & VP_MUSTDOLOOP);
      view.v->flags &= ~(VP_IDLE | VP_IDLESTOP);
    });
  }
  idlehooks = IDLEHOOKS{};
}

// ---------------------------------------------------------------- colour schemes

TEST(ViewportMore, AColourSchemeBringsItsChannelsAndTheViewComputesThem) {
  SCHEMES hooks;
  FAKESCHEME first{1 | 8 | 16, 0}, second{1 | 8, 0};
  {
    TileEngine e(128, false);
    VIEW view(e, 1 | 8);
    // An inactive view takes the scheme and its channels and starts nothing.
    colorscheme(e.context, view.v, handle(&first));
    e.onmain([&](OVCONTEXT*) {
      EXPECT_EQ(view.v->channels, 25u);
      EXPECT_EQ(view.v->activescheme, handle(&first));
      EXPECT_EQ(first.count, 1);
      EXPECT_EQ(view.v->iviewportarea[0] + view.v->iviewportarea[1], 0);
      EXPECT_TRUE(view.v->flags & VP_DIRTY);
    });
    activateviewport(e.context, view.v, 1);
    view.waitfinish(1);
    // Every wanted area has its channel 4; the drawn list carries the scheme.
    e.onmain([&](OVCONTEXT*) {
      int i = view.current(), wanted = 0;
      for (int n = 0; n < view.v->iviewportarea[i]; n++) {
        const VIEWPORTAREA& va = view.v->viewportarea[i][n];
        if (va.priority <= 0 || va.priority == PRIO_KEEP) continue;
        wanted++;
        EXPECT_TRUE(isdrawable(view.v, va.a));
        ASSERT_NE(va.a->texture[4], nullptr);
        EXPECT_TRUE(va.a->texture[4]->flags & T_GLVALID);
      }
      EXPECT_GT(wanted, 0);
      std::vector<RECTCOPY> rects = publishedlist(view.v);
      ASSERT_FALSE(rects.empty());
      for (const RECTCOPY& r : rects) EXPECT_EQ(r.ichannels, 3);
      EXPECT_EQ(view.v->schemes[view.v->toactivatelist], handle(&first));
    });
    // The second scheme: the first one keeps only the lists' references.
    int listrefs = 0;
    e.onmain([&](OVCONTEXT*) {
      for (int k = 0; k < NDISPLAYLISTS; k++) listrefs += view.v->schemes[k] == handle(&first);
    });
    colorscheme(e.context, view.v, handle(&second));
    e.onmain([&](OVCONTEXT*) {
      EXPECT_EQ(view.v->channels, 9u);
      EXPECT_EQ(view.v->activescheme, handle(&second));
      EXPECT_EQ(view.count.finish.load(), 2);  // all there: complete within the invalidation
    });
    e.onmain([&](OVCONTEXT*) {
      int refs = 0;
      for (int k = 0; k < NDISPLAYLISTS; k++) refs += view.v->schemes[k] == handle(&first);
      EXPECT_EQ(first.count, refs);
      EXPECT_LE(refs, listrefs);
    });
  }
  // The view is gone: no scheme is held any more.
  EXPECT_EQ(first.count, 0);
  EXPECT_EQ(second.count, 0);
}

// ---------------------------------------------------------------- the marked point

TEST(ViewportMore, MarkFindsTheDeepestDrawableAreaAndItsTexelAndReadsItsCount) {
  TileEngine e(96, false);
  for (unsigned int channels : {1u | 8u, 8u}) {
    VIEW view(e, channels);
    activateviewport(e.context, view.v, 1);
    view.waitfinish(1);
    const complexd s(0.31, -0.17);
    mark(e.context, view.v, &s);
    e.onmain([&](OVCONTEXT*) {
      VIEWPORT* v = view.v;
      ASSERT_NE(v->marked, nullptr);
      AREA* a = v->marked;
      EXPECT_TRUE(isdrawable(v, a));
      EXPECT_LE(a->depth, v->maxdrawdepth);
      // The marked point in the plane, and where it lies in the area.
      std::complex<long double> p = std::complex<long double>(deltaof(v)) +
                                    std::complex<long double>(s) / std::complex<long double>(cdHF(v->zoom));
      std::complex<long double> off = p - areacorner(a);
      long double side = areaside(a);
      ASSERT_GE(off.real(), 0);
      ASSERT_LT(off.real(), side);
      ASSERT_GE(off.imag(), 0);
      ASSERT_LT(off.imag(), side);
      EXPECT_EQ(v->markedx, static_cast<int>(off.real() * TEXTURESIZE / side));
      EXPECT_EQ(v->markedy, static_cast<int>(off.imag() * TEXTURESIZE / side));
      // No drawable child holds it: the area is the deepest one.
      if (a->depth < v->maxdrawdepth)
        for (AREA* c : a->child) {
          if (!c || !isdrawable(v, c)) continue;
          std::complex<long double> o = p - areacorner(c);
          bool inside = o.real() >= 0 && o.real() < areaside(c) && o.imag() >= 0 && o.imag() < areaside(c);
          EXPECT_FALSE(inside);
        }
      int i = v->markedy * TEXTURESIZE + v->markedx;
      if (channels & 1) {
        float t0 = static_cast<const float*>(a->texture[0]->pixels)[i];
        EXPECT_EQ(v->siter, static_cast<ITER>(t0 * 1073741824.0));
      } else {
        float t3 = static_cast<const float*>(a->texture[3]->pixels)[i];
        EXPECT_EQ(v->siter, static_cast<ITER>(t3));
        long double step = side / TEXTURESIZE;
        std::complex<long double> c = areacorner(a) + std::complex<long double>((v->markedx + 0.5L) * step,
                                                                                (v->markedy + 0.5L) * step);
        int n = escapecount(c);
        if (t3 > 0) {
          EXPECT_NEAR(v->siter, n, 1);
        }
      }
      EXPECT_EQ(v->smod, 0);
    });
  }
}

// ---------------------------------------------------------------- copies

TEST(ViewportMore, ACopySharesTheRealmCopiesTheJuliaRealmAndTheStateAndCompletesOnItsOwn) {
  TileEngine e(160, false);
  VIEW view(e, 1 | 8, true);
  activateviewport(e.context, view.v, 1);
  moveviewport(e.context, view.v, cHFd({0.2, -0.1}), cHFd({1.5, 0.5}), -1, -1, CZEROH, ZEROH, 0);
  view.waitfinish(1);
  e.onmain([&](OVCONTEXT*) { view.juliarealm->flags &= ~R_LOCKJULIAPOINT; });
  FINISHCOUNT copycount;
  VIEWPORT* copy = copyviewport(e.context, view.v, countfinish, &copycount, true);
  ASSERT_NE(copy, nullptr);
  e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(copy->realm, view.realm);
    ASSERT_NE(copy->juliarealm, nullptr);
    EXPECT_NE(copy->juliarealm, view.juliarealm);
    EXPECT_EQ(copy->juliarealm->type, JULIA);
    EXPECT_TRUE(copy->juliarealm->flags & R_LOCKJULIAPOINT);
    EXPECT_FALSE(view.juliarealm->flags & R_LOCKJULIAPOINT);
    EXPECT_EQ(copy->juliarealm->generalviewport, copy);
    EXPECT_EQ(cdHF(copy->zoom), cdHF(view.v->zoom));
    EXPECT_EQ(deltaof(copy), deltaof(view.v));
    EXPECT_EQ(copy->channels, view.v->channels);
    EXPECT_EQ(copy->resolution, view.v->resolution);
    EXPECT_EQ(copy->priority, 0);
    EXPECT_FALSE(copy->flags & VP_PRECALCVP);
  });
  activateviewport(e.context, copy, 1);
  waitfor([&] { return copycount.finish.load() >= 1; });
  e.onmain([&](OVCONTEXT*) {
    // The same areas of the shared tree, each known to both views.
    int i = (copy->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1;
    std::set<AREA*> mine;
    for (int n = 0; n < copy->iviewportarea[i]; n++) mine.insert(copy->viewportarea[i][n].a);
    EXPECT_EQ(mine, view.listed());
    for (AREA* a : mine) {
      int entries = 0;
      for (CHAIN* l = a->viewportchain.next; l != &a->viewportchain; l = l->next) entries++;
      EXPECT_EQ(entries, 2);
    }
  });
  detachviewport(e.context, copy);
  e.onmain([&](OVCONTEXT*) {
    // The original keeps everything.
    for (AREA* a : view.listed()) {
      EXPECT_FALSE(chainempty(&a->viewportchain));
      EXPECT_TRUE(a->priority != 0 || a->depth < view.v->mintolerancedepth);
    }
    EXPECT_EQ(view.v->ivainvalid, 0);
  });

  // Unlocked, and with given realms as a photograph's view.
  VIEWPORT* open = copyviewport(e.context, view.v, nullptr, nullptr, false);
  e.onmain([&](OVCONTEXT*) { EXPECT_FALSE(open->juliarealm->flags & R_LOCKJULIAPOINT); });
  detachviewport(e.context, open);
  REALM* other = newrealm(e, MANDELBROT);
  VIEWPORT* photo = copyviewportex(e.context, view.v, other, nullptr, nullptr, nullptr, true);
  e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(photo->realm, other);
    EXPECT_EQ(photo->juliarealm, nullptr);
    EXPECT_TRUE(photo->flags & VP_PRECALCVP);
    EXPECT_EQ(cdHF(photo->zoom), cdHF(view.v->zoom));
  });
  detachviewport(e.context, photo);
  detachrealm(e.context, other);
  e.onmain([](OVCONTEXT*) {});
}

// ---------------------------------------------------------------- a photograph's view keeps its work

namespace {

// Holds the one worker thread until `blockerrelease`: every job queued
// meanwhile waits, so the test sees the areas with their jobs still there.
std::atomic<bool> blockerrunning{false}, blockerrelease{false};

void worker_block(OVCONTEXT* context, WORKER* worker) {
  blockerrunning.store(true);
  while (!blockerrelease.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  freeworker(context, worker);
}

// Opens the gate on the way out, whatever the test asserted meanwhile.
struct HELD {
  ~HELD() { blockerrelease.store(true); }
};

[[nodiscard]] HELD holdworker(TileEngine& e) {
  blockerrunning.store(false);
  blockerrelease.store(false);
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_block);
    ASSERT_NE(w, nullptr);
    w->prio = 0;
    dispatch(c, w);
  });
  waitfor([] { return blockerrunning.load(); });
  return HELD{};
}


// On the main thread, at once: the view's centre jumps far away and it is
// invalidated, while the areas of its list still have jobs.
struct JUMP {
  std::map<AREA*, bool> running;  // area with a job -> its entry was counted
  std::set<AREA*> after;
};

JUMP jumpaway(VIEW& view, OVCONTEXT* c) {
  JUMP j;
  VIEWPORT* v = view.v;
  int i = view.current();
  for (int n = 0; n < v->iviewportarea[i]; n++) {
    const VIEWPORTAREA& va = v->viewportarea[i][n];
    if (va.a->worker) j.running[va.a] = va.counted;
  }
  mpf_set_d(v->delta->v[0], 6.5);
  mpf_set_d(v->delta->v[1], 6.5);
  invalidate(c, v);
  j.after = view.listed();
  return j;
}

}  // namespace

TEST(ViewportMore, APhotographsViewKeepsTheAreasWithJobsThatLeaveItsList) {
  TileEngine e(128, false);
  VIEW view(e, 1 | 8);
  e.onmain([&](OVCONTEXT*) { view.v->flags |= VP_PRECALCVP; });
  HELD held = holdworker(e);
  activateviewport(e.context, view.v, 1);
  e.onmain([&](OVCONTEXT* c) {
    ASSERT_EQ(view.count.finish.load(), 0);
    JUMP j = jumpaway(view, c);
    ASSERT_FALSE(j.running.empty());
    int i = view.current();
    std::map<AREA*, std::vector<const VIEWPORTAREA*>> entries;
    for (int n = 0; n < view.v->iviewportarea[i]; n++)
      entries[view.v->viewportarea[i][n].a].push_back(&view.v->viewportarea[i][n]);
    int kept = 0;
    for (auto [a, counted] : j.running) {
      ASSERT_NE(a->worker, nullptr);  // held back: no job has ended
      ASSERT_TRUE(entries.count(a)) << "an area with a job fell out of the list";
      // The kept entry comes after any the new position filed.
      const VIEWPORTAREA* va = entries[a].back();
      EXPECT_EQ(va->priority, PRIO_KEEP);
      EXPECT_EQ(va->counted, counted);
      if (entries[a].size() > 1) continue;  // wanted by the new position too
      kept++;
      EXPECT_EQ(a->priority, PRIO_KEEP);
    }
    EXPECT_GT(kept, 0);
  });
  blockerrelease.store(true);
  view.waitfinish(1);
}

TEST(ViewportMore, WithTheNewListFullAPhotographsViewLetsItsWorkGo) {
  TileEngine e(128, false);
  VIEW view(e, 1 | 8);
  e.onmain([&](OVCONTEXT*) { view.v->flags |= VP_PRECALCVP; });
  HELD held = holdworker(e);
  activateviewport(e.context, view.v, 1);
  testing::internal::CaptureStderr();
  e.onmain([&](OVCONTEXT* c) {
    ASSERT_EQ(view.count.finish.load(), 0);
    // The list to be built is full before the walk: entries on the realm's top.
    VIEWPORT* v = view.v;
    int b = 1 - view.current();
    AREA* top = view.realm->top;
    for (int n = 0; n < NVIEWPORTAREA; n++) {
      VIEWPORTAREA* va = &v->viewportarea[b][n];
      va->viewport = v;
      va->a = top;
      va->priority = PRIO_KEEP;
      va->counted = false;
      chaininsbegin(&top->viewportchain, &va->chain);
    }
    v->iviewportarea[b] = NVIEWPORTAREA;
    int before = v->ivainvalid;
    JUMP j = jumpaway(view, c);
    ASSERT_FALSE(j.running.empty());
    int counted = 0;
    for (auto [a, wascounted] : j.running) {
      counted += wascounted;
      if (a == top) continue;  // the filler's area
      EXPECT_TRUE(chainempty(&a->viewportchain));
      EXPECT_EQ(a->priority, 0);
    }
    EXPECT_EQ(j.after, std::set<AREA*>{top});
    EXPECT_EQ(v->ivainvalid, before - counted);
  });
  blockerrelease.store(true);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("draw: fatal error 65536."), std::string::npos) << err;
  e.waitidle();
}

// ---------------------------------------------------------------- the ring overrun

TEST(ViewportMore, BeyondOneHundredAndTwentyEightPendingStepsTheRingIsReusedButEveryMoveIsApplied) {
  TileEngine e(16, false);
  VIEW view(e, 1);
  constexpr int NSTEP = 200;
  auto stepdelta = [](int k) { return std::complex<double>(0.001 * (k % 7), -0.0005 * (k % 5)); };
  auto stepzoom = [](int k) { return std::complex<double>(k % 3 == 0 ? 1.0 : k % 3 == 1 ? 1.25 : 0.8, 0); };
  std::complex<double> d0, z0;
  uint32_t from = 0;
  e.onmain([&](OVCONTEXT* c) {
    view.v->flags |= VP_MOVING;  // every move is parked until the engine is ready
    d0 = deltaof(view.v);
    z0 = cdHF(view.v->zoom);
    from = view.v->icursystem;
    for (int k = 0; k < NSTEP; k++)
      moveviewport(c, view.v, cHFd(stepdelta(k)), cHFd(stepzoom(k)), -1, -1, CZEROH, ZEROH, 0);
  });
  // The exact composition of the steps, in the plane.
  std::complex<double> d = d0, z = z0;
  for (int k = 0; k < NSTEP; k++) {
    d += stepdelta(k) / z;
    z *= stepzoom(k);
  }
  e.onmain([&](OVCONTEXT* c) {
    VIEWPORT* v = view.v;
    EXPECT_EQ(v->icoordinatesystem - v->icursystem, static_cast<uint32_t>(NSTEP));
    EXPECT_EQ(v->imovemsg, NSTEP);
    // Each slot holds the newest of the steps that share it.
    for (int k = NSTEP - NCOORDINATESYSTEM; k < NSTEP; k++) {
      uint32_t slot = (from + k) & (NCOORDINATESYSTEM - 1);
      EXPECT_EQ(cdHF(v->coordinatesystem[slot]), stepdelta(k));
      EXPECT_EQ(cdHF(v->zoomsystem[slot]), stepzoom(k));
    }
    // So the walk over the pending steps meets reused entries and misses the
    // composed position.
    HFLOATCOMPLEX pz, pd;
    getzoomdelta(c, v, &pz, &pd);
    EXPECT_GT(std::abs(cdHF(pd) - (d - d0)), 1e-6);
    // The engine becomes ready and applies every parked move, in order.
    finishmoving(c, v);
  });
  e.onmain([&](OVCONTEXT* c) {
    VIEWPORT* v = view.v;
    EXPECT_EQ(v->imovemsg, 0);
    EXPECT_EQ(v->icursystem, v->icoordinatesystem);
    EXPECT_NEAR(std::abs(deltaof(v) - d), 0, 1e-12);
    EXPECT_NEAR(std::abs(cdHF(v->zoom) - z), 0, 1e-12 * std::abs(z));
    HFLOATCOMPLEX pz, pd;
    getzoomdelta(c, v, &pz, &pd);
    EXPECT_EQ(cdHF(pd), std::complex<double>(0, 0));
    EXPECT_EQ(cdHF(pz), cdHF(v->zoom));
  });
}

// ---------------------------------------------------------------- a move is drawn at once


// With the worker thread busy for long, no message comes home to the main
// thread after the move: the moved view's list must still be drawn at its
// new position, from the tiles there are, without waiting for one.
TEST(ViewportMore, AMovedViewIsDrawnAtItsNewPositionWithoutWaitingForAnotherMessage) {
  TileEngine e(96, false);
  VIEW view(e, 1 | 8);
  activateviewport(e.context, view.v, 1);
  view.waitfinish(1);
  HELD held = holdworker(e);
  uint32_t step = atomicload(&view.v->icoordinatesystem) + 1;
  moveviewport(e.context, view.v, cHFd({0.3, 0.1}), cHFd({2, 0}), -1, -1, CZEROH, ZEROH, 0);
  // Read from this thread alone: a call on the main thread would wake it.
  bool drawn = false;
  for (int k = 0; k < 5000 && !drawn; k++) {
    int list = atomicload(&view.v->toactivatelist);
    drawn = list >= 0 && atomicload(&view.v->cslist[list]) == step;
    if (!drawn) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_TRUE(drawn);
  EXPECT_EQ(view.count.finish.load(), 1);  // the moved view's jobs wait behind the blocker
  blockerrelease.store(true);
  view.waitfinish(2);
}
