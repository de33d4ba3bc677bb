// juliaswap.cpp: the temporary file behind the Julia cache. Tile i of the
// main array has its place at i * JULIACACHETILEBYTES, so a tile written out
// once is always found again at the same offset, and a slot of the file is
// reused by whichever record takes that index next. The file is made at the
// first write that needs it, emptied then, and never named on any output.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "Mandelbrot.h"

namespace {

off_t tileoffset(const JULIACACHE* jc) {
  return static_cast<off_t>(jc->ijuliacache) * JULIACACHETILEBYTES;
}

}  // namespace

size_t jcpread(int fd, void* data, size_t count, uint64_t offset) {
  size_t done = 0;
  while (done < count) {
    ssize_t n = pread(fd, static_cast<char*>(data) + done, count - done,
                      static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  return done;
}

size_t jcpwrite(int fd, const void* data, size_t count, uint64_t offset) {
  size_t done = 0;
  while (done < count) {
    ssize_t n = pwrite(fd, static_cast<const char*>(data) + done, count - done,
                       static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  return done;
}

bool juliaswapopen(OVCONTEXT* context) {
  if (context->juliacachetmpfile < 0)
    context->juliacachetmpfile =
        open(context->juliacachetmpfilename, O_RDWR | O_CREAT | O_TRUNC, 0600);
  return context->juliacachetmpfile >= 0;
}

bool juliaswapwrite(OVCONTEXT* context, const JULIACACHE* jc, const void* data) {
  if (!juliaswapopen(context)) return false;
  return jcpwrite(context->juliacachetmpfile, data, JULIACACHETILEBYTES, tileoffset(jc)) ==
         static_cast<size_t>(JULIACACHETILEBYTES);
}

bool juliaswapread(OVCONTEXT* context, const JULIACACHE* jc, void* data) {
  if (context->juliacachetmpfile < 0) return false;
  return jcpread(context->juliacachetmpfile, data, JULIACACHETILEBYTES, tileoffset(jc)) ==
         static_cast<size_t>(JULIACACHETILEBYTES);
}

void juliaswapclose(OVCONTEXT* context) {
  if (context->juliacachetmpfile >= 0) close(context->juliacachetmpfile);
  context->juliacachetmpfile = -1;
}
