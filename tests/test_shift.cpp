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

TEST_F(ShiftTest, WeightsByMassInAllThreeDirectionsAndWithoutMassNothingMoves) {
  krx::shift_to_centre_of_mass(&model());  // no nodes
  node(3, 9.0, 9.0, 9.0, 0.0);
  model().centre_of_mass = {5.0, 6.0, 7.0};
  krx::shift_to_centre_of_mass(&model());  // no mass
  EXPECT_EQ(model().nodes[0].x, 9.0);
  EXPECT_EQ(model().centre_of_mass[0], 5.0);
  krx::shift_to_centre_of_mass(nullptr);
  EXPECT_EQ(host.messages, (std::vector<krxtest::Message>{{3, "The database has not been initialized."}}));
  host.clear();
  node(1, 1.0, 2.0, 3.0, 3.0);
  node(2, 5.0, -2.0, 7.0, 1.0);
  model().nodes[1].inertia = std::make_unique<std::array<double, 6>>(std::array<double, 6>{1, 2, 3, 4, 5, 6});
  krx::shift_to_centre_of_mass(&model());
  EXPECT_DOUBLE_EQ(model().nodes[1].x, -1.0);
  EXPECT_DOUBLE_EQ(model().nodes[1].y, 1.0);
  EXPECT_DOUBLE_EQ(model().nodes[1].z, -1.0);
  EXPECT_DOUBLE_EQ(model().nodes[0].x, 7.0);  // no mass: moves, does not count
  EXPECT_EQ(*model().nodes[1].inertia, (std::array<double, 6>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(host.messages, (std::vector<krxtest::Message>{{0, "Shifting LBRF to CM at (2.000e+00,1.000e+00,4.000e+00)\n"}}));
}

}  // namespace
