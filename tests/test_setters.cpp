// The setters: what they store, which flags they raise, and the checks of the global mass properties.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "host/krx_fortran.h"
#include "host/krxset.h"
#include "testsupport.h"

using krxtest::Message;
using krxtest::RecordingHost;

namespace {

struct Setters : krxtest::ModelTest {
  void SetUp() override { fresh(100, 10); }
};

TEST_F(Setters, NodesMassesAndInertiasLandInTheirRecordsWithTheirFlags) {
  ASSERT_TRUE(krx::set_node_coordinates(model, 7, 1.0, 2.0, 3.0) && krx::set_nodal_mass(model, 7, 2.0));
  ASSERT_TRUE(krx::add_nodal_mass(model, 7, 0.5) && krx::add_nodal_mass(model, 9, 1.5));
  EXPECT_FALSE(model->flags[krx::kFlagNodalInertias] || model->nodes[0].inertia);
  EXPECT_TRUE(model->nodes[0].mass == 2.5 && model->nodes[1].id == 9 && model->nodes[1].mass == 1.5);

  const double inertia[6] = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(krx::set_nodal_inertia(model, 7, inertia), 1);
  // A product of inertia named from below the diagonal is the same term.
  for (auto [id, row, column, value] : {std::tuple{7, 3, 2, 60.0}, {7, 1, 3, 50.0}, {9, 2, 2, 20.0}, {9, 1, 1, 10.0}})
    ASSERT_EQ(krx::set_nodal_inertia_term(model, id, row, column, value), 1);
  EXPECT_EQ(*model->nodes[0].inertia, (std::array<double, 6>{1, 2, 3, 4, 50, 60}));
  EXPECT_EQ(*model->nodes[1].inertia, (std::array<double, 6>{10, 20, 0, 0, 0, 0}));

  RecordingHost host;
  EXPECT_EQ(krx::set_nodal_inertia_term(model, 7, 0, 4, 1.0), 0);
  EXPECT_EQ(krx::set_node_coordinates(nullptr, 1, 0, 0, 0), 0);
  EXPECT_EQ(host.texts(3).size(), 2u);
  EXPECT_TRUE(host.has(3, "The database has not been initialized."));
}

TEST_F(Setters, GlobalMassPropertiesAreCheckedAgainstInvariantsOrTheNodalData) {
  const double origin[3] = {}, no_inertia[9] = {};
  RecordingHost host;
  krx::set_nodal_mass(model, 1, 10.0000001);
  ASSERT_EQ(krx::set_global_mass(model, 10.0, origin, no_inertia), 1);
  EXPECT_TRUE(host.messages.empty());
  krx::set_nodal_mass(model, 1, 10.001);
  ASSERT_EQ(krx::set_global_mass(model, 10.0, origin, no_inertia), 1);
  EXPECT_EQ(host.messages, std::vector<Message>({{2, "Global mass is inconsistent with INVAR1 setting or sum of nodal masses."}}));
  EXPECT_TRUE(model->total_mass == 10.0 && model->flags[krx::kFlagGlobalBodyProps] == 1);
  EXPECT_EQ(krx::set_global_mass(model, 10.0, nullptr, no_inertia), 0);

  // Two unit masses at (1, 1, 0) and (3, 1, 0): centre (2, 1, 0); tensor sum of m (|x|^2 I - x x^T)
  // with (1, 2) = -(1 + 3) = -4, which the host gives as the product of inertia +4.
  fresh(10, 2);
  host.clear();
  krx::set_node_coordinates(model, 1, 1.0, 1.0, 0.0);
  krx::set_node_coordinates(model, 2, 3.0, 1.0, 0.0);
  krx::set_nodal_mass(model, 1, 1.0);
  krx::set_nodal_mass(model, 2, 1.0);
  const double centre[3] = {2.0, 1.0, 0.0}, off_centre[3] = {2.0, 1.5, 9.0};
  const double inertia[9] = {2, 4, 0, 4, 10, 0, 0, 0, 12}, wrong_sign[9] = {2, -4, 0, -4, 10, 0, 0, 0, 12};
  ASSERT_EQ(krx::set_global_mass(model, 2.0, centre, inertia), 1);
  EXPECT_TRUE(host.messages.empty());
  krx::set_global_mass(model, 2.0, off_centre, wrong_sign);
  EXPECT_EQ(host.texts(2), (std::vector<std::string>{
                               "Global center of mass is inconsistent with INVAR2 setting or nodal data.",
                               "Global mass inertia is inconsistent with INVAR7 setting or nodal data."}));

  // Invariants the host has set win over the nodal masses.
  fresh(10, 2);
  host.clear();
  const double moment[3] = {20.0, 0.0, 0.0}, at_two[3] = {2.0, 0.0, 0.0};
  krx::set_nodal_mass(model, 1, 3.0);
  krx::set_invariant1(model, 10.0);
  krx::set_invariant2(model, moment);
  krx::set_global_mass(model, 10.0, at_two, no_inertia);
  EXPECT_TRUE(host.messages.empty());
  // Without any mass the centre is the first moment itself.
  fresh(10, 2);
  host.clear();
  krx::set_global_mass(model, 0.0, at_two, no_inertia);
  EXPECT_EQ(host.messages, std::vector<Message>({{0, "Global mass is being set to zero."},
                                                 {2, "Global center of mass is inconsistent with "
                                                     "INVAR2 setting or nodal data."}}));
}

}  // namespace
