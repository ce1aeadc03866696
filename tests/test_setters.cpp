// The setters: what they store, which flags they raise, and the exact warnings of their checks.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "host/krx_fortran.h"
#include "host/krxset.h"
#include "testsupport.h"

using krxtest::Message;
using krxtest::RecordingHost;

namespace {

struct Setters : ::testing::Test {
  void SetUp() override { krxtest::create_model(100, 10); }
  void TearDown() override { krxtest::terminate_model(); }
  krx::KRXDATA *model() { return krx::current_model(); }
  void fresh_model(int modes) {
    krxtest::terminate_model();
    krxtest::create_model(10, modes);
  }
  void register_modes(std::initializer_list<int> numbers) {
    for (int number : numbers) krx::register_mode(model(), number);
  }
};

TEST_F(Setters, HeaderWarnsOfLongTextsAndBlanksNewlinesInTheCallersText) {
  RecordingHost host;
  std::string title(130, 'a'), type(20, 'b'), comment(81, 'c');
  title[3] = '\n';
  char name[] = "model.fem", empty[] = "", two_lines[] = "line one\nline two";
  ASSERT_EQ(krx::set_header(model(), title.data(), name, type.data(), comment.data(), empty, two_lines), 1);
  EXPECT_EQ(title[3], ' ');
  EXPECT_EQ(std::string(model()->title.data()), title.substr(0, 127));
  EXPECT_EQ(std::string(model()->input_type.data()), std::string(15, 'b'));
  EXPECT_EQ(std::string(model()->comments[2].data()), "line one line two");
  EXPECT_EQ(host.texts(2), (std::vector<std::string>{
                               "Title too big: max size 127, specified size 130.\nTruncating title.",
                               "Input file type sp" "ec too big: max size 15, specified size 20.\n"
                               "Truncating input file type.",
                               "Comment 1 too big: max size 79, specified size 81.\nTruncating Comment 1."}));
  EXPECT_TRUE(host.has(0, "Name : model.fem") && host.has(0, "Comment 3: line one line two"));
  // The calendar text: 24 characters and the newline turned into a blank.
  std::string date = model()->date.data();
  ASSERT_EQ(date.size(), 25u) << date;
  EXPECT_TRUE(date[3] == ' ' && date[13] == ':' && date[16] == ':' && date.back() == ' ') << date;
}

TEST_F(Setters, NodesMassesAndInertiasLandInTheirRecordsWithTheirFlags) {
  ASSERT_TRUE(krx::set_node_coordinates(model(), 7, 1.0, 2.0, 3.0) && krx::set_nodal_mass(model(), 7, 2.0));
  ASSERT_TRUE(krx::add_nodal_mass(model(), 7, 0.5) && krx::add_nodal_mass(model(), 9, 1.5));
  EXPECT_FALSE(model()->flags[krx::kFlagNodalInertias] || model()->nodes[0].inertia);
  EXPECT_TRUE(model()->nodes[0].mass == 2.5 && model()->nodes[1].id == 9 && model()->nodes[1].mass == 1.5);

  const double inertia[6] = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(krx::set_nodal_inertia(model(), 7, inertia), 1);
  // A product of inertia named from below the diagonal is the same term.
  for (auto [id, row, column, value] : {std::tuple{7, 3, 2, 60.0}, {7, 1, 3, 50.0}, {9, 2, 2, 20.0}, {9, 1, 1, 10.0}})
    ASSERT_EQ(krx::set_nodal_inertia_term(model(), id, row, column, value), 1);
  EXPECT_EQ(*model()->nodes[0].inertia, (std::array<double, 6>{1, 2, 3, 4, 50, 60}));
  EXPECT_EQ(*model()->nodes[1].inertia, (std::array<double, 6>{10, 20, 0, 0, 0, 0}));

  RecordingHost host;
  EXPECT_EQ(krx::set_nodal_inertia_term(model(), 7, 0, 4, 1.0), 0);
  EXPECT_EQ(krx::set_node_coordinates(nullptr, 1, 0, 0, 0), 0);
  EXPECT_EQ(host.texts(3).size(), 2u);
  EXPECT_TRUE(host.has(3, "The database has not been initialized."));
}

TEST_F(Setters, GlobalMassPropertiesAreCheckedAgainstInvariantsOrTheNodalData) {
  const double origin[3] = {}, no_inertia[9] = {};
  RecordingHost host;
  krx::set_nodal_mass(model(), 1, 10.0000001);
  ASSERT_EQ(krx::set_global_mass(model(), 10.0, origin, no_inertia), 1);
  EXPECT_TRUE(host.messages.empty());
  krx::set_nodal_mass(model(), 1, 10.001);
  ASSERT_EQ(krx::set_global_mass(model(), 10.0, origin, no_inertia), 1);
  EXPECT_EQ(host.messages, std::vector<Message>({{2, "Global mass is inconsistent with INVAR1 setting or sum of nodal masses."}}));
  EXPECT_TRUE(model()->total_mass == 10.0 && model()->flags[krx::kFlagGlobalBodyProps] == 1);
  EXPECT_EQ(krx::set_global_mass(model(), 10.0, nullptr, no_inertia), 0);

  // Two unit masses at (1, 1, 0) and (3, 1, 0): centre (2, 1, 0); tensor sum of m (|x|^2 I - x x^T)
  // with (1, 2) = -(1 + 3) = -4, which the host gives as the product of inertia +4.
  fresh_model(2);
  host.clear();
  krx::set_node_coordinates(model(), 1, 1.0, 1.0, 0.0);
  krx::set_node_coordinates(model(), 2, 3.0, 1.0, 0.0);
  krx::set_nodal_mass(model(), 1, 1.0);
  krx::set_nodal_mass(model(), 2, 1.0);
  const double centre[3] = {2.0, 1.0, 0.0}, off_centre[3] = {2.0, 1.5, 9.0};
  const double inertia[9] = {2, 4, 0, 4, 10, 0, 0, 0, 12}, wrong_sign[9] = {2, -4, 0, -4, 10, 0, 0, 0, 12};
  ASSERT_EQ(krx::set_global_mass(model(), 2.0, centre, inertia), 1);
  EXPECT_TRUE(host.messages.empty());
  krx::set_global_mass(model(), 2.0, off_centre, wrong_sign);
  EXPECT_EQ(host.texts(2), (std::vector<std::string>{
                               "Global center of mass is inconsistent with INVAR2 setting or nodal data.",
                               "Global mass inertia is inconsistent with INVAR7 setting or nodal data."}));

  // Invariants the host has set win over the nodal masses.
  fresh_model(2);
  host.clear();
  const double moment[3] = {20.0, 0.0, 0.0}, at_two[3] = {2.0, 0.0, 0.0};
  krx::set_nodal_mass(model(), 1, 3.0);
  krx::set_invariant1(model(), 10.0);
  krx::set_invariant2(model(), moment);
  krx::set_global_mass(model(), 10.0, at_two, no_inertia);
  EXPECT_TRUE(host.messages.empty());
  // Without any mass the centre is the first moment itself.
  fresh_model(2);
  host.clear();
  krx::set_global_mass(model(), 0.0, at_two, no_inertia);
  EXPECT_EQ(host.messages, std::vector<Message>({{0, "Global mass is being set to zero."},
                                                 {2, "Global center of mass is inconsistent with "
                                                     "INVAR2 setting or nodal data."}}));
}

// Matrix entries are appended, never merged, and set the switches they show; loads and preloads
// grow to the mode, load cases with their default labels; interface nodes are marked once each.
TEST_F(Setters, MatricesLoadsAndInterfaceNodesGrowByAppending) {
  const std::tuple<int, int, double, std::pair<int, int>> entries[] = {
      {1, 1, 1.0, {0, 0}}, {2, 2, 1.0, {0, 0}}, {1, 2, 0.0, {1, 0}}, {2, 2, 2.0, {1, 1}}};
  for (const auto &[row, column, value, switches] : entries) {
    ASSERT_EQ(krx::set_generalized_mass(model(), row, column, value), 1);
    EXPECT_EQ(std::pair(model()->gm_off_diagonal, model()->gm_not_unit), switches) << row << column << value;
  }
  EXPECT_TRUE(model()->mass.size() == 4u && model()->mass[3].row == 1 && model()->mass[3].value == 2.0);
  krx::register_mode(model(), 8);  // modes 1 and 2 come first, from the matrix entries
  ASSERT_EQ(krx::set_modal_load(model(), 4, 9, 1.5), 1);
  ASSERT_EQ(model()->load_cases.size(), 5u);
  EXPECT_EQ(model()->load_cases[3].label, "Load Case 4");
  EXPECT_EQ(model()->load_cases[4].values, (std::vector<double>{0.0, 0.0, 0.0, 1.5}));
  ASSERT_EQ(krx::set_modal_preload(model(), 4, 2.5), 1);
  EXPECT_EQ(model()->preload, (std::vector<double>{0.0, 0.0, 0.0, 0.0, 2.5}));
  RecordingHost host;
  ASSERT_EQ(krx::set_modal_load_label(model(), 0, std::string(300, 'L').c_str()), 1);
  EXPECT_EQ(model()->load_cases[0].label, std::string(255, 'L'));
  EXPECT_EQ(host.messages, std::vector<Message>({{2, "Modal load label too big: max size 255, specified size 300.  Truncating label."}}));
  // Many marks in a scattered order, then each again: one mark per node, in first-mark order.
  for (int32_t i = 0; i < 2000; ++i) krx::set_interface_node(model(), 1000 + (i * 7919) % 2000);
  for (int32_t i = 0; i < 2000; ++i) krx::set_interface_node(model(), 1000 + i);
  ASSERT_EQ(model()->interface_nodes.size(), 2000u);
  EXPECT_EQ(model()->nodes[std::size_t(model()->interface_nodes[1])].id, 1000 + 7919 % 2000);
  // Modes beyond the capacity fail the matrix setters.
  fresh_model(1);
  EXPECT_EQ(krx::set_generalized_mass(model(), 1, 2, 1.0), 0);
  EXPECT_TRUE(model()->mass.empty() && host.texts(3).size() == 1u);
}

// Invariant setters check their values and modes; the per-mode ones keep their layout (5 is
// antisymmetric, 9 keeps the transpose for (k, j)) and warn of broken symmetry.
TEST_F(Setters, InvariantSettersCheckValuesModesAndSymmetry) {
  RecordingHost host;
  const double almost[2] = {1.0, 0.9999999999}, a[3] = {1, 2, 3}, b[3] = {4, 5, 6}, m[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  EXPECT_FALSE(krx::set_invariant1(model(), 0.0) || krx::set_invariant1(model(), std::nan("")));
  EXPECT_EQ(krx::set_invariant6(model(), almost), 1);  // a model without modes takes any invariant 6
  register_modes({10, 20});
  EXPECT_EQ(krx::set_invariant6(model(), almost), 0);
  EXPECT_EQ(krx::set_invariant3(model(), 6, a), 0);
  EXPECT_TRUE(model()->mass.empty() && !model()->has_invariant1 && model()->invariant3.empty());
  const std::vector<std::string> errors = host.texts(3);
  ASSERT_EQ(errors.size(), 4u);
  EXPECT_EQ(std::vector<std::string>(errors.begin(), errors.begin() + 3),
            (std::vector<std::string>{"Inertia Invariant 1 must be greater than zero", "Inertia Invariant 1 must be greater than zero",
                                      "Inertia Invariant 6 must be an identity matrix."}));
  EXPECT_TRUE(errors[3].starts_with("Mode number 6 does not exist.  Requested at line ") &&
              errors[3].ends_with(" in file ..\\krxset.\n")) << errors[3];
  krx::set_invariant3(model(), 20, a);
  register_modes({30});
  krx::set_invariant3(model(), 30, b);
  EXPECT_EQ(model()->invariant3, (std::vector<double>{0, 1, 4, 0, 2, 5, 0, 3, 6}));
  host.clear();
  krx::set_invariant5(model(), 10, 30, a);
  const auto &inv5 = model()->invariant5;
  EXPECT_TRUE(inv5[0 * 9 + 0 * 3 + 2] == 1.0 && inv5[0 * 9 + 2 * 3 + 2] == 3.0 && inv5[2 * 9 + 1 * 3 + 0] == -2.0);
  ASSERT_EQ(krx::set_invariant9(model(), 10, 20, m), 1);
  const auto &inv9 = model()->invariant9;
  EXPECT_EQ(std::vector<double>(inv9.begin() + 9, inv9.begin() + 18), std::vector<double>(m, m + 9));
  EXPECT_EQ(std::vector<double>(inv9.begin() + 27, inv9.begin() + 36), (std::vector<double>{1, 4, 7, 2, 5, 8, 3, 6, 9}));
  EXPECT_TRUE(host.messages.empty());
  krx::set_invariant5(model(), 20, 20, b);
  krx::set_invariant9(model(), 20, 20, m);
  EXPECT_EQ(host.messages, std::vector<Message>({{2, "I5(20, 20) is not zero.\n   (4.00000000e+00, 5.00000000e+00, 6.00000000e+00)"},
                                                 {2, "I9(20, 20) is not symmetric.\n"
                                                     "   1.00000000e+00 2.00000000e+00 3.00000000e+00\n"
                                                     "   4.00000000e+00 5.00000000e+00 6.00000000e+00\n"
                                                     "   7.00000000e+00 8.00000000e+00 9.00000000e+00\n"}}));
}

}  // namespace
