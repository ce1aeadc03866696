// The generalized eigen solution and the mass orthonormalisation of the host's modes.
#include "processing/krxeigen.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>

#include "base/krxmsg.h"
#include "processing/krxnumerics.h"
#include "processing/krxunits.h"

namespace krx {
namespace {

constexpr const char *kSource = "..\\krxeigen";

using Matrix = std::vector<double>;  // n x n, row-major

int32_t retained_count(const KRXDATA *model) {
  return model->retained_set ? model->retained_modes : mode_count(model);
}

// A generalized matrix list as a dense n x n matrix: the last value set for a pair wins, a pair
// never set is 0.
Matrix dense_of(const std::vector<MatrixEntry> &entries, int32_t n) {
  Matrix m(std::size_t(n) * std::size_t(n), 0.0);
  for (const MatrixEntry &e : entries)
    if (e.row >= 0 && e.row < n && e.column >= 0 && e.column < n)
      m[std::size_t(e.row) * n + e.column] = e.value;
  return m;
}

Matrix identity(int32_t n) {
  Matrix m(std::size_t(n) * std::size_t(n), 0.0);
  for (int32_t i = 0; i < n; ++i) m[std::size_t(i) * n + i] = 1.0;
  return m;
}

// u^T M v with u, v columns cu, cv of the row-major n x n matrices U and V.
double form(const Matrix &m, const Matrix &u, int32_t cu, const Matrix &v, int32_t cv, int32_t n) {
  double sum = 0.0;
  for (int32_t r = 0; r < n; ++r) {
    double row = 0.0;
    for (int32_t c = 0; c < n; ++c) row += m[std::size_t(r) * n + c] * v[std::size_t(c) * n + cv];
    sum += u[std::size_t(r) * n + cu] * row;
  }
  return sum;
}

void swap_columns(Matrix &t, int32_t n, int32_t a, int32_t b) {
  for (int32_t r = 0; r < n; ++r) std::swap(t[std::size_t(r) * n + a], t[std::size_t(r) * n + b]);
}

// Circular frequency (slot 3) and hertz (slot 2) from the eigenvalue in slot 1.
void set_frequencies(EigenRecord &record, double c) {
  double lambda = record.eigenvalue;
  record.radians = lambda >= 0.0 ? std::sqrt(lambda * c) : -std::sqrt(-lambda * c);
  record.hertz = record.radians / kTwoPi;
}

void number_records(KRXDATA *model, int32_t n) {
  model->record_map.resize(std::size_t(n));
  model->record_numbers.resize(std::size_t(n));
  for (int32_t j = 0; j < n; ++j) {
    model->record_map[j] = j;
    model->record_numbers[j] = j + 1;
    model->eigen[j].number = j + 1;
  }
}

struct Solution {
  std::vector<double> lambda;
  Matrix t;  // column j = eigenvector j
};

// QZ on (stiffness, mass); eigenvectors as the columns of t, eigenvalues with their warnings.
Solution solve_pencil(const KRXDATA *model, int32_t n) {
  std::size_t nn = std::size_t(n) * std::size_t(n);
  Matrix a(nn), b(nn), z(nn);
  std::vector<double> ar(n), ai(n), beta(n);
  Matrix k = dense_of(model->stiffness, n), g = dense_of(model->mass, n);
  // Column-major for the kernels: the element (r, c) of the list goes to r + c n.
  for (int32_t r = 0; r < n; ++r)
    for (int32_t c = 0; c < n; ++c) {
      a[r + std::size_t(c) * n] = k[std::size_t(r) * n + c];
      b[r + std::size_t(c) * n] = g[std::size_t(r) * n + c];
    }
  int ierr = 0;
  note("  (Finding upper Hessenberg and upper triangular forms)");
  qz_reduce(n, n, a.data(), b.data(), true, z.data());
  note("  (Converting upper Hessenberg form to quasi-upper triangular)");
  qz_iterate(n, n, a.data(), b.data(), 0.0, true, z.data(), &ierr);
  note("  (Calculating Eigenvalues)");
  qz_values(n, n, a.data(), b.data(), ar.data(), ai.data(), beta.data(), true, z.data());
  note("  (Calculating Eigenvectors)");
  qz_vectors(n, n, a.data(), b.data(), ar.data(), ai.data(), beta.data(), z.data());

  Solution s{std::vector<double>(n), Matrix(nn)};
  for (int32_t r = 0; r < n; ++r)
    for (int32_t j = 0; j < n; ++j) s.t[std::size_t(r) * n + j] = z[r + std::size_t(j) * n];
  for (int32_t j = 0; j < n; ++j) {
    if (ai[j] != 0.0) {
      warning("Flexible component is not physically meaningful\nIt contains an eigenvalue with a "
              "nonzero imaginary part, %lf\nThis imaginary part is being ignored.  Please verify "
              "that this is acceptable.",
              ai[j] / beta[j]);
      s.lambda[j] = ar[j] / beta[j];
    } else if (beta[j] == 0.0) {
      warning("Mode %d is not physically meaningful\nIt contains an infinite eigenvalue.  "
              "Ignoring this mode.\n",
              j + 1);
      s.lambda[j] = kInfiniteEigenvalue;
    } else {
      s.lambda[j] = ar[j] / beta[j];
    }
  }
  return s;
}

// Reversal, then a bubble sort that keeps equal eigenvalues in their reversed order; the vectors
// (columns) move with their eigenvalues.
void order_solution(Solution &s, int32_t n) {
  for (int32_t j = 0; j < n / 2; ++j) {
    std::swap(s.lambda[j], s.lambda[n - 1 - j]);
    swap_columns(s.t, n, j, n - 1 - j);
  }
  for (bool swapped = true; swapped;) {
    swapped = false;
    for (int32_t j = 0; j + 1 < n; ++j) {
      if (s.lambda[j] > s.lambda[j + 1]) {
        std::swap(s.lambda[j], s.lambda[j + 1]);
        swap_columns(s.t, n, j, j + 1);
        swapped = true;
      }
    }
  }
}

void print_table(const std::vector<double> &lambda, double c, bool quiet) {
  int32_t n = int32_t(lambda.size());
  note("%49s", "");
  note("  Real Eigenvalues and Natural Frequencies [Hz] :");
  note("  ===============================================");
  // Relative to the seventh eigenvalue, the first after six rigid-body modes.
  double seventh = n >= 7 ? lambda[6] : 0.0;
  for (int32_t k = 1; k <= n; ++k) {
    double l = lambda[k - 1];
    double f = std::sqrt(l * c) / kTwoPi;
    bool large = n >= 7 && std::fabs(l) > seventh / 1000.0;
    if (l == kInfiniteEigenvalue) {
      note(" %3d : Infinity.  Possible mass singularity.  Ignored.", k);
    } else if (l < -1.0 || (l < 0.0 && large)) {
      note(" %3d : %20.14e  Sqrt undefined.  Possible problem with input data.", k, l);
    } else if (l < 0.0) {
      if (quiet)
        note(" %3d : %13.7e   (probable rigid body mode)", k, l);
      else
        note(" %3d : %20.14e  Sqrt undefined.     (probable rigid body mode)", k, l);
    } else if (l > 1.0 || large) {
      if (quiet)
        note(" %3d : %13.7e  %13.7e", k, l, f);
      else
        note(" %3d : %20.14e  %20.14e", k, l, f);
    } else if (quiet) {
      note(" %3d : %13.7e   (probable rigid body mode)", k, l);
    } else {
      note(" %3d : %20.14e  %20.14e (probable rigid body mode)", k, l, f);
    }
  }
}

// Classical Gram-Schmidt against the generalized mass: projections use the vectors as they were
// before this step; a column with v^T B v <= 0 is left as it is and projects nothing.
void orthonormalise(Matrix &t, const Matrix &b, int32_t n) {
  Matrix v = t;
  std::vector<double> w(n);
  for (int32_t c = 0; c + 1 < n; ++c) {
    double s = form(b, v, c, v, c, n);
    if (!(s > 0.0)) continue;
    double root = std::sqrt(s);
    for (int32_t r = 0; r < n; ++r) v[std::size_t(r) * n + c] /= root;
    for (int32_t r = 0; r < n; ++r) {
      double sum = 0.0;
      for (int32_t k = 0; k < n; ++k) sum += b[std::size_t(r) * n + k] * v[std::size_t(k) * n + c];
      w[r] = sum;
    }
    for (int32_t d = c + 1; d < n; ++d) {
      double p = 0.0;
      for (int32_t r = 0; r < n; ++r) p += w[r] * t[std::size_t(r) * n + d];
      for (int32_t r = 0; r < n; ++r) v[std::size_t(r) * n + d] -= p * v[std::size_t(r) * n + c];
    }
  }
  if (n > 0) {
    double s = form(b, v, n - 1, v, n - 1, n);
    if (s > 0.0) {
      double root = std::sqrt(s);
      for (int32_t r = 0; r < n; ++r) v[std::size_t(r) * n + n - 1] /= root;
    }
  }
  t = std::move(v);
}

void orthonormal_records(KRXDATA *model, const Solution &s, int32_t n, double c) {
  Matrix k = dense_of(model->stiffness, n);
  model->eigen.assign(std::size_t(n), EigenRecord{});
  for (int32_t j = 0; j < n; ++j) {
    EigenRecord &record = model->eigen[j];
    record.generalized_mass = 1.0;
    record.generalized_stiffness = form(k, s.t, j, s.t, j, n);
    record.eigenvalue =
        s.lambda[j] == kInfiniteEigenvalue ? kInfiniteEigenvalue : record.generalized_stiffness;
    set_frequencies(record, c);
  }
  number_records(model, n);
}

// Steps that run with the orthogonalise switch: QZ, order, table, Gram-Schmidt, records.
Matrix solve_and_order(KRXDATA *model, int32_t n, bool quiet) {
  note("\nSolving Generalized Eigenvalue Problem to orthogonalize mode shapes.");
  Solution s = solve_pencil(model, n);
  order_solution(s, n);
  double c = force_consistency_factor(model);
  print_table(s.lambda, c, quiet);
  note("\n  Appling Gram-Schmidt to eigenvectors \n ");
  orthonormalise(s.t, dense_of(model->mass, n), n);
  orthonormal_records(model, s, n, c);
  return std::move(s.t);
}

int32_t finite_leading_count(const KRXDATA *model) {
  int32_t r = 0;
  while (r < int32_t(model->eigen.size()) && model->eigen[r].eigenvalue != kInfiniteEigenvalue) ++r;
  return r;
}

void store_transformation(KRXDATA *model, Matrix t, int32_t order) {
  model->transformation = std::move(t);
  std::size_t known = std::min(model->modes.size(), std::size_t(order));
  model->transformation_modes.assign(model->modes.begin(), model->modes.begin() + known);
  model->transformation_modes.resize(std::size_t(order), 0);
}

void keep_retained(KRXDATA *model, int32_t r) {
  model->retained_modes = r;
  model->retained_set = true;
  if (model->eigen.size() > std::size_t(r)) model->eigen.resize(std::size_t(r));
  if (model->record_map.size() > std::size_t(r)) model->record_map.resize(std::size_t(r));
  if (model->record_numbers.size() > std::size_t(r)) model->record_numbers.resize(std::size_t(r));
}

// new[j] = sum_r old[r] T[r][j]; 0 when the vector does not have n values.
bool transform_vector(std::vector<double> &values, const Matrix &t, int32_t n) {
  if (values.size() != std::size_t(n)) return false;
  std::vector<double> out(std::size_t(n), 0.0);
  for (int32_t j = 0; j < n; ++j)
    for (int32_t r = 0; r < n; ++r) out[j] += values[r] * t[std::size_t(r) * n + j];
  values = std::move(out);
  return true;
}

// Damping in the new coordinates: T^T C T. With a diagonal T this is each entry divided by the
// two normalisation factors.
void transform_damping(KRXDATA *model, const Matrix &t, int32_t n) {
  if (model->damping.empty()) return;
  Matrix c = dense_of(model->damping, n), ct(std::size_t(n) * n, 0.0);
  for (int32_t i = 0; i < n; ++i)
    for (int32_t k = 0; k < n; ++k) {
      double v = c[std::size_t(i) * n + k];
      if (v == 0.0) continue;
      for (int32_t j = 0; j < n; ++j) ct[std::size_t(i) * n + j] += v * t[std::size_t(k) * n + j];
    }
  std::vector<MatrixEntry> out;
  for (int32_t i = 0; i < n; ++i)
    for (int32_t j = 0; j < n; ++j) {
      double sum = 0.0;
      for (int32_t k = 0; k < n; ++k) sum += t[std::size_t(k) * n + i] * ct[std::size_t(k) * n + j];
      if (sum != 0.0) out.push_back(MatrixEntry{i, j, sum});
    }
  model->damping = std::move(out);
}

// Steps 14 to 16: normalisation factors, damping, loads, and the vector files.
int normalise_and_rewrite(KRXDATA *model, Matrix &t, int32_t n, int32_t r) {
  std::vector<double> factors = mass_normalisation_factors(model);
  bool ok = factors.size() == std::size_t(n);
  if (ok) {
    for (int32_t c = 0; c < n; ++c)
      for (int32_t row = 0; row < n; ++row) t[std::size_t(row) * n + c] /= factors[c];
    transform_damping(model, t, n);
    for (LoadCase &load : model->load_cases) {
      if (!transform_vector(load.values, t, n)) {
        error("Failed to transform modal loads following orthonormalization.\n");
        ok = false;
      }
    }
    if (!model->preload.empty() && !transform_vector(model->preload, t, n)) {
      error("Failed to transform modal loads following orthonormalization.\n");
      ok = false;
    }
  }
  store_transformation(model, t, n);
  for (int kind = kModeShapes; ok && kind <= kModalStrain; ++kind)
    if (model->store[kind].io.file && !write_transformed_vectors(model, kind, r)) ok = false;
  if (!ok) error("Failed to mass normalize the eigen vectors\n");
  return ok ? 1 : 0;
}

int solve_steps(KRXDATA *model) {
  bool quiet = host_is_quiet();
  int32_t n = retained_count(model);
  if (n <= 0) return 1;
  bool orthogonalise = model->gm_off_diagonal != 0;
  bool transform = orthogonalise || model->gm_not_unit != 0;
  Matrix t = orthogonalise ? solve_and_order(model, n, quiet) : identity(n);
  if (model->eigen.empty() && !build_eigen_records(model)) return 0;
  int32_t r = finite_leading_count(model);
  if (!transform) {
    keep_retained(model, r);
    // A transformation the model already holds (read from a file) is kept.
    if (model->transformation.empty() || r < n) store_transformation(model, identity(r), r);
    return 1;
  }
  if (!normalise_and_rewrite(model, t, n, r)) return 0;
  keep_retained(model, r);
  model->modes_orthonormalised = true;
  return 1;
}

}  // namespace

int solve_and_orthonormalise(KRXDATA *model) {
  if (!model_exists(model)) return 0;
  // The vectors are rewritten once; a second write of the same model finds them in place.
  if (model->modes_orthonormalised) return 1;
  try {
    return solve_steps(model);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
}

int build_eigen_records(KRXDATA *model) {
  if (!model_exists(model)) return 0;
  if (!model->eigen.empty()) return 1;
  int32_t n = retained_count(model);
  int32_t known = mode_count(model);
  double c = force_consistency_factor(model);
  Matrix g = dense_of(model->mass, n), s = dense_of(model->stiffness, n);
  bool unit = model->gm_off_diagonal == 0 && model->gm_not_unit == 0;
  int result = 1;
  model->eigen.assign(std::size_t(n), EigenRecord{});
  for (int32_t j = 0; j < n; ++j) {
    EigenRecord &record = model->eigen[j];
    if (j >= known) {
      error("Attempting to look at eigenvalues of non-orthogonal data");
      result = 0;
      continue;
    }
    double gj = g[std::size_t(j) * n + j], sj = s[std::size_t(j) * n + j];
    record.generalized_mass = gj;
    record.generalized_stiffness = sj;
    if (std::fabs(gj) > 1e-15) {
      record.eigenvalue = sj / gj;
      if (unit) record.generalized_mass = 1.0;
    } else {
      warning("Mode %d is not physically meaningful.\nIt is associated with a zero generalized "
              "mass\n",
              j + 1);
      record.eigenvalue = kInfiniteEigenvalue;
    }
    set_frequencies(record, c);
  }
  number_records(model, n);
  return result;
}

std::vector<double> mass_normalisation_factors(KRXDATA *model) {
  std::vector<double> factors;
  if (!model_exists(model)) return factors;
  factors.reserve(model->eigen.size());
  for (EigenRecord &record : model->eigen) {
    double g = record.generalized_mass;
    if (g == 0.0) {
      factors.push_back(1.0);
      continue;
    }
    // A negative mass gives the negated root of the negative value itself: a NaN, kept so.
    factors.push_back(g > 0.0 ? std::sqrt(g) : -std::sqrt(g));
    record.generalized_mass = 1.0;
    record.generalized_stiffness = record.eigenvalue;
  }
  return factors;
}

int fill_mode_transformation(KRXDATA *model, std::vector<double> &out) {
  if (!model_exists(model)) return 0;
  try {
    int32_t n = mode_count(model);
    out.assign(std::size_t(n) * std::size_t(n), 0.0);
    for (int32_t i = 0; i < n; ++i) out[std::size_t(i) * n + i] = 1.0;
    std::size_t m = model->transformation_modes.size();
    if (model->transformation.size() != m * m) return 1;
    for (std::size_t p = 0; p < m && p < std::size_t(n); ++p)
      for (std::size_t j = 0; j < m && j < std::size_t(n); ++j)
        out[p + j * n] = model->transformation[p * m + j];
    return 1;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
}

}  // namespace krx
