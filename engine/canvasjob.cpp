// canvasjob.cpp: the road of one area's data: `processarea` on the main
// thread turns an area into a canvas job with one locked tile per channel;
// `worker_canvas_calc` computes and renders it on a worker thread with the
// thread's canvas; its return on the main thread installs the tiles through
// the upload step. Everything a job holds comes back through
// `freecanvascalcworker`, whichever way the job ends.
//
// The Julia path: an area whose realm corrects through a stack with a ready
// level renders PREPIXELs into a pixel buffer instead
// (`worker_canvas_calc_juliacorrect`), which the correction resolves before
// the channels are made from it (`worker_prepixel2pixel`); a stack level's
// tile is rendered the same way into the tile (`worker_canvas_calc_inner`).
#include <cstdio>
#include <cstring>

#include "Mandelbrot.h"
#include "juliastack.h"
#include "canvas/model.h"
#include "canvas/render.h"

namespace {

// Bits of the realm's flag word that become the job's word.
constexpr unsigned int JOBREALMBITS = 0x300050F6;
// Channels that need more than the count: value, distance, derivative.
constexpr unsigned int MORETHANCOUNT = 0x1F6;
// Work is deferred while this many worker records are in use.
constexpr int WORKERSDEFER = 50000;

unsigned int realmtypebit(REALMTYPE type) {
  switch (type) {
    case JULIA: return CF_JULIA;
    case HYPERBOLIC: return CF_HYPERBOLIC;
    default: return CF_GENERAL;
  }
}

// The environment-dependent part of the word. No environment counts as the
// periodic kind: the orbit starts from 0 at the canvas's own points, so the
// interior tests apply. So do they over a satellite environment, whose
// period map the series form of the tests iterates.
unsigned int environmentbits(const ENVIRONMENT* e, unsigned int channels) {
  bool more = channels & MORETHANCOUNT;
  bool periodic = !e || (e->flags & E_PERIODIC);
  if (periodic) return more ? CF_DERIVATIVE : 0;
  return CF_NOINFTY | (more ? CF_DERIVATIVE : 0);
}

// The realm's modes recorded in the area: data made under other modes are
// stale (`isvalid`).
void takemodes(AREA* a, const REALM* r) {
  unsigned int f = r->flags;
  a->flags &= ~A_MADEWITH;
  a->flags |= (f & R_INTERPOL ? A_INTERPOL : 0) | (f & R_SUPERINTERPOL ? A_SUPERINTERPOL : 0) |
              (f & R_GLOBALINTERPOL ? A_GLOBALINTERPOL : 0) | (f & R_HPCORRECT ? A_HPCORRECT : 0) |
              (f & R_JULIACORRECT ? A_JULIACORRECT : 0);
  a->modeprec = f & R_PRECMASK;
  a->precoffset = r->precoffset;
}

// Are the tiles of every channel there and of the realm's cycle?
bool tilescurrent(const AREA* a) {
  for (int i = 0; i < NCHANNELS; i++) {
    if (!(a->channels >> i & 1)) continue;
    const TEXTURE* t = a->texture[i];
    if (!t || t->computecycle != a->realm->computecycle) return false;
  }
  return true;
}

// One new locked tile per channel; false, with whatever was taken given back
// by the caller's `freecanvascalcworker`, when the pools run dry.
bool taketiles(OVCONTEXT* context, AREA* a, WORKER* w) {
  for (int i = 0; i < NCHANNELS; i++) {
    if (!(a->channels >> i & 1)) continue;
    TEXTURE* t = addt(context, a);
    if (!t) return false;
    w->pdata[JOB_TEXTURE + i] = t;
    lockmemtexture(context, t);
    if (!t->pixels) return false;
  }
  return true;
}

void fillword(AREA* a, WORKER* w) {
  const REALM* r = a->realm;
  unsigned int word =
      (r->flags & JOBREALMBITS) | environmentbits(a->e, a->channels) | realmtypebit(r->type);
  w->idata[JOB_WORD] = static_cast<ITER>(word);
  w->idata[JOB_ORDER] = a->prec + r->precoffset;
  w->idata[JOB_DEPTH] = a->depth;
  w->idata[JOB_DBOUND] = -1;
  w->idata[JOB_INTERPOLITER] = a->interpoliter;
  for (int k = 0; k < NINTERPOLTAYLOR && JOB_INTERPOLTAYLOR + k < NWORKERHDATA; k++)
    w->hdata[JOB_INTERPOLTAYLOR + k] = a->interpoltaylor[k];
}

// The Julia parameter and its attractor come with the realm's point.
void filljulia(AREA* a, WORKER* w) {
  const REALM* r = a->realm;
  if (r->type != JULIA) return;
  if (!r->info.c) {
    // No point yet: the seed 0, not whatever a pooled worker's last job
    // left in these slots.
    w->hdata[JOB_JULIAPOINT] = CZEROH;
    w->idata[JOB_ATTRACTOR] = 0;
    w->hdata[JOB_TRAPCENTRE] = CZEROH;
    w->hdata[JOB_TRAPRADIUS] = CZEROH;
    return;
  }
  attachhpv(r->info.c);
  w->pdata[JOB_JULIA] = r->info.c;
  w->hdata[JOB_JULIAPOINT] = cHF(mpf_get_HF(r->info.c->v[0]), mpf_get_HF(r->info.c->v[1]));
  w->idata[JOB_ATTRACTOR] = r->info.iter < 0 ? r->info.iter : 0;
  w->hdata[JOB_TRAPCENTRE] = r->info.z;
  w->hdata[JOB_TRAPRADIUS] = HFLOATCOMPLEX{r->info.dj.mantissa, 0, r->info.dj.exponent};
}

// The seed's critical orbit for an area of a Julia realm computed over its
// view's own orbit (one that starts at its point, not at 0): the realm's
// environment where it sits on the seed itself and starts at 0.
ENVIRONMENT* seedorbit(const AREA* a) {
  const REALM* r = a->realm;
  const ENVIRONMENT* v = a->e;
  ENVIRONMENT* s = r->type == JULIA ? r->e : nullptr;
  if (!s || !v || !v->refdatah || v->n < 1 || !s->c || !r->info.c || s->n < 1 || !s->refdatah ||
      !s->refdatad || s->nrefdata < static_cast<int>(s->n) + 1)
    return nullptr;
  HFLOATCOMPLEX v0 = v->refdatah[0].value, s0 = s->refdatah[0].value;
  if ((v0.mantissax == 0 && v0.mantissay == 0) || s0.mantissax != 0 || s0.mantissay != 0) return nullptr;
  if (s->c != r->info.c && (mpf_cmp(s->c->v[0], r->info.c->v[0]) != 0 ||
                            mpf_cmp(s->c->v[1], r->info.c->v[1]) != 0))
    return nullptr;
  return s;
}

// Calls f with the canvas template of format `mode` (a value of the type),
// so that each step of a job is written once over the formats.
template <typename F>
void withformat(unsigned int mode, F f) {
  switch (mode) {
    case CANVASTEMPLATE_float::MODE: f(CANVASTEMPLATE_float{}); break;
    case CANVASTEMPLATE_double::MODE: f(CANVASTEMPLATE_double{}); break;
    case CANVASTEMPLATE_longdouble::MODE: f(CANVASTEMPLATE_longdouble{}); break;
    case CANVASTEMPLATE_hfloat::MODE: f(CANVASTEMPLATE_hfloat{}); break;
  }
}

template <typename T>
typename T::CANVAS* canvasas(CANVAS0* canvas) {
  return reinterpret_cast<typename T::CANVAS*>(canvas);
}

// Renders the finished canvas of format `mode` into the job's tiles.
void renderjob(OVCONTEXT* context, WORKER* worker, unsigned int mode) {
  float* pixels[NCHANNELS];
  for (int i = 0; i < NCHANNELS; i++) {
    TEXTURE* t = static_cast<TEXTURE*>(worker->pdata[JOB_TEXTURE + i]);
    pixels[i] = t ? static_cast<float*>(t->pixels) : nullptr;
  }
  withformat(mode, [&](auto format) {
    typedef decltype(format) T;
    canvasrender::rendercanvas<T>(context, canvasas<T>(worker->canvas), pixels, TEXTURESIZE);
  });
}

void removejobcanvas(OVCONTEXT* context, WORKER* worker, unsigned int mode) {
  withformat(mode, [&](auto format) {
    typedef decltype(format) T;
    canvasmodel::removecanvas<T>(context, canvasas<T>(worker->canvas));
  });
}

// Renders the finished canvas as PREPIXELs, corrected at once where the
// stack's tiles are in memory; the correction's answer.
int renderprepixels(OVCONTEXT* context, WORKER* worker, unsigned int mode, PREPIXEL* pixels) {
  int result = 0;
  withformat(mode, [&](auto format) {
    typedef decltype(format) T;
    result = canvasrender::rendercanvasprepixel<T>(context, canvasas<T>(worker->canvas), pixels,
                                                   PREPIXELTILESIZE, true);
  });
  return result;
}

// Where an inner job writes: the stack tile it locked, or its pixel buffer.
PREPIXEL* innertarget(WORKER* worker) {
  if (JULIACACHE* jc = static_cast<JULIACACHE*>(worker->pdata[JOB_JULIACACHE])) return jc->data;
  return worker->prepixels ? worker->prepixels->pixels : nullptr;
}

// The stack an area's job corrects through: its realm's own, or for the
// general realm that of its Julia realm, once a level of it is ready.
REALM* correctingrealm(const AREA* a) {
  REALM* r = a->realm;
  if (!(r->flags & R_JULIACORRECT)) return nullptr;
  if (r->type == GENERAL)
    return juliastackhandoff(a->juliarealm, a->depth, a->e) >= 0 ? a->juliarealm : nullptr;
  if (r->type != JULIA || !r->juliastack) return nullptr;
  return atomicload(&r->readyjuliastack) >= 0 ? r : nullptr;
}

// What the channels of an area made from PREPIXELs need to know: the
// pixel's size, c of its first pixel or the Julia parameter, and the seed's
// attractor.
void fillchannelparams(AREA* a, WORKER* w) {
  const REALM* r = a->realm;
  bool julia = r->type == JULIA;
  w->idata[JOB_WORD] = julia ? static_cast<ITER>(CF_JULIA) : 0;
  w->idata[JOB_PIXELSIZE] = 4 - a->depth - PREPIXELTILESIZESHIFT;
  HFLOATCOMPLEX base;
  if (julia && r->info.c) {
    base = cHF(mpf_get_HF(r->info.c->v[0]), mpf_get_HF(r->info.c->v[1]));
  } else {
    HFLOATCOMPLEX ct;
    HPVALUE* corner = getcoordarel(a, &ct);
    base = corner ? caddHF(cHF(mpf_get_HF(corner->v[0]), mpf_get_HF(corner->v[1])), ct) : ct;
  }
  w->hdata[JOB_BASE] = base;
  w->hdata[JOB_TRAPCENTRE] = r->info.z;
  w->hdata[JOB_TRAPRADIUS] = HFLOATCOMPLEX{r->info.dj.mantissa, 0, r->info.dj.exponent};
  w->idata[JOB_MITER] = r->info.iter;
}

int jobprio(const AREA* a) {
  return a->priority > 0 && a->priority < NWORKERPRIO ? a->priority : NWORKERPRIO - 1;
}

// The stack tile an area of a Julia realm shows at its level and place.
JULIACACHE* innertile(OVCONTEXT* context, const AREA* a) {
  const REALM* r = a->realm;
  if (r->type != JULIA || !r->juliastack || a->xinner < 0 || a->yinner < 0) return nullptr;
  int level = a->depth - (context->juliasizeshift - 6);
  if (level < 0) level = 0;
  if (level >= r->njuliastack || level > atomicload(&r->readyjuliastack)) return nullptr;
  const JULIASTACKDATA& L = r->juliastack[level];
  int n = 1 << L.sizeshift;
  if (a->xinner >= n || a->yinner >= n || a->xinner >= MAXJULIASTACKSIZE || a->yinner >= MAXJULIASTACKSIZE)
    return nullptr;
  return L.c[a->yinner][a->xinner];
}

// The canvas's count of work goes home with the job.
void recordwork(WORKER* worker) {
  const CANVAS0* canvas = worker->canvas;
  uint64_t iterations = static_cast<uint64_t>(canvas->statiterations);
  worker->idata[JOB_STATITERLOW] = static_cast<ITER>(iterations & 0xFFFFFFFFu);
  worker->idata[JOB_STATITERHIGH] = static_cast<ITER>(iterations >> 32);
  worker->idata[JOB_STATVERTICES] = static_cast<ITER>(canvas->statvertices);
}

// Hands the job's tiles, with their record and storage holds, to an upload
// worker, which becomes the area's worker. False when no tile needs it.
bool handtiles(OVCONTEXT* context, WORKER* worker, AREA* a) {
  bool due = false;
  for (int i = 0; i < NCHANNELS; i++) {
    TEXTURE* t = static_cast<TEXTURE*>(worker->pdata[JOB_TEXTURE + i]);
    if (!t) continue;
    cachetexture(context, t);
    if (!(t->flags & T_GLVALID)) {
      makegltexture(context, t);
      due = true;
    }
  }
  if (!due) return false;
  WORKER* upload = addworker(context, THREAD_MAIN, worker_canvas_gentexture_return);
  if (!upload) return false;
  upload->prio = 0;
  upload->pdata[GENTEXTURE_AREA] = a;
  upload->pdata[GENTEXTURE_REALM] = a->realm;
  attachrealm(a->realm);
  for (int i = 0; i < NCHANNELS; i++) {
    upload->pdata[GENTEXTURE_TEXTURE + i] = worker->pdata[JOB_TEXTURE + i];
    worker->pdata[JOB_TEXTURE + i] = nullptr;
  }
  a->worker = upload;
  sendgentexture(context, upload);
  return true;
}

// The common road of a canvas job on its worker thread: the format and the
// driver (`canvas_calc_init`), `render` unless the job was stopped meanwhile,
// the canvas given up, and home to the main thread: to `done` when rendered,
// else to `worker_canvas_calc_fail`. `usable` false skips the canvas (no
// target for the output). A job without a canvas is lost, with the line.
template <typename RENDER>
void runcanvasjob(OVCONTEXT* context, WORKER* worker, const char* name, bool usable,
                  WORKERPROC done, RENDER render) {
  bool rendered = false;
  if (!atomicload(&worker->stop)) {
    if (!worker->canvas) {
      fprintf(stderr, "%s: FATAL ERROR: !canvas\n", name);
      return;
    }
    unsigned int mode = usable ? canvas_calc_init(context, worker) : 0;
    if (mode) recordwork(worker);
    if (mode && !atomicload(&worker->stop)) {
      render(mode);
      rendered = true;
    }
    if (mode) removejobcanvas(context, worker, mode);
  }
  worker->workerproc = rendered ? done : worker_canvas_calc_fail;
  worker->recipient = THREAD_MAIN;
  dispatch(context, worker);
}

}  // namespace

bool processarea(OVCONTEXT* context, AREA* a) {
  if (!a->priority || (a->flags & (A_WAITFORJULIASTACK | A_INPPPROGRAM)) || a->worker) return true;
  REALM* r = a->realm;
  if (!a->channels) {
    fprintf(stderr, "processarea: !a->channels\n");
    return true;
  }
  if (a->computecycle != r->computecycle && isvalid(context, a)) {
    a->computecycle = r->computecycle;
    for (TEXTURE* t : a->texture)
      if (t) t->computecycle = r->computecycle;
  }
  if (tilescurrent(a)) {
    if (a->flags & A_PRECALCULATED) uploadtiles(context, a);
    return true;
  }
  resetarea(context, a, false);
  if (a->priority == PRIO_LAST) return true;
  // Only the general realm computes against an environment; the others
  // iterate their own points.
  if (atomicload(&context->iworkerall) >= WORKERSDEFER || (r->type == GENERAL && !a->e)) return true;
  // A Julia realm that corrects through its stack first has the levels the
  // area needs made: until they are ready the area waits on them, or on the
  // request that asks for them.
  if (r->type == JULIA && juliastackdefer(context, a)) return true;

  takemodes(a, r);
  a->computecycle = r->computecycle;
  REALM* stack = correctingrealm(a);
  WORKER* w = addworker(context, THREAD_WORKER, stack ? worker_canvas_calc_juliacorrect : worker_canvas_calc);
  if (!w) return true;
  clearjob(w);
  w->prio = a->priority;
  w->pdata[JOB_AREA] = a;
  w->pdata[JOB_AREAREALM] = r;
  attachrealm(r);
  HFLOATCOMPLEX ct;
  HPVALUE* corner = getcoordarel(a, &ct);
  if (corner) attachhpv(corner);
  w->pdata[JOB_CORNER] = corner;
  w->hdata[JOB_CT] = ct;
  if (a->e) {
    attache(a->e);
    w->pdata[JOB_ENVIRONMENT] = a->e;
  }
  fillword(a, w);
  filljulia(a, w);
  if (ENVIRONMENT* s = seedorbit(a)) {
    attache(s);
    w->pdata[JOB_SEEDORBIT] = s;
  }
  // A Mandelbrot tile with no stack level ready has nothing to be corrected
  // against: kept, the flag would only stop the driver from closing equal
  // cells, and a start view then iterated every vertex of every tile.
  if (!stack && r->type != JULIA) w->idata[JOB_WORD] &= ~static_cast<ITER>(CF_JULIACORRECT);
  if (stack) {
    // A general tile's pixels stop for the stack no deeper than the levels
    // that are ready and hold the whole view: the kernels' derivative bound
    // and the level its pixels may name.
    if (r->type == GENERAL) w->idata[JOB_DBOUND] = juliastackhandoff(stack, a->depth, a->e);
    // The tiles are taken once the pixels are final.
    attachrealm(stack);
    w->pdata[JOB_REALM] = stack;
  } else if (!taketiles(context, a, w)) {
    freecanvascalcworker(context, w);
    return true;
  }
  a->worker = w;
  dispatch(context, w);
  return true;
}

void worker_canvas_calc(OVCONTEXT* context, WORKER* worker) {
  runcanvasjob(context, worker, "worker_canvas_calc", true, worker_canvas_calc_return,
               [&](unsigned int mode) { renderjob(context, worker, mode); });
}

namespace {

// A job's result is back on the main thread: the area has no worker any
// more. True when the realm moved on to another cycle in which the area is
// no longer valid: it was reset and asked for again, and the result is void.
bool outdatedjobended(OVCONTEXT* context, AREA* a) {
  a->worker = nullptr;
  if (a->computecycle == a->realm->computecycle || isvalid(context, a)) return false;
  resetarea(context, a, false);
  processarea(context, a);
  return true;
}

// The job's counts of vertices and iterations, kept with the area.
void takestatistics(AREA* a, const WORKER* worker) {
  a->statvertices = worker->idata[JOB_STATVERTICES];
  a->statiterations = static_cast<int64_t>(
      static_cast<uint64_t>(static_cast<uint32_t>(worker->idata[JOB_STATITERLOW])) |
      static_cast<uint64_t>(static_cast<uint32_t>(worker->idata[JOB_STATITERHIGH])) << 32);
}

}  // namespace

void worker_canvas_calc_return(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[JOB_AREA]);
  if (atomicload(&worker->stop)) {
    freecanvascalcworker(context, worker);
    return;
  }
  if (!outdatedjobended(context, a)) {
    a->flags |= A_PRECALCULATED;
    takestatistics(a, worker);
    handtiles(context, worker, a);
  }
  areacheckvacount(context, a);
  freecanvascalcworker(context, worker);
}

// A job that was stopped, or whose canvas could not be used: the area keeps
// no worker and is asked for again by the next invalidation.
void worker_canvas_calc_fail(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[JOB_AREA]);
  if (!atomicload(&worker->stop) && a && a->worker == worker) a->worker = nullptr;
  if (!a && worker->pdata[JOB_JULIACACHE]) juliastacktilefailed(context, worker);
  freecanvascalcworker(context, worker);
}

void freecanvascalcworker(OVCONTEXT* context, WORKER* worker) {
  removeprepixels(context, worker->prepixels);
  worker->prepixels = nullptr;
  if (worker->chain.next && !chainempty(&worker->chain)) {
    chainrem(&worker->chain);
    initchain(&worker->chain);
  }
  if (JULIACACHE* jc = static_cast<JULIACACHE*>(worker->pdata[JOB_JULIACACHE])) {
    if (worker->idata[JOB_JULIACACHELOCKED]) unlockmemjuliacache(context, jc, 0);
    worker->idata[JOB_JULIACACHELOCKED] = 0;
    detachjc(context, jc);
    worker->pdata[JOB_JULIACACHE] = nullptr;
  }
  for (int i = 0; i < NCHANNELS; i++) {
    TEXTURE* t = static_cast<TEXTURE*>(worker->pdata[JOB_TEXTURE + i]);
    if (!t) continue;
    if (t->memcount > 0) unlockmemtexture(context, t, false);
    detacht(context, t);
    worker->pdata[JOB_TEXTURE + i] = nullptr;
  }
  detachhpv(context, static_cast<HPVALUE*>(worker->pdata[JOB_CORNER]));
  detachhpv(context, static_cast<HPVALUE*>(worker->pdata[JOB_JULIA]));
  detache(context, static_cast<ENVIRONMENT*>(worker->pdata[JOB_ENVIRONMENT]));
  detache(context, static_cast<ENVIRONMENT*>(worker->pdata[JOB_SEEDORBIT]));
  if (REALM* jr = static_cast<REALM*>(worker->pdata[JOB_REALM])) __detachrealm(context, jr);
  if (REALM* r = static_cast<REALM*>(worker->pdata[JOB_AREAREALM])) __detachrealm(context, r);
  freeworker(context, worker);
}

// ---------------------------------------------------------------- the Julia path

void clearjob(WORKER* w) {
  memset(w->pdata, 0, sizeof w->pdata);
  w->idata[JOB_PREPIXELDEPTH] = -1;
  w->idata[JOB_PREPIXELRESULT] = 0;
  w->idata[JOB_JULIACACHELOCKED] = 0;
  initchain(&w->chain);
  w->prepixels = nullptr;
}

void worker_canvas_calc_juliacorrect(OVCONTEXT* context, WORKER* worker) {
  if (!atomicload(&worker->stop) && !worker->prepixels) {
    worker->prepixels = addprepixels(context);
    if (!worker->prepixels) {
      worker->workerproc = worker_waitforprepixels;
      worker->recipient = THREAD_MAIN;
      dispatch(context, worker);
      return;
    }
  }
  worker_canvas_calc_inner(context, worker);
}

void worker_waitforprepixels(OVCONTEXT* context, WORKER* worker) {
  worker->workerproc = worker_canvas_calc_juliacorrect;
  worker->recipient = THREAD_WORKER;
  if (!atomicload(&worker->stop) && !worker->prepixels) worker->prepixels = addprepixels(context);
  if (atomicload(&worker->stop) || worker->prepixels)
    dispatch(context, worker);
  else
    waitforprepixels(context, worker);
}

void worker_canvas_calc_inner(OVCONTEXT* context, WORKER* worker) {
  PREPIXEL* pixels = atomicload(&worker->stop) ? nullptr : innertarget(worker);
  runcanvasjob(context, worker, "worker_canvas_calc_inner", pixels != nullptr,
               worker_canvas_calc_inner_return, [&](unsigned int mode) {
                 worker->idata[JOB_PREPIXELRESULT] = renderprepixels(context, worker, mode, pixels);
               });
}

void worker_canvas_calc_inner_return(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[JOB_AREA]);
  if (atomicload(&worker->stop)) {
    freecanvascalcworker(context, worker);
    return;
  }
  if (JULIACACHE* jc = static_cast<JULIACACHE*>(worker->pdata[JOB_JULIACACHE])) {
    // A stack level's tile: its contents are new. The level's own count of
    // tiles in work belongs to the stack.
    unlockmemjuliacache(context, jc, JCUNLOCK_DIRTY);
    worker->idata[JOB_JULIACACHELOCKED] = 0;
    juliastacktilereturn(context, worker);
    freecanvascalcworker(context, worker);
    return;
  }
  if (outdatedjobended(context, a)) {
    freecanvascalcworker(context, worker);
    return;
  }
  takestatistics(a, worker);
  removeprepixels(context, a->prepixels);
  a->prepixels = worker->prepixels;
  worker->prepixels = nullptr;
  a->jst = worker->idata[JOB_PREPIXELDEPTH];
  if (a->jst >= 0 && a->realm->type == GENERAL) {
    juliahandofftally().tiles++;
    juliahandofftally().levels += a->jst;
  }
  int result = worker->idata[JOB_PREPIXELRESULT];
  freecanvascalcworker(context, worker);
  // A level that was not ready may be by now; a tile that was not in memory
  // is read by the program.
  if (result == 0)
    areajuliacorrectok(context, a);
  else
    prejuliacorrect(context, a, result == 2);
}

WORKER* prepixel2pixeljob(OVCONTEXT* context, AREA* a, PREPIXELS* pixels, WORKERPROC proc) {
  WORKER* w = addworker(context, THREAD_WORKER, proc);
  if (!w) {
    removeprepixels(context, pixels);
    return nullptr;
  }
  clearjob(w);
  w->prio = jobprio(a);
  w->prepixels = pixels;
  REALM* stack = a->realm && a->realm->type == GENERAL ? a->juliarealm : a->realm;
  takefromplacelevels(context, stack && stack->type == JULIA ? stack : nullptr, pixels);
  w->pdata[JOB_AREA] = a;
  w->pdata[JOB_AREAREALM] = a->realm;
  attachrealm(a->realm);
  fillchannelparams(a, w);
  if (!taketiles(context, a, w)) {
    freecanvascalcworker(context, w);
    return nullptr;
  }
  return w;
}

void worker_renderinner(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[JOB_AREA]);
  JULIACACHE* jc = atomicload(&worker->stop) ? nullptr : innertile(context, a);
  if (!jc || !lockmemjuliacache(context, jc, JCLOCK_READ)) {
    if (!atomicload(&worker->stop) && a->worker == worker) a->worker = nullptr;
    freecanvascalcworker(context, worker);
    return;
  }
  attachjc(jc);
  worker->pdata[JOB_JULIACACHE] = jc;
  worker->idata[JOB_JULIACACHELOCKED] = 1;
  if (!worker->pdata[JOB_AREAREALM]) {
    worker->pdata[JOB_AREAREALM] = a->realm;
    attachrealm(a->realm);
  }
  fillchannelparams(a, worker);
  if (!taketiles(context, a, worker)) {
    if (a->worker == worker) a->worker = nullptr;
    freecanvascalcworker(context, worker);
    return;
  }
  worker->workerproc = worker_prepixel2pixeljc;
  worker->recipient = THREAD_WORKER;
  worker->prio = 0;
  a->worker = worker;
  dispatch(context, worker);
}

namespace {

void pixelsdone(OVCONTEXT* context, WORKER* worker, bool made) {
  worker->workerproc = made ? worker_prepixel2pixel_return : worker_canvas_calc_fail;
  worker->recipient = THREAD_MAIN;
  dispatch(context, worker);
}

}  // namespace

void worker_prepixel2pixel(OVCONTEXT* context, WORKER* worker) {
  bool made = !atomicload(&worker->stop) && worker->prepixels;
  if (made && worker->prepixels->nfromplace > 0) made = iteratefromplace(context, worker->prepixels, &worker->stop);
  if (made) prepixel2pixelofjob(context, worker, worker->prepixels->pixels);
  pixelsdone(context, worker, made);
}

void worker_prepixel2pixeljc(OVCONTEXT* context, WORKER* worker) {
  JULIACACHE* jc = static_cast<JULIACACHE*>(worker->pdata[JOB_JULIACACHE]);
  bool made = !atomicload(&worker->stop) && jc && jc->data;
  if (made) prepixel2pixelofjob(context, worker, jc->data);
  pixelsdone(context, worker, made);
}

void worker_prepixel2pixel_return(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[JOB_AREA]);
  if (atomicload(&worker->stop)) {
    freecanvascalcworker(context, worker);
    return;
  }
  if (!outdatedjobended(context, a)) {
    a->flags |= A_PRECALCULATED;
    handtiles(context, worker, a);
  }
  freecanvascalcworker(context, worker);
}
