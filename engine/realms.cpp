// Realms: their life by reference count, their creation and copy through the
// main thread, and the top of their tree.
//
// A realm may be made, copied, attached and detached from any thread: those
// calls touch only the atomic count and send a message. Everything else, the
// realm chain, the tree and the references the realm holds, is the main
// thread's, so the record's contents are set up and torn down there.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Mandelbrot.h"
#include "juliastack.h"

namespace {

// The tree's square is 16 wide. A Mandelbrot tree starts off the round
// numbers, so that 0 and the axes fall on no grid line down to the depth of
// the corner's last bit; a Julia tree is centred on 0.
constexpr double TOPCORNER = -7.989964666666666;
constexpr double JULIATOPCORNER = -8;
constexpr mp_bitcnt_t TOPPRECISION = 256;

bool stopped(OVCONTEXT* context) { return atomicload(&context->grmain.stop); }

// The record and the message that completes it on the main thread. The
// realm's contents beyond its type, flags and count are the main thread's to
// fill in.
REALM* newrealm(OVCONTEXT* context, REALMTYPE type, unsigned int flags, WORKERPROC proc,
                REALM* source) {
  if (stopped(context)) return nullptr;
  REALM* realm = static_cast<REALM*>(calloc(1, sizeof(REALM)));
  if (!realm) return nullptr;
  WORKER* worker = addworker(context, THREAD_MAIN, proc);
  if (!worker) {
    free(realm);
    return nullptr;
  }
  realm->type = type;
  realm->flags = flags;
  initchain(&realm->chain);
  initchain(&realm->bypassjc);
  atomicstore(&realm->count, 2);
  worker->pdata[0] = realm;
  worker->pdata[1] = source;
  if (source) attachrealm(source);
  dispatch(context, worker);
  return realm;
}

}  // namespace

REALM* addrealm(OVCONTEXT* context, REALMTYPE type) {
  return newrealm(context, type, R_DEFAULT, worker_realm_init, nullptr);
}

REALM* copyrealm(OVCONTEXT* context, REALM* realm) {
  return newrealm(context, realm->type, realm->flags, worker_realm_copy, realm);
}

void attachrealm(REALM* realm) { atomicincrementint(&realm->count); }

void detachrealm(OVCONTEXT* context, REALM* realm) {
  if (!realm || stopped(context)) return;
  WORKER* worker = addworker(context, THREAD_MAIN, worker_realm_detach);
  if (!worker) return;
  worker->pdata[0] = realm;
  dispatch(context, worker);
}

void __detachrealm(OVCONTEXT* context, REALM* realm) {
  if (atomicdecrementint(&realm->count) != 0) return;
  // Pending corrections may hold this realm and raise its count again,
  // which is why the count is read once more below.
  while (context->ijuliacachepp >= context->njuliapp && context->ijuliacachepp != 0)
    finishjuliacorrect(context);
  if (atomicload(&realm->count) != 0) return;
  __removerealm(context, realm);
  free(realm);
}

void __removerealm(OVCONTEXT* context, REALM* realm) {
  removea(context, realm->top);
  realm->top = nullptr;
  chainrem(&realm->chain);
  initchain(&realm->chain);
  detache(context, realm->e);
  realm->e = nullptr;
  __removetask(context, realm->jsttask);
  realm->jsttask = nullptr;
  detachhpv(context, realm->info.c);
  realm->info.c = nullptr;
  freejuliastack(context, realm);
}

void __createtop(OVCONTEXT* context, REALM* realm, bool withjulia) {
  memset(&realm->info, 0, sizeof realm->info);
  realm->computecycle = 0;
  realm->precoffset = 0;
  realm->e = nullptr;
  realm->jsttask = nullptr;
  realm->top = adda(context, nullptr, 0);
  AREA* top = realm->top;
  if (top) {
    top->realm = realm;
    top->computecycle = 0;
    top->hpvalue = addhpv(context, TOPPRECISION);
    if (top->hpvalue) {
      double corner = realm->type == JULIA ? JULIATOPCORNER : TOPCORNER;
      mpf_set_d(top->hpvalue->v[0], corner);
      mpf_set_d(top->hpvalue->v[1], corner);
      top->nhpvalue = 1;
    }
  }
  if (realm->type == JULIA && withjulia) {
    initjuliastack(context, realm);
    juliaprepare(context, realm, context->juliasizeshift - 3);
    realm->jsttask = __addtask(context, TASKTYPE_JST, 0);
  }
}

// A stopped message still gives back the reference it holds; the realm then
// stays without a top until its last detach.
void worker_realm_init(OVCONTEXT* context, WORKER* worker) {
  REALM* realm = static_cast<REALM*>(worker->pdata[0]);
  if (!worker->stop) {
    chaininsbegin(&context->realmchain, &realm->chain);
    __createtop(context, realm, true);
  }
  __detachrealm(context, realm);
  freeworker(context, worker);
}

void worker_realm_copy(OVCONTEXT* context, WORKER* worker) {
  REALM* realm = static_cast<REALM*>(worker->pdata[0]);
  REALM* source = static_cast<REALM*>(worker->pdata[1]);
  if (!worker->stop) {
    chaininsbegin(&context->realmchain, &realm->chain);
    __createtop(context, realm, false);
    realm->info = source->info;
    if (realm->info.c) attachhpv(realm->info.c);
    realm->e = source->e;
    if (realm->e) attache(realm->e);
    if (realm->type == JULIA) {
      copyjuliastack(context, realm, source);
      juliaprepare(context, realm, context->juliasizeshift - 3);
      realm->jsttask = __addtask(context, TASKTYPE_JST, 0);
    }
  }
  __detachrealm(context, source);
  __detachrealm(context, realm);
  freeworker(context, worker);
}

// A stopped detach is still a detach: the reference goes either way.
void worker_realm_detach(OVCONTEXT* context, WORKER* worker) {
  __detachrealm(context, static_cast<REALM*>(worker->pdata[0]));
  freeworker(context, worker);
}
