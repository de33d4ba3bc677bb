// Views next to the minibrot of period 32 about 7e-11 from i, of size about
// 5e-22, at places of its own frame (c' = lambda D (c - c0), where one
// period acts as w -> w^2 + c'): the whole minibrot, its seahorse and
// elephant valleys, the frame's i, and the frame's period-3 minibrot. There
// the pixels go round the period many times, and the tiles pass whole
// periods by the environment's series wherever its own terms allow, |w| and
// |c'| of 2 and more included. Every sampled count must still be GMP's, and
// the periods passed must be most of the work: the tiles iterate far fewer
// steps than their escaped pixels count. At depth 1,000, next to the
// minibrot of period 1330 about 1e-500 from i, a point goes round some 27
// periods and leaves in the 28th; there the runs along the period pass the
// stretch of that last period in which its difference is still small.
#include <gmp.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "minibrotframe.h"
#include "test_view_headless.h"

using namespace viewheadless;

namespace {

struct FRAMEPLACE {
  unsigned period;
  mp_bitcnt_t bits;
  const char *startre, *startim;
  const char* name;
  double re, im, span;
};

// Newton from i + 1e-10 (0.7 + 0.3 i) for period 32, from i + 1e-500
// (0.7 + 0.3 i) for period 1330.
#define P32 32, 512, "0.7e-10", "0.3e-10"
#define P1330 1330, 4800, "0.7e-500", "0.3e-500"

const FRAMEPLACE PLACES[] = {
    {P32, "WholeMinibrot", -0.5, 0.0, 3.0},
    {P32, "SeahorseValley", -0.75, 0.2, 0.5},
    {P32, "ElephantValley", 0.28, 0.008, 0.02},
    {P32, "FramesI", 0.0, 1.0, 0.05},
    {P32, "FramesPeriodThree", -1.7548776662, 0.0, 0.1},
    {P1330, "SeahorseValleyAtDepthAThousand", -0.75, 0.2, 0.5},
};

VIEWARGS viewat(const FRAMEPLACE& f) {
  minibrotframe::PLACE p = minibrotframe::place(f.period, f.bits, f.startre, f.startim, f.re, f.im,
                                                f.span, f.bits / 4);
  return placedargs(p.re, p.im, p.span);
}

struct WORK {
  long long iterations = 0;  // steps the view's tiles iterated
  long long counted = 0;     // the counts of their escaped texels, summed
  bool periodic = false;     // the deepest tile is over a periodic environment
};

WORK workof(RUN& r) {
  WORK w;
  onmain(r, [&](OVCONTEXT*) {
    VIEWPORT* v = r.run.viewport.load();
    int i = currentlist(v);
    int deepest = -1;
    for (int n = 0; n < v->iviewportarea[i]; n++) {
      const VIEWPORTAREA& va = v->viewportarea[i][n];
      if (va.priority <= 0 || va.priority == PRIO_KEEP) continue;
      const AREA* a = va.a;
      w.iterations += a->statiterations;
      if (a->depth > deepest) {
        deepest = a->depth;
        w.periodic = a->e && (a->e->flags & E_PERIODIC);
      }
      const TEXTURE* t = a->texture[3];
      if (!t || !t->pixels) continue;
      const float* p = static_cast<const float*>(t->pixels);
      for (int k = 0; k < TEXTURESIZE * TEXTURESIZE; k++)
        if (p[k] > 0) w.counted += static_cast<long long>(p[k]);
    }
  });
  return w;
}

class MinibrotJumps : public ::testing::TestWithParam<FRAMEPLACE> {};

TEST_P(MinibrotJumps, CountsAreGmpsAndMostPeriodsArePassed) {
  RUN r;
  ASSERT_TRUE(start(r, viewat(GetParam())));
  // The limit only guards against a hang: on two quiet cores the views take
  // a few seconds, the one at depth 1,000 twenty.
  ASSERT_TRUE(waitviewfinish(&r.run, 1, 600)) << "the view did not finish";
  checkfinished(r);
  WORK w = workof(r);
  const int n = GetParam().period > 100 ? 8 : 20;
  CHANNEL3 c = checkchannel3(r, n, 20000);
  stopviewrun(&r.run);
  endviewrun(&r.run);
  printf("  %lld iterations for escaped counts summing to %lld\n", w.iterations, w.counted);
  report(c);
  EXPECT_TRUE(w.periodic);
  EXPECT_GE(c.sampled, n * n * 9 / 10);
  EXPECT_GT(c.escaped, 0);
  checkexact(c);
  EXPECT_EQ(c.falseescape, 0);
  EXPECT_EQ(c.falseinterior, 0);
  EXPECT_EQ(c.misplaced, 0);
  // Stepping alone would take at least the escaped texels' counts.
  EXPECT_LT(w.iterations, w.counted / 4);
}

INSTANTIATE_TEST_SUITE_P(PeriodThirtyTwo, MinibrotJumps, ::testing::ValuesIn(PLACES),
                         [](const ::testing::TestParamInfo<FRAMEPLACE>& i) { return std::string(i.param.name); });

}  // namespace
