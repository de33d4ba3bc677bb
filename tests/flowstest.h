// Views on a running engine for the tests of the idle runs, the stack's
// finishing queue and shutdown: a Julia view on a realm with a seed of its
// own, a general view with its Julia realm, the moves the scan sees, and the
// pool counters that must come back after a flow.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <complex>
#include <mutex>
#include <vector>

#include "idle.h"
#include "juliastack.h"
#include "test_viewport.h"

namespace flowstest {

using namespace viewporttest;

constexpr int RES = 256;

inline std::complex<double> pointof(const HPVALUE* h) {
  return {mpf_get_d(h->v[0]), mpf_get_d(h->v[1])};
}

// Every call of `movingstart`, with what the view showed at that moment; the
// scan itself still runs (the hook steps aside for the real call).
struct MOVINGSTART {
  bool idle;      // an idle run was in flight
  bool idlestop;  // and asked to stop
  ITER iter;      // the run's iterations so far
  std::complex<double> delta;
};

struct MOVINGSTARTS {
  std::mutex lock;
  std::vector<MOVINGSTART> calls;
  static MOVINGSTARTS*& current() {
    static MOVINGSTARTS* s = nullptr;
    return s;
  }
  static void hook(OVCONTEXT* c, VIEWPORT* v) {
    if (MOVINGSTARTS* s = current()) {
      std::lock_guard<std::mutex> g(s->lock);
      s->calls.push_back(MOVINGSTART{(v->flags & VP_IDLE) != 0, (v->flags & VP_IDLESTOP) != 0,
                                     v->idle_iter, v->delta ? pointof(v->delta) : 0.0});
    }
    // Main thread only: the real scan runs with the hook out of its way.
    idlehooks.movingstart = nullptr;
    movingstart(c, v);
    idlehooks.movingstart = hook;
  }
  MOVINGSTARTS() {
    current() = this;
    idlehooks.movingstart = hook;
  }
  ~MOVINGSTARTS() {
    idlehooks = IDLEHOOKS{};
    current() = nullptr;
  }
  std::vector<MOVINGSTART> since(size_t k) {
    std::lock_guard<std::mutex> g(lock);
    return std::vector<MOVINGSTART>(calls.begin() + static_cast<long>(std::min(k, calls.size())),
                                    calls.end());
  }
  size_t size() {
    std::lock_guard<std::mutex> g(lock);
    return calls.size();
  }
};

// The records a flow takes and must give back.
struct POOLCOUNTS {
  int iworkerall, ienvironment, ihpvalue, itask;
  int64_t mem_envrefdata;
  bool operator==(const POOLCOUNTS&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const POOLCOUNTS& k) {
  return os << "iworkerall " << k.iworkerall << " ienvironment " << k.ienvironment << " ihpvalue "
            << k.ihpvalue << " itask " << k.itask << " mem_envrefdata " << k.mem_envrefdata;
}

// Read on the main thread, or with the threads stopped.
inline POOLCOUNTS poolcounts(OVCONTEXT* c) {
  return POOLCOUNTS{atomicload(&c->iworkerall), atomicload(&c->ienvironment), c->ihpvalue, c->itask,
                    atomicload(&c->mem_envrefdata)};
}

// A Julia realm of parameter `seed` (no attractor given: its idle runs end
// by escape, by their budget or by a stop) with one active view.
struct JULIAVIEW {
  TileEngine e{96, false};
  REALM* realm;
  VIEWPORT* v;
  FINISHCOUNT count;

  // `active`: the view is turned on at once; otherwise the test does it,
  // after it has been moved where it wants it.
  explicit JULIAVIEW(std::complex<double> seed, bool active = true) {
    realm = newrealm(e, JULIA);
    e.onmain([&](OVCONTEXT* c) {
      realm->info.c = addhpv(c, 64);
      mpf_set_d(realm->info.c->v[0], seed.real());
      mpf_set_d(realm->info.c->v[1], seed.imag());
    });
    v = addviewport(e.context, realm, nullptr, RES, RES, countfinish, &count);
    EXPECT_NE(v, nullptr);
    e.onmain([&](OVCONTEXT*) { v->channels = 1 | 8; });
    if (active) activateviewport(e.context, v, 1);
  }
  ~JULIAVIEW() {
    waitrest();
    detachviewport(e.context, v);
    detachrealm(e.context, realm);
    e.onmain([](OVCONTEXT*) {});
  }
  bool atrest() {
    bool rest = false;
    e.onmain([&](OVCONTEXT*) { rest = !(v->flags & (VP_IDLE | VP_MOVING | VP_IDLESTOP)); });
    return rest;
  }
  void waitrest() { waitfor([&] { return atrest(); }); }
  void waitfinish(int n) { waitfor([&] { return count.finish.load() >= n; }); }
};

// A general realm's view with its Julia realm; COUNT and CALLBACK hear its
// finishing events.
template <typename COUNT = FINISHCOUNT, VPCALLBACK CALLBACK = countfinish>
struct GENERALVIEWOF {
  TileEngine e{96, false};
  REALM* realm;
  REALM* julia;
  VIEWPORT* v;
  COUNT count;

  GENERALVIEWOF() {
    realm = newrealm(e, GENERAL);
    julia = newrealm(e, JULIA);
    v = addviewport(e.context, realm, julia, RES, RES, CALLBACK, &count);
    EXPECT_NE(v, nullptr);
    e.onmain([&](OVCONTEXT*) { v->channels = 1 | 8; });
    activateviewport(e.context, v, 1);
  }
  ~GENERALVIEWOF() {
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

typedef GENERALVIEWOF<> GENERALVIEW;

// Level s of `realm` takes the parameter m with its environment e, each with
// a reference of its own: a level computed by canvas jobs.
inline void anchorlevel(REALM* realm, int s, HPVALUE* m, ENVIRONMENT* e) {
  JULIASTACKDATA* L = &realm->juliastack[s];
  attachhpv(m);
  L->m = m;
  attache(e);
  L->e = e;
  L->bypass = false;
  L->iter = 0;
  L->miter = 0;
  if (s > realm->maxjuliastack) realm->maxjuliastack = s;
}

// Sends the view to the exact point given in decimals at `zoom`.
inline void moveto(TileEngine& e, VIEWPORT* v, const char* re, const char* im, HFLOATCOMPLEX zoom,
                   mp_bitcnt_t bits) {
  mpf_t x, y;
  mpf_init2(x, bits);
  mpf_init2(y, bits);
  mpf_set_str(x, re, 10);
  mpf_set_str(y, im, 10);
  moveviewportabsolute(e.context, v, x, y, zoom, RES, RES);
  mpf_clear(x);
  mpf_clear(y);
}

}  // namespace flowstest
