// Mesh coarsening on real meshes: flat plates and a cylinder of triangles; the argument string
// with its warnings; the nodes that must stay; co-linear vertex removal; a model without faces.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "host/krx_fortran.h"
#include "mesh/krxcoarse.h"
#include "mesh/krxfaces.h"
#include "model/krxtools.h"
#include "testsupport.h"

using krxtest::Message;
using krxtest::RecordingHost;

namespace {

using Faces = std::vector<std::vector<int32_t>>;

struct CoarsenTest : krxtest::ModelTest {
  void SetUp() override { fresh(0); }
  void fresh(int modes) {
    ModelTest::fresh(modes ? 25 : 0, modes);
    host.clear();
  }
  void node(int32_t id, double x, double y, double z) {
    krx::NodeRecord &n = model->nodes[size_t(krx::add_node(model, id))];
    n.x = x, n.y = y, n.z = z;
  }
  void face(std::vector<int32_t> ids) { ASSERT_EQ(krx::add_face(model, int32_t(ids.size()), ids.data()), 1); }
  // An n x n plate of unit quadrilaterals in z = 0, oriented alike; node (row r, column c) has
  // id r (n + 1) + c + 1 and that id's position minus one.
  void plate(int n) {
    for (int r = 0; r <= n; ++r)
      for (int c = 0; c <= n; ++c) node(r * (n + 1) + c + 1, c, r, 0.0);
    for (int r = 0; r < n; ++r)
      for (int c = 0; c < n; ++c) {
        int32_t a = r * (n + 1) + c + 1;
        face({a, a + 1, a + n + 2, a + n + 1});
      }
  }
  Faces faces() const {
    Faces out = krxtest::face_ids(model);
    EXPECT_EQ(int32_t(out.size()), model->face_count);
    return out;
  }
  // After any coarsening: a well-formed list of the model's nodes, at least two vertices a face,
  // and every node that had to stay still on the outline.
  std::set<int32_t> expect_valid_outline(const std::vector<int32_t> &kept_ids = {}) const {
    const std::vector<int32_t> &list = model->faces;
    std::set<int32_t> used;
    int32_t count = 0;
    for (size_t at = 0; at < list.size(); at += size_t(list[at]) + 1, ++count) {
      if (list[at] < 2 || at + size_t(list[at]) >= list.size()) {
        ADD_FAILURE() << "face " << count << " has " << list[at] << " vertices";
        return used;
      }
      for (size_t j = at + 1; j <= at + size_t(list[at]); ++j)
        if (list[j] < 0 || list[j] >= krx::node_count(model)) ADD_FAILURE() << "position " << list[j];
        else used.insert(model->nodes[size_t(list[j])].id);
    }
    EXPECT_EQ(count, model->face_count);
    for (int32_t id : kept_ids) EXPECT_TRUE(used.count(id)) << "node " << id << " left the outline";
    return used;
  }

  // An open tube of flat facets split into triangles; at 24 around, neighbours meet at 15 degrees.
  void tube(int around, int rows) {
    auto id = [&](int j, int k) { return k * around + (j % around) + 1; };
    for (int k = 0; k <= rows; ++k)
      for (int j = 0; j < around; ++j)
        node(id(j, k), 10.0 * std::cos(6.28318530718 * j / around), 10.0 * std::sin(6.28318530718 * j / around), k);
    for (int k = 0; k < rows; ++k)
      for (int j = 0; j < around; ++j) {
        face({id(j, k), id(j + 1, k), id(j + 1, k + 1)});
        face({id(j, k), id(j + 1, k + 1), id(j, k + 1)});
      }
  }

  RecordingHost host{1};  // quiet: no progress line unless a test asks for it
};

// Followed node by node: interior nodes 7, 8, 12 and 13 close their rings and go, while 9, 14, 17,
// 18 and 19 meet a vertex beyond the distance limit of the grown polygon.
TEST_F(CoarsenTest, FourByFourPlateMergesIntoFourPolygons) {
  plate(4);
  krx::coarsen(model, "0.5,10,0");
  EXPECT_EQ(faces(), (Faces{{18, 17, 16, 11, 6, 1, 2, 3, 4, 9, 14, 19},
                            {20, 19, 14, 9, 4, 5, 10, 15},
                            {22, 21, 16, 17, 18, 19, 24, 23},
                            {19, 20, 25, 24}}));
  EXPECT_EQ(host.messages, (std::vector<Message>{{0, "Coarsening to resolution 50% with face-angle 10.00 deg"},
                                                 {0, "Preserving nodes: "}, {0, " NONE"},
                                                 {0, "\nFace reduction from 16 to 4"}}));
  EXPECT_EQ(krx::node_count(model), 25);  // nodes themselves are never touched
}

TEST_F(CoarsenTest, ListedInterfaceAndStressNodesStayAndAreNamed) {
  plate(4);
  krx::coarsen(model, "0.5,10,0,7,999,13");
  expect_valid_outline({7, 13});
  std::vector<std::string> notes = host.texts(0);
  EXPECT_EQ(std::vector<std::string>(notes.begin() + 1, notes.begin() + 4), (std::vector<std::string>{"Preserving nodes: ", "7 ", "13 "}));
  fresh(1);
  plate(4);
  const double values[6] = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(krx::store_node_vector(model, 1, 7, krx::kModalStress, values), 1);
  ASSERT_EQ(krx::store_node_vector(model, 1, 13, krx::kModalStrain, values), 1);
  model->interface_nodes = {8};  // id 9
  krx::coarsen(model, "0.5,10,0,preserve_str");
  expect_valid_outline({7, 9, 13});
  notes = host.texts(0);
  EXPECT_EQ(std::vector<std::string>(notes.begin() + 1, notes.begin() + 5),
            (std::vector<std::string>{"Preserving nodes: ", "9 ", "7 ", "13 "}));
  // Node 7 stays as a slit 6-7-6; the second pass through node 6 leaves too short a remainder
  // of the long loop, so that vertex 6 goes there (a deliberate rule).
  EXPECT_EQ(faces()[0], (std::vector<int32_t>{7, 6, 1, 2, 3, 4, 9, 14, 13, 18, 17, 16, 11}));
  // The keyword counts wherever it follows the node ids, even in place of the angle (read as 0,
  // so 10 degrees); without it stress nodes may go.
  for (const char *arguments : {"0.5,10,0,0,preserve_str", "0.5,preserve_str", "0.5,10,0"}) {
    fresh(0);
    plate(4);
    model->store[krx::kModalStress].nodes = {6};
    krx::coarsen(model, arguments);
    bool kept = std::string(arguments).find("preserve_str") != std::string::npos;
    EXPECT_EQ(expect_valid_outline().count(7), kept ? 1u : 0u) << arguments;
  }
}

// Below 15 degrees no fan is flat and the faces come back as they were; co-linear removal drops
// vertices, never faces.
TEST_F(CoarsenTest, FacetsAtFifteenDegreesMergeOnlyAboveThatAngle) {
  auto changes = [&](const char *arguments, int around = 24) {
    fresh(0);
    tube(around, 5);
    const std::vector<int32_t> original = model->faces;
    krx::coarsen(model, arguments);
    expect_valid_outline();
    return model->faces != original;
  };
  EXPECT_FALSE(changes("0.5,45,0", 4));  // a square tube: every node is on a right-angled edge
  EXPECT_FALSE(changes("0.2,14.9,0"));
  EXPECT_TRUE(changes("0.2,15.1,0") && model->face_count < 240);
  EXPECT_TRUE(changes("0.2,45,0") && model->face_count < 240);
  const int32_t merged = model->face_count;
  const size_t words = model->faces.size();
  changes("0.2,45,1");
  EXPECT_TRUE(model->face_count == merged && model->faces.size() < words);
}

TEST_F(CoarsenTest, OutOfRangeSettingsFallBackToTheirDefaultsWithAWarning) {
  const std::string resolution = "Coarsening resolution outside the 0-50 percent range not supported.  You selected ";
  const std::string angle = "Face angles outside the 0-45 degree range not supported.  You selected ";
  struct Case {
    const char *arguments;
    std::vector<std::string> warnings;
    const char *setting;
  };
  for (const Case &c : {Case{"0.6,10,0", {resolution + "60.000000\n"}, "2% with face-angle 10.00"},
                        Case{"0.05,60,0", {angle + "60.000000\n"}, "5% with face-angle 10.00"},
                        Case{"0,0,0", {resolution + "0.000000\n", angle + "0.000000\n"}, "2% with face-angle 10.00"},
                        Case{"0.5,45", {}, "50% with face-angle 45.00"},
                        Case{"0.25,12.5,0", {}, "25% with face-angle 12.50"}}) {
    fresh(0);
    plate(2);
    krx::coarsen(model, c.arguments);
    EXPECT_EQ(host.texts(2), c.warnings) << c.arguments;
    EXPECT_EQ(host.texts(0)[0], "Coarsening to resolution " + std::string(c.setting) + " deg") << c.arguments;
  }
}

// Without faces the empty outline fails as an allocation (a kept quirk) and the trim is refused.
TEST_F(CoarsenTest, ModelWithoutFacesIsLeftAlone) {
  node(1, 0, 0, 0);
  node(2, 1, 0, 0);
  krx::coarsen(model, "0.1,10,0");
  ASSERT_EQ(host.messages.size(), 3u);
  EXPECT_TRUE(host.messages[0].text.starts_with("Failed to allocate memory at line ")) << host.messages[0].text;
  EXPECT_EQ(host.messages[2], (Message{3, "Problem encountered while trimming geometry\n"}));
  EXPECT_TRUE(model->faces.empty() && model->face_count == 0);
}

}  // namespace
