// orvanta-view's command line, parsed directly and through the built tool:
// positions, widths and zooms as exact decimals, one-line usage errors with
// exit status 2, a completed run with exit 0 and its lines, a run cut off by
// its timeout with exit 3.
#include <gmp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "viewargs.h"

namespace {

bool parse(std::vector<const char*> argv, VIEWARGS* a, std::string* error) {
  argv.insert(argv.begin(), "orvanta-view");
  return parseviewargs(static_cast<int>(argv.size()), argv.data(), a, error);
}

struct TOOLRUN {
  int status = -1;
  std::vector<std::string> out;
  std::vector<std::string> err;
};

std::vector<std::string> readlines(const std::string& path) {
  std::ifstream f(path);
  std::vector<std::string> v;
  for (std::string l; std::getline(f, l);) v.push_back(l);
  return v;
}

TOOLRUN runtool(const std::string& args) {
  char templ[] = "/tmp/viewtoolXXXXXX";
  EXPECT_NE(mkdtemp(templ), nullptr);
  std::string dir = templ;
  std::string cmd = "'" ORVANTA_VIEW_EXE "' " + args + " >'" + dir + "/out.txt' 2>'" + dir + "/err.txt'";
  int s = system(cmd.c_str());
  TOOLRUN r;
  r.status = WIFEXITED(s) ? WEXITSTATUS(s) : -1;
  r.out = readlines(dir + "/out.txt");
  r.err = readlines(dir + "/err.txt");
  system(("rm -rf '" + dir + "'").c_str());
  return r;
}

double modulusof(const VIEWARGS& a) {
  mpf_t m;
  mpf_init2(m, 128);
  EXPECT_TRUE(viewzoommodulus(a, m));
  double d = mpf_get_d(m);
  mpf_clear(m);
  return d;
}

}  // namespace

TEST(ViewArgs, NoArgumentsMeanTheStartViewAtTheDefaultSize) {
  VIEWARGS a;
  std::string e;
  ASSERT_TRUE(parse({}, &a, &e));
  EXPECT_FALSE(a.positioned);
  EXPECT_EQ(a.width, 1024);
  EXPECT_EQ(a.height, 768);
  EXPECT_EQ(a.channels, 9u);
  EXPECT_DOUBLE_EQ(modulusof(a), 0.5);
}

TEST(ViewArgs, APositionWithAWidthOrAZoomAndAnAngle) {
  VIEWARGS a;
  std::string e;
  ASSERT_TRUE(parse({"--re", "-0.75", "--im", "0.1", "--width", "1e-10", "--angle", "45", "--size",
                     "640x480", "--threads", "5", "--channels", "0,3,5", "--timeout", "2.5"},
                    &a, &e))
      << e;
  EXPECT_TRUE(a.positioned);
  EXPECT_EQ(a.re, "-0.75");
  EXPECT_EQ(a.im, "0.1");
  EXPECT_DOUBLE_EQ(modulusof(a), 2e10);
  EXPECT_DOUBLE_EQ(a.angle, 45);
  EXPECT_EQ(a.width, 640);
  EXPECT_EQ(a.height, 480);
  EXPECT_EQ(a.nthread, 5);
  EXPECT_EQ(a.channels, 1u | 8u | 32u);
  EXPECT_DOUBLE_EQ(a.timeout, 2.5);

  VIEWARGS b;
  ASSERT_TRUE(parse({"--zoom", "3e999", "--channels", "0"}, &b, &e)) << e;
  EXPECT_TRUE(b.positioned);
  EXPECT_EQ(b.channels, 9u);  // channel 3 always
  mpf_t m;
  mpf_init2(m, 128);
  ASSERT_TRUE(viewzoommodulus(b, m));
  long ex;
  double d = mpf_get_d_2exp(&ex, m);
  EXPECT_NEAR(std::log2(d) + ex, 999 * std::log2(10.0) + std::log2(3.0), 1e-9);
  mpf_clear(m);

  VIEWARGS c;
  ASSERT_TRUE(parse({"--angle", "0"}, &c, &e));
  EXPECT_TRUE(c.positioned);
}

TEST(ViewArgs, BadArgumentsAreRefusedWithAReason) {
  const std::vector<std::vector<const char*>> bad = {
      {"--re", "1"},                        // without --im
      {"--width", "0"},                     // not above zero
      {"--width", "-1"},
      {"--zoom", "2", "--width", "1"},      // both
      {"--re", "1x", "--im", "0"},
      {"--size", "1024"},
      {"--size", "8x8"},
      {"--threads", "2"},
      {"--channels", "9"},
      {"--timeout", "0"},
      {"--flags", "xyz"},
      {"--bogus", "1"},
      {"--re"},
      {"stray"},
  };
  for (const auto& args : bad) {
    VIEWARGS a;
    std::string e;
    EXPECT_FALSE(parse(args, &a, &e)) << args[0];
    EXPECT_FALSE(e.empty());
    EXPECT_EQ(e.find('\n'), std::string::npos);
  }
}

TEST(ViewTool, ABadArgumentGivesOneUsageLineAndStatusTwo) {
  TOOLRUN r = runtool("--width nothing");
  EXPECT_EQ(r.status, 2);
  ASSERT_EQ(r.err.size(), 1u);
  EXPECT_NE(r.err[0].find("usage: orvanta-view"), std::string::npos);
  EXPECT_TRUE(r.out.empty());
}

TEST(ViewTool, ASmallViewRunsToItsFinishingEventAndExitsZero) {
  TOOLRUN r = runtool("--size 128x96 --timeout 300");
  EXPECT_EQ(r.status, 0);
  ASSERT_FALSE(r.out.empty());
  EXPECT_EQ(r.out.back().rfind("event: VPCALLBACK_FINISH ", 0), 0u) << r.out.back();
  int status = 0;
  for (const std::string& l : r.out) {
    bool known = l.rfind("status: ", 0) == 0 || l.rfind("event: ", 0) == 0;
    EXPECT_TRUE(known) << l;
    status += l.rfind("status: ", 0) == 0;
  }
  EXPECT_GE(status, 1);
  // A general realm: the status line lists the view's environment.
  EXPECT_NE(r.out[r.out.size() - 2].find("| "), std::string::npos) << r.out[r.out.size() - 2];
}

TEST(ViewTool, ATimeoutBeforeTheViewIsCompleteGivesStatusThree) {
  // Deep and wide: far more than a millisecond of work.
  TOOLRUN r = runtool("--re 0 --im 1 --width 1e-30 --size 1024x768 --timeout 0.001");
  EXPECT_EQ(r.status, 3);
  for (const std::string& l : r.out) EXPECT_EQ(l.rfind("event: VPCALLBACK_FINISH", 0), std::string::npos);
}
