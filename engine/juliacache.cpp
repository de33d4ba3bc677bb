// juliacache.cpp: the tiles of the Julia stack in a bounded memory. A tile
// record (JULIACACHE) may own a memory slot, one of 256 in a block that is
// allocated the first time one of its slots is needed and kept for the run;
// a tile without a slot lives in the temporary file or in a stored fractal's
// file. Unlocked tiles with a slot wait on `juliacachememchain`, oldest
// first, and the oldest gives its slot up when a slot is wanted and the
// budget `nmemjuliacache` is spent; a dirty one is written out first.
//
// A freed record keeps its slot, so a record handed out again starts with
// memory, and the slot stays on the chain for anyone to take. Pixel buffers
// (PREPIXELS) live apart, on a lock-free stack of free buffers.
#include <cstdio>
#include <cstdlib>

#include "Mandelbrot.h"

namespace {

constexpr int PREPIXELSONSTACK = offsetof(PREPIXELS, nextonstack);
constexpr int WORKERONSTACK = offsetof(WORKER, nextonstack);
constexpr size_t BLOCKBYTES = static_cast<size_t>(JULIACACHETILEBYTES) << NMEMJULIACACHEBLOCKSIZESHIFT;
constexpr unsigned int SLOTSPERBLOCK = 1u << NMEMJULIACACHEBLOCKSIZESHIFT;
constexpr uint32_t JCF_KEPTONFREE = JCF_DIRTY | JCF_MIPMAP;  // lost when a record is freed

// The pool form of the other records, except that a record's flags survive
// the hand-out: a free record may still own a slot on the memory chain.
JULIACACHE* jctake(JULIACACHE** next) {
  JULIACACHE* jc = *next;
  if (jc->nextrem) {
    *next = jc->nextrem;
  } else {
    *next = jc + 1;
    (*next)->nextrem = nullptr;
  }
  return jc;
}

void jcgive(JULIACACHE** next, JULIACACHE* jc) {
  jc->flags = (jc->flags & ~JCF_KEPTONFREE) | JCF_FREE;
  jc->nextrem = *next;
  *next = jc;
}

void jcinit(JULIACACHE* jc) {
  jc->data = nullptr;
  jc->file = nullptr;
  jc->offset = 0;
  initchain(&jc->delchain);
  jc->count = 1;
  jc->memcount = 0;
  jc->nextrem = nullptr;
  jc->flags &= JCF_INMEMCHAIN;
}

bool ismainrecord(OVCONTEXT* context, const JULIACACHE* jc) {
  return jc >= context->juliacache && jc < context->juliacache + context->njuliacache;
}

void ontomemchain(OVCONTEXT* context, JULIACACHE* jc) {
  if (jc->flags & JCF_INMEMCHAIN) return;
  chaininsbegin(&context->juliacachememchain, &jc->memchain);
  jc->flags |= JCF_INMEMCHAIN;
}

void offmemchain(JULIACACHE* jc) {
  if (!(jc->flags & JCF_INMEMCHAIN)) return;
  chainrem(&jc->memchain);
  jc->flags &= ~JCF_INMEMCHAIN;
}

// The next never-used slot, with its block made when it is the block's first.
PREPIXEL* freshslot(OVCONTEXT* context) {
  while (context->imemjuliacache < context->nmemjuliacache) {
    unsigned int i = context->imemjuliacache;
    void*& block = context->juliacachedata[i >> NMEMJULIACACHEBLOCKSIZESHIFT];
    if (i % SLOTSPERBLOCK == 0 && !block) {
      block = malloc(BLOCKBYTES);
      if (!block) {
        // The budget was larger than the machine: it ends here.
        context->nmemjuliacache = context->imemjuliacache;
        continue;
      }
    }
    context->imemjuliacache++;
    return static_cast<PREPIXEL*>(block) + static_cast<size_t>(i % SLOTSPERBLOCK) * NPREPIXEL;
  }
  return nullptr;
}

// The slot of the oldest tile on the memory chain, its contents written out
// first when they exist only there.
PREPIXEL* evictslot(OVCONTEXT* context) {
  CHAIN* head = &context->juliacachememchain;
  if (chainempty(head)) {
    fputs("juliacache mem overflow.\n", stderr);
    return nullptr;
  }
  JULIACACHE* victim = CHAINRECORD(head->next, JULIACACHE, memchain);
  if ((victim->flags & JCF_DIRTY) && victim->data && !juliaswapwrite(context, victim, victim->data)) {
    fputs("cachejuliacache: fatal I/O error\n", stderr);
    return nullptr;
  }
  PREPIXEL* slot = victim->_data;
  atomicstore<PREPIXEL*>(&victim->data, nullptr);
  victim->_data = nullptr;
  offmemchain(victim);
  victim->flags &= ~JCF_DIRTY;
  return slot;
}

}  // namespace

// ---------------------------------------------------------------- records

JULIACACHE* addjc(OVCONTEXT* context) {
  if (context->ijuliacache >= context->njuliacache - 2) {
    fputs("juliacache overflow.\n", stderr);
    return nullptr;
  }
  JULIACACHE* jc = jctake(&context->rjuliacache);
  context->ijuliacache++;
  jcinit(jc);
  return jc;
}

JULIACACHE* addjcfileoffset(OVCONTEXT* context, JCFILE* file, uint64_t offset) {
  if (context->ijuliacachefile >= context->njuliacachefile - 2) {
    fputs("juliacachefile overflow.\n", stderr);
    return nullptr;
  }
  JULIACACHE* jc = jctake(&context->rjuliacachefile);
  context->ijuliacachefile++;
  jcinit(jc);
  jc->file = file;
  jc->offset = offset;
  attachjcfile(file);
  return jc;
}

void attachjc(JULIACACHE* jc) { jc->count++; }

void detachjc(OVCONTEXT* context, JULIACACHE* jc) {
  if (!jc || --jc->count > 0) return;
  detachjcfile(jc->file);
  jc->file = nullptr;
  jc->memcount = 0;
  atomicstore<PREPIXEL*>(&jc->data, nullptr);
  // The slot goes with the record but stays reusable by anyone.
  if (jc->_data) ontomemchain(context, jc);
  if (!ismainrecord(context, jc)) {
    jcgive(&context->rjuliacachefile, jc);
    context->ijuliacachefile--;
    return;
  }
  jcgive(&context->rjuliacache, jc);
  if (--context->ijuliacache > 0) return;
  // No tile is left that the file could hold: it starts afresh, and the
  // records are handed out from the array's start again.
  juliaswapclose(context);
  context->rjuliacache = context->juliacache;
  context->juliacache[0].nextrem = nullptr;
}

JULIACACHE* jcofindex(OVCONTEXT* context, int index) {
  if (index < 0) return nullptr;
  if (index < context->njuliacache) return &context->juliacache[index];
  index -= context->njuliacache;
  return index < context->njuliacachefile ? &context->juliacachefile[index] : nullptr;
}

// ---------------------------------------------------------------- stored files

JCFILE* addjcfile(FILE* file, uint64_t offset) {
  if (!file) return nullptr;
  JCFILE* f = static_cast<JCFILE*>(malloc(sizeof(JCFILE)));
  if (!f) return nullptr;
  f->file = file;
  f->count = 1;
  f->offset = offset;
  return f;
}

void attachjcfile(JCFILE* file) {
  if (file) file->count++;
}

void detachjcfile(JCFILE* file) {
  if (!file || --file->count > 0) return;
  fclose(file->file);
  free(file);
}

bool readjcfile(JCFILE* file, uint64_t offset, void* data, size_t size) {
  if (!file) return false;
  flockfile(file->file);
  bool ok = fseeko(file->file, static_cast<off_t>(file->offset + offset), SEEK_SET) == 0 &&
            fread(data, 1, size, file->file) == size;
  funlockfile(file->file);
  return ok;
}

// ---------------------------------------------------------------- memory

PREPIXEL* __makememjuliacache(OVCONTEXT* context, JULIACACHE* jc) {
  if (jc->_data) return jc->_data;
  PREPIXEL* slot = freshslot(context);
  if (!slot) slot = evictslot(context);
  jc->_data = slot;
  return slot;
}

bool __readjuliacache(OVCONTEXT* context, JULIACACHE* jc) {
  if (jc->data) return true;
  if (!jc->_data && !__makememjuliacache(context, jc)) {
    fputs("readjuliacache: !j->data.\n", stderr);
    return false;
  }
  jc->flags &= ~JCF_DIRTY;
  bool ok = jc->file ? readjcfile(jc->file, jc->offset, jc->_data, JULIACACHETILEBYTES)
                     : juliaswapread(context, jc, jc->_data);
  // An unlocked slot stays where eviction can find it, read or not.
  if (jc->memcount == 0) ontomemchain(context, jc);
  if (!ok) {
    fputs("readjuliacache: fatal I/O error.\n", stderr);
    return false;
  }
  // Whoever sees `data` sees the contents.
  memorybarrier();
  atomicstore(&jc->data, jc->_data);
  return true;
}

bool lockmemjuliacache(OVCONTEXT* context, JULIACACHE* jc, int flags) {
  if (jc->memcount == 0 && (flags & JCLOCK_READ) && !__readjuliacache(context, jc) &&
      !(flags & JCLOCK_CREATE))
    return false;
  if (!jc->_data) {
    if (!(flags & JCLOCK_CREATE)) return false;
    if (!__makememjuliacache(context, jc)) return false;
  }
  memorybarrier();
  atomicstore(&jc->data, jc->_data);
  jc->memcount++;
  offmemchain(jc);
  return true;
}

void unlockmemjuliacache(OVCONTEXT* context, JULIACACHE* jc, int flags) {
  if (flags & JCUNLOCK_DIRTY) jc->flags |= JCF_DIRTY;
  if (jc->memcount > 0) jc->memcount--;
  if (jc->memcount == 0 && jc->_data) ontomemchain(context, jc);
}

// ---------------------------------------------------------------- pixel buffers

PREPIXELS* addprepixels(OVCONTEXT* context) {
  if (void* p = atomicfifodequeue(&context->prepixelschain, PREPIXELSONSTACK))
    return static_cast<PREPIXELS*>(p);
  if (atomicincrementint(&context->iprepixels) <= static_cast<int>(context->nprepixels)) {
    PREPIXELS* p = static_cast<PREPIXELS*>(malloc(sizeof(PREPIXELS)));
    if (p) {
      p->nextonstack = nullptr;
      p->flags = 0;
      p->nfromplace = 0;
      return p;
    }
  }
  atomicdecrementint(&context->iprepixels);
  return nullptr;
}

void removeprepixels(OVCONTEXT* context, PREPIXELS* p) {
  if (!p) return;
  releasefromplacelevels(context, p);
  if (WORKER* w = static_cast<WORKER*>(atomicfifodequeue(&context->areawaitingforprepixel, WORKERONSTACK))) {
    w->prepixels = p;
    dispatch(context, w);
    return;
  }
  atomicfifoenqueue(&context->prepixelschain, p, PREPIXELSONSTACK);
}

void waitforprepixels(OVCONTEXT* context, WORKER* worker) {
  atomicfifoenqueue(&context->areawaitingforprepixel, worker, WORKERONSTACK);
}

void releaseprepixelwaiters(OVCONTEXT* context) {
  while (WORKER* w = static_cast<WORKER*>(atomicfifodequeue(&context->areawaitingforprepixel, WORKERONSTACK))) {
    atomicstore(&w->stop, true);
    dispatch(context, w);
  }
}
