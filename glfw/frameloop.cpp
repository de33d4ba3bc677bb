// The frame loop: one turn per displayed frame, on the first thread. It
// draws the views, feeds the GL queue within the upload budget on frames
// that didn't rebuild a display list, swaps, advances the virtual clock and
// polls events.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "app.h"

namespace {

// The navigator's 10 ms tick, fed from the loop by wall time, on this
// thread. The navigator joins here; until it exists there is nothing to
// move between the engine's own steps.
void (*navigationtick)(OVCONTEXT* context, VIEWPORT* viewport) = nullptr;
constexpr double NAVIGATIONTICK = 0.01;

void navigationticks(double* next) {
  double now = glfwGetTime();
  // After a long stall the ticks are not replayed: the motion resumes.
  if (now - *next > 10 * NAVIGATIONTICK) *next = now;
  while (*next <= now) {
    if (navigationtick && vp) navigationtick(context, vp);
    *next += NAVIGATIONTICK;
  }
}

// The clock counts frames; engine threads read it, hence the exchange.
void advanceclock() {
  double old = _curtime, next;
  do {
    next = old + 1.0 / settings.framerate;
  } while (!__atomic_compare_exchange(const_cast<double*>(&_curtime), &old, &next, false,
                                      __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST));
}

// A knob for automated runs, harmless otherwise: ORVANTA_TEST_CLOSE_AFTER
// set to "finish" asks the window to close a few frames after the start view
// finished, set to a number after that many frames. It says so on standard
// error when it closes; with ORVANTA_TEST_FRAME_OUT naming a file, the last
// frame is read back and written there as a PPM image first.
struct TESTCLOSE {
  bool onfinish = false;
  long frames = -1;
  long drawn = 0;
  long afterfinish = -1;
};

TESTCLOSE testclosefromenv() {
  TESTCLOSE t;
  const char* v = getenv("ORVANTA_TEST_CLOSE_AFTER");
  if (!v || !*v) return t;
  if (strcmp(v, "finish") == 0)
    t.onfinish = true;
  else
    t.frames = strtol(v, nullptr, 10);
  return t;
}

// The frame as a binary PPM, top row first.
void writeframe(const char* path, const std::vector<unsigned char>& rgba) {
  FILE* f = fopen(path, "wb");
  if (!f) {
    perror(path);
    return;
  }
  fprintf(f, "P6\n%i %i\n255\n", width, height);
  for (int y = height - 1; y >= 0; y--)
    for (int x = 0; x < width; x++) fwrite(&rgba[(static_cast<size_t>(y) * width + x) * 4], 1, 3, f);
  fclose(f);
}

void reportframe(long frames, bool finished) {
  if (const char* out = getenv("ORVANTA_TEST_FRAME_OUT")) {
    std::vector<unsigned char> rgba(static_cast<size_t>(width) * height * 4);
    glReadBuffer(GL_BACK);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
    writeframe(out, rgba);
  }
  fprintf(stderr, "orvanta test close: %ld frames, view %s\n", frames, finished ? "finished" : "not finished");
}

// Called after the frame is drawn, before the swap.
void testclose(TESTCLOSE* t) {
  if (!t->onfinish && t->frames < 0) return;
  t->drawn++;
  bool close = false;
  if (t->onfinish) {
    if (t->afterfinish < 0 && viewfinished.load()) t->afterfinish = 0;
    // Three frames: one may rebuild the display list, the next shows it.
    if (t->afterfinish >= 0 && ++t->afterfinish >= 3) close = true;
  } else if (t->drawn >= t->frames) {
    close = true;
  }
  if (!close) return;
  reportframe(t->drawn, viewfinished.load());
  glfwSetWindowShouldClose(window, 1);
  t->onfinish = false;
  t->frames = -1;
}

}  // namespace

void frameloop() {
  int lastwidth = -1, lastheight = -1;
  double nexttick = glfwGetTime();
  TESTCLOSE test = testclosefromenv();
  for (;;) {
    // Without a file renderer there is no job to ask about.
    if (glfwWindowShouldClose(window)) break;
    glfwGetFramebufferSize(window, &width, &height);
    if (width != lastwidth || height != lastheight) {
      resizeviews();
      lastwidth = width;
      lastheight = height;
    }
    // Auto mode opens fractal files when the user is away; it joins with
    // the file opener. The status strings are the widgets' to show.
    stringschanged = false;
    if (vp) drawviewport(context, vp, 0, _curtime, 0, 0, width, height, info.texture);
    if (smooth && !hardframe) serveglqueue(context, UPLOADPERFRAME);
    testclose(&test);
    glfwSwapBuffers(window);
    advanceclock();
    navigationticks(&nexttick);
    glfwPollEvents();
  }
}
