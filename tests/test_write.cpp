// The writer through its entries: failure paths (nothing left behind), the blanks of a path,
// the content summary, the closed-form eigenvalues of the example host's chain,
// the shortened node set. A disk that fills has its own file.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "../examples/chain_model.h"
#include "format/krxread.h"
#include "format/krxwrite.h"
#include "host/krx_fortran.h"
#include "host/krxset.h"
#include "model/krxtools.h"
#include "testsupport.h"

namespace {

using krxtest::write_krx;
bool exists(const std::string &path) { return std::filesystem::exists(path); }

// A small model: four nodes with masses, two faces, one interface node, no modes.
struct WriteTest : ::testing::Test {
  void SetUp() override {
    krxtest::create_model(4, 2);
    for (int n = 0; n < 4; ++n) {
      krx::set_node_coordinates(krx::current_model(), n + 1, n, n % 2, 0.0);
      krx::set_nodal_mass(krx::current_model(), n + 1, 1.0);
    }
    int count = 3, a[3] = {1, 2, 3}, b[3] = {2, 3, 4}, status = 0, interface_node = 1;
    KRX_SET_FACE(&count, a, &status);
    KRX_SET_FACE(&count, b, &status);
    KRX_SET_INTERFACE_NODE(&interface_node, &status);
  }
  void TearDown() override { krxtest::terminate_model(); }
  krxtest::RecordingHost host;
  krxtest::TempDir dir;
};

TEST_F(WriteTest, FailuresReportOnceAndLeaveNoFileBehind) {
  std::string path = dir.file("missing/dir/out.krx");
  EXPECT_EQ(write_krx(path), 1);
  EXPECT_EQ(host.texts(krx::kError), std::vector<std::string>{"Unable to open " + path + " for write. Please check write permissions."});
  {
    // An option conflict writes no block and removes the file.
    krxtest::OptionsGuard options("full_str sparse_str");
    path = dir.file("conflict.krx");
    host.clear();
    EXPECT_EQ(write_krx(path), 1);
    EXPECT_TRUE(host.has(krx::kError, "Problem writing version number."));
    EXPECT_FALSE(exists(path));
  }
  const std::string whole = dir.file("whole.krx");
  ASSERT_EQ(write_krx(whole), 0);
  // The file read back becomes the current model: written onto itself it is refused untouched.
  const std::vector<char> before = krxtest::file_bytes(whole);
  krxtest::terminate_model();
  krx::current_model() = krx::find_or_read_model(whole.c_str());
  ASSERT_NE(krx::current_model(), nullptr);
  EXPECT_EQ(write_krx(whole), 1);
  EXPECT_TRUE(host.has(krx::kError, "The output KRX name must be different than the current KRX "
                                    "name.\n  Current KRX name:  " + whole + "\n  Output KRX name:  " + whole));
  EXPECT_EQ(krxtest::file_bytes(whole), before);
  // Written elsewhere, the read model makes the same file again.
  EXPECT_EQ(write_krx(dir.file("copy.krx")), 0);
  EXPECT_EQ(krxtest::file_bytes(dir.file("copy.krx")).size(), before.size());
}

TEST_F(WriteTest, VeloxKeepsTheBlanksOfThePath) {
  std::string path = dir.file("blank.krx  ");
  int status = -1, normal = 0, extra = 0;
  KRX_WRITE_VELOX_KRX(path.c_str(), &normal, &extra, &status, int(path.size()));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(exists(path));
  EXPECT_EQ(write_krx(path), 0);  // KRX_WRITE_KRX trims the blanks
  EXPECT_TRUE(exists(dir.file("blank.krx")));
  status = -1;
  KRX_WRITE_VELOX_KRX(path.c_str(), &normal, &extra, &status, -1);
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(host.has(krx::kError, "Failed to allocate memory at line 1013 in file ..\\krx_fortran.\n"));
}

TEST_F(WriteTest, SummaryListsTheRowsInOrderWithTheirFlags) {
  ASSERT_EQ(write_krx(dir.file("summary.krx")), 0);
  std::vector<std::string> notes = host.texts(0);
  auto at = std::find(notes.begin(), notes.end(), "\nCreating a Korex with the following information:\n");
  ASSERT_NE(at, notes.end());
  ASSERT_GE(notes.end() - at, 20);
  EXPECT_EQ(at[1], std::string(18, ' ') + "Nodal Coords Yes");
  EXPECT_EQ(at[2], std::string(17, ' ') + "Element Faces Yes");
  EXPECT_EQ(at[3], std::string(19, ' ') + "Eigenvalues No");
  EXPECT_EQ(at[19], std::string(14, ' ') + "Nodal Pre-Strain No");
}

// The example host's chain: the printed table and the file's eigenvalue block both hold the
// closed-form eigenvalues, recovered from modes the host handed over mixed.
TEST(WriteExample, TheChainKeepsItsClosedFormEigenvalues) {
  krxtest::RecordingHost host;
  krxtest::TempDir dir;
  std::string path = dir.file("chain.krx");
  ASSERT_EQ(chain::build_and_write(path.c_str()), 0);  // terminates its model
  std::vector<std::string> notes = host.texts(0);
  auto at = std::find(notes.begin(), notes.end(), "  ===============================================");
  ASSERT_NE(at, notes.end());
  ASSERT_GE(notes.end() - at, chain::kModes + 1);
  krx::KRXDATA *read = krx::find_or_read_model(path.c_str());
  ASSERT_NE(read, nullptr);
  ASSERT_EQ(read->eigen.size(), std::size_t(chain::kModes));
  for (int j = 0; j < chain::kModes; ++j) {
    int number = 0;
    double lambda = 0.0, tolerance = 1e-9 * std::max(1.0, chain::eigenvalue(j));
    ASSERT_EQ(std::sscanf(at[1 + j].c_str(), " %d : %le", &number, &lambda), 2) << at[1 + j];
    EXPECT_TRUE(number == j + 1 && read->eigen[j].number == j + 1);
    EXPECT_NEAR(lambda, chain::eigenvalue(j), tolerance);
    EXPECT_NEAR(read->eigen[j].eigenvalue, chain::eigenvalue(j), tolerance);
    if (j >= 6) { EXPECT_NEAR(read->eigen[j].hertz, chain::hertz(j), 1e-9 * chain::hertz(j)); }
  }
  krx::release_model(read);
}

TEST(WriteReduction, KeepsOnlyFaceNodesAndRenumbersFaces) {
  krxtest::RecordingHost host;
  krxtest::create_model(5, 1);
  krx::KRXDATA *model = krx::current_model();
  for (int n = 0; n < 5; ++n) {
    krx::set_node_coordinates(model, 100 + n, n, 0, 0);
    double v[6] = {double(n), 0, 0, 0, 0, double(n) * 2};
    krx::store_node_vector(model, 1, 100 + n, krx::kModeShapes, v);
  }
  int count = 2, a[2] = {104, 102}, status = 0;
  KRX_SET_FACE(&count, a, &status);
  ASSERT_EQ(krx::reduce_to_face_nodes(model), 1);
  ASSERT_EQ(krx::node_count(model), 2);
  EXPECT_TRUE(model->nodes[0].id == 102 && model->nodes[1].id == 104);
  EXPECT_EQ(krxtest::face_ids(model), (std::vector<std::vector<int32_t>>{{104, 102}}));
  ASSERT_EQ(krx::load_mode_record_by_index(model, 0, krx::kModeShapes), 1);
  EXPECT_EQ(model->store[0].record, (std::vector<double>{2, 0, 0, 0, 0, 4, 4, 0, 0, 0, 0, 8}));
  krxtest::terminate_model();
}

// Von Mises closed forms: a uniaxial state, a pure shear, half the sum of squared differences.
TEST(WriteStatistics, VonMisesAndTheLargestComponentsOfEachMode) {
  const double s[3][6] = {{5.0, 0, 0, 0, 0, 0}, {0, 0, 0, 2.0, 0, 0}, {1, 2, 4, 0, 0, 0}};
  const double expected[3] = {5.0, std::sqrt(12.0), std::sqrt(7.0)};
  for (int k = 0; k < 3; ++k) EXPECT_DOUBLE_EQ(krx::von_mises_stress(s[k]), expected[k]) << k;
  krx::ModalStatistics stats;
  const double v1[6] = {3, 4, 0, 0, 0, 1}, v2[6] = {1, 0, 0, 0, 2, 0};
  krx::update_statistics(stats, krx::kModeShapes, 7, v1);
  krx::update_statistics(stats, krx::kModeShapes, 9, v2);
  EXPECT_EQ(std::make_pair(stats.reals[krx::kStatTranslation], stats.ints[krx::kStatTranslation]), std::make_pair(5.0, 7));
  EXPECT_EQ(std::make_pair(stats.reals[krx::kStatRotation], stats.ints[krx::kStatRotation]), std::make_pair(2.0, 9));
}

}  // namespace
