// Fuzz target: open the bytes through the public read API and read everything it offers, every
// array sized from the counts the API gave.
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "fuzzsupport.h"
#include "krx/krx_read.h"

namespace {

void read_everything(krx_file *file) {
  int64_t counts[14] = {};
  for (int which = 1; which <= 13; ++which) krx_count(file, which, &counts[which]);
  const int64_t nodes = counts[KRX_COUNT_NODES], modes = counts[KRX_COUNT_MODES];
  int64_t ints_needed = std::max({nodes, modes, counts[KRX_COUNT_FACE_WORDS],
                                  counts[KRX_COUNT_INTERFACE_NODES],
                                  counts[KRX_COUNT_TRANSFORMATION_ORDER],
                                  counts[KRX_COUNT_MODE_SHAPE_NODES],
                                  counts[KRX_COUNT_STRESS_NODES], counts[KRX_COUNT_STRAIN_NODES]});
  int64_t order = std::max(counts[KRX_COUNT_MATRIX_ORDER], counts[KRX_COUNT_TRANSFORMATION_ORDER]);
  // Invariants 5 and 9 hold a value per mode pair; the others at most 9 per mode.
  int64_t m = counts[KRX_COUNT_INVARIANT_MODES];
  int64_t pairs = krx_has_block(file, 23) || krx_has_block(file, 26) ? m * m : 0;
  int64_t per_mode = 6 * std::max({counts[KRX_COUNT_MODE_SHAPE_NODES],
                                   counts[KRX_COUNT_STRESS_NODES], counts[KRX_COUNT_STRAIN_NODES]});
  int64_t reals_needed =
      std::max({9 * nodes, 5 * modes, order * order, 9 * m, 9 * pairs, per_mode, int64_t(13)});
  std::vector<int32_t> ints(std::size_t(ints_needed) + 1);
  std::vector<double> reals(std::size_t(reals_needed) + 1);
  char text[128], units[4][16];
  for (int field = 0; field < 7; ++field) krx_read_header(file, field, text, sizeof text);
  krx_read_units(file, units);
  krx_read_node_ids(file, ints.data());
  krx_read_coordinates(file, reals.data());
  krx_read_nodal_masses(file, reals.data());
  krx_read_nodal_inertias(file, reals.data());
  krx_read_body_properties(file, reals.data());
  krx_read_eigenvalues(file, ints.data(), reals.data());
  for (int block : {12, 13, 15}) krx_read_generalized_matrix(file, block, reals.data());
  krx_read_transformation(file, ints.data(), reals.data());
  for (int invariant = 1; invariant <= 9; ++invariant)
    krx_read_invariant(file, invariant, reals.data());
  krx_read_interface_nodes(file, ints.data());
  krx_read_faces(file, ints.data());
  for (int kind = 0; kind < 3; ++kind) {
    krx_read_mode_node_ids(file, kind, ints.data());
    for (int64_t mode : {int64_t(0), modes - 1})
      krx_read_mode(file, kind, mode, nullptr, reals.data());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  std::string path;
  FILE *bytes = krxfuzz::memory_file(data, size, &path);
  if (!bytes) return 0;
  krx_file *file = nullptr;
  if (krx_open(path.c_str(), &file) == KRX_OK) read_everything(file);
  krx_close(file);
  std::fclose(bytes);
  return 0;
}
