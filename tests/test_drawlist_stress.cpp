// The exchange of the three draw lists between the engine's main thread,
// which builds and publishes lists, and the display, which takes the newest
// at each frame and reads it until the frame ends. The display must never be
// handed a list the main thread is writing, nor have its list rewritten
// under it: the writer marks the list it writes, and the reader checks the
// mark and the contents before and after reading.
//
// No engine is needed: rectangles carry no tiles here, only a signature.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "Mandelbrot.h"

namespace {

constexpr int RECTS = 32;

// Every rectangle of a list built in `generation` says so.
void writelist(DRAWRECT* rects, int generation) {
  for (int r = 0; r < RECTS; r++) {
    rects[r].ichannels = 0;
    rects[r].x0 = generation;
    rects[r].y0 = r;
    rects[r].x1 = generation + r;
    rects[r].correction = static_cast<float>(generation);
  }
}

// The generation the list holds, or -1 if its rectangles disagree.
int readlist(const DRAWRECT* rects, unsigned int n) {
  if (n != RECTS) return -1;
  int generation = rects[0].x0;
  for (int r = 0; r < RECTS; r++)
    if (rects[r].x0 != generation || rects[r].y0 != r || rects[r].x1 != generation + r ||
        rects[r].correction != static_cast<float>(generation))
      return -1;
  return generation;
}

struct RUN {
  int torn = 0;        // a list whose rectangles disagreed
  int beingwritten = 0;  // a list the writer held while the reader had it
  int backwards = 0;   // an older list after a newer one
  std::atomic<int> frames{0};  // frames that got a list
};

// The writer goes on until the reader has had this many frames, however the
// two threads are scheduled.
constexpr int MINFRAMES = 2000;

void exchange(int generations, int spin, RUN& run) {
  DRAWLISTS lists;
  initdrawlists(&lists);
  for (int l = 0; l < NDISPLAYLISTS; l++) {
    lists.drawrect[l] = static_cast<DRAWRECT*>(calloc(RECTS, sizeof(DRAWRECT)));
    lists.ndrawrect[l] = RECTS;
  }
  std::atomic<int> writing[NDISPLAYLISTS] = {-1, -1, -1};
  std::atomic<bool> done{false};

  std::thread reader([&] {
    int last = -1;
    while (!done.load()) {
      lockdrawlists(&lists);
      int l = takedrawlist(&lists);
      if (l < 0) continue;
      if (writing[l].load() != -1) run.beingwritten++;
      int g = readlist(lists.drawrect[l], lists.idrawrect[l]);
      // The frame goes on while the writer works: read the list again.
      for (int k = 0; k < spin; k++) __asm__ volatile("" ::: "memory");
      int again = readlist(lists.drawrect[l], lists.idrawrect[l]);
      if (writing[l].load() != -1) run.beingwritten++;
      if (g < 0 || again != g) run.torn++;
      if (g >= 0 && g < last) run.backwards++;
      if (g > last) last = g;
      run.frames.fetch_add(1);
      unlockdrawlists(&lists);
    }
  });

  for (int generation = 0; generation < generations || run.frames.load() < MINFRAMES;
       generation++) {
    int l = nextdrawlist(&lists);
    writing[l].store(generation);
    lists.idrawrect[l] = 0;
    writelist(lists.drawrect[l], generation);
    lists.idrawrect[l] = RECTS;
    writing[l].store(-1);
    publishdrawlist(&lists, l, static_cast<uint32_t>(generation));
  }
  done.store(true);
  reader.join();
  for (DRAWRECT* d : lists.drawrect) free(d);
}

}  // namespace

TEST(DrawListStress, TheDisplayIsNeverHandedAListBeingWritten) {
  for (int spin : {0, 50, 2000}) {
    RUN run;
    exchange(100000, spin, run);
    EXPECT_EQ(run.beingwritten, 0) << "spin " << spin;
    EXPECT_EQ(run.torn, 0) << "spin " << spin;
    EXPECT_EQ(run.backwards, 0) << "spin " << spin;
    EXPECT_GE(run.frames.load(), MINFRAMES) << "spin " << spin;
  }
}

// One list published at a time, each taken before the next is built: the
// display sees every generation, in order.
TEST(DrawListStress, APublishedListIsTheOneTheDisplayTakes) {
  DRAWLISTS lists;
  initdrawlists(&lists);
  for (int l = 0; l < NDISPLAYLISTS; l++) {
    lists.drawrect[l] = static_cast<DRAWRECT*>(calloc(RECTS, sizeof(DRAWRECT)));
    lists.ndrawrect[l] = RECTS;
  }
  std::atomic<int> published{-1}, taken{-1};
  std::thread reader([&] {
    for (int g = 0; g < 20000; g++) {
      while (published.load() < g) {
      }
      lockdrawlists(&lists);
      int l = takedrawlist(&lists);
      EXPECT_GE(l, 0);
      if (l >= 0) {
        EXPECT_EQ(readlist(lists.drawrect[l], lists.idrawrect[l]), g);
      }
      unlockdrawlists(&lists);
      taken.store(g);
    }
  });
  for (int g = 0; g < 20000; g++) {
    int l = nextdrawlist(&lists);
    EXPECT_NE(l, atomicload(&lists.activelist));
    writelist(lists.drawrect[l], g);
    lists.idrawrect[l] = RECTS;
    publishdrawlist(&lists, l, static_cast<uint32_t>(g));
    published.store(g);
    while (taken.load() < g) {
    }
  }
  reader.join();
  for (DRAWRECT* d : lists.drawrect) free(d);
}
