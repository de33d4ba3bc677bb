// General views end to end on a running engine, with the idle search and the
// environments' scan in the flow: the start view, whose centre is interior,
// completes; a jump to a deep point near the boundary gets its environment
// by the scan and completes too.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>

#include "idle.h"
#include "test_viewport.h"

using namespace viewporttest;

namespace {

constexpr int RES = 256;

// Counts the view's completions, and those that came without an
// environment: a general view's areas have nothing to compute against then.
struct COMPLETIONS : FINISHCOUNT {
  std::atomic<int> bare{0};
};

void countcompletion(OVCONTEXT* c, VIEWPORT* v, int event, void* pdata) {
  COMPLETIONS* k = static_cast<COMPLETIONS*>(pdata);
  if (event == VPCALLBACK_FINISH && !v->esat && !v->enonsat) k->bare.fetch_add(1);
  countfinish(c, v, event, pdata);
}

struct GENERALVIEW {
  TileEngine e{16, false};
  REALM* realm;
  REALM* julia;
  VIEWPORT* v;
  COMPLETIONS count;

  GENERALVIEW() {
    realm = newrealm(e, GENERAL);
    julia = newrealm(e, JULIA);
    v = addviewport(e.context, realm, julia, RES, RES, countcompletion, &count);
    EXPECT_NE(v, nullptr);
    activateviewport(e.context, v, 1);
  }
  ~GENERALVIEW() {
    EXPECT_EQ(count.bare.load(), 0);
    waitfor([&] {
      bool rest = false;
      e.onmain([&](OVCONTEXT*) { rest = !(v->flags & (VP_IDLE | VP_MOVING)); });
      return rest;
    });
    detachviewport(e.context, v);
    detachrealm(e.context, realm);
    detachrealm(e.context, julia);
    e.onmain([](OVCONTEXT*) {});
  }
  void waitfinish(int n) { waitfor([&] { return count.finish.load() >= n; }); }
};

std::complex<double> pointof(const HPVALUE* h) {
  return {mpf_get_d(h->v[0]), mpf_get_d(h->v[1])};
}

}  // namespace

TEST(EnvironmentScan, TheStartViewCompletesWithTheIdleSearchOn) {
  GENERALVIEW g;
  g.waitfinish(1);  // a hang here ends in the test's timeout
  g.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(g.v->ivainvalid, 0);
    EXPECT_FALSE(g.v->flags & VP_MUSTWAITFORIDLE);
    EXPECT_FALSE(g.v->flags & VP_DONOTDRAW);
    // The centre 0 is the nucleus of period 1, found by the idle search and
    // serving the view.
    ASSERT_NE(g.v->esat, nullptr);
    EXPECT_EQ(g.v->esat->n, 1u);
    EXPECT_TRUE(g.v->esat->flags & E_PERIODIC);
    EXPECT_LT(std::abs(pointof(g.v->esat->c)), 1e-15);
    EXPECT_EQ(g.v->info.iter, -1);  // interior, attracted by the fixed point
  });
}

TEST(EnvironmentScan, ADeepViewNearTheBoundaryGetsItsEnvironmentAfterAMoveAndCompletes) {
  GENERALVIEW g;
  g.waitfinish(1);
  // A view of width 1e-100 at a point 3e-101 off the Misiurewicz point i.
  const mp_bitcnt_t bits = 420;
  mpf_t x, y;
  mpf_init2(x, bits);
  mpf_init2(y, bits);
  mpf_set_str(x, "3e-101", 10);
  mpf_set_ui(y, 1);
  HFLOATCOMPLEX zoom = cHF(hfloatfromstring("2e100"), ZEROH);
  int before = g.count.finish.load();
  moveviewportabsolute(g.e.context, g.v, x, y, zoom, RES, RES);
  // Complete at the new place, with nothing more under way.
  waitfor([&] {
    bool done = false;
    g.e.onmain([&](OVCONTEXT*) {
      done = g.count.finish.load() > before && !(g.v->flags & (VP_IDLE | VP_MOVING)) &&
             g.v->ivainvalid == 0 && std::abs(pointof(g.v->delta).imag() - 1) < 1e-15;
    });
    return done;
  });
  g.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(g.v->ivainvalid, 0);
    EXPECT_NEAR(pointof(g.v->delta).imag(), 1, 1e-15);
    // The standard environment of the new centre serves: an orbit that
    // leaves the disc after a few hundred rounds.
    ENVIRONMENT* s = g.v->esat ? g.v->esat : g.v->enonsat;
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(g.v->esat, nullptr);
    EXPECT_TRUE(s->flags & E_ESCAPED);
    EXPECT_GT(s->n, 100u);
    EXPECT_LT(std::abs(pointof(s->c) - std::complex<double>(0, 1)), 1e-90);
    // The run of the centre against it was made for this very position.
    EXPECT_EQ(g.v->info.c, g.v->delta);
    EXPECT_EQ(g.v->info.e, s);
  });
  mpf_clear(x);
  mpf_clear(y);
}
