// What an interior view shows, read from its published list: every texel
// of channel 3, and the period of the environment that serves the view.
#pragma once

#include <algorithm>
#include <chrono>
#include <complex>
#include <cstdio>
#include <string>
#include <vector>

#include "test_view_headless.h"

namespace viewinterior {

using viewheadless::RUN;
using viewheadless::onmain;

// Every texel of channel 3 in the published list whose centre is on the
// screen: how many there are, how many show the interior of `period` (the
// least period, as a negative count), and the first few that do not.
struct TEXELS {
  long total = 0;
  long ofperiod = 0;
  std::vector<std::string> other;
};

inline TEXELS publishedtexels(RUN& r, int period) {
  TEXELS t;
  onmain(r, [&](OVCONTEXT*) {
    VIEWPORT* v = r.run.viewport.load();
    for (const viewporttest::RECTCOPY& q : viewporttest::publishedlist(v))
      for (int k = 0; k < q.ichannels; k++) {
        if (q.channel[k] != 3 || !q.texture[k] || !q.texture[k]->pixels) continue;
        const float* px = static_cast<const float*>(q.texture[k]->pixels);
        for (int y = q.y0; y < q.y1; y++)
          for (int x = q.x0; x < q.x1; x++) {
            double fu = (x + 0.5 - q.x0) / (q.x1 - q.x0), fw = (y + 0.5 - q.y0) / (q.y1 - q.y0);
            std::complex<double> at = q.c[0] + fu * (q.c[1] - q.c[0]) + fw * (q.c[3] - q.c[0]);
            if (at.real() < v->z0.real() || at.real() > v->z1.real() || at.imag() < v->z0.imag() ||
                at.imag() > v->z1.imag())
              continue;
            float value = px[y * TEXTURESIZE + x];
            t.total++;
            if (value == static_cast<float>(-period))
              t.ofperiod++;
            else if (t.other.size() < 8)
              t.other.push_back("texel " + std::to_string(x) + "," + std::to_string(y) + " of depth " +
                                std::to_string(q.area[k]->depth) + ": " + std::to_string(value));
          }
      }
  });
  return t;
}

// The period of the view's serving environment, 0 without one.
inline int servingperiod(RUN& r) {
  int n = 0;
  onmain(r, [&](OVCONTEXT*) {
    VIEWPORT* v = r.run.viewport.load();
    if (v->esat && (v->esat->flags & E_PERIODIC)) n = static_cast<int>(v->esat->n);
  });
  return n;
}

// Waits for the view's first finishing event, then for each later one until
// an environment of `period` serves the view (each finish is a complete
// picture; one drawn before the atom served is followed by the redraw's).
// False once `guard` seconds have passed; `finishes` counts the events.
inline bool waitforperiod(RUN& r, int period, double guard, int* finishes) {
  auto begun = std::chrono::steady_clock::now();
  auto left = [&] {
    return guard - std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
  };
  *finishes = 0;
  if (!waitviewfinish(&r.run, 1, guard)) return false;
  *finishes = 1;
  while (servingperiod(r) != period && left() > 0) {
    if (!waitviewfinish(&r.run, *finishes + 1, std::max(left(), 1.0))) break;
    ++*finishes;
  }
  return servingperiod(r) == period;
}

// The complete view shows the interior of `period` everywhere: each sampled
// pixel, confirmed bounded by GMP, and every texel on the screen (more
// than `mintexels` of them).
inline void checkinterior(RUN& r, int period, long mintexels) {
  viewheadless::checkfinished(r);
  viewheadless::checkcoverage(r);
  viewheadless::CHANNEL3 c = viewheadless::checkchannel3(r, 8, 20000);
  viewheadless::report(c);
  EXPECT_GE(c.sampled, 8 * 8 * 9 / 10);
  EXPECT_EQ(c.interior, c.sampled);
  EXPECT_EQ(c.falseinterior, 0);
  EXPECT_EQ(c.misplaced, 0);
  TEXELS t = publishedtexels(r, period);
  printf("  %ld texels of channel 3, %ld interior of period %d\n", t.total, t.ofperiod, period);
  for (const std::string& o : t.other) printf("    %s\n", o.c_str());
  EXPECT_GT(t.total, mintexels);
  EXPECT_EQ(t.ofperiod, t.total);
}

}  // namespace viewinterior
