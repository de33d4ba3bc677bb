// canvas/render.h: the output of a finished canvas. `rendercanvas` paints the
// cell tree into channel tiles of floats, which the colour schemes read on
// the graphics card; `rendercanvasprepixel` turns it into PREPIXEL records,
// which the Julia stack consumes. Closed cells are painted as blocks: a leaf
// takes its count from its top-left corner, and an interior block its values
// from the cubic through its four corners.
//
// `smoothiter`, `distm`, `distj` and `dist2` go on from an escaped state to
// the smooth count and the distance estimates. All of it is written once over
// the number format like model.h, each operation reachable by its suffixed
// name (`rendercanvas_double`).
//
// Threads. The canvas's worker thread only. The pixel buffers are the
// caller's, and only the pixels of the tile are written: 256 rows of 256
// floats, `xlag` apart.
#pragma once

#include "../Mandelbrot.h"
#include "../juliacache.h"
#include "model.h"

struct REALM;

// ---------------------------------------------------------------- channels

// A tile's channels, by bit of AREA.channels; `rendercanvas` takes one buffer
// per index, null for a channel nobody asked for.
constexpr int CHANNEL_ITER = 0;         // count * 2^-30
constexpr int CHANNEL_VALUEX = 1;       // Re z
constexpr int CHANNEL_VALUEY = 2;       // Im z
constexpr int CHANNEL_COUNT = 3;        // count, unscaled
constexpr int CHANNEL_DIST = 4;         // distance estimate, grid steps
constexpr int CHANNEL_DERIVATIVEX = 5;  // Re dz, grid steps
constexpr int CHANNEL_DERIVATIVEY = 6;  // Im dz
constexpr int CHANNEL_DIST2 = 7;        // (2 - |z|) / |dz|, at least 0
constexpr int CHANNEL_SMOOTHITER = 8;   // smoothed count

constexpr unsigned int CHANNELMASK_ITER = 1u << CHANNEL_ITER;
constexpr unsigned int CHANNELMASK_VALUEX = 1u << CHANNEL_VALUEX;
constexpr unsigned int CHANNELMASK_VALUEY = 1u << CHANNEL_VALUEY;
constexpr unsigned int CHANNELMASK_COUNT = 1u << CHANNEL_COUNT;
constexpr unsigned int CHANNELMASK_DIST = 1u << CHANNEL_DIST;
constexpr unsigned int CHANNELMASK_DERIVATIVEX = 1u << CHANNEL_DERIVATIVEX;
constexpr unsigned int CHANNELMASK_DERIVATIVEY = 1u << CHANNEL_DERIVATIVEY;
constexpr unsigned int CHANNELMASK_DIST2 = 1u << CHANNEL_DIST2;
constexpr unsigned int CHANNELMASK_SMOOTHITER = 1u << CHANNEL_SMOOTHITER;
// The channels an interior block fills from its corners' cubics (118).
constexpr unsigned int CHANNELMASK_BLOCK = CHANNELMASK_VALUEX | CHANNELMASK_VALUEY |
                                           CHANNELMASK_DIST | CHANNELMASK_DERIVATIVEX |
                                           CHANNELMASK_DERIVATIVEY;

// 2^-30: the scale of CHANNEL_ITER, which keeps counts of a billion within
// what a colour scheme handles comfortably.
constexpr float CHANNELITERSCALE = 9.313226e-10f;

// ---------------------------------------------------------------- Julia correction

// How a PREPIXEL is resolved against the Julia stack at once: the pixel in
// place; 0 done, 1 level not ready, 2 tile absent. The correction lives with
// the Julia cache; until it is installed here the hook is null, and
// `rendercanvasprepixel` keeps its records as they are and answers 0.
typedef int (*JULIACORRECTP)(OVCONTEXT* context, REALM* realm, PREPIXEL* pixel,
                             bool loadfromcache);
extern JULIACORRECTP juliacorrectphook;

// ---------------------------------------------------------------- operations

namespace canvasrender {

// Paints the cell tree of a finished canvas into the nine buffers of
// `pixels` (null entries skipped), rows `xlag` floats apart.
template <typename T>
void rendercanvas(OVCONTEXT* context, typename T::CANVAS* canvas, float** pixels, int xlag);

// Writes one PREPIXEL per pixel, rows `xlag` records apart. With
// `juliacorrect` each record that names a level goes through the correction
// at once; the result is 2 if any pixel answered 2, else the first non-zero
// answer, else 0. The highest level named is kept in the job's
// idata[JOB_PREPIXELDEPTH].
template <typename T>
int rendercanvasprepixel(OVCONTEXT* context, typename T::CANVAS* canvas, PREPIXEL* pixels,
                         int xlag, bool juliacorrect);

// The count smoothed by the continued orbit of z under z^2 + c from `iter`
// (at most 200 steps, to |z|^2 > 1e10); a negative `iter` comes back as it
// is, and the result of a non-negative one is never negative.
template <typename T>
float smoothiter(typename T::COMPLEX z, typename T::COMPLEX c, ITER iter);

// The exterior distance estimate sqrt(L) log(L) / (2 |d|), L = |z|^2, after
// continuing z' = z^2 + c, d' = 2 z d + df to |z|^2 > 1e10 (at most 200
// steps). In the units of d.
template <typename T>
double distm(typename T::COMPLEX z, typename T::COMPLEX d, typename T::COMPLEX c,
             typename T::FLOAT df);

// The same for a Julia set, d' = 2 z d, at most 20 steps; 0 for iter < 1.
// `lim` and `r` are the attractor's trap, which the estimate does not need.
template <typename T>
double distj(typename T::COMPLEX z, typename T::COMPLEX d, typename T::COMPLEX c, ITER iter,
             typename T::COMPLEX lim, typename T::FLOAT r);

// (2 - |z|) / |d|, at least 0.
template <typename T>
float dist2(typename T::COMPLEX z, typename T::COMPLEX d);

}  // namespace canvasrender

// ---------------------------------------------------------------- the suffixed names

#define ORVANTA_RENDERNAME(name)                                                                \
  inline constexpr auto& name##_float = canvasrender::name<CANVASTEMPLATE_float>;           \
  inline constexpr auto& name##_double = canvasrender::name<CANVASTEMPLATE_double>;         \
  inline constexpr auto& name##_longdouble = canvasrender::name<CANVASTEMPLATE_longdouble>; \
  inline constexpr auto& name##_hfloat = canvasrender::name<CANVASTEMPLATE_hfloat>;

ORVANTA_RENDERNAME(rendercanvas)
ORVANTA_RENDERNAME(rendercanvasprepixel)
ORVANTA_RENDERNAME(smoothiter)
ORVANTA_RENDERNAME(distm)
ORVANTA_RENDERNAME(distj)
ORVANTA_RENDERNAME(dist2)

#undef ORVANTA_RENDERNAME
