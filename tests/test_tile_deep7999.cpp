// The deepest long double tile of the general realm, depth 7999, against
// plain mpf counts. Next to -2, where an iteration gains two bits, the counts
// stay near 4000.
#include "test_tile_deep.h"

namespace {

TEST(TileDeep7999, CountsMatchPlainIteration) {
  deeptile::checkdeeptile({"-2 at 7999", 7999, "-2", "0", 20000, 256, "longdouble"});
}

}  // namespace
