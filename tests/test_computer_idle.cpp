// The idle graph on a live engine: its orbit, derivative and both series
// against the same operations done one after the other; the orbit stored in
// a standard environment with its checkpoints and the room made for it; the
// escape; a stop; the progress of its task.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "Mandelbrot.h"
#include "computertest.h"
#include "enginefixture.h"
#include "refiter.h"

using computertest::insidepoint;
using computertest::POINT;
using computertest::same;
using computertest::samepoint;
using computertest::SEQUENTIAL;
using computertest::seriesstep;
using enginetest::Engine;
using enginetest::waitfor;

namespace {

typedef std::array<HFLOATCOMPLEX, NTAYLORDEGREE> SERIES;

// ---------------------------------------------------------------- what the cores hand on

// Filled by the cores in iteration order; each core runs after the one
// before it has finished, which is what makes the plain vectors safe.
struct STEPS {
  std::vector<ITER> iter;
  std::vector<HFLOAT> a;
  std::vector<HFLOATCOMPLEX> z, dz;
  std::vector<SERIES> tj, ntj, tm, ntm;
};

STEPS* recording = nullptr;

void recordstep(COMPUTERGROUP*, ITER iter, HFLOAT a, mpf_srcptr x, mpf_srcptr y, mpf_srcptr dx,
                mpf_srcptr dy, const HFLOATCOMPLEX* tj, const HFLOATCOMPLEX* ntj,
                const HFLOATCOMPLEX* tm, const HFLOATCOMPLEX* ntm) {
  STEPS* s = recording;
  s->iter.push_back(iter);
  s->a.push_back(a);
  s->z.push_back(cHF(mpf_get_HF(x), mpf_get_HF(y)));
  s->dz.push_back(cHF(mpf_get_HF(dx), mpf_get_HF(dy)));
  SERIES v;
  std::copy(tj, tj + NTAYLORDEGREE, v.begin());
  s->tj.push_back(v);
  std::copy(ntj, ntj + NTAYLORDEGREE, v.begin());
  s->ntj.push_back(v);
  std::copy(tm, tm + NTAYLORDEGREE, v.begin());
  s->tm.push_back(v);
  std::copy(ntm, ntm + NTAYLORDEGREE, v.begin());
  s->ntm.push_back(v);
}

struct HOOK {
  STEPS steps;
  HOOK() {
    recording = &steps;
    idlestephook = recordstep;
  }
  ~HOOK() {
    idlestephook = nullptr;
    recording = nullptr;
  }
};

// ---------------------------------------------------------------- a graph's owner

struct OWNER {
  std::atomic<int> ends{0};
  int stretches = 1;
  bool split = false;
  std::vector<int> accomplished;  // the task's count at each end
  std::vector<ITER> taskiter;
};

void ownerend(COMPUTERGROUP* group) {
  OWNER* owner = static_cast<OWNER*>(group->pdata[0]);
  TASK* task = static_cast<TASK*>(group->pdata[COMPUTER_IDLETASK]);
  if (task) {
    owner->accomplished.push_back(atomicload(&task->accomplished));
    owner->taskiter.push_back(atomicload(&task->iter));
  }
  int n = owner->ends.load() + 1;
  if (!atomicload(&group->stop) && n < owner->stretches)
    setupidlecomputergroup(group->context, group, owner->split);
  owner->ends.store(n);
}

struct RUN {
  Engine& engine;
  mp_bitcnt_t bits;
  COMPUTERGROUP* g;
  ENVIRONMENT* env = nullptr;
  TASK* task = nullptr;
  OWNER owner;

  // A standard environment with arrays for `nrefdata` points when asked
  // for; a task due at one unit per stretch.
  RUN(Engine& e, mp_bitcnt_t b, mpf_srcptr cre, mpf_srcptr cim, int nrefdata, int stretches)
      : engine(e), bits(b) {
    g = static_cast<COMPUTERGROUP*>(calloc(1, sizeof(COMPUTERGROUP)));
    initcomputergroup(e.context, g, NCOMPUTER_ENV, bits);
    mpf_set(g->data[0], cre);
    mpf_set(g->data[1], cim);
    owner.stretches = stretches;
    g->pdata[0] = &owner;
    g->endcompute = ownerend;
    e.onmain([&](OVCONTEXT* c) {
      task = __addtask(c, TASKTYPE_ITER, stretches);
      if (nrefdata < 0) return;
      env = adde(c, cre, cim, bits);
      env->nrefdata = nrefdata;
      env->refdatah = static_cast<REFDATAH*>(calloc(nrefdata, sizeof(REFDATAH)));
      env->refdatad = static_cast<REFDATAD*>(calloc(nrefdata, sizeof(REFDATAD)));
      __atomic_add_fetch(&c->mem_envrefdata, int64_t(64) * nrefdata, __ATOMIC_SEQ_CST);
    });
    g->pdata[COMPUTER_IDLESTANDARD] = env;
    g->pdata[COMPUTER_IDLETASK] = task;
  }

  // Starts the graph and waits for `expected` ends (all stretches unless
  // told) and for the engine to be quiet again.
  void go(bool split, int expected = -1) {
    owner.split = split;
    engine.onmain([&](OVCONTEXT* c) { setupidlecomputergroup(c, g, split); });
    if (expected < 0) expected = owner.stretches;
    waitfor([&] { return owner.ends.load() >= expected; });
    engine.onmain([](OVCONTEXT*) {});
    EXPECT_EQ(owner.ends.load(), expected);
    EXPECT_EQ(atomicload(&engine.context->computertotalwidth), 0);
    EXPECT_EQ(atomicload(&engine.context->icomputer), 0);
    EXPECT_EQ(atomicload(&g->activecomputer), 0);
    engine.waitidle();
  }

  ~RUN() {
    engine.onmain([&](OVCONTEXT* c) {
      __removetask(c, task);
      detache(c, env);
    });
    freecomputergroup(g);
    free(g);
  }
};

// ---------------------------------------------------------------- the reference

// z_0 .. z_n in stored form and the two series after each round, in the
// graph's operations.
struct REFERENCE {
  std::vector<POINT> points;        // z_k, k = 0 .. n
  std::vector<SERIES> tj, tm;       // after k rounds, k = 0 .. n
  std::vector<HFLOATCOMPLEX> dz;    // dz_k
  SEQUENTIAL s;
  REFERENCE(mpf_srcptr cre, mpf_srcptr cim, mp_bitcnt_t bits, int n) : s(bits) {
    s.reset();
    SERIES j{}, m{};
    for (auto& v : j) v = CZEROH;
    for (auto& v : m) v = CZEROH;
    tj.push_back(j);
    tm.push_back(m);
    s.run(cre, cim, 0, n + 1, [&](int k, const SEQUENTIAL& q) {
      points.push_back(q.point());
      dz.push_back(q.dz());
      if (k == n) return false;
      seriesstep(j.data(), q.z(), k == 0);
      seriesstep(m.data(), q.z(), true);
      tj.push_back(j);
      tm.push_back(m);
      return true;
    });
  }
};

bool sameseries(const SERIES& a, const SERIES& b) {
  for (int k = 0; k < NTAYLORDEGREE; k++)
    if (!same(a[k], b[k])) return false;
  return true;
}
bool sameseries(const HFLOATCOMPLEX* a, const SERIES& b) {
  for (int k = 0; k < NTAYLORDEGREE; k++)
    if (!same(a[k], b[k])) return false;
  return true;
}

double relerr(HFLOATCOMPLEX a, complexd b) { return std::abs(cdHF(a) - b) / std::abs(b); }

void checkorbit(Engine& e, mp_bitcnt_t bits, bool split) {
  SCOPED_TRACE(testing::Message() << bits << " bits, split " << split);
  const int stretches = 2, n = stretches * NCOMPUTERSTRETCH;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  insidepoint(cre, cim, bits, 17 + bits);
  HOOK hook;
  REFERENCE ref(cre, cim, bits, n);
  {
    RUN run(e, bits, cre, cim, 4 * NCOMPUTERSTRETCH, stretches);
    run.go(split);
    COMPUTERGROUP* g = run.g;
    // The registers: z_n and dz_n to the bit.
    EXPECT_EQ(mpf_cmp(g->data[2], ref.s.x), 0);
    EXPECT_EQ(mpf_cmp(g->data[3], ref.s.y), 0);
    EXPECT_EQ(mpf_cmp(g->data[4], ref.s.dx), 0);
    EXPECT_EQ(mpf_cmp(g->data[5], ref.s.dy), 0);
    EXPECT_GE(g->data[2]->_mp_size, g->data[2]->_mp_prec);  // every limb in use
    EXPECT_TRUE(sameseries(g->hdata[0], ref.tj[n]));
    EXPECT_TRUE(sameseries(g->hdata[1], ref.tm[n]));
    EXPECT_EQ(g->idata[1], n);
    EXPECT_EQ(g->idata[0], COMPUTER_NOESCAPE);  // no escape, nothing lowered it
    EXPECT_EQ(g->stop, 0);
    // The stored orbit.
    int bad = 0;
    for (int k = 0; k < n; k++)
      if (!samepoint(run.env->refdatah[k], run.env->refdatad[k], ref.points[k])) bad++;
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(run.env->nhpv, 0);
    EXPECT_EQ(run.env->flags & E_ESCAPED, 0u);
    // What each core handed on, in order.
    const STEPS& st = hook.steps;
    ASSERT_EQ(st.iter.size(), size_t(n));
    int badstep = 0;
    for (int i = 0; i < n; i++) {
      int it = i + 1;
      bool ok = st.iter[i] == it && same(st.a[i], ref.points[it - 1].a) &&
                same(st.z[i], ref.points[it].z) && same(st.dz[i], ref.dz[it]) &&
                sameseries(st.tj[i], ref.tj[it - 1]) && sameseries(st.ntj[i], ref.tj[it]) &&
                sameseries(st.tm[i], ref.tm[it - 1]) && sameseries(st.ntm[i], ref.tm[it]);
      if (!ok) badstep++;
    }
    EXPECT_EQ(badstep, 0);
  }
  // The series mean what they say: the linear term in dc is dz_n/dc, the
  // one in dz_1 the product of 2 z_k over k = 1 .. n-1.
  complexd prod(1, 0);
  for (int k = 1; k < n; k++) prod *= 2.0 * ref.points[k].zd;
  EXPECT_LT(relerr(ref.tm[n][1], cdHF(ref.dz[n])), 1e-12);
  EXPECT_LT(relerr(ref.tj[n][1], prod), 1e-9);
  mpf_clear(cre);
  mpf_clear(cim);
}

void checkall(Engine& e) {
  for (mp_bitcnt_t bits : {128u, 1024u, 10000u})
    for (bool split : {false, true}) checkorbit(e, bits, split);
}

}  // namespace

// One worker thread: it is lent to the graph beside the main thread. Every
// stretch hands its nodes on one by one.
TEST(IdleGraph, OrbitDerivativeAndSeriesMatchSequentialOnOneWorker) {
  Engine e(4);
  ASSERT_EQ(e.context->nthread, 4);
  e.context->serialcomputerbits = 0;
  checkall(e);
}

// Four worker threads, two of them lent to the graph.
TEST(IdleGraph, OrbitDerivativeAndSeriesMatchSequentialOnTwoLentWorkers) {
  Engine e(7, false, int64_t(2) << 30);
  ASSERT_EQ(e.context->nthread, 7);
  e.context->serialcomputerbits = 0;
  checkall(e);
}

// Every stretch one chain in the order it was built, on one thread.
TEST(IdleGraph, OrbitDerivativeAndSeriesMatchSequentialInSerialStretches) {
  Engine e(7, false, int64_t(2) << 30);
  e.context->serialcomputerbits = 1 << 20;
  checkall(e);
}

TEST(IdleGraph, ShapeWidthAndNodeCount) {
  Engine e(4);
  mpf_t c;
  mpf_init2(c, 128);
  mpf_set_d(c, -1.0);
  for (bool serial : {false, true})
  for (bool split : {false, true}) {
    e.context->serialcomputerbits = serial ? 128 : 127;
    int width = -1, nodes = -1;
    {
      RUN run(e, 128, c, c, -1, 1);
      run.go(split, 1);
      width = run.g->width;
      nodes = run.g->icomputer;
    }
    // A serial stretch lends no thread; the shape is the same.
    EXPECT_EQ(width, serial ? 1 : split ? 8 : 4);
    EXPECT_EQ(nodes, NCOMPUTERHEAD_IDLE +
                         NCOMPUTERSTRETCH * (split ? NCOMPUTERROUND_IDLESPLIT : NCOMPUTERROUND_IDLE) +
                         NCOMPUTERTAIL_IDLE);
    EXPECT_LE(nodes, NCOMPUTER_ENV);
  }
  mpf_clear(c);
}

TEST(IdleGraph, AnEscapeStopsTheOrbitAndLeavesTheDistances) {
  Engine e(4);
  const mp_bitcnt_t bits = 256;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  // Far outside (the orbit leaves at once), and just outside the cusp, where
  // it creeps for a while.
  for (double re : {10.0, 0.2501}) {
    SCOPED_TRACE(re);
    mpf_set_d(cre, re);
    mpf_set_d(cim, 1e-9);
    // m: the first orbit point outside the disc of radius sqrt 5.
    int m = -1;
    SEQUENTIAL s(bits);
    s.reset();
    std::vector<POINT> pts;
    s.run(cre, cim, 0, 4096, [&](int k, const SEQUENTIAL& q) {
      pts.push_back(q.point());
      if (mpf_cmp_si(q.a, -1) > 0) return true;
      m = k;
      return false;
    });
    ASSERT_GT(m, 0);
    ASSERT_LT(m, 4 * NCOMPUTERSTRETCH);
    // z_(m+1) and dz_(m+1), and the dz_1 series there.
    SEQUENTIAL t(bits);
    t.reset();
    SERIES j{};
    for (auto& v : j) v = CZEROH;
    t.run(cre, cim, 0, m + 1, [&](int k, const SEQUENTIAL& q) {
      seriesstep(j.data(), q.z(), k == 0);
      return true;
    });
    HOOK hook;
    RUN run(e, bits, cre, cim, 4 * NCOMPUTERSTRETCH, 4);
    run.go(false, m / NCOMPUTERSTRETCH + 1);
    EXPECT_EQ(run.g->stop, 1);
    EXPECT_NE(run.env->flags & E_ESCAPED, 0u);
    EXPECT_EQ(hook.steps.iter.size(), size_t(m));
    for (int k = 0; k < m; k++)
      EXPECT_TRUE(samepoint(run.env->refdatah[k], run.env->refdatad[k], pts[k])) << k;
    // Nothing past the escape was stored.
    EXPECT_EQ(run.env->refdatah[m].value.mantissax, 0);
    EXPECT_EQ(run.env->refdatah[m].a.mantissa, 0);
    HFLOAT dm = distmsquaredHF(t.z(), t.dz());
    HFLOAT dj = distjsquaredHF(t.z(), j[1]);
    EXPECT_TRUE(same(run.env->r4, sqrtHF(dm)));
    EXPECT_TRUE(same(run.env->r2, sqrtHF(dj)));
    EXPECT_GT(dHF(run.env->r4), 0.0);
  }
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(IdleGraph, StopBeforeAStretchRunsItWithoutItsCoresAndNoFurtherOne) {
  Engine e(4);
  const mp_bitcnt_t bits = 1024;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  insidepoint(cre, cim, bits, 5);
  HOOK hook;
  RUN run(e, bits, cre, cim, 4 * NCOMPUTERSTRETCH, 3);
  run.g->stop = 1;
  run.go(false, 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(run.owner.ends.load(), 1);
  EXPECT_TRUE(hook.steps.iter.empty());
  EXPECT_EQ(run.env->refdatah[0].a.mantissa, 0);  // nothing stored
  SEQUENTIAL s(bits);
  s.reset();
  s.run(cre, cim, 0, NCOMPUTERSTRETCH, nullptr);
  EXPECT_EQ(mpf_cmp(run.g->data[2], s.x), 0);  // the arithmetic ran all the same
  EXPECT_EQ(mpf_cmp(run.g->data[5], s.dy), 0);
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(IdleGraph, TheTaskCountsOneUnitPerStretchUpToItsDue) {
  Engine e(4);
  const mp_bitcnt_t bits = 512;
  const int stretches = 5;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  insidepoint(cre, cim, bits, 9);
  RUN run(e, bits, cre, cim, -1, stretches);
  EXPECT_EQ(run.task->accomplished, 0);
  run.go(true);
  std::vector<int> want;
  std::vector<ITER> iters;
  for (int k = 1; k <= stretches; k++) {
    want.push_back(k);
    iters.push_back(k * NCOMPUTERSTRETCH);
  }
  EXPECT_EQ(run.owner.accomplished, want);
  EXPECT_EQ(run.owner.taskiter, iters);
  EXPECT_EQ(run.task->accomplished, run.task->due);
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(IdleGraph, ArraysGrowAheadOfTheOrbitAndCountAgainstTheBudget) {
  Engine e(4);
  const mp_bitcnt_t bits = 128;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  insidepoint(cre, cim, bits, 21);
  int64_t before = atomicload(&e.context->mem_envrefdata);
  {
    RUN run(e, bits, cre, cim, 1000, 2);
    EXPECT_EQ(atomicload(&e.context->mem_envrefdata), before + 64000);
    run.go(false);
    EXPECT_EQ(run.env->nrefdata, 1000 + NIDLEREFDATA);
    EXPECT_EQ(atomicload(&e.context->mem_envrefdata), before + int64_t(64) * (1000 + NIDLEREFDATA));
    REFERENCE ref(cre, cim, bits, 2 * NCOMPUTERSTRETCH);
    int bad = 0;
    for (int k = 0; k < 2 * NCOMPUTERSTRETCH; k++)
      if (!samepoint(run.env->refdatah[k], run.env->refdatad[k], ref.points[k])) bad++;
    EXPECT_EQ(bad, 0);
  }
  EXPECT_EQ(atomicload(&e.context->mem_envrefdata), before);
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(IdleGraph, ACheckpointHoldsZAtIteration65536) {
  Engine e(4);
  const mp_bitcnt_t bits = 128;
  const int stretches = 65536 / NCOMPUTERSTRETCH;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  insidepoint(cre, cim, bits, 33);
  int ihpv = 0;
  e.onmain([&](OVCONTEXT* c) { ihpv = c->ihpvalue; });
  {
    RUN run(e, bits, cre, cim, 65536 + 2048, stretches);
    run.go(false);
    ASSERT_EQ(run.env->nhpv, 1);
    SEQUENTIAL s(bits);
    s.reset();
    s.run(cre, cim, 0, 65536, nullptr);
    EXPECT_EQ(mpf_cmp(run.env->hpv[0]->v[0], s.x), 0);
    EXPECT_EQ(mpf_cmp(run.env->hpv[0]->v[1], s.y), 0);
    EXPECT_EQ(mpf_cmp(run.g->data[2], s.x), 0);
    EXPECT_EQ(run.env->nrefdata, 65536 + 2048);  // no growth was due
  }
  int after = -1;
  e.onmain([&](OVCONTEXT* c) { after = c->ihpvalue; });
  EXPECT_EQ(after, ihpv);  // the checkpoint went with the environment
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(IdleGraph, ARebuiltGraphAfterAResetContinuesFromTheRegisters) {
  Engine e(4);
  const mp_bitcnt_t bits = 1024;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  insidepoint(cre, cim, bits, 41);
  HOOK hook;
  RUN run(e, bits, cre, cim, 4 * NCOMPUTERSTRETCH, 1);
  run.go(false);
  // A second run in the same store after a reset: the graph is built again
  // (the split shape this time) and counts on from the registers it is given.
  SEQUENTIAL s(bits);
  s.reset();
  s.run(cre, cim, 0, NCOMPUTERSTRETCH, nullptr);
  e.onmain([&](OVCONTEXT* c) {
    mpf_t keep[4];
    for (int k = 0; k < 4; k++) {
      mpf_init2(keep[k], bits);
      mpf_set(keep[k], run.g->data[2 + k]);
    }
    HFLOATCOMPLEX h[2][NTAYLORDEGREE];
    memcpy(h, run.g->hdata, sizeof h);
    resetcomputergroup(c, run.g, bits);
    mpf_set(run.g->data[0], cre);
    mpf_set(run.g->data[1], cim);
    for (int k = 0; k < 4; k++) {
      mpf_set(run.g->data[2 + k], keep[k]);
      mpf_clear(keep[k]);
    }
    memcpy(run.g->hdata, h, sizeof h);
    run.g->idata[1] = NCOMPUTERSTRETCH;
    run.g->pdata[0] = &run.owner;
    run.g->pdata[COMPUTER_IDLESTANDARD] = run.env;
    run.g->endcompute = ownerend;
  });
  run.owner.stretches = 2;
  run.owner.ends.store(0);
  run.go(true, 2);
  REFERENCE ref(cre, cim, bits, 3 * NCOMPUTERSTRETCH);
  EXPECT_EQ(mpf_cmp(run.g->data[2], ref.s.x), 0);
  EXPECT_EQ(mpf_cmp(run.g->data[4], ref.s.dx), 0);
  EXPECT_TRUE(sameseries(run.g->hdata[0], ref.tj[3 * NCOMPUTERSTRETCH]));
  EXPECT_TRUE(sameseries(run.g->hdata[1], ref.tm[3 * NCOMPUTERSTRETCH]));
  ASSERT_EQ(hook.steps.iter.size(), size_t(3 * NCOMPUTERSTRETCH));
  for (int i = 0; i < 3 * NCOMPUTERSTRETCH; i++) EXPECT_EQ(hook.steps.iter[i], i + 1);
  mpf_clear(cre);
  mpf_clear(cim);
}
