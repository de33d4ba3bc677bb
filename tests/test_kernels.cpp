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
    if (getenv("KDEBUG")) fprintf(stderr, "%d %d %d %d\n", x, y, got, want);
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
