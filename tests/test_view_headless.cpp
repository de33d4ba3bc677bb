// The general realm's view run headless from activation to its finishing
// event: at the view every new view starts with, and at a width of 1e-10.
#include "test_view_headless.h"

using namespace viewheadless;


TEST(ViewHeadless, TheStartViewCompletesCoversTheScreenAndMatchesGmp) {
  runandcheck(smallargs(), 24, 20000);
}

TEST(ViewHeadless, AViewOfWidth1e10CompletesCoversTheScreenAndMatchesGmp) {
  VIEWARGS a = smallargs();
  // A point whose orbit is periodic from its second step: the reference at
  // the centre never escapes, and the filaments around it do at every scale.
  a.positioned = true;
  a.re = "0";
  a.im = "1";
  a.span = "1e-10";
  a.angle = 30;
  runandcheck(a, 24, 20000);
}
