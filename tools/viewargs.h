// viewargs.h: the command line of orvanta-view, which runs one view of a
// general realm (with its Julia realm) without a display until it is
// complete, printing its status line and its finishing events.
#pragma once

#include <gmp.h>

#include <string>

struct VIEWARGS {
  int width = 1024;  // the screen in pixels
  int height = 768;
  // Without a position the view stays where a new view starts; otherwise it
  // is moved to `re` + i `im`, a longer screen side spanning `span` of the
  // plane, turned by `angle` degrees.
  bool positioned = false;
  std::string re = "0";
  std::string im = "0";
  std::string span = "4";  // --width, or 2 / --zoom
  bool byzoom = false;     // `span` came from --zoom (the zoom's modulus)
  std::string zoom;
  double angle = -90;  // a new view's quarter turn: the set stands upright
  double timeout = 0;  // seconds; 0 waits for ever
  int nthread = 4;
  unsigned int channels = 1u | 8u;
  bool hasflags = false;
  unsigned int flags = 0;  // the general realm's flag word, when given
  // Look on the main thread every few ms, while waiting for the finish, for
  // the moment the view first has an environment (VIEWRUN::referenced).
  bool watchreference = false;
};

extern const char* const VIEWUSAGE;

// Fills `args` from argv[1..]; false with a one-line reason in `error`.
bool parseviewargs(int argc, const char* const* argv, VIEWARGS* args, std::string* error);

// The zoom's modulus that the arguments ask for, 2 / span, into `modulus`
// (an mpf of the caller's precision). False when there is no span.
bool viewzoommodulus(const VIEWARGS& args, mpf_t modulus);
