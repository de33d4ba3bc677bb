// Reference points: the HPVALUE pool (order of slots, exhaustion, limbs kept
// for reuse and their accounting), the life of environments and their
// copies (counts, orbit bytes, several threads at once), and the tests that
// say whether an environment fits a view.
//
// Everything that touches an HPVALUE runs on the engine's main thread.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "enginefixture.h"

using enginetest::Engine;

namespace {

constexpr HFLOATBASE HALF = HFLOATBASE(1) << 61;

// 2^k, exactly.
HFLOAT pow2(int k) { return HFLOAT{HALF, k + 1}; }
HFLOATCOMPLEX pow2c(int k) { return HFLOATCOMPLEX{HALF, 0, k + 1}; }

// The limb bytes GMP allocates for two numbers of `bits` precision, worked
// out from GMP's rule, not from the code under test.
int64_t limbbytes(mp_bitcnt_t bits) {
  int64_t prec = (static_cast<int64_t>(bits) + 2 * 64 - 1) / 64;
  return 2 * 8 * (prec + 1);
}

struct MPF {
  mpf_t v;
  explicit MPF(mp_bitcnt_t bits = 64) { mpf_init2(v, bits); }
  MPF(mp_bitcnt_t bits, double d) {
    mpf_init2(v, bits);
    mpf_set_d(v, d);
  }
  ~MPF() { mpf_clear(v); }
  MPF(const MPF&) = delete;
  MPF& operator=(const MPF&) = delete;
  // v += m * 2^k
  MPF& add(double m, long k) {
    mpf_t t;
    mpf_init2(t, mpf_get_prec(v));
    mpf_set_d(t, m);
    if (k >= 0)
      mpf_mul_2exp(t, t, static_cast<mp_bitcnt_t>(k));
    else
      mpf_div_2exp(t, t, static_cast<mp_bitcnt_t>(-k));
    mpf_add(v, v, t);
    mpf_clear(t);
    return *this;
  }
  operator mpf_srcptr() const { return v; }
  operator mpf_ptr() { return v; }
};

std::string stderrof(const std::function<void()>& fn) {
  testing::internal::CaptureStderr();
  fn();
  return testing::internal::GetCapturedStderr();
}

// Runs fn on the main thread of a fresh engine.
void onmain(const std::function<void(OVCONTEXT*)>& fn) {
  Engine engine;
  engine.onmain(fn);
}

// An orbit of n points, made the way the reference iteration makes one.
void giveorbit(OVCONTEXT* c, ENVIRONMENT* e, int n) {
  e->refdatah = static_cast<REFDATAH*>(malloc(n * sizeof(REFDATAH)));
  e->refdatad = static_cast<REFDATAD*>(malloc(n * sizeof(REFDATAD)));
  e->nrefdata = n;
  __atomic_add_fetch(&c->mem_envrefdata, static_cast<int64_t>(n) * 64, __ATOMIC_SEQ_CST);
  for (int k = 0; k < n; k++) {
    e->refdatah[k].value = pow2c(-k);
    e->refdatah[k].a = pow2(k);
    e->refdatad[k].value = complexd(k, -k);
    e->refdatad[k].a = 0.5 * k;
  }
}

// A hand-made environment at (x, y) of period n with the given flags.
ENVIRONMENT* makee(OVCONTEXT* c, mpf_srcptr x, mpf_srcptr y, mp_bitcnt_t bits, UITER n,
                   unsigned int flags) {
  ENVIRONMENT* e = adde(c, x, y, bits);
  if (e) {
    e->n = n;
    e->flags = flags;
  }
  return e;
}

}  // namespace

// ---------------------------------------------------------------- the HPVALUE pool

TEST(HpvaluePool, HandsOutSlotsInBlockOrderFirst) {
  onmain([](OVCONTEXT* c) {
    ASSERT_EQ(c->ihpvalue, 0);
    ASSERT_EQ(c->rhpvalue, &c->hpvalue[0]);
    std::vector<HPVALUE*> h;
    for (int i = 0; i < 6; i++) {
      h.push_back(addhpv(c, 64));
      ASSERT_EQ(h[i], &c->hpvalue[i]);
      EXPECT_EQ(h[i]->count, 1);
      EXPECT_EQ(h[i]->flags, HPV_USED | HPV_LIMBS);
      EXPECT_GE(mpf_get_prec(h[i]->v[0]), 64u);
      EXPECT_GE(mpf_get_prec(h[i]->v[1]), 64u);
      EXPECT_EQ(mpf_sgn(h[i]->v[0]), 0);
      EXPECT_EQ(c->ihpvalue, i + 1);
    }
    EXPECT_EQ(c->rhpvalue, &c->hpvalue[6]);
    for (HPVALUE* v : h) detachhpv(c, v);
    EXPECT_EQ(c->ihpvalue, 0);
  });
}

TEST(HpvaluePool, HandsOutLastFreedFirstAfterwards) {
  onmain([](OVCONTEXT* c) {
    HPVALUE* h[6];
    for (HPVALUE*& v : h) v = addhpv(c, 64);
    detachhpv(c, h[1]);
    detachhpv(c, h[4]);
    detachhpv(c, h[2]);
    EXPECT_EQ(c->ihpvalue, 3);
    EXPECT_EQ(c->rhpvalue, h[2]);
    EXPECT_EQ(h[2]->flags, HPV_FREE | HPV_LIMBS);
    EXPECT_EQ(h[2]->count, 0);
    HPVALUE* a = addhpv(c, 64);
    HPVALUE* b = addhpv(c, 64);
    HPVALUE* d = addhpv(c, 64);
    HPVALUE* fresh = addhpv(c, 64);
    EXPECT_EQ(a, h[2]);
    EXPECT_EQ(b, h[4]);
    EXPECT_EQ(d, h[1]);
    // The free list is used up: the block goes on where it stopped.
    EXPECT_EQ(fresh, &c->hpvalue[6]);
    EXPECT_EQ(c->ihpvalue, 7);
    for (HPVALUE* v : {h[0], h[3], h[5], a, b, d, fresh}) detachhpv(c, v);
    EXPECT_EQ(c->ihpvalue, 0);
  });
}

TEST(HpvaluePool, OverflowAtCapacityLessTwoPrintsAndGivesNull) {
  onmain([](OVCONTEXT* c) {
    int saved = c->nhpvalue;
    int start = c->ihpvalue;
    c->nhpvalue = start + 7;
    std::vector<HPVALUE*> h;
    for (int i = 0; i < 5; i++) {
      HPVALUE* v = addhpv(c, 64);
      ASSERT_NE(v, nullptr) << i;
      h.push_back(v);
    }
    EXPECT_EQ(c->ihpvalue, c->nhpvalue - 2);
    HPVALUE* over = reinterpret_cast<HPVALUE*>(1);
    EXPECT_EQ(stderrof([&] { over = addhpv(c, 64); }), "hpvalue overflow.\n");
    EXPECT_EQ(over, nullptr);
    EXPECT_EQ(c->ihpvalue, c->nhpvalue - 2);
    // One back makes room for exactly one.
    HPVALUE* last = h.back();
    h.pop_back();
    detachhpv(c, last);
    HPVALUE* again = addhpv(c, 64);
    EXPECT_EQ(again, last);
    h.push_back(again);
    EXPECT_EQ(stderrof([&] { over = addhpv(c, 64); }), "hpvalue overflow.\n");
    EXPECT_EQ(over, nullptr);
    c->nhpvalue = saved;
    for (HPVALUE* v : h) detachhpv(c, v);
    EXPECT_EQ(c->ihpvalue, start);
  });
}

TEST(HpvaluePool, FillingTheWholePoolStopsTwoShortOfItsSize) {
  onmain([](OVCONTEXT* c) {
    int64_t m0 = c->mem_hpvalue;
    std::vector<HPVALUE*> h;
    h.reserve(c->nhpvalue);
    testing::internal::CaptureStderr();
    while (static_cast<int>(h.size()) <= c->nhpvalue) {
      HPVALUE* v = addhpv(c, 64);
      if (!v) break;
      h.push_back(v);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "hpvalue overflow.\n");
    EXPECT_EQ(static_cast<int>(h.size()), c->nhpvalue - 2);
    EXPECT_EQ(h.back(), &c->hpvalue[c->nhpvalue - 3]);
    EXPECT_EQ(c->mem_hpvalue, m0 + static_cast<int64_t>(h.size()) * limbbytes(64));
    for (HPVALUE* v : h) detachhpv(c, v);
    EXPECT_EQ(c->ihpvalue, 0);
    EXPECT_EQ(c->mem_hpvalue, m0 + static_cast<int64_t>(h.size()) * limbbytes(64));
  });
}

TEST(HpvaluePool, LimbsAreKeptOnFreeAndReusedAtANewPrecision) {
  onmain([](OVCONTEXT* c) {
    int64_t m0 = c->mem_hpvalue;
    HPVALUE* h = addhpv(c, 64);
    EXPECT_EQ(hpvaluelimbbytes(h), limbbytes(64));
    EXPECT_EQ(limbbytes(64), 48);
    EXPECT_EQ(c->mem_hpvalue, m0 + 48);
    mpf_set_d(h->v[0], 1.5);
    mpf_set_d(h->v[1], -2.5);

    detachhpv(c, h);
    EXPECT_EQ(h->flags, HPV_FREE | HPV_LIMBS);
    EXPECT_EQ(c->mem_hpvalue, m0 + 48) << "the limbs stay with the free slot";

    HPVALUE* g = addhpv(c, 1000);
    ASSERT_EQ(g, h);
    EXPECT_EQ(limbbytes(1000), 288);
    EXPECT_EQ(c->mem_hpvalue, m0 + 288);
    EXPECT_EQ(hpvaluelimbbytes(g), 288);
    EXPECT_GE(mpf_get_prec(g->v[0]), 1000u);
    EXPECT_GE(mpf_get_prec(g->v[1]), 1000u);
    EXPECT_EQ(mpf_sgn(g->v[0]), 0) << "a reused slot starts at 0";
    EXPECT_EQ(mpf_sgn(g->v[1]), 0);
    // The new precision is really there: 2^-900 survives next to 1.
    MPF one(1000, 1.0);
    mpf_set(g->v[0], one);
    mpf_div_2exp(g->v[1], one, 900);
    mpf_add(g->v[0], g->v[0], g->v[1]);
    EXPECT_NE(mpf_cmp(g->v[0], one), 0);

    detachhpv(c, g);
    EXPECT_EQ(c->mem_hpvalue, m0 + 288);
    HPVALUE* k = addhpv(c, 64);
    ASSERT_EQ(k, h);
    EXPECT_EQ(c->mem_hpvalue, m0 + 48);
    HPVALUE* same = nullptr;
    detachhpv(c, k);
    same = addhpv(c, 64);
    EXPECT_EQ(c->mem_hpvalue, m0 + 48) << "the same precision changes nothing";
    detachhpv(c, same);
  });
}

TEST(HpvaluePool, AttachKeepsTheSlotUntilTheLastDetach) {
  onmain([](OVCONTEXT* c) {
    HPVALUE* h = addhpv(c, 128);
    attachhpv(h);
    attachhpv(h);
    EXPECT_EQ(h->count, 3);
    detachhpv(c, h);
    detachhpv(c, h);
    EXPECT_EQ(h->count, 1);
    EXPECT_EQ(h->flags, HPV_USED | HPV_LIMBS);
    EXPECT_EQ(c->ihpvalue, 1);
    EXPECT_NE(c->rhpvalue, h);
    detachhpv(c, h);
    EXPECT_EQ(h->count, 0);
    EXPECT_EQ(h->flags, HPV_FREE | HPV_LIMBS);
    EXPECT_EQ(c->ihpvalue, 0);
    EXPECT_EQ(c->rhpvalue, h);
  });
}

TEST(HpvaluePool, DetachWithAnUnknownFlagPrintsAndStillFrees) {
  onmain([](OVCONTEXT* c) {
    HPVALUE* h = addhpv(c, 64);
    h->flags |= 64;
    EXPECT_EQ(stderrof([&] { detachhpv(c, h); }), "detachhpv: invalid flags.\n");
    EXPECT_EQ(h->flags, HPV_FREE | HPV_LIMBS);
    EXPECT_EQ(c->rhpvalue, h);
    EXPECT_EQ(c->ihpvalue, 0);
    HPVALUE* g = nullptr;
    EXPECT_EQ(stderrof([&] { g = addhpv(c, 64); }), "");
    EXPECT_EQ(g, h);
    detachhpv(c, g);
  });
}

TEST(HpvaluePool, AddOnASlotWithWrongFlagsPrintsAndUsesIt) {
  onmain([](OVCONTEXT* c) {
    int64_t m0 = c->mem_hpvalue;
    HPVALUE* h = addhpv(c, 640);
    detachhpv(c, h);
    ASSERT_EQ(c->rhpvalue, h);
    h->flags = HPV_USED | HPV_LIMBS;  // a slot on the free list that says it is used
    HPVALUE* g = nullptr;
    EXPECT_EQ(stderrof([&] { g = addhpv(c, 64); }), "addhpv: invalid flags.\n");
    ASSERT_EQ(g, h);
    EXPECT_EQ(g->count, 1);
    EXPECT_EQ(g->flags, HPV_USED | HPV_LIMBS);
    EXPECT_EQ(c->ihpvalue, 1);
    EXPECT_EQ(c->mem_hpvalue, m0 + limbbytes(64));
    detachhpv(c, g);
  });
}

TEST(HpvaluePool, ShutdownClearsTheLimbsOfFreeSlotsThroughTheSameCount) {
  Engine engine;
  HPVALUE* used = nullptr;
  HPVALUE* freed = nullptr;
  engine.onmain([&](OVCONTEXT* c) {
    freed = addhpv(c, 64);
    used = addhpv(c, 6400);
    detachhpv(c, freed);
  });
  OVCONTEXT* c = engine.context;
  EXPECT_EQ(c->mem_hpvalue, limbbytes(64) + limbbytes(6400));
  shutdowncontext(c, false);
  EXPECT_EQ(c->mem_hpvalue, limbbytes(6400));
  EXPECT_EQ(freed->flags & HPV_LIMBS, 0u);
  EXPECT_EQ(used->flags, HPV_USED | HPV_LIMBS);
}

// ---------------------------------------------------------------- environments

TEST(Environment, AddeMakesAFreshEnvironmentAtThePoint) {
  onmain([](OVCONTEXT* c) {
    int h0 = c->ihpvalue;
    MPF x(400, 0.25);
    x.add(1.0, -300);
    MPF y(400, -0.5);
    ENVIRONMENT* e = adde(c, x, y, 400);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(atomicload(&c->ienvironment), 1);
    EXPECT_EQ(c->ihpvalue, h0 + 1);
    EXPECT_EQ(atomicload(&e->count), 1);
    ASSERT_NE(e->c, nullptr);
    EXPECT_EQ(e->c->count, 1);
    EXPECT_GE(mpf_get_prec(e->c->v[0]), 400u);
    EXPECT_EQ(mpf_cmp(e->c->v[0], x), 0);
    EXPECT_EQ(mpf_cmp(e->c->v[1], y), 0);
    EXPECT_EQ(e->precision, 400u);
    EXPECT_EQ(e->iscopyof, nullptr);
    EXPECT_EQ(e->owner, nullptr);
    EXPECT_EQ(e->provisional.c, nullptr);
    EXPECT_EQ(e->refdatah, nullptr);
    EXPECT_EQ(e->refdatad, nullptr);
    EXPECT_EQ(e->nrefdata, 0);
    EXPECT_EQ(e->nhpv, 0);
    EXPECT_EQ(e->mini, 0);
    EXPECT_EQ(e->maxi, 0);
    EXPECT_EQ(e->timesrun, 0);
    EXPECT_EQ(e->flags, 0u);
    EXPECT_EQ(e->n, 0u);
    EXPECT_EQ(e->worker, nullptr);
    EXPECT_EQ(e->task, nullptr);
    EXPECT_EQ(e->istore, -1);
    EXPECT_EQ(e->computergroup.ncomputer, 0);
    EXPECT_TRUE(chainempty(&e->chain));
    EXPECT_TRUE(chainempty(&e->chainstore));
    detache(c, e);
    EXPECT_EQ(atomicload(&c->ienvironment), 0);
    EXPECT_EQ(c->ihpvalue, h0);
  });
}

TEST(Environment, AddejMakesTheSameRecordForAViewportCopy) {
  onmain([](OVCONTEXT* c) {
    MPF x(200, -1.75), y(200, 0.0);
    ENVIRONMENT* e = addej(c, x, y, 200);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(atomicload(&c->ienvironment), 1);
    EXPECT_EQ(atomicload(&e->count), 1);
    EXPECT_EQ(mpf_cmp(e->c->v[0], x), 0);
    EXPECT_EQ(mpf_cmp(e->c->v[1], y), 0);
    EXPECT_EQ(e->precision, 200u);
    EXPECT_EQ(e->istore, -1);
    EXPECT_EQ(e->flags, 0u);
    EXPECT_EQ(e->refdatah, nullptr);
    EXPECT_EQ(e->iscopyof, nullptr);
    detache(c, e);
    EXPECT_EQ(atomicload(&c->ienvironment), 0);
    EXPECT_EQ(c->ihpvalue, 0);
  });
}

TEST(Environment, AddeWithTheHpvaluePoolFullGivesNullAndLeavesNoEnvironment) {
  onmain([](OVCONTEXT* c) {
    int saved = c->nhpvalue;
    c->nhpvalue = c->ihpvalue + 2;
    MPF x(64, 0.0), y(64, 0.0);
    ENVIRONMENT* e = reinterpret_cast<ENVIRONMENT*>(1);
    EXPECT_EQ(stderrof([&] { e = adde(c, x, y, 64); }), "hpvalue overflow.\n");
    EXPECT_EQ(e, nullptr);
    EXPECT_EQ(atomicload(&c->ienvironment), 0);
    c->nhpvalue = saved;
  });
}

TEST(Environment, CopySharesTheOrbitAndAttachesEveryValue) {
  onmain([](OVCONTEXT* c) {
    MPF x(300, -0.125), y(300, 0.75);
    ENVIRONMENT* src = makee(c, x, y, 300, 5, E_PERIODIC | E_SERIES);
    ASSERT_NE(src, nullptr);
    giveorbit(c, src, 4);
    src->nhpv = 3;
    for (int k = 0; k < 3; k++) src->hpv[k] = addhpv(c, 300);
    src->provisional.c = addhpv(c, 300);
    src->provisional.iter = -5;
    src->provisional.d = pow2(-40);
    src->mini = 2;
    src->maxi = 6;
    src->nref = 9;
    src->cf = pow2c(-3);
    src->r1 = pow2(-20);
    src->r2 = pow2(-21);
    src->r3 = pow2(-22);
    src->r4 = pow2(-23);
    src->tmpr2 = pow2(-24);
    for (int i = 0; i < NTAYLOR; i++) src->taylor[i] = pow2c(-i);
    src->scalec = pow2c(30);
    src->scalez = pow2c(2);
    src->timesrun = 11;
    src->due = 12;
    src->istore = 4;
    src->computergroup.ncomputer = 3;
    src->task = reinterpret_cast<TASK*>(&src->due);  // never followed
    src->worker = reinterpret_cast<WORKER*>(&src->due);
    int h0 = c->ihpvalue;

    ENVIRONMENT* e = copye(c, src);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(atomicload(&c->ienvironment), 2);
    EXPECT_EQ(c->ihpvalue, h0) << "a copy takes no value of its own";
    EXPECT_EQ(atomicload(&e->count), 1);
    EXPECT_EQ(atomicload(&src->count), 2);
    EXPECT_EQ(e->iscopyof, src);
    EXPECT_EQ(e->refdatah, src->refdatah);
    EXPECT_EQ(e->refdatad, src->refdatad);
    EXPECT_EQ(e->nrefdata, 4);
    EXPECT_EQ(c->mem_envrefdata, 4 * 64);
    EXPECT_EQ(e->c, src->c);
    EXPECT_EQ(src->c->count, 2);
    EXPECT_EQ(e->nhpv, 3);
    for (int k = 0; k < 3; k++) {
      EXPECT_EQ(e->hpv[k], src->hpv[k]);
      EXPECT_EQ(src->hpv[k]->count, 2);
    }
    EXPECT_EQ(e->provisional.c, src->provisional.c);
    EXPECT_EQ(src->provisional.c->count, 2);
    EXPECT_EQ(e->provisional.iter, -5);
    EXPECT_EQ(memcmp(&e->provisional.d, &src->provisional.d, sizeof(HFLOAT)), 0);
    EXPECT_EQ(e->n, 5u);
    EXPECT_EQ(e->nref, 9);
    EXPECT_EQ(e->mini, 2);
    EXPECT_EQ(e->maxi, 6);
    EXPECT_EQ(e->flags, E_PERIODIC | E_SERIES);
    EXPECT_EQ(e->precision, 300u);
    EXPECT_EQ(memcmp(&e->cf, &src->cf, sizeof e->cf), 0);
    auto same = [](HFLOAT a, HFLOAT b) {
      return a.mantissa == b.mantissa && a.exponent == b.exponent;
    };
    EXPECT_TRUE(same(e->r1, src->r1));
    EXPECT_TRUE(same(e->r2, src->r2));
    EXPECT_TRUE(same(e->r3, src->r3));
    EXPECT_TRUE(same(e->r4, src->r4));
    EXPECT_TRUE(same(e->tmpr2, src->tmpr2));
    EXPECT_EQ(memcmp(e->taylor, src->taylor, sizeof e->taylor), 0);
    EXPECT_EQ(memcmp(&e->scalec, &src->scalec, sizeof e->scalec), 0);
    EXPECT_EQ(memcmp(&e->scalez, &src->scalez, sizeof e->scalez), 0);
    // What belongs to a run stays with the source.
    EXPECT_EQ(e->task, nullptr);
    EXPECT_EQ(e->worker, nullptr);
    EXPECT_EQ(e->timesrun, 0);
    EXPECT_EQ(e->due, 0);
    EXPECT_EQ(e->computergroup.ncomputer, 0);
    EXPECT_EQ(e->istore, -1);

    detache(c, e);
    EXPECT_EQ(atomicload(&src->count), 1);
    EXPECT_EQ(src->c->count, 1);
    EXPECT_EQ(src->provisional.c->count, 1);
    for (int k = 0; k < 3; k++) EXPECT_EQ(src->hpv[k]->count, 1);
    detache(c, src);
    EXPECT_EQ(atomicload(&c->ienvironment), 0);
    EXPECT_EQ(c->ihpvalue, 0);
    EXPECT_EQ(c->mem_envrefdata, 0);
  });
}

TEST(Environment, DetacheOfAnEnvironmentAtZeroPrintsItsPeriodAndDoesNothing) {
  onmain([](OVCONTEXT* c) {
    MPF x(64, 0.0), y(64, 0.0);
    ENVIRONMENT* e = makee(c, x, y, 64, 17, E_PERIODIC);
    ASSERT_NE(e, nullptr);
    atomicstore(&e->count, 0);
    EXPECT_EQ(stderrof([&] { detache(c, e); }), "detache: FATAL error (17).\n");
    EXPECT_EQ(atomicload(&c->ienvironment), 1);
    EXPECT_EQ(atomicload(&e->count), 0);
    EXPECT_EQ(e->c->count, 1);
    atomicstore(&e->count, 1);
    EXPECT_EQ(stderrof([&] { detache(c, e); }), "");
    EXPECT_EQ(atomicload(&c->ienvironment), 0);
    EXPECT_EQ(c->ihpvalue, 0);
  });
}

TEST(Environment, ACopyOfACopyChainsBackToTheOriginal) {
  onmain([](OVCONTEXT* c) {
    MPF x(64, 0.5), y(64, 0.0);
    ENVIRONMENT* a = adde(c, x, y, 64);
    giveorbit(c, a, 3);
    ENVIRONMENT* b = copye(c, a);
    ENVIRONMENT* d = copye(c, b);
    EXPECT_EQ(d->iscopyof, b);
    EXPECT_EQ(d->refdatah, a->refdatah);
    EXPECT_EQ(a->c->count, 3);
    detache(c, a);
    detache(c, b);
    EXPECT_EQ(atomicload(&c->ienvironment), 3);
    EXPECT_EQ(c->mem_envrefdata, 3 * 64);
    EXPECT_EQ(d->refdatah[2].value.exponent, -1);
    EXPECT_EQ(d->refdatad[2].a, 1.0);
    detache(c, d);
    EXPECT_EQ(atomicload(&c->ienvironment), 0);
    EXPECT_EQ(c->mem_envrefdata, 0);
    EXPECT_EQ(c->ihpvalue, 0);
  });
}

// ---------------------------------------------------------------- edge cases

TEST(EnvironmentEdge, DetacheOfACopyLeavesTheOrbitBytesTheLastDetachOfTheOriginalFreesThem) {
  onmain([](OVCONTEXT* c) {
    MPF x(128, -1.0), y(128, 0.0);
    ENVIRONMENT* e = adde(c, x, y, 128);
    giveorbit(c, e, 10);
    attache(e);  // a second holder of the original
    EXPECT_EQ(c->mem_envrefdata, 640);
    ENVIRONMENT* copy = copye(c, e);
    detache(c, copy);
    EXPECT_EQ(c->mem_envrefdata, 640);
    detache(c, e);
    EXPECT_EQ(c->mem_envrefdata, 640) << "not the last reference";
    detache(c, e);
    EXPECT_EQ(c->mem_envrefdata, 0);
    EXPECT_EQ(atomicload(&c->ienvironment), 0);
  });
}

TEST(EnvironmentEdge, ACopyKeepsTheOrbitAliveAfterItsOwnerDetachedTheOriginal) {
  onmain([](OVCONTEXT* c) {
    MPF x(128, -1.0), y(128, 0.25);
    ENVIRONMENT* e = adde(c, x, y, 128);
    giveorbit(c, e, 8);
    ENVIRONMENT* copy = copye(c, e);
    detache(c, e);  // the owner lets go
    EXPECT_EQ(atomicload(&c->ienvironment), 2);
    EXPECT_EQ(atomicload(&e->count), 1) << "held by the copy";
    EXPECT_EQ(c->mem_envrefdata, 8 * 64);
    // Still readable (the address sanitizer would object otherwise).
    for (int k = 0; k < 8; k++) {
      EXPECT_EQ(copy->refdatah[k].value.exponent, 1 - k);
      EXPECT_EQ(copy->refdatah[k].a.exponent, k + 1);
      EXPECT_EQ(copy->refdatad[k].value, complexd(k, -k));
    }
    EXPECT_EQ(mpf_cmp(copy->c->v[0], x), 0);
    detache(c, copy);
    EXPECT_EQ(atomicload(&c->ienvironment), 0);
    EXPECT_EQ(c->mem_envrefdata, 0);
    EXPECT_EQ(c->ihpvalue, 0);
  });
}

TEST(EnvironmentEdge, DetachingANullEnvironmentOrHpvalueDoesNothing) {
  onmain([](OVCONTEXT* c) {
    HPVALUE* held = addhpv(c, 64);
    int h0 = c->ihpvalue;
    HPVALUE* head = c->rhpvalue;
    int64_t m0 = c->mem_hpvalue;
    std::string err = stderrof([&] {
      detache(c, nullptr);
      detachhpv(c, nullptr);
    });
    EXPECT_EQ(err, "");
    EXPECT_EQ(c->ihpvalue, h0);
    EXPECT_EQ(c->rhpvalue, head);
    EXPECT_EQ(c->mem_hpvalue, m0);
    EXPECT_EQ(atomicload(&c->ienvironment), 0);
    EXPECT_EQ(c->mem_envrefdata, 0);
    detachhpv(c, held);
  });
}

TEST(EnvironmentEdge, APeriodOneEnvironmentIsValidAtAnyDistance) {
  onmain([](OVCONTEXT* c) {
    MPF s(64), x(64, 0.0), y(64, 0.0);
    MPF far_x(64, 1.5), far_y(64, -1.5);
    for (unsigned int flags : {0u, E_PERIODIC, E_PERIODIC | E_SERIES}) {
      ENVIRONMENT* e = makee(c, x, y, 64, 1, flags);
      e->r1 = pow2(-100);
      for (int k : {0, 100, 1000, 100000})
        EXPECT_TRUE(isenvironmentvalid(s, e, far_x, far_y, pow2c(k))) << flags << " " << k;
      e->n = 2;  // the same at period 2 is far out of reach
      EXPECT_FALSE(isenvironmentvalid(s, e, far_x, far_y, pow2c(1000))) << flags;
      detache(c, e);
    }
  });
}

TEST(EnvironmentEdge, AStandardEnvironmentWithZeroOffsetIsValidAtAnyZoom) {
  onmain([](OVCONTEXT* c) {
    MPF s(64);
    MPF x(600, -0.75), y(600, 0.1);
    x.add(1.0, -500);
    ENVIRONMENT* e = makee(c, x, y, 600, 1000, 0);
    for (int k : {-1000, 0, 5000, 1000000})
      EXPECT_TRUE(isenvironmentvalid(s, e, x, y, pow2c(k))) << k;
    // The smallest offset at the same deep zoom is not.
    MPF near_x(600, -0.75);
    near_x.add(1.0, -500).add(1.0, -590);
    EXPECT_FALSE(isenvironmentvalid(s, e, near_x, y, pow2c(5000)));
    detache(c, e);
  });
}

// ---------------------------------------------------------------- getrelativepos

TEST(RelativePos, WithoutAnEnvironmentThePointItselfOnTheLargerExponent) {
  MPF x(64, 3.0), y(64, 0.0);
  y.add(1.0, -10);
  HFLOATCOMPLEX p = getrelativepos(x, y, nullptr);
  EXPECT_EQ(p.exponent, 2);
  EXPECT_EQ(p.mantissax, HFLOATBASE(3) << 60);
  EXPECT_EQ(p.mantissay, HFLOATBASE(1) << 50);
  HFLOATCOMPLEX q = getrelativepos(y, x, nullptr);  // larger part imaginary
  EXPECT_EQ(q.exponent, 2);
  EXPECT_EQ(q.mantissax, HFLOATBASE(1) << 50);
  EXPECT_EQ(q.mantissay, HFLOATBASE(3) << 60);
}

TEST(RelativePos, AShallowPeriodicPointServesAsNoReference) {
  onmain([](OVCONTEXT* c) {
    MPF ex(64, 0.25), ey(64, 0.5);
    MPF x(64, 0.75), y(64, 0.5);
    ENVIRONMENT* e = makee(c, ex, ey, 64, 3, 0);
    struct CASE {
      unsigned int flags;
      bool relative;
    };
    for (CASE k : {CASE{0, true}, CASE{E_SERIES, true}, CASE{E_PERIODIC | E_SERIES, true},
                   CASE{E_PERIODIC | E_SERIES | E_ESCAPED, true}, CASE{E_PERIODIC, false},
                   CASE{E_PERIODIC | E_ESCAPED, false}, CASE{E_PERIODIC | E_STACKED, false},
                   CASE{E_ESCAPED, true}}) {
      e->flags = k.flags;
      HFLOATCOMPLEX p = getrelativepos(x, y, e);
      if (k.relative) {
        // (0.5, 0)
        EXPECT_EQ(p.mantissax, HALF) << k.flags;
        EXPECT_EQ(p.mantissay, 0) << k.flags;
        EXPECT_EQ(p.exponent, 0) << k.flags;
      } else {
        // (0.75, 0.5) as it is
        EXPECT_EQ(p.mantissax, HFLOATBASE(3) << 60) << k.flags;
        EXPECT_EQ(p.mantissay, HALF) << k.flags;
        EXPECT_EQ(p.exponent, 0) << k.flags;
      }
    }
    detache(c, e);
  });
}

TEST(RelativePos, TheDifferenceIsTakenInFullPrecisionBeforeItIsReduced) {
  onmain([](OVCONTEXT* c) {
    MPF ex(2100, -1.75), ey(2100, 0.5);
    ex.add(1.0, -2000);
    ENVIRONMENT* e = makee(c, ex, ey, 2100, 0, 0);
    MPF x(2100, -1.75), y(2100, 0.5);
    x.add(1.0, -2000).add(3.0, -2002);
    y.add(-1.0, -2001);
    HFLOATCOMPLEX p = getrelativepos(x, y, e);
    // (3 * 2^-2002, -2^-2001)
    EXPECT_EQ(p.exponent, -2000);
    EXPECT_EQ(p.mantissax, HFLOATBASE(3) << 60);
    EXPECT_EQ(p.mantissay, -HALF);
    EXPECT_TRUE(cabsHFs(p).mantissa != 0);
    detache(c, e);
  });
}

// ---------------------------------------------------------------- isenvironmentvalid

TEST(EnvironmentValid, AStandardEnvironmentReachesFortyFourBinaryOrdersOfTheView) {
  onmain([](OVCONTEXT* c) {
    MPF s(64), o(64, 0.0);
    ENVIRONMENT* e = makee(c, o, o, 64, 500, E_ESCAPED);
    // zoom 1: Z = 1, in [2^0, 2^1); |delta|^2 may reach below 2^45.
    MPF in(64, 1.41 * 4194304.0), out(64, 1.42 * 4194304.0);
    EXPECT_TRUE(isenvironmentvalid(s, e, in, o, pow2c(0)));
    EXPECT_FALSE(isenvironmentvalid(s, e, out, o, pow2c(0)));
    EXPECT_TRUE(isenvironmentvalid(s, e, o, in, pow2c(0)));
    EXPECT_FALSE(isenvironmentvalid(s, e, o, out, pow2c(0)));
    // A rotated view of the same scale answers the same.
    HFLOATCOMPLEX turned = {0, HALF, 1};
    EXPECT_TRUE(isenvironmentvalid(s, e, in, o, turned));
    EXPECT_FALSE(isenvironmentvalid(s, e, out, o, turned));
    detache(c, e);
  });
}

TEST(EnvironmentValid, TheDeepOffsetIsTakenInMpfFirst) {
  onmain([](OVCONTEXT* c) {
    MPF s(64);
    MPF ex(1000, 1.0), ey(1000, 0.0);
    ex.add(1.0, -900);
    ENVIRONMENT* e = makee(c, ex, ey, 1000, 2000, 0);
    MPF x(1000, 1.0), y(1000, 0.0);
    // |delta|^2 = 2^-1800. zoom 2^922: Z = 2^-1844, 44 orders apart: valid;
    // one order more is not.
    EXPECT_TRUE(isenvironmentvalid(s, e, x, y, pow2c(922)));
    EXPECT_FALSE(isenvironmentvalid(s, e, x, y, pow2c(923)));
    EXPECT_TRUE(isenvironmentvalid(s, e, x, y, pow2c(-5)));
    detache(c, e);
  });
}

TEST(EnvironmentValid, APeriodicEnvironmentHoldsStrictlyInsideR1) {
  onmain([](OVCONTEXT* c) {
    MPF s(64), o(64, 0.0);
    for (unsigned int flags : {E_PERIODIC, E_PERIODIC | E_SERIES}) {
      ENVIRONMENT* e = makee(c, o, o, 64, 5, flags);
      e->r1 = pow2(-10);
      MPF inside(64, 0.99 / 1024), edge(64, 1.0 / 1024), half(64, 0.5 / 1024);
      // View small against r1: only the offset decides.
      EXPECT_TRUE(isenvironmentvalid(s, e, half, o, pow2c(20)));
      EXPECT_TRUE(isenvironmentvalid(s, e, inside, o, pow2c(20)));
      EXPECT_TRUE(isenvironmentvalid(s, e, o, inside, pow2c(20)));
      EXPECT_FALSE(isenvironmentvalid(s, e, edge, o, pow2c(20)));
      EXPECT_FALSE(isenvironmentvalid(s, e, o, edge, pow2c(20)));
      // At the centre only the view's size decides: Z = r1^2 is too large.
      EXPECT_FALSE(isenvironmentvalid(s, e, o, o, pow2c(10)));
      EXPECT_TRUE(isenvironmentvalid(s, e, o, o, cHFd(complexd(1.01 * 1024, 0))));
      EXPECT_FALSE(isenvironmentvalid(s, e, o, o, cHFd(complexd(0.99 * 1024, 0))));
      // No 44 orders here: a standard environment would keep this one.
      MPF far(64, 1.0);
      EXPECT_FALSE(isenvironmentvalid(s, e, far, o, pow2c(20)));
      e->flags = 0;
      EXPECT_TRUE(isenvironmentvalid(s, e, far, o, pow2c(20)));
      detache(c, e);
    }
  });
}

TEST(EnvironmentValid, AZeroRadiusPeriodicEnvironmentHoldsNowhere) {
  onmain([](OVCONTEXT* c) {
    MPF s(64), o(64, 0.0);
    ENVIRONMENT* e = makee(c, o, o, 64, 3, E_PERIODIC | E_SERIES);
    e->r1 = ZEROH;
    EXPECT_FALSE(isenvironmentvalid(s, e, o, o, pow2c(1000)));
    detache(c, e);
  });
}

// ---------------------------------------------------------------- isenvironmentclose

TEST(EnvironmentClose, AStandardEnvironmentIsNeverClose) {
  onmain([](OVCONTEXT* c) {
    MPF s(64), o(64, 0.0);
    ENVIRONMENT* e = makee(c, o, o, 64, 7, E_ESCAPED | E_SERIES);
    e->r2 = ZEROH;
    EXPECT_FALSE(isenvironmentclose(s, e, o, o, pow2c(0)));
    e->flags = E_PERIODIC | E_SERIES;
    EXPECT_TRUE(isenvironmentclose(s, e, o, o, pow2c(0))) << "control";
    detache(c, e);
  });
}

TEST(EnvironmentClose, TheAtomCentreMustLieWithinTwoViewRadii) {
  onmain([](OVCONTEXT* c) {
    MPF s(64), o(64, 0.0);
    for (unsigned int flags : {E_PERIODIC, E_PERIODIC | E_SERIES}) {
      ENVIRONMENT* e = makee(c, o, o, 64, 4, flags);
      e->r2 = pow2(-4);
      // zoom 1: Z = 1, two view radii are 2.
      MPF in(64, 1.99), at(64, 2.0), minus(64, -1.99);
      EXPECT_TRUE(isenvironmentclose(s, e, in, o, pow2c(0)));
      EXPECT_TRUE(isenvironmentclose(s, e, o, minus, pow2c(0)));
      EXPECT_FALSE(isenvironmentclose(s, e, at, o, pow2c(0)));
      EXPECT_FALSE(isenvironmentclose(s, e, o, at, pow2c(0)));
      detache(c, e);
    }
  });
}

TEST(EnvironmentClose, TheAtomMustBeSmallerThanHalfTheView) {
  onmain([](OVCONTEXT* c) {
    MPF s(64), o(64, 0.0);
    ENVIRONMENT* e = makee(c, o, o, 64, 4, E_PERIODIC | E_SERIES);
    e->r2 = HFd(0.49);
    EXPECT_TRUE(isenvironmentclose(s, e, o, o, pow2c(0)));
    e->r2 = pow2(-1);  // 4 r2^2 = 1 = Z
    EXPECT_FALSE(isenvironmentclose(s, e, o, o, pow2c(0)));
    e->r2 = pow2(-1);
    EXPECT_TRUE(isenvironmentclose(s, e, o, o, HFLOATCOMPLEX{0, HALF, 0})) << "zoom i/2: Z = 4";
    detache(c, e);
  });
}

TEST(EnvironmentClose, TheDeepOffsetIsTakenInMpfFirst) {
  onmain([](OVCONTEXT* c) {
    MPF s(64);
    MPF ex(1000, 1.0), ey(1000, 0.0);
    ex.add(1.0, -900);
    ENVIRONMENT* e = makee(c, ex, ey, 1000, 12, E_PERIODIC | E_SERIES);
    e->r2 = pow2(-1000);
    MPF x(1000, 1.0), y(1000, 0.0);
    // |delta|^2 = 2^-1800 against 4Z = 2^-1798 at zoom 2^900.
    EXPECT_TRUE(isenvironmentclose(s, e, x, y, pow2c(900)));
    // An offset of 2^-899 is exactly two view radii.
    MPF x2(1000, 1.0);
    x2.add(-1.0, -900);
    EXPECT_FALSE(isenvironmentclose(s, e, x2, y, pow2c(900)));
    detache(c, e);
  });
}

// ---------------------------------------------------------------- counts

TEST(EnvironmentCounts, AttachAndDetachFromSeveralThreadsAtOnce) {
  Engine engine;
  OVCONTEXT* c = engine.context;
  ENVIRONMENT* e = nullptr;
  constexpr int HELD = 20000;
  engine.onmain([&](OVCONTEXT* c2) {
    MPF x(64, 0.25), y(64, 0.0);
    e = adde(c2, x, y, 64);
    giveorbit(c2, e, 16);
    for (int i = 0; i < HELD; i++) attache(e);
  });
  ASSERT_NE(e, nullptr);
  constexpr int NTHREADS = 8;
  constexpr int PAIRS = 50000;
  std::atomic<int> lowest{HELD + 1};
  std::vector<std::thread> threads;
  for (int t = 0; t < NTHREADS; t++)
    threads.emplace_back([&] {
      for (int i = 0; i < PAIRS; i++) {
        attache(e);
        detache(c, e);
        int now = atomicload(&e->count);
        int low = lowest.load();
        while (now < low && !lowest.compare_exchange_weak(low, now)) {
        }
      }
    });
  // The main thread gives back the references it took, meanwhile.
  engine.onmain([&](OVCONTEXT* c2) {
    for (int i = 0; i < HELD; i++) detache(c2, e);
  });
  for (std::thread& t : threads) t.join();
  EXPECT_GE(lowest.load(), 1);
  EXPECT_EQ(atomicload(&e->count), 1);
  EXPECT_EQ(atomicload(&c->ienvironment), 1);
  EXPECT_EQ(c->mem_envrefdata, 16 * 64);
  engine.onmain([&](OVCONTEXT* c2) { detache(c2, e); });
  EXPECT_EQ(atomicload(&c->ienvironment), 0);
  EXPECT_EQ(c->mem_envrefdata, 0);
  EXPECT_EQ(c->ihpvalue, 0);
}

TEST(EnvironmentCounts, ReferencesTakenOnOtherThreadsAreGivenBackOnTheMainThread) {
  Engine engine;
  OVCONTEXT* c = engine.context;
  ENVIRONMENT* e = nullptr;
  engine.onmain([&](OVCONTEXT* c2) {
    MPF x(64, -0.5), y(64, 0.5);
    e = adde(c2, x, y, 64);
  });
  constexpr int NTHREADS = 6;
  constexpr int EACH = 10000;
  std::vector<std::thread> threads;
  for (int t = 0; t < NTHREADS; t++)
    threads.emplace_back([&] {
      for (int i = 0; i < EACH; i++) attache(e);
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(atomicload(&e->count), 1 + NTHREADS * EACH);
  engine.onmain([&](OVCONTEXT* c2) {
    for (int i = 0; i < NTHREADS * EACH; i++) detache(c2, e);
    EXPECT_EQ(atomicload(&e->count), 1);
    EXPECT_EQ(atomicload(&c2->ienvironment), 1);
    detache(c2, e);
  });
  EXPECT_EQ(atomicload(&c->ienvironment), 0);
  EXPECT_EQ(c->ihpvalue, 0);
}

TEST(EnvironmentCounts, TenThousandEnvironmentsGiveBackEveryByteAndValue) {
  onmain([](OVCONTEXT* c) {
    int h0 = c->ihpvalue;
    MPF x(128, -1.25), y(128, 0.0);
    for (int i = 0; i < 10000; i++) {
      x.add(1.0, -100);
      ENVIRONMENT* e = (i & 1) ? adde(c, x, y, 128) : addej(c, x, y, 128);
      ASSERT_NE(e, nullptr) << i;
      giveorbit(c, e, 1 + i % 7);
      e->nhpv = i % 3;
      for (int k = 0; k < e->nhpv; k++) e->hpv[k] = addhpv(c, 128);
      if (i % 5 == 0) e->provisional.c = addhpv(c, 128);
      if (i % 4 == 0) {
        ENVIRONMENT* copy = copye(c, e);
        ASSERT_NE(copy, nullptr);
        // Either may go first.
        if (i % 8 == 0) {
          detache(c, e);
          detache(c, copy);
        } else {
          detache(c, copy);
          detache(c, e);
        }
      } else {
        attache(e);
        detache(c, e);
        detache(c, e);
      }
      ASSERT_EQ(atomicload(&c->ienvironment), 0) << i;
    }
    EXPECT_EQ(c->mem_envrefdata, 0);
    EXPECT_EQ(atomicload(&c->ienvironment), 0);
    EXPECT_EQ(c->ihpvalue, h0);
  });
}
