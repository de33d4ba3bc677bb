// An area of a Julia realm made by the bypass (`worker_bypass2`), posted as
// a message on a running engine whose stack has its levels below ready: its
// pixels go through the level's cubic, on through the stack by the
// correction, and become the area's channels: a lookup of each pixel
// through the stack gives them, except where a level's pixel on the way sat
// on a change of count, and the pixel went on from its own place. Without a free pixel buffer the job waits
// for one and runs when one is given back; a job stopped before it starts
// only goes home; a waiting job goes home at shutdown.
#include <cstddef>
#include <cstdio>
#include <complex>
#include <vector>

#include "bypass.h"
#include "canvas/render.h"
#include "flowstest.h"

using namespace flowstest;

namespace {

const std::complex<double> SEED(0.2605, 0.0012);
// The level the area shows; the levels below it are ready.
constexpr int LEVEL = 3;
constexpr unsigned int CHANNELS = CHANNELMASK_COUNT | (1u << CHANNEL_VALUEX) | (1u << CHANNEL_VALUEY);

// The cubic of one step, exact: z_1 = c + delta^2.
void onestep(HFLOATCOMPLEX* t) {
  t[0] = cHFd(complexd(SEED.real(), SEED.imag()));
  t[1] = CZEROH;
  t[2] = CONEH;
  t[3] = CZEROH;
}


struct SCENE {
  TileEngine e{16, false};
  REALM* realm;
  HPVALUE* m = nullptr;
  ENVIRONMENT* env = nullptr;
  AREA* a = nullptr;
  HFLOATCOMPLEX cf{};  // the area's lower corner
  std::vector<PREPIXEL> expected;

  SCENE() {
    realm = newrealm(e, JULIA, R_JULIACORRECT | R_PRECDOUBLE);
    e.onmain([&](OVCONTEXT* c) {
      m = addhpv(c, 128);
      mpf_set_d(m->v[0], SEED.real());
      mpf_set_d(m->v[1], SEED.imag());
      realm->info.c = m;
      attachhpv(m);
      env = adde(c, m->v[0], m->v[1], 128);
      for (int s = 0; s < LEVEL; s++) anchorlevel(realm, s, m, env);
      adjustjuliastack(c, realm, LEVEL - 1, false);
    });
    waitfor([&] { return atomicload(&realm->readyjuliastack) >= LEVEL - 1; });
    e.waitidle();
    e.onmain([&](OVCONTEXT* c) {
      a = areaof(c);
      std::complex<long double> corner = areacorner(a);
      cf = cHFld(complexld(corner.real(), corner.imag()));
      a->channels = CHANNELS;
      a->priority = 1;
      expected = lookups(c);
    });
  }
  ~SCENE() {
    e.waitidle();
    e.onmain([&](OVCONTEXT* c) {
      stopjuliastackcomputation(c, realm);
      detache(c, env);
      detachhpv(c, m);
    });
    e.waitidle();
    detachrealm(e.context, realm);
    e.onmain([](OVCONTEXT*) {});
  }
  // The realm's area whose pixels have the level's size, at 0 and up.
  AREA* areaof(OVCONTEXT* c) {
    int depth = c->juliasizeshift - 6 + LEVEL;
    long double px = 1e-6L;
    AREA* at = realm->top;
    while (at->depth < depth) {
      subdivide(c, at);
      AREA* next = nullptr;
      for (AREA* k : at->child) {
        std::complex<long double> corner = areacorner(k);
        long double side = areaside(k);
        if (corner.real() <= px && px < corner.real() + side && corner.imag() <= px &&
            px < corner.imag() + side)
          next = k;
      }
      EXPECT_NE(next, nullptr);
      if (!next) return at;
      at = next;
    }
    EXPECT_EQ(areacorner(at), std::complex<long double>(0, 0));
    return at;
  }
  // Each pixel of the area through the cubic and then through the stack.
  std::vector<PREPIXEL> lookups(OVCONTEXT* c) {
    HFLOATCOMPLEX t[4];
    onestep(t);
    std::vector<PREPIXEL> px(NPREPIXEL);
    bypass(c, LEVEL - 1, a->depth, cf, px.data(), t, 1);
    for (PREPIXEL& p : px)
      if (p.depth >= 0) p = juliastacklookup(c, realm, p.depth, p.x, p.y, p.iter, LEVEL - 1);
    return px;
  }
  // The job for the area, as a caller posts it (not dispatched).
  WORKER* job(OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_bypass2);
    EXPECT_NE(w, nullptr);
    HFLOATCOMPLEX t[4];
    onestep(t);
    w->idata[BYPASS_LEVEL] = LEVEL;
    w->idata[BYPASS_DEPTH] = a->depth;
    w->idata[BYPASS_ITER] = 1;
    w->idata[BYPASS_X] = 0;
    w->idata[BYPASS_Y] = 0;
    w->idata[BYPASS_MAXLEVEL] = LEVEL - 1;
    w->hdata[BYPASS_CF] = cf;
    for (int k = 0; k < 4; k++) w->hdata[BYPASS_TAYLOR + k] = t[k];
    w->pdata[BYPASS_TILE] = nullptr;
    w->pdata[BYPASS_REALM] = realm;
    attachrealm(realm);
    w->pdata[BYPASS2_AREA] = a;
    w->prepixels = nullptr;
    w->prio = 0;
    return w;
  }
  bool hasChannels() {
    bool done = false;
    e.onmain([&](OVCONTEXT*) {
      done = a->texture[CHANNEL_COUNT] && !a->worker && !(a->flags & A_INPPPROGRAM);
    });
    return done;
  }
  // The plain count of the area's pixel k from its exact start: the step
  // before |z|^2 passes 4, as the kernels count.
  int plaincount(int k) const {
    long double side = areaside(a) / PREPIXELTILESIZE;
    std::complex<long double> corner = areacorner(a);
    std::complex<long double> z(corner.real() + ((k % PREPIXELTILESIZE) + 0.5L) * side,
                                corner.imag() + ((k / PREPIXELTILESIZE) + 0.5L) * side);
    const std::complex<long double> c(SEED.real(), SEED.imag());
    for (int n = 0; n < 1000000; n++) {
      std::complex<long double> z1 = z * z + c;
      if (std::norm(z1) > 4) return n;
      z = z1;
    }
    return -1;
  }
  // The area's channels against the lookups through the stack: a pixel
  // takes its lookup's end, or, where a level's pixel on its way sat on a
  // change of count, went on from its own place and has the plain count of
  // its start (within 1). `fromplace` counts the second kind, `wrong` the
  // pixels that are neither.
  struct DIFF {
    int fromplace = 0, wrong = 0;
  };
  DIFF differing() {
    DIFF d;
    e.onmain([&](OVCONTEXT*) {
      const float* count = static_cast<const float*>(a->texture[CHANNEL_COUNT]->pixels);
      const float* x = static_cast<const float*>(a->texture[CHANNEL_VALUEX]->pixels);
      const float* y = static_cast<const float*>(a->texture[CHANNEL_VALUEY]->pixels);
      for (int k = 0; k < NPREPIXEL; k++) {
        const PREPIXEL& p = expected[k];
        if (count[k] == static_cast<float>(p.iter) && x[k] == p.x && y[k] == p.y) continue;
        d.fromplace++;
        if (std::abs(count[k] - static_cast<float>(plaincount(k))) > 1) d.wrong++;
      }
    });
    printf("  %d pixels from their places, %d of them off their plain count\n", d.fromplace, d.wrong);
    return d;
  }
};

}  // namespace

TEST(Bypass2, AnAreasPixelsGoThroughTheCubicAndTheStackIntoItsChannels) {
  SCENE s;
  int buffers = 0;
  s.e.onmain([&](OVCONTEXT* c) {
    buffers = atomicload(&c->iprepixels);
    ASSERT_EQ(s.a->texture[CHANNEL_COUNT], nullptr);
    // The cubic sends pixels on into levels 1 and 2, not straight out.
    int inside = 0;
    for (const PREPIXEL& p : s.expected) inside += p.iter > 1 || p.iter < 0;
    EXPECT_GT(inside, NPREPIXEL / 2);
    WORKER* w = s.job(c);
    s.a->worker = w;
    dispatch(c, w);
  });
  waitfor([&] { return s.hasChannels(); });
  SCENE::DIFF d = s.differing();
  EXPECT_GT(d.fromplace, 0);
  EXPECT_LE(d.wrong, NPREPIXEL / 200);
  s.e.waitidle();
  s.e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(s.a->prepixels, nullptr);
    EXPECT_EQ(s.a->jst, LEVEL - 1);  // its pixels named the levels below only
    // The buffer it took is free again.
    EXPECT_LE(atomicload(&c->iprepixels), buffers + 1);
    PREPIXELS* p = addprepixels(c);
    EXPECT_NE(p, nullptr);
    removeprepixels(c, p);
  });
}

namespace {

// The one worker parked for a pixel buffer, taken off the waiting list and
// put back; NULL when none waits.
WORKER* parked(OVCONTEXT* c) {
  WORKER* w = static_cast<WORKER*>(atomicfifodequeue(&c->areawaitingforprepixel, offsetof(WORKER, nextonstack)));
  if (w) waitforprepixels(c, w);
  return w;
}

// Every free pixel buffer and every one that may still be made, taken.
std::vector<PREPIXELS*> takeallbuffers(OVCONTEXT* c) {
  std::vector<PREPIXELS*> taken;
  while (PREPIXELS* p = addprepixels(c)) taken.push_back(p);
  return taken;
}

}  // namespace

TEST(Bypass2, WithoutAFreeBufferTheJobWaitsAndRunsWhenOneIsGivenBack) {
  SCENE s;
  std::vector<PREPIXELS*> taken;
  WORKER* w = nullptr;
  s.e.onmain([&](OVCONTEXT* c) {
    taken = takeallbuffers(c);
    ASSERT_FALSE(taken.empty());
    w = s.job(c);
    s.a->worker = w;
    dispatch(c, w);
  });
  // It found none on its worker and waits, with the area untouched.
  waitfor([&] {
    WORKER* p = nullptr;
    s.e.onmain([&](OVCONTEXT* c) { p = parked(c); });
    return p != nullptr;
  });
  s.e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(parked(c), w);
    EXPECT_EQ(w->prepixels, nullptr);
    EXPECT_EQ(s.a->texture[CHANNEL_COUNT], nullptr);
    EXPECT_EQ(s.a->prepixels, nullptr);
    EXPECT_EQ(s.a->worker, w);
    // One buffer back: the job takes it and runs.
    removeprepixels(c, taken.back());
    taken.pop_back();
    EXPECT_EQ(parked(c), nullptr);
  });
  waitfor([&] { return s.hasChannels(); });
  SCENE::DIFF d = s.differing();
  EXPECT_GT(d.fromplace, 0);
  EXPECT_LE(d.wrong, NPREPIXEL / 200);
  s.e.waitidle();
  s.e.onmain([&](OVCONTEXT* c) {
    // The buffer it used is free again: one can be had while all the others
    // are still held.
    PREPIXELS* p = addprepixels(c);
    EXPECT_NE(p, nullptr);
    if (p) taken.push_back(p);
    for (PREPIXELS* b : taken) removeprepixels(c, b);
  });
}

TEST(Bypass2, AJobStoppedBeforeItStartsOnlyGoesHome) {
  SCENE s;
  int buffers = 0, count = 0;
  s.e.onmain([&](OVCONTEXT* c) {
    buffers = atomicload(&c->iprepixels);
    count = atomicload(&s.realm->count);
    WORKER* w = s.job(c);
    atomicstore(&w->stop, true);
    dispatch(c, w);
  });
  s.e.waitidle();
  s.e.onmain([&](OVCONTEXT* c) {
    // No buffer was made for it, nothing reached the area, the realm is
    // given back.
    EXPECT_EQ(atomicload(&c->iprepixels), buffers);
    EXPECT_EQ(s.a->prepixels, nullptr);
    EXPECT_EQ(s.a->texture[CHANNEL_COUNT], nullptr);
    EXPECT_FALSE(s.a->flags & (A_INPPPROGRAM | A_PRECALCULATED));
    EXPECT_EQ(atomicload(&s.realm->count), count);
  });
}

TEST(Bypass2, AJobWaitingForABufferGoesHomeAtShutdown) {
  SCENE s;
  std::vector<PREPIXELS*> taken;
  int count = 0;
  s.e.onmain([&](OVCONTEXT* c) {
    taken = takeallbuffers(c);
    count = atomicload(&s.realm->count);
    WORKER* w = s.job(c);
    s.a->worker = w;
    dispatch(c, w);
  });
  waitfor([&] {
    WORKER* p = nullptr;
    s.e.onmain([&](OVCONTEXT* c) { p = parked(c); });
    return p != nullptr;
  });
  OVCONTEXT* c = s.e.context;
  shutdowncontext(c, false);
  EXPECT_EQ(atomicload(&c->iworkerall), 0);
  EXPECT_EQ(parked(c), nullptr);
  EXPECT_EQ(s.a->texture[CHANNEL_COUNT], nullptr);
  EXPECT_EQ(s.a->prepixels, nullptr);
  EXPECT_EQ(atomicload(&s.realm->count), count);
  // The buffers held here were never freed by the stop.
  for (PREPIXELS* b : taken) removeprepixels(c, b);
  ASSERT_TRUE(relaunchcontext(c));
  s.e.onmain([&](OVCONTEXT*) { s.a->worker = nullptr; });
}

TEST(Bypass2, AJobStoppedWhileItWaitsPassesTheNextBufferOnAndGoesHome) {
  SCENE s;
  std::vector<PREPIXELS*> taken;
  int count = 0;
  s.e.onmain([&](OVCONTEXT* c) {
    taken = takeallbuffers(c);
    ASSERT_FALSE(taken.empty());
    count = atomicload(&s.realm->count);
    WORKER* w = s.job(c);
    s.a->worker = w;
    dispatch(c, w);
  });
  waitfor([&] {
    WORKER* p = nullptr;
    s.e.onmain([&](OVCONTEXT* c) { p = parked(c); });
    return p != nullptr;
  });
  s.e.onmain([&](OVCONTEXT* c) {
    // The area is dropped while its job waits: the job is stopped.
    resetarea(c, s.a, true);
    EXPECT_EQ(s.a->worker, nullptr);
    removeprepixels(c, taken.back());
    taken.pop_back();
  });
  s.e.waitidle();
  s.e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(parked(c), nullptr);
    EXPECT_EQ(s.a->texture[CHANNEL_COUNT], nullptr);
    EXPECT_EQ(s.a->prepixels, nullptr);
    EXPECT_FALSE(s.a->flags & (A_INPPPROGRAM | A_PRECALCULATED));
    EXPECT_EQ(atomicload(&s.realm->count), count);
    // The buffer it was handed is free again, with all others still held.
    PREPIXELS* p = addprepixels(c);
    EXPECT_NE(p, nullptr);
    if (p) taken.push_back(p);
    for (PREPIXELS* b : taken) removeprepixels(c, b);
  });
}
