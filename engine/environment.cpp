// Reference points: the pool of arbitrary-precision complex numbers
// (HPVALUE), the life of environments, and the tests that say whether an
// environment still fits a view.
//
// Threads. The HPVALUE pool and the plain counts of its records are the main
// thread's: `addhpv`, `attachhpv`, `detachhpv`, and so `adde`, `addej` and
// `copye`, run there only. An environment's count is atomic: `attache` and
// `detache` may come from any thread, but the holders on other threads hand
// their references back through a step on the main thread, so the detache
// that reaches 0 (and detaches HPVALUEs) runs there too. `getrelativepos`,
// `isenvironmentvalid` and `isenvironmentclose` only read; any thread holding
// a reference may call them, each with a scratch number of its own.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Mandelbrot.h"
#include "pool.h"

namespace {

constexpr unsigned int HPV_KNOWN = HPV_USED | HPV_FREE | HPV_LIMBS;
constexpr unsigned int E_REFERENCEMASK = E_SERIES | E_PERIODIC;  // 80
constexpr int64_t REFDATABYTES = sizeof(REFDATAH) + sizeof(REFDATAD);
static_assert(REFDATABYTES == 64, "an orbit point is budgeted at 64 bytes");

// The orbit arrays may be made by the helper thread while the main thread
// releases others, so their byte count moves atomically.
void subenvrefdata(OVCONTEXT* context, int64_t bytes) {
  __atomic_sub_fetch(&context->mem_envrefdata, bytes, __ATOMIC_SEQ_CST);
}

// The checkpoint array alone is 256 KiB and only its first `nhpv` entries
// mean anything, so it is left as it comes. The graph is left to the
// caller: `adde` marks it unset, `addej` does not touch it.
ENVIRONMENT* allocenvironment() {
  ENVIRONMENT* e = static_cast<ENVIRONMENT*>(malloc(sizeof(ENVIRONMENT)));
  if (!e) {
    fputs("adde: environment overflow.\n", stderr);
    return nullptr;
  }
  char* base = reinterpret_cast<char*>(e);
  memset(base, 0, offsetof(ENVIRONMENT, hpv));
  memset(base + offsetof(ENVIRONMENT, nhpv), 0,
         offsetof(ENVIRONMENT, computergroup) - offsetof(ENVIRONMENT, nhpv));
  memset(base + offsetof(ENVIRONMENT, cf), 0, sizeof(ENVIRONMENT) - offsetof(ENVIRONMENT, cf));
  // Self-linked: removing an environment that was never in a chain is harmless.
  initchain(&e->chain);
  initchain(&e->chainstore);
  e->istore = -1;
  atomicstore(&e->count, 1);
  return e;
}

void freeenvironment(OVCONTEXT* context, ENVIRONMENT* e) {
  atomicdecrementint(&context->ienvironment);
  free(e);
}

ENVIRONMENT* newenvironment(OVCONTEXT* context, mpf_srcptr x, mpf_srcptr y,
                            mp_bitcnt_t precision, bool cleargroup) {
  ENVIRONMENT* e = allocenvironment();
  if (!e) return nullptr;
  atomicincrementint(&context->ienvironment);
  e->precision = precision;
  e->c = addhpv(context, precision);
  if (!e->c) {
    // The pool line is printed already; an environment without its point
    // would only crash later, far from the cause.
    freeenvironment(context, e);
    return nullptr;
  }
  mpf_set(e->c->v[0], x);
  mpf_set(e->c->v[1], y);
  if (cleargroup) e->computergroup.ncomputer = 0;
  return e;
}

// e.c - (x, y), each part taken in mpf and only then reduced, so that a
// point a few ulps of a deep coordinate away still has its true offset.
HFLOATCOMPLEX offset(mpf_ptr scratch, const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y) {
  mpf_sub(scratch, e->c->v[0], x);
  HFLOAT dx = mpf_get_HF(scratch);
  mpf_sub(scratch, e->c->v[1], y);
  HFLOAT dy = mpf_get_HF(scratch);
  return cHF(dx, dy);
}

HFLOAT sqrHF(HFLOAT a) { return mulHF(a, a); }

// 1/|zoom|^2: the squared half-size of the region the view shows.
HFLOAT viewradius2(HFLOATCOMPLEX zoom) { return divHF(ONEH, cabsHFs(zoom)); }

}  // namespace

// ---------------------------------------------------------------- HPVALUE

int64_t hpvaluelimbbytes(const HPVALUE* h) {
  return 8 * (static_cast<int64_t>(h->v[0]->_mp_prec + 1) + (h->v[1]->_mp_prec + 1));
}

HPVALUE* addhpv(OVCONTEXT* context, mp_bitcnt_t precision) {
  // At or past the bound, not only at it: a smaller bound set while values
  // are out must not let the pool run on.
  if (context->ihpvalue >= context->nhpvalue - 2) {
    fputs("hpvalue overflow.\n", stderr);
    return nullptr;
  }
  // pooltake marks the next never-used slot free, which is all the flags
  // such a slot has: it never had limbs.
  HPVALUE* h = pooltake(&context->rhpvalue, &HPVALUE::next);
  context->ihpvalue++;
  if ((h->flags & ~HPV_LIMBS) != HPV_FREE) fputs("addhpv: invalid flags.\n", stderr);
  h->count = 1;
  h->next = nullptr;
  if (h->flags & HPV_LIMBS) {
    context->mem_hpvalue -= hpvaluelimbbytes(h);
    mpf_set_prec(h->v[0], precision);
    mpf_set_prec(h->v[1], precision);
    // A reused slot starts at 0 like a new one, not at a stale value.
    mpf_set_ui(h->v[0], 0);
    mpf_set_ui(h->v[1], 0);
  } else {
    mpf_init2(h->v[0], precision);
    mpf_init2(h->v[1], precision);
  }
  h->flags = HPV_USED | HPV_LIMBS;
  context->mem_hpvalue += hpvaluelimbbytes(h);
  return h;
}

void attachhpv(HPVALUE* h) { h->count++; }

void detachhpv(OVCONTEXT* context, HPVALUE* h) {
  if (!h) return;
  // Only the step to exactly 0 frees: a second detach of a free slot must
  // not put it on the free list twice.
  if (--h->count != 0) return;
  if (h->flags & ~HPV_KNOWN) fputs("detachhpv: invalid flags.\n", stderr);
  // Unknown bits go, so the slot's next use does not report them again.
  h->flags = HPV_FREE | (h->flags & HPV_LIMBS);
  h->next = context->rhpvalue;
  context->rhpvalue = h;
  context->ihpvalue--;
}

// ---------------------------------------------------------------- ENVIRONMENT

ENVIRONMENT* adde(OVCONTEXT* context, mpf_srcptr x, mpf_srcptr y, mp_bitcnt_t precision) {
  return newenvironment(context, x, y, precision, true);
}

// A viewport copy brings its own graph state; this leaves the graph alone.
ENVIRONMENT* addej(OVCONTEXT* context, mpf_srcptr x, mpf_srcptr y, mp_bitcnt_t precision) {
  return newenvironment(context, x, y, precision, false);
}

ENVIRONMENT* copye(OVCONTEXT* context, ENVIRONMENT* source) {
  ENVIRONMENT* e = allocenvironment();
  if (!e) return nullptr;
  atomicincrementint(&context->ienvironment);
  e->provisional = source->provisional;
  if (e->provisional.c) attachhpv(e->provisional.c);
  e->iscopyof = source;
  attache(source);
  // The orbit stays the source's: the reference above keeps it alive.
  e->refdatah = source->refdatah;
  e->refdatad = source->refdatad;
  e->nrefdata = source->nrefdata;
  e->mini = source->mini;
  e->maxi = source->maxi;
  e->n = source->n;
  e->nref = source->nref;
  e->cf = source->cf;
  e->r1 = source->r1;
  e->r2 = source->r2;
  e->r3 = source->r3;
  e->r4 = source->r4;
  e->tmpr2 = source->tmpr2;
  memcpy(e->taylor, source->taylor, sizeof e->taylor);
  e->scalec = source->scalec;
  e->scalez = source->scalez;
  e->precision = source->precision;
  e->flags = source->flags;
  e->c = source->c;
  attachhpv(e->c);
  e->nhpv = source->nhpv;
  for (int k = 0; k < e->nhpv; k++) {
    e->hpv[k] = source->hpv[k];
    attachhpv(e->hpv[k]);
  }
  e->computergroup.ncomputer = 0;
  return e;
}

void attache(ENVIRONMENT* e) { atomicincrementint(&e->count); }

void detache(OVCONTEXT* context, ENVIRONMENT* e) {
  if (!e) return;
  if (atomicload(&e->count) == 0) {
    fprintf(stderr, "detache: FATAL error (%i).\n", static_cast<int>(e->n));
    return;
  }
  if (atomicdecrementint(&e->count) != 0) return;
  if (!e->iscopyof) {
    free(e->refdatah);
    free(e->refdatad);
    subenvrefdata(context, e->nrefdata * REFDATABYTES);
  } else {
    detache(context, e->iscopyof);
  }
  detachhpv(context, e->c);
  for (int k = 0; k < e->nhpv; k++) detachhpv(context, e->hpv[k]);
  detachhpv(context, e->provisional.c);
  freeenvironment(context, e);
}

// ---------------------------------------------------------------- the tests

HFLOATCOMPLEX getrelativepos(mpf_srcptr x, mpf_srcptr y, const ENVIRONMENT* e) {
  if (!e || (e->flags & E_REFERENCEMASK) == E_PERIODIC)
    return cHF(mpf_get_HF(x), mpf_get_HF(y));
  mpf_t scratch;
  mpf_init2(scratch, 64);
  mpf_sub(scratch, x, e->c->v[0]);
  HFLOAT dx = mpf_get_HF(scratch);
  mpf_sub(scratch, y, e->c->v[1]);
  HFLOAT dy = mpf_get_HF(scratch);
  mpf_clear(scratch);
  return cHF(dx, dy);
}

bool isenvironmentvalid(mpf_ptr scratch, const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y,
                        HFLOATCOMPLEX zoom) {
  if (e->n == 1) return true;
  HFLOAT d2 = cabsHFs(offset(scratch, e, x, y));
  HFLOAT z2 = viewradius2(zoom);
  if (e->flags & E_PERIODIC) {
    HFLOAT r12 = sqrHF(e->r1);
    return lessHF(d2, r12) && lessHF(z2, r12);
  }
  if (d2.mantissa == 0) return true;
  if (z2.mantissa == 0) return false;
  // The orbit of a standard environment is followed for about 2^22 view
  // radii of drift before a new one is worth its iteration.
  int32_t ed, ez;
  frexpHF(d2, &ed);
  frexpHF(z2, &ez);
  return static_cast<int64_t>(ez) + 44 >= ed;
}

bool isenvironmentclose(mpf_ptr scratch, const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y,
                        HFLOATCOMPLEX zoom) {
  if (!(e->flags & E_PERIODIC)) return false;
  HFLOAT d2 = cabsHFs(offset(scratch, e, x, y));
  HFLOAT z2 = viewradius2(zoom);
  return lessHF(d2, ldexpHF(z2, 2)) && lessHF(ldexpHF(sqrHF(e->r2), 2), z2);
}
