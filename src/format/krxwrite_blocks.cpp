// The writer's data blocks 4 to 32: for each flagged block its notes, its diagnostics and its
// failure message. Every layout is the catalogue's (krxformat.h); this file only gathers the
// values from the model, a mode at a time for the per-mode blocks.
#include <algorithm>
#include <cassert>
#include <cstring>
#include <vector>

#include "base/krxmsg.h"
#include "format/krxformat.h"
#include "format/krxwrite.h"
#include "format/krxwrite_state.h"
#include "model/krxtools.h"
#include "processing/krxinvar.h"
#include "processing/krxunits.h"

namespace krx {

namespace {

int write_nodal_coords(WriteState &state) {
  const KRXDATA *model = state.model;
  note("\nNode info:\n   Count: %ld", long(model->nodes.size()));
  NodalCoordsBlock block;
  block.ids.reserve(model->nodes.size());
  block.xyz.reserve(3 * model->nodes.size());
  std::vector<int32_t> at_origin;
  for (const NodeRecord &node : model->nodes) {
    block.ids.push_back(node.id);
    block.xyz.insert(block.xyz.end(), {node.x, node.y, node.z});
    if (node.x == 0.0 && node.y == 0.0 && node.z == 0.0) {
      reserve_one_more(at_origin, 100);
      at_origin.push_back(node.id);
    }
  }
  BlockIo io = state.io();
  if (!write_nodal_coords_block(io, block)) return 0;
  if (!at_origin.empty()) {
    warning("Found %d node(s) with coordinates (0,0,0).  They are:", int(at_origin.size()));
    for (int32_t id : at_origin) warning("   %d", id);
  }
  return 1;
}

int write_element_topology(WriteState &state) {
  ElementTopologyBlock block;
  if (!make_element_topology_block(*state.model, block)) return 0;
  BlockIo io = state.io();
  return write_element_topology_block(io, block);
}

int write_global_props(WriteState &state) {
  const KRXDATA *model = state.model;
  const double *c = model->centre_of_mass.data();
  const double *j = model->global_inertia.data();
  note("\nGlobal body properties:");
  note("Mass          : %lf\n", model->total_mass);
  note("Center of Mass: %lf %lf %lf", c[0], c[1], c[2]);
  note("Inertia Tensor: %lf %lf %lf", j[0], j[1], j[2]);
  note("%lf %lf %lf", j[3], j[4], j[5]);
  note("%lf %lf %lf", j[6], j[7], j[8]);
  std::array<double, 13> values{model->total_mass, c[0], c[1], c[2]};
  for (int i = 0; i < 9; ++i) values[4 + i] = j[i];
  BlockIo io = state.io();
  return write_global_body_block(io, values);
}

// Only the exported band, numbered from 1.
int write_eigenvalues(WriteState &state) {
  const KRXDATA *model = state.model;
  note("\nEigenvalue info:\n   Modes: %ld", long(state.band_count));
  std::vector<EigenRecord> records;
  records.reserve(std::size_t(state.band_count));
  for (int32_t j = 0; j < state.band_count; ++j) {
    std::size_t at = std::size_t(state.band_start + j);
    records.push_back(at < model->eigen.size() ? model->eigen[at] : EigenRecord{});
    records.back().number = j + 1;
  }
  BlockIo io = state.io();
  return write_eigenvalues_block(io, records);
}

const char *const kModeHeads[3] = {"\nTrans Mode info:\n   Modes: %ld\n   Nodes: %ld",
                                   "\nStress Mode info:\n   Modes: %ld\n   Nodes: %ld",
                                   "\nStrain Mode info:\n   Modes: %ld\n   Nodes: %ld"};
const char *const kZeroTexts[3] = {"The mode shape for mode %d has only zero entries\n",
                                   "The modal stresses for mode %d have only zero entries\n",
                                   "The modal strains for mode %d have only zero entries\n"};

// The node ids a per-mode block lists, and for a dense stress or strain block the slot of each
// listed node in the kind's records (-1: the node has no values, zeros are written).
void mode_block_nodes(const WriteState &state, int kind, std::vector<int32_t> &ids,
                      std::vector<int32_t> &slot_of) {
  const KRXDATA *model = state.model;
  const std::vector<int32_t> &list = model->store[kind].nodes;
  if (kind != kModeShapes && !state.dense_stress) {
    for (int32_t p : list) ids.push_back(model->nodes[std::size_t(p)].id);
    return;
  }
  int32_t count = kind_node_count(model, kModeShapes);
  for (int32_t p = 0; p < count; ++p) ids.push_back(model->nodes[std::size_t(p)].id);
  if (kind == kModeShapes) return;
  slot_of.assign(std::size_t(count), -1);
  for (std::size_t s = 0; s < list.size(); ++s)
    if (list[s] >= 0 && list[s] < count) slot_of[std::size_t(list[s])] = int32_t(s);
}

// The record of one exported mode as the block lists it: the store's record itself, or for a
// dense block the record spread over every node.
const double *block_record(KRXDATA *model, int kind, const std::vector<int32_t> &slot_of,
                           std::vector<double> &spread) {
  const std::vector<double> &held = model->store[kind].record;
  if (slot_of.empty()) return held.data();
  std::fill(spread.begin(), spread.end(), 0.0);
  for (std::size_t n = 0; n < slot_of.size(); ++n) {
    std::size_t from = std::size_t(slot_of[n]) * 6;
    if (slot_of[n] >= 0 && from + 6 <= held.size()) std::copy_n(&held[from], 6, &spread[6 * n]);
  }
  return spread.data();
}

// Blocks 8, 18 and 29: the node list, then one record per exported mode, numbered from 1. The
// vectors come from the store a mode at a time; the statistics are filled on the way.
int write_mode_vectors(WriteState &state, int kind) {
  KRXDATA *model = state.model;
  std::vector<int32_t> ids, slot_of;
  mode_block_nodes(state, kind, ids, slot_of);
  note(kModeHeads[kind], long(state.band_count), long(ids.size()));
  if (kind == kModeShapes) note("\nWriting Mode Shapes");
  BlockIo io = state.io();
  ModeBlockHead head;
  head.modes = state.band_count;
  head.ids = std::move(ids);
  if (!write_mode_block_head(io, head)) return 0;
  std::size_t nodes = head.ids.size();
  std::vector<double> spread(slot_of.empty() ? 0 : 6 * nodes);
  std::vector<double> zeros;
  for (int32_t j = 0; j < state.band_count; ++j) {
    const double *record = nullptr;
    if (nodes > 0 && load_mode_record_by_index(model, state.band_start + j, kind) &&
        model->store[kind].record.size() >= (slot_of.empty() ? 6 * nodes : 0)) {
      record = block_record(model, kind, slot_of, spread);
    } else {
      zeros.assign(6 * nodes, 0.0);  // a mode never stored is a mode of zeros
      record = zeros.data();
    }
    bool all_zero = true;
    ModalStatistics *stats =
        std::size_t(j) < model->statistics.size() ? &model->statistics[std::size_t(j)] : nullptr;
    for (std::size_t n = 0; n < nodes; ++n) {
      const double *v = record + 6 * n;
      if (v[0] != 0.0 || v[1] != 0.0 || v[2] != 0.0 || v[3] != 0.0 || v[4] != 0.0 || v[5] != 0.0)
        all_zero = false;
      if (stats) update_statistics(*stats, kind, head.ids[n], v);
    }
    if (all_zero) warning(kZeroTexts[kind], j + 1);
    if (!write_mode_record(io, j + 1, record, nodes)) return 0;
  }
  return 1;
}

int write_nodal_masses(WriteState &state) {
  const KRXDATA *model = state.model;
  NodalMassesBlock block;
  block.ids.reserve(model->nodes.size());
  block.values.reserve(model->nodes.size());
  int massless = 0;
  for (const NodeRecord &node : model->nodes) {
    block.ids.push_back(node.id);
    block.values.push_back(node.mass);
    if (node.mass == 0.0) ++massless;
  }
  BlockIo io = state.io();
  if (!write_nodal_masses_block(io, block)) return 0;
  if (massless) warning("Found %d massless node(s)", massless);
  return 1;
}

int write_nodal_inertias(WriteState &state) {
  std::vector<InertiaEntry> entries;
  make_nodal_inertia_entries(*state.model, entries);
  note("\nNodal inertia info:\n   Sparse matrix entries: %ld", long(entries.size()));
  BlockIo io = state.io();
  return write_nodal_inertia_block(io, entries);
}

int write_units(WriteState &state) {
  std::array<std::array<char, 16>, 4> names{};
  get_unit_names(state.model, names[0].data(), names[1].data(), names[2].data(), names[3].data());
  note("\nUnits:\n   Mass:   %s\n   Length: %s\n   Time:   %s\n   Force:  %s", names[0].data(),
       names[1].data(), names[2].data(), names[3].data());
  BlockIo io = state.io();
  return write_units_block(io, names);
}

// Blocks 12, 13 and 15: the non-zero entries over the exported modes, 1-based among them. The
// model's list is appended to, never merged: the last value set for a pair wins.
int write_generalized(WriteState &state, const std::vector<MatrixEntry> &entries) {
  int32_t first = state.band_start, count = state.band_count, order = first + count;
  std::vector<double> dense = dense_matrix(entries, order);
  MatrixBlock block;
  block.order = count;
  for (int32_t r = 0; r < count; ++r) {
    for (int32_t c = 0; c < count; ++c) {
      double v = dense[std::size_t(first + r) * std::size_t(order) + std::size_t(first + c)];
      if (v != 0.0) block.entries.push_back({r + 1, c + 1, v, 1});
    }
  }
  BlockIo io = state.io();
  return write_matrix_block(io, block);
}

int write_element_faces(WriteState &state) {
  ElementFacesBlock block;
  if (!make_element_faces_block(*state.model, block)) return 0;
  BlockIo io = state.io();
  if (!write_element_faces_block(io, block)) return 0;
  note("\nNumber of Element Faces: %d", block.face_count);
  return 1;
}

// The model's whole n x n transformation, over the host's mode numbers.
int write_transformation(WriteState &state) {
  const KRXDATA *model = state.model;
  TransformationBlock block;
  block.modes = model->transformation_modes;
  std::size_t n = block.modes.size();
  if (model->transformation.size() != n * n) {
    // No list of its own: the model's mode numbers, as many as the matrix has rows.
    n = 0;
    while ((n + 1) * (n + 1) <= model->transformation.size()) ++n;
    block.modes.assign(model->modes.begin(), model->modes.begin() + std::min(n, model->modes.size()));
    block.modes.resize(n, 0);
  }
  block.matrix.assign(model->transformation.begin(), model->transformation.begin() + n * n);
  BlockIo io = state.io();
  return write_transformation_block(io, block);
}

int write_interface_nodes(WriteState &state) {
  const KRXDATA *model = state.model;
  std::vector<int32_t> ids;
  ids.reserve(model->interface_nodes.size());
  for (int32_t p : model->interface_nodes) ids.push_back(model->nodes[std::size_t(p)].id);
  BlockIo io = state.io();
  return write_interface_block(io, ids);
}

// Per-mode invariants hold one group per retained mode; the exported band is written, in the
// layout the model keeps them in, over the band's m modes.
void band_of_invariant(WriteState &state, int number, InvariantBlock &block) {
  KRXDATA *model = state.model;
  int32_t m = state.band_count, first = state.band_start;
  std::size_t um = std::size_t(m);
  block.modes = m;
  std::vector<double> &out = block.values;
  switch (number) {
    case 19: out.assign(1, invariant1(model)); return;
    case 20: out = invariant2(model); out.resize(3, 0.0); return;
    case 24: out = invariant7(model); out.resize(9, 0.0); return;
    case 21:
    case 22: {
      std::vector<double> v = number == 21 ? invariant3(model) : invariant4(model);
      std::size_t total = v.size() / 3;
      out.assign(3 * um, 0.0);
      for (std::size_t c = 0; c < 3; ++c)
        for (std::size_t j = 0; j < um && first + j < total; ++j) out[c * um + j] = v[c * total + first + j];
      return;
    }
    case 23: {
      // One call fills the model's cache; the band is then read from it, not copied mode by mode.
      out.assign(3 * um * um, 0.0);
      if (um == 0 || invariant5(model, first).empty()) return;
      const std::vector<double> &all = model->invariant5;
      std::size_t total = std::size_t(std::max<int32_t>(0, model->retained_modes));
      if (all.size() < 3 * total * total) return;
      for (std::size_t j = 0; j < um && first + j < total; ++j)
        for (std::size_t c = 0; c < 3; ++c)
          for (std::size_t k = 0; k < um && first + k < total; ++k)
            out[j * 3 * um + c * um + k] = all[(first + j) * 3 * total + c * total + first + k];
      return;
    }
    case 25: {
      out.assign(9 * um, 0.0);
      for (std::size_t j = 0; j < um; ++j) {
        std::vector<double> v = invariant8(model, int32_t(first + j));
        std::copy_n(v.begin(), std::min<std::size_t>(9, v.size()), &out[9 * j]);
      }
      return;
    }
    default: {  // 26
      out.assign(9 * um * um, 0.0);
      if (um == 0 || invariant9(model, first, first).empty()) return;
      const std::vector<double> &all = model->invariant9;
      std::size_t total = std::size_t(std::max<int32_t>(0, model->retained_modes));
      if (all.size() < 9 * total * total) return;
      for (std::size_t j = 0; j < um && first + j < total; ++j)
        for (std::size_t k = 0; k < um && first + k < total; ++k)
          std::copy_n(&all[9 * ((first + j) * total + first + k)], 9, &out[9 * (j * um + k)]);
      return;
    }
  }
}

int write_invariant(WriteState &state, int number) {
  InvariantBlock block;
  band_of_invariant(state, number, block);
  BlockIo io = state.io();
  return write_invariant_block(io, number, block);
}

std::vector<double> band_values(const WriteState &state, const std::vector<double> &values) {
  std::vector<double> out(std::size_t(state.band_count), 0.0);
  for (int32_t j = 0; j < state.band_count; ++j) {
    std::size_t i = std::size_t(state.band_start + j);
    if (i < values.size()) out[std::size_t(j)] = values[i];
  }
  return out;
}

int write_preload(WriteState &state) {
  PreloadBlock block;
  block.extra = state.model->preload_extra;
  block.values = band_values(state, state.model->preload);
  BlockIo io = state.io();
  return write_preload_block(io, block);
}

int write_modal_loads(WriteState &state) {
  ModalLoadsBlock block;
  block.modes = state.band_count;
  for (const LoadCase &load : state.model->load_cases) {
    LoadCaseRecord record;
    std::strncpy(record.name.data(), load.label.c_str(), record.name.size() - 1);
    record.projected = load.applied;
    record.values = band_values(state, load.values);
    block.cases.push_back(std::move(record));
  }
  BlockIo io = state.io();
  return write_modal_loads_block(io, block);
}

int write_statistics(WriteState &state) {
  BlockIo io = state.io();
  return write_statistics_block(io, state.model->statistics);
}

// Blocks 31 and 32 follow the node list of blocks 18 and 29: spread over every mode-shape node
// in a dense file.
int write_pre_values(WriteState &state, int kind) {
  const KRXDATA *model = state.model;
  const std::vector<double> &values = kind == kModalStress ? model->pre_stress : model->pre_strain;
  std::vector<double> spread;
  const std::vector<double> *written = &values;
  if (state.dense_stress) {
    std::vector<int32_t> ids, slot_of;
    mode_block_nodes(state, kind, ids, slot_of);
    spread.assign(6 * slot_of.size(), 0.0);
    for (std::size_t n = 0; n < slot_of.size(); ++n) {
      std::size_t from = std::size_t(slot_of[n]) * 6;
      if (slot_of[n] >= 0 && from + 6 <= values.size()) std::copy_n(&values[from], 6, &spread[6 * n]);
    }
    written = &spread;
  }
  note(kind == kModalStress ? "\nPre-Stress info:\n   Nodes: %ld" : "\nPre-Strain info:\n   Nodes: %ld",
       long(written->size() / 6));
  BlockIo io = state.io();
  return write_pre_block(io, *written);
}

const char *const kFailures[kBlockCount + 1] = {
    "", "", "", "",
    "Problem writing nodal coordinates.\n",
    "Problem writing element topology map.",
    "Problem writing Global Body Properties.",
    "Problem writing eigenvalues.",
    "Problem writing Mode Shapes.",
    "Problem writing Nodal Masses.\n",
    "Problem writing Nodal Inertia info.",
    "Problem writing Units strings.",
    "Problem writing Generalized Stiffness info.",
    "Problem writing Generalized Mass info.",
    "Problem writing element face info.",
    "Problem writing Generalized Damping info.",
    "Problem writing Mode Shape Transformation.",
    "Problem writing Interface Nodes.",
    "Problem writing Modal Stress.\n",
    "Problem writing Invariant 1.\n",
    "Problem writing Invariant 2.\n",
    "Problem writing Invariant 3.\n",
    "Problem writing Invariant 4.\n",
    "Problem writing Invariant 5.\n",
    "Problem writing Invariant 7.\n",
    "Problem writing Invariant 8.\n",
    "Problem writing Invariant 9.\n",
    "Problem writing Preload.\n",
    "Problem writing Modal Loads.\n",
    "Problem writing Modal Strain.",
    "Problem writing Modal Statistics.\n",
    "Problem writing Pre-Stress.\n",
    "Problem writing Pre-Strain.\n",
};

int dispatch(WriteState &state, int block) {
  KRXDATA *model = state.model;
  switch (block) {
    case 4: return write_nodal_coords(state);
    case 5: return write_element_topology(state);
    case 6: return write_global_props(state);
    case 7: return write_eigenvalues(state);
    case 8: return write_mode_vectors(state, kModeShapes);
    case 9: return write_nodal_masses(state);
    case 10: return write_nodal_inertias(state);
    case 11: return write_units(state);
    case 12: return write_generalized(state, model->stiffness);
    case 13: return write_generalized(state, model->mass);
    case 14: return write_element_faces(state);
    case 15: return write_generalized(state, model->damping);
    case 16: return write_transformation(state);
    case 17: return write_interface_nodes(state);
    case 18:
    case 29:
      assert((state.dense_stress ? !state.options.sparse_str : true) &&
             "write_dense_modes ? !trim_stress_strain : KRX_TRUE");
      return write_mode_vectors(state, block == 18 ? kModalStress : kModalStrain);
    case 27: return write_preload(state);
    case 28: return write_modal_loads(state);
    case 30: return write_statistics(state);
    case 31: return write_pre_values(state, kModalStress);
    case 32: return write_pre_values(state, kModalStrain);
    default: return write_invariant(state, block);  // 19 to 26
  }
}

}  // namespace

int write_data_block(WriteState &state, int block) {
  const BlockInfo *info = block_info(block);
  if (!info || info->flag < 0 || !state.model->flags[std::size_t(info->flag)]) return 1;
  if (dispatch(state, block)) return 1;
  error("%s", kFailures[block]);
  return 0;
}

}  // namespace krx
