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

// Deep inside the minibrot of period 998 in the seahorse valley: its
// environment carries a series, so the canvases test their corners through
// the environment's period map. Before they did, the inside was unknown and
// the interpolation ran on with nothing to stop it.
constexpr const char* P998RE = "-0.7436438870371588707780645434936425750476";
constexpr const char* P998IM = "0.131825904205312292821097354874767265263";

TEST(ViewHeadlessAtoms, ADeepViewInsideTheMinibrotOfPeriod998ShowsItsPeriod) {
  showsinterior(inside(P998RE, P998IM, "1e-18"), 998);
}

// The whole minibrot on the screen, with its satellites: every pixel it
// calls inside stays bounded in GMP, every count it gives is GMP's, and few
// pixels are left without either. Its counts were once one period too high:
// the view's point jumps whole periods, and its canvases started every
// pixel from a cubic of the state after the jump that had never been made.
TEST(ViewHeadlessAtoms, TheMinibrotOfPeriod998WithItsEdgeMatchesGmp) {
  RUN r;
  ASSERT_TRUE(start(r, inside(P998RE, P998IM, "1e-15")));
  int finishes = 0;
  ASSERT_TRUE(waitforperiod(r, 998, 300, &finishes)) << "after " << finishes << " finishing events";
  checkfinished(r);
  checkcoverage(r);
  CHANNEL3 c = checkchannel3(r, 10, 60000);
  report(c);
  for (size_t k = 0; k < c.bad.size() && k < 4; k++) printf("    %s\n", c.bad[k].c_str());
  EXPECT_GE(c.sampled, 90);
  EXPECT_GT(c.interior, c.sampled / 4);
  EXPECT_GT(c.escaped, c.sampled / 10);
  EXPECT_EQ(c.falseinterior, 0);
  EXPECT_EQ(c.falseescape, 0);
  EXPECT_EQ(c.misplaced, 0);
  checkexact(c);
  EXPECT_LE(c.zero - c.zeroleaving, c.sampled / 20);
  endviewrun(&r.run);
}

// The bulb of period 21 on the main cardioid (at the angle 2 pi / 21), about
// 3e-4 across, at its scale and far below it. The period tests of the
// canvases run at each vertex's own point, whichever environment serves the
// view: the picture shows the bulb's period once the view has finished.
constexpr const char* BULB21RE = "0.27131348606189515";
constexpr const char* BULB21IM = "0.006367378915966104";

void finishesinterior(const VIEWARGS& a, int period) {
  RUN r;
  ASSERT_TRUE(start(r, a));
  ASSERT_TRUE(waitviewfinish(&r.run, 1, 300));
  printf("  served by an environment of period %d\n", servingperiod(r));
  checkinterior(r, period, 240L * 136 / 4);
  endviewrun(&r.run);
}

TEST(ViewHeadlessAtoms, AViewInsideTheBulbOfPeriod21ShowsItsPeriod) {
  finishesinterior(inside(BULB21RE, BULB21IM, "2e-5"), 21);
}

TEST(ViewHeadlessAtoms, ADeepViewInsideTheBulbOfPeriod21ShowsItsPeriod) {
  finishesinterior(inside(BULB21RE, BULB21IM, "1e-25"), 21);
}
