// From CalculiX's expanded rows to the original nodes: six components per node (translations
// of the reference surface or axis, rotations from the expanded nodes), and the nodal masses
// and rotary inertias.
#include <algorithm>
#include <array>
#include <cmath>

#include "ccx2krx.h"

namespace ccx {

namespace {

using Vec = std::array<double, 3>;

const double kCornerSign[2][4] = {{-1, -1, 1, 1}, {1, -1, -1, 1}};
const int kMaxSlots = 8;

Vec cross(const Vec &a, const Vec &b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
double dot3(const Vec &a, const Vec &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

Vec axis(const Expansion &e, size_t node, int which) {
  const double *a = &e.axes[6 * node + 3 * static_cast<size_t>(which)];
  return {a[0], a[1], a[2]};
}

// The offset of expanded node `slot` from its original node, out of `count` such nodes.
Vec slot_offset(const Expansion &e, size_t node, int slot, int count) {
  Vec out = {0, 0, 0};
  if (e.kind[node] == Expansion::kShell) {
    double s = slot == count - 1 ? 0.5 : slot == 0 && !e.tied[node] ? -0.5 : 0.0;
    Vec d = axis(e, node, 0);
    for (int k = 0; k < 3; ++k) out[k] = s * d[k];
    return out;
  }
  Vec a1 = axis(e, node, 0), a2 = axis(e, node, 1);
  double s1 = 0.0, s2 = 0.0;
  if (slot < 4) {
    s1 = kCornerSign[0][slot];
    s2 = kCornerSign[1][slot];
  } else {
    // Edge middles: -a1, -a2, +a1, +a2 directions, each at edge x the corner's offset.
    const double m1[4] = {-1, 0, 1, 0}, m2[4] = {0, -1, 0, 1};
    s1 = m1[slot - 4] * e.edge[node];
    s2 = m2[slot - 4] * e.edge[node];
  }
  for (int k = 0; k < 3; ++k) out[k] = s1 * a1[k] + s2 * a2[k];
  return out;
}

// The directions of a node whose rows are complete: as many as the node's fullest direction,
// at least two through a shell and four corners on a beam. Others are held.
int complete_count(const Expansion &e, size_t node) {
  int most = 0;
  for (int d = 0; d < 3; ++d) most = std::max<int>(most, e.slots[3 * node + d]);
  int least = e.kind[node] == Expansion::kBeam ? 4 : 2;
  return std::min(most >= least ? most : 0, kMaxSlots);
}

void project_shell(const Expansion &e, size_t node, const double (*given)[3], int count,
                   double *out) {
  double tied[3][3];
  const double(*u)[3] = given;
  if (e.tied[node]) {
    // The node's own rows, then (middle and) top: the node is the mean of bottom and top, so
    // the bottom is 2 own - top.
    for (int d = 0; d < 3; ++d) {
      double own = given[0][d], top = given[count - 1][d];
      tied[0][d] = 2.0 * own - top;
      tied[1][d] = count == 3 ? given[1][d] : top;
      tied[2][d] = top;
    }
    u = tied;
  }
  for (int d = 0; d < 3; ++d)
    out[d] =
        count == 3 ? (u[0][d] + 4.0 * u[1][d] + u[2][d]) / 6.0 : (u[0][d] + u[count - 1][d]) / 2.0;
  Vec t = axis(e, node, 0);
  Vec du = {u[count - 1][0] - u[0][0], u[count - 1][1] - u[0][1], u[count - 1][2] - u[0][2]};
  Vec theta = cross(t, du);
  double tt = dot3(t, t);
  for (int d = 0; d < 3; ++d) out[3 + d] = tt > 0 ? theta[d] / tt : 0.0;
}

// The rotation that best fits the corners' displacements: with corners at +-a1 +-a2, the
// normal equations are diagonal in a1, a2 and their cross product.
void project_beam(const Expansion &e, size_t node, const double (*u)[3], double *out) {
  Vec mean = {0, 0, 0}, moment = {0, 0, 0};
  for (int c = 0; c < 4; ++c)
    for (int d = 0; d < 3; ++d) mean[d] += u[c][d] / 4.0;
  for (int c = 0; c < 4; ++c) {
    Vec r = slot_offset(e, node, c, 4);
    Vec v = {u[c][0] - mean[0], u[c][1] - mean[1], u[c][2] - mean[2]};
    Vec m = cross(r, v);
    for (int d = 0; d < 3; ++d) moment[d] += m[d];
  }
  Vec a1 = axis(e, node, 0), a2 = axis(e, node, 1), a3 = cross(a1, a2);
  double p = dot3(a1, a1), q = dot3(a2, a2);
  Vec theta = {0, 0, 0};
  const Vec *dirs[3] = {&a1, &a2, &a3};
  const double inertia[3] = {4 * q, 4 * p, 4 * (p + q)};  // per squared length of the axis
  const double length2[3] = {p, q, p * q};
  for (int k = 0; k < 3; ++k) {
    double c = dot3(*dirs[k], moment) / (length2[k] * inertia[k]);
    for (int d = 0; d < 3; ++d) theta[d] += c * (*dirs[k])[d];
  }
  for (int d = 0; d < 3; ++d) {
    out[d] = mean[d];
    out[3 + d] = theta[d];
  }
}

// One entry v of the mass matrix between rows r and c of node i's expanded nodes: its share of
// the inertia of those nodes turning together (u_a = theta x r_a, so the entry adds
// v S_a^T S_b with S the cross-product matrix of the offset) and of their mass.
void add_block_inertia(const Expansion &e, const DofMap &map, size_t i, int r, int c, double v,
                       int count, double *J, double &mass) {
  int sr = map.row_slot.empty() ? 0 : map.row_slot[r];
  int sc = map.row_slot.empty() ? 0 : map.row_slot[c];
  if (sr >= kMaxSlots || sc >= kMaxSlots) return;
  int dr = map.row_dir[r], dc = map.row_dir[c];
  Vec a = slot_offset(e, i, sr, count), b = slot_offset(e, i, sc, count);
  // Row d of the cross-product matrix of x: (e_d x) . x read as a row over theta.
  auto row = [](const Vec &x, int d) {
    Vec out = {0, 0, 0};
    int p = (d + 1) % 3, q = (d + 2) % 3;
    out[p] = x[q];  // (theta x x)_d = theta_p x_q - theta_q x_p, with d, p, q cyclic
    out[q] = -x[p];
    return out;
  };
  Vec ra = row(a, dr), rb = row(b, dc);
  for (int twice = 0; twice < (r == c ? 1 : 2); ++twice) {
    const Vec &x = twice ? rb : ra, &y = twice ? ra : rb;
    for (int p = 0; p < 3; ++p)
      for (int q = 0; q < 3; ++q) J[3 * p + q] += v * x[p] * y[q];
    if (dr == dc) mass += v;
  }
}

// The first expanded node of a node tied to an interface point, which has no rows: the rigid
// body holds the mean of the bottom and top (of the four corners) at u + theta x arm.
void complete_tie(const Expansion &e, const Expansion::Tie &tie, const std::vector<double> &by_node,
                  double (*u)[3]) {
  size_t i = static_cast<size_t>(tie.node);
  const double *ref = &by_node[6 * static_cast<size_t>(tie.ref)];
  Vec rigid = cross({ref[3], ref[4], ref[5]}, {tie.arm[0], tie.arm[1], tie.arm[2]});
  if (e.kind[i] == Expansion::kKnot) {
    // A knot's translations have no rows: the knot follows the point as a whole.
    for (int d = 0; d < 3; ++d) u[0][d] = ref[d] + rigid[static_cast<size_t>(d)];
    return;
  }
  int count = complete_count(e, i);
  if (count == 0) return;
  bool beam = e.kind[i] == Expansion::kBeam;
  for (int d = 0; d < 3; ++d) {
    double sum = beam ? u[1][d] + u[2][d] + u[3][d] : u[count - 1][d];
    u[0][d] = (beam ? 4.0 : 2.0) * (ref[d] + rigid[static_cast<size_t>(d)]) - sum;
  }
}

// Whether the rows' diagonal of every node whose rows are its own (no knot, no node tied to an
// interface point or to solids, none without rows) is one density times its unit-density
// diagonal: then that diagonal gives every node its share, knots and tied nodes included.
bool one_density(const Expansion &e, const std::vector<double> &unit,
                 const std::vector<double> &rows, const std::vector<unsigned char> &ties) {
  if (unit.size() != rows.size()) return false;
  double low = 0.0, high = 0.0;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (e.kind[i] == Expansion::kKnot || e.tied[i] || ties[i] || !(rows[i] > 0.0) ||
        !(unit[i] > 0.0))
      continue;
    double density = rows[i] / unit[i];
    if (low == 0.0) low = high = density;
    low = std::min(low, density);
    high = std::max(high, density);
  }
  return low > 0.0 && high - low <= 1e-9 * high;
}

}  // namespace

void place_expanded_rows(const Expansion &e, DofMap &map) {
  size_t rows = map.row_node.size();
  map.row_offset.assign(3 * rows, 0.0);
  for (size_t r = 0; r < rows; ++r) {
    int node = map.row_node[r], dir = map.row_dir[r];
    if (node < 0 || dir < 0 || dir > 2) continue;
    size_t i = static_cast<size_t>(node);
    int count = complete_count(e, i);
    if ((e.kind[i] != Expansion::kShell && e.kind[i] != Expansion::kBeam) || count == 0) continue;
    Vec at = slot_offset(e, i, std::min(map.row_slot[r], kMaxSlots - 1), count);
    std::copy(at.begin(), at.end(), &map.row_offset[3 * r]);
  }
}

void project_rows(const Expansion &e, const DofMap &map, const double *rows,
                  std::vector<double> &by_node) {
  size_t nodes = e.kind.size();
  by_node.assign(6 * nodes, 0.0);
  // The expanded nodes' translations, kMaxSlots x 3 per node; a direction with fewer rows than
  // the node's complete count is held and stays zero.
  std::vector<double> expanded(static_cast<size_t>(kMaxSlots) * 3 * nodes, 0.0);
  for (size_t r = 0; r < map.row_node.size(); ++r) {
    int node = map.row_node[r], dir = map.row_dir[r];
    if (node < 0 || dir < 0) continue;
    size_t i = static_cast<size_t>(node);
    int slot = map.row_slot.empty() ? 0 : map.row_slot[r];
    if (e.kind[i] == Expansion::kSolid || e.kind[i] == Expansion::kKnot || dir > 2) {
      by_node[6 * i + static_cast<size_t>(dir)] = rows[r];
      continue;
    }
    if (e.slots[3 * i + static_cast<size_t>(dir)] != complete_count(e, i) || slot >= kMaxSlots)
      continue;
    expanded[(kMaxSlots * i + static_cast<size_t>(slot)) * 3 + static_cast<size_t>(dir)] = rows[r];
  }
  for (const Expansion::Tie &tie : e.ties) {
    size_t i = static_cast<size_t>(tie.node);
    double(*u)[3] = reinterpret_cast<double(*)[3]>(&expanded[kMaxSlots * 3 * i]);
    complete_tie(e, tie, by_node, u);
    if (e.kind[i] == Expansion::kKnot) std::copy(u[0], u[0] + 3, &by_node[6 * i]);
  }
  for (size_t i = 0; i < nodes; ++i) {
    int count = complete_count(e, i);
    if (count == 0 || e.kind[i] == Expansion::kSolid || e.kind[i] == Expansion::kKnot) continue;
    const double(*u)[3] = reinterpret_cast<const double(*)[3]>(&expanded[kMaxSlots * 3 * i]);
    if (e.kind[i] == Expansion::kShell)
      project_shell(e, i, u, count, &by_node[6 * i]);
    else
      project_beam(e, i, u, &by_node[6 * i]);
  }
}

void project_stresses(const Expansion &e, const Deck &deck, int surface,
                      const std::vector<int> &ids, const std::vector<double> &values,
                      std::vector<double> &by_node, std::vector<unsigned char> &has) {
  size_t nodes = e.kind.size();
  std::vector<std::pair<int, int>> expanded;  // expanded id, 2 x node + side
  for (size_t i = 0; i < nodes; ++i) {
    if (e.tied[i] || (e.kind[i] != Expansion::kShell && e.kind[i] != Expansion::kBeam &&
                      e.kind[i] != Expansion::kKnot))
      continue;
    for (int side = 0; side < 2; ++side)
      if (e.surface[2 * i + static_cast<size_t>(side)] > 0)
        expanded.emplace_back(e.surface[2 * i + static_cast<size_t>(side)],
                              static_cast<int>(2 * i) + side);
  }
  std::sort(expanded.begin(), expanded.end());
  by_node.assign(6 * nodes, 0.0);
  has.assign(nodes, 0);
  // Weights of bottom and top: the chosen surface, or half each for the mid-surface.
  const double weight[2] = {surface < 0    ? 1.0
                            : surface == 0 ? 0.5
                                           : 0.0,
                            surface > 0    ? 1.0
                            : surface == 0 ? 0.5
                                           : 0.0};
  for (size_t k = 0; k < ids.size(); ++k) {
    const double *s = &values[6 * k];
    int i = node_index(deck, ids[k]);
    if (i >= 0 && (e.kind[static_cast<size_t>(i)] == Expansion::kSolid || e.tied[i])) {
      std::copy(s, s + 6, &by_node[6 * static_cast<size_t>(i)]);
      has[static_cast<size_t>(i)] = 1;
      continue;
    }
    auto it = std::lower_bound(expanded.begin(), expanded.end(), std::make_pair(ids[k], -1));
    // A beam's corner stands for both sides: take it once.
    for (; it != expanded.end() && it->first == ids[k]; ++it) {
      size_t node = static_cast<size_t>(it->second / 2);
      int side = it->second % 2;
      bool beam = e.surface[2 * node] == e.surface[2 * node + 1];
      double w = beam ? (side == 0 ? 1.0 : 0.0) : weight[side];
      for (int c = 0; c < 6; ++c) by_node[6 * node + static_cast<size_t>(c)] += w * s[c];
      has[node] = 1;
    }
  }
}

// The rotary inertia of a shell or beam node is that of its expanded nodes turning together
// about it, taken from the consistent mass of their own block (which spreads the mass through
// the thickness or over the section as the element does), and scaled from that block's mass to
// the node's lumped mass: corners alone would give a section three times its inertia.
bool lump_expanded_masses(const Matrices &m, const DofMap &map, const Expansion &e,
                          const std::vector<double> &unit, std::vector<double> &nodal,
                          std::vector<double> &inertia, double &total) {
  size_t nodes = e.kind.size();
  std::vector<unsigned char> ties(nodes, 0);
  for (const Expansion::Tie &tie : e.ties) ties[static_cast<size_t>(tie.node)] = 1;
  std::vector<double> slot_sum(static_cast<size_t>(kMaxSlots) * nodes, 0.0);
  std::vector<unsigned char> slot_rows(static_cast<size_t>(kMaxSlots) * nodes, 0);
  std::vector<double> block(9 * nodes, 0.0), block_mass(nodes, 0.0);
  int rows_of[3] = {0, 0, 0};
  for (int r = 0; r < m.n; ++r)
    if (map.row_dir[r] >= 0 && map.row_dir[r] < 3) ++rows_of[map.row_dir[r]];
  int dir = static_cast<int>(std::max_element(rows_of, rows_of + 3) - rows_of);
  if (rows_of[dir] == 0) return failed("the matrices hold no translational degree of freedom");
  std::vector<int> count(nodes, 0);
  for (size_t i = 0; i < nodes; ++i) count[i] = complete_count(e, i);
  total = 0.0;
  for (int c = 0; c < m.n; ++c) {
    int node = map.row_node[c], dc = map.row_dir[c];
    for (int64_t k = m.start[c]; k < m.start[c + 1]; ++k) {
      int r = m.row[k];
      double v = m.mass[k];
      if (map.row_dir[r] == dir && dc == dir) total += r == c ? v : 2.0 * v;
      if (node < 0 || map.row_node[r] != node || dc < 0) continue;
      size_t i = static_cast<size_t>(node);
      int dr = map.row_dir[r];
      if (e.kind[i] == Expansion::kKnot && dc >= 3 && dr >= 3) {
        block[9 * i + 3 * static_cast<size_t>(dr - 3) + static_cast<size_t>(dc - 3)] = v;
        block[9 * i + 3 * static_cast<size_t>(dc - 3) + static_cast<size_t>(dr - 3)] = v;
      }
      if (dc > 2 || dr < 0 || dr > 2) continue;
      if ((e.kind[i] == Expansion::kShell || e.kind[i] == Expansion::kBeam) && count[i] > 0)
        add_block_inertia(e, map, i, r, c, v, count[i], &block[9 * i], block_mass[i]);
      if (r != c) continue;
      int slot = map.row_slot.empty() ? 0 : std::min(map.row_slot[c], kMaxSlots - 1);
      size_t at = static_cast<size_t>(kMaxSlots) * i + static_cast<size_t>(slot);
      slot_sum[at] += v;
      ++slot_rows[at];
    }
  }
  for (size_t at = 0; at < slot_sum.size(); ++at)
    slot_sum[at] = slot_rows[at] ? slot_sum[at] / slot_rows[at] : 0.0;
  // A node tied to an interface point has no rows of its first expanded node, whose mass its
  // last one's stands for (bottom and top, or the corners, mirror each other); the reference
  // node's rows carry that mass condensed, so that a set of shell and beam nodes alone leaves
  // the reference node none. A knot in the set has no translation rows at all: its mass stays
  // with the reference node.
  std::vector<double> knot_rows(nodes, 0.0);  // a knot's translation rows: its block's mass
  for (size_t i = 0; i < nodes; ++i)
    if (e.kind[i] == Expansion::kKnot) knot_rows[i] = slot_sum[kMaxSlots * i];
  std::vector<int> bare = e.bare_refs;
  for (const Expansion::Tie &tie : e.ties) {
    size_t at = static_cast<size_t>(kMaxSlots) * static_cast<size_t>(tie.node);
    size_t i = static_cast<size_t>(tie.node);
    if (e.kind[i] == Expansion::kKnot)
      bare.erase(std::remove(bare.begin(), bare.end(), tie.ref), bare.end());
    int mirror = e.kind[i] == Expansion::kBeam ? 1 : std::max(count[i] - 1, 0);
    slot_sum[at] = slot_sum[at + static_cast<size_t>(mirror)];
  }
  for (int ref : bare) slot_sum[static_cast<size_t>(kMaxSlots) * static_cast<size_t>(ref)] = 0.0;
  nodal.assign(nodes, 0.0);
  for (size_t i = 0; i < nodes; ++i)
    for (int s = 0; s < kMaxSlots; ++s) nodal[i] += slot_sum[kMaxSlots * i + s];
  const std::vector<double> &share = one_density(e, unit, nodal, ties) ? unit : nodal;
  double sum = 0.0;
  for (double v : share) sum += v;
  if (!(total > 0.0) || !(sum > 0.0))
    return failed("the mass matrix gives no positive total mass (%g); check *DENSITY", total);
  double scale = total / sum;
  for (size_t i = 0; i < nodes; ++i) nodal[i] = share[i] * scale;
  inertia.assign(6 * nodes, 0.0);
  for (size_t i = 0; i < nodes; ++i) {
    const double *B = &block[9 * i];
    // The block's mass counts each of the three directions; a knot's block is that of its
    // translation rows.
    double factor = e.kind[i] == Expansion::kKnot ? (knot_rows[i] > 0.0 ? nodal[i] / knot_rows[i]
                                                                         : 0.0)
                    : block_mass[i] > 0.0         ? 3.0 * nodal[i] / block_mass[i]
                                                  : 0.0;
    const double entries[6] = {B[0], B[4], B[8], B[1], B[2], B[5]};
    for (int k = 0; k < 6; ++k) inertia[6 * i + static_cast<size_t>(k)] = factor * entries[k];
  }
  return true;
}

}  // namespace ccx
