// The general realm's view run headless at widths of 1e-100 and 1e-1000,
// where the areas compute in the wide-exponent format against a reference
// far longer than the double range allows to place.
#include "test_view_headless.h"

using namespace viewheadless;

namespace {

VIEWARGS deepargs(const char* span) {
  VIEWARGS a = smallargs();
  a.positioned = true;
  a.re = "0";
  a.im = "1";
  a.span = span;
  a.angle = -60;
  return a;
}

}  // namespace

TEST(ViewHeadlessDeep, AViewOfWidth1e100CompletesCoversTheScreenAndMatchesGmp) {
  runandcheck(deepargs("1e-100"), 16, 20000);
}

TEST(ViewHeadlessDeep, AViewOfWidth1e1000CompletesCoversTheScreenAndMatchesGmp) {
  runandcheck(deepargs("1e-1000"), 12, 20000);
}
