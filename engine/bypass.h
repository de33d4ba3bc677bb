// bypass.h: deep levels of a Julia stack made from shallower ones by one
// cubic per pixel, and the lookup that follows a point down the stack.
//
// Level s is the square of half-width 2^(1-s) around 0. A point z of the
// plane is written in the units of level d as z 2^d, so a level's picture
// spans -2..2 and a pixel of it is 4 / juliasize units wide. A PREPIXEL that
// goes on in level d carries its place (x, y) in those units and the
// derivative of that place by its own start in its own level's units; a
// finished one (depth -1) carries the orbit value and the derivative in
// plane units per pixel of the level it started in.
//
// Threads. `bypass` reads its arguments and writes its tile: any thread.
// `bypassp` and `juliastacklookup` read the level data of ready levels, which
// the main thread changes only in a reset, when no reader can be in flight.
#pragma once

#include "Mandelbrot.h"

// Fills the 256 x 256 pixels of the tile of a level whose lower corner is
// `cf` (plane units) and whose canvas depth is `depth` (a pixel is
// 2^(-4-depth) wide). The level's series `taylor` (t0..t3) holds for `iter`
// iterations; a pixel is sent through it to the level its value falls in,
// at most `maxjuliastack` (the level above the tile's own), and out of the
// stack (depth -1) when it falls beyond level 0.
void bypass(OVCONTEXT* context, int maxjuliastack, int depth, HFLOATCOMPLEX cf, PREPIXEL* prepixels,
            const HFLOATCOMPLEX* taylor, ITER iter);

// Takes the pixels of a tile of bypass level `s` whose value fell into the
// level itself or deeper on through the cubic again, as long as the level
// they fall in is one of s..`sameuntil`, which share this cubic: such a
// value is a start point of that level. A value that enters the seed's
// trap (within `rlim` of `lim`; none when `rlim` is 0) is finished as
// interior, its count negative, wherever it lies. What still names level s or deeper stays
// for the level's finishing.
void bypassdeeper(OVCONTEXT* context, int s, int sameuntil, PREPIXEL* prepixels,
                  const HFLOATCOMPLEX* taylor, ITER iter, HFLOATCOMPLEX lim, HFLOAT rlim);

// Do bypass levels a and b share one cubic (the same point, count and
// series)? The deepest level from s on down to which all levels share level
// s's cubic, at most `maxjuliastack`.
bool juliastacksamecubic(const JULIASTACKDATA* a, const JULIASTACKDATA* b);
int juliastacksameuntil(const REALM* realm, int s);
// The radius of the seed's trap that a level's pixels may fall in: its
// attractor's (`rlim`) for an interior seed, 0 for none.
HFLOAT juliastacktrapradius(const JULIASTACKDATA* L);

// One pixel of bypass level `i` of `realm` at (x, y) in the level's units,
// computed on demand where the level keeps no tile.
PREPIXEL bypassp(OVCONTEXT* context, REALM* realm, int i, float x, float y);

// The level a value falls in, the value in its units: d = 1 - E for a value
// whose larger part lies in [2^(E-1), 2^E), at most `maxlevel`, where a value
// near 0 is scaled for the deepest level allowed. 0 goes to level 1 (or the
// deepest allowed) at the origin. Negative when the value lies beyond level 0.
int juliastacklevel(HFLOATCOMPLEX v, int maxlevel, double* x, double* y);

// Follows the point (x, y) of `level` down the stack to a finished pixel or
// to a level beyond `ready`, adding counts on the way: the state reached,
// with `iter` counted on top of the given one. A level outside 0..ready
// gives an empty result (count 0, depth -1).
PREPIXEL juliastacklookup(OVCONTEXT* context, REALM* realm, int level, float x, float y, ITER iter,
                          int ready);

// Finishes a deep iteration that stopped inside the stack (`info.lookup`):
// its count, value and derivatives go on through the levels up to `ready`,
// and its distances are made anew.
void juliastacklookupex(OVCONTEXT* context, REALM* realm, int ready, ITERINFO* info);

// Where `worker_bypass` finds its tile's parameters.
constexpr int BYPASS_LEVEL = 0;   // idata
constexpr int BYPASS_DEPTH = 1;   // idata: canvas depth of the tile
constexpr int BYPASS_ITER = 2;    // idata: the series' count
constexpr int BYPASS_X = 3;       // idata: tile column
constexpr int BYPASS_Y = 4;       // idata: tile row
constexpr int BYPASS_MAXLEVEL = 5;  // idata: deepest level a pixel may name
constexpr int BYPASS_SAMEUNTIL = 6; // idata: deepest level that shares the cubic
constexpr int BYPASS_CF = 0;      // hdata: lower corner
constexpr int BYPASS_TAYLOR = 1;  // hdata 1..4: t0..t3
constexpr int BYPASS_TRAP = 5;    // hdata: the seed's attractor
constexpr int BYPASS_TRAPRADIUS = 6;  // hdata: its trap radius, real part
constexpr int BYPASS_TILE = 0;    // pdata: JULIACACHE*, locked, one reference
constexpr int BYPASS_REALM = 1;   // pdata: REALM*, attached

// Worker thread: a tile of a bypass level; goes home as `worker_bypass_return`.
void worker_bypass(OVCONTEXT* context, WORKER* worker);
// Main thread: the tile is in; the level goes on when it was its last.
void worker_bypass_return(OVCONTEXT* context, WORKER* worker);

// Where `worker_bypass2` finds an area's parameters: the bypass's own slots,
// the area in pdata[BYPASS2_AREA] and its pixel buffer in `prepixels`.
constexpr int BYPASS2_AREA = 2;  // pdata: AREA*
// Worker thread: the pixels of an area of a Julia realm at a bypass level
// straight from the level's series; without a pixel buffer it parks itself
// until one is free.
void worker_bypass2(OVCONTEXT* context, WORKER* worker);
// Main thread: the area's pixels go on through the correction.
void worker_bypass2_return(OVCONTEXT* context, WORKER* worker);

// The seed of a view's Julia realm follows the view's centre. `julia` posts
// `worker_julia` for the view (not while the engine stops). On the main
// thread `worker_julia` locks the realm's point (R_LOCKJULIAPOINT), stops an
// idle run the view does not have to wait for, and waits on the view's
// `movemsg` while the view is idle or moving or has no environment; then it
// runs `__julia` at the view's centre and zoom.
void julia(OVCONTEXT* context, VIEWPORT* viewport);
void worker_julia(OVCONTEXT* context, WORKER* worker);
// Main thread: the realm's point becomes m (its run against the view's
// environment gives `info`, `neededjuliastack`), the levels whose radius no
// longer holds m are dropped, and the views of the realm are invalidated.
// Nothing happens when the view has no environment.
void __julia(OVCONTEXT* context, VIEWPORT* viewport, const HPVALUE* m, HFLOATCOMPLEX zoom);
