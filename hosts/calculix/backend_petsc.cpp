// The parallel back-end: K and M as PETSc's symmetric block matrices (upper triangle, one row per
// block), MUMPS's Cholesky factor of K - sigma M inside SLEPc's shift-invert Krylov-Schur, and
// MUMPS's LDL' for the inertia. The stages mirror the single-machine ones and fail with the same
// texts where they check the same thing.
#include "backend_petsc.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>

#include <algorithm>
#include <chrono>
#include <cmath>

namespace ccx {

namespace {

bool petsc_failed(PetscErrorCode code, const char *call) {
  if (code == PETSC_ERR_MEM) return failed("out of memory in the parallel solver (%s)", call);
  const char *text = nullptr;
  PetscErrorMessage(code, &text, nullptr);
  return failed("the parallel solver stopped in %s: %s (PETSc error %d)", call,
                text ? text : "no text", static_cast<int>(code));
}

#define PETSC_OK(call)                                 \
  do {                                                 \
    PetscErrorCode code_ = (call);                     \
    if (code_ != 0) return petsc_failed(code_, #call); \
  } while (0)

const double kLanczosTolerance = 1e-10;

double seconds_since(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

bool new_vector(const Distributed &d, Vec &v) {
  PETSC_OK(MatCreateVecs(d.k, &v, nullptr));
  return true;
}

// M-norm 1.
bool normalise(const Distributed &d, Vec x, Vec work) {
  PetscScalar mass = 0.0;
  PETSC_OK(MatMult(d.m, x, work));
  PETSC_OK(VecDot(x, work, &mass));
  if (!(mass > 0.0)) return failed("a mode has the generalized mass %g", static_cast<double>(mass));
  PETSC_OK(VecScale(x, 1.0 / std::sqrt(mass)));
  return true;
}

}  // namespace

bool make_distributed(const RowBlock &b, Distributed &d) {
  d.rows = b.rows;
  PETSC_OK(MatCreateMPISBAIJWithArrays(PETSC_COMM_WORLD, 1, b.count, b.count, b.rows, b.rows,
                                       b.start.data(), b.column.data(), b.stiffness.data(), &d.k));
  PETSC_OK(MatCreateMPISBAIJWithArrays(PETSC_COMM_WORLD, 1, b.count, b.count, b.rows, b.rows,
                                       b.start.data(), b.column.data(), b.mass.data(), &d.m));
  return true;
}

void free_distributed(Distributed &d) {
  if (d.k) MatDestroy(&d.k);
  if (d.m) MatDestroy(&d.m);
}

void free_modes(ParallelModes &modes) {
  for (Vec &v : modes.vectors) VecDestroy(&v);
  modes.vectors.clear();
}

bool lower_shift_parallel(const RowBlock &b, double &sigma) {
  std::vector<double> ratio;
  for (int r = 0; r < b.count; ++r)
    for (int k = b.start[r]; k < b.start[r + 1]; ++k)
      if (b.column[k] == b.first + r && b.mass[k] > 0.0 && b.stiffness[k] > 0.0)
        ratio.push_back(b.stiffness[k] / b.mass[k]);
  int size = 0, rank = 0;
  MPI_Comm_size(PETSC_COMM_WORLD, &size);
  MPI_Comm_rank(PETSC_COMM_WORLD, &rank);
  int mine = static_cast<int>(ratio.size());
  std::vector<int> counts(static_cast<size_t>(size)), at(static_cast<size_t>(size), 0);
  MPI_Gather(&mine, 1, MPI_INT, counts.data(), 1, MPI_INT, 0, PETSC_COMM_WORLD);
  std::vector<double> all;
  if (rank == 0) {
    for (int k = 1; k < size; ++k) at[k] = at[k - 1] + counts[k - 1];
    all.resize(static_cast<size_t>(at[size - 1] + counts[size - 1]));
  }
  MPI_Gatherv(ratio.data(), mine, MPI_DOUBLE, all.data(), counts.data(), at.data(), MPI_DOUBLE, 0,
              PETSC_COMM_WORLD);
  // The same median as the single-machine path: the middle of every rank's ratios.
  Matrices diagonal;
  diagonal.n = static_cast<int>(all.size());
  sigma = -1.0;
  if (rank == 0 && !all.empty()) {
    diagonal.start.resize(all.size() + 1);
    for (size_t k = 0; k <= all.size(); ++k) diagonal.start[k] = static_cast<int64_t>(k);
    diagonal.row.resize(all.size());
    for (size_t k = 0; k < all.size(); ++k) diagonal.row[k] = static_cast<int>(k);
    diagonal.stiffness = all;
    diagonal.mass.assign(all.size(), 1.0);
    sigma = lower_shift(diagonal);
  }
  MPI_Bcast(&sigma, 1, MPI_DOUBLE, 0, PETSC_COMM_WORLD);
  return true;
}

bool rigid_modes(const Distributed &d, const std::vector<std::vector<double>> &motions,
                 double sigma, std::vector<Vec> &z, std::vector<double> &values) {
  int count = static_cast<int>(motions.size());
  z.clear();
  values.clear();
  if (count == 0) return true;
  std::vector<Vec> r(static_cast<size_t>(count)), k_r(r.size()), m_r(r.size());
  bool ok = true;
  for (int j = 0; j < count && ok; ++j) {
    ok = new_vector(d, r[j]) && new_vector(d, k_r[j]) && new_vector(d, m_r[j]);
    if (!ok) break;
    PetscScalar *x = nullptr;
    VecGetArray(r[j], &x);
    std::copy(motions[j].begin(), motions[j].end(), x);
    VecRestoreArray(r[j], &x);
    ok = MatMult(d.k, r[j], k_r[j]) == 0 && MatMult(d.m, r[j], m_r[j]) == 0;
  }
  Eigen::MatrixXd kk(count, count), mm(count, count);
  for (int i = 0; i < count && ok; ++i)
    for (int j = 0; j < count; ++j) {
      PetscScalar k_ij = 0.0, m_ij = 0.0;
      VecDot(r[i], k_r[j], &k_ij);
      VecDot(r[i], m_r[j], &m_ij);
      kk(i, j) = k_ij;
      mm(i, j) = m_ij;
    }
  if (ok) {
    kk = 0.5 * (kk + kk.transpose()).eval();
    mm = 0.5 * (mm + mm.transpose()).eval();
    // As on one machine: a motion without mass leaves Lanczos alone to serve.
    Eigen::LLT<Eigen::MatrixXd> positive(mm);
    bool usable = positive.info() == Eigen::Success && mm.diagonal().minCoeff() > 0.0;
    Eigen::GeneralizedSelfAdjointEigenSolver<Eigen::MatrixXd> pencil;
    if (usable) pencil.compute(kk, mm);
    for (int j = 0; usable && pencil.info() == Eigen::Success && j < count; ++j) {
      if (!(pencil.eigenvalues()(j) < 1e-3 * std::fabs(sigma))) continue;
      Vec v = nullptr;
      if (!new_vector(d, v)) {
        ok = false;
        break;
      }
      for (int i = 0; i < count; ++i) VecAXPY(v, pencil.eigenvectors()(i, j), r[i]);
      values.push_back(pencil.eigenvalues()(j));
      z.push_back(v);
    }
  }
  for (size_t j = 0; j < r.size(); ++j) {
    VecDestroy(&r[j]);
    VecDestroy(&k_r[j]);
    VecDestroy(&m_r[j]);
  }
  return ok || failed("the rigid-body motions could not be formed");
}

namespace {

bool configure(EPS eps, const Distributed &d, double sigma, int lanczos, std::vector<Vec> &z) {
  PETSC_OK(EPSSetOperators(eps, d.k, d.m));
  PETSC_OK(EPSSetProblemType(eps, EPS_GHEP));
  PETSC_OK(EPSSetType(eps, EPSKRYLOVSCHUR));
  ST st = nullptr;
  KSP ksp = nullptr;
  PC pc = nullptr;
  PETSC_OK(EPSGetST(eps, &st));
  PETSC_OK(STSetType(st, STSINVERT));
  PETSC_OK(STSetMatStructure(st, SAME_NONZERO_PATTERN));
  PETSC_OK(STGetKSP(st, &ksp));
  PETSC_OK(KSPSetType(ksp, KSPPREONLY));
  PETSC_OK(KSPGetPC(ksp, &pc));
  PETSC_OK(PCSetType(pc, PCCHOLESKY));
  PETSC_OK(PCFactorSetMatSolverType(pc, MATSOLVERMUMPS));
  PETSC_OK(EPSSetTarget(eps, sigma));
  PETSC_OK(EPSSetWhichEigenpairs(eps, EPS_TARGET_MAGNITUDE));
  int rigid = static_cast<int>(z.size());
  int ncv = std::min(d.rows - rigid, std::max(2 * lanczos + 1, 20));
  PETSC_OK(EPSSetDimensions(eps, lanczos, ncv, PETSC_DEFAULT));
  PETSC_OK(EPSSetTolerances(eps, kLanczosTolerance, 1000));
  if (rigid > 0) PETSC_OK(EPSSetDeflationSpace(eps, rigid, z.data()));
  return true;
}

bool factor_entries(EPS eps, double &entries) {
  ST st = nullptr;
  KSP ksp = nullptr;
  PC pc = nullptr;
  Mat factor = nullptr;
  PETSC_OK(EPSGetST(eps, &st));
  PETSC_OK(STGetKSP(st, &ksp));
  PETSC_OK(KSPGetPC(ksp, &pc));
  PETSC_OK(PCFactorGetMatrix(pc, &factor));
  PetscInt value = 0;
  PETSC_OK(MatMumpsGetInfog(factor, 29, &value));
  // MUMPS gives counts past an integer's range negative, in millions.
  entries = value < 0 ? -1e6 * static_cast<double>(value) : static_cast<double>(value);
  return true;
}

bool take_modes(EPS eps, const Distributed &d, int lanczos, ParallelModes &out) {
  PetscInt converged = 0;
  PETSC_OK(EPSGetConverged(eps, &converged));
  PetscInt restarts = 0;
  PETSC_OK(EPSGetIterationNumber(eps, &restarts));
  out.restarts = static_cast<int>(restarts);
  if (converged < lanczos)
    return failed("Lanczos converged %d of %d modes in %d restarts", static_cast<int>(converged),
                  lanczos, out.restarts);
  std::vector<std::pair<double, Vec>> found;
  Vec work = nullptr;
  if (!new_vector(d, work)) return false;
  bool ok = true;
  for (int i = 0; i < lanczos && ok; ++i) {
    PetscScalar value = 0.0;
    Vec x = nullptr;
    ok = new_vector(d, x);
    if (!ok) break;
    found.emplace_back(0.0, x);
    ok = EPSGetEigenpair(eps, i, &value, nullptr, x, nullptr) == 0 || failed("no mode %d", i + 1);
    found.back().first = value;
    ok = ok && normalise(d, x, work);
  }
  VecDestroy(&work);
  std::stable_sort(found.begin(), found.end(),
                   [](const auto &a, const auto &b) { return a.first < b.first; });
  for (auto &[value, x] : found) {
    out.modes.values.push_back(value);
    out.vectors.push_back(x);
  }
  return ok;
}

}  // namespace

bool lowest_modes_parallel(const Distributed &d, double sigma, int wanted, std::vector<Vec> &z,
                           const std::vector<double> &rigid_values, const StaticsStage &statics,
                           ParallelModes &out) {
  int nev = wanted + kExtraModes;
  if (nev >= d.rows)
    return failed("%d modes asked, but the model has %d degrees of freedom (%d at most)", wanted,
                  d.rows, d.rows - kExtraModes - 1);
  int rigid = static_cast<int>(z.size());
  // As on one machine: a few modes past the rigid-body ones even when fewer are wanted.
  int lanczos = std::max(nev - rigid, kExtraModes + 1);
  if (rigid + lanczos >= d.rows)
    return failed("%d modes asked, but the model has %d degrees of freedom (%d at most)", wanted,
                  d.rows, d.rows - kExtraModes - 1 - rigid);
  out.modes.wanted = wanted;
  out.modes.rigid = rigid;
  out.modes.values = rigid_values;
  EPS eps = nullptr;
  PETSC_OK(EPSCreate(PETSC_COMM_WORLD, &eps));
  auto begin = std::chrono::steady_clock::now();
  bool ok = configure(eps, d, sigma, lanczos, z) &&
            (EPSSetUp(eps) == 0 ||
             failed("the factor of K - (%g) M failed: the model has an eigenvalue below the "
                    "shift, which a mechanism or a missing *BOUNDARY can cause, or memory ran out",
                    sigma));
  out.stats.factor_seconds = seconds_since(begin);
  ok = ok && factor_entries(eps, out.stats.entries);
  if (ok && statics) {
    ST st = nullptr;
    KSP ksp = nullptr;
    ok = EPSGetST(eps, &st) == 0 && STGetKSP(st, &ksp) == 0 && statics(ksp);
  }
  if (ok) {
    PetscErrorCode code = EPSSolve(eps);
    ok = code == 0 || petsc_failed(code, "EPSSolve");
  }
  ok = ok && take_modes(eps, d, lanczos, out);
  EPSDestroy(&eps);
  if (!ok) return false;
  // The rigid-body modes first, then the iteration's: the single-machine order.
  std::vector<Vec> all = z;
  all.insert(all.end(), out.vectors.begin(), out.vectors.end());
  out.vectors = std::move(all);
  z.clear();
  return true;
}

bool check_residuals_parallel(const Distributed &d, const ParallelModes &modes, double tolerance) {
  Vec k_phi = nullptr, m_phi = nullptr;
  if (!new_vector(d, k_phi) || !new_vector(d, m_phi)) return false;
  const std::vector<double> &values = modes.modes.values;
  double scale = values[static_cast<size_t>(modes.modes.rigid)];
  bool ok = true;
  for (size_t j = 0; j < values.size() && ok; ++j) {
    Vec phi = modes.vectors[j];
    PetscReal k_norm = 0.0, m_norm = 0.0, r_norm = 0.0;
    PetscScalar mass = 0.0;
    MatMult(d.k, phi, k_phi);
    MatMult(d.m, phi, m_phi);
    VecNorm(k_phi, NORM_2, &k_norm);
    VecNorm(m_phi, NORM_2, &m_norm);
    VecDot(phi, m_phi, &mass);
    double lambda = values[j];
    VecAXPY(k_phi, -lambda, m_phi);
    VecNorm(k_phi, NORM_2, &r_norm);
    double residual = r_norm / (k_norm + std::max(std::fabs(lambda), scale) * m_norm);
    if (!(residual <= tolerance))
      ok = failed("mode %zu (eigenvalue %.7g) has the residual %.2e, above %.0e", j + 1, lambda,
                  residual, tolerance);
    else if (!(std::fabs(mass - 1.0) < 1e-8))
      ok = failed("mode %zu has generalized mass %.10g, not 1", j + 1, static_cast<double>(mass));
  }
  VecDestroy(&k_phi);
  VecDestroy(&m_phi);
  return ok;
}

bool count_below_parallel(const Distributed &d, double shift, int64_t &count) {
  Mat a = nullptr, factor = nullptr;
  PETSC_OK(MatDuplicate(d.k, MAT_COPY_VALUES, &a));
  PetscErrorCode code = MatAXPY(a, -shift, d.m, SAME_NONZERO_PATTERN);
  if (code == 0) code = MatGetFactor(a, MATSOLVERMUMPS, MAT_FACTOR_CHOLESKY, &factor);
  // MUMPS counts the negative pivots of the whole matrix only with its root front factored in
  // place (13) and null pivots detected (24).
  if (code == 0) code = MatMumpsSetIcntl(factor, 13, 1);
  if (code == 0) code = MatMumpsSetIcntl(factor, 24, 1);
  MatFactorInfo info;
  MatFactorInfoInitialize(&info);
  if (code == 0) code = MatCholeskyFactorSymbolic(factor, a, nullptr, &info);
  if (code == 0) code = MatCholeskyFactorNumeric(factor, a, &info);
  PetscInt negative = 0, zero = 0, positive = 0;
  if (code == 0) code = MatGetInertia(factor, &negative, &zero, &positive);
  MatDestroy(&factor);
  MatDestroy(&a);
  if (code != 0) return petsc_failed(code, "the LDL' factor of K - shift M");
  count = negative;
  return true;
}

}  // namespace ccx
