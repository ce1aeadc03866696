// The writer's data blocks 4 to 32: for each flagged block its notes, its diagnostics and its
// failure message; the bytes go through the stream layer in the catalogue's layouts.
#include <cassert>
#include <cmath>
#include <cstring>
#include <vector>

#include "format/krxwrite.h"
#include "format/krxwrite_state.h"
#include "host/krxmsg.h"
#include "model/krxset.h"
#include "model/krxtools.h"
#include "processing/krxinvar.h"
#include "processing/krxunits.h"

namespace krx {

namespace {

std::vector<int32_t> node_ids(const KRXDATA *model) {
  std::vector<int32_t> ids;
  ids.reserve(model->nodes.size());
  for (const NodeRecord &node : model->nodes) ids.push_back(node.id);
  return ids;
}

int write_nodal_coords(WriteState &state) {
  KRXDATA *model = state.model;
  KrxStream &s = state.stream;
  note("\nNode info:\n   Count: %ld", long(model->nodes.size()));
  std::vector<int32_t> at_origin;
  if (!put_int(s, int32_t(model->nodes.size())) || !put_int(s, 3)) return 0;
  for (const NodeRecord &node : model->nodes) {
    const double xyz[3] = {node.x, node.y, node.z};
    if (!put_int(s, node.id) || !put_reals(s, xyz, 3)) return 0;
    if (node.x == 0.0 && node.y == 0.0 && node.z == 0.0) {
      if (at_origin.size() == at_origin.capacity()) at_origin.reserve(at_origin.size() + 100);
      at_origin.push_back(node.id);
    }
  }
  if (!at_origin.empty()) {
    warning("Found %d node(s) with coordinates (0,0,0).  They are:", int(at_origin.size()));
    for (int32_t id : at_origin) warning("   %d", id);
  }
  return 1;
}

// Faces grouped by vertex count (2 to 13), each face preceded by two ints that readers skip.
int write_element_topology(WriteState &state) {
  const std::vector<int32_t> &faces = state.model->faces;
  KrxStream &s = state.stream;
  constexpr int kGroups = 12;
  std::vector<std::vector<std::size_t>> groups(kGroups);
  int32_t face_total = 0;
  for (std::size_t i = 0; i < faces.size(); i += std::size_t(faces[i]) + 1) {
    int32_t count = faces[i];
    if (count >= 2 && count <= 13) groups[count - 2].push_back(i);
    ++face_total;
  }
  int32_t written = 0;
  for (auto &g : groups) written += int32_t(g.size());
  (void)face_total;
  if (!put_int(s, written) || !put_int(s, kGroups)) return 0;
  for (int g = 0; g < kGroups; ++g) {
    if (!put_int(s, g) || !put_int(s, int32_t(groups[g].size())) || !put_int(s, g + 2)) return 0;
  }
  for (int g = 0; g < kGroups; ++g) {
    for (std::size_t start : groups[g]) {
      if (!put_int(s, 0) || !put_int(s, 0)) return 0;
      for (int v = 1; v <= g + 2; ++v) {
        if (!put_int(s, state.model->nodes[faces[start + v]].id)) return 0;
      }
    }
  }
  return 1;
}

int write_global_props(WriteState &state) {
  KRXDATA *model = state.model;
  const double *c = model->centre_of_mass.data();
  const double *j = model->global_inertia.data();
  note("\nGlobal body properties:");
  note("Mass          : %lf\n", model->total_mass);
  note("Center of Mass: %lf %lf %lf", c[0], c[1], c[2]);
  note("Inertia Tensor: %lf %lf %lf", j[0], j[1], j[2]);
  note("%lf %lf %lf", j[3], j[4], j[5]);
  note("%lf %lf %lf", j[6], j[7], j[8]);
  double values[13] = {model->total_mass, c[0], c[1], c[2]};
  for (int i = 0; i < 9; ++i) values[4 + i] = j[i];
  return put_reals(state.stream, values, 13);
}

int write_eigenvalues(WriteState &state) {
  KRXDATA *model = state.model;
  note("\nEigenvalue info:\n   Modes: %ld", long(state.band_count));
  if (!put_int(state.stream, state.band_count)) return 0;
  for (int32_t j = 0; j < state.band_count; ++j) {
    const EigenRecord &e = model->eigen[state.band_start + j];
    const double values[5] = {e.eigenvalue, e.hertz, e.radians, e.generalized_mass,
                              e.generalized_stiffness};
    if (!put_int(state.stream, j + 1) || !put_reals(state.stream, values, 5)) return 0;
  }
  return 1;
}

// Blocks 8, 18 and 29: the node list, then one record per exported mode. Mode shapes list every
// node; stresses and strains the kind's node list (sparse) or every node with zeros where a node
// has no value (dense). The statistics are filled on the way.
int write_mode_vectors(WriteState &state, int kind) {
  KRXDATA *model = state.model;
  KrxStream &s = state.stream;
  bool dense = kind == kModeShapes || state.dense_stress;
  std::vector<int32_t> ids = node_ids(model);
  std::vector<int32_t> slot_of;  // dense stresses: the kind's slot per node position, -1 for none
  if (kind != kModeShapes) {
    const std::vector<int32_t> &list = model->store[kind].nodes;
    if (dense) {
      slot_of.assign(model->nodes.size(), -1);
      for (std::size_t k = 0; k < list.size(); ++k) {
        if (list[k] >= 0 && list[k] < int32_t(slot_of.size())) slot_of[list[k]] = int32_t(k);
      }
    } else {
      ids.clear();
      for (int32_t p : list) ids.push_back(model->nodes[p].id);
    }
  }
  static const char *headers[3] = {"\nTrans Mode info:\n   Modes: %ld\n   Nodes: %ld",
                                   "\nStress Mode info:\n   Modes: %ld\n   Nodes: %ld",
                                   "\nStrain Mode info:\n   Modes: %ld\n   Nodes: %ld"};
  note(headers[kind], long(state.band_count), long(ids.size()));
  if (kind == kModeShapes) note("\nWriting Mode Shapes");
  if (!put_int(s, state.band_count) || !put_int(s, int32_t(ids.size())) ||
      !put_ints(s, ids.data(), ids.size())) {
    return 0;
  }
  static const char *zero_texts[3] = {"The mode shape for mode %d has only zero entries\n",
                                      "The modal stresses for mode %d have only zero entries\n",
                                      "The modal strains for mode %d have only zero entries\n"};
  std::vector<double> record(ids.size() * 6);
  for (int32_t j = 0; j < state.band_count; ++j) {
    if (!load_mode_record_by_index(model, state.band_start + j, kind)) return 0;
    const std::vector<double> &held = model->store[kind].record;
    for (std::size_t n = 0; n < ids.size(); ++n) {
      std::size_t from = n;
      if (!slot_of.empty()) {
        if (slot_of[n] < 0) {
          std::fill_n(&record[6 * n], 6, 0.0);
          continue;
        }
        from = std::size_t(slot_of[n]);
      }
      for (int c = 0; c < 6; ++c) {
        record[6 * n + c] = 6 * from + c < held.size() ? held[6 * from + c] : 0.0;
      }
    }
    bool all_zero = true;
    for (std::size_t n = 0; n < ids.size(); ++n) {
      const double *v = &record[6 * n];
      if (v[0] || v[1] || v[2] || v[3] || v[4] || v[5]) all_zero = false;
      if (j < int32_t(model->statistics.size())) update_statistics(model->statistics[j], kind, ids[n], v);
    }
    if (all_zero) warning(zero_texts[kind], j + 1);
    if (state.generation != 10 && !put_int(s, j + 1)) return 0;
    if (!put_reals(s, record.data(), record.size())) return 0;
  }
  return 1;
}

int write_nodal_masses(WriteState &state) {
  KRXDATA *model = state.model;
  KrxStream &s = state.stream;
  if (!put_int(s, int32_t(model->nodes.size())) || !put_int(s, 1)) return 0;
  int massless = 0;
  // The results of the per-node writes are not checked; the loop goes on regardless (kept so).
  for (const NodeRecord &node : model->nodes) {
    if (node.mass == 0.0) ++massless;
    put_int(s, node.id);
    put_reals(s, &node.mass, 1);
  }
  if (massless) warning("Found %d massless node(s)", massless);
  return 1;
}

int write_nodal_inertias(WriteState &state) {
  KRXDATA *model = state.model;
  KrxStream &s = state.stream;
  static const char rows[6] = {4, 5, 6, 4, 4, 5}, columns[6] = {4, 5, 6, 5, 6, 6};
  int32_t entries = 0;
  for (const NodeRecord &node : model->nodes) {
    if (!node.inertia) continue;
    for (double v : *node.inertia) entries += v != 0.0;
  }
  note("\nNodal inertia info:\n   Sparse matrix entries: %ld", long(entries));
  if (!put_int(s, entries)) return 0;
  for (const NodeRecord &node : model->nodes) {
    if (!node.inertia) continue;
    for (int c = 0; c < 6; ++c) {
      double v = (*node.inertia)[c];
      if (v == 0.0) continue;
      if (!put_int(s, node.id) || !put_chars(s, &rows[c], 1) || !put_chars(s, &columns[c], 1) ||
          !put_reals(s, &v, 1)) {
        return 0;
      }
    }
  }
  return 1;
}

int write_units(WriteState &state) {
  char names[4][16] = {};
  get_unit_names(state.model, names[0], names[1], names[2], names[3]);
  note("\nUnits:\n   Mass:   %s\n   Length: %s\n   Time:   %s\n   Force:  %s", names[0], names[1],
       names[2], names[3]);
  for (auto &name : names) {
    if (!put_chars(state.stream, name, 16)) return 0;
  }
  return 1;
}

// Blocks 12, 13 and 15: the non-zero entries over the exported modes, 1-based among them.
int write_generalized(WriteState &state, const std::vector<MatrixEntry> &entries) {
  int32_t first = state.band_start, count = state.band_count;
  std::vector<int32_t> rows, columns;
  std::vector<double> values;
  std::vector<double> dense = dense_matrix(entries, first + count);
  for (int32_t r = 0; r < count; ++r) {
    for (int32_t c = 0; c < count; ++c) {
      double v = dense[std::size_t(first + r) * (first + count) + first + c];
      if (v == 0.0) continue;
      rows.push_back(r + 1);
      columns.push_back(c + 1);
      values.push_back(v);
    }
  }
  KrxStream &s = state.stream;
  if (!put_int(s, int32_t(values.size())) || !put_int(s, count)) return 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (!put_int(s, rows[i]) || !put_int(s, columns[i]) || !put_reals(s, &values[i], 1) ||
        !put_int(s, 1)) {
      return 0;
    }
  }
  return 1;
}

int write_element_faces(WriteState &state) {
  KRXDATA *model = state.model;
  KrxStream &s = state.stream;
  int32_t words = int32_t(model->faces.size());
  int32_t faces = 0;
  std::vector<int32_t> list = model->faces;
  // The face list holds node positions in memory and node ids in the file.
  for (std::size_t i = 0; i < list.size(); i += std::size_t(model->faces[i]) + 1) {
    ++faces;
    for (int32_t v = 1; v <= model->faces[i] && i + v < list.size(); ++v) {
      list[i + v] = model->nodes[model->faces[i + v]].id;
    }
  }
  if (!put_int(s, 4 * words + 16) || !put_int(s, 0) || !put_int(s, faces) || !put_int(s, words) ||
      !put_ints(s, list.data(), list.size())) {
    return 0;
  }
  note("\nNumber of Element Faces: %d", faces);
  return 1;
}

// The model's whole n x n transformation, over the host's mode numbers.
int write_transformation(WriteState &state) {
  KRXDATA *model = state.model;
  std::vector<int32_t> numbers = model->transformation_modes;
  int32_t n = int32_t(std::sqrt(double(model->transformation.size())) + 0.5);
  if (int32_t(numbers.size()) != n) numbers.assign(model->modes.begin(), model->modes.begin() + std::min<std::size_t>(n, model->modes.size()));
  numbers.resize(std::size_t(n), 0);
  KrxStream &s = state.stream;
  return put_int(s, n) && put_ints(s, numbers.data(), numbers.size()) &&
         put_reals(s, model->transformation.data(), std::size_t(n) * n);
}

int write_interface_nodes(WriteState &state) {
  std::vector<int32_t> ids;
  for (int32_t p : state.model->interface_nodes) ids.push_back(state.model->nodes[p].id);
  return put_int(state.stream, int32_t(ids.size())) && put_ints(state.stream, ids.data(), ids.size());
}

int32_t invariant_modes(const WriteState &state) { return state.band_count; }

// Invariants hold one value group per retained mode; the exported band is written.
int write_invariant(WriteState &state, int number) {
  KRXDATA *model = state.model;
  KrxStream &s = state.stream;
  int32_t m = invariant_modes(state), first = state.band_start;
  int32_t held = int32_t(model->invariant3.size() / 3);
  switch (number) {
    case 1: {
      double v = invariant1(model);
      return put_reals(s, &v, 1);
    }
    case 2: {
      std::vector<double> v = invariant2(model);
      v.resize(3, 0.0);
      return put_reals(s, v.data(), 3);
    }
    case 3:
    case 4: {
      std::vector<double> v = number == 3 ? invariant3(model) : invariant4(model);
      int32_t total = int32_t(v.size() / 3);
      std::vector<double> out(std::size_t(3) * m, 0.0);
      for (int c = 0; c < 3; ++c) {
        for (int32_t j = 0; j < m && first + j < total; ++j) out[c * m + j] = v[c * total + first + j];
      }
      return put_int(s, m) && put_reals(s, out.data(), out.size());
    }
    case 5: {
      if (!put_int(s, m)) return 0;
      for (int32_t j = 0; j < m; ++j) {
        std::vector<double> v = invariant5(model, first + j);
        int32_t total = held > 0 ? held : int32_t(v.size() / 3);
        std::vector<double> out(std::size_t(3) * m, 0.0);
        for (int c = 0; c < 3; ++c) {
          for (int32_t k = 0; k < m && first + k < total && std::size_t(c * total + first + k) < v.size(); ++k) {
            out[c * m + k] = v[c * total + first + k];
          }
        }
        if (!put_reals(s, out.data(), out.size())) return 0;
      }
      return 1;
    }
    case 7: {
      std::vector<double> v = invariant7(model);
      v.resize(9, 0.0);
      return put_reals(s, v.data(), 9);
    }
    case 8: {
      if (!put_int(s, m)) return 0;
      for (int32_t j = 0; j < m; ++j) {
        std::vector<double> v = invariant8(model, first + j);
        v.resize(9, 0.0);
        if (!put_reals(s, v.data(), 9)) return 0;
      }
      return 1;
    }
    default: {
      if (!put_int(s, m)) return 0;
      for (int32_t j = 0; j < m; ++j) {
        for (int32_t k = 0; k < m; ++k) {
          std::vector<double> v = invariant9(model, first + j, first + k);
          v.resize(9, 0.0);
          if (!put_reals(s, v.data(), 9)) return 0;
        }
      }
      return 1;
    }
  }
}

std::vector<double> band_values(const WriteState &state, const std::vector<double> &values) {
  std::vector<double> out(std::size_t(state.band_count), 0.0);
  for (int32_t j = 0; j < state.band_count; ++j) {
    std::size_t i = std::size_t(state.band_start + j);
    if (i < values.size()) out[j] = values[i];
  }
  return out;
}

int write_preload(WriteState &state) {
  std::vector<double> v = band_values(state, state.model->preload);
  KrxStream &s = state.stream;
  return put_int(s, state.band_count) && put_int(s, state.model->preload_extra) &&
         put_reals(s, v.data(), v.size());
}

int write_modal_loads(WriteState &state) {
  KRXDATA *model = state.model;
  KrxStream &s = state.stream;
  if (!put_int(s, state.band_count) || !put_int(s, int32_t(model->load_cases.size()))) return 0;
  for (const LoadCase &load : model->load_cases) {
    char label[256] = {};
    std::strncpy(label, load.label.c_str(), 255);
    std::vector<double> v = band_values(state, load.values);
    if (!put_chars(s, label, 256) || !put_int(s, load.applied) || !put_reals(s, v.data(), v.size())) {
      return 0;
    }
  }
  return 1;
}

int write_statistics(WriteState &state) {
  KRXDATA *model = state.model;
  KrxStream &s = state.stream;
  if (!put_int(s, int32_t(model->statistics.size()))) return 0;
  for (const ModalStatistics &stats : model->statistics) {
    if (!put_ints(s, stats.ints.data(), 13) || !put_reals(s, stats.reals.data(), 13)) return 0;
  }
  return 1;
}

int write_pre_values(WriteState &state, int kind) {
  const std::vector<double> &values = kind == kModalStress ? state.model->pre_stress : state.model->pre_strain;
  int32_t n = int32_t(values.size() / 6);
  note(kind == kModalStress ? "\nPre-Stress info:\n   Nodes: %ld" : "\nPre-Strain info:\n   Nodes: %ld",
       long(n));
  return put_int(state.stream, n) && put_reals(state.stream, values.data(), std::size_t(n) * 6);
}

struct BlockRule {
  int flag;
  const char *failure;
};

// Block number to content flag and failure message; blocks 1 to 3 are written by the pipeline.
const BlockRule &rule_of(int block) {
  static const BlockRule rules[kBlockCount + 1] = {
      {-1, ""}, {-1, ""}, {-1, ""}, {-1, ""},
      {kFlagNodalCoords, "Problem writing nodal coordinates.\n"},
      {kFlagElementTopology, "Problem writing element topology map."},
      {kFlagGlobalBodyProps, "Problem writing Global Body Properties."},
      {kFlagEigenvalues, "Problem writing eigenvalues."},
      {kFlagModeShapes, "Problem writing Mode Shapes."},
      {kFlagNodalMasses, "Problem writing Nodal Masses.\n"},
      {kFlagNodalInertias, "Problem writing Nodal Inertia info."},
      {kFlagUnits, "Problem writing Units strings."},
      {kFlagGeneralizedStiffness, "Problem writing Generalized Stiffness info."},
      {kFlagGeneralizedMass, "Problem writing Generalized Mass info."},
      {kFlagElementFaces, "Problem writing element face info."},
      {kFlagGeneralizedDamping, "Problem writing Generalized Damping info."},
      {kFlagModeTransformation, "Problem writing Mode Shape Transformation."},
      {kFlagInterfaceNodes, "Problem writing Interface Nodes."},
      {kFlagModalStress, "Problem writing Modal Stress.\n"},
      {kFlagInvariant1, "Problem writing Invariant 1.\n"},
      {kFlagInvariant1 + 1, "Problem writing Invariant 2.\n"},
      {kFlagInvariant1 + 2, "Problem writing Invariant 3.\n"},
      {kFlagInvariant1 + 3, "Problem writing Invariant 4.\n"},
      {kFlagInvariant1 + 4, "Problem writing Invariant 5.\n"},
      {kFlagInvariant7, "Problem writing Invariant 7.\n"},
      {kFlagInvariant8, "Problem writing Invariant 8.\n"},
      {kFlagInvariant9, "Problem writing Invariant 9.\n"},
      {kFlagPreload, "Problem writing Preload.\n"},
      {kFlagModalLoads, "Problem writing Modal Loads.\n"},
      {kFlagModalStrain, "Problem writing Modal Strain."},
      {kFlagModalStatistics, "Problem writing Modal Statistics.\n"},
      {kFlagPreStress, "Problem writing Pre-Stress.\n"},
      {kFlagPreStrain, "Problem writing Pre-Strain.\n"},
  };
  return rules[block];
}

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
    case 29: {
      int kind = block == 18 ? kModalStress : kModalStrain;
      assert((state.dense_stress ? !state.options.sparse_str : true) &&
             "write_dense_modes ? !trim_stress_strain : KRX_TRUE");
      return write_mode_vectors(state, kind);
    }
    case 19: case 20: case 21: case 22: case 23: return write_invariant(state, block - 18);
    case 24: case 25: case 26: return write_invariant(state, block - 17);
    case 27: return write_preload(state);
    case 28: return write_modal_loads(state);
    case 30: return write_statistics(state);
    case 31: return write_pre_values(state, kModalStress);
    default: return write_pre_values(state, kModalStrain);
  }
}

}  // namespace

int write_data_block(WriteState &state, int block) {
  const BlockRule &rule = rule_of(block);
  if (rule.flag < 0 || !state.model->flags[rule.flag]) return 1;
  if (dispatch(state, block)) return 1;
  error("%s", rule.failure);
  return 0;
}

}  // namespace krx
