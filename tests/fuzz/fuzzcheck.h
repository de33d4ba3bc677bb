// Checks shared by the fuzz targets: CHECK, the writer's number form, and one run of a reader on fuzz input.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Array.h"

// Aborts rather than returns, so libFuzzer keeps the input that broke it.
#define CHECK(cond)                                                   \
  do {                                                                \
    if (!(cond)) {                                                    \
      fprintf(stderr, "check failed: %s (line %d)\n", #cond, __LINE__); \
      abort();                                                        \
    }                                                                 \
  } while (0)

namespace fuzzcheck {

// The number as the writer prints it, read by the grammar; false when the
// grammar refuses that text.
inline bool writtennumber(double num, double* back) {
  char buf[32];
  if (std::isnormal(num))
    snprintf(buf, sizeof buf, "%0.16g", num);
  else
    strcpy(buf, "0");
  const char* end;
  return __parsenum(buf, back, &end) && !*end;
}

// Reads the input with read and hands what it accepts to check.
inline void readandcheck(const uint8_t* data, size_t size, JOBJECT* (*read)(const char*),
                         void (*check)(JOBJECT*)) {
  // Exactly as long as the input and its terminator, so a read past the end
  // shows.
  char* text = static_cast<char*>(malloc(size + 1));
  memcpy(text, data, size);
  text[size] = 0;
  JOBJECT* obj = read(text);
  if (obj) check(obj);
  releasejobject(obj);
  free(text);
}

}  // namespace fuzzcheck
