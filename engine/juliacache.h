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

// Mandelbrot.h includes this header; see environment.h for why it is not
// included back.
typedef int ITER;

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

// The link word comes after the pixels so that the pixels start the block.
struct PREPIXELS {
  PREPIXEL pixels[NPREPIXEL];
  PREPIXELS* volatile nextonstack;
  uint32_t flags;
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
