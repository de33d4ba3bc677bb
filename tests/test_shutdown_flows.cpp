// Shutdown in the middle of work: an idle run of a general view whose budget
// never ends it, the idle run of a Julia view, and levels of several Julia
// stacks queued for the one level-finishing worker. Each time the engine
// stops, every message goes home and gives back what it held, and a
// relaunched engine carries on from a sound state.
#include <thread>

#include "flowstest.h"

using namespace flowstest;

namespace {

HFLOATCOMPLEX zoomof(int exponent) { return cHF(ldexpHF(HFd(1.0), exponent), ZEROH); }

// What a stopped engine must hold of the idle search: no run, no record of
// one, no message.
void expectnorun(OVCONTEXT* c, VIEWPORT* v) {
  EXPECT_FALSE(v->flags & (VP_IDLE | VP_IDLEPAUSE | VP_IDLESTOP));
  EXPECT_EQ(v->idle_standard, nullptr);
  EXPECT_EQ(v->idle_task, nullptr);
  EXPECT_EQ(v->idle_worker, nullptr);
  EXPECT_EQ(v->idle_delta, nullptr);
  EXPECT_EQ(atomicload(&c->iworkerall), 0);
  EXPECT_EQ(atomicload(&c->computertotalwidth), 0);
}

std::atomic<bool> holding{false};

// Keeps the one worker thread busy until the engine stops.
void worker_hold(OVCONTEXT* context, WORKER* worker) {
  holding.store(true);
  while (!atomicload(&context->grworker.stop)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  freeworker(context, worker);
}

void hold(TileEngine& e) {
  holding.store(false);
  e.onmain([](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_WORKER, worker_hold);
    w->prio = 0;
    dispatch(c, w);
  });
  waitfor([] { return holding.load(); });
}

}  // namespace

TEST(ShutdownFlows, AGeneralViewsEndlessIdleRunEndsAndGivesBackWhatItHeld) {
  GENERALVIEW g;
  // The start view's centre 0 never escapes: its nucleus of period 1 is
  // known after the first run, and the orbit then goes on for ever.
  g.waitfinish(1);
  waitfor([&] {
    bool rest = false;
    g.e.onmain([&](OVCONTEXT*) { rest = !(g.v->flags & (VP_IDLE | VP_MOVING)); });
    return rest;
  });
  POOLCOUNTS before{};
  ENVIRONMENT* standard = nullptr;
  g.e.onmain([&](OVCONTEXT* c) {
    before = poolcounts(c);
    // A budget of its own: nothing but a stop ends this run.
    g.v->idle_maxiter = 0x3FFFFFFE;
    idlestart(c, g.v);
    ASSERT_TRUE(g.v->flags & VP_IDLE);
    standard = g.v->idle_standard;
  });
  ASSERT_NE(standard, nullptr);
  waitfor([&] {
    ITER n = 0;
    g.e.onmain([&](OVCONTEXT*) { n = g.v->idle_iter; });
    return n >= 8 * NCOMPUTERSTRETCH;
  });
  shutdowncontext(g.e.context, false);
  OVCONTEXT* c = g.e.context;
  expectnorun(c, g.v);
  POOLCOUNTS after = poolcounts(c);
  EXPECT_EQ(g.v->idle_iter % NCOMPUTERSTRETCH, 0);  // it ended at a stretch's end
  // The stopped orbit was let go with its arrays and task; the view keeps
  // the environments it had.
  EXPECT_EQ(after, (POOLCOUNTS{0, before.ienvironment, before.ihpvalue, before.itask,
                               before.mem_envrefdata}));
  EXPECT_NE(g.v->enonsat, standard);
  EXPECT_FALSE(g.julia->flags & R_IDLE);
  ASSERT_TRUE(relaunchcontext(c));
  int finishes = g.count.finish.load();
  // Back on, the view scans and completes again.
  redraw(c, g.v);
  g.waitfinish(finishes + 1);
}

TEST(ShutdownFlows, AMoveWhoseScanWaitsWithTheStoppedRunsEndParkedBehindItEndsAtShutdown) {
  GENERALVIEW g;
  g.waitfinish(1);
  waitfor([&] {
    bool rest = false;
    g.e.onmain([&](OVCONTEXT*) { rest = !(g.v->flags & (VP_IDLE | VP_MOVING)); });
    return rest;
  });
  POOLCOUNTS before{};
  g.e.onmain([&](OVCONTEXT* c) {
    before = poolcounts(c);
    g.v->idle_maxiter = 0x3FFFFFFE;
    idlestart(c, g.v);
  });
  // The worker thread is busy: the scan's run of the moved centre waits in
  // the queue, the view stays moving, and the run that the move stopped
  // (its graph is served by the main thread as well) parks its end.
  hold(g.e);
  moveto(g.e, g.v, "0.001", "0", zoomof(2), 64);
  waitfor([&] {
    bool parked = false;
    g.e.onmain([&](OVCONTEXT*) {
      parked = (g.v->flags & VP_MOVING) && g.v->movemsg && g.v->movemsg->workerproc == worker_idlefinish;
    });
    return parked;
  });
  shutdowncontext(g.e.context, false);
  OVCONTEXT* c = g.e.context;
  expectnorun(c, g.v);
  EXPECT_FALSE(g.v->flags & VP_MOVING);
  EXPECT_EQ(g.v->movemsg, nullptr);
  POOLCOUNTS after = poolcounts(c);
  EXPECT_EQ(after, (POOLCOUNTS{0, before.ienvironment, after.ihpvalue, before.itask,
                               before.mem_envrefdata}));
  ASSERT_TRUE(relaunchcontext(c));
  int finishes = g.count.finish.load();
  redraw(c, g.v);
  g.waitfinish(finishes + 1);
}

TEST(ShutdownFlows, AJuliaViewsIdleRunEndsAndGivesBackWhatItHeld) {
  JULIAVIEW j({0.1, 0}, false);
  const int DEEP = 2000;
  moveto(j.e, j.v, "0.3", "0", zoomof(DEEP), DEEP + 100);
  POOLCOUNTS before{};
  j.e.onmain([&](OVCONTEXT* c) { before = poolcounts(c); });
  activateviewport(j.e.context, j.v, 1);
  bool inflight = false;
  waitfor([&] {
    bool go = false;
    j.e.onmain([&](OVCONTEXT*) {
      inflight = (j.v->flags & VP_IDLE) && j.v->idle_worker;
      go = !inflight || j.v->idle_iter >= 2 * 512;
    });
    return go;
  });
  ASSERT_TRUE(inflight) << "the view started no idle run";
  shutdowncontext(j.e.context, false);
  OVCONTEXT* c = j.e.context;
  expectnorun(c, j.v);
  EXPECT_EQ(j.v->idle_m, nullptr);
  EXPECT_EQ(j.v->enonsat, nullptr);  // a stopped run's orbit is never taken
  POOLCOUNTS after = poolcounts(c);
  // (The deep areas the view filed hold corners of their own: high-precision
  // values are not compared.)
  EXPECT_EQ(after, (POOLCOUNTS{0, before.ienvironment, after.ihpvalue, before.itask,
                               before.mem_envrefdata}));
  ASSERT_TRUE(relaunchcontext(c));
  // Out of the deep basin, so that the view's end does not wait for a long
  // run.
  moveto(j.e, j.v, "1.5", "0", zoomof(10), 128);
  j.waitrest();
}

TEST(ShutdownFlows, AJuliaViewsIdleRunThatNeverStartedGoesHomeAtShutdown) {
  JULIAVIEW j({0.1, 0}, false);
  const int DEEP = 2000;
  moveto(j.e, j.v, "0.3", "0", zoomof(DEEP), DEEP + 100);
  POOLCOUNTS before{};
  j.e.onmain([&](OVCONTEXT* c) { before = poolcounts(c); });
  // The one worker thread is busy: the run waits in the queue.
  hold(j.e);
  activateviewport(j.e.context, j.v, 1);
  j.e.onmain([&](OVCONTEXT*) {
    EXPECT_TRUE(j.v->flags & VP_IDLE);
    EXPECT_NE(j.v->idle_worker, nullptr);
    EXPECT_EQ(j.v->idle_iter, 0);
  });
  shutdowncontext(j.e.context, false);
  OVCONTEXT* c = j.e.context;
  expectnorun(c, j.v);
  EXPECT_EQ(j.v->idle_m, nullptr);
  EXPECT_EQ(j.v->enonsat, nullptr);
  // Stopped before it began: not one round was iterated.
  EXPECT_EQ(j.v->idle_iter, 0);
  POOLCOUNTS after = poolcounts(c);
  EXPECT_EQ(after, (POOLCOUNTS{0, before.ienvironment, after.ihpvalue, before.itask,
                               before.mem_envrefdata}));
  ASSERT_TRUE(relaunchcontext(c));
  moveto(j.e, j.v, "1.5", "0", zoomof(10), 128);
  j.waitrest();
}

// ---------------------------------------------------------------- the stack's queue

namespace {

constexpr int NREALMS = 3;

struct STACKS {
  enginetest::Engine e{4};
  REALM* realm[NREALMS];
  HPVALUE* m[NREALMS];
  ENVIRONMENT* env[NREALMS];

  STACKS() {
    for (int k = 0; k < NREALMS; k++) {
      realm[k] = addrealm(e.context, JULIA);
      EXPECT_NE(realm[k], nullptr);
    }
    e.onmain([&](OVCONTEXT* c) {
      for (int k = 0; k < NREALMS; k++) {
        realm[k]->flags = R_JULIACORRECT | R_PRECDOUBLE;
        m[k] = addhpv(c, 128);
        // Parameters outside the set: every start point leaves soon.
        mpf_set_d(m[k]->v[0], 0.5 + 0.05 * k);
        mpf_set_d(m[k]->v[1], 0.3);
        env[k] = adde(c, m[k]->v[0], m[k]->v[1], 128);
      }
    });
  }
  ~STACKS() {
    e.waitidle();
    e.onmain([&](OVCONTEXT* c) {
      for (int k = 0; k < NREALMS; k++) {
        stopjuliastackcomputation(c, realm[k]);
        detache(c, env[k]);
        detachhpv(c, m[k]);
      }
    });
    e.waitidle();
    for (REALM* r : realm) detachrealm(e.context, r);
    e.onmain([](OVCONTEXT*) {});
  }
  void anchor(int k, int s) { anchorlevel(realm[k], s, m[k], env[k]); }
  bool allready(int s) {
    for (REALM* r : realm)
      if (atomicload(&r->readyjuliastack) < s) return false;
    return true;
  }
};

int queuelength(OVCONTEXT* c) {
  int n = 0;
  for (WORKER* w = c->juliastackworker; w; w = w->nextother) n++;
  return n;
}

}  // namespace

TEST(ShutdownFlows, LevelsQueuedForTheFinishingWorkerAreAllReleased) {
  STACKS s;
  s.e.onmain([&](OVCONTEXT* c) {
    for (int k = 0; k < NREALMS; k++) {
      s.anchor(k, 0);
      adjustjuliastack(c, s.realm[k], 0, false);
    }
  });
  waitfor([&] { return s.allready(0); });
  s.e.waitidle();
  holding.store(false);
  s.e.onmain([&](OVCONTEXT* c) {
    // Levels 1 and 2 of each stack: the tile jobs go first, then the holder
    // takes the one worker thread, so the finishing workers the tiles'
    // returns post can only queue, and each level 2 waits for its level 1.
    for (int k = 0; k < NREALMS; k++) {
      s.anchor(k, 1);
      s.anchor(k, 2);
      s.realm[k]->priojuliastack = 2;  // wanted now: all at priority 0
      adjustjuliastack(c, s.realm[k], 2, false);
    }
    WORKER* holder = addworker(c, THREAD_WORKER, worker_hold);
    holder->prio = 0;
    dispatch(c, holder);
  });
  waitfor([&] {
    int n = 0;
    s.e.onmain([&](OVCONTEXT* c) { n = queuelength(c); });
    bool waiting = true;
    s.e.onmain([&](OVCONTEXT*) {
      for (REALM* r : s.realm) waiting = waiting && r->juliastack[2].jswait;
    });
    return holding.load() && n == NREALMS && waiting;
  });
  std::vector<WORKER*> queued;
  s.e.onmain([&](OVCONTEXT* c) {
    for (WORKER* w = c->juliastackworker; w; w = w->nextother) queued.push_back(w);
    for (int k = 0; k < NREALMS; k++) {
      const JULIASTACKDATA& L = s.realm[k]->juliastack[1];
      EXPECT_EQ(L.nworker, 0);
      EXPECT_NE(L.worker, nullptr);
      EXPECT_EQ(s.realm[k]->juliastack[2].nworker, 0);
      EXPECT_NE(s.realm[k]->juliastack[2].c[0][0], nullptr);
      EXPECT_EQ(atomicload(&s.realm[k]->readyjuliastack), 0);
    }
  });
  shutdowncontext(s.e.context, false);
  OVCONTEXT* c = s.e.context;
  // Every queued worker went home, stopped: none of the levels finished
  // while the engine stopped, and none keeps a worker, a snapshot or a lock.
  EXPECT_EQ(c->juliastackworker, nullptr);
  EXPECT_EQ(atomicload(&c->iworkerall), 0);
  for (int k = 0; k < NREALMS; k++) {
    REALM* r = s.realm[k];
    EXPECT_EQ(atomicload(&r->readyjuliastack), 0) << "realm " << k;
    EXPECT_EQ(r->calcjuliastack, 0) << "realm " << k;
    for (int l = 1; l <= 2; l++) {
      const JULIASTACKDATA& L = r->juliastack[l];
      EXPECT_EQ(L.worker, nullptr) << "realm " << k << " level " << l;
      EXPECT_EQ(L.c[0][0], nullptr) << "realm " << k << " level " << l;
      EXPECT_FALSE(L.jswait) << "realm " << k << " level " << l;
    }
    EXPECT_EQ(r->jstdforworker.m, nullptr) << "realm " << k;
    EXPECT_EQ(r->jstdforworker.e, nullptr) << "realm " << k;
    EXPECT_EQ(r->jstdforworker.c[0][0], nullptr) << "realm " << k;
    const JULIASTACKDATA& L0 = r->juliastack[0];
    ASSERT_NE(L0.c[0][0], nullptr) << "realm " << k;
    EXPECT_EQ(L0.c[0][0]->memcount, 0) << "realm " << k;
  }
  // Back on, the levels are asked for again and finish, one after another
  // through the same queue.
  ASSERT_TRUE(relaunchcontext(c));
  s.e.onmain([&](OVCONTEXT* ctx) {
    for (int k = 0; k < NREALMS; k++) adjustjuliastack(ctx, s.realm[k], 2, false);
  });
  waitfor([&] { return s.allready(2); });
  s.e.waitidle();
  s.e.onmain([&](OVCONTEXT* ctx) {
    EXPECT_EQ(ctx->juliastackworker, nullptr);
    for (REALM* r : s.realm) {
      EXPECT_EQ(r->juliastack[1].worker, nullptr);
      EXPECT_EQ(r->juliastack[2].worker, nullptr);
    }
  });
}
