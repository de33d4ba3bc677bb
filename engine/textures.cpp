// Tiles: the TEXTURE records, the storage (pixel buffer and GL texture) that
// records borrow, the two recycling chains, and the upload of finished tiles
// through the GL queue.
//
// Records outnumber storage two to one: a record says a tile exists in an
// area, storage says it has pixels now. A tile is evictable when nothing
// holds its storage locked and its area is gone or of no interest; then it
// sits on `texturememchain` (its storage may be taken) and `texturechain`
// (its record may be reclaimed). Both chains are taken at `next`, where the
// oldest entry is, and appended at `prev`: what was released longest ago goes
// first, and a tile just scrolled off the screen is the last to lose its
// pixels.
//
// Everything here runs on the main thread but worker_canvas_gentexture,
// which runs where the GL context is and reads only locked tiles.
#include <cstdio>

#include "Mandelbrot.h"
#include "pool.h"

namespace {

bool inactive(const AREA* a) { return a->priority == 0 || a->priority == PRIO_LAST; }

bool evictable(const TEXTURE* t) { return t->memcount == 0 && (!t->area || inactive(t->area)); }

// A free record may carry storage and be on the storage chain with T_FREE
// alone, so membership is read from the link, which is NULL off the chain.
bool inmemchain(const TEXTURE* t) { return t->memchain.prev != nullptr; }

void putonmemchain(OVCONTEXT* context, TEXTURE* t) {
  chaininsbegin(&context->texturememchain, &t->memchain);
  if (t->flags != T_FREE) t->flags |= T_INMEMCHAIN;
  context->itexturememchain++;
}

void takeoffmemchain(OVCONTEXT* context, TEXTURE* t) {
  chainrem(&t->memchain);
  t->memchain.prev = t->memchain.next = nullptr;
  if (t->flags != T_FREE) t->flags &= ~T_INMEMCHAIN;
  context->itexturememchain--;
}

void putondelchain(OVCONTEXT* context, TEXTURE* t) {
  chaininsbegin(&context->texturechain, &t->chain);
  t->flags |= T_INDELCHAIN;
  context->itexturedelchain++;
}

void takeoffdelchain(OVCONTEXT* context, TEXTURE* t) {
  chainrem(&t->chain);
  t->flags &= ~T_INDELCHAIN;
  context->itexturedelchain--;
}

// Files an evictable tile that isn't filed yet.
void file(OVCONTEXT* context, TEXTURE* t) {
  if (t->pixels && !inmemchain(t)) putonmemchain(context, t);
  if (!(t->flags & T_INDELCHAIN)) putondelchain(context, t);
}

void unfile(OVCONTEXT* context, TEXTURE* t) {
  if (inmemchain(t)) takeoffmemchain(context, t);
  if (t->flags & T_INDELCHAIN) takeoffdelchain(context, t);
}

// The last reference is gone. The record goes back on the free list even
// when it carries storage: the storage stays on its chain for the next tile
// that needs some, and the record is free for the next tile at once.
void detachstep(OVCONTEXT* context, TEXTURE* t) {
  if (AREA* a = t->area) {
    for (TEXTURE*& slot : a->texture)
      if (slot == t) {
        slot = nullptr;
        updatedelchain(context, a);
      }
    t->area = nullptr;
  }
  if (t->flags & T_INDELCHAIN) takeoffdelchain(context, t);
  if (t->pixels && !inmemchain(t)) putonmemchain(context, t);
  poolgive(&context->rtexture, t);
  context->itexture--;
}

// One reference less; false (with the line) if there was none.
bool release(OVCONTEXT* context, TEXTURE* t) {
  if (t->count == 0) {
    fputs("detacht: FATAL ERROR: already deleted.\n", stderr);
    return false;
  }
  if (--t->count == 0) detachstep(context, t);
  return true;
}

// One lock less; the tile is filed once nothing holds it.
void unlock(OVCONTEXT* context, TEXTURE* t) {
  t->memcount--;
  if (t->memcount == 0 && evictable(t)) file(context, t);
}

// Offers the lists of the active viewports to the stress step, one at a
// time, until `enough` holds.
template <typename ENOUGH>
bool stressviewports(OVCONTEXT* context, ENOUGH enough) {
  CHAIN* head = &context->vpactivechain;
  for (CHAIN* l = head->next; l != head && !enough(); l = l->next)
    texturestress(context, CHAINRECORD(l, DRAWLISTS, activechain));
  return enough();
}

bool poolfull(OVCONTEXT* context) {
  // Two records are always held back, and a pool without records is full.
  return context->itexture >= context->ntexture - 2;
}

// Frees records until the pool has room; false when nothing can be freed.
bool reclaim(OVCONTEXT* context) {
  while (poolfull(context)) {
    if (chainempty(&context->texturechain) &&
        !stressviewports(context, [&] {
          return !poolfull(context) || !chainempty(&context->texturechain);
        }))
      return false;
    if (!poolfull(context)) break;
    TEXTURE* head = CHAINRECORD(context->texturechain.next, TEXTURE, chain);
    // Whatever else refers to it is overruled: an evictable tile is held by
    // its area's slot alone.
    head->count = 0;
    detachstep(context, head);
  }
  return true;
}

// Takes the storage of the oldest unlocked tile for `t`; false when there is
// none anywhere.
bool stealstorage(OVCONTEXT* context, TEXTURE* t) {
  if (chainempty(&context->texturememchain) &&
      !stressviewports(context, [&] { return !chainempty(&context->texturememchain); }))
    return false;
  TEXTURE* from = CHAINRECORD(context->texturememchain.next, TEXTURE, memchain);
  takeoffmemchain(context, from);
  t->pixels = from->pixels;
  t->texture = from->texture;
  from->pixels = nullptr;
  from->texture = -1;
  if (from->flags != T_FREE) from->flags &= ~T_GLVALID;
  // A tile of no area and no reference only lived for its storage.
  if (from->count == 0 && from->flags != T_FREE) detachstep(context, from);
  return true;
}

WORKER* gentextureworker(OVCONTEXT* context) {
  bool direct = hascontextflag(context, OVCONTEXT_TEXTURE_MEM) || !context->textureuploadcallback;
  return addworker(context, direct ? THREAD_MAIN : THREAD_GLWORKER,
                   direct ? worker_canvas_gentexture_return : worker_canvas_gentexture);
}

TEXTURE* carried(WORKER* worker, int channel) {
  return static_cast<TEXTURE*>(worker->pdata[GENTEXTURE_TEXTURE + channel]);
}

// The upload has ended: each carried tile goes into its area's slot, taking
// over the worker's reference.
void installtiles(OVCONTEXT* context, WORKER* worker, AREA* a) {
  for (int i = 0; i < NCHANNELS; i++) {
    TEXTURE* t = carried(worker, i);
    if (!t) continue;
    unlockmemtexture(context, t, true);
    if (a->texture[i] == t) {
      detacht(context, t);
    } else {
      if (a->texture[i]) droptexture(context, a, i);
      a->texture[i] = t;
      t->area = a;
    }
    t->computecycle = a->computecycle;
  }
  updatedelchain(context, a);
}

}  // namespace

TEXTURE* addt(OVCONTEXT* context, AREA* a) {
  if (!context->rtexture || !reclaim(context)) {
    fputs("texture overflow.\n", stderr);
    return nullptr;
  }
  TEXTURE* t = pooltake(&context->rtexture);
  context->itexture++;
  t->nextrem = nullptr;
  t->area = a;
  t->computecycle = a && a->realm ? a->realm->computecycle : 0;
  t->memcount = 0;
  t->count = 1;
  if (!t->pixels) {
    t->flags = T_USED;
    return t;
  }
  // A free record that kept its storage is still on the storage chain.
  t->flags = T_USED | T_INMEMCHAIN;
  if (!inmemchain(t)) {
    fputs("addt: FATAL ERROR\n", stderr);
    t->flags = T_USED;
    putonmemchain(context, t);
  }
  return t;
}

void attacht(TEXTURE* t) { t->count++; }

void detacht(OVCONTEXT* context, TEXTURE* t) {
  if (t) release(context, t);
}

void lockmemtexture(OVCONTEXT* context, TEXTURE* t) {
  if (t->area) t->computecycle = t->area->computecycle;
  if (!t->pixels && !stealstorage(context, t)) fputs("texture mem overflow.\n", stderr);
  // Counted even without storage, so that the holder's unlock stays paired.
  t->memcount++;
  unfile(context, t);
}

void unlockmemtexture(OVCONTEXT* context, TEXTURE* t, bool glvalid) {
  // Only pixels that exist can have reached the GL texture.
  if (glvalid && t->pixels) t->flags |= T_GLVALID;
  unlock(context, t);
}

void checktexturestatus(OVCONTEXT* context, TEXTURE* t) {
  if (evictable(t))
    file(context, t);
  else
    unfile(context, t);
}

void droptexture(OVCONTEXT* context, AREA* a, int channel) {
  TEXTURE* t = a->texture[channel];
  if (!t) return;
  a->texture[channel] = nullptr;
  t->area = nullptr;
  checktexturestatus(context, t);
  detacht(context, t);
}

void freetexturesinlist(OVCONTEXT* context, DRAWLISTS* lists, int list) {
  DRAWRECT* rects = lists->drawrect[list];
  unsigned int n = lists->idrawrect[list];
  for (unsigned int r = 0; r < n; r++) {
    DRAWRECT* dr = &rects[r];
    for (int k = 0; k < dr->ichannels; k++) {
      unlock(context, dr->texture[k]);
      release(context, dr->texture[k]);
    }
  }
  lists->idrawrect[list] = 0;
}

void texturestress(OVCONTEXT* context, DRAWLISTS* lists) {
  int active = atomicload(&lists->activelist);
  int first = active == 0 ? 1 : 0;
  int list = first + (atomicload(&lists->toactivatelist) == first ? 1 : 0);
  if (lists->drawrect[list] && lists->idrawrect[list] > 0)
    freetexturesinlist(context, lists, list);
  else if (active != -1 && lists->drawrect[active])
    freetexturesinlist(context, lists, active);
}

bool isnewer(TEXTURE* const* texture1, TEXTURE* const* texture2, unsigned int channels) {
  bool newer = false;
  for (int i = 0; i < NCHANNELS; i++) {
    if (!(channels & (1u << i))) continue;
    const TEXTURE* t1 = texture1[i];
    if (!t1 || !(t1->flags & T_GLVALID)) return false;
    if (!texture2 || !texture2[i] || texture2[i]->computecycle <= t1->computecycle) newer = true;
  }
  return newer;
}

bool hasdrawabletiles(const AREA* a, unsigned int channels) {
  if (!(channels & ((1u << NCHANNELS) - 1))) return false;
  for (int i = 0; i < NCHANNELS; i++)
    if ((channels & (1u << i)) && (!a->texture[i] || !(a->texture[i]->flags & T_GLVALID)))
      return false;
  return true;
}

void cachetexture(OVCONTEXT*, TEXTURE*) {}
void readtexture(OVCONTEXT*, TEXTURE*) {}
void makegltexture(OVCONTEXT*, TEXTURE*) {}

// A tile that lost its storage isn't carried: locking it would hand it
// another tile's pixels, which the upload would then show as its own. Its
// area is found without a drawable tile and is computed anew.
bool uploadtiles(OVCONTEXT* context, AREA* a) {
  if (a->worker) return false;
  uint32_t cycle = a->realm->computecycle;
  bool due = false;
  for (int i = 0; i < NCHANNELS; i++) {
    TEXTURE* t = a->texture[i];
    if ((a->channels & (1u << i)) && t && t->pixels &&
        (!(t->flags & T_GLVALID) || t->computecycle != cycle))
      due = true;
  }
  if (!due) return false;
  WORKER* worker = gentextureworker(context);
  if (!worker) return false;
  worker->pdata[GENTEXTURE_AREA] = a;
  worker->pdata[GENTEXTURE_REALM] = a->realm;
  for (int i = 0; i < NCHANNELS; i++) {
    TEXTURE* t = a->texture[i];
    if (t && !t->pixels) t = nullptr;
    worker->pdata[GENTEXTURE_TEXTURE + i] = t;
    if (!t) continue;
    attacht(t);
    lockmemtexture(context, t);
  }
  attachrealm(a->realm);
  a->worker = worker;
  dispatch(context, worker);
  return true;
}

void sendgentexture(OVCONTEXT* context, WORKER* worker) {
  bool direct = hascontextflag(context, OVCONTEXT_TEXTURE_MEM) || !context->textureuploadcallback;
  worker->recipient = direct ? THREAD_MAIN : THREAD_GLWORKER;
  worker->workerproc = direct ? worker_canvas_gentexture_return : worker_canvas_gentexture;
  dispatch(context, worker);
}

void worker_canvas_gentexture(OVCONTEXT* context, WORKER* worker) {
  for (int i = 0; i < NCHANNELS && !atomicload(&worker->stop); i++) {
    const TEXTURE* t = carried(worker, i);
    if (t && t->texture != -1 && t->pixels && !(t->flags & T_GLVALID))
      context->textureuploadcallback(context, t->texture, t->pixels, context->glthreadpdata);
  }
  worker->workerproc = worker_canvas_gentexture_return;
  worker->recipient = THREAD_MAIN;
  dispatch(context, worker);
}

void worker_canvas_gentexture_return(OVCONTEXT* context, WORKER* worker) {
  AREA* a = static_cast<AREA*>(worker->pdata[GENTEXTURE_AREA]);
  REALM* realm = static_cast<REALM*>(worker->pdata[GENTEXTURE_REALM]);
  if (atomicload(&worker->stop)) {
    // The area may be gone: only the worker's own holds are given back.
    for (int i = 0; i < NCHANNELS; i++) {
      TEXTURE* t = carried(worker, i);
      if (!t) continue;
      unlockmemtexture(context, t, false);
      detacht(context, t);
    }
  } else {
    a->worker = nullptr;
    installtiles(context, worker, a);
    areacheckvacount(context, a);
    setcontextflag(context, OVCONTEXT_DIRTY);
  }
  __detachrealm(context, realm);
  freeworker(context, worker);
}

int uploadperframe(double graphicsrate, double framerate) {
  double n = framerate > 0 ? graphicsrate * 4 / framerate : 1;
  int k = n < 1 ? 1 : n > 1e9 ? 1000000000 : static_cast<int>(n);
  return k < 1 ? 1 : k;
}

int serveglqueue(OVCONTEXT* context, int budget) {
  int count = 0;
  while (count < budget && glworker_eventloop(context, &count)) {
  }
  return count;
}
