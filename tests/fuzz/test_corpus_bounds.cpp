// Hostile files: every input of the read corpus (seeds written by the library and the inputs
// that once failed) is read, listed in full and compared with itself within a time bound, and
// each regression input gets the refusal it must get.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "format/krxread.h"
#include "fuzzsupport.h"
#include "inspect/krxcompare.h"
#include "inspect/krxlist.h"
#include "testsupport.h"

// Address-sanitized builds reserve a large address space and keep freed memory in quarantine:
// they get looser memory bounds and no address-space limit.
#if defined(__SANITIZE_ADDRESS__)
#define KRX_ADDRESS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KRX_ADDRESS_SANITIZED 1
#endif
#endif

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Generous against slow and sanitized machines; a regular run takes milliseconds per file.
constexpr double kSecondsPerFile = 5.0;

std::vector<uint8_t> bytes_of(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Read, list every block, compare with a second reading of itself; the seconds taken.
double exercise(const std::vector<uint8_t> &bytes) {
  static FILE *sink = std::fopen("/dev/null", "w");
  auto start = Clock::now();
  krx::KRXDATA *model = krxfuzz::read_bytes(bytes.data(), bytes.size());
  if (model) {
    krxfuzz::list_every_block(model, sink);
    krx::KRXDATA *again = krxfuzz::read_bytes(bytes.data(), bytes.size());
    if (again) {
      krx::compare_files(model, again, -1, krx::kDefaultCompareTolerance);
      krx::release_model(again);
    }
    krx::release_model(model);
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

[[maybe_unused]] long peak_kilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

struct CorpusBounds : ::testing::Test {
  krxtest::RecordingHost host{1};
  void SetUp() override { krx::set_compare_ends_process(false); }
  void TearDown() override {
    krx::set_compare_ends_process(true);
    krx::release_all_models();
  }
};

TEST_F(CorpusBounds, EveryReadInputIsReadListedAndComparedInBoundedTime) {
  int files = 0;
  for (const auto &entry : fs::directory_iterator(fs::path(KRX_CORPUS) / "read")) {
    SCOPED_TRACE(entry.path().filename().string());
    EXPECT_LT(exercise(bytes_of(entry.path())), kSecondsPerFile);
    ++files;
  }
  EXPECT_GT(files, 20);
#if !defined(KRX_ADDRESS_SANITIZED)
  EXPECT_LT(peak_kilobytes(), 256L * 1024);
#endif
}

// Each input that once kept a reader busy or misbehaved, with the message that now refuses it.
TEST_F(CorpusBounds, RegressionInputsAreRefusedWithTheBlocksMessage) {
  const struct {
    const char *file;
    const char *refusal;
  } cases[] = {
      {"regress-gen10-seven-million-modes-no-nodes.krx", "Problem encountered while caching Mode shape Data"},
      {"regress-nodal-masses-no-values-per-node.krx", "Problem reading Nodal Mass information"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.file);
    host.clear();
    std::vector<uint8_t> bytes = bytes_of(fs::path(KRX_CORPUS) / "read" / c.file);
    ASSERT_FALSE(bytes.empty());
    auto start = Clock::now();
    EXPECT_EQ(nullptr, krxfuzz::read_bytes(bytes.data(), bytes.size()));
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 1.0);
    std::vector<std::string> errors = host.texts(3);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(c.refusal, errors.back()) << "the read ends with the refusal";
  }
}

double ramp(int32_t k) { return k - 1.0; }  // 0, 1, 2, ...
double zero(int32_t) { return 0.0; }

constexpr int32_t kManyModes = 400000;  // about 19 MB: files of modes over no nodes

// Exit status, peak resident memory and seconds of a function run in a child process, so that
// the peak is the function's own. The alarm ends a run that has turned quadratic in time, the
// address-space limit one that has in memory before it takes the machine's.
#if defined(KRX_ADDRESS_SANITIZED)
constexpr long kPeakKilobytes = 1024L * 1024;
#else
constexpr long kPeakKilobytes = 256L * 1024;
constexpr rlim_t kLimitBytes = rlim_t(4) << 30;
#endif

struct ChildRun {
  int status = -1;
  long peak_kilobytes = 0;
  double seconds = 0.0;
};

ChildRun run_in_child(int (*function)(int32_t, double (*)(int32_t)), int32_t modes,
                      double (*eigenvalue)(int32_t)) {
  std::fflush(stdout);
  const auto start = Clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    alarm(300);
#if !defined(KRX_ADDRESS_SANITIZED)
    const rlimit limit{kLimitBytes, kLimitBytes};
    setrlimit(RLIMIT_AS, &limit);
#endif
    _exit(function(modes, eigenvalue));
  }
  ChildRun run;
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) != pid) return run;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.peak_kilobytes = usage.ru_maxrss;
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return run;
}

// 0 when the file compares equivalent with a second reading of itself.
int compare_with_itself(int32_t modes, double (*eigenvalue)(int32_t)) {
  krx::set_compare_ends_process(false);
  const std::vector<uint8_t> bytes = krxfuzz::modes_only_file(modes, eigenvalue, false);
  krx::KRXDATA *base = krxfuzz::read_bytes(bytes.data(), bytes.size());
  krx::KRXDATA *fresh = krxfuzz::read_bytes(bytes.data(), bytes.size());
  if (!base || !fresh) return 2;
  return krx::compare_files(base, fresh, -1, krx::kDefaultCompareTolerance) == 0 ? 0 : 1;
}

// Eigenvalues that rise by less than the tolerance from one mode to the next, or that are all
// equal, once made one eigenspace of all the modes, with work and memory the square of them.
TEST_F(CorpusBounds, ManyCloseEigenvaluesCompareInBoundedTimeAndMemory) {
  const struct {
    const char *name;
    int32_t modes;
    double (*eigenvalue)(int32_t);
  } files[] = {{"0, 1, 2, ...", kManyModes, ramp}, {"all zero", kManyModes / 4, zero}};
  for (const auto &[name, modes, eigenvalue] : files) {
    SCOPED_TRACE(name);
    const ChildRun run = run_in_child(compare_with_itself, modes, eigenvalue);
    EXPECT_EQ(0, run.status) << "equivalent to itself";
    EXPECT_LT(run.peak_kilobytes, kPeakKilobytes);
    EXPECT_LT(run.seconds, 120.0);
    std::printf("%d modes %s: %.2f s, peak %ld MB\n", modes, name, run.seconds, run.peak_kilobytes / 1024);
  }
}

}  // namespace
