// Shortcuts never change the picture: channel 3 of a view rendered with the
// start flags (interpolation, global interpolation, bypass, Julia and
// high-precision correction) equals the one with every shortcut off on at
// least 99% of the pixels.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<float> render(const std::string& dir, const std::string& name, const std::string& args) {
  std::string f32 = dir + "/" + name + ".f32";
  std::string command = std::string(ORVANTA_RENDER_EXE) + " " + args + " --out " + dir + "/" + name +
                        ".png --channels-out " + f32 + " >/dev/null 2>" + dir + "/err";
  int status = std::system(command.c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;
  std::ifstream f(f32, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  std::string data = s.str();
  std::vector<float> v(data.size() / sizeof(float));
  if (!v.empty()) memcpy(v.data(), data.data(), v.size() * sizeof(float));
  return v;
}

class Shortcuts : public ::testing::Test {
 protected:
  std::string dir;
  void SetUp() override {
    char name[] = "/tmp/orvanta-shortcuts-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    dir = name;
  }
  void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }

  void compare(const std::string& view) {
    const std::string common = "--size 240x135 --memory 512 --timeout 600 " + view;
    std::vector<float> with = render(dir, "with", common);
    std::vector<float> without = render(dir, "without", common + " --flags 0");
    ASSERT_EQ(with.size(), size_t{240 * 135});
    ASSERT_EQ(without.size(), with.size());
    size_t same = 0, escaped = 0;
    for (size_t i = 0; i < with.size(); i++) {
      if (with[i] == without[i]) same++;
      if (without[i] > 0) escaped++;
    }
    EXPECT_GE(same, with.size() * 99 / 100);
    EXPECT_GT(escaped, with.size() / 4);  // a view with detail, not a blank one
  }
};

}  // namespace

TEST_F(Shortcuts, StartView) { compare(""); }

TEST_F(Shortcuts, ViewOfWidthOneTenBillionth) {
  compare("--re -0.743643887037151 --im 0.131825904205330 --width 1e-10");
}

// Views beyond every hardware format: perturbation against references
// from the environments' scan.
TEST_F(Shortcuts, ViewOfWidth1e100) { compare("--re 0 --im 1 --width 1e-100"); }
TEST_F(Shortcuts, ViewOfWidth1e1000) { compare("--re 0 --im 1 --width 1e-1000"); }
