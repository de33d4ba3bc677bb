// juliastack.h: the set-up and tear-down of a realm's Julia stack where the
// area tree calls it: the levels' block, the marks of the stack's grid in
// the tree (`xinner`, `yinner`), and the copy and the freeing of levels.
//
// Everything here runs on the main thread, which owns levels and areas.
#pragma once

#include <atomic>

#include "Mandelbrot.h"

// Allocates the NJULIASTACK levels of `realm` in one block and clears them:
// no level anchored, started or ready. Prints "initjuliastack: fatal error
// juliastack!=NULL." and does nothing when the realm has a stack already.
void initjuliastack(OVCONTEXT* context, REALM* realm);

// Gives the new stack of `to` the levels of `from` with their references:
// finished levels with their tiles, the others with their anchor only, and
// `bypassjc` in the order of `from`'s. A source without a stack leaves a
// cleared one.
void copyjuliastack(OVCONTEXT* context, REALM* to, const REALM* from);

// Frees every level with its references and the block. A tile still in work
// prints "removerealm: FATAL ERROR. Still computing.\n" and has its job
// stopped.
void freejuliastack(OVCONTEXT* context, REALM* realm);

// Subdivides the realm's top and marks the stack's grid in its four
// quadrants, from the tiles at 0 outward, down to the depth of level d.
void juliaprepare(OVCONTEXT* context, REALM* realm, int d);

// `a` is a quadrant of its realm's top, and (xinner, yinner) the tile of
// level 0 at its corner at 0. Subdivides down to the depth of level 0 where
// the quadrant meets the stack's square and marks every tile of level 0 in
// it, then builds the path of the tiles at 0 down to `maxdepth`, subdivision
// marking each level's tiles.
void initjuliatop(OVCONTEXT* context, AREA* a, int xinner, int yinner, int maxdepth);

// Marks `a` with its place in the stack's grid, -1 for both when the place
// lies outside the grid, and passes the marks on to the children it has.
void __initjuliatop(OVCONTEXT* context, AREA* a, int xinner, int yinner);

// The children of an area in the stack's grid get their places from it:
// (2 xinner - h, 2 yinner - h) for child 0 and one step along x, both and y
// for children 1, 2 and 3, h being half the tiles along a level's side.
// Nothing happens for an area outside the grid or above level 0.
void placejuliachildren(OVCONTEXT* context, AREA* a);

// ---------------------------------------------------------------- levels at work
//
// juliastackcompute.cpp, juliastackfinish.cpp, juliastackresolve.cpp. All on
// the main thread unless said otherwise; a level's states: unset (no `m`),
// anchored, computing (`nworker`), waiting (`jswait`), finishing (`worker`),
// ready (s <= `readyjuliastack`).

// The mark of a pixel whose end is another pixel of its own level. A pixel
// of a level's tile that came nearer 0 than the level itself carries the
// mark plus 1 + how many levels deeper it is: such marks are negative and
// out of the correction's way, and the finishing worker iterates those
// pixels from their own, finer place.
constexpr int JULIASAMELEVEL = static_cast<int>(0x80000000u);
// Marks the pixels of a tile of level s that end in the level or deeper.
void markjuliasamelevel(PREPIXEL* pixels, int s);
// The mark of a level's pixel handed to a shallower level d onto a pixel
// whose neighbours' counts differ from its own by more than 1: the count
// changes within that pixel, so its centre's end may not be this point's.
// The mark is JULIAFROMPLACE + d, (x, y) stays the place in level-d units,
// and the finishing worker iterates the pixel from there.
constexpr int JULIAFROMPLACE = JULIASAMELEVEL + 2 * NJULIASTACK + 16;
inline bool isjuliafromplace(int depth) {
  return depth >= JULIAFROMPLACE && depth < JULIAFROMPLACE + NJULIASTACK;
}
// Is pixel k of a ready level's tile on a change of count: a neighbour in
// the tile with the other sign, or a count more than 1 away?
bool juliacountedge(const PREPIXEL* tile, int k);

// Drops level s: its workers stopped, its tiles and mipmap given back, the
// areas that waited for it computed afresh.
void resetjuliastack(OVCONTEXT* context, REALM* realm, int s);
// Resets every level above `readyjuliastack`; the marks come down to it.
void stopjuliastackcomputation(OVCONTEXT* context, REALM* realm);
// `validjuliastack` becomes vjst and levels up to it are started; with
// `erase` all levels above vjst are dropped first.
void adjustjuliastack(OVCONTEXT* context, REALM* realm, int vjst, bool erase);
// Starts every tile of level s not yet made; false when the level has no
// anchor or a tile cannot be had.
bool computejuliastack(OVCONTEXT* context, REALM* realm, int s);
// All tiles of level s are in: they are corrected against the levels below,
// or the level waits for the level below to be ready.
void prejuliastack(OVCONTEXT* context, REALM* realm, int s);
// Posts the finishing worker of level s; one runs at a time.
void juliastack(OVCONTEXT* context, REALM* realm, int s);
// Runs the finishing worker at the head of the queue: for `worker_juliastack`
// the level is copied and its tiles locked first.
void dispatch_juliastack_worker(OVCONTEXT* context);
// Shutdown, with the main thread joined: every finishing worker queued or
// running is stopped and the unfinished levels of its realm are dropped;
// each worker goes home without finishing its level.
void stopjuliastackworkers(OVCONTEXT* context);
// Worker thread: resolves the pixels of a level that end inside the level.
void worker_juliastack(OVCONTEXT* context, WORKER* worker);
// Main thread: the level is ready.
void worker_juliastack_return(OVCONTEXT* context, WORKER* worker);
// The mipmap of level s: one tile of every 2^(juliasizeshift - 8)th pixel.
// False when a tile cannot be locked.
bool juliamipmap(OVCONTEXT* context, REALM* realm, int s);
// Frees the oldest cheap tile of the realm (on `bypassjc`).
void muckoutjuliastack(OVCONTEXT* context, REALM* realm);
// Is level s anchored to a periodic environment that reaches it?
bool isgeneral(const JULIASTACKDATA* jstd, int s);
// Main thread: a canvas job for a tile of a level is back; the level learns
// of it (the job is freed by the caller).
void juliastacktilereturn(OVCONTEXT* context, WORKER* worker);
// Main thread: a canvas job for a tile of a level could not run; the level
// cannot finish, and the stack falls back to the level below.
void juliastacktilefailed(OVCONTEXT* context, WORKER* worker);

// An area of a Julia realm needs the levels down to its depth
// (`pdata[0]` the area, attached realm in `pdata[1]`).
void worker_requestjuliastack(OVCONTEXT* context, WORKER* worker);
// The area waits for level `jst` of `realm`; it is processed when it is ready.
void waitforjuliastack(OVCONTEXT* context, REALM* realm, AREA* a, int jst);
// The level of `realm`'s stack an area needs before it is computed: the
// level of its pixel size, at least 0, no deeper than the seed's own radius
// asks for (`neededjuliastack`) nor than the stack holds.
int juliaarealevel(const OVCONTEXT* context, const REALM* realm, const AREA* a);
// Main thread, the first step of `processarea` for an area of a Julia realm
// that corrects through its stack: while the level the area needs is not
// ready, the area is set aside. It waits on the level when the level has
// been asked for (`juliajuliastack`); otherwise `worker_requestjuliastack`
// is posted and holds the area as its worker until it has run. True when
// the area was set aside; false when it is to be computed now: its level is
// ready, or the realm has no stack, no point, no environment, or the idle
// system is at work on the stack.
bool juliastackdefer(OVCONTEXT* context, AREA* a);

// The deepest level of a Julia realm's stack to which a tile of a general
// view may hand its pixels: ready, and valid for the view (within
// `validjuliastack`, whose radius holds the whole view); -1 when there is
// none.
int juliastackusable(const REALM* realm);
// The level to which a general view's tile at area depth `depth`, computed
// against environment `e`, hands its pixels, -1 when it had better iterate
// them itself: a pixel reaches the stack only once its image has outgrown a
// pixel of that level, so levels far shallower than the tile skip almost
// nothing of a deep orbit, and the correction would only cost the tile its
// closed cells. Only a periodic environment promises orbits that come back
// near 0 again and again, where the stack's lookups skip whole periods.
int juliastackhandoff(const REALM* realm, int depth, const ENVIRONMENT* e);
// Off by default, and then no general tile hands its pixels on: a level
// holds the outcomes for the seed's parameter alone, and next to a
// minibrot the orbit after the hand-off comes back near 0 every period,
// each time with the pixel's own parameter difference amplified by the
// period's derivative. The levels' radii (their square law) do not see
// that: at a view of width 2^-72 next to a period-32 minibrot, levels
// whose radius held the view 2^24 times over still changed 7% of the
// counts, the deepest usable level 73%. Set before the engine starts.
extern bool juliahandoffperiodic;

// General tiles whose pixels went on in the stack, over the whole process:
// `tiles` whose job named a level, and the deepest level named in each,
// summed in `levels`. Whether the hand-off happens at all is invisible in
// the counts, which must not change; this says it did.
struct JULIAHANDOFFTALLY {
  std::atomic<long> tiles{0};
  std::atomic<long> levels{0};
  void clear() {
    tiles.store(0);
    levels.store(0);
  }
};
JULIAHANDOFFTALLY& juliahandofftally();

// The number format that resolves what remains of level s: the realm's
// forced format (R_PRECMASK), else double to level 124, long double below
// 1600, HFLOAT beyond. A format's MODE (16, 32, 48, 64).
unsigned int juliastackformat(unsigned int realmflags, int s);
// Any thread: resolves level s held in `jstd` (tiles in memory) with the
// scratch `jsref`, `jsnext` of the context: same-level pixels take the end of
// their target, and what remains is iterated in `format`. Returns how many
// pixels had to be iterated; -1 when `stop` was seen.
int resolvejuliastacklevel(OVCONTEXT* context, const JULIASTACKDATA* jstd, int s, unsigned int format,
                           volatile bool* stop);

// After a move: the levels below the view's `idle_jst` take the best
// environments of its `echain`, `esat` or `enonsat`, and the levels whose
// radius holds the view are started; `validjuliastack` becomes the last of
// them (VPCALLBACK_JSTFINISH when it is ready already).
void extendjuliastack(OVCONTEXT* context, VIEWPORT* viewport);

// A periodic environment of the view fills the levels of its Julia realm
// above `validjuliastack` in one pass over its orbit (once: E_STACKED): each
// level's `iter`, `taylorj`, `r`, `bypass` as the idle search finds them
// along that orbit, its point e's, anchored to e. Levels whose radius holds
// the view are started. Without E_PERIODIC only the levels above the valid
// one are dropped.
void environmentjuliastack(OVCONTEXT* context, VIEWPORT* viewport, ENVIRONMENT* e);
// How many levels from 0 hold the view: their radius is set, at least the
// view's, and their point lies within it of the view's centre. With `report`
// a level with a radius and no point prints "moved: jstd->m==NULL".
int juliastacklevelsholding(VIEWPORT* viewport, REALM* realm, bool report);

// The environment a Julia realm's point is followed with; null drops it.
void setrealmenv(OVCONTEXT* context, REALM* jr, ENVIRONMENT* e);
