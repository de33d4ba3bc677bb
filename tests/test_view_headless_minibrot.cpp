// A view wholly inside a minibrot, next to the nucleus of the period-3
// component on the real axis, 3e-25 from it at a width of 1e-25. Its centre's
// orbit never escapes: nothing on the screen escapes, so no escape count
// bounds the interpolation. Such a view once never finished; later it
// finished over its centre's orbit with every pixel unknown, since only a
// periodic environment lets the canvases prove the interior. The idle search
// finds the nucleus, and the view is drawn over it.
#include <chrono>
#include <string>
#include <vector>

#include "test_view_headless.h"

using namespace viewheadless;

namespace {

VIEWARGS insideargs() {
  VIEWARGS a = smallargs();
  a.width = 240;
  a.height = 136;
  a.positioned = true;
  a.re = "-1.7548776662466927600495088963585286918946";
  a.im = "0.0000000000000000000000003";
  a.span = "1e-25";
  return a;
}

// Every texel of channel 3 in the published list: how many there are, how
// many show the interior of `period` (the least period, as a negative
// count), and the first few that do not.
struct TEXELS {
  long total = 0;
  long ofperiod = 0;
  std::vector<std::string> other;
};

TEXELS publishedtexels(RUN& r, int period) {
  TEXELS t;
  onmain(r, [&](OVCONTEXT*) {
    VIEWPORT* v = r.run.viewport.load();
    for (const viewporttest::RECTCOPY& q : viewporttest::publishedlist(v))
      for (int k = 0; k < q.ichannels; k++) {
        if (q.channel[k] != 3 || !q.texture[k] || !q.texture[k]->pixels) continue;
        const float* px = static_cast<const float*>(q.texture[k]->pixels);
        for (int y = q.y0; y < q.y1; y++)
          for (int x = q.x0; x < q.x1; x++) {
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
int servingperiod(RUN& r) {
  int n = 0;
  onmain(r, [&](OVCONTEXT*) {
    VIEWPORT* v = r.run.viewport.load();
    if (v->esat && (v->esat->flags & E_PERIODIC)) n = static_cast<int>(v->esat->n);
  });
  return n;
}

}  // namespace

TEST(ViewHeadlessMinibrot, AViewInsideAMinibrotCompletesWithoutAnEscape) {
  RUN r;
  ASSERT_TRUE(start(r, insideargs()));
  // The limit only guards against a hang: the view takes about a second.
  ASSERT_TRUE(waitviewfinish(&r.run, 1, 500));
  checkfinished(r);
  checkcoverage(r);
  CHANNEL3 c = checkchannel3(r, 8, 20000);
  report(c);
  EXPECT_GE(c.sampled, 8 * 8 * 9 / 10);
  EXPECT_EQ(c.escaped, 0);
  EXPECT_EQ(c.falseescape, 0);
  EXPECT_EQ(c.falseinterior, 0);
  EXPECT_EQ(c.misplaced, 0);
  EXPECT_EQ(c.zeroleaving, 0);
  endviewrun(&r.run);
}

// The idle search finds the period-3 nucleus; the view is drawn over it
// (at once, when the view's first run finds it, or in a redraw after a later
// run), and then every pixel it shows is interior with period 3, each
// sampled one confirmed by GMP.
TEST(ViewHeadlessMinibrot, AViewInsideAMinibrotShowsTheInteriorOfItsPeriod) {
  RUN r;
  ASSERT_TRUE(start(r, insideargs()));
  // The limits only guard against a hang.
  constexpr double GUARD = 300;
  ASSERT_TRUE(waitviewfinish(&r.run, 1, GUARD));
  auto begun = std::chrono::steady_clock::now();
  auto left = [&] {
    return GUARD - std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
  };
  int finishes = 1;
  // Each finish is a complete picture; one drawn before the nucleus served
  // is followed by the redraw's.
  while (servingperiod(r) != 3 && left() > 0) {
    if (!waitviewfinish(&r.run, finishes + 1, std::max(left(), 1.0))) break;
    finishes++;
  }
  ASSERT_EQ(servingperiod(r), 3) << "after " << finishes << " finishing events";
  checkfinished(r);
  checkcoverage(r);
  CHANNEL3 c = checkchannel3(r, 8, 20000);
  report(c);
  EXPECT_GE(c.sampled, 8 * 8 * 9 / 10);
  EXPECT_EQ(c.interior, c.sampled);
  EXPECT_EQ(c.falseinterior, 0);
  EXPECT_EQ(c.misplaced, 0);
  TEXELS t = publishedtexels(r, 3);
  printf("  %ld texels of channel 3, %ld interior of period 3\n", t.total, t.ofperiod);
  for (const std::string& o : t.other) printf("    %s\n", o.c_str());
  EXPECT_GT(t.total, 240L * 136);
  EXPECT_EQ(t.ofperiod, t.total);
  endviewrun(&r.run);
}
