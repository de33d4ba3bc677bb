// displaygl.h: a viewport drawn with GL, off-screen. The newest draw list of
// a view is drawn at once (no GL display list) under the transform that
// shows it now and with its colour scheme's program; the host owns the
// context, the framebuffer and the GL textures of the tiles.
//
// Threads: the thread whose GL context is current. Include the GL loader
// (glad) before this header.
#pragma once

#include "Mandelbrot.h"
#include "MandelbrotColorscheme.h"

// Draws the list `list` of `viewport` with the program in use: per rectangle
// its tiles bound from unit 2 upward (`texture` maps a tile's `texture` index
// to its GL name) and its `correction` in the colour's alpha.
void __renderdisplaylist(OVCONTEXT* context, VIEWPORT* viewport, int list, const GLuint* texture);

// One frame of `viewport` into the rectangle (x, y, w, h) of the present
// framebuffer, counted from its lower left: cleared to transparent black,
// then the newest list under its scheme, whose program is left in use and
// stored in `*currentshader`. `time` is the clock for the navigator's
// extrapolation and the palette (0: none). False when there was nothing to
// draw: no list yet, a stopped view or no scheme.
bool __drawviewport(OVCONTEXT* context, GLuint* currentshader, VIEWPORT* viewport, Params* params,
                    double time, int x, int y, int w, int h, const GLuint* texture, vec2 offset);

// One rectangle of a draw list with the tiles bound: its four corners with
// their texture coordinates, and its `correction` in the colour's alpha
// (scaled by 2^-32 into the colour's range).
void renderdrawrect(const DRAWRECT& dr);

// A tile's GL texture on texture unit `unit`, read texel for texel (nearest,
// clamped to its edge): a scheme's smoothing is its own.
void bindtile(int unit, GLuint name);
