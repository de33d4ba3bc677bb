// canvas/series.cpp: the mpf series and their complex helpers, and the
// per-thread scratch of `radtest`. The format template lives in series.h.
#include "canvas/series.h"

namespace canvasseries {

namespace {

// One per thread, so that `radtest` without a scratch stays safe from any
// thread; its storage goes back when the thread ends.
struct RADTESTSCRATCH {
  mpf_t v;
  RADTESTSCRATCH() { mpf_init2(v, 64); }
  ~RADTESTSCRATCH() { mpf_clear(v); }
  RADTESTSCRATCH(const RADTESTSCRATCH&) = delete;
  RADTESTSCRATCH& operator=(const RADTESTSCRATCH&) = delete;
};

}  // namespace

mpf_ptr radtestscratch() {
  static thread_local RADTESTSCRATCH scratch;
  return scratch.v;
}

}  // namespace canvasseries

// ---------------------------------------------------------------- helpers

void set(mpf_t* r, HFLOATCOMPLEX h) {
  mpf_set_HFexact(r[0], crealHF(h));
  mpf_set_HFexact(r[1], cimagHF(h));
}

void add(mpf_t* r, const mpf_t* a, const mpf_t* b) {
  mpf_add(r[0], a[0], b[0]);
  mpf_add(r[1], a[1], b[1]);
}

void sub(mpf_t* r, const mpf_t* a, const mpf_t* b) {
  mpf_sub(r[0], a[0], b[0]);
  mpf_sub(r[1], a[1], b[1]);
}

void mul(mpf_t* r, const mpf_t* a, const mpf_t* b, mpf_t* d) {
  mpf_mul(d[0], a[0], b[0]);
  mpf_mul(d[1], a[1], b[1]);
  mpf_sub(d[0], d[0], d[1]);
  mpf_mul(d[1], a[0], b[1]);
  mpf_mul(d[2], a[1], b[0]);
  mpf_add(d[1], d[1], d[2]);
  mpf_set(r[0], d[0]);
  mpf_set(r[1], d[1]);
}

// Each partial product goes into r at once, so one scratch suffices; that is
// also why r may not be an input.
void muladd(mpf_t* r, const mpf_t* a, const mpf_t* b, mpf_t* d) {
  mpf_mul(d[0], a[0], b[0]);
  mpf_add(r[0], r[0], d[0]);
  mpf_mul(d[0], a[1], b[1]);
  mpf_sub(r[0], r[0], d[0]);
  mpf_mul(d[0], a[0], b[1]);
  mpf_add(r[1], r[1], d[0]);
  mpf_mul(d[0], a[1], b[0]);
  mpf_add(r[1], r[1], d[0]);
}

// a * conj(b) / |b|^2, every part formed before r is written.
bool divide(mpf_t* r, const mpf_t* a, const mpf_t* b, mpf_t* d) {
  if (mpf_sgn(b[0]) == 0 && mpf_sgn(b[1]) == 0) return false;
  mpf_mul(d[0], b[0], b[0]);
  mpf_mul(d[1], b[1], b[1]);
  mpf_add(d[0], d[0], d[1]);
  mpf_mul(d[1], a[0], b[0]);
  mpf_mul(d[2], a[1], b[1]);
  mpf_add(d[1], d[1], d[2]);
  mpf_mul(d[2], a[1], b[0]);
  mpf_mul(d[3], a[0], b[1]);
  mpf_sub(d[2], d[2], d[3]);
  mpf_div(r[0], d[1], d[0]);
  mpf_div(r[1], d[2], d[0]);
  return true;
}

// The reciprocal of b first, in d[0..1]; then the product, whose last read of
// a comes before r is written, so r may be a.
bool divide2(mpf_t* r, const mpf_t* a, HFLOATCOMPLEX b, mpf_t* d) {
  if (b.mantissax == 0 && b.mantissay == 0) return false;
  set(d, b);
  mpf_mul(d[2], d[0], d[0]);
  mpf_mul(d[3], d[1], d[1]);
  mpf_add(d[2], d[2], d[3]);
  mpf_div(d[0], d[0], d[2]);
  mpf_div(d[1], d[1], d[2]);
  mpf_neg(d[1], d[1]);
  mpf_mul(d[2], a[0], d[0]);
  mpf_mul(d[3], a[1], d[1]);
  mpf_sub(d[2], d[2], d[3]);
  mpf_mul(d[3], a[0], d[1]);
  mpf_mul(r[1], a[1], d[0]);
  mpf_add(r[1], r[1], d[3]);
  mpf_set(r[0], d[2]);
  return true;
}

void norm(mpf_ptr r, const mpf_t* a, mpf_t* d) {
  mpf_mul(d[0], a[1], a[1]);
  mpf_mul(r, a[0], a[0]);
  mpf_add(r, r, d[0]);
}

void norm2(mpf_ptr r, const mpf_t* a, const mpf_t* b, mpf_t* d) {
  mpf_sub(d[0], a[0], b[0]);
  mpf_sub(d[1], a[1], b[1]);
  mpf_mul(d[0], d[0], d[0]);
  mpf_mul(d[1], d[1], d[1]);
  mpf_add(r, d[0], d[1]);
}

// ---------------------------------------------------------------- series

void inittaylorhp(mpf_t (*c)[2], int prec, mp_bitcnt_t precision) {
  for (int k = 0; k < prec; k++) {
    mpf_init2(c[k][0], precision);
    mpf_init2(c[k][1], precision);
  }
}

void cleartaylorhp(mpf_t (*c)[2], int prec) {
  for (int k = 0; k < prec; k++) {
    mpf_clear(c[k][0]);
    mpf_clear(c[k][1]);
  }
}

void addtaylorhp(mpf_t (*c)[2], const mpf_t (*c1)[2], const mpf_t (*c2)[2], int prec) {
  for (int k = 0; k < prec; k++) add(c[k], c1[k], c2[k]);
}

void multaylorhp(mpf_t (*c)[2], const mpf_t (*c1)[2], const mpf_t (*c2)[2], mpf_t* d, int prec) {
  for (int k = prec - 1; k >= 0; k--) {
    mpf_set_ui(d[0], 0);
    mpf_set_ui(d[1], 0);
    for (int i = k; i >= 0; i--) muladd(d, c1[i], c2[k - i], d + 2);
    mpf_set(c[k][0], d[0]);
    mpf_set(c[k][1], d[1]);
  }
}
