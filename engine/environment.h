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
struct REALM;
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
  // This stretch runs as one chain, in the order it was built, on the one
  // thread that takes its first node: at low precision handing each node on
  // costs more than its product (see `stretchwidth`).
  bool serial;
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

// Series depth a periodic environment gives a Mandelbrot view at (x, y) of
// scale `zoom` and pixel scale `resolution`; negative when it cannot serve:
// -1 not periodic or the series too short, -2 the atom too shallow, -3 the
// centre outside the trusted disc, -4 the view larger than that disc, -5 the
// atom too far, -6 a column of the series needs its last terms. 2 for a
// period of one.
int checkenvironment(mpf_ptr scratch, const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y,
                     HFLOATCOMPLEX zoom, double resolution);
// The same for Julia stack level s, the disc of radius 2^-s in the Julia
// plane, with `resolution` the tile size: -1, -2, -3, -4 as above, -5 for a
// column that needs its last terms.
int checkenvironmentjulia(mpf_ptr scratch, const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y,
                          int s, double resolution);
// Anchors level i of the realm's Julia stack to e (main thread): true when
// the level is e's, with `mr` its seed relative to e; false, the level
// untouched but for `mr`, when it has no seed or e cannot carry it.
bool setenvironment(OVCONTEXT* context, REALM* realm, int i, ENVIRONMENT* e);

// ---------------------------------------------------------------- dataflow computers
//
// computer.cpp. Groups are built, started, reset and freed on the main thread
// (or by `run` when no other thread is left); nodes run on any thread that
// serves the context's ready queue. A group must stay alive until its
// `endcompute` has been called.

constexpr ITER COMPUTER_NOESCAPE = 0x7FFFFFFF;  // COMPUTERGROUP::idata[0] before any escape
constexpr int NCOMPUTERSTRETCH = 512;           // rounds in one stretch of a graph
// The precision up to which a stretch runs serially by default
// (`OVCONTEXT.serialcomputerbits`).
constexpr mp_bitcnt_t SERIALCOMPUTERBITS = 1024;
constexpr int COMPUTERWIDTH_ITER = 4;
constexpr int COMPUTERWIDTH_ITERSPLIT = 8;
// Nodes of one stretch of the plain iteration graph, ordinary and split.
constexpr int NCOMPUTER_ITER = 4 + NCOMPUTERSTRETCH * 11 + 4;
constexpr int NCOMPUTER_ITERSPLIT = 4 + NCOMPUTERSTRETCH * 31 + 4;
// The store of the idle and Newton graphs: a split stretch with its head and
// tail fits.
constexpr int NCOMPUTER_ENV = 24576;
constexpr int COMPUTERWIDTH_IDLE = 4;
constexpr int COMPUTERWIDTH_IDLESPLIT = 8;
constexpr int COMPUTERWIDTH_NEWTON = 3;
constexpr int COMPUTERWIDTH_NEWTONSPLIT = 10;
// Nodes per round, ordinary and split; the last round of a Newton pass keeps
// only the squares and the core.
constexpr int NCOMPUTERROUND_IDLE = 13;
constexpr int NCOMPUTERROUND_IDLESPLIT = 33;
constexpr int NCOMPUTERROUND_NEWTON = 11;
constexpr int NCOMPUTERROUND_NEWTONSPLIT = 31;
constexpr int NCOMPUTERROUND_NEWTONLAST = 3;
constexpr int NCOMPUTERROUND_NEWTONLASTSPLIT = 7;
// Head and tail of a stretch: x, y, dx, dy, the two series and the core
// chain's start for idle; x, y, dx, dy and the core for Newton.
constexpr int NCOMPUTERHEAD_IDLE = 7;
constexpr int NCOMPUTERTAIL_IDLE = 6;
constexpr int NCOMPUTERHEAD_NEWTON = 5;
constexpr int NCOMPUTERTAIL_NEWTON = 5;
// An idle orbit's arrays grow by this many points when a stretch could reach
// their end; the first allocation of the idle search is the same size.
constexpr int NIDLEREFDATA = 0x100000;
// Newton steps a run may take after its first: `idata[2]` at the start.
constexpr ITER NEWTONSTEPS = 100;

// Group slots of the idle graph besides the viewport in pdata[0]: the
// standard environment whose orbit it stores, and the task that counts its
// stretches.
constexpr int COMPUTER_IDLESTANDARD = 1;
constexpr int COMPUTER_IDLETASK = 2;

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

// The idle iteration: z, dz and the series of z_k in dz (group hdata[0]) and
// in dc (hdata[1]), one stretch from the registers, started at once. The
// standard environment in pdata[COMPUTER_IDLESTANDARD] (may be null) gets the
// orbit, its arrays and checkpoints made room for first; the task in
// pdata[COMPUTER_IDLETASK] (may be null) is told of the stretch. The end
// procedure is the owner's, set before the first stretch.
void idleiter(COMPUTERGROUP* group, COMPUTER** handles);
void idleiterclamp(COMPUTERGROUP* group, COMPUTER** handles);
void setupidlecomputergroup(OVCONTEXT* context, COMPUTERGROUP* group, bool split);

// One pass of Newton's method for the periodic environment in pdata[0]:
// rounds 0..n of its orbit from the registers (c in data[0..1]), stored in
// its arrays, with the cycle's multiplier in hdata[0]; cut into stretches of
// at most NCOMPUTERSTRETCH rounds. `last` marks round n, which keeps only
// what the core needs, so that the registers end at z_n and dz_n/dc.
void newtoniter(COMPUTERGROUP* group, COMPUTER** handles, bool last);
void newtoniterclamp(COMPUTERGROUP* group, COMPUTER** handles, bool last);
void setupnewtoncomputergroup(OVCONTEXT* context, COMPUTERGROUP* group, bool split);
// The end of a Newton stretch on the main thread: the next stretch, or the
// step of c and the next pass, or the end of the run, converged (the series
// is made next on a worker) or given up (the environment is released).
void __newtonendcompute(COMPUTERGROUP* group);

// The viewport's share of one idle round (stack levels, Newton candidates),
// called in iteration order by the cores with z_iter, dz_iter, and the old
// and new series; null while no idle search is linked.
typedef void (*IDLESTEPPROC)(COMPUTERGROUP* group, ITER iter, HFLOAT a, mpf_srcptr x,
                             mpf_srcptr y, mpf_srcptr dx, mpf_srcptr dy,
                             const HFLOATCOMPLEX* tj, const HFLOATCOMPLEX* ntj,
                             const HFLOATCOMPLEX* tm, const HFLOATCOMPLEX* ntm);
extern IDLESTEPPROC idlestephook;
// The owner's share of a Newton run: whether it is being stopped, and its
// bookkeeping when the run ends (before a given-up environment is released).
// Null: nobody to ask or tell.
typedef bool (*NEWTONSTOPPROC)(ENVIRONMENT* e);
typedef void (*NEWTONENDPROC)(OVCONTEXT* context, ENVIRONMENT* e, bool converged);
extern NEWTONSTOPPROC newtonstophook;
extern NEWTONENDPROC newtonendhook;

void removecomputer(COMPUTER* computer);
// `n` nodes of `group` finished at once; the same end as n calls of the above.
void removecomputers(COMPUTERGROUP* group, int n);
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
COMPUTER* __idlecore(COMPUTER* c);
COMPUTER* __newtonitercore(COMPUTER* c);
COMPUTER* __taylormstep(COMPUTER* c);
COMPUTER* __taylorjstep(COMPUTER* c);
