// A stack of hundreds of levels in a Julia cache of one block: tiles leave
// memory for the temporary file and come back to the byte, cheap tiles are
// left unmade, and every answer equals that of a cache with room for all.
#include "test_juliastack.h"

#include <map>
#include <vector>

using namespace jstacktest;

namespace {

const CD SEED(0.2605, 0.0012);
constexpr int TOP = 160;

uint64_t checksum(const PREPIXEL* data) {
  const unsigned char* b = reinterpret_cast<const unsigned char*>(data);
  uint64_t h = 1469598103934665603ull;
  for (size_t i = 0; i < NPREPIXEL * sizeof(PREPIXEL); i++) h = (h ^ b[i]) * 1099511628211ull;
  return h;
}

struct RUN {
  std::map<int, uint64_t> sums;  // level -> checksum of its tile
  int evicted = 0;               // tiles found out of memory before the read
  int absent = 0;                // levels whose cheap tile was never kept
  std::vector<PREPIXEL> answers;
  int ijuliacache = 0;
};

RUN buildstack(unsigned int nmemjuliacache) {
  RUN run;
  JENGINE j(8, SEED);
  j.onmain([&](OVCONTEXT* c) {
    c->nmemjuliacache = nmemjuliacache;
    // z_1 = c + delta^2, exact: every level from 1 down lands on level 2
    // or is clamped to the level above it.
    HFLOATCOMPLEX t[4] = {cHFd(complexd(SEED.real(), SEED.imag())), CZEROH, CONEH, CZEROH};
    j.anchor(c, 0);
    for (int s = 1; s <= TOP; s++) j.anchor(c, s, true, t, 1);
    adjustjuliastack(c, j.realm, TOP, false);
  });
  j.waitready(TOP);
  j.onmain([&](OVCONTEXT* c) {
    run.ijuliacache = j.realm->ijuliacache;
    for (int s = 0; s <= TOP; s++) {
      JULIACACHE* jc = j.realm->juliastack[s].c[0][0];
      if (!jc) {
        run.absent++;
        continue;
      }
      if (!jc->data) run.evicted++;
      if (!lockmemjuliacache(c, jc, JCLOCK_READ)) {
        ADD_FAILURE() << "level " << s << " cannot be read back";
        continue;
      }
      run.sums[s] = checksum(jc->data);
      unlockmemjuliacache(c, jc, 0);
    }
    // Points of the deepest levels followed through the stack.
    for (int s : {TOP, 120, 60, 3}) {
      for (int y = 1; y < 256; y += 5)
        for (int x = 2; x < 256; x += 5)
          run.answers.push_back(juliastacklookup(c, j.realm, s, static_cast<float>(placeof(x, 256)),
                                                 static_cast<float>(placeof(y, 256)), 0, TOP));
    }
  });
  return run;
}

}  // namespace

// One run each: room for every tile and mipmap (two blocks), one block,
// and a few slots; answers and tiles must not depend on the room.
TEST(JuliaStackCache, ManyLevelsInOneBlockSpillAndComeBackByteForByte) {
  RUN ample = buildstack(512);
  RUN block = buildstack(256);
  RUN tiny = buildstack(32);
  // With room for all, every level keeps its tile in memory.
  EXPECT_EQ(ample.absent, 0);
  EXPECT_EQ(ample.evicted, 0);
  EXPECT_EQ(static_cast<int>(ample.sums.size()), TOP + 1);
  // In one block the tiles fit but not beside the mipmaps: some go to the
  // file and are read back to the byte.
  EXPECT_EQ(block.absent, 0);
  EXPECT_GT(block.evicted, 0);
  EXPECT_EQ(block.sums, ample.sums);
  EXPECT_EQ(block.answers.size(), ample.answers.size());
  for (size_t k = 0; k < ample.answers.size(); k++) {
    ASSERT_EQ(block.answers[k].iter, ample.answers[k].iter) << k;
    ASSERT_EQ(block.answers[k].depth, ample.answers[k].depth) << k;
  }
  // In a few slots the stack stops keeping cheap tiles at the budget; the
  // tiles it keeps are the same, and a pixel of a tile not kept is made on
  // demand.
  EXPECT_GT(tiny.absent, 0);
  EXPECT_LE(tiny.ijuliacache, 32);
  EXPECT_GT(tiny.evicted, 0);
  for (const auto& [s, sum] : tiny.sums) {
    ASSERT_TRUE(ample.sums.count(s)) << s;
    EXPECT_EQ(sum, ample.sums[s]) << "level " << s;
  }
  ASSERT_EQ(tiny.answers.size(), ample.answers.size());
  int same = 0;
  for (size_t k = 0; k < ample.answers.size(); k++)
    if (std::abs(tiny.answers[k].iter - ample.answers[k].iter) <= 1 &&
        tiny.answers[k].depth == ample.answers[k].depth)
      same++;
  EXPECT_GE(same, static_cast<int>(ample.answers.size()) * 995 / 1000);
}
