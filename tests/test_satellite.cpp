// The satellite search and the view's side of it: the components found near
// views by bulbs of known periods, each centre checked by an independent
// Newton iteration in GMP; the same search against a reference orbit;
// re-basing onto a new environment; the satellites in the display's
// coordinates through the ring of pending steps; the search's messages; and
// the jump to a satellite.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <set>
#include <vector>

#include "mpforbit.h"
#include "refiter.h"
#include "satellite.h"
#include "test_refiter_env.h"
#include "test_viewport.h"

using namespace viewporttest;
using cd = std::complex<double>;

namespace {

constexpr mp_bitcnt_t BITS = 256;

// z_n(c) and dz_n/dc in mpf.
void iterate(mpf_srcptr cx, mpf_srcptr cy, int n, mpf_ptr zx, mpf_ptr zy, mpf_ptr dx,
             mpf_ptr dy) {
  mpf_t a, b, t;
  mpf_init2(a, BITS);
  mpf_init2(b, BITS);
  mpf_init2(t, BITS);
  mpf_set_ui(zx, 0);
  mpf_set_ui(zy, 0);
  mpf_set_ui(dx, 0);
  mpf_set_ui(dy, 0);
  for (int k = 0; k < n; k++) {
    mpforbit::step(zx, zy, dx, dy, cx, cy, a, b, t);
  }
  mpf_clear(a);
  mpf_clear(b);
  mpf_clear(t);
}

double magnitude(mpf_srcptr x, mpf_srcptr y) {
  return std::hypot(mpf_get_d(x), mpf_get_d(y));
}

// The nucleus of period n that Newton's method reaches from c, and whether
// n is its least period.
bool nucleus(cd c, int n, cd* out) {
  mpf_t cx, cy, zx, zy, dx, dy, q, t, u;
  for (mpf_ptr m : {cx, cy, zx, zy, dx, dy, q, t, u}) mpf_init2(m, BITS);
  mpf_set_d(cx, c.real());
  mpf_set_d(cy, c.imag());
  for (int it = 0; it < 60; it++) {
    iterate(cx, cy, n, zx, zy, dx, dy);
    mpf_mul(q, dx, dx);
    mpf_mul(t, dy, dy);
    mpf_add(q, q, t);
    mpf_mul(t, zx, dx);
    mpf_mul(u, zy, dy);
    mpf_add(t, t, u);
    mpf_div(t, t, q);
    mpf_sub(cx, cx, t);
    mpf_mul(t, zy, dx);
    mpf_mul(u, zx, dy);
    mpf_sub(t, t, u);
    mpf_div(t, t, q);
    mpf_sub(cy, cy, t);
  }
  iterate(cx, cy, n, zx, zy, dx, dy);
  bool ok = magnitude(zx, zy) < 1e-60;
  for (int d = 1; d < n && ok; d++) {
    if (n % d) continue;
    iterate(cx, cy, d, zx, zy, dx, dy);
    if (magnitude(zx, zy) < 1e-30) ok = false;
  }
  *out = cd(mpf_get_d(cx), mpf_get_d(cy));
  for (mpf_ptr m : {cx, cy, zx, zy, dx, dy, q, t, u}) mpf_clear(m);
  return ok;
}

struct FOUND {
  std::set<int> periods;
  std::vector<SATRECORD> sat;
};

FOUND search(OVCONTEXT* context, ENVIRONMENT* e, cd delta, double zoom, ITER maxiter = 100000) {
  SATINFO s{};
  ITERINFO info{};
  calcsat(context, e, -1, maxiter, &info, &s, -30, cHFd(delta), cHFd({zoom, 0}), nullptr, 32);
  FOUND f;
  for (int i = 0; i < s.n; i++) {
    f.periods.insert(s.sat[i].iter);
    f.sat.push_back(s.sat[i]);
  }
  EXPECT_LE(s.n, NSATINFO);
  return f;
}

// Every centre is a nucleus of its period (least), to 2^-30 as the search
// was asked, and none is listed twice.
void checkcentres(const FOUND& f, cd base = 0) {
  for (const SATRECORD& s : f.sat) {
    cd c = cdHF(s.c) + base, exact;
    SCOPED_TRACE(testing::Message() << "period " << s.iter << " at " << c);
    ASSERT_TRUE(nucleus(c, s.iter, &exact));
    EXPECT_LT(std::abs(exact - c), std::ldexp(1.0, -30));
  }
  for (size_t i = 0; i < f.sat.size(); i++)
    for (size_t j = i + 1; j < f.sat.size(); j++)
      EXPECT_GT(std::abs(cdHF(f.sat[i].c) - cdHF(f.sat[j].c)), 1e-6);
}

void expectperiods(const FOUND& f, std::set<int> expected) {
  for (int p : expected) EXPECT_TRUE(f.periods.count(p)) << "period " << p << " missing";
}

// An environment by hand: the orbit of (x, y) in `refdatah`, `n` points,
// non-periodic, holding the caller's one reference.
ENVIRONMENT* orbitenvironment(OVCONTEXT* c, cd at, int n, unsigned int flags = 0) {
  mpf_t x, y;
  mpf_init2(x, BITS);
  mpf_init2(y, BITS);
  mpf_set_d(x, at.real());
  mpf_set_d(y, at.imag());
  ENVIRONMENT* e = adde(c, x, y, BITS);
  e->flags = flags;
  e->n = static_cast<UITER>(n);
  e->nrefdata = n;
  e->refdatah = static_cast<REFDATAH*>(calloc(n, sizeof(REFDATAH)));
  e->refdatad = static_cast<REFDATAD*>(calloc(n, sizeof(REFDATAD)));
  __atomic_add_fetch(&c->mem_envrefdata, int64_t(sizeof(REFDATAH) + sizeof(REFDATAD)) * n, __ATOMIC_SEQ_CST);
  mpf_t zx, zy, dx, dy, t;
  for (mpf_ptr m : {zx, zy, dx, dy, t}) mpf_init2(m, BITS);
  mpf_set_ui(zx, 0);
  mpf_set_ui(zy, 0);
  for (int k = 0; k < n; k++) {
    e->refdatah[k].value = cHF(mpf_get_HF(zx), mpf_get_HF(zy));
    e->refdatad[k].value = complexd(mpf_get_d(zx), mpf_get_d(zy));
    mpf_mul(t, zx, zx);
    mpf_mul(dx, zy, zy);
    mpf_sub(t, t, dx);
    mpf_mul(dy, zx, zy);
    mpf_mul_2exp(zy, dy, 1);
    mpf_add(zy, zy, y);
    mpf_add(zx, t, x);
  }
  for (mpf_ptr m : {zx, zy, dx, dy, t, x, y}) mpf_clear(m);
  return e;
}

cd origin(const ENVIRONMENT* e) {
  if (!e || (e->flags & (E_SERIES | E_PERIODIC)) == E_PERIODIC) return 0;
  return cd(mpf_get_d(e->c->v[0]), mpf_get_d(e->c->v[1]));
}

cd absolute(const ENVIRONMENT* e, HFLOATCOMPLEX rel) { return origin(e) + cdHF(rel); }

}  // namespace

// ---------------------------------------------------------------- the search

TEST(SatelliteSearch, AtTheRootOfThePeriodTwoBulbItFindsPeriodsOneAndTwo) {
  FOUND f = search(nullptr, nullptr, {-0.75, 0}, 2);
  expectperiods(f, {1, 2});
  checkcentres(f);
}

TEST(SatelliteSearch, AtTheRootOfAPeriodThreeBulbItFindsItsCentre) {
  // The root of the 1/3 limb of the main cardioid.
  FOUND f = search(nullptr, nullptr, {-0.125, 0.649519}, 4);
  expectperiods(f, {3});
  checkcentres(f);
  // And the lower one, its mirror image.
  FOUND g = search(nullptr, nullptr, {-0.125, -0.649519}, 4);
  expectperiods(g, {3});
  checkcentres(g);
  ASSERT_EQ(f.sat.size(), g.sat.size());
  EXPECT_NEAR(cdHF(f.sat[0].c).imag(), -cdHF(g.sat[0].c).imag(), 1e-9);
}

TEST(SatelliteSearch, SatellitesOfThePeriodTwoBulbHaveItsPeriodTimesQ) {
  // The roots of the 1/2 and 1/3 limbs of the period-2 bulb: periods 4 and 6.
  FOUND f = search(nullptr, nullptr, {-1.25, 0}, 4);
  expectperiods(f, {4});
  checkcentres(f);
  FOUND g = search(nullptr, nullptr, {-1.125, 0.216506}, 8);
  expectperiods(g, {6});
  checkcentres(g);
}

TEST(SatelliteSearch, AMultipleOfAPeriodIsListedOnceWithTheLeastPeriod) {
  // Close to the period-3 centre the orbit comes near 0 at 3, 6 and 9.
  SATINFO cand{};
  satcandidates(nullptr, nullptr, 100000, cHFd({-0.1226, 0.7449}), cHFd({32, 0}), 32, &cand,
                nullptr);
  ASSERT_GE(cand.n, 2);
  EXPECT_EQ(cand.sat[0].iter, 3);
  EXPECT_EQ(cand.sat[1].iter, 6);
  FOUND f = search(nullptr, nullptr, {-0.1226, 0.7449}, 32);
  EXPECT_EQ(f.periods, std::set<int>{3});
  checkcentres(f);
}

TEST(SatelliteSearch, ComponentsOutsideTheViewAreDropped) {
  // The same root seen 64 times closer: the period-3 centre lies 6 view
  // radii away.
  FOUND f = search(nullptr, nullptr, {-0.125, 0.649519}, 64);
  EXPECT_EQ(f.periods.count(3), 0u);
  checkcentres(f);
}

TEST(SatelliteSearch, AViewAtAPeriodicEnvironmentLeavesItsOwnCentreOut) {
  TileEngine e(4, false);
  e.onmain([&](OVCONTEXT* c) {
    // The period-2 nucleus -1 as a shallow periodic environment (no
    // reference): offsets are absolute, and the centre of the view is its own.
    ENVIRONMENT* env = orbitenvironment(c, {-1, 0}, 4, E_PERIODIC);
    FOUND f = search(c, env, {-1.0000001, 0}, 2);
    EXPECT_EQ(f.periods.count(2), 0u);
    FOUND g = search(c, nullptr, {-1.0000001, 0}, 2);
    EXPECT_EQ(g.periods.count(2), 1u);
    detache(c, env);
  });
}

TEST(SatelliteSearch, AgainstAReferenceOrbitTheCentresAreTheSame) {
  TileEngine e(4, false);
  e.onmain([&](OVCONTEXT* c) {
    cd view(-0.7, 0.3);
    ENVIRONMENT* env = orbitenvironment(c, view + cd(1e-3, -2e-3), 5000);
    const cd base = origin(env);
    cd delta = view - base;
    FOUND f = search(c, env, delta, 3, 4000);
    FOUND g = search(c, nullptr, view, 3, 4000);
    EXPECT_EQ(f.periods, g.periods);
    expectperiods(f, {2, 11});
    checkcentres(f, base);
    for (const SATRECORD& s : f.sat)
      for (const SATRECORD& t : g.sat)
        if (s.iter == t.iter) {
          EXPECT_LT(std::abs(absolute(env, s.c) - cdHF(t.c)), 1e-9);
        }
    detache(c, env);
  });
}

TEST(SatelliteSearch, AnEscapingCentreHasNoCandidatesAndGivesItsCount) {
  SATINFO s{};
  s.n = 5;
  ITERINFO info{};
  calcsat(nullptr, nullptr, -1, 1000, &info, &s, -30, cHFd({0.5, 0.5}), cHFd({4, 0}), nullptr, 32);
  EXPECT_EQ(s.n, 0);
  EXPECT_EQ(info.iter, 5);  // 0.5 + 0.5i leaves the disc of radius 2 at its fifth step
}

TEST(SatelliteSearch, AStoppedWorkerEndsTheSearch) {
  WORKER w{};
  w.stop = true;
  SATINFO s{};
  ITERINFO info{};
  calcsat(nullptr, nullptr, -1, 100000, &info, &s, -30, cHFd({-0.75, 0}), cHFd({2, 0}), &w, 32);
  EXPECT_EQ(s.n, 0);
  w.stop = false;
  calcsat(nullptr, nullptr, -1, 100000, &info, &s, -30, cHFd({-0.75, 0}), cHFd({2, 0}), &w, 32);
  EXPECT_EQ(s.n, 2);
}

TEST(SatelliteSearch, ACandidateThatNeverBecomesFinalIsDroppedAfterItsSteps) {
  // No step can be below 2^INT_MIN: every candidate uses up its eleven.
  SATINFO s{};
  ITERINFO info{};
  calcsat(nullptr, nullptr, -1, 100000, &info, &s, INT_MIN, cHFd({-0.75, 0}), cHFd({2, 0}),
          nullptr, 32);
  EXPECT_EQ(s.n, 0);
  // satsize caps the candidates looked at.
  calcsat(nullptr, nullptr, -1, 100000, &info, &s, -30, cHFd({-0.75, 0}), cHFd({2, 0}), nullptr, 1);
  ASSERT_EQ(s.n, 1);
  EXPECT_EQ(s.sat[0].iter, 1);
}

namespace {

// Newton on z_n in mpf from (x, y), in place; true when it settled on a
// nucleus of least period n.
bool mpfnucleus(mpf_ptr cx, mpf_ptr cy, int n) {
  mpf_t zx, zy, dx, dy, q, t, u;
  for (mpf_ptr m : {zx, zy, dx, dy, q, t, u}) mpf_init2(m, BITS);
  for (int it = 0; it < 80; it++) {
    iterate(cx, cy, n, zx, zy, dx, dy);
    mpf_mul(q, dx, dx);
    mpf_mul(t, dy, dy);
    mpf_add(q, q, t);
    mpf_mul(t, zx, dx);
    mpf_mul(u, zy, dy);
    mpf_add(t, t, u);
    mpf_div(t, t, q);
    mpf_sub(cx, cx, t);
    mpf_mul(t, zy, dx);
    mpf_mul(u, zx, dy);
    mpf_sub(t, t, u);
    mpf_div(t, t, q);
    mpf_sub(cy, cy, t);
  }
  iterate(cx, cy, n, zx, zy, dx, dy);
  long ez;
  bool ok = mpf_sgn(zx) == 0 || (mpf_get_d_2exp(&ez, zx), ez < -150);
  for (int d = 1; d < n && ok; d++) {
    if (n % d) continue;
    iterate(cx, cy, d, zx, zy, dx, dy);
    if (mpf_sgn(zx) == 0 || (mpf_get_d_2exp(&ez, zx), ez < -120)) ok = false;
  }
  for (mpf_ptr m : {zx, zy, dx, dy, q, t, u}) mpf_clear(m);
  return ok;
}

HFLOATCOMPLEX hfdiff(mpf_srcptr ax, mpf_srcptr ay, mpf_srcptr bx, mpf_srcptr by) {
  mpf_t t;
  mpf_init2(t, BITS);
  mpf_sub(t, ax, bx);
  HFLOAT x = mpf_get_HF(t);
  mpf_sub(t, ay, by);
  HFLOAT y = mpf_get_HF(t);
  mpf_clear(t);
  return cHF(x, y);
}

}  // namespace

TEST(SatelliteSearch, DeepAgainstAPeriodicEnvironmentItsPeriodDoublingIsFound) {
  // A period-22 nucleus on the antenna next to -2, its atom about 2^-90:
  // deeper than HFLOAT's mantissa resolves around -2, so only offsets from
  // the environment can show its satellites. The environment carries the
  // series of its period, as the Newton run and the series step leave it.
  refitertest::BARECONTEXT bare;
  refitertest::ENV env(refitertest::nucleus(-1.9999999999, 0, 22), 22);
  calctaylorenvironment(bare.context, env.e, nullptr);
  ASSERT_TRUE(env.e->flags & E_SERIES);
  const double r = dHF(env.e->r2);
  ASSERT_GT(r, 0);
  // Independently: the period-44 component that buds off it on the real
  // axis, on one side or the other.
  mpf_t x44, y44, off;
  mpf_init2(x44, BITS);
  mpf_init2(y44, BITS);
  mpf_init2(off, BITS);
  bool found = false;
  for (double side : {-1.0, 1.0}) {
    mpf_set_d(off, side * 1.5 * r);
    mpf_add(x44, env.c.x, off);
    mpf_set_ui(y44, 0);
    if (mpfnucleus(x44, y44, 44) && std::fabs(dHF(crealHF(hfdiff(x44, y44, env.c.x, env.c.y)))) > 0.2 * r) {
      found = true;
      break;
    }
  }
  ASSERT_TRUE(found);
  HFLOATCOMPLEX n44 = hfdiff(x44, y44, env.c.x, env.c.y);
  // The view: as wide as the distance of the two nuclei, its centre in the
  // atom domain of period 44, 0.65 of the way: the orbit comes nearer 0 at
  // 44 than at 22 (halfway it does not), and the nucleus is more than an
  // eighth of the view away, so it is not taken for the view's own.
  HFLOATCOMPLEX centre = cmulHF2(n44, HFd(0.65));
  HFLOAT dist = cabsHF(n44);
  HFLOATCOMPLEX zoom = cHF(divHF(ONEH, dist), ZEROH);
  SATINFO s{};
  ITERINFO info{};
  const int depth = ilogbHF(dist) - 20;
  calcsat(bare.context, env.e, 7, 20000, &info, &s, depth, centre, zoom, nullptr, 32);
  bool has44 = false;
  for (int i = 0; i < s.n; i++) {
    if (s.sat[i].iter != 44) continue;
    has44 = true;
    HFLOAT err = cabsHF(csubHF(s.sat[i].c, n44));
    EXPECT_LT(ilogbHF(err), depth + 2);
  }
  EXPECT_TRUE(has44);
  // Centred on it, the satellite is the view's own and is left out.
  calcsat(bare.context, env.e, 7, 20000, &info, &s, depth, cmulHF2(n44, HFd(0.95)), zoom, nullptr,
          32);
  for (int i = 0; i < s.n; i++) EXPECT_NE(s.sat[i].iter, 44);
  mpf_clear(x44);
  mpf_clear(y44);
  mpf_clear(off);
}

// ---------------------------------------------------------------- changesate

namespace {

struct SATSCENE {
  TileEngine e{4, false};
  REALM* realm;
  VIEWPORT* v = nullptr;
  SATSCENE() {
    realm = newrealm(e, GENERAL);
    e.onmain([&](OVCONTEXT* c) { v = handmadeview(c, realm, {-0.7, 0.3}, {3, 0}); });
  }
  ~SATSCENE() {
    e.onmain([&](OVCONTEXT* c) {
      changesate(c, v, nullptr, -1);
      __detachviewport(c, v);
    });
    detachrealm(e.context, realm);
    e.onmain([](OVCONTEXT*) {});
  }
};

// Two records relative to `base`: one at an offset, one at the base itself.
void tworecords(VIEWPORT* v) {
  v->sat_info.n = 2;
  v->sat_info.sat[0] = SATRECORD{5, -20, cHFd({0.125, -0.0625}), CZEROH, CZEROH};
  v->sat_info.sat[1] = SATRECORD{7, -20, CZEROH, CZEROH, CZEROH};
}

// Re-bases from `from` to `to` and checks that the absolute positions stay.
void checkrebase(OVCONTEXT* c, VIEWPORT* v, ENVIRONMENT* from, ENVIRONMENT* to) {
  changesate(c, v, from, 3);
  tworecords(v);
  cd abs0 = origin(from) + cdHF(v->sat_info.sat[0].c);
  cd abs1 = origin(from) + cdHF(v->sat_info.sat[1].c);
  int before = to ? atomicload(&to->count) : 0;
  changesate(c, v, to, 4);
  EXPECT_EQ(v->sat_e, to);
  EXPECT_EQ(v->sat_e_prec, 4);
  if (to) {
    EXPECT_EQ(atomicload(&to->count), before + 1);
  }
  EXPECT_LT(std::abs(origin(to) + cdHF(v->sat_info.sat[0].c) - abs0), 1e-15);
  EXPECT_LT(std::abs(origin(to) + cdHF(v->sat_info.sat[1].c) - abs1), 1e-15);
  EXPECT_EQ(v->sat_info.sat[0].iter, 0);  // an offset moved: its period is found anew
  EXPECT_EQ(v->sat_info.sat[1].iter, 7);
}

}  // namespace

TEST(Satellite, ChangesateRebasesOffsetsSoThatAbsolutePositionsStay) {
  SATSCENE s;
  s.e.onmain([&](OVCONTEXT* c) {
    ENVIRONMENT* a = orbitenvironment(c, {-0.70031, 0.30017}, 16);
    ENVIRONMENT* b = orbitenvironment(c, {-0.69977, 0.29952}, 16);
    ENVIRONMENT* shallow = orbitenvironment(c, {-1, 0}, 4, E_PERIODIC);
    {
      SCOPED_TRACE("both with a reference");
      checkrebase(c, s.v, a, b);
    }
    {
      SCOPED_TRACE("only the new one");
      checkrebase(c, s.v, shallow, a);
      checkrebase(c, s.v, nullptr, b);
    }
    {
      SCOPED_TRACE("only the old one");
      checkrebase(c, s.v, a, shallow);
      checkrebase(c, s.v, b, nullptr);
    }
    {
      SCOPED_TRACE("neither");
      checkrebase(c, s.v, shallow, nullptr);
    }
    // The old environment's reference went back: only the test's is left.
    changesate(c, s.v, nullptr, -1);
    EXPECT_EQ(atomicload(&a->count), 1);
    EXPECT_EQ(atomicload(&b->count), 1);
    EXPECT_EQ(atomicload(&shallow->count), 1);
    detache(c, a);
    detache(c, b);
    detache(c, shallow);
  });
}

TEST(Satellite, ChangesateWithTheSameEnvironmentChangesOnlyTheSeriesDepth) {
  SATSCENE s;
  s.e.onmain([&](OVCONTEXT* c) {
    ENVIRONMENT* a = orbitenvironment(c, {-0.70031, 0.30017}, 16);
    changesate(c, s.v, a, 3);
    tworecords(s.v);
    SATINFO before = s.v->sat_info;
    int count = atomicload(&a->count);
    changesate(c, s.v, a, 9);
    EXPECT_EQ(s.v->sat_e_prec, 9);
    EXPECT_EQ(s.v->sat_e, a);
    EXPECT_EQ(atomicload(&a->count), count);
    EXPECT_EQ(memcmp(&before, &s.v->sat_info, sizeof(SATINFO)), 0);
    changesate(c, s.v, nullptr, -1);
    detache(c, a);
  });
}

TEST(Satellite, ChangesateStopsASearchInFlightAndLeavesItsRecords) {
  SATSCENE s;
  s.e.onmain([&](OVCONTEXT* c) {
    ENVIRONMENT* a = orbitenvironment(c, {-0.70031, 0.30017}, 16);
    ENVIRONMENT* b = orbitenvironment(c, {-0.69977, 0.29952}, 16);
    changesate(c, s.v, a, 3);
    tworecords(s.v);
    SATINFO before = s.v->sat_info;
    WORKER w{};
    s.v->sat_worker = &w;
    changesate(c, s.v, b, 3);
    EXPECT_TRUE(w.stop);
    EXPECT_EQ(s.v->sat_e, b);
    EXPECT_EQ(memcmp(&before, &s.v->sat_info, sizeof(SATINFO)), 0);
    s.v->sat_worker = nullptr;
    changesate(c, s.v, nullptr, -1);
    detache(c, a);
    detache(c, b);
  });
}

// ---------------------------------------------------------------- getsat

TEST(Satellite, GetsatFollowsTheRingOfPendingSteps) {
  SATSCENE s;
  const cd c0(0.01, -0.02), c1(-0.03, 0.005);
  const cd zoom(2, 1);
  const cd shift[3] = {{0.1, 0.05}, {-0.2, 0.3}, {0.01, 0}};
  const cd scale[3] = {{1.5, 0}, {0, 2}, {0.5, 0.5}};
  for (uint32_t first : {5u, 126u}) {  // the second wraps round the ring
    SCOPED_TRACE(first);
    s.e.onmain([&](OVCONTEXT*) {
      s.v->zoom = cHFd(zoom);
      s.v->sat_infocopy.n = 2;
      s.v->sat_infocopy.sat[0] = SATRECORD{6, -40, cHFd(c0), CZEROH, CZEROH};
      s.v->sat_infocopy.sat[1] = SATRECORD{9, -40, cHFd(c1), CZEROH, CZEROH};
      s.v->icursystem = first;
      s.v->icoordinatesystem = first + 3;
      for (uint32_t k = 0; k < 3; k++) {
        s.v->coordinatesystem[(first + k) % NCOORDINATESYSTEM] = cHFd(shift[k]);
        s.v->zoomsystem[(first + k) % NCOORDINATESYSTEM] = cHFd(scale[k]);
      }
    });
    cd out[NSATINFO];
    ITER iter[NSATINFO];
    int n = -1;
    getsat(s.e.context, s.v, out, iter, &n);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(iter[0], 6);
    EXPECT_EQ(iter[1], 9);
    const cd in[2] = {c0, c1};
    for (int i = 0; i < 2; i++) {
      cd p = in[i] * zoom;
      for (int k = 0; k < 3; k++) p = (p - shift[k]) * scale[k];
      EXPECT_LT(std::abs(out[i] - p), 1e-12 * std::abs(p)) << i;
    }
    // With every step applied the position is the offset times the zoom.
    s.e.onmain([&](OVCONTEXT*) { s.v->icursystem = first + 3; });
    getsat(s.e.context, s.v, out, iter, &n);
    EXPECT_LT(std::abs(out[0] - c0 * zoom), 1e-14);
  }
  s.e.onmain([&](OVCONTEXT*) { s.v->icursystem = 0;
    s.v->icoordinatesystem = 0; });
}

// ---------------------------------------------------------------- the messages

TEST(Satellite, TheSearchPublishesOffsetsFromThePresentCentre) {
  SATSCENE s;
  bool posted = false;
  s.e.onmain([&](OVCONTEXT* c) { posted = postcalcsat(c, s.v); });
  ASSERT_TRUE(posted);
  waitfor([&] { return atomicload(&s.v->sat_worker) == nullptr; });
  FOUND direct = search(nullptr, nullptr, {-0.7, 0.3}, 3);
  s.e.onmain([&](OVCONTEXT*) {
    ASSERT_EQ(s.v->sat_infocopy.n, static_cast<int>(direct.sat.size()));
    for (int i = 0; i < s.v->sat_infocopy.n; i++) {
      EXPECT_EQ(s.v->sat_infocopy.sat[i].iter, direct.sat[i].iter);
      // Final below an eighth of the view's pixel: 2/3 / 256 / 8 > 2^-12.
      cd abs = cdHF(s.v->sat_infocopy.sat[i].c) + cd(-0.7, 0.3), exact;
      ASSERT_TRUE(nucleus(abs, s.v->sat_infocopy.sat[i].iter, &exact));
      EXPECT_LT(std::abs(abs - exact), std::ldexp(1.0, -12));
      EXPECT_LT(std::abs(abs - cdHF(direct.sat[i].c)), std::ldexp(1.0, -12));
    }
    EXPECT_GE(s.v->sat_infocopy.n, 2);
  });
}

TEST(Satellite, AStoppedSearchLeavesTheCopyAsItWasAndOnlyRestartsWhenWanted) {
  SATSCENE s;
  s.e.onmain([&](OVCONTEXT* c) {
    s.v->sat_infocopy.n = 1;
    s.v->sat_infocopy.sat[0] = SATRECORD{42, 0, cHFd({0.5, 0.5}), CZEROH, CZEROH};
    ASSERT_TRUE(postcalcsat(c, s.v));
    EXPECT_FALSE(postcalcsat(c, s.v));  // one at a time
    atomicstore(&s.v->sat_worker->stop, true);
  });
  waitfor([&] { return atomicload(&s.v->sat_worker) == nullptr; });
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(s.v->sat_infocopy.n, 1);
    EXPECT_EQ(s.v->sat_infocopy.sat[0].iter, 42);
  });
  // Wanted by the view: the stopped search is made again.
  s.e.onmain([&](OVCONTEXT* c) {
    s.v->flags |= VP_SATELLITES;
    ASSERT_TRUE(postcalcsat(c, s.v));
    atomicstore(&s.v->sat_worker->stop, true);
  });
  waitfor([&] {
    bool done = false;
    s.e.onmain([&](OVCONTEXT*) {
      done = s.v->sat_worker == nullptr && s.v->sat_infocopy.sat[0].iter != 42;
    });
    return done;
  });
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_GE(s.v->sat_infocopy.n, 2);
    s.v->flags &= ~VP_SATELLITES;
  });
}

// ---------------------------------------------------------------- the jump

namespace {

struct JUMPSCENE {
  TileEngine e{16, false};
  REALM* realm;
  VIEWPORT* v;
  ENVIRONMENT* env = nullptr;
  JUMPSCENE() {
    realm = newrealm(e, MANDELBROT);
    v = addviewport(e.context, realm, nullptr, 256, 256, nullptr, nullptr);
    e.onmain([&](OVCONTEXT* c) {
      // The period-3 nucleus on the real axis.
      env = orbitenvironment(c, {-1.7548776662466927, 0}, 4, E_PERIODIC | E_SERIES);
      env->r2 = HFd(1e-3);
      v->esat = env;
    });
  }
  ~JUMPSCENE() {
    e.onmain([&](OVCONTEXT* c) {
      v->esat = nullptr;
      detache(c, env);
    });
    detachviewport(e.context, v);
    detachrealm(e.context, realm);
    e.onmain([](OVCONTEXT*) {});
    idlehooks = IDLEHOOKS{};
  }
};

}  // namespace

TEST(Satellite, TheJumpLandsOnTheAtomOfItsEnvironmentWithTheRotationKept) {
  JUMPSCENE s;
  s.e.onmain([&](OVCONTEXT*) {
    s.v->sat_infocopy.n = 1;  // offsets of the old centre
  });
  moveviewporttosatellite(s.e.context, s.v);
  s.e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(mpf_cmp(s.v->delta->v[0], s.env->c->v[0]), 0);
    EXPECT_EQ(mpf_cmp(s.v->delta->v[1], s.env->c->v[1]), 0);
    // The first move's zoom was -0.5i: the direction stays, the size frames
    // four atom radii.
    cd z = cdHF(s.v->zoom);
    EXPECT_NEAR(z.real(), 0, 1e-9);
    EXPECT_NEAR(z.imag(), -250, 1e-9);
    EXPECT_EQ(s.v->sat_infocopy.n, 0);
    mpf_t scratch;
    mpf_init2(scratch, 128);
    EXPECT_TRUE(isenvironmentclose(scratch, s.env, s.v->delta->v[0], s.v->delta->v[1], s.v->zoom));
    mpf_clear(scratch);
    (void)c;
  });
}

TEST(Satellite, TheHalfJumpGoesHalfTheWayInZoom) {
  JUMPSCENE s;
  moveviewporttosatellitehalf(s.e.context, s.v);
  s.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(mpf_cmp(s.v->delta->v[0], s.env->c->v[0]), 0);
    // From 0.5 to 250 is 8.97 binary orders; half of it, truncated, is 4.
    EXPECT_NEAR(std::abs(cdHF(s.v->zoom)), 250.0 / 16, 1e-9);
  });
}

TEST(Satellite, WithoutAnAtomSizeThereIsNoTarget) {
  JUMPSCENE s;
  s.e.onmain([&](OVCONTEXT* c) {
    s.env->r2 = ZEROH;
    s.env->tmpr2 = ZEROH;
    HFLOATCOMPLEX zoom;
    HPVALUE* point = nullptr;
    EXPECT_FALSE(satellitetarget(c, s.v, &zoom, &point));
    s.env->tmpr2 = HFd(4e-3);  // twice the radius, from the Newton pass
    EXPECT_TRUE(satellitetarget(c, s.v, &zoom, &point));
    EXPECT_EQ(point, s.env->c);
    EXPECT_NEAR(std::abs(cdHF(zoom)), 1 / 8e-3, 1e-9);
  });
}
