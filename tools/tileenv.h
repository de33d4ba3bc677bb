// tileenv.h: the reference of a general-realm tile: a standard environment
// at a point of the tile, its orbit computed by the engine's iteration graph
// and stored the way the canvases read it.
//
// The point is chosen among a few candidates inside the tile: the one whose
// orbit stays longest in the disc, since a pixel that outlives its reference
// goes on without it. The race is a plain mpf loop on the calling thread; the
// orbit itself runs as graph stretches served by the engine's threads, each
// stretch's samples read from its nodes on the main thread when it ends.
#pragma once

#include <gmp.h>

#include <atomic>

#include "Mandelbrot.h"

// Bits of the reference orbit for a tile of depth `depth`: the depth and 64
// more, rounded up past the next multiple of 32.
mp_bitcnt_t referenceprecision(int depth);

// The reference point of the tile whose lower-left corner is `corner` (two
// exact rationals) at `depth`, into `point` (two mpf at the caller's
// precision): the tile's centre with `centre`, otherwise the candidate whose
// orbit lasts longest within `limit` iterations, the centre first among
// equals. Pure GMP, any thread.
void choosereference(const mpq_t corner[2], int depth, long limit, bool centre, mpf_t point[2]);

// The state of one orbit run; `done` turns true on the main thread when the
// environment is complete (or the run failed, then `ok` is false).
struct REFERENCERUN {
  ENVIRONMENT* e = nullptr;
  long limit = 0;        // last orbit index stored at most
  UITER base = 0;        // iteration of the present stretch's first round
  int capacity = 0;      // samples the arrays hold
  bool ok = false;
  std::atomic<bool> done{false};
};

// Main thread: a standard environment at `point` with `precision` bits,
// counted once for the caller, and the first stretch of its orbit started.
// False when no environment could be made; `run->done` is set then too.
bool startreference(OVCONTEXT* context, REALM* realm, mpf_t point[2], mp_bitcnt_t precision,
                    long limit, REFERENCERUN* run);
