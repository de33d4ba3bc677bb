// The first HFLOAT tile of the general realm, depth 8000, against plain mpf
// counts: the wide format reads the environment's HFLOAT orbit. The tile is
// computed once for the suite; the second test reads what it cost in orbits
// at full precision.
#include "Mandelbrot.h"
#include "canvas/kernelsupport.h"
#include "test_tile_deep.h"

namespace {

const deeptile::DEEPCASE MINUS2 = {"-2 at 8000", 8000, "-2", "0", 20000, 256, "hfloat"};

struct COMPUTED {
  bool ok = false;
  std::string error;
  TILERESULT result;
  long made = 0, nocheckpoint = 0, shared = 0, restarted = 0, hpiterations = 0;
};

const COMPUTED& computed() {
  static const COMPUTED c = [] {
    COMPUTED out;
    canvaskernels::ORBITTALLY& t = canvaskernels::orbittally();
    t.clear();
    out.ok = computetile(deeptile::deepargs(MINUS2), &out.result, &out.error);
    out.made = t.made;
    out.nocheckpoint = t.nocheckpoint;
    out.shared = t.shared;
    out.restarted = t.restarted;
    out.hpiterations = t.hpiterations;
    return out;
  }();
  return c;
}

TEST(TileDeep8000, CountsMatchPlainIteration) {
  const COMPUTED& c = computed();
  ASSERT_TRUE(c.ok) << c.error;
  deeptile::checkdeepresult(MINUS2, c.result);
}

// Next to -2 about a tenth of the vertices outlive the environment's orbit
// by a few iterations. Each becomes a reference where that orbit ends; none
// may go back to z = 0, which costs some 4,000 iterations at 8,000 bits per
// vertex (thousands of them made the tile take minutes).
TEST(TileDeep8000, VerticesOutlivingTheEnvironmentStartNoOrbitFromZero) {
  const COMPUTED& c = computed();
  ASSERT_TRUE(c.ok) << c.error;
  EXPECT_GT(c.made, 1000) << "vertices that became references";
  EXPECT_EQ(c.nocheckpoint, 0);
  EXPECT_LE(c.restarted + c.shared, 16) << c.restarted << " own orbits and " << c.shared
                                        << " shared ones from z = 0";
  // One run of the environment to its end, then a few steps per reference.
  EXPECT_LT(c.hpiterations, 20 * 4096 + 8 * c.made) << c.hpiterations;
}

}  // namespace
