// area.h: the area tree. A REALM is one fractal: its type, a quadtree of
// AREAs over a 16 x 16 square of the plane, and what all views of it share
// (iteration parameters, environment, Julia stack, mode flags). An AREA is
// one square of side 2^(4 - depth): the unit of calculation, the holder of up
// to NCHANNELS tiles, and what a view asks for. JULIASTACKDATA is one level
// of a realm's Julia stack, with JCBYPASSCHAIN, one entry per tile of the
// list of tiles that can be recomputed cheaply.
//
// Threads. Areas, realms and stack levels belong to the main thread. The
// exceptions: a realm's `count` is atomic, since messages from any thread
// hold references; `readyjuliastack` and `readyjuliastack2` are written after
// a fence and read by canvases on worker threads, which may then read every
// tile up to that level without a lock; an area's `worker` and `priority` are
// volatile because a running job is stopped through them. A worker finds its
// area through its message and reads nothing of it; the level-finishing worker
// reads only the snapshot `jstdforworker`.
//
// The records are layouts; the operations declared at the end live in
// realms.cpp (realms) and areas.cpp (the tree).
#pragma once

#include <cstdint>

#include "Array.h"
// Mandelbrot.h includes this header after its constants and forward
// declarations, which are all this header takes from it.
#include "Mandelbrot.h"
#include "environment.h"
#include "juliacache.h"
#include "mathext.h"

struct VIEWPORT;
struct TASK;
struct WORKER;

enum REALMTYPE {
  MANDELBROT = 0,
  JULIA = 1,
  GENERAL = 2,
  HYPERBOLIC = 3,
};

// ---------------------------------------------------------------- AREA

// AREA.flags.
constexpr uint32_t A_ACTIVE = 1;
constexpr uint32_t A_DELETED = 2;
constexpr uint32_t A_GLOBALINTERPOL = 4;
constexpr uint32_t A_HPCORRECT = 8;
constexpr uint32_t A_JULIACORRECT = 32;
constexpr uint32_t A_INTERPOL = 64;
constexpr uint32_t A_SUPERINTERPOL = 128;
constexpr uint32_t A_WAITFORJULIASTACK = 1024;
constexpr uint32_t A_INDELCHAIN = 2048;
constexpr uint32_t A_INPPPROGRAM = 4096;
constexpr uint32_t A_PRECALCULATED = 8192;

// The bits that record how an area's data were made; data of other modes
// are stale.
constexpr uint32_t A_MADEWITH =
    A_GLOBALINTERPOL | A_HPCORRECT | A_JULIACORRECT | A_INTERPOL | A_SUPERINTERPOL;

struct AREA {
  AREA* child[4];  // 0 same corner, 1 +x, 2 +x +y, 3 +y
  AREA* parent;
  REALM* realm;
  HPVALUE* hpvalue;  // only on effective tops and the top
  int nhpvalue;
  int depth;
  unsigned int modeprec;
  int precoffset;
  int xinner;  // place in the Julia stack's grid, -1 outside it
  int yinner;
  uint32_t computecycle;
  HPVALUE* m;
  uint32_t itermax;
  int64_t statvertices;    // the work that made the present tiles: vertices
  int64_t statiterations;  // that ran a kernel and the iterations they took
  unsigned int channels;
  TEXTURE* texture[NCHANNELS];
  PREPIXELS* prepixels;
  WORKER* volatile worker;
  ENVIRONMENT* e;      // attached
  REALM* juliarealm;   // attached
  int prec;
  HFLOATCOMPLEX ct;
  HFLOATCOMPLEX interpoltaylor[NINTERPOLTAYLOR];
  ITER interpoliter;
  int jst;
  CHAIN chain;
  CHAIN waitforjuliastack;
  CHAIN waitingforprepixel;
  CHAIN viewportchain;
  volatile int priority;  // 0 no interest, -1 new, PRIO_LAST no interest but keep
  AREA* nextrem;
  uint32_t flags;
};

// ---------------------------------------------------------------- JULIASTACKDATA

// Levels of a realm's stack, allocated in one block.
constexpr int NJULIASTACK = 16384;

struct JCBYPASSCHAIN {
  int i;  // level
  int x;
  int y;
  bool inchain;  // is on the realm's `bypassjc`
  CHAIN chain;
};

struct JULIASTACKDATA {
  int sizeshift;
  JULIACACHE* mipmap;
  JULIACACHE* c[MAXJULIASTACKSIZE][MAXJULIASTACKSIZE];  // [y][x]
  WORKER* w[MAXJULIASTACKSIZE][MAXJULIASTACKSIZE];
  JCBYPASSCHAIN bypasschain[MAXJULIASTACKSIZE][MAXJULIASTACKSIZE];
  int nworker;
  int task;
  HFLOATCOMPLEX mr;
  HFLOATCOMPLEX taylorj[NINTERPOLTAYLOR];
  ITER iter;
  bool bypass;
  HPVALUE* m;
  ITER miter;
  HFLOATCOMPLEX lim;
  HFLOAT rlim;
  ENVIRONMENT* e;  // one reference
  int prec;        // -1: none
  bool waittocompute;
  bool corrected;
  CHAIN wait;
  bool jswait;
  WORKER* worker;
  CHAIN canvasworker;
  HFLOAT r;
};

// ---------------------------------------------------------------- REALM

// REALM.flags. Several bits are copied into an area's A_ bits when its data
// are made; the number format lands in its `modeprec`.
constexpr unsigned int R_LOCKJULIAPOINT = 1;
constexpr unsigned int R_INTERPOL = 2;
constexpr unsigned int R_SUPERINTERPOL = 4;
constexpr unsigned int R_PRECMASK = 240;
constexpr unsigned int R_PRECAUTO = 0;
constexpr unsigned int R_PRECFLOAT = 16;
constexpr unsigned int R_PRECDOUBLE = 32;
constexpr unsigned int R_PRECLONGDOUBLE = 48;
constexpr unsigned int R_PRECHFLOAT = 64;
constexpr unsigned int R_IDLE = 512;
constexpr unsigned int R_ATSAT = 1024;
constexpr unsigned int R_MUSTWAITFORIDLE = 2048;
constexpr unsigned int R_GLOBALINTERPOL = 0x1000;
constexpr unsigned int R_STATUSM = 0x2000;  // shown in the status line, never set
constexpr unsigned int R_NOINTERIOR = 0x4000;
constexpr unsigned int R_BYPASS = 0x20000;
constexpr unsigned int R_SPLITMUL = 0x80000;
constexpr unsigned int R_HPCORRECT = 0x10000000;
constexpr unsigned int R_JULIACORRECT = 0x20000000;

// A new realm: interpolation, super-interpolation, global interpolation,
// bypass, high-precision and Julia correction on; automatic number format.
constexpr unsigned int R_DEFAULT = 0x30021006;

struct REALM {
  REALMTYPE type;
  AREA* top;
  int activeviewports;
  int precoffset;
  ITERINFO info;  // `info.c` is the realm's point
  ENVIRONMENT* e;
  TASK* jsttask;
  JULIASTACKDATA* juliastack;  // NJULIASTACK levels, one block
  int njuliastack;
  JULIASTACKDATA jstdforworker;  // snapshot owned by the level-finishing worker
  int juliajuliastack;
  int neededjuliastack;
  int validjuliastack;
  int calcjuliastack;
  int priojuliastack;
  int maxjuliastack;
  volatile int readyjuliastack;   // written after a fence; read by workers
  volatile int readyjuliastack2;
  int juliastacksizeshift;
  VIEWPORT* generalviewport;
  int ijuliacache;
  CHAIN bypassjc;
  uint32_t computecycle;
  unsigned int redraw;
  volatile int count;  // atomic
  CHAIN chain;
  unsigned int flags;
};

// ---------------------------------------------------------------- operations
//
// Calls with a leading `__`, the `worker_realm_*` handlers and everything
// that touches the tree run on the main thread. `addrealm`, `copyrealm`,
// `attachrealm` and `detachrealm` may come from any thread: they touch only
// the atomic count and send a message.

// A new realm with `count` 2: the caller's reference and the message's, which
// `worker_realm_init` gives up once the realm has its top. NULL when the
// engine is stopped or no message record is left.
REALM* addrealm(OVCONTEXT* context, REALMTYPE type);
// A new realm of `realm`'s type and flags that takes over its iteration
// parameters and environment in `worker_realm_copy`. The message holds a
// reference to `realm` until then.
REALM* copyrealm(OVCONTEXT* context, REALM* realm);
void attachrealm(REALM* realm);
// Sends the detach to the main thread; NULL or a stopped engine: nothing.
void detachrealm(OVCONTEXT* context, REALM* realm);
// The last reference frees the realm with its tree.
void __detachrealm(OVCONTEXT* context, REALM* realm);
void __removerealm(OVCONTEXT* context, REALM* realm);
// Clears the realm's parameters and gives it a fresh top.
void __createtop(OVCONTEXT* context, REALM* realm, bool withjulia);

void worker_realm_init(OVCONTEXT* context, WORKER* worker);
void worker_realm_copy(OVCONTEXT* context, WORKER* worker);
void worker_realm_detach(OVCONTEXT* context, WORKER* worker);

// A new area below `parent` (NULL for a top); the oldest bare leaf is evicted
// first when the pool is full. NULL, with a line on standard error, when
// nothing can be evicted.
AREA* adda(OVCONTEXT* context, AREA* parent, int depth);
// Frees `a` and its subtree; `a`'s slot in its parent is the caller's.
void removea(OVCONTEXT* context, AREA* a);
// Makes sure all four children exist; they become the youngest entries of
// `achain`.
void subdivide(OVCONTEXT* context, AREA* a);
// Drops the area's data and stops its job, unless A_INPPPROGRAM is set.
void resetarea(OVCONTEXT* context, AREA* a, bool all);
// Puts `a` on `achain` if it is a bare leaf, takes it off otherwise.
void updatedelchain(OVCONTEXT* context, AREA* a);
// May the data of an older cycle stay?
bool isvalid(OVCONTEXT* context, AREA* a);
// The nearest ancestor (or `a` itself) with an `hpvalue`, and in `c` the
// corner of `a` relative to that value's corner.
HPVALUE* getcoordarel(AREA* a, HFLOATCOMPLEX* c);

// ---------------------------------------------------------------- canvas jobs
//
// canvasjob.cpp. `processarea` and the returns run on the main thread,
// `worker_canvas_calc` on a worker thread with that thread's canvas.

// Starts a canvas job for `a` when one is due: a priority, no job yet, no
// wait for the Julia stack, and tiles missing or of an older cycle. Always 1.
bool processarea(OVCONTEXT* context, AREA* a);
void worker_canvas_calc(OVCONTEXT* context, WORKER* worker);
void worker_canvas_calc_return(OVCONTEXT* context, WORKER* worker);
void worker_canvas_calc_fail(OVCONTEXT* context, WORKER* worker);
// Gives back everything a canvas job holds, and the job itself.
void freecanvascalcworker(OVCONTEXT* context, WORKER* worker);
