// tilejob.h: one area computed through the engine's own road: a context with
// tiles kept in memory, a realm, the area tree walked down to the area that
// holds the point, a canvas job on a worker thread, the tiles installed by
// the main thread. What comes back is what a view would draw.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tileargs.h"

struct TILERESULT {
  std::string format;    // "float", "double", "longdouble", "hfloat"
  std::string cornerre;  // the area's lower-left corner, every digit
  std::string cornerim;
  double ms = 0;           // the area's job, from processarea to its tiles
  double referencems = 0;  // the general realm's reference, chosen and iterated
  int64_t verticesiterated = 0;
  int64_t iterations = 0;
  int escaped = 0;
  int interior = 0;
  int unknown = 0;
  std::vector<float> channel[9];  // 256 x 256 each, for the channels asked
};

// False with a one-line reason in `error` when the point lies outside the
// realm's square or the engine could not start.
bool computetile(const TILEARGS& args, TILERESULT* result, std::string* error);

// Writes PREFIX.chN.f32 for each channel of `args`; false with a reason.
bool writetiles(const TILEARGS& args, const TILERESULT& result, std::string* error);

// The one line of JSON the tool prints.
std::string tilejson(const TILEARGS& args, const TILERESULT& result);
