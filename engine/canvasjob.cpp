// canvasjob.cpp: the road of one area's data: `processarea` on the main
// thread turns an area into a canvas job with one locked tile per channel;
// `worker_canvas_calc` computes and renders it on a worker thread with the
// thread's canvas; its return on the main thread installs the tiles through
// the upload step. Everything a job holds comes back through
// `freecanvascalcworker`, whichever way the job ends.
#include <cstdio>

#include "Mandelbrot.h"
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
// interior tests apply.
unsigned int environmentbits(const ENVIRONMENT* e, unsigned int channels) {
  bool more = channels & MORETHANCOUNT;
  bool periodic = !e || (e->flags & (E_SERIES | E_PERIODIC)) == E_PERIODIC;
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
  if (r->type != JULIA || !r->info.c) return;
  attachhpv(r->info.c);
  w->pdata[JOB_JULIA] = r->info.c;
  w->hdata[JOB_JULIAPOINT] = cHF(mpf_get_HF(r->info.c->v[0]), mpf_get_HF(r->info.c->v[1]));
  w->idata[JOB_ATTRACTOR] = r->info.iter < 0 ? r->info.iter : 0;
  w->hdata[JOB_TRAPCENTRE] = r->info.z;
  w->hdata[JOB_TRAPRADIUS] = HFLOATCOMPLEX{r->info.dj.mantissa, 0, r->info.dj.exponent};
}

template <typename T>
void renderformat(OVCONTEXT* context, CANVAS0* canvas, float** pixels) {
  canvasrender::rendercanvas<T>(context, reinterpret_cast<typename T::CANVAS*>(canvas), pixels, TEXTURESIZE);
}

template <typename T>
void removeformat(OVCONTEXT* context, CANVAS0* canvas) {
  canvasmodel::removecanvas<T>(context, reinterpret_cast<typename T::CANVAS*>(canvas));
}

// Renders the finished canvas of format `mode` into the job's tiles.
void renderjob(OVCONTEXT* context, WORKER* worker, unsigned int mode) {
  float* pixels[NCHANNELS];
  for (int i = 0; i < NCHANNELS; i++) {
    TEXTURE* t = static_cast<TEXTURE*>(worker->pdata[JOB_TEXTURE + i]);
    pixels[i] = t ? static_cast<float*>(t->pixels) : nullptr;
  }
  switch (mode) {
    case CANVASTEMPLATE_float::MODE: renderformat<CANVASTEMPLATE_float>(context, worker->canvas, pixels); break;
    case CANVASTEMPLATE_double::MODE: renderformat<CANVASTEMPLATE_double>(context, worker->canvas, pixels); break;
    case CANVASTEMPLATE_longdouble::MODE: renderformat<CANVASTEMPLATE_longdouble>(context, worker->canvas, pixels); break;
    case CANVASTEMPLATE_hfloat::MODE: renderformat<CANVASTEMPLATE_hfloat>(context, worker->canvas, pixels); break;
  }
}

void removejobcanvas(OVCONTEXT* context, WORKER* worker, unsigned int mode) {
  switch (mode) {
    case CANVASTEMPLATE_float::MODE: removeformat<CANVASTEMPLATE_float>(context, worker->canvas); break;
    case CANVASTEMPLATE_double::MODE: removeformat<CANVASTEMPLATE_double>(context, worker->canvas); break;
    case CANVASTEMPLATE_longdouble::MODE: removeformat<CANVASTEMPLATE_longdouble>(context, worker->canvas); break;
    case CANVASTEMPLATE_hfloat::MODE: removeformat<CANVASTEMPLATE_hfloat>(context, worker->canvas); break;
  }
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
  // The Julia stack's waitforjuliastack and worker_requestjuliastack join
  // here, for a Julia realm whose stack levels are not ready.

  takemodes(a, r);
  a->computecycle = r->computecycle;
  WORKER* w = addworker(context, THREAD_WORKER, worker_canvas_calc);
  if (!w) return true;
  // A record keeps the payload of its last use; the job's release reads
  // every slot, so none may be left over.
  for (void*& p : w->pdata) p = nullptr;
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
  if (!taketiles(context, a, w)) {
    freecanvascalcworker(context, w);
    return true;
  }
  a->worker = w;
  dispatch(context, w);
  return true;
}

void worker_canvas_calc(OVCONTEXT* context, WORKER* worker) {
  bool rendered = false;
  if (!atomicload(&worker->stop)) {
    if (!worker->canvas) {
      fprintf(stderr, "worker_canvas_calc: FATAL ERROR: !canvas\n");
      return;
    }
    unsigned int mode = canvas_calc_init(context, worker);
    if (mode) recordwork(worker);
    if (mode && !atomicload(&worker->stop)) {
      renderjob(context, worker, mode);
      rendered = true;
    }
    if (mode) removejobcanvas(context, worker, mode);
  }
  worker->workerproc = rendered ? worker_canvas_calc_return : worker_canvas_calc_fail;
  worker->recipient = THREAD_MAIN;
  dispatch(context, worker);
}

void worker_canvas_calc_return(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[JOB_AREA]);
  if (atomicload(&worker->stop)) {
    freecanvascalcworker(context, worker);
    return;
  }
  a->worker = nullptr;
  REALM* r = a->realm;
  if (a->computecycle != r->computecycle && !isvalid(context, a)) {
    resetarea(context, a, false);
    processarea(context, a);
  } else {
    a->flags |= A_PRECALCULATED;
    a->statvertices = worker->idata[JOB_STATVERTICES];
    a->statiterations = static_cast<int64_t>(
        static_cast<uint64_t>(static_cast<uint32_t>(worker->idata[JOB_STATITERLOW])) |
        static_cast<uint64_t>(static_cast<uint32_t>(worker->idata[JOB_STATITERHIGH])) << 32);
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
  freecanvascalcworker(context, worker);
}

void freecanvascalcworker(OVCONTEXT* context, WORKER* worker) {
  // The PREPIXELS block, the chain and the Julia cache tile of a Julia-stack
  // job are given back here by the Julia cache.
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
  if (REALM* jr = static_cast<REALM*>(worker->pdata[JOB_REALM])) __detachrealm(context, jr);
  if (REALM* r = static_cast<REALM*>(worker->pdata[JOB_AREAREALM])) __detachrealm(context, r);
  freeworker(context, worker);
}
