// The reader's per-mode blocks: mode shapes, modal stresses and strains stay in the file; the
// reader records where each mode's values start and sets up the store slot of the kind so that
// a mode is decoded on demand in the file's own encoding and precision.
#include <algorithm>
#include <new>

#include "base/krxmsg.h"
#include "format/krxformat.h"
#include "format/krxread.h"
#include "format/krxreadint.h"
#include "format/krxtoc.h"
#include "processing/krxunits.h"

namespace krx {
namespace {

struct KindTexts {
  int block;
  const char *count;    // count differs from the eigenvalue count
  const char *early;    // stresses before mode shapes
  const char *order;    // stress modes in another order
  const char *memory;
  const char *problem;
};

const KindTexts kKinds[3] = {
    {8, "Number of mode shapes does not match the number of eigenvalues", nullptr, nullptr,
     "Out of memory while reading Mode Shape block", "Problem encountered while caching Mode shape Data"},
    {18, "Number of stress modes does not match the number of eigenvalues",
     "Stress modes are being processed before mode shapes",
     "Stress modes are in a different order than mode shapes",
     "Out of memory while reading Modal Stress Block", "Problem when reading Modal Stress info"},
    {29, "Number of strain modes does not match the number of eigenvalues",
     "Strain modes are being processed before mode shapes",
     "Strain modes are in a different order than mode shapes",
     "Out of memory while reading Modal Strain Block", "Problem when reading Modal Strain info"},
};

// The nodes of the mode-shape block take the first positions of the node table, in the block's
// order, so that a record of the file and the node table agree; other nodes follow.
bool order_nodes_as(KRXDATA &model, const std::vector<int32_t> &ids) {
  std::vector<int32_t> positions(ids.size());
  index_nodes(model);
  for (std::size_t i = 0; i < ids.size(); ++i) {
    positions[i] = find_id(model.node_index, ids[i]);
    if (positions[i] < 0) positions[i] = append_node(model, ids[i]);
  }
  bool in_order = true;
  for (std::size_t i = 0; i < positions.size() && in_order; ++i) in_order = positions[i] == int32_t(i);
  if (in_order) return true;
  std::vector<uint8_t> taken(model.nodes.size(), 0);
  std::vector<NodeRecord> ordered;
  ordered.reserve(model.nodes.size());
  for (int32_t at : positions) {
    if (taken[at]) return false;  // a node listed twice
    taken[at] = 1;
    ordered.push_back(std::move(model.nodes[at]));
  }
  for (std::size_t at = 0; at < model.nodes.size(); ++at)
    if (!taken[at]) ordered.push_back(std::move(model.nodes[at]));
  model.nodes = std::move(ordered);
  model.node_index_built = false;
  index_nodes(model);
  return true;
}

// Kinds 1 and 2 list the nodes that carry values; every one must be a known node.
bool build_kind_nodes(KRXDATA &model, VectorSlot &slot, const std::vector<int32_t> &ids) {
  slot.nodes.clear();
  clear_ids(slot.index);
  slot.nodes.reserve(ids.size());
  reserve_ids(slot.index, ids.size());
  index_nodes(model);
  for (std::size_t i = 0; i < ids.size(); ++i) {
    int32_t at = find_id(model.node_index, ids[i]);
    if (at < 0) return false;
    slot.nodes.push_back(at);
    insert_id(slot.index, ids[i], int32_t(i));
  }
  return true;
}

// The slot reads the model's own file through a stream of its own; the file is closed once,
// by the model's own slot, and never deleted.
int attach_slot(KRXDATA &model, VectorSlot &slot) {
  slot.io.file = model.own.file;
  slot.io.precision = model.own.precision;
  if (model.own.xdr_in_use && !bind_xdr_stream(slot.io, XDR_DECODE, "..\\krxread")) return 0;
  slot.opened = 1;
  slot.owns_file = false;
  slot.slot_bytes = 6 * int64_t(model.real_width);
  slot.held_mode = -1;
  slot.record.clear();
  return 1;
}

int record_modes(KRXDATA &model, int kind, BlockIo &io, int32_t modes, int64_t record_bytes) {
  const KindTexts &t = kKinds[kind];
  VectorSlot &slot = model.store[kind];
  bool numbered_by_eigen = !model.eigen.empty();
  for (int32_t r = 0; r < modes; ++r) {
    int32_t fallback = r + 1;
    if (kind == kModeShapes && numbered_by_eigen && r < int32_t(model.eigen.size()))
      fallback = model.eigen[r].number;
    if (kind != kModeShapes && r < int32_t(model.modes.size())) fallback = model.modes[r];
    int32_t number = 0;
    if (!read_mode_record_number(io, fallback, number)) {
      error("%s", t.problem);
      return 0;
    }
    int32_t index = mode_index(&model, number);
    if (kind == kModeShapes && index < 0) {
      model.modes.push_back(number);
      index = int32_t(model.modes.size()) - 1;
    }
    if (kind != kModeShapes && index != r) {
      error("%s", t.order);
      return 0;
    }
    if (slot.record_start.size() <= std::size_t(index)) slot.record_start.resize(std::size_t(index) + 1, -1);
    int64_t at = tell_stream(model.own);
    slot.record_start[index] = at;
    if (at < 0 || !seek_stream(model.own, at + record_bytes)) {
      error("%s", t.problem);
      return 0;
    }
  }
  return 1;
}

}  // namespace

int read_vector_block(KRXDATA &model, int kind) {
  const KindTexts &t = kKinds[kind];
  VectorSlot &slot = model.store[kind];
  BlockIo io = model_block_io(model);
  io.limit = stream_file_size(model.own);
  ModeBlockHead head;
  if (!seek_to_block(&model, t.block - 1)) {
    error("%s", t.problem);
    return 0;
  }
  if (!read_mode_block_head(io, head)) {
    error("%s", io.out_of_memory ? t.memory : t.problem);
    return 0;
  }
  if (block_present(&model, 6) && head.modes != int32_t(model.eigen.size())) {
    error("%s", t.count);
    return 0;
  }
  try {
    if (kind == kModeShapes) {
      if (!order_nodes_as(model, head.ids)) {
        error("%s", t.problem);
        return 0;
      }
      slot.nodes.resize(head.ids.size());
      for (std::size_t i = 0; i < head.ids.size(); ++i) slot.nodes[i] = int32_t(i);
    } else {
      if (!model.store[kModeShapes].opened) {
        error("%s", t.early);
        return 0;
      }
      if (!slot.nodes.empty() || !build_kind_nodes(model, slot, head.ids)) {
        error("%s", t.problem);
        return 0;
      }
    }
    slot.record_start.assign(std::max<std::size_t>(model.modes.size(), 0), -1);
    int64_t record_bytes = 6 * int64_t(head.ids.size()) * model.real_width;
    if (!record_modes(model, kind, io, head.modes, record_bytes)) return 0;
    slot.record_start.resize(std::max(slot.record_start.size(), model.modes.size()), -1);
  } catch (const std::bad_alloc &) {
    error("%s", t.memory);
    return 0;
  }
  if (kind == kModeShapes) model.retained_modes = int32_t(model.modes.size());
  return attach_slot(model, slot);
}

int read_pre_block_of(KRXDATA &model, int kind) {
  bool stress = kind == kModalStress;
  const char *block_problem = stress ? "Problem when reading Pre-Stress Block" : "Problem when reading Pre-Strain Block";
  const char *memory = stress ? "Out of memory while processing Pre-Stress Block" : "Out of memory while processing Pre-Strain Block";
  const char *info = stress ? "Problem occurred while reading Pre-Stress info" : "Problem occurred while reading Pre-Strain info";
  std::vector<double> &target = stress ? model.pre_stress : model.pre_strain;
  const VectorSlot &slot = model.store[kind];
  // The pre-stress is stored once and only against the node list of the stress modes.
  if (!slot.opened || !target.empty() || !seek_to_block(&model, stress ? 30 : 31)) {
    error("%s", block_problem);
    return 0;
  }
  BlockIo io = model_block_io(model);
  io.limit = stream_file_size(model.own);
  std::vector<double> values;
  if (!read_pre_block(io, values)) {
    error("%s", io.out_of_memory ? memory : info);
    return 0;
  }
  if (values.size() / 6 != slot.nodes.size()) {
    error(stress ? "Number of nodes in pre-stress does not match that in stress modes"
                 : "Number of nodes in pre-strain does not match that in strain modes");
    return 0;
  }
  target = std::move(values);
  return 1;
}

void normalize_file_units(KRXDATA &model) {
  for (auto *name : {&model.mass_unit, &model.length_unit, &model.time_unit, &model.force_unit})
    if ((*name)[0]) normalize_unit_name(name->data());
}

int read_mode_values(KRXDATA *model, int kind, int32_t mode_index, std::vector<double> &out) {
  if (!model || kind < 0 || kind > 2) return 0;
  VectorSlot &slot = model->store[kind];
  if (!slot.opened || !slot.io.file || mode_index < 0 || std::size_t(mode_index) >= slot.record_start.size() ||
      slot.record_start[mode_index] < 0)
    return 0;
  try {
    out.resize(slot.nodes.size() * 6);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC("..\\krxread");
    return 0;
  }
  if (!seek_stream(slot.io, slot.record_start[mode_index])) return 0;
  return get_reals(slot.io, model->scratch, out.data(), out.size());
}

int read_invariant_values(KRXDATA *model, int block, std::vector<double> &out, int32_t *file_modes) {
  if (file_modes) *file_modes = -1;
  if (!model || block < 19 || block > 26 || !model->own.file) return 0;
  int64_t back = tell_stream(model->own);
  if (!seek_to_block(model, block - 1)) return 0;
  BlockIo io = model_block_io(*model);
  io.limit = stream_file_size(model->own);
  InvariantBlock values;
  int ok = read_invariant_block(io, block, model->retained_modes, values);
  if (back >= 0) seek_stream(model->own, back);
  if (!ok) return 0;
  if (file_modes && (block == 21 || block == 22 || block == 23 || block == 25 || block == 26))
    *file_modes = values.modes;
  out = std::move(values.values);
  return 1;
}

}  // namespace krx
