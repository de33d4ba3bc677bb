// The engine object: pool sizes from the budget, the accounting of what is
// set aside, the Julia cache's share of the rest, the initial state of
// queues and records, the swap file, the memory report, and shutdown.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "enginefixture.h"

using enginetest::Engine;

namespace {

constexpr int64_t GIB = int64_t(1) << 30;

int64_t expectedfixed(const OVCONTEXT* c) {
  int64_t js = int64_t(c->juliasize) * c->juliasize * int64_t(sizeof(int));
  return 2 * js + int64_t(c->na) * sizeof(AREA) + int64_t(c->ntask) * sizeof(TASK) +
         int64_t(c->nhpvalue) * sizeof(HPVALUE) + int64_t(c->nworkerall) * sizeof(WORKER) +
         int64_t(c->ntexture) * sizeof(TEXTURE) +
         int64_t(c->njuliacache + c->njuliacachefile) * sizeof(JULIACACHE) +
         int64_t(c->nprepixels) * sizeof(PREPIXELS) + int64_t(c->nnode) * sizeof(NODE) +
         int64_t(c->nthread - 3) * sizeof(CANVAS0);
}

}  // namespace

TEST(ContextPools, AreaPoolStepsIncludeTheirUpperLimit) {
  struct STEP {
    int64_t memory;
    int na;
  };
  for (STEP s : {STEP{2 * GIB, 200000}, STEP{2 * GIB + 1, 400000}, STEP{4 * GIB, 400000},
                 STEP{4 * GIB + 1, 1000000}, STEP{8 * GIB, 1000000},
                 STEP{8 * GIB + 1, 2000000}}) {
    Engine e(4, false, s.memory);
    EXPECT_EQ(e.context->na, s.na) << "budget " << s.memory;
  }
}

TEST(ContextPools, FixedSizesAndAccounting) {
  Engine e;
  OVCONTEXT* c = e.context;
  EXPECT_EQ(c->njuliacache, 131072);
  EXPECT_EQ(c->njuliacachefile, 131072);
  EXPECT_EQ(c->nnode, 262144);
  EXPECT_EQ(c->ntask, 1024);
  EXPECT_EQ(c->nworkerall, 65536);
  EXPECT_EQ(c->nhpvalue, 131072);
  EXPECT_EQ(c->juliasize, 256);
  EXPECT_EQ(c->njuliapp, 1);
  EXPECT_EQ(c->njuliacacheprogram, 65536);
  EXPECT_EQ(c->nprepixels, 4096u < enginetest::TESTMEMORY / (12 * sizeof(PREPIXELS))
                               ? 4096u
                               : unsigned(enginetest::TESTMEMORY / (12 * sizeof(PREPIXELS))));
  EXPECT_EQ(c->mem_fixedmemtotal, expectedfixed(c));
  EXPECT_EQ(c->mem_hpvalue, 0);
  EXPECT_EQ(c->mem_envrefdata, 0);
}

TEST(ContextPools, NoUploadCallbackMeansTilesInMemoryAndNoGlThread) {
  Engine e;
  EXPECT_TRUE(hascontextflag(e.context, OVCONTEXT_TEXTURE_MEM));
  EXPECT_TRUE(hascontextflag(e.context, OVCONTEXT_NO_GLTHREAD));
  Engine gl(4, true);
  EXPECT_FALSE(hascontextflag(gl.context, OVCONTEXT_TEXTURE_MEM));
}

TEST(ContextPools, TinyBudgetHasNoPrepixelsAndTheSmallestJuliaCache) {
  // Under twelve pixel blocks: no block at all, and a rest below one cache
  // block (negative here) still gives one block of 256 tiles.
  Engine e(4, false, 12 * int64_t(sizeof(PREPIXELS)) - 1);
  EXPECT_EQ(e.context->nprepixels, 0u);
  EXPECT_EQ(e.context->nmemjuliacache, 256u);
  EXPECT_EQ(e.context->ncomputejuliastack, 10);
}

TEST(ContextPools, JuliaCacheTakesWhatRemains) {
  Engine e(4, false, 3 * GIB);
  OVCONTEXT* c = e.context;
  int64_t rest = c->totalmemory - c->mem_fixedmemtotal - int64_t(c->nprepixels) * sizeof(PREPIXELS);
  ASSERT_GT(rest, 0x18000000);
  EXPECT_EQ(c->nmemjuliacache, unsigned(rest / 0x18000000 * 256));
}

TEST(ContextPools, HugeRestKeepsTheWholeJuliaCache) {
  Engine e(4, false, 420 * GIB);
  EXPECT_EQ(e.context->nmemjuliacache, 262144u);
}

TEST(ContextState, QueuesRecordsAndTableStartEmpty) {
  Engine e;
  OVCONTEXT* c = e.context;
  e.waitidle();
  EXPECT_EQ(c->inode, NWORKERPRIO);  // one dummy per priority
  for (int p = 0; p < NWORKERPRIO; p++) {
    EXPECT_EQ(c->workerprio[p][0], c->workerprio[p][1]);
    EXPECT_EQ(c->workerprio[p][0]->next, nullptr);
  }
  EXPECT_EQ(c->idleworkermaxprio, -1);
  for (FIFO* f : {&c->wmain, &c->wmainhelper, &c->wworkergl, &c->computer, &c->prepixelschain})
    EXPECT_EQ(f->head.ptr, nullptr);
  EXPECT_EQ(c->workerchain.head.version % 2, 1u);
  EXPECT_TRUE(chainempty(&c->taskchain));
  EXPECT_TRUE(chainempty(&c->vpactivechain));
  EXPECT_EQ(c->ia, 0);
  EXPECT_EQ(c->ra, c->a);
  EXPECT_EQ(c->a[0].flags, POOL_FREE);
  EXPECT_EQ(c->a[0].nextrem, nullptr);
}

TEST(ContextState, RecordsAreNumbered) {
  Engine e;
  OVCONTEXT* c = e.context;
  for (int i : {0, 1, 1000}) {
    EXPECT_EQ(c->juliacache[i].ijuliacache, i);
    EXPECT_EQ(c->juliacache[i].flags, JCF_FREE);
    EXPECT_EQ(c->juliacachefile[i].ijuliacache, i + c->njuliacache);
  }
}

TEST(ContextState, TileMemoryIsDealtToTheFirstRecords) {
  OVCONTEXT* c = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
  std::vector<char> tiles(4 << 18);
  ASSERT_TRUE(initcontext(c, enginetest::TESTMEMORY, 4, 8, 4, tiles.data(), nullptr, nullptr,
                          enginetest::uploadnothing, nullptr, nullptr, "/tmp/",
                          OVCONTEXT_NO_GLTHREAD));
  EXPECT_EQ(c->ntexture, 8);
  EXPECT_EQ(c->nmemtexture, 4);
  EXPECT_EQ(c->itexturememchain, 4);
  for (int i = 0; i < 8; i++) EXPECT_EQ(c->texture[i].offset, int64_t(i) << 18);
  // The pool hands out record 0 first; a free record may own storage.
  EXPECT_EQ(c->rtexture, &c->texture[0]);
  EXPECT_EQ(c->texture[0].flags, T_FREE);
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(c->texture[i].pixels, tiles.data() + (i << 18));
    EXPECT_EQ(c->texture[i].texture, i);
  }
  EXPECT_EQ(c->texture[5].pixels, nullptr);
  EXPECT_EQ(c->texture[5].texture, -1);
  int onchain = 0;
  for (CHAIN* l = c->texturememchain.next; l != &c->texturememchain; l = l->next) onchain++;
  EXPECT_EQ(onchain, 4);
  freecontext(c);
  free(c);
}

namespace {

std::string maketempdir() {
  char pattern[] = "/tmp/orvanta-test-XXXXXX";
  return std::string(mkdtemp(pattern)) + "/";
}

}  // namespace

TEST(ContextState, SwapFileIsOpenedIfPresentAndNeverCreatedAtStart) {
  std::string dir = maketempdir();
  {
    OVCONTEXT* c = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    ASSERT_TRUE(initcontext(c, enginetest::TESTMEMORY, 4, 8, 0, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, dir.c_str(), 0));
    EXPECT_EQ(std::string(c->juliacachetmpfilename), dir + "juliacache.data");
    enginetest::waitfor([&] { return atomicload(&c->iworkerall) == 0; });
    EXPECT_EQ(c->juliacachetmpfile, -1);
    EXPECT_NE(access((dir + "juliacache.data").c_str(), F_OK), 0);
    freecontext(c);
    free(c);
  }
  int fd = open((dir + "juliacache.data").c_str(), O_CREAT | O_RDWR, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  {
    OVCONTEXT* c = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    ASSERT_TRUE(initcontext(c, enginetest::TESTMEMORY, 4, 8, 0, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, dir.c_str(), 0));
    enginetest::waitfor([&] { return atomicload(&c->iworkerall) == 0; });
    EXPECT_GE(c->juliacachetmpfile, 0);
    freecontext(c);
    EXPECT_EQ(c->juliacachetmpfile, -1);
    free(c);
  }
  unlink((dir + "juliacache.data").c_str());
  rmdir(dir.c_str());
}

TEST(ContextState, MemdumpPrintsEveryCounterInOrder) {
  Engine e;
  testing::internal::CaptureStderr();
  memdump(e.context);
  std::string out = testing::internal::GetCapturedStderr();
  const char* keys[] = {"iprepixels: ", "ntexture: ", "itexture: ", "itexturememchain: ",
                        "itexturedelchain: ", "textures with memcount: ", "textures with area: ",
                        "textures with iareaprio: ", "ijuliacache: ", "ihpvalue: ",
                        "ienvironment: ", "ia: ", "achainlen: ", "imemjuliacache: ",
                        "nmemjuliacache: ", "memjuliacache: ", "mem_envrefdata: ", "mem_hpvalue: ",
                        "mem_fixedmemtotal: ", "ncomputejuliastack: ",
                        "NMEMJULIACACHEBLOCKSIZE: ", "jcblock: "};
  std::istringstream lines(out);
  std::string line;
  std::vector<std::string> counters;
  while (std::getline(lines, line))
    if (line.rfind("sizeof", 0) != 0) counters.push_back(line);
  ASSERT_EQ(counters.size(), std::size(keys));
  for (size_t i = 0; i < std::size(keys); i++) EXPECT_EQ(counters[i].rfind(keys[i], 0), 0u) << counters[i];
  EXPECT_NE(out.find("mem_fixedmemtotal: " + std::to_string(e.context->mem_fixedmemtotal) + "\n"),
            std::string::npos);
  EXPECT_NE(out.find("NMEMJULIACACHEBLOCKSIZE: 402653184\n"), std::string::npos);
}

TEST(ContextLife, FreeAfterExplicitShutdownIsSafe) {
  Engine e;
  shutdowncontext(e.context, false);
  EXPECT_TRUE(atomicload(&e.context->grmain.stop));
  shutdowncontext(e.context, false);  // no-op
}

TEST(ContextLife, RelaunchOfRunningContextFails) {
  Engine e;
  EXPECT_FALSE(relaunchcontext(e.context));
}

namespace {

// Puts three tiles in memory on the main thread: one with unwritten
// contents in file slot 3, one already written, one without a memory slot.
void placetiles(Engine& e, unsigned char pattern) {
  e.onmain([pattern](OVCONTEXT* c) {
    PREPIXEL* block = static_cast<PREPIXEL*>(malloc(2 * JULIACACHETILEBYTES));
    memset(block, pattern, 2 * JULIACACHETILEBYTES);
    c->juliacachedata[0] = block;
    JULIACACHE* dirty = &c->juliacache[3];
    JULIACACHE* clean = &c->juliacache[4];
    JULIACACHE* empty = &c->juliacache[5];
    dirty->_data = dirty->data = block;
    clean->_data = clean->data = block + NPREPIXEL;
    empty->_data = empty->data = nullptr;
    dirty->flags = JCF_INMEMCHAIN | JCF_DIRTY;
    clean->flags = JCF_INMEMCHAIN;
    empty->flags = JCF_INMEMCHAIN;
    for (JULIACACHE* jc : {dirty, clean, empty}) chaininsend(&c->juliacachememchain, &jc->memchain);
    c->imemjuliacache = 2;
  });
}

}  // namespace

TEST(ContextLife, ShutdownWithCacheSwapsTilesOutAndFreesTheirMemory) {
  std::string dir = maketempdir();
  Engine e(4, false, enginetest::TESTMEMORY, dir.c_str());
  placetiles(e, 0xA5);
  testing::internal::CaptureStderr();
  shutdowncontext(e.context, true);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "shutdowncontext: FATAL ERROR: !jc->_data.\n");
  OVCONTEXT* c = e.context;
  EXPECT_TRUE(chainempty(&c->juliacachememchain));
  EXPECT_EQ(c->imemjuliacache, 0u);
  EXPECT_EQ(c->juliacachetmpfile, -1);
  EXPECT_EQ(c->juliacachedata[0], nullptr);
  EXPECT_EQ(c->juliacache[3].flags & (JCF_INMEMCHAIN | JCF_DIRTY), 0u);
  EXPECT_EQ(c->juliacache[3]._data, nullptr);
  EXPECT_EQ(c->juliacache[3].ijuliacache, 3);
  // Only the unwritten tile went out, to its own slot.
  std::string file = dir + "juliacache.data";
  int fd = open(file.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(lseek(fd, 0, SEEK_END), 4 * JULIACACHETILEBYTES);
  std::vector<unsigned char> tile(JULIACACHETILEBYTES);
  EXPECT_EQ(pread(fd, tile.data(), tile.size(), 3 * JULIACACHETILEBYTES), JULIACACHETILEBYTES);
  EXPECT_EQ(std::count(tile.begin(), tile.end(), 0xA5), JULIACACHETILEBYTES);
  close(fd);
  unlink(file.c_str());
  rmdir(dir.c_str());
}

TEST(ContextLife, ShutdownWithCacheReportsAFailedWrite) {
  Engine e(4, false, enginetest::TESTMEMORY, "/nonexistent-directory/");
  placetiles(e, 0x11);
  testing::internal::CaptureStderr();
  shutdowncontext(e.context, true);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("shutdowncontext: fatal I/O error.\n"), std::string::npos);
  EXPECT_EQ(e.context->juliacachedata[0], nullptr);
}

TEST(ContextLife, PlainShutdownKeepsTilesInMemory) {
  Engine e;
  placetiles(e, 0x22);
  shutdowncontext(e.context, false);
  EXPECT_NE(e.context->juliacachedata[0], nullptr);  // freed with the context
  EXPECT_FALSE(chainempty(&e.context->juliacachememchain));
}

TEST(ContextState, EveryWorkerThreadHasACanvasOfItsOwn) {
  Engine e(6);
  ASSERT_EQ(e.context->nthread, 6);
  for (int i = 0; i < 3; i++) EXPECT_EQ(e.context->threadcontext[i].canvas, nullptr);
  for (int i = 3; i < 6; i++) {
    CANVAS0* canvas = e.context->threadcontext[i].canvas;
    ASSERT_NE(canvas, nullptr);
    EXPECT_EQ(canvas->flags, 2u);  // free
    for (int j = 3; j < i; j++) EXPECT_NE(e.context->threadcontext[j].canvas, canvas);
  }
  shutdowncontext(e.context, false);
  for (int i = 3; i < 6; i++) EXPECT_EQ(e.context->threadcontext[i].canvas, nullptr);
  ASSERT_TRUE(relaunchcontext(e.context));
  for (int i = 3; i < 6; i++) EXPECT_NE(e.context->threadcontext[i].canvas, nullptr);
}

TEST(ContextPools, ThreadsAreCappedAtOnePerTwoCanvasesOfBudget) {
  int64_t canvas = int64_t(sizeof(CANVAS0));
  Engine e(10, false, 4 * canvas + 1);
  EXPECT_EQ(e.context->nthread, 5);
  EXPECT_EQ(e.context->grworker.nthreads, 2);
}

TEST(ContextLife, ShutdownFreesPixelBlocksAndTheirCount) {
  Engine e;
  e.onmain([](OVCONTEXT* c) {
    for (int i = 0; i < 2; i++) {
      PREPIXELS* block = static_cast<PREPIXELS*>(malloc(sizeof(PREPIXELS)));
      atomicincrementint(&c->iprepixels);
      atomicfifoenqueue(&c->prepixelschain, block, offsetof(PREPIXELS, nextonstack));
    }
  });
  shutdowncontext(e.context, false);
  EXPECT_EQ(e.context->iprepixels, 0);
  EXPECT_EQ(atomicfifodequeue(&e.context->prepixelschain, offsetof(PREPIXELS, nextonstack)), nullptr);
}
