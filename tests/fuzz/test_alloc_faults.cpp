// Allocation failures, walked: operator new of this program fails its k-th call while a whole
// host session runs (create, set every kind of item, write with full_invar, face stripping and
// coarsening, terminate), and again over a read-list-compare session, for k = 1, 2, 3, ... until
// a run no longer reaches the k-th allocation. Every run must end cleanly: the failing call
// returns status 1, the host hears the allocation message, no partial output file and no
// temporary file stays behind, and the sanitized build finds no error and no leak.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>

#include "counting_new.h"
#include "format/krxread.h"
#include "fuzzsupport.h"
#include "host/krx_fortran.h"
#include "inspect/krxcompare.h"
#include "inspect/krxlist.h"
#include "krx/krx.h"

namespace {

namespace fs = std::filesystem;

// The failing allocator (counting_new.cpp): armed with k, it fails the k-th allocation.
using countingnew::arm;
using countingnew::disarm;
using countingnew::failed;

// ---- a host that records without allocating ----
struct Heard {
  int errors = 0;
  bool allocation = false;  // an allocation or out-of-memory text reached the error callback
  char first[256] = {};
};
Heard heard;

int on_message(const char *) { return 0; }
int on_error(int level, const char *text) {
  if (level != 3) return 0;
  if (heard.errors++ == 0) std::snprintf(heard.first, sizeof heard.first, "%s", text);
  // The output's stream record that cannot be allocated is reported as a file that cannot be
  // opened, by design.
  for (const char *words : {"Failed to allocate memory", "Out of memory", "allocating memory",
                            "for write. Please check write permissions."})
    if (std::strstr(text, words)) heard.allocation = true;
  return 0;
}
int on_inquiry(int *) { return 1; }

// The first call whose status showed the failure.
const char *failing_entry = nullptr;
int failing_status = 0;
void observe(const char *entry, int status) {
  if (failed && !failing_entry) {
    failing_entry = entry;
    failing_status = status;
  }
}

struct AllocFaults : ::testing::Test {
  // One directory per test: the tests of this program may run at the same time.
  std::string given_tmp = std::getenv("TMP") ? std::getenv("TMP") : ".";
  fs::path dir = fs::path(given_tmp) /
                 (std::string("alloc_faults_") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
  void SetUp() override {
    fs::remove_all(dir);
    fs::create_directories(dir / "tmp");
    setenv("TMP", (dir / "tmp").c_str(), 1);
    for (const char *name : {"QOR_TMP_MOD", "QOR_TMP_STR", "QOR_TMP_STN"}) unsetenv(name);
    krx_register_host_callbacks(on_message, on_error, on_inquiry);
  }
  void TearDown() override {
    disarm();
    krx_register_host_callbacks(nullptr, nullptr, nullptr);
    unsetenv("QOR_KRXWRITE_OPTIONS");
    setenv("TMP", given_tmp.c_str(), 1);
    fs::remove_all(dir);
  }
  bool temp_dir_empty() const { return fs::is_empty(dir / "tmp"); }
  // The output's directory holds the temporary directory and the output, never the new file of a
  // write that failed.
  long output_dir_strays() const {
    long strays = 0;
    for (const auto &entry : fs::directory_iterator(dir)) strays += entry.path().filename() != "tmp" && entry.path().filename() != "out.krx";
    return strays;
  }
};

long degraded_writes = 0;

// A written file that the reader takes whole.
bool readable(const std::string &path) {
  krx::KRXDATA *model = krx::find_or_read_model(path.c_str());
  krx::release_all_models();
  return model != nullptr;
}

// Walks k until a run completes without reaching the k-th allocation; returns the runs made.
template <class Run>
long walk(Run run) {
  long k = 1;
  for (;; ++k) {
    heard = Heard{};
    failing_entry = nullptr;
    failing_status = 0;
    arm(k);
    run(k);
    disarm();
    if (!failed) return k;
    if (::testing::Test::HasFatalFailure() || ::testing::Test::HasFailure()) return k;
  }
}

TEST_F(AllocFaults, HostSessionFailsCleanlyAtEveryAllocation) {
  setenv("QOR_KRXWRITE_OPTIONS", "full_invar strip_face coarsen(0.5)", 1);
  const std::string out = (dir / "out.krx").string();
  long runs = walk([&](long k) {
    int write_status = 0, done = 0;
    bool built = krxfuzz::build_session(6, 3, observe);
    KRX_WRITE_KRX(out.c_str(), &write_status, int(out.size()));
    observe("KRX_WRITE_KRX", write_status);
    bool hit = failed;
    KRX_TERMINATE(&done);
    disarm();
    SCOPED_TRACE("allocation " + std::to_string(k));
    if (!hit) {
      EXPECT_TRUE(built && write_status == 0) << heard.first;
    } else {
      ASSERT_NE(nullptr, failing_entry);
      if (failing_status == 0 && heard.errors == 0) {
        // A lookup table that cannot grow is a cache: the lookup falls back to a search, and
        // the session goes on unharmed.
        EXPECT_EQ(0, write_status);
        EXPECT_TRUE(readable(out));
      } else if (failing_status == 0) {
        // Some steps of a write report their failure and let the write go on without their
        // result (invariants, the node reduction): the file must then be whole.
        EXPECT_STREQ("KRX_WRITE_KRX", failing_entry) << heard.first;
        EXPECT_TRUE(readable(out)) << heard.first;
        ++degraded_writes;
      }
      // A failed creation is the one failure that sends no message.
      if (std::strcmp(failing_entry, "KRX_CREATE") != 0 && (failing_status != 0 || heard.errors)) {
        EXPECT_TRUE(heard.allocation) << failing_entry << ": " << heard.first;
      }
    }
    EXPECT_EQ(write_status == 0, fs::exists(out)) << "a failed write leaves no file";
    EXPECT_EQ(0, output_dir_strays()) << "a failed write leaves no new file beside the output";
    EXPECT_TRUE(temp_dir_empty()) << "temporary files removed by KRX_TERMINATE; failed in "
                                  << (failing_entry ? failing_entry : "-") << ": " << heard.first;
    EXPECT_TRUE(krx::model_list().empty());
    fs::remove(out);
  });
  EXPECT_GT(runs, 50);
  std::printf("host session: %ld allocation sites walked, %ld writes went on without a step\n", runs - 1,
              degraded_writes);
}

TEST_F(AllocFaults, ReadListCompareFailsCleanlyAtEveryAllocation) {
  const std::string file = (dir / "in.krx").string();
  setenv("QOR_KRXWRITE_OPTIONS", "full_invar", 1);
  ASSERT_TRUE(krxfuzz::build_session(6, 3));
  int status = 0, done = 0;
  KRX_WRITE_KRX(file.c_str(), &status, int(file.size()));
  KRX_TERMINATE(&done);
  ASSERT_EQ(0, status);
  krx::set_compare_ends_process(false);
  FILE *sink = std::fopen("/dev/null", "w");
  long runs = walk([&](long k) {
    // The two steps of the dump tool's read: a model (created silently or not at all), then the file.
    FILE *in = std::fopen(file.c_str(), "rb");
    krx::KRXDATA *base = in ? krx::create_model(0, 0) : nullptr;
    bool create_hit = failed;
    if (base && !krx::read_krx(base, in, file.c_str())) base = nullptr;
    else if (!base && in) std::fclose(in);
    bool read_hit = failed && !create_hit;
    if (base) {
      for (int block = 1; block <= 32; ++block) krx::list_block(base, block, sink);
      FILE *again = std::fopen(file.c_str(), "rb");
      krx::KRXDATA *fresh = again ? krx::create_model(0, 0) : nullptr;
      if (fresh && krx::read_krx(fresh, again, "again.krx")) {
        try {
          krx::compare_files(base, fresh, -1, krx::kDefaultCompareTolerance);
        } catch (const std::bad_alloc &) {
          ADD_FAILURE() << "the comparison let an allocation failure escape";
        }
      }
      if (fresh) krx::release_model(fresh);
      else if (again) std::fclose(again);
    }
    disarm();
    SCOPED_TRACE("allocation " + std::to_string(k));
    if (read_hit) {
      // Blocks without an out-of-memory text of their own report their problem text; a lookup
      // table that cannot grow falls back to a search, and the read goes on unharmed.
      EXPECT_EQ(base == nullptr, heard.errors == 1) << "a read that failed fails, once: " << heard.first;
      EXPECT_LE(heard.errors, 1) << heard.first;
    }
    krx::release_all_models();
  });
  std::fclose(sink);
  krx::set_compare_ends_process(true);
  EXPECT_GT(runs, 50);
  std::printf("read-list-compare: %ld allocation sites walked\n", runs - 1);
}

}  // namespace
