// MandelbrotCanvasTemplate.h: the records of a canvas, the working memory in
// which one area is computed: a grid of 257 x 257 vertices, each with the full
// state of one orbit, a pool of orbit sample blocks for reference vertices and
// a pool of high-precision checkpoints. One template over the number format
// gives them for float, double, long double and HFLOAT; the instantiations
// carry the suffixes _float, _double, _longdouble and _hfloat.
//
// Threads. A canvas belongs to one worker thread from `initcanvas` to
// `removecanvas`; nothing else reads or writes it meanwhile, and the only
// word that crosses is the `stop` flag of the job it holds in `__worker`.
//
// These are layouts only: nothing here allocates, initialises or iterates. A
// canvas is some 150 MB and is made once per worker thread; its lifecycle
// outside a job (the mpf members, the pool's free mark) is in canvas.h.
#pragma once

#include <gmp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "Array.h"
#include "mathext.h"

// Mandelbrot.h names these records among its own, so, as in environment.h,
// the iteration types are declared again here rather than taken from it; a
// mismatch does not compile.
typedef int ITER;
typedef unsigned int UITER;

struct WORKER;

// ---------------------------------------------------------------- sizes

// Grid: 2^8 + 1 vertices per side, row-major, vertex index y * 257 + x.
constexpr int CANVASSIZESHIFTMAX = 8;
constexpr int CANVASSIZE = (1 << CANVASSIZESHIFTMAX) + 1;
constexpr int NCVERTEX = CANVASSIZE * CANVASSIZE;

// Refinement levels 0..8: one work list head per level and list kind.
constexpr int NCANVASLEVEL = CANVASSIZESHIFTMAX + 1;

// Vertices woken when a vertex gets its result.
constexpr int NVXWAKE = 3;

// Period test samples kept per vertex.
constexpr int NPDATA = 4;

// Reference orbit storage: blocks of 64 samples, 32768 blocks per canvas.
constexpr int CDATAGRAN = 64;
constexpr int NCDATA = 32768;

// High-precision checkpoints per canvas.
constexpr int NCHPVALUE = 16384;

// ---------------------------------------------------------------- CVALUE.flags

// 0 is the start state: the orbit begins from the environment. A kernel
// stores CV_ABSOLUTE | CV_ESCAPED (6) on escape. CV_INFTY puts the period in
// `iter`; with CV_ESCAPED as well the orbit fell into the attractor trap.
constexpr unsigned int CV_RELATIVE = 1;
constexpr unsigned int CV_ABSOLUTE = 2;
constexpr unsigned int CV_ESCAPED = 4;
constexpr unsigned int CV_FAILED = 8;  // also the mark of an empty oldv/oldv2
constexpr unsigned int CV_REFERENCE = 16;
constexpr unsigned int CV_INFTY = 32;

// ---------------------------------------------------------------- CVERTEX.flags

constexpr unsigned int VX_INTREE = 0x1;
constexpr unsigned int VX_NOINTERPOL = 0x2;
constexpr unsigned int VX_INFAILURE = 0x4;
constexpr unsigned int VX_ININFTY = 0x10;
constexpr unsigned int VX_FINISHED = 0x20;
constexpr unsigned int VX_NEARINTERIOR = 0x80;
constexpr unsigned int VX_TESTED = 0x100;
constexpr unsigned int VX_INWORKER = 0x400;
constexpr unsigned int VX_FORCE_FINAL = 0x10000;
constexpr unsigned int VX_CALCULATED = 0x40000;
// A vertex with any of these bits was iterated directly and may adopt a new
// reference; only VX_CALCULATED has a name of its own.
constexpr unsigned int VX_CALCULATEDMASK = 0x1C0000;
// A kernel has run on the vertex in this job: counted once in the canvas's
// `statvertices`.
constexpr unsigned int VX_ITERATED = 0x200000;

// ---------------------------------------------------------------- CANVAS.flags

// The job's word, with CF_ACTIVE set by `initcanvas`. A free canvas has
// flags 2, the pools' free mark: CF_INTERPOL without CF_ACTIVE.
constexpr unsigned int CF_ACTIVE = 0x1;
constexpr unsigned int CF_INTERPOL = 0x2;
constexpr unsigned int CF_SUPERINTERPOL = 0x4;
constexpr unsigned int CF_MODEPREC = 0xF0;  // 0 automatic, else a format's MODE
constexpr unsigned int CF_GLOBALINTERPOL = 0x1000;
constexpr unsigned int CF_NOINFTY = 0x4000;
constexpr unsigned int CF_DERIVATIVE = 0x40000;
constexpr unsigned int CF_JULIA = 0x100000;
constexpr unsigned int CF_GENERAL = 0x200000;
constexpr unsigned int CF_HYPERBOLIC = 0x400000;
constexpr unsigned int CF_HPCORRECT = 0x10000000;
constexpr unsigned int CF_JULIACORRECT = 0x20000000;
constexpr unsigned int CF_FAST = 0x40000000;

// ---------------------------------------------------------------- CHPVALUE

// A checkpoint holds no number in the canvas format, so all four formats share
// this one record: a canvas buffer keeps its initialised checkpoints when its
// next job runs in another format.
struct CHPVALUE {
  ITER iter;
  mpf_t value[2];  // real, imaginary
  CHAIN chain;     // on a reference vertex's `hpvchain`, rising `iter`
  int count;       // holders
  CHPVALUE* next;  // free list
};

// ---------------------------------------------------------------- the template

struct PERIODSTRIDES;

namespace canvasdetail {

// The records that depend on the format, and everything a canvas holds
// except the canvas itself.
template <typename FLOATT, typename COMPLEXT>
struct CANVASRECORDS {
  typedef FLOATT FLOAT;
  typedef COMPLEXT COMPLEX;
  typedef ::CHPVALUE CHPVALUE;

  // Samples of the period test, a ring of NPDATA.
  struct INFTYDATA {
    int ipdata;  // next slot
    ITER pditer[NPDATA];
    COMPLEX pdvalue[NPDATA];
  };

  // One orbit state: everything a kernel needs to resume.
  struct CVALUE {
    UITER iter;
    int ref;             // reference vertex, or -1
    int data;            // CDATA block of the reference orbit holding `iter`, or -1
    CHPVALUE* hpvalue;   // checkpoint this state counts on, or null
    COMPLEX value;       // z (absolute) or the difference to `ref`'s orbit
    COMPLEX d;           // dz/dc, scaled by the canvas's `dfactor`
    FLOAT Z;             // accumulated squared rounding error estimate
    unsigned int flags;  // CV_*
  };

  struct CVERTEX {
    CVALUE v;
    UITER maxiter;   // the limit last granted
    int depth;       // level of the cell this vertex is the top-left corner of
    int forced;      // level a neighbour's refinement forces on the cell
    CVALUE interpolv;
    int interpoldepth;
    CVALUE oldv;     // at `oldinterpoliter`
    CVALUE oldv2;    // at `oldinterpoliter2`
    int x;
    int y;
    int n[NVXWAKE];  // vertices to wake, -1 for none
    ITER refiter;    // where a reference orbit ends, 0 while open
    CHAIN hpvchain;  // CHPVALUE checkpoints of a reference vertex
    int firstdata;
    int lastdata;
    INFTYDATA inftydata;
    int index;
    int next;   // workerinfty list
    int next2;  // worker list
    int next3;  // workerfailure list
    int next4;  // interpolation list
    int next5;  // walk of `newref`
    int dummy;  // level scratch of `newref`
    unsigned int flags;  // VX_*
  };

  // CDATAGRAN consecutive samples of a reference orbit.
  struct CDATA {
    int ref;
    ITER iter;  // iteration of sample 0
    COMPLEX value[CDATAGRAN];
    FLOAT a[CDATAGRAN];  // 4 - |X|^2: escape of X + delta without cancellation
    int next;  // same orbit's next block, or the free list, -1 ends
  };
};

// The canvas with `__tailpad` bytes before `idata`. Every member from `idata`
// on is independent of the format, and one buffer serves jobs of every format
// in turn: the mpf members and the checkpoint pool with its high-water mark
// must be where every format, and `preinitcanvas` on CANVAS0, look for them.
// The pad brings the head of each format to the size of the largest.
template <typename FLOATT, typename COMPLEXT, size_t TAILPAD>
struct CANVASLAYOUT {
  typedef CANVASRECORDS<FLOATT, COMPLEXT> R;

  typename R::COMPLEX cf;  // origin in this format
  typename R::COMPLEX cr;  // origin relative to the environment (general realm)
  int depth;               // the area's depth
  HFLOATCOMPLEX ct;        // origin relative to the Julia-stack or general frame
  ITER maxiter;            // largest iteration known to escape, 0 none
  mp_bitcnt_t precision;   // of every mpf value of the job
  int workerinfty[NCANVASLEVEL];
  int worker[NCANVASLEVEL];
  int workerfailure[NCANVASLEVEL];
  int minworkerinfty;
  int minworker;
  int minworkerfailure;
  int workerinterpol;
  CHPVALUE* environmenthpvalue;  // at `interpoliter`
  CHPVALUE* oldenvironmenthpvalue;
  CHPVALUE* oldenvironmenthpvalue2;
  CHPVALUE* endenvironmenthpvalue;  // at the environment's end `n`, made when first asked
  ITER interpoliter;
  ITER newinterpoliter;
  ITER oldinterpoliter;
  ITER oldinterpoliter2;
  int interpolmindepth;
  int canvassizeshift;
  int canvasinterpol;
  ITER __n;
  HFLOAT dfactor;          // start of the scaled derivative
  HFLOATCOMPLEX dfactor2;  // dfactor * scalec / scalez, satellite environments
  typename R::FLOAT dbound;
  HFLOAT sbound;
  typename R::FLOAT Zfactor;
  typename R::CVERTEX v[NCVERTEX];
  typename R::CDATA data[NCDATA];
  unsigned char __tailpad[TAILPAD];
  int idata;  // blocks in use
  int rdata;  // free list head
  mpf_t c[2];  // origin in full precision
  mpf_t dummyvalue;
  mpf_t dummysmall;
  mpf_t x1s;
  mpf_t y1s;
  mpf_t x;
  mpf_t y;
  CHPVALUE hpvalue[NCHPVALUE];
  int ihpvalue;
  CHPVALUE* rhpvalue;  // free list head
  int mhpvalue;        // the first mhpvalue entries hold mpf storage
  CANVASLAYOUT* next;
  unsigned int flags;  // CF_*, or 2 when free
  WORKER* __worker;
  // The job's work: vertices that ran a kernel, iterations they advanced.
  // Iterations passed by a jump (the job's cubic, a period) were not
  // iterated, and `statskipped` takes them out of the count.
  int64_t statvertices;
  int64_t statiterations;
  int64_t statskipped;
  // The satellite kernels' runs along the period (canvas/periodstrides.h),
  // made when first asked and forgotten at the next job.
  PERIODSTRIDES* strides;
};

// Where the format's own members end.
template <typename LAYOUT>
constexpr size_t TAILPADOFFSET = offsetof(LAYOUT, __tailpad);
template <typename FLOATT, typename COMPLEXT>
constexpr size_t HEADSIZE = TAILPADOFFSET<CANVASLAYOUT<FLOATT, COMPLEXT, 1>>;

constexpr size_t MAXHEADSIZE =
    std::max({HEADSIZE<float, complexf>, HEADSIZE<double, complexd>,
              HEADSIZE<long double, complexld>, HEADSIZE<HFLOAT, HFLOATCOMPLEX>});

}  // namespace canvasdetail

// The canvas types of one number format. MODE is the format's value in the
// mask CF_MODEPREC and in an area's `modeprec`.
template <typename FLOATT, typename COMPLEXT, unsigned int MODEPREC>
struct CANVASTEMPLATE : canvasdetail::CANVASRECORDS<FLOATT, COMPLEXT> {
  static constexpr unsigned int MODE = MODEPREC;
  typedef canvasdetail::CANVASLAYOUT<
      FLOATT, COMPLEXT,
      canvasdetail::MAXHEADSIZE - canvasdetail::HEADSIZE<FLOATT, COMPLEXT> + 1>
      CANVAS;
};

typedef CANVASTEMPLATE<float, complexf, 16> CANVASTEMPLATE_float;
typedef CANVASTEMPLATE<double, complexd, 32> CANVASTEMPLATE_double;
typedef CANVASTEMPLATE<long double, complexld, 48> CANVASTEMPLATE_longdouble;
typedef CANVASTEMPLATE<HFLOAT, HFLOATCOMPLEX, 64> CANVASTEMPLATE_hfloat;

#define ORVANTA_CANVASNAMES(suffix)                                  \
  typedef CANVASTEMPLATE##suffix::INFTYDATA INFTYDATA##suffix;       \
  typedef CANVASTEMPLATE##suffix::CVALUE CVALUE##suffix;             \
  typedef CANVASTEMPLATE##suffix::CVERTEX CVERTEX##suffix;           \
  typedef CANVASTEMPLATE##suffix::CDATA CDATA##suffix;               \
  typedef CANVASTEMPLATE##suffix::CHPVALUE CHPVALUE##suffix;         \
  typedef CANVASTEMPLATE##suffix::CANVAS CANVAS##suffix;

ORVANTA_CANVASNAMES(_float)
ORVANTA_CANVASNAMES(_double)
ORVANTA_CANVASNAMES(_longdouble)
ORVANTA_CANVASNAMES(_hfloat)

#undef ORVANTA_CANVASNAMES
