// The display's hand-over of a draw list: the cases without a list, the lock
// that outlives the call, the composition of the ring's steps since the
// list's step, the navigator's share, the extrapolation between ticks, the
// marked points and satellites on the screen, and a zero zoom.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>

#include "Mandelbrot.h"

namespace {

typedef std::complex<double> cd;

// A viewport made by hand, without an engine: the display's call reads only
// the viewport and the main group's stop flag.
struct DISPLAYSCENE {
  std::unique_ptr<OVCONTEXT> context{new OVCONTEXT()};
  VIEWPORT* v;
  HPVALUE centre;

  DISPLAYSCENE() {
    v = static_cast<VIEWPORT*>(calloc(1, sizeof(VIEWPORT)));
    __initviewport(context.get(), v);
    for (int k = 0; k < 2; k++) mpf_init2(centre.v[k], 256);
    mpf_set_d(centre.v[0], -0.75);
    mpf_set_d(centre.v[1], 0.125);
    v->delta = &centre;
    v->drawactive = true;
    v->toactivatelist = 1;
    v->cslist[1] = 0;
  }
  ~DISPLAYSCENE() {
    for (int k = 0; k < 2; k++) mpf_clear(centre.v[k]);
    for (int k = 0; k < NVIEWPORTMP; k++) mpf_clear(v->mp[k]);
    for (int k = 0; k < 2; k++) {
      mpf_clear(v->idle_c[k]);
      mpf_clear(v->idle_d[k]);
      mpf_clear(v->moveparam[k]);
      mpf_clear(v->dummy[k]);
    }
    free(v);
  }

  void setstep(uint32_t k, cd shift, cd zoom) {
    v->coordinatesystem[k % NCOORDINATESYSTEM] = cHFd(shift);
    v->zoomsystem[k % NCOORDINATESYSTEM] = cHFd(zoom);
  }
};

struct OUT {
  cd delta, zoom, delta2, zoom2, deltaabs, zoomabs;
  COLORSCHEME* cs = nullptr;
  int list = -2;
};

OUT take(DISPLAYSCENE& s, double time, cd* c = nullptr, int n = 0, cd* csat = nullptr,
         int* nsat = nullptr) {
  OUT o;
  o.list = getactivelist(s.context.get(), s.v, time, &o.delta, &o.zoom, &o.delta2, &o.zoom2,
                         &o.deltaabs, &o.zoomabs, &o.cs, c, n, csat, nsat);
  return o;
}

// The ring's meaning: a point on the screen of step k-1 is at
// (s - shift_k) * zoom_k on the screen of step k.
cd walk(const std::vector<std::pair<cd, cd>>& steps, cd s) {
  for (auto& st : steps) s = (s - st.first) * st.second;
  return s;
}

void expectnear(cd a, cd b, double tol) {
  EXPECT_NEAR(a.real(), b.real(), tol) << a << " vs " << b;
  EXPECT_NEAR(a.imag(), b.imag(), tol) << a << " vs " << b;
}

}  // namespace

TEST(GetActiveList, StoppedEngineGivesNoListAndUnlocks) {
  DISPLAYSCENE s;
  s.context->grmain.stop = true;
  OUT o = take(s, 0);
  EXPECT_EQ(o.list, -1);
  EXPECT_FALSE(s.v->listslocked);
  EXPECT_EQ(s.v->activelist, -1);  // nothing was taken
}

TEST(GetActiveList, InactiveViewportGivesNoListAndUnlocks) {
  DISPLAYSCENE s;
  s.v->drawactive = false;
  OUT o = take(s, 0);
  EXPECT_EQ(o.list, -1);
  EXPECT_FALSE(s.v->listslocked);
  EXPECT_EQ(s.v->activelist, -1);
}

TEST(GetActiveList, NoFinishedListGivesMinusOneAndUnlocks) {
  DISPLAYSCENE s;
  s.v->toactivatelist = -1;
  OUT o = take(s, 0);
  EXPECT_EQ(o.list, -1);
  EXPECT_FALSE(s.v->listslocked);
}

TEST(GetActiveList, TakesTheNewestListWithItsSchemeAndStaysLockedUntilUnlock) {
  DISPLAYSCENE s;
  COLORSCHEME* marker[NDISPLAYLISTS];
  for (int i = 0; i < NDISPLAYLISTS; i++) {
    marker[i] = reinterpret_cast<COLORSCHEME*>(0x1000 + 16 * i);
    s.v->schemes[i] = marker[i];
  }
  s.v->toactivatelist = 2;
  OUT o = take(s, 0);
  EXPECT_EQ(o.list, 2);
  EXPECT_EQ(s.v->activelist, 2);
  EXPECT_EQ(o.cs, marker[2]);
  EXPECT_TRUE(s.v->listslocked);
  s.v->toactivatelist = 0;  // a newer list in the same frame waits for the next
  EXPECT_EQ(s.v->activelist, 2);
  unlocklist(s.context.get(), s.v);
  EXPECT_FALSE(s.v->listslocked);
  OUT next = take(s, 0);
  EXPECT_EQ(next.list, 0);
  EXPECT_EQ(next.cs, marker[0]);
  unlocklist(s.context.get(), s.v);
}

TEST(GetActiveList, ClearsTheNavigatorsInvalidFlag) {
  DISPLAYSCENE s;
  s.v->nav_invalid = true;
  take(s, 0);
  EXPECT_FALSE(s.v->nav_invalid);
  unlocklist(s.context.get(), s.v);
}

TEST(GetActiveList, WithoutStepsSinceTheListTheMapIsTheNavigatorsAlone) {
  DISPLAYSCENE s;
  s.v->cslist[1] = 3;
  s.v->icursystem = 3;
  s.v->icoordinatesystem = 3;
  s.v->nav_delta = cd(0.25, -0.5);
  s.v->nav_zoom = cd(1.5, 0.5);
  OUT o = take(s, 0);
  expectnear(o.delta, cd(0.25, -0.5), 1e-15);
  expectnear(o.zoom, cd(1.5, 0.5), 1e-15);
  expectnear(o.delta2, cd(0.25, -0.5), 0);
  expectnear(o.zoom2, cd(1.5, 0.5), 0);
  cd vz = cdHF(s.v->zoom);
  expectnear(o.zoomabs, vz * cd(1.5, 0.5), 1e-14);
  expectnear(o.deltaabs, cd(-0.75, 0.125) + cd(0.25, -0.5) / vz, 1e-14);
  unlocklist(s.context.get(), s.v);
}

// Steps from the list's slot across the end of the ring of 128: the list's
// map must carry any of its points where the steps since then put them, and
// the absolute map any plane point where the applied view and the steps not
// yet applied put it.
TEST(GetActiveList, ComposesTheRingStepsSinceTheListAcrossTheRingsEnd) {
  DISPLAYSCENE s;
  const uint32_t listcs = NCOORDINATESYSTEM - 2, cur = NCOORDINATESYSTEM + 1,
                 top = NCOORDINATESYSTEM + 3;
  std::vector<std::pair<cd, cd>> all;
  for (uint32_t k = listcs; k != top; k++) {
    double f = static_cast<double>(k - listcs);
    cd shift(0.1 * f - 0.2, 0.05 * f + 0.03);
    cd zoom = std::polar(1.0 + 0.3 * f, 0.2 * f - 0.1);
    s.setstep(k, shift, zoom);
    all.emplace_back(shift, zoom);
  }
  s.v->cslist[1] = listcs;
  s.v->icursystem = cur;
  s.v->icoordinatesystem = top;
  cd navdelta(0.03, -0.02), navzoom = std::polar(1.1, 0.05);
  s.v->nav_delta = navdelta;
  s.v->nav_zoom = navzoom;
  cd vz = cd(0, -2) * std::polar(3.0, 0.4);
  s.v->zoom = cHFd(vz);
  OUT o = take(s, 0);
  ASSERT_EQ(o.list, 1);

  for (cd p : {cd(0, 0), cd(0.5, -0.25), cd(-1, 1), cd(2, 0.75)}) {
    cd screen = walk(all, p);
    screen = navzoom * (screen - navdelta);
    expectnear(o.zoom * (p - o.delta), screen, 1e-12);
  }
  std::vector<std::pair<cd, cd>> pending(all.begin() + (cur - listcs), all.end());
  for (cd P : {cd(-0.75, 0.125), cd(-0.7, 0.1), cd(-0.8, 0.2)}) {
    cd screen = walk(pending, (P - cd(-0.75, 0.125)) * vz);
    screen = navzoom * (screen - navdelta);
    expectnear(o.zoomabs * (P - o.deltaabs), screen, 1e-11);
  }
  expectnear(o.delta2, navdelta, 0);
  expectnear(o.zoom2, navzoom, 0);
  unlocklist(s.context.get(), s.v);
}

// One full tick after the navigator's last one, the extrapolation has moved
// the picture by exactly that tick's step: the shift by Ddelta, the zoom by
// exp(Dlogzoom); halfway, by the integral of the motion so far.
TEST(GetActiveList, ExtrapolatesTheNavigatorsMotionBetweenTicks) {
  DISPLAYSCENE s;
  s.v->cslist[1] = 0;
  s.v->icursystem = 0;
  s.v->icoordinatesystem = 0;
  s.v->nav_interval = 0.01;
  s.v->nav_moving = true;
  s.v->nav_time = 2.0;
  cd Dlog(0.2, 0.1), Ddelta(0.02, -0.01);
  s.v->nav_Dlogzoom = Dlog;
  s.v->nav_Ddelta = Ddelta;
  cd navzoom(1.25, 0), navdelta(0.1, 0.05);
  s.v->nav_zoom = navzoom;
  s.v->nav_delta = navdelta;

  OUT full = take(s, 2.01);
  unlocklist(s.context.get(), s.v);
  cd F = std::exp(Dlog);
  expectnear(full.zoom2, navzoom * F, 1e-12);
  expectnear(full.delta2, navdelta + Ddelta / navzoom, 1e-12);
  expectnear(full.zoom, navzoom * F, 1e-12);
  expectnear(full.delta, navdelta + Ddelta / navzoom, 1e-12);

  OUT half = take(s, 2.005);
  unlocklist(s.context.get(), s.v);
  cd E = std::exp(Dlog * 0.5);
  cd S = Ddelta * (E - 1.0) / (F - 1.0) * F / E;
  expectnear(half.zoom2, navzoom * E, 1e-12);
  expectnear(half.delta2, navdelta + S / navzoom, 1e-12);
  cd vz = cdHF(s.v->zoom);
  expectnear(half.zoomabs, vz * navzoom * E, 1e-12);
  expectnear(half.deltaabs, cd(-0.75, 0.125) + navdelta / (vz) + S / (vz * navzoom), 1e-12);
  // Halfway is neither nothing nor the full step.
  EXPECT_GT(std::abs(half.delta2 - navdelta), 1e-4);
  EXPECT_GT(std::abs(full.delta2 - half.delta2), 1e-4);
}

// A motion with almost no zoom: the closed form would divide by nearly
// zero; the shift grows in proportion to the time instead.
TEST(GetActiveList, NearlyNoZoomExtrapolatesTheShiftLinearly) {
  DISPLAYSCENE s;
  s.v->nav_interval = 0.01;
  s.v->nav_moving = true;
  s.v->nav_time = 5.0;
  cd Dlog(1e-9, -2e-9), Ddelta(0.03, 0.04);
  s.v->nav_Dlogzoom = Dlog;
  s.v->nav_Ddelta = Ddelta;
  for (double t : {0.0025, 0.005, 0.0075}) {
    OUT o = take(s, 5.0 + t);
    unlocklist(s.context.get(), s.v);
    cd E = std::exp(Dlog / 0.01 * t);
    cd S = Ddelta / 0.01 * t;
    expectnear(o.delta2, S, 1e-13);
    expectnear(o.zoom2, E, 1e-15);
    EXPECT_NE(o.zoom2, cd(1, 0));  // the zoom still follows E
  }
  // Both forms meet at the threshold: on either side of |E - 1| = 0.001 the
  // picture moves by nearly the same shift.
  auto shiftat = [&](double dlog) {
    s.v->nav_Dlogzoom = cd(dlog, 0);
    OUT o = take(s, 5.01);
    unlocklist(s.context.get(), s.v);
    return o.delta2;
  };
  cd below = shiftat(0.000999), above = shiftat(0.001001);
  expectnear(below, above, 1e-6);
}

TEST(GetActiveList, NoExtrapolationAtTimeZeroWhenNotMovingOrBeforeTheFirstTick) {
  DISPLAYSCENE s;
  s.v->nav_interval = 0.01;
  s.v->nav_Dlogzoom = cd(0.3, 0.1);
  s.v->nav_Ddelta = cd(0.05, 0.02);
  s.v->nav_moving = true;
  s.v->nav_time = 1.0;
  OUT moving = take(s, 1.004);
  unlocklist(s.context.get(), s.v);
  EXPECT_NE(moving.zoom2, cd(1, 0));  // the scene does extrapolate when all is set

  OUT attimezero = take(s, 0);
  unlocklist(s.context.get(), s.v);
  EXPECT_EQ(attimezero.zoom2, cd(1, 0));
  EXPECT_EQ(attimezero.delta2, cd(0, 0));

  s.v->nav_time = 0;
  OUT notick = take(s, 1.004);
  unlocklist(s.context.get(), s.v);
  EXPECT_EQ(notick.zoom2, cd(1, 0));
  EXPECT_EQ(notick.delta2, cd(0, 0));

  s.v->nav_time = 1.0;
  s.v->nav_moving = false;
  OUT still = take(s, 1.004);
  unlocklist(s.context.get(), s.v);
  EXPECT_EQ(still.zoom2, cd(1, 0));
  EXPECT_EQ(still.delta2, cd(0, 0));
}

// A zoom of 0 can't be inverted: the absolute shift stays where it was and
// finite, so the only infinity is the one its inverse makes downstream.
TEST(GetActiveList, ZeroZoomLeavesTheAbsoluteShiftFinite) {
  DISPLAYSCENE s;
  s.v->zoom = CZEROH;
  s.v->nav_interval = 0.01;
  s.v->nav_moving = true;
  s.v->nav_time = 1.0;
  s.v->nav_Dlogzoom = cd(0.1, 0);
  s.v->nav_Ddelta = cd(0.05, 0.02);
  s.v->nav_delta = cd(0.2, 0.1);
  OUT o = take(s, 1.005);
  unlocklist(s.context.get(), s.v);
  EXPECT_EQ(o.zoomabs, cd(0, 0));
  EXPECT_TRUE(std::isfinite(o.deltaabs.real()) && std::isfinite(o.deltaabs.imag()));
  expectnear(o.deltaabs, cd(-0.75, 0.125), 0);
  cd iz = 1.0 / o.zoomabs;
  EXPECT_FALSE(std::isfinite(std::abs(iz)));
  // The list's own map is untouched by the absolute zoom.
  EXPECT_TRUE(std::isfinite(std::abs(o.zoom)) && std::abs(o.zoom) > 0);
  EXPECT_TRUE(std::isfinite(std::abs(o.delta)));
}

// Marked points far below double's resolution at the centre's magnitude:
// only the exact difference to the centre gives their screen position.
TEST(GetActiveList, MarkedPointsAndSatellitesComeOnTheScreen) {
  DISPLAYSCENE s;
  cd vz(0, 1e30);
  s.v->zoom = cHFd(vz);
  cd offsets[2] = {cd(2e-31, -1e-31), cd(-5e-31, 3e-31)};
  for (int i = 0; i < 2; i++) {
    for (int k = 0; k < 2; k++) {
      mpf_set_prec(s.v->mp[2 * i + k], 256);
      mpf_set_d(s.v->mp[2 * i + k], k ? offsets[i].imag() : offsets[i].real());
      mpf_add(s.v->mp[2 * i + k], s.v->mp[2 * i + k], s.centre.v[k]);
    }
  }
  s.v->sat_infocopy.n = 2;
  s.v->sat_infocopy.sat[0].c = cHFd(cd(1e-31, 0));
  s.v->sat_infocopy.sat[1].c = cHFd(cd(0, -4e-31));
  cd c[2], csat[NSATINFO];
  int nsat = -1;
  OUT o = take(s, 0, c, 2, csat, &nsat);
  unlocklist(s.context.get(), s.v);
  ASSERT_EQ(o.list, 1);
  for (int i = 0; i < 2; i++) expectnear(c[i], offsets[i] * vz, 1e-12);
  EXPECT_EQ(nsat, 2);
  expectnear(csat[0], cd(1e-31, 0) * vz, 1e-12);
  expectnear(csat[1], cd(0, -4e-31) * vz, 1e-12);
}
