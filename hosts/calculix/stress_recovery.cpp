// Nodal stresses of a displacement field, the way CalculiX computes them: the strains at each
// element's integration points, Hooke's law of the isotropic material, the values extrapolated to
// the element's nodes through the field that the points determine (constant, linear, trilinear,
// triquadratic; in the fifteen-node wedge linear in the layer and a fitted line across), and each
// node's mean over the elements that share it.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>

#include "solver.h"

namespace ccx {

namespace {

// A value and its derivatives along the three natural coordinates: the shape functions are
// written once, their derivatives follow.
struct Dual {
  double v = 0.0;
  double d[3] = {0.0, 0.0, 0.0};
};
Dual operator+(Dual a, const Dual &b) {
  a.v += b.v;
  for (int k = 0; k < 3; ++k) a.d[k] += b.d[k];
  return a;
}
Dual operator-(Dual a, const Dual &b) {
  a.v -= b.v;
  for (int k = 0; k < 3; ++k) a.d[k] -= b.d[k];
  return a;
}
Dual operator*(const Dual &a, const Dual &b) {
  Dual c;
  c.v = a.v * b.v;
  for (int k = 0; k < 3; ++k) c.d[k] = a.d[k] * b.v + a.v * b.d[k];
  return c;
}
Dual operator*(double s, Dual a) {
  a.v *= s;
  for (double &x : a.d) x *= s;
  return a;
}
Dual constant(double v) { return Dual{v, {0.0, 0.0, 0.0}}; }

using Point = std::array<double, 3>;

// Natural coordinates of the nodes in CalculiX's order: hexahedra on [-1, 1]^3, tetrahedra on the
// unit simplex, wedges a unit triangle in (xi, eta) times [-1, 1] in zeta.
const Point kHex20[20] = {{-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1}, {-1, -1, 1},
                          {1, -1, 1},   {1, 1, 1},   {-1, 1, 1}, {0, -1, -1}, {1, 0, -1},
                          {0, 1, -1},   {-1, 0, -1}, {0, -1, 1}, {1, 0, 1},   {0, 1, 1},
                          {-1, 0, 1},   {-1, -1, 0}, {1, -1, 0}, {1, 1, 0},   {-1, 1, 0}};
const Point kTet10[10] = {{0, 0, 0},   {1, 0, 0},  {0, 1, 0},  {0, 0, 1},   {.5, 0, 0},
                          {.5, .5, 0}, {0, .5, 0}, {0, 0, .5}, {.5, 0, .5}, {0, .5, .5}};
const Point kWedge15[15] = {{0, 0, -1},  {1, 0, -1},  {0, 1, -1},   {0, 0, 1},   {1, 0, 1},
                            {0, 1, 1},   {.5, 0, -1}, {.5, .5, -1}, {0, .5, -1}, {.5, 0, 1},
                            {.5, .5, 1}, {0, .5, 1},  {0, 0, 0},    {1, 0, 0},   {0, 1, 0}};
// The edges' end nodes of the quadratic elements, in the order of their midside nodes.
const int kTetEdges[6][2] = {{0, 1}, {1, 2}, {2, 0}, {0, 3}, {1, 3}, {2, 3}};
const int kWedgeEdges[9][2] = {{0, 1}, {1, 2}, {2, 0}, {3, 4}, {4, 5},
                               {5, 3}, {0, 3}, {1, 4}, {2, 5}};

void shape_functions(int shape, int count, const Point &at, Dual *n) {
  Dual x{at[0], {1, 0, 0}}, y{at[1], {0, 1, 0}}, z{at[2], {0, 0, 1}};
  Dual one = constant(1.0);
  if (shape == 2) {
    const Point *c = kHex20;
    for (int i = 0; i < 8; ++i) {
      Dual a = one + c[i][0] * x, b = one + c[i][1] * y, g = one + c[i][2] * z;
      n[i] = 0.125 * (a * b * g);
      if (count == 20) n[i] = n[i] * (c[i][0] * x + c[i][1] * y + c[i][2] * z - constant(2.0));
    }
    for (int i = 8; i < count; ++i) {
      const Point &p = c[i];
      Dual f[3] = {x, y, z};
      Dual product = constant(0.25);
      for (int k = 0; k < 3; ++k)
        product = product * (p[k] == 0.0 ? one - f[k] * f[k] : one + p[k] * f[k]);
      n[i] = product;
    }
  } else if (shape == 0) {
    Dual l[4] = {one - x - y - z, x, y, z};
    for (int i = 0; i < 4; ++i) n[i] = count == 4 ? l[i] : l[i] * (2.0 * l[i] - one);
    for (int e = 0; count == 10 && e < 6; ++e)
      n[4 + e] = 4.0 * (l[kTetEdges[e][0]] * l[kTetEdges[e][1]]);
  } else {
    Dual l[3] = {one - x - y, x, y};
    Dual below = 0.5 * (one - z), above = 0.5 * (one + z), bulge = one - z * z;
    for (int i = 0; i < 6; ++i) {
      Dual side = i < 3 ? below : above;
      Dual li = l[i % 3];
      n[i] = count == 6 ? li * side : li * ((2.0 * li - one) * side) - 0.5 * (li * bulge);
    }
    for (int e = 0; count == 15 && e < 9; ++e) {
      int a = kWedgeEdges[e][0], b = kWedgeEdges[e][1];
      n[6 + e] = e < 6 ? 4.0 * (l[a % 3] * l[b % 3]) * (e < 3 ? below : above) : l[a] * bulge;
    }
  }
}

// CalculiX's integration points of each element kind.
struct Rule {
  std::vector<Point> points;
  // The field the points determine, as monomials in the natural coordinates: exponent triples.
  std::vector<std::array<int, 3>> terms;
};

Rule gauss_rule(int shape, int nodes, int reduced) {
  Rule r;
  auto tensor = [&](std::vector<double> along, int degree) {
    for (double c : along)
      for (double b : along)
        for (double a : along) r.points.push_back({a, b, c});
    for (int k = 0; k <= degree; ++k)
      for (int j = 0; j <= degree; ++j)
        for (int i = 0; i <= degree; ++i) r.terms.push_back({i, j, k});
  };
  double g2 = 1.0 / std::sqrt(3.0), g3 = std::sqrt(0.6);
  if (shape == 2) {
    if (nodes == 8 && reduced) {
      r.points = {{0, 0, 0}};
      r.terms = {{0, 0, 0}};
    } else if (nodes == 20 && !reduced) {
      tensor({-g3, 0.0, g3}, 2);
    } else {
      tensor({-g2, g2}, 1);
    }
  } else if (shape == 0) {
    if (nodes == 4) {
      r.points = {{0.25, 0.25, 0.25}};
      r.terms = {{0, 0, 0}};
    } else {
      double a = 0.138196601125011, b = 0.585410196624968;
      r.points = {{a, a, a}, {b, a, a}, {a, b, a}, {a, a, b}};
      r.terms = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    }
  } else if (nodes == 6) {
    r.points = {{1.0 / 3, 1.0 / 3, -g2}, {1.0 / 3, 1.0 / 3, g2}};
    r.terms = {{0, 0, 0}, {0, 0, 1}};
  } else {
    const double t[3][2] = {{1.0 / 6, 1.0 / 6}, {2.0 / 3, 1.0 / 6}, {1.0 / 6, 2.0 / 3}};
    for (double z : {-g3, 0.0, g3})
      for (const auto &p : t) r.points.push_back({p[0], p[1], z});
    // Linear within the layer, fitted by a line across the three layers.
    for (int k = 0; k < 2; ++k)
      for (const auto &e : {std::array<int, 3>{0, 0, k}, {1, 0, k}, {0, 1, k}})
        r.terms.push_back(e);
  }
  return r;
}

double monomial(const std::array<int, 3> &e, const Point &p) {
  return std::pow(p[0], e[0]) * std::pow(p[1], e[1]) * std::pow(p[2], e[2]);
}

const Point &node_point(int shape, int node) {
  return shape == 2 ? kHex20[node] : shape == 0 ? kTet10[node] : kWedge15[node];
}

// The nodes' values from the points' values: the field of the rule's terms fitted to the points
// by least squares (through them where there are as many terms as points), evaluated at the
// nodes; nodes x points.
std::vector<double> extrapolation(int shape, int nodes, const Rule &r) {
  size_t g = r.points.size(), t = r.terms.size();
  std::vector<double> at(g * t), normal(t * t, 0.0), inverse(t * t, 0.0);
  for (size_t p = 0; p < g; ++p)
    for (size_t j = 0; j < t; ++j) at[p * t + j] = monomial(r.terms[j], r.points[p]);
  for (size_t i = 0; i < t; ++i) {
    for (size_t j = 0; j < t; ++j)
      for (size_t p = 0; p < g; ++p) normal[i * t + j] += at[p * t + i] * at[p * t + j];
    inverse[i * t + i] = 1.0;
  }
  // Gauss-Jordan with partial pivoting on a matrix of at most 27 rows.
  for (size_t c = 0; c < t; ++c) {
    size_t pivot_row = c;
    for (size_t i = c + 1; i < t; ++i)
      if (std::fabs(normal[i * t + c]) > std::fabs(normal[pivot_row * t + c])) pivot_row = i;
    for (size_t j = 0; j < t; ++j) {
      std::swap(normal[c * t + j], normal[pivot_row * t + j]);
      std::swap(inverse[c * t + j], inverse[pivot_row * t + j]);
    }
    double pivot = normal[c * t + c];
    for (size_t j = 0; j < t; ++j) {
      normal[c * t + j] /= pivot;
      inverse[c * t + j] /= pivot;
    }
    for (size_t i = 0; i < t; ++i) {
      if (i == c) continue;
      double f = normal[i * t + c];
      for (size_t j = 0; j < t; ++j) {
        normal[i * t + j] -= f * normal[c * t + j];
        inverse[i * t + j] -= f * inverse[c * t + j];
      }
    }
  }
  std::vector<double> e(static_cast<size_t>(nodes) * g, 0.0);
  for (int n = 0; n < nodes; ++n)
    for (size_t i = 0; i < t; ++i) {
      double term = monomial(r.terms[i], node_point(shape, n));
      for (size_t j = 0; j < t; ++j)
        for (size_t p = 0; p < g; ++p) e[n * g + p] += term * inverse[i * t + j] * at[p * t + j];
    }
  // CalculiX's six-node wedge takes the weights of a fit to points at zeta = +-sqrt(0.6) and gives
  // them to alternate nodes, whatever the node's layer; kept, since its stresses are the ones to
  // match.
  if (shape == 1 && nodes == 6) {
    double w = 0.5 + std::sqrt(0.6) / 1.2;
    for (int n = 0; n < 6; ++n) {
      e[n * g + 0] = n % 2 == 0 ? w : 1.0 - w;
      e[n * g + 1] = n % 2 == 0 ? 1.0 - w : w;
    }
  }
  return e;
}

// Gauss weights of the rule's points on the natural element (of volume 8, 1/6 and 1): one point,
// two or three per axis, a three-point triangle.
std::vector<double> gauss_weights(int shape, const Rule &r) {
  size_t g = r.points.size();
  auto along = [](double x) { return x == 0.0 ? 8.0 / 9.0 : 5.0 / 9.0; };
  std::vector<double> w;
  for (const Point &p : r.points) {
    if (shape == 0)
      w.push_back(1.0 / (6.0 * static_cast<double>(g)));
    else if (shape == 1)
      w.push_back(g == 2 ? 0.5 : along(p[2]) / 6.0);
    else
      w.push_back(g == 1 ? 8.0 : g == 8 ? 1.0 : along(p[0]) * along(p[1]) * along(p[2]));
  }
  return w;
}

}  // namespace

struct StressKind {
  int shape = 0, nodes = 0;
  Rule rule;
  std::vector<double> weights;
  std::vector<std::vector<Dual>> at_points;  // shape functions at each point
  std::vector<double> to_nodes;              // nodes x points
};

namespace {

// Each element's material: the solid sections' element sets name the elements, a later section
// taking an element from an earlier one.
bool element_materials(const Deck &deck, StressModel &model) {
  std::vector<std::pair<int, int>> by_id;  // element id, index
  by_id.reserve(deck.elements.size());
  for (size_t e = 0; e < deck.elements.size(); ++e)
    by_id.emplace_back(deck.elements[e].id, static_cast<int>(e));
  std::sort(by_id.begin(), by_id.end());
  model.material.assign(deck.elements.size(), -1);
  model.lame.clear();
  for (const SolidSection &section : deck.solid_sections) {
    const Material *m = find_material(deck, section.material);
    auto set = std::find_if(deck.element_sets.begin(), deck.element_sets.end(),
                            [&](const ElementSet &s) { return s.name == section.elset; });
    if (!m || set == deck.element_sets.end()) continue;  // CalculiX says what is wrong
    int index = static_cast<int>(model.lame.size() / 2);
    model.lame.push_back(m->young * m->poisson / ((1.0 + m->poisson) * (1.0 - 2.0 * m->poisson)));
    model.lame.push_back(m->young / (2.0 * (1.0 + m->poisson)));
    for (int id : set->ids) {
      auto it = std::lower_bound(by_id.begin(), by_id.end(), std::make_pair(id, 0));
      if (it != by_id.end() && it->first == id) model.material[it->second] = index;
    }
  }
  for (size_t e = 0; e < deck.elements.size(); ++e)
    if (model.material[e] < 0)
      return failed("element %d is in no *SOLID SECTION with a material: its stresses need one",
                    deck.elements[e].id);
  return true;
}

}  // namespace

bool prepare_stresses(const Deck &deck, StressModel &model, bool with_materials) {
  if (with_materials && !element_materials(deck, model)) return false;
  model.first.assign(1, 0);
  model.nodes.clear();
  model.kind.clear();
  model.kinds.clear();
  model.sharing.assign(deck.node_ids.size(), 0);
  for (const Element &e : deck.elements) {
    int nodes = static_cast<int>(e.nodes.size());
    int kind = -1;
    for (size_t k = 0; k < model.kinds.size(); ++k)
      if (model.kinds[k]->shape == e.shape && model.kinds[k]->nodes == nodes &&
          model.kind_rule[k] == e.rule)
        kind = static_cast<int>(k);
    if (kind < 0) {
      auto made = std::make_shared<StressKind>();
      made->shape = e.shape;
      made->nodes = nodes;
      made->rule = gauss_rule(e.shape, nodes, e.rule);
      for (const Point &p : made->rule.points) {
        made->at_points.emplace_back(static_cast<size_t>(nodes));
        shape_functions(e.shape, nodes, p, made->at_points.back().data());
      }
      made->to_nodes = extrapolation(e.shape, nodes, made->rule);
      made->weights = gauss_weights(e.shape, made->rule);
      kind = static_cast<int>(model.kinds.size());
      model.kinds.push_back(made);
      model.kind_rule.push_back(e.rule);
    }
    model.kind.push_back(kind);
    for (int id : e.nodes) {
      int index = node_index(deck, id);
      if (index < 0) return failed("element %d names node %d, which has no coordinates", e.id, id);
      model.nodes.push_back(index);
      ++model.sharing[static_cast<size_t>(index)];
    }
    model.first.push_back(static_cast<int64_t>(model.nodes.size()));
  }
  return true;
}

namespace {

// The Jacobian d x_i / d xi_j of an element at one of its integration points (n: the shape
// functions there), and its determinant.
double jacobian_at(const StressKind &k, const std::vector<Dual> &n, const Deck &deck,
                   const int *nodes, double jac[3][3]) {
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) jac[i][j] = 0.0;
  for (int a = 0; a < k.nodes; ++a) {
    const double *x = &deck.xyz[3 * static_cast<size_t>(nodes[a])];
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) jac[i][j] += x[i] * n[a].d[j];
  }
  return jac[0][0] * (jac[1][1] * jac[2][2] - jac[1][2] * jac[2][1]) -
         jac[0][1] * (jac[1][0] * jac[2][2] - jac[1][2] * jac[2][0]) +
         jac[0][2] * (jac[1][0] * jac[2][1] - jac[1][1] * jac[2][0]);
}

}  // namespace

namespace {

// Elements first .. last - 1 add their extrapolated stresses to sums (six per node).
void add_element_stresses(const StressModel &model, const Deck &deck,
                          const std::vector<double> &by_node, size_t first, size_t last,
                          double *sums) {
  std::vector<double> at_points;
  for (size_t e = first; e < last; ++e) {
    const StressKind &k = *model.kinds[static_cast<size_t>(model.kind[e])];
    const int *nodes = &model.nodes[static_cast<size_t>(model.first[e])];
    size_t g = k.rule.points.size();
    double lambda = model.lame[2 * static_cast<size_t>(model.material[e])];
    double mu = model.lame[2 * static_cast<size_t>(model.material[e]) + 1];
    at_points.assign(6 * g, 0.0);
    for (size_t p = 0; p < g; ++p) {
      const std::vector<Dual> &n = k.at_points[p];
      double jac[3][3];  // d x_i / d xi_j
      double det = jacobian_at(k, n, deck, nodes, jac);
      double inv[3][3];  // inv[m][j] = d xi_m / d x_j
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
          int i1 = (j + 1) % 3, i2 = (j + 2) % 3, j1 = (i + 1) % 3, j2 = (i + 2) % 3;
          inv[i][j] = (jac[i1][j1] * jac[i2][j2] - jac[i1][j2] * jac[i2][j1]) / det;
        }
      double grad[3][3] = {};  // d u_i / d x_j
      for (int a = 0; a < k.nodes; ++a) {
        const double *u = &by_node[6 * static_cast<size_t>(nodes[a])];
        for (int j = 0; j < 3; ++j) {
          double dn = n[a].d[0] * inv[0][j] + n[a].d[1] * inv[1][j] + n[a].d[2] * inv[2][j];
          for (int i = 0; i < 3; ++i) grad[i][j] += u[i] * dn;
        }
      }
      double trace = grad[0][0] + grad[1][1] + grad[2][2];
      double *s = &at_points[6 * p];
      for (int i = 0; i < 3; ++i) s[i] = lambda * trace + 2.0 * mu * grad[i][i];
      s[3] = mu * (grad[0][1] + grad[1][0]);
      s[4] = mu * (grad[1][2] + grad[2][1]);
      s[5] = mu * (grad[2][0] + grad[0][2]);
    }
    for (int a = 0; a < k.nodes; ++a) {
      double *out = &sums[6 * static_cast<size_t>(nodes[a])];
      for (size_t p = 0; p < g; ++p)
        for (int c = 0; c < 6; ++c) out[c] += k.to_nodes[a * g + p] * at_points[6 * p + c];
    }
  }
}

// Threads for the recovery: the cores, or OMP_NUM_THREADS where it is set (the runs that limit
// the solver's threads limit these too), at most four, each with a copy of the sums.
unsigned recovery_threads() {
  unsigned threads = std::max(1u, std::thread::hardware_concurrency());
  if (const char *limit = std::getenv("OMP_NUM_THREADS"))
    threads = static_cast<unsigned>(std::max(1, std::atoi(limit)));
  return std::min(threads, 4u);
}

}  // namespace

void recover_stresses(const StressModel &model, const Deck &deck,
                      const std::vector<double> &by_node, std::vector<double> &stresses) {
  size_t values = 6 * deck.node_ids.size(), elements = model.kind.size();
  stresses.assign(values, 0.0);
  unsigned threads = recovery_threads();
  // Each thread sums its share of the elements; the first share goes straight to stresses.
  std::vector<std::vector<double>> sums(threads - 1, std::vector<double>(values, 0.0));
  std::vector<std::thread> others;
  unsigned started = 1;
  try {
    for (; started < threads; ++started)
      others.emplace_back(add_element_stresses, std::cref(model), std::cref(deck),
                          std::cref(by_node), elements * started / threads,
                          elements * (started + 1) / threads, sums[started - 1].data());
  } catch (const std::system_error &) {
    // The shares of the threads that could not start are summed here.
  }
  add_element_stresses(model, deck, by_node, 0, elements / threads, stresses.data());
  for (unsigned t = started; t < threads; ++t)
    add_element_stresses(model, deck, by_node, elements * t / threads,
                         elements * (t + 1) / threads, stresses.data());
  for (std::thread &other : others) other.join();
  for (const std::vector<double> &part : sums)
    for (size_t v = 0; v < values; ++v) stresses[v] += part[v];
  for (size_t i = 0; i < model.sharing.size(); ++i)
    if (model.sharing[i] > 0)
      for (int c = 0; c < 6; ++c) stresses[6 * i + c] /= model.sharing[i];
}

void mass_diagonal(const StressModel &model, const Deck &deck, std::vector<double> &diagonal) {
  diagonal.assign(deck.node_ids.size(), 0.0);
  for (size_t e = 0; e < model.kind.size(); ++e) {
    const StressKind &k = *model.kinds[static_cast<size_t>(model.kind[e])];
    const int *nodes = &model.nodes[static_cast<size_t>(model.first[e])];
    for (size_t p = 0; p < k.rule.points.size(); ++p) {
      const std::vector<Dual> &n = k.at_points[p];
      double jac[3][3];
      double det = jacobian_at(k, n, deck, nodes, jac);
      double volume = std::fabs(det) * k.weights[p];
      for (int a = 0; a < k.nodes; ++a)
        diagonal[static_cast<size_t>(nodes[a])] += n[a].v * n[a].v * volume;
    }
  }
}

}  // namespace ccx
