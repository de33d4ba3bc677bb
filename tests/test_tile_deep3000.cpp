// The general realm's tile at depth 3000, in long double, against plain mpf
// counts.
#include "test_tile_deep.h"

namespace {

TEST(TileDeep3000, CountsMatchPlainIteration) {
  deeptile::checkdeeptile({"i at 3000", 3000, "0", "1", 20000, 512, "longdouble"});
}

}  // namespace
