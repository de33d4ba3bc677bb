// The canvas records in four number formats: flag values and table bounds,
// element types, field order, the shared layout of the members every format
// has in common, and the buffer's life outside jobs with its mpf storage.
#include <gmp.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "Mandelbrot.h"
#include "canvas.h"

namespace {

template <size_t N>
constexpr bool increasing(const size_t (&offsets)[N]) {
  for (size_t i = 1; i < N; i++)
    if (offsets[i] <= offsets[i - 1]) return false;
  return true;
}

template <typename T>
constexpr bool layoutrecord = std::is_standard_layout_v<T> && std::is_trivially_copyable_v<T> &&
                              std::is_trivially_destructible_v<T> && !std::is_polymorphic_v<T>;

// ---------------------------------------------------------------- format table

template <typename T, typename F, typename C, unsigned int M>
struct FORMATCASE {
  typedef T TEMPLATE;
  typedef F EXPECTFLOAT;
  typedef C EXPECTCOMPLEX;
  static constexpr unsigned int EXPECTMODE = M;
};

template <typename T>
class CanvasFormat : public ::testing::Test {};

typedef ::testing::Types<FORMATCASE<CANVASTEMPLATE_float, float, complexf, R_PRECFLOAT>,
                         FORMATCASE<CANVASTEMPLATE_double, double, complexd, R_PRECDOUBLE>,
                         FORMATCASE<CANVASTEMPLATE_longdouble, long double, complexld,
                                    R_PRECLONGDOUBLE>,
                         FORMATCASE<CANVASTEMPLATE_hfloat, HFLOAT, HFLOATCOMPLEX, R_PRECHFLOAT>>
    FORMATS;

class FormatNames {
 public:
  template <typename T>
  static std::string GetName(int i) {
    static const char* const names[] = {"float", "double", "longdouble", "hfloat"};
    return names[i];
  }
};

TYPED_TEST_SUITE(CanvasFormat, FORMATS, FormatNames);

// ---------------------------------------------------------------- GMP accounting
//
// Counts the blocks GMP holds, so that a test sees a leak itself rather than
// leaving it to the leak checker at exit.

struct GMPCOUNT {
  long blocks;
  long long bytes;
};
GMPCOUNT gmpcount;

void* (*gmpalloc0)(size_t);
void* (*gmprealloc0)(void*, size_t, size_t);
void (*gmpfree0)(void*, size_t);

void* countalloc(size_t n) {
  gmpcount.blocks++;
  gmpcount.bytes += static_cast<long long>(n);
  return gmpalloc0(n);
}

void* countrealloc(void* p, size_t oldn, size_t newn) {
  gmpcount.bytes += static_cast<long long>(newn) - static_cast<long long>(oldn);
  return gmprealloc0(p, oldn, newn);
}

void countfree(void* p, size_t n) {
  gmpcount.blocks--;
  gmpcount.bytes -= static_cast<long long>(n);
  gmpfree0(p, n);
}

class CanvasPool : public ::testing::Test {
 protected:
  void SetUp() override {
    mp_get_memory_functions(&gmpalloc0, &gmprealloc0, &gmpfree0);
    mp_set_memory_functions(countalloc, countrealloc, countfree);
    gmpcount = GMPCOUNT{0, 0};
    canvas = static_cast<CANVAS0*>(calloc(1, sizeof(CANVAS0)));
    ASSERT_NE(canvas, nullptr);
  }
  void TearDown() override {
    free(canvas);
    mp_set_memory_functions(gmpalloc0, gmprealloc0, gmpfree0);
  }

  // What every mpf member looks like after preinitcanvas.
  static void expectscratch(CANVAS0* canvas) {
    mpf_srcptr scratch[] = {canvas->c[0],  canvas->c[1], canvas->dummyvalue, canvas->dummysmall,
                            canvas->x1s,   canvas->y1s,  canvas->x,          canvas->y};
    for (mpf_srcptr v : scratch) {
      EXPECT_GE(mpf_get_prec(v), 64u);
      EXPECT_EQ(mpf_sgn(v), 0);
    }
  }

  CANVAS0* canvas = nullptr;
  OVCONTEXT* const context = nullptr;  // neither step reads the context
};

}  // namespace

// ---------------------------------------------------------------- constants

TEST(CanvasModel, Sizes) {
  EXPECT_EQ(CANVASSIZESHIFTMAX, 8);
  EXPECT_EQ(CANVASSIZE, 257);
  EXPECT_EQ(NCVERTEX, 66049);
  EXPECT_EQ(NCANVASLEVEL, 9);
  EXPECT_EQ(NVXWAKE, 3);
  EXPECT_EQ(NPDATA, 4);
  EXPECT_EQ(CDATAGRAN, 64);
  EXPECT_EQ(NCDATA, 32768);
  EXPECT_EQ(NCHPVALUE, 16384);
}

TEST(CanvasModel, ValueFlags) {
  EXPECT_EQ(CV_RELATIVE, 1u);
  EXPECT_EQ(CV_ABSOLUTE, 2u);
  EXPECT_EQ(CV_ESCAPED, 4u);
  EXPECT_EQ(CV_FAILED, 8u);
  EXPECT_EQ(CV_REFERENCE, 16u);
  EXPECT_EQ(CV_INFTY, 32u);
  // What every kernel stores on escape.
  EXPECT_EQ(CV_ABSOLUTE | CV_ESCAPED, 6u);
}

TEST(CanvasModel, VertexFlags) {
  EXPECT_EQ(VX_INTREE, 0x1u);
  EXPECT_EQ(VX_NOINTERPOL, 0x2u);
  EXPECT_EQ(VX_INFAILURE, 0x4u);
  EXPECT_EQ(VX_ININFTY, 0x10u);
  EXPECT_EQ(VX_FINISHED, 0x20u);
  EXPECT_EQ(VX_NEARINTERIOR, 0x80u);
  EXPECT_EQ(VX_TESTED, 0x100u);
  EXPECT_EQ(VX_INWORKER, 0x400u);
  EXPECT_EQ(VX_FORCE_FINAL, 0x10000u);
  EXPECT_EQ(VX_CALCULATED, 0x40000u);
  EXPECT_EQ(VX_CALCULATEDMASK, 0x1C0000u);
  EXPECT_EQ(VX_CALCULATEDMASK & VX_CALCULATED, VX_CALCULATED);
  EXPECT_EQ(VX_CALCULATEDMASK & VX_FORCE_FINAL, 0u);
}

TEST(CanvasModel, CanvasFlags) {
  EXPECT_EQ(CF_ACTIVE, 0x1u);
  EXPECT_EQ(CF_INTERPOL, 0x2u);
  EXPECT_EQ(CF_SUPERINTERPOL, 0x4u);
  EXPECT_EQ(CF_MODEPREC, 0xF0u);
  EXPECT_EQ(CF_GLOBALINTERPOL, 0x1000u);
  EXPECT_EQ(CF_NOINFTY, 0x4000u);
  EXPECT_EQ(CF_DERIVATIVE, 0x40000u);
  EXPECT_EQ(CF_JULIA, 0x100000u);
  EXPECT_EQ(CF_GENERAL, 0x200000u);
  EXPECT_EQ(CF_HYPERBOLIC, 0x400000u);
  EXPECT_EQ(CF_HPCORRECT, 0x10000000u);
  EXPECT_EQ(CF_JULIACORRECT, 0x20000000u);
  EXPECT_EQ(CF_FAST, 0x40000000u);
  // The job word's format bits are the realm's.
  EXPECT_EQ(CF_MODEPREC, R_PRECMASK);
  // The flag bits of the job word that come from the realm's and area's own.
  EXPECT_EQ(CF_GLOBALINTERPOL, R_GLOBALINTERPOL);
  EXPECT_EQ(CF_NOINFTY, R_NOINTERIOR);
  EXPECT_EQ(CF_HPCORRECT, R_HPCORRECT);
  EXPECT_EQ(CF_JULIACORRECT, R_JULIACORRECT);
  // A free canvas is one without CF_ACTIVE.
  EXPECT_EQ(POOL_FREE & CF_ACTIVE, 0u);
}

// ---------------------------------------------------------------- per format

TYPED_TEST(CanvasFormat, ElementTypes) {
  typedef typename TypeParam::TEMPLATE T;
  static_assert(std::is_same_v<typename T::FLOAT, typename TypeParam::EXPECTFLOAT>);
  static_assert(std::is_same_v<typename T::COMPLEX, typename TypeParam::EXPECTCOMPLEX>);
  EXPECT_EQ(T::MODE, TypeParam::EXPECTMODE);
  EXPECT_EQ(T::MODE & ~CF_MODEPREC, 0u);
}

TYPED_TEST(CanvasFormat, FieldTypes) {
  typedef typename TypeParam::TEMPLATE T;
  typedef typename T::FLOAT F;
  typedef typename T::COMPLEX C;
  typedef typename T::CVALUE CV;
  typedef typename T::CVERTEX VX;
  typedef typename T::CDATA CD;
  typedef typename T::INFTYDATA ID;
  typedef typename T::CANVAS CN;

  static_assert(std::is_same_v<decltype(ID::pditer), ITER[NPDATA]>);
  static_assert(std::is_same_v<decltype(ID::pdvalue), C[NPDATA]>);

  static_assert(std::is_same_v<decltype(CV::iter), UITER>);
  static_assert(std::is_same_v<decltype(CV::hpvalue), CHPVALUE*>);
  static_assert(std::is_same_v<decltype(CV::value), C>);
  static_assert(std::is_same_v<decltype(CV::d), C>);
  static_assert(std::is_same_v<decltype(CV::Z), F>);
  static_assert(std::is_same_v<decltype(CV::flags), unsigned int>);

  static_assert(std::is_same_v<decltype(VX::v), CV>);
  static_assert(std::is_same_v<decltype(VX::maxiter), UITER>);
  static_assert(std::is_same_v<decltype(VX::interpolv), CV>);
  static_assert(std::is_same_v<decltype(VX::oldv2), CV>);
  static_assert(std::is_same_v<decltype(VX::n), int[3]>);
  static_assert(std::is_same_v<decltype(VX::refiter), ITER>);
  static_assert(std::is_same_v<decltype(VX::hpvchain), CHAIN>);
  static_assert(std::is_same_v<decltype(VX::inftydata), ID>);
  static_assert(std::is_same_v<decltype(VX::flags), unsigned int>);

  static_assert(std::is_same_v<decltype(CD::iter), ITER>);
  static_assert(std::is_same_v<decltype(CD::value), C[64]>);
  static_assert(std::is_same_v<decltype(CD::a), F[64]>);

  static_assert(std::is_same_v<typename T::CHPVALUE, CHPVALUE>);
  static_assert(std::is_same_v<decltype(CHPVALUE::value), mpf_t[2]>);
  static_assert(std::is_same_v<decltype(CHPVALUE::next), CHPVALUE*>);

  static_assert(std::is_same_v<decltype(CN::cf), C>);
  static_assert(std::is_same_v<decltype(CN::cr), C>);
  static_assert(std::is_same_v<decltype(CN::ct), HFLOATCOMPLEX>);
  static_assert(std::is_same_v<decltype(CN::maxiter), ITER>);
  static_assert(std::is_same_v<decltype(CN::precision), mp_bitcnt_t>);
  static_assert(std::is_same_v<decltype(CN::workerinfty), int[9]>);
  static_assert(std::is_same_v<decltype(CN::worker), int[9]>);
  static_assert(std::is_same_v<decltype(CN::workerfailure), int[9]>);
  static_assert(std::is_same_v<decltype(CN::environmenthpvalue), CHPVALUE*>);
  static_assert(std::is_same_v<decltype(CN::__n), ITER>);
  static_assert(std::is_same_v<decltype(CN::dfactor), HFLOAT>);
  static_assert(std::is_same_v<decltype(CN::dfactor2), HFLOATCOMPLEX>);
  static_assert(std::is_same_v<decltype(CN::dbound), F>);
  static_assert(std::is_same_v<decltype(CN::sbound), HFLOAT>);
  static_assert(std::is_same_v<decltype(CN::Zfactor), F>);
  static_assert(std::is_same_v<decltype(CN::v), VX[257 * 257]>);
  static_assert(std::is_same_v<decltype(CN::data), CD[32768]>);
  static_assert(std::is_same_v<decltype(CN::c), mpf_t[2]>);
  static_assert(std::is_same_v<decltype(CN::y), mpf_t>);
  static_assert(std::is_same_v<decltype(CN::hpvalue), CHPVALUE[16384]>);
  static_assert(std::is_same_v<decltype(CN::rhpvalue), CHPVALUE*>);
  static_assert(std::is_same_v<decltype(CN::next), CN*>);
  static_assert(std::is_same_v<decltype(CN::flags), unsigned int>);
  static_assert(std::is_same_v<decltype(CN::__worker), WORKER*>);
  SUCCEED();
}

TYPED_TEST(CanvasFormat, PlainRecords) {
  typedef typename TypeParam::TEMPLATE T;
  // Canvases are calloc'd and handed out without construction.
  static_assert(layoutrecord<typename T::INFTYDATA>);
  static_assert(layoutrecord<typename T::CVALUE>);
  static_assert(layoutrecord<typename T::CVERTEX>);
  static_assert(layoutrecord<typename T::CDATA>);
  static_assert(layoutrecord<typename T::CHPVALUE>);
  static_assert(layoutrecord<typename T::CANVAS>);
  SUCCEED();
}

TYPED_TEST(CanvasFormat, FieldOrder) {
  typedef typename TypeParam::TEMPLATE T;
  typedef typename T::INFTYDATA ID;
  typedef typename T::CVALUE CV;
  typedef typename T::CVERTEX VX;
  typedef typename T::CDATA CD;
  typedef typename T::CANVAS CN;

  constexpr size_t inftydata[] = {offsetof(ID, ipdata), offsetof(ID, pditer),
                                  offsetof(ID, pdvalue)};
  EXPECT_TRUE(increasing(inftydata));

  constexpr size_t cvalue[] = {offsetof(CV, iter),  offsetof(CV, ref),     offsetof(CV, data),
                               offsetof(CV, hpvalue), offsetof(CV, value), offsetof(CV, d),
                               offsetof(CV, Z),     offsetof(CV, flags)};
  EXPECT_TRUE(increasing(cvalue));

  constexpr size_t cvertex[] = {
      offsetof(VX, v),        offsetof(VX, maxiter),   offsetof(VX, depth),
      offsetof(VX, forced),   offsetof(VX, interpolv), offsetof(VX, interpoldepth),
      offsetof(VX, oldv),     offsetof(VX, oldv2),     offsetof(VX, x),
      offsetof(VX, y),        offsetof(VX, n),         offsetof(VX, refiter),
      offsetof(VX, hpvchain), offsetof(VX, firstdata), offsetof(VX, lastdata),
      offsetof(VX, inftydata), offsetof(VX, index),    offsetof(VX, next),
      offsetof(VX, next2),    offsetof(VX, next3),     offsetof(VX, next4),
      offsetof(VX, next5),    offsetof(VX, dummy),     offsetof(VX, flags)};
  EXPECT_TRUE(increasing(cvertex));

  constexpr size_t cdata[] = {offsetof(CD, ref), offsetof(CD, iter), offsetof(CD, value),
                              offsetof(CD, a), offsetof(CD, next)};
  EXPECT_TRUE(increasing(cdata));

  constexpr size_t chpvalue[] = {offsetof(CHPVALUE, iter), offsetof(CHPVALUE, value),
                                 offsetof(CHPVALUE, chain), offsetof(CHPVALUE, count),
                                 offsetof(CHPVALUE, next)};
  EXPECT_TRUE(increasing(chpvalue));

  constexpr size_t canvas[] = {offsetof(CN, cf),
                               offsetof(CN, cr),
                               offsetof(CN, depth),
                               offsetof(CN, ct),
                               offsetof(CN, maxiter),
                               offsetof(CN, precision),
                               offsetof(CN, workerinfty),
                               offsetof(CN, worker),
                               offsetof(CN, workerfailure),
                               offsetof(CN, minworkerinfty),
                               offsetof(CN, minworker),
                               offsetof(CN, minworkerfailure),
                               offsetof(CN, workerinterpol),
                               offsetof(CN, environmenthpvalue),
                               offsetof(CN, oldenvironmenthpvalue),
                               offsetof(CN, oldenvironmenthpvalue2),
                               offsetof(CN, interpoliter),
                               offsetof(CN, newinterpoliter),
                               offsetof(CN, oldinterpoliter),
                               offsetof(CN, oldinterpoliter2),
                               offsetof(CN, interpolmindepth),
                               offsetof(CN, canvassizeshift),
                               offsetof(CN, canvasinterpol),
                               offsetof(CN, __n),
                               offsetof(CN, dfactor),
                               offsetof(CN, dfactor2),
                               offsetof(CN, dbound),
                               offsetof(CN, sbound),
                               offsetof(CN, Zfactor),
                               offsetof(CN, v),
                               offsetof(CN, data),
                               offsetof(CN, idata),
                               offsetof(CN, rdata),
                               offsetof(CN, c),
                               offsetof(CN, dummyvalue),
                               offsetof(CN, dummysmall),
                               offsetof(CN, x1s),
                               offsetof(CN, y1s),
                               offsetof(CN, x),
                               offsetof(CN, y),
                               offsetof(CN, hpvalue),
                               offsetof(CN, ihpvalue),
                               offsetof(CN, rhpvalue),
                               offsetof(CN, mhpvalue),
                               offsetof(CN, next),
                               offsetof(CN, flags),
                               offsetof(CN, __worker)};
  EXPECT_TRUE(increasing(canvas));
}

TYPED_TEST(CanvasFormat, BufferHoldsTheFormat) {
  typedef typename TypeParam::TEMPLATE::CANVAS CN;
  EXPECT_GE(sizeof(CANVAS0), sizeof(CN));
  EXPECT_GE(alignof(CANVAS0), alignof(CN));
  // The grid and the block pool are all there: the last vertex and block end
  // inside the canvas, before the shared members.
  EXPECT_LE(offsetof(CN, data) + sizeof(CN::data), offsetof(CN, idata));
  EXPECT_EQ(sizeof(CN::v) / sizeof(CN::v[0]), 66049u);
}

// What preinitcanvas and postfreecanvas touch on CANVAS0, and what the
// checkpoint pool keeps between jobs, must lie where each format finds it.
TYPED_TEST(CanvasFormat, SharedMembersAtOneOffset) {
  typedef typename TypeParam::TEMPLATE::CANVAS CN;
  EXPECT_EQ(offsetof(CN, idata), offsetof(CANVAS0, idata));
  EXPECT_EQ(offsetof(CN, rdata), offsetof(CANVAS0, rdata));
  EXPECT_EQ(offsetof(CN, c), offsetof(CANVAS0, c));
  EXPECT_EQ(offsetof(CN, dummyvalue), offsetof(CANVAS0, dummyvalue));
  EXPECT_EQ(offsetof(CN, dummysmall), offsetof(CANVAS0, dummysmall));
  EXPECT_EQ(offsetof(CN, x1s), offsetof(CANVAS0, x1s));
  EXPECT_EQ(offsetof(CN, y1s), offsetof(CANVAS0, y1s));
  EXPECT_EQ(offsetof(CN, x), offsetof(CANVAS0, x));
  EXPECT_EQ(offsetof(CN, y), offsetof(CANVAS0, y));
  EXPECT_EQ(offsetof(CN, hpvalue), offsetof(CANVAS0, hpvalue));
  EXPECT_EQ(offsetof(CN, ihpvalue), offsetof(CANVAS0, ihpvalue));
  EXPECT_EQ(offsetof(CN, rhpvalue), offsetof(CANVAS0, rhpvalue));
  EXPECT_EQ(offsetof(CN, mhpvalue), offsetof(CANVAS0, mhpvalue));
  EXPECT_EQ(offsetof(CN, next), offsetof(CANVAS0, next));
  EXPECT_EQ(offsetof(CN, flags), offsetof(CANVAS0, flags));
  EXPECT_EQ(offsetof(CN, __worker), offsetof(CANVAS0, __worker));
}

// ---------------------------------------------------------------- CANVAS0

TEST(CanvasModel, Canvas0IsTheLongDoubleLayout) {
  static_assert(std::is_base_of_v<CANVAS_longdouble, CANVAS0>);
  static_assert(std::is_standard_layout_v<CANVAS0>);
  EXPECT_EQ(sizeof(CANVAS0), sizeof(CANVAS_longdouble));
  // Some 150 MB: what the thread cap of the context is computed from.
  EXPECT_GT(sizeof(CANVAS0), size_t{100} << 20);
  EXPECT_LT(sizeof(CANVAS0), size_t{256} << 20);
}

// ---------------------------------------------------------------- pool

TEST_F(CanvasPool, PreinitMarksFreeAndGivesScratchStorage) {
  canvas->flags = CF_ACTIVE | CF_JULIA;
  canvas->mhpvalue = 12345;
  preinitcanvas(context, canvas);
  EXPECT_EQ(canvas->flags, 2u);
  EXPECT_EQ(canvas->mhpvalue, 0);
  expectscratch(canvas);
  // Eight mpf values, each with its own limbs.
  EXPECT_EQ(gmpcount.blocks, 8);

  postfreecanvas(context, canvas);
  EXPECT_EQ(canvas->mhpvalue, 0);
  EXPECT_EQ(gmpcount.blocks, 0);
  EXPECT_EQ(gmpcount.bytes, 0);
}

TEST_F(CanvasPool, ScratchIsUsableAtFullPrecision) {
  preinitcanvas(context, canvas);
  // The members hold values and take a new precision in place, as a job
  // brings them to its own.
  mpf_set_prec(canvas->x, 1000);
  mpf_set_ui(canvas->x, 1);
  mpf_div_2exp(canvas->x, canvas->x, 900);
  mpf_add_ui(canvas->x, canvas->x, 1);
  mpf_set_prec(canvas->c[1], 500);
  mpf_set_ui(canvas->c[1], 3);
  EXPECT_GT(mpf_cmp_ui(canvas->x, 1), 0);
  EXPECT_EQ(mpf_cmp_ui(canvas->c[1], 3), 0);
  postfreecanvas(context, canvas);
  EXPECT_EQ(gmpcount.blocks, 0);
  EXPECT_EQ(gmpcount.bytes, 0);
}

TEST_F(CanvasPool, PostfreeClearsInitialisedCheckpoints) {
  preinitcanvas(context, canvas);
  long scratch = gmpcount.blocks;
  // A job's checkpoint pool: the first five entries got limbs, the sixth is
  // untouched memory that postfreecanvas must leave alone.
  const int used = 5;
  for (int i = 0; i < used; i++) {
    mpf_init2(canvas->hpvalue[i].value[0], 64 + 32 * i);
    mpf_init2(canvas->hpvalue[i].value[1], 64 + 32 * i);
    mpf_set_si(canvas->hpvalue[i].value[1], -i);
  }
  canvas->mhpvalue = used;
  memset(&canvas->hpvalue[used], 0xA5, sizeof(CHPVALUE));
  EXPECT_EQ(gmpcount.blocks, scratch + 2 * used);

  postfreecanvas(context, canvas);
  EXPECT_EQ(canvas->mhpvalue, 0);
  EXPECT_EQ(gmpcount.blocks, 0);
  EXPECT_EQ(gmpcount.bytes, 0);
}

TEST_F(CanvasPool, CheckpointsSurviveAFormatChange) {
  preinitcanvas(context, canvas);
  // A double job initialises checkpoints; the buffer's end of life sees them
  // through CANVAS0 all the same.
  CANVAS_double* d = reinterpret_cast<CANVAS_double*>(static_cast<CANVAS_longdouble*>(canvas));
  EXPECT_EQ(static_cast<void*>(&d->mhpvalue), static_cast<void*>(&canvas->mhpvalue));
  EXPECT_EQ(d->flags, 2u);
  EXPECT_GE(mpf_get_prec(d->y1s), 64u);
  for (int i = 0; i < 3; i++) {
    mpf_init2(d->hpvalue[i].value[0], 128);
    mpf_init2(d->hpvalue[i].value[1], 128);
  }
  d->mhpvalue = 3;
  postfreecanvas(context, canvas);
  EXPECT_EQ(d->mhpvalue, 0);
  EXPECT_EQ(gmpcount.blocks, 0);
  EXPECT_EQ(gmpcount.bytes, 0);
}

TEST_F(CanvasPool, RepeatedLifeLeavesNothing) {
  for (int round = 0; round < 3; round++) {
    preinitcanvas(context, canvas);
    EXPECT_EQ(canvas->flags, 2u);
    EXPECT_EQ(canvas->mhpvalue, 0);
    mpf_init2(canvas->hpvalue[0].value[0], 64);
    mpf_init2(canvas->hpvalue[0].value[1], 64);
    canvas->mhpvalue = 1;
    postfreecanvas(context, canvas);
    EXPECT_EQ(gmpcount.blocks, 0);
  }
  EXPECT_EQ(gmpcount.bytes, 0);
}
