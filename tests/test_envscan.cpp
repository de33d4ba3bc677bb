// General views end to end on a running engine, with the idle search and the
// environments' scan in the flow: the start view, whose centre is interior,
// completes; a jump to a deep point near the boundary gets its environment
// by the scan and completes too.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>

#include "idle.h"
#include "flowstest.h"
#include "test_viewport.h"

using namespace viewporttest;

namespace {

constexpr int RES = 256;

// Counts the view's completions, and those that came without an
// environment: a general view's areas have nothing to compute against then.
struct COMPLETIONS : FINISHCOUNT {
  std::atomic<int> bare{0};
};

void countcompletion(OVCONTEXT* c, VIEWPORT* v, int event, void* pdata) {
  COMPLETIONS* k = static_cast<COMPLETIONS*>(pdata);
  if (event == VPCALLBACK_FINISH && !v->esat && !v->enonsat) k->bare.fetch_add(1);
  countfinish(c, v, event, pdata);
}

// Every completion of the view came with an environment.
struct GENERALVIEW : flowstest::GENERALVIEWOF<COMPLETIONS, countcompletion> {
  ~GENERALVIEW() { EXPECT_EQ(count.bare.load(), 0); }
};

std::complex<double> pointof(const HPVALUE* h) {
  return {mpf_get_d(h->v[0]), mpf_get_d(h->v[1])};
}

// The escape count (radius 2) of texel (tx, ty) of area a, iterated in mpf
// at `bits`; -1 within `limit`.
int exactcount(AREA* a, int tx, int ty, mp_bitcnt_t bits, int limit) {
  HFLOATCOMPLEX off;
  HPVALUE* base = getcoordarel(a, &off);
  mpf_t cx, cy, x, y, t, u, s;
  for (mpf_ptr m : {cx, cy, x, y, t, u, s}) mpf_init2(m, bits);
  // The texel's centre: corner + (t + 1/2) side / TEXTURESIZE, exactly.
  auto place = [&](mpf_ptr out, mpf_srcptr b, HFLOAT o, int k) {
    mpf_set_HFexact(out, o);
    mpf_add(out, out, b);
    mpf_set_ui(s, 2 * k + 1);
    int e = 4 - a->depth - TEXTURESIZESHIFT - 1;
    if (e >= 0)
      mpf_mul_2exp(s, s, e);
    else
      mpf_div_2exp(s, s, -e);
    mpf_add(out, out, s);
  };
  place(cx, base->v[0], crealHF(off), tx);
  place(cy, base->v[1], cimagHF(off), ty);
  int n = -1;
  for (int k = 1; k <= limit; k++) {
    mpf_mul(t, x, x);
    mpf_mul(u, y, y);
    mpf_sub(s, t, u);
    mpf_mul(u, x, y);
    mpf_mul_2exp(u, u, 1);
    mpf_add(x, s, cx);
    mpf_add(y, u, cy);
    mpf_mul(t, x, x);
    mpf_mul(u, y, y);
    mpf_add(t, t, u);
    if (mpf_cmp_ui(t, 4) > 0) {
      n = k;
      break;
    }
  }
  for (mpf_ptr m : {cx, cy, x, y, t, u, s}) mpf_clear(m);
  return n;
}

}  // namespace

TEST(EnvironmentScan, TheStartViewCompletesWithTheIdleSearchOn) {
  GENERALVIEW g;
  g.waitfinish(1);  // a hang here ends in the test's timeout
  g.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(g.v->ivainvalid, 0);
    EXPECT_FALSE(g.v->flags & VP_MUSTWAITFORIDLE);
    EXPECT_FALSE(g.v->flags & VP_DONOTDRAW);
    // The centre 0 is the nucleus of period 1, found by the idle search and
    // serving the view.
    ASSERT_NE(g.v->esat, nullptr);
    EXPECT_EQ(g.v->esat->n, 1u);
    EXPECT_TRUE(g.v->esat->flags & E_PERIODIC);
    EXPECT_LT(std::abs(pointof(g.v->esat->c)), 1e-15);
    EXPECT_EQ(g.v->info.iter, -1);  // interior, attracted by the fixed point
    // The picture counts as a plain iteration does.
    std::vector<RECTCOPY> rects = publishedlist(g.v);
    ASSERT_FALSE(rects.empty());
    int escaped = 0, interior = 0;
    for (const RECTCOPY& r : rects) {
      ASSERT_EQ(r.ichannels, 2);
      AREA* a = r.area[1];
      const float* px = static_cast<const float*>(r.texture[1]->pixels);
      long double step = areaside(a) / TEXTURESIZE;
      for (int ty = 3; ty < TEXTURESIZE; ty += 29) {
        for (int tx = 5; tx < TEXTURESIZE; tx += 31) {
          std::complex<long double> p = areacorner(a) + std::complex<long double>(
                                                            (tx + 0.5L) * step, (ty + 0.5L) * step);
          float value = px[ty * TEXTURESIZE + tx];
          int n = escapecount(p);
          if (value > 0) {
            EXPECT_NEAR(value, n, 1.0) << "at " << p.real() << " " << p.imag();
            escaped++;
          } else if (value < 0) {
            EXPECT_EQ(n, -1) << "at " << p.real() << " " << p.imag();
            interior++;
          }
        }
      }
    }
    EXPECT_GT(escaped, 20);
    EXPECT_GT(interior, 5);
  });
}

TEST(EnvironmentScan, ADeepViewNearTheBoundaryGetsItsEnvironmentAfterAMoveAndCompletes) {
  GENERALVIEW g;
  g.waitfinish(1);
  // A view of width 1e-100 at a point 3e-101 off the Misiurewicz point i.
  const mp_bitcnt_t bits = 420;
  mpf_t x, y;
  mpf_init2(x, bits);
  mpf_init2(y, bits);
  mpf_set_str(x, "3e-101", 10);
  mpf_set_ui(y, 1);
  HFLOATCOMPLEX zoom = cHF(hfloatfromstring("2e100"), ZEROH);
  int before = g.count.finish.load();
  moveviewportabsolute(g.e.context, g.v, x, y, zoom, RES, RES);
  // Complete at the new place, with nothing more under way.
  waitfor([&] {
    bool done = false;
    g.e.onmain([&](OVCONTEXT*) {
      done = g.count.finish.load() > before && !(g.v->flags & (VP_IDLE | VP_MOVING)) &&
             g.v->ivainvalid == 0 && std::abs(pointof(g.v->delta).imag() - 1) < 1e-15;
    });
    return done;
  });
  g.e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(g.v->ivainvalid, 0);
    EXPECT_NEAR(pointof(g.v->delta).imag(), 1, 1e-15);
    // The standard environment of the new centre serves: an orbit that
    // leaves the disc after a few hundred rounds.
    ENVIRONMENT* s = g.v->esat ? g.v->esat : g.v->enonsat;
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(g.v->esat, nullptr);
    EXPECT_TRUE(s->flags & E_ESCAPED);
    EXPECT_GT(s->n, 100u);
    EXPECT_LT(std::abs(pointof(s->c) - std::complex<double>(0, 1)), 1e-90);
    // The run of the centre against it was made for this very position.
    EXPECT_EQ(g.v->info.c, g.v->delta);
    EXPECT_EQ(g.v->info.e, s);
    // The picture made against it counts as an exact iteration does.
    std::vector<RECTCOPY> rects = publishedlist(g.v);
    ASSERT_FALSE(rects.empty());
    int checked = 0;
    for (const RECTCOPY& r : rects) {
      ASSERT_EQ(r.ichannels, 2);
      const float* px = static_cast<const float*>(r.texture[1]->pixels);
      for (int ty = 7; ty < TEXTURESIZE; ty += 61) {
        for (int tx = 11; tx < TEXTURESIZE; tx += 67) {
          float value = px[ty * TEXTURESIZE + tx];
          int n = exactcount(r.area[1], tx, ty, bits, 5000);
          if (value > 0) {
            EXPECT_NEAR(value, n, 1.0) << "texel " << tx << " " << ty;
            checked++;
          } else if (value < 0) {
            EXPECT_EQ(n, -1) << "texel " << tx << " " << ty;
          }
        }
      }
    }
    EXPECT_GT(checked, 10);
  });
  mpf_clear(x);
  mpf_clear(y);
}

namespace {

// The escape count of z0 under z^2 + c, or -1 within `limit`.
int juliacount(std::complex<long double> z, std::complex<long double> c, int limit = 20000) {
  for (int n = 1; n <= limit; n++) {
    z = z * z + c;
    if (std::norm(z) > 4) return n;
  }
  return -1;
}

}  // namespace

TEST(EnvironmentScan, AJuliaViewFarFromTheCentreGetsItsOwnStandardEnvironment) {
  TileEngine e{96, false};
  REALM* julia = newrealm(e, JULIA);
  const std::complex<double> c(-0.75, 0.1);
  e.onmain([&](OVCONTEXT* cx) {
    HPVALUE* p = addhpv(cx, 128);
    mpf_set_d(p->v[0], c.real());
    mpf_set_d(p->v[1], c.imag());
    julia->info.c = p;
  });
  FINISHCOUNT count;
  VIEWPORT* v = addviewport(e.context, julia, nullptr, RES, RES, countfinish, &count);
  e.onmain([&](OVCONTEXT*) { v->channels = 1 | 8; });
  activateviewport(e.context, v, 1);
  waitfor([&] { return count.finish.load() >= 1; });
  // A view of half-size 1/4096 around a point 0.6 out: its centre is far from
  // 0 at this scale.
  mpf_t x, y;
  mpf_init2(x, 128);
  mpf_init2(y, 128);
  mpf_set_d(x, 0.375);
  mpf_set_d(y, 0.46875);
  moveviewportabsolute(e.context, v, x, y, cHF(HFd(4096), ZEROH), RES, RES);
  waitfor([&] {
    bool done = false;
    e.onmain([&](OVCONTEXT*) {
      done = !(v->flags & (VP_IDLE | VP_MOVING)) && v->enonsat && v->ivainvalid == 0;
    });
    return done;
  });
  waitfor([&] { return count.finish.load() >= 2; });
  e.waitidle();
  e.onmain([&](OVCONTEXT*) {
    ENVIRONMENT* s = v->enonsat;
    ASSERT_NE(s, nullptr);
    EXPECT_FALSE(s->flags & E_PERIODIC);
    EXPECT_EQ(pointof(s->c), std::complex<double>(0.375, 0.46875));
    ASSERT_GT(s->n, 0u);
    // Its orbit is that of the centre under the realm's parameter.
    std::complex<long double> z(0.375L, 0.46875L), cl(c.real(), c.imag());
    for (unsigned k = 0; k <= s->n && k < 40; k++) {
      EXPECT_NEAR(s->refdatad[k].value.real(), static_cast<double>(z.real()), 1e-12) << k;
      EXPECT_NEAR(s->refdatad[k].value.imag(), static_cast<double>(z.imag()), 1e-12) << k;
      z = z * z + cl;
    }
    EXPECT_GE(v->precsat, 1);
    // The picture made against it counts as a plain iteration does.
    std::vector<RECTCOPY> rects = publishedlist(v);
    ASSERT_FALSE(rects.empty());
    int checked = 0;
    for (const RECTCOPY& r : rects) {
      ASSERT_EQ(r.ichannels, 2);
      AREA* a = r.area[1];
      const float* px = static_cast<const float*>(r.texture[1]->pixels);
      long double step = areaside(a) / TEXTURESIZE;
      for (int ty = 3; ty < TEXTURESIZE; ty += 29) {
        for (int tx = 5; tx < TEXTURESIZE; tx += 31) {
          std::complex<long double> p = areacorner(a) + std::complex<long double>(
                                                            (tx + 0.5L) * step, (ty + 0.5L) * step);
          float value = px[ty * TEXTURESIZE + tx];
          int n = juliacount(p, cl);
          if (value > 0) {
            EXPECT_NEAR(value, n, 1.0) << "at " << p.real() << " " << p.imag();
            checked++;
          } else if (value < 0) {
            EXPECT_EQ(n, -1) << "at " << p.real() << " " << p.imag();
          }
        }
      }
    }
    EXPECT_GT(checked, 10);
  });
  mpf_clear(x);
  mpf_clear(y);
  detachviewport(e.context, v);
  detachrealm(e.context, julia);
  e.onmain([](OVCONTEXT*) {});
}
