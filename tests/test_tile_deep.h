// Deep tiles of the general realm against an independent count: plain
// z^2 + c in GMP at the tile's depth and 64 bits more, on a subsample of the
// tile's pixels. Shared by the test_tile_deep*.cpp files, which split the
// depths so that each executable stays short.
#pragma once

#include <gmp.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tilejob.h"

namespace deeptile {

// One tile: the area of `depth` holding (re, im), `samples` pixels checked,
// orbits followed to `limit` iterations by the reference and the tile's
// environment alike.
struct DEEPCASE {
  const char* name;
  int depth;
  const char* re;
  const char* im;
  long limit;
  int samples;
  const char* format;
};

// The count the engine reports for c: the n at which z_(n+1) first lies
// outside |z|^2 > 4, from z_0 = 0; -1 when the orbit stays inside `limit`.
inline long referencecount(mpf_srcptr cx, mpf_srcptr cy, long limit, mp_bitcnt_t bits) {
  mpf_t x, y, xx, yy, t;
  for (mpf_ptr v : {x, y, xx, yy, t}) mpf_init2(v, bits);
  long result = -1;
  for (long k = 0; k < limit; k++) {
    mpf_mul(t, x, y);
    mpf_mul_2exp(t, t, 1);
    mpf_add(y, t, cy);
    mpf_sub(x, xx, yy);
    mpf_add(x, x, cx);
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_add(t, xx, yy);
    if (mpf_cmp_ui(t, 4) > 0) {
      result = k;
      break;
    }
  }
  for (mpf_ptr v : {x, y, xx, yy, t}) mpf_clear(v);
  return result;
}

struct TALLY {
  int escaping = 0;  // sampled pixels the reference sees escape
  int equal = 0;
  int offbyone = 0;
  int unknown = 0;
  int wrong = 0;
  int bounded = 0;          // sampled pixels that stay inside
  int boundedcounted = 0;   // of which the tile gives an escape count
  long lowest = -1, highest = -1;
  std::string firstwrong;
};

// Pixel (px, py) of the tile lies at corner + (p + 1/2) 2^(-4 - depth).
inline void pixelpoint(mpf_ptr out, mpf_srcptr corner, int p, int depth) {
  mpf_set_ui(out, 2 * p + 1);
  mpf_div_2exp(out, out, depth + 5);
  mpf_add(out, out, corner);
}

// Compares `samples` distinct pixels, drawn by a fixed sequence, with the
// reference count.
inline TALLY comparetile(const TILERESULT& r, int depth, long limit, int samples) {
  mp_bitcnt_t bits = static_cast<mp_bitcnt_t>(depth) + 64;
  mpf_t ox, oy, cx, cy;
  for (mpf_ptr v : {ox, oy, cx, cy}) mpf_init2(v, bits + 64);
  mpf_set_str(ox, r.cornerre.c_str(), 10);
  mpf_set_str(oy, r.cornerim.c_str(), 10);
  TALLY t;
  std::set<int> seen;
  unsigned long state = 0x9E3779B9ul + static_cast<unsigned long>(depth);
  while (static_cast<int>(seen.size()) < samples) {
    state = state * 6364136223846793005ul + 1442695040888963407ul;
    int p = static_cast<int>((state >> 33) & 0xFFFF);
    if (!seen.insert(p).second) continue;
    int px = p & 255, py = p >> 8;
    pixelpoint(cx, ox, px, depth);
    pixelpoint(cy, oy, py, depth);
    long k = referencecount(cx, cy, limit, bits);
    float e = r.channel[3][p];
    if (k < 0) {
      t.bounded++;
      if (e > 0) t.boundedcounted++;
      continue;
    }
    t.escaping++;
    if (t.lowest < 0 || k < t.lowest) t.lowest = k;
    if (k > t.highest) t.highest = k;
    if (e == static_cast<float>(k)) {
      t.equal++;
    } else if (e == 0) {
      t.unknown++;
    } else if (e == static_cast<float>(k - 1) || e == static_cast<float>(k + 1)) {
      t.offbyone++;
    } else {
      if (!t.wrong)
        t.firstwrong = "pixel (" + std::to_string(px) + ", " + std::to_string(py) + "): " +
                       std::to_string(k) + " against " + std::to_string(e);
      t.wrong++;
    }
  }
  for (mpf_ptr v : {ox, oy, cx, cy}) mpf_clear(v);
  return t;
}

inline TILEARGS deepargs(const DEEPCASE& c) {
  TILEARGS a;
  a.depth = c.depth;
  a.re = c.re;
  a.im = c.im;
  a.general = true;
  a.channels = 8;
  a.out = "unused";
  a.referencelimit = c.limit;
  return a;
}

// The whole check of one tile: computed through the engine, in the format
// its depth asks for, with the counts of the sample matching.
inline void checkdeepresult(const DEEPCASE& c, const TILERESULT& r) {
  SCOPED_TRACE(c.name);
  EXPECT_EQ(r.format, c.format);
  EXPECT_GT(r.escaped, 0);
  EXPECT_GT(r.referencems, 0);
  TALLY t = comparetile(r, c.depth, c.limit, c.samples);
  ASSERT_GT(t.escaping, c.samples / 2);
  // The sample spans several counts: a tile of one count would prove little.
  EXPECT_LT(t.lowest, t.highest);
  EXPECT_GE(t.equal * 1000, t.escaping * 995)
      << t.equal << " of " << t.escaping << " equal; " << t.unknown << " unknown, " << t.offbyone
      << " off by one, " << t.wrong << " wrong";
  EXPECT_EQ(t.wrong, 0) << t.firstwrong;
  EXPECT_EQ(t.boundedcounted, 0) << "of " << t.bounded << " pixels that stay inside";
}

inline void checkdeeptile(const DEEPCASE& c, bool centre = false) {
  SCOPED_TRACE(c.name);
  TILEARGS a = deepargs(c);
  a.referenceatcentre = centre;
  TILERESULT r;
  std::string error;
  ASSERT_TRUE(computetile(a, &r, &error)) << error;
  checkdeepresult(c, r);
}

}  // namespace deeptile
