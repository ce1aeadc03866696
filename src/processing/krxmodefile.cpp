// The spooled vectors in the new modes: the orthogonal mode files written through the mode
// transformation, and the generalized masses of appended modes.
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>

#include "base/krxmsg.h"
#include "model/krxtools.h"
#include "processing/krxeigen.h"

namespace krx {
namespace {

constexpr const char *kSource = "..\\krxeigen";
constexpr int kTileValues = 12;     // values of one register tile (three vectors of four)
constexpr int kTileModes = 4;       // new modes of one register tile
constexpr int32_t kPanelNodes = 64;  // nodes of one panel of the block loop
constexpr std::size_t kBlockBytes = std::size_t(16) << 20;  // old and new values of one block

using v4d = double __attribute__((vector_size(32)));

// The old values of a block, packed tile by tile: for each tile of 12 values, the 12 values of
// every old mode back to back, so that the mode loop of the kernel reads one contiguous stream.
void pack_old(const double *old, std::size_t old_stride, int32_t old_count, std::size_t values,
              double *packed) {
  for (std::size_t v = 0; v < values; v += kTileValues)
    for (int32_t k = 0; k < old_count; ++k, packed += kTileValues)
      std::memcpy(packed, old + std::size_t(k) * old_stride + v, kTileValues * sizeof(double));
}

// For each tile of 12 values and each group of four new modes, a 4 x 12 block of sums held in
// registers while the old modes stream past; a tile's old values (12 per old mode) stay in the
// first-level cache across the groups. The vector width is chosen when the library is loaded.
__attribute__((target_clones("avx2", "default"))) void transform_tiles(
    const double *packed_old, int32_t old_count, const double *packed_t, int32_t groups,
    std::size_t values, double *out, std::size_t out_stride) {
  for (std::size_t v = 0; v < values; v += kTileValues) {
    const double *tile = packed_old + (v / kTileValues) * std::size_t(old_count) * kTileValues;
    for (int32_t g = 0; g < groups; ++g) {
      const double *t = packed_t + std::size_t(g) * old_count * kTileModes;
      v4d a00 = {}, a01 = {}, a02 = {}, a10 = {}, a11 = {}, a12 = {};
      v4d a20 = {}, a21 = {}, a22 = {}, a30 = {}, a31 = {}, a32 = {};
      for (int32_t k = 0; k < old_count; ++k) {
        v4d o0, o1, o2;
        std::memcpy(&o0, tile + std::size_t(k) * kTileValues, sizeof o0);
        std::memcpy(&o1, tile + std::size_t(k) * kTileValues + 4, sizeof o1);
        std::memcpy(&o2, tile + std::size_t(k) * kTileValues + 8, sizeof o2);
        const double *tk = t + std::size_t(k) * kTileModes;
        double t0 = tk[0], t1 = tk[1], t2 = tk[2], t3 = tk[3];
        a00 += t0 * o0;
        a01 += t0 * o1;
        a02 += t0 * o2;
        a10 += t1 * o0;
        a11 += t1 * o1;
        a12 += t1 * o2;
        a20 += t2 * o0;
        a21 += t2 * o1;
        a22 += t2 * o2;
        a30 += t3 * o0;
        a31 += t3 * o1;
        a32 += t3 * o2;
      }
      double *o = out + std::size_t(g * kTileModes) * out_stride + v;
      const v4d rows[kTileModes][3] = {{a00, a01, a02}, {a10, a11, a12}, {a20, a21, a22}, {a30, a31, a32}};
      for (int r = 0; r < kTileModes; ++r) std::memcpy(o + r * out_stride, rows[r], sizeof rows[r]);
    }
  }
}

const char *kind_variable(int kind) {
  return kind == kModeShapes ? "QOR_TMP_MOD" : kind == kModalStress ? "QOR_TMP_STR" : "QOR_TMP_STN";
}

bool write_all(int fd, const void *buffer, std::size_t bytes, int64_t offset) {
  auto *p = static_cast<const unsigned char *>(buffer);
  while (bytes > 0) {
    ssize_t put = pwrite(fd, p, bytes, off_t(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    p += put;
    bytes -= std::size_t(put);
    offset += put;
  }
  return true;
}

// Where the new values go: the replacement file, written with positioned writes like every access
// of the store. The old values are read through the store (read_stored_nodes), as they stand.
struct Spans {
  int new_fd = -1;
  int new_width = 8;  // bytes per value
  const std::vector<int64_t> *new_start = nullptr;
  std::vector<float> narrow;
};

constexpr int64_t kNewStep = 48;

// The new file has the store's own layout: 48 bytes per node, six floats and 24 zero bytes in
// single precision.
bool write_nodes(Spans &s, int32_t record, int32_t first, int32_t count, const double *values) {
  int64_t offset = (*s.new_start)[record] + int64_t(first) * kNewStep;
  if (s.new_width == 8) return write_all(s.new_fd, values, std::size_t(count) * 48, offset);
  s.narrow.assign(std::size_t(count) * 12, 0.0f);
  for (std::size_t i = 0; i < std::size_t(count); ++i)
    for (int c = 0; c < 6; ++c) s.narrow[i * 12 + c] = float(values[i * 6 + c]);
  return write_all(s.new_fd, s.narrow.data(), s.narrow.size() * sizeof(float), offset);
}

std::size_t round_up(std::size_t v, std::size_t step) { return (v + step - 1) / step * step; }

// Nodes per block: whole panels, as many as the byte budget allows for old and new values.
int32_t block_nodes(int32_t slots, int32_t old_count, int32_t new_count) {
  std::size_t per_node = std::size_t(old_count + new_count + kTileModes) * 6 * sizeof(double);
  std::size_t panels = std::max<std::size_t>(1, kBlockBytes / (per_node * kPanelNodes));
  std::size_t nodes = std::min<std::size_t>(panels * kPanelNodes, round_up(std::size_t(slots), 2));
  return int32_t(std::max<std::size_t>(nodes, 2));
}

struct Rewrite {
  KRXDATA *model;
  int kind;
  int32_t old_count, new_count, slots;
  ReplacementFile file;
  Spans spans;
};

// 1 done, 0 read failure, -1 write failure.
int rewrite_blocks(Rewrite &w, bool quiet) {
  const std::vector<double> &t = w.model->transformation;
  int32_t groups = int32_t(round_up(std::size_t(w.new_count), kTileModes) / kTileModes);
  int32_t nodes = block_nodes(w.slots, w.old_count, w.new_count);
  std::size_t stride = round_up(std::size_t(nodes) * 6, kTileValues);
  std::vector<double> packed(std::size_t(groups) * w.old_count * kTileModes, 0.0);
  for (int32_t g = 0; g < groups; ++g)
    for (int32_t k = 0; k < w.old_count; ++k)
      for (int r = 0; r < kTileModes; ++r) {
        int32_t j = g * kTileModes + r;
        if (j < w.new_count)
          packed[(std::size_t(g) * w.old_count + k) * kTileModes + r] =
              t[std::size_t(k) * w.old_count + j];
      }
  std::vector<double> old(stride * std::size_t(w.old_count), 0.0);
  std::vector<double> packed_old(stride * std::size_t(w.old_count), 0.0);
  std::vector<double> out(stride * std::size_t(groups) * kTileModes, 0.0);
  int64_t blocks = (w.slots + nodes - 1) / nodes;
  if (!quiet) progress_start(blocks);
  for (int32_t first = 0; first < w.slots; first += nodes) {
    int32_t count = std::min(nodes, w.slots - first);
    std::size_t values = round_up(std::size_t(count) * 6, kTileValues);
    for (int32_t k = 0; k < w.old_count; ++k) {
      double *row = old.data() + std::size_t(k) * stride;
      if (!read_stored_nodes(w.model, w.kind, k, first, count, row)) return 0;
      std::fill(row + std::size_t(count) * 6, row + values, 0.0);
    }
    pack_old(old.data(), stride, w.old_count, values, packed_old.data());
    transform_tiles(packed_old.data(), w.old_count, packed.data(), groups, values, out.data(),
                    stride);
    for (int32_t j = 0; j < w.new_count; ++j)
      if (!write_nodes(w.spans, j, first, count, out.data() + std::size_t(j) * stride)) return -1;
    if (!quiet) progress_tick();
  }
  return 1;
}

}  // namespace

void transform_block(const double *old, std::size_t old_stride, int32_t old_count,
                     const double *t, int32_t t_stride, int32_t new_count, std::size_t values,
                     double *out, std::size_t out_stride) {
  int32_t groups = int32_t(round_up(std::size_t(new_count), kTileModes) / kTileModes);
  std::vector<double> packed(std::size_t(groups) * old_count * kTileModes, 0.0);
  for (int32_t k = 0; k < old_count; ++k)
    for (int32_t j = 0; j < new_count; ++j)
      packed[(std::size_t(j / kTileModes) * old_count + k) * kTileModes + j % kTileModes] =
          t[std::size_t(k) * t_stride + j];
  std::vector<double> packed_old(values * std::size_t(old_count));
  pack_old(old, old_stride, old_count, values, packed_old.data());
  // The last group writes up to three rows past new_count: they go to a scratch copy.
  if (new_count % kTileModes == 0) {
    transform_tiles(packed_old.data(), old_count, packed.data(), groups, values, out, out_stride);
    return;
  }
  std::vector<double> scratch(std::size_t(groups) * kTileModes * values);
  transform_tiles(packed_old.data(), old_count, packed.data(), groups, values, scratch.data(),
                  values);
  for (int32_t j = 0; j < new_count; ++j)
    std::copy_n(scratch.data() + std::size_t(j) * values, values, out + std::size_t(j) * out_stride);
}

int write_transformed_vectors(KRXDATA *model, int kind, int32_t count) {
  if (!model_exists(model)) return 0;
  VectorSlot &slot = model->store[kind];
  int32_t n = int32_t(model->transformation_modes.size());
  if (count < 0 || count > n || slot.io.file == nullptr ||
      model->transformation.size() != std::size_t(n) * std::size_t(n) ||
      slot.record_start.size() < std::size_t(n)) {
    error("Failed to extract mode information for KRX.\n");
    return 0;
  }
  if (!flush_vector_store(model, kind)) return 0;
  std::fflush(slot.io.file);
  bool quiet = host_is_quiet();
  Rewrite w{model, kind, n, count, kind_node_count(model, kind), {}, {}};
  if (!open_replacement_file(model, kind, count, w.slots, "Orthogonal mode file: %s", w.file))
    return 0;
  std::fflush(w.file.io.file);
  w.spans.new_fd = fileno(w.file.io.file);
  w.spans.new_width = w.file.io.precision ? 8 : 4;
  w.spans.new_start = &w.file.record_start;
  int done = 0;
  try {
    done = w.slots > 0 ? rewrite_blocks(w, quiet) : 1;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    discard_replacement_file(w.file);
    return 0;
  }
  if (!quiet && w.slots > 0) std::printf("\n");
  if (done == 0) error("Failed to extract mode information for KRX.\n");
  if (done < 0)
    error("Insufficient disk space for file %s.  Specify different temporary\nfile directory by "
          "setting the %s environment variable",
          w.file.io.path.c_str(), kind_variable(kind));
  if (done != 1) {
    discard_replacement_file(w.file);
    return 0;
  }
  return install_replacement_file(model, w.file);
}

namespace {

// sum_i m_i phi_ij . phi_ik + psi_ij^T J_i psi_ik over the nodes of two loaded records.
double mass_product(const KRXDATA *model, const double *a, const double *b) {
  double sum = 0.0;
  for (std::size_t i = 0; i < model->nodes.size(); ++i) {
    const NodeRecord &node = model->nodes[i];
    const double *p = a + 6 * i, *q = b + 6 * i;
    sum += node.mass * (p[0] * q[0] + p[1] * q[1] + p[2] * q[2]);
    if (!node.inertia) continue;
    const std::array<double, 6> &c = *node.inertia;
    const double j[9] = {c[0], c[3], c[4], c[3], c[1], c[5], c[4], c[5], c[2]};
    for (int r = 0; r < 3; ++r)
      sum += p[3 + r] * (j[3 * r] * q[3] + j[3 * r + 1] * q[4] + j[3 * r + 2] * q[5]);
  }
  return sum;
}

}  // namespace

int add_generalized_masses(KRXDATA *model, int32_t p, int32_t q) {
  if (!model_exists(model)) return 0;
  int32_t retained = model->retained_set ? model->retained_modes : mode_count(model);
  if (p < 0 || q < 0 || p + q != retained) {
    error("Mode count mismatch while generating additional generalized masses.");
    return 0;
  }
  std::vector<double> first;
  try {
    first.resize(model->nodes.size() * 6);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
  for (int32_t j = 0; j < p; ++j) {
    if (!load_mode_record_by_index(model, j, kModeShapes)) return 0;
    const std::vector<double> &record = model->store[kModeShapes].record;
    if (record.size() < first.size()) return 0;
    std::copy_n(record.data(), first.size(), first.data());
    for (int32_t k = p; k < p + q; ++k) {
      if (!load_mode_record_by_index(model, k, kModeShapes)) return 0;
      if (model->store[kModeShapes].record.size() < first.size()) return 0;
      double m = mass_product(model, first.data(), model->store[kModeShapes].record.data());
      if (!add_generalized_mass(model, model->modes[j], model->modes[k], m)) return 0;
      if (!add_generalized_mass(model, model->modes[k], model->modes[j], m)) return 0;
    }
  }
  return 1;
}

}  // namespace krx
