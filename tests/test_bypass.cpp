// The bypass: a tile's pixels sent through a level's cubic to the level
// their value falls in, checked against the same map in long double, against
// the orbit of each pixel iterated directly at depths 100 and 1000, and the
// lookup through a stack of hand-made levels.
#include <gtest/gtest.h>

#include <gmp.h>

#include <cmath>
#include <complex>
#include <cstdlib>
#include <vector>

#include "bypass.h"

namespace {

typedef std::complex<long double> CL;

// Just what the bypass reads of a context: the level's size.
struct FAKECONTEXT {
  OVCONTEXT* context;
  explicit FAKECONTEXT(int juliasizeshift = 8) {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    context->juliasizeshift = juliasizeshift;
    context->juliasize = 1 << juliasizeshift;
  }
  ~FAKECONTEXT() { free(context); }
};

struct FAKESTACK {
  REALM* realm;
  explicit FAKESTACK(int levels) {
    realm = static_cast<REALM*>(calloc(1, sizeof(REALM)));
    realm->type = JULIA;
    realm->njuliastack = levels;
    realm->juliastack = static_cast<JULIASTACKDATA*>(calloc(levels, sizeof(JULIASTACKDATA)));
  }
  ~FAKESTACK() {
    free(realm->juliastack);
    free(realm);
  }
};

HFLOATCOMPLEX hf(CL z) { return cHFld(complexld(z.real(), z.imag())); }
CL cl(HFLOATCOMPLEX z) {
  complexld v = cdlHF(z);
  return CL(v.real(), v.imag());
}

// The level a value falls in, worked out in long double: the larger part
// in [2^(E-1), 2^E) gives 1 - E, at most maxlevel.
int expectedlevel(CL v, int maxlevel, CL* place) {
  long double m = std::max(std::fabs(v.real()), std::fabs(v.imag()));
  int d = m == 0 ? 1 : -std::ilogb(m);
  if (d > maxlevel) d = maxlevel;
  *place = CL(std::ldexp(v.real(), d), std::ldexp(v.imag(), d));
  return d;
}

// Start point of pixel (i, j) of tile (tx, ty) of level s, N tiles a side.
CL startpoint(int s, int n, int tx, int ty, int i, int j, int juliasizeshift) {
  long double p = std::ldexp(1.0L, 2 - s - juliasizeshift);
  long double cx = std::ldexp(4.0L * tx / n - 2.0L, -s), cy = std::ldexp(4.0L * ty / n - 2.0L, -s);
  return CL(cx + (i + 0.5L) * p, cy + (j + 0.5L) * p);
}

HFLOATCOMPLEX cornerof(int s, int n, int tx, int ty) {
  return cHF(ldexpHF(HFd(4.0 * tx / n - 2.0), -s), ldexpHF(HFd(4.0 * ty / n - 2.0), -s));
}

std::vector<PREPIXEL> runbypass(OVCONTEXT* c, int s, int maxlevel, int tx, int ty,
                                const HFLOATCOMPLEX* t, ITER iter) {
  std::vector<PREPIXEL> out(NPREPIXEL);
  int n = 1 << (c->juliasizeshift - 8);
  bypass(c, maxlevel, (c->juliasizeshift - 8) + s + 2, cornerof(s, n, tx, ty), out.data(), t, iter);
  return out;
}

bool near(long double a, long double b, long double rel) {
  return std::fabs(a - b) <= rel * std::max(std::fabs(b), 1e-30L);
}

}  // namespace

TEST(Bypass, AZeroPolynomialSendsEveryPixelToLevelOneClampedToTheDeepestAllowed) {
  FAKECONTEXT f;
  HFLOATCOMPLEX t[4] = {CZEROH, CZEROH, CZEROH, CZEROH};
  for (int maxlevel : {5, 1, 0}) {
    std::vector<PREPIXEL> px = runbypass(f.context, 6, maxlevel, 0, 0, t, 77);
    int expect = std::min(1, maxlevel);
    for (int k = 0; k < NPREPIXEL; k += 97) {
      ASSERT_EQ(px[k].depth, expect) << k;
      EXPECT_EQ(px[k].iter, 77);
      EXPECT_EQ(px[k].x, 0.0f);
      EXPECT_EQ(px[k].y, 0.0f);
      EXPECT_EQ(px[k].dx, 0.0f);
    }
  }
}

TEST(Bypass, APixelThatLandsBeyondLevelZeroFinishesWithItsPlainValue) {
  FAKECONTEXT f;
  // v = 3 - 2.5i + 1e-3 delta: beyond the square of level 0 (half-width 2).
  HFLOATCOMPLEX t[4] = {hf(CL(3.0L, -2.5L)), hf(CL(1e-3L, 0)), CZEROH, CZEROH};
  int s = 4;
  std::vector<PREPIXEL> px = runbypass(f.context, s, s - 1, 0, 0, t, 12);
  for (int k : {0, 1000, 65535}) {
    EXPECT_EQ(px[k].depth, -1);
    EXPECT_EQ(px[k].iter, 12);
    // delta is at most 2^(1-s) = 0.125 in each part.
    EXPECT_NEAR(px[k].x, 3.0, 2e-4);
    EXPECT_NEAR(px[k].y, -2.5, 2e-4);
    // Derivative per pixel of level s in plane units: 1e-3 * 2^(2 - s - 8).
    EXPECT_NEAR(px[k].dx, 1e-3 * std::ldexp(1.0, 2 - s - 8), 1e-9);
  }
}

TEST(Bypass, EveryPixelLandsWhereTheCubicSendsItInLongDouble) {
  for (int jss : {8, 9}) {
    FAKECONTEXT f(jss);
    int s = 20, n = 1 << (jss - 8);
    CL t0(1e-4L, -3e-5L), t1(3000.0L, 1200.0L), t2(-4e7L, 2e7L), t3(1e11L, -3e11L);
    HFLOATCOMPLEX t[4] = {hf(t0), hf(t1), hf(t2), hf(t3)};
    for (int ty = 0; ty < n; ty++)
      for (int tx = 0; tx < n; tx++) {
        std::vector<PREPIXEL> px = runbypass(f.context, s, s - 1, tx, ty, t, 500);
        int good = 0, levels = 0, last = -2;
        for (int j = 0; j < 256; j++)
          for (int i = 0; i < 256; i++) {
            CL d = startpoint(s, n, tx, ty, i, j, jss);
            CL v = t0 + d * (t1 + d * (t2 + d * t3));
            CL dd = t1 + d * (2.0L * t2 + d * 3.0L * t3);
            CL place;
            int level = expectedlevel(v, s - 1, &place);
            const PREPIXEL& p = px[j * 256 + i];
            if (p.depth != last) levels++, last = p.depth;
            CL ds = dd * std::ldexp(1.0L, level - s);
            if (p.depth == level && p.iter == 500 && near(p.x, place.real(), 1e-5L) &&
                near(p.y, place.imag(), 1e-5L) && near(p.dx, ds.real(), 1e-4L) &&
                near(p.dy, ds.imag(), 1e-4L))
              good++;
          }
        // The map crosses several levels, and agrees on all but rounding
        // cases at a level's border.
        EXPECT_GT(levels, 2);
        EXPECT_GE(good, NPREPIXEL - 64) << "tile " << tx << "," << ty;
      }
  }
}

TEST(Bypass, APixelOfALevelOnDemandIsThePixelOfItsTile) {
  FAKECONTEXT f(8);
  FAKESTACK st(12);
  int s = 9;
  JULIASTACKDATA& L = st.realm->juliastack[s];
  CL t0(2e-4L, 1e-4L), t1(40.0L, -25.0L), t2(1e5L, 0), t3(0, 3e7L);
  L.taylorj[0] = hf(t0);
  L.taylorj[1] = hf(t1);
  L.taylorj[2] = hf(t2);
  L.taylorj[3] = hf(t3);
  L.iter = 321;
  L.bypass = true;
  std::vector<PREPIXEL> px = runbypass(f.context, s, s - 1, 0, 0, L.taylorj, 321);
  // Pixel (i, j)'s lower corner in level units; the pixel of a 256-wide
  // level is 1/64 wide, and bypassp adds 1/512 to the point it is given.
  int agree = 0, total = 0;
  for (int j = 0; j < 256; j += 5)
    for (int i = 0; i < 256; i += 7) {
      float x = static_cast<float>((i + 0.5) / 64.0 - 2.0 - 0.001953125);
      float y = static_cast<float>((j + 0.5) / 64.0 - 2.0 - 0.001953125);
      PREPIXEL q = bypassp(f.context, st.realm, s, x, y);
      const PREPIXEL& p = px[j * 256 + i];
      total++;
      if (q.depth == p.depth && q.iter == p.iter && near(q.x, p.x, 1e-5L) && near(q.y, p.y, 1e-5L) &&
          near(q.dx, p.dx, 1e-4L) && near(q.dy, p.dy, 1e-4L))
        agree++;
    }
  EXPECT_GE(agree, total - 2);
}

TEST(Bypass, LevelZeroCannotBeABypassLevel) {
  FAKECONTEXT f(8);
  FAKESTACK st(4);
  st.realm->juliastack[0].bypass = true;
  st.realm->juliastack[0].taylorj[1] = CONEH;
  PREPIXEL q = bypassp(f.context, st.realm, 0, 0.5f, 0.5f);
  EXPECT_EQ(q.iter, 0);
  EXPECT_EQ(q.depth, -1);
  // Nothing below level 0 to refer to: a tile of it made by the bypass
  // would send every pixel out of the stack.
  HFLOATCOMPLEX t[4] = {CZEROH, CONEH, CZEROH, CZEROH};
  std::vector<PREPIXEL> px = runbypass(f.context, 0, -1, 0, 0, t, 5);
  for (int k = 0; k < NPREPIXEL; k += 101) EXPECT_EQ(px[k].depth, -1);
}

// ---------------------------------------------------------------- against the orbit

namespace {

// The orbit of 0 under z^2 + m in mpf, and the series of the orbit of a
// small start delta, t0..t3, carried along in HFLOAT.
struct SEED {
  std::vector<CL> orbit;  // Z_k as long double, k = 0..iter
  HFLOATCOMPLEX taylor[4];
};

SEED seedof(const char* re, const char* im, int iter) {
  mpf_t x, y, t, u;
  mpf_init2(x, 4096);
  mpf_init2(y, 4096);
  mpf_init2(t, 4096);
  mpf_init2(u, 4096);
  mpf_t mx, my;
  mpf_init2(mx, 4096);
  mpf_init2(my, 4096);
  mpf_set_str(mx, re, 10);
  mpf_set_str(my, im, 10);
  mpf_set_ui(x, 0);
  mpf_set_ui(y, 0);
  SEED s;
  HFLOATCOMPLEX T1 = CONEH, T2 = CZEROH, T3 = CZEROH;
  for (int k = 0;; k++) {
    HFLOATCOMPLEX Z = cHF(mpf_get_HF(x), mpf_get_HF(y));
    s.orbit.push_back(cl(Z));
    if (k == iter) {
      s.taylor[0] = Z;
      break;
    }
    HFLOATCOMPLEX twoZ = cldexpHF(Z, 1);
    HFLOATCOMPLEX n3 = caddHF(cmulHF(twoZ, T3), cldexpHF(cmulHF(T1, T2), 1));
    HFLOATCOMPLEX n2 = caddHF(cmulHF(twoZ, T2), cmulHF(T1, T1));
    T1 = cmulHF(twoZ, T1);
    T2 = n2;
    T3 = n3;
    // z <- z^2 + m
    mpf_mul(t, x, x);
    mpf_mul(u, y, y);
    mpf_sub(t, t, u);
    mpf_mul(u, x, y);
    mpf_mul_2exp(u, u, 1);
    mpf_add(x, t, mx);
    mpf_add(y, u, my);
  }
  s.taylor[1] = T1;
  s.taylor[2] = T2;
  s.taylor[3] = T3;
  for (mpf_t* m : {&x, &y, &t, &u, &mx, &my}) mpf_clear(*m);
  return s;
}

// The start delta iterated against the orbit: dz' = 2 Z dz + dz^2.
CL direct(const SEED& s, CL delta, int iter) {
  CL dz = delta;
  for (int k = 0; k < iter; k++) dz = 2.0L * s.orbit[k] * dz + dz * dz;
  return s.orbit[iter] + dz;
}

void againsttheorbit(int s, int iter) {
  FAKECONTEXT f(8);
  SEED seed = seedof("-0.7436438870371587", "0.13182590420531198", iter);
  std::vector<PREPIXEL> px = runbypass(f.context, s, s - 1, 0, 0, seed.taylor, iter);
  int good = 0, samples = 0, moved = 0;
  for (int j = 0; j < 256; j += 3)
    for (int i = 0; i < 256; i += 3) {
      CL d = startpoint(s, 1, 0, 0, i, j, 8);
      CL z = direct(seed, d, iter);
      CL place;
      int level = expectedlevel(z, s - 1, &place);
      const PREPIXEL& p = px[j * 256 + i];
      samples++;
      if (level >= 0 && level < s - 5) moved++;
      // The same level and the same place to a hundredth of a level pixel.
      if (p.depth == level && std::fabs(p.x - place.real()) < 4e-4L &&
          std::fabs(p.y - place.imag()) < 4e-4L)
        good++;
    }
  EXPECT_GE(good, samples * 99 / 100) << "level " << s;
  // The series carries the pixels to levels well above their own, inside
  // the stack: the comparison is not one of points left in place.
  EXPECT_GT(moved, samples / 2) << "level " << s;
}

}  // namespace

TEST(BypassOrbit, TheCubicAgreesWithTheIteratedOrbitAtDepth100) {
  // Deep enough that the series is the orbit; the pixels come out levels
  // above their own.
  againsttheorbit(100, 60);
}

TEST(BypassOrbit, TheCubicAgreesWithTheIteratedOrbitAtDepth1000) { againsttheorbit(1000, 400); }

// ---------------------------------------------------------------- the lookup

namespace {

JULIACACHE* tileof(std::vector<PREPIXEL>& data) {
  JULIACACHE* jc = static_cast<JULIACACHE*>(calloc(1, sizeof(JULIACACHE)));
  jc->_data = data.data();
  jc->data = data.data();
  jc->count = 1;
  return jc;
}

}  // namespace

TEST(JuliaStackLookup, ALevelAboveReadyGivesAnEmptyResult) {
  FAKECONTEXT f(8);
  FAKESTACK st(4);
  PREPIXEL r = juliastacklookup(f.context, st.realm, 3, 0.5f, 0.5f, 1000, 2);
  EXPECT_EQ(r.iter, 0);
  EXPECT_EQ(r.depth, -1);
  r = juliastacklookup(f.context, st.realm, -1, 0.5f, 0.5f, 1000, 2);
  EXPECT_EQ(r.iter, 0);
}

TEST(JuliaStackLookup, CountsAddAndTheInteriorSignWins) {
  FAKECONTEXT f(8);
  FAKESTACK st(4);
  std::vector<PREPIXEL> level0(NPREPIXEL), level2(NPREPIXEL);
  for (int k = 0; k < NPREPIXEL; k++) {
    level0[k] = PREPIXEL{k % 2 ? -(5 + k % 7) : 40 + k % 11, 1.5f, -0.5f, 2.0f, 1.0f, -1};
  }
  // Every pixel of level 2 refers to a bypass level 1 without tiles, whose
  // cubic is the identity: the point reaches level 1 and then level 0 ...
  for (int k = 0; k < NPREPIXEL; k++) level2[k] = PREPIXEL{0, 0, 0, 1, 0, 1};
  JULIACACHE* t0 = tileof(level0);
  JULIACACHE* t2 = tileof(level2);
  st.realm->juliastack[0].c[0][0] = t0;
  st.realm->juliastack[2].c[0][0] = t2;
  JULIASTACKDATA& L1 = st.realm->juliastack[1];
  L1.bypass = true;
  L1.iter = 9;
  // v = 3 delta: a point of level 1 at x goes to 1.5 x in level 0 units.
  L1.taylorj[1] = cmulHF2(CONEH, HFd(3.0));
  float x = 1.0f, y = -0.25f;
  PREPIXEL r = juliastacklookup(f.context, st.realm, 1, x, y, 100, 2);
  double vx = 3.0 * (x + 0.001953125) / 2.0, vy = 3.0 * (y + 0.001953125) / 2.0;
  int col = static_cast<int>(std::floor(256 * vx * 0.25 + 128));
  int row = static_cast<int>(std::floor(256 * vy * 0.25 + 128));
  const PREPIXEL& q = level0[row * 256 + col];
  ITER expect = (q.iter < 0 ? -(100 + 9) : 100 + 9) + q.iter;
  EXPECT_EQ(r.iter, expect);
  EXPECT_EQ(r.depth, -1);
  // The derivative: 1.5 (level 0 units by level 1 units) times the pixel's.
  EXPECT_NEAR(r.dx, 1.5 * 2.0, 1e-5);
  EXPECT_NEAR(r.dy, 1.5 * 1.0, 1e-5);
  // A point with no tile on a level that is not a bypass level: empty.
  st.realm->juliastack[0].c[0][0] = nullptr;
  r = juliastacklookup(f.context, st.realm, 0, x, y, 100, 2);
  EXPECT_EQ(r.iter, 0);
  free(t0);
  free(t2);
}

TEST(JuliaStackLookup, TheLevelOfAValueFollowsItsExponent) {
  double x = 0, y = 0;
  EXPECT_EQ(juliastacklevel(hf(CL(1.5L, 0)), 100, &x, &y), 0);
  EXPECT_DOUBLE_EQ(x, 1.5);
  EXPECT_EQ(juliastacklevel(hf(CL(2.0L, 0)), 100, &x, &y), -1);
  EXPECT_EQ(juliastacklevel(hf(CL(0.3L, -0.7L)), 100, &x, &y), 1);
  EXPECT_DOUBLE_EQ(y, -1.4);
  EXPECT_EQ(juliastacklevel(hf(CL(std::ldexp(1.0L, -40), 0)), 100, &x, &y), 40);
  EXPECT_DOUBLE_EQ(x, 1.0);
  // Near 0 a value is looked up in the deepest level allowed, scaled to it.
  EXPECT_EQ(juliastacklevel(hf(CL(std::ldexp(1.0L, -40), 0)), 30, &x, &y), 30);
  EXPECT_DOUBLE_EQ(x, std::ldexp(1.0, -10));
  EXPECT_EQ(juliastacklevel(CZEROH, 30, &x, &y), 1);
}

TEST(JuliaStackLookup, ADeepIterationFinishesThroughTheStack) {
  FAKECONTEXT f(8);
  FAKESTACK st(4);
  std::vector<PREPIXEL> level0(NPREPIXEL, PREPIXEL{1, 0, 0, 1, 0, -1});
  // z = 0.75 - 0.5i in level 0 (the deepest ready): pixel (176, 96).
  level0[96 * 256 + 176] = PREPIXEL{30, 5.0f, 0.0f, 2.0f, 0.0f, -1};
  JULIACACHE* t0 = tileof(level0);
  st.realm->juliastack[0].c[0][0] = t0;
  ITERINFO info{};
  info.lookup = true;
  info.iter = 100;
  info.z = hf(CL(0.75L, -0.5L));
  info.dzm = hf(CL(3.0L, 1.0L));
  info.dzj = hf(CL(-1.0L, 0.5L));
  juliastacklookupex(f.context, st.realm, 0, &info);
  EXPECT_FALSE(info.lookup);
  EXPECT_EQ(info.iter, 130);
  EXPECT_NEAR(dHF(crealHF(info.z)), 5.0, 1e-12);
  // The derivative 2 per level unit of level 0, 2^6 level units per plane
  // unit at juliasize 256.
  CL dzm = cl(info.dzm), dzj = cl(info.dzj);
  EXPECT_NEAR(static_cast<double>(dzm.real()), 3.0 * 128, 1e-9);
  EXPECT_NEAR(static_cast<double>(dzm.imag()), 1.0 * 128, 1e-9);
  EXPECT_NEAR(static_cast<double>(dzj.real()), -1.0 * 128, 1e-9);
  // The distances are those of the new state: (|z| ln|z| / |dz|)^2.
  double zz = 5.0, expect = std::pow(zz * std::log(zz) / std::abs(std::complex<double>(384, 128)), 2);
  EXPECT_NEAR(dHF(info.distm), expect, expect * 1e-6);
  EXPECT_GT(dHF(info.dj), 0.0);
  // A value beyond level 0 is not looked up.
  ITERINFO out{};
  out.lookup = true;
  out.iter = 7;
  out.z = hf(CL(2.5L, 0));
  juliastacklookupex(f.context, st.realm, 0, &out);
  EXPECT_EQ(out.iter, 7);
  EXPECT_TRUE(out.lookup);
  free(t0);
}

namespace {

// w -> t2 w^2 with |t2| = 2^10 after 100 steps: the return map of an
// attracting 0, whose basin around 0 has a radius of about 2^-10. A level
// s > 10 sends its pixels to level 2s - 10, deeper than its own.
void squaringcubic(HFLOATCOMPLEX* t) {
  t[0] = CZEROH;
  t[1] = CZEROH;
  t[2] = cHF(ldexpHF(ONEH, 10), ZEROH);
  t[3] = CZEROH;
}

}  // namespace

TEST(BypassDeeper, APixelNearerZeroGoesThroughTheSharedCubicIntoTheTrap) {
  FAKECONTEXT f;
  HFLOATCOMPLEX t[4];
  squaringcubic(t);
  const int s = 30;
  // Unclamped, every pixel names a level deeper than its own.
  std::vector<PREPIXEL> tile = runbypass(f.context, s, NJULIASTACK - 1, 0, 0, t, 100);
  for (int k : {0, 1000, 40000})
    EXPECT_GE(tile[k].depth, s) << k;
  // Levels 30..60 share the cubic; the trap holds |z| < 2^-80.
  HFLOAT rlim = ldexpHF(ONEH, -80);
  bypassdeeper(f.context, s, 60, tile.data(), t, 100, CZEROH, rlim);
  int js = f.context->juliasize;
  for (int k : {0, 1000, 40000, NPREPIXEL - 1}) {
    const PREPIXEL& p = tile[k];
    ASSERT_EQ(p.depth, -1) << k;
    // The rounds it takes in long double: |w| grows to 2^10 |w|^2 a round
    // until it passes below the trap.
    CL w = startpoint(s, 1, 0, 0, k % js, k / js, f.context->juliasizeshift);
    int rounds = 0;
    while (std::abs(w) >= std::ldexp(1.0L, -80)) {
      w = std::ldexp(1.0L, 10) * w * w;
      rounds++;
    }
    EXPECT_EQ(p.iter, -100 * rounds) << k;
  }
}

TEST(BypassDeeper, WithoutATrapAPixelStopsAtTheLastSharedLevel) {
  FAKECONTEXT f;
  HFLOATCOMPLEX t[4];
  squaringcubic(t);
  const int s = 30;
  std::vector<PREPIXEL> tile = runbypass(f.context, s, NJULIASTACK - 1, 0, 0, t, 100);
  bypassdeeper(f.context, s, 60, tile.data(), t, 100, CZEROH, ZEROH);
  for (int k : {0, 1000, 40000}) {
    const PREPIXEL& p = tile[k];
    // Past level 60 no level shares the cubic: the pixel names its level
    // for the finishing, with the counts of the rounds it took.
    EXPECT_GT(p.depth, 60) << k;
    EXPECT_GT(p.iter, 100) << k;
    EXPECT_EQ(p.iter % 100, 0) << k;
  }
}

TEST(BypassDeeper, APixelThatFallsShallowerIsLeftAsTheCubicPutIt) {
  FAKECONTEXT f;
  HFLOATCOMPLEX t[4];
  squaringcubic(t);
  // Level 8: w ~ 2^-8 goes to 2^10 2^-16 = 2^-6, level 6 or so.
  const int s = 8;
  std::vector<PREPIXEL> tile = runbypass(f.context, s, NJULIASTACK - 1, 0, 0, t, 100);
  std::vector<PREPIXEL> before = tile;
  bypassdeeper(f.context, s, 60, tile.data(), t, 100, CZEROH, ldexpHF(ONEH, -80));
  int shallower = 0;
  for (int k = 0; k < NPREPIXEL; k++) {
    if (before[k].depth >= s) continue;
    shallower++;
    EXPECT_EQ(tile[k].depth, before[k].depth);
    EXPECT_EQ(tile[k].iter, before[k].iter);
    EXPECT_EQ(tile[k].x, before[k].x);
  }
  EXPECT_GT(shallower, NPREPIXEL / 2);
}

TEST(BypassDeeper, APixelOnDemandMeetsTheTrapAsTheTileDoes) {
  FAKECONTEXT f;
  FAKESTACK st(64);
  HFLOATCOMPLEX t[4];
  squaringcubic(t);
  HPVALUE m{};
  for (int s = 1; s < 64; s++) {
    JULIASTACKDATA& L = st.realm->juliastack[s];
    L.m = &m;
    L.bypass = true;
    L.iter = 100;
    for (int k = 0; k < 4; k++) L.taylorj[k] = t[k];
    L.miter = -100;
    L.lim = CZEROH;
    L.rlim = ldexpHF(ONEH, -80);
  }
  st.realm->maxjuliastack = 63;
  const int s = 30;
  std::vector<PREPIXEL> tile = runbypass(f.context, s, NJULIASTACK - 1, 0, 0, t, 100);
  bypassdeeper(f.context, s, 63, tile.data(), t, 100, CZEROH, ldexpHF(ONEH, -80));
  int js = f.context->juliasize;
  for (int k : {0, 1000, 40000}) {
    // The on-demand pixel starts 1/512 off the centre; at this depth that
    // changes no round.
    float x = static_cast<float>((k % js + 0.5) * 4.0 / js - 2.0 - 0.001953125);
    float y = static_cast<float>((k / js + 0.5) * 4.0 / js - 2.0 - 0.001953125);
    PREPIXEL p = bypassp(f.context, st.realm, s, x, y);
    EXPECT_EQ(p.depth, -1) << k;
    EXPECT_EQ(p.iter, tile[k].iter) << k;
    EXPECT_LT(p.iter, 0) << k;
  }
}
