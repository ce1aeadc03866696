// The listing of one block of a model as readable text.
#include "inspect/krxlist.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "base/krxmsg.h"
#include "format/krxformat.h"
#include "format/krxread.h"
#include "format/krxtoc.h"

namespace krx {
namespace {

const char *const kTitles[kBlockCount] = {
    "Version Code:", "Header:", "Content Summary:", "Nodal Coords:", "Element Topology:",
    "Global Body Properties:", "Eigenvalues:", "Mode Shapes:", "Nodal Masses:", "Nodal Inertias:",
    "KRX Default Units:", "Generalized Stiffness:", "Generalized Mass:", "Element Faces:",
    "Generalized Damping:", "Mode Shape Transformation:", "Interface Nodes:", "Node Stress per Mode:",
    "Invariant 1:", "Invariant 2:", "Invariant 3:", "Invariant 4:", "Invariant 5:", "Invariant 7:",
    "Invariant 8:", "Invariant 9:", "Modal Preload:", "Modal Loads:", "Node Strain per Mode:",
    "Modal Statistics:", "Nodal Pre-Stress:", "Nodal Pre-Strain:"};

// There is deliberately no invariant 6 among the blocks.
const char *const kLabels[kBlockCount] = {
    "Version code (1)", "Header (2)", "Content_summary (3)", "Nodal_coords (4)",
    "Element_topology (5)", "Global_body_props (6)", "Eigenvalues (7)", "Mode_shapes (8)",
    "Nodal_masses (9)", "Nodal_inertias (10)", "Units (11)", "Generalized_stiffness (12)",
    "Generalized_mass (13)", "Element_faces (14)", "Generalized_damping (15)",
    "Mode_Shape_Transformation (16)", "Interface_Nodes (17)", "Modal Stress (18)",
    "Invariants 1 (19)", "Invariants 2 (20)", "Invariants 3 (21)", "Invariants 4 (22)",
    "Invariants 5 (23)", "Invariants 7 (24)", "Invariants 8 (25)", "Invariants 9 (26)",
    "Modal Preload (27)", "Modal Loads (28)", "Modal Strain (29)", "Modal Statistics (30)",
    "Nodal Pre-Stress (31)", "Nodal Pre-Strain (32)"};

const char *const kStressColumns =
    " ID        sigma_x          sigma_y          sigma_z           tau_xy           tau_xz           tau_yz\n";
const char *const kStrainColumns =
    " ID      epsilon_x        epsilon_y        epsilon_z         gamma_xy         gamma_xz         gamma_yz\n";

void banner(FILE *out, int block) {
  std::fprintf(out, "\n\n");
  std::fprintf(out, "--------------------------------------------------------------------------\n");
  std::fprintf(out, "|                                                                        |\n");
  std::fprintf(out, "|    Block %3d:      %-30s                      |\n", block, kTitles[block - 1]);
  std::fprintf(out, "|                                                                        |\n");
  std::fprintf(out, "--------------------------------------------------------------------------\n");
  std::fprintf(out, "\n\n");
}

void tilde_line(FILE *out) {
  std::fprintf(out, "%s\n\n", std::string(108, '~').c_str());
}

int32_t mode_number_at(const KRXDATA &model, int32_t index) {
  return index >= 0 && index < int32_t(model.modes.size()) ? model.modes[index] : index + 1;
}

// Node positions in increasing id order.
std::vector<int32_t> nodes_by_id(KRXDATA &model) {
  std::vector<int32_t> order;
  if (model.nodes.empty()) return order;
  index_nodes(model);
  auto pairs = sorted_ids(model.node_index);
  order.reserve(pairs.size());
  for (const auto &pair : pairs) order.push_back(pair.second);
  return order;
}

void list_version(KRXDATA &m, FILE *out) {
  std::fprintf(out, "KRX version:%4.1f\n", version_generation(m.version) / 10.0);
  std::fprintf(out, "Precision: %s   \n", version_is_single(m.version) ? "Single" : "Double");
  std::fprintf(out, "Platform independent (XDR encoded): %s \n\n", version_is_xdr(m.version) ? "Yes" : "No");
}

void list_header(KRXDATA &m, FILE *out) {
  std::fprintf(out, "Title: %s\n", m.title.data());
  std::fprintf(out, "Date: %s\n", m.date.data());
  std::fprintf(out, "Input file name: %s\n", m.input_name.data());
  std::fprintf(out, "Input file type: %s\n", m.input_type.data());
  std::fprintf(out, "Comments:\n");
  for (const auto &c : m.comments) std::fprintf(out, "  %s\n", c.data());
  std::fprintf(out, "\n");
}

void list_contents(KRXDATA &m, FILE *out) {
  std::fprintf(out, "Existence:\n");
  for (int i = 0; i < kBlockCount; ++i)
    std::fprintf(out, "%30s %s\n", kLabels[i], block_present(&m, i) ? "Yes" : "No");
}

void list_coords(KRXDATA &m, FILE *out) {
  for (int32_t at : nodes_by_id(m)) {
    const NodeRecord &n = m.nodes[at];
    std::fprintf(out, "%4d ", n.id);
    std::fprintf(out, "%20.10le %20.10le %20.10le ", n.x, n.y, n.z);
    std::fprintf(out, "\n");
  }
  std::fprintf(out, "\n");
}

void list_global(KRXDATA &m, FILE *out) {
  if (!block_present(&m, 5)) {
    std::fprintf(out, "No global body property information\n");
    return;
  }
  const auto &c = m.centre_of_mass;
  const auto &t = m.global_inertia;
  std::fprintf(out, "Mass: %lf\n", m.total_mass);
  std::fprintf(out, "Center of Mass: %lf %lf %lf\n", c[0], c[1], c[2]);
  std::fprintf(out, "Inertia Tensor: %lf %lf %lf\n", t[0], t[1], t[2]);
  std::fprintf(out, "                %lf %lf %lf\n", t[3], t[4], t[5]);
  std::fprintf(out, "                %lf %lf %lf\n", t[6], t[7], t[8]);
}

void list_eigen(KRXDATA &m, FILE *out) {
  if (m.eigen.empty()) {
    std::fprintf(out, "No eigenvalue information\n");
    return;
  }
  std::fprintf(out, "  mode   eigenvalue          Hertz            radians           Gen. Mass.       Gen. Stiff.   \n");
  std::fprintf(out, "%s\n", std::string(93, '=').c_str());
  for (const EigenRecord &r : m.eigen)
    std::fprintf(out, "%5d %17.10le %17.10le %17.10le %17.10le %17.10le\n", r.number, r.eigenvalue,
                 r.hertz, r.radians, r.generalized_mass, r.generalized_stiffness);
}

// Rows of a vector kind in increasing node-id order, with the slot of each row.
std::vector<std::pair<int32_t, int32_t>> kind_rows(KRXDATA &m, int kind) {
  std::vector<std::pair<int32_t, int32_t>> rows;
  const VectorSlot &slot = m.store[kind];
  if (kind == kModeShapes) {
    for (int32_t at : nodes_by_id(m))
      if (at < int32_t(slot.nodes.size())) rows.emplace_back(m.nodes[at].id, at);
  } else {
    rows = sorted_ids(slot.index);
  }
  return rows;
}

void list_modes(KRXDATA &m, FILE *out) {
  int32_t count = int32_t(m.modes.size());
  if (count == 0 || m.nodes.empty()) return;
  std::fprintf(out, "Number of Mode Shapes %d\n", count);
  auto rows = kind_rows(m, kModeShapes);
  std::vector<double> v;
  for (int32_t r = 0; r < count; ++r) {
    std::fprintf(out, "\nMODE NUMBER %d=================================\n\n", m.modes[r]);
    std::fprintf(out, " ID             dx               dy               dz               ax               ay               az\n");
    tilde_line(out);
    if (!read_mode_values(&m, kModeShapes, r, v)) continue;
    for (const auto &[id, slot] : rows) {
      const double *p = &v[std::size_t(slot) * 6];
      std::fprintf(out, "%5d ", id);
      std::fprintf(out, " % 16.9e % 16.9e % 16.9e", p[0], p[1], p[2]);
      std::fprintf(out, " % 16.9e % 16.9e % 16.9e\n", p[3], p[4], p[5]);
    }
  }
}

void stress_row(FILE *out, int32_t id, const double *p) {
  std::fprintf(out, "%5d ", id);
  std::fprintf(out, "%16.9e %16.9e %16.9e", p[0], p[1], p[2]);
  std::fprintf(out, "%16.9e %16.9e %16.9e\n", p[3], p[4], p[5]);
}

void list_stress(KRXDATA &m, int kind, FILE *out) {
  bool stress = kind == kModalStress;
  if (!m.store[kind].opened) {
    std::fprintf(out, stress ? "\tNo Modal Stress Information\n\n" : "\tNo Modal Strain Information\n\n");
    return;
  }
  int32_t count = int32_t(m.modes.size());
  std::fprintf(out, stress ? "Number of Stress Shapes %d\n" : "Number of Strain Shapes %d\n", count);
  auto rows = kind_rows(m, kind);
  std::vector<double> v;
  for (int32_t r = 0; r < count; ++r) {
    std::fprintf(out, stress ? "\nSTRESS SHAPE NUMBER %d=================================\n\n"
                             : "\nSTRAIN SHAPE NUMBER %d=================================\n\n",
                 m.modes[r]);
    std::fprintf(out, "%s", stress ? kStressColumns : kStrainColumns);
    tilde_line(out);
    if (!read_mode_values(&m, kind, r, v)) continue;
    for (const auto &[id, slot] : rows) stress_row(out, id, &v[std::size_t(slot) * 6]);
  }
}

void list_masses(KRXDATA &m, FILE *out) {
  for (int32_t at : nodes_by_id(m)) std::fprintf(out, "%4d\t%le\n", m.nodes[at].id, m.nodes[at].mass);
}

void list_inertias(KRXDATA &m, FILE *out) {
  bool any = false;
  for (int32_t at : nodes_by_id(m)) {
    const NodeRecord &n = m.nodes[at];
    if (!n.inertia) continue;
    any = true;
    const auto &i = *n.inertia;  // I11, I22, I33, I12, I13, I23
    std::fprintf(out, "Inertia Tensor of Node %5d: %lf %lf %lf\n", n.id, i[0], i[3], i[4]);
    std::fprintf(out, "                              %lf %lf %lf\n", i[3], i[1], i[5]);
    std::fprintf(out, "                              %lf %lf %lf\n", i[4], i[5], i[2]);
  }
  if (!any) std::fprintf(out, "\tNo Nodal Inertia information.\n");
}

void list_units(KRXDATA &m, FILE *out) {
  auto name = [](const std::array<char, 16> &unit, const char *fallback) {
    return unit[0] ? unit.data() : fallback;
  };
  std::fprintf(out, "Units:\n");
  std::fprintf(out, "Mass Units    %s\n", name(m.mass_unit, "KILOGRAM"));
  std::fprintf(out, "Length Units  %s\n", name(m.length_unit, "METER"));
  std::fprintf(out, "Time Units    %s\n", name(m.time_unit, "SECOND"));
  std::fprintf(out, "Force Units   %s\n", name(m.force_unit, "NEWTON"));
}

void list_matrix(KRXDATA &m, const std::vector<MatrixEntry> &list, bool by_number, const char *none, FILE *out) {
  if (list.empty()) {
    std::fprintf(out, "%s", none);
    return;
  }
  for (const MatrixEntry &e : list) {
    int32_t row = by_number ? mode_number_at(m, e.row) : e.row + 1;
    int32_t column = by_number ? mode_number_at(m, e.column) : e.column + 1;
    std::fprintf(out, "%5d   %5d   %20.10le\n", row, column, e.value);
  }
}

void list_faces(KRXDATA &m, FILE *out) {
  std::fprintf(out, "number of faces %d\n\n", m.face_count);
  int32_t face = 0;
  for (std::size_t i = 0; i < m.faces.size();) {
    int32_t n = m.faces[i++];
    if (n < 0 || std::size_t(n) > m.faces.size() - i) break;
    std::fprintf(out, "  %5d      ", ++face);
    for (int32_t v = 0; v < n; ++v) {
      int32_t at = m.faces[i + v];
      std::fprintf(out, "%7d", at >= 0 && at < int32_t(m.nodes.size()) ? m.nodes[at].id : at);
    }
    std::fprintf(out, "\n");
    i += std::size_t(n);
  }
}

void list_damping(KRXDATA &m, FILE *out) {
  if (m.damping_projected)
    std::fprintf(out, "Note:\tThe generalized damping matrix has been projected onto principal\n\tcoordinates.  "
                      "The first 6 rows and columns correspond PELIX\n\tprincipal rigid body degrees of freedom.  "
                      "The remaining rows\n\tand columns correspond to flexible modes.\n\n");
  else
    std::fprintf(out, "Note:\tThe generalized damping matrix has not been projected onto\n\tprincipal coordinates.  "
                      "Rows and columns correspond to rigid body\n\tand flexible modes.\n\n");
  list_matrix(m, m.damping, false, "No generalized damping information in KRX.\n", out);
}

void list_transformation(KRXDATA &m, FILE *out) {
  std::size_t n = m.transformation_modes.size();
  if (m.transformation.empty() || m.transformation.size() < n * n) {
    std::fprintf(out, "\tNo Mode Shape Transformation, modes used as is.\n\n");
    return;
  }
  std::fprintf(out, "Number of modes: %d\n\n", int(n));
  for (std::size_t r = 0; r < n; ++r) {
    for (std::size_t c = 0; c < n; ++c) std::fprintf(out, "%10.5le ", m.transformation[r * n + c]);
    std::fprintf(out, "\n");
  }
}

void list_interface(KRXDATA &m, FILE *out) {
  int32_t ordinal = 0;
  for (int32_t at : m.interface_nodes)
    std::fprintf(out, "%4d %4d \n", ++ordinal, at >= 0 && at < int32_t(m.nodes.size()) ? m.nodes[at].id : at);
}

// Invariant values of a block: from the file the model was read from, else the model's cache.
std::vector<double> invariant_values(KRXDATA &m, int block) {
  std::vector<double> v;
  if (m.read_from_file) {
    if (!read_invariant_values(&m, block, v)) v.clear();
    return v;
  }
  switch (block) {
    case 19: if (m.has_invariant1) v.push_back(m.invariant1); break;
    case 20: v = m.invariant2; break;
    case 21: v = m.invariant3; break;
    case 22: v = m.invariant4; break;
    case 23: v = m.invariant5; break;
    case 24: v = m.invariant7; break;
    case 25: v = m.invariant8; break;
    case 26: v = m.invariant9; break;
  }
  return v;
}

void three_rows(FILE *out, const double *p) {
  for (int r = 0; r < 3; ++r) std::fprintf(out, "%18.10le%18.10le%18.10le \n", p[3 * r], p[3 * r + 1], p[3 * r + 2]);
}

void list_invariant(KRXDATA &m, int block, FILE *out) {
  std::vector<double> v = invariant_values(m, block);
  const std::size_t M = m.modes.size();
  switch (block) {
    case 19:
      std::fprintf(out, "\t%f \n\n", v.empty() ? 0.0 : v[0]);
      return;
    case 20:
      if (v.size() < 3) std::fprintf(out, "\tNo Invariant 2 information\n\n");
      else std::fprintf(out, "\t%f\t%f\t%f \n\n", v[0], v[1], v[2]);
      return;
    case 21:
    case 22:
      if (M == 0 || v.size() < 3 * M) {
        std::fprintf(out, block == 21 ? "\tNo Invariant 3 information\n\n" : "\tNo Invariant 4 information\n\n");
        return;
      }
      for (std::size_t j = 0; j < M; ++j)
        std::fprintf(out, "%5d, %18.10le%18.10le%18.10le \n", mode_number_at(m, int32_t(j)), v[j], v[M + j], v[2 * M + j]);
      return;
    case 23:
      for (std::size_t j = 0; j < M; ++j) {
        if (v.size() < 3 * M * M) {
          std::fprintf(out, "\tNo Invariant 5 information for mode %d.\n\n", mode_number_at(m, int32_t(j)));
          continue;
        }
        std::fprintf(out, "\nMode: %d \n", mode_number_at(m, int32_t(j)));
        const double *a = &v[j * 3 * M];
        for (std::size_t k = 0; k < M; ++k)
          std::fprintf(out, "%5d, %18.10le%18.10le%18.10le \n", mode_number_at(m, int32_t(k)), a[k], a[M + k], a[2 * M + k]);
      }
      return;
    case 24:
      if (v.size() < 9) std::fprintf(out, "\tNo Invariant 7 information.\n\n");
      else three_rows(out, v.data());
      return;
    case 25:
      for (std::size_t j = 0; j < M; ++j) {
        if (v.size() < 9 * M) {
          std::fprintf(out, "\tNo Invariant 8 information for mode %d.\n\n", mode_number_at(m, int32_t(j)));
          continue;
        }
        std::fprintf(out, "\nMode: %d\n", mode_number_at(m, int32_t(j)));
        three_rows(out, &v[9 * j]);
      }
      return;
    case 26:
      for (std::size_t j = 0; j < M; ++j)
        for (std::size_t k = 0; k < M; ++k) {
          int32_t a = mode_number_at(m, int32_t(j)), b = mode_number_at(m, int32_t(k));
          if (v.size() < 9 * M * M) {
            std::fprintf(out, "\tNo Invariant 9 information for mode pair (%d, %d).\n\n", a, b);
            continue;
          }
          std::fprintf(out, "\nModes: %d %d\n", a, b);
          three_rows(out, &v[9 * (j * M + k)]);
        }
      return;
  }
}

void list_preload(KRXDATA &m, FILE *out) {
  if (m.preload.empty()) {
    std::fprintf(out, "\tNo Preload information.\n\n");
    return;
  }
  for (std::size_t j = 0; j < m.preload.size(); ++j)
    std::fprintf(out, "\n%d %lf\n", mode_number_at(m, int32_t(j)), m.preload[j]);
}

void list_loads(KRXDATA &m, FILE *out) {
  if (m.load_cases.empty()) {
    std::fprintf(out, "\tNo Modal Load information.\n\n");
    return;
  }
  for (const LoadCase &c : m.load_cases) {
    std::fprintf(out, c.applied ? "\nCase: %s     (already projected on principal axes)\n"
                                : "\nCase: %s     (not yet projected on principal axes)\n",
                 c.label.c_str());
    if (c.values.empty()) {
      std::fprintf(out, "\tNo Modal load information for load case %s.\n\n", c.label.c_str());
      continue;
    }
    for (std::size_t j = 0; j < c.values.size(); ++j)
      std::fprintf(out, "%d %lf\n", mode_number_at(m, int32_t(j)), c.values[j]);
  }
}

// Slots 0 to 3 of a record hold the nodes of the four maxima, real slots 0 to 3 their sizes.
void list_statistics(KRXDATA &m, FILE *out) {
  if (m.statistics.empty()) {
    std::fprintf(out, "\tNo Modal Statistic Information\n\n");
    return;
  }
  std::fprintf(out, "Number of Modes %d\n", int(m.statistics.size()));
  for (std::size_t j = 0; j < m.statistics.size(); ++j) {
    const ModalStatistics &s = m.statistics[j];
    std::fprintf(out, "\nMODE NUMBER %d=================================\n\n", mode_number_at(m, int32_t(j)));
    std::fprintf(out, "Max. Trans. Magnitude:      Node ID = %d  Magnitude = %12.6e\n", s.ints[0], s.reals[0]);
    std::fprintf(out, "Max. Small Rot. Magnitude:  Node ID = %d  Magnitude = %12.6e\n", s.ints[1], s.reals[1]);
    std::fprintf(out, "Max. Von Mises Stress:      Node ID = %d  Magnitude = %12.6e\n", s.ints[2], s.reals[2]);
    std::fprintf(out, "Max. Von Mises Strain:      Node ID = %d  Magnitude = %12.6e\n", s.ints[3], s.reals[3]);
  }
}

void list_pre(KRXDATA &m, int kind, FILE *out) {
  bool stress = kind == kModalStress;
  const std::vector<double> &values = stress ? m.pre_stress : m.pre_strain;
  if (values.empty()) {
    std::fprintf(out, stress ? "\tNo Nodal Pre-Stress Information\n\n" : "\tNo Nodal Pre-Strain Information\n\n");
    return;
  }
  std::fprintf(out, "%s", stress ? kStressColumns : kStrainColumns);
  for (const auto &[id, slot] : kind_rows(m, kind))
    if (std::size_t(slot) * 6 + 6 <= values.size()) stress_row(out, id, &values[std::size_t(slot) * 6]);
}

void list_body(KRXDATA &m, int block, FILE *out) {
  switch (block) {
    case 1: return list_version(m, out);
    case 2: return list_header(m, out);
    case 3: return list_contents(m, out);
    case 4: return list_coords(m, out);
    case 5: std::fprintf(out, "Obsolete: Reported as part of face list, block 14\n"); return;
    case 6: return list_global(m, out);
    case 7: return list_eigen(m, out);
    case 8: return list_modes(m, out);
    case 9: return list_masses(m, out);
    case 10: return list_inertias(m, out);
    case 11: return list_units(m, out);
    case 12: return list_matrix(m, m.stiffness, true, "No generalized stiffness information.\n", out);
    case 13: return list_matrix(m, m.mass, true, "No generalized mass information in KRX\n", out);
    case 14: return list_faces(m, out);
    case 15: return list_damping(m, out);
    case 16: return list_transformation(m, out);
    case 17: return list_interface(m, out);
    case 18: return list_stress(m, kModalStress, out);
    case 27: return list_preload(m, out);
    case 28: return list_loads(m, out);
    case 29: return list_stress(m, kModalStrain, out);
    case 30: return list_statistics(m, out);
    case 31: return list_pre(m, kModalStress, out);
    case 32: return list_pre(m, kModalStrain, out);
    default: return list_invariant(m, block, out);
  }
}

}  // namespace

void list_block(KRXDATA *model, int block, FILE *out) {
  if (!model || !out || block < 1 || block > kBlockCount) return;
  banner(out, block);
  try {
    list_body(*model, block, out);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC("..\\krxtoc");
  }
}

}  // namespace krx
