// A Julia realm's stack built for a test on a running engine: the general
// realm with a hand-made view resting on a seed, its Julia realm, and the
// environment that defines the levels. The fixtures of the deep stack tests
// fill it in; the levels' kinds, their build with a deadline and the order of
// giving everything back are the same for all of them.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "juliastack.h"
#include "test_viewport.h"

namespace juliastackrun {

inline bool within(const std::function<bool()>& cond, int seconds) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

struct STACKRUN {
  viewporttest::TileEngine engine{16, false};
  REALM* general = nullptr;
  REALM* julia = nullptr;
  VIEWPORT* v = nullptr;
  ENVIRONMENT* e = nullptr;

  STACKRUN() {
    general = viewporttest::newrealm(engine, GENERAL);
    julia = viewporttest::newrealm(engine, JULIA, R_BYPASS | R_JULIACORRECT);
  }

  ~STACKRUN() {
    // Levels still in work (a build that ran out of time) are stopped first.
    engine.onmain([&](OVCONTEXT* c) {
      stopjuliastackcomputation(c, julia);
      adjustjuliastack(c, julia, -1, true);
    });
    enginetest::waitfor([&] { return atomicload(&engine.context->iworkerall) == 0; });
    engine.onmain([&](OVCONTEXT* c) {
      stopjuliastackcomputation(c, julia);
      adjustjuliastack(c, julia, -1, true);
      detache(c, e);
    });
    enginetest::waitfor([&] { return atomicload(&engine.context->iworkerall) == 0; });
    engine.onmain([&](OVCONTEXT* c) { __detachviewport(c, v); });
    detachrealm(engine.context, julia);
    detachrealm(engine.context, general);
    engine.onmain([](OVCONTEXT*) {});
  }

  // The kinds of the levels 0..S: '.' none, 'c' canvas, 'b' bypass.
  std::string kinds(int S) {
    std::string k;
    engine.onmain([&](OVCONTEXT*) {
      for (int s = 0; s <= S; s++) {
        const JULIASTACKDATA& L = julia->juliastack[s];
        k += !L.m ? '.' : L.bypass ? 'b' : 'c';
      }
    });
    return k;
  }

  // Computes levels 0..S; false when they do not all become ready.
  bool build(int S, int seconds) {
    engine.onmain([&](OVCONTEXT* c) { adjustjuliastack(c, julia, S, false); });
    return within([&] { return atomicload(&julia->readyjuliastack) >= S; }, seconds);
  }
};

}  // namespace juliastackrun
