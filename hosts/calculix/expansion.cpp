// Shells and beams as CalculiX expands them: the reference geometry of their nodes (normal and
// thickness, section axes), the knots that JOB.12d lists, the slot of each expanded row, and the
// shell faces.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string>

#include "ccx2krx.h"
#include "solver.h"

namespace ccx {

namespace {

using Vec = std::array<double, 3>;

Vec sub(const Vec &a, const Vec &b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
Vec cross(const Vec &a, const Vec &b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
double dot3(const Vec &a, const Vec &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
double norm(const Vec &a) { return std::sqrt(dot3(a, a)); }
Vec scaled(const Vec &a, double s) { return {a[0] * s, a[1] * s, a[2] * s}; }

Vec point(const Deck &deck, int index) {
  const double *x = &deck.xyz[3 * static_cast<size_t>(index)];
  return {x[0], x[1], x[2]};
}

// The section of every shell and beam element, by position in deck.structures; -1 for none.
std::vector<int> element_sections(const Deck &deck) {
  std::vector<std::pair<int, int>> by_id;  // element id, position
  for (size_t k = 0; k < deck.structures.size(); ++k)
    by_id.emplace_back(deck.structures[k].id, static_cast<int>(k));
  std::sort(by_id.begin(), by_id.end());
  std::vector<int> section(deck.structures.size(), -1);
  for (size_t s = 0; s < deck.sections.size(); ++s) {
    for (const ElementSet &set : deck.element_sets) {
      if (set.name != deck.sections[s].elset) continue;
      for (int id : set.ids) {
        auto it = std::lower_bound(by_id.begin(), by_id.end(), std::make_pair(id, -1));
        if (it != by_id.end() && it->first == id) section[it->second] = static_cast<int>(s);
      }
    }
  }
  return section;
}

// Natural coordinates of the nodes of a quadrilateral (corners, then midsides) and of a
// triangle (corners, then midsides), in CalculiX's order.
const double kQuad[8][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}, {0, -1}, {1, 0}, {0, 1}, {-1, 0}};
const double kTriangle[6][2] = {{0, 0}, {1, 0}, {0, 1}, {0.5, 0}, {0.5, 0.5}, {0, 0.5}};

// Derivatives of shape function i of an element of n nodes at natural coordinates (r, s).
void shape_derivatives(int n, int i, double r, double s, double &dr, double &ds) {
  if (n == 4 || n == 8) {
    double ri = kQuad[i][0], si = kQuad[i][1];
    if (n == 4) {
      dr = 0.25 * ri * (1 + s * si);
      ds = 0.25 * si * (1 + r * ri);
    } else if (i < 4) {
      dr = 0.25 * ri * (1 + s * si) * (2 * r * ri + s * si);
      ds = 0.25 * si * (1 + r * ri) * (r * ri + 2 * s * si);
    } else if (ri == 0) {
      dr = -r * (1 + s * si);
      ds = 0.5 * si * (1 - r * r);
    } else {
      dr = 0.5 * ri * (1 - s * s);
      ds = -s * (1 + r * ri);
    }
    return;
  }
  double l = 1 - r - s;  // the first corner's area coordinate
  const double linear[3][2] = {{-1, -1}, {1, 0}, {0, 1}};
  if (n == 3) {
    dr = linear[i][0];
    ds = linear[i][1];
    return;
  }
  const double at[3] = {l, r, s};
  if (i < 3) {
    dr = (4 * at[i] - 1) * linear[i][0];
    ds = (4 * at[i] - 1) * linear[i][1];
    return;
  }
  // Midside i - 3 joins corners (0, 1), (1, 2), (2, 0): N = 4 L_a L_b.
  int a = i - 3, b = (i - 2) % 3;
  dr = 4 * (linear[a][0] * at[b] + at[a] * linear[b][0]);
  ds = 4 * (linear[a][1] * at[b] + at[a] * linear[b][1]);
}

// The element's unit normal at its node k: the cross product of the surface's derivatives along
// its natural coordinates there, as CalculiX places the expanded nodes of a curved shell.
Vec shell_normal(const Deck &deck, const Structure &e, int k) {
  int n = static_cast<int>(e.nodes.size());
  const double *at = n == 4 || n == 8 ? kQuad[k] : kTriangle[k];
  Vec dr = {0, 0, 0}, ds = {0, 0, 0};
  for (int i = 0; i < n; ++i) {
    double a = 0.0, b = 0.0;
    shape_derivatives(n, i, at[0], at[1], a, b);
    Vec x = point(deck, node_index(deck, e.nodes[i]));
    for (int d = 0; d < 3; ++d) {
      dr[d] += a * x[d];
      ds[d] += b * x[d];
    }
  }
  Vec normal = cross(dr, ds);
  double length = norm(normal);
  return length > 0 ? scaled(normal, 1.0 / length) : normal;
}

// The thickness is the section's, or with its NODAL THICKNESS parameter each node's own (a
// *NODAL THICKNESS without that parameter is not used, as in CalculiX).
bool place_shell(const Deck &deck, const Structure &e, const Section &s, Expansion &x,
                 const std::vector<double> &nodal, std::vector<double> &thickness) {
  if (!s.nodal && (s.numbers.empty() || !(s.numbers[0] > 0.0)))
    return failed("*SHELL SECTION, ELSET=%s gives no positive thickness", s.elset.c_str());
  for (size_t k = 0; k < e.nodes.size(); ++k) {
    int id = e.nodes[k];
    Vec n = shell_normal(deck, e, static_cast<int>(k));
    if (norm(n) == 0.0) return failed("shell element %d has no area at node %d", e.id, id);
    size_t i = static_cast<size_t>(node_index(deck, id));
    if (s.nodal && !(nodal[i] > 0.0))
      return failed("node %d of shell element %d has no *NODAL THICKNESS", id, e.id);
    x.kind[i] = Expansion::kShell;
    for (int d = 0; d < 3; ++d) x.axes[6 * i + d] += n[d];
    if (thickness[i] == 0.0) thickness[i] = s.nodal ? nodal[i] : s.numbers[0];
  }
  return true;
}

// The section's first axis is its direction made normal to the beam's axis; the second is the
// beam's axis times the first, as CalculiX places the corners. a1 and a2 get the offsets of the
// corner at +1 +1 along them, edge the factor of the edge middles' offsets.
bool beam_axes(const Deck &deck, const Structure &e, const Section &s, Vec &a1, Vec &a2,
               double &edge) {
  bool round = s.shape == "CIRC";
  if (!(s.shape == "RECT" || s.shape == "BOX" || round))
    return failed("beam section %s of element %d cannot be exported: only RECT, CIRC and BOX",
                  s.shape.empty() ? "(none)" : s.shape.c_str(), e.id);
  size_t count = s.numbers.size();
  if (count < 4 || !(s.numbers[0] > 0.0))
    return failed("the beam section of ELSET=%s gives no size and direction", s.elset.c_str());
  double a = s.numbers[0], b = round ? a : s.numbers[1];
  Vec given = {s.numbers[count - 3], s.numbers[count - 2], s.numbers[count - 1]};
  Vec axis = sub(point(deck, node_index(deck, e.nodes.back())),
                 point(deck, node_index(deck, e.nodes.front())));
  if (norm(axis) == 0.0) return failed("beam element %d has no length", e.id);
  axis = scaled(axis, 1.0 / norm(axis));
  Vec first = sub(given, scaled(axis, dot3(given, axis)));
  if (!(norm(first) > 1e-6 * norm(given)))
    return failed("the section direction of beam element %d lies along the beam", e.id);
  first = scaled(first, 1.0 / norm(first));
  Vec second = cross(axis, first);
  // A round section's corners stand on its circle at 45 degrees, its edge middles on the axes.
  double corner = round ? 0.5 / std::sqrt(2.0) : 0.5;
  a1 = scaled(first, corner * a);
  a2 = scaled(second, corner * b);
  edge = round ? std::sqrt(2.0) : 1.0;
  return true;
}

bool place_beam(const Deck &deck, const Structure &e, const Section &s, Expansion &x) {
  Vec a1, a2;
  double edge = 1.0;
  if (!beam_axes(deck, e, s, a1, a2, edge)) return false;
  for (int id : e.nodes) {
    size_t i = static_cast<size_t>(node_index(deck, id));
    x.kind[i] = Expansion::kBeam;
    for (int d = 0; d < 3; ++d) {
      x.axes[6 * i + d] = a1[d];
      x.axes[6 * i + 3 + d] = a2[d];
    }
    x.edge[i] = edge;
  }
  return true;
}

// The expanded element's positions that belong to original node k: bottom, (middle,) top for a
// shell node; corners, then edge middles, for a beam node.
std::vector<int> expanded_positions(const Structure &e, int k) {
  int c = e.corners, n = static_cast<int>(e.nodes.size());
  if (!e.beam) {
    int m = n - c;
    if (k < c)
      return m == 0 ? std::vector<int>{k, k + c} : std::vector<int>{k, 2 * c + 2 * m + k, k + c};
    return {2 * c + (k - c), 2 * c + m + (k - c)};
  }
  if (n == 2) return k == 0 ? std::vector<int>{0, 3, 4, 7} : std::vector<int>{1, 2, 5, 6};
  if (k == 0) return {0, 3, 4, 7, 11, 15, 16, 19};
  if (k == 1) return {8, 10, 12, 14};
  return {1, 2, 5, 6, 9, 13, 17, 18};
}

}  // namespace

bool build_expansion(const Deck &deck, Expansion &x) {
  size_t nodes = deck.node_ids.size();
  x.kind.assign(nodes, Expansion::kSolid);
  x.axes.assign(6 * nodes, 0.0);
  x.edge.assign(nodes, 1.0);
  x.slots.assign(3 * nodes, 0);
  x.tied.assign(nodes, 0);
  std::vector<double> thickness(nodes, 0.0), nodal(nodes, 0.0);
  for (const auto &[id, t] : deck.nodal_thickness) {
    int i = node_index(deck, id);
    if (i >= 0) nodal[static_cast<size_t>(i)] = t;
  }
  std::vector<int> section = element_sections(deck);
  for (size_t k = 0; k < deck.structures.size(); ++k) {
    const Structure &e = deck.structures[k];
    if (section[k] < 0)
      return failed("%s element %d has no *%s SECTION", e.type.c_str(), e.id,
                    e.beam ? "BEAM" : "SHELL");
    const Section &s = deck.sections[static_cast<size_t>(section[k])];
    if (s.beam != e.beam)
      return failed("%s element %d has a %s section", e.type.c_str(), e.id,
                    s.beam ? "beam" : "shell");
    if (s.offset)
      return failed("the section of %s element %d has an offset, which cannot be exported",
                    e.type.c_str(), e.id);
    if (!(e.beam ? place_beam(deck, e, s, x) : place_shell(deck, e, s, x, nodal, thickness)))
      return false;
  }
  for (const Element &e : deck.elements)
    for (int id : e.nodes) {
      size_t i = static_cast<size_t>(node_index(deck, id));
      if (x.kind[i] == Expansion::kBeam)
        return failed(
            "beam node %d is a node of solid element %d as well, which cannot be "
            "exported",
            id, e.id);
      x.tied[i] = x.kind[i] == Expansion::kShell;
    }
  for (size_t i = 0; i < nodes; ++i) {
    if (x.kind[i] != Expansion::kShell) continue;
    Vec n = {x.axes[6 * i], x.axes[6 * i + 1], x.axes[6 * i + 2]};
    double length = norm(n);
    for (int d = 0; d < 3; ++d) x.axes[6 * i + d] = length > 0 ? n[d] / length * thickness[i] : 0;
  }
  return true;
}

namespace {

// The solid CalculiX makes of each shell and beam type, and whether it integrates reduced.
struct SolidOf {
  const char *structure;
  const char *solid;
  int rule;
};
const SolidOf kSolidOf[] = {{"S3", "C3D6", 0},    {"S4", "C3D8", 0},    {"S4R", "C3D8R", 1},
                            {"S6", "C3D15", 0},   {"S8", "C3D20", 0},   {"S8R", "C3D20R", 1},
                            {"B31", "C3D8", 0},   {"B32", "C3D20", 0},  {"B32R", "C3D20R", 1}};

// Natural coordinates of a hexahedron's twenty nodes in CalculiX's order: a beam's solid runs
// along the first, its section spans the other two.
const double kHexNodes[20][3] = {
    {-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1}, {-1, -1, 1}, {1, -1, 1}, {1, 1, 1},
    {-1, 1, 1},   {0, -1, -1}, {1, 0, -1}, {0, 1, -1},  {-1, 0, -1}, {0, -1, 1}, {1, 0, 1},
    {0, 1, 1},    {-1, 0, 1},  {-1, -1, 0}, {1, -1, 0}, {1, 1, 0},   {-1, 1, 0}};

// The solid's nodes of a shell element: bottom corners, top corners, bottom midsides, top
// midsides, then the corners' middles; each as (the element's node, -1 bottom, 0, 1 top).
void shell_solid_nodes(const Structure &e, std::vector<std::pair<int, int>> &nodes) {
  int c = e.corners, m = static_cast<int>(e.nodes.size()) - c;
  nodes.clear();
  for (int side : {-1, 1})
    for (int k = 0; k < c; ++k) nodes.emplace_back(k, side);
  for (int side : {-1, 1})
    for (int k = 0; k < m; ++k) nodes.emplace_back(c + k, side);
  if (m > 0)
    for (int k = 0; k < c; ++k) nodes.emplace_back(k, 0);
}

// A beam element's solid: per node its place along the beam (-1, 0, 1) gives the element's
// node, the other two natural coordinates the place on the section.
void add_beam_solid(const Deck &deck, const Structure &e, const Vec &a1, const Vec &a2, double edge,
                    std::vector<double> &xyz, std::vector<int> &owner) {
  int count = e.nodes.size() == 2 ? 8 : 20;
  for (int a = 0; a < count; ++a) {
    const double *p = kHexNodes[a];
    int k = p[0] < 0 ? 0 : p[0] > 0 ? static_cast<int>(e.nodes.size()) - 1 : 1;
    int i = node_index(deck, e.nodes[static_cast<size_t>(k)]);
    double f = p[1] == 0.0 || p[2] == 0.0 ? edge : 1.0;
    Vec x = point(deck, i);
    for (int d = 0; d < 3; ++d) xyz.push_back(x[d] + f * (p[2] * a1[d] - p[1] * a2[d]));
    owner.push_back(i);
  }
}

// The twenty-node hexahedron's shape functions and their derivatives at natural (x, y, z).
void hex20_shapes(const double *at, double n[20], double dn[20][3]) {
  for (int i = 0; i < 20; ++i) {
    const double *c = kHexNodes[i];
    double f[3], df[3];  // the factors along each coordinate and their derivatives
    for (int k = 0; k < 3; ++k) {
      f[k] = c[k] == 0.0 ? 1.0 - at[k] * at[k] : 1.0 + c[k] * at[k];
      df[k] = c[k] == 0.0 ? -2.0 * at[k] : c[k];
    }
    double scale = i < 8 ? 0.125 : 0.25;
    // A corner's function carries the factor (c . x - 2).
    double g = i < 8 ? c[0] * at[0] + c[1] * at[1] + c[2] * at[2] - 2.0 : 1.0;
    n[i] = scale * f[0] * f[1] * f[2] * g;
    for (int k = 0; k < 3; ++k) {
      double others = f[(k + 1) % 3] * f[(k + 2) % 3];
      dn[i][k] = scale * others * (df[k] * g + (i < 8 ? f[k] * c[k] : 0.0));
    }
  }
}

// The unit-density mass diagonal of a beam's reduced twenty-node solid, which CalculiX integrates
// at two points along the beam and three by three across its section.
void reduced_beam_diagonal(const double *xyz, double *diagonal) {
  const double g2 = 1.0 / std::sqrt(3.0), g3 = std::sqrt(0.6);
  const double along[2] = {-g2, g2}, across[3] = {-g3, 0.0, g3}, weight[3] = {5 / 9.0, 8 / 9.0,
                                                                              5 / 9.0};
  std::fill(diagonal, diagonal + 20, 0.0);
  for (double x : along)
    for (int b = 0; b < 3; ++b)
      for (int c = 0; c < 3; ++c) {
        double at[3] = {x, across[b], across[c]}, n[20], dn[20][3], J[3][3] = {};
        hex20_shapes(at, n, dn);
        for (int a = 0; a < 20; ++a)
          for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) J[i][j] += xyz[3 * a + i] * dn[a][j];
        double det = J[0][0] * (J[1][1] * J[2][2] - J[1][2] * J[2][1]) -
                     J[0][1] * (J[1][0] * J[2][2] - J[1][2] * J[2][0]) +
                     J[0][2] * (J[1][0] * J[2][1] - J[1][1] * J[2][0]);
        double volume = std::fabs(det) * weight[b] * weight[c];
        for (int a = 0; a < 20; ++a) diagonal[a] += n[a] * n[a] * volume;
      }
}

}  // namespace

bool expanded_mass_diagonal(const Deck &deck, const Expansion &x, std::vector<double> &diagonal) {
  diagonal.resize(deck.node_ids.size(), 0.0);
  Deck rebuilt;  // every element's solid on nodes of its own, numbered from 1
  std::vector<int> owner;
  std::vector<int> section = element_sections(deck);
  std::vector<std::pair<int, int>> places;
  for (size_t n = 0; n < deck.structures.size(); ++n) {
    const Structure &e = deck.structures[n];
    const SolidOf *type = nullptr;
    for (const SolidOf &t : kSolidOf)
      if (e.type == t.structure) type = &t;
    if (!type || section[n] < 0)
      return failed("%s element %d has no solid to stand for its mass", e.type.c_str(), e.id);
    Element solid;
    solid.id = e.id;
    solid.shape = element_shape(type->solid);
    solid.rule = type->rule;
    size_t first = owner.size();
    if (e.beam) {
      Vec a1, a2;
      double edge = 1.0;
      if (!beam_axes(deck, e, deck.sections[static_cast<size_t>(section[n])], a1, a2, edge))
        return false;
      if (e.type == "B32R") {
        std::vector<double> xyz;
        std::vector<int> own;
        add_beam_solid(deck, e, a1, a2, edge, xyz, own);
        double unit[20];
        reduced_beam_diagonal(xyz.data(), unit);
        for (int a = 0; a < 20; ++a) diagonal[static_cast<size_t>(own[a])] += unit[a];
        continue;
      }
      add_beam_solid(deck, e, a1, a2, edge, rebuilt.xyz, owner);
    } else {
      shell_solid_nodes(e, places);
      for (const auto &[k, side] : places) {
        size_t i = static_cast<size_t>(node_index(deck, e.nodes[static_cast<size_t>(k)]));
        // Through the node's normal, at a knot through the element's own (the normals that
        // meet there differ).
        Vec t = {x.axes[6 * i], x.axes[6 * i + 1], x.axes[6 * i + 2]};
        if (x.kind[i] == Expansion::kKnot) t = scaled(shell_normal(deck, e, k), norm(t));
        Vec p = point(deck, static_cast<int>(i));
        for (int d = 0; d < 3; ++d) rebuilt.xyz.push_back(p[d] + 0.5 * side * t[d]);
        owner.push_back(static_cast<int>(i));
      }
    }
    for (size_t a = first; a < owner.size(); ++a) {
      rebuilt.node_ids.push_back(static_cast<int>(a) + 1);
      solid.nodes.push_back(static_cast<int>(a) + 1);
    }
    rebuilt.elements.push_back(std::move(solid));
  }
  StressModel model;
  std::vector<double> unit;
  if (!prepare_stresses(rebuilt, model, false)) return false;
  mass_diagonal(model, rebuilt, unit);
  for (size_t a = 0; a < owner.size(); ++a) diagonal[static_cast<size_t>(owner[a])] += unit[a];
  return true;
}

bool tie_interface_nodes(Deck &deck, Expansion &x) {
  size_t nodes = deck.node_ids.size();
  x.kind.resize(nodes, Expansion::kSolid);
  x.axes.resize(6 * nodes, 0.0);
  x.edge.resize(nodes, 1.0);
  x.slots.resize(3 * nodes, 0);
  x.tied.resize(nodes, 0);
  x.ties.clear();
  x.bare_refs.clear();
  for (Interface &joint : deck.interfaces) {
    int ref = node_index(deck, joint.ref);
    Vec at = point(deck, ref);
    std::vector<int> solids;
    for (int i : joint.tied) {
      size_t k = static_cast<size_t>(i);
      if (x.kind[k] == Expansion::kSolid) {
        solids.push_back(i);
        continue;
      }
      if (x.tied[k])
        return failed(
            "--interface %s: node %d joins shell elements to solid ones, which cannot be tied "
            "to an interface point",
            joint.set.c_str(), deck.node_ids[k]);
      Expansion::Tie tie;
      tie.node = i;
      tie.ref = ref;
      Vec arm = sub(point(deck, i), at);
      std::copy(arm.begin(), arm.end(), tie.arm);
      x.ties.push_back(tie);
    }
    deck.tied_nodes -= static_cast<int>(joint.tied.size() - solids.size());
    joint.tied.swap(solids);
    if (joint.tied.empty()) x.bare_refs.push_back(ref);
  }
  std::sort(x.ties.begin(), x.ties.end(),
            [](const Expansion::Tie &a, const Expansion::Tie &b) { return a.node < b.node; });
  return true;
}

bool parse_knots(std::FILE *file, const std::string &name, const Deck &deck, Expansion &x) {
  std::vector<int> last(deck.node_ids.size(), 0);  // each node's largest expanded id
  x.surface.assign(2 * deck.node_ids.size(), 0);
  std::vector<int> originals, expanded;
  char line[512];
  int reading = 0;  // 1: original nodes, 2: expanded nodes
  const Structure *element = nullptr;
  auto finish = [&]() {
    if (!element) return;
    for (size_t k = 0; k < element->nodes.size(); ++k) {
      int i = node_index(deck, element->nodes[k]);
      if (i < 0) continue;
      std::vector<int> ids;
      for (int a : expanded_positions(*element, static_cast<int>(k)))
        if (a < static_cast<int>(expanded.size()) && expanded[a] > 0) ids.push_back(expanded[a]);
      if (ids.size() < (element->beam ? 4u : 2u)) continue;
      // Expanded nodes are numbered in CalculiX's order: bottom to top through a shell, the
      // section's corners first on a beam. Its fourth corner lies at +a1 +a2.
      std::sort(ids.begin(), ids.end());
      last[static_cast<size_t>(i)] = std::max(last[static_cast<size_t>(i)], ids.back());
      int *surface = &x.surface[2 * static_cast<size_t>(i)];
      if (surface[0] == 0) {
        surface[0] = element->beam ? ids[3] : ids.front();
        surface[1] = element->beam ? ids[3] : ids.back();
      }
    }
    element = nullptr;
  };
  std::vector<std::pair<int, size_t>> by_id;
  for (size_t k = 0; k < deck.structures.size(); ++k) by_id.emplace_back(deck.structures[k].id, k);
  std::sort(by_id.begin(), by_id.end());
  x.knots.clear();
  while (std::fgets(line, sizeof line, file)) {
    int id = 0;
    if (std::sscanf(line, " a KNOT was generated in node %d", &id) == 1) {
      x.knots.push_back(id);
    } else if (std::sscanf(line, " ELEMENT %d with label", &id) == 1) {
      finish();
      auto it = std::lower_bound(by_id.begin(), by_id.end(), std::make_pair(id, size_t{0}));
      element = it != by_id.end() && it->first == id ? &deck.structures[it->second] : nullptr;
      expanded.clear();
      reading = 1;
    } else if (std::strstr(line, "is expanded into")) {
      reading = 2;
    } else if (reading == 2) {
      for (char *p = line, *end = nullptr;; p = end) {
        long v = std::strtol(p, &end, 10);
        if (end == p) break;
        expanded.push_back(static_cast<int>(v));
      }
    }
  }
  finish();
  std::sort(x.knots.begin(), x.knots.end());
  x.knots.erase(std::unique(x.knots.begin(), x.knots.end()), x.knots.end());
  x.rotation_nodes.clear();
  for (int knot : x.knots) {
    int i = node_index(deck, knot);
    if (i < 0 || last[static_cast<size_t>(i)] == 0)
      return failed("%s: knot %d has no expanded nodes", name.c_str(), knot);
    x.kind[static_cast<size_t>(i)] = Expansion::kKnot;
    x.rotation_nodes.push_back(last[static_cast<size_t>(i)] + 1);
  }
  return true;
}

bool read_knots(const std::string &path, const Deck &deck, Expansion &x) {
  std::FILE *file = std::fopen(path.c_str(), "rb");
  if (!file) return failed("CalculiX wrote no %s", path.c_str());
  bool ok = parse_knots(file, path, deck, x);
  std::fclose(file);
  return ok;
}

bool map_expanded_rows(const Deck &deck, Expansion &x, DofMap &map) {
  size_t rows = map.row_node.size();
  map.row_slot.assign(rows, 0);
  std::vector<std::pair<int, int>> rotation;  // rotation node id, knot index
  for (size_t k = 0; k < x.knots.size(); ++k)
    rotation.emplace_back(x.rotation_nodes[k], node_index(deck, x.knots[k]));
  std::sort(rotation.begin(), rotation.end());
  std::fill(x.slots.begin(), x.slots.end(), 0);
  // A node tied to an interface point lacks its first expanded node's rows.
  std::vector<unsigned char> first(x.kind.size(), 0);
  for (const Expansion::Tie &tie : x.ties) first[static_cast<size_t>(tie.node)] = 1;
  std::vector<int> seen(rotation.size(), 0);
  for (size_t r = 0; r < rows; ++r) {
    int node = map.row_node[r], dir = map.row_dir[r];
    if (node < 0) {
      auto it =
          std::lower_bound(rotation.begin(), rotation.end(), std::make_pair(map.row_id[r], -1));
      if (it == rotation.end() || it->first != map.row_id[r]) continue;
      // The rotation node's rows are the rotations about x, y and z, in that order.
      int &k = seen[static_cast<size_t>(it - rotation.begin())];
      if (k > 2) return failed("rotation node %d has more than three rows", it->first);
      map.row_node[r] = it->second;
      map.row_dir[r] = 3 + k++;
      continue;
    }
    if (dir < 0 || dir > 2) continue;
    unsigned char &count = x.slots[3 * static_cast<size_t>(node) + static_cast<size_t>(dir)];
    if (count == 254) return failed("node %d has too many expanded rows", deck.node_ids[node]);
    if (count == 0) count = first[static_cast<size_t>(node)];
    map.row_slot[r] = count++;
  }
  place_expanded_rows(x, map);
  // A knot whose rotations are all held has no rotation rows; so would one whose rotation node
  // CalculiX numbered otherwise, which this note would show.
  for (size_t k = 0; k < rotation.size(); ++k)
    if (seen[k] == 0)
      note("note: knot %d has no rotation rows (rotation node %d): its rotations are zero",
           deck.node_ids[static_cast<size_t>(rotation[k].second)], rotation[k].first);
  return true;
}

void collect_shell_faces(const Deck &deck, std::vector<Face> &faces) {
  for (const Structure &e : deck.structures) {
    if (e.beam) continue;
    Face f;
    f.count = e.corners;
    for (int k = 0; k < e.corners; ++k) f.ids[k] = e.nodes[k];
    faces.push_back(f);
  }
}

}  // namespace ccx
