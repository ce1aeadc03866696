// Units: name normalisation, factors, setting by names and by SI multipliers, and the conversion
// of every stored quantity when a populated model changes units.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "host/krx_fortran.h"
#include "processing/krxunits.h"
#include "testsupport.h"

using krx::Dimension;

namespace {

std::string normalized(const char *name) {
  char buffer[16] = {};
  std::strncpy(buffer, name, 15);
  return krx::normalize_unit_name(buffer) ? std::string(buffer) : "<none>";
}

std::string names_of(const krx::KRXDATA *model) {
  char m[16], L[16], t[16], F[16];
  krx::get_unit_names(model, m, L, t, F);
  return std::string(m) + "/" + L + "/" + t + "/" + F;
}

// Aliases match without regard to case but not to blanks; short aliases keep their odd meanings.
// Factors come from the table of the name's own dimension.
TEST(UnitNames, AliasesAndFactors) {
  const std::pair<const char *, const char *> cases[] = {
      {"Kg", "KILOGRAM"}, {"kilogram", "KILOGRAM"}, {" kg", "<none>"}, {"kgs", "<none>"}, {"", "<none>"},
      {"mgg", "MEGAGRAM"}, {"mg", "MILLIGRAM"}, {"dozen_slug", "SLINCH"}, {"d", "DAY"}};
  for (const auto &[given, name] : cases) EXPECT_EQ(normalized(given), name) << given;
  const std::tuple<Dimension, const char *, double> factors[] = {
      {Dimension::Length, "inch", 0.0254}, {Dimension::Mass, "SLINCH", 175.1271524}, {Dimension::Length, "GRAM", 0.0}};
  for (const auto &[dimension, name, factor] : factors) EXPECT_EQ(krx::unit_factor(dimension, name), factor) << name;
}

struct UnitsTest : ::testing::Test {
  void SetUp() override {
    krxtest::create_model(10, 8);
    model = krx::current_model();
  }
  void TearDown() override { krxtest::terminate_model(); }
  krx::KRXDATA *model = nullptr;

  void add_node(int id, double x, double y, double z, double mass) {
    auto &node = model->nodes[krx::node_position_or_add(model, id)];
    node.x = x, node.y = y, node.z = z, node.mass = mass;
  }
  int set(const char *m, const char *L, const char *t, const char *F) {
    return krx::set_units_by_names(model, m, L, t, F);
  }
  // Eigen records with these frequencies, all retained.
  void set_hertz(const std::vector<double> &hertz) {
    model->eigen.assign(hertz.size(), {});
    for (std::size_t j = 0; j < hertz.size(); ++j) model->eigen[j].hertz = hertz[j];
    model->retained_modes = int32_t(hertz.size());
  }
};

TEST_F(UnitsTest, FirstUnitsAreTakenAsTheDataAsItStandsAndAFailedSettingChangesNothing) {
  add_node(1, 1.0, 2.0, 3.0, 10.0);
  ASSERT_EQ(set("pound_mass", "inch", "second", "pound_force"), 1);
  EXPECT_EQ(set("kg", "m", "s", "furlong"), 0);
  EXPECT_EQ(set("kg", "m", "kg", "n"), 0);  // a mass name in the time slot
  EXPECT_EQ(set("kg", nullptr, "s", "n"), 0);
  EXPECT_EQ(names_of(model), "POUND_MASS/INCH/SECOND/POUND_FORCE");
  EXPECT_TRUE(model->nodes[0].y == 2.0 && model->nodes[0].mass == 10.0 && model->length_ratio == 1.0);

  ASSERT_EQ(set("KILOGRAM", "METER", "SECOND", "NEWTON"), 1);
  EXPECT_DOUBLE_EQ(model->nodes[0].mass, 10.0 * 0.45359237);
  ASSERT_EQ(set("kg", "m", "s", "n"), 1);  // the same units again
  EXPECT_DOUBLE_EQ(model->nodes[0].y, 2.0 * 0.0254);
  EXPECT_DOUBLE_EQ(model->length_ratio, 0.0254);  // ratios of the last real change
}

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

TEST_F(UnitsTest, RigidBodyModesAreCountedFromTheFrequencies) {
  const std::pair<std::vector<double>, int> cases[] = {
      {{0.0}, 0}, {{1e-4, 2e-4, 20.0, 30.0}, 2}, {{1.0, 2.0, 30000.0}, 2}, {{1.0, 2.0, 3.0}, 0},
      {{0.0, 1e-6, 5.0}, 1}};  // the last: anything exceeds 10000 x an exact zero
  for (const auto &[hertz, rigid] : cases) {
    set_hertz(hertz);
    EXPECT_EQ(krx::rigid_body_mode_count(model), rigid) << hertz.size() << " modes";
  }
}

// From lbm/in/s/lbf to kg/m/ms/N every ratio differs from 1 and from the others.
struct ConversionTest : UnitsTest {
  const double m = 0.45359237, L = 0.0254, t = 1000.0, F = 4.44822161526;
  void convert() {
    ASSERT_EQ(set("lbm", "in", "s", "lbf"), 1);
    ASSERT_EQ(set("kg", "m", "ms", "n"), 1);
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

// A prepared load vector leads with one force per rigid-body mode, three at most.
TEST_F(ConversionTest, PreparedLoadsHoldForcesInFrontOfMoments) {
  set_hertz({1e-4, 2e-4, 20.0, 30.0});  // two rigid-body modes
  model->preload.assign(4, 1.0);
  model->load_cases.resize(2);
  model->load_cases[0].values = model->load_cases[1].values = model->preload;
  model->load_cases[1].applied = 1;
  convert();
  std::vector<double> moments(4, F * L), prepared{F, F, F * L, F * L};
  for (int i = 0; i < 4; ++i) {
    EXPECT_DOUBLE_EQ(model->preload[i], moments[i]) << i;
    EXPECT_DOUBLE_EQ(model->load_cases[0].values[i], moments[i]) << i;
    EXPECT_DOUBLE_EQ(model->load_cases[1].values[i], prepared[i]) << i;
  }
  set_hertz({1e-4, 1e-4, 1e-4, 1e-4, 50.0, 60.0});  // four rigid-body modes, and back again
  model->preload.assign(6, 1.0);
  model->preload_applied = 1;
  ASSERT_EQ(set("lbm", "in", "s", "lbf"), 1);
  for (int i = 0; i < 6; ++i) EXPECT_DOUBLE_EQ(model->preload[i], i < 3 ? 1.0 / F : 1.0 / (F * L)) << i;
}

}  // namespace
