// canvasinit.cpp: preparing a canvas for a job and giving it back, and the
// choice of the number format a job runs in.
//
// `initcanvas` is the single fixed cost of an area: it writes all 66,049
// vertices, but leaves the 32,768 orbit blocks and 16,384 checkpoints alone
// (their free lists are extended lazily) and keeps the checkpoints' mpf
// storage from earlier jobs.
#include <gmp.h>

#include <cstdio>
#include <type_traits>

#include "Mandelbrot.h"
#include "canvas/areacubic.h"
#include "canvas/driver.h"
#include "canvas/model.h"
#include "canvas/periodstrides.h"

namespace canvasmodel {

namespace {

// The ratio of signal to accumulated rounding noise a format is trusted with.
template <typename FLOAT>
constexpr double trustedratio() {
  if constexpr (std::is_same_v<FLOAT, float>) return 1e6;
  else if constexpr (std::is_same_v<FLOAT, double>) return 1e14;
  else if constexpr (std::is_same_v<FLOAT, long double>) return 1e18;
  else return 1e15;
}

// 4/7 of 2^62 as the mantissa: the start of the scaled derivative is
// (4/7) 2^(juliasizeshift - 5 - depth), a seventh of 2^(juliasizeshift - 3 - depth).
constexpr HFLOATBASE DFACTORMANTISSA = 0x2492492492492400;
// 0.002 = 0x20C49BA5E353F800 * 2^(-8 - 62): the satellite bound's factor.
constexpr HFLOAT SBOUNDFACTOR = {0x20C49BA5E353F800, -8};

constexpr ITER JULIAMAXITER = 200000000;
constexpr ITER HYPERBOLICMAXITER = 10000000;

// Bit of a job's word for a tile of a stack level: such a job has no frame.
constexpr unsigned int CF_STACKTILE = 0x800000;

// A change of precision within this many bits keeps the scratch storage.
constexpr long PRECISIONSLACK = 10;

void setpow2(mpf_ptr x, long e) {
  mpf_set_ui(x, 1);
  mpf_scale2exp(x, e);
}

template <typename T>
void emptyvalue(typename T::CVALUE* v, unsigned int flags) {
  typedef NUM<typename T::FLOAT> N;
  v->iter = 0;
  v->ref = -1;
  v->data = 0;
  v->hpvalue = nullptr;
  v->value = N::czero();
  v->d = N::czero();
  v->Z = N::zero();
  v->flags = flags;
}

// The frame's series at delta, and its derivative, by Horner.
void frameseries(const JULIASTACKDATA* frame, HFLOATCOMPLEX delta, HFLOATCOMPLEX* value,
                 HFLOATCOMPLEX* derivative) {
  const HFLOATCOMPLEX* t = frame->taylorj;
  constexpr int n = NINTERPOLTAYLOR;
  HFLOATCOMPLEX v = t[n - 1];
  HFLOATCOMPLEX d = cmulHF2(t[n - 1], HFd(n - 1));
  for (int k = n - 2; k >= 0; k--) {
    v = caddHF(cmulHF(v, delta), t[k]);
    if (k >= 1) d = caddHF(cmulHF(d, delta), cmulHF2(t[k], HFd(k)));
  }
  *value = v;
  *derivative = d;
}

// Does `e`'s orbit start at its point `c` in the Julia plane, rather than at
// 0 (the critical orbit of the parameter `c`)?
bool juliaorbitofpoint(const ENVIRONMENT* e) {
  if (!e || !e->c || e->n < 1 || !e->refdatah) return false;
  HFLOATCOMPLEX z0 = e->refdatah[0].value;
  return z0.mantissax != 0 || z0.mantissay != 0;
}

// The job's cubic start for a general area over an environment that is
// not periodic, made here for the area's extent when the job brought none.
// The view's point brings one only where it jumps periods, over a periodic
// environment, whose kernel jumps them itself.
template <typename T>
void takeareacubic(typename T::CANVAS* canvas, WORKER* worker, const ENVIRONMENT* e, int s) {
  typedef NUM<typename T::FLOAT> N;
  if (!e || (e->flags & E_PERIODIC) || !(canvas->flags & CF_GLOBALINTERPOL)) return;
  if (worker->idata[JOB_INTERPOLITER] > 0) return;
  HFLOAT half = NUM<HFLOAT>::pow2(s + canvas->canvassizeshift - 1);
  HFLOATCOMPLEX centre = caddHF(N::ctoHF(canvas->cr), cHF(half, half));
  // The grid's corners lie half a diagonal from its centre; the margin
  // covers the rounding of the centre.
  HFLOAT radius = mulHF(half, HFd(1.4143));
  HFLOATCOMPLEX t[NINTERPOLTAYLOR];
  ITER ip = areacubic(e, centre, radius, NUM<HFLOAT>::pow2(s), 0x7FFFFFFF, t);
  if (ip <= 0) return;
  worker->idata[JOB_INTERPOLITER] = ip;
  for (int k = 0; k < NINTERPOLTAYLOR; k++) worker->hdata[JOB_INTERPOLTAYLOR + k] = t[k];
}

}  // namespace

template <typename T>
void initcanvas(OVCONTEXT* context, typename T::CANVAS* canvas, WORKER* worker, int sizeshift,
                int interpol) {
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  typedef NUM<FLOAT> N;

  unsigned int word = static_cast<unsigned int>(worker->idata[JOB_WORD]);
  int depth = worker->idata[JOB_DEPTH];
  const ENVIRONMENT* e = static_cast<const ENVIRONMENT*>(worker->pdata[JOB_ENVIRONMENT]);
  const HPVALUE* corner = static_cast<const HPVALUE*>(worker->pdata[JOB_CORNER]);
  bool julia = (word & CF_JULIA) != 0;
  bool general = (word & CF_GENERAL) != 0;
  bool hyperbolic = (word & CF_HYPERBOLIC) != 0;
  const JULIASTACKDATA* frame =
      (word & (CF_JULIA | CF_STACKTILE)) == CF_JULIA
          ? static_cast<const JULIASTACKDATA*>(worker->pdata[JOB_JULIAFRAME])
          : nullptr;

  canvas->canvassizeshift = sizeshift;
  canvas->canvasinterpol = interpol;
  canvas->interpoliter = 0;
  canvas->newinterpoliter = 0;
  canvas->oldinterpoliter = 0;
  canvas->oldinterpoliter2 = 0;
  canvas->interpolmindepth = 0;
  canvas->environmenthpvalue = nullptr;
  canvas->oldenvironmenthpvalue = nullptr;
  canvas->oldenvironmenthpvalue2 = nullptr;
  canvas->endenvironmenthpvalue = nullptr;
  canvas->next = nullptr;
  canvas->__worker = worker;
  canvas->statvertices = 0;
  canvas->statiterations = 0;
  canvas->statskipped = 0;
  if (canvas->strides) resetperiodstrides(canvas->strides);
  canvas->__n = 0;
  canvas->flags = word | CF_ACTIVE;
  canvas->depth = depth;
  // The driver fills the lists; a canvas starts with none, so that a driver
  // that finds nothing to do stops at once.
  for (int l = 0; l < NCANVASLEVEL; l++) {
    canvas->workerinfty[l] = -1;
    canvas->worker[l] = -1;
    canvas->workerfailure[l] = -1;
  }
  canvas->minworkerinfty = NCANVASLEVEL;
  canvas->minworker = NCANVASLEVEL;
  canvas->minworkerfailure = NCANVASLEVEL;
  canvas->workerinterpol = -1;

  // A grid step is 2^s: a canvas at depth 0 spans 16 units.
  int s = 4 - depth - sizeshift;

  canvas->dfactor = HFLOAT{DFACTORMANTISSA, context->juliasizeshift - 5 - depth};

  if (julia) {
    // A Julia coordinate needs about twice the bits of a Mandelbrot one.
    canvas->precision = static_cast<mp_bitcnt_t>(64 + 2 * depth);
    canvas->maxiter = JULIAMAXITER;
    canvas->flags |= CF_NOINFTY | CF_ACTIVE;
  } else {
    canvas->precision = static_cast<mp_bitcnt_t>(64 + depth);
    canvas->maxiter = 0;
  }

  if (e && (e->flags & E_SERIES)) {
    canvas->dfactor2 = cdivHF(cmulHF2(e->scalec, canvas->dfactor), e->scalez);
    HFLOAT num = mulHF(mulHF(SBOUNDFACTOR, cabsHFs(e->scalez)), NUM<HFLOAT>::pow2(2 * s));
    canvas->sbound = divHF(num, mulHF(canvas->dfactor, canvas->dfactor));
  } else {
    canvas->dfactor2 = CZEROH;
    canvas->sbound = ZEROH;
  }

  canvas->dbound = N::max();
  if (canvas->flags & CF_JULIACORRECT) {
    if (julia) {
      int k = context->juliasizeshift - 6 - depth;
      canvas->dbound = N::pow2(2 * k + 2);
    } else if (worker->idata[JOB_DBOUND] != -1) {
      int k = -worker->idata[JOB_DBOUND];
      canvas->dbound = N::pow2(2 * k + 2);
    }
  }

  if (!e || (e->flags & (E_SERIES | E_PERIODIC)) == E_PERIODIC) {
    canvas->flags &= ~CF_HPCORRECT;
    if (!(canvas->flags & CF_DERIVATIVE)) {
      if (depth <= 30 && !julia) canvas->flags &= ~CF_INTERPOL;
      canvas->flags |= CF_FAST;
    }
  }
  if (depth <= 31) canvas->flags &= ~CF_HPCORRECT;

  if (canvas->dfactor.mantissa != 0) {
    HFLOAT q = divHF(mulHF(HFd(trustedratio<FLOAT>()), NUM<HFLOAT>::pow2(s)), canvas->dfactor);
    canvas->Zfactor = N::fromHF(mulHF(q, q));
  } else {
    canvas->Zfactor = N::fromHF(mulHF(HFLOAT_MAX, HFLOAT_MAX));
  }

  if (hyperbolic) {
    canvas->flags |= CF_NOINFTY;
    canvas->maxiter = HYPERBOLICMAXITER;
  }

  // GMP keeps no record of the bits asked for, only of whole limbs, so the
  // storage's own figure is what a new precision is measured against.
  long have = static_cast<long>(mpf_get_prec(canvas->c[0]));
  long want = static_cast<long>(canvas->precision);
  if (have - want > PRECISIONSLACK || want - have > PRECISIONSLACK) {
    mpf_ptr scratch[] = {canvas->c[0], canvas->c[1], canvas->dummyvalue, canvas->dummysmall,
                         canvas->x1s,  canvas->y1s,  canvas->x,          canvas->y};
    for (mpf_ptr m : scratch) mpf_set_prec(m, canvas->precision);
  }

  // The origin is exact in mpf: half a step of 2^(s-1) is far below what a
  // double holds once the depth passes a thousand or so.
  HFLOATCOMPLEX ct = worker->hdata[JOB_CT];
  HFLOAT ctpart[2] = {crealHF(ct), cimagHF(ct)};
  for (int k = 0; k < 2; k++) {
    setpow2(canvas->c[k], s - 1);
    mpf_set_HFexact(canvas->dummyvalue, ctpart[k]);
    mpf_add(canvas->c[k], canvas->c[k], canvas->dummyvalue);
    if (corner) mpf_add(canvas->c[k], canvas->c[k], corner->v[k]);
  }
  // Over an environment the origin is kept relative to its point; without
  // one (the Mandelbrot realm shares the general realm's bit) it is absolute.
  // So is a Julia tile's over an orbit that starts at its environment's
  // point (a view's own, from its centre): its vertices start as deviations
  // of that point, made exact in mpf. Started from their rounded places,
  // the vertices of a tile finer than the format's bits at |z| all started
  // at one point. A critical orbit starts at 0, where the place is the
  // deviation.
  if ((general || (julia && !frame && !(word & CF_STACKTILE) && juliaorbitofpoint(e))) && e && e->c) {
    mpf_sub(canvas->dummyvalue, canvas->c[0], e->c->v[0]);
    FLOAT rx = N::frommpf(canvas->dummyvalue);
    mpf_sub(canvas->dummyvalue, canvas->c[1], e->c->v[1]);
    FLOAT ry = N::frommpf(canvas->dummyvalue);
    if constexpr (std::is_same_v<FLOAT, HFLOAT>) canvas->cr = cHF(rx, ry);
    else canvas->cr = COMPLEX(rx, ry);
    canvas->cf = canvas->cr;
  } else {
    FLOAT fx = N::frommpf(canvas->c[0]);
    FLOAT fy = N::frommpf(canvas->c[1]);
    if constexpr (std::is_same_v<FLOAT, HFLOAT>) canvas->cf = cHF(fx, fy);
    else canvas->cf = COMPLEX(fx, fy);
    canvas->cr = N::czero();
  }
  canvas->ct = frame ? frame->mr : ct;

  int size = 1 << sizeshift;
  FLOAT step = N::pow2(s);
  bool startatpoint = julia || hyperbolic;
  COMPLEX dstart = N::czero();
  if (julia) dstart = N::creal(N::fromHF(canvas->dfactor));
  else if (hyperbolic) dstart = N::creal(step);
  for (int y = 0; y <= size; y++) {
    for (int x = 0; x <= size; x++) {
      int i = y * CANVASSIZE + x;
      typename T::CVERTEX* v = &canvas->v[i];
      emptyvalue<T>(&v->v, 0);
      emptyvalue<T>(&v->interpolv, 0);
      emptyvalue<T>(&v->oldv, CV_FAILED);
      emptyvalue<T>(&v->oldv2, CV_FAILED);
      v->maxiter = 0;
      v->depth = 0;
      v->forced = 0;
      v->interpoldepth = 0;
      v->x = x;
      v->y = y;
      for (int k = 0; k < NVXWAKE; k++) v->n[k] = -1;
      v->refiter = 0;
      initchain(&v->hpvchain);
      v->firstdata = -1;
      v->lastdata = -1;
      v->inftydata.ipdata = 0;
      v->index = i;
      v->next = -1;
      v->next2 = -1;
      v->next3 = -1;
      v->next4 = -1;
      v->next5 = -1;
      v->dummy = 0;
      v->flags = 0;
      if (frame) {
        // The level's series carries the orbit `iter` steps on at once.
        HFLOATCOMPLEX z, dz;
        frameseries(frame, N::ctoHF(N::cadd(canvas->cf, N::cscaled(x, y, step))), &z, &dz);
        v->v.value = N::cfromHF(z);
        v->v.d = N::cfromHF(cmulHF2(dz, canvas->dfactor));
        v->v.iter = static_cast<UITER>(frame->iter);
      } else if (startatpoint) {
        v->v.value = N::cadd(canvas->cf, N::cscaled(x, y, step));
        v->v.d = dstart;
      }
    }
  }

  if (!julia) {
    const UITER pending = 0xFFFFFFFFu;
    canvas->v[0].v.iter = pending;
    canvas->v[size].v.iter = pending;
    canvas->v[size * CANVASSIZE].v.iter = pending;
    canvas->v[size * CANVASSIZE + size].v.iter = pending;
  }

  if (general && !julia) takeareacubic<T>(canvas, worker, e, s);

  canvas->ihpvalue = 0;
  canvas->rhpvalue = &canvas->hpvalue[0];
  canvas->hpvalue[0].next = nullptr;
  canvas->idata = 0;
  canvas->rdata = 0;
  canvas->data[0].next = -1;
}

template <typename T>
void removecanvas([[maybe_unused]] OVCONTEXT* context, typename T::CANVAS* canvas) {
  canvas->flags = POOL_FREE;
}

template void initcanvas<CANVASTEMPLATE_float>(OVCONTEXT*, CANVAS_float*, WORKER*, int, int);
template void initcanvas<CANVASTEMPLATE_double>(OVCONTEXT*, CANVAS_double*, WORKER*, int, int);
template void initcanvas<CANVASTEMPLATE_longdouble>(OVCONTEXT*, CANVAS_longdouble*, WORKER*, int,
                                                    int);
template void initcanvas<CANVASTEMPLATE_hfloat>(OVCONTEXT*, CANVAS_hfloat*, WORKER*, int, int);
template void removecanvas<CANVASTEMPLATE_float>(OVCONTEXT*, CANVAS_float*);
template void removecanvas<CANVASTEMPLATE_double>(OVCONTEXT*, CANVAS_double*);
template void removecanvas<CANVASTEMPLATE_longdouble>(OVCONTEXT*, CANVAS_longdouble*);
template void removecanvas<CANVASTEMPLATE_hfloat>(OVCONTEXT*, CANVAS_hfloat*);

}  // namespace canvasmodel

unsigned int canvasformat(unsigned int word, int depth, bool absolute) {
  unsigned int mode = word & CF_MODEPREC;
  if (mode == 0) {
    // A Julia point at depth n needs about twice the range of a Mandelbrot one.
    if (word & CF_JULIA) return depth <= 124 ? 32u : depth <= 1599 ? 48u : 64u;
    const int doubledepth = absolute ? ABSOLUTEDOUBLEDEPTH : 499;
    return depth <= doubledepth ? 32u : depth <= 7999 ? 48u : 64u;
  }
  if (mode == 16 || mode == 32 || mode == 48 || mode == 64) return mode;
  fputs("MSG_CANVAS_CALC: Not supported.\n", stderr);
  return 0;
}

unsigned int canvas_calc_initcanvas(OVCONTEXT* context, WORKER* worker) {
  CANVAS0* canvas = worker->canvas;
  if (!canvas) return 0;
  unsigned int mode =
      canvasformat(static_cast<unsigned int>(worker->idata[JOB_WORD]), worker->idata[JOB_DEPTH],
                   worker->pdata[JOB_ENVIRONMENT] == nullptr);
  // One buffer serves every format: the shared tail sits at one offset.
  switch (mode) {
    case 16:
      initcanvas_float(context, reinterpret_cast<CANVAS_float*>(canvas), worker, 8, 32);
      break;
    case 32:
      initcanvas_double(context, reinterpret_cast<CANVAS_double*>(canvas), worker, 8, 32);
      break;
    case 48:
      initcanvas_longdouble(context, canvas, worker, 8, 32);
      break;
    case 64:
      initcanvas_hfloat(context, reinterpret_cast<CANVAS_hfloat*>(canvas), worker, 8, 32);
      break;
    default:
      break;
  }
  return mode;
}

unsigned int canvas_calc_init(OVCONTEXT* context, WORKER* worker) {
  unsigned int mode = canvas_calc_initcanvas(context, worker);
  CANVAS0* canvas = worker->canvas;
  switch (mode) {
    case 16:
      processcanvas_float(context, reinterpret_cast<CANVAS_float*>(canvas));
      break;
    case 32:
      processcanvas_double(context, reinterpret_cast<CANVAS_double*>(canvas));
      break;
    case 48:
      processcanvas_longdouble(context, canvas);
      break;
    case 64:
      processcanvas_hfloat(context, reinterpret_cast<CANVAS_hfloat*>(canvas));
      break;
    default:
      break;
  }
  return mode;
}
