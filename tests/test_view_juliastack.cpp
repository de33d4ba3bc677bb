// A general view next to the minibrot of period 32 about 7e-11 from i, of
// size about 5e-22, its deepest tiles at depth 74, computed again once the
// levels of its Julia stack that hold it are ready: with the stack's flags,
// with its tiles handing their pixels to those levels, and without the stack
// (the correction and the bypass switched off), where every pixel is
// iterated against the view's reference. The count channel must be the same
// each way, and the tally of tiles that handed pixels on tells whether the
// hand-off happened.
#include <gmp.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "juliastack.h"
#include "minibrotframe.h"
#include "test_view_headless.h"

using namespace viewheadless;
using viewporttest::TILEKEY;
using viewporttest::keyof;

namespace {

constexpr unsigned PERIOD = 32;
constexpr mp_bitcnt_t BITS = 512;

// The view at c' = (cre, cim) in the minibrot's own frame, w = lambda z,
// where one period acts as w -> w^2 + c' with c' = lambda D (c - c0): the
// same place next to the minibrot as c' is next to the whole set, a longer
// side of `span` there.
VIEWARGS nexttominibrot(double cre, double cim, double span) {
  // Newton from i + 1e-10 (0.7 + 0.3 i).
  minibrotframe::PLACE p = minibrotframe::place(PERIOD, BITS, "0.7e-10", "0.3e-10", cre, cim, span, 200);
  return placedargs(p.re, p.im, p.span);
}

struct VIEWCOUNTS {
  std::map<TILEKEY, std::vector<float>> counts;
  int64_t iterations = 0;
  int deepest = 0;
  uint32_t cycle = 0;  // the realm's compute cycle
  int current = 0;     // tiles made in that cycle
  const ENVIRONMENT* e = nullptr;
  bool periodic = false;
};

VIEWCOUNTS collect(RUN& r) {
  VIEWCOUNTS out;
  onmain(r, [&](OVCONTEXT*) {
    VIEWPORT* v = r.run.viewport.load();
    out.cycle = r.run.realm->computecycle;
    int i = currentlist(v);
    for (int n = 0; n < v->iviewportarea[i]; n++) {
      const VIEWPORTAREA& va = v->viewportarea[i][n];
      if (va.priority <= 0 || va.priority == PRIO_KEEP) continue;
      AREA* a = va.a;
      out.current += a->computecycle == out.cycle;
      out.iterations += a->statiterations;
      if (a->depth > out.deepest) {
        out.deepest = a->depth;
        out.e = a->e;
        out.periodic = a->e && (a->e->flags & E_PERIODIC);
      }
      const TEXTURE* t = a->texture[3];
      if (!t || !t->pixels) continue;
      const float* p = static_cast<const float*>(t->pixels);
      out.counts[keyof(a, v)].assign(p, p + TEXTURESIZE * TEXTURESIZE);
    }
  });
  return out;
}

struct AGREEMENT {
  long same = 0, all = 0, tiles = 0;
  double share() const { return all ? static_cast<double>(same) / all : 0; }
};

// The same escape count within 1, both inside, or both without a count.
AGREEMENT agreement(const VIEWCOUNTS& a, const VIEWCOUNTS& b) {
  AGREEMENT g;
  int shown = 0;
  for (const auto& [key, x] : a.counts) {
    auto it = b.counts.find(key);
    if (it == b.counts.end()) continue;
    g.tiles++;
    const std::vector<float>& y = it->second;
    for (size_t k = 0; k < x.size(); k++) {
      g.all++;
      bool inner = x[k] < 0 && y[k] < 0;
      bool escape = x[k] > 0 && y[k] > 0 && std::abs(x[k] - y[k]) <= 1;
      if (inner || escape || (x[k] == 0 && y[k] == 0)) {
        g.same++;
      } else if (shown++ < 8) {
        printf("  depth %d texel %zu,%zu: with the stack %g, without %g\n", std::get<0>(key),
               k % TEXTURESIZE, k / TEXTURESIZE, x[k], y[k]);
      }
    }
  }
  return g;
}

struct STACKSTATE {
  int needed = -1, usable = -1;
};

STACKSTATE stackstate(RUN& r) {
  STACKSTATE st;
  onmain(r, [&](OVCONTEXT*) {
    REALM* jr = r.run.juliarealm;
    if (!jr || !jr->juliastack) return;
    st.needed = jr->validjuliastack + 1;
    st.usable = juliastackusable(jr) + 1;
  });
  return st;
}

// Waits for the finish after finish `finishes` in which every tile the view
// waits for is of the realm's present cycle: a finish of the computation
// before may still come after a redraw.
bool waitcurrent(RUN& r, int finishes, double seconds) {
  for (int n = finishes + 1;; n++) {
    if (!waitviewfinish(&r.run, n, seconds)) return false;
    bool current = true;
    onmain(r, [&](OVCONTEXT*) {
      VIEWPORT* v = r.run.viewport.load();
      int i = currentlist(v);
      for (int k = 0; k < v->iviewportarea[i]; k++) {
        const VIEWPORTAREA& va = v->viewportarea[i][k];
        if (va.priority <= 0 || va.priority == PRIO_KEEP) continue;
        const AREA* a = va.a;
        if (a->worker || !(a->flags & A_PRECALCULATED) || a->computecycle != r.run.realm->computecycle)
          current = false;
      }
    });
    if (current) return true;
  }
}

double nowms() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The view, its stack made ready, computed again with the stack (the view's
// start flags) and without it; the counts of both computations.
struct AGAIN {
  STACKSTATE stack;
  VIEWCOUNTS with, without;
  AGREEMENT agree;
  long handed = 0, handedlevels = 0, handedwithout = 0;
  double withms = 0, withoutms = 0, readyms = 0;
  CHANNEL3 exactwith, exactwithout;
};

void again(AGAIN* out) {
  RUN r;
  VIEWARGS args = nexttominibrot(-0.75, 0.2, 0.5);
  double t0 = nowms();
  ASSERT_TRUE(start(r, args));
  // The limits only guard against a hang: on two quiet cores the view takes
  // a few seconds, its levels as long again.
  ASSERT_TRUE(waitviewfinish(&r.run, 1, 50)) << "the view did not finish";
  // The levels that hold the view are built behind its tiles.
  STACKSTATE& st = out->stack;
  st = stackstate(r);
  double end = nowms() + 40000;
  while (!(st.needed > 0 && st.usable >= st.needed) && nowms() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    st = stackstate(r);
  }
  out->readyms = nowms() - t0;
  ASSERT_GT(st.needed, 0);
  ASSERT_GE(st.usable, st.needed) << "the stack did not become ready";

  JULIAHANDOFFTALLY& tally = juliahandofftally();
  tally.clear();
  int finishes = r.run.events[VPCALLBACK_FINISH].load();
  double t1 = nowms();
  onmain(r, [&](OVCONTEXT* c) { redraw(c, r.run.viewport.load()); });
  ASSERT_TRUE(waitcurrent(r, finishes, 50));
  out->withms = nowms() - t1;
  checkfinished(r);
  out->with = collect(r);
  out->exactwith = checkchannel3(r, 12, 20000);
  out->handed = tally.tiles.load();
  out->handedlevels = tally.levels.load();

  // Every tile anew, each pixel iterated against the view's reference.
  finishes = r.run.events[VPCALLBACK_FINISH].load();
  double t2 = nowms();
  onmain(r, [&](OVCONTEXT* c) {
    switchflag(c, r.run.realm, 0, R_JULIACORRECT | R_BYPASS);
    redraw(c, r.run.viewport.load());
  });
  ASSERT_TRUE(waitcurrent(r, finishes, 50));
  out->withoutms = nowms() - t2;
  checkfinished(r);
  out->without = collect(r);
  out->exactwithout = checkchannel3(r, 12, 20000);
  out->handedwithout = tally.tiles.load() - out->handed;
  out->agree = agreement(out->with, out->without);
  stopviewrun(&r.run);
  endviewrun(&r.run);

  const VIEWCOUNTS& w = out->with;
  printf("  levels %d of %d usable %.0f ms after the start; deepest tile %d over a %s environment\n",
         st.usable, st.needed, out->readyms, w.deepest, w.periodic ? "periodic" : "plain");
  printf("  with the stack: %ld tiles handed pixels on (level %.1f on average), %lld iterations, %.0f ms\n",
         out->handed, out->handed ? static_cast<double>(out->handedlevels) / out->handed : 0.0,
         static_cast<long long>(w.iterations), out->withms);
  report(out->exactwith);
  printf("  without: %lld iterations, %.0f ms\n", static_cast<long long>(out->without.iterations),
         out->withoutms);
  report(out->exactwithout);
  printf("  %ld tiles compared: counts agree on %ld of %ld pixels (%.4f)\n", out->agree.tiles,
         out->agree.same, out->agree.all, out->agree.share());
}

// What both computations must show whether or not the tiles handed pixels on.
void checkagain(const AGAIN& a) {
  EXPECT_TRUE(a.with.periodic);
  // Both made every tile anew, in a cycle of their own.
  EXPECT_NE(a.with.cycle, a.without.cycle);
  EXPECT_EQ(a.with.current, static_cast<int>(a.with.counts.size()));
  EXPECT_EQ(a.without.current, static_cast<int>(a.without.counts.size()));
  EXPECT_EQ(a.handedwithout, 0);
  // Most of the view's tiles are compared, and their counts are the same.
  EXPECT_GE(a.agree.tiles, static_cast<long>(a.with.counts.size()) * 9 / 10);
  EXPECT_GT(a.agree.all, 0);
  EXPECT_GE(a.agree.share(), 0.995);
  // The computation without the stack is the exact one.
  EXPECT_GT(a.exactwithout.escaped, 0);
  EXPECT_EQ(a.exactwithout.unequal, 0);
}

}  // namespace

// As the engine runs: the tiles keep their cells and iterate every pixel,
// the stack flags on or off, and no tile hands a pixel to the stack.
TEST(ViewJuliaStack, NextToAMinibrotTheViewsTilesKeepTheirPixelsAndTheirCounts) {
  ASSERT_FALSE(juliahandoffperiodic);
  AGAIN a;
  again(&a);
  if (HasFatalFailure()) return;
  EXPECT_EQ(a.handed, 0);
  checkagain(a);
}

// DISABLED: fails, and shows why the hand-off is off. With it on, the tiles
// hand their pixels to the deepest usable level (31 here), and only 27% of
// the counts stay those of the exact computation; 51 of 144 sampled pixels
// get another escape count than GMP's (lower, by up to 137 steps, about 4
// periods): the levels hold the outcomes of the seed's parameter, and every
// return near 0 after the hand-off amplifies the pixel's own difference from
// it. Enable once a level's validity for a tile counts those returns.
TEST(ViewJuliaStack, DISABLED_NextToAMinibrotTilesThatHandPixelsToTheStackKeepTheirCounts) {
  juliahandoffperiodic = true;
  AGAIN a;
  again(&a);
  juliahandoffperiodic = false;
  if (HasFatalFailure()) return;
  // The hand-off happened, and only with the stack.
  EXPECT_GT(a.handed, 0);
  checkagain(a);
  EXPECT_EQ(a.exactwith.unequal, 0);
}
