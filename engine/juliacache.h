// juliacache.h: the records of the Julia cache. PREPIXEL is one pixel's
// state on its way into or out of the Julia stack; PREPIXELS a pooled buffer
// of one tile of them; JULIACACHE one stored tile of a stack level, which
// lives in a memory slot or in the temporary file; JCFILE a stored fractal's
// file that tiles may be read back from. The levels themselves are in area.h,
// beside the realm that embeds one.
//
// Threads. Tile records and their chains are the main thread's. A worker
// reads only tiles it locked before it was dispatched; `data` of a tile is
// published after a fence, so whoever sees it sees the contents. PREPIXELS
// buffers pass between threads on a lock-free stack through `nextonstack`,
// and belong to whoever took one.
//
// These are layouts only: nothing here allocates, reads or writes a tile.
#pragma once

#include <cstdint>
#include <cstdio>

#include "Array.h"
#include "mathext.h"

// Mandelbrot.h includes this header; see environment.h for why it is not
// included back.
typedef int ITER;
struct ENVIRONMENT;

// ---------------------------------------------------------------- PREPIXEL

struct PREPIXEL {
  ITER iter;  // > 0 escaped, < 0 interior, 0 unknown
  float x;    // z, with 2^depth taken out
  float y;
  float dx;   // derivative, rescaled
  float dy;
  int depth;  // stack level to go on in; -1 when the pixel has no usable value
};

// One tile: 256 x 256 pixels.
constexpr int PREPIXELTILESIZESHIFT = 8;
constexpr int PREPIXELTILESIZE = 1 << PREPIXELTILESIZESHIFT;
constexpr int NPREPIXEL = PREPIXELTILESIZE * PREPIXELTILESIZE;

// Bytes of one tile, in memory and in the temporary file alike: the file
// offset of a tile is its record index times this, and a memory block is
// this shifted by NMEMJULIACACHEBLOCKSIZESHIFT.
constexpr int64_t JULIACACHETILEBYTES = 0x180000;

// ---------------------------------------------------------------- PREPIXELS

// A level that pixels of a buffer go on in from their own places (their
// level's pixel sat on a change of count): what a worker needs of it, taken
// on the main thread while the level is ready, so that a reset of the level
// meanwhile takes nothing from under the worker.
struct FROMPLACELEVEL {
  int level;
  unsigned int format;  // the level's number format, R_PREC*
  HFLOATCOMPLEX m;      // the level's Julia parameter
  HFLOATCOMPLEX lim;    // the attractor's trap
  HFLOAT rlim;
  ENVIRONMENT* e;       // its reference orbit, one reference; NULL none
};
constexpr int NFROMPLACE = 64;

// The link word comes after the pixels so that the pixels start the block.
struct PREPIXELS {
  PREPIXEL pixels[NPREPIXEL];
  PREPIXELS* volatile nextonstack;
  uint32_t flags;
  int nfromplace;
  FROMPLACELEVEL fromplace[NFROMPLACE];
};

// ---------------------------------------------------------------- JCFILE

struct JCFILE {
  FILE* file;  // closed at the last detach
  int count;
  uint64_t offset;  // where the tile data begin
};

// ---------------------------------------------------------------- JULIACACHE

// JULIACACHE.flags. A freed record keeps its slot but loses dirty and mipmap.
constexpr uint32_t JCF_FREE = 2;
constexpr uint32_t JCF_INMEMCHAIN = 4;
constexpr uint32_t JCF_DIRTY = 8;
constexpr uint32_t JCF_MIPMAP = 16;

// Arguments of locking a tile in memory: read its contents in, or make a slot
// for a new one; on unlocking, the contents have changed.
constexpr int JCLOCK_READ = 1;
constexpr int JCLOCK_CREATE = 4;
constexpr int JCUNLOCK_DIRTY = 1;

struct JULIACACHE {
  PREPIXEL* _data;  // the memory slot owned now
  PREPIXEL* data;   // valid contents; NULL while not in memory
  JCFILE* file;     // home in a stored fractal, or NULL
  uint64_t offset;
  int ijuliacache;  // index in its array, and slot in the temporary file
  CHAIN memchain;
  CHAIN delchain;
  int count;
  int memcount;  // locks against eviction
  JULIACACHE* nextrem;
  uint32_t flags;
};

// ---------------------------------------------------------------- operations
//
// juliacache.cpp (records, memory slots, locks, pixel buffers), juliaswap.cpp
// (the temporary file), juliacorrect.cpp (the correction and the channels).
// Everything here runs on the main thread unless its comment says otherwise.

struct OVCONTEXT;
struct WORKER;
struct AREA;
struct REALM;
typedef void (*WORKERPROC)(OVCONTEXT* context, WORKER* worker);

// Where a job of the Julia path keeps what it carries, beside the canvas
// job's slots (canvas.h).
constexpr int JOB_JULIACACHE = 15;        // pdata: JULIACACHE*, the stack tile the job writes or reads
constexpr int JOB_PREPIXELRESULT = 9;     // idata: the correction's answer, 0, 1 or 2
constexpr int JOB_JULIACACHELOCKED = 11;  // idata: 1 while the job holds a lock on its tile
// Where the channel step of the Julia path finds its parameters.
constexpr int JOB_PIXELSIZE = 13;  // idata: log2 of the pixel's side in the plane
constexpr int JOB_MITER = 3;       // idata: the Julia seed's count, negative in the interior
constexpr int JOB_BASE = 8;        // hdata: c of pixel (0, 0), or the Julia parameter

// A new tile record with `count` 1; NULL with "juliacache overflow.\n".
JULIACACHE* addjc(OVCONTEXT* context);
// A record for a tile stored in `file` at `offset` past the file's own
// offset; the record takes a reference to the file. NULL with
// "juliacachefile overflow.\n".
JULIACACHE* addjcfileoffset(OVCONTEXT* context, JCFILE* file, uint64_t offset);
void attachjc(JULIACACHE* jc);
// NULL is allowed. The last reference frees the record; its memory slot stays
// with it for reuse. The last record of the main array closes the temporary
// file, which then starts afresh.
void detachjc(OVCONTEXT* context, JULIACACHE* jc);
// The record behind a tile index as the correction program counts them
// (records of files after those of the main array); NULL out of range.
JULIACACHE* jcofindex(OVCONTEXT* context, int index);

// A stream of a stored fractal, one reference; NULL when `file` is.
JCFILE* addjcfile(FILE* file, uint64_t offset);
void attachjcfile(JCFILE* file);
// NULL is allowed; the last reference closes the stream.
void detachjcfile(JCFILE* file);
// `size` bytes at `offset` past the file's own offset; false on a short read.
bool readjcfile(JCFILE* file, uint64_t offset, void* data, size_t size);

// Pins a tile in memory: JCLOCK_READ reads its contents in, JCLOCK_CREATE
// makes a slot for contents yet to be written. False when neither gives the
// tile usable memory.
bool lockmemjuliacache(OVCONTEXT* context, JULIACACHE* jc, int flags);
// JCUNLOCK_DIRTY: the contents changed and must reach the file before the
// slot is reused. An unlocked tile with a slot may be evicted.
void unlockmemjuliacache(OVCONTEXT* context, JULIACACHE* jc, int flags);
// Gets a tile's contents to memory: from its stored file, or from the
// temporary file. False, with a line on standard error, on failure.
bool __readjuliacache(OVCONTEXT* context, JULIACACHE* jc);
// A memory slot for the tile: its own, a new one, or the slot of the oldest
// unlocked tile, written out first when dirty. NULL on failure.
PREPIXEL* __makememjuliacache(OVCONTEXT* context, JULIACACHE* jc);

// The temporary file (juliaswap.cpp). `juliaswapopen` creates it, emptied, if
// it is not open; the transfers move one whole tile at the tile's index, and
// are false on a short transfer or a closed file.
bool juliaswapopen(OVCONTEXT* context);
bool juliaswapwrite(OVCONTEXT* context, const JULIACACHE* jc, const void* data);
bool juliaswapread(OVCONTEXT* context, const JULIACACHE* jc, void* data);
void juliaswapclose(OVCONTEXT* context);
// Positioned transfers of `count` bytes, retried until complete; the number
// of bytes moved, less than `count` on failure.
size_t jcpread(int fd, void* data, size_t count, uint64_t offset);
size_t jcpwrite(int fd, const void* data, size_t count, uint64_t offset);

// Pixel buffers. `addprepixels` may run on any thread: a free buffer, a new
// one while `iprepixels` < `nprepixels`, else NULL. `removeprepixels` (NULL
// allowed) gives one back and hands it to the first parked worker, which is
// dispatched with it in `prepixels`; `waitforprepixels` parks a worker that
// found none, to be dispatched as it stands once a buffer is free.
PREPIXELS* addprepixels(OVCONTEXT* context);
void removeprepixels(OVCONTEXT* context, PREPIXELS* p);
void waitforprepixels(OVCONTEXT* context, WORKER* worker);
// Shutdown: every parked worker is sent on, stopped, so that it goes home.
void releaseprepixelwaiters(OVCONTEXT* context);

// ---------------------------------------------------------------- correction

// Resolves one pixel against `realm`'s stack in place while it names a
// ready level: 0 done, 1 a level is not ready, 2 a tile is absent (or not in
// memory without `loadfromcache`). Any thread with `loadfromcache` false.
int juliacorrectp(OVCONTEXT* context, REALM* realm, PREPIXEL* p, bool loadfromcache);
// An area with pixels: waits for its level, corrects on a worker, or joins
// the correction program.
void prejuliacorrect(OVCONTEXT* context, AREA* a, bool usecache);
// Adds the pixels of tile `pixels` of level `jsti` of `realm` to the program
// as a target; the level is finished (`juliastack`) once the program has run.
// The realm is held until then.
void addjuliacorrecttarget(OVCONTEXT* context, REALM* realm, int jsti, PREPIXEL* pixels);
// An area's pixel whose level's pixel sat on a change of count leaves the
// correction marked JULIAFROMPLACE + level (juliastack.h), its place in that
// level's units, and goes on from there in the level's number format, as a
// level's own such pixels do. Main thread: `takefromplacelevels` takes what
// the levels so named hold into the buffer, true when there is any such
// pixel; one whose level cannot be had is left unknown. A worker then
// finishes them (`iteratefromplace`, false when stopped meanwhile).
// `releasefromplacelevels`, on any thread, gives the levels back;
// `removeprepixels` does it.
bool takefromplacelevels(OVCONTEXT* context, REALM* realm, PREPIXELS* pp);
bool iteratefromplace(OVCONTEXT* context, PREPIXELS* pp, volatile bool* stop);
void releasefromplacelevels(OVCONTEXT* context, PREPIXELS* pp);
// Runs the program: each tile is read once, however many buffers need it.
void finishjuliacorrect(OVCONTEXT* context);
// The area's pixels are final: its channels are made on a worker.
void areajuliacorrectok(OVCONTEXT* context, AREA* a);
void worker_juliacorrect(OVCONTEXT* context, WORKER* worker);
void worker_juliacorrect_return(OVCONTEXT* context, WORKER* worker);

// One tile of PREPIXEL to channel buffers (nine, NULL skipped), rows of 256.
// `depth` is log2 of a pixel's side; (cx, cy) is c of pixel (0, 0) or, with
// `julia`, the Julia parameter; `lim`, `r` the attractor's trap; a negative
// `miter` folds a Julia interior count to its phase in the cycle.
void prepixel2pixel(OVCONTEXT* context, const PREPIXEL* pixels, float** texture, int depth,
                    bool julia, double cx, double cy, double limx, double limy, double r,
                    ITER miter);

// The finishing of a level whose tiles the program has corrected: the
// stack's `juliastack`, through a pointer that a test may replace to watch
// the program's word.
typedef void (*JULIASTACKHOOK)(OVCONTEXT* context, REALM* realm, int s);
extern JULIASTACKHOOK juliastackhook;

// ---------------------------------------------------------------- jobs of the Julia path
//
// canvasjob.cpp. A job of the Julia path is laid out as a canvas job, and
// `freecanvascalcworker` gives back all it holds.

// Worker thread: a canvas rendered as PREPIXELs, corrected at once where the
// stack has the tiles in memory, into the job's tile (JOB_JULIACACHE) or its
// pixel buffer; the answer in idata[JOB_PREPIXELRESULT].
void worker_canvas_calc_inner(OVCONTEXT* context, WORKER* worker);
// Worker thread: an area's job on the Julia path; takes a pixel buffer
// first, or waits for one on the main thread.
void worker_canvas_calc_juliacorrect(OVCONTEXT* context, WORKER* worker);
void worker_canvas_calc_inner_return(OVCONTEXT* context, WORKER* worker);
// Main thread: an area of a Julia realm drawn from its level's tile.
void worker_renderinner(OVCONTEXT* context, WORKER* worker);
// Worker thread: the channels of an area from its pixel buffer, or from a
// locked stack tile.
void worker_prepixel2pixel(OVCONTEXT* context, WORKER* worker);
void worker_prepixel2pixeljc(OVCONTEXT* context, WORKER* worker);
void worker_prepixel2pixel_return(OVCONTEXT* context, WORKER* worker);
// Main thread: a job that found no buffer takes one or is parked.
void worker_waitforprepixels(OVCONTEXT* context, WORKER* worker);
// Main thread: a job that makes the channels of `a` from `pixels` (moved into
// the job), with one locked tile per channel; NULL when the pools ran dry.
// `a->worker` is left to the caller.
WORKER* prepixel2pixeljob(OVCONTEXT* context, AREA* a, PREPIXELS* pixels, WORKERPROC proc);
// Makes the job's channels from `pixels` with the parameters it carries.
void prepixel2pixelofjob(OVCONTEXT* context, WORKER* w, const PREPIXEL* pixels);
// An area that goes while its pixels are in the program: the buffer stays
// with the program, which gives it back when it has run.
void juliacorrectforget(OVCONTEXT* context, AREA* a);
// A fresh job's payload: no references held, no level named, no lock.
void clearjob(WORKER* w);
