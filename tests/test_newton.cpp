// Newton runs started straight on a candidate, as the idle search starts
// them: the periodic centres they converge to at periods 1 to 1000 against an
// independent Newton iteration in GMP written here; a run whose candidate
// needs more bits than its environment has takes every step it is given and
// then releases the environment; and the atom bound, which exactly 10 passes.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <complex>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "Mandelbrot.h"
#include "enginefixture.h"
#include "mpforbit.h"
#include "newton.h"
#include "refiter.h"

using enginetest::Engine;
using enginetest::waitfor;

namespace {

// ---------------------------------------------------------------- the owner's side

struct OWNERLOG {
  std::atomic<int> ended{0};
  std::atomic<int> series{0};
  std::atomic<bool> converged{false};
  ENVIRONMENT* finished = nullptr;
};

OWNERLOG* ownerlog = nullptr;

bool ownernostop(ENVIRONMENT*) { return false; }

void ownerends(OVCONTEXT*, ENVIRONMENT*, bool converged) {
  ownerlog->converged = converged;
  ownerlog->ended.fetch_add(1);
}

// Where the acceptance step will take over: the series' message hands the
// run's reference on, which is the test's to give back.
void seriesdone(OVCONTEXT* context, WORKER* worker) {
  ownerlog->finished = static_cast<ENVIRONMENT*>(worker->pdata[0]);
  freeworker(context, worker);
  ownerlog->series.fetch_add(1);
}

// A candidate of period n at (cx, cy), started as the idle search starts it:
// arrays for n + 1 points, the group made at the environment's precision and
// working at a third of it.
struct RUN {
  Engine& engine;
  OWNERLOG log;
  ENVIRONMENT* e = nullptr;

  // `start`: the working precision of the first pass, a third of the
  // environment's unless given.
  RUN(Engine& eng, mpf_srcptr cx, mpf_srcptr cy, unsigned n, mp_bitcnt_t precision,
      mp_bitcnt_t start = 0)
      : engine(eng) {
    ownerlog = &log;
    newtonstophook = ownernostop;
    newtonendhook = ownerends;
    newtonfinishhook = seriesdone;
    engine.onmain([&](OVCONTEXT* c) {
      e = adde(c, cx, cy, precision);
      e->flags = E_PERIODIC;
      e->n = n;
      e->nrefdata = static_cast<int>(n) + 1;
      e->refdatah = static_cast<REFDATAH*>(calloc(n + 1, sizeof(REFDATAH)));
      e->refdatad = static_cast<REFDATAD*>(calloc(n + 1, sizeof(REFDATAD)));
      __atomic_add_fetch(&c->mem_envrefdata, int64_t(64) * (n + 1), __ATOMIC_SEQ_CST);
      e->task = __addtask(c, TASKTYPE_NEWTON, 1);
      attache(e);  // the run's
      COMPUTERGROUP* g = &e->computergroup;
      initcomputergroup(c, g, NCOMPUTER_ENV, precision);
      g->pdata[0] = e;
      g->prec = start ? start : precision / 3;
      computergroupsetrawprecision(g);
      mpf_set(g->data[0], e->c->v[0]);
      mpf_set(g->data[1], e->c->v[1]);
      g->idata[2] = NEWTONSTEPS;
      g->hdata[0][0] = CONEH;
      setupnewtoncomputergroup(c, g, n > 64);
    });
  }

  bool wait() {
    waitfor([&] { return log.ended.load() > 0; });
    if (log.converged) waitfor([&] { return log.series.load() > 0; });
    engine.onmain([](OVCONTEXT*) {});
    engine.waitidle();
    EXPECT_EQ(log.ended.load(), 1);
    EXPECT_EQ(atomicload(&engine.context->computertotalwidth), 0);
    EXPECT_EQ(e->computergroup.ncomputer, 0);
    return log.converged;
  }

  ~RUN() {
    engine.onmain([&](OVCONTEXT* c) {
      if (log.finished) detache(c, log.finished);
      if (e->task) __removetask(c, e->task);
      e->task = nullptr;
      detache(c, e);
    });
    newtonstophook = nullptr;
    newtonendhook = nullptr;
    newtonfinishhook = nullptr;
    ownerlog = nullptr;
  }
};

// ---------------------------------------------------------------- GMP by hand

struct MP {
  mpf_t x, y, zx, zy, dx, dy, a, b, t;
  explicit MP(mp_bitcnt_t bits) {
    for (mpf_ptr m : all()) mpf_init2(m, bits);
  }
  ~MP() {
    for (mpf_ptr m : all()) mpf_clear(m);
  }
  std::array<mpf_ptr, 9> all() { return {x, y, zx, zy, dx, dy, a, b, t}; }
  // z_n and dz_n/dc at (x, y); the multiplier's size 2^m, m = sum of
  // log2 |2 z_k| over k = 1 .. n-1.
  double orbit(unsigned n) {
    double m = 0;
    for (mpf_ptr v : {zx, zy, dx, dy}) mpf_set_ui(v, 0);
    for (unsigned k = 0; k < n; k++) {
      if (k > 0) m += 1 + std::log2(std::hypot(mpf_get_d(zx), mpf_get_d(zy)));
      mpforbit::step(zx, zy, dx, dy, x, y, a, b, t);
    }
    return m;
  }
  // One Newton step on z_n; the step's binary exponent.
  long step(unsigned n) {
    orbit(n);
    mpf_t q, s;
    mpf_init2(q, mpf_get_prec(x));
    mpf_init2(s, mpf_get_prec(x));
    mpf_mul(q, dx, dx);
    mpf_mul(t, dy, dy);
    mpf_add(q, q, t);
    mpf_mul(t, zx, dx);
    mpf_mul(a, zy, dy);
    mpf_add(t, t, a);
    mpf_div(t, t, q);
    mpf_mul(s, zy, dx);
    mpf_mul(a, zx, dy);
    mpf_sub(s, s, a);
    mpf_div(s, s, q);
    mpf_sub(x, x, t);
    mpf_sub(y, y, s);
    long ex = LONG_MIN / 2, ey = LONG_MIN / 2;
    if (mpf_sgn(t)) mpf_get_d_2exp(&ex, t);
    if (mpf_sgn(s)) mpf_get_d_2exp(&ey, s);
    mpf_clear(q);
    mpf_clear(s);
    return std::max(ex, ey);
  }
  // log2 of |dz_n/dc| at the present point.
  double log2dc(unsigned n) {
    orbit(n);
    long ex, ey;
    double mx = mpf_get_d_2exp(&ex, dx), my = mpf_get_d_2exp(&ey, dy);
    double lx = mx ? std::log2(std::fabs(mx)) + ex : -1e9, ly = my ? std::log2(std::fabs(my)) + ey : -1e9;
    return std::max(lx, ly) + 0.5;
  }
};

long exponentof(mpf_srcptr v) {
  if (mpf_sgn(v) == 0) return LONG_MIN / 2;
  long e;
  mpf_get_d_2exp(&e, v);
  return e;
}

// The nucleus of period n from the seed, by Newton's method in GMP until the
// step vanishes below the precision; its atom's size as log2.
void independentnucleus(MP& m, unsigned n, double* atom) {
  long prec = static_cast<long>(mpf_get_prec(m.x));
  for (int it = 0; it < 400; it++)
    if (m.step(n) < -prec + 8) break;
  double lm = m.orbit(n);
  *atom = -(lm + m.log2dc(n));  // 1 / |multiplier dz_n/dc|
}

// From the nucleus of period n near (sx, sy): a candidate off it by a
// hundredth of its atom, the run, and the comparison.
void checkperiod(Engine& eng, unsigned n, double sx, double sy, mp_bitcnt_t bits) {
  SCOPED_TRACE(testing::Message() << "period " << n);
  MP nuc(bits);
  mpf_set_d(nuc.x, sx);
  mpf_set_d(nuc.y, sy);
  double atom;
  independentnucleus(nuc, n, &atom);
  // Independent check that it is one: z_n vanishes to the precision.
  nuc.orbit(n);
  EXPECT_LT(std::max(exponentof(nuc.zx), exponentof(nuc.zy)), -static_cast<long>(bits) / 2);
  ASSERT_LT(atom + 60, static_cast<double>(bits)) << "the nucleus needs more bits";
  // Least period n: no proper divisor's z vanishes there.
  for (unsigned d = 1; d < n; d++) {
    if (n % d) continue;
    nuc.orbit(d);
    EXPECT_GT(std::max(exponentof(nuc.zx), exponentof(nuc.zy)), -static_cast<long>(bits) / 4)
        << "divisor " << d;
  }
  MP cand(bits);
  const long shift = -static_cast<long>(std::floor(atom));
  mpf_set_d(cand.a, 0.01);
  mpf_div_2exp(cand.a, cand.a, static_cast<mp_bitcnt_t>(shift));
  mpf_add(cand.x, nuc.x, cand.a);
  mpf_set_d(cand.a, 0.007);
  mpf_div_2exp(cand.a, cand.a, static_cast<mp_bitcnt_t>(shift));
  mpf_sub(cand.y, nuc.y, cand.a);
  // The first pass must tell this atom from its neighbours, as a view deep
  // enough to show it would: next to -2 the nuclei of one period lie about
  // the square root of an atom apart.
  mp_bitcnt_t start = std::max<mp_bitcnt_t>(bits / 3, static_cast<mp_bitcnt_t>(shift / 2 + 64));
  RUN run(eng, cand.x, cand.y, n, bits, start);
  bool ok = run.wait();
  ASSERT_TRUE(ok);
  EXPECT_EQ(run.log.finished, run.e);
  // The run's tolerance: 2^-52 of its atom, T = ilogb(tmpr2) - 52; after the
  // last step the error is far below it, within the rounding of the working
  // precision 32 - T.
  int T = ilogbHF(run.e->tmpr2) - 52;
  EXPECT_NEAR(ilogbHF(run.e->tmpr2), atom + 2, 2);
  mpf_sub(nuc.a, run.e->c->v[0], nuc.x);
  mpf_sub(nuc.b, run.e->c->v[1], nuc.y);
  long err = std::max(exponentof(nuc.a), exponentof(nuc.b));
  EXPECT_LE(err, T - 16) << "atom 2^" << atom;
  // The orbit is stored from z_0 = 0 and z_1 = c.
  EXPECT_EQ(run.e->refdatah[0].value.mantissax, 0);
  EXPECT_NEAR(cdHF(run.e->refdatah[1].value).real(), mpf_get_d(nuc.x), 1e-15);
  EXPECT_NEAR(cdHF(run.e->refdatah[1].value).imag(), mpf_get_d(nuc.y), 1e-15);
}

}  // namespace

TEST(Newton, PeriodOneConvergesToZero) {
  Engine e(4);
  MP c(128);
  mpf_set_d(c.x, 0.01);
  mpf_set_d(c.y, -0.007);
  RUN run(e, c.x, c.y, 1, 128);
  ASSERT_TRUE(run.wait());
  EXPECT_EQ(mpf_sgn(run.e->c->v[0]), 0);
  EXPECT_EQ(mpf_sgn(run.e->c->v[1]), 0);
  EXPECT_EQ(run.e->timesrun, 2);  // the step to 0, then a step of exactly 0
  EXPECT_NEAR(dHF(run.e->tmpr2), 4, 1e-12);  // 4 / |dz_1/dc|
}

TEST(Newton, PeriodsTwoThreeAndFourAgreeWithGMP) {
  Engine e(4);
  checkperiod(e, 2, -1.0, 0.0, 192);
  checkperiod(e, 3, -0.1226, 0.7449, 192);  // the upper period-3 bulb
  checkperiod(e, 3, -1.7549, 0.0, 192);     // the real one
  checkperiod(e, 4, 0.28227, 0.53006, 192);  // the period-4 limb of the cardioid
  checkperiod(e, 4, -1.3107026, 0.0, 192);     // the period-2 bulb's period-4 limb
}

TEST(Newton, PeriodSeventeenAgreesWithGMP) {
  Engine e(4);
  // Near the root of the main cardioid's 1/17 limb, and next to -2.
  double th = 2 * M_PI / 17;
  std::complex<double> root = std::polar(0.5, th) - std::polar(0.25, 2 * th);
  checkperiod(e, 17, root.real(), root.imag() + 1e-3, 256);
  checkperiod(e, 17, -2.0, 0.0, 320);
}

TEST(Newton, PeriodOneHundredAgreesWithGMP) {
  Engine e(4);
  // The real nucleus of period 100 next to -2: its atom is about 2^-400.
  checkperiod(e, 100, -2.0, 0.0, 640);
}

TEST(Newton, PeriodOneThousandAgreesWithGMP) {
  Engine e(4);
  checkperiod(e, 1000, -2.0, 0.0, 4400);
}

// ---------------------------------------------------------------- giving up

TEST(Newton, StepsWithoutConvergenceReleaseTheEnvironment) {
  Engine eng(4);
  // The real nucleus of period 100 next to -2 needs some 450 bits; at 128 the
  // correction never comes below 2^-52 of the atom, and the atom stays far
  // below the bound, so every step is taken: the first pass and the 100 more.
  MP c(128);
  mpf_set_d(c.x, -2.0);
  mpf_set_d(c.y, 0.0);
  mpf_set_d(c.a, std::ldexp(1.0, -80));
  mpf_add(c.x, c.x, c.a);
  RUN run(eng, c.x, c.y, 100, 128);
  EXPECT_FALSE(run.wait());
  EXPECT_EQ(run.e->timesrun, NEWTONSTEPS + 1);
  EXPECT_TRUE(newtonatomworthhaving(run.e->tmpr2));
  eng.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(run.e->task, nullptr);            // the task went
    EXPECT_EQ(atomicload(&run.e->count), 1);    // the run's reference went back
    EXPECT_EQ(run.log.series.load(), 0);        // no series was made
  });
}

TEST(Newton, AnAtomOfTmpr2ExactlyTenGoesOn) {
  EXPECT_TRUE(newtonatomworthhaving(HFd(10)));
  EXPECT_TRUE(newtonatomworthhaving(HFd(9.999999)));
  EXPECT_TRUE(newtonatomworthhaving(ZEROH));
  HFLOAT above = HFd(10);
  above.mantissa += 1;  // the next HFLOAT up
  EXPECT_FALSE(newtonatomworthhaving(above));
  EXPECT_FALSE(newtonatomworthhaving(HFd(10.5)));
  EXPECT_FALSE(newtonatomworthhaving(HFLOAT_MAX));
}

TEST(Newton, AnAtomTooLargeEndsTheRunAfterOnePass) {
  Engine eng(4);
  // Period 1 from a point where dz_1/dc = 1 and no multiplier: tmpr2 = 4
  // passes; period 2 next to c = -0.5 gives |2 c (2 c + 1)| small, an atom
  // far above the bound: the run gives up at its first pass.
  MP c(128);
  mpf_set_d(c.x, -0.5);
  mpf_set_d(c.y, 0.05);
  RUN run(eng, c.x, c.y, 2, 128);
  EXPECT_FALSE(run.wait());
  EXPECT_EQ(run.e->timesrun, 1);
  EXPECT_FALSE(newtonatomworthhaving(run.e->tmpr2));
  // 4 / |2 c (2 c + 1)| at c = -0.5 + 0.05i: |2c| = 1.00499, |2c + 1| = 0.1.
  EXPECT_NEAR(dHF(run.e->tmpr2), 4 / (std::hypot(1.0, 0.1) * 0.1), 1e-9);
}
