// The writer's model reductions: the node set cut down to what faces and interface nodes use,
// the global body properties from the invariants, and the per-mode statistics.
#include <algorithm>
#include <cmath>
#include <new>

#include "base/krxmsg.h"
#include "format/krxwrite.h"
#include "mesh/krxfaces.h"
#include "model/krxtools.h"
#include "processing/krxinvar.h"

namespace krx {

namespace {

int32_t stored_mode_count(const KRXDATA *model) {
  return model->retained_set ? model->retained_modes : mode_count(model);
}

bool kind_present(const KRXDATA *model, int kind) {
  static const int flag_of[3] = {kFlagModeShapes, kFlagModalStress, kFlagModalStrain};
  return model->flags[flag_of[kind]] && model->store[kind].opened;
}

// Copies, for every stored mode, the six values of each kept slot of a kind into a shortened
// mode file and switches the store to it.
int shorten_kind(KRXDATA *model, int kind, const std::vector<int32_t> &kept_slots) {
  int32_t modes = stored_mode_count(model);
  // The buffer comes first: a failed allocation must not leave the new file behind.
  std::vector<double> out(kept_slots.size() * 6);
  ReplacementFile file;
  if (!open_replacement_file(model, kind, modes, int32_t(kept_slots.size()),
                             "Shortened mode file: %s", file)) {
    return 0;
  }
  for (int32_t m = 0; m < modes; ++m) {
    if (!load_mode_record_by_index(model, m, kind)) {
      discard_replacement_file(file);
      return 0;
    }
    const std::vector<double> &record = model->store[kind].record;
    for (std::size_t i = 0; i < kept_slots.size(); ++i) {
      std::size_t from = std::size_t(kept_slots[i]) * 6;
      for (int c = 0; c < 6; ++c) out[6 * i + c] = from + c < record.size() ? record[from + c] : 0.0;
    }
    if (!write_replacement_record(file, m, out.data())) {
      discard_replacement_file(file);
      return 0;
    }
  }
  return install_replacement_file(model, file);
}

// Kinds 1 and 2: the slots of the kind's node list whose node is kept, and the list rewritten
// with the nodes' new positions.
void filter_kind_list(const KRXDATA *model, int kind, const std::vector<int32_t> &new_position,
                      std::vector<int32_t> &kept_slots, std::vector<int32_t> &new_nodes) {
  const std::vector<int32_t> &nodes = model->store[kind].nodes;
  for (std::size_t s = 0; s < nodes.size(); ++s) {
    int32_t p = nodes[s];
    if (p < 0 || p >= int32_t(new_position.size()) || new_position[p] < 0) continue;
    kept_slots.push_back(int32_t(s));
    new_nodes.push_back(new_position[p]);
  }
}

void rebuild_kind_index(KRXDATA *model, int kind) {
  VectorSlot &slot = model->store[kind];
  clear_ids(slot.index);
  reserve_ids(slot.index, slot.nodes.size());
  for (std::size_t s = 0; s < slot.nodes.size(); ++s)
    insert_id(slot.index, model->nodes[slot.nodes[s]].id, int32_t(s));
}

std::vector<double> filter_pre_values(const std::vector<double> &values,
                                      const std::vector<int32_t> &kept_slots) {
  if (values.empty()) return values;
  std::vector<double> out;
  out.reserve(kept_slots.size() * 6);
  for (int32_t s : kept_slots) {
    for (int c = 0; c < 6; ++c) {
      std::size_t i = std::size_t(s) * 6 + c;
      out.push_back(i < values.size() ? values[i] : 0.0);
    }
  }
  return out;
}

void rebuild_node_table(KRXDATA *model, const std::vector<int32_t> &kept) {
  std::vector<NodeRecord> nodes;
  nodes.reserve(kept.size());
  for (int32_t p : kept) nodes.push_back(std::move(model->nodes[p]));
  model->nodes = std::move(nodes);
  clear_ids(model->node_index);
  model->node_index_built = false;  // rebuilt from the new table on the next lookup
}

// Every face keeps naming the same nodes; a vertex whose node is dropped (never the case for the
// face node set) would become -1.
void remap_positions(KRXDATA *model, const std::vector<int32_t> &new_position) {
  auto map = [&](int32_t p) {
    return p >= 0 && p < int32_t(new_position.size()) ? new_position[p] : -1;
  };
  std::vector<int32_t> &faces = model->faces;
  for (std::size_t i = 0; i < faces.size();) {
    int32_t count = faces[i];
    for (int32_t v = 1; v <= count && i + v < faces.size(); ++v) faces[i + v] = map(faces[i + v]);
    i += std::size_t(count) + 1;
  }
  for (int32_t &p : model->interface_nodes) p = map(p);
  for (int32_t &p : model->face_node_set) p = map(p);
}

}  // namespace

int reduce_to_nodes(KRXDATA *model, const std::vector<int32_t> &kept) {
  int32_t count = node_count(model);
  std::vector<int32_t> new_position(std::size_t(std::max(count, 0)), -1);
  for (std::size_t i = 0; i < kept.size(); ++i) {
    if (kept[i] >= 0 && kept[i] < count) new_position[kept[i]] = int32_t(i);
  }
  if (kind_present(model, kModeShapes)) {
    if (!flush_vector_store(model, kModeShapes) || !shorten_kind(model, kModeShapes, kept)) return 0;
  }
  std::array<std::vector<int32_t>, 3> kept_slots, new_nodes;
  for (int kind = kModalStress; kind <= kModalStrain; ++kind) {
    filter_kind_list(model, kind, new_position, kept_slots[kind], new_nodes[kind]);
    if (kind_present(model, kind)) {
      if (!flush_vector_store(model, kind) || !shorten_kind(model, kind, kept_slots[kind])) return 0;
    }
  }
  model->pre_stress = filter_pre_values(model->pre_stress, kept_slots[kModalStress]);
  model->pre_strain = filter_pre_values(model->pre_strain, kept_slots[kModalStrain]);
  rebuild_node_table(model, kept);
  for (int kind = kModalStress; kind <= kModalStrain; ++kind) {
    model->store[kind].nodes = std::move(new_nodes[kind]);
    rebuild_kind_index(model, kind);
    model->store[kind].held_mode = -1;
  }
  model->store[kModeShapes].held_mode = -1;
  remap_positions(model, new_position);
  return 1;
}

int reduce_to_face_nodes(KRXDATA *model) {
  std::vector<int32_t> kept;
  if (!face_node_set(model, kept)) return 0;
  if (int32_t(kept.size()) == node_count(model)) return 1;  // every node is used already
  return reduce_to_nodes(model, kept);
}

void global_properties_from_invariants(KRXDATA *model) {
  double mass = invariant1(model);
  std::vector<double> first = invariant2(model), inertia = invariant7(model);
  model->total_mass = mass;
  for (int c = 0; c < 3; ++c) {
    model->centre_of_mass[c] = mass != 0.0 && first.size() == 3 ? first[c] / mass : 0.0;
  }
  for (int i = 0; i < 9; ++i) {
    double v = inertia.size() == 9 ? inertia[i] : 0.0;
    model->global_inertia[i] = (i % 4 == 0) ? v : -v;  // products of inertia with opposite sign
  }
  model->flags[kFlagGlobalBodyProps] = 1;
}

double von_mises_stress(const double s[6]) {
  double a = s[0] - s[1], b = s[1] - s[2], c = s[2] - s[0];
  return std::sqrt(0.5 * (a * a + b * b + c * c) + 3.0 * (s[3] * s[3] + s[4] * s[4] + s[5] * s[5]));
}

// Equivalent strain for an incompressible material, shears given as engineering strains.
double von_mises_strain(const double e[6]) {
  double a = e[0] - e[1], b = e[1] - e[2], c = e[2] - e[0];
  return std::sqrt(2.0) / 3.0 *
         std::sqrt(a * a + b * b + c * c + 1.5 * (e[3] * e[3] + e[4] * e[4] + e[5] * e[5]));
}

void update_statistics(ModalStatistics &stats, int kind, int32_t node_id, const double values[6]) {
  auto take = [&](int slot, double value) {
    if (value > stats.reals[slot]) {
      stats.reals[slot] = value;
      stats.ints[slot] = node_id;
    }
  };
  if (kind == kModeShapes) {
    take(kStatTranslation, std::sqrt(values[0] * values[0] + values[1] * values[1] + values[2] * values[2]));
    take(kStatRotation, std::sqrt(values[3] * values[3] + values[4] * values[4] + values[5] * values[5]));
  } else if (kind == kModalStress) {
    take(kStatStress, von_mises_stress(values));
  } else {
    take(kStatStrain, von_mises_strain(values));
  }
}

}  // namespace krx
