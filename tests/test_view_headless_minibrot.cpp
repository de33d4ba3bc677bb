// A view wholly inside a minibrot, next to the nucleus of the period-3
// component on the real axis. Its first reference is the view's centre, an
// orbit that never escapes and is not periodic: nothing on the screen
// escapes, so no escape count bounds the interpolation, and the corners'
// orbits outlive the reference's. Such a view once never finished.
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

}  // namespace

TEST(ViewHeadlessMinibrot, AViewInsideAMinibrotCompletesWithoutAnEscape) {
  RUN r;
  ASSERT_TRUE(start(r, insideargs()));
  // The limit only guards against a hang: the view takes about 11 s alone.
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
