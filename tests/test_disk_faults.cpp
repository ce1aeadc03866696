// Disk and file-system faults: a temporary directory that is missing or not writable, a disk
// that fills while the store lays out a file or while the orthogonal and shortened mode files
// are written (a file-size limit in a forked child), and an output path in a missing directory.
// Each must fail with its message and status 1, and leave no file behind.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "host/krx_fortran.h"
#include "krx/krx.h"
#include "model/krxtools.h"
#include "testsupport.h"

namespace {

namespace fs = std::filesystem;

struct DiskFaults : ::testing::Test {
  krxtest::RecordingHost host{1};
  krxtest::TempDir dir;
  const char *given_tmp = std::getenv("TMP");
  std::string saved_tmp = given_tmp ? given_tmp : "";
  void SetUp() override {
    for (const char *name : {"QOR_TMP_MOD", "QOR_TMP_STR", "QOR_TMP_STN"}) unsetenv(name);
  }
  void TearDown() override {
    krxtest::terminate_model();
    if (saved_tmp.empty()) unsetenv("TMP");
    else setenv("TMP", saved_tmp.c_str(), 1);
  }
  void use_temp_dir(const fs::path &path) { setenv("TMP", path.c_str(), 1); }
  bool has_error_starting(const std::string &start) const {
    for (const std::string &text : host.texts(3))
      if (text.rfind(start, 0) == 0) return true;
    return false;
  }
};

int set_one_mode(int nodes, int modes) {
  krxtest::create_model(nodes, modes);
  int status = 0, mode = 1, id = 7;
  double v[6] = {1, 2, 3, 4, 5, 6};
  KRX_SET_MODE_SHAPE_VEC(&mode, &id, v, &status);
  return status;
}

TEST_F(DiskFaults, MissingTemporaryDirectoryFailsTheFirstVector) {
  use_temp_dir(dir.file("missing"));
  EXPECT_EQ(1, set_one_mode(10, 2));
  EXPECT_TRUE(has_error_starting("Unable to open temporary mode shape file " + dir.file("missing") + "/krx_"));
  EXPECT_FALSE(fs::exists(dir.file("missing")));
}

TEST_F(DiskFaults, ReadOnlyTemporaryDirectoryFailsTheFirstVector) {
  fs::create_directory(dir.file("locked"));
  fs::permissions(dir.file("locked"), fs::perms::owner_read | fs::perms::owner_exec);
  std::ofstream probe(dir.file("locked") + "/probe");
  bool writable = probe.good();
  probe.close();
  if (writable) {
    fs::permissions(dir.file("locked"), fs::perms::owner_all);
    GTEST_SKIP() << "this user writes into read-only directories (root); the missing directory covers the message";
  }
  use_temp_dir(dir.file("locked"));
  EXPECT_EQ(1, set_one_mode(10, 2));
  EXPECT_TRUE(has_error_starting("Unable to open temporary mode shape file "));
  fs::permissions(dir.file("locked"), fs::perms::owner_all);
  EXPECT_TRUE(fs::is_empty(dir.file("locked")));
}

TEST_F(DiskFaults, OutputInMissingDirectoryFailsTheWrite) {
  use_temp_dir(dir.path);
  ASSERT_EQ(0, set_one_mode(4, 1));
  const std::string out = dir.file("missing/out.krx");
  EXPECT_EQ(1, krxtest::write_krx(out));
  EXPECT_TRUE(host.has(3, "Unable to open " + out + " for write. Please check write permissions."));
  EXPECT_FALSE(fs::exists(dir.file("missing")));
}

// Runs body in a child (the child's exit status is body's result). Files may not grow past
// limit_bytes once body calls limit_files; SIGXFSZ is ignored, so such a write fails with EFBIG.
rlim_t limit_bytes = 0;
void limit_files() {
  rlimit r{limit_bytes, limit_bytes};
  setrlimit(RLIMIT_FSIZE, &r);
}

int in_child(rlim_t limit, int (*body)(const char *), const char *arg) {
  limit_bytes = limit;
  pid_t pid = fork();
  if (pid == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    _exit(body(arg));
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

bool said(const krxtest::RecordingHost &host, const std::string &start) {
  for (const std::string &text : host.texts(3))
    if (text.rfind(start, 0) == 0) return true;
  return false;
}

// Child bodies: exit 0 when the failure came with its message and status 1.
int lay_out_on_full_disk(const char *) {
  krxtest::RecordingHost host{1};
  limit_files();
  int status = set_one_mode(2000, 10);  // 960,000 bytes to lay out
  bool told = said(host, "Insufficient disk space for temporary mode shape file");
  krxtest::terminate_model();
  return status == 1 && told ? 0 : 1;
}

// A model of 300 nodes and 4 modes whose generalized mass is not unit (so the write makes an
// orthogonal mode file of 57,600 bytes), faces on the first 40 nodes only (so full_invar shortens
// the files to 7,680 bytes).
int build_chain() {
  int status = 0, failed = 0, nodes = 300, modes = 4;
  KRX_CREATE(&nodes, &modes, &status);
  for (int n = 0; n < nodes; ++n) {
    int id = n + 1;
    double xyz[3] = {double(n), 0.01 * n * n, 0.0}, mass = 1.0;
    KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status), failed |= status;
    KRX_SET_NODAL_MASS(&id, &mass, &status), failed |= status;
    for (int m = 1; m <= modes; ++m) {
      double v[6] = {0.01 * n * m, 0.5 * m, 0.001 * n * n, 0.0, 0.0, 0.001 * n};
      KRX_SET_MODE_SHAPE_VEC(&m, &id, v, &status), failed |= status;
    }
  }
  for (int m = 1; m <= modes; ++m) {
    double g = 2.0, k = 2.0 * (m * 40.0) * (m * 40.0);
    KRX_SET_GENERALIZED_MASS(&m, &m, &g, &status), failed |= status;
    KRX_SET_GENERALIZED_STIFFNESS(&m, &m, &k, &status), failed |= status;
  }
  for (int f = 0; f < 10; ++f) {
    int four = 4, ids[4] = {1 + 4 * f, 2 + 4 * f, 3 + 4 * f, 4 + 4 * f};
    KRX_SET_FACE(&four, ids, &status), failed |= status;
  }
  return failed;
}

// The store's file is laid out and written before the limit; then the first file of the write that passes
// the limit fails it.
int write_on_full_disk(const char *out) {
  krxtest::RecordingHost host{1};
  if (build_chain() != 0 || !krx::flush_vector_store(krx::current_model(), krx::kModeShapes)) return 2;
  limit_files();
  int status = krxtest::write_krx(out);
  bool told = said(host, "Insufficient disk space for file");
  krxtest::terminate_model();
  if (!told) {
    for (const std::string &text : host.texts(3)) std::fprintf(stderr, "child heard: %s\n", text.c_str());
  }
  return status == 1 && told && !fs::exists(out) ? 0 : 1;
}

TEST_F(DiskFaults, DiskFillingWhileTheStoreLaysOutAFile) {
  use_temp_dir(dir.path);
  EXPECT_EQ(0, in_child(100000, lay_out_on_full_disk, nullptr));
  EXPECT_TRUE(fs::is_empty(dir.path));
}

TEST_F(DiskFaults, DiskFillingWhileTheOrthogonalModeFileIsWritten) {
  use_temp_dir(dir.path);
  krxtest::OptionsGuard options("no_xdr");
  const std::string out = dir.file("out.krx");
  EXPECT_EQ(0, in_child(30000, write_on_full_disk, out.c_str()));
  EXPECT_TRUE(fs::is_empty(dir.path));
}

TEST_F(DiskFaults, DiskFillingWhileTheShortenedModeFileIsWritten) {
  use_temp_dir(dir.path);
  krxtest::OptionsGuard options("no_ortho full_invar no_xdr");
  const std::string out = dir.file("out.krx");
  EXPECT_EQ(0, in_child(5000, write_on_full_disk, out.c_str()));
  EXPECT_TRUE(fs::is_empty(dir.path));
}

}  // namespace
