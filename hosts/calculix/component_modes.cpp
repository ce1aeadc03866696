// Component modes from one factor of K_ii: the static shape of each held row (constraint modes),
// and the rigid ties that carry the held reference nodes' motion to the nodes of their sets.
#include <algorithm>
#include <cmath>

#include "solver.h"

namespace ccx {

bool constraint_modes(const Matrices &m, const std::vector<int> &held, Factor &f,
                      std::vector<double> &shapes) {
  size_t n = static_cast<size_t>(m.n), h = held.size();
  std::vector<int> held_at(n, -1), free_at(n, -1);
  for (size_t k = 0; k < h; ++k) held_at[held[k]] = static_cast<int>(k);
  size_t free_rows = 0;
  for (size_t r = 0; r < n; ++r)
    if (held_at[r] < 0) free_at[r] = static_cast<int>(free_rows++);
  // Right-hand sides -K_ih, one column per held row; each stored entry of the upper triangle
  // stands for (r, c) and (c, r).
  std::vector<double> rhs(free_rows * h, 0.0);
  for (int c = 0; c < m.n; ++c)
    for (int64_t k = m.start[c]; k < m.start[c + 1]; ++k) {
      int r = m.row[k];
      double v = m.stiffness[k];
      if (held_at[c] >= 0 && free_at[r] >= 0) rhs[held_at[c] * free_rows + free_at[r]] -= v;
      if (r != c && held_at[r] >= 0 && free_at[c] >= 0)
        rhs[held_at[r] * free_rows + free_at[c]] -= v;
    }
  if (!solve_shifted(f, rhs.data(), static_cast<int>(h))) return false;
  shapes.assign(n * h, 0.0);
  for (size_t k = 0; k < h; ++k) {
    double *shape = &shapes[k * n];
    shape[held[k]] = 1.0;
    for (size_t r = 0; r < n; ++r)
      if (free_at[r] >= 0) shape[r] = rhs[k * free_rows + free_at[r]];
  }
  return true;
}

bool check_interface_rotations(const Deck &deck, const DofMap &map) {
  // CalculiX ties shell and beam nodes by their translations alone: a set on one line leaves the
  // rotation about it without a row.
  for (const Interface &point : deck.interfaces) {
    int ref = node_index(deck, point.ref), rows[6] = {0, 0, 0, 0, 0, 0};
    for (size_t r = 0; r < map.row_node.size(); ++r)
      if (map.row_node[r] == ref && map.row_dir[r] >= 0) ++rows[map.row_dir[r]];
    for (int dir = 3; dir < 6; ++dir)
      if (rows[dir] == 0)
        return failed(
            "--interface %s: its nodes leave the rotation about %c free (shell and beam nodes "
            "are tied by their translations only, and the set's nodes lie on one line)",
            point.set.c_str(), "xyz"[dir - 3]);
  }
  return true;
}

void rigid_motions(const Deck &deck, const DofMap &map, std::vector<double> &motions) {
  size_t n = map.row_node.size();
  motions.assign(6 * n, 0.0);
  for (size_t r = 0; r < n; ++r) {
    int node = map.row_node[r], dir = map.row_dir[r];
    if (node < 0 || dir < 0) continue;
    if (dir >= 3) {
      motions[static_cast<size_t>(dir) * n + r] = 1.0;
      continue;
    }
    double x[3];
    for (int d = 0; d < 3; ++d)
      x[d] = deck.xyz[3 * static_cast<size_t>(node) + d] +
             (map.row_offset.empty() ? 0.0 : map.row_offset[3 * r + d]);
    motions[static_cast<size_t>(dir) * n + r] = 1.0;
    // theta_a e_a x x has component d equal to e_a x x along d.
    for (int a = 0; a < 3; ++a) {
      int b = (a + 1) % 3, c = (a + 2) % 3;  // e_a x x = (0, -x_c, x_b) in (a, b, c)
      if (dir == b) motions[static_cast<size_t>(3 + a) * n + r] = -x[c];
      if (dir == c) motions[static_cast<size_t>(3 + a) * n + r] = x[b];
    }
  }
}

void expand_rigid_ties(const Deck &deck, std::vector<double> &by_node) {
  for (const Interface &point : deck.interfaces) {
    int ref = node_index(deck, point.ref);
    const double *u = &by_node[6 * static_cast<size_t>(ref)];
    const double *theta = u + 3;
    const double *at = &deck.xyz[3 * static_cast<size_t>(ref)];
    for (int node : point.tied) {
      const double *x = &deck.xyz[3 * static_cast<size_t>(node)];
      double r[3] = {x[0] - at[0], x[1] - at[1], x[2] - at[2]};
      double *v = &by_node[6 * static_cast<size_t>(node)];
      v[0] = u[0] + theta[1] * r[2] - theta[2] * r[1];
      v[1] = u[1] + theta[2] * r[0] - theta[0] * r[2];
      v[2] = u[2] + theta[0] * r[1] - theta[1] * r[0];
    }
  }
}

// CalculiX's diagonal of the mass matrix is the density times the unit-density diagonal of the
// elements, node by node; where it is for every node with rows, the tied nodes get the masses
// their diagonal gives them in the untied model and their reference node keeps the rest.
void share_tied_masses(const Deck &deck, const DofMap &map,
                       const std::vector<double> &mass_diagonal,
                       const std::vector<double> &unit_diagonal, std::vector<double> &nodal) {
  size_t nodes = nodal.size();
  std::vector<double> diagonal(nodes, 0.0);
  std::vector<int> count(nodes, 0);
  for (size_t r = 0; r < mass_diagonal.size(); ++r) {
    int node = map.row_node[r], dir = map.row_dir[r];
    if (node < 0 || dir < 0 || dir > 2 || node >= deck.solid_nodes) continue;
    diagonal[node] += mass_diagonal[r];
    ++count[node];
  }
  double ours = 0.0, theirs = 0.0, lumped = 0.0, total = 0.0;
  for (size_t i = 0; i < nodes; ++i) {
    total += nodal[i];
    if (count[i] == 0) continue;
    diagonal[i] /= count[i];
    ours += unit_diagonal[i];
    theirs += diagonal[i];
    lumped += nodal[i];
  }
  if (!(ours > 0.0) || !(theirs > 0.0)) return;
  double density = theirs / ours;
  for (size_t i = 0; i < nodes; ++i)
    if (count[i] > 0 && std::fabs(diagonal[i] - density * unit_diagonal[i]) > 1e-9 * diagonal[i])
      return;  // several densities, or elements whose mass the recovery's points do not give
  double scale = lumped / theirs * density;
  for (const Interface &point : deck.interfaces) {
    double tied = 0.0;
    for (int node : point.tied) {
      nodal[node] = scale * unit_diagonal[node];
      tied += nodal[node];
    }
    double &ref = nodal[static_cast<size_t>(node_index(deck, point.ref))];
    ref = std::max(0.0, ref - tied);
  }
  double now = 0.0;
  for (double v : nodal) now += v;
  for (double &v : nodal) v *= total / now;
}

}  // namespace ccx
