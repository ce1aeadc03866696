// Inertia invariants 1 to 9: computed from nodal masses, inertias, positions and mode shapes (or
// read from the model's file, or taken from the global mass properties), cached in the model.
// Every accessor returns a fresh copy; an empty vector means none.
#pragma once

#include <cstdint>
#include <vector>

#include "model/krxdata.h"

namespace krx {

double invariant1(KRXDATA *model);
std::vector<double> invariant2(KRXDATA *model);
std::vector<double> invariant3(KRXDATA *model);
std::vector<double> invariant4(KRXDATA *model);
std::vector<double> invariant5(KRXDATA *model, int32_t mode);
std::vector<double> invariant6(KRXDATA *model);
std::vector<double> invariant7(KRXDATA *model);
std::vector<double> invariant8(KRXDATA *model, int32_t mode);
std::vector<double> invariant9(KRXDATA *model, int32_t mode_j, int32_t mode_k);

void compute_rigid_invariants(KRXDATA *model);
void compute_fast_invariants(KRXDATA *model);
void compute_full_invariants(KRXDATA *model);

// t += s (a x b)
void cross_accumulate(double t[3], double s, const double a[3], const double b[3]);
// T += s skew(a) skew(b)
void skew_accumulate(double t[9], double s, const double a[3], const double b[3]);

}  // namespace krx
