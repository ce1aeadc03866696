// The lowest modes: shift-invert Lanczos (Spectra) on the back-end's factor, each mode's residual,
// and the count of eigenvalues below the last one that a missed mode cannot fool.
#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <Spectra/SymGEigsShiftSolver.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include "solver.h"

namespace ccx {

namespace {

// (K - sigma M)^-1 x through the factor (made for sigma already), kept M-orthogonal to the
// deflated modes z: rounding would otherwise bring them back.
struct ShiftInvertOp {
  using Scalar = double;
  Factor *factor;
  int n;
  const std::vector<double> *z;    // the deflated modes, n values each
  const std::vector<double> *m_z;  // M times each of them
  mutable int solves = 0;
  mutable bool ok = true;
  Eigen::Index rows() const { return n; }
  Eigen::Index cols() const { return n; }
  void set_shift(double) {}
  void perform_op(const double *x, double *y) const {
    std::copy(x, x + n, y);
    ok = ok && solve_shifted(*factor, y, 1);
    show_count("solves", ++solves, 0);
    deflate(y);
  }
  void deflate(double *y) const {
    size_t size = static_cast<size_t>(n);
    for (size_t k = 0; k < z->size() / size; ++k) {
      const double *zk = &(*z)[k * size], *mzk = &(*m_z)[k * size];
      double c = 0.0;
      for (size_t i = 0; i < size; ++i) c += mzk[i] * y[i];
      for (size_t i = 0; i < size; ++i) y[i] -= c * zk[i];
    }
  }
};

struct MassOp {
  using Scalar = double;
  const Matrices *m;
  Eigen::Index rows() const { return m->n; }
  Eigen::Index cols() const { return m->n; }
  void perform_op(const double *x, double *y) const { multiply(*m, m->mass, x, y); }
};

// Eigenvalues beyond the wanted ones, so that the missed-mode check can place its shift in a gap.
const int kExtraModes = 3;
const double kLanczosTolerance = 1e-10;
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

namespace {

// The combinations of the motions on which K vanishes (Rayleigh quotient below a thousandth of
// the shift, where elastic modes lie far above): M-orthonormal vectors z, M z, their eigenvalues.
bool null_motions(const Matrices &m, const std::vector<double> &motions, double sigma,
                  std::vector<double> &z, std::vector<double> &m_z, std::vector<double> &values) {
  size_t n = static_cast<size_t>(m.n);
  int count = static_cast<int>(motions.size() / n);
  z.clear();
  m_z.clear();
  values.clear();
  if (count == 0) return true;
  std::vector<double> k_r(n * count), m_r(n * count);
  Eigen::MatrixXd kk(count, count), mm(count, count);
  for (int j = 0; j < count; ++j) {
    multiply(m, m.stiffness, &motions[j * n], &k_r[j * n]);
    multiply(m, m.mass, &motions[j * n], &m_r[j * n]);
  }
  for (int i = 0; i < count; ++i)
    for (int j = 0; j < count; ++j) {
      double k_ij = 0.0, m_ij = 0.0;
      for (size_t r = 0; r < n; ++r) {
        k_ij += motions[i * n + r] * k_r[j * n + r];
        m_ij += motions[i * n + r] * m_r[j * n + r];
      }
      kk(i, j) = k_ij;
      mm(i, j) = m_ij;
    }
  kk = 0.5 * (kk + kk.transpose()).eval();
  mm = 0.5 * (mm + mm.transpose()).eval();
  // Held rows can leave a motion without mass (a node's only free rows): such a model has no
  // zero eigenvalue, and Lanczos alone serves.
  Eigen::LLT<Eigen::MatrixXd> positive(mm);
  if (positive.info() != Eigen::Success || mm.diagonal().minCoeff() <= 0.0) return true;
  Eigen::GeneralizedSelfAdjointEigenSolver<Eigen::MatrixXd> pencil(kk, mm);
  if (pencil.info() != Eigen::Success) return true;
  for (int j = 0; j < count; ++j) {
    if (!(pencil.eigenvalues()(j) < 1e-3 * std::fabs(sigma))) continue;
    values.push_back(pencil.eigenvalues()(j));
    size_t at = z.size();
    z.resize(at + n, 0.0);
    m_z.resize(at + n, 0.0);
    for (int i = 0; i < count; ++i) {
      double c = pencil.eigenvectors()(i, j);
      for (size_t r = 0; r < n; ++r) {
        z[at + r] += c * motions[i * n + r];
        m_z[at + r] += c * m_r[i * n + r];
      }
    }
  }
  return true;
}

// A start vector with every direction in it, the same on every run, without the deflated modes.
std::vector<double> start_vector(const ShiftInvertOp &op) {
  std::vector<double> v(static_cast<size_t>(op.n));
  uint64_t state = 0x9E3779B97F4A7C15ull;
  for (double &x : v) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    x = static_cast<double>(state >> 11) / 9007199254740992.0 - 0.5;
  }
  op.deflate(v.data());
  return v;
}

}  // namespace

bool lowest_modes(const Matrices &m, Factor &f, double sigma, int wanted,
                  const std::vector<double> &motions, Modes &modes) {
  int nev = wanted + kExtraModes;
  if (nev >= m.n)
    return failed("%d modes asked, but the model has %d degrees of freedom (%d at most)", wanted,
                  m.n, m.n - kExtraModes - 1);
  std::vector<double> z, m_z, rigid_values;
  if (!null_motions(m, motions, sigma, z, m_z, rigid_values)) return false;
  int rigid = static_cast<int>(rigid_values.size());
  int lanczos = nev - rigid;
  int ncv = std::min(m.n - rigid, std::max(2 * lanczos + 1, 20));
  ShiftInvertOp op{&f, m.n, &z, &m_z};
  MassOp mass{&m};
  Spectra::SymGEigsShiftSolver<ShiftInvertOp, MassOp, Spectra::GEigsMode::ShiftInvert> solver(
      op, mass, lanczos, ncv, sigma);
  int converged = 0;
  try {
    std::vector<double> start = start_vector(op);
    solver.init(start.data());
    converged = static_cast<int>(solver.compute(Spectra::SortRule::LargestMagn, 1000,
                                                kLanczosTolerance, Spectra::SortRule::SmallestAlge));
  } catch (const std::bad_alloc &) {
    throw;
  } catch (const std::exception &e) {
    return failed("Lanczos stopped: %s", e.what());
  }
  modes.solves = op.solves;
  if (!op.ok) return false;
  if (solver.info() != Spectra::CompInfo::Successful || converged < lanczos)
    return failed("Lanczos converged %d of %d modes in %d solves", converged, lanczos, op.solves);
  modes.wanted = wanted;
  modes.rigid = rigid;
  Eigen::VectorXd values = solver.eigenvalues();
  modes.values = rigid_values;
  modes.values.insert(modes.values.end(), values.data(), values.data() + lanczos);
  modes.vectors = std::move(z);
  Eigen::MatrixXd vectors = solver.eigenvectors();
  modes.vectors.insert(modes.vectors.end(), vectors.data(), vectors.data() + vectors.size());
  return true;
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

// The shift goes into the widest relative gap after the last wanted eigenvalue; the count below it
// must be the number of modes computed below it.
bool check_missed_modes(const Matrices &m, const std::vector<int64_t> &ordering,
                        const Modes &modes, double &seconds) {
  return check_mode_count(
      modes,
      [&](double shift, int64_t &count) {
        return count_eigenvalues_below(m, shift, ordering, count);
      },
      seconds);
}

bool check_mode_count(const Modes &modes, const EigenvalueCounter &count_below, double &seconds) {
  const std::vector<double> &v = modes.values;
  size_t split = static_cast<size_t>(modes.wanted);
  double widest = -1.0;
  for (size_t s = static_cast<size_t>(modes.wanted); s < v.size(); ++s) {
    double gap = (v[s] - v[s - 1]) / std::max(std::fabs(v[s]), std::fabs(v[s - 1]));
    if (gap > widest) {
      widest = gap;
      split = s;
    }
  }
  double shift = 0.5 * (v[split - 1] + v[split]);
  auto begin = std::chrono::steady_clock::now();
  int64_t count = 0;
  bool ok = count_below(shift, count);
  seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  if (!ok) return false;
  if (count != static_cast<int64_t>(split))
    return failed(
        "the model has %lld eigenvalues below %.7g, but Lanczos found %zu: %s; ask for "
        "more modes or report the model",
        static_cast<long long>(count), shift, split,
        count > static_cast<int64_t>(split) ? "it missed a mode" : "the count disagrees");
  return true;
}

}  // namespace ccx
