// The deepest long double tile of the general realm, depth 7999, against
// plain mpf counts. Next to -2, where an iteration gains two bits, the counts
// stay near 4000.
#include "test_tile_deep.h"

namespace {

// Open defect: at depth 7,999 (long double canvas) most sampled pixels end
// unknown; the long double road reads the environment's orbit from the double
// array and fails its precision test. Depth 8,000 (HFLOAT) passes.
TEST(TileDeep7999, DISABLED_CountsMatchPlainIteration) {
  deeptile::checkdeeptile({"-2 at 7999", 7999, "-2", "0", 20000, 256, "longdouble"});
}

}  // namespace
