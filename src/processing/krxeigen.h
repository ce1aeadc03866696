// The generalized eigen solution of the host's modes: QZ on the generalized stiffness and mass,
// the printed eigenvalue table, mass orthonormalisation, eigenvalue records, the mode
// transformation, and the rewrite of damping, loads and the spooled vectors in the new modes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "model/krxdata.h"

namespace krx {

// Solves, orders and orthonormalises the retained modes (when the writer switches ask for it),
// builds the records and the transformation, and rewrites damping, loads and vector files.
int solve_and_orthonormalise(KRXDATA *model);

// Eigenvalue records from the diagonal generalized mass and stiffness, when none exist yet.
int build_eigen_records(KRXDATA *model);

// One factor per record from its generalized mass: sqrt(g) for g > 0 (the record becomes unit),
// 1.0 for g = 0, and -sqrt(g) (a NaN, kept) for g < 0.
std::vector<double> mass_normalisation_factors(KRXDATA *model);

// Rewrites a kind's vector file through the model's transformation: new vector j (j < count) is
// sum_k T[k][j] old vector k. The kind's store is switched to the new file.
int write_transformed_vectors(KRXDATA *model, int kind, int32_t count);

// Generalized masses between the first p modes and the q modes appended after them, from the
// nodal masses, inertias and mode shapes.
int add_generalized_masses(KRXDATA *model, int32_t p, int32_t q);

// The transformation as an n x n column-major matrix over the model's n modes (row = host mode
// index, column = new mode); the identity where the model holds none.
int fill_mode_transformation(KRXDATA *model, std::vector<double> &column_major_n_by_n);

// The rewrite kernel on one block of nodes: out[j][v] = sum_k t[k][j] old[k][v] for
// j < new_count, v < values. old rows are old_stride apart, out rows out_stride apart; t is the
// row-major old_count x new_count part of the transformation (leading dimension t_stride).
// values must be a multiple of 12 and both strides at least values rounded up to 12.
void transform_block(const double *old, std::size_t old_stride, int32_t old_count,
                     const double *t, int32_t t_stride, int32_t new_count, std::size_t values,
                     double *out, std::size_t out_stride);

}  // namespace krx
