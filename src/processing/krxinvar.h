// Inertia invariants 1 to 9: computed from nodal masses, inertias, positions and mode shapes (or
// read from the model's file, or taken from the global mass properties), cached in the model.
// Every accessor returns a fresh copy; an empty vector means none.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "model/krxdata.h"

namespace krx {

// Mode j is the j-th retained mode (KRXDATA::retained_modes; through record_map once the eigen
// solution has mapped them). Invariants 3, 4, 5, 8 and 9 are none without retained modes, and
// none for a mode outside 0..M-1; asking for any mode computes and caches all of them.
double invariant1(KRXDATA *model);
std::vector<double> invariant2(KRXDATA *model);
// 3 x M, component-major: value (c, j) at c M + j.
std::vector<double> invariant3(KRXDATA *model);
std::vector<double> invariant4(KRXDATA *model);
// Array j: value (c, k) at c M + k.
std::vector<double> invariant5(KRXDATA *model, int32_t mode);
// The generalized mass over the retained modes, M x M, built afresh (never cached).
std::vector<double> invariant6(KRXDATA *model);
std::vector<double> invariant7(KRXDATA *model);
std::vector<double> invariant8(KRXDATA *model, int32_t mode);
std::vector<double> invariant9(KRXDATA *model, int32_t mode_j, int32_t mode_k);

// The writer's three sets: rigid (1, 2, 3, 7), fast (1, 2, 3, 4, 6, 7, 8), full (1 to 9).
void compute_rigid_invariants(KRXDATA *model);
void compute_fast_invariants(KRXDATA *model);
void compute_full_invariants(KRXDATA *model);

// For the global-mass consistency checks: the cached invariant when there is one, else the sum
// over the nodal data. Nothing is cached, read from a file or taken from the global mass, so a
// check made while the host is still adding nodes leaves no stale invariant behind.
double peek_invariant1(const KRXDATA *model);
std::array<double, 3> peek_invariant2(const KRXDATA *model);
std::array<double, 9> peek_invariant7(const KRXDATA *model);

// Generalized matrix of a list as a dense n x n row-major matrix over the first n mode indices:
// the last value set for a pair wins, a pair never set is 0.
std::vector<double> dense_matrix(const std::vector<MatrixEntry> &entries, int32_t n);

// t += s (a x b)
void cross_accumulate(double t[3], double s, const double a[3], const double b[3]);
// T += s skew(a) skew(b)
void skew_accumulate(double t[9], double s, const double a[3], const double b[3]);

// ---- File branch --------------------------------------------------------------------------------
// Reads invariant block `block` (19 to 26) of the file the model was loaded from into values,
// through the model's stored-invariant source (KRXDATA::stored_invariants, set by the reader):
// for blocks 21 to 26 first the 32-bit mode count (check_invariant_mode_count, then reading goes
// on with M), then invariant_block_values(block, M) reals in the file's precision and encoding,
// widened to double, then scale_invariant_from_file. False when the model was not read from a
// file, has no source or the file lacks the block; the invariant is then computed from the
// model's data.
bool read_invariant_block(KRXDATA *model, int block, std::vector<double> &values);
// Number of reals the block holds for M modes; 0 for a block that holds no invariant.
std::size_t invariant_block_values(int block, int32_t modes);
// Reports "nm!=ModeCount at line %d in file %s" when the count differs from M.
void check_invariant_mode_count(const KRXDATA *model, int32_t file_modes);
// Scales by the ratios of the last unit change: block 19 by mass, 20 and 21 by mass x length,
// the others by mass x length^2.
void scale_invariant_from_file(const KRXDATA *model, int block, std::vector<double> &values);

}  // namespace krx
