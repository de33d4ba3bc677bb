// The Mandelbrot iteration kernels against a brute-force mpf iteration at
// depths 20 to 9000, through reference vertices made on the canvas and
// through an environment; their edge cases, resumability and the stop flag;
// the reference orbit in mpf and its checkpoints.
#include <gmp.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Mandelbrot.h"
#include "canvas/kernels.h"
#include "canvas/model.h"
#include "canvastest.h"
#include "environment.h"

namespace {

using canvasmodel::NUM;

// ---------------------------------------------------------------- helpers

// The parameter of grid point (x, y) in mpf: the canvas origin plus (x, y) 2^s.
template <typename T>
void pointc(typename T::CANVAS* canvas, int x, int y, mpf_ptr cx, mpf_ptr cy) {
  int s = 4 - canvas->depth - canvas->canvassizeshift;
  MPF step(canvas->precision + 64);
  setpow2(step, s);
  mpf_mul_ui(cx, step, static_cast<unsigned long>(x));
  mpf_mul_ui(cy, step, static_cast<unsigned long>(y));
  mpf_add(cx, cx, canvas->c[0]);
  mpf_add(cy, cy, canvas->c[1]);
}

// The count the kernels store: the index of the last z inside |z|^2 <= 4,
// or maxiter when the orbit stays inside.
int brutecount(mpf_srcptr cx, mpf_srcptr cy, int maxiter, mp_bitcnt_t prec) {
  MPF x(prec), y(prec), xx(prec), yy(prec), t(prec);
  mpf_set_ui(x, 0);
  mpf_set_ui(y, 0);
  for (int n = 0; n < maxiter; n++) {
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_mul(t, x, y);
    mpf_mul_2exp(t, t, 1);
    mpf_add(y, t, cy);
    mpf_sub(x, xx, yy);
    mpf_add(x, x, cx);
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_add(t, xx, yy);
    if (mpf_cmp_ui(t, 4) > 0) return n;
  }
  return maxiter;
}

// A Mandelbrot job whose tile is centred on (cx, cy).
struct TILE {
  JOB job;
  HANDHPV corner;
  TILE(int depth, mpf_srcptr cx, mpf_srcptr cy)
      : job(0, depth), corner(static_cast<mp_bitcnt_t>(depth + 192)) {
    MPF half(depth + 192);
    setpow2(half, 3 - depth);
    mpf_sub(corner.h.v[0], cx, half);
    mpf_sub(corner.h.v[1], cy, half);
    job.w.pdata[JOB_CORNER] = &corner.h;
  }
  template <typename T>
  typename T::CANVAS* init() {
    typename T::CANVAS* canvas = canvasof<T>();
    canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
    return canvas;
  }
};

// Makes vertex (x, y) a reference from its absolute start at iteration 0.
template <typename T>
int makereference(typename T::CANVAS* canvas, int x, int y) {
  int i = y * CANVASSIZE + x;
  typename T::CVALUE* v = &canvas->v[i].v;
  v->iter = 0;
  v->value = NUM<typename T::FLOAT>::czero();
  v->d = NUM<typename T::FLOAT>::czero();
  v->flags = CV_ABSOLUTE;
  EXPECT_NE(canvasmodel::makeref<T>(canvas, i, v, nullptr), 0);
  return i;
}

// A state of point (x, y) relative to reference vertex `ref` at its start.
template <typename T>
typename T::CVALUE relativestate(typename T::CANVAS* canvas, int ref) {
  typedef NUM<typename T::FLOAT> N;
  typename T::CVALUE cv;
  memset(static_cast<void*>(&cv), 0, sizeof cv);
  const typename T::CVALUE* rv = &canvas->v[ref].v;
  cv.iter = rv->iter;
  cv.ref = ref;
  cv.data = canvas->v[ref].firstdata;
  cv.hpvalue = rv->hpvalue;
  canvasmodel::attachhpvalue<T>(cv.hpvalue);
  cv.value = N::czero();
  cv.d = N::czero();
  cv.Z = N::zero();
  cv.flags = CV_RELATIVE;
  return cv;
}

// The dispatcher for a point that is no vertex, not held by the bound.
template <typename T>
int calcitercanvas0generalT(typename T::CANVAS* canvas, int x, int y, typename T::CVALUE* cv,
                            int maxiter) {
  return canvaskernels::calcitercanvas0general<T>(canvas, x, y, -1, cv, maxiter, nullptr, true, 0);
}

// Runs a state through the dispatcher to the end; the count as brutecount
// gives it, -1 for a failed state.
template <typename T>
int runstate(typename T::CANVAS* canvas, int x, int y, typename T::CVALUE* cv, int maxiter) {
  for (int guard = 0; guard < 100000; guard++) {
    int r = calcitercanvas0generalT<T>(canvas, x, y, cv, maxiter);
    if (r == CALC_DONE) break;
    if (r == CALC_MORE && cv->iter >= static_cast<UITER>(maxiter)) break;
  }
  int count;
  if (cv->flags & CV_FAILED) count = -1;
  else if (cv->flags & CV_ESCAPED) count = static_cast<int>(cv->iter);
  else count = maxiter;
  canvasmodel::freevalue<T>(canvas, cv);
  return count;
}


// Random grid points, the same for every run.
std::vector<std::pair<int, int>> randompoints(int count, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> coord(0, 256);
  std::vector<std::pair<int, int>> p;
  for (int i = 0; i < count; i++) p.push_back({coord(rng), coord(rng)});
  return p;
}

// A point on the line c = -0.75 + t i where the count passes `level`,
// found to `bits` bits by bisection: a tile centred there holds points
// of both counts.
void levelpoint(mpf_ptr cx, mpf_ptr cy, int level, int bits) {
  mp_bitcnt_t prec = static_cast<mp_bitcnt_t>(bits + 64);
  MPF lo(prec), hi(prec), mid(prec);
  mpf_set_d(lo, 0.0005);
  mpf_set_d(hi, 0.05);
  mpf_set_d(cx, -0.75);
  for (int k = 0; k < bits; k++) {
    mpf_add(mid, lo, hi);
    mpf_div_2exp(mid, mid, 1);
    if (brutecount(cx, mid, level + 1, prec) > level) mpf_set(lo, mid);
    else mpf_set(hi, mid);
  }
  mpf_set(cy, lo);
}

// Counts of the kernels against mpf at random points of the tile, relative
// to a reference vertex at the tile's centre.
template <typename T>
void comparecounts(int depth, mpf_srcptr cx, mpf_srcptr cy, int npoints, int maxiter,
                   int* equal, int* varied) {
  TILE tile(depth, cx, cy);
  typename T::CANVAS* canvas = tile.template init<T>();
  int ref = makereference<T>(canvas, 128, 128);
  MPF px(canvas->precision + 64), py(canvas->precision + 64);
  *equal = 0;
  int first = -2;
  *varied = 0;
  for (auto [x, y] : randompoints(npoints, 1234u + static_cast<unsigned>(depth))) {
    typename T::CVALUE cv = relativestate<T>(canvas, ref);
    int got = runstate<T>(canvas, x, y, &cv, maxiter);
    pointc<T>(canvas, x, y, px, py);
    int want = brutecount(px, py, maxiter, canvas->precision + 64);
    if (got == want) ++*equal;
    if (first == -2) first = want;
    else if (want != first) *varied = 1;
  }
}

}  // namespace

// ---------------------------------------------------------------- counts against mpf

TEST(KernelCounts, Depth20Double) {
  MPF cx(128), cy(128);
  mpf_set_d(cx, -0.7436438870371587);
  mpf_set_d(cy, 0.1318259042053119);
  int equal, varied;
  comparecounts<CANVASTEMPLATE_double>(20, cx, cy, 300, 3000, &equal, &varied);
  EXPECT_GE(equal, 300 * 999 / 1000);
  EXPECT_TRUE(varied);
}

TEST(KernelCounts, Depth150Double) {
  MPF cx(300), cy(300);
  levelpoint(cx, cy, 400, 160);
  int equal, varied;
  comparecounts<CANVASTEMPLATE_double>(150, cx, cy, 300, 2000, &equal, &varied);
  EXPECT_GE(equal, 300 * 999 / 1000);
  EXPECT_TRUE(varied);
}

TEST(KernelCounts, Depth150LongDouble) {
  MPF cx(300), cy(300);
  levelpoint(cx, cy, 400, 160);
  int equal, varied;
  comparecounts<CANVASTEMPLATE_longdouble>(150, cx, cy, 200, 2000, &equal, &varied);
  EXPECT_GE(equal, 200 * 999 / 1000);
}

TEST(KernelCounts, Depth700LongDouble) {
  MPF cx(900), cy(900);
  levelpoint(cx, cy, 400, 710);
  int equal, varied;
  comparecounts<CANVASTEMPLATE_longdouble>(700, cx, cy, 300, 2000, &equal, &varied);
  EXPECT_GE(equal, 300 * 999 / 1000);
  EXPECT_TRUE(varied);
}

TEST(KernelCounts, Depth9000Hfloat) {
  // Too deep for a bisection in the test's time: the tile lies inside one
  // level set, some 400 iterations long.
  MPF cx(9200), cy(9200);
  mpf_set_d(cx, -0.75);
  mpf_set_d(cy, 0.0079);
  int equal, varied;
  comparecounts<CANVASTEMPLATE_hfloat>(9000, cx, cy, 40, 2000, &equal, &varied);
  EXPECT_EQ(equal, 40);
}

// ---------------------------------------------------------------- over an environment

namespace {

// A standard environment on the orbit of (cx, cy), made in mpf: samples in
// both forms until the orbit passes |z|^2 = 4 or `length` points.
struct ENVORBIT {
  ENVIRONMENT* e;
  HANDHPV c;
  ENVORBIT(mpf_srcptr cx, mpf_srcptr cy, int length, mp_bitcnt_t prec) : c(prec) {
    e = static_cast<ENVIRONMENT*>(calloc(1, sizeof(ENVIRONMENT)));
    mpf_set(c.h.v[0], cx);
    mpf_set(c.h.v[1], cy);
    e->c = &c.h;
    e->cf = cHF(mpf_get_HF(cx), mpf_get_HF(cy));
    e->refdatah = static_cast<REFDATAH*>(calloc(length + 1, sizeof(REFDATAH)));
    e->refdatad = static_cast<REFDATAD*>(calloc(length + 1, sizeof(REFDATAD)));
    MPF x(prec), y(prec), xx(prec), yy(prec), t(prec), a(prec);
    mpf_set_ui(x, 0);
    mpf_set_ui(y, 0);
    int n = 0;
    for (;; n++) {
      mpf_mul(xx, x, x);
      mpf_mul(yy, y, y);
      mpf_set_ui(a, 4);
      mpf_sub(a, a, xx);
      mpf_sub(a, a, yy);
      e->refdatah[n].value = cHF(mpf_get_HF(x), mpf_get_HF(y));
      e->refdatah[n].a = mpf_get_HF(a);
      e->refdatad[n].value = complexd(mpf_get_d(x), mpf_get_d(y));
      e->refdatad[n].a = mpf_get_d(a);
      if (n == length || mpf_sgn(a.v) < 0) break;
      mpf_mul(t, x, y);
      mpf_mul_2exp(t, t, 1);
      mpf_add(y, t, cy);
      mpf_sub(x, xx, yy);
      mpf_add(x, x, cx);
    }
    e->n = static_cast<UITER>(n);
    e->nrefdata = n + 1;
  }
  ~ENVORBIT() {
    free(e->refdatah);
    free(e->refdatad);
    free(e);
  }
};

template <typename T>
typename T::CVALUE startstate() {
  typename T::CVALUE cv;
  memset(static_cast<void*>(&cv), 0, sizeof cv);
  cv.ref = -1;
  cv.value = NUM<typename T::FLOAT>::czero();
  cv.d = NUM<typename T::FLOAT>::czero();
  cv.Z = NUM<typename T::FLOAT>::zero();
  return cv;
}

template <typename T>
void comparecountsenv(int depth, mpf_srcptr cx, mpf_srcptr cy, int npoints, int maxiter,
                      int* equal) {
  TILE tile(depth, cx, cy);
  ENVORBIT env(cx, cy, maxiter + 10, depth + 128);
  tile.job.w.pdata[JOB_ENVIRONMENT] = env.e;
  typename T::CANVAS* canvas = tile.template init<T>();
  MPF px(canvas->precision + 64), py(canvas->precision + 64);
  *equal = 0;
  for (auto [x, y] : randompoints(npoints, 99u + static_cast<unsigned>(depth))) {
    typename T::CVALUE cv = startstate<T>();
    int got = runstate<T>(canvas, x, y, &cv, maxiter);
    pointc<T>(canvas, x, y, px, py);
    int want = brutecount(px, py, maxiter, canvas->precision + 64);
    if (got == want) ++*equal;
  }
}

}  // namespace

TEST(KernelCountsEnvironment, Depth150Double) {
  MPF cx(300), cy(300);
  levelpoint(cx, cy, 400, 160);
  int equal;
  comparecountsenv<CANVASTEMPLATE_double>(150, cx, cy, 300, 2000, &equal);
  EXPECT_GE(equal, 300 * 999 / 1000);
}

TEST(KernelCountsEnvironment, Depth700LongDouble) {
  MPF cx(900), cy(900);
  levelpoint(cx, cy, 400, 710);
  int equal;
  comparecountsenv<CANVASTEMPLATE_longdouble>(700, cx, cy, 200, 2000, &equal);
  EXPECT_GE(equal, 200 * 999 / 1000);
}

TEST(KernelCountsEnvironment, Depth9000Hfloat) {
  MPF cx(9200), cy(9200);
  mpf_set_d(cx, -0.75);
  mpf_set_d(cy, 0.0079);
  int equal;
  comparecountsenv<CANVASTEMPLATE_hfloat>(9000, cx, cy, 40, 2000, &equal);
  EXPECT_EQ(equal, 40);
}

// The environment's orbit ends below maxiter (it escapes): the states go on
// absolutely from its end, and the reference made of a start state over the
// environment serves its neighbours as one made of an absolute state.
TEST(KernelCountsEnvironment, StartStateReference) {
  typedef CANVASTEMPLATE_double T;
  MPF cx(300), cy(300);
  levelpoint(cx, cy, 400, 160);
  TILE tile(150, cx, cy);
  ENVORBIT env(cx, cy, 2010, 300);
  tile.job.w.pdata[JOB_ENVIRONMENT] = env.e;
  T::CANVAS* canvas = tile.init<T>();
  int ref = 128 * CANVASSIZE + 128;
  T::CVALUE* rv = &canvas->v[ref].v;
  *rv = startstate<T>();
  ASSERT_NE(canvasmodel::makeref<T>(canvas, ref, rv, nullptr), 0);
  EXPECT_EQ(rv->flags, CV_REFERENCE);
  ASSERT_NE(canvas->environmenthpvalue, nullptr);
  MPF px(300), py(300);
  int equal = 0;
  for (auto [x, y] : randompoints(100, 5u)) {
    T::CVALUE cv = relativestate<T>(canvas, ref);
    int got = runstate<T>(canvas, x, y, &cv, 2000);
    pointc<T>(canvas, x, y, px, py);
    if (got == brutecount(px, py, 2000, 300)) equal++;
  }
  EXPECT_EQ(equal, 100);
  // Outside the interpolation iterations there is no environment checkpoint.
  T::CVALUE other = startstate<T>();
  other.iter = 5;
  EXPECT_EQ(canvasmodel::makeref<T>(canvas, 0, &other, nullptr), 0);
}

// ---------------------------------------------------------------- edge cases, typed

namespace {

template <typename T>
class KernelEdges : public ::testing::Test {};

class FormatNames {
 public:
  template <typename T>
  static std::string GetName(int i) {
    static const char* const names[] = {"float", "double", "longdouble", "hfloat"};
    return names[i];
  }
};

typedef ::testing::Types<CANVASTEMPLATE_float, CANVASTEMPLATE_double, CANVASTEMPLATE_longdouble,
                         CANVASTEMPLATE_hfloat>
    Formats;

// A tile at depth 12 across the edge of the set near the seahorse valley:
// points of counts from some tens to the limit.
template <typename T>
typename T::CANVAS* edgetile(TILE** tile) {
  static MPF cx(128), cy(128);
  mpf_set_d(cx, -0.7436438870371587);
  mpf_set_d(cy, 0.1318259042053119);
  *tile = new TILE(12, cx, cy);
  return (*tile)->template init<T>();
}

template <typename T>
bool samestate(const typename T::CVALUE& a, const typename T::CVALUE& b) {
  return a.iter == b.iter && a.flags == b.flags && a.ref == b.ref && a.hpvalue == b.hpvalue &&
         samec<T>(a.value, b.value) && samec<T>(a.d, b.d) &&
         samehf(tohf<T>(NUM<typename T::FLOAT>::creal(a.Z)),
                tohf<T>(NUM<typename T::FLOAT>::creal(b.Z)));
}

}  // namespace

TYPED_TEST_SUITE(KernelEdges, Formats, FormatNames);

// Its own reference whose orbit escapes ends at the sample with a <= 0: the
// count is the iteration of the last sample inside.
TYPED_TEST(KernelEdges, OwnReferenceEscapes) {
  typedef TypeParam T;
  TILE* tile;
  typename T::CANVAS* canvas = edgetile<T>(&tile);
  int ref = makereference<T>(canvas, 3, 7);
  typename T::CVALUE* rv = &canvas->v[ref].v;
  int r = canvaskernels::calciterref<T>(canvas, 3, 7, ref, rv, 5000, nullptr, true, 0);
  MPF px(200), py(200);
  pointc<T>(canvas, 3, 7, px, py);
  int want = brutecount(px, py, 5000, 200);
  ASSERT_LT(want, 5000);
  EXPECT_EQ(r, CALC_DONE);
  EXPECT_EQ(rv->flags, CV_ABSOLUTE | CV_ESCAPED);
  EXPECT_EQ(static_cast<int>(rv->iter), want);
  EXPECT_EQ(rv->hpvalue, nullptr);
  delete tile;
}

// `forced` lifts the bound: a derivative far past dbound but below |z|^2
// ends the run unforced and not forced.
TYPED_TEST(KernelEdges, ForcedLiftsTheBound) {
  typedef TypeParam T;
  typedef NUM<typename T::FLOAT> N;
  TILE* tile;
  typename T::CANVAS* canvas = edgetile<T>(&tile);
  canvas->dbound = N::fromd(1e-12);
  int ref = makereference<T>(canvas, 128, 128);
  for (bool forced : {false, true}) {
    typename T::CVALUE cv = relativestate<T>(canvas, ref);
    cv.d = cmake<T>(1e-5, 0);
    int r = canvaskernels::calciterref<T>(canvas, 130, 128, -1, &cv, 50, nullptr, forced, 0);
    if (forced) {
      EXPECT_NE(r, CALC_BOUND);
      EXPECT_GT(cv.iter, 0u);
    } else {
      EXPECT_EQ(r, CALC_BOUND);
      EXPECT_EQ(cv.iter, 0u);
      EXPECT_EQ(cv.flags, CV_ABSOLUTE);
    }
    canvasmodel::freevalue<T>(canvas, &cv);
  }
  delete tile;
}

// A failed precision test: an escape at the finest level, CV_FAILED for a
// point that is no vertex, a new reference for a vertex.
TYPED_TEST(KernelEdges, PrecisionFailure) {
  typedef TypeParam T;
  typedef NUM<typename T::FLOAT> N;
  TILE* tile;
  typename T::CANVAS* canvas = edgetile<T>(&tile);
  canvas->Zfactor = N::fromd(1e-30);  // every step fails the test
  int ref = makereference<T>(canvas, 128, 128);
  // The reference's orbit runs ahead, so that the failure is not at its start.
  typename T::CVALUE cv = relativestate<T>(canvas, ref);
  cv.d = cmake<T>(1e-9, 0);
  int r = canvaskernels::calciterref<T>(canvas, 140, 120, -1, &cv, 500, nullptr, true, 8);
  EXPECT_EQ(r, CALC_DONE);
  EXPECT_EQ(cv.flags, CV_ABSOLUTE | CV_ESCAPED);
  EXPECT_EQ(cv.iter, 0u);
  EXPECT_EQ(cv.hpvalue, nullptr);

  cv = relativestate<T>(canvas, ref);
  cv.d = cmake<T>(1e-9, 0);
  r = canvaskernels::calciterref<T>(canvas, 140, 120, -1, &cv, 500, nullptr, true, 3);
  EXPECT_EQ(r, CALC_DONE);
  EXPECT_EQ(cv.flags, CV_FAILED);
  EXPECT_EQ(cv.hpvalue, nullptr);

  int self = 120 * CANVASSIZE + 140;
  cv = relativestate<T>(canvas, ref);
  cv.d = cmake<T>(1e-9, 0);
  r = canvaskernels::calciterref<T>(canvas, 140, 120, self, &cv, 300, nullptr, true, 3);
  EXPECT_EQ(cv.ref, self);
  EXPECT_FALSE(chainempty(&canvas->v[self].hpvchain));
  EXPECT_NE(canvas->v[self].firstdata, -1);
  // As its own reference it follows its orbit, as an escape or to the limit.
  MPF px(200), py(200);
  pointc<T>(canvas, 140, 120, px, py);
  int want = brutecount(px, py, 300, 200);
  if (want < 300) {
    EXPECT_EQ(r, CALC_DONE);
    EXPECT_EQ(static_cast<int>(cv.iter), want);
  } else {
    EXPECT_EQ(r, CALC_MORE);
    EXPECT_EQ(cv.flags, CV_REFERENCE);
    EXPECT_EQ(cv.iter, 300u);
  }
  canvasmodel::freevalue<T>(canvas, &cv);
  delete tile;
}

// A state whose reference is this vertex cannot make it a reference again.
TYPED_TEST(KernelEdges, MakerefOfOwnReferenceFails) {
  typedef TypeParam T;
  TILE* tile;
  typename T::CANVAS* canvas = edgetile<T>(&tile);
  int ref = makereference<T>(canvas, 128, 128);
  typename T::CVALUE cv = relativestate<T>(canvas, ref);
  typename T::CVALUE before = cv;
  int used = canvas->ihpvalue;
  EXPECT_EQ(canvasmodel::makeref<T>(canvas, ref, &cv, nullptr), 0);
  EXPECT_TRUE(samestate<T>(cv, before));
  EXPECT_EQ(canvas->ihpvalue, used);
  canvasmodel::freevalue<T>(canvas, &cv);
  delete tile;
}

// The reference escapes before its neighbour: the neighbour turns absolute at
// the reference's last sample and goes on to its own count.
TYPED_TEST(KernelEdges, ReferenceEndsInsideMaxiter) {
  typedef TypeParam T;
  TILE* tile;
  typename T::CANVAS* canvas = edgetile<T>(&tile);
  // Pick a reference that escapes early and a neighbour that outlives it.
  MPF px(200), py(200);
  int rx = -1, ry = -1, rc = 1 << 30, nx = -1, ny = -1, nc = -1;
  for (auto [x, y] : randompoints(200, 77u)) {
    pointc<T>(canvas, x, y, px, py);
    int c = brutecount(px, py, 3000, 200);
    if (c < rc) rc = c, rx = x, ry = y;
    if (c > nc && c < 3000) nc = c, nx = x, ny = y;
  }
  ASSERT_LT(rc + 5, nc);
  int ref = makereference<T>(canvas, rx, ry);
  typename T::CVALUE cv = relativestate<T>(canvas, ref);
  // The reference's orbit, followed to its end.
  ITER end = 100000;
  EXPECT_EQ(canvasmodel::refgethpvalue<T>(canvas, ref, &end, 1), nullptr);
  EXPECT_EQ(end, canvas->v[ref].refiter);
  EXPECT_GT(end, rc);
  EXPECT_LT(end, nc);
  // To that end the neighbour is relative; there it turns absolute.
  int r = canvaskernels::calciterref<T>(canvas, nx, ny, -1, &cv, end - 1, nullptr, true, 0);
  EXPECT_EQ(r, CALC_MORE);
  EXPECT_EQ(cv.flags, CV_RELATIVE);
  r = canvaskernels::calciterref<T>(canvas, nx, ny, -1, &cv, end, nullptr, true, 0);
  EXPECT_EQ(r, CALC_MORE);
  EXPECT_EQ(cv.flags, CV_ABSOLUTE);
  EXPECT_EQ(cv.ref, -1);
  EXPECT_EQ(cv.hpvalue, nullptr);
  EXPECT_EQ(static_cast<int>(cv.iter), end);
  // The value one step past the switch is the orbit's own.
  {
    MPF x(200), y(200), t(200), xx(200), yy(200);
    pointc<T>(canvas, nx, ny, px, py);
    mpf_set_ui(x, 0);
    mpf_set_ui(y, 0);
    for (int n = 0; n < end; n++) {
      mpf_mul(xx, x, x);
      mpf_mul(yy, y, y);
      mpf_mul(t, x, y);
      mpf_mul_2exp(t, t, 1);
      mpf_add(y, t, py);
      mpf_sub(x, xx, yy);
      mpf_add(x, x, px);
    }
    HFLOATCOMPLEX got = tohf<T>(cv.value);
    double ex = mpf_get_d(x), ey = mpf_get_d(y);
    double tol = std::is_same_v<typename T::FLOAT, float> ? 1e-2 : 1e-6;
    EXPECT_NEAR(dHF(crealHF(got)), ex, tol * (1 + std::fabs(ex)));
    EXPECT_NEAR(dHF(cimagHF(got)), ey, tol * (1 + std::fabs(ey)));
  }
  int got = runstate<T>(canvas, nx, ny, &cv, 3000);
  // Absolutely, float cannot carry a grid step of 2^-16 for long.
  if (!std::is_same_v<typename T::FLOAT, float>) {
    EXPECT_EQ(got, nc);
  }
  delete tile;
}

// Chunks of 37 iterations leave exactly the state of one run.
TYPED_TEST(KernelEdges, ResumableInChunks) {
  typedef TypeParam T;
  TILE* tile;
  typename T::CANVAS* canvas = edgetile<T>(&tile);
  int ref = makereference<T>(canvas, 128, 128);
  for (auto [x, y] : randompoints(12, 3u)) {
    typename T::CVALUE one = relativestate<T>(canvas, ref);
    typename T::CVALUE chunked = relativestate<T>(canvas, ref);
    int r1 = calcitercanvas0generalT<T>(canvas, x, y, &one, 1500);
    int r2 = CALC_MORE;
    for (int m = 37; r2 == CALC_MORE && chunked.iter < 1500u; m += 37)
      r2 = calcitercanvas0generalT<T>(canvas, x, y, &chunked, m < 1500 ? m : 1500);
    EXPECT_EQ(r1, r2);
    EXPECT_EQ(one.iter, chunked.iter);
    EXPECT_EQ(one.flags, chunked.flags);
    EXPECT_TRUE(samec<T>(one.value, chunked.value));
    EXPECT_TRUE(samec<T>(one.d, chunked.d));
    canvasmodel::freevalue<T>(canvas, &one);
    canvasmodel::freevalue<T>(canvas, &chunked);
  }
  delete tile;
}

// With the job stopped a kernel gives up within 256 iterations and leaves
// the state of its entry.
TYPED_TEST(KernelEdges, StopLeavesEntryState) {
  typedef TypeParam T;
  TILE* tile;
  typename T::CANVAS* canvas = edgetile<T>(&tile);
  int ref = makereference<T>(canvas, 128, 128);
  // A point that stays inside for more than 256 iterations.
  MPF px(200), py(200);
  int lx = -1, ly = -1;
  for (auto [x, y] : randompoints(100, 11u)) {
    pointc<T>(canvas, x, y, px, py);
    if (brutecount(px, py, 1000, 200) > 300) lx = x, ly = y;
  }
  ASSERT_GE(lx, 0);
  typename T::CVALUE cv = relativestate<T>(canvas, ref);
  calcitercanvas0generalT<T>(canvas, lx, ly, &cv, 10);
  typename T::CVALUE entry = cv;
  tile->job.w.stop = true;
  int r = calcitercanvas0generalT<T>(canvas, lx, ly, &cv, 100000);
  EXPECT_EQ(r, CALC_MORE);
  EXPECT_TRUE(samestate<T>(cv, entry));
  // The reference orbit was not run on for the stopped job.
  EXPECT_LE(canvas->v[ref].refiter, 0);
  // The absolute kernel likewise; float's own orbit is too coarse here to
  // stay inside that long.
  if (!std::is_same_v<typename T::FLOAT, float>) {
    typename T::CVALUE abs = startstate<T>();
    abs.flags = CV_ABSOLUTE;
    r = canvaskernels::calciterabsolute<T>(canvas, lx, ly, -1, &abs, 100000, nullptr, true, 0);
    EXPECT_EQ(r, CALC_MORE);
    EXPECT_EQ(abs.iter, 0u);  // the entry state, not the 256 done
  }
  tile->job.w.stop = false;
  canvasmodel::freevalue<T>(canvas, &cv);
  delete tile;
}

// The samples of a reference orbit are the mpf orbit rounded to the format;
// checkpoints are made on demand, shared when asked for again, and the orbit
// ends where it passes |z|^2 = 5.
TYPED_TEST(KernelEdges, ReferenceOrbitAndCheckpoints) {
  typedef TypeParam T;
  typedef NUM<typename T::FLOAT> N;
  TILE* tile;
  typename T::CANVAS* canvas = edgetile<T>(&tile);
  int ref = makereference<T>(canvas, 20, 30);
  ITER it = 100;
  CHPVALUE* h = canvasmodel::refgethpvalue<T>(canvas, ref, &it, 1);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->iter, 100);
  EXPECT_EQ(h->count, 1);
  it = 100;
  EXPECT_EQ(canvasmodel::refgethpvalue<T>(canvas, ref, &it, 1), h);
  EXPECT_EQ(h->count, 2);
  it = 60;
  CHPVALUE* h60 = canvasmodel::refgethpvalue<T>(canvas, ref, &it, 1);
  ASSERT_NE(h60, nullptr);
  // Sorted: 0, 60, 100.
  CHAIN* l = canvas->v[ref].hpvchain.next;
  EXPECT_EQ(CHAINRECORD(l, CHPVALUE, chain)->iter, 0);
  EXPECT_EQ(CHAINRECORD(l->next, CHPVALUE, chain)->iter, 60);
  EXPECT_EQ(CHAINRECORD(l->next->next, CHPVALUE, chain)->iter, 100);

  MPF px(200), py(200), x(canvas->precision), y(canvas->precision), t(canvas->precision),
      xx(canvas->precision), yy(canvas->precision), a(canvas->precision);
  pointc<T>(canvas, 20, 30, px, py);
  mpf_set_ui(x, 0);
  mpf_set_ui(y, 0);
  int cursor = canvas->v[ref].firstdata;
  int end = -1;
  for (int n = 0; n <= 100; n++) {
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_set_ui(a, 4);
    mpf_sub(a, a, xx);
    mpf_sub(a, a, yy);
    typename T::COMPLEX v = N::czero();
    typename T::FLOAT av = N::zero();
    canvasmodel::readcdata<T>(canvas, &cursor, n, &v, &av);
    typename T::COMPLEX want;
    if constexpr (!std::is_same_v<typename T::FLOAT, HFLOAT>) {
      want = typename T::COMPLEX(N::frommpf(x), N::frommpf(y));
    } else {
      want = cHF(N::frommpf(x), N::frommpf(y));
    }
    EXPECT_TRUE(samec<T>(v, want)) << n;
    EXPECT_TRUE(samehf(tohf<T>(N::creal(av)), tohf<T>(N::creal(N::frommpf(a))))) << n;
    if (mpf_cmp_si(a, -1) <= 0) {
      end = n;
      break;
    }
    mpf_mul(t, x, y);
    mpf_mul_2exp(t, t, 1);
    mpf_add(y, t, py);
    mpf_sub(x, xx, yy);
    mpf_add(x, x, px);
  }
  canvasmodel::detachhpvalue<T>(canvas, h, true);
  canvasmodel::detachhpvalue<T>(canvas, h, true);
  canvasmodel::detachhpvalue<T>(canvas, h60, true);
  // Freed checkpoints leave the chain.
  EXPECT_EQ(canvas->v[ref].hpvchain.next->next, &canvas->v[ref].hpvchain);
  // Past the end of the orbit there is none; the end is kept.
  it = 100000;
  EXPECT_EQ(canvasmodel::refgethpvalue<T>(canvas, ref, &it, 1), nullptr);
  EXPECT_EQ(it, canvas->v[ref].refiter);
  if (end >= 0) {
    EXPECT_EQ(it, end);
  }
  EXPECT_GT(it, 100);

  ::testing::internal::CaptureStderr();
  it = 5;
  EXPECT_EQ(canvasmodel::refgethpvalue<T>(canvas, 0, &it, 1), nullptr);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "refgethpvalue: Chain empty!\n");
  delete tile;
}
