// Mandelbrot.h: the engine's public interface: the engine object OVCONTEXT,
// the WORKER messages that are the only way threads speak to each other, the
// thread groups that serve them, and the tasks that report progress.
//
// Threads and ownership. `thread_main` alone changes the data model; it is
// fed by the FIFO `wmain`. `thread_mainhelper` runs long work from
// `wmainhelper`. The `thread_worker`s take their work from a table of 512
// priorities, most urgent first, each with a canvas of its own. The GL queue
// `wworkergl` is drained by the application's frame loop through
// `glworker_eventloop`. Anything may dispatch to the FIFO queues; only the
// main thread files into the priority table. Counts touched by several
// threads are atomic (`volatile` here); everything else in OVCONTEXT belongs
// to the main thread once the threads run.
//
// Nothing on the message path allocates or takes a lock, except to wake a
// sleeping thread.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "Array.h"
#include "mathext.h"
#include "matomic.h"

typedef int ITER;
typedef unsigned int UITER;

constexpr int NTHREADMAX = 256;
constexpr int NWORKERPRIO = 512;
constexpr int NWORKERPDATA = 18;
constexpr int NWORKERIDATA = 14;
constexpr int NWORKERHDATA = 9;
constexpr int NJULIAPPMAX = 64;
constexpr int NJULIACACHEPROGRAMMAX = 4194304;
constexpr int NJULIACACHE = 131072;
constexpr int NMEMJULIACACHEBLOCK = 1024;
constexpr int NMEMJULIACACHEBLOCKSIZESHIFT = 8;
constexpr int NCHANNELS = 9;
constexpr int MAXJULIASTACKSIZE = 8;

// A worker priority that files behind everything else.
constexpr int PRIO_LAST = 0x7fffffff;

// Pool records: `flags` of a free record.
constexpr uint32_t POOL_FREE = 2;

enum THREADGROUPID : int {
  THREAD_MAIN = 0,
  THREAD_GLWORKER = 1,
  THREAD_WORKER = 2,
  THREAD_MAINHELPER = 3,
};

// OVCONTEXT flags.
constexpr unsigned int OVCONTEXT_DIRTY = 1024;
constexpr unsigned int OVCONTEXT_RESET = 2048;
constexpr unsigned int OVCONTEXT_NO_GLTHREAD = 65536;
constexpr unsigned int OVCONTEXT_TEXTURE_MEM = 131072;
constexpr unsigned int OVCONTEXT_DORENDER = 524288;

struct OVCONTEXT;
struct WORKER;
struct CANVAS0;
struct PREPIXEL;
struct PREPIXELS;
struct AREA;
struct REALM;
struct TEXTURE;
struct HPVALUE;
struct JULIACACHE;

typedef void (*WORKERPROC)(OVCONTEXT* context, WORKER* worker);
typedef void (*SIMPLECALLBACK)(OVCONTEXT* context, void* pdata);
typedef void (*TEXTUREINITCALLBACK)(OVCONTEXT* context, int nmemtexture, void* pdata);
typedef void (*TEXTUREUPLOADCALLBACK)(OVCONTEXT* context, int texture, void* data, void* pdata);

// ---------------------------------------------------------------- WORKER

struct NODE {
  NODE* volatile next;
  NODE* volatile prev;
  WORKER* volatile w;
  CHAIN delchain;  // link on the free list `rnode`
};

struct WORKER {
  THREADGROUPID recipient;
  WORKERPROC workerproc;
  ITER idata[NWORKERIDATA];
  HFLOATCOMPLEX hdata[NWORKERHDATA];
  void* pdata[NWORKERPDATA];
  volatile bool stop;
  int prio;  // 0..511 or PRIO_LAST; -1 while unset
  volatile int processed;
  CANVAS0* canvas;
  PREPIXELS* prepixels;
  CHAIN chain;
  WORKER* volatile nextonstack;
  WORKER* volatile nextonglworker;
  WORKER* volatile nextonmainworker;
  WORKER* volatile nextonmainhelper;
  WORKER* volatile nextother;
  NODE* node;
};

struct THREADCONTEXT {
  OVCONTEXT* context;
  CANVAS0* canvas;  // worker threads only
  int thread;       // index in OVCONTEXT::thread
  bool active;
};

struct THREADGROUP {
  volatile int todo;
  int nthreads;
  volatile int ithreadscorrect;
  volatile int ithreads;
  volatile int icomputingthreads;
  volatile int icomputingthreadsdiff;
  bool computing[NTHREADMAX];
  volatile bool stop;
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  SPINLOCK spinlock;
};

// ---------------------------------------------------------------- TASK

enum TASKTYPE {
  TASKTYPE_ITER = 0,
  TASKTYPE_NEWTON = 1,
  TASKTYPE_JST = 2,
  TASKTYPE_IO = 3,
};

constexpr uint32_t TASK_LIVE = 1;

struct TASK {
  volatile int due;
  volatile int accomplished;
  TASKTYPE type;
  volatile ITER iter;
  CHAIN chain;
  TASK* nextrem;
  uint32_t flags;
};

// ---------------------------------------------------------------- OVCONTEXT
//
// Pools: `i...` records in use, `n...` capacity, `r...` next record to hand
// out; a pool is full one record short of its capacity.

struct OVCONTEXT {
  char juliacachetmpfilename[2048];
  int64_t totalmemory;
  int64_t mem_fixedmemtotal;
  volatile int64_t mem_envrefdata;
  int64_t mem_hpvalue;
  int ncomputejuliastack;
  int juliasizeshift, juliasize;
  int ijuliacacheprogram[262144][64];
  int juliacacheprogram[NJULIACACHEPROGRAMMAX][2];
  PREPIXEL* juliacachepp[NJULIAPPMAX];
  int ijuliacachepp;
  AREA* juliacachea[NJULIAPPMAX];
  REALM* juliacacherealm[NJULIAPPMAX];
  int juliacachejsti[NJULIAPPMAX];
  int njuliapp;
  int njuliacacheprogram;
  WORKER* juliastackworker;
  int* jsref;
  int* jsnext;
  mpf_t dsmall;
  volatile int imovingviewport;
  volatile int computertotalwidth;
  // Graphs at this precision or below run each stretch serially, lending no
  // thread; above it their nodes go to whichever thread is free.
  mp_bitcnt_t serialcomputerbits;

  FIFO workerchain;
  NODE* volatile workerprio[NWORKERPRIO][2];  // per priority: head, tail
  WORKER* idleworker[NWORKERPRIO];
  int idleworkermaxprio;

  CHAIN achain;
  int achainlen;
  CHAIN datadelchain, hpdatadelchain, refdelchain;

  TASK* task;
  int itask, ntask;
  TASK* rtask;
  AREA* a;
  int ia, na;
  AREA* ra;
  CHAIN taskchain, realmchain;
  HPVALUE* hpvalue;
  int ihpvalue, nhpvalue;
  HPVALUE* rhpvalue;
  TEXTURE* texture;
  int itexture, ntexture;
  TEXTURE* rtexture;
  int itexturememchain, itexturedelchain, nmemtexture;
  CHAIN texturechain, texturememchain;
  volatile int ienvironment;

  JULIACACHE* juliacache;
  int ijuliacache, njuliacache;
  JULIACACHE* rjuliacache;
  JULIACACHE* juliacachefile;
  int ijuliacachefile, njuliacachefile;
  JULIACACHE* rjuliacachefile;
  unsigned int imemjuliacache, nmemjuliacache;
  int juliacachetmpfile;
  void* juliacachedata[NMEMJULIACACHEBLOCK];
  CHAIN juliacachememchain;
  volatile int iprepixels;
  unsigned int nprepixels;
  FIFO prepixelschain, areawaitingforprepixel;

  NODE* node;
  int inode, nnode;
  CHAIN rnode;

  unsigned int flags;
  volatile int icomputer;

  TEXTUREUPLOADCALLBACK textureuploadcallback;
  TEXTUREINITCALLBACK initcallback;
  SIMPLECALLBACK donecallback;
  SIMPLECALLBACK stringscallback;
  void* glthreadpdata;

  WORKER* workerall;
  int nworkerall;
  volatile int iworkerall;
  int nthread;
  pthread_t thread[NTHREADMAX];
  THREADCONTEXT threadcontext[NTHREADMAX];
  volatile int wworkermindepth;
  FIFO wworkergl, wmain, wmainhelper;
  THREADGROUP grworker, grmain, grmainhelper, grworkergl;
  FIFO computer;
  CHAIN vpactivechain;
};

// The context's flags change on the main thread while others read them.
inline bool hascontextflag(OVCONTEXT* context, unsigned int flag) {
  return (atomicload(&context->flags) & flag) != 0;
}
inline void setcontextflag(OVCONTEXT* context, unsigned int flag) {
  __atomic_fetch_or(&context->flags, flag, __ATOMIC_SEQ_CST);
}
inline void clearcontextflag(OVCONTEXT* context, unsigned int flag) {
  __atomic_fetch_and(&context->flags, ~flag, __ATOMIC_SEQ_CST);
}

// ---------------------------------------------------------------- the context's life

bool initcontext(OVCONTEXT* context, int64_t totalmemory, int nthread, int juliastacksizeshift,
                 int ntexture, void* texturedata, TEXTUREINITCALLBACK initcallback,
                 SIMPLECALLBACK donecallback, TEXTUREUPLOADCALLBACK textureuploadcallback,
                 SIMPLECALLBACK stringscallback, void* glthreadpdata, const char* tmpdirectory,
                 unsigned int flags);
bool relaunchcontext(OVCONTEXT* context);
void shutdowncontext(OVCONTEXT* context, bool cachejc);
void freecontext(OVCONTEXT* context);
void memdump(OVCONTEXT* context);

// ---------------------------------------------------------------- workers and groups

WORKER* addworker(OVCONTEXT* context, THREADGROUPID recipient, WORKERPROC workerproc);
void freeworker(OVCONTEXT* context, WORKER* worker);
void dispatch(OVCONTEXT* context, WORKER* worker);
void dispatchprioworker(OVCONTEXT* context, WORKER* worker);
void __dispatchprioworker(OVCONTEXT* context, WORKER* worker);
void dispatchidle(OVCONTEXT* context, WORKER* worker);
void workeronchain(void* chain, WORKER* worker);
void changeprio(OVCONTEXT* context, WORKER* worker, int prio);
WORKER* getworkermainworker(OVCONTEXT* context);

void todo(THREADGROUP* group);
bool waitfortodo(OVCONTEXT* context, THREADGROUP* group, int thread);
void initgroup(THREADGROUP* group, int nthreads);
void freegroup(THREADGROUP* group);
void addcomputerwidth(OVCONTEXT* context, int width);
void removecomputerwidth(OVCONTEXT* context, int width);
int glworker_eventloop(OVCONTEXT* context, int* count);

void* thread_worker(void* ctxt);
void* thread_mainhelper(void* ctxt);
void* thread_glworker(void* ctxt);
void* thread_main(void* ctxt);

// ---------------------------------------------------------------- tasks and the main loop

TASK* __addtask(OVCONTEXT* context, TASKTYPE type, int due);
void __removetask(OVCONTEXT* context, TASK* task);
TASK* addtask(OVCONTEXT* context, TASKTYPE type, int due);
void removetask(OVCONTEXT* context, TASK* task);
void accomplish(TASK* task, int n, bool reset);
void idle(OVCONTEXT* context);
void run(OVCONTEXT* context);
void worker_nop(OVCONTEXT* context, WORKER* worker);

// The records the pools above hold. They come last: they use the constants
// and the forward declarations of this header.
#include "area.h"
#include "environment.h"
#include "juliacache.h"
#include "texture.h"
#include "canvas.h"
#include "viewport.h"
