// Coarsening of the element faces: small, nearly coplanar fans of faces around a node are merged
// into one polygon and the node leaves the outline; interface nodes, listed nodes and (on request)
// nodes with modal stress or strain always stay. Nodes and every other part of the model stay.
#pragma once

#include "model/krxdata.h"

namespace krx {

// argument_string: "resolution,angle,co-linear flag[,node id ...][,preserve_str]", for example
// "0.05,10,1,101,102,preserve_str". Replaces the face list when it runs to the end.
void coarsen(KRXDATA *model, const char *argument_string);

}  // namespace krx
