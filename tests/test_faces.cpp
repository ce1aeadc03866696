// Element faces: appending with repeated vertices dropped, stripping of interior faces,
// replacement from a sketch file, and the set of nodes that faces and interface nodes use.
#include <gtest/gtest.h>

#include <fstream>

#include "host/krx_fortran.h"
#include "mesh/krxfaces.h"
#include "model/krxdata.h"
#include "testsupport.h"

using krxtest::RecordingHost;

namespace {

using Faces = std::vector<std::vector<int32_t>>;

struct FaceTest : ::testing::Test {
  void SetUp() override {
    krxtest::create_model(0, 0);
    model = krx::current_model();
  }
  void TearDown() override { krxtest::terminate_model(); }

  int add(std::vector<int32_t> ids) { return krx::add_face(model, int32_t(ids.size()), ids.data()); }
  void nodes(std::vector<int32_t> ids) { for (int32_t id : ids) krx::add_node(model, id); }
  // The face list read back as node ids, checking that the counter agrees with it.
  Faces faces() const {
    Faces out = krxtest::face_ids(model);
    EXPECT_EQ(int32_t(out.size()), model->face_count);
    return out;
  }
  std::string sketch(const std::string &text) {
    std::string path = dir.file("outline.txt");
    std::ofstream(path) << text;
    return path;
  }

  krx::KRXDATA *model = nullptr;
  krxtest::TempDir dir;
  RecordingHost host;
};

TEST_F(FaceTest, AddFaceDropsRepeatedVerticesAndRefusesFewerThanTwo) {
  for (const Faces::value_type &ids : Faces{{5, 5, 5}, {4, 4}, {6}, {}}) EXPECT_EQ(add(ids), 0);
  // Nodes named by a refused face stay in the node table.
  EXPECT_TRUE(model->faces.empty() && model->flags[krx::kFlagElementFaces] == 0 && krx::node_position(model, 5) >= 0);
  // Only neighbours and the closing vertex count as repeats.
  for (const Faces::value_type &ids : Faces{{1, 2, 3, 1}, {7, 8, 9, 9}, {1, 1, 2, 2, 3}, {1, 2, 1, 2}, {2, 3}})
    EXPECT_EQ(add(ids), 1);
  EXPECT_EQ(faces(), (Faces{{1, 2, 3}, {7, 8, 9}, {1, 2, 3}, {1, 2, 1, 2}, {2, 3}}));
  EXPECT_EQ(model->flags[krx::kFlagElementFaces], 1);
  // Unknown nodes are created; the list holds node positions.
  const int32_t count = krx::node_count(model);
  EXPECT_EQ(add({5, 300, 1}), 1);
  EXPECT_EQ(krx::node_count(model), count + 1);
  EXPECT_EQ(std::vector<int32_t>(model->faces.end() - 4, model->faces.end()),
            (std::vector<int32_t>{3, krx::node_position(model, 5), count, krx::node_position(model, 1)}));
}

// Nodes 1..4, 10, 20, 30 exist in that order, so positions follow the ids.
TEST_F(FaceTest, StrippingDropsBothSidesOfASurfaceAndLeadsWithTheLargestNode) {
  struct Case {
    Faces given, kept;
  };
  for (const Case &c :
       {Case{{{1, 2, 3, 4}, {4, 3, 2, 1}}, {}}, Case{{{1, 2, 3, 4}, {2, 3, 4, 1}}, {{4, 1, 2, 3}}},
        Case{{{10, 30, 20}}, {{30, 20, 10}}},
        // The opposite side may start at another vertex, and faces may lie between the two.
        Case{{{1, 2, 3, 4}, {1, 3, 4}, {2, 4, 3}, {3, 2, 1, 4}}, {{4, 1, 3}, {4, 3, 2}}},
        // Two-node faces have no orientation: both sides count as a repeat.
        Case{{{10, 30, 20}, {1, 2}, {2, 1}, {1, 2, 3}}, {{2, 1}, {3, 1, 2}, {30, 20, 10}}},
        // One surface three times: the middle pair goes as an interior face and
        // the last copy then matches the opposite side before it (a kept rule).
        Case{{{1, 2, 3}, {3, 2, 1}, {1, 2, 3}}, {}}}) {
    TearDown();
    SetUp();
    nodes({1, 2, 3, 4, 10, 20, 30});
    for (const auto &face : c.given) add(face);
    host.clear();
    krx::strip_interior_faces(model);
    EXPECT_EQ(faces(), c.kept);
    EXPECT_EQ(host.texts(0), std::vector<std::string>{"Stripping interior faces"});
  }
}

TEST_F(FaceTest, EmptyListsCannotBeStrippedOrGiveANodeSet) {
  krx::strip_interior_faces(model);
  std::vector<int32_t> set;
  EXPECT_FALSE(krx::face_node_set(model, set));
  ASSERT_EQ(host.messages.size(), 2u);
  for (const krxtest::Message &m : host.messages)
    EXPECT_TRUE(m.level == 3 && m.text.starts_with("Failed to allocate memory at line ") &&
                m.text.ends_with(" in file ..\\krxfaces.\n")) << m.text;
  host.clear();
  nodes({1});
  model->interface_nodes = {0};
  EXPECT_FALSE(krx::face_node_set(model, set));
  EXPECT_FALSE(krx::face_node_set(nullptr, set));
  EXPECT_EQ(host.messages, (std::vector<krxtest::Message>{{3, "Missing element face information"},
                                                          {3, "The database has not been initialized."}}));
}

// A sketch file replaces every face, repeated vertices and all, and holds faces of any size.
TEST_F(FaceTest, SketchFileReplacesAllFacesWithoutDroppingVertices) {
  nodes({1, 2, 3, 4});
  add({1, 2, 3});
  std::string path = sketch("2\n 4 4 3 3 1\n1 2\n");
  krx::apply_sketch_file(model, path.c_str());
  EXPECT_EQ(faces(), (Faces{{4, 3, 3, 1}, {2}}));
  EXPECT_EQ(host.texts(0), std::vector<std::string>{"Using sketch file " + path + " to replace 1 faces with 2"});
  // A count of zero or less leaves no faces and is stored as read.
  krx::apply_sketch_file(model, sketch("-2\n").c_str());
  EXPECT_TRUE(model->face_count == -2 && model->faces.empty());
  std::string text = "1 1500";
  for (int32_t n = 1; n <= 1500; ++n) {
    krx::add_node(model, n);
    // Two steps: " " + std::to_string(n) draws a false -Wrestrict from g++ 12 -O3.
    text += ' ';
    text += std::to_string(n);
  }
  krx::apply_sketch_file(model, sketch(text).c_str());
  ASSERT_TRUE(model->face_count == 1 && model->faces.size() == 1501u);
  EXPECT_EQ(model->faces[1500], krx::node_position(model, 1500));
}

TEST_F(FaceTest, BrokenOrUnusableSketchFilesAreWarnedAboutAndKeepTheOldFaces) {
  nodes({1, 2, 3});
  add({1, 2, 3});
  const std::vector<int32_t> before = model->faces;
  // A file that cannot be used is not announced; a broken one is, before its faces are read.
  auto expect_refused = [&](const char *path, const std::string &warning, size_t notes = 1) {
    host.clear();
    krx::apply_sketch_file(model, path);
    EXPECT_EQ(host.texts(2), std::vector<std::string>{warning});
    EXPECT_EQ(host.texts(0).size(), notes) << warning;
    EXPECT_TRUE(model->faces == before && model->face_count == 1) << warning;
  };
  const std::string missing = dir.file("none.txt");
  expect_refused(nullptr, "Failed to apply sketch file.  Usage: sketch(filename)", 0);
  expect_refused(missing.c_str(), "Failed to open sketch file " + missing, 0);
  const std::string no_count = sketch("faces\n");
  expect_refused(no_count.c_str(), "Sketch file " + no_count + " does not start with a face count", 0);
  for (const auto &[text, warning] : std::vector<std::pair<std::string, std::string>>{
           {"3\n3 1 2 3\n2 1 2\n", "Incorrect definition of face 3.  Aborting."},
           {"2\n3 1 2 3\n3 1 2\n", "Incorrect definition of face 2.  Aborting."},
           {"2\n3 1 2 3\n2 1 99\n", "Incorrect definition of face 2.  No node 99. Aborting."},
           {"1\n-1\n", "Incorrect definition of face 1.  Aborting."},
           {"2\n3 1 x 3\n", "Incorrect definition of face 1.  Aborting."}})
    expect_refused(sketch(text).c_str(), warning);
}

TEST_F(FaceTest, FaceNodeSetJoinsFaceAndInterfaceNodesOnceAndIsKept) {
  nodes({10, 20, 30, 40, 50});
  add({30, 10, 20});
  add({20, 30, 40});
  model->interface_nodes = {4, 0, 4};
  std::vector<int32_t> set;
  ASSERT_TRUE(krx::face_node_set(model, set));
  EXPECT_EQ(set, (std::vector<int32_t>{0, 1, 2, 3, 4}));
  // Built once: later face changes do not reach it.
  add({10, 50});
  model->interface_nodes.clear();
  set.clear();
  ASSERT_TRUE(krx::face_node_set(model, set));
  EXPECT_EQ(set.size(), 5u);
}

}  // namespace
