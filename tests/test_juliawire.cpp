// A view of a Julia realm that corrects through its stack: its areas are
// set aside until the levels they need are ready, asking for them when no
// one has, and are computed once the levels are there. The picture is the
// one a realm without the stack makes; a realm without an environment or
// without a point is computed without the stack and finishes all the same.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <cmath>
#include <map>
#include <tuple>
#include <vector>

#include "juliastack.h"
#include "test_viewport.h"

using namespace viewporttest;

namespace {

const std::complex<double> SEED(0.2605, 0.0012);
// A view of the square of side 1/16 around 0: its areas lie at the depths
// of levels 4 to 6 of the stack.
const std::complex<double> VIEWCENTRE(0.0, 0.0);
constexpr double VIEWZOOM = 32;
const std::complex<double> FARCENTRE(3.0, 3.0);
constexpr int NEEDED = 6;
constexpr int NTILES = 96;

// Holds the one worker thread of the group, so that nothing queued there
// runs until it is opened.
struct GATE {
  std::atomic<bool> started{false};
  std::atomic<bool> open{false};
  ~GATE() { open.store(true); }
};

void worker_gate(OVCONTEXT* context, WORKER* worker) {
  GATE* g = static_cast<GATE*>(worker->pdata[0]);
  g->started.store(true);
  while (!g->open.load()) std::this_thread::sleep_for(std::chrono::microseconds(200));
  freeworker(context, worker);
}

void shut(TileEngine& engine, GATE& g) {
  WORKER* w = addworker(engine.context, THREAD_WORKER, worker_gate);
  ASSERT_NE(w, nullptr);
  w->prio = 0;
  w->pdata[0] = &g;
  dispatch(engine.context, w);
  waitfor([&] { return g.started.load(); });
}

HPVALUE* point(OVCONTEXT* c, std::complex<double> p) {
  HPVALUE* h = addhpv(c, 128);
  mpf_set_d(h->v[0], p.real());
  mpf_set_d(h->v[1], p.imag());
  return h;
}

// Waits until `cond`, read on the main thread, holds.
void untilonmain(TileEngine& engine, const std::function<bool()>& cond) {
  for (;;) {
    bool done = false;
    engine.onmain([&](OVCONTEXT*) { done = cond(); });
    if (done) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

int currentlist(const VIEWPORT* v) { return (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1; }

// The areas the view's current list asks work for.
std::vector<AREA*> wanted(const VIEWPORT* v) {
  std::vector<AREA*> out;
  int i = currentlist(v);
  for (int n = 0; n < v->iviewportarea[i]; n++) {
    const VIEWPORTAREA& va = v->viewportarea[i][n];
    if (va.priority > 0 && va.priority != PRIO_KEEP) out.push_back(va.a);
  }
  return out;
}

typedef std::tuple<int, long double, long double> PLACE;
typedef std::map<PLACE, std::vector<float>> PICTURE;

// Channel 3 of every wanted area, by its depth and exact corner.
PICTURE channel3(const VIEWPORT* v) {
  PICTURE out;
  for (AREA* a : wanted(v)) {
    TEXTURE* t = a->texture[3];
    EXPECT_NE(t, nullptr);
    if (!t || !t->pixels) continue;
    const float* p = static_cast<const float*>(t->pixels);
    std::complex<long double> c = areacorner(a);
    out[PLACE{a->depth, c.real(), c.imag()}] = std::vector<float>(p, p + TEXTURESIZE * TEXTURESIZE);
  }
  return out;
}

struct RESULT {
  PICTURE picture;
  int finish = 0;
};

// A Julia realm of the seed with `flags`, its point and environment as
// asked, viewed until the view finishes.
struct JULIAVIEW {
  TileEngine& engine;
  REALM* realm = nullptr;
  HPVALUE* seed = nullptr;
  ENVIRONMENT* e = nullptr;
  FINISHCOUNT count;
  VIEWPORT* v = nullptr;

  JULIAVIEW(TileEngine& en, unsigned int flags, bool withpoint, bool withenvironment) : engine(en) {
    realm = newrealm(engine, JULIA, flags);
    engine.onmain([&](OVCONTEXT* c) {
      seed = point(c, SEED);
      if (withpoint) {
        attachhpv(seed);
        realm->info.c = seed;
      }
      if (withenvironment) {
        e = adde(c, seed->v[0], seed->v[1], 128);
        realm->e = e;
      }
      realm->neededjuliastack = NEEDED;
    });
    v = addviewport(engine.context, realm, nullptr, 256, 256, countfinish, &count);
    engine.onmain([&](OVCONTEXT*) { v->channels = 1 | 8; });
  }
  // The view's centre and zoom, before it is shown.
  void place(std::complex<double> centre, double zoom) {
    mpf_t x, y;
    mpf_init2(x, 128);
    mpf_init2(y, 128);
    mpf_set_d(x, centre.real());
    mpf_set_d(y, centre.imag());
    moveviewportabsolute(engine.context, v, x, y, cHF(HFd(zoom), ZEROH), 256, 256);
    mpf_clear(x);
    mpf_clear(y);
  }
  void activate() { activateviewport(engine.context, v, 1); }
  void waitfinish() {
    waitfor([&] { return count.finish.load() >= 1; });
    waitfor([&] { return atomicload(&engine.context->iworkerall) == 0; });
  }
  ~JULIAVIEW() {
    detachviewport(engine.context, v);
    engine.onmain([&](OVCONTEXT* c) {
      stopjuliastackcomputation(c, realm);
      adjustjuliastack(c, realm, -1, true);
      realm->e = nullptr;
      detache(c, e);
      detachhpv(c, seed);
    });
    waitfor([&] { return atomicload(&engine.context->iworkerall) == 0; });
    detachrealm(engine.context, realm);
    engine.onmain([](OVCONTEXT*) {});
  }
};

}  // namespace

TEST(JuliaStackWire, AViewWaitsForTheLevelsItNeedsAndAgreesWithThePlainRealm) {
  TileEngine engine{NTILES, false};
  PICTURE corrected;
  int deepest = -1;
  {
    JULIAVIEW jv(engine, R_JULIACORRECT | R_PRECDOUBLE, true, true);
    jv.place(VIEWCENTRE, VIEWZOOM);
    GATE gate;
    shut(engine, gate);
    jv.activate();
    // The view's areas are filed with the worker group shut: each posted a
    // request for its level, or, the request having run, waits on the
    // level; none started a canvas.
    std::vector<AREA*> areas;
    untilonmain(jv.engine, [&] { return !wanted(jv.v).empty(); });
    jv.engine.onmain([&](OVCONTEXT* c) {
      REALM* r = jv.realm;
      areas = wanted(jv.v);
      ASSERT_FALSE(areas.empty());
      EXPECT_EQ(atomicload(&r->readyjuliastack), -1);
      for (AREA* a : areas) {
        deepest = std::max(deepest, juliaarealevel(c, r, a));
        bool asking = a->worker && a->worker->workerproc == worker_requestjuliastack;
        EXPECT_TRUE(asking || (a->flags & A_WAITFORJULIASTACK)) << "depth " << a->depth;
        EXPECT_FALSE(a->flags & A_PRECALCULATED);
      }
      EXPECT_GT(jv.v->ivainvalid, 0);
      EXPECT_EQ(jv.count.finish.load(), 0);
    });
    ASSERT_GE(deepest, 1);
    // The requests have run (this call comes after them on the main
    // thread): the levels down to the deepest are anchored and started, and
    // every area waits on the level it needs, nothing ready yet.
    jv.engine.onmain([&](OVCONTEXT* c) {
      REALM* r = jv.realm;
      EXPECT_EQ(r->juliajuliastack, deepest);
      EXPECT_EQ(r->maxjuliastack, deepest);
      EXPECT_EQ(r->calcjuliastack, deepest);
      EXPECT_EQ(atomicload(&r->readyjuliastack), -1);
      for (int s = 0; s <= deepest; s++) {
        EXPECT_EQ(r->juliastack[s].m, jv.seed) << s;
        EXPECT_EQ(r->juliastack[s].e, jv.e) << s;
      }
      for (AREA* a : wanted(jv.v)) {
        int level = juliaarealevel(c, r, a);
        EXPECT_EQ(a->worker, nullptr);
        ASSERT_TRUE(a->flags & A_WAITFORJULIASTACK) << "depth " << a->depth;
        bool onlevel = false;
        for (CHAIN* l = r->juliastack[level].wait.next; l != &r->juliastack[level].wait; l = l->next)
          onlevel = onlevel || l == &a->waitforjuliastack;
        EXPECT_TRUE(onlevel) << "depth " << a->depth << " level " << level;
      }
      EXPECT_EQ(jv.count.finish.load(), 0);
    });
    gate.open.store(true);
    jv.waitfinish();
    // Once the levels were ready the areas were computed, through the
    // correction, and the view finished.
    jv.engine.onmain([&](OVCONTEXT*) {
      REALM* r = jv.realm;
      EXPECT_GE(atomicload(&r->readyjuliastack), deepest);
      for (int s = 0; s <= deepest; s++) EXPECT_TRUE(chainempty(&r->juliastack[s].wait)) << s;
      EXPECT_EQ(jv.v->ivainvalid, 0);
      for (AREA* a : wanted(jv.v)) {
        EXPECT_FALSE(a->flags & A_WAITFORJULIASTACK);
        EXPECT_TRUE(a->flags & A_PRECALCULATED) << "depth " << a->depth;
        EXPECT_EQ(a->worker, nullptr);
        // The correction took the area through the stack's levels.
        EXPECT_FALSE(a->flags & A_JULIACORRECT);
        EXPECT_LE(a->jst, deepest);
      }
      corrected = channel3(jv.v);
    });
    EXPECT_EQ(jv.count.finish.load(), 1);
  }
  PICTURE plain;
  {
    JULIAVIEW jv(engine, R_PRECDOUBLE, true, true);
    jv.place(VIEWCENTRE, VIEWZOOM);
    jv.activate();
    jv.waitfinish();
    jv.engine.onmain([&](OVCONTEXT*) {
      // Without the correction the stack is neither asked for nor waited on.
      EXPECT_EQ(jv.realm->juliajuliastack, -1);
      EXPECT_EQ(jv.realm->calcjuliastack, -1);
      plain = channel3(jv.v);
    });
  }
  ASSERT_FALSE(corrected.empty());
  long total = 0, agree = 0;
  int matched = 0;
  for (const auto& [place, pixels] : corrected) {
    auto it = plain.find(place);
    if (it == plain.end()) continue;
    matched++;
    for (size_t k = 0; k < pixels.size(); k++) {
      total++;
      if (std::fabs(pixels[k] - it->second[k]) <= 1) agree++;
    }
  }
  EXPECT_EQ(matched, static_cast<int>(corrected.size()));
  ASSERT_GT(total, 0);
  EXPECT_GE(static_cast<double>(agree) / total, 0.99) << agree << " of " << total;
}

TEST(JuliaStackWire, ARealmWithoutAnEnvironmentIsComputedWithoutTheStack) {
  TileEngine engine{NTILES, false};
  JULIAVIEW jv(engine, R_JULIACORRECT | R_PRECDOUBLE, true, false);
  jv.place(VIEWCENTRE, VIEWZOOM);
  jv.activate();
  jv.waitfinish();
  jv.engine.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(jv.count.finish.load(), 1);
    EXPECT_EQ(jv.realm->juliajuliastack, -1);
    EXPECT_EQ(jv.realm->calcjuliastack, -1);
    EXPECT_EQ(jv.realm->juliastack[0].m, nullptr);
    std::vector<AREA*> areas = wanted(jv.v);
    EXPECT_FALSE(areas.empty());
    for (AREA* a : areas) {
      EXPECT_TRUE(a->flags & A_PRECALCULATED);
      EXPECT_FALSE(a->flags & A_WAITFORJULIASTACK);
    }
  });
}

TEST(JuliaStackWire, ARealmWithoutAPointIsComputedWithoutTheStack) {
  TileEngine engine{NTILES, false};
  JULIAVIEW jv(engine, R_JULIACORRECT | R_PRECDOUBLE, false, true);
  // Without a point the picture has no meaning; a view where every point
  // leaves at once keeps its computation short.
  jv.place(FARCENTRE, VIEWZOOM);
  jv.activate();
  jv.waitfinish();
  jv.engine.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(jv.count.finish.load(), 1);
    EXPECT_EQ(jv.realm->juliajuliastack, -1);
    EXPECT_EQ(jv.realm->calcjuliastack, -1);
    std::vector<AREA*> areas = wanted(jv.v);
    EXPECT_FALSE(areas.empty());
    for (AREA* a : areas) {
      EXPECT_TRUE(a->flags & A_PRECALCULATED);
      EXPECT_FALSE(a->flags & A_WAITFORJULIASTACK);
    }
  });
}
