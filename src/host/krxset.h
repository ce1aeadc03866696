// The setters behind the exported entries: each stores plain values in the model, raises the
// matching content flag and checks what can be checked (consistency only warns, legality fails).
// Every setter returns 1 on success and 0 on failure and first checks that the model exists.
// They are the host's operations over the model and processing (the invariants the global-mass
// checks compare with), so they live on the host floor next to the entries.
#pragma once

#include <cstdint>

#include "model/krxdata.h"

namespace krx {

// The texts are changed in place (newlines become blanks).
int set_header(KRXDATA *model, char *title, char *input_name, char *input_type, char *comment1,
               char *comment2, char *comment3);
int set_node_coordinates(KRXDATA *model, int32_t node_id, double x, double y, double z);
int set_nodal_mass(KRXDATA *model, int32_t node_id, double mass);
int add_nodal_mass(KRXDATA *model, int32_t node_id, double mass);
// I11, I22, I33, I12, I13, I23.
int set_nodal_inertia(KRXDATA *model, int32_t node_id, const double inertia[6]);
// Row and column 1..3; (r, c) and (c, r) name the same product of inertia.
int set_nodal_inertia_term(KRXDATA *model, int32_t node_id, int row, int column, double value);
int set_global_mass(KRXDATA *model, double mass, const double *centre, const double *inertia);
int set_generalized_mass(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value);
int set_generalized_stiffness(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value);
int set_generalized_damping(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value);
int set_interface_node(KRXDATA *model, int32_t node_id);
int set_modal_preload(KRXDATA *model, int32_t mode_number, double value);
int set_load_case_count(KRXDATA *model, int32_t count);
// load_case is 0-based.
int set_modal_load(KRXDATA *model, int32_t load_case, int32_t mode_number, double value);
int set_modal_load_label(KRXDATA *model, int32_t load_case, const char *label);

// Direct invariant setters; 3x3 matrices row by row. The modes must be registered already;
// per-mode storage is laid out for the mode count of the moment and re-laid out when it grows.
int set_invariant1(KRXDATA *model, double value);
int set_invariant2(KRXDATA *model, const double values[3]);
int set_invariant3(KRXDATA *model, int32_t mode_number, const double values[3]);
int set_invariant4(KRXDATA *model, int32_t mode_number, const double values[3]);
int set_invariant5(KRXDATA *model, int32_t mode_i, int32_t mode_j, const double values[3]);
// One value per mode in mode-index order.
int set_invariant6(KRXDATA *model, const double *values);
int set_invariant7(KRXDATA *model, const double values[9]);
int set_invariant8(KRXDATA *model, int32_t mode_number, const double values[9]);
int set_invariant9(KRXDATA *model, int32_t mode_i, int32_t mode_j, const double values[9]);

// Relative difference of the consistency checks: |(a - b) / s|, s = a when |a| > 1, else 1.
double relative_difference(double a, double b);

}  // namespace krx
