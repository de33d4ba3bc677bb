// The general realm's tiles from depth 60 to 1000 against plain mpf counts,
// and the reference orbit the tool stores in a standard environment.
#include "test_tile_deep.h"

#include <cstdlib>

#include "Mandelbrot.h"
#include "envhp.h"
#include "enginefixture.h"
#include "tileenv.h"

using deeptile::checkdeeptile;
using deeptile::DEEPCASE;

namespace {

// Tiles next to two Misiurewicz points, where the boundary is dense at every
// depth and the counts grow with it: c = i (the orbit lands on a repelling
// 2-cycle) and c = -2 (on the repelling fixed point 2). The tile of the
// point has the point on its lower-left corner at these depths.
const DEEPCASE CASES[] = {
    {"i at 60", 60, "0", "1", 20000, 1024, "double"},
    {"i at 200", 200, "0", "1", 20000, 1024, "double"},
    {"-2 at 499", 499, "-2", "0", 20000, 1024, "double"},
    {"-2 at 500", 500, "-2", "0", 20000, 1024, "longdouble"},
    {"i at 1000", 1000, "0", "1", 20000, 512, "longdouble"},
};

TEST(TileDeep, CountsMatchPlainIteration) {
  for (const DEEPCASE& c : CASES) checkdeeptile(c);
}

// The reference at the tile's centre instead of the longest-lived candidate
// gives the same counts where the boundary has no minibrot to trip over.
TEST(TileDeep, CentreReferenceMatchesToo) { checkdeeptile(CASES[4], true); }

TEST(TileDeep, JsonNamesTheReferenceTime) {
  TILEARGS a = deeptile::deepargs(CASES[0]);
  TILERESULT r;
  r.format = "double";
  r.ms = 1.5;
  r.referencems = 2.25;
  std::string j = tilejson(a, r);
  EXPECT_NE(j.find("\"ms\":1.500,\"reference_ms\":2.250,\"vertices_iterated\""), std::string::npos) << j;
  a.general = false;
  EXPECT_EQ(tilejson(a, r).find("reference_ms"), std::string::npos);
}

// ---------------------------------------------------------------- the reference orbit

// z_k of c by plain mpf at `bits`, in the graph's order of operations.
struct PLAIN {
  mpf_t x, y, xx, yy, t;
  explicit PLAIN(mp_bitcnt_t bits) {
    for (mpf_ptr v : {x, y, xx, yy, t}) mpf_init2(v, bits);
  }
  ~PLAIN() {
    for (mpf_ptr v : {x, y, xx, yy, t}) mpf_clear(v);
  }
  void step(mpf_srcptr cx, mpf_srcptr cy) {
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_mul(t, x, y);
    mpf_mul_2exp(t, t, 1);
    mpf_sub(x, xx, yy);
    mpf_add(x, x, cx);
    mpf_add(y, t, cy);
  }
  // |z|^2 of the present point.
  void length(mpf_ptr out) {
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_add(out, xx, yy);
  }
};

struct RUN {
  enginetest::Engine engine{4};
  REALM realm{};
  REFERENCERUN run;
  mpf_t point[2];
  mp_bitcnt_t bits;
  RUN(const char* re, const char* im, int depth, long limit) : bits(referenceprecision(depth)) {
    realm.flags = R_DEFAULT;
    mpf_init2(point[0], bits);
    mpf_init2(point[1], bits);
    mpf_set_str(point[0], re, 10);
    mpf_set_str(point[1], im, 10);
    engine.onmain([&](OVCONTEXT* c) { EXPECT_TRUE(startreference(c, &realm, point, bits, limit, &run)); });
    enginetest::waitfor([&] { return run.done.load(); });
    engine.waitidle();
  }
  ~RUN() {
    engine.onmain([&](OVCONTEXT* c) { detache(c, run.e); });
    mpf_clear(point[0]);
    mpf_clear(point[1]);
  }
};

// Every stored sample is z_k of the point, with its margin 4 - |z_k|^2, in
// both arrays; `count` samples from 0.
void expectorbit(const RUN& r, long count) {
  const ENVIRONMENT* e = r.run.e;
  PLAIN p(r.bits);
  mpf_t len, a;
  mpf_init2(len, r.bits);
  mpf_init2(a, r.bits);
  long mismatches = 0;
  for (long k = 0; k < count; k++) {
    if (k) p.step(r.point[0], r.point[1]);
    p.length(len);
    mpf_ui_sub(a, 4, len);
    HFLOATCOMPLEX z = cHF(mpf_get_HF(p.x), mpf_get_HF(p.y));
    const REFDATAH& h = e->refdatah[k];
    bool same = h.value.mantissax == z.mantissax && h.value.mantissay == z.mantissay &&
                h.value.exponent == z.exponent && h.a.mantissa == mpf_get_HF(a).mantissa &&
                e->refdatad[k].value == cdHF(z) && e->refdatad[k].a == dHF(mpf_get_HF(a));
    if (!same && mismatches++ == 0) ADD_FAILURE() << "sample " << k << " differs";
  }
  EXPECT_EQ(mismatches, 0);
  mpf_clear(len);
  mpf_clear(a);
}

TEST(TileDeepReference, PrecisionRoundsUpPastTheNextMultipleOf32) {
  EXPECT_EQ(referenceprecision(0), 96u);
  EXPECT_EQ(referenceprecision(31), 96u);
  EXPECT_EQ(referenceprecision(32), 128u);
  EXPECT_EQ(referenceprecision(8000), 8096u);
}

// A point of the main cardioid stays inside: the orbit fills the limit, and
// the checkpoint at 65536 holds z there at full precision.
TEST(TileDeepReference, BoundedOrbitFillsTheLimitWithACheckpoint) {
  const long limit = 70000;
  RUN r("-0.1015625", "0.0986328125", 100, limit);
  ASSERT_TRUE(r.run.ok);
  const ENVIRONMENT* e = r.run.e;
  EXPECT_EQ(e->n, static_cast<UITER>(limit));
  EXPECT_EQ(e->nrefdata, limit + 1);
  EXPECT_EQ(e->flags, 0u);
  EXPECT_EQ(e->precision, r.bits);
  EXPECT_EQ(e->computergroup.ncomputer, 0);  // the graph is given back
  EXPECT_EQ(mpf_cmp(e->c->v[0], r.point[0]), 0);
  EXPECT_EQ(e->cf.mantissax, cHF(mpf_get_HF(r.point[0]), mpf_get_HF(r.point[1])).mantissax);
  expectorbit(r, limit + 1);
  ASSERT_EQ(e->nhpv, 1);
  PLAIN p(r.bits);
  for (long k = 0; k < 65536; k++) p.step(r.point[0], r.point[1]);
  EXPECT_EQ(mpf_cmp(e->hpv[0]->v[0], p.x), 0);
  EXPECT_EQ(mpf_cmp(e->hpv[0]->v[1], p.y), 0);
  // The engine's own walk from the checkpoint agrees.
  mpf_t v[2];
  mpf_init2(v[0], r.bits);
  mpf_init2(v[1], r.bits);
  for (long k = 65536; k < 65536 + 7; k++) p.step(r.point[0], r.point[1]);
  ASSERT_TRUE(getenvironmenthpvalueraw(e, 65536 + 7, v[0]));
  // It rounds in an order of its own: equal to within the last bits.
  for (int k = 0; k < 2; k++) {
    mpf_sub(v[k], v[k], k ? p.y : p.x);
    mpf_abs(v[k], v[k]);
    mpf_mul_2exp(v[k], v[k], r.bits - 16);
    EXPECT_LT(mpf_cmp_ui(v[k], 1), 0) << "part " << k;
  }
  mpf_clear(v[0]);
  mpf_clear(v[1]);
  EXPECT_EQ(r.engine.context->mem_envrefdata, (limit + 1) * 64);
}

// An escaping point: samples run while |z|^2 < 5, past the escape radius,
// and the environment says it escaped.
TEST(TileDeepReference, EscapingOrbitEndsPastTheRadius) {
  RUN r("0.2578125", "0", 60, 100000);
  ASSERT_TRUE(r.run.ok);
  const ENVIRONMENT* e = r.run.e;
  EXPECT_EQ(e->flags, E_ESCAPED);
  PLAIN p(r.bits);
  mpf_t len;
  mpf_init2(len, r.bits);
  long last = -1;
  for (long k = 0; k < 100000; k++) {
    if (k) p.step(r.point[0], r.point[1]);
    p.length(len);
    if (mpf_cmp_ui(len, 5) >= 0) break;
    last = k;
  }
  mpf_clear(len);
  ASSERT_GT(last, 20);
  EXPECT_EQ(e->n, static_cast<UITER>(last));
  EXPECT_EQ(e->nrefdata, last + 1);
  EXPECT_EQ(e->nhpv, 0);
  expectorbit(r, last + 1);
}

}  // namespace
