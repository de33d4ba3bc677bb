// tiletest.h: what the tile tests share: a fixed set of areas along the
// boundary of the Mandelbrot set, the exact place of each pixel, and a plain
// z^2 + c iteration in long double to hold the engine's tiles against.
#pragma once

#include <gmp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Mandelbrot.h"
#include "canvas/render.h"
#include "tileargs.h"
#include "tilejob.h"

namespace tiletest {

// ---------------------------------------------------------------- the areas

// An area is named by a point inside it and its depth; the engine computes
// the area of that depth which holds the point.
struct TILESPOT {
  int depth;
  const char* re;
  const char* im;
  const char* name;  // a word for the region, used in test names
};

// Twenty areas over the boundary, depth 2 to 40: the whole upper half-plane
// part of the set; seahorse valley down a famous deep point; elephant valley
// by the cardioid's 1/20 contact point; the cardioid's edge at the 3/10
// contact point and at the golden-mean angle; the needle on the real axis
// with its period-5 minibrot; the period-3 and an off-axis period-4 minibrot
// (nuclei found by Newton); the Misiurewicz points i and -0.1011 + 0.9563i.
inline const TILESPOT BOUNDARYTILES[] = {
    {2, "-0.75", "0.1", "WholeSet"},
    {4, "-0.75", "0.1", "SeahorseWide"},
    {6, "-0.745", "0.11", "Seahorse6"},
    {10, "-0.743643887037151", "0.131825904205330", "Seahorse10"},
    {16, "-0.743643887037151", "0.131825904205330", "Seahorse16"},
    {22, "-0.743643887037151", "0.131825904205330", "Seahorse22"},
    {28, "-0.743643887037151", "0.131825904205330", "Seahorse28"},
    {34, "-0.743643887037151", "0.131825904205330", "Seahorse34"},
    {40, "-0.743643887037151", "0.131825904205330", "Seahorse40"},
    {10, "0.273274009553839930032646312394", "0.00756218411435542975897021993165", "Elephant10"},
    {16, "0.273274009553839930032646312394", "0.00756218411435542975897021993165", "Elephant16"},
    {12, "0.0477457514062631439744266457043", "0.622474571220695068350396155349", "Cardioid310"},
    {14, "-0.390540870218400050669762600714", "-0.586787907346968751196714643055", "CardioidGolden"},
    {12, "-1.99", "0.0001", "Needle12"},
    {15, "-1.98542425305420531060975058272", "0.00000001", "NeedleMinibrot5"},
    {9, "-1.75487766624669276004950889636", "0.001", "Minibrot3"},
    {11, "-0.156520166833755061798986650788", "1.03224710892283180167160153243", "Minibrot4"},
    {26, "0", "1", "MisiurewiczI26"},
    {38, "0", "1", "MisiurewiczI38"},
    {30, "-0.10109636384562", "0.95628651080914", "Misiurewicz30"},
};
constexpr int NBOUNDARYTILES = sizeof BOUNDARYTILES / sizeof BOUNDARYTILES[0];
constexpr int TILEPIXELS = TEXTURESIZE * TEXTURESIZE;

inline std::string tilename(const TILESPOT& t) { return t.name; }

// The realm's start flags with another number format.
inline unsigned int flagswithformat(unsigned int flags, unsigned int format) {
  return (flags & ~R_PRECMASK) | format;
}

// One area through computetile, with the given flag word and channels.
inline bool runtile(const TILESPOT& t, unsigned int flags, unsigned int channels,
                    TILERESULT* result, std::string* error) {
  TILEARGS args;
  args.depth = t.depth;
  args.re = t.re;
  args.im = t.im;
  args.channels = channels;
  args.hasflags = true;
  args.flags = flags;
  args.out = "unused";
  return computetile(args, result, error);
}

// ---------------------------------------------------------------- placement

// A decimal string, exact, in a long double: the nearest double and what is
// left, so that 64 bits of mantissa come through.
inline long double tolongdouble(const mpq_t q) {
  mpf_t f, r;
  mpf_init2(f, 256);
  mpf_init2(r, 256);
  mpf_set_q(f, q);
  double hi = mpf_get_d(f);
  mpf_set_d(r, hi);
  mpf_sub(r, f, r);
  double lo = mpf_get_d(r);
  mpf_clears(f, r, nullptr);
  return static_cast<long double>(hi) + static_cast<long double>(lo);
}

// Pixel (x, y) of the area at depth D whose corner is `cornerre`, `cornerim`
// (as the tool writes them): c = corner + (x + 1/2, y + 1/2) 2^(4 - D - 8),
// computed exactly and then rounded once.
struct PLACE {
  int depth = 0;
  mpq_t corner[2];
  PLACE(const std::string& re, const std::string& im, int d) : depth(d) {
    mpq_inits(corner[0], corner[1], nullptr);
    parsedecimal(re, corner[0]);
    parsedecimal(im, corner[1]);
  }
  ~PLACE() { mpq_clears(corner[0], corner[1], nullptr); }
  PLACE(const PLACE&) = delete;
  PLACE& operator=(const PLACE&) = delete;

  // Grid coordinate g (pixel x is g = x + 1/2) along axis k, exactly.
  long double at(int k, double g) const {
    mpq_t t;
    mpq_init(t);
    mpq_set_d(t, g);
    int s = 4 - depth - 8;
    if (s >= 0) mpq_mul_2exp(t, t, s);
    else mpq_div_2exp(t, t, -s);
    mpq_add(t, t, corner[k]);
    long double v = tolongdouble(t);
    mpq_clear(t);
    return v;
  }
  // The same coordinate without rounding, in `out` (whose precision must
  // hold the corner's digits and the grid's).
  void exact(int k, double g, mpf_ptr out) const {
    mpq_t t;
    mpq_init(t);
    mpq_set_d(t, g);
    int s = 4 - depth - 8;
    if (s >= 0) mpq_mul_2exp(t, t, s);
    else mpq_div_2exp(t, t, -s);
    mpq_add(t, t, corner[k]);
    mpf_set_q(out, t);
    mpq_clear(t);
  }
  long double re(int x) const { return at(0, x + 0.5); }
  long double im(int y) const { return at(1, y + 0.5); }
  // The pixel step 2^(4 - D - 8).
  long double step() const { return std::ldexp(1.0L, 4 - depth - 8); }
};

// ---------------------------------------------------------------- brute force

// The count of c under z -> z^2 + c from z_0 = 0: n of the last z_n with
// |z_n| <= 2 when |z_{n+1}|^2 > 4, or -1 if that does not happen before n
// reaches `limit`. In the arithmetic of F (double, long double).
template <typename F>
int64_t bruteforcecount(F cr, F ci, int64_t limit) {
  F x = 0, y = 0;
  for (int64_t n = 0; n < limit; n++) {
    F x2 = x * x, y2 = y * y;
    F nx = x2 - y2 + cr;
    F ny = 2 * x * y + ci;
    if (nx * nx + ny * ny > 4) return n;
    x = nx;
    y = ny;
  }
  return -1;
}

// Bits that carry an orbit of a pixel at depth D exactly for the counts the
// tests compare: the pixel's own place takes D + 70 of them, and the rest is
// room for the growth of rounding along orbits of up to 10^6 steps next to
// the boundary (next to the cardioid at the golden angle, orbits of 20,000
// steps and more already count differently with 2D + 128 bits; with 2D + 256
// every count below 10^5 of the tiles equals the one with 128 bits more).
inline mp_bitcnt_t exactbits(int depth) { return static_cast<mp_bitcnt_t>(2 * depth + 256); }

// The count of a pixel as bruteforcecount gives it, in mpf of `bits` bits
// from the pixel's exact parameter: an iteration that owes nothing to the
// engine's number formats.
struct EXACTORBIT {
  mpf_t cr, ci, x, y, x2, y2, t;
  explicit EXACTORBIT(mp_bitcnt_t bits) {
    for (mpf_ptr p : {cr, ci, x, y, x2, y2, t}) mpf_init2(p, bits);
  }
  ~EXACTORBIT() {
    for (mpf_ptr p : {cr, ci, x, y, x2, y2, t}) mpf_clear(p);
  }
  EXACTORBIT(const EXACTORBIT&) = delete;
  EXACTORBIT& operator=(const EXACTORBIT&) = delete;

  // Pixel (px, py) of `place`, moved by `nudge` of a pixel along both axes.
  template <typename PLACEOF>
  int64_t count(const PLACEOF& place, int px, int py, int64_t limit, double nudge = 0) {
    place.exact(0, px + 0.5 + nudge, cr);
    place.exact(1, py + 0.5 + nudge, ci);
    mpf_set_ui(x, 0);
    mpf_set_ui(y, 0);
    mpf_set_ui(x2, 0);
    mpf_set_ui(y2, 0);
    for (int64_t n = 0; n < limit; n++) {
      // y' = 2xy + ci, x' = x^2 - y^2 + cr, then their squares for the test
      // and the next step.
      mpf_mul(t, x, y);
      mpf_mul_2exp(t, t, 1);
      mpf_add(y, t, ci);
      mpf_sub(x, x2, y2);
      mpf_add(x, x, cr);
      mpf_mul(x2, x, x);
      mpf_mul(y2, y, y);
      mpf_add(t, x2, y2);
      if (mpf_cmp_ui(t, 4) > 0) return n;
    }
    return -1;
  }
};

// z_n of c, and its derivative in c, after exactly n steps (no escape test).
inline void bruteforcestate(long double cr, long double ci, int64_t n, long double* zr,
                            long double* zi, long double* dr = nullptr, long double* di = nullptr) {
  long double x = 0, y = 0, u = 0, v = 0;
  for (int64_t k = 0; k < n; k++) {
    long double nu = 2 * (x * u - y * v) + 1;
    long double nv = 2 * (x * v + y * u);
    long double nx = x * x - y * y + cr;
    long double ny = 2 * x * y + ci;
    x = nx, y = ny, u = nu, v = nv;
  }
  *zr = x, *zi = y;
  if (dr) *dr = u, *di = v;
}

// The Green's function log|z_N| / 2^N, continued to |z|^2 > 1e10; NaN when c
// does not escape before `limit`.
inline long double bruteforcegreen(long double cr, long double ci, int64_t limit) {
  long double x = 0, y = 0;
  for (int64_t n = 0; n < limit; n++) {
    long double l = x * x + y * y;
    if (l > 1e10L) return 0.5L * std::log(l) / std::ldexp(1.0L, static_cast<int>(n));
    long double nx = x * x - y * y + cr;
    y = 2 * x * y + ci;
    x = nx;
  }
  return NAN;
}

enum class PERIOD { CONFIRMED, ESCAPED, SMALLER, UNSETTLED };

// Does the orbit of c settle on a cycle of exactly `period`? It is followed
// until z_n comes back to within `tolerance` of z_(n - period), or for `cap`
// steps, after which a return to within `loose` still counts when no proper
// divisor of the period comes ten times as near (the slow approach beside a
// parabolic point); where the last step finds no return, one at any of the
// last `period` steps does, since the distance of a slowly attracted orbit to
// its earlier pass swings from one step to the next. A proper divisor that returns as well answers SMALLER
// (its value in *divisor), an escape ESCAPED, no return UNSETTLED.
inline PERIOD bruteforceperiod(long double cr, long double ci, int period, int64_t cap,
                               long double tolerance, long double loose, int* divisor) {
  // Periods 1 and 2 have closed forms, which also hold beside the parabolic
  // points where an orbit takes millions of steps to settle: the fixed point's
  // multiplier 1 - sqrt(1 - 4c), and the disc |c + 1| < 1/4.
  if (period == 1 || period == 2) {
    std::complex<long double> c(cr, ci);
    bool inside = period == 1 ? std::abs(1.0L - std::sqrt(1.0L - 4.0L * c)) < 1
                              : std::abs(c + 1.0L) < 0.25L;
    if (inside) return PERIOD::CONFIRMED;
  }
  std::vector<long double> rx(period), ry(period);
  long double x = 0, y = 0;
  auto distance = [&](int64_t n, int back) {
    int slot = static_cast<int>((n - back) % period);
    long double ex = x - rx[slot], ey = y - ry[slot];
    return std::sqrt(ex * ex + ey * ey);
  };
  auto judge = [&](int64_t n, long double near) {
    long double dp = distance(n, period);
    if (dp >= near) return PERIOD::UNSETTLED;
    for (int d = 1; d < period; d++) {
      if (period % d) continue;
      if (distance(n, d) < 10 * std::max(dp, tolerance)) {
        *divisor = d;
        return PERIOD::SMALLER;
      }
    }
    return PERIOD::CONFIRMED;
  };
  bool settled = false;
  for (int64_t n = 0; n < cap; n++) {
    long double nx = x * x - y * y + cr;
    long double ny = 2 * x * y + ci;
    if (nx * nx + ny * ny > 4) return PERIOD::ESCAPED;
    x = nx, y = ny;
    if (n >= period + 64 && distance(n, period) < tolerance) return judge(n, tolerance);
    if (n >= cap - period) {
      PERIOD v = judge(n, loose);
      if (n == cap - 1) return v == PERIOD::UNSETTLED && settled ? PERIOD::CONFIRMED : v;
      settled = settled || v == PERIOD::CONFIRMED;
    }
    int slot = static_cast<int>(n % period);
    rx[slot] = x;
    ry[slot] = y;
  }
  return PERIOD::UNSETTLED;
}

// ---------------------------------------------------------------- sampling

// `n` distinct pixel indices, the same on every run.
inline std::vector<int> samplepixels(int n, uint32_t seed) {
  std::vector<int> all(TILEPIXELS);
  for (int i = 0; i < TILEPIXELS; i++) all[i] = i;
  std::mt19937 rng(seed);
  for (int i = 0; i < n; i++) {
    std::uniform_int_distribution<int> pick(i, TILEPIXELS - 1);
    std::swap(all[i], all[pick(rng)]);
  }
  all.resize(n);
  std::sort(all.begin(), all.end());
  return all;
}

// fn(i) for i in [0, n), on both cores.
template <typename FN>
void parallelfor(int n, FN fn) {
  std::atomic<int> next{0};
  auto run = [&] {
    for (int i; (i = next.fetch_add(1)) < n;) fn(i);
  };
  std::thread helper(run);
  run();
  helper.join();
}

// ---------------------------------------------------------------- JSON

// The value of "key" in the tool's one-line JSON: a string without its
// quotes, or a number as written; empty when absent.
inline std::string jsonfield(const std::string& line, const std::string& key) {
  std::string k = "\"" + key + "\":";
  size_t p = line.find(k);
  if (p == std::string::npos) return "";
  p += k.size();
  if (p < line.size() && line[p] == '"') {
    size_t e = line.find('"', p + 1);
    return e == std::string::npos ? "" : line.substr(p + 1, e - p - 1);
  }
  size_t e = line.find_first_of(",}", p);
  return line.substr(p, e == std::string::npos ? std::string::npos : e - p);
}

}  // namespace tiletest
