// Preparation of the preload and the modal loads: the rigid-body part of a modal vector becomes
// the resultant force and moment on the body, which the multibody program applies directly.
#include "processing/krxloads.h"

#include <cmath>
#include <cstdlib>

#include "base/krxmsg.h"
#include "model/krxtools.h"
#include "processing/krxinvar.h"
#include "processing/krxnumerics.h"
#include "processing/krxunits.h"

namespace krx {

namespace {

constexpr double kLoadTolerance = 1e-10;

// Generalized mass of retained mode r: the eigenvalue record's once the records exist, else the
// diagonal of the host's matrix.
double generalized_mass_of(const KRXDATA *model, int r) {
  if (r < int(model->eigen.size())) return model->eigen[r].generalized_mass;
  int32_t n = mode_count(model);
  if (r >= n) return 0.0;
  for (auto it = model->mass.rbegin(); it != model->mass.rend(); ++it) {
    if (it->row == r && it->column == r) return it->value;
  }
  return 0.0;
}

void clear_small(std::array<double, 6> &out) {
  for (double &v : out) {
    if (std::fabs(v) <= kLoadTolerance) v = 0.0;
  }
}

bool has_nodal_masses(const KRXDATA *model) {
  if (!model->flags[kFlagNodalMasses]) return false;
  for (const NodeRecord &node : model->nodes) {
    if (node.mass != 0.0) return true;
  }
  return false;
}

// Overwrites the first six entries (as many as the vector has) with the resultants.
int apply_resultant(KRXDATA *model, std::vector<double> &values, int k, bool rigid_method) {
  std::array<double, 6> out{};
  int ok = rigid_method ? rigid_mass_resultant(model, values, k, out)
                        : nodal_mass_resultant(model, values, k, out);
  if (!ok) return 0;
  for (std::size_t i = 0; i < 6 && i < values.size(); ++i) values[i] = out[i];
  return 1;
}

}  // namespace

int nodal_mass_resultant(KRXDATA *model, const std::vector<double> &values, int k,
                         std::array<double, 6> &out) {
  out.fill(0.0);
  for (int r = 0; r < k && r < int(values.size()); ++r) {
    double g = generalized_mass_of(model, r);
    if (g == 0.0 || values[r] == 0.0) continue;
    if (!load_mode_record_by_index(model, r, kModeShapes)) return 0;
    const std::vector<double> &shape = model->store[kModeShapes].record;
    std::size_t count = std::min(model->nodes.size(), shape.size() / 6);
    double f[3] = {0, 0, 0}, m[3] = {0, 0, 0};
    for (std::size_t n = 0; n < count; ++n) {
      const NodeRecord &node = model->nodes[n];
      if (node.mass == 0.0) continue;
      const double *phi = &shape[6 * n];
      double x[3] = {node.x, node.y, node.z};
      for (int c = 0; c < 3; ++c) f[c] += node.mass * phi[c];
      cross_accumulate(m, node.mass, x, phi);
    }
    double s = values[r] / g;
    for (int c = 0; c < 3; ++c) {
      out[c] += s * f[c];
      out[3 + c] += s * m[c];
    }
  }
  clear_small(out);
  return 1;
}

// A rigid-body mode moves node n by phi(n) = t + theta x x_n; q = (t, theta) are its six rigid
// coordinates. Its modal momentum h = (sum m phi, sum m x x phi + sum J psi), which invariants 3
// and 4 hold, is Mrb q with the body's rigid-body mass matrix
//     Mrb = [ m I       -skew(S) ]    m: invariant 1, S: invariant 2 (first moments),
//           [ skew(S)    J       ]    J: invariant 7 (inertia about the origin).
// The nodal-mass method sums (p_r / g_r) sum_n m_n (phi_r(n), x_n x phi_r(n)), which for a rigid
// mode is (p_r / g_r) Mrb q_r. So the resultant is Mrb a with the rigid-body acceleration
// a = sum_r (p_r / g_r) q_r, and q_r = Mrb^-1 h_r: only the body's mass properties and the modal
// momenta are needed, no nodal mass. Without nodal inertias both methods agree to rounding.
int rigid_mass_resultant(KRXDATA *model, const std::vector<double> &values, int k,
                         std::array<double, 6> &out) {
  out.fill(0.0);
  double mass = invariant1(model);
  std::vector<double> s = invariant2(model), j = invariant7(model);
  std::vector<double> h3 = invariant3(model), h4 = invariant4(model);
  if (s.size() < 3) s.assign(3, 0.0);
  if (j.size() < 9) j.assign(9, 0.0);
  std::array<double, 36> rigid{};
  for (int c = 0; c < 3; ++c) rigid[6 * c + c] = mass;
  const double skew[9] = {0, -s[2], s[1], s[2], 0, -s[0], -s[1], s[0], 0};
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      rigid[6 * r + 3 + c] = -skew[3 * r + c];
      rigid[6 * (3 + r) + c] = skew[3 * r + c];
      rigid[6 * (3 + r) + 3 + c] = j[3 * r + c];
    }
  }
  std::array<double, 36> lu = rigid, inverse{};
  double *rows[6];
  for (int r = 0; r < 6; ++r) rows[r] = &lu[6 * r];
  int32_t permutation[6];
  if (!lu_decompose(rows, 6, permutation)) {
    error("LU Decomposition failed.\n");
    return 0;
  }
  if (!invert_matrix(rows, 6, permutation, inverse.data())) {
    error("Failed in invert matrix.\n");
    return 0;
  }
  int32_t modes = int32_t(h3.size() / 3);
  std::array<double, 6> acceleration{};
  for (int r = 0; r < k && r < int(values.size()) && r < modes; ++r) {
    double g = generalized_mass_of(model, r);
    if (g == 0.0 || values[r] == 0.0) continue;
    double h[6];
    for (int c = 0; c < 3; ++c) {
      h[c] = h3[c * modes + r];
      h[3 + c] = r < int32_t(h4.size() / 3) ? h4[c * modes + r] : 0.0;
    }
    for (int a = 0; a < 6; ++a) {
      double q = 0.0;
      for (int b = 0; b < 6; ++b) q += inverse[6 * a + b] * h[b];
      acceleration[a] += values[r] / g * q;
    }
  }
  for (int a = 0; a < 6; ++a) {
    for (int b = 0; b < 6; ++b) out[a] += rigid[6 * a + b] * acceleration[b];
  }
  clear_small(out);
  return 1;
}

int prepare_loads(KRXDATA *model) {
  if (!model_exists(model)) return 0;
  int k = rigid_body_mode_count(model);
  bool rigid_method = std::getenv("QOR_MFORCE_NO_FEA_MASS") != nullptr || !has_nodal_masses(model);
  int ok = 1;
  if (!model->preload.empty()) {
    if (!model->preload_applied) {
      if (!apply_resultant(model, model->preload, k, rigid_method)) ok = 0;
      else model->preload_applied = 1;
    }
    for (int r = 0; r < k && r < int(model->preload.size()); ++r) {
      if (std::fabs(model->preload[r]) > kLoadTolerance) {
        warning("KRX contains a preload with a rigid body component which is being ignored");
      }
    }
  }
  if (k < 6 && !model->load_cases.empty()) {
    warning("KRX only contains %d rigid body modes.\n  The resultant load vector will be mishandled.\n",
            k);
  }
  for (LoadCase &load : model->load_cases) {
    if (load.applied) continue;
    if (!apply_resultant(model, load.values, k, rigid_method)) {
      ok = 0;
      continue;
    }
    load.applied = 1;
  }
  return ok;
}

}  // namespace krx
