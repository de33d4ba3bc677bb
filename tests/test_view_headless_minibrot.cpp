// A view wholly inside a minibrot, next to the nucleus of the period-3
// component on the real axis, 3e-25 from it at a width of 1e-25. Its centre's
// orbit never escapes: nothing on the screen escapes, so no escape count
// bounds the interpolation. Such a view once never finished; later it
// finished over its centre's orbit with every pixel unknown, since only a
// periodic environment lets the canvases prove the interior. The idle search
// finds the nucleus, and the view is drawn over it.
#include "test_view_headless.h"
#include "viewinterior.h"

using namespace viewheadless;
using namespace viewinterior;

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
  // The limit only guards against a hang.
  int finishes = 0;
  ASSERT_TRUE(waitforperiod(r, 3, 300, &finishes)) << "after " << finishes << " finishing events";
  checkinterior(r, 3, 240L * 136 / 4);
  endviewrun(&r.run);
}
