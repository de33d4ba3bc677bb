// Views wholly inside a component of the set, at the scale of the component
// and far below it: each is drawn over the nucleus of its component, and
// every pixel shows the interior of its period. A shallow view inside the
// period-2 disc is served by its nucleus through the series test; the deep
// ones by the atom that holds them, far too wide for its series.
#include <string>

#include "test_view_headless.h"
#include "viewinterior.h"

using namespace viewheadless;
using namespace viewinterior;

namespace {

VIEWARGS inside(const char* re, const char* im, const char* span) {
  VIEWARGS a = smallargs();
  a.width = 240;
  a.height = 136;
  a.positioned = true;
  a.re = re;
  a.im = im;
  a.span = span;
  return a;
}

// The limits only guard against a hang: each view takes about a second.
void showsinterior(const VIEWARGS& a, int period) {
  RUN r;
  ASSERT_TRUE(start(r, a));
  int finishes = 0;
  ASSERT_TRUE(waitforperiod(r, period, 300, &finishes)) << "after " << finishes << " finishing events";
  checkinterior(r, period, 240L * 136 / 4);
  endviewrun(&r.run);
}

}  // namespace

// The period tests of its canvases run at each vertex's own point: the view
// keeps its origin relative to the nucleus -1, where the period is 1.
TEST(ViewHeadlessAtoms, AShallowViewInsideThePeriodTwoDiscShowsPeriodTwo) {
  showsinterior(inside("-1.02", "0.03", "0.05"), 2);
}

TEST(ViewHeadlessAtoms, ADeepViewInsideTheMainCardioidShowsPeriodOne) {
  showsinterior(inside("-0.5", "0.1", "1e-25"), 1);
}

TEST(ViewHeadlessAtoms, ADeepViewInsideThePeriodTwoDiscShowsPeriodTwo) {
  showsinterior(inside("-1", "0.001", "1e-25"), 2);
}

// The rabbit's component, off the real axis.
TEST(ViewHeadlessAtoms, ADeepViewInsideTheRabbitsComponentShowsPeriodThree) {
  showsinterior(inside("-0.1225611668766536", "0.744861766619744", "1e-25"), 3);
}
