// General-realm tiles around a minibrot of period 107 at depth about 265,
// next to c = i: the pixels' orbits come back near 0 every 107 iterations,
// where the difference to the reference orbit is far larger than z itself
// and loses the pixel's precision. The precision test must catch that and a
// reference of the canvas take over, in the finite pass as much as in the
// first one; a pixel inside the minibrot must never get an escape count.
#include "Mandelbrot.h"
#include "canvas/kernelsupport.h"
#include "test_tile_deep.h"

namespace {

// The nucleus of the period-107 component, from Newton at 700 bits.
constexpr const char* NUCLEUSRE =
    "0.0000000000000000000000000000000000000007662152187612233298944653160079554680485275858964886"
    "6539814761122518085010471182625767209978066676748413353946659737925252341681552168097282763201"
    "305511863149973215843388785712";
constexpr const char* NUCLEUSIM =
    "1.0000000000000000000000000000000000000003759662335232353407824070973796581837705336186929111"
    "1054644035052504264774773122605725668118312447680846525846834750104257456441584088598645051873"
    "829525218546972573501084339000";

TEST(TileDeepGlitch, MinibrotAt262) {
  deeptile::checkdeeptile({"minibrot at 262", 262, NUCLEUSRE, NUCLEUSIM, 20000, 512, "double"});
}

TEST(TileDeepGlitch, MinibrotAt266) {
  canvaskernels::ORBITTALLY& t = canvaskernels::orbittally();
  t.clear();
  deeptile::checkdeeptile({"minibrot at 266", 266, NUCLEUSRE, NUCLEUSIM, 20000, 512, "double"});
  // Vertices that outlive the orbit of the vertex they follow become
  // references where it ends; few go on absolutely (158 did before that
  // rule, 35 after, none since cells whose corners all escape in one stride
  // fill their inside from an earlier stop).
  EXPECT_LT(t.endedabsolute, 80);
}

// The reference at the tile's centre rather than inside the minibrot.
TEST(TileDeepGlitch, MinibrotAt266FromTheCentre) {
  deeptile::checkdeeptile({"minibrot at 266, centre", 266, NUCLEUSRE, NUCLEUSIM, 20000, 512, "double"},
                          true);
}

}  // namespace
