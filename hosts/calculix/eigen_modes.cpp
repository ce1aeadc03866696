// The checks of the lowest modes, whichever back-end computed them: each mode's residual, and the
// count of eigenvalues below the last one that a missed mode cannot fool; and the shift.
#include <algorithm>
#include <chrono>
#include <cmath>

#include "solver.h"

namespace ccx {

namespace {

// The shift's fraction of the median diagonal ratio K_rr / M_rr, an element's highest
// eigenvalue in scale. The lowest elastic eigenvalue lies some 1e-6 of it below on a coarse
// mesh and less on finer ones; the factor of K - sigma M stays well conditioned away from the
// rigid-body modes, which are deflated.
const double kShiftFraction = 1e-8;

double norm(const std::vector<double> &v) { return std::sqrt(dot(v, v)); }

}  // namespace

void restrict_rows(const Matrices &m, const std::vector<int> &keep, Matrices &sub) {
  std::vector<int> new_index(static_cast<size_t>(m.n), -1);
  for (size_t k = 0; k < keep.size(); ++k) new_index[keep[k]] = static_cast<int>(k);
  sub.n = static_cast<int>(keep.size());
  sub.start.assign(1, 0);
  sub.row.clear();
  sub.stiffness.clear();
  sub.mass.clear();
  for (int c : keep) {
    for (int64_t k = m.start[c]; k < m.start[c + 1]; ++k) {
      int r = new_index[m.row[k]];
      if (r < 0) continue;
      sub.row.push_back(r);
      sub.stiffness.push_back(m.stiffness[k]);
      sub.mass.push_back(m.mass[k]);
    }
    sub.start.push_back(static_cast<int64_t>(sub.row.size()));
  }
}

double lower_shift(const Matrices &m) {
  std::vector<double> ratio;
  ratio.reserve(static_cast<size_t>(m.n));
  for (int c = 0; c < m.n; ++c)
    for (int64_t k = m.start[c]; k < m.start[c + 1]; ++k)
      if (m.row[k] == c && m.mass[k] > 0.0 && m.stiffness[k] > 0.0)
        ratio.push_back(m.stiffness[k] / m.mass[k]);
  if (ratio.empty()) return -1.0;
  auto middle = ratio.begin() + static_cast<long>(ratio.size() / 2);
  std::nth_element(ratio.begin(), middle, ratio.end());
  return -kShiftFraction * *middle;
}

bool check_residuals(const Matrices &m, const Modes &modes, double tolerance) {
  size_t n = static_cast<size_t>(m.n);
  std::vector<double> phi(n), k_phi(n), m_phi(n), r(n);
  // A rigid-body mode has K phi and lambda at rounding level: the lowest elastic eigenvalue
  // gives the scale its residual is measured against.
  double scale = modes.values[static_cast<size_t>(modes.rigid)];
  for (size_t j = 0; j < modes.values.size(); ++j) {
    std::copy(&modes.vectors[j * n], &modes.vectors[j * n] + n, phi.begin());
    multiply(m, m.stiffness, phi.data(), k_phi.data());
    multiply(m, m.mass, phi.data(), m_phi.data());
    double lambda = modes.values[j];
    for (size_t i = 0; i < n; ++i) r[i] = k_phi[i] - lambda * m_phi[i];
    double residual = norm(r) / (norm(k_phi) + std::max(std::fabs(lambda), scale) * norm(m_phi));
    double mass = dot(phi, m_phi);
    if (!(residual <= tolerance))
      return failed("mode %zu (eigenvalue %.7g) has the residual %.2e, above %.0e", j + 1, lambda,
                    residual, tolerance);
    if (!(std::fabs(mass - 1.0) < 1e-8))
      return failed("mode %zu has generalized mass %.10g, not 1", j + 1, mass);
  }
  return true;
}

bool check_missed_modes(const Matrices &m, const std::vector<int64_t> &ordering, const Modes &modes,
                        double &seconds) {
  return check_mode_count(
      modes,
      [&](double shift, int64_t &count) {
        return count_eigenvalues_below(m, shift, ordering, count);
      },
      seconds);
}

namespace {

// The shift goes into the widest relative gap after the last wanted eigenvalue; found is the
// number of modes computed below it, below the count of the model's eigenvalues there.
struct ModeCount {
  double shift = 0.0;
  size_t found = 0;
  int64_t below = 0;
};

bool count_modes(const Modes &modes, const EigenvalueCounter &count_below, ModeCount &count,
                 double &seconds) {
  const std::vector<double> &v = modes.values;
  // Never inside the rigid-body modes, whose eigenvalues are zero to rounding.
  size_t first = static_cast<size_t>(std::max(modes.wanted, modes.rigid));
  size_t split = first;
  double widest = -1.0;
  for (size_t s = first; s < v.size(); ++s) {
    double gap = (v[s] - v[s - 1]) / std::max(std::fabs(v[s]), std::fabs(v[s - 1]));
    if (gap > widest) {
      widest = gap;
      split = s;
    }
  }
  count.shift = 0.5 * (v[split - 1] + v[split]);
  count.found = split;
  auto begin = std::chrono::steady_clock::now();
  bool ok = count_below(count.shift, count.below);
  seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return ok;
}

bool agree(const ModeCount &count) {
  if (count.below == static_cast<int64_t>(count.found)) return true;
  return failed(
      "the model has %lld eigenvalues below %.7g, but Lanczos found %zu: %s; ask for "
      "more modes or report the model",
      static_cast<long long>(count.below), count.shift, count.found,
      count.below > static_cast<int64_t>(count.found) ? "it missed a mode" : "the count disagrees");
}

}  // namespace

bool check_mode_count(const Modes &modes, const EigenvalueCounter &count_below, double &seconds) {
  ModeCount count;
  seconds = 0.0;
  return count_modes(modes, count_below, count, seconds) && agree(count);
}

bool solve_and_count(const ModeSolver &solve, const EigenvalueCounter &count_below, Modes &modes,
                     double &seconds) {
  seconds = 0.0;
  ModeCount count;
  if (!solve(0, modes) || !count_modes(modes, count_below, count, seconds)) return false;
  int64_t missed = count.below - static_cast<int64_t>(count.found);
  if (missed <= 0) return agree(count);
  note(
      "note: the model has %lld eigenvalues below %.7g, Lanczos found %zu; computing again with "
      "%lld more modes and a wider subspace",
      static_cast<long long>(count.below), count.shift, count.found,
      static_cast<long long>(missed + kExtraModes));
  if (!solve(static_cast<int>(missed) + kExtraModes, modes) ||
      !count_modes(modes, count_below, count, seconds))
    return false;
  return agree(count);
}

}  // namespace ccx
