// The sums behind invariants 3, 4, 5, 8 and 9: one pass over panels of nodes reads each retained
// mode's slice of the mode-shape file once per panel and adds blocked, mass-weighted products.
#pragma once

#include <cstdint>
#include <vector>

#include "model/krxdata.h"

namespace krx {

// The caches a pass fills; a null target is not summed. Each target is zero-filled and sized for
// the retained modes (3 M, 3 M, 3 M M, 9 M and 9 M M doubles) before the pass.
struct ModeSumTargets {
  std::vector<double> *three = nullptr;
  std::vector<double> *four = nullptr;
  std::vector<double> *five = nullptr;
  std::vector<double> *eight = nullptr;
  std::vector<double> *nine = nullptr;
};

// Retained mode j is the mode the eigen solution mapped it to (record_map), or mode index j when
// it has not; -1 when the map lacks it.
int32_t retained_mode_index(const KRXDATA *model, int32_t j);

// Sums over the nodal masses, positions and inertias and the translational (for invariant 4 also
// rotational) shapes of the retained modes. Memory is one panel of nodes for every mode plus
// O(M^2) sums, never nodes x modes. False (reported) when a buffer cannot be allocated; the
// targets are then left as they were.
bool sum_mode_invariants(KRXDATA *model, const ModeSumTargets &targets);

}  // namespace krx
