// Element faces: appending with repeated vertices dropped and stripping of interior faces.
#include <gtest/gtest.h>

#include "host/krx_fortran.h"
#include "mesh/krxfaces.h"
#include "model/krxdata.h"
#include "testsupport.h"

using krxtest::RecordingHost;

namespace {

using Faces = std::vector<std::vector<int32_t>>;

struct FaceTest : krxtest::ModelTest {
  void SetUp() override { fresh(0, 0); }

  int add(std::vector<int32_t> ids) { return krx::add_face(model, int32_t(ids.size()), ids.data()); }
  void nodes(std::vector<int32_t> ids) { for (int32_t id : ids) krx::add_node(model, id); }
  // The face list read back as node ids, checking that the counter agrees with it.
  Faces faces() const {
    Faces out = krxtest::face_ids(model);
    EXPECT_EQ(int32_t(out.size()), model->face_count);
    return out;
  }

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

}  // namespace
