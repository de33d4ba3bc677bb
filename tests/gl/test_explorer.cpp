// The explorer as a process under its own X server (xvfb-run) with Mesa's
// software renderer: it starts with a given settings file and an empty
// auto/, draws the start view, closes on request and exits 0 without a
// FATAL line; without a display it says what to use instead and exits 1.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <png.h>

#include "xwd.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

struct TMPDIR {
  std::string path;
  TMPDIR() {
    char pattern[] = "/tmp/orvanta-explorertest-XXXXXX";
    path = mkdtemp(pattern);
  }
  ~TMPDIR() { std::system(("rm -rf '" + path + "'").c_str()); }
};

std::string readfile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

struct RESULT {
  int code = -1;  // exit code; -1 when killed
  bool timedout = false;
  double seconds = 0;
  std::string out, err;
};

struct PROCESS {
  pid_t pid;
  std::chrono::steady_clock::time_point start;
  std::string outfile, errfile;
};

// Starts the explorer with `args`, the environment changed by `set` and
// without the variables in `unset`; its output goes to files in `dir`.
PROCESS spawn(const std::vector<std::string>& args, const std::map<std::string, std::string>& set,
              const std::vector<std::string>& unset, const std::string& dir,
              const char* exe = ORVANTA_EXE) {
  PROCESS p{0, std::chrono::steady_clock::now(), dir + "/stdout", dir + "/stderr"};
  p.pid = fork();
  if (p.pid == 0) {
    int o = open(p.outfile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int e = open(p.errfile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(o, 1);
    dup2(e, 2);
    for (const auto& [k, v] : set) setenv(k.c_str(), v.c_str(), 1);
    for (const auto& k : unset) unsetenv(k.c_str());
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(exe));
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(exe, argv.data());
    _exit(127);
  }
  return p;
}

double elapsed(const PROCESS& p) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - p.start).count();
}

// Waits for the end, at most `limit` seconds from the start; then kills.
RESULT wait(const PROCESS& p, double limit) {
  RESULT r;
  int status = 0;
  for (;;) {
    if (waitpid(p.pid, &status, WNOHANG) == p.pid) break;
    if (elapsed(p) > limit) {
      r.timedout = true;
      kill(p.pid, SIGKILL);
      waitpid(p.pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  r.seconds = elapsed(p);
  if (WIFEXITED(status)) r.code = WEXITSTATUS(status);
  r.out = readfile(p.outfile);
  r.err = readfile(p.errfile);
  return r;
}

RESULT run(const std::vector<std::string>& args, const std::map<std::string, std::string>& set,
           const std::vector<std::string>& unset, double limit, const std::string& dir) {
  return wait(spawn(args, set, unset, dir), limit);
}

// A user configuration directory with the given settings file.
void writesettings(const std::string& dir, const std::string& json) {
  mkdir((dir + "/orvanta").c_str(), 0755);
  std::ofstream(dir + "/orvanta/orvanta.json") << json;
}

struct IMAGE {
  int w = 0, h = 0;
  std::string rgb;
  std::string at(int x, int y) const { return rgb.substr((static_cast<size_t>(y) * w + x) * 3, 3); }
};

IMAGE readppm(const std::string& path) {
  IMAGE im;
  std::string d = readfile(path);
  std::istringstream in(d);
  std::string magic;
  int maxval = 0;
  in >> magic >> im.w >> im.h >> maxval;
  in.get();
  if (magic != "P6" || maxval != 255) return IMAGE{};
  im.rgb = d.substr(static_cast<size_t>(in.tellg()));
  if (im.rgb.size() != static_cast<size_t>(im.w) * im.h * 3) return IMAGE{};
  return im;
}

int countlines(const std::string& s) {
  int n = 0;
  for (char c : s) n += c == '\n';
  return n;
}

const char* const CLOSEONFINISH = "ORVANTA_TEST_CLOSE_AFTER";

}  // namespace

TEST(Explorer, DrawsTheStartViewAndClosesCleanly) {
  TMPDIR dir, cfg, tmp;
  writesettings(cfg.path, R"({"totalmemory": 512, "pointsize": 4})");
  std::string frame = dir.path + "/frame.ppm";
  RESULT r = run({}, {{"XDG_CONFIG_HOME", cfg.path}, {"TMPDIR", tmp.path}, {CLOSEONFINISH, "finish"},
                      {"ORVANTA_TEST_FRAME_OUT", frame}},
                 {}, 240, dir.path);
  ASSERT_FALSE(r.timedout) << r.err;
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err.find("FATAL"), std::string::npos) << r.err;
  // The given settings were read: the budget is the file's.
  EXPECT_NE(r.err.find("total (base) memory used : 512 MB\n"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("UPLOADPERFRAME           : "), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("Could not read settings file"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("view finished\n"), std::string::npos) << r.err;
  // Frames that would show nothing new are not drawn: the last turns after
  // the view finished passed without drawing.
  long turns = 0, drawn = 0;
  size_t at = r.err.find("orvanta test close: ");
  ASSERT_NE(at, std::string::npos) << r.err;
  ASSERT_EQ(sscanf(r.err.c_str() + at, "orvanta test close: %ld frames (%ld drawn)", &turns, &drawn), 2) << r.err;
  EXPECT_GT(drawn, 0);
  EXPECT_LT(drawn, turns);

  // The last frame is a picture of the set, not a blank window: many
  // colours, none covering most of it, and the set's inside (the plane's
  // origin, at the centre of the screen) unlike the far outside (a corner).
  IMAGE im = readppm(frame);
  ASSERT_GT(im.w, 0) << "no frame written";
  EXPECT_EQ(im.w, 640);
  std::map<std::string, int> colours;
  for (size_t i = 0; i + 3 <= im.rgb.size(); i += 3) colours[im.rgb.substr(i, 3)]++;
  int most = 0;
  for (const auto& [c, n] : colours) most = std::max(most, n);
  EXPECT_GT(colours.size(), 100u);
  EXPECT_LT(most, im.w * im.h * 6 / 10);
  EXPECT_NE(im.at(im.w / 2, im.h / 2), im.at(2, 2));
  // The set stands upright: its axis is vertical, so the picture is
  // symmetric left to right about the centre column (up to the centre's
  // half-pixel offset).
  int same = 0, total = 0;
  for (int y = 0; y < im.h; y += 7)
    for (int x = 1; x < im.w / 2; x += 7) {
      total++;
      same += im.at(x, y) == im.at(im.w - 1 - x, y) || im.at(x, y) == im.at(im.w - x, y);
    }
  EXPECT_GT(same, total * 8 / 10);

  // The process's own temporary directory went with it.
  EXPECT_EQ(std::system(("test -z \"$(ls -A '" + tmp.path + "')\"").c_str()), 0);
}

TEST(Explorer, TwoOrMoreArgumentsPrintTheUsageAndStart) {
  TMPDIR dir, cfg;
  writesettings(cfg.path, R"({"totalmemory": 512})");
  RESULT r = run({"one.json", "two.json"}, {{"XDG_CONFIG_HOME", cfg.path}, {CLOSEONFINISH, "20"}}, {}, 120,
                 dir.path);
  ASSERT_FALSE(r.timedout) << r.err;
  EXPECT_EQ(r.code, 0) << r.err;
  std::string name = ORVANTA_EXE;
  EXPECT_EQ(r.out, "Usage: " + name + " ovt://?<query-string>\nor:    " + name + " <json-file>\n\n");
  EXPECT_NE(r.err.find("orvanta test close: 20 frames"), std::string::npos) << r.err;
}

TEST(Explorer, ALinkSaysItCantBeOpenedAndStartsTheDefaultView) {
  TMPDIR dir, cfg;
  writesettings(cfg.path, R"({"totalmemory": 512})");
  RESULT r = run({"ovt://?re=-0.75"}, {{"XDG_CONFIG_HOME", cfg.path}, {CLOSEONFINISH, "20"}}, {}, 120,
                 dir.path);
  ASSERT_FALSE(r.timedout) << r.err;
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("links"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("default view.\n"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("orvanta test close: 20 frames"), std::string::npos) << r.err;
}

TEST(Explorer, AnUnreadableSettingsFileStartsOnDefaults) {
  TMPDIR dir, cfg;
  writesettings(cfg.path, R"([512])");
  RESULT r = run({}, {{"XDG_CONFIG_HOME", cfg.path}, {CLOSEONFINISH, "5"}}, {}, 120, dir.path);
  ASSERT_FALSE(r.timedout) << r.err;
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("Could not read settings file \"orvanta.json\".\n"), std::string::npos) << r.err;
}

TEST(Explorer, WithoutADisplayItNamesTheRendererAndExits1) {
  TMPDIR dir, cfg;
  // An unreadable settings file and arguments that would each say
  // something: without a display only the one line comes.
  writesettings(cfg.path, R"([1])");
  for (std::vector<std::string> args : {std::vector<std::string>{}, std::vector<std::string>{"ovt://?a=1"},
                                        std::vector<std::string>{"a.json", "b.json"}}) {
    RESULT r = run(args, {{"XDG_CONFIG_HOME", cfg.path}}, {"DISPLAY", "WAYLAND_DISPLAY"}, 30, dir.path);
    ASSERT_FALSE(r.timedout) << "hung without a display";
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(countlines(r.err), 1) << r.err;
    EXPECT_NE(r.err.find("orvanta-render"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_LT(r.seconds, 10);
  }
}

TEST(Explorer, AnUnreachableDisplayNamesTheRendererAndExits1) {
  TMPDIR dir, cfg;
  writesettings(cfg.path, R"({"totalmemory": 512})");
  RESULT r = run({}, {{"XDG_CONFIG_HOME", cfg.path}, {"DISPLAY", ":9876"}}, {"WAYLAND_DISPLAY"}, 30,
                 dir.path);
  ASSERT_FALSE(r.timedout) << "hung on a display that isn't there";
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("orvanta-render"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("FATAL"), std::string::npos) << r.err;
}

// ---------------------------------------------------------------- the same picture as orvanta-render

namespace {

IMAGE readpng(const std::string& path) {
  IMAGE im;
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&png, path.c_str())) return im;
  png.format = PNG_FORMAT_RGB;
  std::string rgb(PNG_IMAGE_SIZE(png), '\0');
  if (!png_image_finish_read(&png, nullptr, rgb.data(), 0, nullptr)) return im;
  im.w = static_cast<int>(png.width);
  im.h = static_cast<int>(png.height);
  im.rgb = std::move(rgb);
  return im;
}

// The largest, over the three colours, of the mean absolute difference per
// pixel, as a fraction of full scale; 1 for images of different sizes.
double meandifference(const IMAGE& a, const IMAGE& b) {
  if (a.w != b.w || a.h != b.h || a.w == 0) return 1;
  double sum[3] = {0, 0, 0};
  size_t n = static_cast<size_t>(a.w) * a.h;
  for (size_t i = 0; i < n; i++)
    for (int k = 0; k < 3; k++)
      sum[k] += std::abs(static_cast<int>(static_cast<unsigned char>(a.rgb[3 * i + k])) -
                         static_cast<int>(static_cast<unsigned char>(b.rgb[3 * i + k])));
  return std::max({sum[0], sum[1], sum[2]}) / n / 255.0;
}

}  // namespace

// ---------------------------------------------------------------- the window system's close request
//
// X's names (Window, Status, None...) are macros and types that clash with
// little, but they come last all the same.
#include <X11/Xatom.h>
#include <X11/Xlib.h>

namespace {

// The top-level window that carries the process id `pid`, or 0.
Window findwindow(Display* dpy, Window w, pid_t pid, Atom netwmpid) {
  Atom type = 0;
  int format = 0;
  unsigned long n = 0, after = 0;
  unsigned char* data = nullptr;
  if (XGetWindowProperty(dpy, w, netwmpid, 0, 1, False, XA_CARDINAL, &type, &format, &n, &after, &data) ==
          Success &&
      data) {
    bool match = n == 1 && format == 32 && static_cast<pid_t>(*reinterpret_cast<unsigned long*>(data)) == pid;
    XFree(data);
    if (match) return w;
  }
  Window root = 0, parent = 0, *children = nullptr;
  unsigned int nchildren = 0;
  if (!XQueryTree(dpy, w, &root, &parent, &children, &nchildren)) return 0;
  Window found = 0;
  for (unsigned int i = 0; i < nchildren && !found; i++) found = findwindow(dpy, children[i], pid, netwmpid);
  if (children) XFree(children);
  return found;
}

// What a window manager sends when the user closes a window.
void requestclose(Display* dpy, Window w) {
  XEvent e{};
  e.xclient.type = ClientMessage;
  e.xclient.window = w;
  e.xclient.message_type = XInternAtom(dpy, "WM_PROTOCOLS", False);
  e.xclient.format = 32;
  e.xclient.data.l[0] = static_cast<long>(XInternAtom(dpy, "WM_DELETE_WINDOW", False));
  e.xclient.data.l[1] = CurrentTime;
  XSendEvent(dpy, w, False, NoEventMask, &e);
  XFlush(dpy);
}

}  // namespace

// Closed by the window system while the engine is still busy with the start
// view: every thread stops, the process exits 0 with no FATAL line.
TEST(Explorer, ACloseRequestFromTheWindowSystemEndsItCleanly) {
  TMPDIR dir, cfg, tmp;
  writesettings(cfg.path, R"({"totalmemory": 512})");
  PROCESS p = spawn({}, {{"XDG_CONFIG_HOME", cfg.path}, {"TMPDIR", tmp.path}}, {}, dir.path);
  Display* dpy = XOpenDisplay(nullptr);
  ASSERT_NE(dpy, nullptr) << "no X display to test against";
  Atom netwmpid = XInternAtom(dpy, "_NET_WM_PID", False);
  Window w = 0;
  while (!w && elapsed(p) < 60 && waitpid(p.pid, nullptr, WNOHANG) == 0) {
    w = findwindow(dpy, DefaultRootWindow(dpy), p.pid, netwmpid);
    if (!w) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_NE(w, 0u) << "the explorer's window never appeared";
  if (w) {
    // A moment of frames and computing first.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    requestclose(dpy, w);
  }
  RESULT r = wait(p, 120);
  XCloseDisplay(dpy);
  ASSERT_FALSE(r.timedout) << "did not end after the close request\n" << r.err;
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err.find("FATAL"), std::string::npos) << r.err;
  EXPECT_EQ(std::system(("test -z \"$(ls -A '" + tmp.path + "')\"").c_str()), 0);
}

namespace {

// Whether the process ended, leaving its status to `wait`.
bool ended(const PROCESS& p) {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(p.pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0;
}

// Waits until the process's standard error has `line`, or it ended, or
// `limit` seconds passed since its start; whether the line came.
bool waitforline(const PROCESS& p, const std::string& line, double limit) {
  while (elapsed(p) < limit) {
    if (readfile(p.errfile).find(line) != std::string::npos) return true;
    if (ended(p)) return readfile(p.errfile).find(line) != std::string::npos;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

Window waitforwindow(Display* dpy, const PROCESS& p) {
  Atom netwmpid = XInternAtom(dpy, "_NET_WM_PID", False);
  Window w = 0;
  while (!w && elapsed(p) < 60 && !ended(p)) {
    w = findwindow(dpy, DefaultRootWindow(dpy), p.pid, netwmpid);
    if (!w) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return w;
}

// A screenshot of window `w` as the X server holds it, by xwd.
xwd::IMAGE screenshot(Window w, const std::string& dir) {
  std::string file = dir + "/screen.xwd";
  std::string command = std::string("'") + ORVANTA_XWD + "' -silent -id " + std::to_string(w) + " -out '" + file + "'";
  if (std::system(command.c_str()) != 0) return xwd::fail("\"" + command + "\" failed (is x11-apps installed?)");
  return xwd::read(readfile(file));
}

}  // namespace

// The finished start view as the X server shows it (a screenshot of the
// window) is the picture the off-screen renderer makes of the same view,
// size and scheme, within 2% mean absolute difference per channel; and it is
// the frame the explorer drew and read back.
TEST(Explorer, TheStartViewMatchesTheOffScreenRenderer) {
  TMPDIR dir, cfg;
  writesettings(cfg.path, R"({"totalmemory": 512})");
  std::string frame = dir.path + "/frame.ppm", rendered = dir.path + "/render.png";
  PROCESS p = spawn({}, {{"XDG_CONFIG_HOME", cfg.path}, {CLOSEONFINISH, "hold"}, {"ORVANTA_TEST_FRAME_OUT", frame}},
                    {}, dir.path);
  Display* dpy = XOpenDisplay(nullptr);
  ASSERT_NE(dpy, nullptr) << "no X display to test against";
  Window w = waitforwindow(dpy, p);
  EXPECT_NE(w, 0u) << "the explorer's window never appeared";
  bool shown = waitforline(p, "orvanta test shown: ", 240);
  double seconds = elapsed(p);
  xwd::IMAGE shot;
  if (shown && w) shot = screenshot(w, dir.path);
  if (w) requestclose(dpy, w);
  RESULT r = wait(p, shown ? seconds + 60 : 1);
  XCloseDisplay(dpy);
  ASSERT_TRUE(shown) << r.err;
  ASSERT_FALSE(r.timedout) << r.err;
  ASSERT_EQ(r.code, 0) << r.err;
  // Not a criterion: how long the start view took on this machine, its
  // last ten frames after the finish included.
  printf("the finished start view was on the screen %.2f s after the start\n", seconds);
  RecordProperty("startviewseconds", std::to_string(seconds));
  ASSERT_EQ(shot.error, "");
  IMAGE screen{shot.w, shot.h, shot.rgb};
  IMAGE drawn = readppm(frame);
  ASSERT_EQ(drawn.w, screen.w);
  ASSERT_EQ(drawn.h, screen.h);
  EXPECT_LT(meandifference(screen, drawn), 0.002);

  TMPDIR rdir;
  std::string size = std::to_string(screen.w) + "x" + std::to_string(screen.h);
  RESULT rr = wait(spawn({"--size", size, "--scheme", "Iteration", "--memory", "512", "--out", rendered}, {}, {},
                         rdir.path, ORVANTA_RENDER_EXE),
                   240);
  ASSERT_FALSE(rr.timedout) << rr.err;
  ASSERT_EQ(rr.code, 0) << rr.err;
  IMAGE made = readpng(rendered);
  ASSERT_EQ(made.w, screen.w);
  ASSERT_EQ(made.h, screen.h);
  double difference = meandifference(screen, made);
  printf("screen against orvanta-render: %.4f of full scale (the channel that differs most)\n", difference);
  EXPECT_LT(difference, 0.02);
}

// The window made smaller by the window system: the view follows the new
// size, and the last frame is a whole picture of it.
TEST(Explorer, ANewWindowSizeIsApplied) {
  TMPDIR dir, cfg;
  writesettings(cfg.path, R"({"totalmemory": 512})");
  std::string frame = dir.path + "/frame.ppm";
  PROCESS p = spawn({}, {{"XDG_CONFIG_HOME", cfg.path}, {CLOSEONFINISH, "600"}, {"ORVANTA_TEST_FRAME_OUT", frame}},
                    {}, dir.path);
  Display* dpy = XOpenDisplay(nullptr);
  ASSERT_NE(dpy, nullptr);
  Atom netwmpid = XInternAtom(dpy, "_NET_WM_PID", False);
  Window w = 0;
  while (!w && elapsed(p) < 60 && waitpid(p.pid, nullptr, WNOHANG) == 0) {
    w = findwindow(dpy, DefaultRootWindow(dpy), p.pid, netwmpid);
    if (!w) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_NE(w, 0u);
  if (w) {
    XResizeWindow(dpy, w, 400, 300);
    XFlush(dpy);
  }
  RESULT r = wait(p, 240);
  XCloseDisplay(dpy);
  ASSERT_FALSE(r.timedout) << r.err;
  EXPECT_EQ(r.code, 0) << r.err;
  IMAGE im = readppm(frame);
  ASSERT_EQ(im.w, 400) << r.err;
  ASSERT_EQ(im.h, 300);
  std::map<std::string, int> colours;
  for (size_t i = 0; i + 3 <= im.rgb.size(); i += 3) colours[im.rgb.substr(i, 3)]++;
  EXPECT_GT(colours.size(), 100u);
  // The start view, upright and centred in the new size: symmetric left to
  // right, the set's inside at the centre unlike a corner.
  int same = 0, total = 0;
  for (int y = 0; y < im.h; y += 5)
    for (int x = 1; x < im.w / 2; x += 5) {
      total++;
      same += im.at(x, y) == im.at(im.w - 1 - x, y) || im.at(x, y) == im.at(im.w - x, y);
    }
  EXPECT_GT(same, total * 8 / 10);
  EXPECT_NE(im.at(im.w / 2, im.h / 2), im.at(2, 2));
  // And it is the picture of the start view at that size.
  TMPDIR rdir;
  std::string rendered = rdir.path + "/render.png";
  RESULT rr = wait(spawn({"--size", "400x300", "--scheme", "Iteration", "--memory", "512", "--out", rendered}, {}, {},
                         rdir.path, ORVANTA_RENDER_EXE),
                   240);
  ASSERT_EQ(rr.code, 0) << rr.err;
  EXPECT_LT(meandifference(im, readpng(rendered)), 0.02);
}

// The measuring knob: a line per turn of the frame loop. While a view's kept
// picture waits for cells, every turn draws; the close on finish waits for
// the picture to be complete.
TEST(Explorer, TheFrameLogHasEveryTurnAndThePictureCompletesBeforeTheClose) {
  TMPDIR dir, cfg;
  writesettings(cfg.path, R"({"totalmemory": 512})");
  std::string log = dir.path + "/frames.log";
  RESULT r = run({}, {{"XDG_CONFIG_HOME", cfg.path}, {CLOSEONFINISH, "finish"}, {"ORVANTA_TEST_FRAME_LOG", log}}, {},
                 240, dir.path);
  ASSERT_FALSE(r.timedout) << r.err;
  ASSERT_EQ(r.code, 0) << r.err;
  long turns = 0, drawn = 0;
  size_t at = r.err.find("orvanta test close: ");
  ASSERT_NE(at, std::string::npos) << r.err;
  ASSERT_EQ(sscanf(r.err.c_str() + at, "orvanta test close: %ld frames (%ld drawn)", &turns, &drawn), 2);

  struct TURN {
    long long t, work;
    int drawn, newlist, tiles, finished, waiting;
  };
  std::vector<TURN> lines;
  std::istringstream in(readfile(log));
  TURN t{};
  while (in >> t.t >> t.work >> t.drawn >> t.newlist >> t.tiles >> t.finished >> t.waiting) lines.push_back(t);
  ASSERT_EQ(static_cast<long>(lines.size()), turns);
  long drawnlines = 0, lists = 0;
  bool tiles = false;
  for (size_t i = 0; i < lines.size(); i++) {
    drawnlines += lines[i].drawn;
    lists += lines[i].newlist;
    tiles = tiles || (lines[i].drawn && lines[i].tiles);
    EXPECT_GE(lines[i].work, 0);
    if (i > 0) {
      EXPECT_GE(lines[i].t, lines[i - 1].t);
    }
    // A turn that left cells waiting is followed by one that draws.
    if (lines[i].waiting && i + 1 < lines.size()) {
      EXPECT_TRUE(lines[i + 1].drawn) << "turn " << i + 1;
    }
  }
  EXPECT_EQ(drawnlines, drawn);
  EXPECT_GT(lists, 0);
  EXPECT_TRUE(tiles);
  EXPECT_TRUE(lines.back().finished);
  EXPECT_FALSE(lines.back().waiting);
}

// ---------------------------------------------------------------- window dumps

namespace {

// A dump as xwd writes it: the header in big-endian words, no window name,
// the colour map, then the rows.
struct DUMP {
  uint32_t h[xwd::NFIELD] = {};
  std::vector<uint32_t> colours;  // pixel, then r, g, b (16-bit) per entry
  std::string rows;

  DUMP(int w, int ht, int bpp, int line, uint32_t visual, bool msbfirst) {
    h[xwd::H_HEADER_SIZE] = xwd::NFIELD * 4;
    h[xwd::H_FILE_VERSION] = xwd::VERSION;
    h[xwd::H_PIXMAP_FORMAT] = xwd::ZPIXMAP;
    h[xwd::H_PIXMAP_DEPTH] = bpp == 32 ? 24 : bpp;
    h[xwd::H_PIXMAP_WIDTH] = w;
    h[xwd::H_PIXMAP_HEIGHT] = ht;
    h[xwd::H_BYTE_ORDER] = msbfirst ? 1 : 0;
    h[xwd::H_BITS_PER_PIXEL] = bpp;
    h[xwd::H_BYTES_PER_LINE] = line;
    h[xwd::H_VISUAL_CLASS] = visual;
    rows.assign(static_cast<size_t>(line) * ht, '\x5a');  // padding that must not be read
  }
  void put(int x, int y, uint32_t v) {
    int bytes = h[xwd::H_BITS_PER_PIXEL] / 8;
    for (int i = 0; i < bytes; i++) {
      int shift = h[xwd::H_BYTE_ORDER] ? 8 * (bytes - 1 - i) : 8 * i;
      rows[y * h[xwd::H_BYTES_PER_LINE] + x * bytes + i] = static_cast<char>(v >> shift);
    }
  }
  static void be(std::string* s, uint32_t v, int bytes) {
    for (int i = bytes - 1; i >= 0; i--) s->push_back(static_cast<char>(v >> (8 * i)));
  }
  std::string file() {
    h[xwd::H_NCOLORS] = static_cast<uint32_t>(colours.size() / 4);
    std::string s;
    for (uint32_t v : h) be(&s, v, 4);
    for (size_t i = 0; i < colours.size(); i += 4) {
      be(&s, colours[i], 4);
      for (int k = 1; k < 4; k++) be(&s, colours[i + k], 2);
      s.append(2, '\0');
    }
    return s + rows;
  }
};

std::string rgb(int r, int g, int b) { return {static_cast<char>(r), static_cast<char>(g), static_cast<char>(b)}; }

std::string pixel(const xwd::IMAGE& im, int x, int y) { return im.rgb.substr((static_cast<size_t>(y) * im.w + x) * 3, 3); }

}  // namespace

TEST(XwdDump, TrueColourInEitherByteOrder) {
  for (bool msb : {false, true}) {
    // Rows padded past their three pixels.
    DUMP d(3, 2, 32, 16, xwd::TRUECOLOR, msb);
    d.h[xwd::H_RED_MASK] = 0xff0000;
    d.h[xwd::H_GREEN_MASK] = 0xff00;
    d.h[xwd::H_BLUE_MASK] = 0xff;
    d.put(0, 0, 0x102030);
    d.put(1, 0, 0xff0001);
    d.put(2, 0, 0x000000);
    d.put(0, 1, 0xa0b0c0);
    d.put(1, 1, 0x00ff00);
    d.put(2, 1, 0xffffff);
    xwd::IMAGE im = xwd::read(d.file());
    ASSERT_EQ(im.error, "") << msb;
    ASSERT_EQ(im.w, 3);
    ASSERT_EQ(im.h, 2);
    EXPECT_EQ(pixel(im, 0, 0), rgb(0x10, 0x20, 0x30)) << msb;
    EXPECT_EQ(pixel(im, 1, 0), rgb(0xff, 0, 1)) << msb;
    EXPECT_EQ(pixel(im, 2, 0), rgb(0, 0, 0)) << msb;
    EXPECT_EQ(pixel(im, 0, 1), rgb(0xa0, 0xb0, 0xc0)) << msb;
    EXPECT_EQ(pixel(im, 1, 1), rgb(0, 0xff, 0)) << msb;
    EXPECT_EQ(pixel(im, 2, 1), rgb(0xff, 0xff, 0xff)) << msb;
  }
}

TEST(XwdDump, NarrowMasksAreStretchedToFullScale) {
  // Five, six and five bits, blue in the high bits.
  DUMP d(2, 1, 16, 4, xwd::TRUECOLOR, true);
  d.h[xwd::H_RED_MASK] = 0x001f;
  d.h[xwd::H_GREEN_MASK] = 0x07e0;
  d.h[xwd::H_BLUE_MASK] = 0xf800;
  d.put(0, 0, 0x001f | (32 << 5));
  d.put(1, 0, 0xf800 | 1);
  xwd::IMAGE im = xwd::read(d.file());
  ASSERT_EQ(im.error, "");
  EXPECT_EQ(pixel(im, 0, 0), rgb(255, 130, 0));
  EXPECT_EQ(pixel(im, 1, 0), rgb(8, 0, 255));
}

TEST(XwdDump, OtherVisualsGoThroughTheColourMap) {
  DUMP d(2, 1, 8, 4, 3, false);  // pseudo colour
  d.colours = {7, 0x1200, 0x3400, 0x5600, 200, 0xffff, 0x8000, 0x0000};
  d.put(0, 0, 200);
  d.put(1, 0, 7);
  xwd::IMAGE im = xwd::read(d.file());
  ASSERT_EQ(im.error, "");
  EXPECT_EQ(pixel(im, 0, 0), rgb(0xff, 0x80, 0));
  EXPECT_EQ(pixel(im, 1, 0), rgb(0x12, 0x34, 0x56));
  d.put(1, 0, 9);
  EXPECT_NE(xwd::read(d.file()).error, "");
}

TEST(XwdDump, ATruncatedOrForeignFileHasNoImage) {
  DUMP d(4, 4, 32, 16, xwd::TRUECOLOR, false);
  d.h[xwd::H_RED_MASK] = 0xff0000;
  std::string f = d.file();
  EXPECT_EQ(xwd::read(f).error, "");
  EXPECT_NE(xwd::read(f.substr(0, f.size() - 1)).error, "");
  EXPECT_NE(xwd::read(f.substr(0, 40)).error, "");
  d.h[xwd::H_FILE_VERSION] = 6;
  EXPECT_NE(xwd::read(d.file()).error, "");
}
