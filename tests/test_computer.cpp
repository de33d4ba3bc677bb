// Dataflow computers: the views and split products, the count-down that hands
// nodes on, and the plain iteration graph on a live engine against a
// sequential mpf iteration of z^2 + c.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <complex>
#include <string>
#include <cstddef>
#include <cstdlib>
#include <thread>
#include <vector>

#include "Mandelbrot.h"
#include "computertest.h"
#include "enginefixture.h"

using computertest::insidepoint;
using enginetest::Engine;
using enginetest::waitfor;

namespace {

// ---------------------------------------------------------------- reference

struct ORBIT {
  mpf_t x, y, dx, dy;
  ITER escape;
  explicit ORBIT(mp_bitcnt_t bits) {
    mpf_init2(x, bits);
    mpf_init2(y, bits);
    mpf_init2(dx, bits);
    mpf_init2(dy, bits);
    escape = COMPUTER_NOESCAPE;
  }
  ~ORBIT() {
    mpf_clear(x);
    mpf_clear(y);
    mpf_clear(dx);
    mpf_clear(dy);
  }
};

// z^2 + c and dz' = 2 z dz + 1 from z = dz = 0, one operation after the
// other, every number at `bits`. Stops at the escape when asked to, since an
// escaped orbit soon leaves GMP's exponent range.
void sequential(mpf_srcptr cre, mpf_srcptr cim, int n, mp_bitcnt_t bits, ORBIT& o,
                bool stopatescape = false) {
  mpf_t x2, y2, s, xn, yn, a, b, p, q, dxn, dyn;
  for (mpf_ptr v : {x2, y2, s, xn, yn, a, b, p, q, dxn, dyn}) mpf_init2(v, bits);
  mpf_set_ui(o.x, 0);
  mpf_set_ui(o.y, 0);
  mpf_set_ui(o.dx, 0);
  mpf_set_ui(o.dy, 0);
  for (int k = 0; k < n; k++) {
    mpf_mul(x2, o.x, o.x);
    mpf_mul(y2, o.y, o.y);
    mpf_add(s, x2, y2);
    if (o.escape == COMPUTER_NOESCAPE && mpf_cmp_ui(s, 4) >= 0) {
      o.escape = k;
      if (stopatescape) break;
    }
    mpf_sub(xn, x2, y2);
    mpf_add(xn, xn, cre);
    mpf_mul(yn, o.x, o.y);
    mpf_mul_2exp(yn, yn, 1);
    mpf_add(yn, yn, cim);
    mpf_mul(a, o.x, o.dx);
    mpf_mul(b, o.y, o.dy);
    mpf_mul(p, o.x, o.dy);
    mpf_mul(q, o.y, o.dx);
    mpf_sub(dxn, a, b);
    mpf_mul_2exp(dxn, dxn, 1);
    mpf_add_ui(dxn, dxn, 1);
    mpf_add(dyn, p, q);
    mpf_mul_2exp(dyn, dyn, 1);
    mpf_swap(o.x, xn);
    mpf_swap(o.y, yn);
    mpf_swap(o.dx, dxn);
    mpf_swap(o.dy, dyn);
  }
  for (mpf_ptr v : {x2, y2, s, xn, yn, a, b, p, q, dxn, dyn}) mpf_clear(v);
}

// ---------------------------------------------------------------- a graph's owner

struct OWNER {
  std::atomic<int> ends{0};
  std::atomic<int> endsonmain{0};
  int stretches = 1;
  bool split = false;
  // The least and the most threads counted as lent while the owner decides
  // on the next stretch.
  int endwidthlow = 1 << 30;
  int endwidthhigh = -1;
};

void ownerend(COMPUTERGROUP* group) {
  OWNER* owner = static_cast<OWNER*>(group->pdata[0]);
  OVCONTEXT* context = group->context;
  int n = owner->ends.load() + 1;
  if (context->nthread > 0 && pthread_equal(pthread_self(), context->thread[0]))
    owner->endsonmain.fetch_add(1);
  int width = atomicload(&context->computertotalwidth);
  owner->endwidthlow = std::min(owner->endwidthlow, width);
  owner->endwidthhigh = std::max(owner->endwidthhigh, width);
  // The next stretch is started before the end is counted, so a test that
  // sees the count sees the whole of this handler's work.
  if (!atomicload(&group->stop) && n < owner->stretches)
    setupitercomputergroup(context, group, owner->split);
  owner->ends.store(n);
}

COMPUTERGROUP* newgroup(OVCONTEXT* context, int ncomputer, mp_bitcnt_t bits, mpf_srcptr cre,
                        mpf_srcptr cim, OWNER* owner) {
  COMPUTERGROUP* g = static_cast<COMPUTERGROUP*>(calloc(1, sizeof(COMPUTERGROUP)));
  initcomputergroup(context, g, ncomputer, bits);
  mpf_set(g->data[0], cre);
  mpf_set(g->data[1], cim);
  g->pdata[0] = owner;
  g->endcompute = ownerend;
  return g;
}

void deletegroup(COMPUTERGROUP* g) {
  freecomputergroup(g);
  free(g);
}

// Runs `stretches` stretches of the plain graph on a live engine and checks
// what must hold once the graph has ended. The group is returned for its
// registers; the caller deletes it.
COMPUTERGROUP* rungraph(Engine& e, mp_bitcnt_t bits, mpf_srcptr cre, mpf_srcptr cim, bool split,
                        int stretches, OWNER& owner, bool stopfirst = false,
                        int expected = -1) {
  owner.stretches = stretches;
  owner.split = split;
  COMPUTERGROUP* g =
      newgroup(e.context, split ? NCOMPUTER_ITERSPLIT : NCOMPUTER_ITER, bits, cre, cim, &owner);
  if (stopfirst) g->stop = 1;
  e.onmain([&](OVCONTEXT* c) { setupitercomputergroup(c, g, split); });
  if (expected < 0) expected = stopfirst ? 1 : stretches;
  waitfor([&] { return owner.ends.load() >= expected; });
  e.onmain([](OVCONTEXT*) {});  // the end message has been handled in full
  EXPECT_EQ(owner.ends.load(), expected);
  EXPECT_EQ(owner.endsonmain.load(), expected);
  EXPECT_EQ(atomicload(&e.context->computertotalwidth), 0);
  EXPECT_EQ(atomicload(&e.context->icomputer), 0);
  EXPECT_EQ(atomicload(&g->activecomputer), 0);
  e.waitidle();
  EXPECT_EQ(atomicload(&e.context->iworkerall), 0);
  return g;
}

void expectsame(COMPUTERGROUP* g, const ORBIT& o) {
  EXPECT_EQ(mpf_cmp(g->data[2], o.x), 0);
  EXPECT_EQ(mpf_cmp(g->data[3], o.y), 0);
  EXPECT_EQ(mpf_cmp(g->data[4], o.dx), 0);
  EXPECT_EQ(mpf_cmp(g->data[5], o.dy), 0);
}

// Node by node unless `serial`.
void checkorbit(int nthread, mp_bitcnt_t bits, bool split, int stretches, bool serial = false) {
  Engine e(nthread);
  e.context->serialcomputerbits = serial ? bits : 0;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  insidepoint(cre, cim, bits, 7 + bits);
  OWNER owner;
  COMPUTERGROUP* g = rungraph(e, bits, cre, cim, split, stretches, owner);
  ORBIT o(bits);
  sequential(cre, cim, NCOMPUTERSTRETCH * stretches, bits, o);
  expectsame(g, o);
  // The orbit really moved and kept its precision: not a fixed point in
  // double, and all its limbs are in use.
  EXPECT_GT(mpf_cmp_d(g->data[2], 0.0), 0);
  EXPECT_GE(g->data[2]->_mp_size, g->data[2]->_mp_prec);
  EXPECT_EQ(g->idata[0], COMPUTER_NOESCAPE);
  EXPECT_EQ(g->idata[1], NCOMPUTERSTRETCH * stretches);
  deletegroup(g);
  mpf_clear(cre);
  mpf_clear(cim);
}

// ---------------------------------------------------------------- an engine without threads

// The queues, groups and worker records that the graph's path touches, and
// nothing else: `run` drains it on the caller's thread.
struct BARE {
  OVCONTEXT* context;
  WORKER workers[8] = {};
  BARE() {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    for (FIFO* f : {&context->workerchain, &context->wmain, &context->wmainhelper,
                    &context->wworkergl, &context->computer})
      initfifo(f);
    for (THREADGROUP* g : {&context->grmain, &context->grmainhelper, &context->grworker,
                           &context->grworkergl})
      initgroup(g, 1);
    context->idleworkermaxprio = -1;
    for (WORKER& w : workers)
      atomicfifoenqueue(&context->workerchain, &w, offsetof(WORKER, nextonstack));
  }
  ~BARE() {
    for (THREADGROUP* g : {&context->grmain, &context->grmainhelper, &context->grworker,
                           &context->grworkergl})
      freegroup(g);
    free(context);
  }
};

// Two head nodes for the direct tests of node kinds.
struct PAIRGROUP {
  BARE bare;
  COMPUTERGROUP g = {};
  COMPUTER* x;
  COMPUTER* y;
  explicit PAIRGROUP(mp_bitcnt_t bits, int ncomputer = 64) {
    initcomputergroup(bare.context, &g, ncomputer, bits);
    x = &g.computer[atomicincrementint(&g.icomputer) - 1];
    y = &g.computer[atomicincrementint(&g.icomputer) - 1];
  }
  ~PAIRGROUP() { freecomputergroup(&g); }
};

// The split product of x and y (or the square of x) against the plain one,
// each node run by hand in an order its inputs allow.
void expectsplitproduct(PAIRGROUP& t, bool square) {
  COMPUTERGROUP* g = &t.g;
  COMPUTER* plain;
  COMPUTER* fin;
  if (square) {
    plain = standardcomputer(g, __sqrcomputer, t.x);
    COMPUTER* p = standardcomputer(g, __sqrcomputerclamplo, t.x);
    COMPUTER* q = standardcomputer(g, __sqrcomputerclamphi, t.x);
    fin = standardcomputer(g, __sqrcomputerclamp, t.x, p, q);
    p->compute(p);
    q->compute(q);
  } else {
    plain = standardcomputer(g, __mulcomputer, t.x, t.y);
    COMPUTER* p = standardcomputer(g, __mulcomputerclamplo, t.x, t.y);
    COMPUTER* q = standardcomputer(g, __mulcomputerclamphi, t.x, t.y);
    COMPUTER* m = standardcomputer(g, __mulcomputerclampmid, t.y);
    fin = standardcomputer(g, __mulcomputerclamp, t.x, m, p, q);
    p->compute(p);
    q->compute(q);
    m->compute(m);
  }
  plain->compute(plain);
  fin->compute(fin);
  EXPECT_EQ(mpf_cmp(plain->data, fin->data), 0);
  atomicstore(&g->icomputer, 2);
  t.x->noutput = 0;
  t.y->noutput = 0;
}

void randomfull(mpf_ptr v, gmp_randstate_t r, mp_bitcnt_t bits, bool negative) {
  // Made at a higher precision and copied, so that it carries prec + 1
  // limbs as results of mpf operations do.
  mpf_t w;
  mpf_init2(w, bits + 256);
  mpf_urandomb(w, r, bits + 256);
  mpf_mul_2exp(w, w, 3);
  if (negative) mpf_neg(w, w);
  mpf_set(v, w);
  mpf_clear(w);
}

}  // namespace

// ---------------------------------------------------------------- views

TEST(Computer, ShortNumberHiIsWholeLoIsZeroAndSplitEqualsPlain) {
  PAIRGROUP t(1000);  // 17 limbs, split position 8
  mpf_set_d(t.x->data, 3.25);
  mpf_set_d(t.y->data, -1.5);
  ASSERT_LT(t.x->data->_mp_size, 8);
  __mpf_struct hi, lo;
  mpf_hi(&hi, t.x->data, 8);
  mpf_lo(&lo, t.x->data, 8);
  EXPECT_EQ(hi._mp_d, t.x->data->_mp_d);
  EXPECT_EQ(hi._mp_size, t.x->data->_mp_size);
  EXPECT_EQ(hi._mp_exp, t.x->data->_mp_exp);
  EXPECT_EQ(mpf_cmp(&hi, t.x->data), 0);
  EXPECT_EQ(lo._mp_size, 0);
  EXPECT_EQ(mpf_sgn(&lo), 0);
  expectsplitproduct(t, false);
  expectsplitproduct(t, true);
  mpf_t r;
  mpf_init2(r, 1000);
  mpf_set_d(r, 3.25 * -1.5);
  COMPUTER* plain = standardcomputer(&t.g, __mulcomputer, t.x, t.y);
  plain->compute(plain);
  EXPECT_EQ(mpf_cmp(plain->data, r), 0);
  mpf_clear(r);
}

TEST(Computer, NegativeNumberKeepsSignOnBothViews) {
  mpf_t x, sum;
  mpf_init2(x, 1000);
  mpf_init2(sum, 4000);
  gmp_randstate_t r;
  gmp_randinit_default(r);
  randomfull(x, r, 1000, true);
  ASSERT_LT(x->_mp_size, 0);
  __mpf_struct hi, lo;
  mpf_hi(&hi, x, 8);
  mpf_lo(&lo, x, 8);
  EXPECT_EQ(hi._mp_size, -8);
  EXPECT_LT(lo._mp_size, 0);
  EXPECT_EQ(-hi._mp_size - lo._mp_size, -x->_mp_size);
  EXPECT_LT(mpf_sgn(&hi), 0);
  EXPECT_LT(mpf_sgn(&lo), 0);
  mpf_add(sum, &hi, &lo);
  EXPECT_EQ(mpf_cmp(sum, x), 0);
  gmp_randclear(r);
  mpf_clear(x);
  mpf_clear(sum);
}

TEST(Computer, LoViewIsNormalisedUnderALimbOfZeros) {
  mpf_t x, sum, prod, three;
  mpf_init2(x, 1000);
  mpf_init2(sum, 2000);
  mpf_init2(prod, 2000);
  mpf_init2(three, 64);
  // B^10 + 1: under its top limb, nine limbs of zeros and then a one.
  mpf_set_ui(x, 1);
  mpf_mul_2exp(x, x, 640);
  mpf_add_ui(x, x, 1);
  mpf_neg(x, x);
  __mpf_struct hi, lo;
  mpf_hi(&hi, x, 1);
  mpf_lo(&lo, x, 1);
  ASSERT_NE(lo._mp_size, 0);
  EXPECT_NE(lo._mp_d[-lo._mp_size - 1], 0u);
  EXPECT_EQ(mpf_cmp_si(&lo, -1), 0);
  mpf_add(sum, &hi, &lo);
  EXPECT_EQ(mpf_cmp(sum, x), 0);
  mpf_set_ui(three, 3);
  mpf_mul(prod, &lo, three);
  EXPECT_EQ(mpf_cmp_si(prod, -3), 0);
  mpf_clear(x);
  mpf_clear(sum);
  mpf_clear(prod);
  mpf_clear(three);
}

TEST(Computer, SplitProductsEqualPlainOnesBitForBit) {
  gmp_randstate_t r;
  gmp_randinit_default(r);
  for (mp_bitcnt_t bits : {64u, 100u, 1000u, 1100u, 20000u}) {
    PAIRGROUP t(bits);
    for (int k = 0; k < 40; k++) {
      randomfull(t.x->data, r, bits, k & 1);
      randomfull(t.y->data, r, bits, k & 2);
      if (k % 5 == 4) mpf_div_2exp(t.y->data, t.y->data, 3000);
      expectsplitproduct(t, false);
      expectsplitproduct(t, true);
    }
  }
  gmp_randclear(r);
}

// ---------------------------------------------------------------- handing nodes on

TEST(Computer, FinishingANodeRunsTheFirstReadySuccessorAndQueuesTheRest) {
  PAIRGROUP t(128);
  COMPUTERGROUP* g = &t.g;
  mpf_set_ui(t.x->data, 3);
  COMPUTER* u = standardcomputer(g, __sqrcomputer, t.x);
  COMPUTER* v = standardcomputer(g, __sqrcomputer, t.x);
  COMPUTER* w = standardcomputer(g, __sqrcomputer, t.x);
  COMPUTER* sum = standardcomputer(g, __addcomputer, u, v, w);
  COMPUTER* s1 = standardcomputer(g, __realitercomputer2, sum, u);
  COMPUTER* s2 = standardcomputer(g, __subcomputer, sum, u);
  COMPUTER* s3 = standardcomputer(g, __sqrcomputer, sum);
  EXPECT_EQ(sum->inputwaitsaved, 3);
  EXPECT_EQ(u->noutput, 3);
  EXPECT_EQ(v->compute(v), nullptr);
  EXPECT_EQ(sum->inputwait, 2);
  EXPECT_EQ(w->compute(w), nullptr);
  EXPECT_EQ(sum->inputwait, 1);
  // The last input does not count down: it finds the node ready.
  EXPECT_EQ(u->compute(u), sum);
  EXPECT_EQ(sum->inputwait, 1);
  EXPECT_EQ(atomicload(&t.bare.context->icomputer), 0);
  // u fed s1 and s2 before sum: they are one short now.
  EXPECT_EQ(s1->inputwait, 1);
  EXPECT_EQ(sum->compute(sum), s1);
  EXPECT_EQ(mpf_cmp_ui(sum->data, 27), 0);
  EXPECT_EQ(atomicload(&t.bare.context->icomputer), 2);
  COMPUTER* a = static_cast<COMPUTER*>(
      atomicfifodequeue(&t.bare.context->computer, offsetof(COMPUTER, nextcomputing)));
  COMPUTER* b = static_cast<COMPUTER*>(
      atomicfifodequeue(&t.bare.context->computer, offsetof(COMPUTER, nextcomputing)));
  EXPECT_EQ(a, s2);
  EXPECT_EQ(b, s3);
}

TEST(Computer, OverflowPrintsAndGivesNull) {
  PAIRGROUP t(128, 3);
  testing::internal::CaptureStderr();
  COMPUTER* a = standardcomputer(&t.g, __sqrcomputer, t.x);
  COMPUTER* b = standardcomputer(&t.g, __sqrcomputer, t.x);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(a, nullptr);
  EXPECT_EQ(b, nullptr);
  EXPECT_EQ(err, "COMPUTER overflow.\n");
}

TEST(Computer, RunDrainsAGraphWithoutThreads) {
  BARE bare;
  const mp_bitcnt_t bits = 1000;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  insidepoint(cre, cim, bits, 11);
  OWNER owner;
  owner.stretches = 2;
  COMPUTERGROUP* g = newgroup(bare.context, NCOMPUTER_ITER, bits, cre, cim, &owner);
  setupitercomputergroup(bare.context, g);
  EXPECT_EQ(atomicload(&bare.context->computertotalwidth), COMPUTERWIDTH_ITER);
  EXPECT_GT(atomicload(&bare.context->icomputer), 0);
  run(bare.context);
  EXPECT_EQ(owner.ends.load(), 2);
  EXPECT_EQ(atomicload(&bare.context->icomputer), 0);
  EXPECT_EQ(atomicload(&bare.context->computertotalwidth), 0);
  EXPECT_EQ(atomicload(&bare.context->iworkerall), 0);
  ORBIT o(bits);
  sequential(cre, cim, 2 * NCOMPUTERSTRETCH, bits, o);
  expectsame(g, o);
  deletegroup(g);
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(Computer, TooSmallAStoreEndsTheStretchAtOnce) {
  BARE bare;
  mpf_t zero;
  mpf_init2(zero, 128);
  OWNER owner;
  owner.stretches = 3;
  COMPUTERGROUP* g = newgroup(bare.context, 100, 128, zero, zero, &owner);
  testing::internal::CaptureStderr();
  setupitercomputergroup(bare.context, g);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "COMPUTER overflow.\n");
  run(bare.context);
  EXPECT_EQ(owner.ends.load(), 1);
  EXPECT_EQ(g->stop, 1);
  EXPECT_EQ(atomicload(&bare.context->computertotalwidth), 0);
  EXPECT_EQ(atomicload(&bare.context->iworkerall), 0);
  deletegroup(g);
  mpf_clear(zero);
}

// ---------------------------------------------------------------- the plain graph on a live engine

TEST(Computer, PlainGraphMatchesSequentialAt1000Bits) { checkorbit(5, 1000, false, 1); }

TEST(Computer, PlainGraphMatchesSequentialAt20000Bits) { checkorbit(5, 20000, false, 1); }

TEST(Computer, SplitGraphMatchesPlainAt1000Bits) { checkorbit(5, 1000, true, 1); }

TEST(Computer, SplitGraphMatchesPlainAt20000Bits) { checkorbit(5, 20000, true, 1); }

TEST(Computer, RerunGraphContinuesTheOrbit) {
  checkorbit(5, 1000, false, 3);
  checkorbit(5, 1000, true, 2);
}

TEST(Computer, SerialStretchesGiveTheSameOrbit) {
  checkorbit(5, 1000, false, 3, true);
  checkorbit(8, 1000, true, 2, true);
}

TEST(Computer, LentThreadsGiveTheSameOrbit) {
  // More worker threads, so that some are lent to the graph and serve it
  // beside the main thread.
  checkorbit(8, 1000, false, 2);
  checkorbit(8, 1000, true, 1);
}

TEST(Computer, SplitAndPlainGraphsAgreeDirectly) {
  Engine e(5);
  e.context->serialcomputerbits = 0;
  const mp_bitcnt_t bits = 1100;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  insidepoint(cre, cim, bits, 3);
  OWNER o1, o2;
  COMPUTERGROUP* plain = rungraph(e, bits, cre, cim, false, 1, o1);
  COMPUTERGROUP* split = rungraph(e, bits, cre, cim, true, 1, o2);
  for (int k = 2; k < 6; k++) EXPECT_EQ(mpf_cmp(plain->data[k], split->data[k]), 0);
  deletegroup(plain);
  deletegroup(split);
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(Computer, IdataZeroStaysWhenNoEscapeOccurred) {
  Engine e(5);
  e.context->serialcomputerbits = 0;
  mpf_t cre, cim;
  mpf_init2(cre, 256);
  mpf_init2(cim, 256);
  mpf_set_d(cre, -1.0);  // the period-2 cycle 0, -1: |z|^2 never above 1
  mpf_set_ui(cim, 0);
  OWNER owner;
  COMPUTERGROUP* g = rungraph(e, 256, cre, cim, false, 2, owner);
  EXPECT_EQ(g->idata[0], 0x7FFFFFFF);
  EXPECT_EQ(g->stop, 0);
  EXPECT_EQ(mpf_cmp_ui(g->data[2], 0), 0);  // z_1024 = 0
  deletegroup(g);
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(Computer, EscapeLowersIdataZeroAndStopsFurtherStretches) {
  Engine e(5);
  const mp_bitcnt_t bits = 512;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  for (bool serial : {false, true})
  for (double re : {1.0, 0.26, 0.25002}) {
    e.context->serialcomputerbits = serial ? bits : 0;
    mpf_set_d(cre, re);
    mpf_set_d(cim, re == 1.0 ? 0.0 : 1e-30);
    ORBIT o(bits);
    sequential(cre, cim, 4 * NCOMPUTERSTRETCH, bits, o, true);
    ASSERT_NE(o.escape, COMPUTER_NOESCAPE);
    OWNER owner;
    int stretch = o.escape / NCOMPUTERSTRETCH + 1;
    // Only the stretch that escapes runs: the owner starts no other.
    COMPUTERGROUP* g = rungraph(e, bits, cre, cim, false, 4, owner, false, stretch);
    EXPECT_EQ(g->idata[0], o.escape) << re << (serial ? " serial" : "");
    EXPECT_EQ(g->stop, 1);
    EXPECT_EQ(owner.ends.load(), stretch);
    deletegroup(g);
  }
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(Computer, StopBeforeAStretchRunsItAndNoFurtherOne) {
  Engine e(5);
  e.context->serialcomputerbits = 0;
  const mp_bitcnt_t bits = 1000;
  mpf_t cre, cim;
  mpf_init2(cre, bits);
  mpf_init2(cim, bits);
  insidepoint(cre, cim, bits, 5);
  OWNER owner;
  COMPUTERGROUP* g = rungraph(e, bits, cre, cim, false, 3, owner, true);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(owner.ends.load(), 1);
  EXPECT_EQ(atomicload(&e.context->computertotalwidth), 0);
  ORBIT o(bits);
  sequential(cre, cim, NCOMPUTERSTRETCH, bits, o);
  expectsame(g, o);  // the whole stretch ran
  EXPECT_EQ(g->idata[1], NCOMPUTERSTRETCH);
  deletegroup(g);
  mpf_clear(cre);
  mpf_clear(cim);
}

TEST(Computer, ARunKeepsItsThreadsLentFromItsFirstStretchToItsLast) {
  for (bool serial : {false, true}) {
    Engine e(6);
    const mp_bitcnt_t bits = 256;
    e.context->serialcomputerbits = serial ? bits : 0;
    mpf_t cre, cim;
    mpf_init2(cre, bits);
    mpf_init2(cim, bits);
    insidepoint(cre, cim, bits, 9);
    OWNER owner;
    COMPUTERGROUP* g = rungraph(e, bits, cre, cim, false, 3, owner);
    // While the owner decides, the stretch that ended still counts; after
    // the last one nothing does (`rungraph`).
    int width = serial ? 1 : COMPUTERWIDTH_ITER;
    EXPECT_EQ(owner.endwidthlow, width) << serial;
    EXPECT_EQ(owner.endwidthhigh, width) << serial;
    ORBIT o(bits);
    sequential(cre, cim, 3 * NCOMPUTERSTRETCH, bits, o);
    expectsame(g, o);
    deletegroup(g);
    mpf_clear(cre);
    mpf_clear(cim);
  }
}

// x^2 + y^2 >= 4 as the plain core decides it, against the sum at the
// node's precision: whole parts on both sides of every bound the core
// might take a shortcut at, fractions that carry a sum over 4 only in the
// last limb, numbers of 2^64 and above, zeros and negative numbers.
TEST(Computer, CoreTellsTheEscapeAsTheSumAtItsPrecisionDoes) {
  gmp_randstate_t r;
  gmp_randinit_default(r);
  for (mp_bitcnt_t bits : {64u, 256u, 1000u}) {
    PAIRGROUP t(bits);
    COMPUTERGROUP* g = &t.g;
    COMPUTER* core = standardcomputerd(g, __itercore, 77, t.x, t.y);
    mpf_t sum, ulp, v;
    mpf_init2(sum, bits);
    mpf_init2(ulp, bits);
    mpf_init2(v, bits + 128);
    std::vector<mpf_ptr> terms;
    auto add = [&](double d) {
      mpf_ptr p = new __mpf_struct;
      mpf_init2(p, bits);
      mpf_set_d(p, d);
      terms.push_back(p);
      return p;
    };
    for (double d : {0.0, 0.25, 0.999999, 1.0, 1.5, 2.0, 2.5, 3.0, 3.5, 4.0, 5.0, 1e19, 2e19,
                     1e30, 1e-30, -1.0, -5.0, -1e30})
      add(d);
    // Just under and over whole numbers, by one unit of the last limb kept.
    mpf_set_ui(ulp, 1);
    mpf_div_2exp(ulp, ulp, (bits / GMP_NUMB_BITS + 1) * GMP_NUMB_BITS - 8);
    for (int w = 0; w <= 4; w++) {
      mpf_sub(add(w), terms.back(), ulp);
      mpf_add(add(w), terms.back(), ulp);
    }
    for (int k = 0; k < 60; k++) {
      // A random fraction f and its complement to 4 - w: the two sum to 4
      // within a few last limbs either way.
      mpf_urandomb(v, r, bits + 128);
      mpf_ptr f = add(0);
      mpf_add_ui(f, v, k % 4);
      mpf_ptr c = add(0);
      mpf_ui_sub(c, 4, f);
      if (k % 3 == 1) mpf_add(c, c, ulp);
      if (k % 3 == 2) mpf_sub(c, c, ulp);
    }
    int escapes = 0, stays = 0;
    for (size_t i = 0; i < terms.size(); i++)
      for (size_t j = 0; j < terms.size(); j++) {
        mpf_set(t.x->data, terms[i]);
        mpf_set(t.y->data, terms[j]);
        mpf_add(sum, t.x->data, t.y->data);
        bool want = mpf_cmp_ui(sum, 4) >= 0;
        g->idata[0] = COMPUTER_NOESCAPE;
        g->stop = 0;
        core->compute(core);
        EXPECT_EQ(g->idata[0] == 77, want) << bits << " bits, terms " << i << ", " << j;
        EXPECT_EQ(g->stop == 1, want);
        (want ? escapes : stays)++;
      }
    EXPECT_GT(escapes, 100);
    EXPECT_GT(stays, 100);
    for (mpf_ptr p : terms) {
      mpf_clear(p);
      delete p;
    }
    mpf_clear(sum);
    mpf_clear(ulp);
    mpf_clear(v);
  }
  gmp_randclear(r);
}

// ---------------------------------------------------------------- long orbits

// A point just inside the main cardioid, multiplier 0.9999 e^i: the orbit
// turns about its fixed point and creeps towards it by only 1.4e-4 bits an
// iteration, so over 100,000 iterations no precision lets it settle into a
// number that would repeat. Any difference in an operation or its order would
// show in the last limbs and be carried on.
void slowpoint(mpf_ptr cre, mpf_ptr cim, mp_bitcnt_t bits) {
  std::complex<double> l = std::polar(0.9999, 1.0);
  std::complex<double> c = l / 2.0 - l * l / 4.0;
  computertest::busypoint(cre, cim, bits, bits, c.real(), c.imag(), 60, false);
}

struct LONGRUN {
  mp_bitcnt_t bits;
  bool split;
  int serving;  // threads that serve the graph: the main thread, and one lent worker
  bool serial = false;  // each stretch one chain on one thread
};

std::string longrunname(const ::testing::TestParamInfo<LONGRUN>& info) {
  const LONGRUN& p = info.param;
  if (p.serial) return std::to_string(p.bits) + "Bits" + (p.split ? "Split" : "Plain") + "Serial";
  return std::to_string(p.bits) + "Bits" + (p.split ? "Split" : "Plain") +
         std::to_string(p.serving) + "Thread" + (p.serving > 1 ? "s" : "");
}

class ComputerLong : public ::testing::TestWithParam<LONGRUN> {};

// 100,352 iterations (196 stretches) of the graph on a live engine equal
// the sequential loop bit for bit, in every register.
TEST_P(ComputerLong, HundredThousandIterationsEqualTheSequentialLoop) {
  const LONGRUN& p = GetParam();
  // Five threads lend no worker to a graph (main, GL, helper and two
  // workers: the bound is the workers less two); six lend one.
  Engine e(p.serving == 1 ? 5 : 6);
  e.context->serialcomputerbits = p.serial ? p.bits : 0;
  const int stretches = (100000 + NCOMPUTERSTRETCH - 1) / NCOMPUTERSTRETCH;
  mpf_t cre, cim;
  mpf_init2(cre, p.bits);
  mpf_init2(cim, p.bits);
  slowpoint(cre, cim, p.bits);
  OWNER owner;
  // The most workers seen serving the graph while it runs.
  std::atomic<bool> over{false};
  std::atomic<int> lent{0};
  std::thread watch([&] {
    while (!over.load()) {
      int n = atomicload(&e.context->grworker.icomputingthreads);
      if (n > lent.load()) lent.store(n);
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  COMPUTERGROUP* g = rungraph(e, p.bits, cre, cim, p.split, stretches, owner);
  over.store(true);
  watch.join();
  EXPECT_EQ(lent.load(), p.serving - 1);
  ORBIT o(p.bits);
  sequential(cre, cim, NCOMPUTERSTRETCH * stretches, p.bits, o);
  expectsame(g, o);
  EXPECT_EQ(g->idata[0], COMPUTER_NOESCAPE);
  EXPECT_EQ(g->idata[1], NCOMPUTERSTRETCH * stretches);
  // Still far from its fixed point: the last limbs are all in use.
  EXPECT_GE(g->data[2]->_mp_size, g->data[2]->_mp_prec);
  deletegroup(g);
  mpf_clear(cre);
  mpf_clear(cim);
}

INSTANTIATE_TEST_SUITE_P(Orbit, ComputerLong,
                         ::testing::Values(LONGRUN{128, false, 1}, LONGRUN{128, false, 2},
                                           LONGRUN{128, true, 1}, LONGRUN{128, true, 2},
                                           LONGRUN{1024, false, 1}, LONGRUN{1024, false, 2},
                                           LONGRUN{1024, true, 1}, LONGRUN{1024, true, 2},
                                           LONGRUN{10000, false, 1}, LONGRUN{10000, false, 2},
                                           LONGRUN{10000, true, 1}, LONGRUN{10000, true, 2},
                                           LONGRUN{128, false, 1, true}, LONGRUN{128, true, 1, true},
                                           LONGRUN{1024, false, 1, true}, LONGRUN{1024, true, 1, true},
                                           LONGRUN{10000, false, 1, true}),
                         longrunname);
