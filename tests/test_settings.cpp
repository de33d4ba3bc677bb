// The explorer's settings file orvanta.json, without a display: every key,
// its type rule and default, the file that can't be read, truncation, the
// derived values and their report; and where the settings are looked for.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "paths.h"
#include "settings.h"

namespace {

constexpr int PROCESSORS = 4;
constexpr int64_t PHYSICAL = int64_t(8) << 30;

struct TMPDIR {
  std::string path;
  TMPDIR() {
    char pattern[] = "/tmp/orvanta-settingstest-XXXXXX";
    path = mkdtemp(pattern);
  }
  ~TMPDIR() { std::system(("chmod -R u+w '" + path + "'; rm -rf '" + path + "'").c_str()); }
  std::string write(const std::string& name, const std::string& text) const {
    std::string file = path + "/" + name;
    std::ofstream(file) << text;
    return file;
  }
};

std::string readfile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Reads `path` over the defaults; `*message` gets what went to standard error.
SETTINGS readwith(const std::string& path, std::string* message, bool* ok = nullptr) {
  SETTINGS s;
  defaultsettings(&s, PROCESSORS, PHYSICAL);
  char* buf = nullptr;
  size_t len = 0;
  FILE* err = open_memstream(&buf, &len);
  bool r = readsettings(&s, path.c_str(), err);
  fclose(err);
  *message = std::string(buf, len);
  free(buf);
  if (ok) *ok = r;
  return s;
}

SETTINGS readtext(const std::string& text, std::string* message) {
  TMPDIR dir;
  return readwith(dir.write("orvanta.json", text), message);
}

void expectdefaults(const SETTINGS& s) {
  EXPECT_EQ(s.sizefactor, 1.0);
  EXPECT_EQ(s.framerate, 60.0);
  EXPECT_EQ(s.linewidth, 1);
  EXPECT_EQ(s.nthread, 5);
  EXPECT_EQ(s.cachesize, 10);
  EXPECT_EQ(s.totalmemory, 4096);
  EXPECT_EQ(s.graphicsmemory, 0);
  EXPECT_EQ(s.graphicsrate, 0);
  EXPECT_EQ(s.ntrace, 1000);
  EXPECT_EQ(s.pointsize, 5);
  EXPECT_EQ(s.juliawndsize, 0);
  EXPECT_EQ(s.glmajor, 3);
  EXPECT_EQ(s.glminor, 0);
  EXPECT_EQ(s.yreduce, 1);
  EXPECT_EQ(s.startautomode, 120);
  EXPECT_FALSE(s.highres);
  EXPECT_FALSE(s.presentationmode);
  EXPECT_FALSE(s.debuginfomode);
  EXPECT_FALSE(s.touchmodeaverage);
  EXPECT_EQ(s.videooptions, nullptr);
}

const char* const UNREADABLE = "Could not read settings file \"orvanta.json\".\n";

const char* const NUMBERKEYS[] = {"guiscale",    "framerate",      "linewidth",    "nthread",
                                  "cachesize",   "totalmemory",    "graphicsmemory", "graphicsrate",
                                  "ntrace",      "pointsize",      "juliawndsize",
                                  "GLFW_CONTEXT_VERSION_MAJOR", "GLFW_CONTEXT_VERSION_MINOR",
                                  "yreduce",     "startautomode"};
const char* const BOOLKEYS[] = {"highres", "presentationmode", "debuginfomode", "touchmodeaverage"};

}  // namespace

TEST(Settings, DefaultsFollowTheMachine) {
  SETTINGS s;
  defaultsettings(&s, 2, int64_t(4) << 30);
  EXPECT_EQ(s.nthread, 5);  // never fewer than five by default
  EXPECT_EQ(s.totalmemory, 2048);  // half the memory, in MB
  defaultsettings(&s, 16, int64_t(64) << 30);
  EXPECT_EQ(s.nthread, 17);
  EXPECT_EQ(s.totalmemory, 32768);
}

TEST(Settings, MissingFileGivesTheMessageAndDefaults) {
  TMPDIR dir;
  std::string message;
  bool ok = true;
  SETTINGS s = readwith(dir.path + "/orvanta.json", &message, &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(message, UNREADABLE);
  expectdefaults(s);
}

TEST(Settings, NonDictionaryGivesTheMessageAndDefaults) {
  for (const char* text : {"[1, 2, 3]", "42", "\"totalmemory\"", "true", "null"}) {
    std::string message;
    SETTINGS s = readtext(text, &message);
    EXPECT_EQ(message, UNREADABLE) << text;
    expectdefaults(s);
  }
}

TEST(Settings, BrokenJsonGivesTheMessageAndDefaults) {
  for (const char* text : {"{\"totalmemory\": 512", "", "{totalmemory: 512}"}) {
    std::string message;
    SETTINGS s = readtext(text, &message);
    EXPECT_EQ(message, UNREADABLE) << text;
    expectdefaults(s);
  }
}

// The file is opened for update, so one the user may not write counts as
// unreadable. The superuser may write anything: the read then runs in a
// child that gave up those rights.
TEST(Settings, ReadOnlyFileGivesTheMessageAndDefaults) {
  TMPDIR dir;
  chmod(dir.path.c_str(), 0755);
  std::string file = dir.write("orvanta.json", "{\"totalmemory\": 512, \"highres\": true}");
  chmod(file.c_str(), 0444);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(10);
    std::string message;
    bool ok = true;
    SETTINGS s = readwith(file, &message, &ok);
    if (ok) _exit(11);
    if (message != UNREADABLE) _exit(12);
    if (s.totalmemory != 4096 || s.highres) _exit(13);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "10: no unprivileged user, 11: read succeeded, "
                                       "12: wrong message, 13: values taken";
  // The same file, writable, is read.
  chmod(file.c_str(), 0644);
  std::string message;
  SETTINGS s = readwith(file, &message);
  EXPECT_EQ(message, "");
  EXPECT_EQ(s.totalmemory, 512);
  EXPECT_TRUE(s.highres);
}

TEST(Settings, EveryKeyOfTheRightTypeIsRead) {
  std::string message;
  SETTINGS s = readtext(R"({"guiscale": 1.5, "framerate": 30, "linewidth": 3, "nthread": 7,
      "cachesize": 9, "totalmemory": 512, "graphicsmemory": 100, "graphicsrate": 30,
      "ntrace": 200, "pointsize": 8, "juliawndsize": 300, "GLFW_CONTEXT_VERSION_MAJOR": 2,
      "GLFW_CONTEXT_VERSION_MINOR": 1, "yreduce": 0, "startautomode": 60, "highres": true,
      "presentationmode": true, "debuginfomode": true, "touchmodeaverage": true,
      "videooptions": {"crf": 18, "preset": "slow"}})",
                        &message);
  EXPECT_EQ(message, "");
  EXPECT_EQ(s.sizefactor, 1.5);
  EXPECT_EQ(s.framerate, 30.0);
  EXPECT_EQ(s.linewidth, 3);
  EXPECT_EQ(s.nthread, 7);
  EXPECT_EQ(s.cachesize, 9);
  EXPECT_EQ(s.totalmemory, 512);
  EXPECT_EQ(s.graphicsmemory, 100);
  EXPECT_EQ(s.graphicsrate, 30);
  EXPECT_EQ(s.ntrace, 200);
  EXPECT_EQ(s.pointsize, 8);
  EXPECT_EQ(s.juliawndsize, 300);
  EXPECT_EQ(s.glmajor, 2);
  EXPECT_EQ(s.glminor, 1);
  EXPECT_EQ(s.yreduce, 0);
  EXPECT_EQ(s.startautomode, 60);
  EXPECT_TRUE(s.highres);
  EXPECT_TRUE(s.presentationmode);
  EXPECT_TRUE(s.debuginfomode);
  EXPECT_TRUE(s.touchmodeaverage);
  ASSERT_NE(s.videooptions, nullptr);
  EXPECT_EQ(countjdict(s.videooptions), 2);
  EXPECT_EQ(getjnum(getjdict(s.videooptions, "crf")), 18.0);
  // The dictionary outlives the parsed file: the settings hold a reference.
  EXPECT_EQ(s.videooptions->count, 1);
  freesettings(&s);
  EXPECT_EQ(s.videooptions, nullptr);
}

TEST(Settings, EachKeyOfAWrongTypeKeepsItsDefaultSilently) {
  for (const char* key : NUMBERKEYS) {
    for (const char* wrong : {"\"12\"", "true", "[12]", "{\"a\": 12}", "null"}) {
      std::string message;
      SETTINGS s = readtext(std::string("{\"") + key + "\": " + wrong + "}", &message);
      EXPECT_EQ(message, "") << key << " " << wrong;
      SCOPED_TRACE(std::string(key) + " = " + wrong);
      expectdefaults(s);
    }
  }
  for (const char* key : BOOLKEYS) {
    for (const char* wrong : {"1", "\"true\"", "[true]", "null"}) {
      std::string message;
      SETTINGS s = readtext(std::string("{\"") + key + "\": " + wrong + "}", &message);
      EXPECT_EQ(message, "");
      SCOPED_TRACE(std::string(key) + " = " + wrong);
      expectdefaults(s);
    }
  }
  for (const char* wrong : {"[1, 2]", "\"crf=18\"", "5", "false"}) {
    std::string message;
    SETTINGS s = readtext(std::string("{\"videooptions\": ") + wrong + "}", &message);
    EXPECT_EQ(message, "");
    EXPECT_EQ(s.videooptions, nullptr) << wrong;
  }
}

TEST(Settings, AWrongKeyLeavesTheOthersRead) {
  std::string message;
  SETTINGS s = readtext(R"({"totalmemory": "lots", "nthread": 6, "highres": 1, "pointsize": 9})", &message);
  EXPECT_EQ(message, "");
  EXPECT_EQ(s.totalmemory, 4096);
  EXPECT_EQ(s.nthread, 6);
  EXPECT_FALSE(s.highres);
  EXPECT_EQ(s.pointsize, 9);
}

TEST(Settings, NumbersAreTruncatedTowardZero) {
  std::string message;
  SETTINGS s = readtext(R"({"totalmemory": 512.99, "nthread": 6.7, "ntrace": -3.9, "yreduce": 0.5,
      "graphicsmemory": 12.999, "guiscale": 1.75, "framerate": 59.94})",
                        &message);
  EXPECT_EQ(message, "");
  EXPECT_EQ(s.totalmemory, 512);
  EXPECT_EQ(s.nthread, 6);
  EXPECT_EQ(s.ntrace, -3);
  EXPECT_EQ(s.yreduce, 0);
  EXPECT_EQ(s.graphicsmemory, 12);
  // The two real-valued keys keep their fraction.
  EXPECT_EQ(s.sizefactor, 1.75);
  EXPECT_EQ(s.framerate, 59.94);
}

TEST(Settings, NthreadBelowFiveIsKept) {
  for (int n : {1, 2, 4}) {
    std::string message;
    SETTINGS s = readtext("{\"nthread\": " + std::to_string(n) + "}", &message);
    EXPECT_EQ(s.nthread, n);
  }
}

TEST(Settings, AnOutOfRangeNumberKeepsTheDefault) {
  std::string message;
  SETTINGS s = readtext(R"({"nthread": 1e12, "pointsize": -1e300})", &message);
  EXPECT_EQ(message, "");
  EXPECT_EQ(s.nthread, 5);
  EXPECT_EQ(s.pointsize, 5);
}

TEST(Settings, DerivedFromTheFramebuffer) {
  SETTINGS s;
  defaultsettings(&s, PROCESSORS, PHYSICAL);
  derivesettings(&s, 1920, 1080);
  EXPECT_EQ(s.graphicsmemory, 1920 * 1080 / 8192);  // 253
  EXPECT_EQ(s.ngltexture, 253 * 4);
  EXPECT_EQ(s.graphicsrate, 253 / 5);
  EXPECT_EQ(s.uploadperframe, 50 * 4 / 60);  // 3
}

TEST(Settings, GivenGraphicsValuesStand) {
  std::string message;
  SETTINGS s = readtext(R"({"graphicsmemory": 100, "graphicsrate": 45, "framerate": 30})", &message);
  derivesettings(&s, 1920, 1080);
  EXPECT_EQ(s.graphicsmemory, 100);
  EXPECT_EQ(s.ngltexture, 400);
  EXPECT_EQ(s.graphicsrate, 45);
  EXPECT_EQ(s.uploadperframe, 6);
}

TEST(Settings, SmallGraphicsMemoryGivesRateZeroAndOneUploadPerFrame) {
  for (int gm = 1; gm < 5; gm++) {
    std::string message;
    SETTINGS s = readtext("{\"graphicsmemory\": " + std::to_string(gm) + "}", &message);
    derivesettings(&s, 1920, 1080);
    EXPECT_EQ(s.graphicsmemory, gm);
    EXPECT_EQ(s.graphicsrate, 0);
    EXPECT_EQ(s.uploadperframe, 1);
    EXPECT_EQ(s.ngltexture, gm * 4);
  }
  // A small window derives the same.
  SETTINGS s;
  defaultsettings(&s, PROCESSORS, PHYSICAL);
  derivesettings(&s, 200, 150);  // 30000 / 8192 = 3
  EXPECT_EQ(s.graphicsmemory, 3);
  EXPECT_EQ(s.graphicsrate, 0);
  EXPECT_EQ(s.uploadperframe, 1);
}

// Nothing guards a frame rate of 0: it is kept as given, and the upload
// budget, whose division by it means nothing, falls back to one tile.
TEST(Settings, AFramerateOfZeroIsKeptAndUploadsOneTilePerFrame) {
  std::string message;
  SETTINGS s = readtext(R"({"framerate": 0, "graphicsrate": 100})", &message);
  derivesettings(&s, 1920, 1080);
  EXPECT_EQ(message, "");
  EXPECT_EQ(s.framerate, 0.0);
  EXPECT_EQ(s.graphicsrate, 100);
  EXPECT_EQ(s.uploadperframe, 1);
}

TEST(Settings, TheStartReport) {
  std::string message;
  SETTINGS s = readtext(R"({"totalmemory": 512, "nthread": 4})", &message);
  derivesettings(&s, 640, 480);  // 37 MB
  char* buf = nullptr;
  size_t len = 0;
  FILE* err = open_memstream(&buf, &len);
  printsettings(&s, err);
  fclose(err);
  EXPECT_EQ(std::string(buf, len),
            "total (base) memory used : 512 MB\n"
            "nthread                  : 4\n"
            "graphicsmemory           : 37 MB\n"
            "graphicsrate             : 7 MB/s\n"
            "ngltexture               : 148\n"
            "UPLOADPERFRAME           : 1\n");
  free(buf);
}

TEST(Settings, TheInstalledDefaultsAreValidAndMatchTheBuiltInOnes) {
  std::string message;
  SETTINGS s = readwith(ORVANTA_SOURCE_DIR "/appdata/orvanta.json", &message);
  EXPECT_EQ(message, "");
  expectdefaults(s);
}

// ---------------------------------------------------------------- where the files are

TEST(Paths, UserDirectoryAndTemporaryDirectory) {
  EXPECT_EQ(userconfigdirectory("/x/cfg", "/home/u"), "/x/cfg/orvanta");
  EXPECT_EQ(userconfigdirectory("", "/home/u"), "/home/u/.config/orvanta");
  EXPECT_EQ(userconfigdirectory(nullptr, "/home/u"), "/home/u/.config/orvanta");
  EXPECT_EQ(temporarydirectory("/var/tmp"), "/var/tmp/");
  EXPECT_EQ(temporarydirectory("/var/tmp/"), "/var/tmp/");
  EXPECT_EQ(temporarydirectory(""), "/tmp/");
  EXPECT_EQ(temporarydirectory(nullptr), "/tmp/");
}

TEST(Paths, TheExecutableDirectory) {
  std::string dir = executabledirectory();
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  ASSERT_GT(n, 0);
  buf[n] = 0;
  EXPECT_EQ(dir + "/test_settings", std::string(buf));
}

TEST(Paths, AWritableFileBesideTheExecutableIsUsed) {
  TMPDIR exe, cfg;
  mkdir((exe.path + "/appdata").c_str(), 0755);
  exe.write("appdata/orvanta.json", "{}");
  PATHS p = makepaths(exe.path, cfg.path.c_str(), "/nonexistent", "/var/tmp");
  EXPECT_EQ(p.settingsfile, exe.path + "/appdata/orvanta.json");
  EXPECT_EQ(p.colorschemefile, exe.path + "/colorschemes.json");
  EXPECT_EQ(p.texturefile, exe.path + "/appdata/texturesgl.jpg");
  EXPECT_EQ(p.autofiles, exe.path + "/auto");
  EXPECT_EQ(p.tmpdir, "/var/tmp/");
  struct stat st;
  EXPECT_NE(stat((cfg.path + "/orvanta").c_str(), &st), 0) << "no user directory needed";
}

TEST(Paths, ReadOnlyDefaultsAreCopiedForTheUser) {
  TMPDIR exe, cfg;
  mkdir((exe.path + "/appdata").c_str(), 0755);
  std::string installed = exe.write("appdata/orvanta.json", "{\"pointsize\": 7}");
  chmod(installed.c_str(), 0444);
  chmod((exe.path).c_str(), 0555);  // nor can the scheme file be written there
  PATHS p = makepaths(exe.path, cfg.path.c_str(), "/nonexistent", nullptr);
  chmod((exe.path).c_str(), 0755);
  EXPECT_EQ(p.settingsfile, cfg.path + "/orvanta/orvanta.json");
  EXPECT_EQ(readfile(p.settingsfile), "{\"pointsize\": 7}");
  // The copy is the user's: writable, and read like any settings file.
  std::string message;
  SETTINGS s = readwith(p.settingsfile, &message);
  EXPECT_EQ(message, "");
  EXPECT_EQ(s.pointsize, 7);
  if (geteuid() != 0) {
    EXPECT_EQ(p.colorschemefile, cfg.path + "/orvanta/colorschemes.json");
  }
  // An edited copy is not overwritten by the next start.
  std::ofstream(p.settingsfile) << "{\"pointsize\": 9}";
  makepaths(exe.path, cfg.path.c_str(), "/nonexistent", nullptr);
  EXPECT_EQ(readfile(p.settingsfile), "{\"pointsize\": 9}");
}
