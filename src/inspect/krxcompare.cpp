// The comparison run: preparation (units, node maps), the version, the header, block existence,
// node coordinates, global body properties and eigenvalues, then the other checks in order.
#include "inspect/krxcompare.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "base/krxmsg.h"
#include "inspect/krxcomparerun.h"
#include "model/krxtools.h"
#include "processing/krxunits.h"

namespace krx {

void say(const CompareRun &run, int level, const char *format, ...) {
  if (run.verbosity < level) return;
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
}

int judge(const CompareRun &run, double delta, const char *format, ...) {
  char name[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(name, sizeof name, format, args);
  va_end(args);
  const bool passed = delta <= run.tolerance;  // NaN fails
  if (passed) {
    say(run, kShowPass, "  Pass %s\n", name);
    say(run, kShowPass, "  Delta: %e\n", delta);
    return 0;
  }
  say(run, kShowFail, "->Fail %s\n", name);
  say(run, kShowFail, "  Delta: %e\n", delta);
  return -1;
}

namespace {
bool ends_process = true;
struct RunEnded {};
}  // namespace

void set_compare_ends_process(bool ends) { ends_process = ends; }

void end_run() {
  std::fflush(stdout);
  if (!ends_process) throw RunEnded{};
  std::exit(-1);
}

void Spread::add(double new_value, double base_value) {
  difference = std::max(difference, std::fabs(new_value - base_value));
  scale = std::max(scale, std::fabs(base_value));
}

namespace {

int flag_of_block(int block) {
  if (block <= 10) return block - 4;
  if (block <= 13) return block - 3;
  return block - 2;
}

const char *const kBlockNames[33] = {
    nullptr,           "version_code",      "header",
    "content_summary", "nodal_coords",      "element_topology",
    "global_body_props", "eigenvalues",     "mode_shapes",
    "nodal_masses",    "nodal_inertias",    "units",
    "generalized_stiff", "generalized_mass", "element_faces",
    "generalized_damping", "mode_shape_transformation", "interface_nodes",
    "modal_stress",    "invar1",            "invar2",
    "invar3",          "invar4",            "invar5",
    "invar7",          "invar8",            "invar9",
    "preload",         "modal_loads",       "modal_strain",
    "modal_statistics", "pre_stress",       "pre_strain"};

// The node of new position p missing from the base ends the run.
bool build_node_map(CompareRun &run) {
  say(run, kShowPass, "->Building node map for nodes.\n");
  const int32_t n = node_count(run.fresh);
  run.node_map.assign(n, -1);
  for (int32_t p = 0; p < n; ++p) {
    const int32_t id = run.fresh->nodes[p].id;
    run.node_map[p] = node_position(run.base, id);
    if (run.node_map[p] >= 0) continue;
    say(run, kShowFail, "->Fail Node %d does not exist in base file (Exit)\n\n", id);
    end_run();
  }
  return true;
}

// Identifier of the node at record slot s of a kind; mode shapes hold every node of the table.
int32_t slot_node_id(const KRXDATA *model, int kind, int32_t slot) {
  if (kind == kModeShapes) return model->nodes[slot].id;
  return model->nodes[model->store[kind].nodes[slot]].id;
}

// Nodes of a kind's records. A model read from a file lists its mode-shape nodes first and may
// hold further nodes without shapes; a host's model gives every node a shape.
int32_t kind_nodes(const KRXDATA *model, int kind) {
  if (kind != kModeShapes || model->store[kind].nodes.empty())
    return kind == kModeShapes ? node_count(model) : (int32_t)model->store[kind].nodes.size();
  return std::min((int32_t)model->store[kind].nodes.size(), node_count(model));
}

int32_t base_slot(KRXDATA *base, int kind, int32_t id) {
  if (kind != kModeShapes) return kind_slot(base, kind, id);
  const int32_t p = node_position(base, id);
  return p < kind_nodes(base, kind) ? p : -1;
}

const int kKindFlags[3] = {kFlagModeShapes, kFlagModalStress, kFlagModalStrain};
const char *const kKindWords[3] = {"shape", "stress", "strain"};

// A kind map is built only when both files hold the kind; otherwise its check is skipped after
// the existence note.
void build_kind_map(CompareRun &run, int kind) {
  run.kind_map[kind].clear();
  if (!both_have(run, kKindFlags[kind])) return;
  say(run, kShowPass, "->Building node map for %s modes. \n", kKindWords[kind]);
  const int32_t n = kind_nodes(run.fresh, kind);
  run.kind_map[kind].assign(n, -1);
  for (int32_t s = 0; s < n; ++s) {
    const int32_t id = slot_node_id(run.fresh, kind, s);
    run.kind_map[kind][s] = base_slot(run.base, kind, id);
    if (run.kind_map[kind][s] >= 0) continue;
    say(run, kShowFail, "->Fail Node %d does not exist for %s modes in base file.\n", id,
        kKindWords[kind]);
    say(run, kShowFail, "->Try transposing input KRXs. (Exit)\n\n");
    end_run();
  }
}

void prepare(CompareRun &run) {
  set_units_by_names(run.base, "kg", "m", "s", "n");
  if (run.fresh != run.base) set_units_by_names(run.fresh, "kg", "m", "s", "n");
  index_nodes(*run.base);
  index_nodes(*run.fresh);
  build_node_map(run);
  for (int kind = 0; kind < 3; ++kind) build_kind_map(run, kind);
}

// The version never counts as a failure.
void check_version(const CompareRun &run) {
  if (run.fresh->version == run.base->version) {
    say(run, kShowPass, "  Pass Version\n");
    return;
  }
  say(run, kShowWarning, "->Warning Version new: %4.1f base: %4.1f\n",
      (run.fresh->version & 0xff) / 10.0, (run.base->version & 0xff) / 10.0);
}

// Header fields are compared without trailing blanks: readers strip them, hosts may not.
std::string trimmed(const char *text, std::size_t size) {
  std::size_t n = strnlen(text, size);
  while (n > 0 && text[n - 1] == ' ') --n;
  return std::string(text, n);
}

template <std::size_t N>
bool same_text(const std::array<char, N> &a, const std::array<char, N> &b) {
  return trimmed(a.data(), N) == trimmed(b.data(), N);
}

}  // namespace

bool both_have(const CompareRun &run, int flag) {
  return run.fresh->flags[flag] != 0 && run.base->flags[flag] != 0;
}

int check_header(CompareRun &run) {
  const KRXDATA &n = *run.fresh, &b = *run.base;
  if (same_text(n.title, b.title)) say(run, kShowPass, "  Pass Title\n");
  else say(run, kShowNote, "->Note Title\n");
  int result = 0;
  if (same_text(n.input_type, b.input_type)) {
    say(run, kShowPass, "  Pass InputFileType\n");
  } else {
    say(run, kShowFail, "->Fail InputFileType\n");
    result = -1;
  }
  bool comments = true;
  for (int i = 0; i < 3; ++i) comments = comments && same_text(n.comments[i], b.comments[i]);
  if (comments) say(run, kShowPass, "  Pass Comment\n");
  else say(run, kShowNote, "->Note Comment\n");
  return result;
}

int check_existence(CompareRun &run) {
  for (int block = 4; block <= kBlockCount; ++block) {
    const int flag = flag_of_block(block);
    const int in_new = run.fresh->flags[flag] ? 1 : 0, in_base = run.base->flags[flag] ? 1 : 0;
    if (in_new == in_base) continue;
    say(run, kShowNote, "->Note block %d %s: exists new: %d  exists base: %d\n", block,
        kBlockNames[block], in_new, in_base);
  }
  // The three texts are single lines; the newline ends the line the process leaves behind.
  const std::pair<int, const char *> mandatory[] = {
      {kFlagNodalCoords, "->Fail no nodal_coords (Exit)\n"},
      {kFlagEigenvalues, "->Fail no eigenvalues (Exit)\n"},
      {kFlagModeShapes, "->Fail no mode_shapes (Exit)\n"}};
  for (const auto &[flag, text] : mandatory) {
    if (both_have(run, flag)) continue;
    say(run, kShowFail, "%s", text);
    end_run();
  }
  return 0;
}

int check_node_coordinates(CompareRun &run) {
  const int32_t n = node_count(run.fresh), nb = node_count(run.base);
  if (nb < n) {
    say(run, kShowFail, "->Fail NodeCount base: %d < new: %d  (Exit)\n\n", nb, n);
    end_run();
  }
  if (nb != n) say(run, kShowWarning, "->Warning NodeCount base: %d  new: %d\n", nb, n);
  else say(run, kShowPass, "  Pass NodeCount: %d\n", n);
  // Difference: largest coordinate difference; scale: largest base coordinate, at least 1.
  Spread spread;
  for (int32_t p = 0; p < n; ++p) {
    const NodeRecord &a = run.fresh->nodes[p], &b = run.base->nodes[run.node_map[p]];
    spread.add(a.x, b.x);
    spread.add(a.y, b.y);
    spread.add(a.z, b.z);
  }
  return judge(run, spread.ratio(), "NodeCoordinates");
}

int check_global_body(CompareRun &run) {
  if (!both_have(run, kFlagGlobalBodyProps)) {
    say(run, kShowNote, "->Note block_6__global_body_props not checked\n");
    return 0;
  }
  const KRXDATA &n = *run.fresh, &b = *run.base;
  // Each quantity on its own: the difference relative to the base value, at least 1.
  Spread mass, inertia, centre;
  mass.add(n.total_mass, b.total_mass);
  for (int i = 0; i < 9; ++i) inertia.add(n.global_inertia[i], b.global_inertia[i]);
  for (int i = 0; i < 3; ++i) centre.add(n.centre_of_mass[i], b.centre_of_mass[i]);
  return judge(run, mass.ratio(), "TotalMass") + judge(run, inertia.ratio(), "TotalI") +
         judge(run, centre.ratio(), "TotalCM");
}

namespace {

// Counts of the eigenvalue step differ only as warnings.
void count_verdict(const CompareRun &run, const char *name, int32_t in_new, int32_t in_base) {
  if (in_new == in_base) say(run, kShowPass, "  Pass %s: %d\n", name, in_new);
  else say(run, kShowWarning, "->Warning %s new: %d  base: %d\n", name, in_new, in_base);
}

int32_t largest_mode_number(const KRXDATA &model) {
  int32_t largest = 0;
  for (const EigenRecord &r : model.eigen) largest = std::max(largest, r.number);
  return largest;
}

}  // namespace

int check_eigenvalues(CompareRun &run) {
  const KRXDATA &n = *run.fresh, &b = *run.base;
  count_verdict(run, "ModeCount", mode_count(&n), mode_count(&b));
  count_verdict(run, "MaxModeCount", largest_mode_number(n), largest_mode_number(b));
  count_verdict(run, "EigenvalueCount", (int32_t)n.eigen.size(), (int32_t)b.eigen.size());
  run.modes = (int32_t)std::min(n.eigen.size(), b.eigen.size());
  // Per mode: the eigenvalue difference relative to the larger of the base eigenvalue, the first
  // flexible (seventh) base eigenvalue and 1, so that rigid-body noise near zero is judged
  // against the flexible range.
  const double flexible = b.eigen.size() > 6 ? std::fabs(b.eigen[6].eigenvalue) : 0.0;
  int result = 0;
  Spread values, hertz, radians, stiffness, mass;
  for (int32_t k = 0; k < run.modes; ++k) {
    const EigenRecord &x = n.eigen[k], &y = b.eigen[k];
    const double scale = std::max({std::fabs(y.eigenvalue), flexible, 1.0});
    result += judge(run, std::fabs(x.eigenvalue - y.eigenvalue) / scale, "EigenValue: #%d",
                    x.number);
    values.add(x.eigenvalue, y.eigenvalue);
    hertz.add(x.hertz, y.hertz);
    radians.add(x.radians, y.radians);
    stiffness.add(x.generalized_stiffness, y.generalized_stiffness);
    mass.add(x.generalized_mass, y.generalized_mass);
  }
  // Over all modes: the largest difference relative to the largest base value, at least 1.
  result += judge(run, values.ratio(), "Eigenvalues");
  result += judge(run, hertz.ratio(), "Frequency");
  result += judge(run, radians.ratio(), "Radians");
  result += judge(run, stiffness.ratio(), "GeneralizedStiff");
  result += judge(run, mass.ratio(), "GeneralizedMass");
  return result;
}

int check_units(CompareRun &run) {
  if (!both_have(run, kFlagUnits)) say(run, kShowNote, "->Note block_11__units not checked\n");
  else say(run, kShowPass, "  Pass Units\n");
  return 0;
}

namespace {

int run_checks(KRXDATA *base, KRXDATA *new_model, int32_t verbosity, double tolerance) {
  CompareRun run;
  run.base = base;
  run.fresh = new_model;
  run.verbosity = verbosity;
  run.tolerance = tolerance;
  prepare(run);
  check_version(run);
  int sum = check_header(run);
  sum += check_existence(run);
  sum += check_node_coordinates(run);
  sum += check_global_body(run);
  sum += check_eigenvalues(run);
  sum += check_mode_shapes(run);
  sum += check_nodal_masses(run);
  sum += check_nodal_inertias(run);
  sum += check_units(run);
  sum += check_generalized(run, true);
  sum += check_generalized(run, false);
  sum += check_faces(run);
  sum += check_transformation(run);
  sum += check_interface_nodes(run);
  sum += check_kind_modes(run, kModalStress);
  sum += check_invariants(run);
  sum += check_preload(run);
  sum += check_modal_loads(run);
  sum += check_kind_modes(run, kModalStrain);
  sum += check_statistics(run);
  sum += check_pre_values(run, kModalStress);
  sum += check_pre_values(run, kModalStrain);
  if (sum < 0) say(run, kShowNote, "->Files differ\n\n");
  else say(run, kShowNote, " Files are equivalent\n\n");
  std::fflush(stdout);
  return sum;
}

}  // namespace

int compare_files(KRXDATA *base, KRXDATA *new_model, int32_t verbosity, double tolerance) {
  try {
    return run_checks(base, new_model, verbosity, tolerance);
  } catch (const RunEnded &) {
    return -1;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC("..\\krxcompare");
    return -1;
  }
}

}  // namespace krx
