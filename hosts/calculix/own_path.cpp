// The own path: from CalculiX's matrices to the files the export reads. The modes' vectors go to
// a file laid out like CalculiX's eigenvectors (one vector after the other, the rows of the
// problem solved), so that the export reads either path's modes the same way; with interfaces the
// static shapes go first to the export's scratch file.
#include <chrono>
#include <cstdio>

#include "solver.h"

namespace ccx {

namespace {

const double kResidualTolerance = 1e-6;

double seconds_since(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

}  // namespace

bool interface_rows(const Deck &deck, const DofMap &map, std::vector<int> &held) {
  held.clear();
  for (const Interface &point : deck.interfaces) {
    int ref = node_index(deck, point.ref);
    for (int dir = 0; dir < 6; ++dir) {
      size_t before = held.size();
      for (size_t r = 0; r < map.row_node.size(); ++r)
        if (map.row_node[r] == ref && map.row_dir[r] == dir) held.push_back(static_cast<int>(r));
      if (held.size() != before + 1)
        return failed("the matrices hold %zu rows for direction %d of interface %s, not one",
                      held.size() - before, dir + 1, point.set.c_str());
    }
  }
  return true;
}

namespace {

bool write_vectors(const std::string &path, const double *values, size_t count) {
  std::FILE *file = std::fopen(path.c_str(), "wb");
  bool ok = file && std::fwrite(values, sizeof(double), count, file) == count;
  if (file && std::fclose(file) != 0) ok = false;
  if (!ok) return failed("cannot write %s", path.c_str());
  return true;
}

// K's values wait in a file while the factor and Lanczos run, which use M alone: on the largest
// models they are as much memory as M's, beside a factor that fills the machine.
struct ParkedStiffness {
  std::vector<double> *values = nullptr;
  std::string path;
  size_t count = 0;
  bool park() {
    count = values->size();
    if (!write_vectors(path, values->data(), count)) return false;
    std::vector<double>().swap(*values);
    return true;
  }
  bool restore() {
    if (!values->empty() || count == 0) return true;
    values->resize(count);
    std::FILE *file = std::fopen(path.c_str(), "rb");
    bool ok = file && std::fread(values->data(), sizeof(double), count, file) == count;
    if (file) std::fclose(file);
    std::remove(path.c_str());
    if (!ok) return failed("cannot read %s back", path.c_str());
    return true;
  }
};

// The generalized mass and stiffness of the static shapes (statics, whole rows) and the first
// `wanted` modes (the problem's rows, the held rows left out), shapes x shapes, from the whole
// matrices m: mode j's products are formed once and dotted with the shapes before it.
void generalized_matrices(const Matrices &m, const std::vector<int> &held,
                          const std::vector<double> &statics, const Modes &modes, int wanted,
                          OwnJob &job) {
  size_t n = static_cast<size_t>(m.n), problem_rows = n - held.size();
  size_t count = statics.size() / n + static_cast<size_t>(wanted);
  std::vector<char> is_held(n, 0);
  for (int row : held) is_held[static_cast<size_t>(row)] = 1;
  auto shape = [&](size_t j, std::vector<double> &rows) {
    if (j < statics.size() / n) {
      rows.assign(statics.begin() + static_cast<long>(j * n),
                  statics.begin() + static_cast<long>((j + 1) * n));
      return;
    }
    const double *mode = &modes.vectors[(j - statics.size() / n) * problem_rows];
    rows.assign(n, 0.0);
    for (size_t r = 0, k = 0; r < n; ++r)
      if (!is_held[r]) rows[r] = mode[k++];
  };
  job.generalized_mass.assign(count * count, 0.0);
  job.generalized_stiffness.assign(count * count, 0.0);
  std::vector<double> phi, other, m_phi(n), k_phi(n);
  for (size_t j = 0; j < count; ++j) {
    shape(j, phi);
    multiply(m, m.mass, phi.data(), m_phi.data());
    multiply(m, m.stiffness, phi.data(), k_phi.data());
    for (size_t i = 0; i <= j; ++i) {
      if (i != j) shape(i, other);
      const std::vector<double> &left = i == j ? phi : other;
      std::vector<double> &mass = job.generalized_mass, &stiffness = job.generalized_stiffness;
      mass[j * count + i] = mass[i * count + j] = dot(left, m_phi);
      stiffness[j * count + i] = stiffness[i * count + j] = dot(left, k_phi);
    }
  }
}

void print_timing(const char *stage, double seconds) {
  std::fprintf(stderr, "ccx2krx:   %-28s %8.2f s\n", stage, seconds);
}

}  // namespace

bool solve_own(OwnJob &job, EigenFile &eig) {
  Matrices &m = *job.matrices;
  std::vector<int> held;
  if (!interface_rows(*job.deck, *job.map, held)) return false;
  Matrices restricted;
  Matrices *problem = &m;
  if (!held.empty()) {
    std::vector<char> is_held(static_cast<size_t>(m.n), 0);
    for (int row : held) is_held[row] = 1;
    std::vector<int> keep;
    for (int r = 0; r < m.n; ++r)
      if (!is_held[r]) keep.push_back(r);
    restrict_rows(m, keep, restricted);
    problem = &restricted;
  }
  // With the interfaces held the stiffness is positive definite: the factor of K_ii serves the
  // static shapes and the fixed-interface modes alike.
  double sigma = held.empty() ? lower_shift(*problem) : 0.0;
  auto begin = std::chrono::steady_clock::now();
  FactorHandle factor;
  show_stage("factoring K - sigma M");
  // With interfaces held no rigid-body motion is left.
  std::vector<double> motions;
  if (held.empty()) rigid_motions(*job.deck, *job.map, motions);
  std::vector<double> k_motions = motion_stiffness(*problem, motions);
  // (With interfaces the static shapes take K_ib from the whole matrices, not from problem's.)
  ParkedStiffness parked{&problem->stiffness, job.scratch_dir + "/stiffness.bin"};
  auto park = [&] { return parked.park(); };
  if (!factor_shifted(*problem, sigma, factor, park)) return false;
  FactorStats stats = factor_stats(*factor);
  std::vector<double> shapes;
  if (!held.empty()) {
    auto statics = std::chrono::steady_clock::now();
    show_stage("static shapes of the interfaces");
    if (!constraint_modes(m, held, *factor, shapes) ||
        !write_vectors(job.statics_path, shapes.data(), shapes.size()))
      return false;
    if (job.timing) print_timing("static shapes", seconds_since(statics));
  }
  std::vector<int64_t> ordering;
  double lanczos_seconds = 0.0;
  int solves = 0;
  auto solve = [&](int more, Modes &modes) {
    if (!factor && !factor_shifted(*problem, sigma, factor, park)) return false;
    auto lanczos = std::chrono::steady_clock::now();
    show_stage("Lanczos");
    bool ok = lowest_modes(*problem, *factor, sigma, job.modes, motions, modes, more, &k_motions);
    lanczos_seconds += seconds_since(lanczos);
    solves += modes.solves;
    // The count's LDL' factor is as large as this one: this one goes first.
    ordering = factor_ordering(*factor);
    factor.reset();
    show_stage("checking the modes (residuals, LDL' count)");
    return parked.restore() && ok && check_residuals(*problem, modes, kResidualTolerance);
  };
  Modes modes;
  // While the count's child factors, this process forms what the export would form after it.
  auto count = [&](double shift, int64_t &below) {
    return count_eigenvalues_below(*problem, shift, ordering, below, [&] {
      generalized_matrices(m, held, shapes, modes, job.modes, job);
      return true;
    });
  };
  double check_seconds = 0.0;
  bool solved = solve_and_count(solve, count, modes, check_seconds);
  // A run that failed before Lanczos leaves K in its file: the export no longer needs it.
  if (!solved) {
    std::remove(parked.path.c_str());
    return false;
  }
  std::vector<double>().swap(motions);
  if (job.timing) {
    std::fprintf(stderr, "ccx2krx: own solver, %d rows, factor with %.3g entries:\n", problem->n,
                 stats.entries);
    print_timing("ordering", stats.analyse_seconds);
    print_timing("factor", stats.factor_seconds);
    char what[64];
    std::snprintf(what, sizeof what, "Lanczos (%d solves)", solves);
    print_timing(what, lanczos_seconds);
    print_timing("missed-mode check (LDL')", check_seconds);
    print_timing("solver in all", seconds_since(begin));
  }
  size_t rows = static_cast<size_t>(problem->n);
  if (!write_vectors(job.vectors_path, modes.vectors.data(), rows * job.modes)) return false;
  eig.name = job.vectors_path;
  eig.file = std::fopen(job.vectors_path.c_str(), "rb");
  if (!eig.file) return failed("cannot read %s back", job.vectors_path.c_str());
  eig.modes = job.modes;
  eig.rows = problem->n;
  eig.vectors_at = 0;
  eig.eigenvalues.assign(modes.values.begin(), modes.values.begin() + job.modes);
  return true;
}

}  // namespace ccx
