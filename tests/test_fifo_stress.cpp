// Many threads passing pool records through FIFOs, the way the engine passes
// its messages: producers take a record from a free queue, stamp it and queue
// it as work; consumers take work, check the stamp and give the record back.
// Every stamp must arrive exactly once and every record must come home.
#include <gtest/gtest.h>

#include <sched.h>

#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

#include "matomic.h"

namespace {

struct MESSAGE {
  int producer;
  int seq;
  uintptr_t nextonwork;  // one link word per queue a record may travel on
  uintptr_t nextonfree;
};

constexpr int ONWORK = offsetof(MESSAGE, nextonwork);
constexpr int ONFREE = offsetof(MESSAGE, nextonfree);

struct BENCH {
  FIFO work;
  FIFO free;
  std::vector<MESSAGE> pool;
  std::vector<std::atomic<unsigned char>> seen;
  std::atomic<long> consumed{0};
  std::atomic<long> duplicates{0};
  std::atomic<long> disorder{0};
  int perproducer;

  BENCH(int nrecords, int nproducers, int perproducer)
      : pool(nrecords), seen(static_cast<size_t>(nproducers) * perproducer), perproducer(perproducer) {
    initfifo(&work);
    initfifo(&free);
    for (MESSAGE& m : pool) atomicfifoenqueue(&free, &m, ONFREE);
  }

  MESSAGE* take(FIFO* f, int offset) {
    for (;;) {
      void* p = atomicfifodequeue(f, offset);
      if (p) return static_cast<MESSAGE*>(p);
      sched_yield();  // two cores: let the other side make progress
    }
  }

  void produce(int id) {
    for (int s = 0; s < perproducer; s++) {
      MESSAGE* m = take(&free, ONFREE);
      m->producer = id;
      m->seq = s;
      atomicfifoenqueue(&work, m, ONWORK);
    }
  }

  // With one consumer, each producer's stamps must also arrive in order.
  void consume(long total, bool checkorder, int nproducers) {
    std::vector<int> last(nproducers, -1);
    while (consumed.load() < total) {
      void* p = atomicfifodequeue(&work, ONWORK);
      if (!p) {
        sched_yield();
        continue;
      }
      MESSAGE* m = static_cast<MESSAGE*>(p);
      size_t slot = static_cast<size_t>(m->producer) * perproducer + m->seq;
      if (seen[slot].exchange(1)) duplicates++;
      if (checkorder) {
        if (m->seq <= last[m->producer]) disorder++;
        last[m->producer] = m->seq;
      }
      atomicfifoenqueue(&free, m, ONFREE);
      consumed++;
    }
  }

  long missing() const {
    long n = 0;
    for (const auto& s : seen) n += s.load() ? 0 : 1;
    return n;
  }

  size_t drainfree() {
    size_t n = 0;
    while (atomicfifodequeue(&free, ONFREE)) n++;
    return n;
  }
};

void run(int nproducers, int nconsumers, int perproducer, int nrecords) {
  BENCH b(nrecords, nproducers, perproducer);
  long total = static_cast<long>(nproducers) * perproducer;
  std::vector<std::thread> threads;
  for (int i = 0; i < nproducers; i++) threads.emplace_back([&b, i] { b.produce(i); });
  for (int i = 0; i < nconsumers; i++)
    threads.emplace_back([&b, total, nconsumers, nproducers] {
      b.consume(total, nconsumers == 1, nproducers);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(b.consumed.load(), total);
  EXPECT_EQ(b.duplicates.load(), 0);
  EXPECT_EQ(b.missing(), 0);
  EXPECT_EQ(b.disorder.load(), 0);
  EXPECT_EQ(atomicfifodequeue(&b.work, ONWORK), nullptr);
  EXPECT_EQ(b.drainfree(), static_cast<size_t>(nrecords));
}

}  // namespace

// A million stamped transfers through the work queue (and as many back
// through the free queue), four producers against four consumers on a small
// pool so that records return to the same queue at once, the case the
// versions exist for.
TEST(FifoStress, MillionTransfersManyProducersManyConsumers) { run(4, 4, 250000, 64); }

TEST(FifoStress, SingleConsumerSeesEachProducersOrder) { run(3, 1, 100000, 256); }

TEST(FifoStress, PoolOfOneRecordPingPongs) { run(2, 2, 30000, 1); }

// Records that go straight back on the queue they came from, a few of them
// among several threads: the tail may still name a record that has left and
// is returning, which is the pattern of the computers' ready queue.
TEST(FifoStress, RecordsReturnToTheSameQueueAtOnce) {
  for (int nrecords : {1, 2, 3, 8}) {
    FIFO* queue = new FIFO;
    initfifo(queue);
    std::vector<MESSAGE> pool(nrecords);
    for (MESSAGE& m : pool) atomicfifoenqueue(queue, &m, ONWORK);
    std::atomic<long> moved{0};
    auto cycle = [&] {
      for (int i = 0; i < 200000; i++) {
        void* p = atomicfifodequeue(queue, ONWORK);
        if (!p) {
          sched_yield();
          continue;
        }
        atomicfifoenqueue(queue, p, ONWORK);
        moved++;
      }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) threads.emplace_back(cycle);
    for (auto& t : threads) t.join();
    size_t back = 0;
    while (atomicfifodequeue(queue, ONWORK)) back++;
    EXPECT_EQ(back, static_cast<size_t>(nrecords)) << nrecords << " records";
    EXPECT_GT(moved.load(), 0);
    delete queue;
  }
}
