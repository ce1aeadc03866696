// Units: setting by SI multipliers, and the conversion of every stored quantity when a populated
// model changes units.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "host/krx_fortran.h"
#include "processing/krxunits.h"
#include "testsupport.h"

using krx::Dimension;

namespace {

std::string names_of(const krx::KRXDATA *model) {
  char m[16], L[16], t[16], F[16];
  krx::get_unit_names(model, m, L, t, F);
  return std::string(m) + "/" + L + "/" + t + "/" + F;
}

struct UnitsTest : krxtest::ModelTest {
  void SetUp() override { fresh(10, 8); }

  void add_node(int id, double x, double y, double z, double mass) {
    auto &node = model->nodes[krx::node_position_or_add(model, id)];
    node.x = x, node.y = y, node.z = z, node.mass = mass;
  }
  int set(const char *m, const char *L, const char *t, const char *F) {
    return krx::set_units_by_names(model, m, L, t, F);
  }
};

// Unset units read as SI; multipliers select the first close row of the table, and an incoherent
// system has its force consistency factor.
TEST_F(UnitsTest, MultipliersSelectTheFirstCloseRowAndGiveTheForceFactor) {
  EXPECT_EQ(names_of(model), "KILOGRAM/METER/SECOND/NEWTON");
  EXPECT_EQ(krx::force_consistency_factor(model), 1.0);
  ASSERT_EQ(krx::set_units_by_multipliers(model, 1.0, 0.001, 1.0, 1.0), 1);
  EXPECT_EQ(names_of(model), "KILOGRAM/MILLIMETER/SECOND/NEWTON");
  ASSERT_EQ(krx::set_units_by_multipliers(model, 0.45359237, 0.02540001, 1.0, 4.448), 1);
  EXPECT_EQ(names_of(model), "POUND_MASS/INCH/SECOND/POUND_FORCE");
  EXPECT_NEAR(krx::force_consistency_factor(model), 386.0886, 1e-4);
  for (double length : {0.3, 0.025, 0.0}) EXPECT_EQ(krx::set_units_by_multipliers(model, 1.0, length, 1.0, 1.0), 0);
  EXPECT_EQ(krx::set_units_by_multipliers(model, 1.0, 1.0, -1.0, 1.0), 0);
  EXPECT_EQ(names_of(model), "POUND_MASS/INCH/SECOND/POUND_FORCE");
}

// From lbm/in/s/lbf to t/mm/ms/N every ratio differs from 1 and from the others, and no two
// factors of either system are equal.
struct ConversionTest : UnitsTest {
  const double m = 0.45359237e-3, L = 25.4, t = 1000.0, F = 4.44822161526;
  void convert() {
    ASSERT_EQ(set("lbm", "in", "s", "lbf"), 1);
    ASSERT_EQ(set("tonne", "mm", "ms", "n"), 1);
  }
};

TEST_F(ConversionTest, EveryStoredQuantityTakesTheRatiosOfItsDimension) {
  add_node(1, 1.0, 2.0, 3.0, 5.0);
  model->nodes[0].inertia = std::make_unique<std::array<double, 6>>(std::array<double, 6>{1, 1, 1, 1, 1, 1});
  model->mass = model->stiffness = model->damping = {{0, 0, 1.0}};
  model->total_mass = 1.0;
  model->centre_of_mass = {1.0, 1.0, 1.0};
  model->global_inertia.fill(1.0);
  model->eigen = {{1, 4.0, 2.0, 3.0, 5.0, 6.0}, {2, krx::kInfiniteEigenvalue, 1.0, 1.0, 1.0, 1.0}};
  model->statistics.resize(1);
  model->statistics[0].reals.fill(1.0);
  model->has_invariant1 = true;
  model->invariant1 = 1.0;
  model->invariant2 = model->invariant3 = model->invariant9 = {1.0};
  convert();
  const auto &node = model->nodes[0];
  const auto &eigen = model->eigen[0];
  const double *stats = model->statistics[0].reals.data();
  const std::pair<double, double> converted[] = {
      {node.z, 3.0 * L}, {node.mass, 5.0 * m}, {(*node.inertia)[5], m * L * L},
      {model->mass[0].value, m * L * L}, {model->stiffness[0].value, F * L}, {model->damping[0].value, t * F * L},
      {model->total_mass, m}, {model->centre_of_mass[2], L}, {model->global_inertia[8], m * L * L},
      {eigen.eigenvalue, 4.0 * F * L / (m * L * L)}, {eigen.hertz, 2.0 / t}, {eigen.radians, 3.0 / t},
      {eigen.generalized_mass, 5.0 * m * L * L}, {eigen.generalized_stiffness, 6.0 * F * L},
      {stats[0], L}, {stats[2], F / (L * L)},
      {model->invariant1, m}, {model->invariant2[0], m * L}, {model->invariant3[0], m * L},
      {model->invariant9[0], m * L * L}};
  for (std::size_t i = 0; i < std::size(converted); ++i) EXPECT_DOUBLE_EQ(converted[i].first, converted[i].second) << i;
  EXPECT_TRUE(stats[1] == 1.0 && stats[3] == 1.0);
  EXPECT_EQ(model->eigen[1].eigenvalue, krx::kInfiniteEigenvalue);
}

}  // namespace
