// matomic.h: atomic operations, the spinlock and FIFO, the lock-free
// multi-producer, multi-consumer queue that carries every message between the
// engine's threads.
//
// All of it is inline and safe from any thread. The FIFO owns no nodes: each
// queued record lends a link word of its own, found at `offset` bytes into the
// record, and records are never freed while the program runs, so a stale read
// of a link word is harmless. Its head and tail are (pointer, version) pairs
// changed only by a 16-byte compare-and-swap; versions start at 1 and grow by 2,
// so an odd link word is never mistaken for a pointer and a stale
// compare-and-swap always fails on the version.
//
// Nothing here allocates, sleeps or backs off.
#pragma once

#include <cstddef>
#include <cstdint>

#if !defined(__x86_64__)
#error "the FIFO needs a 64-bit x86 processor with cmpxchg16b"
#endif
#if !defined(__GCC_HAVE_SYNC_COMPARE_AND_SWAP_16)
#error "build with -mcx16: the FIFO must use cmpxchg16b inline, never a locked library fallback"
#endif

// ---------------------------------------------------------------- integers and pointers
//
// On x86 every locked instruction is a full barrier already; the `barrier`
// forms add an explicit fence first so that the ordering they promise does
// not depend on that.

inline int atomicincrementint(volatile int* obj) {
  return __atomic_add_fetch(obj, 1, __ATOMIC_SEQ_CST);
}

inline int atomicdecrementint(volatile int* obj) {
  return __atomic_sub_fetch(obj, 1, __ATOMIC_SEQ_CST);
}

inline void atomicaddint(int arg, volatile int* obj) {
  __atomic_add_fetch(obj, arg, __ATOMIC_SEQ_CST);
}

#if defined(__SANITIZE_THREAD__)
// The thread sanitizer does not model a bare fence; a locked operation on a
// word of its own is the same barrier on x86 and is understood.
inline volatile int matomic_barrierword;
inline void memorybarrier() { __atomic_fetch_add(&matomic_barrierword, 0, __ATOMIC_SEQ_CST); }
#else
inline void memorybarrier() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }
#endif

// Plain reads and writes of a shared word, made atomic so that they are never
// torn or cached and the thread sanitizer sees them for what they are.
template <typename T>
inline T atomicload(const volatile T* obj) {
  return __atomic_load_n(obj, __ATOMIC_SEQ_CST);
}

template <typename T>
inline void atomicstore(volatile T* obj, T value) {
  __atomic_store_n(obj, value, __ATOMIC_SEQ_CST);
}

inline void atomicaddintbarrier(int arg, volatile int* obj) {
  memorybarrier();
  __atomic_add_fetch(obj, arg, __ATOMIC_SEQ_CST);
}

inline bool atomiccompareandswapint(int oldvalue, int newvalue, volatile int* obj) {
  return __atomic_compare_exchange_n(obj, &oldvalue, newvalue, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST);
}

inline bool atomiccompareandswapintbarrier(int oldvalue, int newvalue, volatile int* obj) {
  memorybarrier();
  return atomiccompareandswapint(oldvalue, newvalue, obj);
}

inline bool atomiccompareandswapptr(void* oldvalue, void* newvalue, void* volatile* obj) {
  return __atomic_compare_exchange_n(obj, &oldvalue, newvalue, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST);
}

inline bool atomiccompareandswapptrbarrier(void* oldvalue, void* newvalue,
                                           void* volatile* obj) {
  memorybarrier();
  return atomiccompareandswapptr(oldvalue, newvalue, obj);
}

// ---------------------------------------------------------------- spinning

// A spinning thread's breath: it lets the other hyper-thread run and slows
// the rate at which a waiting loop re-reads a line another core writes.
inline void spinpause() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// ---------------------------------------------------------------- spinlock
//
// The locks guard a handful of stores, so the loop has no pause and no
// back-off.

typedef volatile char SPINLOCK;

inline void spinlocklock(SPINLOCK* lock) {
  while (__atomic_exchange_n(lock, 1, __ATOMIC_SEQ_CST) != 0) {
  }
  memorybarrier();
}

inline void spinlockunlock(SPINLOCK* lock) {
  memorybarrier();
  __atomic_store_n(lock, 0, __ATOMIC_SEQ_CST);
}

// ---------------------------------------------------------------- FIFO

struct alignas(16) FIFOPAIR {
  void* ptr;
  uint64_t version;
};

struct FIFO {
  volatile FIFOPAIR head;
  uint32_t padding1[60];  // head and tail 256 bytes apart, on separate cache lines
  volatile FIFOPAIR tail;
};

static_assert(sizeof(FIFOPAIR) == 16 && alignof(FIFOPAIR) == 16);
static_assert(offsetof(FIFO, tail) - offsetof(FIFO, head) == 256);

// Every queue starts here: both pointers NULL and both versions 1. A queue left
// all zero does not work, since a link word of 0 means "being taken".
inline void initfifo(FIFO* list) {
  list->head.ptr = nullptr;
  list->head.version = 1;
  list->tail.ptr = nullptr;
  list->tail.version = 1;
  memorybarrier();
}

namespace matomic_detail {

typedef unsigned __int128 PAIRBITS;

inline PAIRBITS pairbits(const void* ptr, uint64_t version) {
  return static_cast<PAIRBITS>(reinterpret_cast<uintptr_t>(ptr)) |
         (static_cast<PAIRBITS>(version) << 64);
}

inline FIFOPAIR pairof(PAIRBITS bits) {
  FIFOPAIR p;
  p.ptr = reinterpret_cast<void*>(static_cast<uintptr_t>(bits));
  p.version = static_cast<uint64_t>(bits >> 64);
  return p;
}

inline volatile PAIRBITS* bitsof(volatile FIFOPAIR* pair) {
  return reinterpret_cast<volatile PAIRBITS*>(pair);
}

// The one 16-byte primitive: lock cmpxchg16b, inline (the __sync form is never
// routed to libatomic under -mcx16). Returns the pair that was there.
inline FIFOPAIR paircas(volatile FIFOPAIR* pair, const void* oldptr, uint64_t oldversion,
                        const void* newptr, uint64_t newversion) {
  return pairof(__sync_val_compare_and_swap(bitsof(pair), pairbits(oldptr, oldversion),
                                            pairbits(newptr, newversion)));
}

// An atomic read is a compare-and-swap of zero with zero: it leaves a zero
// pair as it is and returns whatever is there.
inline FIFOPAIR pairread(volatile FIFOPAIR* pair) { return paircas(pair, nullptr, 0, nullptr, 0); }

inline volatile uintptr_t* linkword(void* element, int offset) {
  return reinterpret_cast<volatile uintptr_t*>(static_cast<char*>(element) + offset);
}

inline uintptr_t wordcas(volatile uintptr_t* word, uintptr_t oldvalue, uintptr_t newvalue) {
  __atomic_compare_exchange_n(word, &oldvalue, newvalue, false, __ATOMIC_SEQ_CST,
                              __ATOMIC_SEQ_CST);
  return oldvalue;  // on failure the value seen, on success the old value itself
}

// Once the last element is taken, no tail state older than `version` may
// survive: an enqueuer that linked or filled the queue just before may still
// be about to store a tail that names the taken element, and that element can
// come straight back to this queue. Versions only grow, so moving every older
// tail to the empty state makes those late stores fail.
inline void emptytail(FIFO* list, uint64_t version) {
  for (;;) {
    FIFOPAIR tl = pairread(&list->tail);
    if (tl.version >= version) return;
    paircas(&list->tail, tl.ptr, tl.version, nullptr, version);
  }
}

}  // namespace matomic_detail

// Link word of an element: a pointer to the next element, the odd version of
// the list state in which the element became last, or 0 while a dequeuer takes
// it as the last one.
inline void atomicfifoenqueue(FIFO* list, void* element, int offset) {
  using namespace matomic_detail;
  volatile uintptr_t* elink = linkword(element, offset);
  for (;;) {
    FIFOPAIR tl = pairread(&list->tail);
    if (tl.ptr == element) {
      // The tail still names this element although it has left the queue:
      // its rival linked behind it and has not moved the tail yet. Move it
      // on before the element's link word is touched, which would otherwise
      // destroy the successor that the move needs.
      uintptr_t next = __atomic_load_n(elink, __ATOMIC_SEQ_CST);
      if (next != 0 && !(next & 1))
        paircas(&list->tail, tl.ptr, tl.version, reinterpret_cast<void*>(next), tl.version + 2);
      continue;
    }
    uint64_t nv = tl.version + 2;
    __atomic_store_n(elink, static_cast<uintptr_t>(nv), __ATOMIC_SEQ_CST);
    if (tl.ptr != nullptr) {
      uintptr_t seen = wordcas(linkword(tl.ptr, offset), tl.version,
                               reinterpret_cast<uintptr_t>(element));
      if (seen == tl.version) {
        paircas(&list->tail, tl.ptr, tl.version, element, nv);
        return;
      }
      // Another enqueuer linked first, or a dequeuer is taking the last
      // element (0): move the tail on for it and try again. An odd value is
      // a link word of a later life of that element, never a tail.
      if (!(seen & 1))
        paircas(&list->tail, tl.ptr, tl.version, reinterpret_cast<void*>(seen), nv);
      continue;
    }
    // Empty: the head is set first, then the tail.
    FIFOPAIR hd = paircas(&list->head, nullptr, tl.version, element, nv);
    if (hd.ptr == nullptr && hd.version == tl.version) {
      paircas(&list->tail, nullptr, tl.version, element, nv);
      return;
    }
    if (hd.version == nv) {
      // A rival enqueuer filled the empty queue and its tail lags: help it.
      paircas(&list->tail, nullptr, tl.version, hd.ptr, hd.version);
    }
  }
}

inline void* atomicfifodequeue(FIFO* list, int offset) {
  using namespace matomic_detail;
  for (;;) {
    FIFOPAIR hd = pairread(&list->head);
    if (hd.ptr == nullptr) return nullptr;
    volatile uintptr_t* hlink = linkword(hd.ptr, offset);
    uintptr_t n = __atomic_load_n(hlink, __ATOMIC_SEQ_CST);
    if (n == hd.version) {
      // The only element: claim it by zeroing its link, then empty the list.
      if (wordcas(hlink, n, 0) != n) continue;
      paircas(&list->head, hd.ptr, hd.version, nullptr, n + 2);
      emptytail(list, n + 2);
      memorybarrier();
      return hd.ptr;
    }
    if (n == 0) {
      // A rival is taking the last element and has not finished.
      paircas(&list->head, hd.ptr, hd.version, nullptr, hd.version + 2);
      emptytail(list, hd.version + 2);
      return nullptr;
    }
    FIFOPAIR was = paircas(&list->head, hd.ptr, hd.version, reinterpret_cast<void*>(n),
                           hd.version + 2);
    if (was.ptr == hd.ptr && was.version == hd.version) {
      memorybarrier();
      return hd.ptr;
    }
  }
}
