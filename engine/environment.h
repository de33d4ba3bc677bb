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

// ---------------------------------------------------------------- COMPUTER

constexpr int NCOMPUTERINPUT = 12;
constexpr int NCOMPUTEROUTPUT = 18;
constexpr int NCOMPUTERIDATA = 4;

// A node's operation: returns the successor this thread runs next, or null.
typedef COMPUTER* (*COMPUTERPROC)(COMPUTER* computer);

struct COMPUTERPTR {
  COMPUTER* ptr;
  int i;  // the input slot of `ptr` this edge feeds
};

// One node of a graph. It writes only its own `data`, `hdata` and `idata`,
// and reads its inputs once `inputwait` says they are final.
struct COMPUTER {
  COMPUTERGROUP* computergroup;
  volatile int inputwait;  // counts down; ready below 2, see finishing a node
  int inputwaitsaved;
  COMPUTER* input[NCOMPUTERINPUT];
  COMPUTERPTR output[NCOMPUTEROUTPUT];
  int noutput;
  COMPUTERPROC compute;  // null for the head nodes of a graph
  ITER idata[NCOMPUTERIDATA];
  mpf_t data;
  HFLOATCOMPLEX hdata[NTAYLORDEGREE];
  COMPUTER* volatile nextonstack;
  COMPUTER* volatile nextcomputing;  // link word in OVCONTEXT::computer
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

// ---------------------------------------------------------------- dataflow computers
//
// computer.cpp. Groups are built, started, reset and freed on the main thread
// (or by `run` when no other thread is left); nodes run on any thread that
// serves the context's ready queue. A group must stay alive until its
// `endcompute` has been called.

constexpr ITER COMPUTER_NOESCAPE = 0x7FFFFFFF;  // COMPUTERGROUP::idata[0] before any escape
constexpr int NCOMPUTERSTRETCH = 512;           // rounds in one stretch of a graph
constexpr int COMPUTERWIDTH_ITER = 4;
constexpr int COMPUTERWIDTH_ITERSPLIT = 8;
// Nodes of one stretch of the plain iteration graph, ordinary and split.
constexpr int NCOMPUTER_ITER = 4 + NCOMPUTERSTRETCH * 11 + 4;
constexpr int NCOMPUTER_ITERSPLIT = 4 + NCOMPUTERSTRETCH * 31 + 4;

void initcomputergroup(OVCONTEXT* context, COMPUTERGROUP* group, int ncomputer,
                       mp_bitcnt_t precision);
void resetcomputergroup(OVCONTEXT* context, COMPUTERGROUP* group, mp_bitcnt_t precision);
void freecomputergroup(COMPUTERGROUP* group);
void computergroupsetprecision(COMPUTERGROUP* group);
void computergroupsetrawprecision(COMPUTERGROUP* group);

// Read-only views of the top `cut` limbs and of the rest of `src`, sharing
// its limbs: src = hi + lo exactly, both with the sign of src. A lo view is
// normalised (no leading zero limb), so GMP can take it as an operand.
void mpf_hi(mpf_ptr dest, mpf_srcptr src, mp_size_t cut);
void mpf_lo(mpf_ptr dest, mpf_srcptr src, mp_size_t cut);

// A node with the given inputs (nulls are skipped); null and "COMPUTER
// overflow." when the store or an input's edge table is full.
COMPUTER* standardcomputern(COMPUTERGROUP* group, COMPUTERPROC compute, int ninput,
                            COMPUTER* const* inputs, ITER d);
template <typename... INPUTS>
COMPUTER* standardcomputer(COMPUTERGROUP* group, COMPUTERPROC compute, INPUTS... inputs) {
  static_assert(sizeof...(INPUTS) >= 1 && sizeof...(INPUTS) <= 11);
  COMPUTER* in[] = {inputs...};
  return standardcomputern(group, compute, sizeof...(INPUTS), in, 0);
}
template <typename... INPUTS>
COMPUTER* standardcomputerd(COMPUTERGROUP* group, COMPUTERPROC compute, ITER d,
                            INPUTS... inputs) {
  static_assert(sizeof...(INPUTS) >= 1 && sizeof...(INPUTS) <= 11);
  COMPUTER* in[] = {inputs...};
  return standardcomputern(group, compute, sizeof...(INPUTS), in, d);
}

// One round of z^2 + c and of its derivative appended to the graph; the
// handles x, y, dx, dy (in that order) move on to the round's results.
void iter(COMPUTERGROUP* group, COMPUTER** handles, ITER iteration);
void iterclamp(COMPUTERGROUP* group, COMPUTER** handles, ITER iteration);

// One stretch of NCOMPUTERSTRETCH rounds from the registers data[2..5],
// started at once. The group's `endcompute`, set by the caller, is called on
// the main thread when the stretch has run; a stretch of the same shape as
// the last one re-runs the built graph.
void setupitercomputergroup(OVCONTEXT* context, COMPUTERGROUP* group, bool split = false);

void removecomputer(COMPUTER* computer);
void worker_compute_end(OVCONTEXT* context, WORKER* worker);

// Runs ready nodes while the context's queue holds any; true if it ran one.
bool servecomputers(OVCONTEXT* context);

// Node kinds.
COMPUTER* __addcomputer(COMPUTER* c);
COMPUTER* __subcomputer(COMPUTER* c);
COMPUTER* __mulcomputer(COMPUTER* c);
COMPUTER* __sqrcomputer(COMPUTER* c);
COMPUTER* __realitercomputer(COMPUTER* c);
COMPUTER* __realitercomputer1(COMPUTER* c);
COMPUTER* __realitercomputer2(COMPUTER* c);
COMPUTER* __imagitercomputer(COMPUTER* c);
COMPUTER* __imagitercomputer2(COMPUTER* c);
COMPUTER* __drealitercomputer(COMPUTER* c);
COMPUTER* __dimagitercomputer(COMPUTER* c);
COMPUTER* __itercore(COMPUTER* c);
COMPUTER* __output(COMPUTER* c);
COMPUTER* __houtput(COMPUTER* c);
COMPUTER* __sqrcomputerclamphi(COMPUTER* c);
COMPUTER* __sqrcomputerclamplo(COMPUTER* c);
COMPUTER* __sqrcomputerclamp(COMPUTER* c);
COMPUTER* __mulcomputerclamphi(COMPUTER* c);
COMPUTER* __mulcomputerclamplo(COMPUTER* c);
COMPUTER* __mulcomputerclampmid(COMPUTER* c);
COMPUTER* __mulcomputerclamp(COMPUTER* c);
