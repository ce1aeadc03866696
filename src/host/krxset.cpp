// The setters: plain values into the model record, content flags raised, consistency checked
// against what the model already holds. Consistency only warns; legality fails the call.
#include "host/krxset.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>

#include "base/krxmsg.h"
#include "model/krxdata.h"
#include "processing/krxinvar.h"

namespace krx {
namespace {

constexpr const char *kSource = "..\\krxset";
constexpr double kTolerance = 1e-8;

// Runs a step that allocates; an allocation failure is reported here, with this file's name.
template <typename Step>
bool allocating(int line, Step &&step) {
  try {
    step();
    return true;
  } catch (const std::bad_alloc &) {
    report_allocation_failure(line, kSource);
    return false;
  }
}

void replace_newlines(char *text) {
  for (; *text; ++text)
    if (*text == '\n') *text = ' ';
}

// One header text: warn when it is too long, blank its newlines (in the caller's text), keep at
// most limit characters and tell the host what was kept.
template <std::size_t N>
void store_header_text(std::array<char, N> &field, char *text, const char *too_big,
                       const char *note_format) {
  static char empty[] = "";
  if (!text) text = empty;
  const long limit = long(N - 1);
  const long length = long(std::strlen(text));
  if (length > limit) warning(too_big, limit, length);
  replace_newlines(text);
  field.fill('\0');
  std::memcpy(field.data(), text, std::min(std::strlen(text), N - 1));
  note(note_format, field.data());
}

// Total mass, first moments and inertia tensor of the nodal data, as invariants 1, 2 and 7 would
// compute them. Used while those are not cached: asking the invariant accessors would cache sums
// of the nodes set so far, and the host may still be adding nodes.
struct NodalSums {
  double mass = 0.0;
  std::array<double, 3> moment{};
  std::array<double, 9> inertia{};
};

NodalSums sum_nodal_data(const KRXDATA &model) {
  NodalSums sums;
  for (const NodeRecord &node : model.nodes) {
    const double x[3] = {node.x, node.y, node.z};
    const double m = node.mass;
    sums.mass += m;
    const double xx = x[0] * x[0] + x[1] * x[1] + x[2] * x[2];
    for (int r = 0; r < 3; ++r) {
      sums.moment[r] += m * x[r];
      for (int c = 0; c < 3; ++c) sums.inertia[3 * r + c] += m * ((r == c ? xx : 0.0) - x[r] * x[c]);
    }
    if (node.inertia) {
      const auto &j = *node.inertia;
      const double tensor[9] = {j[0], j[3], j[4], j[3], j[1], j[5], j[4], j[5], j[2]};
      for (int k = 0; k < 9; ++k) sums.inertia[k] += tensor[k];
    }
  }
  return sums;
}

// The reference values of the global-mass checks: a cached invariant first, then the invariant
// accessors for a model read from a file (their values come from the file), else the nodal sums.
NodalSums reference_mass_properties(KRXDATA *model) {
  NodalSums sums = sum_nodal_data(*model);
  if (model->has_invariant1) {
    sums.mass = model->invariant1;
  } else if (model->read_from_file) {
    sums.mass = invariant1(model);
  }
  std::vector<double> moment = model->invariant2;
  if (moment.size() != 3 && model->read_from_file) moment = invariant2(model);
  if (moment.size() == 3) std::copy(moment.begin(), moment.end(), sums.moment.begin());
  std::vector<double> inertia = model->invariant7;
  if (inertia.size() != 9 && model->read_from_file) inertia = invariant7(model);
  if (inertia.size() == 9) std::copy(inertia.begin(), inertia.end(), sums.inertia.begin());
  return sums;
}

void check_global_centre(double total, double mass, const NodalSums &sums, const double *centre) {
  std::array<double, 3> expected = sums.moment;
  double divisor = total != 0.0 ? total : mass;
  if (divisor != 0.0) {
    for (double &value : expected) value /= divisor;
  } else {
    note("Global mass is being set to zero.");
  }
  for (int k = 0; k < 3; ++k) {
    if (relative_difference(centre[k], expected[k]) > kTolerance) {
      warning("Global center of mass is inconsistent with INVAR2 setting or nodal data.");
      return;
    }
  }
}

// The host gives products of inertia with the opposite sign to the tensor the library keeps.
void check_global_inertia(const NodalSums &sums, const double *inertia) {
  for (int k = 0; k < 9; ++k) {
    const double given = (k % 4 == 0) ? inertia[k] : -inertia[k];
    if (relative_difference(given, sums.inertia[k]) > kTolerance) {
      warning("Global mass inertia is inconsistent with INVAR7 setting or nodal data.");
      return;
    }
  }
}

int grow_load_cases(KRXDATA *model, int32_t count) {
  try {
    auto &cases = model->load_cases;
    while (int32_t(cases.size()) < count) {
      LoadCase added;
      added.label = "Load Case " + std::to_string(cases.size() + 1);
      added.values.assign(std::size_t(mode_count(model)), 0.0);
      cases.push_back(std::move(added));
    }
    return 1;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
}

bool legal_load_case(int32_t load_case) {
  if (load_case >= 0) return true;
  error("The load case index %d is illegal.\nThe load case index must be non-negative.",
        load_case);
  return false;
}

// The index of a mode that must already be known to a direct invariant setter.
int32_t known_mode(KRXDATA *model, int32_t mode_number, int line) {
  int32_t index = mode_index(model, mode_number);
  if (index < 0 && model)
    error("Mode number %d does not exist.  Requested at line %d in file %s.\n", mode_number, line,
          kSource);
  return index;
}

// Both modes of a pair invariant must be known; the first unknown one is reported.
bool known_pair(KRXDATA *model, int32_t mode_i, int32_t mode_j, int32_t &i, int32_t &j, int line) {
  i = known_mode(model, mode_i, line);
  if (i < 0) return false;
  j = known_mode(model, mode_j, line);
  return j >= 0;
}

// Per-mode invariant storage of `per_mode` values for each of M modes (M = the mode count when
// first used). When modes have been registered since, the storage is laid out afresh for the
// larger count, keeping every value at its (mode, component) place. component_major lays the
// values out as invariants 3 and 4 are kept (all modes' first components, then the second...);
// otherwise mode after mode (invariants 8 and, with per_mode = 9 x M or 3 x M, 5 and 9).
void fit_per_mode_storage(std::vector<double> &storage, int32_t modes, int32_t per_mode,
                          bool component_major) {
  std::size_t wanted = std::size_t(modes) * std::size_t(per_mode);
  if (storage.size() >= wanted) return;
  if (storage.empty() || !component_major) {
    storage.resize(wanted, 0.0);
    return;
  }
  int32_t old_modes = int32_t(storage.size() / std::size_t(per_mode));
  std::vector<double> fresh(wanted, 0.0);
  for (int32_t c = 0; c < per_mode; ++c)
    for (int32_t j = 0; j < old_modes; ++j) fresh[c * modes + j] = storage[c * old_modes + j];
  storage.swap(fresh);
}

// Invariants 5 and 9 hold one block per mode pair: invariant 5 keeps array j as 3 x M values
// ((c, k) at c x M + k), invariant 9 the 3x3 block of (j, k) at (j x M + k) x 9. A grown mode
// count re-lays the blocks out, each value keeping its (j, k, element) place.
std::size_t pair_offset(bool invariant5, int32_t modes, int32_t j, int32_t k, int32_t e) {
  if (invariant5) return (std::size_t(j) * 3 + std::size_t(e)) * std::size_t(modes) + k;
  return (std::size_t(j) * modes + k) * 9 + std::size_t(e);
}

void fit_pair_storage(std::vector<double> &storage, int32_t modes, bool invariant5) {
  const std::size_t block = invariant5 ? 3 : 9;
  std::size_t wanted = std::size_t(modes) * std::size_t(modes) * block;
  if (storage.size() >= wanted) return;
  int32_t old_modes = 0;
  while (std::size_t(old_modes + 1) * std::size_t(old_modes + 1) * block <= storage.size())
    ++old_modes;
  std::vector<double> fresh(wanted, 0.0);
  for (int32_t j = 0; j < old_modes; ++j)
    for (int32_t k = 0; k < old_modes; ++k)
      for (int32_t e = 0; e < int32_t(block); ++e)
        fresh[pair_offset(invariant5, modes, j, k, e)] =
            storage[pair_offset(invariant5, old_modes, j, k, e)];
  storage.swap(fresh);
}

}  // namespace

double relative_difference(double a, double b) {
  double scale = std::fabs(a) > 1.0 ? a : 1.0;
  return std::fabs((a - b) / scale);
}

int set_header(KRXDATA *model, char *title, char *input_name, char *input_type, char *comment1,
               char *comment2, char *comment3) {
  if (!model_exists(model)) return 0;
  std::time_t now = std::time(nullptr);
  char calendar[64] = {0};
  if (!ctime_r(&now, calendar)) calendar[0] = '\0';
  replace_newlines(calendar);
  model->date.fill('\0');
  std::memcpy(model->date.data(), calendar,
              std::min(std::strlen(calendar), model->date.size() - 1));

  store_header_text(model->title, title,
                    "Title too big: max size %ld, specified size %ld.\nTruncating title.",
                    "Title: %s");
  store_header_text(model->input_name, input_name,
                    "Input file name too big: max size %ld, specified size %ld.\n"
                    "Truncating input file name.",
                    "Name : %s");
  store_header_text(model->input_type, input_type,
                    // One text in two literals; hosts see it whole.
                    "Input file type sp" "ec too big: max size %ld, specified size %ld.\n"
                    "Truncating input file type.",
                    "Type : %s");
  store_header_text(model->comments[0], comment1,
                    "Comment 1 too big: max size %ld, specified size %ld.\nTruncating Comment 1.",
                    "Comment 1: %s");
  store_header_text(model->comments[1], comment2,
                    "Comment 2 too big: max size %ld, specified size %ld.\nTruncating Comment 2.",
                    "Comment 2: %s");
  store_header_text(model->comments[2], comment3,
                    "Comment 3 too big: max size %ld, specified size %ld.\nTruncating Comment 3.",
                    "Comment 3: %s");
  return 1;
}

int set_node_coordinates(KRXDATA *model, int32_t node_id, double x, double y, double z) {
  int32_t position = node_position_or_add(model, node_id);
  if (position < 0) return 0;
  NodeRecord &node = model->nodes[position];
  node.x = x;
  node.y = y;
  node.z = z;
  model->flags[kFlagNodalCoords] = 1;
  return 1;
}

namespace {

// The mass of the node, replaced or added to.
int store_nodal_mass(KRXDATA *model, int32_t node_id, double mass, bool add) {
  int32_t position = node_position_or_add(model, node_id);
  if (position < 0) return 0;
  double &held = model->nodes[position].mass;
  held = add ? held + mass : mass;
  model->flags[kFlagNodalMasses] = 1;
  return 1;
}

// The node's inertia terms, made zero on first use; null (reported) when they cannot be.
std::array<double, 6> *nodal_inertia_of(KRXDATA *model, int32_t node_id) {
  int32_t position = node_position_or_add(model, node_id);
  if (position < 0) return nullptr;
  NodeRecord &node = model->nodes[position];
  try {
    if (!node.inertia) node.inertia = std::make_unique<std::array<double, 6>>();
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return nullptr;
  }
  model->flags[kFlagNodalInertias] = 1;
  return node.inertia.get();
}

}  // namespace

int set_nodal_mass(KRXDATA *model, int32_t node_id, double mass) {
  return store_nodal_mass(model, node_id, mass, false);
}

int add_nodal_mass(KRXDATA *model, int32_t node_id, double mass) {
  return store_nodal_mass(model, node_id, mass, true);
}

int set_nodal_inertia(KRXDATA *model, int32_t node_id, const double inertia[6]) {
  std::array<double, 6> *terms = nodal_inertia_of(model, node_id);
  if (!terms) return 0;
  std::copy(inertia, inertia + 6, terms->begin());
  return 1;
}

int set_nodal_inertia_term(KRXDATA *model, int32_t node_id, int row, int column, double value) {
  if (!model_exists(model)) return 0;
  // Rows and columns 1..3; a product of inertia may be named from either side of the diagonal.
  static const int kComponent[3][3] = {{0, 3, 4}, {3, 1, 5}, {4, 5, 2}};
  if (row < 1 || row > 3 || column < 1 || column > 3) {
    error("Illegal nodal inertia term (%d, %d) for node %d.\nRow and column must be 1, 2 or 3.",
          row, column, node_id);
    return 0;
  }
  std::array<double, 6> *terms = nodal_inertia_of(model, node_id);
  if (!terms) return 0;
  (*terms)[kComponent[row - 1][column - 1]] = value;
  return 1;
}

int set_global_mass(KRXDATA *model, double mass, const double *centre, const double *inertia) {
  if (!model_exists(model)) return 0;
  if (!centre || !inertia) return 0;
  NodalSums sums = reference_mass_properties(model);
  if (relative_difference(sums.mass, mass) > kTolerance)
    warning("Global mass is inconsistent with INVAR1 setting or sum of nodal masses.");
  check_global_centre(sums.mass, mass, sums, centre);
  check_global_inertia(sums, inertia);
  model->total_mass = mass;
  std::copy(centre, centre + 3, model->centre_of_mass.begin());
  std::copy(inertia, inertia + 9, model->global_inertia.begin());
  model->flags[kFlagGlobalBodyProps] = 1;
  return 1;
}

int set_generalized_mass(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value) {
  return add_generalized_mass(model, row_mode, column_mode, value);
}

int set_generalized_stiffness(KRXDATA *model, int32_t row_mode, int32_t column_mode,
                              double value) {
  return add_generalized_stiffness(model, row_mode, column_mode, value);
}

int set_generalized_damping(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value) {
  return add_generalized_damping(model, row_mode, column_mode, value);
}

namespace {

// Whether a node is marked already. A lookup that cannot grow falls back to a search.
bool interface_marked(KRXDATA &model, int32_t node_id) {
  auto &list = model.interface_nodes;
  const auto id_at = [&](int32_t p) {
    return p >= 0 && p < node_count(&model) ? model.nodes[std::size_t(p)].id : -1;
  };
  if (model.interface_covered > list.size()) {
    clear_ids(model.interface_lookup);
    model.interface_covered = 0;
  }
  try {
    for (; model.interface_covered < list.size(); ++model.interface_covered)
      insert_id(model.interface_lookup, id_at(list[model.interface_covered]),
                int32_t(model.interface_covered));
  } catch (const std::bad_alloc &) {
    return std::any_of(list.begin(), list.end(), [&](int32_t p) { return id_at(p) == node_id; });
  }
  return find_id(model.interface_lookup, node_id) >= 0;
}

}  // namespace

int set_interface_node(KRXDATA *model, int32_t node_id) {
  int32_t position = node_position_or_add(model, node_id);
  if (position < 0) return 0;
  auto &list = model->interface_nodes;
  // Marking a node twice keeps one mark.
  if (!interface_marked(*model, node_id)) {
    try {
      list.push_back(position);
    } catch (const std::bad_alloc &) {
      KRX_REPORT_ALLOC(kSource);
      return 0;
    }
    model->face_node_set_built = false;
  }
  model->flags[kFlagInterfaceNodes] = 1;
  return 1;
}

int set_modal_preload(KRXDATA *model, int32_t mode_number, double value) {
  int32_t index = register_mode(model, mode_number);
  if (index < 0) return 0;
  try {
    std::size_t wanted = std::max<std::size_t>(std::size_t(mode_count(model)), index + 1);
    if (model->preload.size() < wanted) model->preload.resize(wanted, 0.0);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
  model->preload[index] = value;
  model->flags[kFlagPreload] = 1;
  return 1;
}

int set_load_case_count(KRXDATA *model, int32_t count) {
  if (!model_exists(model)) return 0;
  return grow_load_cases(model, count);
}

int set_modal_load(KRXDATA *model, int32_t load_case, int32_t mode_number, double value) {
  if (!model_exists(model)) return 0;
  if (!legal_load_case(load_case)) return 0;
  int32_t index = register_mode(model, mode_number);
  if (index < 0) return 0;
  if (!grow_load_cases(model, load_case + 1)) return 0;
  auto &values = model->load_cases[load_case].values;
  try {
    std::size_t wanted = std::max<std::size_t>(std::size_t(mode_count(model)), index + 1);
    if (values.size() < wanted) values.resize(wanted, 0.0);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
  values[index] = value;
  model->flags[kFlagModalLoads] = 1;
  return 1;
}

int set_modal_load_label(KRXDATA *model, int32_t load_case, const char *label) {
  if (!model_exists(model)) return 0;
  if (!legal_load_case(load_case)) return 0;
  if (!grow_load_cases(model, load_case + 1)) return 0;
  const long limit = 255;
  std::string text = label ? label : "";
  if (long(text.size()) > limit) {
    warning("Modal load label too big: max size %ld, specified size %ld.  Truncating label.",
            limit, long(text.size()));
    text.resize(std::size_t(limit));
  }
  if (text.empty()) text = std::to_string(load_case + 1);
  model->load_cases[load_case].label = std::move(text);
  return 1;
}

int set_invariant1(KRXDATA *model, double value) {
  if (!model_exists(model)) return 0;
  if (!(value > 0.0)) {
    error("Inertia Invariant 1 must be greater than zero");
    return 0;
  }
  model->invariant1 = value;
  model->has_invariant1 = true;
  model->flags[kFlagInvariant1] = 1;
  return 1;
}

int set_invariant2(KRXDATA *model, const double values[3]) {
  if (!model_exists(model)) return 0;
  if (!allocating(__LINE__, [&] { model->invariant2.assign(values, values + 3); })) return 0;
  model->flags[kFlagInvariant1 + 1] = 1;
  return 1;
}

namespace {

int set_component_major(KRXDATA *model, std::vector<double> &storage, int flag, int32_t mode_number,
                        const double values[3], int line) {
  int32_t j = known_mode(model, mode_number, line);
  if (j < 0) return 0;
  const int32_t modes = mode_count(model);
  if (!allocating(__LINE__, [&] { fit_per_mode_storage(storage, modes, 3, true); })) return 0;
  for (int c = 0; c < 3; ++c) storage[std::size_t(c) * modes + j] = values[c];
  model->flags[flag] = 1;
  return 1;
}

}  // namespace

int set_invariant3(KRXDATA *model, int32_t mode_number, const double values[3]) {
  if (!model_exists(model)) return 0;
  return set_component_major(model, model->invariant3, kFlagInvariant1 + 2, mode_number, values,
                             __LINE__);
}

int set_invariant4(KRXDATA *model, int32_t mode_number, const double values[3]) {
  if (!model_exists(model)) return 0;
  return set_component_major(model, model->invariant4, kFlagInvariant1 + 3, mode_number, values,
                             __LINE__);
}

int set_invariant5(KRXDATA *model, int32_t mode_i, int32_t mode_j, const double values[3]) {
  if (!model_exists(model)) return 0;
  int32_t i, j;
  if (!known_pair(model, mode_i, mode_j, i, j, __LINE__)) return 0;
  const int32_t modes = mode_count(model);
  auto &storage = model->invariant5;
  if (!allocating(__LINE__, [&] { fit_pair_storage(storage, modes, true); })) return 0;
  // The negation is stored last, so a diagonal (i, i) keeps the negated vector.
  for (int c = 0; c < 3; ++c) {
    storage[pair_offset(true, modes, i, j, c)] = values[c];
    storage[pair_offset(true, modes, j, i, c)] = -values[c];
  }
  if (i == j && (std::fabs(values[0]) > kTolerance || std::fabs(values[1]) > kTolerance ||
                 std::fabs(values[2]) > kTolerance))
    warning("I5(%d, %d) is not zero.\n   (%14.8e, %14.8e, %14.8e)", mode_i, mode_j, values[0],
            values[1], values[2]);
  model->flags[kFlagInvariant1 + 4] = 1;
  return 1;
}

int set_invariant6(KRXDATA *model, const double *values) {
  if (!model_exists(model)) return 0;
  const int32_t modes = mode_count(model);
  for (int32_t j = 0; j < modes; ++j) {
    if (!(values[j] == 1.0)) {
      error("Inertia Invariant 6 must be an identity matrix.");
      return 0;
    }
  }
  for (int32_t j = 0; j < modes; ++j) {
    int32_t number = model->modes[j];
    if (!set_generalized_mass(model, number, number, values[j])) return 0;
  }
  return 1;
}

int set_invariant7(KRXDATA *model, const double values[9]) {
  if (!model_exists(model)) return 0;
  if (!allocating(__LINE__, [&] { model->invariant7.assign(values, values + 9); })) return 0;
  model->flags[kFlagInvariant7] = 1;
  return 1;
}

int set_invariant8(KRXDATA *model, int32_t mode_number, const double values[9]) {
  if (!model_exists(model)) return 0;
  int32_t j = known_mode(model, mode_number, __LINE__);
  if (j < 0) return 0;
  if (!allocating(__LINE__, [&] { fit_per_mode_storage(model->invariant8, mode_count(model), 9, false); }))
    return 0;
  std::copy(values, values + 9, model->invariant8.begin() + std::size_t(j) * 9);
  model->flags[kFlagInvariant8] = 1;
  return 1;
}

int set_invariant9(KRXDATA *model, int32_t mode_i, int32_t mode_j, const double values[9]) {
  if (!model_exists(model)) return 0;
  int32_t i, j;
  if (!known_pair(model, mode_i, mode_j, i, j, __LINE__)) return 0;
  const int32_t modes = mode_count(model);
  if (!allocating(__LINE__, [&] { fit_pair_storage(model->invariant9, modes, false); })) return 0;
  double *ij = model->invariant9.data() + pair_offset(false, modes, i, j, 0);
  double *ji = model->invariant9.data() + pair_offset(false, modes, j, i, 0);
  std::copy(values, values + 9, ij);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) ji[3 * c + r] = values[3 * r + c];
  if (i == j && (relative_difference(values[1], values[3]) > kTolerance ||
                 relative_difference(values[2], values[6]) > kTolerance ||
                 relative_difference(values[5], values[7]) > kTolerance))
    warning("I9(%d, %d) is not symmetric.\n   %14.8e %14.8e %14.8e\n   %14.8e %14.8e %14.8e\n"
            "   %14.8e %14.8e %14.8e\n",
            mode_i, mode_j, values[0], values[1], values[2], values[3], values[4], values[5],
            values[6], values[7], values[8]);
  model->flags[kFlagInvariant9] = 1;
  return 1;
}

}  // namespace krx
