// renderargs.h: the command line of orvanta-render. Numbers of the view
// (centre, zoom or width, Julia constant) are kept as the decimal text given,
// checked to be exact decimals, so that any depth reaches the engine
// unrounded.
#pragma once

#include <string>

struct RENDERARGS {
  bool hascentre = false;
  std::string re = "0";  // the centre, exact decimals
  std::string im = "0";
  std::string zoom;   // magnification over the start view; empty: not given
  std::string width;  // plane width of the picture; empty: not given
  double angle = 0;   // degrees, counter-clockwise
  int w = 1920;
  int h = 1080;
  std::string scheme = "Iteration";
  bool julia = false;
  std::string juliare = "0";
  std::string juliaim = "0";
  int threads = 0;     // 0: the engine's own choice
  int memory = 1024;   // MB
  bool hasflags = false;
  unsigned int flags = 0;  // the realm's flag word when given
  double timeout = 600;    // seconds
  std::string channelsout;  // empty: none
  std::string out;
  bool jpeg = false;  // by the name of `out`
  bool help = false;
};

// The usage text printed with every argument error.
extern const char* const RENDERUSAGE;

// Fills `args` from argv[1..]; false with a one-line reason in `error`.
bool parserenderargs(int argc, const char* const* argv, RENDERARGS* args, std::string* error);
