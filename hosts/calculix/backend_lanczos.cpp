// The single-machine back-end's eigen iteration: shift-invert Lanczos (Spectra on Eigen) on the
// CHOLMOD factor, with a free body's rigid-body motions deflated.
#include <Spectra/SymGEigsShiftSolver.h>

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cmath>
#include <memory>

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

const double kLanczosTolerance = 1e-10;

}  // namespace

namespace {

// The combinations of the motions on which K vanishes (Rayleigh quotient below a thousandth of
// the shift, where elastic modes lie far above): M-orthonormal vectors z, M z, their eigenvalues.
// k_motions holds motions' K motions (motion_stiffness).
bool null_motions(const Matrices &m, const std::vector<double> &motions,
                  const std::vector<double> &k_motions, double sigma, std::vector<double> &z,
                  std::vector<double> &m_z, std::vector<double> &values) {
  size_t n = static_cast<size_t>(m.n);
  int count = static_cast<int>(motions.size() / n);
  z.clear();
  m_z.clear();
  values.clear();
  if (count == 0) return true;
  std::vector<double> m_r(n * count);
  Eigen::MatrixXd kk = Eigen::Map<const Eigen::MatrixXd>(k_motions.data(), count, count);
  Eigen::MatrixXd mm(count, count);
  for (int j = 0; j < count; ++j) multiply(m, m.mass, &motions[j * n], &m_r[j * n]);
  for (int i = 0; i < count; ++i)
    for (int j = 0; j < count; ++j) {
      double m_ij = 0.0;
      for (size_t r = 0; r < n; ++r) m_ij += motions[i * n + r] * m_r[j * n + r];
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

// A start vector with every direction in it, the same on every run with the same seed, without
// the deflated modes.
std::vector<double> start_vector(const ShiftInvertOp &op, uint64_t seed) {
  std::vector<double> v(static_cast<size_t>(op.n));
  uint64_t state = 0x9E3779B97F4A7C15ull + seed;
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

std::vector<double> motion_stiffness(const Matrices &m, const std::vector<double> &motions) {
  size_t n = static_cast<size_t>(m.n);
  size_t count = n > 0 ? motions.size() / n : 0;
  std::vector<double> kk(count * count), k_r(n);
  for (size_t j = 0; j < count; ++j) {
    multiply(m, m.stiffness, &motions[j * n], k_r.data());
    for (size_t i = 0; i < count; ++i) {
      double k_ij = 0.0;
      for (size_t r = 0; r < n; ++r) k_ij += motions[i * n + r] * k_r[r];
      kk[j * count + i] = k_ij;
    }
  }
  return kk;
}

bool lowest_modes(const Matrices &m, Factor &f, double sigma, int wanted,
                  const std::vector<double> &motions, Modes &modes, int more,
                  const std::vector<double> *k_motions) {
  int nev = wanted + kExtraModes;
  if (more > 0) nev = std::min(nev + more, m.n - 1);
  if (nev >= m.n)
    return failed("%d modes asked, but the model has %d degrees of freedom (%d at most)", wanted,
                  m.n, m.n - kExtraModes - 1);
  std::vector<double> z, m_z, rigid_values;
  std::vector<double> kk = k_motions ? *k_motions : motion_stiffness(m, motions);
  if (!null_motions(m, motions, kk, sigma, z, m_z, rigid_values)) return false;
  int rigid = static_cast<int>(rigid_values.size());
  // Past the rigid-body modes the check needs a gap: Lanczos finds a few modes even when fewer
  // are wanted than the body has rigid-body modes.
  int lanczos = std::max(nev - rigid, kExtraModes + 1);
  if (rigid + lanczos >= m.n)
    return failed("%d modes asked, but the model has %d degrees of freedom (%d at most)", wanted,
                  m.n, m.n - kExtraModes - 1 - rigid);
  // A second run gets a wider subspace: a mode the first one missed is weak in its start vector.
  int ncv = std::min(m.n - rigid, std::max((more > 0 ? 3 : 2) * lanczos + 1, 20));
  ShiftInvertOp op{&f, m.n, &z, &m_z};
  MassOp mass{&m};
  using Solver =
      Spectra::SymGEigsShiftSolver<ShiftInvertOp, MassOp, Spectra::GEigsMode::ShiftInvert>;
  auto solver = std::make_unique<Solver>(op, mass, lanczos, ncv, sigma);
  int converged = 0;
  try {
    std::vector<double> start = start_vector(op, static_cast<uint64_t>(more));
    solver->init(start.data());
    converged = static_cast<int>(solver->compute(
        Spectra::SortRule::LargestMagn, 1000, kLanczosTolerance, Spectra::SortRule::SmallestAlge));
  } catch (const std::bad_alloc &) {
    throw;
  } catch (const std::exception &e) {
    return failed("Lanczos stopped: %s", e.what());
  }
  modes.solves = op.solves;
  if (!op.ok) return false;
  if (solver->info() != Spectra::CompInfo::Successful || converged < lanczos)
    return failed("Lanczos converged %d of %d modes in %d solves", converged, lanczos, op.solves);
  modes.wanted = wanted;
  modes.rigid = rigid;
  Eigen::VectorXd values = solver->eigenvalues();
  Eigen::MatrixXd vectors = solver->eigenvectors();
  // The basis (ncv vectors) goes before the modes are copied out of the Ritz vectors: beside the
  // factor, the basis, the Ritz vectors and the modes together would make the tool's peak.
  solver.reset();
  modes.values = rigid_values;
  modes.values.insert(modes.values.end(), values.data(), values.data() + lanczos);
  modes.vectors = std::move(z);
  modes.vectors.insert(modes.vectors.end(), vectors.data(), vectors.data() + vectors.size());
  return true;
}

}  // namespace ccx
