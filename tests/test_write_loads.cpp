// Preparation of preloads and modal loads: the two resultant methods, the processed marks and the
// warnings.
#include <gtest/gtest.h>

#include <cmath>

#include "host/krx_fortran.h"
#include "host/krxset.h"
#include "model/krxtools.h"
#include "processing/krxinvar.h"
#include "processing/krxloads.h"
#include "processing/krxunits.h"
#include "testsupport.h"

namespace {

using krx::KRXDATA;

// Five nodes with masses and no inertias, six rigid-body modes of mixed translation and rotation
// and one elastic mode; eigenvalue records with six zero frequencies, then 20 Hz.
KRXDATA *rigid_model() {
  krxtest::create_model(5, 7);
  KRXDATA *model = krx::current_model();
  const double xyz[5][3] = {{0, 0, 0}, {2, 0, 0}, {0, 3, 0}, {0, 0, 1.5}, {1, 1, 1}};
  const double masses[5] = {1.0, 2.0, 0.5, 1.5, 0.75};
  for (int n = 0; n < 5; ++n) {
    krx::set_node_coordinates(model, 10 + n, xyz[n][0], xyz[n][1], xyz[n][2]);
    krx::set_nodal_mass(model, 10 + n, masses[n]);
  }
  for (int r = 0; r < 7; ++r) {
    // Rigid coordinates (t, theta) of mode r: a mix so that no mode is a plain axis motion.
    double t[3] = {std::cos(r + 1.0), std::sin(2.0 * r), 0.3 * r - 0.5};
    double th[3] = {0.2 * std::sin(r), 0.1 * r, -0.15 * std::cos(r)};
    for (int n = 0; n < 5; ++n) {
      const double *x = xyz[n];
      double v[6] = {t[0] + th[1] * x[2] - th[2] * x[1], t[1] + th[2] * x[0] - th[0] * x[2],
                     t[2] + th[0] * x[1] - th[1] * x[0], th[0], th[1], th[2]};
      if (r == 6) v[0] += 0.1 * n * n;  // the elastic mode
      EXPECT_EQ(krx::store_node_vector(model, r + 1, 10 + n, krx::kModeShapes, v), 1);
    }
    krx::set_generalized_mass(model, r + 1, r + 1, 1.0 + 0.25 * r);
    model->eigen.push_back({r + 1, 0.0, r < 6 ? 0.0 : 20.0, 0.0, 1.0 + 0.25 * r, 0.0});
  }
  krx::compute_full_invariants(model);
  return model;
}

struct LoadPreparation : ::testing::Test {
  void TearDown() override { krxtest::terminate_model(); }
  krxtest::RecordingHost host;
  KRXDATA *model = rigid_model();
};

TEST_F(LoadPreparation, BothMethodsGiveTheSameResultantsWithoutNodalInertias) {
  ASSERT_EQ(krx::rigid_body_mode_count(model), 6);
  std::vector<double> values = {0.7, -1.3, 2.1, 0.4, -0.9, 1.6, 5.0};
  std::array<double, 6> nodal{}, rigid{};
  ASSERT_EQ(krx::nodal_mass_resultant(model, values, 6, nodal), 1);
  ASSERT_EQ(krx::rigid_mass_resultant(model, values, 6, rigid), 1);
  for (int c = 0; c < 6; ++c) {
    double scale = std::max(1.0, std::fabs(nodal[c]));
    EXPECT_LE(std::fabs(nodal[c] - rigid[c]) / scale, 1e-9) << "component " << c;
    EXPECT_NE(nodal[c], 0.0);
  }
}

TEST_F(LoadPreparation, WarnsWhenFewerThanSixRigidBodyModesCarryModalLoads) {
  model->eigen[5].hertz = 15.0;
  krx::set_modal_load(model, 0, 1, 1.0);
  ASSERT_EQ(krx::rigid_body_mode_count(model), 5);
  krx::prepare_loads(model);
  EXPECT_TRUE(host.has(krx::kWarning, "KRX only contains 5 rigid body modes.\n  The resultant load vector will be mishandled.\n"));
  // The rigid method reports a singular mass matrix.
  krxtest::create_model(2, 2);
  krx::set_node_coordinates(krx::current_model(), 1, 0, 0, 0);
  std::array<double, 6> out{};
  EXPECT_EQ(krx::rigid_mass_resultant(krx::current_model(), {1.0, 1.0}, 2, out), 0);
  EXPECT_TRUE(host.has(krx::kError, "LU Decomposition failed.\n"));
}

}  // namespace
