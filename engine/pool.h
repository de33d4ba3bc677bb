// pool.h: the fixed pools every record kind lives in.
//
// A pool is one block allocated at start. Its records carry `nextrem` and
// `flags` (POOL_FREE when free); the context keeps `r...`, the next record to
// hand out. Records are used in block order the first time and
// last-freed-first afterwards. Whoever takes a record first checks that the
// pool is not full: full is one record short of the capacity, so that the
// record after the last one handed out always exists. Pools belong to the
// main thread.
#pragma once

#include "Mandelbrot.h"

// `link` names the free-list member where a record kind calls it otherwise.
// A pool of no records (no tiles given, say) has no record to point at.
template <typename T>
inline void resetpool(T* block, int n, T** next, T* T::*link = &T::nextrem) {
  *next = n > 0 ? block : nullptr;
  if (n <= 0) return;
  block->*link = nullptr;
  block->flags = POOL_FREE;
}

template <typename T>
inline T* pooltake(T** next, T* T::*link = &T::nextrem) {
  T* record = *next;
  if (record->*link) {
    *next = record->*link;
  } else {
    *next = record + 1;
    (*next)->*link = nullptr;
    (*next)->flags = POOL_FREE;
  }
  return record;
}

template <typename T>
inline void poolgive(T** next, T* record, T* T::*link = &T::nextrem) {
  record->flags = POOL_FREE;
  record->*link = *next;
  *next = record;
}
