// The Newton graph on a live engine: one pass's orbit, multiplier and step
// against the same operations done one after the other; runs that converge
// on nuclei of period 3 and 4; the ways a run gives up; its progress.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "Mandelbrot.h"
#include "computertest.h"
#include "enginefixture.h"
#include "newtonstart.h"
#include "refiter.h"
#include "test_refiter_env.h"

using computertest::insidepoint;
using computertest::POINT;
using computertest::same;
using computertest::samepoint;
using computertest::SEQUENTIAL;
using enginetest::Engine;
using enginetest::waitfor;

namespace {

// ---------------------------------------------------------------- the owner's side

struct OWNERLOG {
  std::atomic<int> ended{0};
  std::atomic<int> series{0};
  bool converged = false;
  std::vector<int> accomplished;  // the task's count at every stretch end
  int stopat = -1;                // the stretch end at which the owner stops the run
  ENVIRONMENT* finished = nullptr;
};

OWNERLOG* ownerlog = nullptr;

bool ownerstops(ENVIRONMENT* e) {
  OWNERLOG* log = ownerlog;
  log->accomplished.push_back(e->task ? atomicload(&e->task->accomplished) : -1);
  return log->stopat == static_cast<int>(log->accomplished.size());
}

void ownerends(OVCONTEXT*, ENVIRONMENT*, bool converged) {
  ownerlog->converged = converged;
  ownerlog->ended.fetch_add(1);
}

// The series made, as the acceptance step will receive it: the message's
// reference to the environment is the test's to give back.
void seriesdone(OVCONTEXT* context, WORKER* worker) {
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(worker->pdata[0]);
  ownerlog->finished = e;
  freeworker(context, worker);
  ownerlog->series.fetch_add(1);
}

struct HOOKS {
  OWNERLOG log;
  HOOKS() {
    ownerlog = &log;
    newtonstophook = ownerstops;
    newtonendhook = ownerends;
    newtonfinishhook = seriesdone;
  }
  ~HOOKS() {
    newtonstophook = nullptr;
    newtonendhook = nullptr;
    newtonfinishhook = nullptr;
    ownerlog = nullptr;
  }
};

// ---------------------------------------------------------------- a run

// A candidate as the idle search makes it and starts its Newton run: period
// n, arrays for n + 1 points, the group at the environment's precision and
// working at a third of it. The test keeps a reference of its own.
struct NEWTON {
  Engine& engine;
  HOOKS hooks;
  ENVIRONMENT* e = nullptr;
  mpf_t c0[2];  // the start point at the environment's precision

  NEWTON(Engine& eng, mpf_srcptr cre, mpf_srcptr cim, unsigned n, mp_bitcnt_t precision,
         ITER steps, bool split, bool stopfirst = false, int stopat = -1)
      : engine(eng) {
    hooks.log.stopat = stopat;
    mpf_init2(c0[0], precision);
    mpf_init2(c0[1], precision);
    mpf_set(c0[0], cre);
    mpf_set(c0[1], cim);
    engine.onmain([&](OVCONTEXT* c) {
      e = newtonstart::startnewtonrun(c, cre, cim, n, precision, steps, split, stopfirst);
    });
  }

  void wait(bool convergedexpected) {
    waitfor([&] { return hooks.log.ended.load() > 0; });
    if (convergedexpected && hooks.log.converged) waitfor([&] { return hooks.log.series.load() > 0; });
    engine.onmain([](OVCONTEXT*) {});
    engine.waitidle();
    EXPECT_EQ(hooks.log.ended.load(), 1);
    EXPECT_EQ(hooks.log.converged, convergedexpected);
    EXPECT_EQ(atomicload(&engine.context->computertotalwidth), 0);
    EXPECT_EQ(atomicload(&engine.context->icomputer), 0);
    EXPECT_EQ(e->computergroup.ncomputer, 0);  // the group went with the run
  }

  ~NEWTON() {
    engine.onmain([&](OVCONTEXT* c) {
      // The run's own reference went to the series message or was given back.
      if (hooks.log.finished) detache(c, hooks.log.finished);
      __removetask(c, e->task);
      e->task = nullptr;
      detache(c, e);
    });
    mpf_clear(c0[0]);
    mpf_clear(c0[1]);
  }
};

// ---------------------------------------------------------------- one pass by hand

void checkpass(Engine& eng, mp_bitcnt_t bits, bool split, unsigned n) {
  SCOPED_TRACE(testing::Message() << bits << " bits, split " << split << ", n " << n);
  const mp_bitcnt_t precision = 3 * bits;
  mpf_t cre, cim, wre, wim;
  mpf_init2(cre, precision);
  mpf_init2(cim, precision);
  mpf_init2(wre, bits);
  mpf_init2(wim, bits);
  insidepoint(cre, cim, precision, 3 + bits);
  mpf_set(wre, cre);  // c as the pass works with it
  mpf_set(wim, cim);
  // No steps left after the first: the run takes its one step and gives
  // up, which leaves the pass to look at.
  NEWTON run(eng, cre, cim, n, precision, 0, split);
  run.wait(false);
  ENVIRONMENT* e = run.e;
  EXPECT_EQ(e->timesrun, 1);
  std::vector<int> stretches;
  for (unsigned s = 1; s <= (n + NCOMPUTERSTRETCH) / NCOMPUTERSTRETCH; s++)
    stretches.push_back(static_cast<int>(s));
  EXPECT_EQ(run.hooks.log.accomplished, stretches);
  SEQUENTIAL s(bits);
  s.reset();
  std::vector<POINT> pts;
  HFLOATCOMPLEX lambda = CONEH;
  s.run(wre, wim, 0, static_cast<int>(n) + 1, [&](int k, const SEQUENTIAL& q) {
    pts.push_back(q.point());
    if (k > 0 && k < static_cast<int>(n)) lambda = cmulHF(lambda, cldexpHF(q.z(), 1));
    return k < static_cast<int>(n);
  });
  int bad = 0;
  for (unsigned k = 0; k <= n; k++)
    if (!samepoint(e->refdatah[k], e->refdatad[k], pts[k])) bad++;
  EXPECT_EQ(bad, 0);
  HFLOAT r = cabsHF(cmulHF(lambda, s.dz()));
  EXPECT_TRUE(same(e->tmpr2, divHF(FOURH, r)));
  // c moved by z_n / dz_n, the quotient at the working precision.
  mpf_t q[2], d[4];
  for (mpf_t& v : q) mpf_init2(v, bits);
  for (mpf_t& v : d) mpf_init2(v, bits);
  mpf_t z[2], dz[2];
  z[0][0] = *s.x;
  z[1][0] = *s.y;
  dz[0][0] = *s.dx;
  dz[1][0] = *s.dy;
  ASSERT_TRUE(divide(q, z, dz, d));
  mpf_sub(run.c0[0], run.c0[0], q[0]);
  mpf_sub(run.c0[1], run.c0[1], q[1]);
  EXPECT_EQ(mpf_cmp(e->c->v[0], run.c0[0]), 0);
  EXPECT_EQ(mpf_cmp(e->c->v[1], run.c0[1]), 0);
  EXPECT_NE(mpf_cmp(e->c->v[0], cre), 0);
  for (mpf_t& v : q) mpf_clear(v);
  for (mpf_t& v : d) mpf_clear(v);
  mpf_clear(cre);
  mpf_clear(cim);
  mpf_clear(wre);
  mpf_clear(wim);
}

void checkpasses(Engine& eng) {
  for (mp_bitcnt_t bits : {128u, 1024u, 10000u})
    for (bool split : {false, true}) {
      checkpass(eng, bits, split, 3);
      checkpass(eng, bits, split, 700);  // 512 rounds and then the 189 left
    }
}

// ---------------------------------------------------------------- nuclei

// The nucleus near (gx, gy), its distance from the run's result and z_n.
void checkconverges(Engine& eng, double gx, double gy, unsigned n, mp_bitcnt_t precision,
                    bool split, double bound) {
  SCOPED_TRACE(testing::Message() << gx << " " << gy << " n " << n << " split " << split);
  using refitertest::MPC;
  MPC nucleus = refitertest::nucleus(gx, gy, n);
  mpf_t cre, cim;
  mpf_init2(cre, precision);
  mpf_init2(cim, precision);
  mpf_set_d(cre, gx * (1 + 3e-7));
  mpf_set_d(cim, gy * (1 - 2e-7));
  NEWTON run(eng, cre, cim, n, precision, NEWTONSTEPS, split);
  run.wait(true);
  ENVIRONMENT* e = run.e;
  EXPECT_EQ(run.hooks.log.finished, e);
  EXPECT_GT(e->timesrun, 1);
  EXPECT_LT(e->timesrun, 12);
  MPC got;
  mpf_set(got.x, e->c->v[0]);
  mpf_set(got.y, e->c->v[1]);
  MPC diff = refitertest::sub(got, nucleus);
  mpf_t m;
  mpf_init2(m, 64);
  mpf_abs(m, diff.x);
  EXPECT_LT(mpf_cmp_d(m, bound), 0);
  mpf_abs(m, diff.y);
  EXPECT_LT(mpf_cmp_d(m, bound), 0);
  mpf_clear(m);
  // The orbit closes: z_n is 0 to the working precision.
  EXPECT_TRUE(e->refdatah[0].value.mantissax == 0 && e->refdatah[0].value.mantissay == 0);
  EXPECT_LT(std::abs(cdHF(e->refdatah[n].value)), 1e-20);
  // The multiplier left out z_n: the atom's size from the pass is twice the
  // one the series gives.
  EXPECT_NEAR(dHF(e->tmpr2) / 2, dHF(e->r2), 1e-6 * dHF(e->r2));
  mpf_clear(cre);
  mpf_clear(cim);
}

}  // namespace

TEST(NewtonGraph, OnePassMatchesSequentialOnOneWorker) {
  Engine e(4);
  ASSERT_EQ(e.context->nthread, 4);
  e.context->serialcomputerbits = 0;
  checkpasses(e);
}

TEST(NewtonGraph, OnePassMatchesSequentialOnTwoLentWorkers) {
  Engine e(7, false, int64_t(2) << 30);
  ASSERT_EQ(e.context->nthread, 7);
  e.context->serialcomputerbits = 0;
  checkpasses(e);
}

TEST(NewtonGraph, OnePassMatchesSequentialInSerialStretches) {
  Engine e(7, false, int64_t(2) << 30);
  e.context->serialcomputerbits = 1 << 20;
  checkpasses(e);
}

TEST(NewtonGraph, ConvergesOnNucleiOfPeriodThreeAndFour) {
  Engine e(4);
  // 300 bits: the graph works at 100, which is where the result must be.
  const double bound = std::ldexp(1.0, -95);
  for (bool split : {false, true}) {
    checkconverges(e, refitertest::P3X, 0, 3, 300, split, bound);
    checkconverges(e, refitertest::P4X, 0, 4, 300, split, bound);
    checkconverges(e, refitertest::RABBITX, refitertest::RABBITY, 3, 300, split, bound);
  }
}

TEST(NewtonGraph, WorkingPrecisionRisesToWhatTheAtomNeeds) {
  Engine e(4);
  // Made at 192 bits, the graph starts at 64 and must rise to about 88 to
  // resolve 2^-52 of the atom.
  checkconverges(e, refitertest::P4X, 0, 4, 192, false, std::ldexp(1.0, -80));
}

TEST(NewtonGraph, TheStepsLeftBoundTheRun) {
  Engine eng(4);
  mpf_t cre, cim;
  mpf_init2(cre, 300);
  mpf_init2(cim, 300);
  mpf_set_d(cre, refitertest::P4X + 1e-3);
  mpf_set_ui(cim, 0);
  // Two steps left after the first: the third pass gives up, not having
  // reached 2^-52 of the atom.
  NEWTON run(eng, cre, cim, 4, 300, 2, false);
  run.wait(false);
  EXPECT_EQ(run.e->timesrun, 3);
  EXPECT_EQ(run.e->task, nullptr);
  EXPECT_EQ(atomicload(&run.e->count), 1);  // only the test's reference is left
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(NewtonGraph, StopBeforeAStretchRunsItAndEndsTheRun) {
  Engine eng(4);
  mpf_t cre, cim;
  mpf_init2(cre, 384);
  mpf_init2(cim, 384);
  insidepoint(cre, cim, 384, 8);
  NEWTON run(eng, cre, cim, 1500, 384, NEWTONSTEPS, false, true);
  run.wait(false);
  EXPECT_EQ(run.hooks.log.accomplished, std::vector<int>{1});
  EXPECT_EQ(run.e->timesrun, 0);  // no step was taken
  SEQUENTIAL s(128);
  s.reset();
  std::vector<POINT> pts;
  mpf_t wre, wim;
  mpf_init2(wre, 128);
  mpf_init2(wim, 128);
  mpf_set(wre, cre);
  mpf_set(wim, cim);
  s.run(wre, wim, 0, NCOMPUTERSTRETCH, [&](int, const SEQUENTIAL& q) {
    pts.push_back(q.point());
    return true;
  });
  for (int k = 0; k < NCOMPUTERSTRETCH; k++)
    EXPECT_TRUE(samepoint(run.e->refdatah[k], run.e->refdatad[k], pts[k])) << k;
  EXPECT_EQ(run.e->refdatah[NCOMPUTERSTRETCH].a.mantissa, 0);  // the next stretch never ran
  EXPECT_EQ(mpf_cmp(run.e->c->v[0], cre), 0);
  mpf_clear(wre);
  mpf_clear(wim);
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(NewtonGraph, TheTaskCountsEveryStretchAndTheOwnerCanStopTheRun) {
  Engine eng(4);
  mpf_t cre, cim;
  mpf_init2(cre, 384);
  mpf_init2(cim, 384);
  insidepoint(cre, cim, 384, 12);
  {
    // Three stretches to a pass; the owner stops at the end of the second.
    NEWTON run(eng, cre, cim, 1500, 384, NEWTONSTEPS, true, false, 2);
    run.wait(false);
    EXPECT_EQ(run.hooks.log.accomplished, (std::vector<int>{1, 2}));
    EXPECT_EQ(run.e->timesrun, 0);
  }
  {
    NEWTON run(eng, cre, cim, 1500, 384, NEWTONSTEPS, true);
    run.wait(false);
    EXPECT_EQ(run.hooks.log.accomplished, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(run.e->timesrun, 1);
    // Expected units, from the pass: whole numbers of the pass's stretches.
    EXPECT_GT(run.e->due, 0);
    EXPECT_EQ(run.e->due % (1500 >> 9), 0);
  }
  mpf_clear(cre);
  mpf_clear(cim);
}
