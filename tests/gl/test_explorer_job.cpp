// The frame loop's output job: stepped until it is over, the close question
// asked once per job, and the files of a job the user stopped removed. The
// jobs here are made by the test: each counts its steps and ends when told
// or when stopped.
#include <gtest/gtest.h>

#include "glcontext.h"
// after the loader
#include <unistd.h>

#include <deque>
#include <fstream>
#include <string>

#include "app.h"
#include "filejob.h"

namespace {

struct TESTJOB : FILEJOB {
  int steps = 0;
  int laststep = 1000;  // over after this many steps, unless stopped first
  int finished = 0;
};

bool teststep(FILEJOB* job) {
  auto* t = static_cast<TESTJOB*>(job);
  if (t->stop) return false;
  return ++t->steps < t->laststep;
}

void testfinish(FILEJOB* job) { static_cast<TESTJOB*>(job)->finished++; }

// The user's answers, in order; each question takes one.
std::deque<bool> answers;
int questions = 0;
std::string lastquestion;

bool answer(const char* caption, const char* text) {
  questions++;
  lastquestion = std::string(caption) + "|" + text;
  bool yes = answers.empty() ? true : answers.front();
  if (!answers.empty()) answers.pop_front();
  return yes;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

class FileJob : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ready = gltest::open(); }
  static void TearDownTestSuite() { gltest::close(); }
  void SetUp() override {
    ASSERT_TRUE(ready) << "no GLFW window (run under xvfb-run)";
    window = gltest::window;
    glfwSetWindowShouldClose(window, 0);
    askyesno = answer;
    answers.clear();
    questions = 0;
    fr = nullptr;
    char pattern[] = "/tmp/orvanta-jobtest-XXXXXX";
    dir = mkdtemp(pattern);
  }
  void TearDown() override {
    fr = nullptr;
    std::system(("rm -rf '" + dir + "'").c_str());
  }
  // A job with two output files already written.
  void start(TESTJOB* job) {
    job->step = teststep;
    job->finish = testfinish;
    for (const char* name : {"/a.ov", "/a.jpg"}) {
      job->outputs.push_back(dir + name);
      std::ofstream(dir + name) << "x";
    }
    fr = job;
  }
  // The user closes the window and a frame's turn begins.
  bool close() {
    glfwSetWindowShouldClose(window, 1);
    return closerequested();
  }
  static inline bool ready = false;
  std::string dir;
};

TEST_F(FileJob, WithoutAJobACloseEndsTheLoopUnasked) {
  EXPECT_FALSE(closerequested());
  EXPECT_TRUE(close());
  EXPECT_EQ(questions, 0);
}

TEST_F(FileJob, ClosingDuringAJobAsksOncePerJob) {
  TESTJOB job;
  start(&job);
  // No: the close is taken back and the job goes on.
  answers = {false, true};
  EXPECT_FALSE(close());
  EXPECT_EQ(questions, 1);
  EXPECT_EQ(lastquestion, "Orvanta|Fractal saving/rendering is still in progress. Exit anyway?");
  EXPECT_FALSE(glfwWindowShouldClose(window));
  EXPECT_FALSE(job.stop);
  EXPECT_FALSE(closerequested());
  stepjob();
  EXPECT_EQ(job.steps, 1);
  EXPECT_EQ(fr, &job);
  // Yes: the job is stopped, the close stands, the loop goes on.
  EXPECT_FALSE(close());
  EXPECT_EQ(questions, 2);
  EXPECT_TRUE(job.stop);
  EXPECT_TRUE(glfwWindowShouldClose(window));
  // Further turns and further closes ask no more while the job ends.
  EXPECT_FALSE(closerequested());
  EXPECT_FALSE(close());
  EXPECT_EQ(questions, 2);
  stepjob();
  EXPECT_EQ(fr, nullptr);
  EXPECT_EQ(job.finished, 1);
  // A stopped job's files go with it.
  EXPECT_FALSE(exists(job.outputs[0]));
  EXPECT_FALSE(exists(job.outputs[1]));
  EXPECT_TRUE(closerequested());
  EXPECT_EQ(questions, 2);
}

TEST_F(FileJob, EachJobIsAskedAboutItsOwnClose) {
  TESTJOB first;
  first.laststep = 2;
  start(&first);
  answers = {false};
  EXPECT_FALSE(close());
  EXPECT_EQ(questions, 1);
  stepjob();
  stepjob();
  EXPECT_EQ(fr, nullptr);
  TESTJOB second;
  start(&second);
  answers = {false};
  EXPECT_FALSE(close());
  EXPECT_EQ(questions, 2);
  EXPECT_FALSE(second.stop);
}

TEST_F(FileJob, AJobThatEndsByItselfKeepsItsFiles) {
  TESTJOB job;
  job.laststep = 3;
  start(&job);
  stepjob();
  stepjob();
  EXPECT_EQ(fr, &job);
  EXPECT_EQ(job.finished, 0);
  stepjob();
  EXPECT_EQ(fr, nullptr);
  EXPECT_EQ(job.steps, 3);
  EXPECT_EQ(job.finished, 1);
  EXPECT_TRUE(exists(job.outputs[0]));
  EXPECT_TRUE(exists(job.outputs[1]));
  // Nothing to step afterwards.
  stepjob();
  EXPECT_EQ(job.steps, 3);
  EXPECT_EQ(questions, 0);
}

}  // namespace
