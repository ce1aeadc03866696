// The exported entries: each turns the host's by-reference arguments into plain values, applies the
// frame and forwards to one model operation.
#include "host/krx_fortran.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "format/krxread.h"
#include "host/krxset.h"
#include "mesh/krxfaces.h"
#include "model/krxtools.h"
#include "processing/krxeigen.h"
#include "processing/krxunits.h"

namespace krx {

KRXDATA *&current_model() {
  static KRXDATA *model = nullptr;
  return model;
}

std::string trim_host_string(const char *text, int length, std::size_t field) {
  std::string buffer(field, '\0');
  std::size_t end = length < 0 ? 0 : std::min<std::size_t>(std::size_t(length), field - 1);
  // Never read past the host's field: nothing beyond the cut is kept anyway.
  if (text) {
    for (std::size_t i = 0; i < end && text[i] != '\0'; ++i) buffer[i] = text[i];
  }
  buffer[end] = '\0';
  while (end > 0 && buffer[end - 1] == ' ') buffer[--end] = '\0';
  buffer.resize(std::strlen(buffer.c_str()));
  return buffer;
}

namespace {

constexpr const char *kSource = "..\\krx_fortran";

// The face entries share one rule: 2 to 8 vertices go to the face list; any other count is
// refused with an error, yet the status says success so that the host goes on.
int set_face(KRXDATA *model, int count, const int *node_ids) {
  if (count < 2 || count > 8) {
    error("Unable to create a face with %d vertices", count);
    return 1;
  }
  return add_face(model, count, node_ids);
}

// The host's 3x3 matrices arrive column after column; element k goes to row-order position
// kToRowOrder[k].
constexpr int kToRowOrder[9] = {0, 3, 6, 1, 4, 7, 2, 5, 8};

std::array<double, 9> to_row_order(const double *column_order) {
  std::array<double, 9> rows{};
  for (int k = 0; k < 9; ++k) rows[kToRowOrder[k]] = column_order[k];
  return rows;
}

// Both halves of a node's stress or strain record: first three values, then the last three.
int read_node_record(KRXDATA *model, int mode, int node_id, int kind, double *out[6]) {
  double half0[3], half1[3];
  if (!node_values(model, mode, kind, node_id, 0, half0)) return 0;
  if (!node_values(model, mode, kind, node_id, 1, half1)) return 0;
  for (int k = 0; k < 3; ++k) {
    *out[k] = half0[k];
    *out[k + 3] = half1[k];
  }
  return 1;
}

// T (count rows, n columns, column after column) from the n x n transformation (column-major).
int transform_to_selected_modes(KRXDATA *model, double *t, const int *selected, int count) {
  const int32_t n = mode_count(model);
  if (n < 1) {
    error("Invalid mode count found at line %d in file %s.\n", 1573, kSource);
    return 0;
  }
  std::vector<double> matrix;
  try {
    matrix.assign(std::size_t(n) * std::size_t(n), 0.0);
  } catch (const std::bad_alloc &) {
    report_allocation_failure(1580, kSource);
    return 0;
  }
  int filled = fill_mode_transformation(model, matrix);
  for (int i = 0; i < count; ++i) {
    int32_t p = mode_index(model, selected[i]);
    if (p < 0) {
      error("Mode number %d does not exist.  Requested at line %d in file %s.\n", selected[i],
            __LINE__, kSource);
      return 0;
    }
    for (int32_t j = 0; j < n; ++j)
      t[std::size_t(count) * j + i] = matrix[std::size_t(n) * j + std::size_t(p)];
  }
  return filled;
}

}  // namespace

}  // namespace krx

using krx::current_model;
using krx::KRXDATA;
using krx::run_entry;

extern "C" {

KRX_API void KRX_CREATE(int *node_capacity, int *mode_capacity, int *status) {
  try {
    if (current_model()) {
      krx::release_all_models();
      current_model() = nullptr;
    }
    current_model() = krx::create_model(uint32_t(*node_capacity), *mode_capacity);
  } catch (...) {
    current_model() = nullptr;
  }
  *status = current_model() ? 0 : 1;
}

KRX_API void KRX_TERMINATE(int *status) {
  // The current model is deliberately left as it was; the host must call KRX_CREATE next.
  krx::run_entry(status, [](krx::KRXDATA *) {
    krx::release_all_models();
    return 1;
  });
}

// The unexported entry that makes a model read from a file the current model. The path is
// taken at exactly its hidden length, blanks and all.
void KRX_OPEN_KRX(const char *path, int *status, int path_len) {
  krx::run_entry(status, [&](krx::KRXDATA *) -> int {
    if (path_len < 0) {
      krx::report_allocation_failure(460, "..\\krx_fortran");
      return 0;
    }
    std::string name;
    try {
      name.assign(std::size_t(path_len) + 1, '\0');
      if (path_len > 0) std::memcpy(name.data(), path, std::size_t(path_len));
    } catch (const std::bad_alloc &) {
      krx::report_allocation_failure(460, "..\\krx_fortran");
      return 0;
    }
    krx::KRXDATA *model = krx::find_or_read_model(name.c_str());
    if (!model) return 0;
    krx::current_model() = model;
    return 1;
  });
}

// Exported setters.

KRX_API void KRX_SET_HEADER(const char *title, const char *input_name, const char *input_type,
                            const char *comment1, const char *comment2, const char *comment3,
                            int *status, int title_len, int input_name_len, int input_type_len,
                            int comment1_len, int comment2_len, int comment3_len) {
  run_entry(status, [&](KRXDATA *model) {
    std::string texts[6] = {krx::trim_host_string(title, title_len, 128),
                            krx::trim_host_string(input_name, input_name_len, 128),
                            krx::trim_host_string(input_type, input_type_len, 16),
                            krx::trim_host_string(comment1, comment1_len, 80),
                            krx::trim_host_string(comment2, comment2_len, 80),
                            krx::trim_host_string(comment3, comment3_len, 80)};
    return krx::set_header(model, texts[0].data(), texts[1].data(), texts[2].data(),
                           texts[3].data(), texts[4].data(), texts[5].data());
  });
}

KRX_API void KRX_SET_NODE_COORDINATES_VEC(int *node_id, double *xyz, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::set_node_coordinates(model, *node_id, xyz[0], xyz[1], xyz[2]);
  });
}

KRX_API void KRX_SET_NODAL_MASS(int *node_id, double *mass, int *status) {
  run_entry(status, [&](KRXDATA *model) { return krx::set_nodal_mass(model, *node_id, *mass); });
}

KRX_API void KRX_SET_NODAL_INERTIA(int *node_id, double *i11, double *i22, double *i33,
                                   double *i12, double *i13, double *i23, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const double inertia[6] = {*i11, *i22, *i33, *i12, *i13, *i23};
    return krx::set_nodal_inertia(model, *node_id, inertia);
  });
}

KRX_API void KRX_SET_MODE_SHAPE_VEC(int *mode, int *node_id, double *values, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::store_node_vector(model, *mode, *node_id, krx::kModeShapes, values);
  });
}

KRX_API void KRX_SET_MODAL_STRESS_VEC(int *mode, int *node_id, double *values, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::store_node_vector(model, *mode, *node_id, krx::kModalStress, values);
  });
}

KRX_API void KRX_SET_MODAL_STRAIN_VEC(int *mode, int *node_id, double *values, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::store_node_vector(model, *mode, *node_id, krx::kModalStrain, values);
  });
}

KRX_API void KRX_SET_GENERALIZED_MASS(int *row_mode, int *col_mode, double *value, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::set_generalized_mass(model, *row_mode, *col_mode, *value);
  });
}

KRX_API void KRX_SET_GENERALIZED_STIFFNESS(int *row_mode, int *col_mode, double *value,
                                           int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::set_generalized_stiffness(model, *row_mode, *col_mode, *value);
  });
}

KRX_API void KRX_SET_INTERFACE_NODE(int *node_id, int *status) {
  run_entry(status, [&](KRXDATA *model) { return krx::set_interface_node(model, *node_id); });
}

KRX_API void KRX_SET_FACE(int *vertex_count, int *node_ids, int *status) {
  run_entry(status, [&](KRXDATA *model) { return krx::set_face(model, *vertex_count, node_ids); });
}

KRX_API void KRX_UNITS_SI_MULTIPLIERS(double *mass, double *length, double *time, double *force,
                                      int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::set_units_by_multipliers(model, *mass, *length, *time, *force);
  });
}

// Unexported entries of the family: same frame, hidden from the dynamic symbol table.

void KRX_SET_NODE_COORDINATES(int *node_id, double *x, double *y, double *z, int *status) {
  run_entry(status,
            [&](KRXDATA *model) { return krx::set_node_coordinates(model, *node_id, *x, *y, *z); });
}

void KRX_SET_GLOBAL_MASS(double *mass, double *centre, double *inertia, int *status) {
  run_entry(status,
            [&](KRXDATA *model) { return krx::set_global_mass(model, *mass, centre, inertia); });
}

void KRX_SET_NODAL_INERTIA_TERM(int *node_id, int *row, int *column, double *value, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::set_nodal_inertia_term(model, *node_id, *row, *column, *value);
  });
}

void KRX_SET_NODAL_INERTIA_VEC(int *node_id, double *values, int *status) {
  run_entry(status,
            [&](KRXDATA *model) { return krx::set_nodal_inertia(model, *node_id, values); });
}

void KRX_SET_NODAL_INERTIA_MAT(int *node_id, double *matrix, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const double *m = matrix;
    if (m[1] != m[3] || m[2] != m[6] || m[5] != m[7])
      krx::warning("Unsymmetric Inertia Tensor supplied to KRX_SET_NODAL_INERTIA_MAT");
    // The host's column order: the values below the diagonal are the ones used.
    const double inertia[6] = {m[0], m[4], m[8], m[1], m[2], m[5]};
    return krx::set_nodal_inertia(model, *node_id, inertia);
  });
}

void KRX_SET_MODE_SHAPE(int *mode, int *node_id, double *v1, double *v2, double *v3, double *v4,
                        double *v5, double *v6, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const double values[6] = {*v1, *v2, *v3, *v4, *v5, *v6};
    return krx::store_node_vector(model, *mode, *node_id, krx::kModeShapes, values);
  });
}

void KRX_SET_MODE_SHAPE_DOF(int *mode, int *node_id, int *dof, double *value, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::store_node_value(model, *mode, *node_id, krx::kModeShapes, *dof - 1, *value);
  });
}

void KRX_SET_MODAL_STRESS(int *mode, int *node_id, double *v1, double *v2, double *v3,
                          double *v4, double *v5, double *v6, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const double values[6] = {*v1, *v2, *v3, *v4, *v5, *v6};
    return krx::store_node_vector(model, *mode, *node_id, krx::kModalStress, values);
  });
}

void KRX_SET_MODAL_STRAIN(int *mode, int *node_id, double *v1, double *v2, double *v3,
                          double *v4, double *v5, double *v6, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const double values[6] = {*v1, *v2, *v3, *v4, *v5, *v6};
    return krx::store_node_vector(model, *mode, *node_id, krx::kModalStrain, values);
  });
}

void KRX_SET_MODAL_LOAD(int *load_case, int *mode, double *value, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::set_modal_load(model, *load_case - 1, *mode, *value);
  });
}

void KRX_SET_MODAL_LOAD_LABEL(int *load_case, const char *label, int *status, int label_len) {
  run_entry(status, [&](KRXDATA *model) {
    std::string text = krx::trim_host_string(label, label_len, 256);
    return krx::set_modal_load_label(model, *load_case - 1, text.c_str());
  });
}

void KRX_SET_MODAL_PRELOAD(int *mode, double *value, int *status) {
  run_entry(status, [&](KRXDATA *model) { return krx::set_modal_preload(model, *mode, *value); });
}

void KRX_SET_GENERALIZED_DAMPING(int *row_mode, int *col_mode, double *value, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    return krx::set_generalized_damping(model, *row_mode, *col_mode, *value);
  });
}

void KRX_SET_UNITS(const char *mass, const char *length, const char *time, const char *force,
                   int *status, int mass_len, int length_len, int time_len, int force_len) {
  run_entry(status, [&](KRXDATA *model) {
    std::string names[4] = {krx::trim_host_string(mass, mass_len, 16),
                            krx::trim_host_string(length, length_len, 16),
                            krx::trim_host_string(time, time_len, 16),
                            krx::trim_host_string(force, force_len, 16)};
    return krx::set_units_by_names(model, names[0].c_str(), names[1].c_str(), names[2].c_str(),
                                   names[3].c_str());
  });
}

void KRX_SET_FACE2(int *n1, int *n2, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const int ids[] = {*n1, *n2};
    return krx::set_face(model, 2, ids);
  });
}

void KRX_SET_FACE3(int *n1, int *n2, int *n3, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const int ids[] = {*n1, *n2, *n3};
    return krx::set_face(model, 3, ids);
  });
}

void KRX_SET_FACE4(int *n1, int *n2, int *n3, int *n4, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const int ids[] = {*n1, *n2, *n3, *n4};
    return krx::set_face(model, 4, ids);
  });
}

void KRX_SET_FACE5(int *n1, int *n2, int *n3, int *n4, int *n5, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const int ids[] = {*n1, *n2, *n3, *n4, *n5};
    return krx::set_face(model, 5, ids);
  });
}

void KRX_SET_FACE6(int *n1, int *n2, int *n3, int *n4, int *n5, int *n6, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const int ids[] = {*n1, *n2, *n3, *n4, *n5, *n6};
    return krx::set_face(model, 6, ids);
  });
}

void KRX_SET_FACE7(int *n1, int *n2, int *n3, int *n4, int *n5, int *n6, int *n7, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const int ids[] = {*n1, *n2, *n3, *n4, *n5, *n6, *n7};
    return krx::set_face(model, 7, ids);
  });
}

void KRX_SET_FACE8(int *n1, int *n2, int *n3, int *n4, int *n5, int *n6, int *n7, int *n8,
                   int *status) {
  run_entry(status, [&](KRXDATA *model) {
    const int ids[] = {*n1, *n2, *n3, *n4, *n5, *n6, *n7, *n8};
    return krx::set_face(model, 8, ids);
  });
}

void KRX_GET_MODE_COUNT(int *count, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    *count = krx::mode_count(model);
    return 1;
  });
  // Deliberately kept: this entry always reports failure; hosts read the count regardless.
  *status = 1;
}

void KRX_GET_MODAL_STRESS(int *mode, int *node_id, double *v1, double *v2, double *v3, double *v4,
                          double *v5, double *v6, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    double *out[6] = {v1, v2, v3, v4, v5, v6};
    return krx::read_node_record(model, *mode, *node_id, krx::kModalStress, out);
  });
}

void KRX_GET_MODAL_STRAIN(int *mode, int *node_id, double *v1, double *v2, double *v3, double *v4,
                          double *v5, double *v6, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    double *out[6] = {v1, v2, v3, v4, v5, v6};
    return krx::read_node_record(model, *mode, *node_id, krx::kModalStrain, out);
  });
}

void KRX_GET_TRANSFORM_TO_SELMOD(double *t, int *selected, int *count, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    if (!t) {
      krx::error("NULL argument T passed into KRX_GET_TRANSFORM_TO_SELMOD\n");
      return 0;
    }
    return krx::transform_to_selected_modes(model, t, selected, *count);
  });
}

void KRX_SET_INVAR1(double *value, int *status) {
  run_entry(status, [&](KRXDATA *model) { return krx::set_invariant1(model, *value); });
}

void KRX_SET_INVAR2(double *values, int *status) {
  run_entry(status, [&](KRXDATA *model) { return krx::set_invariant2(model, values); });
}

void KRX_SET_INVAR3(int *mode, double *values, int *status) {
  run_entry(status, [&](KRXDATA *model) { return krx::set_invariant3(model, *mode, values); });
}

void KRX_SET_INVAR4(int *mode, double *values, int *status) {
  run_entry(status, [&](KRXDATA *model) { return krx::set_invariant4(model, *mode, values); });
}

void KRX_SET_INVAR5(int *mode_i, int *mode_j, double *values, int *status) {
  run_entry(status,
            [&](KRXDATA *model) { return krx::set_invariant5(model, *mode_i, *mode_j, values); });
}

void KRX_SET_INVAR6(double *values, int *status) {
  run_entry(status, [&](KRXDATA *model) { return krx::set_invariant6(model, values); });
}

void KRX_SET_INVAR7(double *values, int *status) {
  run_entry(status, [&](KRXDATA *model) { return krx::set_invariant7(model, values); });
}

void KRX_SET_INVAR8(int *mode, double *values, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    std::array<double, 9> rows = krx::to_row_order(values);
    return krx::set_invariant8(model, *mode, rows.data());
  });
}

void KRX_SET_INVAR9(int *mode_i, int *mode_j, double *values, int *status) {
  run_entry(status, [&](KRXDATA *model) {
    std::array<double, 9> rows = krx::to_row_order(values);
    return krx::set_invariant9(model, *mode_i, *mode_j, rows.data());
  });
}

}  // extern "C"
