// The Julia kernels against the periodic environment of an atom, as a tile
// of the atom's Julia stack uses it: the nucleus of the period-998 atom next
// to the seahorse-valley point, whose critical orbit comes back to 0 after
// its period, so that 0 lies in the basin of a superattracting cycle. Start
// points of a tile are iterated by the canvas's dispatcher against the
// environment (with its series: period jumps; as a plain copy of the orbit:
// the orbit ends after one period and the point goes round it again) and
// their counts compared with the same start points iterated directly by
// perturbation in long double. Level 100 lies inside the basin, level 24
// holds its edge.
#include <gmp.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>
#include <type_traits>
#include <vector>

#include "Mandelbrot.h"
#include "canvas/kernels.h"
#include "canvas/model.h"
#include "canvas/render.h"
#include "canvastest.h"
#include "enginefixture.h"
#include "environment.h"
#include "test_juliastackatom.h"

namespace {

typedef std::complex<long double> CL;

const char* const P998[2] = {"-0.7436438870371588707780645434936425750476",
                             "0.131825904205312292821097354874767265263"};
constexpr unsigned PERIOD = 998;
// The seed's trap around the cycle's point 0, as its run would give it.
constexpr int TRAPEXP = -30;
constexpr int LIMIT = 100000;
// A stack tile's bit of the job's word: its vertices start at their own
// point, not from a level's series.
constexpr unsigned int STACKTILE = 0x800000;

// ------------------------------------------------------------ the atom on a running engine

// The atom's environment is made and dropped on a context's main thread.
struct ATOMENV {
  enginetest::Engine engine;
  ENVIRONMENT* e = nullptr;
  ENVIRONMENT* plain = nullptr;
  HPVALUE* m = nullptr;
  std::vector<CL> orbit;  // z_0 .. z_998

  ATOMENV() {
    engine.onmain([&](OVCONTEXT* c) {
      e = atomtest::periodicenv(c, P998, PERIOD, 1500);
      m = e->c;
      for (unsigned k = 0; k <= PERIOD; k++)
        orbit.push_back(CL(static_cast<long double>(dHF(crealHF(e->refdatah[k].value))),
                           static_cast<long double>(dHF(cimagHF(e->refdatah[k].value)))));
      // The same orbit as an environment without period or series.
      plain = adde(c, m->v[0], m->v[1], static_cast<mp_bitcnt_t>(mpf_get_prec(m->v[0])));
      plain->n = e->n;
      plain->nrefdata = e->nrefdata;
      plain->refdatah = static_cast<REFDATAH*>(calloc(PERIOD + 1, sizeof(REFDATAH)));
      plain->refdatad = static_cast<REFDATAD*>(calloc(PERIOD + 1, sizeof(REFDATAD)));
      __atomic_add_fetch(&c->mem_envrefdata, int64_t(64) * (PERIOD + 1), __ATOMIC_SEQ_CST);
      std::copy(e->refdatah, e->refdatah + PERIOD + 1, plain->refdatah);
      std::copy(e->refdatad, e->refdatad + PERIOD + 1, plain->refdatad);
    });
  }
  ~ATOMENV() {
    engine.onmain([&](OVCONTEXT* c) {
      detache(c, plain);
      detache(c, e);
    });
  }

  // The direct count of start point w against the atom's orbit.
  int directcount(CL w, int limit) const { return atomtest::directcount(orbit, TRAPEXP, w, limit); }
};

ATOMENV* gatom = nullptr;

class AtomEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { gatom = new ATOMENV; }
  void TearDown() override {
    delete gatom;
    gatom = nullptr;
  }
};

const ::testing::Environment* const gatomenv =
    ::testing::AddGlobalTestEnvironment(new AtomEnvironment);

// ------------------------------------------------------------ a level's tile

// The one tile of level s (a tile of side 4 2^-s from its lower corner, at
// depth s + 2), as the stack's tile job hands it over: a Julia canvas of a
// stack tile, corrected against the stack, the atom's point as its
// parameter, the environment as its reference, the trap of radius 2^TRAPEXP
// around 0 (the kernels trap within half the job's radius).
struct LEVELTILE {
  JOB job;
  LEVELTILE(int s, ENVIRONMENT* e) : job(CF_JULIA | STACKTILE | CF_JULIACORRECT, s + 2) {
    HFLOAT corner = ldexpHF(HFd(-2.0), -s);
    job.w.hdata[JOB_CT] = cHF(corner, corner);
    job.w.pdata[JOB_JULIA] = gatom->m;
    job.w.hdata[JOB_JULIAPOINT] = cHF(mpf_get_HF(gatom->m->v[0]), mpf_get_HF(gatom->m->v[1]));
    job.w.pdata[JOB_ENVIRONMENT] = e;
    job.w.idata[JOB_ATTRACTOR] = -static_cast<ITER>(PERIOD);
    job.w.hdata[JOB_TRAPCENTRE] = CZEROH;
    HFLOAT r = ldexpHF(ONEH, TRAPEXP + 1);
    job.w.hdata[JOB_TRAPRADIUS] = HFLOATCOMPLEX{r.mantissa, 0, r.exponent};
  }
};

// The count of a vertex as the kernels leave it: the escape's iteration,
// minus the one that entered the trap, 0 when unfinished.
template <typename T>
int kernelcount(typename T::CANVAS* canvas, int x, int y, typename T::CVALUE* cv) {
  for (int guard = 0; guard < 100; guard++) {
    int r = canvaskernels::calcitercanvas0julia<T>(gcontext, canvas, x, y, -1, cv, LIMIT, nullptr,
                                                   true, 0);
    if (r == CALC_DONE || cv->iter >= static_cast<UITER>(LIMIT)) break;
  }
  int count = 0;
  if ((cv->flags & (CV_INFTY | CV_ESCAPED)) == (CV_INFTY | CV_ESCAPED))
    count = -static_cast<int>(cv->iter);
  else if (cv->flags & CV_ESCAPED)
    count = static_cast<int>(cv->iter);
  canvasmodel::freevalue<T>(canvas, cv);
  return count;
}

// A start point in long double, whatever its format.
template <typename T>
CL startpoint(typename T::COMPLEX z) {
  if constexpr (std::is_same_v<typename T::FLOAT, HFLOAT>)
    return CL(dlHF(crealHF(z)), dlHF(cimagHF(z)));
  else
    return CL(static_cast<long double>(z.real()), static_cast<long double>(z.imag()));
}

struct RESULT {
  double agree = 0;
  double interior = 0;
};

// Share of `n` random vertices of level s's tile whose kernel count is
// within 1 of the direct one, and the share of interior ones among the
// direct counts.
template <typename T>
RESULT compare(int s, ENVIRONMENT* e, int n, const char* what) {
  LEVELTILE tile(s, e);
  typename T::CANVAS* canvas = canvasof<T>();
  canvasmodel::initcanvas<T>(gcontext, canvas, &tile.job.w, 8, 32);
  std::mt19937 rng(4711 + s);
  std::uniform_int_distribution<int> coord(0, 256);
  int good = 0, inside = 0, shown = 0;
  for (int k = 0; k < n; k++) {
    int x = coord(rng), y = coord(rng);
    typename T::CVALUE cv = canvas->v[y * CANVASSIZE + x].v;
    CL w = startpoint<T>(cv.value);
    int got = kernelcount<T>(canvas, x, y, &cv);
    int want = gatom->directcount(w, LIMIT);
    if (want < 0) inside++;
    if (want != 0 && std::abs(got - want) <= 1) good++;
    else if (shown++ < 5)
      fprintf(stderr, "%s level %d vertex (%d, %d): kernel %d, direct %d\n", what, s, x, y, got,
              want);
  }
  RESULT r;
  r.agree = static_cast<double>(good) / n;
  r.interior = static_cast<double>(inside) / n;
  fprintf(stderr, "%s level %d: %.4f agree, %.4f interior\n", what, s, r.agree, r.interior);
  return r;
}

// The same through the tile's PREPIXEL records, as the stack reads them:
// `n` random vertices are finished by the kernels on the finest grid, the
// tile is rendered, and each of their pixels is compared with the direct
// count. The stack adds counts along a pixel's way, so an interior pixel
// must keep the step that entered the trap, not the cycle's phase.
template <typename T>
double prepixelsagree(int s, ENVIRONMENT* e, int n) {
  LEVELTILE tile(s, e);
  typename T::CANVAS* canvas = canvasof<T>();
  canvasmodel::initcanvas<T>(gcontext, canvas, &tile.job.w, 8, 32);
  for (int i = 0; i < NCVERTEX; i++) canvas->v[i].depth = 8;
  std::mt19937 rng(815 + s);
  std::uniform_int_distribution<int> coord(0, 255);
  std::vector<std::pair<int, int>> sample;
  for (int k = 0; k < n; k++) {
    int x = coord(rng), y = coord(rng);
    typename T::CVERTEX* vx = &canvas->v[y * CANVASSIZE + x];
    if (vx->flags & VX_FINISHED) continue;
    for (int guard = 0; guard < 100; guard++) {
      int r = canvaskernels::calcitercanvas0julia<T>(gcontext, canvas, x, y, -1, &vx->v, LIMIT,
                                                     nullptr, true, 0);
      if (r == CALC_DONE || vx->v.iter >= static_cast<UITER>(LIMIT)) break;
    }
    vx->flags |= VX_FINISHED | VX_INTREE;
    sample.push_back({x, y});
  }
  std::vector<PREPIXEL> px(NPREPIXEL);
  canvasrender::rendercanvasprepixel<T>(gcontext, canvas, px.data(), 256, false);
  // The pixel's start point, the vertex's: half a step in from the corner.
  long double corner = std::ldexp(-2.0L, -s), step = std::ldexp(1.0L, -6 - s);
  int good = 0, shown = 0;
  for (auto [x, y] : sample) {
    CL w(corner + (x + 0.5L) * step, corner + (y + 0.5L) * step);
    int want = gatom->directcount(w, LIMIT);
    int got = px[y * 256 + x].iter;
    if (want != 0 && std::abs(got - want) <= 1) good++;
    else if (shown++ < 5)
      fprintf(stderr, "level %d pixel (%d, %d): PREPIXEL %d, direct %d\n", s, x, y, got, want);
  }
  double a = static_cast<double>(good) / static_cast<double>(sample.size());
  fprintf(stderr, "level %d: %.4f of %zu PREPIXELs agree\n", s, a, sample.size());
  return a;
}

// A level inside the basin: every sampled point is interior, and agrees.
void expectinterior(const RESULT& r) {
  EXPECT_EQ(r.interior, 1.0);
  EXPECT_GE(r.agree, 0.99);
}

// A level across the basin's edge: both outcomes are there, and agree.
void expectedge(const RESULT& r) {
  EXPECT_GT(r.interior, 0.2);
  EXPECT_LT(r.interior, 0.95);
  EXPECT_GE(r.agree, 0.99);
}

}  // namespace

// Inside the basin every start point meets the attractor after a period:
// with the series the orbit passes whole periods and must still be caught
// by the trap where it comes back to 0.
TEST(JuliaPeriodicKernels, InteriorLevelWithSeriesMeetsTheTrap) {
  ASSERT_TRUE(gatom->e->flags & E_SERIES);
  ASSERT_TRUE(gatom->e->flags & E_PERIODIC);
  expectinterior(compare<CANVASTEMPLATE_double>(100, gatom->e, 400, "series"));
}

// Against the plain copy of the orbit an interior point is caught where the
// orbit comes back to 0, at its last sample, before the orbit ends.
TEST(JuliaPeriodicKernels, InteriorLevelWithPlainOrbit) {
  expectinterior(compare<CANVASTEMPLATE_double>(100, gatom->plain, 400, "plain"));
}

// The basin's edge: escaping points linger for many periods next to the
// Julia set, interior ones are caught after one or more.
TEST(JuliaPeriodicKernels, EdgeLevelWithSeries) {
  expectedge(compare<CANVASTEMPLATE_double>(24, gatom->e, 600, "series"));
}

// The plain copy of the orbit ends after one period: the points that
// outlive it go round it again instead of on in the tile's format, where
// the atom's point is rounded to another parameter.
TEST(JuliaPeriodicKernels, EdgeLevelWithPlainOrbit) {
  expectedge(compare<CANVASTEMPLATE_double>(24, gatom->plain, 600, "plain"));
}

// Deeper than double's formats reach for the stack's tiles: long double.
TEST(JuliaPeriodicKernels, DeepInteriorLevelInLongDouble) {
  expectinterior(compare<CANVASTEMPLATE_longdouble>(1000, gatom->e, 200, "series"));
}

// Beyond long double's levels the stack's tiles are in the wide format.
TEST(JuliaPeriodicKernels, DeeperInteriorLevelInHfloat) {
  expectinterior(compare<CANVASTEMPLATE_hfloat>(2000, gatom->e, 100, "series"));
}

// The edge in long double against the plain copy: the wrap in another
// format.
TEST(JuliaPeriodicKernels, EdgeLevelWithPlainOrbitInLongDouble) {
  RESULT r = compare<CANVASTEMPLATE_longdouble>(24, gatom->plain, 300, "plain");
  EXPECT_GT(r.interior, 0.2);
  EXPECT_GE(r.agree, 0.99);
}

// Interior pixels of the edge level are caught after one or more periods;
// their records keep those counts whole (with the phase: 0.19).
TEST(JuliaPeriodicKernels, EdgeLevelPrepixelsKeepTheCount) {
  EXPECT_GE(prepixelsagree<CANVASTEMPLATE_double>(24, gatom->e, 600), 0.99);
}
