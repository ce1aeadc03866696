// The checks of the node, matrix, face and modal blocks: nodal masses and inertias, generalized
// matrices, faces, mode transformation, interface nodes, invariants, preload, modal loads and
// modal statistics.
#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "inspect/krxcomparerun.h"
#include "processing/krxinvar.h"

namespace krx {

namespace {

bool all_masses_zero(const KRXDATA &model) {
  for (const NodeRecord &node : model.nodes)
    if (node.mass != 0.0) return false;
  return true;
}

}  // namespace

int check_nodal_masses(CompareRun &run) {
  if (!both_have(run, kFlagNodalMasses)) return 0;
  const bool new_zero = all_masses_zero(*run.fresh), base_zero = all_masses_zero(*run.base);
  if (new_zero || base_zero) {
    // Invariants computed by the writer may have replaced the masses of one file.
    if (new_zero)
      say(run, kShowWarning, "->Warning all NodalMass=0 in new file, 'fast_invar' or 'full_invar' may have been used\n");
    if (base_zero)
      say(run, kShowWarning, "->Warning all NodalMass=0 in base file, 'fast_invar' or 'full_invar' may have been used\n");
    say(run, kShowWarning, "->Warning NodalMass not checked\n");
    return 0;
  }
  // Difference: largest mass difference at mapped nodes; scale: largest base mass, at least 1.
  Spread spread;
  for (std::size_t p = 0; p < run.node_map.size(); ++p)
    spread.add(run.fresh->nodes[p].mass, run.base->nodes[run.node_map[p]].mass);
  return judge(run, spread.ratio(), "NodalMass");
}

int check_nodal_inertias(CompareRun &run) {
  if (!both_have(run, kFlagNodalInertias)) return 0;
  // Difference: largest difference of the six terms at mapped nodes, a node without inertia
  // counting as zeros; scale: largest base term, at least 1.
  Spread spread;
  for (std::size_t p = 0; p < run.node_map.size(); ++p) {
    const auto &a = run.fresh->nodes[p].inertia, &b = run.base->nodes[run.node_map[p]].inertia;
    for (int i = 0; i < 6; ++i) spread.add(a ? (*a)[i] : 0.0, b ? (*b)[i] : 0.0);
  }
  return judge(run, spread.ratio(), "NodalI");
}

namespace {

// Entries sorted by (row, column), the last value given for a pair winning, as the matrix means.
std::vector<MatrixEntry> as_matrix(const std::vector<MatrixEntry> &entries) {
  std::vector<MatrixEntry> sorted(entries);
  std::stable_sort(sorted.begin(), sorted.end(), [](const MatrixEntry &a, const MatrixEntry &b) {
    return std::pair(a.row, a.column) < std::pair(b.row, b.column);
  });
  std::vector<MatrixEntry> out;
  for (const MatrixEntry &e : sorted) {
    if (!out.empty() && out.back().row == e.row && out.back().column == e.column) out.back() = e;
    else out.push_back(e);
  }
  return out;
}

int32_t matrix_order(const std::vector<MatrixEntry> &entries) {
  int32_t order = 0;
  for (const MatrixEntry &e : entries) order = std::max({order, e.row + 1, e.column + 1});
  return order;
}

int32_t nonzero_count(const std::vector<MatrixEntry> &entries) {
  int32_t count = 0;
  for (const MatrixEntry &e : entries) count += e.value != 0.0;
  return count;
}

int count_check(const CompareRun &run, const std::string &name, int32_t in_new, int32_t in_base) {
  if (in_new == in_base) {
    say(run, kShowPass, "  Pass %s: %d\n", name.c_str(), in_new);
    return 0;
  }
  say(run, kShowFail, "->Fail %s new: %d  base: %d\n", name.c_str(), in_new, in_base);
  return -1;
}

// Rows or columns of the entry lists, position by position, each mismatch on its own line.
int index_list_check(const CompareRun &run, const std::string &name,
                     const std::vector<MatrixEntry> &a, const std::vector<MatrixEntry> &b,
                     bool rows) {
  const std::size_t n = std::min(a.size(), b.size());
  int result = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const int32_t x = rows ? a[i].row : a[i].column, y = rows ? b[i].row : b[i].column;
    if (x == y) continue;
    if (result == 0) say(run, kShowFail, "->Fail %s\n", name.c_str());
    say(run, kShowFail, "index: %d  new: %d  base: %d\n", (int)i, x + 1, y + 1);
    result = -1;
  }
  if (result == 0) say(run, kShowPass, "  Pass %s\n", name.c_str());
  return result;
}

// Entry values in list order; then the matrices as matrices (order-free, a pair missing from one
// list counting as zero). Both: largest difference over largest base value, at least 1.
double list_delta(const std::vector<MatrixEntry> &a, const std::vector<MatrixEntry> &b) {
  Spread spread;
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) spread.add(a[i].value, b[i].value);
  return spread.ratio();
}

double matrix_delta(const std::vector<MatrixEntry> &a, const std::vector<MatrixEntry> &b) {
  const std::vector<MatrixEntry> x = as_matrix(a), y = as_matrix(b);
  Spread spread;
  std::size_t i = 0, j = 0;
  while (i < x.size() || j < y.size()) {
    const bool take_x = j == y.size() ||
                        (i < x.size() && std::pair(x[i].row, x[i].column) <= std::pair(y[j].row, y[j].column));
    const bool take_y = i == x.size() ||
                        (j < y.size() && std::pair(y[j].row, y[j].column) <= std::pair(x[i].row, x[i].column));
    spread.add(take_x ? x[i].value : 0.0, take_y ? y[j].value : 0.0);
    i += take_x;
    j += take_y;
  }
  return spread.ratio();
}

}  // namespace

int check_generalized(CompareRun &run, bool stiffness) {
  if (!both_have(run, stiffness ? kFlagGeneralizedStiffness : kFlagGeneralizedMass)) return 0;
  const std::string word = stiffness ? "Stiffness" : "Mass";
  const std::vector<MatrixEntry> &a = stiffness ? run.fresh->stiffness : run.fresh->mass;
  const std::vector<MatrixEntry> &b = stiffness ? run.base->stiffness : run.base->mass;
  int result = count_check(run, "Generalized" + word + "Count", (int32_t)a.size(), (int32_t)b.size());
  result += count_check(run, "Generalized" + word + "ListSize", matrix_order(a), matrix_order(b));
  const std::string number = "NumberOfGen" + std::string(stiffness ? "Stiff" : "Mass");
  if (nonzero_count(a) == nonzero_count(b))
    say(run, kShowPass, "  Pass %s\n", number.c_str());
  else
    say(run, kShowWarning, "->Warning %s new:  %d base:  %d\n", number.c_str(), nonzero_count(a),
        nonzero_count(b));
  result += index_list_check(run, "Sparce" + word + "ColumnList", a, b, false);
  result += index_list_check(run, "Sparce" + word + "RowList", a, b, true);
  result += judge(run, list_delta(a, b), "Sparce%sList", word.c_str());
  result += judge(run, matrix_delta(a, b), "Sparce%s", word.c_str());
  return result;
}

namespace {

// The faces as lists of node identifiers; words beyond a truncated last face are ignored.
std::vector<std::vector<int32_t>> faces_by_id(const KRXDATA &model) {
  std::vector<std::vector<int32_t>> faces;
  const std::vector<int32_t> &w = model.faces;
  for (std::size_t i = 0; i < w.size();) {
    const std::size_t n = (std::size_t)std::max(w[i], 0);
    if (i + 1 + n > w.size()) break;
    std::vector<int32_t> face;
    for (std::size_t v = 0; v < n; ++v) {
      const int32_t p = w[i + 1 + v];
      face.push_back(p >= 0 && p < (int32_t)model.nodes.size() ? model.nodes[p].id : -1);
    }
    faces.push_back(std::move(face));
    i += 1 + n;
  }
  return faces;
}

void count_warning(const CompareRun &run, const char *name, int32_t in_new, int32_t in_base) {
  if (in_new == in_base) say(run, kShowPass, "  Pass %s: %d\n", name, in_new);
  else say(run, kShowWarning, "->Warning %s new: %d  base: %d\n", name, in_new, in_base);
}

}  // namespace

// Faces are compared by node identifiers, whether a file gave them as faces or as old-style
// elements. "A": the same faces in the same order with the same vertex order. "B": the same faces
// as vertex sets, in any order.
int check_faces(CompareRun &run) {
  auto has_faces = [](const KRXDATA &m) {
    return m.flags[kFlagElementFaces] != 0 || m.flags[kFlagElementTopology] != 0;
  };
  if (!has_faces(*run.fresh) || !has_faces(*run.base)) return 0;
  count_warning(run, "FaceListSize", (int32_t)run.fresh->faces.size(), (int32_t)run.base->faces.size());
  count_warning(run, "FaceCount", run.fresh->face_count, run.base->face_count);
  std::vector<std::vector<int32_t>> a = faces_by_id(*run.fresh), b = faces_by_id(*run.base);
  if (a == b) {
    say(run, kShowPass, "  Pass FaceList A\n");
    return 0;
  }
  for (auto *list : {&a, &b}) {
    for (std::vector<int32_t> &face : *list) std::sort(face.begin(), face.end());
    std::sort(list->begin(), list->end());
  }
  if (a == b) {
    say(run, kShowPass, "  Pass FaceList B\n");
    return 0;
  }
  say(run, kShowFail, "->Fail FaceList\n");
  return -1;
}

// The transformation of a repeated eigenspace is arbitrary, so a difference only warns.
// Difference: largest entry difference; scale: largest base entry, at least 1.
int check_transformation(CompareRun &run) {
  if (!both_have(run, kFlagModeTransformation)) return 0;
  const KRXDATA &n = *run.fresh, &b = *run.base;
  double delta = 1.0;
  if (n.transformation.size() == b.transformation.size() &&
      n.transformation_modes == b.transformation_modes) {
    Spread spread;
    for (std::size_t i = 0; i < n.transformation.size(); ++i)
      spread.add(n.transformation[i], b.transformation[i]);
    delta = spread.ratio();
  }
  if (delta <= run.tolerance) {
    say(run, kShowPass, "  Pass ModeShape Transformation\n");
    say(run, kShowPass, "  Delta: %e\n", delta);
    return 0;
  }
  say(run, kShowWarning, "->Warning: ModeShape Transformations differ\n");
  say(run, kShowWarning, "  Delta: %e\n", delta);
  return 0;
}

// Interface nodes as sets of identifiers: the order carries no meaning.
int check_interface_nodes(CompareRun &run) {
  if (!both_have(run, kFlagInterfaceNodes)) return 0;
  auto ids = [](const KRXDATA &model) {
    std::vector<int32_t> out;
    for (int32_t p : model.interface_nodes)
      out.push_back(p >= 0 && p < (int32_t)model.nodes.size() ? model.nodes[p].id : -1);
    std::sort(out.begin(), out.end());
    return out;
  };
  const std::vector<int32_t> a = ids(*run.fresh), b = ids(*run.base);
  int result = count_check(run, "InterfaceNodeCount", (int32_t)a.size(), (int32_t)b.size());
  if (a == b) {
    say(run, kShowPass, "  Pass InterfaceNodes\n");
    return result;
  }
  say(run, kShowFail, "->Fail InterfaceNodes\n");
  return result - 1;
}

namespace {

bool all_zero(const std::vector<double> &values) {
  return std::all_of(values.begin(), values.end(), [](double v) { return v == 0.0; });
}

// Invariants that do not depend on the modes: plain spread.
int plain_invariant(const CompareRun &run, int number, const std::vector<double> &a,
                    const std::vector<double> &b) {
  Spread spread;
  if (a.size() != b.size() || a.empty()) return judge(run, 1.0, "Invar%d", number);
  for (std::size_t i = 0; i < a.size(); ++i) spread.add(a[i], b[i]);
  return judge(run, spread.ratio(), "Invar%d", number);
}

// Invariants linear in the modes: rows of `width` values per mode (stride between modes `step`,
// between values `stride`). New values are judged against the base values combined with the mode
// coefficients, so flipped and rotated modes pass. Difference over the largest expected value,
// at least 1.
struct Layout {
  int32_t modes_new, modes_base;
  std::size_t (*at)(int32_t mode, int value, int32_t modes);
  int values;
};

int linear_invariant(const CompareRun &run, int number, const std::vector<double> &a,
                     const std::vector<double> &b, const Layout &layout) {
  if (layout.modes_new != layout.modes_base || layout.modes_new < 0)
    return judge(run, 1.0, "Invar%d", number);
  const int32_t m = std::min(layout.modes_new, run.modes);
  Spread spread;
  for (int32_t k = 0; k < m; ++k)
    for (int v = 0; v < layout.values; ++v) {
      const double expected = combine(run, k, [&](int32_t j) {
        return j < layout.modes_base ? b[layout.at(j, v, layout.modes_base)] : 0.0;
      });
      spread.add(a[layout.at(k, v, layout.modes_new)], expected);
    }
  return judge(run, spread.ratio(), "Invar%d", number);
}

// Invariants of mode pairs (5 and 9): both modes of a pair combined with their coefficients.
int pair_invariant(const CompareRun &run, int number, const std::vector<double> &a,
                   const std::vector<double> &b, int32_t m_new, int32_t m_base, int values,
                   std::size_t (*at)(int32_t, int32_t, int, int32_t)) {
  if (m_new != m_base || m_new < 0) return judge(run, 1.0, "Invar%d", number);
  const int32_t m = std::min(m_new, run.modes);
  Spread spread;
  for (int32_t k = 0; k < m; ++k)
    for (int32_t l = 0; l < m; ++l)
      for (int v = 0; v < values; ++v) {
        const double expected = combine(run, k, [&](int32_t i) {
          return combine(run, l, [&](int32_t j) { return b[at(i, j, v, m_base)]; });
        });
        spread.add(a[at(k, l, v, m_new)], expected);
      }
  return judge(run, spread.ratio(), "Invar%d", number);
}

// 'fast_invar' leaves invariants 5 and 9 zero: such a file is not checked for them.
bool zero_pair_invariant(const CompareRun &run, int number, const std::vector<double> &a,
                         const std::vector<double> &b) {
  if (!all_zero(a) && !all_zero(b)) return false;
  say(run, kShowWarning, "->Warning all Invar%d=0 in %s file, 'fast_invar' may have been used\n", number,
      all_zero(a) ? "new" : "base");
  say(run, kShowWarning, "->Warning Invar%d not checked\n", number);
  return true;
}

}  // namespace

namespace {

// The invariants of a model as flat arrays (5: per mode j a 3 x M block; 8: 9 per mode; 9: 9 per
// mode pair, j-major), through the invariant accessors: a model read from a file reads them from
// its file, scaled to the units it now has. Only the invariants both files hold are fetched.
struct InvariantSet {
  std::vector<double> values[10];
  int32_t modes = 0;
};

InvariantSet fetch_invariants(const CompareRun &run, KRXDATA *model) {
  InvariantSet set;
  set.modes = model->retained_modes > 0 ? model->retained_modes : mode_count(model);
  const int32_t m = set.modes;
  if (both_have(run, kFlagInvariant1)) set.values[1] = {invariant1(model)};
  if (both_have(run, kFlagInvariant1 + 1)) set.values[2] = invariant2(model);
  if (both_have(run, kFlagInvariant1 + 2)) set.values[3] = invariant3(model);
  if (both_have(run, kFlagInvariant1 + 3)) set.values[4] = invariant4(model);
  if (both_have(run, kFlagInvariant7)) set.values[7] = invariant7(model);
  for (int32_t j = 0; j < m; ++j) {
    if (both_have(run, kFlagInvariant1 + 4)) {
      const std::vector<double> v = invariant5(model, j);
      set.values[5].insert(set.values[5].end(), v.begin(), v.end());
    }
    if (both_have(run, kFlagInvariant8)) {
      const std::vector<double> v = invariant8(model, j);
      set.values[8].insert(set.values[8].end(), v.begin(), v.end());
    }
    for (int32_t k = 0; k < m && both_have(run, kFlagInvariant9); ++k) {
      const std::vector<double> v = invariant9(model, j, k);
      set.values[9].insert(set.values[9].end(), v.begin(), v.end());
    }
  }
  return set;
}

// An array of the expected size for m modes, else empty so that the check fails.
int32_t modes_of(const std::vector<double> &values, int32_t m, std::size_t per_mode) {
  return m >= 0 && values.size() == per_mode * (std::size_t)m ? m : -1;
}

}  // namespace

int check_invariants(CompareRun &run) {
  const InvariantSet n = fetch_invariants(run, run.fresh), b = fetch_invariants(run, run.base);
  int result = 0;
  for (int number : {1, 2})
    if (both_have(run, kFlagInvariant1 + number - 1))
      result += plain_invariant(run, number, n.values[number], b.values[number]);
  // Invariants 3 and 4: 3 x M, component-major.
  auto component_major = [](int32_t mode, int value, int32_t modes) {
    return (std::size_t)value * modes + mode;
  };
  for (int number : {3, 4}) {
    if (!both_have(run, kFlagInvariant1 + number - 1)) continue;
    const std::vector<double> &x = n.values[number], &y = b.values[number];
    Layout layout{modes_of(x, n.modes, 3), modes_of(y, b.modes, 3), component_major, 3};
    result += linear_invariant(run, number, x, y, layout);
  }
  // Invariant 5: per mode i a 3 x M block, component-major over the second mode j.
  if (both_have(run, kFlagInvariant1 + 4) && !zero_pair_invariant(run, 5, n.values[5], b.values[5])) {
    auto at = [](int32_t i, int32_t j, int v, int32_t m) {
      return ((std::size_t)i * 3 + v) * m + j;
    };
    result += pair_invariant(run, 5, n.values[5], b.values[5], modes_of(n.values[5], n.modes, 3 * (std::size_t)n.modes),
                             modes_of(b.values[5], b.modes, 3 * (std::size_t)b.modes), 3, at);
  }
  if (both_have(run, kFlagInvariant7)) result += plain_invariant(run, 7, n.values[7], b.values[7]);
  if (both_have(run, kFlagInvariant8)) {
    auto per_mode = [](int32_t mode, int value, int32_t) { return (std::size_t)mode * 9 + value; };
    Layout layout{modes_of(n.values[8], n.modes, 9), modes_of(b.values[8], b.modes, 9), per_mode, 9};
    result += linear_invariant(run, 8, n.values[8], b.values[8], layout);
  }
  if (both_have(run, kFlagInvariant9) && !zero_pair_invariant(run, 9, n.values[9], b.values[9])) {
    auto at = [](int32_t i, int32_t j, int v, int32_t m) {
      return ((std::size_t)i * m + j) * 9 + v;
    };
    result += pair_invariant(run, 9, n.values[9], b.values[9], modes_of(n.values[9], n.modes, 9 * (std::size_t)n.modes),
                             modes_of(b.values[9], b.modes, 9 * (std::size_t)b.modes), 9, at);
  }
  return result;
}

namespace {

// A per-mode value of the new file against the base: it passes when it matches either the base
// values combined with the mode coefficients or the base value in magnitude (a component that
// only changed sign). Returns the smaller of the two differences.
double modal_value_difference(const CompareRun &run, int32_t k, double value,
                              const std::vector<double> &base) {
  const double magnitude = std::fabs(std::fabs(value) - std::fabs(base[k]));
  if (k >= run.modes) return magnitude;
  const double expected = combine(run, k, [&](int32_t j) {
    return j < (int32_t)base.size() ? base[j] : 0.0;
  });
  return std::min(magnitude, std::fabs(value - expected));
}

double modal_values_delta(const CompareRun &run, const std::vector<double> &a,
                          const std::vector<double> &b, int32_t from) {
  double difference = 0.0, scale = 1.0;
  for (int32_t k = from; k < (int32_t)std::min(a.size(), b.size()); ++k) {
    difference = std::max(difference, modal_value_difference(run, k, a[k], b));
    scale = std::max(scale, std::fabs(b[k]));
  }
  return difference / scale;
}

}  // namespace

// Difference: per mode as modal_value_difference; scale: largest base preload, at least 1.
int check_preload(CompareRun &run) {
  if (!both_have(run, kFlagPreload)) return 0;
  const std::vector<double> &a = run.fresh->preload, &b = run.base->preload;
  if (a.size() == b.size()) say(run, kShowPass, "  Pass Preload mode count\n");
  else say(run, kShowWarning, "->Warning Preload mode count mismatch\n");
  bool null = false;
  if (all_zero(a)) null = true, say(run, kShowWarning, "->Warning Null preload vector in new file\n");
  if (all_zero(b)) null = true, say(run, kShowWarning, "->Warning Null preload vector in base file\n");
  if (null) return 0;
  return judge(run, modal_values_delta(run, a, b, 0), "Preload");
}

// Difference and scale per load case as for the preload, from the seventh component on.
int check_modal_loads(CompareRun &run) {
  if (!both_have(run, kFlagModalLoads)) return 0;
  const std::vector<LoadCase> &a = run.fresh->load_cases, &b = run.base->load_cases;
  int result = count_check(run, "Modal Load Case count", (int32_t)a.size(), (int32_t)b.size());
  say(run, kShowWarning, "->Warning: Rigid body components (assumed first 6) won't be checked\n");
  int cases = 0;
  for (std::size_t c = 0; c < std::min(a.size(), b.size()); ++c) {
    const int number = (int)c + 1;
    const std::vector<double> &x = a[c].values, &y = b[c].values;
    if (x.size() != y.size())
      say(run, kShowNote, "->Note Modal Load: component count for case #%d new: %d  base: %d\n",
          number, (int)x.size(), (int)y.size());
    if (a[c].applied != b[c].applied)
      say(run, kShowNote, "->Note Modal Load: projection for case #%d new: %d  base: %d\n", number,
          a[c].applied, b[c].applied);
    for (std::size_t i = 6; i < std::min(x.size(), y.size()); ++i)
      if (x[i] * y[i] < 0.0)
        say(run, kShowWarning, "->Warning: Modal load component %d differs in sign for case #%d\n",
            (int)i + 1, number);
    cases += judge(run, modal_values_delta(run, x, y, 6), "Modal Load: Case #%d", number);
  }
  if (cases == 0) say(run, kShowPass, "  Pass Modal Loads\n");
  else say(run, kShowFail, "->Fail Modal Loads\n");
  return result + cases;
}

// The real slots of the statistics hold magnitudes of maxima; modes of a repeated eigenspace have
// no fixed basis, so their maxima are not checked. Difference: largest difference of magnitudes;
// scale: largest base magnitude, at least 1. The node ids of the maxima are not compared: a
// small change can move a maximum to a neighbouring node.
int check_statistics(CompareRun &run) {
  if (!both_have(run, kFlagModalStatistics)) return 0;
  const std::vector<ModalStatistics> &a = run.fresh->statistics, &b = run.base->statistics;
  const int32_t m = std::min({(int32_t)a.size(), (int32_t)b.size(), run.modes});
  Spread spread;
  bool skipped = false;
  for (int32_t k = 0; k < m; ++k) {
    if (run.group_end[k] - run.group_first[k] > 1) {
      skipped = true;
      continue;
    }
    for (int i = 0; i < 13; ++i) spread.add(std::fabs(a[k].reals[i]), std::fabs(b[k].reals[i]));
  }
  if (skipped) say(run, kShowNote, "->Note Modal Statistics of repeated eigenvalues not checked\n");
  return judge(run, spread.ratio(), "Modal Statistics");
}

}  // namespace krx
