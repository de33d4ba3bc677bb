// The Julia cache: tile records, memory slots under a small budget, the
// spill to the temporary file and the reload from it or from a stored
// fractal's file, the failures of both, and the pixel buffers.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "enginefixture.h"

using enginetest::Engine;

namespace {

std::string maketempdir() {
  char name[] = "/tmp/orvanta-jc-XXXXXX";
  EXPECT_NE(mkdtemp(name), nullptr);
  return std::string(name) + "/";
}

bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

int64_t filesize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// A tile's contents, distinct per seed and per pixel.
void fill(PREPIXEL* t, int seed) {
  for (int i = 0; i < NPREPIXEL; i++)
    t[i] = PREPIXEL{seed * 7 + i, float(seed) + i * 0.5f, float(-i), float(seed), 0.25f * i, (seed + i) % 5 - 1};
}

bool same(const PREPIXEL* t, int seed) {
  std::vector<PREPIXEL> want(NPREPIXEL);
  fill(want.data(), seed);
  return memcmp(t, want.data(), JULIACACHETILEBYTES) == 0;
}

// An engine whose Julia cache holds `slots` tiles in memory.
struct Cache {
  std::string dir;
  Engine e;
  explicit Cache(unsigned int slots, const char* tmp = nullptr)
      : dir(tmp ? tmp : maketempdir()), e(4, false, enginetest::TESTMEMORY, dir.c_str()) {
    e.waitidle();
    e.onmain([slots](OVCONTEXT* c) { c->nmemjuliacache = slots; });
  }
  ~Cache() {
    if (dir.rfind("/tmp/orvanta-jc-", 0) == 0) {
      unlink((dir + "juliacache.data").c_str());
      rmdir(dir.c_str());
    }
  }
  std::string file() const { return dir + "juliacache.data"; }
  OVCONTEXT* c() { return e.context; }
};

// A new tile with the contents of `seed`, unlocked and dirty.
JULIACACHE* maketile(OVCONTEXT* c, int seed) {
  JULIACACHE* jc = addjc(c);
  EXPECT_NE(jc, nullptr);
  EXPECT_TRUE(lockmemjuliacache(c, jc, JCLOCK_CREATE));
  fill(jc->data, seed);
  unlockmemjuliacache(c, jc, JCUNLOCK_DIRTY);
  return jc;
}

}  // namespace

TEST(JuliaCache, SpillAndReloadGiveTheSameBytesAndTheFileComesAtFirstNeed) {
  Cache k(4);
  std::vector<JULIACACHE*> tiles;
  bool before = true, after = false;
  k.e.onmain([&](OVCONTEXT* c) {
    for (int i = 0; i < 4; i++) tiles.push_back(maketile(c, i));
    before = exists(k.file());
    for (int i = 4; i < 10; i++) tiles.push_back(maketile(c, i));
    after = exists(k.file());
  });
  EXPECT_FALSE(before);  // four tiles fit: nothing was written
  EXPECT_TRUE(after);
  k.e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(c->imemjuliacache, 4u);
    int inmemory = 0;
    for (JULIACACHE* jc : tiles) inmemory += jc->data != nullptr;
    EXPECT_EQ(inmemory, 4);
    // The oldest went first.
    for (int i = 0; i < 6; i++) EXPECT_EQ(tiles[i]->data, nullptr) << i;
    for (int i = 0; i < 10; i++) {
      ASSERT_TRUE(lockmemjuliacache(c, tiles[i], JCLOCK_READ)) << i;
      EXPECT_TRUE(same(tiles[i]->data, i)) << i;
      unlockmemjuliacache(c, tiles[i], 0);
    }
    EXPECT_EQ(c->imemjuliacache, 4u);  // no slot beyond the budget
  });
  // Each tile has its place at its index.
  int64_t size = filesize(k.file());
  EXPECT_EQ(size % JULIACACHETILEBYTES, 0);
  EXPECT_LE(size, 10 * JULIACACHETILEBYTES);
  int fd = open(k.file().c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  std::vector<PREPIXEL> t(NPREPIXEL);
  ASSERT_EQ(pread(fd, t.data(), JULIACACHETILEBYTES, tiles[2]->ijuliacache * JULIACACHETILEBYTES),
            JULIACACHETILEBYTES);
  EXPECT_TRUE(same(t.data(), 2));
  close(fd);
  k.e.onmain([&](OVCONTEXT* c) {
    for (JULIACACHE* jc : tiles) detachjc(c, jc);
  });
}

TEST(JuliaCache, AFreedRecordIsReusedWithItsFileOffsetAndItsSlot) {
  Cache k(2);
  k.e.onmain([&](OVCONTEXT* c) {
    JULIACACHE* a = maketile(c, 1);
    JULIACACHE* b = maketile(c, 2);
    JULIACACHE* d = maketile(c, 3);  // a goes out
    ASSERT_EQ(a->data, nullptr);
    int index = b->ijuliacache;
    PREPIXEL* slot = b->_data;
    detachjc(c, b);
    EXPECT_EQ(b->flags & JCF_FREE, JCF_FREE);
    EXPECT_EQ(b->_data, slot);  // the slot stays with the record
    JULIACACHE* again = maketile(c, 4);
    EXPECT_EQ(again, b);
    EXPECT_EQ(again->ijuliacache, index);
    EXPECT_EQ(again->_data, slot);
    EXPECT_EQ(c->imemjuliacache, 2u);
    int64_t size = filesize(k.file());
    JULIACACHE* e2 = maketile(c, 5);  // the reused record goes out in its own place
    ASSERT_TRUE(lockmemjuliacache(c, again, JCLOCK_READ));
    EXPECT_TRUE(same(again->data, 4));
    unlockmemjuliacache(c, again, 0);
    EXPECT_LE(filesize(k.file()), std::max<int64_t>(size, 5 * JULIACACHETILEBYTES));
    for (JULIACACHE* jc : {a, d, again, e2}) detachjc(c, jc);
  });
}

TEST(JuliaCache, ACleanTileOfAStoredFileIsRereadFromThatFile) {
  Cache k(1);
  std::string stored = k.dir + "stored.ov";
  FILE* f = fopen(stored.c_str(), "w+b");
  ASSERT_NE(f, nullptr);
  std::vector<PREPIXEL> t(NPREPIXEL);
  fill(t.data(), 40);
  ASSERT_EQ(fwrite("header", 1, 6, f), 6u);
  ASSERT_EQ(fwrite(t.data(), 1, JULIACACHETILEBYTES, f), size_t(JULIACACHETILEBYTES));
  fflush(f);
  k.e.onmain([&](OVCONTEXT* c) {
    JCFILE* jf = addjcfile(f, 6);
    JULIACACHE* jc = addjcfileoffset(c, jf, 0);
    detachjcfile(jf);  // the record holds the stream now
    ASSERT_NE(jc, nullptr);
    EXPECT_GE(jc->ijuliacache, c->njuliacache);
    ASSERT_TRUE(lockmemjuliacache(c, jc, JCLOCK_READ));
    EXPECT_TRUE(same(jc->data, 40));
    unlockmemjuliacache(c, jc, 0);
    JULIACACHE* other = addjc(c);  // takes the one slot, and stays clean
    ASSERT_TRUE(lockmemjuliacache(c, other, JCLOCK_CREATE));
    unlockmemjuliacache(c, other, 0);
    EXPECT_EQ(jc->data, nullptr);
    // The stored file changes: a reread must show it.
    fill(t.data(), 42);
    ASSERT_EQ(pwrite(fileno(f), t.data(), JULIACACHETILEBYTES, 6), JULIACACHETILEBYTES);
    ASSERT_TRUE(lockmemjuliacache(c, jc, JCLOCK_READ));
    EXPECT_TRUE(same(jc->data, 42));
    unlockmemjuliacache(c, jc, 0);
    detachjc(c, other);
    detachjc(c, jc);  // closes the stream
  });
  // A clean tile was never written to the temporary file.
  EXPECT_FALSE(exists(k.file()));
  unlink(stored.c_str());
}

TEST(JuliaCache, AFailedWriteIsReportedAndTheEngineGoesOn) {
  Cache k(1, "/nonexistent-orvanta-directory/");
  std::string err;
  bool locked = true;
  k.e.onmain([&](OVCONTEXT* c) {
    JULIACACHE* a = maketile(c, 1);
    testing::internal::CaptureStderr();
    JULIACACHE* b = addjc(c);
    locked = lockmemjuliacache(c, b, JCLOCK_CREATE);
    err = testing::internal::GetCapturedStderr();
    // The dirty tile keeps its contents.
    ASSERT_TRUE(lockmemjuliacache(c, a, JCLOCK_READ));
    EXPECT_TRUE(same(a->data, 1));
    unlockmemjuliacache(c, a, 0);
    detachjc(c, b);
    detachjc(c, a);
  });
  EXPECT_FALSE(locked);
  EXPECT_EQ(err, "cachejuliacache: fatal I/O error\n");
  k.e.onmain([](OVCONTEXT* c) { EXPECT_EQ(c->ijuliacache, 0); });
}

TEST(JuliaCache, AFailedReadIsReportedAndTheSlotIsKept) {
  Cache k(1);
  std::string err;
  k.e.onmain([&](OVCONTEXT* c) {
    JULIACACHE* a = maketile(c, 1);
    JULIACACHE* b = maketile(c, 2);  // a goes to the file
    ASSERT_EQ(ftruncate(c->juliacachetmpfile, 0), 0);
    detachjc(c, b);  // its slot is free to take, with nothing to write
    testing::internal::CaptureStderr();
    EXPECT_FALSE(lockmemjuliacache(c, a, JCLOCK_READ));
    err = testing::internal::GetCapturedStderr();
    EXPECT_NE(a->_data, nullptr);
    EXPECT_EQ(a->data, nullptr);
    EXPECT_EQ(a->memcount, 0);
    detachjc(c, a);
  });
  EXPECT_EQ(err, "readjuliacache: fatal I/O error.\n");
}

TEST(JuliaCache, NoSlotLeftWhenEveryTileIsLocked) {
  Cache k(2);
  std::string err;
  k.e.onmain([&](OVCONTEXT* c) {
    JULIACACHE* t[3];
    for (JULIACACHE*& jc : t) jc = addjc(c);
    EXPECT_TRUE(lockmemjuliacache(c, t[0], JCLOCK_CREATE));
    EXPECT_TRUE(lockmemjuliacache(c, t[1], JCLOCK_CREATE));
    testing::internal::CaptureStderr();
    EXPECT_FALSE(lockmemjuliacache(c, t[2], JCLOCK_CREATE));
    EXPECT_FALSE(__readjuliacache(c, t[2]));
    err = testing::internal::GetCapturedStderr();
    for (JULIACACHE* jc : t) detachjc(c, jc);
  });
  EXPECT_EQ(err, "juliacache mem overflow.\njuliacache mem overflow.\nreadjuliacache: !j->data.\n");
}

TEST(JuliaCache, TheLastDetachClosesAndForgetsTheTemporaryFile) {
  Cache k(1);
  k.e.onmain([&](OVCONTEXT* c) {
    JULIACACHE* a = maketile(c, 1);
    for (int i = 0; i < 3; i++) detachjc(c, maketile(c, 2 + i));  // a is written out
    EXPECT_GE(c->juliacachetmpfile, 0);
    EXPECT_EQ(filesize(k.file()), (a->ijuliacache + 1) * JULIACACHETILEBYTES);
    detachjc(c, a);
    EXPECT_EQ(c->ijuliacache, 0);
    EXPECT_EQ(c->juliacachetmpfile, -1);
    EXPECT_EQ(c->rjuliacache, &c->juliacache[0]);
    // The file starts afresh at its next need.
    JULIACACHE* b = maketile(c, 5);
    EXPECT_EQ(b, &c->juliacache[0]);
    JULIACACHE* d = maketile(c, 6);
    EXPECT_EQ(filesize(k.file()), JULIACACHETILEBYTES);
    ASSERT_TRUE(lockmemjuliacache(c, b, JCLOCK_READ));
    EXPECT_TRUE(same(b->data, 5));
    unlockmemjuliacache(c, b, 0);
    detachjc(c, d);
    detachjc(c, b);
  });
}

TEST(JuliaCache, FullPoolsAreReported) {
  Cache k(4);
  std::string err;
  k.e.onmain([&](OVCONTEXT* c) {
    c->ijuliacache = c->njuliacache - 2;
    c->ijuliacachefile = c->njuliacachefile - 2;
    testing::internal::CaptureStderr();
    EXPECT_EQ(addjc(c), nullptr);
    EXPECT_EQ(addjcfileoffset(c, nullptr, 0), nullptr);
    err = testing::internal::GetCapturedStderr();
    c->ijuliacache = 0;
    c->ijuliacachefile = 0;
  });
  EXPECT_EQ(err, "juliacache overflow.\njuliacachefile overflow.\n");
}

TEST(JuliaCache, ShutdownSwapsOutAndARelaunchReadsBack) {
  Cache k(2);
  std::vector<JULIACACHE*> tiles;
  k.e.onmain([&](OVCONTEXT* c) {
    for (int i = 0; i < 3; i++) tiles.push_back(maketile(c, 10 + i));
  });
  shutdowncontext(k.c(), true);
  EXPECT_EQ(k.c()->imemjuliacache, 0u);
  for (JULIACACHE* jc : tiles) EXPECT_EQ(jc->_data, nullptr);
  ASSERT_TRUE(relaunchcontext(k.c()));
  k.e.waitidle();
  k.e.onmain([&](OVCONTEXT* c) {
    EXPECT_GE(c->juliacachetmpfile, 0);  // reopened as it was
    for (int i = 0; i < 3; i++) {
      ASSERT_TRUE(lockmemjuliacache(c, tiles[i], JCLOCK_READ)) << i;
      EXPECT_TRUE(same(tiles[i]->data, 10 + i)) << i;
      unlockmemjuliacache(c, tiles[i], 0);
    }
    for (JULIACACHE* jc : tiles) detachjc(c, jc);
  });
}

// ---------------------------------------------------------------- pixel buffers

namespace {
std::atomic<int> gresumed{0};
PREPIXELS* gresumedwith = nullptr;
void resumed(OVCONTEXT* c, WORKER* w) {
  gresumedwith = w->prepixels;
  removeprepixels(c, w->prepixels);
  freeworker(c, w);
  gresumed.fetch_add(1);
}
}  // namespace

TEST(JuliaCache, PixelBuffersStopAtTheLimitAndGoToAParkedWorker) {
  Cache k(4);
  PREPIXELS* p[3] = {};
  k.e.onmain([&](OVCONTEXT* c) {
    c->nprepixels = 2;
    for (PREPIXELS*& b : p) b = addprepixels(c);
    EXPECT_EQ(c->iprepixels, 2);
    WORKER* w = addworker(c, THREAD_MAIN, resumed);
    waitforprepixels(c, w);
    removeprepixels(c, p[0]);  // straight to the parked worker
  });
  EXPECT_NE(p[0], nullptr);
  EXPECT_NE(p[1], nullptr);
  EXPECT_EQ(p[2], nullptr);
  enginetest::waitfor([] { return gresumed.load() == 1; });
  EXPECT_EQ(gresumedwith, p[0]);
  k.e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(addprepixels(c), p[0]);  // the worker gave it back
    EXPECT_EQ(c->iprepixels, 2);
    removeprepixels(c, p[0]);
    removeprepixels(c, p[1]);
  });
}
