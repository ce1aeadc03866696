// Inertia invariants: each is read from the model's file, computed from the nodal masses and the
// mode shapes, or taken from the global mass properties, the first that applies, and cached in
// the model so that a second request only copies.
#include "processing/krxinvar.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "base/krxmsg.h"
#include "model/krxtools.h"
#include "processing/krxinvar_sums.h"
#include "processing/krxunits.h"

namespace krx {
namespace {

constexpr const char *kSource = "..\\krxinvar";

// Blocks of the file that hold the invariants.
constexpr int kBlock1 = 19, kBlock2 = 20, kBlock3 = 21, kBlock4 = 22, kBlock5 = 23, kBlock7 = 24,
              kBlock8 = 25, kBlock9 = 26;

int32_t retained_count(const KRXDATA *model) { return std::max<int32_t>(0, model->retained_modes); }

bool holds_nodal_masses(const KRXDATA *model) { return model->flags[kFlagNodalMasses] != 0; }

bool file_has_block(const KRXDATA *model, int block) {
  return model->read_from_file && model->block_start[block] > 0;
}

// The node's inertia tensor row by row from I11, I22, I33, I12, I13, I23, signs as stored.
void expand_inertia(const std::array<double, 6> &c, double J[9]) {
  const double rows[9] = {c[0], c[3], c[4], c[3], c[1], c[5], c[4], c[5], c[2]};
  std::memcpy(J, rows, sizeof rows);
}

void position_of(const NodeRecord &node, double x[3]) {
  x[0] = node.x;
  x[1] = node.y;
  x[2] = node.z;
}

// A zero-filled cache of n doubles; false (reported) when it cannot be allocated.
bool allocate_cache(std::vector<double> &cache, std::size_t n) {
  try {
    cache.assign(n, 0.0);
    return true;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return false;
  }
}

// Fills an empty cache from the file block when the file holds it. The size is fixed before
// reading so that a short block never leaves a cache the writer would overrun.
bool fill_from_file(KRXDATA *model, int block, std::vector<double> &cache, std::size_t n) {
  std::vector<double> values;
  try {
    if (!read_invariant_block(model, block, values)) return false;
    values.resize(n, 0.0);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return false;
  }
  cache = std::move(values);
  return true;
}

double sum_nodal_mass(const KRXDATA *model) {
  double sum = 0.0;
  for (const NodeRecord &node : model->nodes) sum += node.mass;
  return sum;
}

void sum_first_moment(const KRXDATA *model, double out[3]) {
  out[0] = out[1] = out[2] = 0.0;
  for (const NodeRecord &node : model->nodes) {
    out[0] += node.mass * node.x;
    out[1] += node.mass * node.y;
    out[2] += node.mass * node.z;
  }
}

void sum_inertia(const KRXDATA *model, double out[9]) {
  std::fill(out, out + 9, 0.0);
  for (const NodeRecord &node : model->nodes) {
    double x[3];
    position_of(node, x);
    if (node.mass != 0.0) skew_accumulate(out, -node.mass, x, x);
    if (!node.inertia) continue;
    double J[9];
    expand_inertia(*node.inertia, J);
    for (int e = 0; e < 9; ++e) out[e] += J[e];
  }
}

// Invariants 3, 4, 5, 8 and 9 by bit.
enum : int { kWant3 = 1, kWant4 = 2, kWant5 = 4, kWant8 = 8, kWant9 = 16 };

// Mode-shape invariants on their way into the cache: the ones ready to hand out, and the
// zero-filled caches that one pass over the nodes still has to sum.
struct ModePlan {
  int ready = 0;
  int summed = 0;
  ModeSumTargets targets;
};

// For each wanted invariant, in the order 3, 4, 5, 8, 9: nothing to do when it is cached, else
// read from the file, else a zero-filled cache that the pass fills when the model holds nodal
// masses. An invariant whose cache cannot be allocated is not ready.
void plan_mode_invariants(KRXDATA *model, int want, ModePlan &plan) {
  const std::size_t M = std::size_t(retained_count(model));
  if (M == 0) return;
  struct Entry {
    int bit;
    std::vector<double> &cache;
    int block;
    std::size_t size;
    std::vector<double> *ModeSumTargets::*target;
  };
  const Entry entries[] = {
      {kWant3, model->invariant3, kBlock3, 3 * M, &ModeSumTargets::three},
      {kWant4, model->invariant4, kBlock4, 3 * M, &ModeSumTargets::four},
      {kWant5, model->invariant5, kBlock5, 3 * M * M, &ModeSumTargets::five},
      {kWant8, model->invariant8, kBlock8, 9 * M, &ModeSumTargets::eight},
      {kWant9, model->invariant9, kBlock9, 9 * M * M, &ModeSumTargets::nine}};
  for (const Entry &e : entries) {
    if (!(want & e.bit)) continue;
    if (e.cache.empty() && !fill_from_file(model, e.block, e.cache, e.size)) {
      if (!allocate_cache(e.cache, e.size)) continue;
      if (holds_nodal_masses(model)) {
        plan.targets.*e.target = &e.cache;
        plan.summed |= e.bit;
      }
    }
    plan.ready |= e.bit;
  }
}

// The pass over the nodes for every planned sum; returns the invariants ready to hand out. A
// pass that fails leaves its caches zero-filled.
int sum_planned_invariants(KRXDATA *model, ModePlan &plan) {
  if (plan.summed && !sum_mode_invariants(model, plan.targets)) plan.ready &= ~plan.summed;
  plan.summed = 0;
  plan.targets = ModeSumTargets{};
  return plan.ready;
}

bool ensure_mode_invariant(KRXDATA *model, int bit) {
  ModePlan plan;
  plan_mode_invariants(model, bit, plan);
  return (sum_planned_invariants(model, plan) & bit) != 0;
}

// Array `index` of `size` doubles from a cache (the whole cache when size is 0), or nothing when
// the cache lacks it or the copy cannot be allocated.
std::vector<double> copy_array(const std::vector<double> &cache, std::size_t index = 0,
                               std::size_t size = 0) {
  if (size == 0) size = cache.size();
  if ((index + 1) * size > cache.size()) return {};
  try {
    return std::vector<double>(cache.begin() + index * size, cache.begin() + (index + 1) * size);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return {};
  }
}

}  // namespace

int32_t retained_mode_index(const KRXDATA *model, int32_t j) {
  if (model->record_map.empty()) return j;
  return j < int32_t(model->record_map.size()) ? model->record_map[j] : -1;
}

// ---- File branch -------------------------------------------------------------------------------
// The block is decoded by the model's stored-invariant source, which the reader installs, in the
// file's encoding and precision; the mode count rule and the unit scaling are this file's.

bool read_invariant_block(KRXDATA *model, int block, std::vector<double> &values) {
  if (!model || !file_has_block(model, block) || !model->stored_invariants) return false;
  int32_t file_modes = -1;
  if (!model->stored_invariants(model, block, values, &file_modes)) {
    values.clear();
    return false;
  }
  if (file_modes >= 0) check_invariant_mode_count(model, file_modes);
  scale_invariant_from_file(model, block, values);
  return true;
}

std::size_t invariant_block_values(int block, int32_t modes) {
  const std::size_t M = std::size_t(std::max<int32_t>(0, modes));
  switch (block) {
    case kBlock1:
      return 1;
    case kBlock2:
      return 3;
    case kBlock3:
    case kBlock4:
      return 3 * M;
    case kBlock5:
      return 3 * M * M;
    case kBlock7:
      return 9;
    case kBlock8:
      return 9 * M;
    case kBlock9:
      return 9 * M * M;
    default:
      return 0;
  }
}

void check_invariant_mode_count(const KRXDATA *model, int32_t file_modes) {
  if (file_modes != retained_count(model))
    error("nm!=ModeCount at line %d in file %s", __LINE__, kSource);
}

void scale_invariant_from_file(const KRXDATA *model, int block, std::vector<double> &values) {
  const double m = model->mass_ratio, L = model->length_ratio;
  const double factor = block == kBlock1                         ? m
                        : (block == kBlock2 || block == kBlock3) ? m * L
                                                                 : m * L * L;
  scale_array(values.data(), values.size(), factor);
}

// ---- Invariants ---------------------------------------------------------------------------------

double invariant1(KRXDATA *model) {
  if (!model_exists(model)) return 0.0;
  if (model->has_invariant1) return model->invariant1;
  std::vector<double> value;
  if (fill_from_file(model, kBlock1, value, 1))
    model->invariant1 = value[0];
  else if (holds_nodal_masses(model))
    model->invariant1 = sum_nodal_mass(model);
  else
    model->invariant1 = model->total_mass;
  model->has_invariant1 = true;
  return model->invariant1;
}

std::vector<double> invariant2(KRXDATA *model) {
  if (!model_exists(model)) return {};
  std::vector<double> &cache = model->invariant2;
  if (cache.empty() && !fill_from_file(model, kBlock2, cache, 3)) {
    if (!allocate_cache(cache, 3)) return {};
    if (holds_nodal_masses(model)) {
      sum_first_moment(model, cache.data());
    } else if (model->total_mass != 0.0) {
      for (int c = 0; c < 3; ++c) cache[c] = model->total_mass * model->centre_of_mass[c];
    }
  }
  return copy_array(cache);
}

std::vector<double> invariant3(KRXDATA *model) {
  if (!model_exists(model)) return {};
  if (!ensure_mode_invariant(model, kWant3)) return {};
  return copy_array(model->invariant3);
}

std::vector<double> invariant4(KRXDATA *model) {
  if (!model_exists(model)) return {};
  if (!ensure_mode_invariant(model, kWant4)) return {};
  return copy_array(model->invariant4);
}

std::vector<double> invariant5(KRXDATA *model, int32_t mode) {
  if (!model_exists(model)) return {};
  const int32_t M = retained_count(model);
  if (M == 0 || !ensure_mode_invariant(model, kWant5)) return {};
  if (mode < 0 || mode >= M) return {};
  return copy_array(model->invariant5, std::size_t(mode), 3 * std::size_t(M));
}

std::vector<double> invariant6(KRXDATA *model) {
  if (!model_exists(model)) return {};
  const int32_t M = retained_count(model);
  if (M == 0) return {};
  int32_t n = mode_count(model);
  for (int32_t j = 0; j < M; ++j) n = std::max(n, retained_mode_index(model, j) + 1);
  std::vector<double> full = dense_matrix(model->mass, n);
  if (full.empty()) return {};
  std::vector<double> out;
  try {
    out.assign(std::size_t(M) * M, 0.0);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return {};
  }
  for (int32_t a = 0; a < M; ++a) {
    const int32_t ra = retained_mode_index(model, a);
    if (ra < 0) continue;
    for (int32_t b = 0; b < M; ++b) {
      const int32_t rb = retained_mode_index(model, b);
      if (rb >= 0) out[std::size_t(a) * M + b] = full[std::size_t(ra) * n + rb];
    }
  }
  return out;
}

std::vector<double> invariant7(KRXDATA *model) {
  if (!model_exists(model)) return {};
  std::vector<double> &cache = model->invariant7;
  if (cache.empty() && !fill_from_file(model, kBlock7, cache, 9)) {
    if (!allocate_cache(cache, 9)) return {};
    if (holds_nodal_masses(model)) {
      sum_inertia(model, cache.data());
    } else if (model->total_mass != 0.0) {
      // The host gives products of inertia with the opposite sign to the tensor kept here.
      for (int e = 0; e < 9; ++e)
        cache[e] = (e % 4 == 0) ? model->global_inertia[e] : -model->global_inertia[e];
    }
  }
  return copy_array(cache);
}

std::vector<double> invariant8(KRXDATA *model, int32_t mode) {
  if (!model_exists(model)) return {};
  if (!ensure_mode_invariant(model, kWant8)) return {};
  if (mode < 0 || mode >= retained_count(model)) return {};
  return copy_array(model->invariant8, std::size_t(mode), 9);
}

std::vector<double> invariant9(KRXDATA *model, int32_t mode_j, int32_t mode_k) {
  if (!model_exists(model)) return {};
  const int32_t M = retained_count(model);
  if (M == 0 || !ensure_mode_invariant(model, kWant9)) return {};
  if (mode_j < 0 || mode_j >= M || mode_k < 0 || mode_k >= M) return {};
  return copy_array(model->invariant9, std::size_t(mode_j) * M + mode_k, 9);
}

// ---- Checks for the setters --------------------------------------------------------------------

double peek_invariant1(const KRXDATA *model) {
  if (!model) return 0.0;
  return model->has_invariant1 ? model->invariant1 : sum_nodal_mass(model);
}

std::array<double, 3> peek_invariant2(const KRXDATA *model) {
  std::array<double, 3> out{};
  if (!model) return out;
  if (model->invariant2.size() >= 3)
    std::copy_n(model->invariant2.begin(), 3, out.begin());
  else
    sum_first_moment(model, out.data());
  return out;
}

std::array<double, 9> peek_invariant7(const KRXDATA *model) {
  std::array<double, 9> out{};
  if (!model) return out;
  if (model->invariant7.size() >= 9)
    std::copy_n(model->invariant7.begin(), 9, out.begin());
  else
    sum_inertia(model, out.data());
  return out;
}

// ---- Drivers ------------------------------------------------------------------------------------

void compute_rigid_invariants(KRXDATA *model) {
  if (!model_exists(model)) return;
  const bool cached =
      model->has_invariant1 && !model->invariant2.empty() && !model->invariant7.empty();
  const bool in_file = file_has_block(model, kBlock1) && file_has_block(model, kBlock2) &&
                       file_has_block(model, kBlock7);
  if (!cached && !in_file && !holds_nodal_masses(model))
    error(
        "There is insufficient mass data to compute a full set of mass invariants.\n"
        "Some or all mass invariants will be set to zero.");
  note("Computing *rigid* invariants");
  invariant1(model);
  invariant2(model);
  invariant3(model);
  invariant7(model);
}

void compute_fast_invariants(KRXDATA *model) {
  if (!model_exists(model)) return;
  const bool cached = model->has_invariant1 && !model->invariant2.empty() &&
                      !model->invariant3.empty() && !model->invariant4.empty() &&
                      !model->invariant7.empty() && !model->invariant8.empty();
  bool in_file = true;
  for (int block : {kBlock1, kBlock2, kBlock3, kBlock4, kBlock7, kBlock8})
    in_file = in_file && file_has_block(model, block);
  if (!cached && !in_file && !(holds_nodal_masses(model) && retained_count(model) > 0))
    error(
        "There is insufficient mass data to compute a partial set of mass invariants.\n"
        "Some or all mass invariants will be set to zero.");
  note("Computing fast set of invariants");
  invariant1(model);
  invariant2(model);
  // Invariants 3, 4 and 8 come from one pass over the nodes, which reads each mode once.
  ModePlan plan;
  plan_mode_invariants(model, kWant3 | kWant4, plan);
  invariant6(model);
  invariant7(model);
  plan_mode_invariants(model, kWant8, plan);
  sum_planned_invariants(model, plan);
}

void compute_full_invariants(KRXDATA *model) {
  if (!model_exists(model)) return;
  const bool cached = model->has_invariant1 && !model->invariant2.empty() &&
                      !model->invariant3.empty() && !model->invariant4.empty() &&
                      !model->invariant5.empty() && !model->invariant7.empty() &&
                      !model->invariant8.empty() && !model->invariant9.empty();
  bool in_file = true;
  for (int block = kBlock1; block <= kBlock9; ++block)
    in_file = in_file && file_has_block(model, block);
  if (!cached && !in_file && !(holds_nodal_masses(model) && retained_count(model) > 0))
    error(
        "There is insufficient mass data to compute a full set of mass invariants.\n"
        "Some or all mass invariants will be set to zero.");
  note("Computing *all* invariants");
  invariant1(model);
  invariant2(model);
  // Invariants 3, 4, 5, 8 and 9 come from one pass over the nodes, which reads each mode once.
  ModePlan plan;
  plan_mode_invariants(model, kWant3 | kWant4 | kWant5, plan);
  invariant6(model);
  invariant7(model);
  plan_mode_invariants(model, kWant8 | kWant9, plan);
  sum_planned_invariants(model, plan);
}

// ---- Kernels ------------------------------------------------------------------------------------

void cross_accumulate(double t[3], double s, const double a[3], const double b[3]) {
  t[0] += s * (a[1] * b[2] - a[2] * b[1]);
  t[1] += s * (a[2] * b[0] - a[0] * b[2]);
  t[2] += s * (a[0] * b[1] - a[1] * b[0]);
}

// skew(a) skew(b) = b a^T - (a . b) I: entry (r, c) is a_c b_r, less a . b on the diagonal.
void skew_accumulate(double t[9], double s, const double a[3], const double b[3]) {
  const double dot = a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) t[3 * r + c] += s * (a[c] * b[r] - (r == c ? dot : 0.0));
}

std::vector<double> dense_matrix(const std::vector<MatrixEntry> &entries, int32_t n) {
  if (n <= 0) return {};
  std::vector<double> dense;
  try {
    dense.assign(std::size_t(n) * n, 0.0);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return {};
  }
  for (const MatrixEntry &entry : entries) {
    if (entry.row < 0 || entry.row >= n || entry.column < 0 || entry.column >= n) continue;
    dense[std::size_t(entry.row) * n + entry.column] = entry.value;
  }
  return dense;
}

}  // namespace krx
