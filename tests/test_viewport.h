// Viewports in a running engine, for the tests of views, the active list,
// invalidation and drawing: a realm made and waited for, a viewport whose
// finishing events are counted, a brute-force escape count, and the drawn
// list read back on the main thread.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <complex>
#include <tuple>
#include <vector>

#include "test_textures.h"

namespace viewporttest {

using enginetest::waitfor;
using texturetest::TileEngine;

struct FINISHCOUNT {
  std::atomic<int> finish{0};
};

inline void countfinish(OVCONTEXT*, VIEWPORT*, int event, void* pdata) {
  if (event == VPCALLBACK_FINISH) static_cast<FINISHCOUNT*>(pdata)->finish.fetch_add(1);
}

// A realm whose first message has run, with `flags` (automatic format, no
// interpolation: plain iteration that a brute-force count can check).
inline REALM* newrealm(TileEngine& e, REALMTYPE type, unsigned int flags = 0) {
  REALM* realm = addrealm(e.context, type);
  EXPECT_NE(realm, nullptr);
  e.onmain([&](OVCONTEXT*) { realm->flags = flags; });
  return realm;
}

// A view fully made on the main thread, not sent through messages, for tests
// of single steps: square screen of `res` pixels, centre `centre`, zoom
// `zoom`, direction 0, depth limits from the table.
inline VIEWPORT* handmadeview(OVCONTEXT* c, REALM* realm, std::complex<double> centre,
                              std::complex<double> zoom, int res = 256, int priority = 1) {
  VIEWPORT* v = static_cast<VIEWPORT*>(calloc(1, sizeof(VIEWPORT)));
  __initviewport(c, v);
  v->realm = realm;
  attachrealm(realm);
  v->zoom = cHFd(zoom);
  v->zoomabs = cabsHF(v->zoom);
  v->precision = 128;
  for (int k = 0; k < 2; k++) mpf_set_prec(v->dummy[k], 256);
  v->delta = addhpv(c, 128);
  mpf_set_d(v->delta->v[0], centre.real());
  mpf_set_d(v->delta->v[1], centre.imag());
  v->resolution = static_cast<unsigned int>(res);
  v->z0 = {-1, -1};
  v->z1 = {1, 1};
  v->c[0] = v->z0;
  v->c[1] = {1, -1};
  v->c[2] = v->z1;
  v->c[3] = {-1, 1};
  int Z = static_cast<int>(std::trunc(std::log2(res) + std::log2(std::abs(zoom))));
  setdepthlimits(v, Z, 0);
  v->priority = priority;
  return v;
}

// The escape count of c under z^2 + c with radius 2, or -1 within `limit`.
inline int escapecount(std::complex<long double> cc, int limit = 20000) {
  long double x = 0, y = 0;
  for (int n = 1; n <= limit; n++) {
    long double xx = x * x - y * y + cc.real();
    y = 2 * x * y + cc.imag();
    x = xx;
    if (x * x + y * y > 4) return n;
  }
  return -1;
}

// The exact corner of an area.
inline std::complex<long double> areacorner(AREA* a) {
  HFLOATCOMPLEX off;
  HPVALUE* base = getcoordarel(a, &off);
  return {static_cast<long double>(mpf_get_d(base->v[0])) + dlHF(crealHF(off)),
          static_cast<long double>(mpf_get_d(base->v[1])) + dlHF(cimagHF(off))};
}

inline long double areaside(const AREA* a) { return std::ldexp(1.0L, 4 - a->depth); }

// A snapshot of a drawn rectangle.
struct RECTCOPY {
  std::complex<double> c[4];
  int x0, y0, x1, y1;
  AREA* area[NCHANNELS];
  TEXTURE* texture[NCHANNELS];
  int channel[NCHANNELS];
  int ichannels;
};

inline std::vector<RECTCOPY> publishedlist(VIEWPORT* v) {
  std::vector<RECTCOPY> out;
  int list = v->toactivatelist;
  if (list < 0) return out;
  for (unsigned int r = 0; r < v->idrawrect[list]; r++) {
    const DRAWRECT& d = v->drawrect[list][r];
    RECTCOPY k{};
    for (int i = 0; i < 4; i++) k.c[i] = {d.c[i][0], d.c[i][1]};
    k.x0 = d.x0;
    k.y0 = d.y0;
    k.x1 = d.x1;
    k.y1 = d.y1;
    k.ichannels = d.ichannels;
    for (int i = 0; i < d.ichannels; i++) {
      k.texture[i] = d.texture[i];
      k.area[i] = d.texture[i]->area;
      k.channel[i] = d.channel[i];
    }
    out.push_back(k);
  }
  return out;
}

// Where screen point s falls in a rectangle, as (u, v) in [0, 1)^2 of its
// sub-square; false when outside.
inline bool inrect(const RECTCOPY& r, std::complex<double> s, double* u, double* w) {
  std::complex<double> e1 = r.c[1] - r.c[0], e2 = r.c[3] - r.c[0], d = s - r.c[0];
  double det = e1.real() * e2.imag() - e1.imag() * e2.real();
  if (det == 0) return false;
  *u = (d.real() * e2.imag() - d.imag() * e2.real()) / det;
  *w = (e1.real() * d.imag() - e1.imag() * d.real()) / det;
  return *u >= 0 && *u < 1 && *w >= 0 && *w < 1;
}

// A tile by its depth and its corner's place from the view's centre, in
// texels of that depth: the same tile in two computations of the view.
typedef std::tuple<int, long, long> TILEKEY;

inline TILEKEY keyof(AREA* a, const VIEWPORT* v) {
  HFLOATCOMPLEX off;
  HPVALUE* base = getcoordarel(a, &off);
  mp_bitcnt_t bits = mpf_get_prec(base->v[0]) + 64;
  mpf_t t, u;
  mpf_init2(t, bits);
  mpf_init2(u, bits);
  long k[2];
  for (int axis = 0; axis < 2; axis++) {
    mpf_set_HFexact(t, axis ? cimagHF(off) : crealHF(off));
    mpf_add(t, t, base->v[axis]);
    mpf_sub(t, t, v->delta->v[axis]);
    // A texel of depth d is 2^(-4 - d).
    mpf_mul_2exp(u, t, static_cast<mp_bitcnt_t>(a->depth + 4));
    k[axis] = std::lround(mpf_get_d(u));
  }
  mpf_clear(t);
  mpf_clear(u);
  return {a->depth, k[0], k[1]};
}

}  // namespace viewporttest
