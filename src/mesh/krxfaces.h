// Mesh reduction: the element faces that outline the body (appending, stripping of interior
// faces, replacement from a sketch file, the set of nodes faces and interface nodes use) and the
// coarsening of that surface mesh (krxcoarse.h). Builds on model and base, not on processing.
#pragma once

#include <cstdint>
#include <vector>

#include "model/krxdata.h"

namespace krx {

// Appends a face of node ids (unknown ids become new nodes); 1 when a face was appended.
int add_face(KRXDATA *model, int32_t count, const int32_t *node_ids);
void strip_interior_faces(KRXDATA *model);
void apply_sketch_file(KRXDATA *model, const char *file_name);
// The sorted distinct node positions of faces and interface nodes; false (with its message) when
// there is none.
bool face_node_set(KRXDATA *model, std::vector<int32_t> &out);

}  // namespace krx
