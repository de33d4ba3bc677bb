// refiter_point.cpp: one point against an environment: the plain deviation
// (`calciterenvironment`), the whole run with period jumps, perturbation and
// cycle detection (`calciterenvironmentex`), and its light form
// (`calciterenvironmentex2`).
#include <algorithm>

#include "canvas/period.h"
#include "refiter_internal.h"

using namespace refiter;

namespace {

constexpr unsigned int E_REFERENCEMASK = E_SERIES | E_PERIODIC;
// The jump stage's margin: the last series term kept, at the point, must stay
// below this fraction of a pixel squared.
constexpr double JUMPMARGIN = 0.0247;
constexpr int CYCLERECURSION = 25;
constexpr int MAXCYCLETRIES = 128;
constexpr ITER NOPERIODLIMIT = 0x7FFFFFFF;
// Below this pixel size the point itself no longer fits HFLOAT's 61 bits
// with room to spare, and only the environment's own period map may decide
// that it is interior.
constexpr int ABSOLUTEDEPTH = -50;
constexpr int ESCAPEEXTRA = 64;

// (10^15 2^depth)^2: the mantissa of 10^30 with the exponent moved.
HFLOAT zfactor(int depth) {
  HFLOAT z = HFd(1e30);
  z.exponent += 2 * depth;
  return z;
}

bool isreference(const ENVIRONMENT* e) {
  return e && (e->flags & E_REFERENCEMASK) != E_PERIODIC && e->refdatah;
}

// The z-series of one period at X = cf scalec: cc_i = sum_j taylor[i + 7j]
// X^j and its derivative in X, for i < prec.
void zseries(const ENVIRONMENT* e, HFLOATCOMPLEX cf, int prec, HFLOATCOMPLEX* cc,
             HFLOATCOMPLEX* dcc) {
  HFLOATCOMPLEX X = cmulHF(cf, e->scalec);
  for (int i = 0; i < prec; i++) {
    HFLOATCOMPLEX b = CZEROH, db = CZEROH;
    for (int j = NTAYLORDEGREE - 1; j >= 0; j--) {
      db = caddHF(cmulHF(db, X), b);
      b = caddHF(cmulHF(b, X), e->taylor[i + NTAYLORDEGREE * j]);
    }
    cc[i] = b;
    dcc[i] = db;
  }
}

// Q(s), dQ/ds, dQ/dX at s.
void evalseries(const HFLOATCOMPLEX* cc, const HFLOATCOMPLEX* dcc, int prec, HFLOATCOMPLEX s,
                HFLOATCOMPLEX* q, HFLOATCOMPLEX* qs, HFLOATCOMPLEX* qx) {
  HFLOATCOMPLEX b = CZEROH, db = CZEROH, bx = CZEROH;
  for (int i = prec - 1; i >= 0; i--) {
    db = caddHF(cmulHF(db, s), b);
    b = caddHF(cmulHF(b, s), cc[i]);
    bx = caddHF(cmulHF(bx, s), dcc[i]);
  }
  *q = b;
  *qs = db;
  *qx = bx;
}

// The state of one run.
struct RUN {
  OVCONTEXT* context;
  ENVIRONMENT* e;
  ITERINFO* info;
  int depth;
  int prec;
  ITER maxiter;
  HFLOATCOMPLEX cabs;  // the point itself, for the absolute paths
  ITER it;             // iterations done
  UITER k;             // reference index of z_it
  HFLOATCOMPLEX delta, dzm, dzj;
  HFLOAT best;  // smallest |z|^2 met, where a cycle is tried
  int tries;
  bool done;
  // The normalised period map at this point (jump stage and cycle radius).
  HFLOATCOMPLEX cc[NTAYLORDEGREE], dcc[NTAYLORDEGREE];
  bool series;
};

// (1 - |m|) / |d^2 f^P / dz^2| at the cycle point: how far from the cycle the
// multiplier stays attracting, the Julia-side radius of the cycle.
HFLOAT cycleradius(HFLOATCOMPLEX m, HFLOATCOMPLEX f2) {
  HFLOAT margin = subHF(ONEH, rootHF(cabsHFs(m)));
  return divHF(margin, rootHF(cabsHFs(f2)));
}

void foundcycle(RUN& r, ITER period, HFLOATCOMPLEX lim, HFLOAT d, HFLOAT dj) {
  ITERINFO* info = r.info;
  info->iter = -period;
  info->lim = lim;
  info->inorm = r.it;
  info->d = d;
  info->dj = dj;
  r.done = true;
}

// A cycle through the period map of the environment: `jumps` periods.
bool generalcycle(RUN& r, ITER jumps) {
  HFLOATCOMPLEX c = r.info->cf, m = CZEROH, dz = CZEROH;
  HFLOAT d = ZEROH;
  ITER maxjumps = r.maxiter / static_cast<ITER>(r.e->n) + 1;
  ITER p = checkperiodgeneral_hfloat(r.depth, &c, r.e, r.prec, jumps, std::max(maxjumps, jumps + 1),
                                     CYCLERECURSION, true, nullptr, nullptr, &d, nullptr, &m, &dz,
                                     nullptr);
  if (p <= 0) return false;
  // The radius in normalised coordinates, u = scalez z, taken back to z.
  HFLOATCOMPLEX v[2 * NTAYLORDEGREE - 1] = {}, dv[2 * NTAYLORDEGREE - 1] = {};
  for (int i = 0; i < r.prec; i++) {
    v[2 * i] = r.cc[i];
    dv[2 * i] = r.dcc[i];
  }
  HFLOATCOMPLEX u = cmulHF(c, r.e->scalez), f, g, pc, f2, g2;
  calcigeneral4_hfloat(u, v, dv, 2 * r.prec - 1, p, &f, &g, &pc, &f2, &g2);
  HFLOAT dj = divHF(cycleradius(m, f2), rootHF(cabsHFs(r.e->scalez)));
  foundcycle(r, p * static_cast<ITER>(r.e->n), c, d, dj);
  return true;
}

bool absolutecycle(RUN& r, ITER period) {
  HFLOATCOMPLEX c = r.cabs, m = CZEROH, dz = CZEROH;
  HFLOAT d = ZEROH;
  ITER p = checkperiod_hfloat(r.depth, &c, period, NOPERIODLIMIT, CYCLERECURSION, true, nullptr,
                              nullptr, &d, nullptr, &m, &dz, nullptr);
  if (p <= 0) return false;
  HFLOATCOMPLEX f, g, pc, f2, g2;
  calci4_hfloat(c, r.cabs, p, &f, &g, &pc, &f2, &g2);
  foundcycle(r, p, c, d, cycleradius(m, f2));
  return true;
}

// At each new closest approach to 0 the iteration count is a candidate
// period: through the environment's period map when it is a whole number of
// its periods, otherwise directly where the point fits HFLOAT.
void trycycle(RUN& r, HFLOATCOMPLEX z) {
  if (r.it < 1) return;
  HFLOAT L = cabsHFs(z);
  if (!lessHF(L, r.best)) return;
  r.best = L;
  if (r.tries >= MAXCYCLETRIES) return;
  r.tries++;
  if (r.series && r.it % static_cast<ITER>(r.e->n) == 0) {
    if (generalcycle(r, r.it / static_cast<ITER>(r.e->n))) return;
  }
  bool direct = !isreference(r.e) || r.depth >= ABSOLUTEDEPTH;
  if (direct) absolutecycle(r, r.it);
}

// Whole periods by the series while its last kept term stays below the
// margin at the pixel size.
void jumpstage(RUN& r) {
  const ENVIRONMENT* e = r.e;
  const HFLOATCOMPLEX t1 = e->scalez;
  const ITER n = static_cast<ITER>(e->n);
  const ITER maxjumps = r.maxiter / n;
  HFLOAT margin = mulHF(HFd(JUMPMARGIN), HFLOAT{HFLOATBASE(1) << 61, 2 * r.depth + 1});
  HFLOAT last = divHF(cabsHFs(r.cc[r.prec - 1]), cabsHFs(t1));
  // The series ends at X^6 too: where its last c-term of the constant
  // column already reaches the margin, not even the first period is jumped.
  HFLOAT x2 = cabsHFs(cmulHF(r.info->cf, e->scalec)), lastc = cabsHFs(e->taylor[NTAYLOR - NTAYLORDEGREE]);
  for (int j = 1; j < NTAYLORDEGREE; j++) lastc = mulHF(lastc, x2);
  if (!lessHF(divHF(lastc, cabsHFs(t1)), margin)) return;
  HFLOATCOMPLEX u = CZEROH, du = CZEROH, dzj = CZEROH;
  ITER j = 0;
  for (; j < maxjumps && !r.done; j++) {
    HFLOATCOMPLEX s = csqrHF(u);
    if (j > 0) {
      HFLOAT s2 = cabsHFs(s), err = last;
      for (int i = 1; i < r.prec; i++) err = mulHF(err, s2);
      if (!lessHF(err, margin)) break;
    }
    HFLOATCOMPLEX q, qs, qx;
    evalseries(r.cc, r.dcc, r.prec, s, &q, &qs, &qx);
    // An orbit that ends a period outside the circle escaped within it: the
    // exact iteration is left to the perturbation stage.
    if (!lessHF(cabsHFs(cdivHF(q, t1)), FOURH)) break;
    HFLOATCOMPLEX twou = twiceHF(u);
    du = caddHF(qx, cmulHF(cmulHF(qs, twou), du));
    dzj = j == 0 ? cmulHF(t1, qs) : cmulHF(dzj, cmulHF(twou, qs));
    u = q;
    r.it += n;
    trycycle(r, cdivHF(u, t1));
  }
  if (j == 0) return;
  r.info->interpoliter = r.it;
  r.delta = cdivHF(u, t1);
  r.dzm = cmulHF(du, cdivHF(e->scalec, t1));
  r.dzj = dzj;
  r.k = 0;
}

// One iteration at a time against the reference. False when the run has to
// go on in mpf.
bool perturbstage(RUN& r) {
  const ENVIRONMENT* e = r.e;
  const bool periodic = (e->flags & E_SERIES) != 0;
  const HFLOAT zf = zfactor(r.depth);
  const HFLOATCOMPLEX cf = r.info->cf;
  const UITER length = std::min<UITER>(e->n, static_cast<UITER>(e->nrefdata));
  while (r.it < r.maxiter && !r.done) {
    if (!periodic && r.k >= length) return false;
    const REFDATAH& ref = e->refdatah[r.k];
    const HFLOATCOMPLEX zr = ref.value, d = r.delta;
    HFLOATCOMPLEX z = caddHF(zr, d);
    // |zr + d|^2 >= 4 against the exact margin of the reference.
    HFLOAT dd = cabsHFs(d);
    HFLOAT cross = addHF(mulHF(crealHF(zr), crealHF(d)), mulHF(cimagHF(zr), cimagHF(d)));
    if (!lessHF(addHF(ldexpHF(cross, 1), dd), ref.a)) {
      finishescape(r.info, r.it, r.cabs, z, r.dzm, r.dzj);
      r.done = true;
      return true;
    }
    if (lessHF(mulHF(zf, cabsHFs(z)), dd)) return false;
    trycycle(r, z);
    if (r.done) return true;
    HFLOATCOMPLEX twoz = twiceHF(z);
    r.dzj = r.it == 0 ? CONEH : cmulHF(twoz, r.dzj);
    r.dzm = caddHF(cmulHF(twoz, r.dzm), CONEH);
    r.delta = caddHF(caddHF(cmulHF(twiceHF(zr), d), csqrHF(d)), cf);
    r.k++;
    if (periodic && r.k >= e->n) r.k = 0;
    r.it++;
  }
  return true;
}

// Without a reference: z^2 + c in HFLOAT from 0.
void absolutestage(RUN& r) {
  HFLOATCOMPLEX z = CZEROH;
  while (r.it < r.maxiter && !r.done) {
    if (!lessHF(cabsHFs(z), FOURH)) {
      finishescape(r.info, r.it, r.cabs, z, r.dzm, r.dzj);
      r.done = true;
      return;
    }
    trycycle(r, z);
    if (r.done) return;
    HFLOATCOMPLEX twoz = twiceHF(z);
    r.dzj = r.it == 0 ? CONEH : cmulHF(twoz, r.dzj);
    r.dzm = caddHF(cmulHF(twoz, r.dzm), CONEH);
    z = caddHF(csqrHF(z), r.cabs);
    r.it++;
  }
  r.info->z = z;
}

}  // namespace

namespace refiter {

void clearresults(ITERINFO* info) {
  info->interpoliter = 0;
  for (int k = 0; k < NINTERPOLTAYLOR; k++) info->interpoltaylor[k] = CZEROH;
  info->iter = 0;
  info->z = CZEROH;
  info->dzm = CZEROH;
  info->dzj = CZEROH;
  info->d = ZEROH;
  info->dj = ZEROH;
  info->distj = ZEROH;
  info->distm = ZEROH;
  info->lim = CZEROH;
  info->inorm = 0;
  info->precisionfailure = false;
  info->lookup = false;
}

void finishescape(ITERINFO* info, ITER iter, HFLOATCOMPLEX c, HFLOATCOMPLEX z, HFLOATCOMPLEX dzm,
                  HFLOATCOMPLEX dzj) {
  info->iter = iter;
  const HFLOAT far = HFd(DISTANCERADIUS2);
  for (int k = 0; k < ESCAPEEXTRA && lessHF(cabsHFs(z), far); k++) {
    HFLOATCOMPLEX twoz = twiceHF(z);
    dzj = cmulHF(twoz, dzj);
    dzm = caddHF(cmulHF(twoz, dzm), CONEH);
    z = caddHF(csqrHF(z), c);
  }
  info->z = z;
  info->dzm = dzm;
  info->dzj = dzj;
  info->distm = distmsquaredHF(z, dzm);
  info->distj = distjsquaredHF(z, dzj);
  info->d = rootHF(info->distm);
  info->dj = rootHF(info->distj);
}

}  // namespace refiter

HFLOAT distmsquaredHF(HFLOATCOMPLEX z, HFLOATCOMPLEX dzm) {
  HFLOAT L = cabsHFs(z);
  HFLOAT dd = cabsHFs(dzm);
  if (L.mantissa == 0) return ZEROH;
  // (|z| ln|z|)^2 = L (ln L / 2)^2.
  HFLOAT half = ldexpHF(logHF(L), -1);
  return divHF(mulHF(L, mulHF(half, half)), dd);
}

HFLOAT distjsquaredHF(HFLOATCOMPLEX z, HFLOATCOMPLEX dzj) { return distmsquaredHF(z, dzj); }

bool calciterenvironment(OVCONTEXT*, ENVIRONMENT* e, int depth, HFLOATCOMPLEX c, ITER iter,
                         HFLOATCOMPLEX* value) {
  if (iter < 1) {
    *value = CZEROH;
    return true;
  }
  if (!(e->flags & E_SERIES)) {
    if (!(e->flags & E_PERIODIC)) {
      if (e->n < static_cast<UITER>(iter)) return false;
      *value = CZEROH;
      return true;
    }
    HFLOATCOMPLEX cc = caddHF(e->cf, c), z = CZEROH;
    for (ITER i = 0; i < iter; i++) z = caddHF(csqrHF(z), cc);
    *value = z;
    return true;
  }
  if (!e->refdatah || e->n < 1) return false;
  const HFLOAT zf = zfactor(depth);
  HFLOATCOMPLEX delta = CZEROH, zr = e->refdatah[0].value;
  UITER k = 1 % e->n;
  for (ITER i = 0; i < iter; i++) {
    HFLOATCOMPLEX zrn = e->refdatah[k].value;
    delta = caddHF(caddHF(cmulHF(twiceHF(zr), delta), csqrHF(delta)), c);
    if (lessHF(mulHF(zf, cabsHFs(caddHF(zrn, delta))), cabsHFs(delta))) return false;
    zr = zrn;
    if (++k >= e->n) k = 0;
  }
  *value = delta;
  return true;
}

void calciterenvironmentex(OVCONTEXT* context, int depth, ENVIRONMENT* e, int prec, ITER maxiter,
                           ITERINFO* info, REALM*, int, double, ITER, SATINFO*, int, int) {
  info->e = e;
  info->cf = getrelativepos(info->c->v[0], info->c->v[1], e);
  clearresults(info);
  RUN r{};
  r.context = context;
  r.e = e;
  r.info = info;
  r.depth = depth;
  r.prec = std::min(prec, NTAYLORDEGREE);
  r.maxiter = maxiter;
  r.cabs = cHF(mpf_get_HF(info->c->v[0]), mpf_get_HF(info->c->v[1]));
  r.best = HFLOAT_MAX;
  r.dzm = CZEROH;
  r.dzj = CZEROH;
  if (!isreference(e)) {
    absolutestage(r);
    return;
  }
  r.series = (e->flags & E_SERIES) && r.prec > 2 && e->n >= 1;
  if (r.series) {
    zseries(e, info->cf, r.prec, r.cc, r.dcc);
    jumpstage(r);
  }
  if (r.done) return;
  if (perturbstage(r)) {
    if (!r.done && r.k < static_cast<UITER>(e->nrefdata))
      info->z = caddHF(e->refdatah[r.k].value, r.delta);
    return;
  }
  calciterenvironmentexhp(context, depth, e, maxiter, info, r.it, r.delta, r.dzm, r.dzj);
}

bool calciterenvironmentex2(OVCONTEXT* context, int depth, ENVIRONMENT* e, int prec, ITER maxiter,
                            HFLOATCOMPLEX c, HFLOATCOMPLEX* value, HFLOATCOMPLEX* d) {
  if (e && (e->flags & E_SERIES) && (!e->refdatah || prec < 3)) return false;
  if (!isreference(e)) {
    HFLOATCOMPLEX z = CZEROH, dz = CZEROH;
    for (ITER i = 0; i < maxiter; i++) {
      dz = caddHF(cmulHF(twiceHF(z), dz), CONEH);
      z = caddHF(csqrHF(z), c);
    }
    *value = z;
    *d = dz;
    return true;
  }
  // The run of calciterenvironmentex without its tests: no escape, no cycle.
  ITERINFO scratch{};
  RUN r{};
  r.context = context;
  r.e = e;
  r.info = &scratch;
  scratch.cf = c;
  r.depth = depth;
  r.prec = std::min(prec, NTAYLORDEGREE);
  r.maxiter = maxiter;
  r.tries = MAXCYCLETRIES;
  r.best = ZEROH;
  r.series = (e->flags & E_SERIES) != 0;
  if (r.series) {
    zseries(e, c, r.prec, r.cc, r.dcc);
    jumpstage(r);
  }
  const bool periodic = r.series;
  const HFLOAT zf = zfactor(depth);
  const UITER length = std::min<UITER>(e->n, static_cast<UITER>(e->nrefdata));
  while (r.it < maxiter) {
    if (!periodic && r.k >= length) break;
    HFLOATCOMPLEX zr = e->refdatah[r.k].value, dl = r.delta;
    HFLOATCOMPLEX z = caddHF(zr, dl);
    if (lessHF(mulHF(zf, cabsHFs(z)), cabsHFs(dl))) break;
    r.dzm = caddHF(cmulHF(twiceHF(z), r.dzm), CONEH);
    r.delta = caddHF(caddHF(cmulHF(twiceHF(zr), dl), csqrHF(dl)), c);
    if (++r.k >= e->n && periodic) r.k = 0;
    r.it++;
  }
  if (r.it < maxiter || (!periodic && r.k >= length))
    return calciterenvironmentexhp2(context, e, maxiter, c, r.it, r.delta, r.dzm, value, d);
  *value = caddHF(e->refdatah[r.k].value, r.delta);
  *d = r.dzm;
  return true;
}
