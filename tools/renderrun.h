// renderrun.h: one picture of a view, start to end. The engine runs with
// tiles in memory (no GL thread), one viewport on a realm, until the view is
// finished; the view's draw list is then drawn off-screen by the same code
// and colour scheme as the explorer's, and written as PNG or JPEG.
//
// Pixels and the plane: pixel (px, py), py counted from the top, has its
// centre at screen point s = (px + 0.5 - w/2, h/2 - py - 0.5) * 2/min(w, h)
// and shows plane point centre + s / zoom, where zoom is the view's complex
// zoom: |zoom| = Z/2 for --zoom Z (1 by default), or the picture's screen
// width over W for --width W, turned by -90 degrees (the start view's
// upright set) and then by --angle.
#pragma once

#include <string>
#include <vector>

#include "renderargs.h"

// Exit codes of the renderer.
constexpr int RENDER_OK = 0;
constexpr int RENDER_FAILED = 1;    // no GL, no engine: the reason on standard error
constexpr int RENDER_BADARGS = 2;   // bad argument or unwritable output
constexpr int RENDER_TIMEOUT = 3;   // the view did not finish in time

struct RENDERTIMES {
  double reference = 0;  // seconds until the first tiles of the view could be drawn
  double tiles = 0;      // seconds from then until the view was finished
  double total = 0;      // seconds of the whole run, writing included
};

// Runs the whole render; messages go to standard error, progress too when it
// is a terminal.
int renderview(const RENDERARGS& args, RENDERTIMES* times);

// The reason a file can't be written at `path` without writing anything, or
// an empty string when it can.
std::string unwritable(const std::string& path);

// Images from RGBA rows, top row first; false with the reason.
bool writepng(const std::string& path, const std::vector<unsigned char>& rgba, int w, int h,
              std::string* error);
bool writejpeg(const std::string& path, const std::vector<unsigned char>& rgba, int w, int h,
               std::string* error);
