// The explorer as the user meets it: the process started on its own X server
// (Xvfb, Mesa's software renderer) at a given screen size, left to draw the
// start view until it finishes and closes itself. The explorer writes a line
// per turn of its frame loop (ORVANTA_TEST_FRAME_LOG); from those come
//   any_frame_s       process start to the first frame drawn (black or not),
//   first_frame_s     process start to the first frame that shows tiles,
//   view_finished_s   process start to the view's finish event (the engine's
//                     work done; the screen may still be catching up),
//   finish_s          process start to the finished start view on the screen
//                     (the view's finish reported and the picture complete),
//   frame_med_ms,     the time between frames from the first frame with tiles
//   frame_p90_ms      to the finish (what the user sees while tiles arrive),
//   work_med_ms, work_p90_ms  the same for the work of a turn, its sleep
//                     excluded,
//   frames_drawn, new_lists   counts over the same stretch.
// The benchmark's own time is finish_s.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

int64_t monotonicns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct TMPDIR {
  std::string path;
  TMPDIR() {
    char pattern[] = "/tmp/orvanta-benchexplorer-XXXXXX";
    path = mkdtemp(pattern);
  }
  ~TMPDIR() { std::system(("rm -rf '" + path + "'").c_str()); }
};

// An X server of its own at w x (h + 1): the explorer's window is one pixel
// short of the screen. Its display number comes back through a pipe.
struct XSERVER {
  pid_t pid = -1;
  std::string display;
  XSERVER(int w, int h) {
    int fd[2];
    if (pipe(fd) != 0) return;
    pid = fork();
    if (pid == 0) {
      close(fd[0]);
      int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, 1);
      dup2(devnull, 2);
      std::string screen = std::to_string(w) + "x" + std::to_string(h + 1) + "x24";
      std::string dfd = std::to_string(fd[1]);
      execlp("Xvfb", "Xvfb", "-displayfd", dfd.c_str(), "-screen", "0", screen.c_str(), "-nolisten", "tcp",
             static_cast<char*>(nullptr));
      _exit(127);
    }
    close(fd[1]);
    char buf[32] = {};
    ssize_t n = read(fd[0], buf, sizeof buf - 1);
    close(fd[0]);
    if (n > 0) display = ":" + std::to_string(atoi(buf));
    if (!display.empty() && !listening(atoi(buf))) display.clear();
  }
  // Whether the server takes connections on its socket, waiting up to 5 s:
  // the display number can come before the socket does.
  static bool listening(int number) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "/tmp/.X11-unix/X%i", number);
    for (int i = 0; i < 250; i++) {
      int fd = socket(AF_UNIX, SOCK_STREAM, 0);
      bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
      close(fd);
      if (ok) return true;
      usleep(20000);
    }
    return false;
  }
  ~XSERVER() {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
};

struct TURN {
  int64_t t, work;
  bool drawn, newlist, tiles, finished, unfinished;
};

std::vector<TURN> readlog(const std::string& path) {
  std::vector<TURN> turns;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream s(line);
    TURN t{};
    int d, n, ti, f, u;
    if (s >> t.t >> t.work >> d >> n >> ti >> f >> u) {
      t.drawn = d;
      t.newlist = n;
      t.tiles = ti;
      t.finished = f;
      t.unfinished = u;
      turns.push_back(t);
    }
  }
  return turns;
}

double percentile(std::vector<double> v, double q) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t i = static_cast<size_t>(q * static_cast<double>(v.size() - 1) + 0.5);
  return v[std::min(i, v.size() - 1)];
}

// Runs the explorer until it closes itself (or `timeout` s); the turns it
// logged and the time it was started.
// The explorer's exit: "exit N", "signal N" or "timeout".
std::string runexplorer(const XSERVER& x, const TMPDIR& dir, double timeout, int64_t* started) {
  std::string log = dir.path + "/frames.log";
  *started = monotonicns();
  pid_t pid = fork();
  if (pid == 0) {
    int out = open((dir.path + "/out.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(out, 2);
    setenv("DISPLAY", x.display.c_str(), 1);
    setenv("LIBGL_ALWAYS_SOFTWARE", "1", 1);
    setenv("XDG_CONFIG_HOME", dir.path.c_str(), 1);
    setenv("ORVANTA_TEST_CLOSE_AFTER", "finish", 1);
    setenv("ORVANTA_TEST_FRAME_LOG", log.c_str(), 1);
    execl(ORVANTA_EXE, ORVANTA_EXE, static_cast<char*>(nullptr));
    _exit(127);
  }
  int64_t deadline = *started + static_cast<int64_t>(timeout * 1e9);
  for (;;) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid)
      return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                               : "signal " + std::to_string(WTERMSIG(status));
    if (monotonicns() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
      return "timeout";
    }
    usleep(20000);
  }
}

void BM_ExplorerStartView(benchmark::State& state) {
  int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  for (auto _ : state) {
    // Other X servers come and go on this machine (tests under xvfb-run):
    // a display taken from under ours is tried again with a new server.
    TMPDIR dir;
    int64_t started = 0;
    std::string end;
    for (int attempt = 0; attempt < 3; attempt++) {
      XSERVER x(w, h);
      if (x.display.empty()) continue;
      end = runexplorer(x, dir, 300, &started);
      if (end != "exit 1" || !readlog(dir.path + "/frames.log").empty()) break;
    }
    if (end.empty()) {
      state.SkipWithError("Xvfb could not be started");
      return;
    }
    std::vector<TURN> turns = readlog(dir.path + "/frames.log");
    if (end != "exit 0" || turns.empty()) {
      std::ifstream out(dir.path + "/out.txt");
      std::string line, last;
      while (std::getline(out, line))
        if (!line.empty()) last = line;
      std::string why = "the explorer ended with " + end + " after " + std::to_string(turns.size()) +
                        " turns; its last line: " + last;
      state.SkipWithError(why.c_str());
      return;
    }
    size_t any = 0, viewdone = 0;
    while (any < turns.size() && !turns[any].drawn) any++;
    while (viewdone < turns.size() && !turns[viewdone].finished) viewdone++;
    size_t first = 0;
    while (first < turns.size() && !(turns[first].drawn && turns[first].tiles)) first++;
    size_t finish = first;
    while (finish < turns.size() && !(turns[finish].finished && !turns[finish].unfinished)) finish++;
    if (first >= turns.size() || finish >= turns.size()) {
      state.SkipWithError("no frame with tiles, or no finish, in the log");
      return;
    }
    // The finished picture is the last one drawn before the close.
    size_t lastdrawn = finish;
    for (size_t i = finish; i < turns.size(); i++)
      if (turns[i].drawn) lastdrawn = i;
    std::vector<double> frames, work;
    int drawncount = 0, lists = 0;
    for (size_t i = first; i <= lastdrawn; i++) {
      if (i > first) frames.push_back(static_cast<double>(turns[i].t - turns[i - 1].t) * 1e-6);
      work.push_back(static_cast<double>(turns[i].work) * 1e-6);
      drawncount += turns[i].drawn;
      lists += turns[i].newlist;
    }
    double finishs = static_cast<double>(std::max(turns[finish].t, turns[lastdrawn].t) - started) * 1e-9;
    state.SetIterationTime(finishs);
    state.counters["first_frame_s"] = static_cast<double>(turns[first].t - started) * 1e-9;
    state.counters["finish_s"] = finishs;
    if (any < turns.size()) state.counters["any_frame_s"] = static_cast<double>(turns[any].t - started) * 1e-9;
    if (viewdone < turns.size())
      state.counters["view_finished_s"] = static_cast<double>(turns[viewdone].t - started) * 1e-9;
    state.counters["frame_med_ms"] = percentile(frames, 0.5);
    state.counters["frame_p90_ms"] = percentile(frames, 0.9);
    state.counters["work_med_ms"] = percentile(work, 0.5);
    state.counters["work_p90_ms"] = percentile(work, 0.9);
    state.counters["frames_drawn"] = drawncount;
    state.counters["new_lists"] = lists;
  }
}

}  // namespace

BENCHMARK(BM_ExplorerStartView)
    ->Args({1920, 1080})
    ->Args({640, 480})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);
