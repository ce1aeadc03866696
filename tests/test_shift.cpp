// Shift of the reference frame to the centre of mass.
#include <gtest/gtest.h>

#include "host/krx_fortran.h"
#include "processing/krxshift.h"
#include "testsupport.h"

namespace {

struct ShiftTest : ::testing::Test {
  void SetUp() override { krxtest::create_model(10, 2); }
  void TearDown() override { krxtest::terminate_model(); }
  krx::KRXDATA &model() { return *krx::current_model(); }
  void node(int id, double x, double y, double z, double mass) {
    krx::NodeRecord &n = model().nodes.emplace_back();
    n.id = id, n.x = x, n.y = y, n.z = z, n.mass = mass;
  }
  krxtest::RecordingHost host;
};

TEST_F(ShiftTest, TwoUnitMassesMoveToTheCentreAndTheSecondRunFindsTheOrigin) {
  node(1, 0.0, 0.0, 0.0, 1.0);
  node(2, 2.0, 0.0, 0.0, 1.0);
  model().centre_of_mass = {5.0, 6.0, 7.0};
  for (int run = 0; run < 2; ++run) {
    krx::shift_to_centre_of_mass(&model());
    EXPECT_EQ(model().nodes[0].x, -1.0);
    EXPECT_EQ(model().nodes[1].x, 1.0);
  }
  EXPECT_EQ(host.messages, (std::vector<krxtest::Message>{{0, "Shifting LBRF to CM at (1.000e+00,0.000e+00,0.000e+00)\n"},
                                                          {0, "Shifting LBRF to CM at (0.000e+00,0.000e+00,0.000e+00)\n"}}));
  // Only the first component of the stored centre is reset.
  EXPECT_EQ(model().centre_of_mass, (std::array<double, 3>{0.0, 6.0, 7.0}));
}

TEST_F(ShiftTest, WeightsByMassInAllThreeDirectionsAndLeavesInertiasAlone) {
  node(1, 1.0, 2.0, 3.0, 3.0);
  node(2, 5.0, -2.0, 7.0, 1.0);
  node(3, 9.0, 9.0, 9.0, 0.0);  // no mass: moves, does not count
  model().nodes[0].inertia = std::make_unique<std::array<double, 6>>(std::array<double, 6>{1, 2, 3, 4, 5, 6});
  krx::shift_to_centre_of_mass(&model());
  EXPECT_DOUBLE_EQ(model().nodes[0].x, -1.0);
  EXPECT_DOUBLE_EQ(model().nodes[0].y, 1.0);
  EXPECT_DOUBLE_EQ(model().nodes[0].z, -1.0);
  EXPECT_DOUBLE_EQ(model().nodes[2].x, 7.0);
  EXPECT_EQ(*model().nodes[0].inertia, (std::array<double, 6>{1, 2, 3, 4, 5, 6}));
  EXPECT_TRUE(host.has(0, "Shifting LBRF to CM at (2.000e+00,1.000e+00,4.000e+00)\n"));
}

TEST_F(ShiftTest, WithoutMassesOrNodesNothingMovesAndNothingIsSaid) {
  krx::shift_to_centre_of_mass(&model());
  node(1, 3.0, 0.0, 0.0, 0.0);
  model().centre_of_mass = {5.0, 6.0, 7.0};
  krx::shift_to_centre_of_mass(&model());
  EXPECT_EQ(model().nodes[0].x, 3.0);
  EXPECT_EQ(model().centre_of_mass[0], 5.0);
  EXPECT_TRUE(host.messages.empty());
  krx::shift_to_centre_of_mass(nullptr);
  EXPECT_TRUE(host.has(3, "The database has not been initialized."));
}

}  // namespace
