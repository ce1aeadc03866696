// The public read API (krx_read.h) on small files laid out block by block: every encoding and
// precision, broken files and bad requests with their codes and texts, and one handle read from
// several threads at once.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "krx/krx_read.h"
#include "krxsample.h"
#include "testsupport.h"

namespace {

struct Handle {
  krx_file *file = nullptr;
  int code;
  explicit Handle(const std::string &path) : code(krx_open(path.c_str(), &file)) {}
  ~Handle() { krx_close(file); }
  int64_t count(int which) const {
    int64_t n = -1;
    EXPECT_EQ(KRX_OK, krx_count(file, which, &n)) << krx_error_message(file);
    return n;
  }
};

// Every mode of kind at its expected values: shape_value by the position in the record, plus
// 100 for stresses.
void expect_modes(const Handle &h, int kind, const std::vector<int32_t> &ids,
                  const std::vector<int32_t> &numbers) {
  std::vector<int32_t> read(ids.size());
  ASSERT_EQ(KRX_OK, krx_read_mode_node_ids(h.file, kind, read.data()));
  EXPECT_EQ(read, ids);
  std::vector<double> values(6 * ids.size());
  for (std::size_t r = 0; r < numbers.size(); ++r) {
    int32_t number = 0;
    ASSERT_EQ(KRX_OK, krx_read_mode(h.file, kind, int64_t(r), &number, values.data()));
    EXPECT_EQ(number, numbers[r]);
    for (std::size_t i = 0; i < ids.size(); ++i) {
      for (int c = 0; c < 6; ++c)
        EXPECT_EQ(values[6 * i + c], krxtest::shape_value(int(r), int(i), c) + 100 * kind)
            << "kind " << kind << " mode " << r << " node " << ids[i] << " component " << c;
    }
  }
}

TEST(ReadApi, ReadsEveryGenerationEncodingAndPrecision) {
  krxtest::TempDir dir;
  // Native and XDR, double and single, and the old generations without per-mode numbers or
  // with the old element block.
  for (int32_t version : {60, 316, 572, 828, 41, 51, 10, 20}) {
    SCOPED_TRACE(version);
    krxtest::Sample s;
    s.version = version;
    s.mass_dims = version == 316 ? 3 : 1;  // three values a node are averaged
    const std::string path = dir.file(std::to_string(version) + ".krx");
    ASSERT_TRUE(krxtest::write_sample(path, s));
    Handle h(path);
    ASSERT_EQ(KRX_OK, h.code) << krx_error_message(h.file);
    int generation, xdr, real_bytes;
    krx_read_version(h.file, &generation, &xdr, &real_bytes);
    EXPECT_EQ(generation, version & 0xff);
    EXPECT_EQ(xdr, krx::version_is_xdr(version) ? 1 : 0);
    EXPECT_EQ(real_bytes, krx::version_is_single(version) ? 4 : 8);
    char title[8];
    ASSERT_EQ(KRX_OK, krx_read_header(h.file, KRX_HEADER_TITLE, title, sizeof title));
    EXPECT_STREQ(title, "Bracket");  // trailing blanks go
    ASSERT_EQ(h.count(KRX_COUNT_NODES), 3);
    ASSERT_EQ(h.count(KRX_COUNT_MODES), 2);
    std::vector<double> xyz(9);
    ASSERT_EQ(KRX_OK, krx_read_coordinates(h.file, xyz.data()));
    EXPECT_EQ(xyz, (std::vector<double>{0, 0.5, 1, 1, 1.5, 2, 2, 2.5, 3}));
    std::vector<double> masses(3), inertias(27);
    ASSERT_EQ(KRX_OK, krx_read_nodal_masses(h.file, masses.data()));
    EXPECT_EQ(masses, version == 316 ? (std::vector<double>{2, 3, 4}) : (std::vector<double>{1, 2, 3}));
    // Entries (4, 4), (5, 4) of the first node and (6, 6) of the second; (5, 4) stands for (4, 5).
    ASSERT_EQ(KRX_OK, krx_read_nodal_inertias(h.file, inertias.data()));
    std::vector<double> expected(27, 0.0);
    expected[0] = 1.5, expected[1] = expected[3] = 0.25, expected[9 + 8] = 2.5;
    EXPECT_EQ(inertias, expected);
    std::vector<int32_t> numbers = version == 10 ? std::vector<int32_t>{1, 2} : s.mode_numbers;
    expect_modes(h, KRX_MODE_SHAPE, s.ids, numbers);
    expect_modes(h, KRX_MODE_STRESS, s.stress_ids, numbers);
    // One face of three vertices, as positions in the node order whichever block holds it.
    ASSERT_EQ(h.count(KRX_COUNT_FACE_WORDS), 4);
    std::vector<int32_t> face(4);
    ASSERT_EQ(KRX_OK, krx_read_faces(h.file, face.data())) << krx_error_message(h.file);
    EXPECT_EQ(face, (std::vector<int32_t>{3, 2, 0, 1}));
  }
}

// Broken files made here, and the inputs the fuzzer found (or that stand for what it found) under
// tests/fuzz/corpus/read_api, each with the code and the reason it must be refused with.
TEST(ReadApi, RefusesBrokenFilesWithACodeAndTheReason) {
  krxtest::TempDir dir;
  const std::string good = dir.file("good.krx"), corpus = std::string(KRX_TEST_DATA) + "/../fuzz/corpus/read_api/regress-";
  ASSERT_TRUE(krxtest::write_sample(good, krxtest::Sample{}));
  std::vector<char> bytes = krxtest::file_bytes(good);
  struct {
    std::string path;
    std::vector<char> bytes;  // empty: the file is not made here
    int code;
    std::string message;
  } const cases[] = {
      {dir.file("missing.krx"), {}, KRX_ERROR_OPEN, "cannot open " + dir.file("missing.krx") + ": No such file"},
      {dir.file("short.krx"), {0, 0, 1}, KRX_ERROR_FORMAT, "not a KRX file"},
      {dir.file("zero.krx"), std::vector<char>(700, 0), KRX_ERROR_FORMAT, "not a KRX file"},
      {dir.file("cut.krx"), std::vector<char>(bytes.begin(), bytes.end() - 700), KRX_ERROR_FORMAT,
       "its counts call for more bytes than the file holds"},
      {dir.file("front.krx"), std::vector<char>(bytes.begin(), bytes.begin() + 1000), KRX_ERROR_FORMAT,
       "the header or the content summary cannot be read"},
      {corpus + "face-block-size-not-its-list.krx", {}, KRX_ERROR_FORMAT, "block 14 (element_faces) at byte 648"},
      {corpus + "gen10-seven-million-modes-no-nodes.krx", {}, KRX_ERROR_FORMAT, "more modes than the file has bytes"},
      {corpus + "invariants-of-different-mode-counts.krx", {}, KRX_ERROR_FORMAT, "its mode count differs from block 21's"},
      {corpus + "matrix-order-beyond-file.krx", {}, KRX_ERROR_FORMAT, "matrix order 1073741824 is more than the file can justify"},
      {corpus + "mode-block-past-end.krx", {}, KRX_ERROR_FORMAT, "its counts call for more bytes than the file holds (704)"},
      {corpus + "nodal-masses-no-values-per-node.krx", {}, KRX_ERROR_FORMAT, "matrix order 1073217536 is more than"},
      {corpus + "topology-more-faces-than-groups.krx", {}, KRX_ERROR_FORMAT, "block 5 (element_topology) at byte 684"},
      {corpus + "topology-words-overflow.krx", {}, KRX_ERROR_FORMAT, "its leading counts cannot be read or contradict each other"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path);
    if (!c.bytes.empty()) std::ofstream(c.path, std::ios::binary).write(c.bytes.data(), std::streamsize(c.bytes.size()));
    Handle h(c.path);
    EXPECT_EQ(h.code, c.code);
    EXPECT_NE(std::string(krx_error_message(h.file)).find(c.message), std::string::npos) << krx_error_message(h.file);
  }
}

TEST(ReadApi, AnswersBadRequestsWithCodesAndKeepsServing) {
  krxtest::TempDir dir;
  krxtest::Sample s;
  s.eigenvalues = false;
  const std::string path = dir.file("no_eigen.krx");
  ASSERT_TRUE(krxtest::write_sample(path, s));
  Handle h(path);
  ASSERT_EQ(KRX_OK, h.code);
  int64_t n;
  std::vector<double> values(100);
  EXPECT_EQ(KRX_ERROR_ARGUMENT, krx_count(nullptr, KRX_COUNT_NODES, &n));
  EXPECT_EQ(KRX_ERROR_ARGUMENT, krx_count(h.file, 99, &n));
  EXPECT_EQ(KRX_ERROR_ARGUMENT, krx_count(h.file, KRX_COUNT_NODES, nullptr));
  EXPECT_EQ(KRX_ERROR_ARGUMENT, krx_read_mode(h.file, KRX_MODE_SHAPE, 2, nullptr, values.data()));
  EXPECT_EQ(KRX_ERROR_ARGUMENT, krx_read_mode(h.file, 3, 0, nullptr, values.data()));
  for (int invariant : {0, 6, 10}) EXPECT_EQ(KRX_ERROR_ARGUMENT, krx_read_invariant(h.file, invariant, values.data()));
  EXPECT_EQ(KRX_ERROR_ABSENT, krx_read_eigenvalues(h.file, nullptr, values.data()));
  EXPECT_EQ(krx_error_message(h.file), path + " holds no eigenvalues block");
  // The mode count comes from the mode shapes; the message is the calling thread's own.
  EXPECT_EQ(h.count(KRX_COUNT_MODES), 2);
  std::thread([&] { EXPECT_STREQ(krx_error_message(h.file), ""); }).join();
  EXPECT_EQ(KRX_OK, krx_read_mode(h.file, KRX_MODE_STRAIN, 1, nullptr, values.data()));
}

TEST(ReadApi, OneHandleServesSeveralThreadsAndManyHandlesStayOpen) {
  krxtest::TempDir dir;
  krxtest::Sample s;
  s.version = 828;  // XDR single: swapped, then widened in place
  s.ids.clear();
  for (int32_t id = 1; id <= 12000; ++id) s.ids.push_back(id * 7);  // three pieces of a record
  s.stress_ids = {7};
  const std::string path = dir.file("many.krx");
  ASSERT_TRUE(krxtest::write_sample(path, s));
  std::vector<std::unique_ptr<Handle>> handles;
  for (int k = 0; k < 64; ++k) handles.push_back(std::make_unique<Handle>(path));
  for (const auto &h : handles) ASSERT_EQ(KRX_OK, h->code);
  const Handle &shared = *handles.front();
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      const Handle &mine = *handles[std::size_t(t + 1)];
      std::vector<double> values(6 * s.ids.size());
      for (int round = 0; round < 50; ++round)
        for (int64_t r = 0; r < 2; ++r) {
          const Handle &h = round % 2 ? mine : shared;
          if (krx_read_mode(h.file, KRX_MODE_SHAPE, r, nullptr, values.data()) != KRX_OK) ++wrong;
          for (std::size_t i = 0; i < s.ids.size(); i += 97)
            if (values[6 * i + 5] != krxtest::shape_value(int(r), int(i), 5)) ++wrong;
        }
    });
  for (auto &t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
