// The renderer's command line: defaults, every option, the exclusive and
// paired ones, and the one-line reasons of bad arguments.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "renderargs.h"

namespace {

struct PARSED {
  bool ok;
  RENDERARGS args;
  std::string error;
};

PARSED parse(std::initializer_list<const char*> words) {
  std::vector<const char*> argv{"orvanta-render"};
  argv.insert(argv.end(), words.begin(), words.end());
  PARSED p;
  p.ok = parserenderargs(static_cast<int>(argv.size()), argv.data(), &p.args, &p.error);
  return p;
}

void expectrejected(std::initializer_list<const char*> words, const char* reasonpart) {
  PARSED p = parse(words);
  EXPECT_FALSE(p.ok) << reasonpart;
  EXPECT_NE(p.error.find(reasonpart), std::string::npos) << p.error;
  EXPECT_EQ(p.error.find('\n'), std::string::npos) << "one line: " << p.error;
}

}  // namespace

TEST(RenderArgs, OutAloneGivesTheStartViewDefaults) {
  PARSED p = parse({"--out", "x.png"});
  ASSERT_TRUE(p.ok) << p.error;
  EXPECT_FALSE(p.args.hascentre);
  EXPECT_EQ(p.args.re, "0");
  EXPECT_EQ(p.args.im, "0");
  EXPECT_TRUE(p.args.zoom.empty());
  EXPECT_TRUE(p.args.width.empty());
  EXPECT_EQ(p.args.angle, 0);
  EXPECT_EQ(p.args.w, 1920);
  EXPECT_EQ(p.args.h, 1080);
  EXPECT_EQ(p.args.scheme, "Iteration");
  EXPECT_FALSE(p.args.julia);
  EXPECT_EQ(p.args.threads, 0);
  EXPECT_FALSE(p.args.hasflags);
  EXPECT_TRUE(p.args.channelsout.empty());
  EXPECT_EQ(p.args.out, "x.png");
  EXPECT_FALSE(p.args.jpeg);
}

TEST(RenderArgs, EveryOptionIsRead) {
  PARSED p = parse({"--re", "-0.743643887037158704752191506114774", "--im",
                    "0.131825904205311970493132056385139", "--width", "1e-100", "--angle", "-30.5",
                    "--size", "640x480", "--scheme", "Distance", "--julia", "-0.8,0.156",
                    "--threads", "3", "--memory", "512", "--flags", "0x30021006", "--timeout",
                    "12.5", "--channels-out", "c.f32", "--out", "pic.JPG"});
  ASSERT_TRUE(p.ok) << p.error;
  EXPECT_TRUE(p.args.hascentre);
  // Exact text, so that no digit is lost before the engine's own numbers.
  EXPECT_EQ(p.args.re, "-0.743643887037158704752191506114774");
  EXPECT_EQ(p.args.im, "0.131825904205311970493132056385139");
  EXPECT_EQ(p.args.width, "1e-100");
  EXPECT_DOUBLE_EQ(p.args.angle, -30.5);
  EXPECT_EQ(p.args.w, 640);
  EXPECT_EQ(p.args.h, 480);
  EXPECT_EQ(p.args.scheme, "Distance");
  EXPECT_TRUE(p.args.julia);
  EXPECT_EQ(p.args.juliare, "-0.8");
  EXPECT_EQ(p.args.juliaim, "0.156");
  EXPECT_EQ(p.args.threads, 3);
  EXPECT_EQ(p.args.memory, 512);
  EXPECT_TRUE(p.args.hasflags);
  EXPECT_EQ(p.args.flags, 0x30021006u);
  EXPECT_DOUBLE_EQ(p.args.timeout, 12.5);
  EXPECT_EQ(p.args.channelsout, "c.f32");
  EXPECT_TRUE(p.args.jpeg);
}

TEST(RenderArgs, FlagsTakeHexWithOrWithoutPrefixAndZero) {
  PARSED a = parse({"--flags", "ff", "--out", "a.png"});
  ASSERT_TRUE(a.ok) << a.error;
  EXPECT_EQ(a.args.flags, 0xffu);
  PARSED z = parse({"--flags", "0", "--out", "a.png"});
  ASSERT_TRUE(z.ok) << z.error;
  EXPECT_TRUE(z.args.hasflags);
  EXPECT_EQ(z.args.flags, 0u);
  expectrejected({"--flags", "0x", "--out", "a.png"}, "--flags");
  expectrejected({"--flags", "12g", "--out", "a.png"}, "--flags");
  expectrejected({"--flags", "123456789", "--out", "a.png"}, "--flags");
}

TEST(RenderArgs, ZoomAndJpegNames) {
  PARSED p = parse({"--zoom", "1e5", "--out", "a.jpeg"});
  ASSERT_TRUE(p.ok) << p.error;
  EXPECT_EQ(p.args.zoom, "1e5");
  EXPECT_TRUE(p.args.jpeg);
  PARSED q = parse({"--out", "dir.jpg/a.PNG"});
  ASSERT_TRUE(q.ok) << q.error;
  EXPECT_FALSE(q.args.jpeg);
}

TEST(RenderArgs, OutIsRequiredAndMustBePngOrJpeg) {
  expectrejected({}, "--out is required");
  expectrejected({"--size", "10x10"}, "--out is required");
  expectrejected({"--out", "a.gif"}, ".png or .jpg");
  expectrejected({"--out", ".png"}, ".png or .jpg");
  expectrejected({"--out"}, "--out needs a value");
}

TEST(RenderArgs, CentreNeedsBothParts) {
  expectrejected({"--re", "0.25", "--out", "a.png"}, "--re and --im go together");
  expectrejected({"--im", "0.25", "--out", "a.png"}, "--re and --im go together");
}

TEST(RenderArgs, ZoomAndWidthExcludeEachOther) {
  expectrejected({"--zoom", "2", "--width", "1", "--out", "a.png"}, "exclude each other");
}

TEST(RenderArgs, NumbersAreCheckedEach) {
  expectrejected({"--re", "abc", "--im", "0", "--out", "a.png"}, "--re");
  expectrejected({"--re", "0", "--im", "1.2.3", "--out", "a.png"}, "--im");
  expectrejected({"--zoom", "0", "--out", "a.png"}, "--zoom");
  expectrejected({"--zoom", "-2", "--out", "a.png"}, "--zoom");
  expectrejected({"--width", "0e5", "--out", "a.png"}, "--width");
  expectrejected({"--angle", "ten", "--out", "a.png"}, "--angle");
  expectrejected({"--size", "1920", "--out", "a.png"}, "--size");
  expectrejected({"--size", "0x100", "--out", "a.png"}, "--size");
  expectrejected({"--size", "100x-5", "--out", "a.png"}, "--size");
  expectrejected({"--size", "20000x100", "--out", "a.png"}, "--size");
  expectrejected({"--julia", "0.3", "--out", "a.png"}, "--julia");
  expectrejected({"--julia", "0.3,x", "--out", "a.png"}, "--julia");
  expectrejected({"--threads", "0", "--out", "a.png"}, "--threads");
  expectrejected({"--threads", "2.5", "--out", "a.png"}, "--threads");
  expectrejected({"--memory", "10", "--out", "a.png"}, "--memory");
  expectrejected({"--timeout", "0", "--out", "a.png"}, "--timeout");
  expectrejected({"--timeout", "-1", "--out", "a.png"}, "--timeout");
  expectrejected({"--scheme", "", "--out", "a.png"}, "--scheme");
  expectrejected({"--channels-out", "", "--out", "a.png"}, "--channels-out");
}

TEST(RenderArgs, UnknownOptionsAndMissingValuesAreNamed) {
  expectrejected({"--colour", "red", "--out", "a.png"}, "unknown option --colour");
  expectrejected({"--out", "a.png", "--zoom"}, "--zoom needs a value");
  expectrejected({"stray", "--out", "a.png"}, "unknown option stray");
}

TEST(RenderArgs, HelpStopsParsing) {
  PARSED p = parse({"--help", "--bogus"});
  EXPECT_TRUE(p.ok);
  EXPECT_TRUE(p.args.help);
}

TEST(RenderArgs, UsageNamesEveryOption) {
  std::string usage = RENDERUSAGE;
  for (const char* o : {"--re", "--im", "--zoom", "--width", "--angle", "--size", "--scheme",
                        "--julia", "--threads", "--memory", "--flags", "--timeout",
                        "--channels-out", "--out"})
    EXPECT_NE(usage.find(o), std::string::npos) << o;
  EXPECT_EQ(usage.find('\n'), std::string::npos);
}
