// A general-realm tile that lies wholly inside a minibrot, over a reference
// that is not periodic: nothing on it ever escapes, so no count bounds the
// interpolation, and the corners' orbits outlive the reference's. Such a
// tile once never finished with interpolation on. It must finish, give the
// counts of the run without interpolation, and never show an escape.
#include <gtest/gtest.h>

#include <string>

#include "area.h"
#include "tilejob.h"

namespace {

// The nucleus of the period-3 component on the real axis ("the airship"),
// with the tile a little above it: every pixel is within 1e-24 of the
// centre, deep inside the component.
constexpr const char* NUCLEUSRE = "-1.7548776662466927600495088963585286918946";
constexpr const char* POINTIM = "0.0000000000000000000000003";

TILERESULT inside(unsigned int flags, long limit) {
  TILEARGS a;
  a.depth = 83;
  a.re = NUCLEUSRE;
  a.im = POINTIM;
  a.general = true;
  a.channels = 8;
  a.out = "unused";
  a.hasflags = true;
  a.flags = flags;
  a.referencelimit = limit;
  TILERESULT r;
  std::string error;
  EXPECT_TRUE(computetile(a, &r, &error)) << error;
  return r;
}

void checkinside(long limit) {
  const unsigned int plainflags = R_DEFAULT & ~(R_INTERPOL | R_SUPERINTERPOL);
  TILERESULT plain = inside(plainflags, limit);
  TILERESULT interpolated = inside(R_DEFAULT, limit);
  ASSERT_EQ(plain.channel[3].size(), 65536u);
  ASSERT_EQ(interpolated.channel[3].size(), 65536u);
  EXPECT_EQ(plain.format, "double");
  EXPECT_EQ(interpolated.escaped, 0);
  EXPECT_EQ(plain.escaped, 0);
  int differ = 0, notperiod3 = 0;
  for (size_t k = 0; k < 65536; k++) {
    float a = interpolated.channel[3][k], b = plain.channel[3][k];
    if (a != b) differ++;
    // An interior pixel carries its period as a negative count.
    if (a < 0 && static_cast<long>(-a) % 3 != 0) notperiod3++;
  }
  EXPECT_EQ(differ, 0);
  EXPECT_EQ(notperiod3, 0);
  // Bounded by the reference's length, interpolation costs no more than a
  // few corners run past the orbit's end; unbounded it ran for hours.
  EXPECT_LT(interpolated.iterations, 4 * plain.iterations + 64 * limit)
      << interpolated.iterations << " against " << plain.iterations;
  ::testing::Test::RecordProperty("iterations_interpolated", std::to_string(interpolated.iterations));
  ::testing::Test::RecordProperty("iterations_plain", std::to_string(plain.iterations));
}

TEST(TileMinibrotInterior, FinishesWithInterpolationOverAShortReference) { checkinside(20000); }

TEST(TileMinibrotInterior, FinishesWithInterpolationOverTheToolsReference) { checkinside(100000); }

}  // namespace
