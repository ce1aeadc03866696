// The exported frame: the current-model rule on every entry, host strings, status values, and
// what the entries do to the host's arguments before they forward them.
#include <gtest/gtest.h>

#include "host/krx_fortran.h"
#include "testsupport.h"

using krxtest::Message;
using krxtest::RecordingHost;

namespace {

struct Frame : ::testing::Test {
  void TearDown() override { krxtest::terminate_model(); }
  krx::KRXDATA &model() { return *krx::current_model(); }
  int status = -1;
};

// Every entry but KRX_CREATE goes through the same frame; a setter, a getter and the mode count
// stand for them.
TEST_F(Frame, EntriesWithoutAModelReportOnceAndFail) {
  krxtest::terminate_model();
  int i = 1, j = 2, k = 3;
  double d = 1.0, v[6] = {};
  for (int entry = 0; entry < 3; ++entry) {
    RecordingHost host;
    status = -1;
    if (entry == 0) KRX_SET_MODE_SHAPE_VEC(&i, &j, v, &status);
    if (entry == 1) KRX_GET_MODAL_STRESS(&i, &j, v, v + 1, v + 2, v + 3, v + 4, &d, &status);
    if (entry == 2) KRX_GET_MODE_COUNT(&k, &status);
    EXPECT_EQ(status, 1) << "entry " << entry;
    EXPECT_EQ(host.messages, std::vector<Message>({{3, "No KRXDATA object.  Call KRX_CREATE first"}})) << "entry " << entry;
  }
  EXPECT_EQ(k, 3);  // the mode count is not touched without a model
}

// Host strings are cut at their fields before the setters see them, so nothing warns; load cases
// and their labels count from one.
TEST_F(Frame, HostStringsAreCutAtTheirFieldsAndLoadCasesCountFromOne) {
  krxtest::create_model(10, 4);
  RecordingHost host;
  std::string title(200, 'T'), comment = "note   ";
  KRX_SET_HEADER(title.c_str(), "        ", "AB  ", comment.c_str(), "x", "", &status, 200, 8, 4, int(comment.size()), 1, 0);
  EXPECT_TRUE(status == 0 && host.texts(2).empty());
  EXPECT_EQ(host.texts(0), (std::vector<std::string>{"Title: " + std::string(127, 'T'), "Name : ", "Type : AB",
                                                     "Comment 1: note", "Comment 2: x", "Comment 3: "}));
  int load_case = 2, mode = 7;
  double value = 4.5;
  KRX_SET_MODAL_LOAD(&load_case, &mode, &value, &status);
  load_case = 1;
  KRX_SET_MODAL_LOAD_LABEL(&load_case, "Front wheel      ", &status, 17);
  ASSERT_TRUE(status == 0 && model().load_cases.size() == 2u);
  EXPECT_EQ(model().load_cases[0].label, "Front wheel");
  EXPECT_EQ(model().load_cases[1].values, std::vector<double>{4.5});
  load_case = 0;
  KRX_SET_MODAL_LOAD(&load_case, &mode, &value, &status);
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(host.has(3, "The load case index -1 is illegal.\nThe load case index must be non-negative."));
}

TEST_F(Frame, FacesOutsideTwoToEightVerticesAreRefusedButTheHostGoesOn) {
  krxtest::create_model(20, 2);
  RecordingHost host;
  int ids[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9}, *n = ids;
  for (int count : {1, 9, 0, -3}) {
    status = -1;
    KRX_SET_FACE(&count, ids, &status);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(host.has(3, "Unable to create a face with " + std::to_string(count) + " vertices"));
  }
  EXPECT_TRUE(model().face_count == 0 && krx::node_count(&model()) == 0);
  int count = 8;
  KRX_SET_FACE(&count, ids, &status);
  // The fixed-count entries hand over exactly their own number of vertices.
  KRX_SET_FACE2(n, n + 1, &status);
  KRX_SET_FACE5(n, n + 1, n + 2, n + 3, n + 4, &status);
  KRX_SET_FACE8(n, n + 1, n + 2, n + 3, n + 4, n + 5, n + 6, n + 7, &status);
  EXPECT_EQ(model().face_count, 4);
  ASSERT_EQ(model().faces.size(), 27u);
  EXPECT_TRUE(model().faces[9] == 2 && model().faces[12] == 5 && model().faces[18] == 8);
}

TEST_F(Frame, ArraysArriveInColumnOrderAndAreKeptRowByRow) {
  krxtest::create_model(10, 2);
  RecordingHost host;
  int node = 5, mode = 11;
  krx::register_mode(&model(), mode);
  // Inertia from the values below the diagonal, column order (1,1) (2,1) (3,1) (1,2) ...
  double symmetric[9] = {1, 4, 5, 4, 2, 6, 5, 6, 3}, unsymmetric[9] = {1, 4, 5, 40, 2, 6, 50, 60, 3};
  KRX_SET_NODAL_INERTIA_MAT(&node, symmetric, &status);
  EXPECT_TRUE(status == 0 && host.messages.empty());
  KRX_SET_NODAL_INERTIA_MAT(&node, unsymmetric, &status);
  EXPECT_EQ(host.messages, std::vector<Message>({{2, "Unsymmetric Inertia Tensor supplied to KRX_SET_NODAL_INERTIA_MAT"}}));
  EXPECT_EQ(*model().nodes[0].inertia, (std::array<double, 6>{1, 2, 3, 4, 5, 6}));

  double column_order[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9}, symmetric9[9] = {1, 2, 3, 2, 5, 6, 3, 6, 9};
  KRX_SET_INVAR8(&mode, column_order, &status);
  EXPECT_EQ(model().invariant8, (std::vector<double>{1, 4, 7, 2, 5, 8, 3, 6, 9}));
  KRX_SET_INVAR9(&mode, &mode, symmetric9, &status);
  EXPECT_EQ(model().invariant9, std::vector<double>(symmetric9, symmetric9 + 9));
  KRX_SET_INVAR7(column_order, &status);  // passed on as the host gives it
  EXPECT_EQ(model().invariant7, std::vector<double>(column_order, column_order + 9));

  // A stress read back gives both halves of the node's record.
  double values[6] = {1, 2, 3, 4, 5, 6}, out[6] = {};
  KRX_SET_MODAL_STRESS_VEC(&mode, &node, values, &status);
  KRX_GET_MODAL_STRESS(&mode, &node, out, out + 1, out + 2, out + 3, out + 4, out + 5, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(std::vector<double>(out, out + 6), std::vector<double>(values, values + 6));
}

// A null matrix and a model without modes are refused; the mode count is stored while the status
// says failure (kept); without orthonormalisation the transformation is the identity.
TEST_F(Frame, ModeQueriesAnswerOverTheRegisteredModes) {
  krxtest::create_model(10, 3);
  RecordingHost host;
  int selected[2] = {30, 10}, count = 2, modes = -1;
  double t[6] = {-1, -1, -1, -1, -1, -1};
  KRX_GET_TRANSFORM_TO_SELMOD(nullptr, selected, &count, &status);
  KRX_GET_TRANSFORM_TO_SELMOD(t, selected, &count, &status);
  EXPECT_EQ(host.messages, std::vector<Message>({{3, "NULL argument T passed into KRX_GET_TRANSFORM_TO_SELMOD\n"},
                                                 {3, "Invalid mode count found at line 1573 in file ..\\krx_fortran.\n"}}));
  for (int number : {10, 20, 10, 30}) krx::register_mode(&model(), number);
  KRX_GET_MODE_COUNT(&modes, &status);
  EXPECT_TRUE(modes == 3 && status == 1);
  KRX_GET_TRANSFORM_TO_SELMOD(t, selected, &count, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(std::vector<double>(t, t + 6), (std::vector<double>{0, 1, 0, 0, 1, 0}));
}

}  // namespace
