// juliacorrect.cpp: pixels that went on in the Julia stack get their end
// from a level's stored tile. One pixel at a time where the tile is in memory
// (`juliacorrectp`); otherwise in the correction program, which gathers the
// pixel buffers of up to `njuliapp` areas or level tiles, sorts their
// references by tile and reads each tile once for all of them. Then the
// pixels become channels (`prepixel2pixel`).
//
// A pixel in the program names its tile by record index in `depth`; a pixel
// the program could not resolve carries its level encoded as -2 - level
// until the run ends, so that nothing reads it as a tile.
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>

#include "Mandelbrot.h"
#include "bypass.h"
#include "canvas/render.h"
#include "juliastack.h"

// Finishing a level is the stack's own step; a test may watch it here.
JULIASTACKHOOK juliastackhook = juliastack;

namespace {

// A minified source reads the level's mipmap: its pixel covers many of the
// level's, so one coarse sample is as good.
constexpr float MIPMAPSTRETCH = 32.0f;
constexpr int UNRESOLVEDBASE = -2;

bool isunresolved(int depth) { return depth <= UNRESOLVEDBASE && depth >= UNRESOLVEDBASE - NJULIASTACK; }
int unresolved(int level) { return UNRESOLVEDBASE - level; }

int place(int js, float v) {
  double t = std::floor(static_cast<double>(js) * v * 0.25 + js / 2);
  return static_cast<int>(std::clamp(t, 0.0, static_cast<double>(js - 1)));
}

bool stretched(const PREPIXEL* p) { return p->dx * p->dx + p->dy * p->dy > MIPMAPSTRETCH; }

// The tile of level `L` that holds pixel `p`, and the pixel's index in it;
// NULL when the level has no such tile.
JULIACACHE* locate(OVCONTEXT* context, JULIASTACKDATA* L, const PREPIXEL* p, int* k) {
  int js = context->juliasize;
  int col = place(js, p->x), row = place(js, p->y);
  if (L->mipmap && stretched(p)) {
    int shift = context->juliasizeshift - PREPIXELTILESIZESHIFT;
    *k = (row >> shift) * PREPIXELTILESIZE + (col >> shift);
    return L->mipmap;
  }
  *k = (row & (PREPIXELTILESIZE - 1)) * PREPIXELTILESIZE + (col & (PREPIXELTILESIZE - 1));
  return L->c[row >> PREPIXELTILESIZESHIFT][col >> PREPIXELTILESIZESHIFT];
}

// The pixel's index in a tile that the program found for it before.
int intile(OVCONTEXT* context, const JULIACACHE* jc, const PREPIXEL* p) {
  if (jc->flags & JCF_MIPMAP) {
    int col = place(PREPIXELTILESIZE, p->x), row = place(PREPIXELTILESIZE, p->y);
    return row * PREPIXELTILESIZE + col;
  }
  int js = context->juliasize;
  int col = place(js, p->x), row = place(js, p->y);
  return (row & (PREPIXELTILESIZE - 1)) * PREPIXELTILESIZE + (col & (PREPIXELTILESIZE - 1));
}

// The pixel goes on from where the stored one ended: counts add up, with the
// sign of the stored part, and the derivatives multiply.
void apply(PREPIXEL* p, const PREPIXEL& q) {
  p->iter = (q.iter < 0 ? -p->iter : p->iter) + q.iter;
  p->x = q.x;
  p->y = q.y;
  p->depth = q.depth;
  float dx = p->dx * q.dx - p->dy * q.dy;
  float dy = p->dx * q.dy + p->dy * q.dx;
  p->dx = dx;
  p->dy = dy;
}

// A pixel handed to pixel k of a tile of level d that sits on a change of
// count goes on from its own place: the centre's end may not be its own. A
// level's pixel does so in the level's finishing, an area's on the worker
// that makes its channels. A mipmap's neighbours lie further apart than the
// level's, so a change of count among them is one near the pixel too.
bool fromplace(const PREPIXEL* data, int k, PREPIXEL* p, int d) {
  if (!juliacountedge(data, k)) return false;
  p->depth = JULIAFROMPLACE + d;
  return true;
}

bool levelready(REALM* realm, int d) {
  return realm && realm->juliastack && d >= 0 && d < realm->njuliastack &&
         d <= atomicload(&realm->readyjuliastack);
}

REALM* stackrealm(AREA* a) {
  REALM* r = a->realm;
  if (r && r->type == GENERAL) r = a->juliarealm;
  return r && r->type == JULIA ? r : nullptr;
}

// The level of `realm` whose tile `jc` is, or -1.
int levelof(REALM* realm, const JULIACACHE* jc) {
  if (!realm || !realm->juliastack) return -1;
  int top = std::min(atomicload(&realm->readyjuliastack), realm->njuliastack - 1);
  for (int s = 0; s <= top; s++) {
    const JULIASTACKDATA& L = realm->juliastack[s];
    if (L.mipmap == jc) return s;
    for (int y = 0; y < MAXJULIASTACKSIZE; y++)
      for (int x = 0; x < MAXJULIASTACKSIZE; x++)
        if (L.c[y][x] == jc) return s;
  }
  return -1;
}

// Levels up to `jst` are wanted now: their queued tile workers go first.
void raisepriority(OVCONTEXT* context, REALM* realm, int jst) {
  for (int s = std::max(realm->priojuliastack + 1, 0); s <= jst && s < realm->njuliastack; s++)
    for (auto& row : realm->juliastack[s].w)
      for (WORKER* w : row)
        if (w) changeprio(context, w, 0);
  if (realm->priojuliastack < jst) realm->priojuliastack = jst;
}

void waitforlevel(OVCONTEXT* context, REALM* realm, AREA* a) {
  raisepriority(context, realm, a->jst);
  if (a->flags & A_WAITFORJULIASTACK) chainrem(&a->waitforjuliastack);
  a->flags |= A_WAITFORJULIASTACK;
  chaininsbegin(&realm->juliastack[a->jst].wait, &a->waitforjuliastack);
}

// Files the pixels of buffer `b` by tile. Only pixels below `limit` are
// wanted: a level's tile refers to shallower levels only.
void enrol(OVCONTEXT* context, REALM* realm, PREPIXEL* pixels, int b, int limit) {
  for (int i = 0; i < NPREPIXEL; i++) {
    PREPIXEL* p = &pixels[i];
    while (p->depth >= 0 && p->depth < limit) {
      int d = p->depth;
      JULIACACHE* jc = nullptr;
      int k = 0;
      if (levelready(realm, d)) jc = locate(context, &realm->juliastack[d], p, &k);
      if (jc) {
        p->depth = jc->ijuliacache;
        context->ijuliacacheprogram[jc->ijuliacache][b]++;
        break;
      }
      if (levelready(realm, d) && realm->juliastack[d].bypass) {
        PREPIXEL q = bypassp(context, realm, d, p->x, p->y);
        apply(p, q);
        if (q.depth >= d) break;
        continue;
      }
      fputs("prejuliacorrect: FATAL ERROR jc invalid.\n", stderr);
      p->depth = unresolved(d);
      break;
    }
  }
}

void addentry(OVCONTEXT* context, AREA* a, REALM* realm, int jsti, PREPIXEL* pixels) {
  while (context->ijuliacachepp >= std::min(context->njuliapp, NJULIAPPMAX)) finishjuliacorrect(context);
  int b = context->ijuliacachepp++;
  context->juliacachea[b] = a;
  context->juliacachepp[b] = pixels;
  context->juliacacherealm[b] = realm;
  context->juliacachejsti[b] = jsti;
}

int programrows(OVCONTEXT* context) { return context->njuliacache + context->njuliacachefile; }

// Counters to starting offsets: one running sum over tile, then buffer.
void offsets(OVCONTEXT* context, int npp) {
  int sum = 0;
  for (int t = 0, rows = programrows(context); t < rows; t++) {
    int* row = context->ijuliacacheprogram[t];
    for (int b = 0; b < npp; b++) {
      int n = row[b];
      row[b] = sum;
      sum += n;
    }
  }
}

void placepairs(OVCONTEXT* context, int npp) {
  for (int b = 0; b < npp; b++) {
    const PREPIXEL* pixels = context->juliacachepp[b];
    for (int i = 0; i < NPREPIXEL; i++) {
      int t = pixels[i].depth;
      if (t < 0) continue;
      int pos = context->ijuliacacheprogram[t][b]++;
      context->juliacacheprogram[pos][0] = intile(context, jcofindex(context, t), &pixels[i]);
      context->juliacacheprogram[pos][1] = i;
    }
  }
}

REALM* entryrealm(OVCONTEXT* context, int b) {
  if (context->juliacacherealm[b]) return context->juliacacherealm[b];
  AREA* a = context->juliacachea[b];
  return a ? stackrealm(a) : nullptr;
}

// Each tile once; the pairs of every buffer after it. A tile that cannot be
// read leaves its pixels unresolved, with their level.
void runtiles(OVCONTEXT* context, int npp) {
  int pos = 0;
  for (int t = 0, rows = programrows(context); t < rows; t++) {
    int* row = context->ijuliacacheprogram[t];
    if (row[npp - 1] == pos) continue;
    JULIACACHE* jc = jcofindex(context, t);
    bool ok;
    if (jc->count <= 0) {
      fputs("finishjuliacorrect: FATAL ERROR: js invalid.\n", stderr);
      ok = false;
    } else {
      ok = __readjuliacache(context, jc);
    }
    for (int b = 0; b < npp; b++) {
      PREPIXEL* pixels = context->juliacachepp[b];
      int level = ok || pos == row[b] ? -1 : levelof(entryrealm(context, b), jc);
      // A pixel on a change of count goes on from its place.
      int from = ok && pos != row[b] ? levelof(entryrealm(context, b), jc) : -1;
      for (; pos < row[b]; pos++) {
        PREPIXEL* p = &pixels[context->juliacacheprogram[pos][1]];
        if (ok) {
          int k = context->juliacacheprogram[pos][0];
          if (from >= 0 && fromplace(jc->data, k, p, from)) continue;
          apply(p, jc->data[k]);
          p->depth = -1;
        } else {
          p->depth = level >= 0 ? unresolved(level) : -1;
        }
      }
    }
  }
}

// True if any pixel was left unresolved; those get their level back.
bool restore(PREPIXEL* pixels) {
  bool any = false;
  for (int i = 0; i < NPREPIXEL; i++)
    if (isunresolved(pixels[i].depth)) {
      pixels[i].depth = UNRESOLVEDBASE - pixels[i].depth;
      any = true;
    }
  return any;
}

// An area whose pixels are final gets its channels here, on the main thread.
void finisharea(OVCONTEXT* context, AREA* a, bool left) {
  a->flags &= ~A_INPPPROGRAM;
  if (!a->priority || left) {
    resetarea(context, a, false);
    return;
  }
  PREPIXELS* pp = a->prepixels;
  a->prepixels = nullptr;
  WORKER* w = prepixel2pixeljob(context, a, pp, worker_prepixel2pixel_return);
  if (!w) return;
  a->worker = w;
  // Pixels that go on from their places are a worker's to iterate.
  if (w->prepixels->nfromplace > 0) {
    w->workerproc = worker_prepixel2pixel;
    dispatch(context, w);
    return;
  }
  prepixel2pixelofjob(context, w, w->prepixels->pixels);
  worker_prepixel2pixel_return(context, w);
}

struct ENTRY {
  AREA* a;
  PREPIXEL* pixels;
  REALM* realm;
  int jsti;
};

}  // namespace

// ---------------------------------------------------------------- one pixel

int juliacorrectp(OVCONTEXT* context, REALM* realm, PREPIXEL* p, bool loadfromcache) {
  for (;;) {
    int d = p->depth;
    if (d == -1) return 0;
    if (!levelready(realm, d)) return 1;
    JULIASTACKDATA* L = &realm->juliastack[d];
    int k = 0;
    JULIACACHE* jc = locate(context, L, p, &k);
    PREPIXEL q;
    if (!jc) {
      if (!L->bypass) return 2;
      q = bypassp(context, realm, d, p->x, p->y);
    } else {
      PREPIXEL* data = atomicload(&jc->data);
      if (!data && loadfromcache && __readjuliacache(context, jc)) data = jc->data;
      if (!data) return 2;
      q = data[k];
      if (fromplace(data, k, p, d)) return 0;
    }
    apply(p, q);
    if (q.depth >= d || q.depth == -1) return 0;
  }
}

// ---------------------------------------------------------------- the program

void prejuliacorrect(OVCONTEXT* context, AREA* a, bool usecache) {
  PREPIXELS* pp = a->prepixels;
  if (!pp) {
    processarea(context, a);
    return;
  }
  REALM* realm = stackrealm(a);
  if (!realm) {
    fputs("prejuliacorrect: realm invalid.\n", stderr);
    resetarea(context, a, false);
    return;
  }
  if (a->jst != -1 && a->jst > atomicload(&realm->readyjuliastack)) {
    if (realm->juliastack && a->jst < realm->njuliastack) {
      waitforlevel(context, realm, a);
    } else {
      fputs("prejuliacorrect: realm invalid.\n", stderr);
      resetarea(context, a, false);
    }
    return;
  }
  if (!usecache) {
    WORKER* w = addworker(context, THREAD_WORKER, worker_juliacorrect);
    if (!w) return;
    clearjob(w);
    w->prio = a->priority > 0 && a->priority < NWORKERPRIO ? a->priority : NWORKERPRIO - 1;
    w->pdata[JOB_AREA] = a;
    w->pdata[JOB_AREAREALM] = a->realm;
    attachrealm(a->realm);
    w->pdata[JOB_REALM] = realm;
    attachrealm(realm);
    w->prepixels = pp;
    a->prepixels = nullptr;
    a->worker = w;
    dispatch(context, w);
    return;
  }
  addentry(context, a, nullptr, -1, pp->pixels);
  a->flags |= A_INPPPROGRAM;
  enrol(context, realm, pp->pixels, context->ijuliacachepp - 1, NJULIASTACK);
}

void addjuliacorrecttarget(OVCONTEXT* context, REALM* realm, int jsti, PREPIXEL* pixels) {
  attachrealm(realm);
  addentry(context, nullptr, realm, jsti, pixels);
  enrol(context, realm, pixels, context->ijuliacachepp - 1, jsti);
}

void juliacorrectforget(OVCONTEXT* context, AREA* a) {
  for (int b = 0; b < context->ijuliacachepp; b++)
    if (context->juliacachea[b] == a && !context->juliacacherealm[b]) {
      // The buffer stays with the program until it has run.
      context->juliacachea[b] = nullptr;
      a->prepixels = nullptr;
    }
  a->flags &= ~A_INPPPROGRAM;
}

void finishjuliacorrect(OVCONTEXT* context) {
  int npp = context->ijuliacachepp;
  if (npp == 0) return;
  offsets(context, npp);
  placepairs(context, npp);
  runtiles(context, npp);
  for (int t = 0, rows = programrows(context); t < rows; t++)
    std::fill_n(context->ijuliacacheprogram[t], npp, 0);
  // The entries are copied out: what follows may start a new program.
  ENTRY entry[NJULIAPPMAX];
  for (int b = 0; b < npp; b++)
    entry[b] = ENTRY{context->juliacachea[b], context->juliacachepp[b], context->juliacacherealm[b],
                     context->juliacachejsti[b]};
  context->ijuliacachepp = 0;
  for (int b = 0; b < npp; b++) {
    bool left = restore(entry[b].pixels);
    if (!entry[b].realm) {
      if (entry[b].a)
        finisharea(context, entry[b].a, left);
      else
        removeprepixels(context, reinterpret_cast<PREPIXELS*>(entry[b].pixels));
      continue;
    }
    // A level is finished once, after the last of its tiles.
    bool last = true;
    for (int c = b + 1; c < npp; c++)
      if (entry[c].realm == entry[b].realm && entry[c].jsti == entry[b].jsti) last = false;
    if (last && juliastackhook) juliastackhook(context, entry[b].realm, entry[b].jsti);
    __detachrealm(context, entry[b].realm);
  }
}

// ---------------------------------------------------------------- areas

void areajuliacorrectok(OVCONTEXT* context, AREA* a) {
  a->flags &= ~A_JULIACORRECT;
  PREPIXELS* pp = a->prepixels;
  a->prepixels = nullptr;
  WORKER* w = prepixel2pixeljob(context, a, pp, worker_prepixel2pixel);
  if (!w) return;
  a->worker = w;
  dispatch(context, w);
}

void worker_juliacorrect(OVCONTEXT* context, WORKER* worker) {
  int result = 0;
  if (!atomicload(&worker->stop) && worker->prepixels) {
    REALM* realm = static_cast<REALM*>(worker->pdata[JOB_REALM]);
    PREPIXEL* pixels = worker->prepixels->pixels;
    for (int i = 0; i < NPREPIXEL && !result; i++) result = juliacorrectp(context, realm, &pixels[i], false);
  }
  worker->idata[JOB_PREPIXELRESULT] = result;
  worker->workerproc = worker_juliacorrect_return;
  worker->recipient = THREAD_MAIN;
  dispatch(context, worker);
}

void worker_juliacorrect_return(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[JOB_AREA]);
  if (atomicload(&worker->stop)) {
    freecanvascalcworker(context, worker);
    return;
  }
  a->worker = nullptr;
  removeprepixels(context, a->prepixels);
  a->prepixels = worker->prepixels;
  worker->prepixels = nullptr;
  int result = worker->idata[JOB_PREPIXELRESULT];
  freecanvascalcworker(context, worker);
  if (result)
    prejuliacorrect(context, a, true);
  else
    areajuliacorrectok(context, a);
}

// ---------------------------------------------------------------- channels

void prepixel2pixel(OVCONTEXT* context, const PREPIXEL* pixels, float** texture, int depth,
                    bool julia, double cx, double cy, double limx, double limy, double r,
                    ITER miter) {
  (void)context;
  if (!pixels) {
    fputs("prepixel2pixel: FATAL ERROR: !pixels\n", stderr);
    return;
  }
  typedef std::complex<double> C;
  double side = std::ldexp(1.0, depth);
  C lim(limx, limy);
  for (int j = 0; j < PREPIXELTILESIZE; j++)
    for (int i = 0; i < PREPIXELTILESIZE; i++) {
      int k = j * PREPIXELTILESIZE + i;
      const PREPIXEL& p = pixels[k];
      ITER count = p.iter;
      // An interior count of a Julia seed's cycle is shown as its phase.
      if (julia && miter < 0 && count < 0) count = ~((1 - count) % miter);
      C z(p.x, p.y), d(p.dx, p.dy);
      C c = julia ? C(cx, cy) : C(cx + i * side, cy + j * side);
      if (float* t = texture[CHANNEL_ITER]) t[k] = static_cast<float>(count) * CHANNELITERSCALE;
      if (float* t = texture[CHANNEL_COUNT]) t[k] = static_cast<float>(count);
      if (float* t = texture[CHANNEL_VALUEX]) t[k] = p.x;
      if (float* t = texture[CHANNEL_VALUEY]) t[k] = p.y;
      if (float* t = texture[CHANNEL_DERIVATIVEX]) t[k] = p.dx;
      if (float* t = texture[CHANNEL_DERIVATIVEY]) t[k] = p.dy;
      if (float* t = texture[CHANNEL_DIST]) {
        double dist = p.dx;
        if (p.iter > 0) dist = julia ? distj_double(z, d, c, p.iter, lim, r) : distm_double(z, d, c, side);
        t[k] = static_cast<float>(dist);
      }
      if (float* t = texture[CHANNEL_DIST2]) t[k] = p.iter > 0 ? dist2_double(z, d) : 0.0f;
      if (float* t = texture[CHANNEL_SMOOTHITER])
        t[k] = p.iter > 0 ? smoothiter_double(z, c, p.iter) : static_cast<float>(count);
    }
}

void prepixel2pixelofjob(OVCONTEXT* context, WORKER* w, const PREPIXEL* pixels) {
  float* texture[NCHANNELS];
  for (int i = 0; i < NCHANNELS; i++) {
    TEXTURE* t = static_cast<TEXTURE*>(w->pdata[JOB_TEXTURE + i]);
    texture[i] = t ? static_cast<float*>(t->pixels) : nullptr;
  }
  HFLOATCOMPLEX base = w->hdata[JOB_BASE], lim = w->hdata[JOB_TRAPCENTRE];
  prepixel2pixel(context, pixels, texture, w->idata[JOB_PIXELSIZE],
                 (static_cast<unsigned int>(w->idata[JOB_WORD]) & CF_JULIA) != 0,
                 dHF(crealHF(base)), dHF(cimagHF(base)), dHF(crealHF(lim)), dHF(cimagHF(lim)),
                 dHF(crealHF(w->hdata[JOB_TRAPRADIUS])), w->idata[JOB_MITER]);
}
