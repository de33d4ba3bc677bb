// The frame loop: one turn per displayed frame, on the first thread. It
// draws the views, feeds the GL queue within the upload budget (on every
// frame while the views keep their pictures, else on frames that didn't
// rebuild a display list), swaps, advances the virtual clock and polls
// events.
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <chrono>
#include <thread>
#include <vector>

#include "app.h"
#include "automode.h"
#include "filejob.h"
// X's names are macros: after everything else. GLFW's own native header
// would also want the Xrandr headers for this one call, declared here.
#include <X11/Xlib.h>
extern "C" Display* glfwGetX11Display(void);

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
// frame is read back and written there as a PPM image first. Set to "hold"
// it acts as "finish" but leaves the window open: once the finished frame
// is on the screen (the X server has it) a line says so, and a screenshot
// can be taken before the window is closed from outside.
struct TESTCLOSE {
  bool onfinish = false;
  bool hold = false;
  long frames = -1;
  long turns = 0;
  long drawn = 0;
  long afterfinish = -1;
  bool due = false;
  bool shown = false;  // the held frame was drawn; said after the swap
};

TESTCLOSE testclosefromenv() {
  TESTCLOSE t;
  const char* v = getenv("ORVANTA_TEST_CLOSE_AFTER");
  if (!v || !*v) return t;
  if (strcmp(v, "finish") == 0 || strcmp(v, "hold") == 0) {
    t.onfinish = true;
    t.hold = v[0] == 'h';
  } else {
    t.frames = strtol(v, nullptr, 10);
  }
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

// Whether this turn is the last: then it is drawn, read back and the window
// asked to close.
bool testclosedue(TESTCLOSE* t) {
  if (!t->onfinish && t->frames < 0) return false;
  t->turns++;
  if (t->onfinish) {
    if (t->afterfinish < 0 && viewfinished.load() && !pictureunfinished()) t->afterfinish = 0;
    // Some turns after the finish: the last list compiled and shown, and
    // frames with nothing new passed.
    t->due = t->afterfinish >= 0 && ++t->afterfinish >= 10;
  } else {
    t->due = t->turns >= t->frames;
  }
  return t->due;
}

// After the frame is drawn, before the swap.
void testclose(TESTCLOSE* t, bool drawn) {
  if (!t->onfinish && t->frames < 0) return;
  if (drawn) t->drawn++;
  if (!t->due) return;
  if (const char* out = getenv("ORVANTA_TEST_FRAME_OUT")) {
    std::vector<unsigned char> rgba(static_cast<size_t>(width) * height * 4);
    glReadBuffer(GL_BACK);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
    writeframe(out, rgba);
  }
  t->onfinish = false;
  t->frames = -1;
  t->due = false;
  if (t->hold) {
    t->shown = true;
    return;
  }
  fprintf(stderr, "orvanta test close: %ld frames (%ld drawn), view %s\n", t->turns, t->drawn,
          viewfinished.load() ? "finished" : "not finished");
  glfwSetWindowShouldClose(window, 1);
}

// After the swap of the held frame: the swap's image requests are only
// queued on the connection until the server has taken them all.
void testshown(TESTCLOSE* t) {
  if (!t->shown) return;
  t->shown = false;
  glFinish();
  if (Display* x = glfwGetX11Display()) XSync(x, False);
  fprintf(stderr, "orvanta test shown: %ld frames (%ld drawn), view %s\n", t->turns, t->drawn,
          viewfinished.load() ? "finished" : "not finished");
}

// A knob for measurements, harmless otherwise: with ORVANTA_TEST_FRAME_LOG
// naming a file, every turn of the loop appends one line there: the
// monotonic clock in ns at the turn's end, the turn's work in ns (its sleep
// excluded), whether it drew, whether it built a new list, whether the
// frame showed tiles, whether the view had finished and whether the
// window's picture still waits for work.
struct FRAMELOG {
  FILE* f = nullptr;
};

int64_t monotonicns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

FRAMELOG framelogfromenv() {
  FRAMELOG l;
  const char* path = getenv("ORVANTA_TEST_FRAME_LOG");
  if (!path || !*path) return l;
  l.f = fopen(path, "w");
  if (!l.f) perror(path);
  return l;
}

void logframe(FRAMELOG* l, int64_t start, bool drawn, bool newlist) {
  if (!l->f) return;
  int64_t now = monotonicns();
  fprintf(l->f, "%lld %lld %i %i %i %i %i\n", static_cast<long long>(now), static_cast<long long>(now - start),
          drawn ? 1 : 0, newlist ? 1 : 0, framehadtiles ? 1 : 0, viewfinished.load() ? 1 : 0, pictureunfinished() ? 1 : 0);
}

void closeframelog(FRAMELOG* l) {
  if (l->f) fclose(l->f);
  l->f = nullptr;
}

// Without a swap that waits for the display (none, or a virtual one) the
// loop keeps to the frame rate by itself.
void pace(double framestart) {
  if (!(settings.framerate > 0)) return;
  double rest = framestart + 1.0 / settings.framerate - glfwGetTime();
  if (rest > 0) std::this_thread::sleep_for(std::chrono::duration<double>(rest));
}

}  // namespace

void frameloop() {
  int lastwidth = -1, lastheight = -1;
  double nexttick = glfwGetTime();
  TESTCLOSE test = testclosefromenv();
  FRAMELOG log = framelogfromenv();
  for (;;) {
    double framestart = glfwGetTime();
    int64_t turnstart = monotonicns();
    if (closerequested()) break;
    glfwGetFramebufferSize(window, &width, &height);
    if (width != lastwidth || height != lastheight) {
      resizeviews();
      lastwidth = width;
      lastheight = height;
      redrawall = true;
    }
    // Auto mode starts only once the opener of fractal files is there, and
    // only in mode 0, which the main window's input sets.
    automodestep();
    // The status strings and the widgets drawn here wait for the widget
    // toolkit; until then the main view alone is drawn, as with the widgets
    // hidden.
    stringschanged = false;
    bool last = testclosedue(&test);
    bool force = redrawall || last;
    redrawall = false;
    bool drawn = vp && drawviewport(context, vp, 0, _curtime, 0, 0, width, height, info.texture, force);
    bool newlist = drawn && hardframe;
    // A job's stage takes a frame's time of its own: not after a hard frame.
    if (smooth && !hardframe) stepjob();
    // With kept pictures a new list costs no more than the frame's shading
    // budget, so the uploads go on in its frame too.
    if (smooth && (!hardframe || picturesavailable())) serveglqueue(context, UPLOADPERFRAME);
    testclose(&test, drawn);
    // A frame with nothing new isn't swapped: the window keeps the last.
    if (drawn) glfwSwapBuffers(window);
    testshown(&test);
    logframe(&log, turnstart, drawn, newlist);
    picturebudget(static_cast<double>(monotonicns() - turnstart) * 1e-9);
    advanceclock();
    navigationticks(&nexttick);
    glfwPollEvents();
    pace(framestart);
  }
  closeframelog(&log);
}
