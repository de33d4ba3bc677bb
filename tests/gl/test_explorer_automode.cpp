// Auto mode's share of the frame loop, on the virtual clock: which files it
// chooses from, when it opens one and when the next follows. The opener is
// the test's: it records the path and the lock it was called under.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "app.h"
#include "automode.h"

namespace {

std::vector<std::string> opened;
bool lockedwhileopening = false, startmarkedwhileopening = true;

bool recordopen(const char* path) {
  opened.push_back(path);
  lockedwhileopening = lock;
  startmarkedwhileopening = automodestart;
  return true;
}

class AutoMode : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/orvanta-autotest-XXXXXX";
    dir = mkdtemp(pattern);
    paths.autofiles = dir;
    settings.startautomode = 120;
    autoopenjson = recordopen;
    opened.clear();
    view = std::make_unique<VIEWPORT>();
    vp = view.get();
    vp->nav_moving = false;
    mode = 0;
    automode = automodestart = lock = false;
    _curtime = 1000;
    lastaction = 1000;
  }
  void TearDown() override {
    vp = nullptr;
    autoopenjson = nullptr;
    mode = 1;
    std::system(("rm -rf '" + dir + "'").c_str());
  }
  void write(const std::string& name) { std::ofstream(dir + "/" + name) << "{}"; }
  // The virtual clock moved on by `seconds`, then a frame's step.
  void after(double seconds) {
    _curtime = _curtime + seconds;
    automodestep();
  }
  std::string dir;
  std::unique_ptr<VIEWPORT> view;
};

TEST_F(AutoMode, TheFilesAreTheFoldersJsonFilesByName) {
  for (const char* name : {"b.json", "a.json", "c.txt", "d.json.bak", ".json"}) write(name);
  EXPECT_EQ(autofilelist(dir), (std::vector<std::string>{dir + "/a.json", dir + "/b.json"}));
  EXPECT_TRUE(autofilelist(dir + "/missing").empty());
}

TEST_F(AutoMode, TheDrawIsScaledToTheCount) {
  EXPECT_EQ(autoindex(0, 3, 100), 0);
  EXPECT_EQ(autoindex(33, 3, 100), 0);
  EXPECT_EQ(autoindex(34, 3, 100), 1);
  EXPECT_EQ(autoindex(67, 3, 100), 2);
  // The top of the range would be one past the list: the last file.
  EXPECT_EQ(autoindex(100, 3, 100), 2);
  EXPECT_EQ(autoindex(2147483647, 1, 2147483647), 0);
  EXPECT_EQ(autoindex(5, 0, 100), 0);
}

TEST_F(AutoMode, AnIdleUserInModeZeroGetsAFileOfTheFolder) {
  write("one.json");
  write("two.json");
  after(120);  // idle exactly the time: not yet
  EXPECT_TRUE(opened.empty());
  EXPECT_FALSE(automode);
  after(0.25);
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_TRUE(opened[0] == dir + "/one.json" || opened[0] == dir + "/two.json") << opened[0];
  EXPECT_TRUE(automode);
  EXPECT_DOUBLE_EQ(lastaction, _curtime);
  // Locked while it opened, unlocked and marked started afterwards.
  EXPECT_TRUE(lockedwhileopening);
  EXPECT_FALSE(startmarkedwhileopening);
  EXPECT_FALSE(lock);
  EXPECT_TRUE(automodestart);
}

TEST_F(AutoMode, NotInModeOne) {
  write("one.json");
  mode = 1;
  after(1000);
  EXPECT_TRUE(opened.empty());
  EXPECT_FALSE(automode);
}

TEST_F(AutoMode, TheNextFileFollows15SecondsAfterTheViewStandsStill) {
  write("one.json");
  after(121);
  ASSERT_EQ(opened.size(), 1u);
  double start = _curtime;
  // Still flying after its time: the show waits for the view.
  vp->nav_moving = true;
  after(121);
  EXPECT_TRUE(automode);
  EXPECT_EQ(opened.size(), 1u);
  vp->nav_moving = false;
  after(1);
  EXPECT_FALSE(automode);
  EXPECT_DOUBLE_EQ(lastaction, start + 122 + 15 - 120);
  EXPECT_EQ(opened.size(), 1u);
  after(14.5);
  EXPECT_EQ(opened.size(), 1u);
  after(1);
  EXPECT_EQ(opened.size(), 2u);
  EXPECT_TRUE(automode);
}

TEST_F(AutoMode, NothingHappensWithoutFilesOrWithoutAnOpener) {
  after(500);
  EXPECT_TRUE(opened.empty());
  EXPECT_FALSE(automode);
  write("one.json");
  autoopenjson = nullptr;
  after(500);
  EXPECT_FALSE(automode);
  EXPECT_FALSE(lock);
}

TEST_F(AutoMode, EveryFileIsChosenSometimes) {
  for (const char* name : {"a.json", "b.json", "c.json"}) write(name);
  srand(7);
  for (int i = 0; i < 60; i++) {
    automode = false;
    lastaction = _curtime - 200;
    automodestep();
  }
  ASSERT_EQ(opened.size(), 60u);
  for (const char* name : {"/a.json", "/b.json", "/c.json"})
    EXPECT_GT(std::count(opened.begin(), opened.end(), dir + name), 5) << name;
}

}  // namespace
