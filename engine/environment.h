// environment.h: the records of reference points: HPVALUE, the pooled
// arbitrary-precision complex number; ITERINFO, the outcome of one deep
// iteration run; ENVIRONMENT, a reference point with its orbit and the series
// of one period; and COMPUTERGROUP, the dataflow graph an environment embeds
// for its Newton run.
//
// Threads. HPVALUE counts are plain: only the main thread attaches and
// detaches them; workers read the numbers and nothing else. An environment's
// `count` is atomic, since canvases and workers attach it from any thread;
// every other field is written on the main thread before the environment is
// handed to a worker in a message, or by the single worker that owns it while
// its series is made. Orbit entries are filled by graph nodes at indexes that
// no reader looks at until the environment is published. In a graph, the
// counters, the stop word and `pdata` are shared with the worker threads that
// run nodes; `endcompute` runs on the main thread only.
//
// The records are plain layouts; the operations declared at the end live in
// environment.cpp.
#pragma once

#include <gmp.h>

#include <cstdint>

#include "Array.h"
#include "mathext.h"

// Mandelbrot.h includes this header, so it cannot include Mandelbrot.h in
// turn without a cycle that breaks whichever header a file names first. The
// iteration types are declared again here; a mismatch does not compile.
typedef int ITER;
typedef unsigned int UITER;

struct OVCONTEXT;
struct VIEWPORT;
struct WORKER;
struct TASK;
struct COMPUTER;
struct ENVIRONMENT;

// Orbit checkpoints kept at full precision: one per 65536 iterations, so a
// long orbit at huge precision costs 32768 numbers at most.
constexpr int NENVHPV = 32768;

// A series of one period: powers 0..6 of the z-variable times powers 0..6 of
// the c-variable, stored at index i + 7 j.
constexpr int NTAYLORDEGREE = 7;
constexpr int NTAYLOR = NTAYLORDEGREE * NTAYLORDEGREE;

// The cubic that jumps iterations: coefficients t0..t3.
constexpr int NINTERPOLTAYLOR = 4;

// ---------------------------------------------------------------- HPVALUE

// HPVALUE.flags. The limbs flag survives a free, so that a reused slot only
// changes precision instead of allocating again.
constexpr unsigned int HPV_USED = 1;
constexpr unsigned int HPV_FREE = 2;
constexpr unsigned int HPV_LIMBS = 4;

struct HPVALUE {
  mpf_t v[2];  // real, imaginary
  int count;   // main thread only
  HPVALUE* next;
  unsigned int flags;
};

// ---------------------------------------------------------------- ITERINFO

struct ITERINFO {
  ENVIRONMENT* e;
  HPVALUE* c;  // one reference held
  HFLOATCOMPLEX zoom;
  HFLOATCOMPLEX cf;
  ITER interpoliter;
  HFLOATCOMPLEX interpoltaylor[NINTERPOLTAYLOR];
  ITER iter;  // > 0 escaped, < 0 minus the period, 0 undecided
  HFLOATCOMPLEX z;
  HFLOATCOMPLEX dzm;
  HFLOATCOMPLEX dzj;
  HFLOAT d;
  HFLOAT dj;
  HFLOAT distj;
  HFLOAT distm;
  HFLOATCOMPLEX lim;
  ITER inorm;
  bool precisionfailure;
  bool lookup;  // stopped inside the Julia stack; the lookup must finish it
};

// ---------------------------------------------------------------- COMPUTERGROUP

constexpr int NCOMPUTERGROUPDATA = 8;
constexpr int NCOMPUTERGROUPIDATA = 4;
constexpr int NCOMPUTERGROUPPDATA = 4;
constexpr int NCOMPUTERGROUPHDATA = 2;

struct COMPUTERGROUP;
typedef void (*ENDCOMPUTEPROC)(COMPUTERGROUP* group);

struct COMPUTERGROUP {
  OVCONTEXT* context;
  COMPUTER* computer;  // the node store, `ncomputer` records
  volatile int icomputer;
  volatile int activecomputer;
  int width;
  int ncomputer;  // 0: the group is not set up
  mpf_t data[NCOMPUTERGROUPDATA];
  mp_bitcnt_t prec;
  volatile ITER idata[NCOMPUTERGROUPIDATA];
  void* volatile pdata[NCOMPUTERGROUPPDATA];
  HFLOATCOMPLEX hdata[NCOMPUTERGROUPHDATA][NTAYLORDEGREE];
  ENDCOMPUTEPROC endcompute;  // NULL forces the next stretch to be rebuilt
  volatile int stop;
  volatile int lockcdata;
  COMPUTER* computerchain;
};

// ---------------------------------------------------------------- ENVIRONMENT

// ENVIRONMENT.flags. A periodic point without a series is too shallow to be a
// perturbation reference, which is why users test (flags & 80) == 64.
constexpr unsigned int E_SERIES = 16;
constexpr unsigned int E_ESCAPED = 32;
constexpr unsigned int E_PERIODIC = 64;
constexpr unsigned int E_STACKED = 256;

struct ENVIRONMENT {
  VIEWPORT* owner;          // not counted
  ENVIRONMENT* iscopyof;    // counted; a copy shares the orbit arrays
  int mini;
  int maxi;
  ITERINFO provisional;
  UITER n;
  int nref;
  REFDATAH* refdatah;  // owned unless `iscopyof` is set
  REFDATAD* refdatad;
  int nrefdata;
  HPVALUE* c;  // one reference held
  HPVALUE* hpv[NENVHPV];
  int nhpv;
  WORKER* worker;
  TASK* task;
  int timesrun;
  int due;
  COMPUTERGROUP computergroup;
  HFLOATCOMPLEX cf;
  HFLOAT r1;
  HFLOAT r2;
  HFLOAT r3;
  HFLOAT r4;
  HFLOAT tmpr2;
  HFLOATCOMPLEX taylor[NTAYLOR];
  HFLOATCOMPLEX scalec;
  HFLOATCOMPLEX scalez;
  mp_bitcnt_t precision;
  volatile int count;  // atomic
  CHAIN chain;
  int istore;
  CHAIN chainstore;
  unsigned int flags;
};

// ---------------------------------------------------------------- operations
//
// The HPVALUE pool and every call that attaches or detaches an HPVALUE
// (`addhpv`, `attachhpv`, `detachhpv`, `adde`, `addej`, `copye`, and the
// detache that releases an environment) belong to the main thread.
// `attache` and a detache that is not the last may come from any thread.
// The three tests only read, and run on any thread that holds a reference
// to `e`, each with a scratch number of its own.

// Bytes of limbs both numbers of `h` have allocated: GMP keeps one limb more
// than the precision it reports.
int64_t hpvaluelimbbytes(const HPVALUE* h);

HPVALUE* addhpv(OVCONTEXT* context, mp_bitcnt_t precision);
void attachhpv(HPVALUE* h);
void detachhpv(OVCONTEXT* context, HPVALUE* h);

ENVIRONMENT* adde(OVCONTEXT* context, mpf_srcptr x, mpf_srcptr y, mp_bitcnt_t precision);
ENVIRONMENT* addej(OVCONTEXT* context, mpf_srcptr x, mpf_srcptr y, mp_bitcnt_t precision);
ENVIRONMENT* copye(OVCONTEXT* context, ENVIRONMENT* source);
void attache(ENVIRONMENT* e);
void detache(OVCONTEXT* context, ENVIRONMENT* e);

// The point relative to `e`; the absolute point when `e` is null or a shallow
// periodic point that serves as no reference.
HFLOATCOMPLEX getrelativepos(mpf_srcptr x, mpf_srcptr y, const ENVIRONMENT* e);
// `zoom` is the complex scale of the view: 1/|zoom| is the half-size of the
// region tested. `scratch` is overwritten.
bool isenvironmentvalid(mpf_ptr scratch, const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y,
                        HFLOATCOMPLEX zoom);
bool isenvironmentclose(mpf_ptr scratch, const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y,
                        HFLOATCOMPLEX zoom);
