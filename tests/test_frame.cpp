// The exported frame: the current-model rule on every entry, host strings, status values, and
// what the entries do to the host's arguments before they forward them.
#include <gtest/gtest.h>

#include <functional>

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

TEST_F(Frame, EveryEntryWithoutAModelReportsOnceAndFails) {
  krxtest::terminate_model();
  int i = 1, j = 2, k = 3, n[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  double d = 1.0, v[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1}, a = 0, b = 0, c = 0, e = 0, f = 0, g = 0;
  const char text[] = "text";
  std::vector<std::function<void(int *)>> entries = {
      [&](int *s) { KRX_SET_HEADER(text, text, text, text, text, text, s, 4, 4, 4, 4, 4, 4); },
      [&](int *s) { KRX_SET_NODE_COORDINATES_VEC(&i, v, s); }, [&](int *s) { KRX_SET_NODAL_MASS(&i, &d, s); },
      [&](int *s) { KRX_SET_NODAL_INERTIA(&i, &d, &d, &d, &d, &d, &d, s); }, [&](int *s) { KRX_TERMINATE(s); },
      [&](int *s) { KRX_SET_MODE_SHAPE_VEC(&i, &j, v, s); }, [&](int *s) { KRX_SET_MODAL_STRESS_VEC(&i, &j, v, s); },
      [&](int *s) { KRX_SET_MODAL_STRAIN_VEC(&i, &j, v, s); }, [&](int *s) { KRX_SET_GENERALIZED_MASS(&i, &j, &d, s); },
      [&](int *s) { KRX_SET_GENERALIZED_STIFFNESS(&i, &j, &d, s); }, [&](int *s) { KRX_SET_INTERFACE_NODE(&i, s); },
      [&](int *s) { KRX_SET_FACE(&k, n, s); }, [&](int *s) { KRX_UNITS_SI_MULTIPLIERS(&d, &d, &d, &d, s); },
      [&](int *s) { KRX_SET_GLOBAL_MASS(&d, v, v, s); }, [&](int *s) { KRX_SET_NODE_COORDINATES(&i, &d, &d, &d, s); },
      [&](int *s) { KRX_SET_NODAL_INERTIA_VEC(&i, v, s); }, [&](int *s) { KRX_SET_NODAL_INERTIA_TERM(&i, &j, &k, &d, s); },
      [&](int *s) { KRX_SET_NODAL_INERTIA_MAT(&i, v, s); }, [&](int *s) { KRX_SET_MODE_SHAPE_DOF(&i, &j, &k, &d, s); },
      [&](int *s) { KRX_SET_MODE_SHAPE(&i, &j, &d, &d, &d, &d, &d, &d, s); },
      [&](int *s) { KRX_SET_MODAL_STRESS(&i, &j, &d, &d, &d, &d, &d, &d, s); },
      [&](int *s) { KRX_SET_MODAL_STRAIN(&i, &j, &d, &d, &d, &d, &d, &d, s); },
      [&](int *s) { KRX_SET_MODAL_LOAD(&i, &j, &d, s); }, [&](int *s) { KRX_SET_MODAL_LOAD_LABEL(&i, text, s, 4); },
      [&](int *s) { KRX_SET_MODAL_PRELOAD(&i, &d, s); }, [&](int *s) { KRX_SET_GENERALIZED_DAMPING(&i, &j, &d, s); },
      [&](int *s) { KRX_SET_UNITS(text, text, text, text, s, 4, 4, 4, 4); }, [&](int *s) { KRX_SET_FACE2(&i, &j, s); },
      [&](int *s) { KRX_SET_FACE3(&i, &j, &k, s); }, [&](int *s) { KRX_SET_FACE4(n, n + 1, n + 2, n + 3, s); },
      [&](int *s) { KRX_SET_FACE5(n, n + 1, n + 2, n + 3, n + 4, s); },
      [&](int *s) { KRX_SET_FACE6(n, n + 1, n + 2, n + 3, n + 4, n + 5, s); },
      [&](int *s) { KRX_SET_FACE7(n, n + 1, n + 2, n + 3, n + 4, n + 5, n + 6, s); },
      [&](int *s) { KRX_SET_FACE8(n, n + 1, n + 2, n + 3, n + 4, n + 5, n + 6, n + 7, s); },
      [&](int *s) { KRX_GET_MODAL_STRESS(&i, &j, &a, &b, &c, &e, &f, &g, s); },
      [&](int *s) { KRX_GET_MODAL_STRAIN(&i, &j, &a, &b, &c, &e, &f, &g, s); },
      [&](int *s) { KRX_GET_TRANSFORM_TO_SELMOD(v, n, &k, s); }, [&](int *s) { KRX_GET_MODE_COUNT(&k, s); },
      [&](int *s) { KRX_SET_INVAR1(&d, s); }, [&](int *s) { KRX_SET_INVAR2(v, s); }, [&](int *s) { KRX_SET_INVAR3(&i, v, s); },
      [&](int *s) { KRX_SET_INVAR4(&i, v, s); }, [&](int *s) { KRX_SET_INVAR5(&i, &j, v, s); }, [&](int *s) { KRX_SET_INVAR6(v, s); },
      [&](int *s) { KRX_SET_INVAR7(v, s); }, [&](int *s) { KRX_SET_INVAR8(&i, v, s); }, [&](int *s) { KRX_SET_INVAR9(&i, &j, v, s); },
  };
  for (std::size_t entry = 0; entry < entries.size(); ++entry) {
    RecordingHost host;
    status = -1;
    entries[entry](&status);
    EXPECT_EQ(status, 1) << "entry " << entry;
    EXPECT_EQ(host.messages, std::vector<Message>({{3, "No KRXDATA object.  Call KRX_CREATE first"}})) << "entry " << entry;
  }
  EXPECT_EQ(k, 3);  // the mode count is not touched without a model
}

TEST_F(Frame, HeaderTextsAreCutAtTheirFieldsAndLoseTrailingBlanks) {
  krxtest::create_model(10, 2);
  RecordingHost host;
  std::string title(200, 'T'), comment = "note   ";
  KRX_SET_HEADER(title.c_str(), "        ", "AB  ", comment.c_str(), "x", "", &status, 200, 8, 4, int(comment.size()), 1, 0);
  EXPECT_EQ(status, 0);
  // Cut before the setter sees them, so nothing warns; the notes say what was kept.
  EXPECT_TRUE(host.texts(2).empty());
  EXPECT_EQ(host.texts(0), (std::vector<std::string>{"Title: " + std::string(127, 'T'), "Name : ", "Type : AB",
                                                     "Comment 1: note", "Comment 2: x", "Comment 3: "}));
}

TEST_F(Frame, LoadLabelsAndLoadCasesAreOneBasedForTheHost) {
  krxtest::create_model(10, 4);
  int load_case = 2, mode = 7;
  double value = 4.5;
  KRX_SET_MODAL_LOAD(&load_case, &mode, &value, &status);
  load_case = 1;
  KRX_SET_MODAL_LOAD_LABEL(&load_case, "Front wheel      ", &status, 17);
  ASSERT_TRUE(status == 0 && model().load_cases.size() == 2u);
  EXPECT_EQ(model().load_cases[0].label, "Front wheel");
  EXPECT_EQ(model().load_cases[1].values, std::vector<double>{4.5});
  RecordingHost host;
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

TEST_F(Frame, ModeQueriesAnswerOverTheRegisteredModes) {
  krxtest::create_model(10, 3);
  RecordingHost host;
  int selected[2] = {30, 10}, count = 2;
  double t[6] = {-1, -1, -1, -1, -1, -1};
  // A null matrix and a model without modes are refused.
  KRX_GET_TRANSFORM_TO_SELMOD(nullptr, selected, &count, &status);
  int first = status;
  KRX_GET_TRANSFORM_TO_SELMOD(t, selected, &count, &status);
  EXPECT_TRUE(first == 1 && status == 1);
  EXPECT_EQ(host.messages, std::vector<Message>({{3, "NULL argument T passed into KRX_GET_TRANSFORM_TO_SELMOD\n"},
                                                 {3, "Invalid mode count found at line 1573 in file ..\\krx_fortran.\n"}}));
  for (int number : {10, 20, 10, 30}) krx::register_mode(&model(), number);
  // The count is stored while the status always says failure.
  int modes = -1;
  status = -1;
  KRX_GET_MODE_COUNT(&modes, &status);
  EXPECT_TRUE(modes == 3 && status == 1);
  // Without orthonormalisation the transformation is the identity: the rows of modes 30 and 10.
  KRX_GET_TRANSFORM_TO_SELMOD(t, selected, &count, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(std::vector<double>(t, t + 6), (std::vector<double>{0, 1, 0, 0, 1, 0}));
}

}  // namespace
