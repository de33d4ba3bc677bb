// Misiurewicz points found again from a nearby view centre: c = i (pre-period
// 1, period 2), c = -2 (pre-period 1, period 1) and a deeper one whose
// pre-period and period the test finds by itself, each compared with an
// independent Newton iteration and orbit check in GMP; a view on a periodic
// centre's interior has none.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "satellite.h"
#include "test_viewport.h"

using namespace viewporttest;

namespace {

constexpr mp_bitcnt_t BITS = 384;

struct C {
  mpf_t x, y;
  C() {
    mpf_init2(x, BITS);
    mpf_init2(y, BITS);
  }
  C(double a, double b) : C() {
    mpf_set_d(x, a);
    mpf_set_d(y, b);
  }
  C(const C& o) : C() {
    mpf_set(x, o.x);
    mpf_set(y, o.y);
  }
  C& operator=(const C& o) {
    mpf_set(x, o.x);
    mpf_set(y, o.y);
    return *this;
  }
  ~C() {
    mpf_clear(x);
    mpf_clear(y);
  }
};

// The orbit z_0 .. z_m of c and dz/dc, written out one operation at a time.
void orbit(const C& c, int m, std::vector<C>* z, std::vector<C>* dz) {
  z->assign(m + 1, C(0, 0));
  dz->assign(m + 1, C(0, 0));
  mpf_t a, b;
  mpf_init2(a, BITS);
  mpf_init2(b, BITS);
  for (int k = 1; k <= m; k++) {
    const C& p = (*z)[k - 1];
    const C& dp = (*dz)[k - 1];
    C& q = (*z)[k];
    C& dq = (*dz)[k];
    // dz' = 2 (x + iy)(dx + i dy) + 1
    mpf_mul(a, p.x, dp.x);
    mpf_mul(b, p.y, dp.y);
    mpf_sub(dq.x, a, b);
    mpf_mul_ui(dq.x, dq.x, 2);
    mpf_add_ui(dq.x, dq.x, 1);
    mpf_mul(a, p.x, dp.y);
    mpf_mul(b, p.y, dp.x);
    mpf_add(dq.y, a, b);
    mpf_mul_ui(dq.y, dq.y, 2);
    // z' = z^2 + c
    mpf_mul(a, p.x, p.x);
    mpf_mul(b, p.y, p.y);
    mpf_sub(q.x, a, b);
    mpf_add(q.x, q.x, c.x);
    mpf_mul(a, p.x, p.y);
    mpf_mul_ui(q.y, a, 2);
    mpf_add(q.y, q.y, c.y);
  }
  mpf_clear(a);
  mpf_clear(b);
}

double distance(const C& a, const C& b) {
  mpf_t d, e;
  mpf_init2(d, BITS);
  mpf_init2(e, BITS);
  mpf_sub(d, a.x, b.x);
  mpf_mul(d, d, d);
  mpf_sub(e, a.y, b.y);
  mpf_mul(e, e, e);
  mpf_add(d, d, e);
  mpf_sqrt(d, d);
  long ex;
  double m = mpf_get_d_2exp(&ex, d);
  mpf_clear(d);
  mpf_clear(e);
  return m == 0 ? 0 : std::ldexp(m, static_cast<int>(std::max(ex, -1000L)));
}

// Newton on z_(a+p) - z_a from c.
C newton(C c, int a, int p) {
  std::vector<C> z, dz;
  mpf_t n, t, u;
  mpf_init2(n, BITS);
  mpf_init2(t, BITS);
  mpf_init2(u, BITS);
  for (int it = 0; it < 100; it++) {
    orbit(c, a + p, &z, &dz);
    C f, df;
    mpf_sub(f.x, z[a + p].x, z[a].x);
    mpf_sub(f.y, z[a + p].y, z[a].y);
    mpf_sub(df.x, dz[a + p].x, dz[a].x);
    mpf_sub(df.y, dz[a + p].y, dz[a].y);
    // f / df = f conj(df) / |df|^2
    mpf_mul(n, df.x, df.x);
    mpf_mul(t, df.y, df.y);
    mpf_add(n, n, t);
    mpf_mul(t, f.x, df.x);
    mpf_mul(u, f.y, df.y);
    mpf_add(t, t, u);
    mpf_div(t, t, n);
    mpf_sub(c.x, c.x, t);
    mpf_mul(t, f.y, df.x);
    mpf_mul(u, f.x, df.y);
    mpf_sub(t, t, u);
    mpf_div(t, t, n);
    mpf_sub(c.y, c.y, t);
  }
  mpf_clear(n);
  mpf_clear(t);
  mpf_clear(u);
  return c;
}

// The least period, then the least index a >= 1 with z_(a+p) = z_a to far
// below the working precision's half.
bool leastcycle(const C& c, int* a, int* p) {
  std::vector<C> z, dz;
  orbit(c, 60, &z, &dz);
  for (int q = 1; q < 30; q++)
    for (int s = 1; s < 30; s++)
      if (distance(z[s], z[s + q]) < std::ldexp(1.0, -static_cast<int>(BITS) / 2)) {
        *a = s;
        *p = q;
        return true;
      }
  return false;
}

C fromoffset(const C& base, HFLOATCOMPLEX off) {
  C r = base, t;
  mpf_set_HFexact(t.x, crealHF(off));
  mpf_set_HFexact(t.y, cimagHF(off));
  mpf_add(r.x, r.x, t.x);
  mpf_add(r.y, r.y, t.y);
  return r;
}

// Finds the point from `centre` at scale `zoom` and checks it against the
// expected point, pre-period and period.
void expectfound(const C& centre, double zoom, const C& expected, int n, int k, double bound) {
  int fn = -1, fk = -1;
  HFLOATCOMPLEX off = findmisiurewiczat(centre.x, centre.y, cHFd({zoom, 0}), BITS, &fn, &fk);
  EXPECT_EQ(fn, n);
  EXPECT_EQ(fk, k);
  C got = fromoffset(centre, off);
  EXPECT_LT(distance(got, expected), bound);
}

}  // namespace

TEST(Misiurewicz, IIsFoundWithPrePeriodOneAndPeriodTwo) {
  C i(0, 1);
  // Independent: the orbit of i is 0, i, -1 + i, -i, -1 + i, ...
  int a, p;
  ASSERT_TRUE(leastcycle(i, &a, &p));
  EXPECT_EQ(a, 2);
  EXPECT_EQ(p, 2);
  C centre(3e-3, 1 - 2e-3);
  expectfound(centre, 50, i, 1, 2, std::ldexp(1.0, -300));
}

TEST(Misiurewicz, MinusTwoIsFoundWithPrePeriodOneAndPeriodOne) {
  C m2(-2, 0);
  int a, p;
  ASSERT_TRUE(leastcycle(m2, &a, &p));
  EXPECT_EQ(a, 2);
  EXPECT_EQ(p, 1);
  C centre(-2 + 1e-4, 2e-5);
  expectfound(centre, 1000, m2, 1, 1, std::ldexp(1.0, -300));
}

TEST(Misiurewicz, ADeeperPointIsFoundFromADeepViewThroughTheViewport) {
  // A pre-periodic point near -0.1011 + 0.9563i, refined here by Newton on
  // z_5 - z_4 and its cycle read off its own orbit.
  C m = newton(C(-0.10109636384562, 0.95628651080914), 4, 1);
  int a, p;
  ASSERT_TRUE(leastcycle(m, &a, &p));
  ASSERT_GE(a, 2);
  EXPECT_EQ(a, 4);
  EXPECT_EQ(p, 1);
  EXPECT_LT(distance(m, C(-0.10109636384562, 0.95628651080914)), 1e-12);
  // From a view 2^-70 wide whose centre is a few hundredths of its radius
  // off the point.
  C centre = m, t;
  mpf_set_d(t.x, 3e-23);
  mpf_set_d(t.y, -1e-23);
  mpf_add(centre.x, centre.x, t.x);
  mpf_add(centre.y, centre.y, t.y);
  expectfound(centre, std::ldexp(1.0, 70), m, a - 1, p, std::ldexp(1.0, -300));

  TileEngine e(4, false);
  REALM* realm = newrealm(e, MANDELBROT);
  e.onmain([&](OVCONTEXT* c) {
    VIEWPORT* v = handmadeview(c, realm, {0, 0}, {std::ldexp(1.0, 70), 0});
    v->precision = 200;
    HPVALUE* d = addhpv(c, 256);
    mpf_set(d->v[0], centre.x);
    mpf_set(d->v[1], centre.y);
    detachhpv(c, v->delta);
    v->delta = d;
    int n = -1, k = -1;
    HFLOATCOMPLEX off = findmisiurewicz(c, v, &n, &k);
    EXPECT_EQ(n, a - 1);
    EXPECT_EQ(k, p);
    // At the view's precision (200 + 64 bits).
    EXPECT_LT(distance(fromoffset(centre, off), m), std::ldexp(1.0, -230));
    __detachviewport(c, v);
  });
  detachrealm(e.context, realm);
  e.onmain([](OVCONTEXT*) {});
}

TEST(Misiurewicz, APeriodicCentresInteriorHasNone) {
  // The period-2 nucleus -1 lies in the view; every pair z_(a+2) = z_a holds
  // there, but that is a cycle through 0, not a pre-periodic point.
  C centre(-1 + 1e-3, 1e-3);
  int n = -1, k = -1;
  HFLOATCOMPLEX off = findmisiurewiczat(centre.x, centre.y, cHFd({100, 0}), BITS, &n, &k);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(k, 0);
  EXPECT_EQ(off.mantissax, 0);
  EXPECT_EQ(off.mantissay, 0);
}
