// Internal to the comparison: the state of one run (maps between the two models, the eigenspace
// groups and the mode coefficients found by the mode-shape check), the verdict printer, and the
// checks, split over krxcompare.cpp, krxcomparemodes.cpp and krxcompareblocks.cpp.
#pragma once

#include <cstdint>
#include <vector>

#include "model/krxdata.h"

namespace krx {

struct CompareRun {
  KRXDATA *base = nullptr;
  KRXDATA *fresh = nullptr;  // the new file's model
  int32_t verbosity = 0;
  double tolerance = 0.0;
  // New node position -> base node position.
  std::vector<int32_t> node_map;
  // Per vector kind: new record slot -> base record slot (empty when a file lacks the kind).
  std::vector<int32_t> kind_map[3];
  // Modes compared: the first `modes` eigen records of both files, paired by position.
  int32_t modes = 0;
  // Eigenspace group of each compared mode, as [first, end) mode positions.
  std::vector<int32_t> group_first, group_end;
  // Per new mode k, the coefficients of the base modes of its group that make up new mode k
  // (least-squares fit of the whole shape vector); +1 or -1 for a mode that merely flipped.
  std::vector<std::vector<double>> coefficients;
};

// Verdict levels: a line is printed when the run's verbosity is at least its level.
constexpr int kShowFail = 0;
constexpr int kShowWarning = 1;
constexpr int kShowNote = 1;
constexpr int kShowPass = 2;

void say(const CompareRun &run, int level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// A numeric verdict: "->Fail <name>" or "  Pass <name>", then "  Delta: %e". Fails when delta
// exceeds the tolerance (or is not a number); returns 0 or -1.
int judge(const CompareRun &run, double delta, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// Ends the process with status -1 after flushing what was printed.
[[noreturn]] void end_run();

// Largest absolute difference over pairs relative to the largest absolute base value, the scale
// raised to 1 when smaller: the pattern of every plain numeric check.
struct Spread {
  double difference = 0.0;
  double scale = 1.0;
  void add(double new_value, double base_value);
  double ratio() const { return difference / scale; }
};

// Linear combination of base values of a new mode's group: sum over j of c_kj * base(j), where
// base_at(j) gives the value of base mode position j.
template <class F>
double combine(const CompareRun &run, int32_t k, F base_at) {
  double sum = 0.0;
  const std::vector<double> &c = run.coefficients[k];
  for (int32_t j = run.group_first[k]; j < run.group_end[k]; ++j)
    sum += c[j - run.group_first[k]] * base_at(j);
  return sum;
}

// The checks in their order; each returns 0 on pass and a negative number on failure.
int check_header(CompareRun &run);
int check_existence(CompareRun &run);
int check_node_coordinates(CompareRun &run);
int check_global_body(CompareRun &run);
int check_eigenvalues(CompareRun &run);
int check_mode_shapes(CompareRun &run);
int check_nodal_masses(CompareRun &run);
int check_nodal_inertias(CompareRun &run);
int check_units(CompareRun &run);
int check_generalized(CompareRun &run, bool stiffness);
int check_faces(CompareRun &run);
int check_transformation(CompareRun &run);
int check_interface_nodes(CompareRun &run);
int check_kind_modes(CompareRun &run, int kind);
int check_invariants(CompareRun &run);
int check_preload(CompareRun &run);
int check_modal_loads(CompareRun &run);
int check_statistics(CompareRun &run);
int check_pre_values(CompareRun &run, int kind);

// True when both models flag the block of a content-flag index; false otherwise (the existence
// step has already noted a difference).
bool both_have(const CompareRun &run, int flag);

}  // namespace krx
