// texture.h: the display's side of the data. A TEXTURE is one 256 x 256 tile
// of floats of one channel of one area; its record may exist, in an area,
// without pixels, since the storage (pixel buffer and GL texture) is a smaller
// pool that records borrow from and can lose. A DRAWRECT is one tile
// rectangle of a viewport's draw list.
//
// Threads. Records, their chains and the draw lists are built on the main
// thread without locks. The GL side reads only `pixels`, `texture` and
// `flags` of tiles that are locked; the display reads, and never writes, the
// DRAWRECTs of the list it has taken.
//
// These are layouts only: nothing here allocates, uploads or draws.
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
