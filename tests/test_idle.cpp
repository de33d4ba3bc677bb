// The idle search on single general views made by hand: the standard
// environment of an escaping orbit, the orbit stored against a plain mpf
// loop, the walk along periods already known and the candidates past them,
// the budget's doubling, a run stopped by a move, and the candidates
// next to a deep view inside a wide atom.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "idle.h"
#include "mpforbit.h"
#include "refiter.h"
#include "test_viewport.h"

using namespace viewporttest;

namespace {

// A general view without Julia realm at the exact point (re, im), given as
// decimal strings, with zoom `zoom` and `bits` of precision.
VIEWPORT* exactview(OVCONTEXT* c, REALM* realm, const char* re, const char* im, double zoom,
                    mp_bitcnt_t bits) {
  VIEWPORT* v = handmadeview(c, realm, {0, 0}, {zoom, 0}, 256, 1);
  v->precision = bits;
  for (int k = 0; k < 2; k++) mpf_set_prec(v->dummy[k], bits);
  detachhpv(c, v->delta);
  v->delta = addhpv(c, bits);
  mpf_set_str(v->delta->v[0], re, 10);
  mpf_set_str(v->delta->v[1], im, 10);
  v->idle_maxiter = 0x7FFFFFFF;  // as a view's first move leaves it
  return v;
}

bool atrest(TileEngine& e, VIEWPORT* v) {
  bool rest = false;
  e.onmain([&](OVCONTEXT* c) {
    rest = !(v->flags & (VP_IDLE | VP_MOVING)) && atomicload(&c->iworkerall) == 1;
  });
  return rest;
}

void waitrest(TileEngine& e, VIEWPORT* v) {
  waitfor([&] { return atrest(e, v); });
}

void dropview(TileEngine& e, VIEWPORT* v, REALM* realm) {
  waitrest(e, v);
  e.onmain([&](OVCONTEXT* c) { __detachviewport(c, v); });
  detachrealm(e.context, realm);
  e.onmain([](OVCONTEXT*) {});
}

std::complex<double> pointof(const HPVALUE* h) {
  return {mpf_get_d(h->v[0]), mpf_get_d(h->v[1])};
}

}  // namespace

TEST(IdleSearch, AnOrbitEscapingAtOnceGivesAStandardEnvironmentOfNoLength) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  VIEWPORT* v = nullptr;
  e.onmain([&](OVCONTEXT* c) {
    v = exactview(c, realm, "3", "0", 1, 128);
    idlestart(c, v);
    EXPECT_TRUE(v->flags & VP_IDLE);
    EXPECT_EQ(v->idle_ncalculating, 1);
  });
  waitrest(e, v);
  e.onmain([&](OVCONTEXT*) {
    ASSERT_NE(v->enonsat, nullptr);
    EXPECT_LE(v->enonsat->n, 1u);
    EXPECT_TRUE(v->enonsat->flags & E_ESCAPED);
    EXPECT_FALSE(v->enonsat->flags & E_PERIODIC);
    EXPECT_EQ(v->enonsat->mini, 0);  // no stack level came from it
    EXPECT_EQ(v->idle_jst, 0);
    EXPECT_EQ(pointof(v->enonsat->c), std::complex<double>(3, 0));
    EXPECT_EQ(v->idle_standard, nullptr);
    EXPECT_EQ(v->idle_delta, nullptr);
  });
  dropview(e, v, realm);
}

TEST(IdleSearch, TheOrbitAtABoundaryPointOfDepth1e30IsThatOfAPlainMpfLoop) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  VIEWPORT* v = nullptr;
  // Within 1e-30 of the Misiurewicz point i, outside the set: the orbit
  // follows the cycle -1 + i, -i for a long while before it escapes.
  const char* re = "1e-30";
  const mp_bitcnt_t bits = 164;
  e.onmain([&](OVCONTEXT* c) {
    v = exactview(c, realm, re, "1", 1e30, bits);
    idlestart(c, v);
  });
  waitrest(e, v);
  e.onmain([&](OVCONTEXT*) {
    ENVIRONMENT* s = v->enonsat;
    ASSERT_NE(s, nullptr);
    EXPECT_TRUE(s->flags & E_ESCAPED);
    mp_bitcnt_t p = (bits & ~mp_bitcnt_t(31)) + 32;
    mpf_t cx, cy, x, y, t, u;
    for (mpf_ptr m : {cx, cy, x, y, t, u}) mpf_init2(m, p);
    mpf_set_str(cx, re, 10);
    mpf_set_ui(cy, 1);
    int n = 0;
    for (;; n++) {
      mpf_mul(t, x, x);
      mpf_mul(u, y, y);
      mpf_add(t, t, u);
      if (mpf_cmp_ui(t, 5) >= 0) break;
      ASSERT_LT(n, s->nrefdata);
      std::complex<double> want(mpf_get_d(x), mpf_get_d(y));
      EXPECT_NEAR(s->refdatad[n].value.real(), want.real(), 1e-12) << "at " << n;
      EXPECT_NEAR(s->refdatad[n].value.imag(), want.imag(), 1e-12) << "at " << n;
      EXPECT_NEAR(dHF(crealHF(s->refdatah[n].value)), want.real(), 1e-12) << "at " << n;
      // z -> z^2 + c
      mpf_mul(t, x, x);
      mpf_mul(u, y, y);
      mpf_sub(t, t, u);
      mpf_mul(u, x, y);
      mpf_mul_2exp(u, u, 1);
      mpf_add(x, t, cx);
      mpf_add(y, u, cy);
    }
    // The last point inside the disc of radius sqrt 5 ends the orbit.
    EXPECT_EQ(static_cast<int>(s->n), n - 1);
    EXPECT_GT(n, 50);  // a long orbit, not a quick escape
    for (mpf_ptr m : {cx, cy, x, y, t, u}) mpf_clear(m);
  });
  dropview(e, v, realm);
}

TEST(IdleSearch, AKnownPeriodMovesTheChainAndCandidatesComeOnlyPastTheLast) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  VIEWPORT* v = nullptr;
  ENVIRONMENT* e5 = nullptr;
  mpf_t x, y, dx, dy;
  for (mpf_ptr m : {x, y, dx, dy}) mpf_init2(m, 128);
  mpf_set_ui(dx, 1);
  // The view's idle run is driven step by step here, without `idlestart`,
  // which is where the graphs' results are pointed at the idle search.
  idleinstallhooks();
  HFLOATCOMPLEX t0[NTAYLORDEGREE] = {};
  HFLOATCOMPLEX tm[NTAYLORDEGREE] = {};
  tm[1] = CONEH;
  e.onmain([&](OVCONTEXT* c) {
    // The nucleus of period 2, with two periods already known near it.
    v = exactview(c, realm, "-1", "0", 4, 128);
    ENVIRONMENT* e3 = adde(c, v->delta->v[0], v->delta->v[1], 128);
    e5 = adde(c, v->delta->v[0], v->delta->v[1], 128);
    e3->flags = e5->flags = E_PERIODIC;
    e3->n = 3;
    e5->n = 5;
    insertenvironment(v, e5);
    insertenvironment(v, e3);
    attachhpv(v->delta);
    v->idle_delta = v->delta;
    v->idle_zoom = v->zoom;
    v->idle_computergroup.context = c;
    v->idle_chain = v->echain.next;
    v->idle_nextenviter = 3;
    v->idle_ncalculating = 1;
    v->idle_n0 = -1;

    // z = 0 with dz/dc = 1: every round is a perfect candidate.
    idlestep(v, 3, TWOH, x, y, dx, dy, t0, t0, tm, tm);
    EXPECT_EQ(v->idle_nextenviter, 5);
    EXPECT_EQ(v->idle_chain, &e5->chain);
    idlestep(v, 4, TWOH, x, y, dx, dy, t0, t0, tm, tm);
    EXPECT_EQ(v->idle_ncalculating, 1);  // not past the last period yet
    EXPECT_EQ(v->idle_pause, 0);
    idlestep(v, 5, TWOH, x, y, dx, dy, t0, t0, tm, tm);
    EXPECT_EQ(v->idle_nextenviter, -1);
    EXPECT_EQ(v->idle_chain, &v->echain);
    idlestep(v, 6, TWOH, x, y, dx, dy, t0, t0, tm, tm);
    EXPECT_EQ(v->idle_ncalculating, 2);  // a candidate of period 6 went to Newton
    EXPECT_EQ(v->idle_pause, 12);
    idlestep(v, 12, TWOH, x, y, dx, dy, t0, t0, tm, tm);
    EXPECT_EQ(v->idle_ncalculating, 2);  // its multiple is the same point again
  });
  // Newton confirms the nucleus for period 6, and it joins the chain in
  // order.
  waitfor([&] {
    int n = 0;
    e.onmain([&](OVCONTEXT*) { n = v->idle_ncalculating; });
    return n == 1;
  });
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    std::vector<unsigned> periods;
    ENVIRONMENT* found = nullptr;
    for (CHAIN* l = v->echain.next; l != &v->echain; l = l->next) {
      ENVIRONMENT* en = CHAINRECORD(l, ENVIRONMENT, chain);
      periods.push_back(en->n);
      if (en->n == 6) found = en;
    }
    EXPECT_EQ(periods, (std::vector<unsigned>{3, 5, 6}));
    ASSERT_NE(found, nullptr);
    EXPECT_NEAR(pointof(found->c).real(), -1, 1e-30);
    EXPECT_NEAR(pointof(found->c).imag(), 0, 1e-30);
    EXPECT_EQ(found->task, nullptr);
    detachhpv(c, v->idle_delta);
    v->idle_delta = nullptr;
  });
  for (mpf_ptr m : {x, y, dx, dy}) mpf_clear(m);
  dropview(e, v, realm);
}

TEST(IdleSearch, TheBudgetDoublesOnAMoveButNotFrom0x3FFFFFFFOn) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  VIEWPORT* v = nullptr;
  e.onmain([&](OVCONTEXT* c) { v = exactview(c, realm, "3", "0", 1, 128); });
  struct CASE {
    ITER before, after;
  };
  for (CASE k : {CASE{0x3FFFFFFF, 0x3FFFFFFF}, CASE{0x40000000, 0x40000000},
                 CASE{0x100, 0x200}, CASE{0, 0x7FFFFFFF}}) {
    waitrest(e, v);
    e.onmain([&](OVCONTEXT* c) {
      // Nothing known: the scan itself sets no budget.
      while (v->echain.next != &v->echain) {
        ENVIRONMENT* en = CHAINRECORD(v->echain.next, ENVIRONMENT, chain);
        chainrem(&en->chain);
        detache(c, en);
      }
      v->esat = nullptr;
      detache(c, v->enonsat);
      v->enonsat = nullptr;
      v->idle_maxiter = k.before;
      movingstart(c, v);
      EXPECT_EQ(v->idle_maxiter, k.after) << "from " << k.before;
    });
  }
  dropview(e, v, realm);
}

TEST(IdleSearch, AMoveStopsTheRunningOrbitAndTheNextRunIsAtTheNewCentre) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  VIEWPORT* v = nullptr;
  ENVIRONMENT* first = nullptr;
  e.onmain([&](OVCONTEXT* c) {
    // At the Misiurewicz point i the orbit neither escapes nor comes near
    // 0, and this budget is its own: only a stop ends the run.
    v = exactview(c, realm, "0", "1", 1, 128);
    v->idle_maxiter = 0x3FFFFFFE;
    idlestart(c, v);
    first = v->idle_standard;
  });
  waitfor([&] {
    ITER n = 0;
    e.onmain([&](OVCONTEXT*) { n = v->idle_iter; });
    return n >= 4 * NCOMPUTERSTRETCH;
  });
  e.onmain([&](OVCONTEXT* c) {
    ASSERT_TRUE(v->flags & VP_IDLE);
    EXPECT_EQ(v->idle_standard, first);
    // The view moves to 1, which escapes at once.
    HPVALUE* d = addhpv(c, 128);
    mpf_set_ui(d->v[0], 1);
    mpf_set_ui(d->v[1], 0);
    detachhpv(c, v->delta);
    v->delta = d;
    movingstart(c, v);
    EXPECT_TRUE(v->flags & VP_IDLESTOP);
  });
  waitrest(e, v);
  e.onmain([&](OVCONTEXT*) {
    EXPECT_FALSE(v->flags & VP_IDLESTOP);
    // The stopped orbit's environment went; the new run's serves.
    ASSERT_NE(v->enonsat, nullptr);
    EXPECT_EQ(pointof(v->enonsat->c), std::complex<double>(1, 0));
    EXPECT_EQ(v->enonsat->n, 2u);  // 0, 1, 2, then 5 leaves the disc
    EXPECT_TRUE(v->enonsat->flags & E_ESCAPED);
  });
  dropview(e, v, realm);
}

TEST(IdleSearch, StackLevelsFoundAlongTheOrbitAreWrittenToTheJuliaRealm) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  REALM* julia = newrealm(e, JULIA);
  VIEWPORT* v = nullptr;
  double js = 0;
  mpf_t x, y, dx, dy;
  for (mpf_ptr m : {x, y, dx, dy}) mpf_init2(m, 128);
  mpf_set_ui(dx, 1);
  e.onmain([&](OVCONTEXT* c) {
    v = exactview(c, realm, "-1", "0", 4, 128);
    ASSERT_NE(julia->juliastack, nullptr);
    v->juliarealm = julia;
    attachrealm(julia);
    attachhpv(v->delta);
    v->idle_delta = v->delta;
    v->idle_zoom = v->zoom;
    v->idle_computergroup.context = c;
    v->idle_chain = &v->echain;
    v->idle_nextenviter = 1000;  // no candidates in this test
    v->idle_ncalculating = 1;
    js = c->juliasize;
    // |t3|^2 / (|t1|^2 js^4) = 2^80: the quadratic form holds for 80 / 8
    // levels; nothing else has grown.
    HFLOATCOMPLEX tj[NTAYLORDEGREE] = {}, tm[NTAYLORDEGREE] = {};
    tj[1] = CONEH;
    tj[3] = cHF(HFd(std::ldexp(js * js, 40)), ZEROH);
    tm[1] = cHF(HFd(8.0), ZEROH);
    idlestep(v, 10, TWOH, x, y, dx, dy, tj, tj, tm, tm);
    EXPECT_EQ(v->idle_jst, 10);
    EXPECT_EQ(v->idle_jst1, 0);
    EXPECT_EQ(v->idle_jst0, 0);
  });
  e.onmain([&](OVCONTEXT*) {
    for (int s = 0; s < 12; s++) {
      double r = dHF(julia->juliastack[s].r);
      if (s < 10)
        EXPECT_DOUBLE_EQ(r, 0.5 / js * std::ldexp(8.0, -2 * s)) << "level " << s;
      else
        EXPECT_EQ(r, 0) << "level " << s;
    }
  });
  auto send = [&](OVCONTEXT* c, WORKERPROC proc, int lo, int hi, ITER iter) {
    WORKER* w = addworker(c, THREAD_MAIN, proc);
    attachviewport(v);
    w->pdata[0] = v;
    w->idata[0] = lo;
    w->idata[1] = hi;
    w->idata[2] = iter;
    for (int k = 0; k < NINTERPOLTAYLOR; k++) w->hdata[k] = cHF(HFd(k + 1.0), ZEROH);
    proc(c, w);
  };
  e.onmain([&](OVCONTEXT* c) {
    julia->juliastack[21].bypass = true;
    send(c, worker_env_julia2, 20, 23, 77);
    for (int s = 20; s < 23; s++) {
      JULIASTACKDATA* jd = &julia->juliastack[s];
      if (s == 21) {
        EXPECT_EQ(jd->m, nullptr);  // a bypass level keeps what it has
        EXPECT_EQ(jd->iter, 0);
        continue;
      }
      EXPECT_EQ(jd->m, v->idle_delta);
      EXPECT_EQ(jd->iter, 77);
      for (int k = 0; k < NINTERPOLTAYLOR; k++) EXPECT_EQ(dHF(crealHF(jd->taylorj[k])), k + 1.0);
    }
    send(c, worker_env_julia_bypass, 30, 32, 150);
    for (int s = 29; s < 33; s++) {
      bool in = s >= 30 && s < 32;
      EXPECT_EQ(julia->juliastack[s].bypass, in) << "level " << s;
      EXPECT_EQ(julia->juliastack[s].m, in ? v->idle_delta : nullptr) << "level " << s;
      EXPECT_EQ(julia->juliastack[s].iter, in ? 150 : 0) << "level " << s;
    }
    // A range that runs backwards changes nothing.
    send(c, worker_env_julia2, 42, 40, 5);
    for (int s = 39; s < 43; s++) EXPECT_EQ(julia->juliastack[s].m, nullptr);
    detachhpv(c, v->idle_delta);
    v->idle_delta = nullptr;
  });
  for (mpf_ptr m : {x, y, dx, dy}) mpf_clear(m);
  dropview(e, v, realm);
  detachrealm(e.context, julia);
  e.onmain([](OVCONTEXT*) {});
}

namespace {

// A converged nucleus on the real axis as the series step hands it on: the
// orbit of c = re from 0 for one period, its series made.
ENVIRONMENT* convergedpoint(OVCONTEXT* c, VIEWPORT* owner, const char* re, unsigned period) {
  mpf_t x, y;
  mpf_init2(x, 384);
  mpf_init2(y, 384);
  mpf_set_str(x, re, 10);
  ENVIRONMENT* e = adde(c, x, y, 384);
  e->flags = E_PERIODIC;
  e->n = period;
  e->nrefdata = static_cast<int>(period) + 1;
  e->refdatah = static_cast<REFDATAH*>(calloc(period + 1, sizeof(REFDATAH)));
  e->refdatad = static_cast<REFDATAD*>(calloc(period + 1, sizeof(REFDATAD)));
  __atomic_add_fetch(&c->mem_envrefdata, int64_t(64) * (period + 1), __ATOMIC_SEQ_CST);
  double z = 0, cr = mpf_get_d(x);
  for (unsigned k = 0; k <= period; k++) {
    e->refdatah[k].value = cHF(HFd(z), ZEROH);
    e->refdatah[k].a = HFd(4 - z * z);
    e->refdatad[k].value = {z, 0};
    e->refdatad[k].a = 4 - z * z;
    z = z * z + cr;
  }
  e->task = __addtask(c, TASKTYPE_NEWTON, 1);
  calctaylorenvironment(c, e, nullptr);
  e->owner = owner;
  mpf_clear(x);
  mpf_clear(y);
  return e;
}

}  // namespace

TEST(IdleSearch, AConvergedPointWaitsForTheMoveAndIsAcceptedWhenItServesTheView) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  VIEWPORT* v = nullptr;
  e.onmain([&](OVCONTEXT* c) {
    v = exactview(c, realm, "0", "0", 1, 128);
    v->idle_ncalculating = 3;  // the orbit and two candidates
    ENVIRONMENT* near = convergedpoint(c, v, "0", 1);
    ENVIRONMENT* far = convergedpoint(c, v, "-1", 2);
    int environments = atomicload(&c->ienvironment);
    for (ENVIRONMENT* en : {near, far}) {
      attachviewport(v);  // the candidate's hold on the view
      WORKER* w = addworker(c, THREAD_MAIN, worker_newtonfinish);
      w->pdata[0] = en;
      v->flags |= VP_MOVING;
      worker_newtonfinish(c, w);
      EXPECT_EQ(v->movemsg, w);  // parked while the view moves
      v->movemsg = nullptr;
      v->flags &= ~VP_MOVING;
      worker_newtonfinish(c, w);
    }
    EXPECT_EQ(near->task, nullptr);
    EXPECT_EQ(atomicload(&c->ienvironment), environments - 1);
    // The one at the view's centre joined the chain and serves; the one far
    // outside the view was let go.
    ASSERT_NE(v->echain.next, &v->echain);
    EXPECT_EQ(CHAINRECORD(v->echain.next, ENVIRONMENT, chain), near);
    EXPECT_EQ(v->echain.next->next, &v->echain);
    EXPECT_TRUE(v->idle_newenv);
    EXPECT_EQ(near->cf.mantissax, 0);
    EXPECT_EQ(v->idle_ncalculating, 1);
  });
  dropview(e, v, realm);
}

TEST(IdleSearch, TheOrbitPausesForItsCandidateAndGoesOnWhenNewtonHasAnswered) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  VIEWPORT* v = nullptr;
  e.onmain([&](OVCONTEXT* c) {
    // At 0 the first round is a candidate of period 1; the run's budget is
    // its own, so only a stop ends it.
    v = exactview(c, realm, "0", "0", 1, 128);
    v->idle_maxiter = 0x3FFFFFFE;
    idlestart(c, v);
  });
  // The first stretch ends beyond the pause of 2 x 1: the orbit waits for
  // Newton, and goes on once the nucleus is accepted.
  waitfor([&] {
    bool on = false;
    e.onmain([&](OVCONTEXT*) {
      on = v->echain.next != &v->echain && v->idle_iter > 4 * NCOMPUTERSTRETCH;
    });
    return on;
  });
  e.onmain([&](OVCONTEXT* c) {
    ENVIRONMENT* found = CHAINRECORD(v->echain.next, ENVIRONMENT, chain);
    EXPECT_EQ(found->n, 1u);
    EXPECT_TRUE(v->idle_newenv);
    EXPECT_EQ(v->idle_ncalculating, 1);  // no second candidate: its multiples are skipped
    EXPECT_EQ(v->idle_pause, 0);
    EXPECT_EQ(v->idle_n0, 1);
    idlestop(c, v);
  });
  waitrest(e, v);
  e.onmain([&](OVCONTEXT*) { EXPECT_FALSE(v->flags & (VP_IDLESTOP | VP_IDLEPAUSE)); });
  dropview(e, v, realm);
}

namespace {

// z_k and dz_k/dc of the orbit of the view's centre, in mpf.
void orbitround(const VIEWPORT* v, int k, mpf_ptr x, mpf_ptr y, mpf_ptr dx, mpf_ptr dy) {
  mp_bitcnt_t bits = mpf_get_prec(x);
  mpf_t t, u, w;
  for (mpf_ptr m : {t, u, w}) mpf_init2(m, bits);
  for (mpf_ptr m : {x, y, dx, dy}) mpf_set_ui(m, 0);
  for (int i = 0; i < k; i++) mpforbit::step(x, y, dx, dy, v->delta->v[0], v->delta->v[1], t, u, w);
  for (mpf_ptr m : {t, u, w}) mpf_clear(m);
}

}  // namespace

TEST(IdleSearch, TheFarNucleusOfPeriodOneHidesNoCandidateAndTheAtomHoldingADeepViewIsNew) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  VIEWPORT* v = nullptr;
  mpf_t x, y, dx, dy;
  for (mpf_ptr m : {x, y, dx, dy}) mpf_init2(m, 256);
  idleinstallhooks();
  e.onmain([&](OVCONTEXT* c) {
    // 3e-25 above the nucleus of the period-3 atom, 1e-25 wide: wholly
    // inside the atom, which is far too wide for its series to help.
    v = exactview(c, realm, "-1.7548776662466927600495088963585286918946",
                  "0.0000000000000000000000003", 2e25, 148);
    attachhpv(v->delta);
    v->idle_delta = v->delta;
    v->idle_zoom = v->zoom;
    v->idle_computergroup.context = c;
    v->idle_chain = v->echain.next;
    v->idle_nextenviter = -1;
    v->idle_ncalculating = 1;
    v->idle_n0 = -1;
    // Round 1: z_1 = c is exactly linear in c, a candidate at any centre;
    // Newton takes it to 0, far from the view.
    HFLOATCOMPLEX tj[NTAYLORDEGREE] = {}, tm[NTAYLORDEGREE] = {};
    tj[1] = tm[1] = CONEH;
    orbitround(v, 1, x, y, dx, dy);
    idlestep(v, 1, TWOH, x, y, dx, dy, tj, tj, tm, tm);
    EXPECT_EQ(v->idle_ncalculating, 2);
    EXPECT_EQ(v->idle_n0, -1);  // its multiples, every round, are not held back
    // Round 3 comes back next to 0: the view's own nucleus.
    orbitround(v, 3, x, y, dx, dy);
    std::complex<double> c1(mpf_get_d(v->delta->v[0]), 0), z2 = c1 * c1 + c1;
    tj[1] = cHFd(4.0 * c1 * z2);  // dz_3/dz_1
    tm[1] = cHF(mpf_get_HF(dx), mpf_get_HF(dy));
    idlestep(v, 3, TWOH, x, y, dx, dy, tj, tj, tm, tm);
    EXPECT_EQ(v->idle_ncalculating, 3);
    EXPECT_EQ(v->idle_n0, 3);
    // Its multiples are that nucleus again.
    idlestep(v, 6, TWOH, x, y, dx, dy, tj, tj, tm, tm);
    EXPECT_EQ(v->idle_ncalculating, 3);
  });
  waitfor([&] {
    int n = 0;
    e.onmain([&](OVCONTEXT*) { n = v->idle_ncalculating; });
    return n == 1;
  });
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    std::vector<unsigned> periods;
    ENVIRONMENT* three = nullptr;
    for (CHAIN* l = v->echain.next; l != &v->echain; l = l->next) {
      ENVIRONMENT* en = CHAINRECORD(l, ENVIRONMENT, chain);
      periods.push_back(en->n);
      if (en->n == 3) three = en;
    }
    EXPECT_EQ(periods, (std::vector<unsigned>{1, 3}));
    ASSERT_NE(three, nullptr);
    EXPECT_NEAR(pointof(three->c).real(), -1.7548776662466927, 1e-15);
    EXPECT_NEAR(pointof(three->c).imag(), 0, 1e-60);
    // The atom holds the whole view: the run's end scans and draws again.
    EXPECT_TRUE(v->idle_newenv);
    detachhpv(c, v->idle_delta);
    v->idle_delta = nullptr;
  });
  for (mpf_ptr m : {x, y, dx, dy}) mpf_clear(m);
  dropview(e, v, realm);
}

TEST(IdleSearch, TheScanTakesTheAtomThatHoldsADeepViewAndNotOnceTheViewLeavesIt) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  VIEWPORT* v = nullptr;
  ENVIRONMENT* three = nullptr;
  e.onmain([&](OVCONTEXT* c) {
    v = exactview(c, realm, "-1.7548776662466927600495088963585286918946",
                  "0.0000000000000000000000003", 2e25, 148);
    ENVIRONMENT* one = convergedpoint(c, v, "0", 1);
    three = convergedpoint(c, v, "-1.7548776662466927600495088963585286918946", 3);
    for (ENVIRONMENT* en : {one, three}) {
      __removetask(c, en->task);
      en->task = nullptr;
      en->owner = nullptr;
      insertenvironment(v, en);
    }
    ASSERT_EQ(three->flags & (E_PERIODIC | E_SERIES), E_PERIODIC);
    v->idle_maxiter = 0x100;  // short runs: the scan is what is looked at
    movingstart(c, v);
  });
  waitrest(e, v);
  e.onmain([&](OVCONTEXT* c) {
    // Far too wide for its series, the atom still serves: its canvases
    // iterate directly, and the view's centre is interior of period 3.
    EXPECT_EQ(v->esat, three);
    EXPECT_EQ(v->precsat, 4);
    EXPECT_EQ(v->info.iter, -3);
    // Just outside the atom's cusp at -1.75, as deep: the atom is kept but
    // serves no more.
    HPVALUE* d = addhpv(c, 148);
    mpf_set_str(d->v[0], "-1.749999999999", 10);
    mpf_set_ui(d->v[1], 0);
    detachhpv(c, v->delta);
    v->delta = d;
    movingstart(c, v);
  });
  waitrest(e, v);
  e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(v->esat, nullptr);
    bool kept = false;
    for (CHAIN* l = v->echain.next; l != &v->echain; l = l->next)
      kept = kept || CHAINRECORD(l, ENVIRONMENT, chain) == three;
    EXPECT_TRUE(kept);
  });
  dropview(e, v, realm);
}

TEST(IdleSearch, AConvergedAtomTooWideToServeIsNewWhereItHoldsTheViewAndOnlyKeptElsewhere) {
  TileEngine e{16, false};
  REALM* realm = newrealm(e, GENERAL);
  const char* nucleus = "-1.7548776662466927600495088963585286918946";
  // 3e-25 above the nucleus, and as deep just outside the cusp at -1.75.
  for (const char* re : {nucleus, "-1.749999999999"}) {
    bool inside = re == nucleus;
    VIEWPORT* v = nullptr;
    e.onmain([&](OVCONTEXT* c) {
      v = exactview(c, realm, re, inside ? "0.0000000000000000000000003" : "0", 2e25, 148);
      v->idle_ncalculating = 2;  // the orbit and the candidate
      ENVIRONMENT* three = convergedpoint(c, v, nucleus, 3);
      attachviewport(v);  // the candidate's hold on the view
      WORKER* w = addworker(c, THREAD_MAIN, worker_newtonfinish);
      w->pdata[0] = three;
      worker_newtonfinish(c, w);
      EXPECT_LT(checkenvironment(v->dummy[0], three, v->delta->v[0], v->delta->v[1], v->zoom,
                                 v->resolution),
                0);
      EXPECT_EQ(v->idle_newenv, inside) << re;
      // Either way the point stays known.
      ASSERT_NE(v->echain.next, &v->echain);
      EXPECT_EQ(CHAINRECORD(v->echain.next, ENVIRONMENT, chain), three);
      EXPECT_EQ(v->idle_ncalculating, 1);
    });
    dropview(e, v, realm);
    realm = newrealm(e, GENERAL);
  }
  detachrealm(e.context, realm);
  e.onmain([](OVCONTEXT*) {});
}
