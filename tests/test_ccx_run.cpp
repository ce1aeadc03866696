// ccx2krx's CalculiX runs, with small scripts standing in for CalculiX through CCX: a job that
// succeeds, one that reports *ERROR lines, one that dies silently, and a program that is missing.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "ccx2krx.h"
#include "testsupport.h"

namespace {

struct FakeCalculix {
  krxtest::TempDir dir;
  explicit FakeCalculix(const std::string &body) {
    std::string path = dir.file("ccx");
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    chmod(path.c_str(), 0755);
    setenv("CCX", path.c_str(), 1);
  }
  ~FakeCalculix() { unsetenv("CCX"); }
};

std::string log_of(const krxtest::TempDir &dir, const std::string &job) {
  std::ifstream in(dir.file(job + ".log"));
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(CcxRun, RunsEveryJobInTheWorkDirectoryWithItsLog) {
  // The script answers "-i JOB" by writing JOB.done in its working directory.
  FakeCalculix ccx("echo \"job $2\"; touch \"$2.done\"");
  krxtest::TempDir work;
  double seconds = -1.0;
  ASSERT_TRUE(ccx::run_calculix(work.path, {"modes", "matrices"}, seconds));
  EXPECT_GE(seconds, 0.0);
  for (const char *job : {"modes", "matrices"}) {
    EXPECT_TRUE(std::ifstream(work.file(std::string(job) + ".done")).good()) << job;
    EXPECT_EQ(log_of(work, job), std::string("job ") + job + "\n");
  }
}

TEST(CcxRun, FailsOnErrorLinesABadExitOrAMissingProgram) {
  krxtest::TempDir work;
  double seconds = 0.0;
  {
    // CalculiX may print *ERROR and still end with status 0.
    FakeCalculix ccx("echo ' *ERROR reading *NODE'; exit 0");
    EXPECT_FALSE(ccx::run_calculix(work.path, {"modes"}, seconds));
  }
  {
    FakeCalculix ccx("exit 201");
    EXPECT_FALSE(ccx::run_calculix(work.path, {"modes", "matrices"}, seconds));
  }
  setenv("CCX", work.file("no-such-program").c_str(), 1);
  EXPECT_FALSE(ccx::run_calculix(work.path, {"modes"}, seconds));
  unsetenv("CCX");
}

}  // namespace
