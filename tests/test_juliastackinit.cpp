// The Julia stack where the area tree meets it: a Julia realm's levels made,
// copied with their references and freed with the realm; the marks of the
// stack's grid in the tree, checked against the geometry of the levels; and
// canvases of a Julia area started from a level's series in every format.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <functional>
#include <thread>
#include <vector>

#include "canvastest.h"
#include "juliastack.h"

namespace {

// ------------------------------------------------------------ a running engine

// Levels of four tiles along a side: juliasizeshift 10, level 0 at depth 4.
constexpr int JSHIFT = 10;

struct CALL {
  std::function<void(OVCONTEXT*)> fn;
  std::atomic<bool> done{false};
};

void worker_call(OVCONTEXT* context, WORKER* worker) {
  CALL* call = static_cast<CALL*>(worker->pdata[0]);
  call->fn(context);
  freeworker(context, worker);
  call->done.store(true);
}

void waitfor(const std::function<bool()>& cond) {
  while (!cond()) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

struct JEngine {
  OVCONTEXT* context;
  explicit JEngine(int juliasizeshift = JSHIFT) {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    EXPECT_TRUE(initcontext(context, int64_t(1) << 30, 4, juliasizeshift, 0, nullptr, nullptr,
                            nullptr, nullptr, nullptr, nullptr, "/tmp/", 0));
  }
  ~JEngine() {
    freecontext(context);
    free(context);
  }
  void onmain(std::function<void(OVCONTEXT*)> fn) {
    CALL call;
    call.fn = std::move(fn);
    WORKER* w = addworker(context, THREAD_MAIN, worker_call);
    ASSERT_NE(w, nullptr);
    w->pdata[0] = &call;
    dispatch(context, w);
    waitfor([&] { return call.done.load(); });
  }
  REALM* realm(REALMTYPE type) {
    REALM* r = addrealm(context, type);
    EXPECT_NE(r, nullptr);
    onmain([](OVCONTEXT*) {});
    return r;
  }
  void release(REALM* r) {
    detachrealm(context, r);
    onmain([](OVCONTEXT*) {});
  }
};

struct COUNTS {
  int ia, ihpvalue, ienvironment, itask, ijuliacache, achainlen;
  bool operator==(const COUNTS&) const = default;
};

COUNTS counts(JEngine& e) {
  COUNTS c{};
  e.onmain([&](OVCONTEXT* x) { c = COUNTS{x->ia, x->ihpvalue, x->ienvironment, x->itask, x->ijuliacache, x->achainlen}; });
  return c;
}

// ------------------------------------------------------------ tree helpers

// The corner of `a` as a double, from the top's exact corner down.
std::complex<double> cornerof(AREA* a) {
  HFLOATCOMPLEX c;
  HPVALUE* h = getcoordarel(a, &c);
  return {mpf_get_d(h->v[0]) + dHF(crealHF(c)), mpf_get_d(h->v[1]) + dHF(cimagHF(c))};
}

double sideof(int depth) { return std::ldexp(1.0, 4 - depth); }

// The area at `depth` whose square holds point p, or null where the tree
// stops short.
AREA* areaat(AREA* top, std::complex<double> p, int depth) {
  AREA* a = top;
  while (a && a->depth < depth) {
    std::complex<double> c = cornerof(a);
    double half = sideof(a->depth + 1);
    int right = p.real() >= c.real() + half, up = p.imag() >= c.imag() + half;
    static const int child[2][2] = {{0, 3}, {1, 2}};
    a = a->child[child[right][up]];
  }
  return a;
}

void collect(AREA* a, std::vector<AREA*>* out) {
  out->push_back(a);
  for (AREA* c : a->child)
    if (c) collect(c, out);
}

// Where the geometry of the levels puts an area, written out on its own:
// level s = depth - (juliasizeshift - 6) with N tiles of side 4 2^-s / N
// from -2 2^-s; -1 outside.
std::pair<int, int> gridplace(AREA* a, int n) {
  int s = a->depth - (JSHIFT - 6);
  if (s < 0) return {-1, -1};
  std::complex<double> c = cornerof(a);
  double tile = 4 * std::ldexp(1.0, -s) / n;
  double fx = (c.real() + 2 * std::ldexp(1.0, -s)) / tile;
  double fy = (c.imag() + 2 * std::ldexp(1.0, -s)) / tile;
  int x = int(std::floor(fx)), y = int(std::floor(fy));
  if (x < 0 || y < 0 || x >= n || y >= n) return {-1, -1};
  return {x, y};
}

// ------------------------------------------------------------ the levels

TEST(JuliaStackInit, JuliaRealmGetsAClearedStack) {
  JEngine e;
  REALM* r = e.realm(JULIA);
  e.onmain([&](OVCONTEXT*) {
    ASSERT_NE(r->juliastack, nullptr);
    EXPECT_EQ(r->njuliastack, 16384);
    EXPECT_EQ(r->juliastacksizeshift, JSHIFT - 8);
    EXPECT_EQ(r->validjuliastack, -1);
    EXPECT_EQ(r->calcjuliastack, -1);
    EXPECT_EQ(r->priojuliastack, -1);
    EXPECT_EQ(r->maxjuliastack, -1);
    EXPECT_EQ(r->readyjuliastack, -1);
    EXPECT_EQ(r->juliajuliastack, -1);
    EXPECT_EQ(r->ijuliacache, 0);
    EXPECT_TRUE(chainempty(&r->bypassjc));
    for (int s : {0, 1, 777, 16383}) {
      const JULIASTACKDATA& L = r->juliastack[s];
      SCOPED_TRACE(s);
      EXPECT_EQ(L.sizeshift, JSHIFT - 8);
      EXPECT_EQ(L.prec, -1);
      EXPECT_FALSE(L.bypass);
      EXPECT_EQ(L.m, nullptr);
      EXPECT_EQ(L.e, nullptr);
      EXPECT_EQ(L.mipmap, nullptr);
      EXPECT_EQ(L.worker, nullptr);
      EXPECT_EQ(L.nworker, 0);
      EXPECT_TRUE(chainempty(&L.wait));
      EXPECT_TRUE(chainempty(&L.canvasworker));
      for (int y = 0; y < MAXJULIASTACKSIZE; y++)
        for (int x = 0; x < MAXJULIASTACKSIZE; x++) {
          EXPECT_EQ(L.c[y][x], nullptr);
          EXPECT_EQ(L.w[y][x], nullptr);
          const JCBYPASSCHAIN& b = L.bypasschain[y][x];
          EXPECT_EQ(b.i, s);
          EXPECT_EQ(b.x, x);
          EXPECT_EQ(b.y, y);
          EXPECT_FALSE(b.inchain);
          EXPECT_TRUE(chainempty(&b.chain));
        }
    }
  });
  e.release(r);
}

TEST(JuliaStackInit, OtherRealmsHaveNoStack) {
  JEngine e;
  for (REALMTYPE t : {MANDELBROT, GENERAL, HYPERBOLIC}) {
    REALM* r = e.realm(t);
    e.onmain([&](OVCONTEXT*) {
      EXPECT_EQ(r->juliastack, nullptr);
      EXPECT_EQ(r->top->child[0], nullptr);
    });
    e.release(r);
  }
}

TEST(JuliaStackInit, SecondInitIsRefusedWithItsMessage) {
  JEngine e;
  REALM* r = e.realm(JULIA);
  e.onmain([&](OVCONTEXT* c) {
    JULIASTACKDATA* before = r->juliastack;
    r->validjuliastack = 5;
    testing::internal::CaptureStderr();
    initjuliastack(c, r);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("initjuliastack: fatal error juliastack!=NULL."), std::string::npos);
    EXPECT_EQ(r->juliastack, before);
    EXPECT_EQ(r->validjuliastack, 5);
  });
  e.release(r);
}

// ------------------------------------------------------------ the grid in the tree

TEST(JuliaStackInit, EveryMarkMatchesTheLevelsGeometry) {
  JEngine e;
  REALM* r = e.realm(JULIA);
  e.onmain([&](OVCONTEXT* c) {
    int n = 1 << r->juliastacksizeshift;
    int base = c->juliasizeshift - 6;
    std::vector<AREA*> all;
    collect(r->top, &all);
    int marked = 0, bases = 0;
    for (AREA* a : all) {
      auto want = gridplace(a, n);
      if (a->depth < base) want = {-1, -1};
      EXPECT_EQ(a->xinner, want.first) << "depth " << a->depth;
      EXPECT_EQ(a->yinner, want.second) << "depth " << a->depth;
      if (a->xinner != -1) marked++;
      if (a->xinner != -1 && a->depth == base) bases++;
    }
    // All of level 0 is in the tree and marked.
    EXPECT_EQ(bases, n * n);
    EXPECT_GT(marked, n * n);
  });
  e.release(r);
}

TEST(JuliaStackInit, QuadrantsCarryTheTilesAtZeroDownToTheDepthLimit) {
  JEngine e;
  REALM* r = e.realm(JULIA);
  e.onmain([&](OVCONTEXT* c) {
    int n = 1 << r->juliastacksizeshift;
    int base = c->juliasizeshift - 6;
    int maxdepth = (c->juliasizeshift - 3) + base;
    const double eps = 1e-9;
    const std::complex<double> inq[4] = {{-eps, -eps}, {eps, -eps}, {eps, eps}, {-eps, eps}};
    const int want[4][2] = {{n / 2 - 1, n / 2 - 1}, {n / 2, n / 2 - 1}, {n / 2, n / 2}, {n / 2 - 1, n / 2}};
    for (int q = 0; q < 4; q++) {
      for (int d = base; d <= maxdepth; d++) {
        AREA* a = areaat(r->top, inq[q], d);
        ASSERT_NE(a, nullptr) << "quadrant " << q << " depth " << d;
        EXPECT_EQ(a->xinner, want[q][0]);
        EXPECT_EQ(a->yinner, want[q][1]);
      }
      EXPECT_EQ(areaat(r->top, inq[q], maxdepth + 1), nullptr);
    }
  });
  e.release(r);
}

TEST(JuliaStackInit, GridBasesNeverGetOnTheChainOthersFollowTheRule) {
  JEngine e;
  REALM* r = e.realm(JULIA);
  e.onmain([&](OVCONTEXT* c) {
    int base = c->juliasizeshift - 6;
    std::vector<AREA*> all;
    collect(r->top, &all);
    int leaves = 0;
    for (AREA* a : all) {
      bool leaf = true;
      for (AREA* ch : a->child) leaf = leaf && !ch;
      bool gridbase = a->depth == base && a->xinner != -1;
      bool want = leaf && a->parent && !a->hpvalue && !gridbase;
      EXPECT_EQ((a->flags & A_INDELCHAIN) != 0, want) << "depth " << a->depth;
      if (leaf && gridbase) leaves++;
    }
    // Some bases are bare leaves: exactly those the rule must keep.
    EXPECT_GT(leaves, 0);
    // Asking again changes nothing for a base.
    for (AREA* a : all)
      if (a->depth == base && a->xinner != -1) {
        updatedelchain(c, a);
        EXPECT_FALSE(a->flags & A_INDELCHAIN);
      }
  });
  e.release(r);
}

TEST(JuliaStackInit, SubdividingAGridAreaPlacesItsChildren) {
  JEngine e;
  REALM* r = e.realm(JULIA);
  e.onmain([&](OVCONTEXT* c) {
    int n = 1 << r->juliastacksizeshift;
    int h = n / 2;
    int base = c->juliasizeshift - 6;
    // A base off the middle path is a leaf: (0, 2) of level 0.
    AREA* a = areaat(r->top, {-2 + 0.5 * 4.0 / n, -2 + 2.5 * 4.0 / n}, base);
    ASSERT_NE(a, nullptr);
    ASSERT_EQ(a->xinner, 0);
    ASSERT_EQ(a->yinner, 2);
    ASSERT_EQ(a->child[0], nullptr);
    subdivide(c, a);
    const int off[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    for (int i = 0; i < 4; i++) {
      int x = 2 * a->xinner - h + off[i][0], y = 2 * a->yinner - h + off[i][1];
      bool inside = x >= 0 && y >= 0 && x < n && y < n;
      EXPECT_EQ(a->child[i]->xinner, inside ? x : -1) << i;
      EXPECT_EQ(a->child[i]->yinner, inside ? y : -1) << i;
      EXPECT_EQ(std::make_pair(a->child[i]->xinner, a->child[i]->yinner),
                gridplace(a->child[i], n));
    }
    // A central base's children lie inside level 1: (1, 1) gives (0, 0)..(1, 1).
    AREA* m = areaat(r->top, {-1e-9, -1e-9}, base);
    AREA* deeper = m->child[3];
    ASSERT_NE(deeper, nullptr);
    EXPECT_EQ(deeper->xinner, 2 * 1 - h);
    EXPECT_EQ(deeper->yinner, 2 * 1 - h + 1);
    // An area outside the grid passes no marks on.
    for (int d = 1; d <= base + 1; d++) {
      AREA* p = areaat(r->top, {5, 5}, d - 1);
      ASSERT_NE(p, nullptr);
      subdivide(c, p);
    }
    AREA* out = areaat(r->top, {5, 5}, base + 1);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->xinner, -1);
    EXPECT_EQ(out->parent->xinner, -1);
  });
  e.release(r);
}

TEST(JuliaStackInit, OneTileLevelsMarkNothing) {
  JEngine e(8);
  REALM* r = e.realm(JULIA);
  e.onmain([&](OVCONTEXT*) {
    ASSERT_NE(r->juliastack, nullptr);
    EXPECT_EQ(r->juliastacksizeshift, 0);
    std::vector<AREA*> all;
    collect(r->top, &all);
    EXPECT_EQ(all.size(), 5u);
    for (AREA* a : all) EXPECT_EQ(a->xinner, -1);
  });
  e.release(r);
}

// ------------------------------------------------------------ copy and free

TEST(JuliaStackInit, CopyTakesLevelsWithReferencesAndRemovalGivesAllBack) {
  JEngine e;
  COUNTS start = counts(e);
  REALM* a = e.realm(JULIA);
  ENVIRONMENT* env = nullptr;
  HPVALUE* m = nullptr;
  JULIACACHE* tiles[3] = {};
  JULIACACHE* busy = nullptr;
  WORKER fakeworker{};
  e.onmain([&](OVCONTEXT* c) {
    m = addhpv(c, 128);
    MPF x(64), y(64);
    mpf_set_d(x.v, -0.1);
    mpf_set_d(y.v, 0.65);
    env = adde(c, x.v, y.v, 128);
    for (int s = 0; s < 3; s++) {
      JULIASTACKDATA& L = a->juliastack[s];
      L.m = m;
      attachhpv(m);
      L.e = env;
      attache(env);
      L.iter = 100 + s;
      L.taylorj[1] = cHF(HFd(s + 1), HFd(0.5));
      L.mr = cHF(HFd(1e-5 * (s + 1)), HFd(0));
      L.prec = 4;
      L.bypass = s == 2;
      tiles[s] = addjc(c);
      L.c[1][2] = tiles[s];
      a->ijuliacache++;
      if (s == 2) {
        L.bypasschain[1][2].inchain = true;
        chaininsbegin(&a->bypassjc, &L.bypasschain[1][2].chain);
      }
    }
    // Level 1's second tile is still in work: it stays the source's.
    busy = addjc(c);
    a->juliastack[1].c[0][0] = busy;
    a->juliastack[1].w[0][0] = &fakeworker;
    a->ijuliacache++;
    a->readyjuliastack = 2;
    a->calcjuliastack = 2;
    a->validjuliastack = 2;
    a->maxjuliastack = 2;
  });
  REALM* b = copyrealm(e.context, a);
  ASSERT_NE(b, nullptr);
  e.onmain([&](OVCONTEXT* c) {
    ASSERT_NE(b->juliastack, nullptr);
    EXPECT_NE(b->juliastack, a->juliastack);
    EXPECT_EQ(m->count, 1 + 2 * 3);
    EXPECT_EQ(atomicload(&env->count), 1 + 2 * 3);
    for (int s = 0; s < 3; s++) {
      const JULIASTACKDATA& L = b->juliastack[s];
      EXPECT_EQ(L.m, m);
      EXPECT_EQ(L.e, env);
      EXPECT_EQ(L.iter, 100 + s);
      EXPECT_TRUE(samehf(L.taylorj[1], a->juliastack[s].taylorj[1]));
      EXPECT_TRUE(samehf(L.mr, a->juliastack[s].mr));
      EXPECT_EQ(L.bypass, s == 2);
      EXPECT_EQ(L.c[1][2], tiles[s]);
      EXPECT_EQ(tiles[s]->count, 2);
    }
    EXPECT_EQ(b->juliastack[1].c[0][0], nullptr);
    EXPECT_EQ(busy->count, 1);
    EXPECT_EQ(b->ijuliacache, 3);
    EXPECT_EQ(b->readyjuliastack, 2);
    // bypassjc holds the copy's own entry.
    ASSERT_FALSE(chainempty(&b->bypassjc));
    EXPECT_EQ(b->bypassjc.next, &b->juliastack[2].bypasschain[1][2].chain);
    EXPECT_TRUE(b->juliastack[2].bypasschain[1][2].inchain);
    // The copy's tree is prepared like a new one's.
    AREA* at0 = areaat(b->top, {1e-9, 1e-9}, c->juliasizeshift - 6);
    ASSERT_NE(at0, nullptr);
    EXPECT_EQ(at0->xinner, 2);
    ASSERT_NE(b->jsttask, nullptr);
    // The source's busy tile is no longer in work when it goes.
    a->juliastack[1].w[0][0] = nullptr;
  });
  e.release(b);
  e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(m->count, 1 + 3);
    EXPECT_EQ(tiles[0]->count, 1);
  });
  e.release(a);
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(m->count, 1);
    EXPECT_EQ(atomicload(&env->count), 1);
    detachhpv(c, m);
    detache(c, env);
  });
  EXPECT_EQ(counts(e), start);
}

TEST(JuliaStackInit, RemovingARealmWithATileInWorkSaysSo) {
  JEngine e;
  COUNTS start = counts(e);
  REALM* r = e.realm(JULIA);
  WORKER fakeworker{};
  e.onmain([&](OVCONTEXT* c) {
    r->juliastack[5].c[0][1] = addjc(c);
    r->juliastack[5].w[0][1] = &fakeworker;
    r->ijuliacache++;
  });
  testing::internal::CaptureStderr();
  e.release(r);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("removerealm: FATAL ERROR. Still computing.\n"), std::string::npos);
  EXPECT_TRUE(fakeworker.stop);
  EXPECT_EQ(counts(e), start);
}

// ------------------------------------------------------------ a canvas over a level

template <typename T>
class JuliaFrame : public ::testing::Test {};

class FrameNames {
 public:
  template <typename T>
  static std::string GetName(int i) {
    static const char* const names[] = {"float", "double", "longdouble", "hfloat"};
    return names[i];
  }
};

typedef ::testing::Types<CANVASTEMPLATE_float, CANVASTEMPLATE_double, CANVASTEMPLATE_longdouble,
                         CANVASTEMPLATE_hfloat>
    FORMATS;
TYPED_TEST_SUITE(JuliaFrame, FORMATS, FrameNames);

typedef std::complex<long double> CLD;

CLD told(HFLOATCOMPLEX h) { return CLD(dlHF(crealHF(h)), dlHF(cimagHF(h))); }

template <typename T>
CLD told(typename T::COMPLEX z) {
  return told(canvasmodel::NUM<typename T::FLOAT>::ctoHF(z));
}

TYPED_TEST(JuliaFrame, VerticesStartAtTheLevelsSeries) {
  typedef TypeParam T;
  typename T::CANVAS* canvas = canvasof<T>();
  const int depth = 12;
  JULIASTACKDATA frame{};
  frame.taylorj[0] = cHF(HFd(0.25), HFd(-0.125));
  frame.taylorj[1] = cHF(HFd(-3.5), HFd(1.75));
  frame.taylorj[2] = cHF(HFd(40.0), HFd(12.0));
  frame.taylorj[3] = cHF(HFd(-900.0), HFd(300.0));
  frame.mr = cHF(HFd(3e-7), HFd(-2e-7));
  frame.iter = 4321;
  HANDHPV corner(256);
  mpf_set_d(corner.h.v[0], -0.0009765625);
  mpf_set_d(corner.h.v[1], 0.001953125);
  JOB job(CF_JULIA, depth);
  job.w.pdata[JOB_CORNER] = &corner.h;
  job.w.pdata[JOB_JULIAFRAME] = &frame;
  canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);

  EXPECT_TRUE(samehf(canvas->ct, frame.mr));
  CLD t[4];
  for (int k = 0; k < 4; k++) t[k] = told(frame.taylorj[k]);
  long double step = std::ldexp(1.0L, 4 - depth - 8);
  CLD origin(mpf_get_d(corner.h.v[0]) + step / 2, mpf_get_d(corner.h.v[1]) + step / 2);
  long double dfactor = dlHF(canvas->dfactor);
  const long double tol = std::is_same_v<typename T::FLOAT, float> ? 1e-5L : 1e-12L;
  const int pts[][2] = {{0, 0}, {256, 256}, {17, 200}, {256, 0}, {128, 3}};
  for (const auto& p : pts) {
    SCOPED_TRACE(std::to_string(p[0]) + "," + std::to_string(p[1]));
    CLD delta = origin + CLD(p[0] * step, p[1] * step);
    CLD want = t[0] + delta * (t[1] + delta * (t[2] + delta * t[3]));
    CLD wantd = (t[1] + delta * (2.0L * t[2] + delta * 3.0L * t[3])) * dfactor;
    const auto& v = canvas->v[p[1] * CANVASSIZE + p[0]].v;
    CLD got = told<T>(v.value), gotd = told<T>(v.d);
    EXPECT_LE(std::abs(got - want), tol * std::abs(want)) << "value";
    EXPECT_LE(std::abs(gotd - wantd), tol * std::abs(wantd)) << "derivative";
    EXPECT_EQ(v.iter, 4321u);
    // A plain Julia start would sit at delta itself.
    EXPECT_GT(std::abs(got - delta), 1e-3L);
  }
}

TYPED_TEST(JuliaFrame, WithoutAFrameOrForAStackTileTheStartIsThePoint) {
  typedef TypeParam T;
  typename T::CANVAS* canvas = canvasof<T>();
  JULIASTACKDATA frame{};
  frame.taylorj[0] = cHF(HFd(0.5), HFd(0.5));
  frame.iter = 77;
  frame.mr = cHF(HFd(1), HFd(1));
  for (unsigned int word : {CF_JULIA | 0x800000u, 0u}) {
    JOB job(word, 12);
    HFLOATCOMPLEX ct = cHF(HFd(0.25), HFd(0));
    job.w.hdata[JOB_CT] = ct;
    job.w.pdata[JOB_JULIAFRAME] = &frame;
    canvasmodel::initcanvas<T>(gcontext, canvas, &job.w, 8, 32);
    EXPECT_TRUE(samehf(canvas->ct, ct));
    EXPECT_NE(canvas->v[300].v.iter, 77u);
    if (word & CF_JULIA) {
      EXPECT_TRUE(samec<T>(canvas->v[0].v.value, canvas->cf));
    }
  }
}

}  // namespace
