// The engine object's life: sizing every pool from one memory budget at
// start, starting and stopping the threads, and the memory report.
//
// All memory is budgeted up front from `totalmemory`: the pools have fixed
// sizes derived from it and from constants, and what remains after them
// becomes the Julia cache. `initcontext` and `freecontext` run on the
// application's thread, before and after every other thread.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Mandelbrot.h"
#include "canvas/render.h"
#include "juliastack.h"
#include "pool.h"

namespace {

constexpr int ONSTACK = offsetof(WORKER, nextonstack);
constexpr int PREPIXELSONSTACK = offsetof(PREPIXELS, nextonstack);
constexpr int64_t GIB = 0x40000000;
constexpr size_t MAINSTACK = 0x400000;  // thread_main recurses through the area tree
constexpr int64_t JULIACACHEALL = 0x6000000000;  // a rest this large keeps the full cache
// One block of memory slots: 256 tiles.
constexpr int64_t JULIACACHEBLOCKBYTES = JULIACACHETILEBYTES << NMEMJULIACACHEBLOCKSIZESHIFT;

// Area records by budget; each step includes its upper limit.
int areapoolsize(int64_t totalmemory) {
  if (totalmemory <= 2 * GIB) return 200000;
  if (totalmemory <= 4 * GIB) return 400000;
  if (totalmemory <= 8 * GIB) return 1000000;
  return 2000000;
}

unsigned int prepixelspoolsize(int64_t totalmemory) {
  int64_t n = totalmemory / (12 * static_cast<int64_t>(sizeof(PREPIXELS)));
  return static_cast<unsigned int>(n < 4096 ? (n < 0 ? 0 : n) : 4096);
}

// One pool block, counted against the budget.
template <typename T>
bool allocblock(OVCONTEXT* context, T** block, size_t n, bool zero = false) {
  *block = static_cast<T*>(zero ? calloc(n, sizeof(T)) : malloc(n * sizeof(T)));
  context->mem_fixedmemtotal += static_cast<int64_t>(n * sizeof(T));
  return *block != nullptr;
}

void sizepools(OVCONTEXT* context, int ntexture, const char* tmpdirectory) {
  context->na = areapoolsize(context->totalmemory);
  context->ntexture = 2 * ntexture;
  context->nmemtexture = ntexture;
  context->njuliacache = NJULIACACHE;
  context->njuliacachefile = NJULIACACHE;
  context->nmemjuliacache = 262144;
  context->nnode = 262144;
  context->ntask = 1024;
  context->nworkerall = 65536;
  context->nprepixels = prepixelspoolsize(context->totalmemory);
  context->nhpvalue = 131072;
  snprintf(context->juliacachetmpfilename, sizeof context->juliacachetmpfilename,
           "%sjuliacache.data", tmpdirectory ? tmpdirectory : "");
  context->juliacachetmpfile = -1;
}

bool allocpools(OVCONTEXT* context) {
  size_t js = static_cast<size_t>(context->juliasize) * context->juliasize;
  if (!allocblock(context, &context->jsref, js)) return false;
  if (!allocblock(context, &context->jsnext, js)) return false;
  if (!allocblock(context, &context->a, context->na)) return false;
  if (!allocblock(context, &context->task, context->ntask)) return false;
  // Zeroed, so that the flags of records never handed out read as unused.
  if (!allocblock(context, &context->hpvalue, context->nhpvalue, true)) return false;
  if (!allocblock(context, &context->workerall, context->nworkerall)) return false;
  if (!allocblock(context, &context->texture, context->ntexture, true)) return false;
  if (!allocblock(context, &context->juliacache, context->njuliacache)) return false;
  if (!allocblock(context, &context->juliacachefile, context->njuliacachefile)) return false;
  // Pixel blocks are made on demand; their budget is set aside now.
  context->mem_fixedmemtotal += static_cast<int64_t>(context->nprepixels) * sizeof(PREPIXELS);
  return allocblock(context, &context->node, context->nnode);
}

void numberrecords(OVCONTEXT* context) {
  for (int i = 0; i < context->ntexture; i++) {
    TEXTURE* t = &context->texture[i];
    t->offset = static_cast<int64_t>(i) << 18;
    t->pixels = nullptr;
    t->texture = -1;
  }
  // A record owns no memory slot until the cache gives it one.
  for (int i = 0; i < context->njuliacache + context->njuliacachefile; i++) {
    JULIACACHE* jc = i < context->njuliacache ? &context->juliacache[i]
                                              : &context->juliacachefile[i - context->njuliacache];
    jc->ijuliacache = i;
    jc->flags = JCF_FREE;
    jc->_data = jc->data = nullptr;
    jc->file = nullptr;
    jc->count = jc->memcount = 0;
  }
}

void emptyqueues(OVCONTEXT* context) {
  for (FIFO* f : {&context->workerchain, &context->wworkergl, &context->wmain,
                  &context->wmainhelper, &context->computer, &context->prepixelschain,
                  &context->areawaitingforprepixel})
    initfifo(f);
  for (CHAIN* c : {&context->vpactivechain, &context->taskchain, &context->realmchain,
                   &context->achain, &context->texturechain, &context->texturememchain,
                   &context->juliacachememchain, &context->datadelchain, &context->hpdatadelchain,
                   &context->refdelchain, &context->rnode})
    initchain(c);
  memset(context->ijuliacacheprogram, 0, sizeof context->ijuliacacheprogram);
  memset(context->idleworker, 0, sizeof context->idleworker);
  context->ijuliacachepp = 0;
  context->idleworkermaxprio = -1;
}

// One worker thread per two canvases' worth of budget; the three fixed
// threads are always there.
void capthreads(OVCONTEXT* context) {
  int64_t cap = 3 + context->totalmemory / (2 * static_cast<int64_t>(sizeof(CANVAS0)));
  if (context->nthread > cap) context->nthread = static_cast<int>(cap);
}

void initgroups(OVCONTEXT* context) {
  for (int i = 0; i < context->nthread; i++) {
    context->threadcontext[i].context = context;
    context->threadcontext[i].thread = i;
    context->threadcontext[i].canvas = nullptr;
  }
  initgroup(&context->grmain, 1);
  initgroup(&context->grmainhelper, 1);
  initgroup(&context->grworker, context->nthread - 3);
  if (!hascontextflag(context, OVCONTEXT_TEXTURE_MEM)) initgroup(&context->grworkergl, 1);
  context->mem_fixedmemtotal += static_cast<int64_t>(context->nthread - 3) * sizeof(CANVAS0);
}

// Every priority starts with one dummy node, both head and tail.
void resetpriotable(OVCONTEXT* context) {
  for (int i = 0; i < context->nnode; i++) chaininsend(&context->rnode, &context->node[i].delchain);
  context->inode = 0;
  for (int p = 0; p < NWORKERPRIO; p++) {
    CHAIN* c = context->rnode.prev;
    chainrem(c);
    context->inode++;
    NODE* dummy = CHAINRECORD(c, NODE, delchain);
    dummy->next = nullptr;
    dummy->prev = nullptr;
    dummy->w = nullptr;
    context->workerprio[p][0] = dummy;
    context->workerprio[p][1] = dummy;
  }
  context->wworkermindepth = 0;
}

void resetpools(OVCONTEXT* context) {
  for (int i = 0; i < context->nworkerall; i++)
    atomicfifoenqueue(&context->workerchain, &context->workerall[i], ONSTACK);
  context->iworkerall = 0;
  resetpool(context->a, context->na, &context->ra);
  resetpool(context->task, context->ntask, &context->rtask);
  resetpool(context->hpvalue, context->nhpvalue, &context->rhpvalue, &HPVALUE::next);
  resetpool(context->texture, context->ntexture, &context->rtexture);
  resetpool(context->juliacache, context->njuliacache, &context->rjuliacache);
  resetpool(context->juliacachefile, context->njuliacachefile, &context->rjuliacachefile);
  context->ia = context->itask = context->ihpvalue = context->itexture = 0;
  context->ijuliacache = context->ijuliacachefile = 0;
  resetpriotable(context);
}

// The application's tile memory: one 256 KiB slice per tile. A free record
// may own storage, so these stay on the free list while they carry it.
void givetilememory(OVCONTEXT* context, void* texturedata) {
  char* base = static_cast<char*>(texturedata);
  for (int i = 0; i < context->nmemtexture && base; i++) {
    TEXTURE* t = &context->texture[i];
    t->pixels = base + (static_cast<size_t>(i) << 18);
    t->texture = i;
    chaininsend(&context->texturememchain, &t->memchain);
    context->itexturememchain++;
  }
}

// What remains of the budget after the pools becomes the Julia cache.
void budgetjuliacache(OVCONTEXT* context) {
  int64_t rest = context->totalmemory - context->mem_fixedmemtotal - context->mem_hpvalue -
                 context->mem_envrefdata -
                 static_cast<int64_t>(context->nprepixels) * sizeof(PREPIXELS);
  if (rest >= JULIACACHEALL) {
    context->nmemjuliacache = 262144;
  } else {
    int64_t blocks = rest / JULIACACHEBLOCKBYTES;
    context->nmemjuliacache = static_cast<unsigned int>((blocks < 1 ? 1 : blocks) * 256);
  }
  int side = context->juliasize / 256;
  int n = (static_cast<int>(context->nmemjuliacache) - context->njuliapp) / (side * side + 1);
  context->ncomputejuliastack = n < 10 ? n : 10;
}

bool startthread(OVCONTEXT* context, int i, void* (*proc)(void*), size_t minstack) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  size_t stack = 0;
  pthread_attr_getstacksize(&attr, &stack);
  if (stack < minstack) pthread_attr_setstacksize(&attr, minstack);
  bool ok = pthread_create(&context->thread[i], &attr, proc, &context->threadcontext[i]) == 0;
  pthread_attr_destroy(&attr);
  context->threadcontext[i].active = ok;
  return ok;
}

bool startthreads(OVCONTEXT* context) {
  for (THREADGROUP* g : {&context->grworker, &context->grmain, &context->grmainhelper,
                         &context->grworkergl})
    atomicstore(&g->stop, false);
  if (!startthread(context, 0, thread_main, MAINSTACK)) return false;
  bool glthread = !hascontextflag(context, OVCONTEXT_NO_GLTHREAD);
  if (glthread && !startthread(context, 1, thread_glworker, 0)) return false;
  if (!startthread(context, 2, thread_mainhelper, 0)) return false;
  for (int i = 3; i < context->nthread; i++) {
    // Only worker threads have canvases; the budget counted them at start.
    CANVAS0* canvas = static_cast<CANVAS0*>(malloc(sizeof(CANVAS0)));
    if (!canvas) return false;
    preinitcanvas(context, canvas);
    context->threadcontext[i].canvas = canvas;
    if (!startthread(context, i, thread_worker, 0)) return false;
  }
  return true;
}

void freecanvas(OVCONTEXT* context, int i) {
  CANVAS0* canvas = context->threadcontext[i].canvas;
  if (!canvas) return;
  postfreecanvas(context, canvas);
  free(canvas);
  context->threadcontext[i].canvas = nullptr;
}

// The views that were active before a stop come back on with their old
// priorities. The swap file is opened if it exists; a missing one is made at
// first need.
void worker_relaunch(OVCONTEXT* context, WORKER* worker) {
  for (CHAIN* l = context->vpactivechain.next; l != &context->vpactivechain; l = l->next) {
    VIEWPORT* v = activeviewport(l);
    __activateviewport(context, v, v->oldpriority);
  }
  if (context->juliacachetmpfile < 0)
    context->juliacachetmpfile = open(context->juliacachetmpfilename, O_RDWR, 0600);
  freeworker(context, worker);
}

bool dispatchrelaunch(OVCONTEXT* context) {
  WORKER* worker = addworker(context, THREAD_MAIN, worker_relaunch);
  if (!worker) return false;
  dispatch(context, worker);
  return true;
}

void wakeall(THREADGROUP* group) {
  pthread_mutex_lock(&group->mutex);
  pthread_cond_broadcast(&group->cond);
  pthread_mutex_unlock(&group->mutex);
}

void join(OVCONTEXT* context, int i) {
  if (!context->threadcontext[i].active) return;
  pthread_join(context->thread[i], nullptr);
  context->threadcontext[i].active = false;
}

void clearlimbs(OVCONTEXT* context, HPVALUE* h) {
  context->mem_hpvalue -= hpvaluelimbbytes(h);
  mpf_clear(h->v[0]);
  mpf_clear(h->v[1]);
  h->flags &= ~HPV_LIMBS;
}

// Writes a tile's unwritten contents to its slot of the swap file, which is
// created (or emptied) the first time it is needed here.
void spilltile(OVCONTEXT* context, JULIACACHE* jc) {
  if (!juliaswapwrite(context, jc, jc->_data)) fputs("shutdowncontext: fatal I/O error.\n", stderr);
}

// A tile still locked holds a slot too; it goes out the same way, so that no
// record keeps a pointer into a freed block.
void swapoutlocked(OVCONTEXT* context, JULIACACHE* records, int n) {
  for (int i = 0; records && i < n; i++) {
    JULIACACHE* jc = &records[i];
    if (!jc->_data || (jc->flags & JCF_INMEMCHAIN)) continue;
    if ((jc->flags & JCF_DIRTY) && jc->data) spilltile(context, jc);
    jc->flags &= ~JCF_DIRTY;
    jc->_data = nullptr;
    jc->data = nullptr;
  }
}

// Every Julia tile in memory goes to the swap file, and the memory is given
// back: a stopped engine then holds no tile memory at all.
void swapoutjuliacache(OVCONTEXT* context) {
  swapoutlocked(context, context->juliacache, context->njuliacache);
  swapoutlocked(context, context->juliacachefile, context->njuliacachefile);
  CHAIN* head = &context->juliacachememchain;
  for (CHAIN* l = head->next; l != head; l = l->next) {
    JULIACACHE* jc = CHAINRECORD(l, JULIACACHE, memchain);
    if (!jc->_data) {
      fputs("shutdowncontext: FATAL ERROR: !jc->_data.\n", stderr);
    } else if (jc->flags & JCF_DIRTY) {
      spilltile(context, jc);
    }
    jc->flags &= ~(JCF_INMEMCHAIN | JCF_DIRTY);
    jc->_data = nullptr;
    jc->data = nullptr;
  }
  initchain(head);
  for (void*& block : context->juliacachedata) {
    free(block);
    block = nullptr;
  }
  context->imemjuliacache = 0;
  juliaswapclose(context);
}

// The count of blocks made falls with them, so a relaunched engine may make
// its blocks anew.
void freeprepixels(OVCONTEXT* context) {
  while (void* p = atomicfifodequeue(&context->prepixelschain, PREPIXELSONSTACK)) {
    free(p);
    atomicdecrementint(&context->iprepixels);
  }
}

}  // namespace

bool initcontext(OVCONTEXT* context, int64_t totalmemory, int nthread, int juliastacksizeshift,
                 int ntexture, void* texturedata, TEXTUREINITCALLBACK initcallback,
                 SIMPLECALLBACK donecallback, TEXTUREUPLOADCALLBACK textureuploadcallback,
                 SIMPLECALLBACK stringscallback, void* glthreadpdata, const char* tmpdirectory,
                 unsigned int flags) {
  mpf_init2(context->dsmall, 64);
  // Stopped until the threads run, so that a shutdown after a failed start
  // has nothing to stop.
  context->grmain.stop = true;
  context->totalmemory = totalmemory;
  context->nthread = nthread < NTHREADMAX ? nthread : NTHREADMAX;
  context->initcallback = initcallback;
  context->donecallback = donecallback;
  context->textureuploadcallback = textureuploadcallback;
  context->stringscallback = stringscallback;
  context->glthreadpdata = glthreadpdata;
  context->flags = flags;
  context->mem_fixedmemtotal = 0;
  context->serialcomputerbits = SERIALCOMPUTERBITS;
  context->mem_envrefdata = 0;
  context->mem_hpvalue = 0;

  context->juliasizeshift = juliastacksizeshift;
  context->juliasize = 1 << juliastacksizeshift;
  context->njuliapp = (context->juliasize / 256) * (context->juliasize / 256);
  context->njuliacacheprogram = context->njuliapp * 65536;
  if (!textureuploadcallback) context->flags |= OVCONTEXT_NO_GLTHREAD | OVCONTEXT_TEXTURE_MEM;

  // Canvases resolve their pixels against the Julia stack through this.
  juliacorrectphook = juliacorrectp;
  sizepools(context, ntexture, tmpdirectory);
  if (!allocpools(context)) return false;
  numberrecords(context);
  emptyqueues(context);
  capthreads(context);
  initgroups(context);
  resetpools(context);
  givetilememory(context, texturedata);
  if (!startthreads(context)) return false;
  budgetjuliacache(context);
  return dispatchrelaunch(context);
}

bool relaunchcontext(OVCONTEXT* context) {
  if (!atomicload(&context->grmain.stop)) return false;
  if (!startthreads(context)) return false;
  return dispatchrelaunch(context);
}

void shutdowncontext(OVCONTEXT* context, bool cachejc) {
  if (atomicload(&context->grmain.stop)) return;
  for (THREADGROUP* g : {&context->grworker, &context->grmain, &context->grmainhelper,
                         &context->grworkergl})
    atomicstore(&g->stop, true);
  wakeall(&context->grworker);
  wakeall(&context->grmainhelper);
  wakeall(&context->grmain);
  if (!hascontextflag(context, OVCONTEXT_NO_GLTHREAD)) wakeall(&context->grworkergl);
  join(context, 0);
  // The views stay known but are off; a relaunch brings them back.
  for (CHAIN* l = context->vpactivechain.next; l != &context->vpactivechain; l = l->next) {
    VIEWPORT* v = activeviewport(l);
    v->oldpriority = v->priority;
    v->priority = 0;
    __deactivateviewport(context, v, false);
  }

  // Pending corrections hold areas that the views' deactivation may reset.
  while (context->ijuliacachepp != 0) finishjuliacorrect(context);
  // A level's finishing job can run for long, and its level cannot become
  // ready without the threads: the queue goes home stopped.
  stopjuliastackworkers(context);
  join(context, 2);
  for (int i = 3; i < context->nthread; i++) {
    join(context, i);
    if (i > 3) freecanvas(context, i);
  }
  if (!hascontextflag(context, OVCONTEXT_NO_GLTHREAD)) join(context, 1);
  releaseprepixelwaiters(context);
  run(context);  // what is still queued runs to its end, on the canvas of index 3
  freecanvas(context, 3);
  for (int i = 0; i < context->nhpvalue; i++) {
    HPVALUE* h = &context->hpvalue[i];
    if ((h->flags & HPV_FREE) && (h->flags & HPV_LIMBS)) clearlimbs(context, h);
  }
  freeprepixels(context);
  if (cachejc) swapoutjuliacache(context);
}

void freecontext(OVCONTEXT* context) {
  shutdowncontext(context, false);
  for (int i = 0; context->hpvalue && i < context->nhpvalue; i++)
    if (context->hpvalue[i].flags & HPV_LIMBS) clearlimbs(context, &context->hpvalue[i]);
  mpf_clear(context->dsmall);
  freegroup(&context->grmain);
  freegroup(&context->grmainhelper);
  freegroup(&context->grworker);
  if (!hascontextflag(context, OVCONTEXT_TEXTURE_MEM)) freegroup(&context->grworkergl);
  for (void* block : {static_cast<void*>(context->a), static_cast<void*>(context->texture),
                      static_cast<void*>(context->juliacache),
                      static_cast<void*>(context->juliacachefile),
                      static_cast<void*>(context->workerall), static_cast<void*>(context->node),
                      static_cast<void*>(context->task), static_cast<void*>(context->jsref),
                      static_cast<void*>(context->jsnext), static_cast<void*>(context->hpvalue)})
    free(block);
  for (void*& block : context->juliacachedata) {
    free(block);
    block = nullptr;
  }
  if (context->juliacachetmpfile >= 0) close(context->juliacachetmpfile);
  context->juliacachetmpfile = -1;
}

void memdump(OVCONTEXT* context) {
  fprintf(stderr, "sizeof(OVCONTEXT): %zu\nsizeof(WORKER): %zu\nsizeof(NODE): %zu\n",
          sizeof(OVCONTEXT), sizeof(WORKER), sizeof(NODE));
  fprintf(stderr, "sizeof(AREA): %zu\nsizeof(REALM): %zu\nsizeof(TEXTURE): %zu\n", sizeof(AREA),
          sizeof(REALM), sizeof(TEXTURE));
  fprintf(stderr, "sizeof(HPVALUE): %zu\nsizeof(ENVIRONMENT): %zu\nsizeof(JULIACACHE): %zu\n",
          sizeof(HPVALUE), sizeof(ENVIRONMENT), sizeof(JULIACACHE));
  fprintf(stderr, "sizeof(PREPIXELS): %zu\n", sizeof(PREPIXELS));
  int withmemcount = 0, witharea = 0, shared = 0;
  for (int i = 0; i < context->ntexture; i++) {
    const TEXTURE* t = &context->texture[i];
    if (t->flags == T_FREE) continue;
    withmemcount += t->memcount != 0;
    witharea += t->area != nullptr;
    shared += t->area != nullptr && t->count > 1;
  }
  int blocks = 0;
  for (void* block : context->juliacachedata) blocks += block != nullptr;
  fprintf(stderr, "iprepixels: %i\n", context->iprepixels);
  fprintf(stderr, "ntexture: %i\n", context->ntexture);
  fprintf(stderr, "itexture: %i\n", context->itexture);
  fprintf(stderr, "itexturememchain: %i\n", context->itexturememchain);
  fprintf(stderr, "itexturedelchain: %i\n", context->itexturedelchain);
  fprintf(stderr, "textures with memcount: %i\n", withmemcount);
  fprintf(stderr, "textures with area: %i\n", witharea);
  fprintf(stderr, "textures with iareaprio: %i\n", shared);
  fprintf(stderr, "ijuliacache: %i\n", context->ijuliacache);
  fprintf(stderr, "ihpvalue: %i\n", context->ihpvalue);
  fprintf(stderr, "ienvironment: %i\n", context->ienvironment);
  fprintf(stderr, "ia: %i\n", context->ia);
  fprintf(stderr, "achainlen: %i\n", context->achainlen);
  fprintf(stderr, "imemjuliacache: %i\n", context->imemjuliacache);
  fprintf(stderr, "nmemjuliacache: %i\n", context->nmemjuliacache);
  fprintf(stderr, "memjuliacache: %lli\n",
          static_cast<long long>(context->imemjuliacache) * JULIACACHETILEBYTES);
  fprintf(stderr, "mem_envrefdata: %lld\n", static_cast<long long>(context->mem_envrefdata));
  fprintf(stderr, "mem_hpvalue: %lld\n", static_cast<long long>(context->mem_hpvalue));
  fprintf(stderr, "mem_fixedmemtotal: %lld\n", static_cast<long long>(context->mem_fixedmemtotal));
  fprintf(stderr, "ncomputejuliastack: %i\n", context->ncomputejuliastack);
  fprintf(stderr, "NMEMJULIACACHEBLOCKSIZE: %lli\n", static_cast<long long>(JULIACACHEBLOCKBYTES));
  fprintf(stderr, "jcblock: %lli\n", static_cast<long long>(blocks));
}
