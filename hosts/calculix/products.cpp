// Products with the stiffness and mass matrices of the matrix run, and the lumped nodal masses.
#include <cmath>

#include "ccx2krx.h"

namespace ccx {

void multiply(const Matrices &m, const std::vector<double> &a, const double *x, double *y) {
  for (int i = 0; i < m.n; ++i) y[i] = 0.0;
  for (int c = 0; c < m.n; ++c) {
    double xc = x[c];
    double yc = 0.0;
    for (int64_t k = m.start[c]; k < m.start[c + 1]; ++k) {
      int r = m.row[k];
      double v = a[k];
      y[r] += v * xc;
      if (r != c) yc += v * x[r];
    }
    y[c] += yc;
  }
}

double dot(const std::vector<double> &a, const std::vector<double> &b) {
  double sum = 0.0;
  for (size_t k = 0; k < a.size(); ++k) sum += a[k] * b[k];
  return sum;
}

void sum_masses(const Matrices &m, const DofMap &map, MassSums &sums) {
  sums.diagonal.assign(static_cast<size_t>(m.n), 0.0);
  for (int c = 0; c < m.n; ++c) {
    int dir = map.row_dir[c];
    for (int64_t k = m.start[c]; k < m.start[c + 1]; ++k) {
      int r = m.row[k];
      double v = m.mass[k];
      if (r == c) sums.diagonal[c] = v;
      if (dir >= 0 && dir < 3 && map.row_dir[r] == dir)
        sums.direction[dir] += r == c ? v : 2.0 * v;
    }
  }
}

// Row sums of a quadratic element's consistent mass are negative at its corners, so the nodal
// masses follow the diagonal instead: each node gets the mean of its translational diagonal
// entries, and all are scaled by one factor so that they add up to the total mass. The total is
// u^T M u for a unit translation u along the direction with the most free rows (a direction held
// by *BOUNDARY at some nodes loses their share).
bool lump_masses(const MassSums &sums, const DofMap &map, int nodes, std::vector<double> &nodal,
                 double &total) {
  int n = static_cast<int>(sums.diagonal.size());
  int rows_of[3] = {0, 0, 0};
  for (int r = 0; r < n; ++r)
    if (map.row_dir[r] >= 0 && map.row_dir[r] < 3) ++rows_of[map.row_dir[r]];
  int dir = 0;
  for (int d = 1; d < 3; ++d)
    if (rows_of[d] > rows_of[dir]) dir = d;
  if (rows_of[dir] == 0) return failed("the matrices hold no translational degree of freedom");

  total = sums.direction[dir];
  std::vector<double> diagonal_sum(static_cast<size_t>(nodes), 0.0);
  std::vector<int> diagonal_count(static_cast<size_t>(nodes), 0);
  for (int r = 0; r < n; ++r) {
    int node = map.row_node[r];
    if (map.row_dir[r] >= 0 && map.row_dir[r] < 3 && node >= 0) {
      diagonal_sum[node] += sums.diagonal[r];
      ++diagonal_count[node];
    }
  }
  nodal.assign(static_cast<size_t>(nodes), 0.0);
  double sum = 0.0;
  for (int i = 0; i < nodes; ++i) {
    if (diagonal_count[i] == 0) continue;
    nodal[i] = diagonal_sum[i] / diagonal_count[i];
    sum += nodal[i];
  }
  if (!(total > 0.0) || !(sum > 0.0))
    return failed("the mass matrix gives no positive total mass (%g); check *DENSITY", total);
  double scale = total / sum;
  for (double &mass : nodal) mass *= scale;
  return true;
}

}  // namespace ccx
