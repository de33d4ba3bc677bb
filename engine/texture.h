// texture.h: the display's side of the data. A TEXTURE is one 256 x 256 tile
// of floats of one channel of one area; its record may exist, in an area,
// without pixels, since the storage (pixel buffer and GL texture) is a smaller
// pool that records borrow from and can lose. A DRAWRECT is one tile
// rectangle of a viewport's draw list; DRAWLISTS is the part of a viewport
// that holds its three lists and hands them to the display.
//
// Threads. Records, their chains and the draw lists are built on the main
// thread without locks. The GL side reads only `pixels`, `texture` and
// `flags` of tiles that are locked; the display reads, and never writes, the
// DRAWRECTs of the list it has taken.
//
// Operations: textures.cpp (records, storage, chains, upload), drawlist.cpp
// (the lists and their exchange with the display).
#pragma once

#include <cstdint>

#include "Array.h"
// Mandelbrot.h includes this header after its constants and forward
// declarations, which are all this header takes from it.
#include "Mandelbrot.h"

struct AREA;

// One tile: 256 x 256 texels of one 32-bit float.
constexpr int TEXTURESIZESHIFT = 8;
constexpr int TEXTURESIZE = 1 << TEXTURESIZESHIFT;
constexpr int TEXTUREBYTESSHIFT = 18;
constexpr int64_t TEXTUREBYTES = int64_t{1} << TEXTUREBYTESSHIFT;

// TEXTURE.flags. A free record carries T_FREE alone.
constexpr uint32_t T_USED = 1;
constexpr uint32_t T_FREE = 2;
constexpr uint32_t T_INDELCHAIN = 0x800;
constexpr uint32_t T_INMEMCHAIN = 0x1000;
constexpr uint32_t T_GLVALID = 0x2000;  // the pixels have reached the GL texture: drawable

struct TEXTURE {
  void* pixels;    // TEXTUREBYTES, or NULL when the record holds no storage
  int64_t offset;  // index * TEXTUREBYTES, kept for a disk cache of tiles
  int texture;     // GL texture index that goes with `pixels`, -1 if none
  CHAIN chain;     // deletion chain
  CHAIN glchain;
  CHAIN memchain;  // reusable-storage chain
  AREA* area;      // NULL once the area drops it
  int count;
  int memcount;
  uint32_t computecycle;
  TEXTURE* nextrem;
  uint32_t flags;
};

struct DRAWRECT {
  float correction;  // screen pixels per texel when the list was built
  float c[4][2];     // corners (0,0), (side,0), (side,side), (0,side) of the area
  int x0;            // sub-square of the tile, in texels
  int y0;
  int x1;
  int y1;
  float epsilon;  // texel to texture coordinate
  int ichannels;
  TEXTURE* texture[NCHANNELS];  // packed, rising channel order
  int channel[NCHANNELS];
};

// ---------------------------------------------------------------- draw lists

constexpr int NDISPLAYLISTS = 3;

// The draw-list part of a viewport. A VIEWPORT derives from it, so the names
// stay the viewport's own; `activechain` is the viewport's link on
// `vpactivechain`, which is how the storage steps below find the lists they
// may sacrifice under memory pressure.
//
// `activelist` and `listslocked` are written by the display alone,
// `toactivatelist`, `cslist`, the counts and the rectangles by the main
// thread alone. The main thread never writes the list the display holds.
struct DRAWLISTS {
  DRAWRECT* drawrect[NDISPLAYLISTS];
  volatile unsigned int idrawrect[NDISPLAYLISTS];
  volatile unsigned int ndrawrect[NDISPLAYLISTS];  // nmemtexture * 4 each
  volatile int activelist;                          // the display's; -1 before the first
  volatile int toactivatelist;                      // newest finished; -1 before the first
  volatile bool listslocked;                        // the display is inside a frame
  CHAIN activechain;
  volatile uint32_t cslist[NDISPLAYLISTS];  // coordinate step each list was built in
};

// What the tree walk reads of its viewport, once per draw.
struct DRAWVIEW {
  unsigned int channels;    // bit i: `texture[i]` of an area
  unsigned int resolution;  // longer side of the screen in pixels
  HFLOATCOMPLEX zoom;
  HFLOAT zoomabs;
};

// ---------------------------------------------------------------- upload worker
//
// The payload of `worker_canvas_gentexture`: the area, the realm it holds a
// reference to, and per channel the tile it carries (NULL for none), each
// with a reference and a lock of its storage.
constexpr int GENTEXTURE_AREA = 0;
constexpr int GENTEXTURE_REALM = 1;
constexpr int GENTEXTURE_TEXTURE = 2;  // pdata[GENTEXTURE_TEXTURE + channel]

// ---------------------------------------------------------------- records and storage
//
// Main thread, except worker_canvas_gentexture (the GL side), uploadperframe
// and serveglqueue (the frame loop's).

// A new tile of `a`, with one reference; NULL with "texture overflow.\n"
// when no record can be reclaimed.
TEXTURE* addt(OVCONTEXT* context, AREA* a);
void attacht(TEXTURE* t);
// NULL is allowed. The last reference takes the tile out of its area and
// gives the record back; storage it holds stays reusable.
void detacht(OVCONTEXT* context, TEXTURE* t);
// Makes sure `t` has storage, taking it from the oldest unlocked tile if
// need be, and locks it. Without any storage to take the tile stays without
// (see DECISIONS: the lock is counted all the same).
void lockmemtexture(OVCONTEXT* context, TEXTURE* t);
void unlockmemtexture(OVCONTEXT* context, TEXTURE* t, bool glvalid);
// Files `t` in the chains, or takes it out, after its area's priority changed.
void checktexturestatus(OVCONTEXT* context, TEXTURE* t);
// `a` lets go of its tile of `channel`: the slot is cleared, the tile no
// longer names the area, and the area's reference is dropped.
void droptexture(OVCONTEXT* context, AREA* a, int channel);

// Drops every reference that list `list` holds and empties it.
void freetexturesinlist(OVCONTEXT* context, DRAWLISTS* lists, int list);
// Frees one list of a viewport under memory pressure; it may be the one on
// screen, which then goes on from the GL textures' stale contents.
void texturestress(OVCONTEXT* context, DRAWLISTS* lists);

// Every channel of `texture1` is there and drawable, and at least one is
// absent from `texture2` or not newer there.
bool isnewer(TEXTURE* const* texture1, TEXTURE* const* texture2, unsigned int channels);
// Every channel of `channels`, at least one, has a drawable tile in `a`.
bool hasdrawabletiles(const AREA* a, unsigned int channels);

// Hooks of a disk cache and of a separate GL step that this system doesn't
// have; their call sites stay.
void cachetexture(OVCONTEXT* context, TEXTURE* t);
void readtexture(OVCONTEXT* context, TEXTURE* t);
void makegltexture(OVCONTEXT* context, TEXTURE* t);

// ---------------------------------------------------------------- upload

// Sends the tiles of a finished area to the GL queue if any of its channels
// has a tile that isn't drawable or isn't of the realm's cycle; the worker
// becomes the area's `worker`. False when nothing was due or no worker was
// left.
bool uploadtiles(OVCONTEXT* context, AREA* a);
// Sends a worker whose payload is laid out as above on its way: to the GL
// queue, or with OVCONTEXT_TEXTURE_MEM straight to its return step.
void sendgentexture(OVCONTEXT* context, WORKER* worker);
void worker_canvas_gentexture(OVCONTEXT* context, WORKER* worker);
void worker_canvas_gentexture_return(OVCONTEXT* context, WORKER* worker);

// Tiles a frame may upload: a quarter MB each, at `graphicsrate` MB/s and
// `framerate` frames/s; at least one.
int uploadperframe(double graphicsrate, double framerate);
// One frame's share of the GL queue: runs its workers until it is empty or
// `budget` workers that weren't stopped have run; returns that count.
int serveglqueue(OVCONTEXT* context, int budget);

// ---------------------------------------------------------------- the lists (drawlist.cpp)

// A viewport's lists before their first activation: none allocated, none
// handed out.
void initdrawlists(DRAWLISTS* lists);
// On activation, unless the display holds a list: every list made, or
// emptied, with room for nmemtexture * 4 rectangles; nothing handed out.
// False if an allocation failed.
bool preparedrawlists(OVCONTEXT* context, DRAWLISTS* lists);
// The lists go with their references, unless the display holds one; false
// then.
bool freedrawlists(OVCONTEXT* context, DRAWLISTS* lists);

// Main thread. The list to build next: neither the newest finished one nor
// the one on screen.
int nextdrawlist(const DRAWLISTS* lists);
// Chooses that list and drops what it held two frames ago.
int begindrawlist(OVCONTEXT* context, DRAWLISTS* lists);
// Hands the finished list to the display, after a full fence.
void publishdrawlist(DRAWLISTS* lists, int list, uint32_t cs);

// One rectangle of tiles in list `list`: the channels of `view` from
// `texture` (an area's own tiles or an ancestor's), on the square of side
// 2^(4 - depth) whose corner is `coord` relative to the view's centre, with
// the tile's sub-square (x0, y0) of `width` texels.
constexpr int DRAWRECT_DONE = 0;
constexpr int DRAWRECT_MISSING = 1;  // a channel has no drawable tile: nothing added
constexpr int DRAWRECT_FULL = 2;     // the list is full: nothing added, the line printed
int appenddrawrect(OVCONTEXT* context, DRAWLISTS* lists, int list, const DRAWVIEW* view,
                   TEXTURE* const* texture, HFLOATCOMPLEX coord, int depth, int x0, int y0,
                   int width, float epsilon, bool special);
// The area's own tiles, whole.
int appendareatiles(OVCONTEXT* context, DRAWLISTS* lists, int list, const DRAWVIEW* view,
                    AREA* a, HFLOATCOMPLEX coord, bool special);

// What a child of the walk inherits as a fall-back: the tiles of an ancestor
// and the sub-square of them that covers the child; `texture` NULL for none.
struct DRAWFALLBACK {
  TEXTURE* const* texture;
  float epsilon;
  int x0;
  int y0;
  int width;
};
// Child `k`'s fall-back: `a`'s own tiles when they are newer than the
// ancestor's, else the ancestor's quarter, but never below one texel.
DRAWFALLBACK childfallback(const AREA* a, const DRAWFALLBACK* parent, unsigned int channels,
                           int k);

// The display's side. `lockdrawlists` marks a frame begun (an atomic
// exchange, so that the main thread, which checks it before freeing lists,
// and the display, which then checks the viewport is still active, can't both
// miss each other); `takedrawlist` makes the newest finished list the one on
// screen and returns it, or -1, ending the frame, when there is none;
// `unlockdrawlists` ends the frame.
void lockdrawlists(DRAWLISTS* lists);
int takedrawlist(DRAWLISTS* lists);
void unlockdrawlists(DRAWLISTS* lists);
