// The environment's orbit at full precision from its checkpoints: standard
// and periodic environments, checkpoints 65536 apart, an orbit whose length
// is a multiple of 65536.
#include <gmp.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "envhp.h"
#include "environment.h"

namespace {

constexpr mp_bitcnt_t PREC = 128;

struct PAIR {
  mpf_t v[2];
  PAIR() {
    mpf_init2(v[0], PREC);
    mpf_init2(v[1], PREC);
  }
  ~PAIR() {
    mpf_clear(v[0]);
    mpf_clear(v[1]);
  }
};

// An environment over c = (-0.5, 0.55), whose orbit stays bounded, with n
// points and a checkpoint each 65536, made by calciterhpex itself from 0.
struct ENV {
  ENVIRONMENT* e;
  HPVALUE c;
  std::vector<HPVALUE> hpv;
  ENV(UITER n, unsigned flags) : hpv(n / 65536 + 1) {
    e = static_cast<ENVIRONMENT*>(calloc(1, sizeof(ENVIRONMENT)));
    mpf_init2(c.v[0], PREC);
    mpf_init2(c.v[1], PREC);
    mpf_set_d(c.v[0], -0.5);
    mpf_set_d(c.v[1], 0.55);
    e->c = &c;
    e->n = n;
    e->flags = flags;
    PAIR z;
    mpf_set_ui(z.v[0], 0);
    mpf_set_ui(z.v[1], 0);
    ITER it = 0;
    for (UITER k = 0; (k + 1) * 65536 <= n; k++) {
      calciterhpex(z.v[0], c.v[0], &it, static_cast<ITER>((k + 1) * 65536), PREC);
      mpf_init2(hpv[k].v[0], PREC);
      mpf_init2(hpv[k].v[1], PREC);
      mpf_set(hpv[k].v[0], z.v[0]);
      mpf_set(hpv[k].v[1], z.v[1]);
      e->hpv[k] = &hpv[k];
      e->nhpv = static_cast<int>(k + 1);
    }
  }
  ~ENV() {
    for (int k = 0; k < e->nhpv; k++) {
      mpf_clear(hpv[k].v[0]);
      mpf_clear(hpv[k].v[1]);
    }
    mpf_clear(c.v[0]);
    mpf_clear(c.v[1]);
    free(e);
  }
};

// z at `iter` straight from 0.
void direct(const ENV& env, ITER iter, PAIR* z) {
  mpf_set_ui(z->v[0], 0);
  mpf_set_ui(z->v[1], 0);
  ITER it = 0;
  calciterhpex(z->v[0], env.c.v[0], &it, iter, PREC);
  ASSERT_EQ(it, iter);
}

bool same(const PAIR& a, const PAIR& b) {
  return mpf_cmp(a.v[0], b.v[0]) == 0 && mpf_cmp(a.v[1], b.v[1]) == 0;
}

}  // namespace

TEST(CalcIterHpEx, StopsAtEscapeAndAtLimit) {
  PAIR z, c;
  mpf_set_ui(z.v[0], 0);
  mpf_set_ui(z.v[1], 0);
  mpf_set_d(c.v[0], 1.0);  // 0, 1, 2, 5: |z| >= 2 at iteration 2
  mpf_set_d(c.v[1], 0.0);
  ITER it = 0;
  calciterhpex(z.v[0], c.v[0], &it, 100, PREC);
  EXPECT_EQ(it, 2);
  EXPECT_EQ(mpf_get_d(z.v[0]), 2.0);
  mpf_set_d(c.v[0], -1.0);  // 0, -1, 0, -1: bounded
  mpf_set_ui(z.v[0], 0);
  it = 0;
  calciterhpex(z.v[0], c.v[0], &it, 7, PREC);
  EXPECT_EQ(it, 7);
  EXPECT_EQ(mpf_get_d(z.v[0]), -1.0);
}

TEST(EnvironmentHpValueRaw, StandardFromCheckpoints) {
  ENV env(200000, 0);
  ASSERT_EQ(env.e->nhpv, 3);
  PAIR got, want;
  for (ITER iter : {0, 1, 65535, 65536, 65537, 150000, 199999}) {
    ASSERT_TRUE(getenvironmenthpvalueraw(env.e, iter, got.v[0])) << iter;
    direct(env, iter, &want);
    EXPECT_TRUE(same(got, want)) << iter;
  }
  EXPECT_FALSE(getenvironmenthpvalueraw(env.e, 200000, got.v[0]));
  EXPECT_FALSE(getenvironmenthpvalueraw(env.e, 300000, got.v[0]));
}

// It starts from the checkpoint: a checkpoint made wrong shows.
TEST(EnvironmentHpValueRaw, UsesTheCheckpoint) {
  ENV env(200000, 0);
  mpf_set_ui(env.hpv[1].v[0], 0);
  mpf_set_ui(env.hpv[1].v[1], 0);
  PAIR got, want;
  ASSERT_TRUE(getenvironmenthpvalueraw(env.e, 131072 + 1, got.v[0]));
  EXPECT_EQ(mpf_cmp(got.v[0], env.c.v[0]), 0);  // one step from 0 is c
  ASSERT_TRUE(getenvironmenthpvalueraw(env.e, 131071, got.v[0]));
  direct(env, 131071, &want);
  EXPECT_TRUE(same(got, want));
}

// A periodic environment wraps its iteration numbers at n; n = 131072 is
// a multiple of 65536 and has a checkpoint at its last index.
TEST(EnvironmentHpValueRaw, PeriodicWraps) {
  ENV env(131072, E_PERIODIC);
  ASSERT_EQ(env.e->nhpv, 2);
  PAIR got, want;
  ASSERT_TRUE(getenvironmenthpvalueraw(env.e, 131072, got.v[0]));
  EXPECT_EQ(mpf_sgn(got.v[0]), 0);
  EXPECT_EQ(mpf_sgn(got.v[1]), 0);
  ASSERT_TRUE(getenvironmenthpvalueraw(env.e, 131072 + 5, got.v[0]));
  direct(env, 5, &want);
  EXPECT_TRUE(same(got, want));
  ASSERT_TRUE(getenvironmenthpvalueraw(env.e, 3 * 131072 + 70000, got.v[0]));
  direct(env, 70000, &want);
  EXPECT_TRUE(same(got, want));
  ASSERT_TRUE(getenvironmenthpvalueraw(env.e, 131071, got.v[0]));
  direct(env, 131071, &want);
  EXPECT_TRUE(same(got, want));
}

TEST(EnvironmentHpValueRaw, StandardMultipleOf65536) {
  ENV env(131072, 0);
  ASSERT_EQ(env.e->nhpv, 2);
  PAIR got, want;
  ASSERT_TRUE(getenvironmenthpvalueraw(env.e, 131071, got.v[0]));
  direct(env, 131071, &want);
  EXPECT_TRUE(same(got, want));
  EXPECT_FALSE(getenvironmenthpvalueraw(env.e, 131072, got.v[0]));
}
