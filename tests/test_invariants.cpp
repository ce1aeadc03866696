// Inertia invariants: hand-computed sums on a three-node, two-mode model, the fallback to the
// global mass properties, an unreadable mode, and blocked sums of random models against plain sums.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

#include "host/krx_fortran.h"
#include "model/krxtools.h"
#include "processing/krxinvar.h"
#include "processing/krxshift.h"
#include "processing/krxunits.h"
#include "testsupport.h"

using krxtest::RecordingHost;
using V = std::vector<double>;

namespace {

const std::string kFullWarning = "There is insufficient mass data to compute a full set of mass invariants.\n"
                                 "Some or all mass invariants will be set to zero.";
const std::string kPartialWarning = "There is insufficient mass data to compute a partial set of mass invariants.\n"
                                    "Some or all mass invariants will be set to zero.";

void expect_near(const V &actual, const V &expected, double tolerance = 1e-12) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i) EXPECT_NEAR(actual[i], expected[i], tolerance) << i;
}

// Blocked and plain sums differ only in the order of summation: 1e-12 of the largest value.
void expect_close_sums(const V &actual, const V &expected, int invariant) {
  SCOPED_TRACE(invariant);
  double scale = 0.0;
  for (double v : expected) scale = std::max(scale, std::abs(v));
  expect_near(actual, expected, 1e-12 * scale);
}

struct InvariantTest : krxtest::ModelTest {
  void add_node(int id, double x, double y, double z, double mass) {
    auto &node = model->nodes[krx::node_position_or_add(model, id)];
    node.x = x, node.y = y, node.z = z, node.mass = mass;
    if (mass != 0.0) model->flags[krx::kFlagNodalMasses] = 1;
  }
  void shape(int mode, int id, V v) { ASSERT_TRUE(krx::store_node_vector(model, mode, id, 0, v.data())); }

  // Node 1 at (1,0,0), mass 2, with an inertia; node 2 at (0,2,0), mass 3; node 3 at (0,0,1)
  // without mass but with large mode shapes, which must contribute nothing.
  void build_two_mode_model() {
    fresh(10, 4);
    add_node(1, 1, 0, 0, 2);
    add_node(2, 0, 2, 0, 3);
    add_node(3, 0, 0, 1, 0);
    model->nodes[0].inertia = std::make_unique<std::array<double, 6>>(std::array<double, 6>{1.0, 2.0, 3.0, 0.1, 0.2, 0.3});
    shape(10, 1, {0, 1, 0, 1, 0, 0});
    shape(10, 2, {1, 0, 0, 0, 0, 0});
    shape(10, 3, {5, 5, 5, 5, 5, 5});
    shape(20, 1, {0, 0, 1, 0, 0, 0});
    shape(20, 2, {0, 1, 0, 0, 0, 0});
    shape(20, 3, {7, 7, 7, 7, 7, 7});
  }

  // No nodal masses; only the global body properties.
  void build_global_mass_model(int modes, double total_mass) {
    fresh(10, 4);
    add_node(1, 1, 1, 1, 0);
    for (int j = 0; j < modes; ++j) krx::register_mode(model, j + 1);
    model->total_mass = total_mass;
    model->centre_of_mass = {1.0, 2.0, 3.0};
    model->global_inertia = {10, 1, 2, 1, 20, 3, 2, 3, 30};
  }
};

TEST_F(InvariantTest, SumsOverNodesMatchHandComputedValuesAndTheirSymmetries) {
  build_two_mode_model();
  EXPECT_DOUBLE_EQ(krx::invariant1(model), 5.0);
  expect_near(krx::invariant2(model), {2, 6, 0});
  expect_near(krx::invariant3(model), {3, 0, 2, 3, 0, 2});
  // Mode 0 adds the rotational part J psi = (1, 0.1, 0.2) of node 1.
  expect_near(krx::invariant4(model), {1, 0, 0.1, -2, -3.8, 0});
  expect_near(krx::invariant7(model), {13, 0.1, 0.2, 0.1, 4, 0.3, 0.2, 0.3, 17});
  expect_near(krx::invariant8(model, 0), {0, 6, 0, 2, 0, 0, 0, 0, 0});
  expect_near(krx::invariant8(model, 1), {-6, 0, 0, 0, 0, 0, 2, 0, -6});
  expect_near(krx::invariant9(model, 0, 0), {-2, 0, 0, 0, -3, 0, 0, 0, -5});
  expect_near(krx::invariant9(model, 0, 1), {0, 0, 0, 3, 0, 0, 0, 2, 0});

  V five0 = krx::invariant5(model, 0), five1 = krx::invariant5(model, 1);
  expect_near(five0, {0, 2, 0, 0, 0, 3});
  ASSERT_EQ(five1, (V{-2, 0, 0, 0, -3, 0}));  // antisymmetric
  // The diagonal is a true zero, not a negated one: the writer copies its bits.
  for (int c = 0; c < 3; ++c) EXPECT_FALSE(std::signbit(five0[c * 2]) || std::signbit(five1[c * 2 + 1])) << c;
  EXPECT_EQ(krx::invariant9(model, 1, 0), (V{0, 3, 0, 0, 0, 2, 0, 0, 0}));  // the transpose of (0, 1)
  EXPECT_TRUE(krx::invariant5(model, 2).empty());
  EXPECT_TRUE(krx::invariant9(model, 0, -1).empty());
}

TEST_F(InvariantTest, RecordMapGeneralizedMassAndPresetValuesAreHonoured) {
  build_two_mode_model();
  model->retained_modes = 1;
  model->record_map = {1};
  expect_near(krx::invariant3(model), {0, 3, 2});
  expect_near(krx::invariant9(model, 0, 0), {-5, 0, 0, 0, -2, 0, 0, 0, -3});

  build_two_mode_model();
  model->invariant9.assign(36, 1.5);
  krx::invariant5(model, 0);  // the pass that sums five must leave a preset nine alone
  EXPECT_EQ(krx::invariant9(model, 1, 1), V(9, 1.5));
  // Generalized mass becomes dense with the last value winning.
  model->mass = {{0, 0, 1.0}, {1, 1, 2.0}, {0, 1, 0.5}, {0, 1, 0.7}};
  expect_near(krx::invariant6(model), {1.0, 0.7, 0.0, 2.0});
  model->record_map = {1, 0};
  expect_near(krx::invariant6(model), {2.0, 0.0, 0.7, 1.0});
}

// Without nodal masses the global mass properties stand in (a zero global mass leaves zeros);
// without modes the per-mode invariants are absent and the drivers warn once each.
TEST_F(InvariantTest, GlobalMassPropertiesStandInAndWithoutModesThePerModeInvariantsAreAbsent) {
  RecordingHost host;
  build_global_mass_model(2, 4.0);
  krx::compute_rigid_invariants(model);
  EXPECT_EQ(host.messages, (std::vector<krxtest::Message>{{3, kFullWarning}, {0, "Computing *rigid* invariants"}}));
  EXPECT_DOUBLE_EQ(krx::invariant1(model), 4.0);
  expect_near(krx::invariant2(model), {4, 8, 12});
  expect_near(krx::invariant7(model), {10, -1, -2, -1, 20, -3, -2, -3, 30});
  expect_near(krx::invariant9(model, 1, 0), V(9, 0.0));
  host.clear();
  krx::compute_rigid_invariants(model);  // now cached: the data suffice
  EXPECT_EQ(host.messages, (std::vector<krxtest::Message>{{0, "Computing *rigid* invariants"}}));
  build_global_mass_model(0, 0.0);
  expect_near(krx::invariant2(model), {0, 0, 0});
  host.clear();
  fresh(10, 4);
  add_node(1, 1, 2, 3, 2.0);
  EXPECT_TRUE(krx::invariant3(model).empty() && krx::invariant5(model, 0).empty() && krx::invariant6(model).empty());
  krx::compute_rigid_invariants(model);
  krx::compute_fast_invariants(model);
  krx::compute_full_invariants(model);
  EXPECT_EQ(host.messages, (std::vector<krxtest::Message>{{0, "Computing *rigid* invariants"},
                                                          {3, kPartialWarning},
                                                          {0, "Computing fast set of invariants"},
                                                          {3, kFullWarning},
                                                          {0, "Computing *all* invariants"}}));
  EXPECT_DOUBLE_EQ(krx::invariant1(model), 2.0);
}

TEST_F(InvariantTest, AnUnreadableModeIsReportedOnceAndCountsAsZero) {
  RecordingHost host;
  build_two_mode_model();
  krx::flush_vector_store(model, krx::kModeShapes);
  model->store[krx::kModeShapes].record_start[1] = int64_t(1) << 40;  // past the end of the file
  host.clear();
  krx::compute_full_invariants(model);
  EXPECT_EQ(host.texts(3), std::vector<std::string>{"Problem reading mode shape 20"});
  expect_near(model->invariant3, {3, 0, 2, 0, 0, 0});
  expect_near(krx::invariant5(model, 0), V(6, 0.0));
  expect_near(krx::invariant9(model, 0, 0), {-2, 0, 0, 0, -3, 0, 0, 0, -5});
}

// Invariants 3, 4, 5, 8 and 9, in this order, summed the plain way, node by node and pair by pair,
// from records loaded one at a time.
enum { kThree, kFour, kFive, kEight, kNine };
std::array<V, 5> reference_sums(krx::KRXDATA *model) {
  const int32_t M = model->retained_modes;
  std::vector<V> shapes;
  for (int32_t j = 0; j < M; ++j) {
    EXPECT_EQ(krx::load_mode_record_by_index(model, model->record_map[j], krx::kModeShapes), 1);
    shapes.push_back(model->store[krx::kModeShapes].record);
  }
  std::array<V, 5> r{V(3 * M), V(3 * M), V(3 * M * M), V(9 * M), V(9 * M * M)};
  for (int32_t j = 0; j < M; ++j)
    for (std::size_t i = 0; i < model->nodes.size(); ++i) {
      const krx::NodeRecord &node = model->nodes[i];
      const double *phi = &shapes[j][6 * i], x[3] = {node.x, node.y, node.z};
      double four[3] = {};
      krx::cross_accumulate(four, node.mass, x, phi);
      if (node.inertia) {
        const auto &c = *node.inertia;
        const double J[9] = {c[0], c[3], c[4], c[3], c[1], c[5], c[4], c[5], c[2]};
        for (int a = 0; a < 3; ++a)
          for (int b = 0; b < 3; ++b) four[a] += J[3 * a + b] * phi[3 + b];
      }
      for (int c = 0; c < 3; ++c) {
        r[kThree][c * M + j] += node.mass * phi[c];
        r[kFour][c * M + j] += four[c];
      }
      krx::skew_accumulate(&r[kEight][9 * j], node.mass, x, phi);
      for (int32_t k = 0; k < M; ++k) {
        double five[3] = {};
        krx::cross_accumulate(five, node.mass, phi, &shapes[k][6 * i]);
        for (int c = 0; c < 3; ++c) r[kFive][3 * M * j + c * M + k] += five[c];
        krx::skew_accumulate(&r[kNine][9 * (M * j + k)], node.mass, phi, &shapes[k][6 * i]);
      }
    }
  return r;
}

// Random masses (every seventh node massless), positions, inertias on every third node and
// shapes in nine modes, of which seven are retained through a record map.
void build_random_model(krx::KRXDATA *model, int nodes) {
  std::mt19937 random(20261122);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int i = 0; i < nodes; ++i) {
    krx::NodeRecord &node = model->nodes[krx::node_position_or_add(model, i + 1)];
    node.x = 10 * u(random), node.y = 10 * u(random), node.z = u(random);
    node.mass = i % 7 == 3 ? 0.0 : 1.5 + u(random);
    if (i % 3 == 0)
      node.inertia = std::make_unique<std::array<double, 6>>(
          std::array<double, 6>{2 + u(random), 2 + u(random), 2 + u(random), u(random), u(random), u(random)});
  }
  model->flags[krx::kFlagNodalMasses] = 1;
  for (int mode = 1; mode <= 9; ++mode)
    for (int i = 0; i < nodes; ++i) {
      double v[6];
      for (double &value : v) value = u(random);
      ASSERT_EQ(krx::store_node_vector(model, mode, i + 1, krx::kModeShapes, v), 1);
    }
  model->retained_modes = 7;
  model->record_map = {8, 2, 5, 0, 7, 3, 1};
}

// Twenty thousand nodes take several panels; single precision and a unit change go through the
// same reads as the records. The fast driver leaves the pair invariants to the full one.
TEST_F(InvariantTest, BlockedSumsMatchPlainSumsOnRandomModels) {
  RecordingHost host;
  for (bool large : {false, true}) {
    SCOPED_TRACE(large ? "20000 nodes, single precision, unit change" : "200 nodes");
    fresh(large ? 20000 : 200, 9);
    model->own.precision = large ? 0 : 1;
    build_random_model(model, large ? 20000 : 200);
    if (large) {
      ASSERT_EQ(krx::set_units_by_names(model, "kg", "mm", "s", "n"), 1);
      ASSERT_EQ(krx::set_units_by_names(model, "kg", "m", "s", "n"), 1);
      ASSERT_NE(model->length_ratio, 1.0);
    }
    const std::array<V, 5> r = reference_sums(model);
    V *caches[] = {&model->invariant3, &model->invariant4, &model->invariant5, &model->invariant8, &model->invariant9};
    auto expect_sums = [&](bool pairs) {
      for (int i = 0; i < 5; ++i)
        if (pairs || (i != kFive && i != kNine)) expect_close_sums(*caches[i], r[i], "34589"[i] - '0');
        else EXPECT_TRUE(caches[i]->empty());
    };
    host.clear();
    krx::compute_fast_invariants(model);
    expect_sums(false);
    krx::compute_full_invariants(model);  // sums only the pair invariants
    expect_sums(true);
    for (V *cache : caches) cache->clear();
    krx::compute_full_invariants(model);  // all five in one pass
    expect_sums(true);
    EXPECT_EQ(host.texts(0), (std::vector<std::string>{"Computing fast set of invariants", "Computing *all* invariants",
                                                       "Computing *all* invariants"}));
    EXPECT_TRUE(host.texts(3).empty());
  }
}

}  // namespace
