// The exported read entries (krx_read.h): a thin layer over the positioned reader of the format
// floor that checks arguments, turns failures into return codes and keeps each thread's last
// message. No exception leaves an entry.
#include "krx/krx_read.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "format/krxreadat.h"

struct krx_file {
  krx::PositionedFile f;
};

namespace krx {
namespace {

// The calling thread's last failure, and the handle it belongs to.
thread_local const krx_file *t_failed = nullptr;
thread_local std::string t_message;

int fail(const krx_file *file, int code, std::string text) {
  t_failed = file;
  t_message = std::move(text);
  return code;
}

template <typename Body>
int entry(const krx_file *file, Body body) {
  if (!file) return KRX_ERROR_ARGUMENT;
  try {
    return body(file->f);
  } catch (const std::bad_alloc &) {
    return fail(file, KRX_ERROR_MEMORY, "out of memory while reading " + file->f.path);
  }
}

int absent(const krx_file *file, int block) {
  return fail(file, KRX_ERROR_ABSENT, file->f.path + " holds no " + block_info(block)->name +
                                          " block");
}

int argument(const krx_file *file, const char *what) {
  return fail(file, KRX_ERROR_ARGUMENT, what);
}

// Decodes a present block (bytes of it, -1 for all) into whatever decode fills.
template <typename Decode>
int decode(const krx_file *file, int block, Decode fn, int64_t bytes = -1) {
  if (!file->f.has(block)) return absent(file, block);
  std::string problem;
  bool memory = false;
  if (decode_block(file->f, block, bytes, fn, problem, memory)) return KRX_OK;
  return fail(file, memory ? KRX_ERROR_MEMORY : KRX_ERROR_FORMAT, problem);
}

int format_error(const krx_file *file, int block, const std::string &what) {
  return fail(file, KRX_ERROR_FORMAT, "block " + std::to_string(block) + " (" +
                                          block_info(block)->name + ") of " + file->f.path +
                                          ": " + what);
}

int64_t count_of(const PositionedFile &f, int block, int slot) {
  return f.has(block) ? f.counts[block].n[std::size_t(slot)] : 0;
}

int first_present(const PositionedFile &f, std::initializer_list<int> blocks) {
  for (int b : blocks)
    if (f.has(b)) return b;
  return 0;
}

// Node ids of block 4 with their positions, sorted by id, for lookups by bisection.
using IdOrder = std::vector<std::pair<int32_t, int32_t>>;
int node_order(const krx_file *file, IdOrder &order) {
  NodalCoordsBlock nodes;
  int code = decode(file, 4, [&](BlockIo &b) { return read_nodal_coords_block(b, nodes); });
  if (code != KRX_OK) return code;
  order.resize(nodes.ids.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = {nodes.ids[i], int32_t(i)};
  std::sort(order.begin(), order.end());
  return KRX_OK;
}

int32_t position_of(const IdOrder &order, int32_t id) {
  auto at = std::lower_bound(order.begin(), order.end(), std::make_pair(id, INT32_MIN));
  return at != order.end() && at->first == id ? at->second : -1;
}

const int kModeBlock[3] = {8, 18, 29};

int faces_from_topology(const krx_file *file, int32_t *words) {
  IdOrder order;
  ElementTopologyBlock t;
  int code = decode(file, 5, [&](BlockIo &b) { return read_element_topology_block(b, t); });
  if (code == KRX_OK) code = node_order(file, order);
  if (code != KRX_OK) return code;
  auto groups = t.groups;
  std::sort(groups.begin(), groups.end());
  // The caller's list was sized from the face count: the groups must hold exactly that many.
  int64_t faces = 0, out = 0;
  for (const auto &g : groups) faces += g[1];
  if (faces != t.face_count) return format_error(file, 5, "the groups do not hold the face count");
  std::size_t in = 0;
  for (const auto &g : groups) {
    for (int32_t e = 0; e < g[1]; ++e) {
      words[out++] = g[2];
      in += 2;  // two ints that readers skip
      for (int32_t v = 0; v < g[2]; ++v) {
        int32_t at = position_of(order, t.words[in++]);
        if (at < 0) return format_error(file, 5, "a face names a node that block 4 does not hold");
        words[out++] = at;
      }
    }
  }
  return KRX_OK;
}

}  // namespace
}  // namespace krx

using namespace krx;

extern "C" {

int krx_open(const char *path, krx_file **file) {
  if (!file) return KRX_ERROR_ARGUMENT;
  *file = new (std::nothrow) krx_file;
  if (!*file) return KRX_ERROR_MEMORY;
  if (!path) return argument(*file, "no file name");
  PositionedFile &f = (*file)->f;
  try {
    std::string problem;
    if (open_positioned(path, f, problem)) return KRX_OK;
    return fail(*file, f.size < 0 ? KRX_ERROR_OPEN : KRX_ERROR_FORMAT, problem);
  } catch (const std::bad_alloc &) {
    close_positioned(f);
    return fail(*file, KRX_ERROR_MEMORY, "out of memory while opening a file");
  }
}

void krx_close(krx_file *file) {
  if (!file) return;
  close_positioned(file->f);
  if (t_failed == file) t_failed = nullptr;
  delete file;
}

const char *krx_error_message(const krx_file *file) {
  return file && t_failed == file ? t_message.c_str() : "";
}

int krx_read_version(const krx_file *file, int *generation, int *xdr, int *real_bytes) {
  return entry(file, [&](const PositionedFile &f) {
    if (generation) *generation = f.generation;
    if (xdr) *xdr = f.xdr;
    if (real_bytes) *real_bytes = f.R();
    return KRX_OK;
  });
}

int krx_count(const krx_file *file, int which, int64_t *count) {
  return entry(file, [&](const PositionedFile &f) {
    if (!count) return argument(file, "no count to fill");
    int block;
    switch (which) {
      case KRX_COUNT_NODES: *count = count_of(f, 4, 0); break;
      case KRX_COUNT_MODES: *count = f.has(7) ? count_of(f, 7, 0) : count_of(f, 8, 0); break;
      case KRX_COUNT_MODE_SHAPE_NODES: *count = count_of(f, 8, 1); break;
      case KRX_COUNT_STRESS_NODES: *count = count_of(f, 18, 1); break;
      case KRX_COUNT_STRAIN_NODES: *count = count_of(f, 29, 1); break;
      case KRX_COUNT_FACES: *count = f.has(14) ? count_of(f, 14, 1) : count_of(f, 5, 0); break;
      case KRX_COUNT_FACE_WORDS:
        // The old element block spends two skipped ints a face where the list spends one count.
        *count = f.has(14) ? count_of(f, 14, 2) : count_of(f, 5, 2) - count_of(f, 5, 0);
        break;
      case KRX_COUNT_INTERFACE_NODES: *count = count_of(f, 17, 0); break;
      case KRX_COUNT_MASS_NODES: *count = count_of(f, 9, 0); break;
      case KRX_COUNT_INERTIA_ENTRIES: *count = count_of(f, 10, 0); break;
      case KRX_COUNT_MATRIX_ORDER:
        block = first_present(f, {12, 13, 15});
        *count = block ? count_of(f, block, 1) : 0;
        break;
      case KRX_COUNT_TRANSFORMATION_ORDER: *count = count_of(f, 16, 0); break;
      case KRX_COUNT_INVARIANT_MODES:
        block = first_present(f, {21, 22, 23, 25, 26});
        *count = block ? count_of(f, block, 0) : 0;
        break;
      default: return argument(file, "unknown count");
    }
    if (*count < 0) *count = 0;
    return KRX_OK;
  });
}

int krx_has_block(const krx_file *file, int block) {
  return file && file->f.has(block) ? 1 : 0;
}

int krx_read_header(const krx_file *file, int field, char *text, size_t size) {
  return entry(file, [&](const PositionedFile &f) {
    const HeaderBlock &h = f.header;
    const char *fields[7] = {h.title.data(), h.date.data(), h.input_name.data(),
                             h.input_type.data(), h.comments[0].data(), h.comments[1].data(),
                             h.comments[2].data()};
    if (field < 0 || field > 6) return argument(file, "unknown header field");
    if (!text || size == 0) return argument(file, "no room for the header field");
    std::size_t n = std::min(std::strlen(fields[field]), size - 1);
    std::memcpy(text, fields[field], n);
    text[n] = '\0';
    return KRX_OK;
  });
}

int krx_read_units(const krx_file *file, char units[4][16]) {
  return entry(file, [&](const PositionedFile &) {
    if (!units) return argument(file, "no units to fill");
    std::array<std::array<char, 16>, 4> read{};
    int code = decode(file, 11, [&](BlockIo &b) { return read_units_block(b, read); });
    if (code != KRX_OK) return code;
    for (int u = 0; u < 4; ++u) {
      read[u][15] = '\0';
      std::size_t n = std::strlen(read[u].data());
      while (n > 0 && read[u][n - 1] == ' ') --n;
      std::memset(units[u], 0, 16);
      std::memcpy(units[u], read[u].data(), n);
    }
    return KRX_OK;
  });
}

int krx_read_node_ids(const krx_file *file, int32_t *ids) {
  return entry(file, [&](const PositionedFile &) {
    if (!ids) return argument(file, "no ids to fill");
    NodalCoordsBlock nodes;
    int code = decode(file, 4, [&](BlockIo &b) { return read_nodal_coords_block(b, nodes); });
    if (code == KRX_OK) std::copy(nodes.ids.begin(), nodes.ids.end(), ids);
    return code;
  });
}

int krx_read_coordinates(const krx_file *file, double *xyz) {
  return entry(file, [&](const PositionedFile &) {
    if (!xyz) return argument(file, "no coordinates to fill");
    NodalCoordsBlock nodes;
    int code = decode(file, 4, [&](BlockIo &b) { return read_nodal_coords_block(b, nodes); });
    if (code == KRX_OK) std::copy(nodes.xyz.begin(), nodes.xyz.end(), xyz);
    return code;
  });
}

int krx_read_nodal_masses(const krx_file *file, double *masses) {
  return entry(file, [&](const PositionedFile &f) {
    if (!masses) return argument(file, "no masses to fill");
    IdOrder order;
    NodalMassesBlock block;
    int code = decode(file, 9, [&](BlockIo &b) { return read_nodal_masses_block(b, block); });
    if (code == KRX_OK) code = node_order(file, order);
    if (code != KRX_OK) return code;
    std::fill(masses, masses + count_of(f, 4, 0), 0.0);
    std::size_t per = std::size_t(std::max(block.dims, 0));
    for (std::size_t i = 0; i < block.ids.size(); ++i) {
      int32_t at = position_of(order, block.ids[i]);
      if (at < 0) return format_error(file, 9, "a mass of a node that block 4 does not hold");
      double sum = 0.0;
      for (std::size_t d = 0; d < per; ++d) sum += block.values[i * per + d];
      masses[at] = per ? sum / double(per) : 0.0;
    }
    return KRX_OK;
  });
}

int krx_read_nodal_inertias(const krx_file *file, double *inertias) {
  return entry(file, [&](const PositionedFile &f) {
    if (!inertias) return argument(file, "no inertias to fill");
    IdOrder order;
    std::vector<InertiaEntry> entries;
    int code = decode(file, 10, [&](BlockIo &b) { return read_nodal_inertia_block(b, entries); });
    if (code == KRX_OK) code = node_order(file, order);
    if (code != KRX_OK) return code;
    std::size_t nodes = std::size_t(count_of(f, 4, 0));
    std::vector<uint8_t> given(9 * nodes, 0);
    std::fill(inertias, inertias + 9 * nodes, 0.0);
    for (const InertiaEntry &e : entries) {
      int32_t at = position_of(order, e.id);
      int row = e.row - 4, column = e.column - 4;
      if (at < 0 || row < 0 || row > 2 || column < 0 || column > 2)
        return format_error(file, 10, "an entry names an unknown node, row or column");
      std::size_t cell = 9 * std::size_t(at) + std::size_t(3 * row + column);
      inertias[cell] = e.value;
      given[cell] = 1;
    }
    for (std::size_t n = 0; n < nodes; ++n)
      for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
          if (!given[9 * n + 3 * r + c] && given[9 * n + 3 * c + r])
            inertias[9 * n + 3 * r + c] = inertias[9 * n + 3 * c + r];
    return KRX_OK;
  });
}

int krx_read_body_properties(const krx_file *file, double values[13]) {
  return entry(file, [&](const PositionedFile &) {
    if (!values) return argument(file, "no values to fill");
    std::array<double, 13> read{};
    int code = decode(file, 6, [&](BlockIo &b) { return read_global_body_block(b, read); });
    if (code == KRX_OK) std::copy(read.begin(), read.end(), values);
    return code;
  });
}

int krx_read_eigenvalues(const krx_file *file, int32_t *numbers, double *records) {
  return entry(file, [&](const PositionedFile &) {
    std::vector<EigenRecord> read;
    int code = decode(file, 7, [&](BlockIo &b) { return read_eigenvalues_block(b, read); });
    if (code != KRX_OK) return code;
    for (std::size_t i = 0; i < read.size(); ++i) {
      if (numbers) numbers[i] = read[i].number;
      if (!records) continue;
      double *r = records + 5 * i;
      r[0] = read[i].eigenvalue, r[1] = read[i].hertz, r[2] = read[i].radians;
      r[3] = read[i].generalized_mass, r[4] = read[i].generalized_stiffness;
    }
    return KRX_OK;
  });
}

int krx_read_generalized_matrix(const krx_file *file, int block, double *matrix) {
  return entry(file, [&](const PositionedFile &f) {
    if (block != 12 && block != 13 && block != 15)
      return argument(file, "not a generalized matrix");
    if (!matrix) return argument(file, "no matrix to fill");
    MatrixBlock read;
    int code = decode(file, block, [&](BlockIo &b) { return read_matrix_block(b, read); });
    if (code != KRX_OK) return code;
    int64_t order = count_of(f, block, 1);
    std::fill(matrix, matrix + order * order, 0.0);
    for (const MatrixBlockEntry &e : read.entries) {
      if (e.row < 1 || e.row > order || e.column < 1 || e.column > order)
        return format_error(file, block, "an entry lies outside the matrix");
      matrix[(e.row - 1) * order + (e.column - 1)] = e.value;
    }
    return KRX_OK;
  });
}

int krx_read_transformation(const krx_file *file, int32_t *numbers, double *matrix) {
  return entry(file, [&](const PositionedFile &) {
    TransformationBlock read;
    int code = decode(file, 16, [&](BlockIo &b) { return read_transformation_block(b, read); });
    if (code != KRX_OK) return code;
    if (numbers) std::copy(read.modes.begin(), read.modes.end(), numbers);
    if (matrix) std::copy(read.matrix.begin(), read.matrix.end(), matrix);
    return KRX_OK;
  });
}

int krx_read_invariant(const krx_file *file, int invariant, double *values) {
  return entry(file, [&](const PositionedFile &f) {
    static const int kBlockOf[10] = {0, 19, 20, 21, 22, 23, 0, 24, 25, 26};
    int block = invariant >= 1 && invariant <= 9 ? kBlockOf[invariant] : 0;
    if (!block) return argument(file, "no such inertia invariant");
    if (!values) return argument(file, "no values to fill");
    InvariantBlock read;
    int32_t modes = int32_t(count_of(f, block, 0));
    int code = decode(file, block,
                      [&](BlockIo &b) { return read_invariant_block(b, block, modes, read); });
    if (code == KRX_OK) std::copy(read.values.begin(), read.values.end(), values);
    return code;
  });
}

int krx_read_interface_nodes(const krx_file *file, int32_t *ids) {
  return entry(file, [&](const PositionedFile &) {
    if (!ids) return argument(file, "no ids to fill");
    std::vector<int32_t> read;
    int code = decode(file, 17, [&](BlockIo &b) { return read_interface_block(b, read); });
    if (code == KRX_OK) std::copy(read.begin(), read.end(), ids);
    return code;
  });
}

int krx_read_faces(const krx_file *file, int32_t *words) {
  return entry(file, [&](const PositionedFile &f) {
    if (!words) return argument(file, "no face list to fill");
    if (!f.has(14) && f.has(5)) return faces_from_topology(file, words);
    ElementFacesBlock read;
    int code = decode(file, 14, [&](BlockIo &b) { return read_element_faces_block(b, read); });
    if (code != KRX_OK) return code;
    // Each face is its vertex count and that many positions among the nodes of block 4.
    int64_t nodes = count_of(f, 4, 0), faces = 0;
    for (std::size_t at = 0; at < read.words.size(); ++faces) {
      int64_t n = read.words[at];
      if (n < 0 || int64_t(read.words.size() - at) <= n)
        return format_error(file, 14, "a face's vertex count runs past the face list");
      for (int64_t v = 1; v <= n; ++v)
        if (read.words[at + v] < 0 || read.words[at + v] >= nodes)
          return format_error(file, 14, "a face names a node position outside block 4");
      at += std::size_t(n) + 1;
    }
    if (faces != read.face_count)
      return format_error(file, 14, "the face list does not hold the face count");
    std::copy(read.words.begin(), read.words.end(), words);
    return KRX_OK;
  });
}

int krx_read_mode_node_ids(const krx_file *file, int kind, int32_t *ids) {
  return entry(file, [&](const PositionedFile &f) {
    if (kind < 0 || kind > 2) return argument(file, "unknown kind of mode data");
    if (!ids) return argument(file, "no ids to fill");
    int block = kModeBlock[kind];
    ModeBlockHead head;
    int code = decode(file, block, [&](BlockIo &b) { return read_mode_block_head(b, head); },
                      8 + 4 * count_of(f, block, 1));
    if (code == KRX_OK) std::copy(head.ids.begin(), head.ids.end(), ids);
    return code;
  });
}

int krx_read_mode(const krx_file *file, int kind, int64_t mode, int32_t *number, double *values) {
  return entry(file, [&](const PositionedFile &f) {
    if (kind < 0 || kind > 2) return argument(file, "unknown kind of mode data");
    int block = kModeBlock[kind];
    if (!f.has(block)) return absent(file, block);
    if (mode < 0 || mode >= count_of(f, block, 0))
      return argument(file, "mode index out of range");
    if (!values) return argument(file, "no values to fill");
    int32_t read_number = 0;
    std::string problem;
    if (!read_mode_at(f, block, mode, read_number, values, problem))
      return fail(file, KRX_ERROR_OPEN, problem);
    if (number) *number = read_number;
    return KRX_OK;
  });
}

}  // extern "C"
