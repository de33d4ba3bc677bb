// tileargs.cpp: orvanta-tile's command line.
#include "tileargs.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

const char* const TILEUSAGE =
    "usage: orvanta-tile --depth D --re X --im Y [--realm mandelbrot|julia|general] [--julia-re A "
    "--julia-im B] [--format auto|float|double|longdouble|hfloat] [--channels 3,8] "
    "[--flags HEX] --out PREFIX";

namespace {

// Longest exponent accepted: 10^1,000,000 has a million digits, which is
// beyond any depth this program can reach and still cheap to refuse.
constexpr long MAXEXPONENT = 1000000;

bool parseint(const char* text, long lo, long hi, long* value) {
  if (!*text) return false;
  char* end;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (errno || *end || v < lo || v > hi) return false;
  *value = v;
  return true;
}

bool parseformat(const char* text, unsigned int* format) {
  static const struct {
    const char* name;
    unsigned int mode;
  } formats[] = {{"auto", 0}, {"float", 16}, {"double", 32}, {"longdouble", 48}, {"hfloat", 64}};
  for (const auto& f : formats) {
    if (!strcmp(text, f.name)) {
      *format = f.mode;
      return true;
    }
  }
  return false;
}

bool checkdecimal(const std::string& text, std::string* why) {
  mpq_t q;
  mpq_init(q);
  bool ok = parsedecimal(text, q);
  mpq_clear(q);
  if (!ok) *why = "not a decimal number: \"" + text + "\"";
  return ok;
}

}  // namespace

bool parsedecimal(const std::string& text, mpq_t value) {
  size_t i = 0, n = text.size();
  bool negative = false;
  if (i < n && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
  std::string digits;
  long scale = 0;  // digits after the point
  bool point = false;
  for (; i < n && (isdigit(static_cast<unsigned char>(text[i])) || text[i] == '.'); i++) {
    if (text[i] == '.') {
      if (point) return false;
      point = true;
    } else {
      digits.push_back(text[i]);
      if (point) scale++;
    }
  }
  if (digits.empty()) return false;
  long exponent = 0;
  if (i < n && (text[i] == 'e' || text[i] == 'E')) {
    i++;
    size_t start = i;
    if (i < n && (text[i] == '-' || text[i] == '+')) i++;
    if (i == n || !isdigit(static_cast<unsigned char>(text[i]))) return false;
    while (i < n && isdigit(static_cast<unsigned char>(text[i]))) i++;
    if (!parseint(text.substr(start, i - start).c_str(), -MAXEXPONENT, MAXEXPONENT, &exponent))
      return false;
  }
  if (i != n) return false;

  mpz_t num, pow;
  mpz_inits(num, pow, nullptr);
  mpz_set_str(num, digits.c_str(), 10);
  if (negative) mpz_neg(num, num);
  long shift = exponent - scale;  // value = num * 10^shift
  mpz_ui_pow_ui(pow, 10, static_cast<unsigned long>(shift < 0 ? -shift : shift));
  if (shift >= 0) {
    mpz_mul(num, num, pow);
    mpz_set_ui(pow, 1);
  }
  mpq_set_num(value, num);
  mpq_set_den(value, pow);
  mpq_canonicalize(value);
  mpz_clears(num, pow, nullptr);
  return true;
}

std::string dyadicdecimal(const mpq_t value) {
  // value = num / 2^k = num * 5^k / 10^k: k digits after the point.
  mp_bitcnt_t k = mpz_scan1(mpq_denref(value), 0);
  mpz_t n;
  mpz_init(n);
  mpz_ui_pow_ui(n, 5, k);
  mpz_mul(n, n, mpq_numref(value));
  bool negative = mpz_sgn(n) < 0;
  mpz_abs(n, n);
  char* raw = mpz_get_str(nullptr, 10, n);
  std::string digits(raw);
  void (*freefunc)(void*, size_t);
  mp_get_memory_functions(nullptr, nullptr, &freefunc);
  freefunc(raw, strlen(raw) + 1);
  mpz_clear(n);
  if (digits.size() <= k) digits.insert(0, k - digits.size() + 1, '0');
  std::string result = negative ? "-" : "";
  result += digits.substr(0, digits.size() - k);
  if (k) {
    std::string frac = digits.substr(digits.size() - k);
    result += "." + frac;
  }
  return result;
}

bool parsetileargs(int argc, const char* const* argv, TILEARGS* args, std::string* error) {
  bool hasre = false, hasim = false, hasjulia = false;
  for (int i = 1; i < argc; i++) {
    std::string opt = argv[i];
    if (i + 1 >= argc) {
      *error = "missing value after " + opt;
      return false;
    }
    const char* v = argv[++i];
    long number;
    if (opt == "--depth") {
      if (!parseint(v, 0, INT_MAX / 4, &number)) {
        *error = std::string("bad depth: \"") + v + "\"";
        return false;
      }
      args->depth = static_cast<int>(number);
    } else if (opt == "--re" || opt == "--im" || opt == "--julia-re" || opt == "--julia-im") {
      if (!checkdecimal(v, error)) return false;
      if (opt == "--re") args->re = v, hasre = true;
      else if (opt == "--im") args->im = v, hasim = true;
      else if (opt == "--julia-re") args->juliare = v, hasjulia = true;
      else args->juliaim = v, hasjulia = true;
    } else if (opt == "--realm") {
      if (!strcmp(v, "mandelbrot")) args->julia = false, args->general = false;
      else if (!strcmp(v, "julia")) args->julia = true, args->general = false;
      else if (!strcmp(v, "general")) args->julia = false, args->general = true;
      else {
        *error = std::string("unknown realm: \"") + v + "\"";
        return false;
      }
    } else if (opt == "--format") {
      if (!parseformat(v, &args->format)) {
        *error = std::string("unknown format: \"") + v + "\"";
        return false;
      }
    } else if (opt == "--channels") {
      if (!parsechannels(v, &args->channels)) {
        *error = std::string("bad channel list: \"") + v + "\"";
        return false;
      }
    } else if (opt == "--flags") {
      if (!parsehex(v, &args->flags)) {
        *error = std::string("bad flag word: \"") + v + "\"";
        return false;
      }
      args->hasflags = true;
    } else if (opt == "--out") {
      if (!*v) {
        *error = "empty output prefix";
        return false;
      }
      args->out = v;
    } else {
      *error = "unknown option: " + opt;
      return false;
    }
  }
  if (args->depth < 0) *error = "--depth is required";
  else if (!hasre || !hasim) *error = "--re and --im are required";
  else if (args->out.empty()) *error = "--out is required";
  else if (hasjulia && !args->julia) *error = "--julia-re and --julia-im need --realm julia";
  else return true;
  return false;
}

bool parsehex(const char* text, unsigned int* value) {
  const char* p = text;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) p += 2;
  if (!*p) return false;
  char* end;
  errno = 0;
  unsigned long v = strtoul(p, &end, 16);
  if (errno || *end || v > 0xFFFFFFFFul || *p == '-' || *p == '+') return false;
  *value = static_cast<unsigned int>(v);
  return true;
}

bool parsechannels(const char* text, unsigned int* mask) {
  unsigned int m = 0;
  const char* p = text;
  while (*p) {
    if (*p < '0' || *p > '8') return false;
    m |= 1u << (*p - '0');
    p++;
    if (*p == ',') {
      p++;
      if (!*p) return false;
    } else if (*p) {
      return false;
    }
  }
  if (!m) return false;
  *mask = m;
  return true;
}
