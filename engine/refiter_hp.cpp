// refiter_hp.cpp: where HFLOAT no longer carries the pixel, the run goes on
// in mpf from the reference's full-precision orbit point; and the plain mpf
// run of a point without environment.
#include "canvas/series.h"
#include "envhp.h"
#include "refiter_internal.h"

using namespace refiter;

namespace {

// A complex mpf number with its scratch, all at one precision.
struct HPZ {
  mpf_t z[2], c[2], xx, yy, t;

  explicit HPZ(mp_bitcnt_t precision) {
    mpf_init2(z[0], precision);
    mpf_init2(z[1], precision);
    mpf_init2(c[0], precision);
    mpf_init2(c[1], precision);
    mpf_init2(xx, precision);
    mpf_init2(yy, precision);
    mpf_init2(t, precision);
  }
  ~HPZ() {
    mpf_clear(z[0]);
    mpf_clear(z[1]);
    mpf_clear(c[0]);
    mpf_clear(c[1]);
    mpf_clear(xx);
    mpf_clear(yy);
    mpf_clear(t);
  }
  HPZ(const HPZ&) = delete;
  HPZ& operator=(const HPZ&) = delete;

  // x^2 and y^2 into xx, yy; returns 4 - x^2 - y^2 as HFLOAT.
  HFLOAT margin() {
    mpf_mul(xx, z[0], z[0]);
    mpf_mul(yy, z[1], z[1]);
    mpf_add(t, xx, yy);
    mpf_ui_sub(t, 4, t);
    return mpf_get_HF(t);
  }
  // z <- z^2 + c, with xx, yy from margin().
  void step() {
    mpf_mul(t, z[0], z[1]);
    mpf_mul_2exp(t, t, 1);
    mpf_add(z[1], t, c[1]);
    mpf_sub(t, xx, yy);
    mpf_add(z[0], t, c[0]);
  }
  HFLOATCOMPLEX value() const { return cHF(mpf_get_HF(z[0]), mpf_get_HF(z[1])); }
};

// The reference point at `iter` plus the deviation, into h.z.
bool startfromreference(HPZ& h, ENVIRONMENT* e, ITER iter, HFLOATCOMPLEX delta) {
  // The pair is contiguous: z[1] follows z[0].
  if (!getenvironmenthpvalueraw(e, iter, h.z[0])) return false;
  mpf_t d[2];
  mpf_init2(d[0], mpf_get_prec(h.t));
  mpf_init2(d[1], mpf_get_prec(h.t));
  set(d, delta);
  add(h.z, h.z, d);
  mpf_clear(d[0]);
  mpf_clear(d[1]);
  return true;
}

// From h.z at iteration `iter` to escape or `maxiter`, with the derivatives
// alongside in HFLOAT. True when the orbit escaped.
bool runhp(HPZ& h, ITERINFO* info, ITER iter, ITER maxiter, HFLOATCOMPLEX dzm,
           HFLOATCOMPLEX dzj) {
  HFLOATCOMPLEX c = cHF(mpf_get_HF(h.c[0]), mpf_get_HF(h.c[1]));
  for (; iter < maxiter; iter++) {
    HFLOAT a = h.margin();
    HFLOATCOMPLEX z = h.value();
    if (a.mantissa <= 0) {
      finishescape(info, iter, c, z, dzm, dzj);
      return true;
    }
    HFLOATCOMPLEX twoz = twiceHF(z);
    dzj = iter == 0 ? CONEH : cmulHF(twoz, dzj);
    dzm = caddHF(cmulHF(twoz, dzm), CONEH);
    h.step();
  }
  info->z = h.value();
  info->dzm = dzm;
  info->dzj = dzj;
  return false;
}

}  // namespace

void calciterenvironmentexhp(OVCONTEXT*, int, ENVIRONMENT* e, ITER maxiter, ITERINFO* info,
                             ITER iter, HFLOATCOMPLEX delta, HFLOATCOMPLEX dzm,
                             HFLOATCOMPLEX dzj) {
  HPZ h(e->precision);
  if (!startfromreference(h, e, iter, delta)) {
    info->iter = 0;
    info->precisionfailure = true;
    return;
  }
  mpf_set(h.c[0], info->c->v[0]);
  mpf_set(h.c[1], info->c->v[1]);
  if (!runhp(h, info, iter, maxiter, dzm, dzj)) {
    info->iter = 0;
    info->precisionfailure = true;
  }
}

bool calciterenvironmentexhp2(OVCONTEXT*, ENVIRONMENT* e, ITER maxiter, HFLOATCOMPLEX c,
                              ITER iter, HFLOATCOMPLEX delta, HFLOATCOMPLEX d,
                              HFLOATCOMPLEX* value, HFLOATCOMPLEX* dout) {
  HPZ h(e->precision);
  if (!startfromreference(h, e, iter, delta)) return false;
  set(h.c, c);
  add(h.c, h.c, e->c->v);
  for (; iter < maxiter; iter++) {
    h.margin();
    d = caddHF(cmulHF(twiceHF(h.value()), d), CONEH);
    h.step();
  }
  *value = h.value();
  *dout = d;
  return true;
}

void calciterenvironmentextmp(OVCONTEXT*, ITER maxiter, ITERINFO* info, mp_bitcnt_t precision) {
  info->e = nullptr;
  info->cf = cHF(mpf_get_HF(info->c->v[0]), mpf_get_HF(info->c->v[1]));
  clearresults(info);
  HPZ h(precision);
  mpf_set_ui(h.z[0], 0);
  mpf_set_ui(h.z[1], 0);
  mpf_set(h.c[0], info->c->v[0]);
  mpf_set(h.c[1], info->c->v[1]);
  runhp(h, info, 0, maxiter, CZEROH, CZEROH);
}
