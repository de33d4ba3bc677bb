// viewargs.cpp: orvanta-view's command line.
#include "viewargs.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "tileargs.h"

const char* const VIEWUSAGE =
    "usage: orvanta-view [--re X --im Y] [--width W | --zoom Z] [--angle DEG] [--size WxH] "
    "[--threads N] [--channels 3,8] [--flags HEX] [--timeout S]";

namespace {

bool parselong(const char* text, long lo, long hi, long* value) {
  if (!*text) return false;
  char* end;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (errno || *end || v < lo || v > hi) return false;
  *value = v;
  return true;
}

bool parsedouble(const char* text, double lo, double hi, double* value) {
  if (!*text) return false;
  char* end;
  errno = 0;
  double v = strtod(text, &end);
  if (errno || *end || !std::isfinite(v) || v < lo || v > hi) return false;
  *value = v;
  return true;
}

bool parsesize(const char* text, int* w, int* h) {
  const char* x = strchr(text, 'x');
  if (!x) return false;
  std::string a(text, x), b(x + 1);
  long lw, lh;
  if (!parselong(a.c_str(), 16, 16384, &lw) || !parselong(b.c_str(), 16, 16384, &lh)) return false;
  *w = static_cast<int>(lw);
  *h = static_cast<int>(lh);
  return true;
}

// A decimal that is exact and, with `positive`, above zero.
bool isdecimal(const std::string& text, bool positive) {
  mpq_t q;
  mpq_init(q);
  bool ok = parsedecimal(text, q) && (!positive || mpq_sgn(q) > 0);
  mpq_clear(q);
  return ok;
}

}  // namespace

bool parseviewargs(int argc, const char* const* argv, VIEWARGS* args, std::string* error) {
  bool haswidth = false, haszoom = false, hasre = false, hasim = false;
  for (int i = 1; i < argc; i++) {
    std::string name = argv[i];
    if (name.rfind("--", 0) != 0) {
      *error = "unexpected argument " + name;
      return false;
    }
    if (i + 1 >= argc) {
      *error = name + " needs a value";
      return false;
    }
    const char* value = argv[++i];
    bool ok = true;
    long n = 0;
    if (name == "--re") {
      args->re = value;
      ok = hasre = isdecimal(value, false);
    } else if (name == "--im") {
      args->im = value;
      ok = hasim = isdecimal(value, false);
    } else if (name == "--width") {
      args->span = value;
      ok = haswidth = isdecimal(value, true);
    } else if (name == "--zoom") {
      args->zoom = value;
      ok = haszoom = isdecimal(value, true);
    } else if (name == "--angle") {
      ok = parsedouble(value, -360000, 360000, &args->angle);
      args->positioned = true;
    } else if (name == "--size") {
      ok = parsesize(value, &args->width, &args->height);
    } else if (name == "--threads") {
      ok = parselong(value, 4, 64, &n);
      args->nthread = static_cast<int>(n);
    } else if (name == "--channels") {
      ok = parsechannels(value, &args->channels);
    } else if (name == "--flags") {
      ok = args->hasflags = parsehex(value, &args->flags);
    } else if (name == "--timeout") {
      ok = parsedouble(value, 0, 1e9, &args->timeout) && args->timeout > 0;
    } else {
      *error = "unknown option " + name;
      return false;
    }
    if (!ok) {
      *error = "bad value for " + name + ": " + value;
      return false;
    }
  }
  if (haswidth && haszoom) {
    *error = "--width and --zoom exclude each other";
    return false;
  }
  if (hasre != hasim) {
    *error = "--re and --im go together";
    return false;
  }
  args->byzoom = haszoom;
  args->positioned = args->positioned || hasre || haswidth || haszoom;
  // Every texel needs a channel-3 count behind it: the view's pixels are
  // judged by it.
  args->channels |= 8u;
  return true;
}

bool viewzoommodulus(const VIEWARGS& args, mpf_t modulus) {
  mpq_t q;
  mpq_init(q);
  bool ok = parsedecimal(args.byzoom ? args.zoom : args.span, q) && mpq_sgn(q) > 0;
  if (ok && !args.byzoom) {
    mpq_inv(q, q);
    mpq_mul_2exp(q, q, 1);
  }
  if (ok) mpf_set_q(modulus, q);
  mpq_clear(q);
  return ok;
}
