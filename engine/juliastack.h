// juliastack.h: the set-up and tear-down of a realm's Julia stack where the
// area tree calls it: the levels' block, the marks of the stack's grid in
// the tree (`xinner`, `yinner`), and the copy and the freeing of levels.
//
// Everything here runs on the main thread, which owns levels and areas.
#pragma once

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
