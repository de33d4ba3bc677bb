// A running engine with one Julia realm whose stack levels the tests anchor
// by hand, and the plain orbit that the stack's answers are checked against.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <functional>
#include <thread>

#include "bypass.h"
#include "juliastack.h"

namespace jstacktest {

typedef std::complex<double> CD;

struct CALL {
  std::function<void(OVCONTEXT*)> fn;
  std::atomic<bool> done{false};
};

inline void worker_call(OVCONTEXT* context, WORKER* worker) {
  CALL* call = static_cast<CALL*>(worker->pdata[0]);
  call->fn(context);
  freeworker(context, worker);
  call->done.store(true);
}

inline void waitfor(const std::function<bool()>& cond) {
  while (!cond()) std::this_thread::sleep_for(std::chrono::microseconds(500));
}

struct JENGINE {
  OVCONTEXT* context;
  REALM* realm = nullptr;
  ENVIRONMENT* e = nullptr;
  HPVALUE* m = nullptr;
  CD seed;

  explicit JENGINE(int juliasizeshift, CD c) : seed(c) {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    EXPECT_TRUE(initcontext(context, int64_t(1) << 30, 4, juliasizeshift, 0, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, "/tmp/", 0));
    realm = addrealm(context, JULIA);
    onmain([&](OVCONTEXT* ctx) {
      realm->flags = R_JULIACORRECT | R_PRECDOUBLE;
      m = addhpv(ctx, 128);
      mpf_set_d(m->v[0], c.real());
      mpf_set_d(m->v[1], c.imag());
      realm->info.c = m;
      attachhpv(m);
      e = adde(ctx, m->v[0], m->v[1], 128);
    });
  }
  ~JENGINE() {
    waitidle();
    onmain([&](OVCONTEXT* ctx) {
      stopjuliastackcomputation(ctx, realm);
      detache(ctx, e);
      detachhpv(ctx, m);
    });
    waitidle();
    detachrealm(context, realm);
    onmain([](OVCONTEXT*) {});
    freecontext(context);
    free(context);
  }
  void onmain(std::function<void(OVCONTEXT*)> fn) {
    CALL call;
    call.fn = std::move(fn);
    WORKER* w = addworker(context, THREAD_MAIN, worker_call);
    ASSERT_NE(w, nullptr);
    w->pdata[0] = &call;
    dispatch(context, w);
    waitfor([&] { return call.done.load(); });
  }
  void waitidle() {
    waitfor([&] { return atomicload(&context->iworkerall) == 0; });
  }
  // Level s takes the seed: a canvas level, or a bypass level with the
  // series t of `iter` iterations.
  void anchor(OVCONTEXT* ctx, int s, bool bypass = false, const HFLOATCOMPLEX* t = nullptr, ITER iter = 0) {
    JULIASTACKDATA* L = &realm->juliastack[s];
    attachhpv(m);
    L->m = m;
    attache(e);
    L->e = e;
    L->bypass = bypass;
    L->iter = iter;
    for (int k = 0; k < 4; k++) L->taylorj[k] = t ? t[k] : CZEROH;
    L->miter = 0;
    if (s > realm->maxjuliastack) realm->maxjuliastack = s;
    (void)ctx;
  }
  int ready() { return atomicload(&realm->readyjuliastack); }
  // Waits until `cond`, read on the main thread, holds.
  void waitonmain(const std::function<bool()>& cond) {
    for (;;) {
      bool done = false;
      onmain([&](OVCONTEXT*) { done = cond(); });
      if (done) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  void waitready(int s) {
    waitfor([&] { return ready() >= s; });
    waitidle();
  }
};

// The plain count of a start point of the Julia set of c: the last step
// before |z|^2 passes 4, as the canvas counts; -1 when it stays.
inline int directcount(CD z, CD c, int limit) {
  for (int n = 0; n < limit; n++) {
    CD z1 = z * z + c;
    if (std::norm(z1) > 4) return n;
    z = z1;
  }
  return -1;
}

// The start point of pixel (i, j) of level s of a juliasize js picture,
// and its place in the level's units.
inline double placeof(int i, int js) { return (i + 0.5) * 4.0 / js - 2.0; }
inline CD startof(int i, int j, int s, int js) {
  return CD(std::ldexp(placeof(i, js), -s), std::ldexp(placeof(j, js), -s));
}

}  // namespace jstacktest
