// The temporary vector store: one file of fixed-size records per vector kind, written by
// (mode, node) through per-mode runs of pending bytes and read back one record at a time. Raw
// file access, temporary names and the replacement files are in krxtools_files.cpp.
#include "model/krxtools.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "base/krxmsg.h"
#include "model/krxtools_files.h"

namespace krx {
namespace {

constexpr const char *kSource = "..\\krxtools";

// Pending bytes per kind are shared out among the mode records, within these bounds per run.
constexpr int64_t kRunBudget = int64_t(4) << 20;
constexpr int64_t kRunMinimum = 4096 / kNodeStep * kNodeStep;
constexpr int64_t kRunMaximum = 262144 / kNodeStep * kNodeStep;

const char *const kOpenFailure[3] = {
    "Unable to open temporary mode shape file %s.\nTo write elsewhere, specify directory name in "
    "environment variable %s,\nor specify path name (file name) in environment variable "
    "QOR_TMP_MOD.",
    "Unable to open temporary modal stress file %s.\nTo write elsewhere, specify directory name in "
    "environment variable %s,\nor specify path name (file name) in environment variable "
    "QOR_TMP_STR.",
    "Unable to open temporary modal strain file %s.\nTo write elsewhere, specify directory name in "
    "environment variable %s,\nor specify path name (file name) in environment variable "
    "QOR_TMP_STN."};

// The two blanks before the mode-shape path are deliberate: hosts match the text as it stands.
const char *const kDiskFailure[3] = {
    "Insufficient disk space for temporary mode shape file  %s.\nTo write elsewhere, specify "
    "directory name in environment variable %s,\nor specify path name (file name) in environment "
    "variable QOR_TMP_MOD.",
    "Insufficient disk space for temporary modal stress file %s.\nTo write elsewhere, specify "
    "directory name in environment variable %s,\nor specify path name (file name) in environment "
    "variable QOR_TMP_STR.",
    "Insufficient disk space for temporary modal strain file %s.\nTo write elsewhere, specify "
    "directory name in environment variable %s,\nor specify path name (file name) in environment "
    "variable QOR_TMP_STN."};

const char *const kOpenNote[3] = {"Temp modeshape file: %s", "Temp modal stress file: %s",
                                  "Temp modal strain file: %s"};

const char *const kReadFailure[3] = {"Problem reading mode shape %d",
                                     "Problem reading modal stress vector %d",
                                     "Problem reading modal strain vector %d"};

const int kContentFlag[3] = {kFlagModeShapes, kFlagModalStress, kFlagModalStrain};

std::vector<double> &pre_values(KRXDATA *model, int kind) {
  return kind == kModalStress ? model->pre_stress : model->pre_strain;
}

void report_pre_allocation_failure(int line, int kind) {
  if (kind == kModalStress)
    error("Failed to allocate memory for Pre-Stress at line %d in file %s.\n", line, kSource);
  else
    error("Failed to allocate memory for Pre-Strain at line %d in file %s.\n", line, kSource);
}

// ---- Pending writes -----------------------------------------------------------------------------

int64_t run_capacity_for(int64_t records) {
  int64_t share = std::clamp(kRunBudget / std::max<int64_t>(records, 1), kRunMinimum, kRunMaximum);
  return share / kNodeStep * kNodeStep;
}

bool flush_run(VectorSlot &slot, int kind, PendingRun &run) {
  if (run.used == 0) return true;
  int64_t used = run.used;
  run.used = 0;
  if (write_at(slot.io.file, run.bytes.get(), used, run.start)) return true;
  error(kDiskFailure[kind], slot.io.path.c_str(), "TMP");
  return false;
}

bool flush_runs(VectorSlot &slot, int kind) {
  bool ok = true;
  for (PendingRun &run : slot.runs) ok = flush_run(slot, kind, run) && ok;
  return ok;
}

// Whole node vectors, the common size, are copied with a fixed-size copy.
void copy_bytes(unsigned char *to, const unsigned char *from, int64_t size) {
  if (size == kNodeStep)
    std::memcpy(to, from, kNodeStep);
  else
    std::memcpy(to, from, size_t(size));
}

// Bytes for a record join that record's run when they continue or overwrite it; otherwise the
// run is written out and a new one starts. A host storing mode by mode fills one run at a time,
// one storing node by node across modes fills one run per mode; either way a system call
// carries thousands of vectors.
int queue_write(VectorSlot &slot, int kind, int32_t index, int64_t offset,
                const unsigned char *data, int64_t size) {
  try {
    if (slot.runs.size() < slot.record_start.size()) slot.runs.resize(slot.record_start.size());
    if (slot.run_capacity == 0) slot.run_capacity = run_capacity_for(int64_t(slot.runs.size()));
    PendingRun &run = slot.runs[size_t(index)];
    if (run.used > 0 && offset >= run.start && offset <= run.start + run.used &&
        offset + size <= run.start + slot.run_capacity) {
      copy_bytes(run.bytes.get() + (offset - run.start), data, size);
      run.used = std::max(run.used, offset + size - run.start);
      return 1;
    }
    if (!flush_run(slot, kind, run)) return 0;
    if (!run.bytes) run.bytes = std::make_unique_for_overwrite<unsigned char[]>(size_t(slot.run_capacity));
    std::memcpy(run.bytes.get(), data, size_t(size));
    run.start = offset;
    run.used = size;
    return 1;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
}

// ---- Files of the kinds -------------------------------------------------------------------------

// Closes the kind's file (deleting it when the library made it); the model's own file, which a
// model read from a file shares with its slots, stays open.
void release_vector_file(KRXDATA *model, VectorSlot &slot) {
  slot.runs.clear();
  if (slot.io.file && slot.io.file != model->own.file) {
    if (slot.io.xdr_in_use && slot.io.xdr) xdr_destroy(slot.io.xdr.get());
    std::fclose(slot.io.file);
    if (slot.owns_file && !slot.io.path.empty()) std::remove(slot.io.path.c_str());
  }
  slot.io.xdr.reset();
  slot.io.xdr_in_use = 0;
  slot.io.file = nullptr;
  slot.io.path.clear();
  slot.owns_file = false;
  slot.held_mode = -1;
}

int open_vector_file(KRXDATA *model, int kind) {
  VectorSlot &slot = model->store[kind];
  bool quiet = host_is_quiet();
  try {
    // Everything the slot needs is allocated before the file exists, so that a failed allocation
    // cannot leave a temporary file behind.
    int32_t records = std::max(model->mode_capacity, 0);
    int64_t record_bytes = int64_t(model->node_capacity) * kNodeStep;
    std::vector<int64_t> starts(static_cast<size_t>(records));
    for (int32_t r = 0; r < records; ++r) starts[size_t(r)] = r * record_bytes;
    std::string path;
    FILE *file = nullptr;
    if (const char *given = given_path(kind)) {
      path = given;
      file = std::fopen(given, "wb+");
    } else {
      file = open_unique_file(temp_directory(), path);
    }
    if (!file) {
      error(kOpenFailure[kind], path.c_str(), "TMP");
      return 0;
    }
    if (!quiet) note(kOpenNote[kind], path.c_str());
    if (!lay_out(file, records * record_bytes)) {
      error(kDiskFailure[kind], path.c_str(), "TMP");
      discard_file(file, path);
      return 0;
    }
    slot.io.file = file;
    slot.io.path = std::move(path);
    slot.io.xdr_in_use = 0;
    slot.io.precision = model->own.precision;
    slot.opened = 1;
    slot.owns_file = true;
    slot.slot_bytes = kNodeStep;
    slot.record_start = std::move(starts);
    slot.runs.clear();
    slot.run_capacity = run_capacity_for(records);
    slot.held_mode = -1;
    return 1;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
}

// The slot of a node in the list of kind 1 or 2, appending it when it has none yet.
int32_t kind_slot_or_add(KRXDATA *model, int kind, int32_t node_id, int32_t position) {
  VectorSlot &slot = model->store[kind];
  int32_t known = find_id(slot.index, node_id);
  if (known >= 0) return known;
  int32_t added = int32_t(slot.nodes.size());
  // Room first: once the index holds the node, the append cannot fail.
  reserve_one_more(slot.nodes, 1000);
  insert_id(slot.index, node_id, added);
  slot.nodes.push_back(position);
  return added;
}

// Where the values of (mode, node) go: node position, file, mode index and byte offset, in this
// order. offset is -1 when the mode has no record in the current file.
struct Target {
  int32_t index = -1;
  int64_t offset = -1;
};

// Hosts store either the node of the last store or the next one, and mostly the same mode as
// last time or the next; the hints spare the lookups on the common path. A negative hint, or one
// past the end, fails the size test.
bool holds(const std::vector<NodeRecord> &nodes, int32_t at, int32_t node_id) {
  return size_t(at) < nodes.size() && nodes[size_t(at)].id == node_id;
}

bool holds(const std::vector<int32_t> &list, int32_t at, int32_t value) {
  return size_t(at) < list.size() && list[size_t(at)] == value;
}

// A host going node after node reads the node table as a stream: fetch ahead of it.
void fetch_ahead(const std::vector<NodeRecord> &nodes, int32_t at) {
  __builtin_prefetch(nodes.data() + std::min(size_t(at) + 8, nodes.size() - 1));
}

int32_t hinted_node_position(KRXDATA *model, VectorSlot &slot, int32_t node_id) {
  const auto &nodes = model->nodes;
  int32_t at = slot.node_hint;
  if (!holds(nodes, at, node_id)) ++at;
  if (holds(nodes, at, node_id)) {
    fetch_ahead(nodes, at);
    return slot.node_hint = at;
  }
  int32_t position = node_position_or_add(model, node_id);
  if (position >= 0) slot.node_hint = position;
  return position;
}

int32_t hinted_mode_index(KRXDATA *model, VectorSlot &slot, int32_t mode_number) {
  int32_t at = slot.mode_hint;
  if (!holds(model->modes, at, mode_number)) ++at;
  if (holds(model->modes, at, mode_number)) return slot.mode_hint = at;
  int32_t index = register_mode(model, mode_number);
  if (index >= 0) slot.mode_hint = index;
  return index;
}

// Kinds 1 and 2: the node's slot in the kind's list, added when it has none.
int32_t hinted_kind_slot(KRXDATA *model, VectorSlot &slot, int kind, int32_t node_id,
                         int32_t position) {
  int32_t at = slot.slot_hint;
  if (!holds(slot.nodes, at, position)) ++at;
  if (holds(slot.nodes, at, position)) return slot.slot_hint = at;
  try {
    return slot.slot_hint = kind_slot_or_add(model, kind, node_id, position);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return -1;
  }
}

int locate(KRXDATA *model, int32_t mode_number, int32_t node_id, int kind, Target &target) {
  VectorSlot &slot = model->store[kind];
  int32_t position = hinted_node_position(model, slot, node_id);
  if (position < 0) return 0;
  if (!slot.io.file && !open_vector_file(model, kind)) return 0;
  target.index = hinted_mode_index(model, slot, mode_number);
  if (target.index < 0) return 0;
  int32_t node_slot = position;
  if (kind != kModeShapes) {
    node_slot = hinted_kind_slot(model, slot, kind, node_id, position);
    if (node_slot < 0) return 0;
  }
  if (size_t(target.index) < slot.record_start.size())
    target.offset = slot.record_start[size_t(target.index)] + int64_t(node_slot) * slot.slot_bytes;
  return 1;
}

int value_width(const VectorSlot &slot) { return slot.io.precision ? 8 : 4; }

// A stored value makes the held copy of its record stale.
void finish_store(KRXDATA *model, int kind, int32_t index) {
  VectorSlot &slot = model->store[kind];
  if (slot.held_mode == index) slot.held_mode = -1;
  model->flags[size_t(kContentFlag[kind])] = 1;
}

// The common store in one piece: the node after the last one stored, the mode of the last store,
// doubles, and bytes that continue the mode's pending run. False when any of it does not hold;
// the general path then does the same work step by step.
bool store_next_vector(KRXDATA *model, int kind, int32_t mode_number, int32_t node_id,
                       const double values[6]) {
  VectorSlot &slot = model->store[kind];
  const auto &nodes = model->nodes;
  const int32_t position = slot.node_hint + 1;
  if (!holds(nodes, position, node_id)) [[unlikely]]
    return false;
  const int32_t index = slot.mode_hint;
  if (!holds(model->modes, index, mode_number) || size_t(index) >= slot.runs.size()) [[unlikely]]
    return false;
  int32_t node_slot = position;
  if (kind != kModeShapes) {
    node_slot = slot.slot_hint + 1;
    if (!holds(slot.nodes, node_slot, position)) [[unlikely]]
      return false;
  }
  if (!slot.io.file || !slot.io.precision || size_t(index) >= slot.record_start.size()) [[unlikely]]
    return false;
  PendingRun &run = slot.runs[size_t(index)];
  const int64_t offset = slot.record_start[size_t(index)] + int64_t(node_slot) * slot.slot_bytes;
  if (run.used == 0 || offset != run.start + run.used || run.used + kNodeStep > slot.run_capacity)
      [[unlikely]]
    return false;
  std::memcpy(run.bytes.get() + run.used, values, kNodeStep);
  run.used += kNodeStep;
  fetch_ahead(nodes, position);
  slot.node_hint = position;
  if (kind != kModeShapes) slot.slot_hint = node_slot;
  finish_store(model, kind, index);
  return true;
}

// ---- Reading records ----------------------------------------------------------------------------

double decode_value(const unsigned char *at, int width, bool big_endian) {
  constexpr bool kLittle = std::endian::native == std::endian::little;
  if (width == 8) {
    uint64_t bits;
    std::memcpy(&bits, at, 8);
    if (big_endian && kLittle) bits = __builtin_bswap64(bits);
    return std::bit_cast<double>(bits);
  }
  uint32_t bits;
  std::memcpy(&bits, at, 4);
  if (big_endian && kLittle) bits = __builtin_bswap32(bits);
  return double(std::bit_cast<float>(bits));
}

// One read of the span of nodes [first, first + count) of a record, then widening (floats), byte
// order (files in XDR encoding, which are big-endian) and the node step are resolved in memory.
// Pending writes go out first; a failed flush has said so, and the read shows what the file holds.
bool read_span(KRXDATA *model, int kind, int32_t index, int32_t first, int32_t count,
               double *out) {
  VectorSlot &slot = model->store[kind];
  if (!slot.io.file || index < 0 || size_t(index) >= slot.record_start.size()) return false;
  if (first < 0 || count <= 0) return false;
  flush_runs(slot, kind);
  int width = value_width(slot);
  int64_t step = slot.slot_bytes;
  int64_t span = int64_t(count - 1) * step + 6 * width;
  int64_t start = slot.record_start[size_t(index)] + int64_t(first) * step;
  bool big_endian = slot.io.xdr_in_use != 0;
  if (width == 8 && step == 48 && !big_endian)
    return read_at(slot.io.file, reinterpret_cast<unsigned char *>(out), span, start);
  model->scratch.resize(size_t((span + 3) / 4));  // a failure is thrown to the caller
  auto *bytes = reinterpret_cast<unsigned char *>(model->scratch.data());
  if (!read_at(slot.io.file, bytes, span, start)) return false;
  for (int64_t node = 0; node < count; ++node)
    for (int j = 0; j < 6; ++j)
      out[node * 6 + j] = decode_value(bytes + node * step + j * width, width, big_endian);
  return true;
}

// Mode shapes carry the length ratio of the last unit change on their translations, modal
// stresses the force over area ratio; strains have no unit. values holds six per node.
void scale_values(const KRXDATA *model, int kind, double *values, size_t count) {
  if (kind == kModeShapes) {
    double ratio = model->length_ratio;
    if (ratio == 1.0) return;
    for (size_t i = 0; i + 2 < count; i += 6) {
      values[i] *= ratio;
      values[i + 1] *= ratio;
      values[i + 2] *= ratio;
    }
  } else if (kind == kModalStress) {
    double ratio = model->force_ratio / (model->length_ratio * model->length_ratio);
    if (ratio == 1.0) return;
    for (size_t i = 0; i < count; ++i) values[i] *= ratio;
  }
}

void scale_record(const KRXDATA *model, int kind, std::vector<double> &record) {
  scale_values(model, kind, record.data(), record.size());
}

int load_pre_record(KRXDATA *model, int kind) {
  const std::vector<double> &pre = pre_values(model, kind);
  int32_t count = kind_node_count(model, kind);
  if (pre.empty() || count <= 0) return 0;
  VectorSlot &slot = model->store[kind];
  try {
    slot.record.assign(size_t(count) * 6, 0.0);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
  std::copy_n(pre.begin(), std::min(pre.size(), slot.record.size()), slot.record.begin());
  slot.held_mode = -1;
  scale_record(model, kind, slot.record);
  return 1;
}

}  // namespace

// ---- Storing ------------------------------------------------------------------------------------

int store_node_vector(KRXDATA *model, int32_t mode_number, int32_t node_id, int kind,
                      const double values[6]) {
  if (!model_exists(model) || !valid_kind(kind)) return 0;
  if (mode_number == 0 && kind != kModeShapes)
    return set_pre_values(model, node_id, kind, values);
  if (store_next_vector(model, kind, mode_number, node_id, values)) [[likely]]
    return 1;
  Target target;
  if (!locate(model, mode_number, node_id, kind, target)) return 0;
  if (target.offset < 0) {
    error("Couldn't seek to mode %ld node %ld position in temporary file", long(mode_number),
          long(node_id));
    return 0;
  }
  VectorSlot &slot = model->store[kind];
  const auto *bytes = reinterpret_cast<const unsigned char *>(values);
  int64_t size = kNodeStep;
  unsigned char image[kNodeStep];
  if (!slot.io.precision) {
    float narrow[6];
    for (int j = 0; j < 6; ++j) narrow[j] = float(values[j]);
    // The unused half of the 48-byte step goes along as zeros, so that runs stay contiguous.
    std::memset(image, 0, sizeof image);
    std::memcpy(image, narrow, sizeof narrow);
    if (slot.slot_bytes < kNodeStep) size = sizeof narrow;
    bytes = image;
  }
  if (!queue_write(slot, kind, target.index, target.offset, bytes, size)) return 0;
  finish_store(model, kind, target.index);
  return 1;
}

int store_node_value(KRXDATA *model, int32_t mode_number, int32_t node_id, int kind, int dof,
                     double value) {
  if (!model_exists(model) || !valid_kind(kind) || dof < 0 || dof > 5) return 0;
  if (mode_number == 0 && kind != kModeShapes) {
    double six[6] = {};
    int32_t node_slot = kind_slot(model, kind, node_id);
    const std::vector<double> &pre = pre_values(model, kind);
    if (node_slot >= 0 && pre.size() >= size_t(node_slot + 1) * 6)
      std::copy_n(pre.begin() + node_slot * 6, 6, six);
    six[dof] = value;
    return set_pre_values(model, node_id, kind, six);
  }
  Target target;
  if (!locate(model, mode_number, node_id, kind, target)) return 0;
  if (target.offset < 0) {
    error("Couldn't seek to mode %ld node %ld dof %ld position in temporary file",
          long(mode_number), long(node_id), long(dof));
    return 0;
  }
  VectorSlot &slot = model->store[kind];
  int width = value_width(slot);
  unsigned char image[8];
  if (width == 8) {
    std::memcpy(image, &value, 8);
  } else {
    float narrow = float(value);
    std::memcpy(image, &narrow, 4);
  }
  if (!queue_write(slot, kind, target.index, target.offset + dof * width, image, width)) return 0;
  finish_store(model, kind, target.index);
  return 1;
}

int set_pre_values(KRXDATA *model, int32_t node_id, int kind, const double values[6]) {
  if (!model_exists(model)) return 0;
  if (kind != kModalStress && kind != kModalStrain) return 0;
  int32_t position = node_position_or_add(model, node_id);
  if (position < 0) return 0;
  std::vector<double> &pre = pre_values(model, kind);
  int32_t node_slot = -1;
  try {
    node_slot = kind_slot_or_add(model, kind, node_id, position);
    size_t needed = model->store[kind].nodes.size() * 6;
    if (pre.size() < needed) pre.resize(needed, 0.0);
  } catch (const std::bad_alloc &) {
    report_pre_allocation_failure(__LINE__, kind);
    return 0;
  }
  std::copy_n(values, 6, pre.begin() + node_slot * 6);
  model->flags[size_t(kind == kModalStress ? kFlagPreStress : kFlagPreStrain)] = 1;
  return 1;
}

int flush_vector_store(KRXDATA *model, int kind) {
  if (!model_exists(model) || !valid_kind(kind)) return 0;
  VectorSlot &slot = model->store[kind];
  if (!slot.io.file) return 1;
  if (!flush_runs(slot, kind)) return 0;
  std::fflush(slot.io.file);
  return 1;
}

// ---- Loading ------------------------------------------------------------------------------------

int load_mode_record(KRXDATA *model, int32_t mode_number, int kind) {
  if (!model_exists(model) || !valid_kind(kind)) return 0;
  if (mode_number == 0 && kind != kModeShapes) return load_pre_record(model, kind);
  int32_t index = mode_index(model, mode_number);
  if (index < 0) return 0;
  return load_mode_record_by_index(model, index, kind);
}

int load_mode_record_by_index(KRXDATA *model, int32_t index, int kind) {
  if (!model_exists(model) || !valid_kind(kind)) return 0;
  if (index < 0 || index >= mode_count(model)) return 0;
  int32_t count = kind_node_count(model, kind);
  if (count <= 0) return 0;
  VectorSlot &slot = model->store[kind];
  if (slot.held_mode == index) return 1;
  try {
    slot.record.resize(size_t(count) * 6);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
  slot.held_mode = index;
  if (!read_span(model, kind, index, 0, count, slot.record.data()))
    error(kReadFailure[kind], model->modes[size_t(index)]);
  scale_record(model, kind, slot.record);
  // A failed read still counts as loaded, with the held mode already set: kept as it is, callers
  // learn of the failure from the message only.
  return 1;
}

int read_stored_nodes(KRXDATA *model, int kind, int32_t mode_index, int32_t first_node,
                      int32_t count, double *out) {
  if (!model_exists(model) || !valid_kind(kind) || first_node < 0 || count <= 0) return 0;
  if (int64_t(first_node) + count > kind_node_count(model, kind)) return 0;
  return read_span(model, kind, mode_index, first_node, count, out) ? 1 : 0;
}

int read_mode_nodes(KRXDATA *model, int kind, int32_t mode_index, int32_t first_node,
                    int32_t count, double *out) {
  if (!model_exists(model) || !valid_kind(kind) || first_node < 0 || count <= 0) return 0;
  if (mode_index < 0 || mode_index >= mode_count(model)) return 0;
  if (int64_t(first_node) + count > kind_node_count(model, kind)) return 0;
  if (!read_span(model, kind, mode_index, first_node, count, out)) {
    error(kReadFailure[kind], model->modes[size_t(mode_index)]);
    return 0;
  }
  scale_values(model, kind, out, size_t(count) * 6);
  return 1;
}

int node_values(KRXDATA *model, int32_t mode_number, int kind, int32_t node_id, int half,
                double out[3]) {
  if (!model_exists(model) || !valid_kind(kind) || (half != 0 && half != 1)) return 0;
  int32_t node_slot =
      kind == kModeShapes ? node_position(model, node_id) : kind_slot(model, kind, node_id);
  if (node_slot < 0) return 0;
  if (!load_mode_record(model, mode_number, kind)) return 0;
  const std::vector<double> &record = model->store[kind].record;
  size_t first = size_t(node_slot) * 6 + size_t(half) * 3;
  if (first + 3 > record.size()) return 0;
  std::copy_n(record.begin() + first, 3, out);
  return 1;
}

int32_t kind_slot(const KRXDATA *model, int kind, int32_t node_id) {
  if (!model || !valid_kind(kind)) return -1;
  // The node index is built on its first use; the model is not changed otherwise.
  if (kind == kModeShapes) return node_position(const_cast<KRXDATA *>(model), node_id);
  return find_id(model->store[kind].index, node_id);
}

int32_t kind_node_count(const KRXDATA *model, int kind) {
  if (!model || !valid_kind(kind)) return 0;
  if (kind == kModeShapes) return int32_t(model->nodes.size());
  return int32_t(model->store[kind].nodes.size());
}

// ---- Switching to a replacement file -----------------------------------------------------------

int install_replacement_file(KRXDATA *model, ReplacementFile &file) {
  if (!model_exists(model)) return 0;
  if (!file.io.file || !valid_kind(file.kind)) return 0;
  VectorSlot &slot = model->store[file.kind];
  release_vector_file(model, slot);
  slot.io.file = file.io.file;
  slot.io.path = std::move(file.io.path);
  slot.io.precision = file.io.precision;
  slot.opened = 1;
  slot.owns_file = true;
  slot.slot_bytes = kNodeStep;
  slot.record_start = std::move(file.record_start);
  slot.run_capacity = run_capacity_for(int64_t(slot.record_start.size()));
  file = ReplacementFile{};
  return 1;
}

}  // namespace krx
