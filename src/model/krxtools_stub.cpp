// TEMPORARY in-memory stand-in for the vector store, removed when the store lands.
#include <map>

#include "model/krxtools.h"

namespace krx {
namespace {
std::map<std::pair<const KRXDATA *, int32_t>, std::vector<double>> &shapes() {
  static std::map<std::pair<const KRXDATA *, int32_t>, std::vector<double>> m;
  return m;
}
}  // namespace

int store_node_vector(KRXDATA *model, int32_t mode_number, int32_t node_id, int kind,
                      const double values[6]) {
  if (kind != 0) return 0;
  int32_t n = node_position_or_add(model, node_id);
  int32_t j = register_mode(model, mode_number);
  if (n < 0 || j < 0) return 0;
  auto &rec = shapes()[{model, j}];
  if (rec.size() < std::size_t(n + 1) * 6) rec.resize(std::size_t(n + 1) * 6);
  for (int d = 0; d < 6; ++d) rec[n * 6 + d] = values[d];
  model->flags[kFlagModeShapes] = 1;
  return 1;
}

int load_mode_record_by_index(KRXDATA *model, int32_t mode_index, int kind) {
  if (kind != 0 || mode_index < 0 || mode_index >= mode_count(model)) return 0;
  auto &out = model->store[0].record;
  out.assign(model->nodes.size() * 6, 0.0);
  auto &rec = shapes()[{model, mode_index}];
  for (std::size_t i = 0; i < rec.size() && i < out.size(); ++i) out[i] = rec[i];
  if (model->length_ratio != 1.0)
    for (std::size_t i = 0; i < out.size(); ++i)
      if (i % 6 < 3) out[i] *= model->length_ratio;
  model->store[0].held_mode = mode_index;
  return 1;
}

}  // namespace krx
