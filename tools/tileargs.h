// tileargs.h: the command line of orvanta-tile, and the exact arithmetic it
// needs to place an area: decimal strings of any length taken as exact
// rationals, and a binary corner written back with every digit.
#pragma once

#include <gmp.h>

#include <functional>
#include <string>

struct AREA;

struct TILEARGS {
  int depth = -1;
  std::string re;  // the point whose area is computed, as given
  std::string im;
  bool julia = false;
  bool general = false;  // the general realm: perturbation against a reference
  std::string juliare = "0";
  std::string juliaim = "0";
  unsigned int format = 0;    // 0 automatic, else the MODE of a canvas format
  unsigned int channels = 8;  // bit per channel; channel 3 alone by default
  bool hasflags = false;
  unsigned int flags = 0;     // the realm's flag word, when given
  std::string out;
  // The general realm's reference: the most iterations its orbit is
  // followed, and whether it stands at the tile's centre instead of at the
  // longest-lived of a few points of the tile. Not on the command line.
  long referencelimit = 100000;
  bool referenceatcentre = false;
  // Called on the engine's main thread with the general realm's area once
  // its reference is attached, before its job starts: a test's way to hand
  // the area a state of its own (a cubic start). Not on the command line.
  std::function<void(AREA*)> preparearea;
};

// The usage line printed with every argument error.
extern const char* const TILEUSAGE;

// Fills `args` from argv[1..]; false with a one-line reason in `error`.
bool parsetileargs(int argc, const char* const* argv, TILEARGS* args, std::string* error);

// A realm flag word in hexadecimal, with or without "0x": at most 32 bits,
// no sign. False, with `value` untouched, otherwise.
bool parsehex(const char* text, unsigned int* value);

// A comma-separated list of channel digits 0 to 8, at least one; the mask
// of them into `mask`. False, with `mask` untouched, otherwise.
bool parsechannels(const char* text, unsigned int* mask);

// An optional sign, digits with at most one point and at least one digit,
// and an optional exponent "e" or "E" with optional sign and digits; set
// into `value` exactly. False, with `value` unspecified, otherwise.
bool parsedecimal(const std::string& text, mpq_t value);

// The exact decimal expansion of a dyadic rational (denominator a power of
// two): every digit, no exponent, "-" for negatives, at least "0".
std::string dyadicdecimal(const mpq_t value);
