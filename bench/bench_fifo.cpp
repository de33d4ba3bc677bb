// FIFO throughput: one enqueue and one dequeue per iteration, on one queue
// shared by all benchmark threads, as the engine's worker queues are.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <vector>

#include "matomic.h"

namespace {

struct MESSAGE {
  uintptr_t nextonstack;
  char payload[56];
};

FIFO queue;
std::vector<MESSAGE> pool(4096);

void BM_FifoEnqueueDequeuePair(benchmark::State& state) {
  if (state.thread_index() == 0) initfifo(&queue);
  // Each thread works its own slice of the pool, so a record is never
  // queued twice at once.
  size_t slice = pool.size() / static_cast<size_t>(state.threads());
  MESSAGE* mine = &pool[slice * static_cast<size_t>(state.thread_index())];
  size_t k = 0;
  for (auto _ : state) {
    atomicfifoenqueue(&queue, &mine[k], offsetof(MESSAGE, nextonstack));
    void* p;
    while ((p = atomicfifodequeue(&queue, offsetof(MESSAGE, nextonstack))) == nullptr) {
    }
    benchmark::DoNotOptimize(p);
    k = (k + 1) % slice;
  }
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_FifoEnqueueDequeuePair)->Threads(1)->Threads(2)->UseRealTime();
