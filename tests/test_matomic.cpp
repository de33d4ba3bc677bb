// Atomic operations, the spinlock and the FIFO's single-threaded behaviour,
// including the intermediate states that a rival thread leaves behind.
#include <gtest/gtest.h>

#include <cpuid.h>

#include <cstddef>
#include <thread>
#include <vector>

#include "matomic.h"

namespace {

struct REC {
  int id;
  uintptr_t nextonstack;
};

constexpr int LINK = offsetof(REC, nextonstack);

FIFO* newfifo() {
  FIFO* f = new FIFO;
  initfifo(f);
  return f;
}

void setpair(volatile FIFOPAIR* p, void* ptr, uint64_t version) {
  p->ptr = ptr;
  p->version = version;
}

}  // namespace

TEST(Atomic, IncrementDecrementReturnNewValue) {
  volatile int v = 5;
  EXPECT_EQ(atomicincrementint(&v), 6);
  EXPECT_EQ(atomicdecrementint(&v), 5);
  EXPECT_EQ(atomicdecrementint(&v), 4);
}

TEST(Atomic, AddAndAddBarrier) {
  volatile int v = 10;
  atomicaddint(-3, &v);
  EXPECT_EQ(v, 7);
  atomicaddintbarrier(5, &v);
  EXPECT_EQ(v, 12);
}

TEST(Atomic, CompareAndSwapIntSucceedsOnlyOnExpectedValue) {
  volatile int v = 1;
  EXPECT_FALSE(atomiccompareandswapint(2, 3, &v));
  EXPECT_EQ(v, 1);
  EXPECT_TRUE(atomiccompareandswapint(1, 3, &v));
  EXPECT_EQ(v, 3);
  EXPECT_TRUE(atomiccompareandswapintbarrier(3, 4, &v));
  EXPECT_FALSE(atomiccompareandswapintbarrier(3, 5, &v));
  EXPECT_EQ(v, 4);
}

TEST(Atomic, CompareAndSwapPtr) {
  int a = 0, b = 0;
  void* volatile p = &a;
  EXPECT_FALSE(atomiccompareandswapptr(&b, &b, &p));
  EXPECT_EQ(p, &a);
  EXPECT_TRUE(atomiccompareandswapptr(&a, &b, &p));
  EXPECT_EQ(p, &b);
  EXPECT_TRUE(atomiccompareandswapptrbarrier(&b, nullptr, &p));
  EXPECT_EQ(p, nullptr);
}

TEST(Atomic, ConcurrentIncrementsAreNotLost) {
  volatile int v = 0;
  auto work = [&v] {
    for (int i = 0; i < 200000; i++) atomicincrementint(&v);
  };
  std::thread t1(work), t2(work);
  t1.join();
  t2.join();
  EXPECT_EQ(v, 400000);
}

TEST(Spinlock, GuardsPlainCounterAcrossThreads) {
  SPINLOCK lock = 0;
  long counter = 0;
  auto work = [&] {
    for (int i = 0; i < 200000; i++) {
      spinlocklock(&lock);
      counter++;
      spinlockunlock(&lock);
    }
  };
  std::thread t1(work), t2(work);
  t1.join();
  t2.join();
  EXPECT_EQ(counter, 400000);
  EXPECT_EQ(lock, 0);
}

TEST(Fifo, ProcessorHasSixteenByteCompareAndSwap) {
  unsigned a, b, c, d;
  ASSERT_TRUE(__get_cpuid(1, &a, &b, &c, &d));
  EXPECT_TRUE(c & bit_CMPXCHG16B);
}

TEST(Fifo, HeadAndTailLiveOnSeparateCacheLines) {
  FIFO* f = newfifo();
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&f->head) % 16, 0u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&f->tail) % 16, 0u);
  EXPECT_GE(reinterpret_cast<char*>(const_cast<FIFOPAIR*>(&f->tail)) -
                reinterpret_cast<char*>(const_cast<FIFOPAIR*>(&f->head)),
            64);
  delete f;
}

TEST(Fifo, StartsEmptyWithOddVersions) {
  FIFO* f = newfifo();
  EXPECT_EQ(f->head.ptr, nullptr);
  EXPECT_EQ(f->head.version, 1u);
  EXPECT_EQ(f->tail.ptr, nullptr);
  EXPECT_EQ(f->tail.version, 1u);
  EXPECT_EQ(atomicfifodequeue(f, LINK), nullptr);
  delete f;
}

TEST(Fifo, EnqueueIntoEmptySetsHeadAndTailToElement) {
  FIFO* f = newfifo();
  REC r = {1, 0};
  atomicfifoenqueue(f, &r, LINK);
  EXPECT_EQ(f->head.ptr, &r);
  EXPECT_EQ(f->head.version, 3u);
  EXPECT_EQ(f->tail.ptr, &r);
  EXPECT_EQ(f->tail.version, 3u);
  // The last element's link holds the version in which it became last.
  EXPECT_EQ(r.nextonstack, 3u);
  delete f;
}

// The state a first enqueuer leaves between its two steps: head already set,
// tail still NULL. A second enqueuer must move the tail on for it and finish,
// not spin waiting.
TEST(Fifo, SecondEnqueuerSeeingTailStillNullHelps) {
  FIFO* f = newfifo();
  REC first = {1, 3}, second = {2, 0};
  setpair(&f->head, &first, 3);
  atomicfifoenqueue(f, &second, LINK);
  EXPECT_EQ(f->head.ptr, &first);
  EXPECT_EQ(f->tail.ptr, &second);
  EXPECT_EQ(f->tail.version, 5u);
  EXPECT_EQ(first.nextonstack, reinterpret_cast<uintptr_t>(&second));
  EXPECT_EQ(atomicfifodequeue(f, LINK), &first);
  EXPECT_EQ(atomicfifodequeue(f, LINK), &second);
  EXPECT_EQ(atomicfifodequeue(f, LINK), nullptr);
  delete f;
}

// A rival linked behind the last element but has not moved the tail yet.
TEST(Fifo, EnqueuerBehindLaggingTailMovesItOn) {
  FIFO* f = newfifo();
  REC a = {1, 0}, b = {2, 0}, c = {3, 0};
  atomicfifoenqueue(f, &a, LINK);  // head = tail = {a, 3}
  b.nextonstack = 5;
  a.nextonstack = reinterpret_cast<uintptr_t>(&b);  // linked, tail still {a, 3}
  atomicfifoenqueue(f, &c, LINK);
  EXPECT_EQ(f->tail.ptr, &c);
  EXPECT_EQ(f->tail.version, 7u);
  EXPECT_EQ(atomicfifodequeue(f, LINK), &a);
  EXPECT_EQ(atomicfifodequeue(f, LINK), &b);
  EXPECT_EQ(atomicfifodequeue(f, LINK), &c);
  delete f;
}

TEST(Fifo, DequeueOfOnlyElementLeavesBothPairsNullAtLinkPlusTwo) {
  FIFO* f = newfifo();
  REC r = {1, 0};
  atomicfifoenqueue(f, &r, LINK);
  uint64_t link = r.nextonstack;
  EXPECT_EQ(atomicfifodequeue(f, LINK), &r);
  EXPECT_EQ(f->head.ptr, nullptr);
  EXPECT_EQ(f->tail.ptr, nullptr);
  EXPECT_EQ(f->head.version, link + 2);
  EXPECT_EQ(f->tail.version, link + 2);
  EXPECT_EQ(r.nextonstack, 0u);
  delete f;
}

// A rival dequeuer has zeroed the last element's link and not finished: the
// next dequeuer completes the emptying for it and finds nothing.
TEST(Fifo, DequeueHelpsRivalTakingLastElement) {
  FIFO* f = newfifo();
  REC r = {1, 0};
  atomicfifoenqueue(f, &r, LINK);
  r.nextonstack = 0;
  EXPECT_EQ(atomicfifodequeue(f, LINK), nullptr);
  EXPECT_EQ(f->head.ptr, nullptr);
  EXPECT_EQ(f->tail.ptr, nullptr);
  EXPECT_EQ(f->head.version, 5u);
  EXPECT_EQ(f->tail.version, 5u);
  delete f;
}

TEST(Fifo, KeepsOrderAndStaysUsableAfterEmptying) {
  FIFO* f = newfifo();
  REC recs[100];
  for (int round = 0; round < 3; round++) {
    for (int i = 0; i < 100; i++) {
      recs[i].id = i;
      atomicfifoenqueue(f, &recs[i], LINK);
    }
    for (int i = 0; i < 100; i++) {
      REC* r = static_cast<REC*>(atomicfifodequeue(f, LINK));
      ASSERT_NE(r, nullptr);
      EXPECT_EQ(r->id, i);
    }
    EXPECT_EQ(atomicfifodequeue(f, LINK), nullptr);
    EXPECT_EQ(f->head.version % 2, 1u);
    EXPECT_EQ(f->head.version, f->tail.version);
  }
  delete f;
}

TEST(Fifo, RecordTravelsOnTwoQueuesThroughTwoLinkWords) {
  struct TWO {
    uintptr_t first;
    uintptr_t second;
  } t = {0, 0};
  FIFO* a = newfifo();
  FIFO* b = newfifo();
  atomicfifoenqueue(a, &t, offsetof(TWO, first));
  atomicfifoenqueue(b, &t, offsetof(TWO, second));
  EXPECT_EQ(atomicfifodequeue(a, offsetof(TWO, first)), &t);
  EXPECT_EQ(atomicfifodequeue(b, offsetof(TWO, second)), &t);
  delete a;
  delete b;
}

// The first enqueuer of an empty queue has set the head and not yet the tail
// when a dequeuer takes its element. The tail must not be left naming the
// taken element: the enqueuer's late store has to fail, and the element must
// be able to come straight back.
TEST(Fifo, DequeueOfLastElementOvertakesLateTailStoreOfEmptyEnqueue) {
  FIFO* f = newfifo();
  REC r = {1, 3};
  setpair(&f->head, &r, 3);  // tail still {NULL, 1}
  EXPECT_EQ(atomicfifodequeue(f, LINK), &r);
  EXPECT_EQ(f->tail.ptr, nullptr);
  EXPECT_EQ(f->tail.version, 5u);
  FIFOPAIR late = matomic_detail::paircas(&f->tail, nullptr, 1, &r, 3);
  EXPECT_EQ(late.version, 5u);  // the late store found a newer state and failed
  atomicfifoenqueue(f, &r, LINK);
  EXPECT_EQ(atomicfifodequeue(f, LINK), &r);
  EXPECT_EQ(atomicfifodequeue(f, LINK), nullptr);
  delete f;
}

// The same with an enqueuer that linked behind the tail and has not moved it:
// both elements are taken before its tail store comes.
TEST(Fifo, DequeueOfLastElementOvertakesLateTailStoreOfLink) {
  FIFO* f = newfifo();
  REC a = {1, 0}, b = {2, 0};
  atomicfifoenqueue(f, &a, LINK);  // {a, 3}
  b.nextonstack = 5;
  a.nextonstack = reinterpret_cast<uintptr_t>(&b);
  EXPECT_EQ(atomicfifodequeue(f, LINK), &a);
  EXPECT_EQ(atomicfifodequeue(f, LINK), &b);
  EXPECT_EQ(f->tail.ptr, nullptr);
  EXPECT_EQ(f->tail.version, 7u);
  FIFOPAIR late = matomic_detail::paircas(&f->tail, &a, 3, &b, 5);
  EXPECT_EQ(late.version, 7u);
  atomicfifoenqueue(f, &b, LINK);
  atomicfifoenqueue(f, &a, LINK);
  EXPECT_EQ(atomicfifodequeue(f, LINK), &b);
  EXPECT_EQ(atomicfifodequeue(f, LINK), &a);
  delete f;
}
