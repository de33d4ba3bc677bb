// The first HFLOAT tile of the general realm, depth 8000, against plain mpf
// counts: the wide format reads the environment's HFLOAT orbit.
#include "test_tile_deep.h"

namespace {

TEST(TileDeep8000, CountsMatchPlainIteration) {
  deeptile::checkdeeptile({"-2 at 8000", 8000, "-2", "0", 20000, 256, "hfloat"});
}

}  // namespace
