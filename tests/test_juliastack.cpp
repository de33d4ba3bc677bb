// The Julia stack at work: the format of a level's remainder, the
// resolution of pixels that end in their own level, and on a running engine
// levels computed by canvas jobs and by the bypass, finished in order, looked
// up and checked against the plain orbit of their start points.
#include "test_juliastack.h"

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace jstacktest;

namespace {

// ------------------------------------------------------------ a bare level

struct BARELEVEL {
  OVCONTEXT* context;
  JULIASTACKDATA L{};
  JULIACACHE jc{};
  std::vector<PREPIXEL> data;
  HPVALUE m{};
  explicit BARELEVEL(CD seed = CD(0.26, 0.0)) : data(NPREPIXEL) {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    context->juliasizeshift = 8;
    context->juliasize = 256;
    context->jsref = static_cast<int*>(calloc(NPREPIXEL, sizeof(int)));
    context->jsnext = static_cast<int*>(calloc(NPREPIXEL, sizeof(int)));
    jc.data = jc._data = data.data();
    L.c[0][0] = &jc;
    mpf_init2(m.v[0], 64);
    mpf_init2(m.v[1], 64);
    mpf_set_d(m.v[0], seed.real());
    mpf_set_d(m.v[1], seed.imag());
    L.m = &m;
  }
  ~BARELEVEL() {
    mpf_clear(m.v[0]);
    mpf_clear(m.v[1]);
    free(context->jsref);
    free(context->jsnext);
    free(context);
  }
  // A place in the level's units at the centre of pixel (i, j).
  static float at(int i) { return static_cast<float>(placeof(i, 256)); }
};

}  // namespace

TEST(JuliaStackFormat, Level124IsDoubleThenLongDoubleFromLevel125AndHfloatFrom1600) {
  EXPECT_EQ(juliastackformat(0, 0), R_PRECDOUBLE);
  EXPECT_EQ(juliastackformat(0, 124), R_PRECDOUBLE);
  EXPECT_EQ(juliastackformat(0, 125), R_PRECLONGDOUBLE);
  EXPECT_EQ(juliastackformat(0, 1599), R_PRECLONGDOUBLE);
  EXPECT_EQ(juliastackformat(0, 1600), R_PRECHFLOAT);
  // A format the realm forces wins at any level.
  EXPECT_EQ(juliastackformat(R_PRECFLOAT | R_JULIACORRECT, 2000), R_PRECFLOAT);
  EXPECT_EQ(juliastackformat(R_PRECHFLOAT, 3), R_PRECHFLOAT);
}

TEST(JuliaStackResolve, ALevelWhoseEveryPixelIsFinishedIteratesNothing) {
  BARELEVEL b;
  for (int k = 0; k < NPREPIXEL; k++) b.data[k] = PREPIXEL{k % 9 - 4, 0.5f, 0.25f, 1, 0, -1};
  std::vector<PREPIXEL> before = b.data;
  EXPECT_EQ(resolvejuliastacklevel(b.context, &b.L, 0, R_PRECDOUBLE, nullptr), 0);
  EXPECT_EQ(memcmp(before.data(), b.data.data(), NPREPIXEL * sizeof(PREPIXEL)), 0);
}

TEST(JuliaStackResolve, ChainsInTheLevelEndWhereTheirLastPixelEnds) {
  BARELEVEL b;
  for (int k = 0; k < NPREPIXEL; k++) b.data[k] = PREPIXEL{3, 0, 0, 1, 0, -1};
  // (10, 10) -> (20, 30) -> (40, 50), which is finished inside the set.
  auto k = [](int i, int j) { return j * 256 + i; };
  b.data[k(10, 10)] = PREPIXEL{7, BARELEVEL::at(20), BARELEVEL::at(30), 2.0f, 1.0f, JULIASAMELEVEL};
  b.data[k(20, 30)] = PREPIXEL{11, BARELEVEL::at(40), BARELEVEL::at(50), 0.5f, -1.0f, JULIASAMELEVEL};
  b.data[k(40, 50)] = PREPIXEL{-5, 0.125f, 0.75f, 3.0f, 0.0f, -1};
  // A pixel that came nearer 0 than this level is finer than its pixels:
  // (60, 70) names level 2, and is iterated from its own place.
  CD fine(0.0123, -0.0311);
  b.data[k(60, 70)] = PREPIXEL{1, static_cast<float>(4 * fine.real()),
                               static_cast<float>(4 * fine.imag()), 1.0f, 0.0f, 2};
  markjuliasamelevel(b.data.data(), 0);
  EXPECT_EQ(b.data[k(60, 70)].depth, JULIASAMELEVEL + 3);
  EXPECT_EQ(b.data[k(10, 10)].depth, JULIASAMELEVEL);
  EXPECT_EQ(b.data[k(40, 50)].depth, -1);
  EXPECT_EQ(resolvejuliastacklevel(b.context, &b.L, 0, R_PRECDOUBLE, nullptr), 1);
  const PREPIXEL& mid = b.data[k(20, 30)];
  EXPECT_EQ(mid.depth, -1);
  EXPECT_EQ(mid.iter, -(11 + 5));
  EXPECT_FLOAT_EQ(mid.dx, 1.5f);  // (0.5 - i) * 3
  EXPECT_FLOAT_EQ(mid.dy, -3.0f);
  const PREPIXEL& first = b.data[k(10, 10)];
  EXPECT_EQ(first.depth, -1);
  EXPECT_EQ(first.iter, -(7 + 16));
  EXPECT_FLOAT_EQ(first.x, 0.125f);
  EXPECT_FLOAT_EQ(first.y, 0.75f);
  // (2 + i) (1.5 - 3i) = 6 - 4.5i
  EXPECT_FLOAT_EQ(first.dx, 6.0f);
  EXPECT_FLOAT_EQ(first.dy, -4.5f);
  EXPECT_EQ(b.data[k(60, 70)].iter, 1 + directcount(fine, CD(0.26, 0), 1000));
  EXPECT_EQ(b.data[k(60, 70)].depth, -1);
}

TEST(JuliaStackResolve, APixelOnAChangeOfCountHasANeighbourMoreThanOneAwayOrOfTheOtherSign) {
  std::vector<PREPIXEL> t(NPREPIXEL, PREPIXEL{10, 0, 0, 1, 0, -1});
  auto k = [](int i, int j) { return j * 256 + i; };
  // Counts 9..11 around a pixel: no change.
  t[k(50, 50)].iter = 11;
  t[k(51, 51)].iter = 9;
  EXPECT_FALSE(juliacountedge(t.data(), k(50, 51)));
  // 12 next to 10.
  t[k(100, 100)].iter = 12;
  EXPECT_TRUE(juliacountedge(t.data(), k(101, 101)));
  EXPECT_TRUE(juliacountedge(t.data(), k(99, 100)));
  EXPECT_FALSE(juliacountedge(t.data(), k(102, 102)));
  // An interior neighbour.
  t[k(0, 0)].iter = -10;
  EXPECT_TRUE(juliacountedge(t.data(), k(1, 0)));
  EXPECT_TRUE(juliacountedge(t.data(), k(0, 0)));
  // The tile's border has fewer neighbours, no more.
  EXPECT_FALSE(juliacountedge(t.data(), k(255, 255)));
}

TEST(JuliaStackResolve, APixelHandedOntoAChangeOfCountIsIteratedFromItsPlaceInTheShallowerLevel) {
  BARELEVEL b;
  for (int k = 0; k < NPREPIXEL; k++) b.data[k] = PREPIXEL{3, 0, 0, 1, 0, -1};
  // Level 5's pixel (7, 9) went on at a place of level 2 after 4 steps.
  CD place(-0.37, 0.81);  // in level-2 units
  b.data[9 * 256 + 7] =
      PREPIXEL{4, static_cast<float>(place.real()), static_cast<float>(place.imag()), 1, 0, JULIAFROMPLACE + 2};
  EXPECT_TRUE(isjuliafromplace(b.data[9 * 256 + 7].depth));
  // The mark is out of the correction's and the same level's way.
  markjuliasamelevel(b.data.data(), 5);
  EXPECT_EQ(b.data[9 * 256 + 7].depth, JULIAFROMPLACE + 2);
  EXPECT_EQ(resolvejuliastacklevel(b.context, &b.L, 5, R_PRECDOUBLE, nullptr), 1);
  const PREPIXEL& p = b.data[9 * 256 + 7];
  EXPECT_EQ(p.depth, -1);
  CD z(std::ldexp(static_cast<double>(static_cast<float>(place.real())), -2),
       std::ldexp(static_cast<double>(static_cast<float>(place.imag())), -2));
  int plain = directcount(z, CD(0.26, 0), 1000);
  ASSERT_GT(plain, 0);
  EXPECT_EQ(p.iter, 4 + plain);
}

TEST(JuliaStackResolve, ACycleInsideTheLevelIsIteratedOutInTheLevelsFormat) {
  // c = 0.26: every orbit leaves, the pixels of a cycle of references too.
  BARELEVEL b(CD(0.26, 0.0));
  for (int k = 0; k < NPREPIXEL; k++) b.data[k] = PREPIXEL{2, 0, 0, 1, 0, -1};
  auto k = [](int i, int j) { return j * 256 + i; };
  b.data[k(100, 100)] = PREPIXEL{4, BARELEVEL::at(150), BARELEVEL::at(90), 1, 0, JULIASAMELEVEL};
  b.data[k(150, 90)] = PREPIXEL{6, BARELEVEL::at(100), BARELEVEL::at(100), 1, 0, JULIASAMELEVEL};
  // And one that ends on the cycle.
  b.data[k(200, 200)] = PREPIXEL{1, BARELEVEL::at(150), BARELEVEL::at(90), 1, 0, JULIASAMELEVEL};
  int n = resolvejuliastacklevel(b.context, &b.L, 0, R_PRECDOUBLE, nullptr);
  // The first pixel of the cycle in the picture's order, (150, 90), is
  // iterated; the others take its end.
  EXPECT_EQ(n, 1);
  const PREPIXEL& a = b.data[k(100, 100)];
  const PREPIXEL& c = b.data[k(150, 90)];
  ASSERT_EQ(a.depth, -1);
  ASSERT_EQ(c.depth, -1);
  EXPECT_EQ(b.data[k(200, 200)].depth, -1);
  // The place of (100, 100) iterated under z^2 + 0.26 from its own count.
  // It went on from the place it names, that of (100, 100).
  int plain = directcount(CD(BARELEVEL::at(100), BARELEVEL::at(100)), CD(0.26, 0), 1000);
  ASSERT_GT(plain, 0);
  EXPECT_EQ(c.iter, 6 + plain);
  EXPECT_EQ(a.iter, 4 + c.iter);
  EXPECT_EQ(b.data[k(200, 200)].iter, 1 + c.iter);
}

TEST(JuliaStackResolve, AnInnerOrbitWithoutATrapEndsWhereItMeetsItself) {
  // c = -1 has an attracting 2-cycle 0, -1, and no trap is given: the
  // orbit of a pixel next to 0 settles on the cycle and is found inside
  // long before the limit of 10^8 steps.
  for (int format : {R_PRECFLOAT, R_PRECDOUBLE, R_PRECLONGDOUBLE, R_PRECHFLOAT}) {
    BARELEVEL b(CD(-1.0, 0.0));
    for (int k = 0; k < NPREPIXEL; k++) b.data[k] = PREPIXEL{2, 0, 0, 1, 0, -1};
    const int k = 128 * 256 + 131;
    b.data[k] = PREPIXEL{3, BARELEVEL::at(131), BARELEVEL::at(128), 1, 0, JULIASAMELEVEL};
    volatile bool stop = false;
    EXPECT_EQ(resolvejuliastacklevel(b.context, &b.L, 0, format, &stop), 1) << format;
    EXPECT_EQ(b.data[k].depth, -1) << format;
    EXPECT_LT(b.data[k].iter, -3) << format;
    EXPECT_GT(b.data[k].iter, -3 - 100000) << format;
  }
}

TEST(JuliaStackResolve, AStopReachesAnOrbitThatNeverEnds) {
  // c = 1/4 is the cusp: the orbit of 0 creeps towards the parabolic point
  // 1/2 as 1/2 - 1/k, never meets itself to the format's last bits and
  // never leaves. 10^8 steps in the wide format would take many seconds.
  // Raised meanwhile, the stop ends the level with the pixel as it was.
  BARELEVEL b(CD(0.25, 0.0));
  for (int k = 0; k < NPREPIXEL; k++) b.data[k] = PREPIXEL{2, 0, 0, 1, 0, -1};
  const int k = 128 * 256 + 128;
  b.data[k] = PREPIXEL{3, BARELEVEL::at(128), BARELEVEL::at(128), 1, 0, JULIASAMELEVEL};
  volatile bool stop = false;
  std::thread raiser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    atomicstore(&stop, true);
  });
  int n = resolvejuliastacklevel(b.context, &b.L, 0, R_PRECHFLOAT, &stop);
  raiser.join();
  EXPECT_EQ(n, -1);
  EXPECT_EQ(b.data[k].depth, JULIASAMELEVEL);
  EXPECT_EQ(b.data[k].iter, 3);
}

// ------------------------------------------------------------ on a running engine

namespace {

// A seed just outside the cardioid's cusp: a dust of a Julia set whose
// orbits near 0 linger, so counts vary across the shallow levels.
const CD SEED(0.2605, 0.0012);

// Lookups of pixels of level s on a grid of `step` against the plain count.
double agreement(JENGINE& j, int s, int step, int* samples = nullptr) {
  int js = j.context->juliasize;
  int good = 0, n = 0;
  j.onmain([&](OVCONTEXT* c) {
    for (int y = step / 2; y < js; y += step)
      for (int x = step / 2; x < js; x += step) {
        PREPIXEL r = juliastacklookup(c, j.realm, s, static_cast<float>(placeof(x, js)),
                                      static_cast<float>(placeof(y, js)), 0, j.ready());
        int plain = directcount(startof(x, y, s, js), j.seed, 100000);
        n++;
        if (r.depth == -1 && std::abs(r.iter - plain) <= 1) good++;
      }
  });
  if (samples) *samples = n;
  return n ? static_cast<double>(good) / n : 0;
}

}  // namespace

TEST(JuliaStackEngine, ACanvasLevelOfOneTileBecomesReadyWithItsMipmapEqualToIt) {
  JENGINE j(8, SEED);
  j.onmain([&](OVCONTEXT* c) {
    j.anchor(c, 0);
    adjustjuliastack(c, j.realm, 0, false);
    EXPECT_EQ(j.realm->calcjuliastack, 0);
    EXPECT_EQ(j.realm->validjuliastack, 0);
  });
  j.waitready(0);
  j.onmain([&](OVCONTEXT* c) {
    JULIASTACKDATA& L = j.realm->juliastack[0];
    ASSERT_NE(L.c[0][0], nullptr);
    ASSERT_NE(L.mipmap, nullptr);
    EXPECT_TRUE(L.mipmap->flags & JCF_MIPMAP);
    EXPECT_TRUE(L.corrected);
    ASSERT_TRUE(lockmemjuliacache(c, L.c[0][0], JCLOCK_READ));
    ASSERT_TRUE(lockmemjuliacache(c, L.mipmap, JCLOCK_READ));
    EXPECT_EQ(memcmp(L.c[0][0]->data, L.mipmap->data, NPREPIXEL * sizeof(PREPIXEL)), 0);
    for (int k = 0; k < NPREPIXEL; k += 37) EXPECT_EQ(L.c[0][0]->data[k].depth, -1) << k;
    unlockmemjuliacache(c, L.c[0][0], 0);
    unlockmemjuliacache(c, L.mipmap, 0);
  });
  int n = 0;
  EXPECT_GE(agreement(j, 0, 1, &n), 0.995);
  EXPECT_EQ(n, NPREPIXEL);
}

TEST(JuliaStackEngine, CanvasLevelsFinishInOrderAndAgreeWithThePlainOrbit) {
  JENGINE j(9, SEED);
  std::vector<int> seen;
  j.onmain([&](OVCONTEXT* c) {
    for (int s = 0; s <= 4; s++) j.anchor(c, s);
    adjustjuliastack(c, j.realm, 4, false);
    EXPECT_EQ(j.realm->calcjuliastack, 4);
  });
  // The mark moves one level at a time.
  int last = -1;
  while (last < 4) {
    int r = j.ready();
    EXPECT_GE(r, last);
    if (r != last) seen.push_back(r);
    last = r;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  j.waitidle();
  for (size_t k = 0; k < seen.size(); k++)
    if (k) {
      EXPECT_GT(seen[k], seen[k - 1]);
    }
  for (int s = 0; s <= 4; s++) {
    int n = 0;
    double a = agreement(j, s, 5, &n);
    // A pixel goes on in a shallower level once its footprint there is
    // about one of that level's pixels, and takes that pixel's end: near
    // the set a few per cent of them differ from their exact orbit by more
    // than one count. Level 0, which refers to nothing, agrees on all but
    // a few per thousand.
    EXPECT_GE(a, s == 0 ? 0.995 : 0.95) << "level " << s;
    EXPECT_GE(n, 10000);
  }
}

// The realm's start flags put the super-interpolation on: four corners that
// escape at one step fill their cell with that count. Level 0's tile spans
// the whole picture, and its corners leave the disc of radius 2 at the
// first step while most of its points do not; filled, the whole level
// read "no count", and every pixel handed to it took nothing from it.
TEST(JuliaStackEngine, WithTheStartFlagsTheShallowLevelsAgreeWithThePlainOrbit) {
  JENGINE j(8, SEED);
  j.onmain([&](OVCONTEXT* c) {
    j.realm->flags = R_DEFAULT;
    for (int s = 0; s <= 1; s++) j.anchor(c, s);
    adjustjuliastack(c, j.realm, 1, false);
  });
  j.waitready(1);
  for (int s = 0; s <= 1; s++) {
    int n = 0;
    double a = agreement(j, s, 2, &n);
    EXPECT_GE(a, s == 0 ? 0.995 : 0.95) << "level " << s;
    EXPECT_GE(n, 10000);
  }
}

TEST(JuliaStackEngine, StoppingWithNothingAboveReadyLeavesTheMarks) {
  JENGINE j(8, SEED);
  j.onmain([&](OVCONTEXT* c) {
    j.anchor(c, 0);
    j.anchor(c, 1);
    adjustjuliastack(c, j.realm, 1, false);
  });
  j.waitready(1);
  j.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(j.realm->calcjuliastack, 1);
    stopjuliastackcomputation(c, j.realm);
    EXPECT_EQ(j.realm->calcjuliastack, 1);
    EXPECT_EQ(j.ready(), 1);
    EXPECT_NE(j.realm->juliastack[1].c[0][0], nullptr);
    // With a level above ready in work, the marks come down to ready and
    // the level loses its tile.
    j.anchor(c, 2);
    adjustjuliastack(c, j.realm, 2, false);
    EXPECT_EQ(j.realm->calcjuliastack, 2);
    stopjuliastackcomputation(c, j.realm);
    EXPECT_EQ(j.realm->calcjuliastack, 1);
    EXPECT_EQ(j.realm->juliastack[2].c[0][0], nullptr);
    EXPECT_EQ(j.realm->juliastack[2].nworker, 0);
  });
}

TEST(JuliaStackEngine, ALevelAheadOfTheReadyOneOnlyWaitsAndIsPickedUpLater) {
  JENGINE j(8, SEED);
  j.onmain([&](OVCONTEXT* c) {
    j.anchor(c, 0);
    adjustjuliastack(c, j.realm, 0, false);
  });
  j.waitready(0);
  j.onmain([&](OVCONTEXT* c) {
    j.anchor(c, 1);
    j.anchor(c, 2);
    // Level 2 first, by hand: level 1 is not ready.
    prejuliastack(c, j.realm, 2);
    EXPECT_TRUE(j.realm->juliastack[2].jswait);
    EXPECT_EQ(j.realm->juliastack[2].worker, nullptr);
    EXPECT_EQ(j.ready(), 0);
    // Its tile arrives with the others; level 1's finish takes it on.
    adjustjuliastack(c, j.realm, 2, false);
  });
  j.waitready(2);
  j.onmain([&](OVCONTEXT*) {
    EXPECT_FALSE(j.realm->juliastack[2].jswait);
    EXPECT_TRUE(j.realm->juliastack[2].corrected);
  });
  EXPECT_GE(agreement(j, 2, 3), 0.95);
}

TEST(JuliaStackEngine, ALevelByTheBypassEqualsTheSameLevelByCanvasJobs) {
  // The series of one step is exact: z_1 = c + delta^2.
  int s = 3;
  std::vector<PREPIXEL> bycanvas, bybypass;
  for (bool bypassed : {false, true}) {
    JENGINE j(8, SEED);
    j.onmain([&](OVCONTEXT* c) {
      HFLOATCOMPLEX t[4] = {cHFd(complexd(SEED.real(), SEED.imag())), CZEROH, CONEH, CZEROH};
      for (int l = 0; l < s; l++) j.anchor(c, l);
      j.anchor(c, s, bypassed, t, 1);
      adjustjuliastack(c, j.realm, s, false);
    });
    j.waitready(s);
    std::vector<PREPIXEL>& out = bypassed ? bybypass : bycanvas;
    j.onmain([&](OVCONTEXT* c) {
      // Each pixel followed to its end through the stack.
      for (int y = 0; y < 256; y++)
        for (int x = 0; x < 256; x++)
          out.push_back(juliastacklookup(c, j.realm, s, static_cast<float>(placeof(x, 256)),
                                         static_cast<float>(placeof(y, 256)), 0, s));
      EXPECT_EQ(j.realm->juliastack[s].bypass, bypassed);
      if (bypassed) {
        EXPECT_FALSE(chainempty(&j.realm->bypassjc));
      }
    });
  }
  ASSERT_EQ(bycanvas.size(), bybypass.size());
  int same = 0;
  for (size_t k = 0; k < bycanvas.size(); k++)
    if (std::abs(bycanvas[k].iter - bybypass[k].iter) <= 1) same++;
  // The one-step series lands on level 2, whose pixels are eight times the
  // footprint of a level-3 pixel there: near the set the two levels part
  // on a few per cent of pixels, as the canvas's own hand-over does.
  EXPECT_GE(same, static_cast<int>(bycanvas.size()) * 95 / 100);
}

TEST(JuliaStackEngine, AnAreaThatNeedsLevelsAnchorsAndStartsThemAndWaits) {
  JENGINE j(8, SEED);
  AREA* a = nullptr;
  auto request = [&](OVCONTEXT* c) {
    WORKER* w = addworker(c, THREAD_MAIN, worker_requestjuliastack);
    w->pdata[0] = a;
    w->pdata[1] = j.realm;
    attachrealm(j.realm);
    dispatch(c, w);
  };
  j.onmain([&](OVCONTEXT* c) {
    attache(j.e);
    j.realm->e = j.e;
    j.realm->neededjuliastack = 10;
    // An area at depth 5 needs level 5 + 6 - 8 = 3.
    a = j.realm->top;
    for (int d = 0; d < 5; d++) {
      subdivide(c, a);
      a = a->child[2];
    }
    ASSERT_EQ(a->depth, 5);
    // No view asks for the area's channels: released, it is left alone.
    a->priority = 0;
    // While the idle search defines the stack, the request is dropped.
    j.realm->flags |= R_IDLE;
    request(c);
  });
  j.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(j.realm->juliajuliastack, -1);
    EXPECT_EQ(j.realm->juliastack[0].m, nullptr);
    j.realm->flags &= ~R_IDLE;
  });
  j.onmain(request);
  j.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(j.realm->juliajuliastack, 3);
    EXPECT_EQ(j.realm->maxjuliastack, 3);
    for (int s = 0; s <= 3; s++) {
      EXPECT_EQ(j.realm->juliastack[s].m, j.realm->info.c) << s;
      EXPECT_NE(j.realm->juliastack[s].e, nullptr) << s;
    }
    EXPECT_EQ(j.realm->juliastack[4].m, nullptr);
    EXPECT_GE(j.realm->calcjuliastack, 3);
    EXPECT_TRUE((a->flags & A_WAITFORJULIASTACK) || j.ready() >= 3);
  });
  j.waitready(3);
  j.onmain([&](OVCONTEXT*) {
    // Released by the level's finish.
    EXPECT_FALSE(a->flags & A_WAITFORJULIASTACK);
    EXPECT_TRUE(chainempty(&j.realm->juliastack[3].wait));
  });
  EXPECT_GE(agreement(j, 3, 3), 0.95);
}

namespace {

int gjstfinish = 0;
void countfinish(OVCONTEXT*, VIEWPORT*, int event, void*) {
  if (event == VPCALLBACK_JSTFINISH) gjstfinish++;
}

}  // namespace

TEST(JuliaStackEngine, AfterAMoveTheLevelsWhoseRadiusHoldsTheViewAreStarted) {
  JENGINE j(8, SEED);
  VIEWPORT* v = static_cast<VIEWPORT*>(calloc(1, sizeof(VIEWPORT)));
  gjstfinish = 0;
  j.onmain([&](OVCONTEXT* c) {
    initchain(&v->echain);
    v->juliarealm = j.realm;
    v->finishcallback = countfinish;
    v->delta = addhpv(c, 128);
    // The view 2^-20 from the seed, 2^-12 across.
    mpf_set_d(v->delta->v[0], SEED.real() + std::ldexp(1.0, -20));
    mpf_set_d(v->delta->v[1], SEED.imag());
    v->big = 1.0;
    v->zoomabs = HFd(std::ldexp(1.0, 12));
    for (int s = 0; s <= 3; s++) {
      j.anchor(c, s);
      j.realm->juliastack[s].r = HFd(s == 3 ? 0.0 : std::ldexp(1.0, -10));
    }
    v->idle_jst = 5;
    extendjuliastack(c, v);
    EXPECT_EQ(j.realm->maxjuliastack, 4);
    EXPECT_EQ(j.realm->validjuliastack, 2);  // level 3 has no radius
    EXPECT_EQ(j.realm->calcjuliastack, 2);
    EXPECT_EQ(gjstfinish, 0);
  });
  j.waitready(2);
  j.onmain([&](OVCONTEXT* c) {
    // Ready: the view hears of it when the stack is fitted again.
    extendjuliastack(c, v);
    EXPECT_EQ(gjstfinish, 1);
    // A view larger than the levels' radius takes none of them.
    v->zoomabs = HFd(std::ldexp(1.0, 8));
    extendjuliastack(c, v);
    EXPECT_EQ(j.realm->validjuliastack, -1);
    // Nor does one outside their disc.
    v->zoomabs = HFd(std::ldexp(1.0, 12));
    mpf_set_d(v->delta->v[0], SEED.real() + 0.01);
    extendjuliastack(c, v);
    EXPECT_EQ(j.realm->validjuliastack, -1);
    EXPECT_EQ(j.realm->calcjuliastack, 2);
    detachhpv(c, v->delta);
  });
  free(v);
}

TEST(JuliaStackEngine, ATileThatFindsTheCacheFullTakesTheRoomOfTheOldestCheapTile) {
  JENGINE j(8, SEED);
  HFLOATCOMPLEX t[4] = {cHFd(complexd(SEED.real(), SEED.imag())), CZEROH, CONEH, CZEROH};
  j.onmain([&](OVCONTEXT* c) {
    j.anchor(c, 0);
    for (int s = 1; s <= 4; s++) j.anchor(c, s, true, t, 1);
    adjustjuliastack(c, j.realm, 4, false);
  });
  j.waitready(4);
  std::vector<PREPIXEL> before;
  const JCBYPASSCHAIN* oldest = nullptr;
  j.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(j.realm->ijuliacache, 5);
    oldest = CHAINRECORD(j.realm->bypassjc.prev, JCBYPASSCHAIN, chain);
    EXPECT_GE(oldest->i, 1);
    for (int x = 3; x < 256; x += 17)
      before.push_back(juliastacklookup(c, j.realm, oldest->i, static_cast<float>(placeof(x, 256)),
                                        static_cast<float>(placeof(x / 2, 256)), 0, 4));
    // No room for another tile: a canvas level makes room.
    c->nmemjuliacache = 5;
    j.anchor(c, 5);
    adjustjuliastack(c, j.realm, 5, false);
  });
  j.waitready(5);
  j.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(j.realm->ijuliacache, 5);
    EXPECT_EQ(j.realm->juliastack[oldest->i].c[0][0], nullptr);
    EXPECT_FALSE(oldest->inchain);
    EXPECT_NE(j.realm->juliastack[5].c[0][0], nullptr);
    // The level's pixels are made on demand now, and say nearly the same.
    int k = 0, same = 0;
    for (int x = 3; x < 256; x += 17, k++) {
      PREPIXEL r = juliastacklookup(c, j.realm, oldest->i, static_cast<float>(placeof(x, 256)),
                                    static_cast<float>(placeof(x / 2, 256)), 0, 5);
      if (std::abs(r.iter - before[k].iter) <= 1 && r.depth == before[k].depth) same++;
    }
    EXPECT_GE(same, k - 1);
  });
}

TEST(JuliaStackEngine, ALevelWhoseTileCannotBeComputedFallsBackToTheLevelBelow) {
  JENGINE j(8, SEED);
  j.onmain([&](OVCONTEXT* c) {
    j.anchor(c, 0);
    adjustjuliastack(c, j.realm, 0, false);
  });
  j.waitready(0);
  testing::internal::CaptureStderr();
  j.onmain([&](OVCONTEXT* c) {
    // A number format no canvas has: the tile's job cannot run.
    j.realm->flags = (j.realm->flags & ~R_PRECMASK) | 0x80;
    j.anchor(c, 1);
    j.anchor(c, 2);
    adjustjuliastack(c, j.realm, 2, false);
    EXPECT_EQ(j.realm->calcjuliastack, 2);
  });
  j.waitonmain([&] { return j.realm->calcjuliastack == 0; });
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("MSG_CANVAS_CALC: Not supported."), std::string::npos);
  j.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(j.realm->validjuliastack, 0);
    EXPECT_EQ(j.realm->maxjuliastack, 0);
    EXPECT_EQ(j.ready(), 0);
    EXPECT_EQ(j.realm->juliastack[1].c[0][0], nullptr);
    EXPECT_EQ(j.realm->juliastack[2].c[0][0], nullptr);
    EXPECT_EQ(j.realm->juliastack[1].m, nullptr);
  });
}
