// Model processing: preparation of the preload and the modal loads before writing. The values of
// the leading rigid-body modes are replaced by the resultant force and moment (Fx, Fy, Fz, Mx, My,
// Mz) on the body, from the nodal masses or from the body's 6 x 6 rigid-body mass matrix.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "model/krxdata.h"

namespace krx {

// Resultants of the first k entries of a modal vector. Both return 1 on success, 0 on failure.
// From the nodal masses and the mode shapes of the k modes.
int nodal_mass_resultant(KRXDATA *model, const std::vector<double> &values, int k,
                         std::array<double, 6> &out);
// From the rigid-body mass matrix built of invariants 1, 2 and 7 and the modal momenta of
// invariants 3 and 4; used with QOR_MFORCE_NO_FEA_MASS or without nodal masses.
int rigid_mass_resultant(KRXDATA *model, const std::vector<double> &values, int k,
                         std::array<double, 6> &out);

// Prepares the preload once (preload_applied) and every load case not yet applied, with the
// warnings about rigid-body components and too few rigid-body modes. 1 on success.
int prepare_loads(KRXDATA *model);

}  // namespace krx
