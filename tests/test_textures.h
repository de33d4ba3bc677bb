// A running engine with tile memory of its own, for the tests of tiles and
// draw lists: a few storage tiles, and either a GL queue that the test drains
// with an upload callback that records its calls (no GL), or tiles kept in
// memory with no GL queue at all.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "enginefixture.h"

namespace texturetest {

using enginetest::waitfor;

struct UPLOAD {
  int texture;
  void* pixels;
  float first;  // the first texel at the time of the call
};

struct TileEngine {
  OVCONTEXT* context;
  void* memory;
  std::mutex lock;
  std::vector<UPLOAD> uploads;

  static void recordupload(OVCONTEXT*, int texture, void* data, void* pdata) {
    TileEngine* e = static_cast<TileEngine*>(pdata);
    std::lock_guard<std::mutex> g(e->lock);
    e->uploads.push_back(UPLOAD{texture, data, *static_cast<float*>(data)});
  }

  // `nmem` storage tiles, twice as many records.
  explicit TileEngine(int nmem = 4, bool glqueue = true, int nthread = 4) {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    memory = calloc(static_cast<size_t>(nmem), TEXTUREBYTES);
    bool ok = initcontext(context, enginetest::TESTMEMORY, nthread, 8, nmem, memory, nullptr,
                          nullptr, glqueue ? recordupload : nullptr, nullptr, this, "/tmp/",
                          glqueue ? OVCONTEXT_NO_GLTHREAD : 0);
    EXPECT_TRUE(ok);
  }

  ~TileEngine() {
    freecontext(context);
    free(context);
    free(memory);
  }

  std::vector<UPLOAD> calls() {
    std::lock_guard<std::mutex> g(lock);
    return uploads;
  }

  // Runs fn on thread_main and waits for it.
  void onmain(std::function<void(OVCONTEXT*)> fn) {
    enginetest::CALL call;
    call.fn = std::move(fn);
    WORKER* w = addworker(context, THREAD_MAIN, enginetest::worker_call);
    ASSERT_NE(w, nullptr);
    w->pdata[0] = &call;
    dispatch(context, w);
    waitfor([&] { return call.done.load(); });
  }

  void waitidle() {
    waitfor([&] { return atomicload(&context->iworkerall) == 0; });
  }
};

// The pool's counters, read on the main thread.
struct TILECOUNTS {
  int itexture, itexturememchain, itexturedelchain;
  bool operator==(const TILECOUNTS&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const TILECOUNTS& k) {
  return os << "itexture " << k.itexture << " itexturememchain " << k.itexturememchain
            << " itexturedelchain " << k.itexturedelchain;
}

inline TILECOUNTS tilecounts(OVCONTEXT* c) {
  return TILECOUNTS{c->itexture, c->itexturememchain, c->itexturedelchain};
}

inline int chainlength(const CHAIN* head) {
  int n = 0;
  for (const CHAIN* l = head->next; l != head; l = l->next) n++;
  return n;
}

inline std::vector<TEXTURE*> memchainorder(OVCONTEXT* c) {
  std::vector<TEXTURE*> v;
  for (CHAIN* l = c->texturememchain.next; l != &c->texturememchain; l = l->next)
    v.push_back(CHAINRECORD(l, TEXTURE, memchain));
  return v;
}

inline std::vector<TEXTURE*> delchainorder(OVCONTEXT* c) {
  std::vector<TEXTURE*> v;
  for (CHAIN* l = c->texturechain.next; l != &c->texturechain; l = l->next)
    v.push_back(CHAINRECORD(l, TEXTURE, chain));
  return v;
}

// A realm whose first message has run, and one child of its top.
struct SCENE {
  REALM* realm;
  AREA* a;
};

inline SCENE newscene(TileEngine& e, int priority = 5) {
  SCENE s{addrealm(e.context, GENERAL), nullptr};
  EXPECT_NE(s.realm, nullptr);
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, s.realm->top);
    s.a = s.realm->top->child[0];
    s.a->priority = priority;
  });
  return s;
}

inline void endscene(TileEngine& e, SCENE& s) {
  detachrealm(e.context, s.realm);
  e.onmain([](OVCONTEXT*) {});
}

// A drawable tile of `a` in slot `channel`: storage locked, "uploaded",
// unlocked. Main thread.
inline TEXTURE* drawabletile(OVCONTEXT* c, AREA* a, int channel) {
  TEXTURE* t = addt(c, a);
  if (!t) return nullptr;
  a->texture[channel] = t;
  lockmemtexture(c, t);
  unlockmemtexture(c, t, true);
  return t;
}

// Every record and storage tile accounted for: free records on the free
// list, the storage chain holding exactly the unlocked tiles with storage
// that are evictable or free, counters equal to the chains' lengths. Empty
// means sound.
inline std::string checkpool(OVCONTEXT* c) {
  std::ostringstream err;
  if (chainlength(&c->texturememchain) != c->itexturememchain) err << "memchain length\n";
  if (chainlength(&c->texturechain) != c->itexturedelchain) err << "delchain length\n";
  int used = 0, storage = 0;
  for (int i = 0; i < c->ntexture; i++) {
    TEXTURE* t = &c->texture[i];
    if (t->pixels) storage++;
    if (t->flags == T_FREE || t->flags == 0) {
      if (t->memchain.prev == nullptr && t->pixels) err << "free record " << i << " with lost storage\n";
      continue;
    }
    used++;
    if (t->count <= 0) err << "record " << i << " in use with count " << t->count << "\n";
    if (t->memcount < 0) err << "record " << i << " with memcount " << t->memcount << "\n";
    if ((t->flags & T_GLVALID) && !t->pixels) err << "record " << i << " drawable without storage\n";
    if (t->memcount > 0 && (t->flags & (T_INMEMCHAIN | T_INDELCHAIN)))
      err << "locked record " << i << " on a chain\n";
  }
  if (used != c->itexture) err << "itexture " << c->itexture << " but " << used << " in use\n";
  if (storage != c->nmemtexture) err << "storage " << storage << " of " << c->nmemtexture << "\n";
  return err.str();
}

}  // namespace texturetest
