// The Julia correction: one pixel against stack levels filled by hand, the
// correction program (each tile read once, pairs sorted by tile, its limits,
// unreadable tiles), the channels of corrected pixels against a direct
// computation, and the canvas jobs of the Julia path on a running engine.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <string>
#include <vector>

#include "canvas/render.h"
#include "enginefixture.h"
#include "juliastack.h"
#include "test_textures.h"

using enginetest::Engine;

namespace {

typedef std::complex<double> C;

// A Julia realm made by hand: `levels` levels, the first `ready` + 1 ready.
struct STACK {
  REALM* realm;
  explicit STACK(int levels, int ready) {
    realm = static_cast<REALM*>(calloc(1, sizeof(REALM)));
    realm->type = JULIA;
    realm->count = 1;
    realm->njuliastack = levels;
    realm->juliastack = static_cast<JULIASTACKDATA*>(calloc(levels, sizeof(JULIASTACKDATA)));
    realm->readyjuliastack = ready;
    realm->priojuliastack = -1;
    // The chains a real stack starts with: areas waiting for a level, and
    // the bypass tiles.
    initchain(&realm->bypassjc);
    for (int s = 0; s < levels; s++) initchain(&realm->juliastack[s].wait);
  }
  ~STACK() {
    free(realm->juliastack);
    free(realm);
  }
  JULIASTACKDATA& level(int s) { return realm->juliastack[s]; }
};

// With juliasize 256 a level is one tile: pixel (i, j) is at x = (i + 0.5 - 128) / 64.
float coord(int i) { return static_cast<float>((i + 0.5 - 128) / 64.0); }

// A tile in memory, locked, whose pixel k is f(k).
template <typename F>
JULIACACHE* tilewith(OVCONTEXT* c, F f) {
  JULIACACHE* jc = addjc(c);
  EXPECT_TRUE(lockmemjuliacache(c, jc, JCLOCK_CREATE));
  for (int k = 0; k < NPREPIXEL; k++) jc->data[k] = f(k);
  return jc;
}

PREPIXEL finished(int k) {
  return PREPIXEL{(k % 7) - 3, 0.5f + k * 1e-5f, -0.25f, 1.0f + (k % 3), 0.5f, -1};
}

std::vector<int> ghookcalls;
REALM* ghookrealm = nullptr;
void recordlevel(OVCONTEXT*, REALM* r, int s) {
  ghookrealm = r;
  ghookcalls.push_back(s);
}

struct HOOKED {
  HOOKED() {
    ghookcalls.clear();
    juliastackhook = recordlevel;
  }
  ~HOOKED() { juliastackhook = nullptr; }
};

}  // namespace

// ---------------------------------------------------------------- one pixel

TEST(JuliaCorrectP, AFinishedPixelIsLeftAlone) {
  Engine e;
  STACK s(2, 1);
  e.onmain([&](OVCONTEXT* c) {
    PREPIXEL p{17, 0.5f, 0.25f, 2.0f, 3.0f, -1};
    PREPIXEL before = p;
    EXPECT_EQ(juliacorrectp(c, s.realm, &p, true), 0);
    EXPECT_EQ(memcmp(&p, &before, sizeof p), 0);
  });
}

TEST(JuliaCorrectP, ALevelNotReadyAndAnAbsentTileAreReported) {
  Engine e;
  STACK s(4, 1);
  e.onmain([&](OVCONTEXT* c) {
    PREPIXEL p{5, 0.5f, 0.5f, 1, 0, 2};
    EXPECT_EQ(juliacorrectp(c, s.realm, &p, true), 1);
    p.depth = 1;
    EXPECT_EQ(juliacorrectp(c, s.realm, &p, true), 2);  // level 1 has no tile
    EXPECT_EQ(juliacorrectp(c, nullptr, &p, true), 1);
    EXPECT_EQ(p.depth, 1);
    EXPECT_EQ(p.iter, 5);
  });
}

TEST(JuliaCorrectP, APixelFollowsTheLevelsToAFinishedValue) {
  Engine e;
  STACK s(3, 1);
  e.onmain([&](OVCONTEXT* c) {
    // Level 1 sends every pixel to pixel (200, 40) of level 0, which is finished.
    // Counts within 1 of their neighbours: no pixel sits on a change of count.
    JULIACACHE* t1 = tilewith(c, [](int k) {
      return PREPIXEL{10 + (k >> 8) % 2, coord(200), coord(40), 0.5f, -1.5f, 0};
    });
    JULIACACHE* t0 = tilewith(c, [](int k) {
      PREPIXEL q = finished(k);
      q.iter = 4;
      return q;
    });
    s.level(1).c[0][0] = t1;
    s.level(0).c[0][0] = t0;
    PREPIXEL p{100, coord(30), coord(77), 2.0f, 1.0f, 1};
    int k1 = 77 * 256 + 30;
    PREPIXEL q1 = t1->data[k1];
    PREPIXEL q0 = t0->data[40 * 256 + 200];
    EXPECT_EQ(juliacorrectp(c, s.realm, &p, false), 0);
    ITER iter = 100 + q1.iter;
    iter = (q0.iter < 0 ? -iter : iter) + q0.iter;
    C d = C(2.0, 1.0) * C(q1.dx, q1.dy) * C(q0.dx, q0.dy);
    EXPECT_EQ(p.iter, iter);
    EXPECT_EQ(p.depth, -1);
    EXPECT_FLOAT_EQ(p.x, q0.x);
    EXPECT_FLOAT_EQ(p.y, q0.y);
    EXPECT_NEAR(p.dx, d.real(), 1e-5);
    EXPECT_NEAR(p.dy, d.imag(), 1e-5);
    // A stretched pixel reads the level's mipmap instead.
    JULIACACHE* mip = tilewith(c, [](int k) { return PREPIXEL{1000 + (k & 1), 9, 9, 1, 0, -1}; });
    s.level(0).mipmap = mip;
    PREPIXEL m{1, coord(5), coord(6), 6.0f, 0.0f, 0};
    EXPECT_EQ(juliacorrectp(c, s.realm, &m, false), 0);
    EXPECT_EQ(m.iter, 1 + 1001);
    for (JULIACACHE* jc : {t1, t0, mip}) {
      unlockmemjuliacache(c, jc, 0);
      detachjc(c, jc);
    }
  });
}

// Next to a Julia set the count changes within one pixel of a level almost
// everywhere; there the centre's end is not the pixel's, and the pixel
// keeps its own state and place, marked to go on from there.
TEST(JuliaCorrectP, APixelOnAChangeOfCountIsMarkedToGoOnFromItsPlace) {
  Engine e;
  STACK s(2, 1);
  e.onmain([&](OVCONTEXT* c) {
    JULIACACHE* t0 = tilewith(c, finished);  // counts -3..3 side by side
    s.level(0).c[0][0] = t0;
    PREPIXEL p{100, coord(30), coord(77), 2.0f, 1.0f, 0};
    PREPIXEL before = p;
    EXPECT_EQ(juliacorrectp(c, s.realm, &p, false), 0);
    EXPECT_EQ(p.depth, JULIAFROMPLACE + 0);
    EXPECT_EQ(p.iter, before.iter);
    EXPECT_EQ(p.x, before.x);
    EXPECT_EQ(p.y, before.y);
    EXPECT_EQ(p.dx, before.dx);
    unlockmemjuliacache(c, t0, 0);
    detachjc(c, t0);
  });
}

// The marked pixels of an area go on from their places under z^2 + m of the
// level they name, as the level's own such pixels do: their counts become
// their own steps so far plus those of the plain orbit from the place. A
// pixel whose level has no seed cannot go on and shows as unknown.
TEST(JuliaFromPlace, MarkedPixelsGoOnFromTheirPlacesUnderTheirLevelsSeed) {
  Engine e;
  STACK s(4, 3);
  const C seed(-0.8, 0.156);
  const C place0(0.3, 0.2), place3(1.5, -0.7);
  auto plain = [&](C z) {
    for (int n = 0; n < 100000; n++) {
      C z1 = z * z + seed;
      if (std::norm(z1) > 4) return n;
      z = z1;
    }
    return -1;
  };
  e.onmain([&](OVCONTEXT* c) {
    HPVALUE* m = addhpv(c, 64);
    mpf_set_d(m->v[0], seed.real());
    mpf_set_d(m->v[1], seed.imag());
    s.level(0).m = m;
    s.level(3).m = m;
    PREPIXELS* pp = addprepixels(c);
    ASSERT_NE(pp, nullptr);
    for (PREPIXEL& p : pp->pixels) p = PREPIXEL{1, 0, 0, 0, 0, -1};
    pp->pixels[0] = PREPIXEL{5, float(place0.real()), float(place0.imag()), 1, 0, JULIAFROMPLACE + 0};
    pp->pixels[1] = PREPIXEL{7, float(place3.real()), float(place3.imag()), 1, 0, JULIAFROMPLACE + 3};
    pp->pixels[2] = PREPIXEL{9, 0.5f, 0.5f, 1, 0, JULIAFROMPLACE + 2};  // level 2 has no seed
    pp->pixels[3] = PREPIXEL{4, 0.25f, 0.5f, 1, 0, JULIAFROMPLACE + 0};
    EXPECT_TRUE(takefromplacelevels(c, s.realm, pp));
    EXPECT_EQ(pp->nfromplace, 2);
    EXPECT_EQ(pp->pixels[2].iter, 0);
    EXPECT_EQ(pp->pixels[2].depth, -1);
    bool stop = false;
    EXPECT_TRUE(iteratefromplace(c, pp, &stop));
    EXPECT_EQ(pp->pixels[0].iter, 5 + plain(place0));
    EXPECT_EQ(pp->pixels[1].iter, 7 + plain(std::ldexp(1.0, -3) * place3));
    EXPECT_EQ(pp->pixels[3].iter, 4 + plain(C(0.25, 0.5)));
    for (int k : {0, 1, 3}) EXPECT_EQ(pp->pixels[k].depth, -1) << k;
    EXPECT_EQ(pp->pixels[4].iter, 1);  // unmarked pixels are left alone
    releasefromplacelevels(c, pp);
    EXPECT_EQ(pp->nfromplace, 0);
    // A buffer without marks names no level.
    for (PREPIXEL& p : pp->pixels) p = PREPIXEL{1, 0, 0, 0, 0, -1};
    EXPECT_FALSE(takefromplacelevels(c, s.realm, pp));
    EXPECT_EQ(pp->nfromplace, 0);
    removeprepixels(c, pp);
    detachhpv(c, m);
  });
}

// ---------------------------------------------------------------- the program

namespace {

// A stored file whose reads are counted where they begin a tile.
struct COUNTED {
  FILE* f;
  std::vector<char> bytes;
  long pos = 0;
  int tilereads = 0;
  uint64_t base;

  static ssize_t rd(void* cookie, char* buf, size_t n) {
    COUNTED* s = static_cast<COUNTED*>(cookie);
    if (s->pos >= long(s->bytes.size())) return 0;
    if ((s->pos - long(s->base)) % JULIACACHETILEBYTES == 0) s->tilereads++;
    size_t m = std::min(n, s->bytes.size() - size_t(s->pos));
    memcpy(buf, s->bytes.data() + s->pos, m);
    s->pos += long(m);
    return ssize_t(m);
  }
  static int sk(void* cookie, off64_t* off, int whence) {
    COUNTED* s = static_cast<COUNTED*>(cookie);
    long p = whence == SEEK_SET ? *off : whence == SEEK_CUR ? s->pos + *off : long(s->bytes.size()) + *off;
    s->pos = p;
    *off = p;
    return 0;
  }
  static int cl(void*) { return 0; }

  COUNTED(uint64_t base, int ntiles) : base(base) {
    bytes.resize(base + size_t(ntiles) * JULIACACHETILEBYTES);
    cookie_io_functions_t io = {rd, nullptr, sk, cl};
    f = fopencookie(this, "r", io);
    setvbuf(f, nullptr, _IONBF, 0);
  }
  PREPIXEL* tile(int i) { return reinterpret_cast<PREPIXEL*>(bytes.data() + base + size_t(i) * JULIACACHETILEBYTES); }
};

// Buffer pixels of level `level` that alternate between the level's tile and
// its mipmap by their stretch.
std::vector<PREPIXEL> alternating(int seed, int level) {
  std::vector<PREPIXEL> v(NPREPIXEL);
  for (int k = 0; k < NPREPIXEL; k++) {
    bool stretch = (k + seed) % 2 == 0;
    v[k] = PREPIXEL{k % 11 - 5, coord((k * 7 + seed) % 256), coord((k * 13) % 256),
                    stretch ? 6.0f : 0.5f, 0.25f, k % 5 == 0 ? -1 : level};
  }
  return v;
}

}  // namespace

TEST(JuliaCorrectProgram, EachTileIsReadOnceAndThePixelsEndAsOneByOne) {
  Engine e;
  STACK s(2, 0);
  HOOKED hooked;
  COUNTED file(64, 2);
  for (int k = 0; k < NPREPIXEL; k++) {
    // The lower halves of the tile and its mipmap change their counts from
    // pixel to pixel; the upper halves hold one count.
    file.tile(0)[k] = finished(k);
    if (k >= NPREPIXEL / 2) file.tile(0)[k].iter = 7;
    file.tile(1)[k] = PREPIXEL{-(k % 4) - 1, 0.125f, float(k), 2.0f, -1.0f, -1};
    if (k >= NPREPIXEL / 2) file.tile(1)[k].iter = -2;
  }
  // A level's pixel handed onto a pixel whose neighbours' counts differ
  // from its own by more than 1 (or in sign) is left to the level's
  // finishing, marked with the level it is in, in the mipmap as in the
  // level's tile.
  auto onedge = [&](const PREPIXEL* t, int row, int col) {
    int q = t[row * 256 + col].iter;
    for (int dy = -1; dy <= 1; dy++)
      for (int dx = -1; dx <= 1; dx++) {
        int r = row + dy, c = col + dx;
        if (r < 0 || c < 0 || r > 255 || c > 255) continue;
        int n = t[r * 256 + c].iter;
        if ((n < 0) != (q < 0) || std::abs(n - q) > 1) return true;
      }
    return false;
  };
  int leftover = 0, applied = 0;
  std::vector<PREPIXEL> b0 = alternating(0, 0), b1 = alternating(1, 0);
  std::vector<PREPIXEL> w0 = b0, w1 = b1;
  std::vector<std::vector<int>> pairs(2);
  e.onmain([&](OVCONTEXT* c) {
    c->nmemjuliacache = 1;  // the two tiles cannot be in memory together
    c->njuliapp = 4;
    JCFILE* jf = addjcfile(file.f, 64);
    JULIACACHE* tile = addjcfileoffset(c, jf, 0);
    JULIACACHE* mip = addjcfileoffset(c, jf, JULIACACHETILEBYTES);
    detachjcfile(jf);
    mip->flags |= JCF_MIPMAP;
    s.level(0).c[0][0] = tile;
    s.level(0).mipmap = mip;
    // The expected end of each pixel, computed here from the stored tiles.
    for (auto* v : {&w0, &w1})
      for (PREPIXEL& p : *v) {
        if (p.depth < 0) continue;
        bool stretch = p.dx * p.dx + p.dy * p.dy > 32;
        int col = int(std::floor(256 * p.x * 0.25 + 128)), row = int(std::floor(256 * p.y * 0.25 + 128));
        const PREPIXEL* t = file.tile(stretch ? 1 : 0);
        const PREPIXEL& q = t[row * 256 + col];
        if (onedge(t, row, col)) {
          p.depth = JULIAFROMPLACE + 0;
          leftover++;
          continue;
        }
        applied++;
        C d = C(p.dx, p.dy) * C(q.dx, q.dy);
        p = PREPIXEL{(q.iter < 0 ? -p.iter : p.iter) + q.iter, q.x, q.y, float(d.real()), float(d.imag()), -1};
      }
    addjuliacorrecttarget(c, s.realm, 1, b0.data());
    addjuliacorrecttarget(c, s.realm, 1, b1.data());
    EXPECT_EQ(s.realm->count, 3);
    // The pixels now name their tiles by record index.
    EXPECT_EQ(b0[1].depth, tile->ijuliacache);
    EXPECT_EQ(c->ijuliacacheprogram[tile->ijuliacache][0] + c->ijuliacacheprogram[mip->ijuliacache][0],
              NPREPIXEL - (NPREPIXEL + 4) / 5);
    finishjuliacorrect(c);
    EXPECT_EQ(c->ijuliacachepp, 0);
    EXPECT_EQ(c->ijuliacacheprogram[tile->ijuliacache][0], 0);
    EXPECT_EQ(s.realm->count, 1);
    // Pairs of the plain tile first, buffer 0 then buffer 1, each ascending.
    int n = 0;
    for (int b = 0; b < 2; b++) {
      std::vector<PREPIXEL> src = alternating(b, 0);
      for (int k = 0; k < NPREPIXEL; k++)
        if (src[k].depth == 0 && !(src[k].dx * src[k].dx + src[k].dy * src[k].dy > 32))
          pairs[b].push_back(k);
    }
    for (int b = 0; b < 2; b++)
      for (int k : pairs[b]) EXPECT_EQ(c->juliacacheprogram[n++][1], k) << b;
    detachjc(c, tile);
    detachjc(c, mip);
  });
  EXPECT_EQ(file.tilereads, 2);
  // Both ways are taken.
  EXPECT_GT(leftover, 1000);
  EXPECT_GT(applied, 1000);
  EXPECT_EQ(memcmp(b0.data(), w0.data(), JULIACACHETILEBYTES), 0);
  EXPECT_EQ(memcmp(b1.data(), w1.data(), JULIACACHETILEBYTES), 0);
  EXPECT_EQ(ghookcalls, std::vector<int>{1});  // one level, finished once
  EXPECT_EQ(ghookrealm, s.realm);
}

TEST(JuliaCorrectProgram, AFullProgramRunsBeforeTheNextBufferJoins) {
  Engine e;
  STACK s(80, 0);
  HOOKED hooked;
  std::vector<PREPIXEL> none(NPREPIXEL, PREPIXEL{1, 0, 0, 0, 0, -1});
  e.onmain([&](OVCONTEXT* c) {
    c->njuliapp = 2;
    addjuliacorrecttarget(c, s.realm, 1, none.data());
    addjuliacorrecttarget(c, s.realm, 2, none.data());
    EXPECT_EQ(c->ijuliacachepp, 2);
    EXPECT_TRUE(ghookcalls.empty());
    addjuliacorrecttarget(c, s.realm, 3, none.data());
    EXPECT_EQ(c->ijuliacachepp, 1);
    EXPECT_EQ(ghookcalls, (std::vector<int>{1, 2}));
    // However large the levels, at most NJULIAPPMAX buffers wait.
    finishjuliacorrect(c);
    ghookcalls.clear();
    c->njuliapp = 1000;
    for (int i = 0; i < NJULIAPPMAX; i++) addjuliacorrecttarget(c, s.realm, 10 + i, none.data());
    EXPECT_EQ(c->ijuliacachepp, NJULIAPPMAX);
    EXPECT_TRUE(ghookcalls.empty());
    addjuliacorrecttarget(c, s.realm, 5, none.data());
    EXPECT_EQ(c->ijuliacachepp, 1);
    EXPECT_EQ(int(ghookcalls.size()), NJULIAPPMAX);
    finishjuliacorrect(c);
    EXPECT_EQ(s.realm->count, 1);
  });
}

TEST(JuliaCorrectProgram, AnUnreadableTileLeavesItsPixelsAtTheirLevel) {
  Engine e;
  STACK s(2, 0);
  HOOKED hooked;
  std::string name = "/tmp/orvanta-jc-short-" + std::to_string(getpid());
  FILE* f = fopen(name.c_str(), "w+b");
  ASSERT_NE(f, nullptr);
  std::vector<PREPIXEL> b(NPREPIXEL, PREPIXEL{3, coord(10), coord(20), 1, 0, 0});
  b[7].depth = -1;
  std::string err;
  e.onmain([&](OVCONTEXT* c) {
    JCFILE* jf = addjcfile(f, 0);  // empty: every read is short
    JULIACACHE* tile = addjcfileoffset(c, jf, 0);
    detachjcfile(jf);
    s.level(0).c[0][0] = tile;
    addjuliacorrecttarget(c, s.realm, 1, b.data());
    testing::internal::CaptureStderr();
    finishjuliacorrect(c);
    err = testing::internal::GetCapturedStderr();
    detachjc(c, tile);
  });
  unlink(name.c_str());
  EXPECT_EQ(err, "readjuliacache: fatal I/O error.\n");
  EXPECT_EQ(b[0].depth, 0);
  EXPECT_EQ(b[0].iter, 3);
  EXPECT_EQ(b[7].depth, -1);
  EXPECT_EQ(ghookcalls, std::vector<int>{1});
}

TEST(JuliaCorrectProgram, AMissingTileOfAReadyLevelIsFatalForThatPixelOnly) {
  Engine e;
  STACK s(2, 0);
  std::vector<PREPIXEL> b(NPREPIXEL, PREPIXEL{3, coord(10), coord(20), 1, 0, -1});
  b[5].depth = 0;
  std::string err;
  e.onmain([&](OVCONTEXT* c) {
    testing::internal::CaptureStderr();
    addjuliacorrecttarget(c, s.realm, 1, b.data());
    err = testing::internal::GetCapturedStderr();
    finishjuliacorrect(c);
  });
  EXPECT_EQ(err, "prejuliacorrect: FATAL ERROR jc invalid.\n");
  EXPECT_EQ(b[5].depth, 0);
  EXPECT_EQ(b[5].iter, 3);
}

// ---------------------------------------------------------------- channels

TEST(PrePixel2Pixel, ChannelsMatchADirectComputation) {
  std::vector<PREPIXEL> px(NPREPIXEL, PREPIXEL{0, 0, 0, 0, 0, -1});
  px[0] = PREPIXEL{12, 3.0f, 1.0f, 40.0f, -8.0f, -1};   // escaped
  px[1] = PREPIXEL{-4, 0.1f, 0.2f, 0.75f, 0.0f, -1};    // interior, distance in dx
  px[257] = PREPIXEL{7, -2.5f, 0.5f, 5.0f, 1.0f, -1};   // escaped at (1, 1)
  std::vector<std::vector<float>> ch(NCHANNELS, std::vector<float>(NPREPIXEL, -99.0f));
  float* t[NCHANNELS];
  for (int i = 0; i < NCHANNELS; i++) t[i] = ch[i].data();
  t[CHANNEL_VALUEY] = nullptr;
  const int depth = -10;
  const double cx = -0.75, cy = 0.1;
  prepixel2pixel(nullptr, px.data(), t, depth, false, cx, cy, 0, 0, 0, 0);

  // distm by hand: z' = z^2 + c, d' = 2 z d + pixel side, until |z|^2 > 1e10.
  auto distm = [](C z, C d, C c, double side) {
    for (int k = 0; k < 200 && std::norm(z) <= 1e10; k++) {
      d = 2.0 * z * d + side;
      z = z * z + c;
    }
    double L = std::norm(z);
    return std::sqrt(L) * std::log(L) * 0.5 / std::abs(d);
  };
  auto smooth = [](C z, C c, int n) {
    for (int k = 0; k < 200 && std::norm(z) <= 1e10; k++, n++) z = z * z + c;
    return std::max(0.0, n - std::log2(std::log2(std::norm(z)) * 0.5));
  };
  double side = std::ldexp(1.0, depth);
  for (int k : {0, 257}) {
    SCOPED_TRACE(k);
    const PREPIXEL& p = px[k];
    C c(cx + (k % 256) * side, cy + (k / 256) * side);
    C z(p.x, p.y), d(p.dx, p.dy);
    EXPECT_FLOAT_EQ(ch[CHANNEL_ITER][k], p.iter * 9.313226e-10f);
    EXPECT_FLOAT_EQ(ch[CHANNEL_COUNT][k], float(p.iter));
    EXPECT_FLOAT_EQ(ch[CHANNEL_VALUEX][k], p.x);
    EXPECT_FLOAT_EQ(ch[CHANNEL_DERIVATIVEX][k], p.dx);
    EXPECT_FLOAT_EQ(ch[CHANNEL_DERIVATIVEY][k], p.dy);
    EXPECT_NEAR(ch[CHANNEL_DIST][k], distm(z, d, c, side), 1e-6 * distm(z, d, c, side));
    EXPECT_NEAR(ch[CHANNEL_DIST2][k], std::max(0.0, (2 - std::abs(z)) / std::abs(d)), 1e-6);
    EXPECT_NEAR(ch[CHANNEL_SMOOTHITER][k], smooth(z, c, p.iter), 1e-4);
  }
  EXPECT_FLOAT_EQ(ch[CHANNEL_COUNT][1], -4.0f);
  EXPECT_FLOAT_EQ(ch[CHANNEL_DIST][1], 0.75f);  // the interior distance as it stands
  EXPECT_FLOAT_EQ(ch[CHANNEL_DIST2][1], 0.0f);
  EXPECT_FLOAT_EQ(ch[CHANNEL_COUNT][2], 0.0f);
  EXPECT_FLOAT_EQ(ch[CHANNEL_VALUEY][0], -99.0f);  // a channel nobody asked for

  // A Julia seed's cycle of period 3: interior counts fold to their phase.
  prepixel2pixel(nullptr, px.data(), t, depth, true, 0.3, 0.5, 0, 0, 1, -3);
  EXPECT_FLOAT_EQ(ch[CHANNEL_COUNT][1], float(~((1 + 4) % -3)));
  C z(3.0, 1.0), d(40.0, -8.0), c(0.3, 0.5);
  for (int k = 0; k < 20 && std::norm(z) <= 1e10; k++) {
    d = 2.0 * z * d;
    z = z * z + c;
  }
  double L = std::norm(z);
  EXPECT_NEAR(ch[CHANNEL_DIST][0], std::sqrt(L) * std::log(L) * 0.5 / std::abs(d), 1e-6);

  testing::internal::CaptureStderr();
  prepixel2pixel(nullptr, nullptr, t, depth, false, 0, 0, 0, 0, 0, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "prepixel2pixel: FATAL ERROR: !pixels\n");
}

// ---------------------------------------------------------------- areas and jobs

namespace {

REALM* newrealm(Engine& e, REALMTYPE type) {
  REALM* r = addrealm(e.context, type);
  EXPECT_NE(r, nullptr);
  e.onmain([](OVCONTEXT*) {});
  return r;
}

struct COUNTS {
  int iworkerall, itexture, ihpvalue, ijuliacache, chained;
  bool operator==(const COUNTS&) const = default;
};

int prepixelsfree(OVCONTEXT* c) {
  // Taken and given back at once: how many were on the free chain.
  std::vector<PREPIXELS*> v;
  unsigned int keep = c->nprepixels;
  c->nprepixels = 0;
  while (PREPIXELS* p = addprepixels(c)) v.push_back(p);
  c->nprepixels = keep;
  for (PREPIXELS* p : v) removeprepixels(c, p);
  return int(v.size());
}

COUNTS counts(OVCONTEXT* c) {
  return COUNTS{c->iworkerall, c->itexture, c->ihpvalue, c->ijuliacache, prepixelsfree(c)};
}

}  // namespace

TEST(JuliaCorrectAreas, AnAreaWithoutAStackRealmIsReset) {
  Engine e;
  REALM* r = newrealm(e, MANDELBROT);
  std::string err;
  e.onmain([&](OVCONTEXT* c) {
    AREA* a = r->top;
    a->prepixels = addprepixels(c);
    testing::internal::CaptureStderr();
    prejuliacorrect(c, a, true);
    err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(a->prepixels, nullptr);
    EXPECT_EQ(c->ijuliacachepp, 0);
    EXPECT_EQ(prepixelsfree(c), 1);
  });
  EXPECT_EQ(err, "prejuliacorrect: realm invalid.\n");
  detachrealm(e.context, r);
  e.onmain([](OVCONTEXT*) {});
}

TEST(JuliaCorrectAreas, AnAreaWaitsForItsLevelThenJoinsTheProgram) {
  Engine e;
  REALM* r = newrealm(e, JULIA);
  e.onmain([&](OVCONTEXT* c) {
    JULIASTACKDATA* levels = static_cast<JULIASTACKDATA*>(calloc(4, sizeof(JULIASTACKDATA)));
    for (int s = 0; s < 4; s++) initchain(&levels[s].wait);
    r->juliastack = levels;
    r->njuliastack = 4;
    r->readyjuliastack = 0;
    r->priojuliastack = -1;
    c->njuliapp = 2;
    subdivide(c, r->top);
    AREA* a = r->top->child[0];
    AREA* b = r->top->child[1];
    JULIACACHE* t0 = tilewith(c, finished);
    levels[0].c[0][0] = t0;
    for (AREA* x : {a, b}) {
      x->prepixels = addprepixels(c);
      for (PREPIXEL& p : x->prepixels->pixels) p = PREPIXEL{2, coord(9), coord(9), 1, 0, 0};
      x->priority = 0;
    }
    a->jst = 2;
    prejuliacorrect(c, a, true);
    EXPECT_TRUE(a->flags & A_WAITFORJULIASTACK);
    EXPECT_EQ(r->priojuliastack, 2);
    EXPECT_EQ(levels[2].wait.next, &a->waitforjuliastack);
    EXPECT_NE(a->prepixels, nullptr);
    b->jst = 0;
    prejuliacorrect(c, b, true);
    EXPECT_TRUE(b->flags & A_INPPPROGRAM);
    EXPECT_EQ(c->ijuliacachepp, 1);
    resetarea(c, b, true);  // no reset while the program holds it
    EXPECT_NE(b->prepixels, nullptr);
    PREPIXEL* pixels = b->prepixels->pixels;
    PREPIXEL want = pixels[0];
    want.depth = 0;
    ASSERT_EQ(juliacorrectp(c, r, &want, false), 0);
    finishjuliacorrect(c);
    EXPECT_FALSE(b->flags & A_INPPPROGRAM);
    // No priority left: the area lets its pixels go.
    EXPECT_EQ(b->prepixels, nullptr);
    EXPECT_EQ(memcmp(&pixels[0], &want, sizeof want), 0);  // the buffer held the result
    resetarea(c, a, true);
    EXPECT_FALSE(a->flags & A_WAITFORJULIASTACK);
    EXPECT_EQ(a->prepixels, nullptr);
    unlockmemjuliacache(c, t0, 0);
    detachjc(c, t0);
    r->juliastack = nullptr;
    free(levels);
  });
  detachrealm(e.context, r);
  e.onmain([](OVCONTEXT*) {});
}

TEST(JuliaCorrectJobs, FreeingAJobGivesBackItsBufferChainAndTile) {
  Engine e;
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    COUNTS start = counts(c);
    CHAIN level;
    initchain(&level);
    WORKER* w = addworker(c, THREAD_WORKER, worker_canvas_calc_inner);
    clearjob(w);
    w->prepixels = addprepixels(c);
    chaininsbegin(&level, &w->chain);
    JULIACACHE* jc = addjc(c);
    ASSERT_TRUE(lockmemjuliacache(c, jc, JCLOCK_CREATE));
    attachjc(jc);
    w->pdata[JOB_JULIACACHE] = jc;
    w->idata[JOB_JULIACACHELOCKED] = 1;
    freecanvascalcworker(c, w);
    EXPECT_TRUE(chainempty(&level));
    EXPECT_EQ(jc->count, 1);
    EXPECT_EQ(jc->memcount, 0);
    EXPECT_TRUE(jc->flags & JCF_INMEMCHAIN);
    detachjc(c, jc);
    COUNTS end = counts(c);
    EXPECT_EQ(end.iworkerall, start.iworkerall);
    EXPECT_EQ(end.ijuliacache, start.ijuliacache);
    EXPECT_EQ(end.chained, start.chained + 1);  // the buffer made is free again
  });
}

TEST(JuliaCorrectJobs, AJuliaAreaGoesThroughPrepixelsToItsChannels) {
  texturetest::TileEngine e(16, false);
  e.waitidle();
  REALM* r = addrealm(e.context, JULIA);
  e.onmain([](OVCONTEXT*) {});
  AREA* a = nullptr;
  COUNTS start{};
  bool sent = false;
  e.onmain([&](OVCONTEXT* c) {
    start = counts(c);
    JULIASTACKDATA* levels = static_cast<JULIASTACKDATA*>(calloc(8, sizeof(JULIASTACKDATA)));
    for (int s = 0; s < 8; s++) initchain(&levels[s].wait);
    r->juliastack = levels;
    r->njuliastack = 8;
    r->readyjuliastack = 0;
    r->priojuliastack = 7;
    r->flags = R_JULIACORRECT | R_PRECDOUBLE;
    r->info.c = addhpv(c, 64);
    mpf_set_d(r->info.c->v[0], 0.0);
    mpf_set_d(r->info.c->v[1], 0.0);
    // The square [1, 2]^2: under z -> z^2 every orbit leaves at once.
    AREA* x = r->top;
    for (int k : {2, 0, 0, 2}) {
      subdivide(c, x);
      x = x->child[k];
    }
    a = x;
    a->channels = CHANNELMASK_COUNT | CHANNELMASK_ITER;
    a->priority = 3;
    processarea(c, a);
    sent = a->worker && a->worker->workerproc == worker_canvas_calc_juliacorrect;
  });
  EXPECT_TRUE(sent);
  // The pixels come home, need no level, and become channels on a worker,
  // then tiles in the area.
  enginetest::waitfor([&] {
    bool done = false;
    e.onmain([&](OVCONTEXT*) { done = a->texture[CHANNEL_COUNT] && !a->worker; });
    return done;
  });
  e.waitidle();
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_TRUE(a->flags & A_PRECALCULATED);
    EXPECT_FALSE(a->flags & A_JULIACORRECT);
    EXPECT_EQ(a->prepixels, nullptr);
    EXPECT_EQ(a->jst, -1);
    EXPECT_GT(a->statvertices, 0);
    const float* count = static_cast<const float*>(a->texture[CHANNEL_COUNT]->pixels);
    const float* iter = static_cast<const float*>(a->texture[CHANNEL_ITER]->pixels);
    for (int k = 0; k < NPREPIXEL; k += 97) {
      // z0 at least sqrt 2 from 0: out within three steps.
      EXPECT_GE(count[k], 0.0f) << k;
      EXPECT_LE(count[k], 3.0f) << k;
      EXPECT_FLOAT_EQ(iter[k], count[k] * 9.313226e-10f) << k;
    }
    COUNTS end = counts(c);
    EXPECT_EQ(end.iworkerall, start.iworkerall);
    EXPECT_EQ(end.ijuliacache, start.ijuliacache);
    EXPECT_EQ(end.chained, start.chained + 1);  // the one buffer, free again
    free(r->juliastack);
    r->juliastack = nullptr;
  });
  detachrealm(e.context, r);
  e.onmain([](OVCONTEXT*) {});
}
