// orvanta-tile as a program: its answer to bad arguments, the files it
// writes, and the JSON line that places their pixels.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "tiletest.h"

using namespace tiletest;

namespace {

struct RUN {
  int status = -1;
  std::string out, err;
};

std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// Runs the tool with `args` (already quoted for the shell) in a directory of
// its own.
RUN runtool(const std::string& dir, const std::string& args) {
  RUN r;
  std::string cmd = "cd '" + dir + "' && '" ORVANTA_TILE_EXE "' " + args + " >out.txt 2>err.txt";
  int s = system(cmd.c_str());
  r.status = WIFEXITED(s) ? WEXITSTATUS(s) : -1;
  r.out = slurp(dir + "/out.txt");
  r.err = slurp(dir + "/err.txt");
  return r;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> v;
  std::stringstream s(text);
  for (std::string l; std::getline(s, l);) v.push_back(l);
  return v;
}

class TileTool : public ::testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/tiletoolXXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir = templ;
  }
  void TearDown() override { system(("rm -rf '" + dir + "'").c_str()); }
  std::string dir;
};

TEST_F(TileTool, BadArgumentsGiveTheReasonAndTheUsageOnOneLineAndExitCode2) {
  const char* bad[] = {
      "",
      "--depth 3 --re 0 --im 0",
      "--depth 3 --re 0 --im 0 --out",
      "--depth -1 --re 0 --im 0 --out x",
      "--depth 3 --re 0.5.1 --im 0 --out x",
      "--depth 3 --re 0 --im 1e --out x",
      "--depth 3 --re 0 --im 0 --out x --format quad",
      "--depth 3 --re 0 --im 0 --out x --channels 9",
      "--depth 3 --re 0 --im 0 --out x --flags zz",
      "--depth 3 --re 0 --im 0 --out x --julia-re 1",
      "--depth 3 --re 0 --im 0 --out x --colour red",
  };
  for (const char* a : bad) {
    RUN r = runtool(dir, a);
    EXPECT_EQ(r.status, 2) << a;
    EXPECT_TRUE(r.out.empty()) << a;
    std::vector<std::string> l = lines(r.err);
    ASSERT_EQ(l.size(), 1u) << a << "\n" << r.err;
    EXPECT_EQ(l[0].rfind("orvanta-tile: ", 0), 0u) << a;
    const std::string usage = TILEUSAGE;
    ASSERT_GT(l[0].size(), usage.size()) << a;
    EXPECT_EQ(l[0].substr(l[0].size() - usage.size()), usage) << a;
    struct stat st;
    EXPECT_NE(stat((dir + "/x.ch3.f32").c_str(), &st), 0) << a;
  }
}

TEST_F(TileTool, APointOutsideTheRealmIsRefusedWithExitCode2) {
  RUN r = runtool(dir, "--depth 3 --re 9 --im 0 --out x");
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(r.out.empty());
  EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
}

TEST_F(TileTool, ARunWritesItsChannelsAndOneLineThatPlacesThePixels) {
  const TILESPOT& spot = BOUNDARYTILES[3];  // seahorse valley, depth 10
  RUN r = runtool(dir, std::string("--depth 10 --re ") + spot.re + " --im " + spot.im +
                           " --channels 0,3,8 --out t");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(r.err.empty()) << r.err;
  std::vector<std::string> l = lines(r.out);
  ASSERT_EQ(l.size(), 1u) << r.out;
  const std::string& json = l[0];
  EXPECT_EQ(jsonfield(json, "depth"), "10");
  EXPECT_EQ(jsonfield(json, "format"), "double");
  for (int ch = 0; ch < 9; ch++) {
    struct stat st;
    bool asked = ch == 0 || ch == 3 || ch == 8;
    int missing = stat((dir + "/t.ch" + std::to_string(ch) + ".f32").c_str(), &st);
    EXPECT_EQ(missing == 0, asked) << ch;
    if (asked && !missing) {
      EXPECT_EQ(st.st_size, 262144) << ch;
    }
  }
  std::string raw = slurp(dir + "/t.ch3.f32");
  ASSERT_EQ(raw.size(), 262144u);
  std::vector<float> count(TILEPIXELS);
  memcpy(count.data(), raw.data(), raw.size());

  // The figures add up to the tile.
  int escaped = 0, interior = 0, unknown = 0;
  for (float v : count) (v > 0 ? escaped : v < 0 ? interior : unknown)++;
  EXPECT_EQ(jsonfield(json, "escaped"), std::to_string(escaped));
  EXPECT_EQ(jsonfield(json, "interior"), std::to_string(interior));
  EXPECT_EQ(jsonfield(json, "unknown"), std::to_string(unknown));
  EXPECT_GT(atoll(jsonfield(json, "iterations").c_str()), 0);
  EXPECT_GT(atoll(jsonfield(json, "vertices_iterated").c_str()), 0);

  // The corner holds the point, one area side below it at most, and is a
  // multiple of the side away from the realm's top corner.
  std::string cre = jsonfield(json, "corner_re"), cim = jsonfield(json, "corner_im");
  mpq_t corner, point, side, top, t;
  mpq_inits(corner, point, side, top, t, nullptr);
  mpq_set_ui(side, 1, 1u << 6);  // 2^(4 - 10)
  mpq_set_d(top, -7.989964666666666);
  for (int k = 0; k < 2; k++) {
    ASSERT_TRUE(parsedecimal(k ? cim : cre, corner));
    parsedecimal(k ? spot.im : spot.re, point);
    mpq_sub(t, point, corner);
    EXPECT_GE(mpq_sgn(t), 0) << k;
    EXPECT_LT(mpq_cmp(t, side), 0) << k;
    mpq_sub(t, corner, top);
    mpq_div(t, t, side);
    EXPECT_EQ(mpz_cmp_ui(mpq_denref(t), 1), 0) << k;
  }
  mpq_clears(corner, point, side, top, t, nullptr);

  // Pixels recomputed from the corner: a few with low, certain counts.
  PLACE place(cre, cim, 10);
  int checked = 0;
  for (int p = 0; p < TILEPIXELS && checked < 16; p += 4099) {
    int x = p % TEXTURESIZE, y = p / TEXTURESIZE;
    int64_t b = bruteforcecount<long double>(place.re(x), place.im(y), 100000);
    if (b < 0 || b > 500) continue;
    EXPECT_EQ(count[p], static_cast<float>(b)) << x << "," << y;
    checked++;
  }
  EXPECT_GE(checked, 8);
  // Half a pixel off would be a different picture: the same pixels one step
  // over differ from the tile somewhere.
  int shifted = 0;
  for (int y = 0; y < TEXTURESIZE; y += 17) {
    for (int x = 0; x + 1 < TEXTURESIZE; x += 13) {
      int64_t b = bruteforcecount<long double>(place.at(0, x + 1.0), place.im(y), 100000);
      shifted += b >= 0 && count[y * TEXTURESIZE + x] != static_cast<float>(b);
    }
  }
  EXPECT_GT(shifted, 0);
  // Channel 0 is channel 3 scaled.
  std::string raw0 = slurp(dir + "/t.ch0.f32");
  ASSERT_EQ(raw0.size(), 262144u);
  std::vector<float> iter(TILEPIXELS);
  memcpy(iter.data(), raw0.data(), raw0.size());
  for (int p = 0; p < TILEPIXELS; p += 97) EXPECT_EQ(iter[p], count[p] * CHANNELITERSCALE) << p;
}

// `--format` forces the realm's number format, and the JSON line names the
// format the job used.
TEST_F(TileTool, FormatOptionChoosesTheFormat) {
  RUN r = runtool(dir, "--depth 6 --re -0.745 --im 0.11 --format float --out f");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(jsonfield(r.out, "format"), "float");
}

}  // namespace
