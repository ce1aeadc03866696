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

void print_timing(const char *stage, double seconds) {
  std::fprintf(stderr, "ccx2krx:   %-28s %8.2f s\n", stage, seconds);
}

}  // namespace

bool solve_own(const OwnJob &job, EigenFile &eig) {
  const Matrices &m = *job.matrices;
  std::vector<int> held;
  if (!interface_rows(*job.deck, *job.map, held)) return false;
  Matrices restricted;
  const Matrices *problem = &m;
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
  if (!factor_shifted(*problem, sigma, factor)) return false;
  FactorStats stats = factor_stats(*factor);
  if (!held.empty()) {
    std::vector<double> shapes;
    auto statics = std::chrono::steady_clock::now();
    show_stage("static shapes of the interfaces");
    if (!constraint_modes(m, held, *factor, shapes) ||
        !write_vectors(job.statics_path, shapes.data(), shapes.size()))
      return false;
    if (job.timing) print_timing("static shapes", seconds_since(statics));
  }
  // With interfaces held no rigid-body motion is left.
  std::vector<double> motions;
  if (held.empty()) rigid_motions(*job.deck, *job.map, motions);
  std::vector<int64_t> ordering;
  double lanczos_seconds = 0.0;
  int solves = 0;
  auto solve = [&](int more, Modes &modes) {
    if (!factor && !factor_shifted(*problem, sigma, factor)) return false;
    auto lanczos = std::chrono::steady_clock::now();
    show_stage("Lanczos");
    bool ok = lowest_modes(*problem, *factor, sigma, job.modes, motions, modes, more);
    lanczos_seconds += seconds_since(lanczos);
    solves += modes.solves;
    // The count's LDL' factor is as large as this one: this one goes first.
    ordering = factor_ordering(*factor);
    factor.reset();
    show_stage("checking the modes (residuals, LDL' count)");
    return ok && check_residuals(*problem, modes, kResidualTolerance);
  };
  auto count = [&](double shift, int64_t &below) {
    return count_eigenvalues_below(*problem, shift, ordering, below);
  };
  Modes modes;
  double check_seconds = 0.0;
  if (!solve_and_count(solve, count, modes, check_seconds)) return false;
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
