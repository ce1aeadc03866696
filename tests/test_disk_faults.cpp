// Disk and file-system faults: a temporary directory that is missing, a disk that
// fills (a file-size limit in a forked child) while the store lays out a file, while the write
// makes its orthogonal or shortened mode file or while it writes the output over an earlier one,
// and an output path in a missing or locked directory or naming a locked file. Each must fail with
// its message and status 1, leave no file behind, and leave an earlier output as it was.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "host/krx_fortran.h"
#include "model/krxtools.h"
#include "testsupport.h"

namespace {

namespace fs = std::filesystem;

// The names in a directory.
std::set<std::string> listing(const std::string &directory) {
  std::set<std::string> names;
  for (const auto &entry : fs::directory_iterator(directory)) names.insert(entry.path().filename().string());
  return names;
}

bool said(const krxtest::RecordingHost &host, const std::string &start) {
  for (const std::string &text : host.texts(3))
    if (text.starts_with(start)) return true;
  return false;
}

int set_one_mode(int nodes, int modes) {
  krxtest::create_model(nodes, modes);
  int status = 0, mode = 1, id = 7;
  double v[6] = {1, 2, 3, 4, 5, 6};
  KRX_SET_MODE_SHAPE_VEC(&mode, &id, v, &status);
  return status;
}

struct DiskFaults : ::testing::Test {
  krxtest::RecordingHost host{1};
  krxtest::TempDir dir;
  krxtest::EnvGuard tmp{"TMP", dir.path.c_str()};
  void SetUp() override { krxtest::unset_store_names(); }
  void TearDown() override { krxtest::terminate_model(); }
};

// A temporary directory that does not exist fails the first vector and is not made.
TEST_F(DiskFaults, MissingTemporaryDirectoryFailsTheFirstVector) {
  const std::string missing = dir.file("missing");
  krxtest::EnvGuard in{"TMP", missing.c_str()};
  EXPECT_EQ(1, set_one_mode(10, 2));
  EXPECT_TRUE(said(host, "Unable to open temporary mode shape file " + missing + "/krx_"));
  EXPECT_FALSE(fs::exists(missing));
}

// A model of 300 nodes and 4 modes whose generalized mass is not unit (so the write makes an
// orthogonal mode file of 57,600 bytes), faces on the first 40 nodes only (so full_invar shortens
// the files to 7,680 bytes).
int build_chain() {
  int status = 0, failed = 0, nodes = 300, modes = 4, four = 4;
  KRX_CREATE(&nodes, &modes, &status);
  for (int id = 1; id <= nodes; ++id) {
    double n = id - 1, xyz[3] = {n, 0.01 * n * n, 0.0}, mass = 1.0;
    KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status), failed |= status;
    KRX_SET_NODAL_MASS(&id, &mass, &status), failed |= status;
    for (int m = 1; m <= modes; ++m) {
      double v[6] = {0.01 * n * m, 0.5 * m, 0.001 * n * n, 0.0, 0.0, 0.001 * n};
      KRX_SET_MODE_SHAPE_VEC(&m, &id, v, &status), failed |= status;
    }
  }
  for (int m = 1; m <= modes; ++m) {
    double g = 2.0, k = 3200.0 * m * m;
    KRX_SET_GENERALIZED_MASS(&m, &m, &g, &status), failed |= status;
    KRX_SET_GENERALIZED_STIFFNESS(&m, &m, &k, &status), failed |= status;
  }
  for (int f = 0; f < 10; ++f) {
    int ids[4] = {1 + 4 * f, 2 + 4 * f, 3 + 4 * f, 4 + 4 * f};
    KRX_SET_FACE(&four, ids, &status), failed |= status;
  }
  return failed;
}

TEST_F(DiskFaults, DiskFillingFailsTheFileBeingWrittenAndLeavesNothing) {
  struct {
    const char *what, *options;
    rlim_t limit;
    bool write;  // else the store lays out its first file past the limit
    const char *message;
  } const cases[] = {
      {"store", nullptr, 100000, false, "Insufficient disk space for temporary mode shape file"},
      {"orthogonal", "no_xdr", 30000, true, "Insufficient disk space for file"},
      {"shortened", "no_ortho full_invar no_xdr", 5000, true, "Insufficient disk space for file"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    krxtest::OptionsGuard options(c.options);
    // The child answers 0 when the file that passes the limit fails with its message and status 1.
    // A write flushes the store first, so that only the write's own file can pass the limit.
    EXPECT_EQ(0, krxtest::in_child([&] {
      krxtest::RecordingHost child{1};
      if (c.write && (build_chain() != 0 || !krx::flush_vector_store(krx::current_model(), krx::kModeShapes)))
        return 2;
      rlimit r{c.limit, c.limit};
      setrlimit(RLIMIT_FSIZE, &r);
      int status = c.write ? krxtest::write_krx(dir.file("out.krx")) : set_one_mode(2000, 10);  // 960,000 bytes
      bool told = said(child, c.message);
      krxtest::terminate_model();  // removes the store's files, which the parent expects gone
      return status == 1 && told ? 0 : 1;
    }));
    EXPECT_TRUE(fs::is_empty(dir.path));
  }
}

// The disk fills while the write replaces an earlier output (half way through, where a fresh path
// fails as well and leaves nothing), or only at the final flush of a small native file that fits
// the stream's buffer: the write fails with its message and the earlier file stays as it was.
TEST_F(DiskFaults, DiskFillingWhileReplacingAnOutputKeepsTheEarlierFile) {
  for (bool at_flush : {false, true}) {
    SCOPED_TRACE(at_flush ? "final flush" : "half way");
    krxtest::OptionsGuard options(at_flush ? "no_ortho no_xdr" : "no_ortho");
    const std::string out_dir = dir.file(at_flush ? "small" : "part"), out = out_dir + "/out.krx";
    fs::create_directory(out_dir);
    ASSERT_EQ(0, at_flush ? set_one_mode(4, 1) : build_chain());
    ASSERT_EQ(0, krxtest::write_krx(out));
    const std::vector<char> before = krxtest::file_bytes(out);
    ASSERT_TRUE(!at_flush || before.size() < 4096u);
    EXPECT_EQ(0, krxtest::in_child([&] {
      krxtest::RecordingHost child{1};
      const rlim_t limit = at_flush ? 64 : rlim_t(before.size() / 2);
      const rlimit r{limit, limit};
      setrlimit(RLIMIT_FSIZE, &r);
      const bool fresh = at_flush || krxtest::write_krx(out_dir + "/fresh.krx") == 1;
      const int status = krxtest::write_krx(out);
      const bool told = at_flush ? child.has(3, "Problem writing " + out + ": File too large") : said(child, "Problem writing ");
      return status == 1 && fresh && told ? 0 : 1;
    }));
    EXPECT_EQ(krxtest::file_bytes(out), before);
    EXPECT_EQ(listing(out_dir), std::set<std::string>{"out.krx"});
    krxtest::terminate_model();
  }
}

// A directory that may not be written, and an existing file that may not be written in a
// directory that may: the open-failure message, nothing made, the file as it was. A root user
// writes anything; its child drops to the unprivileged user to be refused.
TEST_F(DiskFaults, OutputThatMayNotBeWrittenIsRefusedAndKeptAsItWas) {
  ASSERT_EQ(0, set_one_mode(4, 1));
  const std::string locked = dir.file("locked"), open = dir.file("open");
  const std::string kept = open + "/kept.krx";
  fs::create_directory(locked);
  fs::create_directory(open);
  std::ofstream(kept) << "an earlier export";
  chmod(dir.path.c_str(), 0755);
  chmod(locked.c_str(), 0555);
  chmod(open.c_str(), 0777);
  chmod(kept.c_str(), 0444);
  // The child answers 0 when both writes failed with the message, 77 when it could not be refused.
  int answer = krxtest::in_child([&] {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 77;
    if (access(locked.c_str(), W_OK) == 0 || access(kept.c_str(), W_OK) == 0) return 77;
    krxtest::RecordingHost child{1};
    int refused = 0;
    for (const std::string &path : {locked + "/out.krx", kept}) {
      child.clear();
      refused += krxtest::write_krx(path) == 1 &&
                 child.texts(3) == std::vector<std::string>{"Unable to open " + path +
                                                            " for write. Please check write permissions."};
    }
    return refused == 2 ? 0 : 1;
  });
  chmod(locked.c_str(), 0755);
  if (answer == 77) GTEST_SKIP() << "this user cannot be refused a write";
  EXPECT_EQ(0, answer);
  EXPECT_TRUE(fs::is_empty(locked));
  EXPECT_EQ(listing(open), std::set<std::string>{"kept.krx"});
  std::vector<char> text = krxtest::file_bytes(kept);
  EXPECT_EQ(std::string(text.begin(), text.end()), "an earlier export");
}

}  // namespace
