// A general-realm tile made with Julia correction on while no stack level
// is ready: nothing can be corrected, so the tile is the plain one, at the
// plain one's cost (equal cells closed, not every vertex iterated).
#include <gtest/gtest.h>

#include "area.h"
#include "tilejob.h"

namespace {

TILERESULT generaltile(unsigned int flags) {
  TILEARGS a;
  a.depth = 60;
  a.re = "0";
  a.im = "1";
  a.general = true;
  a.channels = 8;
  a.out = "unused";
  a.referencelimit = 20000;
  a.hasflags = true;
  a.flags = flags;
  TILERESULT r;
  std::string error;
  EXPECT_TRUE(computetile(a, &r, &error)) << error;
  return r;
}

TEST(TileJuliaCorrect, WithoutAReadyStackTheTileIsThePlainOneAtItsCost) {
  TILERESULT plain = generaltile(0);
  TILERESULT corrected = generaltile(R_JULIACORRECT);
  ASSERT_EQ(plain.channel[3].size(), 65536u);
  ASSERT_EQ(corrected.channel[3].size(), 65536u);
  EXPECT_EQ(plain.channel[3], corrected.channel[3]);
  // The plain tile closes its cells of one count; so must this one.
  EXPECT_LT(plain.verticesiterated, 66049 / 2);
  EXPECT_EQ(corrected.verticesiterated, plain.verticesiterated);
  EXPECT_EQ(corrected.iterations, plain.iterations);
}

}  // namespace
