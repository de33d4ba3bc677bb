// The renderer's arguments, checked completely before anything starts: a bad
// argument costs the user one line and no engine start.
#include "renderargs.h"

#include <gmp.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "tileargs.h"

const char* const RENDERUSAGE =
    "usage: orvanta-render [--re X --im Y] [--zoom Z | --width W] [--angle DEG] [--size 1920x1080] "
    "[--scheme NAME] [--julia A,B] [--threads N] [--memory MB] [--flags HEX] [--timeout S] "
    "[--channels-out FILE.f32] --out FILE.png|FILE.jpg";

namespace {

bool isdecimal(const std::string& text) {
  mpq_t q;
  mpq_init(q);
  bool ok = parsedecimal(text, q);
  mpq_clear(q);
  return ok;
}

// A decimal above zero.
bool ispositive(const std::string& text) {
  mpq_t q;
  mpq_init(q);
  bool ok = parsedecimal(text, q) && mpq_sgn(q) > 0;
  mpq_clear(q);
  return ok;
}

bool parseint(const char* text, long low, long high, int* out) {
  char* end = nullptr;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (errno || end == text || *end || v < low || v > high) return false;
  *out = static_cast<int>(v);
  return true;
}

bool parsedouble(const char* text, double* out) {
  char* end = nullptr;
  errno = 0;
  double v = strtod(text, &end);
  if (errno || end == text || *end || !std::isfinite(v)) return false;
  *out = v;
  return true;
}

bool parsesize(const char* text, int* w, int* h) {
  const char* x = strchr(text, 'x');
  if (!x) return false;
  std::string a(text, x);
  return parseint(a.c_str(), 1, 16384, w) && parseint(x + 1, 1, 16384, h);
}

bool parsepair(const char* text, std::string* a, std::string* b) {
  const char* comma = strchr(text, ',');
  if (!comma) return false;
  *a = std::string(text, comma);
  *b = std::string(comma + 1);
  return isdecimal(*a) && isdecimal(*b);
}

bool endswith(const std::string& s, const char* suffix) {
  size_t n = strlen(suffix);
  return s.size() > n && strcasecmp(s.c_str() + s.size() - n, suffix) == 0;
}

struct PARSER {
  int argc;
  const char* const* argv;
  int i = 1;
  std::string* error;

  // The value after option argv[i], or NULL with the reason set.
  const char* value() {
    if (i + 1 >= argc) {
      *error = std::string(argv[i]) + " needs a value";
      return nullptr;
    }
    return argv[++i];
  }
  bool bad(const char* option, const char* value) {
    *error = std::string("bad value for ") + option + ": \"" + value + "\"";
    return false;
  }
};

bool option(PARSER& p, RENDERARGS* a, bool* sawre, bool* sawim) {
  std::string name = p.argv[p.i];
  if (name == "--help" || name == "-h") {
    a->help = true;
    return true;
  }
  const char* v = p.value();
  if (!v) return false;
  const char* o = name.c_str();
  if (name == "--re") {
    a->re = v;
    *sawre = true;
    return isdecimal(a->re) || p.bad(o, v);
  }
  if (name == "--im") {
    a->im = v;
    *sawim = true;
    return isdecimal(a->im) || p.bad(o, v);
  }
  if (name == "--zoom") {
    a->zoom = v;
    return ispositive(a->zoom) || p.bad(o, v);
  }
  if (name == "--width") {
    a->width = v;
    return ispositive(a->width) || p.bad(o, v);
  }
  if (name == "--angle") return parsedouble(v, &a->angle) || p.bad(o, v);
  if (name == "--size") return parsesize(v, &a->w, &a->h) || p.bad(o, v);
  if (name == "--scheme") {
    a->scheme = v;
    return !a->scheme.empty() || p.bad(o, v);
  }
  if (name == "--julia") {
    a->julia = true;
    return parsepair(v, &a->juliare, &a->juliaim) || p.bad(o, v);
  }
  if (name == "--threads") return parseint(v, 1, 1024, &a->threads) || p.bad(o, v);
  if (name == "--memory") return parseint(v, 64, 1 << 22, &a->memory) || p.bad(o, v);
  if (name == "--flags") {
    a->hasflags = true;
    return parsehex(v, &a->flags) || p.bad(o, v);
  }
  if (name == "--timeout") return (parsedouble(v, &a->timeout) && a->timeout > 0) || p.bad(o, v);
  if (name == "--channels-out") {
    a->channelsout = v;
    return !a->channelsout.empty() || p.bad(o, v);
  }
  if (name == "--out") {
    a->out = v;
    return true;
  }
  *p.error = "unknown option " + name;
  return false;
}

}  // namespace

bool parserenderargs(int argc, const char* const* argv, RENDERARGS* args, std::string* error) {
  PARSER p{argc, argv, 1, error};
  bool sawre = false, sawim = false;
  for (; p.i < argc; p.i++) {
    if (!option(p, args, &sawre, &sawim)) return false;
    if (args->help) return true;
  }
  if (sawre != sawim) {
    *error = "--re and --im go together";
    return false;
  }
  args->hascentre = sawre;
  if (!args->zoom.empty() && !args->width.empty()) {
    *error = "--zoom and --width exclude each other";
    return false;
  }
  if (args->out.empty()) {
    *error = "--out is required";
    return false;
  }
  args->jpeg = endswith(args->out, ".jpg") || endswith(args->out, ".jpeg");
  if (!args->jpeg && !endswith(args->out, ".png")) {
    *error = "--out must name a .png or .jpg file";
    return false;
  }
  return true;
}
