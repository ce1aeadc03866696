// Fuzz target: a sketch file replacing the faces of a small model of nodes 1 to 8, then the face
// steps that follow it in a write (interior-face stripping, the node set of the faces).
#include <vector>

#include "fuzzsupport.h"
#include "mesh/krxfaces.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  krxfuzz::silence_host();
  std::string path;
  FILE *file = krxfuzz::memory_file(data, size, &path);
  if (!file) return 0;
  krx::KRXDATA *model = krx::create_model(8, 1);
  if (model) {
    const int32_t quads[2][4] = {{1, 2, 3, 4}, {5, 6, 7, 8}};
    for (const auto &quad : quads) krx::add_face(model, 4, quad);
    krx::apply_sketch_file(model, path.c_str());
    if (model->face_count >= 0) {
      krx::strip_interior_faces(model);
      std::vector<int32_t> nodes;
      krx::face_node_set(model, nodes);
    }
    krx::release_model(model);
  }
  std::fclose(file);
  return 0;
}
