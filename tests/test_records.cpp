// Layouts of the engine's pooled records: flag values, table bounds, field
// order and the members the pools rely on.
#include <gtest/gtest.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Mandelbrot.h"
#include "area.h"
#include "environment.h"
#include "juliacache.h"
#include "texture.h"

namespace {

template <size_t N>
constexpr bool increasing(const size_t (&offsets)[N]) {
  for (size_t i = 1; i < N; i++)
    if (offsets[i] <= offsets[i - 1]) return false;
  return true;
}

// What the fixed pools need of a record: a link to the next free record of
// its own kind and a flags word.
template <typename T>
concept PoolRecord = requires(T t) {
  { t.nextrem } -> std::same_as<T*&>;
  { t.flags } -> std::same_as<uint32_t&>;
};

template <typename T>
constexpr bool plainrecord = std::is_trivial_v<T> && std::is_standard_layout_v<T>;

}  // namespace

// ---------------------------------------------------------------- plain records

TEST(Records, AllArePlainStructs) {
  // Pools are zeroed and handed out without construction.
  static_assert(plainrecord<HPVALUE>);
  static_assert(plainrecord<ITERINFO>);
  static_assert(plainrecord<COMPUTERGROUP>);
  static_assert(plainrecord<ENVIRONMENT>);
  static_assert(plainrecord<PREPIXEL>);
  static_assert(plainrecord<PREPIXELS>);
  static_assert(plainrecord<JCFILE>);
  static_assert(plainrecord<JULIACACHE>);
  static_assert(plainrecord<JCBYPASSCHAIN>);
  static_assert(plainrecord<JULIASTACKDATA>);
  static_assert(plainrecord<AREA>);
  static_assert(plainrecord<REALM>);
  static_assert(plainrecord<TEXTURE>);
  static_assert(plainrecord<DRAWRECT>);
}

TEST(Records, PoolRecordsCarryLinkAndFlags) {
  static_assert(PoolRecord<AREA>);
  static_assert(PoolRecord<TEXTURE>);
  static_assert(PoolRecord<JULIACACHE>);
  // HPVALUE chains through `next`, and its flags are an unsigned int.
  static_assert(std::is_same_v<decltype(HPVALUE::next), HPVALUE*>);
  static_assert(std::is_same_v<decltype(HPVALUE::flags), unsigned int>);
  // The free flag of every pool is the shared one.
  EXPECT_EQ(A_DELETED, POOL_FREE);
  EXPECT_EQ(T_FREE, POOL_FREE);
  EXPECT_EQ(JCF_FREE, POOL_FREE);
  EXPECT_EQ(HPV_FREE, POOL_FREE);
}

// ---------------------------------------------------------------- area and realm

TEST(Area, FlagValues) {
  EXPECT_EQ(A_ACTIVE, 1u);
  EXPECT_EQ(A_DELETED, 2u);
  EXPECT_EQ(A_GLOBALINTERPOL, 4u);
  EXPECT_EQ(A_HPCORRECT, 8u);
  EXPECT_EQ(A_JULIACORRECT, 32u);
  EXPECT_EQ(A_INTERPOL, 64u);
  EXPECT_EQ(A_SUPERINTERPOL, 128u);
  EXPECT_EQ(A_WAITFORJULIASTACK, 1024u);
  EXPECT_EQ(A_INDELCHAIN, 2048u);
  EXPECT_EQ(A_INPPPROGRAM, 4096u);
  EXPECT_EQ(A_PRECALCULATED, 8192u);
}

TEST(Area, ResetClearsDoneWaitAndTheFiveModeBits) {
  EXPECT_EQ(A_MADEWITH, 0xECu);
  EXPECT_EQ(A_PRECALCULATED | A_WAITFORJULIASTACK | A_MADEWITH, 0x24ECu);
}

TEST(Area, Extents) {
  EXPECT_EQ(std::extent_v<decltype(AREA::child)>, 4u);
  EXPECT_EQ(std::extent_v<decltype(AREA::texture)>, 9u);
  EXPECT_EQ(std::extent_v<decltype(AREA::interpoltaylor)>, 4u);
  static_assert(std::is_same_v<decltype(AREA::texture), TEXTURE* [NCHANNELS]>);
  static_assert(std::is_same_v<decltype(AREA::interpoltaylor), HFLOATCOMPLEX[4]>);
}

TEST(Area, SharedFieldsAreVolatile) {
  static_assert(std::is_same_v<decltype(AREA::worker), WORKER* volatile>);
  static_assert(std::is_same_v<decltype(AREA::priority), volatile int>);
  static_assert(std::is_same_v<decltype(AREA::computecycle), uint32_t>);
  static_assert(std::is_same_v<decltype(AREA::ct), HFLOATCOMPLEX>);
  static_assert(std::is_same_v<decltype(AREA::interpoliter), ITER>);
}

TEST(Area, FieldOrder) {
  constexpr size_t o[] = {
      offsetof(AREA, child),          offsetof(AREA, parent),
      offsetof(AREA, realm),          offsetof(AREA, hpvalue),
      offsetof(AREA, nhpvalue),       offsetof(AREA, depth),
      offsetof(AREA, modeprec),       offsetof(AREA, precoffset),
      offsetof(AREA, xinner),         offsetof(AREA, yinner),
      offsetof(AREA, computecycle),   offsetof(AREA, m),
      offsetof(AREA, itermax),        offsetof(AREA, channels),
      offsetof(AREA, texture),        offsetof(AREA, prepixels),
      offsetof(AREA, worker),         offsetof(AREA, e),
      offsetof(AREA, juliarealm),     offsetof(AREA, prec),
      offsetof(AREA, ct),             offsetof(AREA, interpoltaylor),
      offsetof(AREA, interpoliter),   offsetof(AREA, jst),
      offsetof(AREA, chain),          offsetof(AREA, waitforjuliastack),
      offsetof(AREA, waitingforprepixel), offsetof(AREA, viewportchain),
      offsetof(AREA, priority),       offsetof(AREA, nextrem),
      offsetof(AREA, flags),
  };
  static_assert(increasing(o));
}

TEST(Realm, TypeValues) {
  EXPECT_EQ(MANDELBROT, 0);
  EXPECT_EQ(JULIA, 1);
  EXPECT_EQ(GENERAL, 2);
  EXPECT_EQ(HYPERBOLIC, 3);
  static_assert(std::is_same_v<decltype(REALM::type), REALMTYPE>);
}

TEST(Realm, FlagValues) {
  EXPECT_EQ(R_LOCKJULIAPOINT, 1u);
  EXPECT_EQ(R_INTERPOL, 2u);
  EXPECT_EQ(R_SUPERINTERPOL, 4u);
  EXPECT_EQ(R_PRECMASK, 240u);
  EXPECT_EQ(R_PRECAUTO, 0u);
  EXPECT_EQ(R_PRECFLOAT, 16u);
  EXPECT_EQ(R_PRECDOUBLE, 32u);
  EXPECT_EQ(R_PRECLONGDOUBLE, 48u);
  EXPECT_EQ(R_PRECHFLOAT, 64u);
  EXPECT_EQ(R_IDLE, 512u);
  EXPECT_EQ(R_ATSAT, 1024u);
  EXPECT_EQ(R_MUSTWAITFORIDLE, 2048u);
  EXPECT_EQ(R_GLOBALINTERPOL, 0x1000u);
  EXPECT_EQ(R_STATUSM, 0x2000u);
  EXPECT_EQ(R_NOINTERIOR, 0x4000u);
  EXPECT_EQ(R_BYPASS, 0x20000u);
  EXPECT_EQ(R_SPLITMUL, 0x80000u);
  EXPECT_EQ(R_HPCORRECT, 0x10000000u);
  EXPECT_EQ(R_JULIACORRECT, 0x20000000u);
}

TEST(Realm, NumberFormatsFitTheMask) {
  for (unsigned int f : {R_PRECAUTO, R_PRECFLOAT, R_PRECDOUBLE, R_PRECLONGDOUBLE, R_PRECHFLOAT})
    EXPECT_EQ(f & ~R_PRECMASK, 0u) << f;
}

TEST(Realm, NewRealmFlagsAreSIGBHJWithAutomaticFormat) {
  EXPECT_EQ(R_DEFAULT, R_SUPERINTERPOL | R_INTERPOL | R_GLOBALINTERPOL | R_BYPASS | R_HPCORRECT |
                           R_JULIACORRECT);
  EXPECT_EQ(R_DEFAULT & R_PRECMASK, R_PRECAUTO);
}

TEST(Realm, JobWordTakesTheCanvasModeBits) {
  // The realm bits a canvas job carries: the five copied modes' sources,
  // the number format and the no-interior switch.
  EXPECT_EQ(R_HPCORRECT | R_JULIACORRECT | R_NOINTERIOR | R_GLOBALINTERPOL | R_PRECMASK |
                R_SUPERINTERPOL | R_INTERPOL,
            0x300050F6u);
}

TEST(Realm, SharedFieldsAreVolatile) {
  static_assert(std::is_same_v<decltype(REALM::count), volatile int>);
  static_assert(std::is_same_v<decltype(REALM::readyjuliastack), volatile int>);
  static_assert(std::is_same_v<decltype(REALM::readyjuliastack2), volatile int>);
  static_assert(std::is_same_v<decltype(REALM::info), ITERINFO>);
  static_assert(std::is_same_v<decltype(REALM::jstdforworker), JULIASTACKDATA>);
  static_assert(std::is_same_v<decltype(REALM::juliastack), JULIASTACKDATA*>);
}

TEST(Realm, FieldOrder) {
  constexpr size_t o[] = {
      offsetof(REALM, type),             offsetof(REALM, top),
      offsetof(REALM, activeviewports),  offsetof(REALM, precoffset),
      offsetof(REALM, info),             offsetof(REALM, e),
      offsetof(REALM, jsttask),          offsetof(REALM, juliastack),
      offsetof(REALM, njuliastack),      offsetof(REALM, jstdforworker),
      offsetof(REALM, juliajuliastack),  offsetof(REALM, neededjuliastack),
      offsetof(REALM, validjuliastack),  offsetof(REALM, calcjuliastack),
      offsetof(REALM, priojuliastack),   offsetof(REALM, maxjuliastack),
      offsetof(REALM, readyjuliastack),  offsetof(REALM, readyjuliastack2),
      offsetof(REALM, juliastacksizeshift), offsetof(REALM, generalviewport),
      offsetof(REALM, ijuliacache),      offsetof(REALM, bypassjc),
      offsetof(REALM, computecycle),     offsetof(REALM, redraw),
      offsetof(REALM, count),            offsetof(REALM, chain),
      offsetof(REALM, flags),
  };
  static_assert(increasing(o));
}

TEST(JuliaStack, LevelExtents) {
  EXPECT_EQ(NJULIASTACK, 16384);
  EXPECT_EQ((std::extent_v<decltype(JULIASTACKDATA::c), 0>), 8u);
  EXPECT_EQ((std::extent_v<decltype(JULIASTACKDATA::c), 1>), 8u);
  EXPECT_EQ((std::extent_v<decltype(JULIASTACKDATA::w), 0>), 8u);
  EXPECT_EQ((std::extent_v<decltype(JULIASTACKDATA::w), 1>), 8u);
  EXPECT_EQ((std::extent_v<decltype(JULIASTACKDATA::bypasschain), 0>), 8u);
  EXPECT_EQ((std::extent_v<decltype(JULIASTACKDATA::bypasschain), 1>), 8u);
  EXPECT_EQ(std::extent_v<decltype(JULIASTACKDATA::taylorj)>, 4u);
  static_assert(std::is_same_v<decltype(JULIASTACKDATA::c), JULIACACHE* [8][8]>);
  static_assert(std::is_same_v<decltype(JULIASTACKDATA::bypasschain), JCBYPASSCHAIN[8][8]>);
}

TEST(JuliaStack, FieldOrder) {
  constexpr size_t o[] = {
      offsetof(JULIASTACKDATA, sizeshift),   offsetof(JULIASTACKDATA, mipmap),
      offsetof(JULIASTACKDATA, c),           offsetof(JULIASTACKDATA, w),
      offsetof(JULIASTACKDATA, bypasschain), offsetof(JULIASTACKDATA, nworker),
      offsetof(JULIASTACKDATA, task),        offsetof(JULIASTACKDATA, mr),
      offsetof(JULIASTACKDATA, taylorj),     offsetof(JULIASTACKDATA, iter),
      offsetof(JULIASTACKDATA, bypass),      offsetof(JULIASTACKDATA, m),
      offsetof(JULIASTACKDATA, miter),       offsetof(JULIASTACKDATA, lim),
      offsetof(JULIASTACKDATA, rlim),        offsetof(JULIASTACKDATA, e),
      offsetof(JULIASTACKDATA, prec),        offsetof(JULIASTACKDATA, waittocompute),
      offsetof(JULIASTACKDATA, corrected),   offsetof(JULIASTACKDATA, wait),
      offsetof(JULIASTACKDATA, jswait),      offsetof(JULIASTACKDATA, worker),
      offsetof(JULIASTACKDATA, canvasworker), offsetof(JULIASTACKDATA, r),
  };
  static_assert(increasing(o));
  constexpr size_t b[] = {
      offsetof(JCBYPASSCHAIN, i),       offsetof(JCBYPASSCHAIN, x),
      offsetof(JCBYPASSCHAIN, y),       offsetof(JCBYPASSCHAIN, inchain),
      offsetof(JCBYPASSCHAIN, chain),
  };
  static_assert(increasing(b));
}

// ---------------------------------------------------------------- environment

TEST(Environment, FlagValues) {
  EXPECT_EQ(E_SERIES, 16u);
  EXPECT_EQ(E_ESCAPED, 32u);
  EXPECT_EQ(E_PERIODIC, 64u);
  EXPECT_EQ(E_STACKED, 256u);
  // The "no reference" test masks with 80 and compares with 64.
  EXPECT_EQ(E_SERIES | E_PERIODIC, 80u);
}

TEST(Environment, HpvalueFlags) {
  EXPECT_EQ(HPV_USED, 1u);
  EXPECT_EQ(HPV_FREE, 2u);
  EXPECT_EQ(HPV_LIMBS, 4u);
  // Any bit outside these three is reported as invalid.
  EXPECT_EQ(HPV_USED | HPV_FREE | HPV_LIMBS, 7u);
}

TEST(Environment, HpvalueLayout) {
  static_assert(std::is_same_v<decltype(HPVALUE::v), mpf_t[2]>);
  static_assert(std::is_same_v<decltype(HPVALUE::count), int>);  // main thread only, plain
  constexpr size_t o[] = {offsetof(HPVALUE, v), offsetof(HPVALUE, count), offsetof(HPVALUE, next),
                          offsetof(HPVALUE, flags)};
  static_assert(increasing(o));
}

TEST(Environment, OrbitPointCosts64Bytes) {
  EXPECT_EQ(sizeof(REFDATAH), 40u);
  EXPECT_EQ(sizeof(REFDATAD), 24u);
  EXPECT_EQ(sizeof(REFDATAH) + sizeof(REFDATAD), 64u);
}

TEST(Environment, Extents) {
  EXPECT_EQ(std::extent_v<decltype(ENVIRONMENT::hpv)>, 32768u);
  EXPECT_EQ(std::extent_v<decltype(ENVIRONMENT::taylor)>, 49u);
  EXPECT_EQ(std::extent_v<decltype(ITERINFO::interpoltaylor)>, 4u);
  static_assert(std::is_same_v<decltype(ENVIRONMENT::hpv), HPVALUE* [32768]>);
  static_assert(std::is_same_v<decltype(ENVIRONMENT::taylor), HFLOATCOMPLEX[49]>);
}

TEST(Environment, FieldTypes) {
  static_assert(std::is_same_v<decltype(ENVIRONMENT::count), volatile int>);
  static_assert(std::is_same_v<decltype(ENVIRONMENT::provisional), ITERINFO>);
  static_assert(std::is_same_v<decltype(ENVIRONMENT::computergroup), COMPUTERGROUP>);
  static_assert(std::is_same_v<decltype(ENVIRONMENT::n), UITER>);
  static_assert(std::is_same_v<decltype(ENVIRONMENT::precision), mp_bitcnt_t>);
  static_assert(std::is_same_v<decltype(ENVIRONMENT::refdatah), REFDATAH*>);
  static_assert(std::is_same_v<decltype(ENVIRONMENT::refdatad), REFDATAD*>);
  static_assert(std::is_same_v<decltype(ITERINFO::precisionfailure), bool>);
  static_assert(std::is_same_v<decltype(ITERINFO::lookup), bool>);
  static_assert(std::is_same_v<decltype(ITERINFO::iter), ITER>);
}

TEST(Environment, FieldOrder) {
  constexpr size_t o[] = {
      offsetof(ENVIRONMENT, owner),       offsetof(ENVIRONMENT, iscopyof),
      offsetof(ENVIRONMENT, mini),        offsetof(ENVIRONMENT, maxi),
      offsetof(ENVIRONMENT, provisional), offsetof(ENVIRONMENT, n),
      offsetof(ENVIRONMENT, nref),        offsetof(ENVIRONMENT, refdatah),
      offsetof(ENVIRONMENT, refdatad),    offsetof(ENVIRONMENT, nrefdata),
      offsetof(ENVIRONMENT, c),           offsetof(ENVIRONMENT, hpv),
      offsetof(ENVIRONMENT, nhpv),        offsetof(ENVIRONMENT, worker),
      offsetof(ENVIRONMENT, task),        offsetof(ENVIRONMENT, timesrun),
      offsetof(ENVIRONMENT, due),         offsetof(ENVIRONMENT, computergroup),
      offsetof(ENVIRONMENT, cf),          offsetof(ENVIRONMENT, r1),
      offsetof(ENVIRONMENT, r2),          offsetof(ENVIRONMENT, r3),
      offsetof(ENVIRONMENT, r4),          offsetof(ENVIRONMENT, tmpr2),
      offsetof(ENVIRONMENT, taylor),      offsetof(ENVIRONMENT, scalec),
      offsetof(ENVIRONMENT, scalez),      offsetof(ENVIRONMENT, precision),
      offsetof(ENVIRONMENT, count),       offsetof(ENVIRONMENT, chain),
      offsetof(ENVIRONMENT, istore),      offsetof(ENVIRONMENT, chainstore),
      offsetof(ENVIRONMENT, flags),
  };
  static_assert(increasing(o));
  constexpr size_t i[] = {
      offsetof(ITERINFO, e),        offsetof(ITERINFO, c),
      offsetof(ITERINFO, zoom),     offsetof(ITERINFO, cf),
      offsetof(ITERINFO, interpoliter), offsetof(ITERINFO, interpoltaylor),
      offsetof(ITERINFO, iter),     offsetof(ITERINFO, z),
      offsetof(ITERINFO, dzm),      offsetof(ITERINFO, dzj),
      offsetof(ITERINFO, d),        offsetof(ITERINFO, dj),
      offsetof(ITERINFO, distj),    offsetof(ITERINFO, distm),
      offsetof(ITERINFO, lim),      offsetof(ITERINFO, inorm),
      offsetof(ITERINFO, precisionfailure), offsetof(ITERINFO, lookup),
  };
  static_assert(increasing(i));
}

TEST(Environment, GraphRegisters) {
  EXPECT_EQ(std::extent_v<decltype(COMPUTERGROUP::data)>, 8u);
  EXPECT_EQ(std::extent_v<decltype(COMPUTERGROUP::idata)>, 4u);
  EXPECT_EQ(std::extent_v<decltype(COMPUTERGROUP::pdata)>, 4u);
  EXPECT_EQ((std::extent_v<decltype(COMPUTERGROUP::hdata), 0>), 2u);
  EXPECT_EQ((std::extent_v<decltype(COMPUTERGROUP::hdata), 1>), 7u);
  static_assert(std::is_same_v<decltype(COMPUTERGROUP::idata), volatile ITER[4]>);
  static_assert(std::is_same_v<decltype(COMPUTERGROUP::pdata), void* volatile[4]>);
  static_assert(std::is_same_v<decltype(COMPUTERGROUP::stop), volatile int>);
  static_assert(std::is_same_v<decltype(COMPUTERGROUP::data), mpf_t[8]>);
  constexpr size_t o[] = {
      offsetof(COMPUTERGROUP, context),   offsetof(COMPUTERGROUP, computer),
      offsetof(COMPUTERGROUP, icomputer), offsetof(COMPUTERGROUP, activecomputer),
      offsetof(COMPUTERGROUP, width),     offsetof(COMPUTERGROUP, ncomputer),
      offsetof(COMPUTERGROUP, data),      offsetof(COMPUTERGROUP, prec),
      offsetof(COMPUTERGROUP, idata),     offsetof(COMPUTERGROUP, pdata),
      offsetof(COMPUTERGROUP, hdata),     offsetof(COMPUTERGROUP, endcompute),
      offsetof(COMPUTERGROUP, stop),      offsetof(COMPUTERGROUP, lockcdata),
      offsetof(COMPUTERGROUP, computerchain),
  };
  static_assert(increasing(o));
}

// ---------------------------------------------------------------- Julia cache

TEST(JuliaCache, TileIs256By256PrepixelsOf24Bytes) {
  EXPECT_EQ(sizeof(PREPIXEL), 24u);
  EXPECT_EQ(NPREPIXEL, 65536);
  EXPECT_EQ(sizeof(PREPIXEL) * 65536, 0x180000u);
  EXPECT_EQ(JULIACACHETILEBYTES, static_cast<int64_t>(sizeof(PREPIXEL)) * NPREPIXEL);
  // The offset that a stored fractal gives tile k.
  EXPECT_EQ(JULIACACHETILEBYTES, 1572864);
}

TEST(JuliaCache, BlockHolds256Tiles) {
  EXPECT_EQ(JULIACACHETILEBYTES << NMEMJULIACACHEBLOCKSIZESHIFT, 0x18000000);
  EXPECT_EQ(JULIACACHETILEBYTES << NMEMJULIACACHEBLOCKSIZESHIFT, 402653184);
}

TEST(JuliaCache, PrepixelsBlockIsPixelsThenLinkAndFlags) {
  EXPECT_EQ(std::extent_v<decltype(PREPIXELS::pixels)>, 65536u);
  EXPECT_EQ(offsetof(PREPIXELS, pixels), 0u);
  EXPECT_EQ(offsetof(PREPIXELS, nextonstack), 65536 * sizeof(PREPIXEL));
  EXPECT_GT(offsetof(PREPIXELS, flags), offsetof(PREPIXELS, nextonstack));
  static_assert(std::is_same_v<decltype(PREPIXELS::nextonstack), PREPIXELS* volatile>);
}

TEST(JuliaCache, PrepixelFieldOrder) {
  static_assert(std::is_same_v<decltype(PREPIXEL::iter), ITER>);
  static_assert(std::is_same_v<decltype(PREPIXEL::x), float>);
  static_assert(std::is_same_v<decltype(PREPIXEL::depth), int>);
  constexpr size_t o[] = {offsetof(PREPIXEL, iter), offsetof(PREPIXEL, x), offsetof(PREPIXEL, y),
                          offsetof(PREPIXEL, dx),   offsetof(PREPIXEL, dy), offsetof(PREPIXEL, depth)};
  static_assert(increasing(o));
}

TEST(JuliaCache, FlagValues) {
  EXPECT_EQ(JCF_FREE, 2u);
  EXPECT_EQ(JCF_INMEMCHAIN, 4u);
  EXPECT_EQ(JCF_DIRTY, 8u);
  EXPECT_EQ(JCF_MIPMAP, 16u);
  // A freed record comes back through flags & ~24 | 2.
  EXPECT_EQ(JCF_DIRTY | JCF_MIPMAP, 24u);
  EXPECT_EQ(JCLOCK_READ, 1);
  EXPECT_EQ(JCLOCK_CREATE, 4);
  EXPECT_EQ(JCUNLOCK_DIRTY, 1);
}

TEST(JuliaCache, FieldOrder) {
  static_assert(std::is_same_v<decltype(JULIACACHE::offset), uint64_t>);
  static_assert(std::is_same_v<decltype(JCFILE::offset), uint64_t>);
  constexpr size_t o[] = {
      offsetof(JULIACACHE, _data),    offsetof(JULIACACHE, data),
      offsetof(JULIACACHE, file),     offsetof(JULIACACHE, offset),
      offsetof(JULIACACHE, ijuliacache), offsetof(JULIACACHE, memchain),
      offsetof(JULIACACHE, delchain), offsetof(JULIACACHE, count),
      offsetof(JULIACACHE, memcount), offsetof(JULIACACHE, nextrem),
      offsetof(JULIACACHE, flags),
  };
  static_assert(increasing(o));
  constexpr size_t f[] = {offsetof(JCFILE, file), offsetof(JCFILE, count), offsetof(JCFILE, offset)};
  static_assert(increasing(f));
}

// ---------------------------------------------------------------- textures

TEST(Texture, FlagValues) {
  EXPECT_EQ(T_USED, 1u);
  EXPECT_EQ(T_FREE, 2u);
  EXPECT_EQ(T_INDELCHAIN, 0x800u);
  EXPECT_EQ(T_INMEMCHAIN, 0x1000u);
  EXPECT_EQ(T_GLVALID, 0x2000u);
}

TEST(Texture, TileIs256By256Floats) {
  EXPECT_EQ(TEXTURESIZE, 256);
  EXPECT_EQ(TEXTUREBYTES, static_cast<int64_t>(TEXTURESIZE) * TEXTURESIZE * sizeof(float));
  EXPECT_EQ(TEXTUREBYTES, 262144);
  // A record's offset is its index shifted by this much.
  EXPECT_EQ(int64_t{1} << TEXTUREBYTESSHIFT, TEXTUREBYTES);
}

TEST(Texture, FieldOrder) {
  static_assert(std::is_same_v<decltype(TEXTURE::offset), int64_t>);
  static_assert(std::is_same_v<decltype(TEXTURE::computecycle), uint32_t>);
  constexpr size_t o[] = {
      offsetof(TEXTURE, pixels),   offsetof(TEXTURE, offset),   offsetof(TEXTURE, texture),
      offsetof(TEXTURE, chain),    offsetof(TEXTURE, glchain),  offsetof(TEXTURE, memchain),
      offsetof(TEXTURE, area),     offsetof(TEXTURE, count),    offsetof(TEXTURE, memcount),
      offsetof(TEXTURE, computecycle), offsetof(TEXTURE, nextrem), offsetof(TEXTURE, flags),
  };
  static_assert(increasing(o));
}

TEST(Texture, DrawRect) {
  EXPECT_EQ((std::extent_v<decltype(DRAWRECT::c), 0>), 4u);
  EXPECT_EQ((std::extent_v<decltype(DRAWRECT::c), 1>), 2u);
  EXPECT_EQ(std::extent_v<decltype(DRAWRECT::texture)>, 9u);
  EXPECT_EQ(std::extent_v<decltype(DRAWRECT::channel)>, 9u);
  static_assert(std::is_same_v<decltype(DRAWRECT::c), float[4][2]>);
  static_assert(std::is_same_v<decltype(DRAWRECT::texture), TEXTURE* [NCHANNELS]>);
  constexpr size_t o[] = {
      offsetof(DRAWRECT, correction), offsetof(DRAWRECT, c),         offsetof(DRAWRECT, x0),
      offsetof(DRAWRECT, y0),         offsetof(DRAWRECT, x1),        offsetof(DRAWRECT, y1),
      offsetof(DRAWRECT, epsilon),    offsetof(DRAWRECT, ichannels), offsetof(DRAWRECT, texture),
      offsetof(DRAWRECT, channel),
  };
  static_assert(increasing(o));
}
