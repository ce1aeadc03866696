// The reader: files of every encoding and precision read back value for value, and broken files
// refused with the reader's own message.
#include <gtest/gtest.h>

#include <fstream>

#include "format/krxread.h"
#include "format/krxtoc.h"
#include "host/krx_fortran.h"
#include "krxsample.h"
#include "processing/krxinvar.h"
#include "testsupport.h"

namespace {

using namespace krx;

const int32_t kVersions[] = {10, 20, 40, 41, 50, 51, 60, 572, 316, 828};

struct ReadFixture : ::testing::Test {
  krxtest::RecordingHost host;
  krxtest::TempDir dir;
  std::string path = dir.file("sample.krx");
  void TearDown() override { release_all_models(); }
  // Reads the sample afresh, with no model and no message left from before.
  KRXDATA *write_and_read(const krxtest::Sample &s) {
    release_all_models();
    host.clear();
    EXPECT_TRUE(krxtest::write_sample(path, s));
    return find_or_read_model(path.c_str());
  }
};

void put_bytes(const std::string &path, const std::vector<char> &bytes, std::size_t n) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), std::streamsize(n));
}

TEST_F(ReadFixture, ReadsEveryEncodingAndPrecisionValueForValue) {
  for (int32_t version : kVersions) {
    SCOPED_TRACE(version);
    KRXDATA *model = write_and_read({.version = version});
    ASSERT_NE(nullptr, model);
    EXPECT_TRUE(host.texts(3).empty());
    EXPECT_EQ(model, find_or_read_model(path.c_str())) << "found again by its path";
    EXPECT_TRUE(model_list().size() == 1u && model->version == version);
    EXPECT_EQ(version_is_single(version) ? 4 : 8, model->real_width);
    EXPECT_STREQ("Bracket", model->title.data());
    EXPECT_STREQ("x", model->comments[2].data());
    ASSERT_EQ(3u, model->nodes.size());
    EXPECT_TRUE(model->nodes[1].id == 20 && model->nodes[1].z == 2.0 && model->nodes[2].mass == 3.0);
    ASSERT_TRUE(model->nodes[0].inertia && model->nodes[1].inertia);
    EXPECT_EQ(1.5, (*model->nodes[0].inertia)[0]);
    EXPECT_EQ(0.25, (*model->nodes[0].inertia)[3]) << "(5,4) lands on I12";
    EXPECT_EQ(2.5, (*model->nodes[1].inertia)[2]);
    EXPECT_FALSE(model->nodes[2].inertia);
    EXPECT_TRUE(model->total_mass == 2.0 && model->global_inertia[8] == 3.0);
    EXPECT_EQ((std::vector<int32_t>{1, 2}), model->modes);
    ASSERT_TRUE(model->retained_modes == 2 && model->eigen.size() == 2u);
    EXPECT_EQ(8.0, model->eigen[1].eigenvalue);
    EXPECT_STREQ("NEWTON", model->force_unit.data());
    ASSERT_TRUE(model->stiffness.size() == 2u && model->damping.size() == 1u);
    EXPECT_TRUE(model->stiffness[1].row == 1 && model->stiffness[1].value == 16.0 && model->damping[0].column == 1);
    EXPECT_TRUE(model->faces == (std::vector<int32_t>{3, 2, 0, 1}) && model->face_count == 1);
    EXPECT_EQ((std::vector<double>{1, 0, 0, 1}), model->transformation);
    EXPECT_EQ((std::vector<int32_t>{2}), model->interface_nodes);
    // Mode records decode on demand in the file's own encoding.
    for (int32_t r = 0; r < 2; ++r) {
      std::vector<double> v, s;
      ASSERT_TRUE(read_mode_values(model, kModeShapes, r, v) && read_mode_values(model, kModalStress, r, s));
      ASSERT_TRUE(v.size() == 18u && s.size() == 12u);
      EXPECT_EQ(krxtest::shape_value(r, 2, 5), v[17]);
      EXPECT_EQ(100.0 + krxtest::shape_value(r, 1, 4), s[10]);
    }
    const VectorSlot &stress = model->store[kModalStress];
    EXPECT_EQ((std::vector<int32_t>{2, 0}), stress.nodes);
    EXPECT_TRUE(find_id(stress.index, 10) == 1 && find_id(stress.index, 30) == 0);
    EXPECT_TRUE(model->own.file == stress.io.file && !stress.owns_file);
    EXPECT_EQ(6 * model->real_width, stress.slot_bytes);
    bool later = version_generation(version) >= 40;
    EXPECT_EQ(later ? 12u : 0u, model->pre_strain.size());
    if (!later) continue;
    EXPECT_TRUE(model->preload == (std::vector<double>{0.75, 0.75}) && model->preload_extra == 7);
    ASSERT_EQ(1u, model->load_cases.size());
    EXPECT_TRUE(model->load_cases[0].label == "gravity" && model->statistics.size() == 2u);
    std::vector<double> inv;
    int32_t nm = 0;
    ASSERT_TRUE(read_invariant_values(model, 26, inv, &nm));
    ASSERT_TRUE(nm == 2 && inv.size() == 36u);
    EXPECT_EQ(26 + 0.5 * 35, inv[35]);
    EXPECT_EQ((std::vector<double>{20.0, 20.5, 21.0}), invariant2(model));
    EXPECT_EQ(21.0 + 0.5 * 5, invariant3(model)[5]);
  }
}

// Without eigenvalues the modes come from the mode shapes; generation 10 numbers them in file order.
TEST_F(ReadFixture, WithoutEigenvaluesTheModesComeFromTheModeShapes) {
  for (int32_t version : {316, 10}) {
    KRXDATA *model = write_and_read({.version = version, .eigenvalues = false, .mode_numbers = {4, 9}});
    ASSERT_NE(nullptr, model);
    EXPECT_EQ((std::vector<int32_t>{version == 10 ? 1 : 4, version == 10 ? 2 : 9}), model->modes);
    EXPECT_EQ(0, block_present(model, 6));
    if (version == 10) { EXPECT_EQ(8 + 12 + 2 * 6 * 3 * 8, block_size(model, 7)); }
  }
}

// Unknown node ids end the read with the block's message; counts must agree with the eigenvalues.
TEST_F(ReadFixture, RefusesFilesThatAreNoKorexOrDisagreeWithThemselves) {
  EXPECT_EQ(nullptr, find_or_read_model(dir.file("none.krx").c_str()));
  put_bytes(path, {0, 0, 0, 0, 0, 0, 0, 0}, 8);
  host.clear();
  EXPECT_EQ(nullptr, find_or_read_model(path.c_str()));
  EXPECT_EQ((std::vector<std::string>{"Not a valid KRX format."}), host.texts(3));
  EXPECT_TRUE(model_list().empty());
  EXPECT_EQ(nullptr, write_and_read({.stress_ids = {30, 99}}));
  EXPECT_TRUE(host.has(3, "Problem when reading Modal Stress info"));
  EXPECT_EQ(nullptr, write_and_read({.eigen_records = 1}));
  EXPECT_TRUE(host.has(3, "Number of mode shapes does not match the number of eigenvalues"));
}

TEST_F(ReadFixture, EveryTruncationFailsCleanly) {
  const std::string cut = dir.file("cut.krx");
  for (int32_t version : {316, 50, 20}) {
    ASSERT_TRUE(krxtest::write_sample(path, {.version = version}));
    const auto bytes = krxtest::file_bytes(path);
    for (std::size_t n = 0; n < bytes.size(); n += (n < 2180 ? 11 : 1)) {
      put_bytes(cut, bytes, n);
      host.clear();
      EXPECT_EQ(nullptr, find_or_read_model(cut.c_str())) << version << " " << n;
      EXPECT_FALSE(host.texts(3).empty()) << version << " " << n;
    }
  }
}

void patch_int(const std::string &path, int64_t at, int32_t value, bool xdr) {
  std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
  f.seekp(at);
  uint32_t v = xdr ? __builtin_bswap32(uint32_t(value)) : uint32_t(value);
  f.write(reinterpret_cast<const char *>(&v), 4);
}

// Counts are refused before anything is allocated. Block 14 holds 0-based positions in block 4:
// one at or past block 4's node count ends the read too.
TEST_F(ReadFixture, AbsurdCountsAndPositionsAreRefused) {
  struct Case { int block; int64_t offset; const char *message; std::vector<int32_t> values{INT32_MAX, -5, 100000}; };
  const Case cases[] = {
      {4, 0, "Problem in nodal coords block"},
      {7, 0, "Problem in eigenvalues block"},
      {8, 4, "Problem in mode shapes block"},
      {10, 0, "Problem in nodal inertia block"},
      {14, 12, "Problem reading Element Faces"},
      {14, 20, "Problem reading Element Faces", {3, -1}},
      {16, 0, "Problem in mode shape transformation block"},
      {28, 4, "Problem when reading Modal Loads Block"},
      {31, 0, "Problem when reading Pre-Stress Block"},
  };
  for (int32_t version : {316, 60}) {
    const KRXDATA *model = write_and_read({.version = version});
    ASSERT_NE(nullptr, model);
    const auto starts = model->block_start;
    for (const Case &c : cases) {
      for (int32_t absurd : c.values) {
        SCOPED_TRACE(testing::Message() << version << " block " << c.block << " value " << absurd);
        release_all_models();
        ASSERT_TRUE(krxtest::write_sample(path, {.version = version}));
        patch_int(path, starts[c.block] + c.offset, absurd, version_is_xdr(version));
        host.clear();
        EXPECT_EQ(nullptr, find_or_read_model(path.c_str()));
        EXPECT_TRUE(host.has(3, c.message));
      }
    }
  }
}

// Faces are listed as the identifiers their positions name; the damping note follows the
// model's projected flag.
TEST_F(ReadFixture, ListingsNameFaceNodesAndSayWhetherDampingIsProjected) {
  for (int32_t version : {316, 60}) {
    SCOPED_TRACE(version);
    KRXDATA *model = write_and_read({.version = version});
    ASSERT_NE(nullptr, model);
    EXPECT_NE(std::string::npos, krxtest::listing(model, 14).find("      1           30     10     20\n"));
    for (int32_t projected : {0, 1}) {
      model->damping_projected = projected;
      const std::string listed = krxtest::listing(model, 15);
      EXPECT_EQ(projected == 1, listed.find("Note:\tThe generalized damping matrix has been projected onto "
                                            "principal\n") != std::string::npos);
      EXPECT_EQ(projected == 0, listed.find("has not been projected onto\n") != std::string::npos);
      EXPECT_NE(std::string::npos, listed.find("    1       2       5.0000000000e-01\n")) << listed;
    }
  }
}

TEST_F(ReadFixture, OpenEntryMakesTheModelCurrent) {
  ASSERT_TRUE(krxtest::write_sample(path, krxtest::Sample{}));
  krxtest::create_model(0, 0);
  KRXDATA *created = current_model();
  int status = -1;
  KRX_OPEN_KRX(path.c_str(), &status, int(path.size()));
  EXPECT_TRUE(status == 0 && created != current_model() && current_model()->own.path == path);
  KRX_OPEN_KRX(path.c_str(), &status, -1);
  EXPECT_EQ(1, status);
  EXPECT_TRUE(host.has(3, "Failed to allocate memory at line 460 in file ..\\krx_fortran.\n"));
  std::string padded = path + "  ";
  KRX_OPEN_KRX(padded.c_str(), &status, int(padded.size()));
  EXPECT_EQ(1, status) << "the blanks are part of the name";
  krxtest::terminate_model();
}

}  // namespace
