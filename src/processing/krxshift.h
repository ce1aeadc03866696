// The shift of the body reference frame to the centre of mass of the nodal masses, asked for by
// the writer option "lbrf2cm".
#pragma once

#include "model/krxdata.h"

namespace krx {

// Moves every node by minus the centre of the nodal masses and reports the centre; nothing
// happens when the masses sum to exactly 0 or there are no nodes.
void shift_to_centre_of_mass(KRXDATA *model);

}  // namespace krx
